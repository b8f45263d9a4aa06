// The play engine: mixing capacity (stereo 48 kHz 24-bit clips read from page-cached files,
// converted to float and mixed, as CPU time per second of audio against the track count,
// at rate 1.0 with the resampler bypassed and with the bus through the resampler at 1.0),
// latency in buffers (Start to the first sound at the file output, Stop and the end of the
// range to message 6), and sox -m mixing the same session in the same run for speed and
// for sample equality.
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "engine/internal/timeline.h"
#include "engine/internal/transport_impl.h"
#include "engine/internal/varispeed.h"
#include "engine/internal/wave_writer.h"
#include "ostra/kaengine.h"
#include "ostra/kaplatform.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
constexpr DWORD kRate = 48000;
constexpr DWORD kBlock = 1024;
constexpr int kDistinctFiles = 16;

// Sixteen distinct 2-second stereo 24-bit files of quiet noise (peaks at -48 dBFS, so that
// a sum of 256 stays inside full scale, where sox clips and a float bus does not, and is
// exact in single precision).
const fs::path& benchFiles() {
  static const fs::path dir = [] {
    const fs::path d = fs::temp_directory_path() / "ostra-engine-bench-v2";
    fs::create_directories(d);
    std::mt19937 gen(7);
    std::uniform_int_distribution<int> q(-(1 << 15), (1 << 15) - 1);
    std::vector<float> frames(size_t(kRate) * 2 * 2);
    for (int i = 0; i < kDistinctFiles; ++i) {
      const fs::path p = d / ("t" + std::to_string(i) + ".wav");
      if (fs::exists(p)) continue;
      for (float& v : frames) v = float(q(gen)) / float(1 << 23);
      ostra::engine::WaveWriter w;
      w.create(p.u16string().c_str(), KACONTAINER_WAVE, KASAMPLE_PCM24, kRate, 2, kBlock);
      w.append(frames.data(), DWORD(frames.size() / 2));
      w.close();
    }
    return d;
  }();
  return dir;
}

std::u16string trackPath(int i) {
  return (benchFiles() / ("t" + std::to_string(i % kDistinctFiles) + ".wav")).u16string();
}

void addTracks(ostra::engine::Timeline& t, int tracks) {
  t.setFormat(kRate, 2);
  t.prepare(kBlock);
  for (int i = 0; i < tracks; ++i) {
    const std::u16string p = trackPath(i);
    KAENGINECLIP c{sizeof c, p.c_str(), 0, 0, -1, 1.0f};
    t.add(c);
  }
}

// One second of the mix per iteration, in blocks as the disk thread renders them.
void BM_MixOneSecond(benchmark::State& state) {
  const int tracks = int(state.range(0));
  const bool resample = state.range(1) != 0;
  ostra::engine::Timeline timeline;
  addTracks(timeline, tracks);
  ostra::engine::Varispeed vari;
  std::vector<float> block(kBlock * 2), out(kBlock * 2 * 2);
  for (auto _ : state) {
    if (resample) vari.reset(2, 1.0);
    for (INT64 at = 0; at < kRate; at += kBlock) {
      timeline.render(at, kBlock, block.data());
      if (resample) {
        size_t used = 0, made = 0;
        vari.process(block.data(), kBlock, &used, out.data(), kBlock * 2, &made);
      }
      benchmark::DoNotOptimize(block.data());
    }
  }
  state.counters["tracks"] = tracks;
  state.counters["audio_s_per_iter"] = 1.0;
  state.SetItemsProcessed(state.iterations() * INT64(kRate) * tracks);
}
BENCHMARK(BM_MixOneSecond)
    ->ArgsProduct({{16, 64, 128, 256, 384, 512, 1024}, {0}})
    ->ArgsProduct({{256}, {1}})
    ->Unit(benchmark::kMillisecond);

// sox -m over the same tracks into a float file, and the engine rendering the same
// session into a float file; the samples are compared.
void BM_SoxMixReference(benchmark::State& state) {
  const int tracks = int(state.range(0));
  const fs::path soxOut = benchFiles() / "sox.wav", engOut = benchFiles() / "engine.wav";
  std::string cmd = "sox -m";
  for (int i = 0; i < tracks; ++i) {
    const fs::path p = benchFiles() / ("t" + std::to_string(i % kDistinctFiles) + ".wav");
    cmd += " -v 1 " + p.string();
  }
  cmd += " -e floating-point -b 32 " + soxOut.string() + " trim 0 1 2>/dev/null";
  for (auto _ : state) {
    const auto t0 = Clock::now();
    if (std::system(cmd.c_str()) != 0) {
      state.SkipWithError("sox failed (is it installed?)");
      return;
    }
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - t0).count());
  }
  // The engine's render of the same second.
  IKAEngineSession* s = nullptr;
  KaEngine_Create(nullptr, &s);
  for (int i = 0; i < tracks; ++i) {
    const std::u16string p = trackPath(i);
    KAENGINECLIP c{sizeof c, p.c_str(), 0, 0, -1, 1.0f};
    s->AddClip(&c);
  }
  s->SetOutput(("file:" + engOut.string()).c_str());
  IKAPlayEngine* e = nullptr;
  s->QueryInterface(IID_IKAPlayEngine, reinterpret_cast<void**>(&e));
  const auto t0 = Clock::now();
  e->Start(0, 0, 10000000);
  KAENGINEINFO info{};
  info.size = sizeof info;
  do {
    KaSleep(1);
    s->GetInfo(&info);
  } while (!info.finished);
  const double engineSeconds = std::chrono::duration<double>(Clock::now() - t0).count();
  e->Stop(0, 0);
  s->CloseOutput();
  e->Release();
  s->Release();
  auto samples = [](const fs::path& p) {
    tKAAUDIODATA d{};
    KaGetFileAudioData(p.u16string().c_str(), &d);
    std::vector<float> v(d.size / 4);
    if (FILE* f = std::fopen(p.string().c_str(), "rb")) {
      std::fseek(f, long(d.offset), SEEK_SET);
      v.resize(std::fread(v.data(), 4, v.size(), f));
      std::fclose(f);
    }
    return v;
  };
  const std::vector<float> a = samples(soxOut), b = samples(engOut);
  double maxDiff = 0;
  size_t equal = 0;
  const size_t n = std::min(a.size(), b.size());
  for (size_t i = 0; i < n; ++i) {
    maxDiff = std::max(maxDiff, double(std::fabs(a[i] - b[i])));
    equal += a[i] == b[i];
  }
  state.counters["tracks"] = tracks;
  state.counters["engine_wall_ms"] = engineSeconds * 1000.0;
  state.counters["samples_compared"] = double(n);
  state.counters["same_length"] = a.size() == b.size() ? 1 : 0;
  state.counters["equal_fraction"] = n ? double(equal) / double(n) : 0.0;
  state.counters["max_diff_lsb24"] = maxDiff * double(1 << 23);
}
BENCHMARK(BM_SoxMixReference)
    ->Arg(16)
    ->Arg(256)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3);

// Latency in buffers. Start → the first non-silent sample the file output writes (the
// session begins with sound at the start position), and Stop → message 6, and the end of
// the range reached by the output → message 6 (the transport's worker notices it).
std::mutex gLock;
std::condition_variable gChanged;
Clock::time_point gStopped;
bool gHaveStop = false;

HRESULT onMessage(IKATransport*, unsigned message, DWORD*, UINT64, INT64*, LONG) {
  if (message == KATM_STOPPED) {
    std::lock_guard lk(gLock);
    gStopped = Clock::now();
    gHaveStop = true;
    gChanged.notify_all();
  }
  return S_OK;
}

void BM_Latency(benchmark::State& state) {
  const bool naturalEnd = state.range(0) != 0;
  const double bufferSeconds = double(kBlock) / kRate;
  double firstSound = 0, toMessage = 0;
  int runs = 0;
  for (auto _ : state) {
    IKAEngineSession* s = nullptr;
    KaEngine_Create(nullptr, &s);
    const std::u16string p = trackPath(0);
    KAENGINECLIP c{sizeof c, p.c_str(), 0, 0, -1, 1.0f};
    s->AddClip(&c);
    const fs::path out = benchFiles() / "latency.wav";
    s->SetOutput(naturalEnd ? ("file:" + out.string()).c_str() : "null");
    IKAPlayEngine* e = nullptr;
    s->QueryInterface(IID_IKAPlayEngine, reinterpret_cast<void**>(&e));
    IKATransport* t = nullptr;
    KaAudio_CreateTransport(&t);
    DWORD res = 4;
    t->Open(&res, 20, 0, 0, &onMessage, 0, nullptr, nullptr);
    t->SetPlayEngine(e);
    t->SetLength(naturalEnd ? 5000000 : KATRANSPORT_OPEN_END);
    {
      std::lock_guard lk(gLock);
      gHaveStop = false;
    }
    t->Start(0x20000000u, 0);
    KAENGINEINFO info{};
    info.size = sizeof info;
    Clock::time_point reached;
    if (naturalEnd) {
      do {
        s->GetInfo(&info);
      } while (!info.finished);
      reached = Clock::now();
    } else {
      do {
        s->GetInfo(&info);
      } while (info.framesOut < INT64(kBlock) * 4);
      reached = Clock::now();
      t->StopPlay(0x20000000u);
    }
    {
      std::unique_lock lk(gLock);
      gChanged.wait(lk, [] { return gHaveStop; });
      toMessage += std::chrono::duration<double>(gStopped - reached).count() / bufferSeconds;
    }
    t->Close();
    t->Release();
    s->CloseOutput();
    if (naturalEnd) {
      // The first non-silent frame of the rendered file, in buffers from the start.
      tKAAUDIODATA d{};
      KaGetFileAudioData(out.u16string().c_str(), &d);
      std::vector<float> v(d.size / 4);
      if (FILE* f = std::fopen(out.string().c_str(), "rb")) {
        std::fseek(f, long(d.offset), SEEK_SET);
        v.resize(std::fread(v.data(), 4, v.size(), f));
        std::fclose(f);
      }
      size_t i = 0;
      while (i < v.size() && v[i] == 0.0f) ++i;
      firstSound += double(i / 2) / kBlock;
    }
    e->Release();
    s->Release();
    ++runs;
  }
  state.counters[naturalEnd ? "end_to_msg6_buffers" : "stop_to_msg6_buffers"] = toMessage / runs;
  if (naturalEnd) state.counters["start_to_first_sound_buffers"] = firstSound / runs;
}
BENCHMARK(BM_Latency)->Arg(0)->Arg(1)->Iterations(10)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
