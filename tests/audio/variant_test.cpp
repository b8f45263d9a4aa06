// Every processor variant of the converter and mixer tables against the plain one, bit
// for bit: whole value ranges, edge values, gains and every tail length, with buffers
// against guard pages. Disallowing a feature must make the tables fall back.
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

// Feature levels from the richest down; each disallows what the levels above add.
struct Level {
  const char* name;
  DWORD disallow;
};
constexpr DWORD kAvxBits = KACPU_AVX | KACPU_AVX2 | KACPU_FMA | KACPU_AVX512F;
constexpr Level kLevels[] = {{"avx512", 0},
                             {"avx2", KACPU_AVX512F},
                             {"sse2", kAvxBits},
                             {"plain", kAvxBits | KACPU_SSE | KACPU_SSE2}};

// Position of a variant name from the plainest up; a level may only choose names at or
// below its own.
int rank(const std::string& name) {
  for (int r = 0; r < 4; ++r)
    if (name == kLevels[3 - r].name) return r;
  return 99;
}

class LevelScope {
 public:
  explicit LevelScope(DWORD bits) : bits_(bits) {
    if (bits_) KaDisallowCPUSupport(bits_);
  }
  ~LevelScope() {
    if (bits_) KaAllowCPUSupport(bits_);
  }

 private:
  DWORD bits_;
};

constexpr DWORD kAvx512Level = KACPU_AVX2 | KACPU_AVX512F | KACPU_AVX512BW | KACPU_AVX512VL;

bool levelAvailable(const Level& l) {
  if (std::string(l.name) == "avx512") return (KaGetCPUSupport(0) & kAvx512Level) == kAvx512Level;
  if (std::string(l.name) == "avx2")
    return (KaGetCPUSupport(0) & (KACPU_AVX | KACPU_AVX2)) == (KACPU_AVX | KACPU_AVX2);
  if (std::string(l.name) == "sse2") return (KaGetCPUSupport(0) & KACPU_SSE2) != 0;
  return true;
}

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
      out.resize(size_t(n) * bytes);
      for (int i = 0; i < n; ++i) {
        const uint32_t v = full24 ? uint32_t(i) : (rng() & 0xFFFFFF);
        if (t == KASAMPLE_PCM24) {
          out[3 * i] = uint8_t(v), out[3 * i + 1] = uint8_t(v >> 8),
                  out[3 * i + 2] = uint8_t(v >> 16);
        } else {
          const uint32_t c = (v << 8) | (rng() & 0xFF);  // the low byte must be ignored
          std::memcpy(&out[4 * i], &c, 4);
        }
      }
      break;
    }
    case KASAMPLE_PCM32: {
      for (int32_t x : {INT32_MIN, INT32_MIN + 1, -1, 0, 1, INT32_MAX, INT32_MAX - 1, 0x8000,
                        0x18000, -0x8000, 0x7FFF8000, 0x7FFFFF80, 0x7FFFFFC0})
        addRaw(&x);
      for (int i = 0; i < 65536; ++i) {
        int32_t x = int32_t(rng());
        addRaw(&x);
      }
      break;
    }
    case KASAMPLE_FLOAT32:
    case KASAMPLE_FLOAT64: {
      std::vector<double> v = {0.0,
                               -0.0,
                               1.0,
                               -1.0,
                               0.5,
                               -0.5,
                               1.0000001,
                               -1.0000001,
                               1.5,
                               -2.0,
                               1e30,
                               -1e30,
                               3e38,
                               1e300,
                               -1e300,
                               std::numeric_limits<double>::infinity(),
                               -std::numeric_limits<double>::infinity(),
                               std::numeric_limits<float>::denorm_min(),
                               -std::numeric_limits<float>::denorm_min(),
                               std::numeric_limits<float>::min() / 3,
                               std::numeric_limits<double>::denorm_min(),
                               std::numeric_limits<double>::min() / 7,
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
        if (t == KASAMPLE_FLOAT32) {
          float f = float(x);
          addRaw(&f);
        } else {
          addRaw(&x);
        }
      }
      // NaNs with payloads and signs.
      for (uint64_t bits : {0x7FF8000000000000ull, 0xFFF8000000000001ull, 0x7FF0000000000001ull,
                            0x7FFC0000DEADBEEFull}) {
        if (t == KASAMPLE_FLOAT32) {
          uint32_t f = uint32_t(bits >> 32) & 0xFFC00000u;
          f |= uint32_t(bits) & 0x3FFFFF;
          f = (f & 0x7F800000u) == 0x7F800000u ? f : 0x7FC00001u;
          addRaw(&f);
        } else {
          addRaw(&bits);
        }
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

constexpr float kGains[] = {1.0f, 0.5f, 2.0f, 0.70710677f, 1.0000001f, -1.0f, 3.1415927f, 1e-30f};

TEST(Variants, TablesFollowTheAllowedFeatures) {
  for (const Level& level : kLevels) {
    if (!levelAvailable(level)) continue;
    LevelScope scope(level.disallow);
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
  // After the scopes closed, the best variants are back.
  for (const Level& level : kLevels)
    if (levelAvailable(level)) {
      EXPECT_STREQ(KaAudio_GetConverterVariant(KASAMPLE_FLOAT32, KASAMPLE_PCM16), level.name);
      break;
    }
}

// One converter against the plain one over whole data sets, at every gain.
void compareConverter(KASAMPLETYPE d, KASAMPLETYPE s, KAAUDIO_COPYFUNCTION fn,
                      KAAUDIO_COPYFUNCTION plain) {
  const int db = KaAudio_BytesFromSampleType(d), sb = KaAudio_BytesFromSampleType(s);
  for (bool full24 : {true, false}) {
    const bool is24 = s == KASAMPLE_PCM24 || s == KASAMPLE_PCM24IN32;
    if (full24 && !is24) continue;
    const auto src = sourceData(s, full24);
    const int32_t n = int32_t(src.size() / sb);
    std::vector<uint8_t> want(size_t(n) * db), got(size_t(n) * db);
    for (float gain : kGains) {
      if (full24 && gain != 1.0f && gain != 0.70710677f) continue;  // keep the run short
      std::fill(want.begin(), want.end(), 0xA5);
      std::fill(got.begin(), got.end(), 0x5A);
      plain(want.data(), src.data(), n, gain);
      fn(got.data(), src.data(), n, gain);
      if (want != got) {
        for (int32_t i = 0; i < n; ++i)
          ASSERT_EQ(0, std::memcmp(&want[size_t(i) * db], &got[size_t(i) * db], db))
              << d << " <- " << s << " gain " << gain << " sample " << i;
      }
    }
  }
  // Every tail length, both buffers against guard pages (after the end, then before the
  // start, for the walkers that go backwards), and in place.
  const auto src = sourceData(s, false);
  for (int32_t n = 0; n <= 67; ++n) {
    for (float gain : {1.0f, 0.5f}) {
      std::vector<uint8_t> want(size_t(n) * db + 1);
      plain(want.data(), src.data() + 3 * sb, n, gain);
      for (auto where : {GuardedBuffer::Guard::After, GuardedBuffer::Guard::Before}) {
        GuardedBuffer gs(size_t(n) * sb, where), gd(size_t(n) * db, where);
        if (n) std::memcpy(gs.data(), src.data() + 3 * sb, size_t(n) * sb);
        fn(gd.data(), gs.data(), n, gain);
        ASSERT_EQ(0, n ? std::memcmp(gd.data(), want.data(), size_t(n) * db) : 0)
            << d << " <- " << s << " tail " << n;
      }
      {
        std::vector<uint8_t> buf(size_t(n) * std::max(db, sb) + 1);
        if (n) std::memcpy(buf.data(), src.data() + 3 * sb, size_t(n) * sb);
        fn(buf.data(), buf.data(), n, gain);
        ASSERT_EQ(0, n ? std::memcmp(buf.data(), want.data(), size_t(n) * db) : 0)
            << "in place " << d << " <- " << s << " tail " << n;
      }
    }
  }
}

TEST(Variants, ConvertersMatchPlainBitForBit) {
  int compared = 0;
  for (const Level& level : kLevels) {
    if (!levelAvailable(level) || std::string(level.name) == "plain") continue;
    LevelScope scope(level.disallow);
    for (KASAMPLETYPE d : kConvertTypes)
      for (KASAMPLETYPE s : kConvertTypes) {
        const char* v = KaAudio_GetConverterVariant(d, s);
        if (!v || std::string(v) != level.name) continue;
        SCOPED_TRACE(level.name);
        compareConverter(d, s, KaAudio_GetCopyFunction2(d, s),
                         oa::kPlainConverters.fn[oa::convertIndex(d)][oa::convertIndex(s)]);
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
