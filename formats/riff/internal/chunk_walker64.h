// The Wave64 chunk walker behind riff64_*: GUID ids, size words that count their own
// 24-byte header, signed budgets and 8-byte alignment, over the same ByteSource as the
// RIFF walker (so files, memory and fuzz input share it).
#pragma once

#include <cstdint>

#include "formats/riff/internal/byte_source.h"
#include "ostra/riff64.h"

namespace ostra::riff64 {

using riff::ByteSource;

// n rounded up to a multiple of 8, saturating.
inline uint64_t alignUp8(uint64_t n) { return n > UINT64_MAX - 7 ? UINT64_MAX : (n + 7) & ~7ull; }

HRESULT readHeader(ByteSource& s, GUID* id, uint64_t* dataSize);
HRESULT writeHeader(ByteSource& s, const GUID& id, uint64_t dataSize);
HRESULT writeChunk(ByteSource& s, const GUID& id, const void* data, uint32_t size, uint64_t* total);
HRESULT writeData(ByteSource& s, const void* data, uint32_t size, uint64_t* written);
HRESULT writeListHeader(ByteSource& s, const GUID& listType, uint64_t size);
HRESULT writeFileId(ByteSource& s, const GUID& formType, uint64_t size);
HRESULT readListHeader(ByteSource& s, GUID* listType, uint64_t* size);
HRESULT readFileId(ByteSource& s, int64_t* size, GUID* formType);

uint64_t skipChunk(ByteSource& s, uint64_t size);
HRESULT readData(ByteSource& s, void* buffer, uint32_t size);
HRESULT readDataBounded(ByteSource& s, void* buffer, uint32_t a, uint32_t b);

HRESULT setRiffSize(ByteSource& s, uint64_t size);
HRESULT updateRiffSize(ByteSource& s, int64_t delta);

HRESULT findChunk(ByteSource& s, const GUID& id, uint64_t* size, int64_t* remaining);
HRESULT findChunkInRiff(ByteSource& s, const GUID& id, uint64_t* size, int64_t* remaining);
HRESULT findList(ByteSource& s, const GUID& listType, uint64_t* size, int64_t* remaining);
HRESULT findListFromStart(ByteSource& s, const GUID& listType, uint64_t* size);
HRESULT countEntries(ByteSource& s, uint32_t* count, const int64_t* remaining);
HRESULT seekListEntry(ByteSource& s, uint32_t index, int64_t* remaining);
HRESULT deleteChunk(ByteSource& s, const GUID& id, uint64_t* removed);

HRESULT prepareChunk(ByteSource& s, const GUID& id, uint64_t* start);
HRESULT prepareList(ByteSource& s, const GUID& listType, uint64_t* start);
HRESULT pad(ByteSource& s, uint64_t start);
HRESULT completeChunk(ByteSource& s, uint64_t start);
HRESULT writeChunkToFile(ByteSource& s, const GUID& id, const void* data, uint32_t size);

}  // namespace ostra::riff64
