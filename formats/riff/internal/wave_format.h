// The format checks and conversions shared by the wave set-up, insert and repair
// functions (wave.cpp, wave_repair.cpp).
#pragma once

#include "ostra/kaaudio.h"
#include "ostra/kaerror.h"

namespace ostra::riff::wave {

// Only the 18-byte record is ever written: extra bytes, 20-bit PCM and PCM whose block
// align disagrees with its channels and bits are refused.
inline HRESULT checkFormat(const WAVEFORMATEX* w) noexcept {
  if (!w) return E_INVALIDARG;
  if (w->cbSize != 0) return KAERR_UNSUPPORTED_FORMAT;
  if (w->wFormatTag == WAVE_FORMAT_PCM) {
    if (w->wBitsPerSample == 20) return KAERR_UNSUPPORTED_FORMAT;
    if (DWORD(w->nBlockAlign) != DWORD(w->nChannels) * (w->wBitsPerSample / 8u))
      return KAERR_UNSUPPORTED_FORMAT;
  }
  return S_OK;
}

// The record's plain 18-byte description, built in a buffer of the usual record size.
struct PlainFormat {
  alignas(8) BYTE buffer[KAWAVEFORMAT_BUFFER_SIZE];
  HRESULT hr;
  explicit PlainFormat(const _kawaveformat* k) noexcept : buffer{} {
    hr = !k ? E_INVALIDARG
         : KaAudio_GeneralCopyWfx(get(), sizeof buffer, k, KAWFCOPY_WFX) < 0
             ? KAERR_UNSUPPORTED_FORMAT
             : S_OK;
  }
  WAVEFORMATEX* get() noexcept { return reinterpret_cast<WAVEFORMATEX*>(buffer); }
};

}  // namespace ostra::riff::wave
