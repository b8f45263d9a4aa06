// Process-wide processor-feature state: detected once, then narrowed or forced by the
// host through the allowed and forced masks.
#include <atomic>
#include <mutex>

#include "kernel/internal/cpuid.h"
#include "ostra/kacpu.h"
#include "platform/internal/system.h"

namespace {

struct CpuState {
  std::once_flag once;
  uint32_t detected = 0;
  uint32_t os = 0;
  uint32_t processors = 1;
  std::atomic<uint32_t> allowed{0xFFFFFFFFu};
  std::atomic<uint32_t> forced{0};
  std::atomic<uint32_t> generation{0};
};

CpuState& state() {
  static CpuState s;
  std::call_once(s.once, [] {
    const auto id = ostra::kernel::identifyProcessor();
    // A feature the operating system does not let run is not usable: the detected mask
    // is the processor's answer narrowed by the operating system's.
    s.detected = id.processor & id.os;
    s.os = id.os;
    s.processors = ostra::platform::processorCount();
  });
  return s;
}

DWORD normalise(DWORD mask) { return mask == 0 ? 0xFFFFFFFFu : mask; }

}  // namespace

DWORD KaGetCPUSupport(DWORD mask) noexcept {
  CpuState& s = state();
  return (normalise(mask) & s.allowed.load() & s.detected) | s.forced.load();
}

DWORD KaGetOSSupport(DWORD mask) noexcept { return normalise(mask) & state().os; }

DWORD KaGetCPUDetected() noexcept { return state().detected; }

DWORD KaGetProcessorCount() noexcept { return state().processors; }

BOOL KaAllowCPUSupport(DWORD bits) noexcept {
  state().allowed.fetch_or(bits);
  state().generation.fetch_add(1);
  return TRUE;
}

BOOL KaDisallowCPUSupport(DWORD bits) noexcept {
  state().allowed.fetch_and(~bits);
  state().generation.fetch_add(1);
  return TRUE;
}

BOOL KaOnlyAllowCPUSupport(DWORD bits) noexcept {
  if (bits & ~0xFF0u) return FALSE;
  CpuState& s = state();
  s.allowed.store((s.allowed.load() & ~0xFF0u) | bits);
  s.generation.fetch_add(1);
  return TRUE;
}

BOOL KaSetCPUClassBySupport() noexcept {
  CpuState& s = state();
  const uint32_t allowed = s.allowed.load() & ~KACPU_CLASS_MASK;
  s.allowed.store(allowed);
  s.forced.store((allowed & KACPU_SSE2)  ? KACPU_CLASS_SSE2
                 : (allowed & KACPU_SSE) ? KACPU_CLASS_SSE
                 : (allowed & KACPU_MMX) ? KACPU_CLASS_MMX
                                         : KACPU_CLASS_NONE);
  s.generation.fetch_add(1);
  return TRUE;
}

DWORD KaGetCPUSupportGeneration() noexcept { return state().generation.load(); }
