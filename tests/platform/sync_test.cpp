#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "ostra/kaplatform.h"
#include "ostra/kathread.h"

namespace {

// Counts live handles so every test can prove it closed what it opened.
class Sync : public ::testing::Test {
 protected:
  void SetUp() override { baseline_ = KaHandle_LiveCount(); }
  void TearDown() override { EXPECT_EQ(KaHandle_LiveCount(), baseline_); }
  UINT64 baseline_ = 0;
};

TEST_F(Sync, CriticalSectionIsRecursiveAndExclusive) {
  KACRITICAL_SECTION cs;
  KaInitializeCriticalSection(&cs);
  KaEnterCriticalSection(&cs);
  EXPECT_TRUE(KaTryEnterCriticalSection(&cs));
  std::thread([&] { EXPECT_FALSE(KaTryEnterCriticalSection(&cs)); }).join();
  KaLeaveCriticalSection(&cs);
  std::thread([&] { EXPECT_FALSE(KaTryEnterCriticalSection(&cs)); }).join();  // still held once
  KaLeaveCriticalSection(&cs);
  std::thread([&] {
    KaLeaveCriticalSection(&cs);  // not the holder: ignored
    EXPECT_TRUE(KaTryEnterCriticalSection(&cs));
    KaLeaveCriticalSection(&cs);
  }).join();

  long counter = 0;  // deliberately unsynchronised except by the lock
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 20000; ++i) {
        KaEnterCriticalSection(&cs);
        KaEnterCriticalSection(&cs);
        ++counter;
        KaLeaveCriticalSection(&cs);
        KaLeaveCriticalSection(&cs);
      }
    });
  for (auto& th : threads) th.join();
  EXPECT_EQ(counter, 80000);
  KaDeleteCriticalSection(&cs);
}

TEST_F(Sync, ManualAndAutoResetEvents) {
  for (BOOL manual : {TRUE, FALSE}) {
    HANDLE e = KaEvent_Create(manual, FALSE);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(KaWaitForSingleObject(e, 0), WAIT_TIMEOUT);
    EXPECT_EQ(KaWaitForSingleObject(e, 20), WAIT_TIMEOUT);
    EXPECT_TRUE(KaEvent_Set(e));
    EXPECT_EQ(KaWaitForSingleObject(e, 0), WAIT_OBJECT_0);
    // A manual event stays set; an auto event was consumed by the first wait.
    EXPECT_EQ(KaWaitForSingleObject(e, 0), manual ? WAIT_OBJECT_0 : WAIT_TIMEOUT) << manual;
    EXPECT_TRUE(KaEvent_Reset(e));
    EXPECT_EQ(KaWaitForSingleObject(e, 0), WAIT_TIMEOUT);

    // Four blocked waiters: a manual event releases all of them, an auto event one per set.
    std::atomic<int> released{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 4; ++i)
      waiters.emplace_back([&] {
        EXPECT_EQ(KaWaitForSingleObject(e, INFINITE), WAIT_OBJECT_0);
        ++released;
      });
    KaSleep(30);
    KaEvent_Set(e);
    if (manual) {
      for (auto& w : waiters) w.join();
    } else {
      for (int i = 1; i < 4; ++i) {
        while (released.load() < i) KaSleep(1);
        KaSleep(10);
        EXPECT_EQ(released.load(), i);
        KaEvent_Set(e);
      }
      for (auto& w : waiters) w.join();
      EXPECT_EQ(KaWaitForSingleObject(e, 0), WAIT_TIMEOUT);
    }
    EXPECT_EQ(released.load(), 4);
    EXPECT_TRUE(KaCloseHandle(e));
    EXPECT_FALSE(KaEvent_Set(e));  // closed handles are refused, not dereferenced
    EXPECT_EQ(KaWaitForSingleObject(e, 0), WAIT_FAILED);
  }
}

TEST_F(Sync, WaitForMultipleAnyAllAndBadArguments) {
  HANDLE e[3] = {KaEvent_Create(TRUE, FALSE), KaEvent_Create(FALSE, FALSE),
                 KaEvent_Create(TRUE, FALSE)};
  EXPECT_EQ(KaWaitForMultipleObjects(3, e, FALSE, 0), WAIT_TIMEOUT);
  KaEvent_Set(e[2]);
  KaEvent_Set(e[1]);
  EXPECT_EQ(KaWaitForMultipleObjects(3, e, FALSE, 0), WAIT_OBJECT_0 + 1);  // lowest index wins
  EXPECT_EQ(KaWaitForMultipleObjects(3, e, FALSE, 0), WAIT_OBJECT_0 + 2);  // auto one consumed
  EXPECT_EQ(KaWaitForMultipleObjects(3, e, TRUE, 10), WAIT_TIMEOUT);
  KaEvent_Set(e[1]);
  std::thread late([&] {
    KaSleep(20);
    KaEvent_Set(e[0]);
  });
  EXPECT_EQ(KaWaitForMultipleObjects(3, e, TRUE, INFINITE), WAIT_OBJECT_0);
  late.join();
  EXPECT_EQ(KaWaitForSingleObject(e[1], 0), WAIT_TIMEOUT);  // wait-all took the auto event

  HANDLE dup[2] = {e[0], e[0]};
  HANDLE bogus[2] = {e[0], reinterpret_cast<HANDLE>(uintptr_t(0x12345))};
  HANDLE many[65];
  for (HANDLE& h : many) h = e[0];
  struct Case {
    DWORD count;
    const HANDLE* handles;
    BOOL all;
    DWORD expect;
  } cases[] = {
      {2, dup, TRUE, WAIT_FAILED},      {2, dup, FALSE, WAIT_OBJECT_0},
      {2, bogus, FALSE, WAIT_FAILED},   {0, e, FALSE, WAIT_FAILED},
      {65, many, FALSE, WAIT_FAILED},   {64, many, FALSE, WAIT_OBJECT_0},
      {1, nullptr, FALSE, WAIT_FAILED},
  };
  for (const Case& c : cases)
    EXPECT_EQ(KaWaitForMultipleObjects(c.count, c.handles, c.all, 0), c.expect)
        << c.count << " " << c.all;
  for (HANDLE h : e) EXPECT_TRUE(KaCloseHandle(h));
}

TEST_F(Sync, MutexOwnershipAndAbandonment) {
  HANDLE m = KaMutex_Create(TRUE);
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(KaWaitForSingleObject(m, 0), WAIT_OBJECT_0);  // recursive for its owner
  std::thread([&] {
    EXPECT_EQ(KaWaitForSingleObject(m, 10), WAIT_TIMEOUT);
    EXPECT_FALSE(KaMutex_Release(m));
  }).join();
  EXPECT_TRUE(KaMutex_Release(m));
  EXPECT_TRUE(KaMutex_Release(m));
  EXPECT_FALSE(KaMutex_Release(m));

  // A thread that ends holding the mutex hands it over as abandoned, once.
  std::thread([&] { EXPECT_EQ(KaWaitForSingleObject(m, 0), WAIT_OBJECT_0); }).join();
  HANDLE both[2] = {KaEvent_Create(TRUE, TRUE), m};
  EXPECT_EQ(KaWaitForMultipleObjects(2, both, TRUE, 0), WAIT_ABANDONED_0 + 1);
  EXPECT_TRUE(KaMutex_Release(m));
  EXPECT_EQ(KaWaitForSingleObject(m, 0), WAIT_OBJECT_0);
  EXPECT_TRUE(KaMutex_Release(m));
  KaCloseHandle(both[0]);
  KaCloseHandle(m);
}

DWORD returnParameter(void* p) { return DWORD(reinterpret_cast<uintptr_t>(p)); }

TEST_F(Sync, ThreadsStartSuspendedReportIdsAndExitCodes) {
  DWORD id = 0;
  HANDLE t = KaThread_Create(returnParameter, reinterpret_cast<void*>(uintptr_t(42)), 0,
                             CREATE_SUSPENDED, &id);
  ASSERT_NE(t, nullptr);
  EXPECT_NE(id, 0u);
  EXPECT_NE(id, KaGetCurrentThreadId());
  EXPECT_EQ(KaThread_GetId(t), id);
  DWORD code = 0;
  EXPECT_TRUE(KaThread_GetExitCode(t, &code));
  EXPECT_EQ(code, STILL_ACTIVE);
  EXPECT_EQ(KaWaitForSingleObject(t, 30), WAIT_TIMEOUT);  // suspended: nothing ran
  EXPECT_EQ(KaThread_Resume(t), 1u);
  EXPECT_EQ(KaThread_Resume(t), 0u);
  EXPECT_EQ(KaWaitForSingleObject(t, INFINITE), WAIT_OBJECT_0);
  EXPECT_EQ(KaWaitForSingleObject(t, 0), WAIT_OBJECT_0);  // stays signalled
  EXPECT_TRUE(KaThread_GetExitCode(t, &code));
  EXPECT_EQ(code, 42u);
  EXPECT_EQ(KaThread_SetPriority(t, THREAD_PRIORITY_LOWEST), FALSE);  // it has ended
  EXPECT_TRUE(KaCloseHandle(t));
  EXPECT_FALSE(KaCloseHandle(t));
  EXPECT_EQ(KaThread_Resume(t), DWORD(-1));
  EXPECT_EQ(KaThread_Create(nullptr, nullptr, 0, 0, &id), nullptr);
}

TEST_F(Sync, PrioritiesReadBackAsSet) {
  // Lowering needs no privilege, raising may; the runner itself may run niced, so only
  // the levels at or below the starting one are tried. A thread of its own keeps the
  // runner's level.
  std::thread([] {
    HANDLE self = KaGetCurrentThread();
    const int start = KaThread_GetPriority(self);
    ASSERT_NE(start, THREAD_PRIORITY_ERROR_RETURN);
    for (int p : {THREAD_PRIORITY_BELOW_NORMAL, THREAD_PRIORITY_LOWEST, THREAD_PRIORITY_IDLE}) {
      if (p > start) continue;
      EXPECT_TRUE(KaThread_SetPriority(self, p)) << p;
      EXPECT_EQ(KaThread_GetPriority(self), p);
    }
    EXPECT_FALSE(KaThread_SetPriority(self, 7));
    EXPECT_EQ(KaThread_GetPriority(self), THREAD_PRIORITY_IDLE);
  }).join();
  EXPECT_EQ(KaThread_GetPriority(reinterpret_cast<HANDLE>(uintptr_t(0x777))),
            THREAD_PRIORITY_ERROR_RETURN);
}

void bump(void* p) { ++*static_cast<std::atomic<int>*>(p); }

TEST_F(Sync, CallbackQueuesWakeAlertableAndMessageWaits) {
  std::atomic<int> ran{0};
  HANDLE never = KaEvent_Create(TRUE, FALSE);
  const DWORD me = KaGetCurrentThreadId();

  // A queued APC waits for an alertable wait.
  ASSERT_EQ(KaThread_QueueApc(me, bump, &ran), S_OK);
  EXPECT_EQ(KaWaitForSingleObject(never, 10), WAIT_TIMEOUT);
  EXPECT_EQ(ran.load(), 0);
  EXPECT_EQ(KaWaitForSingleObjectEx(never, INFINITE, TRUE), WAIT_IO_COMPLETION);
  EXPECT_EQ(ran.load(), 1);
  std::thread([&] {
    KaSleep(20);
    KaThread_QueueApc(me, bump, &ran);
  }).join();
  EXPECT_EQ(KaSleepEx(INFINITE, TRUE), WAIT_IO_COMPLETION);
  EXPECT_EQ(ran.load(), 2);

  // A posted callback wakes a message wait once; after dispatch it is no longer new.
  EXPECT_EQ(KaMsgWaitForMultipleObjectsEx(1, &never, 0, QS_POSTMESSAGE, 0), WAIT_TIMEOUT);
  ASSERT_EQ(KaThread_PostCallback(me, bump, &ran), S_OK);
  EXPECT_EQ(KaThread_GetQueueStatus(), DWORD(QS_POSTMESSAGE | QS_ALLPOSTMESSAGE));
  EXPECT_EQ(KaMsgWaitForMultipleObjectsEx(1, &never, 0, QS_SENDMESSAGE, 0), WAIT_TIMEOUT);
  EXPECT_EQ(KaMsgWaitForMultipleObjectsEx(1, &never, INFINITE, QS_POSTMESSAGE, 0),
            WAIT_OBJECT_0 + 1);
  EXPECT_EQ(KaThread_DispatchCallbacks(QS_SENDMESSAGE), 0u);
  EXPECT_EQ(KaMsgWaitForMultipleObjectsEx(1, &never, 0, QS_POSTMESSAGE, 0), WAIT_TIMEOUT);
  EXPECT_EQ(KaMsgWaitForMultipleObjectsEx(1, &never, 0, QS_POSTMESSAGE, MWMO_INPUTAVAILABLE),
            WAIT_OBJECT_0 + 1);
  EXPECT_EQ(KaThread_DispatchCallbacks(QS_POSTMESSAGE), 1u);
  EXPECT_EQ(ran.load(), 3);
  EXPECT_EQ(KaThread_GetQueueStatus(), 0u);

  // A sent callback blocks its sender until this thread dispatches it.
  std::thread sender([&] { EXPECT_EQ(KaThread_SendCallback(me, bump, &ran, INFINITE), S_OK); });
  EXPECT_EQ(KaMsgWaitForMultipleObjectsEx(1, &never, INFINITE, QS_SENDMESSAGE, 0),
            WAIT_OBJECT_0 + 1);
  EXPECT_EQ(KaThread_DispatchCallbacks(QS_SENDMESSAGE), 1u);
  sender.join();
  EXPECT_EQ(ran.load(), 4);
  std::thread([&] { EXPECT_EQ(KaThread_SendCallback(me, bump, &ran, 20), E_ABORT); }).join();
  EXPECT_EQ(KaThread_DispatchCallbacks(QS_SENDMESSAGE), 0u);  // the timed-out one was taken back
  EXPECT_EQ(KaThread_SendCallback(me, bump, &ran, 0), S_OK);  // to itself: runs at once
  EXPECT_EQ(ran.load(), 5);
  EXPECT_EQ(KaThread_PostCallback(0, bump, &ran), E_INVALIDARG);
  KaCloseHandle(never);
}

}  // namespace
