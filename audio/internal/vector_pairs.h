// The sample types as the vector converter files see them (size and width only), the one
// list of pairs that have vector converters, and the walk over a buffer they share.
// Included by the instruction-set files: it holds no functions of its own, only templates
// each file instantiates with its own kernels (types of its anonymous namespace), so no
// code compiled for one instruction set can stand in for another's.
#pragma once

#include <cstdint>
#include <type_traits>

#include "audio/internal/tables.h"

namespace ostra::audio::vec {

struct TU8 {
  static constexpr int bytes = 1, bits = 8;
};
struct TS16 {
  static constexpr int bytes = 2, bits = 16;
};
struct TS24 {
  static constexpr int bytes = 3, bits = 24;
};
struct TS32 {
  static constexpr int bytes = 4, bits = 32;
};
struct TS24in32 {
  static constexpr int bytes = 4, bits = 24;
};
struct TF32 {
  static constexpr int bytes = 4, bits = 32;
};
struct TF64 {
  static constexpr int bytes = 8, bits = 64;
};

template <class T>
constexpr bool kIsFloat = std::is_same_v<T, TF32> || std::is_same_v<T, TF64>;

}  // namespace ostra::audio::vec

namespace ostra::audio {
namespace {

// K is an instruction-set file's kernel set: `block`, the samples of one vector block;
// `group<D, S, Unity, N, Stream>(d, s, gain)`, which converts N consecutive blocks with
// every load before any store; `canStream` and, where true, `streams<D>(d, count)` (write
// `count` blocks at d past the caches) and `fence()` (after streaming stores).

// Whole blocks, four at a time and then one by one: forwards, or backwards for widening
// pairs, so that in place a store only ever overwrites source bytes already read.
template <class K, class D, class S, bool Unity, bool Stream>
inline void walkBlocks(uint8_t* d, const uint8_t* s, int32_t count, float gain) {
  constexpr int kGroup = 4, db = D::bytes * K::block, sb = S::bytes * K::block;
  if constexpr (D::bytes > S::bytes) {
    int32_t i = count;
    for (; i >= kGroup; i -= kGroup)
      K::template group<D, S, Unity, kGroup, Stream>(d + (i - kGroup) * db, s + (i - kGroup) * sb,
                                                     gain);
    for (; i > 0; --i)
      K::template group<D, S, Unity, 1, Stream>(d + (i - 1) * db, s + (i - 1) * sb, gain);
  } else {
    int32_t i = 0;
    for (; i + kGroup <= count; i += kGroup)
      K::template group<D, S, Unity, kGroup, Stream>(d + i * db, s + i * sb, gain);
    for (; i < count; ++i) K::template group<D, S, Unity, 1, Stream>(d + i * db, s + i * sb, gain);
  }
}

template <class K, class D, class S>
inline void convertBlocks(uint8_t* d, const uint8_t* s, int32_t count, float gain) {
  if constexpr (K::canStream) {
    if (K::template streams<D>(d, count)) {
      if (gain == 1.0f)
        walkBlocks<K, D, S, true, true>(d, s, count, gain);
      else
        walkBlocks<K, D, S, false, true>(d, s, count, gain);
      K::fence();
      return;
    }
  }
  if (gain == 1.0f)
    walkBlocks<K, D, S, true, false>(d, s, count, gain);
  else
    walkBlocks<K, D, S, false, false>(d, s, count, gain);
}

// A converter of the table: whole blocks through K, the rest through the plain converter
// in the same direction.
template <class K, class D, class S, int DI, int SI>
void convertVector(void* dest, const void* src, int32_t n, float gain) {
  if (n <= 0 || !dest || !src) return;
  auto* d = static_cast<uint8_t*>(dest);
  auto* s = static_cast<const uint8_t*>(src);
  const int32_t whole = n / K::block, rest = n - whole * K::block;
  const CopyFn plain = kPlainConverters.fn[DI][SI];
  if constexpr (D::bytes > S::bytes) {
    convertBlocks<K, D, S>(d + rest * D::bytes, s + rest * S::bytes, whole, gain);
    plain(d, s, rest, gain);
  } else {
    convertBlocks<K, D, S>(d, s, whole, gain);
    plain(d + whole * K::block * D::bytes, s + whole * K::block * S::bytes, rest, gain);
  }
}

template <class K, class D, class S, int DI, int SI, Variant V>
void putConverter(ConverterTable& t) {
  t.fn[DI][SI] = &convertVector<K, D, S, DI, SI>;
  t.variant[DI][SI] = V;
}

// Installs K's converter for every pair with a vector converter: 16-bit, packed 24-bit,
// 32-bit and 24-in-32 to and from single and double precision, single <-> double,
// unsigned 8-bit to single.
template <class K, Variant V>
void installVectorConverters(ConverterTable& t) {
  using namespace vec;
  putConverter<K, TF32, TS16, kF32, kS16, V>(t);
  putConverter<K, TF32, TS24, kF32, kS24, V>(t);
  putConverter<K, TF32, TS32, kF32, kS32, V>(t);
  putConverter<K, TF32, TS24in32, kF32, kS24in32, V>(t);
  putConverter<K, TF32, TU8, kF32, kU8, V>(t);
  putConverter<K, TF32, TF64, kF32, kF64, V>(t);
  putConverter<K, TF64, TS16, kF64, kS16, V>(t);
  putConverter<K, TF64, TS24, kF64, kS24, V>(t);
  putConverter<K, TF64, TS32, kF64, kS32, V>(t);
  putConverter<K, TF64, TS24in32, kF64, kS24in32, V>(t);
  putConverter<K, TF64, TF32, kF64, kF32, V>(t);
  putConverter<K, TS16, TF32, kS16, kF32, V>(t);
  putConverter<K, TS24, TF32, kS24, kF32, V>(t);
  putConverter<K, TS32, TF32, kS32, kF32, V>(t);
  putConverter<K, TS24in32, TF32, kS24in32, kF32, V>(t);
  putConverter<K, TS16, TF64, kS16, kF64, V>(t);
  putConverter<K, TS24, TF64, kS24, kF64, V>(t);
  putConverter<K, TS32, TF64, kS32, kF64, V>(t);
  putConverter<K, TS24in32, TF64, kS24in32, kF64, V>(t);
}

}  // namespace
}  // namespace ostra::audio
