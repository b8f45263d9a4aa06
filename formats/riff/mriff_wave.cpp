// Wave headers in memory: mriff_WriteWaveHeader builds one in a _tMRIFF buffer,
// mriff_GetWfx parses a complete wave image.
#include <algorithm>
#include <cstring>

#include "formats/riff/internal/chunk_walker.h"
#include "ostra/kaerror.h"
#include "ostra/mriff.h"

namespace w = ostra::riff;
using ostra::riff::MemorySource;

namespace {

// The smallest image that can be a wave file: RIFF/WAVE, a 16-byte fmt, a data header.
constexpr uint32_t kMinWaveImage = 12 + 8 + 16 + 8;
// The shortest fmt chunk accepted (the 14-byte description without bits per sample).
constexpr uint32_t kMinFmtChunk = 14;

struct WaveImage {
  uint32_t fmtOffset = 0, fmtSize = 0, dataOffset = 0, dataSize = 0;
};

// Locates fmt and data within the RIFF size; both searches start at the first sub-chunk
// so that a data chunk written before fmt is found too.
HRESULT locate(const void* image, DWORD imageSize, WaveImage* out) {
  if (!image) return E_POINTER;
  BYTE* p = const_cast<BYTE*>(static_cast<const BYTE*>(image));  // only ever read
  _tMRIFF r{p, p, p + imageSize, p + imageSize, imageSize, imageSize};
  MemorySource s(&r);
  uint32_t body = 0, form = 0;
  if (HRESULT hr = w::readFileId(s, &body, &form); FAILED(hr)) return hr;
  if (form != RIFF_ID_WAVE) return E_FAIL;
  if (imageSize < kMinWaveImage) return KAERR_NOT_FOUND;
  uint32_t budget = body;
  if (HRESULT hr = w::findChunk(s, RIFF_ID_FMT, &out->fmtSize, &budget); FAILED(hr)) return hr;
  out->fmtOffset = uint32_t(s.tell());
  if (out->fmtSize < kMinFmtChunk) return KAERR_CORRUPT_FILE;
  s.seek(12);
  budget = body;
  uint32_t claimed = 0;
  if (HRESULT hr = w::findChunk(s, RIFF_ID_DATA, &claimed, &budget); FAILED(hr)) return hr;
  out->dataOffset = uint32_t(s.tell());
  out->dataSize = std::min(claimed, imageSize - out->dataOffset);
  return S_OK;
}

}  // namespace

HRESULT mriff_WriteWaveHeader(_tMRIFF* record, const WAVEFORMATEX* format, DWORD dataSize,
                              DWORD extraSize) noexcept {
  if (!record) return E_POINTER;
  if (!format) return E_INVALIDARG;
  MemorySource s(record);
  WAVEFORMATEX body = *format;
  const bool pcm = format->wFormatTag == WAVE_FORMAT_PCM;
  const uint32_t fmtSize = pcm ? 16 : 18;
  if (pcm) {
    const uint32_t bytes = format->wBitsPerSample / 8;
    body = WAVEFORMATEX{WAVE_FORMAT_PCM,
                        format->nChannels,
                        format->nSamplesPerSec,
                        uint32_t(format->nChannels) * format->nSamplesPerSec * bytes,
                        WORD(bytes * format->nChannels),
                        format->wBitsPerSample,
                        0};
  }
  const uint64_t riffSize = uint64_t(extraSize) + 20 + fmtSize + dataSize;
  const uint32_t stated = uint32_t(std::min<uint64_t>(riffSize + (riffSize & 1), UINT32_MAX));
  (void)w::writeFileId(s, RIFF_ID_WAVE, stated);
  (void)w::writeHeader(s, RIFF_ID_FMT, fmtSize);
  if (!s.writeAll(&body, fmtSize)) return KAERR_WRITE_FAILED;
  (void)w::writeHeader(s, RIFF_ID_DATA, dataSize);
  return S_OK;
}

HRESULT mriff_WriteWaveHeader(_tMRIFF* record, const _kawaveformat* format, DWORD dataSize,
                              DWORD extraSize) noexcept {
  if (!record) return E_POINTER;
  if (!format) return E_INVALIDARG;
  alignas(8) BYTE buffer[KAWAVEFORMAT_BUFFER_SIZE] = {};
  auto* wfx = reinterpret_cast<WAVEFORMATEX*>(buffer);
  if (KaAudio_GeneralCopyWfx(wfx, sizeof buffer, format, KAWFCOPY_WFX_NOMASK) < 0)
    return KAERR_UNSUPPORTED_FORMAT;
  return mriff_WriteWaveHeader(record, wfx, dataSize, extraSize);
}

HRESULT mriff_GetWfx(WAVEFORMATEX* format, const void* image, DWORD imageSize, DWORD* dataOffset,
                     DWORD* dataSize) noexcept {
  WaveImage wave;
  if (HRESULT hr = locate(image, imageSize, &wave); FAILED(hr)) return hr;
  if (format) {
    std::memset(format, 0, sizeof *format);
    std::memcpy(format, static_cast<const BYTE*>(image) + wave.fmtOffset,
                std::min<uint32_t>(wave.fmtSize, sizeof *format));
  }
  if (dataOffset) *dataOffset = wave.dataOffset;
  if (dataSize) *dataSize = wave.dataSize;
  return S_OK;
}

HRESULT mriff_GetWfx(_kawaveformat* format, const void* image, DWORD imageSize, DWORD* dataOffset,
                     DWORD* dataSize, DWORD formatSize) noexcept {
  WaveImage wave;
  if (HRESULT hr = locate(image, imageSize, &wave); FAILED(hr)) return hr;
  if (format) {
    // The whole description (extensible ones included), with its extra-size word cut to
    // the bytes really held, so the conversion never reads past what the image gave.
    alignas(8) BYTE buffer[sizeof(WAVEFORMATEX) + KAWAVEFORMAT_MAX_EXTRA] = {};
    const uint32_t n = std::min<uint32_t>(wave.fmtSize, sizeof buffer);
    std::memcpy(buffer, static_cast<const BYTE*>(image) + wave.fmtOffset, n);
    auto* wfx = reinterpret_cast<WAVEFORMATEX*>(buffer);
    const uint32_t held = n > sizeof(WAVEFORMATEX) ? n - uint32_t(sizeof(WAVEFORMATEX)) : 0;
    wfx->cbSize = WORD(std::min<uint32_t>(wfx->cbSize, held));
    format->Init(formatSize, wfx);
  }
  if (dataOffset) *dataOffset = wave.dataOffset;
  if (dataSize) *dataSize = wave.dataSize;
  return S_OK;
}
