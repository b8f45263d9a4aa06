// The lookups of existing files (format, audio data, chunk list) and then the repair
// functions over arbitrary bytes in memory: first byte odd repairs as Wave64, even as
// RIFF; the next four bytes are the maximum header length.
#include <cstdint>

#include "formats/riff/internal/source_parsers.h"
#include "memory_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  namespace riff = ostra::riff;
  if (size < 1) return 0;
  const bool w64 = data[0] & 1;
  ++data, --size;
  const DWORD maxHeader = ostra::fuzz::takeWord(data, size);
  ostra::fuzz::MemoryFile f(data, size);
  alignas(8) BYTE buffer[KAWAVEFORMAT_BUFFER_SIZE];
  auto* wfx = reinterpret_cast<_kawaveformat*>(buffer);
  riff::filewfx::getFileWfx(f, wfx, sizeof buffer);
  tKAAUDIODATA where;
  riff::filewfx::getFileAudioData(f, &where);
  tKACHUNKINFO chunks[16];
  DWORD count = 0, container = 0;
  riff::filewfx::getFileChunks(f, chunks, 16, &count, &container);
  f.seek(0);
  if (w64)
    riff::fixTrashedW64(f, nullptr, maxHeader);
  else
    riff::fixTrashedWav(f, nullptr, maxHeader);
  riff::filewfx::getFileAudioData(f, &where);
  return 0;
}
