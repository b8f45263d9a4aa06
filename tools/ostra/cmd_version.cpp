#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>

#include "command.h"
#include "ostra/kakernel.h"

namespace {

void setup(CLI::App& cmd) {
  static bool json = false;
  static std::string check;
  cmd.add_flag("--json", json, "Print one JSON object");
  cmd.add_option("--check", check,
                 "Check whether a client that needs this kernel version (0x... or decimal) can "
                 "use this kernel; exit status 1 when it cannot");
  cmd.callback([] {
    const DWORD v = KaKernel_GetVersion();
    HRESULT compatible = S_OK;
    unsigned long long required = 0;
    if (!check.empty()) {
      char* end = nullptr;
      required = std::strtoull(check.c_str(), &end, 0);
      if (!end || *end || required > 0xFFFFFFFFull) {
        ostra::cli::reportUsage("not a version: " + check);
        return;
      }
      compatible =
          KaKernel_CheckVersion(nullptr, "ostra", DWORD(required), KAKERNEL_CHECK_VERSION, 0, TRUE);
    }
    if (json) {
      char hex[16];
      std::snprintf(hex, sizeof hex, "0x%08x", unsigned(v));
      nlohmann::json j{{"version", hex},
                       {"major", KAKERNEL_VERSION_MAJOR(v)},
                       {"build", KAKERNEL_VERSION_BUILD(v)}};
      if (!check.empty()) j["compatible"] = compatible == S_OK;
      std::printf("%s\n", j.dump(2).c_str());
    } else {
      std::printf("Ostra Kernel %u.0.%u (0x%08x)\n", unsigned(KAKERNEL_VERSION_MAJOR(v)),
                  unsigned(KAKERNEL_VERSION_BUILD(v)), unsigned(v));
      if (!check.empty())
        std::printf("a client needing 0x%08x %s\n", unsigned(required),
                    compatible == S_OK ? "can use this kernel" : "needs a newer kernel");
    }
    if (compatible != S_OK) ostra::cli::exitStatus() = 1;
  });
}

OSTRA_COMMAND("version", "Print the kernel version, or check a client's required version", setup);

}  // namespace
