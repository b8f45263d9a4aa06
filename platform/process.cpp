// Child processes. The child is forked and waits on a pipe before it executes the program,
// which is how a process can be created suspended; a second pipe, closed by a successful
// exec, brings back the errno of a failed one. One detached thread per child waits for it
// and signals the handle.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "ostra/kaerror.h"
#include "ostra/kamodule.h"
#include "ostra/kaplatform.h"
#include "platform/internal/text.h"
#include "platform/internal/waitable.h"

using namespace ostra::platform;

namespace {

struct ProcessObject : SyncObject {
  ProcessObject() : SyncObject(ObjKind::Process) {}
  ~ProcessObject() override {
    if (goFd >= 0) close(goFd);
    if (statusFd >= 0) close(statusFd);
  }
  // A child never resumed reads end-of-file and exits instead of waiting for ever.
  void handleClosed() override {
    if (goFd >= 0) close(goFd);
    goFd = -1;
  }
  pid_t pid = 0;
  int goFd = -1;
  int statusFd = -1;
  DWORD exitCode = STILL_ACTIVE;
  bool terminated = false;
  DWORD terminateCode = 0;
};

ProcessObject* lookupProcessLocked(HANDLE h) {
  SyncObject* o = lookupLocked(h);
  return o && o->kind == ObjKind::Process ? static_cast<ProcessObject*>(o) : nullptr;
}

std::string findProgram(const std::string& name) {
  if (name.find('/') != std::string::npos) return name;
  const char* path = std::getenv("PATH");
  std::string dirs = path ? path : "/usr/local/bin:/usr/bin:/bin";
  size_t start = 0;
  while (start <= dirs.size()) {
    size_t end = dirs.find(':', start);
    if (end == std::string::npos) end = dirs.size();
    std::string dir = dirs.substr(start, end - start);
    std::string candidate = (dir.empty() ? std::string(".") : dir) + "/" + name;
    struct stat st;
    if (stat(candidate.c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
        access(candidate.c_str(), X_OK) == 0)
      return candidate;
    start = end + 1;
  }
  return {};
}

// Lets the child go on to exec and reports how that went.
HRESULT startChild(int goFd, int statusFd) {
  const char go = 'g';
  while (write(goFd, &go, 1) < 0 && errno == EINTR) {
  }
  close(goFd);
  int err = 0;
  ssize_t n;
  while ((n = read(statusFd, &err, sizeof err)) < 0 && errno == EINTR) {
  }
  close(statusFd);
  return n == ssize_t(sizeof err) ? KaHresultFromErrno(err) : S_OK;
}

void reap(ProcessObject* p) {
  int status = 0;
  while (waitpid(p->pid, &status, 0) < 0 && errno == EINTR) {
  }
  const DWORD code =
      WIFEXITED(status) ? DWORD(WEXITSTATUS(status)) : 128u + DWORD(WTERMSIG(status));
  std::lock_guard lk(syncLock());
  p->exitCode = p->terminated ? p->terminateCode : code;
  signalLocked(p);
  releaseLocked(p);
}

}  // namespace

HRESULT KaProcess_Create(const KAWCHAR* program, const KAWCHAR* const* arguments, DWORD flags,
                         HANDLE* process, DWORD* processId) noexcept try {
  if (process) *process = nullptr;
  if (processId) *processId = 0;
  if (!program || !*program || !process) return E_INVALIDARG;
  std::vector<std::string> args{ostra::text::utf16ToUtf8(program)};
  for (const KAWCHAR* const* a = arguments; a && *a; ++a)
    args.push_back(ostra::text::utf16ToUtf8(*a));
  const std::string path = findProgram(args[0]);
  if (path.empty()) return KAERR_NOT_FOUND;
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);

  auto* p = new ProcessObject;
  int go[2], status[2];
  if (pipe2(go, O_CLOEXEC) != 0) {
    delete p;
    return KaHresultFromErrno(errno);
  }
  if (pipe2(status, O_CLOEXEC) != 0) {
    const HRESULT hr = KaHresultFromErrno(errno);
    close(go[0]);
    close(go[1]);
    delete p;
    return hr;
  }
  const pid_t pid = fork();
  if (pid == 0) {
    // Only async-signal-safe calls from here on. Without our copy of the write end, a
    // parent that closes its own makes the read below see end-of-file.
    close(go[1]);
    close(status[0]);
    char c;
    ssize_t r;
    while ((r = read(go[0], &c, 1)) < 0 && errno == EINTR) {
    }
    if (r != 1) _exit(127);
    execv(path.c_str(), argv.data());
    const int err = errno;
    while (write(status[1], &err, sizeof err) < 0 && errno == EINTR) {
    }
    _exit(127);
  }
  close(go[0]);
  close(status[1]);
  if (pid < 0) {
    const HRESULT hr = KaHresultFromErrno(errno);
    close(go[1]);
    close(status[0]);
    delete p;
    return hr;
  }
  p->pid = pid;
  p->goFd = go[1];
  p->statusFd = status[0];
  p->refs = 2;  // the handle and the thread that waits for the child
  HANDLE h;
  {
    std::lock_guard lk(syncLock());
    h = addHandleLocked(p);
  }
  std::thread(reap, p).detach();
  if (!(flags & CREATE_SUSPENDED)) {
    const HRESULT hr = KaProcess_Resume(h);
    if (FAILED(hr)) {
      KaCloseHandle(h);
      return hr;
    }
  }
  *process = h;
  if (processId) *processId = DWORD(pid);
  return S_OK;
} catch (const std::bad_alloc&) {
  return E_OUTOFMEMORY;
} catch (...) {
  return E_FAIL;
}

HRESULT KaProcess_Resume(HANDLE process) noexcept {
  int goFd, statusFd;
  {
    std::lock_guard lk(syncLock());
    ProcessObject* p = lookupProcessLocked(process);
    if (!p) return E_HANDLE;
    if (p->goFd < 0) return S_FALSE;  // already running
    goFd = p->goFd;
    statusFd = p->statusFd;
    p->goFd = p->statusFd = -1;
  }
  return startChild(goFd, statusFd);
}

DWORD KaProcess_GetId(HANDLE process) noexcept {
  std::lock_guard lk(syncLock());
  ProcessObject* p = lookupProcessLocked(process);
  return p ? DWORD(p->pid) : 0;
}

BOOL KaProcess_GetExitCode(HANDLE process, DWORD* exitCode) noexcept {
  if (!exitCode) return FALSE;
  std::lock_guard lk(syncLock());
  ProcessObject* p = lookupProcessLocked(process);
  if (!p) return FALSE;
  *exitCode = p->exitCode;
  return TRUE;
}

BOOL KaProcess_Terminate(HANDLE process, DWORD exitCode) noexcept {
  std::lock_guard lk(syncLock());
  ProcessObject* p = lookupProcessLocked(process);
  if (!p || p->exitCode != STILL_ACTIVE) return FALSE;
  p->terminated = true;
  p->terminateCode = exitCode;
  return kill(p->pid, SIGKILL) == 0;
}

DWORD KaGetCurrentProcessId() noexcept { return DWORD(getpid()); }
