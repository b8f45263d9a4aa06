// What `ostra info` reports about an audio file, gathered through the kernel's chunk
// functions: the container, the format, where the audio lies, the chunk list and the
// descriptive items. `samples`, `convert`, `repair`, `tag` and the fuzz target
// fuzz/ostra_info_bytes.cpp use the same code, so every command reads a file the way
// `ostra info` shows it.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "bext.h"
#include "ostra/kadefs.h"

namespace ostra::cli {

enum class Container { Riff, Wave64, Aiff };

struct ChunkFacts {
  std::string id;       // four characters, or a GUID's name or registry form in Wave64
  uint64_t offset = 0;  // of the chunk header
  uint64_t size = 0;    // data bytes, header and pad excluded
};

struct TextItem {
  std::string id;
  std::string text;  // UTF-8
  DWORD rawId = 0;   // the id as stored (little-endian four characters)
};

struct DisplayFacts {
  int32_t format = 0;  // clipboard format: 1 text, 8 bitmap
  uint32_t size = 0;
  std::string text;  // for text items
};

struct FormatFacts {
  uint16_t tag = 0;
  uint16_t channels = 0;
  uint32_t rate = 0;
  uint16_t bits = 0;
  uint16_t blockAlign = 0;
  uint32_t avgBytesPerSec = 0;
  uint32_t channelMask = 0;  // extensible descriptions only
  uint16_t validBits = 0;    // extensible descriptions only
  std::string subformat;     // extensible descriptions only
  int32_t sampleType = 0;    // KASAMPLETYPE
  std::string sampleTypeText;
  std::string compression;      // AIFC compression type
  std::string rate80;           // AIFF: the 10 bytes of the 80-bit rate in hexadecimal
  bool bigEndianFloat = false;  // AIFC 'fl32' / 'fl64': stored big-endian, read swapped
};

struct FileFacts {
  Container kind = Container::Riff;
  std::string container;  // RIFF, W64, AIFF, AIFC
  std::string form;       // WAVE, ...
  uint64_t fileSize = 0;
  uint64_t headerSize = 0;  // the RIFF, riff or FORM size word as stored
  bool hasFormat = false;
  FormatFacts format;
  bool hasData = false;
  uint64_t dataOffset = 0;  // first sample byte
  uint64_t dataSize = 0;    // sample bytes that are really in the file
  uint64_t frames = 0;
  std::vector<ChunkFacts> chunks;
  std::vector<TextItem> info;  // LIST INFO (AIFF: NAME, AUTH, (c) , ANNO)
  std::vector<TextItem> unfo;  // LIST UNFO
  std::vector<DisplayFacts> display;
  std::optional<BextFacts> bext;
  std::vector<std::string> notes;  // what did not add up (sizes past the end, ...)

  double duration() const { return format.rate ? double(frames) / format.rate : 0.0; }
};

// Reads the facts of an open file. Fails with the kernel's code when the file is none of
// RIFF/WAVE, Wave64 or AIFF/AIFC, or when its first header cannot be read.
HRESULT inspectFile(KAHFILE file, FileFacts& facts);
HRESULT inspectPath(const std::string& path, FileFacts& facts);
// The same for a wave image in memory, through the mriff_* family (RIFF only).
HRESULT inspectImage(const uint8_t* data, size_t size, FileFacts& facts);

// Turns stored samples into the kernel's sample type in place: the big-endian floats of
// a floating-point AIFC file become host floats (and host floats become stored ones);
// every other format is left as it is.
void swapStoredFloats(const FormatFacts& format, uint8_t* bytes, size_t count);

// `tcType` is the time-code format (1 to 6) that the bext time reference is shown in.
nlohmann::json factsJson(const FileFacts& facts, unsigned tcType = 3);
std::string factsText(const FileFacts& facts, unsigned tcType = 3);

}  // namespace ostra::cli
