// CPUID and XGETBV on x86 processors. On other processors no feature is reported.
#include "kernel/internal/cpuid.h"
#include "ostra/kacpu.h"

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#include <xmmintrin.h>

namespace ostra::kernel {
namespace {

uint64_t xgetbv0() {
  uint32_t lo, hi;
  __asm__ volatile("xgetbv" : "=a"(lo), "=d"(hi) : "c"(0));
  return (uint64_t(hi) << 32) | lo;
}

// Setting FTZ and DAZ succeeds when the bits read back set; the control word is restored.
bool dazControlWorks() {
  const unsigned saved = _mm_getcsr();
  _mm_setcsr(saved | 0x8040u);
  const bool ok = (_mm_getcsr() & 0x8040u) == 0x8040u;
  _mm_setcsr(saved);
  return ok;
}

}  // namespace

CpuIdentification identifyProcessor() noexcept {
  CpuIdentification id;
  unsigned a, b, c, d;
  if (!__get_cpuid(1, &a, &b, &c, &d)) return id;
  uint32_t f = 0;
  if (d & (1u << 23)) f |= KACPU_MMX;
  if (d & (1u << 25)) f |= KACPU_SSE;
  if (d & (1u << 26)) f |= KACPU_SSE2;
  if (c & (1u << 0)) f |= KACPU_SSE3;
  if (c & (1u << 9)) f |= KACPU_SSSE3;
  if (c & (1u << 19)) f |= KACPU_SSE41;
  if (c & (1u << 20)) f |= KACPU_SSE42;
  if (c & (1u << 28)) f |= KACPU_AVX;
  if (d & (1u << 15)) f |= KACPU_CMOV;
  if (c & (1u << 12)) f |= KACPU_FMA;
  unsigned a7 = 0, b7 = 0, c7 = 0, d7 = 0;
  if (__get_cpuid_count(7, 0, &a7, &b7, &c7, &d7)) {
    if (b7 & (1u << 5)) f |= KACPU_AVX2;
    if (b7 & (1u << 16)) {
      f |= KACPU_AVX512F;
      if (b7 & (1u << 30)) f |= KACPU_AVX512BW;
      if (b7 & (1u << 31)) f |= KACPU_AVX512VL;
      if (c7 & (1u << 1)) f |= KACPU_AVX512VBMI;
    }
  }
  if ((f & KACPU_SSE) && dazControlWorks()) f |= KACPU_DAZ;
  const uint32_t cls = (f & KACPU_SSE2)  ? KACPU_CLASS_SSE2
                       : (f & KACPU_SSE) ? KACPU_CLASS_SSE
                       : (f & KACPU_MMX) ? KACPU_CLASS_MMX
                                         : KACPU_CLASS_NONE;
  id.processor = f | cls;

  // The AVX family needs the operating system to save the YMM (and ZMM) state.
  uint32_t os = id.processor;
  const bool osxsave = c & (1u << 27);
  const uint64_t xcr0 = osxsave ? xgetbv0() : 0;
  constexpr uint32_t kAvx512 = KACPU_AVX512F | KACPU_AVX512BW | KACPU_AVX512VL | KACPU_AVX512VBMI;
  if ((xcr0 & 0x6) != 0x6) os &= ~(KACPU_AVX | KACPU_AVX2 | KACPU_FMA | kAvx512);
  if ((xcr0 & 0xE6) != 0xE6) os &= ~kAvx512;
  id.os = os;
  return id;
}

}  // namespace ostra::kernel

#else

namespace ostra::kernel {
CpuIdentification identifyProcessor() noexcept { return {}; }
}  // namespace ostra::kernel

#endif
