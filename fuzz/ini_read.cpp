// Settings files on hostile bytes (any encoding, marks, broken lines, huge names): every
// section, every key of it, as text and as a number, the way the plug-in settings and the
// tool's caches read them. Reads only; the file is served from memory.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "memory_fd.h"
#include "ostra/kaini.h"

namespace {

// The names in a double-terminated list, each checked to lie inside the buffer.
std::vector<const KAWCHAR*> names(const std::vector<KAWCHAR>& list, DWORD used) {
  if (used >= list.size()) std::abort();
  std::vector<const KAWCHAR*> out;
  for (DWORD i = 0; i < used && list[i];) {
    out.push_back(&list[i]);
    while (i < used && list[i]) ++i;
    ++i;
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static ostra::fuzz::MemoryDescriptor memory;
  if (size > (1u << 16)) return 0;
  memory.open(data, size);
  const KAWCHAR* path = ostra::fuzz::MemoryDescriptor::kWidePath;
  std::vector<KAWCHAR> sections(4096), keys(4096), value(256);
  const DWORD s = KaIni_GetSectionNames(sections.data(), DWORD(sections.size()), path);
  int budget = 64;
  for (const KAWCHAR* section : names(sections, s)) {
    const DWORD k = KaIni_GetKeyNames(section, keys.data(), DWORD(keys.size()), path);
    for (const KAWCHAR* key : names(keys, k)) {
      if (--budget < 0) return 0;
      const DWORD n = KaIni_GetString(section, key, u"", value.data(), DWORD(value.size()), path);
      if (n >= value.size() || value[n] != 0) std::abort();
      KaIni_GetInt(section, key, -1, path);
    }
  }
  return 0;
}
