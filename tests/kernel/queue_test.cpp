#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "ostra/kaplatform.h"
#include "ostra/kaqueue.h"

namespace {

struct Item {
  tKAQELM link;  // first, as the queue requires
  char name;
};

struct Queue : ::testing::Test {
  void SetUp() override {
    handles = KaHandle_LiveCount();
    ASSERT_EQ(KaQueueInitialize(&q), 1);
    for (int i = 0; i < 6; ++i) items[i].name = char('a' + i);
  }
  void TearDown() override {
    KaQueueDelete(&q);
    EXPECT_EQ(q.event, nullptr);
    EXPECT_EQ(KaHandle_LiveCount(), handles);
  }
  std::string order() {
    std::string s;
    for (tKAQELM* e = q.next; e != reinterpret_cast<tKAQELM*>(&q); e = e->next)
      s += reinterpret_cast<Item*>(e)->name;
    std::string r;
    for (tKAQELM* e = q.prev; e != reinterpret_cast<tKAQELM*>(&q); e = e->prev)
      r += reinterpret_cast<Item*>(e)->name;
    EXPECT_EQ(std::string(s.rbegin(), s.rend()), r);  // both directions agree
    return s;
  }
  void fill(const char* names) {
    for (const char* n = names; *n; ++n) KaQueueInsert(&q, &items[*n - 'a'].link);
  }
  tKAQELM* at(char c) { return &items[c - 'a'].link; }
  static char name(tKAQELM* e) { return e ? reinterpret_cast<Item*>(e)->name : '-'; }
  static int is(tKAQELM* e, void* ctx) {
    return reinterpret_cast<Item*>(e)->name == *static_cast<char*>(ctx);
  }

  tKAQHEAD q{};
  Item items[6]{};
  UINT64 handles = 0;
};

TEST_F(Queue, InsertRemoveAndTheEvent) {
  EXPECT_EQ(KaQueueWait(&q, 0), 0);
  EXPECT_EQ(KaWaitForSingleObject(q.event, 0), WAIT_TIMEOUT);
  KaQueueInsert(&q, at('b'));
  EXPECT_EQ(KaWaitForSingleObject(q.event, 0), WAIT_OBJECT_0);
  KaQueueInsertHead(&q, at('a'));
  KaQueueInsert(&q, at('c'));
  EXPECT_EQ(order(), "abc");
  EXPECT_EQ(KaQueueWait(&q, 0), 1);
  EXPECT_EQ(name(KaQueueRemove(&q, 0)), 'a');
  EXPECT_EQ(at('a')->next, nullptr);
  EXPECT_EQ(at('a')->prev, nullptr);
  EXPECT_EQ(name(KaQueueRemoveTail(&q, 0)), 'c');
  EXPECT_EQ(name(KaQueueRemove(&q, INFINITE)), 'b');
  EXPECT_EQ(KaWaitForSingleObject(q.event, 0), WAIT_TIMEOUT);  // reset with the last element
  EXPECT_EQ(KaQueueRemove(&q, 0), nullptr);
  EXPECT_EQ(KaQueueRemoveTail(&q, 0), nullptr);
  EXPECT_EQ(KaQueueRemove(&q, 20), nullptr);
  DWORD r = 0;
  EXPECT_EQ(KaQueueRemoveEx(&q, nullptr, 0, 0, 20, &r), nullptr);
  EXPECT_EQ(r, WAIT_TIMEOUT);
  EXPECT_EQ(KaQueueRemoveTail(&q, 20), nullptr);
  EXPECT_EQ(KaQueueWait(&q, 20), 0);

  fill("abc");
  KaQueueFlush(&q);  // elements keep stale links and are no longer found
  EXPECT_EQ(order(), "");
  EXPECT_NE(at('b')->next, nullptr);
  EXPECT_EQ(IsInKaQueue(&q, at('b')), 0);
  for (int i = 0; i < 3; ++i) items[i].link = {};

  tKAQHEAD never{};  // operations on a head never initialised do nothing
  KaQueueInsert(&never, at('a'));
  EXPECT_EQ(KaQueueRemove(&never, 10), nullptr);
  EXPECT_EQ(KaQueueWait(nullptr, 10), 0);
  EXPECT_EQ(at('a')->next, nullptr);
}

TEST_F(Queue, ScansInsertFindAndMove) {
  struct Case {
    const char* start;
    bool reverse;
    char match;
    const char* after;
  } inserts[] = {
      {"abc", false, 'b', "aebc"}, {"abc", true, 'c', "abec"}, {"abc", false, 'x', "abce"},
      {"abc", true, 'x', "abce"},  {"", false, 'a', "e"},      {"bab", true, 'b', "baeb"},
      {"bab", false, 'b', "ebab"},
  };
  for (const Case& c : inserts) {
    if (std::string(c.start) == "bab") {  // two 'b' names: use items 'b', 'a', 'd' renamed
      items[3].name = 'b';
      KaQueueInsert(&q, at('b'));
      KaQueueInsert(&q, at('a'));
      KaQueueInsert(&q, &items[3].link);
    } else {
      fill(c.start);
    }
    char m = c.match;
    (c.reverse ? KaQueueInsertExRev : KaQueueInsertEx)(&q, is, &m, at('e'));
    EXPECT_EQ(order(), c.after) << c.start << " " << c.reverse << " " << c.match;
    KaQueueInsertEx(&q, is, &m, nullptr);  // a null element changes nothing
    EXPECT_EQ(order(), c.after);
    KaQueueFlush(&q);
    for (Item& it : items) it.link = {};
    items[3].name = 'd';
  }

  fill("abcd");
  char c = 'c', x = 'x';
  EXPECT_EQ(name(KaQueueFind(&q, is, &c)), 'c');
  EXPECT_EQ(name(KaQueueFindRev(&q, is, &x)), '-');
  EXPECT_EQ(KaQueueMoveToHead(&q, at('a')), 0);  // already first
  EXPECT_EQ(KaQueueMoveToTail(&q, at('d')), 0);  // already last
  EXPECT_EQ(KaQueueMoveToHead(&q, at('e')), 0);  // not queued
  EXPECT_EQ(KaQueueMoveToHead(&q, at('c')), 1);
  EXPECT_EQ(order(), "cabd");
  EXPECT_EQ(KaQueueMoveToTail(&q, at('a')), 1);
  EXPECT_EQ(order(), "cbda");
  char b = 'b';
  EXPECT_EQ(name(KaQueueFindAndMoveToTail(&q, is, &b)), 'b');
  EXPECT_EQ(name(KaQueueFindAndMoveToHead(&q, is, &b)), 'b');
  EXPECT_EQ(order(), "bcda");
  EXPECT_EQ(IsInKaQueue(&q, at('d')), 1);
  EXPECT_EQ(IsInKaQueue(&q, at('e')), 0);
  char d = 'd';
  EXPECT_EQ(name(KaQueueFindAndRemove(&q, is, &d)), 'd');
  EXPECT_EQ(at('d')->next, nullptr);
  EXPECT_EQ(IsInKaQueue(&q, at('d')), 0);
  EXPECT_EQ(name(KaQueueFindAndRemoveRev(&q, is, &x)), '-');
  for (char n : {'a', 'b', 'c'}) {
    EXPECT_EQ(KaWaitForSingleObject(q.event, 0), WAIT_OBJECT_0);
    EXPECT_EQ(name(KaQueueFindAndRemoveRev(&q, is, &n)), n);
  }
  EXPECT_EQ(KaWaitForSingleObject(q.event, 0), WAIT_TIMEOUT);
}

void bump(void* p) { ++*static_cast<std::atomic<int>*>(p); }

TEST_F(Queue, RemoveExWithExtraHandlesCallbacksAndDeletion) {
  HANDLE stop = KaEvent_Create(TRUE, FALSE);
  DWORD r = 0;
  HANDLE many[63] = {};
  EXPECT_EQ(KaQueueRemoveEx(&q, many, 63, 0, 0, &r), nullptr);
  std::thread setter([&] {
    KaSleep(20);
    KaEvent_Set(stop);
  });
  EXPECT_EQ(KaQueueRemoveEx(&q, &stop, 1, 0, INFINITE, &r), nullptr);
  EXPECT_EQ(r, WAIT_OBJECT_0 + 1);
  setter.join();
  KaEvent_Reset(stop);

  // With dispatch, sent callbacks run inside the wait and the wait goes on; without it
  // the same wake-up ends the removal.
  std::atomic<int> ran{0};
  const DWORD consumer = KaGetCurrentThreadId();
  std::thread helper([&] {
    EXPECT_EQ(KaThread_SendCallback(consumer, bump, &ran, INFINITE), S_OK);
    KaThread_QueueApc(consumer, bump, &ran);
    KaSleep(20);
    KaQueueInsert(&q, at('a'));
  });
  EXPECT_EQ(name(KaQueueRemoveAlertable(&q, INFINITE)), 'a');
  helper.join();
  EXPECT_EQ(ran.load(), 2);
  std::thread sender([&] { KaThread_SendCallback(consumer, bump, &ran, INFINITE); });
  EXPECT_EQ(KaQueueRemoveEx(&q, nullptr, 0, QS_SENDMESSAGE, INFINITE, &r), nullptr);
  EXPECT_EQ(r, WAIT_OBJECT_0 + 1);
  EXPECT_EQ(KaThread_DispatchCallbacks(QS_SENDMESSAGE), 1u);
  sender.join();
  EXPECT_EQ(ran.load(), 3);

  // Consumers blocked in every kind of removal are released by deletion and get null.
  std::atomic<int> released{0};
  std::vector<std::thread> waiters;
  for (int kind = 0; kind < 4; ++kind)
    waiters.emplace_back([&, kind] {
      tKAQELM* e = kind == 0   ? KaQueueRemove(&q, INFINITE)
                   : kind == 1 ? KaQueueRemoveEx(&q, &stop, 1, 0, INFINITE, nullptr)
                   : kind == 2 ? KaQueueRemoveTail(&q, INFINITE)
                               : (KaQueueWait(&q, INFINITE) ? at('f') : nullptr);
      EXPECT_EQ(e, nullptr) << kind;
      ++released;
    });
  KaSleep(30);
  EXPECT_EQ(released.load(), 0);
  KaQueueDelete(&q);
  for (auto& w : waiters) w.join();
  EXPECT_EQ(released.load(), 4);
  EXPECT_EQ(q.event, nullptr);
  EXPECT_EQ(KaQueueRemove(&q, INFINITE), nullptr);  // deleted: no wait at all
  KaCloseHandle(stop);
}

TEST_F(Queue, ProducersAndConsumersDeliverEveryElementOnce) {
  constexpr int kProducers = 3, kConsumers = 3, kEach = 3000;
  std::vector<Item> pool(kProducers * kEach);
  std::vector<std::atomic<int>> seen(pool.size());
  std::atomic<int> received{0};
  std::vector<std::thread> threads;
  for (int p = 0; p < kProducers; ++p)
    threads.emplace_back([&, p] {
      for (int i = 0; i < kEach; ++i) {
        Item& it = pool[size_t(p * kEach + i)];
        if (i % 5 == 0)
          KaQueueInsertHead(&q, &it.link);
        else
          KaQueueInsert(&q, &it.link);
      }
    });
  for (int c = 0; c < kConsumers; ++c)
    threads.emplace_back([&, c] {
      while (received.load() < int(pool.size())) {
        // A consumer may be woken for an element another one took: null is not the end.
        tKAQELM* e = c == 0   ? KaQueueRemove(&q, 50)
                     : c == 1 ? KaQueueRemoveTail(&q, 50)
                              : KaQueueRemoveAlertable(&q, 50);
        if (!e) continue;
        EXPECT_EQ(e->next, nullptr);
        ++seen[size_t(reinterpret_cast<Item*>(e) - pool.data())];
        ++received;
      }
    });
  for (auto& t : threads) t.join();
  for (auto& s : seen) ASSERT_EQ(s.load(), 1);
  EXPECT_EQ(KaQueueRemove(&q, 0), nullptr);
  EXPECT_EQ(KaWaitForSingleObject(q.event, 0), WAIT_TIMEOUT);
}

}  // namespace
