// CKaLogger, the file-I/O metric store and the text helpers of the manager.
#include <cstdarg>
#include <cstdio>
#include <map>

#include "fileio/internal/manager.h"
#include "ostra/kacom.h"
#include "ostra/kaini.h"
#include "platform/internal/text.h"

namespace ostra::fileio {

void CKaLogger::setSink(KAFIOLOGSINK sink, void* context) {
  std::lock_guard lk(lock_);
  sink_ = sink;
  context_ = context;
}

bool CKaLogger::enabled(int minVerbosity) const {
  if (KaFio_GetMetric(KAFIO_METRIC_LOG_VERBOSITY) < minVerbosity) return false;
  std::lock_guard lk(lock_);
  return sink_ != nullptr;
}

void CKaLogger::log(int minVerbosity, int line, const char* format, ...) const {
  if (!enabled(minVerbosity)) return;
  char buffer[kBufferChars];
  va_list args;
  va_start(args, format);
  std::vsnprintf(buffer, sizeof buffer, format, args);
  va_end(args);
  KAFIOLOGSINK sink;
  void* context;
  {
    std::lock_guard lk(lock_);
    sink = sink_;
    context = context_;
  }
  if (sink) sink(context, kLevel, kSource, line, buffer);
}

// ---------------------------------------------------------------- metric store
namespace {

struct MetricStore {
  std::mutex lock;
  std::map<DWORD, INT> set;       // set in this process
  std::map<DWORD, INT> fromFile;  // the metrics file's "Metrics" section
};

MetricStore& store() {
  static MetricStore s;
  return s;
}

INT defaultMetric(DWORD id) {
  switch (id) {
    case KAFIO_METRIC_LOG_VERBOSITY:
    case KAFIO_METRIC_USE_CACHE:
    case KAFIO_METRIC_LIST_PASS:
    case KAFIO_METRIC_READ_META:
      return 1;
    default:
      return 0;
  }
}

}  // namespace

void loadMetricsFile(const U16& path) {
  std::map<DWORD, INT> values;
  KAWCHAR keys[4096];
  KaIni_GetKeyNames(u"Metrics", keys, 4096, path.c_str());
  for (const KAWCHAR* k = keys; *k; k += KaText_WideLength(k) + 1) {
    DWORD id = 0;
    bool digits = true;
    for (const KAWCHAR* c = k; *c && digits; ++c) {
      digits = *c >= '0' && *c <= '9' && id < 100000;
      id = id * 10 + DWORD(*c - '0');
    }
    if (digits) values[id] = INT(KaIni_GetInt(u"Metrics", k, defaultMetric(id), path.c_str()));
  }
  std::lock_guard lk(store().lock);
  store().fromFile = std::move(values);
}

}  // namespace ostra::fileio

using ostra::fileio::store;

INT KaFio_GetMetric(DWORD id) noexcept {
  std::lock_guard lk(store().lock);
  if (auto it = store().set.find(id); it != store().set.end()) return it->second;
  if (auto it = store().fromFile.find(id); it != store().fromFile.end()) return it->second;
  return ostra::fileio::defaultMetric(id);
}

BOOL KaFio_GetMetricBool(DWORD id) noexcept { return KaFio_GetMetric(id) != 0; }

void KaFio_SetMetric(DWORD id, INT value) noexcept try {
  std::lock_guard lk(store().lock);
  store().set[id] = value;
} catch (...) {
}

void KaFio_ResetMetrics() noexcept {
  std::lock_guard lk(store().lock);
  store().set.clear();
}

const KAWCHAR* KaFio_GetMetaKey(DWORD index) noexcept {
  static constexpr const KAWCHAR* kKeys[KAFIO_META_KEY_COUNT] = {u"Title",
                                                                 u"Rotation",
                                                                 u"colour_description_present",
                                                                 u"colour_primaries",
                                                                 u"transfer_characteristics",
                                                                 u"matrix_coefficients",
                                                                 u"MasteringDisplay_ColorPrimaries",
                                                                 u"MasteringDisplay_Luminance",
                                                                 u"colour_range"};
  return index < KAFIO_META_KEY_COUNT ? kKeys[index] : nullptr;
}

// ---------------------------------------------------------------- text helpers
namespace ostra::fileio {

std::string toUtf8(const U16& s) { return ostra::text::utf16ToUtf8(s); }

U16 lowerAscii(U16 s) {
  for (char16_t& c : s)
    if (c >= 'A' && c <= 'Z') c = char16_t(c + 32);
  return s;
}

U16 fileNameOf(const U16& path) {
  const size_t slash = path.find_last_of(u"/\\");
  return slash == U16::npos ? path : path.substr(slash + 1);
}

U16 folderOf(const U16& path) {
  const size_t slash = path.find_last_of(u"/\\");
  return slash == U16::npos ? U16(u".") : slash == 0 ? U16(u"/") : path.substr(0, slash);
}

U16 extensionOf(const U16& path) {
  const U16 name = fileNameOf(path);
  const size_t dot = name.find_last_of(u'.');
  return dot == U16::npos || dot == 0 ? U16() : lowerAscii(name.substr(dot + 1));
}

bool listHasExtension(const KAWCHAR* list, const U16& extension) {
  if (extension.empty() || !list) return false;
  std::u16string_view rest(list);
  while (!rest.empty()) {
    const size_t end = rest.find_first_of(u";, ");
    std::u16string_view item = rest.substr(0, end);
    while (!item.empty() && (item.front() == '.' || item.front() == '*')) item.remove_prefix(1);
    if (lowerAscii(U16(item)) == extension) return true;
    if (end == std::u16string_view::npos) break;
    rest.remove_prefix(end + 1);
  }
  return false;
}

void copyText(KAWCHAR* dest, size_t capacity, const U16& text) {
  const size_t n = text.size() < capacity ? text.size() : capacity - 1;
  text.copy(dest, n);
  dest[n] = 0;
}

U16 guidText(REFGUID guid) {
  KAWCHAR text[40];
  KaGuid_ToString(guid, text, 40);
  return text;
}

bool isNullGuid(REFGUID guid) { return guid == GUID{}; }

}  // namespace ostra::fileio
