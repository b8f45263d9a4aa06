#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "format_test_support.h"
#include "ostra/kaerror.h"
#include "ostra/kaplatform.h"
#include "ostra/kawave.h"

using namespace formatstest;

namespace {

Bytes itemBytes(_displisttag* l, LONG format) {
  const _displistitemtag* item = displist_GetItem(l, format);
  if (!item || !item->data) return {};
  const auto* p = static_cast<const uint8_t*>(item->data);
  return Bytes(p, p + item->size);
}

}  // namespace

TEST(DisplayList, SaveLoadRoundTrip) {
  TempDir dir;
  const std::string p = dir.file("d.bin");
  const uint64_t before = liveBlocks();
  _displisttag* l = displist_Create();
  ASSERT_NE(l, nullptr);
  ASSERT_EQ(l->count, 2u);
  EXPECT_EQ(l->items[0].format, KA_CF_TEXT);
  EXPECT_EQ(l->items[1].format, KA_CF_DIB);
  EXPECT_EQ(displist_SetItem(l, 3, 1, "x"), HRESULT(0xFFFFFFFFu));
  ASSERT_EQ(displist_SetItem(l, KA_CF_TEXT, 3, "hi"), S_OK);
  ASSERT_EQ(displist_SetItem(l, KA_CF_DIB, 4, "\x01\x02\x03\x04"), S_OK);

  DWORD written = 0;
  {
    File f(p);
    ASSERT_EQ(displist_Save(f, l, &written), S_OK);
  }
  const Bytes saved = readFile(p);
  EXPECT_EQ(written, 12u + 4 + 12 + 4);
  EXPECT_EQ(saved, (Bytes{'D', 'I', 'S', 'P', 7, 0, 0, 0, 1, 0, 0, 0, 'h', 'i', 0, 0,  //
                          'D', 'I', 'S', 'P', 8, 0, 0, 0, 8, 0, 0, 0, 1,   2,   3, 4}));

  // Other chunks and formats the list does not hold are stepped over.
  Bytes more = {'J', 'U', 'N', 'K', 3, 0, 0, 0, 9, 9, 9, 0, 'D',
                'I', 'S', 'P', 5,   0, 0, 0, 2, 0, 0, 0, 7, 0};
  more.insert(more.end(), saved.begin(), saved.end());
  writeFile(p, more);
  displist_Free(l);
  EXPECT_EQ(itemBytes(l, KA_CF_TEXT), Bytes{});
  {
    File f(p);
    f.seek(0);
    DWORD remaining = DWORD(more.size());
    ASSERT_EQ(displist_Load(f, l, &remaining), S_OK);
    EXPECT_EQ(f.pos(), 0);
    remaining = 7;
    ASSERT_EQ(displist_Load(f, l, &remaining), S_OK);  // nothing to do
  }
  EXPECT_EQ(itemBytes(l, KA_CF_TEXT), (Bytes{'h', 'i', 0}));
  EXPECT_EQ(itemBytes(l, KA_CF_DIB), (Bytes{1, 2, 3, 4}));

  // A DISP body past the end of the file fails and empties every item.
  Bytes cut(saved.begin(), saved.begin() + 14);
  writeFile(p, cut);
  {
    File f(p);
    DWORD remaining = 100;
    EXPECT_EQ(displist_Load(f, l, &remaining), KAERR_READ_FAILED);
  }
  EXPECT_EQ(l->items[1].data, nullptr);
  displist_Destroy(l);
  EXPECT_EQ(liveBlocks(), before);
}

TEST(DisplayList, Wave64Chunks) {
  TempDir dir;
  const std::string p = dir.file("d64.bin");
  const uint64_t before = liveBlocks();
  _displisttag* l = displist_Create();
  ASSERT_EQ(displist_SetItem(l, KA_CF_TEXT, 5, "abcd"), S_OK);
  UINT64 written = 0;
  {
    File f(p);
    ASSERT_EQ(displist64_Save(f, l, &written), S_OK);
  }
  const Bytes b = readFile(p);
  ASSERT_EQ(b.size(), 24u + 16);
  EXPECT_EQ(written, 40u);
  EXPECT_EQ(0, std::memcmp(b.data(), &KAGUID_W64_DISP, 16));
  EXPECT_EQ(b[16], 40);  // the pad is counted
  EXPECT_EQ(Bytes(b.begin() + 24, b.end()),
            (Bytes{1, 0, 0, 0, 'a', 'b', 'c', 'd', 0, 0, 0, 0, 0, 0, 0, 0}));

  displist_Free(l);
  {
    File f(p);
    INT64 remaining = INT64(b.size());
    ASSERT_EQ(displist64_Load(f, l, &remaining), S_OK);
  }
  // Stored sizes count the pad, so the item comes back with its zero pad bytes.
  EXPECT_EQ(itemBytes(l, KA_CF_TEXT), (Bytes{'a', 'b', 'c', 'd', 0, 0, 0, 0, 0, 0, 0, 0}));
  displist_Destroy(l);
  EXPECT_EQ(liveBlocks(), before);
}
