// The time-code output (a millisecond count advanced by a periodic multimedia timer) and
// the time-code input (position pairs reported as event 16). Quarter-frame output and
// chasing arrive with the device layer; here the objects keep the counts and flags the
// transport relies on.
#include "engine/internal/transport_impl.h"

namespace ostra::engine {

// ---------------------------------------------------------------- output

TimeCodeOutput::TimeCodeOutput(TimeSource* time) noexcept : time_(time) {
  KaInitializeCriticalSection(&lock_);
}

TimeCodeOutput::~TimeCodeOutput() { Run(FALSE); }

HRESULT TimeCodeOutput::QueryInterface(REFIID riid, void** ppv) {
  if (!ppv) return E_POINTER;
  *ppv = nullptr;
  if (riid != IID_IUnknown && riid != IID_IKATimeCodeOutput) return E_NOINTERFACE;
  *ppv = static_cast<IKATimeCodeOutput*>(this);
  AddRef();
  return S_OK;
}

ULONG TimeCodeOutput::AddRef() { return ++refs_; }

ULONG TimeCodeOutput::Release() {
  const ULONG r = --refs_;
  if (r == 0) delete this;
  return r;
}

HRESULT TimeCodeOutput::Configure(UINT periodMs, UINT resolutionMs, DWORD maximumMs,
                                  DWORD jumpLimitMs) {
  if (periodMs == 0 || resolutionMs == 0 || maximumMs == 0) return E_INVALIDARG;
  if (running()) return E_FAIL;
  CsGuard g(lock_);
  period_ = periodMs;
  resolution_ = resolutionMs;
  maximum_ = maximumMs;
  jumpLimit_ = jumpLimitMs;
  return S_OK;
}

HRESULT TimeCodeOutput::Locate(INT64 position) {
  locates_[0].fetch_add(1);
  if (position < 0 || position / 10000 > INT64(maximum_)) return E_INVALIDARG;
  CsGuard g(lock_);
  // Placing the output is the one way its count may move back.
  count_ = lastSent_ = DWORD(position / 10000);
  previous_ = time_->millis();
  return S_OK;
}

HRESULT TimeCodeOutput::LocateAndCue(INT64 position) {
  locates_[1].fetch_add(1);
  if (position < 0 || position / 10000 > INT64(maximum_)) return E_INVALIDARG;
  CsGuard g(lock_);
  count_ = lastSent_ = DWORD(position / 10000);
  previous_ = time_->millis();
  return S_OK;
}

void TimeCodeOutput::timerProc(UINT, UINT, DWORD_PTR user, DWORD_PTR, DWORD_PTR) {
  auto* self = reinterpret_cast<TimeCodeOutput*>(user);
  if (!self->raised_.exchange(true))
    KaThread_SetPriority(KaGetCurrentThread(), THREAD_PRIORITY_TIME_CRITICAL);
  self->tick();
}

HRESULT TimeCodeOutput::Run(BOOL run) {
  if (run) {
    if (running()) return S_FALSE;
    UINT period, resolution;
    {
      CsGuard g(lock_);
      period = period_;
      resolution = resolution_;
      previous_ = time_->millis();
    }
    timeBeginPeriod(resolution);
    const UINT id = timeSetEvent(period, resolution, &TimeCodeOutput::timerProc,
                                 reinterpret_cast<DWORD_PTR>(this), TIME_PERIODIC);
    if (!id) {
      timeEndPeriod(resolution);
      return E_FAIL;
    }
    timerId_ = id;
    return S_OK;
  }
  const UINT id = timerId_.exchange(0);
  if (!id) return S_FALSE;
  timeKillEvent(id);
  UINT resolution;
  {
    CsGuard g(lock_);
    resolution = resolution_;
  }
  timeEndPeriod(resolution);
  return S_OK;
}

void TimeCodeOutput::tick() noexcept {
  // Only the outermost call works: a late tick that overlaps another adds nothing twice.
  if (depth_.fetch_add(1) == 0) work();
  depth_.fetch_sub(1);
}

void TimeCodeOutput::work() noexcept {
  CsGuard g(lock_);
  const DWORD now = time_->millis();
  const DWORD delta = now - previous_;
  previous_ = now;
  if (!free_) return;
  if (jumpLimit_ && delta > jumpLimit_) return;  // a stall is not passed on as a jump
  const UINT64 next = UINT64(count_) + delta;
  count_ = next > maximum_ ? maximum_ : DWORD(next);
  if (count_ < lastSent_) count_ = lastSent_;
}

DWORD TimeCodeOutput::GetMillisec() {
  CsGuard g(lock_);
  if (count_ < lastSent_) count_ = lastSent_;
  lastSent_ = count_;
  return count_;
}

// ---------------------------------------------------------------- input

TimeCodeInput::TimeCodeInput(Sink sink, void* context, DWORD, HKAMETRIC) noexcept
    : sink_(sink), context_(context) {
  KaInitializeCriticalSection(&lock_);
}

HRESULT TimeCodeInput::QueryInterface(REFIID riid, void** ppv) {
  if (!ppv) return E_POINTER;
  *ppv = nullptr;
  if (riid != IID_IUnknown && riid != IID_IKATimeCodeInput) return E_NOINTERFACE;
  *ppv = static_cast<IKATimeCodeInput*>(this);
  AddRef();
  return S_OK;
}

ULONG TimeCodeInput::AddRef() { return ++refs_; }

ULONG TimeCodeInput::Release() {
  const ULONG r = --refs_;
  if (r == 0) delete this;
  return r;
}

HRESULT TimeCodeInput::IsLocked() { return locked_.load() ? S_OK : S_FALSE; }

HRESULT TimeCodeInput::GetPosition(INT64* ticks) {
  if (!ticks) return E_POINTER;
  *ticks = position_.load();
  return *ticks >= 0 ? S_OK : S_FALSE;
}

HRESULT TimeCodeInput::StartChase() {
  chasing_ = true;
  return S_OK;
}

HRESULT TimeCodeInput::StopChase() {
  chasing_ = false;
  locked_ = false;
  return S_OK;
}

HRESULT TimeCodeInput::Rearm(INT64) {
  rearms_.fetch_add(1);
  locked_ = false;
  return S_OK;
}

void TimeCodeInput::detachSink() noexcept {
  CsGuard g(lock_);
  sink_ = nullptr;
}

HRESULT TimeCodeInput::PostEvent(DWORD event, INT64 first, INT64 second) {
  if (event == 16) {
    position_ = first;
    locked_ = chasing_.load();
  }
  // The sink is called under the input's own lock so that detaching waits for a
  // delivery in flight; the transport never calls into the input under this lock.
  CsGuard g(lock_);
  if (!sink_) return S_FALSE;
  sink_(context_, event, first, second);
  return S_OK;
}

}  // namespace ostra::engine
