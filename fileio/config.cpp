// The plug-in configuration files ("*.Fio2007-Config" beside the module), the plug-in
// cache file, and loading a plug-in module to describe it.
#include <cstdlib>

#include "fileio/internal/manager.h"
#include "ostra/kacom.h"
#include "ostra/kaerror.h"
#include "ostra/kaini.h"
#include "ostra/kamodule.h"
#include "ostra/kaplatform.h"

namespace ostra::fileio {
namespace {

constexpr const KAWCHAR* kPluginsSection = u"FileIO Plug-Ins";
constexpr DWORD kKeyListChars = 8320;
constexpr const KAWCHAR* kAbsent = u"_._";

std::vector<U16> splitList(const KAWCHAR* list) {
  std::vector<U16> items;
  for (const KAWCHAR* k = list; *k; k += KaText_WideLength(k) + 1) items.emplace_back(k);
  return items;
}

U16 readString(const KAWCHAR* section, const KAWCHAR* key, const U16& file) {
  KAWCHAR value[KAFIO_MAX_PATH];
  KaIni_GetString(section, key, kAbsent, value, KAFIO_MAX_PATH, file.c_str());
  return U16(value) == kAbsent ? U16() : U16(value);
}

LONG readInt(const KAWCHAR* section, const KAWCHAR* key, LONG fallback, const U16& file) {
  return LONG(KaIni_GetInt(section, key, fallback, file.c_str()));
}

bool isAbsolute(const U16& path) { return !path.empty() && path[0] == '/'; }

}  // namespace

std::vector<ConfigEntry> readConfigFiles(const U16& folder, const std::vector<U16>& exclude,
                                         const CKaLogger& logger) {
  std::vector<U16> files;
  const HRESULT hr = KaPath_FindFiles(
      folder.c_str(), u".Fio2007-Config",
      [](void* context, const KAWCHAR* name) -> BOOL {
        static_cast<std::vector<U16>*>(context)->emplace_back(name);
        return TRUE;
      },
      &files);
  if (FAILED(hr)) {
    KAFIO_LOG(logger, 1, "No plug-in configuration folder '%s' (0x%08X): the plug-in list is empty",
              toUtf8(folder).c_str(), unsigned(hr));
    return {};
  }
  std::vector<ConfigEntry> entries;
  for (const U16& name : files) {
    const U16 file = folder + u"/" + name;
    std::vector<KAWCHAR> keys(kKeyListChars);
    KaIni_GetKeyNames(kPluginsSection, keys.data(), kKeyListChars, file.c_str());
    const std::vector<U16> names = splitList(keys.data());
    if (names.empty())
      KAFIO_LOG(logger, 1, "Plug-in configuration '%s' has no [FileIO Plug-Ins] entries",
                toUtf8(file).c_str());
    for (const U16& key : names) {
      ConfigEntry e;
      e.name = key;
      e.configFile = file;
      const U16 path = readString(kPluginsSection, key.c_str(), file);
      if (path.empty()) {
        KAFIO_LOG(logger, 1, "Plug-in configuration '%s': plug-in '%s' has no path; skipped",
                  toUtf8(file).c_str(), toUtf8(key).c_str());
        continue;
      }
      e.path = isAbsolute(path) ? path : folder + u"/" + path;
      if (e.path.size() >= KAFIO_MAX_PATH || key.size() >= KAFIO_MAX_NAME) {
        KAFIO_LOG(logger, 1,
                  "Plug-in configuration '%s': plug-in '%s' has a name or path too long; skipped",
                  toUtf8(file).c_str(), toUtf8(key).c_str());
        continue;
      }
      bool excluded = false;
      const U16 module = lowerAscii(fileNameOf(e.path));
      for (const U16& x : exclude) excluded = excluded || lowerAscii(x) == module;
      if (excluded) continue;
      bool duplicate = false;
      for (const ConfigEntry& other : entries)
        duplicate = duplicate || lowerAscii(other.name) == lowerAscii(key);
      if (duplicate) {
        KAFIO_LOG(logger, 1,
                  "Plug-in configuration '%s': plug-in '%s' is named twice; the first stands",
                  toUtf8(file).c_str(), toUtf8(key).c_str());
        continue;
      }
      e.surrogate = readInt(key.c_str(), u"Surrogate", -1, file);
      KAWCHAR reader[KAFIO_MAX_NAME];
      KaIni_GetString(key.c_str(), u"Reader", u"", reader, KAFIO_MAX_NAME, file.c_str());
      e.readerKey = reader;
      if (!e.readerKey.empty()) e.readerValue = readInt(key.c_str(), reader, 0, file);
      entries.push_back(std::move(e));
    }
  }
  return entries;
}

// ---------------------------------------------------------------- cache
bool readCacheEntry(const U16& cacheFile, const ConfigEntry& config, INT64 modTime,
                    KAFIOPLUGINENTRY* entry) {
  const KAWCHAR* section = config.name.c_str();
  if (readString(section, u"Path", cacheFile) != config.path) return false;
  const U16 stamp = readString(section, u"ModTime", cacheFile);
  const std::string digits = toUtf8(stamp);
  char* end = nullptr;
  const long long cached = std::strtoll(digits.c_str(), &end, 10);
  if (digits.empty() || *end || cached != modTime) return false;

  *entry = {};
  copyText(entry->name, KAFIO_MAX_NAME, config.name);
  copyText(entry->path, KAFIO_MAX_PATH, config.path);
  copyText(entry->readerKey, KAFIO_MAX_NAME, config.readerKey);
  entry->readerValue = config.readerValue;
  entry->modTime = modTime;
  entry->surrogate = config.surrogate;
  entry->betaBuild = readInt(section, u"BetaBuild", 0, cacheFile);
  entry->merit = readInt(section, u"MeritValue", 0, cacheFile);
  entry->langId = DWORD(readInt(section, u"LangID", 0, cacheFile));
  KaGuid_FromString(readString(section, u"MeritReader", cacheFile).c_str(), &entry->meritReader);
  copyText(entry->dialogName, 64, readString(section, u"DialogName", cacheFile));
  copyText(entry->preloadModules, 256, readString(section, u"PreloadModules", cacheFile));
  KaGuid_FromString(readString(section, u"Reader", cacheFile).c_str(), &entry->reader);
  copyText(entry->readerExtensions, KAFIO_MAX_EXTENSIONS,
           readString(section, u"ExtReader", cacheFile));
  KaGuid_FromString(readString(section, u"Renderer", cacheFile).c_str(), &entry->renderer);
  copyText(entry->rendererExtensions, KAFIO_MAX_EXTENSIONS,
           readString(section, u"ExtRenderer", cacheFile));
  const std::vector<U16> types = [&] {
    std::vector<KAWCHAR> list(1024);
    KaIni_GetString(section, u"StreamTypes", u"", list.data(), 1024, cacheFile.c_str());
    std::vector<U16> names;
    U16 all = list.data();
    size_t start = 0;
    while (start < all.size()) {
      size_t end = all.find(u';', start);
      if (end == U16::npos) end = all.size();
      if (end > start) names.push_back(all.substr(start, end - start));
      start = end + 1;
    }
    return names;
  }();
  for (const U16& t : types) {
    if (entry->streamTypeCount >= KAFIO_MAX_STREAMTYPES) break;
    KAFIOSTREAMTYPEINFO& info = entry->streamTypes[entry->streamTypeCount++];
    const U16 typeSection = config.name + u"." + t;
    copyText(info.name, 32, t);
    info.access = readInt(typeSection.c_str(), u"Access", -1, cacheFile);
    info.flags = readInt(typeSection.c_str(), u"Flags", -1, cacheFile);
    info.streamType = readInt(typeSection.c_str(), u"StreamType", -1, cacheFile);
  }
  entry->fromCache = TRUE;
  return true;
}

void writeCacheEntry(const U16& cacheFile, const KAFIOPLUGINENTRY& e) {
  const KAWCHAR* section = e.name;
  const KAWCHAR* file = cacheFile.c_str();
  const auto text = [](const KAWCHAR* s) { return *s ? U16(s) : U16(kAbsent); };
  const auto number = [](INT64 v) {
    const std::string s = std::to_string(v);
    return U16(s.begin(), s.end());
  };
  const auto guid = [](REFGUID g) { return isNullGuid(g) ? U16(kAbsent) : guidText(g); };
  U16 types;
  for (DWORD i = 0; i < e.streamTypeCount; ++i)
    types += U16(i ? u";" : u"") + e.streamTypes[i].name;
  KaIni_DeleteSection(section, file);
  KaIni_WriteString(u"main", u"LangID", number(e.langId).c_str(), file);
  const std::pair<const KAWCHAR*, U16> keys[] = {
      {u"Path", e.path},
      {u"ModTime", number(e.modTime)},
      {u"BetaBuild", number(e.betaBuild)},
      {u"Surrogate", number(e.surrogate)},
      {u"MeritValue", number(e.merit)},
      {u"MeritReader", guid(e.meritReader)},
      {u"LangID", number(e.langId)},
      {u"DialogName", text(e.dialogName)},
      {u"PreloadModules", text(e.preloadModules)},
      {u"Reader", guid(e.reader)},
      {u"ExtReader", text(e.readerExtensions)},
      {u"Renderer", guid(e.renderer)},
      {u"ExtRenderer", text(e.rendererExtensions)},
      {u"StreamTypes", types},
  };
  for (const auto& [key, value] : keys) KaIni_WriteString(section, key, value.c_str(), file);
  for (DWORD i = 0; i < e.streamTypeCount; ++i) {
    const KAFIOSTREAMTYPEINFO& t = e.streamTypes[i];
    const U16 typeSection = U16(e.name) + u"." + t.name;
    KaIni_WriteString(typeSection.c_str(), u"Access", number(t.access).c_str(), file);
    KaIni_WriteString(typeSection.c_str(), u"Flags", number(t.flags).c_str(), file);
    KaIni_WriteString(typeSection.c_str(), u"StreamType", number(t.streamType).c_str(), file);
  }
}

// ---------------------------------------------------------------- modules
LoadedModule::~LoadedModule() {
  if (factory) factory->Release();
  // Plug-in code may still run in objects the host holds; modules stay loaded, as the
  // operating system keeps them until the process ends.
}

HRESULT loadPluginModule(const U16& path, const U16& preload, LoadedModule* loaded) {
  size_t start = 0;
  while (start < preload.size()) {
    size_t end = preload.find(u';', start);
    if (end == U16::npos) end = preload.size();
    const U16 item = preload.substr(start, end - start);
    HMODULE m = nullptr;
    if (!item.empty() && SUCCEEDED(KaModule_Load(item.c_str(), &m))) loaded->preloaded.push_back(m);
    start = end + 1;
  }
  HRESULT hr = KaModule_Load(path.c_str(), &loaded->module);
  if (FAILED(hr)) return hr;
  const auto entry = reinterpret_cast<KAFIO_PLUGIN_ENTRY>(
      KaModule_GetSymbol(loaded->module, KAFIO_PLUGIN_ENTRY_NAME));
  if (!entry) return KAERR_NOT_FOUND;
  hr = entry(KAFIO_PLUGIN_API_VERSION, &loaded->factory);
  if (SUCCEEDED(hr) && !loaded->factory) hr = E_POINTER;
  return hr;
}

HRESULT describePlugin(IKaFioPluginFactory* factory, KAFIOPLUGINENTRY* entry) {
  KAFIOPLUGININFO info{};
  info.size = sizeof info;
  HRESULT hr = factory->GetInfo(&info);
  if (FAILED(hr)) return hr;
  entry->reader = info.reader;
  entry->renderer = info.renderer;
  entry->merit = info.merit;
  entry->meritReader = info.reader;
  entry->betaBuild = info.betaBuild ? TRUE : FALSE;
  info.dialogName[63] = 0;
  info.preloadModules[255] = 0;
  copyText(entry->dialogName, 64, info.dialogName);
  copyText(entry->preloadModules, 256, info.preloadModules);
  entry->streamTypeCount =
      info.streamTypeCount < KAFIO_MAX_STREAMTYPES ? info.streamTypeCount : KAFIO_MAX_STREAMTYPES;
  for (DWORD i = 0; i < entry->streamTypeCount; ++i) {
    entry->streamTypes[i] = info.streamTypes[i];
    entry->streamTypes[i].name[31] = 0;
  }
  KAWCHAR text[KAFIO_MAX_EXTENSIONS] = {};
  if (!isNullGuid(info.reader)) {
    IKaReadFileClass* rc = nullptr;
    hr = factory->GetClassObject(info.reader, IID_IKaReadFileClass, reinterpret_cast<void**>(&rc));
    if (FAILED(hr) || !rc) return FAILED(hr) ? hr : E_POINTER;
    if (SUCCEEDED(rc->GetExtensions(text, KAFIO_MAX_EXTENSIONS))) {
      text[KAFIO_MAX_EXTENSIONS - 1] = 0;
      copyText(entry->readerExtensions, KAFIO_MAX_EXTENSIONS, text);
    }
    LONG merit = 0;
    if (SUCCEEDED(rc->GetMerit(&merit)) && merit) entry->merit = merit;
    rc->Release();
  }
  if (!isNullGuid(info.renderer)) {
    IKaRenderFileClass* wc = nullptr;
    hr = factory->GetClassObject(info.renderer, IID_IKaRenderFileClass,
                                 reinterpret_cast<void**>(&wc));
    if (FAILED(hr) || !wc) return FAILED(hr) ? hr : E_POINTER;
    text[0] = 0;
    if (SUCCEEDED(wc->GetExtensions(text, KAFIO_MAX_EXTENSIONS))) {
      text[KAFIO_MAX_EXTENSIONS - 1] = 0;
      copyText(entry->rendererExtensions, KAFIO_MAX_EXTENSIONS, text);
    }
    wc->Release();
  }
  return S_OK;
}

}  // namespace ostra::fileio
