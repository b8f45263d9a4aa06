// The transport object behind IKATransport, its timers, reference clock and time-code
// objects. Shared by engine/transport*.cpp, engine/timecode_io.cpp and the tests.
//
// Lock order (outer first): operation lock (an event with an owner) → clock lock (timer
// readers) → position lock → callback lock / engine lock. The client callback is never
// called with the position lock, the clock lock or the engine lock held.
#pragma once

#include <atomic>

#include "ostra/kathread.h"
#include "ostra/transport.h"

namespace ostra::engine {

// The transport's wall clock in milliseconds (KaGetMillisec unless a test installs
// another). Everything that times a run reads it: positions without an engine, the
// watchdog, the time-code output's count and the simulated engine.
class TimeSource {
 public:
  virtual ~TimeSource() = default;
  virtual DWORD millis() noexcept = 0;
};
TimeSource* systemTimeSource() noexcept;

// A clock that moves only when told to; for tests and the tool's demonstration.
class ManualTimeSource final : public TimeSource {
 public:
  DWORD millis() noexcept override { return ms_.load(std::memory_order_acquire); }
  void advance(DWORD ms) noexcept { ms_.fetch_add(ms, std::memory_order_acq_rel); }
  void set(DWORD ms) noexcept { ms_.store(ms, std::memory_order_release); }

 private:
  std::atomic<DWORD> ms_{1000};
};

// The time source transports created from now on use (null restores the system clock).
void setDefaultTimeSource(TimeSource* source) noexcept;
TimeSource* defaultTimeSource() noexcept;

// Fault injection for the open path: the next `count` timer allocations fail.
void failTimerAllocations(int count) noexcept;

// A scoped critical section.
class CsGuard {
 public:
  explicit CsGuard(KACRITICAL_SECTION& cs) noexcept : cs_(cs) { KaEnterCriticalSection(&cs_); }
  ~CsGuard() { KaLeaveCriticalSection(&cs_); }
  CsGuard(const CsGuard&) = delete;
  CsGuard& operator=(const CsGuard&) = delete;

 private:
  KACRITICAL_SECTION& cs_;
};

inline INT64 ticksToMs(INT64 ticks) noexcept { return ticks / 10000; }  // toward zero
// The published index of a position (see docs/transport.md).
INT64 indexOf(INT64 ticks, double unitsPerSecond) noexcept;

class Transport;

// Position timer (kind 0 main, kind 1 preview). Holds no reference on the transport; the
// transport detaches it at close.
class TransportTimer final : public IKATimer {
 public:
  explicit TransportTimer(Transport* owner, DWORD kind) noexcept;
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
  ULONG STDMETHODCALLTYPE AddRef() override;
  ULONG STDMETHODCALLTYPE Release() override;
  HRESULT STDMETHODCALLTYPE GetPosition(INT64* ticks) override;
  HRESULT STDMETHODCALLTYPE GetPositionMs(LONG* ms) override;
  void detach() noexcept;

 private:
  ~TransportTimer();
  std::atomic<ULONG> refs_{1};
  KACRITICAL_SECTION lock_;
  Transport* owner_;
  const DWORD kind_;
};

// The reference clock: 64 one-shot and 64 periodic advise slots served by one thread.
class RefClock final : public IReferenceClock {
 public:
  static constexpr int kSlots = 64;
  RefClock() noexcept;
  bool valid() const noexcept { return wake_ != nullptr; }
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
  ULONG STDMETHODCALLTYPE AddRef() override;
  ULONG STDMETHODCALLTYPE Release() override;
  HRESULT STDMETHODCALLTYPE GetTime(REFERENCE_TIME* time) override;
  HRESULT STDMETHODCALLTYPE AdviseTime(REFERENCE_TIME baseTime, REFERENCE_TIME streamTime,
                                       HANDLE event, DWORD_PTR* cookie) override;
  HRESULT STDMETHODCALLTYPE AdvisePeriodic(REFERENCE_TIME startTime, REFERENCE_TIME periodTime,
                                           HANDLE semaphore, DWORD_PTR* cookie) override;
  HRESULT STDMETHODCALLTYPE Unadvise(DWORD_PTR cookie) override;
  // Live advises (one-shot and periodic) and how often each periodic slot fired.
  int liveAdvises() noexcept;
  UINT64 firedCount(DWORD_PTR cookie) noexcept;

 private:
  ~RefClock();
  static DWORD threadMain(void* self);
  void serve() noexcept;
  struct OneShot {
    bool used = false;
    REFERENCE_TIME due = 0;
    HANDLE event = nullptr;
  };
  struct Periodic {
    bool used = false;
    REFERENCE_TIME next = 0;
    REFERENCE_TIME period = 0;
    HANDLE semaphore = nullptr;
    UINT64 fired = 0;
  };
  std::atomic<ULONG> refs_{1};
  KACRITICAL_SECTION lock_;
  OneShot oneShot_[kSlots];
  Periodic periodic_[kSlots];
  int live_ = 0;
  bool quit_ = false;
  HANDLE wake_ = nullptr;
  HANDLE thread_ = nullptr;
};

// Time-code output (sync generator): a count in ms advanced by a periodic multimedia timer.
class TimeCodeOutput final : public IKATimeCodeOutput {
 public:
  explicit TimeCodeOutput(TimeSource* time) noexcept;
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
  ULONG STDMETHODCALLTYPE AddRef() override;
  ULONG STDMETHODCALLTYPE Release() override;
  HRESULT STDMETHODCALLTYPE Locate(INT64 position) override;
  HRESULT STDMETHODCALLTYPE LocateAndCue(INT64 position) override;
  HRESULT STDMETHODCALLTYPE Run(BOOL run) override;
  DWORD STDMETHODCALLTYPE GetMillisec() override;
  HRESULT STDMETHODCALLTYPE Configure(UINT periodMs, UINT resolutionMs, DWORD maximumMs,
                                      DWORD jumpLimitMs) override;
  // The timer callback body; tests call it directly with a manual clock.
  void tick() noexcept;
  bool running() const noexcept { return timerId_.load() != 0; }
  int locateCalls(int which) const noexcept { return locates_[which].load(); }

 private:
  ~TimeCodeOutput();
  static void timerProc(UINT id, UINT msg, DWORD_PTR user, DWORD_PTR, DWORD_PTR);
  void work() noexcept;
  std::atomic<ULONG> refs_{1};
  TimeSource* time_;
  KACRITICAL_SECTION lock_;
  std::atomic<int> depth_{0};
  std::atomic<bool> raised_{false};
  std::atomic<UINT> timerId_{0};
  UINT period_ = 10, resolution_ = 1;
  DWORD maximum_ = 24u * 3600u * 1000u, jumpLimit_ = 0;
  DWORD count_ = 0, lastSent_ = 0, previous_ = 0;
  bool free_ = true;  // running free, not slaved to a source
  std::atomic<int> locates_[2]{};
};

// Time-code input (sync control): event 16 reports a position pair; the transport's sink
// turns it into callback message 64, every other event into 0x2500.
class TimeCodeInput final : public IKATimeCodeInput {
 public:
  using Sink = void (*)(void* context, DWORD event, INT64 first, INT64 second);
  TimeCodeInput(Sink sink, void* context, DWORD mixerFlags, HKAMETRIC metric) noexcept;
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
  ULONG STDMETHODCALLTYPE AddRef() override;
  ULONG STDMETHODCALLTYPE Release() override;
  HRESULT STDMETHODCALLTYPE IsLocked() override;
  HRESULT STDMETHODCALLTYPE GetPosition(INT64* ticks) override;
  HRESULT STDMETHODCALLTYPE StartChase() override;
  HRESULT STDMETHODCALLTYPE StopChase() override;
  HRESULT STDMETHODCALLTYPE Rearm(INT64 position) override;
  HRESULT STDMETHODCALLTYPE PostEvent(DWORD event, INT64 first, INT64 second) override;
  void detachSink() noexcept;
  int rearmCount() const noexcept { return rearms_.load(); }
  bool chasing() const noexcept { return chasing_.load(); }

 private:
  ~TimeCodeInput() = default;
  std::atomic<ULONG> refs_{1};
  KACRITICAL_SECTION lock_;
  Sink sink_;
  void* context_;
  std::atomic<bool> locked_{false}, chasing_{false};
  std::atomic<INT64> position_{-1};
  std::atomic<int> rearms_{0};
};

}  // namespace ostra::engine
