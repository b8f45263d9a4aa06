// Arbitrary bytes through the header repair planner, and the plan applied to a copy: the
// plan may refuse, but whatever it plans must lie inside the header it found.
#include <cstdint>

#include "ostra/kawave.h"
#include "scratch_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const ostra::fuzz::ScratchFile scratch("repair-plan", SIZE_MAX);
  const KAHFILE file = scratch.open(data, size);
  if (file == KA_INVALID_HFILE) return 0;
  tKAWAVREPAIR plan{};
  if (SUCCEEDED(KaPlanWavRepair(file, &plan))) {
    for (DWORD i = 0; i < plan.changeCount; ++i)
      if (plan.changes[i].offset + plan.changes[i].length > plan.dataOffset) __builtin_trap();
    if (FAILED(KaApplyWavRepair(file, &plan))) __builtin_trap();
  }
  KaFile_Close(file);
  return 0;
}
