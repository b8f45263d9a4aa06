// Writes a new audio file the way the kernel's set-up functions lay it out: the header
// from KaInitializeWav / KaInitializeWav64 / KaInitializeAiff, the samples appended in
// blocks, and the header rewritten with the final length (KaInsertWavHeader and its
// Wave64 and AIFF counterparts). Used by `convert` and `demo`.
//
// Descriptions the 18-byte set-up header cannot carry (24 valid bits in 32-bit
// containers, more than two channels, a channel mask other than the default) get an
// extensible `fmt ` chunk written over the room a junk chunk reserved, so that other
// programs read them as they would any extensible file. Floating-point and extensible
// wave files get a `fact` chunk (their frame count) there too, as other readers expect.
// Chunks carried over from the input (create) go in the header, in front of the samples,
// where every reader looks for them.
#pragma once

#include <string>
#include <vector>

#include "inspect.h"
#include "ostra/kaaudio.h"
#include "output_file.h"

namespace ostra::cli {

// The sample type a container stores for a requested type (AIFF keeps big-endian and
// signed 8-bit samples, and floats in an AIFC 'fl32' / 'fl64' file), or KASAMPLE_NONE
// when the container cannot hold it.
KASAMPLETYPE storedType(Container container, KASAMPLETYPE requested);

// A chunk carried from an input to the output: its id (a RIFF four-character code, or a
// Wave64 GUID) and its data bytes.
struct CarriedChunk {
  GUID id{};  // RIFF ids sit in Data1, the rest zero
  std::string bytes;
};

class AudioWriter {
 public:
  AudioWriter() = default;
  ~AudioWriter();
  AudioWriter(const AudioWriter&) = delete;
  AudioWriter& operator=(const AudioWriter&) = delete;

  // `format` must be a typed record whose type storedType() accepts for the container.
  // The file is written beside `path` and put in its place by finish(); an output that is
  // one of `inputs` or a special file is refused (see OutputFile), the cause in refusal().
  HRESULT create(const std::string& path, Container container, const _kawaveformat& format,
                 const std::vector<std::string>& inputs = {},
                 std::vector<CarriedChunk> carried = {});
  HRESULT write(const void* bytes, size_t count);
  // Rewrites the header for the bytes written; then the file takes the place of the
  // output.
  HRESULT finish();
  // Closes and deletes the unfinished file; whatever was at the output stays.
  void abandon();
  uint64_t bytesWritten() const { return written_; }
  const std::string& refusal() const { return why_; }
  // True for AIFC floats: write() takes them big-endian, as they are stored.
  bool floatsBigEndian() const { return aifcFloat_; }

 private:
  HRESULT rewriteHeader(uint64_t frames);

  OutputFile out_;
  std::string why_;
  Container container_ = Container::Riff;
  alignas(8) unsigned char format_[KAWAVEFORMAT_BUFFER_SIZE] = {};
  bool extensible_ = false;
  bool fact_ = false;
  std::vector<CarriedChunk> carried_;
  uint64_t fmtEnd_ = 0;
  bool aifcFloat_ = false;
  uint64_t headerLength_ = 0;
  uint64_t written_ = 0;
  KAHFILE file_ = KA_INVALID_HFILE;
};

}  // namespace ostra::cli
