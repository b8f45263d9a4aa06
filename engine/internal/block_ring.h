// The bounded single-producer single-consumer ring between the play engine's disk thread
// (producer) and the output callback (consumer). Blocks are allocated once; pushing and
// popping only move two atomic indices, so the callback never waits, locks or allocates.
#pragma once

#include <atomic>
#include <cstddef>
#include <vector>

#include "ostra/kadefs.h"

namespace ostra::engine {

struct Block {
  UINT64 generation = 0;  // the seek epoch the block belongs to
  INT64 position = 0;     // timeline frame of the first frame (reverse: the frame after it)
  double step = 1.0;      // timeline frames per output frame, negative in reverse
  DWORD frames = 0;
  bool endOfRange = false;  // no frames: the range is exhausted
  float* data = nullptr;
};

class BlockRing {
 public:
  // Capacity in blocks (at least 2) of blockFrames frames of `channels` floats.
  void allocate(size_t blocks, DWORD blockFrames, WORD channels) {
    storage_.assign(blocks * blockFrames * channels, 0.0f);
    blocks_.assign(blocks, Block{});
    for (size_t i = 0; i < blocks; ++i)
      blocks_[i].data = storage_.data() + i * blockFrames * channels;
    head_.store(0);
    tail_.store(0);
  }
  size_t capacity() const noexcept { return blocks_.size(); }
  size_t count() const noexcept {
    return size_t(head_.load(std::memory_order_acquire) - tail_.load(std::memory_order_acquire));
  }

  // Producer: the slot to fill, or null when the ring is full.
  Block* beginPush() noexcept {
    const UINT64 h = head_.load(std::memory_order_relaxed);
    if (h - tail_.load(std::memory_order_acquire) >= blocks_.size()) return nullptr;
    return &blocks_[h % blocks_.size()];
  }
  void endPush() noexcept { head_.fetch_add(1, std::memory_order_release); }

  // Consumer: the oldest block, or null when empty.
  Block* front() noexcept {
    const UINT64 t = tail_.load(std::memory_order_relaxed);
    if (t == head_.load(std::memory_order_acquire)) return nullptr;
    return &blocks_[t % blocks_.size()];
  }
  void pop() noexcept { tail_.fetch_add(1, std::memory_order_release); }

 private:
  std::vector<float> storage_;
  std::vector<Block> blocks_;
  alignas(64) std::atomic<UINT64> head_{0};
  alignas(64) std::atomic<UINT64> tail_{0};
};

}  // namespace ostra::engine
