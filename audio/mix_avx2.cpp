// AVX2 mixers: the floating-point pairs, 16-bit into single precision, and the
// same-type integer mixers (16-bit, 32-bit, packed 24-bit, 24-in-32). Compiled with AVX2
// for this file only. Results equal the plain mixers bit for bit: products are formed in
// double precision as the plain code does, clamps send NaN to the lowest value, and
// integer sums saturate.
#include <immintrin.h>

#include <type_traits>

#include "audio/internal/mix_blocks.h"

namespace ostra::audio {
namespace {

inline __m256i satAdd32(__m256i a, __m256i b) {
  const __m256i sum = _mm256_add_epi32(a, b);
  const __m256i ovf = _mm256_and_si256(_mm256_xor_si256(a, sum), _mm256_xor_si256(b, sum));
  const __m256i sat = _mm256_xor_si256(_mm256_srai_epi32(a, 31), _mm256_set1_epi32(0x7FFFFFFF));
  return _mm256_castps_si256(_mm256_blendv_ps(_mm256_castsi256_ps(sum), _mm256_castsi256_ps(sat),
                                              _mm256_castsi256_ps(ovf)));
}

inline __m256 loadF(const uint8_t* p) { return _mm256_loadu_ps(reinterpret_cast<const float*>(p)); }
inline __m256d loadD(const uint8_t* p) {
  return _mm256_loadu_pd(reinterpret_cast<const double*>(p));
}
inline __m256i loadI(const uint8_t* p) {
  return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
}
inline void storeI(uint8_t* p, __m256i v) { _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), v); }

// Eight packed 24-bit samples as int32 shifted up by 8 (low byte 0); no byte outside the
// 24 is read.
inline __m256i loadS24Shifted(const uint8_t* p) {
  const __m256i v = _mm256_loadu2_m128i(reinterpret_cast<const __m128i*>(p + 8),
                                        reinterpret_cast<const __m128i*>(p));
  const __m256i shuf = _mm256_setr_epi8(-1, 0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11,  //
                                        -1, 4, 5, 6, -1, 7, 8, 9, -1, 10, 11, 12, -1, 13, 14, 15);
  return _mm256_shuffle_epi8(v, shuf);
}
inline void storeS24Shifted(uint8_t* p, __m256i v) {
  const __m256i shuf = _mm256_setr_epi8(1, 2, 3, 5, 6, 7, 9, 10, 11, 13, 14, 15, -1, -1, -1, -1,  //
                                        -1, -1, -1, -1, 1, 2, 3, 5, 6, 7, 9, 10, 11, 13, 14, 15);
  const __m256i s = _mm256_shuffle_epi8(v, shuf);
  const __m128i lo = _mm256_castsi256_si128(s);
  const __m128i hi = _mm_or_si128(_mm256_extracti128_si256(s, 1), _mm_srli_si128(lo, 8));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(p), lo);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(p + 8), hi);
}

// Scale-clamp-round of four normalised doubles to `bits`-bit integers, as the plain
// quantiser does (min(hi, x) keeps NaN, which the conversion sends to INT32_MIN).
template <int Bits>
inline __m128i quantize(__m256d v) {
  constexpr double scale = double(1ll << (Bits - 1));
  const __m256d x = _mm256_mul_pd(v, _mm256_set1_pd(scale));
  const __m128i r = _mm256_cvtpd_epi32(_mm256_min_pd(_mm256_set1_pd(scale - 1.0), x));
  if constexpr (Bits == 16 || Bits == 32) return r;
  return _mm_max_epi32(r, _mm_set1_epi32(-int32_t(scale)));
}

// Each kernel mixes one block of `block` samples; `g` points at the gains of those
// samples (already laid out per sample).
struct F32F32 {
  static constexpr int block = 8, db = 4, sb = 4;
  static void unity(uint8_t* d, const uint8_t* s) {
    _mm256_storeu_ps(reinterpret_cast<float*>(d), _mm256_add_ps(loadF(d), loadF(s)));
  }
  static void gain(uint8_t* d, const uint8_t* s, const double* g) {
    const __m256d ga = _mm256_loadu_pd(g), gb = _mm256_loadu_pd(g + 4);
    const __m256 f = loadF(s);
    const __m256d a = _mm256_mul_pd(_mm256_cvtps_pd(_mm256_castps256_ps128(f)), ga);
    const __m256d b = _mm256_mul_pd(_mm256_cvtps_pd(_mm256_extractf128_ps(f, 1)), gb);
    const __m256 v = _mm256_set_m128(_mm256_cvtpd_ps(b), _mm256_cvtpd_ps(a));
    _mm256_storeu_ps(reinterpret_cast<float*>(d), _mm256_add_ps(loadF(d), v));
  }
  static void gainSingle(uint8_t* d, const uint8_t* s, const float* g) {
    const __m256 v = _mm256_mul_ps(loadF(s), _mm256_loadu_ps(g));
    _mm256_storeu_ps(reinterpret_cast<float*>(d), _mm256_add_ps(loadF(d), v));
  }
};

struct F64F64 {
  static constexpr int block = 8, db = 8, sb = 8;
  static void unity(uint8_t* d, const uint8_t* s) {
    auto* o = reinterpret_cast<double*>(d);
    _mm256_storeu_pd(o, _mm256_add_pd(loadD(d), loadD(s)));
    _mm256_storeu_pd(o + 4, _mm256_add_pd(loadD(d + 32), loadD(s + 32)));
  }
  static void gain(uint8_t* d, const uint8_t* s, const double* g) {
    const __m256d ga = _mm256_loadu_pd(g), gb = _mm256_loadu_pd(g + 4);
    auto* o = reinterpret_cast<double*>(d);
    _mm256_storeu_pd(o, _mm256_add_pd(loadD(d), _mm256_mul_pd(loadD(s), ga)));
    _mm256_storeu_pd(o + 4, _mm256_add_pd(loadD(d + 32), _mm256_mul_pd(loadD(s + 32), gb)));
  }
};

struct F64F32 {
  static constexpr int block = 8, db = 8, sb = 4;
  static void unity(uint8_t* d, const uint8_t* s) {
    const __m256 f = loadF(s);
    auto* o = reinterpret_cast<double*>(d);
    _mm256_storeu_pd(o, _mm256_add_pd(loadD(d), _mm256_cvtps_pd(_mm256_castps256_ps128(f))));
    _mm256_storeu_pd(o + 4,
                     _mm256_add_pd(loadD(d + 32), _mm256_cvtps_pd(_mm256_extractf128_ps(f, 1))));
  }
  static void gain(uint8_t* d, const uint8_t* s, const double* g) {
    const __m256d ga = _mm256_loadu_pd(g), gb = _mm256_loadu_pd(g + 4);
    const __m256 f = loadF(s);
    const __m256d a = _mm256_mul_pd(_mm256_cvtps_pd(_mm256_castps256_ps128(f)), ga);
    const __m256d b = _mm256_mul_pd(_mm256_cvtps_pd(_mm256_extractf128_ps(f, 1)), gb);
    auto* o = reinterpret_cast<double*>(d);
    _mm256_storeu_pd(o, _mm256_add_pd(loadD(d), a));
    _mm256_storeu_pd(o + 4, _mm256_add_pd(loadD(d + 32), b));
  }
};

struct F32F64 {
  static constexpr int block = 8, db = 4, sb = 8;
  static void add(uint8_t* d, __m256d a, __m256d b) {
    const __m256 v = _mm256_set_m128(_mm256_cvtpd_ps(b), _mm256_cvtpd_ps(a));
    _mm256_storeu_ps(reinterpret_cast<float*>(d), _mm256_add_ps(loadF(d), v));
  }
  static void unity(uint8_t* d, const uint8_t* s) { add(d, loadD(s), loadD(s + 32)); }
  static void gain(uint8_t* d, const uint8_t* s, const double* g) {
    const __m256d ga = _mm256_loadu_pd(g), gb = _mm256_loadu_pd(g + 4);
    add(d, _mm256_mul_pd(loadD(s), ga), _mm256_mul_pd(loadD(s + 32), gb));
  }
};

struct F32S16 {
  static constexpr int block = 8, db = 4, sb = 2;
  static __m256i load(const uint8_t* s) {
    return _mm256_cvtepi16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s)));
  }
  static void unity(uint8_t* d, const uint8_t* s) {
    // A 16-bit value over 32768 is exact in single precision.
    const __m256 v = _mm256_mul_ps(_mm256_cvtepi32_ps(load(s)), _mm256_set1_ps(1.0f / 32768.0f));
    _mm256_storeu_ps(reinterpret_cast<float*>(d), _mm256_add_ps(loadF(d), v));
  }
  static void gain(uint8_t* d, const uint8_t* s, const double* g) {
    const __m256d ga = _mm256_loadu_pd(g), gb = _mm256_loadu_pd(g + 4);
    const __m256i i = load(s);
    const __m256d n = _mm256_set1_pd(1.0 / 32768.0);
    const __m256d a =
        _mm256_mul_pd(_mm256_mul_pd(_mm256_cvtepi32_pd(_mm256_castsi256_si128(i)), n), ga);
    const __m256d b =
        _mm256_mul_pd(_mm256_mul_pd(_mm256_cvtepi32_pd(_mm256_extracti128_si256(i, 1)), n), gb);
    const __m256 v = _mm256_set_m128(_mm256_cvtpd_ps(b), _mm256_cvtpd_ps(a));
    _mm256_storeu_ps(reinterpret_cast<float*>(d), _mm256_add_ps(loadF(d), v));
  }
};

struct S16S16 {
  static constexpr int block = 16, db = 2, sb = 2;
  static void unity(uint8_t* d, const uint8_t* s) {
    storeI(d, _mm256_adds_epi16(loadI(d), loadI(s)));
  }
  static void gain(uint8_t* d, const uint8_t* s, const double* g) {
    const __m256i v = loadI(s);
    const __m256i lo32 = _mm256_cvtepi16_epi32(_mm256_castsi256_si128(v));
    const __m256i hi32 = _mm256_cvtepi16_epi32(_mm256_extracti128_si256(v, 1));
    const __m256d n = _mm256_set1_pd(1.0 / 32768.0);
    const __m256d gg =
        _mm256_loadu_pd(g);  // every lane holds the first gain: this mixer applies only that
    auto q = [&](__m128i x) {
      return quantize<16>(_mm256_mul_pd(_mm256_mul_pd(_mm256_cvtepi32_pd(x), n), gg));
    };
    const __m256i a =
        _mm256_set_m128i(q(_mm256_extracti128_si256(lo32, 1)), q(_mm256_castsi256_si128(lo32)));
    const __m256i b =
        _mm256_set_m128i(q(_mm256_extracti128_si256(hi32, 1)), q(_mm256_castsi256_si128(hi32)));
    const __m256i packed = _mm256_permute4x64_epi64(_mm256_packs_epi32(a, b), 0xD8);
    storeI(d, _mm256_adds_epi16(loadI(d), packed));
  }
};

struct S32S32 {
  static constexpr int block = 8, db = 4, sb = 4;
  static void unity(uint8_t* d, const uint8_t* s) { storeI(d, satAdd32(loadI(d), loadI(s))); }
  static void gain(uint8_t* d, const uint8_t* s, const double* g) {
    const __m256d ga = _mm256_loadu_pd(g), gb = _mm256_loadu_pd(g + 4);
    const __m256i v = loadI(s);
    const __m256d n = _mm256_set1_pd(1.0 / 2147483648.0);
    const __m128i a = quantize<32>(
        _mm256_mul_pd(_mm256_mul_pd(_mm256_cvtepi32_pd(_mm256_castsi256_si128(v)), n), ga));
    const __m128i b = quantize<32>(
        _mm256_mul_pd(_mm256_mul_pd(_mm256_cvtepi32_pd(_mm256_extracti128_si256(v, 1)), n), gb));
    storeI(d, satAdd32(loadI(d), _mm256_set_m128i(b, a)));
  }
};

// A 24-bit sample held in the upper bits of a lane saturates at 0x7FFFFFFF / 0x80000000
// exactly where the 24-bit sum would clamp, so the 32-bit saturating add serves it too.
inline __m256i clamp24(__m256i v) {
  return _mm256_max_epi32(_mm256_min_epi32(v, _mm256_set1_epi32(8388607)),
                          _mm256_set1_epi32(-8388608));
}
// Eight 24-bit values (int32 lanes) scaled by the gains, clamped to 24 bits.
inline __m256i scaled24(__m256i v, __m256d ga, __m256d gb) {
  const __m256d n = _mm256_set1_pd(1.0 / 8388608.0);
  const __m128i a = quantize<24>(
      _mm256_mul_pd(_mm256_mul_pd(_mm256_cvtepi32_pd(_mm256_castsi256_si128(v)), n), ga));
  const __m128i b = quantize<24>(
      _mm256_mul_pd(_mm256_mul_pd(_mm256_cvtepi32_pd(_mm256_extracti128_si256(v, 1)), n), gb));
  return _mm256_set_m128i(b, a);
}

struct S24S24 {
  static constexpr int block = 8, db = 3, sb = 3;
  static void unity(uint8_t* d, const uint8_t* s) {
    storeS24Shifted(d, satAdd32(loadS24Shifted(d), loadS24Shifted(s)));
  }
  static void gain(uint8_t* d, const uint8_t* s, const double* g) {
    const __m256d ga = _mm256_loadu_pd(g), gb = _mm256_loadu_pd(g + 4);
    const __m256i q = scaled24(_mm256_srai_epi32(loadS24Shifted(s), 8), ga, gb);
    const __m256i sum = clamp24(_mm256_add_epi32(_mm256_srai_epi32(loadS24Shifted(d), 8), q));
    storeS24Shifted(d, _mm256_slli_epi32(sum, 8));
  }
};

// The low byte of a 24-in-32 sample is not part of its value and is written as 0.
struct S24in32S24in32 {
  static constexpr int block = 8, db = 4, sb = 4;
  static void unity(uint8_t* d, const uint8_t* s) {
    const __m256i m = _mm256_set1_epi32(int32_t(0xFFFFFF00u));
    const __m256i sum = satAdd32(_mm256_and_si256(loadI(d), m), _mm256_and_si256(loadI(s), m));
    storeI(d, _mm256_and_si256(sum, m));  // 0x7FFFFFFF keeps its low byte
  }
  static void gain(uint8_t* d, const uint8_t* s, const double* g) {
    const __m256d ga = _mm256_loadu_pd(g), gb = _mm256_loadu_pd(g + 4);
    const __m256i q = scaled24(_mm256_srai_epi32(loadI(s), 8), ga, gb);
    const __m256i sum = clamp24(_mm256_add_epi32(_mm256_srai_epi32(loadI(d), 8), q));
    storeI(d, _mm256_slli_epi32(sum, 8));
  }
};

}  // namespace

void installMixAvx2(MixerTable& t, DWORD) noexcept {
  putMixer<F32F32, kF32, kF32, kAvx2>(t);
  putMixer<F64F64, kF64, kF64, kAvx2>(t);
  putMixer<F64F32, kF64, kF32, kAvx2>(t);
  putMixer<F32F64, kF32, kF64, kAvx2>(t);
  putMixer<F32S16, kF32, kS16, kAvx2>(t);
  putMixer<S16S16, kS16, kS16, kAvx2, true>(t);
  putMixer<S32S32, kS32, kS32, kAvx2>(t);
  putMixer<S24S24, kS24, kS24, kAvx2>(t);
  putMixer<S24in32S24in32, kS24in32, kS24in32, kAvx2>(t);
}

}  // namespace ostra::audio
