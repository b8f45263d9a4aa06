#include <gtest/gtest.h>

#include <cstring>

#include "ostra/kaerror.h"
#include "ostra/kaplatform.h"
#include "support/test_support.h"

using ostra::test::TempDir;

TEST(File, DispositionsFollowTheClassicRules) {
  TempDir dir;
  const auto path = dir.wfile("a.bin");
  KAHFILE f;
  // The file does not exist at first; each row runs against the state the previous left,
  // and every open that succeeds leaves four bytes in the file.
  const struct {
    DWORD disposition;
    HRESULT expect;
    UINT64 sizeAtOpen;
  } cases[] = {
      {OPEN_EXISTING, KAERR_NOT_FOUND, 0},
      {TRUNCATE_EXISTING, KAERR_NOT_FOUND, 0},
      {CREATE_NEW, S_OK, 0},
      {CREATE_NEW, KAERR_ALREADY_EXISTS, 0},
      {OPEN_EXISTING, S_OK, 4},
      {OPEN_ALWAYS, S_OK, 4},
      {CREATE_ALWAYS, S_OK, 0},
      {TRUNCATE_EXISTING, S_OK, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.disposition);
    EXPECT_EQ(KaFile_Open(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ,
                          c.disposition, 0, &f),
              c.expect);
    if (FAILED(c.expect)) {
      EXPECT_EQ(f, KA_INVALID_HFILE);
      continue;
    }
    UINT64 size = 99;
    EXPECT_EQ(KaFile_GetSize(f, &size), S_OK);
    EXPECT_EQ(size, c.sizeAtOpen);
    EXPECT_EQ(KaFile_Write(f, "abcd", 4, nullptr), S_OK);
    EXPECT_EQ(KaFile_Close(f), S_OK);
  }
}

TEST(File, ReadWriteSeekTruncate) {
  TempDir dir;
  KAHFILE f;
  ASSERT_EQ(KaFile_OpenUtf8(dir.file("b.bin").c_str(), GENERIC_READ | GENERIC_WRITE, 0,
                            CREATE_ALWAYS, 0, &f),
            S_OK);
  DWORD n = 0;
  ASSERT_EQ(KaFile_Write(f, "0123456789", 10, &n), S_OK);
  EXPECT_EQ(n, 10u);
  INT64 pos = -1;
  ASSERT_EQ(KaFile_Seek(f, -4, FILE_END, &pos), S_OK);
  EXPECT_EQ(pos, 6);
  char buf[16] = {};
  ASSERT_EQ(KaFile_Read(f, buf, 16, &n), S_OK);  // short at end of file, still S_OK
  EXPECT_EQ(n, 4u);
  EXPECT_EQ(std::string(buf, 4), "6789");
  ASSERT_EQ(KaFile_Seek(f, 3, FILE_BEGIN, nullptr), S_OK);
  ASSERT_EQ(KaFile_SetEndOfFile(f), S_OK);
  UINT64 size = 0;
  ASSERT_EQ(KaFile_GetSize(f, &size), S_OK);
  EXPECT_EQ(size, 3u);
  ASSERT_EQ(KaFile_Seek(f, 5LL << 32, FILE_BEGIN, &pos), S_OK);  // 64-bit positions
  EXPECT_EQ(pos, 5LL << 32);
  INT64 t = 0;
  ASSERT_EQ(KaFile_GetModifiedTime(f, &t), S_OK);
  EXPECT_GT(t, 132000000000000000LL);  // after 2019 in 100 ns ticks since 1601
  EXPECT_EQ(KaFile_Close(f), S_OK);
  EXPECT_EQ(KaFile_Read(-1, buf, 1, &n), E_HANDLE);
}

TEST(File, WriterWithoutSharedWritingExcludesOtherWriters) {
  TempDir dir;
  const auto p = dir.file("c.bin");
  KAHFILE a, b;
  ASSERT_EQ(KaFile_OpenUtf8(p.c_str(), GENERIC_WRITE, FILE_SHARE_READ, CREATE_ALWAYS, 0, &a), S_OK);
  EXPECT_EQ(KaFile_OpenUtf8(p.c_str(), GENERIC_WRITE, FILE_SHARE_READ, OPEN_EXISTING, 0, &b),
            KAERR_SHARING_VIOLATION);
  ASSERT_EQ(KaFile_OpenUtf8(p.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                            OPEN_EXISTING, 0, &b),
            S_OK);
  KaFile_Close(b);
  KaFile_Close(a);
}

TEST(File, DiskFullIsReportedWithTheCountWritten) {
  TempDir dir;
  KAHFILE f;
  ASSERT_EQ(KaFile_OpenUtf8(dir.file("d.bin").c_str(), GENERIC_WRITE, 0, CREATE_ALWAYS, 0, &f),
            S_OK);
  {
    ostra::test::FaultInjection faults;
    faults.failWrite(1, 3);
    DWORD n = 99;
    EXPECT_EQ(KaFile_Write(f, "abcdefgh", 8, &n), KAERR_DISK_FULL);
    EXPECT_EQ(n, 3u);
  }
  KaFile_Close(f);
}

TEST(GlobalMemory, MovableBlocksKeepTheirHandleAndCount) {
  UINT64 blocks0, bytes0;
  KaGlobalGetStats(&blocks0, &bytes0);
  KAHGLOBAL h = KaGlobalAlloc(GHND, 100);
  ASSERT_NE(h, nullptr);
  auto* p = static_cast<unsigned char*>(KaGlobalLock(h));
  ASSERT_NE(p, nullptr);
  for (int i = 0; i < 100; ++i) ASSERT_EQ(p[i], 0);
  EXPECT_EQ(KaGlobalHandle(p), h);
  EXPECT_EQ(KaGlobalLockCount(h), 1u);
  EXPECT_EQ(KaGlobalReAlloc(h, 4096, 0), nullptr);  // locked: may not move without leave
  std::memset(p, 7, 100);
  EXPECT_FALSE(KaGlobalUnlock(h));
  ASSERT_EQ(KaGlobalReAlloc(h, 4096, GMEM_ZEROINIT), h);
  EXPECT_EQ(KaGlobalSize(h), 4096u);
  p = static_cast<unsigned char*>(KaGlobalLock(h));
  EXPECT_EQ(p[99], 7);
  EXPECT_EQ(p[100], 0);
  UINT64 blocks, bytes;
  KaGlobalGetStats(&blocks, &bytes);
  EXPECT_EQ(blocks, blocks0 + 1);
  EXPECT_EQ(bytes, bytes0 + 4096);
  KaGlobalFreePtr(p);
  KaGlobalGetStats(&blocks, &bytes);
  EXPECT_EQ(blocks, blocks0);
  EXPECT_EQ(bytes, bytes0);
}

TEST(GlobalMemory, AllocationFailureLeavesNothingBehind) {
  UINT64 blocks0;
  KaGlobalGetStats(&blocks0, nullptr);
  for (int nth = 1; nth <= 2; ++nth) {
    ostra::test::FaultInjection faults;
    faults.failAllocation(nth);
    EXPECT_EQ(KaGlobalAlloc(GHND, 10), nullptr);
  }
  UINT64 blocks;
  KaGlobalGetStats(&blocks, nullptr);
  EXPECT_EQ(blocks, blocks0);
}

TEST(Text, ConversionsRoundTripAndReplace) {
  // UTF-8 <-> UTF-16, including a supplementary character and a malformed byte.
  const char* utf8 = "A\xC3\xA9\xF0\x9F\x8E\xB5\xFF";
  KAWCHAR w[16];
  const int n = KaText_MultiByteToWide(KA_CP_UTF8, 0, utf8, -1, w, 16);
  ASSERT_EQ(n, 6);
  EXPECT_EQ(std::u16string(w), std::u16string(u"A\u00e9\U0001F3B5\uFFFD"));
  EXPECT_EQ(KaText_MultiByteToWide(KA_CP_UTF8, 0, utf8, -1, nullptr, 0), 6);
  EXPECT_EQ(KaText_MultiByteToWide(KA_CP_UTF8, 0, utf8, -1, w, 5), 0);  // too small

  // The ANSI code page is Windows-1252 unless set: 0x80 is the euro sign.
  ASSERT_EQ(KaText_GetAnsiCodePage(), 1252u);
  EXPECT_EQ(KaText_MultiByteToWide(KA_CP_ACP, 0, "\x80\xE9", -1, w, 16), 3);
  EXPECT_EQ(std::u16string(w), std::u16string(u"\u20AC\u00e9"));
  char m[16];
  EXPECT_EQ(KaText_WideToMultiByte(KA_CP_ACP, 0, u"\u20AC\u00e9\u65E5", -1, m, 16), 4);
  EXPECT_STREQ(m, "\x80\xE9?");
  ASSERT_EQ(KaText_SetAnsiCodePage(1251), S_OK);
  EXPECT_EQ(KaText_MultiByteToWide(KA_CP_ACP, 0, "\xC0", 1, w, 16), 1);
  EXPECT_EQ(w[0], 0x0410);  // Cyrillic A
  EXPECT_EQ(KaText_SetAnsiCodePage(99999), E_INVALIDARG);
  ASSERT_EQ(KaText_SetAnsiCodePage(1252), S_OK);
}
