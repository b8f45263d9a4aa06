// Helpers for the command-level tests: the ostra binary and small wave and AIFF files
// built byte by byte.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "ostra/aiff.h"
#include "support/bytes.h"
#include "support/test_support.h"
#include "support/tool_run.h"

namespace ostra::tooltest {

using ostra::test::Bytes;
using ostra::test::chunk;
using ostra::test::ostra;
using ostra::test::ostraJson;
using ostra::test::readFile;
using ostra::test::RunResult;
using ostra::test::TempDir;
using ostra::test::writeFile;
inline std::string q(const std::string& s) { return ostra::test::shellQuote(s); }

inline Bytes wave(std::initializer_list<Bytes> chunks) { return ostra::test::riff("WAVE", chunks); }

// fmt bodies: 16-byte PCM/float, 18-byte with cbSize 0, 40-byte extensible.
inline Bytes fmt16(uint16_t tag, uint16_t channels, uint32_t rate, uint16_t bits) {
  const uint16_t align = uint16_t(channels * (bits / 8));
  return Bytes().u16(tag).u16(channels).u32(rate).u32(rate * align).u16(align).u16(bits);
}
inline Bytes fmt18(uint16_t tag, uint16_t channels, uint32_t rate, uint16_t bits) {
  return fmt16(tag, channels, rate, bits).u16(0);
}
inline Bytes fmtExt(uint16_t channels, uint32_t rate, uint16_t bits, uint16_t validBits,
                    uint32_t mask, uint16_t subTag) {
  return fmt16(0xFFFE, channels, rate, bits)
      .u16(22)
      .u16(validBits)
      .u32(mask)
      .u32(subTag)
      .add({0x00, 0x00, 0x10, 0x00, 0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71});
}

// A LIST INFO chunk of zero-terminated items.
inline Bytes infoList(const std::vector<std::pair<std::string, std::string>>& items) {
  Bytes body;
  for (const auto& [id, text] : items) body.add(chunk(id.c_str(), Bytes().text(text).zeros(1)));
  return ostra::test::list("INFO", body);
}

// A big-endian AIFF (compression empty) or AIFC file with COMM and SSND.
inline Bytes aiff(uint16_t channels, uint32_t frames, uint16_t bits, uint32_t rate,
                  const Bytes& samples, const std::string& compression = "") {
  WORD exponent = 0, mantissa[4] = {};
  aiff_CreateRate(rate, &exponent, mantissa);
  Bytes comm = Bytes().be16(channels).be32(frames).be16(bits).be16(exponent);
  for (WORD m : mantissa) comm.be16(m);
  if (!compression.empty()) comm.text(compression).zeros(2);  // and an empty name
  Bytes ssnd = Bytes().zeros(8).add(samples);
  Bytes body = Bytes().text(compression.empty() ? "AIFF" : "AIFC");
  for (const Bytes* c : {&comm, &ssnd}) {
    body.id(c == &comm ? "COMM" : "SSND").be32(uint32_t(c->size())).add(*c);
    if (c->size() & 1) body.zeros(1);
  }
  return Bytes().id("FORM").be32(uint32_t(body.size())).add(body);
}

// Interleaved 16-bit stereo test samples (a ramp that crosses zero).
inline std::vector<int16_t> ramp16(size_t frames) {
  std::vector<int16_t> v(frames * 2);
  for (size_t i = 0; i < frames; ++i) {
    v[2 * i] = int16_t(int(i * 97) % 65536 - 32768);
    v[2 * i + 1] = int16_t(-int(i * 31) % 30000);
  }
  return v;
}
inline Bytes le16(const std::vector<int16_t>& v) {
  Bytes b;
  for (int16_t s : v) b.u16(uint16_t(s));
  return b;
}

}  // namespace ostra::tooltest
