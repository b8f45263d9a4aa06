// The IFF chunk layer and the AIFF/AIFC reader and writer over a ByteSource: the
// exported iff_* / aiff_* / Ka*Aiff functions wrap their handle in a FileSource and call
// these, and tests and fuzz targets call them on memory. Results are those of the
// exported functions of the same names.
#pragma once

#include "formats/riff/internal/byte_source.h"
#include "ostra/aiff.h"

namespace ostra::riff::iff {

HRESULT readChunkHdr(ByteSource& s, IFFCHUNKHDR* header);
HRESULT readFormType(ByteSource& s, IFFCHUNKHDR* header, DWORD* formType);
HRESULT readDword(ByteSource& s, DWORD* value);
HRESULT readWord(ByteSource& s, WORD* value);
HRESULT writeDword(ByteSource& s, DWORD value);
HRESULT writeWord(ByteSource& s, WORD value);
HRESULT writeFileId(ByteSource& s, DWORD formType, DWORD formSize);
HRESULT writeChunk(ByteSource& s, const IFFCHUNKHDR* header);
HRESULT findChunk(ByteSource& s, DWORD id, DWORD* size, DWORD* remaining = nullptr);
DWORD skipChunk(ByteSource& s, DWORD size);
HRESULT findChunkFromStart(ByteSource& s, DWORD id, DWORD* size, DWORD* remaining = nullptr);
HRESULT seekChunkHeader(ByteSource& s, DWORD id, DWORD* size, INT64* headerOffset);
HRESULT deleteChunk(ByteSource& s, DWORD id, DWORD* removed);
HRESULT findMarker(ByteSource& s, WORD markerId, DWORD* position, char* name, DWORD nameCapacity);

BOOL isAiff(ByteSource& s, DWORD* formSize, DWORD* formType = nullptr,
            DWORD* compression = nullptr);
HRESULT getAiffWfx(ByteSource& s, WAVEFORMATEX* wfx, INT64* dataOffset = nullptr,
                   DWORD* dataSize = nullptr, DWORD* frames = nullptr);
HRESULT getAifcFloatWfx(ByteSource& s, WAVEFORMATEX* wfx, INT64* dataOffset = nullptr,
                        DWORD* dataSize = nullptr, DWORD* frames = nullptr,
                        DWORD* compression = nullptr);
HRESULT insertAifcFloatHeader(ByteSource& s, const WAVEFORMATEX* wfx, DWORD dataLength);
HRESULT insertAiffHeader(ByteSource& s, const WAVEFORMATEX* wfx, DWORD dataLength);
HRESULT writeByteSwap16(ByteSource& s, const WORD* samples, DWORD count, DWORD* written);
HRESULT writeByteSwap32(ByteSource& s, const DWORD* samples, DWORD count, DWORD* written);

}  // namespace ostra::riff::iff
