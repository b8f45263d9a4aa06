// Display-list loading (DISP chunks and their Wave64 form) over arbitrary bytes. The
// first four bytes are the remaining-bytes budget, the rest the chunks.
#include <cstdint>

#include "ostra/kawave.h"
#include "scratch_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const ostra::fuzz::ScratchFile scratch("displist");
  const DWORD budget = ostra::fuzz::takeWord(data, size);
  const KAHFILE f = scratch.open(data, size);
  if (f == KA_INVALID_HFILE) return 0;
  _displisttag* list = displist_Create();
  if (list) {
    DWORD remaining = budget;
    displist_Load(f, list, &remaining);
    INT64 remaining64 = INT64(budget);
    displist64_Load(f, list, &remaining64);
    KaFile_Seek(f, 0, FILE_END, nullptr);
    displist_Save(f, list, nullptr);
    displist64_Save(f, list, nullptr);
    displist_Destroy(list);
  }
  KaFile_Close(f);
  return 0;
}
