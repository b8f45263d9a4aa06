#include "label_text.h"

#include "text.h"

namespace ostra::cli {

std::string labelText(const _smpteval& l) {
  KAWCHAR buf[16] = {};
  KASMPTE_SMPTEToText(&l, buf, 16);
  return toUtf8(buf);
}

bool parseLabel(const std::string& text, DWORD type, _smpteval& l) {
  if (text.find_first_of("0123456789") == std::string::npos) return false;
  const std::u16string w = toUtf16(text);
  l = {type, 0, 0, 0, 0};
  return *KASMPTE_TextToSMPTE(&l, w.c_str()) == 0;
}

}  // namespace ostra::cli
