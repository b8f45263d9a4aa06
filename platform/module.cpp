// Shared objects through the dynamic loader. A module handle is the loader's handle,
// which on this C library is the object's link map, so a handle can be checked against
// the loader's list before it is used and a bad one is refused instead of followed.
#include <dlfcn.h>
#include <limits.h>
#include <link.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "ostra/kaerror.h"
#include "ostra/kamodule.h"
#include "platform/internal/text.h"

namespace {

link_map* mainMap() {
  void* self = dlopen(nullptr, RTLD_LAZY);
  link_map* lm = nullptr;
  if (self) {
    dlinfo(self, RTLD_DI_LINKMAP, &lm);
    dlclose(self);
  }
  return lm;
}

link_map* knownMap(HMODULE module) {
  for (link_map* lm = mainMap(); lm; lm = lm->l_next)
    if (reinterpret_cast<void*>(lm) == reinterpret_cast<void*>(module)) return lm;
  return nullptr;
}

std::string executablePath() {
  char buf[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", buf, sizeof buf);
  return n > 0 ? std::string(buf, size_t(n)) : std::string();
}

// The absolute path of a module, or empty for a bad one.
std::string modulePath(HMODULE module) {
  if (!module) return executablePath();
  link_map* lm = knownMap(module);
  if (!lm) return {};
  if (!lm->l_name || !*lm->l_name) return executablePath();
  char* real = realpath(lm->l_name, nullptr);
  std::string path = real ? real : lm->l_name;
  std::free(real);
  return path;
}

template <typename Char, typename String>
DWORD copyOut(const String& s, Char* buffer, DWORD size) {
  if (s.empty() || !buffer || size == 0) return 0;
  if (s.size() < size) {
    std::memcpy(buffer, s.data(), s.size() * sizeof(Char));
    buffer[s.size()] = 0;
    return DWORD(s.size());
  }
  std::memcpy(buffer, s.data(), (size - 1) * sizeof(Char));
  buffer[size - 1] = 0;
  return size;
}

}  // namespace

HRESULT KaModule_LoadUtf8(const char* path, HMODULE* module) noexcept {
  if (!module) return E_POINTER;
  *module = nullptr;
  if (!path || !*path) return E_INVALIDARG;
  void* h = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  if (!h) {
    struct stat st;
    return std::strchr(path, '/') && stat(path, &st) != 0 ? KAERR_NOT_FOUND : KAERR_OPEN_FAILED;
  }
  *module = static_cast<HMODULE>(h);
  return S_OK;
}

HRESULT KaModule_Load(const KAWCHAR* path, HMODULE* module) noexcept try {
  if (!path) return module ? (*module = nullptr, E_INVALIDARG) : E_POINTER;
  return KaModule_LoadUtf8(ostra::text::utf16ToUtf8(path).c_str(), module);
} catch (...) {
  return E_OUTOFMEMORY;
}

void* KaModule_GetSymbol(HMODULE module, const char* name) noexcept {
  if (!name || !knownMap(module)) return nullptr;
  return dlsym(module, name);
}

BOOL KaModule_Unload(HMODULE module) noexcept {
  if (!knownMap(module)) return FALSE;
  return dlclose(module) == 0;
}

HMODULE KaModule_FromAddress(const void* address) noexcept {
  Dl_info info;
  link_map* lm = nullptr;
  if (!address || !dladdr1(address, &info, reinterpret_cast<void**>(&lm), RTLD_DL_LINKMAP) || !lm)
    return nullptr;
  return reinterpret_cast<HMODULE>(lm);
}

HMODULE KaModule_GetKernel() noexcept {
  return KaModule_FromAddress(reinterpret_cast<const void*>(&KaModule_GetKernel));
}

HMODULE KaModule_GetExecutable() noexcept { return reinterpret_cast<HMODULE>(mainMap()); }

DWORD KaModule_GetFileName(HMODULE module, KAWCHAR* buffer, DWORD size) noexcept try {
  return copyOut(ostra::text::utf8ToUtf16(modulePath(module)), buffer, size);
} catch (...) {
  return 0;
}

DWORD KaModule_GetFileNameUtf8(HMODULE module, char* buffer, DWORD size) noexcept try {
  return copyOut(modulePath(module), buffer, size);
} catch (...) {
  return 0;
}

DWORD KaModule_GetPathFromAddress(const void* address, KAWCHAR* buffer, DWORD size) noexcept {
  HMODULE m = KaModule_FromAddress(address);
  return m ? KaModule_GetFileName(m, buffer, size) : 0;
}
