// Internal view of the bitmap model for the image routines: the per-type description,
// the pixel-exchange routines (stored form <-> KAPIXEL) and a resolved bitmap surface.
// Used by the whole-image operations, the BMP reader and the YUV converters.
#pragma once

#include <cstddef>

#include "ostra/kadib.h"

namespace ostra::image {

struct TypeInfo {
  BYTE bitsPerPixel;
  BYTE channelBits[4];
  DWORD compression;
  DWORD masks[4];  // red, green, blue, alpha for the packed RGB types
  DWORD flags;     // KAPIXATTR_*
};

// Null for unknown types.
const TypeInfo* typeInfo(int type) noexcept;
inline bool isRgbType(int type) noexcept { return type >= KAPT_PAL1 && type <= KAPT_BGR10A2; }
inline bool isWholeImageType(int type) noexcept {
  return type >= KAPT_PAL4 && type <= KAPT_BGR10A2;
}

struct Palette {
  const RGBQUAD* table = nullptr;
  DWORD count = 0;
};

using ReadPixelFn = void (*)(const BYTE* row, LONG x, const Palette& pal, KAPIXEL* out);
using WritePixelFn = void (*)(BYTE* row, LONG x, const Palette& pal, const KAPIXEL& in);
struct PixelExchange {
  ReadPixelFn read;
  WritePixelFn write;
};
// Types 16-33; null otherwise.
const PixelExchange* pixelExchange(int type) noexcept;

// A bitmap resolved for row access: row y (0 = top) is base + (height - 1 - y) * stride.
struct Surface {
  int type = 0;
  int bpp = 0;
  LONG width = 0;
  LONG height = 0;
  ptrdiff_t stride = 0;
  BYTE* base = nullptr;
  Palette pal;
  BYTE* row(LONG y) const noexcept { return base + ptrdiff_t(height - 1 - y) * stride; }
};

// Size of the colour table or masks after the header (bytes).
size_t tableBytes(const BITMAPINFOHEADER& h) noexcept;
// Default stride for bits per pixel and width, 0 when it does not fit.
LONG defaultStride(int bitsPerPixel, LONG width) noexcept;
// Fills `s` from a header; `pixels` null takes the packed pixels, `stride` 0 the default.
void makeSurface(const BITMAPINFOHEADER& h, int type, const void* pixels, LONG stride,
                 Surface* s) noexcept;

// A packed bitmap of `bytes` total bytes, counted by the live counters of KaDibAlloc.
BITMAPINFOHEADER* allocPacked(size_t bytes, bool zero) noexcept;

// Quantises a normalised channel to 0..maxValue, rounding to nearest; NaN gives 0.
inline DWORD quantise(double v, DWORD maxValue) noexcept {
  if (!(v > 0.0)) return 0;
  if (v >= 1.0) return maxValue;
  return DWORD(v * double(maxValue) + 0.5);
}

}  // namespace ostra::image
