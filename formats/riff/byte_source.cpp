// File and memory byte sources for the chunk walkers.
#include "formats/riff/internal/byte_source.h"

#include <algorithm>
#include <cstring>

#include "ostra/kaplatform.h"
#include "ostra/mriff.h"

namespace ostra::riff {

namespace {
constexpr uint64_t kMaxSeek = uint64_t(INT64_MAX);

// Offset of p from base, 0 below base and at most `limit`.
uint32_t offsetOf(const BYTE* base, const BYTE* p, uint32_t limit) {
  const uintptr_t b = reinterpret_cast<uintptr_t>(base), q = reinterpret_cast<uintptr_t>(p);
  if (!base || q < b) return 0;
  return uint32_t(std::min<uintptr_t>(q - b, limit));
}
}  // namespace

// ---------------------------------------------------------------- files
bool FileSource::read(void* dst, uint32_t n, uint32_t* got) {
  DWORD k = 0;
  const HRESULT hr = KaFile_Read(file_, dst, n, &k);
  *got = k;
  return SUCCEEDED(hr);
}

bool FileSource::write(const void* src, uint32_t n, uint32_t* put) {
  DWORD k = 0;
  const HRESULT hr = KaFile_Write(file_, src, n, &k);
  *put = k;
  return SUCCEEDED(hr);
}

uint64_t FileSource::tell() {
  INT64 pos = 0;
  return SUCCEEDED(KaFile_GetPosition(file_, &pos)) && pos > 0 ? uint64_t(pos) : 0;
}

bool FileSource::seek(uint64_t position) {
  return position <= kMaxSeek &&
         SUCCEEDED(KaFile_Seek(file_, INT64(position), FILE_BEGIN, nullptr));
}

// One relative seek: the system refuses a position past the largest offset itself.
bool FileSource::skip(uint64_t n) {
  if (n == 0) return true;
  return n <= kMaxSeek && SUCCEEDED(KaFile_Seek(file_, INT64(n), FILE_CURRENT, nullptr));
}

uint64_t FileSource::size() {
  UINT64 n = 0;
  return SUCCEEDED(KaFile_GetSize(file_, &n)) ? n : 0;
}

bool FileSource::truncateHere() { return SUCCEEDED(KaFile_SetEndOfFile(file_)); }

// ---------------------------------------------------------------- memory
uint32_t MemorySource::capacityOffset() const {
  return offsetOf(r_->base, r_->capacityEnd, UINT32_MAX);
}
uint32_t MemorySource::dataOffset() const {
  return offsetOf(r_->base, r_->dataEnd, capacityOffset());
}
uint32_t MemorySource::currentOffset() const {
  return offsetOf(r_->base, r_->current, dataOffset());
}
void MemorySource::setCurrent(uint32_t offset) {
  if (r_->base) r_->current = r_->base + std::min(offset, dataOffset());
}

bool MemorySource::read(void* dst, uint32_t n, uint32_t* got) {
  *got = 0;
  const uint32_t cur = currentOffset();
  const uint32_t k = std::min(n, dataOffset() - cur);
  if (k == 0) return true;
  if (!dst) return false;
  std::memcpy(dst, r_->base + cur, k);
  r_->current = r_->base + cur + k;
  *got = k;
  return true;
}

bool MemorySource::write(const void* src, uint32_t n, uint32_t* put) {
  *put = 0;
  const uint32_t cur = currentOffset();
  const uint32_t k = std::min(n, capacityOffset() - cur);
  if (k == 0) return true;
  if (!src) return false;
  std::memmove(r_->base + cur, src, k);
  r_->current = r_->base + cur + k;
  if (cur + k > dataOffset()) r_->dataEnd = r_->current;
  *put = k;
  return true;
}

uint64_t MemorySource::tell() { return currentOffset(); }

bool MemorySource::seek(uint64_t position) {
  setCurrent(uint32_t(std::min<uint64_t>(position, UINT32_MAX)));
  return true;
}

bool MemorySource::skip(uint64_t n) {
  const uint32_t cur = currentOffset();
  setCurrent(cur + uint32_t(std::min<uint64_t>(n, dataOffset() - cur)));
  return true;
}

uint64_t MemorySource::size() { return dataOffset(); }

bool MemorySource::truncateHere() {
  if (!r_->base) return false;
  r_->dataEnd = r_->base + currentOffset();
  return true;
}

// ---------------------------------------------------------------- read-only memory
bool SpanSource::read(void* dst, uint32_t n, uint32_t* got) {
  *got = 0;
  if (pos_ >= size_ || n == 0) return true;
  if (!dst) return false;
  const uint32_t k = uint32_t(std::min<uint64_t>(n, size_ - pos_));
  std::memcpy(dst, data_ + pos_, k);
  pos_ += k;
  *got = k;
  return true;
}

bool SpanSource::write(const void*, uint32_t, uint32_t* put) {
  *put = 0;
  return false;
}

bool SpanSource::seek(uint64_t position) {
  if (position > kMaxSeek) return false;
  pos_ = position;
  return true;
}

bool SpanSource::skip(uint64_t n) { return n <= kMaxSeek - pos_ && seek(pos_ + n); }

}  // namespace ostra::riff
