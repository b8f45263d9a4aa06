// The plug-in manager as the tool uses it: one manager per run, started (or rescanned)
// with the kernel's plug-in configuration, its log lines optionally printed.
#pragma once

#include <string>
#include <vector>

#include "ostra/kafiomgr.h"

namespace ostra::cli {

struct ManagerRun {
  IKaFileIOManager* manager = nullptr;  // released by the destructor
  std::vector<std::string> log;         // the manager's log lines, when kept
  ~ManagerRun();
};

// Starts a manager; keepLog collects the log lines (the scan's included).
HRESULT startManager(bool rescan, bool keepLog, ManagerRun* run);

std::string passName(DWORD pass);

}  // namespace ostra::cli
