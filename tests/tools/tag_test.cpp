// `ostra tag` edits INFO/UNFO without moving or changing a byte of the samples.
#include <gtest/gtest.h>

#include "tool_helpers.h"

namespace ostra::tooltest {
namespace {

TEST(OstraTag, EditsInPlaceOrAppendsAndNeverMovesSamples) {
  TempDir dir;
  const Bytes pcm =
      le16(ramp16(301));  // odd frame count times 4 bytes: even; add one odd file below
  const Bytes fmt = chunk("fmt ", fmt16(1, 2, 8000, 16));
  const Bytes longList = infoList({{"INAM", "A fairly long title to leave room"}, {"ICMT", "x"}});
  struct Case {
    const char* name;
    Bytes file;
    std::string args;
    nlohmann::json expected;
  } cases[] = {
      {"no-list",
       wave({fmt, chunk("data", pcm)}),
       "--set INAM=New --set IART=Me",
       {{"INAM", "New"}, {"IART", "Me"}}},
      {"shrinks-in-place",
       wave({fmt, longList, chunk("data", pcm)}),
       "--set INAM=Short --delete ICMT",
       {{"INAM", "Short"}}},
      {"grows-elsewhere",
       wave({fmt, infoList({{"INAM", "T"}}), chunk("data", pcm)}),
       "--set ICMT=" + q("a comment far longer than the list it replaces"),
       {{"INAM", "T"}, {"ICMT", "a comment far longer than the list it replaces"}}},
      {"list-at-end",
       wave({fmt, chunk("data", pcm), longList}),
       "--delete INAM --set ICRD=2026-11-22",
       {{"ICMT", "x"}, {"ICRD", "2026-11-22"}}},
      {"odd-data-no-pad",
       [&] {
         Bytes b = wave({chunk("fmt ", fmt16(1, 1, 8000, 8)), chunk("data", Bytes{1, 2, 3})});
         b.pop_back();  // the pad byte a careless writer left out
         return b;
       }(),
       "--set INAM=Odd",
       {{"INAM", "Odd"}}},
      {"delete-all", wave({fmt, longList, chunk("data", pcm)}), "--delete INAM --delete ICMT",
       nlohmann::json::object()},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = dir.file(std::string(c.name) + ".wav");
    writeFile(path, c.file);
    auto before = ostraJson("info --json " + q(path));
    ASSERT_FALSE(before.is_null());
    const uint64_t offset = before["data"]["offset"], size = before["data"]["size"];
    const RunResult r = ostra("tag " + q(path) + " " + c.args);
    ASSERT_EQ(r.status, 0) << r.err;
    auto after = ostraJson("info --json " + q(path));
    ASSERT_FALSE(after.is_null());
    EXPECT_EQ(after["info"], c.expected);
    EXPECT_EQ(after["data"]["offset"], offset);
    EXPECT_EQ(after["data"]["size"], size);
    const Bytes now = readFile(path);
    ASSERT_GE(now.size(), offset + size);
    EXPECT_TRUE(
        std::equal(c.file.begin() + offset, c.file.begin() + offset + size, now.begin() + offset));
    EXPECT_FALSE(after.contains("notes")) << after.dump();  // the sizes agree with the file
  }
}

TEST(OstraTag, WideListsAndRefusals) {
  TempDir dir;
  const std::string path = dir.file("w.wav");
  writeFile(path, wave({chunk("fmt ", fmt16(1, 2, 8000, 16)), chunk("data", le16(ramp16(4)))}));
  ASSERT_EQ(ostra("tag --wide " + q(path) + " --set INAM=" + q("Grüße ✓")).status, 0);
  auto j = ostraJson("info --json " + q(path));
  ASSERT_FALSE(j.is_null());
  EXPECT_EQ(j["unfo"], nlohmann::json({{"INAM", "Grüße ✓"}}));
  EXPECT_EQ(j["info"], nlohmann::json::object());
  EXPECT_NE(ostra("tag " + q(path) + " --set NAME").status, 0);
  EXPECT_NE(ostra("tag " + q(path) + " --delete TOOLONG").status, 0);
  writeFile(dir.file("a.aiff"), aiff(1, 1, 16, 8000, Bytes().be16(1)));
  const RunResult r = ostra("tag " + q(dir.file("a.aiff")) + " --set INAM=x");
  EXPECT_NE(r.status, 0);
  EXPECT_FALSE(r.err.empty());
}

}  // namespace
}  // namespace ostra::tooltest
