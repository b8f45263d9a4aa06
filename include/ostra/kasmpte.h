// SMPTE time code: labels (hours, minutes, seconds, frames in one of six formats), frame
// counts, times in 100-nanosecond ticks, typed text, and label arithmetic.
//
// Formats (the type field): 1 = 30 fps; 2 = 30 drop-frame at 30000/1001 fps; 3 = 25 fps;
// 4 = 24 fps; 5 = 30 non-drop at 30000/1001 fps; 6 = 24 at 24000/1001 fps. Drop-frame
// labels skip frame numbers 0 and 1 at the start of every minute except minutes 0, 10,
// 20, 30, 40 and 50. Times are ticks although the names say "Nanos".
#pragma once

#include "ostra/kadefs.h"

struct _smpteval {
  DWORD type;
  DWORD hours;
  DWORD minutes;
  DWORD seconds;
  DWORD frames;
};

#define KASMPTE_TYPE_30 1u
#define KASMPTE_TYPE_30DROP 2u
#define KASMPTE_TYPE_25 3u
#define KASMPTE_TYPE_24 4u
#define KASMPTE_TYPE_30NONDROP 5u
#define KASMPTE_TYPE_23976 6u

// Label to frame count (32-bit); 0 for an unknown type. A drop-frame label that does not
// exist counts as the first label of its minute.
OSTRA_API DWORD KASMPTE_SMPTEToFrameCount(const _smpteval* label) noexcept;
// Frame count to label; label->type says the format (any type other than 1, 3, 4, 5, 6
// takes the drop-frame path).
OSTRA_API void KASMPTE_FrameCountToSMPTE(_smpteval* label, DWORD frames) noexcept;
OSTRA_API INT64 KASMPTE_SMPTEToNanos(const _smpteval* label) noexcept;
// Ticks of a label read at an arbitrary frame rate.
OSTRA_API INT64 KASMPTE_SmpteLikeToNanos(double rate, const _smpteval* label) noexcept;
OSTRA_API void KASMPTE_NanoToSMPTE(INT64 ticks, _smpteval* label) noexcept;
// Parses typed text into the label (its type stays); returns the first character not
// parsed (the terminator when all was parsed).
OSTRA_API const KAWCHAR* KASMPTE_TextToSMPTE(_smpteval* label, const KAWCHAR* text) noexcept;
// a := a + b and a := a - b as frame counts, within 24 hours of a's type.
OSTRA_API void KASMPTE_AddSMPTE(_smpteval* a, const _smpteval* b) noexcept;
OSTRA_API void KASMPTE_SubtractSMPTE(_smpteval* a, const _smpteval* b) noexcept;
// 1, 0 or -1 by hours, minutes, seconds, frames (the type is not compared).
OSTRA_API int KASMPTE_SMPTECompare(const _smpteval* a, const _smpteval* b) noexcept;
// Moves the label by `frames` frames, round midnight and over dropped labels, as Add and
// Subtract would.
OSTRA_API void KASMPTE_IncrementByFrame(_smpteval* label, DWORD frames) noexcept;
OSTRA_API void KASMPTE_DeccrementByFrame(_smpteval* label, DWORD frames) noexcept;

// The display form: "HH:MM:SS:FF", with ';' before the frames in drop-frame; `chars` must
// hold 12. Returns the characters written without the terminator (0 when too small).
OSTRA_API int KASMPTE_SMPTEToText(const _smpteval* label, KAWCHAR* text, int chars) noexcept;
// Frames in 24 hours of a type; 0 for an unknown type.
OSTRA_API DWORD KASMPTE_FramesPerDay(DWORD type) noexcept;
