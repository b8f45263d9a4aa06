// The play engine behind IKAPlayEngine and IKAEngineSession. Threads and what they own:
//  - the host's threads call the interfaces; they change the request under ctl_ and bump
//    the generation, then wait (bounded) until the disk thread has the first block;
//  - the disk thread renders the timeline (Timeline), applies varispeed (Varispeed) and
//    pushes blocks into the ring; it alone touches files and the resampler;
//  - the output's thread (device callback, null pacing thread, file writer) pops blocks.
// The real-time path reads only atomics and the ring. Lock order: ctl_ only; the
// transport's locks are never taken here.
#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include "engine/internal/block_ring.h"
#include "engine/internal/outputs.h"
#include "engine/internal/timeline.h"
#include "engine/internal/varispeed.h"

namespace ostra::engine {

class Recorder;

class PlayEngine final : public IKAPlayEngine, public IKAEngineSession, public RenderSource {
 public:
  explicit PlayEngine(const KAENGINECONFIG& config) noexcept;

  // IUnknown (shared by both interfaces)
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
  ULONG STDMETHODCALLTYPE AddRef() override;
  ULONG STDMETHODCALLTYPE Release() override;

  // IKAPlayEngine
  HRESULT STDMETHODCALLTYPE QueryState() override;
  HRESULT STDMETHODCALLTYPE GetPosition(INT64* ticks, double* rate, const void* request) override;
  HRESULT STDMETHODCALLTYPE GetBufferDuration(INT64* ticks) override;
  HRESULT STDMETHODCALLTYPE Start(DWORD flags, INT64 position, INT64 end) override;
  HRESULT STDMETHODCALLTYPE Stop(DWORD flags, DWORD extra) override;
  HRESULT STDMETHODCALLTYPE Seek(INT64 position, INT64 end) override;
  HRESULT STDMETHODCALLTYPE SetEnd(INT64 end) override;
  HRESULT STDMETHODCALLTYPE SetRate(double rate) override;
  HRESULT STDMETHODCALLTYPE StartPreview(DWORD kind, const KATRANSPORTPREVIEW* preview) override;
  HRESULT STDMETHODCALLTYPE StopPreview(DWORD kind) override;
  HRESULT STDMETHODCALLTYPE SeekPreview(DWORD kind, const KATRANSPORTPREVIEW* preview) override;
  HRESULT STDMETHODCALLTYPE GetPreviewPosition(DWORD kind, INT64* ticks) override;
  INT64 STDMETHODCALLTYPE AdjustPreviewClock(INT64 ticks) override { return ticks; }
  HRESULT STDMETHODCALLTYPE ArmInput(BOOL arm, const KATRANSPORTRECORD* record) override;

  // IKAEngineSession
  HRESULT STDMETHODCALLTYPE AddClip(const KAENGINECLIP* clip) override;
  HRESULT STDMETHODCALLTYPE ClearClips() override;
  HRESULT STDMETHODCALLTYPE SetLoop(INT64 start, INT64 length, UINT repeats) override;
  HRESULT STDMETHODCALLTYPE SetOutput(const char* name) override;
  HRESULT STDMETHODCALLTYPE GetInfo(KAENGINEINFO* info) override;
  HRESULT STDMETHODCALLTYPE Pump(float* out, DWORD frames) override;
  HRESULT STDMETHODCALLTYPE WaitBuffered(DWORD frames, DWORD timeoutMs) override;
  HRESULT STDMETHODCALLTYPE SetRecordTarget(const KARECORDTARGET* target, KARECORDPROGRESS progress,
                                            void* context) override;
  HRESULT STDMETHODCALLTYPE CloseOutput() override;

  // RenderSource
  void renderRealtime(float* out, DWORD frames) noexcept override;
  DWORD renderWait(float* out, DWORD frames) noexcept override;

  INT64 framesToTicks(INT64 frames) const noexcept;
  INT64 ticksToFrames(INT64 ticks) const noexcept;
  // The disk thread's state before the next generation (for the tests).
  UINT64 generation() const noexcept { return gen_.load(); }

 private:
  ~PlayEngine();
  struct Request {
    INT64 position = 0;
    INT64 end = 0;
    double rate = 1.0;
    bool running = false;
    INT64 loopStart = 0, loopLength = 0;
    UINT loopRepeats = 0;
  };
  HRESULT fixFormat(DWORD rate, WORD channels) noexcept;
  void ensureStarted() noexcept;
  // Under ctl_: begins a new generation from `position` and, while running, waits
  // (bounded) for its first block. consumerIdle: no output thread pops meanwhile, so the
  // caller drops the old generation's blocks itself.
  void restartLocked(std::unique_lock<std::mutex>& lk, INT64 position,
                     bool consumerIdle = false) noexcept;
  void diskMain() noexcept;
  bool produceOne(const Request& req, UINT64 gen, DWORD& frames) noexcept;
  DWORD nextInput(const Request& req, float* dst, DWORD max, INT64& at) noexcept;
  // Consumer side shared by both render paths; returns frames delivered from blocks.
  DWORD consume(float* out, DWORD frames) noexcept;
  void notePeaks(const float* out, DWORD frames) noexcept;

  std::atomic<ULONG> refs_{1};
  KAENGINECONFIG config_;
  Timeline timeline_;
  BlockRing ring_;
  std::unique_ptr<Output> output_;
  std::mutex outputLock_;  // host threads only: output replacement against start/stop

  std::mutex ctl_;
  std::condition_variable cv_;  // producer → host (pushed) and host → producer (changed)
  Request req_;
  bool quit_ = false;
  bool started_ = false;
  bool rendering_ = false;  // under ctl_: the disk thread renders a block without the lock
  std::thread disk_;
  std::atomic<UINT64> gen_{1};
  UINT64 primedGen_ = 0;  // under ctl_: the newest generation with a block in the ring
  UINT64 eosGen_ = 0;     // under ctl_: the newest generation whose end marker is queued
  INT64 producedSinceRestart_ = 0, outAtRestart_ = 0;  // under ctl_
  std::atomic<bool> running_{false};
  std::atomic<HRESULT> diskError_{S_OK};

  // Disk thread only.
  INT64 cursor_ = 0;
  UINT wrapsLeft_ = 0;
  bool eosPushed_ = false, inputDone_ = false;
  Varispeed vari_;
  std::vector<float> inBuf_;
  DWORD inOff_ = 0, inAvail_ = 0;
  INT64 inAt_ = 0;

  // Consumer only (plus atomics the host reads).
  Block* cur_ = nullptr;
  DWORD curOff_ = 0;
  UINT64 seenGen_ = 0;
  std::atomic<INT64> position_{0};
  std::atomic<INT64> framesOut_{0};
  std::atomic<UINT64> underruns_{0}, blocksRendered_{0};
  std::atomic<UINT64> finishedGen_{0};
  std::atomic<DWORD> loopPasses_{0};
  std::atomic<double> rate_{1.0};
  std::atomic<float> peaks_[8]{};
  std::vector<float> scratch_;

  // Recording.
  std::unique_ptr<Recorder> recorder_;
  bool armed_ = false;
  std::atomic<bool> monitor_{false};     // a recording is also routed to the output
  std::atomic<bool> monitorRun_{false};  // a record-monitoring run is going
  std::atomic<bool> recording_{false};
  INT64 recordStart_ = 0;
};

}  // namespace ostra::engine
