#include "text.h"

#include <cstdio>
#include <vector>

#include "ostra/kaerror.h"
#include "ostra/kaplatform.h"

namespace ostra::cli {

std::string toUtf8(const KAWCHAR* text) {
  if (!text || !*text) return {};
  const int need = KaText_WideToMultiByte(KA_CP_UTF8, 0, text, -1, nullptr, 0);
  if (need <= 0) return {};
  std::vector<char> buf(size_t(need) + 1);
  const int n = KaText_WideToMultiByte(KA_CP_UTF8, 0, text, -1, buf.data(), need);
  return n > 0 ? std::string(buf.data()) : std::string();
}

std::u16string toUtf16(const std::string& utf8) {
  if (utf8.empty()) return {};
  const int need = KaText_MultiByteToWide(KA_CP_UTF8, 0, utf8.c_str(), -1, nullptr, 0);
  if (need <= 0) return {};
  std::vector<KAWCHAR> buf(size_t(need) + 1);
  const int n = KaText_MultiByteToWide(KA_CP_UTF8, 0, utf8.c_str(), -1, buf.data(), need);
  return n > 0 ? std::u16string(buf.data()) : std::u16string();
}

std::string fourCCText(DWORD id) {
  std::string s;
  for (int i = 0; i < 4; ++i) {
    const unsigned char c = (id >> (8 * i)) & 0xFF;
    if (c >= 0x20 && c < 0x7F && c != '\\') {
      s += char(c);
    } else {
      char esc[5];
      std::snprintf(esc, sizeof esc, "\\x%02X", c);
      s += esc;
    }
  }
  return s;
}

std::string guidText(const GUID& g) {
  char s[40];
  std::snprintf(s, sizeof s, "%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X", unsigned(g.Data1),
                unsigned(g.Data2), unsigned(g.Data3), g.Data4[0], g.Data4[1], g.Data4[2],
                g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
  return s;
}

std::vector<std::string> takeKernelDetails() {
  std::u16string text(KaErrorHandler_DetailsGetText(nullptr, 0) + 1, u'\0');
  text.resize(KaErrorHandler_DetailsGetText(text.data(), DWORD(text.size())));
  KaErrorHandler_DetailsInit();
  std::vector<std::string> lines;
  for (size_t at = 0; at < text.size();) {
    size_t end = text.find(u"\r\n", at);
    if (end == std::u16string::npos) end = text.size();
    if (end > at) lines.push_back(toUtf8(text.substr(at, end - at).c_str()));
    at = end + 2;
  }
  return lines;
}

}  // namespace ostra::cli
