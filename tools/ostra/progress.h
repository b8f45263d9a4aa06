// A one-line progress bar on standard error for the long-running commands (convert,
// repair). It draws only when standard error is a terminal, so scripts and tests that
// capture the output see nothing of it.
#pragma once

#include <cstdint>
#include <string>

namespace ostra::cli {

class Progress {
 public:
  Progress(std::string label, uint64_t total);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void update(uint64_t done);
  // Completes the bar and ends its line; called by the destructor if not before.
  void finish();
  bool active() const { return active_; }

 private:
  void draw(uint64_t done);

  std::string label_;
  uint64_t total_;
  bool active_;
  bool finished_ = false;
  uint32_t lastTick_ = 0;
  int lastPercent_ = -1;
};

}  // namespace ostra::cli
