#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "ostra/kaerror.h"
#include "ostra/kamodule.h"
#include "ostra/kathread.h"
#include "support/test_support.h"

using ostra::test::TempDir;
using ostra::test::u16;

namespace {

std::string fileName(HMODULE m, DWORD size = 4096) {
  std::string buf(size, '\0');
  const DWORD n = KaModule_GetFileNameUtf8(m, buf.data(), size);
  return n ? buf.substr(0, std::min<DWORD>(n, size - 1)) : "";
}

void localFunction() {}

TEST(Module, LoadFindUnloadAndPaths) {
  HMODULE m = nullptr;
  ASSERT_EQ(KaModule_LoadUtf8("libm.so.6", &m), S_OK);
  using Cos = double (*)(double);
  auto cosine = reinterpret_cast<Cos>(KaModule_GetSymbol(m, "cos"));
  ASSERT_NE(cosine, nullptr);
  EXPECT_EQ(cosine(0.0), 1.0);
  EXPECT_EQ(KaModule_GetSymbol(m, "no_such_symbol_here"), nullptr);
  EXPECT_EQ(KaModule_FromAddress(reinterpret_cast<const void*>(cosine)), m);
  const std::string libm = fileName(m);
  EXPECT_EQ(libm.front(), '/');
  EXPECT_NE(libm.find("libm"), std::string::npos);
  EXPECT_TRUE(std::filesystem::exists(libm));
  EXPECT_TRUE(KaModule_Unload(m));

  // The executable: by null handle, by an address in it, and as the kernel's home in this
  // statically linked test.
  const std::string exe = fileName(nullptr);
  EXPECT_EQ(std::filesystem::path(exe).filename(), "test_platform");
  EXPECT_TRUE(std::filesystem::path(exe).is_absolute());
  EXPECT_EQ(fileName(KaModule_FromAddress(reinterpret_cast<const void*>(&localFunction))), exe);
  EXPECT_EQ(fileName(KaModule_GetKernel()), exe);
  KAWCHAR wide[4096];
  const DWORD n =
      KaModule_GetPathFromAddress(reinterpret_cast<const void*>(&localFunction), wide, 4096);
  EXPECT_EQ(std::u16string(wide, n), u16(exe));
  char small[5];
  EXPECT_EQ(KaModule_GetFileNameUtf8(nullptr, small, 5), 5u);  // cut short: size returned
  EXPECT_EQ(std::string(small), exe.substr(0, 4));

  TempDir dir;
  ostra::test::writeFile(dir.file("text.so"), {'n', 'o', 't', ' ', 'E', 'L', 'F'});
  struct Case {
    std::string path;
    HRESULT hr;
  } cases[] = {{dir.file("missing.so"), KAERR_NOT_FOUND},
               {dir.file("text.so"), KAERR_OPEN_FAILED},
               {"", E_INVALIDARG}};
  for (const Case& c : cases) {
    m = reinterpret_cast<HMODULE>(&m);
    EXPECT_EQ(KaModule_Load(u16(c.path).c_str(), &m), c.hr) << c.path;
    EXPECT_EQ(m, nullptr);
  }
  HMODULE bogus = reinterpret_cast<HMODULE>(&m);  // never followed
  EXPECT_EQ(KaModule_GetSymbol(bogus, "cos"), nullptr);
  EXPECT_FALSE(KaModule_Unload(bogus));
  EXPECT_EQ(fileName(bogus), "");
  EXPECT_EQ(KaModule_FromAddress(nullptr), nullptr);
}

TEST(Process, StartSuspendedResumeWaitAndExitCodes) {
  const UINT64 handles = KaHandle_LiveCount();
  TempDir dir;
  const std::u16string marker = dir.wfile("ran");
  const std::u16string script = u"echo x > '" + marker + u"'; exit 3";
  const KAWCHAR* args[] = {u"-c", script.c_str(), nullptr};
  HANDLE p = nullptr;
  DWORD pid = 0;
  ASSERT_EQ(KaProcess_Create(u"sh", args, CREATE_SUSPENDED, &p, &pid), S_OK);
  EXPECT_NE(pid, 0u);
  EXPECT_EQ(KaProcess_GetId(p), pid);
  EXPECT_EQ(KaWaitForSingleObject(p, 50), WAIT_TIMEOUT);
  EXPECT_FALSE(std::filesystem::exists(dir.file("ran")));  // nothing ran while suspended
  EXPECT_EQ(KaProcess_Resume(p), S_OK);
  EXPECT_EQ(KaProcess_Resume(p), S_FALSE);
  EXPECT_EQ(KaWaitForSingleObject(p, INFINITE), WAIT_OBJECT_0);
  DWORD code = 0;
  EXPECT_TRUE(KaProcess_GetExitCode(p, &code));
  EXPECT_EQ(code, 3u);
  EXPECT_TRUE(std::filesystem::exists(dir.file("ran")));
  EXPECT_FALSE(KaProcess_Terminate(p, 1));  // already ended
  KaCloseHandle(p);

  const KAWCHAR* sleepy[] = {u"30", nullptr};
  ASSERT_EQ(KaProcess_Create(u"sleep", sleepy, 0, &p, nullptr), S_OK);
  EXPECT_TRUE(KaProcess_GetExitCode(p, &code));
  EXPECT_EQ(code, STILL_ACTIVE);
  EXPECT_TRUE(KaProcess_Terminate(p, 77));
  EXPECT_EQ(KaWaitForSingleObject(p, INFINITE), WAIT_OBJECT_0);
  EXPECT_TRUE(KaProcess_GetExitCode(p, &code));
  EXPECT_EQ(code, 77u);
  KaCloseHandle(p);

  // Programs that cannot start: reported by create, or by resume for a suspended child.
  ostra::test::writeFile(dir.file("plain.txt"), {'x'});
  const std::u16string plain = dir.wfile("plain.txt");
  EXPECT_EQ(KaProcess_Create(u"no-such-program-anywhere", nullptr, 0, &p, nullptr),
            KAERR_NOT_FOUND);
  EXPECT_EQ(p, nullptr);
  EXPECT_EQ(KaProcess_Create(plain.c_str(), nullptr, 0, &p, nullptr), E_ACCESSDENIED);
  ASSERT_EQ(KaProcess_Create(plain.c_str(), nullptr, CREATE_SUSPENDED, &p, nullptr), S_OK);
  EXPECT_EQ(KaProcess_Resume(p), E_ACCESSDENIED);
  KaCloseHandle(p);
  ASSERT_EQ(KaProcess_Create(u"true", nullptr, CREATE_SUSPENDED, &p, nullptr), S_OK);
  KaCloseHandle(p);  // never resumed: the child goes away with the handle
  EXPECT_EQ(KaProcess_Create(nullptr, nullptr, 0, &p, nullptr), E_INVALIDARG);
  EXPECT_EQ(KaProcess_Resume(nullptr), E_HANDLE);
  EXPECT_EQ(KaHandle_LiveCount(), handles);
  EXPECT_NE(KaGetCurrentProcessId(), 0u);
}

}  // namespace
