// The session's clips and the block renderer (see engine/internal/timeline.h).
#include "engine/internal/timeline.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "ostra/kaerror.h"
#include "ostra/kaplatform.h"
#include "ostra/kawave.h"

namespace ostra::engine {

HRESULT probeAudioFile(const KAWCHAR* path, Clip& clip) noexcept {
  if (!path) return E_POINTER;
  alignas(8) BYTE buffer[KAWAVEFORMAT_BUFFER_SIZE] = {};
  auto* wf = reinterpret_cast<_kawaveformat*>(buffer);
  HRESULT r = KaGetFileWfx(path, wf, sizeof buffer);
  if (FAILED(r)) return r;
  tKAAUDIODATA data{};
  r = KaGetFileAudioData(path, &data);
  if (FAILED(r)) return r;
  if (wf->IsCompressed() || wf->nChannels == 0 || wf->nBlockAlign == 0)
    return KAERR_UNSUPPORTED_FORMAT;
  clip.type = wf->SampleType;
  clip.channels = wf->nChannels;
  clip.blockAlign = wf->nBlockAlign;
  clip.sampleRate = wf->nSamplesPerSec;
  clip.dataOffset = data.offset;
  clip.fileFrames = INT64(data.size / wf->nBlockAlign);
  clip.toFloat = KaAudio_GetCopyFunction2(KASAMPLE_FLOAT32, clip.type);
  return clip.toFloat ? S_OK : KAERR_UNSUPPORTED_FORMAT;
}

Timeline::~Timeline() { clear(); }

void Timeline::setFormat(DWORD sampleRate, WORD channels) noexcept {
  rate_ = sampleRate;
  channels_ = channels;
  mix_ = KaAudio_GetMixFunction2(KASAMPLE_FLOAT32, KASAMPLE_FLOAT32);
}

HRESULT Timeline::add(const KAENGINECLIP& in) noexcept {
  if (in.size < sizeof(KAENGINECLIP) || !in.path) return E_INVALIDARG;
  try {
    Clip c;
    c.path = in.path;
    HRESULT r = probeAudioFile(in.path, c);
    if (FAILED(r)) return r;
    if (c.channels != channels_ && c.channels != 1) return KAERR_UNSUPPORTED_FORMAT;
    c.ratio = double(c.sampleRate) / rate_;
    if (c.ratio < 1.0 / Varispeed::kMaxRatio || c.ratio > Varispeed::kMaxRatio)
      return KAERR_UNSUPPORTED_FORMAT;
    if (in.inPoint < 0 || in.inPoint > c.fileFrames) return E_INVALIDARG;
    c.inPoint = in.inPoint;
    const INT64 available = INT64(double(c.fileFrames - in.inPoint) / c.ratio);
    c.length = in.length < 0 ? available : in.length;
    if (c.length > available) return E_INVALIDARG;
    if (c.sampleRate != rate_) c.resampler = std::make_unique<Varispeed>();
    c.start = in.start;
    c.gain = in.gain;
    r = KaFile_Open(in.path, GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, FILE_FLAG_RANDOM_ACCESS,
                    &c.file);
    if (FAILED(r)) return r;
    clips_.push_back(std::move(c));
    if (maxFrames_) return prepare(maxFrames_);
    return S_OK;
  } catch (...) {
    return E_OUTOFMEMORY;
  }
}

void Timeline::clear() noexcept {
  for (Clip& c : clips_)
    if (c.file != KA_INVALID_HFILE) KaFile_Close(c.file);
  clips_.clear();
}

HRESULT Timeline::prepare(DWORD maxFrames) noexcept {
  try {
    DWORD align = 4u * channels_;
    for (const Clip& c : clips_) align = std::max(align, c.blockAlign);
    raw_.resize(size_t(maxFrames) * align);
    conv_.resize(size_t(maxFrames) * channels_);
    for (Clip& c : clips_)
      if (c.resampler) c.input.resize(size_t(maxFrames) * c.channels);
    spread_.resize(size_t(maxFrames) * channels_);
    ones_.assign(channels_, 1.0);
    maxFrames_ = maxFrames;
    return S_OK;
  } catch (...) {
    return E_OUTOFMEMORY;
  }
}

INT64 Timeline::extent() const noexcept {
  INT64 e = 0;
  for (const Clip& c : clips_) e = std::max(e, c.end());
  return e;
}

HRESULT Timeline::readConverted(Clip& c, INT64 fileFrame, DWORD n, float* dst) noexcept {
  const DWORD bytes = n * c.blockAlign;
  DWORD got = 0;
  HRESULT r =
      KaFile_Seek(c.file, INT64(c.dataOffset) + fileFrame * c.blockAlign, FILE_BEGIN, nullptr);
  if (SUCCEEDED(r)) r = KaFile_Read(c.file, raw_.data(), bytes, &got);
  if (FAILED(r)) {
    got = 0;  // the rest of the mix still plays; the caller reports the failure
  }
  if (got < bytes) std::memset(raw_.data() + got, 0, bytes - got);  // a file cut short
  c.toFloat(dst, raw_.data(), int32_t(n * c.channels), c.gain);
  return r;
}

// The clip's frames for timeline frames [at, at + n) through its resampler, which carries
// on from the previous block when that ended at `at` and starts afresh otherwise.
HRESULT Timeline::renderResampled(Clip& c, INT64 at, DWORD n, float* dst) noexcept {
  HRESULT result = S_OK;
  if (at != c.nextOut) {
    c.resampler->reset(c.channels, c.ratio);
    c.srcPos = c.inPoint + INT64(double(at - c.start) * c.ratio);
    c.srcEnd = std::min(c.fileFrames, c.inPoint + INT64(std::ceil(double(c.length) * c.ratio)));
    c.inOff = c.inAvail = 0;
  }
  const WORD ch = c.channels;
  DWORD made = 0;
  for (int idle = 0; made < n && idle < 4;) {
    if (c.inOff == c.inAvail && c.srcPos < c.srcEnd) {
      const DWORD m = DWORD(std::min<INT64>(maxFrames_, c.srcEnd - c.srcPos));
      if (FAILED(readConverted(c, c.srcPos, m, c.input.data()))) result = KAERR_READ_FAILED;
      c.srcPos += m;
      c.inOff = 0;
      c.inAvail = m;
    }
    const bool drain = c.inOff == c.inAvail;
    size_t used = 0, got = 0;
    c.resampler->process(drain ? nullptr : c.input.data() + size_t(c.inOff) * ch,
                         c.inAvail - c.inOff, &used, dst + size_t(made) * ch, n - made, &got);
    c.inOff += DWORD(used);
    made += DWORD(got);
    idle = used || got ? 0 : idle + 1;
    if (drain && !got) break;
  }
  if (made < n) std::memset(dst + size_t(made) * ch, 0, sizeof(float) * (n - made) * ch);
  c.nextOut = at + n;
  return result;
}

HRESULT Timeline::render(INT64 from, DWORD frames, float* out) noexcept {
  if (frames > maxFrames_) return E_INVALIDARG;
  std::memset(out, 0, sizeof(float) * frames * channels_);
  HRESULT result = S_OK;
  for (Clip& c : clips_) {
    const INT64 a = std::max(from, c.start);
    const INT64 b = std::min(from + INT64(frames), c.end());
    if (a >= b) continue;
    const DWORD n = DWORD(b - a);
    const HRESULT r = c.resampler ? renderResampled(c, a, n, conv_.data())
                                  : readConverted(c, c.inPoint + (a - c.start), n, conv_.data());
    if (FAILED(r)) result = r;
    const float* src = conv_.data();
    if (c.channels != channels_) {
      float* s = spread_.data();
      for (DWORD i = 0; i < n; ++i)
        for (WORD ch = 0; ch < channels_; ++ch) s[size_t(i) * channels_ + ch] = src[i];
      src = s;
    }
    mix_(out + size_t(a - from) * channels_, src, int32_t(n * channels_), channels_, ones_.data());
  }
  return result;
}

}  // namespace ostra::engine
