// ostra dib info: what the kernel makes of a BMP file.
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>

#include "command.h"
#include "ostra/kadib.h"
#include "ostra/kaplatform.h"
#include "text.h"

namespace {

std::string formatText(DWORD compression) {
  KAWCHAR text[64];
  if (FAILED(KaVideo_GetFormatText(compression, text, 64))) return "?";
  char utf8[256];
  const int n = KaText_WideToMultiByte(KA_CP_UTF8, 0, text, -1, utf8, sizeof utf8);
  return n > 0 ? std::string(utf8) : std::string("?");
}

void setupInfo(CLI::App& cmd) {
  static bool json = false;
  static std::string file;
  cmd.add_flag("--json", json, "Print one JSON object");
  cmd.add_option("file", file, "BMP file")->required();
  cmd.callback([] {
    BITMAPINFOHEADER* bmp = nullptr;
    const HRESULT hr = KaDib_ReadBmpFile(ostra::cli::toUtf16(file).c_str(), &bmp);
    if (FAILED(hr)) {
      ostra::cli::reportFailure(hr, file);
      return;
    }
    const BITMAPINFOHEADER& h = *bmp;
    const int type = KaGetPixelType(bmp);
    const DWORD tableEntries = h.biCompression == BI_BITFIELDS ? 0 : h.biClrUsed;
    const std::string format = formatText(h.biCompression);
    if (json) {
      nlohmann::json j{{"width", h.biWidth},
                       {"height", h.biHeight},
                       {"planes", h.biPlanes},
                       {"bitCount", h.biBitCount},
                       {"compression", h.biCompression},
                       {"format", format},
                       {"sizeImage", h.biSizeImage},
                       {"xPelsPerMeter", h.biXPelsPerMeter},
                       {"yPelsPerMeter", h.biYPelsPerMeter},
                       {"clrUsed", h.biClrUsed},
                       {"clrImportant", h.biClrImportant},
                       {"pixelType", type},
                       {"stride", KaDibStride(bmp)},
                       {"colourTableEntries", tableEntries},
                       {"imageBytes", h.biSizeImage}};
      std::printf("%s\n", j.dump(2).c_str());
    } else {
      std::printf(
          "size         %d x %d\nbits         %u\nformat       %s (0x%08x)\npixel type   %d\n"
          "stride       %d\ncolour table %u entries\nimage bytes  %u\nresolution   %d x %d per "
          "metre\n",
          int(h.biWidth), int(h.biHeight), unsigned(h.biBitCount), format.c_str(),
          unsigned(h.biCompression), type, int(KaDibStride(bmp)), unsigned(tableEntries),
          unsigned(h.biSizeImage), int(h.biXPelsPerMeter), int(h.biYPelsPerMeter));
    }
    KaDibFree(bmp, 0);
  });
}

void setup(CLI::App& cmd) {
  cmd.require_subcommand(1);
  setupInfo(
      *cmd.add_subcommand("info", "Show the header, pixel type, stride and sizes of a BMP file"));
}

OSTRA_COMMAND("dib", "Inspect bitmaps", setup);

}  // namespace
