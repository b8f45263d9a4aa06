// The play engine's control side: the interfaces, the host's requests and the disk
// thread (see engine/internal/play_engine.h). The output side is in play_engine_render.cpp.
#include "engine/internal/play_engine.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <new>

#include "engine/internal/recorder.h"
#include "ostra/kaerror.h"

namespace ostra::engine {
namespace {

constexpr auto kPrimeWait = std::chrono::milliseconds(2000);

}  // namespace

PlayEngine::PlayEngine(const KAENGINECONFIG& config) noexcept : config_(config) {
  if (!config_.blockFrames) config_.blockFrames = 1024;
  if (config_.aheadBlocks < 2) config_.aheadBlocks = config_.aheadBlocks ? 2 : 16;
}

PlayEngine::~PlayEngine() {
  CloseOutput();
  {
    std::lock_guard lk(ctl_);
    quit_ = true;
  }
  cv_.notify_all();
  if (disk_.joinable()) disk_.join();
}

HRESULT PlayEngine::QueryInterface(REFIID riid, void** ppv) {
  if (!ppv) return E_POINTER;
  *ppv = nullptr;
  if (riid == IID_IUnknown || riid == IID_IKAPlayEngine)
    *ppv = static_cast<IKAPlayEngine*>(this);
  else if (riid == IID_IKAEngineSession)
    *ppv = static_cast<IKAEngineSession*>(this);
  else
    return E_NOINTERFACE;
  AddRef();
  return S_OK;
}

ULONG PlayEngine::AddRef() { return ++refs_; }

ULONG PlayEngine::Release() {
  const ULONG r = --refs_;
  if (r == 0) delete this;
  return r;
}

INT64 PlayEngine::framesToTicks(INT64 frames) const noexcept {
  const DWORD rate = timeline_.sampleRate() ? timeline_.sampleRate() : 48000;
  return std::llround(double(frames) * 1e7 / rate);
}

INT64 PlayEngine::ticksToFrames(INT64 ticks) const noexcept {
  const DWORD rate = timeline_.sampleRate() ? timeline_.sampleRate() : 48000;
  return std::llround(double(ticks) * rate / 1e7);
}

// ---------------------------------------------------------------- session

HRESULT PlayEngine::fixFormat(DWORD rate, WORD channels) noexcept {
  if (timeline_.sampleRate()) return S_OK;
  const DWORD r = config_.sampleRate ? config_.sampleRate : rate ? rate : 48000;
  const WORD c = config_.channels ? config_.channels : channels ? channels : 2;
  if (c > 8 || r < 1000 || r > 768000) return KAERR_UNSUPPORTED_FORMAT;
  timeline_.setFormat(r, c);
  try {
    ring_.allocate(config_.aheadBlocks, config_.blockFrames, c);
    inBuf_.assign(size_t(config_.blockFrames) * c, 0.0f);
    scratch_.assign(size_t(config_.blockFrames) * c, 0.0f);
  } catch (...) {
    return E_OUTOFMEMORY;
  }
  return timeline_.prepare(config_.blockFrames);
}

HRESULT PlayEngine::AddClip(const KAENGINECLIP* clip) {
  if (!clip) return E_POINTER;
  if (clip->size < sizeof(KAENGINECLIP) || !clip->path) return E_INVALIDARG;
  std::lock_guard ol(outputLock_);
  if (running_.load()) return KAERR_BUSY;
  if (!timeline_.sampleRate()) {
    Clip probe;
    const HRESULT r = probeAudioFile(clip->path, probe);
    if (FAILED(r)) return r;
    const HRESULT f = fixFormat(probe.sampleRate, probe.channels);
    if (FAILED(f)) return f;
  }
  std::unique_lock lk(ctl_);
  cv_.wait(lk, [&] { return !rendering_; });  // a block of the stopped run may be under way
  return timeline_.add(*clip);
}

HRESULT PlayEngine::ClearClips() {
  std::lock_guard ol(outputLock_);
  if (running_.load()) return KAERR_BUSY;
  std::unique_lock lk(ctl_);
  cv_.wait(lk, [&] { return !rendering_; });
  timeline_.clear();
  return S_OK;
}

HRESULT PlayEngine::SetLoop(INT64 start, INT64 length, UINT repeats) {
  if (length < 0 || (length > 0 && start < 0)) return E_INVALIDARG;
  std::unique_lock lk(ctl_);
  req_.loopStart = start;
  req_.loopLength = length;
  req_.loopRepeats = length ? repeats : 0;
  if (req_.running) restartLocked(lk, position_.load());
  return S_OK;
}

HRESULT PlayEngine::SetOutput(const char* name) {
  if (!name) return E_POINTER;
  std::lock_guard ol(outputLock_);
  if (running_.load()) return KAERR_BUSY;
  HRESULT r = fixFormat(0, 0);
  if (FAILED(r)) return r;
  if (output_) {
    output_->close();
    output_.reset();
  }
  std::unique_ptr<Output> out = makeOutput(name, defaultTimeSource(), r);
  if (!out) return FAILED(r) ? r : E_INVALIDARG;
  r = out->open(this, timeline_.sampleRate(), timeline_.channels(), config_.blockFrames);
  if (FAILED(r)) return r;
  output_ = std::move(out);
  return S_OK;
}

HRESULT PlayEngine::CloseOutput() {
  std::lock_guard ol(outputLock_);
  if (output_) {
    output_->stop();
    running_ = false;
    {
      std::lock_guard lk(ctl_);
      req_.running = false;
    }
    cv_.notify_all();
    output_->close();
    output_.reset();
  }
  if (recorder_) recorder_->finish();
  return S_OK;
}

HRESULT PlayEngine::GetInfo(KAENGINEINFO* info) {
  if (!info) return E_POINTER;
  if (info->size < sizeof(KAENGINEINFO)) return E_INVALIDARG;
  *info = KAENGINEINFO{};
  info->size = sizeof(KAENGINEINFO);
  info->sampleRate = timeline_.sampleRate();
  info->channels = timeline_.channels();
  info->blockFrames = config_.blockFrames;
  {
    std::lock_guard ol(outputLock_);
    info->deviceBufferFrames = output_ ? output_->bufferFrames() : config_.blockFrames;
    info->outputLatencyFrames = output_ ? output_->latencyFrames() : 0;
    if (recorder_) info->recordedFrames = recorder_->framesWritten();
  }
  info->position = position_.load();
  info->framesOut = framesOut_.load();
  info->underruns = underruns_.load();
  info->blocksRendered = blocksRendered_.load();
  info->rate = rate_.load();
  info->finished = finishedGen_.load() == gen_.load() ? 1 : 0;
  info->loopPasses = loopPasses_.load();
  for (int c = 0; c < 8; ++c) info->peak[c] = peaks_[c].exchange(0.0f);
  return S_OK;
}

HRESULT PlayEngine::Pump(float* out, DWORD frames) {
  if (!output_ || !output_->manual()) return E_UNEXPECTED;
  const WORD ch = timeline_.channels();
  while (frames) {
    const DWORD n = std::min(frames, config_.blockFrames);
    float* dst = out ? out : scratch_.data();
    renderRealtime(dst, n);
    if (out) out += size_t(n) * ch;
    frames -= n;
  }
  return S_OK;
}

HRESULT PlayEngine::WaitBuffered(DWORD frames, DWORD timeoutMs) {
  std::unique_lock lk(ctl_);
  const bool ok = cv_.wait_for(lk, std::chrono::milliseconds(timeoutMs), [&] {
    const INT64 taken = framesOut_.load() - outAtRestart_;
    return quit_ || eosGen_ == gen_.load() || producedSinceRestart_ - taken >= INT64(frames);
  });
  return ok ? S_OK : S_FALSE;
}

// ---------------------------------------------------------------- runs

void PlayEngine::ensureStarted() noexcept {
  if (started_) return;
  started_ = true;
  disk_ = std::thread([this] { diskMain(); });
}

void PlayEngine::restartLocked(std::unique_lock<std::mutex>& lk, INT64 position,
                               bool consumerIdle) noexcept {
  req_.position = position;
  position_.store(position);
  if (consumerIdle) {
    // The output is stopped or driven by the caller: nobody else pops, so drop what the
    // last generation left in the ring here.
    cur_ = nullptr;
    while (ring_.front()) ring_.pop();
  }
  const UINT64 g = gen_.fetch_add(1) + 1;
  producedSinceRestart_ = 0;
  outAtRestart_ = framesOut_.load();
  cv_.notify_all();
  if (!req_.running) return;
  // A start fills the whole read-ahead before the output runs (pre-roll), so that a
  // device that pulls faster than real time at first does not catch the disk thread; a
  // seek during play waits for the first block only.
  cv_.wait_for(lk, kPrimeWait, [&] {
    return quit_ || eosGen_ >= g || (primedGen_ >= g && (!consumerIdle || !ring_.beginPush()));
  });
}

HRESULT PlayEngine::Start(DWORD flags, INT64 position, INT64 end) {
  std::lock_guard ol(outputLock_);
  HRESULT r = fixFormat(0, 0);
  if (FAILED(r)) return r;
  if (running_.load()) return S_FALSE;
  if (!output_) {
    auto out = makeOutput("null", defaultTimeSource(), r);
    if (!out) return r;
    r = out->open(this, timeline_.sampleRate(), timeline_.channels(), config_.blockFrames);
    if (FAILED(r)) return r;
    output_ = std::move(out);
  }
  ensureStarted();
  if ((flags & KARUN_MONITOR) && recorder_) {
    // Record monitoring: the input goes to the output; the session does not play.
    {
      std::unique_lock lk(ctl_);
      req_.running = false;
      restartLocked(lk, position_.load(), true);  // nothing of an earlier run is left
    }
    r = recorder_->startMonitor();
    if (FAILED(r)) return r;
    monitorRun_ = true;
    running_ = true;
    r = output_->start();
    if (FAILED(r)) {
      recorder_->stopMonitor();
      monitorRun_ = false;
      running_ = false;
    }
    return r;
  }
  const bool record = armed_ && recorder_;
  {
    std::unique_lock lk(ctl_);
    req_.end = end < 0 || end >= KATRANSPORT_OPEN_END ? timeline_.extent() : ticksToFrames(end);
    req_.running = !record;  // a record run plays nothing back
    const INT64 from = position < 0 ? position_.load() : ticksToFrames(position);
    recordStart_ = from;
    restartLocked(lk, from, true);
  }
  if (record) {
    INT64 limit = -1;
    {
      std::lock_guard lk(ctl_);
      if (end >= 0 && end < KATRANSPORT_OPEN_END)
        limit = std::max<INT64>(0, req_.end - recordStart_);
    }
    r = recorder_->start(limit);
    if (FAILED(r)) return r;
    recording_ = true;
  }
  running_ = true;
  r = record && !monitor_ ? S_OK : output_->start();
  if (FAILED(r)) {
    running_ = false;
    std::lock_guard lk(ctl_);
    req_.running = false;
  }
  return r;
}

HRESULT PlayEngine::Stop(DWORD, DWORD) {
  std::lock_guard ol(outputLock_);
  if (output_) output_->stop();
  running_ = false;
  {
    std::lock_guard lk(ctl_);
    req_.running = false;
  }
  cv_.notify_all();
  if (monitorRun_.exchange(false)) recorder_->stopMonitor();
  if (recording_) {
    recording_ = false;
    const INT64 frames = recorder_->stop();
    position_.store(recordStart_ + frames);
  }
  return S_OK;
}

HRESULT PlayEngine::Seek(INT64 position, INT64 end) {
  std::unique_lock lk(ctl_);
  if (end >= 0) req_.end = end >= KATRANSPORT_OPEN_END ? timeline_.extent() : ticksToFrames(end);
  if (recording_) return S_FALSE;
  const bool idle = !running_.load() || (output_ && output_->manual());
  restartLocked(lk, position >= 0 ? ticksToFrames(position) : position_.load(), idle);
  return S_OK;
}

HRESULT PlayEngine::SetEnd(INT64 end) { return Seek(-1, end); }

HRESULT PlayEngine::SetRate(double rate) {
  if (!(std::fabs(rate) <= Varispeed::kMaxRatio) || std::fabs(rate) < 1.0 / Varispeed::kMaxRatio)
    return E_INVALIDARG;
  rate_ = rate;
  std::unique_lock lk(ctl_);
  req_.rate = rate;
  if (req_.running) {
    const bool idle = output_ && output_->manual();
    restartLocked(lk, position_.load(), idle);
  }
  return S_OK;
}

HRESULT PlayEngine::QueryState() {
  // S_OK tells the transport that delivery stopped under it: a lost device.
  // The worker asks every round; while a host thread changes the output it is healthy.
  std::unique_lock ol(outputLock_, std::try_to_lock);
  if (!ol.owns_lock()) return S_FALSE;
  if (recording_.load() && recorder_ && recorder_->inputEnded()) return S_OK;
  return running_.load() && output_ && output_->lost() ? S_OK : S_FALSE;
}

HRESULT PlayEngine::GetPosition(INT64* ticks, double* rate, const void*) {
  if (!ticks) return E_POINTER;
  INT64 frames = position_.load();
  if (recording_.load() && recorder_) frames = recordStart_ + recorder_->framesCaptured();
  *ticks = framesToTicks(frames);
  if (rate) *rate = rate_.load();
  return S_OK;
}

HRESULT PlayEngine::GetBufferDuration(INT64* ticks) {
  if (!ticks) return E_POINTER;
  *ticks = framesToTicks(config_.blockFrames);
  return S_OK;
}

// Previews play through the main path in this engine; the transport times them.
HRESULT PlayEngine::StartPreview(DWORD, const KATRANSPORTPREVIEW* preview) {
  return preview ? S_OK : E_POINTER;
}
HRESULT PlayEngine::StopPreview(DWORD) { return S_OK; }
HRESULT PlayEngine::SeekPreview(DWORD, const KATRANSPORTPREVIEW* preview) {
  return preview ? S_OK : E_POINTER;
}
HRESULT PlayEngine::GetPreviewPosition(DWORD, INT64*) { return E_NOTIMPL; }

HRESULT PlayEngine::ArmInput(BOOL arm, const KATRANSPORTRECORD*) {
  std::lock_guard ol(outputLock_);
  if (arm && !recorder_) return KAERR_NOT_READY;
  armed_ = arm != FALSE;
  return S_OK;
}

HRESULT PlayEngine::SetRecordTarget(const KARECORDTARGET* target, KARECORDPROGRESS progress,
                                    void* context) {
  std::lock_guard ol(outputLock_);
  if (recording_.load()) return KAERR_BUSY;
  if (!target) {
    recorder_.reset();
    armed_ = false;
    return S_OK;
  }
  HRESULT r = fixFormat(0, 0);
  if (FAILED(r)) return r;
  auto rec = std::make_unique<Recorder>();
  r = rec->configure(*target, timeline_.sampleRate(), timeline_.channels(), config_.blockFrames,
                     progress, context, defaultTimeSource());
  if (FAILED(r)) return r;
  recorder_ = std::move(rec);
  monitor_ = target->monitor != 0;
  return S_OK;
}

// ---------------------------------------------------------------- disk thread

void PlayEngine::diskMain() noexcept {
  std::unique_lock lk(ctl_);
  UINT64 mine = 0;
  Request req;
  const auto poll = std::chrono::microseconds(
      std::max<INT64>(1000, INT64(config_.blockFrames) * 500000 / timeline_.sampleRate()));
  while (!quit_) {
    const UINT64 g = gen_.load();
    if (g != mine) {
      mine = g;
      req = req_;
      cursor_ = req.position;
      wrapsLeft_ = req.loopRepeats;
      eosPushed_ = false;
      inOff_ = inAvail_ = 0;
      inAt_ = cursor_;
      inputDone_ = false;
      if (req.rate != 1.0) vari_.reset(timeline_.channels(), std::fabs(req.rate));
    }
    if (!req.running || eosPushed_ || !ring_.beginPush()) {
      cv_.wait_for(lk, poll, [&] {
        return quit_ || gen_.load() != mine || (req.running && !eosPushed_ && ring_.beginPush());
      });
      continue;
    }
    rendering_ = true;
    lk.unlock();
    DWORD frames = 0;
    const bool eos = produceOne(req, mine, frames);
    lk.lock();
    rendering_ = false;
    if (eos) {
      eosPushed_ = true;
      eosGen_ = mine;
    }
    producedSinceRestart_ += mine == gen_.load() ? frames : 0;
    primedGen_ = std::max(primedGen_, mine);
    blocksRendered_.fetch_add(1);
    cv_.notify_all();
  }
}

// The next timeline frames in play order: forward from the cursor up to the loop end
// (while wraps are left) or the range end; in reverse down to the loop start or 0.
DWORD PlayEngine::nextInput(const Request& req, float* dst, DWORD max, INT64& at) noexcept {
  const bool reverse = req.rate < 0;
  const INT64 loopEnd = req.loopStart + req.loopLength;
  for (int guard = 0; guard < 4; ++guard) {
    const bool looping = req.loopLength > 0 && wrapsLeft_ > 0;
    if (!reverse) {
      const bool inLoop = looping && cursor_ <= loopEnd && loopEnd <= req.end;
      const INT64 limit = inLoop ? loopEnd : req.end;
      const INT64 n = std::min<INT64>(max, limit - cursor_);
      if (n <= 0) {
        if (!inLoop) return 0;
        cursor_ = req.loopStart;
        if (wrapsLeft_ != 0xFFFFFFFFu) --wrapsLeft_;
        loopPasses_.fetch_add(1);
        continue;
      }
      if (FAILED(timeline_.render(cursor_, DWORD(n), dst))) diskError_ = KAERR_READ_FAILED;
      at = cursor_;
      cursor_ += n;
      return DWORD(n);
    }
    const bool inLoop = looping && cursor_ >= req.loopStart && cursor_ <= loopEnd;
    const INT64 low = inLoop ? req.loopStart : 0;
    const INT64 n = std::min<INT64>(max, cursor_ - low);
    if (n <= 0) {
      if (!inLoop) return 0;
      cursor_ = loopEnd;
      if (wrapsLeft_ != 0xFFFFFFFFu) --wrapsLeft_;
      loopPasses_.fetch_add(1);
      continue;
    }
    if (FAILED(timeline_.render(cursor_ - n, DWORD(n), dst))) diskError_ = KAERR_READ_FAILED;
    const WORD ch = timeline_.channels();
    for (INT64 i = 0, j = n - 1; i < j; ++i, --j)
      std::swap_ranges(dst + i * ch, dst + (i + 1) * ch, dst + j * ch);
    at = cursor_;
    cursor_ -= n;
    return DWORD(n);
  }
  return 0;
}

// Fills one block of the ring; true when it is the end-of-range marker.
bool PlayEngine::produceOne(const Request& req, UINT64 gen, DWORD& frames) noexcept {
  Block* b = ring_.beginPush();
  const DWORD want = config_.blockFrames;
  const WORD ch = timeline_.channels();
  b->generation = gen;
  b->endOfRange = false;
  b->step = req.rate;
  frames = 0;
  if (req.rate == 1.0) {
    INT64 at = cursor_;
    frames = nextInput(req, b->data, want, at);
    b->position = at;
  } else {
    const double dir = req.rate < 0 ? -1.0 : 1.0;
    b->position = inAt_ + INT64(dir) * INT64(inOff_);
    for (int idle = 0; frames < want && idle < 8;) {
      if (inOff_ == inAvail_ && !inputDone_) {
        inAvail_ = nextInput(req, inBuf_.data(), want, inAt_);
        inOff_ = 0;
        if (!inAvail_) inputDone_ = true;
        continue;
      }
      size_t used = 0, made = 0;
      const float* in = inputDone_ ? nullptr : inBuf_.data() + size_t(inOff_) * ch;
      vari_.process(in, inAvail_ - inOff_, &used, b->data + size_t(frames) * ch, want - frames,
                    &made);
      inOff_ += DWORD(used);
      frames += DWORD(made);
      if (inputDone_ && made == 0) break;  // the filter is drained
      idle = used || made ? 0 : idle + 1;
    }
  }
  b->frames = frames;
  b->endOfRange = frames == 0;
  if (b->endOfRange) b->position = cursor_;
  ring_.endPush();
  return b->endOfRange;
}

}  // namespace ostra::engine

HRESULT KaEngine_Create(const KAENGINECONFIG* config, IKAEngineSession** session) noexcept {
  if (!session) return E_POINTER;
  *session = nullptr;
  KAENGINECONFIG c{};
  c.size = sizeof c;
  if (config) {
    if (config->size < sizeof(KAENGINECONFIG)) return E_INVALIDARG;
    c = *config;
  }
  auto* e = new (std::nothrow) ostra::engine::PlayEngine(c);
  if (!e) return E_OUTOFMEMORY;
  *session = static_cast<IKAEngineSession*>(e);
  return S_OK;
}
