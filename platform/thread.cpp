// Threads, thread ids and priorities, and the per-thread callback queues that stand in
// for thread messages and user APCs on POSIX.
#include <errno.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <unordered_map>

#include "ostra/kathread.h"
#include "platform/internal/waitable.h"

namespace ostra::platform {
namespace {

thread_local DWORD tThreadId = 0;

std::unordered_map<DWORD, ThreadState*>& registry() {
  static auto* r = new std::unordered_map<DWORD, ThreadState*>;
  return *r;
}

// Ends the thread's state when a thread the kernel did not start exits.
struct StateHolder {
  ThreadState* state = nullptr;
  ~StateHolder() { endCurrentThread(); }
};
thread_local StateHolder tState;

ThreadState* findLocked(DWORD id) {
  auto it = registry().find(id);
  return it == registry().end() ? nullptr : it->second;
}

struct ThreadObject : SyncObject {
  ThreadObject() : SyncObject(ObjKind::Thread) {}
  KATHREAD_START_ROUTINE start = nullptr;
  void* parameter = nullptr;
  DWORD tid = 0;
  DWORD exitCode = STILL_ACTIVE;
  bool suspended = false;
  bool failed = false;
  std::condition_variable changed;
};

void* threadMain(void* arg) {
  auto* t = static_cast<ThreadObject*>(arg);
  bool run = true;
  try {
    currentThread();
  } catch (...) {
    run = false;
  }
  {
    std::unique_lock lk(syncLock());
    t->tid = currentThreadId();
    t->failed = !run;
    t->changed.notify_all();
    while (run && t->suspended) t->changed.wait(lk);
  }
  DWORD code = DWORD(E_UNEXPECTED);
  if (run) {
    try {
      code = t->start(t->parameter);
    } catch (...) {
      code = DWORD(E_UNEXPECTED);
    }
  }
  endCurrentThread();
  std::lock_guard lk(syncLock());
  t->exitCode = code;
  signalLocked(t);
  releaseLocked(t);
  return nullptr;
}

constexpr int kNice[] = {19, 10, 5, 0, -5, -10};  // IDLE, LOWEST .. HIGHEST

int niceFor(int priority) {
  switch (priority) {
    case THREAD_PRIORITY_IDLE:
      return kNice[0];
    case THREAD_PRIORITY_LOWEST:
      return kNice[1];
    case THREAD_PRIORITY_BELOW_NORMAL:
      return kNice[2];
    case THREAD_PRIORITY_NORMAL:
      return kNice[3];
    case THREAD_PRIORITY_ABOVE_NORMAL:
      return kNice[4];
    case THREAD_PRIORITY_HIGHEST:
      return kNice[5];
    default:
      return 100;
  }
}

// The system id behind a thread handle or the current-thread pseudo handle; 0 if none.
DWORD tidOf(HANDLE thread) {
  if (thread == KaGetCurrentThread()) return currentThreadId();
  std::lock_guard lk(syncLock());
  SyncObject* o = lookupLocked(thread);
  if (!o || o->kind != ObjKind::Thread) return 0;
  auto* t = static_cast<ThreadObject*>(o);
  return t->exitCode == STILL_ACTIVE ? t->tid : 0;
}

}  // namespace

DWORD currentThreadId() noexcept {
  if (!tThreadId) tThreadId = DWORD(gettid());
  return tThreadId;
}

ThreadState& currentThread() {
  if (tState.state) return *tState.state;
  auto* st = new ThreadState;
  st->id = currentThreadId();
  std::lock_guard lk(syncLock());
  try {
    registry()[st->id] = st;
  } catch (...) {
    delete st;
    throw;
  }
  tState.state = st;
  return *st;
}

void endCurrentThread() noexcept {
  ThreadState* st = tState.state;
  if (!st) return;
  std::lock_guard lk(syncLock());
  for (SyncObject* m : st->ownedMutexes) {
    m->owner = nullptr;
    m->recursion = 0;
    m->abandoned = true;
    wakeWaitersLocked(m);
    releaseLocked(m);
  }
  for (SentCallback* sc : st->sent) {
    sc->state = 3;
    sc->done.notify_all();
  }
  registry().erase(st->id);
  tState.state = nullptr;
  delete st;
}

}  // namespace ostra::platform

using namespace ostra::platform;

DWORD KaGetCurrentThreadId() noexcept { return currentThreadId(); }

HANDLE KaGetCurrentThread() noexcept { return reinterpret_cast<HANDLE>(intptr_t(-2)); }

HANDLE KaThread_Create(KATHREAD_START_ROUTINE start, void* parameter, SIZE_T stackSize, DWORD flags,
                       DWORD* threadId) noexcept {
  if (threadId) *threadId = 0;
  if (!start) return nullptr;
  ThreadObject* t;
  HANDLE h;
  try {
    t = new ThreadObject;
  } catch (...) {
    return nullptr;
  }
  t->start = start;
  t->parameter = parameter;
  t->manualReset = true;
  t->suspended = (flags & CREATE_SUSPENDED) != 0;
  t->refs = 2;  // the handle and the running thread
  {
    std::lock_guard lk(syncLock());
    try {
      h = addHandleLocked(t);
    } catch (...) {
      delete t;
      return nullptr;
    }
  }
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
  if (stackSize)
    pthread_attr_setstacksize(
        &attr, stackSize < SIZE_T(PTHREAD_STACK_MIN) ? SIZE_T(PTHREAD_STACK_MIN) : stackSize);
  pthread_t pth;
  const int rc = pthread_create(&pth, &attr, threadMain, t);
  pthread_attr_destroy(&attr);
  if (rc != 0) {
    {
      std::lock_guard lk(syncLock());
      --t->refs;
    }
    KaCloseHandle(h);
    return nullptr;
  }
  std::unique_lock lk(syncLock());
  while (!t->tid) t->changed.wait(lk);
  if (t->failed) {
    lk.unlock();
    KaCloseHandle(h);
    return nullptr;
  }
  if (threadId) *threadId = t->tid;
  return h;
}

DWORD KaThread_Resume(HANDLE thread) noexcept {
  std::lock_guard lk(syncLock());
  SyncObject* o = lookupLocked(thread);
  if (!o || o->kind != ObjKind::Thread) return DWORD(-1);
  auto* t = static_cast<ThreadObject*>(o);
  if (!t->suspended) return 0;
  t->suspended = false;
  t->changed.notify_all();
  return 1;
}

DWORD KaThread_GetId(HANDLE thread) noexcept {
  if (thread == KaGetCurrentThread()) return currentThreadId();
  std::lock_guard lk(syncLock());
  SyncObject* o = lookupLocked(thread);
  return o && o->kind == ObjKind::Thread ? static_cast<ThreadObject*>(o)->tid : 0;
}

BOOL KaThread_GetExitCode(HANDLE thread, DWORD* exitCode) noexcept {
  if (!exitCode) return FALSE;
  std::lock_guard lk(syncLock());
  SyncObject* o = lookupLocked(thread);
  if (!o || o->kind != ObjKind::Thread) return FALSE;
  *exitCode = static_cast<ThreadObject*>(o)->exitCode;
  return TRUE;
}

BOOL KaThread_SetPriority(HANDLE thread, int priority) noexcept {
  const DWORD tid = tidOf(thread);
  if (!tid) return FALSE;
  if (priority == THREAD_PRIORITY_TIME_CRITICAL) {
    sched_param sp{};
    sp.sched_priority = sched_get_priority_min(SCHED_RR);
    return sched_setscheduler(pid_t(tid), SCHED_RR, &sp) == 0;
  }
  const int nice = niceFor(priority);
  if (nice == 100) return FALSE;
  if (sched_getscheduler(pid_t(tid)) != SCHED_OTHER) {
    sched_param sp{};
    if (sched_setscheduler(pid_t(tid), SCHED_OTHER, &sp) != 0) return FALSE;
  }
  // On Linux the nice value of PRIO_PROCESS with a thread id belongs to that thread alone.
  return setpriority(PRIO_PROCESS, id_t(tid), nice) == 0;
}

int KaThread_GetPriority(HANDLE thread) noexcept {
  const DWORD tid = tidOf(thread);
  if (!tid) return THREAD_PRIORITY_ERROR_RETURN;
  const int policy = sched_getscheduler(pid_t(tid));
  if (policy == SCHED_RR || policy == SCHED_FIFO) return THREAD_PRIORITY_TIME_CRITICAL;
  if (policy < 0) return THREAD_PRIORITY_ERROR_RETURN;
  errno = 0;
  const int nice = getpriority(PRIO_PROCESS, id_t(tid));
  if (nice == -1 && errno) return THREAD_PRIORITY_ERROR_RETURN;
  if (nice >= 15) return THREAD_PRIORITY_IDLE;
  if (nice >= 8) return THREAD_PRIORITY_LOWEST;
  if (nice >= 3) return THREAD_PRIORITY_BELOW_NORMAL;
  if (nice > -3) return THREAD_PRIORITY_NORMAL;
  if (nice > -8) return THREAD_PRIORITY_ABOVE_NORMAL;
  return THREAD_PRIORITY_HIGHEST;
}

HRESULT KaThread_QueueApc(DWORD threadId, KATHREAD_CALLBACK callback, void* context) noexcept try {
  if (!callback) return E_INVALIDARG;
  std::lock_guard lk(syncLock());
  ThreadState* t = findLocked(threadId);
  if (!t) return E_INVALIDARG;
  t->apcs.emplace_back(callback, context);
  t->wake.notify_one();
  return S_OK;
} catch (...) {
  return E_OUTOFMEMORY;
}

HRESULT KaThread_PostCallback(DWORD threadId, KATHREAD_CALLBACK callback, void* context) noexcept
    try {
  if (!callback) return E_INVALIDARG;
  std::lock_guard lk(syncLock());
  ThreadState* t = findLocked(threadId);
  if (!t) return E_INVALIDARG;
  t->posted.emplace_back(callback, context);
  t->newPosted = true;
  t->wake.notify_one();
  return S_OK;
} catch (...) {
  return E_OUTOFMEMORY;
}

HRESULT KaThread_SendCallback(DWORD threadId, KATHREAD_CALLBACK callback, void* context,
                              DWORD milliseconds) noexcept try {
  if (!callback) return E_INVALIDARG;
  if (threadId == currentThreadId()) {
    callback(context);
    return S_OK;
  }
  SentCallback sc;
  sc.fn = callback;
  sc.context = context;
  std::unique_lock lk(syncLock());
  ThreadState* t = findLocked(threadId);
  if (!t) return E_INVALIDARG;
  t->sent.push_back(&sc);
  t->wake.notify_one();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
  while (sc.state < 2) {
    if (milliseconds == INFINITE || sc.state == 1) {
      sc.done.wait(lk);
    } else if (sc.done.wait_until(lk, deadline) == std::cv_status::timeout && sc.state == 0) {
      // Still queued: take it back, the target never sees it. The target is alive, since
      // a thread that ends marks its pending callbacks cancelled.
      auto& q = t->sent;
      for (auto it = q.begin(); it != q.end(); ++it)
        if (*it == &sc) {
          q.erase(it);
          break;
        }
      return E_ABORT;
    }
  }
  return sc.state == 2 ? S_OK : E_ABORT;
} catch (...) {
  return E_OUTOFMEMORY;
}

UINT KaThread_DispatchCallbacks(DWORD mask) noexcept {
  ThreadState* me;
  try {
    me = &currentThread();
  } catch (...) {
    return 0;
  }
  UINT ran = 0;
  std::unique_lock lk(syncLock());
  me->newPosted = false;
  // Only what is queued now runs, so a callback that posts again cannot keep us here.
  size_t sentLeft = (mask & QS_SENDMESSAGE) ? me->sent.size() : 0;
  size_t postedLeft = (mask & (QS_POSTMESSAGE | QS_ALLPOSTMESSAGE)) ? me->posted.size() : 0;
  while (sentLeft || postedLeft) {
    if (sentLeft && !me->sent.empty()) {
      --sentLeft;
      SentCallback* sc = me->sent.front();
      me->sent.pop_front();
      sc->state = 1;
      lk.unlock();
      sc->fn(sc->context);
      lk.lock();
      sc->state = 2;
      sc->done.notify_all();
    } else if (postedLeft && !me->posted.empty()) {
      --postedLeft;
      auto [fn, ctx] = me->posted.front();
      me->posted.pop_front();
      lk.unlock();
      fn(ctx);
      lk.lock();
    } else {
      break;
    }
    ++ran;
  }
  return ran;
}

DWORD KaThread_GetQueueStatus() noexcept {
  ThreadState* me;
  try {
    me = &currentThread();
  } catch (...) {
    return 0;
  }
  std::lock_guard lk(syncLock());
  DWORD bits = 0;
  if (!me->sent.empty()) bits |= QS_SENDMESSAGE;
  if (!me->posted.empty()) bits |= QS_ALLPOSTMESSAGE | (me->newPosted ? QS_POSTMESSAGE : 0);
  return bits;
}
