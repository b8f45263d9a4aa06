// SSE2 converters.
#include "audio/internal/tables.h"

namespace ostra::audio {
void installConvertSse2(ConverterTable&, DWORD) noexcept {}
}  // namespace ostra::audio
