#include <cstdio>
#include <string>

#include "command.h"
#include "ostra/kaerror.h"
#include "ostra/kaplatform.h"

namespace ostra::cli {
namespace {

std::u16string utf16(const std::string& s) {
  const int n = KaText_MultiByteToWide(KA_CP_UTF8, 0, s.c_str(), -1, nullptr, 0);
  if (n <= 0) return {};
  std::u16string out(size_t(n), u'\0');
  KaText_MultiByteToWide(KA_CP_UTF8, 0, s.c_str(), -1, out.data(), n);
  out.resize(size_t(n - 1));
  return out;
}

std::string utf8(const KAWCHAR* s) {
  const int n = s ? KaText_WideToMultiByte(KA_CP_UTF8, 0, s, -1, nullptr, 0) : 0;
  if (n <= 0) return {};
  std::string out(size_t(n), '\0');
  KaText_WideToMultiByte(KA_CP_UTF8, 0, s, -1, out.data(), n);
  out.resize(size_t(n - 1));
  return out;
}

// The composed text marks the details with "<Details>" lines for message boxes; on a
// terminal they are plain lines under the message.
std::string terminalText(std::string s) {
  std::string out;
  out.reserve(s.size());
  for (char c : s)
    if (c != '\r') out += c;
  for (const char* marker : {"\n<Details>\n", "\n</Details>"}) {
    const size_t at = out.find(marker);
    if (at != std::string::npos) out.replace(at, std::char_traits<char>::length(marker), "\n");
  }
  while (!out.empty() && out.back() == '\n') out.pop_back();
  return out;
}

}  // namespace

// The kernel's own composed message (context sentence, reason, details). The general
// context has no place for the file name, so it goes in front of the message instead.
int reportFailure(HRESULT hr, const std::string& context, DWORD contextId) {
  const std::u16string arg = utf16(context);
  KAWCHAR* text = KaErrorHandler_ComposeErrorText(contextId, hr, arg.c_str());
  const std::string message = text ? terminalText(utf8(text)) : std::string();
  KaErrorHandler_FreeErrorText(text);
  KaErrorHandler_DetailsInit();
  if (message.empty())
    std::fprintf(stderr, "ostra: error 0x%08x\n", unsigned(hr));
  else if (contextId == 0 && !context.empty())
    std::fprintf(stderr, "ostra: %s: %s\n", context.c_str(), message.c_str());
  else
    std::fprintf(stderr, "ostra: %s\n", message.c_str());
  return exitStatus() = 1;
}

HRESULT withReason(HRESULT hr, const std::string& reason) {
  if (!reason.empty()) {
    KaErrorHandler_DetailsInit();
    KaErrorHandler_DetailsAddString(hr, u"%hs", reason.c_str());
  }
  return hr;
}

int reportRefusal(HRESULT hr, const std::string& context, const std::string& reason) {
  return reportFailure(withReason(hr, reason), context);
}

}  // namespace ostra::cli
