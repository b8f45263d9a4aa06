// CKAMediaSample: the block a reader fills and the host consumes, with its times, flags,
// format and a zero fill that is owed rather than written (IDeferZeroFill). One lock per
// sample guards its fields, so a sample can be handed from a reader's thread to the
// host's; the bytes themselves are the holder's.
#include <atomic>
#include <cstring>
#include <mutex>
#include <new>
#include <vector>

#include "ostra/kafileio.h"

namespace ostra::fileio {
namespace {

constexpr std::align_val_t kAlignment{64};

struct TimePair {
  bool set = false;
  INT64 start = 0, end = 0;

  HRESULT get(INT64* s, INT64* e) const {
    if (!s || !e) return E_POINTER;
    *s = set ? start : 0;
    *e = set ? end : 0;
    return set ? S_OK : S_FALSE;
  }
  HRESULT put(const INT64* s, const INT64* e) {
    if (!s && !e) {
      *this = TimePair{};
      return S_OK;
    }
    if (!s || !e) return E_POINTER;
    if (*e < *s) return E_INVALIDARG;
    *this = TimePair{true, *s, *e};
    return S_OK;
  }
};

class CKAMediaSample final : public IKAMediaSample, public IDeferZeroFill {
 public:
  CKAMediaSample(BYTE* bytes, DWORD capacity) : bytes_(bytes), capacity_(capacity) {}

  STDMETHOD(QueryInterface)(REFIID riid, void** ppv) override {
    if (!ppv) return E_POINTER;
    if (riid == IID_IUnknown || riid == IID_IKAMediaSample) {
      *ppv = static_cast<IKAMediaSample*>(this);
    } else if (riid == IID_IDeferZeroFill) {
      *ppv = static_cast<IDeferZeroFill*>(this);
    } else {
      *ppv = nullptr;
      return E_NOINTERFACE;
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

  STDMETHOD(GetPointer)(BYTE** buffer) override {
    if (!buffer) return E_POINTER;
    std::lock_guard<std::mutex> lock(lock_);
    if (owedZeros_) {
      std::memset(bytes_, 0, owedZeros_);
      owedZeros_ = 0;
    }
    *buffer = bytes_;
    return S_OK;
  }
  STDMETHOD(GetSize)(DWORD* capacity) override {
    if (!capacity) return E_POINTER;
    *capacity = capacity_;
    return S_OK;
  }
  STDMETHOD(GetActualDataLength)(DWORD* length) override {
    if (!length) return E_POINTER;
    std::lock_guard<std::mutex> lock(lock_);
    *length = length_;
    return S_OK;
  }
  STDMETHOD(SetActualDataLength)(DWORD length) override {
    if (length > capacity_) return E_INVALIDARG;
    std::lock_guard<std::mutex> lock(lock_);
    length_ = length;
    return S_OK;
  }
  STDMETHOD(GetTime)(INT64* start, INT64* end) override {
    std::lock_guard<std::mutex> lock(lock_);
    return time_.get(start, end);
  }
  STDMETHOD(SetTime)(const INT64* start, const INT64* end) override {
    std::lock_guard<std::mutex> lock(lock_);
    return time_.put(start, end);
  }
  STDMETHOD(GetMediaTime)(INT64* start, INT64* end) override {
    std::lock_guard<std::mutex> lock(lock_);
    return mediaTime_.get(start, end);
  }
  STDMETHOD(SetMediaTime)(const INT64* start, const INT64* end) override {
    std::lock_guard<std::mutex> lock(lock_);
    return mediaTime_.put(start, end);
  }
  STDMETHOD(GetFlags)(DWORD* flags) override {
    if (!flags) return E_POINTER;
    std::lock_guard<std::mutex> lock(lock_);
    *flags = flags_;
    return S_OK;
  }
  STDMETHOD(SetFlags)(DWORD flags) override {
    if (flags & ~(KAMS_SYNCPOINT | KAMS_DISCONTINUITY | KAMS_PREROLL)) return E_INVALIDARG;
    std::lock_guard<std::mutex> lock(lock_);
    flags_ = flags;
    return S_OK;
  }

  STDMETHOD(SetFormat)(DWORD streamType, const void* format, DWORD bytes) override {
    if (!format) {
      std::lock_guard<std::mutex> lock(lock_);
      formatType_ = 0;
      format_.clear();
      return S_OK;
    }
    if (bytes > KAMS_MAX_FORMAT_BYTES) return E_INVALIDARG;
    // The record's own size field must fit inside what the caller says it handed over.
    if (streamType == KAFIO_STREAM_AUDIO) {
      DWORD dwSize = 0;
      if (bytes < 32) return E_INVALIDARG;
      std::memcpy(&dwSize, format, sizeof dwSize);
      if (dwSize < 32 || dwSize > bytes || dwSize > sizeof(_kawaveformat)) return E_INVALIDARG;
    } else if (streamType == KAFIO_STREAM_VIDEO) {
      DWORD biSize = 0;
      if (bytes < sizeof(BITMAPINFOHEADER)) return E_INVALIDARG;
      std::memcpy(&biSize, format, sizeof biSize);
      if (biSize < sizeof(BITMAPINFOHEADER) || biSize > bytes) return E_INVALIDARG;
    } else {
      return E_INVALIDARG;
    }
    try {
      std::vector<BYTE> copy(static_cast<const BYTE*>(format),
                             static_cast<const BYTE*>(format) + bytes);
      std::lock_guard<std::mutex> lock(lock_);
      formatType_ = streamType;
      format_.swap(copy);
    } catch (const std::bad_alloc&) {
      return E_OUTOFMEMORY;
    }
    return S_OK;
  }
  STDMETHOD(GetFormat)(DWORD* streamType, void* format, DWORD bytes, DWORD* needed) override {
    if (!streamType || !needed) return E_POINTER;
    std::lock_guard<std::mutex> lock(lock_);
    *streamType = formatType_;
    *needed = DWORD(format_.size());
    if (!formatType_) return S_FALSE;
    if (!format) return S_OK;
    if (bytes < format_.size()) return E_INVALIDARG;
    std::memcpy(format, format_.data(), format_.size());
    return S_OK;
  }

  STDMETHOD(DeferZeroFill)(DWORD bytes) override {
    if (bytes > capacity_) return E_INVALIDARG;
    std::lock_guard<std::mutex> lock(lock_);
    owedZeros_ = bytes;
    length_ = bytes;
    return S_OK;
  }
  STDMETHOD(IsZeroFillDeferred)(BOOL* deferred) override {
    if (!deferred) return E_POINTER;
    std::lock_guard<std::mutex> lock(lock_);
    *deferred = owedZeros_ ? TRUE : FALSE;
    return S_OK;
  }

 private:
  ~CKAMediaSample() { ::operator delete[](bytes_, kAlignment); }

  std::atomic<ULONG> refs_{1};
  BYTE* const bytes_;
  const DWORD capacity_;
  std::mutex lock_;
  DWORD length_ = 0;
  DWORD owedZeros_ = 0;
  DWORD flags_ = 0;
  TimePair time_, mediaTime_;
  DWORD formatType_ = 0;
  std::vector<BYTE> format_;
};

}  // namespace
}  // namespace ostra::fileio

HRESULT KaFio_CreateMediaSample(DWORD capacity, IKAMediaSample** sample) noexcept {
  using ostra::fileio::CKAMediaSample;
  using ostra::fileio::kAlignment;
  if (!sample) return E_POINTER;
  *sample = nullptr;
  if (capacity > KAMS_MAX_BYTES) return E_INVALIDARG;
  // One byte at least, so that GetPointer never hands out null.
  auto* bytes =
      static_cast<BYTE*>(::operator new[](capacity ? capacity : 1, kAlignment, std::nothrow));
  if (!bytes) return E_OUTOFMEMORY;
  std::memset(bytes, 0, capacity);
  *sample = new (std::nothrow) CKAMediaSample(bytes, capacity);
  if (!*sample) {
    ::operator delete[](bytes, kAlignment);
    return E_OUTOFMEMORY;
  }
  return S_OK;
}
