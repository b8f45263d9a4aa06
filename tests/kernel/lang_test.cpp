// Language module: choice of language from locale names and the environment, English
// fallback, host records, and the build-time checks of the text tables.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "kernel/internal/string_table.h"
#include "kernel/internal/strings.h"
#include "ostra/kakernel.h"
#include "support/test_support.h"

namespace {

int slot(const char* name) {
  for (int i = 0; i < KALANG_SLOTS; ++i)
    if (std::string(KaLang_GetLanguageName(i)) == name) return i;
  return -1;
}

std::u16string str(const KAWCHAR* s) { return s ? std::u16string(s) : u"(null)"; }

}  // namespace

TEST(Lang, LocaleNamesSelectSlots) {
  struct Case {
    const char* locale;
    const char* language;  // null: no slot
  } cases[] = {
      {"de", "de"},       {"de_DE.UTF-8", "de"},   {"de_AT@euro", "de"}, {"ja_JP", "ja"},
      {"ja-JP", "ja"},    {"EN_us", "en"},         {"C", "en"},          {"POSIX", "en"},
      {"", "en"},         {"C.UTF-8", "en"},       {"zh", "zh_CN"},      {"zh_SG", "zh_CN"},
      {"zh_HK", "zh_TW"}, {"zh_TW.Big5", "zh_TW"}, {"nn_NO", "nb"},      {"no", "nb"},
      {"pt_BR", "pt"},    {"fr_CA", "fr"},         {"xx_YY", nullptr},   {"_", nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.locale);
    EXPECT_EQ(KaLang_FindLanguage(c.locale), c.language ? slot(c.language) : -1);
  }
  EXPECT_EQ(KaLang_GetLanguageName(0), std::string("en"));
  EXPECT_EQ(KaLang_GetLanguageName(KALANG_SLOTS), nullptr);
  EXPECT_EQ(KaLang_FindLanguage(nullptr), -1);
}

TEST(Lang, EnvironmentPrecedence) {
  struct Case {
    const char *all, *messages, *lang, *expect;
  } cases[] = {
      {"fr_FR.UTF-8", "de_DE", "es_ES", "fr"},
      {"", "de_DE", "es_ES", "de"},
      {"", "", "es_ES", "es"},
      {"", "", "", "en"},
      {"", "", "xx_XX", "en"},
      {"C", "de", "de", "en"},
  };
  for (const Case& c : cases) {
    setenv("LC_ALL", c.all, 1);
    setenv("LC_MESSAGES", c.messages, 1);
    setenv("LANG", c.lang, 1);
    EXPECT_EQ(ostra::kernel::environmentLanguage(), slot(c.expect))
        << c.all << c.messages << c.lang;
    HKALANG h = KaLang_Open(nullptr);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(KaLang_GetLanguage(h), slot(c.expect));
    KaLang_Close(h);
  }
  unsetenv("LC_ALL");
  unsetenv("LC_MESSAGES");
  unsetenv("LANG");
}

TEST(Lang, ForcedLanguageAndFallback) {
  ASSERT_EQ(KaLang_SetLanguage(nullptr, "en"), S_OK);
  const std::u16string english = str(ostra::kernel::kernelString(KASTR_KERNEL_TOO_OLD));
  ASSERT_EQ(KaLang_SetLanguage(nullptr, "de_DE"), S_OK);
  EXPECT_NE(str(ostra::kernel::kernelString(KASTR_KERNEL_TOO_OLD)), english);
  HKALANG h = KaLang_Open(nullptr);
  EXPECT_EQ(KaLang_GetLanguage(h), slot("de"));
  KAINTERNATIONALS intl{};
  ASSERT_EQ(KaLang_GetInternationals(h, &intl), S_OK);
  EXPECT_EQ(str(intl.decimalSeparator), u",");
  EXPECT_EQ(str(intl.dateSeparator), u".");
  // A slot without texts of its own (Korean ships none yet) answers in English.
  ASSERT_EQ(KaLang_SetLanguage(h, "ko_KR"), S_OK);
  EXPECT_EQ(str(KaLang_GetString(h, KASTR_KERNEL_TOO_OLD)), english);
  EXPECT_EQ(KaLang_GetString(h, 99999), nullptr);
  EXPECT_EQ(KaLang_SetLanguage(h, "klingon"), E_INVALIDARG);
  KaLang_Close(h);
  EXPECT_EQ(KaLang_SetLanguage(nullptr, nullptr), S_OK);
}

TEST(Lang, HostRecords) {
  // English, German, then an empty Spanish slot; the record names three languages only.
  static const WORD record[] = {0xFEFF, 3, 'Y', 'e', 's', 0, 'J', 'a', 0, 0};
  static const WORD bad[] = {0x1234, 1, 'x', 0};
  const KASTRINGRECORD table[] = {{7, record}, {8, bad}};
  HKALANG h = KaLang_OpenRecords(table, 2);
  ASSERT_NE(h, nullptr);
  const struct {
    const char* locale;
    const char16_t* expect;
  } cases[] = {{"en", u"Yes"}, {"de", u"Ja"}, {"es", u"Yes"}, {"ja", u"Yes"}};
  for (const auto& c : cases) {
    ASSERT_EQ(KaLang_SetLanguage(h, c.locale), S_OK);
    EXPECT_EQ(str(KaLang_GetString(h, 7)), c.expect) << c.locale;
  }
  EXPECT_EQ(KaLang_GetString(h, 8), nullptr);
  EXPECT_EQ(KaLang_GetString(h, 106), nullptr);
  KaLang_Close(h);
  EXPECT_EQ(KaLang_OpenRecords(nullptr, 1), nullptr);
}

// The build refuses a table whose translation would not format like the English text.
TEST(Lang, GeneratorRejectsBrokenTables) {
  const std::string tool = std::string(OSTRA_BINARY_DIR) + "/resources/ostra_strgen";
  struct Case {
    const char* en;
    const char* de;
    bool ok;
  } cases[] = {
      {"5\tFile %s has %d bytes.\n", "5\tDatei %s hat %d Bytes.\n", true},
      {"5\tFile %s has %d bytes.\n", "5\tDatei %d hat %s Bytes.\n", false},
      {"5\tRestart $(AppName).\n", "5\tNeu starten.\n", false},
      {"5\tA\n", "6\tB\n", false},
      {"5\tA\n5\tB\n", "", false},
      {"5\tBad \\q escape\n", "", false},
      {"0x8004E00B\t\\n\\nText\n", "", true},
      {"x\tno key\n", "", false},
  };
  for (const Case& c : cases) {
    ostra::test::TempDir dir;
    std::filesystem::create_directories(dir.path() / "s" / "en");
    std::filesystem::create_directories(dir.path() / "s" / "de");
    auto put = [](const std::filesystem::path& p, const std::string& text) {
      ostra::test::writeFile(p.string(), std::vector<uint8_t>(text.begin(), text.end()));
    };
    put(dir.path() / "s" / "en" / "t.txt", c.en);
    put(dir.path() / "s" / "de" / "t.txt", c.de);
    put(dir.path() / "langs.txt", "en\nde\n");
    const std::string cmd = tool + " " + (dir.path() / "s").string() + " " + dir.file("langs.txt") +
                            " " + dir.file("out.cpp") + " 2>/dev/null";
    EXPECT_EQ(std::system(cmd.c_str()) == 0, c.ok) << c.en << "|" << c.de;
  }
}
