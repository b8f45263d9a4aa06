// ostra ltc encode|decode: linear time code, time code recorded as audio the way field
// recorders and cameras carry it. libltc does the bit-level coding; the labels, their
// sequence and what counts as a discontinuity are the kernel's time-code arithmetic.
#include <ltc.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "checks.h"
#include "command.h"
#include "inspect.h"
#include "label_text.h"
#include "ostra/kaaudio.h"
#include "ostra/kaerror.h"
#include "ostra/kaplatform.h"
#include "ostra/kasmpte.h"
#include "std_streams.h"
#include "text.h"
#include "writer.h"

namespace ostra::cli {
namespace {

struct Format {
  DWORD type;
  double fps;
  LTC_TV_STANDARD standard;
};

Format formatOf(DWORD type) {
  switch (type) {
    case 2:
      return {2, 30000.0 / 1001.0, LTC_TV_525_60};
    case 3:
      return {3, 25.0, LTC_TV_625_50};
    case 4:
      return {4, 24.0, LTC_TV_FILM_24};
    case 5:
      return {5, 30000.0 / 1001.0, LTC_TV_525_60};
    case 6:
      return {6, 24000.0 / 1001.0, LTC_TV_FILM_24};
    default:
      return {1, 30.0, LTC_TV_1125_60};
  }
}

// ---------------------------------------------------------------- encode

struct EncodeOptions {
  DWORD type = 3;
  std::string start, duration, output;
  DWORD rate = 48000;
};

void encode(const EncodeOptions& o) {
  if (o.type < 1 || o.type > 6)
    return void(reportRefusal(KAERR_TIMECODE_FORMAT, "--type " + std::to_string(o.type),
                              "time-code types are 1 to 6"));
  _smpteval start{}, length{};
  if (!parseLabel(o.start, o.type, start))
    return void(reportRefusal(KAERR_BAD_TIMECODE, "--start " + o.start, "a label is HH:MM:SS:FF"));
  if (!parseLabel(o.duration, o.type, length))
    return void(
        reportRefusal(KAERR_BAD_TIMECODE, "--duration " + o.duration, "a label is HH:MM:SS:FF"));
  const DWORD frames = KASMPTE_SMPTEToFrameCount(&length);
  if (frames == 0)
    return void(
        reportRefusal(KAERR_BAD_TIMECODE, "--duration " + o.duration, "the duration is empty"));
  if (o.rate < 8000 || o.rate > 384000)
    return void(reportRefusal(KAERR_SAMPLE_RATE, "--rate " + std::to_string(o.rate),
                              "the sample rate must be 8000 to 384000 Hz"));
  const Format f = formatOf(o.type);
  LTCEncoder* enc = ltc_encoder_create(o.rate, f.fps, f.standard, 0);
  if (!enc) return void(reportFailure(E_OUTOFMEMORY, o.output));
  alignas(8) unsigned char fmtBuf[KAWAVEFORMAT_BUFFER_SIZE] = {};
  auto* format = reinterpret_cast<_kawaveformat*>(fmtBuf);
  format->Init(o.rate, KASAMPLE_PCM16, 1, 0, sizeof fmtBuf);
  AudioWriter out;
  HRESULT hr = out.create(o.output, Container::Riff, *format);
  const KAAUDIO_COPYFUNCTION to16 = KaAudio_GetCopyFunction2(KASAMPLE_PCM16, KASAMPLE_PCM8);
  std::vector<ltcsnd_sample_t> bytes(size_t(ltc_encoder_get_buffersize(enc)));
  std::vector<int16_t> pcm(bytes.size());
  _smpteval l = start;
  for (DWORD i = 0; SUCCEEDED(hr) && i < frames; ++i) {
    SMPTETimecode t{};
    std::snprintf(t.timezone, sizeof t.timezone, "+0000");
    t.hours = (unsigned char)l.hours;
    t.mins = (unsigned char)l.minutes;
    t.secs = (unsigned char)l.seconds;
    t.frame = (unsigned char)l.frames;
    ltc_encoder_set_timecode(enc, &t);
    // The drop-frame flag follows the label format, not the frame rate: 23.976 and 29.97
    // non-drop run at the same rates as drop-frame labels.
    LTCFrame frame{};
    ltc_encoder_get_frame(enc, &frame);
    frame.dfbit = o.type == 2;
    ltc_encoder_set_frame(enc, &frame);
    ltc_encoder_encode_frame(enc);
    const int n = ltc_encoder_copy_buffer(enc, bytes.data());
    to16(pcm.data(), bytes.data(), n, 1.0f);
    hr = out.write(pcm.data(), size_t(n) * 2);
    KASMPTE_IncrementByFrame(&l, 1);
  }
  ltc_encoder_free(enc);
  if (SUCCEEDED(hr)) hr = out.finish();
  if (FAILED(hr)) return void(reportRefusal(hr, o.output, out.refusal()));
  std::printf("%s: %u frames of %s LTC from %s at %u Hz\n", o.output.c_str(), unsigned(frames),
              o.type == 2 ? "drop-frame" : "non-drop", labelText(start).c_str(), unsigned(o.rate));
}

// ---------------------------------------------------------------- decode

struct DecodeOptions {
  std::string file;
  unsigned channel = 1;
  DWORD type = 0;  // 0: from the signal
  bool json = false;
};

struct Decoded {
  _smpteval label;
  int64_t start, end;  // sample positions
  bool reverse, drop;
};

// The format whose frame rate is nearest the signal's (drop-frame by the flag), from the
// median length of a frame, which gaps and jumps do not move.
DWORD guessType(std::vector<Decoded> frames, uint32_t rate) {
  if (frames.empty()) return 3;
  if (frames.front().drop) return 2;
  std::vector<int64_t> lengths;
  for (const Decoded& d : frames) lengths.push_back(std::llabs(d.end - d.start) + 1);
  std::nth_element(lengths.begin(), lengths.begin() + long(lengths.size() / 2), lengths.end());
  const double fps = double(rate) / double(lengths[lengths.size() / 2]);
  const std::pair<double, DWORD> rates[] = {
      {24000.0 / 1001.0, 6}, {24.0, 4}, {25.0, 3}, {30000.0 / 1001.0, 5}, {30.0, 1}};
  DWORD best = 3;
  double gap = 1e9;
  for (const auto& [r, type] : rates)
    if (std::fabs(r - fps) < gap) gap = std::fabs(r - fps), best = type;
  return best;
}

void decode(const DecodeOptions& o) {
  TempFile spool;
  std::string path;
  HRESULT hr = readablePath(o.file, spool, path);
  FileFacts facts;
  if (SUCCEEDED(hr)) hr = inspectPath(path, facts);
  if (FAILED(hr)) return void(reportFailure(hr, o.file));
  if (refuseUnreadableAudio(facts, o.file)) return;
  if (o.channel < 1 || o.channel > facts.format.channels)
    return void(reportRefusal(KAERR_CHANNELS, o.file,
                              "--channel " + std::to_string(o.channel) + ": the file has " +
                                  std::to_string(facts.format.channels) + " channels"));
  const auto type = KASAMPLETYPE(facts.format.sampleType);
  const KAAUDIO_COPYFUNCTION toFloat = KaAudio_GetCopyFunction2(KASAMPLE_FLOAT32, type);
  if (!toFloat) return void(reportFailure(KAERR_UNSUPPORTED_FORMAT, o.file));
  KAHFILE file = KA_INVALID_HFILE;
  if (FAILED(hr = KaFile_OpenUtf8(path.c_str(), GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, 0,
                                  &file)))
    return void(reportFailure(hr, o.file));
  const unsigned channels = facts.format.channels, align = facts.format.blockAlign;
  const uint64_t blockFrames = std::max<uint64_t>(1, (1u << 20) / align);
  std::vector<uint8_t> raw(size_t(blockFrames * align));
  std::vector<float> all(size_t(blockFrames * channels));
  std::vector<float> mono(static_cast<size_t>(blockFrames));
  LTCDecoder* dec = ltc_decoder_create(int(facts.format.rate / 25), 64);
  std::vector<Decoded> frames;
  auto drain = [&] {
    LTCFrameExt f;
    while (ltc_decoder_read(dec, &f)) {
      SMPTETimecode t{};
      ltc_frame_to_time(&t, &f.ltc, 0);
      frames.push_back({{0, t.hours, t.mins, t.secs, t.frame},
                        f.off_start,
                        f.off_end,
                        f.reverse != 0,
                        f.ltc.dfbit != 0});
    }
  };
  hr = KaFile_Seek(file, INT64(facts.dataOffset), FILE_BEGIN, nullptr);
  for (uint64_t done = 0; SUCCEEDED(hr) && done < facts.frames;) {
    const uint64_t n = std::min(blockFrames, facts.frames - done);
    DWORD got = 0;
    hr = KaFile_Read(file, raw.data(), DWORD(n * align), &got);
    if (SUCCEEDED(hr) && got != n * align) hr = KAERR_READ_FAILED;
    if (FAILED(hr)) break;
    toFloat(all.data(), raw.data(), int32_t(n * channels), 1.0f);
    for (uint64_t i = 0; i < n; ++i) mono[i] = all[i * channels + o.channel - 1];
    // In small pieces, so that the decoder's queue never overflows between reads.
    for (uint64_t at = 0; at < n; at += 1024) {
      const uint64_t piece = std::min<uint64_t>(1024, n - at);
      ltc_decoder_write_float(dec, mono.data() + at, size_t(piece), ltc_off_t(done + at));
      drain();
    }
    done += n;
  }
  // The last bit of the last frame ends with a transition that only what follows the
  // signal can show: a frame's length of silence closes it.
  if (SUCCEEDED(hr)) {
    const float lastLevel = facts.frames ? mono[size_t((facts.frames - 1) % blockFrames)] : 0.0f;
    std::vector<float> tail(size_t(facts.format.rate / 20), 0.0f);
    std::fill_n(tail.begin(), tail.size() / 8, lastLevel > 0 ? -0.5f : 0.5f);
    ltc_decoder_write_float(dec, tail.data(), tail.size(), ltc_off_t(facts.frames));
    drain();
  }
  KaFile_Close(file);
  ltc_decoder_free(dec);
  for (Decoded& d : frames) d.start = std::max<int64_t>(d.start, 0);
  if (FAILED(hr)) return void(reportFailure(hr, o.file));
  if (frames.empty())
    return void(reportRefusal(KAERR_NOT_FOUND, o.file,
                              "no time code found in channel " + std::to_string(o.channel)));
  const DWORD tcType = o.type ? o.type : guessType(frames, facts.format.rate);
  for (Decoded& d : frames) d.label.type = tcType;

  // Discontinuities: a label that does not follow the one before it (a jump, or a step
  // back when the signal runs backwards), and a gap in the signal longer than two frames.
  const double samplesPerFrame = facts.format.rate / formatOf(tcType).fps;
  nlohmann::json breaks = nlohmann::json::array();
  for (size_t i = 1; i < frames.size(); ++i) {
    const Decoded &a = frames[i - 1], &b = frames[i];
    _smpteval next = a.label, previous = a.label;
    KASMPTE_IncrementByFrame(&next, 1);
    KASMPTE_DeccrementByFrame(&previous, 1);
    const char* kind = nullptr;
    const int64_t gap = std::min(b.start, b.end) - std::max(a.start, a.end);
    if (b.reverse != a.reverse)
      kind = "reversed";
    else if (gap > int64_t(2 * samplesPerFrame))
      kind = "dropout";
    else if (KASMPTE_SMPTECompare(&b.label, b.reverse ? &previous : &next) != 0)
      kind = "jump";
    if (kind)
      breaks.push_back({{"kind", kind},
                        {"sample", b.start},
                        {"from", labelText(a.label)},
                        {"to", labelText(b.label)}});
  }
  const Decoded &first = frames.front(), &last = frames.back();
  size_t reversed = 0;
  for (const Decoded& d : frames) reversed += d.reverse;
  const char* direction = reversed == 0               ? "forward"
                          : reversed == frames.size() ? "reverse"
                                                      : "mixed";
  if (o.json) {
    const nlohmann::json j{{"file", o.file},
                           {"type", tcType},
                           {"frames", frames.size()},
                           {"first", {{"label", labelText(first.label)}, {"sample", first.start}}},
                           {"last", {{"label", labelText(last.label)}, {"sample", last.start}}},
                           {"direction", direction},
                           {"discontinuities", breaks}};
    std::printf("%s\n", j.dump(2).c_str());
    return;
  }
  std::printf("%s: %zu frames of type %u time code in channel %u, running %s\n", o.file.c_str(),
              frames.size(), unsigned(tcType), o.channel, direction);
  std::printf("  first %s at sample %lld\n", labelText(first.label).c_str(),
              (long long)first.start);
  std::printf("  last  %s at sample %lld\n", labelText(last.label).c_str(), (long long)last.start);
  for (const auto& b : breaks)
    std::printf("  %s at sample %lld: %s -> %s\n", b["kind"].get<std::string>().c_str(),
                (long long)b["sample"].get<int64_t>(), b["from"].get<std::string>().c_str(),
                b["to"].get<std::string>().c_str());
}

void setup(CLI::App& cmd) {
  static EncodeOptions e;
  static DecodeOptions d;
  cmd.require_subcommand(1);
  auto* enc = cmd.add_subcommand("encode", "Write an LTC track into a new mono wave file");
  enc->add_option("--type", e.type, "Time-code format 1 to 6 (default 3, 25 frames)");
  enc->add_option("--start", e.start, "First label, HH:MM:SS:FF")->required();
  enc->add_option("--duration", e.duration, "Length as a label, HH:MM:SS:FF")->required();
  enc->add_option("--rate", e.rate, "Sample rate (default 48000)");
  enc->add_option("OUT", e.output, "Wave file to write")->required();
  enc->callback([] { encode(e); });
  auto* dec = cmd.add_subcommand("decode", "Read the LTC of an audio file");
  dec->add_option("FILE", d.file, "Wave, Wave64, AIFF or AIFC file (- reads standard input)")
      ->required()
      ->check(existingFileOrStdin());
  dec->add_option("--channel", d.channel, "Channel holding the time code (default 1)");
  dec->add_option("--type", d.type, "Time-code format 1 to 6 (default: from the signal)")
      ->check(CLI::Range(1, 6));
  dec->add_flag("--json", d.json, "Print one JSON object");
  dec->callback([] { decode(d); });
}

OSTRA_COMMAND("ltc", "Encode or decode linear time code (LTC) in audio files", setup);

}  // namespace
}  // namespace ostra::cli
