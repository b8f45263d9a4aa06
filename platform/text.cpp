// Text encodings: UTF-8 <-> UTF-16 by hand (exact and fast), every other code page
// through the C library's iconv. The ANSI code page is a process setting.
#include <iconv.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "ostra/kaplatform.h"
#include "platform/internal/text.h"

namespace ostra::text {

std::u16string utf8ToUtf16(std::string_view s) {
  std::u16string out;
  out.reserve(s.size());
  size_t i = 0;
  const auto* p = reinterpret_cast<const unsigned char*>(s.data());
  while (i < s.size()) {
    const unsigned c = p[i];
    uint32_t cp = 0xFFFD;
    size_t len = 1;
    if (c < 0x80) {
      cp = c;
    } else if (c >= 0xC2 && c <= 0xF4) {
      const size_t need = c < 0xE0 ? 2 : c < 0xF0 ? 3 : 4;
      uint32_t v = c & (0x3F >> (need - 1));
      size_t k = 1;
      for (; k < need && i + k < s.size() && (p[i + k] & 0xC0) == 0x80; ++k)
        v = (v << 6) | (p[i + k] & 0x3F);
      const bool overlong = (need == 3 && v < 0x800) || (need == 4 && v < 0x10000);
      if (k == need && !overlong && v <= 0x10FFFF && (v < 0xD800 || v > 0xDFFF)) {
        cp = v;
        len = need;
      } else {
        len = k;  // skip the malformed sequence as one replacement
      }
    }
    if (cp >= 0x10000) {
      cp -= 0x10000;
      out.push_back(char16_t(0xD800 + (cp >> 10)));
      out.push_back(char16_t(0xDC00 + (cp & 0x3FF)));
    } else {
      out.push_back(char16_t(cp));
    }
    i += len;
  }
  return out;
}

std::string utf16ToUtf8(std::u16string_view s) {
  std::string out;
  out.reserve(s.size());
  for (size_t i = 0; i < s.size(); ++i) {
    uint32_t cp = s[i];
    if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < s.size() && s[i + 1] >= 0xDC00 &&
        s[i + 1] <= 0xDFFF) {
      cp = 0x10000 + ((cp - 0xD800) << 10) + (s[i + 1] - 0xDC00);
      ++i;
    } else if (cp >= 0xD800 && cp <= 0xDFFF) {
      cp = 0xFFFD;
    }
    if (cp < 0x80) {
      out.push_back(char(cp));
    } else if (cp < 0x800) {
      out.push_back(char(0xC0 | (cp >> 6)));
      out.push_back(char(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
      out.push_back(char(0xE0 | (cp >> 12)));
      out.push_back(char(0x80 | ((cp >> 6) & 0x3F)));
      out.push_back(char(0x80 | (cp & 0x3F)));
    } else {
      out.push_back(char(0xF0 | (cp >> 18)));
      out.push_back(char(0x80 | ((cp >> 12) & 0x3F)));
      out.push_back(char(0x80 | ((cp >> 6) & 0x3F)));
      out.push_back(char(0x80 | (cp & 0x3F)));
    }
  }
  return out;
}

namespace {

std::atomic<UINT> gAnsiCodePage{1252};

std::string iconvName(UINT cp) {
  if (cp == KA_CP_UTF8) return "UTF-8";
  if (cp >= 28591 && cp <= 28599) return "ISO-8859-" + std::to_string(cp - 28590);
  if (cp >= 1250 && cp <= 1258) return "WINDOWS-" + std::to_string(cp);
  return "CP" + std::to_string(cp);
}

// One conversion through iconv. Unconvertible input is replaced (one replacement per
// bad unit) rather than refused, as the chunk readers must never fail on odd text.
bool convert(const char* to, const char* from, const char* in, size_t inBytes, size_t unit,
             std::string& out, const char* replacement, size_t replacementBytes,
             bool strict = false) {
  iconv_t cd = iconv_open(to, from);
  if (cd == iconv_t(-1)) return false;
  out.clear();
  char buf[1024];
  char* src = const_cast<char*>(in);
  size_t left = inBytes;
  while (left > 0) {
    char* dst = buf;
    size_t room = sizeof buf;
    const size_t rc = iconv(cd, &src, &left, &dst, &room);
    out.append(buf, size_t(dst - buf));
    if (rc == size_t(-1)) {
      if (errno == E2BIG) continue;
      if (strict) {
        iconv_close(cd);
        return false;
      }
      // EILSEQ or EINVAL (truncated sequence): replace one unit and go on.
      out.append(replacement, replacementBytes);
      const size_t skip = left < unit ? left : unit;
      src += skip;
      left -= skip;
      iconv(cd, nullptr, nullptr, nullptr, nullptr);
    }
  }
  char* dst = buf;
  size_t room = sizeof buf;
  iconv(cd, nullptr, nullptr, &dst, &room);
  out.append(buf, size_t(dst - buf));
  iconv_close(cd);
  return true;
}

bool toUtf16(UINT cp, std::string_view s, std::u16string& out) {
  if (cp == KA_CP_ACP) cp = gAnsiCodePage.load();
  if (cp == KA_CP_UTF8) {
    out = utf8ToUtf16(s);
    return true;
  }
  std::string bytes;
  static const char kRep[2] = {char(0xFD), char(0xFF)};
  if (!convert("UTF-16LE", iconvName(cp).c_str(), s.data(), s.size(), 1, bytes, kRep, 2))
    return false;
  out.resize(bytes.size() / 2);
  for (size_t i = 0; i < out.size(); ++i)
    out[i] = char16_t(uint8_t(bytes[2 * i]) | (uint8_t(bytes[2 * i + 1]) << 8));
  return true;
}

bool fromUtf16(UINT cp, std::u16string_view s, std::string& out, bool strict = false) {
  if (cp == KA_CP_ACP) cp = gAnsiCodePage.load();
  if (cp == KA_CP_UTF8) {
    out = utf16ToUtf8(s);
    return true;
  }
  std::string le(s.size() * 2, '\0');
  for (size_t i = 0; i < s.size(); ++i) {
    le[2 * i] = char(s[i] & 0xFF);
    le[2 * i + 1] = char(s[i] >> 8);
  }
  if (strict)
    return convert(iconvName(cp).c_str(), "UTF-16LE", le.data(), le.size(), 2, out, "", 0, true);
  return convert((iconvName(cp) + "//TRANSLIT").c_str(), "UTF-16LE", le.data(), le.size(), 2, out,
                 "?", 1);
}

}  // namespace

std::u16string ansiToUtf16(std::string_view s) {
  std::u16string out;
  if (!toUtf16(KA_CP_ACP, s, out)) out = utf8ToUtf16(s);
  return out;
}

std::string utf16ToAnsi(std::u16string_view s) {
  std::string out;
  if (!fromUtf16(KA_CP_ACP, s, out)) out = utf16ToUtf8(s);
  return out;
}

}  // namespace ostra::text

using namespace ostra::text;

HRESULT KaText_SetAnsiCodePage(UINT codePage) noexcept {
  if (codePage == KA_CP_ACP) return E_INVALIDARG;
  iconv_t cd = iconv_open("UTF-16LE", iconvName(codePage).c_str());
  if (cd == iconv_t(-1)) return E_INVALIDARG;
  iconv_close(cd);
  gAnsiCodePage.store(codePage);
  return S_OK;
}

UINT KaText_GetAnsiCodePage() noexcept { return gAnsiCodePage.load(); }

size_t KaText_WideLength(const KAWCHAR* s) noexcept {
  if (!s) return 0;
  size_t n = 0;
  while (s[n]) ++n;
  return n;
}

int KaText_MultiByteToWide(UINT codePage, DWORD, const char* src, int srcLen, KAWCHAR* dst,
                           int dstCap) noexcept {
  if (!src || dstCap < 0 || (dstCap > 0 && !dst)) return 0;
  try {
    const bool terminated = srcLen < 0;
    const size_t n = terminated ? std::strlen(src) : size_t(srcLen);
    std::u16string w;
    if (!toUtf16(codePage, std::string_view(src, n), w)) return 0;
    if (terminated) w.push_back(0);
    if (w.size() > size_t(INT32_MAX)) return 0;
    if (dstCap == 0) return int(w.size());
    if (w.size() > size_t(dstCap)) return 0;
    std::memcpy(dst, w.data(), w.size() * sizeof(KAWCHAR));
    return int(w.size());
  } catch (...) {
    return 0;
  }
}

int KaText_WideToMultiByte(UINT codePage, DWORD flags, const KAWCHAR* src, int srcLen, char* dst,
                           int dstCap) noexcept {
  if (!src || dstCap < 0 || (dstCap > 0 && !dst)) return 0;
  try {
    const bool terminated = srcLen < 0;
    const size_t n = terminated ? KaText_WideLength(src) : size_t(srcLen);
    std::string m;
    if (!fromUtf16(codePage, std::u16string_view(src, n), m, flags & KA_WC_ERR_INVALID_CHARS))
      return 0;
    if (terminated) m.push_back('\0');
    if (m.size() > size_t(INT32_MAX)) return 0;
    if (dstCap == 0) return int(m.size());
    if (m.size() > size_t(dstCap)) return 0;
    std::memcpy(dst, m.data(), m.size());
    return int(m.size());
  } catch (...) {
    return 0;
  }
}
