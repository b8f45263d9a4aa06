#include <atomic>
#include <cstdio>
#include <mutex>

#include "ostra/kaplatform.h"
#include "platform/internal/text.h"

namespace {

std::mutex gHookLock;
KAMESSAGEBOXHOOK gHook = nullptr;
void* gHookContext = nullptr;

}  // namespace

KAMESSAGEBOXHOOK KaSetMessageBoxHook(KAMESSAGEBOXHOOK hook, void* context) noexcept {
  std::lock_guard<std::mutex> g(gHookLock);
  KAMESSAGEBOXHOOK previous = gHook;
  gHook = hook;
  gHookContext = hook ? context : nullptr;
  return previous;
}

int KaMessageBox(HWND owner, const KAWCHAR* text, const KAWCHAR* caption, UINT flags) noexcept {
  KAMESSAGEBOXHOOK hook;
  void* context;
  {
    std::lock_guard<std::mutex> g(gHookLock);
    hook = gHook;
    context = gHookContext;
  }
  if (hook) return hook(owner, text, caption, flags, context);
  try {
    const std::string c = ostra::text::utf16ToUtf8(caption);
    const std::string t = ostra::text::utf16ToUtf8(text);
    if (c.empty())
      std::fprintf(stderr, "%s\n", t.c_str());
    else
      std::fprintf(stderr, "%s: %s\n", c.c_str(), t.c_str());
  } catch (...) {
  }
  return IDOK;
}
