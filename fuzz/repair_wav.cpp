// The lookups of existing files (format, audio data, chunk list) and then the repair
// functions over arbitrary bytes: first byte odd repairs as Wave64, even as RIFF; the
// next four bytes are the maximum header length.
#include <cstdint>

#include "ostra/kawave.h"
#include "scratch_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const ostra::fuzz::ScratchFile scratch("repair");
  if (size < 1) return 0;
  const bool w64 = data[0] & 1;
  ++data, --size;
  const DWORD maxHeader = ostra::fuzz::takeWord(data, size);
  const KAHFILE f = scratch.open(data, size);
  if (f == KA_INVALID_HFILE) return 0;
  alignas(8) BYTE buffer[KAWAVEFORMAT_BUFFER_SIZE];
  auto* wfx = reinterpret_cast<_kawaveformat*>(buffer);
  KaGetFileWfx(f, wfx, sizeof buffer);
  tKAAUDIODATA where;
  KaGetFileAudioData(f, &where);
  tKACHUNKINFO chunks[16];
  DWORD count = 0;
  KaGetFileChunks(f, chunks, 16, &count);
  if (w64)
    KaFixTrashedW64(f, nullptr, maxHeader);
  else
    KaFixTrashedWav(f, nullptr, maxHeader);
  KaGetFileAudioData(f, &where);
  KaFile_Close(f);
  return 0;
}
