// RGB levels of the bitmaps the YUV commands read and write. The kernel's YUV conversions
// keep studio levels (Y 16 is RGB 16, Y 235 is RGB 235); a bitmap that other programs
// show holds full-range RGB (black 0, white 255). The commands rescale on the way out and
// in, unless the user asks for studio levels.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>

#include "ostra/kadib.h"

namespace ostra::cli {

inline const char* kRangeHelp =
    "RGB levels of the bitmap: full (0-255, the default, what image programs show) or "
    "studio (16-235, as the YUV values stand)";

// Rescales the blue, green and red bytes of a 32-bit bitmap: studio to full levels when
// `toFull`, else full to studio. Rounded to nearest, clamped.
inline void rescaleRgb(BITMAPINFOHEADER* bmp, bool toFull) {
  uint8_t table[256];
  for (int v = 0; v < 256; ++v) {
    const double x = toFull ? (v - 16) * 255.0 / 219.0 : 16 + v * 219.0 / 255.0;
    table[v] = uint8_t(std::clamp(std::lround(x), 0L, 255L));
  }
  auto* row = static_cast<uint8_t*>(KaDibPixels(bmp));
  const LONG stride = KaDibStride(bmp);
  const LONG rows = bmp->biHeight < 0 ? -bmp->biHeight : bmp->biHeight;
  for (LONG y = 0; y < rows; ++y, row += stride)
    for (LONG x = 0; x < bmp->biWidth; ++x)
      for (int c = 0; c < 3; ++c) row[4 * x + c] = table[row[4 * x + c]];
}

}  // namespace ostra::cli
