// Channel matrices (KaAudio_MixEx, KaAudio_ChannelChange) and level measurement
// (KaAudio_CalcRMS, KaAudio_FindPeaks, KaAudio_GetNormalizeFactor). Samples are read
// through the converters into double precision, in chunks, so every type behaves alike.
#include <cmath>
#include <new>
#include <vector>

#include "audio/internal/layout.h"

using namespace ostra::audio;

namespace {

constexpr DWORD kChunkSamples = 4096;

// Calls visit(values, frames) with the buffer's samples as normalised doubles, a chunk
// of whole frames at a time.
template <class Visit>
void forEachChunk(const Layout& l, const void* buffer, DWORD frames, Visit visit) {
  const CopyFn toDouble = KaAudio_GetCopyFunction2(KASAMPLE_FLOAT64, l.type);
  const DWORD chunk = std::max<DWORD>(1, kChunkSamples / l.channels);
  std::vector<double> v(size_t(chunk) * l.channels);
  const auto* b = static_cast<const uint8_t*>(buffer);
  for (DWORD f = 0; f < frames;) {
    const DWORD k = std::min(chunk, frames - f);
    toDouble(v.data(), b + size_t(f) * l.frame, int32_t(k * l.channels), 1.0f);
    visit(v.data(), f, k);
    f += k;
  }
}

HRESULT mixMatrix(const Layout& dl, void* dest, const Layout& sl, const void* src, DWORD frames,
                  const double* matrix) {
  const KAAUDIO_MIXFUNCTION add = KaAudio_GetMixFunction2(dl.type, KASAMPLE_FLOAT64);
  if (!add) return E_NOTIMPL;  // big-endian destinations have no mixers
  const double unity = 1.0;
  std::vector<double> mixed;
  auto* d = static_cast<uint8_t*>(dest);
  forEachChunk(sl, src, frames, [&](const double* in, DWORD first, DWORD k) {
    mixed.assign(size_t(k) * dl.channels, 0.0);
    for (DWORD j = 0; j < k; ++j) {
      const double* frame = in + size_t(j) * sl.channels;
      double* out = mixed.data() + size_t(j) * dl.channels;
      for (int dc = 0; dc < dl.channels; ++dc) {
        const double* row = matrix + size_t(dc) * sl.channels;
        double sum = 0;
        for (int sc = 0; sc < sl.channels; ++sc) sum += row[sc] * frame[sc];
        out[dc] = sum;
      }
    }
    add(d + size_t(first) * dl.frame, mixed.data(), int32_t(k * dl.channels), 1, &unity);
  });
  return S_OK;
}

}  // namespace

HRESULT KaAudio_MixEx(const _kawaveformat* df, void* dest, const _kawaveformat* sf, const void* src,
                      DWORD frames, const double* matrix) noexcept {
  Layout dl, sl;
  HRESULT hr = layoutOf(df, &dl);
  if (SUCCEEDED(hr)) hr = layoutOf(sf, &sl);
  if (FAILED(hr)) return hr;
  if (frames == 0) return S_OK;
  if (!dest || !src || !matrix) return E_POINTER;
  if (dest == src) return S_OK;  // never mixed into itself, as with the mixers
  return guarded([&] { return mixMatrix(dl, dest, sl, src, frames, matrix); });
}

HRESULT KaAudio_ChannelChange(const _kawaveformat* df, void* dest, const _kawaveformat* sf,
                              const void* src, DWORD frames) noexcept {
  Layout dl, sl;
  HRESULT hr = layoutOf(df, &dl);
  if (SUCCEEDED(hr)) hr = layoutOf(sf, &sl);
  if (FAILED(hr)) return hr;
  if (frames == 0) return S_OK;
  if (!dest || !src) return E_POINTER;
  if (dest == src) return E_INVALIDARG;
  return guarded([&] {
    const int dc = dl.channels, sc = sl.channels;
    std::vector<double> m(size_t(dc) * sc, 0.0);
    if (sc == 1) {
      for (int d = 0; d < dc; ++d) m[d] = 1.0;
    } else {
      std::vector<int> feeds(dc, 0);
      for (int s = 0; s < sc; ++s) ++feeds[s % dc];
      for (int s = 0; s < sc; ++s) m[size_t(s % dc) * sc + s] = 1.0 / feeds[s % dc];
    }
    if (HRESULT fill = KaAudio_FillSilence(df, dest, frames); FAILED(fill)) return fill;
    return mixMatrix(dl, dest, sl, src, frames, m.data());
  });
}

HRESULT KaAudio_CalcRMS(const _kawaveformat* format, const void* buffer, DWORD frames,
                        double* rms) noexcept {
  Layout l;
  if (HRESULT hr = layoutOf(format, &l); FAILED(hr)) return hr;
  if (!rms || (frames && !buffer)) return E_POINTER;
  return guarded([&] {
    std::vector<double> sum(l.channels, 0.0);
    std::vector<DWORD> count(l.channels, 0);
    forEachChunk(l, buffer, frames, [&](const double* v, DWORD, DWORD k) {
      for (DWORD j = 0; j < k; ++j)
        for (int c = 0; c < l.channels; ++c) {
          const double x = v[size_t(j) * l.channels + c];
          if (std::isnan(x)) continue;
          sum[c] += x * x;
          ++count[c];
        }
    });
    for (int c = 0; c < l.channels; ++c) rms[c] = count[c] ? std::sqrt(sum[c] / count[c]) : 0.0;
    return S_OK;
  });
}

HRESULT KaAudio_FindPeaks(const _kawaveformat* format, const void* buffer, DWORD frames,
                          double* peaks, DWORD* peakFrames) noexcept {
  Layout l;
  if (HRESULT hr = layoutOf(format, &l); FAILED(hr)) return hr;
  if (!peaks || (frames && !buffer)) return E_POINTER;
  return guarded([&] {
    for (int c = 0; c < l.channels; ++c) {
      peaks[c] = 0.0;
      if (peakFrames) peakFrames[c] = 0;
    }
    forEachChunk(l, buffer, frames, [&](const double* v, DWORD first, DWORD k) {
      for (DWORD j = 0; j < k; ++j)
        for (int c = 0; c < l.channels; ++c) {
          const double a = std::fabs(v[size_t(j) * l.channels + c]);
          if (a > peaks[c]) {  // false for NaN
            peaks[c] = a;
            if (peakFrames) peakFrames[c] = first + j;
          }
        }
    });
    return S_OK;
  });
}

HRESULT KaAudio_GetNormalizeFactor(const _kawaveformat* format, const void* buffer, DWORD frames,
                                   double targetPeak, double* factor) noexcept {
  if (!factor) return E_POINTER;
  *factor = 1.0;
  Layout l;
  if (HRESULT hr = layoutOf(format, &l); FAILED(hr)) return hr;
  return guarded([&] {
    std::vector<double> peaks(l.channels);
    if (HRESULT hr = KaAudio_FindPeaks(format, buffer, frames, peaks.data(), nullptr); FAILED(hr))
      return hr;
    double peak = 0;
    for (double p : peaks) peak = std::max(peak, p);
    if (peak == 0 || std::isinf(peak)) return S_FALSE;
    *factor = targetPeak / peak;
    return S_OK;
  });
}
