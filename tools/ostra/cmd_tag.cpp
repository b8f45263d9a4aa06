// ostra tag FILE [--set ID=TEXT]... [--delete ID]... [--wide] [--codepage CP]: changes the
// items of a wave file's LIST INFO (or, with --wide, LIST UNFO), in a copy that replaces
// the file when the edit is complete.
//
// Only the items named change: every other item keeps its bytes exactly, whatever they
// are encoded in. New INFO text is written in UTF-8 unless another code page is named; a
// character that code page cannot hold is refused, never replaced. The samples are never
// moved or rewritten: the new list goes where the old one was when it fits there (the
// rest becomes a JUNK chunk), else the old one becomes JUNK and the new one is appended
// after the last chunk.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "command.h"
#include "info_text.h"
#include "operations.h"
#include "ostra/kaerror.h"
#include "ostra/kaplatform.h"
#include "ostra/kawave.h"
#include "ostra/riff.h"
#include "output_file.h"
#include "text.h"

namespace ostra::cli {
namespace {

constexpr DWORD kUnfo = KaFourCC('U', 'N', 'F', 'O');

uint64_t even(uint64_t n) { return n + (n & 1); }

struct ListPlace {
  bool found = false;
  uint64_t offset = 0;  // of the LIST header
  uint64_t total = 0;   // header + data + pad
  bool atEnd = false;   // nothing but its pad follows it
};

HRESULT readAt(KAHFILE file, uint64_t pos, void* buf, DWORD n) {
  DWORD got = 0;
  HRESULT hr = KaFile_Seek(file, INT64(pos), FILE_BEGIN, nullptr);
  if (SUCCEEDED(hr)) hr = KaFile_Read(file, buf, n, &got);
  return SUCCEEDED(hr) && got != n ? KAERR_READ_FAILED : hr;
}

HRESULT writeAt(KAHFILE file, uint64_t pos, const std::string& bytes) {
  DWORD put = 0;
  HRESULT hr = KaFile_Seek(file, INT64(pos), FILE_BEGIN, nullptr);
  if (SUCCEEDED(hr)) hr = KaFile_Write(file, bytes.data(), DWORD(bytes.size()), &put);
  return SUCCEEDED(hr) && put != bytes.size() ? KAERR_WRITE_FAILED : hr;
}

// The items of the list after the changes asked for; untouched items keep their bytes.
HRESULT editedItems(const TagRequest& r, std::vector<InfoRecord>& items, std::string& why) {
  for (const auto& [id, text] : r.set) {
    InfoRecord item{infoId(id), {}};
    std::string bad;
    if (!encodeItem(text, r.wide, r.codePage, item.raw, bad)) {
      why = id + ": the character '" + bad + "' has no form in code page " +
            std::to_string(r.codePage) + "; nothing was written";
      return E_INVALIDARG;
    }
    auto at = std::find_if(items.begin(), items.end(),
                           [&](const InfoRecord& x) { return x.id == item.id; });
    if (at != items.end())
      at->raw = item.raw;
    else
      items.push_back(item);
  }
  for (const auto& id : r.remove)
    std::erase_if(items, [&](const InfoRecord& x) { return x.id == infoId(id); });
  return S_OK;
}

// Edits the list in `file`, an open copy of the file that `facts` describes.
HRESULT editList(KAHFILE file, const FileFacts& facts, const TagRequest& r, std::string& why) {
  HRESULT hr = S_OK;
  const DWORD listType = r.wide ? kUnfo : RIFF_ID_INFO;
  // Where the list stands now, its items, and where the chunks end.
  ListPlace place;
  std::vector<InfoRecord> items;
  uint64_t chainEnd = 12;
  for (const ChunkFacts& c : facts.chunks) {
    chainEnd = std::max(chainEnd, c.offset + 8 + even(c.size));
    if (place.found || c.id != "LIST" || c.size < 4 || c.size > (64u << 20)) continue;
    DWORD type = 0;
    if (FAILED(readAt(file, c.offset + 8, &type, 4)) || type != listType) continue;
    std::vector<uint8_t> body(size_t(c.size - 4));
    if (FAILED(hr = readAt(file, c.offset + 12, body.data(), DWORD(body.size())))) return hr;
    items = parseListItems(body.data(), body.size());
    place = {true, c.offset, 8 + even(c.size), false};
  }
  if (place.found) place.atEnd = place.offset + place.total >= chainEnd;
  if (FAILED(hr = editedItems(r, items, why))) return hr;
  const std::string list = buildList(listType, items);

  // Only a missing final pad byte is tolerated; a chunk cut short means the file needs
  // `ostra repair` first.
  if (chainEnd > facts.fileSize + 1) {
    why = "a chunk runs past the end of the file; run ostra repair first";
    return KAERR_CORRUPT_FILE;
  }
  if (chainEnd == facts.fileSize + 1 &&
      FAILED(hr = writeAt(file, facts.fileSize, std::string(1, '\0'))))
    return hr;

  if (place.found && !place.atEnd) {
    const uint64_t room = place.total;
    if (list.size() == room || list.size() + 8 <= room) {
      // In place, and a JUNK chunk over what is left of the old list.
      if (FAILED(hr = writeAt(file, place.offset, list))) return hr;
      if (list.size() < room) {
        if (FAILED(hr = KaFile_Seek(file, INT64(place.offset + list.size()), FILE_BEGIN, nullptr)))
          return hr;
        hr = riff_WriteChunkHeader(file, RIFF_ID_JUNK, DWORD(room - list.size() - 8));
      }
      return hr;
    }
    // Appended: the old list turns into JUNK of the same length; the RIFF grows.
    if (FAILED(hr = KaFile_Seek(file, INT64(place.offset), FILE_BEGIN, nullptr))) return hr;
    if (FAILED(hr = riff_WriteChunkHeader(file, RIFF_ID_JUNK, DWORD(place.total - 8)))) return hr;
    if (chainEnd + list.size() - 8 > RIFF_MAX_SIZE) return KAERR_RIFF_TOO_LARGE;
    if (FAILED(hr = writeAt(file, chainEnd, list))) return hr;
    return riff_SetRIFFSize(file, DWORD(chainEnd + list.size() - 8));
  }
  // No list yet, or the list is the last chunk: (re)write it at the end.
  const uint64_t at = place.found ? place.offset : chainEnd;
  if (at + list.size() - 8 > RIFF_MAX_SIZE) return KAERR_RIFF_TOO_LARGE;
  if (FAILED(hr = writeAt(file, at, list))) return hr;
  if (FAILED(hr = KaFile_SetEndOfFile(file))) return hr;
  return riff_SetRIFFSize(file, DWORD(at + list.size() - 8));
}

}  // namespace

HRESULT tagFile(const TagRequest& r) {
  for (const auto& [id, text] : r.set)
    if (!infoId(id)) return E_INVALIDARG;
  for (const auto& id : r.remove)
    if (!infoId(id)) return E_INVALIDARG;

  FileFacts facts;
  HRESULT hr = inspectPath(r.file, facts);
  if (FAILED(hr)) return hr;
  if (facts.kind != Container::Riff) return KAERR_UNSUPPORTED_FILE;

  // The edit is made on a copy beside the file, which replaces it only when complete: an
  // edit that fails, or a crash, leaves the file as it was.
  OutputFile copy;
  std::string why;
  if (FAILED(hr = reserveRewrite(copy, r.file, why))) return withReason(hr, why);
  KAHFILE file = KA_INVALID_HFILE;
  hr = KaFile_OpenUtf8(copy.path().c_str(), GENERIC_READ | GENERIC_WRITE, 0, OPEN_EXISTING,
                       FILE_ATTRIBUTE_NORMAL, &file);
  if (FAILED(hr)) return hr;
  hr = editList(file, facts, r, why);
  const HRESULT closed = KaFile_Close(file);
  if (SUCCEEDED(hr)) hr = closed;
  if (SUCCEEDED(hr)) hr = copy.commit(why);
  return withReason(hr, why);
}

// "utf-8", "windows-1252", "iso-8859-1", "cp437" or a code page number.
UINT codePageFromName(std::string name) {
  std::transform(name.begin(), name.end(), name.begin(),
                 [](unsigned char c) { return std::tolower(c); });
  auto number = [](const std::string& s) -> UINT {
    if (s.empty() || s.size() > 6 || s.find_first_not_of("0123456789") != std::string::npos)
      return 0;
    return UINT(std::stoul(s));
  };
  if (name == "utf-8" || name == "utf8") return KA_CP_UTF8;
  if (name == "latin1" || name == "latin-1") return 28591;
  for (const char* prefix : {"windows-", "cp"})
    if (name.rfind(prefix, 0) == 0) return number(name.substr(std::strlen(prefix)));
  if (name.rfind("iso-8859-", 0) == 0) {
    const UINT part = number(name.substr(9));
    return part >= 1 && part <= 9 ? 28590 + part : 0;
  }
  return number(name);
}

namespace {

struct Options {
  std::string file, codePage = "utf-8";
  std::vector<std::string> set, remove;
  bool wide = false;
};

void setup(CLI::App& cmd) {
  static Options o;
  cmd.add_option("FILE", o.file, "Wave file; the edited copy replaces it when complete")
      ->required()
      ->check(CLI::ExistingFile);
  cmd.add_option("--set", o.set, "Set an item, e.g. --set INAM=Title (repeatable)");
  cmd.add_option("--delete", o.remove, "Delete an item, e.g. --delete ICMT (repeatable)");
  cmd.add_flag("--wide", o.wide, "Edit the wide-character UNFO list instead of INFO");
  cmd.add_option("--codepage", o.codePage,
                 "Code page of new INFO text: utf-8 (default), windows-1252, iso-8859-1, a number");
  cmd.callback([] {
    TagRequest r;
    r.file = o.file;
    r.wide = o.wide;
    r.codePage = codePageFromName(o.codePage);
    std::u16string probe = u"a";
    if (!r.codePage || KaText_WideToMultiByte(r.codePage, 0, probe.c_str(), -1, nullptr, 0) <= 0)
      return void(
          reportUsage("tag: --codepage " + o.codePage + " is not a code page this system knows"));
    for (const std::string& s : o.set) {
      const auto eq = s.find('=');
      if (eq != 4 || !infoId(s.substr(0, 4)))
        return void(
            reportUsage("tag: --set takes ID=TEXT with an ID of four printable characters, "
                        "not '" +
                        s + "'"));
      r.set.emplace_back(s.substr(0, 4), s.substr(5));
    }
    for (const std::string& s : o.remove) {
      if (!infoId(s))
        return void(
            reportUsage("tag: --delete takes an ID of four printable characters, not '" + s + "'"));
      r.remove.push_back(s);
    }
    const HRESULT hr = tagFile(r);
    if (FAILED(hr)) reportFailure(hr, o.file);
  });
}

OSTRA_COMMAND("tag",
              "Set or delete the INFO (or UNFO) items of a wave file without touching its samples",
              setup);

}  // namespace
}  // namespace ostra::cli
