// `ostra info` shows a broadcast-wave `bext` chunk, its time reference as a label in the
// time-code format asked for, and refuses nothing because of a short or odd chunk.
#include <gtest/gtest.h>

#include <cstring>

#include "tool_helpers.h"

namespace ostra::tooltest {
namespace {

Bytes bextBody(const std::string& description, uint64_t timeReference, unsigned version) {
  Bytes b(602, 0);
  std::memcpy(b.data(), description.data(), description.size());
  std::memcpy(b.data() + 256, "Field Recorder", 14);
  std::memcpy(b.data() + 288, "REF-0042", 8);
  std::memcpy(b.data() + 320, "2026-11-24", 10);
  std::memcpy(b.data() + 330, "14:30:00", 8);
  for (int i = 0; i < 8; ++i) b[338 + size_t(i)] = uint8_t(timeReference >> (8 * i));
  b[346] = uint8_t(version);
  b[348] = 0x06;  // a UMID's first byte
  const int16_t loud[] = {-2300, 700, -100, 0x7FFF, -1800};
  for (int i = 0; i < 5; ++i) std::memcpy(b.data() + 412 + 2 * i, &loud[i], 2);
  return b.text("A=PCM,F=48000,W=24\r\n");
}

TEST(OstraBext, FieldsAndTheTimeReferenceAsALabel) {
  TempDir dir;
  const std::string path = dir.file("take.wav");
  // One hour after midnight at 48 kHz.
  writeFile(path, wave({chunk("fmt ", fmt16(1, 2, 48000, 16)),
                        chunk("bext", bextBody("Scene 4 take 2", 48000ull * 3600, 2)),
                        chunk("data", le16(ramp16(10)))}));
  const struct {
    int type;
    const char* label;
  } labels[] = {{3, "01:00:00:00"}, {2, "01:00:00;00"}, {1, "01:00:00:00"}, {6, "00:59:56:09"}};
  for (const auto& l : labels) {
    SCOPED_TRACE(l.type);
    const auto j = ostraJson("info --json --tc-type " + std::to_string(l.type) + " " + q(path));
    ASSERT_FALSE(j.is_null());
    EXPECT_EQ(j["bext"]["time_reference_label"], l.label);
  }
  const auto j = ostraJson("info --json " + q(path))["bext"];
  EXPECT_EQ(j["description"], "Scene 4 take 2");
  EXPECT_EQ(j["originator"], "Field Recorder");
  EXPECT_EQ(j["reference"], "REF-0042");
  EXPECT_EQ(j["date"], "2026-11-24");
  EXPECT_EQ(j["time"], "14:30:00");
  EXPECT_EQ(j["time_reference"], 48000ull * 3600);
  EXPECT_EQ(j["version"], 2);
  EXPECT_EQ(j["umid"].get<std::string>().substr(0, 4), "0600");
  EXPECT_EQ(j["loudness_value"], -23.0);
  EXPECT_EQ(j["max_true_peak_level"], -1.0);
  EXPECT_FALSE(j.contains("max_momentary_loudness"));  // 0x7FFF: not known
  EXPECT_EQ(j["coding_history"], "A=PCM,F=48000,W=24\r\n");
  const RunResult text = ostra("info " + q(path));
  EXPECT_NE(text.out.find("= 01:00:00:00"), std::string::npos) << text.out;

  // A chunk too short for its fixed part is a note, not a failure.
  writeFile(path, wave({chunk("fmt ", fmt16(1, 2, 48000, 16)), chunk("bext", Bytes(100, 'x')),
                        chunk("data", le16(ramp16(10)))}));
  const auto shortOne = ostraJson("info --json " + q(path));
  ASSERT_FALSE(shortOne.is_null());
  EXPECT_FALSE(shortOne.contains("bext"));
  EXPECT_EQ(ostra("info --tc-type 7 " + q(path)).status, 2);
}

}  // namespace
}  // namespace ostra::tooltest
