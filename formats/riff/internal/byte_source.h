// The byte source under every chunk walker of formats/riff: an open file handle, a
// caller's memory image, or fuzz input all look the same to the RIFF and Wave64 code.
// Owned by the chunk layers (riff, riff64, mriff) and the IFF, AIFF, wave, summary,
// display-list and format-detection code; nothing outside formats/riff uses it except
// tests and fuzz targets, which feed memory through SpanSource.
#pragma once

#include <cstdint>

#include "ostra/kadefs.h"

struct _tMRIFF;

namespace ostra::riff {

class ByteSource {
 public:
  virtual ~ByteSource() = default;
  // Copies up to n bytes from the position and advances by what was copied (*got). False
  // only when the device failed; running into the end of the data is not a failure.
  virtual bool read(void* dst, uint32_t n, uint32_t* got) = 0;
  // Writes up to n bytes. A file writes all or fails; memory stops quietly at its
  // capacity, so exact writers compare *put with n.
  virtual bool write(const void* src, uint32_t n, uint32_t* put) = 0;
  virtual uint64_t tell() = 0;
  // Absolute and forward-relative moves. Files may move past their end (the next read
  // then comes back short); memory clamps to the end of its data.
  virtual bool seek(uint64_t position) = 0;
  virtual bool skip(uint64_t n) = 0;
  // Length of the readable data.
  virtual uint64_t size() = 0;
  // Makes the current position the end of the data.
  virtual bool truncateHere() = 0;

  // Convenience for exact transfers.
  bool readAll(void* dst, uint32_t n) {
    uint32_t got = 0;
    return read(dst, n, &got) && got == n;
  }
  bool writeAll(const void* src, uint32_t n) {
    uint32_t put = 0;
    return write(src, n, &put) && put == n;
  }
  bool readU32(uint32_t* v) { return readAll(v, 4); }
  bool readU64(uint64_t* v) { return readAll(v, 8); }
  bool writeU32(uint32_t v) { return writeAll(&v, 4); }
  bool writeU64(uint64_t v) { return writeAll(&v, 8); }
};

// An operating-system file handle; no buffering, every call goes to the platform layer.
class FileSource final : public ByteSource {
 public:
  explicit FileSource(KAHFILE file) : file_(file) {}
  bool read(void* dst, uint32_t n, uint32_t* got) override;
  bool write(const void* src, uint32_t n, uint32_t* put) override;
  uint64_t tell() override;
  bool seek(uint64_t position) override;
  bool skip(uint64_t n) override;
  uint64_t size() override;
  bool truncateHere() override;

 private:
  KAHFILE file_;
};

// A _tMRIFF record: reads stop at the end of data, writes at the capacity end and move
// the end of data with them; positions are clamped, never refused. The record's
// pointers are re-validated on every call, so a record the caller scribbled on still
// cannot make us touch a byte outside [base, capacity end].
class MemorySource final : public ByteSource {
 public:
  explicit MemorySource(_tMRIFF* record) : r_(record) {}
  bool read(void* dst, uint32_t n, uint32_t* got) override;
  bool write(const void* src, uint32_t n, uint32_t* put) override;
  uint64_t tell() override;
  bool seek(uint64_t position) override;
  bool skip(uint64_t n) override;
  uint64_t size() override;
  bool truncateHere() override;

  uint32_t capacityOffset() const;
  uint32_t dataOffset() const;
  uint32_t currentOffset() const;    // clamped into [0, dataOffset]
  void setCurrent(uint32_t offset);  // clamped into [0, dataOffset]

 private:
  _tMRIFF* r_;
};

// A caller's read-only bytes that behave like a read-only file: positions may pass the
// end (reads there come back empty), and writes and truncation fail as on a file opened
// for reading. The same bytes give the same results through this and a FileSource.
class SpanSource final : public ByteSource {
 public:
  SpanSource(const void* data, uint64_t size)
      : data_(static_cast<const uint8_t*>(data)), size_(data ? size : 0) {}
  bool read(void* dst, uint32_t n, uint32_t* got) override;
  bool write(const void* src, uint32_t n, uint32_t* put) override;
  uint64_t tell() override { return pos_; }
  bool seek(uint64_t position) override;
  bool skip(uint64_t n) override;
  uint64_t size() override { return size_; }
  bool truncateHere() override { return false; }

 private:
  const uint8_t* data_;
  uint64_t size_;
  uint64_t pos_ = 0;
};

}  // namespace ostra::riff
