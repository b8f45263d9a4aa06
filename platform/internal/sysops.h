// The table of raw operating-system operations under the platform layer. Production code
// uses the real calls; tests swap single entries for a fault-injecting twin (an allocator
// that fails the Nth call, a write that comes back short) the way an OS shim is tested,
// and the fuzz targets serve their input as a file from memory through it.
#pragma once

#include <cstddef>
#include <cstdint>

struct stat;

namespace ostra::platform {

struct SysOps {
  int (*open)(const char* path, int flags, unsigned mode);
  int (*close)(int fd);
  int64_t (*read)(int fd, void* buffer, size_t count);
  int64_t (*write)(int fd, const void* buffer, size_t count);
  int64_t (*seek)(int fd, int64_t offset, int whence);
  int (*truncate)(int fd, int64_t length);
  void* (*malloc)(size_t bytes);
  void* (*realloc)(void* block, size_t bytes);
  void (*free)(void* block);
  // Status of an open descriptor (size, kind, modification time), as fstat(2).
  int (*fstat)(int fd, struct stat* status);
};

// The live table. Swapping entries is for tests and is not thread-safe.
SysOps& sysOps() noexcept;
// The untouched real operations, for twins that pass calls through.
const SysOps& realSysOps() noexcept;

}  // namespace ostra::platform
