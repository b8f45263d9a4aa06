// ostra convert IN OUT [--type T] [--gain DB] [--container wav|w64|aiff]: streams the
// samples of IN through the kernel's converters into a new file, in blocks, so that
// memory stays bounded whatever the file size.
#include <cctype>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <vector>

#include "checks.h"
#include "command.h"
#include "fio_manager.h"
#include "media_source.h"
#include "operations.h"
#include "ostra/kaerror.h"
#include "ostra/kafiomgr.h"
#include "ostra/kaplatform.h"
#include "ostra/kawave.h"
#include "ostra/riff.h"
#include "ostra/riff64.h"
#include "output_file.h"
#include "progress.h"
#include "std_streams.h"
#include "text.h"
#include "writer.h"

namespace ostra::cli {
namespace {

// Frames per block: large enough that system calls do not dominate, small enough that
// the three buffers stay within a few MiB for any channel count up to 65535 x 8 bytes.
constexpr uint64_t kBlockBytes = 1u << 20;

// The converters take the gain as a single-precision factor; within this range it stays a
// finite, normal number (10^30 at most), and no musical use comes near it.
constexpr double kMaxGainDb = 600.0;

// The container an output's name asks for: .wav, .w64, .aif/.aiff/.aifc; none otherwise.
std::optional<Container> containerForName(const std::string& path) {
  const size_t dot = path.find_last_of('.');
  if (dot == std::string::npos || path.find('/', dot) != std::string::npos) return std::nullopt;
  std::string ext = path.substr(dot + 1);
  for (char& c : ext) c = char(std::tolower(static_cast<unsigned char>(c)));
  if (ext == "wav" || ext == "wave" || ext == "bwf") return Container::Riff;
  if (ext == "w64") return Container::Wave64;
  if (ext == "aif" || ext == "aiff" || ext == "aifc") return Container::Aiff;
  return std::nullopt;
}

// The GUID a Wave64 file gives a RIFF chunk id: the wave family's, with the id in front.
GUID w64Guid(DWORD fourcc) {
  GUID g = KaGuid("00000000-ACF3-11D3-8CD1-00C04F8EDB8A");
  g.Data1 = fourcc;
  return g;
}

// Chunks the output writes anew, or whose contents describe the samples as they were.
bool rebuiltId(DWORD id) {
  for (const char* s : {"fmt ", "fact", "data", "JUNK", "junk", "PAD ", "FLLR", "ds64"})
    if (id == KaFourCC(s[0], s[1], s[2], s[3])) return true;
  return false;
}
bool sampleBoundId(DWORD id) {
  return id == KaFourCC('P', 'E', 'A', 'K') || id == KaFourCC('l', 'e', 'v', 'l');
}

// The chunks of the input that go into the output, read whole; what cannot go is named
// in `dropped`.
HRESULT carriedChunks(KAHFILE in, Container from, Container to, std::vector<CarriedChunk>& out,
                      std::vector<std::string>& dropped) {
  DWORD count = 0;
  HRESULT hr = KaGetFileChunks(in, nullptr, 0, &count);
  if (FAILED(hr)) return hr;
  std::vector<tKACHUNKINFO> chunks(count);
  if (count && FAILED(hr = KaGetFileChunks(in, chunks.data(), count, &count))) return hr;
  chunks.resize(std::min<size_t>(count, chunks.size()));
  const GUID wave = w64Guid(0);
  for (const tKACHUNKINFO& c : chunks) {
    if (c.depth) continue;
    const std::string name(c.name, 4);
    // The chunk as a RIFF id (0 when it has none) and as a Wave64 GUID.
    DWORD id = 0;
    GUID guid{};
    if (from == Container::Wave64) {
      GUID family = c.guid;
      family.Data1 = 0;
      guid = c.guid;
      if (c.guid == RIFF64_GUID_LIST)
        id = RIFF_ID_LIST;
      else if (c.guid == KAGUID_W64_DISP)
        id = KaFourCC('D', 'I', 'S', 'P');
      else if (family == wave)
        id = c.guid.Data1;
      if (c.guid == RIFF64_GUID_FMT || c.guid == RIFF64_GUID_DATA || c.guid == RIFF64_GUID_JUNK ||
          (id && rebuiltId(id)))
        continue;
    } else if (from == Container::Riff) {
      id = KaFourCC(name[0], name[1], name[2], name[3]);
      if (rebuiltId(id)) continue;
      guid = id == RIFF_ID_LIST ? RIFF64_GUID_LIST : w64Guid(id);
    } else {
      continue;  // AIFF chunks have no counterpart written here
    }
    std::string label = id ? fourCCText(id) : guidText(c.guid);
    if (id && sampleBoundId(id)) {
      dropped.push_back(label + " (describes the samples as they were)");
      continue;
    }
    if (to == Container::Aiff || (to == Container::Riff && !id)) {
      dropped.push_back(label + " (no counterpart in the output's container)");
      continue;
    }
    if (c.size > (64u << 20)) {
      dropped.push_back(label + " (larger than 64 MiB)");
      continue;
    }
    CarriedChunk chunk;
    if (to == Container::Riff)
      chunk.id.Data1 = id;
    else
      chunk.id = guid;
    chunk.bytes.resize(size_t(c.size));
    DWORD got = 0;
    if (FAILED(hr = KaFile_Seek(in, INT64(c.offset + (from == Container::Wave64 ? 24 : 8)),
                                FILE_BEGIN, nullptr)) ||
        FAILED(hr = KaFile_Read(in, chunk.bytes.data(), DWORD(c.size), &got)))
      return hr;
    if (got != c.size) {
      dropped.push_back(label + " (cut short by the end of the file)");
      continue;
    }
    out.push_back(std::move(chunk));
  }
  return S_OK;
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

namespace {

// The output extensions a renderer plug-in writes rather than the kernel.
std::string codecForName(const std::string& path) {
  const size_t dot = path.find_last_of('.');
  if (dot == std::string::npos || path.find('/', dot) != std::string::npos) return {};
  std::string ext = path.substr(dot + 1);
  for (char& c : ext) c = char(std::tolower(static_cast<unsigned char>(c)));
  if (ext == "oga") ext = "ogg";
  return ext == "flac" || ext == "ogg" || ext == "opus" || ext == "mp3" ? ext : std::string();
}

// Where the samples come from: a file the kernel reads, or the first audio stream of a
// file a plug-in reads.
struct Source {
  FileFacts facts;  // kernel files only
  MediaFile media;
  int stream = -1;  // media files only
  KASAMPLETYPE type = KASAMPLE_NONE;
  DWORD rate = 0, channelMask = 0;
  unsigned channels = 0, blockAlign = 0;
  uint64_t frames = 0;  // exact for kernel files, an estimate for some plug-in formats
  bool kernel = true;
};

// The sample type a renderer plug-in is given: FLAC keeps integer depths up to 24 bits,
// the lossy codecs take floats.
KASAMPLETYPE codecType(const std::string& codec, KASAMPLETYPE requested) {
  if (codec != "flac") return KASAMPLE_FLOAT32;
  switch (requested) {
    case KASAMPLE_PCM8:
    case KASAMPLE_PCM16:
      return KASAMPLE_PCM16;
    default:
      return KASAMPLE_PCM24;
  }
}

}  // namespace

HRESULT convertFile(const ConvertRequest& r) {
  TempFile spool, stdoutCopy;
  std::string input;
  HRESULT hr = readablePath(r.input, spool, input);
  if (FAILED(hr)) return hr;
  const bool toStdout = r.output == "-";
  const std::string codec = !r.codecContainer.empty() ? r.codecContainer
                            : r.container             ? std::string()
                                                      : codecForName(toStdout ? "" : r.output);
  if (toStdout && FAILED(hr = stdoutCopy.create(codec.empty() ? ".out" : "." + codec))) return hr;
  const std::string& output = toStdout ? stdoutCopy.path() : r.output;
  KAHFILE in = KA_INVALID_HFILE;
  hr = KaFile_OpenUtf8(input.c_str(), GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING,
                       FILE_FLAG_SEQUENTIAL_SCAN, &in);
  if (FAILED(hr)) return hr;
  struct Closer {
    KAHFILE f;
    ~Closer() { KaFile_Close(f); }
  } closeIn{in};

  Source src;
  if (const HRESULT kernelHr = inspectFile(in, src.facts); SUCCEEDED(kernelHr)) {
    std::string why;
    if (FAILED(hr = checkReadableAudio(src.facts, why))) return withReason(hr, why);
    src.type = KASAMPLETYPE(src.facts.format.sampleType);
    src.rate = src.facts.format.rate;
    src.channels = src.facts.format.channels;
    src.channelMask = src.facts.format.channelMask;
    src.blockAlign = src.facts.format.blockAlign;
    src.frames = src.facts.frames;
  } else {
    // Not a file the kernel reads itself: its first audio stream, through the plug-ins.
    src.kernel = false;
    hr = src.media.open(input);
    if (hr == KAERR_FIO_UNSUPPORTED || hr == KAERR_FIO_HOST_FORMAT) return kernelHr;
    if (FAILED(hr)) return hr;
    src.stream = src.media.firstOf(KAFIO_STREAM_AUDIO);
    if (src.stream < 0) return withReason(KAERR_UNSUPPORTED_FORMAT, "the file has no audio stream");
    const MediaStream& m = src.media.streams()[size_t(src.stream)];
    src.type = m.sampleType;
    src.rate = m.rate;
    src.channels = m.channels;
    src.channelMask = m.channelMask;
    src.blockAlign = m.blockAlign;
    src.frames = m.frames;
    if (!src.channels || !src.blockAlign) return KAERR_UNSUPPORTED_FORMAT;
  }
  const auto srcType = src.type;

  const Container container =
      r.container.value_or(containerForName(toStdout ? "" : r.output)
                               .value_or(src.kernel ? src.facts.kind : Container::Riff));
  const KASAMPLETYPE requested = r.type != KASAMPLE_NONE ? r.type : srcType;
  const KASAMPLETYPE dstType =
      codec.empty() ? storedType(container, requested) : codecType(codec, requested);
  if (dstType == KASAMPLE_NONE) return KAERR_UNSUPPORTED_FORMAT;

  alignas(8) unsigned char fmtBuf[KAWAVEFORMAT_BUFFER_SIZE] = {};
  auto* dstFormat = reinterpret_cast<_kawaveformat*>(fmtBuf);
  dstFormat->Init(src.rate, dstType, WORD(src.channels), src.channelMask, sizeof fmtBuf);

  // A pair without a direct converter goes through double precision, which is exact
  // for every source type.
  auto direct = KaAudio_GetCopyFunction2(dstType, srcType);
  auto toDouble = direct ? nullptr : KaAudio_GetCopyFunction2(KASAMPLE_FLOAT64, srcType);
  auto fromDouble = direct ? nullptr : KaAudio_GetCopyFunction2(dstType, KASAMPLE_FLOAT64);
  if (!direct && (!toDouble || !fromDouble)) return E_NOTIMPL;
  const float gain = r.gainDb == 0.0 ? 1.0f : float(std::pow(10.0, r.gainDb / 20.0));

  const unsigned channels = src.channels;
  const unsigned dstBlock = dstFormat->nBlockAlign;
  const uint64_t blockFrames =
      std::max<uint64_t>(1, kBlockBytes / std::max<unsigned>(src.blockAlign, dstBlock));
  std::vector<unsigned char> inBuf, outBuf;
  std::vector<double> mid;
  try {
    inBuf.resize(blockFrames * src.blockAlign);
    outBuf.resize(blockFrames * dstBlock);
    if (!direct) mid.resize(blockFrames * channels);
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }

  // The destination: the kernel's writer, or a renderer plug-in.
  AudioWriter out;
  ManagerRun renderers;
  IKaRenderFile* renderer = nullptr;
  struct Releaser {
    IKaRenderFile*& r;
    ~Releaser() {
      if (r) r->Release();
    }
  } releaseRenderer{renderer};
  FormatFacts dstStored;
  // A renderer's file is written beside the output and replaces it only when finished.
  OutputFile rendered;
  std::string renderPath;
  struct Remover {
    const std::string& path;
    bool keep = false;
    ~Remover() {
      std::error_code ec;
      if (!keep && !path.empty()) std::filesystem::remove(path, ec);
    }
  } removeRendered{renderPath};
  if (codec.empty()) {
    // A wave or AIFF file that its 32-bit sizes cannot describe is refused before anything
    // is written (Wave64 has no such limit).
    const uint64_t outBytes = src.frames * dstBlock;
    if (container != Container::Wave64 && outBytes > 0xFFFFFFFFull - 256)
      return KAERR_RIFF_TOO_LARGE;
    // Metadata travels: every chunk that does not describe the samples' format goes along.
    std::vector<CarriedChunk> carried;
    std::vector<std::string> dropped;
    if (src.kernel) {
      if (FAILED(hr = carriedChunks(in, src.facts.kind, container, carried, dropped))) return hr;
      if (src.facts.kind == Container::Aiff && container != Container::Aiff &&
          !src.facts.info.empty())
        dropped.push_back("AIFF text chunks (NAME, AUTH, (c) , ANNO)");
    }
    for (const std::string& d : dropped)
      std::fprintf(stderr, "ostra: not carried: %s\n", d.c_str());
    if (FAILED(hr = out.create(output, container, *dstFormat, {input}, std::move(carried))))
      return withReason(hr, out.refusal());
    dstStored.bigEndianFloat = out.floatsBigEndian();
    dstStored.bits = WORD(8 * KaAudio_BytesFromSampleType(dstType));
  } else {
    std::string why;
    if (FAILED(hr = rendered.reserve(output, {input}, why))) return withReason(hr, why);
    if (FAILED(hr = startManager(false, false, &renderers))) return hr;
    const std::u16string ext(codec.begin(), codec.end());
    hr = renderers.manager->CreateRendererForExtension(ext.c_str(), &renderer, nullptr);
    if (FAILED(hr)) return withReason(hr, "no renderer plug-in writes ." + codec + " files");
    // The renderer knows the container by the extension, so it writes under one.
    renderPath = rendered.path() + "." + codec;
    const std::u16string wide = widenUtf8(renderPath);
    hr = renderer->Create(wide.c_str(), dstFormat, 0);
    if (FAILED(hr))
      return withReason(hr, codec == "opus" ? "Opus takes 8, 12, 16, 24 or 48 kHz audio"
                                            : "the renderer refused the format");
  }
  if (src.kernel && FAILED(hr = KaFile_Seek(in, INT64(src.facts.dataOffset), FILE_BEGIN, nullptr)))
    return hr;
  Progress progress("converting", src.frames);
  for (uint64_t done = 0;;) {
    uint64_t n = blockFrames;
    if (src.kernel) {
      n = std::min(blockFrames, src.frames - done);
      if (!n) break;
      DWORD got = 0;
      hr = KaFile_Read(in, inBuf.data(), DWORD(n * src.blockAlign), &got);
      if (FAILED(hr)) return hr;
      if (got != n * src.blockAlign) return KAERR_READ_FAILED;
      swapStoredFloats(src.facts.format, inBuf.data(), got);
    } else {
      DWORD got = 0;
      if (FAILED(hr = src.media.readAudio(src.stream, done, inBuf.data(), DWORD(n), &got)))
        return hr;
      if (!got) break;
      n = got;
    }
    const int samples = int(n * channels);
    if (direct) {
      direct(outBuf.data(), inBuf.data(), samples, gain);
    } else {
      toDouble(mid.data(), inBuf.data(), samples, gain);
      fromDouble(outBuf.data(), mid.data(), samples, 1.0f);
    }
    if (renderer) {
      if (FAILED(hr = renderer->WriteAudio(outBuf.data(), DWORD(n)))) return hr;
    } else {
      if (out.floatsBigEndian()) swapStoredFloats(dstStored, outBuf.data(), size_t(n * dstBlock));
      if (FAILED(hr = out.write(outBuf.data(), size_t(n * dstBlock)))) return hr;
    }
    done += n;
    progress.update(std::min(done, src.frames));
  }
  progress.finish();
  if (renderer) {
    hr = renderer->Finish();
    if (FAILED(hr)) return hr;
    std::error_code ec;
    std::filesystem::rename(renderPath, rendered.path(), ec);
    if (ec)
      return withReason(KAERR_WRITE_FAILED, "cannot rename " + renderPath + ": " + ec.message());
    std::string why;
    if (FAILED(hr = rendered.commit(why))) return withReason(hr, why);
  } else {
    hr = out.finish();
    if (FAILED(hr)) return withReason(hr, out.refusal());
  }
  return toStdout ? copyToStdout(output) : S_OK;
}

namespace {

struct Options {
  std::string input, output, type, container;
  double gain = 0.0;
};

void setup(CLI::App& cmd) {
  static Options o;
  cmd.add_option("IN", o.input,
                 "Audio file: wave, Wave64 and AIFF by the kernel, others through the plug-ins (- "
                 "reads standard input)")
      ->required()
      ->check(existingFileOrStdin());
  cmd.add_option("OUT", o.output, "New file (never the input; - writes standard output)")
      ->required();
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
  cmd.add_option("--container", o.container,
                 "Container of OUT (default: as OUT's extension says, else that of IN)")
      ->check(CLI::IsMember({"wav", "w64", "aiff", "flac", "ogg", "opus", "mp3"}));
  cmd.callback([] {
    ConvertRequest r;
    r.input = o.input;
    r.output = o.output;
    r.type = o.type.empty() ? KASAMPLE_NONE : sampleTypeFromName(o.type);
    if (o.container == "wav") r.container = Container::Riff;
    if (o.container == "w64") r.container = Container::Wave64;
    if (o.container == "aiff") r.container = Container::Aiff;
    if (o.container == "flac" || o.container == "ogg" || o.container == "opus" ||
        o.container == "mp3")
      r.codecContainer = o.container;
    r.gainDb = o.gain;
    const HRESULT hr = convertFile(r);
    if (FAILED(hr)) reportFailure(hr, o.input + " -> " + o.output);
  });
}

OSTRA_COMMAND("convert",
              "Convert an audio file to another sample type or container, in bounded memory",
              setup);

}  // namespace
}  // namespace ostra::cli
