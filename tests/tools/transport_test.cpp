// `ostra transport demo` plays a range on the wall clock and reports the transport's
// messages: opened, started, and stopped by the worker exactly at the end.
#include <gtest/gtest.h>

#include "tool_helpers.h"

namespace ostra::tooltest {
namespace {

TEST(OstraTransport, DemoRunsToTheEndOfItsRange) {
  for (const char* args : {"--length 40", "--length 60 --seek 20"}) {
    SCOPED_TRACE(args);
    const auto j = ostraJson(std::string("transport demo --json ") + args);
    ASSERT_FALSE(j.is_null());
    const auto& m = j["messages"];
    ASSERT_EQ(m.size(), 3u);
    EXPECT_EQ(m[0]["message"], 9);
    EXPECT_EQ(m[1]["message"], 1);
    EXPECT_EQ(m[2]["message"], 6);
    EXPECT_EQ(m[2]["position_ms"], j["length_ms"]);
    EXPECT_EQ(m[2]["reason"], 0);
    EXPECT_EQ(j["status_after"], 1);  // still open, nothing running
  }
  EXPECT_NE(ostra("transport demo --length 0").status, 0);
}

}  // namespace
}  // namespace ostra::tooltest
