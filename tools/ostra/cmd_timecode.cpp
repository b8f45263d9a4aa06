// ostra timecode --type N (--frames F | --label TEXT | --ticks T) [--add TEXT | --sub TEXT |
// --step K] [--json]: a time-code label with its frame count and its time in ticks, and
// label arithmetic, through the kernel's KASMPTE_* functions.
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>

#include "command.h"
#include "label_text.h"
#include "ostra/kaerror.h"
#include "ostra/kasmpte.h"
#include "text.h"

namespace ostra::cli {
namespace {

struct Options {
  DWORD type = 0;
  std::string frames, label, ticks, add, sub;
  long long step = 0;
  bool json = false;
};

void run(const Options& o) {
  const char* kTypes =
      "1 (30), 2 (30 drop-frame), 3 (25), 4 (24), 5 (30 at 29.97), 6 (24 at 23.976)";
  if (o.type < 1 || o.type > 6)
    return void(reportRefusal(KAERR_TIMECODE_FORMAT, "--type " + std::to_string(o.type),
                              std::string("time-code types are ") + kTypes));
  _smpteval l{o.type, 0, 0, 0, 0};
  if (!o.frames.empty()) {
    char* end = nullptr;
    const unsigned long long n = std::strtoull(o.frames.c_str(), &end, 10);
    if (*end || o.frames[0] == '-' || n > 0xFFFFFFFFull)
      return void(reportRefusal(KAERR_BAD_TIMECODE, "--frames " + o.frames,
                                "a frame count is a whole number from 0 to 4294967295"));
    KASMPTE_FrameCountToSMPTE(&l, DWORD(n));
  } else if (!o.ticks.empty()) {
    char* end = nullptr;
    const long long t = std::strtoll(o.ticks.c_str(), &end, 10);
    if (*end || t < 0)
      return void(reportRefusal(KAERR_BAD_TIMECODE, "--ticks " + o.ticks,
                                "a time is a whole number of 100-nanosecond ticks from 0"));
    KASMPTE_NanoToSMPTE(t, &l);
  } else if (!parseLabel(o.label, o.type, l)) {
    return void(reportRefusal(KAERR_BAD_TIMECODE, "--label " + o.label,
                              "a label is up to four numbers, HH:MM:SS:FF"));
  }
  const std::string& operand = !o.add.empty() ? o.add : o.sub;
  if (!operand.empty()) {
    _smpteval b{};
    if (!parseLabel(operand, o.type, b))
      return void(
          reportRefusal(KAERR_BAD_TIMECODE, operand, "a label is up to four numbers, HH:MM:SS:FF"));
    if (!o.add.empty())
      KASMPTE_AddSMPTE(&l, &b);
    else
      KASMPTE_SubtractSMPTE(&l, &b);
  }
  if (o.step > 0) KASMPTE_IncrementByFrame(&l, DWORD(o.step % KASMPTE_FramesPerDay(o.type)));
  if (o.step < 0) KASMPTE_DeccrementByFrame(&l, DWORD(-(o.step % KASMPTE_FramesPerDay(o.type))));
  const DWORD frames = KASMPTE_SMPTEToFrameCount(&l);
  const INT64 ticks = KASMPTE_SMPTEToNanos(&l);
  if (o.json) {
    const nlohmann::json j{
        {"type", o.type}, {"label", labelText(l)}, {"frames", frames}, {"ticks", ticks}};
    std::printf("%s\n", j.dump().c_str());
  } else {
    std::printf("%s  frame %u  %lld ticks (%.7f s)\n", labelText(l).c_str(), unsigned(frames),
                (long long)ticks, double(ticks) / 1e7);
  }
}

void setup(CLI::App& cmd) {
  static Options o;
  cmd.add_option("--type", o.type,
                 "1 = 30, 2 = 30 drop-frame, 3 = 25, 4 = 24, 5 = 30 at 29.97, 6 = 24 at 23.976")
      ->required();
  auto* from = cmd.add_option_group("start", "The label to start from");
  from->add_option("--frames", o.frames, "A frame count");
  from->add_option("--label", o.label, "A label as typed: HH:MM:SS:FF, 1:2:3:4, 01020304 ...");
  from->add_option("--ticks", o.ticks, "A time in 100-nanosecond ticks");
  from->require_option(1);
  auto* op = cmd.add_option_group("operation", "Arithmetic on the label");
  op->add_option("--add", o.add, "Add a label (wraps at midnight)");
  op->add_option("--sub", o.sub, "Subtract a label (wraps at midnight)");
  op->add_option("--step", o.step, "Move by this many frames, forward or back");
  op->require_option(0, 1);
  cmd.add_flag("--json", o.json, "Print {type, label, frames, ticks}");
  cmd.callback([] { run(o); });
}

OSTRA_COMMAND("timecode", "Time-code labels, frame counts and ticks, and label arithmetic", setup);

}  // namespace
}  // namespace ostra::cli
