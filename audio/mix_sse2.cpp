// SSE2 mixer for single precision into single precision. Compiled with SSE2 for this
// file only; the results equal the plain mixer's (products in double precision, each
// narrowed once, sums in single precision).
#include <emmintrin.h>

#include "audio/internal/tables.h"

namespace ostra::audio {
namespace {

constexpr int kBlock = 4;
constexpr int kMaxVectorChannels = 64;

void mixF32Sse2(void* dest, const void* src, int32_t n, int32_t channels, const double* gains) {
  const MixFn plain = kPlainMixers.fn[kF32][kF32];
  if (dest == src || n <= 0 || !dest || !src) return;
  if (channels <= 0 || !gains) return plain(dest, src, n, channels, gains);
  bool unity = true;
  for (int32_t c = 0; c < channels && unity; ++c) unity = gains[c] == 1.0;
  if (!unity && channels > kMaxVectorChannels) return plain(dest, src, n, channels, gains);
  auto* d = static_cast<float*>(dest);
  auto* s = static_cast<const float*>(src);
  const int32_t whole = n / kBlock * kBlock;
  int32_t i = 0;
  if (unity) {
    for (; i < whole; i += kBlock)
      _mm_storeu_ps(d + i, _mm_add_ps(_mm_loadu_ps(d + i), _mm_loadu_ps(s + i)));
    return plain(d + i, s + i, n - i, channels, gains);
  }
  double table[2 * kMaxVectorChannels + 2 * kBlock];
  for (int32_t k = 0; k < 2 * channels + kBlock; ++k) table[k] = gains[k % channels];
  int32_t phase = 0;
  const int32_t step = kBlock % channels;
  for (; i < whole; i += kBlock) {
    const __m128 f = _mm_loadu_ps(s + i);
    const __m128d a = _mm_mul_pd(_mm_cvtps_pd(f), _mm_loadu_pd(table + phase));
    const __m128d b =
        _mm_mul_pd(_mm_cvtps_pd(_mm_movehl_ps(f, f)), _mm_loadu_pd(table + phase + 2));
    const __m128 v = _mm_movelh_ps(_mm_cvtpd_ps(a), _mm_cvtpd_ps(b));
    _mm_storeu_ps(d + i, _mm_add_ps(_mm_loadu_ps(d + i), v));
    phase += step;
    if (phase >= channels) phase -= channels;
  }
  plain(d + i, s + i, n - i, channels, table + phase);
}

}  // namespace

void installMixSse2(MixerTable& t, DWORD features) noexcept {
  if (features & KACPU_SSE2) {
    t.fn[kF32][kF32] = &mixF32Sse2;
    t.variant[kF32][kF32] = kSse2;
  }
}

}  // namespace ostra::audio
