// Process-wide state of the library frame (kernel/frame.cpp, kernel/colours.cpp,
// kernel/timebase.cpp), for the kernel's own code and its tests.
#pragma once

#include "ostra/kadefs.h"

namespace ostra::kernel {

inline constexpr int kKernelColourCount = 53;
inline constexpr int kSystemColourCount = 31;
inline constexpr int kKernelCursorCount = 174;
inline constexpr int kGroupCursorCount = 300;
inline constexpr DWORD kColourNotFetched = 0xFFFFFFFFu;

// Error-mode bits the frame adds at start-up: fail critical errors silently, and no
// open-file error boxes. POSIX shows no such boxes; the word records the request.
inline constexpr DWORD kSemFailCriticalErrors = 0x0001u;
inline constexpr DWORD kSemNoOpenFileErrorBox = 0x8000u;

struct FrameState {
  HMODULE appKernel = nullptr;
  DWORD flags = 0;
  DWORD startMode = 0;
  HMODULE hostModule = nullptr;
  DWORD scale = 0;
  DWORD reserved = 0;
  HWND splash = nullptr;
  DWORD errorMode = 0;
  DWORD effectiveCpu = 0;
  bool running = false;
};
const FrameState& frameState() noexcept;

// Colour and drawing-object cache: 53 kernel colours (0x00BBGGRR) copied from their
// defaults at start-up, and 31 system colours fetched on first use.
void loadColourCache() noexcept;
void releaseColourCache() noexcept;
DWORD kernelColour(int index) noexcept;        // 0 for an index out of range
DWORD systemColour(int index) noexcept;        // fetches on first use
DWORD cachedSystemColour(int index) noexcept;  // kColourNotFetched until fetched
DWORD defaultKernelColour(int index) noexcept;
// Cursor tables: handles the cursor utilities cache; the frame only clears them.
void releaseCursors() noexcept;
int cachedCursorCount() noexcept;

// High-colour flags: the primary display, and every display, have at least 16 bits per
// pixel. Evaluated on first use and again on display notifications.
bool highColourPrimary() noexcept;
bool highColourAllMonitors() noexcept;
bool highColourEvaluated() noexcept;
void evaluateHighColour() noexcept;

// Timer base: performance-counter frequency and its per-millisecond and per-microsecond
// divisors, set once per process.
struct TimerBase {
  INT64 frequency = 0;
  INT64 countsPerMs = 0;
  INT64 countsPerUs = 0;
  bool counter = false;  // the high-resolution counter is in use
};
void initialiseTimerBase() noexcept;
const TimerBase& timerBase() noexcept;

}  // namespace ostra::kernel
