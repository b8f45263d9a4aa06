// Audio sample processing: the wave-format model (_kawaveformat, KASAMPLETYPE and the
// system descriptions), sample conversion and mixing.
#pragma once

#include "ostra/kadefs.h"

// ---------------------------------------------------------------- system descriptions
// The platform's wave-format records, declared here since POSIX has none. Packed to
// their on-disk sizes: 18 bytes and 40 bytes.
#define WAVE_FORMAT_PCM 0x0001u
#define WAVE_FORMAT_IEEE_FLOAT 0x0003u
#define WAVE_FORMAT_EXTENSIBLE 0xFFFEu

#pragma pack(push, 1)
struct WAVEFORMATEX {
  WORD wFormatTag;
  WORD nChannels;
  DWORD nSamplesPerSec;
  DWORD nAvgBytesPerSec;
  WORD nBlockAlign;
  WORD wBitsPerSample;
  WORD cbSize;
};
struct WAVEFORMATEXTENSIBLE {
  WAVEFORMATEX Format;
  union {
    WORD wValidBitsPerSample;
    WORD wSamplesPerBlock;
    WORD wReserved;
  } Samples;
  DWORD dwChannelMask;
  GUID SubFormat;
};
#pragma pack(pop)
static_assert(sizeof(WAVEFORMATEX) == 18);
static_assert(sizeof(WAVEFORMATEXTENSIBLE) == 40);

// ---------------------------------------------------------------- sample types
enum KASAMPLETYPE : int32_t {
  KASAMPLE_NONE = 0,
  KASAMPLE_PCM8 = 16,
  KASAMPLE_PCM16 = 17,
  KASAMPLE_PCM24 = 18,
  KASAMPLE_PCM32 = 19,
  KASAMPLE_FLOAT32 = 32,
  KASAMPLE_FLOAT64 = 33,
  KASAMPLE_PCM24IN32 = 48,
  KASAMPLE_PCM8SIGNED = 49,
  KASAMPLE_MAC16 = 64,
  KASAMPLE_MAC24 = 65,
  KASAMPLE_MAC32 = 66,
  KASAMPLE_RA16 = 128,
  KASAMPLE_RA24 = 129,
};

// The kernel's private format tags.
#define WAVE_FORMAT_KA_PCM24IN32 0xFE00u
#define WAVE_FORMAT_KA_PCM8SIGNED 0xFE01u
#define WAVE_FORMAT_KA_BIGENDIAN 0xFE02u
#define WAVE_FORMAT_KA_RA 0xFE03u

#define KAWF_FLAG_RAW 0x8u
#define KAWF_FLAG_EXTENSIBLE 0x10u
#define KAWAVEFORMAT_MAX_EXTRA 1024u
