// Feeds arbitrary bytes as an AIFF/AIFC file to the recognition, format, marker and
// chunk-deletion paths. Any result code is fine; crashes, hangs and out-of-bounds
// accesses are not.
#include <cstdint>
#include <filesystem>
#include <random>
#include <string>

#include "ostra/aiff.h"
#include "ostra/kaplatform.h"

namespace {

// One scratch file per process, rewritten for every input.
struct Scratch {
  std::string path;
  Scratch() {
    std::random_device rd;
    path = (std::filesystem::temp_directory_path() / ("ostra_fuzz_aiff_" + std::to_string(rd())))
               .string();
  }
  ~Scratch() {
    std::error_code ec;
    std::filesystem::remove(path, ec);
  }
  KAHFILE open(const uint8_t* data, size_t size) const {
    KAHFILE f = KA_INVALID_HFILE;
    if (FAILED(
            KaFile_OpenUtf8(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, CREATE_ALWAYS, 0, &f)))
      return KA_INVALID_HFILE;
    if (size) KaFile_Write(f, data, DWORD(size), nullptr);
    KaFile_Seek(f, 0, FILE_BEGIN, nullptr);
    return f;
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Scratch scratch;
  if (size > (1u << 20)) return 0;
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
