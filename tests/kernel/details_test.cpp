// The per-process details text: its owner-thread rule, its size limit and the dumps.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "ostra/kaerror.h"

namespace {

std::u16string detailsText() {
  KAWCHAR* text = KaErrorHandler_ComposeErrorText(KACTX_FROM_TEMPLATE(u""), S_OK, nullptr);
  std::u16string s = text;
  KaErrorHandler_FreeErrorText(text);
  const size_t open = s.find(u"<Details>\r\n");
  return open == std::u16string::npos ? std::u16string()
                                      : s.substr(open + 11, s.size() - open - 11 - 12);
}

class Details : public ::testing::Test {
 protected:
  void SetUp() override { KaErrorHandler_DetailsInit(); }
  void TearDown() override { KaErrorHandler_DetailsInit(); }
};

HRESULT addFromOtherThread(HRESULT code, DWORD* number = nullptr) {
  HRESULT hr = E_UNEXPECTED;
  std::thread t([&] {
    hr = KaErrorHandler_DetailsAddString(code, u"from another thread");
    if (number) *number = KaErrorHandler_GetThreadNumber();
  });
  t.join();
  return hr;
}

}  // namespace

TEST_F(Details, OwnerThreadRule) {
  HRESULT code;
  DWORD lines, owner;
  ASSERT_EQ(KaErrorHandler_DetailsInfo(&code, &lines, &owner), S_OK);
  EXPECT_EQ(code, S_OK);
  EXPECT_EQ(lines, 0u);
  EXPECT_EQ(owner, 0u);

  ASSERT_EQ(KaErrorHandler_DetailsAddString(KAERR_READ_FAILED, u"first"), S_OK);
  ASSERT_EQ(KaErrorHandler_DetailsInfo(&code, &lines, &owner), S_OK);
  EXPECT_EQ(owner, KaErrorHandler_GetThreadNumber());
  EXPECT_NE(owner, 0u);
  // Another thread may only add to the same failure.
  EXPECT_EQ(addFromOtherThread(KAERR_WRITE_FAILED), E_FAIL);
  EXPECT_EQ(addFromOtherThread(KAERR_READ_FAILED), S_OK);
  // The owner may move on to another code; the details follow it.
  EXPECT_EQ(KaErrorHandler_DetailsAddString(KAERR_CORRUPT_FILE, u"second"), S_OK);
  EXPECT_EQ(KaErrorHandler_GetLastError(), KAERR_CORRUPT_FILE);
  EXPECT_EQ(addFromOtherThread(KAERR_READ_FAILED), E_FAIL);
  ASSERT_EQ(KaErrorHandler_DetailsInfo(&code, &lines, nullptr), S_OK);
  EXPECT_EQ(lines, 3u);
  EXPECT_EQ(detailsText(), u"first\r\nfrom another thread\r\nsecond\r\n");
  // After a reset the next writer, whichever thread, owns the details.
  KaErrorHandler_DetailsInit();
  DWORD other = 0;
  EXPECT_EQ(addFromOtherThread(KAERR_WRITE_FAILED, &other), S_OK);
  ASSERT_EQ(KaErrorHandler_DetailsInfo(nullptr, nullptr, &owner), S_OK);
  EXPECT_EQ(owner, other);
  EXPECT_EQ(KaErrorHandler_DetailsAddString(KAERR_READ_FAILED, u"refused"), E_FAIL);
}

TEST_F(Details, FormattingAndSizeLimit) {
  EXPECT_EQ(KaErrorHandler_DetailsAddString(S_OK, nullptr), E_POINTER);
  EXPECT_EQ(KaErrorHandler_DetailsAddString(KAERR_BAD_CHUNK, u"%d of %s", 3, u"7"), S_OK);
  EXPECT_EQ(KaErrorHandler_DetailsAddString(KAERR_BAD_CHUNK, u"no fields 100"), S_OK);
  EXPECT_EQ(KaErrorHandler_DetailsAddString(KAERR_BAD_CHUNK, u"bad %"), E_INVALIDARG);
  EXPECT_EQ(KaErrorHandler_DetailsAddString(KAERR_BAD_CHUNK, u"restart $(AppName)"), S_OK);
  EXPECT_EQ(detailsText(), u"3 of 7\r\nno fields 100\r\nrestart the application\r\n");
  KaErrorHandler_DetailsInit();
  // 16384 bytes hold 8191 units of text and the terminator.
  const std::u16string big(8189 - 2, u'x');
  ASSERT_EQ(KaErrorHandler_DetailsAddString(KAERR_BAD_CHUNK, big.c_str()), S_OK);  // 8189 units
  EXPECT_EQ(KaErrorHandler_DetailsAddString(KAERR_BAD_CHUNK, u"y"), E_FAIL);  // would make 8192
  EXPECT_EQ(KaErrorHandler_DetailsAddString(KAERR_BAD_CHUNK, u""), S_OK);     // makes 8191
  DWORD lines;
  KaErrorHandler_DetailsInfo(nullptr, &lines, nullptr);
  EXPECT_EQ(lines, 2u);
}

TEST_F(Details, Hyperlink) {
  KAWCHAR caption[8], target[32];
  EXPECT_EQ(KaErrorHandler_DetailsGetHyperlink(caption, 8, target, 32), S_FALSE);
  ASSERT_EQ(KaErrorHandler_DetailsSetHyperlink(u"Help page", u"https://example.invalid/e"), S_OK);
  EXPECT_EQ(KaErrorHandler_DetailsGetHyperlink(caption, 8, target, 32), S_OK);
  EXPECT_EQ(std::u16string(caption), u"Help pa");  // truncated to the caller's buffer
  EXPECT_EQ(std::u16string(target), u"https://example.invalid/e");
  const std::u16string longTarget(KAERR_LINK_TARGET_CHARS + 1, u'a');
  EXPECT_EQ(KaErrorHandler_DetailsSetHyperlink(u"x", longTarget.c_str()), E_INVALIDARG);
  KaErrorHandler_DetailsInit();
  EXPECT_EQ(KaErrorHandler_DetailsGetHyperlink(caption, 8, target, 32), S_FALSE);
}

TEST_F(Details, Dumps) {
  const unsigned char bytes[20] = {'R', 'I', 'F',  'F', 0x10, 0, 0,   0,   'W', 'A',
                                   'V', 'E', 0xFF, 1,   2,    3, 'd', 'a', 't', 'a'};
  ASSERT_EQ(KaErrorHandler_DumpHex(KAERR_BAD_CHUNK, bytes, sizeof bytes, 0x1000), S_OK);
  const DWORD words[5] = {0x46464952, 16, 0x45564157, 0xDEADBEEF, 7};
  ASSERT_EQ(KaErrorHandler_DumpHexDWords(KAERR_BAD_CHUNK, words, 5, 0x20), S_OK);
  EXPECT_EQ(
      detailsText(),
      u"0000000000001000  52 49 46 46 10 00 00 00 57 41 56 45 FF 01 02 03  RIFF....WAVE....\r\n"
      u"0000000000001010  64 61 74 61                                      data\r\n"
      u"0000000000000020  46464952 00000010 45564157 DEADBEEF\r\n"
      u"0000000000000030  00000007\r\n");
  EXPECT_EQ(KaErrorHandler_DumpHex(KAERR_BAD_CHUNK, nullptr, 4, 0), E_POINTER);
  EXPECT_EQ(KaErrorHandler_DumpHex(KAERR_BAD_CHUNK, nullptr, 0, 0), S_OK);

  KaErrorHandler_DetailsInit();
  KAEXCEPTION_RECORD inner{KA_EXCEPTION_INT_DIVIDE_BY_ZERO, 0, nullptr,
                           reinterpret_cast<void*>(0x40),   0, {}};
  KAEXCEPTION_RECORD outer{KA_EXCEPTION_ACCESS_VIOLATION,   1, &inner,
                           reinterpret_cast<void*>(0x1234), 2, {1, 0x10}};
  KAEXCEPTION_POINTERS info{&outer, nullptr};
  EXPECT_EQ(KaErrorHandler_ExceptionFilter(&info), KA_EXCEPTION_EXECUTE_HANDLER);
  EXPECT_EQ(KaErrorHandler_GetLastError(), E_UNEXPECTED);
  EXPECT_EQ(
      detailsText(),
      u"Exception 0xC0000005 (access violation) at 0000000000001234, flags 0x00000001\r\n"
      u"  write of address 0000000000000010\r\n"
      u"Exception 0xC0000094 (integer division by zero) at 0000000000000040, flags 0x00000000\r\n");
  // A record that names itself as its cause stops after eight levels.
  KaErrorHandler_DetailsInit();
  KAEXCEPTION_RECORD loop{0xC00000FD, 0, nullptr, nullptr, 0, {}};
  loop.ExceptionRecord = &loop;
  EXPECT_EQ(KaErrorHandler_DumpExceptionRecord(S_OK, &loop), S_OK);
  DWORD lines;
  KaErrorHandler_DetailsInfo(nullptr, &lines, nullptr);
  EXPECT_EQ(lines, 8u);
  KAEXCEPTION_POINTERS empty{nullptr, nullptr};
  EXPECT_EQ(KaErrorHandler_ExceptionFilter(&empty), KA_EXCEPTION_CONTINUE_SEARCH);
  EXPECT_EQ(KaErrorHandler_ExceptionFilter(nullptr), KA_EXCEPTION_CONTINUE_SEARCH);
}

// Threads that share one failure add to the details together while each composes its own
// message: no line is lost and no message is torn.
TEST_F(Details, ConcurrentWritersOfOneFailure) {
  ASSERT_EQ(KaErrorHandler_DetailsAddString(KAERR_READ_FAILED, u"owner"), S_OK);
  constexpr int kThreads = 4, kLines = 50;
  const std::u16string readFailed =
      KaErrorHandler_GetErrorMessage(KACTX_FROM_TEMPLATE(u""), KAERR_READ_FAILED, nullptr);
  const std::u16string writeFailed =
      KaErrorHandler_GetErrorMessage(KACTX_FROM_TEMPLATE(u""), KAERR_WRITE_FAILED, nullptr);
  std::vector<std::thread> threads;
  std::atomic<int> refused{0}, torn{0};
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      const HRESULT code = t % 2 ? KAERR_READ_FAILED : KAERR_WRITE_FAILED;
      const std::u16string& expect = code == KAERR_READ_FAILED ? readFailed : writeFailed;
      for (int i = 0; i < kLines; ++i) {
        if (KaErrorHandler_DetailsAddString(code, u"thread %d line %d", t, i) != S_OK) ++refused;
        const std::u16string message =
            KaErrorHandler_GetErrorMessage(KACTX_FROM_TEMPLATE(u""), code, nullptr);
        if (message != expect) ++torn;
      }
    });
  for (auto& th : threads) th.join();
  DWORD lines;
  KaErrorHandler_DetailsInfo(nullptr, &lines, nullptr);
  EXPECT_EQ(lines, 1u + kThreads / 2 * kLines);  // the other code is refused
  EXPECT_EQ(refused, kThreads / 2 * kLines);
  EXPECT_EQ(torn, 0);
}
