// The block list: plug-ins that identification passes over in the signature pass, read
// from an XML file beside the module with expat. The file is small and written by people
// (support staff, a packager); a file that cannot be read is reported and ignored.
//
//   <bypass-list>
//     <bypass plugin="{6A2F6C11-0005-4C52-9B6A-0F1E2D3C4B00}" extensions="mp4;mov"/>
//     <bypass module="libold-reader.so"/>
//   </bypass-list>
#include <expat.h>

#include <cstring>

#include "fileio/internal/manager.h"
#include "ostra/kacom.h"
#include "ostra/kaplatform.h"
#include "platform/internal/text.h"

namespace ostra::fileio {
namespace {

constexpr UINT64 kMaxBytes = 1u << 20;
constexpr size_t kMaxRules = 4096;

struct Parse {
  XML_Parser parser;
  BlockList* list;
  int depth = 0;
  bool rootSeen = false;
};

void fail(Parse* p, const std::string& why) {
  if (p->list->error.empty())
    p->list->error = why + " at line " + std::to_string(XML_GetCurrentLineNumber(p->parser));
  XML_StopParser(p->parser, XML_FALSE);
}

void XMLCALL onStart(void* data, const XML_Char* name, const XML_Char** attributes) {
  auto* p = static_cast<Parse*>(data);
  ++p->depth;
  if (p->depth == 1) {
    if (std::strcmp(name, "bypass-list") != 0) fail(p, "the root element is not <bypass-list>");
    p->rootSeen = true;
    return;
  }
  if (p->depth != 2 || std::strcmp(name, "bypass") != 0)
    return fail(p, std::string("unexpected element <") + name + ">");
  if (p->list->rules.size() >= kMaxRules) return fail(p, "more than 4096 rules");
  BypassRule rule;
  for (const XML_Char** a = attributes; a[0]; a += 2) {
    const U16 value = ostra::text::utf8ToUtf16(a[1]);
    if (!std::strcmp(a[0], "plugin")) {
      if (FAILED(KaGuid_FromString(value.c_str(), &rule.clsid)))
        return fail(p, "plugin=\"" + std::string(a[1]) + "\" is not a class id");
      rule.anyClass = false;
    } else if (!std::strcmp(a[0], "module")) {
      rule.moduleName = lowerAscii(value);
    } else if (!std::strcmp(a[0], "extensions")) {
      U16 rest = lowerAscii(value);
      size_t start = 0;
      while (start <= rest.size()) {
        size_t end = rest.find_first_of(u";, ", start);
        if (end == U16::npos) end = rest.size();
        U16 item = rest.substr(start, end - start);
        while (!item.empty() && item.front() == '.') item.erase(0, 1);
        if (!item.empty()) rule.extensions.push_back(item);
        start = end + 1;
      }
    } else {
      return fail(p, std::string("unknown attribute ") + a[0] + " of <bypass>");
    }
  }
  if (rule.anyClass && rule.moduleName.empty())
    return fail(p, "<bypass> names neither a plugin nor a module");
  p->list->rules.push_back(std::move(rule));
}

void XMLCALL onEnd(void* data, const XML_Char*) { --static_cast<Parse*>(data)->depth; }

// Entities and document types have no place in the file; refusing them keeps entity
// expansion out altogether.
void XMLCALL onDoctype(void* data, const XML_Char*, const XML_Char*, const XML_Char*, int) {
  fail(static_cast<Parse*>(data), "a document type declaration is not allowed");
}

}  // namespace

BlockList loadBlockList(const U16& path) {
  BlockList list;
  KAHFILE file;
  if (FAILED(KaFile_Open(path.c_str(), GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, 0, &file)))
    return list;  // no block list: nothing is bypassed
  UINT64 size = 0;
  std::string bytes;
  HRESULT hr = KaFile_GetSize(file, &size);
  if (SUCCEEDED(hr) && size > kMaxBytes) {
    list.error = "larger than 1 MiB";
  } else if (SUCCEEDED(hr)) {
    bytes.resize(size_t(size));
    DWORD got = 0;
    hr = KaFile_Read(file, bytes.data(), DWORD(size), &got);
    bytes.resize(got);
  }
  KaFile_Close(file);
  if (FAILED(hr)) list.error = "cannot be read";
  if (!list.error.empty()) return list;

  XML_Parser parser = XML_ParserCreate(nullptr);
  if (!parser) {
    list.error = "out of memory";
    return list;
  }
  Parse parse{parser, &list};
  XML_SetUserData(parser, &parse);
  XML_SetElementHandler(parser, onStart, onEnd);
  XML_SetStartDoctypeDeclHandler(parser, onDoctype);
  if (XML_Parse(parser, bytes.data(), int(bytes.size()), XML_TRUE) == XML_STATUS_ERROR &&
      list.error.empty())
    list.error = std::string(XML_ErrorString(XML_GetErrorCode(parser))) + " at line " +
                 std::to_string(XML_GetCurrentLineNumber(parser));
  else if (list.error.empty() && !parse.rootSeen)
    list.error = "no <bypass-list> element";
  XML_ParserFree(parser);
  if (!list.error.empty()) list.rules.clear();
  return list;
}

bool isBypassed(const BlockList& list, const KAFIOPLUGINENTRY& plugin, const U16& extension) {
  const U16 module = lowerAscii(fileNameOf(plugin.path));
  for (const BypassRule& rule : list.rules) {
    if (!rule.anyClass && rule.clsid != plugin.reader) continue;
    if (!rule.moduleName.empty() && rule.moduleName != module) continue;
    if (rule.extensions.empty()) return true;
    for (const U16& e : rule.extensions)
      if (e == extension) return true;
  }
  return false;
}

}  // namespace ostra::fileio
