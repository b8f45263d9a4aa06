// "-" as a file name: standard input for the commands that read a file (info, samples,
// convert) and standard output for convert's output. The readers seek through their
// input and the writers rewrite headers, so standard input is first copied to a
// temporary file (the input has to be read to its end once anyway), and convert writes
// its output to a temporary file that then goes to standard output whole, with exact
// sizes. The temporary files live in the system's temporary folder and are removed when
// the command ends, whatever the outcome.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

#include "ostra/kadefs.h"

namespace ostra::cli {

// A file that exists, or "-".
CLI::Validator existingFileOrStdin();

class TempFile {
 public:
  TempFile() = default;
  ~TempFile();
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;
  // Creates an empty file with a unique name; `suffix` may carry an extension.
  HRESULT create(const std::string& suffix);
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// `name` itself, or for "-" the path of a temporary copy of standard input in `spool`.
HRESULT readablePath(const std::string& name, TempFile& spool, std::string& path);
// Copies a file to standard output.
HRESULT copyToStdout(const std::string& path);

}  // namespace ostra::cli
