// The flat Transport_* API: guards without a transport, the flag words it builds, the
// record and monitor paths, Cleanup in every state, and the stress of many threads.
#include <atomic>
#include <thread>

#include "transport_fixture.h"

using ostra::test::Message;
using ostra::test::Recorder;

namespace {

constexpr INT64 kSecond = 10000000;

class FlatTest : public ::testing::Test {
 protected:
  void SetUp() override {
    handles_ = KaHandle_LiveCount();
    ostra::engine::setDefaultTimeSource(&clock);
    sim = new ostra::engine::SimulatedEngine(&clock);
    Mixer_SetEngine(sim);
  }
  void TearDown() override {
    Transport_Cleanup();
    Mixer_SetEngine(nullptr);
    sim->Release();
    ostra::engine::setDefaultTimeSource(nullptr);
    EXPECT_EQ(handles_, KaHandle_LiveCount()) << "a handle leaked";
  }
  HRESULT init(DWORD openFlags = 0) {
    return Transport_Init(&Recorder::callback, rec.context(), openFlags, 0, nullptr, nullptr);
  }
  ostra::engine::ManualTimeSource clock;
  ostra::engine::SimulatedEngine* sim = nullptr;
  Recorder rec;
  UINT64 handles_ = 0;
};

TEST_F(FlatTest, WithoutATransport) {
  _tag_looppoint loop{};
  KATRANSPORTPREFS prefs{};
  INT64 v = 0;
  const HRESULT unexpected[] = {
      Transport_SetLength(1),
      Transport_SetPreviewLength(1),
      Transport_StartRecMonitor(0),
      Transport_StopRecMonitor(0),
      Transport_Seek(0, 0, -1, &loop),
      Transport_StartRec(0, 0, -1, -1, -1, 2, 0),
      Transport_StopRec(0, 0, 0),
      Transport_SetCurrentPos(0),
      Transport_SetTempo(120),
      Transport_SetOffset(0),
      Transport_ToggleGenerateMTC(),
      Transport_GetPrefs(&prefs),
      Transport_GetMetric(1, &v),
      Transport_QueryInternalInterface(IID_IKATimer, nullptr),
      Transport_Cleanup(),
      Transport_SetRate(2.0, 0),
  };
  for (HRESULT r : unexpected) EXPECT_EQ(E_UNEXPECTED, r);
  EXPECT_EQ(-1, Transport_GetLength());
  EXPECT_EQ(1.0, Transport_GetRate());
  EXPECT_EQ(0u, Transport_GetStatus());
  EXPECT_EQ(-1, Transport_GetRecPos());
  EXPECT_EQ(-1, Transport_GetPreviewPos());
  EXPECT_EQ(S_FALSE, Transport_SuspendEx());  // no callback: 1, nothing touched
  EXPECT_EQ(S_FALSE, Transport_ResumeEx(TRUE));
}

TEST_F(FlatTest, InitMessagesAndTheSimpleForwarders) {
  ASSERT_EQ(S_OK, Transport_SetAppGUIThreadID(42));
  ASSERT_EQ(S_OK, init());
  EXPECT_EQ(DWORD(-1), Transport_GetAppGUIThreadID());  // Init resets it
  EXPECT_EQ(1u, rec.count(KATM_OPENED));
  EXPECT_EQ(S_FALSE, init());  // the first transport stays
  EXPECT_EQ(KATS_OPEN, Transport_GetStatus());
  EXPECT_EQ(-1, Transport_GetRecPos());
  EXPECT_EQ(S_OK, Transport_SuspendEx());
  EXPECT_EQ(S_OK, Transport_ResumeEx(TRUE));
  EXPECT_EQ(1u, rec.count(KATM_SUSPEND));
  EXPECT_EQ(1u, rec.count(KATM_RESUME));
  EXPECT_EQ(S_OK, Transport_SetLength(5 * kSecond));
  EXPECT_EQ(5 * kSecond, Transport_GetLength());
  EXPECT_EQ(S_FALSE, Transport_SetRate(1.0, 0));  // unchanged: 1 at once
  EXPECT_EQ(S_OK, Transport_SetRate(2.0, 0));
  EXPECT_EQ(2.0, Transport_GetRate());
  IKATimer* timer = nullptr;
  EXPECT_EQ(S_OK, Transport_QueryInternalInterface(IID_IKATimer, reinterpret_cast<void**>(&timer)));
  ASSERT_NE(nullptr, timer);
  timer->Release();
  IKATransport* self = nullptr;
  EXPECT_EQ(S_OK,
            Transport_QueryInternalInterface(IID_IKATransport, reinterpret_cast<void**>(&self)));
  ASSERT_NE(nullptr, self);
  self->Release();
  EXPECT_EQ(S_FALSE,
            Transport_EnumMIDIIn([](UINT, const KAWCHAR*, void*) { return TRUE; }, nullptr));
  EXPECT_EQ(E_NOTIMPL, Transport_ToggleGenerateMIDI());
  EXPECT_EQ(S_FALSE, Transport_CanGenerateSync(0));  // opened without a generator
}

TEST_F(FlatTest, FlagWordsOfMonitorAndRecordCalls) {
  ASSERT_EQ(S_OK, init());
  struct Case {
    const char* what;
    HRESULT (*start)();
    HRESULT (*stop)();
    DWORD startFlags, stopFlags, stopExtra, runBits;
  } cases[] = {
      {"monitor", [] { return Transport_StartRecMonitor(FALSE); },
       [] { return Transport_StopRecMonitor(FALSE); }, 0x10800000u, 0x10800000u, 0,
       KATS_MONITORING},
      {"monitor b", [] { return Transport_StartRecMonitor(TRUE); },
       [] { return Transport_StopRecMonitor(TRUE); }, 0x1C800000u, 0x1C800000u, 0, KATS_MONITORING},
      {"record, stop a c", [] { return Transport_StartRec(0x20000000u, 0, -1, -1, -1, 2, TRUE); },
       [] { return Transport_StopRec(TRUE, FALSE, TRUE); }, 0x20000000u, 0xB0000000u, 1,
       KATS_PLAYING | KATS_RECORDING},
      {"record, stop", [] { return Transport_StartRec(0, 0, kSecond, -1, -1, 2, FALSE); },
       [] { return Transport_StopRec(FALSE, FALSE, FALSE); }, 0u, 0x10000000u, 0,
       KATS_PLAYING | KATS_RECORDING},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ASSERT_EQ(S_OK, c.start());
    EXPECT_EQ(c.startFlags, sim->lastStartFlags());
    EXPECT_EQ(c.runBits, Transport_GetStatus() & (KATS_PLAYING | KATS_RECORDING | KATS_MONITORING));
    ASSERT_EQ(S_OK, c.stop());
    EXPECT_EQ(c.stopFlags, sim->lastStopFlags());
    EXPECT_EQ(c.stopExtra, sim->lastStopExtra());
    EXPECT_EQ(KATS_OPEN, Transport_GetStatus());
  }
  // Arming fails: bit 0x20000000 leaves the flags and nothing stays armed.
  sim->setArmResult(E_ACCESSDENIED);
  ASSERT_EQ(S_OK, Transport_StartRec(0x20000001u, 0, -1, -1, -1, 2, TRUE));
  EXPECT_EQ(0x00000001u, sim->lastStartFlags());
  // Seek while recording: 1, and the position stays.
  clock.advance(100);
  const INT64 before = Transport_GetLength();
  EXPECT_EQ(S_FALSE, Transport_Seek(0x20000000u, 3 * kSecond, 4 * kSecond, nullptr));
  EXPECT_EQ(before, Transport_GetLength());
  ASSERT_EQ(S_OK, Transport_StopRec(FALSE, FALSE, FALSE));
  // A preview is stopped (monitor restarted on request) before monitoring starts.
  ASSERT_EQ(S_OK, Transport_StartPreview(0, -1, FALSE, 1.0));
  ASSERT_EQ(S_OK, Transport_StartRecMonitor(FALSE));
  EXPECT_EQ(KATS_MONITORING, Transport_GetStatus() & (KATS_MONITORING | KATS_AUDIOPREVIEW));
  ASSERT_EQ(S_OK, Transport_StopRecMonitor(FALSE));
}

TEST_F(FlatTest, CleanupWhilePlayingPreviewingAndRecording) {
  for (int kind = 0; kind < 3; ++kind) {
    SCOPED_TRACE(kind);
    ASSERT_EQ(S_OK, init());
    if (kind == 0) {
      ASSERT_EQ(S_OK, Transport_SetCurrentPos(0));
    }
    IKATransport* tr = nullptr;
    ASSERT_EQ(S_OK,
              Transport_QueryInternalInterface(IID_IKATransport, reinterpret_cast<void**>(&tr)));
    if (kind == 0) {
      ASSERT_EQ(S_OK, tr->Start(0, 0));
    }
    if (kind == 1) {
      ASSERT_EQ(S_OK, Transport_StartPreview(0, -1, FALSE, 1.0));
    }
    if (kind == 2) {
      ASSERT_EQ(S_OK, Transport_StartRec(0, 0, -1, -1, -1, 2, TRUE));
    }
    const size_t stops = rec.count(KATM_STOPPED) + rec.count(KATM_PREVIEWSTOPPED);
    EXPECT_EQ(S_OK, Transport_Cleanup());
    EXPECT_EQ(stops + 1, rec.count(KATM_STOPPED) + rec.count(KATM_PREVIEWSTOPPED));
    EXPECT_EQ(0u, Transport_GetStatus());
    DWORD s = 1;
    EXPECT_EQ(E_UNEXPECTED, tr->GetStatus(&s));
    EXPECT_EQ(0u, tr->Release());
  }
}

TEST_F(FlatTest, AThousandCyclesFromThreeThreadsWithTheWorkerAndTwoReaders) {
  ASSERT_EQ(S_OK, init());
  IKATransport* tr = nullptr;
  ASSERT_EQ(S_OK,
            Transport_QueryInternalInterface(IID_IKATransport, reinterpret_cast<void**>(&tr)));
  IKATimer* timers[2] = {};
  ASSERT_EQ(S_OK, tr->GetTimer(0, &timers[0]));
  ASSERT_EQ(S_OK, tr->GetTimer(0, &timers[1]));
  IReferenceClock* clk = nullptr;
  ASSERT_EQ(S_OK, tr->GetRefClock(&clk));
  Transport_SetLength(2 * kSecond);

  std::atomic<bool> done{false};
  std::thread ticker([&] {
    while (!done) {
      clock.advance(1);
      std::this_thread::yield();
    }
  });
  std::vector<std::thread> readers;
  for (IKATimer* timer : timers)
    readers.emplace_back([&, timer] {
      while (!done) {
        INT64 p = 0;
        timer->GetPosition(&p);
        LONG ms = 0;
        timer->GetPositionMs(&ms);
      }
    });
  std::vector<std::thread> hosts;
  std::atomic<int> cycles{0};
  for (int h = 0; h < 3; ++h)
    hosts.emplace_back([&, h] {
      HANDLE ev = KaEvent_Create(TRUE, FALSE);
      for (int i = 0; i < 334; ++i) {
        tr->Start(h == 0 ? 0x20000000u : 0u, (i % 7) * 1000000);
        _tag_looppoint loop{0, (i % 3) * kSecond, 1, 1};
        Transport_Seek(0, (i % 5) * 1000000, -1, (i & 1) ? &loop : nullptr);
        DWORD_PTR cookie = 0;
        if (SUCCEEDED(clk->AdviseTime(0x7FFFFFFFFFFFLL, 0, ev, &cookie))) clk->Unadvise(cookie);
        if (h == 1) Transport_StartPreview(0, (i % 4) * 1000000, FALSE, 1.0);
        if (h == 2) Transport_StopPreview(0, i & 1);
        tr->StopPlay(0);
        ++cycles;
      }
      KaCloseHandle(ev);
    });
  for (auto& th : hosts) th.join();
  tr->StopPlay(0);
  Transport_StopPreview(0, FALSE);
  Transport_StopRecMonitor(FALSE);
  done = true;
  for (auto& th : readers) th.join();
  ticker.join();

  EXPECT_EQ(1002, cycles.load());
  EXPECT_EQ(KATS_OPEN, Transport_GetStatus());
  EXPECT_EQ(rec.count(KATM_STARTED), rec.count(KATM_STOPPED));
  EXPECT_EQ(0, static_cast<ostra::engine::RefClock*>(clk)->liveAdvises());
  clk->Release();
  for (IKATimer* timer : timers) timer->Release();
  tr->Release();
}

}  // namespace
