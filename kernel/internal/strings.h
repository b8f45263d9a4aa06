// Access to the kernel's localized string resources from inside the library.
// Shared with: audio/, image/, engine/
#pragma once

#include "ostra/kadefs.h"

namespace ostra::kernel {

// The text for a string number (below 0x10000) or a result code, in the kernel's current
// language with English as the fallback; null when no table has it. The pointer stays
// valid for the life of the process.
const KAWCHAR* kernelString(DWORD id) noexcept;

}  // namespace ostra::kernel
