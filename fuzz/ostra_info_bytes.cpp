// Arbitrary bytes through the code behind `ostra info`: once as a file served from memory
// (the wave-file
// helpers, the chunk families, the summary and display loaders) and once as a memory
// image (mriff_*), each rendered as text and JSON as the command prints them. The tool's
// sources are compiled in here because the fuzz targets link the static kernel, not the
// tool.
#include <cstdint>

#include "../tools/ostra/bext.cpp"
#include "../tools/ostra/info_text.cpp"
#include "../tools/ostra/inspect.cpp"
#include "../tools/ostra/inspect_render.cpp"
#include "../tools/ostra/label_text.cpp"
#include "../tools/ostra/text.cpp"
#include "memory_fd.h"
#include "ostra/kaplatform.h"

namespace {

void render(const ostra::cli::FileFacts& facts) {
  const std::string json =
      ostra::cli::factsJson(facts).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  const std::string text = ostra::cli::factsText(facts);
  if (json.empty() || text.empty()) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static ostra::fuzz::MemoryDescriptor memory;
  const KAHFILE file = memory.open(data, size);
  ostra::cli::FileFacts facts;
  if (SUCCEEDED(ostra::cli::inspectFile(file, facts))) render(facts);
  KaFile_Close(file);
  ostra::cli::FileFacts image;
  if (SUCCEEDED(ostra::cli::inspectImage(data, size, image))) render(image);
  return 0;
}
