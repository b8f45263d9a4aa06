// AIFF and AIFC between the kernel and sox, ffmpeg and libsndfile: their files read with
// the facts they report, the library's files opened by all three with the same samples,
// and the 80-bit sample-rate bytes identical for every rate.
#include <gtest/gtest.h>

#include <cstring>
#include <map>

#include "peers.h"
#include "support/test_support.h"

namespace ostra::interop {
namespace {

using ostra::test::readFile;
using ostra::test::TempDir;

constexpr int kRates[] = {8000, 11025, 22050, 32000, 44100, 48000, 88200, 96000, 192000};

// The 10 rate bytes of the first COMM chunk, read straight from the file.
std::string commRate80(const std::string& path) {
  const auto b = readFile(path);
  for (size_t at = 12; at + 8 <= b.size();) {
    const uint32_t size = uint32_t(b[at + 4]) << 24 | uint32_t(b[at + 5]) << 16 |
                          uint32_t(b[at + 6]) << 8 | b[at + 7];
    if (std::memcmp(&b[at], "COMM", 4) == 0 && at + 8 + 18 <= b.size()) {
      std::string hex;
      char two[3];
      for (int i = 0; i < 10; ++i) {
        std::snprintf(two, sizeof two, "%02X", b[at + 16 + i]);
        hex += two;
      }
      return hex;
    }
    at += 8 + size + (size & 1);
  }
  return {};
}

std::string source(const TempDir& dir, int rate, int channels) {
  const std::string path =
      dir.file("src-" + std::to_string(rate) + "-" + std::to_string(channels) + ".wav");
  std::string tones;
  for (int c = 0; c < channels; ++c) tones += " sine " + std::to_string(200 + 150 * c);
  run("sox -R -n -r " + std::to_string(rate) + " -c " + std::to_string(channels) +
      " -e floating-point -b 32 " + quote(path) + " synth 400s" + tones + " vol 0.8");
  return path;
}

class Aiff : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!havePeers()) GTEST_SKIP() << "sox, ffmpeg or libsndfile's tools are not installed";
  }
};

TEST_F(Aiff, WhatOtherProgramsWriteAtEveryRate) {
  TempDir dir;
  constexpr int kBits[] = {8, 16, 24, 32};
  std::map<int, std::string> rate80;  // rate -> bytes, the same from every writer
  for (size_t i = 0; i < std::size(kRates); ++i) {
    const int rate = kRates[i];
    for (int t = 0; t < 3; ++t) {
      const Peer maker = kPeers[t];
      const int bits = kBits[(i + size_t(t)) % 4];
      const int channels = 1 + int(i * 5 + size_t(t) * 2) % 6;
      // Little-endian AIFC (sowt) where the writer offers it: ffmpeg and libsndfile at 16 bits
      // (libsndfile marks its wider little-endian files with types of its own).
      const bool sowt = i % 2 == 1 && maker != Peer::Sox && bits == 16;
      const bool aifc = sowt || (maker == Peer::Sox && i % 3 == 2);
      const std::string src = source(dir, rate, channels);
      const std::string out = dir.file(std::string(peerName(maker)) + "-" + std::to_string(rate) +
                                       "-" + std::to_string(bits) + (aifc ? ".aifc" : ".aiff"));
      SCOPED_TRACE(out);
      std::string cmd;
      switch (maker) {
        case Peer::Sox:
          cmd = "sox " + quote(src) + " -e signed -b " + std::to_string(bits) + " -t " +
                (aifc ? "aifc " : "aiff ") + quote(out);
          break;
        case Peer::Ffmpeg:
          cmd = "ffmpeg -nostdin -v error -i " + quote(src) + " -c:a " +
                (bits == 8 ? std::string("pcm_s8")
                           : "pcm_s" + std::to_string(bits) + (sowt ? "le" : "be")) +
                " -f aiff " + quote(out);
          break;
        case Peer::Sndfile:
          cmd = "sndfile-convert " + std::string(sowt ? "-endian=little " : "") +
                (bits == 8 ? std::string("-pcms8") : "-pcm" + std::to_string(bits)) + " " +
                quote(src) + " " + quote(out);
          // libsndfile picks the container from the name: .aif
          cmd = cmd.substr(0, cmd.size() - quote(out).size()) + quote(out + ".aif");
          break;
      }
      ASSERT_EQ(run(cmd).status, 0) << cmd;
      const std::string path = maker == Peer::Sndfile ? out + ".aif" : out;
      nlohmann::json info = ostraJson("info --json " + quote(path));
      ASSERT_FALSE(info.is_null()) << ostra("info " + quote(path)).err;
      const auto& fmt = info["format"];
      const std::string compression = fmt["compression"];
      EXPECT_EQ(compression == "sowt", sowt);
      EXPECT_EQ(info["container"], aifc ? "AIFC" : "AIFF");
      EXPECT_EQ(fmt["bits"], bits);
      const int type = fmt["sample_type"];
      EXPECT_EQ(type, bits == 8 ? 49
                      : sowt    ? (bits == 16   ? 17
                                   : bits == 24 ? 18
                                                : 19)
                                : 64 + (bits - 16) / 8);
      const PeerFacts f = peerFacts(maker, path);
      ASSERT_TRUE(f.ok) << f.detail;
      EXPECT_EQ(fmt["channels"], f.channels);
      EXPECT_EQ(fmt["sample_rate"], f.rate);
      EXPECT_EQ(fmt["bits"], f.bits);
      EXPECT_EQ(info["frames"], f.frames);
      EXPECT_EQ(fmt["rate80"], commRate80(path));
      if (!rate80.count(rate)) rate80[rate] = commRate80(path);
      EXPECT_EQ(rate80[rate], commRate80(path)) << "the other programs disagree on the rate bytes";
      const std::vector<double> ours = ostraSamples(path, info);
      const std::vector<double> theirs = peerSamples(Peer::Sox, path, false, dir.path().string());
      ASSERT_EQ(ours.size(), theirs.size());
      EXPECT_EQ(firstDifference(ours, theirs, 0.0), -1);
    }
  }
}

TEST_F(Aiff, LibraryFilesOpenEverywhereWithTheSameSamples) {
  TempDir dir;
  const char* types[] = {"pcm8", "pcm16", "pcm24", "pcm32"};
  const int bits[] = {8, 16, 24, 32};
  for (int k = 0; k < 4; ++k) {
    const int rate = kRates[size_t(k) * 2 + 1], channels = 1 + k + (k > 1);
    const std::string out = dir.file(std::string("ostra-") + types[k] + ".aiff");
    SCOPED_TRACE(out);
    const std::string src = source(dir, rate, channels);
    const RunResult r =
        ostra("convert " + quote(src) + " " + quote(out) + " --container aiff --type " + types[k]);
    ASSERT_EQ(r.status, 0) << r.err;
    nlohmann::json info = ostraJson("info --json " + quote(out));
    ASSERT_FALSE(info.is_null());
    EXPECT_EQ(info["container"], "AIFF");
    const uint64_t frames = info["frames"];
    EXPECT_EQ(frames, ffprobeFacts(src).frames);
    const std::vector<double> ours = ostraSamples(out, info);
    ASSERT_EQ(ours.size(), frames * channels);
    for (Peer p : kPeers) {
      SCOPED_TRACE(peerName(p));
      const PeerFacts f = peerFacts(p, out);
      ASSERT_TRUE(f.ok) << f.detail;
      EXPECT_EQ(f.channels, channels);
      EXPECT_EQ(f.rate, rate);
      EXPECT_EQ(f.frames, frames);
      EXPECT_EQ(f.bits, bits[k]);
      EXPECT_EQ(firstDifference(peerSamples(p, out, false, dir.path().string()), ours, 0.0), -1);
    }
  }
}

// The library writes the rate bytes sox writes (the test above shows that the other
// programs agree at the usual rates), at the usual rates and at odd, tiny and broadcast
// rates up to the writer's 192 kHz.
TEST_F(Aiff, RateBytesLikeTheOtherPrograms) {
  TempDir dir;
  std::vector<int> rates(std::begin(kRates), std::end(kRates));
  rates.insert(rates.end(), {1, 7, 1000, 4000, 6000, 7350, 12000, 16000, 24000, 37800, 44056, 47250,
                             50000, 64000, 100000, 176400, 191999});
  for (int rate : rates) {
    SCOPED_TRACE(rate);
    // The library's file is made from a wave file, so its rate bytes are its own.
    const std::string theirs = dir.file("sox-" + std::to_string(rate) + ".aiff");
    const std::string src = dir.file("src-" + std::to_string(rate) + ".wav");
    const std::string ours = dir.file("ostra-" + std::to_string(rate) + ".aiff");
    for (const std::string& out : {theirs, src})
      ASSERT_EQ(run("sox -n -r " + std::to_string(rate) + " -c 1 -b 16 " + quote(out) +
                    " synth 2s sine 1")
                    .status,
                0);
    ASSERT_EQ(ostra("convert " + quote(src) + " " + quote(ours) + " --container aiff").status, 0);
    EXPECT_EQ(commRate80(ours), commRate80(theirs));
  }
}

}  // namespace
}  // namespace ostra::interop
