// Time-code conversions per format: frame count to label, label to count, and typed text
// to label, in labels per second; and the whole-day round trip the tests make.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "ostra/kasmpte.h"

namespace {

void BM_CountToLabel(benchmark::State& state) {
  const DWORD type = DWORD(state.range(0));
  const DWORD day = KASMPTE_FramesPerDay(type);
  _smpteval l{type, 0, 0, 0, 0};
  DWORD n = 0;
  for (auto _ : state) {
    KASMPTE_FrameCountToSMPTE(&l, n);
    benchmark::DoNotOptimize(l);
    n = n + 7919 < day ? n + 7919 : n + 7919 - day;
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_LabelToCount(benchmark::State& state) {
  const DWORD type = DWORD(state.range(0));
  std::vector<_smpteval> labels(4096);
  for (size_t i = 0; i < labels.size(); ++i) {
    labels[i].type = type;
    KASMPTE_FrameCountToSMPTE(&labels[i], DWORD(i * 631));
  }
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(KASMPTE_SMPTEToFrameCount(&labels[i]));
    i = (i + 1) & 4095;
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_TextToLabel(benchmark::State& state) {
  const std::u16string texts[] = {u"01:02:03:04", u"10:59:59;29", u"01020304", u"12:", u"75"};
  _smpteval l{2, 0, 0, 0, 0};
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(KASMPTE_TextToSMPTE(&l, texts[i].c_str()));
    i = (i + 1) % 5;
  }
  state.SetItemsProcessed(state.iterations());
}

// Every frame of the day in all six formats, count -> label -> count.
void BM_WholeDayRoundTrip(benchmark::State& state) {
  for (auto _ : state) {
    DWORD bad = 0;
    for (DWORD type = 1; type <= 6; ++type) {
      _smpteval l{type, 0, 0, 0, 0};
      for (DWORD n = 0, day = KASMPTE_FramesPerDay(type); n < day; ++n) {
        KASMPTE_FrameCountToSMPTE(&l, n);
        bad += KASMPTE_SMPTEToFrameCount(&l) != n;
      }
    }
    benchmark::DoNotOptimize(bad);
  }
  state.SetItemsProcessed(state.iterations() * (2592000ull * 2 + 2589408 + 2160000 + 2073600 * 2));
}

BENCHMARK(BM_CountToLabel)->DenseRange(1, 6);
BENCHMARK(BM_LabelToCount)->DenseRange(1, 6);
BENCHMARK(BM_TextToLabel);
BENCHMARK(BM_WholeDayRoundTrip)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
