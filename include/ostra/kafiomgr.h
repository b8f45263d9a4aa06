// The file I/O plug-in manager: finds the file-format plug-ins named by the configuration
// files beside the kernel, keeps their description in a cache so that a warm start loads
// none of them, and answers which plug-in reads a file. A host makes one manager with
// KaFio_CreateManager, initialises and starts it through IKaFileIOMgrForApp and asks it
// through IKaFileIOManager from any thread. See docs/fileio.md.
#pragma once

#include "ostra/kadefs.h"
#include "ostra/kafileio.h"
#include "ostra/kalist.h"

// Result codes of identification.
#define KAERR_FIO_HOST_FORMAT ((HRESULT)0x8004E033u)  // a format the host opens itself
#define KAERR_FIO_UNSUPPORTED ((HRESULT)0x8004E016u)  // no plug-in reads the file

#define KAFIO_MAX_PATH 1024u
#define KAFIO_MAX_NAME 64u
#define KAFIO_MAX_EXTENSIONS 256u

// One plug-in as the manager knows it: a slot of the plug-in list.
struct KAFIOPLUGINENTRY {
  KAWCHAR name[KAFIO_MAX_NAME];  // its key in "FileIO Plug-Ins"
  KAWCHAR path[KAFIO_MAX_PATH];  // the shared object, absolute
  INT64 modTime;                 // the shared object's modification time when described
  DWORD langId;
  LONG surrogate;                     // -1 in process, else the surrogate that hosts it
  KAWCHAR readerKey[KAFIO_MAX_NAME];  // the configuration's "Reader" text
  LONG readerValue;                   // the integer stored under readerKey (0 when none)
  LONG merit;
  CLSID meritReader;
  BOOL betaBuild;
  KAWCHAR preloadModules[256];
  KAWCHAR dialogName[64];
  CLSID reader;  // zero: no reader class
  KAWCHAR readerExtensions[KAFIO_MAX_EXTENSIONS];
  CLSID renderer;  // zero: no renderer class
  KAWCHAR rendererExtensions[KAFIO_MAX_EXTENSIONS];
  DWORD streamTypeCount;
  KAFIOSTREAMTYPEINFO streamTypes[KAFIO_MAX_STREAMTYPES];
  BOOL fromCache;  // described from the cache in this process, not by loading it
};

// A plug-in the block list remembers: it cost a surrogate process its life. Identification
// passes over it until its file changes or it is unblocked.
struct KAFIOBLOCKED {
  KAWCHAR name[KAFIO_MAX_NAME];
  KAWCHAR path[KAFIO_MAX_PATH];
  INT64 modTime;    // of the plug-in's file when it failed
  char call[32];    // the call that failed ("Open", "Read", ...)
  char reason[16];  // "crashed", "aborted", "hung" or "ended"
};

// How identification found its plug-in.
enum KAFIOPASS : DWORD {
  KAFIO_PASS_NONE = 0,
  KAFIO_PASS_SIGNATURE = 1,
  KAFIO_PASS_EXTENSION = 2,
  KAFIO_PASS_LAST_USED = 3,
  KAFIO_PASS_LIST = 4,
};

// The metadata keys read while identifying (setting 14), in the order of
// KAFIOIDENTIFY::meta.
#define KAFIO_META_KEY_COUNT 9u
OSTRA_API const KAWCHAR* KaFio_GetMetaKey(DWORD index) noexcept;

struct KAFIOIDENTIFY {
  DWORD size;      // sizeof(KAFIOIDENTIFY), set by the caller
  LONG plugin;     // index in the plug-in list, -1 when none
  DWORD pass;      // KAFIOPASS
  DWORD formatId;  // the sniffer's format identifier, 0 when unknown
  HRESULT result;  // as returned
  BOOL metaRead;   // the metadata fields were read
  KAWCHAR meta[KAFIO_META_KEY_COUNT][128];
};

// ---------------------------------------------------------------- enumerators
// COM-style enumerators over a snapshot of the list taken when they were made. Next gives
// S_FALSE when it fetched fewer than asked.
struct IKaFIOPluginEnum : IUnknown {
  STDMETHOD(Next)(ULONG count, KAFIOPLUGINENTRY* entries, ULONG* fetched) = 0;
  STDMETHOD(Skip)(ULONG count) = 0;
  STDMETHOD(Reset)() = 0;
  STDMETHOD(Clone)(IKaFIOPluginEnum** clone) = 0;
};
// Reader (renderer) classes of the plug-ins that have one, in list order, each wrapped in
// its Blanket wrapper; the plug-in is loaded when its class is fetched.
struct IKaReaderEnum : IUnknown {
  STDMETHOD(Next)(ULONG count, IKaReadFileClass** classes, ULONG* fetched) = 0;
  STDMETHOD(Skip)(ULONG count) = 0;
  STDMETHOD(Reset)() = 0;
  STDMETHOD(Clone)(IKaReaderEnum** clone) = 0;
};
struct IKaRendererEnum : IUnknown {
  STDMETHOD(Next)(ULONG count, IKaRenderFileClass** classes, ULONG* fetched) = 0;
  STDMETHOD(Skip)(ULONG count) = 0;
  STDMETHOD(Reset)() = 0;
  STDMETHOD(Clone)(IKaRendererEnum** clone) = 0;
};
// The file types the plug-ins read and write: one item per extension and plug-in.
struct KAFIOFILETYPE {
  KAWCHAR extension[32];  // without the dot, lower case
  DWORD plugin;           // index in the plug-in list
  BOOL reader;
  BOOL renderer;
};
struct IKaFileIOTypeEnum : IUnknown {
  STDMETHOD(Next)(ULONG count, KAFIOFILETYPE* types, ULONG* fetched) = 0;
  STDMETHOD(Skip)(ULONG count) = 0;
  STDMETHOD(Reset)() = 0;
  STDMETHOD(Clone)(IKaFileIOTypeEnum** clone) = 0;
};

// ---------------------------------------------------------------- the manager
// What the host asks. IdentifyFileType sits in slot 35; the unused slots before it answer
// E_NOTIMPL and keep their places.
struct IKaFileIOManager : IUnknown {
  STDMETHOD(GetPluginCount)(DWORD* count) = 0;  // 3
  // The list itself: a tKALIST whose slots point to KAFIOPLUGINENTRY records. It does not
  // change after Start; the manager owns it.
  STDMETHOD(GetPluginList)(const tKALIST** list) = 0;                   // 4
  STDMETHOD(GetPluginEntry)(DWORD index, KAFIOPLUGINENTRY* entry) = 0;  // 5
  // The index of the plug-in with this name (case-insensitive); KAERR_NOT_FOUND.
  STDMETHOD(FindPlugin)(const KAWCHAR* name, DWORD* index) = 0;  // 6
  STDMETHOD(EnumPlugins)(IKaFIOPluginEnum** enumerator) = 0;     // 7
  STDMETHOD(EnumReaders)(IKaReaderEnum** enumerator) = 0;        // 8
  STDMETHOD(EnumRenderers)(IKaRendererEnum** enumerator) = 0;    // 9
  STDMETHOD(EnumFileTypes)(IKaFileIOTypeEnum** enumerator) = 0;  // 10
  // The plug-in's classes, wrapped; E_NOINTERFACE when it has none of that kind.
  STDMETHOD(GetReaderClass)(DWORD index, IKaReadFileClass** readerClass) = 0;        // 11
  STDMETHOD(GetRendererClass)(DWORD index, IKaRenderFileClass** rendererClass) = 0;  // 12
  // Identifies the file and returns the reader that opened it, wrapped, with the plug-in's
  // index (may be null).
  STDMETHOD(CreateReaderForPath)
  (const KAWCHAR* path, DWORD flags, IKaReadFile** reader, LONG* plugin) = 0;  // 13
  // A renderer of the first plug-in (by merit) whose renderer writes the extension.
  STDMETHOD(CreateRendererForExtension)
  (const KAWCHAR* extension, IKaRenderFile** renderer, LONG* plugin) = 0;  // 14
  // The plug-in that identified the previous file, -1 before the first.
  STDMETHOD(GetLastUsedReader)(LONG* plugin) = 0;  // 15
  // Out-of-process hosting: the surrogate program and the plug-ins it hosts.
  // Starts surrogate `index` (once; S_FALSE when it runs already) and returns its process
  // handle, owned by the manager. POSIX has no thread handle: *thread is null. A system
  // failure comes back as its HRESULT; see docs/surrogate.md.
  STDMETHOD(StartSurrogate)(LONG index, HANDLE* process, HANDLE* thread) = 0;  // 16
  // The block list's remembered plug-ins: those that crashed, aborted or hung in a
  // surrogate. S_FALSE past the last.
  STDMETHOD(GetBlockedPlugin)(DWORD index, struct KAFIOBLOCKED* blocked) = 0;  // 17
  // Forgets the plug-in with this name (null: every one); KAERR_NOT_FOUND.
  STDMETHOD(UnblockPlugin)(const KAWCHAR* name) = 0;  // 18
  STDMETHOD(Reserved19)() = 0;
  STDMETHOD(Reserved20)() = 0;
  STDMETHOD(Reserved21)() = 0;
  STDMETHOD(Reserved22)() = 0;
  STDMETHOD(Reserved23)() = 0;
  STDMETHOD(Reserved24)() = 0;
  STDMETHOD(Reserved25)() = 0;
  STDMETHOD(Reserved26)() = 0;
  STDMETHOD(Reserved27)() = 0;
  STDMETHOD(Reserved28)() = 0;
  STDMETHOD(Reserved29)() = 0;
  STDMETHOD(Reserved30)() = 0;
  STDMETHOD(Reserved31)() = 0;
  STDMETHOD(Reserved32)() = 0;
  STDMETHOD(Reserved33)() = 0;
  STDMETHOD(Reserved34)() = 0;
  // Which plug-in reads the open file (its head is read; the position is kept). result may
  // be null. S_OK, KAERR_FIO_HOST_FORMAT, KAERR_FIO_UNSUPPORTED or the last failure of a
  // plug-in that did not decline.
  STDMETHOD(IdentifyFileType)(KAHFILE file, const KAWCHAR* path, KAFIOIDENTIFY* result) = 0;  // 35
  // The same without the host-format check and the signature pass.
  STDMETHOD(IdentifyFileTypeSlow)(KAHFILE file, const KAWCHAR* path, KAFIOIDENTIFY* result) = 0;
};

// Called for every log line the manager writes (UTF-8, without a line end).
typedef void (*KAFIOLOGSINK)(void* context, DWORD level, const char* source, int line,
                             const char* text);

#define KAFIO_INIT_BESIDE_MODULE 0x40u  // cache and metrics files beside the module

struct KAFIOMGRINIT {
  DWORD size;   // sizeof(KAFIOMGRINIT)
  DWORD flags;  // KAFIO_INIT_*
  // The host's folder under the user's cache and configuration folders ("ostra" when null).
  const KAWCHAR* hostSubPath;
  // The module beside which the configuration files, the fallback cache and metrics files
  // and the block list live; null: the kernel's own shared object.
  const KAWCHAR* modulePath;
  // File names of plug-in shared objects to leave out (compared without regard to case).
  const KAWCHAR* const* exclude;
  DWORD excludeCount;
};

// What the application that owns the manager does with it.
struct IKaFileIOMgrForApp : IUnknown {
  // Fixes the file names; once, before Start.
  STDMETHOD(Initialize)(const KAFIOMGRINIT* init) = 0;
  // Builds the plug-in list (the scan). A second call does nothing.
  STDMETHOD(Start)() = 0;
  // Builds the list again ignoring the cache, loading every plug-in and caching it anew.
  // Not while other threads use the manager.
  STDMETHOD(Rescan)() = 0;
  STDMETHOD(GetCacheFileName)(KAWCHAR* buffer, DWORD chars) = 0;
  STDMETHOD(GetMetricsFileName)(KAWCHAR* buffer, DWORD chars) = 0;
  // TRUE when the cache and metrics files are beside the module (asked for, or because
  // the user's folders could not be used).
  STDMETHOD(IsUsingFallbackFiles)(BOOL* fallback) = 0;
  // Where the log lines go (null: nowhere). Set before Start to see the scan's lines.
  STDMETHOD(SetLogSink)(KAFIOLOGSINK sink, void* context) = 0;
};

inline constexpr IID IID_IKaFileIOManager = KaGuid("6A2F6C10-3B1E-4C52-9B6A-0F1E2D3C4B10");
inline constexpr IID IID_IKaFileIOMgrForApp = KaGuid("6A2F6C10-3B1E-4C52-9B6A-0F1E2D3C4B11");
inline constexpr IID IID_IKaFIOPluginEnum = KaGuid("6A2F6C10-3B1E-4C52-9B6A-0F1E2D3C4B12");
inline constexpr IID IID_IKaReaderEnum = KaGuid("6A2F6C10-3B1E-4C52-9B6A-0F1E2D3C4B13");
inline constexpr IID IID_IKaRendererEnum = KaGuid("6A2F6C10-3B1E-4C52-9B6A-0F1E2D3C4B14");
inline constexpr IID IID_IKaFileIOTypeEnum = KaGuid("6A2F6C10-3B1E-4C52-9B6A-0F1E2D3C4B15");

// A new manager (CKaFileIOManager) queried for riid.
OSTRA_API HRESULT KaFio_CreateManager(REFIID riid, void** manager) noexcept;

// ---------------------------------------------------------------- settings
// The file-I/O metric store: values set in this process, else the "Metrics" section of the
// metrics file of the last manager initialised, else the default. The manager reads
// 83 (log verbosity: 0 none, 1 decisions, 2 also bypassed plug-ins; default 1),
// 10 (a bypass reported as "Yes-Blacklisted" rather than "Yes-Internal Pref"; off),
// 13 (trust the cache; on), 81 (the list pass; on), 14 (read the metadata fields while
// identifying; on) and 12 (consult the block list; off).
#define KAFIO_METRIC_LOG_VERBOSITY 83u
#define KAFIO_METRIC_REPORT_BLOCKED 10u
#define KAFIO_METRIC_USE_CACHE 13u
#define KAFIO_METRIC_LIST_PASS 81u
#define KAFIO_METRIC_READ_META 14u
#define KAFIO_METRIC_BLOCK_LIST 12u
// The time a surrogate may take for one call before it counts as hung, in milliseconds
// (default 15000).
#define KAFIO_METRIC_SURROGATE_TIMEOUT 84u
OSTRA_API INT KaFio_GetMetric(DWORD id) noexcept;
OSTRA_API BOOL KaFio_GetMetricBool(DWORD id) noexcept;
// Sets a value for this process (not written to the file); KaFio_ResetMetrics forgets
// every value set.
OSTRA_API void KaFio_SetMetric(DWORD id, INT value) noexcept;
OSTRA_API void KaFio_ResetMetrics() noexcept;

// ---------------------------------------------------------------- the format sniffer
// Recognises a media format from the head of a file: the format identifier (see
// docs/fileio.md for the numbering) or 0, and a short name for people.
OSTRA_API DWORD KaFio_SniffFormat(const void* head, DWORD bytes) noexcept;
OSTRA_API const char* KaFio_GetFormatName(DWORD formatId) noexcept;
