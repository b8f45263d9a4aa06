// Text and JSON forms of FileFacts for `ostra info`.
#include <cstdio>
#include <sstream>

#include "inspect.h"

namespace ostra::cli {

nlohmann::json factsJson(const FileFacts& f) {
  using nlohmann::json;
  json j;
  j["container"] = f.container;
  j["form"] = f.form;
  j["file_size"] = f.fileSize;
  if (f.hasFormat) {
    const FormatFacts& m = f.format;
    json fmt{{"tag", m.tag},
             {"channels", m.channels},
             {"sample_rate", m.rate},
             {"bits", m.bits},
             {"block_align", m.blockAlign},
             {"avg_bytes_per_sec", m.avgBytesPerSec},
             {"channel_mask", m.channelMask},
             {"subformat", m.subformat.empty() ? json(nullptr) : json(m.subformat)},
             {"sample_type", m.sampleType},
             {"sample_type_text", m.sampleTypeText}};
    if (m.validBits) fmt["valid_bits"] = m.validBits;
    if (f.kind == Container::Aiff) {
      fmt["compression"] = m.compression;
      fmt["rate80"] = m.rate80;
    }
    j["format"] = fmt;
  } else {
    j["format"] = nullptr;
  }
  j["data"] = f.hasData ? json{{"offset", f.dataOffset}, {"size", f.dataSize}} : json(nullptr);
  j["frames"] = f.frames;
  j["duration"] = f.duration();
  json chunks = json::array();
  for (const auto& c : f.chunks)
    chunks.push_back({{"id", c.id}, {"offset", c.offset}, {"size", c.size}});
  j["chunks"] = chunks;
  json info = json::object();
  for (const auto& i : f.info) info[i.id] = i.text;
  j["info"] = info;
  if (!f.unfo.empty()) {
    json unfo = json::object();
    for (const auto& i : f.unfo) unfo[i.id] = i.text;
    j["unfo"] = unfo;
  }
  json display = json::array();
  for (const auto& d : f.display) {
    json item{{"format", d.format}, {"size", d.size}};
    if (d.format == 1) item["text"] = d.text;
    display.push_back(item);
  }
  j["display"] = display;
  if (!f.notes.empty()) j["notes"] = f.notes;
  return j;
}

std::string factsText(const FileFacts& f) {
  std::ostringstream o;
  char line[256];
  o << "container    " << f.container << " (form " << f.form << ", header size " << f.headerSize
    << ", file " << f.fileSize << " bytes)\n";
  if (f.hasFormat) {
    const FormatFacts& m = f.format;
    std::snprintf(line, sizeof line,
                  "format       tag 0x%04X, %u ch, %u Hz, %u bits, block align %u, %u bytes/s\n",
                  m.tag, m.channels, m.rate, m.bits, m.blockAlign, m.avgBytesPerSec);
    o << line;
    if (!m.subformat.empty()) {
      std::snprintf(line, sizeof line,
                    "extensible   valid bits %u, channel mask 0x%08X, sub-format %s\n", m.validBits,
                    m.channelMask, m.subformat.c_str());
      o << line;
    }
    if (!m.compression.empty() || !m.rate80.empty())
      o << "aiff         compression " << m.compression << ", rate80 " << m.rate80 << "\n";
    o << "sample type  " << m.sampleType;
    if (!m.sampleTypeText.empty()) o << " (" << m.sampleTypeText << ")";
    o << "\n";
  } else {
    o << "format       none found\n";
  }
  if (f.hasData) {
    o << "data         offset " << f.dataOffset << ", " << f.dataSize << " bytes\n";
    std::snprintf(line, sizeof line, "frames       %llu (%.6f s)\n", (unsigned long long)f.frames,
                  f.duration());
    o << line;
  } else {
    o << "data         none found\n";
  }
  o << "chunks\n";
  for (const auto& c : f.chunks) {
    std::snprintf(line, sizeof line, "  %-12s at %-12llu %llu bytes\n", c.id.c_str(),
                  (unsigned long long)c.offset, (unsigned long long)c.size);
    o << line;
  }
  for (const auto& i : f.info) o << "info         " << i.id << " = " << i.text << "\n";
  for (const auto& i : f.unfo) o << "unfo         " << i.id << " = " << i.text << "\n";
  for (const auto& d : f.display) {
    o << "display      format " << d.format << ", " << d.size << " bytes";
    if (d.format == 1) o << ": " << d.text;
    o << "\n";
  }
  for (const auto& n : f.notes) o << "note         " << n << "\n";
  return o.str();
}

}  // namespace ostra::cli
