// Ctrl-C and termination requests for console programs: the signals are blocked in the
// caller (and so in every thread it starts afterwards) and taken by one thread with
// sigwait, which calls the program's handler as ordinary code, where it may stop a
// transport, take locks and print.
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <thread>

#include "ostra/kaplatform.h"

namespace {

std::atomic<KACONSOLEINTERRUPTPROC> gProc{nullptr};
std::atomic<void*> gContext{nullptr};
std::atomic<bool> gStarted{false};

}  // namespace

HRESULT KaConsole_OnInterrupt(KACONSOLEINTERRUPTPROC proc, void* context) noexcept {
  gContext = context;
  gProc = proc;
  if (gStarted.exchange(true)) return S_OK;
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  if (pthread_sigmask(SIG_BLOCK, &set, nullptr) != 0) return E_FAIL;
  try {
    std::thread([set] {
      for (;;) {
        int sig = 0;
        if (sigwait(&set, &sig) != 0) continue;
        if (KACONSOLEINTERRUPTPROC p = gProc.load()) p(gContext.load());
      }
    }).detach();
  } catch (...) {
    return E_OUTOFMEMORY;
  }
  return S_OK;
}
