#include <gtest/gtest.h>
#include <omp.h>

#include <cstring>
#include <random>
#include <vector>

#include "image/internal/pixel.h"
#include "ostra/kadib.h"

namespace {

using ostra::image::pixelExchange;

// A packed bitmap of random pixels (finite floats for the float type, a random table for
// the palettised ones), freed on scope exit.
struct Bitmap {
  BITMAPINFOHEADER* h = nullptr;
  Bitmap(int type, LONG w, LONG hgt, uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<RGBQUAD> table(16 + 240 * (type == 24));
    for (auto& e : table) e = {BYTE(rng()), BYTE(rng()), BYTE(rng()), 0};
    const bool pal = type == 23 || type == 24;
    EXPECT_EQ(KaDibAlloc(&h, type, w, hgt, pal ? table.data() : nullptr,
                         pal ? int(table.size()) : 0, 0, 0),
              S_OK);
    BYTE* p = pixels();
    for (DWORD i = 0; i < h->biSizeImage; ++i) p[i] = BYTE(rng());
    if (type == 32)
      for (DWORD i = 0; i + 4 <= h->biSizeImage; i += 4) {
        const float f = float(rng() % 1000) / 999.0f;
        std::memcpy(p + i, &f, 4);
      }
  }
  ~Bitmap() { KaDibFree(h, 0); }
  BYTE* pixels() const { return static_cast<BYTE*>(KaDibPixels(h)); }
  std::vector<BYTE> bytes() const { return {pixels(), pixels() + h->biSizeImage}; }
  KAPIXEL get(LONG x, LONG y) const {
    KAPIXEL p{};
    EXPECT_EQ(KaDibGetPixel(h, nullptr, 0, x, y, &p), S_OK);
    return p;
  }
};

bool same(const KAPIXEL& a, const KAPIXEL& b) {
  return a.b == b.b && a.g == b.g && a.r == b.r && a.a == b.a && a.index == b.index;
}

TEST(DibOps, ShapeOfTheWholeImageOperations) {
  Bitmap grey(20, 8, 8, 1), rgb(28, 8, 8, 2), pal(24, 8, 8, 3);
  const std::vector<BYTE> before = rgb.bytes();
  RECT outside{20, 20, 30, 30}, empty{3, 3, 3, 5};
  KAPIXEL c{0, 0, 0, 1, -1, 0};
  struct Case {
    const char* what;
    HRESULT got, want;
  };
  const Case cases[] = {
      {"grey swap", KaDibSwapRB(grey.h, nullptr, 0, nullptr), E_NOTIMPL},
      {"grey flip", KaDibFlip(grey.h, nullptr, 0, nullptr, KADIB_FLIP_VERTICAL), E_NOTIMPL},
      {"grey fill", KaDibFill(grey.h, nullptr, 0, nullptr, &c), E_NOTIMPL},
      {"palette swap", KaDibSwapRB(pal.h, nullptr, 0, nullptr), E_NOTIMPL},
      {"palette premultiply", KaDibPremultiply(pal.h, nullptr, 0, nullptr), E_NOTIMPL},
      {"rgb32 premultiply", KaDibPremultiply(rgb.h, nullptr, 0, nullptr), E_NOTIMPL},
      {"outside", KaDibSwapRB(rgb.h, nullptr, 0, &outside), S_OK},
      {"empty", KaDibFill(rgb.h, nullptr, 0, &empty, &c), S_OK},
      {"empty copy", KaDibCopy(rgb.h, nullptr, 0, 0, 0, pal.h, nullptr, 0, &empty), S_OK},
      {"copy from grey", KaDibCopy(rgb.h, nullptr, 0, 0, 0, grey.h, nullptr, 0, nullptr),
       E_NOTIMPL},
      {"null header", KaDibSwapRB(nullptr, nullptr, 0, nullptr), E_POINTER},
      {"bad direction", KaDibFlip(rgb.h, nullptr, 0, nullptr, 4), E_INVALIDARG},
  };
  for (const Case& k : cases) EXPECT_EQ(k.got, k.want) << k.what;
  EXPECT_EQ(rgb.bytes(), before);  // refused and empty calls touch nothing
}

// Swapping twice restores every type; once, each pixel has red and blue exchanged.
TEST(DibOps, SwapRedBlue) {
  for (int type = 25; type <= 33; ++type) {
    if (type == 33) continue;  // no header produces it
    Bitmap b(type, 13, 5, 10 + type);
    const std::vector<BYTE> before = b.bytes();
    const KAPIXEL p = b.get(4, 2);
    ASSERT_EQ(KaDibSwapRB(b.h, nullptr, 0, nullptr), S_OK);
    const KAPIXEL q = b.get(4, 2);
    EXPECT_EQ(q.r, p.b) << type;
    EXPECT_EQ(q.b, p.r) << type;
    EXPECT_EQ(q.g, p.g) << type;
    ASSERT_EQ(KaDibSwapRB(b.h, nullptr, 0, nullptr), S_OK);
    EXPECT_EQ(b.bytes(), before) << type;
  }
}

TEST(DibOps, FlipMatchesAPixelReferenceForEveryType) {
  for (int type = 23; type <= 32; ++type) {
    for (DWORD dir : {KADIB_FLIP_VERTICAL, KADIB_FLIP_HORIZONTAL,
                      KADIB_FLIP_VERTICAL | KADIB_FLIP_HORIZONTAL}) {
      Bitmap b(type, 11, 7, 20 + type);
      Bitmap ref(type, 11, 7, 20 + type);
      RECT r{1, 2, 10, 7};  // odd width and height inside the image
      ASSERT_EQ(KaDibFlip(b.h, nullptr, 0, &r, dir), S_OK);
      for (LONG y = 0; y < 7; ++y)
        for (LONG x = 0; x < 11; ++x) {
          const bool in = x >= 1 && x < 10 && y >= 2;
          LONG sx = x, sy = y;
          if (in && (dir & KADIB_FLIP_HORIZONTAL)) sx = 1 + 9 - 1 - (x - 1);
          if (in && (dir & KADIB_FLIP_VERTICAL)) sy = 2 + 5 - 1 - (y - 2);
          ASSERT_TRUE(same(b.get(x, y), ref.get(sx, sy)))
              << type << " dir " << dir << " at " << x << "," << y;
        }
    }
  }
}

// Every pair of types 23-32: the copy equals reading each source pixel and writing it.
TEST(DibOps, CopyConvertsBetweenEveryPairOfTypes) {
  for (int st = 23; st <= 32; ++st)
    for (int dt = 23; dt <= 32; ++dt) {
      Bitmap src(st, 9, 6, 100 + st), dst(dt, 7, 5, 200 + dt), ref(dt, 7, 5, 200 + dt);
      const RECT r{2, 1, 9, 6};  // 7 x 5 at (3, -1): the top row and last columns fall off
      ASSERT_EQ(KaDibCopy(dst.h, nullptr, 0, 3, -1, src.h, nullptr, 0, &r), S_OK);
      ostra::image::Surface rs;
      ostra::image::makeSurface(*ref.h, dt, nullptr, 0, &rs);
      for (LONG y = 0; y < 4; ++y)
        for (LONG x = 0; x < 4; ++x) {
          KAPIXEL p = src.get(2 + x, 2 + y);
          if (st == dt) {  // the same type copies stored bits, also the palette indices
            const KAPIXEL got = dst.get(3 + x, y);
            if (st <= 24) {
              ASSERT_EQ(got.index, p.index) << st;
            } else {
              ASSERT_TRUE(same(got, p)) << st;
            }
          } else {
            pixelExchange(dt)->write(rs.row(y), 3 + x, rs.pal, p);
          }
        }
      if (st != dt) {
        EXPECT_EQ(dst.bytes(), ref.bytes()) << st << "->" << dt;
      }
    }
}

TEST(DibOps, FillPremultiplyAndUnpremultiply) {
  {
    Bitmap b(23, 7, 3, 5);
    const KAPIXEL want = b.get(0, 0);  // a colour the table surely holds
    RECT r{1, 0, 6, 2};
    ASSERT_EQ(KaDibFill(b.h, nullptr, 0, &r, &want), S_OK);
    for (LONG x = 1; x < 6; ++x) EXPECT_EQ(b.get(x, 1).index, want.index);
  }
  struct Case {
    BYTE in[4], pre[4], back[4];
  };
  const Case cases[] = {
      {{200, 100, 50, 128}, {100, 50, 25, 128}, {199, 100, 50, 128}},
      {{255, 255, 255, 0}, {0, 0, 0, 0}, {0, 0, 0, 0}},
      {{255, 1, 0, 255}, {255, 1, 0, 255}, {255, 1, 0, 255}},
      {{10, 20, 30, 1}, {0, 0, 0, 1}, {0, 0, 0, 1}},
  };
  Bitmap b(29, 4, 1, 6);
  for (int i = 0; i < 4; ++i) std::memcpy(b.pixels() + 4 * i, cases[i].in, 4);
  ASSERT_EQ(KaDibPremultiply(b.h, nullptr, 0, nullptr), S_OK);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(std::memcmp(b.pixels() + 4 * i, cases[i].pre, 4), 0) << i;
  ASSERT_EQ(KaDibUnpremultiply(b.h, nullptr, 0, nullptr), S_OK);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(std::memcmp(b.pixels() + 4 * i, cases[i].back, 4), 0) << i;
  // The 16-bit type goes through the common value with the same rounding.
  Bitmap d(31, 1, 1, 7);
  const WORD px[4] = {65535, 32768, 1, 32768};
  std::memcpy(d.pixels(), px, 8);
  ASSERT_EQ(KaDibPremultiply(d.h, nullptr, 0, nullptr), S_OK);
  WORD out[4];
  std::memcpy(out, d.pixels(), 8);
  EXPECT_EQ(out[0], 32768);
  EXPECT_EQ(out[1], 16384);
  EXPECT_EQ(out[2], 1);
}

// Large enough to run in parallel: the bytes do not depend on the thread count.
TEST(DibOps, ResultsDoNotDependOnTheThreadCount) {
  const int saved = omp_get_max_threads();
  std::vector<std::vector<BYTE>> results;
  for (int threads : {1, 2, 3}) {
    omp_set_num_threads(threads);
    Bitmap src(31, 301, 97, 1), dst(24, 301, 97, 2);
    ASSERT_EQ(KaDibCopy(dst.h, nullptr, 0, 0, 0, src.h, nullptr, 0, nullptr), S_OK);
    ASSERT_EQ(KaDibFlip(dst.h, nullptr, 0, nullptr, KADIB_FLIP_VERTICAL | KADIB_FLIP_HORIZONTAL),
              S_OK);
    ASSERT_EQ(KaDibPremultiply(src.h, nullptr, 0, nullptr), S_OK);
    std::vector<BYTE> all = dst.bytes(), more = src.bytes();
    all.insert(all.end(), more.begin(), more.end());
    results.push_back(all);
  }
  omp_set_num_threads(saved);
  EXPECT_EQ(results[0], results[1]);
  EXPECT_EQ(results[0], results[2]);
}

}  // namespace
