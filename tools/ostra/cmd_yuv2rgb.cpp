// ostra yuv2rgb: a raw YUV frame to a 32-bit BMP file.
#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "command.h"
#include "ostra/kadib.h"
#include "ostra/kaplatform.h"
#include "ostra/kayuv.h"
#include "output_file.h"
#include "rgb_range.h"
#include "text.h"

namespace {

struct Options {
  std::string layout, size, matrix = "auto", range = "full", in, out;
};

void setup(CLI::App& cmd) {
  static Options o;
  static const std::vector<std::string> layouts = {"UYVY", "YUYV", "I420", "YV12", "YV16",
                                                   "NV12", "P010", "P210", "v210"};
  cmd.add_option("--layout", o.layout, "Layout of the raw frame")
      ->required()
      ->check(CLI::IsMember(layouts));
  cmd.add_option("--size", o.size, "Frame size as WxH")->required();
  cmd.add_option("--matrix", o.matrix,
                 "Colour matrix; auto chooses BT.601 for standard definition, else BT.709")
      ->check(CLI::IsMember({"auto", "601", "709", "2020"}));
  cmd.add_option("--range", o.range, ostra::cli::kRangeHelp)
      ->check(CLI::IsMember({"full", "studio"}));
  cmd.add_option("in", o.in, "Raw frame")->required();
  cmd.add_option("out", o.out, "BMP file to write")->required();
  cmd.callback([] {
    using namespace ostra::cli;
    long w = 0, h = 0;
    char x = 0, extra = 0;
    if (std::sscanf(o.size.c_str(), "%ld%c%ld%c", &w, &x, &h, &extra) != 3 ||
        (x != 'x' && x != 'X') || w <= 0 || h <= 0 || w > 65536 || h > 65536) {
      reportUsage("--size must be WxH with positive numbers, for example 1920x1080");
      return;
    }
    if (w & 1) {
      reportUsage("--size " + o.size + ": the width must be even, because every YUV layout " +
                  "shares its colour samples between pairs of pixels");
      return;
    }
    const std::map<std::string, int> matrices = {{"auto", 0}, {"601", 1}, {"709", 2}, {"2020", 3}};
    const DWORD code = KaFourCC(o.layout[0], o.layout[1], o.layout[2], o.layout[3]);
    BITMAPINFOHEADER bih{};
    bih.biWidth = LONG(w);
    bih.biHeight = LONG(h);
    bih.biCompression = code;
    const DWORD need = KaYUVImageBytesAndOffsets(&bih, nullptr);
    if (need == 0) {
      reportUsage("a " + o.layout + " frame of " + o.size + " is too large");
      return;
    }
    std::ifstream f(o.in, std::ios::binary);
    if (!f) {
      reportUsage(o.in + ": cannot open the frame");
      return;
    }
    std::vector<BYTE> frame;
    frame.reserve(need);
    frame.assign(std::istreambuf_iterator<char>(f), {});
    if (frame.size() < need) {
      reportUsage(o.in + ": a " + o.layout + " frame of " + o.size + " needs " +
                  std::to_string(need) + " bytes, the file has " + std::to_string(frame.size()) +
                  "; nothing written");
      return;
    }
    BITMAPINFOHEADER* bmp = nullptr;
    HRESULT hr = KaDibAlloc(&bmp, KAPT_BGRX32, LONG(w), LONG(h), nullptr, 0, 0, 0);
    if (FAILED(hr)) {
      reportFailure(hr, o.out);
      return;
    }
    // The frame's first row is the image's top row, stored last in the bitmap.
    const LONG stride = KaDibStride(bmp);
    BYTE* top = static_cast<BYTE*>(KaDibPixels(bmp)) + size_t(h - 1) * stride;
    hr = KaYUV_YUVToRGB(top, -stride, frame.data(), frame.size(), code, LONG(w), LONG(h),
                        matrices.at(o.matrix));
    if (SUCCEEDED(hr) && o.range == "full") rescaleRgb(bmp, true);
    std::string why;
    if (SUCCEEDED(hr)) hr = writeBitmap(o.out, {o.in}, bmp, why);
    KaDibFree(bmp, 0);
    if (FAILED(hr)) reportRefusal(hr, o.out, why);
  });
}

OSTRA_COMMAND("yuv2rgb", "Convert a raw YUV frame into a 32-bit BMP file", setup);

}  // namespace
