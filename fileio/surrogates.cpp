// The manager's surrogates and the block list's memory. A surrogate host is made per index
// when a plug-in of that index is first described or used; its process starts on the
// first call (or StartSurrogate). A plug-in whose call cost the surrogate its life is
// remembered with its file's modification time, the call and the reason, in
// "FFBlocked_x64.ini" beside the plug-in cache; identification passes over it until the
// file changes or the user unblocks it.
#include <cstring>
#include <fstream>
#include <sstream>

#include "fileio/internal/object.h"
#include "ostra/kaerror.h"
#include "ostra/kaplatform.h"
#include "platform/internal/text.h"

namespace ostra::fileio {

SurrogateHost* CKaFileIOManager::surrogate(LONG index) {
  std::lock_guard lk(surrogatesLock_);
  for (auto& s : surrogates_)
    if (s->index() == index) return s.get();
  std::vector<U16> hosted;
  for (const ConfigEntry& c : readConfigFiles(moduleFolder_, exclude_, logger_))
    if (c.surrogate == index) hosted.push_back(c.path);
  surrogates_.push_back(std::make_unique<SurrogateHost>(
      index, std::move(hosted),
      [this](const KAFIOPLUGINENTRY& p, const char* call, const char* reason) {
        rememberFailure(p, call, reason);
      },
      &logger_));
  return surrogates_.back().get();
}

HRESULT CKaFileIOManager::StartSurrogate(LONG index, HANDLE* process, HANDLE* thread) {
  if (process) *process = nullptr;
  if (thread) *thread = nullptr;  // POSIX processes have no thread handle to give
  if (index < 0) return E_INVALIDARG;
  if (!initialized_) return E_UNEXPECTED;
  return surrogate(index)->start(process);
}

U16 CKaFileIOManager::blockedFile() const { return folderOf(cacheFile_) + u"/FFBlocked_x64.ini"; }

// One line per plug-in: name, path, modification time, call, reason, tab-separated UTF-8.
void CKaFileIOManager::loadBlocked() {
  std::ifstream in(toUtf8(blockedFile()));
  std::string line;
  std::vector<KAFIOBLOCKED> list;
  while (std::getline(in, line)) {
    std::vector<std::string> f;
    std::stringstream ss(line);
    for (std::string item; std::getline(ss, item, '\t');) f.push_back(item);
    if (f.size() != 5 || f[0].empty()) continue;  // a damaged line is dropped
    KAFIOBLOCKED b{};
    copyText(b.name, KAFIO_MAX_NAME, ostra::text::utf8ToUtf16(f[0].c_str()));
    copyText(b.path, KAFIO_MAX_PATH, ostra::text::utf8ToUtf16(f[1].c_str()));
    b.modTime = std::strtoll(f[2].c_str(), nullptr, 10);
    std::strncpy(b.call, f[3].c_str(), sizeof b.call - 1);
    std::strncpy(b.reason, f[4].c_str(), sizeof b.reason - 1);
    list.push_back(b);
  }
  blocked_ = std::move(list);
}

void CKaFileIOManager::saveBlockedLocked() {
  std::ofstream out(toUtf8(blockedFile()), std::ios::trunc);
  for (const KAFIOBLOCKED& b : blocked_)
    out << toUtf8(b.name) << '\t' << toUtf8(b.path) << '\t' << b.modTime << '\t' << b.call << '\t'
        << b.reason << '\n';
  // A list that cannot be written is kept for this process only.
}

void CKaFileIOManager::rememberFailure(const KAFIOPLUGINENTRY& plugin, const char* call,
                                       const char* reason) {
  std::lock_guard lk(blockedLock_);
  loadBlocked();
  KAFIOBLOCKED b{};
  copyText(b.name, KAFIO_MAX_NAME, plugin.name);
  copyText(b.path, KAFIO_MAX_PATH, plugin.path);
  INT64 modTime = plugin.modTime;
  KaPath_GetModifiedTime(plugin.path, &modTime);
  b.modTime = modTime;
  std::strncpy(b.call, call, sizeof b.call - 1);
  std::strncpy(b.reason, reason, sizeof b.reason - 1);
  for (KAFIOBLOCKED& old : blocked_)
    if (lowerAscii(old.name) == lowerAscii(b.name)) {
      old = b;
      saveBlockedLocked();
      return;
    }
  blocked_.push_back(b);
  saveBlockedLocked();
}

bool CKaFileIOManager::isRememberedBlocked(const KAFIOPLUGINENTRY& plugin) {
  std::lock_guard lk(blockedLock_);
  loadBlocked();
  for (size_t i = 0; i < blocked_.size(); ++i) {
    if (lowerAscii(blocked_[i].name) != lowerAscii(plugin.name)) continue;
    INT64 now = 0;
    if (SUCCEEDED(KaPath_GetModifiedTime(plugin.path, &now)) && now == blocked_[i].modTime &&
        U16(blocked_[i].path) == U16(plugin.path))
      return true;
    // The file changed (a new build, say): it gets another chance.
    blocked_.erase(blocked_.begin() + long(i));
    saveBlockedLocked();
    return false;
  }
  return false;
}

HRESULT CKaFileIOManager::GetBlockedPlugin(DWORD index, KAFIOBLOCKED* blocked) {
  if (!blocked) return E_POINTER;
  if (!initialized_) return E_UNEXPECTED;
  std::lock_guard lk(blockedLock_);
  loadBlocked();
  if (index >= blocked_.size()) return S_FALSE;
  *blocked = blocked_[index];
  return S_OK;
}

HRESULT CKaFileIOManager::UnblockPlugin(const KAWCHAR* name) {
  if (!initialized_) return E_UNEXPECTED;
  std::lock_guard lk(blockedLock_);
  loadBlocked();
  const size_t before = blocked_.size();
  if (!name) {
    blocked_.clear();
  } else {
    std::erase_if(blocked_,
                  [&](const KAFIOBLOCKED& b) { return lowerAscii(b.name) == lowerAscii(name); });
  }
  if (blocked_.size() == before) return name ? KAERR_NOT_FOUND : S_FALSE;
  saveBlockedLocked();
  return S_OK;
}

}  // namespace ostra::fileio
