// `ostra samples` shows the values as stored, for every sample type a file can hold.
#include <gtest/gtest.h>

#include <cstring>

#include "support/test_support.h"
#include "tool_helpers.h"

namespace ostra::tooltest {
namespace {

using ostra::test::TempDir;
using ostra::test::writeFile;

Bytes le(int64_t v, int bytes) {
  Bytes b;
  for (int i = 0; i < bytes; ++i) b.push_back(uint8_t(uint64_t(v) >> (8 * i)));
  return b;
}
Bytes be(int64_t v, int bytes) {
  Bytes b = le(v, bytes);
  return Bytes(b.rbegin(), b.rend());
}
template <typename F>
Bytes ieee(F v) {
  Bytes b(sizeof v);
  std::memcpy(b.data(), &v, sizeof v);
  return b;
}

TEST(OstraSamples, StoredValuesOfEverySampleType) {
  TempDir dir;
  struct Case {
    const char* name;
    Bytes file;
    nlohmann::json expected;  // one channel
  };
  std::vector<Case> cases;
  auto wave = [](const Bytes& fmt, std::vector<Bytes> samples) {
    Bytes data;
    for (const Bytes& s : samples) append(data, s);
    return riff({chunk("fmt ", fmt), chunk("data", data)});
  };
  cases.push_back(
      {"u8", wave(fmt18(1, 1, 8000, 8), {le(0, 1), le(128, 1), le(255, 1)}), {0, 128, 255}});
  cases.push_back({"s16",
                   wave(fmt18(1, 1, 8000, 16), {le(-32768, 2), le(0, 2), le(32767, 2)}),
                   {-32768, 0, 32767}});
  cases.push_back({"s24",
                   wave(fmt18(1, 1, 8000, 24), {le(-8388608, 3), le(1, 3), le(8388607, 3)}),
                   {-8388608, 1, 8388607}});
  cases.push_back({"s32",
                   wave(fmt18(1, 1, 8000, 32), {le(INT32_MIN, 4), le(-1, 4), le(INT32_MAX, 4)}),
                   {INT32_MIN, -1, INT32_MAX}});
  cases.push_back({"24in32",
                   wave(fmtExt(1, 8000, 32, 24, 4, 1), {le(int32_t(0x80000000), 4), le(0x100, 4)}),
                   {INT32_MIN, 256}});
  cases.push_back({"f32",
                   wave(fmt18(3, 1, 8000, 32), {ieee(-1.0f), ieee(0.5f), ieee(0.1f)}),
                   {-1.0, 0.5, double(0.1f)}});
  cases.push_back(
      {"f64", wave(fmt18(3, 1, 8000, 64), {ieee(-0.25), ieee(1e-300)}), {-0.25, 1e-300}});
  Bytes s8 = {0x80, 0xFF, 0x7F}, be16, be24, be32;
  for (int v : {-32768, -2, 32767}) append(be16, be(v, 2));
  for (int v : {-8388608, 2, 8388607}) append(be24, be(v, 3));
  for (int64_t v : {int64_t(INT32_MIN), int64_t(3), int64_t(INT32_MAX)}) append(be32, be(v, 4));
  cases.push_back({"aiff-s8", aiff(1, 3, 8, 22050, s8), {-128, -1, 127}});
  cases.push_back({"aiff-be16", aiff(1, 3, 16, 22050, be16), {-32768, -2, 32767}});
  cases.push_back({"aiff-be24", aiff(1, 3, 24, 22050, be24), {-8388608, 2, 8388607}});
  cases.push_back({"aiff-be32", aiff(1, 3, 32, 22050, be32), {INT32_MIN, 3, INT32_MAX}});
  Bytes sowt;
  for (int v : {-32768, -2, 32767}) append(sowt, le(v, 2));
  cases.push_back({"aifc-sowt", aiff(1, 3, 16, 22050, sowt, "sowt"), {-32768, -2, 32767}});

  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = dir.file(c.name);
    writeFile(path, c.file);
    auto j = ostraJson("samples --json " + q(path));
    ASSERT_FALSE(j.is_null());
    ASSERT_EQ(j["channels"].size(), 1u);
    EXPECT_EQ(j["channels"][0], c.expected);
  }
}

TEST(OstraSamples, StartCountAndChannels) {
  TempDir dir;
  const auto v = ramp16(6);
  writeFile(dir.file("s.wav"),
            riff({chunk("fmt ", fmt16(1, 2, 8000, 16)), chunk("data", le16(v))}));
  auto j = ostraJson("samples --json --start 4 --count 5 " + q(dir.file("s.wav")));
  ASSERT_FALSE(j.is_null());
  EXPECT_EQ(j["channels"],
            nlohmann::json({{v[8], v[10]}, {v[9], v[11]}}));  // cut at the last frame
  auto all = ostraJson("samples --json --start 99 " + q(dir.file("s.wav")));
  ASSERT_FALSE(all.is_null());
  EXPECT_EQ(all["channels"], nlohmann::json({nlohmann::json::array(), nlohmann::json::array()}));
  // A format without a sample type (here ADPCM's tag) is refused with a message.
  writeFile(dir.file("adpcm.wav"),
            riff({chunk("fmt ", fmt18(2, 1, 8000, 4)), chunk("data", Bytes(8, 0))}));
  const ToolRun r = ostra("samples " + q(dir.file("adpcm.wav")));
  EXPECT_NE(r.status, 0);
  EXPECT_FALSE(r.err.empty());
}

}  // namespace
}  // namespace ostra::tooltest
