// Shared test helpers: scratch folders, whole-file reads and writes, and the
// fault-injecting twin of the platform layer.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "ostra/kadefs.h"

namespace ostra::test {

// A fresh folder under the system's temporary folder, removed with its contents.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::filesystem::path& path() const { return path_; }
  std::string file(const std::string& name) const { return (path_ / name).string(); }
  std::u16string wfile(const std::string& name) const;

 private:
  std::filesystem::path path_;
};

std::vector<uint8_t> readFile(const std::string& path);
void writeFile(const std::string& path, const std::vector<uint8_t>& bytes);
std::u16string u16(const std::string& utf8);

// Runs a shell command line; standard output and standard error are kept apart.
struct RunResult {
  int status = -1;  // the exit status, -1 when the command did not end normally
  std::string out, err;
};
RunResult runCommand(const std::string& commandLine);
std::string shellQuote(const std::string& s);

// While alive, makes the Nth allocation (malloc or realloc, counted from 1) or the Nth
// write fail; a failed write may first write `shortBytes` bytes. 0 disables a fault.
class FaultInjection {
 public:
  FaultInjection();
  ~FaultInjection();
  void failAllocation(int nth);
  void failWrite(int nth, size_t shortBytes = 0);
  void failRead(int nth);
  int allocations() const;
  int writes() const;
};

}  // namespace ostra::test
