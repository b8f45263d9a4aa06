// The position timers a transport hands out, and the reference clock with its 64
// one-shot and 64 periodic advise slots, served by one thread that sleeps until the
// earliest due time.
#include <algorithm>

#include "engine/internal/transport_object.h"
#include "ostra/kakernel.h"

namespace ostra::engine {

// ---------------------------------------------------------------- timers

TransportTimer::TransportTimer(Transport* owner, DWORD kind) noexcept : owner_(owner), kind_(kind) {
  KaInitializeCriticalSection(&lock_);
}

TransportTimer::~TransportTimer() = default;

HRESULT TransportTimer::QueryInterface(REFIID riid, void** ppv) {
  if (!ppv) return E_POINTER;
  *ppv = nullptr;
  if (riid != IID_IUnknown && riid != IID_IKATimer) return E_NOINTERFACE;
  *ppv = static_cast<IKATimer*>(this);
  AddRef();
  return S_OK;
}

ULONG TransportTimer::AddRef() { return ++refs_; }

ULONG TransportTimer::Release() {
  const ULONG r = --refs_;
  if (r == 0) delete this;
  return r;
}

void TransportTimer::detach() noexcept {
  CsGuard g(lock_);
  owner_ = nullptr;
}

HRESULT TransportTimer::GetPosition(INT64* ticks) {
  if (!ticks) return E_POINTER;
  CsGuard g(lock_);
  if (!owner_) {
    *ticks = 0;
    return S_FALSE;
  }
  *ticks = kind_ == 0 ? owner_->readMainForTimer() : owner_->readPreview();
  return S_OK;
}

HRESULT TransportTimer::GetPositionMs(LONG* ms) {
  if (!ms) return E_POINTER;
  INT64 t = 0;
  const HRESULT r = GetPosition(&t);
  *ms = LONG(ticksToMs(t));
  return r;
}

// ---------------------------------------------------------------- reference clock

namespace {

REFERENCE_TIME clockNow() noexcept { return REFERENCE_TIME(KaGetMicrosec() * 10); }

}  // namespace

RefClock::RefClock() noexcept {
  KaInitializeCriticalSection(&lock_);
  wake_ = KaEvent_Create(FALSE, FALSE);
  if (!wake_) return;
  thread_ = KaThread_Create(&RefClock::threadMain, this, 0, 0, nullptr);
  if (!thread_) {
    KaCloseHandle(wake_);
    wake_ = nullptr;
  }
}

RefClock::~RefClock() {
  {
    CsGuard g(lock_);
    quit_ = true;
  }
  if (wake_) KaEvent_Set(wake_);
  if (thread_) {
    KaWaitForSingleObject(thread_, INFINITE);
    KaCloseHandle(thread_);
  }
  if (wake_) KaCloseHandle(wake_);
}

HRESULT RefClock::QueryInterface(REFIID riid, void** ppv) {
  if (!ppv) return E_POINTER;
  *ppv = nullptr;
  if (riid != IID_IUnknown && riid != IID_IReferenceClock) return E_NOINTERFACE;
  *ppv = static_cast<IReferenceClock*>(this);
  AddRef();
  return S_OK;
}

ULONG RefClock::AddRef() { return ++refs_; }

ULONG RefClock::Release() {
  const ULONG r = --refs_;
  if (r == 0) delete this;
  return r;
}

HRESULT RefClock::GetTime(REFERENCE_TIME* time) {
  if (!time) return E_POINTER;
  *time = clockNow();
  return S_OK;
}

HRESULT RefClock::AdviseTime(REFERENCE_TIME baseTime, REFERENCE_TIME streamTime, HANDLE event,
                             DWORD_PTR* cookie) {
  if (!cookie) return E_POINTER;
  if (!event) return E_INVALIDARG;
  {
    CsGuard g(lock_);
    int i = 0;
    while (i < kSlots && oneShot_[i].used) ++i;
    if (i == kSlots) return E_FAIL;
    oneShot_[i] = OneShot{true, baseTime + streamTime, event};
    ++live_;
    *cookie = DWORD_PTR(i);
  }
  KaEvent_Set(wake_);
  return S_OK;
}

HRESULT RefClock::AdvisePeriodic(REFERENCE_TIME startTime, REFERENCE_TIME periodTime,
                                 HANDLE semaphore, DWORD_PTR* cookie) {
  if (!cookie) return E_POINTER;
  if (!semaphore || periodTime <= 0) return E_INVALIDARG;
  {
    CsGuard g(lock_);
    int i = 0;
    while (i < kSlots && periodic_[i].used) ++i;
    if (i == kSlots) return E_FAIL;
    periodic_[i] = Periodic{true, startTime, periodTime, semaphore, 0};
    ++live_;
    *cookie = DWORD_PTR(i + kSlots);
  }
  KaEvent_Set(wake_);
  return S_OK;
}

HRESULT RefClock::Unadvise(DWORD_PTR cookie) {
  if (cookie >= DWORD_PTR(2 * kSlots)) return E_FAIL;
  CsGuard g(lock_);
  if (cookie < DWORD_PTR(kSlots)) {
    OneShot& s = oneShot_[cookie];
    if (s.used) {
      s = OneShot{};
      --live_;
    }
  } else {
    Periodic& s = periodic_[cookie - kSlots];
    if (s.used) {
      s = Periodic{};
      --live_;
    }
  }
  return S_OK;
}

int RefClock::liveAdvises() noexcept {
  CsGuard g(lock_);
  return live_;
}

UINT64 RefClock::firedCount(DWORD_PTR cookie) noexcept {
  if (cookie < DWORD_PTR(kSlots) || cookie >= DWORD_PTR(2 * kSlots)) return 0;
  CsGuard g(lock_);
  return periodic_[cookie - kSlots].fired;
}

DWORD RefClock::threadMain(void* self) {
  static_cast<RefClock*>(self)->serve();
  return 0;
}

void RefClock::serve() noexcept {
  for (;;) {
    REFERENCE_TIME next = INT64(0x7FFFFFFFFFFFFFFFLL);
    {
      CsGuard g(lock_);
      if (quit_) return;
      const REFERENCE_TIME now = clockNow();
      for (OneShot& s : oneShot_) {
        if (!s.used) continue;
        if (s.due <= now) {
          // A one-shot advise frees its slot when it fires.
          KaEvent_Set(s.event);
          s = OneShot{};
          --live_;
        } else {
          next = std::min(next, s.due);
        }
      }
      for (Periodic& s : periodic_) {
        if (!s.used) continue;
        if (s.next <= now) {
          KaSemaphore_Release(s.semaphore, 1, nullptr);
          ++s.fired;
          // Missed periods are not released in a burst.
          s.next += s.period * std::max<INT64>(1, (now - s.next) / s.period + 1);
        }
        next = std::min(next, s.next);
      }
    }
    DWORD wait = INFINITE;
    if (next != INT64(0x7FFFFFFFFFFFFFFFLL)) {
      const INT64 ticks = next - clockNow();
      wait = ticks <= 0 ? 0 : DWORD(std::min<INT64>((ticks + 9999) / 10000, 60000));
    }
    KaWaitForSingleObject(wake_, wait);
  }
}

}  // namespace ostra::engine
