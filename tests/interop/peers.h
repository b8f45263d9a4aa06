// What the other programs say about an audio file: format facts parsed from soxi,
// ffprobe's JSON and sndfile-info, and the samples each of them decodes, brought to one
// comparable form. Also runs the ostra tool and reads its --json answers.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "support/tool_run.h"

namespace ostra::interop {

using ostra::test::ostra;
using ostra::test::ostraJson;
using ostra::test::RunResult;
inline RunResult run(const std::string& commandLine) {
  return ostra::test::runCommand(commandLine);
}
inline std::string quote(const std::string& s) { return ostra::test::shellQuote(s); }
bool haveProgram(const std::string& name);
// True when sox, ffmpeg, ffprobe, sndfile-info and sndfile-convert are all present.
bool havePeers();

enum class Peer { Sox, Ffmpeg, Sndfile };
const char* peerName(Peer p);
inline constexpr Peer kPeers[] = {Peer::Sox, Peer::Ffmpeg, Peer::Sndfile};

struct PeerFacts {
  bool ok = false;
  int channels = 0;
  int rate = 0;
  int bits = 0;  // bits per sample as the peer reports them (container or precision)
  uint64_t frames = 0;
  bool isFloat = false;
  std::string detail;  // the peer's own words, for failure messages
};

PeerFacts soxFacts(const std::string& path);
PeerFacts ffprobeFacts(const std::string& path);
PeerFacts sndfileFacts(const std::string& path);
PeerFacts peerFacts(Peer p, const std::string& path);
// ffprobe's format tags (title, artist, ...), lower-cased keys.
nlohmann::json ffprobeTags(const std::string& path);

// Interleaved samples as a peer decodes them: integer files as 32-bit left-justified
// integers (exact for every integer width), floating-point files as doubles.
// `scratch` is a folder for the peers that cannot write to a pipe.
std::vector<double> peerSamples(Peer p, const std::string& path, bool isFloat,
                                const std::string& scratch);

// `ostra samples --json` of a whole file, interleaved and brought to the same form as
// peerSamples (needs the file's bits and sample type from `ostra info --json`).
std::vector<double> ostraSamples(const std::string& path, const nlohmann::json& info);

// The first `count` values of two runs differ where? -1 when equal over the compared
// length; compares at most min(a.size(), b.size()) values and with `tolerance`.
long firstDifference(const std::vector<double>& a, const std::vector<double>& b, double tolerance);

}  // namespace ostra::interop
