// Row kernels of the general YUV conversions (image/yuv_general.cpp) and their
// per-processor table. The layouts are unpacked to, and packed from, rows of 16-bit
// samples (luma per pixel, chroma per pixel pair; 0..255 or 0..1023); the colour kernels
// do the arithmetic between such rows and 32-bit BGRA rows. Most layouts are unpacked by
// plain loops in yuv_general.cpp; v210 and the 10-bit word layouts, where vector code
// pays, by kernels of this table.
// The plain kernels define the result; the vector ones (yuv_general_avx2.cpp,
// yuv_general_avx512.cpp) give the same bytes and are only referenced on x86-64.
// Only declarations live here: an inline function compiled into an ISA file could be
// merged with the plain one and run on a processor without that ISA.
#pragma once

#include "image/internal/uyvy.h"
#include "ostra/kadefs.h"
#include "ostra/kayuv.h"

namespace ostra::image {

// BGRA from samples: `width` pixels (even), chroma shared by each pair.
using YuvToBgraRowFn = void (*)(BYTE* dst, const int16_t* y, const int16_t* u, const int16_t* v,
                                LONG width, const UyvyCoeffs& k);
// Luma of `width` BGRA pixels.
using BgraToLumaRowFn = void (*)(int16_t* y, const BYTE* src, LONG width, const KAYUVMATRIX& m);
// Chroma of width / 2 pairs, from the average colour of each pair of row `a`, or of the
// 2x2 block of rows `a` and `b` when `b` is not null.
using BgraToChromaRowFn = void (*)(int16_t* u, int16_t* v, const BYTE* a, const BYTE* b, LONG width,
                                   const KAYUVMATRIX& m);

// One v210 row (groups of 6 pixels in 16 bytes, a partial last group included) to samples
// and back. The writer fills whole groups, leaving fields of missing pixels zero.
using V210ToSamplesFn = void (*)(int16_t* y, int16_t* u, int16_t* v, const BYTE* src, LONG width);
using SamplesToV210Fn = void (*)(BYTE* dst, const int16_t* y, const int16_t* u, const int16_t* v,
                                 LONG width);
// 10-bit samples in the top bits of little-endian words ("P010", "P210"): `n` words of a
// plane, or `n` interleaved U, V pairs.
using Words10ToSamplesFn = void (*)(int16_t* d, const BYTE* src, LONG n);
using WordPairs10ToSamplesFn = void (*)(int16_t* u, int16_t* v, const BYTE* src, LONG n);

// [0] 8-bit samples, [1] 10-bit samples.
struct YuvGeneralTable {
  YuvToBgraRowFn toBgra[2];
  BgraToLumaRowFn luma[2];
  BgraToChromaRowFn chroma[2];
  V210ToSamplesFn fromV210;
  SamplesToV210Fn toV210;
  Words10ToSamplesFn fromWords10;
  WordPairs10ToSamplesFn fromWordPairs10;
  // The instruction set ("plain", "avx2", "avx512") of the colour kernels (toBgra, luma,
  // chroma) and of the packing kernels (v210 and the 10-bit words), which are chosen as
  // two groups; tests and benchmarks name the chosen variant by them.
  const char* colourVariant;
  const char* packingVariant;
};

#define OSTRA_YUV_GENERAL_KERNELS(suffix)                                                \
  void yuv8ToBgra_##suffix(BYTE*, const int16_t*, const int16_t*, const int16_t*, LONG,  \
                           const UyvyCoeffs&);                                           \
  void yuv10ToBgra_##suffix(BYTE*, const int16_t*, const int16_t*, const int16_t*, LONG, \
                            const UyvyCoeffs&);                                          \
  void bgraToLuma8_##suffix(int16_t*, const BYTE*, LONG, const KAYUVMATRIX&);            \
  void bgraToLuma10_##suffix(int16_t*, const BYTE*, LONG, const KAYUVMATRIX&);           \
  void bgraToChroma8_##suffix(int16_t*, int16_t*, const BYTE*, const BYTE*, LONG,        \
                              const KAYUVMATRIX&);                                       \
  void bgraToChroma10_##suffix(int16_t*, int16_t*, const BYTE*, const BYTE*, LONG,       \
                               const KAYUVMATRIX&);

OSTRA_YUV_GENERAL_KERNELS(plain)
void v210ToSamples_plain(int16_t*, int16_t*, int16_t*, const BYTE*, LONG);
void samplesToV210_plain(BYTE*, const int16_t*, const int16_t*, const int16_t*, LONG);
void words10ToSamples_plain(int16_t*, const BYTE*, LONG);
void wordPairs10ToSamples_plain(int16_t*, int16_t*, const BYTE*, LONG);
#if defined(__x86_64__)
OSTRA_YUV_GENERAL_KERNELS(avx2)
OSTRA_YUV_GENERAL_KERNELS(avx512)
void v210ToSamples_avx2(int16_t*, int16_t*, int16_t*, const BYTE*, LONG);
void samplesToV210_avx2(BYTE*, const int16_t*, const int16_t*, const int16_t*, LONG);
void words10ToSamples_avx2(int16_t*, const BYTE*, LONG);
void wordPairs10ToSamples_avx2(int16_t*, int16_t*, const BYTE*, LONG);
#endif

// The table for a feature mask (tests and benchmarks pass masks to reach each variant);
// the AVX-512 kernels also need the byte/word instructions, checked on the processor.
YuvGeneralTable yuvGeneralTableFor(DWORD cpuFeatures) noexcept;
// The table for KaGetCPUSupport(0), rebuilt when the allowed or forced masks change.
const YuvGeneralTable& yuvGeneralTable() noexcept;

}  // namespace ostra::image
