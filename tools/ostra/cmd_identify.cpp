#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "command.h"
#include "fio_manager.h"
#include "ostra/kaerror.h"
#include "ostra/kaplatform.h"
#include "text.h"

namespace {

void setup(CLI::App& cmd) {
  static std::vector<std::string> files;
  static bool json = false, slow = false, log = false;
  cmd.add_option("files", files, "Media files")->required();
  cmd.add_flag("--json", json, "Print one JSON object");
  cmd.add_flag("--slow", slow, "Leave out the host-format check and the signature pass");
  cmd.add_flag("--log", log, "Print the plug-in manager's log lines");
  cmd.callback([] {
    using namespace ostra::cli;
    ManagerRun run;
    if (const HRESULT hr = startManager(false, log, &run); FAILED(hr)) {
      exitStatus() = reportFailure(hr);
      return;
    }
    nlohmann::json results = nlohmann::json::array();
    for (const std::string& file : files) {
      const size_t logStart = run.log.size();
      KAFIOIDENTIFY r{sizeof r};
      r.plugin = -1;
      KAHFILE handle;
      HRESULT hr =
          KaFile_OpenUtf8(file.c_str(), GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, 0, &handle);
      if (SUCCEEDED(hr)) {
        const std::u16string path = toUtf16(file);
        hr = slow ? run.manager->IdentifyFileTypeSlow(handle, path.c_str(), &r)
                  : run.manager->IdentifyFileType(handle, path.c_str(), &r);
        KaFile_Close(handle);
      }
      nlohmann::json j{{"file", file}, {"result", hr}, {"format", KaFio_GetFormatName(r.formatId)}};
      if (SUCCEEDED(hr) && r.plugin >= 0) {
        KAFIOPLUGINENTRY e;
        run.manager->GetPluginEntry(DWORD(r.plugin), &e);
        j["plugin"] = toUtf8(e.name);
        j["pass"] = passName(r.pass);
      } else {
        const KAWCHAR* text = KaErrorHandler_GetHresultString(hr);
        std::string t = text ? toUtf8(text) : std::string();
        while (!t.empty() && (t.front() == '\n' || t.front() == ' ')) t.erase(0, 1);
        j["text"] = hr == KAERR_FIO_HOST_FORMAT ? "a format the host opens itself" : t;
        exitStatus() = 1;
      }
      if (log) j["log"] = std::vector<std::string>(run.log.begin() + long(logStart), run.log.end());
      results.push_back(j);
    }
    if (json) {
      std::printf("%s\n", nlohmann::json{{"files", results}}.dump(2).c_str());
      return;
    }
    for (const auto& j : results) {
      if (j.contains("log"))
        for (const auto& line : j["log"])
          std::printf("  log: %s\n", line.get<std::string>().c_str());
      if (j.contains("plugin"))
        std::printf("%s: %s (found by %s; %s)\n", j["file"].get<std::string>().c_str(),
                    j["plugin"].get<std::string>().c_str(), j["pass"].get<std::string>().c_str(),
                    j["format"].get<std::string>().c_str());
      else
        std::printf("%s: not read by any plug-in: 0x%08X %s\n",
                    j["file"].get<std::string>().c_str(), unsigned(j["result"].get<HRESULT>()),
                    j["text"].get<std::string>().c_str());
    }
  });
}

OSTRA_COMMAND("identify", "Tell which file-format plug-in reads each file", setup);

}  // namespace
