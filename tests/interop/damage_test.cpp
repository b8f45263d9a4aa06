// The header repair against a generated damage matrix: wave and Wave64 files made by sox,
// ffmpeg, libsndfile and the kernel itself get every header field zeroed and every header
// field inverted in turn, and are cut at every offset inside the header and at random
// offsets inside the samples. For each damaged file the repair either refuses it, and the
// file stays as it was, or repairs it: then no byte outside the header has changed, the
// changes are exactly those the plan (what a dry run lists) names, and the file reads
// back with the original's format and samples, up to its last whole frame.
#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "ostra/kaplatform.h"
#include "ostra/kawave.h"
#include "ostra/riff64.h"
#include "peers.h"
#include "support/test_support.h"

namespace ostra::interop {
namespace {

using Bytes = std::vector<uint8_t>;
using ostra::test::readFile;
using ostra::test::TempDir;
using ostra::test::writeFile;

struct Field {
  uint64_t offset;
  unsigned length;
  std::string name;
  bool mustRepair;  // ids and sizes: the repair promises to restore these
};

uint64_t le(const Bytes& b, uint64_t at, unsigned n) {
  uint64_t v = 0;
  for (unsigned i = 0; i < n; ++i) v |= uint64_t(b[at + i]) << (8 * i);
  return v;
}

// The header fields of an undamaged file, found by walking it: container ids and sizes,
// every chunk id and size in front of the samples, and the format chunk's fields.
std::vector<Field> headerFields(const Bytes& b, bool w64, uint64_t* dataStart) {
  const unsigned idLen = w64 ? 16 : 4, sizeLen = w64 ? 8 : 4, hdr = w64 ? 24 : 8;
  std::vector<Field> f = {{0, idLen, "container id", true},
                          {idLen, sizeLen, "container size", true},
                          {uint64_t(w64 ? 24 : 8), idLen, "form id", true}};
  uint64_t pos = w64 ? 40 : 12;
  bool first = true;
  while (pos + hdr <= b.size()) {
    const std::string id =
        w64 ? std::string() : std::string(b.begin() + long(pos), b.begin() + long(pos) + 4);
    const bool isFmt = w64 ? std::memcmp(&b[pos], &RIFF64_GUID_FMT, 16) == 0 : id == "fmt ";
    const bool isData = w64 ? std::memcmp(&b[pos], &RIFF64_GUID_DATA, 16) == 0 : id == "data";
    uint64_t body = le(b, pos + idLen, sizeLen) - (w64 ? 24 : 0);
    // The first chunk's id can be restored only when it is the format chunk.
    f.push_back({pos, idLen,
                 isFmt    ? "fmt id"
                 : isData ? "data id"
                          : "chunk id",
                 isFmt ? first : isData});
    f.push_back({pos + idLen, sizeLen,
                 isFmt    ? "fmt size"
                 : isData ? "data size"
                          : "chunk size",
                 isFmt || isData});
    first = false;
    if (isData) {
      *dataStart = pos + hdr;
      return f;
    }
    if (isFmt) {
      const uint64_t p = pos + hdr;
      const std::pair<unsigned, const char*> fmt[] = {
          {2, "tag"},        {2, "channels"},   {4, "rate"},       {4, "bytes per second"},
          {2, "block size"}, {2, "bits"},       {2, "extra size"}, {2, "valid bits"},
          {4, "mask"},       {16, "sub-format"}};
      uint64_t at = p;
      for (const auto& [n, name] : fmt) {
        if (at + n > p + body) break;
        f.push_back({at, n, std::string("fmt ") + name, false});
        at += n;
      }
    }
    pos += hdr + (w64 ? (body + 7) / 8 * 8 : body + (body & 1));
  }
  *dataStart = 0;
  return f;
}

// What a file reads as through the kernel: its format and its sample bytes.
struct Reading {
  bool ok = false;
  unsigned rate = 0, channels = 0;
  int type = 0;
  Bytes samples;
};

Reading readBack(const std::string& path) {
  Reading r;
  KAHFILE f = KA_INVALID_HFILE;
  if (FAILED(KaFile_OpenUtf8(path.c_str(), GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, 0, &f)))
    return r;
  alignas(8) unsigned char buf[KAWAVEFORMAT_BUFFER_SIZE] = {};
  auto* wfx = reinterpret_cast<_kawaveformat*>(buf);
  tKAAUDIODATA data{};
  if (SUCCEEDED(KaGetFileWfx(f, wfx, sizeof buf)) && SUCCEEDED(KaGetFileAudioData(f, &data)) &&
      data.size == data.statedSize) {
    r.rate = wfx->nSamplesPerSec;
    r.channels = wfx->nChannels;
    r.type = wfx->SampleType;
    const Bytes all = readFile(path);
    r.samples.assign(all.begin() + long(data.offset), all.begin() + long(data.offset + data.size));
    r.ok = true;
  }
  KaFile_Close(f);
  return r;
}

struct Outcome {
  HRESULT hr;
  tKAWAVREPAIR plan;
};

Outcome repair(const std::string& path) {
  Outcome o{E_FAIL, {}};
  KAHFILE f = KA_INVALID_HFILE;
  if (FAILED(KaFile_OpenUtf8(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, OPEN_EXISTING, 0, &f)))
    return o;
  o.hr = KaPlanWavRepair(f, &o.plan);
  if (SUCCEEDED(o.hr)) o.hr = KaApplyWavRepair(f, &o.plan);
  KaFile_Close(f);
  return o;
}

// Checks one damaged file; returns true when it was repaired.
bool check(const std::string& path, const Bytes& damaged, const Reading& original,
           uint64_t headerEnd, uint64_t blockAlign, uint64_t expectFrames,
           const std::string& what) {
  SCOPED_TRACE(what);
  writeFile(path, damaged);
  const Outcome o = repair(path);
  const Bytes after = readFile(path);
  if (FAILED(o.hr)) {
    EXPECT_EQ(after, damaged) << "a refused file was changed";
    return false;
  }
  // Only header bytes changed, and exactly those the plan lists.
  Bytes planned = damaged;
  for (DWORD i = 0; i < o.plan.changeCount; ++i) {
    const tKAREPAIRCHANGE& c = o.plan.changes[i];
    EXPECT_LE(c.offset + c.length, headerEnd) << c.field;
    std::memcpy(&planned[c.offset], c.after, c.length);
  }
  EXPECT_EQ(after.size(), damaged.size());
  EXPECT_TRUE(after == planned) << "the file changed where the plan did not say";
  const Reading r = readBack(path);
  EXPECT_TRUE(r.ok);
  EXPECT_EQ(r.rate, original.rate);
  EXPECT_EQ(r.channels, original.channels);
  EXPECT_EQ(r.type, original.type);
  EXPECT_EQ(r.samples.size(), expectFrames * blockAlign);
  EXPECT_TRUE(std::equal(r.samples.begin(), r.samples.end(), original.samples.begin()))
      << "the samples read back differently";
  return true;
}

class Damage : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!havePeers()) GTEST_SKIP() << "sox, ffmpeg or libsndfile's tools are not installed";
  }
};

TEST_F(Damage, EveryHeaderFieldOfFilesFromEveryWriter) {
  TempDir dir;
  const std::string src = dir.file("src.wav");
  ASSERT_EQ(
      run("sox -R -n -r 48000 -c 2 -b 16 " + quote(src) + " synth 0.05 sine 300 sine 500").status,
      0);
  const struct {
    const char* name;
    std::string command;
  } makers[] = {
      {"sox-s16.wav", "sox {src} {out}"},
      {"sox-s24-3ch.wav", "sox {src} -b 24 {out} remix 1 2 1"},
      {"sox-f32.wav", "sox {src} -e floating-point -b 32 {out}"},
      {"sox-s16.w64", "sox {src} {out}"},
      {"ff-s16-info.wav",
       "ffmpeg -nostdin -v error -i {src} -metadata title=Take -c:a pcm_s16le {out}"},
      {"ff-f32.wav", "ffmpeg -nostdin -v error -i {src} -c:a pcm_f32le {out}"},
      {"ff-s24.w64", "ffmpeg -nostdin -v error -i {src} -c:a pcm_s24le -f w64 {out}"},
      {"sf-f32.wav", "sndfile-convert -float32 {src} {out}"},
      {"sf-s16.w64", "sndfile-convert -pcm16 {src} {out}"},
      {"ostra-s24in32.wav", "OSTRA convert {src} {out} --type pcm24in32"},
      {"ostra-f64.w64", "OSTRA convert {src} {out} --type float64 --container w64"},
  };
  std::mt19937 rng(11);
  int repaired = 0, refused = 0;
  for (const auto& m : makers) {
    SCOPED_TRACE(m.name);
    const std::string made = dir.file(m.name);
    std::string cmd = m.command;
    for (auto [key, value] : {std::pair<std::string, std::string>{"{src}", quote(src)},
                              {"{out}", quote(made)},
                              {"OSTRA", quote(OSTRA_TOOL_PATH)}})
      for (size_t at; (at = cmd.find(key)) != std::string::npos;)
        cmd.replace(at, key.size(), value);
    ASSERT_EQ(run(cmd).status, 0) << cmd;
    const Bytes original = readFile(made);
    const bool w64 = std::string(m.name).ends_with(".w64");
    uint64_t dataStart = 0;
    const std::vector<Field> fields = headerFields(original, w64, &dataStart);
    ASSERT_NE(dataStart, 0u);
    const Reading ref = readBack(made);
    ASSERT_TRUE(ref.ok);
    const uint64_t align =
        uint64_t(ref.channels) * uint64_t(KaAudio_BytesFromSampleType(KASAMPLETYPE(ref.type)));
    const uint64_t frames = ref.samples.size() / align;

    // An undamaged file needs nothing.
    const Outcome sound = repair(made);
    ASSERT_EQ(sound.hr, S_OK);
    EXPECT_EQ(sound.plan.changeCount, 0u) << sound.plan.changes[0].field;
    EXPECT_EQ(readFile(made), original);

    const std::string path = dir.file(std::string("damaged-") + m.name);
    for (const Field& f : fields) {
      for (const bool invert : {false, true}) {
        Bytes d = original;
        for (unsigned i = 0; i < f.length; ++i)
          d[f.offset + i] = invert ? uint8_t(~d[f.offset + i]) : 0;
        if (d == original) continue;
        const bool ok = check(path, d, ref, dataStart, align, frames,
                              f.name + (invert ? " inverted" : " zeroed"));
        if (f.mustRepair) {
          EXPECT_TRUE(ok) << f.name << (invert ? " inverted" : " zeroed");
        }
        (ok ? repaired : refused)++;
      }
    }
    // Cut inside the header: nothing to recover but an empty data chunk at most.
    for (uint64_t cut = 0; cut < dataStart; ++cut) {
      const Bytes d(original.begin(), original.begin() + long(cut));
      (check(path, d, ref, dataStart, align, 0, "cut at " + std::to_string(cut)) ? repaired
                                                                                 : refused)++;
    }
    // Cut inside the samples: every whole frame comes back.
    for (int i = 0; i < 12; ++i) {
      const uint64_t cut = dataStart + rng() % (original.size() - dataStart);
      const Bytes d(original.begin(), original.begin() + long(cut));
      EXPECT_TRUE(check(path, d, ref, dataStart, align, (cut - dataStart) / align,
                        "cut at " + std::to_string(cut)));
    }
  }
  // Both outcomes occur: the matrix is not passing by refusing everything.
  EXPECT_GT(repaired, 300);
  EXPECT_GT(refused, 10);
}

TEST_F(Damage, FilesThatAreNotWaveFilesAreRefusedUntouched) {
  TempDir dir;
  const std::string src = dir.file("src.wav");
  ASSERT_EQ(run("sox -R -n -r 8000 -c 1 -b 16 " + quote(src) + " synth 0.1 sine 300").status, 0);
  std::vector<std::string> files;
  for (const char* ext : {"flac", "aiff", "au"}) {
    const std::string out = dir.file(std::string("x.") + ext);
    ASSERT_EQ(run("sox " + quote(src) + " " + quote(out)).status, 0);
    files.push_back(out);
  }
  // A FLAC file under a wave name, empty and short files, and noise of several lengths.
  ASSERT_EQ(run("cp " + quote(dir.file("x.flac")) + " " + quote(dir.file("flac-named.wav"))).status,
            0);
  files.push_back(dir.file("flac-named.wav"));
  std::mt19937 rng(5);
  for (size_t n : {0, 3, 11, 44, 4096, 70000}) {
    Bytes b(n);
    for (auto& x : b) x = uint8_t(rng());
    files.push_back(dir.file("noise" + std::to_string(n) + ".wav"));
    writeFile(files.back(), b);
  }
  for (const std::string& f : files) {
    SCOPED_TRACE(f);
    const Bytes before = readFile(f);
    EXPECT_TRUE(FAILED(repair(f).hr));
    EXPECT_EQ(readFile(f), before);
    const RunResult r = ostra("repair " + quote(f));
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find(f), std::string::npos) << r.err;
    EXPECT_EQ(readFile(f), before);
  }
}

// The tool lists in a dry run exactly the bytes a real run then changes.
TEST_F(Damage, TheToolsDryRunListsWhatARealRunChanges) {
  TempDir dir;
  const std::string path = dir.file("take.wav");
  ASSERT_EQ(run("sox -R -n -r 44100 -c 2 -b 24 " + quote(path) + " synth 0.02 sine 300").status, 0);
  Bytes b = readFile(path);
  std::fill_n(b.begin(), 8, 0);  // RIFF id and size
  b.resize(b.size() - 5);        // a partial last frame
  writeFile(path, b);
  auto dry = ostraJson("repair --dry-run --json " + quote(path));
  ASSERT_FALSE(dry.is_null());
  EXPECT_EQ(readFile(path), b);
  ASSERT_TRUE(dry["changed"].get<bool>());
  EXPECT_EQ(ostra("repair " + quote(path)).status, 0);
  const Bytes after = readFile(path);
  Bytes expected = b;
  for (const auto& c : dry["changes"]) {
    const uint64_t at = c["offset"];
    const std::string hex = c["after"];
    for (size_t i = 0; i < hex.size() / 2; ++i)
      expected[at + i] = uint8_t(std::stoi(hex.substr(2 * i, 2), nullptr, 16));
  }
  EXPECT_EQ(after, expected);
  auto again = ostraJson("repair --json " + quote(path));
  ASSERT_FALSE(again.is_null());
  EXPECT_FALSE(again["changed"].get<bool>());
}

}  // namespace
}  // namespace ostra::interop
