// AVX2 converters for the pairs that move 16-, 24- and 32-bit integers to or from
// single or double precision, single <-> double precision, and unsigned 8-bit to single
// precision. Compiled with AVX2 for this file only; chosen by the converter table when
// the processor and the host allow AVX2.
//
// Every kernel reproduces the plain converter's bits. Where the plain converter works in
// double precision this code may use single precision only when no rounding can differ:
// an integer of at most 24 bits is exact in single precision, a power-of-two scale is
// exact, and a 24-bit value times a single-precision gain is exact in double, so one
// single-precision rounding equals the plain double product narrowed once. Clamping uses
// max(x, lo) then min(x, hi), which sends NaN to lo like the plain comparisons do.
#include <immintrin.h>

#include <type_traits>

#include "audio/internal/vector_pairs.h"

namespace ostra::audio {
namespace {

constexpr int kBlock = 8;

// ---------------------------------------------------------------- loads (8 samples)
using namespace vec;

// Eight integer samples as int32 values of their own width.
template <class S>
inline __m256i loadInt(const uint8_t* p) {
  if constexpr (std::is_same_v<S, TU8>) {
    const __m128i b = _mm_xor_si128(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)),
                                    _mm_set1_epi8(char(0x80)));
    return _mm256_cvtepi8_epi32(b);
  } else if constexpr (std::is_same_v<S, TS16>) {
    return _mm256_cvtepi16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
  } else if constexpr (std::is_same_v<S, TS24>) {
    // Bytes 0-15 hold samples 0-3, bytes 8-23 samples 4-7: no byte outside the block is
    // read. Each sample lands in the upper three bytes of its lane, then shifts down.
    const __m256i v = _mm256_loadu2_m128i(reinterpret_cast<const __m128i*>(p + 8),
                                          reinterpret_cast<const __m128i*>(p));
    const __m256i shuf = _mm256_setr_epi8(-1, 0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1,
                                          4, 5, 6, -1, 7, 8, 9, -1, 10, 11, 12, -1, 13, 14, 15);
    return _mm256_srai_epi32(_mm256_shuffle_epi8(v, shuf), 8);
  } else if constexpr (std::is_same_v<S, TS24in32>) {
    return _mm256_srai_epi32(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)), 8);
  } else {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
  }
}

// Eight int32 values (already clamped to the type's range) stored as samples.
template <class D>
inline void storeInt(uint8_t* p, __m256i v) {
  if constexpr (std::is_same_v<D, TS16>) {
    const __m128i packed =
        _mm_packs_epi32(_mm256_castsi256_si128(v), _mm256_extracti128_si256(v, 1));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(p), packed);
  } else if constexpr (std::is_same_v<D, TS24>) {
    const __m256i shuf =
        _mm256_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1,  //
                         -1, -1, -1, -1, 0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14);
    const __m256i s = _mm256_shuffle_epi8(v, shuf);
    const __m128i lo = _mm256_castsi256_si128(s);  // block bytes 0-11
    // Block bytes 8-23: 8-11 from the low half, 12-23 from the high half.
    const __m128i hi = _mm_or_si128(_mm256_extracti128_si256(s, 1), _mm_srli_si128(lo, 8));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(p), lo);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(p + 8), hi);
  } else if constexpr (std::is_same_v<D, TS24in32>) {
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), _mm256_slli_epi32(v, 8));
  } else {
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), v);
  }
}

template <class T>
constexpr float kNormF = 1.0f / float(1ll << (T::bits - 1));
template <class T>
constexpr double kNormD = 1.0 / double(1ll << (T::bits - 1));
template <class T>
constexpr double kScaleD = double(1ll << (T::bits - 1));

// Normalised single precision; exact for integers of up to 24 bits, correctly rounded
// (like the plain double value narrowed once) for 32-bit integers.
template <class S>
inline __m256 loadF(const uint8_t* p) {
  if constexpr (std::is_same_v<S, TF32>)
    return _mm256_loadu_ps(reinterpret_cast<const float*>(p));
  else
    return _mm256_mul_ps(_mm256_cvtepi32_ps(loadInt<S>(p)), _mm256_set1_ps(kNormF<S>));
}

// Normalised double precision, samples 0-3 in a and 4-7 in b.
template <class S>
inline void loadD(const uint8_t* p, __m256d& a, __m256d& b) {
  if constexpr (std::is_same_v<S, TF64>) {
    a = _mm256_loadu_pd(reinterpret_cast<const double*>(p));
    b = _mm256_loadu_pd(reinterpret_cast<const double*>(p) + 4);
  } else if constexpr (std::is_same_v<S, TF32>) {
    const __m256 f = _mm256_loadu_ps(reinterpret_cast<const float*>(p));
    a = _mm256_cvtps_pd(_mm256_castps256_ps128(f));
    b = _mm256_cvtps_pd(_mm256_extractf128_ps(f, 1));
  } else {
    const __m256i v = loadInt<S>(p);
    const __m256d n = _mm256_set1_pd(kNormD<S>);
    a = _mm256_mul_pd(_mm256_cvtepi32_pd(_mm256_castsi256_si128(v)), n);
    b = _mm256_mul_pd(_mm256_cvtepi32_pd(_mm256_extracti128_si256(v, 1)), n);
  }
}

// Scale, clamp and round in single precision: exact for every integer destination,
// because the scale is a power of two and the bounds are representable. Only the upper
// bound is applied in floating point, as min(hi, x), which keeps a NaN; the conversion
// turns NaN, -infinity and anything below -2^31 into INT32_MIN, and the lower bound is
// then applied to integers (by saturating packs for 16 bits), giving the plain results.
template <class D>
inline __m256i quantizeF(__m256 v) {
  const float scale = float(1ll << (D::bits - 1));
  const __m256 x = _mm256_mul_ps(v, _mm256_set1_ps(scale));
  if constexpr (D::bits == 32) {
    // Lanes at or above 2^31 convert to 0x80000000; flipping every bit gives 0x7FFFFFFF.
    const __m256 over = _mm256_cmp_ps(x, _mm256_set1_ps(2147483648.0f), _CMP_GE_OQ);
    return _mm256_xor_si256(_mm256_cvtps_epi32(x), _mm256_castps_si256(over));
  } else {
    const __m256i r = _mm256_cvtps_epi32(_mm256_min_ps(_mm256_set1_ps(scale - 1.0f), x));
    if constexpr (D::bits == 16) return r;  // packs saturates
    return _mm256_max_epi32(r, _mm256_set1_epi32(-int32_t(scale)));
  }
}

template <class D>
inline void storeF(uint8_t* p, __m256 v) {
  if constexpr (std::is_same_v<D, TF32>) {
    _mm256_storeu_ps(reinterpret_cast<float*>(p), v);
  } else if constexpr (std::is_same_v<D, TF64>) {
    _mm256_storeu_pd(reinterpret_cast<double*>(p), _mm256_cvtps_pd(_mm256_castps256_ps128(v)));
    _mm256_storeu_pd(reinterpret_cast<double*>(p) + 4,
                     _mm256_cvtps_pd(_mm256_extractf128_ps(v, 1)));
  } else {
    storeInt<D>(p, quantizeF<D>(v));
  }
}

// Sixteen 16-bit samples from two vectors of int32 in one store.
inline void storeS16Pair(uint8_t* p, __m256i a, __m256i b) {
  const __m256i packed = _mm256_permute4x64_epi64(_mm256_packs_epi32(a, b), 0xD8);
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), packed);
}

// As quantizeF, in double precision for four samples.
template <class D>
inline __m128i quantizeD(__m256d v) {
  const __m256d x = _mm256_mul_pd(v, _mm256_set1_pd(kScaleD<D>));
  const __m128i r = _mm256_cvtpd_epi32(_mm256_min_pd(_mm256_set1_pd(kScaleD<D> - 1.0), x));
  if constexpr (D::bits == 16 || D::bits == 32) return r;
  return _mm_max_epi32(r, _mm_set1_epi32(-int32_t(kScaleD<D>)));
}

template <class D>
inline void storeD(uint8_t* p, __m256d a, __m256d b) {
  if constexpr (std::is_same_v<D, TF64>) {
    _mm256_storeu_pd(reinterpret_cast<double*>(p), a);
    _mm256_storeu_pd(reinterpret_cast<double*>(p) + 4, b);
  } else if constexpr (std::is_same_v<D, TF32>) {
    _mm256_storeu_ps(reinterpret_cast<float*>(p),
                     _mm256_set_m128(_mm256_cvtpd_ps(b), _mm256_cvtpd_ps(a)));
  } else {
    storeInt<D>(p, _mm256_set_m128i(quantizeD<D>(b), quantizeD<D>(a)));
  }
}

// Which arithmetic a pair needs to match the plain converter.
template <class D, class S, bool Unity>
constexpr bool kSingle = std::is_same_v<S, TF32> ||
                         (std::is_same_v<D, TF32> && (!std::is_same_v<S, TS32> || Unity) &&
                          !std::is_same_v<S, TF64>);

// K consecutive blocks: every load before any store, so that a block's store can only
// overwrite source bytes already read (in place, widening walks backwards and narrowing
// forwards, and a store never reaches the source of a later group).
template <class D, class S, bool Unity, int K>
inline void group(uint8_t* d, const uint8_t* s, float gain) {
  constexpr int db = D::bytes * kBlock, sb = S::bytes * kBlock;
  if constexpr (kSingle<D, S, Unity>) {
    __m256 v[K];
    for (int k = 0; k < K; ++k) {
      v[k] = loadF<S>(s + k * sb);
      if constexpr (!Unity) v[k] = _mm256_mul_ps(v[k], _mm256_set1_ps(gain));
    }
    if constexpr (std::is_same_v<D, TS16> && K % 2 == 0) {
      for (int k = 0; k < K; k += 2)
        storeS16Pair(d + k * db, quantizeF<D>(v[k]), quantizeF<D>(v[k + 1]));
    } else {
      for (int k = 0; k < K; ++k) storeF<D>(d + k * db, v[k]);
    }
  } else {
    __m256d a[K], b[K];
    for (int k = 0; k < K; ++k) {
      loadD<S>(s + k * sb, a[k], b[k]);
      if constexpr (!Unity) {
        const __m256d g = _mm256_set1_pd(double(gain));
        a[k] = _mm256_mul_pd(a[k], g);
        b[k] = _mm256_mul_pd(b[k], g);
      }
    }
    for (int k = 0; k < K; ++k) storeD<D>(d + k * db, a[k], b[k]);
  }
}

struct Kernels {
  static constexpr int block = kBlock;
  static constexpr bool canStream = false;
  template <class D, class S, bool Unity, int N, bool>
  static void group(uint8_t* d, const uint8_t* s, float gain) {
    ostra::audio::group<D, S, Unity, N>(d, s, gain);
  }
};

}  // namespace

void installConvertAvx2(ConverterTable& t, DWORD) noexcept {
  installVectorConverters<Kernels, kAvx2>(t);
}

}  // namespace ostra::audio
