// The UTF-16 formatter every wide text of the kernel goes through.
#include <gtest/gtest.h>

#include "kernel/internal/wformat.h"
#include "support/test_support.h"

using ostra::kernel::formatWide;
using ostra::kernel::formatWideBuffer;
using ostra::kernel::WArg;

TEST(WideFormat, FieldsWithCheckedArguments) {
  const KAWCHAR* noText = nullptr;
  struct Case {
    const char16_t* format;
    std::vector<WArg> args;
    const char16_t* expect;
  } cases[] = {
      {u"plain text", {}, u"plain text"},
      {u"100%% of %s", {WArg::wide(u"take1.wav")}, u"100% of take1.wav"},
      {u"[%5s|%-5s]", {WArg::wide(u"ab"), WArg::wide(u"cd")}, u"[   ab|cd   ]"},
      {u"[%.2s]", {WArg::wide(u"abcdef")}, u"[ab]"},
      {u"[%s]", {WArg::wide(noText)}, u"[(null)]"},
      {u"%hs", {WArg::narrow("gr\xC3\xBC\xC3\x9F")}, u"grüß"},
      {u"%s", {WArg::narrow("\xE3\x83\x95")}, u"フ"},
      {u"%d %i %u", {WArg::sint(-5), WArg::sint(7), WArg::uint(4000000000u)}, u"-5 7 4000000000"},
      {u"%d", {WArg::uint(0xFFFFFFFFu)}, u"-1"},  // a 32-bit field takes 32 bits
      {u"%08x|%X|%#x",
       {WArg::uint(0x8004E00B), WArg::uint(0xab), WArg::uint(255)},
       u"8004e00b|AB|0xff"},
      {u"%lld %I64u",
       {WArg::sint(-9000000000LL), WArg::uint(18000000000ULL)},
       u"-9000000000 18000000000"},
      {u"%hd %hhu", {WArg::sint(70000), WArg::uint(0x1FF)}, u"4464 255"},
      {u"%+d|% d|%05d|%-4d|",
       {WArg::sint(3), WArg::sint(3), WArg::sint(-42), WArg::sint(9)},
       u"+3| 3|-0042|9   |"},
      {u"%*d|%-*d|%.*s",
       {WArg::sint(4), WArg::sint(1), WArg::sint(-3), WArg::sint(2), WArg::sint(1),
        WArg::wide(u"xyz")},
       u"   1|2  |x"},
      {u"%.3f %g %e",
       {WArg::real(2.5), WArg::real(0.25), WArg::real(1500.0)},
       u"2.500 0.25 1.500000e+03"},
      {u"%c%c", {WArg::uint(u'ß'), WArg::uint(u'!')}, u"ß!"},
      {u"%s", {WArg::wide(u"extra"), WArg::wide(u"ignored")}, u"extra"},
  };
  for (const Case& c : cases) {
    std::u16string out;
    EXPECT_TRUE(formatWide(out, c.format, c.args.data(), c.args.size()));
    EXPECT_EQ(out, c.expect);
  }
}

TEST(WideFormat, RefusesBadTemplates) {
  const WArg text = WArg::wide(u"x");
  const WArg number = WArg::sint(1);
  struct Case {
    const char16_t* format;
    const WArg* arg;
    const char16_t* partial;  // what was formatted before the bad field
  } cases[] = {
      {u"ends with %", &text, u"ends with "},
      {u"%n", &number, u""},
      {u"%q", &text, u""},
      {u"a%Lf", &number, u"a"},
      {u"%d", &text, u""},               // a string where a number belongs
      {u"%s", &number, u""},             // and the other way round
      {u"%s and %s", &text, u"x and "},  // too few arguments
      {u"%99999d", &number, u""},        // padding beyond the limit
      {u"%.99999s", &text, u""},
  };
  for (const Case& c : cases) {
    std::u16string out;
    EXPECT_FALSE(formatWide(out, c.format, c.arg, 1)) << std::string(c.format, c.format + 2);
    EXPECT_EQ(out, c.partial);
  }
  std::u16string out;
  EXPECT_FALSE(formatWide(out, nullptr, nullptr, 0));
}

TEST(WideFormat, VariadicAndFixedBuffer) {
  KAWCHAR buf[64];
  EXPECT_EQ(formatWideBuffer(buf, 64, u"%s=%d (%hs) %llx %zu", u"n", -12, "ok", 0x123456789ULL,
                             size_t(7)),
            22);
  EXPECT_EQ(std::u16string(buf), u"n=-12 (ok) 123456789 7");
  // Truncation keeps the terminator inside the buffer.
  EXPECT_EQ(formatWideBuffer(buf, 5, u"%s", u"abcdefgh"), 4);
  EXPECT_EQ(std::u16string(buf), u"abcd");
  EXPECT_EQ(formatWideBuffer(buf, 64, u"bad %"), -1);
  EXPECT_EQ(formatWideBuffer(nullptr, 0, u"x"), -1);
  std::u16string s = u"$(AppName) and $(AppName)$(AppName";
  ostra::kernel::replaceAppName(s, u"$(AppName)!");
  EXPECT_EQ(s, u"$(AppName)! and $(AppName)!$(AppName");
}
