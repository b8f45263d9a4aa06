// AVX2 colour kernels of the general YUV conversions, byte for byte the plain ones.
//
// To BGRA (16 pixels per step): the chroma terms are integer madds of the raw (U, V)
// pairs with the centring folded into the added constant, so they are the plain integers.
// At 8 bits (Y*4096 + 2048 + t) >> 12 == Y + ((t + 2048) >> 12) since Y*4096 is a whole
// multiple of 4096; at 10 bits, with q = (t + 8192) >> 12, (Y*4096 + 8192 + t) >> 14 ==
// (Y + q) >> 2 (the remainder below 4096 cannot carry into the quotient by 4). packus
// clamps.
//
// From BGRA (8 pixels or pairs per step), a quick path first: value + 0.5 in single
// precision with FMAs, floored. With the coefficients rounded to float, three FMAs and
// sums of at most four bytes, it is within 4e-4 of the exact value (the plain double one
// is within 1e-12), so when its fraction is at least kMargin (1/1024) from an integer
// both floor to the same integer, and the clamping after the floor is the plain one. A
// step with any lane that close (1-6% of steps on random colours: exact ties such as
// 0.299 R + 0.587 G + 0.114 B = n + 0.5 are common) takes the exact path: the plain
// double-precision expressions, evaluated in the same order on four values at a time.
// The 10-bit scale of 4 and the 1/2 or 1/4 of the averages are powers of two, so they are
// folded into the coefficients without changing a single rounding; the pair sums are
// exact integers. There the compiler must not fuse a product and a sum into an FMA (one
// rounding where the plain code has two), hence the pragma; the quick path asks for its
// FMAs explicitly.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC optimize("fp-contract=off")
#endif
#include <immintrin.h>

#include "image/internal/yuv_general.h"

namespace ostra::image {
namespace {

inline __m256i pack16(int lo, int hi) {
  return _mm256_set1_epi32(int32_t(uint32_t(uint16_t(lo)) | (uint32_t(uint16_t(hi)) << 16)));
}

template <bool Ten>
void toBgra(BYTE* d, const int16_t* y, const int16_t* u, const int16_t* v, LONG w,
            const UyvyCoeffs& k) {
  constexpr int centre = Ten ? 512 : 128, round = Ten ? 8192 : 2048;
  const __m256i kb = pack16(k.bFromCb, 0), kg = pack16(k.gFromCb, k.gFromCr),
                kr = pack16(0, k.rFromCr);
  const __m256i cb = _mm256_set1_epi32(round - centre * k.bFromCb),
                cg = _mm256_set1_epi32(round - centre * (k.gFromCb + k.gFromCr)),
                cr = _mm256_set1_epi32(round - centre * k.rFromCr);
  const __m256i dup = _mm256_setr_epi8(0, 1, 0, 1, 4, 5, 4, 5, 8, 9, 8, 9, 12, 13, 12, 13,  //
                                       0, 1, 0, 1, 4, 5, 4, 5, 8, 9, 8, 9, 12, 13, 12, 13);
  const __m256i alpha = _mm256_set1_epi16(255);
  LONG x = 0;
  for (; x + 16 <= w; x += 16) {
    const __m256i p = _mm256_or_si256(
        _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(u + x / 2))),
        _mm256_slli_epi32(
            _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(v + x / 2))),
            16));
    const __m256i tb = _mm256_srai_epi32(_mm256_add_epi32(_mm256_madd_epi16(p, kb), cb), 12);
    const __m256i tg = _mm256_srai_epi32(_mm256_add_epi32(_mm256_madd_epi16(p, kg), cg), 12);
    const __m256i tr = _mm256_srai_epi32(_mm256_add_epi32(_mm256_madd_epi16(p, kr), cr), 12);
    const __m256i yy = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(y + x));
    __m256i b = _mm256_add_epi16(yy, _mm256_shuffle_epi8(tb, dup));
    __m256i g = _mm256_add_epi16(yy, _mm256_shuffle_epi8(tg, dup));
    __m256i r = _mm256_add_epi16(yy, _mm256_shuffle_epi8(tr, dup));
    if constexpr (Ten) {
      b = _mm256_srai_epi16(b, 2);
      g = _mm256_srai_epi16(g, 2);
      r = _mm256_srai_epi16(r, 2);
    }
    const __m256i bg = _mm256_packus_epi16(b, g), ra = _mm256_packus_epi16(r, alpha);
    const __m256i br = _mm256_unpacklo_epi8(bg, ra), ga = _mm256_unpackhi_epi8(bg, ra);
    const __m256i lo = _mm256_unpacklo_epi8(br, ga), hi = _mm256_unpackhi_epi8(br, ga);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(d + 4 * x),
                        _mm256_permute2x128_si256(lo, hi, 0x20));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(d + 4 * x + 32),
                        _mm256_permute2x128_si256(lo, hi, 0x31));
  }
  if (x < w)
    (Ten ? yuv10ToBgra_plain : yuv8ToBgra_plain)(d + 4 * x, y + x, u + x / 2, v + x / 2, w - x, k);
}

struct Rounding {
  __m256d half = _mm256_set1_pd(0.5), zero = _mm256_setzero_pd(), top;
  explicit Rounding(double maxValue) : top(_mm256_set1_pd(maxValue)) {}
  __m128i operator()(__m256d v) const {
    const __m256d r = _mm256_floor_pd(_mm256_add_pd(v, half));
    return _mm256_cvttpd_epi32(_mm256_min_pd(_mm256_max_pd(r, zero), top));
  }
};

// (kr R + kg G) + kb B, the order of the plain expressions.
inline __m256d weigh3(__m256d r, __m256d g, __m256d b, __m256d kr, __m256d kg, __m256d kb) {
  return _mm256_add_pd(_mm256_add_pd(_mm256_mul_pd(kr, r), _mm256_mul_pd(kg, g)),
                       _mm256_mul_pd(kb, b));
}

// Four pixels whose B, G, R bytes lie in the low 12 bytes of s as B0..B3 G0..G3 R0..R3.
inline __m256d weigh(__m128i s, __m256d kr, __m256d kg, __m256d kb) {
  const __m256d b = _mm256_cvtepi32_pd(_mm_cvtepu8_epi32(s));
  const __m256d g = _mm256_cvtepi32_pd(_mm_cvtepu8_epi32(_mm_srli_si128(s, 4)));
  const __m256d r = _mm256_cvtepi32_pd(_mm_cvtepu8_epi32(_mm_srli_si128(s, 8)));
  return weigh3(r, g, b, kr, kg, kb);
}

// The quick path: value + 0.5 in single precision, floored, unless a lane lies within
// kMargin of an integer (see the file comment); then the step takes the exact path.
constexpr float kMargin = 1.0f / 1024;
struct Quick {
  __m256 low = _mm256_set1_ps(kMargin), high = _mm256_set1_ps(1 - kMargin),
         zero = _mm256_setzero_ps(), top;
  explicit Quick(float maxValue) : top(_mm256_set1_ps(maxValue)) {}
  bool operator()(__m256 t, __m128i* words) const {
    const __m256 f = _mm256_floor_ps(t), frac = _mm256_sub_ps(t, f);
    if (_mm256_movemask_ps(_mm256_or_ps(_mm256_cmp_ps(frac, low, _CMP_LT_OQ),
                                        _mm256_cmp_ps(frac, high, _CMP_GT_OQ))))
      return false;
    const __m256i q = _mm256_cvttps_epi32(_mm256_min_ps(_mm256_max_ps(f, zero), top));
    *words = _mm_packs_epi32(_mm256_castsi256_si128(q), _mm256_extracti128_si256(q, 1));
    return true;
  }
};
// c + kr R + kg G + kb B, in any order: only the quick path uses it.
inline __m256 weighQuick(__m256 c, __m256 r, __m256 g, __m256 b, __m256 kr, __m256 kg, __m256 kb) {
  return _mm256_fmadd_ps(kr, r, _mm256_fmadd_ps(kg, g, _mm256_fmadd_ps(kb, b, c)));
}
inline __m256 floats8(__m128i bytes) { return _mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(bytes)); }
inline __m256 floats16(__m128i words) { return _mm256_cvtepi32_ps(_mm256_cvtepu16_epi32(words)); }

template <bool Ten>
void luma(int16_t* y, const BYTE* s, LONG w, const KAYUVMATRIX& m) {
  const double scale = Ten ? 4.0 : 1.0;
  const __m256d kr = _mm256_set1_pd(scale * m.kr), kg = _mm256_set1_pd(scale * m.kg),
                kb = _mm256_set1_pd(scale * m.kb);
  const __m256 qr = _mm256_set1_ps(float(scale * m.kr)), qg = _mm256_set1_ps(float(scale * m.kg)),
               qb = _mm256_set1_ps(float(scale * m.kb)), half = _mm256_set1_ps(0.5f);
  const __m128i planes = _mm_setr_epi8(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, -1, -1, -1, -1);
  const __m256i planes2 = _mm256_broadcastsi128_si256(planes);
  const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
  const Rounding rounding(Ten ? 1023 : 255);
  const Quick quick(Ten ? 1023.f : 255.f);
  LONG x = 0;
  for (; x + 8 <= w; x += 8) {
    // B0..B7, G0..G7, R0..R7.
    const __m256i p = _mm256_permutevar8x32_epi32(
        _mm256_shuffle_epi8(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(s + 4 * x)),
                            planes2),
        order);
    const __m128i bg = _mm256_castsi256_si128(p);
    __m128i out;
    if (!quick(weighQuick(half, floats8(_mm256_extracti128_si256(p, 1)),
                          floats8(_mm_srli_si128(bg, 8)), floats8(bg), qr, qg, qb),
               &out)) {
      const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 4 * x));
      const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 4 * x + 16));
      out = _mm_packs_epi32(rounding(weigh(_mm_shuffle_epi8(a, planes), kr, kg, kb)),
                            rounding(weigh(_mm_shuffle_epi8(b, planes), kr, kg, kb)));
    }
    _mm_storeu_si128(reinterpret_cast<__m128i*>(y + x), out);
  }
  if (x < w) (Ten ? bgraToLuma10_plain : bgraToLuma8_plain)(y + x, s + 4 * x, w - x, m);
}

// Per 16-byte lane (two pairs), the bytes of each colour next to each other, so that one
// maddubs gives the pair sums B, B, G, G, R, R, A, A.
inline __m256i pairSums(const BYTE* p, __m256i planes, __m256i ones) {
  return _mm256_maddubs_epi16(
      _mm256_shuffle_epi8(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)), planes), ones);
}

template <bool Ten>
void chroma(int16_t* u, int16_t* v, const BYTE* a, const BYTE* b, LONG w, const KAYUVMATRIX& m) {
  const double f = (Ten ? 4.0 : 1.0) / (b ? 4.0 : 2.0);
  const __m256d centre = _mm256_set1_pd(Ten ? 512.0 : 128.0);
  const __m256d ur = _mm256_set1_pd(f * m.cbR), ug = _mm256_set1_pd(f * m.cbG),
                ub = _mm256_set1_pd(f * m.cbB), vr = _mm256_set1_pd(f * m.crR),
                vg = _mm256_set1_pd(f * m.crG), vb = _mm256_set1_pd(f * m.crB);
  const __m256i planes = _mm256_setr_epi8(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15,  //
                                          0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15);
  const __m256i ones = _mm256_set1_epi8(1), order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
  const __m256 qc = _mm256_set1_ps(Ten ? 512.5f : 128.5f);
  const __m256 qur = _mm256_set1_ps(float(f * m.cbR)), qug = _mm256_set1_ps(float(f * m.cbG)),
               qub = _mm256_set1_ps(float(f * m.cbB)), qvr = _mm256_set1_ps(float(f * m.crR)),
               qvg = _mm256_set1_ps(float(f * m.crG)), qvb = _mm256_set1_ps(float(f * m.crB));
  const Rounding rounding(Ten ? 1023 : 255);
  const Quick quick(Ten ? 1023.f : 255.f);
  const LONG pairs = w / 2;
  LONG i = 0;
  for (; i + 8 <= pairs; i += 8) {
    // Per half (four pairs): B of the four pairs, then G, R, A.
    __m256i sums[2];
    for (int h = 0; h < 2; ++h) {
      const size_t at = 8 * size_t(i) + 32 * h;
      sums[h] = pairSums(a + at, planes, ones);
      if (b) sums[h] = _mm256_add_epi16(sums[h], pairSums(b + at, planes, ones));
      sums[h] = _mm256_permutevar8x32_epi32(sums[h], order);
    }
    const __m128i bg0 = _mm256_castsi256_si128(sums[0]), bg1 = _mm256_castsi256_si128(sums[1]);
    const __m256 fb = floats16(_mm_unpacklo_epi64(bg0, bg1)),
                 fg = floats16(_mm_unpackhi_epi64(bg0, bg1)),
                 fr = floats16(_mm_unpacklo_epi64(_mm256_extracti128_si256(sums[0], 1),
                                                  _mm256_extracti128_si256(sums[1], 1)));
    __m128i outU, outV;
    if (quick(weighQuick(qc, fr, fg, fb, qur, qug, qub), &outU) &&
        quick(weighQuick(qc, fr, fg, fb, qvr, qvg, qvb), &outV)) {
      _mm_storeu_si128(reinterpret_cast<__m128i*>(u + i), outU);
      _mm_storeu_si128(reinterpret_cast<__m128i*>(v + i), outV);
      continue;
    }
    __m128i us[2], vs[2];
    for (int h = 0; h < 2; ++h) {
      const __m128i bg = _mm256_castsi256_si128(sums[h]);
      const __m256d sb = _mm256_cvtepi32_pd(_mm_cvtepu16_epi32(bg));
      const __m256d sg = _mm256_cvtepi32_pd(_mm_cvtepu16_epi32(_mm_srli_si128(bg, 8)));
      const __m256d sr =
          _mm256_cvtepi32_pd(_mm_cvtepu16_epi32(_mm256_extracti128_si256(sums[h], 1)));
      us[h] = rounding(_mm256_add_pd(centre, weigh3(sr, sg, sb, ur, ug, ub)));
      vs[h] = rounding(_mm256_add_pd(centre, weigh3(sr, sg, sb, vr, vg, vb)));
    }
    _mm_storeu_si128(reinterpret_cast<__m128i*>(u + i), _mm_packs_epi32(us[0], us[1]));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(v + i), _mm_packs_epi32(vs[0], vs[1]));
  }
  if (i < pairs)
    (Ten ? bgraToChroma10_plain : bgraToChroma8_plain)(
        u + i, v + i, a + 8 * size_t(i), b ? b + 8 * size_t(i) : nullptr, w - 2 * i, m);
}

}  // namespace

void yuv8ToBgra_avx2(BYTE* d, const int16_t* y, const int16_t* u, const int16_t* v, LONG w,
                     const UyvyCoeffs& k) {
  toBgra<false>(d, y, u, v, w, k);
}
void yuv10ToBgra_avx2(BYTE* d, const int16_t* y, const int16_t* u, const int16_t* v, LONG w,
                      const UyvyCoeffs& k) {
  toBgra<true>(d, y, u, v, w, k);
}
void bgraToLuma8_avx2(int16_t* y, const BYTE* s, LONG w, const KAYUVMATRIX& m) {
  luma<false>(y, s, w, m);
}
void bgraToLuma10_avx2(int16_t* y, const BYTE* s, LONG w, const KAYUVMATRIX& m) {
  luma<true>(y, s, w, m);
}
void bgraToChroma8_avx2(int16_t* u, int16_t* v, const BYTE* a, const BYTE* b, LONG w,
                        const KAYUVMATRIX& m) {
  chroma<false>(u, v, a, b, w, m);
}
void bgraToChroma10_avx2(int16_t* u, int16_t* v, const BYTE* a, const BYTE* b, LONG w,
                         const KAYUVMATRIX& m) {
  chroma<true>(u, v, a, b, w, m);
}

// v210, two groups (12 pixels, one per lane) per step. Each field is a variable shift of
// its word and a mask; packus and a byte shuffle put them in sample order. Steps run only
// while pixels follow them, so the overlapping chroma stores (each writes one sample too
// many, which the next step or the plain tail rewrites) and loads stay inside the row.
void v210ToSamples_avx2(int16_t* y, int16_t* u, int16_t* v, const BYTE* src, LONG w) {
  const __m256i mask = _mm256_set1_epi32(1023);
  // Per group: Y0 Y1 Y3 Y4 from the first shifts, Y2 and Y5 from the second; U0 U1 U2 and
  // V0 V1 V2 likewise.
  const __m256i yA = _mm256_setr_epi32(10, 0, 10, 0, 10, 0, 10, 0),
                yB = _mm256_setr_epi32(0, 20, 0, 20, 0, 20, 0, 20),
                uS = _mm256_setr_epi32(0, 10, 20, 0, 0, 10, 20, 0),
                vS = _mm256_setr_epi32(20, 0, 0, 10, 20, 0, 0, 10);
  const __m256i yOrder =
      _mm256_setr_epi8(0, 1, 2, 3, 10, 11, 4, 5, 6, 7, 14, 15, -1, -1, -1, -1,  //
                       0, 1, 2, 3, 10, 11, 4, 5, 6, 7, 14, 15, -1, -1, -1, -1);
  const __m256i uvOrder =
      _mm256_setr_epi8(0, 1, 2, 3, 4, 5, -1, -1, 8, 9, 12, 13, 14, 15, -1, -1,  //
                       0, 1, 2, 3, 4, 5, -1, -1, 8, 9, 12, 13, 14, 15, -1, -1);
  const __m256i compact = _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 3, 7);
  LONG x = 0;
  for (; x + 12 < w; x += 12, src += 32) {
    const __m256i words = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src));
    auto field = [&](__m256i shifts) {
      return _mm256_and_si256(_mm256_srlv_epi32(words, shifts), mask);
    };
    const __m256i ys = _mm256_permutevar8x32_epi32(
        _mm256_shuffle_epi8(_mm256_packus_epi32(field(yA), field(yB)), yOrder), compact);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(y + x), _mm256_castsi256_si128(ys));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(y + x + 8), _mm256_extracti128_si256(ys, 1));
    const __m256i uv = _mm256_shuffle_epi8(_mm256_packus_epi32(field(uS), field(vS)), uvOrder);
    const __m128i first = _mm256_castsi256_si128(uv), second = _mm256_extracti128_si256(uv, 1);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(u + x / 2), first);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(u + x / 2 + 3), second);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(v + x / 2), _mm_srli_si128(first, 8));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(v + x / 2 + 3), _mm_srli_si128(second, 8));
  }
  if (x < w) v210ToSamples_plain(y + x, u + x / 2, v + x / 2, src, w - x);
}

// The reverse: words are field0 | field1 << 10 | field2 << 20 with, per group, field0 =
// U0 Y1 V1 Y4, field1 = Y0 U1 Y3 V2, field2 = V0 Y2 U2 Y5, gathered by byte shuffles from
// the luma (Y0..Y5 per lane) and chroma (U0..U2, V0..V2 per lane) samples.
void samplesToV210_avx2(BYTE* dst, const int16_t* y, const int16_t* u, const int16_t* v, LONG w) {
  const __m256i y0 =
      _mm256_setr_epi8(-1, -1, -1, -1, 2, 3, -1, -1, -1, -1, -1, -1, 8, 9, -1, -1,  //
                       -1, -1, -1, -1, 2, 3, -1, -1, -1, -1, -1, -1, 8, 9, -1, -1);
  const __m256i c0 =
      _mm256_setr_epi8(0, 1, -1, -1, -1, -1, -1, -1, 10, 11, -1, -1, -1, -1, -1, -1,  //
                       0, 1, -1, -1, -1, -1, -1, -1, 10, 11, -1, -1, -1, -1, -1, -1);
  const __m256i y1 =
      _mm256_setr_epi8(0, 1, -1, -1, -1, -1, -1, -1, 6, 7, -1, -1, -1, -1, -1, -1,  //
                       0, 1, -1, -1, -1, -1, -1, -1, 6, 7, -1, -1, -1, -1, -1, -1);
  const __m256i c1 =
      _mm256_setr_epi8(-1, -1, -1, -1, 2, 3, -1, -1, -1, -1, -1, -1, 12, 13, -1, -1,  //
                       -1, -1, -1, -1, 2, 3, -1, -1, -1, -1, -1, -1, 12, 13, -1, -1);
  const __m256i y2 =
      _mm256_setr_epi8(-1, -1, -1, -1, 4, 5, -1, -1, -1, -1, -1, -1, 10, 11, -1, -1,  //
                       -1, -1, -1, -1, 4, 5, -1, -1, -1, -1, -1, -1, 10, 11, -1, -1);
  const __m256i c2 =
      _mm256_setr_epi8(8, 9, -1, -1, -1, -1, -1, -1, 4, 5, -1, -1, -1, -1, -1, -1,  //
                       8, 9, -1, -1, -1, -1, -1, -1, 4, 5, -1, -1, -1, -1, -1, -1);
  LONG x = 0;
  for (; x + 12 < w; x += 12, dst += 32) {
    const __m256i ys = _mm256_loadu2_m128i(reinterpret_cast<const __m128i*>(y + x + 6),
                                           reinterpret_cast<const __m128i*>(y + x));
    auto chroma = [&](LONG at) {
      return _mm_unpacklo_epi64(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(u + at)),
                                _mm_loadl_epi64(reinterpret_cast<const __m128i*>(v + at)));
    };
    const __m256i cs = _mm256_set_m128i(chroma(x / 2 + 3), chroma(x / 2));
    auto field = [&](__m256i fromY, __m256i fromC) {
      return _mm256_or_si256(_mm256_shuffle_epi8(ys, fromY), _mm256_shuffle_epi8(cs, fromC));
    };
    const __m256i words =
        _mm256_or_si256(field(y0, c0), _mm256_or_si256(_mm256_slli_epi32(field(y1, c1), 10),
                                                       _mm256_slli_epi32(field(y2, c2), 20)));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst), words);
  }
  if (x < w) samplesToV210_plain(dst, y + x, u + x / 2, v + x / 2, w - x);
}

void words10ToSamples_avx2(int16_t* d, const BYTE* s, LONG n) {
  LONG i = 0;
  for (; i + 16 <= n; i += 16)
    _mm256_storeu_si256(
        reinterpret_cast<__m256i*>(d + i),
        _mm256_srli_epi16(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(s + 2 * i)), 6));
  if (i < n) words10ToSamples_plain(d + i, s + 2 * i, n - i);
}

// 16 pairs per step: per lane U U U U V V V V, then the quarters put in order.
void wordPairs10ToSamples_avx2(int16_t* u, int16_t* v, const BYTE* s, LONG n) {
  const __m256i split = _mm256_setr_epi8(0, 1, 4, 5, 8, 9, 12, 13, 2, 3, 6, 7, 10, 11, 14, 15,  //
                                         0, 1, 4, 5, 8, 9, 12, 13, 2, 3, 6, 7, 10, 11, 14, 15);
  auto load = [&](const BYTE* p) {
    const __m256i w = _mm256_srli_epi16(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)), 6);
    return _mm256_permute4x64_epi64(_mm256_shuffle_epi8(w, split), 0xD8);
  };
  LONG i = 0;
  for (; i + 16 <= n; i += 16) {
    const __m256i a = load(s + 4 * size_t(i)), b = load(s + 4 * size_t(i) + 32);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(u + i), _mm256_permute2x128_si256(a, b, 0x20));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(v + i), _mm256_permute2x128_si256(a, b, 0x31));
  }
  if (i < n) wordPairs10ToSamples_plain(u + i, v + i, s + 4 * size_t(i), n - i);
}

}  // namespace ostra::image
