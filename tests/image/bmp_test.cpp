#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

#include "ostra/kadib.h"
#include "ostra/kaerror.h"
#include "support/guarded_buffer.h"
#include "support/test_support.h"

namespace {

using ostra::test::TempDir;

// A BMP file image built by hand: 14 + 40 header bytes, optional masks or table, rows.
std::vector<BYTE> bmpFile(WORD bits, DWORD compression, LONG w, LONG h,
                          const std::vector<BYTE>& extra, const std::vector<BYTE>& rows,
                          DWORD clrUsed = 0) {
  std::vector<BYTE> f(54 + extra.size() + rows.size());
  auto put32 = [&](size_t at, DWORD v) { std::memcpy(&f[at], &v, 4); };
  f[0] = 'B';
  f[1] = 'M';
  put32(10, DWORD(54 + extra.size()));
  put32(14, 40);
  put32(18, DWORD(w));
  put32(22, DWORD(h));
  f[26] = 1;
  f[28] = BYTE(bits);
  put32(30, compression);
  put32(46, clrUsed);
  std::copy(extra.begin(), extra.end(), f.begin() + 54);
  std::copy(rows.begin(), rows.end(), f.begin() + 54 + ptrdiff_t(extra.size()));
  put32(2, DWORD(f.size()));
  return f;
}

TEST(Bmp, WriteAndReadBackEveryHeaderType) {
  TempDir dir;
  std::mt19937 rng(4);
  for (int type : {16, 17, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31, 32}) {
    BITMAPINFOHEADER* a = nullptr;
    RGBQUAD table[16];
    for (auto& e : table) e = {BYTE(rng()), BYTE(rng()), BYTE(rng()), 0};
    const bool pal = type == 16 || type == 23;
    ASSERT_EQ(KaDibAlloc(&a, type, 7, 3, pal ? table : nullptr, pal ? (type == 16 ? 2 : 16) : 0,
                         KADIB_ZEROINIT, 0),
              S_OK);
    BYTE* px = static_cast<BYTE*>(KaDibPixels(a));
    for (DWORD i = 0; i < a->biSizeImage; ++i) px[i] = BYTE(rng());
    const auto path = dir.wfile("t.bmp");
    ASSERT_EQ(KaDib_WriteBmpFile(path.c_str(), a, nullptr), S_OK);
    BITMAPINFOHEADER* b = displist_CreateBitmapFromFile(path.c_str());
    ASSERT_NE(b, nullptr) << type;
    EXPECT_EQ(KaGetPixelType(b), type);
    const size_t headerBytes = static_cast<BYTE*>(KaDibPixels(a)) - reinterpret_cast<BYTE*>(a);
    ASSERT_EQ(static_cast<BYTE*>(KaDibPixels(b)) - reinterpret_cast<BYTE*>(b),
              ptrdiff_t(headerBytes))
        << type;
    EXPECT_EQ(std::memcmp(a, b, headerBytes + a->biSizeImage), 0) << type;
    KaDibFree(a, 0);
    KaDibFree(b, 0);
  }
}

TEST(Bmp, TopDownFilesAndBitfieldsFromTheFile) {
  // Two rows of one 24-bit pixel, stored top row first.
  const std::vector<BYTE> rows = {1, 2, 3, 0, 4, 5, 6, 0};
  BITMAPINFOHEADER* b = nullptr;
  const auto f = bmpFile(24, BI_RGB, 1, -2, {}, rows);
  ASSERT_EQ(KaDib_ReadBmpMemory(f.data(), f.size(), &b), S_OK);
  EXPECT_EQ(b->biHeight, 2);
  KAPIXEL top{};
  ASSERT_EQ(KaDibGetPixel(b, nullptr, 0, 0, 0, &top), S_OK);
  EXPECT_EQ(top.b, 1 / 255.0);
  KaDibFree(b, 0);
  // A 40-byte header with BI_BITFIELDS keeps its masks after the header.
  std::vector<BYTE> masks(12);
  const DWORD m[3] = {0xF800, 0x07E0, 0x001F};
  std::memcpy(masks.data(), m, 12);
  const auto g = bmpFile(16, BI_BITFIELDS, 2, 1, masks, {0xFF, 0xFF, 0, 0});
  ASSERT_EQ(KaDib_ReadBmpMemory(g.data(), g.size(), &b), S_OK);
  EXPECT_EQ(KaGetPixelType(b), 26);
  KaDibFree(b, 0);
  // 8-bit palettised with biClrUsed 0 has the full table of 256 entries.
  const auto p = bmpFile(8, BI_RGB, 4, 1, std::vector<BYTE>(1024, 7), {255, 0, 0, 0});
  ASSERT_EQ(KaDib_ReadBmpMemory(p.data(), p.size(), &b), S_OK);
  EXPECT_EQ(b->biClrUsed, 256u);
  KaDibFree(b, 0);
}

// Hostile files: refused with a code that says why; every prefix of valid files too.
TEST(Bmp, RefusesDamagedFiles) {
  const std::vector<BYTE> rows(8, 9);
  struct Case {
    const char* what;
    std::vector<BYTE> file;
    HRESULT want;
  };
  std::vector<Case> cases = {
      {"not BM", {'X', 'M', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 40, 0, 0, 0}, KAERR_CORRUPT_FILE},
      {"rle", bmpFile(8, BI_RLE8, 2, 2, std::vector<BYTE>(1024), rows), KAERR_UNSUPPORTED_FORMAT},
      {"bits 7", bmpFile(7, BI_RGB, 2, 2, {}, rows), KAERR_UNSUPPORTED_FORMAT},
      {"width 0", bmpFile(24, BI_RGB, 0, 2, {}, rows), KAERR_CORRUPT_FILE},
      {"huge", bmpFile(32, BI_RGB, 0x7FFFFFFF, 0x7FFFFFFF, {}, rows), KAERR_UNSUPPORTED_FORMAT},
      {"rows short", bmpFile(24, BI_RGB, 2, 3, {}, rows), KAERR_CORRUPT_FILE},
      {"table short", bmpFile(8, BI_RGB, 2, 1, std::vector<BYTE>(16), {}, 200), KAERR_CORRUPT_FILE},
      {"yuv", bmpFile(16, KaFourCC('U', 'Y', 'V', 'Y'), 2, 2, {}, rows), KAERR_UNSUPPORTED_FORMAT},
  };
  auto badOffset = bmpFile(24, BI_RGB, 1, 2, {}, rows);
  badOffset[10] = 200;
  cases.push_back({"offset past end", badOffset, KAERR_CORRUPT_FILE});
  auto badInfo = bmpFile(24, BI_RGB, 1, 2, {}, rows);
  badInfo[14] = 64;
  cases.push_back({"header size", badInfo, KAERR_UNSUPPORTED_FORMAT});
  for (const Case& c : cases) {
    BITMAPINFOHEADER* b = reinterpret_cast<BITMAPINFOHEADER*>(1);
    EXPECT_EQ(KaDib_ReadBmpMemory(c.file.data(), c.file.size(), &b), c.want) << c.what;
    EXPECT_EQ(b, nullptr);
  }
  const auto good = bmpFile(4, BI_RGB, 3, 2, std::vector<BYTE>(64, 1), rows);
  for (size_t n = 0; n < good.size(); ++n) {  // against a guard page: an over-read faults
    BITMAPINFOHEADER* b = nullptr;
    ostra::test::GuardedBuffer prefix(n);
    std::copy(good.begin(), good.begin() + ptrdiff_t(n), prefix.data());
    EXPECT_TRUE(FAILED(KaDib_ReadBmpMemory(prefix.data(), n, &b))) << n;
  }
  TempDir dir;
  EXPECT_EQ(displist_CreateBitmapFromFile(dir.wfile("missing.bmp").c_str()), nullptr);
  EXPECT_EQ(KaDib_ReadBmpFile(dir.wfile("missing.bmp").c_str(), nullptr), E_POINTER);
}

}  // namespace
