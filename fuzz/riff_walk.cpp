// Feeds arbitrary bytes as a RIFF file to every chunk walk of riff_*: searches with and
// without budgets, list walks, data reads sized by the file, strings, CD-audio records,
// the size word and chunk deletion. Any result code is fine; crashes, hangs, reads out of
// bounds and allocations larger than the file are not.
#include <cstdint>
#include <cstdlib>

#include "memory_fd.h"
#include "ostra/kaplatform.h"
#include "ostra/riff.h"

namespace {

// A block handed out for a size the file named must fit in the file.
void readAlloc(KAHFILE f, DWORD size, size_t fileSize) {
  tRIFFDATA rec{size, nullptr};
  if (SUCCEEDED(riff_ReadDataAlloc(f, &rec)) && rec.data) {
    if (rec.size > fileSize) std::abort();
    KaGlobalFreePtr(rec.data);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static ostra::fuzz::MemoryDescriptor memory;
  if (size > (1u << 20)) return 0;
  const KAHFILE f = memory.open(data, size);

  DWORD riffSize = 0, chunkSize = 0, left = 0, count = 0, id = 0;
  riff_GetFileSize(f, &riffSize);
  for (DWORD want : {RIFF_ID_FMT, RIFF_ID_DATA, RIFF_ID_JUNK}) {
    if (SUCCEEDED(riff_FindChunkHeaderInRIFF(f, want, &chunkSize, &left))) {
      readAlloc(f, chunkSize, size);
    }
  }
  riff_SeekDataStart(f);
  riff_FindChunkHeader(f, KaFourCC('n', 'o', 'n', 'e'), &chunkSize, nullptr);  // to the end

  if (SUCCEEDED(riff_FindListChunkFromStart(f, RIFF_ID_INFO, &chunkSize))) {
    left = chunkSize;
    riff_GetNumListEntries(f, &count, &left);
    riff_GetNumListEntries(f, &count, nullptr);
    DWORD entry = 0;
    while (left >= 8 && entry < 64 && SUCCEEDED(riff_ReadChunkHeader(f, &id, &chunkSize))) {
      left -= 8;
      KAWCHAR text[64];
      DWORD n = chunkSize;
      if (FAILED(riff_ReadANSIString(f, text, 64, &n))) break;
      left = n > left ? 0 : left - n;
      ++entry;
    }
  }
  riff_SeekDataStart(f);
  left = riffSize;
  riff_FindListChunk(f, KaFourCC('a', 'd', 't', 'l'), &chunkSize, &left);
  riff_SeekDataStart(f);
  left = riffSize;
  riff_SeekListEntry(f, 3, &left);
  riff_ReadListHeader(f, &id, &chunkSize);
  readAlloc(f, chunkSize, size);

  KaFile_Seek(f, 0, FILE_BEGIN, nullptr);
  tRIFFCDDA cd{};
  riff_ReadRIFFCDDA(f, &cd);

  // Editing paths last: they change the file.
  DWORD removed = 0;
  riff_DeleteChunk(f, RIFF_ID_JUNK, &removed, FALSE);
  riff_DeleteChunk(f, RIFF_ID_INFO, &removed, TRUE);
  riff_UpdateRIFFSize(f, size > 0 ? INT64(data[0]) - 128 : 0);
  KaFile_Close(f);
  return 0;
}
