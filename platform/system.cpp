#include <unistd.h>

#include <cstdlib>
#include <initializer_list>

#include "platform/internal/system.h"

namespace ostra::platform {

uint32_t processorCount() noexcept {
  const long n = sysconf(_SC_NPROCESSORS_ONLN);
  return n > 0 ? uint32_t(n) : 1u;
}

}  // namespace ostra::platform

#include "ostra/kaplatform.h"

BOOL KaConsole_IsTerminal(int stream) noexcept { return isatty(stream) ? TRUE : FALSE; }

namespace ostra::platform {

const char* messageLocale() noexcept {
  for (const char* var : {"LC_ALL", "LC_MESSAGES", "LANG"})
    if (const char* v = std::getenv(var); v && *v) return v;
  return nullptr;
}

}  // namespace ostra::platform
