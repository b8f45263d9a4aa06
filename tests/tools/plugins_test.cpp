// ostra plugins and ostra identify over the bundled plug-ins, with the plug-in cache in a
// scratch XDG cache folder.
#include <gtest/gtest.h>

#include "tool_helpers.h"

namespace ostra::tooltest {
namespace {

#ifdef OSTRA_TOOL_PATH
RunResult run(const TempDir& dir, const std::string& args) {
  return ostra::test::runCommand("XDG_CACHE_HOME=" + q(dir.file("cache")) + " XDG_CONFIG_HOME=" +
                                 q(dir.file("config")) + " " + q(OSTRA_TOOL_PATH) + " " + args);
}

nlohmann::json runJson(const TempDir& dir, const std::string& args, int status = 0) {
  const RunResult r = run(dir, args);
  EXPECT_EQ(r.status, status) << r.err;
  return nlohmann::json::parse(r.out, nullptr, false);
}

TEST(PluginsCommand, ListsTheBundledPluginLoadedThenCached) {
  TempDir dir;
  nlohmann::json j = runJson(dir, "plugins --json --rescan");
  // The bundled plug-ins, best merit first: the kernel's formats, libsndfile, FFmpeg.
  ASSERT_EQ(j["plugins"].size(), 3u);
  EXPECT_EQ(j["plugins"][1]["name"], "Audio");
  EXPECT_EQ(j["plugins"][1]["reader"], "6A2F6C11-0003-4C52-9B6A-0F1E2D3C4B00");
  EXPECT_EQ(j["plugins"][2]["name"], "Media");
  EXPECT_EQ(j["plugins"][2]["reader"], "6A2F6C11-0004-4C52-9B6A-0F1E2D3C4B00");
  const auto& p = j["plugins"][0];
  EXPECT_EQ(p["name"], "KernelFormats");
  EXPECT_EQ(p["reader"], "6A2F6C11-0001-4C52-9B6A-0F1E2D3C4B00");
  EXPECT_EQ(p["readerExtensions"], "wav;w64;bwf;aif;aiff;aifc");
  EXPECT_EQ(p["rendererExtensions"], "wav;w64");
  EXPECT_EQ(p["surrogate"], -1);
  EXPECT_FALSE(p["fromCache"].get<bool>());
  j = runJson(dir, "plugins --json");
  EXPECT_TRUE(j["plugins"][0]["fromCache"].get<bool>());
  const RunResult text = run(dir, "plugins");
  EXPECT_NE(text.out.find("KernelFormats  (merit 100, in process, from the cache)"),
            std::string::npos);
  // Nothing has failed here: the block list is empty, unblocking a name is refused and
  // clearing it is harmless.
  EXPECT_TRUE(j["blocked"].empty());
  const RunResult unknown = run(dir, "plugins --unblock Nobody");
  EXPECT_EQ(unknown.status, 1);
  EXPECT_NE(unknown.err.find("Nobody: not on the block list"), std::string::npos) << unknown.err;
  const RunResult all = run(dir, "plugins --all");
  EXPECT_EQ(all.status, 0) << all.err;
  EXPECT_EQ(all.out, "block list cleared\n");
}

TEST(IdentifyCommand, NamesThePluginPassAndRefusals) {
  TempDir dir;
  ASSERT_EQ(run(dir, "demo --dir " + q(dir.file("media"))).status, 0);
  writeFile(dir.file("acid.wav"), ostra::test::riff("ACID", Bytes().text("some project")));
  writeFile(dir.file("notes.txt"), Bytes().text("just some words"));
  struct Case {
    const char* file;
    bool slow;
    HRESULT result;
    const char* pass;  // null: not read
  } cases[] = {
      {"media/signal-pcm16.wav", false, S_OK, "signature"},
      {"media/signal.aiff", false, S_OK, "signature"},
      {"media/signal-float32.w64", false, S_OK, "signature"},
      {"media/signal-pcm16.wav", true, S_OK, "extension"},
      {"acid.wav", false, HRESULT(0x8004E033), nullptr},
      {"acid.wav", true, HRESULT(0x8004E016), nullptr},  // no host check; the reader declines
      {"notes.txt", false, HRESULT(0x8004E016), nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.file) + (c.slow ? " --slow" : ""));
    const nlohmann::json j = runJson(
        dir,
        std::string("identify --json --log ") + (c.slow ? "--slow " : "") + q(dir.file(c.file)),
        c.pass ? 0 : 1);
    ASSERT_EQ(j["files"].size(), 1u);
    const auto& f = j["files"][0];
    EXPECT_EQ(f["result"].get<HRESULT>(), c.result);
    if (c.pass) {
      EXPECT_EQ(f["plugin"], "KernelFormats");
      EXPECT_EQ(f["pass"], c.pass);
      ASSERT_FALSE(f["log"].empty());
      EXPECT_NE(f["log"].back().get<std::string>().find("'KernelFormats' "), std::string::npos);
    } else {
      EXPECT_FALSE(f.contains("plugin"));
      EXPECT_FALSE(f["text"].get<std::string>().empty());
    }
  }
  const RunResult text = run(dir, "identify " + q(dir.file("notes.txt")));
  EXPECT_EQ(text.status, 1);
  EXPECT_NE(text.out.find("0x8004E016 The file is an unsupported format."), std::string::npos);
}

TEST(IdentifyCommand, ReadReadsEverySampleThroughThePlugin) {
  TempDir dir;
  ASSERT_EQ(run(dir, "demo --dir " + q(dir.file("media"))).status, 0);
  for (const char* file :
       {"media/signal-pcm16.wav", "media/signal.aiff", "media/signal-float32.w64"}) {
    SCOPED_TRACE(file);
    const nlohmann::json info = runJson(dir, "info --json " + q(dir.file(file)));
    const nlohmann::json j = runJson(dir, "identify --json --read " + q(dir.file(file)));
    const auto& read = j["files"][0]["read"];
    EXPECT_EQ(read["result"].get<HRESULT>(), S_OK);
    ASSERT_EQ(read["streams"].size(), 1u);
    const auto& s = read["streams"][0];
    EXPECT_EQ(s["type"], "audio");
    EXPECT_GT(s["frames"].get<uint64_t>(), 0u);
    EXPECT_EQ(s["framesRead"], s["frames"]);
    EXPECT_EQ(s["frames"], info["frames"]) << info.dump();
    EXPECT_EQ(s["rate"], info["format"]["sample_rate"]) << info.dump();
  }
  const RunResult text = run(dir, "identify --read " + q(dir.file("media/signal-pcm16.wav")));
  EXPECT_EQ(text.status, 0);
  EXPECT_NE(text.out.find("frames read"), std::string::npos);
}
#endif

}  // namespace
}  // namespace ostra::tooltest
