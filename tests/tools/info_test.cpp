// `ostra info` on files whose layout the test wrote byte by byte.
#include <gtest/gtest.h>

#include "support/test_support.h"
#include "tool_helpers.h"

namespace ostra::tooltest {
namespace {

using ostra::test::TempDir;
using ostra::test::writeFile;

struct InfoCase {
  const char* name;
  Bytes bytes;
  const char* container;
  int tag, channels, rate, bits, blockAlign, sampleType;
  uint64_t dataOffset, dataSize, frames;
  std::vector<std::string> chunkIds;
  nlohmann::json info;
  uint32_t channelMask;
};

std::vector<InfoCase> waveCases() {
  const Bytes pcm = le16(ramp16(10));  // 40 bytes
  std::vector<InfoCase> cases;
  // Another recorder's layout: 16-byte fmt, INFO ahead of the samples, id3 after them.
  cases.push_back({"fmt16-list-id3",
                   riff({chunk("fmt ", fmt16(1, 2, 44100, 16)),
                         chunk("LIST", infoList({{"INAM", "Title"}, {"IART", "Someone"}})),
                         chunk("data", pcm), chunk("id3 ", Bytes(7, 0x41))}),
                   "RIFF",
                   1,
                   2,
                   44100,
                   16,
                   4,
                   17,
                   12 + 24 + 8 + 4 + 14 + 16 + 8,
                   40,
                   10,
                   {"fmt ", "LIST", "data", "id3 "},
                   {{"INAM", "Title"}, {"IART", "Someone"}},
                   0});
  // 24 valid bits in 32-bit containers, extensible.
  Bytes s32(8 * 4 * 2, 0);
  cases.push_back({"extensible-24in32",
                   riff({chunk("fmt ", fmtExt(2, 96000, 32, 24, 0x3, 1)), chunk("data", s32)}),
                   "RIFF",
                   0xFFFE,
                   2,
                   96000,
                   32,
                   8,
                   48,
                   12 + 48 + 8,
                   64,
                   8,
                   {"fmt ", "data"},
                   nlohmann::json::object(),
                   3});
  // A writer that could not seek back: every size left at 0xFFFFFFFF.
  Bytes pipe = riff({chunk("fmt ", fmt18(3, 1, 8000, 32)), chunk("data", Bytes(4 * 5 + 2, 0))});
  for (size_t at : {size_t(4), size_t(12 + 26 + 4)})
    pipe[at] = pipe[at + 1] = pipe[at + 2] = pipe[at + 3] = 0xFF;
  cases.push_back({"pipe-sizes",
                   pipe,
                   "RIFF",
                   3,
                   1,
                   8000,
                   32,
                   4,
                   32,
                   46,
                   22,
                   5,
                   {"fmt ", "data"},
                   nlohmann::json::object(),
                   0});
  return cases;
}

TEST(OstraInfo, ReportsLayoutFormatAndItems) {
  TempDir dir;
  for (const InfoCase& c : waveCases()) {
    SCOPED_TRACE(c.name);
    const std::string path = dir.file(std::string(c.name) + ".wav");
    writeFile(path, c.bytes);
    for (const char* mode : {"", " --memory"}) {
      SCOPED_TRACE(mode);
      auto j = ostraJson("info --json" + std::string(mode) + " " + q(path));
      ASSERT_FALSE(j.is_null());
      EXPECT_EQ(j["container"], c.container);
      EXPECT_EQ(j["form"], "WAVE");
      const auto& f = j["format"];
      EXPECT_EQ(f["tag"], c.tag);
      EXPECT_EQ(f["channels"], c.channels);
      EXPECT_EQ(f["sample_rate"], c.rate);
      EXPECT_EQ(f["bits"], c.bits);
      EXPECT_EQ(f["block_align"], c.blockAlign);
      EXPECT_EQ(f["avg_bytes_per_sec"], c.blockAlign * c.rate);
      EXPECT_EQ(f["sample_type"], c.sampleType);
      EXPECT_EQ(f["channel_mask"], c.channelMask);
      EXPECT_EQ(f["subformat"].is_null(), c.tag != 0xFFFE);
      EXPECT_FALSE(f["sample_type_text"].get<std::string>().empty());
      EXPECT_EQ(j["data"]["offset"], c.dataOffset);
      EXPECT_EQ(j["data"]["size"], c.dataSize);
      EXPECT_EQ(j["frames"], c.frames);
      std::vector<std::string> ids;
      for (const auto& ch : j["chunks"]) ids.push_back(ch["id"]);
      EXPECT_EQ(ids, c.chunkIds);
      EXPECT_EQ(j["chunks"][0]["offset"], 12);
      EXPECT_EQ(j["info"], c.info);
    }
  }
}

TEST(OstraInfo, SeveralFilesGiveAnArrayAndBadInputAClearError) {
  TempDir dir;
  const auto cases = waveCases();
  writeFile(dir.file("a.wav"), cases[0].bytes);
  writeFile(dir.file("b.wav"), cases[1].bytes);
  auto j = ostraJson("info --json " + q(dir.file("a.wav")) + " " + q(dir.file("b.wav")));
  ASSERT_TRUE(j.is_array());
  ASSERT_EQ(j.size(), 2u);
  EXPECT_EQ(j[1]["format"]["sample_type"], 48);

  writeFile(dir.file("text.wav"),
            Bytes{'n', 'o', 't', ' ', 'a', 'u', 'd', 'i', 'o', '.', '.', '.', '.'});
  for (const char* mode : {"", "--memory "}) {
    const ToolRun r = ostra(std::string("info ") + mode + q(dir.file("text.wav")));
    EXPECT_NE(r.status, 0);
    EXPECT_NE(r.err.find("text.wav"), std::string::npos) << r.err;
  }
  // The plain-text form names the facts too.
  const ToolRun text = ostra("info " + q(dir.file("a.wav")));
  ASSERT_EQ(text.status, 0) << text.err;
  EXPECT_NE(text.out.find("INAM = Title"), std::string::npos) << text.out;
  EXPECT_NE(text.out.find("44100 Hz"), std::string::npos) << text.out;
}

TEST(OstraInfo, AiffAndAifcFiles) {
  TempDir dir;
  Bytes be;
  for (int16_t v : {1, -2, 300, -400}) putBE16(be, uint16_t(v));
  struct {
    const char* name;
    Bytes bytes;
    const char* container;
    int sampleType;
    const char* compression;
  } cases[] = {
      {"be16.aiff", aiff(2, 2, 16, 44100, be), "AIFF", 64, "NONE"},
      {"sowt.aifc", aiff(2, 2, 16, 44100, be, "sowt"), "AIFC", 17, "sowt"},
      {"s8.aiff", aiff(1, 4, 8, 44100, Bytes{0x80, 0xFF, 0x00, 0x7F}), "AIFF", 49, "NONE"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    writeFile(dir.file(c.name), c.bytes);
    auto j = ostraJson("info --json " + q(dir.file(c.name)));
    ASSERT_FALSE(j.is_null());
    EXPECT_EQ(j["container"], c.container);
    EXPECT_EQ(j["format"]["sample_type"], c.sampleType);
    EXPECT_EQ(j["format"]["compression"], c.compression);
    EXPECT_EQ(j["format"]["rate80"], "400EAC44000000000000");
    EXPECT_EQ(j["format"]["sample_rate"], 44100);
    EXPECT_EQ(j["frames"], c.sampleType == 49 ? 4 : 2);
    EXPECT_EQ(j["data"]["size"], c.sampleType == 49 ? 4 : 8);
  }
}

}  // namespace
}  // namespace ostra::tooltest
