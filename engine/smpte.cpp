// SMPTE time-code arithmetic. The arithmetic is fixed to the frame: 32-bit unsigned frame
// counts, drop-frame counts found by the iterative reduction below, and the tick
// conversions rounded as the formulas say ("+ 0.999" and "+ 0.000005" with truncation),
// because labels written by earlier versions of the host must read back the same.
#include "ostra/kasmpte.h"

#include <cstdio>
#include <vector>

namespace {

struct Rates {
  DWORD perSecond, perMinute, perHour;
};

// Label counting of a type; drop-frame counts at 30. Unknown types take the drop path in
// count-to-label, as they always have.
Rates ratesOf(DWORD type) {
  switch (type) {
    case 3:
      return {25, 1500, 90000};
    case 4:
    case 6:
      return {24, 1440, 86400};
    default:
      return {30, 1800, 108000};
  }
}

bool knownType(DWORD type) { return type >= 1 && type <= 6; }

// The real frame rate of a type; unknown types run at 30.
double realRate(DWORD type) {
  switch (type) {
    case 2:
    case 5:
      return 30000.0 / 1001.0;
    case 3:
      return 25.0;
    case 4:
      return 24.0;
    case 6:
      return 24000.0 / 1001.0;
    default:
      return 30.0;
  }
}

// A drop-frame label that does not exist (frames 0 or 1 at the start of a minute that is
// not a tenth) stands for the first label of its minute.
bool droppedLabel(DWORD minutes, DWORD seconds, DWORD frames) {
  return frames < 2 && seconds == 0 && minutes % 10 != 0;
}

// Labels skipped below a 30-per-second count.
DWORD skippedBelow(DWORD value) {
  const DWORD inHour = value % 108000;
  DWORD skipped = value / 108000 * 108;
  if (inHour / 1800 != 0) skipped += (inHour / 1800 - inHour / 18000) * 2;
  return skipped;
}

}  // namespace

DWORD KASMPTE_FramesPerDay(DWORD type) noexcept {
  switch (type) {
    case 1:
    case 5:
      return 2592000;
    case 2:
      return 2589408;
    case 3:
      return 2160000;
    case 4:
    case 6:
      return 2073600;
    default:
      return 0;
  }
}

DWORD KASMPTE_SMPTEToFrameCount(const _smpteval* l) noexcept {
  if (!l || !knownType(l->type)) return 0;
  const Rates r = ratesOf(l->type);
  DWORD frames = l->frames, dropped = 0;
  if (l->type == 2) {
    if (droppedLabel(l->minutes, l->seconds, frames)) frames = 2;
    dropped = l->hours * 108;
    if (l->minutes != 0) dropped += (l->minutes - l->minutes / 10) * 2;
  }
  return ((l->hours * 60 + l->minutes) * 60 + l->seconds) * r.perSecond - dropped + frames;
}

void KASMPTE_FrameCountToSMPTE(_smpteval* l, DWORD count) noexcept {
  if (!l) return;
  const DWORD type = l->type;
  const Rates r = ratesOf(type);
  DWORD value;
  const bool drop = !(type == 1 || type == 3 || type == 4 || type == 5 || type == 6);
  if (!drop) {
    value = count % KASMPTE_FramesPerDay(type);
  } else {
    value = count % 2589408;
    // Add back the labels skipped below the value until the count of them settles.
    DWORD previous = 0;
    for (;;) {
      const DWORD skipped = skippedBelow(value);
      if (skipped == previous) break;
      value += skipped - previous;
      previous = skipped;
    }
    value %= 2592000;
  }
  l->hours = value / r.perHour;
  value %= r.perHour;
  l->minutes = value / r.perMinute;
  value %= r.perMinute;
  l->seconds = value / r.perSecond;
  l->frames = value % r.perSecond;
  if (type == 2 && droppedLabel(l->minutes, l->seconds, l->frames)) l->frames = 2;
}

INT64 KASMPTE_SMPTEToNanos(const _smpteval* l) noexcept {
  if (!l) return 0;
  const double frames = KASMPTE_SMPTEToFrameCount(l);
  return INT64(frames / realRate(l->type) * 1e7 + 0.999);
}

INT64 KASMPTE_SmpteLikeToNanos(double rate, const _smpteval* l) noexcept {
  if (!l || !(rate > 0)) return 0;
  const double frames = ((double(l->hours) * 60 + l->minutes) * 60 + l->seconds) * rate + l->frames;
  return INT64(frames / rate * 1e7 + 0.999);
}

void KASMPTE_NanoToSMPTE(INT64 ticks, _smpteval* l) noexcept {
  if (!l) return;
  const double frames = double(ticks) * realRate(l->type) / 1e7 + 0.000005;
  KASMPTE_FrameCountToSMPTE(l, DWORD(INT64(frames)));
}

const KAWCHAR* KASMPTE_TextToSMPTE(_smpteval* l, const KAWCHAR* text) noexcept {
  if (!l || !text) return text;
  l->hours = l->minutes = l->seconds = l->frames = 0;
  try {
    // The working copy, each character with the index of the one it came from.
    struct Ch {
      KAWCHAR c;
      size_t from;
    };
    std::vector<Ch> w;
    size_t n = 0;
    while (text[n]) w.push_back({text[n], n}), ++n;
    auto digit = [](KAWCHAR c) { return c >= u'0' && c <= u'9'; };
    // From the end back to the last digit: trailing spaces go; a separator reads as if a
    // 0 followed it.
    bool inserted = false;
    for (size_t i = w.size(); i > 0 && !digit(w[i - 1].c); --i) {
      if (w[i - 1].c == u' ') {
        if (!inserted) w.erase(w.begin() + long(i - 1));
      } else {
        w.insert(w.begin() + long(i), Ch{u'0', w[i - 1].from + 1});
        inserted = true;
      }
    }
    for (Ch& ch : w)
      if (!digit(ch.c)) ch.c = u' ';
    // Runs of more than two digits split into pairs from the right.
    for (size_t i = 0; i < w.size();) {
      if (!digit(w[i].c)) {
        ++i;
        continue;
      }
      size_t end = i;
      while (end < w.size() && digit(w[end].c)) ++end;
      for (size_t cut = end; cut > i + 2; cut -= 2) {
        w.insert(w.begin() + long(cut - 2), Ch{u' ', w[cut - 2].from});
        end += 1;
      }
      i = end;
    }
    // Up to four numbers, each pushing the ones before it up.
    DWORD fields[4] = {};
    int count = 0;
    size_t i = 0;
    while (count < 4) {
      while (i < w.size() && w[i].c == u' ') ++i;
      if (i >= w.size()) break;
      DWORD v = 0;
      while (i < w.size() && digit(w[i].c)) v = v * 10 + DWORD(w[i++].c - u'0');
      fields[0] = fields[1], fields[1] = fields[2], fields[2] = fields[3], fields[3] = v;
      ++count;
    }
    l->hours = fields[0];
    l->minutes = fields[1];
    l->seconds = fields[2];
    l->frames = fields[3];
    if (knownType(l->type)) {
      const DWORD perSecond = ratesOf(l->type).perSecond;
      l->seconds += l->frames / perSecond;
      l->frames %= perSecond;
    }
    l->minutes += l->seconds / 60;
    l->seconds %= 60;
    l->hours += l->minutes / 60;
    l->minutes %= 60;
    l->hours %= 24;
    while (i < w.size() && w[i].c == u' ') ++i;
    return i >= w.size() ? text + n : text + w[i].from;
  } catch (...) {
    return text;
  }
}

void KASMPTE_AddSMPTE(_smpteval* a, const _smpteval* b) noexcept {
  if (!a || !b) return;
  DWORD sum = KASMPTE_SMPTEToFrameCount(a) + KASMPTE_SMPTEToFrameCount(b);
  if (const DWORD day = KASMPTE_FramesPerDay(a->type)) sum %= day;
  KASMPTE_FrameCountToSMPTE(a, sum);
}

void KASMPTE_SubtractSMPTE(_smpteval* a, const _smpteval* b) noexcept {
  if (!a || !b) return;
  const INT64 d = INT64(KASMPTE_SMPTEToFrameCount(a)) - INT64(KASMPTE_SMPTEToFrameCount(b));
  const INT64 day = KASMPTE_FramesPerDay(a->type);
  if (!day) return;  // an unknown type has no day to wrap in
  KASMPTE_FrameCountToSMPTE(a, DWORD(d < 0 ? day - (-d % day) : d % day));
}

int KASMPTE_SMPTECompare(const _smpteval* a, const _smpteval* b) noexcept {
  if (!a || !b) return 0;
  const DWORD x[4] = {a->hours, a->minutes, a->seconds, a->frames};
  const DWORD y[4] = {b->hours, b->minutes, b->seconds, b->frames};
  for (int i = 0; i < 4; ++i)
    if (x[i] != y[i]) return x[i] > y[i] ? 1 : -1;
  return 0;
}

void KASMPTE_IncrementByFrame(_smpteval* l, DWORD frames) noexcept {
  if (!l) return;
  const uint64_t day = KASMPTE_FramesPerDay(l->type);
  if (!day) return;
  KASMPTE_FrameCountToSMPTE(l, DWORD((uint64_t(KASMPTE_SMPTEToFrameCount(l)) + frames) % day));
}

void KASMPTE_DeccrementByFrame(_smpteval* l, DWORD frames) noexcept {
  if (!l) return;
  const uint64_t day = KASMPTE_FramesPerDay(l->type);
  if (!day) return;
  const uint64_t back = frames % day;
  KASMPTE_FrameCountToSMPTE(l, DWORD((KASMPTE_SMPTEToFrameCount(l) + day - back) % day));
}

int KASMPTE_SMPTEToText(const _smpteval* l, KAWCHAR* text, int chars) noexcept {
  if (!l || !text || chars < 12) return 0;
  char s[32];
  const int n = std::snprintf(s, sizeof s, "%02u:%02u:%02u%c%02u", unsigned(l->hours % 100),
                              unsigned(l->minutes % 100), unsigned(l->seconds % 100),
                              l->type == 2 ? ';' : ':', unsigned(l->frames % 100));
  if (n < 0 || n >= chars) return 0;
  for (int i = 0; i <= n; ++i) text[i] = KAWCHAR(s[i]);
  return n;
}
