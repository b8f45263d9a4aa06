// The language module: language handles over the kernel's compiled string records or a
// host's own records, the choice of language from the locale environment, and the
// international separators of the chosen language.
#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "kernel/internal/string_table.h"
#include "kernel/internal/strings.h"
#include "ostra/kakernel.h"
#include "platform/internal/system.h"

struct KaOpaqueLang {
  static constexpr uint32_t kMagic = 0x474E414Cu;  // "LANG"
  uint32_t magic = kMagic;
  std::atomic<int> language{0};
  HMODULE module = nullptr;
  bool host = false;                    // texts come from `records`, not from the kernel's tables
  std::vector<KASTRINGRECORD> records;  // sorted by id
};

namespace ostra::kernel {
namespace {

std::atomic<HKALANG> gKernelLang{nullptr};
std::atomic<int> gForced{-1};

bool valid(HKALANG lang) { return lang && lang->magic == KaOpaqueLang::kMagic; }

std::string lower(std::string_view s) {
  std::string r(s);
  for (char& c : r) c = char(std::tolower(static_cast<unsigned char>(c)));
  return r;
}

int slotOf(std::string_view name) {
  for (unsigned i = 0; i < generated::kLanguageCount; ++i)
    if (name == generated::kLanguageNames[i]) return int(i);
  return -1;
}

}  // namespace

int languageFromLocale(std::string_view locale) noexcept {
  try {
    locale = locale.substr(0, locale.find_first_of(".@"));
    if (locale.empty() || locale == "C" || locale == "POSIX") return 0;
    const size_t sep = locale.find_first_of("_-");
    const std::string lang = lower(locale.substr(0, sep));
    std::string region;
    if (sep != std::string_view::npos)
      for (char c : locale.substr(sep + 1))
        region += char(std::toupper(static_cast<unsigned char>(c)));
    if (!region.empty())
      if (int s = slotOf(lang + "_" + region); s >= 0) return s;
    // Where two slots share a language, the region picks one; the rest are aliases.
    if (lang == "zh")
      return slotOf(region == "TW" || region == "HK" || region == "MO" ? "zh_TW" : "zh_CN");
    if (lang == "no" || lang == "nn") return slotOf("nb");
    return slotOf(lang);
  } catch (...) {
    return -1;
  }
}

int environmentLanguage() noexcept {
  const char* locale = ostra::platform::messageLocale();
  if (!locale) return 0;
  const int slot = languageFromLocale(locale);
  return slot >= 0 ? slot : 0;
}

int kernelLanguage() noexcept {
  if (HKALANG lang = gKernelLang.load(std::memory_order_acquire)) return lang->language.load();
  const int forced = gForced.load();
  if (forced >= 0) return forced;
  static const int fromEnvironment = environmentLanguage();
  return fromEnvironment;
}

HKALANG kernelLangHandle() noexcept { return gKernelLang.load(std::memory_order_acquire); }
void setKernelLangHandle(HKALANG lang) noexcept {
  gKernelLang.store(lang, std::memory_order_release);
}

}  // namespace ostra::kernel

using namespace ostra::kernel;

HKALANG KaLang_Open(HMODULE module) noexcept {
  try {
    auto* lang = new KaOpaqueLang;
    lang->module = module;
    const int forced = gForced.load();
    lang->language = forced >= 0 ? forced : environmentLanguage();
    return lang;
  } catch (...) {
    return nullptr;
  }
}

HKALANG KaLang_OpenRecords(const KASTRINGRECORD* records, UINT count) noexcept {
  if (!records && count) return nullptr;
  try {
    auto* lang = new KaOpaqueLang;
    lang->host = true;
    lang->records.assign(records, records + count);
    std::stable_sort(lang->records.begin(), lang->records.end(),
                     [](const KASTRINGRECORD& a, const KASTRINGRECORD& b) { return a.id < b.id; });
    const int forced = gForced.load();
    lang->language = forced >= 0 ? forced : environmentLanguage();
    return lang;
  } catch (...) {
    return nullptr;
  }
}

void KaLang_Close(HKALANG lang) noexcept {
  if (!valid(lang)) return;
  if (gKernelLang.load() == lang) gKernelLang.store(nullptr);
  lang->magic = 0;
  delete lang;
}

const KAWCHAR* KaLang_GetString(HKALANG lang, DWORD id) noexcept {
  if (!lang) return kernelString(id);
  if (!valid(lang)) return nullptr;
  const int language = lang->language.load();
  if (!lang->host) return recordText(kernelRecord(id), language);
  const auto it = std::lower_bound(lang->records.begin(), lang->records.end(), id,
                                   [](const KASTRINGRECORD& r, DWORD key) { return r.id < key; });
  if (it == lang->records.end() || it->id != id) return nullptr;
  return recordText(reinterpret_cast<const char16_t*>(it->record), language);
}

HRESULT KaLang_SetLanguage(HKALANG lang, const char* locale) noexcept {
  int slot = -1;
  if (locale) {
    slot = languageFromLocale(locale);
    if (slot < 0) return E_INVALIDARG;
  }
  if (!lang) {
    gForced.store(slot);
    if (HKALANG k = gKernelLang.load()) k->language = slot >= 0 ? slot : environmentLanguage();
    return S_OK;
  }
  if (!valid(lang)) return E_HANDLE;
  lang->language = slot >= 0 ? slot : environmentLanguage();
  return S_OK;
}

int KaLang_GetLanguage(HKALANG lang) noexcept {
  if (!lang) return kernelLanguage();
  return valid(lang) ? lang->language.load() : -1;
}

const char* KaLang_GetLanguageName(int index) noexcept {
  return index >= 0 && unsigned(index) < generated::kLanguageCount
             ? generated::kLanguageNames[index]
             : nullptr;
}

int KaLang_FindLanguage(const char* locale) noexcept {
  return locale ? languageFromLocale(locale) : -1;
}

HRESULT KaLang_GetInternationals(HKALANG lang, KAINTERNATIONALS* out) noexcept {
  if (!out) return E_POINTER;
  if (lang && !valid(lang)) return E_HANDLE;
  // The separators are texts of each language's kernel table, so a translator sets them
  // beside the words; a language without them uses the English ones.
  const int language = lang ? lang->language.load() : kernelLanguage();
  struct Field {
    DWORD id;
    KAWCHAR* dst;
  } fields[] = {{KASTR_DECIMAL_SEPARATOR, out->decimalSeparator},
                {KASTR_THOUSAND_SEPARATOR, out->thousandSeparator},
                {KASTR_LIST_SEPARATOR, out->listSeparator},
                {KASTR_DATE_SEPARATOR, out->dateSeparator},
                {KASTR_TIME_SEPARATOR, out->timeSeparator}};
  for (const Field& f : fields) {
    const KAWCHAR* text = recordText(kernelRecord(f.id), language);
    size_t n = 0;
    for (; text && text[n] && n + 1 < KAINTL_FIELD; ++n) f.dst[n] = text[n];
    f.dst[n] = 0;
  }
  return S_OK;
}
