// The play engine: a session of clips read from wave, Wave64 and AIFF files, converted to
// 32-bit float, mixed and handed in blocks to an output (null, a wave file, or an audio
// device); varispeed from -4.0 to 4.0; the capture path that records to wave or Wave64
// files; the machine's audio devices; MIDI time code. The engine implements IKAPlayEngine
// (ostra/transport.h), so the transport drives it: give it to Mixer_SetEngine before
// Transport_Init, or to the transport's SetPlayEngine. See docs/engine.md.
//
// Timeline positions in the session records are sample frames at the session's rate; the
// transport's positions are ticks, converted to the nearest frame.
#pragma once

#include "ostra/kadefs.h"
#include "ostra/kasmpte.h"
#include "ostra/transport.h"

// One clip of the session.
struct KAENGINECLIP {
  DWORD size;           // sizeof(KAENGINECLIP)
  const KAWCHAR* path;  // wave, Wave64, AIFF or AIFC file
  INT64 start;          // first frame on the timeline (may be negative)
  INT64 inPoint;        // first frame of the file that plays
  INT64 length;         // frames; -1 = to the end of the file
  float gain;           // linear, 1.0 = unchanged
};

// Session set-up given to KaEngine_Create.
struct KAENGINECONFIG {
  DWORD size;        // sizeof(KAENGINECONFIG)
  DWORD sampleRate;  // 0: the first clip's rate (48000 without clips)
  WORD channels;     // 0: the first clip's channels (2 without clips)
  WORD reserved;
  DWORD blockFrames;  // frames per block handed to the output; 0 = 1024
  DWORD aheadBlocks;  // blocks the disk thread reads ahead; 0 = 16 (at least 2)
};

// What the engine reports (IKAEngineSession::GetInfo).
struct KAENGINEINFO {
  DWORD size;
  DWORD sampleRate;
  WORD channels;
  WORD reserved;
  DWORD blockFrames;
  DWORD deviceBufferFrames;   // the output's own buffer (device outputs), else blockFrames
  INT64 outputLatencyFrames;  // measured by the device where it can say; else 0
  INT64 position;             // timeline frame of the last sample handed to the output
  INT64 framesOut;            // frames handed to the output since the session was created
  UINT64 underruns;           // blocks the output asked for before the disk thread had them
  UINT64 blocksRendered;      // blocks the disk thread has produced
  double rate;
  DWORD finished;        // 1 once the end of the range (or timeline 0 in reverse) played
  DWORD loopPasses;      // times playback wrapped round the loop
  float peak[8];         // highest magnitude per channel since the last GetInfo
  INT64 recordedFrames;  // frames written by the current or last recording
};

// Recording set-up (IKAEngineSession::SetRecordTarget).
#define KAREC_INPUT_DEVICE 0u  // the audio input named by `device` (null: the default)
#define KAREC_INPUT_TONE 1u    // a 997 Hz sine at -20 dBFS, paced by the clock
#define KAREC_INPUT_FILE 2u    // a wave/Wave64/AIFF file, paced by the clock
struct KARECORDTARGET {
  DWORD size;
  DWORD input;            // KAREC_INPUT_*
  const KAWCHAR* source;  // device name or input file; null for the default device / tone
  const KAWCHAR* path;    // the file written
  DWORD container;        // KACONTAINER_WAVE or KACONTAINER_WAVE64 (ostra/kawave.h)
  DWORD sampleType;       // KASAMPLETYPE written: PCM16, PCM24, PCM32 or FLOAT32
  DWORD sampleRate;       // 0: the session's
  WORD channels;          // 0: the session's
  WORD monitor;           // non-zero: the input is also routed to the output
  DWORD headerEveryMs;    // how often the header sizes are rewritten; 0 = 1000
};

// Called on the capture path's thread after every header rewrite (frames on disk).
typedef void (*KARECORDPROGRESS)(INT64 framesOnDisk, void* context);

// The session interface beside IKAPlayEngine on the engine object.
struct IKAEngineSession : IUnknown {
  // Opens the clip's file and adds it. A clip at another rate than the session's plays
  // through a resampler of its own (its length then counts session frames, its in-point
  // file frames); rates more than four times apart and channel counts other than the
  // session's or 1 (a mono clip plays on every channel) give KAERR_UNSUPPORTED_FORMAT;
  // an in-point or length outside the file E_INVALIDARG.
  STDMETHOD(AddClip)(const KAENGINECLIP* clip) = 0;
  STDMETHOD(ClearClips)() = 0;
  // Wraps playback from start + length back to start `repeats` times (0xFFFFFFFF: until
  // stopped), then plays on; length 0 removes the loop.
  STDMETHOD(SetLoop)(INT64 start, INT64 length, UINT repeats) = 0;
  // Chooses the output: "null" (paced by the clock), "null:manual" (driven by Pump),
  // "file:PATH" (a 32-bit float wave file, Wave64 when PATH ends in .w64, written as fast
  // as the disk thread renders; "file64:PATH" is always Wave64), "device" or
  // "device:NAME" (through PortAudio; KAERR_NOT_FOUND without one). The previous
  // output is closed (a file output's header is completed).
  STDMETHOD(SetOutput)(const char* name) = 0;
  STDMETHOD(GetInfo)(KAENGINEINFO* info) = 0;
  // Runs the render callback of a "null:manual" output for `frames` frames on the calling
  // thread; out (may be null) receives them. E_UNEXPECTED for other outputs.
  STDMETHOD(Pump)(float* out, DWORD frames) = 0;
  // Waits until the disk thread holds at least `frames` frames ahead of the output for the
  // current position (or has reached the end of the range); S_FALSE on time-out.
  STDMETHOD(WaitBuffered)(DWORD frames, DWORD timeoutMs) = 0;
  // Where a record run (Start with the input armed through ArmInput) writes.
  STDMETHOD(SetRecordTarget)
  (const KARECORDTARGET* target, KARECORDPROGRESS progress, void* context) = 0;
  // Closes the output and any recording; the engine keeps its clips.
  STDMETHOD(CloseOutput)() = 0;
};
inline constexpr IID IID_IKAEngineSession = KaGuid("6f1c2a40-53b1-4b8e-9a0e-0d4c7a1e5b10");
inline constexpr CLSID CLSID_CKAPlayEngine = KaGuid("6f1c2a40-53b1-4b8e-9a0e-0d4c7a1e5b11");

// Creates an engine (one reference on IKAEngineSession); config may be null.
OSTRA_API HRESULT KaEngine_Create(const KAENGINECONFIG* config,
                                  IKAEngineSession** session) noexcept;

// ---------------------------------------------------------------- devices
struct KAAUDIODEVICE {
  DWORD size;
  DWORD index;
  KAWCHAR name[128];
  KAWCHAR hostApi[32];
  DWORD maxInputChannels;
  DWORD maxOutputChannels;
  double defaultSampleRate;
  double defaultOutputLatency;  // seconds, as the device reports it
  BOOL isDefaultInput;
  BOOL isDefaultOutput;
};
typedef BOOL (*KAAUDIODEVICEPROC)(const KAAUDIODEVICE* device, void* context);
// Lists the audio devices; S_FALSE when there is none (not an error).
OSTRA_API HRESULT KaEngine_EnumAudioDevices(KAAUDIODEVICEPROC proc, void* context) noexcept;

// ---------------------------------------------------------------- MIDI time code
// Quarter frames and full-frame messages for a label of one of the six formats.
// `sink` receives the bytes of each message (1 + 1 bytes for a quarter frame, 10 for a
// full frame).
typedef void (*KAMIDIBYTESINK)(const BYTE* bytes, DWORD count, void* context);
struct IKAMTCGenerator : IUnknown {
  // Sends a full-frame message for the label at `ticks` and restarts the quarter frames.
  STDMETHOD(Locate)(INT64 ticks) = 0;
  // Emits every quarter frame due up to `ticks` (forward only).
  STDMETHOD(Advance)(INT64 ticks) = 0;
};
// format: the _smpteval type (1-6). sink may be null when port names an ALSA sequencer
// port ("client:port") to send to.
OSTRA_API HRESULT KaMTC_CreateGenerator(DWORD format, KAMIDIBYTESINK sink, void* context,
                                        const char* port, IKAMTCGenerator** generator) noexcept;

// MTC reception: feed bytes; every completed label (eight quarter frames, or a full
// frame) is reported with its position in ticks; lock is reported after two consecutive
// labels one frame pair apart.
struct KAMTCLABEL {
  _smpteval label;  // the time the label stands for on arrival of its last quarter frame
  INT64 ticks;
  BOOL locked;
  BOOL fullFrame;
};
typedef void (*KAMTCLABELPROC)(const KAMTCLABEL* label, void* context);
struct IKAMTCReader : IUnknown {
  STDMETHOD(Feed)(const BYTE* bytes, DWORD count) = 0;
  STDMETHOD(IsLocked)() = 0;  // S_OK when locked
  // Reports each label to the time-code input as event 16 (message 64 of the transport).
  STDMETHOD(SetTimeCodeInput)(IKATimeCodeInput* input) = 0;
};
// format: the _smpteval type the sender uses (the rate bits cannot tell 30 from 29.97
// non-drop or 24 from 23.976).
OSTRA_API HRESULT KaMTC_CreateReader(DWORD format, KAMTCLABELPROC proc, void* context,
                                     IKAMTCReader** reader) noexcept;
