// The converter and mixer tables shared by the plain code (audio/convert.cpp,
// audio/mix.cpp) and the instruction-set files that override entries of them.
// Only declarations and plain data live here: an inline function compiled into an
// AVX2 file could be merged with the plain one and run on a processor without AVX2.
#pragma once

#include "ostra/kaaudio.h"
#include "ostra/kacpu.h"

namespace ostra::audio {

using CopyFn = KAAUDIO_COPYFUNCTION;
using MixFn = void (*)(void* dest, const void* src, int32_t samples, int32_t channels,
                       const double* gains);

enum Variant : uint8_t { kPlain = 0, kSse2 = 1, kAvx2 = 2, kAvx512 = 3 };
const char* variantName(Variant v) noexcept;

// Table positions of the sample types; the mixer uses the first eight.
enum TypeIndex : int {
  kU8 = 0,
  kS16,
  kS24,
  kS32,
  kF32,
  kF64,
  kS24in32,
  kS8,
  kBe16,
  kBe24,
  kBe32,
  kConvertTypes,
  kMixTypes = kS8 + 1,
};

struct ConverterTable {
  CopyFn fn[kConvertTypes][kConvertTypes];  // [destination][source]
  Variant variant[kConvertTypes][kConvertTypes];
};
struct MixerTable {
  MixFn fn[kMixTypes][kMixTypes];
  Variant variant[kMixTypes][kMixTypes];
};

// The plain converters and mixers: the definition of every result, and the tails of the
// vector variants.
extern const ConverterTable kPlainConverters;
extern const MixerTable kPlainMixers;

// Table index of a sample type, -1 when it has no converters.
int convertIndex(KASAMPLETYPE type) noexcept;

#if defined(__x86_64__)
// Each instruction-set file overrides the entries it has a variant for.
void installConvertSse2(ConverterTable& table, DWORD features) noexcept;
void installConvertAvx2(ConverterTable& table, DWORD features) noexcept;
void installMixSse2(MixerTable& table, DWORD features) noexcept;
void installMixAvx2(MixerTable& table, DWORD features) noexcept;
void installConvertAvx512(ConverterTable& table, DWORD features) noexcept;
void installMixAvx512(MixerTable& table, DWORD features) noexcept;
// Overrides the packed 24-bit mixer where AVX-512 VBMI byte permutes exist.
void installMixAvx512Vbmi(MixerTable& table, DWORD features) noexcept;
#endif

// True when the processor and the operating system allow AVX2 code.
bool avx2Usable(DWORD features) noexcept;
// True when AVX-512 F, BW and VL code may run (besides AVX2).
bool avx512Usable(DWORD features) noexcept;

}  // namespace ostra::audio
