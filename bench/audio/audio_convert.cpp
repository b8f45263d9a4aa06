// Converter and mixer throughput per variant, beside memcpy of the same bytes and the
// same work through libswresample (sample-format change only, mono, same rate) and
// libsndfile (reading a raw in-memory file as float, double, short or int). Ends with a
// table of the ratios that docs/performance.md keeps.
//
//   bench_audio_convert [--benchmark_filter=...] [--benchmark_min_time=0.1]
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "audio/internal/tables.h"
#include "ostra/kaaudio.h"
#include "ostra/kacpu.h"

#if defined(OSTRA_HAVE_SWRESAMPLE)
extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/samplefmt.h>
#include <libswresample/swresample.h>
}
#endif
#if defined(OSTRA_HAVE_SNDFILE)
#include <sndfile.h>
#endif

namespace {

namespace oa = ostra::audio;

// Cache-line aligned storage, as an audio engine allocates its buffers.
template <class T>
struct Aligned {
  using value_type = T;
  Aligned() = default;
  template <class U>
  Aligned(const Aligned<U>&) {}
  T* allocate(size_t n) {
    return static_cast<T*>(::operator new(n * sizeof(T), std::align_val_t(4096)));
  }
  void deallocate(T* p, size_t) { ::operator delete(p, std::align_val_t(4096)); }
  template <class U>
  bool operator==(const Aligned<U>&) const {
    return true;
  }
};
using Bytes = std::vector<uint8_t, Aligned<uint8_t>>;

// Every source starts on a page boundary and every destination half a page and a cache
// line further on, so that no program's loads and stores run into 4 KiB address aliasing
// by the luck of the allocator: all of them see the same placement.
constexpr size_t kSkew = 2048 + 64;
struct Dest {
  Bytes bytes;
  explicit Dest(size_t n) : bytes(n + kSkew) {}
  uint8_t* data() { return bytes.data() + kSkew; }
};

constexpr int64_t kSizes[] = {64 * 1024, 16 * 1024 * 1024};  // in L2, out of cache

struct TypeInfo {
  KASAMPLETYPE type;
  const char* name;
  int swr;      // AVSampleFormat, -1 without one
  int sndfile;  // SF_FORMAT_* subtype for reading, 0 without one
};
#if defined(OSTRA_HAVE_SWRESAMPLE)
#define SWR(x) int(x)
#else
#define SWR(x) -1
#endif
#if defined(OSTRA_HAVE_SNDFILE)
#define SNDF(x) int(x)
#else
#define SNDF(x) 0
#endif
const TypeInfo kTypes[] = {
    {KASAMPLE_PCM8, "u8", SWR(AV_SAMPLE_FMT_U8), SNDF(SF_FORMAT_PCM_U8)},
    {KASAMPLE_PCM16, "s16", SWR(AV_SAMPLE_FMT_S16), SNDF(SF_FORMAT_PCM_16)},
    {KASAMPLE_PCM24, "s24", -1, SNDF(SF_FORMAT_PCM_24)},
    {KASAMPLE_PCM32, "s32", SWR(AV_SAMPLE_FMT_S32), SNDF(SF_FORMAT_PCM_32)},
    // 24 valid bits in the upper bytes of 32 are a 32-bit sample to the peers.
    {KASAMPLE_PCM24IN32, "s24in32", SWR(AV_SAMPLE_FMT_S32), SNDF(SF_FORMAT_PCM_32)},
    {KASAMPLE_FLOAT32, "f32", SWR(AV_SAMPLE_FMT_FLT), SNDF(SF_FORMAT_FLOAT)},
    {KASAMPLE_FLOAT64, "f64", SWR(AV_SAMPLE_FMT_DBL), SNDF(SF_FORMAT_DOUBLE)},
};
const TypeInfo& info(KASAMPLETYPE t) {
  for (const TypeInfo& i : kTypes)
    if (i.type == t) return i;
  return kTypes[0];
}

// The converter pairs measured: every integer <-> single-precision pair, the 16/24/32-bit
// to and from double precision, single <-> double, unsigned 8-bit to single.
const KASAMPLETYPE kPairs[][2] = {
    {KASAMPLE_FLOAT32, KASAMPLE_PCM16},     {KASAMPLE_PCM16, KASAMPLE_FLOAT32},
    {KASAMPLE_FLOAT32, KASAMPLE_PCM24},     {KASAMPLE_PCM24, KASAMPLE_FLOAT32},
    {KASAMPLE_FLOAT32, KASAMPLE_PCM32},     {KASAMPLE_PCM32, KASAMPLE_FLOAT32},
    {KASAMPLE_FLOAT32, KASAMPLE_PCM24IN32}, {KASAMPLE_PCM24IN32, KASAMPLE_FLOAT32},
    {KASAMPLE_FLOAT64, KASAMPLE_FLOAT32},   {KASAMPLE_FLOAT32, KASAMPLE_FLOAT64},
    {KASAMPLE_FLOAT32, KASAMPLE_PCM8},      {KASAMPLE_FLOAT64, KASAMPLE_PCM16},
    {KASAMPLE_PCM16, KASAMPLE_FLOAT64},     {KASAMPLE_FLOAT64, KASAMPLE_PCM24},
    {KASAMPLE_PCM24, KASAMPLE_FLOAT64},     {KASAMPLE_FLOAT64, KASAMPLE_PCM32},
    {KASAMPLE_PCM32, KASAMPLE_FLOAT64},
};
const KASAMPLETYPE kMixPairs[][2] = {
    {KASAMPLE_PCM16, KASAMPLE_PCM16},     {KASAMPLE_FLOAT32, KASAMPLE_FLOAT32},
    {KASAMPLE_FLOAT64, KASAMPLE_FLOAT64}, {KASAMPLE_PCM24, KASAMPLE_PCM24},
    {KASAMPLE_PCM32, KASAMPLE_PCM32},     {KASAMPLE_PCM24IN32, KASAMPLE_PCM24IN32},
    {KASAMPLE_FLOAT32, KASAMPLE_PCM16},
};

struct Level {
  const char* name;
  DWORD disallow;
};
constexpr DWORD kAvx = KACPU_AVX | KACPU_AVX2 | KACPU_FMA | KACPU_AVX512F;
const Level kLevels[] = {{"plain", kAvx | KACPU_SSE | KACPU_SSE2},
                         {"sse2", kAvx},
                         {"avx2", KACPU_AVX512F},
                         {"avx512", 0}};

// Buffers filled with mid-level noise, so that no value takes a clipping shortcut.
Bytes noise(KASAMPLETYPE t, int64_t n) {
  std::vector<float> f(static_cast<size_t>(n));
  uint32_t x = 12345;
  for (auto& v : f) {
    x = x * 1664525u + 1013904223u;
    v = float(int32_t(x) >> 8) / 8388608.0f * 0.7f;
  }
  Bytes out(size_t(n) * KaAudio_BytesFromSampleType(t));
  oa::kPlainConverters.fn[oa::convertIndex(t)][oa::kF32](out.data(), f.data(), int32_t(n), 1.0f);
  return out;
}

std::string pairName(KASAMPLETYPE d, KASAMPLETYPE s) {
  return std::string(info(s).name) + "->" + info(d).name;
}

void setCounters(benchmark::State& st, int64_t n, int64_t bytesPerSample) {
  st.SetItemsProcessed(st.iterations() * n);
  st.SetBytesProcessed(st.iterations() * n * bytesPerSample);
}

void runConverter(benchmark::State& st, KAAUDIO_COPYFUNCTION fn, KASAMPLETYPE d, KASAMPLETYPE s,
                  int64_t n, float gain) {
  const auto src = noise(s, n);
  Dest dst(size_t(n) * KaAudio_BytesFromSampleType(d));
  for (auto _ : st) {
    fn(dst.data(), src.data(), int32_t(n), gain);
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  setCounters(st, n, KaAudio_BytesFromSampleType(d));
}

void runMemcpy(benchmark::State& st, int64_t n, int bytesPerSample) {
  Bytes a(size_t(n) * bytesPerSample, 1);
  Dest b(a.size());
  for (auto _ : st) {
    std::memcpy(b.data(), a.data(), a.size());
    benchmark::DoNotOptimize(b.data());
    benchmark::ClobberMemory();
  }
  setCounters(st, n, bytesPerSample);
}

void runMixer(benchmark::State& st, KAAUDIO_MIXFUNCTION fn, KASAMPLETYPE d, KASAMPLETYPE s,
              int64_t n, const double* gains) {
  const auto src = noise(s, n);
  const auto start = noise(d, n);
  Dest dst(start.size());
  std::memcpy(dst.data(), start.data(), start.size());
  for (auto _ : st) {
    fn(dst.data(), src.data(), int32_t(n), 2, gains);
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  setCounters(st, n, KaAudio_BytesFromSampleType(d));
}

#if defined(OSTRA_HAVE_SWRESAMPLE)
void runSwr(benchmark::State& st, KASAMPLETYPE d, KASAMPLETYPE s, int64_t n, float gain) {
  AVChannelLayout mono = AV_CHANNEL_LAYOUT_MONO;
  SwrContext* ctx = nullptr;
  swr_alloc_set_opts2(&ctx, &mono, AVSampleFormat(info(d).swr), 48000, &mono,
                      AVSampleFormat(info(s).swr), 48000, 0, nullptr);
  if (gain != 1.0f) {
    const double m[1] = {gain};
    swr_set_matrix(ctx, m, 1);
  }
  if (!ctx || swr_init(ctx) < 0) {
    st.SkipWithError("swr_init failed");
    swr_free(&ctx);
    return;
  }
  const auto src = noise(s, n);
  Dest dst(size_t(n) * KaAudio_BytesFromSampleType(d));
  for (auto _ : st) {
    const uint8_t* in[1] = {src.data()};
    uint8_t* out[1] = {dst.data()};
    if (swr_convert(ctx, out, int(n), in, int(n)) != int(n)) st.SkipWithError("short convert");
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  swr_free(&ctx);
  setCounters(st, n, KaAudio_BytesFromSampleType(d));
}
#endif

#if defined(OSTRA_HAVE_SNDFILE)
// A read-only in-memory file for libsndfile's virtual I/O.
struct MemFile {
  const Bytes* bytes;
  sf_count_t pos = 0;
};
sf_count_t vLen(void* u) { return sf_count_t(static_cast<MemFile*>(u)->bytes->size()); }
sf_count_t vSeek(sf_count_t off, int whence, void* u) {
  auto* m = static_cast<MemFile*>(u);
  m->pos = whence == SEEK_SET ? off : whence == SEEK_CUR ? m->pos + off : vLen(u) + off;
  return m->pos;
}
sf_count_t vRead(void* ptr, sf_count_t count, void* u) {
  auto* m = static_cast<MemFile*>(u);
  const sf_count_t n = std::min<sf_count_t>(count, vLen(u) - m->pos);
  std::memcpy(ptr, m->bytes->data() + m->pos, size_t(n));
  m->pos += n;
  return n;
}
sf_count_t vWrite(const void*, sf_count_t, void*) { return 0; }
sf_count_t vTell(void* u) { return static_cast<MemFile*>(u)->pos; }

void runSndfile(benchmark::State& st, KASAMPLETYPE d, KASAMPLETYPE s, int64_t n) {
  const auto src = noise(s, n);
  Dest dst(size_t(n) * KaAudio_BytesFromSampleType(d));
  SF_VIRTUAL_IO io{vLen, vSeek, vRead, vWrite, vTell};
  for (auto _ : st) {
    MemFile mem{&src};
    SF_INFO fi{};
    fi.samplerate = 48000;
    fi.channels = 1;
    fi.format = SF_FORMAT_RAW | info(s).sndfile | SF_ENDIAN_LITTLE;
    SNDFILE* f = sf_open_virtual(&io, SFM_READ, &fi, &mem);
    if (!f) {
      st.SkipWithError("sf_open_virtual failed");
      break;
    }
    sf_count_t got = 0;
    switch (d) {
      case KASAMPLE_FLOAT32:
        got = sf_read_float(f, reinterpret_cast<float*>(dst.data()), n);
        break;
      case KASAMPLE_FLOAT64:
        got = sf_read_double(f, reinterpret_cast<double*>(dst.data()), n);
        break;
      case KASAMPLE_PCM16:
        got = sf_read_short(f, reinterpret_cast<short*>(dst.data()), n);
        break;
      default:
        got = sf_read_int(f, reinterpret_cast<int*>(dst.data()), n);
        break;
    }
    sf_close(f);
    if (got != n) st.SkipWithError("short read");
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  setCounters(st, n, KaAudio_BytesFromSampleType(d));
}
#endif

// The converter of each variant level, looked up by narrowing the allowed features.
KAAUDIO_COPYFUNCTION converterAt(const Level& l, KASAMPLETYPE d, KASAMPLETYPE s,
                                 std::string* name) {
  if (l.disallow) KaDisallowCPUSupport(l.disallow);
  KAAUDIO_COPYFUNCTION fn = KaAudio_GetCopyFunction2(d, s);
  *name = KaAudio_GetConverterVariant(d, s);
  if (l.disallow) KaAllowCPUSupport(l.disallow);
  return fn;
}
KAAUDIO_MIXFUNCTION mixerAt(const Level& l, KASAMPLETYPE d, KASAMPLETYPE s, std::string* name) {
  if (l.disallow) KaDisallowCPUSupport(l.disallow);
  KAAUDIO_MIXFUNCTION fn = KaAudio_GetMixFunction2(d, s);
  *name = KaAudio_GetMixerVariant(d, s);
  if (l.disallow) KaAllowCPUSupport(l.disallow);
  return fn;
}

const double kUnityGains[2] = {1.0, 1.0};
const double kStereoGains[2] = {0.8, 0.6};

void registerAll() {
  for (int64_t n : kSizes) {
    const std::string size = n == kSizes[0] ? "L2" : "mem";
    for (int bytes : {2, 3, 4, 8}) {
      benchmark::RegisterBenchmark(("memcpy/" + std::to_string(bytes) + "B/" + size).c_str(),
                                   [=](benchmark::State& st) { runMemcpy(st, n, bytes); });
    }
    for (const auto& p : kPairs) {
      const KASAMPLETYPE d = p[0], s = p[1];
      for (float gain : {1.0f, 0.8f}) {
        const std::string kind = gain == 1.0f ? "convert/" : "convert-gain/";
        if (gain != 1.0f && n != kSizes[0]) continue;
        for (const Level& l : kLevels) {
          std::string variant;
          KAAUDIO_COPYFUNCTION fn = converterAt(l, d, s, &variant);
          if (variant != l.name) continue;  // no such variant for the pair
          benchmark::RegisterBenchmark(
              (kind + pairName(d, s) + "/" + l.name + "/" + size).c_str(),
              [=](benchmark::State& st) { runConverter(st, fn, d, s, n, gain); });
        }
#if defined(OSTRA_HAVE_SWRESAMPLE)
        if (info(d).swr >= 0 && info(s).swr >= 0)
          benchmark::RegisterBenchmark((kind + pairName(d, s) + "/swr/" + size).c_str(),
                                       [=](benchmark::State& st) { runSwr(st, d, s, n, gain); });
#endif
#if defined(OSTRA_HAVE_SNDFILE)
        if (gain == 1.0f && info(s).sndfile && s != KASAMPLE_FLOAT32 && s != KASAMPLE_FLOAT64 &&
            s != KASAMPLE_PCM24IN32)
          benchmark::RegisterBenchmark((kind + pairName(d, s) + "/sndfile/" + size).c_str(),
                                       [=](benchmark::State& st) { runSndfile(st, d, s, n); });
#endif
      }
    }
    for (const auto& p : kMixPairs) {
      const KASAMPLETYPE d = p[0], s = p[1];
      for (const double* gains : {kUnityGains, kStereoGains}) {
        const std::string kind = gains == kUnityGains ? "mix/" : "mix-gain/";
        for (const Level& l : kLevels) {
          std::string variant;
          KAAUDIO_MIXFUNCTION fn = mixerAt(l, d, s, &variant);
          if (variant != l.name) continue;
          benchmark::RegisterBenchmark(
              (kind + pairName(d, s) + "/" + l.name + "/" + size).c_str(),
              [=](benchmark::State& st) { runMixer(st, fn, d, s, n, gains); });
        }
      }
    }
  }
}

// Collects samples per second by name for the ratio table.
class Collector : public benchmark::ConsoleReporter {
 public:
  std::map<std::string, double> rate;
  std::set<std::string> medians;
  // With --benchmark_repetitions the median stands for the benchmark.
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& r : runs) {
      auto it = r.counters.find("items_per_second");
      if (it == r.counters.end()) continue;
      const std::string name = r.run_name.str();
      if (r.run_type == Run::RT_Aggregate && r.aggregate_name == "median") {
        rate[name] = it->second;
        medians.insert(name);
      } else if (r.run_type == Run::RT_Iteration && !medians.count(name)) {
        rate[name] = it->second;
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }
};

std::string bestVariant(const std::map<std::string, double>& rate, const std::string& prefix,
                        const std::string& size, std::string* which) {
  for (const char* v : {"avx512", "avx2", "sse2", "plain"}) {
    if (rate.count(prefix + v + "/" + size)) {
      *which = v;
      return prefix + v + "/" + size;
    }
  }
  return {};
}

void printTable(const std::map<std::string, double>& rate) {
  auto get = [&](const std::string& k) { return rate.count(k) ? rate.at(k) : 0.0; };
  auto ratio = [](double a, double b) -> std::string {
    if (a <= 0 || b <= 0) return "n/a";
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.2fx", a / b);
    return buf;
  };
  std::printf(
      "\n| pair | variant | plain L2 | ours L2 (Gsamples/s) | swr L2 | sndfile L2 | "
      "ours/swr L2 | ours mem | memcpy mem | ours/memcpy mem | gain 0.8: ours/swr L2 |\n");
  std::printf("|---|---|---|---|---|---|---|---|---|---|---|\n");
  for (const auto& p : kPairs) {
    const std::string pn = pairName(p[0], p[1]);
    std::string v;
    const double l2 = get(bestVariant(rate, "convert/" + pn + "/", "L2", &v));
    const double mem = get(bestVariant(rate, "convert/" + pn + "/", "mem", &v));
    std::string vg;
    const double g = get(bestVariant(rate, "convert-gain/" + pn + "/", "L2", &vg));
    const int widest =
        std::max(KaAudio_BytesFromSampleType(p[0]), KaAudio_BytesFromSampleType(p[1]));
    const double mc = get("memcpy/" + std::to_string(widest) + "B/mem");
    const double swr = get("convert/" + pn + "/swr/L2");
    std::printf("| %s | %s | %.2f | %.2f | %.2f | %.2f | %s | %.2f | %.2f | %s | %s |\n",
                pn.c_str(), v.c_str(), get("convert/" + pn + "/plain/L2") / 1e9, l2 / 1e9,
                swr / 1e9, get("convert/" + pn + "/sndfile/L2") / 1e9, ratio(l2, swr).c_str(),
                mem / 1e9, mc / 1e9, ratio(mem, mc).c_str(),
                ratio(g, get("convert-gain/" + pn + "/swr/L2")).c_str());
  }
  std::printf(
      "\n| mixer | gains | variant | plain L2 | ours L2 (Gsamples/s) | memcpy L2 | ours/memcpy L2 "
      "| ours mem | memcpy mem | ours/memcpy mem |\n|---|---|---|---|---|---|---|---|---|---|\n");
  for (const auto& p : kMixPairs) {
    const std::string pn = pairName(p[0], p[1]);
    const std::string mb = "memcpy/" + std::to_string(KaAudio_BytesFromSampleType(p[0])) + "B/";
    for (const char* kind : {"mix/", "mix-gain/"}) {
      std::string v;
      const double l2 = get(bestVariant(rate, kind + pn + "/", "L2", &v));
      const double mem = get(bestVariant(rate, kind + pn + "/", "mem", &v));
      std::printf("| %s | %s | %s | %.2f | %.2f | %.2f | %s | %.2f | %.2f | %s |\n", pn.c_str(),
                  std::string(kind) == "mix/" ? "1.0" : "0.8/0.6", v.c_str(),
                  get(kind + pn + "/plain/L2") / 1e9, l2 / 1e9, get(mb + "L2") / 1e9,
                  ratio(l2, get(mb + "L2")).c_str(), mem / 1e9, get(mb + "mem") / 1e9,
                  ratio(mem, get(mb + "mem")).c_str());
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  registerAll();
  Collector collector;
  benchmark::RunSpecifiedBenchmarks(&collector);
  printTable(collector.rate);
  benchmark::Shutdown();
  return 0;
}
