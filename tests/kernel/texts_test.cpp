// Every text of the kernel's tables exists in every shipped language and formats; the
// ostra tool prints the composed message in the language asked for.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kernel/internal/errors.h"
#include "kernel/internal/string_table.h"
#include "kernel/internal/wformat.h"
#include "ostra/kakernel.h"
#include "support/tool_run.h"

using namespace ostra::kernel;

namespace {

// The text in a language's own slot, without the English fallback.
std::u16string ownText(const char16_t* record, int language) {
  if (!record || record[0] != 0xFEFF || language >= record[1]) return {};
  const char16_t* p = record + 2;
  for (int i = 0; i < language; ++i) p += std::u16string_view(p).size() + 1;
  return p;
}

// The tool's output, error text and exit status as one string.
std::string run(const std::string& args) {
  const auto r = ostra::test::ostra(args);
  return r.out + r.err + "[" + std::to_string(r.status) + "]";
}

}  // namespace

TEST(Texts, EveryTextInEveryShippedLanguage) {
  std::vector<DWORD> ids;
  for (DWORD id = KASTR_INCOMPATIBLE_CLIENT; id <= KASTR_TIME_SEPARATOR; ++id) ids.push_back(id);
  for (size_t i = 0; i < kContextCount; ++i) ids.push_back(kContextStringBase + kContextNumbers[i]);
  for (size_t i = 0; i < kReasonCount; ++i) ids.push_back(DWORD(kReasonCodes[i]));
  ASSERT_EQ(ids.size(), 9u + 57u + 164u);  // 158 + the six surrogate codes
  for (const char* lang : {"en", "de", "es", "fr", "it", "ja"}) {
    const int slot = KaLang_FindLanguage(lang);
    ASSERT_GE(slot, 0);
    for (DWORD id : ids) {
      const std::u16string text = ownText(kernelRecord(id), slot);
      EXPECT_FALSE(text.empty()) << lang << " has no text " << std::hex << id;
      // Contexts take one string; the other texts take none and ignore it.
      const WArg arg = WArg::wide(u"take1.wav");
      std::u16string out;
      EXPECT_TRUE(formatWide(out, text.c_str(), &arg, 1)) << lang << " " << std::hex << id;
    }
  }
}

TEST(Texts, ToolPrintsTheComposedMessage) {
  const std::string en =
      "An error occurred while loading the project file take1.wav.\n\n"
      "The file is most likely corrupted or of an unknown format.\n[0]";
  struct Case {
    std::string args;
    std::string expect;
  } cases[] = {
      {"error 0x8004E00B --context 5 --arg take1.wav --lang en", en},
      {"error -2147164149 --context 0x5 --arg take1.wav --lang C", en},
      {"error 0x8004E00B --context 5 --arg take1.wav --lang de",
       "Beim Laden der Projektdatei take1.wav ist ein Fehler aufgetreten.\n\n"
       "Die Datei ist wahrscheinlich beschädigt oder hat ein unbekanntes Format.\n[0]"},
      {"error 0x8004E00B --context 5 --arg take1.wav --lang ja_JP",
       "プロジェクト ファイル take1.wav の読み込み中にエラーが発生しました。\n\n"
       "ファイルが破損しているか、不明な形式である可能性があります。\n[0]"},
      {"error 0x8004EFFF --context 5 --arg x.wav --lang en",
       "An error occurred while loading the project file x.wav.\n\nError 0x8004efff (message "
       "missing)\n[0]"},
      {"error 0x8004E00B --lang ko",
       "An error occurred during the current operation.\n\n"
       "The file is most likely corrupted or of an unknown format.\n[0]"},
      {"error zz", "ostra: not a result code: zz\n[2]"},
      {"error 0x1FFFFFFFF", "ostra: not a result code: 0x1FFFFFFFF\n[2]"},
      {"error 1 --context 0x10000", "ostra: not a context number: 0x10000\n[2]"},
      {"error 1 --lang tlh", "ostra: no language for locale: tlh\n[2]"},
  };
  for (const Case& c : cases) EXPECT_EQ(run(c.args), c.expect) << c.args;
  // Without --lang the locale environment decides.
  EXPECT_EQ(run("error 0x8004E00C --context 0x39 --arg x").find("An error"), 0u);
  EXPECT_EQ(ostra::test::runCommand("LC_ALL= LC_MESSAGES= LANG=fr_FR.UTF-8 " +
                                    ostra::test::shellQuote(OSTRA_TOOL_PATH) +
                                    " error 0x8004E00C --context 0x39")
                .out,
            "Une erreur s'est produite lors du changement de nom d'un fichier.\n\n"
            "L'opération a été annulée par l'utilisateur.\n");
  const std::string json = run("error 0x8004E00B --context 5 --arg a.wav --lang de --json");
  EXPECT_NE(json.find("\"language\": \"de\""), std::string::npos) << json;
  EXPECT_NE(json.find("\"code\": \"0x8004e00b\""), std::string::npos) << json;
}
