// The play engine renders sessions sample-exactly through its file and null outputs,
// loops, seeks within one block and plays at varispeed as the resampler does offline.
#include <soxr.h>

#include "engine/internal/play_engine.h"
#include "engine_fixture.h"
#include "transport_fixture.h"

namespace ostra::test {
namespace {

constexpr DWORD kRate = 48000;

class PlayEngineTest : public ::testing::Test {
 protected:
  void SetUp() override {
    a = noise(2, kRate, 2000, 1);
    b = noise(2, kRate, 1500, 2);
    m = noise(1, kRate, 800, 3);
    writeWav16(dir.file("a.wav"), a);
    writeWav16(dir.file("b.wav"), b);
    writeWav16(dir.file("m.wav"), m);
  }
  TestClip clip(const WaveData& w, INT64 start, INT64 in = 0, INT64 len = -1, float gain = 1.0f) {
    const std::string name = &w == &a ? "a.wav" : &w == &b ? "b.wav" : "m.wav";
    return TestClip{&w, dir.file(name), start, in, len, gain};
  }
  // Plays [from, to) of the session into a float wave file and reads it back.
  std::vector<float> render(const std::vector<TestClip>& clips, INT64 from, INT64 to,
                            double rate = 1.0, INT64 loopStart = 0, INT64 loopLen = 0,
                            UINT repeats = 0, DWORD* passes = nullptr) {
    const std::string out = dir.file("out.wav");
    EngineUnderTest e(clips);
    EXPECT_EQ(S_OK, e.session->SetOutput(("file:" + out).c_str()));
    EXPECT_EQ(S_OK, e.session->SetLoop(loopStart, loopLen, repeats));
    EXPECT_EQ(S_OK, e.play->SetRate(rate));
    EXPECT_EQ(S_OK, e.play->Start(0, ticksOf(from, kRate), ticksOf(to, kRate)));
    EXPECT_TRUE(eventually([&] { return e.info().finished != 0; }));
    if (passes) *passes = e.info().loopPasses;
    EXPECT_EQ(S_OK, e.play->Stop(0, 0));
    EXPECT_EQ(S_OK, e.session->CloseOutput());
    return readFloatWave(out);
  }
  TempDir dir;
  WaveData a, b, m;
};

TEST_F(PlayEngineTest, SessionsRenderSampleExactly) {
  struct Case {
    const char* what;
    std::vector<TestClip> clips;
    INT64 from, to;
  };
  const Case cases[] = {
      {"offsets, gains and a gap of silence", {clip(a, 0), clip(b, 3000, 0, -1, 0.5f)}, 0, 4600},
      {"in-points, lengths and an overlap",
       {clip(a, 100, 300, 700), clip(b, 500, 0, -1, 0.25f)},
       0,
       2100},
      {"three overlapping, one mono on both channels",
       {clip(a, 0, 0, -1, 0.5f), clip(b, 200, 0, -1, 0.5f), clip(m, 400, 0, -1, 2.0f)},
       0,
       2000},
      {"a clip that starts before the range", {clip(a, 0), clip(m, 900, 17)}, 777, 1900},
      {"a clip placed before timeline zero", {clip(a, -500), clip(b, 1200, 5, 3)}, 0, 1600},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const std::vector<float> got = render(c.clips, c.from, c.to);
    const std::vector<float> want = expectedSpans(c.clips, 2, {{c.from, c.to}});
    ASSERT_EQ(want.size(), got.size());
    size_t firstDiff = want.size();
    for (size_t i = 0; i < want.size() && firstDiff == want.size(); ++i)
      if (want[i] != got[i]) firstDiff = i;
    EXPECT_EQ(want.size(), firstDiff) << "first difference at frame " << firstDiff / 2;
  }
}

TEST_F(PlayEngineTest, LoopRepeatsExactlyThenPlaysOn) {
  const std::vector<TestClip> clips{clip(a, 0), clip(m, 600, 0, -1, 0.5f)};
  DWORD passes = 0;
  const std::vector<float> got = render(clips, 100, 1200, 1.0, 300, 450, 2, &passes);
  EXPECT_EQ(2u, passes);
  EXPECT_EQ(expectedSpans(clips, 2, {{100, 750}, {300, 750}, {300, 750}, {750, 1200}}), got);
}

TEST_F(PlayEngineTest, SeekContinuesAtTheNewPositionWithinOneBlock) {
  const std::vector<TestClip> clips{clip(a, 0), clip(b, 1000, 0, -1, 0.5f)};
  EngineUnderTest e(clips, 256);
  ASSERT_EQ(S_OK, e.session->SetOutput("null:manual"));
  ASSERT_EQ(S_OK, e.play->Start(0, 0, ticksOf(2500, kRate)));
  std::vector<float> buf(256 * 2);
  struct Step {
    INT64 seekTo;  // -1: no seek before the pump
    DWORD frames;
    INT64 expectFrom;
  };
  const Step steps[] = {{-1, 256, 0},    {-1, 100, 256}, {1234, 256, 1234},
                        {-1, 200, 1490}, {50, 256, 50},  {2400, 256, 2400}};
  for (const Step& s : steps) {
    SCOPED_TRACE(s.seekTo);
    if (s.seekTo >= 0) ASSERT_EQ(S_OK, e.play->Seek(ticksOf(s.seekTo, kRate), -1));
    // The disk thread has what this pump needs (a device would have waited for it too).
    ASSERT_EQ(S_OK, e.session->WaitBuffered(s.frames, 20000));
    ASSERT_EQ(S_OK, e.session->Pump(buf.data(), s.frames));
    const INT64 to = std::min<INT64>(s.expectFrom + s.frames, 2500);
    std::vector<float> want = expectedSpans(clips, 2, {{s.expectFrom, to}});
    want.resize(size_t(s.frames) * 2, 0.0f);  // past the end of the range: silence
    EXPECT_EQ(want, std::vector<float>(buf.begin(), buf.begin() + s.frames * 2));
    INT64 ticks = 0;
    e.play->GetPosition(&ticks, nullptr, nullptr);
    EXPECT_EQ(ticksOf(to, kRate), ticks);
  }
  EXPECT_EQ(1u, e.info().finished);
  EXPECT_EQ(0u, e.info().underruns);
}

// The resampler run offline over the same frames in the same play order.
std::vector<float> resampleOffline(std::vector<float> in, WORD channels, double ratio) {
  const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_I);
  const soxr_quality_spec_t q = soxr_quality_spec(SOXR_HQ, SOXR_VR);
  soxr_t s = soxr_create(4.0, 1.0, channels, nullptr, &io, &q, nullptr);
  soxr_set_io_ratio(s, ratio, 0);
  const size_t frames = in.size() / channels;
  std::vector<float> out(size_t(double(frames) / ratio + 4096) * channels);
  size_t used = 0, made = 0, total = 0;
  soxr_process(s, in.data(), frames, &used, out.data(), out.size() / channels, &made);
  total += made;
  do {
    soxr_process(s, nullptr, 0, nullptr, out.data() + total * channels,
                 out.size() / channels - total, &made);
    total += made;
  } while (made);
  soxr_delete(s);
  out.resize(total * channels);
  return out;
}

TEST_F(PlayEngineTest, VarispeedRendersWhatTheResamplerGivesOffline) {
  const WaveData longer = noise(2, kRate, 9000, 4);
  writeWav16(dir.file("long.wav"), longer);
  const std::vector<TestClip> clips{{&longer, dir.file("long.wav"), 0, 0, -1, 1.0f}};
  struct Case {
    double rate;
    INT64 from, to;
    std::vector<std::pair<INT64, INT64>> order;  // forward spans of the input
  };
  const Case cases[] = {{2.0, 0, 9000, {{0, 9000}}},
                        {-1.0, 7000, 9000, {{0, 7000}}},
                        {0.5, 1000, 3000, {{1000, 3000}}}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.rate);
    std::vector<float> in = expectedSpans(clips, 2, c.order);
    if (c.rate < 0) {  // reverse plays from the start position down to timeline zero
      for (size_t i = 0, j = in.size() / 2 - 1; i < j; ++i, --j) {
        std::swap(in[2 * i], in[2 * j]);
        std::swap(in[2 * i + 1], in[2 * j + 1]);
      }
    }
    const std::vector<float> want = resampleOffline(in, 2, std::fabs(c.rate));
    const std::vector<float> got = render(clips, c.from, c.to, c.rate);
    ASSERT_EQ(want.size(), got.size());
    EXPECT_TRUE(want == got);
    EXPECT_GT(*std::max_element(got.begin(), got.end()), 0.1f);  // not silence
  }
}

TEST_F(PlayEngineTest, AClipAtAnotherRatePlaysThroughItsResampler) {
  const WaveData half = noise(2, kRate / 2, 1000, 5);
  writeWav16(dir.file("half.wav"), half);
  // The first clip fixes the session at 48 kHz and lies outside the range.
  const std::vector<TestClip> clips{clip(a, 100000), {&half, dir.file("half.wav"), 0, 0, -1, 1.0f}};
  const std::vector<float> got = render(clips, 0, 2000);
  std::vector<float> in;
  for (int16_t v : half.samples) in.push_back(float(v) / 32768.0f);
  std::vector<float> want = resampleOffline(in, 2, 0.5);
  ASSERT_GE(want.size(), 4000u);
  want.resize(4000);
  EXPECT_TRUE(want == got);
}

}  // namespace
}  // namespace ostra::test
