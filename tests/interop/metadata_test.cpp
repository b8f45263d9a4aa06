// Metadata travels with `convert`: every chunk that does not describe the samples goes
// into the output byte for byte (wave to wave, wave to Wave64 and back), floating-point
// and extensible wave files carry a `fact` chunk that libsndfile finds, and Wave64 float
// files with a channel mask other than the default read back with the right samples in
// sox, ffmpeg and libsndfile.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>

#include "ostra/kaplatform.h"
#include "ostra/kawave.h"
#include "peers.h"
#include "support/test_support.h"

namespace ostra::interop {
namespace {

using Bytes = std::vector<uint8_t>;
using ostra::test::readFile;
using ostra::test::TempDir;
using ostra::test::writeFile;

void put32(Bytes& b, uint32_t v) {
  for (int i = 0; i < 4; ++i) b.push_back(uint8_t(v >> (8 * i)));
}
void chunk(Bytes& b, const char* id, const Bytes& body) {
  b.insert(b.end(), id, id + 4);
  put32(b, uint32_t(body.size()));
  b.insert(b.end(), body.begin(), body.end());
  if (body.size() & 1) b.push_back(0);
}
Bytes text(const std::string& s) { return Bytes(s.begin(), s.end()); }

// Top-level chunks of a wave or Wave64 file by name (Wave64 GUIDs by their RIFF id).
std::map<std::string, Bytes> chunksOf(const std::string& path) {
  std::map<std::string, Bytes> out;
  KAHFILE f = KA_INVALID_HFILE;
  if (FAILED(KaFile_OpenUtf8(path.c_str(), GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, 0, &f)))
    return out;
  DWORD count = 0, container = 0;
  std::vector<tKACHUNKINFO> c(64);
  KaGetFileChunks(f, c.data(), DWORD(c.size()), &count, &container);
  const Bytes all = readFile(path);
  const uint64_t header = container == KACONTAINER_WAVE64 ? 24 : 8;
  for (DWORD i = 0; i < std::min<DWORD>(count, 64); ++i) {
    if (c[i].depth) continue;
    std::string name(c[i].name, 4);
    if (container == KACONTAINER_WAVE64 && name == "list") name = "LIST";
    out[name] = Bytes(all.begin() + long(c[i].offset + header),
                      all.begin() + long(c[i].offset + header + c[i].size));
  }
  KaFile_Close(f);
  return out;
}

class Metadata : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!havePeers()) GTEST_SKIP() << "sox, ffmpeg or libsndfile's tools are not installed";
  }
};

TEST_F(Metadata, ChunksTravelThroughConvertByteForByte) {
  TempDir dir;
  // A 16-bit stereo take with broadcast, iXML, cue, LIST/INFO, an unknown chunk, and a PEAK
  // chunk (which describes the samples as they were, so it stays behind).
  Bytes bext(602, 0);
  std::memcpy(bext.data(), "Scene 4 take 2", 14);
  const Bytes ixml = text("<?xml version=\"1.0\"?><BWFXML><SCENE>4</SCENE></BWFXML>");
  Bytes cue;
  put32(cue, 1);
  for (uint32_t v : {1u, 100u, 0x61746164u, 0u, 0u, 100u}) put32(cue, v);
  Bytes info = text("INFO");
  chunk(info, "INAM", text(std::string("Café\0", 6)));
  const Bytes odd = text("odd-sized vendor data");
  Bytes peak(24, 7);
  Bytes samples;
  for (int i = 0; i < 400; ++i) {
    samples.push_back(uint8_t(i * 7));
    samples.push_back(uint8_t(i >> 1));
  }
  Bytes body = text("WAVE");
  chunk(body, "fmt ", {1, 0, 2, 0, 0x80, 0xBB, 0, 0, 0, 0xEE, 2, 0, 4, 0, 16, 0});
  chunk(body, "bext", bext);
  chunk(body, "iXML", ixml);
  chunk(body, "cue ", cue);
  chunk(body, "LIST", info);
  chunk(body, "zzzz", odd);
  chunk(body, "PEAK", peak);
  chunk(body, "data", samples);
  Bytes file = text("RIFF");
  put32(file, uint32_t(body.size()));
  file.insert(file.end(), body.begin(), body.end());
  const std::string src = dir.file("take.wav");
  writeFile(src, file);

  const std::map<std::string, Bytes> expect = {
      {"bext", bext}, {"iXML", ixml}, {"cue ", cue}, {"LIST", info}, {"zzzz", odd}};
  struct Step {
    std::string from, to, args;
  };
  const Step steps[] = {{"take.wav", "float.wav", "--type float32"},
                        {"take.wav", "take.w64", ""},
                        {"take.w64", "back.wav", "--type pcm24"}};
  for (const Step& s : steps) {
    SCOPED_TRACE(s.to);
    const RunResult r =
        ostra("convert " + quote(dir.file(s.from)) + " " + quote(dir.file(s.to)) + " " + s.args);
    ASSERT_EQ(r.status, 0) << r.err;
    if (s.from == "take.wav") {
      EXPECT_NE(r.err.find("not carried: PEAK"), std::string::npos) << r.err;
    }
    const auto got = chunksOf(dir.file(s.to));
    for (const auto& [id, bytes] : expect) {
      ASSERT_TRUE(got.count(id)) << id << " missing";
      EXPECT_EQ(got.at(id), bytes) << id;
    }
    EXPECT_FALSE(got.count("PEAK"));
  }
  // The other programs still read the samples and the text.
  for (const char* out : {"float.wav", "take.w64", "back.wav"}) {
    SCOPED_TRACE(out);
    EXPECT_EQ(ffprobeFacts(dir.file(out)).frames, 200u);
    EXPECT_EQ(sndfileFacts(dir.file(out)).frames, 200u);
    EXPECT_EQ(soxFacts(dir.file(out)).frames, 200u);
  }
  EXPECT_EQ(ffprobeTags(dir.file("back.wav")).value("title", ""), "Café");
}

TEST_F(Metadata, FactChunksAndWave64FloatWithAMask) {
  TempDir dir;
  // Four channels with a mask that is not the default for four (front pair, side pair).
  const std::string src = dir.file("src.wav");
  ASSERT_EQ(run("sox -R -n -r 48000 -c 4 -b 16 " + quote(src) +
                " synth 0.05 sine 300 sine 500 sine 700 sine 900 vol 0.5")
                .status,
            0);
  Bytes b = readFile(src);
  // sox wrote an extensible description; its mask sits 20 bytes into the fmt body.
  ASSERT_EQ(std::string(b.begin() + 12, b.begin() + 16), "fmt ");
  const uint32_t mask = 0x603;
  std::memcpy(&b[20 + 20], &mask, 4);
  writeFile(src, b);

  for (const char* type : {"float32", "float64", "pcm24in32"}) {
    SCOPED_TRACE(type);
    const std::string wav = dir.file(std::string(type) + ".wav");
    ASSERT_EQ(ostra("convert " + quote(src) + " " + quote(wav) + " --type " + type).status, 0);
    const auto chunks = chunksOf(wav);
    ASSERT_TRUE(chunks.count("fact"));
    uint32_t frames = 0;
    std::memcpy(&frames, chunks.at("fact").data(), 4);
    EXPECT_EQ(frames, 2400u);
    const RunResult info = run("sndfile-info " + quote(wav));
    EXPECT_NE(info.out.find("fact"), std::string::npos) << info.out;
    EXPECT_EQ(info.out.find("should have a 'fact' chunk"), std::string::npos) << info.out;
    EXPECT_EQ(info.out.find("***"), std::string::npos) << info.out;
  }

  // Wave64 floating point with that mask: every peer reads our samples.
  for (const char* type : {"float32", "float64"}) {
    SCOPED_TRACE(type);
    const std::string w64 = dir.file(std::string(type) + ".w64");
    ASSERT_EQ(ostra("convert " + quote(src) + " " + quote(w64) + " --type " + type).status, 0);
    const auto facts = ostraJson("info --json " + quote(w64));
    ASSERT_FALSE(facts.is_null());
    const std::vector<double> ours = ostraSamples(w64, facts);
    ASSERT_EQ(ours.size(), 2400u * 4);
    for (Peer p : kPeers) {
      SCOPED_TRACE(peerName(p));
      // sox reads no writer's 64-bit float Wave64 (ffmpeg's and libsndfile's come back
      // silent as well).
      if (p == Peer::Sox && std::string(type) == "float64") continue;
      std::vector<double> theirs = peerSamples(p, w64, true, dir.path().string());
      ASSERT_EQ(theirs.size(), ours.size());
      if (p == Peer::Sox) {
        // sox reads Wave64 through libsndfile, which scales floating point to its peak.
        double a = 0, b2 = 0;
        for (size_t i = 0; i < ours.size(); ++i) a = std::max(a, std::fabs(ours[i]));
        for (size_t i = 0; i < ours.size(); ++i) b2 = std::max(b2, std::fabs(theirs[i]));
        for (double& v : theirs) v *= a / b2;
      }
      EXPECT_EQ(firstDifference(theirs, ours, p == Peer::Sox ? 1e-6 : 0.0), -1);
    }
  }
}

}  // namespace
}  // namespace ostra::interop
