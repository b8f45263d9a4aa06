#include <gtest/gtest.h>

#include <tuple>

#include "format_test_support.h"
#include "ostra/kaerror.h"
#include "ostra/riff.h"

using namespace formatstest;

namespace {

// RIFF WAVE: fmt (16), LIST INFO {INAM "abc"}, odd (3 bytes), data (8).
Bytes sampleFile() {
  Bytes info;
  info.add(chunk("INAM", Bytes().text("abc").zeros(1)));
  return riff("WAVE", Bytes()
                          .add(chunk("fmt ", 16))
                          .add(list("INFO", info))
                          .add(chunk("odd ", 3))
                          .add(chunk("data", 8)));
}

}  // namespace

TEST(Riff, WritersLayOutHeadersSizesAndPads) {
  ScratchFile f;
  DWORD total = 0;
  ASSERT_EQ(riff_WriteFileID(f, RIFF_ID_WAVE, 0x1234), S_OK);
  ASSERT_EQ(riff_WriteChunk(f, RIFF_ID_DATA, "xyz", 3, &total), S_OK);
  EXPECT_EQ(total, 12u);
  ASSERT_EQ(riff_WriteChunk(f, RIFF_ID_JUNK, "wxyz", 4, &total), S_OK);
  EXPECT_EQ(total, 12u);
  ASSERT_EQ(riff_WriteListHeader(f, RIFF_ID_INFO, 4), S_OK);
  ASSERT_EQ(riff_WriteChunkHeader(f, RIFF_ID_FMT, 18), S_OK);
  const Bytes expect =
      join({Bytes().id("RIFF").u32(0x1234).id("WAVE"), chunk("data", Bytes().text("xyz")),
            chunk("JUNK", Bytes().text("wxyz")),
            Bytes().id("LIST").u32(4).id("INFO").id("fmt ").u32(18)});
  EXPECT_EQ(f.contents(), expect);

  // A failing device: the chunk writer reports it; the file-id writer only looks at the
  // form type.
  ostra::test::FaultInjection faults;
  faults.failWrite(2);
  EXPECT_EQ(riff_WriteChunk(f, RIFF_ID_DATA, "ab", 2), KAERR_WRITE_FAILED);
  faults.failWrite(1);
  EXPECT_EQ(riff_WriteFileID(f, RIFF_ID_WAVE, 4), KAERR_WRITE_FAILED);
}

TEST(Riff, HeaderReadersCheckIdsAndReportSizes) {
  const Bytes file = sampleFile();
  ScratchFile f(file);
  DWORD size = 0, form = 0, id = 0;
  ASSERT_EQ(riff_ReadFileID(f, &size, &form), S_OK);
  EXPECT_EQ(size, file.size() - 8 - 4);
  EXPECT_EQ(form, RIFF_ID_WAVE);
  EXPECT_EQ(riff_ReadListHeader(f, &id, &size), KAERR_NO_LIST);  // fmt is not a list
  EXPECT_EQ(f.pos(), 20);
  f.seek(12 + 24);
  ASSERT_EQ(riff_ReadListHeader(f, &id, &size), S_OK);
  EXPECT_EQ(id, RIFF_ID_INFO);
  EXPECT_EQ(size, 12u);
  ASSERT_EQ(riff_ReadChunkHeader(f, &id, &size), S_OK);
  EXPECT_EQ(id, KaFourCC('I', 'N', 'A', 'M'));
  f.seek(12);
  size = 99;
  EXPECT_EQ(riff_ReadFileID(f, &size, &form), KAERR_NO_RIFF);
  EXPECT_EQ(size, 0u);

  ScratchFile g(riff("WAVE", Bytes().zeros(32)));
  g.seek(0);
  ASSERT_EQ(riff_GetFileSize(g, &size), S_OK);  // header says 36
  EXPECT_EQ(size, 40u);
  EXPECT_EQ(g.pos(), 12);
  ScratchFile h(Bytes().id("RIFX").u32(4).id("WAVE"));
  EXPECT_EQ(riff_GetFileSize(h, &size), KAERR_NO_RIFF);
  ScratchFile empty;
  EXPECT_EQ(riff_ReadChunkHeader(empty, &id, &size), KAERR_READ_FAILED);
}

TEST(Riff, FindChunkHeaderSpendsItsBudget) {
  const Bytes file = sampleFile();  // chunks at 12 (fmt), 36 (LIST), 60 (odd), 72 (data)
  const DWORD body = DWORD(file.size() - 12);
  struct Case {
    const char* id;
    bool bounded;
    DWORD budget;
    HRESULT expect;
    DWORD size, left;
    INT64 pos;
  };
  const Case cases[] = {
      {"data", true, body, S_OK, 8, 8, 80},
      {"data", false, 0, S_OK, 8, 0, 80},
      {"odd ", true, body, S_OK, 3, 20, 68},
      {"none", true, body, KAERR_NOT_FOUND, 0, 0, 88},
      {"none", false, 0, KAERR_READ_FAILED, 0, 0, 88},
      {"data", true, 67, KAERR_NOT_FOUND, 0, 7, 72},  // 7 bytes short of the data header
      {"odd ", true, 40, KAERR_NOT_FOUND, 0, 0, 60},  // the LIST overruns the budget: 0, not a wrap
      {"fmt ", true, 7, KAERR_NOT_FOUND, 0, 7, 12},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.id) + " budget " + std::to_string(c.budget));
    ScratchFile f(file);
    f.seek(12);
    DWORD size = 0, left = c.budget;
    EXPECT_EQ(riff_FindChunkHeader(f, KaFourCC(c.id[0], c.id[1], c.id[2], c.id[3]), &size,
                                   c.bounded ? &left : nullptr),
              c.expect);
    if (c.expect == S_OK) {
      EXPECT_EQ(size, c.size);
    }
    if (c.bounded) {
      EXPECT_EQ(left, c.left);
    }
    EXPECT_EQ(f.pos(), c.pos);
  }
}

TEST(Riff, SearchesFromTheStartAndIntoLists) {
  const Bytes file = sampleFile();
  ScratchFile f(file);
  DWORD size = 0, left = 0;
  ASSERT_EQ(riff_FindChunkHeaderInRIFF(f, RIFF_ID_DATA, &size, &left), S_OK);
  EXPECT_EQ(size, 8u);
  EXPECT_EQ(left, 8u);
  EXPECT_EQ(riff_FindChunkHeaderInRIFF(f, RIFF_ID_JUNK, &size, &left), KAERR_NOT_FOUND);
  EXPECT_EQ(left, 0u);

  // The RIFF size promises more than the file holds: the read failure resets the budget.
  Bytes longer = file;
  longer[4] += 100;
  ScratchFile g(longer);
  EXPECT_EQ(riff_FindChunkHeaderInRIFF(g, RIFF_ID_JUNK, &size, &left), KAERR_READ_FAILED);
  EXPECT_EQ(left, file.size() - 12 + 100);

  ASSERT_EQ(riff_FindListChunkFromStart(f, RIFF_ID_INFO, &size), S_OK);
  EXPECT_EQ(size, 12u);
  EXPECT_EQ(f.pos(), 48);  // the first sub-chunk
  EXPECT_EQ(riff_FindListChunkFromStart(f, KaFourCC('a', 'd', 't', 'l'), &size), KAERR_NOT_FOUND);

  // Lists in lists: the search skips a list of another type whole, then finds the next.
  const Bytes nested = riff("WAVE", Bytes()
                                        .add(list("adtl", list("INFO", chunk("IART", 5))))
                                        .add(chunk("JUNK", 1))
                                        .add(list("INFO", chunk("INAM", 2))));
  ScratchFile n(nested);
  ASSERT_EQ(riff_FindListChunkFromStart(n, RIFF_ID_INFO, &size), S_OK);
  EXPECT_EQ(size, 10u);
  EXPECT_EQ(n.pos(), 72);
  ScratchFile notRiff(Bytes().id("FORM").u32(4).id("AIFF"));
  EXPECT_EQ(riff_FindListChunkFromStart(notRiff, RIFF_ID_INFO, &size), KAERR_NO_RIFF);
}

TEST(Riff, CountsAndSeeksListEntries) {
  Bytes body;
  for (int i = 0; i < 5; ++i) body.add(chunk("ITEM", size_t(i)));  // 8+0, 8+2, 8+2, 8+4, 8+4
  ScratchFile f(Bytes().zeros(4).add(body));
  f.seek(4);
  DWORD count = 0, left = DWORD(body.size());
  ASSERT_EQ(riff_GetNumListEntries(f, &count, &left), S_OK);
  EXPECT_EQ(count, 5u);
  EXPECT_EQ(left, body.size());  // budget and position are left as given
  EXPECT_EQ(f.pos(), 4);
  EXPECT_EQ(riff_GetNumListEntries(f, &count, nullptr), KAERR_READ_FAILED);  // runs to the end
  EXPECT_EQ(count, 5u);
  EXPECT_EQ(f.pos(), 4);

  left = DWORD(body.size());
  ASSERT_EQ(riff_SeekListEntry(f, 3, &left), S_OK);
  EXPECT_EQ(f.pos(), 4 + 8 + 10 + 10);
  EXPECT_EQ(left, body.size() - 28);
  ASSERT_EQ(riff_SeekListEntry(f, 0, &left), S_OK);
  EXPECT_EQ(f.pos(), 32);
  EXPECT_EQ(riff_SeekListEntry(f, 3, &left), KAERR_NOT_FOUND);
  EXPECT_EQ(left, 0u);
}

TEST(Riff, DataReadersStepOverPads) {
  ScratchFile f(Bytes().text("abcdefghijklmnop"));
  char buf[16] = {};
  ASSERT_EQ(riff_ReadData(f, buf, 3), S_OK);
  EXPECT_EQ(std::string(buf, 3), "abc");
  EXPECT_EQ(f.pos(), 4);
  ASSERT_EQ(riff_ReadDataBounded(f, buf, 5, 2), S_OK);  // reads 2, skips 3
  EXPECT_EQ(std::string(buf, 2), "ef");
  EXPECT_EQ(f.pos(), 9);
  ASSERT_EQ(riff_ReadDataBounded(f, buf, 3, 3), S_OK);  // reads 3, skips the pad of odd B
  EXPECT_EQ(f.pos(), 13);
  EXPECT_EQ(riff_ReadData(f, buf, 4), KAERR_READ_FAILED);
  EXPECT_EQ(riff_SkipChunk(f, 7), 8u);
  EXPECT_EQ(riff_SkipChunk(f, 0xFFFFFFFFu), 0xFFFFFFFFu);
  EXPECT_EQ(f.pos(), 16 + 8 + (INT64(1) << 32));  // the short read went to the end
  DWORD where = 0;
  EXPECT_EQ(riff_SaveLocation(f, &where), S_OK);
  EXPECT_EQ(where, 24u);  // the low 32 bits
  ASSERT_EQ(riff_RestoreLocation(f, 2), S_OK);
  EXPECT_EQ(f.pos(), 2);
  ASSERT_EQ(riff_SeekDataStart(f), S_OK);
  EXPECT_EQ(f.pos(), 12);
}

TEST(Riff, ReadDataAllocChecksTheFileBeforeAllocating) {
  ScratchFile f(Bytes().text("hello"));
  UINT64 blocks0 = 0, bytes0 = 0, blocks = 0, bytes = 0;
  KaGlobalGetStats(&blocks0, &bytes0);
  tRIFFDATA rec{0, reinterpret_cast<void*>(1)};
  ASSERT_EQ(riff_ReadDataAlloc(f, &rec), S_OK);
  EXPECT_EQ(rec.data, nullptr);
  rec.size = 0xFFFFFFF0u;  // far more than the file holds: refused before allocating
  EXPECT_EQ(riff_ReadDataAlloc(f, &rec), KAERR_READ_FAILED);
  EXPECT_EQ(rec.data, nullptr);
  KaGlobalGetStats(&blocks, &bytes);
  EXPECT_EQ(blocks, blocks0);
  rec.size = 5;
  ASSERT_EQ(riff_ReadDataAlloc(f, &rec), S_OK);
  ASSERT_NE(rec.data, nullptr);
  EXPECT_EQ(std::string(static_cast<char*>(rec.data), 5), "hello");
  KaGlobalFreePtr(rec.data);

  f.seek(0);
  ostra::test::FaultInjection faults;
  faults.failAllocation(1);
  EXPECT_EQ(riff_ReadDataAlloc(f, &rec), E_OUTOFMEMORY);
  EXPECT_EQ(rec.data, nullptr);
}

TEST(Riff, RiffSizeUpdatesRestoreThePositionAndRefuseTheLimit) {
  ScratchFile f(riff("WAVE", chunk("data", 8)));
  f.seek(17);
  ASSERT_EQ(riff_SetRIFFSize(f, 100), S_OK);
  EXPECT_EQ(f.contents().u32At(4), 100u);
  EXPECT_EQ(f.pos(), 17);
  ASSERT_EQ(riff_UpdateRIFFSize(f, -80), S_OK);
  EXPECT_EQ(f.contents().u32At(4), 20u);
  EXPECT_EQ(riff_UpdateRIFFSize(f, -21), E_INVALIDARG);
  EXPECT_EQ(f.contents().u32At(4), 20u);
  EXPECT_EQ(f.pos(), 17);

  // Something was appended past the stated size, and the new size would pass the limit:
  // the appended bytes are cut away.
  f.seek(28);
  ASSERT_EQ(KaFile_Write(f, "appended", 8, nullptr), S_OK);
  EXPECT_EQ(riff_UpdateRIFFSize(f, INT64(RIFF_MAX_SIZE) - 20 + 1), KAERR_RIFF_TOO_LARGE);
  EXPECT_EQ(f.contents().size(), 28u);
  EXPECT_EQ(f.pos(), 36);
  ASSERT_EQ(riff_UpdateRIFFSize(f, INT64(RIFF_MAX_SIZE) - 20), S_OK);
  EXPECT_EQ(f.contents().u32At(4), RIFF_MAX_SIZE);

  ostra::test::FaultInjection faults;
  faults.failWrite(1);
  f.seek(9);
  EXPECT_EQ(riff_SetRIFFSize(f, 4), KAERR_WRITE_FAILED);
  EXPECT_EQ(f.pos(), 9);
  EXPECT_EQ(riff_UpdateRIFFSize(f, -4), KAERR_WRITE_FAILED);
  EXPECT_EQ(f.pos(), 9);
  faults.failRead(1);
  EXPECT_EQ(riff_UpdateRIFFSize(f, -4), KAERR_READ_FAILED);
  EXPECT_EQ(f.pos(), 9);
}

TEST(Riff, DeleteChunkCompactsTheFile) {
  const Bytes big = chunk("big ", 10001);  // several 4096-byte blocks behind it
  struct Case {
    const char* id;
    bool isList;
    Bytes before, removedPart, after;
  };
  const Case cases[] = {
      {"data", false, chunk("fmt ", 16), chunk("data", 8), {}},  // the last chunk
      {"odd ", false, chunk("fmt ", 16), chunk("odd ", 3), Bytes().add(big).add(chunk("x   ", 1))},
      {"INFO", true, list("adtl", chunk("labl", 4)), list("INFO", chunk("INAM", 5)), big},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.id);
    const Bytes file = riff("WAVE", Bytes().add(c.before).add(c.removedPart).add(c.after));
    ScratchFile f(file);
    DWORD removed = 0;
    ASSERT_EQ(riff_DeleteChunk(f, KaFourCC(c.id[0], c.id[1], c.id[2], c.id[3]), &removed, c.isList),
              S_OK);
    EXPECT_EQ(removed, c.removedPart.size());
    EXPECT_EQ(f.contents(), riff("WAVE", Bytes().add(c.before).add(c.after)));
  }
  ScratchFile f(riff("WAVE", chunk("fmt ", 16)));
  DWORD removed = 7;
  EXPECT_EQ(riff_DeleteChunk(f, RIFF_ID_DATA, &removed), KAERR_NOT_FOUND);
  EXPECT_EQ(removed, 0u);
  EXPECT_EQ(f.contents(), riff("WAVE", chunk("fmt ", 16)));
}

TEST(Riff, AnsiStringsCarryTheirZeroAndPad) {
  ScratchFile f;
  DWORD written = 0;
  ASSERT_EQ(riff_WriteANSIString(f, u"caf\u00e9", &written), S_OK);  // 4 bytes + 0 + pad
  EXPECT_EQ(written, 6u);
  ASSERT_EQ(riff_WriteANSIString(f, nullptr, &written), S_OK);
  EXPECT_EQ(written, 2u);
  EXPECT_EQ(f.contents(), Bytes({'c', 'a', 'f', 0xE9, 0, 0, 0, 0}));

  struct Case {
    DWORD count, capacity;
    std::u16string text;
    INT64 pos;
  };
  const Case cases[] = {
      {5, 16, u"caf\u00e9", 6},  // 5 bytes read, the pad skipped
      {5, 3, u"ca", 6},          // capacity cuts the text, not the walk
      {4, 16, u"caf", 4},        // the last byte read is forced to zero
      {0, 16, u"", 0},
  };
  for (const Case& c : cases) {
    f.seek(0);
    KAWCHAR buf[16];
    std::fill(std::begin(buf), std::end(buf), u'#');
    DWORD count = c.count;
    ASSERT_EQ(riff_ReadANSIString(f, buf, c.capacity, &count), S_OK);
    EXPECT_EQ(std::u16string(buf), c.text);
    EXPECT_EQ(count, c.count + 1);
    EXPECT_EQ(f.pos(), c.pos);
  }
  DWORD count = 1;
  EXPECT_EQ(riff_ReadANSIString(f, nullptr, 4, &count), E_INVALIDARG);
  f.seek(7);
  count = 5;
  KAWCHAR buf[8];
  EXPECT_EQ(riff_ReadANSIString(f, buf, 8, &count), KAERR_READ_FAILED);
}

TEST(Riff, ValidateChunkHeaderBySign) {
  EXPECT_EQ(riff_ValidateChunkHeader(KA_INVALID_HFILE, 0, -1), KAERR_BAD_CHUNK);
  EXPECT_EQ(riff_ValidateChunkHeader(KA_INVALID_HFILE, 0, 0), KAERR_ZERO_CHUNK);
  EXPECT_EQ(riff_ValidateChunkHeader(KA_INVALID_HFILE, 0, 1), S_OK);
}

TEST(Riff, CdAudioTrackFiles) {
  Bytes fmt;
  fmt.u16(1).u16(7).u32(0xCAFE).u32(1000).u32(2500);
  fmt.put("\x05\x02\x01\x00", 4).put("\x00\x21\x00\x00", 4);  // start 1:02.05, length 0:33.00
  struct Case {
    Bytes file;
    HRESULT expect;
  };
  const Case cases[] = {
      {riff("CDDA", Bytes().add(chunk("JUNK", 2)).add(chunk("fmt ", fmt))), S_OK},
      {riff("WAVE", chunk("fmt ", fmt)), KAERR_CORRUPT_FILE},
      {riff("CDDA", chunk("fmt ", 20)), KAERR_CDDA_FORMAT},
      {riff("CDDA", chunk("data", 4)), KAERR_NOT_FOUND},
      {Bytes().id("RIFX"), KAERR_READ_FAILED},
      {Bytes().id("RIFX").u32(4).id("CDDA"), KAERR_NO_RIFF},
  };
  ostra::test::TempDir dir;
  const auto path = dir.wfile("track.cda");
  for (const Case& c : cases) {
    ostra::test::writeFile(dir.file("track.cda"), c.file);
    DWORD track = 9, first = 9, start = 9, length = 9, serial = 9;
    EXPECT_EQ(riff_ReadCDAFile(path.c_str(), &track, &first, &start, &length, &serial), c.expect);
    const auto got = std::tuple(track, first, start, length, serial);
    EXPECT_EQ(got, c.expect == S_OK ? std::tuple(7u, 1000u, (60u + 2u) * 75u + 5u, 2500u, 0xCAFEu)
                                    : std::tuple(0u, 0u, 0u, 0u, 0u));
  }
  DWORD track = 9;
  EXPECT_EQ(riff_ReadCDAFile(dir.wfile("missing.cda").c_str(), &track, nullptr, nullptr, nullptr,
                             nullptr),
            KAERR_OPEN_FAILED);
  EXPECT_EQ(track, 0u);
}
