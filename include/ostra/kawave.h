// Wave files: header set-up, in-place header rewrite and repair for RIFF wave and
// Wave64; the summary (LIST/INFO and UNFO) and display (DISP) chunks; reading and
// rewriting the format of an existing wave, Wave64, AIFF or AIFC file; locating its
// audio data and listing its chunks. Built on ostra/riff.h, ostra/riff64.h and
// ostra/aiff.h. See docs/wave-files.md.
#pragma once

#include "ostra/kaaudio.h"
#include "ostra/kadefs.h"

// ---------------------------------------------------------------- header set-up
// Headers this family writes: RIFF wave 46 bytes (fmt at 12, data at 38), Wave64 112.
#define KA_WAV_HEADER_LENGTH 46u
#define KA_WAV_MIN_JUNK_HEADER_LENGTH 54u
#define KA_W64_HEADER_LENGTH 112u
#define KA_W64_MIN_JUNK_HEADER_LENGTH 136u

// The chunk GUID of display items in Wave64 files (the wave content GUIDs are
// RIFF64_GUID_* in ostra/riff64.h).
inline constexpr GUID KAGUID_W64_DISP = KaGuid("612CCA25-92BB-4C55-8408-7BDA2F15BD27");

// The plain functions take the 18-byte platform record and write exactly 18 bytes as
// the fmt chunk: a record with extra bytes is refused (KAERR_UNSUPPORTED_FORMAT), as is
// PCM whose block align is not channels x bytes (20 bits counted as 24) and 20-bit PCM.
// The _kawaveformat overloads convert to the plain record first (the channel mask is
// not written). Open modes: CREATE_NEW, CREATE_ALWAYS, TRUNCATE_EXISTING; OPEN_EXISTING
// means TRUNCATE_EXISTING and OPEN_ALWAYS means CREATE_ALWAYS. The file is closed on
// every path; an open failure gives KAERR_OPEN_FAILED.
OSTRA_API HRESULT KaInitializeWav(const KAWCHAR* path, const WAVEFORMATEX* wfx,
                                  DWORD openMode) noexcept;
OSTRA_API HRESULT KaInitializeWav(const KAWCHAR* path, const _kawaveformat* wfx,
                                  DWORD openMode) noexcept;
// headerLength (rounded up to even, at least 54, else E_INVALIDARG): samples start there;
// a JUNK chunk fills the room between fmt and data.
OSTRA_API HRESULT KaInitializeWavWithJunk(const KAWCHAR* path, const WAVEFORMATEX* wfx,
                                          DWORD openMode, DWORD headerLength) noexcept;
OSTRA_API HRESULT KaInitializeWavWithJunk(const KAWCHAR* path, const _kawaveformat* wfx,
                                          DWORD openMode, DWORD headerLength) noexcept;
OSTRA_API HRESULT KaInitializeWav64(const KAWCHAR* path, const WAVEFORMATEX* wfx,
                                    DWORD openMode) noexcept;
OSTRA_API HRESULT KaInitializeWav64(const KAWCHAR* path, const _kawaveformat* wfx,
                                    DWORD openMode) noexcept;
// headerLength rounded up to a multiple of 8, at least 136 (else E_INVALIDARG).
OSTRA_API HRESULT KaInitializeWav64WithJunk(const KAWCHAR* path, const WAVEFORMATEX* wfx,
                                            DWORD openMode, UINT64 headerLength) noexcept;
OSTRA_API HRESULT KaInitializeWav64WithJunk(const KAWCHAR* path, const _kawaveformat* wfx,
                                            DWORD openMode, UINT64 headerLength) noexcept;

// Rewrite the header at offset 0 for dataLength bytes of samples starting at headerLength
// (RIFF: even, 46 or at least 54; Wave64: a multiple of 8, 112 or at least 136; the file
// at least 46 or 112 bytes; else KAERR_BAD_CHUNK). The position is restored.
OSTRA_API HRESULT KaInsertWavHeader(KAHFILE file, const WAVEFORMATEX* wfx, DWORD dataLength,
                                    DWORD headerLength) noexcept;
OSTRA_API HRESULT KaInsertWavHeader(KAHFILE file, const _kawaveformat* wfx, DWORD dataLength,
                                    DWORD headerLength) noexcept;
OSTRA_API HRESULT KaInsertW64Header(KAHFILE file, const WAVEFORMATEX* wfx, UINT64 dataLength,
                                    UINT64 headerLength) noexcept;
OSTRA_API HRESULT KaInsertW64Header(KAHFILE file, const _kawaveformat* wfx, UINT64 dataLength,
                                    UINT64 headerLength) noexcept;

// Repair a file whose header sizes were never written (a crash while recording): the
// format at its usual place is sanity-corrected (wfx, optional, gives the defaults:
// 44100 Hz stereo 16-bit PCM without it), the data chunk is found within
// maxHeaderLength bytes, and the header is rewritten for the rest of the file in whole
// blocks. The position is restored.
OSTRA_API HRESULT KaFixTrashedWav(KAHFILE file, const WAVEFORMATEX* wfx,
                                  DWORD maxHeaderLength) noexcept;
OSTRA_API HRESULT KaFixTrashedWav(KAHFILE file, const _kawaveformat* wfx,
                                  DWORD maxHeaderLength) noexcept;
inline HRESULT KaFixTrashedWav(KAHFILE file, decltype(nullptr), DWORD maxHeaderLength) noexcept {
  return KaFixTrashedWav(file, static_cast<const WAVEFORMATEX*>(nullptr), maxHeaderLength);
}
OSTRA_API HRESULT KaFixTrashedW64(KAHFILE file, const WAVEFORMATEX* wfx,
                                  UINT64 maxHeaderLength) noexcept;
OSTRA_API HRESULT KaFixTrashedW64(KAHFILE file, const _kawaveformat* wfx,
                                  UINT64 maxHeaderLength) noexcept;
inline HRESULT KaFixTrashedW64(KAHFILE file, decltype(nullptr), UINT64 maxHeaderLength) noexcept {
  return KaFixTrashedW64(file, static_cast<const WAVEFORMATEX*>(nullptr), maxHeaderLength);
}

// ---------------------------------------------------------------- summary (INFO / UNFO)
// An item: the four-character sub-chunk id as a 32-bit word in file byte order
// (KaFourCC('I','N','A','M')) and a zero-terminated wide text, or null.
struct _summaryitemtag {
  DWORD id;
  KAWCHAR* text;
};
// count items; the array and every text are separate movable, zero-initialised
// global-memory blocks, locked while the list holds them. Start from {0, nullptr}; free
// with KaSummary_Free.
struct _summarylisttag {
  DWORD count;
  _summaryitemtag* items;
};

inline constexpr DWORD KASUMMARY_INAM = KaFourCC('I', 'N', 'A', 'M');  // title
inline constexpr DWORD KASUMMARY_IART = KaFourCC('I', 'A', 'R', 'T');  // artist
inline constexpr DWORD KASUMMARY_ICOP = KaFourCC('I', 'C', 'O', 'P');  // copyright
inline constexpr DWORD KASUMMARY_ICRD = KaFourCC('I', 'C', 'R', 'D');  // creation date
inline constexpr DWORD KASUMMARY_IGNR = KaFourCC('I', 'G', 'N', 'R');  // genre
inline constexpr DWORD KASUMMARY_ISBJ = KaFourCC('I', 'S', 'B', 'J');  // subject
inline constexpr DWORD KASUMMARY_ISRC = KaFourCC('I', 'S', 'R', 'C');  // source
inline constexpr DWORD KASUMMARY_ICMT = KaFourCC('I', 'C', 'M', 'T');  // comments
inline constexpr DWORD RIFF_ID_UNFO = KaFourCC('U', 'N', 'F', 'O');
inline constexpr DWORD RIFF_ID_DISP = KaFourCC('D', 'I', 'S', 'P');

// Reads the sub-chunks of a LIST/INFO (the handle at its first sub-chunk, *remaining the
// list's bytes after its type) into an empty list; texts are in the ANSI code page.
// A failure frees the list and leaves it empty.
OSTRA_API HRESULT KaSummary_Load(KAHFILE file, _summarylisttag* list,
                                 const DWORD* remaining) noexcept;
// Writes LIST/INFO at the position; nothing for an empty list. *written = bytes written.
OSTRA_API HRESULT KaSummary_Save(KAHFILE file, const _summarylisttag* list,
                                 DWORD* written = nullptr) noexcept;
// The same with UNFO: texts as UTF-16LE with their terminator.
OSTRA_API HRESULT KaSummary_LoadUNFO(KAHFILE file, _summarylisttag* list,
                                     const DWORD* remaining) noexcept;
OSTRA_API HRESULT KaSummary_SaveUNFO(KAHFILE file, const _summarylisttag* list,
                                     DWORD* written = nullptr) noexcept;
// Finds LIST/INFO from the position within *remaining (optional) and copies one item's
// text into buffer (length in characters, terminator included, cut to fit).
OSTRA_API HRESULT KaSummary_GetStringFromFile(KAHFILE file, DWORD id, KAWCHAR* buffer,
                                              DWORD bufferLength, DWORD* remaining) noexcept;
// Index of the first item with the id, or KAERR_NOT_FOUND.
OSTRA_API LONG KaSummary_GetItemIndex(const _summarylisttag* list, DWORD id) noexcept;
OSTRA_API KAWCHAR* KaSummary_GetItemText(const _summarylisttag* list, DWORD id) noexcept;
// Sets or replaces the text of id (an empty text is kept), appends a new id, or with a
// null text deletes the item (an absent id is appended without text, which the save
// functions skip). Id 0 gives E_INVALIDARG.
OSTRA_API HRESULT KaSummary_SetItem(_summarylisttag* list, DWORD id, const KAWCHAR* text) noexcept;
// Deep copy; the destination's previous items are freed first.
OSTRA_API HRESULT KaSummary_Copy(_summarylisttag* dest, const _summarylisttag* src) noexcept;
// TRUE when both exist, have the same count and equal texts position by position
// (both null or equal, case-sensitive); ids are not compared.
OSTRA_API BOOL KaSummary_Compare(const _summarylisttag* a, const _summarylisttag* b) noexcept;
// Adds the source's items to the destination: absent ids are appended, present ones
// replaced only with overwrite. With move the items are moved and the source ends empty;
// without it they are copied and the source is left as it was.
OSTRA_API HRESULT KaSummary_Merge(_summarylisttag* dest, _summarylisttag* src, BOOL overwrite,
                                  BOOL move) noexcept;
OSTRA_API void KaSummary_Free(_summarylisttag* list) noexcept;

// ---------------------------------------------------------------- display list (DISP)
#define KA_CF_TEXT 1
#define KA_CF_DIB 8

// One item: a clipboard format number and its data (a locked global-memory block of
// `size` bytes, or null when empty).
struct _displistitemtag {
  LONG format;
  DWORD size;
  void* data;
};
struct _displisttag {
  DWORD count;
  _displistitemtag* items;
};

// A new list with two empty items: KA_CF_TEXT and KA_CF_DIB. Null when out of memory.
OSTRA_API _displisttag* displist_Create() noexcept;
// Frees the items' data, the array and the list.
OSTRA_API void displist_Destroy(_displisttag* list) noexcept;
// Frees only the items' data; the items stay, empty.
OSTRA_API void displist_Free(_displisttag* list) noexcept;
OSTRA_API _displistitemtag* displist_GetItem(_displisttag* list, LONG format) noexcept;
// Copies size bytes into the item of that format (size 0 or null data empties it).
// Unknown format or out of memory: (HRESULT)0xFFFFFFFF.
OSTRA_API HRESULT displist_SetItem(_displisttag* list, LONG format, DWORD size,
                                   const void* data) noexcept;
// Reads the DISP chunks from the position within *remaining into the items whose format
// they carry; other chunks and other formats are skipped. The position is restored.
OSTRA_API HRESULT displist_Load(KAHFILE file, _displisttag* list, DWORD* remaining) noexcept;
// One DISP chunk per non-empty item; *written = bytes written.
OSTRA_API HRESULT displist_Save(KAHFILE file, const _displisttag* list,
                                DWORD* written = nullptr) noexcept;
// The Wave64 forms: chunks with the display GUID, sizes that count the 24-byte header and
// the pad, 8-byte alignment.
OSTRA_API HRESULT displist64_Load(KAHFILE file, _displisttag* list, INT64* remaining) noexcept;
OSTRA_API HRESULT displist64_Save(KAHFILE file, const _displisttag* list,
                                  UINT64* written = nullptr) noexcept;

// ---------------------------------------------------------------- existing files
// Containers a file can be.
enum KAFILECONTAINER : DWORD {
  KACONTAINER_UNKNOWN = 0,
  KACONTAINER_WAVE = 1,    // RIFF/WAVE
  KACONTAINER_WAVE64 = 2,  // Wave64
  KACONTAINER_AIFF = 3,    // FORM/AIFF
  KACONTAINER_AIFC = 4,    // FORM/AIFC (NONE, twos or sowt)
};

// Reads the format of a wave, Wave64, AIFF or AIFC file into a record held in a buffer of
// bufferSize bytes (at least 32). KAERR_UNSUPPORTED_FILE for other files.
OSTRA_API HRESULT KaGetFileWfx(KAHFILE file, _kawaveformat* wfx, DWORD bufferSize) noexcept;
OSTRA_API HRESULT KaGetFileWfx(const KAWCHAR* path, _kawaveformat* wfx, DWORD bufferSize) noexcept;
// Rewrites the format of such a file in place. The new description must have the size of
// the one in the file (wave, Wave64) or be expressible in COMM (AIFF: 8-bit signed or
// big-endian 16/24/32 bits; AIFC sowt: little-endian PCM); otherwise
// KAERR_UNSUPPORTED_FORMAT and the file is unchanged. Block align must match the bytes
// per frame of the samples already there (KAERR_UNSUPPORTED_FORMAT otherwise).
OSTRA_API HRESULT KaSetFileWfx(KAHFILE file, const _kawaveformat* wfx) noexcept;
OSTRA_API HRESULT KaSetFileWfx(const KAWCHAR* path, const _kawaveformat* wfx) noexcept;

// Where the samples of a file lie.
struct tKAAUDIODATA {
  DWORD container;    // KAFILECONTAINER
  BOOL bigEndian;     // TRUE for AIFF and AIFC other than sowt
  UINT64 offset;      // absolute offset of the first sample byte
  UINT64 size;        // sample bytes the file really holds (stated size cut to the file)
  UINT64 statedSize;  // what the header says (may exceed size in a damaged file)
};
OSTRA_API HRESULT KaGetFileAudioData(KAHFILE file, tKAAUDIODATA* data) noexcept;
OSTRA_API HRESULT KaGetFileAudioData(const KAWCHAR* path, tKAAUDIODATA* data) noexcept;

// ---------------------------------------------------------------- header repair
// A repair that cannot destroy: it changes header bytes only (the ids, the size words and
// the format fields in front of the samples), never a sample byte or anything after the
// samples. KaPlanWavRepair reads a wave or Wave64 file and works out the changes;
// KaApplyWavRepair writes them. A file that cannot be proved to be a wave or Wave64 file
// (its format chunk found and self-consistent, its data chunk found) is refused with the
// cause in the error handler's details, and nothing is written.
//
// What it restores: a damaged "RIFF"/"WAVE" id or Wave64 riff/wave GUID, a damaged
// "fmt " or "data" id (GUID) recognised by what follows it, a damaged format chunk size,
// one damaged field among channels, rate, bytes per second, block size and bits (the
// others vote on it), the format tag where the bits decide it, and the data and
// RIFF/riff sizes from what is really in the file (whole frames; chunks a recorder
// appended after the samples are kept after them).
#define KAREPAIR_MAX_CHANGES 24
struct tKAREPAIRCHANGE {
  UINT64 offset;  // absolute offset of the first byte changed
  DWORD length;   // 1 to 16
  BYTE before[16];
  BYTE after[16];
  char field[28];  // what the bytes are, e.g. "data size", "fmt id"
};
#define KAREPAIR_NOTE_PARTIAL_FRAME 0x1u    // a partial last frame is left outside the data
#define KAREPAIR_NOTE_TRAILING_CHUNKS 0x2u  // chunks after the samples were found and kept
#define KAREPAIR_NOTE_RIFF_LIMIT 0x4u       // more samples than a RIFF file can describe
struct tKAWAVREPAIR {
  DWORD container;  // KACONTAINER_WAVE or KACONTAINER_WAVE64
  UINT64 fileLength;
  UINT64 dataOffset;      // first sample byte (the end of the header)
  UINT64 dataLength;      // sample bytes the repaired header describes (whole frames)
  UINT64 trailingChunks;  // offset of chunks kept after the samples; 0 when none
  DWORD notes;            // KAREPAIR_NOTE_*
  DWORD changeCount;      // 0: the header already agrees with the file
  tKAREPAIRCHANGE changes[KAREPAIR_MAX_CHANGES];
};
// Reads only. S_OK with the plan; KAERR_UNSUPPORTED_FILE (not a wave or Wave64 file),
// KAERR_BAD_FORMAT_CHUNK (format chunk missing or beyond repair), KAERR_NO_DATA_CHUNK or
// KAERR_EMPTY_FILE when refused.
OSTRA_API HRESULT KaPlanWavRepair(KAHFILE file, tKAWAVREPAIR* plan) noexcept;
// Writes the changes of a plan made for this file; each change is written only if the
// bytes there are still its `before` bytes (KAERR_CORRUPT_FILE otherwise, nothing written).
OSTRA_API HRESULT KaApplyWavRepair(KAHFILE file, const tKAWAVREPAIR* plan) noexcept;

// One chunk of a file, in file order. Top-level chunks have depth 0; the sub-chunks of
// RIFF LIST and Wave64 list chunks have depth 1.
struct tKACHUNKINFO {
  char name[5];  // four characters (GUID chunks: the first four bytes, '?' if unprintable)
  BYTE depth;
  GUID guid;       // Wave64 only; zero otherwise
  UINT64 offset;   // absolute offset of the chunk header
  UINT64 size;     // body bytes as stated (header and pad not counted)
  DWORD listType;  // LIST chunks: the list type in file byte order; 0 otherwise
};
// Lists the chunks of a wave, Wave64, AIFF or AIFC file: up to capacity entries go to
// chunks (may be null with capacity 0), *count gets the total, *container the kind. The
// walk stops quietly at the end of the file or at a chunk that runs past it (which is
// still listed); S_FALSE when the list was cut to capacity.
OSTRA_API HRESULT KaGetFileChunks(KAHFILE file, tKACHUNKINFO* chunks, DWORD capacity, DWORD* count,
                                  DWORD* container = nullptr) noexcept;
// The same for a file's bytes in memory (a wave, Wave64, AIFF or AIFC image of `size`
// bytes), through the same walk.
OSTRA_API HRESULT KaGetImageChunks(const void* image, UINT64 size, tKACHUNKINFO* chunks,
                                   DWORD capacity, DWORD* count,
                                   DWORD* container = nullptr) noexcept;
