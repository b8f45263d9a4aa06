// The reference clock, the multimedia timers and semaphores of the platform layer, the
// time-code output's count, and the published index.
#include <atomic>

#include "transport_fixture.h"

using ostra::test::TransportTest;

namespace {

TEST(TransportIndex, RoundsAsAFloorWithATolerance) {
  struct Case {
    INT64 ticks;
    double rate;
    INT64 index;
  } cases[] = {
      {0, 1000, 0},       {10000, 1000, 1}, {9999, 1000, 0}, {5000, 1000, 0},
      {-10000, 1000, -1}, {625, 48000, 3},  {624, 48000, 2}, {10000000, 44100, 44100},
      {3333333, 3, 1},  // a hair under a whole unit still counts as that unit
      {3333000, 3, 0},
  };
  for (const Case& c : cases)
    EXPECT_EQ(c.index, ostra::engine::indexOf(c.ticks, c.rate)) << c.ticks << " @ " << c.rate;
  EXPECT_EQ(-1, ostra::engine::ticksToMs(-15000));  // toward zero
}

TEST_F(TransportTest, RefClockSlotsCookiesAndCounts) {
  ASSERT_EQ(S_OK, open());
  IReferenceClock* clk = nullptr;
  ASSERT_EQ(S_OK, t->GetRefClock(&clk));
  auto* impl = static_cast<ostra::engine::RefClock*>(clk);
  HANDLE ev = KaEvent_Create(TRUE, FALSE);
  HANDLE sem = KaSemaphore_Create(0, 1000);
  const REFERENCE_TIME far = REFERENCE_TIME(3600) * 10000000;
  DWORD_PTR cookie = 999;
  for (int i = 0; i < 64; ++i) {
    ASSERT_EQ(S_OK, clk->AdviseTime(far, 0, ev, &cookie));
    EXPECT_EQ(DWORD_PTR(i), cookie);
  }
  EXPECT_EQ(E_FAIL, clk->AdviseTime(far, 0, ev, &cookie));
  EXPECT_EQ(E_POINTER, clk->AdvisePeriodic(far, 1000, sem, nullptr));
  ASSERT_EQ(S_OK, clk->AdvisePeriodic(far, 1000, sem, &cookie));
  EXPECT_EQ(DWORD_PTR(64), cookie);
  EXPECT_EQ(65, impl->liveAdvises());
  EXPECT_EQ(E_FAIL, clk->Unadvise(128));
  EXPECT_EQ(S_OK, clk->Unadvise(5));
  EXPECT_EQ(S_OK, clk->Unadvise(5));  // already free: no change
  EXPECT_EQ(64, impl->liveAdvises());
  ASSERT_EQ(S_OK, clk->AdviseTime(far, 0, ev, &cookie));
  EXPECT_EQ(DWORD_PTR(5), cookie);  // the first free slot again
  for (DWORD_PTR c = 0; c < 65; ++c) clk->Unadvise(c);
  EXPECT_EQ(0, impl->liveAdvises());
  for (int i = 0; i < 64; ++i) ASSERT_EQ(S_OK, clk->AdvisePeriodic(far, 1000, sem, &cookie));
  EXPECT_EQ(E_FAIL, clk->AdvisePeriodic(far, 1000, sem, &cookie));
  for (DWORD_PTR c = 64; c < 128; ++c) clk->Unadvise(c);
  EXPECT_EQ(0, impl->liveAdvises());
  KaCloseHandle(ev);
  KaCloseHandle(sem);
  clk->Release();
}

TEST_F(TransportTest, RefClockAdvisesFireAtTheirTimes) {
  ASSERT_EQ(S_OK, open());
  IReferenceClock* clk = nullptr;
  ASSERT_EQ(S_OK, t->GetRefClock(&clk));
  auto* impl = static_cast<ostra::engine::RefClock*>(clk);
  HANDLE ev = KaEvent_Create(TRUE, FALSE);
  HANDLE sem = KaSemaphore_Create(0, 1000);
  REFERENCE_TIME now = 0;
  clk->GetTime(&now);
  DWORD_PTR once = 0, every = 0;
  ASSERT_EQ(S_OK, clk->AdviseTime(now, 200000, ev, &once));  // in 20 ms
  ASSERT_EQ(S_OK, clk->AdvisePeriodic(now + 100000, 100000, sem, &every));
  ASSERT_EQ(WAIT_OBJECT_0, KaWaitForSingleObject(ev, 20000));
  REFERENCE_TIME fired = 0;
  clk->GetTime(&fired);
  EXPECT_GE(fired, now + 200000) << "fired early";
  for (int i = 0; i < 3; ++i) ASSERT_EQ(WAIT_OBJECT_0, KaWaitForSingleObject(sem, 20000));
  clk->GetTime(&fired);
  EXPECT_GE(fired, now + 300000);
  EXPECT_GE(impl->firedCount(every), 3u);
  EXPECT_EQ(1, impl->liveAdvises());  // the one-shot freed its slot
  EXPECT_EQ(S_OK, clk->Unadvise(every));
  EXPECT_EQ(0, impl->liveAdvises());
  KaCloseHandle(ev);
  KaCloseHandle(sem);
  clk->Release();
}

TEST(PlatformTimers, OneShotPeriodicKillAndSemaphores) {
  struct Counter {
    std::atomic<int> calls{0};
    HANDLE event;
  };
  auto proc = [](UINT, UINT, DWORD_PTR user, DWORD_PTR, DWORD_PTR) {
    auto* c = reinterpret_cast<Counter*>(user);
    if (++c->calls >= 3) KaEvent_Set(c->event);
  };
  Counter periodic{{0}, KaEvent_Create(TRUE, FALSE)};
  Counter once{{0}, KaEvent_Create(TRUE, FALSE)};
  EXPECT_EQ(TIMERR_NOERROR, timeBeginPeriod(4));
  EXPECT_EQ(4u, KaTimer_GetPeriod());
  EXPECT_EQ(0u, timeSetEvent(0, 1, proc, 0, TIME_PERIODIC));
  const UINT id = timeSetEvent(2, 1, proc, DWORD_PTR(&periodic), TIME_PERIODIC);
  ASSERT_NE(0u, id);
  ASSERT_EQ(WAIT_OBJECT_0, KaWaitForSingleObject(periodic.event, 20000));
  EXPECT_EQ(TIMERR_NOERROR, timeKillEvent(id));
  const int after = periodic.calls.load();
  // A one-shot that fires later proves the killed timer stayed silent meanwhile.
  once.calls = 2;
  ASSERT_NE(0u, timeSetEvent(20, 1, proc, DWORD_PTR(&once), TIME_ONESHOT));
  ASSERT_EQ(WAIT_OBJECT_0, KaWaitForSingleObject(once.event, 20000));
  EXPECT_EQ(after, periodic.calls.load());
  EXPECT_EQ(3, once.calls.load());
  EXPECT_EQ(MMSYSERR_INVALPARAM, timeKillEvent(id));
  EXPECT_EQ(TIMERR_NOERROR, timeEndPeriod(4));
  EXPECT_EQ(TIMERR_NOCANDO, timeEndPeriod(4));
  (void)KaTimer_IsTimeCritical();  // either answer is valid; it must not hang
  KaCloseHandle(periodic.event);
  KaCloseHandle(once.event);

  EXPECT_EQ(nullptr, KaSemaphore_Create(2, 1));
  HANDLE sem = KaSemaphore_Create(1, 2);
  LONG previous = -1;
  EXPECT_EQ(WAIT_OBJECT_0, KaWaitForSingleObject(sem, 0));
  EXPECT_EQ(WAIT_TIMEOUT, KaWaitForSingleObject(sem, 0));
  EXPECT_TRUE(KaSemaphore_Release(sem, 2, &previous));
  EXPECT_EQ(0, previous);
  EXPECT_FALSE(KaSemaphore_Release(sem, 1, nullptr));  // past the maximum
  EXPECT_EQ(WAIT_OBJECT_0, KaWaitForSingleObject(sem, 0));
  EXPECT_EQ(WAIT_OBJECT_0, KaWaitForSingleObject(sem, 0));
  EXPECT_EQ(WAIT_TIMEOUT, KaWaitForSingleObject(sem, 0));
  KaCloseHandle(sem);
}

TEST(TimeCodeOutput, CountsTicksWithJumpLimitCapAndNoStepBack) {
  ostra::engine::ManualTimeSource clock;
  struct Step {
    DWORD advanceMs;
    bool read;
    DWORD expect;
  };
  struct Case {
    const char* what;
    DWORD maximum, jumpLimit;
    std::vector<Step> steps;
  } cases[] = {
      {"adds the time since the last tick", 100000, 0, {{10, false, 10}, {15, true, 25}}},
      {"a late tick beyond the jump limit adds nothing",
       100000,
       50,
       {{10, false, 10}, {200, false, 10}, {20, true, 30}}},
      {"capped at the maximum", 100, 0, {{60, false, 60}, {60, true, 100}, {60, true, 100}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    auto* out = new ostra::engine::TimeCodeOutput(&clock);
    ASSERT_EQ(S_OK, out->Configure(10, 1, c.maximum, c.jumpLimit));
    ASSERT_EQ(S_OK, out->Locate(0));  // no timer runs: the test ticks by hand
    for (const Step& s : c.steps) {
      clock.advance(s.advanceMs);
      out->tick();
      if (s.read) {
        EXPECT_EQ(s.expect, out->GetMillisec());
      }
    }
    out->Release();
  }
}

TEST(TimeCodeOutput, TheTimerAdvancesTheCountAndNeverBelowTheLastSent) {
  ostra::engine::ManualTimeSource clock;
  auto* out = new ostra::engine::TimeCodeOutput(&clock);
  ASSERT_EQ(S_OK, out->Configure(2, 1, 1000000, 0));
  ASSERT_EQ(S_OK, out->Run(TRUE));
  EXPECT_EQ(1u, KaTimer_GetPeriod());
  DWORD last = 0;
  bool back = false;
  for (int i = 0; i < 50; ++i) {
    clock.advance(3);
    const DWORD now = out->GetMillisec();
    back |= now < last;
    last = now;
  }
  // The timer thread ticks on its own; wait until it has passed on the clock's moves.
  EXPECT_TRUE(ostra::test::eventually([&] { return out->GetMillisec() >= 150; }));
  EXPECT_FALSE(back);
  EXPECT_EQ(S_OK, out->Run(FALSE));
  EXPECT_EQ(S_FALSE, out->Run(FALSE));
  out->Release();
}

}  // namespace
