#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <latch>
#include <string>
#include <thread>

#include "ostra/kaini.h"
#include "support/test_support.h"

using ostra::test::TempDir;
using ostra::test::u16;

namespace {

std::vector<uint8_t> bytesOf(const std::string& s) { return {s.begin(), s.end()}; }

std::vector<uint8_t> utf16le(const std::u16string& s) {
  std::vector<uint8_t> b{0xFF, 0xFE};
  for (char16_t c : s) {
    b.push_back(uint8_t(c & 0xFF));
    b.push_back(uint8_t(c >> 8));
  }
  return b;
}

std::u16string get(const std::u16string& file, const char16_t* section, const char16_t* key,
                   const char16_t* def = u"<none>") {
  KAWCHAR buf[256];
  const DWORD n = KaIni_GetString(section, key, def, buf, 256, file.c_str());
  return std::u16string(buf, n);
}

// Lists come back as "a|b|" for easy comparison.
std::u16string list(const std::u16string& file, const char16_t* section, DWORD size = 256) {
  KAWCHAR buf[256] = {};
  const DWORD n = section ? KaIni_GetKeyNames(section, buf, size, file.c_str())
                          : KaIni_GetSectionNames(buf, size, file.c_str());
  std::u16string s(buf, n);
  for (auto& c : s)
    if (c == 0) c = '|';
  EXPECT_EQ(buf[n], 0);
  return s;
}

const char* kSample =
    "; leading comment\r\n"
    "orphan=ignored\r\n"
    "[General]\r\n"
    "  Name = Ostra Kernel  \r\n"
    "quoted=\"  spaced  \"\r\n"
    "single='x'\r\n"
    "semi=a ; not a comment\r\n"
    "Count=42\r\n"
    "neg=-7\r\n"
    "hex=0x1F\r\n"
    "junk=abc\r\n"
    "empty=\r\n"
    "bare\r\n"
    "\r\n"
    "[ Paths ]\r\n"
    "name=second\r\n"
    "[general]\r\n"
    "Extra=shadowed section\r\n";

TEST(Ini, ReadsValuesDefaultsAndLists) {
  TempDir dir;
  const auto utf8 = dir.wfile("a.ini"), wide = dir.wfile("w.ini"), bom = dir.wfile("b.ini");
  ostra::test::writeFile(dir.file("a.ini"), bytesOf(kSample));
  ostra::test::writeFile(dir.file("b.ini"), bytesOf(std::string("\xEF\xBB\xBF") + kSample));
  ostra::test::writeFile(dir.file("w.ini"), utf16le(u16(kSample)));
  for (const auto& file : {utf8, wide, bom}) {
    struct Case {
      const char16_t *section, *key, *expect;
    } cases[] = {
        {u"General", u"name", u"Ostra Kernel"},
        {u"GENERAL", u"NAME", u"Ostra Kernel"},
        {u"General", u"quoted", u"  spaced  "},
        {u"General", u"single", u"x"},
        {u"General", u"semi", u"a ; not a comment"},
        {u"General", u"missing", u"<none>"},
        {u"General", u"empty", u""},
        {u"General", u"bare", u""},
        {u"Paths", u"name", u"second"},
        {u"General", u"Extra", u"<none>"},
        {u"Nowhere", u"name", u"<none>"},
        {u"", u"orphan", u"<none>"},
    };
    for (const Case& c : cases)
      EXPECT_EQ(get(file, c.section, c.key), c.expect) << std::string(c.key, c.key + 3);
    struct IntCase {
      const char16_t* key;
      INT def;
      UINT expect;
    } ints[] = {{u"Count", 1, 42}, {u"neg", 1, UINT(-7)}, {u"hex", 1, 31},
                {u"junk", 5, 0},   {u"empty", 5, 5},      {u"missing", 9, 9}};
    for (const IntCase& c : ints)
      EXPECT_EQ(KaIni_GetInt(u"General", c.key, c.def, file.c_str()), c.expect);
    EXPECT_EQ(list(file, nullptr), u"General|Paths|");
    EXPECT_EQ(list(file, u"general"), u"Name|quoted|single|semi|Count|neg|hex|junk|empty|bare|");
    EXPECT_EQ(list(file, u"Nowhere"), u"");
    EXPECT_EQ(list(file, nullptr, 10), u"General|");  // cut short: size - 2 and doubly terminated
  }
  KAWCHAR small[4];
  EXPECT_EQ(KaIni_GetString(u"General", u"name", nullptr, small, 4, utf8.c_str()), 3u);
  EXPECT_EQ(std::u16string(small), u"Ost");
  EXPECT_EQ(get(dir.wfile("absent.ini"), u"a", u"b", u"dflt"), u"dflt");
  EXPECT_EQ(get(dir.wfile("absent.ini"), u"a", u"b", nullptr), u"");
  EXPECT_EQ(KaIni_GetString(u"a", u"b", u"x", nullptr, 10, utf8.c_str()), 0u);
}

TEST(Ini, WritesKeepTheRestOfTheFile) {
  TempDir dir;
  const auto file = dir.wfile("sub.ini");
  EXPECT_EQ(KaIni_WriteString(u"One", u"a", u"1", file.c_str()), S_OK);  // creates file and section
  EXPECT_EQ(KaIni_WriteString(u"One", u"b", u"2", file.c_str()), S_OK);
  EXPECT_EQ(KaIni_WriteString(u"Two", u"c", u"3", file.c_str()), S_OK);
  EXPECT_EQ(KaIni_WriteString(u"one", u"A", u"überall", file.c_str()), S_OK);  // replaces in place
  auto text = [&] {
    auto b = ostra::test::readFile(dir.file("sub.ini"));
    return std::string(b.begin(), b.end());
  };
  EXPECT_EQ(text(), "[One]\r\na=überall\r\nb=2\r\n[Two]\r\nc=3\r\n");
  EXPECT_EQ(KaIni_DeleteKey(u"One", u"a", file.c_str()), S_OK);
  EXPECT_EQ(KaIni_DeleteKey(u"One", u"zz", file.c_str()), S_OK);
  EXPECT_EQ(KaIni_DeleteSection(u"TWO", file.c_str()), S_OK);
  EXPECT_EQ(text(), "[One]\r\nb=2\r\n");

  // A UTF-16 file with comments and LF line ends stays UTF-16, keeps its comments and ends.
  const auto wide = dir.wfile("w.ini");
  ostra::test::writeFile(dir.file("w.ini"), utf16le(u"; keep\n[S]\nk=v\n\n[T]\nx=1\n"));
  EXPECT_EQ(KaIni_WriteString(u"S", u"new", u"日本", wide.c_str()), S_OK);
  EXPECT_EQ(ostra::test::readFile(dir.file("w.ini")),
            utf16le(u"; keep\n[S]\nk=v\nnew=日本\n\n[T]\nx=1\n"));
  EXPECT_EQ(get(wide, u"s", u"NEW"), u"日本");

  const struct {
    const char16_t *section, *key, *value;
  } bad[] = {{nullptr, u"k", u"v"}, {u"a]b", u"k", u"v"},        {u"s", u"k=x", u"v"},
             {u"s", u"  ", u"v"},   {u"s", u"k", u"two\nlines"}, {u"s\r", u"k", u"v"}};
  for (const auto& b : bad)
    EXPECT_EQ(KaIni_WriteString(b.section, b.key, b.value, file.c_str()), E_INVALIDARG);
  EXPECT_EQ(text(), "[One]\r\nb=2\r\n");
  EXPECT_TRUE(FAILED(KaIni_WriteString(u"s", u"k", u"v", dir.wfile("no/such/dir.ini").c_str())));
}

// Reads reuse the last file decoded. Eight threads read four files (old enough to be
// remembered) key by key, interleaved so that the remembered file keeps changing hands,
// while a ninth rewrites one of them: every value read belongs to the file and key asked
// for, and a thread never sees the rewritten value go backwards.
TEST(Ini, ThreadsReadingDifferentFilesGetTheirOwnValues) {
  TempDir dir;
  constexpr int kFiles = 4, kKeys = 40, kReaders = 8, kWrites = 60;
  std::vector<std::u16string> files;
  for (int f = 0; f < kFiles; ++f) {
    std::string text = "[S]\r\nw=0\r\n";
    for (int k = 0; k < kKeys; ++k)
      text += "k" + std::to_string(k) + "=" + std::to_string(f * 1000 + k) + "\r\n";
    const std::string path = dir.file("f" + std::to_string(f) + ".ini");
    ostra::test::writeFile(path, bytesOf(text));
    std::filesystem::last_write_time(
        path, std::filesystem::file_time_type::clock::now() - std::chrono::hours(1));
    files.push_back(u16(path));
  }
  std::latch start(kReaders + 1);
  std::atomic<int> wrong{0}, backwards{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kReaders; ++t)
    threads.emplace_back([&, t] {
      start.arrive_and_wait();
      int lastW = 0;
      for (int i = 0; i < 400; ++i) {
        const int f = (t + i) % kFiles, k = (i * 7 + t) % kKeys;
        const std::u16string key = u16("k" + std::to_string(k));
        if (KaIni_GetInt(u"S", key.c_str(), -1, files[f].c_str()) != f * 1000 + k) ++wrong;
        if (f == 0) {
          const int w = KaIni_GetInt(u"S", u"w", -1, files[0].c_str());
          if (w < lastW) ++backwards;
          if (w < 0) ++wrong;
          lastW = w;
        }
      }
    });
  threads.emplace_back([&] {
    start.arrive_and_wait();
    for (int n = 1; n <= kWrites; ++n)
      if (KaIni_WriteString(u"S", u"w", u16(std::to_string(n)).c_str(), files[0].c_str()) != S_OK)
        ++wrong;
  });
  for (auto& th : threads) th.join();
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(backwards.load(), 0);
  EXPECT_EQ(KaIni_GetInt(u"S", u"w", -1, files[0].c_str()), kWrites);
  EXPECT_EQ(KaIni_GetInt(u"S", u"k39", -1, files[0].c_str()), 39);  // the rewrite kept the rest
}

}  // namespace
