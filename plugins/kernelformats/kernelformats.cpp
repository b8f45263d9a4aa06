// The bundled plug-in for the kernel's own formats: a reader of wave, Wave64, AIFF and
// AIFC files and a renderer of wave and Wave64 files, on the kernel's format functions.
// Samples are handed out as stored, except that big-endian AIFF samples are turned to
// little-endian, the order a _kawaveformat describes.
#include <atomic>
#include <cstring>
#include <mutex>
#include <new>
#include <string>

#include "ostra/kaerror.h"
#include "ostra/kafileio.h"
#include "ostra/kaplatform.h"
#include "ostra/kawave.h"

namespace {

void copy(KAWCHAR* out, DWORD chars, const char16_t* text) {
  DWORD i = 0;
  for (; text[i] && i + 1 < chars; ++i) out[i] = text[i];
  if (chars) out[i] = 0;
}

template <class Interface>
class Object : public Interface {
 public:
  explicit Object(const IID& iid) : iid_(iid) {}
  virtual ~Object() = default;
  STDMETHOD(QueryInterface)(REFIID riid, void** ppv) override {
    if (!ppv) return E_POINTER;
    *ppv = nullptr;
    if (riid != IID_IUnknown && riid != iid_ && !extra(riid)) return E_NOINTERFACE;
    *ppv = static_cast<Interface*>(this);
    AddRef();
    return S_OK;
  }
  STDMETHOD_(ULONG, AddRef)() override { return ++refs_; }
  STDMETHOD_(ULONG, Release)() override {
    const ULONG left = --refs_;
    if (!left) delete this;
    return left;
  }

 protected:
  virtual bool extra(REFIID) const { return false; }

 private:
  const IID& iid_;
  std::atomic<ULONG> refs_{1};
};

// The file's one audio stream; reads lock the file, since callers read from any thread.
class AudioStream final : public Object<IKaReadAudioStream> {
 public:
  AudioStream(KAHFILE file, const _kawaveformat& wfx, const tKAAUDIODATA& data, std::mutex* lock)
      : Object(IID_IKaReadAudioStream), file_(file), wfx_(wfx), data_(data), lock_(lock) {}
  STDMETHOD(GetStreamType)(DWORD* type) override {
    if (!type) return E_POINTER;
    *type = KAFIO_STREAM_AUDIO;
    return S_OK;
  }
  STDMETHOD(GetDuration)(INT64* duration, INT64* start) override {
    if (!duration) return E_POINTER;
    *duration = wfx_.nSamplesPerSec ? INT64(frames() * 10000000ull / wfx_.nSamplesPerSec) : -1;
    if (start) *start = 0;
    return S_OK;
  }
  STDMETHOD(GetFormat)(_kawaveformat* format, DWORD size) override {
    if (!format) return E_POINTER;
    if (size < wfx_.dwSize) return E_INVALIDARG;
    std::memcpy(format, &wfx_, wfx_.dwSize);
    return S_OK;
  }
  STDMETHOD(GetFrameCount)(UINT64* n) override {
    if (!n) return E_POINTER;
    *n = frames();
    return S_OK;
  }
  STDMETHOD(Read)(UINT64 position, void* buffer, DWORD count, DWORD* read) override {
    if (!buffer || !read) return E_POINTER;
    *read = 0;
    const UINT64 total = frames();
    if (position >= total || !wfx_.nBlockAlign) return S_OK;
    UINT64 n = count < total - position ? count : total - position;
    if (n * wfx_.nBlockAlign > 0x7FFFFFFFu) n = 0x7FFFFFFFu / wfx_.nBlockAlign;
    DWORD got = 0;
    {
      std::lock_guard lk(*lock_);
      HRESULT hr = KaFile_Seek(file_, INT64(data_.offset + position * wfx_.nBlockAlign), FILE_BEGIN,
                               nullptr);
      if (SUCCEEDED(hr)) hr = KaFile_Read(file_, buffer, DWORD(n * wfx_.nBlockAlign), &got);
      if (FAILED(hr)) return hr;
    }
    const WORD bytes = wfx_.BytesPerSample();
    if (data_.bigEndian && bytes > 1) {
      auto* p = static_cast<BYTE*>(buffer);
      for (DWORD i = 0; i + bytes <= got; i += bytes)
        for (WORD a = 0, b = WORD(bytes - 1); a < b; ++a, --b) std::swap(p[i + a], p[i + b]);
    }
    *read = got / wfx_.nBlockAlign;
    return S_OK;
  }

 protected:
  bool extra(REFIID riid) const override { return riid == IID_IKaReadStream; }

 private:
  UINT64 frames() const { return wfx_.nBlockAlign ? data_.size / wfx_.nBlockAlign : 0; }
  KAHFILE file_;
  _kawaveformat wfx_;
  tKAAUDIODATA data_;
  std::mutex* lock_;
};

class Reader final : public Object<IKaReadFile> {
 public:
  Reader() : Object(IID_IKaReadFile) {}
  ~Reader() override { Close(); }
  STDMETHOD(Open)(const KAWCHAR* path, DWORD) override {
    if (!path) return E_POINTER;
    Close();
    HRESULT hr = KaFile_Open(path, GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, 0, &file_);
    if (FAILED(hr)) return hr;
    hr = KaGetFileWfx(file_, &wfx_, sizeof wfx_);
    if (SUCCEEDED(hr)) hr = KaGetFileAudioData(file_, &data_);
    if (SUCCEEDED(hr) && (wfx_.IsCompressed() || !wfx_.nBlockAlign)) hr = KAERR_UNSUPPORTED_FILE;
    if (SUCCEEDED(hr) && data_.bigEndian) {
      // Read turns the samples little-endian, so the format must say so too.
      const KASAMPLETYPE type = wfx_.SampleType == KASAMPLE_MAC16   ? KASAMPLE_PCM16
                                : wfx_.SampleType == KASAMPLE_MAC24 ? KASAMPLE_PCM24
                                : wfx_.SampleType == KASAMPLE_MAC32 ? KASAMPLE_PCM32
                                                                    : wfx_.SampleType;
      if (type != wfx_.SampleType)
        wfx_.Init(wfx_.nSamplesPerSec, type, wfx_.nChannels, wfx_.dwChannelMask, sizeof wfx_);
    }
    if (FAILED(hr)) {
      Close();
      // Not one of ours (or compressed): let the next plug-in try.
      return hr == KAERR_UNSUPPORTED_FILE || hr == KAERR_UNSUPPORTED_FORMAT ? KAERR_FIO_NOT_MINE
                                                                            : hr;
    }
    return S_OK;
  }
  STDMETHOD(Close)() override {
    if (file_ != KA_INVALID_HFILE) KaFile_Close(file_);
    file_ = KA_INVALID_HFILE;
    return S_OK;
  }
  STDMETHOD(GetStreamCount)(DWORD* count) override {
    if (!count) return E_POINTER;
    *count = file_ != KA_INVALID_HFILE ? 1 : 0;
    return S_OK;
  }
  STDMETHOD(GetStream)(DWORD index, REFIID riid, void** stream) override {
    if (!stream) return E_POINTER;
    *stream = nullptr;
    if (index != 0 || file_ == KA_INVALID_HFILE) return E_INVALIDARG;
    auto* s = new (std::nothrow) AudioStream(file_, wfx_, data_, &lock_);
    if (!s) return E_OUTOFMEMORY;
    AddRef();  // the stream uses the reader's file
    const HRESULT hr = s->QueryInterface(riid, stream);
    s->Release();
    Release();
    return hr;
  }
  STDMETHOD(GetMeta)(REFIID, void** meta) override {
    if (meta) *meta = nullptr;
    return E_NOINTERFACE;
  }

 private:
  KAHFILE file_ = KA_INVALID_HFILE;
  _kawaveformat wfx_{};
  tKAAUDIODATA data_{};
  std::mutex lock_;
};

class Renderer final : public Object<IKaRenderFile> {
 public:
  Renderer() : Object(IID_IKaRenderFile) {}
  ~Renderer() override {
    if (file_ != KA_INVALID_HFILE) KaFile_Close(file_);
  }
  STDMETHOD(Create)(const KAWCHAR* path, const _kawaveformat* audio, DWORD) override {
    if (!path || !audio) return E_POINTER;
    if (file_ != KA_INVALID_HFILE) return E_UNEXPECTED;
    std::u16string p(path);
    wave64_ = p.size() > 4 && (p.ends_with(u".w64") || p.ends_with(u".W64"));
    std::memcpy(&wfx_, audio, audio->dwSize < sizeof wfx_ ? audio->dwSize : sizeof wfx_);
    HRESULT hr = wave64_ ? KaInitializeWav64(path, audio, CREATE_ALWAYS)
                         : KaInitializeWav(path, audio, CREATE_ALWAYS);
    if (SUCCEEDED(hr))
      hr = KaFile_Open(path, GENERIC_READ | GENERIC_WRITE, 0, OPEN_EXISTING, 0, &file_);
    if (SUCCEEDED(hr))
      hr = KaFile_Seek(file_, wave64_ ? KA_W64_HEADER_LENGTH : KA_WAV_HEADER_LENGTH, FILE_BEGIN,
                       nullptr);
    return hr;
  }
  STDMETHOD(WriteAudio)(const void* buffer, DWORD frames) override {
    if (file_ == KA_INVALID_HFILE) return E_UNEXPECTED;
    const UINT64 bytes = UINT64(frames) * wfx_.nBlockAlign;
    if (bytes > 0xFFFFFFFFu || (!wave64_ && written_ + bytes > 0xFFFFFFFFu - KA_WAV_HEADER_LENGTH))
      return KAERR_FILE_TOO_LARGE;
    DWORD done = 0;
    const HRESULT hr = KaFile_Write(file_, buffer, DWORD(bytes), &done);
    written_ += done;
    return hr;
  }
  STDMETHOD(Finish)() override {
    if (file_ == KA_INVALID_HFILE) return E_UNEXPECTED;
    const HRESULT hr = wave64_
                           ? KaInsertW64Header(file_, &wfx_, written_, KA_W64_HEADER_LENGTH)
                           : KaInsertWavHeader(file_, &wfx_, DWORD(written_), KA_WAV_HEADER_LENGTH);
    KaFile_Close(file_);
    file_ = KA_INVALID_HFILE;
    return hr;
  }

 private:
  KAHFILE file_ = KA_INVALID_HFILE;
  _kawaveformat wfx_{};
  bool wave64_ = false;
  UINT64 written_ = 0;
};

class ReaderClass final : public Object<IKaReadFileClass> {
 public:
  ReaderClass() : Object(IID_IKaReadFileClass) {}
  STDMETHOD(GetName)(KAWCHAR* buffer, DWORD chars) override {
    copy(buffer, chars, u"Wave, Wave64 and AIFF reader");
    return S_OK;
  }
  STDMETHOD(GetExtensions)(KAWCHAR* buffer, DWORD chars) override {
    copy(buffer, chars, u"wav;w64;bwf;aif;aiff;aifc");
    return S_OK;
  }
  STDMETHOD(GetMerit)(LONG* merit) override {
    *merit = 100;
    return S_OK;
  }
  STDMETHOD(CreateReader)(IKaReadFile** reader) override {
    if (!reader) return E_POINTER;
    *reader = new (std::nothrow) Reader;
    return *reader ? S_OK : E_OUTOFMEMORY;
  }
};

class RendererClass final : public Object<IKaRenderFileClass> {
 public:
  RendererClass() : Object(IID_IKaRenderFileClass) {}
  STDMETHOD(GetName)(KAWCHAR* buffer, DWORD chars) override {
    copy(buffer, chars, u"Wave and Wave64 renderer");
    return S_OK;
  }
  STDMETHOD(GetExtensions)(KAWCHAR* buffer, DWORD chars) override {
    copy(buffer, chars, u"wav;w64");
    return S_OK;
  }
  STDMETHOD(CreateRenderer)(IKaRenderFile** renderer) override {
    if (!renderer) return E_POINTER;
    *renderer = new (std::nothrow) Renderer;
    return *renderer ? S_OK : E_OUTOFMEMORY;
  }
};

class Factory final : public Object<IKaFioPluginFactory> {
 public:
  Factory() : Object(IID_IKaFioPluginFactory) {}
  STDMETHOD(GetInfo)(KAFIOPLUGININFO* info) override {
    if (!info || info->size < sizeof(KAFIOPLUGININFO)) return E_INVALIDARG;
    info->reader = CLSID_KaFioKernelFormatsReader;
    info->renderer = CLSID_KaFioKernelFormatsRenderer;
    info->merit = 100;
    info->streamTypeCount = 1;
    copy(info->streamTypes[0].name, 32, u"audio");
    info->streamTypes[0].access = 3;
    info->streamTypes[0].streamType = KAFIO_STREAM_AUDIO;
    return S_OK;
  }
  STDMETHOD(GetClassObject)(REFCLSID clsid, REFIID riid, void** object) override {
    if (!object) return E_POINTER;
    *object = nullptr;
    IUnknown* made = nullptr;
    if (clsid == CLSID_KaFioKernelFormatsReader)
      made = new (std::nothrow) ReaderClass;
    else if (clsid == CLSID_KaFioKernelFormatsRenderer)
      made = new (std::nothrow) RendererClass;
    else
      return REGDB_E_CLASSNOTREG;
    if (!made) return E_OUTOFMEMORY;
    const HRESULT hr = made->QueryInterface(riid, object);
    made->Release();
    return hr;
  }
};

}  // namespace

extern "C" __attribute__((visibility("default"))) HRESULT KaFioPlugin_GetFactory(
    DWORD apiVersion, IKaFioPluginFactory** factory) noexcept {
  if (!factory) return E_POINTER;
  *factory = nullptr;
  if (apiVersion != KAFIO_PLUGIN_API_VERSION) return E_INVALIDARG;
  *factory = new (std::nothrow) Factory;
  return *factory ? S_OK : E_OUTOFMEMORY;
}
