// The formats the bundled plug-ins read and write, against files ffmpeg, sox and
// libsndfile's tools make at test time: the reported format and duration, the first
// samples and samples after a seek (exact for lossless codecs, within a tolerance for lossy
// ones), one video frame against ffmpeg's own decode, the renderers' files as ffprobe
// sees them, and damaged files that must not bring the tool down.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>

#include "peers.h"
#include "support/test_support.h"

namespace ostra::interop {
namespace {

using ostra::test::readFile;
using ostra::test::TempDir;
using ostra::test::writeFile;

// A peer's decode of `count` frames from `start` as doubles, in the sample type ostra
// reports ("pcm16", "pcm24", "pcm32" as integers, "float32" as floats).
std::vector<double> ffmpegDecode(const std::string& path, const std::string& type, uint64_t start,
                                 uint64_t count, int channels, int rate) {
  const char* fmt = type == "pcm16" ? "s16le" : type == "float32" ? "f32le" : "s32le";
  const std::string cmd = "ffmpeg -v error -i " + quote(path) +
                          " -map 0:a:0 -af atrim=start_sample=" + std::to_string(start) +
                          ":end_sample=" + std::to_string(start + count) + " -ar " +
                          std::to_string(rate) + " -f " + fmt + " -";
  const RunResult r = run(cmd);
  std::vector<double> out;
  if (r.status != 0) return out;
  const size_t width = type == "pcm16" ? 2 : 4;
  for (size_t i = 0; i + width <= r.out.size() && out.size() < count * size_t(channels);
       i += width) {
    if (type == "pcm16") {
      int16_t v;
      std::memcpy(&v, r.out.data() + i, 2);
      out.push_back(v);
    } else if (type == "float32") {
      float v;
      std::memcpy(&v, r.out.data() + i, 4);
      out.push_back(v);
    } else {
      int32_t v;
      std::memcpy(&v, r.out.data() + i, 4);
      out.push_back(type == "pcm24" ? double(v >> 8) : double(v));
    }
  }
  return out;
}

std::vector<double> ostraDecode(const std::string& path, uint64_t start, uint64_t count) {
  const nlohmann::json j = ostraJson("samples --json --start " + std::to_string(start) +
                                     " --count " + std::to_string(count) + " " + quote(path));
  std::vector<double> out;
  if (j.is_null()) return out;
  const auto& ch = j["channels"];
  for (size_t i = 0; i < ch[0].size(); ++i)
    for (const auto& c : ch) out.push_back(c[i].get<double>());
  return out;
}

struct AudioCase {
  const char* name;
  const char* make;  // shell command; {in} the 2-second 48 kHz stereo source wave, {out} the file
  const char* plugin;
  const char* type;
  double tolerance;  // 0: exact
};

TEST(PluginFormats, AudioFormatsReadLikeFfmpegDecodesThem) {
  if (!havePeers()) GTEST_SKIP() << "sox, ffmpeg or libsndfile's tools missing";
  TempDir dir;
  const std::string src = dir.file("src.wav");
  ASSERT_EQ(
      run("sox -n -r 48000 -c 2 -b 24 " + quote(src) + " synth 2 sine 440 sine 660 gain -3").status,
      0);
  const AudioCase cases[] = {
      {"a.flac", "ffmpeg -v error -i {in} -sample_fmt s16 -c:a flac {out}", "Audio", "pcm16", 0},
      {"b.flac", "sox {in} -b 24 {out}", "Audio", "pcm24", 0},
      {"c.caf", "sndfile-convert -pcm16 {in} {out}", "Audio", "pcm16", 0},
      {"d.au", "sox {in} -b 16 {out}", "Audio", "pcm16", 0},
      {"e.ogg", "ffmpeg -v error -i {in} -c:a libvorbis -q:a 6 {out}", "Audio", "float32", 0.02},
      {"f.opus", "ffmpeg -v error -i {in} -c:a libopus -b:a 160k {out}", "Audio", "float32", 0.05},
      {"g.mp3", "ffmpeg -v error -i {in} -c:a libmp3lame -b:a 256k {out}", "Media", "float32",
       0.02},
      {"h.m4a", "ffmpeg -v error -i {in} -c:a aac -b:a 256k {out}", "Media", "float32", 0.0},
      {"i.mkv", "ffmpeg -v error -i {in} -c:a flac {out}", "Media", "pcm24", 0},
      {"j.webm", "ffmpeg -v error -i {in} -c:a libopus {out}", "Media", "float32", 0.0},
  };
  for (const AudioCase& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string file = dir.file(c.name);
    std::string make = c.make;
    make.replace(make.find("{in}"), 4, quote(src));
    make.replace(make.find("{out}"), 5, quote(file));
    ASSERT_EQ(run(make).status, 0) << make;
    const nlohmann::json info = ostraJson("info --json " + quote(file));
    ASSERT_FALSE(info.is_null());
    EXPECT_EQ(info["plugin"], c.plugin);
    const auto& s = info["streams"][0];
    EXPECT_EQ(s["type"], "audio");
    EXPECT_EQ(s["rate"], 48000);
    EXPECT_EQ(s["channels"], 2);
    EXPECT_EQ(s["sample_type"], c.type);
    // Lossless files know their length exactly; lossy ones within a few codec frames.
    const double lossy = c.tolerance > 0 || std::string(c.type) == "float32";
    EXPECT_NEAR(s["duration"].get<double>(), 2.0, lossy ? 0.06 : 1e-6);
    if (!lossy) EXPECT_EQ(s["frames"], 96000u);
    // The same decoder in both (FFmpeg's) gives the same floats; other decoders differ
    // within the codec's tolerance.
    for (const uint64_t start : {uint64_t(0), uint64_t(70001)}) {
      SCOPED_TRACE("from frame " + std::to_string(start));
      const std::vector<double> ours = ostraDecode(file, start, 1024);
      const std::vector<double> theirs = ffmpegDecode(file, c.type, start, 1024, 2, 48000);
      ASSERT_EQ(ours.size(), 2048u);
      ASSERT_EQ(theirs.size(), 2048u);
      const double tol = c.tolerance > 0 ? c.tolerance : lossy ? 1e-6 : 0.0;
      EXPECT_EQ(firstDifference(ours, theirs, tol), -1);
    }
  }
}

double meanMaxDiff(const std::vector<uint8_t>& bmp, const std::string& bgra, int w, int h,
                   int* maxDiff) {
  uint32_t off;
  std::memcpy(&off, bmp.data() + 10, 4);
  int32_t bh;
  std::memcpy(&bh, bmp.data() + 22, 4);
  double sum = 0;
  *maxDiff = 0;
  for (int y = 0; y < h; ++y) {
    const int row = bh > 0 ? h - 1 - y : y;
    for (int x = 0; x < w; ++x)
      for (int c = 0; c < 3; ++c) {
        const int d = std::abs(int(bmp[off + (size_t(row) * w + x) * 4 + c]) -
                               int(uint8_t(bgra[(size_t(y) * w + x) * 4 + c])));
        sum += d;
        *maxDiff = std::max(*maxDiff, d);
      }
  }
  return sum / (double(w) * h * 3);
}

struct VideoCase {
  const char* name;
  const char* codec;
  const char* layout;  // the reader's own layout
};

TEST(PluginFormats, VideoFrameMatchesFfmpegsDecode) {
  if (!havePeers()) GTEST_SKIP() << "ffmpeg missing";
  TempDir dir;
  const VideoCase cases[] = {
      {"v.mp4", "-c:v libx264 -pix_fmt yuv420p", "I420"},
      {"v.mkv", "-c:v ffv1 -pix_fmt yuv420p", "I420"},
      {"v.mov", "-c:v prores_ks -profile:v 2 -pix_fmt yuv422p10le", "P210"},
      {"v.avi", "-c:v mpeg4 -q:v 2 -pix_fmt yuv420p", "I420"},
      {"v.ts", "-c:v mpeg2video -q:v 2 -pix_fmt yuv420p", "I420"},
      {"v.webm", "-c:v libvpx-vp9 -pix_fmt yuv420p -b:v 1M -deadline realtime", "I420"},
  };
  for (const VideoCase& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string file = dir.file(c.name);
    const RunResult made =
        run("ffmpeg -v error -f lavfi -i testsrc2=duration=2:size=320x240:rate=25 -f lavfi -i "
            "sine=duration=2 -shortest " +
            std::string(c.codec) + " -metadata title=Clip " + quote(file));
    if (made.status != 0 && std::string(c.name) == "v.webm") continue;  // no VP9 encoder
    ASSERT_EQ(made.status, 0) << made.err;
    const nlohmann::json info = ostraJson("info --json " + quote(file));
    ASSERT_FALSE(info.is_null());
    EXPECT_EQ(info["plugin"], "Media");
    const nlohmann::json* video = nullptr;
    for (const auto& s : info["streams"])
      if (s["type"] == "video") video = &s;
    ASSERT_NE(video, nullptr);
    EXPECT_EQ((*video)["width"], 320);
    EXPECT_EQ((*video)["height"], 240);
    EXPECT_EQ((*video)["layout"], c.layout);
    EXPECT_NEAR((*video)["duration"].get<double>(), 2.0, 0.05);
    if (std::string(c.name) != "v.avi" && std::string(c.name) != "v.ts")
      EXPECT_EQ(info["metadata"].value("Title", ""), "Clip");

    // The frame at 1.48 s (frame 37 by its time stamp; encoders may drop frames, so not
    // necessarily the 38th decoded one).
    const RunResult ref = run("ffmpeg -v error -ss 1.48 -i " + quote(file) +
                              " -frames:v 1 -f rawvideo -pix_fmt bgra -");
    ASSERT_EQ(ref.status, 0);
    ASSERT_EQ(ref.out.size(), 320u * 240 * 4);
    // The reader's bitmap comes from the same conversion: equal. The kernel's conversion
    // of the reader's YUV frame (BT.601, as ffmpeg assumes for unlabelled video) is close.
    const struct {
      const char* args;
      double mean;
      int max;
    } paths[] = {{"--layout bgra", 0.0, 0},
                 {"--matrix 601", 1.0, 6},
                 // 4:2:2 10-bit packed: 4:2:0 sources get their chroma resampled, which
                 // moves sharp colour edges by up to a pixel.
                 {"--layout v210 --matrix 601", 1.7, 110}};
    for (const auto& p : paths) {
      const std::string out = dir.file(std::string(c.name) + ".bmp");
      const RunResult r =
          ostra("frame " + quote(file) + " --at 00:00:01:12 " + p.args + " " + quote(out));
      ASSERT_EQ(r.status, 0) << r.err;
      EXPECT_NE(r.out.find("frame 37 at 1.480000 s"), std::string::npos) << r.out;
      int maxDiff = 0;
      const double mean = meanMaxDiff(readFile(out), ref.out, 320, 240, &maxDiff);
      std::printf("  %s %s: mean difference %.3f, max %d\n", c.name, p.args, mean, maxDiff);
      EXPECT_LE(mean, p.mean);
      EXPECT_LE(maxDiff, p.max);
    }
  }
}

TEST(PluginFormats, ColourDescriptionAndTitleReachTheMetadataKeys) {
  if (!havePeers()) GTEST_SKIP() << "ffmpeg missing";
  TempDir dir;
  const struct {
    const char* name;
    const char* args;
    nlohmann::json meta;
  } cases[] = {
      {"hdr.mp4",
       "-color_primaries bt2020 -color_trc smpte2084 -colorspace bt2020nc -color_range tv",
       {{"Title", "Ünïcode"},
        {"colour_description_present", "Yes"},
        {"colour_primaries", "bt2020"},
        {"transfer_characteristics", "smpte2084"},
        {"matrix_coefficients", "bt2020nc"},
        {"colour_range", "Limited"}}},
      {"full.mkv",
       "-color_primaries bt709 -color_trc bt709 -colorspace bt709 -color_range pc",
       {{"Title", "Ünïcode"},
        {"colour_description_present", "Yes"},
        {"colour_primaries", "bt709"},
        {"transfer_characteristics", "bt709"},
        {"matrix_coefficients", "bt709"},
        {"colour_range", "Full"}}},
      {"plain.mp4", "", {{"Title", "Ünïcode"}, {"colour_description_present", "No"}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string file = dir.file(c.name);
    ASSERT_EQ(run("ffmpeg -v error -f lavfi -i testsrc=duration=0.3:size=64x48:rate=25 -c:v "
                  "libx264 -pix_fmt yuv420p " +
                  std::string(c.args) + " -metadata title=Ünïcode " + quote(file))
                  .status,
              0);
    const nlohmann::json info = ostraJson("info --json " + quote(file));
    ASSERT_FALSE(info.is_null());
    EXPECT_EQ(info["metadata"], c.meta);
  }
}

TEST(PluginFormats, RenderedFilesAreWhatFfprobeSees) {
  if (!havePeers()) GTEST_SKIP() << "ffmpeg missing";
  TempDir dir;
  const std::string src = dir.file("src.wav");
  ASSERT_EQ(run("sox -n -r 48000 -c 2 -b 16 " + quote(src) + " synth 1.5 sine 440").status, 0);
  const struct {
    const char* args;
    const char* out;
    const char* codec;
  } cases[] = {{"", "o.flac", "flac"},
               {"--container ogg", "o.oga", "vorbis"},
               {"", "o.opus", "opus"},
               {"--container mp3", "o.bin", "mp3"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.out);
    const std::string out = dir.file(c.out);
    const RunResult r = ostra("convert " + quote(src) + " " + quote(out) + " " + c.args);
    ASSERT_EQ(r.status, 0) << r.err;
    const RunResult probe = run("ffprobe -v error -show_streams -of json " + quote(out));
    const auto j = nlohmann::json::parse(probe.out, nullptr, false);
    ASSERT_FALSE(j.is_discarded());
    EXPECT_EQ(j["streams"][0]["codec_name"], c.codec);
    EXPECT_EQ(j["streams"][0]["channels"], 2);
  }
  // FLAC is lossless: every sample comes back.
  const std::vector<double> a = ffmpegDecode(src, "pcm16", 0, 72000, 2, 48000);
  const std::vector<double> b = ffmpegDecode(dir.file("o.flac"), "pcm16", 0, 72000, 2, 48000);
  ASSERT_EQ(a.size(), 144000u);
  EXPECT_EQ(firstDifference(a, b, 0), -1);
}

TEST(PluginFormats, DamagedMediaNeverBringsTheToolDown) {
  if (!havePeers()) GTEST_SKIP() << "ffmpeg missing";
  TempDir dir;
  std::vector<std::string> files;
  const char* makes[] = {
      "-f lavfi -i sine=duration=1 -c:a flac x.flac",
      "-f lavfi -i sine=duration=1 -c:a libmp3lame x.mp3",
      "-f lavfi -i sine=duration=1 -c:a libvorbis x.ogg",
      "-f lavfi -i testsrc=duration=1:size=160x120 -c:v libx264 -pix_fmt yuv420p x.mp4",
      "-f lavfi -i testsrc=duration=1:size=160x120 -c:v ffv1 x.mkv",
  };
  for (const char* m : makes) {
    std::string cmd = std::string("cd ") + quote(dir.path().string()) + " && ffmpeg -v error " + m;
    ASSERT_EQ(run(cmd).status, 0) << cmd;
    std::string name = m;
    name = name.substr(name.rfind(' ') + 1);
    files.push_back(dir.file(name));
  }
  std::mt19937 rng(17);
  std::vector<std::string> damaged;
  for (const std::string& f : files) {
    std::vector<uint8_t> bytes = readFile(f);
    const std::string ext = f.substr(f.rfind('.'));
    // Cut short, cut to its head, and with random bytes over its middle.
    std::vector<uint8_t> cut(bytes.begin(), bytes.begin() + long(bytes.size() / 2));
    std::vector<uint8_t> head(bytes.begin(),
                              bytes.begin() + long(std::min<size_t>(bytes.size(), 200)));
    std::vector<uint8_t> noisy = bytes;
    for (size_t i = noisy.size() / 4; i < noisy.size() * 3 / 4; i += 7) noisy[i] = uint8_t(rng());
    for (const auto& [suffix, b] : {std::pair{"cut", cut}, {"head", head}, {"noisy", noisy}}) {
      damaged.push_back(f + "." + suffix + ext);
      writeFile(damaged.back(), b);
    }
  }
  std::vector<uint8_t> random(50000);
  for (auto& b : random) b = uint8_t(rng());
  for (const char* ext : {".mp4", ".flac", ".mp3"}) {
    damaged.push_back(dir.file(std::string("random") + ext));
    writeFile(damaged.back(), random);
  }
  for (const std::string& f : damaged) {
    SCOPED_TRACE(f);
    for (const std::string cmd : {"info " + quote(f), "samples --count 100000 " + quote(f),
                                  "frame --at 0.5 " + quote(f) + " " + quote(dir.file("d.bmp")),
                                  "convert " + quote(f) + " " + quote(dir.file("d.wav"))}) {
      // libsndfile leaks libvorbis's stream information on some damaged Ogg files; in a
      // sanitizer build that leak is not what this test is about.
      const RunResult r = ostra::test::runCommand("ASAN_OPTIONS=detect_leaks=0:abort_on_error=1 " +
                                                  quote(OSTRA_TOOL_PATH) + " " + cmd);
      // Either read (as far as it goes) or refused with a message naming the file.
      ASSERT_GE(r.status, 0) << cmd << " did not end normally";
      ASSERT_LT(r.status, 128) << cmd;
      if (r.status != 0) EXPECT_NE(r.err.find(f), std::string::npos) << cmd << ": " << r.err;
    }
  }
}

}  // namespace
}  // namespace ostra::interop
