// BMP reading on hostile bytes: the memory parser, then the same bytes as a file through
// displist_CreateBitmapFromFile (the path ostra dib info takes), then every pixel of what
// was accepted.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

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

std::u16string scratchPath() {
  const std::string p = (std::filesystem::temp_directory_path() / "ostra-bmp-fuzz.bmp").string();
  std::u16string w(p.size() + 1, u'\0');
  const int n = KaText_MultiByteToWide(KA_CP_UTF8, 0, p.c_str(), -1, w.data(), int(w.size()));
  w.resize(n > 0 ? size_t(n - 1) : 0);
  return w;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  BITMAPINFOHEADER* bmp = nullptr;
  if (SUCCEEDED(KaDib_ReadBmpMemory(data, size, &bmp))) touch(bmp);
  static const std::u16string path = scratchPath();
  {
    KAHFILE f = KA_INVALID_HFILE;
    if (FAILED(KaFile_Open(path.c_str(), GENERIC_WRITE, 0, CREATE_ALWAYS, 0, &f))) return 0;
    DWORD written = 0;
    if (size) KaFile_Write(f, data, DWORD(size), &written);
    KaFile_Close(f);
  }
  touch(displist_CreateBitmapFromFile(path.c_str()));
  return 0;
}
