// The error handler's built-in tables and the hooks its tests need. Owned by
// kernel/error_tables.cpp, kernel/errors.cpp and kernel/details.cpp.
#pragma once

#include <cstddef>
#include <string>

#include "ostra/kadefs.h"

namespace ostra::kernel {

// String number of a context's sentence.
inline constexpr DWORD kContextStringBase = 1000;

// The built-in reason table, in search order; every code's text is the kernel string
// keyed by the code itself.
extern const HRESULT kReasonCodes[];
extern const size_t kReasonCount;
// The context numbers that have a sentence (0 first: the answer for unknown numbers).
extern const DWORD kContextNumbers[];
extern const size_t kContextCount;

struct SystemErrorPair {
  DWORD first, last;  // an inclusive range of system error numbers
  HRESULT code;
};
extern const SystemErrorPair kWin32Errors[];
extern const size_t kWin32ErrorCount;
extern const SystemErrorPair kCommDlgErrors[];
extern const size_t kCommDlgErrorCount;

// The name that stands for $(AppName): the host's, or string 109.
std::u16string appName();

// Forgets every registered reason table (tests only).
void resetErrorTables() noexcept;

// The id of the calling thread as the details record it (KaGetCurrentThreadId).
DWORD currentThreadNumber() noexcept;

}  // namespace ostra::kernel
