// The RIFF chunk walker: every chunk operation of the file family (riff_*) and the memory
// family (mriff_*), written once over a ByteSource. The exported functions are thin
// wrappers that pick the source and map null handles.
#pragma once

#include <cstdint>

#include "formats/riff/internal/byte_source.h"
#include "ostra/riff.h"

namespace ostra::riff {

inline uint64_t evenUp(uint32_t n) { return uint64_t(n) + (n & 1u); }

HRESULT readHeader(ByteSource& s, uint32_t* id, uint32_t* size);
HRESULT writeHeader(ByteSource& s, uint32_t id, uint32_t size);
HRESULT writeChunk(ByteSource& s, uint32_t id, const void* data, uint32_t size, uint32_t* total);
HRESULT writeListHeader(ByteSource& s, uint32_t listType, uint32_t size);
HRESULT writeFileId(ByteSource& s, uint32_t formType, uint32_t size);
HRESULT readListHeader(ByteSource& s, uint32_t* listType, uint32_t* size);
HRESULT readFileId(ByteSource& s, uint32_t* size, uint32_t* formType);

uint32_t skipChunk(ByteSource& s, uint32_t size);
HRESULT readData(ByteSource& s, void* buffer, uint32_t size);
HRESULT readDataBounded(ByteSource& s, void* buffer, uint32_t a, uint32_t b);
// Allocates record->size bytes of global memory after checking that many are left, then
// reads them with `read` (the 32-bit or the Wave64 data reader).
HRESULT readDataAlloc(ByteSource& s, tRIFFDATA* record,
                      HRESULT (*read)(ByteSource&, void*, uint32_t));

HRESULT setRiffSize(ByteSource& s, uint32_t size);
HRESULT updateRiffSize(ByteSource& s, int64_t delta);
HRESULT getFileSize(ByteSource& s, uint32_t* size);

HRESULT findChunk(ByteSource& s, uint32_t id, uint32_t* size, uint32_t* remaining);
HRESULT findChunkInRiff(ByteSource& s, uint32_t id, uint32_t* size, uint32_t* remaining);
HRESULT findList(ByteSource& s, uint32_t listType, uint32_t* size, uint32_t* remaining);
HRESULT findListFromStart(ByteSource& s, uint32_t listType, uint32_t* size);
HRESULT countEntries(ByteSource& s, uint32_t* count, const uint32_t* remaining);
HRESULT seekListEntry(ByteSource& s, uint32_t index, uint32_t* remaining);

HRESULT deleteChunk(ByteSource& s, uint32_t id, uint32_t* removed, bool isList);

HRESULT writeAnsiString(ByteSource& s, const KAWCHAR* text, uint32_t* written);
HRESULT readAnsiString(ByteSource& s, KAWCHAR* buffer, uint32_t capacity, uint32_t* count);
// Finds LIST INFO from the position and reads one item's text.
HRESULT getInfoString(ByteSource& s, uint32_t id, KAWCHAR* buffer, uint32_t capacity,
                      uint32_t* remaining);

HRESULT readCdda(ByteSource& s, tRIFFCDDA* record);

}  // namespace ostra::riff
