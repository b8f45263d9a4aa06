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

// Header lengths that leave room for a 40-byte extensible `fmt ` chunk: RIFF 12 + fmt 48
// + data 8; Wave64 40 + fmt 64 + junk 32 + data 24. The Wave64 junk chunk keeps 8 data
// bytes because ffmpeg refuses a chunk whose size word is 24 (an empty chunk).
constexpr DWORD kRiffExtensibleHeader = 68;
constexpr UINT64 kW64ExtensibleHeader = 160;
constexpr UINT64 kW64JunkBytes = 8;

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
                            const _kawaveformat& format) {
  path_ = path;
  container_ = container;
  KaAudio_GeneralCopyKaWaveFormat(reinterpret_cast<_kawaveformat*>(format_), sizeof format_,
                                  &format);
  extensible_ = needsExtensible(container, format);
  const std::u16string wpath = toUtf16(path);
  const _kawaveformat& f = kwf(format_);
  HRESULT hr;
  switch (container) {
    case Container::Riff:
      headerLength_ = extensible_ ? kRiffExtensibleHeader : 46;
      hr = extensible_
               ? KaInitializeWavWithJunk(wpath.c_str(), &f, CREATE_ALWAYS, kRiffExtensibleHeader)
               : KaInitializeWav(wpath.c_str(), &f, CREATE_ALWAYS);
      break;
    case Container::Wave64:
      headerLength_ = extensible_ ? kW64ExtensibleHeader : 112;
      hr = extensible_
               ? KaInitializeWav64WithJunk(wpath.c_str(), &f, CREATE_ALWAYS, kW64ExtensibleHeader)
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
  if (FAILED(hr)) return hr;
  hr = KaFile_OpenUtf8(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, OPEN_EXISTING,
                       FILE_FLAG_SEQUENTIAL_SCAN, &file_);
  if (SUCCEEDED(hr) && extensible_) hr = rewriteExtensible();
  if (SUCCEEDED(hr)) hr = KaFile_Seek(file_, INT64(headerLength_), FILE_BEGIN, nullptr);
  if (FAILED(hr)) abandon();
  return hr;
}

HRESULT AudioWriter::rewriteExtensible() {
  WAVEFORMATEXTENSIBLE ext{};
  if (KaAudio_GeneralCopyWfx(&ext.Format, sizeof ext, &kwf(format_), KAWFCOPY_EXT) < 0)
    return KAERR_UNSUPPORTED_FORMAT;
  HRESULT hr;
  if (container_ == Container::Riff) {
    hr = KaFile_Seek(file_, 12, FILE_BEGIN, nullptr);
    if (SUCCEEDED(hr)) hr = riff_WriteChunk(file_, RIFF_ID_FMT, &ext, sizeof ext);
  } else {
    hr = KaFile_Seek(file_, 40, FILE_BEGIN, nullptr);
    if (SUCCEEDED(hr)) hr = riff64_WriteChunk(file_, RIFF64_GUID_FMT, &ext, sizeof ext);
    // The junk chunk's data bytes are the zeros the set-up function wrote there.
    if (SUCCEEDED(hr)) hr = riff64_WriteChunkHeader(file_, RIFF64_GUID_JUNK, kW64JunkBytes);
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

HRESULT AudioWriter::finish(const std::vector<TextItem>& info) {
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
  if (SUCCEEDED(hr) && extensible_) hr = rewriteExtensible();
  if (SUCCEEDED(hr) && container_ == Container::Riff && !info.empty()) {
    // INFO goes after the samples (and their pad byte), so the header length stays.
    _summarylisttag list{};
    for (const TextItem& item : info) {
      const std::u16string text = toUtf16(item.text);
      if (FAILED(hr = KaSummary_SetItem(&list, item.rawId, text.c_str()))) break;
    }
    DWORD listBytes = 0;
    const DWORD pad = DWORD(written_ & 1);
    if (SUCCEEDED(hr))
      hr = KaFile_Seek(file_, INT64(headerLength_ + written_), FILE_BEGIN, nullptr);
    if (SUCCEEDED(hr) && pad) {
      const unsigned char zero = 0;
      DWORD done = 0;
      hr = KaFile_Write(file_, &zero, 1, &done);
    }
    if (SUCCEEDED(hr)) hr = KaSummary_Save(file_, &list, &listBytes);
    if (SUCCEEDED(hr)) hr = riff_UpdateRIFFSize(file_, INT64(pad) + listBytes);
    KaSummary_Free(&list);
  }
  const HRESULT closed = KaFile_Close(file_);
  file_ = KA_INVALID_HFILE;
  if (SUCCEEDED(hr)) hr = closed;
  if (FAILED(hr))
    KaFile_DeleteUtf8(path_.c_str());
  else
    path_.clear();
  return hr;
}

void AudioWriter::abandon() {
  if (file_ != KA_INVALID_HFILE) {
    KaFile_Close(file_);
    file_ = KA_INVALID_HFILE;
  }
  if (!path_.empty()) KaFile_DeleteUtf8(path_.c_str());
  path_.clear();
}

}  // namespace ostra::cli
