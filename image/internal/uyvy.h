// Row kernels of the packed 4:2:2 to RGB conversion and their per-processor table.
// The plain kernels define the result; the vector ones (uyvy_sse2.cpp, uyvy_avx2.cpp)
// must give the same bytes and are only referenced on x86-64.
#pragma once

#include "ostra/kadefs.h"

namespace ostra::image {

// The inverse matrix terms times 4096, rounded to nearest.
struct UyvyCoeffs {
  int32_t rFromCr, gFromCr, gFromCb, bFromCb;
};

// Converts `width` pixels (width even) of one row.
using UyvyRowFn = void (*)(BYTE* dst, const BYTE* src, LONG width, const UyvyCoeffs& k);

void uyvyToBgra_plain(BYTE* dst, const BYTE* src, LONG width, const UyvyCoeffs& k);
void uyvyToBgr_plain(BYTE* dst, const BYTE* src, LONG width, const UyvyCoeffs& k);
#if defined(__x86_64__)
void uyvyToBgra_sse2(BYTE* dst, const BYTE* src, LONG width, const UyvyCoeffs& k);
void uyvyToBgra_avx2(BYTE* dst, const BYTE* src, LONG width, const UyvyCoeffs& k);
void uyvyToBgr_avx2(BYTE* dst, const BYTE* src, LONG width, const UyvyCoeffs& k);
void uyvyToBgra_avx512(BYTE* dst, const BYTE* src, LONG width, const UyvyCoeffs& k);
#endif

struct UyvyTable {
  UyvyRowFn toBgra;
  UyvyRowFn toBgr;
  // The instruction set each entry was built for ("plain", "sse2", "avx2", "avx512"), so
  // that tests and benchmarks can say which kernel a feature mask chose.
  const char* toBgraVariant;
  const char* toBgrVariant;
};
// The table for a feature mask (tests pass masks to reach each variant). The AVX-512
// kernel also needs the byte and word instructions, which the feature mask does not
// name, so it is taken only where the processor reports them.
UyvyTable uyvyTableFor(DWORD cpuFeatures) noexcept;
// The table for KaGetCPUSupport(0), rebuilt when the allowed or forced masks change.
const UyvyTable& uyvyTable() noexcept;

UyvyCoeffs uyvyCoeffs(int colourSpace, LONG width, LONG height) noexcept;

}  // namespace ostra::image
