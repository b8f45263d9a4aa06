// UTF-8 / UTF-16 helpers for code inside the kernel (the exported KaText_* functions
// wrap the same code for callers).
// Shared with: formats/, kernel/, fileio/, engine/
#pragma once

#include <string>
#include <string_view>

#include "ostra/kadefs.h"

namespace ostra::text {

std::u16string utf8ToUtf16(std::string_view s);
std::string utf16ToUtf8(std::u16string_view s);
inline std::string utf16ToUtf8(const KAWCHAR* s) {
  return s ? utf16ToUtf8(std::u16string_view(s)) : std::string();
}
// The process's ANSI code page, through iconv; invalid input is replaced, never refused.
std::u16string ansiToUtf16(std::string_view s);
std::string utf16ToAnsi(std::u16string_view s);

}  // namespace ostra::text
