// The remaining slots of the transport: attachment of the engine and the sink, timers and
// clock, time-code control, preferences and metrics, lengths and the formatted position.
#include "engine/internal/midi.h"
#include "engine/internal/transport_object.h"

namespace ostra::engine {
namespace {

constexpr DWORD kPreviewBits = KATS_AUDIOPREVIEW | KATS_MIDIPREVIEW;

template <class T>
HRESULT handOut(T* object, T** out) {
  if (!out) return E_POINTER;
  *out = object;
  if (!object) return E_UNEXPECTED;
  object->AddRef();
  return S_OK;
}

}  // namespace

HRESULT Transport::QueryInternalInterface(REFIID riid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  if (riid == IID_IKATimer)
    return handOut<IKATimer>(timers_[0], reinterpret_cast<IKATimer**>(object));
  if (riid == IID_IReferenceClock)
    return handOut<IReferenceClock>(refClock_, reinterpret_cast<IReferenceClock**>(object));
  if (riid == IID_IKATimeCodeInput && input_)
    return handOut<IKATimeCodeInput>(input_, reinterpret_cast<IKATimeCodeInput**>(object));
  if (riid == IID_IKATimeCodeOutput && output_)
    return handOut<IKATimeCodeOutput>(output_, reinterpret_cast<IKATimeCodeOutput**>(object));
  if (riid == IID_IKAPlayEngine) {
    CsGuard g(engineLock_);
    if (!engine_) return E_NOINTERFACE;
    engine_->AddRef();
    *object = engine_;
    return S_OK;
  }
  return E_NOINTERFACE;
}

HRESULT Transport::SetPlayEngine(IKAPlayEngine* engine) {
  if (state_.load() & (KATS_PLAYING | KATS_MONITORING | KATS_RECORDING | kPreviewBits))
    return E_FAIL;  // an engine is swapped only between runs
  if (engine) engine->AddRef();
  IKAPlayEngine* old;
  {
    CsGuard g(engineLock_);
    old = engine_;
    engine_ = engine;
  }
  if (old) old->Release();
  return S_OK;
}

HRESULT Transport::SetSink(IUnknown* sink) {
  if (sink) sink->AddRef();
  IUnknown* old;
  {
    CsGuard g(cbLock_);
    old = sink_;
    sink_ = sink;
  }
  if (old) old->Release();
  return S_OK;
}

HRESULT Transport::GetTimer(DWORD kind, IKATimer** timer) {
  if (kind > 1) return E_INVALIDARG;
  return handOut<IKATimer>(timers_[kind], timer);
}

HRESULT Transport::GetRefClock(IReferenceClock** clock) {
  return handOut<IReferenceClock>(refClock_, clock);
}

HRESULT Transport::SetClientContext(KATRANSPORTCALLBACK callback, UINT64 context) {
  CsGuard g(cbLock_);
  callback_ = callback;
  context_ = context;
  return S_OK;
}

HRESULT Transport::SetWatchdog(DWORD limitMs) {
  watchdogLimit_ = limitMs;
  watchdogStart_ = nowMs();
  wakeWorker();
  return S_OK;
}

HRESULT Transport::Enable(DWORD enable) {
  enabled_ = enable != 0;
  return S_OK;
}

HRESULT Transport::SetCurrentPos(INT64 position) {
  if (position < 0) return E_INVALIDARG;
  return Seek(0, position, -1, 1, nullptr);
}

HRESULT Transport::SetTempo(double tempo) {
  if (!(tempo > 0)) return E_INVALIDARG;
  CsGuard g(posLock_);
  tempo_ = tempo;
  return S_OK;
}

HRESULT Transport::SetOffset(INT64 offset) {
  CsGuard g(posLock_);
  offset_ = offset;
  return S_OK;
}

// No MIDI ports exist until the device layer provides them: no port is reported.
HRESULT Transport::EnumMIDIIn(KAMIDIPORTENUMPROC proc, void* context) {
  return enumMidiPorts(true, proc, context);
}

HRESULT Transport::EnumMIDIOut(KAMIDIPORTENUMPROC proc, void* context) {
  return enumMidiPorts(false, proc, context);
}

HRESULT Transport::CanEnableExternalSync(DWORD) {
  if (!(state_.load() & KATS_OPEN)) return E_UNEXPECTED;
  return input_ ? S_OK : S_FALSE;
}

HRESULT Transport::EnableExternalSync(BOOL on, DWORD) {
  if (!(state_.load() & KATS_OPEN)) return E_UNEXPECTED;
  if (!input_) return on ? E_FAIL : S_OK;
  if (on) {
    mode_.fetch_or(KATS_EXTSYNC);
  } else {
    mode_.fetch_and(~KATS_EXTSYNC);
    ToggleListenToMTC(FALSE);
  }
  return S_OK;
}

HRESULT Transport::CanGenerateSync(DWORD) {
  if (!(state_.load() & KATS_OPEN)) return E_UNEXPECTED;
  return output_ ? S_OK : S_FALSE;
}

HRESULT Transport::GenerateSync(BOOL on, DWORD) {
  if (!(state_.load() & KATS_OPEN)) return E_UNEXPECTED;
  if (!output_) return on ? E_FAIL : S_OK;
  if (on)
    mode_.fetch_or(KATS_SYNCOUT);
  else
    mode_.fetch_and(~(KATS_SYNCOUT | KATS_SYNCOUTMISSED));
  return output_->Run(on);
}

HRESULT Transport::PrepareRun(BOOL record, KATRANSPORTRUN* run) {
  if (!(state_.load() & KATS_OPEN)) return E_UNEXPECTED;
  KATRANSPORTRUN local;
  if (!run) {
    fillRun(local, startFlags_.load(), -1);
    run = &local;
  }
  INT64 p = run->position;
  return send(record ? KATM_PREPARERECORD : KATM_PREPAREPLAY, reinterpret_cast<DWORD*>(run), &p, 0);
}

HRESULT Transport::GetSMPTE_MTC(DWORD kind, _smpteval* label) {
  if (!label) return E_POINTER;
  INT64 p = -1;
  const HRESULT r = GetPosition(&p, nullptr, kind == 2 ? 2 : 1);
  if (FAILED(r)) return r;
  if (p < 0) return S_FALSE;
  INT64 offset;
  {
    CsGuard g(posLock_);
    offset = offset_;
  }
  KASMPTE_NanoToSMPTE(p + offset, label);
  return S_OK;
}

HRESULT Transport::ArmRecord(BOOL arm, const KATRANSPORTRECORD* record) {
  if (!(state_.load() & KATS_OPEN)) return E_UNEXPECTED;
  KATRANSPORTRUN run;
  fillRun(run, startFlags_.load(), record ? record->position : -1);
  INT64 p = run.position;
  if (arm) {
    const HRESULT r = send(KATM_PREPARERECORD, reinterpret_cast<DWORD*>(&run), &p, 0);
    if (FAILED(r)) return r;
  }
  if (EngineRef e = engine()) return e->ArmInput(arm, record);
  return S_OK;
}

HRESULT Transport::PostEvent(DWORD* data, INT64* position) {
  if (!(state_.load() & KATS_OPEN)) return E_UNEXPECTED;
  return send(KATM_EVENT, data, position, 0);
}

HRESULT Transport::ResumeListenForSync() {
  if (!(state_.load() & KATS_OPEN)) return E_UNEXPECTED;
  if (!(mode_.load() & KATS_EXTSYNC)) return S_FALSE;
  return ToggleListenToMTC(TRUE);
}

HRESULT Transport::ToggleListenToMTC(BOOL listen) {
  if (!(state_.load() & KATS_OPEN)) return E_UNEXPECTED;
  if (!input_) return listen ? E_FAIL : S_OK;
  if (listen) {
    input_->StartChase();
    state_.fetch_or(KATS_CHASING);
  } else {
    input_->StopChase();
    state_.fetch_and(~KATS_CHASING);
  }
  return S_OK;
}

HRESULT Transport::ToggleGenerateMTC() {
  if (!(state_.load() & KATS_OPEN)) return E_UNEXPECTED;
  return GenerateSync(!(mode_.load() & KATS_SYNCOUT), 0);
}

// MIDI clock output arrives with the device layer.
HRESULT Transport::ToggleGenerateMIDI() { return E_NOTIMPL; }

HRESULT Transport::SetPrefs(const KATRANSPORTPREFS* prefs) {
  if (!prefs) return E_POINTER;
  if (prefs->size < sizeof(KATRANSPORTPREFS)) return E_INVALIDARG;
  if (!(prefs->indexRate > 0)) return E_INVALIDARG;
  SetWatchdog(prefs->watchdogMs);
  indexRate_ = prefs->indexRate;
  handshakeOn_ = prefs->handshake != 0;
  return S_OK;
}

HRESULT Transport::GetPrefs(KATRANSPORTPREFS* prefs) {
  if (!prefs) return E_POINTER;
  *prefs = KATRANSPORTPREFS{};
  prefs->size = sizeof *prefs;
  prefs->watchdogMs = watchdogLimit_.load();
  prefs->indexRate = indexRate_.load();
  prefs->handshake = handshakeOn_.load() ? 1 : 0;
  return S_OK;
}

HRESULT Transport::SetMetric(DWORD id, INT64 value) {
  if (id != KATRANSPORT_METRIC_WATCHDOG) return E_INVALIDARG;
  if (value < 0 || value > 0xFFFFFFFFLL) return E_INVALIDARG;
  return SetWatchdog(DWORD(value));
}

HRESULT Transport::GetMetric(DWORD id, INT64* value) {
  if (!value) return E_POINTER;
  switch (id) {
    case KATRANSPORT_METRIC_WORKER_TIMEOUT:
      *value = workerTimeout_.load();
      return S_OK;
    case KATRANSPORT_METRIC_SLOW_TIMEOUT:
      *value = slowTimeout_.load();
      return S_OK;
    case KATRANSPORT_METRIC_WATCHDOG:
      *value = watchdogLimit_.load();
      return S_OK;
    case KATRANSPORT_METRIC_WORKER_WAKES:
      *value = INT64(wakes_.load());
      return S_OK;
    case KATRANSPORT_METRIC_PUBLISHED_INDEX:
      *value = published_.load();
      return S_OK;
    case KATRANSPORT_METRIC_TIMER_RESOLUTION:
      *value = resolution_;
      return S_OK;
    default:
      return E_INVALIDARG;
  }
}

HRESULT Transport::GetFormattedPosition(KATRANSPORTPOSITION* position) {
  if (!position) return E_POINTER;
  if (!(state_.load() & KATS_OPEN)) return E_UNEXPECTED;
  INT64 ticks = 0;
  HRESULT r = S_OK;
  switch (position->timeFormat) {
    case 1:
    case 2:
    case 4:
    case 32:
      r = GetPosition(&ticks, nullptr, 0);
      break;
    case 8:
      r = GetPosition(&ticks, nullptr, 8);
      break;
    case 16:
      r = GetPosition(&ticks, nullptr, 16);
      break;
    default:
      return E_INVALIDARG;
  }
  if (FAILED(r)) return r;
  position->ticks = ticks;
  switch (position->timeFormat) {
    case 2:
      position->value = ticksToMs(ticks);
      break;
    case 4:
      position->value = indexOf(ticks, indexRate_.load());
      break;
    case 32: {
      const DWORD type = position->smpte.type;
      KASMPTE_NanoToSMPTE(ticks, &position->smpte);
      position->smpte.type = type;
      position->value = ticks;
      break;
    }
    default:
      position->value = ticks;
      break;
  }
  return S_OK;
}

HRESULT Transport::SetIndexRate(double unitsPerSecond) {
  if (unitsPerSecond > 0) indexRate_ = unitsPerSecond;
  return S_FALSE;
}

HRESULT Transport::SetLength(INT64 length) {
  if (!(state_.load() & KATS_OPEN)) return E_UNEXPECTED;
  if (length < 0) return E_INVALIDARG;
  {
    CsGuard g(posLock_);
    end_ = length;
  }
  if (state_.load() & KATS_PLAYING) {
    if (EngineRef e = engine()) e->SetEnd(length);
    wakeWorker();
  }
  return S_OK;
}

HRESULT Transport::GetLength(INT64* length) {
  if (!length) return E_POINTER;
  if (!(state_.load() & KATS_OPEN)) return E_UNEXPECTED;
  CsGuard g(posLock_);
  *length = end_;
  return S_OK;
}

HRESULT Transport::SetRecordParameters(const KATRANSPORTRECORD* record) {
  if (!(state_.load() & KATS_OPEN)) return E_UNEXPECTED;
  CsGuard g(posLock_);
  if (record) record_ = *record;
  recordPending_ = record != nullptr;
  return S_OK;
}

HRESULT Transport::SetPreviewLength(INT64 length) {
  if (!(state_.load() & KATS_OPEN)) return E_UNEXPECTED;
  if (length < 0) return E_INVALIDARG;
  CsGuard g(posLock_);
  pvLength_ = length;
  return S_OK;
}

}  // namespace ostra::engine
