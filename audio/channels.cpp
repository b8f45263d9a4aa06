// Channel-level companions of the converters: copying, extracting, inserting, muting,
// swapping and averaging channels, filling and reversing buffers. Every value goes
// through the converter table so that the conversion rules hold for every type.
#include <algorithm>
#include <new>
#include <vector>

#include "audio/internal/layout.h"

using namespace ostra::audio;

namespace {

// Copies channel sc of src to channel dc of dest, converting between the layouts.
void copyChannel(const Layout& dl, uint8_t* d, int dc, const Layout& sl, const uint8_t* s, int sc,
                 DWORD frames, float gain) {
  stridedConvert(KaAudio_GetCopyFunction2(dl.type, sl.type), d + size_t(dc) * dl.bytes, dl.frame,
                 dl.bytes, s + size_t(sc) * sl.bytes, sl.frame, sl.bytes, frames, gain);
}

void muteChannel(const Layout& l, uint8_t* d, int c, DWORD frames) {
  uint8_t silent[8];
  silentSample(l.type, silent);
  for (DWORD f = 0; f < frames; ++f)
    std::memcpy(d + f * l.frame + size_t(c) * l.bytes, silent, l.bytes);
}

}  // namespace

HRESULT KaAudio_CopyChannels(const _kawaveformat* df, void* dest, const _kawaveformat* sf,
                             const void* src, DWORD frames, const int32_t* map,
                             float gain) noexcept {
  Layout dl, sl;
  HRESULT hr = layoutOf(df, &dl);
  if (SUCCEEDED(hr)) hr = layoutOf(sf, &sl);
  if (FAILED(hr)) return hr;
  if (frames == 0) return S_OK;
  if (!dest || !src) return E_POINTER;
  if (map)
    for (int c = 0; c < dl.channels; ++c)
      if (map[c] < -1 || map[c] >= sl.channels) return E_INVALIDARG;
  for (int c = 0; c < dl.channels; ++c) {
    const int from = map ? map[c] : (c < sl.channels ? c : -1);
    if (from < 0)
      muteChannel(dl, static_cast<uint8_t*>(dest), c, frames);
    else
      copyChannel(dl, static_cast<uint8_t*>(dest), c, sl, static_cast<const uint8_t*>(src), from,
                  frames, gain);
  }
  return S_OK;
}

HRESULT KaAudio_CopyChannelToChannel(const _kawaveformat* format, void* buffer, DWORD frames,
                                     WORD srcChannel, WORD destChannel, float gain) noexcept {
  Layout l;
  if (HRESULT hr = layoutOf(format, &l); FAILED(hr)) return hr;
  if (srcChannel >= l.channels || destChannel >= l.channels) return E_INVALIDARG;
  if (frames == 0) return S_OK;
  if (!buffer) return E_POINTER;
  auto* b = static_cast<uint8_t*>(buffer);
  copyChannel(l, b, destChannel, l, b, srcChannel, frames, gain);
  return S_OK;
}

HRESULT KaAudio_CopyChannelToAll(const _kawaveformat* format, void* buffer, DWORD frames,
                                 WORD srcChannel, float gain) noexcept {
  Layout l;
  if (HRESULT hr = layoutOf(format, &l); FAILED(hr)) return hr;
  if (srcChannel >= l.channels) return E_INVALIDARG;
  if (frames == 0) return S_OK;
  if (!buffer) return E_POINTER;
  auto* b = static_cast<uint8_t*>(buffer);
  for (int c = 0; c < l.channels; ++c)
    if (c != srcChannel) copyChannel(l, b, c, l, b, srcChannel, frames, gain);
  if (gain != 1.0f) copyChannel(l, b, srcChannel, l, b, srcChannel, frames, gain);
  return S_OK;
}

HRESULT KaAudio_ExtractChannel(const _kawaveformat* df, void* dest, const _kawaveformat* sf,
                               const void* src, DWORD frames, WORD channel, float gain) noexcept {
  Layout dl, sl;
  HRESULT hr = layoutOf(df, &dl);
  if (SUCCEEDED(hr)) hr = layoutOf(sf, &sl);
  if (FAILED(hr)) return hr;
  if (dl.channels != 1 || channel >= sl.channels) return E_INVALIDARG;
  if (frames == 0) return S_OK;
  if (!dest || !src) return E_POINTER;
  copyChannel(dl, static_cast<uint8_t*>(dest), 0, sl, static_cast<const uint8_t*>(src), channel,
              frames, gain);
  return S_OK;
}

HRESULT KaAudio_InsertChannel(const _kawaveformat* df, void* dest, WORD channel,
                              const _kawaveformat* sf, const void* src, DWORD frames,
                              float gain) noexcept {
  Layout dl, sl;
  HRESULT hr = layoutOf(df, &dl);
  if (SUCCEEDED(hr)) hr = layoutOf(sf, &sl);
  if (FAILED(hr)) return hr;
  if (sl.channels != 1 || channel >= dl.channels) return E_INVALIDARG;
  if (frames == 0) return S_OK;
  if (!dest || !src) return E_POINTER;
  copyChannel(dl, static_cast<uint8_t*>(dest), channel, sl, static_cast<const uint8_t*>(src), 0,
              frames, gain);
  return S_OK;
}

HRESULT KaAudio_FillWithSample(const _kawaveformat* format, void* buffer, DWORD frames,
                               double value) noexcept {
  Layout l;
  if (HRESULT hr = layoutOf(format, &l); FAILED(hr)) return hr;
  if (frames == 0) return S_OK;
  if (!buffer) return E_POINTER;
  uint8_t one[8];
  KaAudio_GetCopyFunction2(l.type, KASAMPLE_FLOAT64)(one, &value, 1, 1.0f);
  auto* b = static_cast<uint8_t*>(buffer);
  const size_t total = size_t(frames) * l.channels;
  for (size_t i = 0; i < total; ++i) std::memcpy(b + i * l.bytes, one, l.bytes);
  return S_OK;
}

HRESULT KaAudio_Reverse(const _kawaveformat* format, void* buffer, DWORD frames) noexcept {
  Layout l;
  if (HRESULT hr = layoutOf(format, &l); FAILED(hr)) return hr;
  if (frames < 2) return S_OK;
  if (!buffer) return E_POINTER;
  return guarded([&] {
    std::vector<uint8_t> tmp(l.frame);
    auto* b = static_cast<uint8_t*>(buffer);
    for (size_t i = 0, j = frames - 1; i < j; ++i, --j) {
      std::memcpy(tmp.data(), b + i * l.frame, l.frame);
      std::memcpy(b + i * l.frame, b + j * l.frame, l.frame);
      std::memcpy(b + j * l.frame, tmp.data(), l.frame);
    }
    return S_OK;
  });
}

HRESULT KaAudio_SwapStereoChannels(const _kawaveformat* format, void* buffer,
                                   DWORD frames) noexcept {
  Layout l;
  if (HRESULT hr = layoutOf(format, &l); FAILED(hr)) return hr;
  if (l.channels < 2) return E_INVALIDARG;
  if (frames == 0) return S_OK;
  if (!buffer) return E_POINTER;
  auto* b = static_cast<uint8_t*>(buffer);
  uint8_t t[8];
  for (DWORD f = 0; f < frames; ++f) {
    uint8_t* p = b + size_t(f) * l.frame;
    std::memcpy(t, p, l.bytes);
    std::memmove(p, p + l.bytes, l.bytes);
    std::memcpy(p + l.bytes, t, l.bytes);
  }
  return S_OK;
}

HRESULT KaAudio_MonoChannel(const _kawaveformat* format, void* buffer, DWORD frames) noexcept {
  Layout l;
  if (HRESULT hr = layoutOf(format, &l); FAILED(hr)) return hr;
  if (frames == 0) return S_OK;
  if (!buffer) return E_POINTER;
  return guarded([&] {
    const CopyFn toDouble = KaAudio_GetCopyFunction2(KASAMPLE_FLOAT64, l.type);
    const CopyFn fromDouble = KaAudio_GetCopyFunction2(l.type, KASAMPLE_FLOAT64);
    const DWORD chunk = std::max<DWORD>(1, 4096 / l.channels);
    std::vector<double> v(size_t(chunk) * l.channels);
    auto* b = static_cast<uint8_t*>(buffer);
    for (DWORD f = 0; f < frames;) {
      const DWORD k = std::min(chunk, frames - f);
      const int32_t n = int32_t(k * l.channels);
      uint8_t* at = b + size_t(f) * l.frame;
      toDouble(v.data(), at, n, 1.0f);
      for (DWORD j = 0; j < k; ++j) {
        double* frame = v.data() + size_t(j) * l.channels;
        double sum = 0;
        for (int c = 0; c < l.channels; ++c) sum += frame[c];
        std::fill(frame, frame + l.channels, sum / l.channels);
      }
      fromDouble(at, v.data(), n, 1.0f);
      f += k;
    }
    return S_OK;
  });
}

HRESULT KaAudio_MuteChannel(const _kawaveformat* format, void* buffer, DWORD frames,
                            WORD channel) noexcept {
  Layout l;
  if (HRESULT hr = layoutOf(format, &l); FAILED(hr)) return hr;
  if (channel >= l.channels) return E_INVALIDARG;
  if (frames == 0) return S_OK;
  if (!buffer) return E_POINTER;
  muteChannel(l, static_cast<uint8_t*>(buffer), channel, frames);
  return S_OK;
}
