// Packed 4:2:2 to 32-bit BGRA for 1080p and 480-line frames: ours (each variant, one
// thread, and the entry point on one and on all threads) beside libyuv's UYVYToARGB,
// swscale's uyvy422 -> bgra and memcpy of the same output bytes, in the same run.
// "cache" reuses one frame (it stays in the last-level cache); "stream" cycles through
// enough frames that each one comes from memory.
#include <benchmark/benchmark.h>
#include <omp.h>

#include <cstring>
#include <random>
#include <vector>

#include "image/internal/uyvy.h"
#include "ostra/kacpu.h"
#include "ostra/kayuv.h"

#if defined(OSTRA_HAVE_YUV)
#include <libyuv/convert_argb.h>
#endif
#if defined(OSTRA_HAVE_SWSCALE)
extern "C" {
#include <libavutil/pixfmt.h>
#include <libswscale/swscale.h>
}
#endif

namespace {

using namespace ostra::image;

struct Frames {
  LONG w, h;
  int count;
  std::vector<std::vector<BYTE>> src, dst;
  Frames(LONG w_, LONG h_, bool stream) : w(w_), h(h_) {
    // 8 frames of 1080p are 96 MB, three times the last-level cache of the test machine.
    count = stream ? int((96u << 20) / (size_t(w) * h * 6)) + 1 : 1;
    std::mt19937 rng(1);
    for (int i = 0; i < count; ++i) {
      src.emplace_back(size_t(w) * h * 2);
      for (auto& b : src.back()) b = BYTE(rng());
      dst.emplace_back(size_t(w) * h * 4, 0);
    }
  }
};

Frames& frames(LONG w, LONG h, bool stream) {
  static Frames c1080(1920, 1080, false), s1080(1920, 1080, true), c480(720, 480, false),
      s480(720, 480, true);
  if (w == 1920) return stream ? s1080 : c1080;
  return stream ? s480 : c480;
}

template <class F>
void run(benchmark::State& state, F&& convert) {
  const LONG w = LONG(state.range(0)), h = LONG(state.range(1));
  Frames& f = frames(w, h, state.range(2) != 0);
  int i = 0;
  for (auto _ : state) {
    convert(f.dst[i].data(), f.src[i].data(), w, h);
    benchmark::ClobberMemory();
    if (++i == f.count) i = 0;
  }
  state.SetItemsProcessed(state.iterations());  // frames
  state.SetBytesProcessed(state.iterations() * int64_t(w) * h * 6);
  state.counters["fps"] =
      benchmark::Counter(double(state.iterations()), benchmark::Counter::kIsRate);
}

void variant(benchmark::State& state, UyvyRowFn fn) {
  run(state, [fn](BYTE* d, const BYTE* s, LONG w, LONG h) {
    const UyvyCoeffs k = uyvyCoeffs(2, w, h);
    for (LONG y = 0; y < h; ++y) fn(d + size_t(y) * w * 4, s + size_t(y) * w * 2, w, k);
  });
}

void BM_Ours_Plain(benchmark::State& s) { variant(s, uyvyToBgra_plain); }
#if defined(__x86_64__)
void BM_Ours_SSE2(benchmark::State& s) { variant(s, uyvyToBgra_sse2); }
void BM_Ours_AVX2(benchmark::State& s) {
  if (!(KaGetCPUSupport(0) & KACPU_AVX2)) return s.SkipWithError("no AVX2");
  variant(s, uyvyToBgra_avx2);
}
void BM_Ours_AVX512(benchmark::State& s) {
  constexpr DWORD kAvx512 = KACPU_AVX512F | KACPU_AVX512BW;
  if ((KaGetCPUSupport(0) & kAvx512) != kAvx512) return s.SkipWithError("no AVX-512");
  variant(s, uyvyToBgra_avx512);
}
#endif

void entry(benchmark::State& state, int threads) {
  const int saved = omp_get_max_threads();
  omp_set_num_threads(threads);
  run(state, [](BYTE* d, const BYTE* s, LONG w, LONG h) { KaUYVY2RGBA(d, s, w * 4, w, h, 2); });
  omp_set_num_threads(saved);
}
void BM_Ours_Entry_1T(benchmark::State& s) { entry(s, 1); }
void BM_Ours_Entry_AllT(benchmark::State& s) { entry(s, omp_get_num_procs()); }

void BM_Memcpy(benchmark::State& state) {
  run(state, [](BYTE* d, const BYTE*, LONG w, LONG h) {
    static std::vector<BYTE> from(size_t(1920) * 1080 * 4, 1);
    std::memcpy(d, from.data(), size_t(w) * h * 4);
  });
}

#if defined(OSTRA_HAVE_YUV)
void BM_Libyuv(benchmark::State& state) {
  run(state,
      [](BYTE* d, const BYTE* s, LONG w, LONG h) { libyuv::UYVYToARGB(s, w * 2, d, w * 4, w, h); });
}
#endif

#if defined(OSTRA_HAVE_SWSCALE)
void BM_Swscale(benchmark::State& state) {
  const LONG w = LONG(state.range(0)), h = LONG(state.range(1));
  SwsContext* ctx = sws_getContext(w, h, AV_PIX_FMT_UYVY422, w, h, AV_PIX_FMT_BGRA, SWS_POINT,
                                   nullptr, nullptr, nullptr);
  if (!ctx) return state.SkipWithError("swscale has no context for this pair");
  run(state, [ctx](BYTE* d, const BYTE* s, LONG w, LONG h) {
    const uint8_t* in[4] = {s, nullptr, nullptr, nullptr};
    const int inStride[4] = {int(w) * 2, 0, 0, 0};
    uint8_t* out[4] = {d, nullptr, nullptr, nullptr};
    const int outStride[4] = {int(w) * 4, 0, 0, 0};
    sws_scale(ctx, in, inStride, 0, int(h), out, outStride);
  });
  sws_freeContext(ctx);
}
#endif

void frameArgs(benchmark::internal::Benchmark* b) {
  b->ArgNames({"w", "h", "stream"});
  for (int stream : {0, 1}) {
    b->Args({1920, 1080, stream});
    b->Args({720, 480, stream});
  }
}

BENCHMARK(BM_Ours_Plain)->Apply(frameArgs);
#if defined(__x86_64__)
BENCHMARK(BM_Ours_SSE2)->Apply(frameArgs);
BENCHMARK(BM_Ours_AVX2)->Apply(frameArgs);
BENCHMARK(BM_Ours_AVX512)->Apply(frameArgs);
#endif
BENCHMARK(BM_Ours_Entry_1T)->Apply(frameArgs);
// Several threads: only the elapsed time tells; the single-thread figures use the
// process's CPU time, which a busy machine disturbs less.
BENCHMARK(BM_Ours_Entry_AllT)->Apply(frameArgs)->UseRealTime();
#if defined(OSTRA_HAVE_YUV)
BENCHMARK(BM_Libyuv)->Apply(frameArgs);
#endif
#if defined(OSTRA_HAVE_SWSCALE)
BENCHMARK(BM_Swscale)->Apply(frameArgs);
#endif
BENCHMARK(BM_Memcpy)->Apply(frameArgs);

}  // namespace

BENCHMARK_MAIN();
