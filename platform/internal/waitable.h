// The waitable-object core shared by events, mutexes, threads and processes: one
// process-wide lock guards the handle table, every object's state, the waiter lists and
// the per-thread callback queues, so that a wait on several objects sees them all at one
// instant (wait-all takes them together or not at all). Each thread sleeps on its own
// condition variable and is woken by whoever signals an object it waits on.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <vector>

#include "ostra/kathread.h"

namespace ostra::platform {

struct ThreadState;

enum class ObjKind : uint8_t { Event, Mutex, Thread, Process, Semaphore };

struct SyncObject {
  explicit SyncObject(ObjKind k) : kind(k) {}
  virtual ~SyncObject() = default;
  // Called under the lock when the handle is closed (the object may live on).
  virtual void handleClosed() {}
  ObjKind kind;
  int refs = 1;  // the handle's reference; waiters and runners add their own
  bool signalled = false;
  bool manualReset = true;  // threads and processes stay signalled once they end
  // Mutex state.
  ThreadState* owner = nullptr;
  uint32_t recursion = 0;
  bool abandoned = false;
  // Semaphore state.
  long count = 0;
  long maximum = 0;
  std::vector<ThreadState*> waiters;
};

struct SentCallback {
  KATHREAD_CALLBACK fn;
  void* context;
  int state = 0;  // 0 pending, 1 running, 2 done, 3 cancelled
  std::condition_variable done;
};

struct ThreadState {
  DWORD id = 0;
  std::condition_variable wake;
  std::deque<std::pair<KATHREAD_CALLBACK, void*>> apcs;
  std::deque<std::pair<KATHREAD_CALLBACK, void*>> posted;
  std::deque<SentCallback*> sent;
  bool newPosted = false;  // a posted callback arrived since the queue was last read
  std::vector<SyncObject*> ownedMutexes;
};

std::mutex& syncLock() noexcept;
// The calling thread's state, created on first use.
ThreadState& currentThread();
// Releases what the calling thread holds (abandons its mutexes, fails callbacks sent to
// it) and forgets it; the thread must not use the wait functions afterwards.
void endCurrentThread() noexcept;

// Handle table; all *Locked functions expect syncLock() held.
HANDLE addHandleLocked(SyncObject* obj);
SyncObject* lookupLocked(HANDLE h) noexcept;
void releaseLocked(SyncObject* obj) noexcept;  // drops one reference, deletes at zero
void signalLocked(SyncObject* obj) noexcept;   // signals and wakes the object's waiters
void wakeWaitersLocked(SyncObject* obj) noexcept;
uint64_t liveHandlesLocked() noexcept;

DWORD currentThreadId() noexcept;

}  // namespace ostra::platform
