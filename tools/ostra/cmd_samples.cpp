// ostra samples [--json] [--count N] [--start FRAME] FILE: the stored value of samples,
// channel by channel, as the file holds them (no conversion).
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "checks.h"
#include "command.h"
#include "inspect.h"
#include "media_source.h"
#include "ostra/kaaudio.h"
#include "ostra/kaerror.h"
#include "ostra/kafiomgr.h"
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

void print(const Options& o, int32_t type, const std::string& typeText, unsigned channels,
           uint64_t first, uint64_t frames, const nlohmann::json& values) {
  if (o.json) {
    nlohmann::json j{
        {"sample_type", type}, {"start", first}, {"frames", frames}, {"channels", values}};
    std::printf("%s\n", j.dump().c_str());
    return;
  }
  std::printf("%s: %u channels, sample type %d (%s), frames %llu..%llu\n", o.file.c_str(), channels,
              int(type), typeText.c_str(), (unsigned long long)first,
              (unsigned long long)(first + frames));
  for (uint64_t i = 0; i < frames; ++i) {
    std::printf("%10llu", (unsigned long long)(first + i));
    for (unsigned c = 0; c < channels; ++c) std::printf(" %s", values[c][i].dump().c_str());
    std::printf("\n");
  }
}

// The first audio stream of a file a plug-in reads, as the plug-in delivers it.
HRESULT runMedia(const Options& o, const std::string& path) {
  MediaFile media;
  HRESULT hr = media.open(path);
  if (FAILED(hr)) return hr;
  const int index = media.firstOf(KAFIO_STREAM_AUDIO);
  if (index < 0) return withReason(KAERR_UNSUPPORTED_FORMAT, "the file has no audio stream");
  const MediaStream& s = media.streams()[size_t(index)];
  const int bytes = KaAudio_BytesFromSampleType(s.sampleType);
  if (!s.blockAlign || bytes <= 0) return KAERR_UNSUPPORTED_FORMAT;
  nlohmann::json values = nlohmann::json::array();
  for (unsigned c = 0; c < s.channels; ++c) values.push_back(nlohmann::json::array());
  const uint64_t blockFrames = std::max<uint64_t>(1, (1u << 20) / s.blockAlign);
  std::vector<uint8_t> buf(size_t(std::min(o.count, blockFrames)) * s.blockAlign);
  uint64_t done = 0;
  while (done < o.count) {
    DWORD got = 0;
    hr = media.readAudio(index, o.start + done, buf.data(),
                         DWORD(std::min(blockFrames, o.count - done)), &got);
    if (FAILED(hr)) return hr;
    if (!got) break;  // the end of the stream (the frame count of lossy files is an estimate)
    for (DWORD i = 0; i < got; ++i)
      for (unsigned c = 0; c < s.channels; ++c)
        values[c].push_back(
            sampleValue(s.sampleType, buf.data() + size_t(i) * s.blockAlign + c * unsigned(bytes)));
    done += got;
  }
  print(o, s.sampleType, sampleTypeName(s.sampleType), s.channels, o.start, done, values);
  return S_OK;
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
  if (FAILED(hr)) {
    KaFile_Close(file);
    // Not a file the kernel reads itself: ask the plug-ins.
    const HRESULT mediaHr = runMedia(o, path);
    if (SUCCEEDED(mediaHr)) return;
    return void(reportFailure(
        mediaHr == KAERR_FIO_UNSUPPORTED || mediaHr == KAERR_FIO_HOST_FORMAT ? hr : mediaHr,
        o.file));
  }
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
  print(o, type, facts.format.sampleTypeText, channels, first, frames, values);
}

void setup(CLI::App& cmd) {
  static Options o;
  cmd.add_option("FILE", o.file,
                 "Audio file: wave, Wave64 and AIFF by the kernel, others through the plug-ins (- "
                 "reads standard input)")
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
