// Intrusive, doubly linked, lock-protected queues (tKAQHEAD) with an event that is
// signalled while the queue is not empty, so consumers can wait. The queue never
// allocates or frees elements: a queued object starts with a tKAQELM.
#pragma once

#include "ostra/kadefs.h"
#include "ostra/kathread.h"

typedef struct tKAQELM {
  struct tKAQELM* next;
  struct tKAQELM* prev;
} tKAQELM;

// Caller storage, zeroed before the first KaQueueInitialize. An empty queue's links point
// at the head itself.
typedef struct tKAQHEAD {
  tKAQELM* next;
  tKAQELM* prev;
  KACRITICAL_SECTION lock;
  HANDLE event;  // manual reset; null before initialisation and after deletion
} tKAQHEAD;

// Predicates return non-zero for the element sought.
typedef int (*KAQUEUE_PREDICATE)(tKAQELM* element, void* context);

// Flags of KaQueueRemoveEx: the low 16 bits are a QS_* wake mask (see ostra/kathread.h).
#define KAQUEUE_WAITALL 0x00010000u
#define KAQUEUE_ALERTABLE 0x00020000u
#define KAQUEUE_INPUTAVAILABLE 0x00040000u
#define KAQUEUE_DISPATCH 0x00080000u  // also wake for sent callbacks and run them

OSTRA_API int KaQueueInitialize(tKAQHEAD* head) noexcept;
OSTRA_API void KaQueueDelete(tKAQHEAD* head) noexcept;
OSTRA_API void KaQueueFlush(tKAQHEAD* head) noexcept;
OSTRA_API void KaQueueInsert(tKAQHEAD* head, tKAQELM* element) noexcept;
OSTRA_API void KaQueueInsertHead(tKAQHEAD* head, tKAQELM* element) noexcept;
OSTRA_API void KaQueueInsertEx(tKAQHEAD* head, KAQUEUE_PREDICATE predicate, void* context,
                               tKAQELM* element) noexcept;
OSTRA_API void KaQueueInsertExRev(tKAQHEAD* head, KAQUEUE_PREDICATE predicate, void* context,
                                  tKAQELM* element) noexcept;
OSTRA_API tKAQELM* KaQueueRemove(tKAQHEAD* head, DWORD milliseconds) noexcept;
OSTRA_API tKAQELM* KaQueueRemoveAlertable(tKAQHEAD* head, DWORD milliseconds) noexcept;
OSTRA_API tKAQELM* KaQueueRemoveEx(tKAQHEAD* head, const HANDLE* extraHandles, DWORD handleCount,
                                   DWORD flags, DWORD milliseconds, DWORD* waitResult) noexcept;
OSTRA_API tKAQELM* KaQueueRemoveTail(tKAQHEAD* head, DWORD milliseconds) noexcept;
OSTRA_API int KaQueueWait(tKAQHEAD* head, DWORD milliseconds) noexcept;
OSTRA_API tKAQELM* KaQueueFind(tKAQHEAD* head, KAQUEUE_PREDICATE predicate, void* context) noexcept;
OSTRA_API tKAQELM* KaQueueFindRev(tKAQHEAD* head, KAQUEUE_PREDICATE predicate,
                                  void* context) noexcept;
OSTRA_API tKAQELM* KaQueueFindAndRemove(tKAQHEAD* head, KAQUEUE_PREDICATE predicate,
                                        void* context) noexcept;
OSTRA_API tKAQELM* KaQueueFindAndRemoveRev(tKAQHEAD* head, KAQUEUE_PREDICATE predicate,
                                           void* context) noexcept;
OSTRA_API tKAQELM* KaQueueFindAndMoveToHead(tKAQHEAD* head, KAQUEUE_PREDICATE predicate,
                                            void* context) noexcept;
OSTRA_API tKAQELM* KaQueueFindAndMoveToTail(tKAQHEAD* head, KAQUEUE_PREDICATE predicate,
                                            void* context) noexcept;
OSTRA_API int KaQueueMoveToHead(tKAQHEAD* head, tKAQELM* element) noexcept;
OSTRA_API int KaQueueMoveToTail(tKAQHEAD* head, tKAQELM* element) noexcept;
OSTRA_API int IsInKaQueue(tKAQHEAD* head, tKAQELM* element) noexcept;
