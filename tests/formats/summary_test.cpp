#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "format_test_support.h"
#include "ostra/kaerror.h"
#include "ostra/kaplatform.h"
#include "ostra/kawave.h"
#include "ostra/riff.h"

using namespace formatstest;

namespace {

std::u16string text(const _summarylisttag& l, DWORD id) {
  const KAWCHAR* t = KaSummary_GetItemText(&l, id);
  return t ? std::u16string(t) : u"<null>";
}

// A chunk without the pad byte.
Bytes sub(const char* id, const Bytes& body) {
  return Bytes().id(id).u32(uint32_t(body.size())).add(body);
}

}  // namespace

TEST(Summary, SaveAndLoadBothEncodings) {
  TempDir dir;
  const std::string p = dir.file("s.bin");
  const uint64_t before = liveBlocks();
  _summarylisttag list{0, nullptr};
  ASSERT_EQ(KaSummary_SetItem(&list, KASUMMARY_INAM, u"Caf\u00e9"), S_OK);
  ASSERT_EQ(KaSummary_SetItem(&list, KASUMMARY_IART, u"ab"), S_OK);
  ASSERT_EQ(KaSummary_SetItem(&list, KaFourCC('Z', 'Z', 'Z', 'Z'), nullptr), S_OK);  // skipped
  ASSERT_EQ(KaSummary_SetItem(&list, KASUMMARY_ICMT, u""), S_OK);
  DWORD written = 0;
  {
    File f(p);
    ASSERT_EQ(KaSummary_Save(f, &list, &written), S_OK);
  }
  // Sizes exclude the pad byte.
  const Bytes expect =
      formatstest::list("INFO", {chunk("INAM", Bytes{'C', 'a', 'f', 0xE9, 0}),
                                 chunk("IART", Bytes{'a', 'b', 0}), chunk("ICMT", Bytes{0})});
  EXPECT_EQ(readFile(p), expect);
  EXPECT_EQ(written, expect.size());

  _summarylisttag back{0, nullptr};
  {
    File f(p);
    f.seek(12);
    const DWORD remaining = DWORD(expect.size() - 12);
    ASSERT_EQ(KaSummary_Load(f, &back, &remaining), S_OK);
  }
  ASSERT_EQ(back.count, 3u);
  EXPECT_EQ(text(back, KASUMMARY_INAM), u"Caf\u00e9");
  EXPECT_EQ(text(back, KASUMMARY_IART), u"ab");
  EXPECT_EQ(text(back, KASUMMARY_ICMT), u"");

  writeFile(p, {});
  {
    File f(p);
    ASSERT_EQ(KaSummary_SaveUNFO(f, &list, &written), S_OK);
    f.seek(12);
    const DWORD remaining = written - 12;
    ASSERT_EQ(KaSummary_LoadUNFO(f, &back, &remaining), S_OK);
  }
  const Bytes unfo = readFile(p);
  EXPECT_EQ(std::string(unfo.begin() + 8, unfo.begin() + 12), "UNFO");
  EXPECT_EQ(unfo[16], 10);  // "Caf\u00e9" + terminator, two bytes each
  EXPECT_EQ(unfo[26], 0xE9);
  EXPECT_EQ(unfo[27], 0x00);
  EXPECT_EQ(back.count, 3u);
  EXPECT_EQ(text(back, KASUMMARY_INAM), u"Caf\u00e9");

  _summarylisttag empty{0, nullptr}, onlyNull{0, nullptr};
  ASSERT_EQ(KaSummary_SetItem(&onlyNull, KASUMMARY_ISRC, nullptr), S_OK);
  writeFile(p, {});
  {
    File f(p);
    ASSERT_EQ(KaSummary_Save(f, &empty, &written), S_OK);
    EXPECT_EQ(written, 0u);
    ASSERT_EQ(KaSummary_Save(f, &onlyNull, &written), S_OK);
    EXPECT_EQ(written, 12u);
  }
  EXPECT_EQ(readFile(p), formatstest::list("INFO", Bytes()));
  KaSummary_Free(&list);
  KaSummary_Free(&back);
  KaSummary_Free(&onlyNull);
  EXPECT_EQ(liveBlocks(), before);
}

TEST(Summary, LoadRefusesBadChunksAndLeavesTheListEmpty) {
  TempDir dir;
  const std::string p = dir.file("bad.bin");
  const uint64_t before = liveBlocks();
  struct Case {
    const char* what;
    Bytes bytes;
    DWORD remaining;
    HRESULT expect;
    DWORD count;
    std::u16string first;
  };
  const Case cases[] = {
      {"no terminator, odd size, no pad at the end", sub("INAM", {'a', 'b', 'c'}), 11, S_OK, 1,
       u"abc"},
      {"zero size", sub("INAM", {}), 8, S_OK, 1, u""},
      {"budget past the end", sub("INAM", {'a'}), 100, KAERR_READ_FAILED, 0, u""},
      {"size past the budget is cut to it", sub("INAM", {'a', 'b', 'c', 'd'}), 10, S_OK, 1, u"ab"},
      {"huge size",
       {'I', 'N', 'A', 'M', 0xF0, 0xFF, 0xFF, 0xFF, 'x'},
       0xFFFFFFF8u,
       KAERR_READ_FAILED,
       0,
       u""},
      {"budget below one header", sub("INAM", {'a'}), 7, S_OK, 0, u""},
      {"embedded zero ends the text", sub("INAM", {'a', 0, 'b', 0}), 12, S_OK, 1, u"a"},
  };
  for (const Case& c : cases) {
    writeFile(p, c.bytes);
    _summarylisttag list{0, nullptr};
    ASSERT_EQ(KaSummary_SetItem(&list, KASUMMARY_ICOP, u"old"), S_OK);  // replaced by the load
    {
      File f(p);
      EXPECT_EQ(KaSummary_Load(f, &list, &c.remaining), c.expect) << c.what;
    }
    EXPECT_EQ(list.count, c.count) << c.what;
    if (c.count) {
      EXPECT_EQ(text(list, KASUMMARY_INAM), c.first) << c.what;
    }
    KaSummary_Free(&list);
  }
  _summarylisttag list{0, nullptr};
  const DWORD r = 8;
  File f(p);
  EXPECT_EQ(KaSummary_Load(f, nullptr, &r), E_INVALIDARG);
  EXPECT_EQ(KaSummary_Load(f, &list, nullptr), E_INVALIDARG);
  EXPECT_EQ(liveBlocks(), before);
}

TEST(Summary, EditCopyCompareMerge) {
  const uint64_t before = liveBlocks();
  const DWORD A = KaFourCC('A', 'A', 'A', 'A'), B = KaFourCC('B', 'B', 'B', 'B'),
              C = KaFourCC('C', 'C', 'C', 'C');
  _summarylisttag l{0, nullptr};
  EXPECT_EQ(KaSummary_SetItem(&l, 0, u"x"), E_INVALIDARG);
  ASSERT_EQ(KaSummary_SetItem(&l, A, u"a"), S_OK);
  ASSERT_EQ(KaSummary_SetItem(&l, B, u"b"), S_OK);
  ASSERT_EQ(KaSummary_SetItem(&l, C, u"c"), S_OK);
  ASSERT_EQ(KaSummary_SetItem(&l, A, u"a2"), S_OK);
  EXPECT_EQ(KaSummary_GetItemIndex(&l, C), 2);
  EXPECT_EQ(KaSummary_GetItemIndex(&l, KaFourCC('N', 'O', 'N', 'E')), KAERR_NOT_FOUND);
  ASSERT_EQ(KaSummary_SetItem(&l, B, nullptr), S_OK);  // delete: later items move down
  ASSERT_EQ(l.count, 2u);
  EXPECT_EQ(l.items[1].id, C);
  EXPECT_EQ(text(l, A), u"a2");

  _summarylisttag copy{0, nullptr};
  ASSERT_EQ(KaSummary_Copy(&copy, &l), S_OK);
  EXPECT_TRUE(KaSummary_Compare(&copy, &l));
  ASSERT_EQ(KaSummary_SetItem(&copy, C, u"C"), S_OK);
  EXPECT_FALSE(KaSummary_Compare(&copy, &l));  // case-sensitive
  copy.items[1].id = B;
  ASSERT_EQ(KaSummary_SetItem(&copy, B, u"c"), S_OK);
  EXPECT_TRUE(KaSummary_Compare(&copy, &l));  // ids are not compared
  EXPECT_FALSE(KaSummary_Compare(&copy, nullptr));

  struct Merge {
    BOOL overwrite, move;
    std::u16string a, b;
    DWORD count, srcCount;
  };
  // Destination {A:"a2", C:"c"}, source {A:"new", B:"b"}.
  for (const Merge& m :
       {Merge{FALSE, FALSE, u"a2", u"b", 3, 2}, Merge{TRUE, FALSE, u"new", u"b", 3, 2},
        Merge{FALSE, TRUE, u"a2", u"b", 3, 0}, Merge{TRUE, TRUE, u"new", u"b", 3, 0}}) {
    _summarylisttag dst{0, nullptr}, src{0, nullptr};
    ASSERT_EQ(KaSummary_Copy(&dst, &l), S_OK);
    ASSERT_EQ(KaSummary_SetItem(&src, A, u"new"), S_OK);
    ASSERT_EQ(KaSummary_SetItem(&src, B, u"b"), S_OK);
    ASSERT_EQ(KaSummary_Merge(&dst, &src, m.overwrite, m.move), S_OK);
    EXPECT_EQ(dst.count, m.count);
    EXPECT_EQ(src.count, m.srcCount);
    EXPECT_EQ(text(dst, A), m.a);
    EXPECT_EQ(text(dst, B), m.b);
    EXPECT_EQ(text(dst, C), u"c");
    KaSummary_Free(&dst);
    KaSummary_Free(&src);
  }
  _summarylisttag taken{0, nullptr};
  ASSERT_EQ(KaSummary_Merge(&taken, &copy, FALSE, TRUE),
            S_OK);  // empty destination takes the array
  EXPECT_EQ(taken.count, 2u);
  EXPECT_EQ(copy.count, 0u);

  ASSERT_EQ(KaSummary_SetItem(&taken, A, nullptr), S_OK);
  ASSERT_EQ(KaSummary_SetItem(&taken, B, nullptr), S_OK);  // the last item frees the list
  EXPECT_EQ(taken.count, 0u);
  EXPECT_EQ(taken.items, nullptr);
  KaSummary_Free(&l);
  EXPECT_EQ(liveBlocks(), before);
}

TEST(Summary, OneTextFromAFile) {
  TempDir dir;
  const std::string p = dir.file("w.wav");
  const Bytes file = join({chunk("JUNK", 2), list("INFO", chunk("IART", Bytes{'m', 'e', 0}))});
  writeFile(p, file);
  File f(p);
  KAWCHAR buffer[8];
  DWORD remaining = DWORD(file.size());
  ASSERT_EQ(KaSummary_GetStringFromFile(f, KASUMMARY_IART, buffer, 8, &remaining), S_OK);
  EXPECT_EQ(std::u16string(buffer), u"me");
  f.seek(0);
  remaining = DWORD(file.size());
  EXPECT_EQ(KaSummary_GetStringFromFile(f, KASUMMARY_INAM, buffer, 8, &remaining), KAERR_NOT_FOUND);
  EXPECT_EQ(buffer[0], 0);
}
