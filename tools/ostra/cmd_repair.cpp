// ostra repair FILE [--max-header BYTES] [--rate HZ --channels N --bits B] [--dry-run]
// [--json]: makes the RIFF/riff and data sizes of a wave or Wave64 file agree with what
// is really on disk.
//
// The kernel's repair functions (KaFixTrashedWav/W64) rebuild the header in the
// kernel's own layout, which would overwrite the 16-byte `fmt `, LIST or bext chunks of
// other recorders' files. So the chunks are first walked as they stand and only the two
// size words are rewritten; the kernel's functions are the fallback for files whose
// data chunk cannot be found that way.
#include <cstdio>
#include <cstring>
#include <vector>

#include "command.h"
#include "operations.h"
#include "ostra/kaerror.h"
#include "ostra/kaplatform.h"
#include "ostra/kawave.h"
#include "ostra/riff.h"
#include "ostra/riff64.h"

namespace ostra::cli {
namespace {

// Bytes at the end of a file searched for chunks that a writer appended after audio
// whose length it never wrote down.
constexpr uint64_t kTailWindow = 16u << 20;
constexpr int kMaxChainChunks = 1024;

uint64_t even(uint64_t n) { return n + (n & 1); }
uint64_t align8(uint64_t n) { return (n + 7) & ~uint64_t(7); }

bool printableId(DWORD id) {
  for (int i = 0; i < 4; ++i) {
    const unsigned c = (id >> (8 * i)) & 0xFF;
    if (c < 0x20 || c > 0x7E) return false;
  }
  return true;
}

// Chunks that recorders put after the samples.
bool knownTrailingId(DWORD id) {
  static const char* const kIds[] = {"LIST", "JUNK", "junk", "bext", "id3 ", "ID3 ", "cue ",
                                     "smpl", "inst", "fact", "iXML", "PAD ", "DISP", "acid",
                                     "cart", "umid", "axml", "_PMX", "plst", "labl", "ltxt",
                                     "note", "FLLR", "levl", "afsp", "SyLp", "regn"};
  for (const char* s : kIds)
    if (id == KaFourCC(s[0], s[1], s[2], s[3])) return true;
  return false;
}

// The GUIDs a Wave64 writer puts after its samples: the wave family's, list and DISP.
bool knownW64Guid(const unsigned char* p) {
  static constexpr GUID kTail = KaGuid("00000000-ACF3-11D3-8CD1-00C04F8EDB8A");
  static constexpr GUID kJunk = RIFF64_GUID_JUNK;
  const auto* t = reinterpret_cast<const unsigned char*>(&kTail);
  const auto* j = reinterpret_cast<const unsigned char*>(&kJunk);
  return std::memcmp(p + 4, t + 4, 12) == 0 || std::memcmp(p + 4, j + 4, 12) == 0 ||
         std::memcmp(p, &RIFF64_GUID_LIST, 16) == 0 || std::memcmp(p, &KAGUID_W64_DISP, 16) == 0;
}

struct Walk {
  KAHFILE file;
  uint64_t length;
  bool w64;
  uint64_t headerBytes() const { return w64 ? 24 : 8; }

  // Reads a chunk header at pos: its id (RIFF four characters; Wave64 the GUID's first
  // field when it follows the Wave64 naming pattern) and its data size.
  bool header(uint64_t pos, DWORD& id, uint64_t& size, GUID* guid = nullptr) const {
    if (pos + headerBytes() > length || FAILED(KaFile_Seek(file, INT64(pos), FILE_BEGIN, nullptr)))
      return false;
    if (!w64) {
      DWORD s = 0;
      if (FAILED(riff_ReadChunkHeader(file, &id, &s))) return false;
      size = s;
      return true;
    }
    GUID g{};
    UINT64 s = 0;
    if (FAILED(riff64_ReadChunkHeader(file, &g, &s))) return false;
    if (guid) *guid = g;
    size = s;
    static constexpr GUID kTail = KaGuid("00000000-ACF3-11D3-8CD1-00C04F8EDB8A");
    GUID t = g;
    t.Data1 = 0;
    id = (t == kTail || g == RIFF64_GUID_JUNK) ? g.Data1 : 0;
    if (g == RIFF64_GUID_LIST) id = KaFourCC('L', 'I', 'S', 'T');
    if (g == KAGUID_W64_DISP) id = KaFourCC('D', 'I', 'S', 'P');
    return true;
  }
  uint64_t next(uint64_t pos, uint64_t size) const {
    return pos + headerBytes() + (w64 ? align8(size) : even(size));
  }

  // When chunks with believable ids follow one another from pos to the end of the file,
  // the offset where the last of them ends: the file length, or one byte less when a
  // single stray byte follows (a missing final pad byte is forgiven). 0 otherwise.
  uint64_t chainEnd(uint64_t pos, bool requireKnownFirst) const {
    for (int n = 0; n < kMaxChainChunks; ++n) {
      if (pos == length) return length;
      if (length - pos < headerBytes()) return !w64 && length - pos == 1 ? pos : 0;
      DWORD id = 0;
      uint64_t size = 0;
      if (!header(pos, id, size) || !printableId(id)) return 0;
      if (n == 0 && requireKnownFirst && !knownTrailingId(id)) return 0;
      if (size > length) return 0;
      const uint64_t after = next(pos, size);
      if (after > length) return pos + headerBytes() + size == length ? length : 0;
      pos = after;
    }
    return 0;
  }

  // The earliest position at or after `from` where appended chunks start and run to the
  // end of the file; the file length when there are none.
  uint64_t audioEnd(uint64_t from) const {
    const uint64_t start = std::max(from, length > kTailWindow ? length - kTailWindow : 0);
    if (length - start < headerBytes()) return length;
    std::vector<unsigned char> tail(size_t(length - start));
    DWORD got = 0;
    if (FAILED(KaFile_Seek(file, INT64(start), FILE_BEGIN, nullptr)) ||
        FAILED(KaFile_Read(file, tail.data(), DWORD(tail.size()), &got)) || got != tail.size())
      return length;
    for (size_t i = 0; i + headerBytes() <= tail.size(); ++i) {
      DWORD id;
      std::memcpy(&id, tail.data() + i, 4);
      if (!w64 && !knownTrailingId(id)) continue;
      if (w64 && !knownW64Guid(tail.data() + i)) continue;
      if (chainEnd(start + i, true)) return start + i;
    }
    return length;
  }
};

HRESULT repairByWalk(KAHFILE file, uint64_t length, bool w64, const RepairRequest& r,
                     RepairResult& res) {
  Walk walk{file, length, w64};
  const uint64_t first = w64 ? 40 : 12;
  uint64_t pos = first, dataPos = 0, stated = 0;
  unsigned blockAlign = 0;
  bool found = false;
  for (int n = 0; n < kMaxChainChunks && !found; ++n) {
    DWORD id = 0;
    uint64_t size = 0;
    GUID guid{};
    if (!walk.header(pos, id, size, &guid)) break;
    const bool isFmt = w64 ? guid == RIFF64_GUID_FMT : id == RIFF_ID_FMT;
    const bool isData = w64 ? guid == RIFF64_GUID_DATA : id == RIFF_ID_DATA;
    if (isFmt && size >= 16) {
      WAVEFORMATEX wfx{};
      DWORD got = 0;
      KaFile_Read(file, &wfx, 16, &got);
      if (got == 16)
        blockAlign =
            wfx.nBlockAlign ? wfx.nBlockAlign : wfx.nChannels * ((wfx.wBitsPerSample + 7) / 8);
    }
    if (isData) {
      dataPos = pos;
      stated = size;
      found = true;
      break;
    }
    const uint64_t after = walk.next(pos, size);
    if (after > length || size > length) break;
    pos = after;
  }
  if (!blockAlign && r.channels && r.bits) blockAlign = r.channels * ((r.bits + 7) / 8);
  if (!found || !blockAlign) return KAERR_NOT_FOUND;

  // The size words as they stand.
  if (w64) {
    UINT64 word = 0;
    DWORD got = 0;
    KaFile_Seek(file, 16, FILE_BEGIN, nullptr);
    KaFile_Read(file, &word, 8, &got);
    res.oldRiffSize = word;
    res.oldDataSize = stated + 24;  // riff64_ReadChunkHeader reports the data part
  } else {
    DWORD word = 0, got = 0;
    KaFile_Seek(file, 4, FILE_BEGIN, nullptr);
    KaFile_Read(file, &word, 4, &got);
    res.oldRiffSize = word;
    res.oldDataSize = stated;
  }
  const uint64_t dataStart = dataPos + walk.headerBytes();
  const uint64_t onDisk = length > dataStart ? length - dataStart : 0;
  // The stated size is believed when it fits, holds whole frames and is followed by
  // nothing but well-formed chunks up to the end of the file.
  const uint64_t statedEnd = walk.next(dataPos, stated);
  const uint64_t statedChainEnd = stated > onDisk || stated % blockAlign ? 0
                                  : statedEnd >= length                  ? length
                                                        : walk.chainEnd(statedEnd, false);
  uint64_t dataLen, end;
  if (statedChainEnd) {
    dataLen = stated;
    end = statedChainEnd;
  } else {
    const uint64_t audioEnd = walk.audioEnd(dataStart);
    dataLen = (audioEnd - dataStart) / blockAlign * blockAlign;
    const uint64_t padded = w64 ? dataStart + align8(dataLen) : dataStart + even(dataLen);
    end = audioEnd < length ? walk.chainEnd(audioEnd, true) : std::min(length, padded);
    if (audioEnd < length)
      res.notes.push_back("chunks after the samples start at " + std::to_string(audioEnd));
    if ((audioEnd - dataStart) % blockAlign)
      res.notes.push_back(std::to_string((audioEnd - dataStart) % blockAlign) +
                          " bytes of a partial frame left out");
  }
  if (!w64 && end - 8 > RIFF_MAX_SIZE) {
    // A RIFF file cannot describe more; keep the whole frames that fit.
    dataLen = std::min<uint64_t>(
        dataLen, (uint64_t(RIFF_MAX_SIZE) + 8 - dataStart) / blockAlign * blockAlign);
    end = dataStart + even(dataLen);
    res.notes.push_back("file is larger than a RIFF file can describe; convert it to Wave64");
  }
  res.method = "chunk walk";
  res.headerLength = dataStart;
  res.dataLength = dataLen;
  res.newDataSize = w64 ? dataLen + 24 : dataLen;
  res.newRiffSize = w64 ? end : end - 8;
  res.changed = res.newDataSize != res.oldDataSize || res.newRiffSize != res.oldRiffSize;
  if (r.dryRun || !res.changed) return S_OK;
  HRESULT hr = KaFile_Seek(file, INT64(dataPos), FILE_BEGIN, nullptr);
  if (w64) {
    if (SUCCEEDED(hr)) hr = riff64_WriteChunkHeader(file, RIFF64_GUID_DATA, dataLen);
    if (SUCCEEDED(hr)) hr = riff64_SetRIFFSize(file, end - 24);
  } else {
    if (SUCCEEDED(hr)) hr = riff_WriteChunkHeader(file, RIFF_ID_DATA, DWORD(dataLen));
    if (SUCCEEDED(hr)) hr = riff_SetRIFFSize(file, DWORD(end - 8));
  }
  return hr;
}

}  // namespace

HRESULT repairFile(const RepairRequest& r, RepairResult& res) {
  res = RepairResult{};
  KAHFILE file = KA_INVALID_HFILE;
  HRESULT hr =
      KaFile_OpenUtf8(r.file.c_str(), r.dryRun ? GENERIC_READ : GENERIC_READ | GENERIC_WRITE,
                      FILE_SHARE_READ, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, &file);
  if (FAILED(hr)) return hr;
  UINT64 length = 0;
  unsigned char head[16] = {};
  DWORD got = 0;
  hr = KaFile_GetSize(file, &length);
  if (SUCCEEDED(hr)) hr = KaFile_Read(file, head, sizeof head, &got);
  const bool w64 = got == 16 && std::memcmp(head, &RIFF64_GUID_RIFF, 16) == 0;
  const bool riff = got >= 12 && std::memcmp(head, "RIFF", 4) == 0;
  if (SUCCEEDED(hr) && (riff || w64)) {
    hr = repairByWalk(file, length, w64, r, res);
    if (hr != KAERR_NOT_FOUND) {
      KaFile_Close(file);
      return hr;
    }
    res = RepairResult{};
  }
  if (FAILED(hr) && hr != KAERR_NOT_FOUND) {
    KaFile_Close(file);
    return hr;
  }
  // Fallback: the kernel's own repair, which assumes its own header layout.
  const bool asW64 =
      w64 || (!riff && r.file.size() > 4 && r.file.compare(r.file.size() - 4, 4, ".w64") == 0);
  res.method = asW64 ? "KaFixTrashedW64" : "KaFixTrashedWav";
  res.notes.push_back("no data chunk found by walking the chunks");
  WAVEFORMATEX wfx{};
  const bool haveFormat = r.rate && r.channels && r.bits;
  if (haveFormat) {
    wfx.wFormatTag = r.bits == 64 ? WAVE_FORMAT_IEEE_FLOAT : WAVE_FORMAT_PCM;
    wfx.nChannels = WORD(r.channels);
    wfx.nSamplesPerSec = r.rate;
    wfx.wBitsPerSample = WORD(r.bits);
    wfx.nBlockAlign = WORD(r.channels * (r.bits / 8));
    wfx.nAvgBytesPerSec = wfx.nBlockAlign * r.rate;
  }
  if (r.dryRun) {
    KaFile_Close(file);
    res.notes.push_back("dry run: the kernel's repair was not run");
    return S_OK;
  }
  hr = asW64 ? KaFixTrashedW64(file, haveFormat ? &wfx : nullptr, UINT64(r.maxHeader))
             : KaFixTrashedWav(file, haveFormat ? &wfx : nullptr,
                               DWORD(std::min<uint64_t>(r.maxHeader, 0xFFFFFFFFu)));
  KaFile_Close(file);
  if (FAILED(hr)) return hr;
  FileFacts facts;
  if (SUCCEEDED(inspectPath(r.file, facts)) && facts.hasData) {
    res.headerLength = facts.dataOffset;
    res.dataLength = facts.dataSize;
    res.newDataSize = facts.dataSize;
    res.newRiffSize = facts.headerSize;
  }
  res.changed = true;
  return S_OK;
}

namespace {

struct Options {
  RepairRequest request;
  bool json = false;
};

void setup(CLI::App& cmd) {
  static Options o;
  RepairRequest& r = o.request;
  cmd.add_option("FILE", r.file, "Wave or Wave64 file, repaired in place")
      ->required()
      ->check(CLI::ExistingFile);
  cmd.add_option("--max-header", r.maxHeader,
                 "Longest header the kernel's repair searches (default 65536)");
  auto* rate =
      cmd.add_option("--rate", r.rate, "Sample rate to assume when the file has no format");
  auto* channels = cmd.add_option("--channels", r.channels, "Channels to assume");
  auto* bits =
      cmd.add_option("--bits", r.bits, "Bits per sample to assume (8, 16, 24, 32; 64 is float)");
  rate->needs(channels, bits);
  channels->needs(rate, bits);
  bits->needs(rate, channels);
  cmd.add_flag("--dry-run", r.dryRun, "Only report what would be written");
  cmd.add_flag("--json", o.json, "Print one JSON object");
  cmd.callback([] {
    RepairResult res;
    const HRESULT hr = repairFile(o.request, res);
    if (FAILED(hr)) return void(reportFailure(hr, o.request.file));
    if (o.json) {
      nlohmann::json j{{"file", o.request.file},
                       {"method", res.method},
                       {"header_length", res.headerLength},
                       {"data_length", res.dataLength},
                       {"riff_size", {{"old", res.oldRiffSize}, {"new", res.newRiffSize}}},
                       {"data_size", {{"old", res.oldDataSize}, {"new", res.newDataSize}}},
                       {"changed", res.changed},
                       {"dry_run", o.request.dryRun},
                       {"notes", res.notes}};
      std::printf("%s\n", j.dump(2).c_str());
      return;
    }
    std::printf("%s: header length %llu, data length %llu (%s)\n", o.request.file.c_str(),
                (unsigned long long)res.headerLength, (unsigned long long)res.dataLength,
                res.method.c_str());
    if (res.changed)
      std::printf("  %s size %llu -> %llu, data size %llu -> %llu\n",
                  o.request.dryRun ? "would set" : "set", (unsigned long long)res.oldRiffSize,
                  (unsigned long long)res.newRiffSize, (unsigned long long)res.oldDataSize,
                  (unsigned long long)res.newDataSize);
    else
      std::printf("  sizes already agree with the file; nothing written\n");
    for (const auto& n : res.notes) std::printf("  note: %s\n", n.c_str());
  });
}

OSTRA_COMMAND("repair",
              "Repair the header sizes of a wave or Wave64 file left unfinished by a recorder",
              setup);

}  // namespace
}  // namespace ostra::cli
