// ostra convert IN OUT [--type T] [--gain DB] [--container wav|w64|aiff]: streams the
// samples of IN through the kernel's converters into a new file, in blocks, so that
// memory stays bounded whatever the file size.
#include <cmath>
#include <filesystem>
#include <vector>

#include "checks.h"
#include "command.h"
#include "operations.h"
#include "ostra/kaerror.h"
#include "ostra/kaplatform.h"
#include "progress.h"
#include "writer.h"

namespace ostra::cli {
namespace {

// Frames per block: large enough that system calls do not dominate, small enough that
// the three buffers stay within a few MiB for any channel count up to 65535 x 8 bytes.
constexpr uint64_t kBlockBytes = 1u << 20;

// The converters take the gain as a single-precision factor; within this range it stays a
// finite, normal number (10^30 at most), and no musical use comes near it.
constexpr double kMaxGainDb = 600.0;

bool samePath(const std::string& a, const std::string& b) {
  std::error_code ec;
  if (std::filesystem::equivalent(a, b, ec)) return true;
  const auto ca = std::filesystem::weakly_canonical(a, ec);
  const auto cb = std::filesystem::weakly_canonical(b, ec);
  return !ec && ca == cb;
}

}  // namespace

KASAMPLETYPE sampleTypeFromName(const std::string& name) {
  static const std::pair<const char*, KASAMPLETYPE> kNames[] = {
      {"pcm8", KASAMPLE_PCM8},           {"pcm16", KASAMPLE_PCM16},
      {"pcm24", KASAMPLE_PCM24},         {"pcm32", KASAMPLE_PCM32},
      {"pcm24in32", KASAMPLE_PCM24IN32}, {"float32", KASAMPLE_FLOAT32},
      {"float64", KASAMPLE_FLOAT64},
  };
  for (const auto& [n, t] : kNames)
    if (name == n) return t;
  return KASAMPLE_NONE;
}

HRESULT convertFile(const ConvertRequest& r) {
  if (samePath(r.input, r.output)) return E_INVALIDARG;
  KAHFILE in = KA_INVALID_HFILE;
  HRESULT hr = KaFile_OpenUtf8(r.input.c_str(), GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING,
                               FILE_FLAG_SEQUENTIAL_SCAN, &in);
  if (FAILED(hr)) return hr;
  struct Closer {
    KAHFILE f;
    ~Closer() { KaFile_Close(f); }
  } closeIn{in};

  FileFacts src;
  if (FAILED(hr = inspectFile(in, src))) return hr;
  std::string why;
  if (FAILED(hr = checkReadableAudio(src, why))) {
    KaErrorHandler_DetailsInit();
    KaErrorHandler_DetailsAddString(hr, u"%hs", why.c_str());
    return hr;
  }
  const auto srcType = KASAMPLETYPE(src.format.sampleType);

  const Container container = r.container.value_or(src.kind);
  const KASAMPLETYPE dstType = storedType(container, r.type != KASAMPLE_NONE ? r.type : srcType);
  if (dstType == KASAMPLE_NONE) return KAERR_UNSUPPORTED_FORMAT;

  alignas(8) unsigned char fmtBuf[KAWAVEFORMAT_BUFFER_SIZE] = {};
  auto* dstFormat = reinterpret_cast<_kawaveformat*>(fmtBuf);
  dstFormat->Init(src.format.rate, dstType, src.format.channels, src.format.channelMask,
                  sizeof fmtBuf);
  alignas(8) unsigned char srcBuf[KAWAVEFORMAT_BUFFER_SIZE] = {};
  auto* srcFormat = reinterpret_cast<_kawaveformat*>(srcBuf);
  srcFormat->Init(src.format.rate, srcType, src.format.channels, src.format.channelMask,
                  sizeof srcBuf);

  // A pair without a direct converter goes through double precision, which is exact
  // for every source type.
  auto direct = KaAudio_GetCopyFunction2(dstType, srcType);
  auto toDouble = direct ? nullptr : KaAudio_GetCopyFunction2(KASAMPLE_FLOAT64, srcType);
  auto fromDouble = direct ? nullptr : KaAudio_GetCopyFunction2(dstType, KASAMPLE_FLOAT64);
  if (!direct && (!toDouble || !fromDouble)) return E_NOTIMPL;
  const float gain = r.gainDb == 0.0 ? 1.0f : float(std::pow(10.0, r.gainDb / 20.0));

  const unsigned channels = src.format.channels;
  const unsigned dstBlock = dstFormat->nBlockAlign;
  const uint64_t blockFrames =
      std::max<uint64_t>(1, kBlockBytes / std::max<unsigned>(src.format.blockAlign, dstBlock));
  std::vector<unsigned char> inBuf, outBuf;
  std::vector<double> mid;
  try {
    inBuf.resize(blockFrames * src.format.blockAlign);
    outBuf.resize(blockFrames * dstBlock);
    if (!direct) mid.resize(blockFrames * channels);
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }

  // A wave or AIFF file that its 32-bit sizes cannot describe is refused before anything
  // is written (Wave64 has no such limit).
  const uint64_t outBytes = src.frames * dstBlock;
  if (container != Container::Wave64 && outBytes > 0xFFFFFFFFull - 256) return KAERR_RIFF_TOO_LARGE;

  AudioWriter out;
  if (FAILED(hr = out.create(r.output, container, *dstFormat))) return hr;
  FormatFacts dstStored;
  dstStored.bigEndianFloat = out.floatsBigEndian();
  dstStored.bits = WORD(8 * KaAudio_BytesFromSampleType(dstType));
  if (FAILED(hr = KaFile_Seek(in, INT64(src.dataOffset), FILE_BEGIN, nullptr))) return hr;
  Progress progress("converting", src.frames);
  for (uint64_t done = 0; done < src.frames;) {
    const uint64_t n = std::min(blockFrames, src.frames - done);
    DWORD got = 0;
    hr = KaFile_Read(in, inBuf.data(), DWORD(n * src.format.blockAlign), &got);
    if (FAILED(hr)) return hr;
    if (got != n * src.format.blockAlign) return KAERR_READ_FAILED;
    swapStoredFloats(src.format, inBuf.data(), got);
    const int samples = int(n * channels);
    if (direct) {
      direct(outBuf.data(), inBuf.data(), samples, gain);
    } else {
      toDouble(mid.data(), inBuf.data(), samples, gain);
      fromDouble(outBuf.data(), mid.data(), samples, 1.0f);
    }
    if (out.floatsBigEndian()) swapStoredFloats(dstStored, outBuf.data(), size_t(n * dstBlock));
    if (FAILED(hr = out.write(outBuf.data(), size_t(n * dstBlock)))) return hr;
    done += n;
    progress.update(done);
  }
  progress.finish();
  return out.finish(src.info);
}

namespace {

struct Options {
  std::string input, output, type, container;
  double gain = 0.0;
};

void setup(CLI::App& cmd) {
  static Options o;
  cmd.add_option("IN", o.input, "Wave, Wave64, AIFF or AIFC file")
      ->required()
      ->check(CLI::ExistingFile);
  cmd.add_option("OUT", o.output, "New file (never the input)")->required();
  cmd.add_option("--type", o.type, "Sample type of OUT (default: that of IN)")
      ->check(
          CLI::IsMember({"pcm8", "pcm16", "pcm24", "pcm32", "pcm24in32", "float32", "float64"}));
  cmd.add_option("--gain", o.gain, "Gain in dB applied on the way (default 0)")
      ->check(CLI::Validator(
          [](std::string& text) {
            const double db = std::strtod(text.c_str(), nullptr);
            return std::isfinite(db) && std::fabs(db) <= kMaxGainDb
                       ? std::string()
                       : "the gain must be a finite number of dB within +/-" +
                             std::to_string(int(kMaxGainDb)) + ", not " + text;
          },
          "DB"));
  cmd.add_option("--container", o.container, "Container of OUT (default: that of IN)")
      ->check(CLI::IsMember({"wav", "w64", "aiff"}));
  cmd.callback([] {
    ConvertRequest r;
    r.input = o.input;
    r.output = o.output;
    r.type = o.type.empty() ? KASAMPLE_NONE : sampleTypeFromName(o.type);
    if (o.container == "wav") r.container = Container::Riff;
    if (o.container == "w64") r.container = Container::Wave64;
    if (o.container == "aiff") r.container = Container::Aiff;
    r.gainDb = o.gain;
    if (samePath(r.input, r.output))
      return void(reportUsage("convert: OUT is the input file; refusing to overwrite it"));
    const HRESULT hr = convertFile(r);
    if (FAILED(hr)) reportFailure(hr, o.input + " -> " + o.output);
  });
}

OSTRA_COMMAND("convert",
              "Convert an audio file to another sample type or container, in bounded memory",
              setup);

}  // namespace
}  // namespace ostra::cli
