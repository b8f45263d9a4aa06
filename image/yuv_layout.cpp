// YUV plane layouts, the colour matrices and their selection by code and frame size.
#include <cstring>

#include "ostra/kayuv.h"

namespace {

constexpr KAYUVMATRIX kBt601 = {0.299,     0.587,     0.114,     -0.172552, -0.338864,
                                0.511416,  0.511416,  -0.428259, -0.083156, 1.370705,
                                -0.698160, -0.336419, 1.732446};
constexpr KAYUVMATRIX kBt709 = {0.2126,    0.7152,    0.0722,    -0.117216, -0.394199,
                                0.511416,  0.511416,  -0.464570, -0.046846, 1.539648,
                                -0.457651, -0.183119, 1.814180};
constexpr KAYUVMATRIX kBt2020 = {0.2627,    0.678,     0.0593,    -0.142787, -0.368628,
                                 0.511416,  0.511416,  -0.470298, -0.041118, 1.441685,
                                 -0.558646, -0.160926, 1.839404};

}  // namespace

const KAYUVMATRIX* KaYUV_SelectMatrix(int colourSpace, LONG width, LONG height) noexcept {
  switch (colourSpace) {
    case KAYUV_MATRIX_BT601:
      return &kBt601;
    case KAYUV_MATRIX_BT709:
      return &kBt709;
    case KAYUV_MATRIX_BT2020:
      return &kBt2020;
    default:
      // Standard-definition frames are BT.601, everything else BT.709.
      return (width >= 704 && width <= 720 && height < 720) ? &kBt601 : &kBt709;
  }
}

DWORD KaYUVImageBytesAndOffsets(const BITMAPINFOHEADER* h, KAYUVPLANES* planes) noexcept {
  if (planes) std::memset(planes, 0, sizeof(*planes));
  if (!h || h->biWidth < 0 || h->biHeight < 0) return 0;
  const uint64_t W = uint64_t(h->biWidth), H = uint64_t(h->biHeight);
  uint64_t Y = 0, C = 0, total = 0, cstride = 0, u = 0, v = 0, vstride = 0;
  switch (h->biCompression) {
    case KaFourCC('Y', 'U', 'Y', 'V'):
    case KaFourCC('U', 'Y', 'V', 'Y'):
      Y = 2 * W * H;
      total = Y;
      break;
    case KaFourCC('I', '4', '2', '0'):
    case KaFourCC('I', 'Y', 'U', 'V'):
    case KaFourCC('Y', 'V', '1', '2'):
    case KaFourCC('Y', 'V', '1', '6'):
    case KaFourCC('Y', '4', '1', 'B'): {
      const bool yv16 = h->biCompression == KaFourCC('Y', 'V', '1', '6');
      const bool y41b = h->biCompression == KaFourCC('Y', '4', '1', 'B');
      const bool vFirst = yv16 || h->biCompression == KaFourCC('Y', 'V', '1', '2');
      Y = W * H;
      // The 4:2:0 chroma plane is a quarter of the luma plane, not (W/2)*(H/2): for odd
      // sizes the two differ and the quarter is kept.
      C = yv16 ? (W / 2) * H : (W * H) / 4;
      cstride = vstride = y41b ? W / 4 : W / 2;
      u = vFirst ? Y + C : Y;
      v = vFirst ? Y : Y + C;
      total = Y + 2 * C;
      break;
    }
    case KaFourCC('N', 'V', '1', '2'):
      Y = W * H;
      C = (W * H) / 2;
      cstride = W;
      u = Y;
      total = Y + C;
      break;
    case KaFourCC('P', '0', '1', '0'):
    case KaFourCC('P', 'L', '1', '0'):
      Y = 2 * W * H;
      C = (H / 2) * W * 2;
      cstride = 2 * W;
      u = Y;
      total = Y + C;
      break;
    case KaFourCC('P', '2', '1', '0'):
      Y = 2 * W * H;
      C = (W / 2) * H * 4;
      cstride = (W / 2) * 4;
      u = Y;
      total = Y + C;
      break;
    case KaFourCC('P', '4', '1', '0'):
    case KaFourCC('A', '4', '1', '0'):
      Y = 2 * W * H;
      cstride = vstride = 2 * W;
      u = Y;
      v = 2 * Y;
      total = h->biCompression == KaFourCC('A', '4', '1', '0') ? 4 * Y : 3 * Y;
      break;
    case KaFourCC('v', '2', '1', '0'):
      Y = ((W + 47) / 48) * 128 * H;
      total = Y;
      break;
    default:
      return 0;
  }
  if (total > 0xFFFFFFFFu) return 0;
  if (planes) {
    planes->lumaStride = H ? DWORD(Y / H) : 0;
    planes->uOffset = DWORD(u);
    planes->chromaStride = DWORD(cstride);
    planes->vOffset = DWORD(v);
    planes->vStride = DWORD(vstride);
  }
  return DWORD(total);
}
