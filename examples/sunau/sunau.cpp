// sunau: a file-format plug-in for the Ostra Kernel's plug-in manager, the smallest whole
// one: a reader of Sun/NeXT audio files (".snd" header, big-endian samples) with one audio
// stream, handed out little-endian as its _kawaveformat says.
//
// What every plug-in does:
//   - export KaFioPlugin_GetFactory (KAFIO_PLUGIN_ENTRY) and nothing else;
//   - describe itself in IKaFioPluginFactory::GetInfo: its reader class id (its own GUID),
//     its merit, the kinds of stream it reads;
//   - hand out its IKaReadFileClass, whose extension list lets identification try it;
//   - decline a file it does not read with KAERR_FIO_NOT_MINE, so the next plug-in is asked;
//   - treat every number in a file as untrusted.
// The host calls a plug-in's objects from several threads (through its wrappers), so a
// stream's reads lock the file they share.
//
// Build with CMake (find_package(OstraKernel)) or with pkg-config:
//   c++ -shared -fPIC -fvisibility=hidden sunau.cpp $(pkg-config --cflags --libs ostrakernel) \
//     -o sunau.so
#include <ostra/ostra.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <new>

namespace {

// The class id of this reader: every plug-in has its own.
constexpr CLSID kReaderClass = KaGuid("0E8C1B52-7D3A-4F19-A6E2-5B0C9D4E8A11");

DWORD bigEndian32(const BYTE* p) {
  return DWORD(p[0]) << 24 | DWORD(p[1]) << 16 | DWORD(p[2]) << 8 | p[3];
}

void copy(KAWCHAR* out, DWORD chars, const char16_t* text) {
  DWORD i = 0;
  for (; text[i] && i + 1 < chars; ++i) out[i] = text[i];
  if (chars) out[i] = 0;
}

// IUnknown for one interface (and IUnknown), counted atomically.
template <class Interface>
class Object : public Interface {
 public:
  explicit Object(const IID& iid) : iid_(iid) {}
  virtual ~Object() = default;
  STDMETHOD(QueryInterface)(REFIID riid, void** ppv) override {
    if (!ppv) return E_POINTER;
    *ppv = nullptr;
    if (riid != IID_IUnknown && riid != iid_ && !alsoAnswers(riid)) return E_NOINTERFACE;
    *ppv = static_cast<Interface*>(this);
    this->AddRef();
    return S_OK;
  }
  STDMETHOD_(ULONG, AddRef)() override { return ++refs_; }
  STDMETHOD_(ULONG, Release)() override {
    const ULONG left = --refs_;
    if (!left) delete this;
    return left;
  }

 protected:
  virtual bool alsoAnswers(REFIID) const { return false; }

 private:
  const IID& iid_;
  std::atomic<ULONG> refs_{1};
};

// What an open file holds; shared by the reader and its stream.
struct OpenFile {
  std::atomic<ULONG> refs{1};
  std::mutex lock;  // guards the file position
  KAHFILE file = KA_INVALID_HFILE;
  _kawaveformat wfx{};
  UINT64 dataOffset = 0, frames = 0;
  WORD sampleBytes = 0;
  void release() {
    if (--refs) return;
    KaFile_Close(file);
    delete this;
  }
};

class AudioStream final : public Object<IKaReadAudioStream> {
 public:
  explicit AudioStream(OpenFile* f) : Object(IID_IKaReadAudioStream), f_(f) { ++f_->refs; }
  ~AudioStream() override { f_->release(); }
  STDMETHOD(GetStreamType)(DWORD* type) override {
    if (!type) return E_POINTER;
    *type = KAFIO_STREAM_AUDIO;
    return S_OK;
  }
  STDMETHOD(GetDuration)(INT64* duration, INT64* start) override {
    if (!duration) return E_POINTER;
    *duration = INT64(f_->frames * 10000000u / f_->wfx.nSamplesPerSec);
    if (start) *start = 0;
    return S_OK;
  }
  STDMETHOD(GetFormat)(_kawaveformat* format, DWORD size) override {
    if (!format) return E_POINTER;
    if (size < f_->wfx.dwSize) return E_INVALIDARG;
    std::memcpy(format, &f_->wfx, f_->wfx.dwSize);
    return S_OK;
  }
  STDMETHOD(GetFrameCount)(UINT64* frames) override {
    if (!frames) return E_POINTER;
    *frames = f_->frames;
    return S_OK;
  }
  STDMETHOD(Read)(UINT64 position, void* buffer, DWORD frames, DWORD* read) override {
    if (!buffer || !read) return E_POINTER;
    *read = 0;
    if (position >= f_->frames) return S_OK;
    const DWORD block = f_->wfx.nBlockAlign;
    UINT64 n = frames < f_->frames - position ? frames : f_->frames - position;
    if (n > 0x7FFFFFFFu / block) n = 0x7FFFFFFFu / block;
    DWORD got = 0;
    {
      std::lock_guard<std::mutex> lock(f_->lock);
      HRESULT hr =
          KaFile_Seek(f_->file, INT64(f_->dataOffset + position * block), FILE_BEGIN, nullptr);
      if (SUCCEEDED(hr)) hr = KaFile_Read(f_->file, buffer, DWORD(n * block), &got);
      if (FAILED(hr)) return hr;
    }
    auto* p = static_cast<BYTE*>(buffer);
    const WORD w = f_->sampleBytes;
    for (DWORD i = 0; i + w <= got; i += w)
      for (WORD a = 0, b = WORD(w - 1); a < b; ++a, --b) std::swap(p[i + a], p[i + b]);
    *read = got / block;
    return S_OK;
  }

 protected:
  bool alsoAnswers(REFIID riid) const override { return riid == IID_IKaReadStream; }

 private:
  OpenFile* f_;
};

class Reader final : public Object<IKaReadFile> {
 public:
  Reader() : Object(IID_IKaReadFile) {}
  ~Reader() override { Close(); }

  STDMETHOD(Open)(const KAWCHAR* path, DWORD) override {
    if (!path) return E_POINTER;
    Close();
    auto* f = new (std::nothrow) OpenFile;
    if (!f) return E_OUTOFMEMORY;
    HRESULT hr = KaFile_Open(path, GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, 0, &f->file);
    if (SUCCEEDED(hr)) hr = describe(f);
    if (FAILED(hr)) {
      f->release();
      return hr;
    }
    file_ = f;
    return S_OK;
  }
  STDMETHOD(Close)() override {
    if (file_) file_->release();
    file_ = nullptr;
    return S_OK;
  }
  STDMETHOD(GetStreamCount)(DWORD* count) override {
    if (!count) return E_POINTER;
    *count = file_ ? 1 : 0;
    return S_OK;
  }
  STDMETHOD(GetStream)(DWORD index, REFIID riid, void** stream) override {
    if (!stream) return E_POINTER;
    *stream = nullptr;
    if (index != 0 || !file_) return E_INVALIDARG;
    auto* s = new (std::nothrow) AudioStream(file_);
    if (!s) return E_OUTOFMEMORY;
    const HRESULT hr = s->QueryInterface(riid, stream);
    s->Release();
    return hr;
  }
  STDMETHOD(GetMeta)(REFIID, void** meta) override {
    if (meta) *meta = nullptr;
    return E_NOINTERFACE;
  }

 private:
  // The 24-byte header: magic, data offset, data size, encoding, rate, channels.
  static HRESULT describe(OpenFile* f) {
    BYTE h[24];
    DWORD got = 0;
    UINT64 fileSize = 0;
    HRESULT hr = KaFile_Read(f->file, h, sizeof h, &got);
    if (SUCCEEDED(hr)) hr = KaFile_GetSize(f->file, &fileSize);
    if (FAILED(hr)) return hr;
    if (got < sizeof h || std::memcmp(h, ".snd", 4) != 0) return KAERR_FIO_NOT_MINE;
    const DWORD offset = bigEndian32(h + 4), size = bigEndian32(h + 8);
    const DWORD encoding = bigEndian32(h + 12), rate = bigEndian32(h + 16);
    const DWORD channels = bigEndian32(h + 20);
    KASAMPLETYPE type = KASAMPLE_NONE;
    switch (encoding) {
      case 2:
        type = KASAMPLE_PCM8SIGNED;
        break;
      case 3:
        type = KASAMPLE_PCM16;
        break;
      case 4:
        type = KASAMPLE_PCM24;
        break;
      case 5:
        type = KASAMPLE_PCM32;
        break;
      case 6:
        type = KASAMPLE_FLOAT32;
        break;
      case 7:
        type = KASAMPLE_FLOAT64;
        break;
      default:
        return KAERR_FIO_NOT_MINE;  // a compressed encoding: another plug-in's
    }
    if (offset < sizeof h || offset > fileSize || rate == 0 || rate > 1000000 || channels == 0 ||
        channels > 64)
      return KAERR_FIO_NOT_MINE;
    f->wfx.Init(rate, type, WORD(channels), 0, sizeof f->wfx);
    f->sampleBytes = f->wfx.BytesPerSample();
    // The stated size, cut to what the file holds; all ones means "to the end".
    UINT64 bytes = fileSize - offset;
    if (size != 0xFFFFFFFFu && size < bytes) bytes = size;
    f->dataOffset = offset;
    f->frames = bytes / f->wfx.nBlockAlign;
    return S_OK;
  }

  OpenFile* file_ = nullptr;
};

class ReaderClass final : public Object<IKaReadFileClass> {
 public:
  ReaderClass() : Object(IID_IKaReadFileClass) {}
  STDMETHOD(GetName)(KAWCHAR* buffer, DWORD chars) override {
    if (!buffer) return E_POINTER;
    copy(buffer, chars, u"Sun/NeXT audio reader (SDK example)");
    return S_OK;
  }
  STDMETHOD(GetExtensions)(KAWCHAR* buffer, DWORD chars) override {
    if (!buffer) return E_POINTER;
    copy(buffer, chars, u"au;snd");
    return S_OK;
  }
  STDMETHOD(GetMerit)(LONG* merit) override {
    if (!merit) return E_POINTER;
    *merit = 10;
    return S_OK;
  }
  STDMETHOD(CreateReader)(IKaReadFile** reader) override {
    if (!reader) return E_POINTER;
    *reader = new (std::nothrow) Reader;
    return *reader ? S_OK : E_OUTOFMEMORY;
  }
};

class Factory final : public Object<IKaFioPluginFactory> {
 public:
  Factory() : Object(IID_IKaFioPluginFactory) {}
  STDMETHOD(GetInfo)(KAFIOPLUGININFO* info) override {
    if (!info || info->size < sizeof(KAFIOPLUGININFO)) return E_INVALIDARG;
    info->reader = kReaderClass;
    info->merit = 10;
    info->streamTypeCount = 1;
    copy(info->streamTypes[0].name, 32, u"audio");
    info->streamTypes[0].access = 1;  // read
    info->streamTypes[0].streamType = KAFIO_STREAM_AUDIO;
    return S_OK;
  }
  STDMETHOD(GetClassObject)(REFCLSID clsid, REFIID riid, void** object) override {
    if (!object) return E_POINTER;
    *object = nullptr;
    if (clsid != kReaderClass) return REGDB_E_CLASSNOTREG;
    auto* made = new (std::nothrow) ReaderClass;
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
