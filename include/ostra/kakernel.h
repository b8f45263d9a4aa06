// Library frame: start-up and shut-down, version and compatibility checks, display-change
// notifications, the timer base, and the language module through which every
// user-visible text of the kernel is chosen.
#pragma once

#include "ostra/kadefs.h"

#define KAKERNEL_VERSION 0x11000141u
#define KAKERNEL_VERSION_MAJOR(v) (((v) >> 24) & 0xFFu)
#define KAKERNEL_VERSION_BUILD(v) ((v)&0x00FFFFFFu)

// The only check kind KaKernel_CheckVersion accepts.
#define KAKERNEL_CHECK_VERSION 3u

// Notifications the host forwards to KaKernel_UserPrefChanges.
#define KA_WM_SYSCOLORCHANGE 0x0015u
#define KA_WM_DISPLAYCHANGE 0x007Eu

// Start-up flags: bit 0 selects start-up mode 1, else bit 5 selects mode 2.
#define KAKERNEL_INIT_MODE1 0x00000001u
#define KAKERNEL_INIT_MODE2 0x00000020u

// ---------------------------------------------------------------- frame
// The first call into the kernel, on the host's main thread. `module` is the module whose
// texts the kernel uses (on POSIX: the address of a function in it); on POSIX the texts are
// compiled into the kernel, so any value (null included) opens them. TRUE when the print-token
// registry and the language resources came up.
OSTRA_API BOOL KaKernel_EarlyInitialize(HMODULE module, DWORD flags) noexcept;
// The last call; always TRUE. A second call releases nothing twice.
OSTRA_API BOOL KaKernel_LateTerminate(HMODULE module) noexcept;
OSTRA_API DWORD KaKernel_GetVersion() noexcept;
// S_OK when a client that needs `requiredVersion` can use this kernel (kind must be
// KAKERNEL_CHECK_VERSION), E_FAIL otherwise; unless `quiet`, the reason is shown in a
// message box (through KaSetMessageBoxHook) before returning.
OSTRA_API HRESULT KaKernel_CheckVersion(HWND owner, const char* clientName, DWORD requiredVersion,
                                        DWORD kind, DWORD reserved, BOOL quiet) noexcept;
OSTRA_API HMODULE KaKernel_GetAppKernel() noexcept;
// Full path of the app kernel module (the kernel library itself when the host passed no
// module), truncated to `length` characters with its terminator. S_OK unless the path
// cannot be found at all.
OSTRA_API HRESULT KaKernel_GetAppKernelPathName(KAWCHAR* buffer, DWORD length) noexcept;
// KA_WM_SYSCOLORCHANGE re-evaluates the high-colour flags and reloads the colour cache;
// KA_WM_DISPLAYCHANGE re-evaluates the flags only. Returns 1 when the message was one of
// these, 0 otherwise.
OSTRA_API LONG KaKernel_UserPrefChanges(HWND window, UINT message) noexcept;
OSTRA_API void KaKernel_SetSplash(HWND splash) noexcept;
OSTRA_API HWND KaKernel_GetSplash() noexcept;

// ---------------------------------------------------------------- timer base
// Milliseconds and microseconds from the high-resolution counter, counted from the
// first start-up of the kernel in the process (the milliseconds wrap at 2^32).
OSTRA_API DWORD KaGetMillisec() noexcept;
OSTRA_API UINT64 KaGetMicrosec() noexcept;
// Start-up steps of the timer and performance modules; KaKernel_EarlyInitialize calls
// them, and calling them again does nothing.
OSTRA_API void KaTimer_LateInitialize() noexcept;
OSTRA_API void KaPerf_Initialize() noexcept;

// ---------------------------------------------------------------- language module
#define KALANG_SLOTS 18  // languages in every string record, English first

// String numbers of the kernel's own texts (100-999).
#define KASTR_INCOMPATIBLE_CLIENT 106u  // "...incompatible with the following client:\n\n%s."
#define KASTR_KERNEL_TOO_OLD 107u
#define KASTR_KERNEL_CAPTION 108u
#define KASTR_DEFAULT_APP_NAME 109u  // stands for $(AppName) until the host names itself
#define KASTR_DECIMAL_SEPARATOR 110u
#define KASTR_THOUSAND_SEPARATOR 111u
#define KASTR_LIST_SEPARATOR 112u
#define KASTR_DATE_SEPARATOR 113u
#define KASTR_TIME_SEPARATOR 114u

// A host's own localized text: `record` points to a string record (0xFEFF, language
// count, then one zero-terminated UTF-16 text per language, English first; an empty text
// falls back to English). The records must outlive the handle.
struct KASTRINGRECORD {
  DWORD id;
  const WORD* record;
};

#define KAINTL_FIELD 4
struct KAINTERNATIONALS {
  KAWCHAR decimalSeparator[KAINTL_FIELD];
  KAWCHAR thousandSeparator[KAINTL_FIELD];
  KAWCHAR listSeparator[KAINTL_FIELD];
  KAWCHAR dateSeparator[KAINTL_FIELD];
  KAWCHAR timeSeparator[KAINTL_FIELD];
};

// Opens the kernel's string resources in the user's language: the language the host
// forced with KaLang_SetLanguage(nullptr, ...), else the locale environment (LC_ALL, then
// LC_MESSAGES, then LANG), else English.
OSTRA_API HKALANG KaLang_Open(HMODULE module) noexcept;
// A handle over the host's own records (copied table, records referenced).
OSTRA_API HKALANG KaLang_OpenRecords(const KASTRINGRECORD* records, UINT count) noexcept;
OSTRA_API void KaLang_Close(HKALANG lang) noexcept;
// The text for a string number or result code in the handle's language, English when the
// language lacks it, null when there is no such text. A null handle means the kernel's
// own texts in the kernel's current language. The pointer lives as long as the handle.
OSTRA_API const KAWCHAR* KaLang_GetString(HKALANG lang, DWORD id) noexcept;
// Forces the language by locale name ("de", "ja_JP", "pt_BR.UTF-8"); null goes back to
// the environment. A null handle sets the language of every kernel text. E_INVALIDARG
// for a locale no language slot matches.
OSTRA_API HRESULT KaLang_SetLanguage(HKALANG lang, const char* locale) noexcept;
// The language slot of a handle (null: the kernel's), its folder name, and the slot a
// locale name selects (-1 for none).
OSTRA_API int KaLang_GetLanguage(HKALANG lang) noexcept;
OSTRA_API const char* KaLang_GetLanguageName(int slot) noexcept;
OSTRA_API int KaLang_FindLanguage(const char* locale) noexcept;
// The number, list, date and time separators of the handle's language.
OSTRA_API HRESULT KaLang_GetInternationals(HKALANG lang, KAINTERNATIONALS* out) noexcept;
