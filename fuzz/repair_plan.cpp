// Arbitrary bytes in memory through the header repair planner, and the plan applied: the
// plan may refuse, but whatever it plans must lie inside the header it found, and
// applying it to the bytes it was made from must succeed.
#include <cstdint>

#include "formats/riff/internal/source_parsers.h"
#include "memory_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ostra::fuzz::MemoryFile f(data, size);
  tKAWAVREPAIR plan{};
  if (SUCCEEDED(ostra::riff::planWavRepair(f, &plan))) {
    for (DWORD i = 0; i < plan.changeCount; ++i)
      if (plan.changes[i].offset + plan.changes[i].length > plan.dataOffset) __builtin_trap();
    if (FAILED(ostra::riff::applyWavRepair(f, &plan))) __builtin_trap();
  }
  return 0;
}
