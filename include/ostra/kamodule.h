// Shared objects and processes: loading, symbols, the file behind a module or an address
// (how the kernel finds its own file, its configuration and its resources), the running
// executable, and child processes that can be started suspended and waited for.
#pragma once

#include "ostra/kadefs.h"

// ---------------------------------------------------------------- shared objects
// Loads a shared object (path in UTF-16 or UTF-8) and its dependencies, resolving every
// symbol now. KAERR_NOT_FOUND when the file does not exist, KAERR_OPEN_FAILED when it is
// not a loadable object; *module is null then.
OSTRA_API HRESULT KaModule_Load(const KAWCHAR* path, HMODULE* module) noexcept;
OSTRA_API HRESULT KaModule_LoadUtf8(const char* path, HMODULE* module) noexcept;
// Null when the module has no such symbol.
OSTRA_API void* KaModule_GetSymbol(HMODULE module, const char* name) noexcept;
// Drops one load; the object leaves the process with its last load.
OSTRA_API BOOL KaModule_Unload(HMODULE module) noexcept;
// The module whose code or data holds the address, without adding a load; null if none.
// The executable's own handle is the one KaModule_GetFileName(nullptr, ...) describes.
OSTRA_API HMODULE KaModule_FromAddress(const void* address) noexcept;
// The module that holds the kernel itself.
OSTRA_API HMODULE KaModule_GetKernel() noexcept;
// The running executable's module.
OSTRA_API HMODULE KaModule_GetExecutable() noexcept;
// Writes the absolute path of the module (null: the running executable) and returns its
// length in characters. When the buffer is too small the path is cut to size - 1
// characters, terminated, and size is returned; 0 means failure (a bad module).
OSTRA_API DWORD KaModule_GetFileName(HMODULE module, KAWCHAR* buffer, DWORD size) noexcept;
OSTRA_API DWORD KaModule_GetFileNameUtf8(HMODULE module, char* buffer, DWORD size) noexcept;
// The path of the module that holds the address (same rules as KaModule_GetFileName).
OSTRA_API DWORD KaModule_GetPathFromAddress(const void* address, KAWCHAR* buffer,
                                            DWORD size) noexcept;

// ---------------------------------------------------------------- processes
// Starts program with the arguments (a null-terminated list, the program's own name not
// included; null for none). A program name without a '/' is looked up in PATH. With
// CREATE_SUSPENDED (ostra/kathread.h) the child exists but has not started the program
// until KaProcess_Resume; closing the handle of a child never resumed ends it. The handle
// is signalled when the process ends. Failure to start the program (not found, not
// executable) is reported here, or by KaProcess_Resume for a suspended child.
OSTRA_API HRESULT KaProcess_Create(const KAWCHAR* program, const KAWCHAR* const* arguments,
                                   DWORD flags, HANDLE* process, DWORD* processId) noexcept;
OSTRA_API HRESULT KaProcess_Resume(HANDLE process) noexcept;
OSTRA_API DWORD KaProcess_GetId(HANDLE process) noexcept;
// STILL_ACTIVE while it runs; a process ended by signal n reports 128 + n.
OSTRA_API BOOL KaProcess_GetExitCode(HANDLE process, DWORD* exitCode) noexcept;
OSTRA_API BOOL KaProcess_Terminate(HANDLE process, DWORD exitCode) noexcept;
OSTRA_API DWORD KaGetCurrentProcessId() noexcept;
