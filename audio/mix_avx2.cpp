// AVX2 mixers.
#include "audio/internal/tables.h"

namespace ostra::audio {
void installMixAvx2(MixerTable&, DWORD) noexcept {}
}  // namespace ostra::audio
