// The bundled plug-in through the manager: files written by its renderer (found by
// extension) read back by the library's own wave reading byte for byte, and the same
// samples read through its reader (found by identification) at any position, from one
// thread and from several; AIFF samples come out little-endian.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <latch>
#include <thread>
#include <vector>

#include "ostra/kaerror.h"
#include "ostra/kafiomgr.h"
#include "ostra/kaplatform.h"
#include "ostra/kawave.h"
#include "platform/internal/text.h"
#include "support/test_support.h"

using ostra::test::TempDir;
using ostra::test::u16;

namespace {

// A pretend host whose configuration names the bundled plug-in of this build.
struct Bundled {
  TempDir dir;
  IKaFileIOManager* m = nullptr;
  Bundled() {
    std::ofstream(dir.file("bundled.Fio2007-Config"))
        << "[FileIO Plug-Ins]\nkernelformats=" OSTRA_BINARY_DIR "/ostra-plugins/kernelformats.so\n";
    const std::u16string module = dir.wfile("host.so");
    IKaFileIOMgrForApp* app = nullptr;
    EXPECT_EQ(KaFio_CreateManager(IID_IKaFileIOMgrForApp, reinterpret_cast<void**>(&app)), S_OK);
    KAFIOMGRINIT init{
        sizeof init, KAFIO_INIT_BESIDE_MODULE, u"ostra-test", module.c_str(), nullptr, 0};
    EXPECT_EQ(app->Initialize(&init), S_OK);
    EXPECT_EQ(app->Start(), S_OK);
    app->QueryInterface(IID_IKaFileIOManager, reinterpret_cast<void**>(&m));
    app->Release();
  }
  ~Bundled() { m->Release(); }
};

std::vector<uint8_t> noise(size_t n, uint32_t seed) {
  std::vector<uint8_t> b(n);
  for (uint8_t& x : b) {
    seed = seed * 1664525u + 1013904223u;
    x = uint8_t(seed >> 24);
  }
  return b;
}

// The library's own reading: where the samples lie, then the bytes as stored.
std::vector<uint8_t> libraryBytes(const std::string& path, _kawaveformat* wfx) {
  const std::u16string p = u16(path);
  EXPECT_EQ(KaGetFileWfx(p.c_str(), wfx, sizeof *wfx), S_OK);
  tKAAUDIODATA data{};
  EXPECT_EQ(KaGetFileAudioData(p.c_str(), &data), S_OK);
  const std::vector<uint8_t> all = ostra::test::readFile(path);
  if (data.offset + data.size > all.size()) return {};
  return {all.begin() + long(data.offset), all.begin() + long(data.offset + data.size)};
}

IKaReadAudioStream* openAudio(IKaFileIOManager* m, const std::string& path, IKaReadFile** reader) {
  LONG plugin = -1;
  EXPECT_EQ(m->CreateReaderForPath(u16(path).c_str(), 0, reader, &plugin), S_OK);
  EXPECT_EQ(plugin, 0);
  if (!*reader) return nullptr;
  DWORD streams = 0;
  EXPECT_EQ((*reader)->GetStreamCount(&streams), S_OK);
  EXPECT_EQ(streams, 1u);
  IKaReadAudioStream* audio = nullptr;
  EXPECT_EQ((*reader)->GetStream(0, IID_IKaReadAudioStream, reinterpret_cast<void**>(&audio)),
            S_OK);
  return audio;
}

// Reads at positions an editor uses: the start, the middle, across and past the end.
void expectReadsMatch(IKaReadAudioStream* audio, const std::vector<uint8_t>& want, DWORD block) {
  const UINT64 frames = want.size() / block;
  const struct {
    UINT64 position;
    DWORD count;
  } reads[] = {{0, DWORD(frames)}, {123, 50},         {frames - 3, 10},
               {frames, 5},        {frames + 100, 1}, {~UINT64(0) / 2, 7}};
  for (const auto& r : reads) {
    SCOPED_TRACE(r.position);
    std::vector<uint8_t> got(size_t(r.count) * block, 0xCD);
    DWORD n = 99;
    ASSERT_EQ(audio->Read(r.position, got.data(), r.count, &n), S_OK);
    const UINT64 expect = r.position < frames ? std::min<UINT64>(r.count, frames - r.position) : 0;
    ASSERT_EQ(n, expect);
    EXPECT_TRUE(std::equal(got.begin(), got.begin() + long(n * block),
                           want.begin() + long(r.position * block * (n ? 1 : 0))));
  }
}

TEST(BundledPlugin, RendererWritesWhatLibraryAndReaderReadBack) {
  Bundled host;
  const struct {
    const char* ext;
    KASAMPLETYPE type;
    WORD channels;
    DWORD rate;
    DWORD frames;
  } cases[] = {
      {"wav", KASAMPLE_PCM16, 2, 44100, 1001},  {"wav", KASAMPLE_PCM24, 1, 48000, 777},
      {"wav", KASAMPLE_FLOAT32, 6, 96000, 500}, {"wav", KASAMPLE_PCM8, 1, 8000, 333},
      {"w64", KASAMPLE_PCM32, 2, 48000, 1000},  {"w64", KASAMPLE_FLOAT64, 2, 192000, 257},
  };
  int i = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.ext << " type " << c.type);
    _kawaveformat wfx;
    wfx.Init(c.rate, c.type, c.channels, 0, sizeof wfx);
    const std::vector<uint8_t> source = noise(size_t(c.frames) * wfx.nBlockAlign, 77u + i);
    const std::string path = host.dir.file("out" + std::to_string(i++) + "." + c.ext);

    IKaRenderFile* renderer = nullptr;
    LONG plugin = -1;
    ASSERT_EQ(host.m->CreateRendererForExtension(u16(c.ext).c_str(), &renderer, &plugin), S_OK);
    EXPECT_EQ(plugin, 0);
    ASSERT_EQ(renderer->Create(u16(path).c_str(), &wfx, 0), S_OK);
    for (DWORD at = 0; at < c.frames; at += 97) {
      const DWORD n = std::min<DWORD>(97, c.frames - at);
      ASSERT_EQ(renderer->WriteAudio(source.data() + size_t(at) * wfx.nBlockAlign, n), S_OK);
    }
    ASSERT_EQ(renderer->Finish(), S_OK);
    renderer->Release();

    _kawaveformat stored;
    EXPECT_EQ(libraryBytes(path, &stored), source);
    EXPECT_EQ(stored.SampleType, c.type);
    EXPECT_EQ(stored.nChannels, c.channels);
    EXPECT_EQ(stored.nSamplesPerSec, c.rate);

    IKaReadFile* reader = nullptr;
    IKaReadAudioStream* audio = openAudio(host.m, path, &reader);
    ASSERT_NE(audio, nullptr);
    _kawaveformat given;
    ASSERT_EQ(audio->GetFormat(&given, sizeof given), S_OK);
    EXPECT_EQ(given.SampleType, c.type);
    EXPECT_EQ(given.nBlockAlign, wfx.nBlockAlign);
    UINT64 frames = 0;
    ASSERT_EQ(audio->GetFrameCount(&frames), S_OK);
    EXPECT_EQ(frames, c.frames);
    INT64 duration = 0, start = -1;
    ASSERT_EQ(audio->GetDuration(&duration, &start), S_OK);
    EXPECT_EQ(duration, INT64(UINT64(c.frames) * 10000000u / c.rate));
    expectReadsMatch(audio, source, wfx.nBlockAlign);
    audio->Release();
    reader->Release();
  }
  // The renderer writes wave and Wave64 only; nothing reads a text file.
  IKaRenderFile* none = nullptr;
  EXPECT_NE(host.m->CreateRendererForExtension(u"aif", &none, nullptr), S_OK);
  EXPECT_EQ(none, nullptr);
  std::ofstream(host.dir.file("notes.txt")) << "not audio at all, only some words";
  IKaReadFile* reader = nullptr;
  EXPECT_EQ(
      host.m->CreateReaderForPath(u16(host.dir.file("notes.txt")).c_str(), 0, &reader, nullptr),
      KAERR_FIO_UNSUPPORTED);
  EXPECT_EQ(reader, nullptr);
}

// An AIFF file: big-endian 80-bit rate, COMM and SSND chunks, samples stored big-endian.
std::vector<uint8_t> aiff(WORD channels, WORD bits, DWORD rate, const std::vector<uint8_t>& le) {
  std::vector<uint8_t> out;
  auto be = [&](uint64_t v, int bytes) {
    for (int i = bytes - 1; i >= 0; --i) out.push_back(uint8_t(v >> (8 * i)));
  };
  const int width = bits / 8;
  const DWORD frames = DWORD(le.size() / (width * channels));
  const int exponent = int(std::floor(std::log2(double(rate))));
  be(0x464F524D, 4);  // FORM
  be(4 + 26 + 16 + le.size(), 4);
  be(0x41494646, 4);  // AIFF
  be(0x434F4D4D, 4);  // COMM
  be(18, 4);
  be(channels, 2);
  be(frames, 4);
  be(bits, 2);
  be(16383 + exponent, 2);
  be(uint64_t(rate) << (63 - exponent), 8);
  be(0x53534E44, 4);  // SSND
  be(8 + le.size(), 4);
  be(0, 8);
  for (size_t i = 0; i < le.size(); i += width)
    for (int b = width - 1; b >= 0; --b) out.push_back(le[i + b]);
  return out;
}

TEST(BundledPlugin, AiffSamplesComeOutLittleEndian) {
  Bundled host;
  const struct {
    WORD channels, bits;
    DWORD rate;
    KASAMPLETYPE type;
  } cases[] = {{2, 16, 44100, KASAMPLE_PCM16}, {1, 24, 48000, KASAMPLE_PCM24}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.bits);
    const std::vector<uint8_t> source = noise(size_t(301) * c.channels * (c.bits / 8), c.bits);
    const std::string path = host.dir.file("in" + std::to_string(c.bits) + ".aif");
    ostra::test::writeFile(path, aiff(c.channels, c.bits, c.rate, source));
    IKaReadFile* reader = nullptr;
    IKaReadAudioStream* audio = openAudio(host.m, path, &reader);
    ASSERT_NE(audio, nullptr);
    _kawaveformat given;
    ASSERT_EQ(audio->GetFormat(&given, sizeof given), S_OK);
    EXPECT_EQ(given.SampleType, c.type);
    EXPECT_EQ(given.nSamplesPerSec, c.rate);
    expectReadsMatch(audio, source, given.nBlockAlign);
    audio->Release();
    reader->Release();
  }
}

// Four threads read one stream of one reader through the wrappers, each its own region.
TEST(BundledPlugin, OneStreamReadFromSeveralThreads) {
  Bundled host;
  _kawaveformat wfx;
  wfx.Init(48000, KASAMPLE_PCM16, 2, 0, sizeof wfx);
  const DWORD frames = 4 * 4096;
  const std::vector<uint8_t> source = noise(size_t(frames) * 4, 5);
  const std::string path = host.dir.file("shared.wav");
  IKaRenderFile* renderer = nullptr;
  ASSERT_EQ(host.m->CreateRendererForExtension(u"wav", &renderer, nullptr), S_OK);
  ASSERT_EQ(renderer->Create(u16(path).c_str(), &wfx, 0), S_OK);
  ASSERT_EQ(renderer->WriteAudio(source.data(), frames), S_OK);
  ASSERT_EQ(renderer->Finish(), S_OK);
  renderer->Release();

  IKaReadFile* reader = nullptr;
  IKaReadAudioStream* audio = openAudio(host.m, path, &reader);
  ASSERT_NE(audio, nullptr);
  std::latch go(4);
  std::vector<int> wrong(4);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      go.arrive_and_wait();
      std::vector<uint8_t> got(64 * 4);
      for (DWORD at = DWORD(t) * 4096; at < DWORD(t + 1) * 4096; at += 64) {
        DWORD n = 0;
        if (FAILED(audio->Read(at, got.data(), 64, &n)) || n != 64 ||
            !std::equal(got.begin(), got.end(), source.begin() + long(at) * 4))
          ++wrong[t];
      }
    });
  for (auto& th : threads) th.join();
  EXPECT_EQ(wrong, std::vector<int>(4, 0));
  DWORD proxies = 0;
  IKaOutOfProcObj* obj = nullptr;
  ASSERT_EQ(audio->QueryInterface(IID_IKaOutOfProcObj, reinterpret_cast<void**>(&obj)), S_OK);
  ASSERT_EQ(obj->GetProxyCount(&proxies), S_OK);
  EXPECT_EQ(proxies, 4u);  // one per thread that called, none for this one
  obj->Release();
  audio->Release();
  reader->Release();
}

}  // namespace
