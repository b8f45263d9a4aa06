#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "image/internal/yuv_general.h"
#include "ostra/kacpu.h"
#include "ostra/kaerror.h"
#include "ostra/kayuv.h"
#include "support/guarded_buffer.h"

namespace {

DWORD fourcc(const std::string& s) { return KaFourCC(s[0], s[1], s[2], s[3]); }

DWORD frameBytes(const std::string& code, LONG w, LONG h) {
  BITMAPINFOHEADER bih{};
  bih.biWidth = w;
  bih.biHeight = h;
  bih.biCompression = fourcc(code);
  return KaYUVImageBytesAndOffsets(&bih, nullptr);
}

const char* const kEightBit[] = {"UYVY", "YUYV", "I420", "IYUV", "YV12", "YV16", "NV12"};
const char* const kTenBit[] = {"P010", "P210", "v210"};

// Studio-range BGRA whose colour is constant over each pair of columns (and, unless
// `columns`, over each pair of rows), so that chroma subsampling loses nothing.
std::vector<BYTE> image(LONG w, LONG h, bool columns, uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<BYTE> px(size_t(w) * h * 4);
  std::vector<BYTE> colours(size_t(w / 2) * (h / 2 + 1) * 3);
  for (auto& c : colours) c = BYTE(16 + rng() % 220);
  for (LONG y = 0; y < h; ++y)
    for (LONG x = 0; x < w; ++x) {
      const size_t c = (size_t(columns ? 0 : y / 2) * (w / 2) + x / 2) * 3;
      BYTE* p = &px[(size_t(y) * w + x) * 4];
      p[0] = colours[c];
      p[1] = colours[c + 1];
      p[2] = colours[c + 2];
      p[3] = 255;
    }
  return px;
}

int maxDiff(const std::vector<BYTE>& a, const std::vector<BYTE>& b) {
  int m = 0;
  for (size_t i = 0; i < a.size(); ++i) m = std::max(m, std::abs(int(a[i]) - int(b[i])));
  return m;
}

// RGB -> YUV -> RGB: within 2 levels for the 8-bit layouts and 1 for the 10-bit ones
// (rounding of Y and chroma, 12-bit terms, rounding of the result), in every matrix.
// Layouts of the same depth decode to the same bytes, which pins each layout's packing.
TEST(YuvGeneral, RoundTripsWithinTolerance) {
  struct Size {
    LONG w, h;
    bool columns;
  };
  for (const Size sz : {Size{64, 16, false}, Size{50, 9, true}, Size{2, 3, true}, Size{4, 2, false},
                        Size{98, 3, true}})
    for (int cs = 1; cs <= 3; ++cs) {
      const std::vector<BYTE> rgb = image(sz.w, sz.h, sz.columns, uint32_t(cs + sz.w));
      for (bool ten : {false, true}) {
        std::vector<BYTE> first;
        for (const char* code :
             ten ? std::vector<const char*>(std::begin(kTenBit), std::end(kTenBit))
                 : std::vector<const char*>(std::begin(kEightBit), std::end(kEightBit))) {
          const DWORD bytes = frameBytes(code, sz.w, sz.h);
          std::vector<BYTE> yuv(bytes), back(rgb.size());
          ASSERT_EQ(KaYUV_RGBToYUV(yuv.data(), yuv.size(), fourcc(code), rgb.data(), sz.w * 4, sz.w,
                                   sz.h, cs),
                    S_OK);
          ASSERT_EQ(KaYUV_YUVToRGB(back.data(), sz.w * 4, yuv.data(), yuv.size(), fourcc(code),
                                   sz.w, sz.h, cs),
                    S_OK);
          EXPECT_LE(maxDiff(rgb, back), ten ? 1 : 2)
              << code << " " << sz.w << "x" << sz.h << " matrix " << cs;
          if (first.empty())
            first = back;
          else
            EXPECT_EQ(back, first) << code << " " << sz.w << "x" << sz.h;
        }
      }
    }
}

// YUV -> RGB against the matrix evaluated in double precision, and RGB -> YUV against
// the forward matrix: at most one level apart.
TEST(YuvGeneral, AgreesWithADoublePrecisionReference) {
  std::mt19937 rng(5);
  const LONG w = 64, h = 4;
  std::vector<BYTE> uyvy(size_t(w) * h * 2), rgb(size_t(w) * h * 4);
  for (auto& b : uyvy) b = BYTE(rng());
  for (int cs = 1; cs <= 3; ++cs) {
    const KAYUVMATRIX& m = *KaYUV_SelectMatrix(cs, w, h);
    ASSERT_EQ(KaYUV_YUVToRGB(rgb.data(), w * 4, uyvy.data(), uyvy.size(), fourcc("UYVY"), w, h, cs),
              S_OK);
    for (size_t p = 0; p < size_t(w) * h; ++p) {
      const BYTE* g = &uyvy[(p / 2) * 4];
      const double y = g[1 + 2 * (p % 2)], u = g[0] - 128.0, v = g[2] - 128.0;
      const double want[3] = {y + m.bFromCb * u, y + m.gFromCr * v + m.gFromCb * u,
                              y + m.rFromCr * v};
      for (int c = 0; c < 3; ++c)
        ASSERT_LE(std::fabs(std::clamp(std::round(want[c]), 0.0, 255.0) - rgb[p * 4 + c]), 1.0)
            << p << " " << c;
    }
    const std::vector<BYTE> src = image(w, h, false, 11);
    std::vector<BYTE> out(uyvy.size());
    ASSERT_EQ(KaYUV_RGBToYUV(out.data(), out.size(), fourcc("UYVY"), src.data(), w * 4, w, h, cs),
              S_OK);
    for (size_t p = 0; p < size_t(w) * h; ++p) {
      const BYTE* s = &src[p * 4];
      const double y = m.kr * s[2] + m.kg * s[1] + m.kb * s[0];
      const double cb = 128 + m.cbR * s[2] + m.cbG * s[1] + m.cbB * s[0];
      const double cr = 128 + m.crR * s[2] + m.crG * s[1] + m.crB * s[0];
      const BYTE* g = &out[(p / 2) * 4];
      ASSERT_LE(std::fabs(y - g[1 + 2 * (p % 2)]), 0.5 + 1e-9);
      ASSERT_LE(std::fabs(cb - g[0]), 0.5 + 1e-9);
      ASSERT_LE(std::fabs(cr - g[2]), 0.5 + 1e-9);
    }
  }
}

TEST(YuvGeneral, RefusedArguments) {
  std::vector<BYTE> rgb(16 * 4 * 4), yuv(frameBytes("I420", 16, 4));
  const DWORD i420 = fourcc("I420");
  struct Case {
    const char* what;
    HRESULT got, want;
  };
  const Case cases[] = {
      {"odd width", KaYUV_YUVToRGB(rgb.data(), 64, yuv.data(), yuv.size(), i420, 15, 4, 1),
       E_INVALIDARG},
      {"short frame", KaYUV_YUVToRGB(rgb.data(), 64, yuv.data(), yuv.size() - 1, i420, 16, 4, 1),
       E_INVALIDARG},
      {"short out", KaYUV_RGBToYUV(yuv.data(), yuv.size() - 1, i420, rgb.data(), 64, 16, 4, 1),
       E_INVALIDARG},
      {"stride", KaYUV_YUVToRGB(rgb.data(), 63, yuv.data(), yuv.size(), i420, 16, 4, 1),
       E_INVALIDARG},
      {"matrix", KaYUV_YUVToRGB(rgb.data(), 64, yuv.data(), yuv.size(), i420, 16, 4, 4),
       E_INVALIDARG},
      {"layout", KaYUV_YUVToRGB(rgb.data(), 64, yuv.data(), yuv.size(), fourcc("P410"), 16, 4, 1),
       KAERR_UNSUPPORTED_FORMAT},
      {"null", KaYUV_RGBToYUV(nullptr, yuv.size(), i420, rgb.data(), 64, 16, 4, 1), E_POINTER},
      {"height", KaYUV_RGBToYUV(yuv.data(), yuv.size(), i420, rgb.data(), 64, 16, 0, 1),
       E_INVALIDARG},
  };
  for (const Case& c : cases) EXPECT_EQ(c.got, c.want) << c.what;
}

// Large enough for the parallel loops; negative RGB strides read the rows upwards.
TEST(YuvGeneral, ThreadCountAndNegativeStrides) {
  const LONG w = 320, h = 121;
  const std::vector<BYTE> rgb = image(w, h, false, 3);
  const int saved = omp_get_max_threads();
  for (const char* code : {"NV12", "v210", "P010"}) {
    std::vector<std::vector<BYTE>> frames;
    for (int threads : {1, 2}) {
      omp_set_num_threads(threads);
      frames.emplace_back(frameBytes(code, w, h));
      ASSERT_EQ(KaYUV_RGBToYUV(frames.back().data(), frames.back().size(), fourcc(code), rgb.data(),
                               w * 4, w, h, 2),
                S_OK);
    }
    EXPECT_EQ(frames[0], frames[1]) << code;
    std::vector<BYTE> down(rgb.size()), up(rgb.size());
    ASSERT_EQ(KaYUV_YUVToRGB(down.data(), w * 4, frames[0].data(), frames[0].size(), fourcc(code),
                             w, h, 2),
              S_OK);
    ASSERT_EQ(KaYUV_YUVToRGB(&up[size_t(h - 1) * w * 4], -w * 4, frames[0].data(), frames[0].size(),
                             fourcc(code), w, h, 2),
              S_OK);
    for (LONG y = 0; y < h; ++y)
      ASSERT_TRUE(std::equal(&down[size_t(y) * w * 4], &down[size_t(y + 1) * w * 4],
                             &up[size_t(h - 1 - y) * w * 4]));
  }
  omp_set_num_threads(saved);
}

// Both directions for every layout, matrix and even width 2..130 at odd heights, plus one
// frame large enough for the parallel loops; RGB rows padded or not, walked down or up.
// Every buffer lies against a guard page, after its end for some widths and before its
// start for the others, so that an over-read or a stray write faults; outputs start
// filled so that a write that should not be there shows.
struct Output {
  std::string what;
  std::vector<BYTE> bytes;
};
std::vector<Output> sweep() {
  using ostra::test::GuardedBuffer;
  std::mt19937 rng(7);
  auto random = [&](GuardedBuffer& b) {
    for (size_t i = 0; i < b.size(); ++i) b.data()[i] = BYTE(rng());
  };
  struct Size {
    LONG w, h;
  };
  std::vector<Size> sizes;
  for (LONG w = 2; w <= 130; w += 2)
    for (LONG h : {1, 3}) sizes.push_back({w, h});
  sizes.push_back({258, 129});
  std::vector<Output> out;
  for (const char* code : {"UYVY", "YUYV", "I420", "YV12", "YV16", "NV12", "P010", "P210", "v210"})
    for (const Size sz : sizes)
      for (int cs = 1; cs <= 3; ++cs) {
        const auto where =
            (sz.w / 64) % 2 ? GuardedBuffer::Guard::Before : GuardedBuffer::Guard::After;
        const LONG stride = (sz.w & 2 ? -1 : 1) * (sz.w * 4 + (sz.w & 8 ? 8 : 0));
        const size_t rgbBytes = size_t(std::abs(stride)) * sz.h;
        const size_t first = stride < 0 ? rgbBytes - size_t(-stride) : 0;
        const size_t yuvBytes = frameBytes(code, sz.w, sz.h);
        GuardedBuffer yuv(yuvBytes, where), rgb(rgbBytes, where), toRgb(rgbBytes, where),
            toYuv(yuvBytes, where);
        random(yuv);
        random(rgb);
        std::memset(toRgb.data(), 0xA5, rgbBytes);
        std::memset(toYuv.data(), 0xA5, yuvBytes);
        const std::string what = std::string(code) + " " + std::to_string(sz.w) + "x" +
                                 std::to_string(sz.h) + " matrix " + std::to_string(cs);
        EXPECT_EQ(KaYUV_YUVToRGB(toRgb.data() + first, stride, yuv.data(), yuvBytes, fourcc(code),
                                 sz.w, sz.h, cs),
                  S_OK);
        EXPECT_EQ(KaYUV_RGBToYUV(toYuv.data(), yuvBytes, fourcc(code), rgb.data() + first, stride,
                                 sz.w, sz.h, cs),
                  S_OK);
        out.push_back({what + " to RGB", {toRgb.data(), toRgb.data() + rgbBytes}});
        out.push_back({what + " from RGB", {toYuv.data(), toYuv.data() + yuvBytes}});
      }
  return out;
}

constexpr DWORD kVectorFeatures = KACPU_AVX512F | KACPU_AVX2 | KACPU_SSE2;

// Each vector table the processor runs gives the bytes of the plain kernels.
TEST(YuvGeneral, EveryVariantGivesThePlainBytes) {
  KaDisallowCPUSupport(kVectorFeatures);
  const std::vector<Output> plain = sweep();
  KaAllowCPUSupport(kVectorFeatures);
  for (DWORD disallowed : {DWORD(KACPU_AVX512F), DWORD(0)}) {
    KaDisallowCPUSupport(disallowed);
    const std::vector<Output> got = sweep();
    KaAllowCPUSupport(disallowed);
    ASSERT_EQ(got.size(), plain.size());
    int failures = 0;
    for (size_t i = 0; i < got.size() && failures < 5; ++i)
      if (got[i].bytes != plain[i].bytes) {
        ++failures;
        ADD_FAILURE() << got[i].what << " differs from the plain kernels with features " << std::hex
                      << (KaGetCPUSupport(0) & ~disallowed);
      }
  }
}

TEST(YuvGeneral, TableFollowsTheAllowedFeatures) {
  using namespace ostra::image;
  constexpr DWORD kAvx512 = KACPU_AVX2 | KACPU_AVX512F | KACPU_AVX512BW | KACPU_AVX512VL;
  const struct {
    DWORD needs, disallow;
    const char *colour, *packing;
  } levels[] = {
      {kAvx512, 0, "avx512", "avx2"},
      {KACPU_AVX2, KACPU_AVX512F, "avx2", "avx2"},
      {0, kVectorFeatures, "plain", "plain"},
  };
  for (const auto& l : levels) {
    if ((KaGetCPUSupport(0) & l.needs) != l.needs) continue;
    KaDisallowCPUSupport(l.disallow);
    EXPECT_STREQ(yuvGeneralTable().colourVariant, l.colour);
    EXPECT_STREQ(yuvGeneralTable().packingVariant, l.packing);
    KaAllowCPUSupport(l.disallow);
  }
}

// The vector kernels round from single precision where the value is clearly away from a
// rounding boundary and recompute exactly elsewhere: on every colour, in every matrix and
// depth, they round as the plain kernels. Chroma from pairs of equal pixels (a 2x2 block
// only doubles the sums and halves the weights, exactly).
TEST(YuvGeneral, VectorKernelsRoundEveryColourAsThePlainOnes) {
  using namespace ostra::image;
  std::vector<YuvGeneralTable> variants;
#if defined(__x86_64__)
  const DWORD cpu = KaGetCPUSupport(0);
  if (cpu & KACPU_AVX2) variants.push_back(yuvGeneralTableFor(cpu & ~KACPU_AVX512F));
  if (cpu & KACPU_AVX512F) variants.push_back(yuvGeneralTableFor(cpu));
  for (const YuvGeneralTable& t : variants) EXPECT_STRNE(t.colourVariant, "plain");
#endif
  if (variants.empty()) GTEST_SKIP() << "no vector kernels";
  const YuvGeneralTable plain = yuvGeneralTableFor(0);
  const LONG n = 65536;  // G and B for one R
  std::vector<BYTE> single(size_t(n) * 4), doubled(size_t(n) * 8);
  std::vector<int16_t> want(n), got(n), wantU(n), gotU(n), wantV(n), gotV(n);
  for (int cs = 1; cs <= 3; ++cs)
    for (int ten = 0; ten < 2; ++ten) {
      const KAYUVMATRIX& m = *KaYUV_SelectMatrix(cs, 2, 2);
      for (int r = 0; r < 256; ++r) {
        for (LONG i = 0; i < n; ++i) {
          const BYTE px[4] = {BYTE(i), BYTE(i >> 8), BYTE(r), 255};
          std::memcpy(&single[size_t(i) * 4], px, 4);
          std::memcpy(&doubled[size_t(i) * 8], px, 4);
          std::memcpy(&doubled[size_t(i) * 8 + 4], px, 4);
        }
        plain.luma[ten](want.data(), single.data(), n, m);
        plain.chroma[ten](wantU.data(), wantV.data(), doubled.data(), nullptr, 2 * n, m);
        for (const YuvGeneralTable& t : variants) {
          t.luma[ten](got.data(), single.data(), n, m);
          ASSERT_EQ(got, want) << "luma, matrix " << cs << ", 10-bit " << ten << ", R " << r;
        }
        for (const YuvGeneralTable& t : variants) {
          t.chroma[ten](gotU.data(), gotV.data(), doubled.data(), nullptr, 2 * n, m);
          ASSERT_TRUE(gotU == wantU && gotV == wantV)
              << "chroma, matrix " << cs << ", 10-bit " << ten << ", R " << r;
        }
      }
    }
}

}  // namespace
