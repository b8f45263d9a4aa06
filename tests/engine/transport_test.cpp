// The transport object: open and close, stops under the operation lock, the worker's
// stops (end of range, engine state, watchdog), seeks and loop points, positions.
#include <atomic>
#include <thread>

#include "transport_fixture.h"

using ostra::test::Message;
using ostra::test::Recorder;
using ostra::test::TransportTest;

namespace {

constexpr INT64 kSecond = 10000000;

TEST_F(TransportTest, OpenTwiceAndCloseAndTheOutOfMemoryPath) {
  EXPECT_EQ(E_UNEXPECTED, t->StopPlay(0));
  EXPECT_EQ(E_UNEXPECTED, t->Start(0, 0));
  ASSERT_EQ(S_OK, open());
  EXPECT_EQ(KATS_OPEN, status());
  EXPECT_EQ(1u, rec.count(KATM_OPENED));
  ASSERT_EQ(S_OK, t->Start(0, 0));
  const DWORD running = status();
  EXPECT_EQ(S_OK, open());  // changes nothing
  EXPECT_EQ(running, status());
  EXPECT_EQ(1u, rec.count(KATM_OPENED));

  IKATimer* timer = nullptr;
  ASSERT_EQ(S_OK, t->GetTimer(0, &timer));
  EXPECT_EQ(S_OK, t->Close());
  EXPECT_EQ(1u, rec.count(KATM_STOPPED));  // the run ended with its message
  INT64 p = 7;
  EXPECT_EQ(S_FALSE, timer->GetPosition(&p));
  EXPECT_EQ(0, p);
  timer->Release();
  DWORD s = 1;
  EXPECT_EQ(E_UNEXPECTED, t->GetStatus(&s));
  EXPECT_EQ(0u, s);

  // The second timer's allocation fails: the open is undone.
  ostra::engine::failTimerAllocations(1);
  const UINT64 handles = KaHandle_LiveCount();
  EXPECT_EQ(E_OUTOFMEMORY, open());
  EXPECT_EQ(0u, status() & KATS_OPEN);
  EXPECT_EQ(handles, KaHandle_LiveCount());
  EXPECT_EQ(S_OK, open());
}

TEST_F(TransportTest, StopResultsAndTheOneMessageSix) {
  ASSERT_EQ(S_OK, open());
  EXPECT_EQ(KATRANSPORT_S_NOTHING_TO_STOP, t->StopPlay(0));
  EXPECT_EQ(KATRANSPORT_S_NOTHING_TO_STOP, t->StopPreview(0));
  EXPECT_EQ(KATRANSPORT_S_NOTHING_TO_STOP, t->StopMIDIPreview(0));

  // A stop from inside the callback on the stopping thread returns 1 at once.
  std::atomic<HRESULT> inner{E_FAIL};
  rec.setHook([&](IKATransport* tr, const Message& m) {
    if (m.message == KATM_STOPPED) inner = tr->StopPlay(0);
    return S_OK;
  });
  ASSERT_EQ(S_OK, t->Start(0, 0));
  EXPECT_EQ(1u, rec.count(KATM_STARTED));
  EXPECT_EQ(S_OK, t->StopPlay(0));
  EXPECT_EQ(S_FALSE, inner.load());
  EXPECT_EQ(1u, rec.count(KATM_STOPPED));
  EXPECT_EQ(KATS_OPEN, status());
  EXPECT_EQ(1, sim->stops());
  EXPECT_EQ(KATRANSPORT_S_NOTHING_TO_STOP, t->StopPlay(0));
}

TEST_F(TransportTest, AStopWaitsForTheStopRunningOnAnotherThread) {
  ASSERT_EQ(S_OK, open());
  HANDLE inCallback = KaEvent_Create(TRUE, FALSE);
  HANDLE release = KaEvent_Create(TRUE, FALSE);
  HANDLE secondDone = KaEvent_Create(TRUE, FALSE);
  rec.setHook([&](IKATransport*, const Message& m) {
    if (m.message == KATM_STOPPED) {
      KaEvent_Set(inCallback);
      KaWaitForSingleObject(release, INFINITE);
    }
    return S_OK;
  });
  ASSERT_EQ(S_OK, t->Start(0, 0));
  std::thread first([&] { EXPECT_EQ(S_OK, t->StopPlay(0)); });
  ASSERT_EQ(WAIT_OBJECT_0, KaWaitForSingleObject(inCallback, 20000));
  std::atomic<HRESULT> second{E_FAIL};
  std::thread other([&] {
    second = t->StopPlay(0);
    KaEvent_Set(secondDone);
  });
  // Still blocked on the operation lock while the first stop sits in its callback.
  EXPECT_EQ(WAIT_TIMEOUT, KaWaitForSingleObject(secondDone, 100));
  KaEvent_Set(release);
  first.join();
  other.join();
  // It waited: it found nothing left to stop rather than a stop in progress.
  EXPECT_EQ(KATRANSPORT_S_NOTHING_TO_STOP, second.load());
  EXPECT_EQ(1u, rec.count(KATM_STOPPED));
  for (HANDLE h : {inCallback, release, secondDone}) KaCloseHandle(h);
}

TEST_F(TransportTest, WorkerStopsAForwardRunAtItsEndButNeverAReverseRun) {
  ASSERT_EQ(S_OK, open());
  ASSERT_EQ(S_OK, t->SetLength(kSecond));
  ASSERT_EQ(S_OK, t->Start(0, 0));
  clock.advance(1500);
  Message m{};
  ASSERT_TRUE(rec.waitFor(KATM_STOPPED, 1, &m));
  EXPECT_EQ(kSecond, m.position[0]);
  EXPECT_EQ(0, m.reason);
  EXPECT_EQ(kSecond, position());

  // Reverse, without an engine: the position counts down and clamps to the end.
  ASSERT_EQ(S_OK, t->SetPlayEngine(nullptr));
  ASSERT_EQ(S_OK, t->SetRate(-1.0, 0));
  ASSERT_EQ(S_OK, t->Start(0, kSecond / 2));
  clock.advance(300);
  EXPECT_EQ(kSecond / 2 - 3000000, position());
  clock.advance(300);
  EXPECT_EQ(kSecond, position());  // negative → the end position
  ASSERT_TRUE(workerRounds(3));
  EXPECT_TRUE(status() & KATS_PLAYING);
  EXPECT_EQ(1u, rec.count(KATM_STOPPED));
}

TEST_F(TransportTest, EngineFailureAndWatchdogStopWithTheirReasons) {
  ASSERT_EQ(S_OK, open());
  struct Case {
    const char* what;
    bool preview;
    bool engineDies;
    HRESULT reason;
  } cases[] = {
      {"engine answers 0 while playing", false, true, KATRANSPORT_E_ENGINE_STOPPED},
      {"engine answers 0 while previewing", true, true, KATRANSPORT_E_ENGINE_STOPPED},
      {"watchdog while playing", false, false, KATRANSPORT_S_WATCHDOG},
      {"watchdog while previewing", true, false, KATRANSPORT_S_WATCHDOG},
  };
  size_t n = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ++n;
    sim->setStateAnswer(S_FALSE);
    t->SetWatchdog(c.engineDies ? 0 : 1000);
    if (c.preview) {
      ASSERT_EQ(S_OK, t->StartPreview(0, -1, FALSE, 1.0));
    } else {
      ASSERT_EQ(S_OK, t->Start(0, 0));
    }
    if (c.engineDies)
      sim->setStateAnswer(S_OK);
    else
      clock.advance(1500);
    Message m{};
    ASSERT_TRUE(rec.waitFor(c.preview ? KATM_PREVIEWSTOPPED : KATM_STOPPED,
                            c.preview ? n / 2 : (n + 1) / 2, &m));
    EXPECT_EQ(LONG(c.reason), m.reason);
    // The message comes from inside the stop; the stop bits clear once it returns.
    EXPECT_TRUE(ostra::test::eventually([&] { return status() == KATS_OPEN; }));
  }
  sim->setStateAnswer(S_FALSE);
}

TEST_F(TransportTest, LoopPointsComeBackAsTheyApply) {
  ASSERT_EQ(S_OK, open());
  ASSERT_EQ(S_OK, t->Start(0x20000000u, 0));
  struct Case {
    INT64 start, length, position;
    UINT active;
    UINT expect;
  } cases[] = {
      {0, 0, 100, 1, 0},                                // length 0: never active
      {0, kSecond, 100, 1, 1},                          // inside
      {0, kSecond, kSecond, 1, 0},                      // the loop's end is outside
      {kSecond, kSecond, 100, 1, 0},                    // before the start
      {0, kSecond, 100, 0, 0},                          // not asked for
      {KALOOP_UNCHANGED, KALOOP_UNCHANGED, 200, 1, 1},  // keeps 0 + 1 s
  };
  for (const Case& c : cases) {
    _tag_looppoint loop{c.start, c.length, 3, c.active};
    EXPECT_EQ(S_OK, t->Seek(0, c.position, -1, 1, &loop));
    EXPECT_EQ(c.expect, loop.active) << c.start << " " << c.length << " " << c.position;
  }
  // A reverse run only asks for the position to be past the start.
  ASSERT_EQ(S_OK, t->StopPlay(0));
  ASSERT_EQ(S_OK, t->SetRate(-1.0, 0));
  ASSERT_EQ(S_OK, t->Start(0x20000000u, kSecond * 3));
  _tag_looppoint loop{0, kSecond, 0, 1};
  EXPECT_EQ(S_OK, t->Seek(0, kSecond * 2, -1, 1, &loop));
  EXPECT_EQ(1u, loop.active);
}

TEST_F(TransportTest, SeekRunModesSyncGeneratorAndReanchoring) {
  ASSERT_EQ(S_OK, open(0xC0000000u));
  IKATimeCodeOutput* out = nullptr;
  ASSERT_EQ(S_OK, t->QueryInternalInterface(IID_IKATimeCodeOutput, reinterpret_cast<void**>(&out)));
  auto* gen = static_cast<ostra::engine::TimeCodeOutput*>(out);
  ASSERT_EQ(S_OK, out->Configure(10, 1, 100000, 0));  // places up to 100 s
  ASSERT_EQ(S_OK, t->GenerateSync(TRUE, 0));

  struct Case {
    DWORD runFlags, seekFlags;
    HRESULT result;
    int engineSeeks, locate0, locate1;
  } cases[] = {
      {0x00000000u, 0, S_OK, 0, 0, 0},           {0x10000000u, 0, E_FAIL, 0, 0, 0},
      {0x20000000u, 0, S_OK, 1, 1, 0},  // 0x20000000 also places the output
      {0x30000000u, 0, S_OK, 1, 1, 0},           {0x00000000u, 0x40000000u, S_OK, 0, 1, 0},
      {0x00000000u, 0x80000000u, S_OK, 0, 0, 1}, {0x80000000u, 0x40000000u, S_OK, 0, 0, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << std::hex << c.runFlags << "/" << c.seekFlags);
    ASSERT_EQ(S_OK, t->Start(c.runFlags, 0));
    const int seeks = sim->seeks(), l0 = gen->locateCalls(0), l1 = gen->locateCalls(1);
    const INT64 before = position();
    EXPECT_EQ(c.result, t->Seek(c.seekFlags, 5 * kSecond, -1, 1, nullptr));
    EXPECT_EQ(c.engineSeeks, sim->seeks() - seeks);
    EXPECT_EQ(c.locate0, gen->locateCalls(0) - l0);
    EXPECT_EQ(c.locate1, gen->locateCalls(1) - l1);
    if (c.result == S_OK && c.engineSeeks == 1) {
      clock.advance(10);
      EXPECT_EQ(5 * kSecond + 100000, position()) << "the engine plays on from the new position";
    } else if (c.result != S_OK) {
      EXPECT_EQ(before, position());
    }
    ASSERT_EQ(S_OK, t->StopPlay(0));
  }
  // The output cannot be placed past its cap: the mode word says so.
  ASSERT_EQ(S_OK, t->Start(0x20000000u, 0));
  EXPECT_EQ(0u, status() & KATS_SYNCOUTMISSED);
  EXPECT_EQ(S_OK, t->Seek(0, 200 * kSecond, -1, 1, nullptr));
  EXPECT_EQ(KATS_SYNCOUTMISSED, status() & KATS_SYNCOUTMISSED);
  // A failing engine seek is returned; the new end stays.
  sim->setSeekResult(E_ACCESSDENIED);
  EXPECT_EQ(E_ACCESSDENIED, t->Seek(0, kSecond, 9 * kSecond, 1, nullptr));
  INT64 length = 0;
  t->GetLength(&length);
  EXPECT_EQ(9 * kSecond, length);
  out->Release();
}

TEST_F(TransportTest, PreviewsPaceTheWorkerAndEndAtTheirEnd) {
  ASSERT_EQ(S_OK, open());
  EXPECT_EQ(INFINITE, DWORD(metric(KATRANSPORT_METRIC_WORKER_TIMEOUT)));
  sim->setBufferDuration(400000);  // 40 ms: the worker looks every 20 ms
  ASSERT_EQ(S_OK, t->StartPreview(kSecond, 2 * kSecond, FALSE, 1.0));
  EXPECT_EQ(20, metric(KATRANSPORT_METRIC_WORKER_TIMEOUT));
  EXPECT_EQ(160, metric(KATRANSPORT_METRIC_SLOW_TIMEOUT));
  EXPECT_EQ(1u, rec.count(KATM_PREVIEWSTARTED));
  clock.advance(250);
  INT64 p = 0;
  EXPECT_EQ(S_OK, t->GetPosition(&p, nullptr, 16));
  EXPECT_EQ(kSecond + 2500000, p);
  clock.advance(1000);
  Message m{};
  ASSERT_TRUE(rec.waitFor(KATM_PREVIEWSTOPPED, 1, &m));
  EXPECT_EQ(2 * kSecond, m.position[0]);
  EXPECT_EQ(INFINITE, DWORD(metric(KATRANSPORT_METRIC_WORKER_TIMEOUT)));

  // The host refuses the preview: it is stopped again.
  rec.setHook([](IKATransport*, const Message& msg) {
    return msg.message == KATM_PREVIEWSTARTED ? E_ABORT : S_OK;
  });
  EXPECT_EQ(E_ABORT, t->StartPreview(0, -1, FALSE, 1.0));
  EXPECT_EQ(2u, rec.count(KATM_PREVIEWSTOPPED));
  EXPECT_EQ(0u, status() & KATS_AUDIOPREVIEW);
  rec.setHook(nullptr);
  // A MIDI preview stop sends 0x8007 besides 0x8006.
  ASSERT_EQ(S_OK, t->StartMIDIPreview(0, -1, FALSE, 1.0));
  EXPECT_EQ(S_OK, t->StopMIDIPreview(0));
  EXPECT_EQ(1u, rec.count(KATM_MIDIPREVIEWSTOPPED));
  EXPECT_EQ(3u, rec.count(KATM_PREVIEWSTOPPED));
}

TEST_F(TransportTest, TheTimerReaderNeverGetsOneIndexTwiceWhileTheEngineIsBehind) {
  ASSERT_EQ(S_OK, open());
  IKATimer* timer = nullptr;
  ASSERT_EQ(S_OK, t->GetTimer(0, &timer));
  ASSERT_EQ(S_OK, t->Start(0, 0));
  sim->setFrozen(true);
  INT64 first = -1;
  ASSERT_EQ(S_OK, timer->GetPosition(&first));
  HANDLE done = KaEvent_Create(TRUE, FALSE);
  INT64 second = -1;
  std::thread reader([&] {
    timer->GetPosition(&second);
    KaEvent_Set(done);
  });
  EXPECT_EQ(WAIT_TIMEOUT, KaWaitForSingleObject(done, 100)) << "handed the same index twice";
  sim->setFrozen(false);
  clock.advance(5);
  EXPECT_EQ(WAIT_OBJECT_0, KaWaitForSingleObject(done, 20000));
  reader.join();
  EXPECT_EQ(first + 50000, second);

  // A stop releases a reader that waits (the engine is behind again).
  sim->setFrozen(true);
  KaEvent_Reset(done);
  std::thread waiting([&] {
    timer->GetPosition(&second);
    KaEvent_Set(done);
  });
  EXPECT_EQ(S_OK, t->StopPlay(0));
  EXPECT_EQ(WAIT_OBJECT_0, KaWaitForSingleObject(done, 20000));
  waiting.join();
  KaCloseHandle(done);
  timer->Release();
}

TEST_F(TransportTest, PositionsThroughTheTimerNeverGoBackDuringAForwardRun) {
  ASSERT_EQ(S_OK, open(0, false));  // the wall clock path
  IKATimer* timer = nullptr;
  ASSERT_EQ(S_OK, t->GetTimer(0, &timer));
  ASSERT_EQ(S_OK, t->Start(0, 0));
  // The clock keeps moving until the reader is done, so that no read waits for ever.
  std::atomic<bool> done{false};
  std::thread ticker([&] {
    while (!done) {
      clock.advance(1);
      std::this_thread::yield();
    }
  });
  INT64 last = -1;
  int reads = 0;
  bool backwards = false;
  for (; reads < 500; ++reads) {
    INT64 p = 0;
    timer->GetPosition(&p);
    backwards |= p < last;
    last = p;
  }
  done = true;
  ticker.join();
  EXPECT_FALSE(backwards);
  EXPECT_GT(reads, 0);
  timer->Release();
}

TEST_F(TransportTest, TimeCodeInputEventsAndChasing) {
  ASSERT_EQ(S_OK, open(0x10000000u));
  IKATimeCodeInput* in = nullptr;
  ASSERT_EQ(S_OK, t->QueryInternalInterface(IID_IKATimeCodeInput, reinterpret_cast<void**>(&in)));
  EXPECT_EQ(S_OK, in->PostEvent(16, 3 * kSecond, 4 * kSecond));
  Message m{};
  ASSERT_TRUE(rec.waitFor(KATM_SYNCPOSITION, 1, &m));
  EXPECT_EQ(3 * kSecond, m.position[0]);
  EXPECT_EQ(4 * kSecond, m.position[1]);
  EXPECT_EQ(S_OK, in->PostEvent(3, 0, 0));
  EXPECT_EQ(1u, rec.count(KATM_SYNCCONTROL));

  // Chasing a locked input: its position is the transport's.
  ASSERT_EQ(S_OK, t->EnableExternalSync(TRUE, 0));
  ASSERT_EQ(S_OK, t->ToggleListenToMTC(TRUE));
  ASSERT_EQ(S_OK, t->Start(0, 0));
  in->PostEvent(16, 7 * kSecond, 0);
  EXPECT_EQ(7 * kSecond, position());
  // A stop ends the chase for its length and resumes it after.
  EXPECT_EQ(S_OK, t->StopPlay(0));
  EXPECT_TRUE(status() & KATS_CHASING);
  in->Release();
}

}  // namespace
