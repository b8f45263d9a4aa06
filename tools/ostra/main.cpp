#include <algorithm>
#include <cstdio>
#include <vector>

#include "command.h"
#include "ostra/kaerror.h"

namespace ostra::cli {
namespace {

struct Entry {
  const char* name;
  const char* description;
  SetupFn setup;
};

std::vector<Entry>& registry() {
  static std::vector<Entry> r;
  return r;
}

}  // namespace

Registrar::Registrar(const char* name, const char* description, SetupFn setup) {
  registry().push_back({name, description, setup});
}

int& exitStatus() {
  static int status = 0;
  return status;
}

int reportUsage(const std::string& message) {
  std::fprintf(stderr, "ostra: %s\n", message.c_str());
  return exitStatus() = 2;
}

}  // namespace ostra::cli

int main(int argc, char** argv) {
  using namespace ostra::cli;
  CLI::App app{"ostra: the Ostra Kernel on the command line"};
  app.require_subcommand(1);
  auto& entries = registry();
  std::sort(entries.begin(), entries.end(),
            [](const Entry& a, const Entry& b) { return std::string_view(a.name) < b.name; });
  for (const Entry& e : entries) e.setup(*app.add_subcommand(e.name, e.description));
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    // Help and version requests succeed; every other parse error is a usage error, exit 2
    // whatever number the parser gives its kind.
    const int parserStatus = app.exit(e);
    return parserStatus == 0 ? 0 : 2;
  }
  return exitStatus();
}
