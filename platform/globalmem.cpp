// Global memory: movable blocks with a lock count. A handle is a small header that owns
// a separately allocated payload; the payload starts with a pointer back to the header
// so that KaGlobalHandle can find the handle from a locked address.
#include <atomic>
#include <cstring>

#include "ostra/kaplatform.h"
#include "platform/internal/sysops.h"

using ostra::platform::sysOps;

namespace {

constexpr uint32_t kMagic = 0x4D4C4747;  // "GGLM"
constexpr size_t kPrefix = 16;           // keeps the payload 16-byte aligned
// Larger requests fail at once (beyond any machine; the sanitizers abort on them).
constexpr size_t kMaxBlock = size_t(1) << 39;

struct Block {
  uint32_t magic;
  uint32_t lockCount;
  size_t size;
  unsigned char* raw;  // allocation; payload at raw + kPrefix
};

std::atomic<uint64_t> gLiveBlocks{0};
std::atomic<uint64_t> gLiveBytes{0};

Block* toBlock(KAHGLOBAL h) {
  auto* b = reinterpret_cast<Block*>(h);
  return (b && b->magic == kMagic) ? b : nullptr;
}

unsigned char* allocRaw(size_t bytes, bool zero) {
  if (bytes > kMaxBlock) return nullptr;
  auto* raw = static_cast<unsigned char*>(sysOps().malloc(bytes + kPrefix));
  if (raw && zero) std::memset(raw + kPrefix, 0, bytes);
  return raw;
}

}  // namespace

KAHGLOBAL KaGlobalAlloc(UINT flags, SIZE_T bytes) noexcept {
  auto* b = static_cast<Block*>(sysOps().malloc(sizeof(Block)));
  if (!b) return nullptr;
  unsigned char* raw = allocRaw(bytes, flags & GMEM_ZEROINIT);
  if (!raw) {
    sysOps().free(b);
    return nullptr;
  }
  *b = Block{kMagic, 0, bytes, raw};
  std::memcpy(raw, &b, sizeof b);
  gLiveBlocks.fetch_add(1, std::memory_order_relaxed);
  gLiveBytes.fetch_add(bytes, std::memory_order_relaxed);
  return reinterpret_cast<KAHGLOBAL>(b);
}

KAHGLOBAL KaGlobalReAlloc(KAHGLOBAL mem, SIZE_T bytes, UINT flags) noexcept {
  Block* b = toBlock(mem);
  if (!b) return nullptr;
  // A locked block moves only when the caller allows it, as its address is in use.
  if (b->lockCount && !(flags & GMEM_MOVEABLE) && bytes > b->size) return nullptr;
  if (bytes > kMaxBlock) return nullptr;
  auto* raw = static_cast<unsigned char*>(sysOps().realloc(b->raw, bytes + kPrefix));
  if (!raw) return nullptr;
  if ((flags & GMEM_ZEROINIT) && bytes > b->size)
    std::memset(raw + kPrefix + b->size, 0, bytes - b->size);
  gLiveBytes.fetch_add(bytes, std::memory_order_relaxed);
  gLiveBytes.fetch_sub(b->size, std::memory_order_relaxed);
  b->raw = raw;
  b->size = bytes;
  return mem;
}

void* KaGlobalLock(KAHGLOBAL mem) noexcept {
  Block* b = toBlock(mem);
  if (!b) return nullptr;
  if (b->lockCount < 0xFFFFFFFFu) ++b->lockCount;
  return b->raw + kPrefix;
}

BOOL KaGlobalUnlock(KAHGLOBAL mem) noexcept {
  Block* b = toBlock(mem);
  if (!b || b->lockCount == 0) return FALSE;
  return --b->lockCount != 0;
}

SIZE_T KaGlobalSize(KAHGLOBAL mem) noexcept {
  Block* b = toBlock(mem);
  return b ? b->size : 0;
}

UINT KaGlobalLockCount(KAHGLOBAL mem) noexcept {
  Block* b = toBlock(mem);
  return b ? b->lockCount : 0;
}

KAHGLOBAL KaGlobalHandle(const void* locked) noexcept {
  if (!locked) return nullptr;
  Block* b;
  std::memcpy(&b, static_cast<const unsigned char*>(locked) - kPrefix, sizeof b);
  return (b && b->magic == kMagic && b->raw + kPrefix == locked) ? reinterpret_cast<KAHGLOBAL>(b)
                                                                 : nullptr;
}

KAHGLOBAL KaGlobalFree(KAHGLOBAL mem) noexcept {
  Block* b = toBlock(mem);
  if (!b) return mem;
  gLiveBlocks.fetch_sub(1, std::memory_order_relaxed);
  gLiveBytes.fetch_sub(b->size, std::memory_order_relaxed);
  b->magic = 0;
  sysOps().free(b->raw);
  sysOps().free(b);
  return nullptr;
}

void KaGlobalFreePtr(void* locked) noexcept {
  if (KAHGLOBAL h = KaGlobalHandle(locked)) KaGlobalFree(h);
}

void KaGlobalGetStats(UINT64* liveBlocks, UINT64* liveBytes) noexcept {
  if (liveBlocks) *liveBlocks = gLiveBlocks.load(std::memory_order_relaxed);
  if (liveBytes) *liveBytes = gLiveBytes.load(std::memory_order_relaxed);
}
