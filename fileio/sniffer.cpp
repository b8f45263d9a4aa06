// The format sniffer: a media format from the first bytes of a file, as a format
// identifier (4097 and up; 0 unknown), and the table that says which readers to ask, in
// order, for each identifier. The identifiers are part of the interface: hosts store them.
#include <cstring>
#include <iterator>

#include "fileio/internal/manager.h"

namespace ostra::fileio {
namespace {

enum : DWORD {
  kWave = 4097,
  kRf64 = 4098,
  kWave64 = 4099,
  kAiff = 4100,
  kAifc = 4101,
  kFlac = 4102,
  kOggVorbis = 4103,
  kOggOpus = 4104,
  kMpeg4 = 4105,
  kMpegAudio = 4106,
  kAdts = 4107,
  kSunAu = 4108,
  kCaf = 4109,
  kAvi = 4110,
  kMpeg4Audio = 4111,
  kQuickTime = 4112,
  kMxf = 4113,
  kAsf = 4114,
  kAc3 = 4115,
  kDts = 4116,
  kOggTheora = 4117,
  kOgg = 4118,
  kMpegProgram = 4119,
  kMpegVideo = 4120,
  kMpegTransport = 4121,
  k3gp = 4122,
  kWebm = 4123,
  kIrcam = 4124,
  kMatroska = 4125,
  kAmr = 4126,
  kWavPack = 4127,
  kPng = 4128,
  kJpeg = 4129,
  kBmp = 4130,
  kGif = 4131,
  kTiff = 4132,
  kH264 = 4133,
  kHevc = 4134,
  kFlv = 4135,
  k8svx = 4136,
  kHeif = 4137,
  kWebp = 4138,
  kTta = 4139,
};

struct Named {
  DWORD id;
  const char* name;
};
constexpr Named kNames[] = {
    {kWave, "RIFF wave"},
    {kRf64, "RF64 wave"},
    {kWave64, "Wave64"},
    {kAiff, "AIFF"},
    {kAifc, "AIFC"},
    {kFlac, "FLAC"},
    {kOggVorbis, "Ogg Vorbis"},
    {kOggOpus, "Ogg Opus"},
    {kMpeg4, "MPEG-4"},
    {kMpegAudio, "MPEG audio"},
    {kAdts, "AAC (ADTS)"},
    {kSunAu, "Sun/NeXT audio"},
    {kCaf, "Core Audio Format"},
    {kAvi, "AVI"},
    {kMpeg4Audio, "MPEG-4 audio"},
    {kQuickTime, "QuickTime movie"},
    {kMxf, "MXF"},
    {kAsf, "ASF"},
    {kAc3, "AC-3"},
    {kDts, "DTS"},
    {kOggTheora, "Ogg Theora"},
    {kOgg, "Ogg"},
    {kMpegProgram, "MPEG program stream"},
    {kMpegVideo, "MPEG video"},
    {kMpegTransport, "MPEG transport stream"},
    {k3gp, "3GPP"},
    {kWebm, "WebM"},
    {kIrcam, "IRCAM sound"},
    {kMatroska, "Matroska"},
    {kAmr, "AMR"},
    {kWavPack, "WavPack"},
    {kPng, "PNG"},
    {kJpeg, "JPEG"},
    {kBmp, "BMP"},
    {kGif, "GIF"},
    {kTiff, "TIFF"},
    {kH264, "H.264 elementary stream"},
    {kHevc, "HEVC elementary stream"},
    {kFlv, "FLV"},
    {k8svx, "8SVX"},
    {kHeif, "HEIF"},
    {kWebp, "WebP"},
    {kTta, "TTA"},
};

constexpr CLSID K = CLSID_KaFioKernelFormatsReader;
constexpr CLSID A = CLSID_KaFioAudioReader;
constexpr CLSID M = CLSID_KaFioMediaReader;
constexpr CLSID C = CLSID_KaFioCompoundReader;

// For each identifier its readers, best first: the kernel's own reader for the formats it
// reads, the compound reader for containers that carry several essences, the general audio
// reader for audio, and the general media reader for everything as the last resort.
constexpr FormatRow kTable[] = {
    {kWave, K},          {kWave, A},          {kWave, M},          {kRf64, K},
    {kRf64, A},          {kRf64, M},          {kWave64, K},        {kWave64, A},
    {kWave64, M},        {kAiff, K},          {kAiff, A},          {kAiff, M},
    {kAifc, K},          {kAifc, A},          {kAifc, M},          {kFlac, A},
    {kFlac, M},          {kFlac, C},          {kOggVorbis, A},     {kOggVorbis, M},
    {kOggVorbis, C},     {kOggOpus, A},       {kOggOpus, M},       {kOggOpus, C},
    {kMpeg4, C},         {kMpeg4, M},         {kMpeg4, A},         {kMpegAudio, M},
    {kMpegAudio, A},     {kMpegAudio, C},     {kAdts, M},          {kAdts, A},
    {kAdts, C},          {kSunAu, A},         {kSunAu, M},         {kSunAu, C},
    {kCaf, A},           {kCaf, M},           {kCaf, C},           {kAvi, C},
    {kAvi, M},           {kAvi, A},           {kMpeg4Audio, M},    {kMpeg4Audio, C},
    {kMpeg4Audio, A},    {kQuickTime, C},     {kQuickTime, M},     {kQuickTime, A},
    {kMxf, C},           {kMxf, M},           {kMxf, A},           {kAsf, M},
    {kAsf, C},           {kAsf, A},           {kAc3, M},           {kAc3, A},
    {kAc3, C},           {kDts, M},           {kDts, A},           {kDts, C},
    {kOggTheora, M},     {kOggTheora, C},     {kOggTheora, A},     {kOgg, A},
    {kOgg, M},           {kOgg, C},           {kMpegProgram, C},   {kMpegProgram, M},
    {kMpegProgram, A},   {kMpegVideo, M},     {kMpegVideo, C},     {kMpegVideo, A},
    {kMpegTransport, C}, {kMpegTransport, M}, {kMpegTransport, A}, {k3gp, C},
    {k3gp, M},           {k3gp, A},           {kWebm, C},          {kWebm, M},
    {kWebm, A},          {kIrcam, A},         {kIrcam, M},         {kIrcam, C},
    {kMatroska, C},      {kMatroska, M},      {kMatroska, A},      {kAmr, M},
    {kAmr, A},           {kAmr, C},           {kWavPack, A},       {kWavPack, M},
    {kWavPack, C},       {kPng, M},           {kPng, C},           {kPng, A},
    {kJpeg, M},          {kJpeg, C},          {kJpeg, A},          {kBmp, M},
    {kBmp, C},           {kBmp, A},           {kGif, M},           {kGif, C},
    {kGif, A},           {kTiff, M},          {kTiff, C},          {kTiff, A},
    {kH264, M},          {kH264, C},          {kH264, A},          {kHevc, M},
    {kHevc, C},          {kHevc, A},          {kFlv, M},           {kFlv, C},
    {kFlv, A},           {k8svx, A},          {k8svx, M},          {k8svx, C},
    {kHeif, M},          {kHeif, C},          {kHeif, A},          {kWebp, M},
    {kWebp, C},          {kWebp, A},          {kTta, A},           {kTta, M},
    {kTta, C},
};
static_assert(std::size(kTable) == kFormatRows, "the format table has 129 rows");

bool at(const BYTE* p, DWORD n, DWORD offset, const char* text) {
  const size_t len = std::strlen(text);
  return offset + len <= n && std::memcmp(p + offset, text, len) == 0;
}

bool atBytes(const BYTE* p, DWORD n, DWORD offset, std::initializer_list<BYTE> bytes) {
  if (offset + bytes.size() > n) return false;
  for (BYTE b : bytes)
    if (p[offset++] != b) return false;
  return true;
}

// The brand of an ISO media file ("ftyp" box at 4).
DWORD isoBrand(const BYTE* p, DWORD n) {
  if (!at(p, n, 4, "ftyp") || n < 12) return 0;
  const char* brand = reinterpret_cast<const char*>(p + 8);
  if (!std::memcmp(brand, "qt  ", 4)) return kQuickTime;
  if (!std::memcmp(brand, "M4A ", 4) || !std::memcmp(brand, "M4B ", 4)) return kMpeg4Audio;
  if (!std::memcmp(brand, "3gp", 3) || !std::memcmp(brand, "3g2", 3)) return k3gp;
  if (!std::memcmp(brand, "heic", 4) || !std::memcmp(brand, "mif1", 4) ||
      !std::memcmp(brand, "heix", 4) || !std::memcmp(brand, "avif", 4))
    return kHeif;
  return kMpeg4;
}

// The EBML document type (Matroska or WebM) within the head.
DWORD ebmlType(const BYTE* p, DWORD n) {
  const DWORD limit = n < 64 ? n : 64;
  for (DWORD i = 4; i + 6 <= limit; ++i)
    if (p[i] == 0x42 && p[i + 1] == 0x82) {
      if (at(p, limit, i + 3, "webm")) return kWebm;
      if (at(p, limit, i + 3, "matroska")) return kMatroska;
    }
  return kMatroska;
}

bool transportStream(const BYTE* p, DWORD n, DWORD packet, DWORD first) {
  if (n < first + 3 * packet + 1) return false;
  for (DWORD k = 0; k < 4 && first + k * packet < n; ++k)
    if (p[first + k * packet] != 0x47) return false;
  return true;
}

}  // namespace

const FormatRow* formatTable() { return kTable; }

bool formatHasMetadata(DWORD formatId) {
  return formatId == kMpeg4 || formatId == kQuickTime || formatId == kMxf ||
         formatId == kMpegTransport || formatId == kMatroska;
}

}  // namespace ostra::fileio

using namespace ostra::fileio;

DWORD KaFio_SniffFormat(const void* head, DWORD n) noexcept {
  if (!head || n < 4) return 0;
  const BYTE* p = static_cast<const BYTE*>(head);
  if (at(p, n, 0, "RIFF") || at(p, n, 0, "RIFX")) {
    if (at(p, n, 8, "WAVE")) return kWave;
    if (at(p, n, 8, "AVI ")) return kAvi;
    if (at(p, n, 8, "WEBP")) return kWebp;
    return 0;
  }
  if ((at(p, n, 0, "RF64") || at(p, n, 0, "BW64")) && at(p, n, 8, "WAVE")) return kRf64;
  if (atBytes(p, n, 0, {'r', 'i', 'f', 'f', 0x2E, 0x91, 0xCF, 0x11}) &&
      atBytes(p, n, 24, {'w', 'a', 'v', 'e', 0xF3, 0xAC, 0xD3, 0x11}))
    return kWave64;
  if (at(p, n, 0, "FORM")) {
    if (at(p, n, 8, "AIFF")) return kAiff;
    if (at(p, n, 8, "AIFC")) return kAifc;
    if (at(p, n, 8, "8SVX")) return k8svx;
    return 0;
  }
  if (at(p, n, 0, "fLaC")) return kFlac;
  if (at(p, n, 0, "OggS")) {
    if (at(p, n, 28, "\x01vorbis")) return kOggVorbis;
    if (at(p, n, 28, "OpusHead")) return kOggOpus;
    if (at(p, n, 28, "\x80theora")) return kOggTheora;
    return kOgg;
  }
  if (const DWORD brand = isoBrand(p, n)) return brand;
  if (at(p, n, 4, "moov") || at(p, n, 4, "mdat") || at(p, n, 4, "wide")) return kQuickTime;
  if (atBytes(p, n, 0, {0x06, 0x0E, 0x2B, 0x34, 0x02, 0x05, 0x01, 0x01})) return kMxf;
  if (atBytes(p, n, 0, {0x30, 0x26, 0xB2, 0x75, 0x8E, 0x66, 0xCF, 0x11})) return kAsf;
  if (atBytes(p, n, 0, {0x1A, 0x45, 0xDF, 0xA3})) return ebmlType(p, n);
  if (at(p, n, 0, ".snd")) return kSunAu;
  if (at(p, n, 0, "caff")) return kCaf;
  if (at(p, n, 0, "#!AMR")) return kAmr;
  if (at(p, n, 0, "wvpk")) return kWavPack;
  if (at(p, n, 0, "TTA1")) return kTta;
  if (at(p, n, 0, "FLV\x01")) return kFlv;
  if (atBytes(p, n, 0, {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A})) return kPng;
  if (atBytes(p, n, 0, {0xFF, 0xD8, 0xFF})) return kJpeg;
  if (at(p, n, 0, "GIF87a") || at(p, n, 0, "GIF89a")) return kGif;
  if (atBytes(p, n, 0, {'I', 'I', 0x2A, 0x00}) || atBytes(p, n, 0, {'M', 'M', 0x00, 0x2A}))
    return kTiff;
  if (atBytes(p, n, 0, {0x64, 0xA3, 0x01, 0x00}) || atBytes(p, n, 0, {0x64, 0xA3, 0x02, 0x00}) ||
      atBytes(p, n, 0, {0x64, 0xA3, 0x03, 0x00}))
    return kIrcam;
  if (atBytes(p, n, 0, {0x00, 0x00, 0x01, 0xBA})) return kMpegProgram;
  if (atBytes(p, n, 0, {0x00, 0x00, 0x01, 0xB3})) return kMpegVideo;
  if (atBytes(p, n, 0, {0x00, 0x00, 0x00, 0x01, 0x67}) ||
      atBytes(p, n, 0, {0x00, 0x00, 0x01, 0x67}))
    return kH264;
  if (atBytes(p, n, 0, {0x00, 0x00, 0x00, 0x01, 0x40, 0x01})) return kHevc;
  if (transportStream(p, n, 188, 0) || transportStream(p, n, 192, 4)) return kMpegTransport;
  if (at(p, n, 0, "ID3")) return kMpegAudio;
  if (atBytes(p, n, 0, {0x0B, 0x77})) return kAc3;
  if (atBytes(p, n, 0, {0x7F, 0xFE, 0x80, 0x01})) return kDts;
  if (p[0] == 0xFF && (p[1] & 0xF6) == 0xF0) return kAdts;
  if (p[0] == 0xFF && (p[1] & 0xE0) == 0xE0 && (p[1] & 0x06) != 0) return kMpegAudio;
  if (n >= 16 && at(p, n, 0, "BM")) {
    const DWORD header = DWORD(p[14]) | DWORD(p[15]) << 8;
    if (header == 12 || header == 40 || header == 108 || header == 124) return kBmp;
  }
  return 0;
}

const char* KaFio_GetFormatName(DWORD formatId) noexcept {
  for (const Named& n : kNames)
    if (n.id == formatId) return n.name;
  return formatId ? "unknown format" : "not recognised";
}
