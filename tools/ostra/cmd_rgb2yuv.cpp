// ostra rgb2yuv: a BMP file to a raw YUV frame.
#include <map>
#include <string>
#include <vector>

#include "command.h"
#include "ostra/kadib.h"
#include "ostra/kaerror.h"
#include "ostra/kaplatform.h"
#include "ostra/kayuv.h"
#include "output_file.h"
#include "rgb_range.h"
#include "text.h"

namespace {

struct Options {
  std::string layout, matrix = "auto", range = "full", in, out;
};

// A 32-bit copy of any bitmap the whole-image routines take; null on failure.
BITMAPINFOHEADER* to32(BITMAPINFOHEADER* bmp, HRESULT* hr) {
  BITMAPINFOHEADER* out = nullptr;
  *hr = KaDibAlloc(&out, KAPT_BGRX32, bmp->biWidth, bmp->biHeight, nullptr, 0, 0, 0);
  if (FAILED(*hr)) return nullptr;
  *hr = KaDibCopy(out, nullptr, 0, 0, 0, bmp, nullptr, 0, nullptr);
  if (FAILED(*hr)) {
    KaDibFree(out, 0);
    return nullptr;
  }
  return out;
}

void setup(CLI::App& cmd) {
  static Options o;
  static const std::vector<std::string> layouts = {"UYVY", "YUYV", "I420", "YV12", "YV16",
                                                   "NV12", "P010", "P210", "v210"};
  cmd.add_option("--layout", o.layout, "Layout of the raw frame to write")
      ->required()
      ->check(CLI::IsMember(layouts));
  cmd.add_option("--matrix", o.matrix,
                 "Colour matrix; auto chooses BT.601 for standard definition, else BT.709")
      ->check(CLI::IsMember({"auto", "601", "709", "2020"}));
  cmd.add_option("--range", o.range, ostra::cli::kRangeHelp)
      ->check(CLI::IsMember({"full", "studio"}));
  cmd.add_option("in", o.in, "BMP file")->required();
  cmd.add_option("out", o.out, "Raw frame to write")->required();
  cmd.callback([] {
    using namespace ostra::cli;
    const std::map<std::string, int> matrices = {{"auto", 0}, {"601", 1}, {"709", 2}, {"2020", 3}};
    BITMAPINFOHEADER* bmp = nullptr;
    HRESULT hr = KaDib_ReadBmpFile(ostra::cli::toUtf16(o.in).c_str(), &bmp);
    if (FAILED(hr)) {
      reportFailure(hr, o.in);
      return;
    }
    if (const LONG width = bmp->biWidth; width & 1) {
      KaDibFree(bmp, 0);
      reportRefusal(E_INVALIDARG, o.in,
                    "the image is " + std::to_string(width) +
                        " pixels wide; YUV layouts share their colour samples between pairs " +
                        "of pixels, so the width must be even");
      return;
    }
    BITMAPINFOHEADER* rgb = bmp;
    const int type = KaGetPixelType(bmp);
    if (type != KAPT_BGRX32 && type != KAPT_BGRA32) rgb = to32(bmp, &hr);
    const DWORD code = KaFourCC(o.layout[0], o.layout[1], o.layout[2], o.layout[3]);
    BITMAPINFOHEADER bih{};
    bih.biWidth = bmp->biWidth;
    bih.biHeight = bmp->biHeight;
    bih.biCompression = code;
    const DWORD need = KaYUVImageBytesAndOffsets(&bih, nullptr);
    std::vector<BYTE> frame;
    if (rgb && o.range == "full") rescaleRgb(rgb, false);
    if (rgb) {
      frame.resize(need);
      const LONG stride = KaDibStride(rgb);
      const BYTE* top =
          static_cast<const BYTE*>(KaDibPixels(rgb)) + size_t(rgb->biHeight - 1) * stride;
      hr = KaYUV_RGBToYUV(frame.data(), frame.size(), code, top, -stride, rgb->biWidth,
                          rgb->biHeight, matrices.at(o.matrix));
    }
    if (rgb && rgb != bmp) KaDibFree(rgb, 0);
    KaDibFree(bmp, 0);
    if (FAILED(hr)) {
      reportFailure(hr, o.in);
      return;
    }
    OutputFile out;
    std::string why;
    KAHFILE f = KA_INVALID_HFILE;
    hr = out.reserve(o.out, {o.in}, why);
    if (SUCCEEDED(hr))
      hr = KaFile_OpenUtf8(out.path().c_str(), GENERIC_WRITE, 0, TRUNCATE_EXISTING, 0, &f);
    if (SUCCEEDED(hr)) {
      DWORD written = 0;
      hr = KaFile_Write(f, frame.data(), DWORD(frame.size()), &written);
      if (SUCCEEDED(hr) && written != frame.size()) hr = KAERR_WRITE_FAILED;
      const HRESULT closed = KaFile_Close(f);
      if (SUCCEEDED(hr)) hr = closed;
    }
    if (SUCCEEDED(hr)) hr = out.commit(why);
    if (FAILED(hr)) reportRefusal(hr, o.out, why);
  });
}

OSTRA_COMMAND("rgb2yuv", "Convert a BMP file into a raw YUV frame", setup);

}  // namespace
