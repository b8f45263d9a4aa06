// ostra frame FILE --at TC [--layout L] [--matrix M] [--range R] OUT.bmp: one video frame
// of a file a plug-in reads, as a 32-bit bitmap. The reader delivers the frame in a YUV
// layout (its own by default) and the kernel's YUV conversion makes the bitmap; with
// --layout bgra the reader converts to a bitmap itself.
#include <cmath>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "checks.h"
#include "command.h"
#include "media_source.h"
#include "ostra/kaerror.h"
#include "ostra/kafiomgr.h"
#include "ostra/kayuv.h"
#include "output_file.h"
#include "rgb_range.h"

namespace ostra::cli {
namespace {

struct Options {
  std::string file, at = "0", layout = "native", matrix = "auto", range = "full", out;
};

// A frame index from "HH:MM:SS:FF" (frames at the stream's rounded rate), "HH:MM:SS.sss",
// or seconds ("1.5"); -1 for text that is none of them.
int64_t frameAt(const std::string& text, double rate) {
  int h = 0, m = 0, s = 0, f = 0;
  char extra = 0;
  if (std::sscanf(text.c_str(), "%d:%d:%d:%d%c", &h, &m, &s, &f, &extra) == 4 && h >= 0 && m >= 0 &&
      m < 60 && s >= 0 && s < 60 && f >= 0 && f < std::lround(rate))
    return (int64_t(h) * 3600 + m * 60 + s) * std::lround(rate) + f;
  double seconds = 0;
  if (std::sscanf(text.c_str(), "%d:%d:%lf%c", &h, &m, &seconds, &extra) == 3 && h >= 0 && m >= 0 &&
      m < 60 && seconds >= 0 && seconds < 60)
    return std::llround((h * 3600.0 + m * 60.0 + seconds) * rate);
  char* end = nullptr;
  seconds = std::strtod(text.c_str(), &end);
  if (end != text.c_str() && !*end && seconds >= 0 && std::isfinite(seconds))
    return std::llround(seconds * rate);
  return -1;
}

// The matrix the file's description names, else the kernel's choice by size.
int matrixFor(const std::string& option, const MediaFile& media) {
  static const std::map<std::string, int> kOptions = {
      {"auto", 0}, {"601", 1}, {"709", 2}, {"2020", 3}};
  if (option != "file") return kOptions.at(option);
  for (const auto& [k, v] : media.meta())
    if (k == "matrix_coefficients") {
      if (v == "bt709") return 2;
      if (v == "bt470bg" || v == "smpte170m") return 1;
      if (v == "bt2020nc" || v == "bt2020c") return 3;
    }
  return 0;
}

HRESULT run(const Options& o) {
  MediaFile media;
  HRESULT hr = media.open(o.file);
  if (FAILED(hr)) return hr;
  const int index = media.firstOf(KAFIO_STREAM_VIDEO);
  if (index < 0) return withReason(KAERR_UNSUPPORTED_FORMAT, "the file has no video stream");
  const MediaStream& s = media.streams()[size_t(index)];
  const double rate = s.rateDen ? double(s.rateNum) / s.rateDen : 25.0;
  const int64_t frame = frameAt(o.at, rate);
  if (frame < 0)
    return withReason(E_INVALIDARG, "--at " + o.at + " is neither HH:MM:SS:FF nor seconds");
  if (s.frames && uint64_t(frame) >= s.frames)
    return withReason(E_INVALIDARG, "--at " + o.at + " is past the last frame (" +
                                        std::to_string(s.frames) + " frames)");
  const LONG w = s.header.biWidth;
  const LONG h = s.header.biHeight < 0 ? -s.header.biHeight : s.header.biHeight;
  BITMAPINFOHEADER* bmp = nullptr;
  if (FAILED(hr = KaDibAlloc(&bmp, KAPT_BGRX32, w, h, nullptr, 0, 0, 0))) return hr;
  struct Free {
    BITMAPINFOHEADER* b;
    ~Free() { KaDibFree(b, 0); }
  } freeBmp{bmp};
  INT64 time = 0;
  if (o.layout == "bgra") {
    BITMAPINFOHEADER want = *bmp;
    want.biCompression = 0;
    want.biBitCount = 32;
    hr = media.readFrame(index, uint64_t(frame), want, KaDibPixels(bmp),
                         size_t(KaDibStride(bmp)) * size_t(h), &time);
  } else {
    BITMAPINFOHEADER want = s.header;
    if (o.layout != "native")
      want.biCompression = KaFourCC(o.layout[0], o.layout[1], o.layout[2], o.layout[3]);
    want.biHeight = h;
    if (!want.biCompression)
      return withReason(KAERR_UNSUPPORTED_FORMAT,
                        "the reader's frames are not YUV; use --layout bgra or name a layout");
    const DWORD bytes = KaYUVImageBytesAndOffsets(&want, nullptr);
    if (!bytes) return withReason(KAERR_UNSUPPORTED_FORMAT, o.layout + " is not a YUV layout");
    std::vector<BYTE> yuv(bytes);
    hr = media.readFrame(index, uint64_t(frame), want, yuv.data(), yuv.size(), &time);
    // The frame's first row is the image's top row, stored last in the bitmap.
    const LONG stride = KaDibStride(bmp);
    BYTE* top = static_cast<BYTE*>(KaDibPixels(bmp)) + size_t(h - 1) * stride;
    if (SUCCEEDED(hr))
      hr = KaYUV_YUVToRGB(top, -stride, yuv.data(), yuv.size(), want.biCompression, w, h,
                          matrixFor(o.matrix, media));
    if (SUCCEEDED(hr) && o.range == "full") rescaleRgb(bmp, true);
  }
  if (FAILED(hr)) return hr;
  std::string why;
  if (FAILED(hr = writeBitmap(o.out, {o.file}, bmp, why))) return withReason(hr, why);
  std::printf("%s: frame %lld at %.6f s, %ldx%ld\n", o.out.c_str(), (long long)frame,
              double(time) / 1e7, long(w), long(h));
  return S_OK;
}

void setup(CLI::App& cmd) {
  static Options o;
  cmd.add_option("FILE", o.file, "A video file a plug-in reads (MP4, MOV, MKV, ...)")
      ->required()
      ->check(CLI::ExistingFile);
  cmd.add_option("OUT", o.out, "BMP file to write")->required();
  cmd.add_option("--at", o.at, "The frame: HH:MM:SS:FF, HH:MM:SS.sss or seconds (default 0)");
  cmd.add_option("--layout", o.layout,
                 "Layout the reader delivers: native (its own, default), UYVY, YUYV, I420, "
                 "YV12, YV16, NV12, P010, P210, v210, or bgra (the reader makes the bitmap)")
      ->check(CLI::IsMember({"native", "UYVY", "YUYV", "I420", "YV12", "YV16", "NV12", "P010",
                             "P210", "v210", "bgra"}));
  cmd.add_option("--matrix", o.matrix,
                 "Colour matrix of the YUV conversion: file (as the file says), auto (by "
                 "size), 601, 709 or 2020")
      ->check(CLI::IsMember({"file", "auto", "601", "709", "2020"}));
  cmd.add_option("--range", o.range, kRangeHelp)->check(CLI::IsMember({"full", "studio"}));
  cmd.callback([] {
    if (o.matrix == "auto") o.matrix = "file";
    const HRESULT hr = run(o);
    if (FAILED(hr)) reportFailure(hr, o.file);
  });
}

OSTRA_COMMAND("frame", "Write one video frame of a media file as a 32-bit bitmap", setup);

}  // namespace
}  // namespace ostra::cli
