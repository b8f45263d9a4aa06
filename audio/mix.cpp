// Mixing: the plain mixers over the eight linear sample types (the definition of every
// result), the mixer table, and KaAudio_GetMixFunction*, KaAudio_Mix.
#include <utility>
#include <vector>

#include "audio/internal/samples.h"
#include "audio/internal/tables.h"
#include "kernel/internal/feature_table.h"

namespace ostra::audio {
namespace {

using namespace sample;

constexpr double kUnity[1] = {1.0};

// Adds one source sample, already scaled by `gain`, into one destination sample.
template <class D, class S, bool Unity>
inline void mixOne(uint8_t* dp, const uint8_t* sp, double gain) {
  if constexpr (D::isFloat) {
    const double v = Unity ? load<S>(sp) : loadGain<S>(sp, gain);
    if constexpr (std::is_same_v<D, F32>)
      D::put(dp, D::get(dp) + float(v));
    else
      D::put(dp, D::get(dp) + v);
  } else {
    int32_t add;
    if constexpr (Unity && !S::isFloat && D::bits >= S::bits)
      add = int32_t(uint32_t(S::get(sp)) << (D::bits - S::bits));
    else
      add = quantize<D>(Unity ? load<S>(sp) : loadGain<S>(sp, gain));
    constexpr int64_t hi = (int64_t(1) << (D::bits - 1)) - 1, lo = -hi - 1;
    int64_t sum = int64_t(D::get(dp)) + add;
    sum = sum < lo ? lo : sum > hi ? hi : sum;
    D::put(dp, int32_t(sum));
  }
}

template <class D, class S, bool Unity>
void mixLoop(uint8_t* d, const uint8_t* s, int32_t n, int32_t channels, const double* g) {
  constexpr int db = D::bytes, sb = S::bytes;
  int32_t i = 0;
  if (channels == 1) {
    const double g0 = g[0];
    for (; i + 4 <= n; i += 4) {
      mixOne<D, S, Unity>(d + i * db, s + i * sb, g0);
      mixOne<D, S, Unity>(d + (i + 1) * db, s + (i + 1) * sb, g0);
      mixOne<D, S, Unity>(d + (i + 2) * db, s + (i + 2) * sb, g0);
      mixOne<D, S, Unity>(d + (i + 3) * db, s + (i + 3) * sb, g0);
    }
    for (; i < n; ++i) mixOne<D, S, Unity>(d + i * db, s + i * sb, g0);
  } else if (channels == 2) {
    const double g0 = g[0], g1 = g[1];
    for (; i + 2 <= n; i += 2) {
      mixOne<D, S, Unity>(d + i * db, s + i * sb, g0);
      mixOne<D, S, Unity>(d + (i + 1) * db, s + (i + 1) * sb, g1);
    }
    if (i < n) mixOne<D, S, Unity>(d + i * db, s + i * sb, g0);
  } else {
    for (int32_t c = 0; i < n; ++i) {
      mixOne<D, S, Unity>(d + i * db, s + i * sb, g[c]);
      if (++c == channels) c = 0;
    }
  }
}

template <int DI, int SI>
void mixPlain(void* dest, const void* src, int32_t n, int32_t channels, const double* gains) {
  using D = typename ByIndex<DI>::T;
  using S = typename ByIndex<SI>::T;
  if (dest == src || n <= 0 || !dest || !src) return;
  if (channels <= 0 || !gains) {
    channels = 1;
    gains = kUnity;
  }
  // The 16-bit mixer applies the first gain to every channel, as it always has.
  if constexpr (DI == kS16 && SI == kS16) channels = 1;
  bool unity = true;
  for (int32_t c = 0; c < channels && unity; ++c) unity = gains[c] == 1.0;
  auto* d = static_cast<uint8_t*>(dest);
  auto* s = static_cast<const uint8_t*>(src);
  if (unity)
    mixLoop<D, S, true>(d, s, n, channels, gains);
  else
    mixLoop<D, S, false>(d, s, n, channels, gains);
}

template <int DI, int... SI>
constexpr void fillRow(MixerTable& t, std::integer_sequence<int, SI...>) {
  ((t.fn[DI][SI] = &mixPlain<DI, SI>, t.variant[DI][SI] = kPlain), ...);
}
template <int... DI>
constexpr MixerTable makePlain(std::integer_sequence<int, DI...>) {
  MixerTable t{};
  (fillRow<DI>(t, std::make_integer_sequence<int, kMixTypes>{}), ...);
  return t;
}

MixerTable buildMixers(DWORD features) noexcept {
  MixerTable t = kPlainMixers;
#if defined(__x86_64__)
  installMixSse2(t, features);
  if (avx2Usable(features)) installMixAvx2(t, features);
  if (avx512Usable(features)) {
    installMixAvx512(t, features);
    if ((features & KACPU_AVX512VBMI) && (KaGetOSSupport(KACPU_AVX512VBMI) & KACPU_AVX512VBMI))
      installMixAvx512Vbmi(t, features);
  }
#else
  (void)features;
#endif
  return t;
}
constinit kernel::FeatureTable<MixerTable> gMixers{buildMixers};

const MixerTable& mixers() { return gMixers.get(); }

int mixIndex(KASAMPLETYPE t) {
  const int i = convertIndex(t);
  return i >= 0 && i < kMixTypes ? i : -1;
}

KASAMPLETYPE typeOf(const _kawaveformat* k) {
  return k && !k->IsCompressed() ? k->SampleType : KASAMPLE_NONE;
}
KASAMPLETYPE typeOf(const WAVEFORMATEX* w) { return KaAudio_GetSampleType(w); }

template <class DF, class SF>
HRESULT mixFrames(const DF* df, void* dest, const SF* sf, const void* src, DWORD frames,
                  const double* gains) {
  if (!df || !sf) return E_POINTER;
  if (frames == 0) return S_OK;
  KAAUDIO_MIXFUNCTION fn = KaAudio_GetMixFunction2(typeOf(df), typeOf(sf));
  if (!fn) return E_NOTIMPL;
  if (!dest || !src) return E_POINTER;
  const WORD channels = sf->nChannels;
  if (channels == 0 || df->nChannels != channels) return E_INVALIDARG;
  const int db = KaAudio_BytesFromSampleType(typeOf(df));
  const int sb = KaAudio_BytesFromSampleType(typeOf(sf));
  std::vector<double> unity;
  if (!gains) {
    unity.assign(channels, 1.0);
    gains = unity.data();
  }
  const uint64_t total = uint64_t(frames) * channels;
  const uint64_t piece = (uint64_t(1) << 30) / channels * channels;
  for (uint64_t at = 0; at < total;) {
    const uint64_t n = total - at < piece ? total - at : piece;
    fn(static_cast<uint8_t*>(dest) + at * db, static_cast<const uint8_t*>(src) + at * sb,
       int32_t(n), channels, gains);
    at += n;
  }
  return S_OK;
}

template <class DF, class SF>
HRESULT mixGuarded(const DF* df, void* dest, const SF* sf, const void* src, DWORD frames,
                   const double* gains) noexcept {
  try {
    return mixFrames(df, dest, sf, src, frames, gains);
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  } catch (...) {
    return E_FAIL;
  }
}

}  // namespace

constinit const MixerTable kPlainMixers = makePlain(std::make_integer_sequence<int, kMixTypes>{});

}  // namespace ostra::audio

using namespace ostra::audio;

KAAUDIO_MIXFUNCTION KaAudio_GetMixFunction2(KASAMPLETYPE dest, KASAMPLETYPE src) noexcept {
  const int d = mixIndex(dest), s = mixIndex(src);
  if (d < 0 || s < 0) return nullptr;
  return mixers().fn[d][s];
}

KAAUDIO_MIXFUNCTION KaAudio_GetMixFunction(const WAVEFORMATEX* dest,
                                           const WAVEFORMATEX* src) noexcept {
  return KaAudio_GetMixFunction2(KaAudio_GetSampleType(dest), KaAudio_GetSampleType(src));
}
KAAUDIO_MIXFUNCTION KaAudio_GetMixFunction(const _kawaveformat* dest,
                                           const _kawaveformat* src) noexcept {
  return KaAudio_GetMixFunction2(typeOf(dest), typeOf(src));
}

HRESULT KaAudio_Mix(const _kawaveformat* df, void* dest, const _kawaveformat* sf, const void* src,
                    DWORD frames, const double* gains) noexcept {
  return mixGuarded(df, dest, sf, src, frames, gains);
}
HRESULT KaAudio_Mix(const WAVEFORMATEX* df, void* dest, const WAVEFORMATEX* sf, const void* src,
                    DWORD frames, const double* gains) noexcept {
  return mixGuarded(df, dest, sf, src, frames, gains);
}
HRESULT KaAudio_Mix(const _kawaveformat* df, void* dest, const WAVEFORMATEX* sf, const void* src,
                    DWORD frames, const double* gains) noexcept {
  return mixGuarded(df, dest, sf, src, frames, gains);
}
HRESULT KaAudio_Mix(const WAVEFORMATEX* df, void* dest, const _kawaveformat* sf, const void* src,
                    DWORD frames, const double* gains) noexcept {
  return mixGuarded(df, dest, sf, src, frames, gains);
}

const char* KaAudio_GetMixerVariant(KASAMPLETYPE dest, KASAMPLETYPE src) noexcept {
  const int d = mixIndex(dest), s = mixIndex(src);
  if (d < 0 || s < 0) return nullptr;
  return variantName(mixers().variant[d][s]);
}
