// Conversion and mixing between sample types: the tables of pairs, the arithmetic
// (scaling, clamping, ties to even, saturation, gains per channel), in-place widening,
// round trips, self-mixing and the KaAudio_Copy and KaAudio_Mix contracts.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
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

std::vector<double> convert(KASAMPLETYPE dt, KASAMPLETYPE st, const std::vector<double>& in,
                            float gain = 1.0f) {
  auto src = make(st, in);
  std::vector<uint8_t> dst(in.size() * KaAudio_BytesFromSampleType(dt));
  KAAUDIO_COPYFUNCTION fn = KaAudio_GetCopyFunction2(dt, st);
  EXPECT_NE(fn, nullptr);
  if (fn) fn(dst.data(), src.data(), int32_t(in.size()), gain);
  std::vector<double> out(in.size());
  for (size_t i = 0; i < in.size(); ++i) out[i] = getSample(dt, dst, i);
  return out;
}

TEST(Convert, TableHasExactlyTheAllowedPairs) {
  int count = 0;
  for (KASAMPLETYPE d : kConvertTypes) {
    for (KASAMPLETYPE s : kConvertTypes) {
      const bool excluded = (d == KASAMPLE_MAC16 || d == KASAMPLE_MAC24) &&
                            (s == KASAMPLE_PCM24IN32 || s == KASAMPLE_MAC32);
      EXPECT_EQ(KaAudio_GetCopyFunction2(d, s) == nullptr, excluded) << d << " <- " << s;
      count += !excluded;
    }
    for (KASAMPLETYPE none : {KASAMPLE_NONE, KASAMPLE_RA16, KASAMPLE_RA24}) {
      EXPECT_EQ(KaAudio_GetCopyFunction2(d, none), nullptr);
      EXPECT_EQ(KaAudio_GetCopyFunction2(none, d), nullptr);
    }
  }
  EXPECT_EQ(count, 117);
}

TEST(Convert, EdgeValues) {
  const double step16 = 1.0 / 32768;
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double inf = std::numeric_limits<double>::infinity();
  struct Case {
    KASAMPLETYPE d, s;
    double in;
    float gain;
    double out;
  } cases[] = {
      {KASAMPLE_PCM16, KASAMPLE_FLOAT32, 1.0, 1.0f, 32767},
      {KASAMPLE_PCM16, KASAMPLE_FLOAT32, -1.0, 1.0f, -32768},
      {KASAMPLE_PCM16, KASAMPLE_FLOAT32, 0.5 * step16, 1.0f, 0},
      {KASAMPLE_PCM16, KASAMPLE_FLOAT32, 1.5 * step16, 1.0f, 2},
      {KASAMPLE_PCM16, KASAMPLE_FLOAT32, -2.5 * step16, 1.0f, -2},
      {KASAMPLE_PCM16, KASAMPLE_FLOAT32, 0.5, 2.0f, 32767},
      {KASAMPLE_PCM16, KASAMPLE_FLOAT32, nan, 1.0f, -32768},
      {KASAMPLE_PCM16, KASAMPLE_FLOAT64, inf, 1.0f, 32767},
      {KASAMPLE_PCM16, KASAMPLE_PCM32, 0x7FFFFFFF, 1.0f, 32767},
      {KASAMPLE_PCM16, KASAMPLE_PCM32, 0x18000, 1.0f, 2},  // 1.5 steps: to even
      {KASAMPLE_PCM16, KASAMPLE_PCM16, 32767, 0.5f, 16384},
      {KASAMPLE_FLOAT32, KASAMPLE_PCM16, -32768, 1.0f, -1.0},
      {KASAMPLE_FLOAT32, KASAMPLE_PCM16, 32767, 1.0f, 0.999969482421875},
      {KASAMPLE_FLOAT64, KASAMPLE_PCM8, 0, 1.0f, 0.0},      // byte 0x80
      {KASAMPLE_FLOAT64, KASAMPLE_PCM8, -128, 1.0f, -1.0},  // byte 0x00
      {KASAMPLE_PCM8, KASAMPLE_FLOAT32, 1.0, 1.0f, 127},
      {KASAMPLE_PCM24, KASAMPLE_FLOAT64, 1.0, 1.0f, 8388607},
      {KASAMPLE_PCM24, KASAMPLE_FLOAT64, -1.5, 1.0f, -8388608},
      {KASAMPLE_PCM24IN32, KASAMPLE_FLOAT32, 1.0, 1.0f, 8388607},
      {KASAMPLE_PCM32, KASAMPLE_FLOAT64, 1.0, 1.0f, 2147483647},
      {KASAMPLE_PCM32, KASAMPLE_FLOAT64, -1.0, 1.0f, -2147483648.0},
      {KASAMPLE_MAC24, KASAMPLE_PCM16, -32768, 1.0f, -8388608},
      {KASAMPLE_MAC32, KASAMPLE_PCM24IN32, 0x123456, 1.0f, 0x12345600},
      {KASAMPLE_FLOAT32, KASAMPLE_FLOAT32, 3.0, 1.0f, 3.0},  // floats are not clipped
      {KASAMPLE_FLOAT64, KASAMPLE_FLOAT32, 0.1, 3.0f, double(0.1f * 3.0f)},
  };
  for (const Case& c : cases) {
    const double got = convert(c.d, c.s, {c.in}, c.gain)[0];
    EXPECT_EQ(got, c.out) << c.d << " <- " << c.s << " " << c.in << " gain " << c.gain;
  }
}

// Every pair against a reference written without the library's rounding trick.
TEST(Convert, EveryPairMatchesReference) {
  std::mt19937 rng(7);
  for (KASAMPLETYPE s : kConvertTypes) {
    std::vector<double> in;
    const double fs = fullScale(s);
    for (double f : {-1.0, -0.5, 0.0, 0.25, 1.0 - 1.0 / fs, 0.7}) in.push_back(std::floor(f * fs));
    if (isFloat(s)) in.insert(in.end(), {1.0, -1.0, 0.3, 1.25, -2.0, 1e-40});
    for (int i = 0; i < 20; ++i) {
      const double r = std::uniform_real_distribution<double>(-1.0, 1.0)(rng);
      in.push_back(isFloat(s) ? r : std::floor(r * fs));
    }
    for (KASAMPLETYPE d : kConvertTypes) {
      if (!KaAudio_GetCopyFunction2(d, s)) continue;
      for (float gain : {1.0f, 0.5f, 1.7f}) {
        const auto out = convert(d, s, in, gain);
        for (size_t i = 0; i < in.size(); ++i) {
          double v = in[i];
          if (s == KASAMPLE_FLOAT32) v = double(float(v));
          if (s == KASAMPLE_FLOAT32 && gain != 1.0f)
            v = double(float(v) * gain);
          else
            v = v / fs * double(gain);
          double expect;
          if (d == KASAMPLE_FLOAT32)
            expect = double(float(v));
          else if (d == KASAMPLE_FLOAT64)
            expect = v;
          else {
            const double dfs = fullScale(d);
            expect = std::nearbyint(std::min(std::max(v * dfs, -dfs), dfs - 1));
          }
          ASSERT_EQ(out[i], expect) << d << " <- " << s << " in " << in[i] << " gain " << gain;
        }
      }
    }
  }
}

TEST(Convert, WideningWorksInPlace) {
  const KASAMPLETYPE pairs[][2] = {{KASAMPLE_FLOAT32, KASAMPLE_PCM16},
                                   {KASAMPLE_FLOAT64, KASAMPLE_PCM8},
                                   {KASAMPLE_PCM24, KASAMPLE_PCM16},
                                   {KASAMPLE_FLOAT64, KASAMPLE_FLOAT32},
                                   {KASAMPLE_PCM32, KASAMPLE_MAC24}};
  for (const auto& p : pairs) {
    for (int n : {1, 5, 67}) {
      std::vector<double> in(n);
      for (int i = 0; i < n; ++i)
        in[i] = std::floor((i * 37 % 200 - 100) / 100.0 * fullScale(p[1]));
      const auto expect = convert(p[0], p[1], in);
      std::vector<uint8_t> buf(n * KaAudio_BytesFromSampleType(p[0]));
      const auto src = make(p[1], in);
      std::memcpy(buf.data(), src.data(), src.size());
      KaAudio_GetCopyFunction2(p[0], p[1])(buf.data(), buf.data(), n, 1.0f);
      for (int i = 0; i < n; ++i) ASSERT_EQ(getSample(p[0], buf, i), expect[i]) << p[0] << " " << i;
    }
  }
}

TEST(Convert, RoundTripsAreLossless) {
  std::vector<int16_t> all16(65536), back16(65536);
  for (int i = 0; i < 65536; ++i) all16[i] = int16_t(i - 32768);
  std::vector<float> f(65536);
  KaAudio_GetCopyFunction2(KASAMPLE_FLOAT32, KASAMPLE_PCM16)(f.data(), all16.data(), 65536, 1.0f);
  KaAudio_GetCopyFunction2(KASAMPLE_PCM16, KASAMPLE_FLOAT32)(back16.data(), f.data(), 65536, 1.0f);
  EXPECT_EQ(all16, back16);

  const int n24 = 1 << 24;
  std::vector<uint8_t> all24(size_t(n24) * 3), back24(size_t(n24) * 3);
  for (int i = 0; i < n24; ++i) {
    all24[3 * i] = uint8_t(i);
    all24[3 * i + 1] = uint8_t(i >> 8);
    all24[3 * i + 2] = uint8_t(i >> 16);
  }
  std::vector<double> d(n24);
  KaAudio_GetCopyFunction2(KASAMPLE_FLOAT64, KASAMPLE_PCM24)(d.data(), all24.data(), n24, 1.0f);
  KaAudio_GetCopyFunction2(KASAMPLE_PCM24, KASAMPLE_FLOAT64)(back24.data(), d.data(), n24, 1.0f);
  EXPECT_TRUE(all24 == back24);
}

TEST(Convert, CopyAndSilenceContract) {
  alignas(8) uint8_t fb[KAWAVEFORMAT_BUFFER_SIZE], sb[KAWAVEFORMAT_BUFFER_SIZE];
  auto* df = reinterpret_cast<_kawaveformat*>(fb);
  auto* sf = reinterpret_cast<_kawaveformat*>(sb);
  df->Init(48000, KASAMPLE_FLOAT32, 2, 0, sizeof(fb));
  sf->Init(48000, KASAMPLE_PCM16, 2, 0, sizeof(sb));
  int16_t src[4] = {16384, -16384, 32767, -32768};
  float dst[4] = {9, 9, 9, 9};
  EXPECT_EQ(KaAudio_Copy(df, dst, sf, src, 0), S_OK);
  EXPECT_EQ(dst[0], 9.0f);
  EXPECT_EQ(KaAudio_Copy(df, dst, sf, src, 2, 0.5f), S_OK);
  EXPECT_EQ(dst[0], 0.25f);
  EXPECT_EQ(dst[3], -0.5f);
  _kawaveformat_wfxcopyhelper dw(*df);
  EXPECT_EQ(KaAudio_Copy(dw.get(), dst, sf, src, 2), S_OK);
  EXPECT_EQ(dst[0], 0.5f);

  // No converter: E_NOTIMPL, destination untouched.
  df->Init(48000, KASAMPLE_MAC16, 2, 0, sizeof(fb));
  sf->Init(48000, KASAMPLE_MAC32, 2, 0, sizeof(sb));
  EXPECT_EQ(KaAudio_Copy(df, dst, sf, src, 1), E_NOTIMPL);
  EXPECT_EQ(dst[0], 0.5f);
  sf->Init(48000, KASAMPLE_PCM16, 1, 0, sizeof(sb));
  EXPECT_EQ(KaAudio_Copy(df, dst, sf, src, 1), E_INVALIDARG);
  EXPECT_EQ(KaAudio_Copy(df, nullptr, df, src, 1), E_POINTER);

  struct Silence {
    KASAMPLETYPE type;
    HRESULT hr;
    uint8_t byte;
  } silences[] = {{KASAMPLE_PCM8, S_OK, 0x80},   {KASAMPLE_PCM24, S_OK, 0},
                  {KASAMPLE_FLOAT64, S_OK, 0},   {KASAMPLE_MAC32, S_OK, 0},
                  {KASAMPLE_RA16, E_FAIL, 0xEE}, {KASAMPLE_NONE, E_FAIL, 0xEE}};
  for (const Silence& s : silences) {
    df->Init(44100, s.type, 2, 0, sizeof(fb));
    df->nBlockAlign = 4;  // so that the raw types would have bytes to write
    std::vector<uint8_t> buf(20, 0xEE);
    EXPECT_EQ(KaAudio_FillSilence(df, buf.data(), 4), s.hr) << s.type;
    EXPECT_EQ(buf[15], s.byte);
    EXPECT_EQ(buf[16], 0xEE);
  }
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
