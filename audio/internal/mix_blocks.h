// The block driver of the vector mixers, included by each instruction-set file. It holds
// only templates in an anonymous namespace and is instantiated with that file's own
// kernels, so no code compiled for one instruction set can stand in for another's.
//
// A kernel K has `block` (samples per call), `db` and `sb` (bytes per destination and
// source sample), unity(d, s) and gain(d, s, g) where g points at the gains of the
// block's samples, one per sample.
#pragma once

#include <cstdint>
#include <type_traits>

#include "audio/internal/tables.h"

namespace ostra::audio {
namespace {

constexpr int kMaxVectorChannels = 64;

// Mixes with K's whole blocks and hands the rest to the plain mixer; FirstGainOnly
// applies gains[0] to every channel (the 16-bit mixer's rule).
template <class K, int DI, int SI, bool FirstGainOnly = false>
void mixBlocks(void* dest, const void* src, int32_t n, int32_t channels, const double* gains) {
  const MixFn plain = kPlainMixers.fn[DI][SI];
  if (dest == src || n <= 0 || !dest || !src) return;
  if (channels <= 0 || !gains) return plain(dest, src, n, channels, gains);
  if constexpr (FirstGainOnly) channels = 1;
  bool unity = true;
  for (int32_t c = 0; c < channels && unity; ++c) unity = gains[c] == 1.0;
  if (!unity && channels > kMaxVectorChannels) return plain(dest, src, n, channels, gains);

  auto* d = static_cast<uint8_t*>(dest);
  auto* s = static_cast<const uint8_t*>(src);
  const int32_t whole = n / K::block * K::block;
  int32_t i = 0;
  if (unity) {
    for (; i < whole; i += K::block) K::unity(d + i * K::db, s + i * K::sb);
    return plain(d + i * K::db, s + i * K::sb, n - i, channels, gains);
  }
  // Gains laid out per sample: table[k] = gains[k % channels], long enough that a block,
  // or the plain mixer's run of `channels` gains, starting at any phase reads contiguously.
  alignas(64) double table[2 * kMaxVectorChannels + K::block];
  for (int32_t k = 0; k < 2 * channels + K::block; ++k) table[k] = gains[k % channels];
  int32_t phase = 0;
  const int32_t step = K::block % channels;
  // A kernel with gainSingle multiplies in single precision when every gain is exactly a
  // single-precision value: a single-precision sample times such a gain is exact in
  // double, so its one rounding to single precision is the plain mixer's double product
  // narrowed. Subnormal gains stay on the double path: with denormals-are-zero set, the
  // single-precision multiply would read them as zero and the double one would not.
  if constexpr (requires { &K::gainSingle; }) {
    bool single = true;
    for (int32_t c = 0; c < channels && single; ++c) {
      const double g = gains[c];
      single = double(float(g)) == g && (g == 0.0 || g >= 0x1p-126 || g <= -0x1p-126);
    }
    if (single) {
      alignas(64) float singles[2 * kMaxVectorChannels + K::block];
      for (int32_t k = 0; k < 2 * channels + K::block; ++k) singles[k] = float(table[k]);
      if (step == 0)
        for (; i < whole; i += K::block) K::gainSingle(d + i * K::db, s + i * K::sb, singles);
      for (; i < whole; i += K::block) {
        K::gainSingle(d + i * K::db, s + i * K::sb, singles + phase);
        phase += step;
        if (phase >= channels) phase -= channels;
      }
    }
  }
  // Every block starts on channel 0 when the channel count divides the block (1, 2, 4,
  // 8 ... channels): no phase to carry from block to block, which would otherwise be a
  // chain of dependent steps that bounds the loop.
  if (step == 0)
    for (; i < whole; i += K::block) K::gain(d + i * K::db, s + i * K::sb, table);
  for (; i < whole; i += K::block) {
    K::gain(d + i * K::db, s + i * K::sb, table + phase);
    phase += step;
    if (phase >= channels) phase -= channels;
  }
  // The plain mixer starts at channel 0: hand it the gains rotated to this phase.
  plain(d + i * K::db, s + i * K::sb, n - i, channels, table + phase);
}

template <class K, int DI, int SI, Variant V, bool FirstGainOnly = false>
void putMixer(MixerTable& t) {
  t.fn[DI][SI] = &mixBlocks<K, DI, SI, FirstGainOnly>;
  t.variant[DI][SI] = V;
}

}  // namespace
}  // namespace ostra::audio
