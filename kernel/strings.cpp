// Placeholder until the generated resource tables land: no text is known yet.
#include "kernel/internal/strings.h"

namespace ostra::kernel {

const KAWCHAR* kernelString(DWORD) noexcept { return nullptr; }

}  // namespace ostra::kernel
