// The summary list (_summarylisttag) in memory: lookup, set and delete, copy, compare,
// merge and free. The array and each text are separate locked global-memory blocks, so
// a caller who received a list can free it with the same functions. File input and
// output are in summary_io.cpp.
#include <algorithm>
#include <cstring>

#include "formats/riff/internal/summary_mem.h"
#include "ostra/kaerror.h"
#include "ostra/kawave.h"

using namespace ostra::riff::listmem;

namespace {

KAWCHAR* copyText(const KAWCHAR* text) noexcept {
  const size_t n = KaText_WideLength(text);
  auto* p = allocArray<KAWCHAR>(n + 1);
  if (p) std::memcpy(p, text, n * sizeof(KAWCHAR));
  return p;
}

// Grows the array by one item (zeroed) and returns it, or null when out of memory.
_summaryitemtag* appendItem(_summarylisttag* list) noexcept {
  auto* grown = allocArray<_summaryitemtag>(SIZE_T(list->count) + 1);
  if (!grown) return nullptr;
  if (list->count) std::memcpy(grown, list->items, list->count * sizeof(_summaryitemtag));
  freeLocked(list->items);
  list->items = grown;
  return &list->items[list->count++];
}

bool sameText(const KAWCHAR* a, const KAWCHAR* b) noexcept {
  if (!a || !b) return a == b;
  const size_t n = KaText_WideLength(a);
  return n == KaText_WideLength(b) && std::memcmp(a, b, n * sizeof(KAWCHAR)) == 0;
}

}  // namespace

LONG KaSummary_GetItemIndex(const _summarylisttag* list, DWORD id) noexcept {
  if (list && list->items)
    for (DWORD i = 0; i < list->count; ++i)
      if (list->items[i].id == id) return LONG(i);
  return KAERR_NOT_FOUND;
}

KAWCHAR* KaSummary_GetItemText(const _summarylisttag* list, DWORD id) noexcept {
  const LONG i = KaSummary_GetItemIndex(list, id);
  return i >= 0 ? list->items[i].text : nullptr;
}

HRESULT KaSummary_SetItem(_summarylisttag* list, DWORD id, const KAWCHAR* text) noexcept {
  if (!list || id == 0) return E_INVALIDARG;
  const LONG i = KaSummary_GetItemIndex(list, id);
  if (i < 0) {
    KAWCHAR* copy = nullptr;
    if (text && !(copy = copyText(text))) return E_OUTOFMEMORY;
    _summaryitemtag* item = appendItem(list);
    if (!item) {
      freeLocked(copy);
      return E_OUTOFMEMORY;
    }
    *item = {id, copy};
    return S_OK;
  }
  _summaryitemtag& item = list->items[i];
  if (text) {
    KAWCHAR* copy = copyText(text);
    if (!copy) return E_OUTOFMEMORY;
    freeLocked(item.text);
    item.text = copy;
    return S_OK;
  }
  freeLocked(item.text);
  if (list->count == 1) {
    freeLocked(list->items);
    *list = {0, nullptr};
    return S_OK;
  }
  std::memmove(&list->items[i], &list->items[i + 1],
               (list->count - DWORD(i) - 1) * sizeof(_summaryitemtag));
  list->items[--list->count] = {0, nullptr};
  return S_OK;
}

void KaSummary_Free(_summarylisttag* list) noexcept {
  if (!list) return;
  if (list->items)
    for (DWORD i = 0; i < list->count; ++i) freeLocked(list->items[i].text);
  freeLocked(list->items);
  *list = {0, nullptr};
}

HRESULT KaSummary_Copy(_summarylisttag* dest, const _summarylisttag* src) noexcept {
  if (!dest || !src || (src->count && !src->items)) return E_INVALIDARG;
  if (dest == src) return S_OK;
  _summarylisttag copy{0, nullptr};
  if (src->count) {
    copy.items = allocArray<_summaryitemtag>(src->count);
    if (!copy.items) return E_OUTOFMEMORY;
    for (; copy.count < src->count; ++copy.count) {
      const _summaryitemtag& from = src->items[copy.count];
      KAWCHAR* text = from.text ? copyText(from.text) : nullptr;
      if (from.text && !text) {
        KaSummary_Free(&copy);
        return E_OUTOFMEMORY;
      }
      copy.items[copy.count] = {from.id, text};
    }
  }
  KaSummary_Free(dest);
  *dest = copy;
  return S_OK;
}

BOOL KaSummary_Compare(const _summarylisttag* a, const _summarylisttag* b) noexcept {
  if (!a || !b || a->count != b->count) return FALSE;
  for (DWORD i = 0; i < a->count; ++i)
    if (!a->items || !b->items || !sameText(a->items[i].text, b->items[i].text)) return FALSE;
  return TRUE;
}

HRESULT KaSummary_Merge(_summarylisttag* dest, _summarylisttag* src, BOOL overwrite,
                        BOOL move) noexcept {
  if (!dest || !src || (src->count && !src->items) || (dest->count && !dest->items))
    return E_INVALIDARG;
  if (dest == src) return S_OK;
  if (!move) {
    for (DWORD i = 0; i < src->count; ++i) {
      const _summaryitemtag& item = src->items[i];
      if (!overwrite && KaSummary_GetItemIndex(dest, item.id) >= 0) continue;
      if (HRESULT hr = KaSummary_SetItem(dest, item.id, item.text); FAILED(hr)) return hr;
    }
    return S_OK;
  }
  if (dest->count == 0) {
    freeLocked(dest->items);
    *dest = *src;
    *src = {0, nullptr};
    return S_OK;
  }
  for (DWORD i = 0; i < src->count; ++i) {
    _summaryitemtag& item = src->items[i];
    const LONG at = KaSummary_GetItemIndex(dest, item.id);
    if (at < 0) {
      _summaryitemtag* slot = appendItem(dest);
      // Items moved so far stay moved; the rest stay with the source.
      if (!slot) return E_OUTOFMEMORY;
      *slot = item;
      item.text = nullptr;
    } else if (overwrite) {
      freeLocked(dest->items[at].text);
      dest->items[at].text = item.text;
      item.text = nullptr;
    }
  }
  KaSummary_Free(src);
  return S_OK;
}
