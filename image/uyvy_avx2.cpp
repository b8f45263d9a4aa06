// AVX2 kernels of the packed 4:2:2 conversion: 16 pixels per step, the same integers as
// the plain kernel. (Y*4096 + 2048 + t) >> 12 equals Y + ((t + 2048) >> 12) because
// Y*4096 is a whole multiple of 4096, so the chroma terms are computed once per pair and
// added to both lumas, and packus does the clamping. With C8 = 8 * (C - 128) the blue and
// red terms are exactly mulhrs(C8, term) = (8*C*term + 2^14) >> 15; green needs both
// chroma samples, so it is a madd with the rounding constant scaled the same way.
#include <immintrin.h>

#include "image/internal/uyvy.h"

namespace ostra::image {
namespace {

struct Consts {
  __m256i k8, bias8, round, alpha, kbr, kg, dupLow, dupHigh;
  explicit Consts(const UyvyCoeffs& k)
      : k8(_mm256_set1_epi16(8)),
        bias8(_mm256_set1_epi16(1024)),
        round(_mm256_set1_epi32(16384)),
        alpha(_mm256_set1_epi16(255)),
        kbr(_mm256_set1_epi32(
            int32_t(uint32_t(uint16_t(k.bFromCb)) | (uint32_t(uint16_t(k.rFromCr)) << 16)))),
        kg(_mm256_set1_epi32(
            int32_t(uint32_t(uint16_t(k.gFromCb)) | (uint32_t(uint16_t(k.gFromCr)) << 16)))),
        dupLow(_mm256_setr_epi8(0, 1, 0, 1, 4, 5, 4, 5, 8, 9, 8, 9, 12, 13, 12, 13,  //
                                0, 1, 0, 1, 4, 5, 4, 5, 8, 9, 8, 9, 12, 13, 12, 13)),
        dupHigh(_mm256_setr_epi8(2, 3, 2, 3, 6, 7, 6, 7, 10, 11, 10, 11, 14, 15, 14, 15,  //
                                 2, 3, 2, 3, 6, 7, 6, 7, 10, 11, 10, 11, 14, 15, 14, 15)) {}
};

// 16 pixels from 32 source bytes; *first gets pixels 0-7, *second 8-15 as B, G, R, 255.
inline void convert16(const BYTE* src, const Consts& c, __m256i* first, __m256i* second) {
  // Source quarters in the order 0, 2, 1, 3 make the in-lane interleaves below come out
  // in pixel order without a permute at the end.
  const __m256i s =
      _mm256_permute4x64_epi64(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(src)), 0xD8);
  const __m256i y = _mm256_srli_epi16(s, 8);
  const __m256i c8 =
      _mm256_sub_epi16(_mm256_maddubs_epi16(s, c.k8), c.bias8);  // U, V words times 8, centred
  const __m256i br = _mm256_mulhrs_epi16(c8, c.kbr);             // blue, red term per pair
  const __m256i g32 = _mm256_srai_epi32(_mm256_add_epi32(_mm256_madd_epi16(c8, c.kg), c.round), 15);
  const __m256i b = _mm256_add_epi16(y, _mm256_shuffle_epi8(br, c.dupLow));
  const __m256i r = _mm256_add_epi16(y, _mm256_shuffle_epi8(br, c.dupHigh));
  const __m256i g = _mm256_add_epi16(y, _mm256_shuffle_epi8(g32, c.dupLow));
  const __m256i bR = _mm256_packus_epi16(b, r);
  const __m256i gA = _mm256_packus_epi16(g, c.alpha);
  const __m256i bgl = _mm256_unpacklo_epi8(bR, gA);
  const __m256i ral = _mm256_unpackhi_epi8(bR, gA);
  *first = _mm256_unpacklo_epi16(bgl, ral);
  *second = _mm256_unpackhi_epi16(bgl, ral);
}

inline void store16(BYTE* dst, const BYTE* src, const Consts& c) {
  __m256i a, b;
  convert16(src, c, &a, &b);
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst), a);
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + 32), b);
}

}  // namespace

void uyvyToBgra_avx2(BYTE* dst, const BYTE* src, LONG width, const UyvyCoeffs& k) {
  const Consts c(k);
  LONG x = 0;
  // Two blocks per turn: the loop overhead is a noticeable share of so short a body.
  for (; x + 32 <= width; x += 32, src += 64, dst += 128) {
    store16(dst, src, c);
    store16(dst + 64, src + 32, c);
  }
  for (; x + 16 <= width; x += 16, src += 32, dst += 64) store16(dst, src, c);
  if (x < width) uyvyToBgra_plain(dst, src, width - x, k);
}

void uyvyToBgr_avx2(BYTE* dst, const BYTE* src, LONG width, const UyvyCoeffs& k) {
  const Consts c(k);
  const __m256i pack = _mm256_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1,  //
                                        0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1);
  const LONG blocks = width & ~LONG(15);
  for (LONG x = 0; x < blocks; x += 16, src += 32, dst += 48) {
    __m256i a, b;
    convert16(src, c, &a, &b);
    a = _mm256_shuffle_epi8(a, pack);
    b = _mm256_shuffle_epi8(b, pack);
    // Overlapping 16-byte stores, each overwriting the previous one's 4 spare bytes; the
    // last group is stored as 8 + 4 bytes so nothing beyond the 48 bytes is touched.
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst), _mm256_castsi256_si128(a));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + 12), _mm256_extracti128_si256(a, 1));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + 24), _mm256_castsi256_si128(b));
    const __m128i last = _mm256_extracti128_si256(b, 1);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(dst + 36), last);
    const int tail = _mm_cvtsi128_si32(_mm_srli_si128(last, 8));
    __builtin_memcpy(dst + 44, &tail, 4);
  }
  if (blocks < width) uyvyToBgr_plain(dst, src, width - blocks, k);
}

}  // namespace ostra::image
