// Record runs: a tone recorded through the engine on a manual clock keeps exactly the
// range, in the container and sample type asked for, with a header rewrite per interval;
// a file input is recorded sample for sample.
#include <atomic>

#include "engine/internal/transport_impl.h"
#include "engine_fixture.h"
#include "transport_fixture.h"

namespace ostra::test {
namespace {

constexpr DWORD kRate = 48000;

void countRewrite(INT64 frames, void* context) {
  auto* seen = static_cast<std::vector<INT64>*>(context);
  seen->push_back(frames);
}

class RecordRun : public ::testing::Test {
 protected:
  void SetUp() override { engine::setDefaultTimeSource(&clock); }
  void TearDown() override { engine::setDefaultTimeSource(nullptr); }
  // Records `frames` frames; the input's clock moves only as the test advances it.
  void record(IKAEngineSession* s, IKAPlayEngine* e, INT64 frames) {
    ASSERT_EQ(S_OK, e->ArmInput(TRUE, nullptr));
    ASSERT_EQ(S_OK, e->Start(0, 0, ticksOf(frames, kRate)));
    KAENGINEINFO i{};
    i.size = sizeof i;
    ASSERT_TRUE(eventually([&] {
      clock.advance(5);
      s->GetInfo(&i);
      return i.recordedFrames >= frames;
    }));
    ASSERT_EQ(S_OK, e->Stop(0, 0));
  }
  engine::ManualTimeSource clock;
  TempDir dir;
};

TEST_F(RecordRun, KeepsExactlyTheRangeInTheFormatAsked) {
  struct Case {
    DWORD container;
    KASAMPLETYPE type;
    DWORD headerEveryMs;
    INT64 frames;
  };
  const Case cases[] = {{KACONTAINER_WAVE, KASAMPLE_PCM16, 250, 30000},
                        {KACONTAINER_WAVE64, KASAMPLE_PCM24, 1000, 50000},
                        {KACONTAINER_WAVE64, KASAMPLE_FLOAT32, 100, 12345}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.container * 100 + c.type);
    const std::string out = dir.file(c.container == KACONTAINER_WAVE ? "t.wav" : "t.w64");
    const std::u16string path = u16(out);
    EngineUnderTest e({}, 512);
    std::vector<INT64> rewrites;
    KARECORDTARGET target{sizeof target,
                          KAREC_INPUT_TONE,
                          nullptr,
                          path.c_str(),
                          c.container,
                          DWORD(c.type),
                          kRate,
                          2,
                          0,
                          c.headerEveryMs};
    ASSERT_EQ(S_OK, e.session->SetRecordTarget(&target, &countRewrite, &rewrites));
    record(e.session, e.play, c.frames);
    e.session->CloseOutput();

    alignas(8) BYTE buf[KAWAVEFORMAT_BUFFER_SIZE] = {};
    auto* wf = reinterpret_cast<_kawaveformat*>(buf);
    tKAAUDIODATA data{};
    ASSERT_EQ(S_OK, KaGetFileWfx(path.c_str(), wf, sizeof buf));
    ASSERT_EQ(S_OK, KaGetFileAudioData(path.c_str(), &data));
    EXPECT_EQ(c.container, data.container);
    EXPECT_EQ(c.type, wf->SampleType);
    EXPECT_EQ(UINT64(c.frames) * wf->nBlockAlign, data.size);
    // One rewrite per interval of audio, and the final one at the stop.
    const INT64 interval = INT64(kRate) * c.headerEveryMs / 1000;
    ASSERT_FALSE(rewrites.empty());
    EXPECT_EQ(c.frames, rewrites.back());
    EXPECT_EQ(size_t(c.frames / interval) + 1, rewrites.size());
    const std::vector<float> got = readFloatWave(out);
    if (c.type != KASAMPLE_PCM24) {
      float peak = 0;
      for (float v : got) peak = std::max(peak, std::fabs(v));
      EXPECT_NEAR(0.1, peak, 0.001);  // the tone at -20 dBFS
    }
  }
}

TEST_F(RecordRun, AFileInputIsRecordedSampleForSample) {
  const WaveData src = noise(2, kRate, 20000, 41);
  writeWav16(dir.file("in.wav"), src);
  const std::u16string in = u16(dir.file("in.wav")), out = u16(dir.file("take.wav"));
  EngineUnderTest e({}, 256);
  KARECORDTARGET target{sizeof target,
                        KAREC_INPUT_FILE,
                        in.c_str(),
                        out.c_str(),
                        KACONTAINER_WAVE,
                        KASAMPLE_PCM16,
                        kRate,
                        2,
                        0,
                        0};
  ASSERT_EQ(S_OK, e.session->SetRecordTarget(&target, nullptr, nullptr));
  record(e.session, e.play, 15000);
  e.session->CloseOutput();
  const std::vector<TestClip> clips{{&src, "", 0, 0, -1, 1.0f}};
  EXPECT_EQ(expectedSpans(clips, 2, {{0, 15000}}), readFloatWave(dir.file("take.wav")));
}

TEST_F(RecordRun, MonitoringRoutesTheInputToTheOutputAndWritesNothing) {
  const std::u16string out = u16(dir.file("never.wav"));
  EngineUnderTest e({}, 256);
  KARECORDTARGET target{sizeof target,
                        KAREC_INPUT_TONE,
                        nullptr,
                        out.c_str(),
                        KACONTAINER_WAVE,
                        KASAMPLE_PCM16,
                        kRate,
                        2,
                        0,
                        0};
  ASSERT_EQ(S_OK, e.session->SetRecordTarget(&target, nullptr, nullptr));
  ASSERT_EQ(S_OK, e.session->SetOutput("null:manual"));
  ASSERT_EQ(S_OK, e.play->Start(0x10800000u, -1, -1));  // as Transport_StartRecMonitor asks
  std::vector<float> buf(256 * 2);
  float peak = 0;
  ASSERT_TRUE(eventually([&] {
    clock.advance(6);
    e.session->Pump(buf.data(), 256);
    for (float v : buf) peak = std::max(peak, std::fabs(v));
    return peak > 0.09f;
  }));
  EXPECT_LT(peak, 0.11f);  // the tone alone
  ASSERT_EQ(S_OK, e.play->Stop(0x10800000u, 0));
  EXPECT_FALSE(std::filesystem::exists(dir.file("never.wav")));
}

}  // namespace
}  // namespace ostra::test
