// AVX-512 (F + BW) kernel of the packed 4:2:2 to 32-bit conversion: the arithmetic of the
// AVX2 kernel (see there) on 32 pixels per step.
// GCC 12's AVX-512 header seeds its intrinsics with _mm512_undefined_*, which it then
// reports as uninitialised.
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <immintrin.h>

#include "image/internal/uyvy.h"

namespace ostra::image {

namespace {

// In-lane byte patterns repeated over the four lanes.
alignas(64) constexpr BYTE kDupLow[64] = {0, 1, 0, 1, 4, 5, 4, 5, 8, 9, 8, 9, 12, 13, 12, 13,
                                          0, 1, 0, 1, 4, 5, 4, 5, 8, 9, 8, 9, 12, 13, 12, 13,
                                          0, 1, 0, 1, 4, 5, 4, 5, 8, 9, 8, 9, 12, 13, 12, 13,
                                          0, 1, 0, 1, 4, 5, 4, 5, 8, 9, 8, 9, 12, 13, 12, 13};
alignas(64) constexpr BYTE kDupHigh[64] = {2, 3, 2, 3, 6, 7, 6, 7, 10, 11, 10, 11, 14, 15, 14, 15,
                                           2, 3, 2, 3, 6, 7, 6, 7, 10, 11, 10, 11, 14, 15, 14, 15,
                                           2, 3, 2, 3, 6, 7, 6, 7, 10, 11, 10, 11, 14, 15, 14, 15,
                                           2, 3, 2, 3, 6, 7, 6, 7, 10, 11, 10, 11, 14, 15, 14, 15};

}  // namespace

void uyvyToBgra_avx512(BYTE* dst, const BYTE* src, LONG width, const UyvyCoeffs& k) {
  const __m512i k8 = _mm512_set1_epi16(8), bias8 = _mm512_set1_epi16(1024);
  const __m512i round = _mm512_set1_epi32(16384), alpha = _mm512_set1_epi16(255);
  const __m512i kbr = _mm512_set1_epi32(
      int32_t(uint32_t(uint16_t(k.bFromCb)) | (uint32_t(uint16_t(k.rFromCr)) << 16)));
  const __m512i kg = _mm512_set1_epi32(
      int32_t(uint32_t(uint16_t(k.gFromCb)) | (uint32_t(uint16_t(k.gFromCr)) << 16)));
  const __m512i dupLow = _mm512_load_si512(kDupLow);
  const __m512i dupHigh = _mm512_load_si512(kDupHigh);
  // Lane i gets source quarters i and i + 4, so that the in-lane interleaves at the end
  // give pixels 0-15 in the first store and 16-31 in the second.
  const __m512i order = _mm512_setr_epi64(0, 4, 1, 5, 2, 6, 3, 7);
  LONG x = 0;
  for (; x + 32 <= width; x += 32, src += 64, dst += 128) {
    const __m512i s = _mm512_permutexvar_epi64(order, _mm512_loadu_si512(src));
    const __m512i y = _mm512_srli_epi16(s, 8);
    const __m512i c8 = _mm512_sub_epi16(_mm512_maddubs_epi16(s, k8), bias8);
    const __m512i br = _mm512_mulhrs_epi16(c8, kbr);
    const __m512i g32 = _mm512_srai_epi32(_mm512_add_epi32(_mm512_madd_epi16(c8, kg), round), 15);
    const __m512i b = _mm512_add_epi16(y, _mm512_shuffle_epi8(br, dupLow));
    const __m512i r = _mm512_add_epi16(y, _mm512_shuffle_epi8(br, dupHigh));
    const __m512i g = _mm512_add_epi16(y, _mm512_shuffle_epi8(g32, dupLow));
    const __m512i bR = _mm512_packus_epi16(b, r);
    const __m512i gA = _mm512_packus_epi16(g, alpha);
    const __m512i bgl = _mm512_unpacklo_epi8(bR, gA);
    const __m512i ral = _mm512_unpackhi_epi8(bR, gA);
    _mm512_storeu_si512(dst, _mm512_unpacklo_epi16(bgl, ral));
    _mm512_storeu_si512(dst + 64, _mm512_unpackhi_epi16(bgl, ral));
  }
  if (x < width) uyvyToBgra_avx2(dst, src, width - x, k);
}

}  // namespace ostra::image
