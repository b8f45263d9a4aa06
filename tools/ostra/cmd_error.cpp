// ostra error CODE: the kernel's composed message for a result code, as every failing
// command prints it.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "command.h"
#include "ostra/kaerror.h"
#include "ostra/kakernel.h"
#include "ostra/kaplatform.h"

namespace {

// Hexadecimal with 0x, or decimal (negative decimals are the signed form of a code).
std::optional<int64_t> parseNumber(const std::string& s) {
  if (s.empty()) return std::nullopt;
  errno = 0;
  char* end = nullptr;
  const bool hex = s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X');
  const long long v =
      hex ? (long long)std::strtoull(s.c_str() + 2, &end, 16) : std::strtoll(s.c_str(), &end, 10);
  if (errno || *end || (hex && s.size() == 2)) return std::nullopt;
  if (v < INT32_MIN || v > int64_t(UINT32_MAX)) return std::nullopt;
  return v;
}

std::string utf8(const KAWCHAR* s) {
  if (!s) return {};
  const int n = KaText_WideToMultiByte(KA_CP_UTF8, 0, s, -1, nullptr, 0);
  if (n <= 0) return {};
  std::string out(size_t(n), '\0');
  KaText_WideToMultiByte(KA_CP_UTF8, 0, s, -1, out.data(), n);
  out.resize(size_t(n - 1));
  return out;
}

std::u16string utf16(const std::string& s) {
  const int n = KaText_MultiByteToWide(KA_CP_UTF8, 0, s.c_str(), -1, nullptr, 0);
  if (n <= 0) return {};
  std::u16string out(size_t(n), u'\0');
  KaText_MultiByteToWide(KA_CP_UTF8, 0, s.c_str(), -1, out.data(), n);
  out.resize(size_t(n - 1));
  return out;
}

void setup(CLI::App& cmd) {
  static std::string code, context = "0", argument, lang;
  static bool json = false;
  cmd.add_option("CODE", code, "Result code, hexadecimal with 0x or decimal")->required();
  cmd.add_option("--context", context, "Context number (what was being done), 0 to 0x39");
  cmd.add_option("--arg", argument, "Text for the context sentence (a file name, ...)");
  cmd.add_option("--lang", lang, "Language as a locale name (de, ja_JP, ...)");
  cmd.add_flag("--json", json, "Print one JSON object");
  cmd.callback([] {
    using namespace ostra::cli;
    const auto hr = parseNumber(code);
    if (!hr) {
      reportUsage("not a result code: " + code);
      return;
    }
    const auto ctx = parseNumber(context);
    if (!ctx || *ctx < 0 || *ctx >= 0x10000) {
      reportUsage("not a context number: " + context);
      return;
    }
    if (!lang.empty() && KaLang_SetLanguage(nullptr, lang.c_str()) != S_OK) {
      reportUsage("no language for locale: " + lang);
      return;
    }
    const HRESULT value = HRESULT(uint32_t(*hr));
    const std::u16string arg = utf16(argument);
    KAWCHAR* text = KaErrorHandler_ComposeErrorText(UINT_PTR(*ctx), value, arg.c_str());
    if (!text) {
      reportFailure(E_OUTOFMEMORY);
      return;
    }
    const std::string message = utf8(text);
    KaErrorHandler_FreeErrorText(text);
    if (json) {
      const KAWCHAR* reason = KaErrorHandler_GetHresultString(value);
      char hex[16];
      std::snprintf(hex, sizeof hex, "0x%08x", unsigned(value));
      nlohmann::json j{{"code", hex},
                       {"failure", value < 0},
                       {"context", *ctx},
                       {"language", KaLang_GetLanguageName(KaLang_GetLanguage(nullptr))},
                       {"context_text", utf8(KaErrorHandler_GetContextString(UINT_PTR(*ctx)))},
                       {"reason", reason ? nlohmann::json(utf8(reason)) : nlohmann::json()},
                       {"message", message}};
      std::printf("%s\n", j.dump(2).c_str());
      return;
    }
    std::printf("%s\n", message.c_str());
  });
}

OSTRA_COMMAND("error", "Print the kernel's message for a result code", setup);

}  // namespace
