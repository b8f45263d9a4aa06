// The big-endian IFF chunk layer under AIFF and AIFC: headers, big-endian words, chunk
// searches with a remaining-bytes budget, chunk deletion and marker lookup. The AIFF
// functions (aiff.cpp) and the file helpers (filewfx.cpp) are written on it.
#include <algorithm>
#include <vector>

#include "formats/riff/internal/iff_io.h"
#include "formats/riff/internal/iff_source.h"

using namespace ostra::riff::iffio;
using ostra::riff::ByteSource;
using ostra::riff::FileSource;

namespace ostra::riff::iff {
namespace {

constexpr UINT64 padded(DWORD size) { return UINT64(size) + (size & 1u); }

// Seeks to 0 and reads FORM and its form type; the budget is what the form holds after
// the type word.
HRESULT readForm(ByteSource& file, DWORD* budget, DWORD* formType) {
  if (HRESULT hr = seekTo(file, 0); FAILED(hr)) return hr;
  IFFCHUNKHDR h;
  DWORD type = 0;
  if (HRESULT hr = readFormType(file, &h, &type); FAILED(hr)) return hr;
  *budget = h.ckSize >= 4 ? h.ckSize - 4 : 0;
  if (formType) *formType = type;
  return S_OK;
}

}  // namespace

HRESULT readChunkHdr(ByteSource& file, IFFCHUNKHDR* header) {
  if (!header) return E_INVALIDARG;
  BYTE b[8];
  if (HRESULT hr = readExact(file, b, 8); FAILED(hr)) return hr;
  header->ckID = be32(b);
  header->ckSize = be32(b + 4);
  return S_OK;
}

HRESULT readFormType(ByteSource& file, IFFCHUNKHDR* header, DWORD* formType) {
  IFFCHUNKHDR local;
  IFFCHUNKHDR* h = header ? header : &local;
  if (HRESULT hr = readChunkHdr(file, h); FAILED(hr)) return hr;
  if (h->ckID != IFFID_FORM) return KAERR_CORRUPT_FILE;
  DWORD type = 0;
  if (HRESULT hr = readDword(file, &type); FAILED(hr)) return hr;
  if (formType) *formType = type;
  return S_OK;
}

HRESULT readDword(ByteSource& file, DWORD* value) {
  if (!value) return E_INVALIDARG;
  BYTE b[4];
  if (HRESULT hr = readExact(file, b, 4); FAILED(hr)) return hr;
  *value = be32(b);
  return S_OK;
}

HRESULT readWord(ByteSource& file, WORD* value) {
  if (!value) return E_INVALIDARG;
  BYTE b[2];
  if (HRESULT hr = readExact(file, b, 2); FAILED(hr)) return hr;
  *value = be16(b);
  return S_OK;
}

HRESULT writeDword(ByteSource& file, DWORD value) {
  BYTE b[4];
  putBe32(b, value);
  return writeExact(file, b, 4);
}

HRESULT writeWord(ByteSource& file, WORD value) {
  BYTE b[2];
  putBe16(b, value);
  return writeExact(file, b, 2);
}

HRESULT writeFileId(ByteSource& file, DWORD formType, DWORD formSize) {
  BYTE b[8];
  putBe32(b, IFFID_FORM);
  putBe32(b + 4, formSize);
  if (HRESULT hr = writeExact(file, b, 8); FAILED(hr)) return hr;
  return writeDword(file, formType);
}

HRESULT writeChunk(ByteSource& file, const IFFCHUNKHDR* header) {
  if (!header) return E_INVALIDARG;
  BYTE b[8];
  putBe32(b, header->ckID);
  putBe32(b + 4, header->ckSize);
  return writeExact(file, b, 8);
}

HRESULT findChunk(ByteSource& file, DWORD id, DWORD* size, DWORD* remaining) {
  const bool bounded = remaining != nullptr;
  DWORD budget = bounded ? *remaining : 0;
  for (;;) {
    if (bounded && budget < 8) {
      *remaining = budget;
      return KAERR_NOT_FOUND;
    }
    IFFCHUNKHDR h;
    if (HRESULT hr = readChunkHdr(file, &h); FAILED(hr)) return hr;
    if (bounded) budget -= 8;
    if (h.ckID == id) {
      if (size) *size = h.ckSize;
      if (bounded) *remaining = budget;
      return S_OK;
    }
    const UINT64 skip = padded(h.ckSize);
    if (HRESULT hr = seekBy(file, INT64(skip)); FAILED(hr)) return hr;
    if (bounded) budget = skip > budget ? 0 : budget - DWORD(skip);
  }
}

DWORD skipChunk(ByteSource& file, DWORD size) {
  const UINT64 skip = padded(size);
  seekBy(file, INT64(skip));
  return DWORD(skip);
}

HRESULT findChunkFromStart(ByteSource& file, DWORD id, DWORD* size, DWORD* remaining) {
  DWORD budget = 0;
  if (HRESULT hr = readForm(file, &budget, nullptr); FAILED(hr)) return hr;
  const HRESULT hr = findChunk(file, id, size, &budget);
  if (remaining) *remaining = budget;
  return hr;
}

HRESULT seekChunkHeader(ByteSource& file, DWORD id, DWORD* size, INT64* headerOffset) {
  if (HRESULT hr = findChunkFromStart(file, id, size); FAILED(hr)) return hr;
  const INT64 header = tell(file) - 8;
  if (HRESULT hr = seekTo(file, header); FAILED(hr)) return hr;
  if (headerOffset) *headerOffset = header;
  return S_OK;
}

HRESULT deleteChunk(ByteSource& file, DWORD id, DWORD* removedOut) {
  try {
    if (removedOut) *removedOut = 0;
    DWORD size = 0;
    if (HRESULT hr = findChunkFromStart(file, id, &size); FAILED(hr)) return hr;
    const UINT64 length = fileSize(file);
    const INT64 start = tell(file) - 8;
    if (start < 12) return KAERR_READ_FAILED;
    // A chunk that claims more than the file holds takes the rest of the file with it.
    const UINT64 removed = std::min<UINT64>(8 + padded(size), length - UINT64(start));
    std::vector<BYTE> buffer(4096);
    UINT64 from = UINT64(start) + removed, to = UINT64(start);
    while (from < length) {
      const DWORD n = DWORD(std::min<UINT64>(buffer.size(), length - from));
      if (HRESULT hr = seekTo(file, INT64(from)); FAILED(hr)) return hr;
      if (HRESULT hr = readExact(file, buffer.data(), n); FAILED(hr)) return hr;
      if (HRESULT hr = seekTo(file, INT64(to)); FAILED(hr)) return hr;
      if (HRESULT hr = writeExact(file, buffer.data(), n); FAILED(hr)) return hr;
      from += n, to += n;
    }
    if (HRESULT hr = seekTo(file, INT64(to)); FAILED(hr)) return hr;
    if (!file.truncateHere()) return KAERR_WRITE_FAILED;
    if (HRESULT hr = seekTo(file, 4); FAILED(hr)) return hr;
    DWORD formSize = 0;
    if (HRESULT hr = readDword(file, &formSize); FAILED(hr)) return hr;
    const UINT64 lowered = formSize >= removed + 4 ? formSize - removed : 4;
    if (HRESULT hr = seekTo(file, 4); FAILED(hr)) return hr;
    if (HRESULT hr = writeDword(file, DWORD(lowered)); FAILED(hr)) return hr;
    if (removedOut) *removedOut = DWORD(removed);
    return S_OK;
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
}

HRESULT findMarker(ByteSource& file, WORD markerId, DWORD* position, char* name,
                   DWORD nameCapacity) {
  DWORD size = 0;
  if (HRESULT hr = findChunkFromStart(file, IFFID_MARK, &size); FAILED(hr)) return hr;
  if (size < 2) return KAERR_CORRUPT_FILE;
  WORD count = 0;
  if (HRESULT hr = readWord(file, &count); FAILED(hr)) return hr;
  UINT64 used = 2;
  for (WORD i = 0; i < count; ++i) {
    // id (2), position (4), then a counted name padded so that count byte + text is even.
    BYTE head[7];
    if (used + sizeof head > size) return KAERR_CORRUPT_FILE;
    if (HRESULT hr = readExact(file, head, sizeof head); FAILED(hr)) return hr;
    const BYTE length = head[6];
    const DWORD text = length + ((length & 1u) ? 0u : 1u);
    used += sizeof head + text;
    if (used > size) return KAERR_CORRUPT_FILE;
    if (be16(head) != markerId) {
      if (HRESULT hr = seekBy(file, text); FAILED(hr)) return hr;
      continue;
    }
    char buffer[256];
    if (HRESULT hr = readExact(file, buffer, text); FAILED(hr)) return hr;
    if (position) *position = be32(head + 2);
    if (name && nameCapacity) {
      const DWORD n = std::min<DWORD>(length, nameCapacity - 1);
      std::copy(buffer, buffer + n, name);
      name[n] = '\0';
    }
    return S_OK;
  }
  return KAERR_NOT_FOUND;
}

}  // namespace ostra::riff::iff

namespace iff = ostra::riff::iff;

HRESULT iff_ReadChunkHdr(KAHFILE file, IFFCHUNKHDR* header) noexcept {
  FileSource s(file);
  return iff::readChunkHdr(s, header);
}

HRESULT iff_ReadFormType(KAHFILE file, IFFCHUNKHDR* header, DWORD* formType) noexcept {
  FileSource s(file);
  return iff::readFormType(s, header, formType);
}

HRESULT iff_ReadDWORD(KAHFILE file, DWORD* value) noexcept {
  FileSource s(file);
  return iff::readDword(s, value);
}

HRESULT iff_ReadWORD(KAHFILE file, WORD* value) noexcept {
  FileSource s(file);
  return iff::readWord(s, value);
}

HRESULT iff_WriteDWORD(KAHFILE file, DWORD value) noexcept {
  FileSource s(file);
  return iff::writeDword(s, value);
}

HRESULT iff_WriteWORD(KAHFILE file, WORD value) noexcept {
  FileSource s(file);
  return iff::writeWord(s, value);
}

void iff_ByteSwap16(WORD* values, DWORD count) noexcept {
  if (!values) return;
  for (DWORD i = 0; i < count; ++i) values[i] = WORD((values[i] >> 8) | (values[i] << 8));
}

void iff_ByteSwap32(DWORD* values, DWORD count) noexcept {
  if (!values) return;
  for (DWORD i = 0; i < count; ++i) {
    const DWORD v = values[i];
    values[i] = (v >> 24) | ((v >> 8) & 0xFF00u) | ((v << 8) & 0xFF0000u) | (v << 24);
  }
}

HRESULT iff_WriteFileID(KAHFILE file, DWORD formType, DWORD formSize) noexcept {
  FileSource s(file);
  return iff::writeFileId(s, formType, formSize);
}

HRESULT iff_WriteChunk(KAHFILE file, const IFFCHUNKHDR* header) noexcept {
  FileSource s(file);
  return iff::writeChunk(s, header);
}

HRESULT iff_FindChunkHeader(KAHFILE file, DWORD id, DWORD* size, DWORD* remaining) noexcept {
  FileSource s(file);
  return iff::findChunk(s, id, size, remaining);
}

DWORD iff_SkipChunk(KAHFILE file, DWORD size) noexcept {
  FileSource s(file);
  return iff::skipChunk(s, size);
}

HRESULT iff_FindChunkFromStart(KAHFILE file, DWORD id, DWORD* size, DWORD* remaining) noexcept {
  FileSource s(file);
  return iff::findChunkFromStart(s, id, size, remaining);
}

HRESULT iff_SeekChunkHeader(KAHFILE file, DWORD id, DWORD* size, INT64* headerOffset) noexcept {
  FileSource s(file);
  return iff::seekChunkHeader(s, id, size, headerOffset);
}

HRESULT iff_DeleteChunk(KAHFILE file, DWORD id, DWORD* removed) noexcept {
  FileSource s(file);
  return iff::deleteChunk(s, id, removed);
}

HRESULT iff_FindMarker(KAHFILE file, WORD markerId, DWORD* position, char* name,
                       DWORD nameCapacity) noexcept {
  FileSource s(file);
  return iff::findMarker(s, markerId, position, name, nameCapacity);
}
