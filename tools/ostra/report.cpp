#include <cstdio>

#include "command.h"
#include "ostra/kaerror.h"

namespace ostra::cli {

int reportFailure(HRESULT hr, const std::string& context, DWORD contextId) {
  (void)contextId;
  if (context.empty())
    std::fprintf(stderr, "ostra: error 0x%08x\n", unsigned(hr));
  else
    std::fprintf(stderr, "ostra: %s: error 0x%08x\n", context.c_str(), unsigned(hr));
  return exitStatus() = 1;
}

}  // namespace ostra::cli
