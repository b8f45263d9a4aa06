// Display-list loading (DISP chunks and their Wave64 form) over arbitrary bytes in memory.
// The first four bytes are the remaining-bytes budget, the rest the chunks.
#include <cstdint>

#include "formats/riff/internal/source_parsers.h"
#include "memory_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  namespace riff = ostra::riff;
  const DWORD budget = ostra::fuzz::takeWord(data, size);
  ostra::fuzz::MemoryFile f(data, size);
  _displisttag* list = displist_Create();
  if (list) {
    DWORD remaining = budget;
    riff::displistLoad(f, list, &remaining);
    INT64 remaining64 = INT64(budget);
    riff::displist64Load(f, list, &remaining64);
    f.seek(f.size());
    riff::displistSave(f, list, nullptr);
    riff::displist64Save(f, list, nullptr);
    displist_Destroy(list);
  }
  return 0;
}
