// Time code at every frame of the day in all six formats: count -> label -> count is the
// identity, no dropped label is ever produced, labels survive the text form and the tick
// form, stepping agrees with counting, and the labels agree with libavutil's.
#include <gtest/gtest.h>

extern "C" {
#include <libavutil/rational.h>
#include <libavutil/timecode.h>
}

#include <string>

#include "ostra/kasmpte.h"

namespace {

_smpteval label(DWORD type, DWORD h, DWORD m, DWORD s, DWORD f) { return {type, h, m, s, f}; }

std::u16string text(const _smpteval& l) {
  KAWCHAR buf[16] = {};
  const int n = KASMPTE_SMPTEToText(&l, buf, 16);
  return std::u16string(buf, size_t(n > 0 ? n : 0));
}

std::string narrow(const std::u16string& s) { return std::string(s.begin(), s.end()); }

bool same(const _smpteval& a, const _smpteval& b) {
  return a.hours == b.hours && a.minutes == b.minutes && a.seconds == b.seconds &&
         a.frames == b.frames;
}

TEST(Smpte, EveryFrameOfTheDayInEveryFormat) {
  for (DWORD type = 1; type <= 6; ++type) {
    SCOPED_TRACE("type " + std::to_string(type));
    const DWORD day = KASMPTE_FramesPerDay(type);
    const DWORD perSecond = type == 3 ? 25 : (type == 4 || type == 6) ? 24 : 30;
    _smpteval step{type, 0, 0, 0, 0};
    int failures = 0;
    for (DWORD count = 0; count < day && failures < 5; ++count) {
      _smpteval l{type, 99, 99, 99, 99};
      KASMPTE_FrameCountToSMPTE(&l, count);
      const bool legal = l.hours < 24 && l.minutes < 60 && l.seconds < 60 && l.frames < perSecond &&
                         !(type == 2 && l.frames < 2 && l.seconds == 0 && l.minutes % 10 != 0);
      const bool counts = KASMPTE_SMPTEToFrameCount(&l) == count;
      _smpteval t{type, 0, 0, 0, 0};
      KASMPTE_NanoToSMPTE(KASMPTE_SMPTEToNanos(&l), &t);
      const bool ticks = same(t, l);
      const bool stepped = same(step, l);
      KASMPTE_IncrementByFrame(&step, 1);
      if (!legal || !counts || !ticks || !stepped) {
        ++failures;
        ADD_FAILURE() << "count " << count << " -> " << narrow(text(l)) << (legal ? "" : " illegal")
                      << (counts ? "" : " count differs") << (ticks ? "" : " ticks differ")
                      << (stepped ? "" : " stepping differs");
      }
    }
    EXPECT_EQ(step.hours + step.minutes + step.seconds + step.frames, 0u) << "midnight";
  }
}

// Text -> label for every label a day holds, at a stride that visits every frame number,
// every second, minute and hour (a full sweep adds nothing the formatter does not share).
TEST(Smpte, DisplayTextParsesBackToTheSameLabel) {
  for (DWORD type = 1; type <= 6; ++type) {
    const DWORD day = KASMPTE_FramesPerDay(type);
    for (DWORD count = 0; count < day; count += 7) {
      _smpteval l{type, 0, 0, 0, 0}, back{type, 0, 0, 0, 0};
      KASMPTE_FrameCountToSMPTE(&l, count);
      const std::u16string t = text(l);
      const KAWCHAR* end = KASMPTE_TextToSMPTE(&back, t.c_str());
      ASSERT_TRUE(same(back, l)) << narrow(t);
      ASSERT_EQ(*end, 0) << narrow(t);
    }
  }
}

// A second opinion over whole days: libavutil's drop-frame adjustment and label fields for
// the same frame numbers (its string form is checked at a stride, being slow).
TEST(Smpte, LabelsAgreeWithLibavutil) {
  const struct {
    DWORD type;
    AVRational rate;
    int flags;
  } formats[] = {{1, {30, 1}, 0},
                 {2, {30000, 1001}, AV_TIMECODE_FLAG_DROPFRAME},
                 {3, {25, 1}, 0},
                 {4, {24, 1}, 0},
                 {6, {24000, 1001}, 0}};
  for (const auto& f : formats) {
    SCOPED_TRACE("type " + std::to_string(f.type));
    AVTimecode tc{};
    ASSERT_EQ(av_timecode_init(&tc, f.rate, f.flags | AV_TIMECODE_FLAG_24HOURSMAX, 0, nullptr), 0);
    const DWORD fps = tc.fps;
    char theirs[AV_TIMECODE_STR_SIZE];
    int failures = 0;
    for (DWORD count = 0; count < KASMPTE_FramesPerDay(f.type) && failures < 5; ++count) {
      _smpteval l{f.type, 0, 0, 0, 0};
      KASMPTE_FrameCountToSMPTE(&l, count);
      const DWORD n =
          f.flags ? DWORD(av_timecode_adjust_ntsc_framenum2(int(count), int(fps))) : count;
      const _smpteval t{f.type, n / (fps * 3600) % 24, n / (fps * 60) % 60, n / fps % 60, n % fps};
      if (!same(l, t) || (count % 997 == 0 &&
                          narrow(text(l)) != av_timecode_make_string(&tc, theirs, int(count)))) {
        ++failures;
        ADD_FAILURE() << count << ": ours " << narrow(text(l)) << ", libavutil " << narrow(text(t));
      }
    }
  }
}

TEST(Smpte, TheDocumentedCases) {
  // Counts of labels, including one that does not exist.
  const struct {
    _smpteval l;
    DWORD count;
  } counts[] = {{label(2, 0, 1, 0, 0), 1800},        {label(2, 0, 10, 0, 0), 17982},
                {label(0, 1, 2, 3, 4), 0},           {label(7, 1, 2, 3, 4), 0},
                {label(3, 23, 59, 59, 24), 2159999}, {label(2, 23, 59, 59, 29), 2589407}};
  for (const auto& c : counts)
    EXPECT_EQ(KASMPTE_SMPTEToFrameCount(&c.l), c.count) << narrow(text(c.l));
  _smpteval l{2, 0, 0, 0, 0};
  KASMPTE_FrameCountToSMPTE(&l, 1800);
  EXPECT_EQ(text(l), u"00:01:00;02");

  // Arithmetic round midnight.
  _smpteval a = label(1, 23, 59, 59, 29), one = label(1, 0, 0, 0, 1);
  KASMPTE_AddSMPTE(&a, &one);
  EXPECT_EQ(text(a), u"00:00:00:00");
  _smpteval z = label(3, 0, 0, 0, 0), one25 = label(3, 0, 0, 0, 1);
  KASMPTE_SubtractSMPTE(&z, &one25);
  EXPECT_EQ(text(z), u"23:59:59:24");
  _smpteval d = label(3, 0, 0, 0, 0);
  KASMPTE_DeccrementByFrame(&d, 1);
  EXPECT_EQ(text(d), u"23:59:59:24");
  _smpteval drop = label(2, 0, 0, 59, 29);
  KASMPTE_IncrementByFrame(&drop, 1);  // over the dropped labels of minute 1
  EXPECT_EQ(text(drop), u"00:01:00;02");
  KASMPTE_DeccrementByFrame(&drop, 1);
  EXPECT_EQ(text(drop), u"00:00:59;29");

  // Text forms: separators, pairs, carries, trailing separators and spaces.
  const struct {
    DWORD type;
    const char16_t* in;
    const char16_t* out;
    size_t parsed;
  } texts[] = {{1, u"1:2:3:4", u"01:02:03:04", 7},   {1, u"01020304", u"01:02:03:04", 8},
               {3, u"75", u"00:00:03:00", 2},        {1, u"12:", u"00:00:12:00", 3},
               {1, u"12:  ", u"00:00:12:00", 5},     {1, u"5", u"00:00:00:05", 1},
               {1, u"1 2", u"00:00:01:02", 3},       {1, u"25:00:00:00", u"01:00:00:00", 11},
               {1, u"1:2:3:4:5", u"01:02:03:04", 8}, {4, u"0:59:59:48", u"01:00:01:00", 10}};
  for (const auto& t : texts) {
    _smpteval r{t.type, 9, 9, 9, 9};
    const KAWCHAR* end = KASMPTE_TextToSMPTE(&r, t.in);
    EXPECT_EQ(text(r), t.out) << narrow(t.in);
    EXPECT_EQ(size_t(end - t.in), t.parsed) << narrow(t.in);
    EXPECT_EQ(r.type, t.type);
  }

  // Ticks.
  const _smpteval second = label(3, 0, 0, 1, 0);
  EXPECT_EQ(KASMPTE_SMPTEToNanos(&second), 10000000);
  _smpteval back{3, 0, 0, 0, 0};
  KASMPTE_NanoToSMPTE(10000000, &back);
  EXPECT_EQ(text(back), u"00:00:01:00");
  const _smpteval ntsc = label(5, 0, 0, 1, 0);  // 30 frames at 30000/1001
  EXPECT_EQ(KASMPTE_SMPTEToNanos(&ntsc), 10010000);
  EXPECT_EQ(KASMPTE_SmpteLikeToNanos(50.0, &second), 10000000);
  EXPECT_EQ(KASMPTE_SMPTECompare(&second, &back), 0);
  EXPECT_EQ(KASMPTE_SMPTECompare(&second, &one25), 1);
  EXPECT_EQ(KASMPTE_SMPTECompare(&one25, &second), -1);
}

}  // namespace
