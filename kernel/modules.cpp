// Which file a module handle stands for. On POSIX a module handle is an address inside
// the module (a function or variable of it); the kernel finds the mapped file that holds
// the address in the process's map (/proc/self/maps), read through the platform's file
// functions.
#include <cerrno>
#include <filesystem>
#include <string>

#include "kernel/internal/modules.h"
#include "ostra/kaerror.h"
#include "ostra/kaplatform.h"

namespace ostra::kernel {
namespace {

HRESULT readMaps(std::string& text) {
  KAHFILE f = KA_INVALID_HFILE;
  HRESULT hr =
      KaFile_OpenUtf8("/proc/self/maps", GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, 0, &f);
  if (FAILED(hr)) return hr;
  char buf[16384];
  for (;;) {
    DWORD n = 0;
    hr = KaFile_Read(f, buf, sizeof buf, &n);
    if (FAILED(hr) || n == 0) break;
    text.append(buf, n);
  }
  KaFile_Close(f);
  return SUCCEEDED(hr) ? S_OK : hr;
}

// One line: "start-end perms offset dev inode   path".
bool parseLine(const std::string& line, uintptr_t& start, uintptr_t& end, std::string& path) {
  size_t pos = 0;
  auto hex = [&](uintptr_t& v) {
    size_t digits = 0;
    v = 0;
    for (; pos < line.size(); ++pos, ++digits) {
      const char c = line[pos];
      const int d = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
      if (d < 0) break;
      v = (v << 4) | uintptr_t(d);
    }
    return digits > 0;
  };
  if (!hex(start) || pos >= line.size() || line[pos++] != '-' || !hex(end)) return false;
  // The path starts at the first '/' after the five fixed fields.
  const size_t slash = line.find('/', pos);
  if (slash == std::string::npos) return false;
  path = line.substr(slash);
  return true;
}

}  // namespace

HRESULT modulePathOf(const void* address, std::string& path) {
  std::string maps;
  if (HRESULT hr = readMaps(maps); FAILED(hr)) return hr;
  const uintptr_t a = reinterpret_cast<uintptr_t>(address);
  size_t begin = 0;
  while (begin < maps.size()) {
    size_t end = maps.find('\n', begin);
    if (end == std::string::npos) end = maps.size();
    uintptr_t lo, hi;
    std::string p;
    if (parseLine(maps.substr(begin, end - begin), lo, hi, p) && a >= lo && a < hi) {
      path = p;
      return S_OK;
    }
    begin = end + 1;
  }
  return KAERR_NOT_FOUND;
}

const void* executableAddress() noexcept {
  try {
    std::error_code ec;
    const std::string exe = std::filesystem::read_symlink("/proc/self/exe", ec).string();
    if (ec || exe.empty()) return nullptr;
    std::string maps;
    if (FAILED(readMaps(maps))) return nullptr;
    size_t begin = 0;
    while (begin < maps.size()) {
      size_t end = maps.find('\n', begin);
      if (end == std::string::npos) end = maps.size();
      uintptr_t lo, hi;
      std::string p;
      if (parseLine(maps.substr(begin, end - begin), lo, hi, p) && p == exe)
        return reinterpret_cast<const void*>(lo);
      begin = end + 1;
    }
  } catch (...) {
  }
  return nullptr;
}

}  // namespace ostra::kernel
