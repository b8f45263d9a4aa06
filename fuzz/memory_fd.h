// The fuzz input as a file descriptor served from memory: the platform's system-call table
// is pointed at a twin that answers one reserved descriptor (and one reserved path) from a
// byte vector, so the exported file functions (riff_*, riff64_*, bitmaps, the tool's
// `info`) run on the fuzz bytes at memory speed, without a scratch file. Every other
// descriptor passes through to the real calls. Fuzz targets are single-threaded, which the
// table swap needs.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <vector>

#include "ostra/kaplatform.h"
#include "platform/internal/sysops.h"

namespace ostra::fuzz {

class MemoryDescriptor {
 public:
  static constexpr int kFd = 1 << 28;  // far above any real descriptor
  static constexpr const char* kPath = "/ostra-fuzz/input";
  static constexpr const KAWCHAR* kWidePath = u"/ostra-fuzz/input";

  MemoryDescriptor() {
    live() = this;
    auto& ops = platform::sysOps();
    ops.open = &fdOpen;
    ops.close = &fdClose;
    ops.read = &fdRead;
    ops.write = &fdWrite;
    ops.seek = &fdSeek;
    ops.truncate = &fdTruncate;
    ops.fstat = &fdFstat;
  }
  ~MemoryDescriptor() {
    platform::sysOps() = platform::realSysOps();
    live() = nullptr;
  }
  MemoryDescriptor(const MemoryDescriptor&) = delete;
  MemoryDescriptor& operator=(const MemoryDescriptor&) = delete;

  // The bytes as a file opened for reading and writing, positioned at 0.
  KAHFILE open(const uint8_t* data, size_t size) {
    bytes_.assign(data, data + size);
    pos_ = 0;
    ++generation_;  // a new file to readers that remember files by identity, size and time
    return kFd;
  }
  const std::vector<uint8_t>& bytes() const { return bytes_; }

 private:
  // Parsers may write what they read; far more than that is a runaway loop.
  static constexpr uint64_t kLimit = uint64_t(64) << 20;

  static MemoryDescriptor*& live() {
    static MemoryDescriptor* d = nullptr;
    return d;
  }
  static int fail(int error) {
    errno = error;
    return -1;
  }

  static int fdOpen(const char* path, int flags, unsigned mode) {
    if (std::strcmp(path, kPath) != 0) return platform::realSysOps().open(path, flags, mode);
    MemoryDescriptor* d = live();
    if (flags & O_TRUNC) d->bytes_.clear();
    d->pos_ = 0;
    return kFd;
  }
  static int fdClose(int fd) { return fd == kFd ? 0 : platform::realSysOps().close(fd); }
  static int64_t fdRead(int fd, void* buffer, size_t count) {
    if (fd != kFd) return platform::realSysOps().read(fd, buffer, count);
    MemoryDescriptor* d = live();
    const uint64_t left = d->pos_ < d->bytes_.size() ? d->bytes_.size() - d->pos_ : 0;
    const size_t n = size_t(std::min<uint64_t>(count, left));
    if (n) std::memcpy(buffer, d->bytes_.data() + d->pos_, n);
    d->pos_ += n;
    return int64_t(n);
  }
  static int64_t fdWrite(int fd, const void* buffer, size_t count) {
    if (fd != kFd) return platform::realSysOps().write(fd, buffer, count);
    MemoryDescriptor* d = live();
    if (d->pos_ + count > kLimit) return fail(EFBIG);
    if (d->pos_ + count > d->bytes_.size()) d->bytes_.resize(size_t(d->pos_ + count));
    if (count) std::memcpy(d->bytes_.data() + d->pos_, buffer, count);
    d->pos_ += count;
    return int64_t(count);
  }
  static int64_t fdSeek(int fd, int64_t offset, int whence) {
    if (fd != kFd) return platform::realSysOps().seek(fd, offset, whence);
    MemoryDescriptor* d = live();
    const int64_t base = whence == SEEK_SET   ? 0
                         : whence == SEEK_CUR ? int64_t(d->pos_)
                         : whence == SEEK_END ? int64_t(d->bytes_.size())
                                              : -1;
    if (base < 0) return fail(EINVAL);
    if ((offset < 0 && -offset > base) || (offset > 0 && uint64_t(offset) > kLimit))
      return fail(EINVAL);
    const int64_t to = base + offset;
    if (uint64_t(to) > kLimit) return fail(EINVAL);
    d->pos_ = uint64_t(to);
    return to;
  }
  static int fdTruncate(int fd, int64_t length) {
    if (fd != kFd) return platform::realSysOps().truncate(fd, length);
    if (length < 0 || uint64_t(length) > kLimit) return fail(EINVAL);
    live()->bytes_.resize(size_t(length));
    return 0;
  }
  static int fdFstat(int fd, struct stat* status) {
    if (fd != kFd) return platform::realSysOps().fstat(fd, status);
    *status = {};
    status->st_mode = S_IFREG | 0644;
    status->st_size = off_t(live()->bytes_.size());
    status->st_ino = ino_t(live()->generation_);
    return 0;
  }

  std::vector<uint8_t> bytes_;
  uint64_t pos_ = 0;
  uint64_t generation_ = 0;
};

}  // namespace ostra::fuzz
