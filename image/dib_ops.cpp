// Whole-image operations on types 23-33: swap red and blue, flip, copy with conversion,
// fill, premultiply and unpremultiply. Each operation takes its row routine from a table
// indexed by type - 23; an empty slot is "not supported". Rows are independent, so the
// parallel loop gives the same bytes whatever the thread count.
#include <algorithm>
#include <cstring>
#include <utility>

#include "image/internal/pixel.h"

namespace ostra::image {
namespace {

constexpr int kFirst = KAPT_PAL4;
constexpr int kCount = KAPT_BGR10A2 - KAPT_PAL4 + 1;
// Below this many bytes a parallel region costs more than it saves.
constexpr uint64_t kParallelBytes = 1u << 16;

template <class F>
void forRows(LONG rows, uint64_t bytesPerRow, F&& f) {
  const bool par = rows > 1 && uint64_t(rows) * bytesPerRow >= kParallelBytes;
#pragma omp parallel for schedule(static) if (par)
  for (LONG i = 0; i < rows; ++i) f(i);
}

struct Area {
  Surface s;
  LONG x0, y0, x1, y1;
  LONG rows() const { return y1 - y0; }
  LONG cols() const { return x1 - x0; }
  uint64_t rowBytes() const { return (uint64_t(cols()) * s.bpp + 7) / 8; }
};

bool clip(const RECT* r, LONG w, LONG h, LONG* x0, LONG* y0, LONG* x1, LONG* y1) {
  *x0 = 0;
  *y0 = 0;
  *x1 = w;
  *y1 = h;
  if (r) {
    *x0 = std::max(*x0, r->left);
    *y0 = std::max(*y0, r->top);
    *x1 = std::min(*x1, r->right);
    *y1 = std::min(*y1, r->bottom);
  }
  return *x0 < *x1 && *y0 < *y1;
}

// The shared prologue. Returns a failure, S_FALSE for "nothing to do", or S_OK.
HRESULT prepare(const BITMAPINFOHEADER* h, const void* pixels, LONG stride, const RECT* rect,
                Area* a) {
  if (!h) return E_POINTER;
  const int type = KaGetPixelType(h);
  if (!isWholeImageType(type)) return E_NOTIMPL;
  BYTE bits[4];
  if (KaGetPixelBitsPerChannel(type, bits) == 0) return E_INVALIDARG;
  makeSurface(*h, type, pixels, stride, &a->s);
  if (!clip(rect, h->biWidth, h->biHeight, &a->x0, &a->y0, &a->x1, &a->y1)) return S_FALSE;
  if (!a->s.base || a->s.stride == 0) return E_POINTER;
  return S_OK;
}

inline size_t pixelBytes(const Surface& s) { return size_t(s.bpp) / 8; }

// ---------------------------------------------------------------- swap red and blue
using RowFn = void (*)(const Surface& s, BYTE* row, LONG x0, LONG x1);

void swapRB8(const Surface&, BYTE* row, LONG x0, LONG x1, size_t step) {
  for (BYTE* p = row + step * x0; p < row + step * x1; p += step) std::swap(p[0], p[2]);
}
void swapRB24(const Surface& s, BYTE* row, LONG x0, LONG x1) { swapRB8(s, row, x0, x1, 3); }
void swapRB32(const Surface& s, BYTE* row, LONG x0, LONG x1) { swapRB8(s, row, x0, x1, 4); }
void swapRB64(const Surface&, BYTE* row, LONG x0, LONG x1) {
  for (BYTE* p = row + 8 * size_t(x0); p < row + 8 * size_t(x1); p += 8) {
    std::swap(p[0], p[4]);
    std::swap(p[1], p[5]);
  }
}
void swapRB128(const Surface&, BYTE* row, LONG x0, LONG x1) {
  for (BYTE* p = row + 16 * size_t(x0); p < row + 16 * size_t(x1); p += 16) {
    BYTE t[4];
    std::memcpy(t, p, 4);
    std::memmove(p, p + 8, 4);
    std::memcpy(p + 8, t, 4);
  }
}
void swapRBGeneric(const Surface& s, BYTE* row, LONG x0, LONG x1) {
  const PixelExchange* ex = pixelExchange(s.type);
  for (LONG x = x0; x < x1; ++x) {
    KAPIXEL p;
    ex->read(row, x, s.pal, &p);
    std::swap(p.r, p.b);
    ex->write(row, x, s.pal, p);
  }
}
constexpr RowFn kSwapRB[kCount] = {nullptr,  nullptr,   swapRBGeneric, swapRBGeneric,
                                   swapRB24, swapRB32,  swapRB32,      swapRBGeneric,
                                   swapRB64, swapRB128, swapRBGeneric};

// ---------------------------------------------------------------- flip
// Vertical: exchanges the spans of two rows. Horizontal: mirrors one row's span.
using SwapRowsFn = void (*)(const Surface& s, BYTE* a, BYTE* b, LONG x0, LONG x1);

void swapSpans(const Surface& s, BYTE* a, BYTE* b, LONG x0, LONG x1) {
  const size_t px = pixelBytes(s);
  a += px * x0;
  b += px * x0;
  size_t n = px * size_t(x1 - x0);
  alignas(64) BYTE tmp[4096];
  while (n) {
    const size_t k = std::min(n, sizeof tmp);
    std::memcpy(tmp, a, k);
    std::memcpy(a, b, k);
    std::memcpy(b, tmp, k);
    a += k;
    b += k;
    n -= k;
  }
}
void swapPixelsGeneric(const Surface& s, BYTE* a, BYTE* b, LONG x0, LONG x1) {
  const PixelExchange* ex = pixelExchange(s.type);
  for (LONG x = x0; x < x1; ++x) {
    KAPIXEL pa, pb;
    ex->read(a, x, s.pal, &pa);
    ex->read(b, x, s.pal, &pb);
    ex->write(a, x, s.pal, pb);
    ex->write(b, x, s.pal, pa);
  }
}
constexpr SwapRowsFn kFlipV[kCount] = {swapPixelsGeneric, swapSpans, swapSpans, swapSpans,
                                       swapSpans,         swapSpans, swapSpans, swapSpans,
                                       swapSpans,         swapSpans, swapSpans};

template <class T>
void mirror(BYTE* row, LONG x0, LONG x1) {
  T* p = reinterpret_cast<T*>(row) + x0;
  const size_t n = size_t(x1 - x0);
  for (size_t i = 0, j = n - 1; i < n / 2; ++i, --j) {
    T t = p[i];
    p[i] = p[j];
    p[j] = t;
  }
}
struct Px3 {
  BYTE v[3];
};
struct Px8 {
  BYTE v[8];
};
struct Px16 {
  BYTE v[16];
};
void mirror8(const Surface&, BYTE* row, LONG x0, LONG x1) { mirror<BYTE>(row, x0, x1); }
void mirror16(const Surface&, BYTE* row, LONG x0, LONG x1) { mirror<uint16_t>(row, x0, x1); }
void mirror24(const Surface&, BYTE* row, LONG x0, LONG x1) { mirror<Px3>(row, x0, x1); }
void mirror32(const Surface&, BYTE* row, LONG x0, LONG x1) { mirror<uint32_t>(row, x0, x1); }
void mirror64(const Surface&, BYTE* row, LONG x0, LONG x1) { mirror<Px8>(row, x0, x1); }
void mirror128(const Surface&, BYTE* row, LONG x0, LONG x1) { mirror<Px16>(row, x0, x1); }
void mirrorGeneric(const Surface& s, BYTE* row, LONG x0, LONG x1) {
  const PixelExchange* ex = pixelExchange(s.type);
  for (LONG i = x0, j = x1 - 1; i < j; ++i, --j) {
    KAPIXEL a, b;
    ex->read(row, i, s.pal, &a);
    ex->read(row, j, s.pal, &b);
    ex->write(row, i, s.pal, b);
    ex->write(row, j, s.pal, a);
  }
}
constexpr RowFn kFlipH[kCount] = {mirrorGeneric, mirror8,  mirror16, mirror16,  mirror24, mirror32,
                                  mirror32,      mirror32, mirror64, mirror128, mirror32};

// ---------------------------------------------------------------- premultiply
void premul32(const Surface&, BYTE* row, LONG x0, LONG x1) {
  for (BYTE* p = row + 4 * size_t(x0); p < row + 4 * size_t(x1); p += 4) {
    const unsigned a = p[3];
    for (int c = 0; c < 3; ++c) p[c] = BYTE((p[c] * a + 127) / 255);
  }
}
void unpremul32(const Surface&, BYTE* row, LONG x0, LONG x1) {
  for (BYTE* p = row + 4 * size_t(x0); p < row + 4 * size_t(x1); p += 4) {
    const unsigned a = p[3];
    for (int c = 0; c < 3; ++c) p[c] = a ? BYTE(std::min(255u, (p[c] * 255u + a / 2) / a)) : 0;
  }
}
void premulGeneric(const Surface& s, BYTE* row, LONG x0, LONG x1) {
  const PixelExchange* ex = pixelExchange(s.type);
  for (LONG x = x0; x < x1; ++x) {
    KAPIXEL p;
    ex->read(row, x, s.pal, &p);
    p.b *= p.a;
    p.g *= p.a;
    p.r *= p.a;
    ex->write(row, x, s.pal, p);
  }
}
void unpremulGeneric(const Surface& s, BYTE* row, LONG x0, LONG x1) {
  const PixelExchange* ex = pixelExchange(s.type);
  for (LONG x = x0; x < x1; ++x) {
    KAPIXEL p;
    ex->read(row, x, s.pal, &p);
    if (p.a == 0) {
      p.b = p.g = p.r = 0;
    } else {
      p.b /= p.a;
      p.g /= p.a;
      p.r /= p.a;
    }
    ex->write(row, x, s.pal, p);
  }
}
constexpr RowFn kPremul[kCount] = {nullptr,       nullptr,       nullptr,      nullptr,
                                   nullptr,       nullptr,       premul32,     premulGeneric,
                                   premulGeneric, premulGeneric, premulGeneric};
constexpr RowFn kUnpremul[kCount] = {
    nullptr,    nullptr,         nullptr,         nullptr,         nullptr,        nullptr,
    unpremul32, unpremulGeneric, unpremulGeneric, unpremulGeneric, unpremulGeneric};

HRESULT runRowOp(const RowFn* table, const BITMAPINFOHEADER* h, void* pixels, LONG stride,
                 const RECT* rect) {
  Area a;
  HRESULT hr = prepare(h, pixels, stride, rect, &a);
  if (hr != S_OK) return hr == S_FALSE ? S_OK : hr;
  const RowFn fn = table[a.s.type - kFirst];
  if (!fn) return E_NOTIMPL;
  forRows(a.rows(), a.rowBytes(), [&](LONG i) { fn(a.s, a.s.row(a.y0 + i), a.x0, a.x1); });
  return S_OK;
}

// ---------------------------------------------------------------- copy
using CopyFn = void (*)(const Surface& d, BYTE* drow, LONG dx, const Surface& s, const BYTE* srow,
                        LONG sx, LONG n);

void copyBytes(const Surface& d, BYTE* drow, LONG dx, const Surface& s, const BYTE* srow, LONG sx,
               LONG n) {
  const size_t px = pixelBytes(d);
  std::memcpy(drow + px * dx, srow + px * sx, px * size_t(n));
}
// Same sub-byte type: the stored indices move unchanged.
void copyNibbles(const Surface&, BYTE* drow, LONG dx, const Surface&, const BYTE* srow, LONG sx,
                 LONG n) {
  for (LONG i = 0; i < n; ++i) {
    const size_t sb = size_t(sx + i) * 4, db = size_t(dx + i) * 4;
    const BYTE v = BYTE((srow[sb / 8] >> (4 - sb % 8)) & 15);
    const int shift = 4 - int(db % 8);
    drow[db / 8] = BYTE((drow[db / 8] & ~(15 << shift)) | (v << shift));
  }
}
void copyGeneric(const Surface& d, BYTE* drow, LONG dx, const Surface& s, const BYTE* srow, LONG sx,
                 LONG n) {
  const PixelExchange* in = pixelExchange(s.type);
  const PixelExchange* out = pixelExchange(d.type);
  for (LONG i = 0; i < n; ++i) {
    KAPIXEL p;
    in->read(srow, sx + i, s.pal, &p);
    out->write(drow, dx + i, d.pal, p);
  }
}
CopyFn copyFor(int dstType, int srcType) {
  if (dstType == srcType) return dstType == KAPT_PAL4 ? copyNibbles : copyBytes;
  const bool d32 = dstType == KAPT_BGRX32 || dstType == KAPT_BGRA32;
  const bool s32 = srcType == KAPT_BGRX32 || srcType == KAPT_BGRA32;
  if (d32 && s32) return copyBytes;
  return copyGeneric;
}

// ---------------------------------------------------------------- fill
void fillRow(const Surface& s, BYTE* row, LONG x0, LONG x1, const BYTE* stored) {
  const size_t px = pixelBytes(s);
  if (px == 0) {
    const PixelExchange* ex = pixelExchange(s.type);
    KAPIXEL p;
    ex->read(stored, 0, s.pal, &p);
    for (LONG x = x0; x < x1; ++x) ex->write(row, x, s.pal, p);
    return;
  }
  BYTE* p = row + px * x0;
  if (px == 4) {
    uint32_t v;
    std::memcpy(&v, stored, 4);
    for (LONG x = x0; x < x1; ++x, p += 4) std::memcpy(p, &v, 4);
    return;
  }
  for (LONG x = x0; x < x1; ++x, p += px) std::memcpy(p, stored, px);
}

}  // namespace
}  // namespace ostra::image

using namespace ostra::image;

HRESULT KaDibSwapRB(const BITMAPINFOHEADER* h, void* pixels, LONG stride,
                    const RECT* rect) noexcept {
  return runRowOp(kSwapRB, h, pixels, stride, rect);
}

HRESULT KaDibPremultiply(const BITMAPINFOHEADER* h, void* pixels, LONG stride,
                         const RECT* rect) noexcept {
  return runRowOp(kPremul, h, pixels, stride, rect);
}

HRESULT KaDibUnpremultiply(const BITMAPINFOHEADER* h, void* pixels, LONG stride,
                           const RECT* rect) noexcept {
  return runRowOp(kUnpremul, h, pixels, stride, rect);
}

HRESULT KaDibFlip(const BITMAPINFOHEADER* h, void* pixels, LONG stride, const RECT* rect,
                  DWORD directions) noexcept {
  if (directions & ~(KADIB_FLIP_VERTICAL | KADIB_FLIP_HORIZONTAL)) return E_INVALIDARG;
  Area a;
  HRESULT hr = prepare(h, pixels, stride, rect, &a);
  if (hr != S_OK) return hr == S_FALSE ? S_OK : hr;
  const SwapRowsFn v = kFlipV[a.s.type - kFirst];
  const RowFn m = kFlipH[a.s.type - kFirst];
  if (!v || !m) return E_NOTIMPL;
  if (directions & KADIB_FLIP_VERTICAL)
    forRows(a.rows() / 2, 2 * a.rowBytes(),
            [&](LONG i) { v(a.s, a.s.row(a.y0 + i), a.s.row(a.y1 - 1 - i), a.x0, a.x1); });
  if (directions & KADIB_FLIP_HORIZONTAL)
    forRows(a.rows(), a.rowBytes(), [&](LONG i) { m(a.s, a.s.row(a.y0 + i), a.x0, a.x1); });
  return S_OK;
}

HRESULT KaDibFill(const BITMAPINFOHEADER* h, void* pixels, LONG stride, const RECT* rect,
                  const KAPIXEL* colour) noexcept {
  if (!colour) return E_POINTER;
  Area a;
  HRESULT hr = prepare(h, pixels, stride, rect, &a);
  if (hr != S_OK) return hr == S_FALSE ? S_OK : hr;
  // The colour is converted once; each row then repeats the stored form.
  alignas(16) BYTE stored[16] = {};
  pixelExchange(a.s.type)->write(stored, 0, a.s.pal, *colour);
  forRows(a.rows(), a.rowBytes(),
          [&](LONG i) { fillRow(a.s, a.s.row(a.y0 + i), a.x0, a.x1, stored); });
  return S_OK;
}

HRESULT KaDibCopy(const BITMAPINFOHEADER* dh, void* dst, LONG dstStride, LONG dx, LONG dy,
                  const BITMAPINFOHEADER* sh, const void* src, LONG srcStride,
                  const RECT* srcRect) noexcept {
  if (!dh || !sh) return E_POINTER;
  Area s, d;
  HRESULT hr = prepare(sh, src, srcStride, srcRect, &s);
  if (FAILED(hr)) return hr;
  const HRESULT hd = prepare(dh, dst, dstStride, nullptr, &d);
  if (FAILED(hd)) return hd;
  if (hr == S_FALSE || hd == S_FALSE) return S_OK;
  // (dx, dy) receives the rectangle's top-left corner, also when that corner was clipped.
  int64_t ox = int64_t(dx) + (s.x0 - (srcRect ? srcRect->left : 0));
  int64_t oy = int64_t(dy) + (s.y0 - (srcRect ? srcRect->top : 0));
  int64_t sx0 = s.x0, sy0 = s.y0;
  if (ox < 0) sx0 -= ox, ox = 0;
  if (oy < 0) sy0 -= oy, oy = 0;
  const int64_t cols = std::min<int64_t>(s.x1 - sx0, d.x1 - ox);
  const int64_t rows = std::min<int64_t>(s.y1 - sy0, d.y1 - oy);
  if (cols <= 0 || rows <= 0) return S_OK;
  const CopyFn fn = copyFor(d.s.type, s.s.type);
  const uint64_t rowBytes = (uint64_t(cols) * d.s.bpp + 7) / 8;
  forRows(LONG(rows), rowBytes, [&](LONG i) {
    fn(d.s, d.s.row(LONG(oy) + i), LONG(ox), s.s, s.s.row(LONG(sy0) + i), LONG(sx0), LONG(cols));
  });
  return S_OK;
}
