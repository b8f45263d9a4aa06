#include "writer.h"

#include <cstring>

#include "ostra/aiff.h"
#include "ostra/kaerror.h"
#include "ostra/kaplatform.h"
#include "ostra/kawave.h"
#include "ostra/riff.h"
#include "ostra/riff64.h"
#include "text.h"

namespace ostra::cli {
namespace {

// The header in front of the samples. The set-up functions write the 18-byte `fmt `
// chunk and, when asked for a longer header, a junk chunk up to the data chunk; over that
// room go the extensible `fmt ` (RIFF 12 + 48, Wave64 40 + 64), a `fact` chunk (RIFF), the
// carried chunks and, in Wave64, a junk chunk over what is left. The Wave64 junk chunk
// keeps at least 8 data bytes because ffmpeg refuses a chunk whose size word is 24.
constexpr UINT64 kFactChunk = 12;
constexpr UINT64 kW64Junk = 32;

uint64_t carriedBytes(const std::vector<CarriedChunk>& carried, bool w64) {
  uint64_t n = 0;
  for (const CarriedChunk& c : carried)
    n += w64 ? 24 + ((c.bytes.size() + 7) & ~size_t(7)) : 8 + c.bytes.size() + (c.bytes.size() & 1);
  return n;
}

const _kawaveformat& kwf(const unsigned char* buf) {
  return *reinterpret_cast<const _kawaveformat*>(buf);
}

// Wave files with more than two channels get the extensible description other writers
// give them. Wave64 readers know it less well (libsndfile, and sox through it, take
// extensible float for integers), so there it is kept for what only it can say.
bool needsExtensible(Container c, const _kawaveformat& f) {
  const bool maskSays =
      f.dwChannelMask != 0 && f.dwChannelMask != KaAudio_DefaultChannelMask(f.nChannels);
  if (c == Container::Aiff) return false;
  // Wave64 readers take extensible floating point for integers: float stays plain there
  // (the channel mask is not written).
  if (c == Container::Wave64 && f.SampleType >= KASAMPLE_FLOAT32 &&
      f.SampleType <= KASAMPLE_FLOAT64)
    return false;
  if (f.SampleType == KASAMPLE_PCM24IN32 || maskSays) return true;
  return c == Container::Riff && f.nChannels > 2;
}

}  // namespace

KASAMPLETYPE storedType(Container container, KASAMPLETYPE t) {
  if (container != Container::Aiff) {
    switch (t) {
      case KASAMPLE_MAC16:
        return KASAMPLE_PCM16;
      case KASAMPLE_MAC24:
        return KASAMPLE_PCM24;
      case KASAMPLE_MAC32:
        return KASAMPLE_PCM32;
      case KASAMPLE_PCM8SIGNED:
        return KASAMPLE_PCM8;
      case KASAMPLE_PCM8:
      case KASAMPLE_PCM16:
      case KASAMPLE_PCM24:
      case KASAMPLE_PCM32:
      case KASAMPLE_PCM24IN32:
      case KASAMPLE_FLOAT32:
      case KASAMPLE_FLOAT64:
        return t;
      default:
        return KASAMPLE_NONE;
    }
  }
  switch (t) {
    case KASAMPLE_PCM8:
    case KASAMPLE_PCM8SIGNED:
      return KASAMPLE_PCM8SIGNED;
    case KASAMPLE_PCM16:
    case KASAMPLE_MAC16:
      return KASAMPLE_MAC16;
    case KASAMPLE_PCM24:
    case KASAMPLE_MAC24:
      return KASAMPLE_MAC24;
    case KASAMPLE_PCM32:
    case KASAMPLE_MAC32:
      return KASAMPLE_MAC32;
    case KASAMPLE_FLOAT32:
    case KASAMPLE_FLOAT64:
      return t;  // written as AIFC 'fl32' / 'fl64'
    default:
      return KASAMPLE_NONE;
  }
}

AudioWriter::~AudioWriter() { abandon(); }

HRESULT AudioWriter::create(const std::string& path, Container container,
                            const _kawaveformat& format, const std::vector<std::string>& inputs,
                            std::vector<CarriedChunk> carried) {
  abandon();
  carried_ = container == Container::Aiff ? std::vector<CarriedChunk>{} : std::move(carried);
  why_.clear();
  if (HRESULT hr = out_.reserve(path, inputs, why_); FAILED(hr)) return hr;
  const std::string& temp = out_.path();
  container_ = container;
  KaAudio_GeneralCopyKaWaveFormat(reinterpret_cast<_kawaveformat*>(format_), sizeof format_,
                                  &format);
  extensible_ = needsExtensible(container, format);
  fact_ = container == Container::Riff && (extensible_ || format.SampleType == KASAMPLE_FLOAT32 ||
                                           format.SampleType == KASAMPLE_FLOAT64);
  const std::u16string wpath = toUtf16(temp);
  const _kawaveformat& f = kwf(format_);
  HRESULT hr;
  const bool w64 = container == Container::Wave64;
  fmtEnd_ = w64 ? (extensible_ ? 104 : 88) : (extensible_ ? 60 : 38);
  const uint64_t chunks = (fact_ ? kFactChunk : 0) + carriedBytes(carried_, w64);
  switch (container) {
    case Container::Riff:
      headerLength_ = fmtEnd_ + chunks + 8;
      if (headerLength_ > 0xFFFF0000u) return KAERR_RIFF_TOO_LARGE;
      hr = headerLength_ > 46
               ? KaInitializeWavWithJunk(wpath.c_str(), &f, CREATE_ALWAYS, DWORD(headerLength_))
               : KaInitializeWav(wpath.c_str(), &f, CREATE_ALWAYS);
      break;
    case Container::Wave64:
      headerLength_ =
          extensible_ || chunks ? (fmtEnd_ + chunks + kW64Junk + 24 + 7) & ~uint64_t(7) : 112;
      hr = headerLength_ > 112
               ? KaInitializeWav64WithJunk(wpath.c_str(), &f, CREATE_ALWAYS, headerLength_)
               : KaInitializeWav64(wpath.c_str(), &f, CREATE_ALWAYS);
      break;
    case Container::Aiff: {
      WAVEFORMATEX wfx{};
      if (KaAudio_GeneralCopyWfx(&wfx, sizeof wfx, &f, KAWFCOPY_WFX_NOMASK) < 0)
        return KAERR_UNSUPPORTED_FORMAT;
      aifcFloat_ = wfx.wFormatTag == WAVE_FORMAT_IEEE_FLOAT;
      headerLength_ = aifcFloat_ ? KA_AIFC_FLOAT_HEADER_LENGTH : KA_AIFF_HEADER_LENGTH;
      hr = aifcFloat_ ? KaInitializeAifcFloat(wpath.c_str(), &wfx, CREATE_ALWAYS)
                      : KaInitializeAiff(wpath.c_str(), &wfx, CREATE_ALWAYS);
      break;
    }
    default:
      return E_INVALIDARG;
  }
  if (FAILED(hr)) {
    abandon();
    return hr;
  }
  hr = KaFile_OpenUtf8(temp.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, OPEN_EXISTING,
                       FILE_FLAG_SEQUENTIAL_SCAN, &file_);
  if (SUCCEEDED(hr)) hr = rewriteHeader(0);
  if (SUCCEEDED(hr)) hr = KaFile_Seek(file_, INT64(headerLength_), FILE_BEGIN, nullptr);
  if (FAILED(hr)) abandon();
  return hr;
}

// The chunks in front of the samples that the set-up functions do not write, over the room
// their junk chunk reserved (the header rewrite at the end zeroes that room, so this runs
// again after it).
HRESULT AudioWriter::rewriteHeader(uint64_t frames) {
  const bool w64 = container_ == Container::Wave64;
  if (container_ == Container::Aiff || (!extensible_ && !fact_ && carried_.empty())) return S_OK;
  HRESULT hr = S_OK;
  if (extensible_) {
    WAVEFORMATEXTENSIBLE ext{};
    if (KaAudio_GeneralCopyWfx(&ext.Format, sizeof ext, &kwf(format_), KAWFCOPY_EXT) < 0)
      return KAERR_UNSUPPORTED_FORMAT;
    hr = KaFile_Seek(file_, w64 ? 40 : 12, FILE_BEGIN, nullptr);
    if (SUCCEEDED(hr))
      hr = w64 ? riff64_WriteChunk(file_, RIFF64_GUID_FMT, &ext, sizeof ext)
               : riff_WriteChunk(file_, RIFF_ID_FMT, &ext, sizeof ext);
  }
  if (SUCCEEDED(hr)) hr = KaFile_Seek(file_, INT64(fmtEnd_), FILE_BEGIN, nullptr);
  if (SUCCEEDED(hr) && fact_) {
    const DWORD count = DWORD(std::min<uint64_t>(frames, 0xFFFFFFFFu));
    hr = riff_WriteChunk(file_, KaFourCC('f', 'a', 'c', 't'), &count, 4);
  }
  for (const CarriedChunk& c : carried_) {
    if (FAILED(hr)) break;
    const auto size = DWORD(c.bytes.size());
    hr = w64 ? riff64_WriteChunk(file_, c.id, c.bytes.data(), size)
             : riff_WriteChunk(file_, c.id.Data1, c.bytes.data(), size);
  }
  if (SUCCEEDED(hr) && w64) {
    INT64 at = 0;
    hr = KaFile_GetPosition(file_, &at);
    if (SUCCEEDED(hr))
      hr = riff64_WriteChunkHeader(file_, RIFF64_GUID_JUNK, headerLength_ - 24 - UINT64(at) - 24);
  }
  return hr;
}

HRESULT AudioWriter::write(const void* bytes, size_t count) {
  if (file_ == KA_INVALID_HFILE) return E_UNEXPECTED;
  const auto* p = static_cast<const unsigned char*>(bytes);
  while (count) {
    const DWORD n = DWORD(std::min<size_t>(count, 1u << 30));
    DWORD done = 0;
    const HRESULT hr = KaFile_Write(file_, p, n, &done);
    if (FAILED(hr)) return hr;
    if (done != n) return KAERR_WRITE_FAILED;
    p += n;
    count -= n;
    written_ += n;
  }
  return S_OK;
}

HRESULT AudioWriter::finish() {
  if (file_ == KA_INVALID_HFILE) return E_UNEXPECTED;
  const _kawaveformat& f = kwf(format_);
  HRESULT hr = S_OK;
  switch (container_) {
    case Container::Riff:
      if (headerLength_ + written_ > uint64_t(RIFF_MAX_SIZE) + 8) return KAERR_RIFF_TOO_LARGE;
      hr = KaInsertWavHeader(file_, &f, DWORD(written_), DWORD(headerLength_));
      break;
    case Container::Wave64:
      hr = KaInsertW64Header(file_, &f, written_, headerLength_);
      break;
    case Container::Aiff: {
      if (written_ > 0xFFFFFFFFu - headerLength_) return KAERR_RIFF_TOO_LARGE;
      WAVEFORMATEX wfx{};
      KaAudio_GeneralCopyWfx(&wfx, sizeof wfx, &f, KAWFCOPY_WFX_NOMASK);
      hr = aifcFloat_ ? KaInsertAifcFloatHeader(file_, &wfx, DWORD(written_))
                      : KaInsertAiffHeader(file_, &wfx, DWORD(written_));
      break;
    }
  }
  if (SUCCEEDED(hr)) hr = rewriteHeader(f.nBlockAlign ? written_ / f.nBlockAlign : 0);
  const HRESULT closed = KaFile_Close(file_);
  file_ = KA_INVALID_HFILE;
  if (SUCCEEDED(hr)) hr = closed;
  if (SUCCEEDED(hr)) hr = out_.commit(why_);
  if (FAILED(hr)) out_.abandon();
  return hr;
}

void AudioWriter::abandon() {
  if (file_ != KA_INVALID_HFILE) {
    KaFile_Close(file_);
    file_ = KA_INVALID_HFILE;
  }
  out_.abandon();
}

}  // namespace ostra::cli
