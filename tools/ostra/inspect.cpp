#include "inspect.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "info_text.h"
#include "ostra/aiff.h"
#include "ostra/kaaudio.h"
#include "ostra/kaerror.h"
#include "ostra/kaplatform.h"
#include "ostra/kawave.h"
#include "ostra/mriff.h"
#include "ostra/riff.h"
#include "ostra/riff64.h"
#include "text.h"

namespace ostra::cli {
namespace {

// A damaged or hostile file may claim any number of tiny chunks; the listing stops here.
constexpr DWORD kMaxChunks = 4096;
constexpr DWORD kFirstChunks = 64;
constexpr size_t kMaxText = 4096;
// A summary list read for display; longer lists show their first items.
constexpr uint64_t kMaxListBytes = 1u << 20;

uint64_t even(uint64_t n) { return n + (n & 1); }

std::string hexCode(HRESULT hr) {
  char s[16];
  std::snprintf(s, sizeof s, "0x%08X", unsigned(hr));
  return s;
}

void formatFromBytes(const uint8_t* bytes, size_t n, FormatFacts& f) {
  // Room for the extensible description; a shorter chunk reads as zeros past its end.
  alignas(8) uint8_t buf[sizeof(WAVEFORMATEXTENSIBLE)] = {};
  std::memcpy(buf, bytes, std::min(n, sizeof buf));
  auto* wfx = reinterpret_cast<WAVEFORMATEX*>(buf);
  if (n < sizeof(WAVEFORMATEX)) wfx->cbSize = 0;
  f.tag = wfx->wFormatTag;
  f.channels = wfx->nChannels;
  f.rate = wfx->nSamplesPerSec;
  f.avgBytesPerSec = wfx->nAvgBytesPerSec;
  f.blockAlign = wfx->nBlockAlign;
  f.bits = wfx->wBitsPerSample;
  if (f.tag == WAVE_FORMAT_EXTENSIBLE) {
    if (n < sizeof(WAVEFORMATEXTENSIBLE) || wfx->cbSize < 22) {
      wfx->cbSize = 0;  // not a complete extensible description: no sample type
    } else {
      auto* ext = reinterpret_cast<WAVEFORMATEXTENSIBLE*>(buf);
      f.validBits = ext->Samples.wValidBitsPerSample;
      f.channelMask = ext->dwChannelMask;
      f.subformat = guidText(ext->SubFormat);
    }
  } else if (wfx->cbSize > n - std::min(n, sizeof(WAVEFORMATEX))) {
    wfx->cbSize = WORD(n - std::min(n, sizeof(WAVEFORMATEX)));  // never past what was read
  }
  f.sampleType = KaAudio_GetSampleType(wfx);
  KAWCHAR text[64] = {};
  if (KaAudio_GetSampleTypeText(KASAMPLETYPE(f.sampleType), text, 64) > 0)
    f.sampleTypeText = toUtf8(text);
}

void finishFrames(FileFacts& facts) {
  if (facts.hasData && facts.hasFormat && facts.format.blockAlign)
    facts.frames = facts.dataSize / facts.format.blockAlign;
}

// ---------------------------------------------------------------- files

size_t readAt(KAHFILE file, uint64_t pos, void* buf, size_t n) {
  DWORD got = 0;
  if (FAILED(KaFile_Seek(file, INT64(pos), FILE_BEGIN, nullptr))) return 0;
  KaFile_Read(file, buf, DWORD(n), &got);
  return got;
}

// Wave64 chunks are named by GUIDs; the wave family's GUIDs carry the RIFF id in their
// first field, which is what the chunk list shows. Other GUIDs show in full.
std::string w64Name(const tKACHUNKINFO& c) {
  if (c.guid == KAGUID_W64_DISP) return "DISP";
  static constexpr GUID kWave = KaGuid("00000000-ACF3-11D3-8CD1-00C04F8EDB8A");
  static constexpr GUID kRiff = KaGuid("00000000-912F-11CF-A5D6-28DB04C10000");
  static constexpr GUID kRiff2 = KaGuid("00000000-912E-11CF-A5D6-28DB04C10000");
  GUID t = c.guid;
  t.Data1 = 0;
  if (t == kWave || t == kRiff || t == kRiff2 || c.guid == RIFF64_GUID_JUNK)
    return fourCCText(c.guid.Data1);
  return guidText(c.guid);
}

void loadInfo(KAHFILE file, const tKACHUNKINFO& c, FileFacts& facts) {
  if (c.size < 4 || c.offset + 8 + c.size > facts.fileSize) return;
  const bool info = c.listType == RIFF_ID_INFO;
  std::vector<uint8_t> body(size_t(std::min<uint64_t>(c.size - 4, kMaxListBytes)));
  if (readAt(file, c.offset + 12, body.data(), body.size()) != body.size()) {
    facts.notes.push_back(std::string(info ? "INFO" : "UNFO") + " list unreadable");
    return;
  }
  auto& out = info ? facts.info : facts.unfo;
  for (const InfoRecord& r : parseListItems(body.data(), body.size()))
    out.push_back({fourCCText(r.id), decodeItem(r.raw, !info), r.id});
}

void loadDisplay(KAHFILE file, const tKACHUNKINFO& c, bool w64, FileFacts& facts) {
  _displisttag* list = displist_Create();
  if (!list) return;
  HRESULT hr = KaFile_Seek(file, INT64(c.offset), FILE_BEGIN, nullptr);
  if (SUCCEEDED(hr)) {
    if (w64) {
      INT64 remaining = INT64(24 + ((c.size + 7) & ~uint64_t(7)));
      hr = displist64_Load(file, list, &remaining);
    } else {
      DWORD remaining = DWORD(std::min<uint64_t>(8 + even(c.size), 0xFFFFFFFFu));
      hr = displist_Load(file, list, &remaining);
    }
  }
  if (SUCCEEDED(hr)) {
    for (DWORD i = 0; i < list->count; ++i) {
      const _displistitemtag& item = list->items[i];
      if (!item.data || !item.size) continue;
      DisplayFacts d{item.format, item.size, {}};
      if (item.format == KA_CF_TEXT) {
        const char* p = static_cast<const char*>(item.data);
        d.text.assign(p, strnlen(p, std::min<size_t>(item.size, kMaxText)));
      }
      facts.display.push_back(std::move(d));
    }
  } else {
    facts.notes.push_back("DISP chunk unreadable (" + hexCode(hr) + ")");
  }
  displist_Destroy(list);
}

// FORM AIFC with a floating-point compression type, which the AIFF reader turns down.
bool isFloatAifc(KAHFILE file, DWORD* formSize) {
  WAVEFORMATEX wfx;
  IFFCHUNKHDR form{};
  DWORD type = 0;
  if (FAILED(iff_GetAIFCFloatWfx(file, &wfx))) return false;
  KaFile_Seek(file, 0, FILE_BEGIN, nullptr);
  if (FAILED(iff_ReadFormType(file, &form, &type))) return false;
  *formSize = form.ckSize;
  return true;
}

void aiffDetails(KAHFILE file, const std::vector<tKACHUNKINFO>& chunks, FileFacts& facts) {
  WAVEFORMATEX wfx{};
  INT64 dataOffset = 0;
  DWORD dataSize = 0, frames = 0;
  KaFile_Seek(file, 0, FILE_BEGIN, nullptr);
  HRESULT hr = iff_GetAIFFWfx(file, &wfx, &dataOffset, &dataSize, &frames);
  if (hr == KAERR_CORRUPT_FILE &&
      SUCCEEDED(iff_GetAIFCFloatWfx(file, &wfx, &dataOffset, &dataSize, &frames))) {
    // The kernel's file-data lookup leaves these files alone, so the samples' place
    // comes from here.
    hr = S_OK;
    facts.format.bigEndianFloat = true;
  }
  if (FAILED(hr)) {
    facts.notes.push_back("no readable COMM/SSND (" + hexCode(hr) + ")");
    return;
  }
  formatFromBytes(reinterpret_cast<const uint8_t*>(&wfx), sizeof wfx, facts.format);
  facts.hasFormat = true;
  for (const tKACHUNKINFO& c : chunks) {
    if (c.depth) continue;
    const std::string id(c.name, 4);
    if (id == "COMM" && c.size >= 18) {
      uint8_t comm[22] = {};
      const size_t got = readAt(file, c.offset + 8, comm, std::min<uint64_t>(c.size, sizeof comm));
      if (got >= 18) {
        char hex[21];
        for (int i = 0; i < 10; ++i) std::snprintf(hex + 2 * i, 3, "%02X", comm[8 + i]);
        facts.format.rate80 = hex;
      }
      facts.format.compression =
          got >= 22
              ? fourCCText(KaFourCC(char(comm[18]), char(comm[19]), char(comm[20]), char(comm[21])))
              : "NONE";
    } else if (id == "NAME" || id == "AUTH" || id == "(c) " || id == "ANNO") {
      std::string text(size_t(std::min<uint64_t>(c.size, kMaxText)), '\0');
      text.resize(readAt(file, c.offset + 8, text.data(), text.size()));
      facts.info.push_back({id, std::string(text.c_str(), strnlen(text.c_str(), text.size())), 0});
    }
  }
  if (facts.format.bigEndianFloat) {
    facts.hasData = true;
    facts.dataOffset = uint64_t(dataOffset);
    facts.dataSize = dataSize;
  }
}

HRESULT headerFacts(KAHFILE file, DWORD container, FileFacts& facts) {
  KaFile_Seek(file, 0, FILE_BEGIN, nullptr);
  switch (container) {
    case KACONTAINER_WAVE: {
      DWORD size = 0, form = 0;
      const HRESULT hr = riff_ReadFileID(file, &size, &form);
      if (FAILED(hr)) return hr;
      facts.kind = Container::Riff;
      facts.container = "RIFF";
      facts.form = fourCCText(form);
      facts.headerSize = uint64_t(size) + 4;
      return S_OK;
    }
    case KACONTAINER_WAVE64: {
      INT64 size = 0;
      GUID form{};
      const HRESULT hr = riff64_ReadFileID(file, &size, &form);
      if (FAILED(hr)) return hr;
      facts.kind = Container::Wave64;
      facts.container = "W64";
      facts.form = form == RIFF64_GUID_WAVE ? "wave" : guidText(form);
      facts.headerSize = uint64_t(size) + 40;
      return S_OK;
    }
    case KACONTAINER_AIFF:
    case KACONTAINER_AIFC: {
      DWORD formSize = 0, formType = 0, compression = 0;
      if (!iff_IsAIFFFileEx(file, &formSize, &formType, &compression) &&
          !(container == KACONTAINER_AIFC && isFloatAifc(file, &formSize)))
        return KAERR_CORRUPT_FILE;
      facts.kind = Container::Aiff;
      facts.container = container == KACONTAINER_AIFC ? "AIFC" : "AIFF";
      facts.form = facts.container;
      facts.headerSize = formSize;
      return S_OK;
    }
    default:
      return KAERR_UNSUPPORTED_FILE;
  }
}

// ---------------------------------------------------------------- memory images

// The memory family has no chunk lister or summary loader of its own, so the image is
// walked here with its header and read calls.
struct ImageWalker {
  _tMRIFF rec{};
  FileFacts& facts;

  bool seek(uint64_t pos) {
    return pos <= 0x7FFFFFFF &&
           mriff_SetFilePointer(&rec, LONG(pos), nullptr, FILE_BEGIN) == DWORD(pos);
  }
  size_t read(void* buf, size_t n) {
    DWORD got = 0;
    mriff_ReadFile(&rec, buf, DWORD(n), &got);
    return got;
  }
  void listItems(uint64_t body, DWORD size, DWORD type) {
    uint64_t pos = body + 4;
    const uint64_t end = body + size;
    auto& out = type == RIFF_ID_INFO ? facts.info : facts.unfo;
    while (pos + 8 <= end && seek(pos) && out.size() < kMaxChunks) {
      DWORD id = 0, n = 0;
      if (FAILED(mriff_ReadChunkHeader(&rec, &id, &n))) break;
      std::string bytes(size_t(std::min<uint64_t>({n, end - pos - 8, kMaxText})), '\0');
      bytes.resize(read(bytes.data(), bytes.size()));
      out.push_back({fourCCText(id), decodeItem(bytes, type != RIFF_ID_INFO), id});
      pos += 8 + even(n);
    }
  }
  // The chunks come from the kernel's chunk list of the image; their bodies are read with
  // the memory family's calls.
  void walk(const uint8_t* image, uint64_t imageSize, uint64_t limit) {
    DWORD count = 0;
    std::vector<tKACHUNKINFO> list(kFirstChunks);
    HRESULT hr = KaGetImageChunks(image, imageSize, list.data(), kFirstChunks, &count);
    if (hr == S_FALSE) {
      list.resize(std::min(count, kMaxChunks));
      hr = KaGetImageChunks(image, imageSize, list.data(), DWORD(list.size()), &count);
    }
    if (FAILED(hr)) return;
    if (count > kMaxChunks)
      facts.notes.push_back("chunk list cut at " + std::to_string(kMaxChunks) + " chunks");
    list.resize(std::min<size_t>(count, kMaxChunks));
    for (const tKACHUNKINFO& c : list) {
      const uint64_t pos = c.offset;
      if (c.depth || pos + 8 > limit) continue;
      DWORD id = 0, size = 0;
      if (!seek(pos) || FAILED(mriff_ReadChunkHeader(&rec, &id, &size))) break;
      facts.chunks.push_back({fourCCText(id), pos, size});
      const uint64_t body = pos + 8;
      if (id == RIFF_ID_FMT && !facts.hasFormat) {
        uint8_t buf[sizeof(WAVEFORMATEXTENSIBLE)] = {};
        const size_t n = read(buf, std::min<size_t>(size, sizeof buf));
        if (n >= 16) {
          formatFromBytes(buf, n, facts.format);
          facts.hasFormat = true;
        }
      } else if (id == RIFF_ID_DATA && !facts.hasData) {
        facts.hasData = true;
        facts.dataOffset = body;
        facts.dataSize = std::min<uint64_t>(size, facts.fileSize - std::min(body, facts.fileSize));
        if (facts.dataSize != size)
          facts.notes.push_back("data chunk runs past the end of the image");
      } else if (id == RIFF_ID_LIST && size >= 4 && body + size <= limit) {
        DWORD type = 0;
        if (read(&type, 4) == 4 && (type == RIFF_ID_INFO || type == RIFF_ID_UNFO))
          listItems(body, size, type);
      } else if (id == RIFF_ID_DISP && size >= 4 && body + size <= limit) {
        int32_t format = 0;
        if (read(&format, 4) == 4) {
          DisplayFacts d{format, size - 4, {}};
          if (format == KA_CF_TEXT) {
            std::string text(size_t(std::min<uint64_t>(size - 4, kMaxText)), '\0');
            text.resize(read(text.data(), text.size()));
            d.text.assign(text.c_str(), strnlen(text.c_str(), text.size()));
          }
          facts.display.push_back(std::move(d));
        }
      }
    }
  }
};

}  // namespace

HRESULT inspectFile(KAHFILE file, FileFacts& facts) {
  facts = FileFacts{};
  KaErrorHandler_DetailsInit();
  UINT64 size = 0;
  HRESULT hr = KaFile_GetSize(file, &size);
  if (FAILED(hr)) return hr;
  facts.fileSize = size;

  // Most files have a handful of chunks: list up to kFirstChunks, and walk again only
  // when there are more.
  std::vector<tKACHUNKINFO> chunks(kFirstChunks);
  DWORD count = 0, container = KACONTAINER_UNKNOWN;
  hr = KaGetFileChunks(file, chunks.data(), kFirstChunks, &count, &container);
  if (hr == S_FALSE) {
    chunks.resize(std::min(count, kMaxChunks));
    hr = KaGetFileChunks(file, chunks.data(), DWORD(chunks.size()), &count, &container);
  }
  if (FAILED(hr)) return hr;
  DWORD floatFormSize = 0;
  if (container == KACONTAINER_UNKNOWN && isFloatAifc(file, &floatFormSize))
    container = KACONTAINER_AIFC;
  if (hr == S_FALSE)
    facts.notes.push_back("chunk list cut at " + std::to_string(kMaxChunks) + " entries");
  chunks.resize(std::min(count, kMaxChunks));
  if (FAILED(hr = headerFacts(file, container, facts))) return hr;
  const bool w64 = facts.kind == Container::Wave64;
  const uint64_t headerBytes = w64 ? 24 : 8;
  // Bytes past a believable container size (a partial frame a repair left out, a
  // writer's leftovers) are not chunks of the file.
  const uint64_t containerEnd = w64 ? facts.headerSize : facts.headerSize + 8;
  const bool sizeBelievable = containerEnd <= facts.fileSize && containerEnd > (w64 ? 40u : 12u);

  for (const tKACHUNKINFO& c : chunks) {
    if (c.depth || (sizeBelievable && c.offset >= containerEnd)) continue;
    const std::string id =
        w64 ? w64Name(c) : fourCCText(KaFourCC(c.name[0], c.name[1], c.name[2], c.name[3]));
    facts.chunks.push_back({id, c.offset, c.size});
    if (facts.kind == Container::Aiff) continue;
    if (id == "fmt " && !facts.hasFormat) {
      uint8_t buf[sizeof(WAVEFORMATEXTENSIBLE)] = {};
      const size_t n =
          readAt(file, c.offset + headerBytes, buf, size_t(std::min<uint64_t>(c.size, sizeof buf)));
      if (n >= 16) {
        formatFromBytes(buf, n, facts.format);
        facts.hasFormat = true;
      } else {
        // The kernel's format reader says why it cannot use this chunk.
        alignas(8) BYTE probe[KAWAVEFORMAT_BUFFER_SIZE];
        KaGetFileWfx(file, reinterpret_cast<_kawaveformat*>(probe), sizeof probe);
      }
    } else if (!w64 && id == "LIST" && (c.listType == RIFF_ID_INFO || c.listType == RIFF_ID_UNFO)) {
      loadInfo(file, c, facts);
    } else if (id == "DISP") {
      loadDisplay(file, c, w64, facts);
    } else if (id == "bext" && !facts.bext && c.offset + headerBytes + c.size <= facts.fileSize) {
      std::vector<uint8_t> body(size_t(std::min<uint64_t>(c.size, kMaxListBytes)));
      if (readAt(file, c.offset + headerBytes, body.data(), body.size()) == body.size())
        facts.bext = parseBext(body.data(), body.size());
      if (!facts.bext) facts.notes.push_back("bext chunk too short");
    }
  }
  if (facts.kind == Container::Aiff) aiffDetails(file, chunks, facts);

  tKAAUDIODATA data{};
  hr = KaGetFileAudioData(file, &data);
  if (SUCCEEDED(hr)) {
    facts.hasData = true;
    facts.dataOffset = data.offset;
    facts.dataSize = data.size;
  } else if (!facts.format.bigEndianFloat) {
    facts.notes.push_back("no audio data found (" + hexCode(hr) + ")");
  }
  finishFrames(facts);
  // What the kernel's readers clamped or skipped comes first, then the tool's own notes.
  std::vector<std::string> notes = takeKernelDetails();
  notes.insert(notes.end(), facts.notes.begin(), facts.notes.end());
  facts.notes = std::move(notes);
  return S_OK;
}

// Word-wide swaps that the compiler turns into vector shuffles.
template <typename Word, typename Swap>
void swapWords(uint8_t* bytes, size_t count, Swap swap) {
  for (size_t i = 0; i + sizeof(Word) <= count; i += sizeof(Word)) {
    Word w;
    std::memcpy(&w, bytes + i, sizeof w);
    w = swap(w);
    std::memcpy(bytes + i, &w, sizeof w);
  }
}

void swapStoredFloats(const FormatFacts& format, uint8_t* bytes, size_t count) {
  if (!format.bigEndianFloat) return;
  if (format.bits == 64)
    swapWords<uint64_t>(bytes, count, [](uint64_t w) { return __builtin_bswap64(w); });
  else
    swapWords<uint32_t>(bytes, count, [](uint32_t w) { return __builtin_bswap32(w); });
}

HRESULT inspectPath(const std::string& path, FileFacts& facts) {
  KAHFILE file = KA_INVALID_HFILE;
  HRESULT hr = KaFile_OpenUtf8(path.c_str(), GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING,
                               FILE_ATTRIBUTE_NORMAL, &file);
  if (FAILED(hr)) return hr;
  hr = inspectFile(file, facts);
  KaFile_Close(file);
  return hr;
}

HRESULT inspectImage(const uint8_t* data, size_t size, FileFacts& facts) {
  facts = FileFacts{};
  KaErrorHandler_DetailsInit();
  facts.fileSize = size;
  if (size > 0x7FFFFFFF) return KAERR_RIFF_TOO_LARGE;  // mriff positions are signed 32-bit
  ImageWalker w{{}, facts};
  HRESULT hr = mriff_Init(&w.rec, const_cast<uint8_t*>(data), DWORD(size), DWORD(size));
  if (FAILED(hr)) return hr;
  DWORD riffSize = 0, form = 0;
  if (FAILED(hr = mriff_ReadFileID(&w.rec, &riffSize, &form))) return hr;
  facts.kind = Container::Riff;
  facts.container = "RIFF";
  facts.form = fourCCText(form);
  facts.headerSize = uint64_t(riffSize) + 4;
  // Writers that could not seek back leave 0 or 0xFFFFFFFF: then the image's end counts.
  uint64_t limit = facts.headerSize + 8;
  if (facts.headerSize < 4 || limit > size) limit = size;
  w.walk(data, size, limit);
  finishFrames(facts);
  std::vector<std::string> notes = takeKernelDetails();
  notes.insert(notes.end(), facts.notes.begin(), facts.notes.end());
  facts.notes = std::move(notes);
  return S_OK;
}

}  // namespace ostra::cli
