// Feeds arbitrary bytes as a RIFF image in memory to the mriff_* walks and writers, and
// the same bytes to the shared walkers' editing paths over memory. The buffer has exactly
// the capacity the record states, so any access outside it is caught.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "formats/riff/internal/chunk_walker.h"
#include "formats/riff/internal/chunk_walker64.h"
#include "ostra/kaplatform.h"
#include "ostra/mriff.h"

namespace {

constexpr DWORD kRoom = 64;  // capacity beyond the data, for the writers

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > (1u << 20)) return 0;
  std::vector<BYTE> buffer(size + kRoom);
  if (size) std::memcpy(buffer.data(), data, size);
  _tMRIFF r{};
  if (FAILED(mriff_Init(&r, buffer.data(), DWORD(size), DWORD(size + kRoom)))) std::abort();

  DWORD chunkSize = 0, left = 0, count = 0, id = 0, riffSize = 0;
  if (SUCCEEDED(mriff_ReadFileID(&r, &riffSize, &id))) {
    for (DWORD want : {RIFF_ID_FMT, RIFF_ID_DATA}) {
      if (SUCCEEDED(mriff_FindChunkHeaderInRIFF(&r, want, &chunkSize, &left))) {
        tRIFFDATA rec{chunkSize, nullptr};
        if (SUCCEEDED(mriff_ReadDataAlloc(&r, &rec)) && rec.data) {
          if (rec.size > size) std::abort();
          KaGlobalFreePtr(rec.data);
        }
      }
    }
  }
  mriff_SeekDataStart(&r);
  mriff_FindChunkHeader(&r, KaFourCC('n', 'o', 'n', 'e'), &chunkSize, nullptr);
  if (SUCCEEDED(mriff_FindListChunkFromStart(&r, RIFF_ID_INFO, &chunkSize))) {
    left = chunkSize;
    mriff_GetNumListEntries(&r, &count, &left);
    mriff_GetNumListEntries(&r, &count, nullptr);
  }
  KAWCHAR text[32];
  for (DWORD item : {KaFourCC('I', 'N', 'A', 'M'), KaFourCC('I', 'A', 'R', 'T')}) {
    mriff_SeekDataStart(&r);
    left = riffSize;
    mriff_GetInfoString(&r, item, text, 32, &left);
  }
  mriff_SeekDataStart(&r);
  mriff_FindListChunk(&r, KaFourCC('a', 'd', 't', 'l'), &chunkSize, nullptr);
  mriff_ReadListHeader(&r, &id, &chunkSize);
  BYTE scratch[64];
  mriff_ReadDataBounded(&r, scratch, chunkSize, 64);

  // Positions and writers driven by the input itself.
  const LONG distance = size >= 4 ? LONG(data[1] | (data[2] << 8) | (data[3] << 16)) - 0x400000 : 0;
  mriff_SetFilePointer(&r, distance, nullptr, size ? data[0] % 4 : 0);
  mriff_SkipChunk(&r, DWORD(distance));
  mriff_WriteChunkHeader(&r, RIFF_ID_JUNK, DWORD(distance));
  mriff_WriteListHeader(&r, RIFF_ID_INFO, 4);
  mriff_UpdateDataSize(&r, DWORD(distance));
  DWORD where = 0;
  mriff_SaveLocation(&r, &where);
  mriff_RestoreLocation(&r, where + 3);

  // The shared walkers' editing paths over memory, 32-bit and Wave64.
  mriff_Init(&r, buffer.data(), DWORD(std::min<size_t>(size, buffer.size())), DWORD(buffer.size()));
  ostra::riff::MemorySource s(&r);
  DWORD removed = 0;
  ostra::riff::deleteChunk(s, RIFF_ID_JUNK, &removed, false);
  UINT64 size64 = 0, removed64 = 0;
  INT64 budget = 0;
  ostra::riff64::findChunkInRiff(s, RIFF64_GUID_DATA, &size64, &budget);
  s.seek(40);
  ostra::riff64::findList(s, RIFF64_GUID_WAVE, &size64, nullptr);
  ostra::riff64::deleteChunk(s, RIFF64_GUID_FMT, &removed64);
  return 0;
}
