// The texts the kernel shows, checked against their source tables rather than against
// words copied into the tests: every result code, context and kernel string has a text in
// every shipped language, the lookups give that language's text (English where a family
// is not translated), and composed messages insert the argument, the application's name
// and the reason. The ostra tool prints the composed message in the language asked for.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "kernel/internal/errors.h"
#include "ostra/kaerror.h"
#include "ostra/kakernel.h"
#include "platform/internal/text.h"
#include "support/test_support.h"
#include "support/tool_run.h"

using namespace ostra::kernel;
using ostra::test::u16;

namespace {

using Table = std::map<DWORD, std::u16string>;

// One family file of resources/strings: "key<TAB>text" lines with C escapes.
Table readFamily(const std::filesystem::path& file) {
  Table t;
  std::ifstream in(file);
  for (std::string line; std::getline(in, line);) {
    const size_t tab = line.find('\t');
    if (line.empty() || line[0] == '#' || tab == std::string::npos) continue;
    std::string text;
    for (size_t i = tab + 1; i < line.size(); ++i) {
      if (line[i] != '\\' || i + 1 == line.size()) {
        text += line[i];
        continue;
      }
      const char c = line[++i];
      text += c == 'n' ? '\n' : c == 'r' ? '\r' : c == 't' ? '\t' : c;
    }
    t[DWORD(std::stoul(line.substr(0, tab), nullptr, 0))] = u16(text);
  }
  return t;
}

// language -> family -> texts, for every language folder that ships.
std::map<std::string, std::map<std::string, Table>> sourceTexts() {
  std::map<std::string, std::map<std::string, Table>> all;
  const auto root = std::filesystem::path(OSTRA_SOURCE_DIR) / "resources" / "strings";
  for (const auto& lang : std::filesystem::directory_iterator(root))
    if (lang.is_directory())
      for (const auto& f : std::filesystem::directory_iterator(lang.path()))
        all[lang.path().filename().string()][f.path().stem().string()] = readFamily(f.path());
  return all;
}

std::u16string str(const KAWCHAR* s) { return s ? std::u16string(s) : u"(null)"; }

std::u16string replaced(std::u16string s, const std::u16string& what, const std::u16string& by) {
  const size_t at = s.find(what);
  return at == std::u16string::npos ? s : s.replace(at, what.size(), by);
}

class Texts : public ::testing::Test {
 protected:
  void SetUp() override {
    all = sourceTexts();
    ASSERT_GE(all.size(), 6u);
    en = all.at("en");
  }
  void TearDown() override {
    KaErrorHandler_SetAppName(nullptr);
    KaLang_SetLanguage(nullptr, nullptr);
  }
  // The text a language shows for a key: its own, or English when it has none.
  std::u16string expected(const std::string& lang, const std::string& family, DWORD key) {
    const auto& families = all.at(lang);
    const auto f = families.find(family);
    if (f != families.end())
      if (const auto t = f->second.find(key); t != f->second.end() && !t->second.empty())
        return t->second;
    return en.at(family).at(key);
  }
  std::map<std::string, std::map<std::string, Table>> all;
  std::map<std::string, Table> en;
};

}  // namespace

TEST_F(Texts, EveryCodeContextAndStringInEveryShippedLanguage) {
  // The error handler's own codes and contexts, and the kernel's strings, are translated
  // in full; the texts other families add may fall back to English.
  std::vector<std::pair<const char*, DWORD>> own;
  for (size_t i = 0; i < kReasonCount; ++i) own.push_back({"errors", DWORD(kReasonCodes[i])});
  for (size_t i = 0; i < kContextCount; ++i)
    own.push_back({"errors", kContextStringBase + kContextNumbers[i]});
  for (const auto& [key, english] : en.at("kernel")) own.push_back({"kernel", key});

  const std::u16string arg = u"take1.wav";
  for (const auto& [lang, families] : all) {
    SCOPED_TRACE(lang);
    ASSERT_EQ(KaLang_SetLanguage(nullptr, lang.c_str()), S_OK);
    for (const auto& [family, key] : own) {
      const Table& t = families.at(family);
      EXPECT_TRUE(t.count(key) && !t.at(key).empty()) << family << " " << std::hex << key;
    }
    for (const auto& [family, table] : en)
      for (const auto& [key, english] : table) {
        const std::u16string want = expected(lang, family, key);
        EXPECT_EQ(str(key < 0x10000 ? KaLang_GetString(nullptr, key)
                                    : KaErrorHandler_GetHresultString(HRESULT(key))),
                  want)
            << std::hex << key;
      }
    for (size_t i = 0; i < kContextCount; ++i) {
      const DWORD n = kContextNumbers[i];
      const std::u16string tmpl = expected(lang, "errors", kContextStringBase + n);
      EXPECT_EQ(str(KaErrorHandler_GetContextString(n)), tmpl) << n;
      // A context's sentence takes the argument where it says %s, and only there.
      const std::u16string got = KaErrorHandler_GetErrorMessage(n, KAERR_NOT_FOUND, arg.c_str());
      EXPECT_EQ(got.find(arg) != std::u16string::npos, tmpl.find(u"%s") != std::u16string::npos)
          << n;
    }
  }
}

TEST_F(Texts, UnknownKeysAndContexts) {
  EXPECT_EQ(KaErrorHandler_GetHresultString(S_OK), nullptr);
  EXPECT_EQ(KaErrorHandler_GetHresultString(HRESULT(0x8004EFFFu)), nullptr);
  EXPECT_EQ(KaLang_GetString(nullptr, 99999), nullptr);
  for (UINT_PTR unknown : {0x35u, 0x3Au, 0xFFFFu})
    EXPECT_EQ(str(KaErrorHandler_GetContextString(unknown)),
              en.at("errors").at(kContextStringBase));
  static const KAWCHAR tmpl[] = u"Copying %s failed.";
  EXPECT_EQ(KaErrorHandler_GetContextString(KACTX_FROM_TEMPLATE(tmpl)), tmpl);
}

// The message is the context's sentence with the argument and the application's name put
// in, followed by the reason; both calls give the same text, in every language.
TEST_F(Texts, ComposedMessagesInsertArgumentNameAndReason) {
  static const KAWCHAR own[] = u"Copying %s failed.";
  static const KAWCHAR numeric[] = u"Track %d failed.";
  const struct {
    UINT_PTR context;
    HRESULT code;
    const KAWCHAR* arg;
    const KAWCHAR* app;
  } cases[] = {
      {5, KAERR_CORRUPT_FILE, u"take1.wav", nullptr},
      {5, KAERR_CORRUPT_FILE, nullptr, nullptr},         // no argument: nothing put in
      {5, KAERR_CORRUPT_FILE, u"100%s.wav", nullptr},    // an argument is not a template
      {0, KAERR_DISK_FULL, u"ignored", nullptr},         // a sentence without a field
      {0x1A, KAERR_CORRUPT_FILE, nullptr, nullptr},      // $(AppName), the default name
      {0x1A, KAERR_CORRUPT_FILE, nullptr, u"Editor 9"},  // and the host's
      {0x35, KAERR_CANCELLED, u"x", nullptr},            // unknown: the general sentence
      {KACTX_FROM_TEMPLATE(own), KAERR_BIT_DEPTH, u"b.wav", nullptr},
      {KACTX_FROM_TEMPLATE(numeric), KAERR_CORRUPT_FILE, u"x", nullptr},  // shown as it is
  };
  for (const auto& [lang, families] : all) {
    ASSERT_EQ(KaLang_SetLanguage(nullptr, lang.c_str()), S_OK);
    const std::u16string defaultApp = expected(lang, "kernel", KASTR_DEFAULT_APP_NAME);
    for (const auto& c : cases) {
      SCOPED_TRACE(lang + " context " + std::to_string(c.context));
      KaErrorHandler_SetAppName(c.app);
      std::u16string sentence = str(KaErrorHandler_GetContextString(c.context));
      if (sentence.find(u"%d") == std::u16string::npos)
        sentence = replaced(sentence, u"%s", c.arg ? c.arg : u"");
      sentence = replaced(sentence, u"$(AppName)", c.app ? c.app : defaultApp);
      const std::u16string want = sentence + expected(lang, "errors", DWORD(c.code));
      EXPECT_EQ(str(KaErrorHandler_GetErrorMessage(c.context, c.code, c.arg)), want);
      KAWCHAR* text = KaErrorHandler_ComposeErrorText(c.context, c.code, c.arg);
      EXPECT_EQ(str(text), want);
      KaErrorHandler_FreeErrorText(text);
    }
  }
  // A code without a text still names itself.
  const std::u16string missing = KaErrorHandler_GetErrorMessage(0, HRESULT(0x8004EFFFu), nullptr);
  EXPECT_NE(missing.find(u"0x8004efff"), std::u16string::npos);
}

// The tool's message is the library's composed message in the language of --lang, or of
// the locale environment without it; its own refusals name what they refused.
TEST_F(Texts, ToolPrintsTheComposedMessage) {
  auto message = [](const char* lang, UINT_PTR context, HRESULT code, const KAWCHAR* arg) {
    KaLang_SetLanguage(nullptr, lang);
    const std::u16string m = KaErrorHandler_GetErrorMessage(context, code, arg);
    KaLang_SetLanguage(nullptr, nullptr);
    return ostra::text::utf16ToUtf8(m) + "\n";
  };
  const struct {
    std::string args;
    std::string out;
  } cases[] = {
      {"error 0x8004E00B --context 5 --arg take1.wav --lang en",
       message("en", 5, KAERR_CORRUPT_FILE, u"take1.wav")},
      {"error -2147164149 --context 0x5 --arg take1.wav --lang C",
       message("en", 5, KAERR_CORRUPT_FILE, u"take1.wav")},
      {"error 0x8004E00B --context 5 --arg take1.wav --lang de",
       message("de", 5, KAERR_CORRUPT_FILE, u"take1.wav")},
      {"error 0x8004E00B --context 5 --arg take1.wav --lang ja_JP",
       message("ja", 5, KAERR_CORRUPT_FILE, u"take1.wav")},
      {"error 0x8004E00B --lang ko", message("en", 0, KAERR_CORRUPT_FILE, nullptr)},
      {"error 0x8004E00C --context 0x39", message("fr", 0x39, KAERR_CANCELLED, nullptr)},
  };
  for (const auto& c : cases) {
    const auto r = ostra::test::runCommand("LC_ALL= LC_MESSAGES= LANG=fr_FR.UTF-8 " +
                                           ostra::test::shellQuote(OSTRA_TOOL_PATH) + " " + c.args);
    EXPECT_EQ(r.status, 0) << c.args;
    EXPECT_EQ(r.out, c.out) << c.args;
  }
  for (const char* bad :
       {"error zz", "error 0x1FFFFFFFF", "error 1 --context 0x10000", "error 1 --lang tlh"}) {
    const auto r = ostra::test::ostra(bad);
    EXPECT_EQ(r.status, 2) << bad;
    const std::string word = std::string(bad).substr(std::string(bad).rfind(' ') + 1);
    EXPECT_NE(r.err.find(word), std::string::npos) << bad << ": " << r.err;
  }
  const auto j =
      ostra::test::ostraJson("error 0x8004E00B --context 5 --arg a.wav --lang de --json");
  EXPECT_EQ(j["language"], "de");
  EXPECT_EQ(j["code"], "0x8004e00b");
  EXPECT_EQ(j["message"].get<std::string>() + "\n", message("de", 5, KAERR_CORRUPT_FILE, u"a.wav"));
}
