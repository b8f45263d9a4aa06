// The timer base: the high-resolution counter's frequency, fixed once per process, and
// the millisecond and microsecond clocks built on it.
#include <atomic>
#include <mutex>

#include "kernel/internal/frame.h"
#include "ostra/kakernel.h"
#include "ostra/kaplatform.h"

namespace ostra::kernel {
namespace {

TimerBase gBase;
std::once_flag gBaseOnce;
std::atomic<INT64> gTimerOrigin{-1};
std::atomic<INT64> gPerfOrigin{-1};

INT64 now() {
  INT64 c = 0;
  if (gBase.counter && KaQueryPerformanceCounter(&c)) return c;
  return INT64(KaGetTickCount());
}

// Sets the origin once; racing first calls agree on one value.
INT64 origin(std::atomic<INT64>& o) {
  INT64 v = o.load();
  if (v >= 0) return v;
  INT64 expected = -1;
  const INT64 mine = now();
  return o.compare_exchange_strong(expected, mine) ? mine : expected;
}

}  // namespace

void initialiseTimerBase() noexcept {
  std::call_once(gBaseOnce, [] {
    INT64 f = 0;
    if (KaQueryPerformanceFrequency(&f) && f > 0) {
      gBase.frequency = f;
      gBase.countsPerMs = f / 1000 > 0 ? f / 1000 : 1;
      gBase.countsPerUs = gBase.countsPerMs / 1000 > 0 ? gBase.countsPerMs / 1000 : 1;
      gBase.counter = true;
    } else {
      // Without the counter the clocks run on the millisecond tick count.
      gBase.frequency = 1000;
      gBase.countsPerMs = 1;
      gBase.countsPerUs = 1;
    }
  });
}

const TimerBase& timerBase() noexcept {
  initialiseTimerBase();
  return gBase;
}

}  // namespace ostra::kernel

using namespace ostra::kernel;

void KaTimer_LateInitialize() noexcept {
  initialiseTimerBase();
  origin(gTimerOrigin);
}

void KaPerf_Initialize() noexcept {
  initialiseTimerBase();
  origin(gPerfOrigin);
}

DWORD KaGetMillisec() noexcept {
  initialiseTimerBase();
  const INT64 elapsed = now() - origin(gTimerOrigin);
  return DWORD(uint64_t(elapsed / gBase.countsPerMs));
}

UINT64 KaGetMicrosec() noexcept {
  initialiseTimerBase();
  const INT64 elapsed = now() - origin(gPerfOrigin);
  if (!gBase.counter) return UINT64(elapsed) * 1000;
  // Split to keep the multiplication in range for counters in the gigahertz.
  const INT64 f = gBase.frequency;
  return UINT64(elapsed / f) * 1000000u + UINT64((elapsed % f) * 1000000 / f);
}
