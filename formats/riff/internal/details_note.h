// What a parser met in a file that still reads (a size clamped to the file, a chunk
// skipped, a header field repaired) goes to the kernel's details text as one line, the
// way the details of a failure do. A note never changes the code the details belong to:
// it joins a failure's lines under that failure's code, and stands under S_OK alone.
#pragma once

#include <cstdarg>
#include <cstdio>

#include "ostra/kadefs.h"
#include "ostra/kaerror.h"

namespace ostra::riff {

[[gnu::format(printf, 1, 2)]] inline void note(const char* format, ...) {
  char line[512];
  va_list ap;
  va_start(ap, format);
  std::vsnprintf(line, sizeof line, format, ap);
  va_end(ap);
  HRESULT code = S_OK;
  DWORD lines = 0;
  KaErrorHandler_DetailsInfo(&code, &lines, nullptr);
  KaErrorHandler_DetailsAddString(lines ? code : S_OK, u"%hs", line);
}

// A chunk id as four printable characters ('?' for the others), for note lines.
struct IdText {
  char text[5];
  explicit IdText(DWORD fileOrderId) {
    for (int i = 0; i < 4; ++i) {
      const char c = char(fileOrderId >> (8 * i));
      text[i] = c >= 0x20 && c < 0x7F ? c : '?';
    }
    text[4] = 0;
  }
};

}  // namespace ostra::riff
