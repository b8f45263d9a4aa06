// Guard pages through mmap and mprotect (tests may use POSIX directly).
#include "support/guarded_buffer.h"

#include <sys/mman.h>
#include <unistd.h>

#include <new>

namespace ostra::test {

GuardedBuffer::GuardedBuffer(size_t bytes, Guard where) : size_(bytes) {
  const size_t page = size_t(sysconf(_SC_PAGESIZE));
  const size_t body = (bytes + page - 1) / page * page;
  mapBytes_ = body + page;
  map_ = mmap(nullptr, mapBytes_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (map_ == MAP_FAILED) throw std::bad_alloc();
  auto* base = static_cast<uint8_t*>(map_);
  if (where == Guard::After) {
    mprotect(base + body, page, PROT_NONE);
    data_ = base + body - bytes;
  } else {
    mprotect(base, page, PROT_NONE);
    data_ = base + page;
  }
}

GuardedBuffer::~GuardedBuffer() { munmap(map_, mapBytes_); }

}  // namespace ostra::test
