// SSE2 kernel of the packed 4:2:2 to 32-bit conversion: 8 pixels per step, the same
// integer arithmetic as the plain kernel. (Y*4096 + 2048 + t) >> 12 equals
// Y + ((t + 2048) >> 12) because Y*4096 is a whole multiple of 4096, so the chroma terms
// are computed once per pair and added to both lumas; packus does the clamping.
#include <emmintrin.h>

#include "image/internal/uyvy.h"

namespace ostra::image {

void uyvyToBgra_sse2(BYTE* dst, const BYTE* src, LONG width, const UyvyCoeffs& k) {
  const __m128i lo8 = _mm_set1_epi16(0x00FF);
  const __m128i bias = _mm_set1_epi16(128);
  const __m128i round = _mm_set1_epi32(2048);
  const __m128i alpha = _mm_set1_epi16(255);
  // madd pairs are (U, V).
  const __m128i kb = _mm_set1_epi32(int32_t(uint16_t(k.bFromCb)));
  const __m128i kg = _mm_set1_epi32(
      int32_t(uint32_t(uint16_t(k.gFromCb)) | (uint32_t(uint16_t(k.gFromCr)) << 16)));
  const __m128i kr = _mm_set1_epi32(int32_t(uint32_t(uint16_t(k.rFromCr)) << 16));
  const LONG blocks = width & ~LONG(7);
  for (LONG x = 0; x < blocks; x += 8, src += 16, dst += 32) {
    const __m128i s = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src));
    const __m128i y = _mm_srli_epi16(s, 8);
    const __m128i c = _mm_sub_epi16(_mm_and_si128(s, lo8), bias);
    const __m128i bt = _mm_srai_epi32(_mm_add_epi32(_mm_madd_epi16(c, kb), round), 12);
    const __m128i gt = _mm_srai_epi32(_mm_add_epi32(_mm_madd_epi16(c, kg), round), 12);
    const __m128i rt = _mm_srai_epi32(_mm_add_epi32(_mm_madd_epi16(c, kr), round), 12);
    const __m128i bg = _mm_packs_epi32(bt, gt);
    const __m128i rr = _mm_packs_epi32(rt, rt);
    const __m128i b = _mm_add_epi16(y, _mm_unpacklo_epi16(bg, bg));
    const __m128i g = _mm_add_epi16(y, _mm_unpackhi_epi16(bg, bg));
    const __m128i r = _mm_add_epi16(y, _mm_unpacklo_epi16(rr, rr));
    const __m128i br = _mm_packus_epi16(b, r);
    const __m128i ga = _mm_packus_epi16(g, alpha);
    const __m128i bgl = _mm_unpacklo_epi8(br, ga);
    const __m128i ral = _mm_unpackhi_epi8(br, ga);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst), _mm_unpacklo_epi16(bgl, ral));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + 16), _mm_unpackhi_epi16(bgl, ral));
  }
  if (blocks < width) uyvyToBgra_plain(dst, src, width - blocks, k);
}

}  // namespace ostra::image
