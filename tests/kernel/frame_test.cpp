// The library frame: start-up and shut-down state, version checks, display notifications
// and the app-kernel path.
#include <gtest/gtest.h>

#include <string>

#include "kernel/internal/frame.h"
#include "kernel/internal/print_tokens.h"
#include "kernel/internal/string_table.h"
#include "ostra/kacpu.h"
#include "ostra/kakernel.h"
#include "ostra/kaplatform.h"

using namespace ostra::kernel;

namespace {

// Module handles are addresses in a module's code.
void anchor() {}
HMODULE anchorModule() { return reinterpret_cast<HMODULE>(reinterpret_cast<uintptr_t>(&anchor)); }

struct Box {
  int calls = 0;
  std::u16string text, caption;
  UINT flags = 0;
};

int record(HWND, const KAWCHAR* text, const KAWCHAR* caption, UINT flags, void* ctx) {
  auto* b = static_cast<Box*>(ctx);
  ++b->calls;
  b->text = text;
  b->caption = caption;
  b->flags = flags;
  return IDOK;
}

}  // namespace

TEST(Frame, CheckVersion) {
  Box box;
  KAMESSAGEBOXHOOK previous = KaSetMessageBoxHook(record, &box);
  // The box shows the kernel's own sentence: "too old", or "incompatible" with the
  // client's name put in.
  const std::u16string tooOld = KaLang_GetString(nullptr, KASTR_KERNEL_TOO_OLD);
  const std::u16string incompatible = KaLang_GetString(nullptr, KASTR_INCOMPATIBLE_CLIENT);
  auto naming = [&](const std::u16string& name) {
    return incompatible.substr(0, incompatible.find(u"%s")) + name +
           incompatible.substr(incompatible.find(u"%s") + 2);
  };
  struct Case {
    const char* name;
    DWORD version, kind;
    BOOL quiet;
    HRESULT result;
    const char16_t* client;  // null: no box
  } cases[] = {
      {"Editor", 0x11000141, 3, FALSE, S_OK, nullptr},
      {"Editor", 0x10000000, 3, FALSE, S_OK, nullptr},
      {"Editor", 0x11000142, 3, FALSE, E_FAIL, u""},
      {"Editor", 0x11000142, 3, TRUE, E_FAIL, nullptr},
      {"Editor", 0, 2, FALSE, E_FAIL, u"Editor"},
      {nullptr, 0, 4, FALSE, E_FAIL, u""},
      {"", 0x11000141, 0, FALSE, E_FAIL, u""},
      {"Caf\xE9", 0, 1, FALSE, E_FAIL, u"Café"},  // the system code page, Windows-1252
      {"Editor", 0, 1, TRUE, E_FAIL, nullptr},
  };
  for (const Case& c : cases) {
    box = Box{};
    EXPECT_EQ(KaKernel_CheckVersion(nullptr, c.name, c.version, c.kind, 0, c.quiet), c.result);
    if (!c.client) {
      EXPECT_EQ(box.calls, 0);
      continue;
    }
    ASSERT_EQ(box.calls, 1);
    EXPECT_EQ(box.text, c.kind == 3 ? tooOld : naming(c.client));
    EXPECT_EQ(box.caption, KaLang_GetString(nullptr, KASTR_KERNEL_CAPTION));
    EXPECT_EQ(box.flags, MB_OK | MB_ICONINFORMATION);
  }
  // The names of long clients are cut at 128 characters.
  box = Box{};
  const std::string longName(300, 'n');
  KaKernel_CheckVersion(nullptr, longName.c_str(), 0, 0, 0, FALSE);
  EXPECT_EQ(box.text, naming(std::u16string(128, u'n')));
  KaSetMessageBoxHook(previous, nullptr);
  EXPECT_EQ(KaKernel_GetVersion(), 0x11000141u);
}

TEST(Frame, StartUpAndShutDown) {
  HMODULE module = anchorModule();
  const struct {
    DWORD flags, mode;
  } modes[] = {{0, 0}, {1, 1}, {0x20, 2}, {0x21, 1}, {0x40, 0}, {0xFFFFFFFE, 2}};
  for (const auto& m : modes) {
    KaKernel_SetSplash(reinterpret_cast<HWND>(module));
    const BOOL ok = KaKernel_EarlyInitialize(module, m.flags);
    const FrameState& s = frameState();
    EXPECT_EQ(s.startMode, m.mode) << m.flags;
    EXPECT_EQ(s.flags, m.flags);
    EXPECT_EQ(s.scale, 100u);
    EXPECT_EQ(s.splash, nullptr);
    EXPECT_EQ(s.errorMode & 0x8001u, 0x8001u);
    EXPECT_EQ(s.effectiveCpu, KaGetCPUSupport(0));
    EXPECT_NE(s.hostModule, nullptr);
    EXPECT_EQ(KaKernel_GetAppKernel(), module);
    EXPECT_TRUE(ok);
    tKALIST* tokens = printTokenRegistry();
    ASSERT_NE(tokens, nullptr);
    EXPECT_EQ(tokens->itemSize, 8u);
    EXPECT_NE(tokens->options & KALIST_OPT_THREADSAFE, 0u);
    EXPECT_NE(kernelLangHandle(), nullptr);
    for (int i = 0; i < kKernelColourCount; ++i) EXPECT_EQ(kernelColour(i), defaultKernelColour(i));
    for (int i = 0; i < kSystemColourCount; ++i)
      EXPECT_EQ(cachedSystemColour(i), kColourNotFetched);
    EXPECT_TRUE(KaKernel_LateTerminate(module));
    EXPECT_EQ(KaKernel_GetAppKernel(), nullptr);
    EXPECT_EQ(kernelLangHandle(), nullptr);
    EXPECT_EQ(printTokenRegistry(), nullptr);
    EXPECT_TRUE(KaKernel_LateTerminate(module));  // nothing is released twice
    EXPECT_EQ(cachedCursorCount(), 0);
  }
  // The timer base is fixed once and survives shut-down.
  const TimerBase& t = timerBase();
  INT64 f = 0;
  if (KaQueryPerformanceFrequency(&f) && f > 0) {
    EXPECT_EQ(t.frequency, f);
    EXPECT_EQ(t.countsPerMs, f / 1000);
    EXPECT_EQ(t.countsPerUs, std::max<INT64>(1, f / 1000 / 1000));
  }
  const DWORD a = KaGetMillisec();
  const UINT64 ua = KaGetMicrosec();
  EXPECT_LE(a, KaGetMillisec());
  EXPECT_LE(ua, KaGetMicrosec());
}

TEST(Frame, DisplayNotifications) {
  KaKernel_EarlyInitialize(nullptr, 0);
  EXPECT_EQ(systemColour(15), 0x00F0F0F0u);  // button face of the light scheme
  EXPECT_EQ(cachedSystemColour(15), 0x00F0F0F0u);
  EXPECT_EQ(KaKernel_UserPrefChanges(nullptr, KA_WM_DISPLAYCHANGE), 1);
  EXPECT_TRUE(highColourEvaluated());
  EXPECT_EQ(cachedSystemColour(15), 0x00F0F0F0u);  // a display change keeps the colours
  EXPECT_EQ(KaKernel_UserPrefChanges(nullptr, KA_WM_SYSCOLORCHANGE), 1);
  EXPECT_EQ(cachedSystemColour(15), kColourNotFetched);  // a colour change fetches anew
  EXPECT_EQ(KaKernel_UserPrefChanges(nullptr, 0x0010), 0);
  EXPECT_TRUE(highColourPrimary());
  EXPECT_TRUE(highColourAllMonitors());
  EXPECT_EQ(systemColour(31), 0u);
  EXPECT_EQ(kernelColour(-1), 0u);
  KaKernel_LateTerminate(nullptr);
}

TEST(Frame, AppKernelPath) {
  KAWCHAR path[4096];
  ASSERT_EQ(KaKernel_GetAppKernelPathName(path, 4096), S_OK);
  const std::u16string full = path;
  // The tests link the kernel statically: the kernel's module is this executable.
  EXPECT_NE(full.find(u"test_kernel"), std::u16string::npos);
  EXPECT_EQ(full[0], u'/');
  KAWCHAR small[6];
  EXPECT_EQ(KaKernel_GetAppKernelPathName(small, 6), S_OK);  // truncated is still S_OK
  EXPECT_EQ(std::u16string(small), full.substr(0, 5));
  EXPECT_EQ(KaKernel_GetAppKernelPathName(nullptr, 6), E_INVALIDARG);
  KaKernel_EarlyInitialize(anchorModule(), 0);
  EXPECT_EQ(KaKernel_GetAppKernelPathName(path, 4096), S_OK);
  EXPECT_EQ(std::u16string(path), full);
  KaKernel_LateTerminate(nullptr);
  KaKernel_EarlyInitialize(reinterpret_cast<HMODULE>(uintptr_t(16)), 0);  // no module there
  EXPECT_EQ(KaKernel_GetAppKernelPathName(path, 4096), HRESULT(0x8004E00Au));
  KaKernel_LateTerminate(nullptr);
}
