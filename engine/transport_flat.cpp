// The flat Transport_* API over one process-wide transport, KaAudio_CreateTransport and
// the mixer's set-up. Every function holds a reference on the transport for the length
// of the call, so that a Transport_Cleanup on another thread never frees it under a call.
#include <mutex>
#include <new>

#include "engine/internal/transport_object.h"
#include "kernel/internal/strings.h"

using ostra::engine::Transport;

namespace {

constexpr DWORD kStringStartingTransport = 4000;

std::mutex gLock;
IKATransport* gTransport = nullptr;
IKATimer* gAux[2] = {nullptr, nullptr};
DWORD gGuiThread = DWORD(-1);
KATRANSPORTCALLBACK gCallback = nullptr;
UINT64 gContext = 0;
DWORD gOpenFlags = 0, gMixerFlags = 0;
HKAMETRIC gMetric = nullptr;

std::mutex gMixerLock;
IKAPlayEngine* gMixerEngine = nullptr;
DWORD gMixerInitFlags = 0;
HKAMETRIC gMixerMetric = nullptr;

class Held {
 public:
  Held() {
    std::lock_guard lk(gLock);
    t_ = gTransport;
    if (t_) t_->AddRef();
  }
  ~Held() {
    if (t_) t_->Release();
  }
  Held(const Held&) = delete;
  Held& operator=(const Held&) = delete;
  IKATransport* operator->() const noexcept { return t_; }
  IKATransport* get() const noexcept { return t_; }
  explicit operator bool() const noexcept { return t_ != nullptr; }

 private:
  IKATransport* t_;
};

DWORD statusOf(IKATransport* t) {
  DWORD s = 0;
  t->GetStatus(&s);
  return s;
}

// A preview runs (after letting a preview stop in progress complete).
bool previewRuns(IKATransport* t) {
  DWORD s = statusOf(t);
  if (s & KATS_PREVIEWSTOPPING) {
    t->CompletePreviewStop(0);
    s = statusOf(t);
  }
  return (s & (KATS_MIDIPREVIEW | KATS_AUDIOPREVIEW)) != 0;
}

HRESULT previewStop(IKATransport* t, BOOL restart) {
  const DWORD s = statusOf(t);
  DWORD flags = 0x20000000u;
  BOOL pass = FALSE;
  if ((s & KATS_MONITORING) && !(s & KATS_CHASING)) {
    flags = 0x30800000u;
    pass = restart;
  }
  return Transport_StopPreview(flags, pass);
}

HRESULT sendToClient(unsigned message, DWORD* data) {
  KATRANSPORTCALLBACK cb;
  UINT64 ctx;
  IKATransport* t;
  {
    std::lock_guard lk(gLock);
    cb = gCallback;
    ctx = gContext;
    t = gTransport;
    if (t) t->AddRef();
  }
  HRESULT r = S_FALSE;
  if (cb) r = cb(t, message, data, ctx, nullptr, 0);
  if (t) t->Release();
  return r;
}

}  // namespace

HRESULT KaAudio_CreateTransport(IKATransport** transport) noexcept {
  if (!transport) return E_POINTER;
  *transport = new (std::nothrow) Transport(ostra::engine::defaultTimeSource());
  return *transport ? S_OK : E_OUTOFMEMORY;
}

// ---------------------------------------------------------------- mixer

HRESULT Mixer_Init(DWORD mixerFlags, HKAMETRIC metric) noexcept {
  std::lock_guard lk(gMixerLock);
  gMixerInitFlags = mixerFlags;
  gMixerMetric = metric;
  return S_OK;
}

IKAPlayEngine* Mixer_GetEngine() noexcept {
  std::lock_guard lk(gMixerLock);
  if (gMixerEngine) gMixerEngine->AddRef();
  return gMixerEngine;
}

void Mixer_SetEngine(IKAPlayEngine* engine) noexcept {
  if (engine) engine->AddRef();
  IKAPlayEngine* old;
  {
    std::lock_guard lk(gMixerLock);
    old = gMixerEngine;
    gMixerEngine = engine;
  }
  if (old) old->Release();
}

// ---------------------------------------------------------------- life cycle

HRESULT Transport_Init(KATRANSPORTCALLBACK callback, UINT64 context, DWORD openFlags,
                       DWORD mixerFlags, HKAMETRIC metric, IKaProgress* progress) noexcept {
  {
    std::lock_guard lk(gLock);
    if (gTransport) return S_FALSE;  // one transport per process; the first stays
    gGuiThread = DWORD(-1);
  }
  IKATransport* t = nullptr;
  HRESULT r = KaAudio_CreateTransport(&t);
  if (FAILED(r)) return r;
  if (progress) {
    const KAWCHAR* text = ostra::kernel::kernelString(kStringStartingTransport);
    if (text) progress->SetStatusText(text);
  }
  DWORD resolution = 4;
  r = t->Open(&resolution, 20, openFlags, mixerFlags, callback, context, metric, progress);
  if (FAILED(r)) {
    t->Release();
    return r;
  }
  Mixer_Init(mixerFlags, metric);
  if (IKAPlayEngine* e = Mixer_GetEngine()) {
    t->SetPlayEngine(e);
    e->Release();
  }
  IKATimer* aux[2] = {nullptr, nullptr};
  t->GetTimer(0, &aux[0]);
  t->GetTimer(1, &aux[1]);
  t->Enable(1);
  std::lock_guard lk(gLock);
  if (gTransport) {  // another thread's Init won the race
    for (IKATimer* a : aux)
      if (a) a->Release();
    t->Close();
    t->Release();
    return S_FALSE;
  }
  gTransport = t;
  gAux[0] = aux[0];
  gAux[1] = aux[1];
  gOpenFlags = openFlags;
  gMixerFlags = mixerFlags;
  gMetric = metric;
  gCallback = callback;
  gContext = context;
  return S_OK;
}

HRESULT Transport_Cleanup() noexcept {
  IKATransport* t;
  IKATimer* aux[2];
  {
    std::lock_guard lk(gLock);
    t = gTransport;
    aux[0] = gAux[0];
    aux[1] = gAux[1];
    gTransport = nullptr;
    gAux[0] = gAux[1] = nullptr;
    gCallback = nullptr;
    gContext = 0;
  }
  if (!t) return E_UNEXPECTED;
  for (IKATimer* a : aux)
    if (a) a->Release();
  t->SetSink(nullptr);
  const HRESULT r = t->Close();
  t->Release();
  return r;
}

HRESULT Transport_SetClientContext(KATRANSPORTCALLBACK callback, UINT64 context) noexcept {
  {
    std::lock_guard lk(gLock);
    gCallback = callback;
    gContext = context;
  }
  Held t;
  if (t) t->SetClientContext(callback, context);
  return S_OK;
}

HRESULT Transport_QueryInternalInterface(REFIID riid, void** object) noexcept {
  Held t;
  if (!t) return E_UNEXPECTED;
  const HRESULT r = t->QueryInternalInterface(riid, object);
  if (SUCCEEDED(r)) return r;
  return t->QueryInterface(riid, object);
}

HRESULT Transport_SetAppGUIThreadID(DWORD threadId) noexcept {
  std::lock_guard lk(gLock);
  gGuiThread = threadId;
  return S_OK;
}

DWORD Transport_GetAppGUIThreadID() noexcept {
  std::lock_guard lk(gLock);
  return gGuiThread;
}

// ---------------------------------------------------------------- positions and lengths

INT64 Transport_GetRecPos() noexcept { return -1; }

INT64 Transport_GetLength() noexcept {
  Held t;
  INT64 length = -1;
  if (!t || FAILED(t->GetLength(&length))) return -1;
  return length;
}

HRESULT Transport_SetLength(INT64 length) noexcept {
  Held t;
  return t ? t->SetLength(length) : E_UNEXPECTED;
}

HRESULT Transport_SetPreviewLength(INT64 length) noexcept {
  Held t;
  return t ? t->SetPreviewLength(length) : E_UNEXPECTED;
}

INT64 Transport_GetPreviewPos() noexcept {
  Held t;
  INT64 p = -1;
  if (!t || t->GetPosition(&p, nullptr, 16) != S_OK) return -1;
  return p;
}

DWORD Transport_GetStatus() noexcept {
  Held t;
  return t ? statusOf(t.get()) : 0;
}

// ---------------------------------------------------------------- host messages

HRESULT Transport_SuspendEx() noexcept { return sendToClient(KATM_SUSPEND, nullptr); }

HRESULT Transport_ResumeEx(BOOL b) noexcept {
  DWORD value = DWORD(b);
  return sendToClient(KATM_RESUME, &value);
}

// ---------------------------------------------------------------- monitoring and recording

HRESULT Transport_StartRecMonitor(BOOL b) noexcept {
  Held t;
  if (!t) return E_UNEXPECTED;
  if (previewRuns(t.get()))
    previewStop(t.get(), FALSE);
  else if (statusOf(t.get()) & KATS_MONITORING)
    Transport_StopRecMonitor(FALSE);
  const HRESULT r = t->Start(b ? 0x1C800000u : 0x10800000u, 0);
  if (FAILED(r)) t->ArmRecord(FALSE, nullptr);
  return r;
}

HRESULT Transport_StopRecMonitor(BOOL b) noexcept {
  Held t;
  if (!t) return E_UNEXPECTED;
  if (previewRuns(t.get())) return previewStop(t.get(), FALSE);
  return t->Stop(b ? 0x1C800000u : 0x10800000u, 0x1C800000u, 0);
}

HRESULT Transport_StartRec(DWORD flags, INT64 position, INT64 end, INT64 take, INT64 takeEnd,
                           LONG channels, BOOL arm) noexcept {
  Held t;
  if (!t) return E_UNEXPECTED;
  if (previewRuns(t.get()))
    previewStop(t.get(), FALSE);
  else
    t->Stop(0x10800000u, 0xFFFFFFFFu, 0);
  KATRANSPORTRECORD rec{
      sizeof(KATRANSPORTRECORD), flags, position, end, take, takeEnd, channels, channels};
  t->SetRecordParameters(&rec);
  t->SetRate(1.0, 0);
  t->SetLength(end >= 0 ? end : KATRANSPORT_OPEN_END);
  bool armed = false;
  if (arm) {
    if (FAILED(t->ArmRecord(TRUE, &rec)))
      flags &= ~0x20000000u;
    else
      armed = true;
  }
  const HRESULT r = t->Start(flags, position);
  if (r != S_OK) {
    t->SetRecordParameters(nullptr);
    if (armed) t->ArmRecord(FALSE, &rec);
  }
  return r;
}

HRESULT Transport_StopRec(BOOL a, BOOL, BOOL c) noexcept {
  Held t;
  if (!t) return E_UNEXPECTED;
  const DWORD flags = (a ? 0xB0000000u : 0x10000000u) + (c ? 0x0C000000u : 0u);
  return t->Stop(flags, a ? 0xB0000000u : 0x10000000u, DWORD(c));
}

// ---------------------------------------------------------------- seek and rate

HRESULT Transport_Seek(DWORD flags, INT64 position, INT64 end, _tag_looppoint* loop) noexcept {
  Held t;
  if (!t) return E_UNEXPECTED;
  if (statusOf(t.get()) & KATS_RECORDING) return S_FALSE;
  return t->Seek(flags, position, end, 1, loop);
}

double Transport_GetRate() noexcept {
  Held t;
  double rate = 1.0;
  if (!t || FAILED(t->GetRate(&rate))) return 1.0;
  return rate;
}

HRESULT Transport_SetRate(double rate, DWORD flags) noexcept {
  Held t;
  if (!t) return E_UNEXPECTED;
  double current = 1.0;
  if (SUCCEEDED(t->GetRate(&current)) && current == rate) return S_FALSE;
  return t->SetRate(rate, flags);
}

// ---------------------------------------------------------------- previews

HRESULT Transport_StartPreview(INT64 start, INT64 end, BOOL loop, double rate) noexcept {
  Held t;
  return t ? t->StartPreview(start, end, loop, rate) : E_UNEXPECTED;
}

HRESULT Transport_StopPreview(DWORD flags, BOOL restartMonitor) noexcept {
  Held t;
  if (!t) return E_UNEXPECTED;
  const DWORD s = statusOf(t.get());
  const HRESULT midi = (s & KATS_MIDIPREVIEW) ? t->StopMIDIPreview(flags) : S_OK;
  const HRESULT audio = (s & KATS_AUDIOPREVIEW) ? t->StopPreview(flags) : S_OK;
  if (midi == S_OK && audio == S_OK && restartMonitor) return Transport_StartRecMonitor(FALSE);
  return midi != S_OK ? midi : audio;
}

HRESULT Transport_SeekPreview(INT64 start, INT64 end, INT64 take, INT64 takeEnd,
                              LONG channels) noexcept {
  Held t;
  if (!t) return E_UNEXPECTED;
  KATRANSPORTPREVIEW pv{sizeof(KATRANSPORTPREVIEW),
                        KATS_AUDIOPREVIEW,
                        start,
                        end,
                        take,
                        takeEnd,
                        DWORD(channels),
                        0,
                        1.0};
  return t->SeekPreview(start, end, &pv);
}

HRESULT Transport_StartMIDIPreview(INT64 start, INT64 end, BOOL loop, double rate) noexcept {
  Held t;
  return t ? t->StartMIDIPreview(start, end, loop, rate) : E_UNEXPECTED;
}

HRESULT Transport_StopMIDIPreview(DWORD flags, BOOL restartMonitor) noexcept {
  Held t;
  if (!t) return E_UNEXPECTED;
  const HRESULT r =
      (statusOf(t.get()) & KATS_MIDIPREVIEW) ? t->StopMIDIPreview(flags | 0x0C000000u) : S_OK;
  if (r == S_OK && restartMonitor) return Transport_StartRecMonitor(FALSE);
  return r;
}

HRESULT Transport_SeekMIDIPreview(INT64 start, INT64 end, INT64 take, INT64 takeEnd,
                                  LONG channels) noexcept {
  Held t;
  if (!t) return E_UNEXPECTED;
  KATRANSPORTPREVIEW pv{sizeof(KATRANSPORTPREVIEW),
                        KATS_MIDIPREVIEW,
                        start,
                        end,
                        take,
                        takeEnd,
                        DWORD(channels),
                        0,
                        1.0};
  return t->SeekMIDIPreview(start, end, &pv);
}

// ---------------------------------------------------------------- forwarders

#define OSTRA_FORWARD(call) \
  Held t;                   \
  return t ? t->call : E_UNEXPECTED

HRESULT Transport_SetCurrentPos(INT64 position) noexcept { OSTRA_FORWARD(SetCurrentPos(position)); }
HRESULT Transport_SetTempo(double tempo) noexcept { OSTRA_FORWARD(SetTempo(tempo)); }
HRESULT Transport_SetOffset(INT64 offset) noexcept { OSTRA_FORWARD(SetOffset(offset)); }
HRESULT Transport_EnumMIDIIn(KAMIDIPORTENUMPROC proc, void* context) noexcept {
  OSTRA_FORWARD(EnumMIDIIn(proc, context));
}
HRESULT Transport_EnumMIDIOut(KAMIDIPORTENUMPROC proc, void* context) noexcept {
  OSTRA_FORWARD(EnumMIDIOut(proc, context));
}
HRESULT Transport_CanEnableExternalSync(DWORD kind) noexcept {
  OSTRA_FORWARD(CanEnableExternalSync(kind));
}
HRESULT Transport_EnableExternalSync(BOOL on, DWORD kind) noexcept {
  OSTRA_FORWARD(EnableExternalSync(on, kind));
}
HRESULT Transport_CanGenerateSync(DWORD kind) noexcept { OSTRA_FORWARD(CanGenerateSync(kind)); }
HRESULT Transport_GenerateSync(BOOL on, DWORD kind) noexcept {
  OSTRA_FORWARD(GenerateSync(on, kind));
}
HRESULT Transport_GetSMPTE_MTC(DWORD kind, _smpteval* label) noexcept {
  OSTRA_FORWARD(GetSMPTE_MTC(kind, label));
}
HRESULT Transport_ResumeListenForSync() noexcept { OSTRA_FORWARD(ResumeListenForSync()); }
HRESULT Transport_ToggleListenToMTC(BOOL listen) noexcept {
  OSTRA_FORWARD(ToggleListenToMTC(listen));
}
HRESULT Transport_ToggleGenerateMTC() noexcept { OSTRA_FORWARD(ToggleGenerateMTC()); }
HRESULT Transport_ToggleGenerateMIDI() noexcept { OSTRA_FORWARD(ToggleGenerateMIDI()); }
HRESULT Transport_SetPrefs(const KATRANSPORTPREFS* prefs) noexcept {
  OSTRA_FORWARD(SetPrefs(prefs));
}
HRESULT Transport_GetPrefs(KATRANSPORTPREFS* prefs) noexcept { OSTRA_FORWARD(GetPrefs(prefs)); }
HRESULT Transport_SetMetric(DWORD id, INT64 value) noexcept { OSTRA_FORWARD(SetMetric(id, value)); }
HRESULT Transport_GetMetric(DWORD id, INT64* value) noexcept {
  OSTRA_FORWARD(GetMetric(id, value));
}
