#include "info_text.h"

#include <cstring>

#include "ostra/kaplatform.h"
#include "text.h"

namespace ostra::cli {

bool validUtf8(std::string_view s) {
  for (size_t i = 0; i < s.size();) {
    const auto c = uint8_t(s[i]);
    const size_t n = c < 0x80 ? 1 : (c >> 5) == 6 ? 2 : (c >> 4) == 14 ? 3 : (c >> 3) == 30 ? 4 : 0;
    if (!n || i + n > s.size()) return false;
    uint32_t cp = n == 1 ? c : c & (0x7F >> n);
    for (size_t k = 1; k < n; ++k) {
      const auto t = uint8_t(s[i + k]);
      if ((t & 0xC0) != 0x80) return false;
      cp = cp << 6 | (t & 0x3F);
    }
    // Overlong forms, surrogates and code points beyond Unicode are not UTF-8.
    static const uint32_t kMin[] = {0, 0, 0x80, 0x800, 0x10000};
    if (cp < kMin[n] || (cp >= 0xD800 && cp <= 0xDFFF) || cp > 0x10FFFF) return false;
    i += n;
  }
  return true;
}

std::vector<InfoRecord> parseListItems(const uint8_t* body, size_t size) {
  std::vector<InfoRecord> items;
  for (size_t pos = 0; pos + 8 <= size && items.size() < 4096;) {
    DWORD id, n;
    std::memcpy(&id, body + pos, 4);
    std::memcpy(&n, body + pos + 4, 4);
    if (n > size - pos - 8) break;
    items.push_back({id, std::string(reinterpret_cast<const char*>(body + pos + 8), n)});
    pos += 8 + size_t(n) + (n & 1);
  }
  return items;
}

std::string decodeItem(const std::string& raw, bool wide) {
  if (wide) {
    std::u16string w(raw.size() / 2, u'\0');
    std::memcpy(w.data(), raw.data(), w.size() * 2);
    w.resize(std::char_traits<char16_t>::length(w.c_str()));
    return toUtf8(w.c_str());
  }
  const std::string text(raw.c_str(), strnlen(raw.c_str(), raw.size()));
  if (validUtf8(text)) return text;
  std::u16string w(text.size() + 1, u'\0');
  const int n = KaText_MultiByteToWide(KA_CP_ACP, 0, text.c_str(), -1, w.data(), int(w.size()));
  w.resize(n > 0 ? size_t(n) : 1);
  return toUtf8(w.c_str());
}

bool encodeItem(const std::string& utf8, bool wide, UINT codePage, std::string& raw,
                std::string& bad) {
  const std::u16string w = toUtf16(utf8);
  if (wide) {
    raw.assign(reinterpret_cast<const char*>(w.c_str()), (w.size() + 1) * 2);
    return true;
  }
  const int n =
      KaText_WideToMultiByte(codePage, KA_WC_ERR_INVALID_CHARS, w.c_str(), -1, nullptr, 0);
  if (n <= 0) {
    // Name the first character that has no form in the code page.
    for (size_t i = 0; i < w.size(); ++i) {
      const size_t len = (w[i] >= 0xD800 && w[i] < 0xDC00 && i + 1 < w.size()) ? 2 : 1;
      if (KaText_WideToMultiByte(codePage, KA_WC_ERR_INVALID_CHARS, w.c_str() + i, int(len),
                                 nullptr, 0) <= 0) {
        bad = toUtf8(std::u16string(w, i, len).c_str());
        break;
      }
      i += len - 1;
    }
    return false;
  }
  raw.assign(size_t(n), '\0');
  KaText_WideToMultiByte(codePage, KA_WC_ERR_INVALID_CHARS, w.c_str(), -1, raw.data(), n);
  return true;
}

std::string buildList(DWORD listType, const std::vector<InfoRecord>& items) {
  std::string body(reinterpret_cast<const char*>(&listType), 4);
  for (const InfoRecord& r : items) {
    const auto n = DWORD(r.raw.size());
    body.append(reinterpret_cast<const char*>(&r.id), 4);
    body.append(reinterpret_cast<const char*>(&n), 4);
    body += r.raw;
    if (n & 1) body += '\0';
  }
  const auto size = DWORD(body.size());
  return std::string("LIST", 4) + std::string(reinterpret_cast<const char*>(&size), 4) + body;
}

DWORD infoId(const std::string& text) {
  if (text.size() != 4) return 0;
  for (char c : text)
    if (c < 0x20 || c > 0x7E) return 0;
  return DWORD(uint8_t(text[0])) | DWORD(uint8_t(text[1])) << 8 | DWORD(uint8_t(text[2])) << 16 |
         DWORD(uint8_t(text[3])) << 24;
}

}  // namespace ostra::cli
