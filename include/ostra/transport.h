// The transport: the one object that starts, stops, seeks and times playback, recording,
// record monitoring and the two preview paths, with its worker thread, its timers and its
// reference clock; the flat Transport_* API over one process-wide transport; the play
// engine interface it drives; and the multimedia-timer functions of the platform layer.
//
// Positions, lengths and durations are 100-nanosecond ticks (INT64); -1 means none or
// unknown and KATRANSPORT_OPEN_END an open end. See docs/transport.md for the states,
// the lock order and the messages.
#pragma once

#include "ostra/kadefs.h"
#include "ostra/kasmpte.h"

// ---------------------------------------------------------------- multimedia timers
// Process-wide timers run by one timer thread (implemented in platform/). The thread asks
// for the real-time class; KaTimer_IsTimeCritical says whether the system granted it.
typedef UINT MMRESULT;
typedef void (*LPTIMECALLBACK)(UINT timerId, UINT message, DWORD_PTR user, DWORD_PTR reserved1,
                               DWORD_PTR reserved2);
#define TIMERR_NOERROR 0u
#define TIMERR_NOCANDO 97u
#define MMSYSERR_INVALPARAM 11u
#define TIME_ONESHOT 0x0000u
#define TIME_PERIODIC 0x0001u
#define TIME_CALLBACK_FUNCTION 0x0000u
#define TIME_KILL_SYNCHRONOUS 0x0100u

// The timer resolution in ms (1-1000) the caller needs until the matching timeEndPeriod.
OSTRA_API MMRESULT timeBeginPeriod(UINT periodMs) noexcept;
OSTRA_API MMRESULT timeEndPeriod(UINT periodMs) noexcept;
// Starts a one-shot or periodic timer; 0 on failure, else its id. The callback runs on the
// timer thread; one timer's callbacks never overlap.
OSTRA_API MMRESULT timeSetEvent(UINT delayMs, UINT resolutionMs, LPTIMECALLBACK callback,
                                DWORD_PTR user, UINT flags) noexcept;
// Ends a timer. Once it returns the callback is not running and will not run again
// (unless called from that callback itself). MMSYSERR_INVALPARAM for an unknown id.
OSTRA_API MMRESULT timeKillEvent(UINT timerId) noexcept;
// The finest period asked for by live timeBeginPeriod calls (0 when none).
OSTRA_API UINT KaTimer_GetPeriod() noexcept;
// TRUE when the timer thread runs in the real-time class; FALSE when the system refused
// (no privilege), in which case it runs at normal priority.
OSTRA_API BOOL KaTimer_IsTimeCritical() noexcept;

// ---------------------------------------------------------------- semaphores
OSTRA_API HANDLE KaSemaphore_Create(LONG initialCount, LONG maximumCount) noexcept;
// Adds count; FALSE (count unchanged) when the maximum would be passed.
OSTRA_API BOOL KaSemaphore_Release(HANDLE semaphore, LONG count, LONG* previousCount) noexcept;

// ---------------------------------------------------------------- common records
#define KATRANSPORT_OPEN_END ((INT64)0x0FFFFFFFFFFFFFFFLL)

typedef struct KaOpaqueMetric* HKAMETRIC;

// Loop point given to Seek. All bits set in start or length leaves that value unchanged;
// `active` is written back: whether the loop is active at the new position.
struct _tag_looppoint {
  INT64 start;
  INT64 length;
  UINT count;
  UINT active;
};
#define KALOOP_UNCHANGED ((INT64)-1)

// The run description sent with messages 1, 0x4000, 0x4006 and 0x4007 (as DWORD*).
struct KATRANSPORTRUN {
  DWORD size;  // sizeof(KATRANSPORTRUN)
  DWORD flags;
  DWORD state;  // status word when the message was sent
  DWORD reserved;
  INT64 position;
  INT64 end;
};

// The preview description sent with message 0x8001 and given to slots 42 and 43.
struct KATRANSPORTPREVIEW {
  DWORD size;
  DWORD kind;  // 0x400 audio, 0x200 MIDI
  INT64 start;
  INT64 end;
  INT64 take;
  INT64 takeEnd;
  DWORD channels;
  DWORD loop;
  double rate;
};

// Record parameters (slot 61); -1 marks an unset value.
struct KATRANSPORTRECORD {
  DWORD size;
  DWORD flags;
  INT64 position;
  INT64 end;
  INT64 take;
  INT64 takeEnd;
  LONG channels;
  LONG inputChannels;
};

// Formatted position (slot 47). timeFormat 1 ticks, 2 ms, 4 index, 8 record position,
// 16 preview ticks, 32 SMPTE label at `smpte.type`.
struct KATRANSPORTPOSITION {
  DWORD size;
  DWORD timeFormat;
  INT64 ticks;
  INT64 value;
  _smpteval smpte;
};

// Preferences (Transport_SetPrefs / GetPrefs).
struct KATRANSPORTPREFS {
  DWORD size;
  DWORD watchdogMs;  // 0 = off
  double indexRate;  // units per second of the published index
  DWORD handshake;   // non-zero: timer readers never get one index twice
  DWORD reserved;
};

// Metric ids (Transport_SetMetric / GetMetric).
#define KATRANSPORT_METRIC_WORKER_TIMEOUT 1u    // ms, INFINITE while idle
#define KATRANSPORT_METRIC_SLOW_TIMEOUT 2u      // ms
#define KATRANSPORT_METRIC_WATCHDOG 3u          // ms, settable
#define KATRANSPORT_METRIC_WORKER_WAKES 4u      // wakes of the worker since open
#define KATRANSPORT_METRIC_PUBLISHED_INDEX 5u   // last published index
#define KATRANSPORT_METRIC_TIMER_RESOLUTION 6u  // ms given at open

// Status bits (state word OR mode word).
#define KATS_OPEN 0x00000001u
#define KATS_PLAYING 0x00000002u
#define KATS_STOPPING 0x00000004u
#define KATS_MONITORING 0x00000010u
#define KATS_RECORDING 0x00000020u
#define KATS_MIDIPREVIEW 0x00000200u
#define KATS_AUDIOPREVIEW 0x00000400u
#define KATS_PREVIEWSTOPPING 0x00000800u
#define KATS_CHASING 0x00008000u
#define KATS_NOENDTEST 0x0000C000u
#define KATS_EXTSYNC 0x00040000u
#define KATS_SYNCOUT 0x00100000u
#define KATS_SYNCOUTMISSED 0x00200000u

// Run flags: the kind of run in the top bits of the flag word of Start, Stop and Seek.
#define KARUN_SEEKMODE_MASK 0x30000000u  // how a seek reaches the engine
#define KARUN_SYNCGEN_MASK 0xC0000000u   // which sync generator operation a seek calls
#define KARUN_RECORD 0x01000000u         // Start: a record run (0x22)
#define KARUN_MONITOR 0x00800000u        // Start: record monitoring (0x10)

// Messages and reasons.
#define KATM_STARTED 1u
#define KATM_STOPPED 6u
#define KATM_OPENED 9u
#define KATM_SYNCPOSITION 64u
#define KATM_SUSPEND 0x0600u
#define KATM_RESUME 0x0700u
#define KATM_EVENT 0x2000u
#define KATM_SYNCCONTROL 0x2500u
#define KATM_STARTREQUEST 0x4000u
#define KATM_PREPAREPLAY 0x4006u
#define KATM_PREPARERECORD 0x4007u
#define KATM_PREVIEWSTARTED 0x8001u
#define KATM_PREVIEWSTOPPED 0x8006u
#define KATM_MIDIPREVIEWSTOPPED 0x8007u

#define KATRANSPORT_E_ENGINE_STOPPED ((HRESULT)0x8004E0A2u)
#define KATRANSPORT_S_WATCHDOG ((HRESULT)0x0004E00Du)
#define KATRANSPORT_S_NOTHING_TO_STOP ((HRESULT)0x0004E001u)

struct IKATransport;
typedef HRESULT (*KATRANSPORTCALLBACK)(IKATransport* transport, unsigned int message, DWORD* data,
                                       UINT64 context, INT64* position, LONG reason);
// Port enumeration: return FALSE to end early.
typedef BOOL (*KAMIDIPORTENUMPROC)(UINT index, const KAWCHAR* name, void* context);

// ---------------------------------------------------------------- interfaces
// A status and progress display handed to Init.
struct IKaProgress : IUnknown {
  STDMETHOD(SetStatusText)(const KAWCHAR* text) = 0;
  STDMETHOD(SetProgress)(UINT64 done, UINT64 total) = 0;
};
inline constexpr IID IID_IKaProgress = KaGuid("6f1c2a40-53b1-4b8e-9a0e-0d4c7a1e5b01");

// Position timer handed out by the transport: kind 0 the main position, kind 1 the preview.
struct IKATimer : IUnknown {
  // S_FALSE and 0 once the transport is gone.
  STDMETHOD(GetPosition)(INT64* ticks) = 0;
  // ticks / 10000 truncated toward zero.
  STDMETHOD(GetPositionMs)(LONG* ms) = 0;
};
inline constexpr IID IID_IKATimer = KaGuid("6f1c2a40-53b1-4b8e-9a0e-0d4c7a1e5b02");
inline constexpr CLSID CLSID_CKATranspTimer = KaGuid("6f1c2a40-53b1-4b8e-9a0e-0d4c7a1e5b03");

// The reference clock: time in ticks, one-shot advises that set an event and periodic
// advises that release a semaphore.
typedef INT64 REFERENCE_TIME;
struct IReferenceClock : IUnknown {
  STDMETHOD(GetTime)(REFERENCE_TIME* time) = 0;
  STDMETHOD(AdviseTime)
  (REFERENCE_TIME baseTime, REFERENCE_TIME streamTime, HANDLE event, DWORD_PTR* cookie) = 0;
  STDMETHOD(AdvisePeriodic)
  (REFERENCE_TIME startTime, REFERENCE_TIME periodTime, HANDLE semaphore, DWORD_PTR* cookie) = 0;
  STDMETHOD(Unadvise)(DWORD_PTR cookie) = 0;
};
inline constexpr IID IID_IReferenceClock = KaGuid("56a86897-0ad4-11ce-b03a-0020af0ba770");
inline constexpr CLSID CLSID_CKARefClock = KaGuid("6f1c2a40-53b1-4b8e-9a0e-0d4c7a1e5b04");

// The play engine as the transport drives it. The transport holds a reference while the
// engine is attached (slot 4) and calls it from the host's threads and its worker; an
// engine must therefore be free-threaded. See docs/transport.md.
struct IKAPlayEngine : IUnknown {
  // S_OK (0) when the engine has stopped delivering (device lost, stream ended under it);
  // S_FALSE or any other success while it runs or is idle and healthy.
  STDMETHOD(QueryState)() = 0;
  // Position of the current run in ticks; `request` is the caller's request record
  // passed through slot 48 (may be null). rate receives the engine's play rate.
  STDMETHOD(GetPosition)(INT64* ticks, double* rate, const void* request) = 0;
  STDMETHOD(GetBufferDuration)(INT64* ticks) = 0;
  STDMETHOD(Start)(DWORD flags, INT64 position, INT64 end) = 0;
  STDMETHOD(Stop)(DWORD flags, DWORD extra) = 0;
  // end < 0 keeps the end; position < 0 keeps the position.
  STDMETHOD(Seek)(INT64 position, INT64 end) = 0;
  STDMETHOD(SetEnd)(INT64 end) = 0;
  STDMETHOD(SetRate)(double rate) = 0;
  // Preview path (kind 0x400 audio, 0x200 MIDI).
  STDMETHOD(StartPreview)(DWORD kind, const KATRANSPORTPREVIEW* preview) = 0;
  STDMETHOD(StopPreview)(DWORD kind) = 0;
  STDMETHOD(SeekPreview)(DWORD kind, const KATRANSPORTPREVIEW* preview) = 0;
  STDMETHOD(GetPreviewPosition)(DWORD kind, INT64* ticks) = 0;
  // The mixer's clock adjustment applied to a preview position computed from wall time.
  STDMETHOD_(INT64, AdjustPreviewClock)(INT64 ticks) = 0;
  // Record input arming.
  STDMETHOD(ArmInput)(BOOL arm, const KATRANSPORTRECORD* record) = 0;
};
inline constexpr IID IID_IKAPlayEngine = KaGuid("6f1c2a40-53b1-4b8e-9a0e-0d4c7a1e5b05");

// Time-code input (sync control): reports position pairs as its event 16.
struct IKATimeCodeInput : IUnknown {
  STDMETHOD(IsLocked)() = 0;  // S_OK when locked to the source
  STDMETHOD(GetPosition)(INT64* ticks) = 0;
  STDMETHOD(StartChase)() = 0;
  STDMETHOD(StopChase)() = 0;
  STDMETHOD(Rearm)(INT64 position) = 0;
  // Delivers an event as the receiver would (event 16: a new position pair).
  STDMETHOD(PostEvent)(DWORD event, INT64 first, INT64 second) = 0;
};
inline constexpr IID IID_IKATimeCodeInput = KaGuid("6f1c2a40-53b1-4b8e-9a0e-0d4c7a1e5b06");

// Time-code output (sync generator).
struct IKATimeCodeOutput : IUnknown {
  STDMETHOD(Locate)(INT64 position) = 0;        // first positioning operation
  STDMETHOD(LocateAndCue)(INT64 position) = 0;  // second positioning operation
  STDMETHOD(Run)(BOOL run) = 0;
  // The count in ms, never below the last value sent.
  STDMETHOD_(DWORD, GetMillisec)() = 0;
  // Period and resolution of the output's timer, the cap of the count, the jump limit
  // (0 = none) in ms.
  STDMETHOD(Configure)(UINT periodMs, UINT resolutionMs, DWORD maximumMs, DWORD jumpLimitMs) = 0;
};
inline constexpr IID IID_IKATimeCodeOutput = KaGuid("6f1c2a40-53b1-4b8e-9a0e-0d4c7a1e5b07");

// The transport. Slots in order; the comment at each names its number.
struct IKATransport : IUnknown {
  /* 3 */ STDMETHOD(QueryInternalInterface)(REFIID riid, void** object) = 0;
  /* 4 */ STDMETHOD(SetPlayEngine)(IKAPlayEngine* engine) = 0;
  /* 5 */ STDMETHOD(SetSink)(IUnknown* sink) = 0;
  /* 6 */ STDMETHOD(Open)(DWORD* resolutionMs, DWORD secondPeriodMs, DWORD openFlags,
                          DWORD mixerFlags, KATRANSPORTCALLBACK callback, UINT64 context,
                          HKAMETRIC metric, IKaProgress* progress) = 0;
  /* 7 */ STDMETHOD(Close)() = 0;
  /* 8 */ STDMETHOD(GetTimer)(DWORD kind, IKATimer** timer) = 0;
  /* 9 */ STDMETHOD(GetRefClock)(IReferenceClock** clock) = 0;
  /* 10 */ STDMETHOD(SetClientContext)(KATRANSPORTCALLBACK callback, UINT64 context) = 0;
  /* 11 */ STDMETHOD(SetWatchdog)(DWORD limitMs) = 0;
  /* 12 */ STDMETHOD(Enable)(DWORD enable) = 0;
  /* 13 */ STDMETHOD(SetCurrentPos)(INT64 position) = 0;
  /* 14 */ STDMETHOD(SetTempo)(double tempo) = 0;
  /* 15 */ STDMETHOD(SetOffset)(INT64 offset) = 0;
  /* 16 */ STDMETHOD(EnumMIDIIn)(KAMIDIPORTENUMPROC proc, void* context) = 0;
  /* 17 */ STDMETHOD(EnumMIDIOut)(KAMIDIPORTENUMPROC proc, void* context) = 0;
  /* 18 */ STDMETHOD(CanEnableExternalSync)(DWORD kind) = 0;
  /* 19 */ STDMETHOD(EnableExternalSync)(BOOL on, DWORD kind) = 0;
  /* 20 */ STDMETHOD(CanGenerateSync)(DWORD kind) = 0;
  /* 21 */ STDMETHOD(GenerateSync)(BOOL on, DWORD kind) = 0;
  /* 22 */ STDMETHOD(PrepareRun)(BOOL record, KATRANSPORTRUN* run) = 0;
  /* 23 */ STDMETHOD(GetSMPTE_MTC)(DWORD kind, _smpteval* label) = 0;
  /* 24 */ STDMETHOD(RequestStart)(DWORD flags, INT64 position) = 0;
  /* 25 */ STDMETHOD(ArmRecord)(BOOL arm, const KATRANSPORTRECORD* record) = 0;
  /* 26 */ STDMETHOD(PostEvent)(DWORD* data, INT64* position) = 0;
  /* 27 */ STDMETHOD(ResumeListenForSync)() = 0;
  /* 28 */ STDMETHOD(ToggleListenToMTC)(BOOL listen) = 0;
  /* 29 */ STDMETHOD(ToggleGenerateMTC)() = 0;
  /* 30 */ STDMETHOD(ToggleGenerateMIDI)() = 0;
  /* 31 */ STDMETHOD(SetPrefs)(const KATRANSPORTPREFS* prefs) = 0;
  /* 32 */ STDMETHOD(GetPrefs)(KATRANSPORTPREFS* prefs) = 0;
  /* 33 */ STDMETHOD(StopPlay)(DWORD flags) = 0;
  /* 34 */ STDMETHOD(Seek)(DWORD flags, INT64 position, INT64 end, DWORD timeFormat,
                           _tag_looppoint* loop) = 0;
  /* 35 */ STDMETHOD(Start)(DWORD flags, INT64 position) = 0;
  /* 36 */ STDMETHOD(Stop)(DWORD flags, DWORD mask, DWORD extra) = 0;
  /* 37 */ STDMETHOD(SetRate)(double rate, DWORD flags) = 0;
  /* 38 */ STDMETHOD(GetRate)(double* rate) = 0;
  /* 39 */ STDMETHOD(StartPreview)(INT64 start, INT64 end, BOOL loop, double rate) = 0;
  /* 40 */ STDMETHOD(StartMIDIPreview)(INT64 start, INT64 end, BOOL loop, double rate) = 0;
  /* 41 */ STDMETHOD(StopPreview)(DWORD flags) = 0;
  /* 42 */ STDMETHOD(SeekPreview)(INT64 start, INT64 end, const KATRANSPORTPREVIEW* preview) = 0;
  /* 43 */ STDMETHOD(SeekMIDIPreview)(INT64 start, INT64 end,
                                      const KATRANSPORTPREVIEW* preview) = 0;
  /* 44 */ STDMETHOD(StopMIDIPreview)(DWORD flags) = 0;
  /* 45 */ STDMETHOD(SetMetric)(DWORD id, INT64 value) = 0;
  /* 46 */ STDMETHOD(GetMetric)(DWORD id, INT64* value) = 0;
  /* 47 */ STDMETHOD(GetFormattedPosition)(KATRANSPORTPOSITION* position) = 0;
  /* 48 */ STDMETHOD(GetPosition)(INT64* position, const void* request, DWORD timeFormat) = 0;
  /* 49 */ STDMETHOD(GetStatus)(DWORD* status) = 0;
  /* 50 */ STDMETHOD(CompletePreviewStop)(DWORD flags) = 0;
  /* 51 */ STDMETHOD(Reserved51)() = 0;
  /* 52 */ STDMETHOD(Reserved52)() = 0;
  /* 53 */ STDMETHOD(Reserved53)() = 0;
  /* 54 */ STDMETHOD(Reserved54)() = 0;
  /* 55 */ STDMETHOD(Reserved55)() = 0;
  /* 56 */ STDMETHOD(SetIndexRate)(double unitsPerSecond) = 0;
  /* 57 */ STDMETHOD(Reserved57)() = 0;
  /* 58 */ STDMETHOD(Reserved58)() = 0;
  /* 59 */ STDMETHOD(SetLength)(INT64 length) = 0;
  /* 60 */ STDMETHOD(GetLength)(INT64* length) = 0;
  /* 61 */ STDMETHOD(SetRecordParameters)(const KATRANSPORTRECORD* record) = 0;
  /* 62 */ STDMETHOD(Reserved62)() = 0;
  /* 63 */ STDMETHOD(SetPreviewLength)(INT64 length) = 0;
};
inline constexpr IID IID_IKATransport = KaGuid("6f1c2a40-53b1-4b8e-9a0e-0d4c7a1e5b00");

// Open flags selecting the time-code objects.
#define KATRANSPORT_OPEN_SYNCIN_MASK 0x30000000u
#define KATRANSPORT_OPEN_SYNCOUT_MASK 0xC0000000u

// Creates a transport (not yet open) with one reference.
OSTRA_API HRESULT KaAudio_CreateTransport(IKATransport** transport) noexcept;

// ---------------------------------------------------------------- the mixer
// Initialises the process-wide play engine with the mixer flags and the metric.
OSTRA_API HRESULT Mixer_Init(DWORD mixerFlags, HKAMETRIC metric) noexcept;
// The process-wide play engine Mixer_Init set up (with a reference), or null. Transport_Init
// attaches it to the transport.
OSTRA_API IKAPlayEngine* Mixer_GetEngine() noexcept;
// Installs the engine Mixer_Init hands out (null removes it); for hosts and tests that
// bring their own engine. Takes a reference.
OSTRA_API void Mixer_SetEngine(IKAPlayEngine* engine) noexcept;

// ---------------------------------------------------------------- the flat API
OSTRA_API HRESULT Transport_Init(KATRANSPORTCALLBACK callback, UINT64 context, DWORD openFlags,
                                 DWORD mixerFlags, HKAMETRIC metric,
                                 IKaProgress* progress) noexcept;
OSTRA_API HRESULT Transport_Cleanup() noexcept;
OSTRA_API HRESULT Transport_SetClientContext(KATRANSPORTCALLBACK callback, UINT64 context) noexcept;
OSTRA_API HRESULT Transport_QueryInternalInterface(REFIID riid, void** object) noexcept;
OSTRA_API HRESULT Transport_SetAppGUIThreadID(DWORD threadId) noexcept;
OSTRA_API DWORD Transport_GetAppGUIThreadID() noexcept;
OSTRA_API INT64 Transport_GetRecPos() noexcept;
OSTRA_API INT64 Transport_GetLength() noexcept;
OSTRA_API HRESULT Transport_SetLength(INT64 length) noexcept;
OSTRA_API HRESULT Transport_SetPreviewLength(INT64 length) noexcept;
OSTRA_API INT64 Transport_GetPreviewPos() noexcept;
OSTRA_API DWORD Transport_GetStatus() noexcept;
OSTRA_API HRESULT Transport_SuspendEx() noexcept;
OSTRA_API HRESULT Transport_ResumeEx(BOOL b) noexcept;
OSTRA_API HRESULT Transport_StartRecMonitor(BOOL b) noexcept;
OSTRA_API HRESULT Transport_StopRecMonitor(BOOL b) noexcept;
OSTRA_API HRESULT Transport_Seek(DWORD flags, INT64 position, INT64 end,
                                 _tag_looppoint* loop) noexcept;
OSTRA_API double Transport_GetRate() noexcept;
OSTRA_API HRESULT Transport_SetRate(double rate, DWORD flags) noexcept;
OSTRA_API HRESULT Transport_StartRec(DWORD flags, INT64 position, INT64 end, INT64 take,
                                     INT64 takeEnd, LONG channels, BOOL arm) noexcept;
OSTRA_API HRESULT Transport_StopRec(BOOL a, BOOL b, BOOL c) noexcept;
OSTRA_API HRESULT Transport_StartPreview(INT64 start, INT64 end, BOOL loop, double rate) noexcept;
OSTRA_API HRESULT Transport_StopPreview(DWORD flags, BOOL restartMonitor) noexcept;
OSTRA_API HRESULT Transport_SeekPreview(INT64 start, INT64 end, INT64 take, INT64 takeEnd,
                                        LONG channels) noexcept;
OSTRA_API HRESULT Transport_StartMIDIPreview(INT64 start, INT64 end, BOOL loop,
                                             double rate) noexcept;
OSTRA_API HRESULT Transport_StopMIDIPreview(DWORD flags, BOOL restartMonitor) noexcept;
OSTRA_API HRESULT Transport_SeekMIDIPreview(INT64 start, INT64 end, INT64 take, INT64 takeEnd,
                                            LONG channels) noexcept;
OSTRA_API HRESULT Transport_SetCurrentPos(INT64 position) noexcept;
OSTRA_API HRESULT Transport_SetTempo(double tempo) noexcept;
OSTRA_API HRESULT Transport_SetOffset(INT64 offset) noexcept;
OSTRA_API HRESULT Transport_EnumMIDIIn(KAMIDIPORTENUMPROC proc, void* context) noexcept;
OSTRA_API HRESULT Transport_EnumMIDIOut(KAMIDIPORTENUMPROC proc, void* context) noexcept;
OSTRA_API HRESULT Transport_CanEnableExternalSync(DWORD kind) noexcept;
OSTRA_API HRESULT Transport_EnableExternalSync(BOOL on, DWORD kind) noexcept;
OSTRA_API HRESULT Transport_CanGenerateSync(DWORD kind) noexcept;
OSTRA_API HRESULT Transport_GenerateSync(BOOL on, DWORD kind) noexcept;
OSTRA_API HRESULT Transport_GetSMPTE_MTC(DWORD kind, _smpteval* label) noexcept;
OSTRA_API HRESULT Transport_ResumeListenForSync() noexcept;
OSTRA_API HRESULT Transport_ToggleListenToMTC(BOOL listen) noexcept;
OSTRA_API HRESULT Transport_ToggleGenerateMTC() noexcept;
OSTRA_API HRESULT Transport_ToggleGenerateMIDI() noexcept;
OSTRA_API HRESULT Transport_SetPrefs(const KATRANSPORTPREFS* prefs) noexcept;
OSTRA_API HRESULT Transport_GetPrefs(KATRANSPORTPREFS* prefs) noexcept;
OSTRA_API HRESULT Transport_SetMetric(DWORD id, INT64 value) noexcept;
OSTRA_API HRESULT Transport_GetMetric(DWORD id, INT64* value) noexcept;
