// `ostra samples` shows the values as stored, and `ostra info` names the sample type, for
// every sample type a wave or AIFF file can hold.
#include <gtest/gtest.h>

#include <cstring>

#include "tool_helpers.h"

namespace ostra::tooltest {
namespace {

using nlohmann::json;

Bytes le(std::initializer_list<int64_t> values, int bytes, bool bigEndian = false) {
  Bytes b;
  for (int64_t v : values) bigEndian ? b.be(uint64_t(v), bytes) : b.le(uint64_t(v), bytes);
  return b;
}
template <typename F>
Bytes ieee(std::initializer_list<F> values) {
  Bytes b;
  for (F v : values) b.put(&v, sizeof v);
  return b;
}

TEST(OstraSamples, StoredValuesOfEverySampleType) {
  TempDir dir;
  auto wav = [](const Bytes& fmt, const Bytes& data) {
    return wave({chunk("fmt ", fmt), chunk("data", data)});
  };
  constexpr int64_t kMin32 = INT32_MIN, kMax32 = INT32_MAX;
  struct Case {
    const char* name;
    Bytes file;
    int sampleType;
    json expected;            // one channel
    const char* compression;  // AIFF and AIFC only
  } cases[] = {
      {"u8", wav(fmt18(1, 1, 8000, 8), le({0, 128, 255}, 1)), 16, {0, 128, 255}},
      {"s16", wav(fmt18(1, 1, 8000, 16), le({-32768, 0, 32767}, 2)), 17, {-32768, 0, 32767}},
      {"s24",
       wav(fmt18(1, 1, 8000, 24), le({-8388608, 1, 8388607}, 3)),
       18,
       {-8388608, 1, 8388607}},
      {"s32", wav(fmt18(1, 1, 8000, 32), le({kMin32, -1, kMax32}, 4)), 19, {kMin32, -1, kMax32}},
      {"24in32", wav(fmtExt(1, 8000, 32, 24, 4, 1), le({kMin32, 0x100}, 4)), 48, {kMin32, 256}},
      {"f32", wav(fmt18(3, 1, 8000, 32), ieee({-1.0f, 0.5f, 0.1f})), 32, {-1.0, 0.5, double(0.1f)}},
      {"f64", wav(fmt18(3, 1, 8000, 64), ieee({-0.25, 1e-300})), 33, {-0.25, 1e-300}},
      {"aiff-s8", aiff(1, 3, 8, 22050, {0x80, 0xFF, 0x7F}), 49, {-128, -1, 127}, "NONE"},
      {"aiff-be16",
       aiff(1, 3, 16, 22050, le({-32768, -2, 32767}, 2, true)),
       64,
       {-32768, -2, 32767},
       "NONE"},
      {"aiff-be24",
       aiff(1, 3, 24, 22050, le({-8388608, 2, 8388607}, 3, true)),
       65,
       {-8388608, 2, 8388607},
       "NONE"},
      {"aiff-be32",
       aiff(1, 3, 32, 22050, le({kMin32, 3, kMax32}, 4, true)),
       66,
       {kMin32, 3, kMax32},
       "NONE"},
      {"aifc-sowt",
       aiff(1, 3, 16, 22050, le({-32768, -2, 32767}, 2), "sowt"),
       17,
       {-32768, -2, 32767},
       "sowt"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = dir.file(c.name);
    writeFile(path, c.file);
    auto j = ostraJson("samples --json " + q(path));
    ASSERT_FALSE(j.is_null());
    EXPECT_EQ(j["channels"], json::array({c.expected}));
    auto info = ostraJson("info --json " + q(path));
    ASSERT_FALSE(info.is_null());
    EXPECT_EQ(info["format"]["sample_type"], c.sampleType);
    EXPECT_EQ(info["frames"], c.expected.size());
    if (c.compression) {
      EXPECT_EQ(info["container"], std::string(c.name).starts_with("aifc") ? "AIFC" : "AIFF");
      EXPECT_EQ(info["format"]["compression"], c.compression);
      EXPECT_EQ(info["format"]["rate80"], "400DAC44000000000000");
      EXPECT_EQ(info["format"]["sample_rate"], 22050);
    }
  }
}

TEST(OstraSamples, StartCountAndChannels) {
  TempDir dir;
  const auto v = ramp16(6);
  writeFile(dir.file("s.wav"),
            wave({chunk("fmt ", fmt16(1, 2, 8000, 16)), chunk("data", le16(v))}));
  auto j = ostraJson("samples --json --start 4 --count 5 " + q(dir.file("s.wav")));
  ASSERT_FALSE(j.is_null());
  EXPECT_EQ(j["channels"], json({{v[8], v[10]}, {v[9], v[11]}}));  // cut at the last frame
  auto all = ostraJson("samples --json --start 99 " + q(dir.file("s.wav")));
  ASSERT_FALSE(all.is_null());
  EXPECT_EQ(all["channels"], json({json::array(), json::array()}));
  // A format without a sample type (here ADPCM's tag) is refused with a message.
  writeFile(dir.file("adpcm.wav"),
            wave({chunk("fmt ", fmt18(2, 1, 8000, 4)), chunk("data", Bytes(8, 0))}));
  const RunResult r = ostra("samples " + q(dir.file("adpcm.wav")));
  EXPECT_NE(r.status, 0);
  EXPECT_FALSE(r.err.empty());
}

}  // namespace
}  // namespace ostra::tooltest
