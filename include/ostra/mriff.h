// RIFF over memory (mriff_*): the chunk operations of ostra/riff.h over a caller's buffer
// instead of a file handle, for parsing wave images already in memory and for building
// small RIFF images in a buffer of fixed capacity. Same names, arguments, layout and
// result codes as the riff_* namesakes. Positions are clamped into the buffer, never
// refused, and no operation touches a byte outside [base, capacityEnd).
#pragma once

#include "ostra/kaaudio.h"
#include "ostra/riff.h"

// The memory record, owned by the caller; the family never allocates or frees it or the
// buffer. Offsets inside the buffer are 32-bit, so a buffer holds at most 4 GiB - 1.
struct _tMRIFF {
  BYTE* base;         // offset 0 of the RIFF image
  BYTE* current;      // read/write position, within [base, dataEnd]
  BYTE* dataEnd;      // one past the last valid byte; writes past it move it
  BYTE* capacityEnd;  // one past the last writable byte
  DWORD dataSize;     // as given to mriff_Init
  DWORD capacity;     // as given to mriff_Init
};
