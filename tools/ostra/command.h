// The ostra tool's command registry and the helpers every command shares. Each command
// lives in its own cmd_<name>.cpp and registers itself with OSTRA_COMMAND.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

#include "ostra/kadefs.h"

namespace ostra::cli {

using SetupFn = void (*)(CLI::App& command);

struct Registrar {
  Registrar(const char* name, const char* description, SetupFn setup);
};

// The process exit status; a command's callback sets it.
int& exitStatus();

// Prints the kernel's composed message for a failure to standard error and returns the
// exit status to use (1). `context` is a file name or argument woven into the message.
int reportFailure(HRESULT hr, const std::string& context = std::string(), DWORD contextId = 0);

// The same for a refusal whose cause the result code alone does not say: `reason`, in the
// user's terms, goes into the kernel's details and prints under the message.
int reportRefusal(HRESULT hr, const std::string& context, const std::string& reason);

// Records `reason` (when not empty) in the kernel's details for hr, so that the next
// reportFailure prints it under the message; returns hr. For code that returns a result
// before the command reports it.
HRESULT withReason(HRESULT hr, const std::string& reason);

// Prints a plain usage or input error (not a kernel result) and returns 2.
int reportUsage(const std::string& message);

// Accepts a whole number from 0 up (frame positions and counts); CLI11 would otherwise let
// "-5" wrap round into an unsigned option.
inline CLI::Validator wholeNumber() {
  return CLI::Validator(
      [](std::string& text) {
        const bool digits =
            !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
        return digits ? std::string() : "expected a whole number from 0 up, not " + text;
      },
      "N");
}

}  // namespace ostra::cli

#define OSTRA_CONCAT_INNER(a, b) a##b
#define OSTRA_CONCAT(a, b) OSTRA_CONCAT_INNER(a, b)
#define OSTRA_COMMAND(name, description, setup) \
  static ::ostra::cli::Registrar OSTRA_CONCAT(ostraCommand_, __LINE__)(name, description, setup)
