// The print-token registry (kernel/print_tokens.cpp): the process-wide thread-safe list of
// 8-byte tokens the formatted-print functions share. Opened by start-up, closed by
// shut-down.
#pragma once

#include "ostra/kalist.h"

namespace ostra::kernel {

// Creates the registry unless it exists; false when it cannot be created.
bool openPrintTokenRegistry() noexcept;
// Destroys the registry; a second call does nothing.
void closePrintTokenRegistry() noexcept;
// The registry, or null before start-up and after shut-down.
tKALIST* printTokenRegistry() noexcept;

}  // namespace ostra::kernel
