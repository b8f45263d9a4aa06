#include <cstdio>

#include "command.h"
#include "ostra/kakernel.h"

namespace {

void setup(CLI::App& cmd) {
  cmd.callback([] {
    const DWORD v = KaKernel_GetVersion();
    std::printf("Ostra Kernel %u.0.%u (0x%08x)\n", unsigned(KAKERNEL_VERSION_MAJOR(v)),
                unsigned(KAKERNEL_VERSION_BUILD(v)), unsigned(v));
  });
}

OSTRA_COMMAND("version", "Print the kernel version", setup);

}  // namespace
