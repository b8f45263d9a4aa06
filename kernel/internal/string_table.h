// The compiled string records (generated from resources/strings by ostra_strgen) and the
// language module's internal entry points. Owned by kernel/strings.cpp and kernel/lang.cpp.
#pragma once

#include <string_view>

#include "ostra/kadefs.h"

namespace ostra::kernel {

namespace generated {
struct StringEntry {
  unsigned id;
  const char16_t* record;  // 0xFEFF, language count, one zero-terminated text per language
};
extern const char* const kLanguageNames[];
extern const unsigned kLanguageCount;
extern const StringEntry kStrings[];  // sorted by id
extern const unsigned kStringCount;
}  // namespace generated

// The text of a record in a language; an empty or absent slot gives the English text.
// Null for a record without the marker.
const KAWCHAR* recordText(const char16_t* record, int language) noexcept;
// The kernel's own record for a string number or result code, or null.
const char16_t* kernelRecord(DWORD id) noexcept;

// The language slot for a locale name such as "de", "de_DE.UTF-8", "ja-JP" or "zh_TW";
// "C", "POSIX" and "" are English; -1 when no slot matches.
int languageFromLocale(std::string_view locale) noexcept;
// The slot the environment asks for (LC_ALL, then LC_MESSAGES, then LANG), English when
// none is set or none matches.
int environmentLanguage() noexcept;
// The language of the kernel's texts: the kernel's language handle when it is open, else
// the language the host forced, else the environment's.
int kernelLanguage() noexcept;

// The language handle opened at start-up (null before and after).
HKALANG kernelLangHandle() noexcept;
void setKernelLangHandle(HKALANG lang) noexcept;

}  // namespace ostra::kernel
