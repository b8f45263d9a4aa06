// A thread that calls a function once per block, paced by a TimeSource: the null output
// and the tone and file inputs run on it, standing in for a device's clock.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

#include "engine/internal/transport_impl.h"

namespace ostra::engine {

class PacedThread {
 public:
  // `tick` returns false to end the run early (a file input that ran out).
  using Tick = std::function<bool()>;
  PacedThread() = default;
  ~PacedThread() { stop(); }
  PacedThread(const PacedThread&) = delete;
  PacedThread& operator=(const PacedThread&) = delete;

  // One call of `tick` per `blockFrames` frames at `rate`.
  void start(TimeSource* time, DWORD rate, DWORD blockFrames, Tick tick);
  // Waits for the thread; `tick` is not running once it returns.
  void stop();
  bool running() const noexcept { return thread_.joinable(); }

 private:
  void main();
  std::mutex lock_;
  std::condition_variable wake_;
  bool quit_ = false;
  std::thread thread_;
  TimeSource* time_ = nullptr;
  DWORD rate_ = 48000, block_ = 1024;
  Tick tick_;
};

}  // namespace ostra::engine
