#include "tool_helpers.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>

#include "ostra/aiff.h"

namespace ostra::tooltest {

std::string q(const std::string& s) {
  std::string r = "'";
  for (char c : s) r += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return r + "'";
}

ToolRun ostra(const std::string& args) {
  ToolRun r;
  static std::mt19937_64 rng{std::random_device{}()};
  const auto err =
      (std::filesystem::temp_directory_path() / ("ostra-tool-err-" + std::to_string(rng())))
          .string();
  FILE* p = ::popen((q(OSTRA_TOOL_PATH) + " " + args + " 2>" + q(err)).c_str(), "r");
  if (!p) return r;
  char buf[65536];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
  const int st = ::pclose(p);
  r.status = (st & 0x7f) == 0 ? (st >> 8) & 0xff : -1;
  std::ifstream f(err);
  r.err.assign(std::istreambuf_iterator<char>(f), {});
  std::filesystem::remove(err);
  return r;
}

nlohmann::json ostraJson(const std::string& args) {
  const ToolRun r = ostra(args);
  if (r.status != 0) return nullptr;
  auto j = nlohmann::json::parse(r.out, nullptr, false);
  return j.is_discarded() ? nlohmann::json(nullptr) : j;
}

void put16(Bytes& b, uint32_t v) {
  b.push_back(uint8_t(v));
  b.push_back(uint8_t(v >> 8));
}
void put32(Bytes& b, uint32_t v) {
  put16(b, v & 0xFFFF);
  put16(b, v >> 16);
}
void putBE16(Bytes& b, uint32_t v) {
  b.push_back(uint8_t(v >> 8));
  b.push_back(uint8_t(v));
}
void putBE32(Bytes& b, uint32_t v) {
  putBE16(b, v >> 16);
  putBE16(b, v & 0xFFFF);
}
void append(Bytes& b, const Bytes& more) { b.insert(b.end(), more.begin(), more.end()); }
void append(Bytes& b, const std::string& text) { b.insert(b.end(), text.begin(), text.end()); }

Bytes chunk(const std::string& id, const Bytes& body) {
  Bytes b;
  append(b, id);
  put32(b, uint32_t(body.size()));
  append(b, body);
  if (body.size() & 1) b.push_back(0);
  return b;
}

Bytes riff(const std::vector<Bytes>& chunks) {
  Bytes body;
  append(body, std::string("WAVE"));
  for (const Bytes& c : chunks) append(body, c);
  Bytes b;
  append(b, std::string("RIFF"));
  put32(b, uint32_t(body.size()));
  append(b, body);
  return b;
}

Bytes fmt16(uint16_t tag, uint16_t channels, uint32_t rate, uint16_t bits) {
  Bytes b;
  const uint16_t align = uint16_t(channels * (bits / 8));
  put16(b, tag);
  put16(b, channels);
  put32(b, rate);
  put32(b, rate * align);
  put16(b, align);
  put16(b, bits);
  return b;
}

Bytes fmt18(uint16_t tag, uint16_t channels, uint32_t rate, uint16_t bits) {
  Bytes b = fmt16(tag, channels, rate, bits);
  put16(b, 0);
  return b;
}

Bytes fmtExt(uint16_t channels, uint32_t rate, uint16_t bits, uint16_t validBits, uint32_t mask,
             uint16_t subTag) {
  Bytes b = fmt16(0xFFFE, channels, rate, bits);
  put16(b, 22);
  put16(b, validBits);
  put32(b, mask);
  put32(b, subTag);
  for (uint8_t x : {0x00, 0x00, 0x10, 0x00, 0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71})
    b.push_back(x);
  return b;
}

Bytes infoList(const std::vector<std::pair<std::string, std::string>>& items) {
  Bytes b;
  append(b, std::string("INFO"));
  for (const auto& [id, text] : items) {
    Bytes t(text.begin(), text.end());
    t.push_back(0);
    append(b, chunk(id, t));
  }
  return b;
}

Bytes aiff(uint16_t channels, uint32_t frames, uint16_t bits, uint32_t rate, const Bytes& samples,
           const std::string& compression) {
  Bytes comm;
  putBE16(comm, channels);
  putBE32(comm, frames);
  putBE16(comm, bits);
  WORD exponent = 0, mantissa[4] = {};
  aiff_CreateRate(rate, &exponent, mantissa);
  putBE16(comm, exponent);
  for (WORD m : mantissa) putBE16(comm, m);
  if (!compression.empty()) {
    append(comm, compression);
    comm.push_back(0);  // empty pascal name
    comm.push_back(0);
  }
  Bytes ssnd;
  putBE32(ssnd, 0);
  putBE32(ssnd, 0);
  append(ssnd, samples);
  Bytes body;
  append(body, std::string(compression.empty() ? "AIFF" : "AIFC"));
  for (auto* c : {&comm, &ssnd}) {
    append(body, std::string(c == &comm ? "COMM" : "SSND"));
    putBE32(body, uint32_t(c->size()));
    append(body, *c);
    if (c->size() & 1) body.push_back(0);
  }
  Bytes b;
  append(b, std::string("FORM"));
  putBE32(b, uint32_t(body.size()));
  append(b, body);
  return b;
}

std::vector<int16_t> ramp16(size_t frames) {
  std::vector<int16_t> v(frames * 2);
  for (size_t i = 0; i < frames; ++i) {
    v[2 * i] = int16_t(int(i * 97) % 65536 - 32768);
    v[2 * i + 1] = int16_t(-int(i * 31) % 30000);
  }
  return v;
}

Bytes le16(const std::vector<int16_t>& v) {
  Bytes b;
  for (int16_t s : v) put16(b, uint16_t(s));
  return b;
}

}  // namespace ostra::tooltest
