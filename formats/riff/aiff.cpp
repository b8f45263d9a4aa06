// AIFF and AIFC recognition and format reading, the 80-bit sample-rate conversions,
// byte-swapping sample writers and the AIFF writer. Built on the IFF layer in iff.cpp.
#include <algorithm>

#include "formats/riff/internal/iff_io.h"
#include "ostra/aiff.h"

using namespace ostra::riff::iffio;

namespace {

constexpr DWORD kCommBytesAiff = 18;
constexpr DWORD kCommBytesAifc = 22;

bool acceptedCompression(DWORD c) { return c == IFFID_NONE || c == IFFID_twos || c == IFFID_sowt; }

// Rates this writer accepts stop at 192000: the reader cuts larger 80-bit rates, so a
// file written with one would not read back as written.
constexpr DWORD kMaxWriterRate = 192000;

bool writableFormat(const WAVEFORMATEX& w) {
  const bool typeOk =
      (w.wFormatTag == WAVE_FORMAT_KA_BIGENDIAN &&
       (w.wBitsPerSample == 16 || w.wBitsPerSample == 24 || w.wBitsPerSample == 32)) ||
      (w.wFormatTag == WAVE_FORMAT_KA_PCM8SIGNED && w.wBitsPerSample == 8);
  return typeOk && w.nChannels >= 1 && w.nSamplesPerSec >= 1 && w.cbSize == 0 &&
         DWORD(w.nBlockAlign) == DWORD(w.wBitsPerSample / 8) * w.nChannels;
}

void buildHeader(const WAVEFORMATEX& w, DWORD dataLength, BYTE out[KA_AIFF_HEADER_LENGTH]) {
  const DWORD pad = dataLength & 1u;
  BYTE* p = out;
  putBe32(p, IFFID_FORM), putBe32(p + 4, KA_AIFF_HEADER_LENGTH - 8 + dataLength + pad);
  putBe32(p + 8, IFFID_AIFF);
  p += 12;
  putBe32(p, IFFID_COMM), putBe32(p + 4, kCommBytesAiff);
  putBe16(p + 8, w.nChannels);
  putBe32(p + 10, dataLength / w.nBlockAlign);
  putBe16(p + 14, w.wBitsPerSample);
  WORD exponent, mantissa[4];
  aiff_CreateRate(w.nSamplesPerSec, &exponent, mantissa);
  putBe16(p + 16, exponent);
  for (int i = 0; i < 4; ++i) putBe16(p + 18 + 2 * i, mantissa[i]);
  p += 8 + kCommBytesAiff;
  putBe32(p, IFFID_SSND), putBe32(p + 4, 8 + dataLength);
  putBe32(p + 8, 0), putBe32(p + 12, 0);
}

template <typename T, typename Swap>
HRESULT writeSwapped(KAHFILE file, const T* samples, DWORD count, DWORD* written, Swap swap) {
  if (written) *written = 0;
  if (!samples && count) return E_INVALIDARG;
  T buffer[4096 / sizeof(T)];
  constexpr DWORD kPiece = sizeof buffer / sizeof(T);
  DWORD done = 0;
  while (done < count) {
    const DWORD n = std::min(kPiece, count - done);
    std::copy(samples + done, samples + done + n, buffer);
    swap(buffer, n);
    if (HRESULT hr = writeExact(file, buffer, n * DWORD(sizeof(T))); FAILED(hr)) return hr;
    done += n;
    if (written) *written = done * DWORD(sizeof(T));
  }
  return S_OK;
}

// The plain description of a record; the channel mask has no place in COMM.
struct PlainAiffFormat {
  alignas(8) BYTE buffer[KAWAVEFORMAT_BUFFER_SIZE] = {};
  HRESULT hr;
  explicit PlainAiffFormat(const _kawaveformat* k) noexcept {
    hr = !k ? E_INVALIDARG
         : KaAudio_GeneralCopyWfx(get(), sizeof buffer, k, KAWFCOPY_WFX_NOMASK) < 0
             ? KAERR_UNSUPPORTED_FORMAT
             : S_OK;
  }
  WAVEFORMATEX* get() noexcept { return reinterpret_cast<WAVEFORMATEX*>(buffer); }
};

}  // namespace

BOOL iff_IsAIFFFile(KAHFILE file, DWORD* formSize) noexcept {
  return iff_IsAIFFFileEx(file, formSize);
}

BOOL iff_IsAIFFFileEx(KAHFILE file, DWORD* formSize, DWORD* formType, DWORD* compression) noexcept {
  if (FAILED(seekTo(file, 0))) return FALSE;
  IFFCHUNKHDR form;
  DWORD type = 0;
  if (FAILED(iff_ReadFormType(file, &form, &type))) return FALSE;
  DWORD kind = IFFID_NONE;
  if (type == IFFID_AIFC) {
    const INT64 first = tell(file);
    DWORD budget = form.ckSize >= 4 ? form.ckSize - 4 : 0, size = 0;
    BYTE comm[kCommBytesAifc];
    const bool ok = SUCCEEDED(iff_FindChunkHeader(file, IFFID_COMM, &size, &budget)) &&
                    size >= kCommBytesAifc && SUCCEEDED(readExact(file, comm, sizeof comm));
    seekTo(file, first);
    if (!ok) return FALSE;
    kind = be32(comm + 18);
    if (!acceptedCompression(kind)) return FALSE;
  } else if (type != IFFID_AIFF) {
    return FALSE;
  }
  if (formSize) *formSize = form.ckSize;
  if (formType) *formType = type;
  if (compression) *compression = kind;
  return TRUE;
}

HRESULT iff_GetAIFFWfx(KAHFILE file, WAVEFORMATEX* wfx, INT64* dataOffset, DWORD* dataSize,
                       DWORD* frames) noexcept {
  if (!wfx) return E_INVALIDARG;
  DWORD formSize = 0, formType = 0, compression = 0;
  if (!iff_IsAIFFFileEx(file, &formSize, &formType, &compression)) return KAERR_CORRUPT_FILE;
  const INT64 first = tell(file);
  const DWORD formBudget = formSize >= 4 ? formSize - 4 : 0;

  DWORD budget = formBudget, size = 0;
  if (HRESULT hr = iff_FindChunkHeader(file, IFFID_COMM, &size, &budget); FAILED(hr)) return hr;
  const DWORD need = formType == IFFID_AIFC ? kCommBytesAifc : kCommBytesAiff;
  if (size < need) return KAERR_CORRUPT_FILE;
  BYTE comm[kCommBytesAifc];
  if (HRESULT hr = readExact(file, comm, need); FAILED(hr)) return hr;
  const WORD channels = be16(comm), bits = be16(comm + 6);
  const DWORD frameCount = be32(comm + 2);
  WORD mantissa[4];
  for (int i = 0; i < 4; ++i) mantissa[i] = be16(comm + 10 + 2 * i);
  const DWORD rate = aiff_ConvertRate(be16(comm + 8), mantissa);

  WAVEFORMATEX w{};
  w.wFormatTag = bits == 8                                               ? WAVE_FORMAT_KA_PCM8SIGNED
                 : (formType == IFFID_AIFC && compression == IFFID_sowt) ? WAVE_FORMAT_PCM
                                                                         : WAVE_FORMAT_KA_BIGENDIAN;
  w.nChannels = channels;
  w.nSamplesPerSec = rate;
  w.nBlockAlign = WORD(std::max<DWORD>(1, DWORD(bits / 8) * channels));
  w.nAvgBytesPerSec = DWORD(w.nBlockAlign) * rate;
  w.wBitsPerSample = bits;
  w.cbSize = 0;

  if (HRESULT hr = seekTo(file, first); FAILED(hr)) return hr;
  budget = formBudget;
  if (HRESULT hr = iff_FindChunkHeader(file, IFFID_SSND, &size, &budget); FAILED(hr)) return hr;
  if (size < 8) return KAERR_CORRUPT_FILE;
  BYTE ssnd[8];
  if (HRESULT hr = readExact(file, ssnd, 8); FAILED(hr)) return hr;
  const DWORD offset = be32(ssnd);
  const INT64 start = tell(file) + INT64(offset);
  const UINT64 length = fileSize(file);
  UINT64 bytes = offset <= size - 8 ? size - 8 - offset : 0;
  bytes = UINT64(start) >= length ? 0 : std::min<UINT64>(bytes, length - UINT64(start));
  if (HRESULT hr = seekTo(file, start); FAILED(hr)) return hr;

  *wfx = w;
  if (dataOffset) *dataOffset = start;
  if (dataSize) *dataSize = DWORD(bytes);
  if (frames) *frames = frameCount;
  return S_OK;
}

void aiff_CreateRate(DWORD rate, WORD* exponent, WORD mantissa[4]) noexcept {
  double v = double(rate);
  int e = 0;
  while (v >= 2.0) v *= 0.5, ++e;
  WORD top = 0;
  if (v >= 1.0) v -= 1.0, top = 0x8000;
  WORD words[4];
  v *= 32768.0;
  double whole = double(DWORD(v));
  words[0] = WORD(top | DWORD(whole));
  for (int i = 1; i < 4; ++i) {
    v = (v - whole) * 65536.0;
    whole = double(DWORD(v));
    words[i] = WORD(whole);
  }
  if (exponent) *exponent = WORD(16383 + e);
  if (mantissa) std::copy(words, words + 4, mantissa);
}

DWORD aiff_ConvertRate(WORD exponent, const WORD mantissa[4]) noexcept {
  if ((exponent & 0x8000u) || !mantissa) return 44100;
  double m = ((mantissa[0] & 0x7FFF) +
              (mantissa[1] + (mantissa[2] + mantissa[3] / 65536.0) / 65536.0) / 65536.0) /
             32768.0;
  if (mantissa[0] & 0x8000u) m += 1.0;
  const WORD n = WORD((exponent & 0x7FFF) - 16383);
  for (DWORD i = 0; i < n && m <= 96000.0; ++i) m *= 2.0;
  return DWORD(m);
}

HRESULT aiff_WriteByteSwap16(KAHFILE file, const WORD* samples, DWORD count,
                             DWORD* written) noexcept {
  return writeSwapped(file, samples, count, written,
                      [](WORD* v, DWORD n) { iff_ByteSwap16(v, n); });
}

HRESULT aiff_WriteByteSwap32(KAHFILE file, const DWORD* samples, DWORD count,
                             DWORD* written) noexcept {
  return writeSwapped(file, samples, count, written,
                      [](DWORD* v, DWORD n) { iff_ByteSwap32(v, n); });
}

HRESULT KaInitializeAiff(const KAWCHAR* path, const WAVEFORMATEX* wfx, DWORD openMode) noexcept {
  if (!path || !wfx) return E_INVALIDARG;
  if (!writableFormat(*wfx)) return KAERR_UNSUPPORTED_FORMAT;
  if (wfx->nSamplesPerSec > kMaxWriterRate) return KAERR_SAMPLE_RATE;
  KAHFILE f;
  if (HRESULT hr = openForSetup(path, openMode, &f); FAILED(hr)) return hr;
  BYTE header[KA_AIFF_HEADER_LENGTH];
  buildHeader(*wfx, 0, header);
  const HRESULT hr = writeExact(f, header, sizeof header);
  KaFile_Close(f);
  return hr;
}

HRESULT KaInsertAiffHeader(KAHFILE file, const WAVEFORMATEX* wfx, DWORD dataLength) noexcept {
  if (!wfx) return E_INVALIDARG;
  if (!writableFormat(*wfx)) return KAERR_UNSUPPORTED_FORMAT;
  if (wfx->nSamplesPerSec > kMaxWriterRate) return KAERR_SAMPLE_RATE;
  const UINT64 length = fileSize(file);
  if (length < KA_AIFF_HEADER_LENGTH) return KAERR_BAD_CHUNK;
  const UINT64 pad = dataLength & 1u;
  if (KA_AIFF_HEADER_LENGTH - 8 + UINT64(dataLength) + pad > 0xFFFFFFFFull)
    return KAERR_RIFF_TOO_LARGE;
  const INT64 saved = tell(file);
  BYTE header[KA_AIFF_HEADER_LENGTH];
  buildHeader(*wfx, dataLength, header);
  HRESULT hr = seekTo(file, 0);
  if (SUCCEEDED(hr)) hr = writeExact(file, header, sizeof header);
  if (SUCCEEDED(hr) && pad && length == KA_AIFF_HEADER_LENGTH + UINT64(dataLength)) {
    static const BYTE kZero = 0;
    hr = seekTo(file, INT64(length));
    if (SUCCEEDED(hr)) hr = writeExact(file, &kZero, 1);
  }
  if (saved >= 0) seekTo(file, saved);
  return hr;
}

HRESULT KaInitializeAiff(const KAWCHAR* path, const _kawaveformat* wfx, DWORD openMode) noexcept {
  PlainAiffFormat plain(wfx);
  return FAILED(plain.hr) ? plain.hr : KaInitializeAiff(path, plain.get(), openMode);
}

HRESULT KaInsertAiffHeader(KAHFILE file, const _kawaveformat* wfx, DWORD dataLength) noexcept {
  PlainAiffFormat plain(wfx);
  return FAILED(plain.hr) ? plain.hr : KaInsertAiffHeader(file, plain.get(), dataLength);
}
