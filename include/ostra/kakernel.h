// Library frame: start-up and shut-down, version and compatibility checks, and the
// language resources through which every user-visible text is chosen.
#pragma once

#include "ostra/kadefs.h"

#define KAKERNEL_VERSION 0x11000141u
#define KAKERNEL_VERSION_MAJOR(v) (((v) >> 24) & 0xFFu)
#define KAKERNEL_VERSION_BUILD(v) ((v) & 0x00FFFFFFu)

OSTRA_API DWORD KaKernel_GetVersion() noexcept;
