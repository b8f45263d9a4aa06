// Module handles on POSIX (kernel/modules.cpp): an address inside a module's code stands
// for it (zero-initialised data may live in anonymous memory that no file holds).
#pragma once

#include <string>

#include "ostra/kadefs.h"

namespace ostra::kernel {

// The file of the mapping that holds `address`; KAERR_NOT_FOUND when none does, or the
// code of the failure to read the process's map.
HRESULT modulePathOf(const void* address, std::string& path);
// The start of the executable's first mapping, or null.
const void* executableAddress() noexcept;

}  // namespace ostra::kernel
