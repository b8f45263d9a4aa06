// Handle table, events, mutexes and the wait functions.
#include "platform/internal/waitable.h"

#include <chrono>

#include <new>
#include <utility>
#include "ostra/kaplatform.h"
#include "ostra/transport.h"

namespace ostra::platform {
namespace {

struct Slot {
  SyncObject* obj = nullptr;
  uint32_t gen = 0;
};

struct Table {
  std::vector<Slot> slots;
  std::vector<uint32_t> freeSlots;
  uint64_t live = 0;
};

// Never destroyed: threads may still close handles while the process exits.
Table& table() {
  static Table* t = new Table;
  return *t;
}

bool ready(const SyncObject* o, const ThreadState* me) {
  if (o->kind == ObjKind::Mutex) return o->owner == nullptr || o->owner == me;
  if (o->kind == ObjKind::Semaphore) return o->count > 0;
  return o->signalled;
}

// Takes a ready object for the waiter; returns true when it was an abandoned mutex.
bool acquire(SyncObject* o, ThreadState* me) {
  if (o->kind == ObjKind::Mutex) {
    if (o->owner != me) {
      me->ownedMutexes.push_back(o);
      ++o->refs;  // an owned mutex outlives its handle until released or abandoned
      o->owner = me;
      o->recursion = 0;
    }
    ++o->recursion;
    return std::exchange(o->abandoned, false);
  }
  if (o->kind == ObjKind::Semaphore) {
    --o->count;
    return false;
  }
  if (!o->manualReset) o->signalled = false;
  return false;
}

bool messagesReady(const ThreadState& me, DWORD mask, bool inputAvailable) {
  if ((mask & QS_SENDMESSAGE) && !me.sent.empty()) return true;
  if (me.posted.empty()) return false;
  if (mask & QS_ALLPOSTMESSAGE) return true;
  return (mask & QS_POSTMESSAGE) && (inputAvailable || me.newPosted);
}

void unregister(SyncObject* o, ThreadState* me) {
  auto& w = o->waiters;
  for (size_t i = 0; i < w.size(); ++i)
    if (w[i] == me) {
      w[i] = w.back();
      w.pop_back();
      return;
    }
}

using Clock = std::chrono::steady_clock;

}  // namespace

std::mutex& syncLock() noexcept {
  static std::mutex* m = new std::mutex;
  return *m;
}

HANDLE addHandleLocked(SyncObject* obj) {
  Table& t = table();
  uint32_t idx;
  if (!t.freeSlots.empty()) {
    idx = t.freeSlots.back();
    t.freeSlots.pop_back();
  } else {
    t.slots.emplace_back();
    idx = uint32_t(t.slots.size() - 1);
  }
  Slot& s = t.slots[idx];
  if (++s.gen == 0 || s.gen == 0xFFFFFFFFu) s.gen = 1;
  s.obj = obj;
  ++t.live;
  return reinterpret_cast<HANDLE>((uintptr_t(s.gen) << 32) | (uintptr_t(idx) + 1));
}

SyncObject* lookupLocked(HANDLE h) noexcept {
  const auto v = reinterpret_cast<uintptr_t>(h);
  const uint64_t idx = uint64_t(v & 0xFFFFFFFFu) - 1;
  const auto gen = uint32_t(uint64_t(v) >> 32);
  Table& t = table();
  if (v == 0 || idx >= t.slots.size() || t.slots[idx].gen != gen) return nullptr;
  return t.slots[idx].obj;
}

void releaseLocked(SyncObject* obj) noexcept {
  if (--obj->refs == 0) delete obj;
}

void wakeWaitersLocked(SyncObject* obj) noexcept {
  for (ThreadState* w : obj->waiters) w->wake.notify_one();
}

void signalLocked(SyncObject* obj) noexcept {
  obj->signalled = true;
  wakeWaitersLocked(obj);
}

uint64_t liveHandlesLocked() noexcept { return table().live; }

namespace {

// The one wait loop behind every wait function.
DWORD waitCore(DWORD n, const HANDLE* handles, bool waitAll, DWORD ms, bool alertable,
               DWORD wakeMask, bool inputAvailable) noexcept try {
  if (n > MAXIMUM_WAIT_OBJECTS || (n && !handles)) return WAIT_FAILED;
  ThreadState& me = currentThread();
  std::unique_lock lk(syncLock());
  SyncObject* objs[MAXIMUM_WAIT_OBJECTS];
  for (DWORD i = 0; i < n; ++i) {
    objs[i] = lookupLocked(handles[i]);
    if (!objs[i]) return WAIT_FAILED;
    if (waitAll)
      for (DWORD j = 0; j < i; ++j)
        if (objs[j] == objs[i]) return WAIT_FAILED;
  }
  for (DWORD i = 0; i < n; ++i) ++objs[i]->refs;  // a handle closed meanwhile stays alive
  const auto deadline = Clock::now() + std::chrono::milliseconds(ms == INFINITE ? 0 : ms);
  bool expired = false;
  DWORD result = WAIT_TIMEOUT;
  for (;;) {
    if (alertable && !me.apcs.empty()) {
      auto apcs = std::move(me.apcs);
      me.apcs.clear();
      lk.unlock();
      for (auto& [fn, ctx] : apcs) fn(ctx);
      lk.lock();
      result = WAIT_IO_COMPLETION;
      break;
    }
    if (waitAll && n) {
      bool all = true;
      for (DWORD i = 0; i < n && all; ++i) all = ready(objs[i], &me);
      if (all) {
        result = WAIT_OBJECT_0;
        for (DWORD i = 0; i < n; ++i)
          if (acquire(objs[i], &me) && result == WAIT_OBJECT_0) result = WAIT_ABANDONED_0 + i;
        break;
      }
    } else {
      DWORD i = 0;
      while (i < n && !ready(objs[i], &me)) ++i;
      if (i < n) {
        result = (acquire(objs[i], &me) ? WAIT_ABANDONED_0 : WAIT_OBJECT_0) + i;
        break;
      }
    }
    if (wakeMask && messagesReady(me, wakeMask, inputAvailable)) {
      result = WAIT_OBJECT_0 + n;
      break;
    }
    if (ms == 0 || expired) {
      result = WAIT_TIMEOUT;
      break;
    }
    for (DWORD i = 0; i < n; ++i) objs[i]->waiters.push_back(&me);
    if (ms == INFINITE)
      me.wake.wait(lk);
    else
      expired = me.wake.wait_until(lk, deadline) == std::cv_status::timeout;
    for (DWORD i = 0; i < n; ++i) unregister(objs[i], &me);
  }
  for (DWORD i = 0; i < n; ++i) releaseLocked(objs[i]);
  return result;
} catch (...) {
  return WAIT_FAILED;
}

SyncObject* lookupKindLocked(HANDLE h, ObjKind kind) {
  SyncObject* o = lookupLocked(h);
  return o && o->kind == kind ? o : nullptr;
}

}  // namespace

}  // namespace ostra::platform

using namespace ostra::platform;

DWORD KaWaitForSingleObject(HANDLE handle, DWORD milliseconds) noexcept {
  return waitCore(1, &handle, false, milliseconds, false, 0, false);
}

DWORD KaWaitForSingleObjectEx(HANDLE handle, DWORD milliseconds, BOOL alertable) noexcept {
  return waitCore(1, &handle, false, milliseconds, alertable, 0, false);
}

DWORD KaWaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL waitAll,
                               DWORD milliseconds) noexcept {
  if (count == 0) return WAIT_FAILED;
  return waitCore(count, handles, waitAll, milliseconds, false, 0, false);
}

DWORD KaWaitForMultipleObjectsEx(DWORD count, const HANDLE* handles, BOOL waitAll,
                                 DWORD milliseconds, BOOL alertable) noexcept {
  if (count == 0) return WAIT_FAILED;
  return waitCore(count, handles, waitAll, milliseconds, alertable, 0, false);
}

DWORD KaMsgWaitForMultipleObjectsEx(DWORD count, const HANDLE* handles, DWORD milliseconds,
                                    DWORD wakeMask, DWORD flags) noexcept {
  // With wait-all the objects must all be signalled; a message alone still wakes, as the
  // message-aware wait has always behaved.
  return waitCore(count, handles, flags & MWMO_WAITALL, milliseconds, flags & MWMO_ALERTABLE,
                  wakeMask, flags & MWMO_INPUTAVAILABLE);
}

DWORD KaSleepEx(DWORD milliseconds, BOOL alertable) noexcept {
  if (!alertable) {
    KaSleep(milliseconds);
    return 0;
  }
  const DWORD r = waitCore(0, nullptr, false, milliseconds, true, 0, false);
  return r == WAIT_IO_COMPLETION ? r : 0;
}

BOOL KaCloseHandle(HANDLE handle) noexcept {
  std::lock_guard lk(syncLock());
  SyncObject* o = lookupLocked(handle);
  if (!o) return FALSE;
  Table& t = table();
  const uint32_t idx = uint32_t(reinterpret_cast<uintptr_t>(handle) & 0xFFFFFFFFu) - 1;
  t.slots[idx].obj = nullptr;
  try {
    t.freeSlots.push_back(idx);
  } catch (...) {
    // The slot is merely not reused.
  }
  --t.live;
  o->handleClosed();
  releaseLocked(o);
  return TRUE;
}

HANDLE KaEvent_Create(BOOL manualReset, BOOL initialState) noexcept try {
  auto* e = new SyncObject(ObjKind::Event);
  e->manualReset = manualReset != FALSE;
  e->signalled = initialState != FALSE;
  std::lock_guard lk(syncLock());
  try {
    return addHandleLocked(e);
  } catch (...) {
    delete e;
    return nullptr;
  }
} catch (...) {
  return nullptr;
}

BOOL KaEvent_Set(HANDLE event) noexcept {
  std::lock_guard lk(syncLock());
  SyncObject* e = lookupKindLocked(event, ObjKind::Event);
  if (!e) return FALSE;
  if (!e->signalled) signalLocked(e);
  return TRUE;
}

BOOL KaEvent_Reset(HANDLE event) noexcept {
  std::lock_guard lk(syncLock());
  SyncObject* e = lookupKindLocked(event, ObjKind::Event);
  if (!e) return FALSE;
  e->signalled = false;
  return TRUE;
}

HANDLE KaMutex_Create(BOOL initialOwner) noexcept try {
  ThreadState& me = currentThread();
  auto* m = new SyncObject(ObjKind::Mutex);
  std::lock_guard lk(syncLock());
  try {
    HANDLE h = addHandleLocked(m);
    if (initialOwner) acquire(m, &me);
    return h;
  } catch (...) {
    delete m;
    return nullptr;
  }
} catch (...) {
  return nullptr;
}

BOOL KaMutex_Release(HANDLE mutex) noexcept {
  ThreadState* me;
  try {
    me = &currentThread();
  } catch (...) {
    return FALSE;
  }
  std::lock_guard lk(syncLock());
  SyncObject* m = lookupKindLocked(mutex, ObjKind::Mutex);
  if (!m || m->owner != me) return FALSE;
  if (--m->recursion == 0) {
    m->owner = nullptr;
    auto& owned = me->ownedMutexes;
    for (size_t i = 0; i < owned.size(); ++i)
      if (owned[i] == m) {
        owned.erase(owned.begin() + long(i));
        break;
      }
    wakeWaitersLocked(m);
    releaseLocked(m);
  }
  return TRUE;
}

UINT64 KaHandle_LiveCount() noexcept {
  std::lock_guard lk(syncLock());
  return liveHandlesLocked();
}

HANDLE KaSemaphore_Create(LONG initialCount, LONG maximumCount) noexcept try {
  if (maximumCount <= 0 || initialCount < 0 || initialCount > maximumCount) return nullptr;
  auto* s = new SyncObject(ObjKind::Semaphore);
  s->count = initialCount;
  s->maximum = maximumCount;
  std::lock_guard lk(syncLock());
  try {
    return addHandleLocked(s);
  } catch (...) {
    delete s;
    return nullptr;
  }
} catch (...) {
  return nullptr;
}

BOOL KaSemaphore_Release(HANDLE semaphore, LONG count, LONG* previousCount) noexcept {
  std::lock_guard lk(syncLock());
  SyncObject* s = lookupKindLocked(semaphore, ObjKind::Semaphore);
  if (!s || count <= 0 || count > s->maximum - s->count) return FALSE;
  if (previousCount) *previousCount = LONG(s->count);
  s->count += count;
  wakeWaitersLocked(s);
  return TRUE;
}
