// Growable lists of fixed-size slots (tKALIST). Callers read count and items directly and
// change a list only through the KaList_* functions. Functions returning an HRESULT give
// S_OK, E_FAIL, E_OUTOFMEMORY or E_INVALIDARG (a null or dead list); those returning an
// index or a size give -1 on failure.
#pragma once

#include "ostra/kadefs.h"
#include "ostra/kaplatform.h"
#include "ostra/kathread.h"

#define KALIST_OPT_HEAPITEMS 0x00000002u    // slots point to blocks the list owns
#define KALIST_OPT_BYVALUE 0x00000004u      // slots hold the items themselves
#define KALIST_OPT_INPLACE 0x00000008u      // the record lives in caller storage
#define KALIST_OPT_PRIVATEHEAP 0x10000000u  // owned blocks come from a private heap
#define KALIST_OPT_ANYTHREAD 0x40000000u    // any thread may use the list (always set)
#define KALIST_OPT_THREADSAFE 0x80000000u   // every operation holds the list's lock

typedef struct tKALIST {
  int32_t count;            // items in use: slots 0 .. count-1
  uint64_t itemSize;        // bytes per slot
  void* items;              // allocated slots, zero-filled when allocated
  KACRITICAL_SECTION lock;  // initialised only for thread-safe lists
  char signature[4];        // "CURT" while alive
  uint32_t options;
  INT64 userData;
  INT64 sortCriteria;  // criteria of the most recent sort, handed to every comparator
  uint32_t ownerThread;
  int32_t allocated;
  int32_t growBy;
  KAHHEAP heap;
  uint32_t heapAllocFlags;
  uint32_t heapFreeFlags;
  void* pendingItem;  // owned block from KaList_AllocItem not yet inserted
  UINT64 reserved;
} tKALIST;

// Comparators get the sort criteria, then a key (or the first item) and an item: the stored
// pointer in pointer lists, the slot address in by-value lists. Negative, zero, positive.
typedef int (*KALIST_COMPARE)(INT64 criteria, void* a, void* b);
// Predicates of KaList_FindItemRange return 0 for the item sought.
typedef int (*KALIST_PREDICATE)(void* context, void* item);

OSTRA_API HRESULT KaList_CreateExZ(tKALIST** list, SIZE_T itemSize, int initialSlots, int growBy,
                                   DWORD options, INT64 reserved1, INT64 reserved2,
                                   INT64 reserved3) noexcept;
OSTRA_API HRESULT KaList_Destroy(tKALIST* list) noexcept;
OSTRA_API HRESULT KaList_ConvertToInPlace(tKALIST** list, tKALIST* storage) noexcept;

OSTRA_API HRESULT KaList_InsertList(tKALIST* list, int index, const void* source,
                                    int count) noexcept;
OSTRA_API HRESULT KaList_DeleteList(tKALIST* list, int first, int count, BOOL shrink) noexcept;
OSTRA_API HRESULT KaList_AllocItem(tKALIST* list, SIZE_T size, void** item) noexcept;
OSTRA_API HRESULT KaList_AllocAndInsertItem(tKALIST* list, const void* source, SIZE_T size,
                                            int index, int* insertedAt) noexcept;
OSTRA_API HRESULT KaList_ReAllocItem(tKALIST* list, int index, SIZE_T size) noexcept;
OSTRA_API HRESULT KaList_MoveItemsBetweenHeapLists(tKALIST* dest, int destIndex, tKALIST* source,
                                                   int first, int count) noexcept;
OSTRA_API HRESULT KaList_MoveRange(tKALIST* list, int from, int to, int count) noexcept;
OSTRA_API HRESULT KaList_ArrayForceItemCount(tKALIST* list, int count, BOOL shrink) noexcept;
OSTRA_API HRESULT KaList_GrowAllocated(tKALIST* list, int slots) noexcept;
OSTRA_API HRESULT KaList_ShrinkAllocated(tKALIST* list, int slots) noexcept;

OSTRA_API int KaList_FindItemRange(tKALIST* list, int first, int count, void* context,
                                   KALIST_PREDICATE predicate) noexcept;
// item: the pointer sought (pointer lists) or the address of itemSize bytes (by value).
OSTRA_API int KaList_FindSpecificItemRange(tKALIST* list, int first, int count,
                                           const void* item) noexcept;
OSTRA_API int KaList_FindSortedItemRange(tKALIST* list, void* key, int first, int count,
                                         KALIST_COMPARE compare) noexcept;
OSTRA_API int KaList_FindSortedInsertIndexRange(tKALIST* list, void* key, int first, int count,
                                                KALIST_COMPARE compare) noexcept;
OSTRA_API HRESULT KaList_Sort(tKALIST* list, INT64 criteria, KALIST_COMPARE compare) noexcept;
OSTRA_API HRESULT KaList_HeapSort(tKALIST* list, INT64 criteria, KALIST_COMPARE compare) noexcept;
OSTRA_API HRESULT KaList_SortTo(tKALIST* dest, tKALIST* source, INT64 criteria,
                                KALIST_COMPARE compare) noexcept;

OSTRA_API int KaList_IsValidIndexSlow(tKALIST* list, int index) noexcept;
OSTRA_API int KaList_IsList(const void* pointer, SIZE_T size) noexcept;
OSTRA_API int KaList_IsListFast(const void* pointer) noexcept;
OSTRA_API INT64 KaList_AllocSize(tKALIST* list, int index) noexcept;
OSTRA_API INT64 KaList_SetUserData(tKALIST* list, INT64 value) noexcept;
OSTRA_API INT64 KaList_GetUserData(tKALIST* list) noexcept;
OSTRA_API DWORD KaList_GetCreateOptions(tKALIST* list) noexcept;
OSTRA_API INT64 KaList_GetSortCriteria(tKALIST* list) noexcept;
OSTRA_API HRESULT KaList_SetThreadOwner(tKALIST* list, DWORD threadId) noexcept;
OSTRA_API DWORD KaList_GetThreadOwner(tKALIST* list) noexcept;
// No creation site is recorded: writes an empty text and returns -1.
OSTRA_API int KaList_GetFileAndLine(tKALIST* list, KAWCHAR* text) noexcept;
