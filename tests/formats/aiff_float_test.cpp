// Floating-point AIFC: the writer's files read back through the float reader with every
// field, the AIFF recogniser still turns them down, and the reader's refusals.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "format_test_support.h"
#include "ostra/aiff.h"
#include "ostra/kaerror.h"

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

}  // namespace

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
