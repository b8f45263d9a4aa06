// `ostra repair` on the ways recorders leave unfinished files: every whole frame on disk
// comes back, chunks after the samples stay chunks, and sound files stay untouched.
#include <gtest/gtest.h>

#include "ostra/riff64.h"
#include "tool_helpers.h"

namespace ostra::tooltest {
namespace {

constexpr size_t kFrames = 500;

void set32(Bytes& b, size_t at, uint32_t v) {
  for (int i = 0; i < 4; ++i) b[at + size_t(i)] = uint8_t(v >> (8 * i));
}

struct Damage {
  const char* name;
  Bytes bytes;
  bool infoKept;  // an INAM item must still be readable afterwards
};

std::vector<Damage> damages(const Bytes& pcm) {
  const Bytes partial = {0x11, 0x22, 0x33};
  // fmt (16 or 18 bytes), an empty data chunk, then the samples.
  auto unsized = [&](bool fmt18Form, const Bytes& before = {}) {
    return wave({chunk("fmt ", fmt18Form ? fmt18(1, 2, 44100, 16) : fmt16(1, 2, 44100, 16)), before,
                 chunk("data", {})})
        .add(pcm);
  };
  std::vector<Damage> d;
  // The kernel's own set-up header, never rewritten, and a partial last frame.
  d.push_back({"kernel-crash", unsized(true).add({0x7F}), false});
  {  // a streaming writer: 16-byte fmt, INFO ahead, sizes left at 0xFFFFFFFF
    Bytes b = unsized(false, infoList({{"INAM", "Live"}})).add(partial);
    set32(b, 4, 0xFFFFFFFF);
    set32(b, b.size() - pcm.size() - partial.size() - 4, 0xFFFFFFFF);
    d.push_back({"pipe-ffff", b, true});
  }
  {  // another streaming writer's guess at a huge length
    Bytes b = unsized(false);
    set32(b, 4, 0x7FFFF024);
    set32(b, 40, 0x7FFFF000);
    d.push_back({"pipe-guess", b, false});
  }
  {  // samples whose length was never written, then an INFO list appended after them
    Bytes b = unsized(true).add(infoList({{"INAM", "After"}, {"ICMT", "odd"}}));
    set32(b, 4, 0);
    d.push_back({"list-after-unsized-data", b, true});
  }
  {  // a header updated now and then: it states the first 100 frames only
    Bytes b = unsized(true);
    set32(b, 42, 400);
    set32(b, 4, 38 + 400);
    d.push_back({"interim-size", b, false});
  }
  {  // the header's first bytes destroyed: only the kernel's scan finds the samples
    Bytes b = unsized(true);
    std::fill_n(b.begin(), 8, 0);
    d.push_back({"riff-id-lost", b, false});
  }
  // Wave64 set up for no samples: riff size word 130 as written, data size word 24.
  d.push_back({"w64-crash.w64",
               Bytes()
                   .guid(RIFF64_GUID_RIFF)
                   .u64(130)
                   .guid(RIFF64_GUID_WAVE)
                   .guid(RIFF64_GUID_FMT)
                   .u64(24 + 18)
                   .add(fmt18(1, 2, 44100, 16))
                   .zeros(6)
                   .guid(RIFF64_GUID_DATA)
                   .u64(24)
                   .add(pcm)
                   .add(partial),
               false});
  return d;
}

TEST(OstraRepair, RecoversEveryWholeFrame) {
  TempDir dir;
  const Bytes pcm = le16(ramp16(kFrames));
  writeFile(dir.file("reference.wav"),
            wave({chunk("fmt ", fmt16(1, 2, 44100, 16)), chunk("data", pcm)}));
  auto reference =
      ostraJson("samples --json --count 100000 " + q(dir.file("reference.wav")))["channels"];
  ASSERT_EQ(reference[0].size(), kFrames);
  for (const Damage& d : damages(pcm)) {
    SCOPED_TRACE(d.name);
    const std::string path = dir.file(
        std::string(d.name).find('.') != std::string::npos ? d.name : std::string(d.name) + ".wav");
    writeFile(path, d.bytes);
    // A dry run reports and writes nothing.
    auto dry = ostraJson("repair --dry-run --json " + q(path));
    ASSERT_FALSE(dry.is_null());
    EXPECT_EQ(readFile(path), d.bytes);
    auto rep = ostraJson("repair --json " + q(path));
    ASSERT_FALSE(rep.is_null());
    EXPECT_EQ(rep["data_length"], kFrames * 4);
    if (dry["method"] == "chunk walk") {
      EXPECT_EQ(dry["data_length"], rep["data_length"]);
    }
    auto info = ostraJson("info --json " + q(path));
    ASSERT_FALSE(info.is_null());
    EXPECT_EQ(info["frames"], kFrames);
    EXPECT_EQ(info["data"]["size"], kFrames * 4);
    if (d.infoKept) {
      EXPECT_TRUE(info["info"].contains("INAM")) << info.dump();
    }
    EXPECT_EQ(ostraJson("samples --json --count 100000 " + q(path))["channels"], reference);
    // Repairing a repaired file changes nothing.
    const Bytes repaired = readFile(path);
    auto again = ostraJson("repair --json " + q(path));
    ASSERT_FALSE(again.is_null());
    EXPECT_FALSE(again["changed"].get<bool>()) << again.dump();
    EXPECT_EQ(readFile(path), repaired);
  }
}

TEST(OstraRepair, LeavesSoundFilesAlone) {
  TempDir dir;
  const Bytes pcm = le16(ramp16(kFrames));
  const Bytes sound = wave({chunk("fmt ", fmt16(1, 2, 44100, 16)), chunk("data", pcm),
                            infoList({{"INAM", "Fine"}}), chunk("id3 ", Bytes(11, 1))});
  writeFile(dir.file("sound.wav"), sound);
  auto rep = ostraJson("repair --json " + q(dir.file("sound.wav")));
  ASSERT_FALSE(rep.is_null());
  EXPECT_FALSE(rep["changed"].get<bool>());
  EXPECT_EQ(rep["header_length"], 44);
  EXPECT_EQ(readFile(dir.file("sound.wav")), sound);
  const RunResult text = ostra("repair " + q(dir.file("sound.wav")));
  EXPECT_NE(text.out.find("header length 44, data length 2000"), std::string::npos) << text.out;
  EXPECT_NE(ostra("repair " + q(dir.file("missing.wav"))).status, 0);
}

}  // namespace
}  // namespace ostra::tooltest
