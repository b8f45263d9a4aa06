#include <time.h>

#include "ostra/kaplatform.h"

namespace {

INT64 monotonicNanoseconds() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return INT64(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

}  // namespace

DWORD KaGetTickCount() noexcept { return DWORD(UINT64(monotonicNanoseconds() / 1000000)); }

BOOL KaQueryPerformanceCounter(INT64* count) noexcept {
  if (!count) return FALSE;
  *count = monotonicNanoseconds();
  return TRUE;
}

BOOL KaQueryPerformanceFrequency(INT64* frequency) noexcept {
  if (!frequency) return FALSE;
  *frequency = 1000000000LL;
  return TRUE;
}

void KaSleep(DWORD milliseconds) noexcept {
  timespec ts{time_t(milliseconds / 1000), long(milliseconds % 1000) * 1000000L};
  while (nanosleep(&ts, &ts) != 0) {
  }
}
