// The smallest program built against an installed Ostra Kernel.
#include <ostra/ostra.h>

#include <cstdio>

int main() {
  const DWORD v = KaKernel_GetVersion();
  std::printf("Ostra Kernel %u.0.%u\n", unsigned(KAKERNEL_VERSION_MAJOR(v)),
              unsigned(KAKERNEL_VERSION_BUILD(v)));
  return v == KAKERNEL_VERSION ? 0 : 1;
}
