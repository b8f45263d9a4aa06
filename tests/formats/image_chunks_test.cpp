// The chunk list of a file's bytes in memory is the chunk list of the file, for wave,
// Wave64, AIFF and damaged images alike.
#include <gtest/gtest.h>

#include <cstring>

#include "format_test_support.h"
#include "ostra/kawave.h"
#include "ostra/riff64.h"

namespace formatstest {
namespace {

TEST(ImageChunks, SameListAsTheFile) {
  TempDir dir;
  const Bytes wave =
      riff("WAVE", {chunk("fmt ", Bytes(16, 1)), list("INFO", chunk("INAM", Bytes(5, 'a'))),
                    chunk("data", Bytes(40, 2))});
  Bytes w64;
  w64.guid(RIFF64_GUID_RIFF).u64(40 + 40 + 64).guid(RIFF64_GUID_WAVE);
  w64.guid(RIFF64_GUID_FMT).u64(24 + 16).add(Bytes(16, 1));
  w64.guid(RIFF64_GUID_DATA).u64(24 + 40).add(Bytes(40, 2));
  Bytes cut = wave;
  cut.resize(cut.size() - 30);
  const Bytes images[] = {wave, w64, cut, Bytes(3, 'R'), Bytes()};
  for (size_t i = 0; i < std::size(images); ++i) {
    SCOPED_TRACE(i);
    const std::string path = dir.file("f" + std::to_string(i));
    writeFile(path, images[i]);
    File f(path, OPEN_EXISTING);
    tKACHUNKINFO a[16] = {}, b[16] = {};
    DWORD na = 0, nb = 0, ca = 0, cb = 0;
    const HRESULT ha = KaGetFileChunks(f, a, 16, &na, &ca);
    const HRESULT hb = KaGetImageChunks(images[i].data(), images[i].size(), b, 16, &nb, &cb);
    EXPECT_EQ(ha, hb);
    EXPECT_EQ(na, nb);
    EXPECT_EQ(ca, cb);
    for (DWORD k = 0; k < std::min<DWORD>(na, 16); ++k)
      EXPECT_EQ(std::memcmp(&a[k], &b[k], sizeof a[k]), 0) << k;
  }
  EXPECT_EQ(KaGetImageChunks(nullptr, 4, nullptr, 0, nullptr), E_POINTER);
}

}  // namespace
}  // namespace formatstest
