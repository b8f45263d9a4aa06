// The one formatter for UTF-16 templates with printf-style fields, used wherever the
// kernel formats a wide text (error messages, details lines, dumps).
//
// Fields: %[flags][width][.precision][length]conversion with flags "-+ #0", width and
// precision as digits or "*", and the conversions d i u x X o c s e E f F g G a A p and %%.
// The lengths follow the 32-bit-long convention of the interface (DWORD and LONG are 32
// bits): none, "h", "hh" and "l" are 32-bit (or narrower) integers, "ll", "I64", "j" are
// 64-bit, "z", "t" and "I" are pointer-sized. %s and %ls take a KAWCHAR string, %hs and
// %S a UTF-8 string, %c a UTF-16 unit; a null string prints "(null)". %n is refused.
// Width and precision are limited to kMaxWidth so that a hostile template cannot ask for
// a gigabyte of padding.
// Shared with: audio/
#pragma once

#include <cstdarg>
#include <cstdint>
#include <string>

#include "ostra/kadefs.h"

namespace ostra::kernel {

inline constexpr int kMaxWidth = 4096;

// One argument of a field, for callers that format templates they did not write: the
// kinds are checked against the fields, so a template asking for a number where a string
// was given is refused instead of reading garbage.
struct WArg {
  enum Kind : uint8_t { kSigned, kUnsigned, kDouble, kWide, kNarrow, kPointer };
  Kind kind;
  union {
    int64_t i;
    uint64_t u;
    double d;
    const KAWCHAR* w;
    const char* n;
    const void* p;
  };
  static WArg wide(const KAWCHAR* s) {
    WArg a{kWide, {}};
    a.w = s;
    return a;
  }
  static WArg narrow(const char* s) {
    WArg a{kNarrow, {}};
    a.n = s;
    return a;
  }
  static WArg sint(int64_t v) {
    WArg a{kSigned, {}};
    a.i = v;
    return a;
  }
  static WArg uint(uint64_t v) {
    WArg a{kUnsigned, {}};
    a.u = v;
    return a;
  }
  static WArg real(double v) {
    WArg a{kDouble, {}};
    a.d = v;
    return a;
  }
};

// Appends the formatted text to `out`. False when a field is malformed, when there are
// fewer arguments than fields or one does not fit its field; `out` then holds the text up
// to the bad field. Extra arguments are ignored.
bool formatWide(std::u16string& out, const KAWCHAR* format, const WArg* args, size_t count);
// The same with C variadic arguments, read as the fields say (the caller vouches for
// the template as with printf).
bool vformatWide(std::u16string& out, const KAWCHAR* format, va_list ap);
// Formats into a fixed buffer, truncating to capacity - 1 units plus the terminator.
// Returns the units written, or -1 when the template is malformed (the buffer then holds
// the text up to the bad field).
int formatWideBuffer(KAWCHAR* buffer, size_t capacity, const KAWCHAR* format, ...);

// Replaces every "$(AppName)" in `text`.
void replaceAppName(std::u16string& text, std::u16string_view name);

}  // namespace ostra::kernel
