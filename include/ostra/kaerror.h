// Result codes of the kernel (facility 4, from 0xE000) and the error-handler family that
// turns them into localized messages: reason and context texts, message composition, the
// per-process details text, translation of system error numbers, and crash dumps.
#pragma once

#include "ostra/kadefs.h"

#define KA_FAIL_CODE(n) ((HRESULT)(0x8004E000u + (n)))
#define KA_WARN_CODE(n) ((HRESULT)(0x0004E000u + (n)))

// Codes the file, audio and image families return. Every code has a text.
#define KAERR_UNSUPPORTED_FORMAT KA_FAIL_CODE(0x000)  // unsupported media type / format refused
#define KAERR_MEDIA_TYPE_MISMATCH KA_FAIL_CODE(0x001)
#define KAERR_DISK_FULL KA_FAIL_CODE(0x002)
#define KAERR_FILE_TOO_LARGE KA_FAIL_CODE(0x003)
#define KAERR_WRITE_PROTECTED KA_FAIL_CODE(0x004)
#define KAERR_BUSY KA_FAIL_CODE(0x005)
#define KAERR_NOT_READY KA_FAIL_CODE(0x006)
#define KAERR_OPEN_FAILED KA_FAIL_CODE(0x007)   // file could not be opened
#define KAERR_READ_FAILED KA_FAIL_CODE(0x008)   // read failed or came back short
#define KAERR_WRITE_FAILED KA_FAIL_CODE(0x009)  // write failed
#define KAERR_NOT_FOUND KA_FAIL_CODE(0x00A)     // item, chunk or file not found
#define KAERR_CORRUPT_FILE KA_FAIL_CODE(0x00B)  // corrupted or unknown format
#define KAERR_CANCELLED KA_FAIL_CODE(0x00C)     // cancelled by the user
#define KAERR_BAD_NAME KA_FAIL_CODE(0x00D)
#define KAERR_RESOURCE_MISSING KA_FAIL_CODE(0x00E)
#define KAERR_CLOSE_FAILED KA_FAIL_CODE(0x00F)
#define KAERR_SEEK_FAILED KA_FAIL_CODE(0x010)
#define KAERR_TIMEOUT KA_FAIL_CODE(0x011)
#define KAERR_IN_USE KA_FAIL_CODE(0x015)
#define KAERR_UNSUPPORTED_FILE KA_FAIL_CODE(0x016)
#define KAERR_UNSUPPORTED_COMPRESSION KA_FAIL_CODE(0x017)
#define KAERR_NO_STREAMS KA_FAIL_CODE(0x01A)
#define KAERR_CDDA_FORMAT KA_FAIL_CODE(0x01C)
#define KAERR_FRAME_RATE KA_FAIL_CODE(0x01D)
#define KAERR_FRAME_SIZE KA_FAIL_CODE(0x01E)
#define KAERR_PIXEL_FORMAT KA_FAIL_CODE(0x01F)
#define KAERR_EMPTY_FILE KA_FAIL_CODE(0x020)
#define KAERR_TOO_MANY_FILES KA_FAIL_CODE(0x026)
#define KAERR_BIT_DEPTH KA_FAIL_CODE(0x02A)
#define KAERR_CHANNELS KA_FAIL_CODE(0x02B)
#define KAERR_PLUGIN_LOAD KA_FAIL_CODE(0x02E)
#define KAERR_PLUGIN_UNSUPPORTED KA_FAIL_CODE(0x02F)
#define KAERR_NO_PLUGIN KA_FAIL_CODE(0x031)
#define KAERR_FILE_EXISTS KA_FAIL_CODE(0x032)
#define KAERR_PATH_TOO_LONG KA_FAIL_CODE(0x033)
#define KAERR_READ_ONLY KA_FAIL_CODE(0x038)
#define KAERR_NETWORK_PATH KA_FAIL_CODE(0x039)
#define KAERR_RIFF_TOO_LARGE KA_FAIL_CODE(0x03A)
#define KAERR_UNALIGNED_DATA KA_FAIL_CODE(0x03B)
#define KAERR_SHARING_VIOLATION KA_FAIL_CODE(0x05A)
#define KAERR_LOCKED KA_FAIL_CODE(0x05B)
#define KAERR_BAD_TIMECODE KA_FAIL_CODE(0x05D)
#define KAERR_TIMECODE_FORMAT KA_FAIL_CODE(0x05E)
#define KAERR_SAMPLE_RATE KA_FAIL_CODE(0x061)
#define KAERR_NO_RIFF KA_FAIL_CODE(0x080)
#define KAERR_NO_LIST KA_FAIL_CODE(0x081)
#define KAERR_ZERO_CHUNK KA_FAIL_CODE(0x082)
#define KAERR_BAD_CHUNK KA_FAIL_CODE(0x083)
#define KAERR_BAD_FORMAT_CHUNK KA_FAIL_CODE(0x084)
#define KAERR_NO_DATA_CHUNK KA_FAIL_CODE(0x087)
#define KAERR_CHUNK_NOT_FOUND KA_FAIL_CODE(0x089)
#define KAERR_CHUNK_TOO_LARGE KA_FAIL_CODE(0x08A)
#define KAERR_VIDEO_FORMAT KA_FAIL_CODE(0x0B4)
#define KAERR_IMAGE_FORMAT KA_FAIL_CODE(0x0C2)
#define KAERR_IMAGE_TOO_LARGE KA_FAIL_CODE(0x0C5)
#define KAERR_COLOUR_CONVERSION KA_FAIL_CODE(0x0C9)
#define KAERR_BAD_BITMAP KA_FAIL_CODE(0x0D4)
#define KAERR_TRANSPORT_NOT_OPEN KA_FAIL_CODE(0x0EC)
#define KAERR_TRANSPORT_BUSY KA_FAIL_CODE(0x0ED)
#define KAERR_THREAD_CREATE KA_FAIL_CODE(0x16D)
#define KAERR_QUEUE_EMPTY KA_FAIL_CODE(0x16E)
#define KAERR_ALREADY_EXISTS KA_FAIL_CODE(0x170)
#define KAERR_OUT_OF_RANGE KA_FAIL_CODE(0x171)
#define KAERR_WAIT_ABANDONED KA_FAIL_CODE(0x172)
#define KAERR_CLOSED KA_FAIL_CODE(0x173)
#define KAERR_WRONG_THREAD KA_FAIL_CODE(0x174)
// A plug-in in a surrogate process took it down, or the process is gone (docs/surrogate.md).
#define KAERR_FIO_PLUGIN_CRASHED KA_FAIL_CODE(0x190)
#define KAERR_FIO_PLUGIN_ABORTED KA_FAIL_CODE(0x191)
#define KAERR_FIO_PLUGIN_HUNG KA_FAIL_CODE(0x192)
#define KAERR_FIO_SURROGATE_GONE KA_FAIL_CODE(0x193)
#define KAERR_FIO_PLUGIN_BLOCKED KA_FAIL_CODE(0x194)
#define KAERR_FIO_SURROGATE_START KA_FAIL_CODE(0x195)
#define KAERR_INVALID_DRIVE ((HRESULT)0x800404B0u)
#define KAERR_END_OF_FILE ((HRESULT)0x800A0026u)  // "End of File is not an error."
#define KAWARN_RECOVERED KA_WARN_CODE(0x000)      // some content was recovered
#define KAWARN_SHORT_DATA KA_WARN_CODE(0x008)
#define KAWARN_LENGTH_FIXED KA_WARN_CODE(0x018)

// Context numbers: what the user was doing (the first sentence of a message). A context
// value of 0x10000 or more is a pointer to the caller's own template (a KAWCHAR string
// with at most one %s).
#define KACTX_GENERAL 0x00u
#define KACTX_LOAD_PLUGIN 0x02u
#define KACTX_PROJECT_MEDIA 0x04u
#define KACTX_LOAD_PROJECT 0x05u
#define KACTX_SAVE_PROJECT 0x06u
#define KACTX_CREATE_MEDIA 0x07u
#define KACTX_EDIT 0x08u
#define KACTX_START_PLAYBACK 0x0Bu
#define KACTX_RECORD 0x0Cu
#define KACTX_OPEN_AUDIO_DEVICE 0x0Eu
#define KACTX_OPEN_FILES 0x16u
#define KACTX_SAVE_FILES 0x17u
#define KACTX_STARTUP 0x1Au
#define KACTX_FILE_FORMAT_PLUGIN 0x1Bu
#define KACTX_ENCODE 0x1Cu
#define KACTX_WRITE_FILE 0x1Du
#define KACTX_IMPORT_MEDIA 0x21u
#define KACTX_COMMAND 0x2Du
#define KACTX_RENAME_FILE 0x39u
#define KACTX_FROM_TEMPLATE(t) ((UINT_PTR)(const KAWCHAR*)(t))

// Message composition limits.
#define KAERR_MESSAGE_CHARS 2048   // the message buffer, terminator included
#define KAERR_CONTEXT_CUT 1948     // a context this long gets no reason text
#define KAERR_DETAILS_BYTES 16384  // the details text, terminator included
#define KAERR_LINK_CAPTION_CHARS 2083
#define KAERR_LINK_TARGET_CHARS 2048
#define KAERR_MAX_TABLES 32

// A row of a registered reason table: the text is string `stringId` of the table's
// language handle.
struct KAERRORTABLEENTRY {
  HRESULT code;
  DWORD stringId;
};

// The reason text for a code (registered tables first, then the built-in table), or null.
OSTRA_API const KAWCHAR* KaErrorHandler_GetHresultString(HRESULT code) noexcept;
// The context sentence (a template pointer is returned as it is; an unknown number gives
// the general sentence).
OSTRA_API const KAWCHAR* KaErrorHandler_GetContextString(UINT_PTR context) noexcept;
// The context sentence formatted with `argument`, then the reason (or "Error 0x%08x
// (message missing)"), with $(AppName) replaced. The text lives in a per-thread buffer of
// KAERR_MESSAGE_CHARS that the next call on the thread overwrites.
OSTRA_API const KAWCHAR* KaErrorHandler_GetErrorMessage(UINT_PTR context, HRESULT code,
                                                        const KAWCHAR* argument) noexcept;
// The message plus the details text in "<Details>" markers, as a new block from the
// global-memory allocator: free it with KaErrorHandler_FreeErrorText (or KaGlobalFreePtr).
// Null only when memory ran out.
OSTRA_API KAWCHAR* KaErrorHandler_ComposeErrorText(UINT_PTR context, HRESULT code,
                                                   const KAWCHAR* argument) noexcept;
OSTRA_API void KaErrorHandler_FreeErrorText(KAWCHAR* text) noexcept;
// Shows the composed text through the kernel's message box (KaMessageBox) and returns
// its answer; a cancelled-by-user code (KAERR_CANCELLED) shows nothing and returns IDOK.
// Without an icon in `flags` the icon follows the code (error or warning). A null caption
// is the application name.
OSTRA_API int KaErrorHandler_MsgBox(HWND owner, UINT flags, UINT_PTR context, HRESULT code,
                                    const KAWCHAR* argument = nullptr,
                                    const KAWCHAR* caption = nullptr) noexcept;
// The name that replaces "$(AppName)" (copied; null goes back to the default, string 109).
OSTRA_API void KaErrorHandler_SetAppName(const KAWCHAR* name) noexcept;

// Windows system and common-dialog error numbers to result codes (E_FAIL when unknown).
OSTRA_API HRESULT KaErrorHandler_TranslateWin32Error(DWORD error) noexcept;
OSTRA_API HRESULT KaErrorHandler_TranslateCommDlgError(DWORD error) noexcept;

// Registers a reason table searched before the built-in one, in order of registration.
// The rows must outlive the process's use of them. 0 when registered, 1 when 32 tables
// are registered already or the table is empty. The first form fetches the texts from the
// kernel's own resources.
OSTRA_API int KaErrorHandler_AddErrorTable(const KAERRORTABLEENTRY* table, int count) noexcept;
OSTRA_API int KaErrorHandler_AddErrorTable(HKALANG lang, const KAERRORTABLEENTRY* table,
                                           int count) noexcept;

// The per-process details text. The first thread that adds a line owns it until
// KaErrorHandler_DetailsInit; other threads may add lines only for the same code (E_FAIL
// otherwise). A format holding "%" or "$" is formatted with the arguments (UTF-16
// printf fields: %s is a KAWCHAR string, %hs a UTF-8 one, %d and %x take 32-bit values,
// %lld / %I64d 64-bit ones). A line that would bring the text to KAERR_DETAILS_BYTES is
// refused with E_FAIL.
OSTRA_API void KaErrorHandler_DetailsInit() noexcept;
OSTRA_API HRESULT KaErrorHandler_DetailsAddString(HRESULT code, const KAWCHAR* format,
                                                  ...) noexcept;
// Any of the pointers may be null. `thread` is the id of the owning thread
// (KaGetCurrentThreadId; 0 when none).
OSTRA_API HRESULT KaErrorHandler_DetailsInfo(HRESULT* code, DWORD* lines, DWORD* thread) noexcept;
// Copies the details text (each line ends in "\r\n") into buffer, cut to chars - 1
// characters and terminated; returns the text's whole length in characters, so a null
// buffer with 0 chars asks for the size. The parsers of the file families add a line for
// each thing they repaired, skipped or clamped in a file that still reads; a host that
// wants them calls KaErrorHandler_DetailsInit before the call and reads them here after.
OSTRA_API DWORD KaErrorHandler_DetailsGetText(KAWCHAR* buffer, DWORD chars) noexcept;
// A link shown with the message (for example to a help page); null caption clears it.
OSTRA_API HRESULT KaErrorHandler_DetailsSetHyperlink(const KAWCHAR* caption,
                                                     const KAWCHAR* target) noexcept;
// Copies the link out; S_FALSE when none is set.
OSTRA_API HRESULT KaErrorHandler_DetailsGetHyperlink(KAWCHAR* caption, DWORD captionChars,
                                                     KAWCHAR* target, DWORD targetChars) noexcept;
// The code the current details belong to (S_OK when there are none).
OSTRA_API HRESULT KaErrorHandler_GetLastError() noexcept;
// The calling thread's id as DetailsInfo reports owners (KaGetCurrentThreadId).
OSTRA_API DWORD KaErrorHandler_GetThreadNumber() noexcept;

// ---------------------------------------------------------------- crash diagnostics
#define KA_EXCEPTION_MAXIMUM_PARAMETERS 15
#define KA_EXCEPTION_CONTINUE_SEARCH 0
#define KA_EXCEPTION_EXECUTE_HANDLER 1
#define KA_EXCEPTION_ACCESS_VIOLATION 0xC0000005u
#define KA_EXCEPTION_ILLEGAL_INSTRUCTION 0xC000001Du
#define KA_EXCEPTION_INT_DIVIDE_BY_ZERO 0xC0000094u
#define KA_EXCEPTION_STACK_OVERFLOW 0xC00000FDu

// What a crash handler knows about the fault (on POSIX built from the signal: the code
// from the signal number, the address from the faulting instruction, and for an access
// violation the parameters 0 = read / 1 = write and the address touched).
struct KAEXCEPTION_RECORD {
  DWORD ExceptionCode;
  DWORD ExceptionFlags;
  const KAEXCEPTION_RECORD* ExceptionRecord;  // a nested record, or null
  const void* ExceptionAddress;
  DWORD NumberParameters;
  UINT_PTR ExceptionInformation[KA_EXCEPTION_MAXIMUM_PARAMETERS];
};
struct KAEXCEPTION_POINTERS {
  const KAEXCEPTION_RECORD* ExceptionRecord;
  const void* ContextRecord;
};

// Append hexadecimal dumps to the details text under `code`, 16 bytes (or 4 words) per
// line, each line starting with `displayAddress` plus its offset.
OSTRA_API HRESULT KaErrorHandler_DumpHex(HRESULT code, const void* data, DWORD bytes,
                                         UINT_PTR displayAddress) noexcept;
OSTRA_API HRESULT KaErrorHandler_DumpHexDWords(HRESULT code, const DWORD* data, DWORD count,
                                               UINT_PTR displayAddress) noexcept;
// Describes an exception record (and the records nested in it, up to 8) in the details.
OSTRA_API HRESULT KaErrorHandler_DumpExceptionRecord(HRESULT code,
                                                     const KAEXCEPTION_RECORD* record) noexcept;
// For a crash handler: starts a fresh details text under E_UNEXPECTED describing the
// exception, and returns KA_EXCEPTION_EXECUTE_HANDLER (KA_EXCEPTION_CONTINUE_SEARCH when
// there is no record).
OSTRA_API LONG KaErrorHandler_ExceptionFilter(const KAEXCEPTION_POINTERS* info) noexcept;
