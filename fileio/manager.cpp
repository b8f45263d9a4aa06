// CKaFileIOManager: initialisation (the cache and metrics file names), the scan that
// builds the plug-in list from the configuration files and the cache, and the list's
// accessors. Identification is in identify.cpp, the enumerators in enums.cpp.
#include <algorithm>
#include <new>

#include "fileio/internal/object.h"
#include "ostra/kaerror.h"
#include "ostra/kaini.h"
#include "ostra/kamodule.h"
#include "ostra/kaplatform.h"

namespace ostra::fileio {
namespace {

constexpr const char* kSuffix = "x64";

// Once the user's folders could not be used, every manager of the process uses the files
// beside the module.
std::atomic<bool> gFallbackRemembered{false};

U16 ascii(const std::string& s) { return U16(s.begin(), s.end()); }

HRESULT userFile(DWORD folder, const U16& subPath, const U16& name, U16* path) {
  KAWCHAR base[KAFIO_MAX_PATH];
  HRESULT hr = KaPath_GetUserFolder(folder, base, KAFIO_MAX_PATH);
  if (FAILED(hr)) return hr;
  const U16 dir = U16(base) + u"/" + subPath;
  hr = KaPath_CreateFolders(dir.c_str());
  if (FAILED(hr)) return hr;
  *path = dir + u"/" + name;
  return S_OK;
}

const char* kindText(const KAFIOPLUGINENTRY& e) {
  const bool reader = !isNullGuid(e.reader), renderer = !isNullGuid(e.renderer);
  return reader && renderer ? "reader|renderer" : reader ? "reader" : renderer ? "renderer" : "";
}

}  // namespace

CKaFileIOManager::CKaFileIOManager() { rowPlugin_.fill(-1); }

CKaFileIOManager::~CKaFileIOManager() { clearList(); }

void CKaFileIOManager::clearList() {
  if (list_) KaList_Destroy(list_);
  list_ = nullptr;
  std::lock_guard lk(modulesLock_);
  modules_.clear();
}

HRESULT CKaFileIOManager::QueryInterface(REFIID riid, void** ppv) {
  if (!ppv) return E_POINTER;
  *ppv = nullptr;
  if (riid == IID_IUnknown || riid == IID_IKaFileIOManager)
    *ppv = static_cast<IKaFileIOManager*>(this);
  else if (riid == IID_IKaFileIOMgrForApp)
    *ppv = static_cast<IKaFileIOMgrForApp*>(this);
  else
    return E_NOINTERFACE;
  AddRef();
  return S_OK;
}

ULONG CKaFileIOManager::AddRef() { return ++refs_; }

ULONG CKaFileIOManager::Release() {
  const ULONG left = --refs_;
  if (!left) delete this;
  return left;
}

HRESULT CKaFileIOManager::Initialize(const KAFIOMGRINIT* init) {
  if (!init || init->size < sizeof(KAFIOMGRINIT)) return E_INVALIDARG;
  std::lock_guard lk(startLock_);
  if (initialized_) return E_UNEXPECTED;
  try {
    flags_ = init->flags;
    if (init->modulePath && *init->modulePath) {
      modulePath_ = init->modulePath;
    } else {
      KAWCHAR path[KAFIO_MAX_PATH];
      if (!KaModule_GetFileName(KaModule_GetKernel(), path, KAFIO_MAX_PATH)) return E_FAIL;
      modulePath_ = path;
    }
    moduleFolder_ = folderOf(modulePath_);
    for (DWORD i = 0; i < init->excludeCount && init->exclude; ++i)
      if (init->exclude[i]) exclude_.emplace_back(init->exclude[i]);
    const U16 subPath = init->hostSubPath && *init->hostSubPath ? init->hostSubPath : u"ostra";
    const U16 lcid = ascii(std::to_string(KaGetSystemDefaultLCID()));
    const U16 cacheName = u"FFCache_" + ascii(kSuffix) + u"_" + lcid + u".ini";
    const U16 metricsName = u"FFMetrics_" + ascii(kSuffix) + u".ini";
    fallback_ = (flags_ & KAFIO_INIT_BESIDE_MODULE) || gFallbackRemembered;
    if (!fallback_ &&
        (FAILED(userFile(KA_FOLDER_LOCAL_APPDATA, subPath, cacheName, &cacheFile_)) ||
         FAILED(userFile(KA_FOLDER_ROAMING_APPDATA, subPath, metricsName, &metricsFile_)))) {
      fallback_ = true;
      gFallbackRemembered = true;
    }
    if (fallback_) {
      // The module's file name, an empty separator, then the name.
      cacheFile_ = modulePath_ + u"" + u" " + cacheName;
      metricsFile_ = modulePath_ + u"" + u" " + metricsName;
    }
    loadMetricsFile(metricsFile_);
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
  initialized_ = true;
  return S_OK;
}

HRESULT CKaFileIOManager::Start() {
  std::lock_guard lk(startLock_);
  if (!initialized_) return E_UNEXPECTED;
  if (started_) return S_FALSE;
  const HRESULT hr = scan(KaFio_GetMetricBool(KAFIO_METRIC_USE_CACHE));
  started_ = SUCCEEDED(hr);
  return hr;
}

HRESULT CKaFileIOManager::Rescan() {
  std::lock_guard lk(startLock_);
  if (!initialized_) return E_UNEXPECTED;
  const HRESULT hr = scan(false);
  started_ = SUCCEEDED(hr);
  return hr;
}

HRESULT CKaFileIOManager::scan(bool useCache) try {
  clearList();
  rowPlugin_.fill(-1);
  lastUsed_ = -1;
  HRESULT hr =
      KaList_CreateExZ(&list_, sizeof(KAFIOPLUGINENTRY), 0, 16, KALIST_OPT_HEAPITEMS, 0, 0, 0);
  if (FAILED(hr)) return hr;
  const DWORD lcid = KaGetSystemDefaultLCID();
  std::vector<std::unique_ptr<LoadedModule>> modules;
  std::vector<std::unique_ptr<KAFIOPLUGINENTRY>> entries;
  for (const ConfigEntry& config : readConfigFiles(moduleFolder_, exclude_, logger_)) {
    auto entry = std::make_unique<KAFIOPLUGINENTRY>();
    INT64 modTime = 0;
    const HRESULT timeHr = KaPath_GetModifiedTime(config.path.c_str(), &modTime);
    std::unique_ptr<LoadedModule> loaded;
    if (SUCCEEDED(timeHr) && useCache && readCacheEntry(cacheFile_, config, modTime, entry.get())) {
      KAFIO_LOG(logger_, 1, " Loading cached %s plugin '%s' from path '%s' ", kindText(*entry),
                toUtf8(config.name).c_str(), toUtf8(config.path).c_str());
    } else {
      *entry = {};
      copyText(entry->name, KAFIO_MAX_NAME, config.name);
      copyText(entry->path, KAFIO_MAX_PATH, config.path);
      copyText(entry->readerKey, KAFIO_MAX_NAME, config.readerKey);
      entry->readerValue = config.readerValue;
      entry->surrogate = config.surrogate;
      entry->modTime = modTime;
      entry->langId = lcid;
      loaded = std::make_unique<LoadedModule>();
      if (FAILED(timeHr))
        hr = timeHr;
      else if (config.surrogate >= 0)  // described by the surrogate, never loaded here
        hr = makeSurrogateFactory(surrogate(config.surrogate), *entry, &loaded->factory);
      else
        hr = loadPluginModule(config.path, U16(), loaded.get());
      if (SUCCEEDED(hr)) hr = describePlugin(loaded->factory, entry.get());
      if (FAILED(hr)) {
        KAFIO_LOG(logger_, 1, " Cannot load plugin '%s' from path '%s' (named in '%s'): 0x%08X ",
                  toUtf8(config.name).c_str(), toUtf8(config.path).c_str(),
                  toUtf8(fileNameOf(config.configFile)).c_str(), unsigned(hr));
        continue;
      }
      KAFIO_LOG(logger_, 1, " Loading %s plugin '%s' from path '%s' ", kindText(*entry),
                toUtf8(config.name).c_str(), toUtf8(config.path).c_str());
      writeCacheEntry(cacheFile_, *entry);  // a cache that cannot be written costs time only
    }
    entries.push_back(std::move(entry));
    modules.push_back(std::move(loaded));
  }
  // The best plug-in first: every later pass walks the list in this order.
  std::vector<size_t> order(entries.size());
  for (size_t i = 0; i < order.size(); ++i) order[i] = i;
  std::stable_sort(order.begin(), order.end(),
                   [&](size_t a, size_t b) { return entries[a]->merit > entries[b]->merit; });
  std::vector<std::unique_ptr<LoadedModule>> sortedModules;
  for (size_t i : order) {
    hr = KaList_AllocAndInsertItem(list_, entries[i].get(), sizeof(KAFIOPLUGINENTRY), list_->count,
                                   nullptr);
    if (FAILED(hr)) return hr;
    sortedModules.push_back(std::move(modules[i]));
  }
  {
    std::lock_guard lk(modulesLock_);
    modules_ = std::move(sortedModules);
  }
  const FormatRow* table = formatTable();
  for (size_t r = 0; r < kFormatRows; ++r)
    for (DWORD i = 0; i < count(); ++i)
      if (entry(i).reader == table[r].reader) {
        rowPlugin_[r] = LONG(i);
        break;
      }
  return S_OK;
} catch (const std::bad_alloc&) {
  return E_OUTOFMEMORY;
}

HRESULT CKaFileIOManager::factory(DWORD index, IKaFioPluginFactory** out) {
  *out = nullptr;
  if (index >= count()) return E_INVALIDARG;
  std::lock_guard lk(modulesLock_);
  std::unique_ptr<LoadedModule>& m = modules_[index];
  if (!m) {
    m = std::make_unique<LoadedModule>();
    const KAFIOPLUGINENTRY& e = entry(index);
    m->status = e.surrogate >= 0 ? makeSurrogateFactory(surrogate(e.surrogate), e, &m->factory)
                                 : loadPluginModule(e.path, e.preloadModules, m.get());
    if (FAILED(m->status))
      KAFIO_LOG(logger_, 1, " Cannot load plugin '%s' from path '%s': 0x%08X ",
                toUtf8(e.name).c_str(), toUtf8(e.path).c_str(), unsigned(m->status));
  }
  if (FAILED(m->status)) return m->status;
  *out = m->factory;
  (*out)->AddRef();
  return S_OK;
}

HRESULT CKaFileIOManager::rawReaderClass(DWORD index, IKaReadFileClass** out) {
  *out = nullptr;
  if (index >= count()) return E_INVALIDARG;
  if (isNullGuid(entry(index).reader)) return E_NOINTERFACE;
  IKaFioPluginFactory* f = nullptr;
  HRESULT hr = factory(index, &f);
  if (FAILED(hr)) return hr;
  hr = f->GetClassObject(entry(index).reader, IID_IKaReadFileClass, reinterpret_cast<void**>(out));
  f->Release();
  if (SUCCEEDED(hr) && !*out) hr = E_POINTER;
  return hr;
}

HRESULT CKaFileIOManager::GetPluginCount(DWORD* n) {
  if (!n) return E_POINTER;
  *n = count();
  return S_OK;
}

HRESULT CKaFileIOManager::GetPluginList(const tKALIST** list) {
  if (!list) return E_POINTER;
  *list = list_;
  return list_ ? S_OK : E_UNEXPECTED;
}

HRESULT CKaFileIOManager::GetPluginEntry(DWORD index, KAFIOPLUGINENTRY* out) {
  if (!out) return E_POINTER;
  if (index >= count()) return E_INVALIDARG;
  *out = entry(index);
  return S_OK;
}

HRESULT CKaFileIOManager::FindPlugin(const KAWCHAR* name, DWORD* index) {
  if (!name || !index) return E_POINTER;
  for (DWORD i = 0; i < count(); ++i)
    if (lowerAscii(entry(i).name) == lowerAscii(name)) {
      *index = i;
      return S_OK;
    }
  return KAERR_NOT_FOUND;
}

HRESULT CKaFileIOManager::GetReaderClass(DWORD index, IKaReadFileClass** out) {
  if (!out) return E_POINTER;
  IKaReadFileClass* raw = nullptr;
  HRESULT hr = rawReaderClass(index, &raw);
  if (FAILED(hr)) return hr;
  hr = KaFio_WrapObject(raw, IID_IKaReadFileClass, static_cast<IKaFileIOManager*>(this), index, 0,
                        reinterpret_cast<void**>(out));
  raw->Release();
  return hr;
}

HRESULT CKaFileIOManager::GetRendererClass(DWORD index, IKaRenderFileClass** out) {
  if (!out) return E_POINTER;
  *out = nullptr;
  if (index >= count()) return E_INVALIDARG;
  if (isNullGuid(entry(index).renderer)) return E_NOINTERFACE;
  IKaFioPluginFactory* f = nullptr;
  HRESULT hr = factory(index, &f);
  if (FAILED(hr)) return hr;
  IKaRenderFileClass* raw = nullptr;
  hr = f->GetClassObject(entry(index).renderer, IID_IKaRenderFileClass,
                         reinterpret_cast<void**>(&raw));
  f->Release();
  if (FAILED(hr) || !raw) return FAILED(hr) ? hr : E_POINTER;
  hr = KaFio_WrapObject(raw, IID_IKaRenderFileClass, static_cast<IKaFileIOManager*>(this), index, 0,
                        reinterpret_cast<void**>(out));
  raw->Release();
  return hr;
}

HRESULT CKaFileIOManager::CreateRendererForExtension(const KAWCHAR* extension,
                                                     IKaRenderFile** renderer, LONG* plugin) {
  if (!extension || !renderer) return E_POINTER;
  *renderer = nullptr;
  U16 ext = lowerAscii(extension);
  while (!ext.empty() && ext.front() == '.') ext.erase(0, 1);
  for (DWORD i = 0; i < count(); ++i) {
    if (isNullGuid(entry(i).renderer) || !listHasExtension(entry(i).rendererExtensions, ext))
      continue;
    IKaRenderFileClass* rc = nullptr;
    HRESULT hr = GetRendererClass(i, &rc);
    if (FAILED(hr)) continue;
    hr = rc->CreateRenderer(renderer);
    rc->Release();
    if (SUCCEEDED(hr)) {
      if (plugin) *plugin = LONG(i);
      return hr;
    }
  }
  return KAERR_FIO_UNSUPPORTED;
}

HRESULT CKaFileIOManager::GetLastUsedReader(LONG* plugin) {
  if (!plugin) return E_POINTER;
  *plugin = lastUsed_;
  return S_OK;
}

HRESULT CKaFileIOManager::GetCacheFileName(KAWCHAR* buffer, DWORD chars) {
  if (!buffer || !chars) return E_POINTER;
  if (!initialized_) return E_UNEXPECTED;
  if (cacheFile_.size() >= chars) return KAERR_PATH_TOO_LONG;
  copyText(buffer, chars, cacheFile_);
  return S_OK;
}

HRESULT CKaFileIOManager::GetMetricsFileName(KAWCHAR* buffer, DWORD chars) {
  if (!buffer || !chars) return E_POINTER;
  if (!initialized_) return E_UNEXPECTED;
  if (metricsFile_.size() >= chars) return KAERR_PATH_TOO_LONG;
  copyText(buffer, chars, metricsFile_);
  return S_OK;
}

HRESULT CKaFileIOManager::IsUsingFallbackFiles(BOOL* fallback) {
  if (!fallback) return E_POINTER;
  *fallback = fallback_ ? TRUE : FALSE;
  return S_OK;
}

HRESULT CKaFileIOManager::SetLogSink(KAFIOLOGSINK sink, void* context) {
  logger_.setSink(sink, context);
  return S_OK;
}

}  // namespace ostra::fileio

HRESULT KaFio_CreateManager(REFIID riid, void** manager) noexcept {
  if (!manager) return E_POINTER;
  *manager = nullptr;
  auto* m = new (std::nothrow) ostra::fileio::CKaFileIOManager();
  if (!m) return E_OUTOFMEMORY;
  const HRESULT hr = m->QueryInterface(riid, manager);
  m->Release();
  return hr;
}
