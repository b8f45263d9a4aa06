// Reading and writing the summary list as a LIST/INFO chunk (texts in the ANSI code
// page) or a LIST/UNFO chunk (UTF-16LE texts), and looking up one INFO text in a file.
#include <algorithm>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "formats/riff/internal/chunk_walker.h"
#include "formats/riff/internal/details_note.h"
#include "formats/riff/internal/iff_io.h"
#include "formats/riff/internal/source_parsers.h"
#include "formats/riff/internal/summary_mem.h"
#include "ostra/kawave.h"
#include "platform/internal/text.h"

using namespace ostra::riff::iffio;
using namespace ostra::riff::listmem;
using ostra::riff::ByteSource;
using ostra::riff::FileSource;
using ostra::riff::note;
namespace walk = ostra::riff;

namespace {

// Sub-chunk bytes of one text, terminator included.
std::string encodeAnsi(const KAWCHAR* text) {
  std::string s = ostra::text::utf16ToAnsi(std::u16string_view(text));
  s.push_back('\0');
  return s;
}

std::string encodeWide(const KAWCHAR* text) {
  const size_t n = KaText_WideLength(text);
  std::string s((n + 1) * 2, '\0');
  for (size_t i = 0; i < n; ++i) s[2 * i] = char(text[i] & 0xFF), s[2 * i + 1] = char(text[i] >> 8);
  return s;
}

// A locked wide text from the bytes of a sub-chunk (n bytes, buffer holds n + 1).
KAWCHAR* decodeAnsi(const char* bytes, DWORD n) {
  const std::u16string w = ostra::text::ansiToUtf16(std::string_view(bytes, strnlen(bytes, n)));
  auto* p = allocArray<KAWCHAR>(w.size() + 1);
  if (p) std::copy(w.begin(), w.end(), p);
  return p;
}

KAWCHAR* decodeWide(const char* bytes, DWORD n) {
  auto* p = allocArray<KAWCHAR>(SIZE_T(n / 2) + 1);
  if (p)
    for (DWORD i = 0; i < n / 2; ++i)
      p[i] = KAWCHAR(BYTE(bytes[2 * i]) | (BYTE(bytes[2 * i + 1]) << 8));
  return p;
}

template <typename Encode>
HRESULT saveList(ByteSource& f, const _summarylisttag* list, DWORD listType, DWORD* written,
                 Encode encode) {
  if (written) *written = 0;
  if (!list || (list->count && !list->items)) return E_INVALIDARG;
  if (list->count == 0) return S_OK;
  const INT64 start = tell(f);
  if (start < 0) return KAERR_WRITE_FAILED;
  if (HRESULT hr = walk::writeListHeader(f, listType, 0); FAILED(hr)) return hr;
  UINT64 body = 4;
  for (DWORD i = 0; i < list->count; ++i) {
    const _summaryitemtag& item = list->items[i];
    if (!item.text) continue;
    const std::string bytes = encode(item.text);
    if (bytes.size() > RIFF_MAX_SIZE - body) return KAERR_RIFF_TOO_LARGE;
    DWORD total = 0;
    if (HRESULT hr = walk::writeChunk(f, item.id, bytes.data(), DWORD(bytes.size()), &total);
        FAILED(hr))
      return hr;
    body += total;
  }
  if (body > RIFF_MAX_SIZE) return KAERR_RIFF_TOO_LARGE;
  BYTE size[4];
  putLe32(size, DWORD(body));
  if (HRESULT hr = seekTo(f, start + 4); FAILED(hr)) return KAERR_WRITE_FAILED;
  if (HRESULT hr = writeExact(f, size, 4); FAILED(hr)) return hr;
  if (HRESULT hr = seekTo(f, start + 8 + INT64(body)); FAILED(hr)) return KAERR_WRITE_FAILED;
  if (written) *written = DWORD(body + 8);
  return S_OK;
}

template <typename Decode>
HRESULT readItems(ByteSource& f, _summarylisttag* list, DWORD budget, Decode decode) {
  DWORD count = 0, counted = budget;
  if (HRESULT hr = walk::countEntries(f, &count, &counted); FAILED(hr)) return hr;
  if (count == 0) return S_OK;
  list->items = allocArray<_summaryitemtag>(count);
  if (!list->items) return E_OUTOFMEMORY;
  const UINT64 length = fileSize(f);
  std::vector<char> bytes;
  for (DWORD i = 0; i < count && budget >= 8; ++i) {
    DWORD id = 0, size = 0;
    if (HRESULT hr = walk::readHeader(f, &id, &size); FAILED(hr)) return hr;
    budget -= 8;
    // Never past the list, and never more than the file still holds.
    const DWORD n = std::min(size, budget);
    const INT64 at = tell(f);
    const ostra::riff::IdText name(id);
    if (at < 0 || UINT64(at) + n > length) {
      note("item '%.4s' at %lld runs past the end of the file", name.text, (long long)at - 8);
      return KAERR_READ_FAILED;
    }
    if (n < size)
      note("item '%.4s' at %lld states %u bytes; the list holds %u, which are kept", name.text,
           (long long)at - 8, unsigned(size), unsigned(n));
    bytes.assign(SIZE_T(n) + 1, '\0');
    if (HRESULT hr = readExact(f, bytes.data(), n); FAILED(hr)) return hr;
    const DWORD pad = (n == size && (size & 1) && budget > n) ? 1 : 0;
    if (pad && FAILED(seekBy(f, 1))) return KAERR_READ_FAILED;
    budget -= n + pad;
    KAWCHAR* text = decode(bytes.data(), n);
    if (!text) return E_OUTOFMEMORY;
    list->items[list->count++] = {id, text};
  }
  return S_OK;
}

template <typename Decode>
HRESULT loadList(ByteSource& f, _summarylisttag* list, const DWORD* remaining, Decode decode) {
  if (!list || !remaining) return E_INVALIDARG;
  KaSummary_Free(list);
  HRESULT hr;
  try {
    hr = readItems(f, list, *remaining, decode);
  } catch (const std::bad_alloc&) {
    hr = E_OUTOFMEMORY;
  }
  if (FAILED(hr)) KaSummary_Free(list);
  return hr;
}

}  // namespace

HRESULT ostra::riff::summarySave(ByteSource& file, const _summarylisttag* list, DWORD* written) {
  try {
    return saveList(file, list, RIFF_ID_INFO, written, encodeAnsi);
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
}

HRESULT ostra::riff::summarySaveUnfo(ByteSource& file, const _summarylisttag* list,
                                     DWORD* written) {
  try {
    return saveList(file, list, RIFF_ID_UNFO, written, encodeWide);
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
}

HRESULT ostra::riff::summaryLoad(ByteSource& file, _summarylisttag* list, const DWORD* remaining) {
  return loadList(file, list, remaining, decodeAnsi);
}

HRESULT ostra::riff::summaryLoadUnfo(ByteSource& file, _summarylisttag* list,
                                     const DWORD* remaining) {
  return loadList(file, list, remaining, decodeWide);
}

HRESULT ostra::riff::summaryGetString(ByteSource& file, DWORD id, KAWCHAR* buffer,
                                      DWORD bufferLength, DWORD* remaining) {
  if (!buffer || bufferLength == 0) return E_INVALIDARG;
  buffer[0] = 0;
  DWORD unbounded = 0xFFFFFFFFu;
  DWORD* budget = remaining ? remaining : &unbounded;
  DWORD listSize = 0;
  if (HRESULT hr = walk::findList(file, RIFF_ID_INFO, &listSize, budget); FAILED(hr)) return hr;
  DWORD inner = listSize, size = 0;
  if (HRESULT hr = walk::findChunk(file, id, &size, &inner); FAILED(hr)) return hr;
  DWORD count = std::min(size, inner);
  if (count == 0) return S_OK;
  return walk::readAnsiString(file, buffer, bufferLength, &count);
}

HRESULT KaSummary_Save(KAHFILE file, const _summarylisttag* list, DWORD* written) noexcept {
  FileSource s(file);
  return ostra::riff::summarySave(s, list, written);
}

HRESULT KaSummary_SaveUNFO(KAHFILE file, const _summarylisttag* list, DWORD* written) noexcept {
  FileSource s(file);
  return ostra::riff::summarySaveUnfo(s, list, written);
}

HRESULT KaSummary_Load(KAHFILE file, _summarylisttag* list, const DWORD* remaining) noexcept {
  FileSource s(file);
  return ostra::riff::summaryLoad(s, list, remaining);
}

HRESULT KaSummary_LoadUNFO(KAHFILE file, _summarylisttag* list, const DWORD* remaining) noexcept {
  FileSource s(file);
  return ostra::riff::summaryLoadUnfo(s, list, remaining);
}

HRESULT KaSummary_GetStringFromFile(KAHFILE file, DWORD id, KAWCHAR* buffer, DWORD bufferLength,
                                    DWORD* remaining) noexcept {
  FileSource s(file);
  return ostra::riff::summaryGetString(s, id, buffer, bufferLength, remaining);
}
