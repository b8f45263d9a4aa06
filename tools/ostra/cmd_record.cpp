// `ostra record`: records from an audio input, a test tone or a file (played in at real
// time) through the transport's record run. The file is written in place, not beside it:
// its header sizes are rewritten every second, so that a recording cut off by a crash
// keeps all but the last second and `ostra repair` makes it whole.
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>

#include "command.h"
#include "ostra/kaengine.h"
#include "ostra/kaerror.h"
#include "ostra/kaplatform.h"
#include "ostra/kawave.h"
#include "text.h"

namespace {

using ostra::cli::reportFailure;
using ostra::cli::reportUsage;

struct Options {
  std::string output, input = "tone", type = "pcm24", monitorOutput = "null";
  double seconds = 0;
  bool monitor = false, events = false;
};

struct Run {
  std::mutex lock;
  std::condition_variable changed;
  bool stopped = false, interrupted = false, events = false;
  LONG reason = 0;
};

HRESULT onMessage(IKATransport*, unsigned message, DWORD*, UINT64 context, INT64* position,
                  LONG reason) {
  auto* run = reinterpret_cast<Run*>(context);
  std::lock_guard lk(run->lock);
  if (run->events) {
    nlohmann::json j{{"message", message}, {"reason", reason}};
    if (position && message != KATM_OPENED) j["position"] = position[0];
    std::printf("%s\n", j.dump().c_str());
    std::fflush(stdout);
  }
  if (message == KATM_STOPPED) {
    run->stopped = true;
    run->reason = reason;
    run->changed.notify_all();
  }
  return S_OK;
}

void onProgress(INT64 frames, void* context) {
  auto* run = static_cast<Run*>(context);
  std::lock_guard lk(run->lock);
  if (!run->events) return;
  std::printf("%s\n", nlohmann::json{{"frames_on_disk", frames}}.dump().c_str());
  std::fflush(stdout);
}

void onInterrupt(void* context) {
  auto* run = static_cast<Run*>(context);
  std::lock_guard lk(run->lock);
  run->interrupted = true;
  run->changed.notify_all();
}

int record(const Options& o) {
  if (!(o.seconds > 0)) return reportUsage("--seconds must be more than 0");
  std::error_code ec;
  if (std::filesystem::exists(o.output, ec))
    return ostra::cli::reportRefusal(KAERR_FILE_EXISTS, o.output,
                                     "a recording never overwrites a file; remove it first");
  KASAMPLETYPE type = KASAMPLE_PCM24;
  if (o.type == "pcm16")
    type = KASAMPLE_PCM16;
  else if (o.type == "pcm32")
    type = KASAMPLE_PCM32;
  else if (o.type == "float")
    type = KASAMPLE_FLOAT32;
  else if (o.type != "pcm24")
    return reportUsage("--type is pcm16, pcm24, pcm32 or float");

  KAENGINECONFIG cfg{sizeof cfg, 48000, 2, 0, 0, 0};
  DWORD kind = KAREC_INPUT_TONE;
  std::u16string source;
  if (o.input.starts_with("file:")) {
    kind = KAREC_INPUT_FILE;
    source = ostra::cli::toUtf16(o.input.substr(5));
    alignas(8) BYTE buf[KAWAVEFORMAT_BUFFER_SIZE] = {};
    auto* wf = reinterpret_cast<_kawaveformat*>(buf);
    const HRESULT r = KaGetFileWfx(source.c_str(), wf, sizeof buf);
    if (FAILED(r)) return reportFailure(r, o.input.substr(5));
    cfg.sampleRate = wf->nSamplesPerSec;
    cfg.channels = wf->nChannels;
  } else if (o.input == "device" || o.input.starts_with("device:")) {
    kind = KAREC_INPUT_DEVICE;
    if (o.input.size() > 7) source = ostra::cli::toUtf16(o.input.substr(7));
  } else if (o.input != "tone") {
    return reportUsage("--input is device, device:NAME, tone or file:IN.wav");
  }

  IKAEngineSession* session = nullptr;
  HRESULT r = KaEngine_Create(&cfg, &session);
  if (FAILED(r)) return reportFailure(r);
  struct Release {
    IKAEngineSession* s;
    ~Release() { s->Release(); }
  } release{session};

  Run run;
  run.events = o.events;
  const std::u16string path = ostra::cli::toUtf16(o.output);
  const bool w64 = o.output.ends_with(".w64") || o.output.ends_with(".W64");
  KARECORDTARGET target{sizeof target,
                        kind,
                        source.empty() ? nullptr : source.c_str(),
                        path.c_str(),
                        w64 ? DWORD(KACONTAINER_WAVE64) : DWORD(KACONTAINER_WAVE),
                        DWORD(type),
                        0,
                        0,
                        WORD(o.monitor ? 1 : 0),
                        1000};
  r = session->SetRecordTarget(&target, &onProgress, &run);
  if (FAILED(r)) return reportFailure(r, o.input);
  r = session->SetOutput(o.monitorOutput.c_str());
  if (FAILED(r)) return reportFailure(r, o.monitorOutput);

  KaConsole_OnInterrupt(&onInterrupt, &run);
  IKAPlayEngine* engine = nullptr;
  session->QueryInterface(IID_IKAPlayEngine, reinterpret_cast<void**>(&engine));
  Mixer_SetEngine(engine);
  engine->Release();
  r = Transport_Init(&onMessage, reinterpret_cast<UINT64>(&run), 0, 0, nullptr, nullptr);
  if (FAILED(r)) {
    Mixer_SetEngine(nullptr);
    return reportFailure(r);
  }
  const INT64 end = std::llround(o.seconds * 1e7);
  r = Transport_StartRec(0, 0, end, -1, -1, LONG(cfg.channels), TRUE);
  if (SUCCEEDED(r)) {
    std::unique_lock lk(run.lock);
    bool asked = false;
    while (!run.stopped) {
      run.changed.wait(lk);
      if (run.interrupted && !asked && !run.stopped) {
        asked = true;
        lk.unlock();
        Transport_StopRec(FALSE, FALSE, FALSE);
        lk.lock();
      }
    }
  }
  Transport_Cleanup();
  Mixer_SetEngine(nullptr);
  const HRESULT closed = session->CloseOutput();
  if (FAILED(r)) return reportFailure(r, o.output);
  if (FAILED(closed)) return reportFailure(closed, o.output);
  if (run.reason == LONG(KATRANSPORT_E_ENGINE_STOPPED) && kind != KAREC_INPUT_FILE)
    return reportFailure(KATRANSPORT_E_ENGINE_STOPPED, o.input);
  return 0;
}

void setup(CLI::App& cmd) {
  static Options o;
  cmd.add_option("OUT", o.output, "The wave (or .w64) file to write; it must not exist")
      ->required();
  cmd.add_option("--seconds", o.seconds, "How long to record")->required();
  cmd.add_option("--input", o.input,
                 "device, device:NAME, tone (997 Hz at -20 dBFS) or file:IN.wav (default tone)");
  cmd.add_option("--type", o.type, "pcm16, pcm24 (default), pcm32 or float");
  cmd.add_flag("--monitor", o.monitor, "Route the input to the output while recording");
  cmd.add_option("--output", o.monitorOutput, "Where monitoring plays: null (default) or device");
  cmd.add_flag("--events", o.events,
               "Print the transport's messages and each header rewrite as lines of JSON");
  cmd.callback([] { ostra::cli::exitStatus() = record(o); });
}

OSTRA_COMMAND("record", "Record from an input, a tone or a file to a wave or Wave64 file", setup);

}  // namespace
