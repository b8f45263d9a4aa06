// YUV frames: plane layouts of the YUV pixel types, the colour matrices and their
// selection, packed 4:2:2 to RGB conversion, the general conversions between 32-bit BGRA
// bitmaps and the 8- and 10-bit layouts, and the broadcast-safe colour checks.
//
// Range: the kernel converts at studio level. Luma is used as it stands (no 16 is
// subtracted, nothing is expanded), so Y = 235 with neutral chroma is RGB 235 and RGB
// 16..235 maps to Y 16..235; chroma is centred on 128 (512 at 10 bits) and carries the
// 224/219 ratio of the matrices.
#pragma once

#include "ostra/kadefs.h"
#include "ostra/kadib.h"

// Plane description filled by KaYUVImageBytesAndOffsets.
struct KAYUVPLANES {
  DWORD lumaStride;
  DWORD uOffset;  // or of the interleaved chroma plane
  DWORD chromaStride;
  DWORD vOffset;
  DWORD vStride;  // 0 for interleaved chroma
};

// Total image bytes of the YUV layout named by biCompression, 0 for other codes or
// sizes beyond 32 bits. `planes` (optional) is zeroed first.
OSTRA_API DWORD KaYUVImageBytesAndOffsets(const BITMAPINFOHEADER* header,
                                          KAYUVPLANES* planes) noexcept;

// Colour matrices: luma weights, the Cb and Cr rows (weights of R, G, B), and the
// inverse terms R from Cr, G from Cr, G from Cb, B from Cb.
struct KAYUVMATRIX {
  double kr, kg, kb;
  double cbR, cbG, cbB;
  double crR, crG, crB;
  double rFromCr, gFromCr, gFromCb, bFromCb;
};
#define KAYUV_MATRIX_AUTO 0  // by frame size: BT.601 for 704..720 x below 720, else BT.709
#define KAYUV_MATRIX_BT601 1
#define KAYUV_MATRIX_BT709 2
#define KAYUV_MATRIX_BT2020 3
// The matrix for a colour-space code (1, 2, 3; any other code chooses by size).
OSTRA_API const KAYUVMATRIX* KaYUV_SelectMatrix(int colourSpace, LONG width, LONG height) noexcept;

// Packed "UYVY" (rows of 2 * width bytes, one after another) to B, G, R, 255 pixels
// (KaUYVY2RGBA) or B, G, R (KaUYVY2RGB), in 12-bit fixed point. Each destination row
// starts `dstStride` bytes after the previous one; a negative stride walks upwards.
OSTRA_API HRESULT KaUYVY2RGBA(void* dst, const void* src, LONG dstStride, LONG width, LONG height,
                              int colourSpace) noexcept;
OSTRA_API HRESULT KaUYVY2RGB(void* dst, const void* src, LONG dstStride, LONG width, LONG height,
                             int colourSpace) noexcept;

// General conversions between a 32-bit BGRA bitmap (bytes B, G, R, A; rows `rgbStride`
// bytes apart, first row first, negative strides allowed) and a frame of one of the
// layouts "UYVY", "YUYV", "I420", "IYUV", "YV12", "YV16", "NV12", "P010", "P210", "v210"
// (size and planes as KaYUVImageBytesAndOffsets gives them; `yuvBytes` is checked against
// that). The width must be even. Alpha is written as 255 and ignored on the way in.
// Chroma is shared by neighbouring pixels on the way out and averaged on the way in;
// rounding is to nearest. Details in the image documentation.
OSTRA_API HRESULT KaYUV_YUVToRGB(void* rgb, LONG rgbStride, const void* yuv, size_t yuvBytes,
                                 DWORD fourcc, LONG width, LONG height, int colourSpace) noexcept;
OSTRA_API HRESULT KaYUV_RGBToYUV(void* yuv, size_t yuvBytes, DWORD fourcc, const void* rgb,
                                 LONG rgbStride, LONG width, LONG height, int colourSpace) noexcept;

// Broadcast-safe colour checks. A pixel is blue, green, red in 0..1.
struct KAHOTPIXEL {
  double b, g, r;
};
OSTRA_API int HotCheckNTSCYIQ(const KAHOTPIXEL* pixel) noexcept;
OSTRA_API int HotCheckNTSCYUV(const KAHOTPIXEL* pixel) noexcept;
OSTRA_API int HotCheckPALYUV(const KAHOTPIXEL* pixel) noexcept;
// 0 when legal (pixel untouched), otherwise 1 with the pixel replaced by a legal colour.
OSTRA_API int HotCheckNTSCYIQReturn(KAHOTPIXEL* pixel) noexcept;
OSTRA_API int HotCheckNTSCYUVReturn(KAHOTPIXEL* pixel) noexcept;
OSTRA_API int HotCheckPALYUVReturn(KAHOTPIXEL* pixel) noexcept;
