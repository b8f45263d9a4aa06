// The library frame: start-up and shut-down of the kernel's process-wide state, version
// checks and display notifications. Start-up and shut-down run on the host's main thread
// while no other kernel thread runs, so the state here is not locked.
#include <algorithm>
#include <string>

#include "kernel/internal/frame.h"
#include "kernel/internal/print_tokens.h"
#include "kernel/internal/string_table.h"
#include "kernel/internal/strings.h"
#include "kernel/internal/wformat.h"
#include "ostra/kacpu.h"
#include "ostra/kaerror.h"
#include "ostra/kakernel.h"
#include "ostra/kamodule.h"
#include "ostra/kaplatform.h"
#include "platform/internal/text.h"

namespace ostra::kernel {
namespace {

FrameState gFrame;
KAINTERNATIONALS gInternationals{};

constexpr int kMaxClientName = 128;

}  // namespace

const FrameState& frameState() noexcept { return gFrame; }

}  // namespace ostra::kernel

using namespace ostra::kernel;

BOOL KaKernel_EarlyInitialize(HMODULE module, DWORD flags) noexcept {
  gFrame.errorMode |= kSemFailCriticalErrors | kSemNoOpenFileErrorBox;
  initialiseTimerBase();
  gFrame.appKernel = module;
  gFrame.flags = flags;
  // Detection happens once per process inside the processor module; the effective mask
  // is the allowed part of what was detected plus what the host forced.
  gFrame.effectiveCpu = KaGetCPUSupport(0);
  gFrame.startMode = (flags & KAKERNEL_INIT_MODE1) ? 1u : (flags & KAKERNEL_INIT_MODE2) ? 2u : 0u;
  gFrame.scale = 100;
  gFrame.hostModule = KaModule_GetExecutable();
  gFrame.reserved = 0;
  gFrame.splash = nullptr;
  loadColourCache();
  bool ok = openPrintTokenRegistry();
  if (ok && !kernelLangHandle()) {
    HKALANG lang = KaLang_Open(module);
    ok = lang != nullptr;
    if (ok) {
      setKernelLangHandle(lang);
      KaLang_GetInternationals(lang, &gInternationals);
    }
  }
  KaTimer_LateInitialize();
  KaPerf_Initialize();
  gFrame.running = true;
  return ok ? TRUE : FALSE;
}

BOOL KaKernel_LateTerminate(HMODULE) noexcept {
  if (HKALANG lang = kernelLangHandle()) {
    setKernelLangHandle(nullptr);
    KaLang_Close(lang);
  }
  closePrintTokenRegistry();
  releaseColourCache();
  releaseCursors();
  gFrame.appKernel = nullptr;
  gFrame.running = false;
  return TRUE;
}

DWORD KaKernel_GetVersion() noexcept { return KAKERNEL_VERSION; }

HRESULT KaKernel_CheckVersion(HWND owner, const char* clientName, DWORD requiredVersion, DWORD kind,
                              DWORD, BOOL quiet) noexcept {
  if (kind == KAKERNEL_CHECK_VERSION && requiredVersion <= KAKERNEL_VERSION) return S_OK;
  if (quiet) return E_FAIL;
  try {
    KAWCHAR name[kMaxClientName + 1] = {};
    if (clientName && *clientName) {
      // Converted as a whole, then cut, so that a long name cannot fail the conversion.
      const std::u16string wide = ostra::text::ansiToUtf16(clientName);
      const size_t n = std::min<size_t>(wide.size(), kMaxClientName);
      std::copy_n(wide.data(), n, name);
    }
    std::u16string text;
    if (kind != KAKERNEL_CHECK_VERSION) {
      const KAWCHAR* tmpl = kernelString(KASTR_INCOMPATIBLE_CLIENT);
      const WArg arg = WArg::wide(name);
      if (!tmpl || !formatWide(text, tmpl, &arg, 1)) text = tmpl ? tmpl : u"";
    } else {
      const KAWCHAR* t = kernelString(KASTR_KERNEL_TOO_OLD);
      text = t ? t : u"";
    }
    const KAWCHAR* caption = kernelString(KASTR_KERNEL_CAPTION);
    KaMessageBox(owner, text.c_str(), caption ? caption : u"", MB_OK | MB_ICONINFORMATION);
  } catch (...) {
  }
  return E_FAIL;
}

HMODULE KaKernel_GetAppKernel() noexcept { return gFrame.appKernel; }

HRESULT KaKernel_GetAppKernelPathName(KAWCHAR* buffer, DWORD length) noexcept {
  if (!buffer || length == 0) return E_INVALIDARG;
  // The host's module is a loader handle or any address inside the module; without one
  // the kernel's own texts come from the kernel itself. A truncated path is still S_OK.
  HMODULE module = gFrame.appKernel ? gFrame.appKernel : KaModule_GetKernel();
  DWORD n = module ? KaModule_GetFileName(module, buffer, length) : 0;
  if (n == 0) n = KaModule_GetPathFromAddress(module, buffer, length);
  if (n == 0) {
    buffer[0] = 0;
    return KAERR_NOT_FOUND;
  }
  return S_OK;
}

LONG KaKernel_UserPrefChanges(HWND, UINT message) noexcept {
  switch (message) {
    case KA_WM_SYSCOLORCHANGE:
      evaluateHighColour();
      releaseColourCache();
      loadColourCache();
      return 1;
    case KA_WM_DISPLAYCHANGE:
      evaluateHighColour();
      return 1;
    default:
      return 0;
  }
}

void KaKernel_SetSplash(HWND splash) noexcept { gFrame.splash = splash; }

HWND KaKernel_GetSplash() noexcept { return gFrame.splash; }
