// Readability probe: the kernel copies the range into a pipe and reports EFAULT for an
// unreadable page, so the probe itself can never fault.
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <mutex>

#include "ostra/kaplatform.h"

namespace {

std::mutex gProbeLock;
int gPipe[2] = {-1, -1};

}  // namespace

BOOL KaMemory_IsReadable(const void* address, SIZE_T bytes) noexcept {
  if (!address) return FALSE;
  if (bytes == 0) return TRUE;
  if (reinterpret_cast<uintptr_t>(address) > UINTPTR_MAX - bytes) return FALSE;
  std::lock_guard lk(gProbeLock);
  if (gPipe[0] < 0 && pipe2(gPipe, O_CLOEXEC | O_NONBLOCK) != 0) return FALSE;
  const auto* p = static_cast<const char*>(address);
  char sink[4096];
  while (bytes) {
    const size_t n = bytes < sizeof sink ? bytes : sizeof sink;
    const ssize_t w = write(gPipe[1], p, n);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) return FALSE;
    for (ssize_t left = w; left > 0;) {
      const ssize_t r = read(gPipe[0], sink, size_t(left));
      if (r < 0 && errno == EINTR) continue;
      if (r <= 0) return FALSE;
      left -= r;
    }
    p += w;
    bytes -= size_t(w);
  }
  return TRUE;
}
