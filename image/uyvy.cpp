// Packed "UYVY" to 32- and 24-bit RGB in 12-bit fixed point: the plain kernels, the
// table that picks a vector kernel by processor feature, and the entry points.
#include <cmath>
#include <cstdlib>

#include "image/internal/uyvy.h"
#include "kernel/internal/feature_table.h"
#include "ostra/kacpu.h"
#include "ostra/kayuv.h"

namespace ostra::image {
namespace {

inline BYTE clamp255(int v) { return BYTE(v < 0 ? 0 : (v > 255 ? 255 : v)); }

// Luma is used as it stands: studio-level YUV gives studio-level RGB.
template <int Bytes>
inline void convertPairs(BYTE* dst, const BYTE* src, LONG width, const UyvyCoeffs& k) {
  for (LONG x = 0; x < width; x += 2, src += 4) {
    const int u = src[0] - 128, v = src[2] - 128;
    const int bt = k.bFromCb * u, gt = k.gFromCr * v + k.gFromCb * u, rt = k.rFromCr * v;
    for (int i = 0; i < 2; ++i, dst += Bytes) {
      const int base = src[1 + 2 * i] * 4096 + 2048;
      dst[0] = clamp255((base + bt) >> 12);
      dst[1] = clamp255((base + gt) >> 12);
      dst[2] = clamp255((base + rt) >> 12);
      if constexpr (Bytes == 4) dst[3] = 255;
    }
  }
}

}  // namespace

void uyvyToBgra_plain(BYTE* dst, const BYTE* src, LONG width, const UyvyCoeffs& k) {
  convertPairs<4>(dst, src, width, k);
}
void uyvyToBgr_plain(BYTE* dst, const BYTE* src, LONG width, const UyvyCoeffs& k) {
  convertPairs<3>(dst, src, width, k);
}

UyvyTable uyvyTableFor(DWORD cpu) noexcept {
  UyvyTable t{uyvyToBgra_plain, uyvyToBgr_plain, "plain", "plain"};
#if defined(__x86_64__)
  if (cpu & KACPU_SSE2) {
    t.toBgra = uyvyToBgra_sse2;
    t.toBgraVariant = "sse2";
  }
  if (cpu & KACPU_AVX2) {
    t.toBgra = uyvyToBgra_avx2;
    t.toBgr = uyvyToBgr_avx2;
    t.toBgraVariant = t.toBgrVariant = "avx2";
  }
  constexpr DWORD kAvx512 = KACPU_AVX2 | KACPU_AVX512F | KACPU_AVX512BW;
  if ((cpu & kAvx512) == kAvx512) {
    t.toBgra = uyvyToBgra_avx512;
    t.toBgraVariant = "avx512";
  }
#else
  (void)cpu;
#endif
  return t;
}

const UyvyTable& uyvyTable() noexcept {
  static constinit kernel::FeatureTable<UyvyTable> table{uyvyTableFor};
  return table.get();
}

UyvyCoeffs uyvyCoeffs(int colourSpace, LONG width, LONG height) noexcept {
  const KAYUVMATRIX* m = KaYUV_SelectMatrix(colourSpace, width, height);
  return {int32_t(std::lround(m->rFromCr * 4096)), int32_t(std::lround(m->gFromCr * 4096)),
          int32_t(std::lround(m->gFromCb * 4096)), int32_t(std::lround(m->bFromCb * 4096))};
}

}  // namespace ostra::image

namespace {

HRESULT convertUyvy(void* dst, const void* src, LONG dstStride, LONG width, LONG height,
                    int colourSpace, bool alpha) {
  using namespace ostra::image;
  if (!dst || !src) return E_POINTER;
  const int64_t minStride = int64_t(width) * (alpha ? 4 : 3);
  if (height < 1 || width < 1 || (width & 1) || std::llabs(int64_t(dstStride)) < minStride)
    return E_INVALIDARG;
  const UyvyCoeffs k = uyvyCoeffs(colourSpace, width, height);
  const UyvyTable& t = uyvyTable();
  const UyvyRowFn fn = alpha ? t.toBgra : t.toBgr;
  auto* d = static_cast<BYTE*>(dst);
  const auto* s = static_cast<const BYTE*>(src);
  const bool par = int64_t(width) * height >= 32768;
#pragma omp parallel for schedule(static) if (par)
  for (LONG y = 0; y < height; ++y)
    fn(d + ptrdiff_t(y) * dstStride, s + ptrdiff_t(y) * 2 * width, width, k);
  return S_OK;
}

}  // namespace

HRESULT KaUYVY2RGBA(void* dst, const void* src, LONG dstStride, LONG width, LONG height,
                    int colourSpace) noexcept {
  return convertUyvy(dst, src, dstStride, width, height, colourSpace, true);
}

HRESULT KaUYVY2RGB(void* dst, const void* src, LONG dstStride, LONG width, LONG height,
                   int colourSpace) noexcept {
  return convertUyvy(dst, src, dstStride, width, height, colourSpace, false);
}
