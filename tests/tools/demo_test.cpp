// `ostra demo` runs end to end and leaves the files it describes.
#include <gtest/gtest.h>

#include <filesystem>

#include "tool_helpers.h"

namespace ostra::tooltest {
namespace {

TEST(OstraDemo, WritesConvertsTagsAndRepairs) {
  ostra::test::TempDir dir;
  const std::string at = dir.file("demo");
  const RunResult r = ostra("demo --dir " + q(at));
  ASSERT_EQ(r.status, 0) << r.err << r.out;
  struct Expect {
    const char* file;
    int sampleType;
    uint64_t frames;
  } expected[] = {
      {"signal.wav", 18, 48000},
      {"signal-pcm16.wav", 17, 48000},
      {"signal-float32.w64", 32, 48000},
      {"signal-pcm24in32.wav", 48, 48000},
      {"signal.aiff", 65, 48000},
      {"crashed.wav", 17, 47999},  // the partial last frame is left out
  };
  for (const Expect& e : expected) {
    SCOPED_TRACE(e.file);
    const std::string path = (std::filesystem::path(at) / e.file).string();
    EXPECT_NE(r.out.find(path), std::string::npos);
    auto j = ostraJson("info --json " + q(path));
    ASSERT_FALSE(j.is_null());
    EXPECT_EQ(j["format"]["sample_type"], e.sampleType);
    EXPECT_EQ(j["format"]["channels"], 6);
    EXPECT_EQ(j["frames"], e.frames);
  }
  EXPECT_EQ(ostraJson("info --json " + q(at + "/signal-pcm16.wav"))["info"]["INAM"],
            "Ostra demo signal");
}

}  // namespace
}  // namespace ostra::tooltest
