// Reading and writing single samples of every convertible type, and the arithmetic
// that defines conversion: normalise to double, scale, clamp, round half to even.
// For the plain code only (convert.cpp, mix.cpp, channels.cpp, levels.cpp): never
// include it from an instruction-set file (see tables.h).
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>

#include "audio/internal/tables.h"

namespace ostra::audio::sample {

inline uint16_t bswap16(uint16_t v) { return uint16_t((v >> 8) | (v << 8)); }
inline uint32_t bswap32(uint32_t v) { return __builtin_bswap32(v); }

template <class T>
inline T loadRaw(const uint8_t* p) {
  T v;
  std::memcpy(&v, p, sizeof(T));
  return v;
}
template <class T>
inline void storeRaw(uint8_t* p, T v) {
  std::memcpy(p, &v, sizeof(T));
}

// Integer types expose get/put of the signed value in `bits` bits.
struct U8 {
  static constexpr int bytes = 1, bits = 8;
  static constexpr bool isFloat = false;
  static int32_t get(const uint8_t* p) { return int8_t(p[0] ^ 0x80); }
  static void put(uint8_t* p, int32_t v) { p[0] = uint8_t(uint8_t(v) ^ 0x80); }
};
struct S8 {
  static constexpr int bytes = 1, bits = 8;
  static constexpr bool isFloat = false;
  static int32_t get(const uint8_t* p) { return int8_t(p[0]); }
  static void put(uint8_t* p, int32_t v) { p[0] = uint8_t(v); }
};
struct S16 {
  static constexpr int bytes = 2, bits = 16;
  static constexpr bool isFloat = false;
  static int32_t get(const uint8_t* p) { return loadRaw<int16_t>(p); }
  static void put(uint8_t* p, int32_t v) { storeRaw<int16_t>(p, int16_t(v)); }
};
struct S24 {
  static constexpr int bytes = 3, bits = 24;
  static constexpr bool isFloat = false;
  static int32_t get(const uint8_t* p) {
    return int32_t(uint32_t(p[0]) | (uint32_t(p[1]) << 8) | (uint32_t(int8_t(p[2])) << 16));
  }
  static void put(uint8_t* p, int32_t v) {
    p[0] = uint8_t(v);
    p[1] = uint8_t(v >> 8);
    p[2] = uint8_t(v >> 16);
  }
};
struct S32 {
  static constexpr int bytes = 4, bits = 32;
  static constexpr bool isFloat = false;
  static int32_t get(const uint8_t* p) { return loadRaw<int32_t>(p); }
  static void put(uint8_t* p, int32_t v) { storeRaw<int32_t>(p, v); }
};
// 24 valid bits in the upper three bytes of a 4-byte container (the low byte is
// ignored on reading and written as 0), as in extensible wave files.
struct S24in32 {
  static constexpr int bytes = 4, bits = 24;
  static constexpr bool isFloat = false;
  static int32_t get(const uint8_t* p) { return loadRaw<int32_t>(p) >> 8; }
  static void put(uint8_t* p, int32_t v) { storeRaw<uint32_t>(p, uint32_t(v) << 8); }
};
struct Be16 {
  static constexpr int bytes = 2, bits = 16;
  static constexpr bool isFloat = false;
  static int32_t get(const uint8_t* p) { return int16_t(bswap16(loadRaw<uint16_t>(p))); }
  static void put(uint8_t* p, int32_t v) { storeRaw<uint16_t>(p, bswap16(uint16_t(v))); }
};
struct Be24 {
  static constexpr int bytes = 3, bits = 24;
  static constexpr bool isFloat = false;
  static int32_t get(const uint8_t* p) {
    return int32_t(uint32_t(p[2]) | (uint32_t(p[1]) << 8) | (uint32_t(int8_t(p[0])) << 16));
  }
  static void put(uint8_t* p, int32_t v) {
    p[2] = uint8_t(v);
    p[1] = uint8_t(v >> 8);
    p[0] = uint8_t(v >> 16);
  }
};
struct Be32 {
  static constexpr int bytes = 4, bits = 32;
  static constexpr bool isFloat = false;
  static int32_t get(const uint8_t* p) { return int32_t(bswap32(loadRaw<uint32_t>(p))); }
  static void put(uint8_t* p, int32_t v) { storeRaw<uint32_t>(p, bswap32(uint32_t(v))); }
};
struct F32 {
  static constexpr int bytes = 4, bits = 32;
  static constexpr bool isFloat = true;
  static float get(const uint8_t* p) { return loadRaw<float>(p); }
  static void put(uint8_t* p, float v) { storeRaw<float>(p, v); }
};
struct F64 {
  static constexpr int bytes = 8, bits = 64;
  static constexpr bool isFloat = true;
  static double get(const uint8_t* p) { return loadRaw<double>(p); }
  static void put(uint8_t* p, double v) { storeRaw<double>(p, v); }
};

template <int I>
struct ByIndex;
template <>
struct ByIndex<kU8> {
  using T = U8;
};
template <>
struct ByIndex<kS16> {
  using T = S16;
};
template <>
struct ByIndex<kS24> {
  using T = S24;
};
template <>
struct ByIndex<kS32> {
  using T = S32;
};
template <>
struct ByIndex<kF32> {
  using T = F32;
};
template <>
struct ByIndex<kF64> {
  using T = F64;
};
template <>
struct ByIndex<kS24in32> {
  using T = S24in32;
};
template <>
struct ByIndex<kS8> {
  using T = S8;
};
template <>
struct ByIndex<kBe16> {
  using T = Be16;
};
template <>
struct ByIndex<kBe24> {
  using T = Be24;
};
template <>
struct ByIndex<kBe32> {
  using T = Be32;
};

// 2^-(bits-1) and 2^(bits-1).
template <class T>
constexpr double kNorm = 1.0 / double(1ll << (T::bits - 1));
template <class T>
constexpr double kScale = double(1ll << (T::bits - 1));

// The normalised value of a sample: full scale is +-1.0.
template <class S>
inline double load(const uint8_t* p) {
  if constexpr (S::isFloat)
    return double(S::get(p));
  else
    return double(S::get(p)) * kNorm<S>;
}

// The value times the gain. A single-precision source forms the product in single
// precision, so that a float path and its vector variants round the same way.
template <class S>
inline double loadGain(const uint8_t* p, float gain) {
  if constexpr (std::is_same_v<S, F32>)
    return double(float(S::get(p) * gain));
  else
    return load<S>(p) * double(gain);
}
template <class S>
inline double loadGain(const uint8_t* p, double gain) {
  return load<S>(p) * gain;
}

// Round half to even of a value already clamped into the int32 range: adding 1.5 * 2^52
// leaves the integer in the low mantissa bits under the default rounding mode.
inline int32_t roundEven(double x) {
  const double t = x + 6755399441055744.0;
  uint64_t bits;
  std::memcpy(&bits, &t, sizeof bits);
  return int32_t(uint32_t(bits));
}

// Scales to D's integer range, clamps (a NaN becomes the lowest value), rounds.
template <class D>
inline int32_t quantize(double v) {
  constexpr double lo = -kScale<D>, hi = kScale<D> - 1.0;
  double x = v * kScale<D>;
  x = x > lo ? x : lo;
  x = x < hi ? x : hi;
  int32_t r = roundEven(x);
  if constexpr (D::bits == 24) r = r < -8388608 ? -8388608 : r > 8388607 ? 8388607 : r;
  return r;
}

template <class D>
inline void store(uint8_t* p, double v) {
  if constexpr (std::is_same_v<D, F32>)
    D::put(p, float(v));
  else if constexpr (std::is_same_v<D, F64>)
    D::put(p, v);
  else
    D::put(p, quantize<D>(v));
}

}  // namespace ostra::audio::sample
