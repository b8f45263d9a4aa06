// Reason and context texts, message composition and the registered reason tables.
#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>
#include <string>

#include "kernel/internal/details.h"
#include "kernel/internal/errors.h"
#include "kernel/internal/string_table.h"
#include "kernel/internal/strings.h"
#include "kernel/internal/wformat.h"
#include "ostra/kaerror.h"
#include "ostra/kakernel.h"
#include "ostra/kaplatform.h"

namespace ostra::kernel {
namespace {

struct RegisteredTable {
  const KAERRORTABLEENTRY* rows;
  int count;
  HKALANG lang;  // null: the kernel's own texts
};

// Rows are published by the count: a reader sees a table only after it was written.
RegisteredTable gTables[KAERR_MAX_TABLES];
std::atomic<int> gTableCount{0};
std::mutex gTableLock;

std::mutex gAppNameLock;
std::u16string gAppName;

// One message buffer per thread (the classic one per process would race between
// threads that compose at the same time).
thread_local KAWCHAR tMessage[KAERR_MESSAGE_CHARS];

}  // namespace

std::u16string appName() {
  std::lock_guard<std::mutex> g(gAppNameLock);
  if (!gAppName.empty()) return gAppName;
  const KAWCHAR* d = kernelString(KASTR_DEFAULT_APP_NAME);
  return d ? std::u16string(d) : std::u16string(u"Ostra");
}

namespace {

HRESULT translate(const SystemErrorPair* table, size_t count, DWORD error) {
  for (size_t i = 0; i < count; ++i)
    if (error >= table[i].first && error <= table[i].last) return table[i].code;
  return E_FAIL;
}

// Builds the message into `out` (at most KAERR_MESSAGE_CHARS - 1 units).
void composeMessage(std::u16string& out, UINT_PTR context, HRESULT code, const KAWCHAR* argument) {
  constexpr size_t kLimit = KAERR_MESSAGE_CHARS - 1;
  out.clear();
  const KAWCHAR* tmpl = KaErrorHandler_GetContextString(context);
  if (tmpl) {
    const WArg arg = WArg::wide(argument ? argument : u"");
    std::u16string formatted;
    // A template that does not format with one string (a caller's own template with
    // other fields) is shown as it is rather than refused.
    if (formatWide(formatted, tmpl, &arg, 1))
      out = std::move(formatted);
    else
      out = tmpl;
    replaceAppName(out, appName());
  }
  if (out.size() > kLimit) out.resize(kLimit);
  if (out.size() >= KAERR_CONTEXT_CUT) return;
  std::u16string reason;
  if (const KAWCHAR* r = KaErrorHandler_GetHresultString(code)) {
    reason = r;
    replaceAppName(reason, appName());
  } else {
    KAWCHAR fallback[100];
    formatWideBuffer(fallback, 100, u"\n\nError 0x%08x (message missing)", unsigned(code));
    reason = fallback;
  }
  out.append(reason, 0, kLimit - out.size());
}

}  // namespace

void resetErrorTables() noexcept {
  std::lock_guard<std::mutex> g(gTableLock);
  gTableCount.store(0);
}

}  // namespace ostra::kernel

using namespace ostra::kernel;

const KAWCHAR* KaErrorHandler_GetHresultString(HRESULT code) noexcept {
  const int tables = gTableCount.load(std::memory_order_acquire);
  for (int t = 0; t < tables; ++t) {
    const RegisteredTable& table = gTables[t];
    for (int i = 0; i < table.count; ++i) {
      if (table.rows[i].code != code) continue;
      // A row whose string is missing does not hide the built-in text.
      if (const KAWCHAR* text = KaLang_GetString(table.lang, table.rows[i].stringId)) return text;
      break;
    }
  }
  for (size_t i = 0; i < kReasonCount; ++i)
    if (kReasonCodes[i] == code) return kernelString(DWORD(code));
  // Codes other families added to the text tables after the built-in ones.
  if (DWORD(code) >= 0x10000u) return kernelString(DWORD(code));
  return nullptr;
}

const KAWCHAR* KaErrorHandler_GetContextString(UINT_PTR context) noexcept {
  if (context >= 0x10000u) return reinterpret_cast<const KAWCHAR*>(context);
  const DWORD* end = kContextNumbers + kContextCount;
  const DWORD number = std::find(kContextNumbers, end, DWORD(context)) != end ? DWORD(context) : 0;
  return kernelString(kContextStringBase + number);
}

const KAWCHAR* KaErrorHandler_GetErrorMessage(UINT_PTR context, HRESULT code,
                                              const KAWCHAR* argument) noexcept {
  try {
    std::u16string message;
    composeMessage(message, context, code, argument);
    std::copy(message.begin(), message.end(), tMessage);
    tMessage[message.size()] = 0;
    return tMessage;
  } catch (...) {
    return nullptr;
  }
}

KAWCHAR* KaErrorHandler_ComposeErrorText(UINT_PTR context, HRESULT code,
                                         const KAWCHAR* argument) noexcept {
  try {
    std::u16string text;
    composeMessage(text, context, code, argument);
    std::u16string details;
    if (detailsSnapshot(details) > 0) {
      text += u"\r\n<Details>\r\n";
      text += details;
      text += u"\r\n</Details>";
    }
    KAHGLOBAL block = KaGlobalAlloc(GMEM_MOVEABLE, (text.size() + 1) * sizeof(KAWCHAR));
    auto* out = static_cast<KAWCHAR*>(KaGlobalLock(block));
    if (!out) {
      KaGlobalFree(block);
      return nullptr;
    }
    std::copy(text.begin(), text.end(), out);
    out[text.size()] = 0;
    return out;
  } catch (...) {
    return nullptr;
  }
}

void KaErrorHandler_FreeErrorText(KAWCHAR* text) noexcept { KaGlobalFreePtr(text); }

int KaErrorHandler_MsgBox(HWND owner, UINT flags, UINT_PTR context, HRESULT code,
                          const KAWCHAR* argument, const KAWCHAR* caption) noexcept {
  if (code == KAERR_CANCELLED) return IDOK;
  KAWCHAR* text = KaErrorHandler_ComposeErrorText(context, code, argument);
  if ((flags & 0xF0u) == 0) flags |= FAILED(code) ? MB_ICONERROR : MB_ICONWARNING;
  std::u16string title;
  try {
    title = caption ? std::u16string(caption) : appName();
  } catch (...) {
  }
  const int answer = KaMessageBox(owner, text ? text : u"", title.c_str(), flags);
  KaErrorHandler_FreeErrorText(text);
  return answer;
}

void KaErrorHandler_SetAppName(const KAWCHAR* name) noexcept {
  try {
    std::lock_guard<std::mutex> g(gAppNameLock);
    gAppName = name ? name : u"";
  } catch (...) {
  }
}

HRESULT KaErrorHandler_TranslateWin32Error(DWORD error) noexcept {
  return translate(kWin32Errors, kWin32ErrorCount, error);
}

HRESULT KaErrorHandler_TranslateCommDlgError(DWORD error) noexcept {
  return translate(kCommDlgErrors, kCommDlgErrorCount, error);
}

int KaErrorHandler_AddErrorTable(HKALANG lang, const KAERRORTABLEENTRY* table, int count) noexcept {
  if (!table || count <= 0) return 1;
  std::lock_guard<std::mutex> g(gTableLock);
  const int n = gTableCount.load();
  if (n >= KAERR_MAX_TABLES) return 1;
  gTables[n] = {table, count, lang};
  gTableCount.store(n + 1, std::memory_order_release);
  return 0;
}

int KaErrorHandler_AddErrorTable(const KAERRORTABLEENTRY* table, int count) noexcept {
  return KaErrorHandler_AddErrorTable(nullptr, table, count);
}
