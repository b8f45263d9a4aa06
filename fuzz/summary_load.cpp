// Summary (LIST/INFO and UNFO) loading over arbitrary bytes. The first four bytes of the
// input are the remaining-bytes budget the caller would pass, the rest is the list body.
// Texts without terminators, sizes past the end and zero or odd sizes must come back as
// a result code with the list either filled or empty, never a crash or a leak.
#include <cstdint>
#include <cstdlib>

#include "ostra/kawave.h"
#include "scratch_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const ostra::fuzz::ScratchFile scratch("summary");
  const DWORD remaining = ostra::fuzz::takeWord(data, size);
  const KAHFILE f = scratch.open(data, size);
  if (f == KA_INVALID_HFILE) return 0;
  _summarylisttag list{0, nullptr};
  if (SUCCEEDED(KaSummary_Load(f, &list, &remaining))) {
    // What was loaded must be a well-formed list: every text terminated, saved again.
    for (DWORD i = 0; i < list.count; ++i)
      if (list.items[i].text) KaText_WideLength(list.items[i].text);
    KaFile_Seek(f, 0, FILE_END, nullptr);
    KaSummary_Save(f, &list, nullptr);
  } else if (list.count || list.items) {
    std::abort();  // a failed load must leave the list empty
  }
  KaSummary_Free(&list);
  KaFile_Seek(f, 0, FILE_BEGIN, nullptr);
  if (SUCCEEDED(KaSummary_LoadUNFO(f, &list, &remaining))) KaSummary_SaveUNFO(f, &list, nullptr);
  KaSummary_Free(&list);
  KaFile_Seek(f, 0, FILE_BEGIN, nullptr);
  KAWCHAR text[16];
  DWORD budget = remaining;
  KaSummary_GetStringFromFile(f, KASUMMARY_INAM, text, 16, &budget);
  KaFile_Close(f);
  return 0;
}
