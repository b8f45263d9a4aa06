// `ostra convert` through every sample type and container and back.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>

#include "tool_helpers.h"

namespace ostra::tooltest {
namespace {

nlohmann::json samples(const std::string& path) {
  return ostraJson("samples --json --count 1000000 " + q(path))["channels"];
}

TEST(OstraConvert, EveryTypeAndContainerRoundTrips) {
  TempDir dir;
  const std::string src = dir.file("src.wav");
  const auto v = ramp16(700);
  writeFile(src, wave({chunk("fmt ", fmt16(1, 2, 44100, 16)), infoList({{"INAM", "Ramp"}}),
                       chunk("data", le16(v))}));
  nlohmann::json original = samples(src);
  ASSERT_EQ(original[0].size(), 700u);
  struct Target {
    const char* type;
    int sampleType;
    const char* container;
  } targets[] = {
      {"pcm8", 16, "wav"},      {"pcm16", 17, "wav"},     {"pcm24", 18, "w64"},
      {"pcm32", 19, "wav"},     {"pcm24in32", 48, "wav"}, {"float32", 32, "w64"},
      {"float64", 33, "wav"},   {"pcm24", 65, "aiff"},    {"pcm8", 49, "aiff"},
      {"pcm24in32", 48, "w64"}, {"float32", 32, "aiff"},  {"float64", 33, "aiff"},
  };
  for (const Target& t : targets) {
    SCOPED_TRACE(std::string(t.type) + "/" + t.container);
    const std::string out = dir.file(std::string("out-") + t.type + "." + t.container);
    const RunResult r = ostra("convert " + q(src) + " " + q(out) + " --type " + t.type +
                              " --container " + t.container);
    ASSERT_EQ(r.status, 0) << r.err;
    auto info = ostraJson("info --json " + q(out));
    ASSERT_FALSE(info.is_null());
    EXPECT_EQ(info["format"]["sample_type"], t.sampleType);
    EXPECT_EQ(info["frames"], 700);
    EXPECT_EQ(info["format"]["channels"], 2);
    EXPECT_EQ(info["format"]["sample_rate"], 44100);
    if (std::string(t.container) == "wav") {
      EXPECT_EQ(info["info"], nlohmann::json({{"INAM", "Ramp"}}));
    }
    // Back to 16 bits: exact from every type at least 16 bits wide, within one 8-bit step
    // (the top step clamps) otherwise.
    const std::string back = dir.file(std::string("back-") + t.type + "." + t.container + ".wav");
    const RunResult r2 =
        ostra("convert " + q(out) + " " + q(back) + " --type pcm16 --container wav");
    ASSERT_EQ(r2.status, 0) << r2.err;
    auto got = samples(back);
    ASSERT_EQ(got.size(), 2u);
    ASSERT_EQ(got[0].size(), 700u);
    const int tolerance = std::string(t.type) == "pcm8" ? 256 : 0;
    for (int c = 0; c < 2; ++c)
      for (size_t i = 0; i < 700; ++i)
        ASSERT_LE(std::abs(got[c][i].get<int>() - original[c][i].get<int>()), tolerance)
            << "sample " << i;
  }
}

TEST(OstraConvert, GainRefusalsAndCleanUp) {
  TempDir dir;
  const std::string src = dir.file("src.wav");
  const auto v = ramp16(50);
  writeFile(src, wave({chunk("fmt ", fmt16(1, 2, 8000, 16)), chunk("data", le16(v))}));
  const std::string half = dir.file("half.wav");
  ASSERT_EQ(ostra("convert " + q(src) + " " + q(half) + " --type float64 --gain -6.020599913279624")
                .status,
            0);
  auto h = samples(half);
  for (size_t i = 0; i < 50; ++i) EXPECT_NEAR(h[0][i].get<double>(), v[2 * i] / 65536.0, 1e-7);

  auto before = readFile(src);
  const RunResult same = ostra("convert " + q(src) + " " + q(src) + " --type float32");
  EXPECT_NE(same.status, 0);
  EXPECT_FALSE(same.err.empty());
  EXPECT_EQ(readFile(src), before);

  // AIFF has no 24-in-32 container; nothing is left behind.
  const std::string aif = dir.file("padded.aiff");
  EXPECT_NE(ostra("convert " + q(src) + " " + q(aif) + " --type pcm24in32 --container aiff").status,
            0);
  EXPECT_FALSE(std::filesystem::exists(aif));
}

}  // namespace
}  // namespace ostra::tooltest
