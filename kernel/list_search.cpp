// Lists: searches, sorts and the small accessors.
#include <cstring>

#include "kernel/internal/list.h"

using namespace ostra::kernel::list;

namespace {

int sortedSearch(tKALIST* l, void* key, int first, int n, KALIST_COMPARE compare, bool forInsert) {
  if (first < 0) first = 0;
  if (first > l->count || !compare) return -1;
  const int rest = l->count - first;
  if (n < 0 || n > rest) n = rest;
  if (n == 0) return forInsert ? 0 : -1;
  const INT64 criteria = l->sortCriteria;
  int lo = first, hi = first + n - 1, candidate = lo;
  while (n / 2 > 0) {
    const int m = (n & 1) ? n / 2 : n / 2 - 1;
    const int r = compare(criteria, key, itemArg(l, lo + m));
    if (r == 0) return lo + m;
    if (r < 0) {
      hi = lo + m - 1;
      candidate = lo + m;
      n = m;
    } else {
      candidate = lo + m + 1;
      lo = lo + m + 1;
      n = n / 2;
    }
    if (lo > hi) return forInsert ? candidate : -1;
  }
  const int r = compare(criteria, key, itemArg(l, lo));
  if (r == 0) return lo;
  return forInsert ? lo + (r > 0 ? 1 : 0) : -1;
}

// Slots are whole 4-byte words (item sizes are rounded up to 4), swapped word by word.
void swapSlots(tKALIST* l, int i, int j) {
  if (i == j) return;
  char* a = slot(l, i);
  char* b = slot(l, j);
  for (size_t k = 0; k < l->itemSize; k += 4) {
    uint32_t t;
    std::memcpy(&t, a + k, 4);
    std::memmove(a + k, b + k, 4);
    std::memcpy(b + k, &t, 4);
  }
}

}  // namespace

int KaList_FindItemRange(tKALIST* l, int first, int count, void* context,
                         KALIST_PREDICATE predicate) noexcept {
  Access a(l);
  if (!a.ok() || !predicate || !searchRange(l, first, count)) return -1;
  for (int i = first; i < first + count; ++i)
    if (predicate(context, itemArg(l, i)) == 0) return i;
  return -1;
}

int KaList_FindSpecificItemRange(tKALIST* l, int first, int count, const void* item) noexcept {
  Access a(l);
  if (!a.ok() || !searchRange(l, first, count)) return -1;
  if (byValue(l) && !item) return -1;
  for (int i = first; i < first + count; ++i) {
    if (byValue(l) ? std::memcmp(slot(l, i), item, l->itemSize) == 0 : itemArg(l, i) == item)
      return i;
  }
  return -1;
}

int KaList_FindSortedItemRange(tKALIST* l, void* key, int first, int count,
                               KALIST_COMPARE compare) noexcept {
  Access a(l);
  return a.ok() ? sortedSearch(l, key, first, count, compare, false) : -1;
}

int KaList_FindSortedInsertIndexRange(tKALIST* l, void* key, int first, int count,
                                      KALIST_COMPARE compare) noexcept {
  Access a(l);
  return a.ok() ? sortedSearch(l, key, first, count, compare, true) : -1;
}

HRESULT KaList_Sort(tKALIST* l, INT64 criteria, KALIST_COMPARE compare) noexcept {
  Access a(l);
  if (!a.ok()) return a.hr();
  l->sortCriteria = criteria;
  if (!compare) return S_OK;
  for (int end = l->count - 1; end >= 1; --end) {
    int max = 0;
    for (int j = 1; j <= end; ++j)
      if (compare(criteria, itemArg(l, j), itemArg(l, max)) >= 1) max = j;
    swapSlots(l, max, end);
  }
  return S_OK;
}

HRESULT KaList_HeapSort(tKALIST* l, INT64 criteria, KALIST_COMPARE compare) noexcept {
  Access a(l);
  if (!a.ok()) return a.hr();
  l->sortCriteria = criteria;
  if (!compare || l->count < 2) return S_OK;
  // Positions are 1-based: the children of p are 2p and 2p+1.
  auto larger = [&](int p, int q) {
    return compare(criteria, itemArg(l, p - 1), itemArg(l, q - 1)) > 0;
  };
  auto sift = [&](int p, int end) {
    while (2 * p <= end) {
      int child = 2 * p;
      if (child < end && larger(child + 1, child)) ++child;
      if (!larger(child, p)) break;
      swapSlots(l, p - 1, child - 1);
      p = child;
    }
  };
  for (int p = l->count / 2; p >= 2; --p) sift(p, l->count);
  for (int end = l->count; end >= 2; --end) {
    sift(1, end);
    swapSlots(l, 0, end - 1);
  }
  return S_OK;
}

HRESULT KaList_SortTo(tKALIST* dest, tKALIST* source, INT64 criteria,
                      KALIST_COMPARE compare) noexcept {
  if (!alive(dest) || dest == source) return E_INVALIDARG;
  Access a(source);
  if (!a.ok()) return a.hr();
  {
    Access d(dest);
    if (!d.ok()) return d.hr();
    dest->sortCriteria = criteria;
  }
  if (!compare || dest->itemSize != source->itemSize) return S_OK;
  for (int i = 0; i < source->count; ++i) {
    Access d(dest);
    if (!d.ok()) break;
    const int at = sortedSearch(dest, itemArg(source, i), 0, -1, compare, true);
    insert(dest, at, slot(source, i), 1);  // refused for heap lists; failures are not reported
  }
  return S_OK;
}

int KaList_IsValidIndexSlow(tKALIST* l, int index) noexcept {
  Access a(l);
  return a.ok() && index >= 0 && index <= l->count - 1 ? 1 : 0;
}

int KaList_IsList(const void* pointer, SIZE_T size) noexcept {
  if (!pointer || size != sizeof(tKALIST) || !KaMemory_IsReadable(pointer, size)) return 0;
  return alive(static_cast<const tKALIST*>(pointer)) ? 1 : 0;
}

int KaList_IsListFast(const void* pointer) noexcept {
  return alive(static_cast<const tKALIST*>(pointer)) ? 1 : 0;
}

INT64 KaList_AllocSize(tKALIST* l, int index) noexcept {
  Access a(l);
  if (!a.ok()) return -1;
  if (index < 0) {
    INT64 total = INT64(size_t(l->allocated) * l->itemSize) + INT64(sizeof(tKALIST));
    if (heapItems(l))
      for (int i = 0; i < l->count; ++i) total += INT64(blockSize(l, itemArg(l, i)));
    return total;
  }
  if (byValue(l)) return INT64(l->itemSize);
  // Only owned blocks have a size the list can ask its allocator for.
  if (!heapItems(l) || index >= l->count) return -1;
  return INT64(blockSize(l, itemArg(l, index)));
}

INT64 KaList_SetUserData(tKALIST* l, INT64 value) noexcept {
  Access a(l);
  return a.ok() ? std::atomic_ref<INT64>(l->userData).exchange(value) : -1;
}

INT64 KaList_GetUserData(tKALIST* l) noexcept {
  Access a(l);
  return a.ok() ? std::atomic_ref<INT64>(l->userData).load() : -1;
}

DWORD KaList_GetCreateOptions(tKALIST* l) noexcept {
  Access a(l);
  return a.ok() ? options(l) : DWORD(-1);
}

INT64 KaList_GetSortCriteria(tKALIST* l) noexcept {
  Access a(l);
  return a.ok() ? l->sortCriteria : -1;
}

HRESULT KaList_SetThreadOwner(tKALIST* l, DWORD threadId) noexcept {
  if (!alive(l)) return E_INVALIDARG;
  std::atomic_ref<uint32_t>(l->ownerThread).store(threadId ? threadId : KaGetCurrentThreadId());
  return S_OK;
}

DWORD KaList_GetThreadOwner(tKALIST* l) noexcept {
  return alive(l) ? std::atomic_ref<uint32_t>(l->ownerThread).load() : 0;
}

int KaList_GetFileAndLine(tKALIST* l, KAWCHAR* text) noexcept {
  if (text) text[0] = 0;
  return -1;
}
