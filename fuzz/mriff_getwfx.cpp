// Feeds arbitrary bytes as a wave image to mriff_GetWfx (both forms). The image is copied
// into a block of exactly its size so that any read past it is caught.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "ostra/mriff.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > (1u << 20)) return 0;
  std::unique_ptr<uint8_t[]> image(new uint8_t[size ? size : 1]);
  if (size) std::memcpy(image.get(), data, size);
  WAVEFORMATEX wfx{};
  DWORD offset = 0, bytes = 0;
  if (SUCCEEDED(mriff_GetWfx(&wfx, image.get(), DWORD(size), &offset, &bytes))) {
    if (offset > size || bytes > size - offset) std::abort();
  }
  // A record buffer of the usual size and a minimal one.
  alignas(8) uint8_t record[KAWAVEFORMAT_BUFFER_SIZE];
  mriff_GetWfx(reinterpret_cast<_kawaveformat*>(record), image.get(), DWORD(size), &offset, &bytes,
               sizeof record);
  alignas(8) uint8_t small[KAWAVEFORMAT_FIXED_SIZE];
  mriff_GetWfx(reinterpret_cast<_kawaveformat*>(small), image.get(), DWORD(size), nullptr, nullptr,
               sizeof small);
  return 0;
}
