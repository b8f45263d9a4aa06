// Summary (LIST/INFO and UNFO) loading over arbitrary bytes in memory. The first four
// bytes of the input are the remaining-bytes budget the caller would pass, the rest is the
// list body. Texts without terminators, sizes past the end and zero or odd sizes must come
// back as a result code with the list either filled or empty, never a crash or a leak.
#include <cstdint>
#include <cstdlib>

#include "formats/riff/internal/source_parsers.h"
#include "memory_file.h"
#include "ostra/kaplatform.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  namespace riff = ostra::riff;
  const DWORD remaining = ostra::fuzz::takeWord(data, size);
  ostra::fuzz::MemoryFile f(data, size);
  _summarylisttag list{0, nullptr};
  if (SUCCEEDED(riff::summaryLoad(f, &list, &remaining))) {
    // What was loaded must be a well-formed list: every text terminated, saved again.
    for (DWORD i = 0; i < list.count; ++i)
      if (list.items[i].text) KaText_WideLength(list.items[i].text);
    f.seek(f.size());
    riff::summarySave(f, &list, nullptr);
  } else if (list.count || list.items) {
    std::abort();  // a failed load must leave the list empty
  }
  KaSummary_Free(&list);
  f.seek(0);
  if (SUCCEEDED(riff::summaryLoadUnfo(f, &list, &remaining)))
    riff::summarySaveUnfo(f, &list, nullptr);
  KaSummary_Free(&list);
  f.seek(0);
  KAWCHAR text[16];
  DWORD budget = remaining;
  riff::summaryGetString(f, KASUMMARY_INAM, text, 16, &budget);
  return 0;
}
