// Facts about the machine that come from the operating system.
#pragma once

#include <cstdint>

namespace ostra::platform {

uint32_t processorCount() noexcept;

}  // namespace ostra::platform
