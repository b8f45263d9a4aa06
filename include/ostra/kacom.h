// The object runtime: GUID helpers and the global interface table through which an object
// registered on one thread is fetched on another. Kernel objects are free-threaded, so the
// "proxy" handed to another thread is the registered object itself, queried for the
// interface asked for (which adds a reference). The table counts its look-ups so that
// tests can prove when a proxy was fetched.
#pragma once

#include "ostra/kadefs.h"

// Orders GUIDs field by field (Data1, Data2, Data3, then Data4 bytes): <0, 0 or >0.
OSTRA_API int KaGuid_Compare(REFGUID a, REFGUID b) noexcept;
// Writes "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}" in upper case and returns the characters
// written including the terminator (39), or 0 when the buffer holds fewer than 39.
OSTRA_API int KaGuid_ToString(REFGUID guid, KAWCHAR* buffer, int size) noexcept;
// Parses the registry form with or without braces, digits in either case;
// E_INVALIDARG for anything else (the GUID is then zeroed).
OSTRA_API HRESULT KaGuid_FromString(const KAWCHAR* text, GUID* guid) noexcept;
// A random (version 4) GUID from the system's random source.
OSTRA_API HRESULT KaGuid_Create(GUID* guid) noexcept;

// Registers the object for the interface riid (queried once, which must succeed) and
// returns a cookie (never 0). The table holds that reference until the cookie is revoked.
OSTRA_API HRESULT KaGIT_RegisterInterface(IUnknown* object, REFIID riid, DWORD* cookie) noexcept;
// The interface for the calling thread: the registered object queried for riid, with a
// reference the caller releases. E_INVALIDARG for an unknown or revoked cookie.
OSTRA_API HRESULT KaGIT_GetInterface(DWORD cookie, REFIID riid, void** object) noexcept;
OSTRA_API HRESULT KaGIT_RevokeInterface(DWORD cookie) noexcept;
// Successful KaGIT_GetInterface calls since the process started, and live registrations.
OSTRA_API UINT64 KaGIT_GetLookupCount() noexcept;
OSTRA_API DWORD KaGIT_GetRegisteredCount() noexcept;
