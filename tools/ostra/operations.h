// The file operations behind `convert`, `repair` and `tag`, callable from `demo` as well.
// Each returns the kernel's result code and prints nothing on success unless asked.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "inspect.h"
#include "ostra/kaaudio.h"

namespace ostra::cli {

struct ConvertRequest {
  std::string input;
  std::string output;
  KASAMPLETYPE type = KASAMPLE_NONE;   // NONE: keep the input's type
  std::optional<Container> container;  // default: the input's (AIFF for AIFF input)
  double gainDb = 0.0;
};
HRESULT convertFile(const ConvertRequest& request);

struct RepairRequest {
  std::string file;
  uint64_t maxHeader = 65536;                 // for the kernel's own repair functions
  uint32_t rate = 0, channels = 0, bits = 0;  // assumed format when the file has none
  bool dryRun = false;
};
struct RepairResult {
  std::string method;  // "chunk walk" or the kernel function used
  uint64_t headerLength = 0;
  uint64_t dataLength = 0;
  uint64_t oldDataSize = 0, newDataSize = 0;  // the data size word before and after
  uint64_t oldRiffSize = 0, newRiffSize = 0;  // the RIFF/riff size word before and after
  bool changed = false;
  std::vector<std::string> notes;
};
HRESULT repairFile(const RepairRequest& request, RepairResult& result);

struct TagRequest {
  std::string file;
  std::vector<std::pair<std::string, std::string>> set;  // id, UTF-8 text
  std::vector<std::string> remove;
  bool wide = false;  // UNFO instead of INFO
};
HRESULT tagFile(const TagRequest& request);

// "pcm16" and friends; NONE for an unknown name.
KASAMPLETYPE sampleTypeFromName(const std::string& name);

}  // namespace ostra::cli
