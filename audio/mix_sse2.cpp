// SSE2 mixers.
#include "audio/internal/tables.h"

namespace ostra::audio {
void installMixSse2(MixerTable&, DWORD) noexcept {}
}  // namespace ostra::audio
