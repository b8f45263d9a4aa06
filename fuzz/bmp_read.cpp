// BMP reading on hostile bytes: the memory parser, then the same bytes as a file (served from
// memory) through displist_CreateBitmapFromFile (the path ostra dib info takes), then every pixel
// of what was accepted.
#include <cstdint>
#include <cstdlib>

#include "memory_fd.h"
#include "ostra/kadib.h"
#include "ostra/kaplatform.h"

namespace {

void touch(BITMAPINFOHEADER* bmp) {
  if (!bmp) return;
  const int type = KaGetPixelType(bmp);
  if (KaVideo_IsCompressed(bmp) || type == 0)
    std::abort();  // the reader only returns the model's types
  KAPIXEL p{};
  for (LONG y = 0; y < bmp->biHeight && y < 64; ++y)
    for (LONG x = 0; x < bmp->biWidth && x < 64; ++x)
      if (FAILED(KaDibGetPixel(bmp, nullptr, 0, x, y, &p))) std::abort();
  KaDibFree(bmp, 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  BITMAPINFOHEADER* bmp = nullptr;
  if (SUCCEEDED(KaDib_ReadBmpMemory(data, size, &bmp))) touch(bmp);
  static ostra::fuzz::MemoryDescriptor memory;
  memory.open(data, size);
  touch(displist_CreateBitmapFromFile(ostra::fuzz::MemoryDescriptor::kWidePath));
  return 0;
}
