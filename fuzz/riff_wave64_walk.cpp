// Feeds arbitrary bytes as a Wave64 file to the riff64_* walks: searches with signed
// budgets, list walks, data reads sized by the file, the size word and chunk deletion.
// Any result code is fine; crashes, hangs and out-of-bounds accesses are not.
#include <cstdint>
#include <cstdlib>

#include "memory_fd.h"
#include "ostra/kaplatform.h"
#include "ostra/riff64.h"

namespace {

void readAlloc(KAHFILE f, UINT64 size, size_t fileSize) {
  if (size > 0xFFFFFFFFu) return;
  tRIFFDATA rec{DWORD(size), nullptr};
  if (SUCCEEDED(riff64_ReadDataAlloc(f, &rec)) && rec.data) {
    if (rec.size > fileSize) std::abort();
    KaGlobalFreePtr(rec.data);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static ostra::fuzz::MemoryDescriptor memory;
  if (size > (1u << 20)) return 0;
  const KAHFILE f = memory.open(data, size);

  UINT64 chunkSize = 0;
  INT64 left = 0;
  DWORD count = 0;
  GUID id{};
  for (const GUID& want : {RIFF64_GUID_FMT, RIFF64_GUID_DATA, RIFF64_GUID_JUNK}) {
    if (SUCCEEDED(riff64_FindChunkHeaderInRIFF(f, want, &chunkSize, &left)))
      readAlloc(f, chunkSize, size);
  }
  riff64_SeekDataStart(f);
  riff64_FindChunkHeader(f, RIFF64_GUID_WAVE, &chunkSize, nullptr);  // runs to the end

  constexpr GUID kInfo = KaGuid("4F464E49-ACF3-11D3-8CD1-00C04F8EDB8A");
  if (SUCCEEDED(riff64_FindListChunkFromStart(f, kInfo, &chunkSize))) {
    left = INT64(chunkSize & 0x7FFFFFFFFFFFFFFFull);
    riff64_GetNumListEntries(f, &count, &left);
    riff64_GetNumListEntries(f, &count, nullptr);
    riff64_SeekListEntry(f, 2, &left);
    if (SUCCEEDED(riff64_ReadChunkHeader(f, &id, &chunkSize))) readAlloc(f, chunkSize, size);
  }
  riff64_SeekDataStart(f);
  riff64_ReadListHeader(f, &id, &chunkSize);

  UINT64 removed = 0;
  riff64_DeleteChunk(f, RIFF64_GUID_JUNK, &removed);
  riff64_UpdateRIFFSize(f, size > 0 ? INT64(data[0]) - 128 : 0);
  KaFile_Close(f);
  return 0;
}
