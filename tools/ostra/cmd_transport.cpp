// `ostra transport demo`: opens the process's transport, plays a range on the wall clock
// (no audio device is involved), seeks once on the way, and prints every message the
// transport sends until the worker ends the run at the end of the range.
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <nlohmann/json.hpp>
#include <vector>

#include "command.h"
#include "ostra/kathread.h"
#include "ostra/transport.h"

namespace {

struct Log {
  std::mutex lock;
  std::condition_variable changed;
  std::vector<nlohmann::json> messages;
  bool stopped = false;
};

HRESULT onMessage(IKATransport*, unsigned message, DWORD*, UINT64 context, INT64* position,
                  LONG reason) {
  auto* log = reinterpret_cast<Log*>(context);
  nlohmann::json m{{"message", message}, {"reason", reason}};
  if (position && message != KATM_OPENED) m["position_ms"] = position[0] / 10000;
  {
    std::lock_guard lk(log->lock);
    log->messages.push_back(m);
    if (message == KATM_STOPPED) log->stopped = true;
  }
  log->changed.notify_all();
  return S_OK;
}

void setup(CLI::App& cmd) {
  auto* demo = cmd.add_subcommand("demo", "Play a range on the wall clock and print the messages");
  static unsigned lengthMs = 300;
  static unsigned seekMs = 0;
  static bool json = false;
  demo->add_option("--length", lengthMs, "Length of the range in ms (default 300)")
      ->check(CLI::Range(1u, 600000u));
  demo->add_option("--seek", seekMs, "Seek to this position (ms) right after the start");
  demo->add_flag("--json", json, "Print one JSON object");
  cmd.require_subcommand(1);
  demo->callback([] {
    Log log;
    HRESULT r = Transport_Init(&onMessage, reinterpret_cast<UINT64>(&log), 0, 0, nullptr, nullptr);
    if (FAILED(r)) {
      ostra::cli::exitStatus() = ostra::cli::reportFailure(r);
      return;
    }
    Transport_SetLength(INT64(lengthMs) * 10000);
    IKATransport* t = nullptr;
    Transport_QueryInternalInterface(IID_IKATransport, reinterpret_cast<void**>(&t));
    r = t ? t->Start(0, 0) : E_UNEXPECTED;
    if (SUCCEEDED(r) && seekMs) r = Transport_Seek(0, INT64(seekMs) * 10000, -1, nullptr);
    if (SUCCEEDED(r)) {
      std::unique_lock lk(log.lock);
      log.changed.wait(lk, [&] { return log.stopped; });
    }
    // Message 6 is sent while the worker's stop is still in progress; another stop waits
    // for it (and finds nothing to stop), so the status read next is the settled one.
    if (t && SUCCEEDED(r)) t->StopPlay(0);
    const DWORD status = Transport_GetStatus();
    if (t) t->Release();
    Transport_Cleanup();
    if (FAILED(r)) {
      ostra::cli::exitStatus() = ostra::cli::reportFailure(r);
      return;
    }
    if (json) {
      nlohmann::json j{
          {"length_ms", lengthMs}, {"messages", log.messages}, {"status_after", status}};
      std::printf("%s\n", j.dump(2).c_str());
      return;
    }
    for (const auto& m : log.messages) {
      std::printf("message 0x%04x", unsigned(m["message"]));
      if (m.contains("position_ms"))
        std::printf("  position %lld ms", static_cast<long long>(m["position_ms"]));
      if (int(m["reason"]) != 0) std::printf("  reason 0x%08x", unsigned(int(m["reason"])));
      std::printf("\n");
    }
    std::printf("status after the run: 0x%08x\n", unsigned(status));
  });
}

OSTRA_COMMAND("transport", "Drive the playback transport (demo)", setup);

}  // namespace
