#include <gtest/gtest.h>

#include "ostra/kacpu.h"

TEST(Cpu, ClassNumberMatchesTheFeatures) {
  const DWORD d = KaGetCPUDetected();
  const DWORD cls = d & KACPU_CLASS_MASK;
  if (d & KACPU_SSE2)
    EXPECT_EQ(cls, KACPU_CLASS_SSE2);
  else if (d & KACPU_SSE)
    EXPECT_EQ(cls, KACPU_CLASS_SSE);
  else if (d & KACPU_MMX)
    EXPECT_EQ(cls, KACPU_CLASS_MMX);
  else
    EXPECT_EQ(cls, 0u);
#if defined(__x86_64__)
  EXPECT_TRUE(d & KACPU_SSE2);  // part of the x86-64 baseline
#else
  EXPECT_EQ(d, 0u);
#endif
  EXPECT_GE(KaGetProcessorCount(), 1u);
}

TEST(Cpu, AllowDisallowOnlyAllowAndForce) {
  const DWORD all = KaGetCPUSupport(0);
  EXPECT_EQ(KaGetCPUSupport(KACPU_SSE2), all & KACPU_SSE2);

  const DWORD gen = KaGetCPUSupportGeneration();
  EXPECT_TRUE(KaDisallowCPUSupport(KACPU_SSE2));
  EXPECT_FALSE(KaGetCPUSupport(0) & KACPU_SSE2);
  EXPECT_NE(KaGetCPUSupportGeneration(), gen);
  EXPECT_TRUE(KaAllowCPUSupport(KACPU_SSE2));
  EXPECT_EQ(KaGetCPUSupport(0), all);

  EXPECT_FALSE(KaOnlyAllowCPUSupport(0x1));  // outside 0xFF0: refused, nothing changes
  EXPECT_EQ(KaGetCPUSupport(0), all);
  EXPECT_TRUE(KaOnlyAllowCPUSupport(KACPU_SSE | KACPU_MMX));
  EXPECT_EQ(KaGetCPUSupport(0xFF0), all & (KACPU_SSE | KACPU_MMX));
  EXPECT_EQ(KaGetCPUSupport(KACPU_AVX2), all & KACPU_AVX2);  // outside 0xFF0: untouched

  EXPECT_TRUE(KaSetCPUClassBySupport());
  const DWORD forced = (all & KACPU_SSE)   ? KACPU_CLASS_SSE
                       : (all & KACPU_MMX) ? KACPU_CLASS_MMX
                                           : 0;
  EXPECT_EQ(KaGetCPUSupport(0) & KACPU_CLASS_MASK, forced);
  // Re-allowing everything and forcing the full class again restores the first answer.
  EXPECT_TRUE(KaAllowCPUSupport(0xFFFFFFFFu));
  EXPECT_TRUE(KaSetCPUClassBySupport());
  EXPECT_TRUE(KaAllowCPUSupport(0xFFFFFFFFu));
  EXPECT_EQ(KaGetCPUSupport(0), all);
}
