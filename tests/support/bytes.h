// Byte images built by hand for the tests of file formats and of the tool: little- and
// big-endian fields, RIFF chunks with their pad byte, lists and forms.
#pragma once

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "ostra/kadefs.h"

namespace ostra::test {

struct Bytes : std::vector<uint8_t> {
  using std::vector<uint8_t>::vector;
  Bytes(std::vector<uint8_t> v) : std::vector<uint8_t>(std::move(v)) {}
  Bytes& le(uint64_t v, int n) {
    for (int i = 0; i < n; ++i) push_back(uint8_t(v >> (8 * i)));
    return *this;
  }
  Bytes& be(uint64_t v, int n) {
    for (int i = n - 1; i >= 0; --i) push_back(uint8_t(v >> (8 * i)));
    return *this;
  }
  Bytes& u16(uint16_t v) { return le(v, 2); }
  Bytes& u32(uint32_t v) { return le(v, 4); }
  Bytes& u64(uint64_t v) { return le(v, 8); }
  Bytes& be16(uint16_t v) { return be(v, 2); }
  Bytes& be32(uint32_t v) { return be(v, 4); }
  Bytes& id(const char* fourcc) { return put(fourcc, 4); }
  Bytes& guid(const GUID& g) { return put(&g, 16); }
  Bytes& text(const std::string& s) { return put(s.data(), s.size()); }
  Bytes& zeros(size_t n) { return fill(n, 0); }
  Bytes& fill(size_t n, uint8_t v) {
    insert(end(), n, v);
    return *this;
  }
  Bytes& add(const std::vector<uint8_t>& b) {
    insert(end(), b.begin(), b.end());
    return *this;
  }
  Bytes& put(const void* p, size_t n) {
    const auto* b = static_cast<const uint8_t*>(p);
    insert(end(), b, b + n);
    return *this;
  }
  uint32_t u32At(size_t at) const { return uint32_t(u64Of(at, 4)); }
  uint64_t u64At(size_t at) const { return u64Of(at, 8); }
  std::string idAt(size_t at) const { return std::string(begin() + at, begin() + at + 4); }
  bool guidAt(size_t at, const GUID& g) const { return std::memcmp(data() + at, &g, 16) == 0; }

 private:
  uint64_t u64Of(size_t at, int n) const {
    uint64_t v = 0;
    for (int i = n - 1; i >= 0; --i) v = v << 8 | (*this)[at + size_t(i)];
    return v;
  }
};

inline Bytes join(std::initializer_list<Bytes> parts) {
  Bytes b;
  for (const Bytes& p : parts) b.add(p);
  return b;
}

// id, 32-bit little-endian size, body, and the pad byte of an odd size.
inline Bytes chunk(const char* id, const Bytes& body) {
  Bytes b;
  b.id(id).u32(uint32_t(body.size())).add(body);
  if (body.size() & 1) b.zeros(1);
  return b;
}
inline Bytes chunk(const char* id, size_t n, uint8_t fill = 0xAB) {
  return chunk(id, Bytes().fill(n, fill));
}
inline Bytes list(const char* type, const Bytes& body) {
  return chunk("LIST", Bytes().id(type).add(body));
}
inline Bytes list(const char* type, std::initializer_list<Bytes> parts) {
  return list(type, join(parts));
}
inline Bytes riff(const char* form, const Bytes& body) {
  return Bytes().id("RIFF").u32(uint32_t(body.size() + 4)).id(form).add(body);
}
inline Bytes riff(const char* form, std::initializer_list<Bytes> parts) {
  return riff(form, join(parts));
}

}  // namespace ostra::test
