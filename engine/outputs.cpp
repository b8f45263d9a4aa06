// The null and file outputs, the paced thread behind the null output and the test inputs,
// and the output factory (see engine/internal/outputs.h).
#include "engine/internal/outputs.h"

#include <chrono>
#include <vector>

#include "engine/internal/paced_thread.h"
#include "engine/internal/wave_writer.h"
#include "ostra/kaerror.h"
#include "platform/internal/text.h"

namespace ostra::engine {

// ---------------------------------------------------------------- paced thread

void PacedThread::start(TimeSource* time, DWORD rate, DWORD blockFrames, Tick tick) {
  stop();
  time_ = time;
  rate_ = rate;
  block_ = blockFrames;
  tick_ = std::move(tick);
  quit_ = false;
  thread_ = std::thread([this] { main(); });
}

void PacedThread::stop() {
  if (!thread_.joinable()) return;
  {
    std::lock_guard lk(lock_);
    quit_ = true;
  }
  wake_.notify_all();
  thread_.join();
}

void PacedThread::main() {
  const DWORD startMs = time_->millis();
  UINT64 blocks = 0;
  for (;;) {
    {
      std::unique_lock lk(lock_);
      for (;;) {
        if (quit_) return;
        const UINT64 dueMs = UINT64(blocks) * block_ * 1000 / rate_;
        const UINT64 nowMs = DWORD(time_->millis() - startMs);
        if (nowMs >= dueMs) break;
        wake_.wait_for(lk, std::chrono::milliseconds(dueMs - nowMs));
      }
    }
    if (!tick_()) return;
    ++blocks;
  }
}

namespace {

// ---------------------------------------------------------------- null output

class NullOutput final : public Output {
 public:
  NullOutput(TimeSource* time, bool manual) : time_(time), manual_(manual) {}
  ~NullOutput() override { close(); }
  HRESULT open(RenderSource* source, DWORD rate, WORD channels, DWORD blockFrames) override {
    source_ = source;
    rate_ = rate;
    block_ = blockFrames;
    buffer_.assign(size_t(blockFrames) * channels, 0.0f);
    return S_OK;
  }
  HRESULT start() override {
    if (manual_ || pacer_.running()) return S_OK;
    pacer_.start(time_, rate_, block_, [this] {
      source_->renderRealtime(buffer_.data(), block_);
      return true;
    });
    return S_OK;
  }
  HRESULT stop() override {
    pacer_.stop();
    return S_OK;
  }
  HRESULT close() override { return stop(); }
  bool manual() const noexcept override { return manual_; }
  DWORD bufferFrames() const noexcept override { return block_; }

 private:
  TimeSource* time_;
  bool manual_;
  RenderSource* source_ = nullptr;
  DWORD rate_ = 48000, block_ = 1024;
  std::vector<float> buffer_;
  PacedThread pacer_;
};

// ---------------------------------------------------------------- file output

// Renders as fast as the disk thread delivers; never drops or pads a block, so the file
// holds exactly the frames the range would play.
class FileOutput final : public Output {
 public:
  FileOutput(std::u16string path, bool w64) : path_(std::move(path)), w64_(w64) {}
  ~FileOutput() override { close(); }
  HRESULT open(RenderSource* source, DWORD rate, WORD channels, DWORD blockFrames) override {
    source_ = source;
    block_ = blockFrames;
    buffer_.assign(size_t(blockFrames) * channels, 0.0f);
    const bool w64 = w64_ || path_.ends_with(u".w64") || path_.ends_with(u".W64");
    return writer_.create(path_.c_str(), w64 ? KACONTAINER_WAVE64 : KACONTAINER_WAVE,
                          KASAMPLE_FLOAT32, rate, channels, blockFrames);
  }
  HRESULT start() override {
    stop();
    quit_ = false;
    thread_ = std::thread([this] {
      while (!quit_.load()) {
        const DWORD n = source_->renderWait(buffer_.data(), block_);
        if (n) writer_.append(buffer_.data(), n);
        if (n < block_) break;  // the end of the range, or the run stopped
      }
    });
    return S_OK;
  }
  HRESULT stop() override {
    quit_ = true;
    if (thread_.joinable()) thread_.join();
    return S_OK;
  }
  HRESULT close() override {
    stop();
    return writer_.close();
  }
  bool realtime() const noexcept override { return false; }
  DWORD bufferFrames() const noexcept override { return block_; }

 private:
  std::u16string path_;
  bool w64_;
  RenderSource* source_ = nullptr;
  DWORD block_ = 1024;
  std::vector<float> buffer_;
  WaveWriter writer_;
  std::thread thread_;
  std::atomic<bool> quit_{false};
};

}  // namespace

std::unique_ptr<Output> makeOutput(const std::string& name, TimeSource* time, HRESULT& r) {
  r = S_OK;
  try {
    if (name == "null") return std::make_unique<NullOutput>(time, false);
    if (name == "null:manual") return std::make_unique<NullOutput>(time, true);
    if (name.starts_with("file:") && name.size() > 5)
      return std::make_unique<FileOutput>(ostra::text::utf8ToUtf16(name.substr(5)), false);
    if (name.starts_with("file64:") && name.size() > 7)
      return std::make_unique<FileOutput>(ostra::text::utf8ToUtf16(name.substr(7)), true);
    if (name == "device") return makePortAudioOutput(std::string(), r);
    if (name.starts_with("device:")) return makePortAudioOutput(name.substr(7), r);
    r = E_INVALIDARG;
  } catch (...) {
    r = E_OUTOFMEMORY;
  }
  return nullptr;
}

}  // namespace ostra::engine
