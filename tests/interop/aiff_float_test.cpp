// Floating-point AIFC ('fl32', 'FL32', 'fl64', 'FL64') between the tool and sox, ffmpeg
// and libsndfile: their files read with their facts and samples, converted to wave with
// the same samples, and the tool's own files read back by all three.
#include <gtest/gtest.h>

#include "peers.h"
#include "support/test_support.h"

namespace ostra::interop {
namespace {

using ostra::test::readFile;
using ostra::test::TempDir;

std::string compressionOf(const std::string& path) {
  const auto b = readFile(path);
  for (size_t at = 12; at + 8 <= b.size();) {
    const uint32_t size = uint32_t(b[at + 4]) << 24 | uint32_t(b[at + 5]) << 16 |
                          uint32_t(b[at + 6]) << 8 | b[at + 7];
    if (std::string(b.begin() + long(at), b.begin() + long(at) + 4) == "COMM" &&
        at + 8 + 22 <= b.size())
      return std::string(b.begin() + long(at) + 26, b.begin() + long(at) + 30);
    at += 8 + uint64_t(size) + (size & 1);
  }
  return {};
}

// A float wave source whose samples use the whole single-precision mantissa.
std::string source(const TempDir& dir, int rate, int channels) {
  const std::string path =
      dir.file("src-" + std::to_string(rate) + "-" + std::to_string(channels) + ".wav");
  std::string tones;
  for (int c = 0; c < channels; ++c) tones += " sine " + std::to_string(210 + 170 * c);
  run("sox -R -n -r " + std::to_string(rate) + " -c " + std::to_string(channels) +
      " -e floating-point -b 32 " + quote(path) + " synth 700s" + tones + " vol 0.7");
  return path;
}

// Decoded samples of a float file from each peer equal ours: libsndfile and ffmpeg
// exactly, sox within the step of the 32-bit integers it carries floats through.
void expectPeersAgree(const std::string& path, const std::vector<double>& ours,
                      const std::string& scratch) {
  for (Peer p : kPeers) {
    SCOPED_TRACE(peerName(p));
    const std::vector<double> theirs = peerSamples(p, path, true, scratch);
    ASSERT_EQ(theirs.size(), ours.size());
    EXPECT_EQ(firstDifference(theirs, ours, p == Peer::Sox ? 1e-9 : 0.0), -1);
  }
}

class AiffFloat : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!havePeers()) GTEST_SKIP() << "sox, ffmpeg or libsndfile's tools are not installed";
  }
};

TEST_F(AiffFloat, WhatOtherProgramsWrite) {
  TempDir dir;
  struct Case {
    Peer maker;
    int bits;
    const char* compression;  // as the maker stores it
  };
  const Case cases[] = {{Peer::Sox, 32, "fl32"},     {Peer::Sox, 64, "fl64"},
                        {Peer::Ffmpeg, 32, "fl32"},  {Peer::Ffmpeg, 64, "fl64"},
                        {Peer::Sndfile, 32, "FL32"}, {Peer::Sndfile, 64, "FL64"}};
  int k = 0;
  for (const Case& c : cases) {
    const int rate = k % 2 ? 48000 : 44100, channels = 1 + k % 3;
    ++k;
    const std::string src = source(dir, rate, channels);
    const std::string out = dir.file(std::string(peerName(c.maker)) + "-" + std::to_string(c.bits) +
                                     (c.maker == Peer::Ffmpeg ? ".aiff" : ".aifc"));
    SCOPED_TRACE(out);
    std::string cmd;
    switch (c.maker) {
      case Peer::Sox:
        cmd = "sox " + quote(src) + " -e floating-point -b " + std::to_string(c.bits) +
              " -t aifc " + quote(out);
        break;
      case Peer::Ffmpeg:
        cmd = "ffmpeg -nostdin -v error -i " + quote(src) + " -c:a pcm_f" + std::to_string(c.bits) +
              "be -f aiff " + quote(out);
        break;
      case Peer::Sndfile:
        cmd =
            "sndfile-convert -float" + std::to_string(c.bits) + " " + quote(src) + " " + quote(out);
        break;
    }
    ASSERT_EQ(run(cmd).status, 0) << cmd;
    ASSERT_EQ(compressionOf(out), c.compression);

    nlohmann::json info = ostraJson("info --json " + quote(out));
    ASSERT_FALSE(info.is_null()) << ostra("info " + quote(out)).err;
    const auto& fmt = info["format"];
    EXPECT_EQ(info["container"], "AIFC");
    EXPECT_EQ(fmt["compression"], c.compression);
    EXPECT_EQ(fmt["sample_type"], c.bits == 32 ? 32 : 33);
    EXPECT_EQ(fmt["bits"], c.bits);
    EXPECT_EQ(fmt["channels"], channels);
    EXPECT_EQ(fmt["sample_rate"], rate);
    const PeerFacts f = peerFacts(c.maker, out);
    ASSERT_TRUE(f.ok) << f.detail;
    EXPECT_EQ(info["frames"], f.frames);
    const std::vector<double> ours = ostraSamples(out, info);
    ASSERT_EQ(ours.size(), f.frames * uint64_t(channels));
    expectPeersAgree(out, ours, dir.path().string());

    // Converted to a float wave file of the same width, the samples stay as they were.
    const std::string wav = out + ".wav";
    const RunResult r = ostra("convert " + quote(out) + " " + quote(wav) + " --container wav");
    ASSERT_EQ(r.status, 0) << r.err;
    nlohmann::json wavInfo = ostraJson("info --json " + quote(wav));
    ASSERT_FALSE(wavInfo.is_null());
    EXPECT_EQ(wavInfo["format"]["sample_type"], fmt["sample_type"]);
    EXPECT_EQ(ostraSamples(wav, wavInfo), ours);
  }
}

TEST_F(AiffFloat, LibraryFilesOpenEverywhereWithTheSameSamples) {
  TempDir dir;
  for (int bits : {32, 64}) {
    const int channels = bits == 32 ? 2 : 3, rate = bits == 32 ? 96000 : 22050;
    const std::string src = source(dir, rate, channels);
    const std::string out = dir.file("ostra-float" + std::to_string(bits) + ".aiff");
    SCOPED_TRACE(out);
    const RunResult r = ostra("convert " + quote(src) + " " + quote(out) +
                              " --container aiff --type float" + std::to_string(bits));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(compressionOf(out), bits == 32 ? "fl32" : "fl64");
    nlohmann::json info = ostraJson("info --json " + quote(out));
    ASSERT_FALSE(info.is_null());
    EXPECT_EQ(info["container"], "AIFC");
    const uint64_t frames = info["frames"];
    EXPECT_EQ(frames, ffprobeFacts(src).frames);
    const std::vector<double> ours = ostraSamples(out, info);
    ASSERT_EQ(ours.size(), frames * uint64_t(channels));
    // The source's own samples, widened exactly: nothing changed on the way.
    nlohmann::json srcInfo = ostraJson("info --json " + quote(src));
    EXPECT_EQ(ostraSamples(src, srcInfo), ours);
    for (Peer p : kPeers) {
      SCOPED_TRACE(peerName(p));
      const PeerFacts f = peerFacts(p, out);
      ASSERT_TRUE(f.ok) << f.detail;
      EXPECT_TRUE(f.isFloat);
      EXPECT_EQ(f.bits, bits);
      EXPECT_EQ(f.channels, channels);
      EXPECT_EQ(f.rate, rate);
      EXPECT_EQ(f.frames, frames);
    }
    expectPeersAgree(out, ours, dir.path().string());
  }
}

}  // namespace
}  // namespace ostra::interop
