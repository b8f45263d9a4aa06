#include "std_streams.h"

#include <filesystem>
#include <vector>

#include "ostra/kacom.h"
#include "ostra/kaerror.h"
#include "ostra/kaplatform.h"

namespace ostra::cli {
namespace {

constexpr KAHFILE kStdin = 0;
constexpr KAHFILE kStdout = 1;
constexpr DWORD kBlock = 1u << 20;

// Copies what `from` holds from its position to its end into `to`.
HRESULT copyAll(KAHFILE from, KAHFILE to) {
  std::vector<unsigned char> block(kBlock);
  for (;;) {
    DWORD got = 0, put = 0;
    HRESULT hr = KaFile_Read(from, block.data(), kBlock, &got);
    if (FAILED(hr) || got == 0) return hr;
    if (FAILED(hr = KaFile_Write(to, block.data(), got, &put))) return hr;
    if (put != got) return KAERR_WRITE_FAILED;
  }
}

}  // namespace

CLI::Validator existingFileOrStdin() {
  return CLI::Validator(
      [](std::string& name) { return name == "-" ? std::string() : CLI::ExistingFile(name); },
      "FILE|-");
}

TempFile::~TempFile() {
  if (!path_.empty()) KaFile_DeleteUtf8(path_.c_str());
}

HRESULT TempFile::create(const std::string& suffix) {
  std::error_code ec;
  const auto folder = std::filesystem::temp_directory_path(ec);
  if (ec) return KAERR_NOT_FOUND;
  GUID g{};
  KaGuid_Create(&g);
  char name[48];
  std::snprintf(name, sizeof name, "ostra-%08x%04x", unsigned(g.Data1), unsigned(g.Data2));
  const std::string path = (folder / (name + suffix)).string();
  KAHFILE f = KA_INVALID_HFILE;
  const HRESULT hr = KaFile_OpenUtf8(path.c_str(), GENERIC_WRITE, 0, CREATE_NEW, 0, &f);
  if (FAILED(hr)) return hr;
  KaFile_Close(f);
  path_ = path;
  return S_OK;
}

HRESULT readablePath(const std::string& name, TempFile& spool, std::string& path) {
  if (name != "-") {
    path = name;
    return S_OK;
  }
  HRESULT hr = spool.create("");
  KAHFILE out = KA_INVALID_HFILE;
  if (SUCCEEDED(hr))
    hr = KaFile_OpenUtf8(spool.path().c_str(), GENERIC_WRITE, 0, TRUNCATE_EXISTING, 0, &out);
  if (FAILED(hr)) return hr;
  hr = copyAll(kStdin, out);
  const HRESULT closed = KaFile_Close(out);
  if (SUCCEEDED(hr)) hr = closed;
  path = spool.path();
  return hr;
}

HRESULT copyToStdout(const std::string& path) {
  KAHFILE in = KA_INVALID_HFILE;
  HRESULT hr = KaFile_OpenUtf8(path.c_str(), GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING,
                               FILE_FLAG_SEQUENTIAL_SCAN, &in);
  if (FAILED(hr)) return hr;
  hr = copyAll(in, kStdout);
  KaFile_Close(in);
  return hr;
}

}  // namespace ostra::cli
