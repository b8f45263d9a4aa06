// A scratch file per fuzz process for the targets that still parse through a file handle
// (the riff_* and riff64_* walks, the tool's `info`, bitmaps): every input is written to
// it and the file is reopened, so the parsers see exactly the fuzz bytes. The other
// targets feed memory through memory_file.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <random>
#include <string>

#include "ostra/kaplatform.h"

namespace ostra::fuzz {

class ScratchFile {
 public:
  // Inputs above maxSize are not worth a file.
  explicit ScratchFile(const char* tag, size_t maxSize = size_t(1) << 20) : maxSize_(maxSize) {
    std::random_device rd;
    path_ = (std::filesystem::temp_directory_path() /
             ("ostra_fuzz_" + std::string(tag) + "_" + std::to_string(rd())))
                .string();
  }
  ~ScratchFile() {
    std::error_code ec;
    std::filesystem::remove(path_, ec);
  }
  // The bytes as a file opened for reading and writing, positioned at 0; invalid on
  // failure or above the size limit.
  KAHFILE open(const uint8_t* data, size_t size) const {
    KAHFILE f = KA_INVALID_HFILE;
    if (size > maxSize_) return KA_INVALID_HFILE;
    if (FAILED(
            KaFile_OpenUtf8(path_.c_str(), GENERIC_READ | GENERIC_WRITE, 0, CREATE_ALWAYS, 0, &f)))
      return KA_INVALID_HFILE;
    if (size) KaFile_Write(f, data, DWORD(size), nullptr);
    KaFile_Seek(f, 0, FILE_BEGIN, nullptr);
    return f;
  }

 private:
  std::string path_;
  size_t maxSize_;
};

// Reads a little-endian 32-bit word from the front of the input, consuming it.
inline uint32_t takeWord(const uint8_t*& data, size_t& size) {
  uint32_t v = 0;
  for (int i = 0; i < 4 && size; ++i, ++data, --size) v |= uint32_t(*data) << (8 * i);
  return v;
}

}  // namespace ostra::fuzz
