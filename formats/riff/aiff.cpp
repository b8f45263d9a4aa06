// AIFF and AIFC recognition and format reading, the 80-bit sample-rate conversions,
// byte-swapping sample writers, the AIFF writer, and the AIFC floating-point reader and
// writer beside them. Built on the IFF layer in iff.cpp.
#include <algorithm>
#include <cstring>

#include "formats/riff/internal/iff_io.h"
#include "formats/riff/internal/iff_source.h"

using namespace ostra::riff::iffio;
using ostra::riff::ByteSource;
using ostra::riff::FileSource;

namespace ostra::riff::iff {
namespace {

constexpr DWORD kCommBytesAiff = 18;
constexpr DWORD kCommBytesAifc = 22;

bool acceptedCompression(DWORD c) { return c == IFFID_NONE || c == IFFID_twos || c == IFFID_sowt; }

// Bits per sample of a floating-point compression type, 0 for any other type.
WORD floatBits(DWORD c) {
  if (c == IFFID_fl32 || c == IFFID_FL32) return 32;
  if (c == IFFID_fl64 || c == IFFID_FL64) return 64;
  return 0;
}

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

// FORM/AIFC with FVER, a COMM that names the type, and the SSND header.
constexpr DWORD kFloatHeaderLength = KA_AIFC_FLOAT_HEADER_LENGTH;
constexpr DWORD kAifcVersion1 = 0xA2805140;  // the FVER timestamp of AIFC version 1
constexpr char kFloatName32[] = "32-bit floating point";
constexpr char kFloatName64[] = "64-bit floating point";
static_assert(sizeof kFloatName32 == sizeof kFloatName64 && (sizeof kFloatName32 - 1) % 2 == 1,
              "a count byte and the name fill an even number of bytes");
constexpr DWORD kCommBytesFloat = kCommBytesAifc + sizeof kFloatName32;
static_assert(12 + 12 + 8 + kCommBytesFloat + 16 == kFloatHeaderLength);

bool writableFloat(const WAVEFORMATEX& w) {
  return w.wFormatTag == WAVE_FORMAT_IEEE_FLOAT &&
         (w.wBitsPerSample == 32 || w.wBitsPerSample == 64) && w.nChannels >= 1 &&
         w.nSamplesPerSec >= 1 && w.cbSize == 0 &&
         DWORD(w.nBlockAlign) == DWORD(w.wBitsPerSample / 8) * w.nChannels;
}

void buildFloatHeader(const WAVEFORMATEX& w, DWORD dataLength, BYTE out[kFloatHeaderLength]) {
  const bool wide = w.wBitsPerSample == 64;
  BYTE* p = out;
  putBe32(p, IFFID_FORM), putBe32(p + 4, kFloatHeaderLength - 8 + dataLength + (dataLength & 1u));
  putBe32(p + 8, IFFID_AIFC);
  p += 12;
  putBe32(p, IFFID_FVER), putBe32(p + 4, 4), putBe32(p + 8, kAifcVersion1);
  p += 12;
  putBe32(p, IFFID_COMM), putBe32(p + 4, kCommBytesFloat);
  putBe16(p + 8, w.nChannels);
  putBe32(p + 10, dataLength / w.nBlockAlign);
  putBe16(p + 14, w.wBitsPerSample);
  WORD exponent, mantissa[4];
  aiff_CreateRate(w.nSamplesPerSec, &exponent, mantissa);
  putBe16(p + 16, exponent);
  for (int i = 0; i < 4; ++i) putBe16(p + 18 + 2 * i, mantissa[i]);
  putBe32(p + 26, wide ? IFFID_fl64 : IFFID_fl32);
  p[30] = BYTE(sizeof kFloatName32 - 1);
  std::memcpy(p + 31, wide ? kFloatName64 : kFloatName32, sizeof kFloatName32 - 1);
  p += 8 + kCommBytesFloat;
  putBe32(p, IFFID_SSND), putBe32(p + 4, 8 + dataLength);
  putBe32(p + 8, 0), putBe32(p + 12, 0);
}

template <typename T, typename Swap>
HRESULT writeSwapped(ByteSource& file, const T* samples, DWORD count, DWORD* written, Swap swap) {
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

// FORM AIFF, or FORM AIFC whose COMM holds a compression type; the type comes back in
// *compression (NONE for AIFF) and the position is just after the form type.
bool readHead(ByteSource& file, DWORD* formSize, DWORD* formType, DWORD* compression) {
  if (FAILED(seekTo(file, 0))) return false;
  IFFCHUNKHDR form;
  DWORD type = 0;
  if (FAILED(readFormType(file, &form, &type))) return false;
  DWORD kind = IFFID_NONE;
  if (type == IFFID_AIFC) {
    const INT64 first = tell(file);
    DWORD budget = form.ckSize >= 4 ? form.ckSize - 4 : 0, size = 0;
    BYTE comm[kCommBytesAifc];
    const bool ok = SUCCEEDED(findChunk(file, IFFID_COMM, &size, &budget)) &&
                    size >= kCommBytesAifc && SUCCEEDED(readExact(file, comm, sizeof comm));
    seekTo(file, first);
    if (!ok) return false;
    kind = be32(comm + 18);
  } else if (type != IFFID_AIFF) {
    return false;
  }
  *formSize = form.ckSize;
  *formType = type;
  *compression = kind;
  return true;
}

// COMM and SSND of a file readHead accepted: the description and where the samples are;
// the position ends at them. Floating-point types take their width from the type, as
// their COMM sample size is not theirs to say.
HRESULT readBody(ByteSource& file, DWORD formSize, DWORD formType, DWORD compression,
                 WAVEFORMATEX* wfx, INT64* dataOffset, DWORD* dataSize, DWORD* frames) {
  const INT64 first = tell(file);
  const DWORD formBudget = formSize >= 4 ? formSize - 4 : 0;

  DWORD budget = formBudget, size = 0;
  if (HRESULT hr = findChunk(file, IFFID_COMM, &size, &budget); FAILED(hr)) return hr;
  const DWORD need = formType == IFFID_AIFC ? kCommBytesAifc : kCommBytesAiff;
  if (size < need) return KAERR_CORRUPT_FILE;
  BYTE comm[kCommBytesAifc];
  if (HRESULT hr = readExact(file, comm, need); FAILED(hr)) return hr;
  const WORD floating = floatBits(compression);
  const WORD channels = be16(comm), bits = floating ? floating : be16(comm + 6);
  const DWORD frameCount = be32(comm + 2);
  WORD mantissa[4];
  for (int i = 0; i < 4; ++i) mantissa[i] = be16(comm + 10 + 2 * i);
  const DWORD rate = aiff_ConvertRate(be16(comm + 8), mantissa);

  WAVEFORMATEX w{};
  w.wFormatTag = floating                                                ? WAVE_FORMAT_IEEE_FLOAT
                 : bits == 8                                             ? WAVE_FORMAT_KA_PCM8SIGNED
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
  if (HRESULT hr = findChunk(file, IFFID_SSND, &size, &budget); FAILED(hr)) return hr;
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

}  // namespace

BOOL isAiff(ByteSource& file, DWORD* formSize, DWORD* formType, DWORD* compression) {
  DWORD size = 0, type = 0, kind = 0;
  if (!readHead(file, &size, &type, &kind) || !acceptedCompression(kind)) return FALSE;
  if (formSize) *formSize = size;
  if (formType) *formType = type;
  if (compression) *compression = kind;
  return TRUE;
}

HRESULT getAiffWfx(ByteSource& file, WAVEFORMATEX* wfx, INT64* dataOffset, DWORD* dataSize,
                   DWORD* frames) {
  if (!wfx) return E_INVALIDARG;
  DWORD formSize = 0, formType = 0, compression = 0;
  if (!isAiff(file, &formSize, &formType, &compression)) return KAERR_CORRUPT_FILE;
  return readBody(file, formSize, formType, compression, wfx, dataOffset, dataSize, frames);
}

HRESULT getAifcFloatWfx(ByteSource& file, WAVEFORMATEX* wfx, INT64* dataOffset, DWORD* dataSize,
                        DWORD* frames, DWORD* compression) {
  if (!wfx) return E_INVALIDARG;
  DWORD formSize = 0, formType = 0, kind = 0;
  if (!readHead(file, &formSize, &formType, &kind) || formType != IFFID_AIFC)
    return KAERR_CORRUPT_FILE;
  if (!floatBits(kind)) return KAERR_UNSUPPORTED_FORMAT;
  if (compression) *compression = kind;
  return readBody(file, formSize, formType, kind, wfx, dataOffset, dataSize, frames);
}

HRESULT writeByteSwap16(ByteSource& file, const WORD* samples, DWORD count, DWORD* written) {
  return writeSwapped(file, samples, count, written,
                      [](WORD* v, DWORD n) { iff_ByteSwap16(v, n); });
}

HRESULT writeByteSwap32(ByteSource& file, const DWORD* samples, DWORD count, DWORD* written) {
  return writeSwapped(file, samples, count, written,
                      [](DWORD* v, DWORD n) { iff_ByteSwap32(v, n); });
}

namespace {

// Writes `headerLength` header bytes for `dataLength` sample bytes at offset 0, appends
// the pad byte when the length is odd and the file ends right after the samples, and
// restores the position.
template <typename Build>
HRESULT rewriteHeader(ByteSource& file, DWORD headerLength, DWORD dataLength, Build build) {
  const UINT64 length = fileSize(file);
  if (length < headerLength) return KAERR_BAD_CHUNK;
  const UINT64 pad = dataLength & 1u;
  if (headerLength - 8 + UINT64(dataLength) + pad > 0xFFFFFFFFull) return KAERR_RIFF_TOO_LARGE;
  const INT64 saved = tell(file);
  BYTE header[kFloatHeaderLength > KA_AIFF_HEADER_LENGTH ? kFloatHeaderLength
                                                         : KA_AIFF_HEADER_LENGTH];
  build(header);
  HRESULT hr = seekTo(file, 0);
  if (SUCCEEDED(hr)) hr = writeExact(file, header, headerLength);
  if (SUCCEEDED(hr) && pad && length == headerLength + UINT64(dataLength)) {
    static const BYTE kZero = 0;
    hr = seekTo(file, INT64(length));
    if (SUCCEEDED(hr)) hr = writeExact(file, &kZero, 1);
  }
  if (saved >= 0) seekTo(file, saved);
  return hr;
}

}  // namespace

HRESULT insertAiffHeader(ByteSource& file, const WAVEFORMATEX* wfx, DWORD dataLength) {
  if (!wfx) return E_INVALIDARG;
  if (!writableFormat(*wfx)) return KAERR_UNSUPPORTED_FORMAT;
  if (wfx->nSamplesPerSec > kMaxWriterRate) return KAERR_SAMPLE_RATE;
  return rewriteHeader(file, KA_AIFF_HEADER_LENGTH, dataLength,
                       [&](BYTE* h) { buildHeader(*wfx, dataLength, h); });
}

HRESULT insertAifcFloatHeader(ByteSource& file, const WAVEFORMATEX* wfx, DWORD dataLength) {
  if (!wfx) return E_INVALIDARG;
  if (!writableFloat(*wfx)) return KAERR_UNSUPPORTED_FORMAT;
  if (wfx->nSamplesPerSec > kMaxWriterRate) return KAERR_SAMPLE_RATE;
  return rewriteHeader(file, kFloatHeaderLength, dataLength,
                       [&](BYTE* h) { buildFloatHeader(*wfx, dataLength, h); });
}

// A new file holding only a header, as the set-up functions write it: the format is
// checked by `writable`, the header built by `build`.
template <size_t N, class Writable, class Build>
HRESULT writeNewHeader(const KAWCHAR* path, const WAVEFORMATEX* wfx, DWORD openMode,
                       Writable writable, Build build) {
  if (!path || !wfx) return E_INVALIDARG;
  if (!writable(*wfx)) return KAERR_UNSUPPORTED_FORMAT;
  if (wfx->nSamplesPerSec > kMaxWriterRate) return KAERR_SAMPLE_RATE;
  KAHFILE f;
  if (HRESULT hr = iffio::openForSetup(path, openMode, &f); FAILED(hr)) return hr;
  BYTE header[N];
  build(*wfx, 0, header);
  FileSource s(f);
  const HRESULT hr = iffio::writeExact(s, header, sizeof header);
  KaFile_Close(f);
  return hr;
}

}  // namespace ostra::riff::iff

namespace iff = ostra::riff::iff;

BOOL iff_IsAIFFFile(KAHFILE file, DWORD* formSize) noexcept {
  FileSource s(file);
  return iff::isAiff(s, formSize);
}

BOOL iff_IsAIFFFileEx(KAHFILE file, DWORD* formSize, DWORD* formType, DWORD* compression) noexcept {
  FileSource s(file);
  return iff::isAiff(s, formSize, formType, compression);
}

HRESULT iff_GetAIFFWfx(KAHFILE file, WAVEFORMATEX* wfx, INT64* dataOffset, DWORD* dataSize,
                       DWORD* frames) noexcept {
  FileSource s(file);
  return iff::getAiffWfx(s, wfx, dataOffset, dataSize, frames);
}

HRESULT iff_GetAIFCFloatWfx(KAHFILE file, WAVEFORMATEX* wfx, INT64* dataOffset, DWORD* dataSize,
                            DWORD* frames, DWORD* compression) noexcept {
  FileSource s(file);
  return iff::getAifcFloatWfx(s, wfx, dataOffset, dataSize, frames, compression);
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
  FileSource s(file);
  return iff::writeByteSwap16(s, samples, count, written);
}

HRESULT aiff_WriteByteSwap32(KAHFILE file, const DWORD* samples, DWORD count,
                             DWORD* written) noexcept {
  FileSource s(file);
  return iff::writeByteSwap32(s, samples, count, written);
}

HRESULT KaInitializeAiff(const KAWCHAR* path, const WAVEFORMATEX* wfx, DWORD openMode) noexcept {
  return iff::writeNewHeader<KA_AIFF_HEADER_LENGTH>(path, wfx, openMode, iff::writableFormat,
                                                    iff::buildHeader);
}

HRESULT KaInsertAiffHeader(KAHFILE file, const WAVEFORMATEX* wfx, DWORD dataLength) noexcept {
  FileSource s(file);
  return iff::insertAiffHeader(s, wfx, dataLength);
}

HRESULT KaInitializeAiff(const KAWCHAR* path, const _kawaveformat* wfx, DWORD openMode) noexcept {
  iff::PlainAiffFormat plain(wfx);
  return FAILED(plain.hr) ? plain.hr : KaInitializeAiff(path, plain.get(), openMode);
}

HRESULT KaInsertAiffHeader(KAHFILE file, const _kawaveformat* wfx, DWORD dataLength) noexcept {
  iff::PlainAiffFormat plain(wfx);
  return FAILED(plain.hr) ? plain.hr : KaInsertAiffHeader(file, plain.get(), dataLength);
}

HRESULT KaInitializeAifcFloat(const KAWCHAR* path, const WAVEFORMATEX* wfx,
                              DWORD openMode) noexcept {
  return iff::writeNewHeader<KA_AIFC_FLOAT_HEADER_LENGTH>(path, wfx, openMode, iff::writableFloat,
                                                          iff::buildFloatHeader);
}

HRESULT KaInsertAifcFloatHeader(KAHFILE file, const WAVEFORMATEX* wfx, DWORD dataLength) noexcept {
  FileSource s(file);
  return iff::insertAifcFloatHeader(s, wfx, dataLength);
}
