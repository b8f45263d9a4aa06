// Wave and Wave64 header set-up (a new file ready for samples) and the in-place header
// rewrite once the data length is known. Written on the riff_* and riff64_* chunk layers;
// the repair functions in wave_repair.cpp end in the rewrite here.
#include "formats/riff/internal/chunk_walker.h"
#include "formats/riff/internal/chunk_walker64.h"
#include "formats/riff/internal/iff_io.h"
#include "formats/riff/internal/source_parsers.h"
#include "formats/riff/internal/wave_format.h"
#include "ostra/kawave.h"

using namespace ostra::riff::iffio;
using ostra::riff::ByteSource;
using ostra::riff::FileSource;
namespace walk = ostra::riff;
namespace walk64 = ostra::riff64;
using ostra::riff::wave::checkFormat;
using ostra::riff::wave::PlainFormat;

namespace {

// The record as it lies in the file: 18 little-endian bytes whatever the host.
struct FmtBytes {
  BYTE b[18];
  explicit FmtBytes(const WAVEFORMATEX& w) {
    putLe16(b, w.wFormatTag), putLe16(b + 2, w.nChannels), putLe32(b + 4, w.nSamplesPerSec);
    putLe32(b + 8, w.nAvgBytesPerSec), putLe16(b + 12, w.nBlockAlign);
    putLe16(b + 14, w.wBitsPerSample), putLe16(b + 16, 0);
  }
};

// RIFF, WAVE, fmt, optional JUNK holding junkBytes zeros, data header.
HRESULT writeWavHeader(ByteSource& f, const WAVEFORMATEX& w, DWORD riffSize, bool junk,
                       DWORD junkBytes, DWORD dataSize) {
  const FmtBytes fmt(w);
  if (HRESULT hr = walk::writeFileId(f, RIFF_ID_WAVE, riffSize); FAILED(hr)) return hr;
  if (HRESULT hr = walk::writeChunk(f, RIFF_ID_FMT, fmt.b, sizeof fmt.b, nullptr); FAILED(hr))
    return hr;
  if (junk) {
    if (HRESULT hr = walk::writeHeader(f, RIFF_ID_JUNK, junkBytes); FAILED(hr)) return hr;
    if (HRESULT hr = writeZeros(f, junkBytes); FAILED(hr)) return hr;
  }
  return walk::writeHeader(f, RIFF_ID_DATA, dataSize);
}

// The Wave64 counterpart; riffBody is the riff size word less its own 24-byte header.
HRESULT writeW64Header(ByteSource& f, const WAVEFORMATEX& w, UINT64 riffBody, bool junk,
                       UINT64 junkBytes, UINT64 dataSize) {
  const FmtBytes fmt(w);
  if (HRESULT hr = walk64::writeFileId(f, RIFF64_GUID_WAVE, riffBody); FAILED(hr)) return hr;
  if (HRESULT hr = walk64::writeChunk(f, RIFF64_GUID_FMT, fmt.b, sizeof fmt.b, nullptr); FAILED(hr))
    return hr;
  if (junk) {
    if (HRESULT hr = walk64::writeHeader(f, RIFF64_GUID_JUNK, junkBytes); FAILED(hr)) return hr;
    if (HRESULT hr = writeZeros(f, junkBytes); FAILED(hr)) return hr;
  }
  return walk64::writeHeader(f, RIFF64_GUID_DATA, dataSize);
}

// Opens, writes through `write` and closes on every path.
template <typename Write>
HRESULT setUp(const KAWCHAR* path, const WAVEFORMATEX* wfx, DWORD openMode, Write write) {
  if (!path) return E_INVALIDARG;
  if (HRESULT hr = checkFormat(wfx); FAILED(hr)) return hr;
  KAHFILE f;
  if (HRESULT hr = openForSetup(path, openMode, &f); FAILED(hr)) return hr;
  FileSource s(f);
  const HRESULT hr = write(s, *wfx);
  KaFile_Close(f);
  return hr;
}

// Runs a plain-record function with a record converted to the plain description.
template <typename Call>
HRESULT viaPlain(const _kawaveformat* k, Call call) {
  PlainFormat plain(k);
  return FAILED(plain.hr) ? plain.hr : call(plain.get());
}

}  // namespace

HRESULT KaInitializeWav(const KAWCHAR* path, const WAVEFORMATEX* wfx, DWORD openMode) noexcept {
  return setUp(path, wfx, openMode, [](ByteSource& f, const WAVEFORMATEX& w) {
    return writeWavHeader(f, w, KA_WAV_HEADER_LENGTH - 8, false, 0, 0);
  });
}

HRESULT KaInitializeWavWithJunk(const KAWCHAR* path, const WAVEFORMATEX* wfx, DWORD openMode,
                                DWORD headerLength) noexcept {
  const UINT64 length = (UINT64(headerLength) + 1) & ~UINT64(1);
  if (length < KA_WAV_MIN_JUNK_HEADER_LENGTH) return E_INVALIDARG;
  return setUp(path, wfx, openMode, [length](ByteSource& f, const WAVEFORMATEX& w) {
    return writeWavHeader(f, w, DWORD(length - 8), true, DWORD(length - 54), 0);
  });
}

HRESULT KaInitializeWav64(const KAWCHAR* path, const WAVEFORMATEX* wfx, DWORD openMode) noexcept {
  // The riff size word says 130 although the header is 112 bytes: finishing the file
  // rewrites it, and files of this version carry exactly this value.
  return setUp(path, wfx, openMode, [](ByteSource& f, const WAVEFORMATEX& w) {
    return writeW64Header(f, w, 106, false, 0, 0);
  });
}

HRESULT KaInitializeWav64WithJunk(const KAWCHAR* path, const WAVEFORMATEX* wfx, DWORD openMode,
                                  UINT64 headerLength) noexcept {
  if (headerLength > (~UINT64(0) >> 1)) return E_INVALIDARG;
  const UINT64 length = (headerLength + 7) & ~UINT64(7);
  if (length < KA_W64_MIN_JUNK_HEADER_LENGTH) return E_INVALIDARG;
  return setUp(path, wfx, openMode, [length](ByteSource& f, const WAVEFORMATEX& w) {
    return writeW64Header(f, w, length, true, length - KA_W64_MIN_JUNK_HEADER_LENGTH, 0);
  });
}

HRESULT ostra::riff::insertWavHeader(ByteSource& file, const WAVEFORMATEX* wfx, DWORD dataLength,
                                     DWORD headerLength) {
  if (HRESULT hr = checkFormat(wfx); FAILED(hr)) return hr;
  const DWORD h = headerLength;
  if ((h & 1) || h < KA_WAV_HEADER_LENGTH ||
      (h != KA_WAV_HEADER_LENGTH && h < KA_WAV_MIN_JUNK_HEADER_LENGTH))
    return KAERR_BAD_CHUNK;
  if (fileSize(file) < KA_WAV_HEADER_LENGTH) return KAERR_BAD_CHUNK;
  const UINT64 riffSize = UINT64(h) - 8 + dataLength;
  if (riffSize > RIFF_MAX_SIZE) return KAERR_RIFF_TOO_LARGE;
  const INT64 saved = tell(file);
  HRESULT hr = seekTo(file, 0);
  if (SUCCEEDED(hr))
    hr = writeWavHeader(file, *wfx, DWORD(riffSize), h > KA_WAV_HEADER_LENGTH, h - 54, dataLength);
  if (saved >= 0) seekTo(file, saved);
  return hr;
}

HRESULT ostra::riff::insertW64Header(ByteSource& file, const WAVEFORMATEX* wfx, UINT64 dataLength,
                                     UINT64 headerLength) {
  if (HRESULT hr = checkFormat(wfx); FAILED(hr)) return hr;
  const UINT64 h = headerLength;
  if ((h & 7) || h < KA_W64_HEADER_LENGTH ||
      (h != KA_W64_HEADER_LENGTH && h - KA_W64_HEADER_LENGTH < 24))
    return KAERR_BAD_CHUNK;
  if (fileSize(file) < KA_W64_HEADER_LENGTH) return KAERR_BAD_CHUNK;
  if (h > (~UINT64(0) >> 1) || dataLength > (~UINT64(0) >> 1) - h) return E_INVALIDARG;
  const INT64 saved = tell(file);
  HRESULT hr = seekTo(file, 0);
  if (SUCCEEDED(hr))
    hr = writeW64Header(file, *wfx, h + dataLength - 24, h > KA_W64_HEADER_LENGTH,
                        h - KA_W64_HEADER_LENGTH - (h > KA_W64_HEADER_LENGTH ? 24 : 0), dataLength);
  if (saved >= 0) seekTo(file, saved);
  return hr;
}

HRESULT KaInsertWavHeader(KAHFILE file, const WAVEFORMATEX* wfx, DWORD dataLength,
                          DWORD headerLength) noexcept {
  FileSource s(file);
  return ostra::riff::insertWavHeader(s, wfx, dataLength, headerLength);
}

HRESULT KaInsertW64Header(KAHFILE file, const WAVEFORMATEX* wfx, UINT64 dataLength,
                          UINT64 headerLength) noexcept {
  FileSource s(file);
  return ostra::riff::insertW64Header(s, wfx, dataLength, headerLength);
}

// ---------------------------------------------------------------- record overloads
HRESULT KaInitializeWav(const KAWCHAR* path, const _kawaveformat* wfx, DWORD openMode) noexcept {
  return viaPlain(wfx, [&](const WAVEFORMATEX* w) { return KaInitializeWav(path, w, openMode); });
}

HRESULT KaInitializeWavWithJunk(const KAWCHAR* path, const _kawaveformat* wfx, DWORD openMode,
                                DWORD headerLength) noexcept {
  return viaPlain(wfx, [&](const WAVEFORMATEX* w) {
    return KaInitializeWavWithJunk(path, w, openMode, headerLength);
  });
}

HRESULT KaInitializeWav64(const KAWCHAR* path, const _kawaveformat* wfx, DWORD openMode) noexcept {
  return viaPlain(wfx, [&](const WAVEFORMATEX* w) { return KaInitializeWav64(path, w, openMode); });
}

HRESULT KaInitializeWav64WithJunk(const KAWCHAR* path, const _kawaveformat* wfx, DWORD openMode,
                                  UINT64 headerLength) noexcept {
  return viaPlain(wfx, [&](const WAVEFORMATEX* w) {
    return KaInitializeWav64WithJunk(path, w, openMode, headerLength);
  });
}

HRESULT KaInsertWavHeader(KAHFILE file, const _kawaveformat* wfx, DWORD dataLength,
                          DWORD headerLength) noexcept {
  return viaPlain(wfx, [&](const WAVEFORMATEX* w) {
    return KaInsertWavHeader(file, w, dataLength, headerLength);
  });
}

HRESULT KaInsertW64Header(KAHFILE file, const _kawaveformat* wfx, UINT64 dataLength,
                          UINT64 headerLength) noexcept {
  return viaPlain(wfx, [&](const WAVEFORMATEX* w) {
    return KaInsertW64Header(file, w, dataLength, headerLength);
  });
}
