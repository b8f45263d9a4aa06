#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "command.h"
#include "ostra/kacpu.h"

namespace {

struct Feature {
  DWORD bit;
  const char* name;
};
constexpr Feature kFeatures[] = {
    {KACPU_MMX, "MMX"},     {KACPU_SSE, "SSE"},       {KACPU_SSE2, "SSE2"},   {KACPU_SSE3, "SSE3"},
    {KACPU_SSSE3, "SSSE3"}, {KACPU_SSE41, "SSE4.1"},  {KACPU_SSE42, "SSE4.2"}, {KACPU_AVX, "AVX"},
    {KACPU_CMOV, "CMOV"},   {KACPU_AVX2, "AVX2"},     {KACPU_FMA, "FMA"},     {KACPU_AVX512F, "AVX-512F"},
    {KACPU_DAZ, "DAZ"},
};

void setup(CLI::App& cmd) {
  static bool json = false;
  cmd.add_flag("--json", json, "Print one JSON object");
  cmd.callback([] {
    const DWORD effective = KaGetCPUSupport(0);  // after allow, disallow and force
    const DWORD os = KaGetOSSupport(0);
    const DWORD processors = KaGetProcessorCount();
    std::vector<std::string> names;
    for (const Feature& f : kFeatures)
      if (effective & f.bit) names.emplace_back(f.name);
    const DWORD raw = KaGetCPUDetected();
    if (json) {
      nlohmann::json j{{"detected", raw}, {"os", os}, {"effective", effective},
                       {"processors", processors}, {"features", names}};
      std::printf("%s\n", j.dump(2).c_str());
      return;
    }
    std::printf("detected   0x%08x\nos         0x%08x\neffective  0x%08x\nprocessors %u\nfeatures  ",
                unsigned(raw), unsigned(os), unsigned(effective), unsigned(processors));
    for (const auto& n : names) std::printf(" %s", n.c_str());
    std::printf("\n");
  });
}

OSTRA_COMMAND("cpu", "Show the processor features the kernel detected and uses", setup);

}  // namespace
