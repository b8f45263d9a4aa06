// The print-token registry: one thread-safe list of 8-byte tokens per process, created
// by start-up and destroyed by shut-down (the list carries its own lock, which the print
// functions take).
#include "kernel/internal/print_tokens.h"
#include "ostra/kalist.h"

namespace ostra::kernel {
namespace {

tKALIST* gRegistry = nullptr;
constexpr int kInitialSlots = 16;
constexpr int kGrowBy = 16;

}  // namespace

bool openPrintTokenRegistry() noexcept {
  if (gRegistry) return true;
  tKALIST* list = nullptr;
  if (FAILED(KaList_CreateExZ(&list, 8, kInitialSlots, kGrowBy, KALIST_OPT_THREADSAFE, 0, 0, 0)))
    return false;
  gRegistry = list;
  return true;
}

void closePrintTokenRegistry() noexcept {
  if (!gRegistry) return;
  KaList_Destroy(gRegistry);
  gRegistry = nullptr;
}

tKALIST* printTokenRegistry() noexcept { return gRegistry; }

}  // namespace ostra::kernel
