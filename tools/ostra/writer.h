// Writes a new audio file the way the kernel's set-up functions lay it out: the header
// from KaInitializeWav / KaInitializeWav64 / KaInitializeAiff, the samples appended in
// blocks, and the header rewritten with the final length (KaInsertWavHeader and its
// Wave64 and AIFF counterparts). Used by `convert` and `demo`.
//
// Descriptions the 18-byte set-up header cannot carry (24 valid bits in 32-bit
// containers, more than two channels, a channel mask other than the default) get an
// extensible `fmt ` chunk written over the room a junk chunk reserved, so that other
// programs read them as they would any extensible file.
#pragma once

#include <string>
#include <vector>

#include "inspect.h"
#include "ostra/kaaudio.h"

namespace ostra::cli {

// The sample type a container stores for a requested type (AIFF keeps big-endian and
// signed 8-bit samples, and floats in an AIFC 'fl32' / 'fl64' file), or KASAMPLE_NONE
// when the container cannot hold it.
KASAMPLETYPE storedType(Container container, KASAMPLETYPE requested);

class AudioWriter {
 public:
  AudioWriter() = default;
  ~AudioWriter();
  AudioWriter(const AudioWriter&) = delete;
  AudioWriter& operator=(const AudioWriter&) = delete;

  // `format` must be a typed record whose type storedType() accepts for the container.
  HRESULT create(const std::string& path, Container container, const _kawaveformat& format);
  HRESULT write(const void* bytes, size_t count);
  // Rewrites the header for the bytes written and, for wave files, appends the INFO items.
  HRESULT finish(const std::vector<TextItem>& info = {});
  // Closes and deletes an unfinished file.
  void abandon();
  uint64_t bytesWritten() const { return written_; }
  // True for AIFC floats: write() takes them big-endian, as they are stored.
  bool floatsBigEndian() const { return aifcFloat_; }

 private:
  HRESULT rewriteExtensible();

  std::string path_;
  Container container_ = Container::Riff;
  alignas(8) unsigned char format_[KAWAVEFORMAT_BUFFER_SIZE] = {};
  bool extensible_ = false;
  bool aifcFloat_ = false;
  uint64_t headerLength_ = 0;
  uint64_t written_ = 0;
  KAHFILE file_ = KA_INVALID_HFILE;
};

}  // namespace ostra::cli
