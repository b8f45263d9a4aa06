// The Blanket family: the wrappers through which every object that comes from a
// file-format plug-in is used from any thread. The inner object is registered in the
// global interface table once; each calling thread fetches its own proxy once, kept in a
// per-wrapper list that moves the entry found to the front, and the thread that called
// last takes its pointer without a search. The creating thread uses the inner object
// itself. The lock guards only the lookup, never the forwarded call.
#include <atomic>
#include <mutex>
#include <new>

#include "ostra/kacom.h"
#include "ostra/kaerror.h"
#include "ostra/kafileio.h"
#include "ostra/kathread.h"

namespace ostra::fileio {
namespace {

constexpr HRESULT kDuplicateEntry = KA_FAIL_CODE(0x0A9);
constexpr HRESULT kEmptyRegistration = KAERR_NOT_FOUND;

struct ThreadEntry {
  DWORD thread;
  IUnknown* pointer;
  ThreadEntry* next;
};

// The state every wrapper shares, in the order of the family's record: reference count,
// owner, flags, registration, thread list, lock, last thread and pointer, context.
class Core {
 public:
  Core(IUnknown* inner, REFIID iid, IUnknown* owner, UINT64 context, DWORD flags)
      : owner_(owner), flags_(flags), iid_(iid), context_(context) {
    if (owner_) owner_->AddRef();
    creator_ = lastThread_ = KaGetCurrentThreadId();
    if (inner && SUCCEEDED(KaGIT_RegisterInterface(inner, iid, &cookie_))) {
      registered_ = true;
      inner->QueryInterface(iid, reinterpret_cast<void**>(&creatorPointer_));
      lastPointer_ = creatorPointer_;
    }
  }
  ~Core() {
    for (ThreadEntry* e = list_; e;) {
      ThreadEntry* next = e->next;
      e->pointer->Release();
      delete e;
      e = next;
    }
    if (creatorPointer_) creatorPointer_->Release();
    if (registered_) KaGIT_RevokeInterface(cookie_);
    if (owner_) owner_->Release();
  }

  // The interface to use on the calling thread (no reference added), or null with *hr.
  IUnknown* current(HRESULT* hr) {
    *hr = S_OK;
    if (!registered_) {
      *hr = E_INVALIDARG;
      return nullptr;
    }
    const DWORD self = KaGetCurrentThreadId();
    std::lock_guard<std::mutex> lock(lock_);
    if (self == lastThread_) return lastPointer_;
    IUnknown* found = self == creator_ ? creatorPointer_ : nullptr;
    if (!found) {
      ThreadEntry** link = &list_;
      for (ThreadEntry* e = list_; e; link = &e->next, e = e->next) {
        if (e->thread != self) continue;
        *link = e->next;  // to the front
        e->next = list_;
        list_ = e;
        found = e->pointer;
        break;
      }
    }
    if (!found) {
      for (ThreadEntry* e = list_; e; e = e->next)
        if (e->thread == self) {
          *hr = kDuplicateEntry;
          return nullptr;
        }
      void* p = nullptr;
      if (FAILED(*hr = KaGIT_GetInterface(cookie_, iid_, &p))) return nullptr;
      if (!p) {
        *hr = kEmptyRegistration;
        return nullptr;
      }
      auto* e = new (std::nothrow) ThreadEntry{self, static_cast<IUnknown*>(p), list_};
      if (!e) {
        static_cast<IUnknown*>(p)->Release();
        *hr = E_OUTOFMEMORY;
        return nullptr;
      }
      list_ = e;
      ++proxies_;
      found = e->pointer;
    }
    lastThread_ = self;
    lastPointer_ = found;
    return found;
  }

  DWORD proxyCount() {
    std::lock_guard<std::mutex> lock(lock_);
    return proxies_;
  }
  DWORD flags() const { return flags_; }
  UINT64 context() const { return context_; }
  const IID& iid() const { return iid_; }

 private:
  IUnknown* owner_;
  DWORD flags_;
  bool registered_ = false;
  DWORD cookie_ = 0;
  ThreadEntry* list_ = nullptr;
  DWORD proxies_ = 0;
  std::mutex lock_;
  DWORD lastThread_;
  IUnknown* lastPointer_ = nullptr;
  DWORD creator_;
  IUnknown* creatorPointer_ = nullptr;
  IID iid_;
  UINT64 context_;
};

HRESULT wrap(IUnknown* inner, REFIID riid, IUnknown* owner, UINT64 context, DWORD flags,
             void** out) noexcept;

// What every wrapper class shares: IUnknown, IKaOutOfProcObj, and QueryInterface wrapping
// whatever the inner object hands out.
template <class I>
class Blanket : public I, public IKaOutOfProcObj {
 public:
  Blanket(IUnknown* inner, REFIID iid, IUnknown* owner, UINT64 context, DWORD flags)
      : core_(inner, iid, owner, context, flags) {}
  virtual ~Blanket() = default;

  STDMETHOD(QueryInterface)(REFIID riid, void** ppv) override {
    if (!ppv) return E_POINTER;
    *ppv = nullptr;
    if (riid == IID_IUnknown || riid == core_.iid() || isBase(riid)) {
      *ppv = static_cast<I*>(this);
    } else if (riid == IID_IKaOutOfProcObj) {
      *ppv = static_cast<IKaOutOfProcObj*>(this);
    } else {
      HRESULT hr;
      IUnknown* p = core_.current(&hr);
      if (!p) return hr;
      void* raw = nullptr;
      if (FAILED(hr = p->QueryInterface(riid, &raw))) return hr;
      if (!raw) return E_OUTOFMEMORY;
      auto* got = static_cast<IUnknown*>(raw);
      hr = wrap(got, riid, static_cast<I*>(this), core_.context(), core_.flags(), ppv);
      got->Release();
      return hr;
    }
    AddRef();
    return S_OK;
  }
  STDMETHOD_(ULONG, AddRef)() override { return ++refs_; }
  STDMETHOD_(ULONG, Release)() override {
    const ULONG n = --refs_;
    if (n == 0) delete this;
    return n;
  }

  STDMETHOD(IsOutOfProcess)(BOOL* outOfProcess, LONG* surrogate) override {
    if (!outOfProcess || !surrogate) return E_POINTER;
    *outOfProcess = FALSE;
    *surrogate = -1;
    // A proxy of a surrogate's object knows where the object lives.
    HRESULT hr = S_OK;
    IUnknown* in = core_.current(&hr);
    IKaOutOfProcObj* where = nullptr;
    if (in &&
        SUCCEEDED(in->QueryInterface(IID_IKaOutOfProcObj, reinterpret_cast<void**>(&where))) &&
        where) {
      where->IsOutOfProcess(outOfProcess, surrogate);
      where->Release();
    }
    return S_OK;
  }
  STDMETHOD(GetContext)(UINT64* context) override {
    if (!context) return E_POINTER;
    *context = core_.context();
    return S_OK;
  }
  STDMETHOD(GetProxyCount)(DWORD* count) override {
    if (!count) return E_POINTER;
    *count = core_.proxyCount();
    return S_OK;
  }

 protected:
  // The inner interface for this thread; null and the code in *hr on failure.
  I* inner(HRESULT* hr) { return static_cast<I*>(core_.current(hr)); }
  // Wraps an interface a forwarded call handed out, in place.
  HRESULT rewrap(HRESULT hr, REFIID riid, void** out) {
    if (FAILED(hr) || !out || !*out) return hr;
    auto* raw = static_cast<IUnknown*>(*out);
    *out = nullptr;
    const HRESULT w = wrap(raw, riid, static_cast<I*>(this), core_.context(), core_.flags(), out);
    raw->Release();
    return FAILED(w) ? w : hr;
  }
  virtual bool isBase(REFIID) const { return false; }

 private:
  Core core_;
  std::atomic<ULONG> refs_{1};
};

#define OSTRA_FORWARD(method, params, args) \
  STDMETHOD(method) params override {       \
    HRESULT hr;                             \
    auto* p = this->inner(&hr);             \
    return p ? p->method args : hr;         \
  }

// The stream wrappers share the stream methods.
template <class I>
class StreamBlanket : public Blanket<I> {
 public:
  using Blanket<I>::Blanket;
  OSTRA_FORWARD(GetStreamType, (DWORD * type), (type))
  OSTRA_FORWARD(GetDuration, (INT64 * duration, INT64* start), (duration, start))

 protected:
  bool isBase(REFIID riid) const override { return riid == IID_IKaReadStream; }
};

class CKaReadStreamBlanket final : public StreamBlanket<IKaReadStream> {
 public:
  using StreamBlanket::StreamBlanket;
};

class CKaReadAudioStreamBlanket final : public StreamBlanket<IKaReadAudioStream> {
 public:
  using StreamBlanket::StreamBlanket;
  OSTRA_FORWARD(GetFormat, (_kawaveformat * format, DWORD size), (format, size))
  OSTRA_FORWARD(GetFrameCount, (UINT64 * frames), (frames))
  OSTRA_FORWARD(Read, (UINT64 position, void* buffer, DWORD frames, DWORD* read),
                (position, buffer, frames, read))
};

class CKaReadVideoStreamBlanket final : public StreamBlanket<IKaReadVideoStream> {
 public:
  using StreamBlanket::StreamBlanket;
  OSTRA_FORWARD(GetFrameFormat, (BITMAPINFOHEADER * header, DWORD* num, DWORD* den),
                (header, num, den))
  OSTRA_FORWARD(GetFrameCount, (UINT64 * frames), (frames))
  OSTRA_FORWARD(ReadFrame,
                (UINT64 frame, const BITMAPINFOHEADER* header, void* buffer, size_t bytes,
                 INT64* time),
                (frame, header, buffer, bytes, time))
};

class CKaReadTextStreamBlanket final : public StreamBlanket<IKaReadTextStream> {
 public:
  using StreamBlanket::StreamBlanket;
  OSTRA_FORWARD(ReadText, (INT64 time, KAWCHAR* buffer, DWORD chars, INT64* start, INT64* end),
                (time, buffer, chars, start, end))
};

class CKaReadMetaBlanket final : public Blanket<IKaReadMeta> {
 public:
  using Blanket::Blanket;
  OSTRA_FORWARD(GetValue, (const KAWCHAR* key, KAWCHAR* buffer, DWORD chars), (key, buffer, chars))
};

class CKaReadProjectLinkMetaBlanket final : public Blanket<IKaReadProjectLinkMeta> {
 public:
  using Blanket::Blanket;
  OSTRA_FORWARD(GetProjectPath, (KAWCHAR * buffer, DWORD chars), (buffer, chars))
};

class CKaReadFileBlanket final : public Blanket<IKaReadFile> {
 public:
  using Blanket::Blanket;
  OSTRA_FORWARD(Open, (const KAWCHAR* path, DWORD flags), (path, flags))
  OSTRA_FORWARD(Close, (), ())
  OSTRA_FORWARD(GetStreamCount, (DWORD * count), (count))
  STDMETHOD(GetStream)(DWORD index, REFIID riid, void** stream) override {
    HRESULT hr;
    auto* p = inner(&hr);
    return p ? rewrap(p->GetStream(index, riid, stream), riid, stream) : hr;
  }
  STDMETHOD(GetMeta)(REFIID riid, void** meta) override {
    HRESULT hr;
    auto* p = inner(&hr);
    return p ? rewrap(p->GetMeta(riid, meta), riid, meta) : hr;
  }
};

class CKaReadFileClassBlanket final : public Blanket<IKaReadFileClass> {
 public:
  using Blanket::Blanket;
  OSTRA_FORWARD(GetName, (KAWCHAR * buffer, DWORD chars), (buffer, chars))
  OSTRA_FORWARD(GetExtensions, (KAWCHAR * buffer, DWORD chars), (buffer, chars))
  OSTRA_FORWARD(GetMerit, (LONG * merit), (merit))
  STDMETHOD(CreateReader)(IKaReadFile** reader) override {
    HRESULT hr;
    auto* p = inner(&hr);
    return p ? rewrap(p->CreateReader(reader), IID_IKaReadFile, reinterpret_cast<void**>(reader))
             : hr;
  }
};

class CKaRenderFileBlanket final : public Blanket<IKaRenderFile> {
 public:
  using Blanket::Blanket;
  OSTRA_FORWARD(Create, (const KAWCHAR* path, const _kawaveformat* audio, DWORD flags),
                (path, audio, flags))
  OSTRA_FORWARD(WriteAudio, (const void* buffer, DWORD frames), (buffer, frames))
  OSTRA_FORWARD(Finish, (), ())
};

class CKaRenderFileClassBlanket final : public Blanket<IKaRenderFileClass> {
 public:
  using Blanket::Blanket;
  OSTRA_FORWARD(GetName, (KAWCHAR * buffer, DWORD chars), (buffer, chars))
  OSTRA_FORWARD(GetExtensions, (KAWCHAR * buffer, DWORD chars), (buffer, chars))
  STDMETHOD(CreateRenderer)(IKaRenderFile** renderer) override {
    HRESULT hr;
    auto* p = inner(&hr);
    return p ? rewrap(p->CreateRenderer(renderer), IID_IKaRenderFile,
                      reinterpret_cast<void**>(renderer))
             : hr;
  }
};

#undef OSTRA_FORWARD

template <class W, class I>
HRESULT make(IUnknown* inner, REFIID riid, IUnknown* owner, UINT64 context, DWORD flags,
             void** out) {
  auto* w = new (std::nothrow) W(inner, riid, owner, context, flags);
  if (!w) return E_OUTOFMEMORY;
  *out = static_cast<I*>(w);
  return S_OK;
}

// The wrapper class of each plug-in interface.
HRESULT wrap(IUnknown* inner, REFIID riid, IUnknown* owner, UINT64 context, DWORD flags,
             void** out) noexcept {
  if (riid == IID_IKaReadFile)
    return make<CKaReadFileBlanket, IKaReadFile>(inner, riid, owner, context, flags, out);
  if (riid == IID_IKaReadFileClass)
    return make<CKaReadFileClassBlanket, IKaReadFileClass>(inner, riid, owner, context, flags, out);
  if (riid == IID_IKaReadStream)
    return make<CKaReadStreamBlanket, IKaReadStream>(inner, riid, owner, context, flags, out);
  if (riid == IID_IKaReadAudioStream)
    return make<CKaReadAudioStreamBlanket, IKaReadAudioStream>(inner, riid, owner, context, flags,
                                                               out);
  if (riid == IID_IKaReadVideoStream)
    return make<CKaReadVideoStreamBlanket, IKaReadVideoStream>(inner, riid, owner, context, flags,
                                                               out);
  if (riid == IID_IKaReadTextStream)
    return make<CKaReadTextStreamBlanket, IKaReadTextStream>(inner, riid, owner, context, flags,
                                                             out);
  if (riid == IID_IKaReadMeta)
    return make<CKaReadMetaBlanket, IKaReadMeta>(inner, riid, owner, context, flags, out);
  if (riid == IID_IKaReadProjectLinkMeta)
    return make<CKaReadProjectLinkMetaBlanket, IKaReadProjectLinkMeta>(inner, riid, owner, context,
                                                                       flags, out);
  if (riid == IID_IKaRenderFile)
    return make<CKaRenderFileBlanket, IKaRenderFile>(inner, riid, owner, context, flags, out);
  if (riid == IID_IKaRenderFileClass)
    return make<CKaRenderFileClassBlanket, IKaRenderFileClass>(inner, riid, owner, context, flags,
                                                               out);
  return E_NOINTERFACE;
}

}  // namespace
}  // namespace ostra::fileio

HRESULT KaFio_WrapObject(IUnknown* inner, REFIID riid, IUnknown* owner, UINT64 context, DWORD flags,
                         void** wrapper) noexcept {
  if (!wrapper) return E_POINTER;
  *wrapper = nullptr;
  if (!inner) return E_INVALIDARG;
  // The inner object must really be what the wrapper will claim.
  void* probe = nullptr;
  HRESULT hr = inner->QueryInterface(riid, &probe);
  if (FAILED(hr)) return hr;
  if (!probe) return E_OUTOFMEMORY;
  static_cast<IUnknown*>(probe)->Release();
  try {
    return ostra::fileio::wrap(inner, riid, owner, context, flags, wrapper);
  } catch (...) {
    return E_OUTOFMEMORY;
  }
}
