#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <vector>

#include "ostra/kadib.h"
#include "ostra/kayuv.h"
#include "support/test_support.h"

#if defined(OSTRA_TOOL_PATH)
namespace {

using ostra::test::readFile;
using ostra::test::TempDir;
using ostra::test::writeFile;

int ostraRun(const std::string& args, const std::string& out) {
  const std::string cmd =
      std::string("\"") + OSTRA_TOOL_PATH + "\" " + args + " >\"" + out + "\" 2>&1";
  return std::system(cmd.c_str()) == 0 ? 0 : 1;
}
std::string text(const std::string& path) {
  const auto b = readFile(path);
  return std::string(b.begin(), b.end());
}

TEST(OstraImageCommands, ShortFrameIsRefusedAndNothingWritten) {
  TempDir d;
  writeFile(d.file("f.yuv"), std::vector<uint8_t>(100, 128));
  EXPECT_NE(ostraRun("yuv2rgb --layout NV12 --size 16x8 " + d.file("f.yuv") + " " + d.file("o.bmp"),
                     d.file("log")),
            0);
  EXPECT_NE(text(d.file("log")).find("192"), std::string::npos) << text(d.file("log"));
  EXPECT_FALSE(std::filesystem::exists(d.file("o.bmp")));
}

// A frame through yuv2rgb, dib info, rgb2yuv and hotcheck.
TEST(OstraImageCommands, ConvertInspectAndRepair) {
  TempDir d;
  std::mt19937 rng(2);
  std::vector<uint8_t> frame(size_t(48) * 6 * 2);
  for (auto& b : frame) b = uint8_t(rng());
  writeFile(d.file("f.uyvy"), frame);
  ASSERT_EQ(ostraRun("yuv2rgb --layout UYVY --size 48x6 --matrix 709 --range studio " +
                         d.file("f.uyvy") + " " + d.file("a.bmp"),
                     d.file("log")),
            0)
      << text(d.file("log"));
  ASSERT_EQ(ostraRun("dib info --json " + d.file("a.bmp"), d.file("info")), 0);
  const auto info = nlohmann::json::parse(text(d.file("info")));
  EXPECT_EQ(info["width"], 48);
  EXPECT_EQ(info["height"], 6);
  EXPECT_EQ(info["pixelType"], 28);
  EXPECT_EQ(info["stride"], 192);
  EXPECT_EQ(info["imageBytes"], 48 * 6 * 4);

  // Converting back reproduces luma closely (chroma was random, so RGB may have clipped).
  ASSERT_EQ(ostraRun("rgb2yuv --layout UYVY --matrix 709 --range studio " + d.file("a.bmp") + " " +
                         d.file("b.uyvy"),
                     d.file("log")),
            0)
      << text(d.file("log"));
  const auto back = readFile(d.file("b.uyvy"));
  ASSERT_EQ(back.size(), frame.size());
  // The file's first row is the frame's first row: the top-left pixel's BGRA bytes
  // come from the first UYVY group.
  BITMAPINFOHEADER* bmp = displist_CreateBitmapFromFile(d.wfile("a.bmp").c_str());
  ASSERT_NE(bmp, nullptr);
  BYTE want[8];
  ASSERT_EQ(KaUYVY2RGBA(want, frame.data(), 8, 2, 1, 2), S_OK);
  KAPIXEL p{};
  ASSERT_EQ(KaDibGetPixel(bmp, nullptr, 0, 0, 0, &p), S_OK);
  EXPECT_EQ(p.b, want[0] / 255.0);
  EXPECT_EQ(p.r, want[2] / 255.0);
  KaDibFree(bmp, 0);

  ASSERT_EQ(ostraRun("hotcheck --json --pal --repair " + d.file("r.bmp") + " " + d.file("a.bmp"),
                     d.file("hot")),
            0);
  const auto hot = nlohmann::json::parse(text(d.file("hot")));
  EXPECT_EQ(hot["pixels"], 48 * 6);
  ASSERT_EQ(ostraRun("hotcheck --json --pal " + d.file("r.bmp"), d.file("hot2")), 0);
  const auto hot2 = nlohmann::json::parse(text(d.file("hot2")));
  EXPECT_GT(hot["illegal"].get<int>(), 0);
  EXPECT_LT(hot2["illegal"].get<int>(), hot["illegal"].get<int>());

  writeFile(d.file("junk.bmp"), std::vector<uint8_t>(60, 'B'));
  EXPECT_NE(ostraRun("dib info " + d.file("junk.bmp"), d.file("log")), 0);
}

// Black and white frames through both levels: full range (the default) puts video black
// and white at 0 and 255 in the bitmap and back, studio range leaves 16 and 235.
TEST(OstraImageCommands, RgbLevels) {
  TempDir d;
  const struct {
    uint8_t y;
    const char* range;
    uint8_t rgb;
  } cases[] = {{16, "full", 0},
               {235, "full", 255},
               {126, "full", 128},
               {16, "studio", 16},
               {235, "studio", 235}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.range) + " Y " + std::to_string(c.y));
    std::vector<uint8_t> frame;
    for (int i = 0; i < 4 * 2; ++i) frame.insert(frame.end(), {128, c.y, 128, c.y});
    writeFile(d.file("f.uyvy"), frame);
    const std::string args = std::string(" --layout UYVY --matrix 709 --range ") + c.range + " ";
    ASSERT_EQ(ostraRun("yuv2rgb --size 8x2" + args + d.file("f.uyvy") + " " + d.file("o.bmp"),
                       d.file("log")),
              0)
        << text(d.file("log"));
    BITMAPINFOHEADER* bmp = displist_CreateBitmapFromFile(d.wfile("o.bmp").c_str());
    ASSERT_NE(bmp, nullptr);
    const auto* px = static_cast<const uint8_t*>(KaDibPixels(bmp));
    EXPECT_EQ(px[0], c.rgb);
    EXPECT_EQ(px[1], c.rgb);
    EXPECT_EQ(px[2], c.rgb);
    KaDibFree(bmp, 0);
    ASSERT_EQ(ostraRun("rgb2yuv" + args + d.file("o.bmp") + " " + d.file("b.uyvy"), d.file("log")),
              0)
        << text(d.file("log"));
    const auto back = readFile(d.file("b.uyvy"));
    ASSERT_EQ(back.size(), frame.size());
    EXPECT_EQ(back[1], c.y);
    EXPECT_EQ(back[0], 128);
  }
  std::filesystem::remove(d.file("o.bmp"));
  EXPECT_NE(ostraRun("yuv2rgb --size 8x2 --layout UYVY --range tv " + d.file("f.uyvy") + " " +
                         d.file("o.bmp"),
                     d.file("log")),
            0);
  EXPECT_FALSE(std::filesystem::exists(d.file("o.bmp")));
}

}  // namespace
#endif
