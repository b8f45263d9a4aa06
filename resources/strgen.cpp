// Build-time compiler of the localized text tables: reads every
// <strings>/<language>/<family>.txt (format in strings/README.md), checks the texts and
// writes the multilingual string records as a C++ source that the kernel compiles in.
//
//   ostra_strgen <strings folder> <languages file> <output.cpp>
//
// A record is a 16-bit 0xFEFF marker, the language count, then one zero-terminated UTF-16
// text per language in the order of the languages file (English first). A language that
// lacks a text gets an empty slot, which the lookup answers with the English text.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

int gErrors = 0;

void fail(const std::string& where, const std::string& what) {
  std::fprintf(stderr, "%s: error: %s\n", where.c_str(), what.c_str());
  ++gErrors;
}

bool parseKey(const std::string& s, uint32_t& key) {
  if (s.empty()) return false;
  int base = 10;
  size_t i = 0;
  if (s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X')) base = 16, i = 2;
  uint64_t v = 0;
  for (; i < s.size(); ++i) {
    const char c = s[i];
    int d;
    if (c >= '0' && c <= '9')
      d = c - '0';
    else if (base == 16 && c >= 'a' && c <= 'f')
      d = c - 'a' + 10;
    else if (base == 16 && c >= 'A' && c <= 'F')
      d = c - 'A' + 10;
    else
      return false;
    v = v * base + d;
    if (v > 0xFFFFFFFFull) return false;
  }
  key = uint32_t(v);
  return true;
}

// Undoes the C escapes of the source form.
bool unescape(const std::string& in, std::string& out) {
  out.clear();
  for (size_t i = 0; i < in.size(); ++i) {
    if (in[i] != '\\') {
      out += in[i];
      continue;
    }
    if (++i == in.size()) return false;
    switch (in[i]) {
      case 'n':
        out += '\n';
        break;
      case 'r':
        out += '\r';
        break;
      case 't':
        out += '\t';
        break;
      case '\\':
        out += '\\';
        break;
      case '"':
        out += '"';
        break;
      default:
        return false;
    }
  }
  return true;
}

bool utf8ToUtf16(const std::string& s, std::u16string& out) {
  out.clear();
  for (size_t i = 0; i < s.size();) {
    const unsigned char c = static_cast<unsigned char>(s[i]);
    uint32_t cp;
    int extra;
    if (c < 0x80)
      cp = c, extra = 0;
    else if ((c & 0xE0) == 0xC0)
      cp = c & 0x1F, extra = 1;
    else if ((c & 0xF0) == 0xE0)
      cp = c & 0x0F, extra = 2;
    else if ((c & 0xF8) == 0xF0)
      cp = c & 0x07, extra = 3;
    else
      return false;
    if (extra && i + extra >= s.size()) return false;
    for (int k = 1; k <= extra; ++k) {
      const unsigned char d = static_cast<unsigned char>(s[i + k]);
      if ((d & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (d & 0x3F);
    }
    static const uint32_t kMin[] = {0, 0x80, 0x800, 0x10000};
    if (cp < kMin[extra] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    if (cp >= 0x10000) {
      cp -= 0x10000;
      out += char16_t(0xD800 + (cp >> 10));
      out += char16_t(0xDC00 + (cp & 0x3FF));
    } else {
      out += char16_t(cp);
    }
    i += extra + 1;
  }
  return true;
}

// The printf fields of a text as a signature ("s d 08x" -> "sdx"), so that a translation
// that drops, adds or reorders a field is caught at build time rather than at run time.
bool fieldSignature(const std::string& text, std::string& sig) {
  sig.clear();
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') continue;
    if (++i >= text.size()) return false;
    if (text[i] == '%') continue;
    while (i < text.size() && std::string("-+ 0#").find(text[i]) != std::string::npos) ++i;
    if (i < text.size() && text[i] == '*') sig += '*', ++i;
    while (i < text.size() && isdigit(static_cast<unsigned char>(text[i]))) ++i;
    if (i < text.size() && text[i] == '.') {
      ++i;
      if (i < text.size() && text[i] == '*') sig += '*', ++i;
      while (i < text.size() && isdigit(static_cast<unsigned char>(text[i]))) ++i;
    }
    while (i < text.size() && std::string("hlLzjtqI64").find(text[i]) != std::string::npos) ++i;
    if (i >= text.size()) return false;
    const char c = text[i];
    if (std::string("sSc").find(c) != std::string::npos)
      sig += 's';
    else if (std::string("diuxXo").find(c) != std::string::npos)
      sig += 'd';
    else if (std::string("eEfFgGaA").find(c) != std::string::npos)
      sig += 'f';
    else if (c == 'p')
      sig += 'p';
    else
      return false;
  }
  return true;
}

size_t countOf(const std::string& s, const std::string& what) {
  size_t n = 0;
  for (size_t p = s.find(what); p != std::string::npos; p = s.find(what, p + 1)) ++n;
  return n;
}

struct Text {
  std::string utf8;
  std::u16string utf16;
  std::string where;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: ostra_strgen <strings folder> <languages file> <output.cpp>\n");
    return 2;
  }
  const fs::path root = argv[1];

  // Language slots, in record order.
  std::vector<std::string> languages;
  {
    std::ifstream in(argv[2]);
    if (!in) {
      std::fprintf(stderr, "%s: error: cannot read\n", argv[2]);
      return 1;
    }
    std::string line;
    while (std::getline(in, line)) {
      if (!line.empty() && line.back() == '\r') line.pop_back();
      if (line.empty() || line[0] == '#') continue;
      languages.push_back(line.substr(0, line.find_first_of(" \t")));
    }
  }
  if (languages.empty() || languages[0] != "en" || languages.size() > 0xFFFF) {
    std::fprintf(stderr, "%s: error: the first language must be en\n", argv[2]);
    return 1;
  }

  // texts[language][key]
  std::vector<std::map<uint32_t, Text>> texts(languages.size());
  std::vector<fs::path> files;
  std::error_code ec;
  for (const auto& dir : fs::directory_iterator(root, ec)) {
    if (!dir.is_directory()) continue;
    for (const auto& f : fs::directory_iterator(dir.path()))
      if (f.is_regular_file() && f.path().extension() == ".txt") files.push_back(f.path());
  }
  if (ec) fail(root.string(), "cannot list: " + ec.message());
  std::sort(files.begin(), files.end());

  for (const fs::path& file : files) {
    const std::string lang = file.parent_path().filename().string();
    const auto slot = std::find(languages.begin(), languages.end(), lang);
    if (slot == languages.end()) {
      fail(file.string(), "folder '" + lang + "' is not in the languages file");
      continue;
    }
    auto& table = texts[slot - languages.begin()];
    std::ifstream in(file, std::ios::binary);
    std::string line;
    int lineNo = 0;
    while (std::getline(in, line)) {
      ++lineNo;
      const std::string where = file.string() + ":" + std::to_string(lineNo);
      if (lineNo == 1 && line.rfind("\xEF\xBB\xBF", 0) == 0) line.erase(0, 3);
      if (!line.empty() && line.back() == '\r') line.pop_back();
      if (line.empty() || line[0] == '#') continue;
      const size_t tab = line.find('\t');
      uint32_t key;
      if (tab == std::string::npos || !parseKey(line.substr(0, tab), key)) {
        fail(where, "expected <key><tab><text>");
        continue;
      }
      Text t;
      t.where = where;
      if (!unescape(line.substr(tab + 1), t.utf8)) {
        fail(where, "unknown escape or trailing backslash");
        continue;
      }
      if (!utf8ToUtf16(t.utf8, t.utf16)) {
        fail(where, "not valid UTF-8");
        continue;
      }
      if (t.utf16.empty()) {
        fail(where, "empty text (leave the line out to fall back to English)");
        continue;
      }
      std::string sig;
      if (!fieldSignature(t.utf8, sig)) fail(where, "malformed printf field");
      const auto [it, fresh] = table.emplace(key, t);
      if (!fresh)
        fail(where, "key " + std::to_string(key) + " already defined at " + it->second.where);
    }
  }

  // Every translation must belong to an English text and carry the same fields.
  for (size_t l = 1; l < languages.size(); ++l) {
    for (const auto& [key, t] : texts[l]) {
      const auto en = texts[0].find(key);
      if (en == texts[0].end()) {
        fail(t.where, "no English text for this key");
        continue;
      }
      std::string a, b;
      fieldSignature(en->second.utf8, a);
      fieldSignature(t.utf8, b);
      if (a != b) fail(t.where, "fields '" + b + "' differ from English '" + a + "'");
      if (countOf(en->second.utf8, "$(AppName)") != countOf(t.utf8, "$(AppName)"))
        fail(t.where, "$(AppName) placeholders differ from English");
    }
  }
  if (gErrors) return 1;

  std::ostringstream out;
  out << "// Generated by ostra_strgen from resources/strings; do not edit.\n"
         "#include \"kernel/internal/string_table.h\"\n\n"
         "namespace ostra::kernel::generated {\nnamespace {\n\n";
  for (const auto& [key, en] : texts[0]) {
    out << "const char16_t r" << key << "[] = {0xFEFF, " << languages.size() << ",";
    int column = 0;
    for (size_t l = 0; l < languages.size(); ++l) {
      const auto it = texts[l].find(key);
      if (it != texts[l].end())
        for (char16_t u : it->second.utf16) {
          out << (column++ % 16 ? " " : "\n  ") << unsigned(u) << ",";
        }
      out << (column++ % 16 ? " " : "\n  ") << "0,";
    }
    out << "};\n";
  }
  out << "\n}  // namespace\n\nconst char* const kLanguageNames[] = {";
  for (const auto& l : languages) out << "\"" << l << "\", ";
  out << "};\nconst unsigned kLanguageCount = " << languages.size()
      << ";\n\nconst StringEntry kStrings[] = {\n";
  for (const auto& [key, en] : texts[0]) out << "  {" << key << "u, r" << key << "},\n";
  if (texts[0].empty()) out << "  {0u, nullptr},\n";
  out << "};\nconst unsigned kStringCount = " << texts[0].size()
      << ";\n\n}  // namespace ostra::kernel::generated\n";

  // Rewrite only on change so that an unchanged table does not recompile the kernel.
  const std::string text = out.str();
  {
    std::ifstream old(argv[3], std::ios::binary);
    std::stringstream prev;
    prev << old.rdbuf();
    if (old && prev.str() == text) return 0;
  }
  std::ofstream o(argv[3], std::ios::binary);
  o << text;
  if (!o) {
    std::fprintf(stderr, "%s: error: cannot write\n", argv[3]);
    return 1;
  }
  return 0;
}
