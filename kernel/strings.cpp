// Lookup of the kernel's compiled string records by string number or result code.
#include <algorithm>

#include "kernel/internal/string_table.h"
#include "kernel/internal/strings.h"

namespace ostra::kernel {

const KAWCHAR* recordText(const char16_t* record, int language) noexcept {
  if (!record || record[0] != 0xFEFF || record[1] == 0) return nullptr;
  const unsigned count = record[1];
  const char16_t* english = record + 2;
  if (language <= 0 || unsigned(language) >= count) return english;
  const char16_t* p = english;
  for (int i = 0; i < language; ++i) {
    while (*p) ++p;
    ++p;
  }
  return *p ? p : english;
}

const char16_t* kernelRecord(DWORD id) noexcept {
  using namespace generated;
  const StringEntry* end = kStrings + kStringCount;
  const StringEntry* it = std::lower_bound(
      kStrings, end, id, [](const StringEntry& e, DWORD key) { return e.id < key; });
  return it != end && it->id == id ? it->record : nullptr;
}

const KAWCHAR* kernelString(DWORD id) noexcept {
  return recordText(kernelRecord(id), kernelLanguage());
}

}  // namespace ostra::kernel
