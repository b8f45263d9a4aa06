#include <gtest/gtest.h>

#include "format_test_support.h"
#include "ostra/kaerror.h"
#include "ostra/riff64.h"

using namespace formatstest;

namespace {

constexpr GUID kOther = KaGuid("01234567-89AB-CDEF-0123-456789ABCDEF");

Bytes chunk64(const GUID& id, size_t n, uint8_t fill = 0xCD) {
  Bytes b;
  b.guid(id).u64(n + 24).zeros(0);
  b.insert(b.end(), n, fill);
  b.zeros((8 - n % 8) % 8);
  return b;
}
Bytes list64(const GUID& type, const Bytes& body) {
  Bytes b;
  b.guid(RIFF64_GUID_LIST).u64(24 + 16 + body.size()).guid(type).add(body);
  return b;
}
Bytes riff64(const GUID& form, const Bytes& body) {
  Bytes b;
  b.guid(RIFF64_GUID_RIFF).u64(40 + body.size()).guid(form).add(body);
  return b;
}

}  // namespace

TEST(Riff64, GuidsHaveTheirFileBytes) {
  Bytes riffBytes, junkBytes;
  riffBytes.guid(RIFF64_GUID_RIFF);
  junkBytes.guid(RIFF64_GUID_JUNK);
  EXPECT_EQ(riffBytes, Bytes({'r', 'i', 'f', 'f', 0x2E, 0x91, 0xCF, 0x11, 0xA5, 0xD6, 0x28, 0xDB,
                              0x04, 0xC1, 0x00, 0x00}));
  EXPECT_EQ(junkBytes, Bytes({'j', 'u', 'n', 'k', 0xF3, 0xAC, 0x3D, 0x11, 0x8C, 0xD1, 0x00, 0xC0,
                              0x4F, 0x8E, 0xDB, 0x8A}));
  EXPECT_EQ(riff64_getGUIDLabel(RIFF64_GUID_DATA), nullptr);
  EXPECT_EQ(riff64_getGUIDLabelProperly(RIFF64_GUID_FMT), nullptr);
}

TEST(Riff64, WritersCountHeadersAndPads) {
  ScratchFile f;
  UINT64 total = 0, written = 0;
  ASSERT_EQ(riff64_WriteFileID(f, RIFF64_GUID_WAVE, 100), S_OK);
  ASSERT_EQ(riff64_WriteChunk(f, RIFF64_GUID_FMT, "0123456789abcdefgh", 18, &total), S_OK);
  EXPECT_EQ(total, 48u);
  ASSERT_EQ(riff64_WriteListHeader(f, kOther, 16), S_OK);
  ASSERT_EQ(riff64_WriteChunkHeader(f, RIFF64_GUID_DATA, 3), S_OK);
  ASSERT_EQ(riff64_WriteData(f, "xyz", 3, &written), S_OK);
  EXPECT_EQ(written, 8u);
  const Bytes expect =
      join({Bytes().guid(RIFF64_GUID_RIFF).u64(124).guid(RIFF64_GUID_WAVE),
            Bytes().guid(RIFF64_GUID_FMT).u64(42).text("0123456789abcdefgh").zeros(6),
            Bytes().guid(RIFF64_GUID_LIST).u64(40).guid(kOther),
            Bytes().guid(RIFF64_GUID_DATA).u64(27).text("xyz").zeros(5)});
  EXPECT_EQ(f.contents(), expect);
}

TEST(Riff64, StreamingWriterFixesSizesAfterwards) {
  ScratchFile f;
  UINT64 listStart = 0, chunkStart = 0;
  ASSERT_EQ(riff64_PrepareList(f, kOther, &listStart), S_OK);
  ASSERT_EQ(riff64_PrepareChunk(f, RIFF64_GUID_DATA, &chunkStart), S_OK);
  EXPECT_EQ(chunkStart, 40u);
  ASSERT_EQ(riff64_WriteToFile(f, "0123456789", 10), S_OK);
  ASSERT_EQ(riff64_WriteToFile(f, "abcdefgh", 8), S_OK);
  EXPECT_EQ(riff64_AmountWritten(f, chunkStart), 42);
  ASSERT_EQ(riff64_CompleteChunk(f, chunkStart), S_OK);  // 18 data bytes: 48 with the pad
  EXPECT_EQ(f.pos(), 88);
  ASSERT_EQ(riff64_WriteChunkToFile(f, RIFF64_GUID_JUNK, "abc", 3), S_OK);
  ASSERT_EQ(riff64_WriteToFile(f, "q", 1), S_OK);
  ASSERT_EQ(riff64_Pad(f, listStart), S_OK);
  ASSERT_EQ(riff64_CompleteChunk(f, listStart), S_OK);
  const Bytes c = f.contents();
  ASSERT_EQ(c.size(), 128u);
  EXPECT_EQ(c.u64At(16), 128u);
  EXPECT_EQ(c.u64At(40 + 16), 48u);
  EXPECT_EQ(c.u64At(88 + 16), 32u);
  EXPECT_EQ(f.pos(), 128);

  ostra::test::FaultInjection faults;
  faults.failWrite(1);
  EXPECT_EQ(riff64_WriteToFile(f, "x", 1), KAERR_WRITE_FAILED);
  f.seek(41);
  faults.failWrite(2);  // the pad goes through, the size word does not
  EXPECT_EQ(riff64_CompleteChunk(f, 40), KAERR_WRITE_FAILED);
  EXPECT_EQ(f.pos(), 48);
}

TEST(Riff64, ReadersClampSizesAndAlign) {
  const Bytes file = riff64(RIFF64_GUID_WAVE, Bytes()
                                                  .add(chunk64(RIFF64_GUID_FMT, 18))
                                                  .guid(kOther)
                                                  .u64(7)  // size word below 24
                                                  .add(chunk64(RIFF64_GUID_DATA, 16)));
  ScratchFile f(file);
  INT64 budget = 0;
  GUID g{};
  UINT64 size = 0;
  ASSERT_EQ(riff64_ReadFileID(f, &budget, &g), S_OK);
  EXPECT_EQ(g, RIFF64_GUID_WAVE);
  EXPECT_EQ(budget, INT64(file.size()) - 40);
  ASSERT_EQ(riff64_ReadChunkHeader(f, &g, &size), S_OK);
  EXPECT_EQ(size, 18u);
  char buf[32];
  ASSERT_EQ(riff64_ReadData(f, buf, 18), S_OK);
  EXPECT_EQ(f.pos(), 40 + 24 + 24);
  ASSERT_EQ(riff64_ReadChunkHeader(f, &g, &size), S_OK);
  EXPECT_EQ(size, 0u);
  f.seek(64);
  ASSERT_EQ(riff64_ReadDataBounded(f, buf, 18, 18), S_OK);  // skips 2, not 6
  EXPECT_EQ(f.pos(), 64 + 20);
  f.seek(64);
  ASSERT_EQ(riff64_ReadDataBounded(f, buf, 18, 4), S_OK);  // 14 left over + 4 mod 8
  EXPECT_EQ(f.pos(), 64 + 4 + 14 + 4);
  EXPECT_EQ(riff64_SkipChunk(f, 9), 16u);
  ASSERT_EQ(riff64_SeekDataStart(f), S_OK);
  EXPECT_EQ(riff64_ReadListHeader(f, &g, &size), KAERR_NO_LIST);

  // The form check comes after the size is reported.
  ScratchFile bad(Bytes().guid(kOther).u64(100).guid(RIFF64_GUID_WAVE));
  budget = 0;
  EXPECT_EQ(riff64_ReadFileID(bad, &budget, &g), KAERR_NO_RIFF);
  EXPECT_EQ(budget, 60);

  tRIFFDATA rec{100, nullptr};
  f.seek(64);
  EXPECT_EQ(riff64_ReadDataAlloc(f, &rec), KAERR_READ_FAILED);  // more than is left
  rec.size = 18;
  ASSERT_EQ(riff64_ReadDataAlloc(f, &rec), S_OK);
  EXPECT_EQ(static_cast<uint8_t*>(rec.data)[17], 0xCD);
  EXPECT_EQ(f.pos(), 88);
  KaGlobalFreePtr(rec.data);
}

TEST(Riff64, SearchesWithSignedBudgets) {
  // 40: fmt (48), 88: list{other}{junk 8} (72), 160: data (24+16)
  const Bytes file = riff64(RIFF64_GUID_WAVE, Bytes()
                                                  .add(chunk64(RIFF64_GUID_FMT, 18))
                                                  .add(list64(kOther, chunk64(RIFF64_GUID_JUNK, 8)))
                                                  .add(chunk64(RIFF64_GUID_DATA, 16)));
  struct Case {
    GUID id;
    bool bounded;
    INT64 budget;
    HRESULT expect;
    INT64 left, pos;
  };
  const INT64 body = INT64(file.size()) - 40;
  const Case cases[] = {
      {RIFF64_GUID_DATA, true, body, S_OK, 16, 184},
      {RIFF64_GUID_DATA, false, 0, S_OK, 0, 184},
      {kOther, true, body, KAERR_NOT_FOUND, 0, 200},
      {kOther, false, 0, KAERR_READ_FAILED, 0, 200},
      {RIFF64_GUID_DATA, true, 80, KAERR_NOT_FOUND, -40, 160},  // the list overruns: negative
      {RIFF64_GUID_FMT, true, 23, KAERR_NOT_FOUND, 23, 40},
  };
  for (const Case& c : cases) {
    ScratchFile f(file);
    f.seek(40);
    UINT64 size = 0;
    INT64 left = c.budget;
    EXPECT_EQ(riff64_FindChunkHeader(f, c.id, &size, c.bounded ? &left : nullptr), c.expect);
    if (c.bounded) {
      EXPECT_EQ(left, c.left);
    }
    EXPECT_EQ(f.pos(), c.pos);
  }

  ScratchFile f(file);
  UINT64 size = 0;
  INT64 left = 0;
  ASSERT_EQ(riff64_FindChunkHeaderInRIFF(f, RIFF64_GUID_DATA, &size, &left), S_OK);
  EXPECT_EQ(size, 16u);
  EXPECT_EQ(left, 16);
  EXPECT_EQ(riff64_FindChunkHeaderInRIFF(f, kOther, &size, &left), KAERR_NOT_FOUND);
  EXPECT_EQ(left, 0);
  ASSERT_EQ(riff64_FindListChunkFromStart(f, kOther, &size), S_OK);
  EXPECT_EQ(size, 32u);
  EXPECT_EQ(f.pos(), 88 + 40);
  EXPECT_EQ(riff64_FindListChunkFromStart(f, RIFF64_GUID_WAVE, &size), KAERR_NOT_FOUND);

  DWORD count = 0;
  left = body;
  f.seek(40);
  ASSERT_EQ(riff64_GetNumListEntries(f, &count, &left), S_OK);
  EXPECT_EQ(count, 3u);
  EXPECT_EQ(f.pos(), 40);
  EXPECT_EQ(riff64_GetNumListEntries(f, &count, nullptr), KAERR_READ_FAILED);
  EXPECT_EQ(count, 3u);
  ASSERT_EQ(riff64_SeekListEntry(f, 2, &left), S_OK);
  EXPECT_EQ(f.pos(), 160);
  EXPECT_EQ(left, 40);
  EXPECT_EQ(riff64_SeekListEntry(f, 2, &left), KAERR_NOT_FOUND);
}

TEST(Riff64, SizeWordAndDeletion) {
  const Bytes head = chunk64(RIFF64_GUID_FMT, 18), gone = chunk64(kOther, 5);
  const Bytes tail = chunk64(RIFF64_GUID_DATA, 9000);  // moved in several blocks
  ScratchFile f(riff64(RIFF64_GUID_WAVE, Bytes().add(head).add(gone).add(tail)));
  f.seek(50);
  ASSERT_EQ(riff64_SetRIFFSize(f, 1000), S_OK);
  EXPECT_EQ(f.contents().u64At(16), 1024u);
  ASSERT_EQ(riff64_UpdateRIFFSize(f, -1024 + 40 + INT64(head.size() + gone.size() + tail.size())),
            S_OK);
  EXPECT_EQ(f.pos(), 50);
  UINT64 removed = 0;
  ASSERT_EQ(riff64_DeleteChunk(f, kOther, &removed), S_OK);
  EXPECT_EQ(removed, 32u);
  EXPECT_EQ(f.contents(), riff64(RIFF64_GUID_WAVE, Bytes().add(head).add(tail)));
  EXPECT_EQ(riff64_DeleteChunk(f, kOther, &removed), KAERR_NOT_FOUND);
  EXPECT_EQ(removed, 0u);
  ASSERT_EQ(riff64_DeleteChunk(f, RIFF64_GUID_DATA, &removed), S_OK);  // the last chunk
  EXPECT_EQ(f.contents(), riff64(RIFF64_GUID_WAVE, head));
}

TEST(Riff64, ValidateUsesItsExactMask) {
  const struct {
    UINT64 size;
    HRESULT expect;
  } cases[] = {{0, KAERR_ZERO_CHUNK},        {8, S_OK},
               {9, KAERR_BAD_CHUNK},         {0x800000000ull, KAERR_BAD_CHUNK},
               {0x400000000ull, S_OK},       {0x1000000000ull, S_OK},
               {0x8000000000000000ull, S_OK}};
  for (const auto& c : cases)
    EXPECT_EQ(riff64_ValidateChunkHeader(KA_INVALID_HFILE, kOther, c.size), c.expect) << c.size;
}
