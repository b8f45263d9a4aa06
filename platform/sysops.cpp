#include "platform/internal/sysops.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

namespace ostra::platform {
namespace {

int realOpen(const char* path, int flags, unsigned mode) {
  return ::open(path, flags, mode_t(mode));
}
int realClose(int fd) { return ::close(fd); }
int64_t realRead(int fd, void* b, size_t n) { return ::read(fd, b, n); }
int64_t realWrite(int fd, const void* b, size_t n) { return ::write(fd, b, n); }
int64_t realSeek(int fd, int64_t off, int whence) { return ::lseek(fd, off_t(off), whence); }
int realTruncate(int fd, int64_t len) { return ::ftruncate(fd, off_t(len)); }
int realFstat(int fd, struct stat* st) { return ::fstat(fd, st); }

constexpr SysOps kReal{realOpen,     realClose,   realRead,     realWrite, realSeek,
                       realTruncate, std::malloc, std::realloc, std::free, realFstat};
SysOps gLive = kReal;

}  // namespace

SysOps& sysOps() noexcept { return gLive; }
const SysOps& realSysOps() noexcept { return kReal; }

}  // namespace ostra::platform
