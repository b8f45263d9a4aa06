// BMP files: a bounded reader that turns a file image into a packed bottom-up bitmap of
// the model, and the writer (file header + packed bitmap). The reader trusts nothing: every
// offset and size is checked against the bytes really there before anything is allocated.
#include <cstring>
#include <memory>
#include <new>

#include "image/internal/pixel.h"
#include "ostra/kaerror.h"
#include "ostra/kaplatform.h"

namespace ostra::image {
namespace {

constexpr size_t kFileHeader = 14;
// Larger files are refused before reading: no bitmap of the model exceeds 4 GB of pixels.
constexpr UINT64 kMaxFile = 0xFFFFFFFFull + 65536;

inline DWORD rd32(const BYTE* p) {
  DWORD v;
  std::memcpy(&v, p, 4);
  return v;
}
inline WORD rd16(const BYTE* p) { return WORD(p[0] | (p[1] << 8)); }

HRESULT parse(const BYTE* data, size_t size, BITMAPINFOHEADER** out) {
  if (size < kFileHeader + 4 || data[0] != 'B' || data[1] != 'M') return KAERR_CORRUPT_FILE;
  const DWORD offBits = rd32(data + 10);
  const DWORD infoSize = rd32(data + kFileHeader);
  if (infoSize != 40 && infoSize != 52 && infoSize != 56 && infoSize != 108 && infoSize != 124)
    return KAERR_UNSUPPORTED_FORMAT;
  if (size - kFileHeader < infoSize) return KAERR_CORRUPT_FILE;
  const BYTE* ih = data + kFileHeader;
  // The header plus the masks a 40-byte BI_BITFIELDS header keeps after itself.
  alignas(4) BYTE hdr[sizeof(BITMAPINFOHEADER) + 12] = {};
  std::memcpy(hdr, ih, sizeof(BITMAPINFOHEADER));
  auto* h = reinterpret_cast<BITMAPINFOHEADER*>(hdr);
  size_t tableAt = kFileHeader + infoSize;
  if (h->biCompression == BI_BITFIELDS) {
    if (infoSize == 40) {
      if (size - tableAt < 12) return KAERR_CORRUPT_FILE;
      std::memcpy(hdr + 40, data + tableAt, 12);
      tableAt += 12;
    } else {
      std::memcpy(hdr + 40, ih + 40, 12);
    }
  } else if (h->biCompression != BI_RGB && h->biCompression != KA_BI_KADB &&
             h->biCompression != KA_BI_KAGS) {
    return KAERR_UNSUPPORTED_FORMAT;  // run-length and embedded compressed images
  }
  if (h->biPlanes != 1 || h->biWidth <= 0 || h->biHeight == 0 || h->biHeight == INT32_MIN)
    return KAERR_CORRUPT_FILE;
  const int type = KaGetPixelType(h);
  if (!isRgbType(type)) return KAERR_UNSUPPORTED_FORMAT;
  const bool topDown = h->biHeight < 0;
  const LONG width = h->biWidth, height = topDown ? -h->biHeight : h->biHeight;
  const TypeInfo& info = *typeInfo(type);

  // Colour table: palettised types only; 0 entries means the full table.
  int count = 0;
  const RGBQUAD* table = nullptr;
  alignas(4) RGBQUAD tableCopy[256];
  if (info.flags & KAPIXATTR_PALETTE) {
    const DWORD full = 1u << info.bitsPerPixel;
    DWORD n = h->biClrUsed == 0 ? full : h->biClrUsed;
    if (n > full) n = full;
    if (tableAt > size || (size - tableAt) / 4 < n) return KAERR_CORRUPT_FILE;
    std::memcpy(tableCopy, data + tableAt, size_t(n) * 4);
    table = tableCopy;
    count = int(n);
  }
  const uint64_t stride = ((uint64_t(info.bitsPerPixel) * uint64_t(width) + 31) / 8) & ~uint64_t(3);
  const uint64_t bytes = stride * uint64_t(height);
  if (bytes > 0xFFFFFFFFu) return KAERR_UNSUPPORTED_FORMAT;
  if (offBits < kFileHeader + infoSize || offBits > size || size - offBits < bytes)
    return KAERR_CORRUPT_FILE;

  BITMAPINFOHEADER* bmp = nullptr;
  const HRESULT hr = KaDibAlloc(&bmp, type, width, height, table, count, 0, 0);
  if (FAILED(hr)) return hr;
  if (!table && bmp->biCompression != BI_BITFIELDS)
    std::memset(bmp + 1, 0, size_t(bmp->biClrUsed) * 4);
  bmp->biXPelsPerMeter = h->biXPelsPerMeter;
  bmp->biYPelsPerMeter = h->biYPelsPerMeter;
  BYTE* pixels = static_cast<BYTE*>(KaDibPixels(bmp));
  const BYTE* src = data + offBits;
  for (LONG y = 0; y < height; ++y) {
    const LONG from = topDown ? height - 1 - y : y;
    std::memcpy(pixels + size_t(y) * stride, src + size_t(from) * stride, size_t(stride));
  }
  *out = bmp;
  return S_OK;
}

}  // namespace
}  // namespace ostra::image

using namespace ostra::image;

HRESULT KaDib_ReadBmpMemory(const void* data, size_t size, BITMAPINFOHEADER** bitmap) noexcept {
  if (!bitmap) return E_POINTER;
  *bitmap = nullptr;
  if (!data) return E_POINTER;
  return parse(static_cast<const BYTE*>(data), size, bitmap);
}

HRESULT KaDib_ReadBmpFile(const KAWCHAR* path, BITMAPINFOHEADER** bitmap) noexcept {
  if (!bitmap) return E_POINTER;
  *bitmap = nullptr;
  if (!path) return E_POINTER;
  KAHFILE f = KA_INVALID_HFILE;
  HRESULT hr = KaFile_Open(path, GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING,
                           FILE_FLAG_SEQUENTIAL_SCAN, &f);
  if (FAILED(hr)) return hr;
  UINT64 size = 0;
  hr = KaFile_GetSize(f, &size);
  if (SUCCEEDED(hr) && size > kMaxFile) hr = KAERR_UNSUPPORTED_FORMAT;
  std::unique_ptr<BYTE[]> buf;
  if (SUCCEEDED(hr)) {
    buf.reset(new (std::nothrow) BYTE[size ? size : 1]);
    if (!buf) hr = E_OUTOFMEMORY;
  }
  UINT64 done = 0;
  while (SUCCEEDED(hr) && done < size) {
    const DWORD want = DWORD(size - done > 0x40000000 ? 0x40000000 : size - done);
    DWORD got = 0;
    hr = KaFile_Read(f, buf.get() + done, want, &got);
    if (SUCCEEDED(hr) && got == 0) hr = KAERR_READ_FAILED;
    done += got;
  }
  KaFile_Close(f);
  if (FAILED(hr)) return hr;
  return parse(buf.get(), size_t(size), bitmap);
}

HRESULT KaDib_WriteBmpFile(const KAWCHAR* path, const BITMAPINFOHEADER* h,
                           const void* pixels) noexcept {
  if (!path || !h) return E_POINTER;
  const int type = KaGetPixelType(h);
  if (!isRgbType(type) || h->biWidth <= 0 || h->biHeight <= 0) return E_INVALIDARG;
  const uint64_t stride = uint64_t(defaultStride(typeInfo(type)->bitsPerPixel, h->biWidth));
  const uint64_t bytes = stride * uint64_t(h->biHeight);
  const uint64_t headerBytes = sizeof(BITMAPINFOHEADER) + tableBytes(*h);
  if (stride == 0 || kFileHeader + headerBytes + bytes > 0xFFFFFFFFu) return E_INVALIDARG;
  BITMAPINFOHEADER out = *h;
  out.biSize = sizeof(BITMAPINFOHEADER);
  out.biSizeImage = DWORD(bytes);
  BITMAPFILEHEADER fh{};
  fh.bfType = 0x4D42;
  fh.bfOffBits = DWORD(kFileHeader + headerBytes);
  fh.bfSize = DWORD(fh.bfOffBits + bytes);
  if (!pixels) pixels = KaDibPixels(h);

  KAHFILE f = KA_INVALID_HFILE;
  HRESULT hr = KaFile_Open(path, GENERIC_WRITE, 0, CREATE_ALWAYS, 0, &f);
  if (FAILED(hr)) return hr;
  DWORD written = 0;
  hr = KaFile_Write(f, &fh, sizeof fh, &written);
  if (SUCCEEDED(hr)) hr = KaFile_Write(f, &out, sizeof out, &written);
  if (SUCCEEDED(hr) && headerBytes > sizeof out)
    hr = KaFile_Write(f, h + 1, DWORD(headerBytes - sizeof out), &written);
  const BYTE* p = static_cast<const BYTE*>(pixels);
  for (uint64_t done = 0; SUCCEEDED(hr) && done < bytes;) {
    const DWORD n = DWORD(bytes - done > 0x40000000 ? 0x40000000 : bytes - done);
    hr = KaFile_Write(f, p + done, n, &written);
    done += n;
  }
  KaFile_Close(f);
  if (FAILED(hr)) KaFile_Delete(path);
  return hr;
}

BITMAPINFOHEADER* displist_CreateBitmapFromFile(const KAWCHAR* path) noexcept {
  BITMAPINFOHEADER* bmp = nullptr;
  return SUCCEEDED(KaDib_ReadBmpFile(path, &bmp)) ? bmp : nullptr;
}
