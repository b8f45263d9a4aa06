#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <thread>
#include <vector>

#include "ostra/kaplatform.h"
#include "support/test_support.h"

TEST(Heap, PrivateHeapsCountAllocateAndDestroyWhole) {
  UINT64 blocks0, bytes0, heaps0;
  KaHeapGetStats(nullptr, &blocks0, &bytes0, &heaps0);
  KAHHEAP a = KaHeapCreate(HEAP_NO_SERIALIZE, 4096, 0);
  KAHHEAP b = KaHeapCreate(0, 0, 100);
  ASSERT_TRUE(a && b);
  auto* p = static_cast<unsigned char*>(KaHeapAlloc(a, HEAP_ZERO_MEMORY, 40));
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 16, 0u);
  EXPECT_EQ(std::count(p, p + 40, 0), 40);
  std::memset(p, 7, 40);
  p = static_cast<unsigned char*>(KaHeapReAlloc(a, HEAP_ZERO_MEMORY, p, 100));
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(p[39], 7);
  EXPECT_EQ(p[40], 0);
  EXPECT_EQ(p[99], 0);
  EXPECT_EQ(KaHeapSize(a, 0, p), 100u);
  EXPECT_EQ(KaHeapReAlloc(a, HEAP_REALLOC_IN_PLACE_ONLY, p, 200), nullptr);
  EXPECT_EQ(KaHeapSize(b, 0, p), SIZE_T(-1));  // not b's block
  EXPECT_FALSE(KaHeapFree(b, 0, p));
  for (int i = 0; i < 10; ++i) KaHeapAlloc(a, 0, 1000);
  UINT64 blocks, bytes, heaps;
  KaHeapGetStats(a, &blocks, &bytes, &heaps);
  EXPECT_EQ(blocks, 11u);
  EXPECT_EQ(bytes, 10100u);
  EXPECT_EQ(heaps, heaps0 + 2);

  // A maximum caps the bytes in use.
  void* q = KaHeapAlloc(b, 0, 60);
  EXPECT_NE(q, nullptr);
  EXPECT_EQ(KaHeapAlloc(b, 0, 41), nullptr);
  EXPECT_EQ(KaHeapReAlloc(b, 0, q, 101), nullptr);
  EXPECT_EQ(KaHeapSize(b, 0, q), 60u);
  EXPECT_TRUE(KaHeapFree(b, 0, q));
  EXPECT_TRUE(KaHeapFree(b, 0, nullptr));
  {
    ostra::test::FaultInjection faults;
    faults.failAllocation(1);
    EXPECT_EQ(KaHeapAlloc(b, 0, 8), nullptr);
    faults.failAllocation(1);
    EXPECT_EQ(KaHeapCreate(0, 0, 0), nullptr);
  }
  EXPECT_TRUE(KaHeapDestroy(a));  // frees its eleven blocks
  EXPECT_TRUE(KaHeapDestroy(b));
  EXPECT_FALSE(KaHeapDestroy(KaGetProcessHeap()));
  EXPECT_EQ(KaHeapAlloc(nullptr, 0, 8), nullptr);
  KaHeapGetStats(nullptr, &blocks, &bytes, &heaps);
  EXPECT_EQ(blocks, blocks0);
  EXPECT_EQ(bytes, bytes0);
  EXPECT_EQ(heaps, heaps0);
}

TEST(Heap, ProcessHeapIsSerialised) {
  KAHHEAP h = KaGetProcessHeap();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([h] {
      std::vector<void*> blocks;
      for (int i = 0; i < 2000; ++i) blocks.push_back(KaHeapAlloc(h, 0, size_t(i % 64 + 1)));
      for (void* p : blocks) EXPECT_TRUE(KaHeapFree(h, 0, p));
    });
  for (auto& t : threads) t.join();
}

TEST(Memory, ReadabilityProbe) {
  std::vector<char> big(100000, 1);
  EXPECT_TRUE(KaMemory_IsReadable(big.data(), big.size()));
  EXPECT_TRUE(KaMemory_IsReadable(big.data(), 0));
  EXPECT_FALSE(KaMemory_IsReadable(nullptr, 4));
  EXPECT_FALSE(KaMemory_IsReadable(reinterpret_cast<void*>(uintptr_t(16)), 4));
  EXPECT_FALSE(KaMemory_IsReadable(reinterpret_cast<void*>(~uintptr_t(0) - 2), 8));
}
