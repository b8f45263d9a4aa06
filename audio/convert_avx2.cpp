// AVX2 converters.
#include "audio/internal/tables.h"

namespace ostra::audio {
void installConvertAvx2(ConverterTable&, DWORD) noexcept {}
}  // namespace ostra::audio
