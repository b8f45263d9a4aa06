// Every processor variant of the converter and mixer tables against the plain one, bit
// for bit, at every feature level the processor has: whole value ranges, edge values,
// gains, channel counts and every tail length, with buffers against guard pages.
// Disallowing a feature must make the tables choose a lower variant.
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

// Feature levels from the richest down: what a level needs, and what it disallows to keep
// the richer variants out. The second AVX-512 level takes the mixers without byte permutes.
struct Level {
  const char* name;
  DWORD needs, disallow;
};
constexpr DWORD kAvx512 = KACPU_AVX | KACPU_AVX2 | KACPU_AVX512F | KACPU_AVX512BW | KACPU_AVX512VL;
constexpr DWORD kAvxBits = KACPU_AVX | KACPU_AVX2 | KACPU_FMA | KACPU_AVX512F;
constexpr Level kLevels[] = {{"avx512", kAvx512, 0},
                             {"avx512", kAvx512, KACPU_AVX512VBMI},
                             {"avx2", KACPU_AVX | KACPU_AVX2, KACPU_AVX512F},
                             {"sse2", KACPU_SSE2, kAvxBits},
                             {"plain", 0, kAvxBits | KACPU_SSE | KACPU_SSE2}};

// Position of a variant name from the plainest up.
int rank(const std::string& name) {
  const char* order[] = {"plain", "sse2", "avx2", "avx512"};
  for (int r = 0; r < 4; ++r)
    if (name == order[r]) return r;
  return 99;
}

bool available(const Level& l) { return (KaGetCPUSupport(0) & l.needs) == l.needs; }

class LevelScope {
 public:
  explicit LevelScope(const Level& l) : bits_(l.disallow) {
    if (bits_) KaDisallowCPUSupport(bits_);
  }
  ~LevelScope() {
    if (bits_) KaAllowCPUSupport(bits_);
  }

 private:
  DWORD bits_;
};

// Source samples of a type that exercise its whole range and the awkward values.
std::vector<uint8_t> sourceData(KASAMPLETYPE t, bool full24) {
  std::mt19937 rng(1234);
  const int bytes = KaAudio_BytesFromSampleType(t);
  std::vector<uint8_t> out;
  auto addRaw = [&](const void* p) {
    out.insert(out.end(), static_cast<const uint8_t*>(p), static_cast<const uint8_t*>(p) + bytes);
  };
  switch (t) {
    case KASAMPLE_PCM8:
      for (int v = 0; v < 256; ++v) out.push_back(uint8_t(v));
      break;
    case KASAMPLE_PCM16:
      for (int v = -32768; v < 32768; ++v) {
        int16_t x = int16_t(v);
        addRaw(&x);
      }
      break;
    case KASAMPLE_PCM24:
    case KASAMPLE_PCM24IN32: {
      const int n = full24 ? (1 << 24) : (1 << 16);
      for (int i = 0; i < n; ++i) {
        const uint32_t v = full24 ? uint32_t(i) : (rng() & 0xFFFFFF);
        const uint32_t c = t == KASAMPLE_PCM24 ? v : (v << 8) | (rng() & 0xFF);  // low byte ignored
        addRaw(&c);
      }
      break;
    }
    case KASAMPLE_PCM32:
      for (int32_t x : {INT32_MIN, INT32_MIN + 1, -1, 0, 1, INT32_MAX, INT32_MAX - 1, 0x8000,
                        0x18000, -0x8000, 0x7FFF8000, 0x7FFFFF80, 0x7FFFFFC0})
        addRaw(&x);
      for (int i = 0; i < 65536; ++i) {
        int32_t x = int32_t(rng());
        addRaw(&x);
      }
      break;
    case KASAMPLE_FLOAT32:
    case KASAMPLE_FLOAT64: {
      using F = std::numeric_limits<float>;
      using D = std::numeric_limits<double>;
      std::vector<double> v = {0.0,
                               -0.0,
                               1.0,
                               -1.0,
                               0.5,
                               -0.5,
                               1.5,
                               -2.0,
                               1e30,
                               -1e30,
                               3e38,
                               1e300,
                               -1e300,
                               D::infinity(),
                               -D::infinity(),
                               F::denorm_min(),
                               -F::denorm_min(),
                               F::min() / 3,
                               D::denorm_min(),
                               D::min() / 7,
                               1.0000001,
                               -1.0000001,
                               std::nextafter(1.0, 2.0),
                               std::nextafter(1.0, 0.0),
                               std::nextafter(-1.0, -2.0)};
      for (int k = -40; k < 40; ++k) {  // half steps of every integer width
        for (int bits : {8, 16, 24, 32}) v.push_back((k + 0.5) / std::ldexp(1.0, bits - 1));
        v.push_back(1.0 - (k + 40) * std::ldexp(1.0, -31));
      }
      std::uniform_real_distribution<double> u(-1.2, 1.2);
      for (int i = 0; i < 65536; ++i) v.push_back(u(rng));
      for (double x : v) {
        const float f = float(x);
        addRaw(t == KASAMPLE_FLOAT32 ? static_cast<const void*>(&f) : &x);
      }
      // NaNs with payloads and signs.
      for (uint64_t bits : {0x7FF8000000000000ull, 0xFFF8000000000001ull, 0x7FF0000000000001ull,
                            0x7FFC0000DEADBEEFull}) {
        uint32_t f = (uint32_t(bits >> 32) & 0xFFC00000u) | (uint32_t(bits) & 0x3FFFFF);
        if ((f & 0x7F800000u) != 0x7F800000u) f = 0x7FC00001u;
        addRaw(t == KASAMPLE_FLOAT32 ? static_cast<const void*>(&f) : &bits);
      }
      break;
    }
    default:
      break;
  }
  // Pad to a whole number of 16-sample blocks so that the data does not end in a tail.
  while ((out.size() / bytes) % 16) out.insert(out.end(), out.begin(), out.begin() + bytes);
  return out;
}

// Runs `fn` on every tail length against guard pages, after the end and then before the
// start (for the walkers that go backwards), and compares with `want(n)`.
template <class Run, class Want>
void everyTail(int sb, int db, const uint8_t* src, const uint8_t* dst0, Run run, Want want,
               const std::string& what) {
  for (int32_t n = 0; n <= 67; ++n) {
    const std::vector<uint8_t> expect = want(n);
    for (auto where : {GuardedBuffer::Guard::After, GuardedBuffer::Guard::Before}) {
      GuardedBuffer gs(size_t(n) * sb, where), gd(size_t(n) * db, where);
      if (n) std::memcpy(gs.data(), src, size_t(n) * sb);
      if (n && dst0) std::memcpy(gd.data(), dst0, size_t(n) * db);
      run(gd.data(), gs.data(), n);
      ASSERT_EQ(0, n ? std::memcmp(gd.data(), expect.data(), size_t(n) * db) : 0)
          << what << " tail " << n;
    }
  }
}

constexpr float kGains[] = {1.0f, 0.5f, 2.0f, 0.70710677f, 1.0000001f, -1.0f, 3.1415927f, 1e-30f};

// One converter against the plain one over whole data sets, at every gain.
void compareConverter(KASAMPLETYPE d, KASAMPLETYPE s, KAAUDIO_COPYFUNCTION fn,
                      KAAUDIO_COPYFUNCTION plain) {
  const int db = KaAudio_BytesFromSampleType(d), sb = KaAudio_BytesFromSampleType(s);
  const std::string what = std::to_string(d) + " <- " + std::to_string(s);
  for (bool full24 : {true, false}) {
    if (full24 && s != KASAMPLE_PCM24 && s != KASAMPLE_PCM24IN32) continue;
    const auto src = sourceData(s, full24);
    const int32_t n = int32_t(src.size() / sb);
    std::vector<uint8_t> want(size_t(n) * db), got(size_t(n) * db);
    for (float gain : kGains) {
      if (full24 && gain != 1.0f && gain != 0.70710677f) continue;  // keep the run short
      std::fill(got.begin(), got.end(), 0x5A);
      plain(want.data(), src.data(), n, gain);
      fn(got.data(), src.data(), n, gain);
      for (int32_t i = 0; want != got && i < n; ++i)
        ASSERT_EQ(0, std::memcmp(&want[size_t(i) * db], &got[size_t(i) * db], db))
            << what << " gain " << gain << " sample " << i;
    }
  }
  const auto src = sourceData(s, false);
  for (float gain : {1.0f, 0.5f}) {
    auto want = [&](int32_t n) {
      std::vector<uint8_t> w(size_t(n) * db + 1);
      plain(w.data(), src.data() + 3 * sb, n, gain);
      return w;
    };
    everyTail(
        sb, db, src.data() + 3 * sb, nullptr,
        [&](uint8_t* o, const uint8_t* i, int32_t n) { fn(o, i, n, gain); }, want, what);
    for (int32_t n = 0; n <= 67; ++n) {  // and in place
      std::vector<uint8_t> buf(size_t(n) * std::max(db, sb) + 1);
      if (n) std::memcpy(buf.data(), src.data() + 3 * sb, size_t(n) * sb);
      fn(buf.data(), buf.data(), n, gain);
      ASSERT_EQ(0, n ? std::memcmp(buf.data(), want(n).data(), size_t(n) * db) : 0)
          << "in place " << what << " tail " << n;
    }
  }
}

// Mixer samples: random values over the whole range plus the extremes and, for floating
// point, values beyond full scale, NaN, infinities and denormals.
std::vector<uint8_t> mixSamples(KASAMPLETYPE t, size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<uint8_t> buf(n * KaAudio_BytesFromSampleType(t));
  const double fs = fullScale(t);
  const double specials[] = {
      1.0, -1.0, 1.5, -3.0, NAN, INFINITY, -0.0, std::numeric_limits<float>::denorm_min(), 1e-310};
  for (size_t i = 0; i < n; ++i) {
    double v;
    if (isFloat(t))
      v = (i % 17 == 5) ? specials[(i / 17) % std::size(specials)]
                        : std::uniform_real_distribution<double>(-1.1, 1.1)(rng);
    else
      v = (i % 13 == 3) ? ((i / 13) % 2 ? fs - 1 : -fs)
                        : double(int64_t(rng()) % int64_t(2 * fs) - int64_t(fs));
    putSample(t, buf, i, v);
  }
  return buf;
}

void compareMixer(KASAMPLETYPE d, KASAMPLETYPE s, KAAUDIO_MIXFUNCTION fn,
                  KAAUDIO_MIXFUNCTION plain) {
  const int db = KaAudio_BytesFromSampleType(d), sb = KaAudio_BytesFromSampleType(s);
  const double odd[] = {0.5, 2.0, 0.70710678, -1.0, 1.0, 3.3, 1e-3, 0.25};
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
                                 {5, {1.0, NAN, 0.5, 1.0, 1.0}},
                                 {65, {}},
                                 {70, std::vector<double>(70, 1.0)}};
  for (auto& c : cases)
    for (int k = int(c.gains.size()); k < c.channels; ++k)
      c.gains.push_back(odd[k % std::size(odd)] * (1 + k % 3));
  const size_t n = 4096 * 3;
  const auto src = mixSamples(s, n, 11), dst0 = mixSamples(d, n, 12);
  for (const GainCase& c : cases) {
    const std::string what =
        std::to_string(d) + " <- " + std::to_string(s) + " channels " + std::to_string(c.channels);
    auto want = dst0, got = dst0;
    plain(want.data(), src.data(), int32_t(n), c.channels, c.gains.data());
    fn(got.data(), src.data(), int32_t(n), c.channels, c.gains.data());
    for (size_t i = 0; want != got && i < n; ++i)
      ASSERT_EQ(0, std::memcmp(&want[i * db], &got[i * db], db)) << what << " sample " << i;
    everyTail(
        sb, db, src.data(), dst0.data(),
        [&](uint8_t* o, const uint8_t* i, int32_t len) {
          fn(o, i, len, c.channels, c.gains.data());
        },
        [&](int32_t len) {
          std::vector<uint8_t> w(dst0.begin(), dst0.begin() + len * db);
          plain(w.data(), src.data(), len, c.channels, c.gains.data());
          return w;
        },
        what);
  }
}

TEST(Variants, TablesFollowTheAllowedFeatures) {
  for (const Level& level : kLevels) {
    if (!available(level)) continue;
    LevelScope scope(level);
    int chosen = 0;
    for (KASAMPLETYPE d : kConvertTypes)
      for (KASAMPLETYPE s : kConvertTypes) {
        const char* v = KaAudio_GetConverterVariant(d, s);
        if (!v) continue;
        EXPECT_LE(rank(v), rank(level.name)) << d << " <- " << s;
        chosen += std::string(v) == level.name;
      }
    for (KASAMPLETYPE d : kMixTypes)
      for (KASAMPLETYPE s : kMixTypes) {
        const std::string name = KaAudio_GetMixerVariant(d, s);
        EXPECT_LE(rank(name), rank(level.name)) << d << " <- " << s;
        chosen += name == level.name;
      }
    EXPECT_GT(chosen, 0) << level.name;
  }
  // After the scopes closed, the best variant is back.
  for (const Level& level : kLevels)
    if (available(level)) {
      EXPECT_STREQ(KaAudio_GetConverterVariant(KASAMPLE_FLOAT32, KASAMPLE_PCM16), level.name);
      break;
    }
}

TEST(Variants, ConvertersAndMixersMatchPlainBitForBit) {
  int compared = 0;
  for (const Level& level : kLevels) {
    if (!available(level) || std::string(level.name) == "plain") continue;
    LevelScope scope(level);
    SCOPED_TRACE(std::string(level.name) + " disallowing " + std::to_string(level.disallow));
    for (KASAMPLETYPE d : kConvertTypes)
      for (KASAMPLETYPE s : kConvertTypes) {
        const char* v = KaAudio_GetConverterVariant(d, s);
        if (level.disallow == KACPU_AVX512VBMI || !v || std::string(v) != level.name) continue;
        compareConverter(d, s, KaAudio_GetCopyFunction2(d, s),
                         oa::kPlainConverters.fn[oa::convertIndex(d)][oa::convertIndex(s)]);
        ++compared;
        if (HasFatalFailure()) return;
      }
    for (KASAMPLETYPE d : kMixTypes)
      for (KASAMPLETYPE s : kMixTypes) {
        if (std::string(KaAudio_GetMixerVariant(d, s)) != level.name) continue;
        compareMixer(d, s, KaAudio_GetMixFunction2(d, s),
                     oa::kPlainMixers.fn[oa::convertIndex(d)][oa::convertIndex(s)]);
        ++compared;
        if (HasFatalFailure()) return;
      }
  }
  if (compared == 0) GTEST_SKIP() << "no vector variants on this processor";
}

// Destinations of several megabytes take another store path (past the caches); it must
// give the same bits, aligned or not.
TEST(Variants, LargeConversionsMatchPlain) {
  for (KASAMPLETYPE d : kConvertTypes)
    for (KASAMPLETYPE s : kConvertTypes) {
      const char* v = KaAudio_GetConverterVariant(d, s);
      if (!v || std::string(v) == "plain") continue;
      const int db = KaAudio_BytesFromSampleType(d), sb = KaAudio_BytesFromSampleType(s);
      const size_t n = (size_t(9) << 20) / db + 83;
      const auto tile = sourceData(s, false);
      std::vector<uint8_t> src(n * sb);
      for (size_t i = 0; i < src.size(); i += tile.size())
        std::memcpy(&src[i], tile.data(), std::min(tile.size(), src.size() - i));
      std::vector<uint8_t> want(n * db + 64), got(n * db + 64);
      const KAAUDIO_COPYFUNCTION plain =
          oa::kPlainConverters.fn[oa::convertIndex(d)][oa::convertIndex(s)];
      uint8_t* out = got.data() + (64 - reinterpret_cast<uintptr_t>(got.data()) % 64) % 64;
      for (float gain : {1.0f, 0.5f})
        for (size_t offset : {size_t(0), size_t(4)}) {
          plain(want.data(), src.data(), int32_t(n - 64), gain);
          KaAudio_GetCopyFunction2(d, s)(out + offset, src.data(), int32_t(n - 64), gain);
          ASSERT_EQ(0, std::memcmp(want.data(), out + offset, (n - 64) * db))
              << d << " <- " << s << " gain " << gain << " offset " << offset;
        }
    }
}

}  // namespace
