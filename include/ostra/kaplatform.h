// Operating-system services of the kernel: files, global memory, text encodings and
// the errno mapping. Everything here is implemented in platform/; no other part of the
// library calls the operating system directly.
#pragma once

#include "ostra/kadefs.h"

// ---------------------------------------------------------------- files
// Access, sharing and creation dispositions as the chunk functions use them.
#define GENERIC_READ 0x80000000u
#define GENERIC_WRITE 0x40000000u
#define FILE_SHARE_READ 0x1u
#define FILE_SHARE_WRITE 0x2u
#define FILE_SHARE_DELETE 0x4u
#define CREATE_NEW 1u
#define CREATE_ALWAYS 2u
#define OPEN_EXISTING 3u
#define OPEN_ALWAYS 4u
#define TRUNCATE_EXISTING 5u
#define FILE_ATTRIBUTE_NORMAL 0x80u
#define FILE_FLAG_SEQUENTIAL_SCAN 0x08000000u
#define FILE_FLAG_RANDOM_ACCESS 0x10000000u
#define FILE_BEGIN 0u
#define FILE_CURRENT 1u
#define FILE_END 2u

// Opens or creates a file (path in UTF-16 or UTF-8). Sharing is advisory on POSIX: a
// handle opened for writing without FILE_SHARE_WRITE holds no lock other processes see.
OSTRA_API HRESULT KaFile_Open(const KAWCHAR* path, DWORD access, DWORD share, DWORD disposition,
                              DWORD flags, KAHFILE* out) noexcept;
OSTRA_API HRESULT KaFile_OpenUtf8(const char* path, DWORD access, DWORD share, DWORD disposition,
                                  DWORD flags, KAHFILE* out) noexcept;
OSTRA_API HRESULT KaFile_Close(KAHFILE file) noexcept;
// Reads up to count bytes; a short count (end of file) is S_OK with *read < count.
OSTRA_API HRESULT KaFile_Read(KAHFILE file, void* buffer, DWORD count, DWORD* read) noexcept;
// Writes count bytes; anything less is a failure whose code says why (disk full, ...).
OSTRA_API HRESULT KaFile_Write(KAHFILE file, const void* buffer, DWORD count,
                               DWORD* written) noexcept;
OSTRA_API HRESULT KaFile_Seek(KAHFILE file, INT64 distance, DWORD method,
                              INT64* newPosition) noexcept;
OSTRA_API HRESULT KaFile_GetPosition(KAHFILE file, INT64* position) noexcept;
OSTRA_API HRESULT KaFile_SetEndOfFile(KAHFILE file) noexcept;
OSTRA_API HRESULT KaFile_GetSize(KAHFILE file, UINT64* size) noexcept;
// Modification time in 100-nanosecond ticks since 1601-01-01 (the kernel's file-time base).
OSTRA_API HRESULT KaFile_GetModifiedTime(KAHFILE file, INT64* fileTime) noexcept;
OSTRA_API HRESULT KaFile_Flush(KAHFILE file) noexcept;
OSTRA_API HRESULT KaFile_Delete(const KAWCHAR* path) noexcept;
OSTRA_API HRESULT KaFile_DeleteUtf8(const char* path) noexcept;

// ---------------------------------------------------------------- global memory
// Movable blocks with a lock count. The handle stays valid across KaGlobalReAlloc; the
// address returned by KaGlobalLock may change when an unlocked block is reallocated.
typedef struct KaOpaqueGlobal* KAHGLOBAL;
#define GMEM_FIXED 0x0000u
#define GMEM_MOVEABLE 0x0002u
#define GMEM_ZEROINIT 0x0040u
#define GHND (GMEM_MOVEABLE | GMEM_ZEROINIT)
#define GPTR (GMEM_FIXED | GMEM_ZEROINIT)

OSTRA_API KAHGLOBAL KaGlobalAlloc(UINT flags, SIZE_T bytes) noexcept;
OSTRA_API KAHGLOBAL KaGlobalReAlloc(KAHGLOBAL mem, SIZE_T bytes, UINT flags) noexcept;
OSTRA_API void* KaGlobalLock(KAHGLOBAL mem) noexcept;
// Returns TRUE while the block is still locked after this call.
OSTRA_API BOOL KaGlobalUnlock(KAHGLOBAL mem) noexcept;
OSTRA_API SIZE_T KaGlobalSize(KAHGLOBAL mem) noexcept;
OSTRA_API UINT KaGlobalLockCount(KAHGLOBAL mem) noexcept;
// The handle of a block from an address that KaGlobalLock returned; null otherwise.
OSTRA_API KAHGLOBAL KaGlobalHandle(const void* locked) noexcept;
// Returns null on success, the handle when it was not a block of this allocator.
OSTRA_API KAHGLOBAL KaGlobalFree(KAHGLOBAL mem) noexcept;
// Convenience for memory handed across the interface as a locked pointer: unlocks and
// frees the block behind an address from KaGlobalLock. A null pointer is accepted.
OSTRA_API void KaGlobalFreePtr(void* locked) noexcept;
// Live blocks and bytes of this allocator in the process (tests use them to prove that
// nothing leaks).
OSTRA_API void KaGlobalGetStats(UINT64* liveBlocks, UINT64* liveBytes) noexcept;

// ---------------------------------------------------------------- text
// Code pages: KA_CP_ACP is the process's "ANSI code page" (Windows-1252 unless set),
// converted through iconv.
#define KA_CP_ACP 0u
#define KA_CP_UTF8 65001u
#define KA_MB_PRECOMPOSED 0x1u
// KaText_WideToMultiByte: fail (return 0) when a character has no form in the code page,
// instead of writing '?'.
#define KA_WC_ERR_INVALID_CHARS 0x80u

// Sets the ANSI code page by number (1250-1258, 874, 932, 936, 949, 950, 437, 850, 28591,
// 65001 ...); E_INVALIDARG when iconv does not know it.
OSTRA_API HRESULT KaText_SetAnsiCodePage(UINT codePage) noexcept;
OSTRA_API UINT KaText_GetAnsiCodePage() noexcept;
// Converts as the classic MultiByteToWideChar/WideCharToMultiByte do: a source length of
// -1 means zero-terminated and the terminator is converted and counted; a destination
// capacity of 0 asks for the required count. Returns the count written (units), or 0
// on failure (destination too small, unknown code page). Undecodable input becomes
// U+FFFD (wide) or '?' (narrow).
OSTRA_API int KaText_MultiByteToWide(UINT codePage, DWORD flags, const char* src, int srcLen,
                                     KAWCHAR* dst, int dstCap) noexcept;
OSTRA_API int KaText_WideToMultiByte(UINT codePage, DWORD flags, const KAWCHAR* src, int srcLen,
                                     char* dst, int dstCap) noexcept;
// Length of a zero-terminated wide string in units.
OSTRA_API size_t KaText_WideLength(const KAWCHAR* s) noexcept;

// ---------------------------------------------------------------- system errors
// The result code for an errno value (ENOENT to KAERR_NOT_FOUND, ENOSPC to
// KAERR_DISK_FULL, EACCES to E_ACCESSDENIED, ...), and for the calling thread's errno.
OSTRA_API HRESULT KaHresultFromErrno(int err) noexcept;
OSTRA_API HRESULT KaHresultFromLastError() noexcept;

// ---------------------------------------------------------------- console
// TRUE when the descriptor (0 input, 1 output, 2 error) is a terminal.
OSTRA_API BOOL KaConsole_IsTerminal(int stream) noexcept;
// Ctrl-C and termination requests: from now on they call proc (on a thread of its own,
// as ordinary code) instead of ending the process. Call it before starting threads;
// a later call replaces the handler.
typedef void (*KACONSOLEINTERRUPTPROC)(void* context);
OSTRA_API HRESULT KaConsole_OnInterrupt(KACONSOLEINTERRUPTPROC proc, void* context) noexcept;

// ---------------------------------------------------------------- clocks
// Milliseconds since an arbitrary start, wrapping at 2^32 as the classic tick count does.
OSTRA_API DWORD KaGetTickCount() noexcept;
// A monotonic high-resolution counter and its frequency in counts per second.
OSTRA_API BOOL KaQueryPerformanceCounter(INT64* count) noexcept;
OSTRA_API BOOL KaQueryPerformanceFrequency(INT64* frequency) noexcept;
OSTRA_API void KaSleep(DWORD milliseconds) noexcept;

// ---------------------------------------------------------------- message boxes
// Every message box of the kernel goes through the host's hook. Without one the message
// goes to standard error and the answer is IDOK.
#define MB_OK 0x0u
#define MB_OKCANCEL 0x1u
#define MB_YESNOCANCEL 0x3u
#define MB_YESNO 0x4u
#define MB_ICONERROR 0x10u
#define MB_ICONQUESTION 0x20u
#define MB_ICONWARNING 0x30u
#define MB_ICONINFORMATION 0x40u
#define IDOK 1
#define IDCANCEL 2
#define IDYES 6
#define IDNO 7

typedef int (*KAMESSAGEBOXHOOK)(HWND owner, const KAWCHAR* text, const KAWCHAR* caption, UINT flags,
                                void* context);
// Installs (or with null removes) the hook; returns the previous one.
OSTRA_API KAMESSAGEBOXHOOK KaSetMessageBoxHook(KAMESSAGEBOXHOOK hook, void* context) noexcept;
OSTRA_API int KaMessageBox(HWND owner, const KAWCHAR* text, const KAWCHAR* caption,
                           UINT flags) noexcept;

// ---------------------------------------------------------------- private heaps
// Growable heaps whose blocks are freed together by KaHeapDestroy. A heap created with
// HEAP_NO_SERIALIZE takes no lock: its caller serialises. KaGetProcessHeap is the
// process's general allocator (serialised, never destroyed).
typedef struct KaOpaqueHeap* KAHHEAP;
#define HEAP_NO_SERIALIZE 0x00000001u
#define HEAP_GENERATE_EXCEPTIONS 0x00000004u  // accepted, never throws
#define HEAP_ZERO_MEMORY 0x00000008u
#define HEAP_REALLOC_IN_PLACE_ONLY 0x00000010u

// maximumBytes 0 means growable without limit; otherwise allocations beyond it fail.
OSTRA_API KAHHEAP KaHeapCreate(DWORD options, SIZE_T initialBytes, SIZE_T maximumBytes) noexcept;
OSTRA_API BOOL KaHeapDestroy(KAHHEAP heap) noexcept;
OSTRA_API KAHHEAP KaGetProcessHeap() noexcept;
OSTRA_API void* KaHeapAlloc(KAHHEAP heap, DWORD flags, SIZE_T bytes) noexcept;
// Null on failure, the block unchanged. HEAP_ZERO_MEMORY zeroes the grown part.
OSTRA_API void* KaHeapReAlloc(KAHHEAP heap, DWORD flags, void* block, SIZE_T bytes) noexcept;
OSTRA_API BOOL KaHeapFree(KAHHEAP heap, DWORD flags, void* block) noexcept;
// The size asked for when the block was (re)allocated, or (SIZE_T)-1 when the block is
// not one of this heap's.
OSTRA_API SIZE_T KaHeapSize(KAHHEAP heap, DWORD flags, const void* block) noexcept;
// Live blocks and bytes of one heap, or with a null heap of every heap including the
// process heap; liveHeaps counts the private heaps not yet destroyed.
OSTRA_API void KaHeapGetStats(KAHHEAP heap, UINT64* liveBlocks, UINT64* liveBytes,
                              UINT64* liveHeaps) noexcept;

// TRUE when every byte of the range can be read without a fault (a probe through the
// kernel, never a read that could crash).
OSTRA_API BOOL KaMemory_IsReadable(const void* address, SIZE_T bytes) noexcept;

// ---------------------------------------------------------------- folders
// The user's folders for application data: KA_FOLDER_LOCAL_APPDATA holds what can be
// rebuilt (caches: $XDG_CACHE_HOME, else ~/.cache), KA_FOLDER_ROAMING_APPDATA the user's
// settings ($XDG_CONFIG_HOME, else ~/.config). Relative XDG values are ignored, as the XDG
// rules say. KAERR_NOT_FOUND when neither the variable nor a home folder is set,
// KAERR_PATH_TOO_LONG when the buffer is too small.
#define KA_FOLDER_LOCAL_APPDATA 1u
#define KA_FOLDER_ROAMING_APPDATA 2u
OSTRA_API HRESULT KaPath_GetUserFolder(DWORD folder, KAWCHAR* buffer, DWORD size) noexcept;
// Creates the folder and any missing parents; S_OK when it exists already.
OSTRA_API HRESULT KaPath_CreateFolders(const KAWCHAR* path) noexcept;
// Calls found(context, name) for every regular file of the folder whose name ends with
// suffix (compared without regard to ASCII case), in name order; a callback returning
// FALSE stops the walk. KAERR_NOT_FOUND when the folder does not exist.
typedef BOOL (*KAPATH_FOUND)(void* context, const KAWCHAR* name);
OSTRA_API HRESULT KaPath_FindFiles(const KAWCHAR* folder, const KAWCHAR* suffix, KAPATH_FOUND found,
                                   void* context) noexcept;
// The modification time of a file by path, in the ticks of KaFile_GetModifiedTime.
OSTRA_API HRESULT KaPath_GetModifiedTime(const KAWCHAR* path, INT64* fileTime) noexcept;
// The system's default language as a Windows language id (1033 for en-US), from the
// user's message locale; 1033 when none is set or it is not known.
OSTRA_API DWORD KaGetSystemDefaultLCID() noexcept;
