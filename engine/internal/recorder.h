// The capture path of a record run: an input (device, tone or file) delivers float
// frames on its own thread into a lock-free ring; a writer thread converts them and
// appends them to a wave or Wave64 file, rewriting the header sizes every interval so a
// crash loses at most the last one. While monitoring, the output callback also mixes the
// input in. Owned by the play engine.
#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "engine/internal/block_ring.h"
#include "engine/internal/outputs.h"
#include "engine/internal/wave_writer.h"

namespace ostra::engine {

class Recorder {
 public:
  Recorder() = default;
  ~Recorder() { finish(); }
  HRESULT configure(const KARECORDTARGET& target, DWORD sessionRate, WORD sessionChannels,
                    DWORD blockFrames, KARECORDPROGRESS progress, void* context,
                    TimeSource* time) noexcept;
  // Creates the file and starts the input; at most `limit` frames are kept (-1: no limit).
  HRESULT start(INT64 limit = -1) noexcept;
  // Stops the input, writes what is queued, completes the header; returns frames written.
  INT64 stop() noexcept;
  // Record monitoring without recording: the input runs and reaches only the output.
  HRESULT startMonitor() noexcept;
  void stopMonitor() noexcept;
  void finish() noexcept { stop(); }
  INT64 framesCaptured() const noexcept { return captured_.load(); }
  INT64 framesWritten() const noexcept { return written_.load(); }
  bool inputEnded() const noexcept { return input_ && input_->exhausted(); }
  UINT64 overruns() const noexcept { return overruns_.load(); }
  // Output callback: adds the monitored input to out. Real-time safe.
  void mixMonitor(float* out, DWORD frames, WORD channels) noexcept;

 private:
  static void deliver(void* self, const float* frames, DWORD count);
  void writerMain() noexcept;
  KARECORDTARGET target_{};
  std::u16string path_, source_;
  DWORD rate_ = 0, block_ = 1024, headerFrames_ = 48000;
  WORD channels_ = 0;
  KARECORDPROGRESS progress_ = nullptr;
  void* context_ = nullptr;
  TimeSource* time_ = nullptr;
  std::unique_ptr<Input> input_;
  BlockRing ring_, monitor_;
  WaveWriter writer_;
  std::thread writer_thread_;
  std::mutex lock_;
  std::condition_variable wake_;
  bool quit_ = false, running_ = false;
  std::atomic<bool> writing_{false}, monitoring_{false};
  INT64 limit_ = -1;
  std::atomic<INT64> captured_{0}, written_{0};
  std::atomic<UINT64> overruns_{0};
  HRESULT writeError_ = S_OK;
};

}  // namespace ostra::engine
