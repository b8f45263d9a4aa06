// The capture path (see engine/internal/recorder.h) and the clock-paced test inputs.
#include "engine/internal/recorder.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <numbers>
#include <vector>

#include "engine/internal/paced_thread.h"
#include "engine/internal/timeline.h"
#include "ostra/kaerror.h"

namespace ostra::engine {
namespace {

// A 997 Hz sine at -20 dBFS on every channel: a frequency that does not divide the usual
// rates, so every block differs.
class ToneInput final : public Input {
 public:
  explicit ToneInput(TimeSource* time) : time_(time) {}
  ~ToneInput() override { stop(); }
  HRESULT open(DWORD rate, WORD channels, DWORD blockFrames, Deliver deliver,
               void* context) override {
    rate_ = rate;
    channels_ = channels;
    block_ = blockFrames;
    deliver_ = deliver;
    context_ = context;
    buffer_.assign(size_t(blockFrames) * channels, 0.0f);
    return S_OK;
  }
  HRESULT start() override {
    pacer_.start(time_, rate_, block_, [this] {
      for (DWORD i = 0; i < block_; ++i) {
        const double t = double(n_++) / rate_;
        const float v = float(0.1 * std::sin(2.0 * std::numbers::pi * 997.0 * t));
        for (WORD c = 0; c < channels_; ++c) buffer_[size_t(i) * channels_ + c] = v;
      }
      deliver_(context_, buffer_.data(), block_);
      return true;
    });
    return S_OK;
  }
  HRESULT stop() override {
    pacer_.stop();
    return S_OK;
  }

 private:
  TimeSource* time_;
  DWORD rate_ = 48000, block_ = 1024;
  WORD channels_ = 2;
  UINT64 n_ = 0;
  Deliver deliver_ = nullptr;
  void* context_ = nullptr;
  std::vector<float> buffer_;
  PacedThread pacer_;
};

// A file played in at the clock's pace, read and converted through a one-clip timeline.
class FileInput final : public Input {
 public:
  FileInput(std::u16string path, TimeSource* time) : path_(std::move(path)), time_(time) {}
  ~FileInput() override { stop(); }
  HRESULT open(DWORD rate, WORD channels, DWORD blockFrames, Deliver deliver,
               void* context) override {
    timeline_.setFormat(rate, channels);
    HRESULT r = timeline_.prepare(blockFrames);
    KAENGINECLIP clip{sizeof clip, path_.c_str(), 0, 0, -1, 1.0f};
    if (SUCCEEDED(r)) r = timeline_.add(clip);
    if (FAILED(r)) return r;
    rate_ = rate;
    channels_ = channels;
    block_ = blockFrames;
    deliver_ = deliver;
    context_ = context;
    buffer_.assign(size_t(blockFrames) * channels, 0.0f);
    return S_OK;
  }
  HRESULT start() override {
    pacer_.start(time_, rate_, block_, [this] {
      const INT64 left = timeline_.extent() - at_;
      const DWORD n = DWORD(std::min<INT64>(block_, left));
      if (n) {
        timeline_.render(at_, n, buffer_.data());
        at_ += n;
        deliver_(context_, buffer_.data(), n);
      }
      if (at_ >= timeline_.extent()) {
        done_ = true;
        return false;
      }
      return true;
    });
    return S_OK;
  }
  HRESULT stop() override {
    pacer_.stop();
    return S_OK;
  }
  bool exhausted() const noexcept override { return done_.load(); }

 private:
  std::u16string path_;
  TimeSource* time_;
  Timeline timeline_;
  INT64 at_ = 0;
  DWORD rate_ = 48000, block_ = 1024;
  WORD channels_ = 2;
  Deliver deliver_ = nullptr;
  void* context_ = nullptr;
  std::vector<float> buffer_;
  std::atomic<bool> done_{false};
  PacedThread pacer_;
};

}  // namespace

std::unique_ptr<Input> makeInput(DWORD kind, const KAWCHAR* source, TimeSource* time, HRESULT& r) {
  r = S_OK;
  try {
    switch (kind) {
      case KAREC_INPUT_TONE:
        return std::make_unique<ToneInput>(time);
      case KAREC_INPUT_FILE:
        if (!source) break;
        return std::make_unique<FileInput>(source, time);
      case KAREC_INPUT_DEVICE: {
        std::string name;
        for (const KAWCHAR* s = source; s && *s; ++s) name.push_back(char(*s < 128 ? *s : '?'));
        return makePortAudioInput(name, r);
      }
      default:
        break;
    }
    r = E_INVALIDARG;
  } catch (...) {
    r = E_OUTOFMEMORY;
  }
  return nullptr;
}

HRESULT Recorder::configure(const KARECORDTARGET& target, DWORD sessionRate, WORD sessionChannels,
                            DWORD blockFrames, KARECORDPROGRESS progress, void* context,
                            TimeSource* time) noexcept {
  if (target.size < sizeof(KARECORDTARGET) || !target.path) return E_INVALIDARG;
  try {
    target_ = target;
    path_ = target.path;
    source_ = target.source ? target.source : u"";
    rate_ = target.sampleRate ? target.sampleRate : sessionRate;
    channels_ = target.channels ? target.channels : sessionChannels;
    block_ = blockFrames;
    headerFrames_ =
        DWORD(UINT64(rate_) * (target.headerEveryMs ? target.headerEveryMs : 1000) / 1000);
    if (!headerFrames_) headerFrames_ = 1;
    progress_ = progress;
    context_ = context;
    time_ = time;
    ring_.allocate(64, blockFrames, channels_);
    monitor_.allocate(8, blockFrames, channels_);
  } catch (...) {
    return E_OUTOFMEMORY;
  }
  HRESULT r;
  input_ = makeInput(target.input, source_.empty() ? nullptr : source_.c_str(), time_, r);
  if (!input_) return r;
  return input_->open(rate_, channels_, block_, &Recorder::deliver, this);
}

HRESULT Recorder::start(INT64 limit) noexcept {
  if (running_) return S_FALSE;
  HRESULT r =
      writer_.create(path_.c_str(), target_.container,
                     KASAMPLETYPE(target_.sampleType ? target_.sampleType : DWORD(KASAMPLE_PCM24)),
                     rate_, channels_, block_);
  if (FAILED(r)) return r;
  limit_ = limit;
  captured_ = 0;
  written_ = 0;
  quit_ = false;
  writeError_ = S_OK;
  writer_thread_ = std::thread([this] { writerMain(); });
  writing_ = true;
  monitoring_ = target_.monitor != 0;
  r = input_->start();
  if (FAILED(r)) {
    stop();
    return r;
  }
  running_ = true;
  return S_OK;
}

HRESULT Recorder::startMonitor() noexcept {
  if (running_) return S_FALSE;
  writing_ = false;
  monitoring_ = true;
  const HRESULT r = input_->start();
  if (FAILED(r)) monitoring_ = false;
  return r;
}

void Recorder::stopMonitor() noexcept {
  if (input_) input_->stop();
  monitoring_ = false;
}

INT64 Recorder::stop() noexcept {
  if (input_) input_->stop();
  writing_ = false;
  monitoring_ = false;
  if (writer_thread_.joinable()) {
    {
      std::lock_guard lk(lock_);
      quit_ = true;
    }
    wake_.notify_all();
    writer_thread_.join();
  }
  if (writer_.isOpen()) {
    writer_.close();
    if (progress_) progress_(writer_.frames(), context_);
  }
  running_ = false;
  return written_.load();
}

// Input thread (a device callback for device inputs): copies into the rings only.
void Recorder::deliver(void* self, const float* frames, DWORD count) {
  auto* r = static_cast<Recorder*>(self);
  const bool writing = r->writing_.load(std::memory_order_acquire);
  const bool monitoring = r->monitoring_.load(std::memory_order_acquire);
  while (count) {
    INT64 n = std::min(count, r->block_);
    if (writing && r->limit_ >= 0) n = std::min(n, r->limit_ - r->captured_.load());
    if (n <= 0) return;
    if (writing) {
      Block* b = r->ring_.beginPush();
      if (!b) {
        r->overruns_.fetch_add(1);
        return;
      }
      std::memcpy(b->data, frames, sizeof(float) * size_t(n) * r->channels_);
      b->frames = DWORD(n);
      r->ring_.endPush();
      r->captured_.fetch_add(n);
    }
    if (monitoring) {
      if (Block* m = r->monitor_.beginPush()) {
        std::memcpy(m->data, frames, sizeof(float) * size_t(n) * r->channels_);
        m->frames = DWORD(n);
        r->monitor_.endPush();
      }
    }
    frames += size_t(n) * r->channels_;
    count -= DWORD(n);
  }
}

void Recorder::writerMain() noexcept {
  const auto poll = std::chrono::milliseconds(std::max<INT64>(1, INT64(block_) * 500 / rate_));
  INT64 nextHeader = headerFrames_;  // rewrites fall on whole intervals of audio
  for (;;) {
    bool quit;
    {
      std::unique_lock lk(lock_);
      if (!quit_ && !ring_.front()) wake_.wait_for(lk, poll);
      quit = quit_;
    }
    while (Block* b = ring_.front()) {
      if (SUCCEEDED(writeError_)) writeError_ = writer_.append(b->data, b->frames);
      ring_.pop();
      written_ = writer_.frames();
      if (writer_.frames() >= nextHeader) {
        while (nextHeader <= writer_.frames()) nextHeader += headerFrames_;
        if (SUCCEEDED(writer_.updateHeader()) && progress_) progress_(writer_.frames(), context_);
      }
    }
    if (quit) return;
  }
}

void Recorder::mixMonitor(float* out, DWORD frames, WORD channels) noexcept {
  if (channels != channels_) return;
  while (frames) {
    Block* m = monitor_.front();
    if (!m) return;
    const DWORD n = std::min(frames, m->frames);
    for (size_t i = 0; i < size_t(n) * channels; ++i) out[i] += m->data[i];
    out += size_t(n) * channels;
    frames -= n;
    if (n == m->frames) {
      monitor_.pop();
    } else {
      std::memmove(m->data, m->data + size_t(n) * channels,
                   sizeof(float) * size_t(m->frames - n) * channels);
      m->frames -= n;
    }
  }
}

}  // namespace ostra::engine
