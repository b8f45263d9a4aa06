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
