#include "bext.h"

#include <cstring>

#include "info_text.h"

namespace ostra::cli {
namespace {

// The fixed part: description 256, originator 32, reference 32, date 10, time 8, time
// reference 8, version 2, UMID 64, five loudness words 10, reserved 180.
constexpr size_t kFixed = 602;

// A text field: up to its first NUL, read as UTF-8 when valid, else in the code page.
std::string field(const uint8_t* p, size_t n) {
  return decodeItem(std::string(reinterpret_cast<const char*>(p), n), false);
}

int16_t s16(const uint8_t* p) { return int16_t(p[0] | p[1] << 8); }

}  // namespace

std::optional<BextFacts> parseBext(const uint8_t* b, size_t size) {
  if (!b || size < kFixed) return std::nullopt;
  BextFacts f;
  f.description = field(b, 256);
  f.originator = field(b + 256, 32);
  f.reference = field(b + 288, 32);
  f.date = field(b + 320, 10);
  f.time = field(b + 330, 8);
  for (int i = 7; i >= 0; --i) f.timeReference = f.timeReference << 8 | b[338 + i];
  f.version = unsigned(b[346] | b[347] << 8);
  if (f.version >= 1) {
    static const uint8_t kZero[64] = {};
    if (std::memcmp(b + 348, kZero, 64) != 0) {
      static const char* kHex = "0123456789ABCDEF";
      for (int i = 0; i < 64; ++i) {
        f.umid += kHex[b[348 + i] >> 4];
        f.umid += kHex[b[348 + i] & 15];
      }
    }
  }
  // A loudness word of 0x7FFF means "not known".
  auto loud = [&](size_t at, std::optional<int>& v) {
    if (f.version >= 2 && s16(b + at) != 0x7FFF) v = s16(b + at);
  };
  loud(412, f.loudness);
  loud(414, f.loudnessRange);
  loud(416, f.maxTruePeak);
  loud(418, f.maxMomentary);
  loud(420, f.maxShortTerm);
  f.codingHistory = field(b + kFixed, size - kFixed);
  return f;
}

}  // namespace ostra::cli
