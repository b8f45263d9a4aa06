#include "output_file.h"

#include <filesystem>
#include <system_error>

#include "ostra/kacom.h"
#include "ostra/kaerror.h"
#include "ostra/kaplatform.h"
#include "text.h"

namespace ostra::cli {
namespace fs = std::filesystem;
namespace {

const char* kindName(fs::file_type t) {
  switch (t) {
    case fs::file_type::directory:
      return "a folder";
    case fs::file_type::character:
    case fs::file_type::block:
      return "a device";
    case fs::file_type::fifo:
      return "a FIFO";
    case fs::file_type::socket:
      return "a socket";
    default:
      return "not a regular file";
  }
}

std::string uniqueSuffix() {
  GUID g{};
  KaGuid_Create(&g);
  char s[20];
  std::snprintf(s, sizeof s, "%08x%04x", unsigned(g.Data1), unsigned(g.Data2));
  return s;
}

}  // namespace

HRESULT OutputFile::reserve(const std::string& output, const std::vector<std::string>& inputs,
                            std::string& why) {
  abandon();
  std::error_code ec;
  const fs::path out(output);
  for (const std::string& in : inputs) {
    if (fs::equivalent(out, fs::path(in), ec)) {
      why = output + " is the same file as the input " + in + "; it is never overwritten";
      return E_INVALIDARG;
    }
  }
  fs::path target = out;
  const fs::file_status st = fs::status(out, ec);
  if (fs::exists(st)) {
    if (!fs::is_regular_file(st)) {
      why = output + " is " + kindName(st.type()) + "; outputs are written as new files only";
      return E_INVALIDARG;
    }
    if ((st.permissions() & (fs::perms::owner_write | fs::perms::group_write |
                             fs::perms::others_write)) == fs::perms::none) {
      why = output + " is read-only; it is left as it is";
      return KAERR_WRITE_PROTECTED;
    }
    // Through a symbolic link, the file it names is replaced and the link stays.
    target = fs::canonical(out, ec);
    if (ec) target = out;
    replaces_ = true;
  } else if (fs::is_symlink(fs::symlink_status(out, ec))) {
    const fs::path to = fs::read_symlink(out, ec);
    target = to.is_absolute() ? to : out.parent_path() / to;
  }
  const fs::path folder = target.has_parent_path() ? target.parent_path() : fs::path(".");
  const fs::file_status fst = fs::status(folder, ec);
  if (!fs::exists(fst)) {
    why = "the folder " + folder.string() + " does not exist";
    return KAERR_NOT_FOUND;
  }
  if (!fs::is_directory(fst)) {
    why = folder.string() + " is not a folder";
    return KAERR_NOT_FOUND;
  }
  const std::string temp =
      (folder / ("." + target.filename().string() + "." + uniqueSuffix() + ".part")).string();
  KAHFILE f = KA_INVALID_HFILE;
  const HRESULT hr =
      KaFile_OpenUtf8(temp.c_str(), GENERIC_WRITE, 0, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, &f);
  if (FAILED(hr)) {
    why = "cannot create a file in the folder " + folder.string();
    return hr;
  }
  KaFile_Close(f);
  target_ = target.string();
  temp_ = temp;
  return S_OK;
}

HRESULT OutputFile::commit(std::string& why) {
  if (temp_.empty()) return E_UNEXPECTED;
  std::error_code ec;
  if (replaces_) {
    const fs::perms perms = fs::status(target_, ec).permissions();
    if (!ec) fs::permissions(temp_, perms, ec);
  }
  fs::rename(temp_, target_, ec);
  if (ec) {
    why = "cannot put the new file in place of " + target_ + ": " + ec.message();
    abandon();
    return KaHresultFromErrno(ec.value());
  }
  temp_.clear();
  return S_OK;
}

void OutputFile::abandon() {
  if (!temp_.empty()) KaFile_DeleteUtf8(temp_.c_str());
  temp_.clear();
}

HRESULT reserveRewrite(OutputFile& out, const std::string& file, std::string& why) {
  HRESULT hr = out.reserve(file, {}, why);
  if (FAILED(hr)) return hr;
  std::error_code ec;
  fs::copy_file(file, out.path(), fs::copy_options::overwrite_existing, ec);
  if (ec) {
    why = "cannot copy " + file + " to edit it: " + ec.message();
    out.abandon();
    return KaHresultFromErrno(ec.value());
  }
  return S_OK;
}

HRESULT writeBitmap(const std::string& output, const std::vector<std::string>& inputs,
                    const BITMAPINFOHEADER* bitmap, std::string& why) {
  OutputFile out;
  HRESULT hr = out.reserve(output, inputs, why);
  if (SUCCEEDED(hr)) hr = KaDib_WriteBmpFile(toUtf16(out.path()).c_str(), bitmap, nullptr);
  if (SUCCEEDED(hr)) hr = out.commit(why);
  return hr;
}

}  // namespace ostra::cli
