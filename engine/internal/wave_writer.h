// Writes interleaved float frames into a new wave or Wave64 file through the library's
// wave-file functions: the header is set up by KaInitializeWav / KaInitializeWav64 and
// its sizes rewritten by KaInsertWavHeader / KaInsertW64Header whenever asked, so that a
// file cut off by a crash lacks only what came after the last rewrite. Used by the file
// output and the recorder, each from its own (non-real-time) thread.
#pragma once

#include <string>
#include <vector>

#include "ostra/kaaudio.h"
#include "ostra/kawave.h"

namespace ostra::engine {

class WaveWriter {
 public:
  WaveWriter() = default;
  ~WaveWriter() { close(); }
  WaveWriter(const WaveWriter&) = delete;
  WaveWriter& operator=(const WaveWriter&) = delete;

  // container KACONTAINER_WAVE or KACONTAINER_WAVE64; type PCM16, PCM24, PCM32 or FLOAT32.
  HRESULT create(const KAWCHAR* path, DWORD container, KASAMPLETYPE type, DWORD rate, WORD channels,
                 DWORD maxFrames) noexcept;
  HRESULT append(const float* frames, DWORD count) noexcept;
  // Rewrites the header sizes for what has been appended.
  HRESULT updateHeader() noexcept;
  // Completes the header and closes; S_OK when nothing is open.
  HRESULT close() noexcept;
  INT64 frames() const noexcept { return frames_; }
  bool isOpen() const noexcept { return file_ != KA_INVALID_HFILE; }

 private:
  KAHFILE file_ = KA_INVALID_HFILE;
  DWORD container_ = 0;
  alignas(8) BYTE format_[KAWAVEFORMAT_BUFFER_SIZE] = {};
  KAAUDIO_COPYFUNCTION fromFloat_ = nullptr;
  std::vector<BYTE> buffer_;
  DWORD maxFrames_ = 0;
  INT64 frames_ = 0;
  HRESULT error_ = S_OK;
};

}  // namespace ostra::engine
