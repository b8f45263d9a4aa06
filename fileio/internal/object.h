// CKaFileIOManager: the manager object behind IKaFileIOManager and IKaFileIOMgrForApp.
// Lock order: startLock_ (Start, Rescan) before modulesLock_ (loading a plug-in module);
// no manager lock is held while a reader opens a file.
#pragma once

#include <array>

#include "fileio/internal/manager.h"
#include "fileio/internal/surrogate.h"

namespace ostra::fileio {

class CKaFileIOManager final : public IKaFileIOManager, public IKaFileIOMgrForApp {
 public:
  CKaFileIOManager();

  // IUnknown (both interfaces)
  STDMETHOD(QueryInterface)(REFIID riid, void** ppv) override;
  STDMETHOD_(ULONG, AddRef)() override;
  STDMETHOD_(ULONG, Release)() override;

  // IKaFileIOManager
  STDMETHOD(GetPluginCount)(DWORD* count) override;
  STDMETHOD(GetPluginList)(const tKALIST** list) override;
  STDMETHOD(GetPluginEntry)(DWORD index, KAFIOPLUGINENTRY* entry) override;
  STDMETHOD(FindPlugin)(const KAWCHAR* name, DWORD* index) override;
  STDMETHOD(EnumPlugins)(IKaFIOPluginEnum** enumerator) override;
  STDMETHOD(EnumReaders)(IKaReaderEnum** enumerator) override;
  STDMETHOD(EnumRenderers)(IKaRendererEnum** enumerator) override;
  STDMETHOD(EnumFileTypes)(IKaFileIOTypeEnum** enumerator) override;
  STDMETHOD(GetReaderClass)(DWORD index, IKaReadFileClass** readerClass) override;
  STDMETHOD(GetRendererClass)(DWORD index, IKaRenderFileClass** rendererClass) override;
  STDMETHOD(CreateReaderForPath)
  (const KAWCHAR* path, DWORD flags, IKaReadFile** reader, LONG* plugin) override;
  STDMETHOD(CreateRendererForExtension)
  (const KAWCHAR* extension, IKaRenderFile** renderer, LONG* plugin) override;
  STDMETHOD(GetLastUsedReader)(LONG* plugin) override;
  STDMETHOD(StartSurrogate)(LONG index, HANDLE* process, HANDLE* thread) override;
  STDMETHOD(GetBlockedPlugin)(DWORD index, KAFIOBLOCKED* blocked) override;
  STDMETHOD(UnblockPlugin)(const KAWCHAR* name) override;
  STDMETHOD(Reserved19)() override { return E_NOTIMPL; }
  STDMETHOD(Reserved20)() override { return E_NOTIMPL; }
  STDMETHOD(Reserved21)() override { return E_NOTIMPL; }
  STDMETHOD(Reserved22)() override { return E_NOTIMPL; }
  STDMETHOD(Reserved23)() override { return E_NOTIMPL; }
  STDMETHOD(Reserved24)() override { return E_NOTIMPL; }
  STDMETHOD(Reserved25)() override { return E_NOTIMPL; }
  STDMETHOD(Reserved26)() override { return E_NOTIMPL; }
  STDMETHOD(Reserved27)() override { return E_NOTIMPL; }
  STDMETHOD(Reserved28)() override { return E_NOTIMPL; }
  STDMETHOD(Reserved29)() override { return E_NOTIMPL; }
  STDMETHOD(Reserved30)() override { return E_NOTIMPL; }
  STDMETHOD(Reserved31)() override { return E_NOTIMPL; }
  STDMETHOD(Reserved32)() override { return E_NOTIMPL; }
  STDMETHOD(Reserved33)() override { return E_NOTIMPL; }
  STDMETHOD(Reserved34)() override { return E_NOTIMPL; }
  STDMETHOD(IdentifyFileType)(KAHFILE file, const KAWCHAR* path, KAFIOIDENTIFY* result) override;
  STDMETHOD(IdentifyFileTypeSlow)
  (KAHFILE file, const KAWCHAR* path, KAFIOIDENTIFY* result) override;

  // IKaFileIOMgrForApp
  STDMETHOD(Initialize)(const KAFIOMGRINIT* init) override;
  STDMETHOD(Start)() override;
  STDMETHOD(Rescan)() override;
  STDMETHOD(GetCacheFileName)(KAWCHAR* buffer, DWORD chars) override;
  STDMETHOD(GetMetricsFileName)(KAWCHAR* buffer, DWORD chars) override;
  STDMETHOD(IsUsingFallbackFiles)(BOOL* fallback) override;
  STDMETHOD(SetLogSink)(KAFIOLOGSINK sink, void* context) override;

  // For the enumerators and identification.
  DWORD count() const { return list_ ? DWORD(list_->count) : 0; }
  const KAFIOPLUGINENTRY& entry(DWORD index) const {
    return *static_cast<KAFIOPLUGINENTRY* const*>(list_->items)[index];
  }
  // The plug-in's factory, loading the module on first use.
  HRESULT factory(DWORD index, IKaFioPluginFactory** factory);
  HRESULT rawReaderClass(DWORD index, IKaReadFileClass** readerClass);

 private:
  ~CKaFileIOManager();
  HRESULT scan(bool useCache);
  void clearList();
  HRESULT identify(KAHFILE file, const U16& path, bool slow, KAFIOIDENTIFY* result,
                   IKaReadFile** keep);
  // S_OK and the open reader (when keep) if the plug-in reads the file.
  HRESULT tryPlugin(DWORD index, const U16& path, IKaReadFile** keep, KAFIOIDENTIFY* result,
                    bool readMeta);
  const BlockList& blockList();
  // The surrogate host of an index, made on first use (no process is started here).
  SurrogateHost* surrogate(LONG index);
  // The remembered block list (plug-ins that took a surrogate down), in the user's cache
  // folder beside the plug-in cache.
  U16 blockedFile() const;
  void loadBlocked();
  void saveBlockedLocked();
  void rememberFailure(const KAFIOPLUGINENTRY& plugin, const char* call, const char* reason);
  // True when the plug-in is remembered as blocked and its file has not changed since.
  bool isRememberedBlocked(const KAFIOPLUGINENTRY& plugin);

  std::atomic<ULONG> refs_{1};
  std::mutex startLock_;
  bool initialized_ = false;
  std::atomic<bool> started_{false};
  DWORD flags_ = 0;
  U16 modulePath_, moduleFolder_, cacheFile_, metricsFile_;
  std::vector<U16> exclude_;
  bool fallback_ = false;
  CKaLogger logger_;
  tKALIST* list_ = nullptr;
  std::mutex modulesLock_;
  std::vector<std::unique_ptr<LoadedModule>> modules_;
  std::array<LONG, kFormatRows> rowPlugin_{};
  std::atomic<LONG> lastUsed_{-1};
  std::once_flag blockListOnce_;
  BlockList blockList_;
  std::mutex surrogatesLock_;
  std::vector<std::unique_ptr<SurrogateHost>> surrogates_;
  std::mutex blockedLock_;
  std::vector<KAFIOBLOCKED> blocked_;
};

}  // namespace ostra::fileio
