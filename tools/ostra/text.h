// UTF-8 and UTF-16 conversions for the tool, through the kernel's exported text functions
// (the tool links the shared library, so the internal helpers are out of reach).
#pragma once

#include <string>
#include <vector>

#include "ostra/kadefs.h"

namespace ostra::cli {

std::string toUtf8(const KAWCHAR* text);
std::u16string toUtf16(const std::string& utf8);
// Four-character code as printable text; other bytes as \xNN.
std::string fourCCText(DWORD littleEndianId);
// GUID in its registry form without braces, upper case.
std::string guidText(const GUID& g);
// The kernel's details lines (what its parsers repaired, skipped or clamped), which are
// then cleared.
std::vector<std::string> takeKernelDetails();

}  // namespace ostra::cli
