// General YUV conversions on a 1920x1080 frame, one thread, per layout and direction:
// the entry points with the plain kernels (vector features disallowed), with the AVX2
// kernels and with the ones the table chooses; libyuv and swscale on the same conversion
// where they have it; memcpy of the output bytes. The frames stay in the last-level cache.
// The colour kernels alone over the same rows (BM_Kernel_*) show how much of an entry
// point's time is the layout's unpacking and packing.
#include <benchmark/benchmark.h>
#include <omp.h>

#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "image/internal/yuv_general.h"
#include "ostra/kacpu.h"
#include "ostra/kayuv.h"

#if defined(OSTRA_HAVE_YUV)
#include <libyuv/convert.h>
#include <libyuv/convert_argb.h>
#include <libyuv/convert_from_argb.h>
#endif
#if defined(OSTRA_HAVE_SWSCALE)
extern "C" {
#include <libavutil/pixfmt.h>
#include <libswscale/swscale.h>
}
#endif

namespace {

using namespace ostra::image;

constexpr LONG kW = 1920, kH = 1080;
constexpr DWORD kVector = KACPU_AVX512F | KACPU_AVX2 | KACPU_SSE2;

std::vector<BYTE> randomBytes(size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<BYTE> v(n);
  for (auto& b : v) b = BYTE(rng());
  return v;
}

struct Frame {
  DWORD fourcc;
  KAYUVPLANES planes{};
  std::vector<BYTE> yuv, rgb;
  explicit Frame(DWORD code) : fourcc(code) {
    BITMAPINFOHEADER bih{};
    bih.biWidth = kW;
    bih.biHeight = kH;
    bih.biCompression = code;
    yuv = randomBytes(KaYUVImageBytesAndOffsets(&bih, &planes), 1);
    rgb = randomBytes(size_t(kW) * kH * 4, 2);
  }
  BYTE* plane(DWORD offset) { return yuv.data() + offset; }
};

enum Dir { kToRgb, kFromRgb };

void report(benchmark::State& state, const Frame& f) {
  state.SetItemsProcessed(state.iterations());  // frames
  state.SetBytesProcessed(state.iterations() * int64_t(f.yuv.size() + f.rgb.size()));
  state.counters["fps"] =
      benchmark::Counter(double(state.iterations()), benchmark::Counter::kIsRate);
}

// One thread and the given features disallowed for the duration of a run.
void ours(benchmark::State& state, Frame* f, Dir dir, DWORD disallow) {
  const int threads = omp_get_max_threads();
  omp_set_num_threads(1);
  KaDisallowCPUSupport(disallow);
  for (auto _ : state) {
    const HRESULT hr = dir == kToRgb ? KaYUV_YUVToRGB(f->rgb.data(), kW * 4, f->yuv.data(),
                                                      f->yuv.size(), f->fourcc, kW, kH, 2)
                                     : KaYUV_RGBToYUV(f->yuv.data(), f->yuv.size(), f->fourcc,
                                                      f->rgb.data(), kW * 4, kW, kH, 2);
    if (FAILED(hr)) state.SkipWithError("conversion failed");
    benchmark::ClobberMemory();
  }
  KaAllowCPUSupport(disallow);
  omp_set_num_threads(threads);
  report(state, *f);
}

void copy(benchmark::State& state, Frame* f, Dir dir) {
  std::vector<BYTE> from(dir == kToRgb ? f->rgb.size() : f->yuv.size(), 1);
  BYTE* to = dir == kToRgb ? f->rgb.data() : f->yuv.data();
  for (auto _ : state) {
    std::memcpy(to, from.data(), from.size());
    benchmark::ClobberMemory();
  }
  report(state, *f);
}

void peer(benchmark::State& state, Frame* f, const std::function<void()>& convert) {
  for (auto _ : state) {
    convert();
    benchmark::ClobberMemory();
  }
  report(state, *f);
}

#if defined(OSTRA_HAVE_SWSCALE)
// swscale's pixel format and plane pointers for our layouts.
bool swsPlanes(Frame* f, AVPixelFormat* fmt, uint8_t* planes[4], int strides[4]) {
  const KAYUVPLANES& p = f->planes;
  planes[0] = f->yuv.data();
  strides[0] = int(p.lumaStride);
  switch (f->fourcc) {
    case KaFourCC('I', '4', '2', '0'):
      *fmt = AV_PIX_FMT_YUV420P;
      planes[1] = f->plane(p.uOffset);
      planes[2] = f->plane(p.vOffset);
      strides[1] = int(p.chromaStride);
      strides[2] = int(p.vStride);
      return true;
    case KaFourCC('N', 'V', '1', '2'):
    case KaFourCC('P', '0', '1', '0'):
      *fmt = f->fourcc == KaFourCC('N', 'V', '1', '2') ? AV_PIX_FMT_NV12 : AV_PIX_FMT_P010LE;
      planes[1] = f->plane(p.uOffset);
      strides[1] = int(p.chromaStride);
      return true;
    case KaFourCC('U', 'Y', 'V', 'Y'):
      *fmt = AV_PIX_FMT_UYVY422;
      return true;
    default:
      return false;
  }
}

void swscale(benchmark::State& state, Frame* f, Dir dir) {
  AVPixelFormat fmt = AV_PIX_FMT_NONE;
  uint8_t* planes[4] = {};
  int strides[4] = {};
  swsPlanes(f, &fmt, planes, strides);
  uint8_t* rgb[4] = {f->rgb.data()};
  const int rgbStride[4] = {int(kW) * 4};
  SwsContext* ctx = dir == kToRgb ? sws_getContext(kW, kH, fmt, kW, kH, AV_PIX_FMT_BGRA, SWS_POINT,
                                                   nullptr, nullptr, nullptr)
                                  : sws_getContext(kW, kH, AV_PIX_FMT_BGRA, kW, kH, fmt, SWS_POINT,
                                                   nullptr, nullptr, nullptr);
  if (!ctx) return state.SkipWithError("swscale has no context for this pair");
  peer(state, f, [&] {
    if (dir == kToRgb)
      sws_scale(ctx, planes, strides, 0, kH, rgb, rgbStride);
    else
      sws_scale(ctx, rgb, rgbStride, 0, kH, planes, strides);
  });
  sws_freeContext(ctx);
}
#endif

#if defined(OSTRA_HAVE_YUV)
// libyuv's function for the pair, or none.
std::function<void()> libyuvFor(Frame* f, Dir dir) {
  const KAYUVPLANES& p = f->planes;
  BYTE* y = f->yuv.data();
  BYTE* u = f->plane(p.uOffset);
  BYTE* v = f->plane(p.vOffset);
  BYTE* rgb = f->rgb.data();
  const int cs = int(p.chromaStride), rs = int(kW) * 4;
  switch (f->fourcc) {
    case KaFourCC('I', '4', '2', '0'):
      if (dir == kToRgb) return [=] { libyuv::I420ToARGB(y, kW, u, cs, v, cs, rgb, rs, kW, kH); };
      return [=] { libyuv::ARGBToI420(rgb, rs, y, kW, u, cs, v, cs, kW, kH); };
    case KaFourCC('N', 'V', '1', '2'):
      if (dir == kToRgb) return [=] { libyuv::NV12ToARGB(y, kW, u, cs, rgb, rs, kW, kH); };
      return [=] { libyuv::ARGBToNV12(rgb, rs, y, kW, u, cs, kW, kH); };
    case KaFourCC('U', 'Y', 'V', 'Y'):
      if (dir == kToRgb) return [=] { libyuv::UYVYToARGB(y, kW * 2, rgb, rs, kW, kH); };
      return [=] { libyuv::ARGBToUYVY(rgb, rs, y, kW * 2, kW, kH); };
    case KaFourCC('P', '0', '1', '0'):
      if (dir == kToRgb)
        return [=] {
          libyuv::P010ToARGBMatrix(reinterpret_cast<const uint16_t*>(y), kW,
                                   reinterpret_cast<const uint16_t*>(u), kW, rgb, rs,
                                   &libyuv::kYuvH709Constants, kW, kH);
        };
      return nullptr;
    default:
      return nullptr;
  }
}
#endif

// The colour kernels alone over a frame's rows: 8-bit samples to BGRA, BGRA to luma, and
// BGRA to 4:2:0 chroma (every other row).
enum Kernel { kToBgra, kLuma, kChroma };
void kernel(benchmark::State& state, Kernel which, DWORD disallow) {
  static Frame f(KaFourCC('I', '4', '2', '0'));
  std::vector<int16_t> y(kW), u(kW / 2), v(kW / 2);
  for (LONG x = 0; x < kW; ++x) y[x] = int16_t(f.yuv[x]);
  for (LONG x = 0; x < kW / 2; ++x)
    u[x] = int16_t(f.yuv[kW + x]), v[x] = int16_t(f.yuv[2 * kW + x]);
  const YuvGeneralTable t = yuvGeneralTableFor(KaGetCPUSupport(0) & ~disallow);
  const UyvyCoeffs k = uyvyCoeffs(2, kW, kH);
  const KAYUVMATRIX& m = *KaYUV_SelectMatrix(2, kW, kH);
  for (auto _ : state) {
    for (LONG r = 0; r < kH; ++r) {
      BYTE* row = f.rgb.data() + size_t(r) * kW * 4;
      if (which == kToBgra)
        t.toBgra[0](row, y.data(), u.data(), v.data(), kW, k);
      else if (which == kLuma)
        t.luma[0](y.data(), row, kW, m);
      else if (r % 2 == 0)
        t.chroma[0](u.data(), v.data(), row, row + kW * 4, kW, m);
    }
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations());
  state.counters["fps"] =
      benchmark::Counter(double(state.iterations()), benchmark::Counter::kIsRate);
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  static std::vector<Frame> frames;
  const char* layouts[] = {"I420", "NV12", "UYVY", "P010", "v210"};
  frames.reserve(std::size(layouts));
  for (const char* code : layouts)
    frames.emplace_back(KaFourCC(code[0], code[1], code[2], code[3]));
  for (size_t i = 0; i < frames.size(); ++i)
    for (Dir dir : {kToRgb, kFromRgb}) {
      Frame* f = &frames[i];
      const std::string base =
          std::string(layouts[i]) + (dir == kToRgb ? "_to_BGRA/" : "_from_BGRA/");
      benchmark::RegisterBenchmark((base + "ours_plain").c_str(), ours, f, dir, kVector);
#if defined(__x86_64__)
      benchmark::RegisterBenchmark((base + "ours_avx2").c_str(), ours, f, dir,
                                   DWORD(KACPU_AVX512F));
#endif
      benchmark::RegisterBenchmark((base + "ours_chosen").c_str(), ours, f, dir, DWORD(0));
#if defined(OSTRA_HAVE_YUV)
      if (auto fn = libyuvFor(f, dir))
        benchmark::RegisterBenchmark((base + "libyuv").c_str(), peer, f, fn);
#endif
#if defined(OSTRA_HAVE_SWSCALE)
      AVPixelFormat fmt;
      uint8_t* planes[4];
      int strides[4];
      if (swsPlanes(f, &fmt, planes, strides))
        benchmark::RegisterBenchmark((base + "swscale").c_str(), swscale, f, dir);
#endif
      benchmark::RegisterBenchmark((base + "memcpy_output").c_str(), copy, f, dir);
    }
  for (auto [name, which] :
       {std::pair{"to_BGRA", kToBgra}, std::pair{"luma", kLuma}, std::pair{"chroma420", kChroma}}) {
    const std::string base = std::string("Kernel_") + name + "/";
    benchmark::RegisterBenchmark((base + "plain").c_str(), kernel, which, kVector);
#if defined(__x86_64__)
    benchmark::RegisterBenchmark((base + "avx2").c_str(), kernel, which, DWORD(KACPU_AVX512F));
#endif
    benchmark::RegisterBenchmark((base + "chosen").c_str(), kernel, which, DWORD(0));
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
}
