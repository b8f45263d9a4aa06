// Starting, stopping and seeking runs and previews. Stops take the operation lock, and
// every exit from a stop releases it, also the early ones: a stop issued from the client
// callback on the stopping thread returns S_FALSE and lets the lock go while the outer
// stop finishes.
#include "engine/internal/transport_object.h"

namespace ostra::engine {
namespace {

constexpr DWORD kRunBits = KATS_PLAYING | KATS_MONITORING | KATS_RECORDING;
constexpr DWORD kPlayOrRecord = KATS_PLAYING | KATS_RECORDING;
constexpr DWORD kPreviewBits = KATS_AUDIOPREVIEW | KATS_MIDIPREVIEW;
constexpr INT64 kDefaultBufferTicks = 1000000;  // 100 ms when no engine says otherwise

}  // namespace

void Transport::fillRun(KATRANSPORTRUN& run, DWORD flags, INT64 position) noexcept {
  run = KATRANSPORTRUN{};
  run.size = sizeof run;
  run.flags = flags;
  run.state = status();
  run.position = position;
  CsGuard g(posLock_);
  run.end = end_;
}

void Transport::runIdleTimeouts() noexcept {
  const DWORD s = state_.load();
  if (s & kPreviewBits) return;  // the preview keeps its half-buffer pace
  if (s & kPlayOrRecord) {
    workerTimeout_ = runTimeout_.load();
  } else {
    workerTimeout_ = INFINITE;
    slowTimeout_ = INFINITE;
  }
}

// ---------------------------------------------------------------- start

HRESULT Transport::Start(DWORD flags, INT64 position) {
  if (!(state_.load() & KATS_OPEN)) return E_UNEXPECTED;
  if (!enabled_.load()) return E_ACCESSDENIED;
  const bool mine = opOwner_.load() != KaGetCurrentThreadId();
  takeOpLock();
  struct Unlock {
    Transport* t;
    bool mine;
    ~Unlock() {
      if (mine) t->releaseOpLock();
    }
  } unlock{this, mine};

  const DWORD s = state_.load();
  if (!(s & KATS_OPEN)) return E_UNEXPECTED;
  if (s & kRunBits) return S_FALSE;  // a run is going; it goes on unchanged

  bool record;
  INT64 end;
  INT64 from;
  double rate;
  {
    CsGuard g(posLock_);
    record = recordPending_;
    recordPending_ = false;
    end = end_;
    from = position >= 0 ? position : current_;
    rate = rate_;
  }
  DWORD bits = KATS_PLAYING;
  if (flags & KARUN_MONITOR)
    bits = KATS_MONITORING;
  else if (record)
    bits = KATS_PLAYING | KATS_RECORDING;

  if (EngineRef e = engine()) {
    const HRESULT r = e->Start(flags, from, end);
    if (FAILED(r)) return r;
  }
  const DWORD now = nowMs();
  {
    CsGuard g(posLock_);
    reanchorLocked(from, now);
    reverse_ = rate < 0;
    engineRate_ = 1.0;
    published_.store(indexOf(from, indexRate_.load()));
  }
  startFlags_ = flags;
  watchdogStart_ = now;
  watchdogPaused_ = rate != 1.0;
  state_.fetch_or(bits);
  if (bits & kPlayOrRecord) {
    if (!(s & kPreviewBits)) workerTimeout_ = runTimeout_.load();
    slowTimeout_ = rate != 1.0 ? runTimeout_.load() * 8 : INFINITE;
  }
  wakeWorker();

  if (((flags & 0x20000000u) || (flags & 0x10800000u) == 0x10000000u) && rate == 1.0 &&
      (mode_.load() & KATS_SYNCOUT) && output_) {
    if (FAILED(output_->Locate(from)))
      mode_.fetch_or(KATS_SYNCOUTMISSED);
    else
      mode_.fetch_and(~KATS_SYNCOUTMISSED);
  }
  if (bits & kPlayOrRecord) {
    KATRANSPORTRUN run;
    fillRun(run, flags, from);
    INT64 p = from;
    send(KATM_STARTED, reinterpret_cast<DWORD*>(&run), &p, 0);
  }
  return S_OK;
}

HRESULT Transport::RequestStart(DWORD flags, INT64 position) {
  if (!(state_.load() & KATS_OPEN)) return E_UNEXPECTED;
  KATRANSPORTRUN run;
  fillRun(run, flags, position);
  INT64 p = position;
  const HRESULT r = send(KATM_STARTREQUEST, reinterpret_cast<DWORD*>(&run), &p, 0);
  if (FAILED(r)) return r;
  return Start(flags, position);
}

// ---------------------------------------------------------------- stop

HRESULT Transport::stopPlayWith(DWORD flags, LONG reason, DWORD extra) noexcept {
  takeOpLock();
  const HRESULT r = stopPlayBody(flags, reason, extra);
  state_.fetch_and(~KATS_STOPPING);
  releaseOpLock();
  return r;
}

HRESULT Transport::stopPlayBody(DWORD flags, LONG reason, DWORD extra) noexcept {
  const DWORD s = state_.load();
  if (!(s & KATS_OPEN)) return E_UNEXPECTED;
  if (s & KATS_STOPPING) return S_FALSE;
  if (!(s & kRunBits)) return KATRANSPORT_S_NOTHING_TO_STOP;
  state_.fetch_or(KATS_STOPPING);
  bool chaseStopped = false;
  if (s & KATS_CHASING) {
    if (input_) input_->StopChase();
    state_.fetch_and(~KATS_CHASING);
    chaseStopped = true;
  }

  // The final position is taken while the run bits still stand; a forward run never
  // reports a position past its end.
  INT64 last;
  {
    CsGuard g(posLock_);
    last = computePositionLocked(nullptr);
    if (!reverse_ && last > end_) last = end_;
    current_ = last;
    published_.store(indexOf(last, indexRate_.load()));
  }
  const DWORD had = state_.fetch_and(~kRunBits) & kRunBits;
  HRESULT r = S_OK;
  if (!had) {
    r = S_FALSE;
  } else {
    if (EngineRef e = engine()) e->Stop(flags, extra);
    runIdleTimeouts();
    if (handshakeEvent_) KaEvent_Set(handshakeEvent_);
    if (had & kPlayOrRecord) {
      KATRANSPORTRUN run;
      fillRun(run, flags, last);
      send(KATM_STOPPED, reinterpret_cast<DWORD*>(&run), &last, reason);
    }
  }
  if (SUCCEEDED(r) && chaseStopped && input_ && (state_.load() & KATS_OPEN)) {
    input_->StartChase();
    state_.fetch_or(KATS_CHASING);
  }
  return r;
}

HRESULT Transport::StopPlay(DWORD flags) { return stopPlayWith(flags, 0, 0); }

HRESULT Transport::Stop(DWORD flags, DWORD mask, DWORD extra) {
  return stopPlayWith(flags & mask, 0, extra);
}

// ---------------------------------------------------------------- seek

HRESULT Transport::Seek(DWORD flags, INT64 position, INT64 end, DWORD timeFormat,
                        _tag_looppoint* loop) {
  if (!(state_.load() & KATS_OPEN)) return E_UNEXPECTED;
  if (timeFormat > 1) return E_INVALIDARG;
  const DWORD s = state_.load();
  const bool running = (s & KATS_PLAYING) && !(s & KATS_STOPPING);
  const DWORD runFlags = startFlags_.load();
  const DWORD mode = runFlags & KARUN_SEEKMODE_MASK;
  if (running && mode == 0x10000000u) return E_FAIL;

  CsGuard g(posLock_);
  const INT64 cur = running ? computePositionLocked(nullptr) : current_;
  if (loop) {
    if (loop->start != KALOOP_UNCHANGED) loopStart_ = loop->start;
    if (loop->length != KALOOP_UNCHANGED) loopLength_ = loop->length;
    loopCount_ = loop->count;
    const INT64 ref = position >= 0 ? position : cur;
    const bool inside =
        reverse_ ? ref >= loopStart_ : ref >= loopStart_ && ref - loopStart_ < loopLength_;
    loopActive_ = loop->active && loopLength_ >= 1 && inside;
    loop->active = loopActive_ ? 1 : 0;
  }
  if (end >= 0) end_ = end;
  if (position >= 0 && (mode_.load() & KATS_EXTSYNC) && (state_.load() & KATS_CHASING)) {
    if (input_) input_->StopChase();
    state_.fetch_and(~KATS_CHASING);
  }
  if (position >= 0) current_ = position;
  const DWORD now = nowMs();
  if (!running) {
    if (position >= 0) reanchorLocked(position, now);
    published_.store(indexOf(current_, indexRate_.load()));
    return S_OK;
  }

  if (mode == 0x20000000u || mode == 0x30000000u) {
    if (EngineRef e = engine()) {
      HRESULT r = e->Seek(position >= 0 ? position : -1, end_);
      if (SUCCEEDED(r) && end > 0) r = e->SetEnd(end);
      if (FAILED(r)) return r;
    }
  }
  if (position >= 0) {
    const DWORD gen = (runFlags | flags) & KARUN_SYNCGEN_MASK;
    if (gen && output_) {
      const HRESULT r =
          gen == 0x40000000u ? output_->Locate(position) : output_->LocateAndCue(position);
      if (FAILED(r)) return r;
    }
    reanchorLocked(position, now);
    if (state_.load() & kPreviewBits) {
      const DWORD w = workerTimeout_.load();
      slowTimeout_ = w == INFINITE ? INFINITE : w * 8;
    }
    if (input_) input_->Rearm(position);
    if (((runFlags | flags) & 0x20000000u) && (mode_.load() & KATS_SYNCOUT) && output_) {
      if (FAILED(output_->Locate(position))) mode_.fetch_or(KATS_SYNCOUTMISSED);
    }
  } else if (loopActive_ && cur >= loopStart_ + loopLength_) {
    reanchorLocked(cur, now);
  }
  published_.store(indexOf(current_, indexRate_.load()));
  return S_OK;
}

// ---------------------------------------------------------------- rate

HRESULT Transport::SetRate(double rate, DWORD) {
  if (!(state_.load() & KATS_OPEN)) return E_UNEXPECTED;
  if (!(rate == rate) || rate == 0.0) return E_INVALIDARG;
  {
    CsGuard g(posLock_);
    const INT64 cur = computePositionLocked(nullptr);
    reanchorLocked(cur, nowMs());
    rate_ = rate;
    reverse_ = rate < 0;
  }
  if (EngineRef e = engine()) e->SetRate(rate);
  if (rate != 1.0) {
    const DWORD w = runTimeout_.load();
    slowTimeout_ = w * 8;
    watchdogPaused_ = true;
  } else {
    slowTimeout_ = INFINITE;
    watchdogStart_ = nowMs();
    watchdogPaused_ = false;
  }
  wakeWorker();
  return S_OK;
}

HRESULT Transport::GetRate(double* rate) {
  if (!rate) return E_POINTER;
  if (!(state_.load() & KATS_OPEN)) return E_UNEXPECTED;
  CsGuard g(posLock_);
  *rate = rate_;
  return S_OK;
}

// ---------------------------------------------------------------- previews

HRESULT Transport::startPreviewKind(DWORD kind, INT64 start, INT64 end, BOOL loop,
                                    double rate) noexcept {
  if (!(state_.load() & KATS_OPEN)) return E_UNEXPECTED;
  if (!enabled_.load()) return E_ACCESSDENIED;
  const bool mine = opOwner_.load() != KaGetCurrentThreadId();
  takeOpLock();
  struct Unlock {
    Transport* t;
    bool mine;
    ~Unlock() {
      if (mine) t->releaseOpLock();
    }
  } unlock{this, mine};
  if (!(state_.load() & KATS_OPEN)) return E_UNEXPECTED;
  // A new preview replaces the one that runs.
  for (DWORD k : {KATS_MIDIPREVIEW, KATS_AUDIOPREVIEW}) {
    if (state_.load() & k) {
      stopPreviewBody(k, 0, 0);
      state_.fetch_and(~KATS_PREVIEWSTOPPING);
    }
  }

  KATRANSPORTPREVIEW pv{};
  pv.size = sizeof pv;
  pv.kind = kind;
  pv.start = start >= 0 ? start : 0;
  pv.take = pv.takeEnd = -1;
  pv.loop = loop ? 1 : 0;
  pv.rate = rate;
  {
    CsGuard g(posLock_);
    pv.end = end >= 0                            ? end
             : pvLength_ != KATRANSPORT_OPEN_END ? pv.start + pvLength_
                                                 : KATRANSPORT_OPEN_END;
  }
  INT64 buffer = kDefaultBufferTicks;
  if (EngineRef e = engine()) {
    const HRESULT r = e->StartPreview(kind, &pv);
    if (FAILED(r)) return r;
    INT64 b = 0;
    if (SUCCEEDED(e->GetBufferDuration(&b)) && b > 0) buffer = b;
  }
  const DWORD now = nowMs();
  {
    CsGuard g(posLock_);
    pvStart_ = pvPosition_ = pv.start;
    pvEnd_ = pv.end;
    pvStartTime_ = now;
    pvElapsed_ = 0;
  }
  const DWORD s = state_.fetch_or(kind);
  if (!(s & kPlayOrRecord)) {
    DWORD half = DWORD(ticksToMs(buffer / 2));
    if (half == 0) half = 1;
    workerTimeout_ = half;
    slowTimeout_ = half * 8;
    watchdogStart_ = now;
  }
  wakeWorker();
  INT64 p = pv.start;
  const HRESULT answer = send(KATM_PREVIEWSTARTED, reinterpret_cast<DWORD*>(&pv), &p, 0);
  if (FAILED(answer)) {
    stopPreviewBody(kind, 0, answer);
    state_.fetch_and(~KATS_PREVIEWSTOPPING);
    return answer;
  }
  return S_OK;
}

HRESULT Transport::StartPreview(INT64 start, INT64 end, BOOL loop, double rate) {
  return startPreviewKind(KATS_AUDIOPREVIEW, start, end, loop, rate);
}

HRESULT Transport::StartMIDIPreview(INT64 start, INT64 end, BOOL loop, double rate) {
  return startPreviewKind(KATS_MIDIPREVIEW, start, end, loop, rate);
}

HRESULT Transport::stopPreviewWith(DWORD kind, DWORD flags, LONG reason) noexcept {
  takeOpLock();
  const HRESULT r = stopPreviewBody(kind, flags, reason);
  state_.fetch_and(~KATS_PREVIEWSTOPPING);
  releaseOpLock();
  return r;
}

HRESULT Transport::stopPreviewBody(DWORD kind, DWORD flags, LONG reason) noexcept {
  const DWORD s = state_.load();
  if (!(s & KATS_OPEN)) return E_UNEXPECTED;
  if (s & KATS_PREVIEWSTOPPING) return S_FALSE;
  if (!(s & kind)) return KATRANSPORT_S_NOTHING_TO_STOP;
  state_.fetch_or(KATS_PREVIEWSTOPPING);
  KATRANSPORTPREVIEW pv{};
  pv.size = sizeof pv;
  pv.kind = kind;
  pv.take = pv.takeEnd = -1;
  {
    CsGuard g(posLock_);
    INT64 p = previewPositionLocked();
    if (p > pvEnd_) p = pvEnd_;
    pvPosition_ = p;
    pv.start = pvStart_;
    pv.end = pvEnd_;
  }
  if (!(state_.fetch_and(~kind) & kind)) return S_FALSE;
  if (EngineRef e = engine()) e->StopPreview(kind);
  runIdleTimeouts();
  if (!(state_.load() & kPreviewBits) && (state_.load() & kPlayOrRecord)) {
    workerTimeout_ = runTimeout_.load();
    double rate;
    {
      CsGuard g(posLock_);
      rate = rate_;
    }
    slowTimeout_ = rate != 1.0 ? runTimeout_.load() * 8 : INFINITE;
  }
  INT64 p = pv.end;
  {
    CsGuard g(posLock_);
    p = pvPosition_;
  }
  (void)flags;
  if (kind == KATS_MIDIPREVIEW)
    send(KATM_MIDIPREVIEWSTOPPED, reinterpret_cast<DWORD*>(&pv), &p, reason);
  send(KATM_PREVIEWSTOPPED, reinterpret_cast<DWORD*>(&pv), &p, reason);
  return S_OK;
}

HRESULT Transport::StopPreview(DWORD flags) { return stopPreviewWith(KATS_AUDIOPREVIEW, flags, 0); }

HRESULT Transport::StopMIDIPreview(DWORD flags) {
  return stopPreviewWith(KATS_MIDIPREVIEW, flags, 0);
}

HRESULT Transport::CompletePreviewStop(DWORD) {
  if (opOwner_.load() == KaGetCurrentThreadId()) return S_OK;
  takeOpLock();
  releaseOpLock();
  return S_OK;
}

HRESULT Transport::seekPreviewKind(DWORD kind, INT64 start, INT64 end,
                                   const KATRANSPORTPREVIEW* preview) noexcept {
  if (!(state_.load() & KATS_OPEN)) return E_UNEXPECTED;
  {
    CsGuard g(posLock_);
    if (start >= 0) pvStart_ = pvPosition_ = start;
    if (end >= 0) pvEnd_ = end;
    pvStartTime_ = nowMs();
    pvElapsed_ = 0;
  }
  if (state_.load() & kind) {
    if (EngineRef e = engine()) {
      KATRANSPORTPREVIEW pv{};
      if (preview) pv = *preview;
      pv.size = sizeof pv;
      pv.kind = kind;
      pv.start = start;
      pv.end = end;
      return e->SeekPreview(kind, &pv);
    }
  }
  return S_OK;
}

HRESULT Transport::SeekPreview(INT64 start, INT64 end, const KATRANSPORTPREVIEW* preview) {
  return seekPreviewKind(KATS_AUDIOPREVIEW, start, end, preview);
}

HRESULT Transport::SeekMIDIPreview(INT64 start, INT64 end, const KATRANSPORTPREVIEW* preview) {
  return seekPreviewKind(KATS_MIDIPREVIEW, start, end, preview);
}

}  // namespace ostra::engine
