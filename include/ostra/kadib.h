// Packed device-independent bitmaps: the pixel-type numbering every image routine
// dispatches on, headers and allocation, single-pixel access through the common pixel
// value, the whole-image operations (swap, flip, copy, fill, premultiply) and BMP files.
//
// A packed bitmap is a BITMAPINFOHEADER followed by three colour masks (BI_BITFIELDS)
// or biClrUsed colour-table entries, then the pixels. Rows are stored bottom-up; the
// stride of every non-YUV type is ((bits per pixel * width + 31) / 8) & ~3 bytes.
#pragma once

#include "ostra/kadefs.h"

#ifndef OSTRA_HAVE_BITMAP_TYPES
#define OSTRA_HAVE_BITMAP_TYPES 1
#define BI_RGB 0u
#define BI_RLE8 1u
#define BI_RLE4 2u
#define BI_BITFIELDS 3u

struct BITMAPINFOHEADER {
  DWORD biSize;
  LONG biWidth;
  LONG biHeight;
  WORD biPlanes;
  WORD biBitCount;
  DWORD biCompression;
  DWORD biSizeImage;
  LONG biXPelsPerMeter;
  LONG biYPelsPerMeter;
  DWORD biClrUsed;
  DWORD biClrImportant;
};
static_assert(sizeof(BITMAPINFOHEADER) == 40, "the bitmap header is 40 bytes");

struct RGBQUAD {
  BYTE rgbBlue;
  BYTE rgbGreen;
  BYTE rgbRed;
  BYTE rgbReserved;
};

#pragma pack(push, 2)
struct BITMAPFILEHEADER {
  WORD bfType;  // "BM"
  DWORD bfSize;
  WORD bfReserved1;
  WORD bfReserved2;
  DWORD bfOffBits;
};
#pragma pack(pop)
static_assert(sizeof(BITMAPFILEHEADER) == 14, "the BMP file header is 14 bytes");

struct RECT {
  LONG left;
  LONG top;
  LONG right;
  LONG bottom;
};
#endif

// The two private compression codes.
#define KA_BI_KADB KaFourCC('K', 'A', 'D', 'B')  // deep RGBA: 8, 16 or 32 (float) bits per channel
#define KA_BI_KAGS KaFourCC('K', 'A', 'G', 'S')  // grey scale, 1 to 32 bits

// Pixel types. The numbers are part of the interface: tables are indexed by them.
enum KAPIXELTYPE : int {
  KAPT_NONE = 0,
  KAPT_PAL1 = 16,   // 1-bit palettised
  KAPT_GREY1 = 17,  // "KAGS" 1, 2, 4, 8, 16 bits; 32 bits is a float
  KAPT_GREY2 = 18,
  KAPT_GREY4 = 19,
  KAPT_GREY8 = 20,
  KAPT_GREY16 = 21,
  KAPT_GREY32F = 22,
  KAPT_PAL4 = 23,    // 4-bit palettised
  KAPT_PAL8 = 24,    // 8-bit palettised
  KAPT_RGB555 = 25,  // bit 15 is a one-bit alpha
  KAPT_RGB565 = 26,
  KAPT_BGR24 = 27,
  KAPT_BGRX32 = 28,    // B, G, R and a fourth byte carried as alpha
  KAPT_BGRA32 = 29,    // "KADB" 8-bit RGBA
  KAPT_RGB10A2 = 30,   // red in bits 20-29, green 10-19, blue 0-9, alpha 30-31
  KAPT_BGRA64 = 31,    // "KADB" 16-bit B, G, R, A words
  KAPT_BGRA128F = 32,  // "KADB" float B, G, R, A
  KAPT_BGR10A2 = 33,   // red in bits 0-9, green 10-19, blue 20-29, alpha 30-31
  KAPT_UYVY = 64,
  KAPT_YUYV = 65,
  KAPT_Y41B = 66,
  KAPT_I420 = 67,
  KAPT_V210 = 68,
  KAPT_P010 = 69,
  KAPT_PL10 = 70,
  KAPT_P210 = 71,
  KAPT_P410 = 72,
  KAPT_NV12 = 73,
  KAPT_YV12 = 74,
  KAPT_YV16 = 75,
  KAPT_A410 = 76,
};

// The common pixel value every pixel-exchange routine reads and writes. Channels are
// doubles: integer channels are normalised to 0..1 (stored / (2^bits - 1)), float
// channels are carried unchanged, so no type loses anything on the way through. Grey
// types read as b = g = r; palettised types read as the table colour and also give the
// index, which a write to a palettised type uses when the destination table holds that
// very colour at that index (otherwise the nearest table colour is chosen).
struct KAPIXEL {
  double b;
  double g;
  double r;
  double a;
  LONG index;  // -1 when the pixel did not come from a colour table
  LONG reserved;
};

// Attribute block of KaPixelTypeToBitAttribs (64 bytes).
#define KAPIXATTR_PALETTE 0x1u
#define KAPIXATTR_GREY 0x2u
#define KAPIXATTR_FLOAT 0x4u
#define KAPIXATTR_ALPHA 0x8u
#define KAPIXATTR_YUV 0x10u
struct KAPIXELATTRIBS {
  DWORD cbSize;  // 64
  DWORD bitsPerPixel;
  DWORD compression;
  DWORD flags;          // KAPIXATTR_*
  BYTE channelBits[4];  // as KaGetPixelBitsPerChannel
  DWORD masks[4];       // red, green, blue, alpha (packed types), else 0
  DWORD reserved[7];
};
static_assert(sizeof(KAPIXELATTRIBS) == 64, "the attribute block is 64 bytes");

// KaDibAlloc flags and KaDibFlip directions.
#define KADIB_ZEROINIT 0x1
#define KADIB_FLIP_VERTICAL 0x1u
#define KADIB_FLIP_HORIZONTAL 0x2u

// ---------------------------------------------------------------- the model
OSTRA_API int KaGetPixelType(const BITMAPINFOHEADER* header) noexcept;
// Bits per pixel of the type and the four channel bit counts (zeros for unknown types).
OSTRA_API int KaGetPixelBitsPerChannel(int type, BYTE channelBits[4]) noexcept;
// Bits per pixel and compression of the type; masks (red, green, blue) for BI_BITFIELDS
// types. An attribute block smaller than 64 bytes gives 0.
OSTRA_API int KaPixelTypeToBitAttribs(int type, DWORD* compression, KAPIXELATTRIBS* attribs,
                                      DWORD attribsSize, DWORD masks[3]) noexcept;
// Builds a header for the type. `header` must have room for the masks (12 bytes) or the
// colour table (count * 4 bytes) that follow it.
OSTRA_API HRESULT KaVideo_InitBitmapInfo(BITMAPINFOHEADER* header, int type, LONG width,
                                         LONG height, const RGBQUAD* table, int count,
                                         DWORD* imageSize) noexcept;
// As KaVideo_InitBitmapInfo, also giving the header size (52 for BI_BITFIELDS, else
// 40 + 4 * biClrUsed).
OSTRA_API HRESULT KaDibInfo(DWORD* headerSize, DWORD* imageSize, BITMAPINFOHEADER* header, int type,
                            LONG width, LONG height, const RGBQUAD* table, int count) noexcept;
// One locked global-memory block holding header, table or masks and pixels.
OSTRA_API HRESULT KaDibAlloc(BITMAPINFOHEADER** bitmap, int type, LONG width, LONG height,
                             const RGBQUAD* table, int count, LONG flags, DWORD_PTR tag) noexcept;
// Releases a bitmap from KaDibAlloc (or from the BMP reader). A negative mode first checks
// that the address is a global-memory block and otherwise does nothing.
OSTRA_API HRESULT KaDibFree(BITMAPINFOHEADER* bitmap, int mode) noexcept;
// The live bitmaps of KaDibAlloc and the sum of their biSizeImage.
OSTRA_API void KaDibGetAllocStats(UINT64* liveBitmaps, UINT64* liveImageBytes) noexcept;
// The colour table (BI_RGB) or masks (BI_BITFIELDS) after the header, and the pixels
// that follow them in a packed bitmap.
OSTRA_API void* KaDibPixels(const BITMAPINFOHEADER* header) noexcept;
// The stride of a non-YUV header ((bits * width + 31) / 8 rounded down to 4), 0 if none.
OSTRA_API LONG KaDibStride(const BITMAPINFOHEADER* header) noexcept;

// Single pixels, (0, 0) being the top-left one. A null `pixels` takes the pixels after the
// header and its table; a zero stride takes the default.
OSTRA_API HRESULT KaDibGetPixel(const BITMAPINFOHEADER* header, const void* pixels, LONG stride,
                                LONG x, LONG y, KAPIXEL* value) noexcept;
OSTRA_API HRESULT KaDibSetPixel(const BITMAPINFOHEADER* header, void* pixels, LONG stride, LONG x,
                                LONG y, const KAPIXEL* value) noexcept;

OSTRA_API BOOL KaVideo_IsCompressed(const BITMAPINFOHEADER* header) noexcept;
// Display text of a compression code; E_INVALIDARG when `capacity` cannot hold it.
OSTRA_API HRESULT KaVideo_GetFormatText(DWORD compression, KAWCHAR* text, int capacity) noexcept;
OSTRA_API void KaVideo_PaletteRGBAFromEntry(void* out, const void* in, int count) noexcept;
OSTRA_API void KaVideo_PaletteEntryFromRGBA(void* out, const void* in, int count) noexcept;
OSTRA_API void KaDib_Initialize() noexcept;

// ---------------------------------------------------------------- whole images
// Types 23-33. Stride 0 takes the default; a null rectangle is the whole image, any other
// is intersected with it (top-down coordinates, right and bottom exclusive). An empty
// intersection returns S_OK without work. Rows run in parallel; the result does not
// depend on the thread count.
OSTRA_API HRESULT KaDibSwapRB(const BITMAPINFOHEADER* header, void* pixels, LONG stride,
                              const RECT* rect) noexcept;
// Mirrors the rectangle top to bottom (KADIB_FLIP_VERTICAL) and/or left to right.
OSTRA_API HRESULT KaDibFlip(const BITMAPINFOHEADER* header, void* pixels, LONG stride,
                            const RECT* rect, DWORD directions) noexcept;
// Copies the source rectangle (null: whole source) to (dx, dy) of the destination,
// converting between any two types 23-33 through the common pixel value. The part that
// falls outside the destination is clipped. Source and destination must not overlap.
OSTRA_API HRESULT KaDibCopy(const BITMAPINFOHEADER* dstHeader, void* dst, LONG dstStride, LONG dx,
                            LONG dy, const BITMAPINFOHEADER* srcHeader, const void* src,
                            LONG srcStride, const RECT* srcRect) noexcept;
OSTRA_API HRESULT KaDibFill(const BITMAPINFOHEADER* header, void* pixels, LONG stride,
                            const RECT* rect, const KAPIXEL* colour) noexcept;
// Alpha premultiplication for the types with a real alpha channel (29, 30, 31, 32, 33);
// the others give E_NOTIMPL. Integer channels round to nearest; unpremultiplying a pixel
// of alpha 0 gives black.
OSTRA_API HRESULT KaDibPremultiply(const BITMAPINFOHEADER* header, void* pixels, LONG stride,
                                   const RECT* rect) noexcept;
OSTRA_API HRESULT KaDibUnpremultiply(const BITMAPINFOHEADER* header, void* pixels, LONG stride,
                                     const RECT* rect) noexcept;

// ---------------------------------------------------------------- BMP files
// Parses a BMP file image (bounded: every size is checked against `size`) into a packed
// bottom-up bitmap from KaDibAlloc's allocator; release it with KaDibFree.
OSTRA_API HRESULT KaDib_ReadBmpMemory(const void* data, size_t size,
                                      BITMAPINFOHEADER** bitmap) noexcept;
OSTRA_API HRESULT KaDib_ReadBmpFile(const KAWCHAR* path, BITMAPINFOHEADER** bitmap) noexcept;
// Writes file header + packed bitmap. A null `pixels` takes the pixels after the table.
OSTRA_API HRESULT KaDib_WriteBmpFile(const KAWCHAR* path, const BITMAPINFOHEADER* header,
                                     const void* pixels) noexcept;
// The packed bitmap of a BMP file in global memory, null on failure; free with KaDibFree.
OSTRA_API BITMAPINFOHEADER* displist_CreateBitmapFromFile(const KAWCHAR* path) noexcept;
