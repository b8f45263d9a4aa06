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

// The standard media sub-types: the format code in the first field, the rest fixed.
inline constexpr GUID KSDATAFORMAT_SUBTYPE_PCM = KaGuid("00000001-0000-0010-8000-00AA00389B71");
inline constexpr GUID KSDATAFORMAT_SUBTYPE_IEEE_FLOAT =
    KaGuid("00000003-0000-0010-8000-00AA00389B71");
// The sub-type of a format code; the extensible record carries codes this way.
constexpr GUID KaAudio_SubFormatFromTag(WORD tag) noexcept {
  GUID g = KSDATAFORMAT_SUBTYPE_PCM;
  g.Data1 = tag;
  return g;
}

// ---------------------------------------------------------------- _kawaveformat
// Which system description KaAudio_GeneralCopyWfx produces.
enum KAWAVEFORMAT_COPY_DEST : int32_t {
  KAWFCOPY_AUTO = 0,              // extensible when it came from one or has a non-default mask
  KAWFCOPY_WFX = 1,               // plain; a raw record's mask may still ask for extensible
  KAWFCOPY_WFX_NOMASK = 2,        // plain, mask ignored
  KAWFCOPY_EXT_MULTICHANNEL = 3,  // extensible for more than two channels
  KAWFCOPY_EXT = 4,               // always extensible
};

#define KAWAVEFORMAT_FIXED_SIZE 32u    // bytes before the extra-size field
#define KAWAVEFORMAT_EXTRA_OFFSET 34u  // first extra byte
#define KAWAVEFORMAT_BUFFER_SIZE 136u  // what callers usually reserve

// The kernel's description of audio. A buffer holding one may be smaller than
// sizeof(_kawaveformat): every function that fills one takes the buffer's size, and
// dwSize tells how many bytes are valid (32 plus the extra bytes). The extra-size field
// exists only in buffers of at least 34 bytes.
struct OSTRA_API _kawaveformat {
  DWORD dwSize;             // valid bytes: 32 + cbExtra
  KASAMPLETYPE SampleType;  // KASAMPLE_NONE for raw (compressed) records
  DWORD nSamplesPerSec;
  WORD nChannels;
  WORD nBlockAlign;     // bytes per frame, all channels
  DWORD dwChannelMask;  // 0: the lowest nChannels speaker bits
  DWORD dwFlags;        // KAWF_FLAG_RAW, KAWF_FLAG_EXTENSIBLE
  WORD wFormatTag;      // raw records only
  WORD wBitsPerSample;  // raw records only
  DWORD nAvgBytesPerSec;
  WORD cbExtra;  // only when the buffer has at least 34 bytes
  BYTE abExtra[KAWAVEFORMAT_MAX_EXTRA];

  // Clears the buffer (32 bytes when bufferSize is below 34, else bufferSize bytes) and
  // describes uncompressed audio of the given type.
  void Init(DWORD samplesPerSec, KASAMPLETYPE type, WORD channels, DWORD channelMask,
            DWORD bufferSize) noexcept;
  // As Init, with the type derived from a tag and bit depth (PCM 20 bits counts as 24);
  // an unknown pair makes a raw record.
  void InitAsWfx(WORD formatTag, DWORD samplesPerSec, WORD bitsPerSample, WORD channels,
                 DWORD channelMask, DWORD bufferSize) noexcept;
  // From a system description (plain or extensible). A null description clears the record.
  void Init(DWORD bufferSize, const WAVEFORMATEX* wfx) noexcept;
  // Recomputes block align and average bytes per second of a typed record; returns the
  // block align.
  WORD UpdateBlockAlign() noexcept;
  WORD FormatTag() const noexcept;
  WORD BitsPerSample() const noexcept;
  WORD BytesPerSample() const noexcept;
  bool IsCompressed() const noexcept { return (dwFlags & KAWF_FLAG_RAW) != 0; }
  // The mask in use: dwChannelMask, or the default mask when it is 0.
  DWORD EffectiveChannelMask() const noexcept;
  // Extra bytes actually held (0 when the record has no extra-size field).
  WORD ExtraSize() const noexcept;
  bool IsEqual(const _kawaveformat& other) const noexcept;
  bool IsEqual(const WAVEFORMATEX& wfx) const noexcept;
  bool operator==(const _kawaveformat& other) const noexcept { return IsEqual(other); }
  bool operator==(const WAVEFORMATEX& wfx) const noexcept { return IsEqual(wfx); }
};
static_assert(offsetof(_kawaveformat, cbExtra) == 32 && offsetof(_kawaveformat, abExtra) == 34);

// The mask with the lowest `channels` bits set.
constexpr DWORD KaAudio_DefaultChannelMask(WORD channels) noexcept {
  return channels >= 32 ? 0xFFFFFFFFu : ((1u << channels) - 1u);
}

// ---------------------------------------------------------------- free functions
OSTRA_API KASAMPLETYPE KaAudio_GetSampleType(const WAVEFORMATEX* wfx) noexcept;
OSTRA_API KASAMPLETYPE KaAudio_GetSampleType2(WORD formatTag, WORD bitsPerSample) noexcept;
OSTRA_API int KaAudio_BytesFromSampleType(KASAMPLETYPE type) noexcept;
OSTRA_API int KaAudio_BitsFromSampleType(KASAMPLETYPE type) noexcept;
OSTRA_API WORD KaAudio_FormatTagFromSampleType(KASAMPLETYPE type) noexcept;
// Channels, rate, tag and bits only.
OSTRA_API BOOL KaAudio_IsEqualFormat(const WAVEFORMATEX* a, const WAVEFORMATEX* b) noexcept;
// PCM only: 20 bits become 24, block align becomes bits / 8 * channels. 1 when changed.
OSTRA_API BOOL KaAudio_FixBadWfx(WAVEFORMATEX* wfx) noexcept;
// A copy in zeroed global memory (free with KaAudio_FreeWfx), rebuilt through a record
// when `dest` asks for the other kind of description. Null on failure.
OSTRA_API WAVEFORMATEX* KaAudio_AllocAndCopyWfx(const WAVEFORMATEX* wfx,
                                                KAWAVEFORMAT_COPY_DEST dest) noexcept;
OSTRA_API WAVEFORMATEX* KaAudio_AllocAndCopyWfx(const _kawaveformat* kwf,
                                                KAWAVEFORMAT_COPY_DEST dest) noexcept;
OSTRA_API void KaAudio_FreeWfx(WAVEFORMATEX* wfx) noexcept;
// Writes the system description of a record into dest (destSize bytes) and returns the
// bytes written (18 + cbSize), or -1 when the description asked for does not fit.
OSTRA_API int KaAudio_GeneralCopyWfx(WAVEFORMATEX* dest, DWORD destSize, const _kawaveformat* kwf,
                                     KAWAVEFORMAT_COPY_DEST copyDest) noexcept;
// Copies a record into a buffer of destSize bytes (at least 32); returns the new dwSize,
// or -1 when the destination is too small.
OSTRA_API int KaAudio_GeneralCopyKaWaveFormat(_kawaveformat* dest, DWORD destSize,
                                              const _kawaveformat* src) noexcept;
// Copies a description (18 + cbSize bytes) into dest of destSize bytes; returns the bytes
// copied, or -1 (dest untouched) when it does not fit.
OSTRA_API int KaAudio_CopyWfx(WAVEFORMATEX* dest, DWORD destSize, const WAVEFORMATEX* src) noexcept;
// Copies an extensible description (40 bytes); a plain source is copied as by
// KaAudio_CopyWfxToWfExt. Returns the bytes copied or -1.
OSTRA_API int KaAudio_CopyWfExt(WAVEFORMATEXTENSIBLE* dest,
                                const WAVEFORMATEXTENSIBLE* src) noexcept;
// Copies 18 + cbSize bytes of src, at most 40. Returns the bytes copied or -1.
OSTRA_API int KaAudio_CopyWfxToWfExt(WAVEFORMATEXTENSIBLE* dest, const WAVEFORMATEX* src) noexcept;
// Plain source: 18 bytes copied. Extensible PCM or IEEE float: tag 1 or 3, cbSize 0.
// Any other sub-format: dest untouched and FALSE.
OSTRA_API BOOL KaAudio_CopyWfExtToWfx(WAVEFORMATEX* dest, const WAVEFORMATEXTENSIBLE* src) noexcept;

// Display texts in the kernel's language, written into `text` (capacity in characters,
// terminator included) and truncated to fit. They return the length written, or -1 for
// a null buffer or a capacity of 0.
OSTRA_API int KaAudio_GetSampleTypeText(KASAMPLETYPE type, KAWCHAR* text, int capacity) noexcept;
// With `precision`, floating-point types read their mantissa precision (24, 53).
OSTRA_API int KaAudio_GetBitDepthText(KASAMPLETYPE type, BOOL precision, KAWCHAR* text,
                                      int capacity) noexcept;
// "48,000 Hz, 24 Bit, Stereo" and the like.
OSTRA_API int KaAudio_GetAttribsText(const _kawaveformat* kwf, KAWCHAR* text,
                                     int capacity) noexcept;

// ---------------------------------------------------------------- call helpers
// A system description built from a record for the length of a call. Extensible
// wherever KAWFCOPY_AUTO would choose it.
class OSTRA_API _kawaveformat_wfxplus {
 public:
  explicit _kawaveformat_wfxplus(const _kawaveformat& kwf,
                                 KAWAVEFORMAT_COPY_DEST dest = KAWFCOPY_AUTO) noexcept;
  const WAVEFORMATEX* get() const noexcept { return valid_ ? &wfx_.Format : nullptr; }
  operator const WAVEFORMATEX*() const noexcept { return get(); }
  DWORD size() const noexcept { return valid_ ? size_ : 0; }

 private:
  union {
    WAVEFORMATEXTENSIBLE wfx_;
    BYTE bytes_[sizeof(WAVEFORMATEXTENSIBLE) + KAWAVEFORMAT_MAX_EXTRA];
  };
  DWORD size_ = 0;
  bool valid_ = false;
};

// Plain 18-byte description of a record (no extra bytes).
class OSTRA_API _kawaveformat_wfxcopyhelper {
 public:
  explicit _kawaveformat_wfxcopyhelper(const _kawaveformat& kwf) noexcept;
  const WAVEFORMATEX* get() const noexcept { return &wfx_; }
  operator const WAVEFORMATEX*() const noexcept { return &wfx_; }

 private:
  WAVEFORMATEX wfx_;
};

// Extensible 40-byte description of a record (no extra bytes).
class OSTRA_API _kawaveformat_wfxecopyhelper {
 public:
  explicit _kawaveformat_wfxecopyhelper(const _kawaveformat& kwf) noexcept;
  const WAVEFORMATEXTENSIBLE* get() const noexcept { return &wfx_; }
  operator const WAVEFORMATEX*() const noexcept { return &wfx_.Format; }
  operator const WAVEFORMATEXTENSIBLE*() const noexcept { return &wfx_; }

 private:
  WAVEFORMATEXTENSIBLE wfx_;
};

// ---------------------------------------------------------------- conversion
// A converter: `samples` interleaved samples (frames times channels) from src to dest,
// scaled by `gain` (exactly 1.0 copies without scaling). It never fails; integer
// destinations clip. Widening converters walk from the last sample to the first, so a
// buffer may be converted in place when dest and src start at the same address.
typedef void (*KAAUDIO_COPYFUNCTION)(void* dest, const void* src, int32_t samples, float gain);

// The converter for a pair of sample types, or null when the pair has none.
OSTRA_API KAAUDIO_COPYFUNCTION KaAudio_GetCopyFunction2(KASAMPLETYPE dest,
                                                        KASAMPLETYPE src) noexcept;
OSTRA_API KAAUDIO_COPYFUNCTION KaAudio_GetCopyFunction(const WAVEFORMATEX* dest,
                                                       const WAVEFORMATEX* src) noexcept;
OSTRA_API KAAUDIO_COPYFUNCTION KaAudio_GetCopyFunction(const _kawaveformat* dest,
                                                       const WAVEFORMATEX* src) noexcept;
OSTRA_API KAAUDIO_COPYFUNCTION KaAudio_GetCopyFunction(const WAVEFORMATEX* dest,
                                                       const _kawaveformat* src) noexcept;
OSTRA_API KAAUDIO_COPYFUNCTION KaAudio_GetCopyFunction(const _kawaveformat* dest,
                                                       const _kawaveformat* src) noexcept;

// Converts `frames` frames. S_OK (also for 0 frames), E_NOTIMPL when the pair has no
// converter, E_POINTER for a null argument, E_INVALIDARG when the channel counts differ.
OSTRA_API HRESULT KaAudio_Copy(const _kawaveformat* destFormat, void* dest,
                               const _kawaveformat* srcFormat, const void* src, DWORD frames,
                               float gain = 1.0f) noexcept;
OSTRA_API HRESULT KaAudio_Copy(const WAVEFORMATEX* destFormat, void* dest,
                               const WAVEFORMATEX* srcFormat, const void* src, DWORD frames,
                               float gain = 1.0f) noexcept;
OSTRA_API HRESULT KaAudio_Copy(const _kawaveformat* destFormat, void* dest,
                               const WAVEFORMATEX* srcFormat, const void* src, DWORD frames,
                               float gain = 1.0f) noexcept;
OSTRA_API HRESULT KaAudio_Copy(const WAVEFORMATEX* destFormat, void* dest,
                               const _kawaveformat* srcFormat, const void* src, DWORD frames,
                               float gain = 1.0f) noexcept;

// Writes `frames` frames of silence (0x80 bytes for unsigned 8-bit, zero bytes for the
// other sample types). E_FAIL, nothing written, for a raw record or a type without
// converters.
OSTRA_API HRESULT KaAudio_FillSilence(const _kawaveformat* format, void* buffer,
                                      DWORD frames) noexcept;
OSTRA_API HRESULT KaAudio_FillSilence(const WAVEFORMATEX* format, void* buffer,
                                      DWORD frames) noexcept;

// Which variant the converter table chose for a pair: "plain", "sse2", "avx2" or "avx512"; null
// when the pair has no converter. Reflects the table as it would be built now.
OSTRA_API const char* KaAudio_GetConverterVariant(KASAMPLETYPE dest, KASAMPLETYPE src) noexcept;

// ---------------------------------------------------------------- mixing
// A mixer adds `samples` source samples (frames times channels), each scaled by the gain
// of its channel (gains[i % channels]), into dest. Integer destinations saturate;
// floating-point ones are not clipped. A buffer is never mixed into itself (dest == src
// does nothing). The 16-bit to 16-bit mixer applies gains[0] to every channel.
typedef void (*KAAUDIO_MIXFUNCTION)(void* dest, const void* src, int32_t samples, int32_t channels,
                                    const double* gains);

// The mixer for a pair among the eight linear types (8-bit, 16/24/32-bit, 24-in-32,
// signed 8-bit, single and double precision), or null.
OSTRA_API KAAUDIO_MIXFUNCTION KaAudio_GetMixFunction2(KASAMPLETYPE dest, KASAMPLETYPE src) noexcept;
OSTRA_API KAAUDIO_MIXFUNCTION KaAudio_GetMixFunction(const WAVEFORMATEX* dest,
                                                     const WAVEFORMATEX* src) noexcept;
OSTRA_API KAAUDIO_MIXFUNCTION KaAudio_GetMixFunction(const _kawaveformat* dest,
                                                     const _kawaveformat* src) noexcept;
// Mixes `frames` frames with one gain per source channel (null: all 1.0). S_OK (also for
// 0 frames), E_NOTIMPL without a mixer, E_INVALIDARG when the channel counts differ.
OSTRA_API HRESULT KaAudio_Mix(const _kawaveformat* destFormat, void* dest,
                              const _kawaveformat* srcFormat, const void* src, DWORD frames,
                              const double* gains) noexcept;
OSTRA_API HRESULT KaAudio_Mix(const WAVEFORMATEX* destFormat, void* dest,
                              const WAVEFORMATEX* srcFormat, const void* src, DWORD frames,
                              const double* gains) noexcept;
OSTRA_API HRESULT KaAudio_Mix(const _kawaveformat* destFormat, void* dest,
                              const WAVEFORMATEX* srcFormat, const void* src, DWORD frames,
                              const double* gains) noexcept;
OSTRA_API HRESULT KaAudio_Mix(const WAVEFORMATEX* destFormat, void* dest,
                              const _kawaveformat* srcFormat, const void* src, DWORD frames,
                              const double* gains) noexcept;
// "plain", "sse2", "avx2" or "avx512" for a pair of the mixer table; null without a mixer.
OSTRA_API const char* KaAudio_GetMixerVariant(KASAMPLETYPE dest, KASAMPLETYPE src) noexcept;

// ---------------------------------------------------------------- channel operations
// Interleaved buffers described by typed records (any type with converters). Channels
// count from 0. Every value passes through the converters, so scaling, clamping and
// rounding follow the conversion rules; a gain of exactly 1.0 copies without scaling.
// Results: S_OK; E_POINTER for a null argument; E_NOTIMPL for a raw record or a type
// without converters; E_INVALIDARG for a channel out of range, a record whose block
// align is not bytes times channels, or a channel map entry out of range; E_OUTOFMEMORY.
// Source and destination buffers must not overlap unless a function says otherwise.

// Destination channel c takes source channel channelMap[c] (silence for -1), converted
// and scaled. channelMap holds destFormat->nChannels entries; null maps channel c to
// channel c (silence where the source has fewer channels).
OSTRA_API HRESULT KaAudio_CopyChannels(const _kawaveformat* destFormat, void* dest,
                                       const _kawaveformat* srcFormat, const void* src,
                                       DWORD frames, const int32_t* channelMap,
                                       float gain = 1.0f) noexcept;
// Within one buffer: channel destChannel becomes channel srcChannel times gain.
OSTRA_API HRESULT KaAudio_CopyChannelToChannel(const _kawaveformat* format, void* buffer,
                                               DWORD frames, WORD srcChannel, WORD destChannel,
                                               float gain = 1.0f) noexcept;
// Within one buffer: every other channel becomes channel srcChannel times gain (the
// source channel itself is scaled too).
OSTRA_API HRESULT KaAudio_CopyChannelToAll(const _kawaveformat* format, void* buffer, DWORD frames,
                                           WORD srcChannel, float gain = 1.0f) noexcept;
// One channel of src into the mono buffer dest (destFormat must have one channel).
OSTRA_API HRESULT KaAudio_ExtractChannel(const _kawaveformat* destFormat, void* dest,
                                         const _kawaveformat* srcFormat, const void* src,
                                         DWORD frames, WORD channel, float gain = 1.0f) noexcept;
// The mono buffer src into one channel of dest; the other channels are left as they are.
OSTRA_API HRESULT KaAudio_InsertChannel(const _kawaveformat* destFormat, void* dest, WORD channel,
                                        const _kawaveformat* srcFormat, const void* src,
                                        DWORD frames, float gain = 1.0f) noexcept;
// Every sample becomes `value` (full scale +-1.0), clamped and rounded for integer types.
OSTRA_API HRESULT KaAudio_FillWithSample(const _kawaveformat* format, void* buffer, DWORD frames,
                                         double value) noexcept;
// Reverses the order of the frames in place (the channel order within a frame stays).
OSTRA_API HRESULT KaAudio_Reverse(const _kawaveformat* format, void* buffer, DWORD frames) noexcept;
// Swaps channels 0 and 1 of every frame (at least two channels).
OSTRA_API HRESULT KaAudio_SwapStereoChannels(const _kawaveformat* format, void* buffer,
                                             DWORD frames) noexcept;
// Every channel of a frame becomes the average of the frame's channels.
OSTRA_API HRESULT KaAudio_MonoChannel(const _kawaveformat* format, void* buffer,
                                      DWORD frames) noexcept;
// Silences one channel.
OSTRA_API HRESULT KaAudio_MuteChannel(const _kawaveformat* format, void* buffer, DWORD frames,
                                      WORD channel) noexcept;

// ---------------------------------------------------------------- matrices and levels
// Adds a channel matrix of src into dest: destination channel d receives the sum over
// source channels s of matrix[d * srcChannels + s] times the source sample, formed in
// double precision, then added as a mixer adds (integers saturate). Channel counts may
// differ.
OSTRA_API HRESULT KaAudio_MixEx(const _kawaveformat* destFormat, void* dest,
                                const _kawaveformat* srcFormat, const void* src, DWORD frames,
                                const double* matrix) noexcept;
// Writes src into dest with another channel count (types may differ too): equal counts
// copy; to mono, the average of all channels; from mono, the source in every channel;
// otherwise source channel k feeds destination channel k % destChannels, each
// destination channel the average of the channels feeding it, and destination channels
// no source feeds are silent.
OSTRA_API HRESULT KaAudio_ChannelChange(const _kawaveformat* destFormat, void* dest,
                                        const _kawaveformat* srcFormat, const void* src,
                                        DWORD frames) noexcept;
// Root mean square per channel into rms[nChannels], full scale 1.0. NaN samples are
// skipped; 0 frames give 0.
OSTRA_API HRESULT KaAudio_CalcRMS(const _kawaveformat* format, const void* buffer, DWORD frames,
                                  double* rms) noexcept;
// Largest magnitude per channel into peaks[nChannels] (full scale 1.0; floating-point
// samples may exceed it) and, when peakFrames is not null, the first frame reaching it.
// NaN samples are skipped.
OSTRA_API HRESULT KaAudio_FindPeaks(const _kawaveformat* format, const void* buffer, DWORD frames,
                                    double* peaks, DWORD* peakFrames) noexcept;
// The gain that brings the largest magnitude over all channels to targetPeak. A silent
// buffer gives 1.0 and S_FALSE.
OSTRA_API HRESULT KaAudio_GetNormalizeFactor(const _kawaveformat* format, const void* buffer,
                                             DWORD frames, double targetPeak,
                                             double* factor) noexcept;
