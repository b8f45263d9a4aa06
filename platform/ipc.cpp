// Channels between processes: local stream sockets in the abstract namespace (no file to
// clean up; the name dies with the last socket) for calls, and POSIX shared memory for
// bulk data. Every descriptor is close-on-exec, so children started later inherit none.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>

#include "ostra/kaerror.h"
#include "ostra/kaipc.h"
#include "ostra/kaplatform.h"

struct KAIPC_CHANNEL_ {
  int fd;
};
struct KAIPC_LISTENER_ {
  int fd;
};
struct KAIPC_SHARED_ {
  void* at;
  UINT64 size;
  std::string name;
  bool owner;
};

namespace {

std::atomic<unsigned> gSerial{0};

std::string freshName(const char* kind) {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  char name[KAIPC_NAME_CHARS];
  std::snprintf(name, sizeof name, "ostra-%s-%d-%u-%lx", kind, int(getpid()), ++gSerial,
                (unsigned long)(ts.tv_nsec & 0xFFFFF));
  return name;
}

socklen_t address(const char* name, sockaddr_un* a) {
  std::memset(a, 0, sizeof *a);
  a->sun_family = AF_UNIX;
  const size_t n = std::min(std::strlen(name), sizeof a->sun_path - 2);
  std::memcpy(a->sun_path + 1, name, n);  // abstract: a leading zero byte
  return socklen_t(offsetof(sockaddr_un, sun_path) + 1 + n);
}

long long nowMs() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return (long long)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

// Waits for `events` on fd until the deadline (-1: none): 1 ready, 0 time out, <0 error.
int waitFor(int fd, short events, long long deadline) {
  for (;;) {
    int timeout = -1;
    if (deadline >= 0) {
      const long long left = deadline - nowMs();
      if (left <= 0) return 0;
      timeout = int(std::min<long long>(left, 1 << 30));
    }
    pollfd p{fd, events, 0};
    const int r = poll(&p, 1, timeout);
    if (r < 0 && errno == EINTR) continue;
    return r;
  }
}

}  // namespace

HRESULT KaIpc_Listen(char* name, DWORD chars, KAHIPCLISTEN* listener) noexcept {
  if (!name || !listener) return E_POINTER;
  *listener = nullptr;
  const std::string n = freshName("ipc");
  if (n.size() + 1 > chars) return E_INVALIDARG;
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return KaHresultFromErrno(errno);
  sockaddr_un a;
  const socklen_t len = address(n.c_str(), &a);
  if (bind(fd, reinterpret_cast<sockaddr*>(&a), len) < 0 || listen(fd, 8) < 0) {
    const HRESULT hr = KaHresultFromErrno(errno);
    close(fd);
    return hr;
  }
  auto* l = new (std::nothrow) KAIPC_LISTENER_{fd};
  if (!l) {
    close(fd);
    return E_OUTOFMEMORY;
  }
  std::memcpy(name, n.c_str(), n.size() + 1);
  *listener = l;
  return S_OK;
}

HRESULT KaIpc_Accept(KAHIPCLISTEN listener, DWORD timeoutMs, KAHIPC* channel) noexcept {
  if (!listener || !channel) return E_POINTER;
  *channel = nullptr;
  const long long deadline = timeoutMs == INFINITE ? -1 : nowMs() + timeoutMs;
  const int r = waitFor(listener->fd, POLLIN, deadline);
  if (r == 0) return KAERR_TIMEOUT;
  if (r < 0) return KaHresultFromErrno(errno);
  const int fd = accept4(listener->fd, nullptr, nullptr, SOCK_CLOEXEC);
  if (fd < 0) return KaHresultFromErrno(errno);
  auto* c = new (std::nothrow) KAIPC_CHANNEL_{fd};
  if (!c) {
    close(fd);
    return E_OUTOFMEMORY;
  }
  *channel = c;
  return S_OK;
}

void KaIpc_CloseListener(KAHIPCLISTEN listener) noexcept {
  if (!listener) return;
  close(listener->fd);
  delete listener;
}

HRESULT KaIpc_Connect(const char* name, KAHIPC* channel) noexcept {
  if (!name || !channel) return E_POINTER;
  *channel = nullptr;
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return KaHresultFromErrno(errno);
  sockaddr_un a;
  const socklen_t len = address(name, &a);
  if (connect(fd, reinterpret_cast<sockaddr*>(&a), len) < 0) {
    const HRESULT hr = KaHresultFromErrno(errno);
    close(fd);
    return hr;
  }
  auto* c = new (std::nothrow) KAIPC_CHANNEL_{fd};
  if (!c) {
    close(fd);
    return E_OUTOFMEMORY;
  }
  *channel = c;
  return S_OK;
}

HRESULT KaIpc_Send(KAHIPC channel, const void* bytes, DWORD count) noexcept {
  if (!channel || (!bytes && count)) return E_POINTER;
  const auto* p = static_cast<const char*>(bytes);
  while (count) {
    const ssize_t n = send(channel->fd, p, count, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0)
      return errno == EPIPE || errno == ECONNRESET ? KAERR_CLOSED : KaHresultFromErrno(errno);
    p += n;
    count -= DWORD(n);
  }
  return S_OK;
}

HRESULT KaIpc_Receive(KAHIPC channel, void* bytes, DWORD count, DWORD timeoutMs) noexcept {
  if (!channel || (!bytes && count)) return E_POINTER;
  const long long deadline = timeoutMs == INFINITE ? -1 : nowMs() + timeoutMs;
  auto* p = static_cast<char*>(bytes);
  while (count) {
    const int r = waitFor(channel->fd, POLLIN, deadline);
    if (r == 0) return KAERR_TIMEOUT;
    if (r < 0) return KaHresultFromErrno(errno);
    const ssize_t n = recv(channel->fd, p, count, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n == 0 || (n < 0 && errno == ECONNRESET)) return KAERR_CLOSED;
    if (n < 0) return KaHresultFromErrno(errno);
    p += n;
    count -= DWORD(n);
  }
  return S_OK;
}

void KaIpc_Close(KAHIPC channel) noexcept {
  if (!channel) return;
  close(channel->fd);
  delete channel;
}

namespace {

HRESULT mapShared(const std::string& name, UINT64 bytes, bool create, KAHSHARED* shared) {
  const std::string path = "/" + name;
  const int fd = shm_open(
      path.c_str(), create ? O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC : O_RDWR | O_CLOEXEC, 0600);
  if (fd < 0) return KaHresultFromErrno(errno);
  if (create && ftruncate(fd, off_t(bytes)) < 0) {
    const HRESULT hr = KaHresultFromErrno(errno);
    close(fd);
    shm_unlink(path.c_str());
    return hr;
  }
  void* at = mmap(nullptr, size_t(bytes), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  const int err = errno;
  close(fd);
  if (at == MAP_FAILED) {
    if (create) shm_unlink(path.c_str());
    return KaHresultFromErrno(err);
  }
  auto* s = new (std::nothrow) KAIPC_SHARED_{at, bytes, name, create};
  if (!s) {
    munmap(at, size_t(bytes));
    if (create) shm_unlink(path.c_str());
    return E_OUTOFMEMORY;
  }
  *shared = s;
  return S_OK;
}

}  // namespace

HRESULT KaShared_Create(UINT64 bytes, char* name, DWORD chars, KAHSHARED* shared) noexcept try {
  if (!name || !shared) return E_POINTER;
  *shared = nullptr;
  if (!bytes) return E_INVALIDARG;
  const std::string n = freshName("shm");
  if (n.size() + 1 > chars) return E_INVALIDARG;
  const HRESULT hr = mapShared(n, bytes, true, shared);
  if (SUCCEEDED(hr)) std::memcpy(name, n.c_str(), n.size() + 1);
  return hr;
} catch (...) {
  return E_OUTOFMEMORY;
}

HRESULT KaShared_Open(const char* name, UINT64 bytes, KAHSHARED* shared) noexcept try {
  if (!name || !shared) return E_POINTER;
  *shared = nullptr;
  if (!bytes) return E_INVALIDARG;
  return mapShared(name, bytes, false, shared);
} catch (...) {
  return E_OUTOFMEMORY;
}

void* KaShared_Pointer(KAHSHARED shared) noexcept { return shared ? shared->at : nullptr; }
UINT64 KaShared_Size(KAHSHARED shared) noexcept { return shared ? shared->size : 0; }

void KaShared_Close(KAHSHARED shared) noexcept {
  if (!shared) return;
  munmap(shared->at, size_t(shared->size));
  if (shared->owner) shm_unlink(("/" + shared->name).c_str());
  delete shared;
}
