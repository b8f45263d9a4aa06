// ostra hotcheck: counts the colours of a BMP file that are not broadcast-safe and, on
// request, writes the repaired image.
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>

#include "command.h"
#include "ostra/kadib.h"
#include "ostra/kaplatform.h"
#include "ostra/kayuv.h"
#include "output_file.h"
#include "text.h"

namespace {

BYTE level(double v) { return BYTE(std::lround(v * 255.0)); }

void setup(CLI::App& cmd) {
  static bool yiq = false, yuv = false, pal = false, json = false;
  static std::string repair, in;
  auto* g = cmd.add_option_group("standard", "The check to apply (NTSC YIQ when none is given)");
  g->add_flag("--ntsc-yiq", yiq, "NTSC, YIQ encoding");
  g->add_flag("--ntsc-yuv", yuv, "NTSC, YUV encoding");
  g->add_flag("--pal", pal, "PAL");
  g->require_option(0, 1);
  cmd.add_option("--repair", repair,
                 "Write the image with illegal colours repaired to this BMP file");
  cmd.add_flag("--json", json, "Print one JSON object");
  cmd.add_option("in", in, "BMP file")->required();
  cmd.callback([] {
    using namespace ostra::cli;
    BITMAPINFOHEADER* src = nullptr;
    HRESULT hr = KaDib_ReadBmpFile(ostra::cli::toUtf16(in).c_str(), &src);
    if (FAILED(hr)) {
      reportFailure(hr, in);
      return;
    }
    // Four bytes a pixel, stored as a plain 32-bit bitmap (BI_RGB) that every program
    // opens; the fourth byte carries nothing in a broadcast check.
    BITMAPINFOHEADER* bmp = nullptr;
    hr = KaDibAlloc(&bmp, KAPT_BGRX32, src->biWidth, src->biHeight, nullptr, 0, 0, 0);
    if (SUCCEEDED(hr)) hr = KaDibCopy(bmp, nullptr, 0, 0, 0, src, nullptr, 0, nullptr);
    KaDibFree(src, 0);
    if (FAILED(hr)) {
      KaDibFree(bmp, 0);
      reportFailure(hr, in);
      return;
    }
    int (*check)(const KAHOTPIXEL*) = pal   ? HotCheckPALYUV
                                      : yuv ? HotCheckNTSCYUV
                                            : HotCheckNTSCYIQ;
    int (*fix)(KAHOTPIXEL*) = pal   ? HotCheckPALYUVReturn
                              : yuv ? HotCheckNTSCYUVReturn
                                    : HotCheckNTSCYIQReturn;
    const char* standard = pal ? "pal" : yuv ? "ntsc-yuv" : "ntsc-yiq";
    BYTE* px = static_cast<BYTE*>(KaDibPixels(bmp));
    const uint64_t total = uint64_t(bmp->biWidth) * uint64_t(bmp->biHeight);
    uint64_t illegal = 0;
    for (uint64_t i = 0; i < total; ++i, px += 4) {
      KAHOTPIXEL p{px[0] / 255.0, px[1] / 255.0, px[2] / 255.0};
      if (repair.empty() ? check(&p) : fix(&p)) {
        ++illegal;
        px[0] = level(p.b);
        px[1] = level(p.g);
        px[2] = level(p.r);
      }
    }
    std::string why;
    if (!repair.empty()) hr = writeBitmap(repair, {in}, bmp, why);
    KaDibFree(bmp, 0);
    if (FAILED(hr)) {
      reportRefusal(hr, repair, why);
      return;
    }
    if (json) {
      nlohmann::json j{{"standard", standard}, {"pixels", total}, {"illegal", illegal}};
      if (!repair.empty()) j["repaired"] = repair;
      std::printf("%s\n", j.dump(2).c_str());
    } else {
      std::printf("%s: %llu of %llu pixels illegal (%s)\n", in.c_str(), (unsigned long long)illegal,
                  (unsigned long long)total, standard);
    }
  });
}

OSTRA_COMMAND("hotcheck", "Count (and repair) colours that are not broadcast-safe", setup);

}  // namespace
