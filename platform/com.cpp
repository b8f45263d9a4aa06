// GUID helpers and the global interface table.
#include <sys/random.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <unordered_map>

#include "ostra/kacom.h"

namespace {

struct Entry {
  IUnknown* object;
  IID iid;
};

struct Table {
  std::mutex lock;
  std::unordered_map<DWORD, Entry> entries;
  DWORD next = 0;
};

// Never destroyed: objects may be revoked from threads that outlive static destruction.
Table& table() {
  static Table* t = new Table;
  return *t;
}

std::atomic<uint64_t> gLookups{0};

int hexValue(char16_t c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

int KaGuid_Compare(REFGUID a, REFGUID b) noexcept {
  if (a.Data1 != b.Data1) return a.Data1 < b.Data1 ? -1 : 1;
  if (a.Data2 != b.Data2) return a.Data2 < b.Data2 ? -1 : 1;
  if (a.Data3 != b.Data3) return a.Data3 < b.Data3 ? -1 : 1;
  const int c = std::memcmp(a.Data4, b.Data4, 8);
  return c < 0 ? -1 : c > 0 ? 1 : 0;
}

int KaGuid_ToString(REFGUID g, KAWCHAR* buffer, int size) noexcept {
  if (!buffer || size < 39) return 0;
  static const char kHex[] = "0123456789ABCDEF";
  KAWCHAR* p = buffer;
  auto put = [&p](uint64_t v, int digits) {
    for (int i = digits - 1; i >= 0; --i) *p++ = char16_t(kHex[(v >> (4 * i)) & 0xF]);
  };
  *p++ = '{';
  put(g.Data1, 8);
  *p++ = '-';
  put(g.Data2, 4);
  *p++ = '-';
  put(g.Data3, 4);
  *p++ = '-';
  put(g.Data4[0], 2);
  put(g.Data4[1], 2);
  *p++ = '-';
  for (int i = 2; i < 8; ++i) put(g.Data4[i], 2);
  *p++ = '}';
  *p = 0;
  return 39;
}

HRESULT KaGuid_FromString(const KAWCHAR* text, GUID* guid) noexcept {
  if (!guid) return E_POINTER;
  std::memset(guid, 0, sizeof *guid);
  if (!text) return E_INVALIDARG;
  size_t len = 0;
  while (len < 40 && text[len]) ++len;
  const bool braces = len == 38;
  if (!(len == 36 || (braces && text[0] == '{' && text[37] == '}'))) return E_INVALIDARG;
  const KAWCHAR* s = text + (braces ? 1 : 0);
  uint8_t bytes[16];
  int n = 0;
  for (int i = 0; i < 36;) {
    if (i == 8 || i == 13 || i == 18 || i == 23) {
      if (s[i] != '-') return E_INVALIDARG;
      ++i;
      continue;
    }
    const int hi = hexValue(s[i]), lo = hexValue(s[i + 1]);
    if (hi < 0 || lo < 0) return E_INVALIDARG;
    bytes[n++] = uint8_t(hi << 4 | lo);
    i += 2;
  }
  GUID g;
  g.Data1 =
      uint32_t(bytes[0]) << 24 | uint32_t(bytes[1]) << 16 | uint32_t(bytes[2]) << 8 | bytes[3];
  g.Data2 = uint16_t(bytes[4] << 8 | bytes[5]);
  g.Data3 = uint16_t(bytes[6] << 8 | bytes[7]);
  std::memcpy(g.Data4, bytes + 8, 8);
  *guid = g;
  return S_OK;
}

HRESULT KaGuid_Create(GUID* guid) noexcept {
  if (!guid) return E_POINTER;
  uint8_t b[16];
  size_t got = 0;
  while (got < sizeof b) {
    const ssize_t n = getrandom(b + got, sizeof b - got, 0);
    if (n <= 0) return E_FAIL;
    got += size_t(n);
  }
  b[6] = uint8_t((b[6] & 0x0F) | 0x40);  // version 4
  b[8] = uint8_t((b[8] & 0x3F) | 0x80);  // variant 1
  guid->Data1 = uint32_t(b[0]) << 24 | uint32_t(b[1]) << 16 | uint32_t(b[2]) << 8 | b[3];
  guid->Data2 = uint16_t(b[4] << 8 | b[5]);
  guid->Data3 = uint16_t(b[6] << 8 | b[7]);
  std::memcpy(guid->Data4, b + 8, 8);
  return S_OK;
}

HRESULT KaGIT_RegisterInterface(IUnknown* object, REFIID riid, DWORD* cookie) noexcept try {
  if (!cookie) return E_POINTER;
  *cookie = 0;
  if (!object) return E_INVALIDARG;
  void* itf = nullptr;
  HRESULT hr = object->QueryInterface(riid, &itf);
  if (FAILED(hr)) return hr;
  if (!itf) return E_NOINTERFACE;
  Table& t = table();
  std::lock_guard lk(t.lock);
  DWORD c;
  do {
    c = ++t.next;
  } while (c == 0 || t.entries.count(c));
  try {
    t.entries.emplace(c, Entry{static_cast<IUnknown*>(itf), riid});
  } catch (...) {
    static_cast<IUnknown*>(itf)->Release();
    return E_OUTOFMEMORY;
  }
  *cookie = c;
  return S_OK;
} catch (...) {
  return E_OUTOFMEMORY;
}

HRESULT KaGIT_GetInterface(DWORD cookie, REFIID riid, void** object) noexcept {
  if (!object) return E_POINTER;
  *object = nullptr;
  IUnknown* unk;
  {
    Table& t = table();
    std::lock_guard lk(t.lock);
    auto it = t.entries.find(cookie);
    if (it == t.entries.end()) return E_INVALIDARG;
    unk = it->second.object;
    unk->AddRef();  // keeps it alive if another thread revokes meanwhile
  }
  const HRESULT hr = unk->QueryInterface(riid, object);
  unk->Release();
  if (SUCCEEDED(hr)) gLookups.fetch_add(1, std::memory_order_relaxed);
  return hr;
}

HRESULT KaGIT_RevokeInterface(DWORD cookie) noexcept {
  IUnknown* unk;
  {
    Table& t = table();
    std::lock_guard lk(t.lock);
    auto it = t.entries.find(cookie);
    if (it == t.entries.end()) return E_INVALIDARG;
    unk = it->second.object;
    t.entries.erase(it);
  }
  unk->Release();  // outside the lock: a destructor may use the table
  return S_OK;
}

UINT64 KaGIT_GetLookupCount() noexcept { return gLookups.load(std::memory_order_relaxed); }

DWORD KaGIT_GetRegisteredCount() noexcept {
  Table& t = table();
  std::lock_guard lk(t.lock);
  return DWORD(t.entries.size());
}
