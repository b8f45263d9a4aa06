// The display list: a text and a bitmap (clipboard formats 1 and 8) that travel with a
// wave file in DISP chunks, or in Wave64 chunks with the display GUID. The list, its
// array and every item's data are locked global-memory blocks.
#include <algorithm>
#include <cstring>

#include "formats/riff/internal/chunk_walker.h"
#include "formats/riff/internal/chunk_walker64.h"
#include "formats/riff/internal/details_note.h"
#include "formats/riff/internal/iff_io.h"
#include "formats/riff/internal/source_parsers.h"
#include "formats/riff/internal/summary_mem.h"
#include "ostra/kawave.h"

using namespace ostra::riff::iffio;
using namespace ostra::riff::listmem;
using ostra::riff::ByteSource;
using ostra::riff::FileSource;
using ostra::riff::note;
namespace walk = ostra::riff;
namespace walk64 = ostra::riff64;

namespace {

constexpr HRESULT kSetItemFailed = HRESULT(0xFFFFFFFFu);

// Replaces an item's data with `n` bytes read from the file. The length has been checked
// against the file, so the block is never larger than what is there.
HRESULT readItemData(ByteSource& f, _displistitemtag* item, DWORD n) {
  void* data = nullptr;
  if (n) {
    data = allocLocked(n);
    if (!data) return E_OUTOFMEMORY;
    if (HRESULT hr = readExact(f, data, n); FAILED(hr)) {
      freeLocked(data);
      return hr;
    }
  }
  freeLocked(item->data);
  item->data = data;
  item->size = n;
  return S_OK;
}

bool fits(ByteSource& f, UINT64 n, UINT64 length) {
  const INT64 at = tell(f);
  return at >= 0 && UINT64(at) <= length && n <= length - UINT64(at);
}

bool usable(const _displisttag* list) { return list && list->count && list->items; }

}  // namespace

_displisttag* displist_Create() noexcept {
  auto* list = allocArray<_displisttag>(1);
  if (!list) return nullptr;
  list->items = allocArray<_displistitemtag>(2);
  if (!list->items) {
    freeLocked(list);
    return nullptr;
  }
  list->count = 2;
  list->items[0] = {KA_CF_TEXT, 0, nullptr};
  list->items[1] = {KA_CF_DIB, 0, nullptr};
  return list;
}

void displist_Free(_displisttag* list) noexcept {
  if (!usable(list)) return;
  for (DWORD i = 0; i < list->count; ++i) {
    freeLocked(list->items[i].data);
    list->items[i].data = nullptr;
    list->items[i].size = 0;
  }
}

void displist_Destroy(_displisttag* list) noexcept {
  if (!list) return;
  displist_Free(list);
  freeLocked(list->items);
  freeLocked(list);
}

_displistitemtag* displist_GetItem(_displisttag* list, LONG format) noexcept {
  if (usable(list))
    for (DWORD i = 0; i < list->count; ++i)
      if (list->items[i].format == format) return &list->items[i];
  return nullptr;
}

HRESULT displist_SetItem(_displisttag* list, LONG format, DWORD size, const void* data) noexcept {
  _displistitemtag* item = displist_GetItem(list, format);
  if (!item) return kSetItemFailed;
  void* copy = nullptr;
  if (size && data) {
    if (!(copy = allocLocked(size))) return kSetItemFailed;
    std::memcpy(copy, data, size);
  } else {
    size = 0;
  }
  freeLocked(item->data);
  item->data = copy;
  item->size = size;
  return S_OK;
}

HRESULT ostra::riff::displistLoad(ByteSource& file, _displisttag* list, DWORD* remaining) {
  if (!remaining) return E_INVALIDARG;
  if (!usable(list) || *remaining < 8) return S_OK;
  const INT64 saved = tell(file);
  const UINT64 length = fileSize(file);
  DWORD budget = *remaining;
  HRESULT hr = S_OK;
  while (budget >= 8) {
    DWORD id = 0, size = 0;
    if (FAILED(hr = walk::readHeader(file, &id, &size))) break;
    budget -= 8;
    const UINT64 padded = UINT64(size) + (size & 1);
    if (padded > budget) {  // runs past what is left: the walk ends here
      note("chunk '%.4s' of %u bytes runs past the end of the list; the rest is skipped",
           ostra::riff::IdText(id).text, unsigned(size));
      break;
    }
    _displistitemtag* item = nullptr;
    if (id == RIFF_ID_DISP && size >= 4) {
      BYTE format[4];
      if (FAILED(hr = readExact(file, format, 4))) break;
      item = displist_GetItem(list, LONG(le32(format)));
      if (item) {
        if (!fits(file, size - 4, length)) {
          hr = KAERR_READ_FAILED;
          break;
        }
        if (FAILED(hr = readItemData(file, item, size - 4))) break;
        if ((size & 1) && FAILED(hr = seekBy(file, 1))) break;
      } else if (FAILED(hr = seekBy(file, INT64(padded) - 4))) {
        break;
      }
    } else {
      walk::skipChunk(file, size);
    }
    budget -= DWORD(padded);
  }
  if (FAILED(hr))
    displist_Free(list);
  else
    *remaining = budget;
  if (saved >= 0) seekTo(file, saved);
  return hr;
}

HRESULT ostra::riff::displistSave(ByteSource& file, const _displisttag* list, DWORD* written) {
  if (written) *written = 0;
  if (!list || (list->count && !list->items)) return E_INVALIDARG;
  static const BYTE kZero = 0;
  DWORD total = 0;
  for (DWORD i = 0; i < list->count; ++i) {
    const _displistitemtag& item = list->items[i];
    if (!item.data || !item.size) continue;
    if (item.size > RIFF_MAX_SIZE - 5) return E_INVALIDARG;
    BYTE format[4];
    putLe32(format, DWORD(item.format));
    if (HRESULT hr = walk::writeHeader(file, RIFF_ID_DISP, item.size + 4); FAILED(hr)) return hr;
    if (HRESULT hr = writeExact(file, format, 4); FAILED(hr)) return hr;
    if (HRESULT hr = writeExact(file, item.data, item.size); FAILED(hr)) return hr;
    if ((item.size & 1) && FAILED(writeExact(file, &kZero, 1))) return KAERR_WRITE_FAILED;
    total += 12 + item.size + (item.size & 1);
  }
  if (written) *written = total;
  return S_OK;
}

HRESULT ostra::riff::displist64Save(ByteSource& file, const _displisttag* list, UINT64* written) {
  if (written) *written = 0;
  if (!list || (list->count && !list->items)) return E_INVALIDARG;
  UINT64 total = 0;
  for (DWORD i = 0; i < list->count; ++i) {
    const _displistitemtag& item = list->items[i];
    if (!item.data || !item.size) continue;
    // Unlike riff64_WriteChunk the size word counts the pad as well.
    const UINT64 body = (UINT64(item.size) + 4 + 7) & ~UINT64(7);
    BYTE format[4];
    putLe32(format, DWORD(item.format));
    if (HRESULT hr = walk64::writeHeader(file, KAGUID_W64_DISP, body); FAILED(hr)) return hr;
    if (HRESULT hr = writeExact(file, format, 4); FAILED(hr)) return hr;
    if (HRESULT hr = writeExact(file, item.data, item.size); FAILED(hr)) return hr;
    if (HRESULT hr = writeZeros(file, body - 4 - item.size); FAILED(hr)) return hr;
    total += body + 24;
  }
  if (written) *written = total;
  return S_OK;
}

HRESULT ostra::riff::displist64Load(ByteSource& file, _displisttag* list, INT64* remaining) {
  if (!remaining) return E_INVALIDARG;
  if (!usable(list) || *remaining < 24) return S_OK;
  const INT64 saved = tell(file);
  const UINT64 length = fileSize(file);
  INT64 budget = *remaining;
  HRESULT hr = S_OK;
  while (budget >= 24) {
    GUID id;
    UINT64 size = 0;
    if (FAILED(hr = walk64::readHeader(file, &id, &size))) break;
    budget -= 24;
    const UINT64 padded = (size + 7) & ~UINT64(7);
    if (size > (~UINT64(0) >> 2) || padded > UINT64(budget)) break;
    _displistitemtag* item = nullptr;
    if (id == KAGUID_W64_DISP && size >= 4) {
      BYTE format[4];
      if (FAILED(hr = readExact(file, format, 4))) break;
      item = displist_GetItem(list, LONG(le32(format)));
      // The stored size includes the pad: items come back with their zero pad bytes.
      if (item) {
        if (size - 4 > 0xFFFFFFFFull || !fits(file, size - 4, length)) {
          hr = KAERR_READ_FAILED;
          break;
        }
        if (FAILED(hr = readItemData(file, item, DWORD(size - 4)))) break;
        if (FAILED(hr = seekBy(file, INT64(padded - size)))) break;
      } else if (FAILED(hr = seekBy(file, INT64(padded) - 4))) {
        break;
      }
    } else {
      walk64::skipChunk(file, size);
    }
    budget -= INT64(padded);
  }
  if (FAILED(hr))
    displist_Free(list);
  else
    *remaining = budget;
  if (saved >= 0) seekTo(file, saved);
  return hr;
}

HRESULT displist_Load(KAHFILE file, _displisttag* list, DWORD* remaining) noexcept {
  FileSource s(file);
  return ostra::riff::displistLoad(s, list, remaining);
}

HRESULT displist_Save(KAHFILE file, const _displisttag* list, DWORD* written) noexcept {
  FileSource s(file);
  return ostra::riff::displistSave(s, list, written);
}

HRESULT displist64_Save(KAHFILE file, const _displisttag* list, UINT64* written) noexcept {
  FileSource s(file);
  return ostra::riff::displist64Save(s, list, written);
}

HRESULT displist64_Load(KAHFILE file, _displisttag* list, INT64* remaining) noexcept {
  FileSource s(file);
  return ostra::riff::displist64Load(s, list, remaining);
}
