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

void readRow(const Layout& l, const YuvGeneralTable& t, const BYTE* f, LONG y, const Row& r) {
  const LONG w = l.width, pairs = w / 2;
  const KAYUVPLANES& p = l.planes;
  const BYTE* luma = f + size_t(y) * p.lumaStride;
  switch (l.kind) {
    case Kind::Uyvy:
    case Kind::Yuyv: {
      const int yo = l.kind == Kind::Uyvy ? 1 : 0, co = 1 - yo;
      for (LONG i = 0; i < pairs; ++i, luma += 4) {
        r.u[i] = luma[co];
        r.y[2 * i] = luma[yo];
        r.v[i] = luma[co + 2];
        r.y[2 * i + 1] = luma[yo + 2];
      }
      return;
    }
    case Kind::V210:
      t.fromV210(r.y, r.u, r.v, luma, w);
      return;
    default:
      break;
  }
  if (l.tenBit)
    for (LONG x = 0; x < w; ++x) r.y[x] = int16_t(load16(luma + 2 * x) >> 6);
  else
    for (LONG x = 0; x < w; ++x) r.y[x] = luma[x];
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
    for (LONG i = 0; i < pairs; ++i) {
      r.u[i] = u[i];
      r.v[i] = v[i];
    }
  } else if (l.kind == Kind::Nv12) {
    const BYTE* c = f + p.uOffset + cy * p.chromaStride;
    for (LONG i = 0; i < pairs; ++i) {
      r.u[i] = c[2 * i];
      r.v[i] = c[2 * i + 1];
    }
  } else {  // P010, P210
    const BYTE* c = f + p.uOffset + cy * p.chromaStride;
    for (LONG i = 0; i < pairs; ++i) {
      r.u[i] = int16_t(load16(c + 4 * i) >> 6);
      r.v[i] = int16_t(load16(c + 4 * i + 2) >> 6);
    }
  }
}

inline void store16(BYTE* p, int v) {
  p[0] = BYTE(v);
  p[1] = BYTE(v >> 8);
}

void writeLuma(const Layout& l, const YuvGeneralTable& t, BYTE* f, LONG y, const Row& r) {
  const LONG w = l.width, pairs = w / 2;
  BYTE* luma = f + size_t(y) * l.planes.lumaStride;
  switch (l.kind) {
    case Kind::Uyvy:
    case Kind::Yuyv: {
      const int yo = l.kind == Kind::Uyvy ? 1 : 0, co = 1 - yo;
      for (LONG i = 0; i < pairs; ++i, luma += 4) {
        luma[co] = BYTE(r.u[i]);
        luma[yo] = BYTE(r.y[2 * i]);
        luma[co + 2] = BYTE(r.v[i]);
        luma[yo + 2] = BYTE(r.y[2 * i + 1]);
      }
      return;
    }
    case Kind::V210:
      std::memset(luma, 0, l.planes.lumaStride);
      t.toV210(luma, r.y, r.u, r.v, w);
      return;
    default:
      break;
  }
  if (l.tenBit)
    for (LONG x = 0; x < w; ++x) store16(luma + 2 * x, r.y[x] << 6);
  else
    for (LONG x = 0; x < w; ++x) luma[x] = BYTE(r.y[x]);
}

void writeChroma(const Layout& l, BYTE* f, DWORD cy, const Row& r) {
  const LONG pairs = l.width / 2;
  const KAYUVPLANES& p = l.planes;
  if (l.kind == Kind::Planar420 || l.kind == Kind::Planar422) {
    BYTE* u = f + p.uOffset + size_t(cy) * p.chromaStride;
    BYTE* v = f + p.vOffset + size_t(cy) * p.vStride;
    for (LONG i = 0; i < pairs; ++i) {
      u[i] = BYTE(r.u[i]);
      v[i] = BYTE(r.v[i]);
    }
  } else if (l.kind == Kind::Nv12) {
    BYTE* c = f + p.uOffset + size_t(cy) * p.chromaStride;
    for (LONG i = 0; i < pairs; ++i) {
      c[2 * i] = BYTE(r.u[i]);
      c[2 * i + 1] = BYTE(r.v[i]);
    }
  } else if (l.kind == Kind::P010 || l.kind == Kind::P210) {
    BYTE* c = f + p.uOffset + size_t(cy) * p.chromaStride;
    for (LONG i = 0; i < pairs; ++i) {
      store16(c + 4 * i, r.u[i] << 6);
      store16(c + 4 * i + 2, r.v[i] << 6);
    }
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
  const YuvGeneralTable& t = yuvGeneralTable();
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
  const YuvGeneralTable& t = yuvGeneralTable();
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
