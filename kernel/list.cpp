// Lists: creation and destruction, growth and shrinking, insertion and deletion, owned
// items and moves. Slot arrays come from global memory (they cross the interface);
// records and owned items from the process heap or the list's private heap.
#include <climits>
#include <cstring>

#include "kernel/internal/list.h"

namespace ostra::kernel::list {

void* allocBlock(tKALIST* l, size_t bytes) {
  if (l->heap) return KaHeapAlloc(l->heap, l->heapAllocFlags, bytes);
  return KaHeapAlloc(KaGetProcessHeap(), HEAP_ZERO_MEMORY, bytes);
}

void* reallocBlock(tKALIST* l, void* block, size_t bytes) {
  if (l->heap) return KaHeapReAlloc(l->heap, l->heapAllocFlags, block, bytes);
  return KaHeapReAlloc(KaGetProcessHeap(), HEAP_ZERO_MEMORY, block, bytes);
}

void freeBlock(tKALIST* l, void* block) {
  if (!block) return;
  if (l->heap)
    KaHeapFree(l->heap, l->heapFreeFlags, block);
  else
    KaHeapFree(KaGetProcessHeap(), 0, block);
}

size_t blockSize(const tKALIST* l, const void* block) {
  if (!block) return 0;
  const size_t n = l->heap ? KaHeapSize(l->heap, l->heapFreeFlags, block)
                           : KaHeapSize(KaGetProcessHeap(), 0, block);
  return n == SIZE_T(-1) ? 0 : n;
}

namespace {

void* allocSlots(size_t bytes) {
  KAHGLOBAL h = KaGlobalAlloc(GMEM_FIXED | GMEM_ZEROINIT, bytes);
  return h ? KaGlobalLock(h) : nullptr;
}

// Bytes of n slots, or 0 beyond what any machine could hold (2^39 bytes).
size_t slotBytes(const tKALIST* l, int64_t n) {
  constexpr uint64_t kMax = uint64_t(1) << 39;
  if (n < 0 || (l->itemSize && uint64_t(n) > kMax / l->itemSize)) return 0;
  return size_t(n) * l->itemSize;
}

int64_t roundUp(int64_t n, int64_t quantum) { return (n + quantum - 1) / quantum * quantum; }

}  // namespace

HRESULT grow(tKALIST* l, int slots) {
  int64_t n = slots < 1 ? l->growBy : slots;
  n = roundUp(n, l->growBy);
  const int64_t total = int64_t(l->allocated) + n;
  const size_t bytes = slotBytes(l, total);
  if (total > INT_MAX || !bytes) return E_OUTOFMEMORY;
  void* items = allocSlots(bytes);
  if (!items) return E_OUTOFMEMORY;
  std::memcpy(items, l->items, size_t(l->allocated) * l->itemSize);
  KaGlobalFreePtr(l->items);
  l->items = items;
  l->allocated = int(total);
  return S_OK;
}

HRESULT shrink(tKALIST* l, int slots) {
  const int spare = l->allocated - l->count;
  int64_t r = roundUp(slots < 0 ? spare : slots, l->growBy);
  if (r > spare) r -= l->growBy;
  if (r > spare) r = spare / l->growBy * l->growBy;  // never give up slots in use
  if (r <= 0) return S_OK;
  const int64_t keep = l->allocated - r;
  const size_t bytes = keep ? size_t(keep) * l->itemSize : l->itemSize;
  KAHGLOBAL h = KaGlobalHandle(l->items);
  KaGlobalUnlock(h);
  if (!KaGlobalReAlloc(h, bytes, GMEM_MOVEABLE | GMEM_ZEROINIT)) {
    KaGlobalLock(h);
    return E_OUTOFMEMORY;
  }
  l->items = KaGlobalLock(h);
  l->allocated = int(keep);
  return S_OK;
}

HRESULT insert(tKALIST* l, int index, const void* source, int count) {
  const void* src = source;
  int n;
  if (source && count >= 0 && !heapItems(l)) {
    n = count;
  } else if (source && count < 0 && count != INT_MIN) {
    n = -count;  // owned pointers inserted explicitly
  } else if (!source && count == -1 && l->pendingItem) {
    src = &l->pendingItem;
    n = 1;
  } else {
    return E_FAIL;
  }
  if (index < 0 || index > l->count) index = l->count;
  if (int64_t(l->count) + n > INT_MAX) return E_OUTOFMEMORY;
  if (l->allocated < l->count + n) {
    const HRESULT hr = grow(l, n);
    if (FAILED(hr)) return hr;
  }
  std::memmove(slot(l, index + n), slot(l, index), size_t(l->count - index) * l->itemSize);
  std::memcpy(slot(l, index), src, size_t(n) * l->itemSize);
  l->count += n;
  l->pendingItem = nullptr;
  return S_OK;
}

HRESULT remove(tKALIST* l, int first, int count, BOOL doShrink) {
  if (first < 0 && count < 0) {
    if (!l->pendingItem) return E_FAIL;
    freeBlock(l, l->pendingItem);
    l->pendingItem = nullptr;
    return S_OK;
  }
  if (count == 0) return S_OK;
  if (first < 0) return E_FAIL;
  if (count < 0) {
    if (first >= l->count) return S_OK;
    count = l->count - first;
  } else {
    if (first >= l->count) return E_FAIL;
    if (count > l->count - first) count = l->count - first;
  }
  if (heapItems(l))
    for (int i = first; i < first + count; ++i) freeBlock(l, itemArg(l, i));
  const int tail = l->count - first - count;
  std::memmove(slot(l, first), slot(l, first + count), size_t(tail) * l->itemSize);
  std::memset(slot(l, l->count - count), 0, size_t(count) * l->itemSize);
  l->count -= count;
  if (doShrink && l->allocated - l->count > l->growBy) return shrink(l, -1);
  return S_OK;
}

}  // namespace ostra::kernel::list

using namespace ostra::kernel::list;

HRESULT KaList_CreateExZ(tKALIST** plist, SIZE_T itemSize, int initialSlots, int growBy, DWORD opts,
                         INT64, INT64, INT64) noexcept {
  if (!plist) return E_INVALIDARG;
  const bool inPlace = opts & KALIST_OPT_INPLACE;
  tKALIST* l = nullptr;
  if (inPlace) {
    l = *plist;
    if (!l) return E_FAIL;
    std::memset(l, 0, sizeof *l);
  } else {
    *plist = nullptr;
  }
  if ((opts & KALIST_OPT_HEAPITEMS) && (opts & KALIST_OPT_BYVALUE)) return E_FAIL;
  if ((opts & KALIST_OPT_BYVALUE) && (itemSize == 0 || itemSize > INT_MAX)) return E_INVALIDARG;
  if (!inPlace) {
    l = static_cast<tKALIST*>(KaHeapAlloc(KaGetProcessHeap(), HEAP_ZERO_MEMORY, sizeof(tKALIST)));
    if (!l) return E_OUTOFMEMORY;
  }
  std::memcpy(l->signature, "CURT", 4);
  l->itemSize = (opts & KALIST_OPT_BYVALUE) ? (itemSize + 3) / 4 * 4 : 8;
  int g = growBy < 1 ? 16 : growBy;
  g = g < 4 ? 4 : g > 66560 ? 66560 : g;
  int64_t slots = initialSlots < 1 ? 16 : initialSlots;
  slots = roundUp(slots < 4 ? 4 : slots, g);
  const size_t bytes = slots <= INT_MAX ? slotBytes(l, slots) : 0;
  l->items = bytes ? allocSlots(bytes) : nullptr;
  if (!l->items) {
    std::memset(l->signature, 0, 4);
    if (!inPlace) KaHeapFree(KaGetProcessHeap(), 0, l);
    return E_OUTOFMEMORY;
  }
  if (opts & KALIST_OPT_THREADSAFE) KaInitializeCriticalSection(&l->lock);
  l->ownerThread = KaGetCurrentThreadId();
  l->options = opts | KALIST_OPT_ANYTHREAD;
  l->allocated = int(slots);
  l->growBy = g;
  if (opts & KALIST_OPT_HEAPITEMS) {
    if (opts & KALIST_OPT_PRIVATEHEAP) {
      l->heap = KaHeapCreate(HEAP_NO_SERIALIZE, 4096, 0);
      if (!l->heap) {
        KaList_Destroy(l);
        return E_OUTOFMEMORY;
      }
    }
    l->heapAllocFlags = HEAP_NO_SERIALIZE | HEAP_ZERO_MEMORY;
    l->heapFreeFlags = HEAP_NO_SERIALIZE;
  }
  *plist = l;
  return S_OK;
}

HRESULT KaList_Destroy(tKALIST* l) noexcept {
  if (!l) return S_OK;
  Access a(l);
  if (!a.ok()) return a.hr();
  if (heapItems(l)) {
    if (l->heap) {
      KaHeapDestroy(l->heap);
      l->heap = nullptr;
      std::memset(l->items, 0, size_t(l->count) * l->itemSize);
    } else {
      for (int i = 0; i < l->count; ++i) freeBlock(l, itemArg(l, i));
      std::memset(l->items, 0, size_t(l->count) * l->itemSize);
      freeBlock(l, l->pendingItem);
    }
  }
  l->pendingItem = nullptr;
  KaGlobalFreePtr(l->items);
  l->items = nullptr;
  std::memset(l->signature, 0, 4);
  if (options(l) & KALIST_OPT_THREADSAFE) {
    a.release();
    KaLeaveCriticalSection(&l->lock);
    KaDeleteCriticalSection(&l->lock);
  }
  if (!(options(l) & KALIST_OPT_INPLACE)) KaHeapFree(KaGetProcessHeap(), 0, l);
  return S_OK;
}

HRESULT KaList_ConvertToInPlace(tKALIST** plist, tKALIST* storage) noexcept {
  if (!plist || !storage || !alive(*plist)) return E_INVALIDARG;
  tKALIST* l = *plist;
  Access a(l);
  if (!a.ok()) return a.hr();
  if (options(l) & KALIST_OPT_INPLACE) return E_FAIL;
  std::memset(storage, 0, sizeof *storage);
  std::memcpy(storage, l, sizeof *storage);
  storage->options |= KALIST_OPT_INPLACE;
  a.release();
  // The copy carries the lock as this call held it; leaving it there balances the entry.
  if (options(storage) & KALIST_OPT_THREADSAFE) KaLeaveCriticalSection(&storage->lock);
  std::memset(l->signature, 0, 4);
  KaHeapFree(KaGetProcessHeap(), 0, l);
  *plist = nullptr;
  return S_OK;
}

HRESULT KaList_InsertList(tKALIST* l, int index, const void* source, int count) noexcept {
  Access a(l);
  return a.ok() ? insert(l, index, source, count) : a.hr();
}

HRESULT KaList_DeleteList(tKALIST* l, int first, int count, BOOL doShrink) noexcept {
  Access a(l);
  return a.ok() ? remove(l, first, count, doShrink) : a.hr();
}

HRESULT KaList_GrowAllocated(tKALIST* l, int slots) noexcept {
  Access a(l);
  return a.ok() ? grow(l, slots) : a.hr();
}

HRESULT KaList_ShrinkAllocated(tKALIST* l, int slots) noexcept {
  Access a(l);
  return a.ok() ? shrink(l, slots) : a.hr();
}

HRESULT KaList_AllocItem(tKALIST* l, SIZE_T size, void** item) noexcept {
  if (item) *item = nullptr;
  Access a(l);
  if (!a.ok()) return a.hr();
  if (!item || !heapItems(l) || l->pendingItem) return item ? E_FAIL : E_INVALIDARG;
  void* block = allocBlock(l, size);
  if (!block) return E_OUTOFMEMORY;
  l->pendingItem = block;
  *item = block;
  return S_OK;
}

HRESULT KaList_AllocAndInsertItem(tKALIST* l, const void* source, SIZE_T size, int index,
                                  int* insertedAt) noexcept {
  if (insertedAt) *insertedAt = -1;
  Access a(l);
  if (!a.ok()) return a.hr();
  if (index < 0 || index > l->count) index = l->count;
  void* block;
  HRESULT hr = KaList_AllocItem(l, size, &block);
  if (FAILED(hr)) return hr;
  if (source) std::memcpy(block, source, size);
  hr = insert(l, index, nullptr, -1);
  if (FAILED(hr)) {
    freeBlock(l, block);
    l->pendingItem = nullptr;
    return hr;
  }
  if (insertedAt) *insertedAt = index;
  return S_OK;
}

HRESULT KaList_ReAllocItem(tKALIST* l, int index, SIZE_T size) noexcept {
  Access a(l);
  if (!a.ok()) return a.hr();
  if (!heapItems(l)) return E_FAIL;
  if (index < 0 || index >= l->count) return E_INVALIDARG;
  void* block = reallocBlock(l, itemArg(l, index), size);
  if (!block) return E_OUTOFMEMORY;
  std::memcpy(slot(l, index), &block, sizeof block);
  return S_OK;
}

HRESULT KaList_MoveItemsBetweenHeapLists(tKALIST* dest, int destIndex, tKALIST* src, int first,
                                         int count) noexcept {
  if (!alive(dest) || !alive(src) || dest == src) return E_INVALIDARG;
  const bool lockDest = options(dest) & KALIST_OPT_THREADSAFE,
             lockSrc = options(src) & KALIST_OPT_THREADSAFE;
  if (lockDest) KaEnterCriticalSection(&dest->lock);
  if (lockSrc) KaEnterCriticalSection(&src->lock);
  HRESULT hr = S_OK;
  // Blocks keep their allocator: lists drawing from different heaps cannot trade them.
  if (!heapItems(dest) || !heapItems(src) || dest->pendingItem || dest->heap || src->heap)
    hr = E_FAIL;
  if (count < 0) count = src->count;
  if (SUCCEEDED(hr) && count > 0) {
    if (first < 0 || int64_t(first) + count > src->count) {
      hr = E_FAIL;
    } else {
      if (destIndex < 0 || destIndex > dest->count) destIndex = dest->count;
      const uint32_t srcOptions = options(src);
      setOptions(src, srcOptions & ~KALIST_OPT_HEAPITEMS);
      for (int i = first + count - 1; i >= first && SUCCEEDED(hr); --i) {
        dest->pendingItem = itemArg(src, i);
        hr = KaList_InsertList(dest, destIndex, nullptr, -1);
        if (SUCCEEDED(hr)) hr = KaList_DeleteList(src, i, 1, FALSE);
      }
      setOptions(src, srcOptions);
      dest->pendingItem = nullptr;
    }
  }
  if (lockSrc) KaLeaveCriticalSection(&src->lock);
  if (lockDest) KaLeaveCriticalSection(&dest->lock);
  return hr;
}

HRESULT KaList_MoveRange(tKALIST* l, int from, int to, int count) noexcept {
  Access a(l);
  if (!a.ok()) return a.hr();
  if (from < 0) return E_INVALIDARG;
  if (to < 0) to = 0;
  if (count < 0) count = l->count - (from > to ? from : to);
  if (count < 0 || int64_t(from) + count > l->count || int64_t(to) + count > l->count)
    return E_FAIL;
  if (count == 0 || from == to) return S_OK;
  const size_t bytes = size_t(count) * l->itemSize;
  alignas(16) char local[512];
  char* run =
      bytes <= sizeof local ? local : static_cast<char*>(KaHeapAlloc(KaGetProcessHeap(), 0, bytes));
  if (!run) return E_OUTOFMEMORY;
  std::memcpy(run, slot(l, from), bytes);
  if (to < from)
    std::memmove(slot(l, to + count), slot(l, to), size_t(from - to) * l->itemSize);
  else
    std::memmove(slot(l, from), slot(l, from + count), size_t(to - from) * l->itemSize);
  std::memcpy(slot(l, to), run, bytes);
  if (run != local) KaHeapFree(KaGetProcessHeap(), 0, run);
  return S_OK;
}

HRESULT KaList_ArrayForceItemCount(tKALIST* l, int count, BOOL doShrink) noexcept {
  Access a(l);
  if (!a.ok()) return a.hr();
  if (!byValue(l) || count < 0) return E_FAIL;
  if (count > l->allocated) {
    const HRESULT hr = grow(l, count - l->allocated);
    if (FAILED(hr)) return hr;
  }
  // Lowering only moves count: the slots given up keep their bytes (see docs).
  l->count = count;
  return S_OK;
}
