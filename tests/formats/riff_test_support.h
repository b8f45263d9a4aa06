// Builders for small RIFF and Wave64 images and a scratch file that holds one, shared by
// the chunk-layer tests.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "ostra/kaplatform.h"
#include "support/test_support.h"

namespace rifftest {

struct Bytes : std::vector<uint8_t> {
  Bytes() = default;
  Bytes(std::initializer_list<uint8_t> b) : std::vector<uint8_t>(b) {}
  Bytes(const uint8_t* first, const uint8_t* last) : std::vector<uint8_t>(first, last) {}
  Bytes& u16(uint16_t v) { return put(&v, 2); }
  Bytes& u32(uint32_t v) { return put(&v, 4); }
  Bytes& u64(uint64_t v) { return put(&v, 8); }
  Bytes& id(const char* fourcc) { return put(fourcc, 4); }
  Bytes& guid(const GUID& g) { return put(&g, 16); }
  Bytes& text(const std::string& s) { return put(s.data(), s.size()); }
  Bytes& zeros(size_t n) {
    insert(end(), n, 0);
    return *this;
  }
  Bytes& add(const Bytes& b) {
    insert(end(), b.begin(), b.end());
    return *this;
  }
  Bytes& put(const void* p, size_t n) {
    const auto* b = static_cast<const uint8_t*>(p);
    insert(end(), b, b + n);
    return *this;
  }
  uint32_t u32At(size_t off) const {
    uint32_t v;
    std::memcpy(&v, data() + off, 4);
    return v;
  }
  uint64_t u64At(size_t off) const {
    uint64_t v;
    std::memcpy(&v, data() + off, 8);
    return v;
  }
};

// id, size, data, and the pad byte of an odd size.
inline Bytes chunk(const char* id, const Bytes& data) {
  Bytes b;
  b.id(id).u32(uint32_t(data.size())).add(data);
  if (data.size() & 1) b.zeros(1);
  return b;
}
inline Bytes chunk(const char* id, size_t n, uint8_t fill = 0xAB) {
  Bytes d;
  d.insert(d.end(), n, fill);
  return chunk(id, d);
}
inline Bytes list(const char* type, const Bytes& body) {
  Bytes b;
  b.id(type).add(body);
  return chunk("LIST", b);
}
inline Bytes riff(const char* form, const Bytes& body) {
  Bytes b;
  b.id("RIFF").u32(uint32_t(body.size() + 4)).id(form).add(body);
  return b;
}

// A scratch file opened for reading and writing at offset 0.
class ScratchFile {
 public:
  explicit ScratchFile(const Bytes& contents = {}) : path_(dir_.file("chunks.bin")) {
    ostra::test::writeFile(path_, contents);
    EXPECT_EQ(KaFile_OpenUtf8(path_.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ,
                              OPEN_EXISTING, 0, &f_),
              S_OK);
  }
  ~ScratchFile() { KaFile_Close(f_); }
  KAHFILE handle() const { return f_; }
  operator KAHFILE() const { return f_; }
  INT64 pos() const {
    INT64 p = -1;
    KaFile_GetPosition(f_, &p);
    return p;
  }
  void seek(INT64 p) const { KaFile_Seek(f_, p, FILE_BEGIN, nullptr); }
  Bytes contents() const {
    const auto v = ostra::test::readFile(path_);
    Bytes b;
    b.assign(v.begin(), v.end());
    return b;
  }
  const std::string& path() const { return path_; }
  std::u16string wpath() const { return ostra::test::u16(path_); }

 private:
  ostra::test::TempDir dir_;
  std::string path_;
  KAHFILE f_ = KA_INVALID_HFILE;
};

}  // namespace rifftest
