// Mixing: the table of pairs, saturation, gain rules (per channel, and the 16-bit
// mixer's first gain), self-mixing, and the KaAudio_Mix contract.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "audio_test_util.h"
#include "ostra/kaaudio.h"

namespace {

using namespace ostra::test;

std::vector<uint8_t> make(KASAMPLETYPE t, const std::vector<double>& values) {
  std::vector<uint8_t> buf(values.size() * KaAudio_BytesFromSampleType(t));
  for (size_t i = 0; i < values.size(); ++i) putSample(t, buf, i, values[i]);
  return buf;
}

std::vector<double> mix(KASAMPLETYPE dt, const std::vector<double>& dv, KASAMPLETYPE st,
                        const std::vector<double>& sv, int channels,
                        const std::vector<double>& gains) {
  auto d = make(dt, dv);
  auto s = make(st, sv);
  KAAUDIO_MIXFUNCTION fn = KaAudio_GetMixFunction2(dt, st);
  EXPECT_NE(fn, nullptr);
  if (fn) fn(d.data(), s.data(), int32_t(sv.size()), channels, gains.data());
  std::vector<double> out(dv.size());
  for (size_t i = 0; i < dv.size(); ++i) out[i] = getSample(dt, d, i);
  return out;
}

TEST(Mix, TableCoversTheLinearTypes) {
  for (KASAMPLETYPE d : kConvertTypes)
    for (KASAMPLETYPE s : kConvertTypes) {
      const bool linear = d != KASAMPLE_MAC16 && d != KASAMPLE_MAC24 && d != KASAMPLE_MAC32 &&
                          s != KASAMPLE_MAC16 && s != KASAMPLE_MAC24 && s != KASAMPLE_MAC32;
      EXPECT_EQ(KaAudio_GetMixFunction2(d, s) != nullptr, linear) << d << " <- " << s;
    }
  EXPECT_EQ(KaAudio_GetMixFunction2(KASAMPLE_FLOAT32, KASAMPLE_NONE), nullptr);
  EXPECT_EQ(KaAudio_GetMixFunction2(KASAMPLE_RA16, KASAMPLE_PCM16), nullptr);
}

TEST(Mix, SixteenBitRules) {
  struct Case {
    std::vector<double> dest, src, gains, out;
    int channels;
  } cases[] = {
      {{10000, -10000}, {30000, -30000}, {1.0}, {32767, -32768}, 1},
      {{0}, {32767}, {0.5}, {16384}, 1},  // 16383.5 to even
      {{0}, {32766}, {0.5}, {16383}, 1},
      {{0}, {-32768}, {2.0}, {-32768}, 1},
      // The first gain only, for both channels.
      {{0, 0}, {1000, 1000}, {1.0, 0.0}, {1000, 1000}, 2},
      {{0, 0}, {1000, 1000}, {0.5, 1.0}, {500, 500}, 2},
  };
  for (const Case& c : cases)
    EXPECT_EQ(mix(KASAMPLE_PCM16, c.dest, KASAMPLE_PCM16, c.src, c.channels, c.gains), c.out);
}

TEST(Mix, PerChannelGainsAndSaturation) {
  // Single precision applies one gain per channel.
  EXPECT_EQ(mix(KASAMPLE_FLOAT32, {0.25, 0.25}, KASAMPLE_FLOAT32, {0.5, 0.5}, 2, {1.0, 0.0}),
            (std::vector<double>{0.75, 0.25}));
  EXPECT_EQ(mix(KASAMPLE_FLOAT32, {0, 0, 0, 0, 0, 0}, KASAMPLE_FLOAT32, {1, 1, 1, 1, 1, 1}, 3,
                {0.5, 0.25, 2.0}),
            (std::vector<double>{0.5, 0.25, 2.0, 0.5, 0.25, 2.0}));
  // Floating point is not clipped; integers saturate at their own width.
  EXPECT_EQ(mix(KASAMPLE_FLOAT64, {0.75}, KASAMPLE_PCM16, {16384}, 1, {1.0})[0], 1.25);
  EXPECT_EQ(mix(KASAMPLE_PCM24, {8000000}, KASAMPLE_PCM24, {800000}, 1, {1.0})[0], 8388607);
  EXPECT_EQ(mix(KASAMPLE_PCM24IN32, {-8000000}, KASAMPLE_PCM24, {-800000}, 1, {1.0})[0], -8388608);
  EXPECT_EQ(mix(KASAMPLE_PCM32, {2147483000.0}, KASAMPLE_PCM32, {1000}, 1, {1.0})[0], 2147483647.0);
  EXPECT_EQ(mix(KASAMPLE_PCM8, {100}, KASAMPLE_FLOAT32, {0.5}, 1, {1.0})[0], 127);
  EXPECT_EQ(mix(KASAMPLE_PCM8SIGNED, {-100}, KASAMPLE_PCM16, {-16384}, 1, {1.0})[0], -128);
  EXPECT_EQ(mix(KASAMPLE_PCM32, {0}, KASAMPLE_PCM16, {-3}, 1, {1.0})[0], -3 * 65536.0);
}

// Every pair against the converter of the same gain followed by a saturating add.
TEST(Mix, EveryPairAddsTheConvertedSource) {
  std::mt19937 rng(3);
  for (KASAMPLETYPE d : kMixTypes)
    for (KASAMPLETYPE s : kMixTypes) {
      const int n = 9;
      std::vector<double> dv(n), sv(n);
      for (int i = 0; i < n; ++i) {
        std::uniform_real_distribution<double> u(-0.6, 0.6);
        dv[i] = isFloat(d) ? u(rng) : std::floor(u(rng) * fullScale(d));
        sv[i] = isFloat(s) ? u(rng) : std::floor(u(rng) * fullScale(s));
      }
      for (float gain : {1.0f, 0.75f}) {
        // A single-precision source: the converter forms the product in single precision,
        // the mixer (double gains) in double.
        if (s == KASAMPLE_FLOAT32 && gain != 1.0f) continue;
        auto src = make(s, sv);
        std::vector<uint8_t> conv(n * KaAudio_BytesFromSampleType(d));
        KaAudio_GetCopyFunction2(d, s)(conv.data(), src.data(), n, gain);
        const auto out = mix(d, dv, s, sv, 1, {double(gain)});
        for (int i = 0; i < n; ++i) {
          double expect = dv[i] + getSample(d, conv, i);
          if (d == KASAMPLE_FLOAT32) expect = double(float(dv[i]) + float(getSample(d, conv, i)));
          if (!isFloat(d)) expect = std::min(std::max(expect, -fullScale(d)), fullScale(d) - 1);
          ASSERT_EQ(out[i], expect) << d << " <- " << s << " gain " << gain << " at " << i;
        }
      }
    }
}

TEST(Mix, SelfMixAndContract) {
  std::vector<int16_t> buf = {1000, -2000, 3000};
  const double g = 1.0;
  KaAudio_GetMixFunction2(KASAMPLE_PCM16, KASAMPLE_PCM16)(buf.data(), buf.data(), 3, 1, &g);
  EXPECT_EQ(buf, (std::vector<int16_t>{1000, -2000, 3000}));
  std::vector<float> f = {0.5f, 0.5f};
  KaAudio_GetMixFunction2(KASAMPLE_FLOAT32, KASAMPLE_FLOAT32)(f.data(), f.data(), 2, 1, &g);
  EXPECT_EQ(f[0], 0.5f);

  alignas(8) uint8_t fb[KAWAVEFORMAT_BUFFER_SIZE], sb[KAWAVEFORMAT_BUFFER_SIZE];
  auto* df = reinterpret_cast<_kawaveformat*>(fb);
  auto* sf = reinterpret_cast<_kawaveformat*>(sb);
  df->Init(48000, KASAMPLE_FLOAT32, 2, 0, sizeof(fb));
  sf->Init(48000, KASAMPLE_PCM16, 2, 0, sizeof(sb));
  std::vector<int16_t> src = {16384, -16384};
  const double gains[2] = {1.0, 0.5};
  EXPECT_EQ(KaAudio_Mix(df, f.data(), sf, src.data(), 0, gains), S_OK);
  EXPECT_EQ(f[0], 0.5f);
  EXPECT_EQ(KaAudio_Mix(df, f.data(), sf, src.data(), 1, gains), S_OK);
  EXPECT_EQ(f, (std::vector<float>{1.0f, 0.25f}));
  EXPECT_EQ(KaAudio_Mix(df, f.data(), sf, src.data(), 1, nullptr), S_OK);  // unity gains
  EXPECT_EQ(f, (std::vector<float>{1.5f, -0.25f}));
  sf->Init(48000, KASAMPLE_MAC16, 2, 0, sizeof(sb));
  EXPECT_EQ(KaAudio_Mix(df, f.data(), sf, src.data(), 1, gains), E_NOTIMPL);
  EXPECT_EQ(f[0], 1.5f);
  sf->Init(48000, KASAMPLE_PCM16, 1, 0, sizeof(sb));
  EXPECT_EQ(KaAudio_Mix(df, f.data(), sf, src.data(), 1, gains), E_INVALIDARG);
}

}  // namespace
