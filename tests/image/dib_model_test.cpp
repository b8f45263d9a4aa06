#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "image/internal/pixel.h"
#include "ostra/kadib.h"
#include "ostra/kayuv.h"

namespace {

// A header followed by room for masks or a table.
struct HeaderBuf {
  alignas(8) BYTE bytes[40 + 1024] = {};
  BITMAPINFOHEADER* h() { return reinterpret_cast<BITMAPINFOHEADER*>(bytes); }
  DWORD* masks() { return reinterpret_cast<DWORD*>(bytes + 40); }
};

TEST(DibModel, PixelTypeOfHeaders) {
  struct Case {
    DWORD compression;
    WORD bits;
    DWORD r, g, b;
    int type;
  };
  const Case cases[] = {
      {BI_RGB, 1, 0, 0, 0, 16},
      {BI_RGB, 4, 0, 0, 0, 23},
      {BI_RGB, 8, 0, 0, 0, 24},
      {BI_RGB, 16, 0, 0, 0, 25},
      {BI_RGB, 24, 0, 0, 0, 27},
      {BI_RGB, 32, 0, 0, 0, 28},
      {BI_RGB, 2, 0, 0, 0, 0},
      {BI_BITFIELDS, 16, 0x7C00, 0x3E0, 0x1F, 25},
      {BI_BITFIELDS, 16, 0xF800, 0x7E0, 0x1F, 26},
      {BI_BITFIELDS, 32, 0x00FF0000, 0x0000FF00, 0x000000FF, 28},
      {BI_BITFIELDS, 32, 0x3FF00000, 0xFFC00, 0x3FF, 30},
      {BI_BITFIELDS, 32, 0x3FF, 0xFFC00, 0x3FF00000, 30},  // only the counts matter
      {BI_BITFIELDS, 32, 0x1FF, 0x3FE00, 0x7FC0000, 0},    // 9/9/9
      {BI_BITFIELDS, 24, 0xFF0000, 0xFF00, 0xFF, 0},
      {KA_BI_KADB, 16, 0, 0, 0, 0},
      {KA_BI_KADB, 24, 0, 0, 0, 27},
      {KA_BI_KADB, 32, 0, 0, 0, 29},
      {KA_BI_KADB, 64, 0, 0, 0, 31},
      {KA_BI_KADB, 128, 0, 0, 0, 32},
      {KA_BI_KAGS, 1, 0, 0, 0, 17},
      {KA_BI_KAGS, 2, 0, 0, 0, 18},
      {KA_BI_KAGS, 32, 0, 0, 0, 22},
      {KA_BI_KAGS, 24, 0, 0, 0, 0},
      {KaFourCC('U', 'Y', 'V', 'Y'), 0, 0, 0, 0, 64},
      {KaFourCC('v', '2', '1', '0'), 99, 0, 0, 0, 68},
      {KaFourCC('A', '4', '1', '0'), 46, 0, 0, 0, 76},
      {KaFourCC('Y', 'V', '1', '6'), 16, 0, 0, 0, 75},
      {KaFourCC('X', 'Y', 'Z', '1'), 16, 0, 0, 0, 0},
  };
  for (const Case& c : cases) {
    HeaderBuf b;
    b.h()->biSize = 40;
    b.h()->biCompression = c.compression;
    b.h()->biBitCount = c.bits;
    b.masks()[0] = c.r;
    b.masks()[1] = c.g;
    b.masks()[2] = c.b;
    EXPECT_EQ(KaGetPixelType(b.h()), c.type)
        << std::hex << c.compression << " " << std::dec << c.bits;
    EXPECT_EQ(KaVideo_IsCompressed(b.h()), (c.type == 0 || c.type >= 64) ? TRUE : FALSE);
  }
  EXPECT_EQ(KaGetPixelType(nullptr), 0);
}

TEST(DibModel, TypeAttributes) {
  BYTE bits[4];
  EXPECT_EQ(KaGetPixelBitsPerChannel(26, bits), 16);
  EXPECT_EQ(std::vector<BYTE>(bits, bits + 4), (std::vector<BYTE>{5, 6, 5, 0}));
  EXPECT_EQ(KaGetPixelBitsPerChannel(40, bits), 0);
  EXPECT_EQ(std::vector<BYTE>(bits, bits + 4), (std::vector<BYTE>{0, 0, 0, 0}));
  DWORD compression = 0, masks[3] = {};
  KAPIXELATTRIBS attribs{};
  EXPECT_EQ(KaPixelTypeToBitAttribs(30, &compression, &attribs, sizeof attribs, masks), 32);
  EXPECT_EQ(compression, BI_BITFIELDS);
  EXPECT_EQ(masks[0], 0x3FF00000u);
  EXPECT_EQ(masks[2], 0x3FFu);
  EXPECT_EQ(attribs.channelBits[3], 2);
  EXPECT_TRUE(attribs.flags & KAPIXATTR_ALPHA);
  EXPECT_EQ(KaPixelTypeToBitAttribs(30, &compression, &attribs, 63, masks), 0);
  EXPECT_EQ(KaPixelTypeToBitAttribs(31, &compression, nullptr, 0, nullptr), 64);
  EXPECT_EQ(compression, KA_BI_KADB);
  EXPECT_EQ(KaPixelTypeToBitAttribs(71, &compression, nullptr, 0, nullptr), 20);
  EXPECT_EQ(compression, KaFourCC('P', '2', '1', '0'));
}

TEST(DibModel, HeadersSizesAndStrides) {
  struct Case {
    int type;
    LONG w, h;
    int count;
    DWORD headerSize, clrUsed, image;
  };
  const Case cases[] = {
      {24, 10, 2, 0, 40 + 1020, 255, 24},  // neither table nor count: one entry short
      {23, 3, 1, 0, 40 + 60, 15, 4},      {16, 33, 1, 0, 44, 1, 8},
      {24, 4, 1, 16, 40 + 64, 16, 4},     {27, 1, 1, 0, 40, 0, 4},
      {27, 3, 2, 0, 40, 0, 24},           {26, 3, 1, 0, 52, 0, 8},
      {30, 5, 5, 0, 52, 0, 100},          {32, 2, 3, 0, 40, 0, 96},
      {67, 3, 3, 0, 40, 0, 13},           {66, 8, 2, 0, 40, 0, 24},  // "Y41B" keeps the stride rule
      {68, 1920, 2, 0, 40, 0, 10240},
  };
  for (const Case& c : cases) {
    HeaderBuf b;
    DWORD headerSize = 0, image = 0;
    ASSERT_EQ(KaDibInfo(&headerSize, &image, b.h(), c.type, c.w, c.h, nullptr, c.count), S_OK)
        << c.type;
    EXPECT_EQ(headerSize, c.headerSize) << c.type;
    EXPECT_EQ(b.h()->biClrUsed, c.clrUsed) << c.type;
    EXPECT_EQ(image, c.image) << c.type;
    EXPECT_EQ(b.h()->biSizeImage, c.image) << c.type;
    if (c.type < 64) {
      EXPECT_EQ(KaGetPixelType(b.h()), c.type == 33 ? 30 : c.type);
    }
  }
  HeaderBuf b;
  DWORD image = 7;
  EXPECT_EQ(KaVideo_InitBitmapInfo(b.h(), 40, 4, 4, nullptr, 0, &image), E_INVALIDARG);
  EXPECT_EQ(image, 0u);
  EXPECT_EQ(KaVideo_InitBitmapInfo(nullptr, 28, 4, 4, nullptr, 0, &image), E_INVALIDARG);
  EXPECT_EQ(KaVideo_InitBitmapInfo(b.h(), 32, 0x7FFFFFFF, 4, nullptr, 0, &image), E_INVALIDARG);
  // A table given with a count of 0 declares no entries.
  RGBQUAD table[2] = {{1, 2, 3, 0}, {4, 5, 6, 0}};
  ASSERT_EQ(KaVideo_InitBitmapInfo(b.h(), 24, 4, 4, table, 0, nullptr), S_OK);
  EXPECT_EQ(b.h()->biClrUsed, 0u);
  ASSERT_EQ(KaVideo_InitBitmapInfo(b.h(), 24, 4, 4, table, 2, nullptr), S_OK);
  EXPECT_EQ(std::memcmp(b.bytes + 40, table, 8), 0);
}

TEST(DibModel, AllocationCountersAndFree) {
  UINT64 n0, b0, n1, b1;
  KaDibGetAllocStats(&n0, &b0);
  BITMAPINFOHEADER* a = nullptr;
  BITMAPINFOHEADER* b = nullptr;
  RGBQUAD table[3] = {{1, 2, 3, 0}, {4, 5, 6, 0}, {7, 8, 9, 0}};
  ASSERT_EQ(KaDibAlloc(&a, 28, 16, 8, nullptr, 0, KADIB_ZEROINIT, 0), S_OK);
  ASSERT_EQ(KaDibAlloc(&b, 24, 5, 5, table, 3, 0, 0x1234), S_OK);
  KaDibGetAllocStats(&n1, &b1);
  EXPECT_EQ(n1, n0 + 2);
  EXPECT_EQ(b1, b0 + 16 * 8 * 4 + 8 * 5);
  EXPECT_EQ(b->biClrUsed, 3u);
  EXPECT_EQ(std::memcmp(b + 1, table, 12), 0);
  EXPECT_EQ(static_cast<BYTE*>(KaDibPixels(b)) - reinterpret_cast<BYTE*>(b), 52);
  const BYTE* px = static_cast<const BYTE*>(KaDibPixels(a));
  for (int i = 0; i < 16 * 8 * 4; ++i) ASSERT_EQ(px[i], 0);
  EXPECT_EQ(KaDibFree(a, 0), S_OK);
  EXPECT_EQ(KaDibFree(b, -1), S_OK);
  EXPECT_EQ(KaDibFree(nullptr, 0), S_OK);
  KaDibGetAllocStats(&n1, &b1);
  EXPECT_EQ(n1, n0);
  EXPECT_EQ(b1, b0);
  BITMAPINFOHEADER* c = a;
  EXPECT_EQ(KaDibAlloc(&c, 99, 1, 1, nullptr, 0, 0, 0), E_INVALIDARG);
  EXPECT_EQ(c, nullptr);
}

TEST(DibModel, FormatTextsAndPaletteOrder) {
  // The kernel's formats have localized names of their own; a four-character code is
  // shown as its characters.
  KAWCHAR text[32];
  std::set<std::u16string> names;
  for (DWORD compression :
       {DWORD(BI_RGB), DWORD(BI_BITFIELDS), DWORD(KA_BI_KAGS), DWORD(KA_BI_KADB)}) {
    ASSERT_EQ(KaVideo_GetFormatText(compression, text, 32), S_OK);
    EXPECT_TRUE(names.insert(text).second) << compression;
    EXPECT_NE(text[0], 0);
  }
  ASSERT_EQ(KaVideo_GetFormatText(KaFourCC('v', '2', '1', '0'), text, 32), S_OK);
  EXPECT_EQ(std::u16string(text), u"v210");
  EXPECT_EQ(KaVideo_GetFormatText(KaFourCC('N', 'V', '1', '2'), text, 4), E_INVALIDARG);
  const BYTE in[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  BYTE out[8];
  KaVideo_PaletteRGBAFromEntry(out, in, 2);
  EXPECT_EQ(std::vector<BYTE>(out, out + 8), (std::vector<BYTE>{3, 2, 1, 0, 7, 6, 5, 0}));
  KaVideo_PaletteEntryFromRGBA(out, out, 2);
  EXPECT_EQ(std::vector<BYTE>(out, out + 8), (std::vector<BYTE>{1, 2, 3, 0, 5, 6, 7, 0}));
}

TEST(DibModel, SinglePixelBoundsAndAddressing) {
  BITMAPINFOHEADER* bmp = nullptr;
  ASSERT_EQ(KaDibAlloc(&bmp, 27, 3, 2, nullptr, 0, KADIB_ZEROINIT, 0), S_OK);
  KAPIXEL p{1.0, 0.5, 0.0, 1.0, -1, 0};
  EXPECT_EQ(KaDibSetPixel(bmp, nullptr, 0, 2, 0, &p), S_OK);
  // Row 0 is the top row, stored last; the pixel's bytes are B, G, R.
  const BYTE* px = static_cast<const BYTE*>(KaDibPixels(bmp));
  EXPECT_EQ(px[12 + 6], 255);
  EXPECT_EQ(px[12 + 7], 128);
  EXPECT_EQ(px[12 + 8], 0);
  KAPIXEL q{};
  EXPECT_EQ(KaDibGetPixel(bmp, nullptr, 0, 2, 0, &q), S_OK);
  EXPECT_DOUBLE_EQ(q.g, 128 / 255.0);
  EXPECT_EQ(KaDibGetPixel(bmp, nullptr, 0, 3, 0, &q), E_NOTIMPL);
  EXPECT_EQ(KaDibSetPixel(bmp, nullptr, 0, 3, 0, &p), E_INVALIDARG);
  EXPECT_EQ(KaDibGetPixel(bmp, nullptr, 0, 0, -1, &q), E_NOTIMPL);
  EXPECT_EQ(KaDibSetPixel(bmp, nullptr, 0, 0, 2, &p), E_INVALIDARG);
  KaDibFree(bmp, 0);
  HeaderBuf yuv;
  ASSERT_EQ(KaVideo_InitBitmapInfo(yuv.h(), 64, 2, 2, nullptr, 0, nullptr), S_OK);
  BYTE frame[8] = {};
  EXPECT_EQ(KaDibGetPixel(yuv.h(), frame, 0, 0, 0, &q), E_NOTIMPL);
  EXPECT_EQ(KaDibSetPixel(yuv.h(), frame, 0, 0, 0, &p), E_NOTIMPL);
}

// Sub-byte pixels are packed from the top bit; a 1-bit palettised pixel reads through
// the table and carries its index.
TEST(DibModel, SubBytePixelsAndPalettes) {
  RGBQUAD table[2] = {{0, 0, 0, 0}, {10, 20, 30, 0}};
  BITMAPINFOHEADER* bmp = nullptr;
  ASSERT_EQ(KaDibAlloc(&bmp, 16, 9, 1, table, 2, KADIB_ZEROINIT, 0), S_OK);
  BYTE* px = static_cast<BYTE*>(KaDibPixels(bmp));
  px[0] = 0x40;  // x = 1
  px[1] = 0x80;  // x = 8
  KAPIXEL q{};
  for (LONG x = 0; x < 9; ++x) {
    ASSERT_EQ(KaDibGetPixel(bmp, nullptr, 0, x, 0, &q), S_OK);
    EXPECT_EQ(q.index, (x == 1 || x == 8) ? 1 : 0) << x;
  }
  EXPECT_DOUBLE_EQ(q.r, 30 / 255.0);
  KAPIXEL nearWhite{0.1, 0.1, 0.1, 1, -1, 0};  // nearest to index 1
  ASSERT_EQ(KaDibSetPixel(bmp, nullptr, 0, 3, 0, &nearWhite), S_OK);
  EXPECT_EQ(px[0], 0x50);
  KaDibFree(bmp, 0);
}

// Every type 16-33: stored -> common -> stored gives back the same bits, and the common
// value read back from a written one is the value itself for representable values.
TEST(DibModel, EveryTypeRoundTripsThroughTheCommonValue) {
  std::mt19937 rng(7);
  const LONG w = 24, h = 3;
  for (int type = 16; type <= 33; ++type) {
    const auto& info = *ostra::image::typeInfo(type);
    const LONG stride = ostra::image::defaultStride(info.bitsPerPixel, w);
    std::vector<BYTE> src(size_t(stride) * h), dst(src.size(), 0);
    for (auto& b : src) b = BYTE(rng());
    const size_t used = (size_t(info.bitsPerPixel) * w + 7) / 8;
    for (LONG y = 0; y < h; ++y) std::memset(&src[y * stride + used], 0, size_t(stride) - used);
    if (info.flags & KAPIXATTR_FLOAT)  // finite values only: a signalling NaN would come back quiet
      for (size_t i = 0; i + 4 <= src.size(); i += 4) {
        const float f = float(rng() % 100000) / 997.0f - 20.0f;
        std::memcpy(&src[i], &f, 4);
      }
    std::vector<RGBQUAD> table(256);
    for (auto& e : table) e = {BYTE(rng()), BYTE(rng()), BYTE(rng()), 0};
    table[5] = table[9];  // a duplicate entry: the index keeps them apart
    ostra::image::Palette pal{table.data(), 1u << std::min<int>(info.bitsPerPixel, 8)};
    const auto* ex = ostra::image::pixelExchange(type);
    for (LONG y = 0; y < h; ++y)
      for (LONG x = 0; x < w; ++x) {
        KAPIXEL p;
        ex->read(&src[y * stride], x, pal, &p);
        ex->write(&dst[y * stride], x, pal, p);
        KAPIXEL again;
        ex->read(&dst[y * stride], x, pal, &again);
        ASSERT_EQ(std::memcmp(&p, &again, sizeof p), 0) << "type " << type;
      }
    EXPECT_EQ(src, dst) << "type " << type;
  }
  // 16-bit channels keep every level, not only the 8-bit ones.
  BYTE px[8];
  const auto* ex = ostra::image::pixelExchange(31);
  KAPIXEL p{1 / 65535.0, 32769 / 65535.0, 65534 / 65535.0, 1.0, -1, 0};
  ex->write(px, 0, {}, p);
  EXPECT_EQ(px[0] | (px[1] << 8), 1);
  EXPECT_EQ(px[2] | (px[3] << 8), 32769);
  EXPECT_EQ(px[4] | (px[5] << 8), 65534);
}

}  // namespace
