// Packed 24-bit samples in AVX-512 registers, for the AVX-512 files of audio/ only (the
// functions have internal linkage in each including file and need F and BW). A sample in
// "high form" sits in the upper three bytes of a 32-bit lane with a low byte of 0.
#pragma once

#include <immintrin.h>

#include <cstdint>

namespace ostra::audio {
namespace {

inline __m512i s24Lanes(int a, int b, int c, int d) {
  return _mm512_setr_epi32(a, a + 1, a + 2, 0, b, b + 1, b + 2, 0, c, c + 1, c + 2, 0, d, d + 1,
                           d + 2, 0);
}

// 64 packed samples (192 bytes, three whole vectors) as four vectors of sixteen samples in
// high form. Vector k takes byte-stream dwords 12k..12k+11, three per 16-byte lane, then a
// byte shuffle within each lane. Whole-vector loads and stores matter: byte-masked ones
// are slow from memory and a load overlapping an earlier partial store stalls.
inline void loadS24x64(const uint8_t* p, __m512i out[4]) {
  const __m512i v0 = _mm512_loadu_si512(p), v1 = _mm512_loadu_si512(p + 64),
                v2 = _mm512_loadu_si512(p + 128);
  const __m512i shuf =
      _mm512_broadcast_i32x4(_mm_setr_epi8(-1, 0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11));
  out[0] = _mm512_shuffle_epi8(_mm512_permutexvar_epi32(s24Lanes(0, 3, 6, 9), v0), shuf);
  out[1] = _mm512_shuffle_epi8(_mm512_permutex2var_epi32(v0, s24Lanes(12, 15, 18, 21), v1), shuf);
  out[2] = _mm512_shuffle_epi8(_mm512_permutex2var_epi32(v1, s24Lanes(8, 11, 14, 17), v2), shuf);
  out[3] = _mm512_shuffle_epi8(_mm512_permutexvar_epi32(s24Lanes(4, 7, 10, 13), v2), shuf);
}

// The inverse: the upper three bytes of every lane of four vectors, as 192 packed bytes;
// NT streams them past the caches (p must then be 64-byte aligned).
template <bool NT = false>
inline void storeS24x64(uint8_t* p, const __m512i in[4]) {
  const __m512i shuf = _mm512_broadcast_i32x4(
      _mm_setr_epi8(1, 2, 3, 5, 6, 7, 9, 10, 11, 13, 14, 15, -1, -1, -1, -1));
  __m512i c[4];
  for (int k = 0; k < 4; ++k) c[k] = _mm512_shuffle_epi8(in[k], shuf);
  // Lane j of c[k] holds stream dwords 12k+3j..+2 in its first three dwords.
  const __m512i i0 = _mm512_setr_epi32(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, 16, 17, 18, 20);
  const __m512i i1 = _mm512_setr_epi32(5, 6, 8, 9, 10, 12, 13, 14, 16, 17, 18, 20, 21, 22, 24, 25);
  const __m512i i2 =
      _mm512_setr_epi32(10, 12, 13, 14, 16, 17, 18, 20, 21, 22, 24, 25, 26, 28, 29, 30);
  const __m512i out[3] = {_mm512_permutex2var_epi32(c[0], i0, c[1]),
                          _mm512_permutex2var_epi32(c[1], i1, c[2]),
                          _mm512_permutex2var_epi32(c[2], i2, c[3])};
  for (int k = 0; k < 3; ++k) {
    if constexpr (NT)
      _mm512_stream_si512(reinterpret_cast<__m512i*>(p + 64 * k), out[k]);
    else
      _mm512_storeu_si512(p + 64 * k, out[k]);
  }
}

constexpr __mmask64 kS24Bytes = 0x0000FFFFFFFFFFFFull;  // 16 samples of 3 bytes

// Sixteen samples in high form through byte masks, for the last blocks of a buffer.
inline __m512i loadS24x16(const uint8_t* p) {
  const __m512i v = _mm512_maskz_loadu_epi8(kS24Bytes, p);
  const __m512i shuf =
      _mm512_broadcast_i32x4(_mm_setr_epi8(-1, 0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11));
  return _mm512_shuffle_epi8(_mm512_permutexvar_epi32(s24Lanes(0, 3, 6, 9), v), shuf);
}
inline void storeS24x16(uint8_t* p, __m512i v) {
  const __m512i shuf = _mm512_broadcast_i32x4(
      _mm_setr_epi8(1, 2, 3, 5, 6, 7, 9, 10, 11, 13, 14, 15, -1, -1, -1, -1));
  const __m512i packed = _mm512_permutexvar_epi32(
      _mm512_setr_epi32(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, 0, 0, 0, 0),
      _mm512_shuffle_epi8(v, shuf));
  _mm512_mask_storeu_epi8(p, kS24Bytes, packed);
}

}  // namespace
}  // namespace ostra::audio
