// mriff_*: the chunk walker over a caller's memory buffer (a _tMRIFF record).
#include "ostra/mriff.h"

#include <algorithm>

#include "formats/riff/internal/chunk_walker.h"
#include "ostra/kaerror.h"
#include "ostra/kaplatform.h"

namespace w = ostra::riff;
using ostra::riff::MemorySource;

#define MRIFF_SOURCE(record)       \
  if (!(record)) return E_POINTER; \
  MemorySource s(record)

HRESULT mriff_Init(_tMRIFF* record, void* buffer, DWORD dataSize, DWORD capacity) noexcept {
  if (!record) return E_POINTER;
  if (dataSize > capacity || (!buffer && capacity)) return E_INVALIDARG;
  BYTE* base = static_cast<BYTE*>(buffer);
  *record = _tMRIFF{base, base, base + dataSize, base + capacity, dataSize, capacity};
  return S_OK;
}

BYTE* mriff_GetFilePointer(_tMRIFF* record) noexcept {
  if (!record || !record->base) return record ? record->current : nullptr;
  return record->base + MemorySource(record).currentOffset();
}

DWORD mriff_KaSetFilePointer(_tMRIFF* record, LONG distance, DWORD method) noexcept {
  if (!record) return 0xFFFFFFFFu;
  MemorySource s(record);
  int64_t from = 0;
  switch (method) {
    case FILE_BEGIN:
      from = 0;
      break;
    case FILE_CURRENT:
      from = s.currentOffset();
      break;
    case FILE_END:
      from = s.dataOffset();
      break;
    default:
      return 0xFFFFFFFFu;
  }
  s.setCurrent(uint32_t(std::clamp<int64_t>(from + distance, 0, s.dataOffset())));
  return s.currentOffset();
}

DWORD mriff_SetFilePointer(_tMRIFF* record, LONG distance, LONG*, DWORD method) noexcept {
  return mriff_KaSetFilePointer(record, distance, method);
}

BOOL mriff_ReadFile(_tMRIFF* record, void* destination, DWORD count, DWORD* countRead) noexcept {
  if (countRead) *countRead = 0;
  if (!record) return FALSE;
  MemorySource s(record);
  uint32_t got = 0;
  const bool ok = s.read(destination, count, &got);
  if (countRead) *countRead = got;
  return ok && got == count;
}

BOOL mriff_WriteFile(_tMRIFF* record, const void* source, DWORD count,
                     DWORD* countWritten) noexcept {
  if (countWritten) *countWritten = 0;
  if (!record) return FALSE;
  MemorySource s(record);
  uint32_t put = 0;
  const bool ok = s.write(source, count, &put);
  if (countWritten) *countWritten = put;
  return ok;
}

DWORD mriff_UpdateDataSize(_tMRIFF* record, DWORD growth) noexcept {
  if (!record || !record->base) return 0;
  MemorySource s(record);
  const uint32_t data = s.dataOffset();
  const uint32_t added = std::min(growth, s.capacityOffset() - data);
  record->dataEnd = record->base + data + added;
  return added;
}

HRESULT mriff_SaveLocation(_tMRIFF* record, DWORD* offset) noexcept {
  MRIFF_SOURCE(record);
  const uint32_t cur = s.currentOffset();
  s.setCurrent(cur);
  if (offset) *offset = cur;
  return S_OK;
}

HRESULT mriff_RestoreLocation(_tMRIFF* record, DWORD offset) noexcept {
  MRIFF_SOURCE(record);
  s.setCurrent(offset);
  return S_OK;
}

DWORD mriff_SkipChunk(_tMRIFF* record, DWORD size) noexcept {
  if (!record) return 0;
  MemorySource s(record);
  return w::skipChunk(s, size);
}

HRESULT mriff_SeekDataStart(_tMRIFF* record) noexcept {
  MRIFF_SOURCE(record);
  s.seek(12);
  return S_OK;
}

HRESULT mriff_ReadData(_tMRIFF* record, void* buffer, DWORD size) noexcept {
  MRIFF_SOURCE(record);
  return w::readData(s, buffer, size);
}

HRESULT mriff_ReadDataBounded(_tMRIFF* record, void* buffer, DWORD a, DWORD b) noexcept {
  MRIFF_SOURCE(record);
  return w::readDataBounded(s, buffer, a, b);
}

HRESULT mriff_ReadDataAlloc(_tMRIFF* record, tRIFFDATA* data) noexcept {
  MRIFF_SOURCE(record);
  return w::readDataAlloc(s, data, w::readData);
}

HRESULT mriff_ReadChunkHeader(_tMRIFF* record, DWORD* id, DWORD* size) noexcept {
  MRIFF_SOURCE(record);
  return w::readHeader(s, id, size);
}

HRESULT mriff_ReadListHeader(_tMRIFF* record, DWORD* listType, DWORD* size) noexcept {
  MRIFF_SOURCE(record);
  return w::readListHeader(s, listType, size);
}

HRESULT mriff_ReadFileID(_tMRIFF* record, DWORD* size, DWORD* formType) noexcept {
  MRIFF_SOURCE(record);
  return w::readFileId(s, size, formType);
}

HRESULT mriff_FindChunkHeader(_tMRIFF* record, DWORD id, DWORD* size, DWORD* remaining) noexcept {
  MRIFF_SOURCE(record);
  return w::findChunk(s, id, size, remaining);
}

HRESULT mriff_FindChunkHeaderInRIFF(_tMRIFF* record, DWORD id, DWORD* size,
                                    DWORD* remaining) noexcept {
  MRIFF_SOURCE(record);
  return w::findChunkInRiff(s, id, size, remaining);
}

HRESULT mriff_FindListChunk(_tMRIFF* record, DWORD listType, DWORD* size,
                            DWORD* remaining) noexcept {
  MRIFF_SOURCE(record);
  return w::findList(s, listType, size, remaining);
}

HRESULT mriff_FindListChunkFromStart(_tMRIFF* record, DWORD listType, DWORD* size) noexcept {
  MRIFF_SOURCE(record);
  return w::findListFromStart(s, listType, size);
}

HRESULT mriff_GetInfoString(_tMRIFF* record, DWORD id, KAWCHAR* buffer, DWORD capacity,
                            DWORD* remaining) noexcept {
  MRIFF_SOURCE(record);
  return w::getInfoString(s, id, buffer, capacity, remaining);
}

HRESULT mriff_GetNumListEntries(_tMRIFF* record, DWORD* count, DWORD* remaining) noexcept {
  MRIFF_SOURCE(record);
  return w::countEntries(s, count, remaining);
}

HRESULT mriff_WriteChunkHeader(_tMRIFF* record, DWORD id, DWORD size) noexcept {
  MRIFF_SOURCE(record);
  return w::writeHeader(s, id, size);
}

HRESULT mriff_WriteListHeader(_tMRIFF* record, DWORD listType, DWORD size) noexcept {
  MRIFF_SOURCE(record);
  return w::writeListHeader(s, listType, size);
}

HRESULT mriff_WriteFileID(_tMRIFF* record, DWORD formType, DWORD size) noexcept {
  MRIFF_SOURCE(record);
  return w::writeFileId(s, formType, size);
}
