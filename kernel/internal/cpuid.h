// Raw processor identification; implemented per architecture (x86 through CPUID and
// XGETBV, nothing elsewhere).
#pragma once

#include <cstdint>

namespace ostra::kernel {

struct CpuIdentification {
  uint32_t processor = 0;  // feature bits the processor reports, with the class number
  uint32_t os = 0;         // the subset the operating system lets run
};

CpuIdentification identifyProcessor() noexcept;

}  // namespace ostra::kernel
