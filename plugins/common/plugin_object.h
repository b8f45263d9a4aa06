// Pieces every bundled plug-in module shares: a reference-counted COM-style object
// base, UTF-16 text helpers and the entry point's export attribute. Header-only: each
// module is its own shared object and keeps its own copy.
#pragma once

#include <atomic>
#include <new>
#include <string>
#include <utility>

#include "ostra/kafileio.h"

#define OSTRA_PLUGIN_EXPORT extern "C" __attribute__((visibility("default")))

namespace ostra::plugin {

inline void copyText(KAWCHAR* out, DWORD chars, const char16_t* text) {
  if (!out || !chars) return;
  DWORD i = 0;
  for (; text[i] && i + 1 < chars; ++i) out[i] = text[i];
  out[i] = 0;
}

inline void copyText(KAWCHAR* out, DWORD chars, const std::string& ascii) {
  if (!out || !chars) return;
  DWORD i = 0;
  for (; i < ascii.size() && i + 1 < chars; ++i) out[i] = KAWCHAR(BYTE(ascii[i]));
  out[i] = 0;
}

// UTF-16 to UTF-8 (unpaired surrogates become U+FFFD), for libraries that take char paths.
inline std::string toUtf8(const KAWCHAR* s) {
  std::string out;
  for (; s && *s; ++s) {
    char32_t c = *s;
    if (c >= 0xD800 && c < 0xDC00 && s[1] >= 0xDC00 && s[1] < 0xE000) {
      c = 0x10000 + ((c - 0xD800) << 10) + (s[1] - 0xDC00);
      ++s;
    } else if (c >= 0xD800 && c < 0xE000) {
      c = 0xFFFD;
    }
    if (c < 0x80) {
      out += char(c);
    } else if (c < 0x800) {
      out += char(0xC0 | (c >> 6));
      out += char(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      out += char(0xE0 | (c >> 12));
      out += char(0x80 | ((c >> 6) & 0x3F));
      out += char(0x80 | (c & 0x3F));
    } else {
      out += char(0xF0 | (c >> 18));
      out += char(0x80 | ((c >> 12) & 0x3F));
      out += char(0x80 | ((c >> 6) & 0x3F));
      out += char(0x80 | (c & 0x3F));
    }
  }
  return out;
}

// UTF-8 to UTF-16 for texts libraries hand back (titles, codec names).
inline std::u16string fromUtf8(const char* s) {
  std::u16string out;
  const auto* p = reinterpret_cast<const unsigned char*>(s ? s : "");
  while (*p) {
    char32_t c = *p;
    int more = c >= 0xF0 ? 3 : c >= 0xE0 ? 2 : c >= 0xC0 ? 1 : 0;
    c = more == 3 ? c & 0x07 : more == 2 ? c & 0x0F : more == 1 ? c & 0x1F : c;
    ++p;
    for (; more && (*p & 0xC0) == 0x80; --more, ++p) c = (c << 6) | (*p & 0x3F);
    if (more) c = 0xFFFD;
    if (c >= 0x10000) {
      c -= 0x10000;
      out += char16_t(0xD800 + (c >> 10));
      out += char16_t(0xDC00 + (c & 0x3FF));
    } else {
      out += char16_t(c);
    }
  }
  return out;
}

inline std::u16string lowerExtension(const KAWCHAR* path) {
  std::u16string p(path ? path : u"");
  const size_t slash = p.find_last_of(u"/\\");
  const size_t dot = p.find_last_of(u'.');
  if (dot == std::u16string::npos || (slash != std::u16string::npos && dot < slash)) return {};
  std::u16string e = p.substr(dot + 1);
  for (auto& c : e)
    if (c >= 'A' && c <= 'Z') c = char16_t(c - 'A' + 'a');
  return e;
}

// A COM-style object answering IUnknown, its own interface and any the subclass adds.
template <class Interface>
class Object : public Interface {
 public:
  explicit Object(const IID& iid) : iid_(iid) {}
  virtual ~Object() = default;
  STDMETHOD(QueryInterface)(REFIID riid, void** ppv) override {
    if (!ppv) return E_POINTER;
    *ppv = nullptr;
    if (riid != IID_IUnknown && riid != iid_ && !extra(riid)) return E_NOINTERFACE;
    *ppv = static_cast<Interface*>(this);
    this->AddRef();
    return S_OK;
  }
  STDMETHOD_(ULONG, AddRef)() override { return ++refs_; }
  STDMETHOD_(ULONG, Release)() override {
    const ULONG left = --refs_;
    if (!left) delete this;
    return left;
  }

 protected:
  virtual bool extra(REFIID) const { return false; }

 private:
  const IID& iid_;
  std::atomic<ULONG> refs_{1};
};

// Creates T and queries it for riid.
template <class T, class... Args>
HRESULT make(REFIID riid, void** out, Args&&... args) {
  if (!out) return E_POINTER;
  *out = nullptr;
  T* made = new (std::nothrow) T(std::forward<Args>(args)...);
  if (!made) return E_OUTOFMEMORY;
  const HRESULT hr = made->QueryInterface(riid, out);
  made->Release();
  return hr;
}

}  // namespace ostra::plugin
