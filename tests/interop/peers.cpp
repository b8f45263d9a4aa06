#include "peers.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <sstream>

namespace ostra::interop {
namespace {

std::string lineValue(const std::string& text, const std::string& key) {
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    const auto colon = line.find(':');
    if (colon == std::string::npos) continue;
    std::string k = line.substr(0, colon);
    while (!k.empty() && (k.back() == ' ' || k.back() == '\t')) k.pop_back();
    size_t s = 0;
    while (s < k.size() && (k[s] == ' ' || k[s] == '\t')) ++s;
    if (k.substr(s) != key) continue;
    std::string v = line.substr(colon + 1);
    const auto b = v.find_first_not_of(" \t");
    return b == std::string::npos ? std::string() : v.substr(b);
  }
  return {};
}

long toLong(const std::string& s) { return s.empty() ? 0 : std::strtol(s.c_str(), nullptr, 0); }

template <typename T>
std::vector<T> unpack(const std::string& bytes) {
  std::vector<T> v(bytes.size() / sizeof(T));
  if (!v.empty()) std::memcpy(v.data(), bytes.data(), v.size() * sizeof(T));
  return v;
}

std::vector<double> decodeRaw(const std::string& bytes, bool isFloat) {
  std::vector<double> out;
  if (isFloat) {
    for (double d : unpack<double>(bytes)) out.push_back(d);
  } else {
    for (int32_t i : unpack<int32_t>(bytes)) out.push_back(double(i));
  }
  return out;
}

}  // namespace

bool haveProgram(const std::string& name) {
  return run("command -v " + quote(name) + " >/dev/null").status == 0;
}

bool havePeers() {
  static const bool all = haveProgram("sox") && haveProgram("soxi") && haveProgram("ffmpeg") &&
                          haveProgram("ffprobe") && haveProgram("sndfile-info") &&
                          haveProgram("sndfile-convert");
  return all;
}

const char* peerName(Peer p) {
  return p == Peer::Sox ? "sox" : p == Peer::Ffmpeg ? "ffmpeg" : "sndfile";
}

PeerFacts soxFacts(const std::string& path) {
  PeerFacts f;
  const RunResult r = run("soxi -V1 " + quote(path));
  f.detail = r.out + r.err;
  if (r.status != 0) return f;
  f.channels = int(toLong(lineValue(r.out, "Channels")));
  f.rate = int(toLong(lineValue(r.out, "Sample Rate")));
  // "24-bit Signed Integer PCM", "32-bit Floating Point PCM": the stored width (Precision
  // would give a float's mantissa).
  f.bits = int(toLong(lineValue(r.out, "Sample Encoding")));
  const std::string duration = lineValue(r.out, "Duration");
  const auto eq = duration.find('=');
  if (eq != std::string::npos) f.frames = std::strtoull(duration.c_str() + eq + 1, nullptr, 10);
  f.isFloat = lineValue(r.out, "Sample Encoding").find("Floating") != std::string::npos;
  f.ok = f.channels > 0;
  return f;
}

PeerFacts ffprobeFacts(const std::string& path) {
  PeerFacts f;
  const RunResult r = run("ffprobe -v error -show_streams -of json " + quote(path));
  f.detail = r.out + r.err;
  if (r.status != 0) return f;
  auto j = nlohmann::json::parse(r.out, nullptr, false);
  if (j.is_discarded() || !j.contains("streams") || j["streams"].empty()) return f;
  const auto& s = j["streams"][0];
  f.channels = s.value("channels", 0);
  f.rate = int(toLong(s.value("sample_rate", "0")));
  f.bits = s.value("bits_per_sample", 0);
  f.frames = s.value("duration_ts", uint64_t(0));
  const std::string codec = s.value("codec_name", "");
  f.isFloat = codec.rfind("pcm_f", 0) == 0;
  f.ok = f.channels > 0;
  return f;
}

nlohmann::json ffprobeTags(const std::string& path) {
  const RunResult r = run("ffprobe -v error -show_format -of json " + quote(path));
  auto j = nlohmann::json::parse(r.out, nullptr, false);
  if (j.is_discarded() || !j.contains("format")) return nlohmann::json::object();
  return j["format"].value("tags", nlohmann::json::object());
}

PeerFacts sndfileFacts(const std::string& path) {
  PeerFacts f;
  const RunResult r = run("sndfile-info " + quote(path));
  f.detail = r.out + r.err;
  // The summary after the dashed line is libsndfile's own reading of the header dump.
  const auto cut = r.out.rfind("----------");
  if (r.status != 0 || cut == std::string::npos) return f;
  const std::string summary = r.out.substr(cut);
  f.channels = int(toLong(lineValue(summary, "Channels")));
  f.rate = int(toLong(lineValue(summary, "Sample Rate")));
  f.frames = std::strtoull(lineValue(summary, "Frames").c_str(), nullptr, 10);
  const long format = toLong(lineValue(summary, "Format"));
  // The low word of libsndfile's format: 1 signed 8, 2 16, 3 24, 4 32 bits, 5 unsigned 8,
  // 6 float, 7 double.
  const int sub = int(format & 0xFFFF);
  constexpr int kBits[] = {0, 8, 16, 24, 32, 8, 32, 64};
  if (sub > 0 && sub < 8) f.bits = kBits[sub];
  f.isFloat = sub == 6 || sub == 7;
  f.ok = f.channels > 0 && f.bits > 0;
  return f;
}

PeerFacts peerFacts(Peer p, const std::string& path) {
  return p == Peer::Sox      ? soxFacts(path)
         : p == Peer::Ffmpeg ? ffprobeFacts(path)
                             : sndfileFacts(path);
}

std::vector<double> peerSamples(Peer p, const std::string& path, bool isFloat,
                                const std::string& scratch) {
  switch (p) {
    case Peer::Sox: {
      const RunResult r = run("sox " + quote(path) + (isFloat ? " -t f64 -" : " -t s32 -"));
      return r.status == 0 ? decodeRaw(r.out, isFloat) : std::vector<double>{};
    }
    case Peer::Ffmpeg: {
      const RunResult r =
          run("ffmpeg -nostdin -v error -i " + quote(path) +
              (isFloat ? " -f f64le -c:a pcm_f64le -" : " -f s32le -c:a pcm_s32le -"));
      return r.status == 0 ? decodeRaw(r.out, isFloat) : std::vector<double>{};
    }
    case Peer::Sndfile: {
      const std::string raw = (std::filesystem::path(scratch) / "sndfile-decoded.raw").string();
      const RunResult r = run(std::string("sndfile-convert ") +
                              (isFloat ? "-float64 " : "-pcm32 ") + quote(path) + " " + quote(raw));
      if (r.status != 0) return {};
      const auto bytes = ostra::test::readFile(raw);
      const auto v = decodeRaw(std::string(bytes.begin(), bytes.end()), isFloat);
      std::filesystem::remove(raw);
      return v;
    }
  }
  return {};
}

std::vector<double> ostraSamples(const std::string& path, const nlohmann::json& info) {
  const auto& fmt = info["format"];
  const int type = fmt.value("sample_type", 0);
  const uint64_t frames = info.value("frames", uint64_t(0));
  auto j = ostraJson("samples --json --count " + std::to_string(frames) + " " + quote(path));
  if (j.is_null() || !j.contains("channels")) return {};
  const auto& ch = j["channels"];
  const size_t nch = ch.size();
  if (nch == 0) return {};
  const size_t n = ch[0].size();
  // Left-justify integers to 32 bits, as the peers deliver them.
  double scale = 1.0, offset = 0.0;
  switch (type) {
    case 16:
      scale = 16777216.0;
      offset = -128.0;
      break;  // unsigned 8-bit
    case 49:
      scale = 16777216.0;
      break;
    case 17:
    case 64:
      scale = 65536.0;
      break;
    case 18:
    case 65:
      scale = 256.0;
      break;
    default:
      break;  // 32-bit integers, the 24-in-32 container, floating point
  }
  std::vector<double> out(n * nch);
  for (size_t c = 0; c < nch; ++c)
    for (size_t i = 0; i < n && i < ch[c].size(); ++i)
      out[i * nch + c] = (ch[c][i].get<double>() + offset) * scale;
  return out;
}

long firstDifference(const std::vector<double>& a, const std::vector<double>& b, double tolerance) {
  const size_t n = std::min(a.size(), b.size());
  for (size_t i = 0; i < n; ++i)
    if (!(std::fabs(a[i] - b[i]) <= tolerance)) return long(i);
  return -1;
}

}  // namespace ostra::interop
