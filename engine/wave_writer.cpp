// Wave and Wave64 writing for the file output and the recorder (see
// engine/internal/wave_writer.h).
#include "engine/internal/wave_writer.h"

#include "ostra/kaerror.h"
#include "ostra/kaplatform.h"

namespace ostra::engine {

HRESULT WaveWriter::create(const KAWCHAR* path, DWORD container, KASAMPLETYPE type, DWORD rate,
                           WORD channels, DWORD maxFrames) noexcept {
  close();
  if (type != KASAMPLE_PCM16 && type != KASAMPLE_PCM24 && type != KASAMPLE_PCM32 &&
      type != KASAMPLE_FLOAT32)
    return KAERR_UNSUPPORTED_FORMAT;
  if (container != KACONTAINER_WAVE && container != KACONTAINER_WAVE64) return E_INVALIDARG;
  auto* wf = reinterpret_cast<_kawaveformat*>(format_);
  wf->Init(rate, type, channels, 0, sizeof format_);
  fromFloat_ = KaAudio_GetCopyFunction2(type, KASAMPLE_FLOAT32);
  if (!fromFloat_) return KAERR_UNSUPPORTED_FORMAT;
  try {
    buffer_.resize(size_t(maxFrames) * wf->nBlockAlign);
  } catch (...) {
    return E_OUTOFMEMORY;
  }
  HRESULT r = container == KACONTAINER_WAVE ? KaInitializeWav(path, wf, CREATE_ALWAYS)
                                            : KaInitializeWav64(path, wf, CREATE_ALWAYS);
  if (FAILED(r)) return r;
  r = KaFile_Open(path, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, OPEN_EXISTING, 0, &file_);
  if (FAILED(r)) return r;
  r = KaFile_Seek(file_, 0, FILE_END, nullptr);
  container_ = container;
  maxFrames_ = maxFrames;
  frames_ = 0;
  error_ = S_OK;
  return r;
}

HRESULT WaveWriter::append(const float* frames, DWORD count) noexcept {
  if (!isOpen()) return E_UNEXPECTED;
  if (FAILED(error_)) return error_;
  const auto* wf = reinterpret_cast<const _kawaveformat*>(format_);
  while (count) {
    const DWORD n = count < maxFrames_ ? count : maxFrames_;
    const UINT64 bytes = UINT64(frames_ + n) * wf->nBlockAlign;
    if (container_ == KACONTAINER_WAVE && bytes > 0xFFFFFFFFull - KA_WAV_HEADER_LENGTH)
      return error_ = KAERR_RIFF_TOO_LARGE;
    fromFloat_(buffer_.data(), frames, int32_t(n * wf->nChannels), 1.0f);
    const HRESULT r = KaFile_Write(file_, buffer_.data(), n * wf->nBlockAlign, nullptr);
    if (FAILED(r)) return error_ = r;
    frames_ += n;
    frames += size_t(n) * wf->nChannels;
    count -= n;
  }
  return S_OK;
}

HRESULT WaveWriter::updateHeader() noexcept {
  if (!isOpen()) return E_UNEXPECTED;
  const auto* wf = reinterpret_cast<const _kawaveformat*>(format_);
  const UINT64 bytes = UINT64(frames_) * wf->nBlockAlign;
  HRESULT r = container_ == KACONTAINER_WAVE
                  ? KaInsertWavHeader(file_, wf, DWORD(bytes), KA_WAV_HEADER_LENGTH)
                  : KaInsertW64Header(file_, wf, bytes, KA_W64_HEADER_LENGTH);
  if (SUCCEEDED(r)) r = KaFile_Flush(file_);
  return r;
}

HRESULT WaveWriter::close() noexcept {
  if (!isOpen()) return S_OK;
  HRESULT r = updateHeader();
  const HRESULT c = KaFile_Close(file_);
  file_ = KA_INVALID_HFILE;
  if (FAILED(error_)) return error_;
  return FAILED(r) ? r : c;
}

}  // namespace ostra::engine
