// `ostra info` on files whose layout the test wrote byte by byte.
#include <gtest/gtest.h>

#include "tool_helpers.h"

namespace ostra::tooltest {
namespace {

using nlohmann::json;

struct InfoCase {
  const char* name;
  Bytes bytes;
  json format;  // what --json reports under "format", less the subformat and the type text
  uint64_t dataOffset, dataSize, frames;
  std::vector<std::string> chunkIds;
  json info;
};

json format(int tag, int channels, int rate, int bits, int align, int type) {
  return {{"tag", tag},          {"channels", channels}, {"sample_rate", rate},
          {"bits", bits},        {"block_align", align}, {"avg_bytes_per_sec", align * rate},
          {"sample_type", type}, {"channel_mask", 0}};
}
json extensible(json f, int validBits, uint32_t mask) {
  f["valid_bits"] = validBits;
  f["channel_mask"] = mask;
  return f;
}

std::vector<InfoCase> waveCases() {
  // A writer that could not seek back: every size left at 0xFFFFFFFF.
  Bytes pipe = wave({chunk("fmt ", fmt18(3, 1, 8000, 32)), chunk("data", Bytes(4 * 5 + 2, 0))});
  for (size_t at : {size_t(4), size_t(12 + 26 + 4)}) std::fill_n(pipe.begin() + at, 4, 0xFF);
  return {
      // Another recorder's layout: 16-byte fmt, INFO ahead of the samples, id3 after them.
      {"fmt16-list-id3",
       wave({chunk("fmt ", fmt16(1, 2, 44100, 16)),
             infoList({{"INAM", "Title"}, {"IART", "Someone"}}), chunk("data", le16(ramp16(10))),
             chunk("id3 ", Bytes(7, 0x41))}),
       format(1, 2, 44100, 16, 4, 17),
       12 + 24 + 8 + 4 + 14 + 16 + 8,
       40,
       10,
       {"fmt ", "LIST", "data", "id3 "},
       {{"INAM", "Title"}, {"IART", "Someone"}}},
      // 24 valid bits in 32-bit containers, extensible.
      {"extensible-24in32",
       wave({chunk("fmt ", fmtExt(2, 96000, 32, 24, 0x3, 1)), chunk("data", Bytes(64, 0))}),
       extensible(format(0xFFFE, 2, 96000, 32, 8, 48), 24, 3),
       12 + 48 + 8,
       64,
       8,
       {"fmt ", "data"},
       json::object()},
      {"pipe-sizes",
       pipe,
       format(3, 1, 8000, 32, 4, 32),
       46,
       22,
       5,
       {"fmt ", "data"},
       json::object()},
  };
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
      EXPECT_EQ(j["container"], "RIFF");
      EXPECT_EQ(j["form"], "WAVE");
      json f = j["format"];
      EXPECT_EQ(f["subformat"].is_null(), c.format["tag"] != 0xFFFE);
      EXPECT_FALSE(f["sample_type_text"].get<std::string>().empty());
      f.erase("subformat");
      f.erase("sample_type_text");
      EXPECT_EQ(f, c.format);
      EXPECT_EQ(j["data"], json({{"offset", c.dataOffset}, {"size", c.dataSize}}));
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

  writeFile(dir.file("text.wav"), Bytes().text("not audio...."));
  for (const char* mode : {"", "--memory "}) {
    const RunResult r = ostra(std::string("info ") + mode + q(dir.file("text.wav")));
    EXPECT_NE(r.status, 0);
    EXPECT_NE(r.err.find("text.wav"), std::string::npos) << r.err;
  }
  // The plain-text form names the facts too.
  const RunResult text = ostra("info " + q(dir.file("a.wav")));
  ASSERT_EQ(text.status, 0) << text.err;
  EXPECT_NE(text.out.find("INAM = Title"), std::string::npos) << text.out;
  EXPECT_NE(text.out.find("44100 Hz"), std::string::npos) << text.out;
}

}  // namespace
}  // namespace ostra::tooltest

namespace ostra::tooltest {
namespace {

// An AIFF file whose COMM frame count disagrees with its samples gets the kernel's note
// under "notes"; one that agrees gets none.
TEST(OstraInfo, AiffFrameCountNote) {
  TempDir dir;
  const Bytes samples = Bytes(400, 1);  // 100 frames of 16-bit stereo
  for (const uint32_t stated : {100u, 999u}) {
    SCOPED_TRACE(stated);
    const std::string path = dir.file("f" + std::to_string(stated) + ".aiff");
    writeFile(path, aiff(2, stated, 16, 44100, samples));
    const auto j = ostraJson("info --json " + q(path));
    ASSERT_FALSE(j.is_null());
    EXPECT_EQ(j["frames"], 100);
    const bool noted =
        j.contains("notes") && j["notes"].dump().find("COMM states 999") != std::string::npos;
    EXPECT_EQ(noted, stated == 999);
  }
}

}  // namespace
}  // namespace ostra::tooltest
