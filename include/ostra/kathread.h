// Locks, events, waits and threads of the platform layer. Everything here is implemented
// in platform/; the lists, queues, transport and plug-in manager build on it.
//
// Handles (events, mutexes, threads, processes) are entries of a process-wide table: a
// closed or never-issued handle is refused (WAIT_FAILED, FALSE) instead of touching freed
// memory. Every handle is closed with KaCloseHandle.
#pragma once

#include "ostra/kadefs.h"

// ---------------------------------------------------------------- critical sections
// A recursive lock that lives in caller storage. It holds no operating-system resource, so
// a record that embeds an unlocked critical section may be copied bitwise.
typedef struct KACRITICAL_SECTION {
  uint32_t state;      // 0 free, 1 held, 2 held with waiters
  uint32_t owner;      // thread id of the holder, 0 when free
  uint32_t recursion;  // how often the holder entered
  uint32_t spinCount;
  uint64_t reserved[3];
} KACRITICAL_SECTION;

OSTRA_API void KaInitializeCriticalSection(KACRITICAL_SECTION* cs) noexcept;
// Releases nothing (the section owns no resource); a thread still on its way in finds a
// working lock, which queue deletion relies on.
OSTRA_API void KaDeleteCriticalSection(KACRITICAL_SECTION* cs) noexcept;
OSTRA_API void KaEnterCriticalSection(KACRITICAL_SECTION* cs) noexcept;
OSTRA_API BOOL KaTryEnterCriticalSection(KACRITICAL_SECTION* cs) noexcept;
// Leaving a section the calling thread does not hold is ignored.
OSTRA_API void KaLeaveCriticalSection(KACRITICAL_SECTION* cs) noexcept;

// ---------------------------------------------------------------- waits
#define INFINITE 0xFFFFFFFFu
#define MAXIMUM_WAIT_OBJECTS 64u
#define WAIT_OBJECT_0 0x00000000u
#define WAIT_ABANDONED_0 0x00000080u
#define WAIT_ABANDONED WAIT_ABANDONED_0
#define WAIT_IO_COMPLETION 0x000000C0u
#define WAIT_TIMEOUT 0x00000102u
#define WAIT_FAILED 0xFFFFFFFFu
#define STILL_ACTIVE 259u

// Message wake mask of KaMsgWaitForMultipleObjectsEx. A POSIX thread has no window
// messages; its message queue holds callbacks other threads post or send to it (see
// KaThread_PostCallback). Only these bits have a source; the others are accepted and
// never wake a wait.
#define QS_POSTMESSAGE 0x0008u     // a posted callback arrived since the queue was last read
#define QS_SENDMESSAGE 0x0040u     // a sent callback waits to be run
#define QS_ALLPOSTMESSAGE 0x0100u  // a posted callback is waiting, new or not
#define QS_ALLINPUT 0x04FFu
#define MWMO_WAITALL 0x0001u
#define MWMO_ALERTABLE 0x0002u
#define MWMO_INPUTAVAILABLE 0x0004u

// Result: WAIT_OBJECT_0 + i, WAIT_ABANDONED_0 + i (a mutex whose owner ended without
// releasing it), WAIT_TIMEOUT, WAIT_IO_COMPLETION (an alertable wait ran queued
// callbacks) or WAIT_FAILED (bad handle, bad count, duplicate handles with wait-all).
// A timeout of 0 polls, INFINITE never expires.
OSTRA_API DWORD KaWaitForSingleObject(HANDLE handle, DWORD milliseconds) noexcept;
OSTRA_API DWORD KaWaitForSingleObjectEx(HANDLE handle, DWORD milliseconds, BOOL alertable) noexcept;
OSTRA_API DWORD KaWaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL waitAll,
                                         DWORD milliseconds) noexcept;
OSTRA_API DWORD KaWaitForMultipleObjectsEx(DWORD count, const HANDLE* handles, BOOL waitAll,
                                           DWORD milliseconds, BOOL alertable) noexcept;
// As above, and WAIT_OBJECT_0 + count when the calling thread's callback queue holds what
// the wake mask asks for. Without MWMO_INPUTAVAILABLE only callbacks that arrived since the
// thread last dispatched count for QS_POSTMESSAGE.
OSTRA_API DWORD KaMsgWaitForMultipleObjectsEx(DWORD count, const HANDLE* handles,
                                              DWORD milliseconds, DWORD wakeMask,
                                              DWORD flags) noexcept;
// Sleeps; an alertable sleep ends early with WAIT_IO_COMPLETION after running queued
// callbacks, otherwise returns 0.
OSTRA_API DWORD KaSleepEx(DWORD milliseconds, BOOL alertable) noexcept;
OSTRA_API BOOL KaCloseHandle(HANDLE handle) noexcept;

// ---------------------------------------------------------------- events and mutexes
// A manual-reset event stays signalled until reset and releases every waiter; an
// auto-reset event releases one waiter and resets itself.
OSTRA_API HANDLE KaEvent_Create(BOOL manualReset, BOOL initialState) noexcept;
OSTRA_API BOOL KaEvent_Set(HANDLE event) noexcept;
OSTRA_API BOOL KaEvent_Reset(HANDLE event) noexcept;
// A recursive mutex that can be waited on. When its owner ends holding it, the next
// waiter gets it with WAIT_ABANDONED_0 + index.
OSTRA_API HANDLE KaMutex_Create(BOOL initialOwner) noexcept;
OSTRA_API BOOL KaMutex_Release(HANDLE mutex) noexcept;
// Live handles of every kind in the process (tests use it to prove that nothing leaks).
OSTRA_API UINT64 KaHandle_LiveCount() noexcept;

// ---------------------------------------------------------------- threads
typedef DWORD (*KATHREAD_START_ROUTINE)(void* parameter);
typedef void (*KATHREAD_CALLBACK)(void* context);

#define CREATE_SUSPENDED 0x00000004u
#define THREAD_PRIORITY_IDLE (-15)
#define THREAD_PRIORITY_LOWEST (-2)
#define THREAD_PRIORITY_BELOW_NORMAL (-1)
#define THREAD_PRIORITY_NORMAL 0
#define THREAD_PRIORITY_ABOVE_NORMAL 1
#define THREAD_PRIORITY_HIGHEST 2
#define THREAD_PRIORITY_TIME_CRITICAL 15
#define THREAD_PRIORITY_ERROR_RETURN 0x7FFFFFFF

// Id of the calling thread (the system's thread id, never 0).
OSTRA_API DWORD KaGetCurrentThreadId() noexcept;
// A pseudo handle for the calling thread, accepted by the priority and id functions only.
OSTRA_API HANDLE KaGetCurrentThread() noexcept;
// Starts a thread; the handle is signalled when it ends. With CREATE_SUSPENDED the routine
// does not run until KaThread_Resume. stackSize 0 takes the default. Null on failure.
OSTRA_API HANDLE KaThread_Create(KATHREAD_START_ROUTINE start, void* parameter, SIZE_T stackSize,
                                 DWORD flags, DWORD* threadId) noexcept;
// Returns the suspend count before the call (1 for a suspended thread, 0 for a running
// one), or (DWORD)-1 for a bad handle. Running threads cannot be suspended on POSIX.
OSTRA_API DWORD KaThread_Resume(HANDLE thread) noexcept;
OSTRA_API DWORD KaThread_GetId(HANDLE thread) noexcept;
// STILL_ACTIVE while the thread runs.
OSTRA_API BOOL KaThread_GetExitCode(HANDLE thread, DWORD* exitCode) noexcept;
// Priorities map to the thread's nice value (IDLE 19, LOWEST 10, BELOW_NORMAL 5, NORMAL 0,
// ABOVE_NORMAL -5, HIGHEST -10) and TIME_CRITICAL to the round-robin real-time class.
// Raising above the process's own level needs the privilege to do so; without it the call
// returns FALSE and the priority stays as it was.
OSTRA_API BOOL KaThread_SetPriority(HANDLE thread, int priority) noexcept;
OSTRA_API int KaThread_GetPriority(HANDLE thread) noexcept;

// Per-thread callback queues (the POSIX stand-in for thread messages and user APCs). A
// thread gets its queue the first time it calls any function of this header; posting to a
// thread without one gives E_INVALIDARG.
// Queues a callback that runs only when the thread enters an alertable wait.
OSTRA_API HRESULT KaThread_QueueApc(DWORD threadId, KATHREAD_CALLBACK callback,
                                    void* context) noexcept;
// Posts a callback that runs when the thread dispatches its posted callbacks.
OSTRA_API HRESULT KaThread_PostCallback(DWORD threadId, KATHREAD_CALLBACK callback,
                                        void* context) noexcept;
// Runs the callback on the target thread (when it dispatches sent callbacks) and waits for
// it: S_OK once it ran, E_ABORT when the timeout passed first or the thread ended before
// running it. Sending to the calling thread runs the callback at once.
OSTRA_API HRESULT KaThread_SendCallback(DWORD threadId, KATHREAD_CALLBACK callback, void* context,
                                        DWORD milliseconds) noexcept;
// Runs the calling thread's pending callbacks of the kinds in mask (QS_SENDMESSAGE,
// QS_POSTMESSAGE) and returns how many ran; also marks the queue as read.
OSTRA_API UINT KaThread_DispatchCallbacks(DWORD mask) noexcept;
// The QS_* bits describing the calling thread's queue now.
OSTRA_API DWORD KaThread_GetQueueStatus() noexcept;
