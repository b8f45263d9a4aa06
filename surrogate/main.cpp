// ostra-surrogate: hosts file-format plug-ins out of the host's process. Started by the
// file I/O manager with the language id and the name of the channel to connect to; it
// answers one call at a time until the host closes the channel. A plug-in that crashes,
// aborts or hangs takes only this process down; the host sees the channel close (or its
// time-out) and starts a new surrogate on the next call.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fileio/internal/surrogate_protocol.h"
#include "ostra/kaerror.h"
#include "ostra/kafileio.h"
#include "ostra/kaipc.h"
#include "ostra/kamodule.h"

using namespace ostra::surrogate;

namespace {

struct Server {
  KAHIPC channel = nullptr;
  KAHSHARED shared = nullptr;
  std::vector<IUnknown*> objects{nullptr};  // id 0 is none
  std::vector<std::u16string> hosted;

  uint32_t keep(IUnknown* o) {
    objects.push_back(o);
    return uint32_t(objects.size() - 1);
  }
  template <class I>
  I* get(uint32_t id, REFIID iid) {
    if (id == 0 || id >= objects.size() || !objects[id]) return nullptr;
    void* p = nullptr;
    if (FAILED(objects[id]->QueryInterface(iid, &p)) || !p) return nullptr;
    return static_cast<I*>(p);
  }
  BYTE* memory(uint64_t bytes) {
    return shared && KaShared_Size(shared) >= bytes ? static_cast<BYTE*>(KaShared_Pointer(shared))
                                                    : nullptr;
  }
};

std::u16string text(const std::vector<BYTE>& payload, size_t from = 0) {
  std::u16string s;
  for (size_t i = from; i + 1 < payload.size(); i += 2) {
    const char16_t c = char16_t(payload[i] | payload[i + 1] << 8);
    if (!c) break;
    s += c;
  }
  return s;
}

void putText(std::vector<BYTE>& out, const KAWCHAR* s, size_t chars) {
  size_t n = 0;
  while (n < chars && s[n]) ++n;
  out.resize((n + 1) * 2);
  std::memcpy(out.data(), s, n * 2);
  out[n * 2] = out[n * 2 + 1] = 0;
}

HRESULT serve(Server& s, const Request& rq, const std::vector<BYTE>& in, Reply& rp,
              std::vector<BYTE>& out) {
  switch (rq.op) {
    case kMap: {
      KAHSHARED next = nullptr;
      const std::string name(in.begin(), in.end());
      const HRESULT hr = KaShared_Open(name.c_str(), rq.a, &next);
      if (FAILED(hr)) return hr;
      KaShared_Close(s.shared);
      s.shared = next;
      return S_OK;
    }
    case kRegister:
      s.hosted.push_back(text(in));
      return S_OK;
    case kLoad: {
      HMODULE m = nullptr;
      HRESULT hr = KaModule_Load(text(in).c_str(), &m);
      if (FAILED(hr)) return hr;
      const auto entry =
          reinterpret_cast<KAFIO_PLUGIN_ENTRY>(KaModule_GetSymbol(m, KAFIO_PLUGIN_ENTRY_NAME));
      if (!entry) return KAERR_NOT_FOUND;
      IKaFioPluginFactory* f = nullptr;
      hr = entry(KAFIO_PLUGIN_API_VERSION, &f);
      if (FAILED(hr) || !f) return FAILED(hr) ? hr : E_POINTER;
      rp.x = s.keep(f);
      return S_OK;
    }
    case kGetInfo: {
      auto* f = s.get<IKaFioPluginFactory>(rq.object, IID_IKaFioPluginFactory);
      if (!f) return E_INVALIDARG;
      KAFIOPLUGININFO info{};
      info.size = sizeof info;
      const HRESULT hr = f->GetInfo(&info);
      f->Release();
      out.assign(reinterpret_cast<BYTE*>(&info), reinterpret_cast<BYTE*>(&info) + sizeof info);
      return hr;
    }
    case kGetClass: {
      auto* f = s.get<IKaFioPluginFactory>(rq.object, IID_IKaFioPluginFactory);
      if (!f || in.size() < 32) return E_INVALIDARG;
      CLSID clsid;
      IID iid;
      std::memcpy(&clsid, in.data(), 16);
      std::memcpy(&iid, in.data() + 16, 16);
      IUnknown* c = nullptr;
      const HRESULT hr = f->GetClassObject(clsid, iid, reinterpret_cast<void**>(&c));
      f->Release();
      if (SUCCEEDED(hr) && c) rp.x = s.keep(c);
      return SUCCEEDED(hr) && !c ? E_POINTER : hr;
    }
    case kClassName:
    case kClassExtensions:
    case kClassMerit:
    case kCreateReader: {
      if (auto* rc = s.get<IKaReadFileClass>(rq.object, IID_IKaReadFileClass)) {
        HRESULT hr;
        std::vector<KAWCHAR> buf(size_t(std::min<uint64_t>(rq.a, 4096)) + 1, 0);
        LONG merit = 0;
        IKaReadFile* r = nullptr;
        if (rq.op == kClassName)
          hr = rc->GetName(buf.data(), DWORD(buf.size() - 1));
        else if (rq.op == kClassExtensions)
          hr = rc->GetExtensions(buf.data(), DWORD(buf.size() - 1));
        else if (rq.op == kClassMerit)
          hr = rc->GetMerit(&merit), rp.x = uint64_t(int64_t(merit));
        else
          hr = rc->CreateReader(&r);
        rc->Release();
        if (rq.op == kClassName || rq.op == kClassExtensions) putText(out, buf.data(), buf.size());
        if (r) rp.x = s.keep(r);
        return hr;
      }
      if (auto* wc = s.get<IKaRenderFileClass>(rq.object, IID_IKaRenderFileClass)) {
        std::vector<KAWCHAR> buf(size_t(std::min<uint64_t>(rq.a, 4096)) + 1, 0);
        HRESULT hr = E_NOTIMPL;
        if (rq.op == kClassName) hr = wc->GetName(buf.data(), DWORD(buf.size() - 1));
        if (rq.op == kClassExtensions) hr = wc->GetExtensions(buf.data(), DWORD(buf.size() - 1));
        wc->Release();
        putText(out, buf.data(), buf.size());
        return hr;
      }
      return E_INVALIDARG;
    }
    case kCreateRenderer: {
      auto* wc = s.get<IKaRenderFileClass>(rq.object, IID_IKaRenderFileClass);
      if (!wc) return E_INVALIDARG;
      IKaRenderFile* r = nullptr;
      const HRESULT hr = wc->CreateRenderer(&r);
      wc->Release();
      if (r) rp.x = s.keep(r);
      return hr;
    }
    case kOpen:
    case kClose:
    case kStreamCount:
    case kGetStream:
    case kGetMeta: {
      auto* r = s.get<IKaReadFile>(rq.object, IID_IKaReadFile);
      if (!r) return E_INVALIDARG;
      HRESULT hr = S_OK;
      if (rq.op == kOpen) {
        hr = r->Open(text(in).c_str(), DWORD(rq.a));
      } else if (rq.op == kClose) {
        hr = r->Close();
      } else if (rq.op == kStreamCount) {
        DWORD n = 0;
        hr = r->GetStreamCount(&n);
        rp.x = n;
      } else if (rq.op == kGetStream) {
        IKaReadStream* st = nullptr;
        hr = r->GetStream(DWORD(rq.a), IID_IKaReadStream, reinterpret_cast<void**>(&st));
        if (SUCCEEDED(hr) && st) {
          DWORD type = 0;
          st->GetStreamType(&type);
          rp.y = type;
          rp.x = s.keep(st);
        }
      } else {
        IID iid{};
        if (in.size() >= 16) std::memcpy(&iid, in.data(), 16);
        IUnknown* m = nullptr;
        hr = r->GetMeta(iid, reinterpret_cast<void**>(&m));
        if (SUCCEEDED(hr) && m) rp.x = s.keep(m);
      }
      r->Release();
      return hr;
    }
    case kDuration:
    case kFrameCount:
    case kAudioFormat:
    case kAudioRead: {
      if (rq.op == kDuration) {
        auto* st = s.get<IKaReadStream>(rq.object, IID_IKaReadStream);
        if (!st) return E_INVALIDARG;
        INT64 d = 0, start = 0;
        const HRESULT hr = st->GetDuration(&d, &start);
        st->Release();
        rp.x = uint64_t(d), rp.y = uint64_t(start);
        return hr;
      }
      if (auto* a = s.get<IKaReadAudioStream>(rq.object, IID_IKaReadAudioStream)) {
        HRESULT hr;
        if (rq.op == kFrameCount) {
          UINT64 n = 0;
          hr = a->GetFrameCount(&n);
          rp.x = n;
        } else if (rq.op == kAudioFormat) {
          out.assign(size_t(std::min<uint64_t>(rq.a, sizeof(_kawaveformat))), 0);
          hr = a->GetFormat(reinterpret_cast<_kawaveformat*>(out.data()), DWORD(out.size()));
        } else {
          alignas(8) unsigned char fmt[KAWAVEFORMAT_BUFFER_SIZE] = {};
          hr = a->GetFormat(reinterpret_cast<_kawaveformat*>(fmt), sizeof fmt);
          const uint64_t block = reinterpret_cast<_kawaveformat*>(fmt)->nBlockAlign;
          BYTE* at = s.memory(block * rq.b);
          if (SUCCEEDED(hr) && (!at || !block)) hr = E_INVALIDARG;
          DWORD got = 0;
          if (SUCCEEDED(hr)) hr = a->Read(rq.a, at, DWORD(rq.b), &got);
          rp.x = got;
        }
        a->Release();
        return hr;
      }
      if (auto* v = s.get<IKaReadVideoStream>(rq.object, IID_IKaReadVideoStream)) {
        UINT64 n = 0;
        const HRESULT hr = rq.op == kFrameCount ? v->GetFrameCount(&n) : E_INVALIDARG;
        v->Release();
        rp.x = n;
        return hr;
      }
      return E_INVALIDARG;
    }
    case kFrameFormat:
    case kReadFrame: {
      auto* v = s.get<IKaReadVideoStream>(rq.object, IID_IKaReadVideoStream);
      if (!v) return E_INVALIDARG;
      HRESULT hr;
      if (rq.op == kFrameFormat) {
        BITMAPINFOHEADER h{};
        DWORD num = 0, den = 0;
        hr = v->GetFrameFormat(&h, &num, &den);
        out.assign(reinterpret_cast<BYTE*>(&h), reinterpret_cast<BYTE*>(&h) + sizeof h);
        rp.x = num, rp.y = den;
      } else {
        BITMAPINFOHEADER h{};
        BYTE* at = s.memory(rq.b);
        if (in.size() < sizeof h || !at) {
          hr = E_INVALIDARG;
        } else {
          std::memcpy(&h, in.data(), sizeof h);
          INT64 t = 0;
          hr = v->ReadFrame(rq.a, &h, at, size_t(rq.b), &t);
          rp.x = uint64_t(t);
        }
      }
      v->Release();
      return hr;
    }
    case kReadText: {
      auto* t = s.get<IKaReadTextStream>(rq.object, IID_IKaReadTextStream);
      if (!t) return E_INVALIDARG;
      std::vector<KAWCHAR> buf(size_t(std::min<uint64_t>(rq.b, 65536)) + 1, 0);
      INT64 start = 0, end = 0;
      const HRESULT hr = t->ReadText(INT64(rq.a), buf.data(), DWORD(buf.size() - 1), &start, &end);
      t->Release();
      putText(out, buf.data(), buf.size());
      rp.x = uint64_t(start), rp.y = uint64_t(end);
      return hr;
    }
    case kMetaValue:
    case kProjectPath: {
      std::vector<KAWCHAR> buf(size_t(std::min<uint64_t>(rq.a, 65536)) + 1, 0);
      HRESULT hr = E_INVALIDARG;
      if (rq.op == kMetaValue) {
        if (auto* m = s.get<IKaReadMeta>(rq.object, IID_IKaReadMeta)) {
          hr = m->GetValue(text(in).c_str(), buf.data(), DWORD(buf.size() - 1));
          m->Release();
        }
      } else if (auto* m = s.get<IKaReadProjectLinkMeta>(rq.object, IID_IKaReadProjectLinkMeta)) {
        hr = m->GetProjectPath(buf.data(), DWORD(buf.size() - 1));
        m->Release();
      }
      putText(out, buf.data(), buf.size());
      return hr;
    }
    case kRenderCreate:
    case kWriteAudio:
    case kFinish: {
      auto* r = s.get<IKaRenderFile>(rq.object, IID_IKaRenderFile);
      if (!r) return E_INVALIDARG;
      HRESULT hr = E_INVALIDARG;
      if (rq.op == kRenderCreate && rq.b <= in.size() && rq.b >= KAWAVEFORMAT_FIXED_SIZE) {
        alignas(8) unsigned char fmt[sizeof(_kawaveformat)] = {};
        std::memcpy(fmt, in.data(), size_t(std::min<uint64_t>(rq.b, sizeof fmt)));
        hr = r->Create(text(in, size_t(rq.b)).c_str(), reinterpret_cast<_kawaveformat*>(fmt),
                       DWORD(rq.a));
      } else if (rq.op == kWriteAudio) {
        const BYTE* at = s.memory(rq.b);
        hr = at ? r->WriteAudio(at, DWORD(rq.a)) : E_INVALIDARG;
      } else if (rq.op == kFinish) {
        hr = r->Finish();
      }
      r->Release();
      return hr;
    }
    case kRelease:
      if (rq.object && rq.object < s.objects.size() && s.objects[rq.object]) {
        s.objects[rq.object]->Release();
        s.objects[rq.object] = nullptr;
      }
      return S_OK;
    default:
      return E_NOTIMPL;
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s LCID CHANNEL\n(started by the file I/O manager)\n", argv[0]);
    return 2;
  }
  Server s;
  if (FAILED(KaIpc_Connect(argv[2], &s.channel))) return 3;
  Reply hello{kHelloResult, 0, uint64_t(KaGetCurrentProcessId()), 0};
  if (FAILED(KaIpc_Send(s.channel, &hello, sizeof hello))) return 3;
  std::vector<BYTE> in, out;
  for (;;) {
    Request rq{};
    if (FAILED(KaIpc_Receive(s.channel, &rq, sizeof rq, INFINITE))) break;  // the host went
    if (rq.payload > kMaxPayload) break;
    in.resize(rq.payload);
    if (rq.payload && FAILED(KaIpc_Receive(s.channel, in.data(), rq.payload, INFINITE))) break;
    out.clear();
    Reply rp{};
    rp.hr = serve(s, rq, in, rp, out);
    rp.payload = uint32_t(out.size());
    if (FAILED(KaIpc_Send(s.channel, &rp, sizeof rp)) ||
        (!out.empty() && FAILED(KaIpc_Send(s.channel, out.data(), DWORD(out.size())))))
      break;
  }
  for (IUnknown* o : s.objects)
    if (o) o->Release();
  KaShared_Close(s.shared);
  KaIpc_Close(s.channel);
  return 0;
}
