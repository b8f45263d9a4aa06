// A buffer placed against an unreadable page, so that a routine reading or writing one
// byte past its end (or before its start) faults at once instead of passing unnoticed.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ostra::test {

class GuardedBuffer {
 public:
  enum class Guard { After, Before };
  // `bytes` may be 0 (the pointer then sits right at the guard page).
  explicit GuardedBuffer(size_t bytes, Guard where = Guard::After);
  ~GuardedBuffer();
  GuardedBuffer(const GuardedBuffer&) = delete;
  GuardedBuffer& operator=(const GuardedBuffer&) = delete;

  uint8_t* data() const { return data_; }
  size_t size() const { return size_; }

 private:
  void* map_ = nullptr;
  size_t mapBytes_ = 0;
  uint8_t* data_ = nullptr;
  size_t size_ = 0;
};

}  // namespace ostra::test
