// Critical sections: a recursive lock in caller storage built on a 32-bit atomic word
// (free, held, held with waiters) and the C++ atomic wait, so it needs no system object
// and no allocation and a record holding an unlocked one can be copied.
#include <atomic>
#include <cstring>

#include "ostra/kathread.h"
#include "platform/internal/waitable.h"

using ostra::platform::currentThreadId;

namespace {

using Ref = std::atomic_ref<uint32_t>;

void lockWord(uint32_t& word, uint32_t spin) {
  Ref state(word);
  uint32_t c = 0;
  if (state.compare_exchange_strong(c, 1, std::memory_order_acquire)) return;
  for (uint32_t i = 0; i < spin && c != 2; ++i) {
    c = 0;
    if (state.compare_exchange_weak(c, 1, std::memory_order_acquire)) return;
  }
  if (c != 2) c = state.exchange(2, std::memory_order_acquire);
  while (c != 0) {
    state.wait(2, std::memory_order_relaxed);
    c = state.exchange(2, std::memory_order_acquire);
  }
}

void unlockWord(uint32_t& word) {
  Ref state(word);
  if (state.exchange(0, std::memory_order_release) == 2) state.notify_one();
}

}  // namespace

void KaInitializeCriticalSection(KACRITICAL_SECTION* cs) noexcept {
  if (!cs) return;
  std::memset(cs, 0, sizeof *cs);
  cs->spinCount = 64;
}

// Nothing to release. The words are left alone so that a thread still on its way in
// (a queue consumer that lost the race with deletion) finds a working lock.
void KaDeleteCriticalSection(KACRITICAL_SECTION*) noexcept {}

void KaEnterCriticalSection(KACRITICAL_SECTION* cs) noexcept {
  if (!cs) return;
  const uint32_t me = currentThreadId();
  if (Ref(cs->owner).load(std::memory_order_relaxed) == me) {
    ++cs->recursion;
    return;
  }
  lockWord(cs->state, cs->spinCount);
  Ref(cs->owner).store(me, std::memory_order_relaxed);
  cs->recursion = 1;
}

BOOL KaTryEnterCriticalSection(KACRITICAL_SECTION* cs) noexcept {
  if (!cs) return FALSE;
  const uint32_t me = currentThreadId();
  if (Ref(cs->owner).load(std::memory_order_relaxed) == me) {
    ++cs->recursion;
    return TRUE;
  }
  uint32_t c = 0;
  if (!Ref(cs->state).compare_exchange_strong(c, 1, std::memory_order_acquire)) return FALSE;
  Ref(cs->owner).store(me, std::memory_order_relaxed);
  cs->recursion = 1;
  return TRUE;
}

void KaLeaveCriticalSection(KACRITICAL_SECTION* cs) noexcept {
  if (!cs || Ref(cs->owner).load(std::memory_order_relaxed) != currentThreadId()) return;
  if (--cs->recursion != 0) return;
  Ref(cs->owner).store(0, std::memory_order_relaxed);
  unlockWord(cs->state);
}
