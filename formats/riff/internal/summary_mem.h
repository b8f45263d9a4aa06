// Movable, zero-initialised global-memory blocks held locked, as the summary and display
// lists keep their arrays, texts and data (summary.cpp, displist.cpp).
#pragma once

#include "ostra/kaplatform.h"

namespace ostra::riff::listmem {

// A locked zeroed block of `bytes` (at least 1), or null.
inline void* allocLocked(SIZE_T bytes) noexcept {
  KAHGLOBAL h = KaGlobalAlloc(GHND, bytes ? bytes : 1);
  if (!h) return nullptr;
  void* p = KaGlobalLock(h);
  if (!p) KaGlobalFree(h);
  return p;
}

template <typename T>
T* allocArray(SIZE_T count) noexcept {
  if (count > SIZE_T(-1) / sizeof(T)) return nullptr;
  return static_cast<T*>(allocLocked(count * sizeof(T)));
}

inline void freeLocked(void* p) noexcept { KaGlobalFreePtr(p); }

}  // namespace ostra::riff::listmem
