// ostra play, record and devices as a user runs them: a session rendered to a file and to
// an ALSA PCM of type file behind PortAudio, and a recording killed half-way and repaired.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

#include "engine/engine_fixture.h"
#include "support/tool_run.h"

namespace ostra::test {
namespace {

constexpr DWORD kRate = 48000;

std::vector<nlohmann::json> jsonLines(const std::string& text) {
  std::vector<nlohmann::json> out;
  size_t at = 0;
  while (at < text.size()) {
    const size_t nl = text.find('\n', at);
    const std::string line = text.substr(at, nl == std::string::npos ? nl : nl - at);
    if (!line.empty()) out.push_back(nlohmann::json::parse(line, nullptr, false));
    at = nl == std::string::npos ? text.size() : nl + 1;
  }
  return out;
}

std::vector<float> floatsOf(const WaveData& w, INT64 from, INT64 to) {
  std::vector<float> out;
  for (INT64 i = from * w.channels; i < to * w.channels; ++i)
    out.push_back(float(w.samples[size_t(i)]) / 32768.0f);
  return out;
}

TEST(PlayTool, RendersASessionAndEndsWithMessage6AtTheEndOfTheRange) {
  TempDir dir;
  const WaveData a = noise(2, kRate, 3000, 11), b = noise(2, kRate, 2000, 12);
  writeWav16(dir.file("a.wav"), a);
  writeWav16(dir.file("b.wav"), b);
  const RunResult r =
      ostra("play " + shellQuote(dir.file("a.wav")) + " " + shellQuote(dir.file("b.wav")) +
            " --at 0 --at 1000smp --start 200smp --end 2500smp --output file:" +
            shellQuote(dir.file("out.wav")) + " --events");
  ASSERT_EQ(0, r.status) << r.err;
  const auto lines = jsonLines(r.out);
  ASSERT_GE(lines.size(), 3u) << r.out;
  EXPECT_EQ(1, lines[lines.size() - 2]["message"]);
  EXPECT_EQ(ticksOf(200, kRate), lines[lines.size() - 2]["position"]);
  EXPECT_EQ(6, lines.back()["message"]);
  EXPECT_EQ(0, lines.back()["reason"]);
  EXPECT_EQ(ticksOf(2500, kRate), lines.back()["position"]);
  const std::vector<TestClip> clips{{&a, "", 0, 0, -1, 1.0f}, {&b, "", 1000, 0, -1, 1.0f}};
  EXPECT_EQ(expectedSpans(clips, 2, {{200, 2500}}), readFloatWave(dir.file("out.wav")));
}

TEST(PlayTool, ThroughPortAudioIntoAnAlsaFilePcmTheSamplesArriveExactly) {
  TempDir dir;
  const WaveData src = noise(2, kRate, 6000, 13);
  writeWav16(dir.file("src.wav"), src);
  // The user's ALSA configuration, in a home of its own: the default PCM writes what it
  // is given, raw, into a file and discards it through the null PCM.
  std::filesystem::create_directories(dir.path() / "home");
  std::ofstream(dir.file("home/.asoundrc"))
      << "pcm.!default {\n type file\n slave.pcm \"null\"\n file \"" << dir.file("dev.raw")
      << "\"\n format \"raw\"\n}\n";
  // The device list shows it as the default output.
  const RunResult list = runCommand("HOME=" + shellQuote(dir.file("home")) + " " +
                                    shellQuote(OSTRA_TOOL_PATH) + " devices --json");
  ASSERT_EQ(0, list.status) << list.err;
  const auto devices = nlohmann::json::parse(list.out, nullptr, false);
  ASSERT_TRUE(devices.contains("audio") && devices["midi_inputs"].is_array());
  bool listed = false;
  for (const auto& d : devices["audio"])
    listed |= d["default_output"].get<bool>() && d["output_channels"].get<int>() >= 2;
  EXPECT_TRUE(listed) << list.out;

  const RunResult r =
      runCommand("HOME=" + shellQuote(dir.file("home")) + " " + shellQuote(OSTRA_TOOL_PATH) +
                 " play " + shellQuote(dir.file("src.wav")) + " --end 4000smp --output device");
  ASSERT_EQ(0, r.status) << r.err;
  const std::vector<uint8_t> raw = readFile(dir.file("dev.raw"));
  std::vector<float> got(raw.size() / 4);
  std::memcpy(got.data(), raw.data(), got.size() * 4);
  // The device starts with the silence it was primed with and plays silence after the
  // range until the stop reaches it; between them lies the range, sample for sample.
  size_t first = 0;
  while (first < got.size() && got[first] == 0.0f) ++first;
  const std::vector<float> want = floatsOf(src, 0, 4000);
  ASSERT_GE(got.size(), first + want.size());
  EXPECT_TRUE(std::equal(want.begin(), want.end(), got.begin() + first));
  const auto after = got.begin() + first + want.size();
  EXPECT_TRUE(std::all_of(after, got.end(), [](float v) { return v == 0.0f; }));
}

TEST(PlayTool, RefusesAMissingDeviceClearly) {
  TempDir dir;
  writeWav16(dir.file("a.wav"), noise(2, kRate, 100, 14));
  const RunResult r =
      ostra("play " + shellQuote(dir.file("a.wav")) + " --output device:no-such-device-here");
  EXPECT_EQ(1, r.status);
  EXPECT_NE(std::string::npos, r.err.find("No audio output device named \"no-such-device-here\""))
      << r.err;
}

TEST(RecordTool, AKilledRecordingIsRepairedWithAllButTheLastSecond) {
  TempDir dir;
  const WaveData src = noise(2, kRate, 10 * kRate, 15);
  writeWav16(dir.file("in.wav"), src);
  const std::string out = dir.file("take.wav");
  const std::string cmd =
      "exec " + shellQuote(OSTRA_TOOL_PATH) + " record " + shellQuote(out) +
      " --seconds 10 --type pcm16 --events --input file:" + shellQuote(dir.file("in.wav"));
  int fds[2];
  ASSERT_EQ(0, pipe(fds));
  const pid_t child = fork();
  if (child == 0) {
    dup2(fds[1], 1);
    close(fds[0]);
    execl("/bin/sh", "sh", "-c", cmd.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  close(fds[1]);
  FILE* events = fdopen(fds[0], "r");
  INT64 onDisk = 0;
  char line[256];
  // Two header rewrites: two seconds are safe on disk; then the power goes.
  while (onDisk < 2 * INT64(kRate) && std::fgets(line, sizeof line, events)) {
    const auto j = nlohmann::json::parse(line, nullptr, false);
    if (j.contains("frames_on_disk")) onDisk = j["frames_on_disk"];
  }
  kill(child, SIGKILL);
  int status = 0;
  waitpid(child, &status, 0);
  std::fclose(events);
  ASSERT_TRUE(WIFSIGNALED(status));
  ASSERT_GE(onDisk, 2 * INT64(kRate));

  // Before the repair the header describes what the last rewrite saw.
  EXPECT_EQ(size_t(onDisk) * 2, readFloatWave(out).size());
  const RunResult r = ostra("repair " + shellQuote(out));
  ASSERT_EQ(0, r.status) << r.err;
  const std::vector<float> got = readFloatWave(out);
  const INT64 frames = INT64(got.size() / 2);
  EXPECT_GE(frames, onDisk);
  EXPECT_LT(frames, onDisk + INT64(kRate) + 4096);  // at most the unrewritten second more
  EXPECT_EQ(floatsOf(src, 0, frames), got);
}

}  // namespace
}  // namespace ostra::test
