// INFO text as other programs write and read it: items ffmpeg writes in UTF-8 survive a
// `tag` of another item byte for byte, new items come out in UTF-8 (or in the code page
// asked for) as ffprobe and libsndfile read them, and a character the code page cannot
// hold is refused with the file untouched.
#include <gtest/gtest.h>

#include <map>

#include "peers.h"
#include "support/test_support.h"

namespace ostra::interop {
namespace {

using ostra::test::readFile;
using ostra::test::TempDir;

// The raw items of the file's LIST INFO: id -> bytes as stored.
std::map<std::string, std::string> rawItems(const std::string& path) {
  const auto b = readFile(path);
  std::map<std::string, std::string> items;
  for (size_t pos = 12; pos + 8 <= b.size();) {
    const std::string id(b.begin() + long(pos), b.begin() + long(pos) + 4);
    const uint32_t n = b[pos + 4] | b[pos + 5] << 8 | b[pos + 6] << 16 | uint32_t(b[pos + 7]) << 24;
    if (id == "LIST" && pos + 12 <= b.size() &&
        std::string(b.begin() + long(pos) + 8, b.begin() + long(pos) + 12) == "INFO") {
      for (size_t at = pos + 12; at + 8 <= pos + 8 + n;) {
        const uint32_t m = b[at + 4] | b[at + 5] << 8 | b[at + 6] << 16 | uint32_t(b[at + 7]) << 24;
        items[std::string(b.begin() + long(at), b.begin() + long(at) + 4)] =
            std::string(b.begin() + long(at) + 8, b.begin() + long(at + 8 + m));
        at += 8 + m + (m & 1);
      }
    }
    pos += 8 + n + (n & 1);
  }
  return items;
}

class TagText : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!havePeers()) GTEST_SKIP() << "sox, ffmpeg or libsndfile's tools are not installed";
  }
};

TEST_F(TagText, ItemsKeepTheirBytesAndNewTextReadsBackEverywhere) {
  TempDir dir;
  const std::string path = dir.file("take.wav");
  const std::string title = "Café ünïcödé 日本語", artist = "Ærø";
  ASSERT_EQ(run("ffmpeg -nostdin -v error -f lavfi -i sine=f=440:d=0.1 -metadata title=" +
                quote(title) + " -metadata artist=" + quote(artist) + " " + quote(path))
                .status,
            0);
  const auto made = rawItems(path);
  ASSERT_EQ(made.at("INAM"), title + '\0');

  struct Step {
    const char* what;
    std::string args;
    std::map<std::string, std::string> expectRaw;  // items that must hold these bytes
  };
  const Step steps[] = {
      {"a UTF-8 item added",
       "--set " + quote("ICMT=Überspielt 録音"),
       {{"ICMT", "Überspielt 録音" + std::string(1, '\0')}}},
      {"a Latin-1 item added",
       "--codepage iso-8859-1 --set " + quote("IENG=Zoë"),
       {{"IENG", std::string("Zo\xEB", 3) + '\0'}}},
      {"an item replaced",
       "--set " + quote("IART=Ærø Trio"),
       {{"IART", "Ærø Trio" + std::string(1, '\0')}}},
      {"an item deleted", "--delete ICMT", {}},
  };
  for (const Step& s : steps) {
    SCOPED_TRACE(s.what);
    const auto before = rawItems(path);
    ASSERT_EQ(ostra("tag " + quote(path) + " " + s.args).status, 0);
    const auto after = rawItems(path);
    for (const auto& [id, bytes] : before)
      if (!s.expectRaw.count(id) && s.args.find(id) == std::string::npos)
        EXPECT_EQ(after.count(id) ? after.at(id) : "", bytes) << id << " changed";
    for (const auto& [id, bytes] : s.expectRaw)
      EXPECT_EQ(after.count(id) ? after.at(id) : "", bytes) << id;
  }
  EXPECT_EQ(rawItems(path).count("ICMT"), 0u);

  // What the other programs read.
  const auto tags = ffprobeTags(path);
  EXPECT_EQ(tags.value("title", ""), title);
  EXPECT_EQ(tags.value("artist", ""), "Ærø Trio");
  const RunResult sf = run("sndfile-metadata-get --str-title --str-artist " + quote(path));
  EXPECT_NE(sf.out.find(title), std::string::npos) << sf.out;
  EXPECT_NE(sf.out.find("Ærø Trio"), std::string::npos) << sf.out;
  // And what `info` shows: UTF-8 as it is, the Latin-1 item through the ANSI code page.
  const auto info = ostraJson("info --json " + quote(path));
  ASSERT_FALSE(info.is_null());
  EXPECT_EQ(info["info"]["INAM"], title);
  EXPECT_EQ(info["info"]["IENG"], "Zoë");

  // Text the code page cannot hold is refused, and nothing changes.
  const auto before = readFile(path);
  const RunResult refused =
      ostra("tag " + quote(path) + " --codepage windows-1252 --set " + quote("ICMT=日本"));
  EXPECT_EQ(refused.status, 1);
  EXPECT_NE(refused.err.find("ICMT"), std::string::npos) << refused.err;
  EXPECT_NE(refused.err.find("日"), std::string::npos) << refused.err;
  EXPECT_EQ(readFile(path), before);
  for (const char* bad :
       {"--set INA=x", "--set \"IN\tM=x\"", "--delete ABCDE", "--codepage nowhere --set INAM=x"}) {
    SCOPED_TRACE(bad);
    EXPECT_EQ(ostra("tag " + quote(path) + " " + bad).status, 2);
    EXPECT_EQ(readFile(path), before);
  }
}

}  // namespace
}  // namespace ostra::interop
