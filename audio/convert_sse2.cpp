// SSE2 converters between 16-bit integers and single precision, and between single and
// double precision. Compiled with SSE2 for this file only. The arithmetic matches the
// plain converters bit for bit (see convert_avx2.cpp for why single precision suffices
// for 16-bit samples).
#include <emmintrin.h>

#include "audio/internal/tables.h"

namespace ostra::audio {
namespace {

constexpr int kBlock = 8;

template <bool Unity>
inline void s16ToF32(uint8_t* d, const uint8_t* s, float gain) {
  const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s));
  const __m128 norm = _mm_set1_ps(1.0f / 32768.0f);
  __m128 a = _mm_mul_ps(_mm_cvtepi32_ps(_mm_srai_epi32(_mm_unpacklo_epi16(v, v), 16)), norm);
  __m128 b = _mm_mul_ps(_mm_cvtepi32_ps(_mm_srai_epi32(_mm_unpackhi_epi16(v, v), 16)), norm);
  if constexpr (!Unity) {
    a = _mm_mul_ps(a, _mm_set1_ps(gain));
    b = _mm_mul_ps(b, _mm_set1_ps(gain));
  }
  _mm_storeu_ps(reinterpret_cast<float*>(d), a);
  _mm_storeu_ps(reinterpret_cast<float*>(d) + 4, b);
}

inline __m128i quantize16(__m128 v) {
  __m128 x = _mm_mul_ps(v, _mm_set1_ps(32768.0f));
  x = _mm_max_ps(x, _mm_set1_ps(-32768.0f));
  x = _mm_min_ps(x, _mm_set1_ps(32767.0f));
  return _mm_cvtps_epi32(x);
}

template <bool Unity>
inline void f32ToS16(uint8_t* d, const uint8_t* s, float gain) {
  __m128 a = _mm_loadu_ps(reinterpret_cast<const float*>(s));
  __m128 b = _mm_loadu_ps(reinterpret_cast<const float*>(s) + 4);
  if constexpr (!Unity) {
    a = _mm_mul_ps(a, _mm_set1_ps(gain));
    b = _mm_mul_ps(b, _mm_set1_ps(gain));
  }
  _mm_storeu_si128(reinterpret_cast<__m128i*>(d), _mm_packs_epi32(quantize16(a), quantize16(b)));
}

template <bool Unity>
inline void f32ToF64(uint8_t* d, const uint8_t* s, float gain) {
  __m128 a = _mm_loadu_ps(reinterpret_cast<const float*>(s));
  __m128 b = _mm_loadu_ps(reinterpret_cast<const float*>(s) + 4);
  if constexpr (!Unity) {
    a = _mm_mul_ps(a, _mm_set1_ps(gain));
    b = _mm_mul_ps(b, _mm_set1_ps(gain));
  }
  double* o = reinterpret_cast<double*>(d);
  _mm_storeu_pd(o, _mm_cvtps_pd(a));
  _mm_storeu_pd(o + 2, _mm_cvtps_pd(_mm_movehl_ps(a, a)));
  _mm_storeu_pd(o + 4, _mm_cvtps_pd(b));
  _mm_storeu_pd(o + 6, _mm_cvtps_pd(_mm_movehl_ps(b, b)));
}

template <bool Unity>
inline void f64ToF32(uint8_t* d, const uint8_t* s, float gain) {
  const double* in = reinterpret_cast<const double*>(s);
  __m128d v[4];
  for (int k = 0; k < 4; ++k) {
    v[k] = _mm_loadu_pd(in + 2 * k);
    if constexpr (!Unity) v[k] = _mm_mul_pd(v[k], _mm_set1_pd(double(gain)));
  }
  float* o = reinterpret_cast<float*>(d);
  _mm_storeu_ps(o, _mm_movelh_ps(_mm_cvtpd_ps(v[0]), _mm_cvtpd_ps(v[1])));
  _mm_storeu_ps(o + 4, _mm_movelh_ps(_mm_cvtpd_ps(v[2]), _mm_cvtpd_ps(v[3])));
}

using Block = void (*)(uint8_t*, const uint8_t*, float);

// Whole blocks in the plain converter's direction, the rest through the plain converter.
template <int DB, int SB, int DI, int SI, Block Unity, Block Scaled>
void run(void* dest, const void* src, int32_t n, float gain) {
  if (n <= 0 || !dest || !src) return;
  auto* d = static_cast<uint8_t*>(dest);
  auto* s = static_cast<const uint8_t*>(src);
  const int32_t whole = n / kBlock, rest = n - whole * kBlock;
  const Block op = gain == 1.0f ? Unity : Scaled;
  if constexpr (DB > SB) {
    uint8_t* db = d + rest * DB;
    const uint8_t* sb = s + rest * SB;
    for (int32_t i = whole - 1; i >= 0; --i) op(db + i * kBlock * DB, sb + i * kBlock * SB, gain);
    kPlainConverters.fn[DI][SI](d, s, rest, gain);
  } else {
    for (int32_t i = 0; i < whole; ++i) op(d + i * kBlock * DB, s + i * kBlock * SB, gain);
    kPlainConverters.fn[DI][SI](d + whole * kBlock * DB, s + whole * kBlock * SB, rest, gain);
  }
}

}  // namespace

void installConvertSse2(ConverterTable& t, DWORD features) noexcept {
  if (features & KACPU_SSE2) {
    t.fn[kF32][kS16] = &run<4, 2, kF32, kS16, s16ToF32<true>, s16ToF32<false>>;
    t.fn[kS16][kF32] = &run<2, 4, kS16, kF32, f32ToS16<true>, f32ToS16<false>>;
    t.variant[kF32][kS16] = t.variant[kS16][kF32] = kSse2;
  }
  if ((features & (KACPU_SSE | KACPU_SSE2)) == (KACPU_SSE | KACPU_SSE2)) {
    t.fn[kF64][kF32] = &run<8, 4, kF64, kF32, f32ToF64<true>, f32ToF64<false>>;
    t.fn[kF32][kF64] = &run<4, 8, kF32, kF64, f64ToF32<true>, f64ToF32<false>>;
    t.variant[kF64][kF32] = t.variant[kF32][kF64] = kSse2;
  }
}

}  // namespace ostra::audio
