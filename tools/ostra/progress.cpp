#include "progress.h"

#include <cstdio>

#include "ostra/kaplatform.h"

namespace ostra::cli {
namespace {
constexpr int kWidth = 40;
constexpr uint32_t kRedrawMs = 100;  // redrawing every block would cost more than the work
}  // namespace

Progress::Progress(std::string label, uint64_t total)
    : label_(std::move(label)), total_(total), active_(KaConsole_IsTerminal(2) != FALSE) {
  if (active_) draw(0);
}

Progress::~Progress() { finish(); }

void Progress::update(uint64_t done) {
  if (!active_ || finished_) return;
  const uint32_t now = KaGetTickCount();
  if (now - lastTick_ < kRedrawMs) return;
  lastTick_ = now;
  draw(done);
}

void Progress::finish() {
  if (!active_ || finished_) return;
  draw(total_);
  std::fputc('\n', stderr);
  finished_ = true;
}

void Progress::draw(uint64_t done) {
  const int percent = total_ ? int(done >= total_ ? 100 : done * 100 / total_) : 100;
  if (percent == lastPercent_) return;
  lastPercent_ = percent;
  char bar[kWidth + 1];
  const int filled = percent * kWidth / 100;
  for (int i = 0; i < kWidth; ++i) bar[i] = i < filled ? '#' : '.';
  bar[kWidth] = 0;
  std::fprintf(stderr, "\r%s [%s] %3d%%", label_.c_str(), bar, percent);
  std::fflush(stderr);
}

}  // namespace ostra::cli
