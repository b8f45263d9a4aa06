#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "command.h"
#include "ostra/kaaudio.h"
#include "ostra/kacpu.h"

namespace {

struct Feature {
  DWORD bit;
  const char* name;
};
constexpr Feature kFeatures[] = {
    {KACPU_MMX, "MMX"},
    {KACPU_SSE, "SSE"},
    {KACPU_SSE2, "SSE2"},
    {KACPU_SSE3, "SSE3"},
    {KACPU_SSSE3, "SSSE3"},
    {KACPU_SSE41, "SSE4.1"},
    {KACPU_SSE42, "SSE4.2"},
    {KACPU_AVX, "AVX"},
    {KACPU_CMOV, "CMOV"},
    {KACPU_AVX2, "AVX2"},
    {KACPU_FMA, "FMA"},
    {KACPU_AVX512F, "AVX-512F"},
    {KACPU_AVX512BW, "AVX-512BW"},
    {KACPU_AVX512VL, "AVX-512VL"},
    {KACPU_AVX512VBMI, "AVX-512VBMI"},
    {KACPU_DAZ, "DAZ"},
};

struct TypeName {
  KASAMPLETYPE type;
  const char* name;
};
constexpr TypeName kSampleTypes[] = {
    {KASAMPLE_PCM8, "pcm8"},           {KASAMPLE_PCM16, "pcm16"},
    {KASAMPLE_PCM24, "pcm24"},         {KASAMPLE_PCM32, "pcm32"},
    {KASAMPLE_FLOAT32, "float32"},     {KASAMPLE_FLOAT64, "float64"},
    {KASAMPLE_PCM24IN32, "pcm24in32"}, {KASAMPLE_PCM8SIGNED, "pcm8signed"},
    {KASAMPLE_MAC16, "mac16"},         {KASAMPLE_MAC24, "mac24"},
    {KASAMPLE_MAC32, "mac32"},
};

// The variant each audio table chose, per "dest<-source" pair.
nlohmann::json tableVariants(const char* (*query)(KASAMPLETYPE, KASAMPLETYPE)) {
  nlohmann::json j = nlohmann::json::object();
  for (const TypeName& d : kSampleTypes)
    for (const TypeName& s : kSampleTypes)
      if (const char* v = query(d.type, s.type)) j[std::string(d.name) + "<-" + s.name] = v;
  return j;
}

void printVariants(const char* title, const nlohmann::json& j) {
  int plain = 0;
  std::printf("%s (dest <- source):\n", title);
  for (const auto& [pair, v] : j.items()) {
    if (v == "plain") {
      ++plain;
      continue;
    }
    std::printf("  %-22s %s\n", pair.c_str(), v.get<std::string>().c_str());
  }
  std::printf("  %d other pairs: plain\n", plain);
}

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
      nlohmann::json j{{"detected", raw},
                       {"os", os},
                       {"effective", effective},
                       {"processors", processors},
                       {"features", names},
                       {"audio_variants",
                        {{"converters", tableVariants(KaAudio_GetConverterVariant)},
                         {"mixers", tableVariants(KaAudio_GetMixerVariant)}}}};
      std::printf("%s\n", j.dump(2).c_str());
      return;
    }
    std::printf(
        "detected   0x%08x\nos         0x%08x\neffective  0x%08x\nprocessors %u\nfeatures  ",
        unsigned(raw), unsigned(os), unsigned(effective), unsigned(processors));
    for (const auto& n : names) std::printf(" %s", n.c_str());
    std::printf("\n");
    printVariants("converters", tableVariants(KaAudio_GetConverterVariant));
    printVariants("mixers", tableVariants(KaAudio_GetMixerVariant));
  });
}

OSTRA_COMMAND("cpu", "Show the processor features the kernel detected and uses", setup);

}  // namespace
