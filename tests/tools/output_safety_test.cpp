// Every command that writes a file is run against every kind of output a user can name by
// mistake: the input itself (by path, through a symbolic link, through a hard link), a
// device, a FIFO, a read-only file, a missing folder, and a symbolic link to another file.
// Nothing but the intended output may change, and no temporary file may be left behind.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>

#include "tool_helpers.h"

namespace ostra::tooltest {
namespace {

namespace fs = std::filesystem;

struct Snapshot {
  bool exists = false;
  fs::file_type type = fs::file_type::none;
  uint64_t inode = 0;
  fs::perms perms = fs::perms::none;
  std::vector<uint8_t> bytes;
  bool operator==(const Snapshot&) const = default;
};

Snapshot snap(const std::string& path) {
  Snapshot s;
  struct stat st {};
  if (lstat(path.c_str(), &st) != 0) return s;
  std::error_code ec;
  s.exists = true;
  s.type = fs::symlink_status(path, ec).type();
  s.inode = st.st_ino;
  s.perms = fs::symlink_status(path, ec).permissions();
  if (s.type == fs::file_type::regular) s.bytes = readFile(path);
  if (s.type == fs::file_type::symlink) {
    const std::string to = fs::read_symlink(path, ec).string();
    s.bytes.assign(to.begin(), to.end());
  }
  return s;
}

// Names left in the folder that the test did not make.
std::vector<std::string> strays(const TempDir& dir, const std::vector<std::string>& known) {
  std::vector<std::string> out;
  for (const auto& e : fs::directory_iterator(dir.path())) {
    const std::string name = e.path().filename().string();
    if (std::find(known.begin(), known.end(), name) == known.end()) out.push_back(name);
  }
  return out;
}

Bytes bmp24(int w, int h) {
  const int stride = (w * 3 + 3) & ~3;
  Bytes pixels;
  for (int i = 0; i < stride * h; ++i) pixels.push_back(uint8_t(i * 37));
  return Bytes()
      .text("BM")
      .u32(uint32_t(54 + pixels.size()))
      .u32(0)
      .u32(54)
      .u32(40)
      .u32(uint32_t(w))
      .u32(uint32_t(h))
      .u16(1)
      .u16(24)
      .zeros(24)
      .add(pixels);
}

struct Command {
  const char* name;
  const char* input;  // in the folder
  std::string (*line)(const std::string& in, const std::string& out);
};

const Command kCommands[] = {
    {"convert", "in.wav",
     [](const std::string& in, const std::string& out) {
       return "convert " + q(in) + " " + q(out) + " --type float32";
     }},
    {"convert through a renderer plug-in", "in.wav",
     [](const std::string& in, const std::string& out) {
       return "convert " + q(in) + " " + q(out) + " --container flac";
     }},
    {"yuv2rgb", "in.yuv",
     [](const std::string& in, const std::string& out) {
       return "yuv2rgb --layout UYVY --size 4x2 " + q(in) + " " + q(out);
     }},
    {"rgb2yuv", "in.bmp",
     [](const std::string& in, const std::string& out) {
       return "rgb2yuv --layout I420 " + q(in) + " " + q(out);
     }},
    {"hotcheck", "in.bmp",
     [](const std::string& in, const std::string& out) {
       return "hotcheck --repair " + q(out) + " " + q(in);
     }},
};

TEST(OutputSafety, EveryWritingCommandAgainstEveryKindOfOutput) {
  TempDir dir;
  const auto v = ramp16(64);
  writeFile(dir.file("in.wav"),
            wave({chunk("fmt ", fmt16(1, 2, 8000, 16)), chunk("data", le16(v))}));
  writeFile(dir.file("in.yuv"), Bytes(16, 0x80));
  writeFile(dir.file("in.bmp"), bmp24(4, 2));
  writeFile(dir.file("other.dat"), Bytes(10, 7));
  writeFile(dir.file("readonly.dat"), Bytes(10, 9));
  fs::permissions(dir.file("readonly.dat"), fs::perms::owner_read | fs::perms::group_read);
  fs::create_symlink("other.dat", dir.file("link-to-other"));
  ASSERT_EQ(mkfifo(dir.file("fifo").c_str(), 0600), 0);
  const std::vector<std::string> made = {"in.wav",    "in.yuv",       "in.bmp",
                                         "other.dat", "readonly.dat", "link-to-other",
                                         "fifo",      "same-link",    "same-hard"};

  struct Target {
    const char* what;
    std::string path;  // {in} is replaced by the command's input
    bool succeeds;
    const char* says;
  };
  for (const Command& c : kCommands) {
    const std::string in = dir.file(c.input);
    fs::remove(dir.file("same-link"));
    fs::remove(dir.file("same-hard"));
    fs::create_symlink(c.input, dir.file("same-link"));
    fs::create_hard_link(in, dir.file("same-hard"));
    const Target targets[] = {
        {"the input itself", in, false, "same file"},
        {"a link to the input", dir.file("same-link"), false, "same file"},
        {"a hard link to the input", dir.file("same-hard"), false, "same file"},
        {"a device", "/dev/null", false, "device"},
        {"a FIFO", dir.file("fifo"), false, "FIFO"},
        {"a folder", dir.path().string(), false, "folder"},
        {"a read-only file", dir.file("readonly.dat"), false, "read-only"},
        {"a missing folder", dir.file("missing/out"), false, "does not exist"},
        {"a link to another file", dir.file("link-to-other"), true, ""},
    };
    for (const Target& t : targets) {
      SCOPED_TRACE(std::string(c.name) + " to " + t.what);
      std::vector<Snapshot> before;
      for (const std::string& name : made) before.push_back(snap(dir.file(name)));
      const Snapshot devBefore = snap("/dev/null");
      // A FIFO that were opened would block; the time limit turns that into a failure.
      const RunResult r =
          ostra::test::runCommand("timeout 20 " + q(OSTRA_TOOL_PATH) + " " + c.line(in, t.path));
      EXPECT_EQ(r.status, t.succeeds ? 0 : 1) << r.err;
      if (!t.succeeds) EXPECT_NE(r.err.find(t.says), std::string::npos) << r.err;
      for (size_t i = 0; i < made.size(); ++i) {
        const bool replaced = t.succeeds && made[i] == "other.dat";
        if (replaced) continue;
        EXPECT_TRUE(snap(dir.file(made[i])) == before[i]) << made[i] << " changed";
      }
      EXPECT_TRUE(snap("/dev/null") == devBefore);
      EXPECT_EQ(strays(dir, made), std::vector<std::string>{});
      if (t.succeeds) {
        // The link is still a link; the file it names holds the output.
        EXPECT_TRUE(fs::is_symlink(dir.file("link-to-other")));
        EXPECT_NE(readFile(dir.file("other.dat")), Bytes(10, 7));
        writeFile(dir.file("other.dat"), Bytes(10, 7));
      }
    }
  }
}

// A write that fails half-way (the file-size limit of the shell) leaves the old output as
// it was and removes the partial file.
TEST(OutputSafety, AFailedWriteLeavesTheOldOutput) {
  TempDir dir;
  const auto v = ramp16(30000);
  writeFile(dir.file("in.wav"),
            wave({chunk("fmt ", fmt16(1, 2, 8000, 16)), chunk("data", le16(v))}));
  writeFile(dir.file("out.wav"), Bytes(100, 1));
  // 64 blocks of 512 bytes: the float output (about 240 KB) cannot be written whole.
  const RunResult r = ostra::test::runCommand("trap '' XFSZ; ulimit -f 64; " + q(OSTRA_TOOL_PATH) +
                                              " convert " + q(dir.file("in.wav")) + " " +
                                              q(dir.file("out.wav")) + " --type float32");
  EXPECT_EQ(r.status, 1) << r.err;
  EXPECT_EQ(readFile(dir.file("out.wav")), Bytes(100, 1));
  EXPECT_EQ(strays(dir, {"in.wav", "out.wav"}), std::vector<std::string>{});
}

// tag edits a copy and puts it in place: a read-only file is refused untouched, and a
// file named through a symbolic link is edited where it lies, the link kept.
TEST(OutputSafety, TagReplacesTheFileOnlyWhenTheEditIsComplete) {
  TempDir dir;
  const Bytes original =
      wave({chunk("fmt ", fmt16(1, 2, 8000, 16)), chunk("data", le16(ramp16(10)))});
  writeFile(dir.file("ro.wav"), original);
  fs::permissions(dir.file("ro.wav"), fs::perms::owner_read);
  const RunResult ro = ostra("tag " + q(dir.file("ro.wav")) + " --set INAM=x");
  EXPECT_EQ(ro.status, 1);
  EXPECT_NE(ro.err.find("read-only"), std::string::npos) << ro.err;
  EXPECT_EQ(readFile(dir.file("ro.wav")), original);

  writeFile(dir.file("take.wav"), original);
  fs::permissions(dir.file("take.wav"),
                  fs::perms::owner_read | fs::perms::owner_write | fs::perms::others_read);
  fs::create_symlink("take.wav", dir.file("link.wav"));
  EXPECT_EQ(ostra("tag " + q(dir.file("link.wav")) + " --set INAM=Take").status, 0);
  EXPECT_TRUE(fs::is_symlink(dir.file("link.wav")));
  EXPECT_EQ(fs::status(dir.file("take.wav")).permissions(),
            fs::perms::owner_read | fs::perms::owner_write | fs::perms::others_read);
  const auto info = ostraJson("info --json " + q(dir.file("take.wav")));
  ASSERT_FALSE(info.is_null());
  EXPECT_NE(info.dump().find("Take"), std::string::npos);
  EXPECT_EQ(strays(dir, {"ro.wav", "take.wav", "link.wav"}), std::vector<std::string>{});
}

}  // namespace
}  // namespace ostra::tooltest
