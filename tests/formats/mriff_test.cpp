#include <gtest/gtest.h>

#include <array>

#include "format_test_support.h"
#include "ostra/kaerror.h"
#include "ostra/mriff.h"

using namespace formatstest;

namespace {

// A buffer with guard bytes after its capacity, so that a write past the end shows.
struct Arena {
  std::array<BYTE, 256> bytes;
  Arena() { bytes.fill(0xEE); }
  bool guardIntact(size_t capacity) const {
    return std::all_of(bytes.begin() + capacity, bytes.end(), [](BYTE b) { return b == 0xEE; });
  }
};

WAVEFORMATEX stereo16() { return WAVEFORMATEX{WAVE_FORMAT_PCM, 2, 44100, 0, 0, 16, 0}; }

Bytes waveImage(const Bytes& fmt, const Bytes& data) {
  return riff("WAVE", Bytes().add(chunk("fmt ", fmt)).add(chunk("data", data)));
}

}  // namespace

TEST(MRiff, InitAndPositionsClampIntoTheData) {
  Arena a;
  _tMRIFF r{};
  EXPECT_EQ(mriff_Init(nullptr, a.bytes.data(), 1, 2), E_POINTER);
  EXPECT_EQ(mriff_Init(&r, a.bytes.data(), 10, 8), E_INVALIDARG);
  EXPECT_EQ(mriff_Init(&r, nullptr, 0, 8), E_INVALIDARG);
  ASSERT_EQ(mriff_Init(&r, a.bytes.data(), 40, 64), S_OK);
  EXPECT_EQ(r.dataEnd - r.base, 40);
  EXPECT_EQ(r.capacityEnd - r.base, 64);

  struct Case {
    LONG distance;
    DWORD method;
    DWORD expect;
  };
  const Case cases[] = {
      {100, FILE_END, 40}, {-5, FILE_BEGIN, 0},  {30, FILE_BEGIN, 30}, {-10, FILE_CURRENT, 20},
      {-50, FILE_END, 0},  {7, FILE_CURRENT, 7}, {3, 9, 0xFFFFFFFFu},
  };
  for (const Case& c : cases)
    EXPECT_EQ(mriff_SetFilePointer(&r, c.distance, nullptr, c.method), c.expect)
        << c.distance << " from " << c.method;
  EXPECT_EQ(mriff_GetFilePointer(&r), r.base + 7);

  EXPECT_EQ(mriff_SkipChunk(&r, 7), 8u);
  EXPECT_EQ(mriff_GetFilePointer(&r), r.base + 15);
  EXPECT_EQ(mriff_SkipChunk(&r, 101), 102u);  // reported whole, moved only to the end
  EXPECT_EQ(mriff_GetFilePointer(&r), r.dataEnd);
  ASSERT_EQ(mriff_SeekDataStart(&r), S_OK);
  DWORD where = 0;
  r.current = r.base + 50;  // a record the caller moved past its data
  ASSERT_EQ(mriff_SaveLocation(&r, &where), S_OK);
  EXPECT_EQ(where, 40u);
  EXPECT_EQ(r.current, r.dataEnd);
  ASSERT_EQ(mriff_RestoreLocation(&r, 1000), S_OK);
  EXPECT_EQ(r.current, r.dataEnd);
  EXPECT_EQ(mriff_UpdateDataSize(&r, 10), 10u);
  EXPECT_EQ(mriff_UpdateDataSize(&r, 100), 14u);
  EXPECT_EQ(r.dataEnd, r.capacityEnd);
  EXPECT_EQ(r.dataSize, 40u);
}

TEST(MRiff, ReadsAndWritesStopAtTheirEnds) {
  Arena a;
  _tMRIFF r{};
  ASSERT_EQ(mriff_Init(&r, a.bytes.data(), 0, 20), S_OK);
  DWORD n = 0;
  EXPECT_TRUE(mriff_WriteFile(&r, "0123456789abcdef", 16, &n));
  EXPECT_EQ(n, 16u);
  EXPECT_TRUE(mriff_WriteFile(&r, "ABCDEFGHIJ", 10, &n));  // 4 bytes of room
  EXPECT_EQ(n, 4u);
  EXPECT_EQ(r.dataEnd, r.base + 20);
  EXPECT_TRUE(a.guardIntact(20));

  mriff_SetFilePointer(&r, 14, nullptr, FILE_BEGIN);
  char buf[16] = {};
  EXPECT_FALSE(mriff_ReadFile(&r, buf, 10, &n));
  EXPECT_EQ(n, 6u);
  EXPECT_EQ(std::string(buf, 6), "efABCD");
  mriff_SetFilePointer(&r, 17, nullptr, FILE_BEGIN);
  EXPECT_EQ(mriff_ReadData(&r, buf, 3), S_OK);  // the pad of an odd size is clamped away
  EXPECT_EQ(r.current, r.dataEnd);
  DWORD id = 0, size = 0;
  mriff_SetFilePointer(&r, 16, nullptr, FILE_BEGIN);
  EXPECT_EQ(mriff_ReadChunkHeader(&r, &id, &size), KAERR_READ_FAILED);  // 4 of 8 bytes
  EXPECT_EQ(r.current, r.dataEnd);

  mriff_SetFilePointer(&r, 16, nullptr, FILE_BEGIN);
  EXPECT_EQ(mriff_WriteChunkHeader(&r, RIFF_ID_DATA, 5), KAERR_WRITE_FAILED);
  EXPECT_TRUE(a.guardIntact(20));

  tRIFFDATA rec{40, nullptr};
  mriff_SetFilePointer(&r, 0, nullptr, FILE_BEGIN);
  EXPECT_EQ(mriff_ReadDataAlloc(&r, &rec), KAERR_READ_FAILED);
  rec.size = 4;
  ASSERT_EQ(mriff_ReadDataAlloc(&r, &rec), S_OK);
  EXPECT_EQ(std::string(static_cast<char*>(rec.data), 4), "0123");
  KaGlobalFreePtr(rec.data);
}

TEST(MRiff, BuildsAndWalksAnImage) {
  Arena a;
  _tMRIFF r{};
  ASSERT_EQ(mriff_Init(&r, a.bytes.data(), 0, 200), S_OK);
  ASSERT_EQ(mriff_WriteFileID(&r, RIFF_ID_WAVE, 4 + 12 + 36 + 10), S_OK);
  ASSERT_EQ(mriff_WriteChunkHeader(&r, RIFF_ID_JUNK, 4), S_OK);
  ASSERT_TRUE(mriff_WriteFile(&r, "\0\0\0\0", 4, nullptr));
  ASSERT_EQ(mriff_WriteListHeader(&r, RIFF_ID_INFO, 4 + 12 + 12), S_OK);
  ASSERT_EQ(mriff_WriteChunkHeader(&r, KaFourCC('I', 'A', 'R', 'T'), 3), S_OK);
  ASSERT_TRUE(mriff_WriteFile(&r, "Al\0\0", 4, nullptr));
  ASSERT_EQ(mriff_WriteChunkHeader(&r, KaFourCC('I', 'N', 'A', 'M'), 4), S_OK);
  ASSERT_TRUE(mriff_WriteFile(&r, "Tune", 4, nullptr));
  ASSERT_EQ(mriff_WriteChunkHeader(&r, RIFF_ID_DATA, 2), S_OK);
  ASSERT_TRUE(mriff_WriteFile(&r, "xy", 2, nullptr));
  const Bytes expect =
      riff("WAVE", Bytes()
                       .add(chunk("JUNK", Bytes().zeros(4)))
                       .add(list("INFO", Bytes()
                                             .add(chunk("IART", Bytes().text("Al").zeros(1)))
                                             .add(chunk("INAM", Bytes().text("Tune")))))
                       .add(chunk("data", Bytes().text("xy"))));
  ASSERT_EQ(Bytes(r.base, r.dataEnd), expect);

  // The search logic is the file family's; only what memory changes is checked here.
  DWORD size = 0, left = 0;
  ASSERT_EQ(mriff_FindChunkHeaderInRIFF(&r, RIFF_ID_DATA, &size, &left), S_OK);
  EXPECT_EQ(size, 2u);

  KAWCHAR text[8];
  mriff_SeekDataStart(&r);
  left = 12 + 36 + 10;
  ASSERT_EQ(mriff_GetInfoString(&r, KaFourCC('I', 'N', 'A', 'M'), text, 8, &left), S_OK);
  EXPECT_EQ(std::u16string(text), u"Tun");  // the last byte of the chunk is the terminator
  mriff_SeekDataStart(&r);
  ASSERT_EQ(mriff_GetInfoString(&r, KaFourCC('I', 'A', 'R', 'T'), text, 2, nullptr), S_OK);
  EXPECT_EQ(std::u16string(text), u"A");
  mriff_SeekDataStart(&r);
  EXPECT_EQ(mriff_GetInfoString(&r, KaFourCC('I', 'C', 'O', 'P'), text, 8, nullptr),
            KAERR_NOT_FOUND);

  mriff_SeekDataStart(&r);
  left = 7;
  EXPECT_EQ(mriff_FindChunkHeader(&r, RIFF_ID_DATA, &size, &left), KAERR_NOT_FOUND);
  EXPECT_EQ(left, 7u);
  EXPECT_EQ(mriff_FindChunkHeader(&r, RIFF_ID_FMT, &size), KAERR_READ_FAILED);
  EXPECT_EQ(r.current, r.dataEnd);
  EXPECT_EQ(mriff_ReadFileID(nullptr), E_POINTER);
}

TEST(MRiff, WriteWaveHeader) {
  Arena a;
  _tMRIFF r{};
  ASSERT_EQ(mriff_Init(&r, a.bytes.data(), 0, 100), S_OK);
  const WAVEFORMATEX wfx = stereo16();
  ASSERT_EQ(mriff_WriteWaveHeader(&r, &wfx, 1000, 0), S_OK);
  const Bytes header(r.base, r.dataEnd);
  const WAVEFORMATEX complete{WAVE_FORMAT_PCM, 2, 44100, 176400, 4, 16, 0};
  const Bytes expect =
      join({Bytes().id("RIFF").u32(1036).id("WAVE"), chunk("fmt ", Bytes().put(&complete, 16)),
            Bytes().id("data").u32(1000)});
  EXPECT_EQ(header, expect);

  _kawaveformat kwf{};
  kwf.Init(44100, KASAMPLE_PCM16, 2, 0, sizeof kwf);
  ASSERT_EQ(mriff_Init(&r, a.bytes.data(), 0, 100), S_OK);
  ASSERT_EQ(mriff_WriteWaveHeader(&r, &kwf, 1000, 0), S_OK);
  EXPECT_EQ(Bytes(r.base, r.dataEnd), expect);

  // Other tags keep their 18 bytes as given; the odd total is rounded up to even.
  const WAVEFORMATEX adpcm{2, 1, 22050, 11155, 512, 4, 32};
  ASSERT_EQ(mriff_Init(&r, a.bytes.data(), 0, 100), S_OK);
  ASSERT_EQ(mriff_WriteWaveHeader(&r, &adpcm, 5, 2), S_OK);
  const Bytes other(r.base, r.dataEnd);
  ASSERT_EQ(other.size(), 46u);
  EXPECT_EQ(other.u32At(4), 2u + 20 + 18 + 5 + 1);
  EXPECT_EQ(std::memcmp(other.data() + 20, &adpcm, 18), 0);

  ASSERT_EQ(mriff_Init(&r, a.bytes.data(), 0, 30), S_OK);  // no room for the format body
  EXPECT_EQ(mriff_WriteWaveHeader(&r, &wfx, 0, 0), KAERR_WRITE_FAILED);
  EXPECT_TRUE(a.guardIntact(100));
}

TEST(MRiff, GetWfxParsesWaveImages) {
  Bytes pcm;
  pcm.u16(1).u16(2).u32(48000).u32(192000).u16(4).u16(16);
  Bytes ext;
  ext.u16(WAVE_FORMAT_EXTENSIBLE).u16(4).u32(48000).u32(384000).u16(8).u16(16).u16(22);
  ext.u16(16).u32(0x33).guid(KaAudio_SubFormatFromTag(WAVE_FORMAT_PCM));
  const Bytes samples = Bytes().zeros(16);
  Bytes pastEnd = waveImage(pcm, samples);
  pastEnd.resize(pastEnd.size() - 6);  // the data chunk claims more than the image holds
  Bytes dataFirst = riff("WAVE", Bytes().add(chunk("data", samples)).add(chunk("fmt ", pcm)));
  struct Case {
    const char* what;
    Bytes image;
    HRESULT expect;
    DWORD offset, size;
  };
  const Case cases[] = {
      {"pcm", waveImage(pcm, samples), S_OK, 44, 16},
      {"extensible", waveImage(ext, samples), S_OK, 68, 16},
      {"data before fmt", dataFirst, S_OK, 20, 16},
      {"data past the end", pastEnd, S_OK, 44, 10},
      {"not riff", Bytes().id("RIFX").u32(40).id("WAVE").zeros(40), KAERR_NO_RIFF},
      {"not wave", riff("AVI ", chunk("fmt ", pcm)), E_FAIL},
      {"too short", riff("WAVE", chunk("fmt ", 8)), KAERR_NOT_FOUND},
      {"short fmt", waveImage(Bytes().zeros(12), samples), KAERR_CORRUPT_FILE},
      {"no data", riff("WAVE", Bytes().add(chunk("fmt ", pcm)).add(chunk("JUNK", 30))),
       KAERR_NOT_FOUND},
      {"cut header", Bytes().id("RIFF").u32(4), KAERR_READ_FAILED},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    WAVEFORMATEX wfx{};
    DWORD offset = 0, size = 0;
    EXPECT_EQ(mriff_GetWfx(&wfx, c.image.data(), DWORD(c.image.size()), &offset, &size), c.expect);
    if (c.expect != S_OK) continue;
    EXPECT_EQ(offset, c.offset);
    EXPECT_EQ(size, c.size);
    EXPECT_EQ(wfx.nSamplesPerSec, 48000u);
    _kawaveformat kwf{};
    ASSERT_EQ(
        mriff_GetWfx(&kwf, c.image.data(), DWORD(c.image.size()), nullptr, nullptr, sizeof kwf),
        S_OK);
    EXPECT_EQ(kwf.SampleType, KASAMPLE_PCM16);
    EXPECT_EQ(kwf.nChannels, wfx.nChannels);
    if (wfx.wFormatTag == WAVE_FORMAT_EXTENSIBLE) {
      EXPECT_EQ(kwf.dwChannelMask, 0x33u);
    }
  }
}
