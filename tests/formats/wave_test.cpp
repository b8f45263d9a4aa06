#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "ostra/kaerror.h"
#include "ostra/kaplatform.h"
#include "ostra/kawave.h"
#include "ostra/riff64.h"
#include "support/test_support.h"
#include "wave_test_support.h"

using ostra::test::readFile;
using ostra::test::TempDir;
using ostra::test::writeFile;

using namespace wavetest;

namespace {

const WAVEFORMATEX kCd{WAVE_FORMAT_PCM, 2, 44100, 176400, 4, 16, 0};

std::string id4(const Bytes& b, size_t at) {
  return std::string(b.begin() + at, b.begin() + at + 4);
}
bool guidAt(const Bytes& b, size_t at, const GUID& g) {
  return std::memcmp(b.data() + at, &g, 16) == 0;
}

// A file made by KaInitializeWav with `data` bytes of samples appended and the sizes
// left as a crash would leave them.
Bytes unfinishedWav(size_t data, uint8_t fill = 0x11) {
  TempDir dir;
  EXPECT_EQ(KaInitializeWav(dir.wfile("u.wav").c_str(), &kCd, CREATE_ALWAYS), S_OK);
  Bytes b = readFile(dir.file("u.wav"));
  b.resize(46 + data, fill);
  return b;
}

}  // namespace

TEST(WaveSetup, HeadersAsLaidOut) {
  TempDir dir;
  const auto path = dir.wfile("a.wav");
  ASSERT_EQ(KaInitializeWav(path.c_str(), &kCd, CREATE_ALWAYS), S_OK);
  Bytes b = readFile(dir.file("a.wav"));
  ASSERT_EQ(b.size(), 46u);
  EXPECT_EQ(id4(b, 0), "RIFF");
  EXPECT_EQ(le32(b, 4), 38u);
  EXPECT_EQ(id4(b, 8) + id4(b, 12), "WAVEfmt ");
  EXPECT_EQ(le32(b, 16), 18u);
  EXPECT_EQ(0, std::memcmp(b.data() + 20, &kCd, 18));
  EXPECT_EQ(id4(b, 38), "data");
  EXPECT_EQ(le32(b, 42), 0u);

  struct Junk {
    DWORD asked;
    HRESULT expect;
    size_t length;
  };
  for (const Junk& j :
       {Junk{53, S_OK, 54}, Junk{54, S_OK, 54}, Junk{99, S_OK, 100}, Junk{52, E_INVALIDARG, 0}}) {
    writeFile(dir.file("a.wav"), {1, 2, 3});
    ASSERT_EQ(KaInitializeWavWithJunk(path.c_str(), &kCd, OPEN_EXISTING, j.asked), j.expect)
        << j.asked;
    if (FAILED(j.expect)) continue;
    b = readFile(dir.file("a.wav"));
    ASSERT_EQ(b.size(), j.length) << j.asked;
    EXPECT_EQ(le32(b, 4), j.length - 8);
    EXPECT_EQ(id4(b, 38), "JUNK");
    EXPECT_EQ(le32(b, 42), j.length - 54);
    EXPECT_EQ(Bytes(b.begin() + 46, b.end() - 8), Bytes(j.length - 54, 0));
    EXPECT_EQ(id4(b, j.length - 8), "data");
    EXPECT_EQ(le32(b, j.length - 4), 0u);
  }

  ASSERT_EQ(KaInitializeWav64(path.c_str(), &kCd, CREATE_ALWAYS), S_OK);
  b = readFile(dir.file("a.wav"));
  ASSERT_EQ(b.size(), 112u);
  EXPECT_TRUE(guidAt(b, 0, RIFF64_GUID_RIFF));
  EXPECT_EQ(le64(b, 16), 130u);  // as finished files expect, not 112
  EXPECT_TRUE(guidAt(b, 24, RIFF64_GUID_WAVE));
  EXPECT_TRUE(guidAt(b, 40, RIFF64_GUID_FMT));
  EXPECT_EQ(le64(b, 56), 42u);
  EXPECT_EQ(0, std::memcmp(b.data() + 64, &kCd, 18));
  EXPECT_EQ(Bytes(b.begin() + 82, b.begin() + 88), Bytes(6, 0));
  EXPECT_TRUE(guidAt(b, 88, RIFF64_GUID_DATA));
  EXPECT_EQ(le64(b, 104), 24u);

  ASSERT_EQ(KaInitializeWav64WithJunk(path.c_str(), &kCd, CREATE_ALWAYS, 1100), S_OK);
  b = readFile(dir.file("a.wav"));
  ASSERT_EQ(b.size(), 1104u);
  EXPECT_EQ(le64(b, 16), 1104u + 24);
  const uint8_t junkGuid[16] = {0x6A, 0x75, 0x6E, 0x6B, 0xF3, 0xAC, 0x3D, 0x11,
                                0x8C, 0xD1, 0x00, 0xC0, 0x4F, 0x8E, 0xDB, 0x8A};
  EXPECT_EQ(0, std::memcmp(b.data() + 88, junkGuid, 16));
  EXPECT_EQ(le64(b, 104), 1104u - 136 + 24);
  EXPECT_TRUE(guidAt(b, 1080, RIFF64_GUID_DATA));
  EXPECT_EQ(KaInitializeWav64WithJunk(path.c_str(), &kCd, CREATE_ALWAYS, 128), E_INVALIDARG);
}

TEST(WaveSetup, RefusedFormatsAndFiles) {
  TempDir dir;
  const auto path = dir.wfile("r.wav");
  const WAVEFORMATEX bad[] = {
      {WAVE_FORMAT_PCM, 2, 48000, 192000, 4, 24, 0},  // block align 4 for 2 x 24 bits
      {WAVE_FORMAT_PCM, 2, 48000, 288000, 6, 20, 0},  // 20-bit PCM
      {WAVE_FORMAT_PCM, 2, 48000, 192000, 4, 16, 2},  // extra bytes
  };
  for (const WAVEFORMATEX& w : bad) {
    EXPECT_EQ(KaInitializeWav(path.c_str(), &w, CREATE_ALWAYS), KAERR_UNSUPPORTED_FORMAT);
    EXPECT_EQ(KaInitializeWav64(path.c_str(), &w, CREATE_ALWAYS), KAERR_UNSUPPORTED_FORMAT);
  }
  const WAVEFORMATEX adpcm{2, 2, 44100, 44359, 2048, 4, 0};  // only PCM has its block align checked
  EXPECT_EQ(KaInitializeWav(path.c_str(), &adpcm, CREATE_ALWAYS), S_OK);
  EXPECT_EQ(KaInitializeWav(dir.wfile("no/such.wav").c_str(), &kCd, CREATE_ALWAYS),
            KAERR_OPEN_FAILED);
  EXPECT_EQ(KaInitializeWav(path.c_str(), &kCd, CREATE_NEW), KAERR_OPEN_FAILED);
  EXPECT_EQ(KaInitializeWav(dir.wfile("new.wav").c_str(), &kCd, OPEN_EXISTING), KAERR_OPEN_FAILED);

  // The record overload writes the same 18 bytes.
  alignas(8) BYTE buffer[KAWAVEFORMAT_BUFFER_SIZE];
  auto* k = reinterpret_cast<_kawaveformat*>(buffer);
  k->Init(44100, KASAMPLE_PCM16, 2, 0, sizeof buffer);
  ASSERT_EQ(KaInitializeWav(dir.wfile("k.wav").c_str(), k, CREATE_ALWAYS), S_OK);
  ASSERT_EQ(KaInitializeWav(path.c_str(), &kCd, CREATE_ALWAYS), S_OK);
  EXPECT_EQ(readFile(dir.file("k.wav")), readFile(dir.file("r.wav")));
}

TEST(WaveInsert, RewritesSizesInPlace) {
  TempDir dir;
  const std::string p = dir.file("i.wav");
  writeFile(p, unfinishedWav(40));
  {
    File f(p);
    f.seek(17);
    ASSERT_EQ(KaInsertWavHeader(f, &kCd, 40, 46), S_OK);
    EXPECT_EQ(f.pos(), 17);
    struct Bad {
      DWORD header;
      HRESULT expect;
    };
    for (const Bad& c : {Bad{47, KAERR_BAD_CHUNK}, Bad{44, KAERR_BAD_CHUNK},
                         Bad{50, KAERR_BAD_CHUNK}, Bad{52, KAERR_BAD_CHUNK}})
      EXPECT_EQ(KaInsertWavHeader(f, &kCd, 40, c.header), c.expect) << c.header;
    EXPECT_EQ(KaInsertWavHeader(f, &kCd, 0xFFFFFFF0u, 46), KAERR_RIFF_TOO_LARGE);
  }
  Bytes b = readFile(p);
  EXPECT_EQ(le32(b, 4), 78u);
  EXPECT_EQ(le32(b, 42), 40u);
  {
    File f(p);
    ASSERT_EQ(KaInsertWavHeader(f, &kCd, 30, 56), S_OK);  // a JUNK header with 2 bytes
  }
  b = readFile(p);
  EXPECT_EQ(le32(b, 4), 56u - 8 + 30);
  EXPECT_EQ(id4(b, 38) + id4(b, 48), "JUNKdata");
  EXPECT_EQ(le32(b, 42), 2u);
  EXPECT_EQ(le32(b, 52), 30u);

  writeFile(p, Bytes(45, 0));
  {
    File f(p);
    EXPECT_EQ(KaInsertWavHeader(f, &kCd, 0, 46), KAERR_BAD_CHUNK);  // shorter than a header
  }
  writeFile(p, Bytes(200, 0xAA));
  {
    File f(p);
    EXPECT_EQ(KaInsertW64Header(f, &kCd, 8, 120), KAERR_BAD_CHUNK);  // junk needs 24 bytes
    EXPECT_EQ(KaInsertW64Header(f, &kCd, 8, 140), KAERR_BAD_CHUNK);  // not a multiple of 8
    ASSERT_EQ(KaInsertW64Header(f, &kCd, 56, 144), S_OK);
  }
  b = readFile(p);
  EXPECT_EQ(le64(b, 16), 200u);
  EXPECT_TRUE(guidAt(b, 88, RIFF64_GUID_JUNK));
  EXPECT_EQ(le64(b, 104), 32u);
  EXPECT_EQ(Bytes(b.begin() + 112, b.begin() + 120), Bytes(8, 0));
  EXPECT_TRUE(guidAt(b, 120, RIFF64_GUID_DATA));
  EXPECT_EQ(le64(b, 136), 56u + 24);
}

TEST(WaveRepair, FindsTheSamplesAndFixesTheHeader) {
  TempDir dir;
  const std::string p = dir.file("t.wav");
  struct Case {
    const char* what;
    Bytes bytes;
    DWORD maxHeader;
    HRESULT expect;
    DWORD header, data;
  };
  Bytes lostId = unfinishedWav(8000, 0x33);
  std::memcpy(lostId.data() + 38, "xxxx", 4);
  Bytes straddling = unfinishedWav(6000, 0x44);
  std::memcpy(straddling.data() + 38, "JUNK\xF0\xFF\xFF\x7F", 8);  // skips past any budget
  std::memcpy(straddling.data() + 38 + 4094, "data", 4);           // across the first block end
  Bytes noData = unfinishedWav(1000, 0x55);
  std::memcpy(noData.data() + 38, "xxxx", 4);
  const Case cases[] = {
      {"intact data chunk", unfinishedWav(4003), 100000, S_OK, 46, 4000},
      {"10 bytes in 4-byte blocks", unfinishedWav(10), 100000, S_OK, 46, 8},
      {"id lost, limit below the file", lostId, 1000, S_OK, 1000, 7044},
      {"raw scan across blocks", straddling, 100000, S_OK, 4140, 6046 - 4140 - 2},
      {"nothing to find", noData, 100000, KAERR_NOT_FOUND, 0, 0},
      {"shorter than a format", Bytes(30, 0), 100000, KAERR_READ_FAILED, 0, 0},
  };
  for (const Case& c : cases) {
    writeFile(p, c.bytes);
    {
      File f(p);
      f.seek(5);
      EXPECT_EQ(KaFixTrashedWav(f, nullptr, c.maxHeader), c.expect) << c.what;
      EXPECT_EQ(f.pos(), 5) << c.what;
    }
    if (FAILED(c.expect)) continue;
    const Bytes b = readFile(p);
    EXPECT_EQ(le32(b, 4), c.header - 8 + c.data) << c.what;
    EXPECT_EQ(le32(b, c.header - 4), c.data) << c.what;
    EXPECT_EQ(id4(b, c.header - 8), "data") << c.what;
  }

  // Fields that cannot be right take the defaults; plausible ones stay.
  Bytes odd = unfinishedWav(100);
  const WAVEFORMATEX broken{0x55, 7, 0, 1, 1, 12, 99};
  std::memcpy(odd.data() + 20, &broken, 18);
  writeFile(p, odd);
  const WAVEFORMATEX mono48{WAVE_FORMAT_IEEE_FLOAT, 1, 48000, 192000, 4, 32, 0};
  {
    File f(p);
    ASSERT_EQ(KaFixTrashedWav(f, &mono48, 1000), S_OK);
  }
  WAVEFORMATEX fixed;
  std::memcpy(&fixed, readFile(p).data() + 20, 18);
  EXPECT_EQ(fixed.wFormatTag, WAVE_FORMAT_IEEE_FLOAT);
  EXPECT_EQ(fixed.nChannels, 1);
  EXPECT_EQ(fixed.nSamplesPerSec, 48000u);
  EXPECT_EQ(fixed.wBitsPerSample, 32);
  EXPECT_EQ(fixed.nBlockAlign, 4);
  EXPECT_EQ(fixed.nAvgBytesPerSec, 192000u);
  EXPECT_EQ(fixed.cbSize, 0);
}

TEST(WaveRepair, Wave64) {
  TempDir dir;
  const auto path = dir.wfile("t.w64");
  const std::string p = dir.file("t.w64");
  ASSERT_EQ(KaInitializeWav64(path.c_str(), &kCd, CREATE_ALWAYS), S_OK);
  Bytes b = readFile(p);
  b.resize(112 + 1002, 0x22);
  writeFile(p, b);
  {
    File f(p);
    ASSERT_EQ(KaFixTrashedW64(f, nullptr, 4099), S_OK);
  }
  b = readFile(p);
  EXPECT_EQ(le64(b, 16), 112u + 1000);
  EXPECT_EQ(le64(b, 104), 1000u + 24);

  // The data GUID found by the raw scan at an offset the chunk walk cannot reach.
  b.assign(112 + 4096, 0x66);
  std::memcpy(b.data() + 64, &kCd, 18);
  std::memcpy(b.data() + 88, "JUNKJUNKJUNKJUNK\xF0\xFF\xFF\xFF\xFF\xFF\xFF\x7F", 24);
  std::memcpy(b.data() + 2000, &RIFF64_GUID_DATA, 16);
  writeFile(p, b);
  {
    File f(p);
    ASSERT_EQ(KaFixTrashedW64(f, nullptr, 100000), S_OK);
  }
  b = readFile(p);
  EXPECT_TRUE(guidAt(b, 2000, RIFF64_GUID_DATA));
  EXPECT_EQ(le64(b, 2016), (112u + 4096 - 2024) / 4 * 4 + 24);
  EXPECT_TRUE(guidAt(b, 88, RIFF64_GUID_JUNK));
  EXPECT_EQ(le64(b, 104), 2024u - 136 + 24);
}
