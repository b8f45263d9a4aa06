// The host's side of the surrogate: the process (started suspended, watched, resumed), the
// channel and shared memory to it, calls with a per-call time-out, and the proxies that
// stand for the surrogate's objects. A call that loses the process (a crash, an abort, a
// hang ended by the time-out) fails with a code saying which, tells the manager so that
// the plug-in goes on the block list, and leaves the host ready to start a new process
// on the next call; objects of the lost process answer KAERR_FIO_SURROGATE_GONE.
#include "fileio/internal/surrogate.h"

#include <atomic>
#include <cstring>
#include <new>

#include "ostra/kaerror.h"
#include "ostra/kamodule.h"
#include "ostra/kaplatform.h"
#include "ostra/kathread.h"

namespace ostra::fileio {

using namespace surrogate;

namespace {

constexpr DWORD kConnectTimeoutMs = 20000;
constexpr UINT64 kInitialShared = 4u << 20;

const char* reasonText(HRESULT hr) {
  switch (hr) {
    case KAERR_FIO_PLUGIN_CRASHED:
      return "crashed";
    case KAERR_FIO_PLUGIN_ABORTED:
      return "aborted";
    case KAERR_FIO_PLUGIN_HUNG:
      return "hung";
    default:
      return "ended";
  }
}

DWORD callTimeout() {
  const INT v = KaFio_GetMetric(KAFIO_METRIC_SURROGATE_TIMEOUT);
  return v > 0 ? DWORD(v) : 15000;
}

}  // namespace

SurrogateHost::SurrogateHost(LONG index, std::vector<U16> hosted, SurrogateFailure onFailure,
                             const CKaLogger* logger)
    : index_(index),
      hosted_(std::move(hosted)),
      onFailure_(std::move(onFailure)),
      logger_(logger) {}

SurrogateHost::~SurrogateHost() {
  KaIpc_Close(channel_);  // the surrogate sees the channel close and ends
  KaShared_Close(shared_);
  if (process_) {
    if (KaWaitForSingleObject(process_, 5000) != WAIT_OBJECT_0) KaProcess_Terminate(process_, 1);
    KaCloseHandle(process_);
  }
}

HRESULT SurrogateHost::start(HANDLE* process) {
  std::lock_guard lk(lock_);
  if (channel_) {
    if (process) *process = process_;
    return S_FALSE;
  }
  return startLocked(process);
}

HRESULT SurrogateHost::startLocked(HANDLE* process) {
  if (process) *process = nullptr;
  KAWCHAR exe[KAFIO_MAX_PATH];
  if (!KaModule_GetFileName(nullptr, exe, KAFIO_MAX_PATH)) return E_FAIL;
  const U16 program = folderOf(exe) + u"/" + kSurrogateProgram;
  char name[KAIPC_NAME_CHARS];
  KAHIPCLISTEN listener = nullptr;
  HRESULT hr = KaIpc_Listen(name, sizeof name, &listener);
  if (FAILED(hr)) return hr;
  // The command line: the program, the language id, then the channel to connect to.
  const U16 lcid = [] {
    const std::string s = std::to_string(KaGetSystemDefaultLCID());
    return U16(s.begin(), s.end());
  }();
  const U16 channelName(name, name + std::strlen(name));
  const KAWCHAR* args[] = {lcid.c_str(), channelName.c_str(), nullptr};
  HANDLE child = nullptr;
  hr = KaProcess_Create(program.c_str(), args, CREATE_SUSPENDED, &child, nullptr);
  if (SUCCEEDED(hr)) hr = KaProcess_Resume(child);
  KAHIPC channel = nullptr;
  if (SUCCEEDED(hr)) hr = KaIpc_Accept(listener, kConnectTimeoutMs, &channel);
  KaIpc_CloseListener(listener);
  Reply hello{};
  if (SUCCEEDED(hr)) hr = KaIpc_Receive(channel, &hello, sizeof hello, kConnectTimeoutMs);
  if (SUCCEEDED(hr) && hello.hr != kHelloResult) hr = KAERR_FIO_SURROGATE_START;
  if (FAILED(hr)) {
    KAFIO_LOG(*logger_, 1, " Cannot start surrogate %d from '%s': 0x%08X ", int(index_),
              toUtf8(program).c_str(), unsigned(hr));
    KaIpc_Close(channel);
    if (child) {
      KaProcess_Terminate(child, 1);
      KaCloseHandle(child);
    }
    return hr;
  }
  process_ = child;
  channel_ = channel;
  ++generation_;
  KaShared_Close(shared_);
  shared_ = nullptr;
  KAFIO_LOG(*logger_, 1, " Started surrogate %d (process %u) ", int(index_), unsigned(hello.x));
  // The plug-ins it hosts, registered by path.
  for (const U16& path : hosted_) {
    Request rq{kRegister, 0, 0, 0, uint32_t((path.size() + 1) * 2), 0};
    Reply rp{};
    if (FAILED(KaIpc_Send(channel_, &rq, sizeof rq)) ||
        FAILED(KaIpc_Send(channel_, path.c_str(), rq.payload)) ||
        FAILED(KaIpc_Receive(channel_, &rp, sizeof rp, callTimeout())))
      break;
  }
  if (process) *process = process_;
  return S_OK;
}

HRESULT SurrogateHost::ensureShared(size_t bytes) {
  if (shared_ && KaShared_Size(shared_) >= bytes) return S_OK;
  UINT64 size = shared_ ? KaShared_Size(shared_) : kInitialShared;
  while (size < bytes) size *= 2;
  char name[KAIPC_NAME_CHARS];
  KAHSHARED next = nullptr;
  HRESULT hr = KaShared_Create(size, name, sizeof name, &next);
  if (FAILED(hr)) return hr;
  const uint32_t n = uint32_t(std::strlen(name));
  Request rq{kMap, 0, size, 0, n, 0};
  Reply rp{};
  hr = KaIpc_Send(channel_, &rq, sizeof rq);
  if (SUCCEEDED(hr)) hr = KaIpc_Send(channel_, name, n);
  if (SUCCEEDED(hr)) hr = KaIpc_Receive(channel_, &rp, sizeof rp, callTimeout());
  if (SUCCEEDED(hr)) hr = rp.hr;
  if (FAILED(hr)) {
    KaShared_Close(next);
    return hr;
  }
  KaShared_Close(shared_);
  shared_ = next;
  return S_OK;
}

void SurrogateHost::failLocked(const KAFIOPLUGINENTRY& plugin, const char* call, HRESULT why) {
  ++generation_;  // every object of the lost process is stale from here on
  KaIpc_Close(channel_);
  channel_ = nullptr;
  KaShared_Close(shared_);
  shared_ = nullptr;
  if (process_) {
    if (why == KAERR_FIO_PLUGIN_HUNG) KaProcess_Terminate(process_, 128 + 9);
    KaWaitForSingleObject(process_, 5000);
    KaCloseHandle(process_);
    process_ = nullptr;
  }
  KAFIO_LOG(*logger_, 1, " Surrogate %d lost: plugin '%s' %s in %s ", int(index_),
            toUtf8(plugin.name).c_str(), reasonText(why), call);
  if (onFailure_) onFailure_(plugin, call, reasonText(why));
}

HRESULT SurrogateHost::call(const KAFIOPLUGINENTRY& plugin, unsigned generation, const char* name,
                            Request rq, const void* payload, Reply* reply, std::vector<BYTE>* out,
                            const void* bulkIn, size_t bulkInBytes, void* bulkOut,
                            size_t bulkOutBytes) {
  std::lock_guard lk(lock_);
  if (generation && (generation != generation_ || !channel_)) return KAERR_FIO_SURROGATE_GONE;
  if (!channel_) {
    const HRESULT hr = startLocked(nullptr);
    if (FAILED(hr)) return hr;
  }
  const size_t bulk = bulkInBytes > bulkOutBytes ? bulkInBytes : bulkOutBytes;
  if (bulk) {
    const HRESULT hr = ensureShared(bulk);
    if (FAILED(hr)) {
      failLocked(plugin, name, KAERR_FIO_SURROGATE_GONE);
      return hr;
    }
    if (bulkInBytes) std::memcpy(KaShared_Pointer(shared_), bulkIn, bulkInBytes);
  }
  HRESULT hr = KaIpc_Send(channel_, &rq, sizeof rq);
  if (SUCCEEDED(hr) && rq.payload) hr = KaIpc_Send(channel_, payload, rq.payload);
  Reply rp{};
  if (SUCCEEDED(hr)) hr = KaIpc_Receive(channel_, &rp, sizeof rp, callTimeout());
  std::vector<BYTE> local;
  std::vector<BYTE>& text = out ? *out : local;
  if (SUCCEEDED(hr) && rp.payload > kMaxPayload) hr = KAERR_CLOSED;
  if (SUCCEEDED(hr)) {
    text.resize(rp.payload);
    if (rp.payload) hr = KaIpc_Receive(channel_, text.data(), rp.payload, callTimeout());
  }
  if (FAILED(hr)) {
    // The process went, or hangs: what its end says is what the caller hears.
    HRESULT why = KAERR_FIO_SURROGATE_GONE;
    if (hr == KAERR_TIMEOUT) {
      why = KAERR_FIO_PLUGIN_HUNG;
    } else if (process_) {
      KaWaitForSingleObject(process_, 5000);
      DWORD code = 0;
      KaProcess_GetExitCode(process_, &code);
      // SIGABRT is an abort; any other failing end in the middle of a call is a crash (a
      // fatal signal, or a sanitizer's report of one, which exits with its own status).
      why = code == 128 + 6                     ? KAERR_FIO_PLUGIN_ABORTED
            : code != 0 && code != STILL_ACTIVE ? KAERR_FIO_PLUGIN_CRASHED
                                                : KAERR_FIO_SURROGATE_GONE;
    }
    failLocked(plugin, name, why);
    return why;
  }
  if (bulkOut && bulkOutBytes) std::memcpy(bulkOut, KaShared_Pointer(shared_), bulkOutBytes);
  if (reply) *reply = rp;
  return rp.hr;
}

// ---------------------------------------------------------------- proxies
namespace {

std::vector<BYTE> utf16Payload(const KAWCHAR* s) {
  std::vector<BYTE> b;
  for (; s && *s; ++s) b.push_back(BYTE(*s)), b.push_back(BYTE(*s >> 8));
  b.push_back(0), b.push_back(0);
  return b;
}

void copyOut(const std::vector<BYTE>& text, KAWCHAR* buffer, DWORD chars) {
  if (!buffer || !chars) return;
  DWORD i = 0;
  for (; i + 1 < chars && 2 * i + 1 < text.size(); ++i) {
    buffer[i] = KAWCHAR(text[2 * i] | text[2 * i + 1] << 8);
    if (!buffer[i]) break;
  }
  buffer[std::min(i, chars - 1)] = 0;
}

// What every proxy holds: the host, the plug-in, the generation and the remote id.
struct Remote {
  SurrogateHost* host;
  KAFIOPLUGINENTRY plugin;
  unsigned generation;
  uint32_t id;

  HRESULT call(const char* name, uint32_t op, uint64_t a = 0, uint64_t b = 0,
               const std::vector<BYTE>& payload = {}, Reply* reply = nullptr,
               std::vector<BYTE>* out = nullptr) const {
    Request rq{op, id, a, b, uint32_t(payload.size()), 0};
    return host->call(plugin, generation, name, rq, payload.data(), reply, out);
  }
  void release() const {
    Request rq{kRelease, id, 0, 0, 0, 0};
    host->call(plugin, generation, "Release", rq, nullptr, nullptr, nullptr);
  }
};

template <class I>
class Proxy : public I, public IKaOutOfProcObj {
 public:
  Proxy(const Remote& r, const IID& iid) : r_(r), iid_(iid) {}
  virtual ~Proxy() { r_.release(); }
  STDMETHOD(QueryInterface)(REFIID riid, void** ppv) override {
    if (!ppv) return E_POINTER;
    *ppv = nullptr;
    if (riid == IID_IUnknown || riid == iid_ || also(riid))
      *ppv = static_cast<I*>(this);
    else if (riid == IID_IKaOutOfProcObj)
      *ppv = static_cast<IKaOutOfProcObj*>(this);
    else
      return E_NOINTERFACE;
    AddRef();
    return S_OK;
  }
  STDMETHOD_(ULONG, AddRef)() override { return ++refs_; }
  STDMETHOD_(ULONG, Release)() override {
    const ULONG n = --refs_;
    if (!n) delete this;
    return n;
  }
  STDMETHOD(IsOutOfProcess)(BOOL* out, LONG* surrogate) override {
    if (!out || !surrogate) return E_POINTER;
    *out = TRUE;
    *surrogate = r_.host->index();
    return S_OK;
  }
  STDMETHOD(GetContext)(UINT64* context) override {
    if (!context) return E_POINTER;
    *context = r_.id;
    return S_OK;
  }
  STDMETHOD(GetProxyCount)(DWORD* count) override {
    if (!count) return E_POINTER;
    *count = 0;
    return S_OK;
  }

 protected:
  virtual bool also(REFIID) const { return false; }
  Remote child(uint64_t id) const {
    return Remote{r_.host, r_.plugin, r_.generation, uint32_t(id)};
  }
  Remote r_;

 private:
  const IID& iid_;
  std::atomic<ULONG> refs_{1};
};

template <class P, class... Args>
HRESULT hand(REFIID riid, void** out, Args&&... args) {
  P* p = new (std::nothrow) P(std::forward<Args>(args)...);
  if (!p) return E_OUTOFMEMORY;
  const HRESULT hr = p->QueryInterface(riid, out);
  p->Release();
  return hr;
}

class MetaProxy final : public Proxy<IKaReadMeta> {
 public:
  explicit MetaProxy(const Remote& r) : Proxy(r, IID_IKaReadMeta) {}
  STDMETHOD(GetValue)(const KAWCHAR* key, KAWCHAR* buffer, DWORD chars) override {
    if (!key || !buffer) return E_POINTER;
    std::vector<BYTE> out;
    const HRESULT hr = r_.call("GetValue", kMetaValue, chars, 0, utf16Payload(key), nullptr, &out);
    copyOut(out, buffer, chars);
    return hr;
  }
};

class LinkProxy final : public Proxy<IKaReadProjectLinkMeta> {
 public:
  explicit LinkProxy(const Remote& r) : Proxy(r, IID_IKaReadProjectLinkMeta) {}
  STDMETHOD(GetProjectPath)(KAWCHAR* buffer, DWORD chars) override {
    if (!buffer) return E_POINTER;
    std::vector<BYTE> out;
    const HRESULT hr = r_.call("GetProjectPath", kProjectPath, chars, 0, {}, nullptr, &out);
    copyOut(out, buffer, chars);
    return hr;
  }
};

template <class I>
class StreamProxy : public Proxy<I> {
 public:
  StreamProxy(const Remote& r, const IID& iid, DWORD type) : Proxy<I>(r, iid), type_(type) {}
  STDMETHOD(GetStreamType)(DWORD* type) override {
    if (!type) return E_POINTER;
    *type = type_;
    return S_OK;
  }
  STDMETHOD(GetDuration)(INT64* duration, INT64* start) override {
    if (!duration) return E_POINTER;
    Reply rp{};
    const HRESULT hr = this->r_.call("GetDuration", kDuration, 0, 0, {}, &rp);
    *duration = INT64(rp.x);
    if (start) *start = INT64(rp.y);
    return hr;
  }

 protected:
  bool also(REFIID riid) const override { return riid == IID_IKaReadStream; }

 private:
  DWORD type_;
};

class AudioProxy final : public StreamProxy<IKaReadAudioStream> {
 public:
  explicit AudioProxy(const Remote& r)
      : StreamProxy(r, IID_IKaReadAudioStream, KAFIO_STREAM_AUDIO) {}
  STDMETHOD(GetFormat)(_kawaveformat* format, DWORD size) override {
    if (!format) return E_POINTER;
    std::vector<BYTE> out;
    const HRESULT hr = r_.call("GetFormat", kAudioFormat, size, 0, {}, nullptr, &out);
    if (SUCCEEDED(hr)) {
      std::memcpy(format, out.data(), std::min<size_t>(out.size(), size));
      block_ = format->nBlockAlign;
    }
    return hr;
  }
  STDMETHOD(GetFrameCount)(UINT64* frames) override {
    if (!frames) return E_POINTER;
    Reply rp{};
    const HRESULT hr = r_.call("GetFrameCount", kFrameCount, 0, 0, {}, &rp);
    *frames = rp.x;
    return hr;
  }
  STDMETHOD(Read)(UINT64 position, void* buffer, DWORD frames, DWORD* read) override {
    if (!buffer || !read) return E_POINTER;
    *read = 0;
    if (!block_) {
      alignas(8) unsigned char fmt[KAWAVEFORMAT_BUFFER_SIZE];
      const HRESULT hr = GetFormat(reinterpret_cast<_kawaveformat*>(fmt), sizeof fmt);
      if (FAILED(hr)) return hr;
      if (!block_) return E_UNEXPECTED;
    }
    // The frames come back in shared memory; only the count travels on the channel.
    Request rq{kAudioRead, r_.id, position, frames, 0, 0};
    Reply rp{};
    const size_t bytes = size_t(frames) * block_;
    const HRESULT hr = r_.host->call(r_.plugin, r_.generation, "Read", rq, nullptr, &rp, nullptr,
                                     nullptr, 0, buffer, bytes);
    *read = DWORD(std::min<uint64_t>(rp.x, frames));
    return hr;
  }

 private:
  std::atomic<WORD> block_{0};
};

class VideoProxy final : public StreamProxy<IKaReadVideoStream> {
 public:
  explicit VideoProxy(const Remote& r)
      : StreamProxy(r, IID_IKaReadVideoStream, KAFIO_STREAM_VIDEO) {}
  STDMETHOD(GetFrameFormat)(BITMAPINFOHEADER* header, DWORD* num, DWORD* den) override {
    if (!header) return E_POINTER;
    std::vector<BYTE> out;
    Reply rp{};
    const HRESULT hr = r_.call("GetFrameFormat", kFrameFormat, 0, 0, {}, &rp, &out);
    if (out.size() >= sizeof *header) std::memcpy(header, out.data(), sizeof *header);
    if (num) *num = DWORD(rp.x);
    if (den) *den = DWORD(rp.y);
    return hr;
  }
  STDMETHOD(GetFrameCount)(UINT64* frames) override {
    if (!frames) return E_POINTER;
    Reply rp{};
    const HRESULT hr = r_.call("GetFrameCount", kFrameCount, 0, 0, {}, &rp);
    *frames = rp.x;
    return hr;
  }
  STDMETHOD(ReadFrame)
  (UINT64 frame, const BITMAPINFOHEADER* header, void* buffer, size_t bytes, INT64* time) override {
    if (!header || !buffer) return E_POINTER;
    std::vector<BYTE> h(reinterpret_cast<const BYTE*>(header),
                        reinterpret_cast<const BYTE*>(header) + sizeof *header);
    Request rq{kReadFrame, r_.id, frame, bytes, uint32_t(h.size()), 0};
    Reply rp{};
    const HRESULT hr = r_.host->call(r_.plugin, r_.generation, "ReadFrame", rq, h.data(), &rp,
                                     nullptr, nullptr, 0, buffer, bytes);
    if (time) *time = INT64(rp.x);
    return hr;
  }
};

class TextProxy final : public StreamProxy<IKaReadTextStream> {
 public:
  explicit TextProxy(const Remote& r) : StreamProxy(r, IID_IKaReadTextStream, KAFIO_STREAM_TEXT) {}
  STDMETHOD(ReadText)(INT64 time, KAWCHAR* buffer, DWORD chars, INT64* start, INT64* end) override {
    if (!buffer) return E_POINTER;
    std::vector<BYTE> out;
    Reply rp{};
    const HRESULT hr = r_.call("ReadText", kReadText, uint64_t(time), chars, {}, &rp, &out);
    copyOut(out, buffer, chars);
    if (start) *start = INT64(rp.x);
    if (end) *end = INT64(rp.y);
    return hr;
  }
};

class ReaderProxy final : public Proxy<IKaReadFile> {
 public:
  explicit ReaderProxy(const Remote& r) : Proxy(r, IID_IKaReadFile) {}
  STDMETHOD(Open)(const KAWCHAR* path, DWORD flags) override {
    if (!path) return E_POINTER;
    return r_.call("Open", kOpen, flags, 0, utf16Payload(path));
  }
  STDMETHOD(Close)() override { return r_.call("Close", kClose); }
  STDMETHOD(GetStreamCount)(DWORD* count) override {
    if (!count) return E_POINTER;
    Reply rp{};
    const HRESULT hr = r_.call("GetStreamCount", kStreamCount, 0, 0, {}, &rp);
    *count = DWORD(rp.x);
    return hr;
  }
  STDMETHOD(GetStream)(DWORD index, REFIID riid, void** stream) override {
    if (!stream) return E_POINTER;
    *stream = nullptr;
    Reply rp{};
    const HRESULT hr = r_.call("GetStream", kGetStream, index, 0, {}, &rp);
    if (FAILED(hr)) return hr;
    const Remote c = child(rp.x);
    if (rp.y == KAFIO_STREAM_AUDIO) return hand<AudioProxy>(riid, stream, c);
    if (rp.y == KAFIO_STREAM_VIDEO) return hand<VideoProxy>(riid, stream, c);
    if (rp.y == KAFIO_STREAM_TEXT) return hand<TextProxy>(riid, stream, c);
    c.release();
    return E_NOINTERFACE;
  }
  STDMETHOD(GetMeta)(REFIID riid, void** meta) override {
    if (!meta) return E_POINTER;
    *meta = nullptr;
    if (riid != IID_IKaReadMeta && riid != IID_IKaReadProjectLinkMeta) return E_NOINTERFACE;
    std::vector<BYTE> iid(reinterpret_cast<const BYTE*>(&riid),
                          reinterpret_cast<const BYTE*>(&riid) + sizeof riid);
    Reply rp{};
    const HRESULT hr = r_.call("GetMeta", kGetMeta, 0, 0, iid, &rp);
    if (FAILED(hr)) return hr;
    if (riid == IID_IKaReadMeta) return hand<MetaProxy>(riid, meta, child(rp.x));
    return hand<LinkProxy>(riid, meta, child(rp.x));
  }
};

class RendererProxy final : public Proxy<IKaRenderFile> {
 public:
  explicit RendererProxy(const Remote& r) : Proxy(r, IID_IKaRenderFile) {}
  STDMETHOD(Create)(const KAWCHAR* path, const _kawaveformat* audio, DWORD flags) override {
    if (!path || !audio) return E_POINTER;
    const DWORD size = std::min<DWORD>(audio->dwSize < KAWAVEFORMAT_EXTRA_OFFSET
                                           ? KAWAVEFORMAT_FIXED_SIZE
                                           : KAWAVEFORMAT_EXTRA_OFFSET + audio->cbExtra,
                                       sizeof(_kawaveformat));
    std::vector<BYTE> payload(reinterpret_cast<const BYTE*>(audio),
                              reinterpret_cast<const BYTE*>(audio) + size);
    const std::vector<BYTE> p = utf16Payload(path);
    payload.insert(payload.end(), p.begin(), p.end());
    block_ = audio->nBlockAlign;
    return r_.call("Create", kRenderCreate, flags, size, payload);
  }
  STDMETHOD(WriteAudio)(const void* buffer, DWORD frames) override {
    if (!buffer && frames) return E_POINTER;
    const size_t bytes = size_t(frames) * block_;
    Request rq{kWriteAudio, r_.id, frames, bytes, 0, 0};
    return r_.host->call(r_.plugin, r_.generation, "WriteAudio", rq, nullptr, nullptr, nullptr,
                         buffer, bytes);
  }
  STDMETHOD(Finish)() override { return r_.call("Finish", kFinish); }

 private:
  WORD block_ = 0;
};

class ReaderClassProxy final : public Proxy<IKaReadFileClass> {
 public:
  explicit ReaderClassProxy(const Remote& r) : Proxy(r, IID_IKaReadFileClass) {}
  STDMETHOD(GetName)(KAWCHAR* buffer, DWORD chars) override {
    return text(kClassName, buffer, chars);
  }
  STDMETHOD(GetExtensions)(KAWCHAR* buffer, DWORD chars) override {
    return text(kClassExtensions, buffer, chars);
  }
  STDMETHOD(GetMerit)(LONG* merit) override {
    if (!merit) return E_POINTER;
    Reply rp{};
    const HRESULT hr = r_.call("GetMerit", kClassMerit, 0, 0, {}, &rp);
    *merit = LONG(int64_t(rp.x));
    return hr;
  }
  STDMETHOD(CreateReader)(IKaReadFile** reader) override {
    if (!reader) return E_POINTER;
    *reader = nullptr;
    Reply rp{};
    const HRESULT hr = r_.call("CreateReader", kCreateReader, 0, 0, {}, &rp);
    if (FAILED(hr)) return hr;
    return hand<ReaderProxy>(IID_IKaReadFile, reinterpret_cast<void**>(reader), child(rp.x));
  }

 private:
  HRESULT text(uint32_t op, KAWCHAR* buffer, DWORD chars) {
    if (!buffer) return E_POINTER;
    std::vector<BYTE> out;
    const HRESULT hr =
        r_.call(op == kClassName ? "GetName" : "GetExtensions", op, chars, 0, {}, nullptr, &out);
    copyOut(out, buffer, chars);
    return hr;
  }
};

class RendererClassProxy final : public Proxy<IKaRenderFileClass> {
 public:
  explicit RendererClassProxy(const Remote& r) : Proxy(r, IID_IKaRenderFileClass) {}
  STDMETHOD(GetName)(KAWCHAR* buffer, DWORD chars) override {
    return text(kClassName, buffer, chars);
  }
  STDMETHOD(GetExtensions)(KAWCHAR* buffer, DWORD chars) override {
    return text(kClassExtensions, buffer, chars);
  }
  STDMETHOD(CreateRenderer)(IKaRenderFile** renderer) override {
    if (!renderer) return E_POINTER;
    *renderer = nullptr;
    Reply rp{};
    const HRESULT hr = r_.call("CreateRenderer", kCreateRenderer, 0, 0, {}, &rp);
    if (FAILED(hr)) return hr;
    return hand<RendererProxy>(IID_IKaRenderFile, reinterpret_cast<void**>(renderer), child(rp.x));
  }

 private:
  HRESULT text(uint32_t op, KAWCHAR* buffer, DWORD chars) {
    if (!buffer) return E_POINTER;
    std::vector<BYTE> out;
    const HRESULT hr =
        r_.call(op == kClassName ? "GetName" : "GetExtensions", op, chars, 0, {}, nullptr, &out);
    copyOut(out, buffer, chars);
    return hr;
  }
};

// The factory proxy loads the plug-in in the surrogate on its first call, and again in a
// new surrogate after the old one was lost.
class FactoryProxy final : public IKaFioPluginFactory {
 public:
  FactoryProxy(SurrogateHost* host, const KAFIOPLUGINENTRY& plugin)
      : host_(host), plugin_(plugin) {}
  STDMETHOD(QueryInterface)(REFIID riid, void** ppv) override {
    if (!ppv) return E_POINTER;
    *ppv = nullptr;
    if (riid != IID_IUnknown && riid != IID_IKaFioPluginFactory) return E_NOINTERFACE;
    *ppv = static_cast<IKaFioPluginFactory*>(this);
    AddRef();
    return S_OK;
  }
  STDMETHOD_(ULONG, AddRef)() override { return ++refs_; }
  STDMETHOD_(ULONG, Release)() override {
    const ULONG n = --refs_;
    if (!n) delete this;
    return n;
  }
  STDMETHOD(GetInfo)(KAFIOPLUGININFO* info) override {
    if (!info || info->size < sizeof(KAFIOPLUGININFO)) return E_INVALIDARG;
    Remote r{};
    HRESULT hr = loaded(&r);
    if (FAILED(hr)) return hr;
    std::vector<BYTE> out;
    hr = r.call("GetInfo", kGetInfo, 0, 0, {}, nullptr, &out);
    if (SUCCEEDED(hr) && out.size() >= sizeof *info) {
      std::memcpy(info, out.data(), sizeof *info);
      info->size = sizeof *info;
    }
    return hr;
  }
  STDMETHOD(GetClassObject)(REFCLSID clsid, REFIID riid, void** object) override {
    if (!object) return E_POINTER;
    *object = nullptr;
    if (riid != IID_IKaReadFileClass && riid != IID_IKaRenderFileClass) return E_NOINTERFACE;
    Remote r{};
    HRESULT hr = loaded(&r);
    if (FAILED(hr)) return hr;
    std::vector<BYTE> ids(32);
    std::memcpy(ids.data(), &clsid, 16);
    std::memcpy(ids.data() + 16, &riid, 16);
    Reply rp{};
    hr = r.call("GetClassObject", kGetClass, 0, 0, ids, &rp);
    if (FAILED(hr)) return hr;
    const Remote c{host_, plugin_, r.generation, uint32_t(rp.x)};
    if (riid == IID_IKaReadFileClass) return hand<ReaderClassProxy>(riid, object, c);
    return hand<RendererClassProxy>(riid, object, c);
  }

 private:
  // The factory in the current surrogate process, loading the plug-in there if needed.
  HRESULT loaded(Remote* r) {
    std::lock_guard lk(lock_);
    if (!id_ || generation_ != host_->generation()) {
      const std::vector<BYTE> path = utf16Payload(plugin_.path);
      Request rq{kLoad, 0, 0, 0, uint32_t(path.size()), 0};
      Reply rp{};
      const HRESULT hr = host_->call(plugin_, 0, "Load", rq, path.data(), &rp, nullptr);
      if (FAILED(hr)) return hr;
      id_ = uint32_t(rp.x);
      generation_ = host_->generation();
    }
    *r = Remote{host_, plugin_, generation_, id_};
    return S_OK;
  }

  SurrogateHost* host_;
  KAFIOPLUGINENTRY plugin_;
  std::mutex lock_;
  uint32_t id_ = 0;
  unsigned generation_ = 0;
  std::atomic<ULONG> refs_{1};
};

}  // namespace

HRESULT makeSurrogateFactory(SurrogateHost* host, const KAFIOPLUGINENTRY& plugin,
                             IKaFioPluginFactory** factory) {
  if (!factory) return E_POINTER;
  *factory = new (std::nothrow) FactoryProxy(host, plugin);
  return *factory ? S_OK : E_OUTOFMEMORY;
}

}  // namespace ostra::fileio
