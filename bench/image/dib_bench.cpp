// Whole-image operations on 32-bit 1080p bitmaps beside memcpy of the same bytes, one
// thread and all threads: copy between the two 32-bit types, vertical and horizontal
// flips, and the converting copy from 16-bit RGBA for scale.
#include <benchmark/benchmark.h>
#include <omp.h>

#include <cstring>
#include <vector>

#include "ostra/kadib.h"

namespace {

constexpr LONG kW = 1920, kH = 1080;

struct Images {
  BITMAPINFOHEADER* a = nullptr;
  BITMAPINFOHEADER* b = nullptr;
  BITMAPINFOHEADER* deep = nullptr;
  Images() {
    KaDibAlloc(&a, KAPT_BGRX32, kW, kH, nullptr, 0, KADIB_ZEROINIT, 0);
    KaDibAlloc(&b, KAPT_BGRA32, kW, kH, nullptr, 0, KADIB_ZEROINIT, 0);
    KaDibAlloc(&deep, KAPT_BGRA64, kW, kH, nullptr, 0, KADIB_ZEROINIT, 0);
  }
};
Images& images() {
  static Images i;
  return i;
}

template <class F>
void run(benchmark::State& state, F&& f) {
  const int saved = omp_get_max_threads();
  omp_set_num_threads(int(state.range(0)));
  for (auto _ : state) {
    f();
    benchmark::ClobberMemory();
  }
  omp_set_num_threads(saved);
  // Bytes of the 32-bit image, the figure memcpy is measured with.
  state.SetBytesProcessed(state.iterations() * int64_t(kW) * kH * 4);
}

void BM_Memcpy(benchmark::State& s) {
  run(s,
      [] { std::memcpy(KaDibPixels(images().b), KaDibPixels(images().a), size_t(kW) * kH * 4); });
}
void BM_DibCopy_28_to_29(benchmark::State& s) {
  run(s, [] { KaDibCopy(images().b, nullptr, 0, 0, 0, images().a, nullptr, 0, nullptr); });
}
void BM_DibFlip_Vertical(benchmark::State& s) {
  run(s, [] { KaDibFlip(images().a, nullptr, 0, nullptr, KADIB_FLIP_VERTICAL); });
}
void BM_DibFlip_Horizontal(benchmark::State& s) {
  run(s, [] { KaDibFlip(images().a, nullptr, 0, nullptr, KADIB_FLIP_HORIZONTAL); });
}
void BM_DibCopy_31_to_29(benchmark::State& s) {
  run(s, [] { KaDibCopy(images().b, nullptr, 0, 0, 0, images().deep, nullptr, 0, nullptr); });
}

void threads(benchmark::internal::Benchmark* b) {
  b->ArgName("threads")->Arg(1)->Arg(omp_get_num_procs())->UseRealTime();
}

BENCHMARK(BM_Memcpy)->Apply(threads);
BENCHMARK(BM_DibCopy_28_to_29)->Apply(threads);
BENCHMARK(BM_DibFlip_Vertical)->Apply(threads);
BENCHMARK(BM_DibFlip_Horizontal)->Apply(threads);
BENCHMARK(BM_DibCopy_31_to_29)->Apply(threads);

}  // namespace

BENCHMARK_MAIN();
