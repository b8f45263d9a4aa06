// riff64_*: the Wave64 chunk walker over an open file handle.
#include "ostra/riff64.h"

#include "formats/riff/internal/chunk_walker.h"
#include "formats/riff/internal/chunk_walker64.h"
#include "ostra/kaerror.h"
#include "ostra/kaplatform.h"

namespace w = ostra::riff64;
using ostra::riff::FileSource;

HRESULT riff64_WriteChunkHeader(KAHFILE file, REFGUID id, UINT64 dataSize) noexcept {
  FileSource s(file);
  return w::writeHeader(s, id, dataSize);
}

HRESULT riff64_WriteChunk(KAHFILE file, REFGUID id, const void* data, DWORD size,
                          UINT64* total) noexcept {
  FileSource s(file);
  return w::writeChunk(s, id, data, size, total);
}

HRESULT riff64_WriteData(KAHFILE file, const void* data, DWORD size, UINT64* written) noexcept {
  FileSource s(file);
  return w::writeData(s, data, size, written);
}

HRESULT riff64_WriteListHeader(KAHFILE file, REFGUID listType, UINT64 size) noexcept {
  FileSource s(file);
  return w::writeListHeader(s, listType, size);
}

HRESULT riff64_WriteFileID(KAHFILE file, REFGUID formType, UINT64 size) noexcept {
  FileSource s(file);
  return w::writeFileId(s, formType, size);
}

HRESULT riff64_ReadChunkHeader(KAHFILE file, GUID* id, UINT64* size) noexcept {
  FileSource s(file);
  return w::readHeader(s, id, size);
}

HRESULT riff64_ReadListHeader(KAHFILE file, GUID* listType, UINT64* size) noexcept {
  FileSource s(file);
  return w::readListHeader(s, listType, size);
}

HRESULT riff64_ReadFileID(KAHFILE file, INT64* size, GUID* formType) noexcept {
  FileSource s(file);
  return w::readFileId(s, size, formType);
}

HRESULT riff64_SeekDataStart(KAHFILE file) noexcept {
  FileSource s(file);
  return s.seek(40) ? S_OK : KAERR_READ_FAILED;
}

HRESULT riff64_SaveLocation(KAHFILE file, UINT64* position) noexcept {
  if (!position) return E_INVALIDARG;
  INT64 pos = 0;
  const HRESULT hr = KaFile_GetPosition(file, &pos);
  *position = SUCCEEDED(hr) ? UINT64(pos) : 0;
  return SUCCEEDED(hr) ? S_OK : KAERR_READ_FAILED;
}

HRESULT riff64_RestoreLocation(KAHFILE file, UINT64 position) noexcept {
  FileSource s(file);
  return s.seek(position) ? S_OK : KAERR_READ_FAILED;
}

UINT64 riff64_SkipChunk(KAHFILE file, UINT64 size) noexcept {
  FileSource s(file);
  return w::skipChunk(s, size);
}

HRESULT riff64_ReadData(KAHFILE file, void* buffer, DWORD size) noexcept {
  FileSource s(file);
  return w::readData(s, buffer, size);
}

HRESULT riff64_ReadDataBounded(KAHFILE file, void* buffer, DWORD a, DWORD b) noexcept {
  FileSource s(file);
  return w::readDataBounded(s, buffer, a, b);
}

HRESULT riff64_ReadDataAlloc(KAHFILE file, tRIFFDATA* record) noexcept {
  FileSource s(file);
  return ostra::riff::readDataAlloc(s, record, w::readData);
}

HRESULT riff64_SetRIFFSize(KAHFILE file, UINT64 size) noexcept {
  FileSource s(file);
  return w::setRiffSize(s, size);
}

HRESULT riff64_UpdateRIFFSize(KAHFILE file, INT64 delta) noexcept {
  FileSource s(file);
  return w::updateRiffSize(s, delta);
}

HRESULT riff64_FindChunkHeader(KAHFILE file, REFGUID id, UINT64* size, INT64* remaining) noexcept {
  FileSource s(file);
  return w::findChunk(s, id, size, remaining);
}

HRESULT riff64_FindChunkHeaderInRIFF(KAHFILE file, REFGUID id, UINT64* size,
                                     INT64* remaining) noexcept {
  FileSource s(file);
  return w::findChunkInRiff(s, id, size, remaining);
}

HRESULT riff64_FindListChunk(KAHFILE file, REFGUID listType, UINT64* size,
                             INT64* remaining) noexcept {
  FileSource s(file);
  return w::findList(s, listType, size, remaining);
}

HRESULT riff64_FindListChunkFromStart(KAHFILE file, REFGUID listType, UINT64* size) noexcept {
  FileSource s(file);
  return w::findListFromStart(s, listType, size);
}

HRESULT riff64_GetNumListEntries(KAHFILE file, DWORD* count, INT64* remaining) noexcept {
  FileSource s(file);
  return w::countEntries(s, count, remaining);
}

HRESULT riff64_SeekListEntry(KAHFILE file, DWORD index, INT64* remaining) noexcept {
  FileSource s(file);
  return w::seekListEntry(s, index, remaining);
}

HRESULT riff64_DeleteChunk(KAHFILE file, REFGUID id, UINT64* removed) noexcept {
  FileSource s(file);
  return w::deleteChunk(s, id, removed);
}

HRESULT riff64_ValidateChunkHeader(KAHFILE, REFGUID, UINT64 size) noexcept {
  if (size & 0x800000007ull) return KAERR_BAD_CHUNK;
  return size == 0 ? KAERR_ZERO_CHUNK : S_OK;
}

HRESULT riff64_PrepareChunk(KAHFILE file, REFGUID id, UINT64* start) noexcept {
  FileSource s(file);
  return w::prepareChunk(s, id, start);
}

HRESULT riff64_PrepareList(KAHFILE file, REFGUID listType, UINT64* start) noexcept {
  FileSource s(file);
  return w::prepareList(s, listType, start);
}

HRESULT riff64_CompleteChunk(KAHFILE file, UINT64 start) noexcept {
  FileSource s(file);
  return w::completeChunk(s, start);
}

HRESULT riff64_WriteChunkToFile(KAHFILE file, REFGUID id, const void* data, DWORD size) noexcept {
  FileSource s(file);
  return w::writeChunkToFile(s, id, data, size);
}

INT64 riff64_AmountWritten(KAHFILE file, UINT64 start) noexcept {
  FileSource s(file);
  return INT64(s.tell() - start);
}

HRESULT riff64_Pad(KAHFILE file, UINT64 start) noexcept {
  FileSource s(file);
  return w::pad(s, start);
}

HRESULT riff64_WriteToFile(KAHFILE file, const void* data, DWORD size) noexcept {
  if (!data && size) return E_INVALIDARG;
  FileSource s(file);
  return s.writeAll(data, size) ? S_OK : KAERR_WRITE_FAILED;
}

const char* riff64_getGUIDLabel(REFGUID) noexcept { return nullptr; }
const char* riff64_getGUIDLabelProperly(REFGUID) noexcept { return nullptr; }
