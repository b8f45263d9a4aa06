// RIFF over memory (mriff_*): the chunk operations of ostra/riff.h over a caller's buffer
// instead of a file handle, for parsing wave images already in memory and for building
// small RIFF images in a buffer of fixed capacity. Same names, arguments, layout and
// result codes as the riff_* namesakes. Positions are clamped into the buffer, never
// refused, and no operation touches a byte outside [base, capacityEnd).
#pragma once

#include "ostra/kaaudio.h"
#include "ostra/riff.h"

// The memory record, owned by the caller; the family never allocates or frees it or the
// buffer. Offsets inside the buffer are 32-bit, so a buffer holds at most 4 GiB - 1.
struct _tMRIFF {
  BYTE* base;         // offset 0 of the RIFF image
  BYTE* current;      // read/write position, within [base, dataEnd]
  BYTE* dataEnd;      // one past the last valid byte; writes past it move it
  BYTE* capacityEnd;  // one past the last writable byte
  DWORD dataSize;     // as given to mriff_Init
  DWORD capacity;     // as given to mriff_Init
};

// E_POINTER for a null record, E_INVALIDARG when dataSize > capacity.
// A null buffer with a non-zero capacity is E_INVALIDARG as well. Every other function
// answers a null record with E_POINTER (or 0 / FALSE / null where it returns a value).
OSTRA_API HRESULT mriff_Init(_tMRIFF* record, void* buffer, DWORD dataSize,
                             DWORD capacity) noexcept;
OSTRA_API BYTE* mriff_GetFilePointer(_tMRIFF* record) noexcept;
// method FILE_BEGIN (from base), FILE_CURRENT or FILE_END (from dataEnd); the result is
// clamped into [base, dataEnd] and its offset returned. highPart is ignored. An unknown
// method leaves the position and returns 0xFFFFFFFF.
OSTRA_API DWORD mriff_SetFilePointer(_tMRIFF* record, LONG distance, LONG* highPart,
                                     DWORD method) noexcept;
OSTRA_API DWORD mriff_KaSetFilePointer(_tMRIFF* record, LONG distance, DWORD method) noexcept;
// TRUE only when all count bytes were there (the available part is still copied).
OSTRA_API BOOL mriff_ReadFile(_tMRIFF* record, void* destination, DWORD count,
                              DWORD* countRead) noexcept;
// Copies what fits before capacityEnd and returns TRUE; *countWritten says how much.
OSTRA_API BOOL mriff_WriteFile(_tMRIFF* record, const void* source, DWORD count,
                               DWORD* countWritten) noexcept;
// Moves dataEnd forward by up to growth bytes (never past capacityEnd); returns the
// amount added. The dataSize field is left as it was.
OSTRA_API DWORD mriff_UpdateDataSize(_tMRIFF* record, DWORD growth) noexcept;
OSTRA_API HRESULT mriff_SaveLocation(_tMRIFF* record, DWORD* offset) noexcept;
OSTRA_API HRESULT mriff_RestoreLocation(_tMRIFF* record, DWORD offset) noexcept;
OSTRA_API DWORD mriff_SkipChunk(_tMRIFF* record, DWORD size) noexcept;
OSTRA_API HRESULT mriff_SeekDataStart(_tMRIFF* record) noexcept;

OSTRA_API HRESULT mriff_ReadData(_tMRIFF* record, void* buffer, DWORD size) noexcept;
OSTRA_API HRESULT mriff_ReadDataBounded(_tMRIFF* record, void* buffer, DWORD a, DWORD b) noexcept;
// The block comes from global memory, as riff_ReadDataAlloc's does.
OSTRA_API HRESULT mriff_ReadDataAlloc(_tMRIFF* record, tRIFFDATA* data) noexcept;
OSTRA_API HRESULT mriff_ReadChunkHeader(_tMRIFF* record, DWORD* id, DWORD* size) noexcept;
OSTRA_API HRESULT mriff_ReadListHeader(_tMRIFF* record, DWORD* listType, DWORD* size) noexcept;
OSTRA_API HRESULT mriff_ReadFileID(_tMRIFF* record, DWORD* size = nullptr,
                                   DWORD* formType = nullptr) noexcept;
OSTRA_API HRESULT mriff_FindChunkHeader(_tMRIFF* record, DWORD id, DWORD* size = nullptr,
                                        DWORD* remaining = nullptr) noexcept;
OSTRA_API HRESULT mriff_FindChunkHeaderInRIFF(_tMRIFF* record, DWORD id, DWORD* size,
                                              DWORD* remaining) noexcept;
OSTRA_API HRESULT mriff_FindListChunk(_tMRIFF* record, DWORD listType, DWORD* size,
                                      DWORD* remaining) noexcept;
OSTRA_API HRESULT mriff_FindListChunkFromStart(_tMRIFF* record, DWORD listType,
                                               DWORD* size) noexcept;
// Finds LIST INFO from the position and copies the text of its item `id` (ANSI code
// page) into buffer, capacity in characters, always terminated.
OSTRA_API HRESULT mriff_GetInfoString(_tMRIFF* record, DWORD id, KAWCHAR* buffer, DWORD capacity,
                                      DWORD* remaining) noexcept;
OSTRA_API HRESULT mriff_GetNumListEntries(_tMRIFF* record, DWORD* count, DWORD* remaining) noexcept;
OSTRA_API HRESULT mriff_WriteChunkHeader(_tMRIFF* record, DWORD id, DWORD size) noexcept;
OSTRA_API HRESULT mriff_WriteListHeader(_tMRIFF* record, DWORD listType, DWORD size) noexcept;
OSTRA_API HRESULT mriff_WriteFileID(_tMRIFF* record, DWORD formType, DWORD size) noexcept;

// Writes RIFF/WAVE, a `fmt ` chunk (16 bytes for PCM, rebuilt from channels, rate and
// bits; otherwise the record's 18 bytes as they are) and a `data` header for dataSize
// bytes; the RIFF size also counts extraSize bytes the caller will add. No sample data.
OSTRA_API HRESULT mriff_WriteWaveHeader(_tMRIFF* record, const WAVEFORMATEX* format, DWORD dataSize,
                                        DWORD extraSize) noexcept;
// The same from a record, converted to the plain 18-byte description first
// (KAERR_UNSUPPORTED_FORMAT when it has none).
OSTRA_API HRESULT mriff_WriteWaveHeader(_tMRIFF* record, const _kawaveformat* format,
                                        DWORD dataSize, DWORD extraSize) noexcept;
// Parses a wave image: copies up to 18 bytes of its `fmt ` chunk into *format (a chunk of
// 14 to 17 bytes leaves the rest zero; a shorter one is KAERR_CORRUPT_FILE) and reports
// where the `data` chunk's bytes start (offset from image) and how many of the bytes it
// claims are in the image. KAERR_NO_RIFF when the image does not start with RIFF, E_FAIL
// for a form other than WAVE, KAERR_NOT_FOUND for an image shorter than the smallest
// wave header (44 bytes) or without either chunk. Outputs are written only on success;
// format may be null.
OSTRA_API HRESULT mriff_GetWfx(WAVEFORMATEX* format, const void* image, DWORD imageSize,
                               DWORD* dataOffset = nullptr, DWORD* dataSize = nullptr) noexcept;
// The same into a record of formatSize bytes, read from the whole `fmt ` chunk so that
// extensible descriptions keep their channel mask and sub-format.
OSTRA_API HRESULT mriff_GetWfx(_kawaveformat* format, const void* image, DWORD imageSize,
                               DWORD* dataOffset = nullptr, DWORD* dataSize = nullptr,
                               DWORD formatSize = KAWAVEFORMAT_BUFFER_SIZE) noexcept;
