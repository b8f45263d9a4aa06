// AIFF and AIFC: sample rates in 80 bits, the format of read files and their refusals,
// chunk searches and markers, the integer writer, and floating-point AIFC (written files
// read back through the float reader, which the AIFF recogniser still turns down).
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "format_test_support.h"
#include "ostra/aiff.h"
#include "ostra/kaerror.h"
#include "ostra/kaplatform.h"

using namespace formatstest;

namespace {
std::u16string wide(const std::string& s) { return std::u16string(s.begin(), s.end()); }

Bytes aifc(const char* compression, uint16_t sampleSize) {
  WORD e, m[4];
  aiff_CreateRate(44100, &e, m);
  Bytes comm;
  comm.be16(2).be32(3).be16(sampleSize).be16(e);
  for (WORD w : m) comm.be16(w);
  comm.id(compression).be16(0);
  Bytes body;
  body.id("AIFC").id("COMM").be32(uint32_t(comm.size())).add(comm);
  body.id("SSND").be32(8 + 24).be32(0).be32(0).zeros(24);
  return Bytes{}.id("FORM").be32(uint32_t(body.size())).add(body);
}

// Builds IFF images byte by byte, big-endian.
struct Iff {
  std::vector<uint8_t> b;
  Iff& id(const char* s) { return b.insert(b.end(), s, s + 4), *this; }
  Iff& u32(uint32_t v) {
    for (int s = 24; s >= 0; s -= 8) b.push_back(uint8_t(v >> s));
    return *this;
  }
  Iff& u16(uint16_t v) { return b.push_back(uint8_t(v >> 8)), b.push_back(uint8_t(v)), *this; }
  Iff& raw(std::vector<uint8_t> v) { return b.insert(b.end(), v.begin(), v.end()), *this; }
  Iff& rate(uint32_t r) {
    WORD e, m[4];
    aiff_CreateRate(r, &e, m);
    u16(e);
    for (WORD w : m) u16(w);
    return *this;
  }
  Iff& comm(uint16_t ch, uint32_t frames, uint16_t bits, uint32_t r, const char* comp = nullptr) {
    id("COMM").u32(comp ? 22 : 18).u16(ch).u32(frames).u16(bits).rate(r);
    return comp ? id(comp) : *this;
  }
  Iff& ssnd(std::vector<uint8_t> data, uint32_t offset = 0) {
    id("SSND").u32(uint32_t(8 + offset + data.size())).u32(offset).u32(0);
    b.insert(b.end(), offset, 0xEE);
    raw(data);
    if (data.size() & 1) b.push_back(0);
    return *this;
  }
  // Wraps the chunks in FORM with the given type.
  std::vector<uint8_t> form(const char* type) const {
    Iff f;
    f.id("FORM").u32(uint32_t(b.size() + 4)).id(type).raw(b);
    return f.b;
  }
};

}  // namespace

TEST(AiffRate, EightyBitConversions) {
  struct Case {
    DWORD rate;
    WORD exponent, top;
  };
  const Case cases[] = {{44100, 0x400E, 0xAC44}, {48000, 0x400E, 0xBB80},  {8000, 0x400B, 0xFA00},
                        {96000, 0x400F, 0xBB80}, {192000, 0x4010, 0xBB80}, {1, 0x3FFF, 0x8000}};
  for (const Case& c : cases) {
    WORD e = 0, m[4] = {1, 1, 1, 1};
    aiff_CreateRate(c.rate, &e, m);
    EXPECT_EQ(e, c.exponent) << c.rate;
    EXPECT_EQ(m[0], c.top) << c.rate;
    EXPECT_EQ(m[1] | m[2] | m[3], 0) << c.rate;
    EXPECT_EQ(aiff_ConvertRate(e, m), c.rate);
  }
  for (DWORD r : {11025u, 22050u, 32000u, 88200u, 176400u, 12345u, 191999u}) {
    WORD e, m[4];
    aiff_CreateRate(r, &e, m);
    EXPECT_EQ(aiff_ConvertRate(e, m), r);
  }
  WORD e = 1, m[4] = {1, 1, 1, 1};
  aiff_CreateRate(0, &e, m);  // not the all-zero encoding
  EXPECT_EQ(e, 16383);
  EXPECT_EQ(m[0] | m[1] | m[2] | m[3], 0);
  EXPECT_EQ(aiff_ConvertRate(e, m), 0u);

  const WORD one[4] = {0x8000, 0, 0, 0}, odd[4] = {0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF};
  EXPECT_EQ(aiff_ConvertRate(0x8000 | 0x400E, odd), 44100u);  // negative
  EXPECT_EQ(aiff_ConvertRate(0x7FFF, one), 131072u);          // cut at the first power above 96000
  EXPECT_EQ(aiff_ConvertRate(0x0000, one), 131072u);          // exponent below the bias wraps
  EXPECT_LE(aiff_ConvertRate(0x7FFF, odd), 192000u);
  EXPECT_EQ(aiff_ConvertRate(0x3FFE, one), 131072u);  // below the bias: n wraps to 65535
}

TEST(AiffFile, FormatFromAiffAndAifc) {
  TempDir dir;
  struct Case {
    std::vector<uint8_t> bytes;
    WORD tag, channels, bits, align;
    DWORD rate;
    DWORD dataSize;
    INT64 dataAt;
  };
  const std::vector<uint8_t> six = {1, 2, 3, 4, 5, 6};
  const Case cases[] = {
      {Iff().comm(2, 1, 16, 44100).ssnd({1, 2, 3, 4}).form("AIFF"), 0xFE02, 2, 16, 4, 44100, 4, 54},
      {Iff().comm(3, 2, 8, 8000).ssnd(six).form("AIFF"), 0xFE01, 3, 8, 3, 8000, 6, 54},
      {Iff().comm(2, 1, 16, 48000, "sowt").ssnd({1, 2, 3, 4}).form("AIFC"), 1, 2, 16, 4, 48000, 4,
       58},
      {Iff().comm(1, 2, 24, 96000, "NONE").ssnd(six).form("AIFC"), 0xFE02, 1, 24, 3, 96000, 6, 58},
      // SSND ahead of COMM, an offset inside SSND, an unknown chunk on the way.
      {Iff()
           .id("ANNO")
           .u32(3)
           .raw({'a', 'b', 'c', 0})
           .ssnd({9, 9}, 4)
           .comm(1, 1, 16, 22050)
           .form("AIFF"),
       0xFE02, 1, 16, 2, 22050, 2, 44},
      // SSND claiming more than the file holds is cut to what is there.
      {Iff().comm(1, 9, 16, 8000).id("SSND").u32(1000).u32(0).u32(0).u16(7).form("AIFF"), 0xFE02, 1,
       16, 2, 8000, 2, 54},
      // 12 bits: the block align is counted in whole bytes of the bit depth, at least 1.
      {Iff().comm(1, 1, 4, 8000).ssnd({1}).form("AIFF"), 0xFE02, 1, 4, 1, 8000, 1, 54},
  };
  int i = 0;
  for (const Case& c : cases) {
    const std::string path = dir.file("a" + std::to_string(i++) + ".aif");
    writeFile(path, c.bytes);
    File f(path);
    WAVEFORMATEX w{};
    INT64 offset = -1;
    DWORD size = 0;
    ASSERT_EQ(iff_GetAIFFWfx(f, &w, &offset, &size), S_OK) << i;
    const WAVEFORMATEX expect{c.tag, c.channels, c.rate, c.rate * c.align, c.align, c.bits, 0};
    EXPECT_EQ(Bytes().put(&w, 18), Bytes().put(&expect, 18)) << i;
    EXPECT_EQ(size, c.dataSize) << i;
    EXPECT_EQ(offset, c.dataAt) << i;
    EXPECT_EQ(f.pos(), offset) << i;
    ASSERT_LE(size_t(offset) + size, c.bytes.size());
  }
}

TEST(AiffFile, RefusesWhatIsNotAiff) {
  TempDir dir;
  struct Case {
    std::vector<uint8_t> bytes;
    HRESULT expect;
  };
  const Case cases[] = {
      {Iff().id("RIFF").u32(4).id("WAVE").b, KAERR_CORRUPT_FILE},
      {Iff().comm(1, 1, 16, 8000).ssnd({}).form("8SVX"), KAERR_CORRUPT_FILE},
      {Iff().comm(1, 1, 16, 8000, "ima4").ssnd({}).form("AIFC"), KAERR_CORRUPT_FILE},
      {Iff().id("FORM").b, KAERR_CORRUPT_FILE},
      {Iff().ssnd({1, 2}).form("AIFF"), KAERR_NOT_FOUND},
      {Iff().comm(1, 1, 16, 8000).form("AIFF"), KAERR_NOT_FOUND},
      {Iff().id("COMM").u32(4).u32(0).ssnd({}).form("AIFF"), KAERR_CORRUPT_FILE},
      {Iff().comm(1, 1, 16, 8000).id("SSND").u32(4).u32(0).form("AIFF"), KAERR_CORRUPT_FILE},
      {Iff().id("COMM").u32(18).u16(1).form("AIFF"), KAERR_READ_FAILED},
      {{}, KAERR_CORRUPT_FILE},
  };
  int i = 0;
  for (const Case& c : cases) {
    const std::string path = dir.file("b" + std::to_string(i++) + ".aif");
    writeFile(path, c.bytes);
    File f(path);
    WAVEFORMATEX w{};
    EXPECT_EQ(iff_GetAIFFWfx(f, &w), c.expect) << i;
  }
  // Recognition alone: AIFC leaves the handle at the first chunk too.
  const std::string path = dir.file("c.aif");
  writeFile(path, Iff().comm(2, 0, 16, 8000, "twos").ssnd({}).form("AIFC"));
  File f(path);
  DWORD size = 0, type = 0, comp = 0;
  EXPECT_TRUE(iff_IsAIFFFileEx(f, &size, &type, &comp));
  EXPECT_EQ(type, IFFID_AIFC);
  EXPECT_EQ(comp, IFFID_twos);
  EXPECT_EQ(size + 8, readFile(path).size());
  EXPECT_EQ(f.pos(), 12);
}

TEST(AiffChunks, SearchDeleteAndMarkers) {
  TempDir dir;
  const std::string path = dir.file("m.aif");
  Iff body;
  body.comm(1, 4, 16, 8000)
      .id("MARK")
      .u32(2 + 10 + 8)
      .u16(2)
      .u16(1)
      .u32(100)
      .raw({3, 'a', 'b', 'c'})  // odd name length: no pad
      .u16(7)
      .u32(250)
      .raw({0, 0})  // empty name: one pad byte
      .id("ANNO")
      .u32(5)
      .raw({'h', 'e', 'l', 'l', 'o', 0})
      .ssnd({1, 2, 3, 4, 5, 6, 7, 8});
  const auto bytes = body.form("AIFF");
  writeFile(path, bytes);
  File f(path);

  DWORD pos = 0;
  char name[8];
  ASSERT_EQ(iff_FindMarker(f, 1, &pos, name, sizeof name), S_OK);
  EXPECT_EQ(pos, 100u);
  EXPECT_STREQ(name, "abc");
  char small[3];
  ASSERT_EQ(iff_FindMarker(f, 1, &pos, small, sizeof small), S_OK);
  EXPECT_STREQ(small, "ab");
  ASSERT_EQ(iff_FindMarker(f, 7, &pos), S_OK);
  EXPECT_EQ(pos, 250u);
  EXPECT_EQ(iff_FindMarker(f, 3, &pos), KAERR_NOT_FOUND);

  // Budgets: below 8 stops at once; a chunk that claims more than is left takes it to 0.
  DWORD size = 0, budget = 7;
  ASSERT_EQ(KaFile_Seek(f, 12, FILE_BEGIN, nullptr), S_OK);
  EXPECT_EQ(iff_FindChunkHeader(f, IFFID_SSND, &size, &budget), KAERR_NOT_FOUND);
  EXPECT_EQ(budget, 7u);
  budget = 20;
  ASSERT_EQ(KaFile_Seek(f, 12, FILE_BEGIN, nullptr), S_OK);
  EXPECT_EQ(iff_FindChunkHeader(f, IFFID_SSND, &size, &budget), KAERR_NOT_FOUND);
  EXPECT_EQ(budget, 0u);
  ASSERT_EQ(KaFile_Seek(f, 12, FILE_BEGIN, nullptr), S_OK);
  EXPECT_EQ(iff_FindChunkHeader(f, KaIffID('n', 'o', 'n', 'e'), &size, nullptr), KAERR_READ_FAILED);
  ASSERT_EQ(iff_FindChunkFromStart(f, KaIffID('A', 'N', 'N', 'O'), &size, &budget), S_OK);
  EXPECT_EQ(size, 5u);
  EXPECT_EQ(budget, bytes.size() - 12 - 26 - 28 - 8);
  INT64 at = 0;
  ASSERT_EQ(iff_SeekChunkHeader(f, IFFID_SSND, &size, &at), S_OK);
  EXPECT_EQ(at, INT64(bytes.size() - 24));
  EXPECT_EQ(f.pos(), at);

  DWORD removed = 0;
  ASSERT_EQ(iff_DeleteChunk(f, KaIffID('A', 'N', 'N', 'O'), &removed), S_OK);
  EXPECT_EQ(removed, 14u);
  ASSERT_EQ(iff_DeleteChunk(f, IFFID_MARK, &removed), S_OK);
  EXPECT_EQ(removed, 28u);
  const auto after = readFile(path);
  Iff expect;
  expect.comm(1, 4, 16, 8000).ssnd({1, 2, 3, 4, 5, 6, 7, 8});
  EXPECT_EQ(after, expect.form("AIFF"));
  EXPECT_EQ(iff_DeleteChunk(f, IFFID_MARK, &removed), KAERR_NOT_FOUND);
}

TEST(AiffWriter, WritesAndFinishesAReadableFile) {
  TempDir dir;
  const auto path = dir.wfile("w.aif");
  WAVEFORMATEX w{WAVE_FORMAT_KA_BIGENDIAN, 2, 44100, 44100 * 4, 4, 16, 0};
  ASSERT_EQ(KaInitializeAiff(path.c_str(), &w, CREATE_ALWAYS), S_OK);
  const std::string p8 = dir.file("w.aif");
  EXPECT_EQ(readFile(p8), Iff().comm(2, 0, 16, 44100).ssnd({}).form("AIFF"));
  {
    File f(p8);
    ASSERT_EQ(KaFile_Seek(f, 0, FILE_END, nullptr), S_OK);
    const WORD samples[4] = {0x0102, 0x0304, 0x0506, 0x0708};
    DWORD written = 0;
    ASSERT_EQ(aiff_WriteByteSwap16(f, samples, 4, &written), S_OK);
    EXPECT_EQ(written, 8u);
    EXPECT_EQ(samples[0], 0x0102);  // caller's buffer untouched
    ASSERT_EQ(KaInsertAiffHeader(f, &w, 8), S_OK);
    EXPECT_EQ(f.pos(), 62);
  }
  EXPECT_EQ(readFile(p8), Iff().comm(2, 2, 16, 44100).ssnd({1, 2, 3, 4, 5, 6, 7, 8}).form("AIFF"));

  // 8-bit mono with an odd length: the pad byte is appended and counted in FORM.
  w = {WAVE_FORMAT_KA_PCM8SIGNED, 1, 8000, 8000, 1, 8, 0};
  ASSERT_EQ(KaInitializeAiff(path.c_str(), &w, OPEN_EXISTING), S_OK);
  {
    File f(p8);
    ASSERT_EQ(KaFile_Seek(f, 0, FILE_END, nullptr), S_OK);
    const DWORD word = 0x11223344;
    ASSERT_EQ(aiff_WriteByteSwap32(f, &word, 1), S_OK);
    ASSERT_EQ(KaFile_Write(f, "\x55", 1, nullptr), S_OK);
    ASSERT_EQ(KaInsertAiffHeader(f, &w, 5), S_OK);
    WAVEFORMATEX r{};
    DWORD size = 0, frames = 0;
    ASSERT_EQ(iff_GetAIFFWfx(f, &r, nullptr, &size, &frames), S_OK);
    EXPECT_EQ(r.wFormatTag, WAVE_FORMAT_KA_PCM8SIGNED);
    EXPECT_EQ(size, 5u);
    EXPECT_EQ(frames, 5u);
  }
  EXPECT_EQ(readFile(p8),
            Iff().comm(1, 5, 8, 8000).ssnd({0x11, 0x22, 0x33, 0x44, 0x55}).form("AIFF"));

  struct Bad {
    WAVEFORMATEX w;
    HRESULT expect;
  };
  const Bad bad[] = {
      {{WAVE_FORMAT_PCM, 2, 44100, 176400, 4, 16, 0}, KAERR_UNSUPPORTED_FORMAT},
      {{WAVE_FORMAT_KA_BIGENDIAN, 2, 44100, 176400, 2, 16, 0}, KAERR_UNSUPPORTED_FORMAT},
      {{WAVE_FORMAT_KA_BIGENDIAN, 1, 44100, 88200, 2, 16, 2}, KAERR_UNSUPPORTED_FORMAT},
      {{WAVE_FORMAT_KA_BIGENDIAN, 0, 44100, 0, 0, 16, 0}, KAERR_UNSUPPORTED_FORMAT},
      {{WAVE_FORMAT_KA_PCM8SIGNED, 1, 44100, 44100, 2, 16, 0}, KAERR_UNSUPPORTED_FORMAT},
      {{WAVE_FORMAT_KA_BIGENDIAN, 1, 384000, 768000, 2, 16, 0}, KAERR_SAMPLE_RATE},
  };
  for (const Bad& b : bad)
    EXPECT_EQ(KaInitializeAiff(dir.wfile("bad.aif").c_str(), &b.w, CREATE_ALWAYS), b.expect);
  EXPECT_FALSE(std::filesystem::exists(dir.file("bad.aif")));
  w = {WAVE_FORMAT_KA_BIGENDIAN, 1, 8000, 16000, 2, 16, 0};
  EXPECT_EQ(KaInitializeAiff(dir.wfile("none/x.aif").c_str(), &w, CREATE_ALWAYS),
            KAERR_OPEN_FAILED);
  writeFile(dir.file("short.aif"), {1, 2, 3});
  File f(dir.file("short.aif"));
  EXPECT_EQ(KaInsertAiffHeader(f, &w, 0), KAERR_BAD_CHUNK);
}

TEST(AifcFloat, WrittenFilesReadBack) {
  TempDir dir;
  for (WORD bits : {WORD(32), WORD(64)}) {
    SCOPED_TRACE(bits);
    const WORD block = WORD(bits / 8 * 3);
    const WAVEFORMATEX w{WAVE_FORMAT_IEEE_FLOAT, 3, 96000, 96000u * block, block, bits, 0};
    const std::string path = dir.file("f" + std::to_string(bits) + ".aifc");
    ASSERT_EQ(KaInitializeAifcFloat(wide(path).c_str(), &w, CREATE_ALWAYS), S_OK);
    EXPECT_EQ(readFile(path).size(), KA_AIFC_FLOAT_HEADER_LENGTH);
    File f(path);
    f.seek(KA_AIFC_FLOAT_HEADER_LENGTH);
    const Bytes samples = Bytes{}.fill(size_t(block) * 5 + 1, 0x5A);  // odd: gets a pad byte
    DWORD put = 0;
    ASSERT_EQ(KaFile_Write(f, samples.data(), DWORD(samples.size()), &put), S_OK);
    ASSERT_EQ(KaInsertAifcFloatHeader(f, &w, DWORD(samples.size())), S_OK);
    EXPECT_EQ(f.pos(), INT64(KA_AIFC_FLOAT_HEADER_LENGTH + samples.size()));

    const Bytes b = readFile(path);
    ASSERT_EQ(b.size(), KA_AIFC_FLOAT_HEADER_LENGTH + samples.size() + 1);
    EXPECT_EQ(b.idAt(8), "AIFC");
    EXPECT_EQ(b.idAt(12), "FVER");
    EXPECT_EQ(b.idAt(50), bits == 32 ? "fl32" : "fl64");
    EXPECT_EQ(b[54], 21);
    EXPECT_EQ(std::string(b.begin() + 55, b.begin() + 76),
              bits == 32 ? "32-bit floating point" : "64-bit floating point");

    DWORD size = 0, type = 0, comp = 0;
    EXPECT_FALSE(iff_IsAIFFFileEx(f, &size, &type, &comp));
    WAVEFORMATEX r{};
    INT64 at = 0;
    DWORD bytes = 0, frames = 0;
    EXPECT_EQ(iff_GetAIFFWfx(f, &r), KAERR_CORRUPT_FILE);
    ASSERT_EQ(iff_GetAIFCFloatWfx(f, &r, &at, &bytes, &frames, &comp), S_OK);
    EXPECT_EQ(std::memcmp(&r, &w, sizeof w), 0);
    EXPECT_EQ(at, INT64(KA_AIFC_FLOAT_HEADER_LENGTH));
    EXPECT_EQ(f.pos(), at);
    EXPECT_EQ(bytes, samples.size());
    EXPECT_EQ(frames, 5u);
    EXPECT_EQ(comp, bits == 32 ? IFFID_fl32 : IFFID_fl64);
  }
}

TEST(AifcFloat, ReaderAndWriterRefusals) {
  TempDir dir;
  struct Case {
    Bytes bytes;
    HRESULT expect;
    WORD bits;
  };
  const Case cases[] = {
      {aifc("fl32", 32), S_OK, 32},
      {aifc("FL32", 0), S_OK, 32},  // the width comes from the type
      {aifc("fl64", 32), S_OK, 64},
      {aifc("FL64", 64), S_OK, 64},
      {aifc("sowt", 16), KAERR_UNSUPPORTED_FORMAT, 0},
      {aifc("ima4", 16), KAERR_UNSUPPORTED_FORMAT, 0},
      {Bytes{}.id("FORM").be32(4).id("AIFF"), KAERR_CORRUPT_FILE, 0},
      {Bytes{}.id("RIFF").be32(4).id("WAVE"), KAERR_CORRUPT_FILE, 0},
  };
  int i = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(i);
    const std::string path = dir.file("r" + std::to_string(i++) + ".aifc");
    writeFile(path, c.bytes);
    File f(path);
    WAVEFORMATEX w{};
    EXPECT_EQ(iff_GetAIFCFloatWfx(f, &w), c.expect);
    if (c.expect == S_OK) {
      EXPECT_EQ(w.wFormatTag, WAVE_FORMAT_IEEE_FLOAT);
      EXPECT_EQ(w.wBitsPerSample, c.bits);
      EXPECT_EQ(w.nBlockAlign, c.bits / 8 * 2);
    }
  }
  EXPECT_EQ(iff_GetAIFCFloatWfx(KA_INVALID_HFILE, nullptr), E_INVALIDARG);

  // The writer takes IEEE float of 32 or 64 bits with a matching block size only.
  const std::string out = dir.file("w.aifc");
  const WAVEFORMATEX bad[] = {
      {WAVE_FORMAT_IEEE_FLOAT, 1, 44100, 44100 * 2, 2, 16, 0},
      {WAVE_FORMAT_IEEE_FLOAT, 2, 44100, 44100 * 8, 4, 32, 0},
      {WAVE_FORMAT_KA_BIGENDIAN, 1, 44100, 44100 * 4, 4, 32, 0},
      {WAVE_FORMAT_IEEE_FLOAT, 1, 44100, 44100 * 4, 4, 32, 2},
  };
  for (const WAVEFORMATEX& w : bad)
    EXPECT_EQ(KaInitializeAifcFloat(wide(out).c_str(), &w, CREATE_ALWAYS),
              KAERR_UNSUPPORTED_FORMAT);
  const WAVEFORMATEX fast{WAVE_FORMAT_IEEE_FLOAT, 1, 192001, 192001 * 4, 4, 32, 0};
  EXPECT_EQ(KaInitializeAifcFloat(wide(out).c_str(), &fast, CREATE_ALWAYS), KAERR_SAMPLE_RATE);
  EXPECT_FALSE(std::filesystem::exists(out));
}
