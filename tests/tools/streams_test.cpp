// "-" for standard input and output: a pipeline of ostra commands gives the same file and
// the same samples as the commands on files, and leaves no temporary file behind.
#include <gtest/gtest.h>

#include <filesystem>

#include "tool_helpers.h"

namespace ostra::tooltest {
namespace {

TEST(OstraStreams, PipelinesMatchTheCommandsOnFiles) {
  TempDir dir;
  const std::string in = dir.file("in.wav");
  writeFile(in, wave({chunk("fmt ", fmt16(1, 2, 8000, 16)), chunk("data", le16(ramp16(300))),
                      infoList({{"INAM", "Piped"}})}));
  const std::string tool = q(OSTRA_TOOL_PATH);
  ASSERT_EQ(ostra("convert " + q(in) + " " + q(dir.file("direct.wav")) + " --type float32").status,
            0);
  const RunResult piped = ostra::test::runCommand("TMPDIR=" + q(dir.path().string()) + " " + tool +
                                                  " convert - - --type float32 < " + q(in) + " > " +
                                                  q(dir.file("piped.wav")));
  ASSERT_EQ(piped.status, 0) << piped.err;
  EXPECT_EQ(readFile(dir.file("piped.wav")), readFile(dir.file("direct.wav")));

  const auto direct = ostraJson("samples --json --count 1000 " + q(dir.file("direct.wav")));
  const RunResult fromStdin = ostra::test::runCommand(tool + " samples --json --count 1000 - < " +
                                                      q(dir.file("direct.wav")));
  ASSERT_EQ(fromStdin.status, 0) << fromStdin.err;
  EXPECT_EQ(nlohmann::json::parse(fromStdin.out), direct);
  const RunResult info = ostra::test::runCommand("cat " + q(in) + " | " + tool + " info --json -");
  ASSERT_EQ(info.status, 0) << info.err;
  EXPECT_EQ(nlohmann::json::parse(info.out)["info"]["INAM"], "Piped");

  // Nothing readable on standard input is refused like any other bad file.
  const RunResult empty = ostra::test::runCommand(tool + " info - < /dev/null");
  EXPECT_EQ(empty.status, 1);
  std::vector<std::string> left;
  for (const auto& e : std::filesystem::directory_iterator(dir.path()))
    if (e.path().filename().string().rfind("ostra-", 0) == 0) left.push_back(e.path().string());
  EXPECT_EQ(left, std::vector<std::string>{});
}

}  // namespace
}  // namespace ostra::tooltest
