// Pixel exchange: per-type read and write between the stored form and KAPIXEL, and the
// single-pixel entry points built on them.
#include <cstring>

#include "image/internal/pixel.h"

namespace ostra::image {
namespace {

inline DWORD load16(const BYTE* p) { return DWORD(p[0]) | (DWORD(p[1]) << 8); }
inline void store16(BYTE* p, DWORD v) {
  p[0] = BYTE(v);
  p[1] = BYTE(v >> 8);
}
inline DWORD load32(const BYTE* p) {
  DWORD v;
  std::memcpy(&v, p, 4);
  return v;
}
inline void store32(BYTE* p, DWORD v) { std::memcpy(p, &v, 4); }

inline void setGrey(KAPIXEL* o, double v) {
  o->b = o->g = o->r = v;
  o->a = 1.0;
  o->index = -1;
  o->reserved = 0;
}
inline void setColour(KAPIXEL* o, double b, double g, double r, double a) {
  o->b = b;
  o->g = g;
  o->r = r;
  o->a = a;
  o->index = -1;
  o->reserved = 0;
}

// Grey from a colour: exact when the channels agree, BT.601 luma otherwise.
inline double greyOf(const KAPIXEL& p) {
  if (p.r == p.g && p.g == p.b) return p.r;
  return 0.299 * p.r + 0.587 * p.g + 0.114 * p.b;
}

// Sub-byte pixels are packed from the most significant bit of each byte.
template <int Bits>
inline DWORD loadBits(const BYTE* row, LONG x) {
  const size_t bit = size_t(x) * Bits;
  const int shift = 8 - int(bit % 8) - Bits;
  return (row[bit / 8] >> shift) & ((1u << Bits) - 1);
}
template <int Bits>
inline void storeBits(BYTE* row, LONG x, DWORD v) {
  const size_t bit = size_t(x) * Bits;
  const int shift = 8 - int(bit % 8) - Bits;
  const BYTE mask = BYTE(((1u << Bits) - 1) << shift);
  row[bit / 8] = BYTE((row[bit / 8] & ~mask) | ((v << shift) & mask));
}

// ---------------------------------------------------------------- palettised
template <int Bits>
void readPal(const BYTE* row, LONG x, const Palette& pal, KAPIXEL* o) {
  const DWORD i = loadBits<Bits>(row, x);
  if (i < pal.count) {
    const RGBQUAD& q = pal.table[i];
    setColour(o, q.rgbBlue / 255.0, q.rgbGreen / 255.0, q.rgbRed / 255.0, 1.0);
  } else {
    setColour(o, 0, 0, 0, 1.0);
  }
  o->index = LONG(i);
}

DWORD nearestIndex(const Palette& pal, const KAPIXEL& in, DWORD limit) {
  const DWORD n = pal.count < limit ? pal.count : limit;
  if (n == 0) return (in.index >= 0 && DWORD(in.index) < limit) ? DWORD(in.index) : 0;
  const int b = int(quantise(in.b, 255)), g = int(quantise(in.g, 255)),
            r = int(quantise(in.r, 255));
  if (in.index >= 0 && DWORD(in.index) < n) {
    const RGBQUAD& q = pal.table[in.index];
    if (q.rgbBlue == b && q.rgbGreen == g && q.rgbRed == r) return DWORD(in.index);
  }
  DWORD best = 0;
  int bestD = 1 << 30;
  for (DWORD i = 0; i < n; ++i) {
    const RGBQUAD& q = pal.table[i];
    const int d = (q.rgbBlue - b) * (q.rgbBlue - b) + (q.rgbGreen - g) * (q.rgbGreen - g) +
                  (q.rgbRed - r) * (q.rgbRed - r);
    if (d < bestD) {
      bestD = d;
      best = i;
      if (d == 0) break;
    }
  }
  return best;
}

template <int Bits>
void writePal(BYTE* row, LONG x, const Palette& pal, const KAPIXEL& in) {
  storeBits<Bits>(row, x, nearestIndex(pal, in, 1u << Bits));
}

// ---------------------------------------------------------------- grey
template <int Bits>
void readGrey(const BYTE* row, LONG x, const Palette&, KAPIXEL* o) {
  setGrey(o, loadBits<Bits>(row, x) / double((1u << Bits) - 1));
}
template <int Bits>
void writeGrey(BYTE* row, LONG x, const Palette&, const KAPIXEL& in) {
  storeBits<Bits>(row, x, quantise(greyOf(in), (1u << Bits) - 1));
}
void readGrey8(const BYTE* row, LONG x, const Palette&, KAPIXEL* o) { setGrey(o, row[x] / 255.0); }
void writeGrey8(BYTE* row, LONG x, const Palette&, const KAPIXEL& in) {
  row[x] = BYTE(quantise(greyOf(in), 255));
}
void readGrey16(const BYTE* row, LONG x, const Palette&, KAPIXEL* o) {
  setGrey(o, load16(row + 2 * x) / 65535.0);
}
void writeGrey16(BYTE* row, LONG x, const Palette&, const KAPIXEL& in) {
  store16(row + 2 * x, quantise(greyOf(in), 65535));
}
void readGrey32f(const BYTE* row, LONG x, const Palette&, KAPIXEL* o) {
  float f;
  std::memcpy(&f, row + 4 * size_t(x), 4);
  setGrey(o, f);
}
void writeGrey32f(BYTE* row, LONG x, const Palette&, const KAPIXEL& in) {
  const float f = float(greyOf(in));
  std::memcpy(row + 4 * size_t(x), &f, 4);
}

// ---------------------------------------------------------------- packed RGB
void read555(const BYTE* row, LONG x, const Palette&, KAPIXEL* o) {
  const DWORD v = load16(row + 2 * x);
  setColour(o, (v & 31) / 31.0, ((v >> 5) & 31) / 31.0, ((v >> 10) & 31) / 31.0, double(v >> 15));
}
void write555(BYTE* row, LONG x, const Palette&, const KAPIXEL& in) {
  store16(row + 2 * x, quantise(in.b, 31) | (quantise(in.g, 31) << 5) | (quantise(in.r, 31) << 10) |
                           (quantise(in.a, 1) << 15));
}
void read565(const BYTE* row, LONG x, const Palette&, KAPIXEL* o) {
  const DWORD v = load16(row + 2 * x);
  setColour(o, (v & 31) / 31.0, ((v >> 5) & 63) / 63.0, (v >> 11) / 31.0, 1.0);
}
void write565(BYTE* row, LONG x, const Palette&, const KAPIXEL& in) {
  store16(row + 2 * x, quantise(in.b, 31) | (quantise(in.g, 63) << 5) | (quantise(in.r, 31) << 11));
}
void read24(const BYTE* row, LONG x, const Palette&, KAPIXEL* o) {
  const BYTE* p = row + 3 * size_t(x);
  setColour(o, p[0] / 255.0, p[1] / 255.0, p[2] / 255.0, 1.0);
}
void write24(BYTE* row, LONG x, const Palette&, const KAPIXEL& in) {
  BYTE* p = row + 3 * size_t(x);
  p[0] = BYTE(quantise(in.b, 255));
  p[1] = BYTE(quantise(in.g, 255));
  p[2] = BYTE(quantise(in.r, 255));
}
void read32(const BYTE* row, LONG x, const Palette&, KAPIXEL* o) {
  const BYTE* p = row + 4 * size_t(x);
  setColour(o, p[0] / 255.0, p[1] / 255.0, p[2] / 255.0, p[3] / 255.0);
}
void write32(BYTE* row, LONG x, const Palette&, const KAPIXEL& in) {
  BYTE* p = row + 4 * size_t(x);
  p[0] = BYTE(quantise(in.b, 255));
  p[1] = BYTE(quantise(in.g, 255));
  p[2] = BYTE(quantise(in.r, 255));
  p[3] = BYTE(quantise(in.a, 255));
}
// RedShift 20 is type 30 (red high), 0 is type 33 (red low).
template <int RedShift>
void read1010102(const BYTE* row, LONG x, const Palette&, KAPIXEL* o) {
  const DWORD v = load32(row + 4 * size_t(x));
  constexpr int blueShift = 20 - RedShift;
  setColour(o, ((v >> blueShift) & 1023) / 1023.0, ((v >> 10) & 1023) / 1023.0,
            ((v >> RedShift) & 1023) / 1023.0, (v >> 30) / 3.0);
}
template <int RedShift>
void write1010102(BYTE* row, LONG x, const Palette&, const KAPIXEL& in) {
  constexpr int blueShift = 20 - RedShift;
  store32(row + 4 * size_t(x), (quantise(in.b, 1023) << blueShift) | (quantise(in.g, 1023) << 10) |
                                   (quantise(in.r, 1023) << RedShift) | (quantise(in.a, 3) << 30));
}
void read64(const BYTE* row, LONG x, const Palette&, KAPIXEL* o) {
  const BYTE* p = row + 8 * size_t(x);
  setColour(o, load16(p) / 65535.0, load16(p + 2) / 65535.0, load16(p + 4) / 65535.0,
            load16(p + 6) / 65535.0);
}
void write64(BYTE* row, LONG x, const Palette&, const KAPIXEL& in) {
  BYTE* p = row + 8 * size_t(x);
  store16(p, quantise(in.b, 65535));
  store16(p + 2, quantise(in.g, 65535));
  store16(p + 4, quantise(in.r, 65535));
  store16(p + 6, quantise(in.a, 65535));
}
void read128f(const BYTE* row, LONG x, const Palette&, KAPIXEL* o) {
  float f[4];
  std::memcpy(f, row + 16 * size_t(x), 16);
  setColour(o, f[0], f[1], f[2], f[3]);
}
void write128f(BYTE* row, LONG x, const Palette&, const KAPIXEL& in) {
  const float f[4] = {float(in.b), float(in.g), float(in.r), float(in.a)};
  std::memcpy(row + 16 * size_t(x), f, 16);
}

constexpr PixelExchange kExchange[18] = {
    {readPal<1>, writePal<1>},            // 16
    {readGrey<1>, writeGrey<1>},          // 17
    {readGrey<2>, writeGrey<2>},          // 18
    {readGrey<4>, writeGrey<4>},          // 19
    {readGrey8, writeGrey8},              // 20
    {readGrey16, writeGrey16},            // 21
    {readGrey32f, writeGrey32f},          // 22
    {readPal<4>, writePal<4>},            // 23
    {readPal<8>, writePal<8>},            // 24
    {read555, write555},                  // 25
    {read565, write565},                  // 26
    {read24, write24},                    // 27
    {read32, write32},                    // 28
    {read32, write32},                    // 29
    {read1010102<20>, write1010102<20>},  // 30
    {read64, write64},                    // 31
    {read128f, write128f},                // 32
    {read1010102<0>, write1010102<0>},    // 33
};

}  // namespace

const PixelExchange* pixelExchange(int type) noexcept {
  return isRgbType(type) ? &kExchange[type - KAPT_PAL1] : nullptr;
}

}  // namespace ostra::image

using namespace ostra::image;

HRESULT KaDibGetPixel(const BITMAPINFOHEADER* h, const void* pixels, LONG stride, LONG x, LONG y,
                      KAPIXEL* value) noexcept {
  if (!h || !value) return E_POINTER;
  const int type = KaGetPixelType(h);
  if (!isRgbType(type)) return E_NOTIMPL;
  if (x < 0 || y < 0 || x >= h->biWidth || y >= h->biHeight) return E_NOTIMPL;
  Surface s;
  makeSurface(*h, type, pixels, stride, &s);
  pixelExchange(type)->read(s.row(y), x, s.pal, value);
  return S_OK;
}

HRESULT KaDibSetPixel(const BITMAPINFOHEADER* h, void* pixels, LONG stride, LONG x, LONG y,
                      const KAPIXEL* value) noexcept {
  if (!h || !value) return E_POINTER;
  const int type = KaGetPixelType(h);
  if (!isRgbType(type)) return E_NOTIMPL;
  if (x < 0 || y < 0 || x >= h->biWidth || y >= h->biHeight) return E_INVALIDARG;
  Surface s;
  makeSurface(*h, type, pixels, stride, &s);
  pixelExchange(type)->write(s.row(y), x, s.pal, *value);
  return S_OK;
}
