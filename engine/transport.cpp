// The transport's life cycle (open, close), its worker thread, the operation lock, the
// client callback, and position computation with the published index and the
// hand-shake between timer readers and the worker.
#include <cmath>
#include <new>

#include "engine/internal/transport_object.h"
#include "ostra/kakernel.h"

namespace ostra::engine {
namespace {

class SystemTime final : public TimeSource {
 public:
  DWORD millis() noexcept override { return KaGetMillisec(); }
};

std::atomic<TimeSource*> gDefaultTime{nullptr};
std::atomic<int> gFailTimers{0};

}  // namespace

TimeSource* systemTimeSource() noexcept {
  static SystemTime t;
  return &t;
}

void setDefaultTimeSource(TimeSource* source) noexcept { gDefaultTime.store(source); }

TimeSource* defaultTimeSource() noexcept {
  TimeSource* t = gDefaultTime.load();
  return t ? t : systemTimeSource();
}

void failTimerAllocations(int count) noexcept { gFailTimers.store(count); }

INT64 indexOf(INT64 ticks, double unitsPerSecond) noexcept {
  return std::llrint(double(ticks) * 1e-7 * unitsPerSecond + 1e-5 - 0.499999985);
}

Transport::Transport(TimeSource* time) noexcept : time_(time) {
  KaInitializeCriticalSection(&posLock_);
  KaInitializeCriticalSection(&clockLock_);
  KaInitializeCriticalSection(&cbLock_);
  KaInitializeCriticalSection(&engineLock_);
  opEvent_ = KaEvent_Create(FALSE, TRUE);
}

Transport::~Transport() {
  Close();
  SetPlayEngine(nullptr);
  SetSink(nullptr);
  if (opEvent_) KaCloseHandle(opEvent_);
}

HRESULT Transport::QueryInterface(REFIID riid, void** ppv) {
  if (!ppv) return E_POINTER;
  *ppv = nullptr;
  if (riid != IID_IUnknown && riid != IID_IKATransport) return E_NOINTERFACE;
  *ppv = static_cast<IKATransport*>(this);
  AddRef();
  return S_OK;
}

ULONG Transport::AddRef() { return ++refs_; }

ULONG Transport::Release() {
  const ULONG r = --refs_;
  if (r == 0) delete this;
  return r;
}

DWORD Transport::nowMs() noexcept { return time_->millis(); }

Transport::EngineRef Transport::engine() noexcept {
  CsGuard g(engineLock_);
  if (engine_) engine_->AddRef();
  return EngineRef(engine_);
}

// ---------------------------------------------------------------- operation lock

void Transport::takeOpLock() noexcept {
  const DWORD me = KaGetCurrentThreadId();
  if (opOwner_.load() == me) return;  // re-entry from the callback
  if (KaWaitForSingleObject(opEvent_, 0) == WAIT_TIMEOUT) KaWaitForSingleObject(opEvent_, INFINITE);
  opOwner_.store(me);
}

void Transport::releaseOpLock() noexcept {
  opOwner_.store(DWORD(-1));
  KaEvent_Set(opEvent_);
}

// ---------------------------------------------------------------- callback

HRESULT Transport::send(unsigned message, DWORD* data, INT64* position, LONG reason) noexcept {
  KATRANSPORTCALLBACK cb;
  UINT64 ctx;
  {
    CsGuard g(cbLock_);
    cb = callback_;
    ctx = context_;
  }
  if (!cb) return S_OK;
  return cb(this, message, data, ctx, position, reason);
}

void Transport::inputSink(void* self, DWORD event, INT64 first, INT64 second) {
  auto* t = static_cast<Transport*>(self);
  INT64 pair[2] = {first, second};
  DWORD data = event;
  t->send(event == 16 ? KATM_SYNCPOSITION : KATM_SYNCCONTROL, &data, pair, 0);
}

// ---------------------------------------------------------------- open and close

HRESULT Transport::Open(DWORD* resolutionMs, DWORD secondPeriodMs, DWORD openFlags,
                        DWORD mixerFlags, KATRANSPORTCALLBACK callback, UINT64 context,
                        HKAMETRIC metric, IKaProgress* progress) {
  if (state_.load() & KATS_OPEN) return S_OK;
  if (!opEvent_) return E_OUTOFMEMORY;
  wakeEvent_ = KaEvent_Create(TRUE, FALSE);
  workerTimeout_ = INFINITE;
  slowTimeout_ = INFINITE;
  handshakeEvent_ = KaEvent_Create(TRUE, FALSE);
  workerQuit_ = false;
  if (!wakeEvent_ || !handshakeEvent_) {
    Close();
    return E_OUTOFMEMORY;
  }
  worker_ = KaThread_Create(&Transport::workerMain, this, 0, 0, nullptr);
  if (!worker_) {
    Close();
    return E_OUTOFMEMORY;
  }
  resolution_ = resolutionMs && *resolutionMs ? *resolutionMs : 4;
  runTimeout_ = secondPeriodMs ? secondPeriodMs : 20;
  timeBeginPeriod(resolution_);

  for (DWORD kind = 0; kind < 2; ++kind) {
    if (gFailTimers.load() > 0 && gFailTimers.fetch_sub(1) > 0) {
      Close();
      return E_OUTOFMEMORY;
    }
    timers_[kind] = new (std::nothrow) TransportTimer(this, kind);
    if (!timers_[kind]) {
      Close();
      return E_OUTOFMEMORY;
    }
  }
  refClock_ = new (std::nothrow) RefClock();
  if (!refClock_ || !refClock_->valid()) {
    Close();
    return E_OUTOFMEMORY;
  }

  openFlags_ = openFlags;
  mixerFlags_ = mixerFlags;
  metric_ = metric;
  {
    CsGuard g(cbLock_);
    callback_ = callback;
    context_ = context;
  }
  state_.store(KATS_OPEN);

  if (openFlags & KATRANSPORT_OPEN_SYNCIN_MASK) {
    input_ = new (std::nothrow) TimeCodeInput(&Transport::inputSink, this, mixerFlags, metric);
    if (!input_ || FAILED(input_->QueryInterface(IID_IKATimeCodeInput,
                                                 reinterpret_cast<void**>(&inputControl_)))) {
      Close();
      return E_OUTOFMEMORY;
    }
    if (progress) progress->SetProgress(0, 0);
  }
  if (openFlags & KATRANSPORT_OPEN_SYNCOUT_MASK) {
    output_ = new (std::nothrow) TimeCodeOutput(time_);
    if (!output_) {
      Close();
      return E_OUTOFMEMORY;
    }
  }
  send(KATM_OPENED, nullptr, nullptr, 0);
  return S_OK;
}

void Transport::closeObjects() noexcept {
  for (auto*& t : timers_) {
    if (t) {
      t->detach();
      t->Release();
      t = nullptr;
    }
  }
  if (refClock_) {
    refClock_->Release();
    refClock_ = nullptr;
  }
  if (inputControl_) {
    inputControl_->Release();
    inputControl_ = nullptr;
  }
  if (input_) {
    input_->detachSink();
    input_->Release();
    input_ = nullptr;
  }
  if (output_) {
    output_->Run(FALSE);
    output_->Release();
    output_ = nullptr;
  }
}

HRESULT Transport::Close() {
  const bool wasOpen = (state_.load() & KATS_OPEN) != 0;
  if (wasOpen) {
    // Everything still running ends normally (the host hears messages 6 and 0x8006), all
    // under the operation lock so that no Start slips in before the open bit goes.
    takeOpLock();
    const DWORD s = state_.load();
    if (s & (KATS_PLAYING | KATS_MONITORING | KATS_RECORDING)) stopPlayBody(startFlags_, 0, 0);
    if (s & KATS_MIDIPREVIEW) stopPreviewBody(KATS_MIDIPREVIEW, 0, 0);
    if (s & KATS_AUDIOPREVIEW) stopPreviewBody(KATS_AUDIOPREVIEW, 0, 0);
    state_.fetch_and(~KATS_OPEN);
    releaseOpLock();
  }
  workerQuit_ = true;
  if (handshakeEvent_) KaEvent_Set(handshakeEvent_);
  if (wakeEvent_) KaEvent_Set(wakeEvent_);
  if (worker_) {
    KaWaitForSingleObject(worker_, INFINITE);
    KaCloseHandle(worker_);
    worker_ = nullptr;
  }
  closeObjects();
  if (resolution_) {
    timeEndPeriod(resolution_);
    resolution_ = 0;
  }
  if (wakeEvent_) KaCloseHandle(wakeEvent_);
  if (handshakeEvent_) KaCloseHandle(handshakeEvent_);
  wakeEvent_ = handshakeEvent_ = nullptr;
  state_.store(0);
  {
    CsGuard g(cbLock_);
    callback_ = nullptr;
  }
  return S_OK;
}

// ---------------------------------------------------------------- worker

void Transport::wakeWorker() noexcept {
  if (wakeEvent_) KaEvent_Set(wakeEvent_);
}

DWORD Transport::workerMain(void* self) {
  static_cast<Transport*>(self)->workerLoop();
  return 0;
}

DWORD Transport::workerWait() const noexcept {
  if (handshakePending_.load()) return resolution_ ? resolution_ : 1;
  const DWORD s = state_.load();
  const bool previewing = (s & (KATS_AUDIOPREVIEW | KATS_MIDIPREVIEW)) != 0;
  DWORD wait = workerTimeout_.load();
  if (!previewing && (s & (KATS_PLAYING | KATS_RECORDING)) && slowTimeout_.load() != INFINITE)
    wait = slowTimeout_.load();
  const DWORD limit = watchdogLimit_.load();
  if (limit && (s & (KATS_PLAYING | KATS_RECORDING | KATS_AUDIOPREVIEW | KATS_MIDIPREVIEW)) &&
      wait > limit)
    wait = limit;
  return wait;
}

void Transport::workerLoop() noexcept {
  while (!workerQuit_.load()) {
    KaWaitForSingleObject(wakeEvent_, workerWait());
    // Reset at once: a wake that arrives while this round runs is kept for the next.
    KaEvent_Reset(wakeEvent_);
    ++wakes_;
    if (workerQuit_.load() || !(state_.load() & KATS_OPEN)) break;

    HRESULT engineState = S_FALSE;
    bool haveEngine = false;
    {
      EngineRef e = engine();
      if (e) {
        haveEngine = true;
        engineState = e->QueryState();
      }
    }
    DWORD s = state_.load();
    const DWORD flags = startFlags_.load();
    if (haveEngine && engineState == S_OK) {
      if (s & KATS_PLAYING) stopPlayWith(flags, LONG(KATRANSPORT_E_ENGINE_STOPPED), 0);
      if (s & (KATS_AUDIOPREVIEW | KATS_MIDIPREVIEW))
        stopPreviewWith(s & KATS_MIDIPREVIEW ? KATS_MIDIPREVIEW : KATS_AUDIOPREVIEW, 0xF0000000u,
                        LONG(KATRANSPORT_E_ENGINE_STOPPED));
    } else {
      if ((s & (KATS_PLAYING | KATS_RECORDING)) && !(s & KATS_NOENDTEST) && !(s & KATS_STOPPING)) {
        bool reached = false;
        {
          CsGuard g(posLock_);
          if (!loopActive_ && !reverse_) reached = computePositionLocked(nullptr) >= end_;
        }
        if (reached) StopPlay(flags);
      }
      if (output_) output_->tick();
      s = state_.load();
      if ((s & (KATS_AUDIOPREVIEW | KATS_MIDIPREVIEW)) && !(s & KATS_PREVIEWSTOPPING)) {
        bool ended = false;
        {
          CsGuard g(posLock_);
          ended = previewPositionLocked() >= pvEnd_;
        }
        if (ended) {
          const HRESULT r = (s & KATS_MIDIPREVIEW) ? StopMIDIPreview(flags | 0x0C000000u)
                                                   : stopPreviewWith(KATS_AUDIOPREVIEW, flags, 0);
          if (r != S_FALSE) KaEvent_Reset(wakeEvent_);
        }
      }
    }

    // Watchdog.
    s = state_.load();
    const DWORD limit = watchdogLimit_.load();
    if (limit && !watchdogPaused_.load() &&
        (s & (KATS_PLAYING | KATS_RECORDING | KATS_AUDIOPREVIEW | KATS_MIDIPREVIEW)) &&
        DWORD(nowMs() - watchdogStart_.load()) >= limit) {
      if (s & (KATS_PLAYING | KATS_RECORDING))
        stopPlayWith(startFlags_.load(), LONG(KATRANSPORT_S_WATCHDOG), 0);
      else
        stopPreviewWith(s & KATS_MIDIPREVIEW ? KATS_MIDIPREVIEW : KATS_AUDIOPREVIEW, 0,
                        LONG(KATRANSPORT_S_WATCHDOG));
    }

    // Hand-shake: publish a fresh position for a waiting timer reader.
    if (handshakePending_.load()) {
      s = state_.load();
      bool fresh = true;
      if ((s & KATS_PLAYING) && !(s & KATS_STOPPING)) {
        CsGuard g(posLock_);
        computePositionLocked(nullptr);
        fresh = published_.load() != lastHandedSnapshot_.load();
      }
      if (fresh) {
        handshakePending_ = false;
        KaEvent_Set(handshakeEvent_);
      }
    }
  }
}

// ---------------------------------------------------------------- positions

void Transport::reanchorLocked(INT64 position, DWORD now) noexcept {
  startTime_ = now;
  start_ = position;
  current_ = position;
  elapsed_ = DWORD(ticksToMs(position));
}

INT64 Transport::computePositionLocked(const void* request) noexcept {
  const DWORD s = state_.load();
  if (!(s & (KATS_PLAYING | KATS_RECORDING))) return current_;
  if ((mode_.load() & KATS_EXTSYNC) && (s & KATS_CHASING) && input_ && input_->IsLocked() == S_OK) {
    INT64 p = 0;
    if (SUCCEEDED(input_->GetPosition(&p))) current_ = p;
  } else if (EngineRef e = engine()) {
    INT64 p = current_;
    double rate = 1.0;
    e->QueryState();
    if (SUCCEEDED(e->GetPosition(&p, &rate, request))) {
      current_ = p;
      elapsed_ = DWORD(ticksToMs(p));
    }
    if (rate != engineRate_) {
      if (rate != 1.0) {
        const DWORD w = runTimeout_.load();
        slowTimeout_ = w == INFINITE ? INFINITE : w * 8;
        watchdogPaused_ = true;
      } else {
        slowTimeout_ = INFINITE;
        watchdogStart_ = nowMs();
        watchdogPaused_ = false;
      }
      engineRate_ = rate;
    }
  } else {
    const DWORD now = output_ && output_->running() ? output_->GetMillisec() : nowMs();
    elapsed_ = now - startTime_;
    const INT64 delta = INT64(elapsed_) * 10000;
    if (!reverse_) {
      INT64 p = start_ + delta;
      if (loopActive_ && loopLength_ > 0 && p >= loopStart_ + loopLength_)
        p = loopStart_ + (p - loopStart_) % loopLength_;
      current_ = p;
    } else {
      const INT64 p = start_ - delta;
      current_ = p < 0 ? end_ : p;
    }
  }
  published_.store(indexOf(current_, indexRate_.load()));
  return current_;
}

INT64 Transport::previewPositionLocked() noexcept {
  const DWORD s = state_.load();
  if (!(s & (KATS_AUDIOPREVIEW | KATS_MIDIPREVIEW))) return pvPosition_;
  if (EngineRef e = engine()) {
    INT64 p = 0;
    if ((s & KATS_MIDIPREVIEW) && SUCCEEDED(e->GetPreviewPosition(KATS_MIDIPREVIEW, &p))) {
      pvPosition_ = p;
      return p;
    }
    if (!reverse_) {
      pvElapsed_ = nowMs() - pvStartTime_;
      pvPosition_ = e->AdjustPreviewClock(pvStart_ + INT64(pvElapsed_) * 10000);
    }
    return pvPosition_;
  }
  if (!reverse_) {
    pvElapsed_ = nowMs() - pvStartTime_;
    pvPosition_ = pvStart_ + INT64(pvElapsed_) * 10000;
  }
  return pvPosition_;
}

INT64 Transport::readMainForTimer() noexcept {
  CsGuard clock(clockLock_);
  INT64 p;
  {
    CsGuard g(posLock_);
    p = computePositionLocked(nullptr);
  }
  const DWORD s = state_.load();
  if ((s & KATS_PLAYING) && !(s & KATS_STOPPING) && handshakeOn_.load() &&
      published_.load() == lastHanded_ && handshakeEvent_) {
    KaEvent_Reset(handshakeEvent_);
    lastHandedSnapshot_.store(lastHanded_);
    handshakePending_ = true;
    const DWORD again = state_.load();
    if ((again & KATS_PLAYING) && !(again & KATS_STOPPING) && !workerQuit_.load()) {
      wakeWorker();
      KaWaitForSingleObject(handshakeEvent_, INFINITE);
    }
    CsGuard g(posLock_);
    p = computePositionLocked(nullptr);
  }
  lastHanded_ = published_.load();
  return p;
}

INT64 Transport::readPreview() noexcept {
  CsGuard g(posLock_);
  return previewPositionLocked();
}

HRESULT Transport::GetPosition(INT64* position, const void* request, DWORD timeFormat) {
  if (!position) return E_POINTER;
  if (!(state_.load() & KATS_OPEN)) return E_UNEXPECTED;
  switch (timeFormat) {
    case 0:
    case 8: {
      CsGuard g(posLock_);
      *position = computePositionLocked(request);
      return S_OK;
    }
    case 1: {
      INT64 p = -1;
      if (!input_ || FAILED(input_->GetPosition(&p))) p = -1;
      *position = p;
      return S_OK;
    }
    case 2:
      *position = output_ ? INT64(output_->GetMillisec()) * 10000 : -1;
      return S_OK;
    case 16: {
      CsGuard g(posLock_);
      *position = previewPositionLocked();
      return S_OK;
    }
    default:
      return S_FALSE;
  }
}

HRESULT Transport::GetStatus(DWORD* status) {
  if (!status) return E_POINTER;
  *status = state_.load() | mode_.load();
  return (*status & KATS_OPEN) ? S_OK : E_UNEXPECTED;
}

}  // namespace ostra::engine
