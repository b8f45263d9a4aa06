// RIFF chunk input and output over an open file handle (riff_*). Every function works at
// the handle's current position unless it names an absolute one, keeps no state between
// calls, and returns a result code from ostra/kaerror.h. File positions are the low 32
// bits of the handle's position; a RIFF size above 0xFFFFFFF7 is refused.
#pragma once

#include "ostra/kadefs.h"

// Chunk ids as 32-bit words in file byte order.
inline constexpr DWORD RIFF_ID_RIFF = KaFourCC('R', 'I', 'F', 'F');
inline constexpr DWORD RIFF_ID_LIST = KaFourCC('L', 'I', 'S', 'T');
inline constexpr DWORD RIFF_ID_FMT = KaFourCC('f', 'm', 't', ' ');
inline constexpr DWORD RIFF_ID_DATA = KaFourCC('d', 'a', 't', 'a');
inline constexpr DWORD RIFF_ID_JUNK = KaFourCC('J', 'U', 'N', 'K');
inline constexpr DWORD RIFF_ID_WAVE = KaFourCC('W', 'A', 'V', 'E');
inline constexpr DWORD RIFF_ID_CDDA = KaFourCC('C', 'D', 'D', 'A');
inline constexpr DWORD RIFF_ID_INFO = KaFourCC('I', 'N', 'F', 'O');

// The largest RIFF size word the family writes.
inline constexpr DWORD RIFF_MAX_SIZE = 0xFFFFFFF7u;

// riff_ReadDataAlloc's record: the caller sets size; data receives a locked, zeroed
// global-memory block that the caller unlocks and frees (KaGlobalFreePtr).
struct tRIFFDATA {
  DWORD size;
  void* data;
};

// The 24-byte `fmt ` chunk of a CD-audio track file (form type CDDA).
struct tRIFFCDDA {
  WORD version;
  WORD track;
  DWORD serial;
  DWORD firstSector;
  DWORD lengthSectors;
  BYTE startFrame, startSecond, startMinute, startZero;
  BYTE lengthFrame, lengthSecond, lengthMinute, lengthZero;
};
static_assert(sizeof(tRIFFCDDA) == 24);

// ---------------------------------------------------------------- writing
OSTRA_API HRESULT riff_WriteChunkHeader(KAHFILE file, DWORD id, DWORD size) noexcept;
// Header, data, and a zero pad byte when size is odd; *total = 8 + padded size.
OSTRA_API HRESULT riff_WriteChunk(KAHFILE file, DWORD id, const void* data, DWORD size,
                                  DWORD* total = nullptr) noexcept;
// `LIST`, size as given (the caller counts the 4 type bytes), list type.
OSTRA_API HRESULT riff_WriteListHeader(KAHFILE file, DWORD listType, DWORD size) noexcept;
// `RIFF`, size, form type; only the form type's write decides the result.
OSTRA_API HRESULT riff_WriteFileID(KAHFILE file, DWORD formType, DWORD size) noexcept;

// ---------------------------------------------------------------- reading headers
OSTRA_API HRESULT riff_ReadChunkHeader(KAHFILE file, DWORD* id, DWORD* size) noexcept;
// *size = list size - 4 (the bytes after the type); KAERR_NO_LIST when the id is not LIST.
OSTRA_API HRESULT riff_ReadListHeader(KAHFILE file, DWORD* listType, DWORD* size) noexcept;
// *size = RIFF size - 4; KAERR_NO_RIFF when the id is not RIFF.
OSTRA_API HRESULT riff_ReadFileID(KAHFILE file, DWORD* size = nullptr,
                                  DWORD* formType = nullptr) noexcept;

// ---------------------------------------------------------------- positions
OSTRA_API HRESULT riff_SeekDataStart(KAHFILE file) noexcept;  // absolute 12
OSTRA_API HRESULT riff_SaveLocation(KAHFILE file, DWORD* position) noexcept;
OSTRA_API HRESULT riff_RestoreLocation(KAHFILE file, DWORD position) noexcept;
// Moves forward by size rounded up to even and returns that amount (0xFFFFFFFF moves
// 2^32 bytes and reports 0xFFFFFFFF).
OSTRA_API DWORD riff_SkipChunk(KAHFILE file, DWORD size) noexcept;

// ---------------------------------------------------------------- chunk data
// Reads size bytes, then steps over the pad byte of an odd size.
OSTRA_API HRESULT riff_ReadData(KAHFILE file, void* buffer, DWORD size) noexcept;
// Reads min(a, b) bytes, then skips (a - read) bytes and one more when b is odd.
OSTRA_API HRESULT riff_ReadDataBounded(KAHFILE file, void* buffer, DWORD a, DWORD b) noexcept;
// Reads record->size bytes into a new block. A size larger than what is left in the file
// fails with KAERR_READ_FAILED before anything is allocated.
OSTRA_API HRESULT riff_ReadDataAlloc(KAHFILE file, tRIFFDATA* record) noexcept;

// ---------------------------------------------------------------- the RIFF size word
// Writes size at offset 4; the position is restored.
OSTRA_API HRESULT riff_SetRIFFSize(KAHFILE file, DWORD size) noexcept;
// Adds delta to the RIFF size. A result above RIFF_MAX_SIZE truncates the file to its
// stated size and gives KAERR_RIFF_TOO_LARGE; a result below zero gives E_INVALIDARG
// and leaves the file alone. The position is restored.
OSTRA_API HRESULT riff_UpdateRIFFSize(KAHFILE file, INT64 delta) noexcept;
// *size = RIFF size + 4 (not + 8: kept for the callers that depend on it); leaves the
// handle at offset 12.
OSTRA_API HRESULT riff_GetFileSize(KAHFILE file, DWORD* size = nullptr) noexcept;

// ---------------------------------------------------------------- searching
// Walks chunks from the current position. With a budget (*remaining, bytes), stops with
// KAERR_NOT_FOUND once fewer than 8 remain and stores the leftover; without one the walk
// ends at the first failed read (KAERR_READ_FAILED). On success the handle is at the
// chunk's data and *remaining excludes the matched header but not its data.
OSTRA_API HRESULT riff_FindChunkHeader(KAHFILE file, DWORD id, DWORD* size = nullptr,
                                       DWORD* remaining = nullptr) noexcept;
// The same from the start of the file, within the RIFF size.
OSTRA_API HRESULT riff_FindChunkHeaderInRIFF(KAHFILE file, DWORD id, DWORD* size,
                                             DWORD* remaining) noexcept;
// Finds a LIST of the given type; *size counts the bytes after the type and the handle
// is at the first sub-chunk.
OSTRA_API HRESULT riff_FindListChunk(KAHFILE file, DWORD listType, DWORD* size,
                                     DWORD* remaining) noexcept;
OSTRA_API HRESULT riff_FindListChunkFromStart(KAHFILE file, DWORD listType, DWORD* size) noexcept;
// Counts the chunks within the budget; the position and the budget are left as given.
OSTRA_API HRESULT riff_GetNumListEntries(KAHFILE file, DWORD* count, DWORD* remaining) noexcept;
// Steps over index chunks and stays there.
OSTRA_API HRESULT riff_SeekListEntry(KAHFILE file, DWORD index, DWORD* remaining) noexcept;

// ---------------------------------------------------------------- editing
// Removes the first top-level chunk with that id (or, with isList, the first LIST of that
// type), moves the rest of the file down and lowers the RIFF size.
OSTRA_API HRESULT riff_DeleteChunk(KAHFILE file, DWORD id, DWORD* removed = nullptr,
                                   BOOL isList = FALSE) noexcept;

// ---------------------------------------------------------------- strings
// Writes the text in the ANSI code page with its terminating zero (and a pad byte when
// that count is odd) as chunk data; *written counts every byte written.
OSTRA_API HRESULT riff_WriteANSIString(KAHFILE file, const KAWCHAR* text, DWORD* written) noexcept;
// Reads *count bytes of chunk data as text into buffer (capacity in characters), leaves
// the handle past the chunk and its pad, and adds one to *count.
OSTRA_API HRESULT riff_ReadANSIString(KAHFILE file, KAWCHAR* buffer, DWORD capacity,
                                      DWORD* count) noexcept;

// ---------------------------------------------------------------- checks and CD audio
// Negative size: KAERR_BAD_CHUNK; zero: KAERR_ZERO_CHUNK; otherwise S_OK. The handle and
// the id are not used.
OSTRA_API HRESULT riff_ValidateChunkHeader(KAHFILE file, DWORD id, LONG size) noexcept;
// Reads a CD-audio track file's `fmt ` chunk, from the RIFF header at the position.
OSTRA_API HRESULT riff_ReadRIFFCDDA(KAHFILE file, tRIFFCDDA* record) noexcept;
// Opens a CD-audio track file and reports its track, first sector, start in frames
// (75 per second), length in sectors and disc serial. Outputs are zero on failure.
OSTRA_API HRESULT riff_ReadCDAFile(const KAWCHAR* path, DWORD* track, DWORD* firstSector,
                                   DWORD* startFrames, DWORD* lengthSectors,
                                   DWORD* serial) noexcept;
