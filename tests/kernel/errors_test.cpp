// Reason and context tables, message composition, registered tables, the system-error
// tables and the message box, through the exported interface.
#include <gtest/gtest.h>

#include <cerrno>
#include <set>
#include <string>

#include "kernel/internal/errors.h"
#include "ostra/kaerror.h"
#include "ostra/kakernel.h"
#include "ostra/kaplatform.h"
#include "support/test_support.h"

using ostra::test::u16;

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

TEST_F(Errors, ReasonTable) {
  using namespace ostra::kernel;
  std::set<HRESULT> seen;
  for (size_t i = 0; i < kReasonCount; ++i) {
    EXPECT_TRUE(seen.insert(kReasonCodes[i]).second) << std::hex << kReasonCodes[i];
    EXPECT_NE(KaErrorHandler_GetHresultString(kReasonCodes[i]), nullptr)
        << std::hex << kReasonCodes[i];
  }
  // One text of each shape: the general one, a composite, one without the leading break,
  // a warning and a code outside the kernel's range.
  const struct {
    uint32_t code;
    const char16_t* text;
  } telling[] = {
      {0x80004005, u"\n\nThe reason for the error could not be determined."},
      {0x8004E016, u"\n\nThe file is an unsupported format."},
      {0x8004E082,
       u"\n\nThe file is most likely corrupted or of an unknown format. A chunk has a length of "
       u"0."},
      {0x8004E02A, u"The bit depth is not supported."},
      {0x0004E000,
       u"\n\nThe file had a problem in it; however, some content may have been recovered."},
      {0x800A0026, u"End of File is not an error."},
  };
  for (const auto& t : telling)
    EXPECT_EQ(str(KaErrorHandler_GetHresultString(HRESULT(t.code))), t.text);
  EXPECT_EQ(KaErrorHandler_GetHresultString(S_OK), nullptr);
  EXPECT_EQ(KaErrorHandler_GetHresultString(HRESULT(0x8004EFFFu)), nullptr);
}

TEST_F(Errors, ContextTable) {
  using namespace ostra::kernel;
  for (size_t i = 0; i < kContextCount; ++i)
    EXPECT_NE(KaErrorHandler_GetContextString(kContextNumbers[i]), nullptr) << kContextNumbers[i];
  const std::u16string general = u"An error occurred during the current operation.";
  for (UINT_PTR unknown : {0x35u, 0x3Au, 0xFFFFu})
    EXPECT_EQ(str(KaErrorHandler_GetContextString(unknown)), general);
  EXPECT_EQ(str(KaErrorHandler_GetContextString(5)),
            u"An error occurred while loading the project file %s.");
  EXPECT_EQ(str(KaErrorHandler_GetContextString(0x38)),
            u"No information available for this CD\n\n");
  static const KAWCHAR tmpl[] = u"Copying %s failed.";
  EXPECT_EQ(KaErrorHandler_GetContextString(KACTX_FROM_TEMPLATE(tmpl)), tmpl);
}

TEST_F(Errors, Composition) {
  static const KAWCHAR own[] = u"Copying %s failed.";
  static const KAWCHAR numeric[] = u"Track %d failed.";
  const std::u16string corrupt = u"\n\nThe file is most likely corrupted or of an unknown format.";
  struct Case {
    UINT_PTR context;
    uint32_t code;
    const KAWCHAR* arg;
    std::u16string expect;
  } cases[] = {
      {5, 0x8004E00B, u"take1.wav",
       u"An error occurred while loading the project file take1.wav." + corrupt},
      {5, 0x8004EFFF, u"a.wav",
       u"An error occurred while loading the project file a.wav.\n\nError 0x8004efff (message "
       u"missing)"},
      {5, 0x8004E00B, nullptr, u"An error occurred while loading the project file ." + corrupt},
      {0, 0x8004E00B, u"ignored", u"An error occurred during the current operation." + corrupt},
      {0x1A, 0x8004E00B, nullptr, u"An error occurred starting the application." + corrupt},
      {KACTX_FROM_TEMPLATE(own), 0x8004E02A, u"b.wav",
       u"Copying b.wav failed.The bit depth is not supported."},
      // A caller's template with a field that does not take the string is kept as it is.
      {KACTX_FROM_TEMPLATE(numeric), 0x8004E00B, u"x", u"Track %d failed." + corrupt},
      {5, 0x8004E00B, u"100%s.wav",
       u"An error occurred while loading the project file 100%s.wav." + corrupt},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(compose(c.context, HRESULT(c.code), c.arg), c.expect);
    EXPECT_EQ(str(KaErrorHandler_GetErrorMessage(c.context, HRESULT(c.code), c.arg)), c.expect);
  }
  KaErrorHandler_SetAppName(u"Editor 9");
  EXPECT_EQ(compose(0x1A, KAERR_CORRUPT_FILE, nullptr),
            u"An error occurred starting Editor 9." + corrupt);
}

TEST_F(Errors, CompositionLimits) {
  const std::u16string reason = u"\n\nThe item was not found.";
  for (size_t len : {size_t(1947), size_t(1948), size_t(2047), size_t(3000)}) {
    const std::u16string tmpl(len, u'c');
    const std::u16string got = compose(KACTX_FROM_TEMPLATE(tmpl.c_str()), KAERR_NOT_FOUND, nullptr);
    if (len < 1948)
      EXPECT_EQ(got, (tmpl + reason).substr(0, 2047));
    else
      EXPECT_EQ(got, tmpl.substr(0, 2047));
    EXPECT_EQ(std::u16string(KaErrorHandler_GetErrorMessage(KACTX_FROM_TEMPLATE(tmpl.c_str()),
                                                            KAERR_NOT_FOUND, nullptr)),
              got);
  }
}

TEST_F(Errors, DetailsAreWrappedAndTheTextIsFreed) {
  UINT64 blocksBefore, bytes;
  KaGlobalGetStats(&blocksBefore, &bytes);
  ASSERT_EQ(
      KaErrorHandler_DetailsAddString(KAERR_BAD_CHUNK, u"chunk '%hs' at %u skipped", "bext", 36u),
      S_OK);
  ASSERT_EQ(KaErrorHandler_DetailsAddString(KAERR_BAD_CHUNK, u"size repaired"), S_OK);
  EXPECT_EQ(compose(0, KAERR_BAD_CHUNK, nullptr),
            u"An error occurred during the current operation.\n\nThe file is most likely corrupted "
            u"or of an "
            u"unknown format. A chunk extends beyond the end of its parent or of the "
            u"file.\r\n<Details>\r\n"
            u"chunk 'bext' at 36 skipped\r\nsize repaired\r\n\r\n</Details>");
  UINT64 blocksAfter;
  KaGlobalGetStats(&blocksAfter, &bytes);
  EXPECT_EQ(blocksAfter, blocksBefore);
}

TEST_F(Errors, RegisteredTables) {
  static const WORD record[] = {0xFEFF, 2, 'H', 'o', 's', 't', 0, 'W', 'i', 'r', 't', 0};
  static const KASTRINGRECORD records[] = {{500, record}};
  HKALANG host = KaLang_OpenRecords(records, 1);
  static const KAERRORTABLEENTRY first[] = {{KAERR_NOT_FOUND, 500}, {KAERR_DISK_FULL, 999}};
  static const KAERRORTABLEENTRY second[] = {{KAERR_NOT_FOUND, 107}};
  EXPECT_EQ(KaErrorHandler_AddErrorTable(host, first, 2), 0);
  EXPECT_EQ(KaErrorHandler_AddErrorTable(second, 1), 0);
  // First registration wins; a row whose string is missing leaves the built-in text.
  EXPECT_EQ(str(KaErrorHandler_GetHresultString(KAERR_NOT_FOUND)), u"Host");
  EXPECT_EQ(str(KaErrorHandler_GetHresultString(KAERR_DISK_FULL)),
            u"\n\nThe disk is full. Please free some space and try again.");
  KaLang_SetLanguage(host, "de");
  EXPECT_EQ(str(KaErrorHandler_GetHresultString(KAERR_NOT_FOUND)), u"Wirt");
  EXPECT_EQ(KaErrorHandler_AddErrorTable(nullptr, 1), 1);
  EXPECT_EQ(KaErrorHandler_AddErrorTable(first, 0), 1);
  for (int i = 2; i < KAERR_MAX_TABLES; ++i) EXPECT_EQ(KaErrorHandler_AddErrorTable(second, 1), 0);
  static const KAERRORTABLEENTRY late[] = {{KAERR_CANCELLED, 107}};
  EXPECT_EQ(KaErrorHandler_AddErrorTable(late, 1), 1);
  EXPECT_EQ(str(KaErrorHandler_GetHresultString(KAERR_CANCELLED)),
            u"\n\nThe operation was cancelled by the user.");
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
  EXPECT_EQ(seen.text,
            u"An error occurred while loading the project file a.prj.\n\nThe disk is full. Please "
            u"free some space and try again.");
  EXPECT_EQ(seen.caption, u"the application");
  EXPECT_EQ(seen.flags, MB_OKCANCEL | MB_ICONERROR);
  KaErrorHandler_MsgBox(nullptr, MB_ICONINFORMATION, 0, KAWARN_RECOVERED, nullptr, u"Repair");
  EXPECT_EQ(seen.flags, MB_ICONINFORMATION);
  EXPECT_EQ(seen.caption, u"Repair");
  KaErrorHandler_MsgBox(nullptr, MB_OK, 0, KAWARN_RECOVERED, nullptr);
  EXPECT_EQ(seen.flags, MB_ICONWARNING);
  KaSetMessageBoxHook(previous, nullptr);
}
