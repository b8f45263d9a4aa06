// YUV layouts and matrices, the packed 4:2:2 and the general conversions through their
// entry points, and every vector kernel against the plain one.
#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "image/internal/uyvy.h"
#include "image/internal/yuv_general.h"
#include "ostra/kacpu.h"
#include "ostra/kaerror.h"
#include "ostra/kayuv.h"
#include "support/guarded_buffer.h"

namespace {

using namespace ostra::image;

DWORD fourcc(const std::string& s) { return KaFourCC(s[0], s[1], s[2], s[3]); }

DWORD frameBytes(const std::string& code, LONG w, LONG h, KAYUVPLANES* planes = nullptr) {
  BITMAPINFOHEADER bih{};
  bih.biWidth = w;
  bih.biHeight = h;
  bih.biCompression = fourcc(code);
  return KaYUVImageBytesAndOffsets(&bih, planes);
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

TEST(YuvLayout, EveryLayoutOfTheTable) {
  struct Case {
    const char* code;
    LONG w, h;
    DWORD total, lumaStride, u, chromaStride, v, vStride;
  };
  const Case cases[] = {
      {"UYVY", 4, 3, 24, 8, 0, 0, 0, 0},          {"YUYV", 6, 1, 12, 12, 0, 0, 0, 0},
      {"I420", 3, 3, 13, 3, 9, 1, 11, 1},  // quarter-size chroma: 2 bytes, not 1
      {"IYUV", 4, 2, 12, 4, 8, 2, 10, 2},         {"YV12", 4, 4, 24, 4, 20, 2, 16, 2},  // V first
      {"YV16", 4, 3, 24, 4, 18, 2, 12, 2},        {"Y41B", 8, 2, 24, 8, 16, 2, 20, 2},
      {"NV12", 4, 3, 18, 4, 12, 4, 0, 0},         {"P010", 4, 3, 32, 8, 24, 8, 0, 0},
      {"PL10", 2, 2, 12, 4, 8, 4, 0, 0},          {"P210", 4, 2, 32, 8, 16, 8, 0, 0},
      {"P410", 2, 2, 24, 4, 8, 4, 16, 4},         {"A410", 2, 2, 32, 4, 8, 4, 16, 4},
      {"v210", 1920, 2, 10240, 5120, 0, 0, 0, 0}, {"v210", 1, 1, 128, 128, 0, 0, 0, 0},
      {"v210", 49, 1, 256, 256, 0, 0, 0, 0},      {"RGBA", 4, 4, 0, 0, 0, 0, 0, 0},
      {"UYVY", 65536, 65536, 0, 0, 0, 0, 0, 0},  // beyond 32 bits
  };
  for (const Case& c : cases) {
    KAYUVPLANES p;
    std::memset(&p, 0xAB, sizeof p);
    EXPECT_EQ(frameBytes(c.code, c.w, c.h, &p), c.total) << c.code << " " << c.w;
    EXPECT_EQ(p.lumaStride, c.lumaStride) << c.code;
    EXPECT_EQ(p.uOffset, c.u) << c.code;
    EXPECT_EQ(p.chromaStride, c.chromaStride) << c.code;
    EXPECT_EQ(p.vOffset, c.v) << c.code;
    EXPECT_EQ(p.vStride, c.vStride) << c.code;
  }
}

TEST(YuvLayout, MatrixSelection) {
  struct Case {
    int code;
    LONG w, h;
    double kr;
  };
  const Case cases[] = {{0, 720, 480, 0.299},   {0, 720, 720, 0.2126}, {0, 640, 480, 0.2126},
                        {0, 704, 576, 0.299},   {0, 703, 576, 0.2126}, {7, 720, 576, 0.299},
                        {1, 1920, 1080, 0.299}, {2, 720, 480, 0.2126}, {3, 720, 480, 0.2627}};
  for (const Case& c : cases)
    EXPECT_EQ(KaYUV_SelectMatrix(c.code, c.w, c.h)->kr, c.kr) << c.code << " " << c.w;
  const UyvyCoeffs k = uyvyCoeffs(1, 0, 0);  // each term times 4096, rounded
  EXPECT_EQ(k.rFromCr, 5614);
  EXPECT_EQ(k.gFromCr, -2860);
  EXPECT_EQ(k.gFromCb, -1378);
  EXPECT_EQ(k.bFromCb, 7096);
}

TEST(Uyvy, ArgumentsAndKnownValues) {
  BYTE src[8] = {128, 235, 128, 16, 128, 235, 128, 235};
  BYTE dst[2][16] = {};
  struct Case {
    void* d;
    const void* s;
    LONG stride, w, h;
    HRESULT want;
  };
  const Case cases[] = {
      {nullptr, src, 16, 4, 1, E_POINTER}, {dst, nullptr, 16, 4, 1, E_POINTER},
      {dst, src, 16, 3, 1, E_INVALIDARG},  {dst, src, 16, 0, 1, E_INVALIDARG},
      {dst, src, 15, 4, 1, E_INVALIDARG},  {dst, src, -15, 4, 1, E_INVALIDARG},
      {dst, src, 16, 4, 0, E_INVALIDARG},
  };
  for (const Case& c : cases) EXPECT_EQ(KaUYVY2RGBA(c.d, c.s, c.stride, c.w, c.h, 0), c.want);
  EXPECT_EQ(KaUYVY2RGB(dst, src, 11, 4, 1, 0), E_INVALIDARG);
  for (const BYTE b : dst[0]) ASSERT_EQ(b, 0);  // refused calls touch nothing
  std::vector<BYTE> wide(719 * 2 * 2), out(720 * 4 * 2);
  EXPECT_EQ(KaUYVY2RGBA(out.data(), wide.data(), 720 * 4, 719, 2, 0), E_INVALIDARG);

  // Studio white stays studio white; the fourth byte is 255. Two rows, negative stride.
  ASSERT_EQ(KaUYVY2RGBA(dst[1], src, -16, 2, 2, 0), S_OK);
  const BYTE white[4] = {235, 235, 235, 255}, black[4] = {16, 16, 16, 255};
  EXPECT_EQ(std::memcmp(dst[1], white, 4), 0);
  EXPECT_EQ(std::memcmp(dst[1] + 4, black, 4), 0);
  EXPECT_EQ(std::memcmp(dst[0], white, 4), 0);
  EXPECT_EQ(std::memcmp(dst[0] + 4, white, 4), 0);
  BYTE rgb[6];
  ASSERT_EQ(KaUYVY2RGB(rgb, src, 6, 2, 1, 0), S_OK);
  EXPECT_EQ(std::vector<BYTE>(rgb, rgb + 6), (std::vector<BYTE>{235, 235, 235, 16, 16, 16}));
}

// Disallowing a feature makes the table choose the next variant down, and allowing it
// again brings the best one back.
TEST(Uyvy, TableFollowsTheAllowedFeatures) {
  constexpr DWORD kAvx512 = KACPU_AVX2 | KACPU_AVX512F | KACPU_AVX512BW;
  const struct {
    DWORD needs, disallow;
    const char *toBgra, *toBgr;
  } levels[] = {
      {kAvx512, 0, "avx512", "avx2"},
      {KACPU_AVX2, KACPU_AVX512F, "avx2", "avx2"},
      {KACPU_SSE2, KACPU_AVX512F | KACPU_AVX2, "sse2", "plain"},
      {0, KACPU_AVX512F | KACPU_AVX2 | KACPU_SSE2, "plain", "plain"},
  };
  const DWORD cpu = KaGetCPUSupport(0);
  for (const auto& l : levels) {
    if ((cpu & l.needs) != l.needs) continue;
    KaDisallowCPUSupport(l.disallow);
    EXPECT_STREQ(uyvyTable().toBgraVariant, l.toBgra);
    EXPECT_STREQ(uyvyTable().toBgrVariant, l.toBgr);
    KaAllowCPUSupport(l.disallow);
  }
  EXPECT_STREQ(uyvyTableFor(cpu).toBgraVariant, uyvyTable().toBgraVariant);
}

// The table of each vector level the processor runs.
std::vector<UyvyTable> variants() {
  std::vector<UyvyTable> v;
  for (DWORD mask : {DWORD(KACPU_SSE2), DWORD(KACPU_SSE2 | KACPU_AVX2),
                     DWORD(KACPU_SSE2 | KACPU_AVX2 | KACPU_AVX512F | KACPU_AVX512BW)})
    if ((KaGetCPUDetected() & mask) == mask) {
      v.push_back(uyvyTableFor(mask));
      EXPECT_STRNE(v.back().toBgraVariant, "plain") << std::hex << mask;
    }
  return v;
}

// Every (Y, U, V) triple, in each of the three matrices, through every variant.
TEST(UyvyVariants, AllTriplesMatchThePlainKernel) {
  const LONG pixels = 256 * 256;  // one U value: every V and every Y
  std::vector<BYTE> src(size_t(pixels) * 2);
  std::vector<BYTE> want(size_t(pixels) * 4), got(want.size()), want3(size_t(pixels) * 3),
      got3(want3.size());
  const std::vector<UyvyTable> tables = variants();
  if (tables.empty()) GTEST_SKIP() << "no vector kernels";
  for (int cs = 1; cs <= 3; ++cs) {
    const UyvyCoeffs k = uyvyCoeffs(cs, 0, 0);
    for (int u = 0; u < 256; ++u) {
      BYTE* s = src.data();
      for (int v = 0; v < 256; ++v)
        for (int y = 0; y < 256; y += 2, s += 4) {
          s[0] = BYTE(u);
          s[1] = BYTE(y);
          s[2] = BYTE(v);
          s[3] = BYTE(y + 1);
        }
      uyvyToBgra_plain(want.data(), src.data(), pixels, k);
      uyvyToBgr_plain(want3.data(), src.data(), pixels, k);
      for (const UyvyTable& t : tables) {
        t.toBgra(got.data(), src.data(), pixels, k);
        ASSERT_EQ(got, want) << t.toBgraVariant << " u " << u << " matrix " << cs;
        t.toBgr(got3.data(), src.data(), pixels, k);
        ASSERT_EQ(got3, want3) << t.toBgrVariant << " u " << u << " matrix " << cs;
      }
    }
  }
}

// Rows of every even width 2-130 with both buffers against a guard page, after the row
// and before it, so that a kernel reading or writing past either end faults.
TEST(UyvyVariants, EveryWidthAgainstGuardPages) {
  using ostra::test::GuardedBuffer;
  std::mt19937 rng(3);
  for (LONG w = 2; w <= 130; w += 2)
    for (auto where : {GuardedBuffer::Guard::After, GuardedBuffer::Guard::Before})
      for (bool alpha : {true, false}) {
        const size_t px = alpha ? 4 : 3;
        GuardedBuffer src(size_t(w) * 2, where), got(size_t(w) * px, where);
        for (size_t i = 0; i < src.size(); ++i) src.data()[i] = BYTE(rng());
        const UyvyCoeffs k = uyvyCoeffs(0, w, 1);
        std::vector<BYTE> want(got.size());
        (alpha ? uyvyToBgra_plain : uyvyToBgr_plain)(want.data(), src.data(), w, k);
        for (const UyvyTable& t : variants()) {
          (alpha ? t.toBgra : t.toBgr)(got.data(), src.data(), w, k);
          ASSERT_EQ(std::memcmp(got.data(), want.data(), want.size()), 0)
              << (alpha ? t.toBgraVariant : t.toBgrVariant) << " width " << w;
        }
      }
}

// Through the entry point, whatever the variant: a negative stride writes the same rows
// upwards, and a bigger stride leaves the gap alone.
TEST(Uyvy, StridesThroughTheEntryPoint) {
  std::mt19937 rng(9);
  const LONG w = 36, h = 5;
  std::vector<BYTE> src(size_t(w) * 2 * h);
  for (auto& b : src) b = BYTE(rng());
  std::vector<BYTE> down(size_t(w) * 4 * h), up(down.size()), gap(size_t(w + 3) * 4 * h, 0x5A);
  ASSERT_EQ(KaUYVY2RGBA(down.data(), src.data(), w * 4, w, h, 2), S_OK);
  ASSERT_EQ(KaUYVY2RGBA(&up[size_t(h - 1) * w * 4], src.data(), -w * 4, w, h, 2), S_OK);
  ASSERT_EQ(KaUYVY2RGBA(gap.data(), src.data(), (w + 3) * 4, w, h, 2), S_OK);
  for (LONG y = 0; y < h; ++y) {
    EXPECT_EQ(std::memcmp(&down[size_t(y) * w * 4], &up[size_t(h - 1 - y) * w * 4], w * 4), 0);
    EXPECT_EQ(std::memcmp(&down[size_t(y) * w * 4], &gap[size_t(y) * (w + 3) * 4], w * 4), 0);
    for (int i = 0; i < 12; ++i) EXPECT_EQ(gap[size_t(y) * (w + 3) * 4 + w * 4 + i], 0x5A);
  }
}

TEST(HotCheck, ChecksAndRepairs) {
  const KAHOTPIXEL white{1, 1, 1}, black{0, 0, 0}, yellow{0, 1, 1}, blue{1, 0, 0};
  EXPECT_EQ(HotCheckNTSCYIQ(&white) + HotCheckNTSCYUV(&white) + HotCheckPALYUV(&white), 0);
  EXPECT_EQ(HotCheckNTSCYIQ(&black) + HotCheckNTSCYUV(&black) + HotCheckPALYUV(&black), 0);
  EXPECT_EQ(HotCheckNTSCYIQ(&yellow), 1);
  EXPECT_EQ(HotCheckNTSCYUV(&yellow), 1);
  EXPECT_EQ(HotCheckPALYUV(&yellow), 1);
  KAHOTPIXEL p = white;
  EXPECT_EQ(HotCheckPALYUVReturn(&p), 0);
  EXPECT_EQ(p.r, 1.0);
  // Repaired yellow: chroma is scaled towards the repair target, below the check limit.
  using Fn = int (*)(KAHOTPIXEL*);
  for (Fn fn : {HotCheckNTSCYIQReturn, HotCheckNTSCYUVReturn, HotCheckPALYUVReturn}) {
    KAHOTPIXEL q = yellow;
    ASSERT_EQ(fn(&q), 1);
    EXPECT_LT(q.r + q.g - 1.0, 1.0);  // chroma reduced: no longer pure yellow
    EXPECT_GE(q.b, 0.0);
    EXPECT_LE(q.r, 1.0);
  }
  KAHOTPIXEL q = yellow;
  HotCheckNTSCYUVReturn(&q);
  const double y = 0.144 * q.b + 0.587 * q.g + 0.299 * q.r;
  const double u = 0.436798 * q.b - 0.289391 * q.g - 0.147407 * q.r;
  const double v = 0.614777 * q.r - 0.514799 * q.g - 0.099978 * q.b;
  EXPECT_LE(y + std::sqrt(u * u + v * v), 1.2162162);
  EXPECT_EQ(HotCheckNTSCYUV(&q), 0);
  // The YUV checks weigh blue with 0.144: blue passes PAL but the stated constants decide.
  EXPECT_EQ(HotCheckPALYUV(&blue), 0);
}

}  // namespace
