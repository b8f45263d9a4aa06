// UTF-16 printf: fields are parsed here; numbers are rendered by the C library's narrow
// printf (ASCII only, so widening is exact) and strings are padded in UTF-16 units.
#include "kernel/internal/wformat.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "platform/internal/text.h"

namespace ostra::kernel {
namespace {

enum class Len { kInt, kShort, kChar, k64, kSize };

struct Field {
  char flags[6] = {};
  int width = -1;
  int precision = -1;
  Len len = Len::kInt;
  bool narrow = false;  // %hs / %S / %hc / %C
  char conv = 0;
};

// Where the arguments come from: a checked array or a C va_list.
class ArraySource {
 public:
  ArraySource(const WArg* args, size_t count) : args_(args), count_(count) {}
  bool integer(Len, bool, uint64_t& v) {
    const WArg* a = next();
    if (!a || (a->kind != WArg::kSigned && a->kind != WArg::kUnsigned)) return false;
    v = a->u;
    return true;
  }
  bool real(double& v) {
    const WArg* a = next();
    if (!a || a->kind != WArg::kDouble) return false;
    v = a->d;
    return true;
  }
  bool string(bool, const KAWCHAR*& w, const char*& n) {
    const WArg* a = next();
    if (!a) return false;
    if (a->kind == WArg::kWide)
      w = a->w, n = nullptr;
    else if (a->kind == WArg::kNarrow)
      n = a->n, w = nullptr;
    else
      return false;
    return true;
  }
  bool pointer(const void*& p) {
    const WArg* a = next();
    if (!a || (a->kind != WArg::kPointer && a->kind != WArg::kUnsigned)) return false;
    p = a->p;
    return true;
  }

 private:
  const WArg* next() { return index_ < count_ ? &args_[index_++] : nullptr; }
  const WArg* args_;
  size_t count_;
  size_t index_ = 0;
};

class VaSource {
 public:
  explicit VaSource(va_list ap) { va_copy(ap_, ap); }
  ~VaSource() { va_end(ap_); }
  bool integer(Len len, bool isSigned, uint64_t& v) {
    switch (len) {
      case Len::k64:
        v = isSigned ? uint64_t(va_arg(ap_, long long)) : va_arg(ap_, unsigned long long);
        break;
      case Len::kSize:
        v = isSigned ? uint64_t(va_arg(ap_, ptrdiff_t)) : va_arg(ap_, size_t);
        break;
      default:
        v = isSigned ? uint64_t(int64_t(va_arg(ap_, int))) : va_arg(ap_, unsigned);
        break;
    }
    return true;
  }
  bool real(double& v) {
    v = va_arg(ap_, double);
    return true;
  }
  bool string(bool narrow, const KAWCHAR*& w, const char*& n) {
    if (narrow)
      n = va_arg(ap_, const char*), w = nullptr;
    else
      w = va_arg(ap_, const KAWCHAR*), n = nullptr;
    return true;
  }
  bool pointer(const void*& p) {
    p = va_arg(ap_, const void*);
    return true;
  }

 private:
  va_list ap_;
};

void pad(std::u16string& out, int n) {
  if (n > 0) out.append(size_t(n), u' ');
}

void appendPadded(std::u16string& out, std::u16string_view s, const Field& f) {
  const bool left = std::strchr(f.flags, '-') != nullptr;
  const int fill = f.width > int(s.size()) ? f.width - int(s.size()) : 0;
  if (!left) pad(out, fill);
  out.append(s);
  if (left) pad(out, fill);
}

bool appendNarrowPrintf(std::u16string& out, const char* spec, ...) {
  char small[128];
  va_list ap, ap2;
  va_start(ap, spec);
  va_copy(ap2, ap);
  const int n = std::vsnprintf(small, sizeof small, spec, ap);
  va_end(ap);
  bool ok = n >= 0;
  if (ok && size_t(n) < sizeof small) {
    out.append(small, small + n);
  } else if (ok) {
    std::string big(size_t(n) + 1, '\0');
    std::vsnprintf(big.data(), big.size(), spec, ap2);
    out.append(big.begin(), big.begin() + n);
  }
  va_end(ap2);
  return ok;
}

// Reads one field after its '%'; `p` ends on the conversion character.
template <class Source>
bool parseField(const KAWCHAR*& p, Field& f, Source& src) {
  size_t nf = 0;
  while (*p == u'-' || *p == u'+' || *p == u' ' || *p == u'#' || *p == u'0') {
    if (nf < sizeof f.flags - 1 && !std::strchr(f.flags, char(*p))) f.flags[nf++] = char(*p);
    ++p;
  }
  // A star reads the value from the arguments; a negative star width means
  // left-justified, a negative star precision means none.
  auto number = [&](int& v, bool isWidth) {
    if (*p == u'*') {
      ++p;
      uint64_t star;
      if (!src.integer(Len::kInt, true, star)) return false;
      int64_t s = int32_t(star);
      if (s < 0 && isWidth) {
        if (nf < sizeof f.flags - 1 && !std::strchr(f.flags, '-')) f.flags[nf++] = '-';
        s = -s;
      }
      v = s < 0 ? -1 : s > kMaxWidth ? kMaxWidth + 1 : int(s);
      return true;
    }
    if (*p < u'0' || *p > u'9') return true;
    v = 0;
    while (*p >= u'0' && *p <= u'9') {
      v = v * 10 + (*p++ - u'0');
      if (v > kMaxWidth) return false;
    }
    return true;
  };
  if (!number(f.width, true)) return false;
  if (*p == u'.') {
    ++p;
    f.precision = 0;
    if (!number(f.precision, false)) return false;
  }
  if (f.width > kMaxWidth || f.precision > kMaxWidth) return false;
  if (p[0] == u'h' && p[1] == u'h')
    f.len = Len::kChar, p += 2;
  else if (p[0] == u'h')
    f.len = Len::kShort, f.narrow = true, ++p;
  else if (p[0] == u'l' && p[1] == u'l')
    f.len = Len::k64, p += 2;
  else if (p[0] == u'l' || p[0] == u'w')
    ++p;
  else if (p[0] == u'I' && p[1] == u'6' && p[2] == u'4')
    f.len = Len::k64, p += 3;
  else if (p[0] == u'I' && p[1] == u'3' && p[2] == u'2')
    p += 3;
  else if (p[0] == u'j')
    f.len = Len::k64, ++p;
  else if (p[0] == u'z' || p[0] == u't' || p[0] == u'I')
    f.len = Len::kSize, ++p;
  if (*p == 0 || *p > 0x7F) return false;
  f.conv = char(*p);
  if (f.conv == 'S' || f.conv == 'C') f.narrow = true;
  return true;
}

template <class Source>
bool formatField(std::u16string& out, const Field& f, Source& src) {
  std::string spec = "%";
  spec += f.flags;
  if (f.width >= 0) spec += std::to_string(f.width);
  if (f.precision >= 0) {
    spec += '.';
    spec += std::to_string(f.precision);
  }
  switch (f.conv) {
    case 'd':
    case 'i':
    case 'u':
    case 'x':
    case 'X':
    case 'o': {
      const bool isSigned = f.conv == 'd' || f.conv == 'i';
      uint64_t v;
      if (!src.integer(f.len, isSigned, v)) return false;
      // Narrow the value to the field's size, as printf would.
      switch (f.len) {
        case Len::kChar:
          v = isSigned ? uint64_t(int64_t(int8_t(v))) : uint8_t(v);
          break;
        case Len::kShort:
          v = isSigned ? uint64_t(int64_t(int16_t(v))) : uint16_t(v);
          break;
        case Len::kInt:
          v = isSigned ? uint64_t(int64_t(int32_t(v))) : uint32_t(v);
          break;
        default:
          break;
      }
      spec += "ll";
      spec += f.conv;
      return isSigned ? appendNarrowPrintf(out, spec.c_str(), (long long)(v))
                      : appendNarrowPrintf(out, spec.c_str(), (unsigned long long)(v));
    }
    case 'e':
    case 'E':
    case 'f':
    case 'F':
    case 'g':
    case 'G':
    case 'a':
    case 'A': {
      double v;
      if (!src.real(v)) return false;
      spec += f.conv;
      return appendNarrowPrintf(out, spec.c_str(), v);
    }
    case 'p': {
      const void* v;
      if (!src.pointer(v)) return false;
      return appendNarrowPrintf(out, "%0*llX", int(2 * sizeof(void*)),
                                (unsigned long long)(uintptr_t(v)));
    }
    case 'c':
    case 'C': {
      uint64_t v;
      if (!src.integer(Len::kInt, false, v)) return false;
      const KAWCHAR c = f.narrow ? KAWCHAR(uint8_t(v)) : KAWCHAR(v);
      appendPadded(out, std::u16string_view(&c, 1), f);
      return true;
    }
    case 's':
    case 'S': {
      const KAWCHAR* w;
      const char* n;
      if (!src.string(f.narrow, w, n)) return false;
      std::u16string converted;
      std::u16string_view s;
      if (w)
        s = w;
      else if (n)
        s = converted = ostra::text::utf8ToUtf16(n);
      else
        s = u"(null)";
      if (f.precision >= 0 && size_t(f.precision) < s.size()) s = s.substr(0, size_t(f.precision));
      appendPadded(out, s, f);
      return true;
    }
    default:
      return false;  // %n and anything unknown
  }
}

template <class Source>
bool formatCore(std::u16string& out, const KAWCHAR* format, Source& src) {
  if (!format) return false;
  try {
    for (const KAWCHAR* p = format; *p; ++p) {
      if (*p != u'%') {
        const KAWCHAR* run = p;
        while (p[1] && p[1] != u'%') ++p;
        out.append(run, size_t(p - run + 1));
        continue;
      }
      ++p;
      if (*p == u'%') {
        out += u'%';
        continue;
      }
      Field f;
      if (!parseField(p, f, src) || !formatField(out, f, src)) return false;
    }
    return true;
  } catch (...) {
    return false;
  }
}

}  // namespace

bool formatWide(std::u16string& out, const KAWCHAR* format, const WArg* args, size_t count) {
  ArraySource src(args, count);
  return formatCore(out, format, src);
}

bool vformatWide(std::u16string& out, const KAWCHAR* format, va_list ap) {
  VaSource src(ap);
  return formatCore(out, format, src);
}

int formatWideBuffer(KAWCHAR* buffer, size_t capacity, const KAWCHAR* format, ...) {
  if (!buffer || capacity == 0) return -1;
  std::u16string text;
  va_list ap;
  va_start(ap, format);
  const bool ok = vformatWide(text, format, ap);
  va_end(ap);
  const size_t n = std::min(text.size(), capacity - 1);
  std::copy_n(text.data(), n, buffer);
  buffer[n] = 0;
  return ok ? int(n) : -1;
}

void replaceAppName(std::u16string& text, std::u16string_view name) {
  static constexpr std::u16string_view kPlaceholder = u"$(AppName)";
  for (size_t pos = text.find(kPlaceholder); pos != std::u16string::npos;
       pos = text.find(kPlaceholder, pos + name.size()))
    text.replace(pos, kPlaceholder.size(), name);
}

}  // namespace ostra::kernel
