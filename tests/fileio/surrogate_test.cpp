// Plug-ins in a surrogate process: the same interfaces and wrappers as in process, samples
// carried through shared memory, and isolation. A plug-in that crashes in Open, one that
// aborts in Read and one that hangs in Open each cost one failed call with a code that
// says what happened; the host goes on, the surrogate is started again for the next
// call, the block list remembers each plug-in with its call and reason, a second start
// passes over them, and touching a plug-in's file or unblocking it gives it another try.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>

#include "ostra/kaerror.h"
#include "ostra/kafiomgr.h"
#include "ostra/kaplatform.h"
#include "ostra/kathread.h"
#include "platform/internal/text.h"
#include "support/test_support.h"

namespace fs = std::filesystem;
using ostra::test::TempDir;

namespace {

const std::string kPlugins = OSTRA_TEST_PLUGIN_DIR;

struct Log {
  std::mutex lock;
  std::vector<std::string> lines;
  static void sink(void* context, DWORD, const char*, int, const char* text) {
    auto* log = static_cast<Log*>(context);
    std::lock_guard lk(log->lock);
    log->lines.emplace_back(text);
  }
  int count(const std::string& part) {
    std::lock_guard lk(lock);
    int n = 0;
    for (const std::string& l : lines) n += l.find(part) != std::string::npos;
    return n;
  }
};

// A host folder whose configuration puts the four test plug-ins of extension "bad" in
// surrogate 0 (copies, so that a test can touch them).
struct SurrogateHost {
  TempDir dir;
  Log log;
  std::u16string module = dir.wfile("host.so");
  std::string media = dir.file("clip.bad");
  SurrogateHost() {
    std::string config = "[FileIO Plug-Ins]\n";
    for (const char* p : {"crasher", "aborter", "hanger", "steady"}) {
      fs::copy_file(kPlugins + "/tp_" + std::string(p) + ".so",
                    dir.file("tp_" + std::string(p) + ".so"));
      config += std::string(p) + "=tp_" + p + ".so\n";
    }
    for (const char* p : {"crasher", "aborter", "hanger", "steady"})
      config += "[" + std::string(p) + "]\nSurrogate=0\n";
    std::ofstream(dir.file("test.Fio2007-Config")) << config;
    std::ofstream(media) << "open:*";
    KaFio_SetMetric(KAFIO_METRIC_SURROGATE_TIMEOUT, 5000);
  }
  ~SurrogateHost() { KaFio_ResetMetrics(); }
  IKaFileIOManager* start() {
    IKaFileIOMgrForApp* app = nullptr;
    EXPECT_EQ(KaFio_CreateManager(IID_IKaFileIOMgrForApp, reinterpret_cast<void**>(&app)), S_OK);
    KAFIOMGRINIT init{
        sizeof init, KAFIO_INIT_BESIDE_MODULE, u"ostra-test", module.c_str(), nullptr, 0};
    EXPECT_EQ(app->Initialize(&init), S_OK);
    app->SetLogSink(&Log::sink, &log);
    EXPECT_EQ(app->Start(), S_OK);
    IKaFileIOManager* m = nullptr;
    app->QueryInterface(IID_IKaFileIOManager, reinterpret_cast<void**>(&m));
    app->Release();
    return m;
  }
  HRESULT open(IKaFileIOManager* m, IKaReadFile** reader, std::string* plugin) {
    LONG index = -1;
    const HRESULT hr = m->CreateReaderForPath(ostra::test::u16(media).c_str(), 0, reader, &index);
    if (SUCCEEDED(hr)) {
      KAFIOPLUGINENTRY e;
      m->GetPluginEntry(DWORD(index), &e);
      *plugin = ostra::text::utf16ToUtf8(e.name);
    }
    return hr;
  }
};

std::vector<std::pair<std::string, std::string>> blocked(IKaFileIOManager* m) {
  std::vector<std::pair<std::string, std::string>> out;
  KAFIOBLOCKED b;
  for (DWORD i = 0; m->GetBlockedPlugin(i, &b) == S_OK; ++i)
    out.emplace_back(ostra::text::utf16ToUtf8(b.name), std::string(b.call) + " " + b.reason);
  return out;
}

HRESULT readFirst(IKaReadFile* reader, std::vector<int16_t>& samples) {
  IKaReadAudioStream* a = nullptr;
  HRESULT hr = reader->GetStream(0, IID_IKaReadAudioStream, reinterpret_cast<void**>(&a));
  if (FAILED(hr)) return hr;
  DWORD got = 0;
  hr = a->Read(40000, samples.data(), DWORD(samples.size()), &got);
  a->Release();
  if (SUCCEEDED(hr) && got != samples.size()) hr = E_FAIL;
  return hr;
}

TEST(Surrogate, CrashAbortAndHangCostOneCallEachAndAreRemembered) {
  SurrogateHost host;
  IKaFileIOManager* m = host.start();
  ASSERT_NE(m, nullptr);
  // No surrogate runs until a plug-in of it is used... the cold scan described them there.
  EXPECT_EQ(host.log.count("Started surrogate 0"), 1);

  // The crasher is asked first and takes the surrogate down in Open; identification goes
  // on in a new surrogate and the aborter opens the file.
  IKaReadFile* reader = nullptr;
  std::string plugin;
  ASSERT_EQ(host.open(m, &reader, &plugin), S_OK);
  EXPECT_EQ(plugin, "aborter");
  EXPECT_EQ(host.log.count("plugin 'crasher' crashed in Open"), 1);
  IKaOutOfProcObj* where = nullptr;
  ASSERT_EQ(reader->QueryInterface(IID_IKaOutOfProcObj, reinterpret_cast<void**>(&where)), S_OK);
  BOOL out = FALSE;
  LONG index = -1;
  EXPECT_EQ(where->IsOutOfProcess(&out, &index), S_OK);
  EXPECT_TRUE(out);
  EXPECT_EQ(index, 0);
  where->Release();
  // The aborter aborts in Read: one failed call, and the reader's process is gone.
  std::vector<int16_t> samples(4096);
  EXPECT_EQ(readFirst(reader, samples), KAERR_FIO_PLUGIN_ABORTED);
  DWORD count = 0;
  EXPECT_EQ(reader->GetStreamCount(&count), KAERR_FIO_SURROGATE_GONE);
  reader->Release();

  // Next: both are passed over, the hanger hangs in Open until the time-out, the steady
  // plug-in reads the file in a fresh surrogate, and its samples arrive intact.
  ASSERT_EQ(host.open(m, &reader, &plugin), S_OK);
  EXPECT_EQ(plugin, "steady");
  EXPECT_EQ(host.log.count("plugin 'hanger' hung in Open"), 1);
  EXPECT_EQ(host.log.count(" IdentifyFileType: mv8compound is bypassed:'" + host.media +
                           "', 'crasher' Plugin examined, status: Yes-Blacklisted"),
            1);
  ASSERT_EQ(readFirst(reader, samples), S_OK);
  for (size_t i = 0; i < samples.size(); ++i) ASSERT_EQ(samples[i], int16_t((40000 + i) & 0x7FFF));
  reader->Release();
  const std::vector<std::pair<std::string, std::string>> expected = {
      {"crasher", "Open crashed"}, {"aborter", "Read aborted"}, {"hanger", "Open hung"}};
  EXPECT_EQ(blocked(m), expected);
  m->Release();

  // A second start remembers them: none is asked, the steady plug-in answers at once.
  host.log.lines.clear();
  m = host.start();
  EXPECT_EQ(host.log.count("Loading cached reader plugin"), 4);
  EXPECT_EQ(host.log.count("Started surrogate 0"), 0);  // a warm start starts no surrogate
  EXPECT_EQ(blocked(m), expected);
  ASSERT_EQ(host.open(m, &reader, &plugin), S_OK);
  EXPECT_EQ(plugin, "steady");
  EXPECT_EQ(host.log.count("Plugin examined, status: Yes-Blacklisted"), 3);
  EXPECT_EQ(host.log.count("lost"), 0);
  reader->Release();

  // A new build of the aborter (its file changed) gets another chance; the others are
  // unblocked by name and all at once.
  const fs::path aborter = host.dir.file("tp_aborter.so");
  fs::last_write_time(aborter, fs::last_write_time(aborter) + std::chrono::seconds(5));
  host.log.lines.clear();
  ASSERT_EQ(host.open(m, &reader, &plugin), S_OK);
  EXPECT_EQ(plugin, "aborter");
  EXPECT_EQ(host.log.count("Plugin examined, status: Yes-Blacklisted"), 1);  // the crasher
  reader->Release();
  EXPECT_EQ(blocked(m), (std::vector<std::pair<std::string, std::string>>{
                            {"crasher", "Open crashed"}, {"hanger", "Open hung"}}));
  EXPECT_EQ(m->UnblockPlugin(u"crasher"), S_OK);
  EXPECT_EQ(m->UnblockPlugin(u"crasher"), KAERR_NOT_FOUND);
  EXPECT_EQ(blocked(m),
            (std::vector<std::pair<std::string, std::string>>{{"hanger", "Open hung"}}));
  EXPECT_EQ(m->UnblockPlugin(nullptr), S_OK);
  EXPECT_TRUE(blocked(m).empty());
  m->Release();
}

TEST(Surrogate, StartsOnceAndCarriesCallsOfManyThreads) {
  SurrogateHost host;
  // Only the steady plug-in: a fresh folder configuration naming it alone.
  std::ofstream(host.dir.file("test.Fio2007-Config"))
      << "[FileIO Plug-Ins]\nsteady=tp_steady.so\n[steady]\nSurrogate=0\n";
  IKaFileIOManager* m = host.start();
  HANDLE process = nullptr, thread = nullptr;
  EXPECT_EQ(m->StartSurrogate(0, &process, &thread), S_FALSE);  // the scan started it
  EXPECT_NE(process, nullptr);
  EXPECT_EQ(thread, nullptr);
  EXPECT_EQ(m->StartSurrogate(-1, &process, &thread), E_INVALIDARG);
  IKaReadFile* reader = nullptr;
  std::string plugin;
  ASSERT_EQ(host.open(m, &reader, &plugin), S_OK);
  IKaReadAudioStream* audio = nullptr;
  ASSERT_EQ(reader->GetStream(0, IID_IKaReadAudioStream, reinterpret_cast<void**>(&audio)), S_OK);
  // Four threads read different regions at once through the one wrapper.
  std::vector<std::thread> threads;
  std::atomic<int> wrong{0};
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      std::vector<int16_t> buf(65536);
      for (int k = 0; k < 20; ++k) {
        const UINT64 at = UINT64(t) * 1000003 + UINT64(k) * 77777;
        DWORD got = 0;
        if (FAILED(audio->Read(at, buf.data(), DWORD(buf.size()), &got)) || got != buf.size()) {
          ++wrong;
          continue;
        }
        for (DWORD i = 0; i < got; i += 997)
          if (buf[i] != int16_t((at + i) & 0x7FFF)) ++wrong;
      }
    });
  for (auto& th : threads) th.join();
  EXPECT_EQ(wrong, 0);
  audio->Release();
  reader->Release();
  EXPECT_EQ(host.log.count("Started surrogate 0"), 1);
  m->Release();
}

}  // namespace
