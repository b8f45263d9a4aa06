// Base vocabulary of the Ostra Kernel interface: integer types, result codes, GUIDs,
// IUnknown and the opaque handles. Every other public header includes this one.
#pragma once

#include <cstddef>
#include <cstdint>

#if defined(_WIN32)
#if defined(OSTRA_BUILDING_KERNEL)
#define OSTRA_API __declspec(dllexport)
#elif defined(OSTRA_STATIC_KERNEL)
#define OSTRA_API
#else
#define OSTRA_API __declspec(dllimport)
#endif
#else
#define OSTRA_API __attribute__((visibility("default")))
#endif

#define STDMETHODCALLTYPE
#define STDMETHOD(name) virtual HRESULT STDMETHODCALLTYPE name
#define STDMETHOD_(type, name) virtual type STDMETHODCALLTYPE name

typedef int32_t HRESULT;
typedef int32_t LONG;
typedef uint32_t ULONG;
typedef uint32_t DWORD;
typedef uint16_t WORD;
typedef uint8_t BYTE;
typedef int32_t BOOL;
typedef uint32_t UINT;
typedef int32_t INT;
typedef int64_t INT64;
typedef uint64_t UINT64;
typedef int64_t LONGLONG;
typedef uint64_t ULONGLONG;
typedef size_t SIZE_T;
typedef uintptr_t UINT_PTR;
typedef intptr_t LONG_PTR;
typedef uintptr_t DWORD_PTR;

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

// Wide text is UTF-16 on every platform.
typedef char16_t KAWCHAR;

// Result codes (COM convention: negative is failure).
#define S_OK ((HRESULT)0)
#define S_FALSE ((HRESULT)1)
#define E_UNEXPECTED ((HRESULT)0x8000FFFFu)
#define E_NOTIMPL ((HRESULT)0x80004001u)
#define E_NOINTERFACE ((HRESULT)0x80004002u)
#define E_POINTER ((HRESULT)0x80004003u)
#define E_ABORT ((HRESULT)0x80004004u)
#define E_FAIL ((HRESULT)0x80004005u)
#define E_ACCESSDENIED ((HRESULT)0x80070005u)
#define E_HANDLE ((HRESULT)0x80070006u)
#define E_OUTOFMEMORY ((HRESULT)0x8007000Eu)
#define E_INVALIDARG ((HRESULT)0x80070057u)
#define REGDB_E_CLASSNOTREG ((HRESULT)0x80040154u)
#define SUCCEEDED(hr) (((HRESULT)(hr)) >= 0)
#define FAILED(hr) (((HRESULT)(hr)) < 0)

// Opaque handles. A file handle is the POSIX file descriptor.
typedef struct KaOpaqueWindow* HWND;
typedef struct KaOpaqueModule* HMODULE;
typedef HMODULE HINSTANCE;
typedef struct KaOpaqueLang* HKALANG;
typedef void* HANDLE;
typedef int KAHFILE;
#define KA_INVALID_HFILE (-1)

// GUIDs, written as constants with KaGuid("xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx").
struct GUID {
  uint32_t Data1;
  uint16_t Data2;
  uint16_t Data3;
  uint8_t Data4[8];
};
typedef GUID IID;
typedef GUID CLSID;
typedef const GUID& REFGUID;
typedef const IID& REFIID;
typedef const CLSID& REFCLSID;

constexpr bool operator==(const GUID& a, const GUID& b) noexcept {
  if (a.Data1 != b.Data1 || a.Data2 != b.Data2 || a.Data3 != b.Data3) return false;
  for (int i = 0; i < 8; ++i)
    if (a.Data4[i] != b.Data4[i]) return false;
  return true;
}
constexpr bool operator!=(const GUID& a, const GUID& b) noexcept { return !(a == b); }
inline bool IsEqualGUID(REFGUID a, REFGUID b) noexcept { return a == b; }
inline bool IsEqualIID(REFIID a, REFIID b) noexcept { return a == b; }

namespace ostra::detail {
constexpr uint32_t hexDigit(char c) {
  return (c >= '0' && c <= '9')   ? uint32_t(c - '0')
         : (c >= 'a' && c <= 'f') ? uint32_t(c - 'a' + 10)
         : (c >= 'A' && c <= 'F') ? uint32_t(c - 'A' + 10)
                                  : throw "KaGuid: not a hexadecimal digit";
}
constexpr uint32_t hexField(const char* s, int n) {
  uint32_t v = 0;
  for (int i = 0; i < n; ++i) v = (v << 4) | hexDigit(s[i]);
  return v;
}
}  // namespace ostra::detail

// Compile-time GUID from its registry form without braces.
template <size_t N>
consteval GUID KaGuid(const char (&s)[N]) {
  static_assert(N == 37, "KaGuid expects xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx");
  using ostra::detail::hexField;
  if (s[8] != '-' || s[13] != '-' || s[18] != '-' || s[23] != '-') throw "KaGuid: bad separators";
  GUID g{hexField(s, 8), uint16_t(hexField(s + 9, 4)), uint16_t(hexField(s + 14, 4)), {}};
  g.Data4[0] = uint8_t(hexField(s + 19, 2));
  g.Data4[1] = uint8_t(hexField(s + 21, 2));
  for (int i = 0; i < 6; ++i) g.Data4[2 + i] = uint8_t(hexField(s + 24 + 2 * i, 2));
  return g;
}

// The root of every object interface. The slot order never changes.
struct IUnknown {
  STDMETHOD(QueryInterface)(REFIID riid, void** ppv) = 0;
  STDMETHOD_(ULONG, AddRef)() = 0;
  STDMETHOD_(ULONG, Release)() = 0;

 protected:
  ~IUnknown() = default;
};

inline constexpr IID IID_IUnknown = KaGuid("00000000-0000-0000-C000-000000000046");

// Four-character codes as 32-bit words in file byte order (little-endian).
constexpr uint32_t KaFourCC(char a, char b, char c, char d) noexcept {
  return uint32_t(uint8_t(a)) | (uint32_t(uint8_t(b)) << 8) | (uint32_t(uint8_t(c)) << 16) |
         (uint32_t(uint8_t(d)) << 24);
}
