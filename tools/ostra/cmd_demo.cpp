// ostra demo [--dir DIR]: a tour of the audio file functions on a generated signal. It
// writes a six-channel test signal into a new folder, converts it through several
// sample types and containers, tags one copy, damages another the way a recorder that
// crashed would leave it and repairs it, and shows `ostra info` of every result.
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <vector>

#include "command.h"
#include "operations.h"
#include "ostra/kaaudio.h"
#include "ostra/kaerror.h"
#include "ostra/kaplatform.h"
#include "writer.h"

namespace ostra::cli {
namespace {

constexpr DWORD kRate = 48000;
constexpr WORD kChannels = 6;
constexpr DWORD kMask51 = 0x3F;      // front left/right, centre, LFE, back left/right
constexpr uint64_t kFrames = kRate;  // one second
constexpr double kPi = 3.14159265358979323846;

// One sine per channel, each a fifth above the last, with a 10 ms fade in and out so
// that the ends do not click, and a channel-numbered click train to tell them apart.
HRESULT writeSignal(const std::string& path) {
  alignas(8) unsigned char buf[KAWAVEFORMAT_BUFFER_SIZE] = {};
  auto* fmt = reinterpret_cast<_kawaveformat*>(buf);
  fmt->Init(kRate, KASAMPLE_PCM24, kChannels, kMask51, sizeof buf);
  auto convert = KaAudio_GetCopyFunction2(KASAMPLE_PCM24, KASAMPLE_FLOAT64);
  if (!convert) return E_NOTIMPL;
  AudioWriter out;
  HRESULT hr = out.create(path, Container::Riff, *fmt);
  if (FAILED(hr)) return hr;
  constexpr uint64_t kBlock = 4800;
  std::vector<double> samples(kBlock * kChannels);
  std::vector<unsigned char> bytes(kBlock * fmt->nBlockAlign);
  for (uint64_t start = 0; start < kFrames; start += kBlock) {
    for (uint64_t i = 0; i < kBlock; ++i) {
      const uint64_t n = start + i;
      const double t = double(n) / kRate;
      const double edge = std::min({1.0, t / 0.01, double(kFrames - n) / (0.01 * kRate)});
      for (unsigned c = 0; c < kChannels; ++c) {
        const double freq = 220.0 * std::pow(1.5, c);
        const bool click = (n % kRate) < 48 * (c + 1) && (n % (kRate / 4)) < 8;
        samples[i * kChannels + c] =
            edge * (0.5 * std::sin(2 * kPi * freq * t) + (click ? 0.25 : 0.0));
      }
    }
    convert(bytes.data(), samples.data(), int(samples.size()), 1.0f);
    if (FAILED(hr = out.write(bytes.data(), bytes.size()))) return hr;
  }
  return out.finish();
}

// Copies the header and all but the last three bytes of the samples, with the size
// words as KaInitializeWav left them: a recorder that died before its header rewrite.
HRESULT crashedCopy(const std::string& from, const std::string& to) {
  FileFacts facts;
  HRESULT hr = inspectPath(from, facts);
  if (FAILED(hr)) return hr;
  if (!facts.hasData || facts.dataSize < 3) return KAERR_CORRUPT_FILE;
  KAHFILE in = KA_INVALID_HFILE, out = KA_INVALID_HFILE;
  if (FAILED(
          hr = KaFile_OpenUtf8(from.c_str(), GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, 0, &in)))
    return hr;
  hr = KaFile_OpenUtf8(to.c_str(), GENERIC_READ | GENERIC_WRITE, 0, CREATE_ALWAYS, 0, &out);
  const uint64_t keep = facts.dataOffset + facts.dataSize - 3;
  std::vector<unsigned char> block(1 << 16);
  for (uint64_t done = 0; SUCCEEDED(hr) && done < keep;) {
    const DWORD n = DWORD(std::min<uint64_t>(block.size(), keep - done));
    DWORD got = 0, put = 0;
    hr = KaFile_Read(in, block.data(), n, &got);
    if (SUCCEEDED(hr) && got != n) hr = KAERR_READ_FAILED;
    if (SUCCEEDED(hr)) hr = KaFile_Write(out, block.data(), n, &put);
    done += n;
  }
  // RIFF size of an empty file with this header, data size 0.
  const DWORD riffSize = DWORD(facts.dataOffset - 8), zero = 0;
  DWORD put = 0;
  if (SUCCEEDED(hr)) hr = KaFile_Seek(out, 4, FILE_BEGIN, nullptr);
  if (SUCCEEDED(hr)) hr = KaFile_Write(out, &riffSize, 4, &put);
  if (SUCCEEDED(hr)) hr = KaFile_Seek(out, INT64(facts.dataOffset - 4), FILE_BEGIN, nullptr);
  if (SUCCEEDED(hr)) hr = KaFile_Write(out, &zero, 4, &put);
  KaFile_Close(in);
  if (out != KA_INVALID_HFILE) KaFile_Close(out);
  return hr;
}

std::string newFolder(const std::string& asked) {
  namespace fs = std::filesystem;
  std::error_code ec;
  if (!asked.empty())
    return fs::create_directories(asked, ec) || fs::is_directory(asked) ? asked : std::string();
  for (int i = 1; i < 1000; ++i) {
    const std::string name = i == 1 ? "ostra-demo" : "ostra-demo-" + std::to_string(i);
    if (fs::create_directory(name, ec)) return name;
  }
  return {};
}

void show(const std::string& title, const std::string& path) {
  FileFacts facts;
  const HRESULT hr = inspectPath(path, facts);
  std::printf("\n== %s\n$ ostra info %s\n", title.c_str(), path.c_str());
  if (FAILED(hr))
    reportFailure(hr, path);
  else
    std::printf("%s", factsText(facts).c_str());
}

int run(const std::string& dirAsked) {
  const std::string dir = newFolder(dirAsked);
  if (dir.empty()) return reportUsage("demo: cannot create a folder for the demo files");
  const auto at = [&](const char* name) { return (std::filesystem::path(dir) / name).string(); };
  std::printf("ostra demo: writing into %s/\n", dir.c_str());

  const std::string signal = at("signal.wav");
  HRESULT hr = writeSignal(signal);
  if (FAILED(hr)) return reportFailure(hr, signal);
  show("a 1 s, 6-channel (5.1), 48 kHz, 24-bit test signal written with the set-up functions",
       signal);

  struct Step {
    const char* name;
    KASAMPLETYPE type;
    Container container;
    double gain;
    const char* what;
  };
  const Step steps[] = {
      {"signal-pcm16.wav", KASAMPLE_PCM16, Container::Riff, 0.0, "converted to 16-bit PCM"},
      {"signal-float32.w64", KASAMPLE_FLOAT32, Container::Wave64, -6.0,
       "converted to 32-bit float Wave64, -6 dB"},
      {"signal-pcm24in32.wav", KASAMPLE_PCM24IN32, Container::Riff, 0.0,
       "converted to 24 bits in 32-bit containers"},
      {"signal.aiff", KASAMPLE_PCM24, Container::Aiff, 0.0, "converted to a 24-bit AIFF file"},
  };
  for (const Step& s : steps) {
    ConvertRequest r{signal, at(s.name), s.type, s.container, s.gain};
    if (FAILED(hr = convertFile(r))) return reportFailure(hr, r.output);
    show(std::string("ostra convert: ") + s.what, r.output);
  }

  const std::string tagged = at("signal-pcm16.wav");
  TagRequest tag{
      tagged,
      {{"INAM", "Ostra demo signal"}, {"IART", "ostra demo"}, {"ICMT", "six sines a fifth apart"}},
      {},
      false};
  if (FAILED(hr = tagFile(tag))) return reportFailure(hr, tagged);
  show("ostra tag: INAM, IART and ICMT set on the 16-bit copy", tagged);

  const std::string crashed = at("crashed.wav");
  if (FAILED(hr = crashedCopy(tagged, crashed))) return reportFailure(hr, crashed);
  show("a copy as a recorder that crashed leaves it: sizes never written, a partial last frame",
       crashed);
  RepairRequest rr;
  rr.file = crashed;
  RepairResult res;
  if (FAILED(hr = repairFile(rr, res))) return reportFailure(hr, crashed);
  std::printf("\n$ ostra repair %s\nheader length %llu, data length %llu, %u header fields set\n",
              crashed.c_str(), (unsigned long long)res.plan.dataOffset,
              (unsigned long long)res.plan.dataLength, unsigned(res.plan.changeCount));
  for (const auto& n : res.notes) std::printf("  note: %s\n", n.c_str());
  show("ostra repair: every whole frame on disk recovered", crashed);
  std::printf("\nostra demo: done; the files are in %s/\n", dir.c_str());
  return 0;
}

void setup(CLI::App& cmd) {
  static std::string dir;
  cmd.add_option("--dir", dir, "Folder for the demo files (default: a new ./ostra-demo folder)");
  cmd.callback([] { run(dir); });
}

OSTRA_COMMAND("demo", "Generate a test signal and convert, tag, damage, repair and inspect it",
              setup);

}  // namespace
}  // namespace ostra::cli
