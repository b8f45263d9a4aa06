// Lists and queues beside the standard containers a caller would otherwise use, on the
// same work: appending, inserting at the front, deleting from the front, sorted insertion,
// and queue hand-over on one thread and between a producer and a consumer thread.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "ostra/kalist.h"
#include "ostra/kaqueue.h"

namespace {

tKALIST* intList(int growBy, DWORD options = 0) {
  tKALIST* l = nullptr;
  KaList_CreateExZ(&l, sizeof(int), 0, growBy, KALIST_OPT_BYVALUE | options, 0, 0, 0);
  return l;
}

int compareInts(INT64, void* a, void* b) {
  const int x = *static_cast<int*>(a), y = *static_cast<int*>(b);
  return (x > y) - (x < y);
}

void ListAppend(benchmark::State& state) {
  const int n = int(state.range(0)), growBy = int(state.range(1));
  const DWORD options = state.range(2) ? KALIST_OPT_THREADSAFE : 0;
  for (auto _ : state) {
    tKALIST* l = intList(growBy, options);
    for (int i = 0; i < n; ++i) KaList_InsertList(l, -1, &i, 1);
    benchmark::DoNotOptimize(l->items);
    KaList_Destroy(l);
  }
  state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(ListAppend)
    ->ArgNames({"n", "growBy", "locked"})
    ->Args({1000, 16, 0})
    ->Args({100000, 16, 0})
    ->Args({100000, 4096, 0})
    ->Args({100000, 4096, 1});

void VectorAppend(benchmark::State& state) {
  const int n = int(state.range(0));
  for (auto _ : state) {
    std::vector<int> v;
    for (int i = 0; i < n; ++i) v.push_back(i);
    benchmark::DoNotOptimize(v.data());
  }
  state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(VectorAppend)->ArgName("n")->Arg(1000)->Arg(100000);

void ListInsertFrontThenDeleteFront(benchmark::State& state) {
  const int n = int(state.range(0));
  for (auto _ : state) {
    tKALIST* l = intList(16);
    for (int i = 0; i < n; ++i) KaList_InsertList(l, 0, &i, 1);
    while (l->count) KaList_DeleteList(l, 0, 1, FALSE);
    KaList_Destroy(l);
  }
  state.SetItemsProcessed(state.iterations() * n * 2);
}
BENCHMARK(ListInsertFrontThenDeleteFront)->ArgName("n")->Arg(1000)->Arg(10000);

void VectorInsertFrontThenDeleteFront(benchmark::State& state) {
  const int n = int(state.range(0));
  for (auto _ : state) {
    std::vector<int> v;
    for (int i = 0; i < n; ++i) v.insert(v.begin(), i);
    while (!v.empty()) v.erase(v.begin());
    benchmark::DoNotOptimize(v.data());
  }
  state.SetItemsProcessed(state.iterations() * n * 2);
}
BENCHMARK(VectorInsertFrontThenDeleteFront)->ArgName("n")->Arg(1000)->Arg(10000);

std::vector<int> randomKeys(int n) {
  std::mt19937 rng(1);
  std::vector<int> keys(static_cast<size_t>(n), 0);
  for (int& k : keys) k = int(rng());
  return keys;
}

void ListSortedInsert(benchmark::State& state) {
  const auto keys = randomKeys(int(state.range(0)));
  for (auto _ : state) {
    tKALIST* l = intList(1024);
    for (int k : keys) {
      const int at = KaList_FindSortedInsertIndexRange(l, &k, 0, -1, compareInts);
      KaList_InsertList(l, at, &k, 1);
    }
    KaList_Destroy(l);
  }
  state.SetItemsProcessed(state.iterations() * int64_t(keys.size()));
}
BENCHMARK(ListSortedInsert)->ArgName("n")->Arg(10000);

void VectorSortedInsert(benchmark::State& state) {
  const auto keys = randomKeys(int(state.range(0)));
  for (auto _ : state) {
    std::vector<int> v;
    for (int k : keys) v.insert(std::lower_bound(v.begin(), v.end(), k), k);
    benchmark::DoNotOptimize(v.data());
  }
  state.SetItemsProcessed(state.iterations() * int64_t(keys.size()));
}
BENCHMARK(VectorSortedInsert)->ArgName("n")->Arg(10000);

void ListHeapSort(benchmark::State& state) {
  const auto keys = randomKeys(int(state.range(0)));
  tKALIST* l = intList(1024);
  for (auto _ : state) {
    state.PauseTiming();
    KaList_DeleteList(l, 0, -1, FALSE);
    KaList_InsertList(l, 0, keys.data(), int(keys.size()));
    state.ResumeTiming();
    KaList_HeapSort(l, 0, compareInts);
  }
  KaList_Destroy(l);
  state.SetItemsProcessed(state.iterations() * int64_t(keys.size()));
}
BENCHMARK(ListHeapSort)->ArgName("n")->Arg(100000);

void StdSort(benchmark::State& state) {
  const auto keys = randomKeys(int(state.range(0)));
  std::vector<int> v;
  for (auto _ : state) {
    state.PauseTiming();
    v = keys;
    state.ResumeTiming();
    std::sort(v.begin(), v.end());
  }
  state.SetItemsProcessed(state.iterations() * int64_t(keys.size()));
}
BENCHMARK(StdSort)->ArgName("n")->Arg(100000);

// ---------------------------------------------------------------- queues

struct Node {
  tKAQELM link;
  int value;
};

// The same hand-over with a mutex-guarded deque and a condition variable for waiting.
struct DequeQueue {
  std::mutex m;
  std::condition_variable cv;
  std::deque<Node*> q;
  void push(Node* n) {
    {
      std::lock_guard lk(m);
      q.push_back(n);
    }
    cv.notify_one();
  }
  Node* pop() {
    std::unique_lock lk(m);
    cv.wait(lk, [&] { return !q.empty(); });
    Node* n = q.front();
    q.pop_front();
    return n;
  }
};

void QueueSameThread(benchmark::State& state) {
  tKAQHEAD head{};
  KaQueueInitialize(&head);
  std::vector<Node> nodes(64);
  for (auto _ : state) {
    for (Node& n : nodes) KaQueueInsert(&head, &n.link);
    for (size_t i = 0; i < nodes.size(); ++i) benchmark::DoNotOptimize(KaQueueRemove(&head, 0));
  }
  KaQueueDelete(&head);
  state.SetItemsProcessed(state.iterations() * int64_t(nodes.size()));
}
BENCHMARK(QueueSameThread);

void DequeSameThread(benchmark::State& state) {
  DequeQueue dq;
  std::vector<Node> nodes(64);
  for (auto _ : state) {
    for (Node& n : nodes) dq.push(&n);
    for (size_t i = 0; i < nodes.size(); ++i) benchmark::DoNotOptimize(dq.pop());
  }
  state.SetItemsProcessed(state.iterations() * int64_t(nodes.size()));
}
BENCHMARK(DequeSameThread);

constexpr int kHandOver = 100000;

void QueueProducerConsumer(benchmark::State& state) {
  std::vector<Node> nodes(kHandOver);
  for (auto _ : state) {
    tKAQHEAD head{};
    KaQueueInitialize(&head);
    std::thread consumer([&] {
      for (int got = 0; got < kHandOver;)
        if (KaQueueRemove(&head, INFINITE)) ++got;
    });
    for (Node& n : nodes) KaQueueInsert(&head, &n.link);
    consumer.join();
    KaQueueDelete(&head);
  }
  state.SetItemsProcessed(state.iterations() * kHandOver);
}
BENCHMARK(QueueProducerConsumer)->Unit(benchmark::kMillisecond)->UseRealTime();

void DequeProducerConsumer(benchmark::State& state) {
  std::vector<Node> nodes(kHandOver);
  for (auto _ : state) {
    DequeQueue dq;
    std::thread consumer([&] {
      for (int got = 0; got < kHandOver; ++got) dq.pop();
    });
    for (Node& n : nodes) dq.push(&n);
    consumer.join();
  }
  state.SetItemsProcessed(state.iterations() * kHandOver);
}
BENCHMARK(DequeProducerConsumer)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
