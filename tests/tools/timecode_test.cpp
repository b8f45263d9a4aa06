// `ostra timecode` on the cases an editor meets: counts, typed labels, ticks, arithmetic
// round midnight and over dropped labels, and refusals.
#include <gtest/gtest.h>

#include "tool_helpers.h"

namespace ostra::tooltest {
namespace {

TEST(OstraTimecode, LabelsCountsTicksAndArithmetic) {
  const struct {
    std::string args;
    const char* label;
    unsigned frames;
    long long ticks;
  } cases[] = {
      {"--type 2 --frames 1800", "00:01:00;02", 1800, 600600000},
      {"--type 2 --label 00:10:00:00", "00:10:00;00", 17982, 5999994000},
      {"--type 2 --label '00:00:59;29' --step 1", "00:01:00;02", 1800, 600600000},
      {"--type 2 --label '00:01:00;02' --step -1", "00:00:59;29", 1799, 600266334},
      {"--type 1 --label 23:59:59:29 --add 1", "00:00:00:00", 0, 0},
      {"--type 3 --label 0 --sub 00:00:00:01", "23:59:59:24", 2159999, 863999600000},
      {"--type 3 --label 75", "00:00:03:00", 75, 30000000},
      {"--type 4 --label 01020304", "01:02:03:04", 89356, 37231666667},
      {"--type 3 --ticks 10000000", "00:00:01:00", 25, 10000000},
      {"--type 6 --frames 24", "00:00:01:00", 24, 10010000},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args);
    const auto j = ostraJson("timecode --json " + c.args);
    ASSERT_FALSE(j.is_null());
    EXPECT_EQ(j["label"], c.label);
    EXPECT_EQ(j["frames"], c.frames);
    EXPECT_EQ(j["ticks"], c.ticks);
  }
  for (const char* bad : {"--type 0 --frames 1", "--type 7 --frames 1", "--type 1 --label abc",
                          "--type 1 --label '1:2:3:4:5'", "--type 1 --frames -3"}) {
    SCOPED_TRACE(bad);
    const RunResult r = ostra(std::string("timecode ") + bad);
    EXPECT_EQ(r.status, 1);
    EXPECT_FALSE(r.err.empty());
  }
  EXPECT_EQ(ostra("timecode --type 1").status, 2);  // no label to start from
}

}  // namespace
}  // namespace ostra::tooltest
