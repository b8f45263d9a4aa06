// Private heaps. Every block carries a header linking it into its heap's list, so that
// a block can be checked against the heap it is freed to and the heap destroyed whole.
#include <atomic>
#include <cstring>
#include <mutex>
#include <new>

#include "ostra/kaplatform.h"
#include "platform/internal/sysops.h"

using ostra::platform::sysOps;

namespace {

constexpr uint32_t kHeapMagic = 0x50414548;  // "HEAP"
// Larger requests fail at once instead of reaching the system allocator (2^39 bytes is
// beyond any machine, and the sanitizers abort on such requests rather than fail them).
constexpr size_t kMaxBlock = size_t(1) << 39;

struct Heap;

struct alignas(16) BlockHeader {
  Heap* heap;
  BlockHeader* prev;
  BlockHeader* next;
  size_t size;
};
static_assert(sizeof(BlockHeader) == 32);

struct Heap {
  uint32_t magic = kHeapMagic;
  bool serialize = true;
  size_t maximum = 0;
  std::mutex lock;
  BlockHeader* first = nullptr;
  uint64_t blocks = 0;
  uint64_t bytes = 0;
};

std::atomic<uint64_t> gBlocks{0}, gBytes{0}, gHeaps{0};

Heap* toHeap(KAHHEAP h) {
  auto* heap = reinterpret_cast<Heap*>(h);
  return heap && heap->magic == kHeapMagic ? heap : nullptr;
}

BlockHeader* headerOf(Heap* heap, const void* block) {
  if (!block || (reinterpret_cast<uintptr_t>(block) & 15)) return nullptr;
  auto* h = reinterpret_cast<BlockHeader*>(const_cast<void*>(block)) - 1;
  return h->heap == heap ? h : nullptr;
}

// Holds the heap's lock unless the heap or the call asks for none.
struct HeapLock {
  HeapLock(Heap* h, DWORD flags)
      : m(h->serialize && !(flags & HEAP_NO_SERIALIZE) ? &h->lock : nullptr) {
    if (m) m->lock();
  }
  ~HeapLock() {
    if (m) m->unlock();
  }
  std::mutex* m;
};

void account(Heap* heap, int64_t blocks, int64_t bytes) {
  heap->blocks += uint64_t(blocks);
  heap->bytes += uint64_t(bytes);
  gBlocks.fetch_add(uint64_t(blocks), std::memory_order_relaxed);
  gBytes.fetch_add(uint64_t(bytes), std::memory_order_relaxed);
}

bool fits(const Heap* heap, size_t oldBytes, size_t newBytes) {
  if (newBytes > kMaxBlock) return false;
  return heap->maximum == 0 || heap->bytes - oldBytes + newBytes <= heap->maximum;
}

Heap* processHeap() {
  static Heap* h = new Heap;
  return h;
}

}  // namespace

KAHHEAP KaHeapCreate(DWORD options, SIZE_T initialBytes, SIZE_T maximumBytes) noexcept {
  void* mem = sysOps().malloc(sizeof(Heap));
  if (!mem) return nullptr;
  auto* heap = new (mem) Heap;
  heap->serialize = !(options & HEAP_NO_SERIALIZE);
  heap->maximum = maximumBytes ? (maximumBytes < initialBytes ? initialBytes : maximumBytes) : 0;
  gHeaps.fetch_add(1, std::memory_order_relaxed);
  return reinterpret_cast<KAHHEAP>(heap);
}

BOOL KaHeapDestroy(KAHHEAP h) noexcept {
  Heap* heap = toHeap(h);
  if (!heap || heap == processHeap()) return FALSE;
  for (BlockHeader* b = heap->first; b;) {
    BlockHeader* next = b->next;
    b->heap = nullptr;
    sysOps().free(b);
    b = next;
  }
  gBlocks.fetch_sub(heap->blocks, std::memory_order_relaxed);
  gBytes.fetch_sub(heap->bytes, std::memory_order_relaxed);
  gHeaps.fetch_sub(1, std::memory_order_relaxed);
  heap->magic = 0;
  heap->~Heap();
  sysOps().free(heap);
  return TRUE;
}

KAHHEAP KaGetProcessHeap() noexcept { return reinterpret_cast<KAHHEAP>(processHeap()); }

void* KaHeapAlloc(KAHHEAP h, DWORD flags, SIZE_T bytes) noexcept {
  Heap* heap = toHeap(h);
  if (!heap) return nullptr;
  HeapLock lk(heap, flags);
  if (!fits(heap, 0, bytes)) return nullptr;
  auto* b = static_cast<BlockHeader*>(sysOps().malloc(sizeof(BlockHeader) + bytes));
  if (!b) return nullptr;
  *b = BlockHeader{heap, nullptr, heap->first, bytes};
  if (heap->first) heap->first->prev = b;
  heap->first = b;
  account(heap, 1, int64_t(bytes));
  if (flags & HEAP_ZERO_MEMORY) std::memset(b + 1, 0, bytes);
  return b + 1;
}

void* KaHeapReAlloc(KAHHEAP h, DWORD flags, void* block, SIZE_T bytes) noexcept {
  Heap* heap = toHeap(h);
  if (!heap) return nullptr;
  HeapLock lk(heap, flags);
  BlockHeader* b = headerOf(heap, block);
  if (!b || !fits(heap, b->size, bytes)) return nullptr;
  const size_t old = b->size;
  if ((flags & HEAP_REALLOC_IN_PLACE_ONLY) && bytes > old) return nullptr;
  auto* n = static_cast<BlockHeader*>(sysOps().realloc(b, sizeof(BlockHeader) + bytes));
  if (!n) return nullptr;
  if (n->prev)
    n->prev->next = n;
  else
    heap->first = n;
  if (n->next) n->next->prev = n;
  n->size = bytes;
  account(heap, 0, int64_t(bytes) - int64_t(old));
  if ((flags & HEAP_ZERO_MEMORY) && bytes > old)
    std::memset(reinterpret_cast<char*>(n + 1) + old, 0, bytes - old);
  return n + 1;
}

BOOL KaHeapFree(KAHHEAP h, DWORD flags, void* block) noexcept {
  Heap* heap = toHeap(h);
  if (!heap) return FALSE;
  if (!block) return TRUE;
  HeapLock lk(heap, flags);
  BlockHeader* b = headerOf(heap, block);
  if (!b) return FALSE;
  if (b->prev)
    b->prev->next = b->next;
  else
    heap->first = b->next;
  if (b->next) b->next->prev = b->prev;
  account(heap, -1, -int64_t(b->size));
  b->heap = nullptr;
  sysOps().free(b);
  return TRUE;
}

SIZE_T KaHeapSize(KAHHEAP h, DWORD flags, const void* block) noexcept {
  Heap* heap = toHeap(h);
  if (!heap) return SIZE_T(-1);
  HeapLock lk(heap, flags);
  BlockHeader* b = headerOf(heap, block);
  return b ? b->size : SIZE_T(-1);
}

void KaHeapGetStats(KAHHEAP h, UINT64* liveBlocks, UINT64* liveBytes, UINT64* liveHeaps) noexcept {
  if (liveHeaps) *liveHeaps = gHeaps.load(std::memory_order_relaxed);
  if (!h) {
    if (liveBlocks) *liveBlocks = gBlocks.load(std::memory_order_relaxed);
    if (liveBytes) *liveBytes = gBytes.load(std::memory_order_relaxed);
    return;
  }
  Heap* heap = toHeap(h);
  if (!heap) {
    if (liveBlocks) *liveBlocks = 0;
    if (liveBytes) *liveBytes = 0;
    return;
  }
  HeapLock lk(heap, 0);
  if (liveBlocks) *liveBlocks = heap->blocks;
  if (liveBytes) *liveBytes = heap->bytes;
}
