// INI files. The file is decoded to UTF-16 lines, looked up or edited line by line and, for
// a change, written back whole through a temporary file and a rename, so readers never see
// half a file. Comment and blank lines and the spelling of names survive an edit.
//
// The packaged inih parser was considered: it folds indented lines into the previous value
// and cuts values at " ;", neither of which the classic syntax does, and it cannot write.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ostra/kaerror.h"
#include "ostra/kaini.h"
#include "ostra/kaplatform.h"
#include "platform/internal/sysops.h"
#include "platform/internal/text.h"

namespace {

using U16 = std::u16string;
using View = std::u16string_view;

enum class Encoding { Utf8, Utf8Bom, Utf16Le, Utf16Be, Ansi };

struct IniFile {
  Encoding encoding = Encoding::Utf8;
  U16 eol = u"\r\n";
  std::vector<U16> lines;
};

std::mutex gWriteLock;

bool isSpace(char16_t c) { return c == ' ' || c == '\t' || c == '\v' || c == '\f'; }

View trim(View s) {
  while (!s.empty() && isSpace(s.front())) s.remove_prefix(1);
  while (!s.empty() && isSpace(s.back())) s.remove_suffix(1);
  return s;
}

char16_t fold(char16_t c) {
  if ((c >= 'A' && c <= 'Z') || (c >= 0xC0 && c <= 0xDE && c != 0xD7)) return char16_t(c + 32);
  return c;
}

bool sameName(View a, View b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (fold(a[i]) != fold(b[i])) return false;
  return true;
}

bool validUtf8(const std::string& s) {
  const auto* p = reinterpret_cast<const unsigned char*>(s.data());
  for (size_t i = 0; i < s.size();) {
    const unsigned c = p[i];
    size_t n = c < 0x80                   ? 1
               : (c >= 0xC2 && c <= 0xDF) ? 2
               : (c >= 0xE0 && c <= 0xEF) ? 3
               : (c >= 0xF0 && c <= 0xF4) ? 4
                                          : 0;
    if (!n || i + n > s.size()) return false;
    for (size_t k = 1; k < n; ++k)
      if ((p[i + k] & 0xC0) != 0x80) return false;
    i += n;
  }
  return true;
}

// Kinds of line: a section header (name), a key (name and value), anything else.
enum class Kind { Other, Section, Key };

Kind parse(View line, View* name, View* value) {
  View t = trim(line);
  if (t.empty() || t.front() == ';') return Kind::Other;
  if (t.front() == '[') {
    t.remove_prefix(1);
    const size_t close = t.find(']');
    *name = trim(close == View::npos ? t : t.substr(0, close));
    return Kind::Section;
  }
  const size_t eq = t.find('=');
  *name = trim(t.substr(0, eq));
  *value = eq == View::npos ? View() : trim(t.substr(eq + 1));
  return Kind::Key;
}

HRESULT readAll(KAHFILE fd, IniFile& f) {
  HRESULT hr;
  std::string bytes;
  char buf[16384];
  DWORD got = 0;
  while (SUCCEEDED(hr = KaFile_Read(fd, buf, sizeof buf, &got)) && got) bytes.append(buf, got);
  if (FAILED(hr)) return hr;
  U16 text;
  auto units = [&](size_t from, bool big) {
    for (size_t i = from; i + 1 < bytes.size(); i += 2) {
      const auto lo = uint8_t(bytes[i + (big ? 1 : 0)]), hi = uint8_t(bytes[i + (big ? 0 : 1)]);
      text.push_back(char16_t(lo | (hi << 8)));
    }
  };
  if (bytes.size() >= 2 && uint8_t(bytes[0]) == 0xFF && uint8_t(bytes[1]) == 0xFE) {
    f.encoding = Encoding::Utf16Le;
    units(2, false);
  } else if (bytes.size() >= 2 && uint8_t(bytes[0]) == 0xFE && uint8_t(bytes[1]) == 0xFF) {
    f.encoding = Encoding::Utf16Be;
    units(2, true);
  } else if (bytes.size() >= 3 && uint8_t(bytes[0]) == 0xEF && uint8_t(bytes[1]) == 0xBB &&
             uint8_t(bytes[2]) == 0xBF) {
    f.encoding = Encoding::Utf8Bom;
    text = ostra::text::utf8ToUtf16(std::string_view(bytes).substr(3));
  } else if (validUtf8(bytes)) {
    f.encoding = Encoding::Utf8;
    text = ostra::text::utf8ToUtf16(bytes);
  } else {
    f.encoding = Encoding::Ansi;
    text = ostra::text::ansiToUtf16(bytes);
  }
  bool eolSeen = false;
  size_t start = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\n' && text[i] != '\r') continue;
    const bool crlf = text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n';
    if (!eolSeen) f.eol = crlf ? u"\r\n" : text[i] == '\n' ? u"\n" : u"\r";
    eolSeen = true;
    f.lines.emplace_back(text, start, i - start);
    if (crlf) ++i;
    start = i + 1;
  }
  if (start < text.size()) f.lines.emplace_back(text, start);
  return S_OK;
}

HRESULT load(const std::string& path, IniFile& f, bool* exists) {
  *exists = false;
  KAHFILE fd;
  HRESULT hr = KaFile_OpenUtf8(path.c_str(), GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, 0, &fd);
  if (FAILED(hr)) return hr == KAERR_NOT_FOUND ? S_OK : hr;
  hr = readAll(fd, f);
  KaFile_Close(fd);
  *exists = SUCCEEDED(hr);
  return hr;
}

// The last file read, decoded, for the lookups that follow one another on the same file
// (a cache of plug-in descriptions is read key by key). A file is the same while its
// identity, size and modification time are: every write here replaces the file through a
// rename, which gives it a new identity.
struct ReadCache {
  std::mutex lock;
  std::string path;
  struct stat status {};
  std::shared_ptr<const IniFile> file;
};

ReadCache& readCache() {
  static ReadCache cache;
  return cache;
}

bool sameStatus(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
         a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

// A file changed in place within the file system's clock tick keeps its time stamp; one
// whose time is older than a few ticks cannot be mistaken for its successor.
bool settled(const struct stat& st) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const int64_t age = (int64_t(now.tv_sec) - st.st_mtim.tv_sec) * 1000000000LL +
                      (int64_t(now.tv_nsec) - st.st_mtim.tv_nsec);
  return age > 100000000LL;
}

void remember(const std::string& path, const struct stat& st, std::shared_ptr<const IniFile> f) {
  ReadCache& cache = readCache();
  std::lock_guard lk(cache.lock);
  cache.path = path;
  cache.status = st;
  cache.file = std::move(f);
}

std::shared_ptr<const IniFile> loadForReading(const std::string& path) {
  KAHFILE fd;
  if (FAILED(KaFile_OpenUtf8(path.c_str(), GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, 0, &fd)))
    return std::make_shared<const IniFile>();
  struct stat st {};
  const bool known = ostra::platform::sysOps().fstat(fd, &st) == 0;
  ReadCache& cache = readCache();
  if (known) {
    std::lock_guard lk(cache.lock);
    if (cache.file && cache.path == path && sameStatus(cache.status, st)) {
      KaFile_Close(fd);
      return cache.file;
    }
  }
  auto f = std::make_shared<IniFile>();
  const HRESULT hr = readAll(fd, *f);
  KaFile_Close(fd);
  if (FAILED(hr)) return std::make_shared<const IniFile>();
  if (known && settled(st)) remember(path, st, f);
  return f;
}

HRESULT save(const std::string& path, const IniFile& f) {
  U16 text;
  for (const U16& l : f.lines) text += l + f.eol;
  std::string bytes;
  Encoding enc = f.encoding;
  if (enc == Encoding::Ansi) {
    std::string ansi = ostra::text::utf16ToAnsi(text);
    if (ostra::text::ansiToUtf16(ansi) == text)
      bytes = std::move(ansi);
    else
      enc = Encoding::Utf8Bom;  // the code page cannot hold the new text
  }
  if (enc == Encoding::Utf8 || enc == Encoding::Utf8Bom) {
    bytes.clear();
    if (enc == Encoding::Utf8Bom) bytes.append("\xEF\xBB\xBF", 3);
    bytes += ostra::text::utf16ToUtf8(text);
  }
  if (enc == Encoding::Utf16Le || enc == Encoding::Utf16Be) {
    const bool big = enc == Encoding::Utf16Be;
    bytes.clear();
    bytes.push_back(big ? '\xFE' : '\xFF');
    bytes.push_back(big ? '\xFF' : '\xFE');
    for (char16_t c : text) {
      const char lo = char(c & 0xFF), hi = char(c >> 8);
      bytes += big ? hi : lo;
      bytes += big ? lo : hi;
    }
  }
  std::string tmp = path + ".XXXXXX";
  const int fd = mkstemp(tmp.data());
  if (fd < 0) return KaHresultFromErrno(errno);
  struct stat st;
  if (stat(path.c_str(), &st) == 0)
    fchmod(fd, st.st_mode & 07777);
  else
    fchmod(
        fd, 0666 & ~[] {
          mode_t m = umask(0);
          umask(m);
          return m;
        }());
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      const HRESULT hr = KaHresultFromErrno(n < 0 ? errno : ENOSPC);
      close(fd);
      unlink(tmp.c_str());
      return hr;
    }
    done += size_t(n);
  }
  if (close(fd) != 0 || rename(tmp.c_str(), path.c_str()) != 0) {
    const HRESULT hr = KaHresultFromErrno(errno);
    unlink(tmp.c_str());
    return hr;
  }
  // The file just written is the one the next lookup will read (its identity is new).
  if (stat(path.c_str(), &st) == 0) remember(path, st, std::make_shared<const IniFile>(f));
  return S_OK;
}

// The line range [begin, end) of the first section of that name, header included.
bool findSection(const IniFile& f, View section, size_t* begin, size_t* end) {
  View name, value;
  bool inside = false;
  for (size_t i = 0; i < f.lines.size(); ++i) {
    if (parse(f.lines[i], &name, &value) != Kind::Section) continue;
    if (inside) {
      *end = i;
      return true;
    }
    if (sameName(name, section)) {
      inside = true;
      *begin = i;
    }
  }
  *end = f.lines.size();
  return inside;
}

bool findKey(const IniFile& f, size_t begin, size_t end, View key, size_t* at, View* value) {
  View name;
  for (size_t i = begin + 1; i < end; ++i)
    if (parse(f.lines[i], &name, value) == Kind::Key && sameName(name, key)) {
      *at = i;
      return true;
    }
  return false;
}

View unquote(View v) {
  if (v.size() >= 2 && (v.front() == '"' || v.front() == '\'') && v.back() == v.front())
    return v.substr(1, v.size() - 2);
  return v;
}

DWORD copyOut(View s, KAWCHAR* buffer, DWORD size) {
  const size_t n = s.size() < size - 1 ? s.size() : size - 1;
  s.copy(buffer, n);
  buffer[n] = 0;
  return DWORD(n);
}

// Names each zero-terminated, then one more zero; cut short the classic way.
DWORD copyList(const std::vector<View>& names, KAWCHAR* buffer, DWORD size) {
  U16 all;
  for (View n : names) {
    all += n;
    all += char16_t(0);
  }
  if (all.size() + 1 <= size) {
    all.copy(buffer, all.size());
    buffer[all.size()] = 0;
    if (all.empty() && size >= 2) buffer[1] = 0;
    return DWORD(all.size());
  }
  if (size < 2) {
    buffer[0] = 0;
    return 0;
  }
  all.copy(buffer, size - 2);
  buffer[size - 2] = buffer[size - 1] = 0;
  return size - 2;
}

std::string pathOf(const KAWCHAR* file) { return ostra::text::utf16ToUtf8(file); }

bool hasBreak(View s) { return s.find_first_of(u"\r\n") != View::npos; }

}  // namespace

DWORD KaIni_GetString(const KAWCHAR* section, const KAWCHAR* key, const KAWCHAR* defaultValue,
                      KAWCHAR* buffer, DWORD size, const KAWCHAR* file) noexcept try {
  if (!buffer || size == 0) return 0;
  buffer[0] = 0;
  const std::shared_ptr<const IniFile> cached =
      file ? loadForReading(pathOf(file)) : std::make_shared<const IniFile>();
  const IniFile& f = *cached;
  std::vector<View> names;
  View name, value;
  if (!section) {
    for (const U16& l : f.lines)
      if (parse(l, &name, &value) == Kind::Section) {
        bool dup = false;
        for (View n : names) dup = dup || sameName(n, name);
        if (!dup) names.push_back(name);
      }
    return copyList(names, buffer, size);
  }
  size_t begin, end, at;
  const bool found = findSection(f, section, &begin, &end);
  if (!key) {
    if (found)
      for (size_t i = begin + 1; i < end; ++i)
        if (parse(f.lines[i], &name, &value) == Kind::Key) names.push_back(name);
    return copyList(names, buffer, size);
  }
  if (found && findKey(f, begin, end, key, &at, &value))
    return copyOut(unquote(value), buffer, size);
  return copyOut(defaultValue ? View(defaultValue) : View(), buffer, size);
} catch (...) {
  if (buffer && size) buffer[0] = 0;
  return 0;
}

UINT KaIni_GetInt(const KAWCHAR* section, const KAWCHAR* key, INT defaultValue,
                  const KAWCHAR* file) noexcept {
  if (!section || !key) return UINT(defaultValue);
  KAWCHAR text[64];
  if (KaIni_GetString(section, key, u"", text, 64, file) == 0) return UINT(defaultValue);
  View s = trim(text);
  bool negative = false;
  if (!s.empty() && (s[0] == '-' || s[0] == '+')) {
    negative = s[0] == '-';
    s.remove_prefix(1);
  }
  unsigned base = 10;
  if (s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X')) {
    base = 16;
    s.remove_prefix(2);
  }
  uint32_t v = 0;
  for (char16_t c : s) {
    unsigned d = c >= '0' && c <= '9'   ? c - '0'
                 : c >= 'a' && c <= 'f' ? c - 'a' + 10
                 : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                        : 99;
    if (d >= base) break;
    v = v * base + d;  // wraps like the 32-bit result it is
  }
  return negative ? 0u - v : v;
}

DWORD KaIni_GetSectionNames(KAWCHAR* buffer, DWORD size, const KAWCHAR* file) noexcept {
  return KaIni_GetString(nullptr, nullptr, nullptr, buffer, size, file);
}

DWORD KaIni_GetKeyNames(const KAWCHAR* section, KAWCHAR* buffer, DWORD size,
                        const KAWCHAR* file) noexcept {
  if (!section) {
    if (buffer && size) buffer[0] = 0;
    return 0;
  }
  return KaIni_GetString(section, nullptr, nullptr, buffer, size, file);
}

HRESULT KaIni_WriteString(const KAWCHAR* section, const KAWCHAR* key, const KAWCHAR* value,
                          const KAWCHAR* file) noexcept try {
  if (!section || !file || !*file) return E_INVALIDARG;
  const View sec = trim(section);
  if (sec.empty() || hasBreak(sec) || sec.find(']') != View::npos) return E_INVALIDARG;
  const View k = key ? trim(key) : View();
  if (key && (k.empty() || hasBreak(k) || k.find('=') != View::npos || k.front() == '[' ||
              k.front() == ';'))
    return E_INVALIDARG;
  if (value && hasBreak(value)) return E_INVALIDARG;

  std::lock_guard lk(gWriteLock);
  const std::string path = pathOf(file);
  IniFile f;
  bool exists = false;
  HRESULT hr = load(path, f, &exists);
  if (FAILED(hr)) return hr;
  size_t begin = 0, end = 0, at = 0;
  View old;
  const bool found = findSection(f, sec, &begin, &end);
  if (!key) {
    if (!found) return S_OK;
    f.lines.erase(f.lines.begin() + long(begin), f.lines.begin() + long(end));
  } else if (!value) {
    if (!found || !findKey(f, begin, end, k, &at, &old)) return S_OK;
    f.lines.erase(f.lines.begin() + long(at));
  } else if (found && findKey(f, begin, end, k, &at, &old)) {
    View name;
    parse(f.lines[at], &name, &old);
    f.lines[at] = U16(name) + u"=" + U16(value);  // the file's spelling of the key stays
  } else if (found) {
    size_t last = end;
    while (last > begin + 1 && trim(f.lines[last - 1]).empty()) --last;
    f.lines.insert(f.lines.begin() + long(last), U16(k) + u"=" + U16(value));
  } else {
    f.lines.push_back(u"[" + U16(sec) + u"]");
    f.lines.push_back(U16(k) + u"=" + U16(value));
  }
  return save(path, f);
} catch (const std::bad_alloc&) {
  return E_OUTOFMEMORY;
} catch (...) {
  return E_FAIL;
}

HRESULT KaIni_DeleteKey(const KAWCHAR* section, const KAWCHAR* key, const KAWCHAR* file) noexcept {
  if (!key) return E_INVALIDARG;
  return KaIni_WriteString(section, key, nullptr, file);
}

HRESULT KaIni_DeleteSection(const KAWCHAR* section, const KAWCHAR* file) noexcept {
  return KaIni_WriteString(section, nullptr, nullptr, file);
}
