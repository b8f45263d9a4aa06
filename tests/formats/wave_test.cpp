#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "format_test_support.h"
#include "ostra/kaerror.h"
#include "ostra/kaplatform.h"
#include "ostra/kawave.h"
#include "ostra/riff64.h"

using namespace formatstest;

namespace {

const WAVEFORMATEX kCd{WAVE_FORMAT_PCM, 2, 44100, 176400, 4, 16, 0};
const Bytes kCdBytes = Bytes().put(&kCd, 18);

// A file made by KaInitializeWav with `data` bytes of samples appended and the sizes
// left as a crash would leave them.
Bytes unfinishedWav(size_t data, uint8_t fill = 0x11) {
  TempDir dir;
  EXPECT_EQ(KaInitializeWav(dir.wfile("u.wav").c_str(), &kCd, CREATE_ALWAYS), S_OK);
  Bytes b = readFile(dir.file("u.wav"));
  b.resize(46 + data, fill);
  return b;
}

// Wave64 up to the fmt body and its pad.
Bytes w64Head(UINT64 riffSize) {
  return Bytes()
      .guid(RIFF64_GUID_RIFF)
      .u64(riffSize)
      .guid(RIFF64_GUID_WAVE)
      .guid(RIFF64_GUID_FMT)
      .u64(42)
      .add(kCdBytes)
      .zeros(6);
}

}  // namespace

TEST(WaveSetup, HeadersAsLaidOut) {
  TempDir dir;
  const auto path = dir.wfile("a.wav");
  const std::string file = dir.file("a.wav");
  const Bytes emptyData = Bytes().id("data").u32(0);
  ASSERT_EQ(KaInitializeWav(path.c_str(), &kCd, CREATE_ALWAYS), S_OK);
  EXPECT_EQ(readFile(file), riff("WAVE", {chunk("fmt ", kCdBytes), emptyData}));

  struct Junk {
    DWORD asked;
    HRESULT expect;
    size_t length;
  };
  for (const Junk& j :
       {Junk{53, S_OK, 54}, Junk{54, S_OK, 54}, Junk{99, S_OK, 100}, Junk{52, E_INVALIDARG, 0}}) {
    writeFile(file, {1, 2, 3});
    ASSERT_EQ(KaInitializeWavWithJunk(path.c_str(), &kCd, OPEN_EXISTING, j.asked), j.expect)
        << j.asked;
    if (SUCCEEDED(j.expect)) {
      EXPECT_EQ(readFile(file),
                riff("WAVE", {chunk("fmt ", kCdBytes), chunk("JUNK", j.length - 54, 0), emptyData}))
          << j.asked;
    }
  }

  // The RIFF size is 130 as finished files expect, not 112.
  ASSERT_EQ(KaInitializeWav64(path.c_str(), &kCd, CREATE_ALWAYS), S_OK);
  EXPECT_EQ(readFile(file), w64Head(130).guid(RIFF64_GUID_DATA).u64(24));
  ASSERT_EQ(KaInitializeWav64WithJunk(path.c_str(), &kCd, CREATE_ALWAYS, 1100), S_OK);
  const Bytes b = readFile(file);
  ASSERT_EQ(b.size(), 1104u);
  EXPECT_EQ(Bytes(b.begin(), b.begin() + 112),
            w64Head(1104 + 24).guid(RIFF64_GUID_JUNK).u64(1104 - 136 + 24));
  EXPECT_EQ(Bytes(b.begin() + 1080, b.end()), Bytes().guid(RIFF64_GUID_DATA).u64(24));
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
    for (DWORD header : {47u, 44u, 50u, 52u, 55u})
      EXPECT_EQ(KaInsertWavHeader(f, &kCd, 40, header), KAERR_BAD_CHUNK) << header;
    EXPECT_EQ(KaInsertWavHeader(f, &kCd, 0xFFFFFFF0u, 46), KAERR_RIFF_TOO_LARGE);
  }
  Bytes b = readFile(p);
  EXPECT_EQ(b.u32At(4), 78u);
  EXPECT_EQ(b.u32At(42), 40u);
  {
    File f(p);
    ASSERT_EQ(KaInsertWavHeader(f, &kCd, 30, 56), S_OK);  // a JUNK header with 2 bytes
  }
  b = readFile(p);
  EXPECT_EQ(b.u32At(4), 56u - 8 + 30);
  EXPECT_EQ(b.idAt(38) + b.idAt(48), "JUNKdata");
  EXPECT_EQ(b.u32At(42), 2u);
  EXPECT_EQ(b.u32At(52), 30u);

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
  EXPECT_EQ(Bytes(b.begin(), b.begin() + 144),
            w64Head(200).guid(RIFF64_GUID_JUNK).u64(32).zeros(8).guid(RIFF64_GUID_DATA).u64(80));
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
    EXPECT_EQ(b.u32At(4), c.header - 8 + c.data) << c.what;
    EXPECT_EQ(b.u32At(c.header - 4), c.data) << c.what;
    EXPECT_EQ(b.idAt(c.header - 8), "data") << c.what;
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
  const Bytes fixed = readFile(p);
  EXPECT_EQ(Bytes(fixed.begin() + 20, fixed.begin() + 38), Bytes().put(&mono48, 18));
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
  EXPECT_EQ(b.u64At(16), 112u + 1000);
  EXPECT_EQ(b.u64At(104), 1000u + 24);

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
  EXPECT_TRUE(b.guidAt(2000, RIFF64_GUID_DATA));
  EXPECT_EQ(b.u64At(2016), (112u + 4096 - 2024) / 4 * 4 + 24);
  EXPECT_TRUE(b.guidAt(88, RIFF64_GUID_JUNK));
  EXPECT_EQ(b.u64At(104), 2024u - 136 + 24);
}
