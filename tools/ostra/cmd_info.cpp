// ostra info [--json] [--memory] FILE...: the container, format, audio location, chunk
// list and descriptive items of wave, Wave64 and AIFF/AIFC files.
#include <cstdio>
#include <string>
#include <vector>

#include "command.h"
#include "inspect.h"
#include "media_source.h"
#include "ostra/kaerror.h"
#include "ostra/kaplatform.h"
#include "std_streams.h"

namespace ostra::cli {
namespace {

struct Options {
  std::vector<std::string> files;
  bool json = false;
  bool memory = false;
  unsigned tcType = 3;
};

HRESULT readWhole(const std::string& path, std::vector<uint8_t>& bytes) {
  KAHFILE file = KA_INVALID_HFILE;
  HRESULT hr = KaFile_OpenUtf8(path.c_str(), GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING,
                               FILE_FLAG_SEQUENTIAL_SCAN, &file);
  if (FAILED(hr)) return hr;
  UINT64 size = 0;
  hr = KaFile_GetSize(file, &size);
  if (SUCCEEDED(hr) && size > 0x7FFFFFFF) hr = KAERR_RIFF_TOO_LARGE;  // the memory family's reach
  if (SUCCEEDED(hr)) {
    try {
      bytes.resize(size_t(size));
    } catch (const std::bad_alloc&) {
      hr = E_OUTOFMEMORY;
    }
  }
  DWORD got = 0;
  if (SUCCEEDED(hr) && size) hr = KaFile_Read(file, bytes.data(), DWORD(size), &got);
  if (SUCCEEDED(hr) && got != size) hr = KAERR_READ_FAILED;
  KaFile_Close(file);
  return hr;
}

void run(const Options& o) {
  nlohmann::json all = nlohmann::json::array();
  bool first = true;
  for (const std::string& path : o.files) {
    FileFacts facts;
    TempFile spool;
    std::string real;
    HRESULT hr = readablePath(path, spool, real);
    if (SUCCEEDED(hr) && o.memory) {
      std::vector<uint8_t> bytes;
      hr = readWhole(real, bytes);
      if (SUCCEEDED(hr)) hr = inspectImage(bytes.data(), bytes.size(), facts);
    } else if (SUCCEEDED(hr)) {
      hr = inspectPath(real, facts);
    }
    if (FAILED(hr) && !o.memory) {
      // Not a file the kernel reads itself: ask the plug-ins.
      MediaFile media;
      const HRESULT mediaHr = media.open(real);
      if (SUCCEEDED(mediaHr)) {
        if (o.json) {
          nlohmann::json j = mediaJson(media);
          j["file"] = path;
          all.push_back(std::move(j));
        } else {
          std::printf("%s%s\n%s", first ? "" : "\n", path.c_str(), mediaText(media).c_str());
          first = false;
        }
        continue;
      }
      if (mediaHr != KAERR_FIO_UNSUPPORTED && mediaHr != KAERR_FIO_HOST_FORMAT) hr = mediaHr;
    }
    if (FAILED(hr)) {
      reportFailure(hr, path);
      continue;
    }
    if (o.json) {
      nlohmann::json j = factsJson(facts, o.tcType);
      j["file"] = path;
      all.push_back(std::move(j));
    } else {
      std::printf("%s%s\n%s", first ? "" : "\n", path.c_str(), factsText(facts, o.tcType).c_str());
      first = false;
    }
  }
  if (o.json && !all.empty())
    std::printf("%s\n", (o.files.size() == 1 ? all[0] : all)
                            .dump(2, ' ', false, nlohmann::json::error_handler_t::replace)
                            .c_str());
}

void setup(CLI::App& cmd) {
  static Options o;
  cmd.add_option("FILE", o.files,
                 "Audio or video files: wave, Wave64 and AIFF by the kernel, others through the "
                 "plug-ins (- reads standard input)")
      ->required()
      ->check(existingFileOrStdin());
  cmd.add_flag("--json", o.json, "One JSON object per file (an array for several files)");
  cmd.add_option("--tc-type", o.tcType,
                 "Time-code format of the broadcast time reference: 1 = 30, 2 = 30 drop, "
                 "3 = 25 (default), 4 = 24, 5 = 30 at 29.97, 6 = 24 at 23.976")
      ->check(CLI::Range(1, 6));
  cmd.add_flag("--memory", o.memory,
               "Read the file into memory and walk it with the memory RIFF functions");
  cmd.callback([] { run(o); });
}

OSTRA_COMMAND("info",
              "Show the container, format, audio data, chunks and INFO items of audio files",
              setup);

}  // namespace
}  // namespace ostra::cli
