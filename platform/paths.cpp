// The user's folders (XDG base directories), folder creation and listing, file times by
// path, and the language id of the user's locale.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "ostra/kaerror.h"
#include "ostra/kaplatform.h"
#include "platform/internal/system.h"
#include "platform/internal/text.h"

namespace {

constexpr INT64 kUnixEpochInFileTime = 11644473600LL;

std::string userFolder(DWORD folder) {
  const char* var = folder == KA_FOLDER_LOCAL_APPDATA ? "XDG_CACHE_HOME" : "XDG_CONFIG_HOME";
  if (const char* v = std::getenv(var); v && v[0] == '/') return v;
  const char* home = std::getenv("HOME");
  if (!home || home[0] != '/') return {};
  std::string path(home);
  if (path.size() > 1 && path.back() == '/') path.pop_back();
  return path + (folder == KA_FOLDER_LOCAL_APPDATA ? "/.cache" : "/.config");
}

bool endsWithFolded(const std::string& name, const std::string& suffix) {
  if (name.size() < suffix.size()) return false;
  return std::equal(suffix.begin(), suffix.end(), name.end() - suffix.size(), [](char a, char b) {
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? char(c + 32) : c; };
    return lower(a) == lower(b);
  });
}

}  // namespace

HRESULT KaPath_GetUserFolder(DWORD folder, KAWCHAR* buffer, DWORD size) noexcept {
  if (!buffer || !size) return E_POINTER;
  buffer[0] = 0;
  if (folder != KA_FOLDER_LOCAL_APPDATA && folder != KA_FOLDER_ROAMING_APPDATA) return E_INVALIDARG;
  const std::u16string path = ostra::text::utf8ToUtf16(userFolder(folder));
  if (path.empty()) return KAERR_NOT_FOUND;
  if (path.size() >= size) return KAERR_PATH_TOO_LONG;
  std::copy(path.begin(), path.end(), buffer);
  buffer[path.size()] = 0;
  return S_OK;
}

HRESULT KaPath_CreateFolders(const KAWCHAR* path) noexcept {
  if (!path || !*path) return E_INVALIDARG;
  const std::string p = ostra::text::utf16ToUtf8(path);
  for (size_t i = 1; i <= p.size(); ++i) {
    if (i < p.size() && p[i] != '/') continue;
    const std::string part = p.substr(0, i);
    if (mkdir(part.c_str(), 0777) != 0 && errno != EEXIST) return KaHresultFromLastError();
  }
  struct stat st {};
  if (stat(p.c_str(), &st) != 0) return KaHresultFromLastError();
  return S_ISDIR(st.st_mode) ? S_OK : KaHresultFromErrno(ENOTDIR);
}

HRESULT KaPath_FindFiles(const KAWCHAR* folder, const KAWCHAR* suffix, KAPATH_FOUND found,
                         void* context) noexcept {
  if (!folder || !found) return E_POINTER;
  const std::string dir = ostra::text::utf16ToUtf8(folder);
  const std::string end = ostra::text::utf16ToUtf8(suffix);
  DIR* d = opendir(dir.empty() ? "." : dir.c_str());
  if (!d) return errno == ENOENT || errno == ENOTDIR ? KAERR_NOT_FOUND : KaHresultFromLastError();
  std::vector<std::string> names;
  try {
    while (const dirent* e = readdir(d)) {
      const std::string name = e->d_name;
      if (!endsWithFolded(name, end)) continue;
      struct stat st {};
      if (stat((dir + "/" + name).c_str(), &st) == 0 && S_ISREG(st.st_mode)) names.push_back(name);
    }
  } catch (...) {
    closedir(d);
    return E_OUTOFMEMORY;
  }
  closedir(d);
  std::sort(names.begin(), names.end());
  for (const std::string& name : names)
    if (!found(context, ostra::text::utf8ToUtf16(name).c_str())) break;
  return S_OK;
}

HRESULT KaPath_GetModifiedTime(const KAWCHAR* path, INT64* fileTime) noexcept {
  if (!path || !fileTime) return E_POINTER;
  *fileTime = 0;
  struct stat st {};
  if (stat(ostra::text::utf16ToUtf8(path).c_str(), &st) != 0) return KaHresultFromLastError();
  *fileTime = (INT64(st.st_mtim.tv_sec) + kUnixEpochInFileTime) * 10000000LL +
              INT64(st.st_mtim.tv_nsec) / 100;
  return S_OK;
}

DWORD KaGetSystemDefaultLCID() noexcept {
  struct Known {
    const char* prefix;
    DWORD lcid;
  };
  // Regional forms first: the first prefix that matches wins.
  static constexpr Known kKnown[] = {
      {"en_GB", 2057}, {"en", 1033},    {"de_AT", 3079}, {"de_CH", 2055}, {"de", 1031},
      {"fr_CA", 3084}, {"fr", 1036},    {"es_MX", 2058}, {"es", 3082},    {"it", 1040},
      {"ja", 1041},    {"pt_BR", 1046}, {"pt", 2070},    {"nl", 1043},    {"sv", 1053},
      {"zh_TW", 1028}, {"zh", 2052},    {"ko", 1042},    {"ru", 1049},    {"pl", 1045},
      {"C", 1033},     {"POSIX", 1033},
  };
  const char* locale = ostra::platform::messageLocale();
  if (!locale) return 1033;
  for (const Known& k : kKnown)
    if (std::strncmp(locale, k.prefix, std::strlen(k.prefix)) == 0) return k.lcid;
  return 1033;
}
