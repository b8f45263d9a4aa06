// Sample codecs for the audio tests, written independently of the library's own.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "ostra/kaaudio.h"

namespace ostra::test {

inline constexpr KASAMPLETYPE kConvertTypes[] = {
    KASAMPLE_PCM8,    KASAMPLE_PCM16,   KASAMPLE_PCM24,     KASAMPLE_PCM32,
    KASAMPLE_FLOAT32, KASAMPLE_FLOAT64, KASAMPLE_PCM24IN32, KASAMPLE_PCM8SIGNED,
    KASAMPLE_MAC16,   KASAMPLE_MAC24,   KASAMPLE_MAC32};
inline constexpr KASAMPLETYPE kMixTypes[] = {
    KASAMPLE_PCM8,    KASAMPLE_PCM16,   KASAMPLE_PCM24,     KASAMPLE_PCM32,
    KASAMPLE_FLOAT32, KASAMPLE_FLOAT64, KASAMPLE_PCM24IN32, KASAMPLE_PCM8SIGNED};

inline bool isFloat(KASAMPLETYPE t) { return t == KASAMPLE_FLOAT32 || t == KASAMPLE_FLOAT64; }
inline int valueBits(KASAMPLETYPE t) {
  return t == KASAMPLE_PCM24IN32 ? 24 : KaAudio_BitsFromSampleType(t);
}

// Writes sample i of a buffer: integers take their signed value, floats a double.
inline void putSample(KASAMPLETYPE t, std::vector<uint8_t>& buf, size_t i, double v) {
  const int bytes = KaAudio_BytesFromSampleType(t);
  uint8_t* p = buf.data() + i * bytes;
  const int64_t n = int64_t(v);
  switch (t) {
    case KASAMPLE_PCM8:
      p[0] = uint8_t(n + 128);
      break;
    case KASAMPLE_PCM8SIGNED:
      p[0] = uint8_t(n);
      break;
    case KASAMPLE_FLOAT32: {
      float f = float(v);
      std::memcpy(p, &f, 4);
      break;
    }
    case KASAMPLE_FLOAT64:
      std::memcpy(p, &v, 8);
      break;
    case KASAMPLE_PCM24IN32: {
      uint32_t u = uint32_t(n) << 8;
      std::memcpy(p, &u, 4);
      break;
    }
    case KASAMPLE_MAC16:
    case KASAMPLE_MAC24:
    case KASAMPLE_MAC32:
      for (int b = 0; b < bytes; ++b) p[bytes - 1 - b] = uint8_t(uint64_t(n) >> (8 * b));
      break;
    default:
      for (int b = 0; b < bytes; ++b) p[b] = uint8_t(uint64_t(n) >> (8 * b));
  }
}

inline double getSample(KASAMPLETYPE t, const std::vector<uint8_t>& buf, size_t i) {
  const int bytes = KaAudio_BytesFromSampleType(t);
  const uint8_t* p = buf.data() + i * bytes;
  switch (t) {
    case KASAMPLE_PCM8:
      return double(int(p[0]) - 128);
    case KASAMPLE_PCM8SIGNED:
      return double(int8_t(p[0]));
    case KASAMPLE_FLOAT32: {
      float f;
      std::memcpy(&f, p, 4);
      return f;
    }
    case KASAMPLE_FLOAT64: {
      double d;
      std::memcpy(&d, p, 8);
      return d;
    }
    case KASAMPLE_PCM24IN32: {
      int32_t v;
      std::memcpy(&v, p, 4);
      return double(v >> 8);
    }
    default:
      break;
  }
  uint64_t u = 0;
  const bool be = t == KASAMPLE_MAC16 || t == KASAMPLE_MAC24 || t == KASAMPLE_MAC32;
  for (int b = 0; b < bytes; ++b) u |= uint64_t(p[be ? bytes - 1 - b : b]) << (8 * b);
  const int bits = bytes * 8;
  int64_t v = int64_t(u << (64 - bits)) >> (64 - bits);
  return double(v);
}

// Full scale of an integer type (2^(bits-1)); 1.0 for floating point.
inline double fullScale(KASAMPLETYPE t) {
  return isFloat(t) ? 1.0 : std::ldexp(1.0, valueBits(t) - 1);
}

}  // namespace ostra::test
