// Audio devices through PortAudio (ALSA, JACK and the sound server behind it): the device
// list, the output and input streams of the play engine and the recorder.
#include <alsa/asoundlib.h>
#include <portaudio.h>

#include <atomic>
#include <cstring>
#include <mutex>

#include "engine/internal/outputs.h"
#include "ostra/kaerror.h"
#include "platform/internal/text.h"

namespace ostra::engine {
namespace {

std::mutex gPaLock;
int gPaUsers = 0;

// ALSA reports every card it cannot open on standard error while PortAudio probes; the
// engine reports what matters through its own results instead.
void quietAlsa(const char*, int, const char*, int, const char*, ...) {}

HRESULT noDevice(const char* what, const std::string& name) {
  KaErrorHandler_DetailsInit();
  if (name.empty())
    KaErrorHandler_DetailsAddString(KAERR_NOT_FOUND, u"No audio %hs device.", what);
  else
    KaErrorHandler_DetailsAddString(KAERR_NOT_FOUND, u"No audio %hs device named \"%hs\".", what,
                                    name.c_str());
  return KAERR_NOT_FOUND;
}

HRESULT paFailure(PaError e) {
  KaErrorHandler_DetailsInit();
  KaErrorHandler_DetailsAddString(KAERR_NOT_READY, u"Audio device: %hs", Pa_GetErrorText(e));
  return KAERR_NOT_READY;
}

// The device named `name` (exact match first, then the first that contains it), or the
// default one when name is empty.
PaDeviceIndex findDevice(const std::string& name, bool output) {
  if (name.empty()) return output ? Pa_GetDefaultOutputDevice() : Pa_GetDefaultInputDevice();
  const int n = Pa_GetDeviceCount();
  PaDeviceIndex partial = paNoDevice;
  for (int i = 0; i < n; ++i) {
    const PaDeviceInfo* d = Pa_GetDeviceInfo(i);
    if (!d || (output ? d->maxOutputChannels : d->maxInputChannels) <= 0) continue;
    if (name == d->name) return i;
    if (partial == paNoDevice && std::strstr(d->name, name.c_str())) partial = i;
  }
  return partial;
}

class PortAudioOutput final : public Output {
 public:
  explicit PortAudioOutput(std::string device) : device_(std::move(device)) {}
  ~PortAudioOutput() override { close(); }
  HRESULT init() const noexcept { return use_.result(); }

  HRESULT open(RenderSource* source, DWORD rate, WORD channels, DWORD blockFrames) override {
    if (FAILED(use_.result())) return use_.result();
    const PaDeviceIndex dev = findDevice(device_, true);
    if (dev == paNoDevice) return noDevice("output", device_);
    const PaDeviceInfo* info = Pa_GetDeviceInfo(dev);
    PaStreamParameters p{};
    p.device = dev;
    p.channelCount = channels;
    p.sampleFormat = paFloat32;
    p.suggestedLatency = info ? info->defaultLowOutputLatency : 0.05;
    source_ = source;
    rate_ = rate;
    block_ = blockFrames;
    const PaError e = Pa_OpenStream(&stream_, nullptr, &p, rate, blockFrames, paClipOff,
                                    &PortAudioOutput::callback, this);
    if (e != paNoError) {
      stream_ = nullptr;
      return paFailure(e);
    }
    Pa_SetStreamFinishedCallback(stream_, &PortAudioOutput::finished);
    return S_OK;
  }
  HRESULT start() override {
    if (!stream_) return E_UNEXPECTED;
    if (Pa_IsStreamActive(stream_) == 1) return S_OK;
    stopping_ = false;
    lost_ = false;
    const PaError e = Pa_StartStream(stream_);
    return e == paNoError ? S_OK : paFailure(e);
  }
  HRESULT stop() override {
    if (!stream_ || Pa_IsStreamStopped(stream_) == 1) return S_OK;
    stopping_ = true;
    Pa_StopStream(stream_);  // lets the buffers already queued play out
    return S_OK;
  }
  HRESULT close() override {
    stop();
    if (stream_) Pa_CloseStream(stream_);
    stream_ = nullptr;
    return S_OK;
  }
  DWORD bufferFrames() const noexcept override { return block_; }
  INT64 latencyFrames() const noexcept override {
    const PaStreamInfo* i = stream_ ? Pa_GetStreamInfo(stream_) : nullptr;
    return i ? INT64(i->outputLatency * rate_ + 0.5) : 0;
  }
  bool lost() const noexcept override { return lost_.load(); }

 private:
  static int callback(const void*, void* output, unsigned long frames,
                      const PaStreamCallbackTimeInfo*, PaStreamCallbackFlags, void* user) {
    auto* self = static_cast<PortAudioOutput*>(user);
    self->source_->renderRealtime(static_cast<float*>(output), DWORD(frames));
    return paContinue;
  }
  static void finished(void* user) {
    auto* self = static_cast<PortAudioOutput*>(user);
    if (!self->stopping_.load()) self->lost_ = true;
  }
  PortAudioUse use_;
  std::string device_;
  PaStream* stream_ = nullptr;
  RenderSource* source_ = nullptr;
  DWORD rate_ = 48000, block_ = 1024;
  std::atomic<bool> stopping_{false}, lost_{false};
};

class PortAudioInput final : public Input {
 public:
  explicit PortAudioInput(std::string device) : device_(std::move(device)) {}
  ~PortAudioInput() override {
    stop();
    if (stream_) Pa_CloseStream(stream_);
  }
  HRESULT open(DWORD rate, WORD channels, DWORD blockFrames, Deliver deliver,
               void* context) override {
    if (FAILED(use_.result())) return use_.result();
    const PaDeviceIndex dev = findDevice(device_, false);
    if (dev == paNoDevice) return noDevice("input", device_);
    const PaDeviceInfo* info = Pa_GetDeviceInfo(dev);
    PaStreamParameters p{};
    p.device = dev;
    p.channelCount = channels;
    p.sampleFormat = paFloat32;
    p.suggestedLatency = info ? info->defaultLowInputLatency : 0.05;
    deliver_ = deliver;
    context_ = context;
    const PaError e = Pa_OpenStream(&stream_, &p, nullptr, rate, blockFrames, paClipOff,
                                    &PortAudioInput::callback, this);
    if (e != paNoError) {
      stream_ = nullptr;
      return paFailure(e);
    }
    return S_OK;
  }
  HRESULT start() override {
    const PaError e = stream_ ? Pa_StartStream(stream_) : paNotInitialized;
    return e == paNoError ? S_OK : paFailure(e);
  }
  HRESULT stop() override {
    if (stream_ && Pa_IsStreamStopped(stream_) == 0) Pa_StopStream(stream_);
    return S_OK;
  }

 private:
  static int callback(const void* input, void*, unsigned long frames,
                      const PaStreamCallbackTimeInfo*, PaStreamCallbackFlags, void* user) {
    auto* self = static_cast<PortAudioInput*>(user);
    if (input) self->deliver_(self->context_, static_cast<const float*>(input), DWORD(frames));
    return paContinue;
  }
  PortAudioUse use_;
  std::string device_;
  PaStream* stream_ = nullptr;
  Deliver deliver_ = nullptr;
  void* context_ = nullptr;
};

}  // namespace

PortAudioUse::PortAudioUse() noexcept {
  std::lock_guard lk(gPaLock);
  if (gPaUsers == 0) {
    snd_lib_error_set_handler(&quietAlsa);
    const PaError e = Pa_Initialize();
    if (e != paNoError) {
      r_ = paFailure(e);
      return;
    }
  }
  ++gPaUsers;
  r_ = S_OK;
}

PortAudioUse::~PortAudioUse() {
  if (FAILED(r_)) return;
  std::lock_guard lk(gPaLock);
  if (--gPaUsers == 0) Pa_Terminate();
}

std::unique_ptr<Output> makePortAudioOutput(const std::string& device, HRESULT& r) {
  auto out = std::make_unique<PortAudioOutput>(device);
  r = out->init();
  return SUCCEEDED(r) ? std::move(out) : nullptr;
}

std::unique_ptr<Input> makePortAudioInput(const std::string& device, HRESULT& r) {
  r = S_OK;
  return std::make_unique<PortAudioInput>(device);
}

}  // namespace ostra::engine

HRESULT KaEngine_EnumAudioDevices(KAAUDIODEVICEPROC proc, void* context) noexcept {
  if (!proc) return E_POINTER;
  ostra::engine::PortAudioUse use;
  if (FAILED(use.result())) return S_FALSE;  // no audio system at all: nothing to list
  const int n = Pa_GetDeviceCount();
  if (n <= 0) return S_FALSE;
  const PaDeviceIndex defOut = Pa_GetDefaultOutputDevice(), defIn = Pa_GetDefaultInputDevice();
  try {
    for (int i = 0; i < n; ++i) {
      const PaDeviceInfo* d = Pa_GetDeviceInfo(i);
      if (!d) continue;
      KAAUDIODEVICE dev{};
      dev.size = sizeof dev;
      dev.index = DWORD(i);
      const std::u16string name = ostra::text::utf8ToUtf16(d->name ? d->name : "");
      const PaHostApiInfo* api = Pa_GetHostApiInfo(d->hostApi);
      const std::u16string host = ostra::text::utf8ToUtf16(api && api->name ? api->name : "");
      name.copy(dev.name, std::size(dev.name) - 1);
      host.copy(dev.hostApi, std::size(dev.hostApi) - 1);
      dev.maxInputChannels = DWORD(d->maxInputChannels);
      dev.maxOutputChannels = DWORD(d->maxOutputChannels);
      dev.defaultSampleRate = d->defaultSampleRate;
      dev.defaultOutputLatency = d->defaultLowOutputLatency;
      dev.isDefaultInput = i == defIn;
      dev.isDefaultOutput = i == defOut;
      if (!proc(&dev, context)) break;
    }
  } catch (...) {
    return E_OUTOFMEMORY;
  }
  return S_OK;
}
