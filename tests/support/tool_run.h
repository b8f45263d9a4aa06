// The ostra tool built beside the tests, run through the shell.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "support/test_support.h"

namespace ostra::test {

inline RunResult ostra(const std::string& args) {
#ifdef OSTRA_TOOL_PATH
  return runCommand(shellQuote(OSTRA_TOOL_PATH) + " " + args);
#else
  return {};
#endif
}

// The --json answer of a command: null unless it succeeded with well-formed JSON.
inline nlohmann::json ostraJson(const std::string& args) {
  const RunResult r = ostra(args);
  if (r.status != 0) return nullptr;
  auto j = nlohmann::json::parse(r.out, nullptr, false);
  return j.is_discarded() ? nlohmann::json(nullptr) : j;
}

}  // namespace ostra::test
