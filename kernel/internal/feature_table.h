// One way to build a table of processor variants, shared with audio/ and image/: the table
// is built from KaGetCPUSupport(0) on first use and again whenever the host changes the
// allowed or forced features (KaGetCPUSupportGeneration moves). A built table is never
// changed: a rebuild publishes a new one atomically, and retired tables stay allocated and
// reachable, because a caller on another thread may still be reading one (rebuilds happen
// only when the host changes features, so the few retired tables cost nothing).
// Shared with: audio/, image/
#pragma once

#include <atomic>
#include <mutex>
#include <new>

#include "ostra/kacpu.h"

namespace ostra::kernel {

template <class Table>
class FeatureTable {
 public:
  using Builder = Table (*)(DWORD features) noexcept;

  explicit constexpr FeatureTable(Builder build) noexcept : build_(build) {}
  FeatureTable(const FeatureTable&) = delete;
  FeatureTable& operator=(const FeatureTable&) = delete;

  // The table for the current features; the reference stays valid for the process.
  const Table& get() noexcept {
    const DWORD generation = KaGetCPUSupportGeneration();
    const Node* n = current_.load(std::memory_order_acquire);
    if (n && n->generation == generation) return n->table;
    return rebuild(generation);
  }

 private:
  struct Node {
    Table table;
    DWORD generation;
    const Node* previous;
  };

  const Table& rebuild(DWORD generation) noexcept {
    std::lock_guard<std::mutex> lock(lock_);
    const Node* n = current_.load(std::memory_order_acquire);
    if (n && n->generation == generation) return n->table;
    // The first table lives in this object, so that a table always exists; a later one
    // that cannot be allocated leaves the current one in service.
    Node* fresh = n ? new (std::nothrow) Node{} : &first_;
    if (!fresh) return n->table;
    fresh->table = build_(KaGetCPUSupport(0));
    fresh->generation = generation;
    fresh->previous = n;
    current_.store(fresh, std::memory_order_release);
    return fresh->table;
  }

  Builder build_;
  std::atomic<const Node*> current_{nullptr};
  std::mutex lock_;
  Node first_{};
};

}  // namespace ostra::kernel
