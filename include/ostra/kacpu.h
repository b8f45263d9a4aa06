// Processor features and variant selection. Tables of optimised routines are built from
// KaGetCPUSupport(0); the host may narrow (disallow) or force features before work starts.
#pragma once

#include "ostra/kadefs.h"

#define KACPU_CLASS_MASK 0x0000000Fu  // processor class number, not a feature
#define KACPU_CLASS_NONE 0u
#define KACPU_CLASS_MMX 4u
#define KACPU_CLASS_SSE 5u
#define KACPU_CLASS_SSE2 6u

#define KACPU_MMX 0x00000010u
#define KACPU_SSE 0x00000020u
#define KACPU_SSE2 0x00000040u
#define KACPU_SSE3 0x00000080u
#define KACPU_SSSE3 0x00000100u
#define KACPU_SSE41 0x00000200u
#define KACPU_SSE42 0x00000400u
#define KACPU_AVX 0x00000800u
#define KACPU_CMOV 0x00001000u
// Features beyond the classic table, in bits it leaves free.
#define KACPU_AVX2 0x00002000u
#define KACPU_FMA 0x00004000u
#define KACPU_AVX512F 0x00008000u
#define KACPU_DAZ 0x00020000u  // denormals-are-zero control of the vector unit
// AVX-512 extensions the vector variants need beside the foundation: byte and word
// instructions, 128- and 256-bit forms, byte permutes. Each is reported only with
// KACPU_AVX512F and only when the operating system saves the ZMM state.
#define KACPU_AVX512BW 0x00040000u
#define KACPU_AVX512VL 0x00080000u
#define KACPU_AVX512VBMI 0x00100000u

OSTRA_API DWORD KaGetCPUSupport(DWORD mask) noexcept;
OSTRA_API DWORD KaGetOSSupport(DWORD mask) noexcept;
// The detected mask itself, before the allowed and forced masks apply.
OSTRA_API DWORD KaGetCPUDetected() noexcept;
OSTRA_API DWORD KaGetProcessorCount() noexcept;
OSTRA_API BOOL KaAllowCPUSupport(DWORD bits) noexcept;
OSTRA_API BOOL KaDisallowCPUSupport(DWORD bits) noexcept;
OSTRA_API BOOL KaOnlyAllowCPUSupport(DWORD bits) noexcept;
OSTRA_API BOOL KaSetCPUClassBySupport() noexcept;
// Counts changes of the allowed or forced masks; tables that cache a choice compare it
// to know when to rebuild.
OSTRA_API DWORD KaGetCPUSupportGeneration() noexcept;
