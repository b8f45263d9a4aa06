// The session's clips and the renderer that turns a range of the timeline into mixed
// 32-bit float frames: read through the file functions, converted by the audio
// subsystem's converters (with the clip's gain) and added by its mixers. Owned by the
// play engine; only its disk thread renders, and the benchmarks render through it
// offline.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "engine/internal/varispeed.h"
#include "ostra/kaaudio.h"
#include "ostra/kaengine.h"

namespace ostra::engine {

struct Clip {
  std::u16string path;
  KAHFILE file = KA_INVALID_HFILE;
  KASAMPLETYPE type = KASAMPLE_NONE;
  WORD channels = 0;
  DWORD blockAlign = 0;
  DWORD sampleRate = 0;
  UINT64 dataOffset = 0;
  INT64 fileFrames = 0;
  INT64 start = 0;    // timeline frame of inPoint
  INT64 inPoint = 0;  // first frame of the file that plays
  INT64 length = 0;
  float gain = 1.0f;
  KAAUDIO_COPYFUNCTION toFloat = nullptr;
  // A clip at another rate than the session's plays through its own resampler; its
  // length counts session frames, its in-point file frames.
  double ratio = 1.0;  // file frames per session frame
  std::unique_ptr<Varispeed> resampler;
  std::vector<float> input;  // converted file frames waiting for the resampler
  INT64 nextOut = -1;        // the timeline frame the resampler's state continues at
  INT64 srcPos = 0, srcEnd = 0;
  DWORD inOff = 0, inAvail = 0;
  INT64 end() const noexcept { return start + length; }
};

// Describes a file's samples for a clip (format, data offset, frames). Shared by the
// recorder's file input.
HRESULT probeAudioFile(const KAWCHAR* path, Clip& clip) noexcept;

class Timeline {
 public:
  Timeline() = default;
  ~Timeline();
  Timeline(const Timeline&) = delete;
  Timeline& operator=(const Timeline&) = delete;

  // Fixes the session format; clips added later must match it (or be mono).
  void setFormat(DWORD sampleRate, WORD channels) noexcept;
  DWORD sampleRate() const noexcept { return rate_; }
  WORD channels() const noexcept { return channels_; }
  HRESULT add(const KAENGINECLIP& clip) noexcept;
  void clear() noexcept;
  size_t size() const noexcept { return clips_.size(); }
  // Reserves the scratch buffers for blocks of up to maxFrames frames.
  HRESULT prepare(DWORD maxFrames) noexcept;
  // The last frame any clip covers (0 without clips).
  INT64 extent() const noexcept;
  // Mixes timeline frames [from, from + frames) into out (overwritten, interleaved).
  // Frames no clip covers are silence. Never allocates.
  HRESULT render(INT64 from, DWORD frames, float* out) noexcept;

 private:
  HRESULT readConverted(Clip& c, INT64 fileFrame, DWORD n, float* dst) noexcept;
  HRESULT renderResampled(Clip& c, INT64 at, DWORD n, float* dst) noexcept;
  DWORD rate_ = 0;
  WORD channels_ = 0;
  std::vector<Clip> clips_;
  std::vector<BYTE> raw_;
  std::vector<float> conv_, spread_;
  std::vector<double> ones_;
  KAAUDIO_MIXFUNCTION mix_ = nullptr;
  DWORD maxFrames_ = 0;
};

}  // namespace ostra::engine
