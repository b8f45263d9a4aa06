// Where a command's output goes. Nothing the user owns is touched before the work has
// succeeded: the output is checked against the inputs and against special files before
// anything is opened, written as a temporary file in the output's folder, and renamed
// over the output only by commit(). A failure removes that temporary file and nothing else.
#pragma once

#include <string>
#include <vector>

#include "ostra/kadib.h"

namespace ostra::cli {

class OutputFile {
 public:
  OutputFile() = default;
  ~OutputFile() { abandon(); }
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  // Checks `output` and creates the temporary file beside it (empty). Refused, with the
  // cause in `why`: an output that is one of `inputs` (the same file through any path,
  // link or hard link), a device, FIFO, socket or folder, a read-only file, a missing or
  // unwritable folder. An output that is a symbolic link keeps the link: the file it
  // names is replaced.
  HRESULT reserve(const std::string& output, const std::vector<std::string>& inputs,
                  std::string& why);
  // The temporary file to write (UTF-8 path).
  const std::string& path() const { return temp_; }
  // Renames the temporary file over the output, with the permissions the replaced file
  // had. The temporary file must be closed.
  HRESULT commit(std::string& why);
  // Removes the temporary file, if any.
  void abandon();

 private:
  std::string target_, temp_;
  bool replaces_ = false;
};

// The same checks for a command that rewrites `file` itself (tag): the copy to edit is
// made beside it, and commit() puts it in place.
HRESULT reserveRewrite(OutputFile& out, const std::string& file, std::string& why);

// Writes a bitmap as a BMP file through an OutputFile.
HRESULT writeBitmap(const std::string& output, const std::vector<std::string>& inputs,
                    const BITMAPINFOHEADER* bitmap, std::string& why);

}  // namespace ostra::cli
