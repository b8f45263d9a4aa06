// Reading and rewriting the format of an existing wave, Wave64, AIFF or AIFC file
// (KaGetFileWfx, KaSetFileWfx). The format chunk is found through the chunk layers;
// a rewrite never changes the size of the chunk.
#include <algorithm>
#include <vector>

#include "formats/riff/internal/chunk_walker.h"
#include "formats/riff/internal/chunk_walker64.h"
#include "formats/riff/internal/details_note.h"
#include "formats/riff/internal/filewfx_detect.h"
#include "formats/riff/internal/source_parsers.h"

using namespace ostra::riff::iffio;
using namespace ostra::riff::filewfx;
using ostra::riff::ByteSource;
using ostra::riff::FileSource;
namespace iff = ostra::riff::iff;

namespace ostra::riff::filewfx {
namespace {

// Room for the largest description we keep: 18 bytes, the 22-byte extension and the
// record's 1024 extra bytes.
constexpr DWORD kFmtCapacity = 18 + 22 + KAWAVEFORMAT_MAX_EXTRA;

// Finds the fmt chunk of a wave or Wave64 file; the handle is left at its body.
HRESULT findFmt(ByteSource& f, DWORD container, UINT64* size) {
  if (container == KACONTAINER_WAVE) {
    DWORD s = 0;
    if (HRESULT hr = seekTo(f, 12); FAILED(hr)) return hr;
    DWORD budget = DWORD(std::min<UINT64>(fileSize(f) - 12, 0xFFFFFFFFu));
    if (HRESULT hr = riff::findChunk(f, RIFF_ID_FMT, &s, &budget); FAILED(hr)) return hr;
    *size = s;
    return S_OK;
  }
  if (HRESULT hr = seekTo(f, 40); FAILED(hr)) return hr;
  INT64 budget = INT64(fileSize(f) - 40);
  return riff64::findChunk(f, RIFF64_GUID_FMT, size, &budget);
}

// The stored description, padded with zeros; a 16-byte chunk reads as cbSize 0 and a
// cbSize larger than the chunk is cut to it.
HRESULT readFmt(ByteSource& f, UINT64 size, std::vector<BYTE>* out) {
  if (size < 16) {
    note("the format chunk holds %llu bytes, fewer than the 16 of a format",
         (unsigned long long)size);
    return KAERR_CORRUPT_FILE;
  }
  const DWORD n = DWORD(std::min<UINT64>(size, kFmtCapacity));
  out->assign(kFmtCapacity + 2, 0);
  if (HRESULT hr = readExact(f, out->data(), n); FAILED(hr)) return hr;
  const DWORD extra = n >= 18 ? DWORD((*out)[16] | ((*out)[17] << 8)) : 0;
  const DWORD kept = std::min<DWORD>(extra, n >= 18 ? n - 18 : 0);
  (*out)[16] = BYTE(kept), (*out)[17] = BYTE(kept >> 8);
  return S_OK;
}

bool aiffExpressible(const WAVEFORMATEX& w, DWORD container, DWORD compression) {
  if (w.cbSize || w.nChannels == 0 || w.nSamplesPerSec == 0 || w.nSamplesPerSec > 192000)
    return false;
  if (DWORD(w.nBlockAlign) != DWORD(w.wBitsPerSample / 8) * w.nChannels) return false;
  const bool wide = w.wBitsPerSample == 16 || w.wBitsPerSample == 24 || w.wBitsPerSample == 32;
  if (w.wFormatTag == WAVE_FORMAT_KA_PCM8SIGNED) return w.wBitsPerSample == 8;
  if (container == KACONTAINER_AIFC && compression == IFFID_sowt)
    return w.wFormatTag == WAVE_FORMAT_PCM && wide;
  return w.wFormatTag == WAVE_FORMAT_KA_BIGENDIAN && wide;
}

HRESULT setAiff(ByteSource& f, const _kawaveformat* k, const Detected& d) {
  alignas(8) BYTE buffer[KAWAVEFORMAT_BUFFER_SIZE] = {};
  auto* w = reinterpret_cast<WAVEFORMATEX*>(buffer);
  if (KaAudio_GeneralCopyWfx(w, sizeof buffer, k, KAWFCOPY_WFX_NOMASK) < 0 ||
      !aiffExpressible(*w, d.container, d.compression))
    return KAERR_UNSUPPORTED_FORMAT;
  WAVEFORMATEX old;
  DWORD dataSize = 0;
  if (HRESULT hr = iff::getAiffWfx(f, &old, nullptr, &dataSize); FAILED(hr)) return hr;
  DWORD size = 0;
  if (HRESULT hr = iff::findChunkFromStart(f, IFFID_COMM, &size); FAILED(hr)) return hr;
  BYTE comm[18];
  putBe16(comm, w->nChannels);
  putBe32(comm + 2, dataSize / w->nBlockAlign);
  putBe16(comm + 6, w->wBitsPerSample);
  WORD exponent, mantissa[4];
  aiff_CreateRate(w->nSamplesPerSec, &exponent, mantissa);
  putBe16(comm + 8, exponent);
  for (int i = 0; i < 4; ++i) putBe16(comm + 10 + 2 * i, mantissa[i]);
  return writeExact(f, comm, sizeof comm);
}

HRESULT setRiff(ByteSource& f, const _kawaveformat* k, const Detected& d) {
  UINT64 size = 0;
  if (HRESULT hr = findFmt(f, d.container, &size); FAILED(hr)) return hr;
  if (size < 16) return KAERR_CORRUPT_FILE;
  const INT64 body = tell(f);
  // The chunk keeps its size. The description the format calls for comes first; an
  // extensible one may stand in for a plain one (it says the same), never the other way
  // round, which would drop the channel mask. A 16-byte chunk takes a plain description
  // without its cbSize word.
  const UINT64 want = size == 16 ? 18 : size;
  alignas(8) BYTE buffer[kFmtCapacity + 8];
  for (KAWAVEFORMAT_COPY_DEST dest : {KAWFCOPY_AUTO, KAWFCOPY_EXT}) {
    std::fill(std::begin(buffer), std::end(buffer), 0);
    auto* w = reinterpret_cast<WAVEFORMATEX*>(buffer);
    const int n = KaAudio_GeneralCopyWfx(w, sizeof buffer, k, dest);
    if (n < 0 || UINT64(n) != want || (size == 16 && w->cbSize)) continue;
    if (HRESULT hr = seekTo(f, body); FAILED(hr)) return hr;
    return writeExact(f, buffer, DWORD(size == 16 ? 16 : n));
  }
  return KAERR_UNSUPPORTED_FORMAT;
}

}  // namespace

HRESULT getFileWfx(ByteSource& file, _kawaveformat* wfx, DWORD bufferSize) {
  if (!wfx || bufferSize < KAWAVEFORMAT_FIXED_SIZE) return E_INVALIDARG;
  try {
    const Detected d = detect(file);
    if (d.container == KACONTAINER_AIFF || d.container == KACONTAINER_AIFC) {
      WAVEFORMATEX w;
      if (HRESULT hr = iff::getAiffWfx(file, &w); FAILED(hr)) return hr;
      wfx->Init(bufferSize, &w);
      return S_OK;
    }
    if (d.container != KACONTAINER_WAVE && d.container != KACONTAINER_WAVE64)
      return KAERR_UNSUPPORTED_FILE;
    UINT64 size = 0;
    std::vector<BYTE> fmt;
    if (HRESULT hr = findFmt(file, d.container, &size); FAILED(hr)) return hr;
    if (HRESULT hr = readFmt(file, size, &fmt); FAILED(hr)) return hr;
    wfx->Init(bufferSize, reinterpret_cast<const WAVEFORMATEX*>(fmt.data()));
    return S_OK;
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
}

HRESULT setFileWfx(ByteSource& file, const _kawaveformat* wfx) {
  if (!wfx) return E_INVALIDARG;
  const Detected d = detect(file);
  switch (d.container) {
    case KACONTAINER_WAVE:
    case KACONTAINER_WAVE64:
      return setRiff(file, wfx, d);
    case KACONTAINER_AIFF:
    case KACONTAINER_AIFC:
      return setAiff(file, wfx, d);
    default:
      return KAERR_UNSUPPORTED_FILE;
  }
}

}  // namespace ostra::riff::filewfx

HRESULT KaGetFileWfx(KAHFILE file, _kawaveformat* wfx, DWORD bufferSize) noexcept {
  FileSource s(file);
  return getFileWfx(s, wfx, bufferSize);
}

HRESULT KaSetFileWfx(KAHFILE file, const _kawaveformat* wfx) noexcept {
  FileSource s(file);
  return setFileWfx(s, wfx);
}

HRESULT KaGetFileWfx(const KAWCHAR* path, _kawaveformat* wfx, DWORD bufferSize) noexcept {
  return withPath(path, false, [&](ByteSource& s) { return getFileWfx(s, wfx, bufferSize); });
}

HRESULT KaSetFileWfx(const KAWCHAR* path, const _kawaveformat* wfx) noexcept {
  return withPath(path, true, [&](ByteSource& s) { return setFileWfx(s, wfx); });
}
