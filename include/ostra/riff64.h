// Wave64 chunk input and output over an open file handle (riff64_*): the counterpart of
// ostra/riff.h with GUID chunk ids, 64-bit sizes that count their own 24-byte header,
// 64-bit positions and 8-byte alignment, plus a streaming writer for chunks whose length
// is not known in advance:
//   riff64_PrepareChunk / riff64_PrepareList  (remember the start)
//   riff64_WriteToFile / riff64_WriteData     (any number of times)
//   riff64_CompleteChunk(start)               (pads and fixes the size word)
#pragma once

#include "ostra/kadefs.h"
#include "ostra/riff.h"

// Chunk and form GUIDs of Wave64 files, in their standard little-endian byte order. The
// junk GUID's third group is 113D (not 11D3): files carry exactly these bytes.
inline constexpr GUID RIFF64_GUID_RIFF = KaGuid("66666972-912E-11CF-A5D6-28DB04C10000");
inline constexpr GUID RIFF64_GUID_LIST = KaGuid("7473696C-912F-11CF-A5D6-28DB04C10000");
inline constexpr GUID RIFF64_GUID_WAVE = KaGuid("65766177-ACF3-11D3-8CD1-00C04F8EDB8A");
inline constexpr GUID RIFF64_GUID_FMT = KaGuid("20746D66-ACF3-11D3-8CD1-00C04F8EDB8A");
inline constexpr GUID RIFF64_GUID_DATA = KaGuid("61746164-ACF3-11D3-8CD1-00C04F8EDB8A");
inline constexpr GUID RIFF64_GUID_JUNK = KaGuid("6B6E756A-ACF3-113D-8CD1-00C04F8EDB8A");

// Size of a chunk header (GUID + size word); the first sub-chunk starts at 40.
inline constexpr UINT64 RIFF64_HEADER_SIZE = 24;

// ---------------------------------------------------------------- writing
// GUID and dataSize + 24.
OSTRA_API HRESULT riff64_WriteChunkHeader(KAHFILE file, REFGUID id, UINT64 dataSize) noexcept;
// Header, data, zero pad to 8; *total = padded size + 24.
OSTRA_API HRESULT riff64_WriteChunk(KAHFILE file, REFGUID id, const void* data, DWORD size,
                                    UINT64* total = nullptr) noexcept;
// Data and zero pad to 8; *written includes the pad.
OSTRA_API HRESULT riff64_WriteData(KAHFILE file, const void* data, DWORD size,
                                   UINT64* written = nullptr) noexcept;
// `list` GUID, size + 24, list type.
OSTRA_API HRESULT riff64_WriteListHeader(KAHFILE file, REFGUID listType, UINT64 size) noexcept;
// `riff` GUID, size + 24, form; only the form's write decides the result.
OSTRA_API HRESULT riff64_WriteFileID(KAHFILE file, REFGUID formType, UINT64 size) noexcept;

// ---------------------------------------------------------------- reading headers
// *size = size word - 24, clamped at 0.
OSTRA_API HRESULT riff64_ReadChunkHeader(KAHFILE file, GUID* id, UINT64* size) noexcept;
// *size = size word - 40 (clamped at 0), the bytes after the list type.
OSTRA_API HRESULT riff64_ReadListHeader(KAHFILE file, GUID* listType, UINT64* size) noexcept;
// *size = (size word - 24, clamped at 0) - 16: the budget for the chunks after the form.
OSTRA_API HRESULT riff64_ReadFileID(KAHFILE file, INT64* size = nullptr,
                                    GUID* formType = nullptr) noexcept;

// ---------------------------------------------------------------- positions and data
OSTRA_API HRESULT riff64_SeekDataStart(KAHFILE file) noexcept;  // absolute 40
OSTRA_API HRESULT riff64_SaveLocation(KAHFILE file, UINT64* position) noexcept;
OSTRA_API HRESULT riff64_RestoreLocation(KAHFILE file, UINT64 position) noexcept;
// Moves forward by size rounded up to 8 and returns that amount.
OSTRA_API UINT64 riff64_SkipChunk(KAHFILE file, UINT64 size) noexcept;
// Reads size bytes, then skips to the next multiple of 8 of size.
OSTRA_API HRESULT riff64_ReadData(KAHFILE file, void* buffer, DWORD size) noexcept;
// Reads min(a, b) bytes, then skips (a - read) + (b mod 8) bytes: exactly that sum.
OSTRA_API HRESULT riff64_ReadDataBounded(KAHFILE file, void* buffer, DWORD a, DWORD b) noexcept;
// As riff_ReadDataAlloc, with riff64_ReadData.
OSTRA_API HRESULT riff64_ReadDataAlloc(KAHFILE file, tRIFFDATA* record) noexcept;

// ---------------------------------------------------------------- the riff size word
// Writes size + 24 at offset 16; the position is restored.
OSTRA_API HRESULT riff64_SetRIFFSize(KAHFILE file, UINT64 size) noexcept;
// Adds delta to the 64-bit word at offset 16 (no upper limit); the position is restored.
OSTRA_API HRESULT riff64_UpdateRIFFSize(KAHFILE file, INT64 delta) noexcept;

// ---------------------------------------------------------------- searching
// Budgets are signed: a chunk that overruns the budget drives it negative and the next
// step reports KAERR_NOT_FOUND with that value stored. Without a budget a missing chunk
// ends in KAERR_READ_FAILED at the end of the file.
OSTRA_API HRESULT riff64_FindChunkHeader(KAHFILE file, REFGUID id, UINT64* size = nullptr,
                                         INT64* remaining = nullptr) noexcept;
// From the start of the file; *remaining is reported on success and on failure.
OSTRA_API HRESULT riff64_FindChunkHeaderInRIFF(KAHFILE file, REFGUID id, UINT64* size,
                                               INT64* remaining) noexcept;
// *size counts the bytes after the list type; the handle is at the first sub-chunk.
OSTRA_API HRESULT riff64_FindListChunk(KAHFILE file, REFGUID listType, UINT64* size,
                                       INT64* remaining) noexcept;
OSTRA_API HRESULT riff64_FindListChunkFromStart(KAHFILE file, REFGUID listType,
                                                UINT64* size) noexcept;
// Counts the chunks within the budget; the position and the budget are left as given.
OSTRA_API HRESULT riff64_GetNumListEntries(KAHFILE file, DWORD* count, INT64* remaining) noexcept;
OSTRA_API HRESULT riff64_SeekListEntry(KAHFILE file, DWORD index, INT64* remaining) noexcept;

// ---------------------------------------------------------------- editing
// Removes the first top-level chunk with that GUID and moves the rest down. The riff
// size word is lowered as well, but a failure to do so is not reported.
OSTRA_API HRESULT riff64_DeleteChunk(KAHFILE file, REFGUID id, UINT64* removed = nullptr) noexcept;
// A size with any bit of 0x800000007 set: KAERR_BAD_CHUNK; zero: KAERR_ZERO_CHUNK.
OSTRA_API HRESULT riff64_ValidateChunkHeader(KAHFILE file, REFGUID id, UINT64 size) noexcept;

// ---------------------------------------------------------------- streaming writer
// *start = the position; writes the GUID and a size word of 24.
OSTRA_API HRESULT riff64_PrepareChunk(KAHFILE file, REFGUID id, UINT64* start) noexcept;
// *start = the position; writes the `list` GUID, a size word of 24 and the list type.
OSTRA_API HRESULT riff64_PrepareList(KAHFILE file, REFGUID listType, UINT64* start) noexcept;
// Pads to a multiple of 8 from start, writes the size (header and pad included) at
// start + 16 and returns to the end of the chunk.
OSTRA_API HRESULT riff64_CompleteChunk(KAHFILE file, UINT64 start) noexcept;
OSTRA_API HRESULT riff64_WriteChunkToFile(KAHFILE file, REFGUID id, const void* data,
                                          DWORD size) noexcept;
// The position minus start (negative when the handle is before start).
OSTRA_API INT64 riff64_AmountWritten(KAHFILE file, UINT64 start) noexcept;
// Writes zero bytes until (position - start) is a multiple of 8.
OSTRA_API HRESULT riff64_Pad(KAHFILE file, UINT64 start) noexcept;
// One write of size bytes.
OSTRA_API HRESULT riff64_WriteToFile(KAHFILE file, const void* data, DWORD size) noexcept;

// Kept for callers of older versions: there is no label for any GUID (null).
OSTRA_API const char* riff64_getGUIDLabel(REFGUID id) noexcept;
OSTRA_API const char* riff64_getGUIDLabelProperly(REFGUID id) noexcept;
