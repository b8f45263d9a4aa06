// Feeds arbitrary bytes as an AIFF/AIFC file to the recognition, format, marker and
// chunk-deletion paths. Any result code is fine; crashes, hangs and out-of-bounds
// accesses are not.
#include <cstdint>

#include "ostra/aiff.h"
#include "scratch_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const ostra::fuzz::ScratchFile scratch("aiff");
  const KAHFILE f = scratch.open(data, size);
  if (f == KA_INVALID_HFILE) return 0;
  DWORD formSize = 0, type = 0, comp = 0, dataSize = 0, frames = 0, pos = 0, chunk = 0, left = 0;
  iff_IsAIFFFileEx(f, &formSize, &type, &comp);
  WAVEFORMATEX w{};
  INT64 offset = 0;
  iff_GetAIFFWfx(f, &w, &offset, &dataSize, &frames);
  char name[16];
  iff_FindMarker(f, 1, &pos, name, sizeof name);
  iff_FindChunkFromStart(f, IFFID_SSND, &chunk, &left);
  iff_SeekChunkHeader(f, IFFID_COMM, &chunk, &offset);
  iff_DeleteChunk(f, IFFID_COMM, &chunk);
  iff_GetAIFFWfx(f, &w);
  KaFile_Close(f);
  return 0;
}
