// `ostra play`: plays files as one session through the process's transport and the play
// engine, to the null output, a wave file or an audio device, until the end of the range
// (the transport's worker stops the run and sends message 6) or Ctrl-C.
#include <atomic>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "command.h"
#include "label_text.h"
#include "ostra/kaengine.h"
#include "ostra/kaplatform.h"
#include "ostra/kawave.h"
#include "output_file.h"
#include "text.h"

namespace {

using ostra::cli::exitStatus;
using ostra::cli::reportFailure;
using ostra::cli::reportUsage;

struct Options {
  std::vector<std::string> files, at;
  std::string start, end, loop, output = "null", mtc;
  double rate = 1.0;
  DWORD tcType = 1;
  bool events = false;
};

struct Run {
  std::mutex lock;
  std::condition_variable changed;
  bool stopped = false;
  bool events = false;
  bool interrupted = false;
};

// A time as the user types it: a time-code label of the chosen format (01:00:02:10), or
// seconds with an "s" suffix (2.5s), or sample frames with "smp" (48000smp).
bool parseTime(const std::string& text, DWORD tcType, DWORD rate, INT64& frames) {
  try {
    size_t used = 0;
    if (text.ends_with("smp")) {
      frames = std::stoll(text.substr(0, text.size() - 3), &used);
      return used == text.size() - 3;
    }
    if (text.ends_with("s")) {
      const double s = std::stod(text.substr(0, text.size() - 1), &used);
      frames = std::llround(s * rate);
      return used == text.size() - 1 && s >= 0;
    }
  } catch (...) {
    return false;
  }
  _smpteval l{tcType, 0, 0, 0, 0};
  if (!ostra::cli::parseLabel(text, tcType, l)) return false;
  frames = std::llround(double(KASMPTE_SMPTEToNanos(&l)) * rate / 1e7);
  return true;
}

INT64 ticksOf(INT64 frames, DWORD rate) { return std::llround(double(frames) * 1e7 / rate); }

HRESULT onMessage(IKATransport*, unsigned message, DWORD*, UINT64 context, INT64* position,
                  LONG reason) {
  auto* run = reinterpret_cast<Run*>(context);
  if (run->events) {
    nlohmann::json j{{"message", message}, {"reason", reason}};
    if (position && message != KATM_OPENED) j["position"] = position[0];
    std::lock_guard lk(run->lock);
    std::printf("%s\n", j.dump().c_str());
    std::fflush(stdout);
  }
  if (message == KATM_STOPPED) {
    std::lock_guard lk(run->lock);
    run->stopped = true;
    run->changed.notify_all();
  }
  return S_OK;
}

void onInterrupt(void* context) {
  auto* run = static_cast<Run*>(context);
  {
    std::lock_guard lk(run->lock);
    run->interrupted = true;
  }
  run->changed.notify_all();
}

// The running time code and a level meter per channel, on one terminal line.
void showMeter(IKAEngineSession* s, DWORD tcType) {
  KAENGINEINFO i{};
  i.size = sizeof i;
  if (FAILED(s->GetInfo(&i)) || !i.sampleRate) return;
  _smpteval l{tcType, 0, 0, 0, 0};
  KASMPTE_NanoToSMPTE(ticksOf(i.position, i.sampleRate), &l);
  std::string line = "\r" + ostra::cli::labelText(l);
  for (WORD c = 0; c < std::min<WORD>(i.channels, 8); ++c) {
    const double db = i.peak[c] > 0 ? 20.0 * std::log10(i.peak[c]) : -120.0;
    const int bars = std::clamp(int((db + 60.0) / 3.0), 0, 20);
    line += "  " + std::string(size_t(bars), '#') + std::string(size_t(20 - bars), '.');
  }
  std::fprintf(stderr, "%s", line.c_str());
  std::fflush(stderr);
}

int play(const Options& o) {
  if (o.at.size() > o.files.size()) return reportUsage("more --at options than files");
  if (!(std::fabs(o.rate) >= 0.25 && std::fabs(o.rate) <= 4.0))
    return reportUsage("--rate must lie between 0.25 and 4.0 in size (negative plays backwards)");

  IKAEngineSession* session = nullptr;
  HRESULT r = KaEngine_Create(nullptr, &session);
  if (FAILED(r)) return reportFailure(r);
  struct Release {
    IKAEngineSession*& s;
    ~Release() {
      if (s) s->Release();
    }
  } release{session};

  DWORD rate = 48000;
  for (size_t i = 0; i < o.files.size(); ++i) {
    const std::u16string path = ostra::cli::toUtf16(o.files[i]);
    if (i == 0) {  // the first file fixes the session's rate, which the times are read in
      alignas(8) BYTE buf[KAWAVEFORMAT_BUFFER_SIZE] = {};
      auto* wf = reinterpret_cast<_kawaveformat*>(buf);
      r = KaGetFileWfx(path.c_str(), wf, sizeof buf);
      if (FAILED(r)) return reportFailure(r, o.files[i]);
      rate = wf->nSamplesPerSec;
    }
    INT64 at = 0;
    if (i < o.at.size() && !parseTime(o.at[i], o.tcType, rate, at))
      return reportUsage("cannot read --at " + o.at[i]);
    KAENGINECLIP clip{sizeof clip, path.c_str(), at, 0, -1, 1.0f};
    r = session->AddClip(&clip);
    if (FAILED(r)) return reportFailure(r, o.files[i]);
  }
  INT64 start = 0, end = -1;
  if (!o.start.empty() && !parseTime(o.start, o.tcType, rate, start))
    return reportUsage("cannot read --start " + o.start);
  if (!o.end.empty() && !parseTime(o.end, o.tcType, rate, end))
    return reportUsage("cannot read --end " + o.end);
  if (!o.loop.empty()) {
    const size_t c1 = o.loop.find(',');
    const size_t c2 = c1 == std::string::npos ? c1 : o.loop.find(',', c1 + 1);
    INT64 ls = 0, ll = 0, times = 2;
    if (c1 == std::string::npos || !parseTime(o.loop.substr(0, c1), o.tcType, rate, ls) ||
        !parseTime(o.loop.substr(c1 + 1, c2 == std::string::npos ? c2 : c2 - c1 - 1), o.tcType,
                   rate, ll) ||
        ll <= 0)
      return reportUsage("--loop takes START,LENGTH[,TIMES], not " + o.loop);
    if (c2 != std::string::npos) {
      try {
        times = std::stoll(o.loop.substr(c2 + 1));
      } catch (...) {
        return reportUsage("--loop takes START,LENGTH[,TIMES], not " + o.loop);
      }
    }
    if (times < 0) return reportUsage("--loop TIMES must be 0 (endless) or more");
    session->SetLoop(ls, ll, times == 0 ? 0xFFFFFFFFu : UINT(std::max<INT64>(times - 1, 0)));
  }

  ostra::cli::OutputFile outFile;
  std::string outputName = o.output;
  if (o.output.starts_with("file:")) {
    const std::string target = o.output.substr(5);
    std::string why;
    r = outFile.reserve(target, o.files, why);
    if (FAILED(r)) return ostra::cli::reportRefusal(r, target, why);
    const bool w64 = target.ends_with(".w64") || target.ends_with(".W64");
    outputName = (w64 ? "file64:" : "file:") + outFile.path();
  }
  r = session->SetOutput(outputName.c_str());
  if (FAILED(r)) return reportFailure(r, o.output);

  Run run;
  run.events = o.events;
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
  IKATransport* t = nullptr;
  Transport_QueryInternalInterface(IID_IKATransport, reinterpret_cast<void**>(&t));
  constexpr DWORD kRunFlags = 0x20000000u;  // seeks reach the engine
  Transport_SetLength(end >= 0 ? ticksOf(end, rate) : KATRANSPORT_OPEN_END);
  Transport_SetRate(o.rate, 0);
  r = t ? t->Start(kRunFlags, ticksOf(start, rate)) : E_UNEXPECTED;

  // MIDI time code of the play position to a sequencer port, a quarter frame at a time.
  IKAMTCGenerator* mtc = nullptr;
  bool mtcFailed = false;
  if (SUCCEEDED(r) && !o.mtc.empty()) {
    r = KaMTC_CreateGenerator(o.tcType, nullptr, nullptr, o.mtc.c_str(), &mtc);
    if (SUCCEEDED(r)) mtc->Locate(ticksOf(start, rate));
    if (FAILED(r)) {
      mtcFailed = true;
      t->StopPlay(kRunFlags);
    }
  }
  const bool meter = !o.events && KaConsole_IsTerminal(2);
  if (SUCCEEDED(r)) {
    std::unique_lock lk(run.lock);
    bool asked = false;
    while (!run.stopped) {
      run.changed.wait_for(lk, std::chrono::milliseconds(mtc ? 5 : 100));
      if (run.stopped) break;
      lk.unlock();
      KAENGINEINFO now{};
      now.size = sizeof now;
      session->GetInfo(&now);
      if (meter) showMeter(session, o.tcType);
      if (mtc && o.rate > 0) mtc->Advance(ticksOf(now.position, rate));
      lk.lock();
      // A reverse run, or a forward one without an end, ends where the material does;
      // Ctrl-C ends any run. Either way the transport stops it and sends message 6.
      const bool done = now.finished && (o.rate < 0 || end < 0);
      if ((run.interrupted || done) && !asked) {
        asked = true;
        lk.unlock();
        t->StopPlay(kRunFlags);
        lk.lock();
      }
    }
  }
  if (meter) std::fprintf(stderr, "\n");
  if (mtc) mtc->Release();
  if (t) t->Release();
  Transport_Cleanup();
  Mixer_SetEngine(nullptr);
  const HRESULT closed = session->CloseOutput();
  if (FAILED(r)) return reportFailure(r, mtcFailed ? "--mtc " + o.mtc : std::string());
  if (FAILED(closed)) return reportFailure(closed, o.output);
  if (o.output.starts_with("file:")) {
    std::string why;
    r = outFile.commit(why);
    if (FAILED(r)) return ostra::cli::reportRefusal(r, o.output.substr(5), why);
  }
  return 0;
}

void setup(CLI::App& cmd) {
  static Options o;
  cmd.add_option("FILE", o.files, "Wave, Wave64 or AIFF files, played as one session")
      ->required()
      ->check(CLI::ExistingFile);
  cmd.add_option("--at", o.at, "Where each file starts on the timeline (one per file, in order)");
  cmd.add_option("--start", o.start, "Where play starts (default 0)");
  cmd.add_option("--end", o.end, "Where play ends (default: the end of the last file)");
  cmd.add_option("--loop", o.loop,
                 "START,LENGTH[,TIMES]: play that span TIMES times (default 2, 0 = until "
                 "stopped), then go on");
  cmd.add_option("--rate", o.rate, "Play rate, -4.0 to 4.0 (negative plays backwards)");
  cmd.add_option("--output", o.output, "null, file:OUT.wav (or .w64), device or device:NAME");
  cmd.add_option("--timecode", o.tcType,
                 "Time-code format of the times given: 1 30, 2 30 drop, 3 25, 4 24, 5 29.97 "
                 "non-drop, 6 23.976 (default 1)")
      ->check(CLI::Range(1u, 6u));
  cmd.add_flag("--events", o.events, "Print every transport message as a line of JSON");
  cmd.add_option("--mtc", o.mtc,
                 "Send MIDI time code of the play position to this ALSA sequencer port "
                 "(client:port), in the --timecode format");
  cmd.footer(
      "Times are time-code labels (00:00:01:15), seconds (1.5s) or sample frames (72000smp).");
  cmd.callback([] { exitStatus() = play(o); });
}

OSTRA_COMMAND("play", "Play files as one session through the transport and the play engine", setup);

}  // namespace
