// Validation of a typed record for the channel and level functions, and a strided
// converter that moves one channel at a time through the converter table. Plain code
// only (channels.cpp, levels.cpp).
#pragma once

#include <algorithm>
#include <cstring>
#include <new>

#include "audio/internal/tables.h"

namespace ostra::audio {

// Runs an exported function's body so that no exception leaves the library.
template <class F>
HRESULT guarded(F f) noexcept {
  try {
    return f();
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  } catch (...) {
    return E_FAIL;
  }
}

struct Layout {
  KASAMPLETYPE type;
  int bytes;  // per sample
  int channels;
  size_t frame;  // bytes per frame
};

inline HRESULT layoutOf(const _kawaveformat* f, Layout* out) {
  if (!f) return E_POINTER;
  if (f->IsCompressed() || convertIndex(f->SampleType) < 0) return E_NOTIMPL;
  const int bytes = KaAudio_BytesFromSampleType(f->SampleType);
  if (f->nChannels == 0 || f->nBlockAlign != bytes * f->nChannels) return E_INVALIDARG;
  *out = {f->SampleType, bytes, f->nChannels, size_t(f->nBlockAlign)};
  return S_OK;
}

// Converts `frames` samples spaced by the given strides, through small contiguous
// staging buffers. The strided ranges must not overlap each other.
inline void stridedConvert(CopyFn fn, uint8_t* d, size_t dStride, int db, const uint8_t* s,
                           size_t sStride, int sb, DWORD frames, float gain) {
  constexpr DWORD kChunk = 256;
  alignas(32) uint8_t in[kChunk * 8], out[kChunk * 8];
  for (DWORD f = 0; f < frames;) {
    const DWORD k = std::min(kChunk, frames - f);
    for (DWORD j = 0; j < k; ++j) std::memcpy(in + j * sb, s + size_t(f + j) * sStride, sb);
    fn(out, in, int32_t(k), gain);
    for (DWORD j = 0; j < k; ++j) std::memcpy(d + size_t(f + j) * dStride, out + j * db, db);
    f += k;
  }
}

// The bytes of one silent sample.
inline void silentSample(KASAMPLETYPE t, uint8_t* out) {
  std::memset(out, t == KASAMPLE_PCM8 ? 0x80 : 0, 8);
}

}  // namespace ostra::audio
