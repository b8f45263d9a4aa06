// Helpers shared by the wave, summary, display-list, AIFF and file-format tests: an open
// file that closes itself, little-endian reads of byte images and the live global-memory
// count that shows a path freed what it took.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "ostra/kaplatform.h"

namespace wavetest {

using Bytes = std::vector<uint8_t>;

class File {
 public:
  explicit File(const std::string& path, DWORD mode = OPEN_ALWAYS) {
    EXPECT_EQ(
        KaFile_OpenUtf8(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, mode, 0, &f_),
        S_OK);
  }
  ~File() { KaFile_Close(f_); }
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  operator KAHFILE() const { return f_; }
  void seek(INT64 to) { KaFile_Seek(f_, to, FILE_BEGIN, nullptr); }
  INT64 pos() const {
    INT64 p = -1;
    KaFile_GetPosition(f_, &p);
    return p;
  }

 private:
  KAHFILE f_ = KA_INVALID_HFILE;
};

inline uint32_t le32(const Bytes& b, size_t at) {
  return b[at] | (b[at + 1] << 8) | (b[at + 2] << 16) | (uint32_t(b[at + 3]) << 24);
}
inline uint64_t le64(const Bytes& b, size_t at) {
  return le32(b, at) | (uint64_t(le32(b, at + 4)) << 32);
}

// A RIFF-style chunk: id, 32-bit little-endian size, body, pad byte when odd.
inline Bytes chunk(const char* id, const Bytes& body) {
  Bytes b(id, id + 4);
  const uint32_t n = uint32_t(body.size());
  for (int i = 0; i < 4; ++i) b.push_back(uint8_t(n >> (8 * i)));
  b.insert(b.end(), body.begin(), body.end());
  if (n & 1) b.push_back(0);
  return b;
}

inline uint64_t liveBlocks() {
  UINT64 n = 0;
  KaGlobalGetStats(&n, nullptr);
  return n;
}

}  // namespace wavetest
