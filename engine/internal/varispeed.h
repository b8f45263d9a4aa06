// Varispeed for the play engine: libsoxr in its variable-rate mode, interleaved float in
// and out. Rates are magnitudes from 1/4 to 4 (the engine feeds reverse play backwards);
// the disk thread alone uses it.
#pragma once

#include "ostra/kadefs.h"

namespace ostra::engine {

class Varispeed {
 public:
  static constexpr double kMaxRatio = 4.0;
  Varispeed() = default;
  ~Varispeed();
  Varispeed(const Varispeed&) = delete;
  Varispeed& operator=(const Varispeed&) = delete;

  // Ready for a fresh signal at `ratio` input frames per output frame.
  HRESULT reset(WORD channels, double ratio) noexcept;
  // Resamples up to inFrames frames (null in: drain what the filter holds) into up to
  // outFrames frames; reports what was used and made.
  HRESULT process(const float* in, size_t inFrames, size_t* used, float* out, size_t outFrames,
                  size_t* made) noexcept;

 private:
  void* soxr_ = nullptr;
  WORD channels_ = 0;
};

}  // namespace ostra::engine
