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

// Prints a plain usage or input error (not a kernel result) and returns 2.
int reportUsage(const std::string& message);

}  // namespace ostra::cli

#define OSTRA_CONCAT_INNER(a, b) a##b
#define OSTRA_CONCAT(a, b) OSTRA_CONCAT_INNER(a, b)
#define OSTRA_COMMAND(name, description, setup) \
  static ::ostra::cli::Registrar OSTRA_CONCAT(ostraCommand_, __LINE__)(name, description, setup)
