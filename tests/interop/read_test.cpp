// Files that sox, ffmpeg and libsndfile write (every sample type, mono to 8 channels,
// extensible descriptions, INFO metadata, Wave64) read by `ostra info` and `ostra
// samples` with the facts those programs report.
#include <gtest/gtest.h>

#include "peers.h"
#include "support/test_support.h"

namespace ostra::interop {
namespace {

using ostra::test::TempDir;

struct Made {
  const char* name;
  Peer maker;
  std::string command;  // %s is the output path
  int sampleType;       // what ostra must call it
  int channels;
};

std::string fill(const std::string& pattern, const std::string& path, const std::string& src) {
  std::string s = pattern;
  for (auto [key, value] :
       {std::pair<const char*, std::string>{"{out}", quote(path)}, {"{src}", quote(src)}})
    for (size_t at; (at = s.find(key)) != std::string::npos;)
      s.replace(at, std::string(key).size(), value);
  return s;
}

class Read : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!havePeers()) GTEST_SKIP() << "sox, ffmpeg or libsndfile's tools are not installed";
  }
};

TEST_F(Read, WhatOtherProgramsWrite) {
  TempDir dir;
  // Eight channels of different tones; each file takes the first channels it needs.
  const std::string src = dir.file("src8.wav");
  ASSERT_EQ(run("sox -R -n -r 32000 -c 8 -e floating-point -b 32 " + quote(src) +
                " synth 600s sine 300 sine 500 sine 700 sine 900 sine 1100 sine 1300 sine 1500 "
                "whitenoise vol 0.8")
                .status,
            0);
  const std::vector<Made> made = {
      {"sox-u8-mono.wav", Peer::Sox, "sox {src} -e unsigned -b 8 {out} remix 1", 16, 1},
      {"sox-s16-stereo.wav", Peer::Sox, "sox {src} -e signed -b 16 {out} remix 1 2", 17, 2},
      {"sox-s24-3ch-ext.wav", Peer::Sox, "sox {src} -e signed -b 24 {out} remix 1 2 3", 18, 3},
      {"sox-s32-4ch.wav", Peer::Sox, "sox {src} -e signed -b 32 {out} remix 1 2 3 4", 19, 4},
      {"sox-f32-6ch.wav", Peer::Sox, "sox {src} -e floating-point -b 32 {out} remix 1 2 3 4 5 6",
       32, 6},
      {"sox-f64-8ch.wav", Peer::Sox, "sox {src} -e floating-point -b 64 {out}", 33, 8},
      {"sox-s16.w64", Peer::Sox, "sox {src} -e signed -b 16 {out} remix 1 2", 17, 2},
      {"ff-u8-2ch.wav", Peer::Ffmpeg,
       "ffmpeg -nostdin -v error -i {src} -af 'pan=stereo|c0=c0|c1=c1' -c:a pcm_u8 {out}", 16, 2},
      {"ff-s16-5ch-info.wav", Peer::Ffmpeg,
       "ffmpeg -nostdin -v error -i {src} -af 'pan=5c|c0=c0|c1=c1|c2=c2|c3=c3|c4=c4' -c:a "
       "pcm_s16le "
       "-metadata title=Interop -metadata artist=Peer -metadata comment=Made {out}",
       17, 5},
      {"ff-s24-mono.wav", Peer::Ffmpeg,
       "ffmpeg -nostdin -v error -i {src} -af 'pan=mono|c0=c0' -c:a pcm_s24le {out}", 18, 1},
      {"ff-s32-7ch.wav", Peer::Ffmpeg,
       "ffmpeg -nostdin -v error -i {src} -af 'pan=7c|c0=c0|c1=c1|c2=c2|c3=c3|c4=c4|c5=c5|c6=c6' "
       "-c:a pcm_s32le {out}",
       19, 7},
      {"ff-f32-2ch.wav", Peer::Ffmpeg,
       "ffmpeg -nostdin -v error -i {src} -af 'pan=stereo|c0=c0|c1=c1' -c:a pcm_f32le {out}", 32,
       2},
      {"ff-f64-8ch.wav", Peer::Ffmpeg, "ffmpeg -nostdin -v error -i {src} -c:a pcm_f64le {out}", 33,
       8},
      {"ff-s24.w64", Peer::Ffmpeg,
       "ffmpeg -nostdin -v error -i {src} -af 'pan=stereo|c0=c0|c1=c1' -c:a pcm_s24le -f w64 {out}",
       18, 2},
      {"sf-u8-8ch.wav", Peer::Sndfile, "sndfile-convert -pcmu8 {src} {out}", 16, 8},
      {"sf-s16-8ch.wav", Peer::Sndfile, "sndfile-convert -pcm16 {src} {out}", 17, 8},
      {"sf-s24-8ch.wav", Peer::Sndfile, "sndfile-convert -pcm24 {src} {out}", 18, 8},
      {"sf-s32-8ch.wav", Peer::Sndfile, "sndfile-convert -pcm32 {src} {out}", 19, 8},
      {"sf-f32-8ch.wav", Peer::Sndfile, "sndfile-convert -float32 {src} {out}", 32, 8},
      {"sf-f64-8ch.wav", Peer::Sndfile, "sndfile-convert -float64 {src} {out}", 33, 8},
      {"sf-s24-8ch.w64", Peer::Sndfile, "sndfile-convert -pcm24 {src} {out}", 18, 8},
  };
  for (const Made& m : made) {
    SCOPED_TRACE(m.name);
    const std::string path = dir.file(m.name);
    const RunResult r = run(fill(m.command, path, src));
    ASSERT_EQ(r.status, 0) << r.err;
    nlohmann::json info = ostraJson("info --json " + quote(path));
    ASSERT_FALSE(info.is_null());
    EXPECT_EQ(info["container"], std::string(m.name).ends_with(".w64") ? "W64" : "RIFF");
    const auto& fmt = info["format"];
    EXPECT_EQ(fmt["sample_type"], m.sampleType);
    EXPECT_EQ(fmt["channels"], m.channels);
    // The maker's own report agrees with ours.
    const PeerFacts f = peerFacts(m.maker, path);
    ASSERT_TRUE(f.ok) << f.detail;
    EXPECT_EQ(fmt["channels"], f.channels);
    EXPECT_EQ(fmt["sample_rate"], f.rate);
    EXPECT_EQ(info["frames"], f.frames);
    EXPECT_EQ(fmt["bits"], f.bits);
    if (fmt["tag"] == 0xFFFE) {
      EXPECT_EQ(fmt["subformat"].get<std::string>().substr(8), "-0000-0010-8000-00AA00389B71");
    }
    const bool isFloat = m.sampleType == 32 || m.sampleType == 33;
    const std::vector<double> ours = ostraSamples(path, info);
    // Decoded exactly by sox (integers) or libsndfile (floating point), the quickest peers.
    const std::vector<double> theirs =
        peerSamples(isFloat ? Peer::Sndfile : Peer::Sox, path, isFloat, dir.path().string());
    ASSERT_EQ(ours.size(), theirs.size());
    EXPECT_EQ(firstDifference(ours, theirs, 0.0), -1);
    if (std::string(m.name).find("info") != std::string::npos) {
      nlohmann::json tags = ffprobeTags(path);
      EXPECT_EQ(info["info"]["INAM"], tags["title"]);
      EXPECT_EQ(info["info"]["IART"], tags["artist"]);
      EXPECT_EQ(info["info"]["ICMT"], tags["comment"]);
      EXPECT_EQ(info["info"]["ISFT"], tags["encoder"]);
    }
  }
}

}  // namespace
}  // namespace ostra::interop
