// The file I/O manager with real plug-in modules (tests/plugins): the scan and its cache,
// exclusion and broken configuration, every identification pass with its log line, the
// host's own formats refused before any plug-in is asked, the block list, the
// enumerators, the file places, and identification from eight threads at once.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>

#include "ostra/kafiomgr.h"
#include "ostra/kamodule.h"
#include "ostra/kaplatform.h"
#include "platform/internal/text.h"
#include "support/test_support.h"

namespace fs = std::filesystem;
using ostra::test::TempDir;
using ostra::test::u16;

namespace {

const std::string kPlugins = OSTRA_TEST_PLUGIN_DIR;

struct Log {
  std::mutex lock;
  std::vector<std::string> lines;
  static void sink(void* context, DWORD level, const char* source, int, const char* text) {
    auto* log = static_cast<Log*>(context);
    std::lock_guard lk(log->lock);
    EXPECT_EQ(level, 4u);
    EXPECT_STREQ(source, "filemng");
    log->lines.emplace_back(text);
  }
  bool has(const std::string& line) {
    std::lock_guard lk(lock);
    for (const std::string& l : lines)
      if (l == line) return true;
    return false;
  }
  bool hasPart(const std::string& part) {
    std::lock_guard lk(lock);
    for (const std::string& l : lines)
      if (l.find(part) != std::string::npos) return true;
    return false;
  }
};

void writeText(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

long openCalls(const std::string& module) {
  HMODULE m = nullptr;
  if (FAILED(KaModule_LoadUtf8((kPlugins + "/" + module).c_str(), &m))) return -1;
  auto count = reinterpret_cast<long (*)()>(KaModule_GetSymbol(m, "TestPlugin_OpenCalls"));
  const long n = count ? count() : -1;
  KaModule_Unload(m);
  return n;
}

// A folder beside a pretend host module, its configuration naming alpha by a relative
// path (a copy in the folder) and beta, gamma, delta and a module without the entry point
// by absolute paths.
struct Host {
  TempDir dir;
  Log log;
  std::u16string module = dir.wfile("host.so");
  Host() {
    fs::copy_file(kPlugins + "/tp_alpha.so", dir.file("tp_alpha.so"));
    writeText(dir.file("test.Fio2007-Config"),
              "[FileIO Plug-Ins]\nalpha=tp_alpha.so\nbeta=" + kPlugins +
                  "/tp_beta.so\ngamma=" + kPlugins + "/tp_gamma.so\ndelta=" + kPlugins +
                  "/tp_delta.so\nbroken=" + kPlugins +
                  "/tp_broken.so\n[beta]\nSurrogate=2\nReader=Level\nLevel=7\n");
  }
  IKaFileIOManager* start(DWORD flags = KAFIO_INIT_BESIDE_MODULE,
                          std::vector<const KAWCHAR*> exclude = {}) {
    IKaFileIOMgrForApp* app = nullptr;
    EXPECT_EQ(KaFio_CreateManager(IID_IKaFileIOMgrForApp, reinterpret_cast<void**>(&app)), S_OK);
    KAFIOMGRINIT init{sizeof init,    flags,          u"ostra-test",
                      module.c_str(), exclude.data(), DWORD(exclude.size())};
    EXPECT_EQ(app->Initialize(&init), S_OK);
    app->SetLogSink(&Log::sink, &log);
    EXPECT_EQ(app->Start(), S_OK);
    IKaFileIOManager* m = nullptr;
    app->QueryInterface(IID_IKaFileIOManager, reinterpret_cast<void**>(&m));
    app->Release();
    return m;
  }
};

std::vector<std::string> names(IKaFileIOManager* m) {
  std::vector<std::string> out;
  DWORD n = 0;
  m->GetPluginCount(&n);
  for (DWORD i = 0; i < n; ++i) {
    KAFIOPLUGINENTRY e;
    m->GetPluginEntry(i, &e);
    out.push_back(ostra::text::utf16ToUtf8(e.name));
  }
  return out;
}

TEST(FileIOManager, ScanCachesReloadsExcludesAndSurvivesBrokenFiles) {
  Host host;
  const std::string alphaPath = host.dir.file("tp_alpha.so");
  IKaFileIOManager* m = host.start();
  EXPECT_EQ(names(m), (std::vector<std::string>{"alpha", "beta", "gamma", "delta"}));
  EXPECT_TRUE(
      host.log.has(" Loading reader|renderer plugin 'alpha' from path '" + alphaPath + "' "));
  EXPECT_TRUE(
      host.log.has(" Loading reader plugin 'beta' from path '" + kPlugins + "/tp_beta.so' "));
  EXPECT_TRUE(host.log.hasPart("Cannot load plugin 'broken'"));
  EXPECT_TRUE(host.log.hasPart("test.Fio2007-Config"));
  KAFIOPLUGINENTRY fresh;
  m->GetPluginEntry(1, &fresh);
  EXPECT_EQ(fresh.surrogate, 2);
  EXPECT_EQ(fresh.readerValue, 7);
  EXPECT_FALSE(fresh.fromCache);
  m->Release();

  // A warm start describes every plug-in from the cache, exactly as loading did.
  host.log.lines.clear();
  m = host.start();
  KAFIOPLUGINENTRY cached;
  m->GetPluginEntry(1, &cached);
  EXPECT_TRUE(cached.fromCache);
  EXPECT_TRUE(host.log.has(" Loading cached reader plugin 'beta' from path '" + kPlugins +
                           "/tp_beta.so' "));
  cached.fromCache = FALSE;
  EXPECT_EQ(std::memcmp(&cached, &fresh, sizeof cached), 0);
  m->Release();

  // A changed modification time loads and caches that plug-in again, and only that one.
  fs::last_write_time(alphaPath, fs::last_write_time(alphaPath) + std::chrono::seconds(5));
  host.log.lines.clear();
  m = host.start();
  EXPECT_TRUE(
      host.log.has(" Loading reader|renderer plugin 'alpha' from path '" + alphaPath + "' "));
  EXPECT_TRUE(host.log.hasPart("Loading cached reader plugin 'beta'"));
  m->Release();

  // Excluded by file name, in any case.
  m = host.start(KAFIO_INIT_BESIDE_MODULE, {u"TP_ALPHA.SO", u"tp_gamma.so"});
  EXPECT_EQ(names(m), (std::vector<std::string>{"beta", "delta"}));
  m->Release();

  // Broken configuration and cache files: reported, never a crash, the good entries kept.
  std::string junk(3000, '\0');
  for (size_t i = 0; i < junk.size(); ++i) junk[i] = char((i * 7919) ^ (i >> 3));
  writeText(host.dir.file("junk.Fio2007-Config"), junk);
  writeText(host.dir.file("zz-more.Fio2007-Config"),
            "[FileIO Plug-Ins]\nnopath=\nalpha=elsewhere.so\nmissing=nothere.so\n");
  KAWCHAR cacheName[KAFIO_MAX_PATH];
  IKaFileIOMgrForApp* app = nullptr;
  m = host.start();
  m->QueryInterface(IID_IKaFileIOMgrForApp, reinterpret_cast<void**>(&app));
  app->GetCacheFileName(cacheName, KAFIO_MAX_PATH);
  app->Release();
  m->Release();
  writeText(ostra::text::utf16ToUtf8(cacheName),
            "[beta]\nPath=" + kPlugins + "/tp_beta.so\nModTime=12x\n\xFF\xFE[[[\n");
  host.log.lines.clear();
  m = host.start();
  EXPECT_EQ(names(m), (std::vector<std::string>{"alpha", "beta", "gamma", "delta"}));
  EXPECT_TRUE(host.log.hasPart("'nopath' has no path"));
  EXPECT_TRUE(host.log.hasPart("'alpha' is named twice"));
  EXPECT_TRUE(host.log.hasPart("Cannot load plugin 'missing'"));
  EXPECT_TRUE(host.log.hasPart(" Loading reader plugin 'beta'"));  // the bad stamp is not trusted
  m->Release();

  // No configuration folder at all: an empty list, not a failure.
  Host nowhere;
  nowhere.module = u16(nowhere.dir.file("gone/host.so"));
  m = nowhere.start();
  EXPECT_TRUE(names(m).empty());
  m->Release();
}

std::string riff(const char* form, const std::string& body) {
  return std::string("RIFF\x24\0\0\0", 8) + form + body;
}

TEST(FileIOManager, IdentificationPassesAndResults) {
  Host host;
  IKaFileIOManager* m = host.start();
  const std::string w64Host =
      std::string("riff\x2E\x91\xCF\x11\xA5\xD6\x28\xDB\x04\xC1\0\0", 16) + std::string(8, '\0') +
      std::string("\xEF\x29\xC4\x46\x4A\x90\xD2\x11\x87\x22\x00\xC0\x4F\x8E\xDB\x8A", 16) +
      "open:*";
  struct Case {
    const char* file;
    std::string bytes;
    HRESULT result;
    const char* plugin;  // null: none
    DWORD pass;
    const char* logLine;  // with %s for the path
  } cases[] = {
      {"a.wav", riff("WAVE", "fmt open:alpha"), S_OK, "alpha", KAFIO_PASS_SIGNATURE,
       " IdentifyFileType: 'alpha' Plugin found from file signature for %s"},
      {"b.tst", "hello open:beta", S_OK, "beta", KAFIO_PASS_EXTENSION,
       " IdentifyFileType: 'beta' Plugin found from file extension for %s"},
      // delta fails (not a decline), then the reader of the previous file reads it.
      {"c.dlt", "xx open:beta", S_OK, "beta", KAFIO_PASS_LAST_USED,
       " IdentifyFileType: 'beta' Plugin found from last used reader for %s"},
      {"d.bin", "data open:gamma", S_OK, "gamma", KAFIO_PASS_LIST,
       " IdentifyFileType: 'gamma' Plugin found from going through the list for %s"},
      // Everyone declines but delta, whose failure is the result.
      {"e.bin", "nobody's", HRESULT(0x80070005), nullptr, KAFIO_PASS_NONE,
       "No Plugin Found through IdentifyFileType Session"},
      // Under 12 bytes the host-format check is skipped.
      {"f.tst", "MThdopen:*", S_OK, "alpha", KAFIO_PASS_EXTENSION, nullptr},
      {"g.tst", std::string("MThd\0\0\0\x06open:*", 14), KAERR_FIO_HOST_FORMAT, nullptr,
       KAFIO_PASS_NONE, nullptr},
      {"h.wav", riff("ACID", "open:*"), KAERR_FIO_HOST_FORMAT, nullptr, KAFIO_PASS_NONE, nullptr},
      {"i.wav", riff("KAPJ", "open:*"), KAERR_FIO_HOST_FORMAT, nullptr, KAFIO_PASS_NONE, nullptr},
      {"j.tst", "KAPKopen:*......", KAERR_FIO_HOST_FORMAT, nullptr, KAFIO_PASS_NONE, nullptr},
      {"k.w64", w64Host, KAERR_FIO_HOST_FORMAT, nullptr, KAFIO_PASS_NONE, nullptr},
      // A Wave64 file of another form is not the host's.
      {"l.w64", w64Host.substr(0, 24) + std::string(16, 'w') + "open:*", S_OK, "alpha",
       KAFIO_PASS_LAST_USED, nullptr},
  };
  const char* modules[] = {"tp_beta.so", "tp_gamma.so", "tp_delta.so"};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    const std::string path = host.dir.file(c.file);
    writeText(path, c.bytes);
    long before = 0;
    for (const char* mod : modules) before += openCalls(mod);
    KAHFILE file;
    ASSERT_EQ(KaFile_OpenUtf8(path.c_str(), GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, 0, &file),
              S_OK);
    KaFile_Seek(file, 3, FILE_BEGIN, nullptr);
    KAFIOIDENTIFY r{sizeof r};
    EXPECT_EQ(m->IdentifyFileType(file, u16(path).c_str(), &r), c.result);
    INT64 position = 0;
    KaFile_GetPosition(file, &position);
    EXPECT_EQ(position, 3);  // the caller's position is kept
    KaFile_Close(file);
    EXPECT_EQ(r.pass, c.pass);
    if (c.plugin) {
      ASSERT_GE(r.plugin, 0);
      EXPECT_EQ(names(m)[size_t(r.plugin)], c.plugin);
    } else {
      EXPECT_EQ(r.plugin, -1);
    }
    if (c.logLine) {
      char line[600];
      std::snprintf(line, sizeof line, c.logLine, path.c_str());
      EXPECT_TRUE(host.log.has(line)) << line;
    }
    if (c.result == KAERR_FIO_HOST_FORMAT) {
      long after = 0;
      for (const char* mod : modules) after += openCalls(mod);
      EXPECT_EQ(after, before) << "a plug-in was asked about a host format";
    }
  }

  // The slow path has no host-format check and no signature pass, and its own lines.
  struct Slow {
    const char* file;
    HRESULT result;
    const char* logLine;
  } slow[] = {
      {"b.tst", S_OK, " IdentifyFileTypeSlow: 'beta' Plugin found from file extension for %s"},
      {"h.wav", S_OK, "IdentifyFileTypeSlow:'beta' plugin found from the last used reader"},
      {"d.bin", S_OK, "IdentifyFileTypeSlow:'gamma' plugin found from going through the list"},
      {"f.tst", S_OK, " IdentifyFileTypeSlow: 'alpha' Plugin found from file extension for %s"},
      {"c.dlt", S_OK, "IdentifyFileTypeSlow:'alpha' plugin found from the last used reader"},
      {"e.bin", HRESULT(0x80070005), "No plugin(s) found though IdentifyFiletypeSlow Session"},
  };
  writeText(host.dir.file("c.dlt"), "open:alpha");
  for (const Slow& s : slow) {
    SCOPED_TRACE(s.file);
    const std::string path = host.dir.file(s.file);
    KAHFILE file;
    ASSERT_EQ(KaFile_OpenUtf8(path.c_str(), GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, 0, &file),
              S_OK);
    EXPECT_EQ(m->IdentifyFileTypeSlow(file, u16(path).c_str(), nullptr), s.result);
    KaFile_Close(file);
    char line[600];
    std::snprintf(line, sizeof line, s.logLine, path.c_str());
    EXPECT_TRUE(host.log.has(line)) << line;
  }

  // Verbosity 0 writes nothing.
  KaFio_SetMetric(KAFIO_METRIC_LOG_VERBOSITY, 0);
  host.log.lines.clear();
  KAHFILE file;
  KaFile_OpenUtf8(host.dir.file("b.tst").c_str(), GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, 0,
                  &file);
  EXPECT_EQ(m->IdentifyFileType(file, host.dir.wfile("b.tst").c_str(), nullptr), S_OK);
  KaFile_Close(file);
  EXPECT_TRUE(host.log.lines.empty());
  KaFio_ResetMetrics();
  m->Release();
}

TEST(FileIOManager, BlockListAndMetadata) {
  Host host;
  IKaFileIOManager* m = host.start();
  const std::string mp4 = std::string(
                              "\0\0\0\x18"
                              "ftypisom\0\0\0\0isom",
                              20) +
                          "open:*";
  writeText(host.dir.file("clip.mp4"), mp4);
  writeText(host.dir.file("for_compoundplug_only.mp4"), mp4);
  const auto identify = [&](const char* name, KAFIOIDENTIFY* r) {
    KAHFILE file;
    KaFile_OpenUtf8(host.dir.file(name).c_str(), GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, 0,
                    &file);
    *r = {sizeof *r};
    const HRESULT hr = m->IdentifyFileType(file, host.dir.wfile(name).c_str(), r);
    KaFile_Close(file);
    return hr;
  };
  KAFIOIDENTIFY r;
  // Without the block list the compound reader (gamma) is first for MPEG-4, and the
  // metadata fields come from it.
  ASSERT_EQ(identify("clip.mp4", &r), S_OK);
  EXPECT_EQ(r.formatId, 4105u);
  EXPECT_EQ(names(m)[size_t(r.plugin)], "gamma");
  EXPECT_TRUE(r.metaRead);
  EXPECT_EQ(std::u16string(r.meta[0]), u"gamma");

  writeText(host.dir.file("mv8_blacklist_rz15.xml"),
            "<?xml version='1.0'?>\n<bypass-list>\n"
            "  <bypass plugin='{6A2F6C11-0005-4C52-9B6A-0F1E2D3C4B00}' extensions='mp4;mov'/>\n"
            "</bypass-list>\n");
  KaFio_SetMetric(KAFIO_METRIC_BLOCK_LIST, 1);
  KaFio_SetMetric(KAFIO_METRIC_LOG_VERBOSITY, 2);
  ASSERT_EQ(identify("clip.mp4", &r), S_OK);
  EXPECT_EQ(names(m)[size_t(r.plugin)], "alpha");
  EXPECT_EQ(std::u16string(r.meta[0]), u"alpha");
  EXPECT_TRUE(host.log.has(" IdentifyFileType: mv8compound is bypassed:'" +
                           host.dir.file("clip.mp4") +
                           "', 'gamma' Plugin examined, status: Yes-Internal Pref"));
  KaFio_SetMetric(KAFIO_METRIC_REPORT_BLOCKED, 1);
  ASSERT_EQ(identify("clip.mp4", &r), S_OK);
  EXPECT_TRUE(host.log.hasPart("'gamma' Plugin examined, status: Yes-Blacklisted"));
  // The file kept for examining the compound reader alone is never bypassed.
  ASSERT_EQ(identify("for_compoundplug_only.mp4", &r), S_OK);
  EXPECT_EQ(names(m)[size_t(r.plugin)], "gamma");
  // Without the metadata setting the fields are left alone.
  KaFio_SetMetric(KAFIO_METRIC_READ_META, 0);
  ASSERT_EQ(identify("for_compoundplug_only.mp4", &r), S_OK);
  EXPECT_FALSE(r.metaRead);
  m->Release();

  // A hostile block list is reported with its file and cause, and ignored.
  struct Bad {
    const char* xml;
    const char* cause;
  } bad[] = {
      {"<!DOCTYPE x [<!ENTITY a 'aaaa'>]><bypass-list/>", "document type declaration"},
      {"<bypass-list><bypass plugin='{nope}'/></bypass-list>", "is not a class id"},
      {"<bypass-list><bypass/></bypass-list>", "names neither a plugin nor a module"},
      {"<bypass-list><bypass module='a.so'>", "at line 1"},
      {"<other/>", "root element"},
  };
  for (const Bad& b : bad) {
    SCOPED_TRACE(b.xml);
    writeText(host.dir.file("mv8_blacklist_rz15.xml"), b.xml);
    host.log.lines.clear();
    m = host.start();
    ASSERT_EQ(identify("clip.mp4", &r), S_OK);
    EXPECT_EQ(names(m)[size_t(r.plugin)], "gamma");
    EXPECT_TRUE(
        host.log.hasPart("Block list '" + host.dir.file("mv8_blacklist_rz15.xml") + "' ignored: "));
    EXPECT_TRUE(host.log.hasPart(b.cause));
    m->Release();
  }
  KaFio_ResetMetrics();
}

TEST(FileIOManager, EnumeratorsClassesAndSlots) {
  Host host;
  IKaFileIOManager* m = host.start();
  IKaFIOPluginEnum* plugins = nullptr;
  ASSERT_EQ(m->EnumPlugins(&plugins), S_OK);
  KAFIOPLUGINENTRY entries[8];
  ULONG got = 0;
  EXPECT_EQ(plugins->Next(8, entries, &got), S_FALSE);
  EXPECT_EQ(got, 4u);
  IKaFIOPluginEnum* clone = nullptr;
  plugins->Reset();
  plugins->Skip(3);
  plugins->Clone(&clone);
  EXPECT_EQ(clone->Next(1, entries, &got), S_OK);
  EXPECT_EQ(std::u16string(entries[0].name), u"delta");
  clone->Release();
  plugins->Release();

  IKaReaderEnum* readers = nullptr;
  ASSERT_EQ(m->EnumReaders(&readers), S_OK);
  IKaReadFileClass* classes[8] = {};
  EXPECT_EQ(readers->Next(8, classes, &got), S_FALSE);
  ASSERT_EQ(got, 4u);
  for (ULONG i = 0; i < got; ++i) {
    IKaOutOfProcObj* wrapped = nullptr;  // every class comes wrapped
    EXPECT_EQ(classes[i]->QueryInterface(IID_IKaOutOfProcObj, reinterpret_cast<void**>(&wrapped)),
              S_OK);
    if (wrapped) wrapped->Release();
    classes[i]->Release();
  }
  readers->Release();

  IKaRendererEnum* renderers = nullptr;
  ASSERT_EQ(m->EnumRenderers(&renderers), S_OK);
  IKaRenderFileClass* renderer = nullptr;
  EXPECT_EQ(renderers->Next(1, &renderer, nullptr), S_OK);
  KAWCHAR name[32];
  renderer->GetName(name, 32);
  EXPECT_EQ(std::u16string(name), u"alpha");
  renderer->Release();
  EXPECT_EQ(renderers->Next(1, &renderer, nullptr), S_FALSE);
  renderers->Release();

  IKaFileIOTypeEnum* types = nullptr;
  ASSERT_EQ(m->EnumFileTypes(&types), S_OK);
  KAFIOFILETYPE t[16];
  types->Next(16, t, &got);
  std::vector<std::string> seen;
  for (ULONG i = 0; i < got; ++i)
    seen.push_back(names(m)[t[i].plugin] + ":" + ostra::text::utf16ToUtf8(t[i].extension) +
                   (t[i].reader ? "r" : "") + (t[i].renderer ? "w" : ""));
  EXPECT_EQ(seen, (std::vector<std::string>{"alpha:tstrw", "alpha:alprw", "beta:tstr", "beta:betr",
                                            "gamma:mp4r", "delta:dltr"}));
  types->Release();

  IKaReadFile* reader = nullptr;
  LONG plugin = -1;
  writeText(host.dir.file("r.bin"), "open:beta");
  EXPECT_EQ(m->CreateReaderForPath(host.dir.wfile("r.bin").c_str(), 0, &reader, &plugin), S_OK);
  EXPECT_EQ(plugin, 1);
  IKaOutOfProcObj* wrapped = nullptr;
  EXPECT_EQ(reader->QueryInterface(IID_IKaOutOfProcObj, reinterpret_cast<void**>(&wrapped)), S_OK);
  wrapped->Release();
  reader->Release();

  // IdentifyFileType sits in slot 35 (a virtual member pointer holds 1 + the slot's offset).
  auto slot = &IKaFileIOManager::IdentifyFileType;
  ptrdiff_t raw;
  std::memcpy(&raw, &slot, sizeof raw);
  EXPECT_EQ((raw - 1) / ptrdiff_t(sizeof(void*)), 35);
  EXPECT_EQ(m->Reserved20(), E_NOTIMPL);
  m->Release();
}

// Identification from eight threads at once over one manager: every thread gets the
// answer of the signature and extension passes, whatever the others do.
TEST(FileIOManager, IdentifiesFromEightThreads) {
  Host host;
  IKaFileIOManager* m = host.start();
  writeText(host.dir.file("s.wav"), riff("WAVE", "open:alpha"));
  writeText(host.dir.file("t.bet"), "open:beta");
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t)
    threads.emplace_back([&, t] {
      for (int k = 0; k < 20; ++k) {
        const char* name = (t + k) % 2 ? "s.wav" : "t.bet";
        KAHFILE file;
        KaFile_OpenUtf8(host.dir.file(name).c_str(), GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING,
                        0, &file);
        KAFIOIDENTIFY r{sizeof r};
        const HRESULT hr = m->IdentifyFileType(file, host.dir.wfile(name).c_str(), &r);
        KaFile_Close(file);
        if (hr != S_OK || r.plugin != ((t + k) % 2 ? 0 : 1)) ++wrong;
      }
    });
  for (std::thread& th : threads) th.join();
  EXPECT_EQ(wrong, 0);
  m->Release();
}

// The cache and metrics files: the user's XDG folders under the host's sub-path; beside the
// module when asked (flag 0x40) or when the folders cannot be made, and then for good.
TEST(FileIOManager, CacheAndMetricsFilePlaces) {
  TempDir dir;
  const auto fileNames = [&](DWORD flags, std::string* cache, std::string* metrics,
                             BOOL* fallback) {
    IKaFileIOMgrForApp* app = nullptr;
    KaFio_CreateManager(IID_IKaFileIOMgrForApp, reinterpret_cast<void**>(&app));
    const std::u16string module = dir.wfile("lib/host.so");
    KAFIOMGRINIT init{sizeof init, flags, u"Vendor/Host", module.c_str(), nullptr, 0};
    ASSERT_EQ(app->Initialize(&init), S_OK);
    EXPECT_EQ(app->Initialize(&init), E_UNEXPECTED);
    KAWCHAR buffer[KAFIO_MAX_PATH];
    app->GetCacheFileName(buffer, KAFIO_MAX_PATH);
    *cache = ostra::text::utf16ToUtf8(buffer);
    app->GetMetricsFileName(buffer, KAFIO_MAX_PATH);
    *metrics = ostra::text::utf16ToUtf8(buffer);
    app->IsUsingFallbackFiles(fallback);
    app->Release();
  };
  const std::string lcid = std::to_string(KaGetSystemDefaultLCID());
  const char* oldCache = std::getenv("XDG_CACHE_HOME");
  const char* oldConfig = std::getenv("XDG_CONFIG_HOME");
  const std::string keepCache = oldCache ? oldCache : "", keepConfig = oldConfig ? oldConfig : "";
  setenv("XDG_CACHE_HOME", dir.file("cache").c_str(), 1);
  setenv("XDG_CONFIG_HOME", dir.file("config").c_str(), 1);
  fs::create_directories(dir.file("config/Vendor/Host"));
  writeText(dir.file("config/Vendor/Host/FFMetrics_x64.ini"), "[Metrics]\n14=0\n83=2\n");
  std::string cache, metrics;
  BOOL fallback = TRUE;
  fileNames(0, &cache, &metrics, &fallback);
  EXPECT_EQ(cache, dir.file("cache/Vendor/Host/FFCache_x64_" + lcid + ".ini"));
  EXPECT_EQ(metrics, dir.file("config/Vendor/Host/FFMetrics_x64.ini"));
  EXPECT_FALSE(fallback);
  EXPECT_TRUE(fs::is_directory(dir.file("cache/Vendor/Host")));
  EXPECT_EQ(KaFio_GetMetric(KAFIO_METRIC_READ_META), 0);
  EXPECT_EQ(KaFio_GetMetric(KAFIO_METRIC_LOG_VERBOSITY), 2);
  EXPECT_EQ(KaFio_GetMetric(KAFIO_METRIC_LIST_PASS), 1);  // the default

  fileNames(KAFIO_INIT_BESIDE_MODULE, &cache, &metrics, &fallback);
  EXPECT_EQ(cache, dir.file("lib/host.so FFCache_x64_" + lcid + ".ini"));
  EXPECT_EQ(metrics, dir.file("lib/host.so FFMetrics_x64.ini"));
  EXPECT_TRUE(fallback);

  // A cache folder that cannot be made (a file is in the way): the fallback, remembered.
  writeText(dir.file("blocked"), "x");
  setenv("XDG_CACHE_HOME", dir.file("blocked").c_str(), 1);
  fileNames(0, &cache, &metrics, &fallback);
  EXPECT_TRUE(fallback);
  EXPECT_EQ(cache, dir.file("lib/host.so FFCache_x64_" + lcid + ".ini"));
  setenv("XDG_CACHE_HOME", dir.file("cache").c_str(), 1);
  fileNames(0, &cache, &metrics, &fallback);
  EXPECT_TRUE(fallback);

  if (oldCache)
    setenv("XDG_CACHE_HOME", keepCache.c_str(), 1);
  else
    unsetenv("XDG_CACHE_HOME");
  if (oldConfig)
    setenv("XDG_CONFIG_HOME", keepConfig.c_str(), 1);
  else
    unsetenv("XDG_CONFIG_HOME");
}

}  // namespace
