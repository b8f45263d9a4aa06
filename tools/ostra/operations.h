// The file operations behind `convert`, `repair` and `tag`, callable from `demo` as well.
// Each returns the kernel's result code and prints nothing on success unless asked.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "inspect.h"
#include "ostra/kaaudio.h"
#include "ostra/kawave.h"

namespace ostra::cli {

struct ConvertRequest {
  std::string input;
  std::string output;
  KASAMPLETYPE type = KASAMPLE_NONE;   // NONE: keep the input's type
  std::optional<Container> container;  // default: the input's (AIFF for AIFF input)
  double gainDb = 0.0;
  // "flac", "ogg", "opus" or "mp3": written by a renderer plug-in (default: as the output's
  // extension says when it is one of those).
  std::string codecContainer;
};
HRESULT convertFile(const ConvertRequest& request);

struct RepairRequest {
  std::string file;
  bool dryRun = false;
};
struct RepairResult {
  tKAWAVREPAIR plan{};  // the changes, made (or, in a dry run, to be made)
  std::vector<std::string> notes;
};
HRESULT repairFile(const RepairRequest& request, RepairResult& result);

struct TagRequest {
  std::string file;
  std::vector<std::pair<std::string, std::string>> set;  // id, UTF-8 text
  std::vector<std::string> remove;
  bool wide = false;      // UNFO instead of INFO
  UINT codePage = 65001;  // of new INFO text (UTF-8 unless the user names another)
};
HRESULT tagFile(const TagRequest& request);

// "pcm16" and friends; NONE for an unknown name.
KASAMPLETYPE sampleTypeFromName(const std::string& name);

}  // namespace ostra::cli
