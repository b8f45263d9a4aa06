// Message limits and details, registered tables, the system-error tables and the message
// box, through the exported interface (the texts themselves: texts_test.cpp).
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "kernel/internal/errors.h"
#include "ostra/kaerror.h"
#include "ostra/kakernel.h"
#include "ostra/kaplatform.h"
#include "support/test_support.h"

namespace {

std::u16string str(const KAWCHAR* s) { return s ? std::u16string(s) : u"(null)"; }

std::u16string compose(UINT_PTR context, HRESULT code, const KAWCHAR* arg) {
  KAWCHAR* text = KaErrorHandler_ComposeErrorText(context, code, arg);
  std::u16string s = str(text);
  KaErrorHandler_FreeErrorText(text);
  return s;
}

class Errors : public ::testing::Test {
 protected:
  void SetUp() override {
    KaLang_SetLanguage(nullptr, "en");
    KaErrorHandler_DetailsInit();
    ostra::kernel::resetErrorTables();
  }
  void TearDown() override {
    KaErrorHandler_DetailsInit();
    ostra::kernel::resetErrorTables();
    KaErrorHandler_SetAppName(nullptr);
    KaLang_SetLanguage(nullptr, nullptr);
  }
};

}  // namespace

// A context of 1948 units or more leaves no room for the reason; the whole message stops
// at 2047 units.
TEST_F(Errors, CompositionLimits) {
  const std::u16string reason = KaErrorHandler_GetHresultString(KAERR_NOT_FOUND);
  for (size_t len : {size_t(1947), size_t(1948), size_t(2047), size_t(3000)}) {
    const std::u16string tmpl(len, u'c');
    const std::u16string got = compose(KACTX_FROM_TEMPLATE(tmpl.c_str()), KAERR_NOT_FOUND, nullptr);
    EXPECT_EQ(got, len < 1948 ? (tmpl + reason).substr(0, 2047) : tmpl.substr(0, 2047)) << len;
    EXPECT_EQ(std::u16string(KaErrorHandler_GetErrorMessage(KACTX_FROM_TEMPLATE(tmpl.c_str()),
                                                            KAERR_NOT_FOUND, nullptr)),
              got);
  }
}

// The details follow the message between fixed markers that readers of the text look for.
TEST_F(Errors, DetailsAreWrappedAndTheTextIsFreed) {
  UINT64 blocksBefore, bytes;
  KaGlobalGetStats(&blocksBefore, &bytes);
  const std::u16string message = KaErrorHandler_GetErrorMessage(0, KAERR_BAD_CHUNK, nullptr);
  ASSERT_EQ(
      KaErrorHandler_DetailsAddString(KAERR_BAD_CHUNK, u"chunk '%hs' at %u skipped", "bext", 36u),
      S_OK);
  ASSERT_EQ(KaErrorHandler_DetailsAddString(KAERR_BAD_CHUNK, u"size repaired"), S_OK);
  EXPECT_EQ(
      compose(0, KAERR_BAD_CHUNK, nullptr),
      message + u"\r\n<Details>\r\nchunk 'bext' at 36 skipped\r\nsize repaired\r\n\r\n</Details>");
  UINT64 blocksAfter;
  KaGlobalGetStats(&blocksAfter, &bytes);
  EXPECT_EQ(blocksAfter, blocksBefore);
}

TEST_F(Errors, RegisteredTables) {
  const std::u16string builtInDiskFull = str(KaErrorHandler_GetHresultString(KAERR_DISK_FULL));
  const std::u16string builtInCancelled = str(KaErrorHandler_GetHresultString(KAERR_CANCELLED));
  static const WORD record[] = {0xFEFF, 2, 'H', 'o', 's', 't', 0, 'W', 'i', 'r', 't', 0};
  static const KASTRINGRECORD records[] = {{500, record}};
  HKALANG host = KaLang_OpenRecords(records, 1);
  static const KAERRORTABLEENTRY first[] = {{KAERR_NOT_FOUND, 500}, {KAERR_DISK_FULL, 999}};
  static const KAERRORTABLEENTRY second[] = {{KAERR_NOT_FOUND, 107}};
  EXPECT_EQ(KaErrorHandler_AddErrorTable(host, first, 2), 0);
  EXPECT_EQ(KaErrorHandler_AddErrorTable(second, 1), 0);
  // First registration wins; a row whose string is missing leaves the built-in text.
  EXPECT_EQ(str(KaErrorHandler_GetHresultString(KAERR_NOT_FOUND)), u"Host");
  EXPECT_EQ(str(KaErrorHandler_GetHresultString(KAERR_DISK_FULL)), builtInDiskFull);
  KaLang_SetLanguage(host, "de");
  EXPECT_EQ(str(KaErrorHandler_GetHresultString(KAERR_NOT_FOUND)), u"Wirt");
  EXPECT_EQ(KaErrorHandler_AddErrorTable(nullptr, 1), 1);
  EXPECT_EQ(KaErrorHandler_AddErrorTable(first, 0), 1);
  for (int i = 2; i < KAERR_MAX_TABLES; ++i) EXPECT_EQ(KaErrorHandler_AddErrorTable(second, 1), 0);
  static const KAERRORTABLEENTRY late[] = {{KAERR_CANCELLED, 107}};
  EXPECT_EQ(KaErrorHandler_AddErrorTable(late, 1), 1);
  EXPECT_EQ(str(KaErrorHandler_GetHresultString(KAERR_CANCELLED)), builtInCancelled);
  ostra::kernel::resetErrorTables();
  KaLang_Close(host);
}

// The tables are searched by inclusive ranges; numbers they do not list give E_FAIL.
TEST_F(Errors, SystemErrorTables) {
  const auto win32 = KaErrorHandler_TranslateWin32Error;
  const auto dlg = KaErrorHandler_TranslateCommDlgError;
  const struct {
    HRESULT (*translate)(DWORD);
    DWORD error;
    uint32_t code;
  } cases[] = {
      {win32, 0, 0},
      {win32, 1, 0x80070057},
      {win32, 2, 0x8004E00A},
      {win32, 3, 0x8004E00A},
      {win32, 7, 0x80004005},
      {win32, 39, 0x8004E002},
      {win32, 40, 0x80004005},
      {win32, 127, 0x8004E00A},
      {win32, 183, 0x8004E170},
      {win32, 536, 0x80004005},
      {win32, 99999, 0x80004005},
      {dlg, 0, 0},
      {dlg, 4, 0x80070057},
      {dlg, 6, 0x8004E00E},
      {dlg, 10, 0x8007000E},
      {dlg, 12, 0x80004005},
      {dlg, 0x3002, 0x8004E00D},
      {dlg, 0xFFFF, 0x80070057},
      {dlg, 0x2001, 0x80004005},
  };
  for (const auto& c : cases)
    EXPECT_EQ(c.translate(c.error), HRESULT(c.code)) << (c.translate == win32) << " " << c.error;
}

// Every errno a file or memory call can report becomes a code that has a text.
TEST_F(Errors, ErrnoValuesHaveTexts) {
  const struct {
    int err;
    uint32_t code;
  } cases[] = {
      {0, 0},
      {ENOENT, 0x8004E00A},
      {ENOTDIR, 0x8004E00A},
      {ENOSPC, 0x8004E002},
      {EDQUOT, 0x8004E002},
      {EACCES, 0x80070005},
      {EPERM, 0x80070005},
      {EROFS, 0x8004E004},
      {ENOMEM, 0x8007000E},
      {EBADF, 0x80070006},
      {EEXIST, 0x8004E170},
      {EINVAL, 0x80070057},
      {EMFILE, 0x8004E026},
      {ENFILE, 0x8004E026},
      {ENAMETOOLONG, 0x8004E033},
      {EBUSY, 0x8004E05A},
      {ECANCELED, 0x8004E00C},
      {EFBIG, 0x8004E002},
      {EIO, 0x80004005},
      {ETIMEDOUT, 0x8004E011},
      {EAGAIN, 0x8004E005},
      {EISDIR, 0x80070005},
      {ENODEV, 0x800404B0},
      {EXDEV, 0x8004E035},
      {ENOTEMPTY, 0x8004E036},
      {ELOOP, 0x8004E00A},
      {ESPIPE, 0x8004E010},
      {EPIPE, 0x8004E009},
      {ENOSYS, 0x80004001},
      {ENOTSUP, 0x80004001},
      {EFAULT, 0x80004003},
      {ENETUNREACH, 0x8004E039},
      {EHOSTUNREACH, 0x8004E039},
      {ENOLCK, 0x8004E05B},
      {ETXTBSY, 0x8004E05A},
      {EDEADLK, 0x8004E05B},
      {12345, 0x80004005},
  };
  for (const auto& c : cases) {
    const HRESULT hr = KaHresultFromErrno(c.err);
    EXPECT_EQ(hr, HRESULT(c.code)) << "errno " << c.err;
    if (FAILED(hr)) {
      EXPECT_NE(KaErrorHandler_GetHresultString(hr), nullptr) << "errno " << c.err;
    }
  }
}

TEST_F(Errors, MessageBoxGoesThroughTheHook) {
  struct Seen {
    int calls = 0;
    std::u16string text, caption;
    UINT flags = 0;
  } seen;
  auto hook = [](HWND, const KAWCHAR* text, const KAWCHAR* caption, UINT flags, void* ctx) {
    auto* s = static_cast<Seen*>(ctx);
    ++s->calls;
    s->text = text;
    s->caption = caption;
    s->flags = flags;
    return IDCANCEL;
  };
  KAMESSAGEBOXHOOK previous = KaSetMessageBoxHook(hook, &seen);
  EXPECT_EQ(KaErrorHandler_MsgBox(nullptr, MB_OK, 5, KAERR_CANCELLED, u"a.prj"), IDOK);
  EXPECT_EQ(seen.calls, 0);
  EXPECT_EQ(KaErrorHandler_MsgBox(nullptr, MB_OKCANCEL, 5, KAERR_DISK_FULL, u"a.prj"), IDCANCEL);
  EXPECT_EQ(seen.calls, 1);
  EXPECT_EQ(seen.text, KaErrorHandler_GetErrorMessage(5, KAERR_DISK_FULL, u"a.prj"));
  EXPECT_EQ(seen.caption, KaLang_GetString(nullptr, KASTR_DEFAULT_APP_NAME));
  EXPECT_EQ(seen.flags, MB_OKCANCEL | MB_ICONERROR);
  KaErrorHandler_MsgBox(nullptr, MB_ICONINFORMATION, 0, KAWARN_RECOVERED, nullptr, u"Repair");
  EXPECT_EQ(seen.flags, MB_ICONINFORMATION);
  EXPECT_EQ(seen.caption, u"Repair");
  KaErrorHandler_MsgBox(nullptr, MB_OK, 0, KAWARN_RECOVERED, nullptr);
  EXPECT_EQ(seen.flags, MB_ICONWARNING);
  KaSetMessageBoxHook(previous, nullptr);
}
