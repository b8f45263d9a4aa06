// CKaProtectedStream: a window of another stream that a host lends to a plug-in and can
// take back. Every stream and clone of one grant shares the grant's lock, which guards the
// inner stream (its seek pointer moves on every call) and each stream's own position;
// revoking takes the same lock, so it waits for a call in progress and no call starts
// after it.
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <new>
#include <vector>

#include "ostra/kaerror.h"
#include "ostra/kafileio.h"

namespace ostra::fileio {
namespace {

constexpr HRESULT kAccessDenied = HRESULT(0x80030005u);
constexpr HRESULT kInvalidFunction = HRESULT(0x80030001u);

struct Grant {
  std::mutex lock;
  IStream* inner;  // null once revoked
  UINT64 offset, length;
  DWORD flags;
  ~Grant() {
    if (inner) inner->Release();
  }
};

class CKaProtectedStream final : public IKaProtectedStream {
 public:
  CKaProtectedStream(std::shared_ptr<Grant> grant, UINT64 pos)
      : grant_(std::move(grant)), pos_(pos) {}

  STDMETHOD(QueryInterface)(REFIID riid, void** ppv) override {
    if (!ppv) return E_POINTER;
    if (riid == IID_IUnknown || riid == IID_ISequentialStream || riid == IID_IStream ||
        riid == IID_IKaProtectedStream) {
      *ppv = static_cast<IKaProtectedStream*>(this);
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

  STDMETHOD(Read)(void* buffer, ULONG bytes, ULONG* read) override {
    if (read) *read = 0;
    if (!buffer && bytes) return E_POINTER;
    std::lock_guard<std::mutex> lock(grant_->lock);
    if (!grant_->inner) return KAERR_CLOSED;
    const UINT64 left = pos_ < grant_->length ? grant_->length - pos_ : 0;
    const ULONG want = ULONG(bytes < left ? bytes : left);
    ULONG got = 0;
    if (want) {
      // offset + pos stays inside the inner stream's size, checked below INT64_MAX at creation.
      HRESULT hr = grant_->inner->Seek(INT64(grant_->offset + pos_), STREAM_SEEK_SET, nullptr);
      if (SUCCEEDED(hr)) hr = grant_->inner->Read(buffer, want, &got);
      if (FAILED(hr)) return hr;
      if (got > want) return E_UNEXPECTED;  // a stream that claims more than it was asked for
      pos_ += got;
    }
    if (read) *read = got;
    return got == bytes ? S_OK : S_FALSE;
  }

  // A write goes in whole or not at all: nothing outside the window is touched.
  STDMETHOD(Write)(const void* buffer, ULONG bytes, ULONG* written) override {
    if (written) *written = 0;
    if (!buffer && bytes) return E_POINTER;
    std::lock_guard<std::mutex> lock(grant_->lock);
    if (!grant_->inner) return KAERR_CLOSED;
    if (!(grant_->flags & KAFIO_PROTECT_WRITE)) return kAccessDenied;
    if (pos_ > grant_->length || bytes > grant_->length - pos_) return kAccessDenied;
    if (!bytes) return S_OK;
    HRESULT hr = grant_->inner->Seek(INT64(grant_->offset + pos_), STREAM_SEEK_SET, nullptr);
    ULONG put = 0;
    if (SUCCEEDED(hr)) hr = grant_->inner->Write(buffer, bytes, &put);
    if (put > bytes) put = bytes;
    pos_ += put;
    if (written) *written = put;
    return hr;
  }

  STDMETHOD(Seek)(INT64 move, DWORD origin, UINT64* position) override {
    std::lock_guard<std::mutex> lock(grant_->lock);
    if (!grant_->inner) return KAERR_CLOSED;
    UINT64 base = 0;
    if (origin == STREAM_SEEK_CUR) {
      base = pos_;
    } else if (origin == STREAM_SEEK_END) {
      base = grant_->length;
    } else if (origin != STREAM_SEEK_SET) {
      return kInvalidFunction;
    }
    if (move < 0 ? UINT64(-(move + 1)) + 1 > base : UINT64(move) > UINT64(INT64_MAX) - base)
      return kInvalidFunction;
    pos_ = move < 0 ? base - (UINT64(-(move + 1)) + 1) : base + UINT64(move);
    if (position) *position = pos_;
    return S_OK;
  }

  STDMETHOD(SetSize)(UINT64) override {
    std::lock_guard<std::mutex> lock(grant_->lock);
    return grant_->inner ? kAccessDenied : KAERR_CLOSED;
  }

  // Through a block of our own, so that no lock is held while `to` writes.
  STDMETHOD(CopyTo)(IStream* to, UINT64 bytes, UINT64* read, UINT64* written) override {
    if (read) *read = 0;
    if (written) *written = 0;
    if (!to) return E_POINTER;
    UINT64 in = 0, out = 0;
    HRESULT hr = S_OK;
    try {
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
    } catch (const std::bad_alloc&) {
      hr = E_OUTOFMEMORY;
    }
    if (read) *read = in;
    if (written) *written = out;
    return FAILED(hr) ? hr : S_OK;
  }

  STDMETHOD(Commit)(DWORD flags) override {
    std::lock_guard<std::mutex> lock(grant_->lock);
    if (!grant_->inner) return KAERR_CLOSED;
    return grant_->flags & KAFIO_PROTECT_WRITE ? grant_->inner->Commit(flags) : S_OK;
  }
  STDMETHOD(Revert)() override {
    std::lock_guard<std::mutex> lock(grant_->lock);
    return grant_->inner ? S_OK : KAERR_CLOSED;
  }
  STDMETHOD(LockRegion)(UINT64, UINT64, DWORD) override { return kInvalidFunction; }
  STDMETHOD(UnlockRegion)(UINT64, UINT64, DWORD) override { return kInvalidFunction; }

  // The inner stream's name, the window's size.
  STDMETHOD(Stat)(KASTATSTG* stat, DWORD flags) override {
    if (!stat) return E_POINTER;
    *stat = KASTATSTG{nullptr, STGTY_STREAM, 0};
    std::lock_guard<std::mutex> lock(grant_->lock);
    if (!grant_->inner) return KAERR_CLOSED;
    KASTATSTG inner{};
    if (HRESULT hr = grant_->inner->Stat(&inner, flags); FAILED(hr)) return hr;
    stat->name = inner.name;
    stat->size = grant_->length;
    return S_OK;
  }

  STDMETHOD(Clone)(IStream** clone) override {
    if (!clone) return E_POINTER;
    *clone = nullptr;
    std::lock_guard<std::mutex> lock(grant_->lock);
    if (!grant_->inner) return KAERR_CLOSED;
    *clone = new (std::nothrow) CKaProtectedStream(grant_, pos_);
    return *clone ? S_OK : E_OUTOFMEMORY;
  }

  STDMETHOD(GetWindow)(UINT64* offset, UINT64* length, DWORD* flags) override {
    std::lock_guard<std::mutex> lock(grant_->lock);
    if (!grant_->inner) return KAERR_CLOSED;
    if (offset) *offset = grant_->offset;
    if (length) *length = grant_->length;
    if (flags) *flags = grant_->flags;
    return S_OK;
  }

  STDMETHOD(Revoke)() override {
    IStream* inner = nullptr;
    {
      std::lock_guard<std::mutex> lock(grant_->lock);
      inner = grant_->inner;
      grant_->inner = nullptr;
    }
    if (!inner) return S_FALSE;
    inner->Release();  // outside the lock: the inner stream's destructor may take its own
    return S_OK;
  }

 private:
  std::shared_ptr<Grant> grant_;
  UINT64 pos_;  // guarded by grant_->lock
  std::atomic<ULONG> refs_{1};
};

}  // namespace
}  // namespace ostra::fileio

HRESULT KaFio_CreateProtectedStream(IStream* inner, UINT64 offset, UINT64 length, DWORD flags,
                                    IKaProtectedStream** stream) noexcept {
  using ostra::fileio::CKaProtectedStream;
  using ostra::fileio::Grant;
  if (!stream) return E_POINTER;
  *stream = nullptr;
  if (!inner) return E_POINTER;
  if (flags & ~KAFIO_PROTECT_WRITE) return E_INVALIDARG;
  KASTATSTG st{};
  if (HRESULT hr = inner->Stat(&st, 1); FAILED(hr)) return hr;
  if (st.size > UINT64(INT64_MAX) || offset > st.size) return E_INVALIDARG;
  if (length == KAFIO_PROTECT_TO_END) length = st.size - offset;
  if (length > st.size - offset) return E_INVALIDARG;
  try {
    auto grant = std::make_shared<Grant>();
    grant->offset = offset;
    grant->length = length;
    grant->flags = flags;
    grant->inner = inner;
    inner->AddRef();
    *stream = new CKaProtectedStream(std::move(grant), 0);
    return S_OK;
  } catch (...) {
    return E_OUTOFMEMORY;
  }
}
