// A growable file in memory for the fuzz targets: it reads and writes like a file opened
// for reading and writing (positions may pass the end; a write there fills the gap with
// zeros), so the parsers run through the same byte-source code as on a disk file, at
// memory speed.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "formats/riff/internal/byte_source.h"

namespace ostra::fuzz {

class MemoryFile final : public ostra::riff::ByteSource {
 public:
  MemoryFile(const uint8_t* data, size_t size) : bytes_(data, data + size) {}

  bool read(void* dst, uint32_t n, uint32_t* got) override {
    const uint64_t left = pos_ < bytes_.size() ? bytes_.size() - pos_ : 0;
    const auto k = uint32_t(std::min<uint64_t>(n, left));
    if (k) std::memcpy(dst, bytes_.data() + pos_, k);
    pos_ += k;
    *got = k;
    return true;
  }
  bool write(const void* src, uint32_t n, uint32_t* put) override {
    *put = 0;
    // Parsers may write what they read; far more than that is a runaway loop.
    if (pos_ + n > kLimit) return false;
    if (pos_ + n > bytes_.size()) bytes_.resize(size_t(pos_ + n));
    std::memcpy(bytes_.data() + pos_, src, n);
    pos_ += n;
    *put = n;
    return true;
  }
  uint64_t tell() override { return pos_; }
  bool seek(uint64_t position) override {
    if (position > kLimit) return false;
    pos_ = position;
    return true;
  }
  bool skip(uint64_t n) override { return n <= kLimit - std::min(pos_, kLimit) && seek(pos_ + n); }
  uint64_t size() override { return bytes_.size(); }
  bool truncateHere() override {
    if (pos_ > kLimit) return false;
    bytes_.resize(size_t(pos_));
    return true;
  }

 private:
  static constexpr uint64_t kLimit = uint64_t(64) << 20;
  std::vector<uint8_t> bytes_;
  uint64_t pos_ = 0;
};

// Reads a little-endian 32-bit word from the front of the input, consuming it.
inline uint32_t takeWord(const uint8_t*& data, size_t& size) {
  uint32_t v = 0;
  for (int i = 0; i < 4 && size; ++i, ++data, --size) v |= uint32_t(*data) << (8 * i);
  return v;
}

}  // namespace ostra::fuzz
