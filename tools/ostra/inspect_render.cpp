// Text and JSON forms of FileFacts for `ostra info`.
#include <cstdio>
#include <sstream>

#include "inspect.h"
#include "label_text.h"
#include "ostra/kasmpte.h"
#include "text.h"

namespace ostra::cli {

namespace {

// Samples since midnight as a time-code label of `type`, through the kernel's arithmetic.
std::string timeReferenceLabel(uint64_t samples, uint32_t rate, unsigned type) {
  const INT64 ticks = INT64(double(samples) * 1e7 / rate);
  _smpteval l{type, 0, 0, 0, 0};
  KASMPTE_NanoToSMPTE(ticks, &l);
  return labelText(l);
}

}  // namespace

nlohmann::json factsJson(const FileFacts& f, unsigned tcType) {
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
  if (f.bext) {
    const BextFacts& b = *f.bext;
    json bext{{"description", b.description},
              {"originator", b.originator},
              {"reference", b.reference},
              {"date", b.date},
              {"time", b.time},
              {"time_reference", b.timeReference},
              {"version", b.version}};
    if (f.hasFormat && f.format.rate)
      bext["time_reference_label"] = timeReferenceLabel(b.timeReference, f.format.rate, tcType);
    if (!b.umid.empty()) bext["umid"] = b.umid;
    const std::pair<const char*, const std::optional<int>*> loud[] = {
        {"loudness_value", &b.loudness},
        {"loudness_range", &b.loudnessRange},
        {"max_true_peak_level", &b.maxTruePeak},
        {"max_momentary_loudness", &b.maxMomentary},
        {"max_short_term_loudness", &b.maxShortTerm}};
    for (const auto& [key, v] : loud)
      if (*v) bext[key] = **v / 100.0;
    if (!b.codingHistory.empty()) bext["coding_history"] = b.codingHistory;
    j["bext"] = bext;
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

std::string factsText(const FileFacts& f, unsigned tcType) {
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
  if (f.bext) {
    const BextFacts& b = *f.bext;
    o << "bext         version " << b.version << "\n";
    o << "  description  " << b.description << "\n";
    o << "  originator   " << b.originator << " (" << b.reference << ")\n";
    o << "  origination  " << b.date << " " << b.time << "\n";
    o << "  time ref     " << b.timeReference << " samples";
    if (f.hasFormat && f.format.rate)
      o << " = " << timeReferenceLabel(b.timeReference, f.format.rate, tcType);
    o << "\n";
    if (!b.umid.empty()) o << "  umid         " << b.umid << "\n";
    if (b.loudness) {
      std::snprintf(line, sizeof line, "  loudness     %.2f LUFS\n", *b.loudness / 100.0);
      o << line;
    }
  }
  for (const auto& d : f.display) {
    o << "display      format " << d.format << ", " << d.size << " bytes";
    if (d.format == 1) o << ": " << d.text;
    o << "\n";
  }
  for (const auto& n : f.notes) o << "note         " << n << "\n";
  return o.str();
}

}  // namespace ostra::cli
