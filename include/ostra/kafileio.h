// File-format plug-ins: the reader and renderer interfaces a plug-in implements, and the
// wrappers (the Blanket family) through which every object that comes from a plug-in is
// used from any thread of the host.
//
// Interfaces are COM-style: IUnknown first, methods in slot order, which never changes;
// identifiers are the GUID constants below. Positions are 100-nanosecond ticks, audio is
// interleaved and described by a _kawaveformat, video frames by a BITMAPINFOHEADER whose
// biCompression is a pixel layout of kayuv.h or 0 for a 32-bit bitmap.
#pragma once

#include "ostra/kaaudio.h"
#include "ostra/kadefs.h"
#include "ostra/kadib.h"

// A reader that does not read a file declines with one of these; identification then
// asks the next plug-in.
#define KAERR_FIO_DECLINED ((HRESULT)0x8004E086u)
#define KAERR_FIO_NOT_MINE ((HRESULT)0x8004E047u)

enum KAFIOSTREAMTYPE : DWORD {
  KAFIO_STREAM_AUDIO = 1,
  KAFIO_STREAM_VIDEO = 2,
  KAFIO_STREAM_TEXT = 3,
};

struct IKaReadStream;
struct IKaReadMeta;

// ---------------------------------------------------------------- streams
// The byte-stream contract plug-ins and the manager exchange data through (the platform's
// IStream in slot order): sequential reads and writes at a seek pointer, 64-bit seeks
// from the start, the current position or the end, a size, and a clone with its own
// pointer over the same bytes.
#define STREAM_SEEK_SET 0u
#define STREAM_SEEK_CUR 1u
#define STREAM_SEEK_END 2u
#define STGTY_STREAM 2u

struct KASTATSTG {
  KAWCHAR* name;  // null unless asked for; free with KaGlobalFreePtr
  DWORD type;     // STGTY_STREAM
  UINT64 size;
};

struct ISequentialStream : IUnknown {
  STDMETHOD(Read)(void* buffer, ULONG bytes, ULONG* read) = 0;
  STDMETHOD(Write)(const void* buffer, ULONG bytes, ULONG* written) = 0;
};

struct IStream : ISequentialStream {
  STDMETHOD(Seek)(INT64 move, DWORD origin, UINT64* position) = 0;
  STDMETHOD(SetSize)(UINT64 size) = 0;
  STDMETHOD(CopyTo)(IStream* to, UINT64 bytes, UINT64* read, UINT64* written) = 0;
  STDMETHOD(Commit)(DWORD flags) = 0;
  STDMETHOD(Revert)() = 0;
  STDMETHOD(LockRegion)(UINT64 offset, UINT64 bytes, DWORD type) = 0;
  STDMETHOD(UnlockRegion)(UINT64 offset, UINT64 bytes, DWORD type) = 0;
  STDMETHOD(Stat)(KASTATSTG* stat, DWORD flags) = 0;
  STDMETHOD(Clone)(IStream** clone) = 0;
};

inline constexpr IID IID_ISequentialStream = KaGuid("0C733A30-2A1C-11CE-ADE5-00AA0044773D");
inline constexpr IID IID_IStream = KaGuid("0000000C-0000-0000-C000-000000000046");

// A stream over a file (CKaFileStream): `writable` opens it for reading and writing,
// creating it when missing. STATFLAG_NONAME (1) in Stat leaves the name out.
OSTRA_API HRESULT KaFio_CreateFileStream(const KAWCHAR* path, BOOL writable,
                                         IStream** stream) noexcept;
// A stream over a copy of `bytes` (CKaMemStream), growing as it is written.
OSTRA_API HRESULT KaFio_CreateMemStream(const void* bytes, UINT64 size, IStream** stream) noexcept;
// A stream over UTF-16 text (CKaTextStream): its bytes are the text's code units,
// little-endian, without a terminator; read-only.
OSTRA_API HRESULT KaFio_CreateTextStream(const KAWCHAR* text, IStream** stream) noexcept;

// A view a host hands to a plug-in over bytes it owns (CKaProtectedStream): the window
// [offset, offset + length) of another stream, seen as a stream of its own that starts at
// 0 and ends at the window's end. It never grows, is read-only unless the host grants
// writes inside the window, and can be revoked: from then on the stream and all its clones
// answer KAERR_CLOSED and the inner stream is released, whatever references a plug-in
// kept. Calls on the stream and its clones are serialised, so any thread may make them.
// The window moves the inner stream's seek pointer: a host that goes on using the inner
// stream itself hands over a clone of it.
#define KAFIO_PROTECT_WRITE 0x1u           // writes inside the window are allowed
#define KAFIO_PROTECT_TO_END (~UINT64(0))  // as length: up to the inner stream's end

struct IKaProtectedStream : IStream {
  // Where the window lies in the inner stream, and its KAFIO_PROTECT_* flags.
  STDMETHOD(GetWindow)(UINT64* offset, UINT64* length, DWORD* flags) = 0;
  // Withdraws access from this stream and every clone of it; a call in progress finishes
  // first. Revoking twice is S_FALSE.
  STDMETHOD(Revoke)() = 0;
};

inline constexpr IID IID_IKaProtectedStream = KaGuid("6A2F6C10-3B1E-4C52-9B6A-0F1E2D3C4B0D");

// E_INVALIDARG for unknown flags or a window that does not lie inside the inner stream as
// it is now; a failure of the inner stream's Stat is returned as it is.
OSTRA_API HRESULT KaFio_CreateProtectedStream(IStream* inner, UINT64 offset, UINT64 length,
                                              DWORD flags, IKaProtectedStream** stream) noexcept;

// ---------------------------------------------------------------- media samples
// A block of media data on its way from a reader to the host (CKAMediaSample): a buffer
// of fixed capacity, 64-byte aligned, with the length of the valid data, its presentation
// time in ticks, its position in the stream's own units (audio frames, video frames), the
// flags below, and the format when it changed with this sample. Every method may be
// called from any thread; the bytes belong to whoever holds the sample.
#define KAMS_SYNCPOINT 0x1u      // decodable on its own (a key frame)
#define KAMS_DISCONTINUITY 0x2u  // the first sample after a seek or a gap
#define KAMS_PREROLL 0x4u        // decoded ahead of the position asked for; not presented
#define KAMS_MAX_BYTES (1u << 30)
#define KAMS_MAX_FORMAT_BYTES 65536u

struct IKAMediaSample : IUnknown {
  // The buffer; a pending deferred zero fill is done first.
  STDMETHOD(GetPointer)(BYTE** buffer) = 0;
  STDMETHOD(GetSize)(DWORD* capacity) = 0;
  // Bytes of valid data: at most the capacity (E_INVALIDARG beyond).
  STDMETHOD(GetActualDataLength)(DWORD* length) = 0;
  STDMETHOD(SetActualDataLength)(DWORD length) = 0;
  // Start and end in ticks, end not before start (E_INVALIDARG). Both null clears them; one
  // null is E_POINTER. Get gives S_FALSE and zeros when they are not set.
  STDMETHOD(GetTime)(INT64* start, INT64* end) = 0;
  STDMETHOD(SetTime)(const INT64* start, const INT64* end) = 0;
  // The same for the position in the stream's units.
  STDMETHOD(GetMediaTime)(INT64* start, INT64* end) = 0;
  STDMETHOD(SetMediaTime)(const INT64* start, const INT64* end) = 0;
  // KAMS_* flags; unknown bits are E_INVALIDARG.
  STDMETHOD(GetFlags)(DWORD* flags) = 0;
  STDMETHOD(SetFlags)(DWORD flags) = 0;
  // The format of the data from this sample on: KAFIO_STREAM_AUDIO with a _kawaveformat
  // (dwSize valid bytes, at least 32) or KAFIO_STREAM_VIDEO with a BITMAPINFOHEADER
  // (biSize at least 40) and what follows it, `bytes` in all, at most
  // KAMS_MAX_FORMAT_BYTES. A null format clears it.
  STDMETHOD(SetFormat)(DWORD streamType, const void* format, DWORD bytes) = 0;
  // *needed gets the format's size; a null buffer only asks for it. S_FALSE with type 0
  // when no format is attached, E_INVALIDARG when the buffer is too small.
  STDMETHOD(GetFormat)(DWORD* streamType, void* format, DWORD bytes, DWORD* needed) = 0;
};

// Silence without writing it: a reader marks the first `bytes` of a sample as zeros and
// the actual data length becomes `bytes`; the zeros are written only when somebody asks
// for the buffer. A mixer that sees a deferred fill skips the sample altogether.
struct IDeferZeroFill : IUnknown {
  STDMETHOD(DeferZeroFill)(DWORD bytes) = 0;
  // TRUE while the zeros are owed.
  STDMETHOD(IsZeroFillDeferred)(BOOL* deferred) = 0;
};

inline constexpr IID IID_IKAMediaSample = KaGuid("6A2F6C10-3B1E-4C52-9B6A-0F1E2D3C4B0E");
inline constexpr IID IID_IDeferZeroFill = KaGuid("6A2F6C10-3B1E-4C52-9B6A-0F1E2D3C4B0F");

// A sample of `capacity` bytes (E_INVALIDARG above KAMS_MAX_BYTES), its bytes zero.
OSTRA_API HRESULT KaFio_CreateMediaSample(DWORD capacity, IKAMediaSample** sample) noexcept;

// One stream of an open file.
struct IKaReadStream : IUnknown {
  // KAFIOSTREAMTYPE.
  STDMETHOD(GetStreamType)(DWORD* type) = 0;
  // Length in ticks (-1 when unknown) and the stream's time of its first unit.
  STDMETHOD(GetDuration)(INT64* duration, INT64* start) = 0;
};

struct IKaReadAudioStream : IKaReadStream {
  // The format of the blocks Read delivers; `size` is the caller's buffer.
  STDMETHOD(GetFormat)(_kawaveformat* format, DWORD size) = 0;
  STDMETHOD(GetFrameCount)(UINT64* frames) = 0;
  // Up to `frames` frames from `position` on; *read gets how many (0 at the end).
  STDMETHOD(Read)(UINT64 position, void* buffer, DWORD frames, DWORD* read) = 0;
};

struct IKaReadVideoStream : IKaReadStream {
  // The frame size and layout, and the frame rate as a fraction.
  STDMETHOD(GetFrameFormat)
  (BITMAPINFOHEADER* header, DWORD* rateNumerator, DWORD* rateDenominator) = 0;
  STDMETHOD(GetFrameCount)(UINT64* frames) = 0;
  // The frame at index `frame` in the layout of `header` (bytes as KaYUVImageBytesAndOffsets
  // or the bitmap's size give them) and its time stamp in ticks.
  STDMETHOD(ReadFrame)
  (UINT64 frame, const BITMAPINFOHEADER* header, void* buffer, size_t bytes, INT64* time) = 0;
};

struct IKaReadTextStream : IKaReadStream {
  // The text in force at `time` (UTF-16, terminated), with its start and end.
  STDMETHOD(ReadText)(INT64 time, KAWCHAR* buffer, DWORD chars, INT64* start, INT64* end) = 0;
};

// Descriptive values by key: "Title", "Rotation", "colour_description_present",
// "colour_primaries", "transfer_characteristics", "matrix_coefficients",
// "MasteringDisplay_ColorPrimaries", "MasteringDisplay_Luminance", "colour_range".
struct IKaReadMeta : IUnknown {
  // S_FALSE and an empty text when the file has no value for the key.
  STDMETHOD(GetValue)(const KAWCHAR* key, KAWCHAR* buffer, DWORD chars) = 0;
};

// The project a media file links to (an editor's project that rendered it), if any.
struct IKaReadProjectLinkMeta : IUnknown {
  STDMETHOD(GetProjectPath)(KAWCHAR* buffer, DWORD chars) = 0;
};

// An open reader. Open takes a path; a reader that does not read the file declines with
// KAERR_FIO_DECLINED or KAERR_FIO_NOT_MINE.
struct IKaReadFile : IUnknown {
  STDMETHOD(Open)(const KAWCHAR* path, DWORD flags) = 0;
  STDMETHOD(Close)() = 0;
  STDMETHOD(GetStreamCount)(DWORD* count) = 0;
  // The stream at `index`, queried for riid (IKaReadAudioStream, ...).
  STDMETHOD(GetStream)(DWORD index, REFIID riid, void** stream) = 0;
  // IKaReadMeta or IKaReadProjectLinkMeta; E_NOINTERFACE when the reader has none.
  STDMETHOD(GetMeta)(REFIID riid, void** meta) = 0;
};

// A reader class: what it reads, and a new reader.
struct IKaReadFileClass : IUnknown {
  // Name and extension list ("wav;w64;aif"), UTF-16, terminated.
  STDMETHOD(GetName)(KAWCHAR* buffer, DWORD chars) = 0;
  STDMETHOD(GetExtensions)(KAWCHAR* buffer, DWORD chars) = 0;
  STDMETHOD(GetMerit)(LONG* merit) = 0;
  STDMETHOD(CreateReader)(IKaReadFile** reader) = 0;
};

// A renderer: a new file from formats, blocks written, then finished.
struct IKaRenderFile : IUnknown {
  STDMETHOD(Create)(const KAWCHAR* path, const _kawaveformat* audio, DWORD flags) = 0;
  STDMETHOD(WriteAudio)(const void* buffer, DWORD frames) = 0;
  STDMETHOD(Finish)() = 0;
};

struct IKaRenderFileClass : IUnknown {
  STDMETHOD(GetName)(KAWCHAR* buffer, DWORD chars) = 0;
  STDMETHOD(GetExtensions)(KAWCHAR* buffer, DWORD chars) = 0;
  STDMETHOD(CreateRenderer)(IKaRenderFile** renderer) = 0;
};

// Where an object lives: in the host process, or in a surrogate process.
struct IKaOutOfProcObj : IUnknown {
  // TRUE and the surrogate's index when the object lives in a surrogate.
  STDMETHOD(IsOutOfProcess)(BOOL* outOfProcess, LONG* surrogate) = 0;
  // The wrapped object as registered (for the wrapper family itself and for tests).
  STDMETHOD(GetContext)(UINT64* context) = 0;
  // Proxies fetched so far, one per thread that called (the creating thread needs none).
  STDMETHOD(GetProxyCount)(DWORD* count) = 0;
};

inline constexpr IID IID_IKaReadStream = KaGuid("6A2F6C10-3B1E-4C52-9B6A-0F1E2D3C4B01");
inline constexpr IID IID_IKaReadAudioStream = KaGuid("6A2F6C10-3B1E-4C52-9B6A-0F1E2D3C4B02");
inline constexpr IID IID_IKaReadVideoStream = KaGuid("6A2F6C10-3B1E-4C52-9B6A-0F1E2D3C4B03");
inline constexpr IID IID_IKaReadTextStream = KaGuid("6A2F6C10-3B1E-4C52-9B6A-0F1E2D3C4B04");
inline constexpr IID IID_IKaReadMeta = KaGuid("6A2F6C10-3B1E-4C52-9B6A-0F1E2D3C4B05");
inline constexpr IID IID_IKaReadProjectLinkMeta = KaGuid("6A2F6C10-3B1E-4C52-9B6A-0F1E2D3C4B06");
inline constexpr IID IID_IKaReadFile = KaGuid("6A2F6C10-3B1E-4C52-9B6A-0F1E2D3C4B07");
inline constexpr IID IID_IKaReadFileClass = KaGuid("6A2F6C10-3B1E-4C52-9B6A-0F1E2D3C4B08");
inline constexpr IID IID_IKaRenderFile = KaGuid("6A2F6C10-3B1E-4C52-9B6A-0F1E2D3C4B09");
inline constexpr IID IID_IKaRenderFileClass = KaGuid("6A2F6C10-3B1E-4C52-9B6A-0F1E2D3C4B0A");
inline constexpr IID IID_IKaOutOfProcObj = KaGuid("6A2F6C10-3B1E-4C52-9B6A-0F1E2D3C4B0B");

// Wraps a plug-in object in the Blanket wrapper of the interface `riid` (one of the plug-in
// interfaces above), registering it in the global interface table so that every calling
// thread gets its own proxy, fetched once. `owner` (may be null) is kept referenced for
// the wrapper's life; `context` and `flags` are kept and passed on to child wrappers.
// E_NOINTERFACE for an interface without a wrapper class; the inner object must support
// riid (its QueryInterface is asked).
OSTRA_API HRESULT KaFio_WrapObject(IUnknown* inner, REFIID riid, IUnknown* owner, UINT64 context,
                                   DWORD flags, void** wrapper) noexcept;

// ---------------------------------------------------------------- plug-in modules
// A plug-in shared object exports one C function, named KAFIO_PLUGIN_ENTRY_NAME and of type
// KAFIO_PLUGIN_ENTRY. Given the host's interface version it hands out the module's
// factory: the module's description (classes, merit, stream types) and the class objects
// of its reader and renderer. The host loads a module once and keeps it loaded.
#define KAFIO_PLUGIN_ENTRY_NAME "KaFioPlugin_GetFactory"
#define KAFIO_PLUGIN_API_VERSION 1u
#define KAFIO_MAX_STREAMTYPES 8u

// One kind of stream a plug-in reads or writes. Cached in the section plug-in name + "." +
// name with "Access", "Flags" and "StreamType".
struct KAFIOSTREAMTYPEINFO {
  KAWCHAR name[32];
  LONG access;      // 1 read, 2 write, 3 both
  LONG flags;       // the plug-in's own
  LONG streamType;  // KAFIOSTREAMTYPE
};

struct KAFIOPLUGININFO {
  DWORD size;      // sizeof(KAFIOPLUGININFO), set by the host
  CLSID reader;    // zero when the module has no reader class
  CLSID renderer;  // zero when the module has no renderer class
  LONG merit;      // higher is asked first; 0 is the neutral merit
  BOOL betaBuild;
  KAWCHAR dialogName[64];       // the plug-in's settings dialog, empty when none
  KAWCHAR preloadModules[256];  // ';'-separated paths loaded before the plug-in
  DWORD streamTypeCount;
  KAFIOSTREAMTYPEINFO streamTypes[KAFIO_MAX_STREAMTYPES];
};

struct IKaFioPluginFactory : IUnknown {
  STDMETHOD(GetInfo)(KAFIOPLUGININFO* info) = 0;
  // The class object of clsid (the reader or renderer of GetInfo) queried for riid
  // (IID_IKaReadFileClass or IID_IKaRenderFileClass); REGDB_E_CLASSNOTREG for another.
  STDMETHOD(GetClassObject)(REFCLSID clsid, REFIID riid, void** object) = 0;
};

inline constexpr IID IID_IKaFioPluginFactory = KaGuid("6A2F6C10-3B1E-4C52-9B6A-0F1E2D3C4B0C");

// The entry point's type. E_INVALIDARG when the module does not speak apiVersion.
typedef HRESULT (*KAFIO_PLUGIN_ENTRY)(DWORD apiVersion, IKaFioPluginFactory** factory);

// The class ids of the readers the format table names (the bundled reader of the kernel's
// formats, the general audio reader, the general media reader and the compound media
// reader). A third-party reader has its own class id and is found by extension and list.
inline constexpr CLSID CLSID_KaFioKernelFormatsReader =
    KaGuid("6A2F6C11-0001-4C52-9B6A-0F1E2D3C4B00");
inline constexpr CLSID CLSID_KaFioKernelFormatsRenderer =
    KaGuid("6A2F6C11-0002-4C52-9B6A-0F1E2D3C4B00");
inline constexpr CLSID CLSID_KaFioAudioReader = KaGuid("6A2F6C11-0003-4C52-9B6A-0F1E2D3C4B00");
inline constexpr CLSID CLSID_KaFioMediaReader = KaGuid("6A2F6C11-0004-4C52-9B6A-0F1E2D3C4B00");
inline constexpr CLSID CLSID_KaFioCompoundReader = KaGuid("6A2F6C11-0005-4C52-9B6A-0F1E2D3C4B00");
