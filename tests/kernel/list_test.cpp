#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <thread>
#include <vector>

#include "ostra/kalist.h"
#include "support/test_support.h"

namespace {

// Owns a list for one test and checks that the global allocators end where they began.
struct ListFixture : ::testing::Test {
  void SetUp() override {
    KaGlobalGetStats(&globalBlocks, nullptr);
    KaHeapGetStats(nullptr, &heapBlocks, nullptr, &heaps);
  }
  void TearDown() override {
    UINT64 g, h, n;
    KaGlobalGetStats(&g, nullptr);
    KaHeapGetStats(nullptr, &h, nullptr, &n);
    EXPECT_EQ(g, globalBlocks);
    EXPECT_EQ(h, heapBlocks);
    EXPECT_EQ(n, heaps);
  }
  UINT64 globalBlocks = 0, heapBlocks = 0, heaps = 0;
};
using List = ListFixture;

int* ints(tKALIST* l) { return static_cast<int*>(l->items); }
void** ptrs(tKALIST* l) { return static_cast<void**>(l->items); }

tKALIST* makeInts(std::initializer_list<int> values, DWORD options = 0) {
  tKALIST* l = nullptr;
  EXPECT_EQ(KaList_CreateExZ(&l, sizeof(int), 0, 0, options | KALIST_OPT_BYVALUE, 0, 0, 0), S_OK);
  for (int v : values) KaList_InsertList(l, -1, &v, 1);
  return l;
}

std::vector<int> contents(tKALIST* l) { return std::vector<int>(ints(l), ints(l) + l->count); }

int compareInts(INT64 criteria, void* a, void* b) {
  const int x = *static_cast<int*>(a), y = *static_cast<int*>(b);
  return (criteria < 0 ? -1 : 1) * ((x > y) - (x < y));  // criteria -1 sorts descending
}

TEST_F(List, CreationRoundsSizesAndSlots) {
  struct Case {
    SIZE_T itemSize;
    int initial, growBy;
    DWORD options;
    HRESULT hr;
    uint64_t itemSizeOut;
    int allocated, growByOut;
  } cases[] = {
      {8, 0, 0, 0, S_OK, 8, 16, 16},
      {8, 0, 3, 0, S_OK, 8, 16, 4},
      {8, 5, 4, 0, S_OK, 8, 8, 4},
      {8, 2, 100000, 0, S_OK, 8, 66560, 66560},
      {6, 1, 1, KALIST_OPT_BYVALUE, S_OK, 8, 4, 4},
      {100, 0, 0, 0, S_OK, 8, 16, 16},
      {8, 0, 0, KALIST_OPT_HEAPITEMS | KALIST_OPT_BYVALUE, E_FAIL, 0, 0, 0},
      {0, 0, 0, KALIST_OPT_BYVALUE, E_INVALIDARG, 0, 0, 0},
      {1u << 30, 1 << 30, 1 << 16, KALIST_OPT_BYVALUE, E_OUTOFMEMORY, 0, 0, 0},
  };
  for (const Case& c : cases) {
    tKALIST* l = reinterpret_cast<tKALIST*>(&cases);  // must be cleared on failure
    EXPECT_EQ(KaList_CreateExZ(&l, c.itemSize, c.initial, c.growBy, c.options, 0, 0, 0), c.hr)
        << c.itemSize;
    if (FAILED(c.hr)) {
      EXPECT_EQ(l, nullptr);
      continue;
    }
    EXPECT_EQ(l->itemSize, c.itemSizeOut);
    EXPECT_EQ(l->allocated, c.allocated);
    EXPECT_EQ(l->growBy, c.growByOut);
    EXPECT_EQ(l->count, 0);
    EXPECT_EQ(KaList_GetCreateOptions(l), c.options | KALIST_OPT_ANYTHREAD);
    EXPECT_EQ(KaList_GetThreadOwner(l), KaGetCurrentThreadId());
    EXPECT_TRUE(KaList_IsListFast(l));
    EXPECT_TRUE(KaList_IsList(l, sizeof(tKALIST)));
    EXPECT_FALSE(KaList_IsList(l, sizeof(tKALIST) - 1));
    EXPECT_EQ(KaList_Destroy(l), S_OK);
  }
  tKALIST* none = nullptr;
  EXPECT_EQ(KaList_CreateExZ(&none, 8, 0, 0, KALIST_OPT_INPLACE, 0, 0, 0), E_FAIL);
  EXPECT_EQ(KaList_CreateExZ(nullptr, 8, 0, 0, 0, 0, 0, 0), E_INVALIDARG);
  EXPECT_EQ(KaList_Destroy(nullptr), S_OK);
  EXPECT_FALSE(KaList_IsList(reinterpret_cast<void*>(uintptr_t(0x1000)), sizeof(tKALIST)));
  EXPECT_FALSE(KaList_IsListFast(nullptr));
}

TEST_F(List, InsertDeleteAndShrinkRules) {
  tKALIST* l = makeInts({1, 2, 3});
  int v = 9;
  EXPECT_EQ(KaList_InsertList(l, 99, &v, 1), S_OK);  // beyond count appends
  v = 0;
  EXPECT_EQ(KaList_InsertList(l, 0, &v, 1), S_OK);
  int pair[2] = {7, 8};
  EXPECT_EQ(KaList_InsertList(l, 2, pair, 2), S_OK);
  EXPECT_EQ(contents(l), (std::vector<int>{0, 1, 7, 8, 2, 3, 9}));
  EXPECT_EQ(KaList_InsertList(l, 0, nullptr, 1), E_FAIL);
  EXPECT_EQ(KaList_InsertList(l, 0, nullptr, -1), E_FAIL);  // nothing pending

  struct Case {
    int first, count;
    HRESULT hr;
    std::vector<int> after;
  } cases[] = {
      {-1, 1, E_FAIL, {0, 1, 7, 8, 2, 3, 9}},
      {-1, 0, S_OK, {0, 1, 7, 8, 2, 3, 9}},
      {7, 1, E_FAIL, {0, 1, 7, 8, 2, 3, 9}},
      {-1, -1, E_FAIL, {0, 1, 7, 8, 2, 3, 9}},
      {2, 2, S_OK, {0, 1, 2, 3, 9}},
      {3, 100, S_OK, {0, 1, 2}},
      {1, -1, S_OK, {0}},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(KaList_DeleteList(l, c.first, c.count, FALSE), c.hr) << c.first << "," << c.count;
    EXPECT_EQ(contents(l), c.after);
  }
  EXPECT_EQ(ints(l)[1], 0);  // vacated slots are zeroed

  // Growth is additive in multiples of growBy; shrinking gives spare slots back only when
  // more than growBy of them are free.
  std::vector<int> many(40, 5);
  EXPECT_EQ(KaList_InsertList(l, -1, many.data(), 40), S_OK);
  EXPECT_EQ(l->allocated, 16 + 48);
  EXPECT_EQ(KaList_DeleteList(l, 0, 10, TRUE), S_OK);  // 31 used, 33 spare: 48 rounds back to 32
  EXPECT_EQ(l->allocated, 32);
  EXPECT_EQ(KaList_DeleteList(l, 0, 10, TRUE), S_OK);  // 11 spare, not above growBy: kept
  EXPECT_EQ(l->allocated, 32);
  EXPECT_EQ(KaList_GrowAllocated(l, 0), S_OK);
  EXPECT_EQ(l->allocated, 48);
  EXPECT_EQ(KaList_GrowAllocated(l, 17), S_OK);
  EXPECT_EQ(l->allocated, 80);
  EXPECT_EQ(KaList_ShrinkAllocated(l, 1000), S_OK);  // never below count
  EXPECT_EQ(l->allocated, 32);
  EXPECT_EQ(l->count, 21);
  EXPECT_EQ(KaList_Destroy(l), S_OK);
}

TEST_F(List, OutOfMemoryLeavesTheListUnchanged) {
  tKALIST* l = makeInts({1, 2, 3});
  std::vector<int> many(20, 4);
  void* itemsBefore = l->items;
  {
    ostra::test::FaultInjection faults;
    faults.failAllocation(1);
    EXPECT_EQ(KaList_InsertList(l, -1, many.data(), 20), E_OUTOFMEMORY);
    faults.failAllocation(1);
    EXPECT_EQ(KaList_GrowAllocated(l, 1), E_OUTOFMEMORY);
  }
  EXPECT_EQ(l->items, itemsBefore);
  EXPECT_EQ(l->allocated, 16);
  EXPECT_EQ(contents(l), (std::vector<int>{1, 2, 3}));
  {
    tKALIST* h = nullptr;
    ostra::test::FaultInjection faults;
    faults.failAllocation(1);
    EXPECT_EQ(KaList_CreateExZ(&h, 8, 0, 0, 0, 0, 0, 0), E_OUTOFMEMORY);
    EXPECT_EQ(h, nullptr);
  }
  KaList_Destroy(l);
}

TEST_F(List, OwnedItemsOnBothAllocators) {
  for (DWORD heapOpt : {0u, KALIST_OPT_PRIVATEHEAP}) {
    tKALIST* l = nullptr;
    ASSERT_EQ(KaList_CreateExZ(&l, 0, 0, 0, KALIST_OPT_HEAPITEMS | heapOpt, 0, 0, 0), S_OK);
    EXPECT_EQ(l->heapAllocFlags, 9u);
    EXPECT_EQ(l->heapFreeFlags, 1u);
    EXPECT_EQ(l->heap != nullptr, heapOpt != 0);
    char text[] = "abc";
    EXPECT_EQ(KaList_InsertList(l, 0, text, 1), E_FAIL);  // ordinary insertion refused
    void* p = nullptr;
    ASSERT_EQ(KaList_AllocItem(l, 16, &p), S_OK);
    EXPECT_EQ(static_cast<char*>(p)[15], 0);
    void* q = &q;
    EXPECT_EQ(KaList_AllocItem(l, 16, &q), E_FAIL);  // one pending at a time
    EXPECT_EQ(q, nullptr);
    EXPECT_EQ(KaList_InsertList(l, 0, nullptr, -1), S_OK);
    EXPECT_EQ(l->pendingItem, nullptr);
    EXPECT_EQ(ptrs(l)[0], p);
    ASSERT_EQ(KaList_AllocItem(l, 8, &q), S_OK);
    EXPECT_EQ(KaList_DeleteList(l, -1, -1, FALSE), S_OK);  // discards the pending block
    EXPECT_EQ(KaList_DeleteList(l, -1, -1, FALSE), E_FAIL);

    int at = 0;
    EXPECT_EQ(KaList_AllocAndInsertItem(l, text, 4, 0, &at), S_OK);
    EXPECT_EQ(at, 0);
    EXPECT_STREQ(static_cast<char*>(ptrs(l)[0]), "abc");
    EXPECT_EQ(KaList_AllocAndInsertItem(l, nullptr, 100, 50, &at), S_OK);
    EXPECT_EQ(at, 2);
    void* explicitPtr = KaList_AllocItem(l, 4, &q) == S_OK ? q : nullptr;
    EXPECT_EQ(KaList_InsertList(l, 1, &explicitPtr, -1), S_OK);  // negated count inserts pointers
    EXPECT_EQ(l->pendingItem, nullptr);
    EXPECT_EQ(KaList_ReAllocItem(l, 3, 200), S_OK);
    EXPECT_EQ(KaList_ReAllocItem(l, 4, 200), E_INVALIDARG);
    EXPECT_EQ(KaList_AllocSize(l, 0), 4);
    EXPECT_EQ(KaList_AllocSize(l, 3), 200);
    EXPECT_EQ(KaList_AllocSize(l, -1), INT64(16 * 8 + sizeof(tKALIST) + 4 + 16 + 4 + 200));
    EXPECT_EQ(KaList_DeleteList(l, 0, 1, FALSE), S_OK);  // frees the owned block
    EXPECT_EQ(KaList_Destroy(l), S_OK);                  // the fixture proves the rest is freed
  }
}

TEST_F(List, MoveRangeAndMoveBetweenHeapLists) {
  struct Case {
    int from, to, count;
    HRESULT hr;
    std::vector<int> after;
  } cases[] = {
      {0, 3, 2, S_OK, {2, 3, 4, 0, 1, 5}},   {4, 1, 2, S_OK, {0, 4, 5, 1, 2, 3}},
      {1, 1, 3, S_OK, {0, 1, 2, 3, 4, 5}},   {2, -5, 1, S_OK, {2, 0, 1, 3, 4, 5}},
      {1, 3, -1, S_OK, {0, 4, 5, 1, 2, 3}},  {-1, 0, 1, E_INVALIDARG, {0, 1, 2, 3, 4, 5}},
      {5, 0, 2, E_FAIL, {0, 1, 2, 3, 4, 5}}, {0, 5, 2, E_FAIL, {0, 1, 2, 3, 4, 5}},
  };
  for (const Case& c : cases) {
    tKALIST* l = makeInts({0, 1, 2, 3, 4, 5});
    EXPECT_EQ(KaList_MoveRange(l, c.from, c.to, c.count), c.hr) << c.from << "->" << c.to;
    EXPECT_EQ(contents(l), c.after) << c.from << "->" << c.to;
    KaList_Destroy(l);
  }
  // A run beyond the local buffer takes the allocated path.
  tKALIST* big = nullptr;
  ASSERT_EQ(KaList_CreateExZ(&big, 200, 0, 0, KALIST_OPT_BYVALUE, 0, 0, 0), S_OK);
  std::vector<char> rows(200 * 5);
  for (size_t i = 0; i < rows.size(); ++i) rows[i] = char(i / 200);
  KaList_InsertList(big, 0, rows.data(), 5);
  EXPECT_EQ(KaList_MoveRange(big, 0, 2, 3), S_OK);
  const char* b = static_cast<char*>(big->items);
  EXPECT_EQ(std::vector<int>({b[0], b[200], b[400], b[600], b[800]}),
            (std::vector<int>{3, 4, 0, 1, 2}));
  KaList_Destroy(big);

  tKALIST *src = nullptr, *dst = nullptr, *priv = nullptr;
  KaList_CreateExZ(&src, 0, 0, 0, KALIST_OPT_HEAPITEMS | KALIST_OPT_THREADSAFE, 0, 0, 0);
  KaList_CreateExZ(&dst, 0, 0, 0, KALIST_OPT_HEAPITEMS, 0, 0, 0);
  KaList_CreateExZ(&priv, 0, 0, 0, KALIST_OPT_HEAPITEMS | KALIST_OPT_PRIVATEHEAP, 0, 0, 0);
  for (char c : {'a', 'b', 'c', 'd'}) KaList_AllocAndInsertItem(src, &c, 1, -1, nullptr);
  char z = 'z';
  KaList_AllocAndInsertItem(dst, &z, 1, -1, nullptr);
  EXPECT_EQ(KaList_MoveItemsBetweenHeapLists(dst, 0, src, 1, -1),
            E_FAIL);  // negative count: whole source
  EXPECT_EQ(KaList_MoveItemsBetweenHeapLists(dst, 0, src, 2, 3), E_FAIL);
  EXPECT_EQ(KaList_MoveItemsBetweenHeapLists(priv, 0, src, 0, 1),
            E_FAIL);  // blocks cannot change heap
  EXPECT_EQ(KaList_MoveItemsBetweenHeapLists(dst, 0, src, 1, 0), S_OK);
  EXPECT_EQ(KaList_MoveItemsBetweenHeapLists(dst, 0, src, 1, 2), S_OK);
  auto text = [](tKALIST* l) {
    std::string s;
    for (int i = 0; i < l->count; ++i) s += *static_cast<char*>(ptrs(l)[i]);
    return s;
  };
  EXPECT_EQ(text(dst), "bcz");
  EXPECT_EQ(text(src), "ad");
  EXPECT_EQ(src->options & KALIST_OPT_HEAPITEMS, KALIST_OPT_HEAPITEMS);
  for (tKALIST* l : {src, dst, priv}) EXPECT_EQ(KaList_Destroy(l), S_OK);
}

TEST_F(List, ForcedCountKeepsBytesOfSlotsGivenUp) {
  tKALIST* l = makeInts({1, 2, 3, 4});
  EXPECT_EQ(KaList_ArrayForceItemCount(l, 2, TRUE), S_OK);
  EXPECT_EQ(l->allocated, 16);
  EXPECT_EQ(KaList_ArrayForceItemCount(l, 5, FALSE), S_OK);
  EXPECT_EQ(contents(l), (std::vector<int>{1, 2, 3, 4, 0}));
  EXPECT_EQ(KaList_ArrayForceItemCount(l, 21, FALSE), S_OK);
  EXPECT_EQ(l->allocated, 32);
  EXPECT_EQ(ints(l)[20], 0);
  tKALIST* p = nullptr;
  KaList_CreateExZ(&p, 8, 0, 0, 0, 0, 0, 0);
  EXPECT_EQ(KaList_ArrayForceItemCount(p, 3, FALSE), E_FAIL);
  KaList_Destroy(p);
  KaList_Destroy(l);
}

TEST_F(List, SearchesAndSortedSearches) {
  tKALIST* l = makeInts({10, 20, 30, 40, 50});
  struct Case {
    int key, first, count, found, insertAt;
  } cases[] = {
      // sub-ranges; whole lists are covered below
      {35, 0, 2, -1, 2},   {10, 1, -1, -1, 1}, {20, 5, -1, -1, 0},
      {20, 6, -1, -1, -1}, {40, -3, 99, 3, 3},
  };
  for (Case c : cases) {
    EXPECT_EQ(KaList_FindSortedItemRange(l, &c.key, c.first, c.count, compareInts), c.found)
        << c.key << "@" << c.first;
    EXPECT_EQ(KaList_FindSortedInsertIndexRange(l, &c.key, c.first, c.count, compareInts),
              c.insertAt)
        << c.key << "@" << c.first;
  }
  // Every even length exercises the lower-middle probe.
  for (int n = 0; n <= 9; ++n) {
    tKALIST* e = makeInts({});
    for (int i = 0; i < n; ++i) {
      int v = 10 * i;
      KaList_InsertList(e, -1, &v, 1);
    }
    for (int key = -5; key <= 10 * n; key += 5) {
      const int expectInsert = key < 0 ? 0 : (key + 9) / 10;
      const int found = KaList_FindSortedItemRange(e, &key, 0, -1, compareInts);
      EXPECT_EQ(found, key >= 0 && key % 10 == 0 && key / 10 < n ? key / 10 : -1)
          << n << " " << key;
      EXPECT_EQ(KaList_FindSortedInsertIndexRange(e, &key, 0, -1, compareInts),
                std::min(expectInsert, n))
          << n << " " << key;
    }
    KaList_Destroy(e);
  }

  int forty = 40, none = 41;
  EXPECT_EQ(KaList_FindSpecificItemRange(l, 0, -1, &forty), 3);
  EXPECT_EQ(KaList_FindSpecificItemRange(l, 0, 3, &forty), -1);
  EXPECT_EQ(KaList_FindSpecificItemRange(l, 0, -1, &none), -1);
  auto above = [](void* ctx, void* item) {
    return *static_cast<int*>(item) > *static_cast<int*>(ctx) ? 0 : 1;
  };
  int limit = 25;
  EXPECT_EQ(KaList_FindItemRange(l, 0, -1, &limit, above), 2);
  EXPECT_EQ(KaList_FindItemRange(l, 4, 1, &limit, above), 4);
  EXPECT_EQ(KaList_FindItemRange(l, 5, 1, &limit, above), -1);
  EXPECT_EQ(KaList_IsValidIndexSlow(l, 4), 1);
  EXPECT_EQ(KaList_IsValidIndexSlow(l, 5), 0);
  EXPECT_EQ(KaList_IsValidIndexSlow(l, -1), 0);
  KaList_Destroy(l);
}

TEST_F(List, SortsOrderValuesAndPointers) {
  std::mt19937 rng(7);
  for (int n : {0, 1, 2, 3, 17, 200}) {
    std::vector<int> values(static_cast<size_t>(n), 0);
    for (int& v : values) v = int(rng() % 50);
    for (auto sort : {KaList_Sort, KaList_HeapSort}) {
      for (INT64 criteria : {1, -1}) {
        tKALIST* l = makeInts({});
        KaList_InsertList(l, 0, values.data(), n);
        EXPECT_EQ(sort(l, criteria, compareInts), S_OK);
        EXPECT_EQ(KaList_GetSortCriteria(l), criteria);
        std::vector<int> expect = values;
        if (criteria > 0)
          std::sort(expect.begin(), expect.end());
        else
          std::sort(expect.rbegin(), expect.rend());
        EXPECT_EQ(contents(l), expect) << n;
        KaList_Destroy(l);
      }
    }
    // Pointer lists hand the stored pointers to the comparator.
    tKALIST *p = nullptr, *sorted = nullptr, *heap = nullptr;
    KaList_CreateExZ(&p, 8, 0, 0, 0, 0, 0, 0);
    KaList_CreateExZ(&sorted, 8, 0, 0, 0, 0, 0, 0);
    KaList_CreateExZ(&heap, 8, 0, 0, KALIST_OPT_HEAPITEMS, 0, 0, 0);
    for (int& v : values) {
      int* ptr = &v;
      KaList_InsertList(p, -1, &ptr, 1);
    }
    EXPECT_EQ(KaList_HeapSort(p, 1, compareInts), S_OK);
    EXPECT_EQ(KaList_SortTo(sorted, p, 1, compareInts), S_OK);
    EXPECT_EQ(KaList_SortTo(heap, p, 1, compareInts), S_OK);
    EXPECT_EQ(heap->count, 0);
    ASSERT_EQ(sorted->count, n);
    for (int i = 1; i < n; ++i) {
      EXPECT_LE(*static_cast<int*>(ptrs(p)[i - 1]), *static_cast<int*>(ptrs(p)[i]));
      EXPECT_LE(*static_cast<int*>(ptrs(sorted)[i - 1]), *static_cast<int*>(ptrs(sorted)[i]));
    }
    for (tKALIST* l : {p, sorted, heap}) KaList_Destroy(l);
  }
}

TEST_F(List, ThreadRuleOwnerInPlaceAndUserData) {
  tKALIST* l = makeInts({1, 2});
  EXPECT_EQ(KaList_SetUserData(l, 5), 0);
  EXPECT_EQ(KaList_SetUserData(l, 6), 5);
  EXPECT_EQ(KaList_GetUserData(l), 6);
  l->options &= ~KALIST_OPT_ANYTHREAD;  // as a list restricted to its owner
  int v = 3;
  std::thread([&] {
    EXPECT_EQ(KaList_InsertList(l, -1, &v, 1), E_FAIL);
    EXPECT_EQ(KaList_FindSpecificItemRange(l, 0, -1, &v), -1);
    EXPECT_EQ(KaList_GetUserData(l), -1);
    EXPECT_EQ(KaList_IsValidIndexSlow(l, 0), 0);
    EXPECT_EQ(KaList_SetThreadOwner(l, 0), S_OK);  // take it over
    EXPECT_EQ(KaList_InsertList(l, -1, &v, 1), S_OK);
  }).join();
  EXPECT_EQ(KaList_InsertList(l, -1, &v, 1), E_FAIL);
  EXPECT_EQ(KaList_SetThreadOwner(l, KaGetCurrentThreadId()), S_OK);

  tKALIST storage;
  tKALIST* moved = l;
  EXPECT_EQ(KaList_ConvertToInPlace(&moved, nullptr), E_INVALIDARG);
  EXPECT_EQ(KaList_ConvertToInPlace(&moved, &storage), S_OK);
  EXPECT_EQ(moved, nullptr);
  EXPECT_EQ(contents(&storage), (std::vector<int>{1, 2, 3}));
  EXPECT_TRUE(storage.options & KALIST_OPT_INPLACE);
  tKALIST* again = &storage;
  EXPECT_EQ(KaList_ConvertToInPlace(&again, &storage), E_FAIL);
  EXPECT_EQ(KaList_Destroy(&storage), S_OK);
  EXPECT_FALSE(KaList_IsListFast(&storage));
  EXPECT_EQ(KaList_InsertList(&storage, 0, &v, 1), E_INVALIDARG);  // dead lists are refused

  KAWCHAR text[4] = {u'x'};
  EXPECT_EQ(KaList_GetFileAndLine(nullptr, text), -1);
  EXPECT_EQ(text[0], 0);
}

TEST_F(List, ThreadSafeListUnderConcurrentUse) {
  tKALIST* l = nullptr;
  ASSERT_EQ(KaList_CreateExZ(&l, 8, 0, 0, KALIST_OPT_THREADSAFE, 0, 0, 0), S_OK);
  constexpr int kThreads = 4, kEach = 2000;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < kEach; ++i) {
        void* v = reinterpret_cast<void*>(uintptr_t(t * kEach + i + 1));
        KaList_InsertList(l, i % 3 ? -1 : 0, &v, 1);
        if (i % 4 == 3) {
          KaEnterCriticalSection(&l->lock);  // the list's own lock is recursive
          const int at = KaList_FindSpecificItemRange(l, 0, -1, v);
          EXPECT_GE(at, 0);
          EXPECT_EQ(KaList_DeleteList(l, at, 1, TRUE), S_OK);
          KaLeaveCriticalSection(&l->lock);
        }
      }
    });
  for (auto& th : threads) th.join();
  EXPECT_EQ(l->count, kThreads * (kEach - kEach / 4));
  KaList_Destroy(l);
}

}  // namespace
