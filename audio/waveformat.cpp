// The wave-format record: building it from tags, types and system descriptions, turning
// it back into a system description, and comparing records. Used by every caller that
// describes audio, and by the file-format code when it reads or writes a "fmt " chunk.
#include <algorithm>
#include <cstring>
#include <new>

#include "ostra/kaaudio.h"
#include "ostra/kaplatform.h"

namespace {

struct TypeRow {
  KASAMPLETYPE type;
  int bytes;
  int bits;
  WORD tag;
};
constexpr TypeRow kTypes[] = {
    {KASAMPLE_PCM8, 1, 8, WAVE_FORMAT_PCM},
    {KASAMPLE_PCM16, 2, 16, WAVE_FORMAT_PCM},
    {KASAMPLE_PCM24, 3, 24, WAVE_FORMAT_PCM},
    {KASAMPLE_PCM32, 4, 32, WAVE_FORMAT_PCM},
    {KASAMPLE_FLOAT32, 4, 32, WAVE_FORMAT_IEEE_FLOAT},
    {KASAMPLE_FLOAT64, 8, 64, WAVE_FORMAT_IEEE_FLOAT},
    {KASAMPLE_PCM24IN32, 4, 32, WAVE_FORMAT_KA_PCM24IN32},
    {KASAMPLE_PCM8SIGNED, 1, 8, WAVE_FORMAT_KA_PCM8SIGNED},
    {KASAMPLE_MAC16, 2, 16, WAVE_FORMAT_KA_BIGENDIAN},
    {KASAMPLE_MAC24, 3, 24, WAVE_FORMAT_KA_BIGENDIAN},
    {KASAMPLE_MAC32, 4, 32, WAVE_FORMAT_KA_BIGENDIAN},
};

const TypeRow* row(KASAMPLETYPE t) {
  for (const TypeRow& r : kTypes)
    if (r.type == t) return &r;
  return nullptr;
}

bool isExtensible(const WAVEFORMATEX* w) {
  return w->wFormatTag == WAVE_FORMAT_EXTENSIBLE && w->cbSize >= 22;
}

const WAVEFORMATEXTENSIBLE* ext(const WAVEFORMATEX* w) {
  return reinterpret_cast<const WAVEFORMATEXTENSIBLE*>(w);
}

// True when the GUID has the standard media sub-type form; the code goes to *tag.
bool standardSubFormat(const GUID& g, WORD* tag) {
  GUID probe = KSDATAFORMAT_SUBTYPE_PCM;
  probe.Data1 = g.Data1;
  if (!(probe == g) || g.Data1 > 0xFFFF) return false;
  *tag = WORD(g.Data1);
  return true;
}

bool allZero(const void* p, size_t n) {
  const BYTE* b = static_cast<const BYTE*>(p);
  return std::all_of(b, b + n, [](BYTE v) { return v == 0; });
}

// The extra bytes a description carries beyond what the record models itself.
const BYTE* descriptionExtras(const WAVEFORMATEX* w, size_t* count) {
  const BYTE* base = reinterpret_cast<const BYTE*>(w);
  if (isExtensible(w)) {
    *count = w->cbSize > 22 ? w->cbSize - 22u : 0u;
    return base + sizeof(WAVEFORMATEXTENSIBLE);
  }
  if (w->wFormatTag == WAVE_FORMAT_PCM || w->wFormatTag == WAVE_FORMAT_IEEE_FLOAT ||
      w->wFormatTag == WAVE_FORMAT_EXTENSIBLE) {
    *count = 0;
    return nullptr;
  }
  *count = w->cbSize;
  return base + sizeof(WAVEFORMATEX);
}

void clearRecord(_kawaveformat* k, DWORD bufferSize) {
  std::memset(k, 0, bufferSize < KAWAVEFORMAT_EXTRA_OFFSET ? KAWAVEFORMAT_FIXED_SIZE : bufferSize);
  k->dwSize = KAWAVEFORMAT_FIXED_SIZE;
}

size_t extraCapacity(DWORD bufferSize) {
  if (bufferSize < KAWAVEFORMAT_EXTRA_OFFSET) return 0;
  return std::min<size_t>(bufferSize - KAWAVEFORMAT_EXTRA_OFFSET, KAWAVEFORMAT_MAX_EXTRA);
}

bool wantsExtensible(const _kawaveformat& k, DWORD destSize, KAWAVEFORMAT_COPY_DEST dest) {
  const bool maskMatters =
      k.dwChannelMask != 0 && k.dwChannelMask != KaAudio_DefaultChannelMask(k.nChannels);
  switch (dest) {
    case KAWFCOPY_AUTO:
      return destSize >= sizeof(WAVEFORMATEXTENSIBLE) &&
             ((k.dwFlags & KAWF_FLAG_EXTENSIBLE) || maskMatters);
    case KAWFCOPY_EXT_MULTICHANNEL:
      return k.nChannels > 2;
    case KAWFCOPY_EXT:
      return true;
    default:
      return false;
  }
}

}  // namespace

// ---------------------------------------------------------------- sample types

KASAMPLETYPE KaAudio_GetSampleType2(WORD tag, WORD bits) noexcept {
  switch (tag) {
    case WAVE_FORMAT_PCM:
    case WAVE_FORMAT_KA_PCM8SIGNED:
      switch (bits) {
        case 8:
          return tag == WAVE_FORMAT_PCM ? KASAMPLE_PCM8 : KASAMPLE_PCM8SIGNED;
        case 16:
          return KASAMPLE_PCM16;
        case 20:
        case 24:
          return KASAMPLE_PCM24;
        case 32:
          return KASAMPLE_PCM32;
      }
      return KASAMPLE_NONE;
    case WAVE_FORMAT_IEEE_FLOAT:
      return bits == 32 ? KASAMPLE_FLOAT32 : bits == 64 ? KASAMPLE_FLOAT64 : KASAMPLE_NONE;
    case WAVE_FORMAT_KA_PCM24IN32:
      return bits == 24 || bits == 32 ? KASAMPLE_PCM24IN32 : KASAMPLE_NONE;
    case WAVE_FORMAT_KA_BIGENDIAN:
      switch (bits) {
        case 8:
          return KASAMPLE_PCM8;  // one byte has no byte order
        case 16:
          return KASAMPLE_MAC16;
        case 24:
          return KASAMPLE_MAC24;
        case 32:
          return KASAMPLE_MAC32;
      }
      return KASAMPLE_NONE;
    case WAVE_FORMAT_KA_RA:
      return bits == 16 ? KASAMPLE_RA16 : bits == 24 ? KASAMPLE_RA24 : KASAMPLE_NONE;
  }
  return KASAMPLE_NONE;
}

KASAMPLETYPE KaAudio_GetSampleType(const WAVEFORMATEX* wfx) noexcept {
  if (!wfx) return KASAMPLE_NONE;
  if (wfx->wFormatTag != WAVE_FORMAT_EXTENSIBLE)
    return KaAudio_GetSampleType2(wfx->wFormatTag, wfx->wBitsPerSample);
  if (wfx->cbSize < 22) return KASAMPLE_NONE;
  WORD code = 0;
  if (!standardSubFormat(ext(wfx)->SubFormat, &code)) return KASAMPLE_NONE;
  const KASAMPLETYPE t = KaAudio_GetSampleType2(code, wfx->wBitsPerSample);
  if (t == KASAMPLE_PCM32 && ext(wfx)->Samples.wValidBitsPerSample == 24) return KASAMPLE_PCM24IN32;
  return t;
}

int KaAudio_BytesFromSampleType(KASAMPLETYPE type) noexcept {
  const TypeRow* r = row(type);
  return r ? r->bytes : 0;
}

int KaAudio_BitsFromSampleType(KASAMPLETYPE type) noexcept {
  const TypeRow* r = row(type);
  return r ? r->bits : 0;
}

WORD KaAudio_FormatTagFromSampleType(KASAMPLETYPE type) noexcept {
  const TypeRow* r = row(type);
  return r ? r->tag : 0;
}

BOOL KaAudio_IsEqualFormat(const WAVEFORMATEX* a, const WAVEFORMATEX* b) noexcept {
  if (!a || !b) return a == b;
  return a->nChannels == b->nChannels && a->nSamplesPerSec == b->nSamplesPerSec &&
         a->wFormatTag == b->wFormatTag && a->wBitsPerSample == b->wBitsPerSample;
}

BOOL KaAudio_FixBadWfx(WAVEFORMATEX* wfx) noexcept {
  if (!wfx || wfx->wFormatTag != WAVE_FORMAT_PCM) return FALSE;
  BOOL changed = FALSE;
  if (wfx->wBitsPerSample == 20) {
    wfx->wBitsPerSample = 24;
    changed = TRUE;
  }
  const WORD align = WORD(wfx->wBitsPerSample / 8 * wfx->nChannels);
  if (wfx->nBlockAlign != align) {
    wfx->nBlockAlign = align;
    changed = TRUE;
  }
  return changed;
}

// ---------------------------------------------------------------- members

void _kawaveformat::Init(DWORD samplesPerSec, KASAMPLETYPE type, WORD channels, DWORD channelMask,
                         DWORD bufferSize) noexcept {
  clearRecord(this, bufferSize);
  SampleType = type;
  nSamplesPerSec = samplesPerSec;
  nChannels = channels;
  dwChannelMask = channelMask;
  nBlockAlign = WORD(KaAudio_BytesFromSampleType(type) * channels);
  nAvgBytesPerSec = DWORD(nBlockAlign) * samplesPerSec;
}

void _kawaveformat::InitAsWfx(WORD formatTag, DWORD samplesPerSec, WORD bitsPerSample,
                              WORD channels, DWORD channelMask, DWORD bufferSize) noexcept {
  if (formatTag == WAVE_FORMAT_PCM && bitsPerSample == 20) bitsPerSample = 24;
  const KASAMPLETYPE type = KaAudio_GetSampleType2(formatTag, bitsPerSample);
  Init(samplesPerSec, type, channels, channelMask, bufferSize);
  if (type == KASAMPLE_NONE) {
    dwFlags |= KAWF_FLAG_RAW;
    wFormatTag = formatTag;
    wBitsPerSample = bitsPerSample;
  }
  nBlockAlign = WORD(DWORD(channels) * bitsPerSample / 8);
  nAvgBytesPerSec = DWORD(nBlockAlign) * samplesPerSec;
}

void _kawaveformat::Init(DWORD bufferSize, const WAVEFORMATEX* wfx) noexcept {
  clearRecord(this, bufferSize);
  if (!wfx) return;
  nSamplesPerSec = wfx->nSamplesPerSec;
  nChannels = wfx->nChannels;
  nBlockAlign = wfx->nBlockAlign;
  nAvgBytesPerSec = wfx->nAvgBytesPerSec;
  SampleType = KaAudio_GetSampleType(wfx);
  WORD tag = wfx->wFormatTag;
  if (tag == WAVE_FORMAT_PCM) {
    WAVEFORMATEX fixed = *wfx;
    KaAudio_FixBadWfx(&fixed);
    nBlockAlign = fixed.nBlockAlign;
  }
  if (isExtensible(wfx)) {
    const WAVEFORMATEXTENSIBLE* e = ext(wfx);
    dwFlags |= KAWF_FLAG_EXTENSIBLE;
    dwChannelMask = e->dwChannelMask;
    if (SampleType == KASAMPLE_NONE && allZero(&e->SubFormat, sizeof(GUID)) &&
        (wfx->cbSize == 0 || wfx->cbSize == 22) &&
        DWORD(wfx->nChannels) * wfx->wBitsPerSample == wfx->nBlockAlign &&
        DWORD(wfx->nSamplesPerSec) * wfx->nBlockAlign == wfx->nAvgBytesPerSec) {
      switch (wfx->wBitsPerSample) {
        case 8:
          SampleType = KASAMPLE_PCM8;
          break;
        case 16:
          SampleType = KASAMPLE_PCM16;
          break;
        case 24:
          SampleType = KASAMPLE_PCM24;
          break;
        case 32:
          SampleType = KASAMPLE_FLOAT32;
          break;
        case 64:
          SampleType = KASAMPLE_FLOAT64;
          break;
        default:
          break;
      }
    }
    tag = WORD(e->SubFormat.Data1);
  }
  if (SampleType != KASAMPLE_NONE) return;
  dwFlags |= KAWF_FLAG_RAW;
  wFormatTag = tag;
  wBitsPerSample = wfx->wBitsPerSample;
  size_t count = 0;
  const BYTE* extras = descriptionExtras(wfx, &count);
  count = std::min(count, extraCapacity(bufferSize));
  if (bufferSize >= KAWAVEFORMAT_EXTRA_OFFSET) {
    cbExtra = WORD(count);
    if (count) std::memcpy(abExtra, extras, count);
  }
  dwSize = DWORD(KAWAVEFORMAT_FIXED_SIZE + count);
}

WORD _kawaveformat::UpdateBlockAlign() noexcept {
  if (!IsCompressed() && SampleType != KASAMPLE_NONE) {
    nBlockAlign = WORD(KaAudio_BytesFromSampleType(SampleType) * nChannels);
    nAvgBytesPerSec = DWORD(nBlockAlign) * nSamplesPerSec;
  }
  return nBlockAlign;
}

WORD _kawaveformat::FormatTag() const noexcept {
  return IsCompressed() ? wFormatTag : KaAudio_FormatTagFromSampleType(SampleType);
}

WORD _kawaveformat::BitsPerSample() const noexcept {
  return IsCompressed() ? wBitsPerSample : WORD(KaAudio_BitsFromSampleType(SampleType));
}

WORD _kawaveformat::BytesPerSample() const noexcept {
  return IsCompressed() ? WORD(wBitsPerSample / 8) : WORD(KaAudio_BytesFromSampleType(SampleType));
}

DWORD _kawaveformat::EffectiveChannelMask() const noexcept {
  return dwChannelMask ? dwChannelMask : KaAudio_DefaultChannelMask(nChannels);
}

WORD _kawaveformat::ExtraSize() const noexcept {
  // dwSize counts the extra bytes but not the extra-size field before them.
  if (dwSize <= KAWAVEFORMAT_FIXED_SIZE) return 0;
  return WORD(std::min<DWORD>({cbExtra, dwSize - KAWAVEFORMAT_FIXED_SIZE, KAWAVEFORMAT_MAX_EXTRA}));
}

bool _kawaveformat::IsEqual(const _kawaveformat& o) const noexcept {
  if (SampleType != o.SampleType || nSamplesPerSec != o.nSamplesPerSec ||
      nChannels != o.nChannels || IsCompressed() != o.IsCompressed() ||
      EffectiveChannelMask() != o.EffectiveChannelMask())
    return false;
  if (!IsCompressed()) return true;
  const WORD n = ExtraSize();
  return wFormatTag == o.wFormatTag && nAvgBytesPerSec == o.nAvgBytesPerSec &&
         wBitsPerSample == o.wBitsPerSample && n == o.ExtraSize() &&
         std::memcmp(abExtra, o.abExtra, n) == 0;
}

bool _kawaveformat::IsEqual(const WAVEFORMATEX& w) const noexcept {
  if (nSamplesPerSec != w.nSamplesPerSec || nChannels != w.nChannels) return false;
  const bool extensible = isExtensible(&w);
  if (IsCompressed()) {
    WORD tag = w.wFormatTag;
    if (extensible) tag = WORD(ext(&w)->SubFormat.Data1);
    if (wFormatTag != tag || nAvgBytesPerSec != w.nAvgBytesPerSec ||
        wBitsPerSample != w.wBitsPerSample)
      return false;
  } else if (SampleType != KaAudio_GetSampleType(&w)) {
    return false;
  }
  const DWORD mask = extensible ? ext(&w)->dwChannelMask : 0;
  if (EffectiveChannelMask() != (mask ? mask : KaAudio_DefaultChannelMask(w.nChannels)))
    return false;
  if (!IsCompressed()) return true;
  size_t count = 0;
  const BYTE* extras = descriptionExtras(&w, &count);
  return count == ExtraSize() && (count == 0 || std::memcmp(extras, abExtra, count) == 0);
}

// ---------------------------------------------------------------- to system descriptions

int KaAudio_GeneralCopyWfx(WAVEFORMATEX* dest, DWORD destSize, const _kawaveformat* k,
                           KAWAVEFORMAT_COPY_DEST copyDest) noexcept {
  if (!dest || !k || destSize < sizeof(WAVEFORMATEX)) return -1;
  bool extensible = wantsExtensible(*k, destSize, copyDest);
  const WORD extras = k->ExtraSize();
  if (k->IsCompressed() && !extensible && copyDest != KAWFCOPY_WFX_NOMASK &&
      k->dwChannelMask != 0 && k->dwChannelMask != KaAudio_DefaultChannelMask(k->nChannels) &&
      destSize >= sizeof(WAVEFORMATEXTENSIBLE) + extras)
    extensible = true;
  if (extensible && destSize < sizeof(WAVEFORMATEXTENSIBLE)) return -1;

  WAVEFORMATEXTENSIBLE e{};
  WAVEFORMATEX& w = e.Format;
  w.nChannels = k->nChannels;
  w.nSamplesPerSec = k->nSamplesPerSec;
  if (k->IsCompressed()) {
    w.wFormatTag = k->wFormatTag;
    w.nAvgBytesPerSec = k->nAvgBytesPerSec;
    w.nBlockAlign = k->nBlockAlign;
    w.wBitsPerSample = k->wBitsPerSample;
    if (extensible) {
      e.SubFormat = KaAudio_SubFormatFromTag(k->wFormatTag);
      e.Samples.wValidBitsPerSample = k->wBitsPerSample;
    }
  } else {
    const WORD bits = WORD(KaAudio_BitsFromSampleType(k->SampleType));
    w.wFormatTag = KaAudio_FormatTagFromSampleType(k->SampleType);
    w.wBitsPerSample = bits;
    w.nBlockAlign = WORD(bits / 8 * k->nChannels);
    w.nAvgBytesPerSec = DWORD(w.nBlockAlign) * k->nSamplesPerSec;
    if (extensible) {
      // 24 valid bits in a 32-bit container are what the extensible form was made for;
      // written that way, a reader without the kernel's private tags understands them.
      if (k->SampleType == KASAMPLE_PCM24IN32) {
        e.SubFormat = KSDATAFORMAT_SUBTYPE_PCM;
        e.Samples.wValidBitsPerSample = 24;
      } else {
        e.SubFormat = KaAudio_SubFormatFromTag(w.wFormatTag);
        e.Samples.wValidBitsPerSample = bits;
      }
    }
  }
  size_t head = sizeof(WAVEFORMATEX);
  if (extensible) {
    w.wFormatTag = WAVE_FORMAT_EXTENSIBLE;
    w.cbSize = 22;
    e.dwChannelMask = k->EffectiveChannelMask();
    head = sizeof(WAVEFORMATEXTENSIBLE);
  }
  size_t copied = 0;
  if (k->IsCompressed() && extras) {
    copied = std::min<size_t>(extras, destSize - head);
    w.cbSize = WORD(w.cbSize + copied);
  }
  std::memcpy(dest, &e, head);
  if (copied) std::memcpy(reinterpret_cast<BYTE*>(dest) + head, k->abExtra, copied);
  return int(head + copied);
}

int KaAudio_GeneralCopyKaWaveFormat(_kawaveformat* dest, DWORD destSize,
                                    const _kawaveformat* src) noexcept {
  if (!dest || !src || destSize < KAWAVEFORMAT_FIXED_SIZE) return -1;
  const WORD srcExtra = src->ExtraSize();
  const DWORD valid = srcExtra ? KAWAVEFORMAT_EXTRA_OFFSET + srcExtra : KAWAVEFORMAT_FIXED_SIZE;
  const DWORD n = std::min(destSize, valid);
  if (dest != src) std::memmove(dest, src, n);
  if (destSize > n) std::memset(reinterpret_cast<BYTE*>(dest) + n, 0, destSize - n);
  const WORD extra = srcExtra <= extraCapacity(destSize) ? srcExtra : 0;
  if (destSize >= KAWAVEFORMAT_EXTRA_OFFSET) dest->cbExtra = extra;
  dest->dwSize = KAWAVEFORMAT_FIXED_SIZE + extra;
  return int(dest->dwSize);
}

int KaAudio_CopyWfx(WAVEFORMATEX* dest, DWORD destSize, const WAVEFORMATEX* src) noexcept {
  if (!dest || !src) return -1;
  const size_t n = sizeof(WAVEFORMATEX) + src->cbSize;
  if (destSize < n) return -1;
  std::memmove(dest, src, n);
  return int(n);
}

int KaAudio_CopyWfxToWfExt(WAVEFORMATEXTENSIBLE* dest, const WAVEFORMATEX* src) noexcept {
  if (!dest || !src) return -1;
  const size_t n =
      std::min<size_t>(sizeof(WAVEFORMATEX) + src->cbSize, sizeof(WAVEFORMATEXTENSIBLE));
  std::memmove(dest, src, n);
  return int(n);
}

int KaAudio_CopyWfExt(WAVEFORMATEXTENSIBLE* dest, const WAVEFORMATEXTENSIBLE* src) noexcept {
  return KaAudio_CopyWfxToWfExt(dest, src ? &src->Format : nullptr);
}

BOOL KaAudio_CopyWfExtToWfx(WAVEFORMATEX* dest, const WAVEFORMATEXTENSIBLE* src) noexcept {
  if (!dest || !src) return FALSE;
  if (src->Format.wFormatTag != WAVE_FORMAT_EXTENSIBLE) {
    std::memmove(dest, &src->Format, sizeof(WAVEFORMATEX));
    return TRUE;
  }
  if (src->Format.cbSize < 22) return FALSE;
  WORD tag = 0;
  if (src->SubFormat == KSDATAFORMAT_SUBTYPE_PCM)
    tag = WAVE_FORMAT_PCM;
  else if (src->SubFormat == KSDATAFORMAT_SUBTYPE_IEEE_FLOAT)
    tag = WAVE_FORMAT_IEEE_FLOAT;
  else
    return FALSE;
  WAVEFORMATEX w = src->Format;
  w.wFormatTag = tag;
  w.cbSize = 0;
  *dest = w;
  return TRUE;
}

// ---------------------------------------------------------------- allocated copies

WAVEFORMATEX* KaAudio_AllocAndCopyWfx(const _kawaveformat* k,
                                      KAWAVEFORMAT_COPY_DEST dest) noexcept {
  if (!k) return nullptr;
  const bool extensible =
      wantsExtensible(*k, sizeof(WAVEFORMATEXTENSIBLE), dest) ||
      (k->IsCompressed() && dest != KAWFCOPY_WFX_NOMASK && k->dwChannelMask != 0 &&
       k->dwChannelMask != KaAudio_DefaultChannelMask(k->nChannels));
  const DWORD size = DWORD((extensible ? sizeof(WAVEFORMATEXTENSIBLE) : sizeof(WAVEFORMATEX)) +
                           (k->IsCompressed() ? k->ExtraSize() : 0));
  KAHGLOBAL h = KaGlobalAlloc(GPTR, size);
  if (!h) return nullptr;
  auto* w = static_cast<WAVEFORMATEX*>(KaGlobalLock(h));
  if (!w ||
      KaAudio_GeneralCopyWfx(w, size, k, extensible ? KAWFCOPY_EXT : KAWFCOPY_WFX_NOMASK) < 0) {
    KaGlobalFree(h);
    return nullptr;
  }
  return w;
}

WAVEFORMATEX* KaAudio_AllocAndCopyWfx(const WAVEFORMATEX* wfx,
                                      KAWAVEFORMAT_COPY_DEST dest) noexcept {
  if (!wfx) return nullptr;
  const bool extensible = wfx->wFormatTag == WAVE_FORMAT_EXTENSIBLE;
  if (dest != KAWFCOPY_AUTO &&
      ((extensible && dest != KAWFCOPY_EXT) ||
       (!extensible && dest != KAWFCOPY_WFX && dest != KAWFCOPY_WFX_NOMASK))) {
    alignas(8) BYTE buffer[KAWAVEFORMAT_EXTRA_OFFSET + KAWAVEFORMAT_MAX_EXTRA];
    auto* k = reinterpret_cast<_kawaveformat*>(buffer);
    k->Init(sizeof(buffer), wfx);
    return KaAudio_AllocAndCopyWfx(k, dest);
  }
  const size_t size = sizeof(WAVEFORMATEX) + wfx->cbSize;
  KAHGLOBAL h = KaGlobalAlloc(GPTR, size);
  if (!h) return nullptr;
  auto* w = static_cast<WAVEFORMATEX*>(KaGlobalLock(h));
  if (!w) {
    KaGlobalFree(h);
    return nullptr;
  }
  std::memcpy(w, wfx, size);
  return w;
}

void KaAudio_FreeWfx(WAVEFORMATEX* wfx) noexcept { KaGlobalFreePtr(wfx); }

// ---------------------------------------------------------------- call helpers

_kawaveformat_wfxplus::_kawaveformat_wfxplus(const _kawaveformat& k,
                                             KAWAVEFORMAT_COPY_DEST dest) noexcept {
  const int n = KaAudio_GeneralCopyWfx(&wfx_.Format, sizeof(bytes_), &k, dest);
  valid_ = n > 0;
  size_ = valid_ ? DWORD(n) : 0;
}

_kawaveformat_wfxcopyhelper::_kawaveformat_wfxcopyhelper(const _kawaveformat& k) noexcept {
  _kawaveformat typed = {};
  std::memcpy(&typed, &k, KAWAVEFORMAT_FIXED_SIZE);
  typed.dwSize = KAWAVEFORMAT_FIXED_SIZE;
  KaAudio_GeneralCopyWfx(&wfx_, sizeof(wfx_), &typed, KAWFCOPY_WFX_NOMASK);
}

_kawaveformat_wfxecopyhelper::_kawaveformat_wfxecopyhelper(const _kawaveformat& k) noexcept {
  _kawaveformat typed = {};
  std::memcpy(&typed, &k, KAWAVEFORMAT_FIXED_SIZE);
  typed.dwSize = KAWAVEFORMAT_FIXED_SIZE;
  KaAudio_GeneralCopyWfx(&wfx_.Format, sizeof(wfx_), &typed, KAWFCOPY_EXT);
}
