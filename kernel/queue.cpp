// Queues: an intrusive doubly linked ring through the head, one lock, and a manual-reset
// event that is set on the empty-to-non-empty transition and reset when the last element
// leaves. Links are written with relaxed atomic stores because KaQueueWait and the
// waiting removals look at the head without the lock.
#include <atomic>

#include "ostra/kaplatform.h"
#include "ostra/kaqueue.h"

namespace {

using Link = std::atomic_ref<tKAQELM*>;

tKAQELM* ring(tKAQHEAD* h) { return reinterpret_cast<tKAQELM*>(h); }
void setNext(tKAQELM* e, tKAQELM* v) { Link(e->next).store(v, std::memory_order_relaxed); }
void setPrev(tKAQELM* e, tKAQELM* v) { Link(e->prev).store(v, std::memory_order_relaxed); }
HANDLE eventOf(tKAQHEAD* h) {
  return std::atomic_ref<HANDLE>(h->event).load(std::memory_order_acquire);
}
// A head that was never initialised has null links; every function leaves it alone.
bool usable(tKAQHEAD* h) { return h && Link(h->next).load(std::memory_order_relaxed) != nullptr; }
bool isEmpty(tKAQHEAD* h) { return Link(h->next).load(std::memory_order_relaxed) == ring(h); }

void makeEmpty(tKAQHEAD* h) {
  setNext(ring(h), ring(h));
  setPrev(ring(h), ring(h));
}

void linkBefore(tKAQELM* pos, tKAQELM* e) {
  tKAQELM* p = pos->prev;
  setNext(e, pos);
  setPrev(e, p);
  setNext(p, e);
  setPrev(pos, e);
}

void unlink(tKAQELM* e) {
  setNext(e->prev, e->next);
  setPrev(e->next, e->prev);
  setNext(e, nullptr);
  setPrev(e, nullptr);
}

class Locked {
 public:
  explicit Locked(tKAQHEAD* h) : h_(h) { lock(); }
  ~Locked() { unlock(); }
  Locked(const Locked&) = delete;
  Locked& operator=(const Locked&) = delete;
  void lock() {
    KaEnterCriticalSection(&h_->lock);
    held_ = true;
  }
  void unlock() {
    if (held_) KaLeaveCriticalSection(&h_->lock);
    held_ = false;
  }

 private:
  tKAQHEAD* h_;
  bool held_ = false;
};

void removed(tKAQHEAD* h, tKAQELM* e) {
  unlink(e);
  if (isEmpty(h)) KaEvent_Reset(eventOf(h));
}

tKAQELM* scan(tKAQHEAD* h, KAQUEUE_PREDICATE predicate, void* context, bool reverse) {
  if (!predicate) return nullptr;
  for (tKAQELM* e = reverse ? h->prev : h->next; e != ring(h); e = reverse ? e->prev : e->next)
    if (predicate(e, context)) return e;
  return nullptr;
}

void insertScan(tKAQHEAD* h, KAQUEUE_PREDICATE predicate, void* context, tKAQELM* e, bool reverse) {
  if (!usable(h)) return;
  {
    Locked lk(h);
    if (tKAQELM* match = scan(h, predicate, context, reverse)) {
      if (!e) return;
      linkBefore(match, e);
      if (h->next == e) KaEvent_Set(eventOf(h));
      return;
    }
  }
  KaQueueInsert(h, e);
}

tKAQELM* findAndRemove(tKAQHEAD* h, KAQUEUE_PREDICATE predicate, void* context, bool reverse) {
  if (!usable(h)) return nullptr;
  Locked lk(h);
  tKAQELM* e = scan(h, predicate, context, reverse);
  if (e) removed(h, e);
  return e;
}

tKAQELM* findAndMove(tKAQHEAD* h, KAQUEUE_PREDICATE predicate, void* context, bool toHead) {
  if (!usable(h)) return nullptr;
  Locked lk(h);
  tKAQELM* e = scan(h, predicate, context, false);
  if (e) {
    unlink(e);
    linkBefore(toHead ? h->next : ring(h), e);
  }
  return e;
}

}  // namespace

int KaQueueInitialize(tKAQHEAD* head) noexcept {
  if (!head) return 0;
  if (!eventOf(head)) {
    HANDLE ev = KaEvent_Create(TRUE, FALSE);
    if (!ev) return 0;
    KaInitializeCriticalSection(&head->lock);
    std::atomic_ref<HANDLE>(head->event).store(ev, std::memory_order_release);
  }
  Locked lk(head);
  makeEmpty(head);
  KaEvent_Reset(eventOf(head));
  return 1;
}

void KaQueueDelete(tKAQHEAD* head) noexcept {
  if (!head) return;
  HANDLE ev = std::atomic_ref<HANDLE>(head->event).exchange(nullptr, std::memory_order_acq_rel);
  if (!ev) return;
  KaEvent_Set(ev);  // waiters wake, see no event and give up
  KaCloseHandle(ev);
  {
    Locked lk(head);  // lets a holder finish first
    makeEmpty(head);
  }
  KaDeleteCriticalSection(&head->lock);
}

void KaQueueFlush(tKAQHEAD* head) noexcept {
  if (!usable(head)) return;
  Locked lk(head);
  makeEmpty(head);
  KaEvent_Set(eventOf(head));
}

void KaQueueInsert(tKAQHEAD* head, tKAQELM* element) noexcept {
  if (!usable(head) || !element) return;
  Locked lk(head);
  linkBefore(ring(head), element);
  if (head->next == element) KaEvent_Set(eventOf(head));
}

void KaQueueInsertHead(tKAQHEAD* head, tKAQELM* element) noexcept {
  if (!usable(head) || !element) return;
  Locked lk(head);
  linkBefore(head->next, element);
  if (head->prev == element) KaEvent_Set(eventOf(head));
}

void KaQueueInsertEx(tKAQHEAD* head, KAQUEUE_PREDICATE predicate, void* context,
                     tKAQELM* element) noexcept {
  insertScan(head, predicate, context, element, false);
}

void KaQueueInsertExRev(tKAQHEAD* head, KAQUEUE_PREDICATE predicate, void* context,
                        tKAQELM* element) noexcept {
  insertScan(head, predicate, context, element, true);
}

tKAQELM* KaQueueRemove(tKAQHEAD* head, DWORD milliseconds) noexcept {
  return KaQueueRemoveEx(head, nullptr, 0, 0, milliseconds, nullptr);
}

tKAQELM* KaQueueRemoveAlertable(tKAQHEAD* head, DWORD milliseconds) noexcept {
  return KaQueueRemoveEx(head, nullptr, 0, KAQUEUE_ALERTABLE | KAQUEUE_DISPATCH, milliseconds,
                         nullptr);
}

tKAQELM* KaQueueRemoveEx(tKAQHEAD* head, const HANDLE* extra, DWORD count, DWORD flags,
                         DWORD milliseconds, DWORD* waitResult) noexcept {
  if (!usable(head)) return nullptr;
  if (!extra) count = 0;
  if (extra && count >= MAXIMUM_WAIT_OBJECTS - 1) return nullptr;
  const bool dispatch = flags & KAQUEUE_DISPATCH;
  const DWORD wakeMask = (flags & 0xFFFFu) | (dispatch ? QS_SENDMESSAGE : 0);
  const DWORD waitFlags = (flags >> 16) & (MWMO_WAITALL | MWMO_ALERTABLE | MWMO_INPUTAVAILABLE);
  const bool finite = milliseconds != 0 && milliseconds != INFINITE;
  const DWORD start = finite ? KaGetTickCount() : 0;
  DWORD remaining = milliseconds;
  bool retry = true;
  Locked lk(head);
  while (isEmpty(head)) {
    HANDLE ev = eventOf(head);
    if (remaining == 0 || !ev || !retry) return nullptr;
    lk.unlock();
    retry = false;
    DWORD r;
    if (count || wakeMask || waitFlags) {
      HANDLE handles[MAXIMUM_WAIT_OBJECTS];
      handles[0] = ev;
      for (DWORD i = 0; i < count; ++i) handles[i + 1] = extra[i];
      r = KaMsgWaitForMultipleObjectsEx(count + 1, handles, remaining, wakeMask, waitFlags);
      if (r == WAIT_OBJECT_0) {
        retry = true;
      } else if (dispatch && r == WAIT_IO_COMPLETION) {
        retry = true;
      } else if (dispatch && r == WAIT_OBJECT_0 + count + 1) {
        KaThread_DispatchCallbacks(QS_SENDMESSAGE);
        retry = true;
      }
      if (finite) {
        const DWORD elapsed = KaGetTickCount() - start;
        remaining = elapsed >= milliseconds ? 0 : milliseconds - elapsed;
      }
    } else {
      r = KaWaitForSingleObject(ev, milliseconds);
    }
    if (waitResult) *waitResult = r;
    if (!retry && (count || wakeMask || waitFlags)) return nullptr;
    if (!eventOf(head)) return nullptr;
    lk.lock();
  }
  tKAQELM* e = head->next;
  removed(head, e);
  return e;
}

tKAQELM* KaQueueRemoveTail(tKAQHEAD* head, DWORD milliseconds) noexcept {
  if (!usable(head)) return nullptr;
  Locked lk(head);
  if (isEmpty(head)) {
    HANDLE ev = eventOf(head);
    if (milliseconds == 0 || !ev) return nullptr;
    lk.unlock();
    KaWaitForSingleObject(ev, milliseconds);
    if (!eventOf(head)) return nullptr;
    lk.lock();
    if (isEmpty(head)) return nullptr;
  }
  tKAQELM* e = head->prev;
  removed(head, e);
  return e;
}

int KaQueueWait(tKAQHEAD* head, DWORD milliseconds) noexcept {
  if (!usable(head)) return 0;
  if (!isEmpty(head)) return 1;
  HANDLE ev = eventOf(head);
  if (milliseconds == 0 || !ev) return 0;
  KaWaitForSingleObject(ev, milliseconds);
  return usable(head) && !isEmpty(head) ? 1 : 0;
}

tKAQELM* KaQueueFind(tKAQHEAD* head, KAQUEUE_PREDICATE predicate, void* context) noexcept {
  if (!usable(head)) return nullptr;
  Locked lk(head);
  return scan(head, predicate, context, false);
}

tKAQELM* KaQueueFindRev(tKAQHEAD* head, KAQUEUE_PREDICATE predicate, void* context) noexcept {
  if (!usable(head)) return nullptr;
  Locked lk(head);
  return scan(head, predicate, context, true);
}

tKAQELM* KaQueueFindAndRemove(tKAQHEAD* head, KAQUEUE_PREDICATE predicate, void* context) noexcept {
  return findAndRemove(head, predicate, context, false);
}

tKAQELM* KaQueueFindAndRemoveRev(tKAQHEAD* head, KAQUEUE_PREDICATE predicate,
                                 void* context) noexcept {
  return findAndRemove(head, predicate, context, true);
}

tKAQELM* KaQueueFindAndMoveToHead(tKAQHEAD* head, KAQUEUE_PREDICATE predicate,
                                  void* context) noexcept {
  return findAndMove(head, predicate, context, true);
}

tKAQELM* KaQueueFindAndMoveToTail(tKAQHEAD* head, KAQUEUE_PREDICATE predicate,
                                  void* context) noexcept {
  return findAndMove(head, predicate, context, false);
}

int KaQueueMoveToHead(tKAQHEAD* head, tKAQELM* element) noexcept {
  if (!usable(head) || !element) return 0;
  Locked lk(head);
  tKAQELM* e = head->next;
  while (e != ring(head) && e != element) e = e->next;
  if (e == ring(head) || e == head->next) return 0;
  unlink(e);
  linkBefore(head->next, e);
  return 1;
}

int KaQueueMoveToTail(tKAQHEAD* head, tKAQELM* element) noexcept {
  if (!usable(head) || !element) return 0;
  Locked lk(head);
  tKAQELM* e = head->prev;
  while (e != ring(head) && e != element) e = e->prev;
  if (e == ring(head) || e == head->prev) return 0;
  unlink(e);
  linkBefore(ring(head), e);
  return 1;
}

int IsInKaQueue(tKAQHEAD* head, tKAQELM* element) noexcept {
  if (!usable(head) || !element) return 0;
  Locked lk(head);
  if (!element->next || !element->prev) return 0;
  for (tKAQELM* e = head->next; e != ring(head); e = e->next)
    if (e == element) return 1;
  return 0;
}
