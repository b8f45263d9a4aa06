// Plain colour kernels of the general YUV conversions (they define the result) and the
// table that swaps in the vector ones by processor feature.
#include <cmath>
#include <cstring>

#include "image/internal/yuv_general.h"
#include "kernel/internal/feature_table.h"
#include "ostra/kacpu.h"

namespace ostra::image {
namespace {

inline BYTE clamp255(int v) { return BYTE(v < 0 ? 0 : (v > 255 ? 255 : v)); }

// 8 bits: (Y*4096 + 2048 + t) >> 12; 10 bits: (Y*4096 + 8192 + t) >> 14.
template <bool Ten>
void toBgra(BYTE* d, const int16_t* ys, const int16_t* us, const int16_t* vs, LONG w,
            const UyvyCoeffs& k) {
  constexpr int shift = Ten ? 14 : 12, round = 1 << (shift - 1), centre = Ten ? 512 : 128;
  for (LONG i = 0; i < w / 2; ++i) {
    const int u = us[i] - centre, v = vs[i] - centre;
    const int bt = k.bFromCb * u + round, gt = k.gFromCr * v + k.gFromCb * u + round,
              rt = k.rFromCr * v + round;
    for (int j = 0; j < 2; ++j, d += 4) {
      const int base = ys[2 * i + j] * 4096;
      d[0] = clamp255((base + bt) >> shift);
      d[1] = clamp255((base + gt) >> shift);
      d[2] = clamp255((base + rt) >> shift);
      d[3] = 255;
    }
  }
}

inline int16_t roundClamp(double v, int maxValue) {
  const double r = std::floor(v + 0.5);
  return int16_t(r < 0 ? 0 : (r > maxValue ? maxValue : r));
}

template <bool Ten>
void luma(int16_t* y, const BYTE* a, LONG w, const KAYUVMATRIX& m) {
  const double scale = Ten ? 4.0 : 1.0;
  for (LONG x = 0; x < w; ++x) {
    const BYTE* p = a + 4 * size_t(x);
    y[x] = roundClamp(scale * (m.kr * p[2] + m.kg * p[1] + m.kb * p[0]), Ten ? 1023 : 255);
  }
}

template <bool Ten>
void chroma(int16_t* u, int16_t* v, const BYTE* a, const BYTE* b, LONG w, const KAYUVMATRIX& m) {
  const double scale = Ten ? 4.0 : 1.0, centre = Ten ? 512.0 : 128.0;
  const int maxValue = Ten ? 1023 : 255, n = b ? 4 : 2;
  for (LONG i = 0; i < w / 2; ++i) {
    double sb = 0, sg = 0, sr = 0;
    for (const BYTE* row : {a, b}) {
      if (!row) continue;
      const BYTE* p = row + 8 * size_t(i);
      sb += p[0] + p[4];
      sg += p[1] + p[5];
      sr += p[2] + p[6];
    }
    sb /= n;
    sg /= n;
    sr /= n;
    u[i] = roundClamp(centre + scale * (m.cbR * sr + m.cbG * sg + m.cbB * sb), maxValue);
    v[i] = roundClamp(centre + scale * (m.crR * sr + m.crG * sg + m.crB * sb), maxValue);
  }
}

inline DWORD load32(const BYTE* p) {
  DWORD v;
  std::memcpy(&v, p, 4);
  return v;
}

}  // namespace

void yuv8ToBgra_plain(BYTE* d, const int16_t* y, const int16_t* u, const int16_t* v, LONG w,
                      const UyvyCoeffs& k) {
  toBgra<false>(d, y, u, v, w, k);
}
void yuv10ToBgra_plain(BYTE* d, const int16_t* y, const int16_t* u, const int16_t* v, LONG w,
                       const UyvyCoeffs& k) {
  toBgra<true>(d, y, u, v, w, k);
}
void bgraToLuma8_plain(int16_t* y, const BYTE* s, LONG w, const KAYUVMATRIX& m) {
  luma<false>(y, s, w, m);
}
void bgraToLuma10_plain(int16_t* y, const BYTE* s, LONG w, const KAYUVMATRIX& m) {
  luma<true>(y, s, w, m);
}
void bgraToChroma8_plain(int16_t* u, int16_t* v, const BYTE* a, const BYTE* b, LONG w,
                         const KAYUVMATRIX& m) {
  chroma<false>(u, v, a, b, w, m);
}
void bgraToChroma10_plain(int16_t* u, int16_t* v, const BYTE* a, const BYTE* b, LONG w,
                          const KAYUVMATRIX& m) {
  chroma<true>(u, v, a, b, w, m);
}

// Samples run U Y V Y ... in 10 bits, three to a little-endian word, 16 bytes per 6 pixels.
void v210ToSamples_plain(int16_t* y, int16_t* u, int16_t* v, const BYTE* src, LONG w) {
  const LONG pairs = w / 2;
  int16_t stream[12];
  for (LONG g = 0; g < (w + 5) / 6; ++g) {
    for (int k = 0; k < 4; ++k) {
      const DWORD word = load32(src + 16 * size_t(g) + 4 * k);
      for (int j = 0; j < 3; ++j) stream[3 * k + j] = int16_t((word >> (10 * j)) & 1023);
    }
    for (int q = 0; q < 3 && 3 * g + q < pairs; ++q) {
      const LONG i = 3 * g + q;
      u[i] = stream[4 * q];
      y[2 * i] = stream[4 * q + 1];
      v[i] = stream[4 * q + 2];
      y[2 * i + 1] = stream[4 * q + 3];
    }
  }
}

void samplesToV210_plain(BYTE* dst, const int16_t* y, const int16_t* u, const int16_t* v, LONG w) {
  const LONG pairs = w / 2;
  for (LONG g = 0; g < (w + 5) / 6; ++g) {
    DWORD stream[12] = {};
    for (int q = 0; q < 3 && 3 * g + q < pairs; ++q) {
      const LONG i = 3 * g + q;
      stream[4 * q] = DWORD(u[i]);
      stream[4 * q + 1] = DWORD(y[2 * i]);
      stream[4 * q + 2] = DWORD(v[i]);
      stream[4 * q + 3] = DWORD(y[2 * i + 1]);
    }
    for (int k = 0; k < 4; ++k) {
      const DWORD word = stream[3 * k] | (stream[3 * k + 1] << 10) | (stream[3 * k + 2] << 20);
      std::memcpy(dst + 16 * size_t(g) + 4 * k, &word, 4);
    }
  }
}

inline int16_t word10(const BYTE* p) { return int16_t((DWORD(p[0]) | (DWORD(p[1]) << 8)) >> 6); }

void words10ToSamples_plain(int16_t* __restrict d, const BYTE* __restrict s, LONG n) {
  for (LONG i = 0; i < n; ++i) d[i] = word10(s + 2 * size_t(i));
}
void wordPairs10ToSamples_plain(int16_t* __restrict u, int16_t* __restrict v,
                                const BYTE* __restrict s, LONG n) {
  for (LONG i = 0; i < n; ++i) {
    u[i] = word10(s + 4 * size_t(i));
    v[i] = word10(s + 4 * size_t(i) + 2);
  }
}

YuvGeneralTable yuvGeneralTableFor(DWORD cpu) noexcept {
  YuvGeneralTable t{{yuv8ToBgra_plain, yuv10ToBgra_plain},
                    {bgraToLuma8_plain, bgraToLuma10_plain},
                    {bgraToChroma8_plain, bgraToChroma10_plain},
                    v210ToSamples_plain,
                    samplesToV210_plain,
                    words10ToSamples_plain,
                    wordPairs10ToSamples_plain,
                    "plain",
                    "plain"};
#if defined(__x86_64__)
  if (cpu & KACPU_AVX2)
    t = {{yuv8ToBgra_avx2, yuv10ToBgra_avx2},
         {bgraToLuma8_avx2, bgraToLuma10_avx2},
         {bgraToChroma8_avx2, bgraToChroma10_avx2},
         v210ToSamples_avx2,
         samplesToV210_avx2,
         words10ToSamples_avx2,
         wordPairs10ToSamples_avx2,
         "avx2",
         "avx2"};
  constexpr DWORD kAvx512 = KACPU_AVX2 | KACPU_AVX512F | KACPU_AVX512BW | KACPU_AVX512VL;
  if ((cpu & kAvx512) == kAvx512)
    t = {{yuv8ToBgra_avx512, yuv10ToBgra_avx512},
         {bgraToLuma8_avx512, bgraToLuma10_avx512},
         {bgraToChroma8_avx512, bgraToChroma10_avx512},
         v210ToSamples_avx2,
         samplesToV210_avx2,
         words10ToSamples_avx2,
         wordPairs10ToSamples_avx2,
         "avx512",
         "avx2"};
#else
  (void)cpu;
#endif
  return t;
}

const YuvGeneralTable& yuvGeneralTable() noexcept {
  static constinit kernel::FeatureTable<YuvGeneralTable> table{yuvGeneralTableFor};
  return table.get();
}

}  // namespace ostra::image
