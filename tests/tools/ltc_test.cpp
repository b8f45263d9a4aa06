// LTC written by `ostra ltc encode` reads back, frame by frame, through `ostra ltc decode`
// and through libltc's own decoder, in all six formats, drop-frame across a dropped
// minute included; joins and reversed signal are reported.
#include <gtest/gtest.h>

#include <ltc.h>

#include <algorithm>

#include <cstring>

#include "ostra/kaplatform.h"
#include "ostra/kasmpte.h"
#include "ostra/kawave.h"
#include "tool_helpers.h"

namespace ostra::tooltest {
namespace {

std::string text(const _smpteval& l) {
  KAWCHAR buf[16] = {};
  KASMPTE_SMPTEToText(&l, buf, 16);
  return std::string(buf, buf + std::char_traits<KAWCHAR>::length(buf));
}

// The labels libltc's decoder finds in a mono 16-bit wave file, and their drop-frame flags.
std::vector<std::pair<std::string, bool>> libltcLabels(const std::string& path, DWORD type) {
  const Bytes b = readFile(path);
  KAHFILE f = KA_INVALID_HFILE;
  tKAAUDIODATA data{};
  if (FAILED(KaFile_OpenUtf8(path.c_str(), GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, 0, &f)))
    return {};
  KaGetFileAudioData(f, &data);
  KaFile_Close(f);
  std::vector<float> s;
  for (uint64_t i = data.offset; i + 1 < data.offset + data.size; i += 2)
    s.push_back(float(int16_t(b[i] | b[i + 1] << 8)) / 32768.0f);
  s.insert(s.end(), 600, s.back() > 0 ? -0.5f : 0.5f);
  s.insert(s.end(), 4000, 0.0f);
  LTCDecoder* dec = ltc_decoder_create(1920, 32);
  std::vector<std::pair<std::string, bool>> out;
  for (size_t at = 0; at < s.size(); at += 512) {
    ltc_decoder_write_float(dec, s.data() + at, std::min<size_t>(512, s.size() - at),
                            ltc_off_t(at));
    LTCFrameExt fr;
    while (ltc_decoder_read(dec, &fr)) {
      SMPTETimecode t{};
      ltc_frame_to_time(&t, &fr.ltc, 0);
      out.push_back({text({type, t.hours, t.mins, t.secs, t.frame}), fr.ltc.dfbit != 0});
    }
  }
  ltc_decoder_free(dec);
  return out;
}

TEST(OstraLtc, EveryFrameBackInEveryFormat) {
  TempDir dir;
  for (DWORD type = 1; type <= 6; ++type) {
    SCOPED_TRACE("type " + std::to_string(type));
    // Across minute 1, where drop-frame skips two labels.
    const std::string start = type == 2 ? "00:00:59;20" : "00:00:59:10";
    const std::string path = dir.file("ltc" + std::to_string(type) + ".wav");
    const RunResult e = ostra("ltc encode --type " + std::to_string(type) + " --start '" + start +
                              "' --duration 00:00:01:10 " + q(path));
    ASSERT_EQ(e.status, 0) << e.err;
    // The labels the kernel's arithmetic expects.
    _smpteval l{type, 0, 0, 0, 0}, length{type, 0, 0, 1, 10};
    const std::u16string w(start.begin(), start.end());
    KASMPTE_TextToSMPTE(&l, w.c_str());
    std::vector<std::string> expected;
    for (DWORD i = 0; i < KASMPTE_SMPTEToFrameCount(&length); ++i, KASMPTE_IncrementByFrame(&l, 1))
      expected.push_back(text(l));

    const auto j = ostraJson("ltc decode --json " + q(path));
    ASSERT_FALSE(j.is_null());
    EXPECT_EQ(j["type"], type);  // found from the signal
    EXPECT_EQ(j["frames"], expected.size());
    EXPECT_EQ(j["first"]["label"], expected.front());
    EXPECT_EQ(j["last"]["label"], expected.back());
    EXPECT_EQ(j["direction"], "forward");
    EXPECT_TRUE(j["discontinuities"].empty()) << j["discontinuities"].dump();

    const auto theirs = libltcLabels(path, type);
    ASSERT_EQ(theirs.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
      EXPECT_EQ(theirs[i].first, expected[i]) << i;
      EXPECT_EQ(theirs[i].second, type == 2) << i;
    }
  }
}

TEST(OstraLtc, JoinsGapsAndReversedSignal) {
  TempDir dir;
  const std::string a = dir.file("a.wav"), b = dir.file("b.wav");
  ASSERT_EQ(ostra("ltc encode --start 10:00:00:00 --duration 00:00:01:00 " + q(a)).status, 0);
  ASSERT_EQ(ostra("ltc encode --start 11:30:00:00 --duration 00:00:01:00 " + q(b)).status, 0);
  // b's samples after a's, and a's samples backwards.
  Bytes ab = readFile(a);
  const Bytes bb = readFile(b);
  ab.insert(ab.end(), bb.begin() + 46, bb.end());
  const uint32_t riff = uint32_t(ab.size() - 8), data = uint32_t(ab.size() - 46);
  std::memcpy(&ab[4], &riff, 4);
  std::memcpy(&ab[42], &data, 4);
  writeFile(dir.file("joined.wav"), ab);
  auto j = ostraJson("ltc decode --json " + q(dir.file("joined.wav")));
  ASSERT_FALSE(j.is_null());
  ASSERT_EQ(j["discontinuities"].size(), 1u) << j.dump();
  EXPECT_EQ(j["discontinuities"][0]["kind"], "jump");
  EXPECT_EQ(j["discontinuities"][0]["from"], "10:00:00:24");
  EXPECT_EQ(j["discontinuities"][0]["to"], "11:30:00:00");

  Bytes rev = readFile(a);
  for (size_t i = 46, k = rev.size() - 2; i < k; i += 2, k -= 2) {
    std::swap(rev[i], rev[k]);
    std::swap(rev[i + 1], rev[k + 1]);
  }
  writeFile(dir.file("reversed.wav"), rev);
  j = ostraJson("ltc decode --json " + q(dir.file("reversed.wav")));
  ASSERT_FALSE(j.is_null());
  EXPECT_EQ(j["direction"], "reverse");
  EXPECT_EQ(j["first"]["label"], "10:00:00:24");

  EXPECT_EQ(ostra("ltc decode --channel 2 " + q(a)).status, 1);
  writeFile(dir.file("quiet.wav"),
            wave({chunk("fmt ", fmt16(1, 1, 48000, 16)), chunk("data", Bytes(9600, 0))}));
  const RunResult none = ostra("ltc decode " + q(dir.file("quiet.wav")));
  EXPECT_EQ(none.status, 1);
  EXPECT_NE(none.err.find("no time code"), std::string::npos) << none.err;
}

}  // namespace
}  // namespace ostra::tooltest
