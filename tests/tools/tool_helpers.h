// Helpers for the command-level tests: running the ostra binary, reading its JSON, and
// building small wave, Wave64 and AIFF files byte by byte.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace ostra::tooltest {

struct ToolRun {
  int status = -1;
  std::string out, err;
};
ToolRun ostra(const std::string& args);
nlohmann::json ostraJson(const std::string& args);  // null unless the command succeeded
std::string q(const std::string& s);                // shell quoting

using Bytes = std::vector<uint8_t>;
void put16(Bytes& b, uint32_t v);
void put32(Bytes& b, uint32_t v);
void putBE16(Bytes& b, uint32_t v);
void putBE32(Bytes& b, uint32_t v);
void append(Bytes& b, const Bytes& more);
void append(Bytes& b, const std::string& text);

Bytes chunk(const std::string& id, const Bytes& body);  // RIFF chunk with its pad byte
Bytes riff(const std::vector<Bytes>& chunks);           // RIFF/WAVE around the chunks
// fmt bodies: 16-byte PCM/float, 18-byte with cbSize 0, 40-byte extensible.
Bytes fmt16(uint16_t tag, uint16_t channels, uint32_t rate, uint16_t bits);
Bytes fmt18(uint16_t tag, uint16_t channels, uint32_t rate, uint16_t bits);
Bytes fmtExt(uint16_t channels, uint32_t rate, uint16_t bits, uint16_t validBits, uint32_t mask,
             uint16_t subTag);
Bytes infoList(const std::vector<std::pair<std::string, std::string>>& items);
// A big-endian AIFF (compression empty) or AIFC file with COMM and SSND.
Bytes aiff(uint16_t channels, uint32_t frames, uint16_t bits, uint32_t rate, const Bytes& samples,
           const std::string& compression = "");

// Interleaved 16-bit stereo test samples (a ramp that crosses zero).
std::vector<int16_t> ramp16(size_t frames);
Bytes le16(const std::vector<int16_t>& v);

}  // namespace ostra::tooltest
