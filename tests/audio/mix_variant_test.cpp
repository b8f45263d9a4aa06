// Every processor variant of the mixer table against the plain mixer, bit for bit:
// value ranges, per-channel gains at every channel phase, tails against guard pages.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "audio/internal/tables.h"
#include "audio_test_util.h"
#include "ostra/kaaudio.h"
#include "ostra/kacpu.h"
#include "support/guarded_buffer.h"

namespace {

using namespace ostra::test;
namespace oa = ostra::audio;

constexpr DWORD kAvxBits = KACPU_AVX | KACPU_AVX2 | KACPU_FMA | KACPU_AVX512F;

// Samples of a type: random values over the whole range plus the extremes and, for
// floating point, values beyond full scale, NaN, infinities and denormals.
std::vector<uint8_t> samples(KASAMPLETYPE t, size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<uint8_t> buf(n * KaAudio_BytesFromSampleType(t));
  const double fs = fullScale(t);
  const double specials[] = {1.0,
                             -1.0,
                             1.5,
                             -3.0,
                             std::numeric_limits<double>::quiet_NaN(),
                             std::numeric_limits<double>::infinity(),
                             -0.0,
                             std::numeric_limits<float>::denorm_min(),
                             1e-310};
  for (size_t i = 0; i < n; ++i) {
    double v;
    if (isFloat(t)) {
      v = (i % 17 == 5) ? specials[(i / 17) % std::size(specials)]
                        : std::uniform_real_distribution<double>(-1.1, 1.1)(rng);
    } else {
      const int64_t r = int64_t(rng()) % int64_t(2 * fs) - int64_t(fs);
      v = (i % 13 == 3) ? ((i / 13) % 2 ? fs - 1 : -fs) : double(r);
    }
    putSample(t, buf, i, v);
  }
  return buf;
}

void compareMixer(KASAMPLETYPE d, KASAMPLETYPE s, KAAUDIO_MIXFUNCTION fn,
                  KAAUDIO_MIXFUNCTION plain) {
  const int db = KaAudio_BytesFromSampleType(d), sb = KaAudio_BytesFromSampleType(s);
  const double odd[] = {0.5, 2.0, 0.70710678, -1.0, 1.0, 3.3, 1e-3, 0.25};
  const double nan = std::numeric_limits<double>::quiet_NaN();
  struct GainCase {
    int channels;
    std::vector<double> gains;
  };
  std::vector<GainCase> cases = {{1, {1.0}},
                                 {2, {1.0, 1.0}},
                                 {1, {0.5}},
                                 {2, {1.0, 0.0}},
                                 {2, {0.8, 0.6}},
                                 {3, {0.5, 2.0, 1.0}},
                                 {6, {}},
                                 {8, {}},
                                 {5, {1.0, nan, 0.5, 1.0, 1.0}},
                                 {65, {}},
                                 {70, std::vector<double>(70, 1.0)}};
  for (auto& c : cases)
    if (c.gains.empty())
      for (int k = 0; k < c.channels; ++k) c.gains.push_back(odd[k % std::size(odd)] * (1 + k % 3));

  const size_t n = 4096 * 3;
  const auto src = samples(s, n, 11), dst0 = samples(d, n, 12);
  for (const GainCase& c : cases) {
    auto want = dst0, got = dst0;
    plain(want.data(), src.data(), int32_t(n), c.channels, c.gains.data());
    fn(got.data(), src.data(), int32_t(n), c.channels, c.gains.data());
    if (want != got) {
      for (size_t i = 0; i < n; ++i)
        ASSERT_EQ(0, std::memcmp(&want[i * db], &got[i * db], db))
            << d << " <- " << s << " channels " << c.channels << " sample " << i;
    }
    // Every tail length, against guard pages on both sides.
    for (int32_t len = 0; len <= 67; ++len) {
      auto tailWant = std::vector<uint8_t>(dst0.begin(), dst0.begin() + len * db);
      plain(tailWant.data(), src.data(), len, c.channels, c.gains.data());
      for (auto where : {GuardedBuffer::Guard::After, GuardedBuffer::Guard::Before}) {
        GuardedBuffer gs(size_t(len) * sb, where), gd(size_t(len) * db, where);
        if (len) {
          std::memcpy(gs.data(), src.data(), size_t(len) * sb);
          std::memcpy(gd.data(), dst0.data(), size_t(len) * db);
        }
        fn(gd.data(), gs.data(), len, c.channels, c.gains.data());
        ASSERT_EQ(0, len ? std::memcmp(gd.data(), tailWant.data(), size_t(len) * db) : 0)
            << d << " <- " << s << " channels " << c.channels << " tail " << len;
      }
    }
  }
  // A buffer mixed into itself stays as it is.
  if (d == s) {
    auto buf = dst0;
    const double g[2] = {0.5, 2.0};
    fn(buf.data(), buf.data(), int32_t(n), 2, g);
    EXPECT_TRUE(buf == dst0);
  }
}

TEST(Variants, MixersMatchPlainBitForBit) {
  struct Level {
    const char* name;
    DWORD disallow;
  } levels[] = {{"avx512", 0}, {"avx2", KACPU_AVX512F}, {"sse2", kAvxBits}};
  int compared = 0;
  for (const Level& level : levels) {
    if (level.disallow) KaDisallowCPUSupport(level.disallow);
    for (KASAMPLETYPE d : kMixTypes)
      for (KASAMPLETYPE s : kMixTypes) {
        const char* v = KaAudio_GetMixerVariant(d, s);
        if (!v || std::string(v) != level.name) continue;
        SCOPED_TRACE(level.name);
        compareMixer(d, s, KaAudio_GetMixFunction2(d, s),
                     oa::kPlainMixers.fn[oa::convertIndex(d)][oa::convertIndex(s)]);
        ++compared;
        if (HasFatalFailure()) break;
      }
    if (level.disallow) KaAllowCPUSupport(level.disallow);
    if (HasFatalFailure()) return;
  }
  if (compared == 0) GTEST_SKIP() << "no vector mixers on this processor";
}

// Where the processor has more than one AVX-512 form of a mixer (with and without byte
// permutes), the table shows only the better: check the other one directly.
TEST(Variants, Avx512MixersWithoutByteShufflesMatchPlain) {
  const DWORD features = KaGetCPUSupport(0);
  if (!oa::avx512Usable(features)) GTEST_SKIP() << "no AVX-512 on this processor";
  oa::MixerTable table = oa::kPlainMixers;
  oa::installMixAvx512(table, features);
  const KASAMPLETYPE d = KASAMPLE_PCM24;
  ASSERT_EQ(table.variant[oa::kS24][oa::kS24], oa::kAvx512);
  compareMixer(d, d, table.fn[oa::kS24][oa::kS24], oa::kPlainMixers.fn[oa::kS24][oa::kS24]);
}

}  // namespace
