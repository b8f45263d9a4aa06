// Shared by the chunk-layer, wave, summary, display-list, AIFF and file-format tests: byte
// image builders, an open file that closes itself, a scratch file holding an image, and the
// live global-memory count that shows a path freed what it took.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "ostra/kaplatform.h"
#include "support/bytes.h"
#include "support/test_support.h"

namespace formatstest {

using ostra::test::Bytes;
using ostra::test::chunk;
using ostra::test::join;
using ostra::test::list;
using ostra::test::readFile;
using ostra::test::riff;
using ostra::test::TempDir;
using ostra::test::writeFile;

class File {
 public:
  explicit File(const std::string& path, DWORD mode = OPEN_ALWAYS) {
    EXPECT_EQ(
        KaFile_OpenUtf8(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, mode, 0, &f_),
        S_OK);
  }
  ~File() { KaFile_Close(f_); }
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  operator KAHFILE() const { return f_; }
  void seek(INT64 to) const { KaFile_Seek(f_, to, FILE_BEGIN, nullptr); }
  INT64 pos() const {
    INT64 p = -1;
    KaFile_GetPosition(f_, &p);
    return p;
  }

 private:
  KAHFILE f_ = KA_INVALID_HFILE;
};

// A file in a folder of its own holding `contents`, opened at offset 0.
struct ScratchPath {
  explicit ScratchPath(const Bytes& contents) : path(dir.file("chunks.bin")) {
    writeFile(path, contents);
  }
  TempDir dir;
  std::string path;
};
class ScratchFile : private ScratchPath, public File {
 public:
  explicit ScratchFile(const Bytes& contents = {})
      : ScratchPath(contents), File(path, OPEN_EXISTING) {}
  Bytes contents() const { return readFile(path); }
};

inline uint64_t liveBlocks() {
  UINT64 n = 0;
  KaGlobalGetStats(&n, nullptr);
  return n;
}

}  // namespace formatstest
