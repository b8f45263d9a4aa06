// The play engine's outputs and inputs: where mixed blocks go (null, a wave file, an audio
// device through PortAudio) and where recorded samples come from (a device, a tone, a
// file). The engine owns one output; the output calls the engine back on its own thread.
#pragma once

#include <memory>
#include <string>

#include "engine/internal/transport_impl.h"
#include "ostra/kaengine.h"

namespace ostra::engine {

// What an output pulls blocks from (the play engine).
class RenderSource {
 public:
  virtual ~RenderSource() = default;
  // The real-time path: fills `frames` frames at once from what the disk thread has
  // ready (silence for what is missing). Never allocates, locks or touches the disk.
  virtual void renderRealtime(float* out, DWORD frames) noexcept = 0;
  // The rendering path: waits for the disk thread; returns the frames written, fewer
  // than asked only at the end of the range or when the run stopped.
  virtual DWORD renderWait(float* out, DWORD frames) noexcept = 0;
};

class Output {
 public:
  virtual ~Output() = default;
  virtual HRESULT open(RenderSource* source, DWORD rate, WORD channels, DWORD blockFrames) = 0;
  virtual HRESULT start() = 0;
  virtual HRESULT stop() = 0;
  // Stops and releases the device or completes the file.
  virtual HRESULT close() = 0;
  virtual bool realtime() const noexcept { return true; }
  virtual bool manual() const noexcept { return false; }
  virtual DWORD bufferFrames() const noexcept = 0;
  virtual INT64 latencyFrames() const noexcept { return 0; }
  // The device stopped delivering under the engine.
  virtual bool lost() const noexcept { return false; }
};

// "null", "null:manual", "file:PATH", "device", "device:NAME". r receives the refusal.
std::unique_ptr<Output> makeOutput(const std::string& name, TimeSource* time, HRESULT& r);
std::unique_ptr<Output> makePortAudioOutput(const std::string& device, HRESULT& r);

// A source of recorded frames (interleaved float) for the capture path.
class Input {
 public:
  virtual ~Input() = default;
  using Deliver = void (*)(void* context, const float* frames, DWORD count);
  virtual HRESULT open(DWORD rate, WORD channels, DWORD blockFrames, Deliver deliver,
                       void* context) = 0;
  virtual HRESULT start() = 0;
  virtual HRESULT stop() = 0;
  // True once a file input has delivered all it holds.
  virtual bool exhausted() const noexcept { return false; }
};
std::unique_ptr<Input> makeInput(DWORD kind, const KAWCHAR* source, TimeSource* time, HRESULT& r);
std::unique_ptr<Input> makePortAudioInput(const std::string& device, HRESULT& r);

// The PortAudio library is initialised once per process while anything uses it.
class PortAudioUse {
 public:
  PortAudioUse() noexcept;
  ~PortAudioUse();
  HRESULT result() const noexcept { return r_; }

 private:
  HRESULT r_;
};

}  // namespace ostra::engine
