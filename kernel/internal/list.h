// Internals shared by the list functions (kernel/list*.cpp): the liveness test, the
// thread rule and slot addressing. Only the list implementation includes this.
#pragma once

#include <atomic>
#include <cstring>

#include "ostra/kalist.h"

namespace ostra::kernel::list {

inline bool alive(const tKALIST* l) { return l && std::memcmp(l->signature, "CURT", 4) == 0; }

// Options are read before the lock is taken and the heap-list flag is lifted for the
// length of a move, so every access to them is atomic.
inline uint32_t options(const tKALIST* l) {
  return std::atomic_ref<uint32_t>(const_cast<uint32_t&>(l->options))
      .load(std::memory_order_relaxed);
}
inline void setOptions(tKALIST* l, uint32_t v) {
  std::atomic_ref<uint32_t>(l->options).store(v, std::memory_order_relaxed);
}

// The thread rule at the start of an operation: thread-safe lists are locked for the
// scope; other lists refuse threads other than the owner unless any thread may use them.
class Access {
 public:
  explicit Access(tKALIST* l) : l_(l) {
    if (!alive(l)) {
      hr_ = E_INVALIDARG;
      return;
    }
    const uint32_t o = options(l);
    if (o & KALIST_OPT_THREADSAFE) {
      KaEnterCriticalSection(&l->lock);
      locked_ = true;
    } else if (!(o & KALIST_OPT_ANYTHREAD) &&
               std::atomic_ref<uint32_t>(l->ownerThread).load(std::memory_order_relaxed) !=
                   KaGetCurrentThreadId()) {
      hr_ = E_FAIL;
    }
  }
  ~Access() {
    if (locked_) KaLeaveCriticalSection(&l_->lock);
  }
  Access(const Access&) = delete;
  Access& operator=(const Access&) = delete;
  bool ok() const { return hr_ == S_OK; }
  HRESULT hr() const { return hr_; }
  // Forgets the lock without leaving it (the record is about to go away).
  void release() { locked_ = false; }

 private:
  tKALIST* l_;
  HRESULT hr_ = S_OK;
  bool locked_ = false;
};

inline char* slot(const tKALIST* l, int i) {
  return static_cast<char*>(l->items) + size_t(i) * l->itemSize;
}
inline bool byValue(const tKALIST* l) { return options(l) & KALIST_OPT_BYVALUE; }
inline bool heapItems(const tKALIST* l) { return options(l) & KALIST_OPT_HEAPITEMS; }
// What comparators and predicates get: the slot address or the stored pointer.
inline void* itemArg(const tKALIST* l, int i) {
  if (byValue(l)) return slot(l, i);
  void* p;
  std::memcpy(&p, slot(l, i), sizeof p);
  return p;
}

// The operations behind the exported functions, for callers that already hold Access.
HRESULT grow(tKALIST* l, int slots);
HRESULT shrink(tKALIST* l, int slots);
HRESULT insert(tKALIST* l, int index, const void* source, int count);
HRESULT remove(tKALIST* l, int first, int count, BOOL shrink);

// Owned blocks: the private heap when the list has one, else the process heap.
void* allocBlock(tKALIST* l, size_t bytes);
void* reallocBlock(tKALIST* l, void* block, size_t bytes);
void freeBlock(tKALIST* l, void* block);
size_t blockSize(const tKALIST* l, const void* block);

// Resolves a search range: false when it is empty or starts at or beyond count.
inline bool searchRange(const tKALIST* l, int& first, int& n) {
  if (first < 0) first = 0;
  if (first >= l->count) return false;
  const int rest = l->count - first;
  if (n < 0 || n > rest) n = rest;
  return n > 0;
}

}  // namespace ostra::kernel::list
