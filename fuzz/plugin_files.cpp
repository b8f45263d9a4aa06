// The plug-in manager's own files on hostile bytes. The first byte picks the reader:
// 0 a plug-in configuration file ("*.Fio2007-Config", found by listing a folder), 1 the
// plug-in cache (every section read as a cached plug-in, with its own "Path" and
// "ModTime" so that the whole entry is read), 2 the block list (XML); the rest is the
// file. Every result is checked to fit the fixed-size records it fills and the log lines
// their buffer. The bytes are served from memory: the folder listed is real but holds
// only an empty file whose opening is redirected to the input.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "fileio/internal/manager.h"
#include "memory_fd.h"
#include "ostra/kaini.h"

namespace {

using ostra::fileio::U16;
namespace fs = std::filesystem;

constexpr const char* kConfigSuffix = ".Fio2007-Config";

int (*memoryOpen)(const char*, int, unsigned) = nullptr;

// Any configuration file is the input.
int openRedirected(const char* path, int flags, unsigned mode) {
  const size_t n = std::strlen(path), k = std::strlen(kConfigSuffix);
  if (n >= k && std::strcmp(path + n - k, kConfigSuffix) == 0)
    path = ostra::fuzz::MemoryDescriptor::kPath;
  return memoryOpen(path, flags, mode);
}

struct ConfigFolder {
  fs::path path;
  ConfigFolder() {
    path = fs::temp_directory_path() / ("ostra-fuzz-plugins-" + std::to_string(getpid()));
    fs::create_directories(path);
    std::FILE* f = std::fopen((path / "fuzz.Fio2007-Config").c_str(), "w");
    if (f) std::fclose(f);
  }
  ~ConfigFolder() {
    std::error_code ignored;
    fs::remove_all(path, ignored);
  }
};

void checkText(const KAWCHAR* text, size_t capacity) {
  size_t i = 0;
  while (i < capacity && text[i]) ++i;
  if (i == capacity) std::abort();  // not terminated inside its field
}

void checkEntry(const KAFIOPLUGINENTRY& e) {
  checkText(e.name, KAFIO_MAX_NAME);
  checkText(e.path, KAFIO_MAX_PATH);
  checkText(e.readerKey, KAFIO_MAX_NAME);
  checkText(e.dialogName, 64);
  checkText(e.preloadModules, 256);
  checkText(e.readerExtensions, KAFIO_MAX_EXTENSIONS);
  checkText(e.rendererExtensions, KAFIO_MAX_EXTENSIONS);
  if (e.streamTypeCount > KAFIO_MAX_STREAMTYPES) std::abort();
  for (DWORD i = 0; i < e.streamTypeCount; ++i) checkText(e.streamTypes[i].name, 32);
}

void logSink(void*, DWORD, const char*, int, const char* text) {
  if (std::strlen(text) >= ostra::fileio::CKaLogger::kBufferChars) std::abort();
}

U16 value(const KAWCHAR* section, const KAWCHAR* key, const KAWCHAR* file) {
  std::vector<KAWCHAR> v(KAFIO_MAX_PATH + 1);
  KaIni_GetString(section, key, u"", v.data(), DWORD(v.size()), file);
  return v.data();
}

void readConfig(const ConfigFolder& folder, const ostra::fileio::CKaLogger& logger) {
  const std::string f = folder.path.string();
  const std::vector<U16> exclude = {u"excluded.so"};
  for (const auto& e : ostra::fileio::readConfigFiles(U16(f.begin(), f.end()), exclude, logger))
    if (e.path.size() >= KAFIO_MAX_PATH || e.name.size() >= KAFIO_MAX_NAME || e.path.empty() ||
        ostra::fileio::lowerAscii(ostra::fileio::fileNameOf(e.path)) == u"excluded.so")
      std::abort();
}

void readCache() {
  const KAWCHAR* file = ostra::fuzz::MemoryDescriptor::kWidePath;
  std::vector<KAWCHAR> sections(8192);
  const DWORD n = KaIni_GetSectionNames(sections.data(), DWORD(sections.size()), file);
  int budget = 16;
  for (DWORD i = 0; i < n && sections[i] && --budget >= 0;) {
    ostra::fileio::ConfigEntry config;
    config.name = &sections[i];
    while (i < n && sections[i]) ++i;
    ++i;
    if (config.name.size() >= KAFIO_MAX_NAME) continue;
    config.path = value(config.name.c_str(), u"Path", file);
    if (config.path.size() >= KAFIO_MAX_PATH) continue;
    const std::string stamp = ostra::fileio::toUtf8(value(config.name.c_str(), u"ModTime", file));
    KAFIOPLUGINENTRY entry;
    if (ostra::fileio::readCacheEntry(U16(file), config, std::strtoll(stamp.c_str(), nullptr, 10),
                                      &entry))
      checkEntry(entry);
  }
}

void readBlockList() {
  const ostra::fileio::BlockList list =
      ostra::fileio::loadBlockList(ostra::fuzz::MemoryDescriptor::kWidePath);
  if (!list.error.empty() && !list.rules.empty()) std::abort();
  KAFIOPLUGINENTRY plugin{};
  plugin.reader = CLSID_KaFioCompoundReader;
  std::memcpy(plugin.path, u"/lib/reader.so", sizeof u"/lib/reader.so");
  for (const KAWCHAR* extension : {u"mp4", u"", u"wav"})
    ostra::fileio::isBypassed(list, plugin, extension);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static ostra::fuzz::MemoryDescriptor memory;
  static ConfigFolder folder;
  static ostra::fileio::CKaLogger logger;
  static const bool hooked = [] {
    memoryOpen = ostra::platform::sysOps().open;
    ostra::platform::sysOps().open = &openRedirected;
    logger.setSink(&logSink, nullptr);
    return true;
  }();
  (void)hooked;
  if (size < 1 || size > (1u << 16)) return 0;
  memory.open(data + 1, size - 1);
  switch (data[0] & 3) {
    case 0:
      readConfig(folder, logger);
      break;
    case 1:
      readCache();
      break;
    default:
      readBlockList();
      break;
  }
  return 0;
}
