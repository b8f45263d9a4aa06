// ostra tag FILE [--set ID=TEXT]... [--delete ID]... [--wide]: rewrites the LIST INFO
// (or, with --wide, LIST UNFO) of a wave file through the summary and chunk functions, in
// a copy that replaces the file when the edit is complete.
// The samples are never moved or rewritten: the new list goes where the old one was
// when it fits there (the rest becomes a JUNK chunk), else the old one becomes JUNK and
// the new one is appended after the last chunk.
#include <cstdio>

#include "command.h"
#include "operations.h"
#include "output_file.h"
#include "ostra/kaerror.h"
#include "ostra/kaplatform.h"
#include "ostra/kawave.h"
#include "ostra/riff.h"
#include "text.h"

namespace ostra::cli {
namespace {

constexpr DWORD kUnfo = KaFourCC('U', 'N', 'F', 'O');

uint64_t even(uint64_t n) { return n + (n & 1); }

DWORD idFromText(const std::string& s) {
  if (s.size() != 4) return 0;
  return KaFourCC(s[0], s[1], s[2], s[3]);
}

struct ListPlace {
  bool found = false;
  uint64_t offset = 0;  // of the LIST header
  uint64_t total = 0;   // header + data + pad
  bool atEnd = false;   // nothing but its pad follows it
};

HRESULT saveList(KAHFILE file, _summarylisttag* list, bool wide, DWORD* written) {
  return wide ? KaSummary_SaveUNFO(file, list, written) : KaSummary_Save(file, list, written);
}

// Edits the list in `file`, an open copy of the file that `facts` describes.
HRESULT editList(KAHFILE file, const FileFacts& facts, const TagRequest& r) {
  HRESULT hr = S_OK;
  const DWORD listType = r.wide ? kUnfo : RIFF_ID_INFO;
  // Where the list stands now, and where the chunks end.
  ListPlace place;
  uint64_t chainEnd = 12;
  for (const ChunkFacts& c : facts.chunks) {
    chainEnd = std::max(chainEnd, c.offset + 8 + even(c.size));
    if (place.found || c.id != "LIST" || c.size < 4) continue;
    DWORD type = 0, got = 0;
    KaFile_Seek(file, INT64(c.offset + 8), FILE_BEGIN, nullptr);
    KaFile_Read(file, &type, 4, &got);
    if (got == 4 && type == listType) {
      place = {true, c.offset, 8 + even(c.size), false};
    }
  }
  if (place.found) place.atEnd = place.offset + place.total >= chainEnd;
  // Only a missing final pad byte is tolerated; a chunk cut short means the file needs
  // `ostra repair` first.
  if (chainEnd > facts.fileSize + 1) return KAERR_CORRUPT_FILE;
  if (chainEnd == facts.fileSize + 1) {
    const unsigned char zero = 0;
    DWORD done = 0;
    if (FAILED(hr = KaFile_Seek(file, INT64(facts.fileSize), FILE_BEGIN, nullptr))) return hr;
    if (FAILED(hr = KaFile_Write(file, &zero, 1, &done))) return hr;
  }

  // The current items, changed as asked.
  _summarylisttag list{};
  const auto& current = r.wide ? facts.unfo : facts.info;
  for (const TextItem& item : current) {
    const std::u16string t = toUtf16(item.text);
    if (FAILED(hr = KaSummary_SetItem(&list, item.rawId, t.c_str()))) break;
  }
  for (const auto& [id, text] : r.set) {
    if (FAILED(hr)) break;
    const std::u16string t = toUtf16(text);
    hr = KaSummary_SetItem(&list, idFromText(id), t.c_str());
  }
  for (const auto& id : r.remove) {
    if (FAILED(hr)) break;
    if (SUCCEEDED(KaSummary_GetItemIndex(&list, idFromText(id))))
      hr = KaSummary_SetItem(&list, idFromText(id), nullptr);
  }
  struct ListFree {
    _summarylisttag* l;
    ~ListFree() { KaSummary_Free(l); }
  } freeList{&list};
  if (FAILED(hr)) return hr;

  // Measure the new list by writing it where it will go; a list in place that would not
  // fit is first written at the end instead.
  DWORD written = 0;
  if (place.found && !place.atEnd) {
    // Would it fit? Its size is 12 + sum of (8 + padded text); KaSummary_Save tells.
    if (FAILED(hr = KaFile_Seek(file, INT64(chainEnd), FILE_BEGIN, nullptr))) return hr;
    if (FAILED(hr = saveList(file, &list, r.wide, &written))) return hr;
    const uint64_t room = place.total;
    if (written == room || (written + 8 <= room)) {
      // In place: the trial copy at the end goes, the list and a JUNK filler go in.
      if (FAILED(hr = KaFile_Seek(file, INT64(chainEnd), FILE_BEGIN, nullptr))) return hr;
      if (FAILED(hr = KaFile_SetEndOfFile(file))) return hr;
      if (FAILED(hr = KaFile_Seek(file, INT64(place.offset), FILE_BEGIN, nullptr))) return hr;
      if (FAILED(hr = saveList(file, &list, r.wide, &written))) return hr;
      if (written < room) hr = riff_WriteChunkHeader(file, RIFF_ID_JUNK, DWORD(room - written - 8));
      return hr;
    }
    // Appended: the old list turns into JUNK of the same length; the RIFF grows.
    if (FAILED(hr = KaFile_Seek(file, INT64(place.offset), FILE_BEGIN, nullptr))) return hr;
    if (FAILED(hr = riff_WriteChunkHeader(file, RIFF_ID_JUNK, DWORD(place.total - 8)))) return hr;
    return riff_SetRIFFSize(file, DWORD(chainEnd + written - 8));
  }
  // No list yet, or the list is the last chunk: (re)write it at the end.
  const uint64_t at = place.found ? place.offset : chainEnd;
  if (FAILED(hr = KaFile_Seek(file, INT64(at), FILE_BEGIN, nullptr))) return hr;
  if (FAILED(hr = saveList(file, &list, r.wide, &written))) return hr;
  if (FAILED(hr = KaFile_SetEndOfFile(file))) return hr;
  if (at + written - 8 > RIFF_MAX_SIZE) return KAERR_RIFF_TOO_LARGE;
  return riff_SetRIFFSize(file, DWORD(at + written - 8));
}

}  // namespace

HRESULT tagFile(const TagRequest& r) {
  for (const auto& [id, text] : r.set)
    if (!idFromText(id)) return E_INVALIDARG;
  for (const auto& id : r.remove)
    if (!idFromText(id)) return E_INVALIDARG;

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
  hr = editList(file, facts, r);
  const HRESULT closed = KaFile_Close(file);
  if (SUCCEEDED(hr)) hr = closed;
  if (SUCCEEDED(hr)) hr = copy.commit(why);
  return withReason(hr, why);
}

namespace {

struct Options {
  std::string file;
  std::vector<std::string> set, remove;
  bool wide = false;
};

void setup(CLI::App& cmd) {
  static Options o;
  cmd.add_option("FILE", o.file, "Wave file, changed in place")
      ->required()
      ->check(CLI::ExistingFile);
  cmd.add_option("--set", o.set, "Set an item, e.g. --set INAM=Title (repeatable)");
  cmd.add_option("--delete", o.remove, "Delete an item, e.g. --delete ICMT (repeatable)");
  cmd.add_flag("--wide", o.wide, "Edit the wide-character UNFO list instead of INFO");
  cmd.callback([] {
    TagRequest r;
    r.file = o.file;
    r.wide = o.wide;
    for (const std::string& s : o.set) {
      const auto eq = s.find('=');
      if (eq != 4)
        return void(
            reportUsage("tag: --set takes ID=TEXT with a four-character ID, not '" + s + "'"));
      r.set.emplace_back(s.substr(0, 4), s.substr(5));
    }
    for (const std::string& s : o.remove) {
      if (s.size() != 4)
        return void(reportUsage("tag: --delete takes a four-character ID, not '" + s + "'"));
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
