#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "image/internal/uyvy.h"
#include "ostra/kacpu.h"
#include "ostra/kayuv.h"
#include "support/guarded_buffer.h"

namespace {

using namespace ostra::image;

DWORD sizeOf(const char* code, LONG w, LONG h, KAYUVPLANES* p) {
  BITMAPINFOHEADER bih{};
  bih.biWidth = w;
  bih.biHeight = h;
  bih.biCompression = KaFourCC(code[0], code[1], code[2], code[3]);
  return KaYUVImageBytesAndOffsets(&bih, p);
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
    EXPECT_EQ(sizeOf(c.code, c.w, c.h, &p), c.total) << c.code << " " << c.w;
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
