// Typed time-code text on hostile input: the first byte picks the label's type, the rest
// is UTF-16 text. The parser must stop inside the text, and whatever it parsed must print
// and convert without faults.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "ostra/kasmpte.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size > 4096) return 0;
  _smpteval label{};
  label.type = data[0] % 8;
  std::vector<KAWCHAR> text((size - 1) / 2 + 1, 0);
  std::memcpy(text.data(), data + 1, (size - 1) / 2 * 2);
  const KAWCHAR* end = KASMPTE_TextToSMPTE(&label, text.data());
  size_t length = 0;
  while (text[length]) ++length;
  if (end < text.data() || end > text.data() + length) std::abort();
  KAWCHAR shown[12];
  if (KASMPTE_SMPTEToText(&label, shown, 12) > 11) std::abort();
  KASMPTE_NanoToSMPTE(KASMPTE_SMPTEToNanos(&label), &label);
  KASMPTE_IncrementByFrame(&label, data[0]);
  return 0;
}
