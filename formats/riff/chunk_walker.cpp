// The RIFF chunk walker shared by the file and memory families. Budgets are unsigned
// byte counts that clamp at zero; every loop either spends at least 8 bytes of budget or
// moves the position forward by at least 8 bytes, so no input can make a walk spin.
#include "formats/riff/internal/chunk_walker.h"

#include <algorithm>
#include <new>
#include <string>

#include "ostra/kaerror.h"
#include "ostra/kaplatform.h"
#include "platform/internal/text.h"

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "chunk words are read as they lie");

namespace ostra::riff {

namespace {

uint32_t spend(uint32_t budget, uint64_t amount) {
  return amount >= budget ? 0 : budget - uint32_t(amount);
}

// Reads the RIFF header at offset 0 and the form type; *budget = RIFF size - 4.
HRESULT readRiffStart(ByteSource& s, uint32_t* budget) {
  if (!s.seek(0)) return KAERR_READ_FAILED;
  uint32_t id = 0, size = 0, form = 0;
  if (HRESULT hr = readHeader(s, &id, &size); FAILED(hr)) return hr;
  if (id != RIFF_ID_RIFF) return KAERR_NO_RIFF;
  if (!s.readU32(&form)) return KAERR_READ_FAILED;
  *budget = size >= 4 ? size - 4 : 0;
  return S_OK;
}

}  // namespace

HRESULT readHeader(ByteSource& s, uint32_t* id, uint32_t* size) {
  uint32_t v = 0;
  if (!s.readU32(&v)) return KAERR_READ_FAILED;
  if (id) *id = v;
  if (!s.readU32(&v)) return KAERR_READ_FAILED;
  if (size) *size = v;
  return S_OK;
}

HRESULT writeHeader(ByteSource& s, uint32_t id, uint32_t size) {
  if (!s.writeU32(id)) return KAERR_WRITE_FAILED;
  if (!s.writeU32(size)) return KAERR_WRITE_FAILED;
  return S_OK;
}

HRESULT writeChunk(ByteSource& s, uint32_t id, const void* data, uint32_t size, uint32_t* total) {
  if (total) *total = 0;
  if (!data && size) return E_INVALIDARG;
  if (HRESULT hr = writeHeader(s, id, size); FAILED(hr)) return hr;
  if (size && !s.writeAll(data, size)) return KAERR_WRITE_FAILED;
  if ((size & 1) && !s.writeAll("", 1)) return KAERR_WRITE_FAILED;
  if (total) *total = uint32_t(std::min<uint64_t>(evenUp(size) + 8, UINT32_MAX));
  return S_OK;
}

HRESULT writeListHeader(ByteSource& s, uint32_t listType, uint32_t size) {
  if (HRESULT hr = writeHeader(s, RIFF_ID_LIST, size); FAILED(hr)) return hr;
  return s.writeU32(listType) ? S_OK : KAERR_WRITE_FAILED;
}

HRESULT writeFileId(ByteSource& s, uint32_t formType, uint32_t size) {
  (void)writeHeader(s, RIFF_ID_RIFF, size);
  return s.writeU32(formType) ? S_OK : KAERR_WRITE_FAILED;
}

HRESULT readListHeader(ByteSource& s, uint32_t* listType, uint32_t* size) {
  uint32_t id = 0, n = 0;
  if (HRESULT hr = readHeader(s, &id, &n); FAILED(hr)) return hr;
  if (id != RIFF_ID_LIST) return KAERR_NO_LIST;
  if (size) *size = n >= 4 ? n - 4 : 0;
  uint32_t type = 0;
  if (!s.readU32(&type)) return KAERR_READ_FAILED;
  if (listType) *listType = type;
  return S_OK;
}

HRESULT readFileId(ByteSource& s, uint32_t* size, uint32_t* formType) {
  if (size) *size = 0;
  uint32_t id = 0, n = 0;
  if (HRESULT hr = readHeader(s, &id, &n); FAILED(hr)) return hr;
  if (id != RIFF_ID_RIFF) return KAERR_NO_RIFF;
  if (size) *size = n >= 4 ? n - 4 : 0;
  uint32_t form = 0;
  if (!s.readU32(&form)) return KAERR_READ_FAILED;
  if (formType) *formType = form;
  return S_OK;
}

uint32_t skipChunk(ByteSource& s, uint32_t size) {
  const uint64_t n = evenUp(size);
  s.skip(n);
  return uint32_t(std::min<uint64_t>(n, UINT32_MAX));
}

HRESULT readData(ByteSource& s, void* buffer, uint32_t size) {
  if (!buffer && size) return E_INVALIDARG;
  if (size && !s.readAll(buffer, size)) return KAERR_READ_FAILED;
  if (size & 1) s.skip(1);
  return S_OK;
}

HRESULT readDataBounded(ByteSource& s, void* buffer, uint32_t a, uint32_t b) {
  const uint32_t n = std::min(a, b);
  if (!buffer && n) return E_INVALIDARG;
  if (n && !s.readAll(buffer, n)) return KAERR_READ_FAILED;
  const uint64_t rest = uint64_t(a - n) + (b & 1u);
  if (rest) s.skip(rest);
  return S_OK;
}

HRESULT readDataAlloc(ByteSource& s, tRIFFDATA* record,
                      HRESULT (*read)(ByteSource&, void*, uint32_t)) {
  if (!record) return E_INVALIDARG;
  record->data = nullptr;
  if (record->size == 0) return S_OK;
  // The size comes from the file, so it is checked against the bytes really there before
  // a block that large is handed out; the answer is the one the short read would give.
  const uint64_t end = s.size(), pos = s.tell();
  if (pos > end || record->size > end - pos) return KAERR_READ_FAILED;
  KAHGLOBAL mem = KaGlobalAlloc(GHND, record->size);
  if (!mem) return E_OUTOFMEMORY;
  void* p = KaGlobalLock(mem);
  if (!p) {
    KaGlobalFree(mem);
    return E_OUTOFMEMORY;
  }
  if (HRESULT hr = read(s, p, record->size); FAILED(hr)) {
    KaGlobalUnlock(mem);
    KaGlobalFree(mem);
    return hr;
  }
  record->data = p;
  return S_OK;
}

HRESULT setRiffSize(ByteSource& s, uint32_t size) {
  const uint64_t pos = s.tell();
  const bool ok = s.seek(4) && s.writeU32(size);
  s.seek(pos);
  return ok ? S_OK : KAERR_WRITE_FAILED;
}

HRESULT updateRiffSize(ByteSource& s, int64_t delta) {
  const uint64_t pos = s.tell();
  uint32_t size = 0;
  HRESULT hr = S_OK;
  if (!s.seek(4) || !s.readU32(&size)) {
    hr = KAERR_READ_FAILED;
  } else {
    // delta is clamped so the sum cannot overflow; anything that far out is refused anyway.
    const int64_t grown =
        int64_t(size) + std::clamp<int64_t>(delta, -(int64_t(1) << 40), int64_t(1) << 40);
    if (grown > int64_t(RIFF_MAX_SIZE)) {
      // Whatever was appended beyond the stated size cannot be described: cut it away.
      if (s.seek(uint64_t(size) + 8)) s.truncateHere();
      hr = KAERR_RIFF_TOO_LARGE;
    } else if (grown < 0) {
      hr = E_INVALIDARG;
    } else if (!s.seek(4) || !s.writeU32(uint32_t(grown))) {
      hr = KAERR_WRITE_FAILED;
    }
  }
  s.seek(pos);
  return hr;
}

HRESULT getFileSize(ByteSource& s, uint32_t* size) {
  uint32_t id = 0, n = 0, form = 0;
  if (!s.seek(0)) return KAERR_READ_FAILED;
  if (HRESULT hr = readHeader(s, &id, &n); FAILED(hr)) return hr;
  if (id != RIFF_ID_RIFF) return KAERR_NO_RIFF;
  if (!s.readU32(&form)) return KAERR_READ_FAILED;
  if (size) *size = uint32_t(std::min<uint64_t>(uint64_t(n) + 4, UINT32_MAX));
  return S_OK;
}

HRESULT findChunk(ByteSource& s, uint32_t id, uint32_t* size, uint32_t* remaining) {
  uint32_t budget = remaining ? *remaining : 0;
  for (;;) {
    if (remaining && budget < 8) {
      *remaining = budget;
      return KAERR_NOT_FOUND;
    }
    uint32_t cid = 0, csize = 0;
    if (HRESULT hr = readHeader(s, &cid, &csize); FAILED(hr)) return hr;
    budget = spend(budget, 8);
    if (cid == id) {
      if (size) *size = csize;
      if (remaining) *remaining = budget;
      return S_OK;
    }
    const uint64_t step = evenUp(csize);
    if (!s.skip(step)) return KAERR_READ_FAILED;
    budget = spend(budget, step);
  }
}

HRESULT findChunkInRiff(ByteSource& s, uint32_t id, uint32_t* size, uint32_t* remaining) {
  uint32_t budget = 0;
  if (HRESULT hr = readRiffStart(s, &budget); FAILED(hr)) return hr;
  const uint32_t start = budget;
  HRESULT hr = findChunk(s, id, size, &budget);
  if (hr == KAERR_READ_FAILED) budget = start;
  if (remaining) *remaining = budget;
  return hr;
}

HRESULT findList(ByteSource& s, uint32_t listType, uint32_t* size, uint32_t* remaining) {
  for (;;) {
    uint32_t listSize = 0;
    if (HRESULT hr = findChunk(s, RIFF_ID_LIST, &listSize, remaining); FAILED(hr)) return hr;
    if (remaining && *remaining < 4) return KAERR_NOT_FOUND;
    uint32_t type = 0;
    if (!s.readU32(&type)) return KAERR_READ_FAILED;
    if (remaining) *remaining -= 4;
    if (type == listType) {
      if (size) *size = listSize >= 4 ? listSize - 4 : 0;
      return S_OK;
    }
    // A list too short to hold its own type has already been read past.
    const uint64_t rounded = evenUp(listSize);
    const uint64_t step = rounded > 4 ? rounded - 4 : 0;
    if (step && !s.skip(step)) return KAERR_READ_FAILED;
    if (remaining) *remaining = spend(*remaining, step);
  }
}

HRESULT findListFromStart(ByteSource& s, uint32_t listType, uint32_t* size) {
  uint32_t budget = 0;
  if (HRESULT hr = readRiffStart(s, &budget); FAILED(hr)) return hr;
  return findList(s, listType, size, &budget);
}

HRESULT countEntries(ByteSource& s, uint32_t* count, const uint32_t* remaining) {
  const uint64_t pos = s.tell();
  uint32_t budget = remaining ? *remaining : 0, n = 0;
  HRESULT hr = S_OK;
  while (!remaining || budget >= 8) {
    uint32_t size = 0;
    if (hr = readHeader(s, nullptr, &size); FAILED(hr)) break;
    const uint64_t step = evenUp(size);
    if (!s.skip(step)) {
      hr = KAERR_READ_FAILED;
      break;
    }
    budget = spend(spend(budget, 8), step);
    ++n;
  }
  s.seek(pos);
  if (count) *count = n;
  return hr;
}

HRESULT seekListEntry(ByteSource& s, uint32_t index, uint32_t* remaining) {
  uint32_t budget = remaining ? *remaining : 0;
  for (uint32_t i = 0; i < index; ++i) {
    if (remaining && budget < 8) {
      *remaining = budget;
      return KAERR_NOT_FOUND;
    }
    uint32_t size = 0;
    if (HRESULT hr = readHeader(s, nullptr, &size); FAILED(hr)) return hr;
    const uint64_t step = evenUp(size);
    if (!s.skip(step)) return KAERR_READ_FAILED;
    budget = spend(spend(budget, 8), step);
  }
  if (remaining) *remaining = budget;
  return S_OK;
}

HRESULT deleteChunk(ByteSource& s, uint32_t id, uint32_t* removed, bool isList) {
  if (removed) *removed = 0;
  uint32_t budget = 0, size = 0;
  if (HRESULT hr = readRiffStart(s, &budget); FAILED(hr)) return hr;
  HRESULT hr = isList ? findList(s, id, &size, &budget) : findChunk(s, id, &size, &budget);
  if (FAILED(hr)) return hr;
  const uint64_t header = isList ? 12 : 8;
  const uint64_t here = s.tell(), length = s.size();
  if (here < header) return KAERR_READ_FAILED;
  const uint64_t start = here - header;
  // A chunk that claims more than the file holds is removed up to the end of the file.
  const uint64_t count = std::min(evenUp(size) + header, length > start ? length - start : 0);

  char block[4096];
  uint64_t from = start + count, to = start;
  for (;;) {
    uint32_t got = 0;
    if (!s.seek(from) || !s.read(block, sizeof block, &got)) return KAERR_READ_FAILED;
    if (got && (!s.seek(to) || !s.writeAll(block, got))) return KAERR_WRITE_FAILED;
    from += got;
    to += got;
    if (got < sizeof block) break;
  }
  if (!s.seek(to) || !s.truncateHere()) return KAERR_WRITE_FAILED;
  hr = updateRiffSize(s, -int64_t(count));
  if (removed) *removed = uint32_t(std::min<uint64_t>(count, UINT32_MAX));
  return hr;
}

HRESULT writeAnsiString(ByteSource& s, const KAWCHAR* text, uint32_t* written) {
  if (written) *written = 0;
  std::string bytes;
  try {
    bytes = text::utf16ToAnsi(text ? std::u16string_view(text) : std::u16string_view());
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
  if (bytes.size() >= UINT32_MAX - 1) return E_INVALIDARG;
  const uint32_t n = uint32_t(bytes.size()) + 1;  // with the terminating zero
  if (!s.writeAll(bytes.c_str(), n)) return KAERR_WRITE_FAILED;
  if ((n & 1) && !s.writeAll("", 1)) return KAERR_WRITE_FAILED;
  if (written) *written = n + (n & 1);
  return S_OK;
}

HRESULT readAnsiString(ByteSource& s, KAWCHAR* buffer, uint32_t capacity, uint32_t* count) {
  if (!buffer || !count) return E_INVALIDARG;
  const uint64_t pos = s.tell();
  const uint32_t n = std::min(*count, capacity);
  try {
    std::string bytes(n, '\0');
    if (n && !s.readAll(bytes.data(), n)) return KAERR_READ_FAILED;
    if (n) bytes[n - 1] = '\0';
    if (capacity) {
      const std::u16string wide = text::ansiToUtf16(std::string_view(bytes.c_str()));
      const size_t len = std::min<size_t>(wide.size(), capacity - 1);
      std::copy_n(wide.data(), len, buffer);
      buffer[len] = 0;
      buffer[capacity - 1] = 0;
    }
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
  s.seek(pos + evenUp(*count));
  // The count grows by one whether or not there was a pad byte; callers rely on it.
  if (*count != UINT32_MAX) ++*count;
  return S_OK;
}

HRESULT getInfoString(ByteSource& s, uint32_t id, KAWCHAR* buffer, uint32_t capacity,
                      uint32_t* remaining) {
  if (!buffer || !capacity) return E_INVALIDARG;
  buffer[0] = 0;
  uint32_t listSize = 0;
  if (HRESULT hr = findList(s, RIFF_ID_INFO, &listSize, remaining); FAILED(hr)) return hr;
  uint32_t size = 0;
  if (HRESULT hr = findChunk(s, id, &size, &listSize); FAILED(hr)) return hr;
  return readAnsiString(s, buffer, capacity, &size);
}

HRESULT readCdda(ByteSource& s, tRIFFCDDA* record) {
  if (!record) return E_INVALIDARG;
  uint32_t budget = 0, form = 0, size = 0;
  if (HRESULT hr = readFileId(s, &budget, &form); FAILED(hr)) return hr;
  if (form != RIFF_ID_CDDA) return KAERR_CORRUPT_FILE;
  if (HRESULT hr = findChunk(s, RIFF_ID_FMT, &size, &budget); FAILED(hr)) return hr;
  if (size != sizeof(tRIFFCDDA)) return KAERR_CDDA_FORMAT;
  return s.readAll(record, sizeof(tRIFFCDDA)) ? S_OK : KAERR_READ_FAILED;
}

}  // namespace ostra::riff
