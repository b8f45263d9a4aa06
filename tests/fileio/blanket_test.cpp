// The Blanket wrappers around a plug-in reader: calls from the creating thread use the
// object itself, every other thread fetches one proxy and keeps it, everything a wrapper
// hands out is wrapped in turn, and the wrapped object lives exactly as long as its
// wrappers. Run under ThreadSanitizer with eight threads.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "ostra/kacom.h"
#include "ostra/kafileio.h"

namespace {

// A reader with one audio stream and descriptive values, counting its calls.
class FakeStream final : public IKaReadAudioStream {
 public:
  std::atomic<ULONG> refs{1};
  std::atomic<int> reads{0};
  STDMETHOD(QueryInterface)(REFIID riid, void** ppv) override {
    if (riid == IID_IUnknown || riid == IID_IKaReadStream || riid == IID_IKaReadAudioStream) {
      *ppv = this;
      AddRef();
      return S_OK;
    }
    *ppv = nullptr;
    return E_NOINTERFACE;
  }
  STDMETHOD_(ULONG, AddRef)() override { return ++refs; }
  STDMETHOD_(ULONG, Release)() override { return --refs; }
  STDMETHOD(GetStreamType)(DWORD* type) override {
    *type = KAFIO_STREAM_AUDIO;
    return S_OK;
  }
  STDMETHOD(GetDuration)(INT64* d, INT64* s) override {
    *d = 10000000;
    *s = 0;
    return S_OK;
  }
  STDMETHOD(GetFormat)(_kawaveformat*, DWORD) override { return E_NOTIMPL; }
  STDMETHOD(GetFrameCount)(UINT64* frames) override {
    *frames = 48000;
    return S_OK;
  }
  STDMETHOD(Read)(UINT64 position, void*, DWORD frames, DWORD* read) override {
    ++reads;
    *read = position + frames > 48000 ? DWORD(48000 - position) : frames;
    return S_OK;
  }
};

class FakeReader final : public IKaReadFile {
 public:
  std::atomic<ULONG> refs{1};
  std::atomic<int> calls{0};
  FakeStream stream;
  bool nullFromQuery = false;
  STDMETHOD(QueryInterface)(REFIID riid, void** ppv) override {
    if (riid == IID_IUnknown || riid == IID_IKaReadFile) {
      *ppv = this;
      AddRef();
      return S_OK;
    }
    *ppv = nullptr;
    return nullFromQuery ? S_OK : E_NOINTERFACE;
  }
  STDMETHOD_(ULONG, AddRef)() override { return ++refs; }
  STDMETHOD_(ULONG, Release)() override { return --refs; }
  STDMETHOD(Open)(const KAWCHAR*, DWORD) override { return ++calls, S_OK; }
  STDMETHOD(Close)() override { return ++calls, S_OK; }
  STDMETHOD(GetStreamCount)(DWORD* count) override {
    ++calls;
    *count = 1;
    return S_OK;
  }
  STDMETHOD(GetStream)(DWORD index, REFIID riid, void** out) override {
    if (index != 0) return E_INVALIDARG;
    return stream.QueryInterface(riid, out);
  }
  STDMETHOD(GetMeta)(REFIID, void** out) override {
    *out = nullptr;
    return E_NOINTERFACE;
  }
};

IKaReadFile* wrapped(FakeReader& reader) {
  void* out = nullptr;
  EXPECT_EQ(KaFio_WrapObject(&reader, IID_IKaReadFile, nullptr, 42, 0, &out), S_OK);
  return static_cast<IKaReadFile*>(out);
}

DWORD proxies(IUnknown* wrapper) {
  IKaOutOfProcObj* oop = nullptr;
  EXPECT_EQ(wrapper->QueryInterface(IID_IKaOutOfProcObj, reinterpret_cast<void**>(&oop)), S_OK);
  DWORD n = 0;
  oop->GetProxyCount(&n);
  oop->Release();
  return n;
}

TEST(Blanket, CreatingThreadUsesTheObjectOthersOneProxyEach) {
  FakeReader reader;
  IKaReadFile* w = wrapped(reader);
  ASSERT_NE(w, nullptr);
  const UINT64 lookups = KaGIT_GetLookupCount();
  DWORD count = 0;
  for (int i = 0; i < 10; ++i) EXPECT_EQ(w->GetStreamCount(&count), S_OK);
  EXPECT_EQ(KaGIT_GetLookupCount(), lookups);  // no proxy for the creating thread
  EXPECT_EQ(proxies(w), 0u);

  constexpr int kThreads = 8, kCalls = 200;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([w] {
      DWORD c = 0;
      for (int i = 0; i < kCalls; ++i) EXPECT_EQ(w->GetStreamCount(&c), S_OK);
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(reader.calls.load(), 10 + kThreads * kCalls);
  EXPECT_EQ(proxies(w), DWORD(kThreads));
  EXPECT_EQ(KaGIT_GetLookupCount() - lookups, UINT64(kThreads));
  // Back on the creating thread: still the object itself.
  EXPECT_EQ(w->GetStreamCount(&count), S_OK);
  EXPECT_EQ(KaGIT_GetLookupCount() - lookups, UINT64(kThreads));

  const DWORD registered = KaGIT_GetRegisteredCount();
  EXPECT_EQ(w->Release(), 0u);
  EXPECT_EQ(reader.refs.load(), 1u);  // every reference the wrapper took is given back
  EXPECT_EQ(KaGIT_GetRegisteredCount(), registered - 1);
}

TEST(Blanket, QueryInterfaceAndEverythingHandedOutIsWrapped) {
  FakeReader reader;
  IKaReadFile* w = wrapped(reader);
  ASSERT_NE(w, nullptr);
  void* p = nullptr;
  EXPECT_EQ(w->QueryInterface(IID_IUnknown, nullptr), E_POINTER);
  ASSERT_EQ(w->QueryInterface(IID_IUnknown, &p), S_OK);
  EXPECT_EQ(p, static_cast<void*>(w));  // the wrapper, not the reader
  static_cast<IUnknown*>(p)->Release();
  EXPECT_EQ(w->QueryInterface(IID_IKaReadMeta, &p), E_NOINTERFACE);
  reader.nullFromQuery = true;
  EXPECT_EQ(w->QueryInterface(IID_IKaReadMeta, &p), E_OUTOFMEMORY);
  reader.nullFromQuery = false;

  // A stream from the reader comes wrapped, and its calls reach the stream from any thread.
  IKaReadAudioStream* s = nullptr;
  ASSERT_EQ(w->GetStream(0, IID_IKaReadAudioStream, reinterpret_cast<void**>(&s)), S_OK);
  ASSERT_NE(s, nullptr);
  EXPECT_NE(static_cast<void*>(s), static_cast<void*>(&reader.stream));
  IKaOutOfProcObj* oop = nullptr;
  ASSERT_EQ(s->QueryInterface(IID_IKaOutOfProcObj, reinterpret_cast<void**>(&oop)), S_OK);
  UINT64 context = 0;
  EXPECT_EQ(oop->GetContext(&context), S_OK);
  EXPECT_EQ(context, 42u);  // passed on to the child
  oop->Release();
  IKaReadStream* base = nullptr;
  ASSERT_EQ(s->QueryInterface(IID_IKaReadStream, reinterpret_cast<void**>(&base)), S_OK);
  DWORD type = 0;
  EXPECT_EQ(base->GetStreamType(&type), S_OK);
  EXPECT_EQ(type, DWORD(KAFIO_STREAM_AUDIO));
  base->Release();
  std::thread other([s] {
    DWORD got = 0;
    EXPECT_EQ(s->Read(47990, nullptr, 100, &got), S_OK);
    EXPECT_EQ(got, 10u);
  });
  other.join();
  EXPECT_EQ(reader.stream.reads.load(), 1);
  EXPECT_EQ(s->Release(), 0u);
  EXPECT_EQ(reader.stream.refs.load(), 1u);
  // The child held its parent: releasing the reader's wrapper now frees everything.
  EXPECT_EQ(w->Release(), 0u);
  EXPECT_EQ(reader.refs.load(), 1u);

  void* none = nullptr;
  EXPECT_EQ(KaFio_WrapObject(&reader, IID_IKaReadMeta, nullptr, 0, 0, &none), E_NOINTERFACE);
  EXPECT_EQ(KaFio_WrapObject(&reader, IID_IUnknown, nullptr, 0, 0, &none), E_NOINTERFACE);
  EXPECT_EQ(none, nullptr);
}

}  // namespace
