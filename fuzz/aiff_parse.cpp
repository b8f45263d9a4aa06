// Feeds arbitrary bytes as an AIFF/AIFC file to the recognition, format (integer and
// floating point), marker and chunk-deletion paths, in memory through the same byte
// source the file functions use. Any result code is fine; crashes, hangs and
// out-of-bounds accesses are not.
#include <cstdint>

#include "formats/riff/internal/iff_source.h"
#include "memory_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  namespace iff = ostra::riff::iff;
  ostra::fuzz::MemoryFile f(data, size);
  DWORD formSize = 0, type = 0, comp = 0, dataSize = 0, frames = 0, pos = 0, chunk = 0, left = 0;
  iff::isAiff(f, &formSize, &type, &comp);
  WAVEFORMATEX w{};
  INT64 offset = 0;
  f.seek(0);
  iff::getAiffWfx(f, &w, &offset, &dataSize, &frames);
  f.seek(0);
  iff::getAifcFloatWfx(f, &w, &offset, &dataSize, &frames);
  char name[16];
  f.seek(0);
  iff::findMarker(f, 1, &pos, name, sizeof name);
  iff::findChunkFromStart(f, IFFID_SSND, &chunk, &left);
  iff::seekChunkHeader(f, IFFID_COMM, &chunk, &offset);
  iff::deleteChunk(f, IFFID_COMM, &chunk);
  f.seek(0);
  iff::getAiffWfx(f, &w);
  return 0;
}
