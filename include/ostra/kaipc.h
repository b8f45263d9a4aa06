// Channels between processes: a byte channel for calls and answers (a local socket,
// named so that a child can connect to it) and shared memory for bulk data. The file I/O
// manager talks to its surrogate processes through them. See docs/surrogate.md.
#pragma once

#include "ostra/kadefs.h"
#include "ostra/kathread.h"

typedef struct KAIPC_CHANNEL_* KAHIPC;
typedef struct KAIPC_LISTENER_* KAHIPCLISTEN;
typedef struct KAIPC_SHARED_* KAHSHARED;

#define KAIPC_NAME_CHARS 64u

// A listening end with a fresh name (written to `name`, at most KAIPC_NAME_CHARS
// characters with the terminator), for one or more peers to connect to.
OSTRA_API HRESULT KaIpc_Listen(char* name, DWORD chars, KAHIPCLISTEN* listener) noexcept;
// The next peer, waiting at most timeoutMs (INFINITE: without limit); KAERR_TIMEOUT.
OSTRA_API HRESULT KaIpc_Accept(KAHIPCLISTEN listener, DWORD timeoutMs, KAHIPC* channel) noexcept;
OSTRA_API void KaIpc_CloseListener(KAHIPCLISTEN listener) noexcept;
OSTRA_API HRESULT KaIpc_Connect(const char* name, KAHIPC* channel) noexcept;
// Sends all bytes, or fails (KAERR_CLOSED when the peer has gone).
OSTRA_API HRESULT KaIpc_Send(KAHIPC channel, const void* bytes, DWORD count) noexcept;
// Receives exactly `count` bytes within timeoutMs (INFINITE: without limit), or fails:
// KAERR_TIMEOUT when the time ran out (the channel is then out of step; close it),
// KAERR_CLOSED when the peer closed its end or ended.
OSTRA_API HRESULT KaIpc_Receive(KAHIPC channel, void* bytes, DWORD count, DWORD timeoutMs) noexcept;
OSTRA_API void KaIpc_Close(KAHIPC channel) noexcept;

// Shared memory of `bytes` bytes under a fresh name, mapped; the peer opens it by name.
// The name goes with the creator: it is removed when the creator closes it.
OSTRA_API HRESULT KaShared_Create(UINT64 bytes, char* name, DWORD chars,
                                  KAHSHARED* shared) noexcept;
OSTRA_API HRESULT KaShared_Open(const char* name, UINT64 bytes, KAHSHARED* shared) noexcept;
OSTRA_API void* KaShared_Pointer(KAHSHARED shared) noexcept;
OSTRA_API UINT64 KaShared_Size(KAHSHARED shared) noexcept;
OSTRA_API void KaShared_Close(KAHSHARED shared) noexcept;
