// The wave-format record: sample types, system descriptions both ways, comparisons,
// buffer limits and display texts.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "ostra/kaaudio.h"

namespace {

WAVEFORMATEX plain(WORD tag, WORD channels, DWORD rate, WORD bits, WORD align = 0) {
  WAVEFORMATEX w{};
  w.wFormatTag = tag;
  w.nChannels = channels;
  w.nSamplesPerSec = rate;
  w.wBitsPerSample = bits;
  w.nBlockAlign = align ? align : WORD(channels * bits / 8);
  w.nAvgBytesPerSec = w.nBlockAlign * rate;
  return w;
}

WAVEFORMATEXTENSIBLE extensible(const GUID& sub, WORD channels, DWORD rate, WORD bits, WORD valid,
                                DWORD mask) {
  WAVEFORMATEXTENSIBLE e{};
  e.Format = plain(WAVE_FORMAT_EXTENSIBLE, channels, rate, bits);
  e.Format.cbSize = 22;
  e.Samples.wValidBitsPerSample = valid;
  e.dwChannelMask = mask;
  e.SubFormat = sub;
  return e;
}

struct Record {
  alignas(8) BYTE bytes[KAWAVEFORMAT_BUFFER_SIZE];
  _kawaveformat* operator->() { return reinterpret_cast<_kawaveformat*>(bytes); }
  _kawaveformat& operator*() { return *reinterpret_cast<_kawaveformat*>(bytes); }
};

TEST(WaveFormat, SampleTypeTableAndTags) {
  struct Row {
    WORD tag, bits;
    KASAMPLETYPE type;
    int bytes, typeBits;
    WORD typeTag;
  } rows[] = {
      {1, 8, KASAMPLE_PCM8, 1, 8, 1},
      {1, 16, KASAMPLE_PCM16, 2, 16, 1},
      {1, 20, KASAMPLE_PCM24, 3, 24, 1},
      {1, 24, KASAMPLE_PCM24, 3, 24, 1},
      {1, 32, KASAMPLE_PCM32, 4, 32, 1},
      {3, 32, KASAMPLE_FLOAT32, 4, 32, 3},
      {3, 64, KASAMPLE_FLOAT64, 8, 64, 3},
      {0xFE00, 24, KASAMPLE_PCM24IN32, 4, 32, 0xFE00},
      {0xFE01, 8, KASAMPLE_PCM8SIGNED, 1, 8, 0xFE01},
      {0xFE01, 16, KASAMPLE_PCM16, 2, 16, 1},
      {0xFE02, 8, KASAMPLE_PCM8, 1, 8, 1},
      {0xFE02, 16, KASAMPLE_MAC16, 2, 16, 0xFE02},
      {0xFE02, 24, KASAMPLE_MAC24, 3, 24, 0xFE02},
      {0xFE02, 32, KASAMPLE_MAC32, 4, 32, 0xFE02},
      {0xFE03, 16, KASAMPLE_RA16, 0, 0, 0},
      {0xFE03, 24, KASAMPLE_RA24, 0, 0, 0},
      {3, 16, KASAMPLE_NONE, 0, 0, 0},
      {0x55, 16, KASAMPLE_NONE, 0, 0, 0},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(testing::Message() << std::hex << r.tag << " " << std::dec << r.bits);
    EXPECT_EQ(KaAudio_GetSampleType2(r.tag, r.bits), r.type);
    EXPECT_EQ(KaAudio_BytesFromSampleType(r.type), r.bytes);
    EXPECT_EQ(KaAudio_BitsFromSampleType(r.type), r.typeBits);
    EXPECT_EQ(KaAudio_FormatTagFromSampleType(r.type), r.typeTag);
  }
}

TEST(WaveFormat, ExtensibleSampleTypes) {
  auto pcm = extensible(KSDATAFORMAT_SUBTYPE_PCM, 2, 48000, 32, 24, 3);
  EXPECT_EQ(KaAudio_GetSampleType(&pcm.Format), KASAMPLE_PCM24IN32);
  pcm.Samples.wValidBitsPerSample = 32;
  EXPECT_EQ(KaAudio_GetSampleType(&pcm.Format), KASAMPLE_PCM32);
  auto flt = extensible(KSDATAFORMAT_SUBTYPE_IEEE_FLOAT, 6, 48000, 32, 32, 0x3F);
  EXPECT_EQ(KaAudio_GetSampleType(&flt.Format), KASAMPLE_FLOAT32);
  auto odd = extensible(KaGuid("00000001-0000-0010-8000-00AA00389B72"), 2, 48000, 16, 16, 3);
  EXPECT_EQ(KaAudio_GetSampleType(&odd.Format), KASAMPLE_NONE);
  EXPECT_EQ(KaAudio_GetSampleType(nullptr), KASAMPLE_NONE);
}

TEST(WaveFormat, InitFromPlainDescriptionsRepairsPcm) {
  Record r;
  WAVEFORMATEX w20 = plain(1, 2, 44100, 20, 5);
  r->Init(sizeof(r.bytes), &w20);
  EXPECT_EQ(r->SampleType, KASAMPLE_PCM24);
  EXPECT_EQ(r->nBlockAlign, 6);
  EXPECT_FALSE(r->IsCompressed());
  EXPECT_EQ(r->BitsPerSample(), 24);

  WAVEFORMATEX fix = plain(1, 2, 44100, 20, 5);
  EXPECT_TRUE(KaAudio_FixBadWfx(&fix));
  EXPECT_EQ(fix.wBitsPerSample, 24);
  EXPECT_EQ(fix.nBlockAlign, 6);
  EXPECT_FALSE(KaAudio_FixBadWfx(&fix));
  WAVEFORMATEX other = plain(0x55, 2, 44100, 0, 1);
  EXPECT_FALSE(KaAudio_FixBadWfx(&other));

  r->InitAsWfx(1, 96000, 20, 3, 0, sizeof(r.bytes));
  EXPECT_EQ(r->SampleType, KASAMPLE_PCM24);
  EXPECT_EQ(r->nBlockAlign, 9);
  EXPECT_EQ(r->nAvgBytesPerSec, 9u * 96000);
  r->InitAsWfx(0x11, 22050, 4, 1, 0, sizeof(r.bytes));
  EXPECT_TRUE(r->IsCompressed());
  EXPECT_EQ(r->FormatTag(), 0x11);
  EXPECT_EQ(r->BitsPerSample(), 4);
}

TEST(WaveFormat, SmallBuffersAreNeverOverrun) {
  alignas(8) BYTE buf[64];
  for (DWORD size : {32u, 33u, 34u, 40u}) {
    std::memset(buf, 0xAB, sizeof(buf));
    auto* k = reinterpret_cast<_kawaveformat*>(buf);
    k->Init(48000, KASAMPLE_FLOAT32, 2, 0, size);
    const DWORD cleared = size < 34 ? 32 : size;
    for (DWORD i = cleared; i < sizeof(buf); ++i) ASSERT_EQ(buf[i], 0xAB) << size << " " << i;
    EXPECT_EQ(k->dwSize, 32u);
    EXPECT_EQ(k->nBlockAlign, 8);

    // A compressed description with 8 extra bytes keeps as many as fit.
    alignas(8) BYTE desc[18 + 8];
    WAVEFORMATEX w = plain(0x55, 2, 44100, 0, 1);
    w.cbSize = 8;
    std::memcpy(desc, &w, 18);
    for (int i = 0; i < 8; ++i) desc[18 + i] = BYTE(i + 1);
    std::memset(buf, 0xAB, sizeof(buf));
    k->Init(size, reinterpret_cast<WAVEFORMATEX*>(desc));
    const DWORD kept = size < 34 ? 0 : std::min<DWORD>(8, size - 34);
    EXPECT_EQ(k->dwSize, 32 + kept);
    EXPECT_EQ(k->ExtraSize(), kept);
    for (DWORD i = std::max(cleared, 34 + kept); i < sizeof(buf); ++i) ASSERT_EQ(buf[i], 0xAB);
  }
}

TEST(WaveFormat, DefaultMaskEqualsZeroMask) {
  Record a, b;
  a->Init(48000, KASAMPLE_PCM16, 2, 0, sizeof(a.bytes));
  b->Init(48000, KASAMPLE_PCM16, 2, 3, sizeof(b.bytes));
  EXPECT_TRUE(*a == *b);
  b->dwChannelMask = 0x6;
  EXPECT_FALSE(*a == *b);
  auto e = extensible(KSDATAFORMAT_SUBTYPE_PCM, 2, 48000, 16, 16, 3);
  EXPECT_TRUE(*a == e.Format);
  e.dwChannelMask = 0;
  EXPECT_TRUE(*a == e.Format);
  WAVEFORMATEX w = plain(1, 2, 48000, 16);
  EXPECT_TRUE(*a == w);
  w.nSamplesPerSec = 44100;
  EXPECT_FALSE(*a == w);
  WAVEFORMATEX x = plain(1, 2, 48000, 16), y = plain(1, 2, 48000, 16, 7);
  EXPECT_TRUE(KaAudio_IsEqualFormat(&x, &y));
  y.wBitsPerSample = 24;
  EXPECT_FALSE(KaAudio_IsEqualFormat(&x, &y));
}

TEST(WaveFormat, CopyDestChoosesTheDescription) {
  struct Case {
    KASAMPLETYPE type;
    WORD channels;
    DWORD mask;
    bool fromExt;
    KAWAVEFORMAT_COPY_DEST dest;
    DWORD destSize;
    int expected;  // bytes written
  } cases[] = {
      {KASAMPLE_PCM16, 2, 0, false, KAWFCOPY_AUTO, 40, 18},
      {KASAMPLE_PCM16, 2, 0, true, KAWFCOPY_AUTO, 40, 40},
      {KASAMPLE_PCM16, 2, 0, true, KAWFCOPY_AUTO, 39, 18},
      {KASAMPLE_PCM16, 2, 0x600, false, KAWFCOPY_AUTO, 40, 40},
      {KASAMPLE_PCM16, 2, 3, false, KAWFCOPY_AUTO, 40, 18},
      {KASAMPLE_PCM16, 2, 0x600, false, KAWFCOPY_WFX, 40, 18},
      {KASAMPLE_PCM16, 2, 0, false, KAWFCOPY_EXT_MULTICHANNEL, 40, 18},
      {KASAMPLE_PCM16, 6, 0, false, KAWFCOPY_EXT_MULTICHANNEL, 40, 40},
      {KASAMPLE_PCM16, 1, 0, false, KAWFCOPY_EXT, 40, 40},
      {KASAMPLE_PCM16, 1, 0, false, KAWFCOPY_EXT, 39, -1},
      {KASAMPLE_PCM16, 1, 0, false, KAWFCOPY_WFX, 17, -1},
  };
  for (const Case& c : cases) {
    Record r;
    r->Init(44100, c.type, c.channels, c.mask, sizeof(r.bytes));
    if (c.fromExt) r->dwFlags |= KAWF_FLAG_EXTENSIBLE;
    alignas(8) BYTE out[64];
    std::memset(out, 0xCD, sizeof(out));
    const int n =
        KaAudio_GeneralCopyWfx(reinterpret_cast<WAVEFORMATEX*>(out), c.destSize, &*r, c.dest);
    EXPECT_EQ(n, c.expected) << int(c.dest) << " " << c.destSize;
    for (size_t i = std::max(n, 0); i < sizeof(out); ++i) ASSERT_EQ(out[i], 0xCD);
    // A plain description cannot carry a speaker mask other than the default.
    if (n == 40 || (n > 0 && (c.mask == 0 || c.mask == KaAudio_DefaultChannelMask(c.channels)))) {
      EXPECT_TRUE(*r == *reinterpret_cast<WAVEFORMATEX*>(out));
    }
  }
}

TEST(WaveFormat, DescriptionsRoundTripThroughRecords) {
  std::vector<std::vector<BYTE>> descs;
  auto add = [&](const void* p, size_t n) {
    descs.emplace_back(static_cast<const BYTE*>(p), static_cast<const BYTE*>(p) + n);
  };
  auto e24 = extensible(KSDATAFORMAT_SUBTYPE_PCM, 2, 48000, 32, 24, 3);
  add(&e24, 40);
  auto e51 = extensible(KSDATAFORMAT_SUBTYPE_IEEE_FLOAT, 6, 48000, 32, 32, 0x60F);
  add(&e51, 40);
  // An unknown sub-format code with four bytes after the extension stays raw.
  BYTE unknown[44];
  auto eu = extensible(KaAudio_SubFormatFromTag(0x1234), 2, 44100, 12, 12, 3);
  eu.Format.cbSize = 26;
  eu.Format.nBlockAlign = 3;
  eu.Format.nAvgBytesPerSec = 3 * 44100;
  std::memcpy(unknown, &eu, 40);
  std::memcpy(unknown + 40, "\x01\x02\x03\x04", 4);
  add(unknown, 44);
  BYTE adpcm[18 + 6];
  WAVEFORMATEX wa = plain(0x2, 1, 22050, 4, 256);
  wa.nAvgBytesPerSec = 11155;
  wa.cbSize = 6;
  std::memcpy(adpcm, &wa, 18);
  std::memcpy(adpcm + 18, "\xF4\x01\x07\x00\x00\x01", 6);
  add(adpcm, 24);

  for (const auto& d : descs) {
    const auto* w = reinterpret_cast<const WAVEFORMATEX*>(d.data());
    Record r;
    r->Init(sizeof(r.bytes), w);
    EXPECT_TRUE(*r == *w);
    alignas(8) BYTE out[128] = {};
    const int n = KaAudio_GeneralCopyWfx(reinterpret_cast<WAVEFORMATEX*>(out), sizeof(out), &*r,
                                         KAWFCOPY_AUTO);
    ASSERT_EQ(n, int(d.size()));
    EXPECT_EQ(0, std::memcmp(out, d.data(), d.size()));

    WAVEFORMATEX* copy = KaAudio_AllocAndCopyWfx(&*r, KAWFCOPY_AUTO);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(0, std::memcmp(copy, d.data(), d.size()));
    KaAudio_FreeWfx(copy);
  }
  // Asking for the other kind rebuilds the description.
  WAVEFORMATEX* asPlain = KaAudio_AllocAndCopyWfx(&e51.Format, KAWFCOPY_WFX_NOMASK);
  ASSERT_NE(asPlain, nullptr);
  EXPECT_EQ(asPlain->wFormatTag, WAVE_FORMAT_IEEE_FLOAT);
  EXPECT_EQ(asPlain->cbSize, 0);
  KaAudio_FreeWfx(asPlain);
}

TEST(WaveFormat, RecordCopiesRespectTheDestination) {
  Record src;
  BYTE desc[18 + 10];
  WAVEFORMATEX w = plain(0x55, 2, 44100, 0, 1);
  w.cbSize = 10;
  std::memcpy(desc, &w, 18);
  std::memset(desc + 18, 0x5A, 10);
  src->Init(sizeof(src.bytes), reinterpret_cast<WAVEFORMATEX*>(desc));
  ASSERT_EQ(src->ExtraSize(), 10);
  for (DWORD size : {32u, 40u, 44u, 136u}) {
    alignas(8) BYTE out[160];
    std::memset(out, 0xEE, sizeof(out));
    auto* d = reinterpret_cast<_kawaveformat*>(out);
    const int n = KaAudio_GeneralCopyKaWaveFormat(d, size, &*src);
    const WORD expectExtra = size >= 44 ? 10 : 0;
    EXPECT_EQ(n, int(32 + expectExtra));
    EXPECT_EQ(d->ExtraSize(), expectExtra);
    EXPECT_EQ(*d == *src, expectExtra == 10);
    for (DWORD i = size; i < sizeof(out); ++i) ASSERT_EQ(out[i], 0xEE) << size;
  }
}

TEST(WaveFormat, PlainAndExtensibleCopies) {
  auto e = extensible(KSDATAFORMAT_SUBTYPE_IEEE_FLOAT, 2, 48000, 32, 32, 3);
  WAVEFORMATEX w{};
  ASSERT_TRUE(KaAudio_CopyWfExtToWfx(&w, &e));
  EXPECT_EQ(w.wFormatTag, WAVE_FORMAT_IEEE_FLOAT);
  EXPECT_EQ(w.cbSize, 0);
  auto odd = extensible(KaAudio_SubFormatFromTag(0x1234), 2, 48000, 32, 32, 3);
  WAVEFORMATEX untouched = plain(1, 1, 8000, 8);
  EXPECT_FALSE(KaAudio_CopyWfExtToWfx(&untouched, &odd));
  EXPECT_EQ(untouched.nSamplesPerSec, 8000u);

  WAVEFORMATEXTENSIBLE back{};
  EXPECT_EQ(KaAudio_CopyWfxToWfExt(&back, &w), 18);
  EXPECT_EQ(KaAudio_CopyWfExt(&back, &e), 40);
  EXPECT_EQ(0, std::memcmp(&back, &e, 40));
  BYTE small[20];
  EXPECT_EQ(KaAudio_CopyWfx(reinterpret_cast<WAVEFORMATEX*>(small), sizeof(small), &e.Format), -1);
  EXPECT_EQ(KaAudio_CopyWfx(reinterpret_cast<WAVEFORMATEX*>(small), sizeof(small), &w), 18);
}

TEST(WaveFormat, HelpersHoldDescriptions) {
  Record r;
  r->Init(48000, KASAMPLE_PCM24IN32, 6, 0, sizeof(r.bytes));
  _kawaveformat_wfxcopyhelper p(*r);
  EXPECT_EQ(p.get()->wFormatTag, WAVE_FORMAT_KA_PCM24IN32);
  _kawaveformat_wfxecopyhelper x(*r);
  EXPECT_EQ(KaAudio_GetSampleType(x), KASAMPLE_PCM24IN32);
  EXPECT_EQ(x.get()->dwChannelMask, 0x3Fu);
  _kawaveformat_wfxplus auto6(*r, KAWFCOPY_EXT_MULTICHANNEL);
  EXPECT_EQ(auto6.size(), 40u);
  EXPECT_TRUE(*r == *auto6.get());
}

std::u16string text(int (*fn)(KASAMPLETYPE, KAWCHAR*, int), KASAMPLETYPE t) {
  KAWCHAR buf[64];
  EXPECT_GE(fn(t, buf, 64), 0);
  return buf;
}

// The texts are localized: each names its depth, and no two types read alike.
TEST(WaveFormat, DisplayTexts) {
  const struct {
    KASAMPLETYPE type;
    const char16_t* depth;
  } types[] = {{KASAMPLE_PCM16, u"16"},     {KASAMPLE_FLOAT64, u"64"}, {KASAMPLE_FLOAT32, u"32"},
               {KASAMPLE_PCM24IN32, u"24"}, {KASAMPLE_PCM24, u"24"},   {KASAMPLE_MAC24, u"24"},
               {KASAMPLE_RA24, u"24"},      {KASAMPLE_PCM8, u"8"},     {KASAMPLE_PCM8SIGNED, u"8"}};
  std::set<std::u16string> seen;
  for (const auto& t : types) {
    const std::u16string s = text(KaAudio_GetSampleTypeText, t.type);
    EXPECT_NE(s.find(t.depth), std::u16string::npos) << t.type;
    EXPECT_TRUE(seen.insert(s).second) << t.type;
  }
  EXPECT_EQ(text(KaAudio_GetSampleTypeText, KASAMPLE_NONE), u"");
  const struct {
    KASAMPLETYPE type;
    BOOL effective;
    const char16_t* depth;
  } depths[] = {{KASAMPLE_FLOAT64, TRUE, u"53"},
                {KASAMPLE_RA16, FALSE, u"32"},
                {KASAMPLE_PCM8SIGNED, FALSE, u"8"}};
  KAWCHAR buf[64];
  for (const auto& d : depths) {
    KaAudio_GetBitDepthText(d.type, d.effective, buf, 64);
    EXPECT_NE(std::u16string(buf).find(d.depth), std::u16string::npos) << d.type;
  }

  // Truncation stays inside the capacity and terminates the text.
  KAWCHAR tiny[5] = {1, 1, 1, 1, 1};
  EXPECT_EQ(KaAudio_GetSampleTypeText(KASAMPLE_FLOAT32, tiny, 4), 3);
  EXPECT_EQ(std::u16string(tiny), text(KaAudio_GetSampleTypeText, KASAMPLE_FLOAT32).substr(0, 3));
  EXPECT_EQ(tiny[4], 1);
  EXPECT_EQ(KaAudio_GetSampleTypeText(KASAMPLE_FLOAT32, tiny, 0), -1);

  Record r;
  r->Init(48000, KASAMPLE_PCM24, 2, 0, sizeof(r.bytes));
  KaAudio_GetAttribsText(&*r, buf, 64);
  const std::u16string attribs = buf;
  for (const char16_t* part : {u"48000", u"24"})
    EXPECT_NE(attribs.find(part), std::u16string::npos);
  r->Init(44100, KASAMPLE_PCM16, 1, 0, sizeof(r.bytes));
  KaAudio_GetAttribsText(&*r, buf, 64);
  EXPECT_NE(std::u16string(buf).find(u"44100"), std::u16string::npos);
  EXPECT_NE(std::u16string(buf).find(u"16"), std::u16string::npos);
  EXPECT_NE(std::u16string(buf), attribs);
}

}  // namespace
