// AVX-512 (F + BW + VL) colour kernels of the general YUV conversions: the arithmetic of
// the AVX2 kernels (see there for why each step gives the plain bytes) on twice the width.
// The exact path's products must not be fused into FMAs, hence the pragma.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC optimize("fp-contract=off")
#endif
// GCC 12's AVX-512 header seeds its intrinsics with _mm512_undefined_*, which it then
// reports as uninitialised.
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <immintrin.h>

#include "image/internal/yuv_general.h"

namespace ostra::image {
namespace {

inline __m512i pack16(int lo, int hi) {
  return _mm512_set1_epi32(int32_t(uint32_t(uint16_t(lo)) | (uint32_t(uint16_t(hi)) << 16)));
}

alignas(64) constexpr BYTE kDup[64] = {0, 1, 0, 1, 4, 5, 4, 5, 8, 9, 8, 9, 12, 13, 12, 13,
                                       0, 1, 0, 1, 4, 5, 4, 5, 8, 9, 8, 9, 12, 13, 12, 13,
                                       0, 1, 0, 1, 4, 5, 4, 5, 8, 9, 8, 9, 12, 13, 12, 13,
                                       0, 1, 0, 1, 4, 5, 4, 5, 8, 9, 8, 9, 12, 13, 12, 13};
alignas(64) constexpr BYTE kPlanes[64] = {0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15,
                                          0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15,
                                          0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15,
                                          0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15};

template <bool Ten>
void toBgra(BYTE* d, const int16_t* y, const int16_t* u, const int16_t* v, LONG w,
            const UyvyCoeffs& k) {
  constexpr int centre = Ten ? 512 : 128, round = Ten ? 8192 : 2048;
  const __m512i kb = pack16(k.bFromCb, 0), kg = pack16(k.gFromCb, k.gFromCr),
                kr = pack16(0, k.rFromCr);
  const __m512i cb = _mm512_set1_epi32(round - centre * k.bFromCb),
                cg = _mm512_set1_epi32(round - centre * (k.gFromCb + k.gFromCr)),
                cr = _mm512_set1_epi32(round - centre * k.rFromCr);
  const __m512i dup = _mm512_load_si512(kDup), alpha = _mm512_set1_epi16(255);
  // Lane i ends with pixels 8i..8i+3 in lo and 8i+4..8i+7 in hi.
  const __m512i first = _mm512_setr_epi64(0, 1, 8, 9, 2, 3, 10, 11),
                second = _mm512_setr_epi64(4, 5, 12, 13, 6, 7, 14, 15);
  LONG x = 0;
  for (; x + 32 <= w; x += 32) {
    const __m512i p = _mm512_or_si512(
        _mm512_cvtepu16_epi32(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(u + x / 2))),
        _mm512_slli_epi32(
            _mm512_cvtepu16_epi32(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(v + x / 2))),
            16));
    const __m512i tb = _mm512_srai_epi32(_mm512_add_epi32(_mm512_madd_epi16(p, kb), cb), 12);
    const __m512i tg = _mm512_srai_epi32(_mm512_add_epi32(_mm512_madd_epi16(p, kg), cg), 12);
    const __m512i tr = _mm512_srai_epi32(_mm512_add_epi32(_mm512_madd_epi16(p, kr), cr), 12);
    const __m512i yy = _mm512_loadu_si512(y + x);
    __m512i b = _mm512_add_epi16(yy, _mm512_shuffle_epi8(tb, dup));
    __m512i g = _mm512_add_epi16(yy, _mm512_shuffle_epi8(tg, dup));
    __m512i r = _mm512_add_epi16(yy, _mm512_shuffle_epi8(tr, dup));
    if constexpr (Ten) {
      b = _mm512_srai_epi16(b, 2);
      g = _mm512_srai_epi16(g, 2);
      r = _mm512_srai_epi16(r, 2);
    }
    const __m512i bg = _mm512_packus_epi16(b, g), ra = _mm512_packus_epi16(r, alpha);
    const __m512i br = _mm512_unpacklo_epi8(bg, ra), ga = _mm512_unpackhi_epi8(bg, ra);
    const __m512i lo = _mm512_unpacklo_epi8(br, ga), hi = _mm512_unpackhi_epi8(br, ga);
    _mm512_storeu_si512(d + 4 * x, _mm512_permutex2var_epi64(lo, first, hi));
    _mm512_storeu_si512(d + 4 * x + 64, _mm512_permutex2var_epi64(lo, second, hi));
  }
  if (x < w)
    (Ten ? yuv10ToBgra_avx2 : yuv8ToBgra_avx2)(d + 4 * x, y + x, u + x / 2, v + x / 2, w - x, k);
}

struct Rounding {
  __m512d half = _mm512_set1_pd(0.5), zero = _mm512_setzero_pd(), top;
  explicit Rounding(double maxValue) : top(_mm512_set1_pd(maxValue)) {}
  __m256i operator()(__m512d v) const {
    const __m512d r = _mm512_roundscale_pd(_mm512_add_pd(v, half), _MM_FROUND_TO_NEG_INF);
    return _mm512_cvttpd_epi32(_mm512_min_pd(_mm512_max_pd(r, zero), top));
  }
};

inline __m512d weigh3(__m512d r, __m512d g, __m512d b, __m512d kr, __m512d kg, __m512d kb) {
  return _mm512_add_pd(_mm512_add_pd(_mm512_mul_pd(kr, r), _mm512_mul_pd(kg, g)),
                       _mm512_mul_pd(kb, b));
}

inline __m512d widen8(__m128i bytes) { return _mm512_cvtepi32_pd(_mm256_cvtepu8_epi32(bytes)); }
inline __m512d widen16(__m128i words) { return _mm512_cvtepi32_pd(_mm256_cvtepu16_epi32(words)); }

// The quick path of the AVX2 kernels (see there) on 16 lanes.
constexpr float kMargin = 1.0f / 1024;
struct Quick {
  __m512 low = _mm512_set1_ps(kMargin), high = _mm512_set1_ps(1 - kMargin),
         zero = _mm512_setzero_ps(), top;
  explicit Quick(float maxValue) : top(_mm512_set1_ps(maxValue)) {}
  bool operator()(__m512 t, __m256i* words) const {
    const __m512 f = _mm512_roundscale_ps(t, _MM_FROUND_TO_NEG_INF), frac = _mm512_sub_ps(t, f);
    if (_mm512_cmp_ps_mask(frac, low, _CMP_LT_OQ) | _mm512_cmp_ps_mask(frac, high, _CMP_GT_OQ))
      return false;
    *words = _mm512_cvtepi32_epi16(_mm512_cvttps_epi32(_mm512_min_ps(_mm512_max_ps(f, zero), top)));
    return true;
  }
};
inline __m512 weighQuick(__m512 c, __m512 r, __m512 g, __m512 b, __m512 kr, __m512 kg, __m512 kb) {
  return _mm512_fmadd_ps(kr, r, _mm512_fmadd_ps(kg, g, _mm512_fmadd_ps(kb, b, c)));
}
inline __m512 floats8(__m128i bytes) { return _mm512_cvtepi32_ps(_mm512_cvtepu8_epi32(bytes)); }
inline __m512 floats16(__m128i lo, __m128i hi) {
  return _mm512_cvtepi32_ps(_mm512_cvtepu16_epi32(_mm256_set_m128i(hi, lo)));
}

template <bool Ten>
void luma(int16_t* y, const BYTE* s, LONG w, const KAYUVMATRIX& m) {
  const double scale = Ten ? 4.0 : 1.0;
  const __m512d kr = _mm512_set1_pd(scale * m.kr), kg = _mm512_set1_pd(scale * m.kg),
                kb = _mm512_set1_pd(scale * m.kb);
  const __m512 qr = _mm512_set1_ps(float(scale * m.kr)), qg = _mm512_set1_ps(float(scale * m.kg)),
               qb = _mm512_set1_ps(float(scale * m.kb)), half = _mm512_set1_ps(0.5f);
  const __m256i planes = _mm256_load_si256(reinterpret_cast<const __m256i*>(kPlanes));
  const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
  const __m512i planes4 = _mm512_load_si512(kPlanes);
  const __m512i order4 = _mm512_setr_epi32(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15);
  const Rounding rounding(Ten ? 1023 : 255);
  const Quick quick(Ten ? 1023.f : 255.f);
  // Eight pixels through the exact path.
  auto exact = [&](LONG x) {
    // B0..B7, G0..G7, R0..R7.
    const __m256i p = _mm256_permutevar8x32_epi32(
        _mm256_shuffle_epi8(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(s + 4 * x)),
                            planes),
        order);
    const __m128i bg = _mm256_castsi256_si128(p);
    const __m512d sum = weigh3(widen8(_mm256_extracti128_si256(p, 1)),
                               widen8(_mm_srli_si128(bg, 8)), widen8(bg), kr, kg, kb);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(y + x), _mm256_cvtepi32_epi16(rounding(sum)));
  };
  LONG x = 0;
  for (; x + 16 <= w; x += 16) {
    // B0..B15, G0..G15, R0..R15, A0..A15.
    const __m512i p = _mm512_permutexvar_epi32(
        order4, _mm512_shuffle_epi8(_mm512_loadu_si512(s + 4 * x), planes4));
    __m256i out;
    if (quick(weighQuick(half, floats8(_mm512_extracti32x4_epi32(p, 2)),
                         floats8(_mm512_extracti32x4_epi32(p, 1)),
                         floats8(_mm512_castsi512_si128(p)), qr, qg, qb),
              &out)) {
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(y + x), out);
    } else {
      exact(x);
      exact(x + 8);
    }
  }
  for (; x + 8 <= w; x += 8) exact(x);
  if (x < w) (Ten ? bgraToLuma10_avx2 : bgraToLuma8_avx2)(y + x, s + 4 * x, w - x, m);
}

template <bool Ten>
void chroma(int16_t* u, int16_t* v, const BYTE* a, const BYTE* b, LONG w, const KAYUVMATRIX& m) {
  const double f = (Ten ? 4.0 : 1.0) / (b ? 4.0 : 2.0);
  const __m512d centre = _mm512_set1_pd(Ten ? 512.0 : 128.0);
  const __m512d ur = _mm512_set1_pd(f * m.cbR), ug = _mm512_set1_pd(f * m.cbG),
                ub = _mm512_set1_pd(f * m.cbB), vr = _mm512_set1_pd(f * m.crR),
                vg = _mm512_set1_pd(f * m.crG), vb = _mm512_set1_pd(f * m.crB);
  const __m512 qc = _mm512_set1_ps(Ten ? 512.5f : 128.5f);
  const __m512 qur = _mm512_set1_ps(float(f * m.cbR)), qug = _mm512_set1_ps(float(f * m.cbG)),
               qub = _mm512_set1_ps(float(f * m.cbB)), qvr = _mm512_set1_ps(float(f * m.crR)),
               qvg = _mm512_set1_ps(float(f * m.crG)), qvb = _mm512_set1_ps(float(f * m.crB));
  const __m512i planes = _mm512_load_si512(kPlanes), ones = _mm512_set1_epi8(1);
  const __m512i order = _mm512_setr_epi32(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15);
  const Rounding rounding(Ten ? 1023 : 255);
  const Quick quick(Ten ? 1023.f : 255.f);
  // Pair sums of eight pairs: B of the eight pairs, then G, R, A.
  auto sumsAt = [&](LONG i) {
    const size_t at = 8 * size_t(i);
    __m512i sums =
        _mm512_maddubs_epi16(_mm512_shuffle_epi8(_mm512_loadu_si512(a + at), planes), ones);
    if (b)
      sums = _mm512_add_epi16(
          sums,
          _mm512_maddubs_epi16(_mm512_shuffle_epi8(_mm512_loadu_si512(b + at), planes), ones));
    return _mm512_permutexvar_epi32(order, sums);
  };
  auto exact = [&](LONG i, __m512i sums) {
    const __m512d sb = widen16(_mm512_castsi512_si128(sums));
    const __m512d sg = widen16(_mm512_extracti32x4_epi32(sums, 1));
    const __m512d sr = widen16(_mm512_extracti32x4_epi32(sums, 2));
    _mm_storeu_si128(
        reinterpret_cast<__m128i*>(u + i),
        _mm256_cvtepi32_epi16(rounding(_mm512_add_pd(centre, weigh3(sr, sg, sb, ur, ug, ub)))));
    _mm_storeu_si128(
        reinterpret_cast<__m128i*>(v + i),
        _mm256_cvtepi32_epi16(rounding(_mm512_add_pd(centre, weigh3(sr, sg, sb, vr, vg, vb)))));
  };
  const LONG pairs = w / 2;
  LONG i = 0;
  for (; i + 16 <= pairs; i += 16) {
    const __m512i s0 = sumsAt(i), s1 = sumsAt(i + 8);
    const __m512 fb = floats16(_mm512_castsi512_si128(s0), _mm512_castsi512_si128(s1));
    const __m512 fg = floats16(_mm512_extracti32x4_epi32(s0, 1), _mm512_extracti32x4_epi32(s1, 1));
    const __m512 fr = floats16(_mm512_extracti32x4_epi32(s0, 2), _mm512_extracti32x4_epi32(s1, 2));
    __m256i outU, outV;
    if (quick(weighQuick(qc, fr, fg, fb, qur, qug, qub), &outU) &&
        quick(weighQuick(qc, fr, fg, fb, qvr, qvg, qvb), &outV)) {
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(u + i), outU);
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(v + i), outV);
    } else {
      exact(i, s0);
      exact(i + 8, s1);
    }
  }
  for (; i + 8 <= pairs; i += 8) exact(i, sumsAt(i));
  if (i < pairs)
    (Ten ? bgraToChroma10_avx2 : bgraToChroma8_avx2)(u + i, v + i, a + 8 * size_t(i),
                                                     b ? b + 8 * size_t(i) : nullptr, w - 2 * i, m);
}

}  // namespace

void yuv8ToBgra_avx512(BYTE* d, const int16_t* y, const int16_t* u, const int16_t* v, LONG w,
                       const UyvyCoeffs& k) {
  toBgra<false>(d, y, u, v, w, k);
}
void yuv10ToBgra_avx512(BYTE* d, const int16_t* y, const int16_t* u, const int16_t* v, LONG w,
                        const UyvyCoeffs& k) {
  toBgra<true>(d, y, u, v, w, k);
}
void bgraToLuma8_avx512(int16_t* y, const BYTE* s, LONG w, const KAYUVMATRIX& m) {
  luma<false>(y, s, w, m);
}
void bgraToLuma10_avx512(int16_t* y, const BYTE* s, LONG w, const KAYUVMATRIX& m) {
  luma<true>(y, s, w, m);
}
void bgraToChroma8_avx512(int16_t* u, int16_t* v, const BYTE* a, const BYTE* b, LONG w,
                          const KAYUVMATRIX& m) {
  chroma<false>(u, v, a, b, w, m);
}
void bgraToChroma10_avx512(int16_t* u, int16_t* v, const BYTE* a, const BYTE* b, LONG w,
                           const KAYUVMATRIX& m) {
  chroma<true>(u, v, a, b, w, m);
}

}  // namespace ostra::image
