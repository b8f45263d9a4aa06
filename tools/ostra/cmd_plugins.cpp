#include <cstdio>
#include <nlohmann/json.hpp>

#include "command.h"
#include "fio_manager.h"
#include "text.h"

namespace {

std::string guidOrNone(const GUID& g) {
  return g == GUID{} ? std::string() : ostra::cli::guidText(g);
}

void setup(CLI::App& cmd) {
  static bool json = false, rescan = false, all = false;
  static std::string unblock;
  cmd.add_flag("--json", json, "Print one JSON object");
  cmd.add_option("--unblock", unblock,
                 "Take the plug-in off the block list (it took a surrogate down before)");
  cmd.add_flag("--all", all, "With --unblock or alone: take every plug-in off the block list");
  cmd.add_flag("--rescan", rescan, "Load every plug-in again and rewrite the plug-in cache");
  cmd.callback([] {
    using namespace ostra::cli;
    ManagerRun run;
    if (const HRESULT hr = startManager(rescan, false, &run); FAILED(hr)) {
      exitStatus() = reportFailure(hr);
      return;
    }
    if (!unblock.empty() || all) {
      const std::u16string name(unblock.begin(), unblock.end());
      const HRESULT hr = run.manager->UnblockPlugin(all ? nullptr : name.c_str());
      if (FAILED(hr)) {
        exitStatus() = reportFailure(hr, unblock + ": not on the block list");
        return;
      }
      std::printf("%s\n", all ? "block list cleared" : (unblock + " unblocked").c_str());
      return;
    }
    nlohmann::json blocked = nlohmann::json::array();
    KAFIOBLOCKED b;
    for (DWORD i = 0; run.manager->GetBlockedPlugin(i, &b) == S_OK; ++i)
      blocked.push_back({{"name", toUtf8(b.name)},
                         {"path", toUtf8(b.path)},
                         {"call", b.call},
                         {"reason", b.reason}});
    DWORD count = 0;
    run.manager->GetPluginCount(&count);
    nlohmann::json list = nlohmann::json::array();
    for (DWORD i = 0; i < count; ++i) {
      KAFIOPLUGINENTRY e;
      run.manager->GetPluginEntry(i, &e);
      list.push_back({{"name", toUtf8(e.name)},
                      {"path", toUtf8(e.path)},
                      {"reader", guidOrNone(e.reader)},
                      {"readerExtensions", toUtf8(e.readerExtensions)},
                      {"renderer", guidOrNone(e.renderer)},
                      {"rendererExtensions", toUtf8(e.rendererExtensions)},
                      {"merit", e.merit},
                      {"surrogate", e.surrogate},
                      {"fromCache", bool(e.fromCache)}});
    }
    if (json) {
      std::printf("%s\n", nlohmann::json{{"plugins", list}, {"blocked", blocked}}.dump(2).c_str());
      return;
    }
    for (const auto& p : blocked)
      std::printf("blocked: %s (%s in %s; ostra plugins --unblock %s)\n",
                  p["name"].get<std::string>().c_str(), p["reason"].get<std::string>().c_str(),
                  p["call"].get<std::string>().c_str(), p["name"].get<std::string>().c_str());
    if (list.empty()) std::printf("no file-format plug-ins found\n");
    for (const auto& p : list) {
      std::printf("%s  (merit %d, %s, %s)\n  path: %s\n", p["name"].get<std::string>().c_str(),
                  p["merit"].get<int>(),
                  p["surrogate"].get<int>() < 0
                      ? "in process"
                      : ("surrogate " + std::to_string(p["surrogate"].get<int>())).c_str(),
                  p["fromCache"].get<bool>() ? "from the cache" : "loaded",
                  p["path"].get<std::string>().c_str());
      if (!p["reader"].get<std::string>().empty())
        std::printf("  reader %s: %s\n", p["reader"].get<std::string>().c_str(),
                    p["readerExtensions"].get<std::string>().c_str());
      if (!p["renderer"].get<std::string>().empty())
        std::printf("  renderer %s: %s\n", p["renderer"].get<std::string>().c_str(),
                    p["rendererExtensions"].get<std::string>().c_str());
    }
  });
}

OSTRA_COMMAND("plugins", "List the file-format plug-ins the kernel finds", setup);

}  // namespace
