// The sample types as the vector converter files see them (size and width only), and the
// one list of pairs that have vector converters. Included by the instruction-set files:
// it holds no functions of its own, only a template each file instantiates with its own
// kernels, so no code compiled for one instruction set can stand in for another's.
#pragma once

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

// Calls Put::template put<D, S, DI, SI>(table) for every pair with a vector converter:
// 16-bit, packed 24-bit, 32-bit and 24-in-32 to and from single and double precision,
// single <-> double, unsigned 8-bit to single.
template <class Put>
void installVectorConverters(ConverterTable& t) {
  Put::template put<TF32, TS16, kF32, kS16>(t);
  Put::template put<TF32, TS24, kF32, kS24>(t);
  Put::template put<TF32, TS32, kF32, kS32>(t);
  Put::template put<TF32, TS24in32, kF32, kS24in32>(t);
  Put::template put<TF32, TU8, kF32, kU8>(t);
  Put::template put<TF32, TF64, kF32, kF64>(t);
  Put::template put<TF64, TS16, kF64, kS16>(t);
  Put::template put<TF64, TS24, kF64, kS24>(t);
  Put::template put<TF64, TS32, kF64, kS32>(t);
  Put::template put<TF64, TS24in32, kF64, kS24in32>(t);
  Put::template put<TF64, TF32, kF64, kF32>(t);
  Put::template put<TS16, TF32, kS16, kF32>(t);
  Put::template put<TS24, TF32, kS24, kF32>(t);
  Put::template put<TS32, TF32, kS32, kF32>(t);
  Put::template put<TS24in32, TF32, kS24in32, kF32>(t);
  Put::template put<TS16, TF64, kS16, kF64>(t);
  Put::template put<TS24, TF64, kS24, kF64>(t);
  Put::template put<TS32, TF64, kS32, kF64>(t);
  Put::template put<TS24in32, TF64, kS24in32, kF64>(t);
}

}  // namespace ostra::audio::vec
