// Reading through a surrogate process against reading in process, the same plug-in
// behind the same wrappers (the synthetic 16-bit reader of tests/plugins, and the
// libsndfile reader decoding FLAC): audio throughput at
// block sizes from 4 KiB to 1 MiB, and the latency of one small call. Samples cross
// through shared memory; only the call and its answer travel on the socket.
#include <benchmark/benchmark.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "ostra/kafiomgr.h"

#ifdef OSTRA_HAVE_SNDFILE
#include <sndfile.h>

#include <cmath>
#endif

namespace fs = std::filesystem;

namespace {

// The plug-in under test: the synthetic reader, or the libsndfile reader on a FLAC file.
enum class Plugin { Synthetic, Flac };

struct Setup {
  fs::path dir;
  IKaFileIOManager* manager = nullptr;
  IKaReadFile* reader = nullptr;
  IKaReadAudioStream* audio = nullptr;
  WORD block = 2;

  Setup(Plugin plugin, bool surrogate) {
    dir = fs::temp_directory_path() /
          ("ostra-bench-surrogate-" + std::to_string(int(plugin)) + std::to_string(surrogate));
    fs::create_directories(dir);
    std::string clipName = "clip.bad";
    if (plugin == Plugin::Synthetic) {
      fs::copy_file(std::string(OSTRA_TEST_PLUGIN_DIR) + "/tp_steady.so", dir / "tp_steady.so",
                    fs::copy_options::overwrite_existing);
      std::ofstream(dir / "bench.Fio2007-Config")
          << "[FileIO Plug-Ins]\nsteady=tp_steady.so\n[steady]\nSurrogate=" << (surrogate ? 0 : -1)
          << "\n";
      std::ofstream(dir / "clip.bad") << "open:*";
    } else {
      clipName = "clip.flac";
      if (!writeFlac(dir / clipName)) return;
      block = 4;
      std::ofstream(dir / "bench.Fio2007-Config")
          << "[FileIO Plug-Ins]\nAudio=" << OSTRA_PLUGIN_DIR
          << "/sndfile.so\n[Audio]\nSurrogate=" << (surrogate ? 0 : -1) << "\n";
    }
    IKaFileIOMgrForApp* app = nullptr;
    KaFio_CreateManager(IID_IKaFileIOMgrForApp, reinterpret_cast<void**>(&app));
    const std::u16string module = u16(dir / "host.so");
    KAFIOMGRINIT init{
        sizeof init, KAFIO_INIT_BESIDE_MODULE, u"ostra-bench", module.c_str(), nullptr, 0};
    app->Initialize(&init);
    app->Rescan();
    app->QueryInterface(IID_IKaFileIOManager, reinterpret_cast<void**>(&manager));
    app->Release();
    const std::u16string clip = u16(dir / clipName);
    if (FAILED(manager->CreateReaderForPath(clip.c_str(), 0, &reader, nullptr)) ||
        FAILED(reader->GetStream(0, IID_IKaReadAudioStream, reinterpret_cast<void**>(&audio))))
      audio = nullptr;
  }
  ~Setup() {
    if (audio) audio->Release();
    if (reader) reader->Release();
    if (manager) manager->Release();
    std::error_code ec;
    fs::remove_all(dir, ec);
  }
  // Two minutes of 16-bit stereo at 48 kHz: a tone under noise, so FLAC has work to do.
  static bool writeFlac(const fs::path& path) {
#ifdef OSTRA_HAVE_SNDFILE
    SF_INFO info{};
    info.samplerate = 48000;
    info.channels = 2;
    info.format = SF_FORMAT_FLAC | SF_FORMAT_PCM_16;
    SNDFILE* f = sf_open(path.string().c_str(), SFM_WRITE, &info);
    if (!f) return false;
    std::vector<short> buf(2 * 48000);
    uint32_t noise = 1;
    for (int second = 0; second < 120; ++second) {
      for (size_t i = 0; i < buf.size(); ++i) {
        noise = noise * 1664525u + 1013904223u;
        buf[i] = short(8000 * std::sin(double(second * 48000 + i / 2) * 0.0575) + int(noise >> 20) -
                       2048);
      }
      sf_writef_short(f, buf.data(), 48000);
    }
    sf_close(f);
    return true;
#else
    (void)path;
    return false;
#endif
  }
  static std::u16string u16(const fs::path& p) {
    const std::string s = p.string();
    return std::u16string(s.begin(), s.end());
  }
};

Setup& setup(Plugin plugin, bool surrogate) {
  static Setup synthetic(Plugin::Synthetic, false), syntheticOut(Plugin::Synthetic, true);
  static Setup flac(Plugin::Flac, false), flacOut(Plugin::Flac, true);
  if (plugin == Plugin::Flac) return surrogate ? flacOut : flac;
  return surrogate ? syntheticOut : synthetic;
}

// Reads consecutive blocks of range(0) bytes, wrapping around within the first 100 s.
void BM_Read(benchmark::State& state, Plugin plugin, bool surrogate) {
  Setup& s = setup(plugin, surrogate);
  if (!s.audio) {
    state.SkipWithError("the test plug-in or the surrogate is missing");
    return;
  }
  const DWORD frames = DWORD(state.range(0) / s.block);
  std::vector<uint8_t> buf(state.range(0));
  UINT64 at = 0;
  for (auto _ : state) {
    DWORD got = 0;
    s.audio->Read(at, buf.data(), frames, &got);
    benchmark::DoNotOptimize(buf.data());
    at = (at + frames) % (48000ull * 100);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * state.range(0));
  state.SetItemsProcessed(int64_t(state.iterations()) * state.range(0) / 2);  // samples
}

void BM_CallLatency(benchmark::State& state, bool surrogate) {
  Setup& s = setup(Plugin::Synthetic, surrogate);
  if (!s.audio) {
    state.SkipWithError("the test plug-in or the surrogate is missing");
    return;
  }
  UINT64 frames = 0;
  for (auto _ : state) s.audio->GetFrameCount(&frames);
  benchmark::DoNotOptimize(frames);
}

// Wall time: the surrogate's work happens in another process.
BENCHMARK_CAPTURE(BM_Read, synthetic_in_process, Plugin::Synthetic, false)
    ->RangeMultiplier(4)
    ->Range(4 << 10, 1 << 20)
    ->UseRealTime();
BENCHMARK_CAPTURE(BM_Read, synthetic_surrogate, Plugin::Synthetic, true)
    ->RangeMultiplier(4)
    ->Range(4 << 10, 1 << 20)
    ->UseRealTime();
BENCHMARK_CAPTURE(BM_Read, flac_in_process, Plugin::Flac, false)
    ->RangeMultiplier(4)
    ->Range(4 << 10, 1 << 20)
    ->UseRealTime();
BENCHMARK_CAPTURE(BM_Read, flac_surrogate, Plugin::Flac, true)
    ->RangeMultiplier(4)
    ->Range(4 << 10, 1 << 20)
    ->UseRealTime();
BENCHMARK_CAPTURE(BM_CallLatency, in_process, false)->UseRealTime();
BENCHMARK_CAPTURE(BM_CallLatency, surrogate, true)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
