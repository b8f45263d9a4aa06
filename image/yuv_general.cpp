// General conversions between 32-bit BGRA rows and the 8- and 10-bit YUV layouts.
// Each layout has a row reader that unpacks one row to luma and per-pair chroma samples
// and a row writer that packs them; the colour arithmetic between such rows and BGRA is
// shared by all layouts and lives in the kernels of image/internal/yuv_general.h.
//
// YUV to RGB uses the fixed-point formula of the packed conversion: at 8 bits
// (Y*4096 + 2048 + t) >> 12, at 10 bits (Y*4096 + 8192 + t) >> 14, where t is the sum of
// the matrix's inverse terms (times 4096, rounded) times the centred chroma; results
// clamp to 0..255. Chroma is shared by the two pixels of a pair, and in 4:2:0 by two rows.
// RGB to YUV computes in double precision and rounds to nearest: Y = Kr R + Kg G + Kb B,
// Cb/Cr = centre + the matrix row applied to the average colour of the pixels sharing
// the sample (2 in 4:2:2, up to 4 in 4:2:0); 10-bit values are 4 times the 8-bit scale.
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "image/internal/yuv_general.h"
#include "ostra/kaerror.h"
#include "ostra/kayuv.h"

namespace ostra::image {
namespace {

enum class Kind { Uyvy, Yuyv, Planar420, Planar422, Nv12, P010, P210, V210 };

struct Layout {
  Kind kind;
  bool tenBit;
  LONG width, height;
  KAYUVPLANES planes;
  DWORD chromaRows;  // rows of the chroma plane (4:2:0 kinds)
  DWORD total;
};

bool describe(DWORD fourcc, LONG w, LONG h, Layout* l) {
  switch (fourcc) {
    case KaFourCC('U', 'Y', 'V', 'Y'):
      l->kind = Kind::Uyvy;
      break;
    case KaFourCC('Y', 'U', 'Y', 'V'):
      l->kind = Kind::Yuyv;
      break;
    case KaFourCC('I', '4', '2', '0'):
    case KaFourCC('I', 'Y', 'U', 'V'):
    case KaFourCC('Y', 'V', '1', '2'):
      l->kind = Kind::Planar420;
      break;
    case KaFourCC('Y', 'V', '1', '6'):
      l->kind = Kind::Planar422;
      break;
    case KaFourCC('N', 'V', '1', '2'):
      l->kind = Kind::Nv12;
      break;
    case KaFourCC('P', '0', '1', '0'):
      l->kind = Kind::P010;
      break;
    case KaFourCC('P', '2', '1', '0'):
      l->kind = Kind::P210;
      break;
    case KaFourCC('v', '2', '1', '0'):
      l->kind = Kind::V210;
      break;
    default:
      return false;
  }
  l->tenBit = l->kind == Kind::P010 || l->kind == Kind::P210 || l->kind == Kind::V210;
  l->width = w;
  l->height = h;
  BITMAPINFOHEADER bih{};
  bih.biWidth = w;
  bih.biHeight = h;
  bih.biCompression = fourcc;
  l->total = KaYUVImageBytesAndOffsets(&bih, &l->planes);
  l->chromaRows = 0;
  if (l->kind == Kind::Planar420 || l->kind == Kind::Nv12 || l->kind == Kind::P010) {
    // The 4:2:0 plane holds a quarter of the luma bytes, which for odd heights is fewer
    // rows than the luma rows need: the rows that have none share the last one.
    const DWORD bytes = l->kind == Kind::Planar420 ? l->planes.vOffset > l->planes.uOffset
                                                         ? l->planes.vOffset - l->planes.uOffset
                                                         : l->planes.uOffset - l->planes.vOffset
                                                   : l->total - l->planes.uOffset;
    l->chromaRows = l->planes.chromaStride ? bytes / l->planes.chromaStride : 0;
  }
  return l->total != 0;
}

// Row of unpacked samples: luma per pixel, chroma per pixel pair.
struct Row {
  int16_t* y;
  int16_t* u;
  int16_t* v;
};

inline DWORD chromaRowFor(const Layout& l, LONG y) {
  switch (l.kind) {
    case Kind::Planar420:
    case Kind::Nv12:
    case Kind::P010:
      return std::min<DWORD>(DWORD(y) / 2, l.chromaRows - 1);
    default:
      return DWORD(y);
  }
}
inline bool hasChroma(const Layout& l) {
  switch (l.kind) {
    case Kind::Planar420:
    case Kind::Nv12:
    case Kind::P010:
      return l.chromaRows > 0;
    default:
      return true;
  }
}
inline DWORD load16(const BYTE* p) { return DWORD(p[0]) | (DWORD(p[1]) << 8); }
inline void store16(BYTE* p, int v) {
  p[0] = BYTE(v);
  p[1] = BYTE(v >> 8);
}

// The copies between frame bytes and sample rows take restrict parameters: without them
// the compiler must assume that a byte store may change a sample row (or the reverse)
// and leaves the loops scalar. 10-bit samples sit in the top bits of 16-bit words.
template <bool Ten>
inline int16_t get(const BYTE* p) {
  return Ten ? int16_t(load16(p) >> 6) : int16_t(*p);
}
template <bool Ten>
inline void put(BYTE* p, int v) {
  if constexpr (Ten)
    store16(p, v << 6);
  else
    *p = BYTE(v);
}
template <bool Ten>
void readPlane(int16_t* __restrict d, const BYTE* __restrict s, LONG n) {
  for (LONG i = 0; i < n; ++i) d[i] = get<Ten>(s + (Ten ? 2 : 1) * size_t(i));
}
template <bool Ten>
void writePlane(BYTE* __restrict d, const int16_t* __restrict s, LONG n) {
  for (LONG i = 0; i < n; ++i) put<Ten>(d + (Ten ? 2 : 1) * size_t(i), s[i]);
}
// Interleaved chroma: U V U V ...
template <bool Ten>
void readPairs(int16_t* __restrict u, int16_t* __restrict v, const BYTE* __restrict s, LONG n) {
  constexpr size_t k = Ten ? 2 : 1;
  for (LONG i = 0; i < n; ++i) {
    u[i] = get<Ten>(s + 2 * k * size_t(i));
    v[i] = get<Ten>(s + 2 * k * size_t(i) + k);
  }
}
template <bool Ten>
void writePairs(BYTE* __restrict d, const int16_t* __restrict u, const int16_t* __restrict v,
                LONG n) {
  constexpr size_t k = Ten ? 2 : 1;
  for (LONG i = 0; i < n; ++i) {
    put<Ten>(d + 2 * k * size_t(i), u[i]);
    put<Ten>(d + 2 * k * size_t(i) + k, v[i]);
  }
}
// Packed 4:2:2: U Y V Y ("UYVY") or Y U Y V ("YUYV").
template <int Yo>
void readPacked(int16_t* __restrict y, int16_t* __restrict u, int16_t* __restrict v,
                const BYTE* __restrict s, LONG pairs) {
  constexpr int co = 1 - Yo;
  for (LONG i = 0; i < pairs; ++i, s += 4) {
    u[i] = s[co];
    y[2 * i] = s[Yo];
    v[i] = s[co + 2];
    y[2 * i + 1] = s[Yo + 2];
  }
}
template <int Yo>
void writePacked(BYTE* __restrict d, const int16_t* __restrict y, const int16_t* __restrict u,
                 const int16_t* __restrict v, LONG pairs) {
  constexpr int co = 1 - Yo;
  for (LONG i = 0; i < pairs; ++i, d += 4) {
    d[co] = BYTE(u[i]);
    d[Yo] = BYTE(y[2 * i]);
    d[co + 2] = BYTE(v[i]);
    d[Yo + 2] = BYTE(y[2 * i + 1]);
  }
}

void readRow(const Layout& l, const YuvGeneralTable& t, const BYTE* f, LONG y, const Row& r) {
  const LONG w = l.width, pairs = w / 2;
  const KAYUVPLANES& p = l.planes;
  const BYTE* luma = f + size_t(y) * p.lumaStride;
  switch (l.kind) {
    case Kind::Uyvy:
      readPacked<1>(r.y, r.u, r.v, luma, pairs);
      return;
    case Kind::Yuyv:
      readPacked<0>(r.y, r.u, r.v, luma, pairs);
      return;
    case Kind::V210:
      t.fromV210(r.y, r.u, r.v, luma, w);
      return;
    default:
      break;
  }
  if (l.tenBit)
    t.fromWords10(r.y, luma, w);
  else
    readPlane<false>(r.y, luma, w);
  if (!hasChroma(l)) {
    const int16_t mid = l.tenBit ? 512 : 128;
    std::fill(r.u, r.u + pairs, mid);
    std::fill(r.v, r.v + pairs, mid);
    return;
  }
  const size_t cy = chromaRowFor(l, y);
  if (l.kind == Kind::Planar420 || l.kind == Kind::Planar422) {
    const BYTE* u = f + p.uOffset + cy * p.chromaStride;
    const BYTE* v = f + p.vOffset + cy * p.vStride;
    readPlane<false>(r.u, u, pairs);
    readPlane<false>(r.v, v, pairs);
  } else {  // NV12, P010, P210
    const BYTE* c = f + p.uOffset + cy * p.chromaStride;
    if (l.tenBit)
      t.fromWordPairs10(r.u, r.v, c, pairs);
    else
      readPairs<false>(r.u, r.v, c, pairs);
  }
}

void writeLuma(const Layout& l, const YuvGeneralTable& t, BYTE* f, LONG y, const Row& r) {
  const LONG w = l.width, pairs = w / 2;
  BYTE* luma = f + size_t(y) * l.planes.lumaStride;
  switch (l.kind) {
    case Kind::Uyvy:
      writePacked<1>(luma, r.y, r.u, r.v, pairs);
      return;
    case Kind::Yuyv:
      writePacked<0>(luma, r.y, r.u, r.v, pairs);
      return;
    case Kind::V210:
      std::memset(luma, 0, l.planes.lumaStride);
      t.toV210(luma, r.y, r.u, r.v, w);
      return;
    default:
      break;
  }
  (l.tenBit ? writePlane<true> : writePlane<false>)(luma, r.y, w);
}

void writeChroma(const Layout& l, BYTE* f, DWORD cy, const Row& r) {
  const LONG pairs = l.width / 2;
  const KAYUVPLANES& p = l.planes;
  if (l.kind == Kind::Planar420 || l.kind == Kind::Planar422) {
    BYTE* u = f + p.uOffset + size_t(cy) * p.chromaStride;
    BYTE* v = f + p.vOffset + size_t(cy) * p.vStride;
    writePlane<false>(u, r.u, pairs);
    writePlane<false>(v, r.v, pairs);
  } else if (l.kind == Kind::Nv12 || l.kind == Kind::P010 || l.kind == Kind::P210) {
    (l.tenBit ? writePairs<true> : writePairs<false>)(f + p.uOffset + size_t(cy) * p.chromaStride,
                                                      r.u, r.v, pairs);
  }
}

// Scratch rows for every thread of the parallel region, allocated before it starts so
// that no allocation failure can happen inside it.
struct Scratch {
  std::unique_ptr<int16_t[]> mem;
  size_t perThread = 0;
  bool init(LONG w) {
    perThread = size_t(w) * 2 + 16;
    mem.reset(new (std::nothrow) int16_t[perThread * size_t(omp_get_max_threads())]);
    return mem != nullptr;
  }
  Row row() const {
    int16_t* base = mem.get() + perThread * size_t(omp_get_thread_num());
    return {base, base + perThread / 2, base + perThread / 2 + perThread / 4};
  }
};

HRESULT check(const void* rgb, LONG rgbStride, const void* yuv, size_t yuvBytes, DWORD fourcc,
              LONG w, LONG h, int cs, Layout* l) {
  if (!rgb || !yuv) return E_POINTER;
  if (w < 2 || (w & 1) || h < 1 || std::llabs(int64_t(rgbStride)) < int64_t(w) * 4)
    return E_INVALIDARG;
  if (cs < KAYUV_MATRIX_AUTO || cs > KAYUV_MATRIX_BT2020) return E_INVALIDARG;
  if (!describe(fourcc, w, h, l)) return KAERR_UNSUPPORTED_FORMAT;
  if (yuvBytes < l->total) return E_INVALIDARG;
  return S_OK;
}

}  // namespace
}  // namespace ostra::image

using namespace ostra::image;

HRESULT KaYUV_YUVToRGB(void* rgb, LONG rgbStride, const void* yuv, size_t yuvBytes, DWORD fourcc,
                       LONG width, LONG height, int colourSpace) noexcept {
  Layout l;
  const HRESULT hr = check(rgb, rgbStride, yuv, yuvBytes, fourcc, width, height, colourSpace, &l);
  if (FAILED(hr)) return hr;
  auto* d = static_cast<BYTE*>(rgb);
  const auto* f = static_cast<const BYTE*>(yuv);
  if (l.kind == Kind::Uyvy) return KaUYVY2RGBA(rgb, yuv, rgbStride, width, height, colourSpace);
  const UyvyCoeffs k = uyvyCoeffs(colourSpace, width, height);
  Scratch s;
  if (!s.init(width)) return E_OUTOFMEMORY;
  const YuvGeneralTable t = yuvGeneralTable();
  const YuvToBgraRowFn toBgra = t.toBgra[l.tenBit];
  const bool par = int64_t(width) * height >= 32768;
#pragma omp parallel for schedule(static) if (par)
  for (LONG y = 0; y < height; ++y) {
    const Row r = s.row();
    readRow(l, t, f, y, r);
    toBgra(d + ptrdiff_t(y) * rgbStride, r.y, r.u, r.v, width, k);
  }
  return S_OK;
}

HRESULT KaYUV_RGBToYUV(void* yuv, size_t yuvBytes, DWORD fourcc, const void* rgb, LONG rgbStride,
                       LONG width, LONG height, int colourSpace) noexcept {
  Layout l;
  const HRESULT hr = check(rgb, rgbStride, yuv, yuvBytes, fourcc, width, height, colourSpace, &l);
  if (FAILED(hr)) return hr;
  const KAYUVMATRIX& m = *KaYUV_SelectMatrix(colourSpace, width, height);
  auto* f = static_cast<BYTE*>(yuv);
  const auto* src = static_cast<const BYTE*>(rgb);
  auto srcRow = [&](LONG y) { return src + ptrdiff_t(y) * rgbStride; };
  Scratch s;
  if (!s.init(width)) return E_OUTOFMEMORY;
  const YuvGeneralTable t = yuvGeneralTable();
  const BgraToLumaRowFn luma = t.luma[l.tenBit];
  const BgraToChromaRowFn chroma = t.chroma[l.tenBit];
  const bool par = int64_t(width) * height >= 32768;
  const bool shared = l.kind == Kind::Planar420 || l.kind == Kind::Nv12 || l.kind == Kind::P010;
  if (!shared) {
#pragma omp parallel for schedule(static) if (par)
    for (LONG y = 0; y < height; ++y) {
      const Row r = s.row();
      luma(r.y, srcRow(y), width, m);
      chroma(r.u, r.v, srcRow(y), nullptr, width, m);
      writeLuma(l, t, f, y, r);
      writeChroma(l, f, DWORD(y), r);
    }
    return S_OK;
  }
  // 4:2:0: each step writes two luma rows and the chroma row they share. A last lone row
  // (odd heights) gets luma only; it reads the last chroma row back.
  const LONG steps = (height + 1) / 2;
#pragma omp parallel for schedule(static) if (par)
  for (LONG j = 0; j < steps; ++j) {
    const Row r = s.row();
    const LONG y0 = 2 * j, y1 = std::min(2 * j + 1, height - 1);
    const bool pair = y1 != y0;
    if (DWORD(j) < l.chromaRows) {
      chroma(r.u, r.v, srcRow(y0), pair ? srcRow(y1) : nullptr, width, m);
      writeChroma(l, f, DWORD(j), r);
    }
    luma(r.y, srcRow(y0), width, m);
    writeLuma(l, t, f, y0, r);
    if (pair) {
      luma(r.y, srcRow(y1), width, m);
      writeLuma(l, t, f, y1, r);
    }
  }
  return S_OK;
}
