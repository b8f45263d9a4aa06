// Transport timings: position reads through the timers from two threads while the worker
// runs (and that a read never allocates), the worker's wake-ups idle and previewing, and
// the time from a Stop call to message 6.
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <new>

#include "engine/internal/sim_engine.h"
#include "engine/internal/transport_impl.h"
#include "ostra/kaplatform.h"
#include "ostra/transport.h"

// Counts every allocation of the process so that the read loop can prove it makes none.
namespace {
std::atomic<UINT64> gAllocations{0};
}
void* operator new(std::size_t n) {
  gAllocations.fetch_add(1, std::memory_order_relaxed);
  if (void* p = std::malloc(n ? n : 1)) return p;
  throw std::bad_alloc();
}
// GCC pairs the replaced operator new with free only by name; the pairing is right.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
#pragma GCC diagnostic pop

namespace {

using Clock = std::chrono::steady_clock;

std::atomic<Clock::time_point::rep> gStoppedAt{0};

HRESULT onMessage(IKATransport*, unsigned message, DWORD*, UINT64, INT64*, LONG) {
  if (message == KATM_STOPPED) gStoppedAt = Clock::now().time_since_epoch().count();
  return S_OK;
}

struct Rig {
  IKATransport* t = nullptr;
  ostra::engine::SimulatedEngine* sim = nullptr;
  explicit Rig(bool handshake) {
    sim = new ostra::engine::SimulatedEngine(ostra::engine::systemTimeSource());
    KaAudio_CreateTransport(&t);
    DWORD resolution = 4;
    t->Open(&resolution, 20, 0, 0, &onMessage, 0, nullptr, nullptr);
    t->SetPlayEngine(sim);
    KATRANSPORTPREFS prefs{sizeof prefs, 0, 48000.0, handshake ? 1u : 0u, 0};
    t->SetPrefs(&prefs);
  }
  ~Rig() {
    t->Close();
    t->Release();
    sim->Release();
  }
};

std::mutex gRigLock;
Rig* gRig = nullptr;
int gRigUsers = 0;

// The threads of one benchmark share one running transport; the last one out closes it.
Rig* joinRig(bool handshake) {
  std::lock_guard lk(gRigLock);
  if (gRigUsers++ == 0) {
    gRig = new Rig(handshake);
    gRig->t->Start(0, 0);
  }
  return gRig;
}

void leaveRig() {
  std::lock_guard lk(gRigLock);
  if (--gRigUsers == 0) {
    delete gRig;
    gRig = nullptr;
  }
}

void BM_TimerRead(benchmark::State& state) {
  Rig* rig = joinRig(state.range(0) != 0);
  IKATimer* timer = nullptr;
  rig->t->GetTimer(0, &timer);
  UINT64 allocations = 0;
  for (auto _ : state) {
    const UINT64 before = gAllocations.load(std::memory_order_relaxed);
    INT64 p = 0;
    timer->GetPosition(&p);
    benchmark::DoNotOptimize(p);
    allocations += gAllocations.load(std::memory_order_relaxed) - before;
  }
  state.counters["allocs"] = double(allocations);
  state.SetItemsProcessed(state.iterations());
  timer->Release();
  leaveRig();
}
// Argument: hand-shake off (0) or on (1); with it a reader waits for the next index.
BENCHMARK(BM_TimerRead)->Arg(0)->Threads(2)->UseRealTime();
BENCHMARK(BM_TimerRead)->Arg(1)->Threads(2)->UseRealTime()->MinTime(0.5);

void BM_WorkerWakes(benchmark::State& state) {
  Rig rig(true);
  const bool preview = state.range(0) != 0;
  rig.sim->setBufferDuration(400000);  // 40 ms buffers
  if (preview) rig.t->StartPreview(0, -1, FALSE, 1.0);
  double perSecond = 0;
  for (auto _ : state) {
    INT64 a = 0, b = 0;
    rig.t->GetMetric(KATRANSPORT_METRIC_WORKER_WAKES, &a);
    KaSleep(500);
    rig.t->GetMetric(KATRANSPORT_METRIC_WORKER_WAKES, &b);
    perSecond = double(b - a) * 2;
  }
  state.counters["wakes_per_s"] = perSecond;
}
// 0 idle, 1 previewing with 40 ms buffers (target: 50 per second).
BENCHMARK(BM_WorkerWakes)->Arg(0)->Arg(1)->Iterations(2)->Unit(benchmark::kMillisecond);

void BM_StopToMessage6(benchmark::State& state) {
  Rig rig(true);
  double totalUs = 0;
  for (auto _ : state) {
    state.PauseTiming();
    rig.t->Start(0, 0);
    state.ResumeTiming();
    const auto called = Clock::now();
    rig.t->StopPlay(0);
    totalUs += double(gStoppedAt.load() - called.time_since_epoch().count()) / 1000.0;
  }
  state.counters["stop_to_msg6_us"] = totalUs / double(state.iterations());
}
BENCHMARK(BM_StopToMessage6)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
