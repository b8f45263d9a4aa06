// A configurable file-format plug-in for the manager's tests and benchmarks. Built once
// per variant (name, class id, extensions, merit, how it declines). It reads a file when
// the file's first 256 bytes hold "open:<name>" or "open:*"; it declines anything else
// with its decline code. Counts its Open calls so that a test can prove it was not asked.
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>

#include "ostra/kafileio.h"

#ifndef TEST_PLUGIN_NO_ENTRY
namespace {

constexpr CLSID kReader = KaGuid(TEST_PLUGIN_READER);
constexpr CLSID kRenderer = KaGuid(TEST_PLUGIN_RENDERER);
std::atomic<long> gOpenCalls{0};

void copy(KAWCHAR* out, DWORD chars, const char16_t* text) {
  DWORD i = 0;
  for (; text[i] && i + 1 < chars; ++i) out[i] = text[i];
  if (chars) out[i] = 0;
}

template <class... Interfaces>
class Object : public Interfaces... {
 public:
  virtual ~Object() = default;
  ULONG addRef() { return ++refs_; }
  ULONG release() {
    const ULONG left = --refs_;
    if (!left) delete this;
    return left;
  }

 private:
  std::atomic<ULONG> refs_{1};
};

#define IUNKNOWN_OF(Interface, iid)                                \
  STDMETHOD(QueryInterface)(REFIID riid, void** ppv) override {    \
    if (!ppv) return E_POINTER;                                    \
    *ppv = nullptr;                                                \
    if (riid != IID_IUnknown && riid != iid) return E_NOINTERFACE; \
    *ppv = static_cast<Interface*>(this);                          \
    addRef();                                                      \
    return S_OK;                                                   \
  }                                                                \
  STDMETHOD_(ULONG, AddRef)() override { return addRef(); }        \
  STDMETHOD_(ULONG, Release)() override { return release(); }

// How a variant misbehaves, for the surrogate's isolation tests: 1 crashes in Open,
// 2 aborts in Read, 3 hangs in Open (each only for files it reads).
#ifndef TEST_PLUGIN_MISBEHAVE
#define TEST_PLUGIN_MISBEHAVE 0
#endif
[[maybe_unused]] void misbehave(int when) {
  if (TEST_PLUGIN_MISBEHAVE != when) return;
  if (when == 1) {
    // The default action, even in a sanitizer build (whose handler would report and exit).
    std::signal(SIGSEGV, SIG_DFL);
    std::raise(SIGSEGV);
  }
  if (when == 2) std::abort();
  if (when == 3)
    for (;;) std::this_thread::sleep_for(std::chrono::hours(1));  // never answers
}

// One mono 16-bit stream of 48 kHz whose sample n is n modulo 32768: enough to check
// positions and to measure reading through a surrogate.
constexpr UINT64 kFrames = 48000ull * 600;
class AudioStream final : public Object<IKaReadAudioStream> {
 public:
  STDMETHOD(QueryInterface)(REFIID riid, void** ppv) override {
    if (!ppv) return E_POINTER;
    *ppv = nullptr;
    if (riid != IID_IUnknown && riid != IID_IKaReadStream && riid != IID_IKaReadAudioStream)
      return E_NOINTERFACE;
    *ppv = static_cast<IKaReadAudioStream*>(this);
    addRef();
    return S_OK;
  }
  STDMETHOD_(ULONG, AddRef)() override { return addRef(); }
  STDMETHOD_(ULONG, Release)() override { return release(); }
  STDMETHOD(GetStreamType)(DWORD* type) override {
    *type = KAFIO_STREAM_AUDIO;
    return S_OK;
  }
  STDMETHOD(GetDuration)(INT64* duration, INT64* start) override {
    *duration = INT64(kFrames * 10000000 / 48000);
    if (start) *start = 0;
    return S_OK;
  }
  STDMETHOD(GetFormat)(_kawaveformat* format, DWORD size) override {
    if (size < 32) return E_INVALIDARG;
    std::memset(format, 0, 32);
    format->dwSize = 32;
    format->SampleType = KASAMPLE_PCM16;
    format->nSamplesPerSec = 48000;
    format->nChannels = 1;
    format->nBlockAlign = 2;
    format->nAvgBytesPerSec = 96000;
    return S_OK;
  }
  STDMETHOD(GetFrameCount)(UINT64* frames) override {
    *frames = kFrames;
    return S_OK;
  }
  STDMETHOD(Read)(UINT64 position, void* buffer, DWORD frames, DWORD* read) override {
    misbehave(2);
    const UINT64 n = position >= kFrames ? 0 : std::min<UINT64>(frames, kFrames - position);
    auto* out = static_cast<int16_t*>(buffer);
    for (UINT64 i = 0; i < n; ++i) out[i] = int16_t((position + i) & 0x7FFF);
    *read = DWORD(n);
    return S_OK;
  }
};

class Meta final : public Object<IKaReadMeta> {
 public:
  IUNKNOWN_OF(IKaReadMeta, IID_IKaReadMeta)
  STDMETHOD(GetValue)(const KAWCHAR* key, KAWCHAR* buffer, DWORD chars) override {
    if (std::u16string(key) == u"Title") {
      copy(buffer, chars, TEST_PLUGIN_NAME_W);
      return S_OK;
    }
    copy(buffer, chars, u"");
    return S_FALSE;
  }
};

class Reader final : public Object<IKaReadFile> {
 public:
  IUNKNOWN_OF(IKaReadFile, IID_IKaReadFile)
  STDMETHOD(Open)(const KAWCHAR* path, DWORD) override {
    ++gOpenCalls;
    std::string narrow;
    for (const KAWCHAR* p = path; *p; ++p) narrow += char(*p);  // test paths are ASCII
    std::ifstream in(narrow, std::ios::binary);
    char head[257] = {};
    in.read(head, 256);
    const std::string text(head, size_t(in.gcount()));
    const bool mine = text.find("open:" TEST_PLUGIN_NAME) != std::string::npos ||
                      text.find("open:*") != std::string::npos;
    if (!mine) return HRESULT(TEST_PLUGIN_FAILURE);
    misbehave(1);
    misbehave(3);
    open_ = true;
    return S_OK;
  }
  STDMETHOD(Close)() override { return S_OK; }
  STDMETHOD(GetStreamCount)(DWORD* count) override {
    *count = open_ ? 1 : 0;
    return S_OK;
  }
  STDMETHOD(GetStream)(DWORD index, REFIID riid, void** stream) override {
    *stream = nullptr;
    if (!open_ || index != 0) return E_INVALIDARG;
    auto* s = new AudioStream;
    const HRESULT hr = s->QueryInterface(riid, stream);
    s->Release();
    return hr;
  }
  STDMETHOD(GetMeta)(REFIID riid, void** meta) override {
    *meta = nullptr;
    if (riid != IID_IKaReadMeta) return E_NOINTERFACE;
    *meta = static_cast<IKaReadMeta*>(new Meta);
    return S_OK;
  }

 private:
  bool open_ = false;
};

class ReaderClass final : public Object<IKaReadFileClass> {
 public:
  IUNKNOWN_OF(IKaReadFileClass, IID_IKaReadFileClass)
  STDMETHOD(GetName)(KAWCHAR* buffer, DWORD chars) override {
    copy(buffer, chars, TEST_PLUGIN_NAME_W);
    return S_OK;
  }
  STDMETHOD(GetExtensions)(KAWCHAR* buffer, DWORD chars) override {
    copy(buffer, chars, TEST_PLUGIN_EXTENSIONS);
    return S_OK;
  }
  STDMETHOD(GetMerit)(LONG* merit) override {
    *merit = TEST_PLUGIN_MERIT;
    return S_OK;
  }
  STDMETHOD(CreateReader)(IKaReadFile** reader) override {
    *reader = new Reader;
    return S_OK;
  }
};

class Renderer final : public Object<IKaRenderFile> {
 public:
  IUNKNOWN_OF(IKaRenderFile, IID_IKaRenderFile)
  STDMETHOD(Create)(const KAWCHAR*, const _kawaveformat*, DWORD) override { return S_OK; }
  STDMETHOD(WriteAudio)(const void*, DWORD) override { return S_OK; }
  STDMETHOD(Finish)() override { return S_OK; }
};

class RendererClass final : public Object<IKaRenderFileClass> {
 public:
  IUNKNOWN_OF(IKaRenderFileClass, IID_IKaRenderFileClass)
  STDMETHOD(GetName)(KAWCHAR* buffer, DWORD chars) override {
    copy(buffer, chars, TEST_PLUGIN_NAME_W);
    return S_OK;
  }
  STDMETHOD(GetExtensions)(KAWCHAR* buffer, DWORD chars) override {
    copy(buffer, chars, TEST_PLUGIN_EXTENSIONS);
    return S_OK;
  }
  STDMETHOD(CreateRenderer)(IKaRenderFile** renderer) override {
    *renderer = new Renderer;
    return S_OK;
  }
};

class Factory final : public Object<IKaFioPluginFactory> {
 public:
  IUNKNOWN_OF(IKaFioPluginFactory, IID_IKaFioPluginFactory)
  STDMETHOD(GetInfo)(KAFIOPLUGININFO* info) override {
    if (!info || info->size < sizeof(KAFIOPLUGININFO)) return E_INVALIDARG;
    info->reader = kReader;
    info->renderer = kRenderer;
    info->merit = TEST_PLUGIN_MERIT;
    info->streamTypeCount = 1;
    copy(info->streamTypes[0].name, 32, u"audio");
    info->streamTypes[0].access = kRenderer == GUID{} ? 1 : 3;
    info->streamTypes[0].flags = 0;
    info->streamTypes[0].streamType = KAFIO_STREAM_AUDIO;
    return S_OK;
  }
  STDMETHOD(GetClassObject)(REFCLSID clsid, REFIID riid, void** object) override {
    *object = nullptr;
    IUnknown* made = nullptr;
    if (clsid == kReader && kReader != GUID{})
      made = static_cast<IKaReadFileClass*>(new ReaderClass);
    else if (clsid == kRenderer && kRenderer != GUID{})
      made = static_cast<IKaRenderFileClass*>(new RendererClass);
    else
      return REGDB_E_CLASSNOTREG;
    const HRESULT hr = made->QueryInterface(riid, object);
    made->Release();
    return hr;
  }
};

}  // namespace

extern "C" __attribute__((visibility("default"))) HRESULT KaFioPlugin_GetFactory(
    DWORD apiVersion, IKaFioPluginFactory** factory) {
  if (!factory) return E_POINTER;
  *factory = nullptr;
  if (apiVersion != KAFIO_PLUGIN_API_VERSION) return E_INVALIDARG;
  *factory = new Factory;
  return S_OK;
}

extern "C" __attribute__((visibility("default"))) long TestPlugin_OpenCalls() {
  return gOpenCalls.load();
}
#else
// A shared object without the entry point: loads, but is not a plug-in.
extern "C" __attribute__((visibility("default"))) int TestPlugin_NotAPlugin() { return 1; }
#endif
