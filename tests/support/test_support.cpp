#include "support/test_support.h"

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <random>
#include <stdexcept>

#include "platform/internal/sysops.h"
#include "platform/internal/text.h"

namespace ostra::test {

TempDir::TempDir() {
  std::random_device rd;
  for (int i = 0; i < 100; ++i) {
    auto p = std::filesystem::temp_directory_path() / ("ostra-test-" + std::to_string(rd()));
    if (std::filesystem::create_directory(p)) {
      path_ = p;
      return;
    }
  }
  throw std::runtime_error("cannot create a temporary folder");
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

std::u16string TempDir::wfile(const std::string& name) const { return u16(file(name)); }

std::vector<uint8_t> readFile(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(f), {});
}

void writeFile(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::ofstream f(path, std::ios::binary | std::ios::trunc);
  f.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
}

std::u16string u16(const std::string& utf8) { return ostra::text::utf8ToUtf16(utf8); }

std::string shellQuote(const std::string& s) {
  std::string q = "'";
  for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

RunResult runCommand(const std::string& commandLine) {
  RunResult r;
  static std::mt19937_64 rng{std::random_device{}()};
  const auto err =
      (std::filesystem::temp_directory_path() / ("ostra-test-err-" + std::to_string(rng())))
          .string();
  FILE* p = ::popen((commandLine + " 2>" + shellQuote(err)).c_str(), "r");
  if (!p) return r;
  char buf[65536];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
  const int st = ::pclose(p);
  r.status = (st >= 0 && (st & 0x7f) == 0) ? (st >> 8) & 0xff : -1;
  const auto e = readFile(err);
  r.err.assign(e.begin(), e.end());
  std::error_code ec;
  std::filesystem::remove(err, ec);
  return r;
}

namespace {

struct FaultState {
  int allocFailAt = 0, allocCount = 0;
  int writeFailAt = 0, writeCount = 0;
  size_t writeShort = 0;
  int readFailAt = 0, readCount = 0;
} gFaults;

bool allocFails() { return ++gFaults.allocCount == gFaults.allocFailAt; }

void* faultyMalloc(size_t n) { return allocFails() ? nullptr : platform::realSysOps().malloc(n); }
void* faultyRealloc(void* p, size_t n) {
  return allocFails() ? nullptr : platform::realSysOps().realloc(p, n);
}
// From the Nth write on the disk is full: the Nth may still write `writeShort` bytes.
int64_t faultyWrite(int fd, const void* b, size_t n) {
  const int k = ++gFaults.writeCount;
  if (gFaults.writeFailAt > 0 && k >= gFaults.writeFailAt) {
    if (k == gFaults.writeFailAt && gFaults.writeShort && gFaults.writeShort < n)
      return platform::realSysOps().write(fd, b, gFaults.writeShort);
    errno = ENOSPC;
    return -1;
  }
  return platform::realSysOps().write(fd, b, n);
}
int64_t faultyRead(int fd, void* b, size_t n) {
  if (++gFaults.readCount == gFaults.readFailAt) {
    errno = EIO;
    return -1;
  }
  return platform::realSysOps().read(fd, b, n);
}

}  // namespace

FaultInjection::FaultInjection() {
  gFaults = FaultState{};
  auto& ops = platform::sysOps();
  ops.malloc = faultyMalloc;
  ops.realloc = faultyRealloc;
  ops.write = faultyWrite;
  ops.read = faultyRead;
}

FaultInjection::~FaultInjection() { platform::sysOps() = platform::realSysOps(); }

void FaultInjection::failAllocation(int nth) {
  gFaults.allocCount = 0;
  gFaults.allocFailAt = nth;
}
void FaultInjection::failWrite(int nth, size_t shortBytes) {
  gFaults.writeCount = 0;
  gFaults.writeFailAt = nth;
  gFaults.writeShort = shortBytes;
}
void FaultInjection::failRead(int nth) {
  gFaults.readCount = 0;
  gFaults.readFailAt = nth;
}
int FaultInjection::allocations() const { return gFaults.allocCount; }
int FaultInjection::writes() const { return gFaults.writeCount; }

}  // namespace ostra::test
