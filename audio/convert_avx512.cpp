// AVX-512 converters (F, BW, VL) for the same pairs as the AVX2 file, sixteen samples
// per block. Compiled with AVX-512 for this file only; chosen by the converter table
// when the processor and the host allow it.
//
// The arithmetic is the AVX2 file's, lane for lane: single precision only where no
// rounding can differ from the plain double-precision converter (integers of at most 24
// bits, power-of-two scales, a 24-bit value times a single-precision gain), clamps as
// min(hi, x) so that NaN reaches the integer conversion and becomes INT32_MIN, lower
// bounds applied to integers. Packed 24-bit samples move four blocks (192 bytes, three
// whole vectors) at a time, and the last blocks with byte masks, so no byte outside the
// buffer is touched. Destinations of 8 MiB and more are written past the caches.
//
// GCC 12's AVX-512 headers start some conversions from an undefined vector and then warn
// about it; the warning is about the header, not this code.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#pragma GCC diagnostic ignored "-Wuninitialized"
#include <immintrin.h>

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "audio/internal/s24_avx512.h"
#include "audio/internal/vector_pairs.h"

namespace ostra::audio {
namespace {

constexpr int kBlock = 16;

using namespace vec;

// Stores: streaming (past the caches) for destinations too large to stay in them, so
// that the processor does not first read every line it is about to overwrite.
template <bool NT>
inline void emit(uint8_t* p, __m512i v) {
  if constexpr (NT)
    _mm512_stream_si512(reinterpret_cast<__m512i*>(p), v);
  else
    _mm512_storeu_si512(p, v);
}
template <bool NT>
inline void emit(uint8_t* p, __m512 v) {
  emit<NT>(p, _mm512_castps_si512(v));
}
template <bool NT>
inline void emit(uint8_t* p, __m512d v) {
  emit<NT>(p, _mm512_castpd_si512(v));
}
template <bool NT>
inline void emit(uint8_t* p, __m256i v) {
  if constexpr (NT)
    _mm256_stream_si256(reinterpret_cast<__m256i*>(p), v);
  else
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), v);
}

// Sixteen integer samples as int32 values of their own width.
template <class S>
inline __m512i loadInt(const uint8_t* p) {
  if constexpr (std::is_same_v<S, TU8>) {
    const __m128i b = _mm_xor_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)),
                                    _mm_set1_epi8(char(0x80)));
    return _mm512_cvtepi8_epi32(b);
  } else if constexpr (std::is_same_v<S, TS16>) {
    return _mm512_cvtepi16_epi32(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)));
  } else if constexpr (std::is_same_v<S, TS24>) {
    return _mm512_srai_epi32(loadS24x16(p), 8);
  } else if constexpr (std::is_same_v<S, TS24in32>) {
    return _mm512_srai_epi32(_mm512_loadu_si512(p), 8);
  } else {
    return _mm512_loadu_si512(p);
  }
}

// Sixteen int32 values, already within the type's range (16 bits: saturated here).
template <class D, bool NT>
inline void storeInt(uint8_t* p, __m512i v) {
  if constexpr (std::is_same_v<D, TS16>) {
    emit<NT>(p, _mm512_cvtsepi32_epi16(v));
  } else if constexpr (std::is_same_v<D, TS24>) {
    storeS24x16(p, _mm512_slli_epi32(v, 8));
  } else if constexpr (std::is_same_v<D, TS24in32>) {
    emit<NT>(p, _mm512_slli_epi32(v, 8));
  } else {
    emit<NT>(p, v);
  }
}

template <class T>
constexpr float kNormF = 1.0f / float(1ll << (T::bits - 1));
template <class T>
constexpr double kNormD = 1.0 / double(1ll << (T::bits - 1));
template <class T>
constexpr double kScaleD = double(1ll << (T::bits - 1));

inline __m256 low(__m512 v) { return _mm512_castps512_ps256(v); }
inline __m256 high(__m512 v) {
  return _mm256_castpd_ps(_mm512_extractf64x4_pd(_mm512_castps_pd(v), 1));
}
inline __m512 join(__m256 a, __m256 b) {
  return _mm512_castpd_ps(
      _mm512_insertf64x4(_mm512_castpd256_pd512(_mm256_castps_pd(a)), _mm256_castps_pd(b), 1));
}

template <class S>
inline __m512 loadF(const uint8_t* p) {
  if constexpr (std::is_same_v<S, TF32>)
    return _mm512_loadu_ps(p);
  else
    return _mm512_mul_ps(_mm512_cvtepi32_ps(loadInt<S>(p)), _mm512_set1_ps(kNormF<S>));
}

// Normalised double precision, samples 0-7 in a and 8-15 in b.
template <class S>
inline void loadD(const uint8_t* p, __m512d& a, __m512d& b) {
  if constexpr (std::is_same_v<S, TF64>) {
    a = _mm512_loadu_pd(p);
    b = _mm512_loadu_pd(p + 64);
  } else if constexpr (std::is_same_v<S, TF32>) {
    const __m512 f = _mm512_loadu_ps(p);
    a = _mm512_cvtps_pd(low(f));
    b = _mm512_cvtps_pd(high(f));
  } else {
    const __m512i v = loadInt<S>(p);
    const __m512d n = _mm512_set1_pd(kNormD<S>);
    a = _mm512_mul_pd(_mm512_cvtepi32_pd(_mm512_castsi512_si256(v)), n);
    b = _mm512_mul_pd(_mm512_cvtepi32_pd(_mm512_extracti64x4_epi64(v, 1)), n);
  }
}

template <class D>
inline __m512i quantizeF(__m512 v) {
  const float scale = float(1ll << (D::bits - 1));
  const __m512 x = _mm512_mul_ps(v, _mm512_set1_ps(scale));
  if constexpr (D::bits == 32) {
    // Lanes at or above 2^31 convert to 0x80000000; flipping every bit gives 0x7FFFFFFF.
    const __mmask16 over = _mm512_cmp_ps_mask(x, _mm512_set1_ps(2147483648.0f), _CMP_GE_OQ);
    const __m512i r = _mm512_cvtps_epi32(x);
    return _mm512_mask_xor_epi32(r, over, r, _mm512_set1_epi32(-1));
  } else {
    const __m512i r = _mm512_cvtps_epi32(_mm512_min_ps(_mm512_set1_ps(scale - 1.0f), x));
    if constexpr (D::bits == 16) return r;  // the narrowing store saturates
    return _mm512_max_epi32(r, _mm512_set1_epi32(-int32_t(scale)));
  }
}

template <class D, bool NT>
inline void storeF(uint8_t* p, __m512 v) {
  if constexpr (std::is_same_v<D, TF32>) {
    emit<NT>(p, v);
  } else {
    emit<NT>(p, _mm512_cvtps_pd(low(v)));
    emit<NT>(p + 64, _mm512_cvtps_pd(high(v)));
  }
}

template <class D>
inline __m256i quantizeD(__m512d v) {
  const __m512d x = _mm512_mul_pd(v, _mm512_set1_pd(kScaleD<D>));
  const __m256i r = _mm512_cvtpd_epi32(_mm512_min_pd(_mm512_set1_pd(kScaleD<D> - 1.0), x));
  if constexpr (D::bits == 16 || D::bits == 32) return r;
  return _mm256_max_epi32(r, _mm256_set1_epi32(-int32_t(kScaleD<D>)));
}

template <class D, bool NT>
inline void storeD(uint8_t* p, __m512d a, __m512d b) {
  if constexpr (std::is_same_v<D, TF64>) {
    emit<NT>(p, a);
    emit<NT>(p + 64, b);
  } else {
    emit<NT>(p, join(_mm512_cvtpd_ps(a), _mm512_cvtpd_ps(b)));
  }
}

template <class D, class S, bool Unity>
constexpr bool kSingle = std::is_same_v<S, TF32> ||
                         (std::is_same_v<D, TF32> && (!std::is_same_v<S, TS32> || Unity) &&
                          !std::is_same_v<S, TF64>);

// K blocks of integer samples; four packed 24-bit blocks are three whole vectors.
template <class S, int K>
inline void loadInts(const uint8_t* s, __m512i v[K]) {
  if constexpr (std::is_same_v<S, TS24> && K == 4) {
    loadS24x64(s, v);
    for (int k = 0; k < K; ++k) v[k] = _mm512_srai_epi32(v[k], 8);
  } else {
    for (int k = 0; k < K; ++k) v[k] = loadInt<S>(s + k * S::bytes * kBlock);
  }
}
template <class D, int K, bool NT>
inline void storeInts(uint8_t* d, __m512i v[K]) {
  if constexpr (std::is_same_v<D, TS24> && K == 4) {
    for (int k = 0; k < K; ++k) v[k] = _mm512_slli_epi32(v[k], 8);
    storeS24x64<NT>(d, v);
  } else {
    for (int k = 0; k < K; ++k) storeInt<D, NT>(d + k * D::bytes * kBlock, v[k]);
  }
}

// K consecutive blocks, every load before any store (see the AVX2 file: this is what
// keeps in-place conversion correct).
template <class D, class S, bool Unity, int K, bool NT>
inline void group(uint8_t* d, const uint8_t* s, float gain) {
  constexpr int db = D::bytes * kBlock, sb = S::bytes * kBlock;
  if constexpr (kSingle<D, S, Unity>) {
    __m512 v[K];
    if constexpr (kIsFloat<S>) {
      for (int k = 0; k < K; ++k) v[k] = loadF<S>(s + k * sb);
    } else {
      __m512i iv[K];
      loadInts<S, K>(s, iv);
      for (int k = 0; k < K; ++k)
        v[k] = _mm512_mul_ps(_mm512_cvtepi32_ps(iv[k]), _mm512_set1_ps(kNormF<S>));
    }
    if constexpr (!Unity)
      for (int k = 0; k < K; ++k) v[k] = _mm512_mul_ps(v[k], _mm512_set1_ps(gain));
    if constexpr (kIsFloat<D>) {
      for (int k = 0; k < K; ++k) storeF<D, NT>(d + k * db, v[k]);
    } else {
      __m512i q[K];
      for (int k = 0; k < K; ++k) q[k] = quantizeF<D>(v[k]);
      storeInts<D, K, NT>(d, q);
    }
  } else {
    __m512d a[K], b[K];
    if constexpr (kIsFloat<S>) {
      for (int k = 0; k < K; ++k) loadD<S>(s + k * sb, a[k], b[k]);
    } else {
      __m512i iv[K];
      loadInts<S, K>(s, iv);
      const __m512d n = _mm512_set1_pd(kNormD<S>);
      for (int k = 0; k < K; ++k) {
        a[k] = _mm512_mul_pd(_mm512_cvtepi32_pd(_mm512_castsi512_si256(iv[k])), n);
        b[k] = _mm512_mul_pd(_mm512_cvtepi32_pd(_mm512_extracti64x4_epi64(iv[k], 1)), n);
      }
    }
    if constexpr (!Unity) {
      const __m512d g = _mm512_set1_pd(double(gain));
      for (int k = 0; k < K; ++k) {
        a[k] = _mm512_mul_pd(a[k], g);
        b[k] = _mm512_mul_pd(b[k], g);
      }
    }
    if constexpr (kIsFloat<D>) {
      for (int k = 0; k < K; ++k) storeD<D, NT>(d + k * db, a[k], b[k]);
    } else {
      __m512i q[K];
      for (int k = 0; k < K; ++k)
        q[k] =
            _mm512_inserti64x4(_mm512_castsi256_si512(quantizeD<D>(a[k])), quantizeD<D>(b[k]), 1);
      storeInts<D, K, NT>(d, q);
    }
  }
}

// Destinations from this size on are written with streaming stores: they are larger than
// the share of a last-level cache one core can hold, so the lines would be evicted before
// anyone read them, and reading each line before overwriting it would cost a third more
// memory traffic. Smaller destinations stay in the caches for whoever reads them next.
constexpr size_t kStreamBytes = size_t(8) << 20;

struct Kernels {
  static constexpr int block = kBlock;
  static constexpr bool canStream = true;
  template <class D, class S, bool Unity, int N, bool Stream>
  static void group(uint8_t* d, const uint8_t* s, float gain) {
    ostra::audio::group<D, S, Unity, N, Stream>(d, s, gain);
  }
  // Streaming stores need aligned addresses: whole vectors, or half vectors for 16 bits.
  template <class D>
  static bool streams(const uint8_t* d, int32_t count) {
    constexpr uintptr_t align = std::is_same_v<D, TS16> ? 32 : 64;
    return size_t(count) * kBlock * D::bytes >= kStreamBytes &&
           reinterpret_cast<uintptr_t>(d) % align == 0;
  }
  static void fence() { _mm_sfence(); }  // streaming stores are weakly ordered
};

}  // namespace

void installConvertAvx512(ConverterTable& t, DWORD) noexcept {
  installVectorConverters<Kernels, kAvx512>(t);
}

}  // namespace ostra::audio
