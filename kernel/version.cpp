#include "ostra/kakernel.h"

DWORD KaKernel_GetVersion() noexcept { return KAKERNEL_VERSION; }
