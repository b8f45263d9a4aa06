// The plug-in manager's start-up with 50 plug-ins (copies of a test plug-in): the first
// scan, which loads every module and writes the cache, and a warm start from the cache;
// identification per file; and a call through a Blanket wrapper from its creating thread
// and from another thread against a direct call.
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>

#include "ostra/kafiomgr.h"
#include "ostra/kaplatform.h"

namespace fs = std::filesystem;

namespace {

constexpr int kPlugins = 50;

struct Folder {
  fs::path dir;
  std::u16string module;
  Folder() {
    dir = fs::temp_directory_path() / ("ostra-bench-" + std::to_string(std::random_device{}()));
    fs::create_directories(dir);
    std::ofstream config(dir / "bench.Fio2007-Config");
    config << "[FileIO Plug-Ins]\n";
    for (int i = 0; i < kPlugins; ++i) {
      const std::string name = "p" + std::to_string(i) + ".so";
      fs::copy_file(fs::path(OSTRA_TEST_PLUGIN_DIR) / "tp_alpha.so", dir / name);
      config << "plugin" << i << "=" << name << "\n";
    }
    const std::string m = (dir / "host.so").string();
    module.assign(m.begin(), m.end());
    std::ofstream(dir / "a.wav") << std::string("RIFF\x24\0\0\0WAVEfmt open:*", 22);
    std::ofstream(dir / "b.tst") << "open:*";
    std::ofstream(dir / "c.wav") << std::string("RIFF\x24\0\0\0ACIDdata", 20);
  }
  ~Folder() { fs::remove_all(dir); }
  IKaFileIOManager* start() const {
    IKaFileIOMgrForApp* app = nullptr;
    KaFio_CreateManager(IID_IKaFileIOMgrForApp, reinterpret_cast<void**>(&app));
    KAFIOMGRINIT init{sizeof init, KAFIO_INIT_BESIDE_MODULE, u"bench", module.c_str(), nullptr, 0};
    app->Initialize(&init);
    app->Start();
    IKaFileIOManager* m = nullptr;
    app->QueryInterface(IID_IKaFileIOManager, reinterpret_cast<void**>(&m));
    app->Release();
    return m;
  }
};

Folder& folder() {
  static Folder f;
  return f;
}

// Once: the modules have never been loaded in this process and there is no cache.
void BM_ColdScan(benchmark::State& state) {
  for (auto _ : state) {
    IKaFileIOManager* m = folder().start();
    DWORD n = 0;
    m->GetPluginCount(&n);
    if (n != kPlugins) state.SkipWithError("plug-ins missing");
    m->Release();
  }
}
BENCHMARK(BM_ColdScan)->Iterations(1)->Unit(benchmark::kMillisecond);

void BM_WarmStart(benchmark::State& state) {
  for (auto _ : state) {
    IKaFileIOManager* m = folder().start();
    KAFIOPLUGINENTRY e;
    m->GetPluginEntry(kPlugins - 1, &e);
    if (!e.fromCache) state.SkipWithError("not from the cache");
    m->Release();
  }
}
BENCHMARK(BM_WarmStart)->Unit(benchmark::kMillisecond);

void BM_IdentifyFileType(benchmark::State& state) {
  IKaFileIOManager* m = folder().start();
  const char* names[] = {"a.wav", "b.tst", "c.wav"};
  KAHFILE files[3];
  std::u16string paths[3];
  for (int i = 0; i < 3; ++i) {
    const std::string p = (folder().dir / names[i]).string();
    paths[i].assign(p.begin(), p.end());
    KaFile_OpenUtf8(p.c_str(), GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, 0, &files[i]);
  }
  int k = 0;
  for (auto _ : state) {
    KAFIOIDENTIFY r{sizeof r};
    benchmark::DoNotOptimize(m->IdentifyFileType(files[k], paths[k].c_str(), &r));
    k = (k + 1) % 3;
  }
  state.SetItemsProcessed(state.iterations());
  for (KAHFILE f : files) KaFile_Close(f);
  m->Release();
}
BENCHMARK(BM_IdentifyFileType);

class Meta final : public IKaReadMeta {
 public:
  STDMETHOD(QueryInterface)(REFIID riid, void** ppv) override {
    if (riid != IID_IUnknown && riid != IID_IKaReadMeta) return E_NOINTERFACE;
    *ppv = this;
    return S_OK;
  }
  STDMETHOD_(ULONG, AddRef)() override { return 2; }
  STDMETHOD_(ULONG, Release)() override { return 1; }
  STDMETHOD(GetValue)(const KAWCHAR*, KAWCHAR* buffer, DWORD) override {
    buffer[0] = 0;
    return S_FALSE;
  }
};

Meta gMeta;

IKaReadMeta* wrapOn(bool otherThread) {
  IKaReadMeta* w = nullptr;
  const auto make = [&] {
    KaFio_WrapObject(&gMeta, IID_IKaReadMeta, nullptr, 0, 0, reinterpret_cast<void**>(&w));
  };
  if (otherThread)
    std::thread(make).join();
  else
    make();
  return w;
}

void BM_CallDirect(benchmark::State& state) {
  IKaReadMeta* meta = &gMeta;
  benchmark::DoNotOptimize(meta);
  KAWCHAR buffer[8];
  for (auto _ : state) benchmark::DoNotOptimize(meta->GetValue(u"Title", buffer, 8));
}
BENCHMARK(BM_CallDirect);

void BM_CallWrapperCreatingThread(benchmark::State& state) {
  IKaReadMeta* w = wrapOn(false);
  KAWCHAR buffer[8];
  for (auto _ : state) benchmark::DoNotOptimize(w->GetValue(u"Title", buffer, 8));
  w->Release();
}
BENCHMARK(BM_CallWrapperCreatingThread);

void BM_CallWrapperOtherThread(benchmark::State& state) {
  IKaReadMeta* w = wrapOn(true);
  KAWCHAR buffer[8];
  for (auto _ : state) benchmark::DoNotOptimize(w->GetValue(u"Title", buffer, 8));
  w->Release();
}
BENCHMARK(BM_CallWrapperOtherThread);

}  // namespace

BENCHMARK_MAIN();
