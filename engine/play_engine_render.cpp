// The play engine's output side: what the device callback, the null output's pacing
// thread and the file writer call. The real-time path touches only the ring and atomics.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>

#include "engine/internal/play_engine.h"
#include "engine/internal/recorder.h"

namespace ostra::engine {

DWORD PlayEngine::consume(float* out, DWORD frames) noexcept {
  const UINT64 g = gen_.load(std::memory_order_acquire);
  if (g != seenGen_) {
    cur_ = nullptr;  // a partly played block of an older generation is not finished
    seenGen_ = g;
  }
  const WORD ch = timeline_.channels();
  DWORD filled = 0;
  while (filled < frames) {
    if (!cur_) {
      Block* b = ring_.front();
      if (!b) break;
      if (b->generation < g) {
        ring_.pop();
        continue;
      }
      if (b->endOfRange) {
        position_.store(b->position, std::memory_order_relaxed);
        finishedGen_.store(b->generation, std::memory_order_release);
        break;  // left in the ring: it marks the end until the next generation
      }
      cur_ = b;
      curOff_ = 0;
    }
    const DWORD take = std::min(frames - filled, cur_->frames - curOff_);
    std::memcpy(out + size_t(filled) * ch, cur_->data + size_t(curOff_) * ch,
                sizeof(float) * take * ch);
    curOff_ += take;
    filled += take;
    position_.store(cur_->position + std::llround(curOff_ * cur_->step), std::memory_order_relaxed);
    if (curOff_ == cur_->frames) {
      ring_.pop();
      cur_ = nullptr;
    }
  }
  framesOut_.fetch_add(filled, std::memory_order_relaxed);
  return filled;
}

void PlayEngine::notePeaks(const float* out, DWORD frames) noexcept {
  const WORD ch = std::min<WORD>(timeline_.channels(), 8);
  float peak[8] = {};
  for (DWORD i = 0; i < frames; ++i)
    for (WORD c = 0; c < ch; ++c) peak[c] = std::max(peak[c], std::fabs(out[size_t(i) * ch + c]));
  for (WORD c = 0; c < ch; ++c) {
    float seen = peaks_[c].load(std::memory_order_relaxed);
    while (peak[c] > seen && !peaks_[c].compare_exchange_weak(seen, peak[c])) {
    }
  }
}

void PlayEngine::renderRealtime(float* out, DWORD frames) noexcept {
  const WORD ch = timeline_.channels();
  DWORD n = 0;
  if (running_.load(std::memory_order_acquire) && !recording_.load(std::memory_order_relaxed) &&
      !monitorRun_.load(std::memory_order_relaxed)) {
    n = consume(out, frames);
    if (n < frames && finishedGen_.load(std::memory_order_acquire) != seenGen_)
      underruns_.fetch_add(1, std::memory_order_relaxed);
  }
  std::memset(out + size_t(n) * ch, 0, sizeof(float) * (frames - n) * ch);
  if ((monitor_.load(std::memory_order_relaxed) || monitorRun_.load(std::memory_order_relaxed)) &&
      recorder_)
    recorder_->mixMonitor(out, frames, ch);
  notePeaks(out, frames);
}

DWORD PlayEngine::renderWait(float* out, DWORD frames) noexcept {
  const WORD ch = timeline_.channels();
  DWORD filled = 0;
  while (filled < frames) {
    filled += consume(out + size_t(filled) * ch, frames - filled);
    if (filled == frames || finishedGen_.load() == seenGen_) break;
    std::unique_lock lk(ctl_);
    cv_.notify_all();  // room in the ring for the disk thread
    if (!req_.running || quit_) break;
    cv_.wait_for(lk, std::chrono::milliseconds(100),
                 [&] { return ring_.count() > 0 || !req_.running || quit_; });
  }
  cv_.notify_all();
  notePeaks(out, filled);
  return filled;
}

}  // namespace ostra::engine
