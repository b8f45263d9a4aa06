// The pieces of the file I/O manager: the logger, the metric store, the sniffer's format
// table, the block list, the configuration and cache files, and the manager object.
// Shared by the files of fileio/ only.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ostra/kafiomgr.h"

namespace ostra::fileio {

using U16 = std::u16string;

// ---------------------------------------------------------------- logging
// Every message is formatted into a 512-character buffer and handed to the sink with level
// 4, the source "filemng" and the line of the call. `minVerbosity` is the setting-83 level
// from which the message is written.
class CKaLogger {
 public:
  static constexpr DWORD kLevel = 4;
  static constexpr const char* kSource = "filemng";
  static constexpr size_t kBufferChars = 512;

  void setSink(KAFIOLOGSINK sink, void* context);
  bool enabled(int minVerbosity) const;
  void log(int minVerbosity, int line, const char* format, ...) const
      __attribute__((format(printf, 4, 5)));

 private:
  mutable std::mutex lock_;
  KAFIOLOGSINK sink_ = nullptr;
  void* context_ = nullptr;
};

#define KAFIO_LOG(logger, verbosity, ...) (logger).log(verbosity, __LINE__, __VA_ARGS__)

// ---------------------------------------------------------------- settings
void loadMetricsFile(const U16& path);

// ---------------------------------------------------------------- format table
struct FormatRow {
  DWORD formatId;
  CLSID reader;
};
inline constexpr size_t kFormatRows = 129;
const FormatRow* formatTable();
// Identifiers whose metadata fields are read while identifying (setting 14).
bool formatHasMetadata(DWORD formatId);

// ---------------------------------------------------------------- block list
// Plug-ins that identification passes over in the signature pass: by class id or by the
// file name of the shared object, for every file or for the listed extensions.
struct BypassRule {
  bool anyClass = true;
  CLSID clsid{};
  U16 moduleName;               // empty: any
  std::vector<U16> extensions;  // lower case, no dot; empty: every file
};
struct BlockList {
  std::vector<BypassRule> rules;
  std::string error;  // why the file was refused (empty when it was read or is absent)
};
BlockList loadBlockList(const U16& path);
bool isBypassed(const BlockList& list, const KAFIOPLUGINENTRY& plugin, const U16& extension);

// ---------------------------------------------------------------- text helpers
std::string toUtf8(const U16& s);
U16 lowerAscii(U16 s);
U16 fileNameOf(const U16& path);
U16 folderOf(const U16& path);
U16 extensionOf(const U16& path);  // lower case, without the dot
bool listHasExtension(const KAWCHAR* list, const U16& extension);
void copyText(KAWCHAR* dest, size_t capacity, const U16& text);
U16 guidText(REFGUID guid);
bool isNullGuid(REFGUID guid);

// ---------------------------------------------------------------- configuration and cache
struct ConfigEntry {
  U16 name, path, readerKey, configFile;
  LONG surrogate = -1;
  LONG readerValue = 0;
};
// Every plug-in the configuration files in `folder` name, less the excluded ones; problems
// with a file or an entry go to the logger and leave that entry out.
std::vector<ConfigEntry> readConfigFiles(const U16& folder, const std::vector<U16>& exclude,
                                         const CKaLogger& logger);

// A cached description when it is valid for the entry's path and modification time.
bool readCacheEntry(const U16& cacheFile, const ConfigEntry& config, INT64 modTime,
                    KAFIOPLUGINENTRY* entry);
void writeCacheEntry(const U16& cacheFile, const KAFIOPLUGINENTRY& entry);

// ---------------------------------------------------------------- loaded plug-ins
// A loaded plug-in module and its factory, kept until the manager goes.
struct LoadedModule {
  HMODULE module = nullptr;
  std::vector<HMODULE> preloaded;
  IKaFioPluginFactory* factory = nullptr;
  HRESULT status = S_OK;  // why it could not be loaded
  ~LoadedModule();
};
// Loads the module, its preload modules, and asks its factory.
HRESULT loadPluginModule(const U16& path, const U16& preload, LoadedModule* loaded);
// Fills the description of the entry from the loaded module.
HRESULT describePlugin(IKaFioPluginFactory* factory, KAFIOPLUGINENTRY* entry);

}  // namespace ostra::fileio
