// The host may change the allowed features while other threads convert, mix and turn
// frames into pixels: every caller keeps getting a whole table of some level, and since
// every variant gives the plain results bit for bit, the results never change. Run under
// ThreadSanitizer, this also proves that a rebuilt table is published, not overwritten.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <random>
#include <thread>
#include <vector>

#include "ostra/kaaudio.h"
#include "ostra/kacpu.h"
#include "ostra/kayuv.h"

namespace {

constexpr DWORD kVectorBits = KACPU_SSE2 | KACPU_AVX | KACPU_AVX2 | KACPU_AVX512F | KACPU_AVX512BW |
                              KACPU_AVX512VL | KACPU_AVX512VBMI;

struct Job {
  const char* name;
  std::function<std::vector<uint8_t>()> run;
};

std::vector<uint8_t> bytesOf(const void* p, size_t n) {
  const auto* b = static_cast<const uint8_t*>(p);
  return {b, b + n};
}

TEST(FeatureTables, ChangingFeaturesWhileOtherThreadsWorkNeverChangesAResult) {
  std::mt19937 rng(7);
  std::vector<int16_t> pcm(259);
  for (auto& s : pcm) s = int16_t(rng());
  std::vector<float> floats(pcm.size());
  for (size_t i = 0; i < floats.size(); ++i) floats[i] = float(int16_t(rng())) / 40000.0f;
  constexpr LONG kW = 66, kH = 2;
  std::vector<uint8_t> uyvy(size_t(kW) * 2 * kH), bgra(size_t(kW) * 4 * kH);
  for (auto& b : uyvy) b = uint8_t(rng());
  for (auto& b : bgra) b = uint8_t(rng());

  const Job jobs[] = {
      {"16-bit to single",
       [&] {
         std::vector<float> out(pcm.size());
         KaAudio_GetCopyFunction2(KASAMPLE_FLOAT32, KASAMPLE_PCM16)(out.data(), pcm.data(),
                                                                    int32_t(pcm.size()), 0.75f);
         return bytesOf(out.data(), out.size() * 4);
       }},
      {"single mixed into 16-bit",
       [&] {
         std::vector<int16_t> out(pcm);
         const double gains[] = {0.5, 0.25};
         KaAudio_GetMixFunction2(KASAMPLE_PCM16, KASAMPLE_FLOAT32)(
             out.data(), floats.data(), int32_t(floats.size() - 1), 2, gains);
         return bytesOf(out.data(), out.size() * 2);
       }},
      {"UYVY to BGRA",
       [&] {
         std::vector<uint8_t> out(size_t(kW) * 4 * kH);
         EXPECT_EQ(KaUYVY2RGBA(out.data(), uyvy.data(), kW * 4, kW, kH, 2), S_OK);
         return out;
       }},
      {"BGRA to I420",
       [&] {
         std::vector<uint8_t> out(size_t(kW) * kH * 3 / 2);
         EXPECT_EQ(KaYUV_RGBToYUV(out.data(), out.size(), KaFourCC('I', '4', '2', '0'), bgra.data(),
                                  kW * 4, kW, kH, 2),
                   S_OK);
         return out;
       }},
  };

  // Reference results with the plain variants only.
  KaDisallowCPUSupport(kVectorBits);
  std::vector<std::vector<uint8_t>> expected;
  for (const Job& j : jobs) expected.push_back(j.run());
  KaAllowCPUSupport(kVectorBits);

  std::atomic<bool> stop{false};
  std::atomic<int> mismatches{0}, runs{0};
  std::vector<std::thread> workers;
  // Two threads a job, so that one may rebuild a table while the other reads it.
  for (size_t i = 0; i < 2 * std::size(jobs); ++i)
    workers.emplace_back([&, i = i % std::size(jobs)] {
      while (!stop.load()) {
        if (jobs[i].run() != expected[i]) mismatches.fetch_add(1);
        if (i == 0) runs.fetch_add(1);
      }
    });
  // The host switches a vector level off or on after each conversion of the first
  // thread, so that most calls find their table built and read it without a lock while
  // another thread rebuilds it.
  const DWORD levels[] = {KACPU_AVX512F, KACPU_AVX2 | KACPU_AVX512F, kVectorBits, KACPU_SSE2};
  for (int round = 0; round < 400; ++round) {
    while (runs.load() < round) std::this_thread::yield();
    const DWORD bits = levels[(round / 2) % std::size(levels)];
    if (round % 2 == 0)
      KaDisallowCPUSupport(bits);
    else
      KaAllowCPUSupport(bits);
  }
  stop.store(true);
  for (auto& t : workers) t.join();
  KaAllowCPUSupport(kVectorBits);
  EXPECT_EQ(mismatches.load(), 0);
  for (size_t i = 0; i < std::size(jobs); ++i)
    EXPECT_EQ(jobs[i].run(), expected[i]) << jobs[i].name;
}

}  // namespace
