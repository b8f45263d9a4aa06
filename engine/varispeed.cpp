// Varispeed through libsoxr (see engine/internal/varispeed.h).
#include "engine/internal/varispeed.h"

#include <soxr.h>

namespace ostra::engine {

Varispeed::~Varispeed() {
  if (soxr_) soxr_delete(static_cast<soxr_t>(soxr_));
}

HRESULT Varispeed::reset(WORD channels, double ratio) noexcept {
  if (!(ratio > 0.0) || ratio > kMaxRatio) return E_INVALIDARG;
  if (soxr_ && channels != channels_) {
    soxr_delete(static_cast<soxr_t>(soxr_));
    soxr_ = nullptr;
  }
  if (!soxr_) {
    const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_I);
    const soxr_quality_spec_t q = soxr_quality_spec(SOXR_HQ, SOXR_VR);
    soxr_error_t e = nullptr;
    soxr_t s = soxr_create(kMaxRatio, 1.0, channels, &e, &io, &q, nullptr);
    if (!s || e) return E_OUTOFMEMORY;
    soxr_ = s;
    channels_ = channels;
  } else if (soxr_clear(static_cast<soxr_t>(soxr_))) {
    return E_FAIL;
  }
  return soxr_set_io_ratio(static_cast<soxr_t>(soxr_), ratio, 0) ? E_FAIL : S_OK;
}

HRESULT Varispeed::process(const float* in, size_t inFrames, size_t* used, float* out,
                           size_t outFrames, size_t* made) noexcept {
  if (!soxr_) return E_UNEXPECTED;
  size_t idone = 0, odone = 0;
  const soxr_error_t e = soxr_process(static_cast<soxr_t>(soxr_), in, in ? inFrames : 0, &idone,
                                      out, outFrames, &odone);
  if (used) *used = idone;
  if (made) *made = odone;
  return e ? E_FAIL : S_OK;
}

}  // namespace ostra::engine
