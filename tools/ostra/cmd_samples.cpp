// ostra samples [--json] [--count N] [--start FRAME] FILE: the stored value of samples,
// channel by channel, as the file holds them (no conversion).
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "checks.h"
#include "command.h"
#include "inspect.h"
#include "ostra/kaaudio.h"
#include "ostra/kaerror.h"
#include "ostra/kaplatform.h"
#include "std_streams.h"

namespace ostra::cli {
namespace {

struct Options {
  std::string file;
  bool json = false;
  uint64_t count = 16;
  uint64_t start = 0;
};

int32_t le24(const uint8_t* p) {
  return int32_t(uint32_t(p[0]) << 8 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 24) >> 8;
}
int32_t be24(const uint8_t* p) {
  return int32_t(uint32_t(p[2]) << 8 | uint32_t(p[1]) << 16 | uint32_t(p[0]) << 24) >> 8;
}
int32_t le32(const uint8_t* p) {
  int32_t v;
  std::memcpy(&v, p, 4);
  return v;
}
int32_t be32(const uint8_t* p) {
  return int32_t(uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3]);
}

// One stored sample as a JSON number: integers as they are stored (unsigned 8-bit as
// 0..255), floating point as its value.
nlohmann::json sampleValue(int32_t type, const uint8_t* p) {
  switch (type) {
    case KASAMPLE_PCM8:
      return p[0];
    case KASAMPLE_PCM8SIGNED:
      return int8_t(p[0]);
    case KASAMPLE_PCM16:
      return int16_t(p[0] | p[1] << 8);
    case KASAMPLE_MAC16:
      return int16_t(p[1] | p[0] << 8);
    case KASAMPLE_PCM24:
      return le24(p);
    case KASAMPLE_MAC24:
      return be24(p);
    case KASAMPLE_PCM32:
    case KASAMPLE_PCM24IN32:
      return le32(p);
    case KASAMPLE_MAC32:
      return be32(p);
    case KASAMPLE_FLOAT32: {
      float f;
      std::memcpy(&f, p, 4);
      return double(f);
    }
    case KASAMPLE_FLOAT64: {
      double d;
      std::memcpy(&d, p, 8);
      return d;
    }
    default:
      return nullptr;
  }
}

void run(const Options& o) {
  TempFile spool;
  std::string path;
  if (HRESULT hr = readablePath(o.file, spool, path); FAILED(hr))
    return void(reportFailure(hr, o.file));
  KAHFILE file = KA_INVALID_HFILE;
  HRESULT hr = KaFile_OpenUtf8(path.c_str(), GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING,
                               FILE_ATTRIBUTE_NORMAL, &file);
  if (FAILED(hr)) return void(reportFailure(hr, o.file));
  FileFacts facts;
  hr = inspectFile(file, facts);
  const int32_t type = facts.format.sampleType;
  const int bytes = KaAudio_BytesFromSampleType(KASAMPLETYPE(type));
  if (FAILED(hr) || refuseUnreadableAudio(facts, o.file)) {
    KaFile_Close(file);
    if (FAILED(hr)) reportFailure(hr, o.file);
    return;
  }
  const unsigned channels = facts.format.channels;
  const uint64_t first = std::min(o.start, facts.frames);
  const uint64_t frames = std::min(o.count, facts.frames - first);
  nlohmann::json values = nlohmann::json::array();
  for (unsigned c = 0; c < channels; ++c) values.push_back(nlohmann::json::array());
  // Read in bounded blocks so that a large --count does not need a large buffer twice.
  const uint64_t blockFrames = std::max<uint64_t>(1, (1u << 20) / facts.format.blockAlign);
  std::vector<uint8_t> buf(size_t(std::min(frames, blockFrames)) * facts.format.blockAlign);
  hr = KaFile_Seek(file, INT64(facts.dataOffset + first * facts.format.blockAlign), FILE_BEGIN,
                   nullptr);
  for (uint64_t done = 0; SUCCEEDED(hr) && done < frames;) {
    const uint64_t n = std::min(blockFrames, frames - done);
    DWORD got = 0;
    hr = KaFile_Read(file, buf.data(), DWORD(n * facts.format.blockAlign), &got);
    if (SUCCEEDED(hr) && got != n * facts.format.blockAlign) hr = KAERR_READ_FAILED;
    if (SUCCEEDED(hr)) swapStoredFloats(facts.format, buf.data(), got);
    for (uint64_t i = 0; SUCCEEDED(hr) && i < n; ++i)
      for (unsigned c = 0; c < channels; ++c)
        values[c].push_back(
            sampleValue(type, buf.data() + i * facts.format.blockAlign + c * unsigned(bytes)));
    done += n;
  }
  KaFile_Close(file);
  if (FAILED(hr)) return void(reportFailure(hr, o.file));
  if (o.json) {
    nlohmann::json j{
        {"sample_type", type}, {"start", first}, {"frames", frames}, {"channels", values}};
    std::printf("%s\n", j.dump().c_str());
    return;
  }
  std::printf("%s: %u channels, sample type %d (%s), frames %llu..%llu\n", o.file.c_str(), channels,
              int(type), facts.format.sampleTypeText.c_str(), (unsigned long long)first,
              (unsigned long long)(first + frames));
  for (uint64_t i = 0; i < frames; ++i) {
    std::printf("%10llu", (unsigned long long)(first + i));
    for (unsigned c = 0; c < channels; ++c) std::printf(" %s", values[c][i].dump().c_str());
    std::printf("\n");
  }
}

void setup(CLI::App& cmd) {
  static Options o;
  cmd.add_option("FILE", o.file, "Wave, Wave64, AIFF or AIFC file (- reads standard input)")
      ->required()
      ->check(existingFileOrStdin());
  cmd.add_flag("--json", o.json, "Print {\"channels\": [[...], ...]}");
  cmd.add_option("--count", o.count, "Frames to show (default 16)")->check(wholeNumber());
  cmd.add_option("--start", o.start, "First frame to show (default 0)")->check(wholeNumber());
  cmd.callback([] { run(o); });
}

OSTRA_COMMAND("samples", "Show the stored sample values of an audio file, channel by channel",
              setup);

}  // namespace
}  // namespace ostra::cli
