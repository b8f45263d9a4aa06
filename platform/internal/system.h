// Facts about the machine that come from the operating system.
// Shared with: kernel/
#pragma once

#include <cstdint>

namespace ostra::platform {

uint32_t processorCount() noexcept;

// The locale the user chose for messages (LC_ALL, else LC_MESSAGES, else LANG), or null
// when none is set. The text belongs to the environment: copy it before the next call.
const char* messageLocale() noexcept;

}  // namespace ostra::platform
