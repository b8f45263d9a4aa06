// The streams the manager and the plug-ins exchange: CKaFileStream over a file,
// CKaMemStream over a growing memory block, CKaTextStream over UTF-16 text. Each stream
// has its own seek pointer; a clone shares the bytes and starts at the same place.
#include <atomic>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "ostra/kaerror.h"
#include "ostra/kafileio.h"
#include "ostra/kaplatform.h"

namespace ostra::fileio {
namespace {

constexpr HRESULT kAccessDenied = HRESULT(0x80030005u);
constexpr HRESULT kInvalidFunction = HRESULT(0x80030001u);
constexpr UINT64 kMaxMemory = UINT64(1) << 32;  // a memory stream stops growing here

// The bytes behind one or more streams.
class Store {
 public:
  virtual ~Store() = default;
  virtual HRESULT readAt(UINT64 pos, void* buf, ULONG n, ULONG* got) = 0;
  virtual HRESULT writeAt(UINT64 pos, const void* buf, ULONG n) = 0;
  virtual HRESULT size(UINT64* size) = 0;
  virtual HRESULT setSize(UINT64 size) = 0;
  virtual bool writable() const = 0;
  virtual std::u16string name() const { return {}; }
};

class MemoryStore final : public Store {
 public:
  MemoryStore(const void* bytes, UINT64 n, bool writable)
      : bytes_(static_cast<const uint8_t*>(bytes), static_cast<const uint8_t*>(bytes) + n),
        writable_(writable) {}
  HRESULT readAt(UINT64 pos, void* buf, ULONG n, ULONG* got) override {
    std::lock_guard<std::mutex> lock(lock_);
    const UINT64 left = pos < bytes_.size() ? bytes_.size() - pos : 0;
    *got = ULONG(n < left ? n : left);
    if (*got) std::memcpy(buf, bytes_.data() + pos, *got);
    return S_OK;
  }
  HRESULT writeAt(UINT64 pos, const void* buf, ULONG n) override {
    std::lock_guard<std::mutex> lock(lock_);
    if (pos + n > kMaxMemory) return E_OUTOFMEMORY;
    try {
      if (pos + n > bytes_.size()) bytes_.resize(size_t(pos + n));
    } catch (const std::bad_alloc&) {
      return E_OUTOFMEMORY;
    }
    if (n) std::memcpy(bytes_.data() + pos, buf, n);
    return S_OK;
  }
  HRESULT size(UINT64* size) override {
    std::lock_guard<std::mutex> lock(lock_);
    *size = bytes_.size();
    return S_OK;
  }
  HRESULT setSize(UINT64 size) override {
    std::lock_guard<std::mutex> lock(lock_);
    if (size > kMaxMemory) return E_OUTOFMEMORY;
    try {
      bytes_.resize(size_t(size));
    } catch (const std::bad_alloc&) {
      return E_OUTOFMEMORY;
    }
    return S_OK;
  }
  bool writable() const override { return writable_; }

 private:
  std::mutex lock_;
  std::vector<uint8_t> bytes_;
  bool writable_;
};

class FileStore final : public Store {
 public:
  FileStore(KAHFILE file, std::u16string name, bool writable)
      : file_(file), name_(std::move(name)), writable_(writable) {}
  ~FileStore() override { KaFile_Close(file_); }
  HRESULT readAt(UINT64 pos, void* buf, ULONG n, ULONG* got) override {
    std::lock_guard<std::mutex> lock(lock_);
    DWORD k = 0;
    HRESULT hr = KaFile_Seek(file_, INT64(pos), FILE_BEGIN, nullptr);
    if (SUCCEEDED(hr)) hr = KaFile_Read(file_, buf, n, &k);
    *got = k;
    return hr;
  }
  HRESULT writeAt(UINT64 pos, const void* buf, ULONG n) override {
    std::lock_guard<std::mutex> lock(lock_);
    DWORD put = 0;
    HRESULT hr = KaFile_Seek(file_, INT64(pos), FILE_BEGIN, nullptr);
    if (SUCCEEDED(hr)) hr = KaFile_Write(file_, buf, n, &put);
    return SUCCEEDED(hr) && put != n ? KAERR_WRITE_FAILED : hr;
  }
  HRESULT size(UINT64* size) override {
    std::lock_guard<std::mutex> lock(lock_);
    return KaFile_GetSize(file_, size);
  }
  HRESULT setSize(UINT64 size) override {
    std::lock_guard<std::mutex> lock(lock_);
    HRESULT hr = KaFile_Seek(file_, INT64(size), FILE_BEGIN, nullptr);
    return SUCCEEDED(hr) ? KaFile_SetEndOfFile(file_) : hr;
  }
  bool writable() const override { return writable_; }
  std::u16string name() const override { return name_; }

 private:
  std::mutex lock_;
  KAHFILE file_;
  std::u16string name_;
  bool writable_;
};

class Stream final : public IStream {
 public:
  explicit Stream(std::shared_ptr<Store> store, UINT64 pos = 0)
      : store_(std::move(store)), pos_(pos) {}

  STDMETHOD(QueryInterface)(REFIID riid, void** ppv) override {
    if (!ppv) return E_POINTER;
    if (riid == IID_IUnknown || riid == IID_ISequentialStream || riid == IID_IStream) {
      *ppv = static_cast<IStream*>(this);
      AddRef();
      return S_OK;
    }
    *ppv = nullptr;
    return E_NOINTERFACE;
  }
  STDMETHOD_(ULONG, AddRef)() override { return ++refs_; }
  STDMETHOD_(ULONG, Release)() override {
    const ULONG n = --refs_;
    if (n == 0) delete this;
    return n;
  }

  // S_FALSE when fewer bytes than asked for remained.
  STDMETHOD(Read)(void* buffer, ULONG bytes, ULONG* read) override {
    if (!buffer && bytes) return E_POINTER;
    ULONG got = 0;
    const HRESULT hr = store_->readAt(pos_, buffer, bytes, &got);
    pos_ += got;
    if (read) *read = got;
    return FAILED(hr) ? hr : got == bytes ? S_OK : S_FALSE;
  }
  STDMETHOD(Write)(const void* buffer, ULONG bytes, ULONG* written) override {
    if (written) *written = 0;
    if (!buffer && bytes) return E_POINTER;
    if (!store_->writable()) return kAccessDenied;
    const HRESULT hr = store_->writeAt(pos_, buffer, bytes);
    if (FAILED(hr)) return hr;
    pos_ += bytes;
    if (written) *written = bytes;
    return S_OK;
  }
  STDMETHOD(Seek)(INT64 move, DWORD origin, UINT64* position) override {
    UINT64 base = 0;
    if (origin == STREAM_SEEK_CUR) {
      base = pos_;
    } else if (origin == STREAM_SEEK_END) {
      if (HRESULT hr = store_->size(&base); FAILED(hr)) return hr;
    } else if (origin != STREAM_SEEK_SET) {
      return kInvalidFunction;
    }
    if (move < 0 ? UINT64(-(move + 1)) + 1 > base : UINT64(move) > UINT64(INT64_MAX) - base)
      return kInvalidFunction;  // before the start, or beyond what a position can hold
    pos_ = move < 0 ? base - (UINT64(-(move + 1)) + 1) : base + UINT64(move);
    if (position) *position = pos_;
    return S_OK;
  }
  STDMETHOD(SetSize)(UINT64 size) override {
    return store_->writable() ? store_->setSize(size) : kAccessDenied;
  }
  STDMETHOD(CopyTo)(IStream* to, UINT64 bytes, UINT64* read, UINT64* written) override {
    if (!to) return E_POINTER;
    UINT64 in = 0, out = 0;
    HRESULT hr = S_OK;
    std::vector<uint8_t> block(64 * 1024);
    while (in < bytes) {
      const ULONG want = ULONG(bytes - in < block.size() ? bytes - in : block.size());
      ULONG got = 0, put = 0;
      if (FAILED(hr = Read(block.data(), want, &got)) || got == 0) break;
      in += got;
      if (FAILED(hr = to->Write(block.data(), got, &put))) break;
      out += put;
      if (got < want) break;
    }
    if (read) *read = in;
    if (written) *written = out;
    return FAILED(hr) ? hr : S_OK;
  }
  STDMETHOD(Commit)(DWORD) override { return S_OK; }
  STDMETHOD(Revert)() override { return S_OK; }
  STDMETHOD(LockRegion)(UINT64, UINT64, DWORD) override { return kInvalidFunction; }
  STDMETHOD(UnlockRegion)(UINT64, UINT64, DWORD) override { return kInvalidFunction; }
  STDMETHOD(Stat)(KASTATSTG* stat, DWORD flags) override {
    if (!stat) return E_POINTER;
    *stat = KASTATSTG{nullptr, STGTY_STREAM, 0};
    if (HRESULT hr = store_->size(&stat->size); FAILED(hr)) return hr;
    const std::u16string name = store_->name();
    if (!(flags & 1) && !name.empty()) {
      KAHGLOBAL block = KaGlobalAlloc(GMEM_MOVEABLE, (name.size() + 1) * sizeof(KAWCHAR));
      auto* text = static_cast<KAWCHAR*>(KaGlobalLock(block));
      if (!text) return E_OUTOFMEMORY;
      std::memcpy(text, name.c_str(), (name.size() + 1) * sizeof(KAWCHAR));
      stat->name = text;
    }
    return S_OK;
  }
  STDMETHOD(Clone)(IStream** clone) override {
    if (!clone) return E_POINTER;
    *clone = new (std::nothrow) Stream(store_, pos_);
    return *clone ? S_OK : E_OUTOFMEMORY;
  }

 private:
  std::shared_ptr<Store> store_;
  UINT64 pos_;
  std::atomic<ULONG> refs_{1};
};

HRESULT make(std::shared_ptr<Store> store, IStream** out) {
  *out = new (std::nothrow) Stream(std::move(store));
  return *out ? S_OK : E_OUTOFMEMORY;
}

}  // namespace
}  // namespace ostra::fileio

using namespace ostra::fileio;

HRESULT KaFio_CreateFileStream(const KAWCHAR* path, BOOL writable, IStream** stream) noexcept {
  if (!stream) return E_POINTER;
  *stream = nullptr;
  if (!path) return E_INVALIDARG;
  try {
    KAHFILE f = KA_INVALID_HFILE;
    const HRESULT hr =
        KaFile_Open(path, writable ? GENERIC_READ | GENERIC_WRITE : GENERIC_READ, FILE_SHARE_READ,
                    writable ? OPEN_ALWAYS : OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, &f);
    if (FAILED(hr)) return hr;
    std::shared_ptr<Store> store;
    try {
      store = std::make_shared<FileStore>(f, std::u16string(path), writable != FALSE);
    } catch (...) {
      KaFile_Close(f);
      throw;
    }
    return make(std::move(store), stream);
  } catch (...) {
    return E_OUTOFMEMORY;
  }
}

HRESULT KaFio_CreateMemStream(const void* bytes, UINT64 size, IStream** stream) noexcept {
  if (!stream) return E_POINTER;
  *stream = nullptr;
  if (!bytes && size) return E_POINTER;
  if (size > kMaxMemory) return E_OUTOFMEMORY;
  try {
    return make(std::make_shared<MemoryStore>(bytes, size, true), stream);
  } catch (...) {
    return E_OUTOFMEMORY;
  }
}

HRESULT KaFio_CreateTextStream(const KAWCHAR* text, IStream** stream) noexcept {
  if (!stream) return E_POINTER;
  *stream = nullptr;
  if (!text) return E_POINTER;
  try {
    // The code units little-endian, whatever the host's byte order.
    const size_t n = KaText_WideLength(text);
    std::vector<uint8_t> bytes(n * 2);
    for (size_t i = 0; i < n; ++i) {
      bytes[2 * i] = uint8_t(text[i]);
      bytes[2 * i + 1] = uint8_t(text[i] >> 8);
    }
    return make(std::make_shared<MemoryStore>(bytes.data(), bytes.size(), false), stream);
  } catch (...) {
    return E_OUTOFMEMORY;
  }
}
