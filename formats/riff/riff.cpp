// riff_*: the chunk walker over an open file handle.
#include "ostra/riff.h"

#include <initializer_list>

#include "formats/riff/internal/chunk_walker.h"
#include "ostra/kaerror.h"
#include "ostra/kaplatform.h"

namespace w = ostra::riff;
using ostra::riff::FileSource;

HRESULT riff_WriteChunkHeader(KAHFILE file, DWORD id, DWORD size) noexcept {
  FileSource s(file);
  return w::writeHeader(s, id, size);
}

HRESULT riff_WriteChunk(KAHFILE file, DWORD id, const void* data, DWORD size,
                        DWORD* total) noexcept {
  FileSource s(file);
  return w::writeChunk(s, id, data, size, total);
}

HRESULT riff_WriteListHeader(KAHFILE file, DWORD listType, DWORD size) noexcept {
  FileSource s(file);
  return w::writeListHeader(s, listType, size);
}

HRESULT riff_WriteFileID(KAHFILE file, DWORD formType, DWORD size) noexcept {
  FileSource s(file);
  return w::writeFileId(s, formType, size);
}

HRESULT riff_ReadChunkHeader(KAHFILE file, DWORD* id, DWORD* size) noexcept {
  FileSource s(file);
  return w::readHeader(s, id, size);
}

HRESULT riff_ReadListHeader(KAHFILE file, DWORD* listType, DWORD* size) noexcept {
  FileSource s(file);
  return w::readListHeader(s, listType, size);
}

HRESULT riff_ReadFileID(KAHFILE file, DWORD* size, DWORD* formType) noexcept {
  FileSource s(file);
  return w::readFileId(s, size, formType);
}

HRESULT riff_SeekDataStart(KAHFILE file) noexcept {
  FileSource s(file);
  return s.seek(12) ? S_OK : KAERR_READ_FAILED;
}

HRESULT riff_SaveLocation(KAHFILE file, DWORD* position) noexcept {
  if (!position) return E_INVALIDARG;
  INT64 pos = 0;
  const HRESULT hr = KaFile_GetPosition(file, &pos);
  *position = DWORD(uint64_t(pos));
  return SUCCEEDED(hr) ? S_OK : KAERR_READ_FAILED;
}

HRESULT riff_RestoreLocation(KAHFILE file, DWORD position) noexcept {
  FileSource s(file);
  return s.seek(position) ? S_OK : KAERR_READ_FAILED;
}

DWORD riff_SkipChunk(KAHFILE file, DWORD size) noexcept {
  FileSource s(file);
  return w::skipChunk(s, size);
}

HRESULT riff_ReadData(KAHFILE file, void* buffer, DWORD size) noexcept {
  FileSource s(file);
  return w::readData(s, buffer, size);
}

HRESULT riff_ReadDataBounded(KAHFILE file, void* buffer, DWORD a, DWORD b) noexcept {
  FileSource s(file);
  return w::readDataBounded(s, buffer, a, b);
}

HRESULT riff_ReadDataAlloc(KAHFILE file, tRIFFDATA* record) noexcept {
  FileSource s(file);
  return w::readDataAlloc(s, record, w::readData);
}

HRESULT riff_SetRIFFSize(KAHFILE file, DWORD size) noexcept {
  FileSource s(file);
  return w::setRiffSize(s, size);
}

HRESULT riff_UpdateRIFFSize(KAHFILE file, INT64 delta) noexcept {
  FileSource s(file);
  return w::updateRiffSize(s, delta);
}

HRESULT riff_GetFileSize(KAHFILE file, DWORD* size) noexcept {
  FileSource s(file);
  return w::getFileSize(s, size);
}

HRESULT riff_FindChunkHeader(KAHFILE file, DWORD id, DWORD* size, DWORD* remaining) noexcept {
  FileSource s(file);
  return w::findChunk(s, id, size, remaining);
}

HRESULT riff_FindChunkHeaderInRIFF(KAHFILE file, DWORD id, DWORD* size, DWORD* remaining) noexcept {
  FileSource s(file);
  return w::findChunkInRiff(s, id, size, remaining);
}

HRESULT riff_FindListChunk(KAHFILE file, DWORD listType, DWORD* size, DWORD* remaining) noexcept {
  FileSource s(file);
  return w::findList(s, listType, size, remaining);
}

HRESULT riff_FindListChunkFromStart(KAHFILE file, DWORD listType, DWORD* size) noexcept {
  FileSource s(file);
  return w::findListFromStart(s, listType, size);
}

HRESULT riff_GetNumListEntries(KAHFILE file, DWORD* count, DWORD* remaining) noexcept {
  FileSource s(file);
  return w::countEntries(s, count, remaining);
}

HRESULT riff_SeekListEntry(KAHFILE file, DWORD index, DWORD* remaining) noexcept {
  FileSource s(file);
  return w::seekListEntry(s, index, remaining);
}

HRESULT riff_DeleteChunk(KAHFILE file, DWORD id, DWORD* removed, BOOL isList) noexcept {
  FileSource s(file);
  return w::deleteChunk(s, id, removed, isList != FALSE);
}

HRESULT riff_WriteANSIString(KAHFILE file, const KAWCHAR* text, DWORD* written) noexcept {
  FileSource s(file);
  return w::writeAnsiString(s, text, written);
}

HRESULT riff_ReadANSIString(KAHFILE file, KAWCHAR* buffer, DWORD capacity, DWORD* count) noexcept {
  FileSource s(file);
  return w::readAnsiString(s, buffer, capacity, count);
}

HRESULT riff_ValidateChunkHeader(KAHFILE, DWORD, LONG size) noexcept {
  return size < 0 ? KAERR_BAD_CHUNK : size == 0 ? KAERR_ZERO_CHUNK : S_OK;
}

HRESULT riff_ReadRIFFCDDA(KAHFILE file, tRIFFCDDA* record) noexcept {
  FileSource s(file);
  return w::readCdda(s, record);
}

HRESULT riff_ReadCDAFile(const KAWCHAR* path, DWORD* track, DWORD* firstSector, DWORD* startFrames,
                         DWORD* lengthSectors, DWORD* serial) noexcept {
  for (DWORD* out : {track, firstSector, startFrames, lengthSectors, serial})
    if (out) *out = 0;
  KAHFILE file = KA_INVALID_HFILE;
  if (FAILED(KaFile_Open(path, GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING,
                         FILE_FLAG_SEQUENTIAL_SCAN, &file)))
    return KAERR_OPEN_FAILED;
  tRIFFCDDA cd{};
  const HRESULT hr = riff_ReadRIFFCDDA(file, &cd);
  KaFile_Close(file);
  if (FAILED(hr)) return hr;
  if (track) *track = cd.track;
  if (firstSector) *firstSector = cd.firstSector;
  if (startFrames)
    *startFrames = (DWORD(cd.startMinute) * 60 + cd.startSecond) * 75 + cd.startFrame;
  if (lengthSectors) *lengthSectors = cd.lengthSectors;
  if (serial) *serial = cd.serial;
  return S_OK;
}
