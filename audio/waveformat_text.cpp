// Display texts of sample types, bit depths and whole formats, composed from the
// localized templates of the kernel's string tables (numbers 2000-2099).
#include <initializer_list>
#include <string>

#include "kernel/internal/strings.h"
#include "kernel/internal/wformat.h"
#include "ostra/kaaudio.h"

namespace {

enum : DWORD {
  kTextBits = 2000,
  kTextBitsFloat = 2001,
  kTextUnpacked24 = 2002,
  kTextSigned8 = 2003,
  kTextBitsMac = 2004,
  kTextBitsRa = 2005,
  kTextDepth24 = 2006,
  kTextDepth8 = 2007,
  kTextMono = 2010,
  kTextStereo = 2011,
  kTextChannels = 2012,
  kTextHertz = 2013,
  kTextCompressed = 2014,
  kTextAttribs = 2015,
};

// Used only when the string tables do not have the number (they always should).
const char16_t* englishFallback(DWORD id) {
  switch (id) {
    case kTextBits:
      return u"%d Bit";
    case kTextBitsFloat:
      return u"%d Bit (IEEE Float)";
    case kTextUnpacked24:
      return u"24 Bit (Unpacked)";
    case kTextSigned8:
      return u"8 Bit (Signed)";
    case kTextBitsMac:
      return u"%d Bit (MAC)";
    case kTextBitsRa:
      return u"%d Bit (RA)";
    case kTextDepth24:
      return u"24 Bit";
    case kTextDepth8:
      return u"8 Bit";
    case kTextMono:
      return u"Mono";
    case kTextStereo:
      return u"Stereo";
    case kTextChannels:
      return u"%d Channels";
    case kTextHertz:
      return u"%d Hz";
    case kTextCompressed:
      return u"Compressed (format %d)";
    case kTextAttribs:
      return u"%s, %s, %s";
  }
  return u"";
}

const char16_t* localized(DWORD id) {
  const KAWCHAR* s = ostra::kernel::kernelString(id);
  return s ? s : englishFallback(id);
}

using ostra::kernel::WArg;

// The kernel's formatter checks each field against its argument, so a translated
// template with a wrong field yields the text up to that field, never garbage.
std::u16string format(const char16_t* pattern, std::initializer_list<WArg> args) {
  std::u16string out;
  ostra::kernel::formatWide(out, pattern, args.begin(), args.size());
  return out;
}
std::u16string format(const char16_t* pattern, long long n) {
  return format(pattern, {WArg::sint(n)});
}

int deliver(const std::u16string& s, KAWCHAR* text, int capacity) {
  if (!text || capacity <= 0) return -1;
  size_t n = std::min<size_t>(s.size(), size_t(capacity) - 1);
  // Never leave half of a surrogate pair at the end of a truncated text.
  if (n < s.size() && n > 0 && s[n - 1] >= 0xD800 && s[n - 1] <= 0xDBFF) --n;
  s.copy(text, n);
  text[n] = 0;
  return int(n);
}

std::u16string sampleTypeText(KASAMPLETYPE type) {
  switch (type) {
    case KASAMPLE_PCM8:
    case KASAMPLE_PCM16:
    case KASAMPLE_PCM24:
    case KASAMPLE_PCM32:
      return format(localized(kTextBits), KaAudio_BitsFromSampleType(type));
    case KASAMPLE_FLOAT32:
    case KASAMPLE_FLOAT64:
      return format(localized(kTextBitsFloat), KaAudio_BitsFromSampleType(type));
    case KASAMPLE_PCM24IN32:
      return localized(kTextUnpacked24);
    case KASAMPLE_PCM8SIGNED:
      return localized(kTextSigned8);
    case KASAMPLE_MAC16:
    case KASAMPLE_MAC24:
    case KASAMPLE_MAC32:
      return format(localized(kTextBitsMac), KaAudio_BitsFromSampleType(type));
    case KASAMPLE_RA16:
      return format(localized(kTextBitsRa), 16);
    case KASAMPLE_RA24:
      return format(localized(kTextBitsRa), 24);
    default:
      return {};
  }
}

std::u16string bitDepthText(KASAMPLETYPE type, bool precision) {
  long long bits = 0;
  switch (type) {
    case KASAMPLE_PCM24IN32:
      return localized(kTextDepth24);
    case KASAMPLE_PCM8SIGNED:
      return localized(kTextDepth8);
    case KASAMPLE_FLOAT32:
      bits = precision ? 24 : 32;
      break;
    case KASAMPLE_FLOAT64:
      bits = precision ? 53 : 64;
      break;
    // The 0xFE03 family reports no container size of its own.
    case KASAMPLE_RA16:
      bits = precision ? 16 : 32;
      break;
    case KASAMPLE_RA24:
      bits = precision ? 24 : 32;
      break;
    default:
      bits = KaAudio_BitsFromSampleType(type);
  }
  if (bits == 0) return {};
  return format(localized(kTextBits), bits);
}

}  // namespace

int KaAudio_GetSampleTypeText(KASAMPLETYPE type, KAWCHAR* text, int capacity) noexcept {
  try {
    return deliver(sampleTypeText(type), text, capacity);
  } catch (...) {
    return deliver({}, text, capacity);
  }
}

int KaAudio_GetBitDepthText(KASAMPLETYPE type, BOOL precision, KAWCHAR* text,
                            int capacity) noexcept {
  try {
    return deliver(bitDepthText(type, precision != FALSE), text, capacity);
  } catch (...) {
    return deliver({}, text, capacity);
  }
}

int KaAudio_GetAttribsText(const _kawaveformat* kwf, KAWCHAR* text, int capacity) noexcept {
  try {
    if (!kwf) return deliver({}, text, capacity);
    const std::u16string rate = format(localized(kTextHertz), (long long)kwf->nSamplesPerSec);
    const std::u16string kind = kwf->IsCompressed()
                                    ? format(localized(kTextCompressed), (long long)kwf->wFormatTag)
                                    : sampleTypeText(kwf->SampleType);
    std::u16string channels;
    if (kwf->nChannels == 1)
      channels = localized(kTextMono);
    else if (kwf->nChannels == 2)
      channels = localized(kTextStereo);
    else
      channels = format(localized(kTextChannels), (long long)kwf->nChannels);
    return deliver(
        format(localized(kTextAttribs),
               {WArg::wide(rate.c_str()), WArg::wide(kind.c_str()), WArg::wide(channels.c_str())}),
        text, capacity);
  } catch (...) {
    return deliver({}, text, capacity);
  }
}
