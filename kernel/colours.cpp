// The frame's colour and drawing-object cache, cursor tables and high-colour flags.
//
// POSIX has no display server the kernel could ask: there are no brushes, pens, fonts or
// cursors to create, system colours come from the classic light scheme, and both
// high-colour flags report true (every display a POSIX host drives today has at least 16
// bits per pixel, and the flags only choose between full-colour and 256-colour
// drawing). The tables are kept so that the start-up and shut-down steps stay the same
// on every platform.
#include <algorithm>
#include <atomic>
#include <cstring>

#include "kernel/internal/frame.h"

namespace ostra::kernel {
namespace {

constexpr DWORD rgb(int r, int g, int b) { return DWORD(r) | (DWORD(g) << 8) | (DWORD(b) << 16); }

// Kernel colours by role: backgrounds (0-2), waveform (3-4), timeline (5-6), cursor and
// selection (7-8), markers and regions (9-11), grid (12-13), envelopes (14-16), events
// (17-19), meters (20-25), controls (26-29), text (30-34), tabs and buttons (35-40),
// special markers (41-42), track states (43-46), video (47-48), time code (49-51), focus (52).
constexpr DWORD kDefaultKernelColours[kKernelColourCount] = {
    rgb(56, 56, 56),    rgb(70, 70, 70),    rgb(92, 92, 92),    rgb(96, 190, 255),
    rgb(255, 255, 255), rgb(40, 40, 40),    rgb(220, 220, 220), rgb(255, 64, 64),
    rgb(128, 160, 224), rgb(255, 200, 0),   rgb(0, 160, 96),    rgb(80, 120, 200),
    rgb(84, 84, 84),    rgb(100, 100, 100), rgb(0, 200, 255),   rgb(255, 128, 255),
    rgb(255, 160, 64),  rgb(24, 24, 24),    rgb(255, 255, 255), rgb(200, 200, 200),
    rgb(0, 200, 64),    rgb(232, 232, 0),   rgb(255, 140, 0),   rgb(255, 0, 0),
    rgb(16, 16, 16),    rgb(255, 255, 255), rgb(120, 120, 120), rgb(255, 255, 255),
    rgb(30, 30, 30),    rgb(180, 180, 180), rgb(230, 230, 230), rgb(128, 128, 128),
    rgb(255, 255, 255), rgb(255, 255, 225), rgb(0, 0, 0),       rgb(80, 80, 80),
    rgb(48, 48, 48),    rgb(64, 64, 64),    rgb(110, 110, 110), rgb(24, 24, 24),
    rgb(60, 60, 60),    rgb(255, 96, 0),    rgb(0, 128, 255),   rgb(200, 0, 0),
    rgb(255, 40, 40),   rgb(140, 140, 60),  rgb(230, 200, 0),   rgb(0, 0, 0),
    rgb(255, 255, 0),   rgb(0, 0, 0),       rgb(0, 255, 64),    rgb(255, 200, 0),
    rgb(255, 255, 255),
};

// The classic light scheme, by system-colour index 0 (scroll bar) to 30 (menu bar).
constexpr DWORD kLightScheme[kSystemColourCount] = {
    rgb(200, 200, 200), rgb(0, 0, 0),       rgb(153, 180, 209), rgb(191, 205, 219),
    rgb(240, 240, 240), rgb(255, 255, 255), rgb(100, 100, 100), rgb(0, 0, 0),
    rgb(0, 0, 0),       rgb(0, 0, 0),       rgb(180, 180, 180), rgb(244, 247, 252),
    rgb(171, 171, 171), rgb(0, 120, 215),   rgb(255, 255, 255), rgb(240, 240, 240),
    rgb(160, 160, 160), rgb(109, 109, 109), rgb(0, 0, 0),       rgb(0, 0, 0),
    rgb(255, 255, 255), rgb(105, 105, 105), rgb(227, 227, 227), rgb(0, 0, 0),
    rgb(255, 255, 225), rgb(0, 0, 0),       rgb(0, 102, 204),   rgb(185, 209, 234),
    rgb(215, 228, 242), rgb(0, 120, 215),   rgb(240, 240, 240),
};

struct ColourCache {
  DWORD kernel[kKernelColourCount];
  DWORD system[kSystemColourCount];
};
ColourCache gCache = [] {
  ColourCache c;
  std::copy(std::begin(kDefaultKernelColours), std::end(kDefaultKernelColours), c.kernel);
  std::memset(c.system, 0xFF, sizeof c.system);
  return c;
}();

void* gKernelCursors[kKernelCursorCount];
void* gGroupCursors[kGroupCursorCount];

// Marker and value per flag; written by the main thread on notifications.
std::atomic<bool> gHighColourKnown{false};
std::atomic<bool> gHighColourPrimary{false};
std::atomic<bool> gHighColourAll{false};

}  // namespace

void loadColourCache() noexcept {
  std::copy(std::begin(kDefaultKernelColours), std::end(kDefaultKernelColours), gCache.kernel);
  std::memset(gCache.system, 0xFF, sizeof gCache.system);
}

void releaseColourCache() noexcept {
  // No drawing objects exist on POSIX; forgetting the fetched system colours is what a
  // reload after a colour change needs.
  std::memset(gCache.system, 0xFF, sizeof gCache.system);
}

DWORD kernelColour(int index) noexcept {
  return index >= 0 && index < kKernelColourCount ? gCache.kernel[index] : 0;
}

DWORD defaultKernelColour(int index) noexcept {
  return index >= 0 && index < kKernelColourCount ? kDefaultKernelColours[index] : 0;
}

DWORD cachedSystemColour(int index) noexcept {
  return index >= 0 && index < kSystemColourCount ? gCache.system[index] : kColourNotFetched;
}

DWORD systemColour(int index) noexcept {
  if (index < 0 || index >= kSystemColourCount) return 0;
  if (gCache.system[index] == kColourNotFetched) gCache.system[index] = kLightScheme[index];
  return gCache.system[index];
}

void releaseCursors() noexcept {
  std::fill(std::begin(gKernelCursors), std::end(gKernelCursors), nullptr);
  std::fill(std::begin(gGroupCursors), std::end(gGroupCursors), nullptr);
}

int cachedCursorCount() noexcept {
  return int(
      std::count_if(std::begin(gKernelCursors), std::end(gKernelCursors),
                    [](void* p) { return p; }) +
      std::count_if(std::begin(gGroupCursors), std::end(gGroupCursors), [](void* p) { return p; }));
}

void evaluateHighColour() noexcept {
  gHighColourPrimary = true;
  gHighColourAll = true;
  gHighColourKnown = true;
}

bool highColourEvaluated() noexcept { return gHighColourKnown; }

bool highColourPrimary() noexcept {
  if (!gHighColourKnown) evaluateHighColour();
  return gHighColourPrimary;
}

bool highColourAllMonitors() noexcept {
  if (!gHighColourKnown) evaluateHighColour();
  return gHighColourAll;
}

}  // namespace ostra::kernel
