// Nonsense on the command line is a usage error (exit 2) and a file whose format cannot be
// right is refused (exit 1) with its cause; neither writes anything.
#include <gtest/gtest.h>

#include <filesystem>

#include "tool_helpers.h"

namespace ostra::tooltest {
namespace {

struct Case {
  const char* what;
  std::string args;  // {in} and {out} stand for the input and output paths
  int status;
  const char* says;  // in standard error
};

std::string expand(std::string s, const std::string& in, const std::string& out) {
  for (auto [key, value] : {std::pair<std::string, std::string>{"{in}", in}, {"{out}", out}})
    for (size_t at; (at = s.find(key)) != std::string::npos;) s.replace(at, key.size(), q(value));
  return s;
}

TEST(OstraRefusals, UsageErrorsAndImpossibleFormatsWriteNothing) {
  TempDir dir;
  const auto v = ramp16(40);
  const Bytes good = wave({chunk("fmt ", fmt16(1, 2, 8000, 16)), chunk("data", le16(v))});
  // fmt bodies that describe no playable audio: the fields are tag, channels, rate,
  // bytes per second, block size, bits.
  const auto fmtRaw = [](uint16_t ch, uint32_t rate, uint32_t bps, uint16_t align, uint16_t bits) {
    return Bytes().u16(1).u16(ch).u32(rate).u32(bps).u16(align).u16(bits);
  };
  const struct {
    const char* name;
    Bytes bytes;
  } inputs[] = {
      {"good.wav", good},
      {"rate0.wav", wave({chunk("fmt ", fmtRaw(2, 0, 0, 4, 16)), chunk("data", le16(v))})},
      {"chan0.wav", wave({chunk("fmt ", fmtRaw(0, 8000, 0, 0, 16)), chunk("data", le16(v))})},
      {"chan65535.wav", wave({chunk("fmt ", fmtRaw(65535, 8000, 8000u * 65534, 65534, 16)),
                              chunk("data", le16(v))})},
      {"nodata.wav", wave({chunk("fmt ", fmt16(1, 2, 8000, 16))})},
  };
  for (const auto& i : inputs) writeFile(dir.file(i.name), i.bytes);

  const Case cases[] = {
      {"gain nan", "convert {in} {out} --gain nan", 2, "finite"},
      {"gain inf", "convert {in} {out} --gain inf", 2, "finite"},
      {"gain -inf", "convert {in} {out} --gain -inf", 2, "finite"},
      {"gain huge", "convert {in} {out} --gain 1e9", 2, "finite"},
      {"unknown type", "convert {in} {out} --type pcm12", 2, "pcm12"},
      {"missing output", "convert {in}", 2, "OUT"},
      {"unknown option", "convert {in} {out} --loud", 2, "--loud"},
      {"no command", "", 2, ""},
      {"negative start", "samples {in} --start -5", 2, "whole number"},
      {"negative count", "samples {in} --count -1", 2, "whole number"},
  };
  const std::string in = dir.file("good.wav"), out = dir.file("out.wav");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const RunResult r = ostra(expand(c.args, in, out));
    EXPECT_EQ(r.status, c.status) << r.err;
    EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
    EXPECT_FALSE(std::filesystem::exists(out));
  }
  EXPECT_EQ(ostra("convert --help").status, 0);

  // YUV layouts share colour samples between pairs of pixels: an odd width is named as
  // the cause, whether it comes from --size or from the bitmap.
  writeFile(dir.file("frame.yuv"), Bytes(64, 0x80));
  const RunResult oddSize =
      ostra("yuv2rgb --layout UYVY --size 3x2 " + q(dir.file("frame.yuv")) + " " + q(out));
  EXPECT_EQ(oddSize.status, 2);
  EXPECT_NE(oddSize.err.find("width must be even"), std::string::npos) << oddSize.err;
  const Bytes pixels = Bytes().zeros(2 * 12);  // two rows of three black pixels, padded
  writeFile(dir.file("odd.bmp"), Bytes()
                                     .text("BM")
                                     .u32(uint32_t(54 + pixels.size()))
                                     .u32(0)
                                     .u32(54)
                                     .u32(40)
                                     .u32(3)
                                     .u32(2)
                                     .u16(1)
                                     .u16(24)
                                     .zeros(24)
                                     .add(pixels));
  const RunResult oddImage =
      ostra("rgb2yuv --layout UYVY " + q(dir.file("odd.bmp")) + " " + q(out));
  EXPECT_EQ(oddImage.status, 1);
  EXPECT_NE(oddImage.err.find("3 pixels wide"), std::string::npos) << oddImage.err;
  EXPECT_FALSE(std::filesystem::exists(out));

  const struct {
    const char* file;
    const char* says;
  } impossible[] = {
      {"rate0.wav", "0 Hz"},
      {"chan0.wav", "no channels"},
      {"chan65535.wav", "block size of 65534 bytes does not fit 65535 channels"},
      {"nodata.wav", "no sample data"},
  };
  for (const auto& c : impossible) {
    for (const char* command : {"convert {in} {out}", "samples {in}"}) {
      SCOPED_TRACE(std::string(c.file) + ": " + command);
      const std::string file = dir.file(c.file);
      const auto before = readFile(file);
      const RunResult r = ostra(expand(command, file, out));
      EXPECT_EQ(r.status, 1);
      EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
      EXPECT_NE(r.err.find(c.file), std::string::npos) << r.err;
      EXPECT_FALSE(std::filesystem::exists(out));
      EXPECT_EQ(readFile(file), before);
    }
  }
}

}  // namespace
}  // namespace ostra::tooltest
