// The packed 24-bit mixer with AVX-512 VBMI byte permutes: sixty-four samples (three
// whole vectors) a block, each sample moved into the upper three bytes of a 32-bit lane
// by one two-source byte permute and back the same way, with one 32-bit saturating add
// between. Chosen over the plain AVX-512 mixer when the processor has VBMI.
//
// GCC 12's AVX-512 headers start some conversions from an undefined vector and then warn
// about it; the warning is about the header, not this code.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#pragma GCC diagnostic ignored "-Wuninitialized"
#include <immintrin.h>

#include <array>

#include "audio/internal/mix_blocks.h"

namespace ostra::audio {
namespace {

using Bytes64 = std::array<uint8_t, 64>;

// Unpacking: lane i of vector k takes stream bytes 48k + 3i .. +2 into its bytes 1-3;
// `base` is the stream offset of the first of the two source vectors.
constexpr Bytes64 unpackIndex(int k, int base) {
  Bytes64 t{};
  for (int i = 0; i < 16; ++i)
    for (int b = 1; b < 4; ++b) t[size_t(4 * i + b)] = uint8_t(48 * k + 3 * i + b - 1 - base);
  return t;
}
// Packing: stream byte t of output vector v comes from byte 4(m % 16) + 1 + b of the
// high-form vector m / 16 (m = t / 3, b = t % 3); `first` is the first of the two.
constexpr Bytes64 packIndex(int v, int first) {
  Bytes64 t{};
  for (int j = 0; j < 64; ++j) {
    const int byte = 64 * v + j, m = byte / 3, b = byte % 3;
    t[size_t(j)] = uint8_t((m / 16 - first) * 64 + 4 * (m % 16) + 1 + b);
  }
  return t;
}
alignas(64) constexpr Bytes64 kUnpack[4] = {unpackIndex(0, 0), unpackIndex(1, 0),
                                            unpackIndex(2, 64), unpackIndex(3, 128)};
alignas(64) constexpr Bytes64 kPack[3] = {packIndex(0, 0), packIndex(1, 1), packIndex(2, 2)};
constexpr __mmask64 kHighBytes = 0xEEEEEEEEEEEEEEEEull;  // bytes 1-3 of every lane

inline __m512i idx(const Bytes64& t) { return _mm512_load_si512(t.data()); }

inline void load64(const uint8_t* p, __m512i out[4]) {
  const __m512i v0 = _mm512_loadu_si512(p), v1 = _mm512_loadu_si512(p + 64),
                v2 = _mm512_loadu_si512(p + 128);
  out[0] = _mm512_maskz_permutexvar_epi8(kHighBytes, idx(kUnpack[0]), v0);
  out[1] = _mm512_maskz_permutex2var_epi8(kHighBytes, v0, idx(kUnpack[1]), v1);
  out[2] = _mm512_maskz_permutex2var_epi8(kHighBytes, v1, idx(kUnpack[2]), v2);
  out[3] = _mm512_maskz_permutexvar_epi8(kHighBytes, idx(kUnpack[3]), v2);
}
inline void store64(uint8_t* p, const __m512i in[4]) {
  _mm512_storeu_si512(p, _mm512_permutex2var_epi8(in[0], idx(kPack[0]), in[1]));
  _mm512_storeu_si512(p + 64, _mm512_permutex2var_epi8(in[1], idx(kPack[1]), in[2]));
  _mm512_storeu_si512(p + 128, _mm512_permutex2var_epi8(in[2], idx(kPack[2]), in[3]));
}

inline __m512i satAdd32(__m512i a, __m512i b) {
  const __m512i sum = _mm512_add_epi32(a, b);
  const __m512i t = _mm512_ternarylogic_epi32(a, b, sum, 0x42);  // (a ^ sum) & (b ^ sum)
  const __mmask16 ovf = _mm512_cmplt_epi32_mask(t, _mm512_setzero_si512());
  return _mm512_mask_xor_epi32(sum, ovf, _mm512_srai_epi32(a, 31), _mm512_set1_epi32(0x7FFFFFFF));
}

inline __m256i quantize24(__m512d v) {
  const __m512d x = _mm512_mul_pd(v, _mm512_set1_pd(8388608.0));
  const __m256i r = _mm512_cvtpd_epi32(_mm512_min_pd(_mm512_set1_pd(8388607.0), x));
  return _mm256_max_epi32(r, _mm256_set1_epi32(-8388608));
}

struct S24S24 {
  static constexpr int block = 64, db = 3, sb = 3;
  static void unity(uint8_t* d, const uint8_t* s) {
    __m512i a[4], b[4];
    load64(d, a);
    load64(s, b);
    for (int k = 0; k < 4; ++k) a[k] = satAdd32(a[k], b[k]);
    store64(d, a);
  }
  static void gain(uint8_t* d, const uint8_t* s, const double* g) {
    __m512i a[4], b[4];
    load64(d, a);
    load64(s, b);
    const __m512d n = _mm512_set1_pd(1.0 / 8388608.0);
    for (int k = 0; k < 4; ++k) {
      const __m512i v = _mm512_srai_epi32(b[k], 8);
      const __m512d lo = _mm512_cvtepi32_pd(_mm512_castsi512_si256(v));
      const __m512d hi = _mm512_cvtepi32_pd(_mm512_extracti64x4_epi64(v, 1));
      const __m256i qa =
          quantize24(_mm512_mul_pd(_mm512_mul_pd(lo, n), _mm512_loadu_pd(g + 16 * k)));
      const __m256i qb =
          quantize24(_mm512_mul_pd(_mm512_mul_pd(hi, n), _mm512_loadu_pd(g + 16 * k + 8)));
      const __m512i q = _mm512_inserti64x4(_mm512_castsi256_si512(qa), qb, 1);
      const __m512i sum = _mm512_add_epi32(_mm512_srai_epi32(a[k], 8), q);
      a[k] = _mm512_slli_epi32(_mm512_max_epi32(_mm512_min_epi32(sum, _mm512_set1_epi32(8388607)),
                                                _mm512_set1_epi32(-8388608)),
                               8);
    }
    store64(d, a);
  }
};

}  // namespace

void installMixAvx512Vbmi(MixerTable& t, DWORD) noexcept {
  putMixer<S24S24, kS24, kS24, kAvx512>(t);
}

}  // namespace ostra::audio
