// ostra repair FILE [--dry-run] [--json]: makes the header of a wave or Wave64 file agree
// with what is really on disk, through the kernel's header repair (KaPlanWavRepair /
// KaApplyWavRepair). Only header bytes change: ids, size words and format fields in front
// of the samples; a file that cannot be proved to be a wave or Wave64 file is refused
// untouched. A dry run lists every byte range that a real run would change.
#include <cstdio>
#include <string>

#include "command.h"
#include "operations.h"
#include "ostra/kaerror.h"
#include "ostra/kaplatform.h"
#include "text.h"

namespace ostra::cli {
namespace {

std::string hex(const BYTE* p, DWORD n) {
  std::string s;
  char b[4];
  for (DWORD i = 0; i < n; ++i) {
    std::snprintf(b, sizeof b, "%02X", p[i]);
    s += b;
  }
  return s;
}

}  // namespace

HRESULT repairFile(const RepairRequest& r, RepairResult& res) {
  res = RepairResult{};
  KAHFILE file = KA_INVALID_HFILE;
  HRESULT hr =
      KaFile_OpenUtf8(r.file.c_str(), r.dryRun ? GENERIC_READ : GENERIC_READ | GENERIC_WRITE,
                      FILE_SHARE_READ, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, &file);
  if (FAILED(hr)) return hr;
  KaErrorHandler_DetailsInit();
  hr = KaPlanWavRepair(file, &res.plan);
  if (SUCCEEDED(hr) && !r.dryRun) hr = KaApplyWavRepair(file, &res.plan);
  const HRESULT closed = KaFile_Close(file);
  if (SUCCEEDED(hr)) hr = closed;
  if (FAILED(hr)) return hr;
  // The planner's details say what it kept out of the data chunk and why.
  res.notes = takeKernelDetails();
  return S_OK;
}

namespace {

struct Options {
  RepairRequest request;
  bool json = false;
};

void setup(CLI::App& cmd) {
  static Options o;
  RepairRequest& r = o.request;
  cmd.add_option("FILE", r.file, "Wave or Wave64 file, repaired in place (header bytes only)")
      ->required()
      ->check(CLI::ExistingFile);
  cmd.add_flag("--dry-run", r.dryRun, "Only list the byte ranges a repair would change");
  cmd.add_flag("--json", o.json, "Print one JSON object");
  cmd.callback([] {
    RepairResult res;
    const HRESULT hr = repairFile(o.request, res);
    if (FAILED(hr)) return void(reportFailure(hr, o.request.file));
    const tKAWAVREPAIR& p = res.plan;
    const bool dry = o.request.dryRun;
    if (o.json) {
      nlohmann::json changes = nlohmann::json::array();
      for (DWORD i = 0; i < p.changeCount; ++i) {
        const tKAREPAIRCHANGE& c = p.changes[i];
        changes.push_back({{"offset", c.offset},
                           {"length", c.length},
                           {"field", c.field},
                           {"before", hex(c.before, c.length)},
                           {"after", hex(c.after, c.length)}});
      }
      nlohmann::json j{{"file", o.request.file},
                       {"container", p.container == KACONTAINER_WAVE64 ? "W64" : "RIFF"},
                       {"header_length", p.dataOffset},
                       {"data_length", p.dataLength},
                       {"changes", changes},
                       {"changed", p.changeCount > 0},
                       {"dry_run", dry},
                       {"notes", res.notes}};
      std::printf("%s\n", j.dump(2).c_str());
      return;
    }
    std::printf("%s: header length %llu, data length %llu\n", o.request.file.c_str(),
                (unsigned long long)p.dataOffset, (unsigned long long)p.dataLength);
    if (!p.changeCount) std::printf("  the header already agrees with the file; nothing written\n");
    for (DWORD i = 0; i < p.changeCount; ++i) {
      const tKAREPAIRCHANGE& c = p.changes[i];
      std::printf("  %s bytes %llu..%llu (%s): %s -> %s\n", dry ? "would change" : "changed",
                  (unsigned long long)c.offset, (unsigned long long)(c.offset + c.length - 1),
                  c.field, hex(c.before, c.length).c_str(), hex(c.after, c.length).c_str());
    }
    for (const auto& n : res.notes) std::printf("  note: %s\n", n.c_str());
  });
}

OSTRA_COMMAND("repair",
              "Repair the header of a wave or Wave64 file left unfinished or damaged, changing "
              "header bytes only",
              setup);

}  // namespace
}  // namespace ostra::cli
