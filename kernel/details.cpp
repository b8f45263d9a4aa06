// The per-process details text: lines that code deep inside a failing operation adds
// (what a parser skipped or repaired, a crash dump) and that the composed message carries.
#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <mutex>
#include <string>

#include "kernel/internal/details.h"
#include "kernel/internal/errors.h"
#include "kernel/internal/wformat.h"
#include "ostra/kaerror.h"
#include "ostra/kathread.h"

namespace ostra::kernel {
namespace {

struct Details {
  std::mutex lock;
  HRESULT code = S_OK;
  DWORD lines = 0;
  DWORD owner = 0;
  std::u16string text;
  std::u16string linkCaption;
  std::u16string linkTarget;
};

Details& details() {
  static Details* d = new Details;  // never destroyed: other statics may report late
  return *d;
}

HRESULT addLine(HRESULT code, const std::u16string& line) {
  Details& d = details();
  std::lock_guard<std::mutex> g(d.lock);
  const DWORD me = currentThreadNumber();
  if (d.owner != 0 && d.owner != me && code != d.code) return E_FAIL;
  // Bytes of UTF-16 with the line's CR LF; the text must stay below the limit so that
  // its terminator fits.
  if ((d.text.size() + line.size() + 2) * sizeof(KAWCHAR) >= KAERR_DETAILS_BYTES) return E_FAIL;
  d.text += line;
  d.text += u"\r\n";
  ++d.lines;
  d.code = code;
  if (d.owner == 0) d.owner = me;
  return S_OK;
}

HRESULT addFormatted(HRESULT code, const KAWCHAR* format, ...) {
  std::u16string line;
  va_list ap;
  va_start(ap, format);
  const bool ok = vformatWide(line, format, ap);
  va_end(ap);
  return ok ? addLine(code, line) : E_INVALIDARG;
}

const char16_t* exceptionName(DWORD code) {
  switch (code) {
    case 0xC0000005u:
      return u"access violation";
    case 0xC0000006u:
      return u"in-page error";
    case 0xC000001Du:
      return u"illegal instruction";
    case 0xC000008Cu:
      return u"array bounds exceeded";
    case 0xC000008Eu:
      return u"floating-point division by zero";
    case 0xC0000090u:
      return u"floating-point invalid operation";
    case 0xC0000094u:
      return u"integer division by zero";
    case 0xC0000095u:
      return u"integer overflow";
    case 0xC0000096u:
      return u"privileged instruction";
    case 0xC00000FDu:
      return u"stack overflow";
    case 0x80000002u:
      return u"misaligned data";
    case 0x80000003u:
      return u"breakpoint";
    case 0xE06D7363u:
      return u"C++ exception";
    default:
      return u"unknown exception";
  }
}

}  // namespace

DWORD currentThreadNumber() noexcept { return KaGetCurrentThreadId(); }

DWORD detailsSnapshot(std::u16string& text) {
  Details& d = details();
  std::lock_guard<std::mutex> g(d.lock);
  text = d.text;
  return d.lines;
}

}  // namespace ostra::kernel

using namespace ostra::kernel;

void KaErrorHandler_DetailsInit() noexcept {
  Details& d = details();
  std::lock_guard<std::mutex> g(d.lock);
  d.code = S_OK;
  d.lines = 0;
  d.owner = 0;
  d.text.clear();
  d.linkCaption.clear();
  d.linkTarget.clear();
}

HRESULT KaErrorHandler_DetailsAddString(HRESULT code, const KAWCHAR* format, ...) noexcept {
  if (!format) return E_POINTER;
  try {
    std::u16string line;
    bool formatted = false;
    for (const KAWCHAR* p = format; *p; ++p)
      if (*p == u'%' || *p == u'$') formatted = true;
    if (formatted) {
      va_list ap;
      va_start(ap, format);
      const bool ok = vformatWide(line, format, ap);
      va_end(ap);
      if (!ok) return E_INVALIDARG;
      replaceAppName(line, appName());
    } else {
      line = format;
    }
    return addLine(code, line);
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  } catch (...) {
    return E_FAIL;
  }
}

HRESULT KaErrorHandler_DetailsInfo(HRESULT* code, DWORD* lines, DWORD* thread) noexcept {
  Details& d = details();
  std::lock_guard<std::mutex> g(d.lock);
  if (code) *code = d.code;
  if (lines) *lines = d.lines;
  if (thread) *thread = d.owner;
  return S_OK;
}

DWORD KaErrorHandler_DetailsGetText(KAWCHAR* buffer, DWORD chars) noexcept {
  Details& d = details();
  std::lock_guard<std::mutex> g(d.lock);
  if (buffer && chars) {
    const size_t n = std::min<size_t>(d.text.size(), chars - 1);
    std::copy_n(d.text.data(), n, buffer);
    buffer[n] = 0;
  }
  return DWORD(d.text.size());
}

HRESULT KaErrorHandler_DetailsSetHyperlink(const KAWCHAR* caption, const KAWCHAR* target) noexcept {
  try {
    const std::u16string c = caption ? caption : u"";
    const std::u16string t = target ? target : u"";
    if (c.size() > KAERR_LINK_CAPTION_CHARS || t.size() > KAERR_LINK_TARGET_CHARS)
      return E_INVALIDARG;
    Details& d = details();
    std::lock_guard<std::mutex> g(d.lock);
    d.linkCaption = caption ? c : u"";
    d.linkTarget = caption ? t : u"";
    return S_OK;
  } catch (...) {
    return E_OUTOFMEMORY;
  }
}

HRESULT KaErrorHandler_DetailsGetHyperlink(KAWCHAR* caption, DWORD captionChars, KAWCHAR* target,
                                           DWORD targetChars) noexcept {
  Details& d = details();
  std::lock_guard<std::mutex> g(d.lock);
  auto copy = [](const std::u16string& s, KAWCHAR* dst, DWORD cap) {
    if (!dst || cap == 0) return;
    const size_t n = std::min<size_t>(s.size(), cap - 1);
    std::copy_n(s.data(), n, dst);
    dst[n] = 0;
  };
  copy(d.linkCaption, caption, captionChars);
  copy(d.linkTarget, target, targetChars);
  return d.linkCaption.empty() ? S_FALSE : S_OK;
}

HRESULT KaErrorHandler_GetLastError() noexcept {
  Details& d = details();
  std::lock_guard<std::mutex> g(d.lock);
  return d.code;
}

DWORD KaErrorHandler_GetThreadNumber() noexcept { return currentThreadNumber(); }

HRESULT KaErrorHandler_DumpHex(HRESULT code, const void* data, DWORD bytes,
                               UINT_PTR displayAddress) noexcept {
  if (!data && bytes) return E_POINTER;
  try {
    const auto* p = static_cast<const uint8_t*>(data);
    for (DWORD off = 0; off < bytes; off += 16) {
      std::u16string line;
      KAWCHAR cell[24];
      formatWideBuffer(cell, 24, u"%0*llX ", int(2 * sizeof(void*)),
                       (unsigned long long)(displayAddress + off));
      line += cell;
      std::u16string ascii;
      for (DWORD i = 0; i < 16; ++i) {
        if (off + i < bytes) {
          const uint8_t b = p[off + i];
          formatWideBuffer(cell, 24, u" %02X", unsigned(b));
          line += cell;
          ascii += b >= 0x20 && b < 0x7F ? KAWCHAR(b) : u'.';
        } else {
          line += u"   ";
        }
      }
      line += u"  ";
      line += ascii;
      if (HRESULT hr = addLine(code, line); FAILED(hr)) return hr;
    }
    return S_OK;
  } catch (...) {
    return E_OUTOFMEMORY;
  }
}

HRESULT KaErrorHandler_DumpHexDWords(HRESULT code, const DWORD* data, DWORD count,
                                     UINT_PTR displayAddress) noexcept {
  if (!data && count) return E_POINTER;
  try {
    for (DWORD i = 0; i < count; i += 4) {
      std::u16string line;
      KAWCHAR cell[24];
      formatWideBuffer(cell, 24, u"%0*llX ", int(2 * sizeof(void*)),
                       (unsigned long long)(displayAddress + UINT_PTR(i) * 4));
      line += cell;
      for (DWORD k = i; k < count && k < i + 4; ++k) {
        formatWideBuffer(cell, 24, u" %08X", unsigned(data[k]));
        line += cell;
      }
      if (HRESULT hr = addLine(code, line); FAILED(hr)) return hr;
    }
    return S_OK;
  } catch (...) {
    return E_OUTOFMEMORY;
  }
}

HRESULT KaErrorHandler_DumpExceptionRecord(HRESULT code,
                                           const KAEXCEPTION_RECORD* record) noexcept {
  if (!record) return E_POINTER;
  try {
    HRESULT hr = S_OK;
    // Nested records can form a cycle in a damaged record; eight levels is plenty.
    for (int depth = 0; record && depth < 8 && SUCCEEDED(hr);
         ++depth, record = record->ExceptionRecord) {
      hr = addFormatted(code, u"Exception 0x%08X (%s) at %p, flags 0x%08X",
                        unsigned(record->ExceptionCode), exceptionName(record->ExceptionCode),
                        record->ExceptionAddress, unsigned(record->ExceptionFlags));
      const DWORD n = std::min<DWORD>(record->NumberParameters, KA_EXCEPTION_MAXIMUM_PARAMETERS);
      if (SUCCEEDED(hr) && record->ExceptionCode == KA_EXCEPTION_ACCESS_VIOLATION && n >= 2) {
        const UINT_PTR kind = record->ExceptionInformation[0];
        hr = addFormatted(code, u"  %s of address %p",
                          kind == 0   ? u"read"
                          : kind == 1 ? u"write"
                                      : u"execution",
                          reinterpret_cast<const void*>(record->ExceptionInformation[1]));
      } else {
        for (DWORD i = 0; i < n && SUCCEEDED(hr); ++i)
          hr = addFormatted(code, u"  parameter %u: %p", unsigned(i),
                            reinterpret_cast<const void*>(record->ExceptionInformation[i]));
      }
    }
    return hr;
  } catch (...) {
    return E_OUTOFMEMORY;
  }
}

LONG KaErrorHandler_ExceptionFilter(const KAEXCEPTION_POINTERS* info) noexcept {
  if (!info || !info->ExceptionRecord) return KA_EXCEPTION_CONTINUE_SEARCH;
  KaErrorHandler_DetailsInit();
  KaErrorHandler_DumpExceptionRecord(E_UNEXPECTED, info->ExceptionRecord);
  return KA_EXCEPTION_EXECUTE_HANDLER;
}
