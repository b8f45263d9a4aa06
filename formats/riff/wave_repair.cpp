// Repair of wave and Wave64 files whose header sizes were never written (the recorder
// stopped before finishing the file): the stored format is sanity-corrected, the start
// of the samples is found by a bounded chunk search or, failing that, a raw scan for
// the data id, and the header is rewritten through KaInsertWavHeader / KaInsertW64Header.
#include <algorithm>
#include <cstring>
#include <vector>

#include "formats/riff/internal/chunk_walker.h"
#include "formats/riff/internal/chunk_walker64.h"
#include "formats/riff/internal/iff_io.h"
#include "formats/riff/internal/source_parsers.h"
#include "formats/riff/internal/wave_format.h"
#include "ostra/kawave.h"

using namespace ostra::riff::iffio;
using ostra::riff::ByteSource;
using ostra::riff::FileSource;

namespace {

constexpr DWORD kScanBlock = 4096;

WAVEFORMATEX defaultFormat(const WAVEFORMATEX* given) {
  if (given) return *given;
  return WAVEFORMATEX{WAVE_FORMAT_PCM, 2, 44100, 44100 * 4, 4, 16, 0};
}

// Reads the 18 stored bytes and corrects every field that cannot be right.
HRESULT readCorrectedFormat(ByteSource& f, INT64 offset, const WAVEFORMATEX& d, WAVEFORMATEX* out) {
  BYTE b[18];
  if (HRESULT hr = seekTo(f, offset); FAILED(hr)) return hr;
  if (HRESULT hr = readExact(f, b, sizeof b); FAILED(hr)) return hr;
  WAVEFORMATEX w{};
  w.wFormatTag = WORD(b[0] | (b[1] << 8));
  w.nChannels = WORD(b[2] | (b[3] << 8));
  w.nSamplesPerSec = le32(b + 4);
  w.wBitsPerSample = WORD(b[14] | (b[15] << 8));
  if (w.nSamplesPerSec < 2000 || w.nSamplesPerSec > 192000) w.nSamplesPerSec = d.nSamplesPerSec;
  if (w.nChannels != 1 && w.nChannels != 2) w.nChannels = d.nChannels;
  if (w.wFormatTag != WAVE_FORMAT_PCM && w.wFormatTag != WAVE_FORMAT_IEEE_FLOAT)
    w.wFormatTag = d.wFormatTag;
  const WORD bits = w.wBitsPerSample;
  if (w.wFormatTag == WAVE_FORMAT_PCM && bits != 8 && bits != 16 && bits != 24 && bits != 32)
    w.wBitsPerSample = d.wBitsPerSample < 32 ? d.wBitsPerSample : 32;
  if (w.wFormatTag == WAVE_FORMAT_IEEE_FLOAT && bits != 32 && bits != 64)
    w.wBitsPerSample = d.wBitsPerSample <= 32 ? 32 : 64;
  w.cbSize = 0;
  w.nBlockAlign = WORD((w.wBitsPerSample / 8) * w.nChannels);
  w.nAvgBytesPerSec = DWORD(w.nBlockAlign) * w.nSamplesPerSec;
  *out = w;
  return S_OK;
}

// Scans raw bytes from `from` for `id` (idLength bytes) in 4096-byte blocks that overlap
// by idLength. *headerLength = match + idLength + sizeWord; limit when the scan passes
// limit first; KAERR_NOT_FOUND when the file ends first.
HRESULT scanForId(ByteSource& f, UINT64 from, UINT64 limit, const BYTE* id, DWORD idLength,
                  DWORD sizeWord, UINT64* headerLength) {
  std::vector<BYTE> block(kScanBlock);
  UINT64 p = from;
  while (p < limit) {
    DWORD got = 0;
    if (HRESULT hr = seekTo(f, INT64(p)); FAILED(hr)) return hr;
    if (HRESULT hr = readSome(f, block.data(), kScanBlock, &got); FAILED(hr)) return hr;
    for (DWORD i = 0; i + idLength <= got; ++i) {
      if (std::memcmp(block.data() + i, id, idLength) == 0) {
        *headerLength = p + i + idLength + sizeWord;
        return S_OK;
      }
    }
    if (got < kScanBlock) return KAERR_NOT_FOUND;
    p += kScanBlock - idLength;
  }
  *headerLength = limit;
  return S_OK;
}

UINT64 wholeBlocks(UINT64 bytes, WORD blockAlign) {
  return blockAlign ? bytes - bytes % blockAlign : bytes;
}

HRESULT fixWav(ByteSource& f, const WAVEFORMATEX* given, DWORD maxHeaderLength) {
  const WAVEFORMATEX d = defaultFormat(given);
  const UINT64 length = fileSize(f);
  const UINT64 limit = std::min<UINT64>(length, maxHeaderLength);
  WAVEFORMATEX w;
  if (HRESULT hr = readCorrectedFormat(f, 20, d, &w); FAILED(hr)) return hr;

  UINT64 header = 0;
  DWORD budget = DWORD(limit), size = 0;
  if (SUCCEEDED(seekTo(f, 38)) &&
      SUCCEEDED(ostra::riff::findChunk(f, RIFF_ID_DATA, &size, &budget))) {
    header = UINT64(tell(f));
  } else {
    static const BYTE kData[4] = {'d', 'a', 't', 'a'};
    if (HRESULT hr = scanForId(f, 38, limit, kData, 4, 4, &header); FAILED(hr)) return hr;
  }
  // A file past the 32-bit limit keeps what the RIFF size can still describe.
  UINT64 data = length > header ? length - header : 0;
  if (header >= 8 && header - 8 < RIFF_MAX_SIZE)
    data = std::min<UINT64>(data, RIFF_MAX_SIZE - (header - 8));
  data = wholeBlocks(data, w.nBlockAlign);
  if (header > 0xFFFFFFFFull) return KAERR_BAD_CHUNK;
  return ostra::riff::insertWavHeader(f, &w, DWORD(data), DWORD(header));
}

HRESULT fixW64(ByteSource& f, const WAVEFORMATEX* given, UINT64 maxHeaderLength) {
  const WAVEFORMATEX d = defaultFormat(given);
  const UINT64 length = fileSize(f);
  const UINT64 limit = std::min<UINT64>(length, maxHeaderLength & ~UINT64(7));
  WAVEFORMATEX w;
  if (HRESULT hr = readCorrectedFormat(f, 64, d, &w); FAILED(hr)) return hr;

  UINT64 header = 0, size = 0;
  INT64 budget = INT64(std::min<UINT64>(limit, ~UINT64(0) >> 1));
  if (SUCCEEDED(seekTo(f, 88)) &&
      SUCCEEDED(ostra::riff64::findChunk(f, RIFF64_GUID_DATA, &size, &budget))) {
    header = UINT64(tell(f));
  } else {
    BYTE id[16];
    std::memcpy(id, &RIFF64_GUID_DATA, 16);
    if (HRESULT hr = scanForId(f, 88, limit, id, 16, 8, &header); FAILED(hr)) return hr;
  }
  const UINT64 data = wholeBlocks(length > header ? length - header : 0, w.nBlockAlign);
  return ostra::riff::insertW64Header(f, &w, data, header);
}

template <typename Fix>
HRESULT keepingPosition(ByteSource& f, Fix fix) {
  try {
    const INT64 saved = tell(f);
    const HRESULT hr = fix();
    if (saved >= 0) seekTo(f, saved);
    return hr;
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
}

}  // namespace

HRESULT ostra::riff::fixTrashedWav(ByteSource& file, const WAVEFORMATEX* wfx,
                                   DWORD maxHeaderLength) {
  return keepingPosition(file, [&] { return fixWav(file, wfx, maxHeaderLength); });
}

HRESULT ostra::riff::fixTrashedW64(ByteSource& file, const WAVEFORMATEX* wfx,
                                   UINT64 maxHeaderLength) {
  return keepingPosition(file, [&] { return fixW64(file, wfx, maxHeaderLength); });
}

HRESULT KaFixTrashedWav(KAHFILE file, const WAVEFORMATEX* wfx, DWORD maxHeaderLength) noexcept {
  FileSource s(file);
  return ostra::riff::fixTrashedWav(s, wfx, maxHeaderLength);
}

HRESULT KaFixTrashedW64(KAHFILE file, const WAVEFORMATEX* wfx, UINT64 maxHeaderLength) noexcept {
  FileSource s(file);
  return ostra::riff::fixTrashedW64(s, wfx, maxHeaderLength);
}

HRESULT KaFixTrashedWav(KAHFILE file, const _kawaveformat* wfx, DWORD maxHeaderLength) noexcept {
  if (!wfx)
    return KaFixTrashedWav(file, static_cast<const WAVEFORMATEX*>(nullptr), maxHeaderLength);
  ostra::riff::wave::PlainFormat plain(wfx);
  return FAILED(plain.hr) ? plain.hr : KaFixTrashedWav(file, plain.get(), maxHeaderLength);
}

HRESULT KaFixTrashedW64(KAHFILE file, const _kawaveformat* wfx, UINT64 maxHeaderLength) noexcept {
  if (!wfx)
    return KaFixTrashedW64(file, static_cast<const WAVEFORMATEX*>(nullptr), maxHeaderLength);
  ostra::riff::wave::PlainFormat plain(wfx);
  return FAILED(plain.hr) ? plain.hr : KaFixTrashedW64(file, plain.get(), maxHeaderLength);
}
