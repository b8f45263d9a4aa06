// The per-process details text of the error handler (kernel/details.cpp).
#pragma once

#include <string>

#include "ostra/kadefs.h"

namespace ostra::kernel {

// Copies the details text; returns its line count.
DWORD detailsSnapshot(std::u16string& text);

}  // namespace ostra::kernel
