// Sample conversion: the plain converters (the definition of every result), the table
// that picks a variant per pair once per processor-feature setting, and the exported
// entry points KaAudio_GetCopyFunction*, KaAudio_Copy and KaAudio_FillSilence.
#include <cstring>
#include <utility>

#include "audio/internal/samples.h"
#include "audio/internal/tables.h"
#include "kernel/internal/feature_table.h"

namespace ostra::audio {
namespace {

using namespace sample;

// Calls op(dest sample, src sample) for every sample, unrolled by four. Widening pairs
// walk backwards so that an in-place conversion reads each source before it is
// overwritten.
template <class D, class S, class Op>
inline void walk(uint8_t* d, const uint8_t* s, int32_t n, Op op) {
  constexpr int db = D::bytes, sb = S::bytes;
  if constexpr (db > sb) {
    int32_t i = n;
    for (; i >= 4; i -= 4) {
      op(d + (i - 1) * db, s + (i - 1) * sb);
      op(d + (i - 2) * db, s + (i - 2) * sb);
      op(d + (i - 3) * db, s + (i - 3) * sb);
      op(d + (i - 4) * db, s + (i - 4) * sb);
    }
    for (; i > 0; --i) op(d + (i - 1) * db, s + (i - 1) * sb);
  } else {
    int32_t i = 0;
    for (; i + 4 <= n; i += 4) {
      op(d + i * db, s + i * sb);
      op(d + (i + 1) * db, s + (i + 1) * sb);
      op(d + (i + 2) * db, s + (i + 2) * sb);
      op(d + (i + 3) * db, s + (i + 3) * sb);
    }
    for (; i < n; ++i) op(d + i * db, s + i * sb);
  }
}

template <int DI, int SI>
void convertPlain(void* dest, const void* src, int32_t n, float gain) {
  using D = typename ByIndex<DI>::T;
  using S = typename ByIndex<SI>::T;
  if (n <= 0 || !dest || !src) return;
  auto* d = static_cast<uint8_t*>(dest);
  auto* s = static_cast<const uint8_t*>(src);
  if (gain == 1.0f) {
    if constexpr (!D::isFloat && !S::isFloat && D::bits >= S::bits) {
      // Widening integers is exact: a shift, no floating-point step.
      walk<D, S>(d, s, n, [](uint8_t* dp, const uint8_t* sp) {
        D::put(dp, int32_t(uint32_t(S::get(sp)) << (D::bits - S::bits)));
      });
    } else {
      walk<D, S>(d, s, n, [](uint8_t* dp, const uint8_t* sp) { store<D>(dp, load<S>(sp)); });
    }
  } else {
    walk<D, S>(d, s, n,
               [gain](uint8_t* dp, const uint8_t* sp) { store<D>(dp, loadGain<S>(sp, gain)); });
  }
}

// Big-endian 16- and 24-bit destinations take no 24-in-32 or big-endian 32-bit source.
constexpr bool hasConverter(int d, int s) {
  return !((d == kBe16 || d == kBe24) && (s == kS24in32 || s == kBe32));
}

template <int DI, int SI>
constexpr void fillOne(ConverterTable& t) {
  t.fn[DI][SI] = hasConverter(DI, SI) ? &convertPlain<DI, SI> : nullptr;
  t.variant[DI][SI] = kPlain;
}
template <int DI, int... SI>
constexpr void fillRow(ConverterTable& t, std::integer_sequence<int, SI...>) {
  (fillOne<DI, SI>(t), ...);
}
template <int... DI>
constexpr ConverterTable makePlain(std::integer_sequence<int, DI...>) {
  ConverterTable t{};
  (fillRow<DI>(t, std::make_integer_sequence<int, kConvertTypes>{}), ...);
  return t;
}

ConverterTable buildConverters(DWORD features) noexcept {
  ConverterTable t = kPlainConverters;
#if defined(__x86_64__)
  installConvertSse2(t, features);
  if (avx2Usable(features)) installConvertAvx2(t, features);
  if (avx512Usable(features)) installConvertAvx512(t, features);
#else
  (void)features;
#endif
  return t;
}
constinit kernel::FeatureTable<ConverterTable> gConverters{buildConverters};

const ConverterTable& converters() { return gConverters.get(); }

KASAMPLETYPE typeOf(const _kawaveformat* k) {
  return k && !k->IsCompressed() ? k->SampleType : KASAMPLE_NONE;
}
KASAMPLETYPE typeOf(const WAVEFORMATEX* w) { return KaAudio_GetSampleType(w); }
WORD channelsOf(const _kawaveformat* k) { return k->nChannels; }
WORD channelsOf(const WAVEFORMATEX* w) { return w->nChannels; }
WORD alignOf(const _kawaveformat* k) { return k->nBlockAlign; }
WORD alignOf(const WAVEFORMATEX* w) { return w->nBlockAlign; }

template <class DF, class SF>
HRESULT copyFrames(const DF* df, void* dest, const SF* sf, const void* src, DWORD frames,
                   float gain) {
  if (!df || !sf) return E_POINTER;
  if (frames == 0) return S_OK;
  KAAUDIO_COPYFUNCTION fn = KaAudio_GetCopyFunction2(typeOf(df), typeOf(sf));
  if (!fn) return E_NOTIMPL;
  if (!dest || !src) return E_POINTER;
  const WORD channels = channelsOf(sf);
  if (channels == 0 || channelsOf(df) != channels) return E_INVALIDARG;
  const int db = KaAudio_BytesFromSampleType(typeOf(df));
  const int sb = KaAudio_BytesFromSampleType(typeOf(sf));
  // The converter counts in int32; larger runs go in whole-frame pieces, in the
  // converter's own direction so that in-place conversion still works.
  const uint64_t total = uint64_t(frames) * channels;
  const uint64_t piece = (uint64_t(1) << 30) / channels * channels;
  if (db > sb) {
    for (uint64_t end = total; end > 0;) {
      const uint64_t n = end < piece ? end : piece;
      end -= n;
      fn(static_cast<uint8_t*>(dest) + end * db, static_cast<const uint8_t*>(src) + end * sb,
         int32_t(n), gain);
    }
  } else {
    for (uint64_t at = 0; at < total;) {
      const uint64_t n = total - at < piece ? total - at : piece;
      fn(static_cast<uint8_t*>(dest) + at * db, static_cast<const uint8_t*>(src) + at * sb,
         int32_t(n), gain);
      at += n;
    }
  }
  return S_OK;
}

template <class F>
HRESULT silence(const F* format, void* buffer, DWORD frames) {
  if (!format) return E_POINTER;
  const KASAMPLETYPE type = typeOf(format);
  if (convertIndex(type) < 0) return E_FAIL;
  const uint64_t bytes = uint64_t(alignOf(format)) * frames;
  if (bytes == 0) return S_OK;
  if (!buffer) return E_POINTER;
  std::memset(buffer, type == KASAMPLE_PCM8 ? 0x80 : 0, bytes);
  return S_OK;
}

}  // namespace

constinit const ConverterTable kPlainConverters =
    makePlain(std::make_integer_sequence<int, kConvertTypes>{});

int convertIndex(KASAMPLETYPE type) noexcept {
  switch (type) {
    case KASAMPLE_PCM8:
      return kU8;
    case KASAMPLE_PCM16:
      return kS16;
    case KASAMPLE_PCM24:
      return kS24;
    case KASAMPLE_PCM32:
      return kS32;
    case KASAMPLE_FLOAT32:
      return kF32;
    case KASAMPLE_FLOAT64:
      return kF64;
    case KASAMPLE_PCM24IN32:
      return kS24in32;
    case KASAMPLE_PCM8SIGNED:
      return kS8;
    case KASAMPLE_MAC16:
      return kBe16;
    case KASAMPLE_MAC24:
      return kBe24;
    case KASAMPLE_MAC32:
      return kBe32;
    default:
      return -1;
  }
}

const char* variantName(Variant v) noexcept {
  switch (v) {
    case kSse2:
      return "sse2";
    case kAvx2:
      return "avx2";
    case kAvx512:
      return "avx512";
    default:
      return "plain";
  }
}

bool avx2Usable(DWORD features) noexcept {
  constexpr DWORD need = KACPU_AVX | KACPU_AVX2;
  return (features & need) == need && (KaGetOSSupport(need) & need) == need;
}

bool avx512Usable(DWORD features) noexcept {
  constexpr DWORD need = KACPU_AVX512F | KACPU_AVX512BW | KACPU_AVX512VL;
  return avx2Usable(features) && (features & need) == need && (KaGetOSSupport(need) & need) == need;
}

}  // namespace ostra::audio

using namespace ostra::audio;

KAAUDIO_COPYFUNCTION KaAudio_GetCopyFunction2(KASAMPLETYPE dest, KASAMPLETYPE src) noexcept {
  const int d = convertIndex(dest), s = convertIndex(src);
  if (d < 0 || s < 0) return nullptr;
  return converters().fn[d][s];
}

KAAUDIO_COPYFUNCTION KaAudio_GetCopyFunction(const WAVEFORMATEX* dest,
                                             const WAVEFORMATEX* src) noexcept {
  return KaAudio_GetCopyFunction2(KaAudio_GetSampleType(dest), KaAudio_GetSampleType(src));
}
KAAUDIO_COPYFUNCTION KaAudio_GetCopyFunction(const _kawaveformat* dest,
                                             const WAVEFORMATEX* src) noexcept {
  return KaAudio_GetCopyFunction2(typeOf(dest), KaAudio_GetSampleType(src));
}
KAAUDIO_COPYFUNCTION KaAudio_GetCopyFunction(const WAVEFORMATEX* dest,
                                             const _kawaveformat* src) noexcept {
  return KaAudio_GetCopyFunction2(KaAudio_GetSampleType(dest), typeOf(src));
}
KAAUDIO_COPYFUNCTION KaAudio_GetCopyFunction(const _kawaveformat* dest,
                                             const _kawaveformat* src) noexcept {
  return KaAudio_GetCopyFunction2(typeOf(dest), typeOf(src));
}

HRESULT KaAudio_Copy(const _kawaveformat* df, void* dest, const _kawaveformat* sf, const void* src,
                     DWORD frames, float gain) noexcept {
  return copyFrames(df, dest, sf, src, frames, gain);
}
HRESULT KaAudio_Copy(const WAVEFORMATEX* df, void* dest, const WAVEFORMATEX* sf, const void* src,
                     DWORD frames, float gain) noexcept {
  return copyFrames(df, dest, sf, src, frames, gain);
}
HRESULT KaAudio_Copy(const _kawaveformat* df, void* dest, const WAVEFORMATEX* sf, const void* src,
                     DWORD frames, float gain) noexcept {
  return copyFrames(df, dest, sf, src, frames, gain);
}
HRESULT KaAudio_Copy(const WAVEFORMATEX* df, void* dest, const _kawaveformat* sf, const void* src,
                     DWORD frames, float gain) noexcept {
  return copyFrames(df, dest, sf, src, frames, gain);
}

HRESULT KaAudio_FillSilence(const _kawaveformat* format, void* buffer, DWORD frames) noexcept {
  return silence(format, buffer, frames);
}
HRESULT KaAudio_FillSilence(const WAVEFORMATEX* format, void* buffer, DWORD frames) noexcept {
  return silence(format, buffer, frames);
}

const char* KaAudio_GetConverterVariant(KASAMPLETYPE dest, KASAMPLETYPE src) noexcept {
  const int d = convertIndex(dest), s = convertIndex(src);
  if (d < 0 || s < 0) return nullptr;
  const ConverterTable& t = converters();
  return t.fn[d][s] ? variantName(t.variant[d][s]) : nullptr;
}
