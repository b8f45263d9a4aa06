// The Wave64 chunk walker. Budgets are signed and may go negative (the next step reports
// "not found"), but never wrap: subtraction saturates at INT64_MIN. Every step reads at
// least one 24-byte header, so no input can make a walk spin.
#include "formats/riff/internal/chunk_walker64.h"

#include <algorithm>
#include <vector>

#include "ostra/kaerror.h"

namespace ostra::riff64 {

namespace {

constexpr uint8_t kZeros[8] = {};

int64_t spend(int64_t budget, uint64_t amount) {
  // budget - amount, or INT64_MIN when that is not representable.
  const uint64_t room = uint64_t(budget) - uint64_t(INT64_MIN);  // budget + 2^63
  return amount > room ? INT64_MIN : int64_t(uint64_t(budget) - amount);
}

int64_t clampToSigned(uint64_t n) { return n > uint64_t(INT64_MAX) ? INT64_MAX : int64_t(n); }

}  // namespace

HRESULT readHeader(ByteSource& s, GUID* id, uint64_t* dataSize) {
  GUID g{};
  uint64_t size = 0;
  if (!s.readAll(&g, sizeof g) || !s.readU64(&size)) return KAERR_READ_FAILED;
  if (id) *id = g;
  if (dataSize) *dataSize = size >= RIFF64_HEADER_SIZE ? size - RIFF64_HEADER_SIZE : 0;
  return S_OK;
}

HRESULT writeHeader(ByteSource& s, const GUID& id, uint64_t dataSize) {
  if (!s.writeAll(&id, sizeof id) || !s.writeU64(dataSize + RIFF64_HEADER_SIZE))
    return KAERR_WRITE_FAILED;
  return S_OK;
}

HRESULT writeData(ByteSource& s, const void* data, uint32_t size, uint64_t* written) {
  if (written) *written = 0;
  if (!data && size) return E_INVALIDARG;
  if (size && !s.writeAll(data, size)) return KAERR_WRITE_FAILED;
  const uint32_t padBytes = uint32_t(alignUp8(size) - size);
  if (padBytes && !s.writeAll(kZeros, padBytes)) return KAERR_WRITE_FAILED;
  if (written) *written = uint64_t(size) + padBytes;
  return S_OK;
}

HRESULT writeChunk(ByteSource& s, const GUID& id, const void* data, uint32_t size,
                   uint64_t* total) {
  if (total) *total = 0;
  if (!data && size) return E_INVALIDARG;
  if (HRESULT hr = writeHeader(s, id, size); FAILED(hr)) return hr;
  uint64_t written = 0;
  if (HRESULT hr = writeData(s, data, size, &written); FAILED(hr)) return hr;
  if (total) *total = written + RIFF64_HEADER_SIZE;
  return S_OK;
}

HRESULT writeListHeader(ByteSource& s, const GUID& listType, uint64_t size) {
  if (HRESULT hr = writeHeader(s, RIFF64_GUID_LIST, size); FAILED(hr)) return hr;
  return s.writeAll(&listType, sizeof listType) ? S_OK : KAERR_WRITE_FAILED;
}

HRESULT writeFileId(ByteSource& s, const GUID& formType, uint64_t size) {
  (void)writeHeader(s, RIFF64_GUID_RIFF, size);
  return s.writeAll(&formType, sizeof formType) ? S_OK : KAERR_WRITE_FAILED;
}

HRESULT readListHeader(ByteSource& s, GUID* listType, uint64_t* size) {
  GUID id{};
  uint64_t data = 0;
  if (HRESULT hr = readHeader(s, &id, &data); FAILED(hr)) return hr;
  if (id != RIFF64_GUID_LIST) return KAERR_NO_LIST;
  if (size) *size = data >= 16 ? data - 16 : 0;
  GUID type{};
  if (!s.readAll(&type, sizeof type)) return KAERR_READ_FAILED;
  if (listType) *listType = type;
  return S_OK;
}

HRESULT readFileId(ByteSource& s, int64_t* size, GUID* formType) {
  GUID id{};
  uint64_t data = 0;
  if (HRESULT hr = readHeader(s, &id, &data); FAILED(hr)) return hr;
  if (size) *size = clampToSigned(data) - 16;
  if (id != RIFF64_GUID_RIFF) return KAERR_NO_RIFF;
  GUID form{};
  if (!s.readAll(&form, sizeof form)) return KAERR_READ_FAILED;
  if (formType) *formType = form;
  return S_OK;
}

uint64_t skipChunk(ByteSource& s, uint64_t size) {
  const uint64_t n = alignUp8(size);
  s.skip(n);
  return n;
}

HRESULT readData(ByteSource& s, void* buffer, uint32_t size) {
  if (!buffer && size) return E_INVALIDARG;
  if (size && !s.readAll(buffer, size)) return KAERR_READ_FAILED;
  if (size % 8) s.skip(8 - size % 8);
  return S_OK;
}

HRESULT readDataBounded(ByteSource& s, void* buffer, uint32_t a, uint32_t b) {
  const uint32_t n = std::min(a, b);
  if (!buffer && n) return E_INVALIDARG;
  if (n && !s.readAll(buffer, n)) return KAERR_READ_FAILED;
  // Not a rounding to 8: the sum is what files written by earlier versions expect.
  const uint64_t rest = uint64_t(a - n) + b % 8;
  if (rest) s.skip(rest);
  return S_OK;
}

HRESULT setRiffSize(ByteSource& s, uint64_t size) {
  const uint64_t pos = s.tell();
  const bool ok = s.seek(16) && s.writeU64(size + RIFF64_HEADER_SIZE);
  s.seek(pos);
  return ok ? S_OK : KAERR_WRITE_FAILED;
}

HRESULT updateRiffSize(ByteSource& s, int64_t delta) {
  const uint64_t pos = s.tell();
  uint64_t size = 0;
  HRESULT hr = S_OK;
  if (!s.seek(16) || !s.readU64(&size)) {
    hr = KAERR_READ_FAILED;
  } else if (!s.seek(16) || !s.writeU64(size + uint64_t(delta))) {
    hr = KAERR_WRITE_FAILED;
  }
  s.seek(pos);
  return hr;
}

HRESULT findChunk(ByteSource& s, const GUID& id, uint64_t* size, int64_t* remaining) {
  int64_t budget = remaining ? *remaining : 0;
  for (;;) {
    if (remaining && budget < int64_t(RIFF64_HEADER_SIZE)) {
      *remaining = budget;
      return KAERR_NOT_FOUND;
    }
    GUID cid{};
    uint64_t data = 0;
    if (HRESULT hr = readHeader(s, &cid, &data); FAILED(hr)) return hr;
    if (cid == id) {
      if (size) *size = data;
      if (remaining) *remaining = budget - int64_t(RIFF64_HEADER_SIZE);
      return S_OK;
    }
    const uint64_t step = alignUp8(data);
    if (!s.skip(step)) return KAERR_READ_FAILED;
    if (remaining) budget = spend(spend(budget, RIFF64_HEADER_SIZE), step);
  }
}

HRESULT findChunkInRiff(ByteSource& s, const GUID& id, uint64_t* size, int64_t* remaining) {
  int64_t budget = 0;
  HRESULT hr = s.seek(0) ? readFileId(s, &budget, nullptr) : KAERR_READ_FAILED;
  if (SUCCEEDED(hr)) hr = findChunk(s, id, size, &budget);
  if (remaining) *remaining = budget;
  return hr;
}

HRESULT findList(ByteSource& s, const GUID& listType, uint64_t* size, int64_t* remaining) {
  for (;;) {
    uint64_t data = 0;
    if (HRESULT hr = findChunk(s, RIFF64_GUID_LIST, &data, remaining); FAILED(hr)) return hr;
    if (remaining && *remaining < 8) return KAERR_NOT_FOUND;
    const uint64_t dataStart = s.tell();
    GUID type{};
    if (!s.readAll(&type, sizeof type)) return KAERR_READ_FAILED;
    if (type == listType) {
      if (remaining) *remaining = spend(*remaining, 16);
      if (size) *size = data >= 16 ? data - 16 : 0;
      return S_OK;
    }
    // Measured from the data start, so a list too short for its own type is left at its
    // real end rather than 16 bytes into its neighbour.
    const uint64_t rounded = alignUp8(data);
    if (rounded > uint64_t(INT64_MAX) - dataStart || !s.seek(dataStart + rounded))
      return KAERR_READ_FAILED;
    if (remaining) *remaining = spend(*remaining, rounded);
  }
}

HRESULT findListFromStart(ByteSource& s, const GUID& listType, uint64_t* size) {
  int64_t budget = 0;
  if (!s.seek(0)) return KAERR_READ_FAILED;
  if (HRESULT hr = readFileId(s, &budget, nullptr); FAILED(hr)) return hr;
  return findList(s, listType, size, &budget);
}

HRESULT countEntries(ByteSource& s, uint32_t* count, const int64_t* remaining) {
  const uint64_t pos = s.tell();
  int64_t budget = remaining ? *remaining : 0;
  uint32_t n = 0;
  HRESULT hr = S_OK;
  while (!remaining || budget >= int64_t(RIFF64_HEADER_SIZE)) {
    uint64_t data = 0;
    if (hr = readHeader(s, nullptr, &data); FAILED(hr)) break;
    const uint64_t step = alignUp8(data);
    if (!s.skip(step)) {
      hr = KAERR_READ_FAILED;
      break;
    }
    budget = spend(spend(budget, RIFF64_HEADER_SIZE), step);
    ++n;
  }
  s.seek(pos);
  if (count) *count = n;
  return hr;
}

HRESULT seekListEntry(ByteSource& s, uint32_t index, int64_t* remaining) {
  int64_t budget = remaining ? *remaining : 0;
  for (uint32_t i = 0; i < index; ++i) {
    if (remaining && budget < int64_t(RIFF64_HEADER_SIZE)) {
      *remaining = budget;
      return KAERR_NOT_FOUND;
    }
    uint64_t data = 0;
    if (HRESULT hr = readHeader(s, nullptr, &data); FAILED(hr)) return hr;
    const uint64_t step = alignUp8(data);
    if (!s.skip(step)) return KAERR_READ_FAILED;
    budget = spend(spend(budget, RIFF64_HEADER_SIZE), step);
  }
  if (remaining) *remaining = budget;
  return S_OK;
}

HRESULT deleteChunk(ByteSource& s, const GUID& id, uint64_t* removed) {
  if (removed) *removed = 0;
  const uint64_t length = s.size();
  int64_t budget = 0;
  uint64_t data = 0;
  if (!s.seek(0)) return KAERR_READ_FAILED;
  if (HRESULT hr = readFileId(s, &budget, nullptr); FAILED(hr)) return hr;
  if (HRESULT hr = findChunk(s, id, &data, &budget); FAILED(hr)) return hr;
  const uint64_t start = s.tell() - RIFF64_HEADER_SIZE;
  // A chunk that claims more than the file holds is removed up to the end of the file.
  const uint64_t count =
      std::min(alignUp8(data) + RIFF64_HEADER_SIZE, length > start ? length - start : 0);
  const uint64_t tail = length - start - count;
  if (tail) {
    std::vector<uint8_t> block;
    try {
      block.resize(size_t(std::min<uint64_t>(tail, 4096)));
    } catch (const std::bad_alloc&) {
      return E_OUTOFMEMORY;
    }
    for (uint64_t moved = 0; moved < tail;) {
      const uint32_t n = uint32_t(std::min<uint64_t>(tail - moved, block.size()));
      if (!s.seek(start + count + moved) || !s.readAll(block.data(), n)) return KAERR_READ_FAILED;
      if (!s.seek(start + moved) || !s.writeAll(block.data(), n)) return KAERR_WRITE_FAILED;
      moved += n;
    }
  }
  if (!s.seek(start + tail) || !s.truncateHere()) return KAERR_WRITE_FAILED;
  (void)updateRiffSize(s, -int64_t(count));
  if (removed) *removed = count;
  return S_OK;
}

HRESULT prepareChunk(ByteSource& s, const GUID& id, uint64_t* start) {
  const uint64_t pos = s.tell();
  if (start) *start = pos;
  return writeHeader(s, id, 0);
}

HRESULT prepareList(ByteSource& s, const GUID& listType, uint64_t* start) {
  const uint64_t pos = s.tell();
  if (start) *start = pos;
  return writeListHeader(s, listType, 0);
}

HRESULT pad(ByteSource& s, uint64_t start) {
  const uint64_t written = s.tell() - start;
  const uint32_t n = uint32_t(alignUp8(written) - written);
  return !n || s.writeAll(kZeros, n) ? S_OK : KAERR_WRITE_FAILED;
}

HRESULT completeChunk(ByteSource& s, uint64_t start) {
  if (HRESULT hr = pad(s, start); FAILED(hr)) return hr;
  const uint64_t end = s.tell();
  const bool ok = end >= start && s.seek(start + 16) && s.writeU64(end - start);
  s.seek(end);
  return ok ? S_OK : KAERR_WRITE_FAILED;
}

HRESULT writeChunkToFile(ByteSource& s, const GUID& id, const void* data, uint32_t size) {
  if (!data && size) return E_INVALIDARG;
  uint64_t start = 0;
  if (HRESULT hr = prepareChunk(s, id, &start); FAILED(hr)) return hr;
  if (size && !s.writeAll(data, size)) return KAERR_WRITE_FAILED;
  return completeChunk(s, start);
}

}  // namespace ostra::riff64
