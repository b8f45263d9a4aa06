// The transport object: state and mode words, positions under the position lock, the
// worker thread, the operation lock, and the slots of IKATransport. The slots live in
// transport.cpp (life cycle, worker, positions), transport_run.cpp (start, stop, seek,
// previews) and transport_slots.cpp (the rest).
#pragma once

#include <atomic>

#include "engine/internal/transport_impl.h"

namespace ostra::engine {

class Transport final : public IKATransport {
 public:
  explicit Transport(TimeSource* time) noexcept;

  // IUnknown
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
  ULONG STDMETHODCALLTYPE AddRef() override;
  ULONG STDMETHODCALLTYPE Release() override;
  // IKATransport
  HRESULT STDMETHODCALLTYPE QueryInternalInterface(REFIID riid, void** object) override;
  HRESULT STDMETHODCALLTYPE SetPlayEngine(IKAPlayEngine* engine) override;
  HRESULT STDMETHODCALLTYPE SetSink(IUnknown* sink) override;
  HRESULT STDMETHODCALLTYPE Open(DWORD* resolutionMs, DWORD secondPeriodMs, DWORD openFlags,
                                 DWORD mixerFlags, KATRANSPORTCALLBACK callback, UINT64 context,
                                 HKAMETRIC metric, IKaProgress* progress) override;
  HRESULT STDMETHODCALLTYPE Close() override;
  HRESULT STDMETHODCALLTYPE GetTimer(DWORD kind, IKATimer** timer) override;
  HRESULT STDMETHODCALLTYPE GetRefClock(IReferenceClock** clock) override;
  HRESULT STDMETHODCALLTYPE SetClientContext(KATRANSPORTCALLBACK callback, UINT64 context) override;
  HRESULT STDMETHODCALLTYPE SetWatchdog(DWORD limitMs) override;
  HRESULT STDMETHODCALLTYPE Enable(DWORD enable) override;
  HRESULT STDMETHODCALLTYPE SetCurrentPos(INT64 position) override;
  HRESULT STDMETHODCALLTYPE SetTempo(double tempo) override;
  HRESULT STDMETHODCALLTYPE SetOffset(INT64 offset) override;
  HRESULT STDMETHODCALLTYPE EnumMIDIIn(KAMIDIPORTENUMPROC proc, void* context) override;
  HRESULT STDMETHODCALLTYPE EnumMIDIOut(KAMIDIPORTENUMPROC proc, void* context) override;
  HRESULT STDMETHODCALLTYPE CanEnableExternalSync(DWORD kind) override;
  HRESULT STDMETHODCALLTYPE EnableExternalSync(BOOL on, DWORD kind) override;
  HRESULT STDMETHODCALLTYPE CanGenerateSync(DWORD kind) override;
  HRESULT STDMETHODCALLTYPE GenerateSync(BOOL on, DWORD kind) override;
  HRESULT STDMETHODCALLTYPE PrepareRun(BOOL record, KATRANSPORTRUN* run) override;
  HRESULT STDMETHODCALLTYPE GetSMPTE_MTC(DWORD kind, _smpteval* label) override;
  HRESULT STDMETHODCALLTYPE RequestStart(DWORD flags, INT64 position) override;
  HRESULT STDMETHODCALLTYPE ArmRecord(BOOL arm, const KATRANSPORTRECORD* record) override;
  HRESULT STDMETHODCALLTYPE PostEvent(DWORD* data, INT64* position) override;
  HRESULT STDMETHODCALLTYPE ResumeListenForSync() override;
  HRESULT STDMETHODCALLTYPE ToggleListenToMTC(BOOL listen) override;
  HRESULT STDMETHODCALLTYPE ToggleGenerateMTC() override;
  HRESULT STDMETHODCALLTYPE ToggleGenerateMIDI() override;
  HRESULT STDMETHODCALLTYPE SetPrefs(const KATRANSPORTPREFS* prefs) override;
  HRESULT STDMETHODCALLTYPE GetPrefs(KATRANSPORTPREFS* prefs) override;
  HRESULT STDMETHODCALLTYPE StopPlay(DWORD flags) override;
  HRESULT STDMETHODCALLTYPE Seek(DWORD flags, INT64 position, INT64 end, DWORD timeFormat,
                                 _tag_looppoint* loop) override;
  HRESULT STDMETHODCALLTYPE Start(DWORD flags, INT64 position) override;
  HRESULT STDMETHODCALLTYPE Stop(DWORD flags, DWORD mask, DWORD extra) override;
  HRESULT STDMETHODCALLTYPE SetRate(double rate, DWORD flags) override;
  HRESULT STDMETHODCALLTYPE GetRate(double* rate) override;
  HRESULT STDMETHODCALLTYPE StartPreview(INT64 start, INT64 end, BOOL loop, double rate) override;
  HRESULT STDMETHODCALLTYPE StartMIDIPreview(INT64 start, INT64 end, BOOL loop,
                                             double rate) override;
  HRESULT STDMETHODCALLTYPE StopPreview(DWORD flags) override;
  HRESULT STDMETHODCALLTYPE SeekPreview(INT64 start, INT64 end,
                                        const KATRANSPORTPREVIEW* preview) override;
  HRESULT STDMETHODCALLTYPE SeekMIDIPreview(INT64 start, INT64 end,
                                            const KATRANSPORTPREVIEW* preview) override;
  HRESULT STDMETHODCALLTYPE StopMIDIPreview(DWORD flags) override;
  HRESULT STDMETHODCALLTYPE SetMetric(DWORD id, INT64 value) override;
  HRESULT STDMETHODCALLTYPE GetMetric(DWORD id, INT64* value) override;
  HRESULT STDMETHODCALLTYPE GetFormattedPosition(KATRANSPORTPOSITION* position) override;
  HRESULT STDMETHODCALLTYPE GetPosition(INT64* position, const void* request,
                                        DWORD timeFormat) override;
  HRESULT STDMETHODCALLTYPE GetStatus(DWORD* status) override;
  HRESULT STDMETHODCALLTYPE CompletePreviewStop(DWORD flags) override;
  HRESULT STDMETHODCALLTYPE Reserved51() override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE Reserved52() override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE Reserved53() override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE Reserved54() override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE Reserved55() override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetIndexRate(double unitsPerSecond) override;
  HRESULT STDMETHODCALLTYPE Reserved57() override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE Reserved58() override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetLength(INT64 length) override;
  HRESULT STDMETHODCALLTYPE GetLength(INT64* length) override;
  HRESULT STDMETHODCALLTYPE SetRecordParameters(const KATRANSPORTRECORD* record) override;
  HRESULT STDMETHODCALLTYPE Reserved62() override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetPreviewLength(INT64 length) override;

  // Reads through the timers (kind 0 with the hand-shake, kind 1 the preview).
  INT64 readMainForTimer() noexcept;
  INT64 readPreview() noexcept;
  DWORD status() const noexcept { return state_.load() | mode_.load(); }
  UINT64 workerWakes() const noexcept { return wakes_.load(); }

 private:
  friend class TransportTimer;
  ~Transport();

  // An engine reference held for one call (null when none is attached).
  class EngineRef {
   public:
    explicit EngineRef(IKAPlayEngine* e) noexcept : e_(e) {}
    EngineRef(const EngineRef&) = delete;
    EngineRef& operator=(const EngineRef&) = delete;
    ~EngineRef() {
      if (e_) e_->Release();
    }
    IKAPlayEngine* operator->() const noexcept { return e_; }
    explicit operator bool() const noexcept { return e_ != nullptr; }

   private:
    IKAPlayEngine* e_;
  };
  EngineRef engine() noexcept;

  // Operation lock: an auto-reset event with an owner thread id.
  void takeOpLock() noexcept;
  void releaseOpLock() noexcept;

  HRESULT send(unsigned message, DWORD* data, INT64* position, LONG reason) noexcept;
  static void inputSink(void* self, DWORD event, INT64 first, INT64 second);
  void wakeWorker() noexcept;
  static DWORD workerMain(void* self);
  void workerLoop() noexcept;
  DWORD workerWait() const noexcept;
  void closeObjects() noexcept;

  // Under the position lock.
  INT64 computePositionLocked(const void* request) noexcept;
  INT64 previewPositionLocked() noexcept;
  void reanchorLocked(INT64 position, DWORD now) noexcept;
  DWORD nowMs() noexcept;

  HRESULT stopPlayWith(DWORD flags, LONG reason, DWORD extra) noexcept;
  HRESULT stopPlayBody(DWORD flags, LONG reason, DWORD extra) noexcept;
  HRESULT stopPreviewWith(DWORD kind, DWORD flags, LONG reason) noexcept;
  HRESULT stopPreviewBody(DWORD kind, DWORD flags, LONG reason) noexcept;
  HRESULT startPreviewKind(DWORD kind, INT64 start, INT64 end, BOOL loop, double rate) noexcept;
  HRESULT seekPreviewKind(DWORD kind, INT64 start, INT64 end,
                          const KATRANSPORTPREVIEW* preview) noexcept;
  void fillRun(KATRANSPORTRUN& run, DWORD flags, INT64 position) noexcept;
  void runIdleTimeouts() noexcept;

  std::atomic<ULONG> refs_{1};
  TimeSource* time_;

  std::atomic<DWORD> state_{0};
  std::atomic<DWORD> mode_{0};
  DWORD openFlags_ = 0;
  DWORD mixerFlags_ = 0;
  HKAMETRIC metric_ = nullptr;
  std::atomic<DWORD> startFlags_{0};
  std::atomic<bool> enabled_{true};

  // Guarded by posLock_.
  KACRITICAL_SECTION posLock_;
  INT64 current_ = 0, start_ = 0, end_ = KATRANSPORT_OPEN_END;
  DWORD startTime_ = 0, elapsed_ = 0;
  INT64 pvPosition_ = 0, pvStart_ = 0, pvEnd_ = KATRANSPORT_OPEN_END;
  INT64 pvLength_ = KATRANSPORT_OPEN_END;
  DWORD pvStartTime_ = 0, pvElapsed_ = 0;
  bool reverse_ = false;
  double rate_ = 1.0;
  double engineRate_ = 1.0;
  INT64 loopStart_ = 0, loopLength_ = 0;
  UINT loopCount_ = 0;
  bool loopActive_ = false;
  double tempo_ = 120.0;
  INT64 offset_ = 0;
  KATRANSPORTRECORD record_{};
  bool recordPending_ = false;

  std::atomic<DWORD> workerTimeout_{INFINITE};
  std::atomic<DWORD> slowTimeout_{INFINITE};
  std::atomic<DWORD> runTimeout_{20};  // the second period given at open
  std::atomic<DWORD> watchdogLimit_{0};
  std::atomic<DWORD> watchdogStart_{0};
  std::atomic<bool> watchdogPaused_{false};
  std::atomic<double> indexRate_{1000.0};
  std::atomic<INT64> published_{-1};
  std::atomic<bool> handshakeOn_{true};
  std::atomic<bool> handshakePending_{false};
  std::atomic<UINT64> wakes_{0};
  DWORD resolution_ = 0;

  // Clock lock: serialises timer readers; lastHanded_ is under it.
  KACRITICAL_SECTION clockLock_;
  INT64 lastHanded_ = -1;
  std::atomic<INT64> lastHandedSnapshot_{-1};  // what a waiting reader was last handed

  // Callback and engine, each under its own short lock.
  KACRITICAL_SECTION cbLock_;
  KATRANSPORTCALLBACK callback_ = nullptr;
  UINT64 context_ = 0;
  KACRITICAL_SECTION engineLock_;
  IKAPlayEngine* engine_ = nullptr;
  IUnknown* sink_ = nullptr;

  HANDLE opEvent_ = nullptr;
  std::atomic<DWORD> opOwner_{DWORD(-1)};
  HANDLE wakeEvent_ = nullptr;
  HANDLE handshakeEvent_ = nullptr;
  HANDLE worker_ = nullptr;
  std::atomic<bool> workerQuit_{false};

  TransportTimer* timers_[2] = {nullptr, nullptr};
  RefClock* refClock_ = nullptr;
  TimeCodeInput* input_ = nullptr;
  IKATimeCodeInput* inputControl_ = nullptr;  // the second interface of the sync control
  TimeCodeOutput* output_ = nullptr;
};

}  // namespace ostra::engine
