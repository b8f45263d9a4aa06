// The bitmap model: pixel-type numbering, headers for a type, image sizes, allocation
// with the live counters, format texts and palette entry order.
#include <atomic>
#include <cstring>
#include <new>

#include "image/internal/pixel.h"
#include "kernel/internal/strings.h"
#include "ostra/kaplatform.h"
#include "ostra/kayuv.h"

namespace ostra::image {
namespace {

constexpr DWORD kGs = KA_BI_KAGS;
constexpr DWORD kDb = KA_BI_KADB;

constexpr TypeInfo kRgbTypes[18] = {
    {1, {0, 0, 0, 1}, BI_RGB, {}, KAPIXATTR_PALETTE},                                // 16
    {1, {0, 0, 0, 1}, kGs, {}, KAPIXATTR_GREY},                                      // 17
    {2, {0, 0, 0, 2}, kGs, {}, KAPIXATTR_GREY},                                      // 18
    {4, {0, 0, 0, 4}, kGs, {}, KAPIXATTR_GREY},                                      // 19
    {8, {0, 0, 0, 8}, kGs, {}, KAPIXATTR_GREY},                                      // 20
    {16, {0, 0, 0, 16}, kGs, {}, KAPIXATTR_GREY},                                    // 21
    {32, {0, 0, 0, 32}, kGs, {}, KAPIXATTR_GREY | KAPIXATTR_FLOAT},                  // 22
    {4, {8, 8, 8, 0}, BI_RGB, {}, KAPIXATTR_PALETTE},                                // 23
    {8, {8, 8, 8, 0}, BI_RGB, {}, KAPIXATTR_PALETTE},                                // 24
    {16, {5, 5, 5, 1}, BI_RGB, {0x7C00, 0x03E0, 0x001F, 0x8000}, 0},                 // 25
    {16, {5, 6, 5, 0}, BI_BITFIELDS, {0xF800, 0x07E0, 0x001F, 0}, 0},                // 26
    {24, {8, 8, 8, 0}, BI_RGB, {0xFF0000, 0xFF00, 0xFF, 0}, 0},                      // 27
    {32, {8, 8, 8, 8}, BI_RGB, {0xFF0000, 0xFF00, 0xFF, 0xFF000000}, 0},             // 28
    {32, {8, 8, 8, 8}, kDb, {0xFF0000, 0xFF00, 0xFF, 0xFF000000}, KAPIXATTR_ALPHA},  // 29
    {32,
     {10, 10, 10, 2},
     BI_BITFIELDS,
     {0x3FF00000, 0xFFC00, 0x3FF, 0xC0000000},
     KAPIXATTR_ALPHA},                                                    // 30
    {64, {16, 16, 16, 16}, kDb, {}, KAPIXATTR_ALPHA},                     // 31
    {128, {32, 32, 32, 32}, kDb, {}, KAPIXATTR_ALPHA | KAPIXATTR_FLOAT},  // 32
    {32,
     {10, 10, 10, 2},
     BI_BITFIELDS,
     {0x3FF, 0xFFC00, 0x3FF00000, 0xC0000000},
     KAPIXATTR_ALPHA},  // 33
};

constexpr TypeInfo kYuvTypes[13] = {
    {16, {}, KaFourCC('U', 'Y', 'V', 'Y'), {}, KAPIXATTR_YUV},  // 64
    {16, {}, KaFourCC('Y', 'U', 'Y', 'V'), {}, KAPIXATTR_YUV},  // 65
    {12, {}, KaFourCC('Y', '4', '1', 'B'), {}, KAPIXATTR_YUV},  // 66
    {12, {}, KaFourCC('I', '4', '2', '0'), {}, KAPIXATTR_YUV},  // 67
    {20, {}, KaFourCC('v', '2', '1', '0'), {}, KAPIXATTR_YUV},  // 68
    {15, {}, KaFourCC('P', '0', '1', '0'), {}, KAPIXATTR_YUV},  // 69
    {15, {}, KaFourCC('P', 'L', '1', '0'), {}, KAPIXATTR_YUV},  // 70
    {20, {}, KaFourCC('P', '2', '1', '0'), {}, KAPIXATTR_YUV},  // 71
    {30, {}, KaFourCC('P', '4', '1', '0'), {}, KAPIXATTR_YUV},  // 72
    {12, {}, KaFourCC('N', 'V', '1', '2'), {}, KAPIXATTR_YUV},  // 73
    {12, {}, KaFourCC('Y', 'V', '1', '2'), {}, KAPIXATTR_YUV},  // 74
    {16, {}, KaFourCC('Y', 'V', '1', '6'), {}, KAPIXATTR_YUV},  // 75
    {46, {}, KaFourCC('A', '4', '1', '0'), {}, KAPIXATTR_YUV},  // 76
};

int popcount(DWORD v) { return __builtin_popcount(v); }

std::atomic<UINT64> gLiveBitmaps{0};
std::atomic<UINT64> gLiveBytes{0};

// Sizes the YUV layout function owns; "Y41B" keeps the stride rule.
bool sizeFromYuvLayout(DWORD compression) {
  switch (compression) {
    case KaFourCC('N', 'V', '1', '2'):
    case KaFourCC('Y', 'V', '1', '2'):
    case KaFourCC('Y', 'V', '1', '6'):
    case KaFourCC('Y', 'U', 'Y', 'V'):
    case KaFourCC('U', 'Y', 'V', 'Y'):
    case KaFourCC('I', '4', '2', '0'):
    case KaFourCC('P', '4', '1', '0'):
    case KaFourCC('P', 'L', '1', '0'):
    case KaFourCC('A', '4', '1', '0'):
    case KaFourCC('P', '0', '1', '0'):
    case KaFourCC('P', '2', '1', '0'):
    case KaFourCC('v', '2', '1', '0'):
      return true;
    default:
      return false;
  }
}

}  // namespace

const TypeInfo* typeInfo(int type) noexcept {
  if (type >= 16 && type <= 33) return &kRgbTypes[type - 16];
  if (type >= 64 && type <= 76) return &kYuvTypes[type - 64];
  return nullptr;
}

size_t tableBytes(const BITMAPINFOHEADER& h) noexcept {
  if (h.biCompression == BI_BITFIELDS) return 12;
  return size_t(h.biClrUsed) * 4;
}

LONG defaultStride(int bitsPerPixel, LONG width) noexcept {
  if (width <= 0 || bitsPerPixel <= 0) return 0;
  const int64_t s = ((int64_t(bitsPerPixel) * width + 31) / 8) & ~int64_t(3);
  return s > 0x7FFFFFFF ? 0 : LONG(s);
}

void makeSurface(const BITMAPINFOHEADER& h, int type, const void* pixels, LONG stride,
                 Surface* s) noexcept {
  const TypeInfo* info = typeInfo(type);
  s->type = type;
  s->bpp = info ? info->bitsPerPixel : 0;
  s->width = h.biWidth;
  s->height = h.biHeight;
  s->stride = stride != 0 ? stride : defaultStride(s->bpp, h.biWidth);
  s->base = static_cast<BYTE*>(pixels ? const_cast<void*>(pixels) : KaDibPixels(&h));
  if (h.biCompression != BI_BITFIELDS && h.biClrUsed > 0) {
    s->pal.table = reinterpret_cast<const RGBQUAD*>(&h + 1);
    s->pal.count = h.biClrUsed;
  }
}

BITMAPINFOHEADER* allocPacked(size_t bytes, bool zero) noexcept {
  if (bytes < sizeof(BITMAPINFOHEADER)) return nullptr;
  KAHGLOBAL mem = KaGlobalAlloc(GMEM_MOVEABLE | (zero ? GMEM_ZEROINIT : 0u), bytes);
  if (!mem) return nullptr;
  void* p = KaGlobalLock(mem);
  if (!p) {
    KaGlobalFree(mem);
    return nullptr;
  }
  return static_cast<BITMAPINFOHEADER*>(p);
}

void countAllocation(DWORD imageBytes) noexcept {
  gLiveBitmaps.fetch_add(1, std::memory_order_relaxed);
  gLiveBytes.fetch_add(imageBytes, std::memory_order_relaxed);
}

}  // namespace ostra::image

using namespace ostra::image;

int KaGetPixelType(const BITMAPINFOHEADER* h) noexcept {
  if (!h) return 0;
  const int bits = h->biBitCount;
  switch (h->biCompression) {
    case BI_RGB:
      switch (bits) {
        case 1:
          return 16;
        case 4:
          return 23;
        case 8:
          return 24;
        case 16:
          return 25;
        case 24:
          return 27;
        case 32:
          return 28;
        default:
          return 0;
      }
    case BI_BITFIELDS: {
      const DWORD* m = reinterpret_cast<const DWORD*>(h + 1);
      const int r = popcount(m[0]), g = popcount(m[1]), b = popcount(m[2]);
      if (bits == 16 && r == 5 && g == 5 && b == 5) return 25;
      if (bits == 16 && r == 5 && g == 6 && b == 5) return 26;
      if (bits == 32 && r == 8 && g == 8 && b == 8) return 28;
      if (bits == 32 && r == 10 && g == 10 && b == 10) return 30;
      return 0;
    }
    case KA_BI_KADB:
      switch (bits) {
        case 24:
          return 27;
        case 32:
          return 29;
        case 64:
          return 31;
        case 128:
          return 32;
        default:
          return 0;
      }
    case KA_BI_KAGS:
      switch (bits) {
        case 1:
          return 17;
        case 2:
          return 18;
        case 4:
          return 19;
        case 8:
          return 20;
        case 16:
          return 21;
        case 32:
          return 22;
        default:
          return 0;
      }
    default:
      for (int t = 64; t <= 76; ++t)
        if (typeInfo(t)->compression == h->biCompression) return t;
      return 0;
  }
}

int KaGetPixelBitsPerChannel(int type, BYTE channelBits[4]) noexcept {
  const TypeInfo* info = typeInfo(type);
  if (channelBits)
    for (int i = 0; i < 4; ++i) channelBits[i] = info ? info->channelBits[i] : 0;
  return info ? info->bitsPerPixel : 0;
}

int KaPixelTypeToBitAttribs(int type, DWORD* compression, KAPIXELATTRIBS* attribs,
                            DWORD attribsSize, DWORD masks[3]) noexcept {
  if (attribs && attribsSize < sizeof(KAPIXELATTRIBS)) return 0;
  const TypeInfo* info = typeInfo(type);
  if (!info) return 0;
  if (compression) *compression = info->compression;
  if (masks && info->compression == BI_BITFIELDS)
    for (int i = 0; i < 3; ++i) masks[i] = info->masks[i];
  if (attribs) {
    std::memset(attribs, 0, sizeof(*attribs));
    attribs->cbSize = sizeof(KAPIXELATTRIBS);
    attribs->bitsPerPixel = info->bitsPerPixel;
    attribs->compression = info->compression;
    attribs->flags = info->flags;
    for (int i = 0; i < 4; ++i) {
      attribs->channelBits[i] = info->channelBits[i];
      attribs->masks[i] = info->masks[i];
    }
  }
  return info->bitsPerPixel;
}

HRESULT KaVideo_InitBitmapInfo(BITMAPINFOHEADER* h, int type, LONG width, LONG height,
                               const RGBQUAD* table, int count, DWORD* imageSize) noexcept {
  if (imageSize) *imageSize = 0;
  const TypeInfo* info = typeInfo(type);
  if (!h || !info || info->bitsPerPixel == 0) return E_INVALIDARG;
  if (width < 0 || height < 0) return E_INVALIDARG;
  std::memset(h, 0, sizeof(*h));
  h->biSize = sizeof(BITMAPINFOHEADER);
  h->biWidth = width;
  h->biHeight = height;
  h->biPlanes = 1;
  h->biBitCount = info->bitsPerPixel;
  h->biCompression = info->compression;
  if (sizeFromYuvLayout(info->compression)) {
    const DWORD bytes = KaYUVImageBytesAndOffsets(h, nullptr);
    if (bytes == 0 && width > 0 && height > 0) return E_INVALIDARG;
    h->biSizeImage = bytes;
  } else {
    const uint64_t stride =
        ((uint64_t(info->bitsPerPixel) * uint64_t(width) + 31) / 8) & ~uint64_t(3);
    const uint64_t bytes = stride * uint64_t(height);
    if (stride > 0x7FFFFFFF || bytes > 0xFFFFFFFFu) return E_INVALIDARG;
    h->biSizeImage = DWORD(bytes);
  }
  if (info->compression == BI_BITFIELDS) {
    std::memcpy(h + 1, info->masks, 12);
  } else {
    if (count < 0) count = 0;
    if (!table && count == 0 && info->bitsPerPixel <= 8) count = (1 << info->bitsPerPixel) - 1;
    h->biClrUsed = DWORD(count);
    if (table && count > 0) std::memcpy(h + 1, table, size_t(count) * 4);
  }
  if (imageSize) *imageSize = h->biSizeImage;
  return S_OK;
}

HRESULT KaDibInfo(DWORD* headerSize, DWORD* imageSize, BITMAPINFOHEADER* h, int type, LONG width,
                  LONG height, const RGBQUAD* table, int count) noexcept {
  if (headerSize) *headerSize = 0;
  const HRESULT hr = KaVideo_InitBitmapInfo(h, type, width, height, table, count, imageSize);
  if (FAILED(hr)) return hr;
  if (headerSize) *headerSize = DWORD(sizeof(BITMAPINFOHEADER) + tableBytes(*h));
  return S_OK;
}

HRESULT KaDibAlloc(BITMAPINFOHEADER** bitmap, int type, LONG width, LONG height,
                   const RGBQUAD* table, int count, LONG flags, DWORD_PTR tag) noexcept {
  if (!bitmap) return E_POINTER;
  *bitmap = nullptr;
  // The header is built on the stack first: a table larger than any real palette must
  // not make us write past a small scratch buffer, so the table is copied afterwards.
  // The header is built in a scratch buffer with room for the masks only; the table is
  // copied once the block exists.
  alignas(8) BYTE scratch[sizeof(BITMAPINFOHEADER) + 12];
  auto* sh = reinterpret_cast<BITMAPINFOHEADER*>(scratch);
  const int n = count < 0 ? 0 : count;
  const HRESULT hr = KaVideo_InitBitmapInfo(sh, type, width, height, nullptr, n, nullptr);
  if (FAILED(hr)) return hr;
  BITMAPINFOHEADER h = *sh;
  if (table && n == 0 && h.biCompression != BI_BITFIELDS) h.biClrUsed = 0;
  const uint64_t total = sizeof(BITMAPINFOHEADER) + tableBytes(h) + uint64_t(h.biSizeImage);
  if (total > SIZE_MAX / 2) return E_OUTOFMEMORY;
  BITMAPINFOHEADER* p = allocPacked(size_t(total), (flags & KADIB_ZEROINIT) != 0);
  if (!p) return E_OUTOFMEMORY;
  *p = h;
  if (h.biCompression == BI_BITFIELDS)
    std::memcpy(p + 1, sh + 1, 12);
  else if (table && n > 0)
    std::memcpy(p + 1, table, size_t(n) * 4);
  // The classic allocator labelled each block "KaDA:<tag>" for leak reports; the
  // platform allocator keeps no labels, so the tag is accepted and not used.
  (void)tag;
  countAllocation(h.biSizeImage);
  *bitmap = p;
  return S_OK;
}

HRESULT KaDibFree(BITMAPINFOHEADER* bitmap, int mode) noexcept {
  if (!bitmap) return S_OK;
  if (mode < 0 && !KaGlobalHandle(bitmap)) return S_OK;
  gLiveBitmaps.fetch_sub(1, std::memory_order_relaxed);
  gLiveBytes.fetch_sub(bitmap->biSizeImage, std::memory_order_relaxed);
  KaGlobalFreePtr(bitmap);
  return S_OK;
}

void KaDibGetAllocStats(UINT64* liveBitmaps, UINT64* liveImageBytes) noexcept {
  if (liveBitmaps) *liveBitmaps = gLiveBitmaps.load(std::memory_order_relaxed);
  if (liveImageBytes) *liveImageBytes = gLiveBytes.load(std::memory_order_relaxed);
}

void* KaDibPixels(const BITMAPINFOHEADER* h) noexcept {
  if (!h) return nullptr;
  return const_cast<BYTE*>(reinterpret_cast<const BYTE*>(h) + sizeof(BITMAPINFOHEADER) +
                           tableBytes(*h));
}

LONG KaDibStride(const BITMAPINFOHEADER* h) noexcept {
  if (!h) return 0;
  const int type = KaGetPixelType(h);
  if (!isRgbType(type)) return 0;
  return defaultStride(typeInfo(type)->bitsPerPixel, h->biWidth);
}

BOOL KaVideo_IsCompressed(const BITMAPINFOHEADER* h) noexcept {
  if (!h) return TRUE;
  switch (h->biCompression) {
    case BI_RGB:
    case BI_BITFIELDS:
    case KA_BI_KADB:
    case KA_BI_KAGS:
      return KaGetPixelType(h) != 0 ? FALSE : TRUE;
    default:
      return TRUE;
  }
}

HRESULT KaVideo_GetFormatText(DWORD compression, KAWCHAR* text, int capacity) noexcept {
  if (!text) return E_POINTER;
  DWORD id = 0;
  const char* english = nullptr;
  switch (compression) {
    case BI_RGB:
      id = 6000;
      english = "RGB";
      break;
    case BI_BITFIELDS:
      id = 6001;
      english = "RGB (bitfields)";
      break;
    case KA_BI_KAGS:
      id = 6002;
      english = "Grayscale";
      break;
    case KA_BI_KADB:
      id = 6003;
      english = "RGBA";
      break;
    default:
      break;
  }
  KAWCHAR buf[64];
  const KAWCHAR* s = buf;
  if (id) {
    if (const KAWCHAR* loc = ostra::kernel::kernelString(id)) {
      s = loc;
    } else {
      int i = 0;
      for (; english[i]; ++i) buf[i] = KAWCHAR(english[i]);
      buf[i] = 0;
    }
  } else {
    // The four-character code as text; unprintable bytes would garble a listing.
    for (int i = 0; i < 4; ++i) {
      const BYTE c = BYTE(compression >> (8 * i));
      buf[i] = (c >= 0x20 && c < 0x7F) ? KAWCHAR(c) : u'?';
    }
    buf[4] = 0;
  }
  const size_t n = KaText_WideLength(s);
  if (capacity <= 0 || size_t(capacity) <= n) {
    if (capacity > 0) text[0] = 0;
    return E_INVALIDARG;
  }
  std::memcpy(text, s, (n + 1) * sizeof(KAWCHAR));
  return S_OK;
}

// The first and third bytes of each entry are exchanged and the fourth cleared; in and
// out may be the same array.
void KaVideo_PaletteRGBAFromEntry(void* out, const void* in, int count) noexcept {
  if (!out || !in) return;
  auto* o = static_cast<BYTE*>(out);
  const auto* s = static_cast<const BYTE*>(in);
  for (int i = 0; i < count; ++i) {
    const BYTE a = s[4 * i], b = s[4 * i + 1], c = s[4 * i + 2];
    o[4 * i] = c;
    o[4 * i + 1] = b;
    o[4 * i + 2] = a;
    o[4 * i + 3] = 0;
  }
}

void KaVideo_PaletteEntryFromRGBA(void* out, const void* in, int count) noexcept {
  KaVideo_PaletteRGBAFromEntry(out, in, count);
}

void KaDib_Initialize() noexcept {}
