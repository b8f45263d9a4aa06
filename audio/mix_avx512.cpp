// AVX-512 mixers (F, BW, VL) for the pairs of the AVX2 file, sixteen samples per block
// (thirty-two for 16-bit). Results equal the plain mixers bit for bit: products in double
// precision, clamps as min(hi, x) so that NaN becomes the lowest value, saturating sums.
//
// Integer sums saturate on values held in the upper bits of a 32-bit lane: a 24-bit
// sample shifted up by 8 saturates at 0x7FFFFFFF / 0x80000000 exactly where the 24-bit
// sum would clamp, so one 32-bit saturating add serves 24- and 32-bit samples alike.
//
// GCC 12's AVX-512 headers start some conversions from an undefined vector and then warn
// about it; the warning is about the header, not this code.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#pragma GCC diagnostic ignored "-Wuninitialized"
#include <immintrin.h>

#include <type_traits>

#include "audio/internal/mix_blocks.h"
#include "audio/internal/s24_avx512.h"

namespace ostra::audio {
namespace {

inline __m512i satAdd32(__m512i a, __m512i b) {
  const __m512i sum = _mm512_add_epi32(a, b);
  // Overflow where both operands differ in sign from the sum: (a ^ sum) & (b ^ sum).
  const __m512i t = _mm512_ternarylogic_epi32(a, b, sum, 0x42);
  const __mmask16 ovf = _mm512_cmplt_epi32_mask(t, _mm512_setzero_si512());
  return _mm512_mask_xor_epi32(sum, ovf, _mm512_srai_epi32(a, 31), _mm512_set1_epi32(0x7FFFFFFF));
}

inline __m256 low(__m512 v) { return _mm512_castps512_ps256(v); }
inline __m256 high(__m512 v) {
  return _mm256_castpd_ps(_mm512_extractf64x4_pd(_mm512_castps_pd(v), 1));
}
inline __m512 join(__m256 a, __m256 b) {
  return _mm512_castpd_ps(
      _mm512_insertf64x4(_mm512_castpd256_pd512(_mm256_castps_pd(a)), _mm256_castps_pd(b), 1));
}
inline __m512i join(__m256i a, __m256i b) {
  return _mm512_inserti64x4(_mm512_castsi256_si512(a), b, 1);
}
inline __m512d lowD(__m512i v) { return _mm512_cvtepi32_pd(_mm512_castsi512_si256(v)); }
inline __m512d highD(__m512i v) { return _mm512_cvtepi32_pd(_mm512_extracti64x4_epi64(v, 1)); }

// Scale-clamp-round of eight normalised doubles to `Bits`-bit integers, as the plain
// quantiser does. 16 bits: the narrowing store saturates the low side.
template <int Bits>
inline __m256i quantize(__m512d v) {
  constexpr double scale = double(1ll << (Bits - 1));
  const __m512d x = _mm512_mul_pd(v, _mm512_set1_pd(scale));
  const __m256i r = _mm512_cvtpd_epi32(_mm512_min_pd(_mm512_set1_pd(scale - 1.0), x));
  if constexpr (Bits == 16 || Bits == 32) return r;
  return _mm256_max_epi32(r, _mm256_set1_epi32(-int32_t(scale)));
}

// Sixteen integer samples scaled by the gains, as `Bits`-bit integers in int32 lanes.
template <int Bits>
inline __m512i scaled(__m512i v, __m512d ga, __m512d gb) {
  const __m512d n = _mm512_set1_pd(1.0 / double(1ll << (Bits - 1)));
  return join(quantize<Bits>(_mm512_mul_pd(_mm512_mul_pd(lowD(v), n), ga)),
              quantize<Bits>(_mm512_mul_pd(_mm512_mul_pd(highD(v), n), gb)));
}

inline __m512i clamp24(__m512i v) {
  return _mm512_max_epi32(_mm512_min_epi32(v, _mm512_set1_epi32(8388607)),
                          _mm512_set1_epi32(-8388608));
}

struct F32F32 {
  static constexpr int block = 16, db = 4, sb = 4;
  static void unity(uint8_t* d, const uint8_t* s) {
    _mm512_storeu_ps(d, _mm512_add_ps(_mm512_loadu_ps(d), _mm512_loadu_ps(s)));
  }
  // In halves of eight: each conversion then reads memory directly and no lane crossing
  // is needed.
  static void half(uint8_t* d, const uint8_t* s, __m512d g) {
    const __m512d p =
        _mm512_mul_pd(_mm512_cvtps_pd(_mm256_loadu_ps(reinterpret_cast<const float*>(s))), g);
    auto* o = reinterpret_cast<float*>(d);
    _mm256_storeu_ps(o, _mm256_add_ps(_mm256_loadu_ps(o), _mm512_cvtpd_ps(p)));
  }
  static void gain(uint8_t* d, const uint8_t* s, const double* g) {
    const __m512d ga = _mm512_loadu_pd(g), gb = _mm512_loadu_pd(g + 8);
    half(d, s, ga);
    half(d + 32, s + 32, gb);
  }
  static void gainSingle(uint8_t* d, const uint8_t* s, const float* g) {
    const __m512 v = _mm512_mul_ps(_mm512_loadu_ps(s), _mm512_loadu_ps(g));
    _mm512_storeu_ps(d, _mm512_add_ps(_mm512_loadu_ps(d), v));
  }
};

struct F64F64 {
  static constexpr int block = 16, db = 8, sb = 8;
  static void unity(uint8_t* d, const uint8_t* s) {
    _mm512_storeu_pd(d, _mm512_add_pd(_mm512_loadu_pd(d), _mm512_loadu_pd(s)));
    _mm512_storeu_pd(d + 64, _mm512_add_pd(_mm512_loadu_pd(d + 64), _mm512_loadu_pd(s + 64)));
  }
  static void gain(uint8_t* d, const uint8_t* s, const double* g) {
    const __m512d ga = _mm512_loadu_pd(g), gb = _mm512_loadu_pd(g + 8);
    _mm512_storeu_pd(d, _mm512_add_pd(_mm512_loadu_pd(d), _mm512_mul_pd(_mm512_loadu_pd(s), ga)));
    _mm512_storeu_pd(
        d + 64, _mm512_add_pd(_mm512_loadu_pd(d + 64), _mm512_mul_pd(_mm512_loadu_pd(s + 64), gb)));
  }
};

struct F64F32 {
  static constexpr int block = 16, db = 8, sb = 4;
  static void add(uint8_t* d, __m512d a, __m512d b) {
    _mm512_storeu_pd(d, _mm512_add_pd(_mm512_loadu_pd(d), a));
    _mm512_storeu_pd(d + 64, _mm512_add_pd(_mm512_loadu_pd(d + 64), b));
  }
  static void unity(uint8_t* d, const uint8_t* s) {
    const __m512 f = _mm512_loadu_ps(s);
    add(d, _mm512_cvtps_pd(low(f)), _mm512_cvtps_pd(high(f)));
  }
  static void gain(uint8_t* d, const uint8_t* s, const double* g) {
    const __m512d ga = _mm512_loadu_pd(g), gb = _mm512_loadu_pd(g + 8);
    const __m512 f = _mm512_loadu_ps(s);
    add(d, _mm512_mul_pd(_mm512_cvtps_pd(low(f)), ga), _mm512_mul_pd(_mm512_cvtps_pd(high(f)), gb));
  }
};

struct F32F64 {
  static constexpr int block = 16, db = 4, sb = 8;
  static void add(uint8_t* d, __m512d a, __m512d b) {
    const __m512 v = join(_mm512_cvtpd_ps(a), _mm512_cvtpd_ps(b));
    _mm512_storeu_ps(d, _mm512_add_ps(_mm512_loadu_ps(d), v));
  }
  static void unity(uint8_t* d, const uint8_t* s) {
    add(d, _mm512_loadu_pd(s), _mm512_loadu_pd(s + 64));
  }
  static void gain(uint8_t* d, const uint8_t* s, const double* g) {
    const __m512d ga = _mm512_loadu_pd(g), gb = _mm512_loadu_pd(g + 8);
    add(d, _mm512_mul_pd(_mm512_loadu_pd(s), ga), _mm512_mul_pd(_mm512_loadu_pd(s + 64), gb));
  }
};

struct F32S16 {
  static constexpr int block = 16, db = 4, sb = 2;
  static __m512i load(const uint8_t* s) {
    return _mm512_cvtepi16_epi32(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(s)));
  }
  static void unity(uint8_t* d, const uint8_t* s) {
    // A 16-bit value over 32768 is exact in single precision.
    const __m512 v = _mm512_mul_ps(_mm512_cvtepi32_ps(load(s)), _mm512_set1_ps(1.0f / 32768.0f));
    _mm512_storeu_ps(d, _mm512_add_ps(_mm512_loadu_ps(d), v));
  }
  static void gain(uint8_t* d, const uint8_t* s, const double* g) {
    const __m512d ga = _mm512_loadu_pd(g), gb = _mm512_loadu_pd(g + 8);
    const __m512i i = load(s);
    const __m512d n = _mm512_set1_pd(1.0 / 32768.0);
    const __m512d a = _mm512_mul_pd(_mm512_mul_pd(lowD(i), n), ga);
    const __m512d b = _mm512_mul_pd(_mm512_mul_pd(highD(i), n), gb);
    const __m512 v = join(_mm512_cvtpd_ps(a), _mm512_cvtpd_ps(b));
    _mm512_storeu_ps(d, _mm512_add_ps(_mm512_loadu_ps(d), v));
  }
};

// The 16-bit mixer applies only the first gain; the driver passes it in every lane.
struct S16S16 {
  static constexpr int block = 32, db = 2, sb = 2;
  static void unity(uint8_t* d, const uint8_t* s) {
    _mm512_storeu_si512(d, _mm512_adds_epi16(_mm512_loadu_si512(d), _mm512_loadu_si512(s)));
  }
  static void gain(uint8_t* d, const uint8_t* s, const double* gains) {
    const __m512d g = _mm512_loadu_pd(gains);
    const __m512i v = _mm512_loadu_si512(s);
    const __m512i lo = _mm512_cvtepi16_epi32(_mm512_castsi512_si256(v));
    const __m512i hi = _mm512_cvtepi16_epi32(_mm512_extracti64x4_epi64(v, 1));
    const __m512i q = join(_mm512_cvtsepi32_epi16(scaled<16>(lo, g, g)),
                           _mm512_cvtsepi32_epi16(scaled<16>(hi, g, g)));
    _mm512_storeu_si512(d, _mm512_adds_epi16(_mm512_loadu_si512(d), q));
  }
};

struct S32S32 {
  static constexpr int block = 16, db = 4, sb = 4;
  static void unity(uint8_t* d, const uint8_t* s) {
    _mm512_storeu_si512(d, satAdd32(_mm512_loadu_si512(d), _mm512_loadu_si512(s)));
  }
  static void gain(uint8_t* d, const uint8_t* s, const double* g) {
    const __m512d ga = _mm512_loadu_pd(g), gb = _mm512_loadu_pd(g + 8);
    const __m512i q = scaled<32>(_mm512_loadu_si512(s), ga, gb);
    _mm512_storeu_si512(d, satAdd32(_mm512_loadu_si512(d), q));
  }
};

// Sixty-four samples a block: three whole vectors of packed bytes, so that no load
// overlaps the bytes of an earlier, partial store.
struct S24S24 {
  static constexpr int block = 64, db = 3, sb = 3;
  static void unity(uint8_t* d, const uint8_t* s) {
    __m512i a[4], b[4];
    loadS24x64(d, a);
    loadS24x64(s, b);
    for (int k = 0; k < 4; ++k) a[k] = satAdd32(a[k], b[k]);
    storeS24x64(d, a);
  }
  static void gain(uint8_t* d, const uint8_t* s, const double* g) {
    __m512i a[4], b[4];
    loadS24x64(d, a);
    loadS24x64(s, b);
    for (int k = 0; k < 4; ++k) {
      const __m512i q = scaled<24>(_mm512_srai_epi32(b[k], 8), _mm512_loadu_pd(g + 16 * k),
                                   _mm512_loadu_pd(g + 16 * k + 8));
      a[k] = _mm512_slli_epi32(clamp24(_mm512_add_epi32(_mm512_srai_epi32(a[k], 8), q)), 8);
    }
    storeS24x64(d, a);
  }
};

// The low byte of a 24-in-32 sample is not part of its value and is written as 0.
struct S24in32S24in32 {
  static constexpr int block = 16, db = 4, sb = 4;
  static void unity(uint8_t* d, const uint8_t* s) {
    const __m512i m = _mm512_set1_epi32(int32_t(0xFFFFFF00u));
    const __m512i sum = satAdd32(_mm512_and_si512(_mm512_loadu_si512(d), m),
                                 _mm512_and_si512(_mm512_loadu_si512(s), m));
    _mm512_storeu_si512(d, _mm512_and_si512(sum, m));  // 0x7FFFFFFF keeps its low byte
  }
  static void gain(uint8_t* d, const uint8_t* s, const double* g) {
    const __m512d ga = _mm512_loadu_pd(g), gb = _mm512_loadu_pd(g + 8);
    const __m512i q = scaled<24>(_mm512_srai_epi32(_mm512_loadu_si512(s), 8), ga, gb);
    const __m512i sum = clamp24(_mm512_add_epi32(_mm512_srai_epi32(_mm512_loadu_si512(d), 8), q));
    _mm512_storeu_si512(d, _mm512_slli_epi32(sum, 8));
  }
};

}  // namespace

void installMixAvx512(MixerTable& t, DWORD) noexcept {
  putMixer<F32F32, kF32, kF32, kAvx512>(t);
  putMixer<F64F64, kF64, kF64, kAvx512>(t);
  putMixer<F64F32, kF64, kF32, kAvx512>(t);
  putMixer<F32F64, kF32, kF64, kAvx512>(t);
  putMixer<F32S16, kF32, kS16, kAvx512>(t);
  putMixer<S16S16, kS16, kS16, kAvx512, true>(t);
  putMixer<S32S32, kS32, kS32, kAvx512>(t);
  putMixer<S24S24, kS24, kS24, kAvx512>(t);
  putMixer<S24in32S24in32, kS24in32, kS24in32, kAvx512>(t);
}

}  // namespace ostra::audio
