// The header repair of wave and Wave64 files (KaPlanWavRepair / KaApplyWavRepair), used by
// `ostra repair` and by recorders that resume after a crash. Unlike KaFixTrashedWav, which
// lays a header of its own over the start of the file, it only ever rewrites bytes that
// are already header: ids, size words and format fields in front of the samples. Every
// decision is proved from the file's own structure; what cannot be proved is refused.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "formats/riff/internal/byte_source.h"
#include "formats/riff/internal/details_note.h"
#include "formats/riff/internal/source_parsers.h"
#include "ostra/kaerror.h"
#include "ostra/kaplatform.h"
#include "ostra/kawave.h"
#include "ostra/riff.h"
#include "ostra/riff64.h"

using ostra::riff::note;

namespace {

// Headers longer than this in front of the samples are not looked at.
constexpr uint64_t kHeadBytes = 1u << 20;
// Bytes at the end of a file searched for chunks that a writer appended after samples
// whose length it never wrote down.
constexpr uint64_t kTailWindow = 16u << 20;
constexpr int kMaxChunks = 1024;

uint32_t le32(const uint8_t* p) {
  return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}
uint16_t le16(const uint8_t* p) { return uint16_t(p[0] | p[1] << 8); }
uint64_t le64(const uint8_t* p) { return le32(p) | uint64_t(le32(p + 4)) << 32; }
void put(uint8_t* p, uint64_t v, unsigned n) {
  for (unsigned i = 0; i < n; ++i) p[i] = uint8_t(v >> (8 * i));
}

struct Layout {
  bool w64;
  unsigned idLen, sizeLen, headerLen, align;
  uint64_t formOffset, firstChunk;
  uint8_t riff[16], wave[16], fmt[16], data[16];
};

Layout layoutOf(bool w64) {
  Layout l{};
  l.w64 = w64;
  l.idLen = w64 ? 16 : 4;
  l.sizeLen = w64 ? 8 : 4;
  l.headerLen = w64 ? 24 : 8;
  l.align = w64 ? 8 : 2;
  l.formOffset = w64 ? 24 : 8;
  l.firstChunk = w64 ? 40 : 12;
  if (w64) {
    std::memcpy(l.riff, &RIFF64_GUID_RIFF, 16);
    std::memcpy(l.wave, &RIFF64_GUID_WAVE, 16);
    std::memcpy(l.fmt, &RIFF64_GUID_FMT, 16);
    std::memcpy(l.data, &RIFF64_GUID_DATA, 16);
  } else {
    std::memcpy(l.riff, "RIFF", 4);
    std::memcpy(l.wave, "WAVE", 4);
    std::memcpy(l.fmt, "fmt ", 4);
    std::memcpy(l.data, "data", 4);
  }
  return l;
}

// The GUID families of Wave64 chunk ids: the wave family (fmt, data, fact, ...) and the
// riff family (riff, list), whose first field is the RIFF id.
constexpr GUID kWaveFamily = KaGuid("00000000-ACF3-11D3-8CD1-00C04F8EDB8A");
constexpr GUID kRiffFamily = KaGuid("00000000-912F-11CF-A5D6-28DB04C10000");
constexpr GUID kRiffFamily2 = KaGuid("00000000-912E-11CF-A5D6-28DB04C10000");

bool sameTail(const uint8_t* p, const GUID& g) {
  return std::memcmp(p + 4, reinterpret_cast<const uint8_t*>(&g) + 4, 12) == 0;
}

bool printable(const uint8_t* p) {
  for (int i = 0; i < 4; ++i)
    if (p[i] < 0x20 || p[i] > 0x7E) return false;
  return true;
}

// Chunks that recorders put after the samples.
bool knownTrailingId(const uint8_t* p) {
  static const char* const kIds[] = {"LIST", "JUNK", "junk", "bext", "id3 ", "ID3 ", "cue ",
                                     "smpl", "inst", "fact", "iXML", "PAD ", "DISP", "acid",
                                     "cart", "umid", "axml", "_PMX", "plst", "labl", "ltxt",
                                     "note", "FLLR", "levl", "afsp", "SyLp", "regn"};
  for (const char* s : kIds)
    if (std::memcmp(p, s, 4) == 0) return true;
  return false;
}

class Planner {
 public:
  Planner(ostra::riff::ByteSource& source, tKAWAVREPAIR* plan) : src_(source), plan_(plan) {}
  HRESULT run();

 private:
  // A chunk id that a writer would have written: four printable characters, or a GUID
  // of one of the Wave64 families.
  bool plausibleId(const uint8_t* p) const {
    if (!l_.w64) return printable(p);
    return sameTail(p, kWaveFamily) || sameTail(p, kRiffFamily) || sameTail(p, kRiffFamily2) ||
           std::memcmp(p, &RIFF64_GUID_JUNK, 16) == 0 || std::memcmp(p, &KAGUID_W64_DISP, 16) == 0;
  }
  // An id that damage could have made out of `expected`: not what a writer writes, or
  // off by a byte (a quarter of a GUID).
  bool damagedFrom(const uint8_t* p, const uint8_t* expected) const {
    if (!plausibleId(p)) return true;
    unsigned differ = 0;
    for (unsigned i = 0; i < l_.idLen; ++i) differ += p[i] != expected[i];
    return differ <= l_.idLen / 4;
  }
  bool is(const uint8_t* p, const uint8_t* id) const { return std::memcmp(p, id, l_.idLen) == 0; }

  uint64_t statedAt(uint64_t pos) const {
    return l_.w64 ? le64(&head_[pos + 16]) : le32(&head_[pos + 4]);
  }
  // Body bytes of a chunk from its stated size; ~0 for a Wave64 size below its header.
  uint64_t bodyOf(uint64_t stated) const {
    if (!l_.w64) return stated;
    return stated >= 24 ? stated - 24 : ~uint64_t(0);
  }
  uint64_t stateOf(uint64_t body) const { return l_.w64 ? body + 24 : body; }
  uint64_t next(uint64_t pos, uint64_t body) const {
    if (body > length_) return ~uint64_t(0);
    return pos + l_.headerLen + (body + l_.align - 1) / l_.align * l_.align;
  }
  bool inHead(uint64_t pos, uint64_t n) const {
    return pos <= head_.size() && n <= head_.size() - pos;
  }

  // A chunk header a walk may trust at pos: it fits, its id is plausible, and its body fits
  // in the file (a data chunk may claim more: that is what an unfinished file looks like).
  // The chunk at pos ends at the end of the file or where a credible chunk starts.
  bool leadsOn(uint64_t pos) const {
    const uint64_t after = next(pos, bodyOf(statedAt(pos)));
    return after == length_ || after == length_ + 1 || (after < length_ && credibleAt(after));
  }

  bool credibleAt(uint64_t pos) const {
    if (pos == length_) return true;
    if (!inHead(pos, l_.headerLen)) return false;
    const uint8_t* id = &head_[pos];
    if (is(id, l_.data)) return true;
    return plausibleId(id) && bodyOf(statedAt(pos)) <= length_ - pos - l_.headerLen;
  }

  void change(uint64_t offset, const uint8_t* after, unsigned n, const char* field);
  void changeNumber(uint64_t offset, uint64_t value, unsigned n, const char* field) {
    uint8_t b[8];
    put(b, value, n);
    change(offset, b, n, field);
  }
  HRESULT refuse(HRESULT hr, const std::string& why) {
    KaErrorHandler_DetailsAddString(hr, u"%hs", why.c_str());
    return hr;
  }
  HRESULT format(uint64_t pos);
  HRESULT fields(uint64_t body, uint64_t bodyLen);
  HRESULT sizes();

  // Reading past the head, for the chunks after the samples.
  bool readAt(uint64_t pos, void* buf, size_t n) const {
    return n <= 0xFFFFFFFFu && src_.seek(pos) && src_.readAll(buf, uint32_t(n));
  }
  uint64_t chainEnd(uint64_t pos, bool requireKnownFirst) const;
  uint64_t audioEnd(uint64_t from) const;

  ostra::riff::ByteSource& src_;
  tKAWAVREPAIR* plan_;
  Layout l_{};
  uint64_t length_ = 0;
  std::vector<uint8_t> head_;
  uint64_t dataPos_ = 0;
  uint32_t blockAlign_ = 0;
};

void Planner::change(uint64_t offset, const uint8_t* after, unsigned n, const char* field) {
  if (std::memcmp(&head_[offset], after, n) == 0 || plan_->changeCount >= KAREPAIR_MAX_CHANGES)
    return;
  tKAREPAIRCHANGE& c = plan_->changes[plan_->changeCount++];
  c.offset = offset;
  c.length = n;
  std::memcpy(c.before, &head_[offset], n);
  std::memcpy(c.after, after, n);
  std::snprintf(c.field, sizeof c.field, "%s", field);
  // Later steps read the repaired header.
  std::memcpy(&head_[offset], after, n);
}

HRESULT Planner::run() {
  *plan_ = tKAWAVREPAIR{};
  const uint64_t size = src_.size();
  length_ = size;
  plan_->fileLength = size;
  if (length_ == 0) return refuse(KAERR_EMPTY_FILE, "the file is empty");
  head_.resize(size_t(std::min(length_, kHeadBytes)));
  if (!readAt(0, head_.data(), head_.size())) return KAERR_READ_FAILED;

  // The container: a Wave64 file starts with the riff GUID, or with damage over it and
  // the wave GUID after it; anything else is read as RIFF.
  const Layout w64 = layoutOf(true);
  const bool isW64 = head_.size() >= 40 && (std::memcmp(&head_[0], w64.riff, 16) == 0 ||
                                            std::memcmp(&head_[24], w64.wave, 16) == 0);
  l_ = layoutOf(isW64);
  plan_->container = isW64 ? KACONTAINER_WAVE64 : KACONTAINER_WAVE;
  if (!inHead(l_.firstChunk, l_.headerLen + 16))
    return refuse(KAERR_UNSUPPORTED_FILE, "the file is too short to hold a wave header");
  const bool riffDamaged = !is(&head_[0], l_.riff);
  const bool waveDamaged = !is(&head_[l_.formOffset], l_.wave);
  if (riffDamaged && !damagedFrom(&head_[0], l_.riff))
    return refuse(KAERR_UNSUPPORTED_FILE, "the file does not start as a wave file does");
  if (waveDamaged && !damagedFrom(&head_[l_.formOffset], l_.wave))
    return refuse(KAERR_UNSUPPORTED_FILE, "the RIFF form is not WAVE");
  if (riffDamaged && waveDamaged)
    return refuse(KAERR_UNSUPPORTED_FILE, "neither the container id nor the form id is there");

  // Walk to the format chunk, then to the data chunk.
  uint64_t pos = l_.firstChunk, candidate = 0;
  bool haveFormat = false;
  for (int n = 0; n < kMaxChunks; ++n) {
    if (!inHead(pos, l_.headerLen)) break;
    const uint8_t* id = &head_[pos];
    if (!haveFormat) {
      if (is(id, l_.fmt) || (damagedFrom(id, l_.fmt) && pos == l_.firstChunk)) {
        if (HRESULT hr = format(pos); FAILED(hr)) return hr;
        haveFormat = true;
        pos = next(pos, bodyOf(statedAt(pos)));
        continue;
      }
      if (!credibleAt(pos) || is(id, l_.data))
        return refuse(KAERR_BAD_FORMAT_CHUNK, "no format chunk in front of the samples");
      pos = next(pos, bodyOf(statedAt(pos)));
      continue;
    }
    if (is(id, l_.data)) {
      dataPos_ = pos;
      break;
    }
    // A chunk whose size leads on to another chunk (or the end) is passed, whatever its
    // id: a damaged id there costs the reader nothing. The first id that damage could
    // have made out of "data" is remembered: the data chunk, if no intact one follows.
    if (!candidate && damagedFrom(id, l_.data)) candidate = pos;
    const uint64_t after = next(pos, bodyOf(statedAt(pos)));
    if (after > length_ + 1) break;
    // Behind a chunk whose size holds may lie a data chunk whose id is the damage: it is
    // believed when its own size leads on to the end or to another chunk.
    if (after < length_ && !credibleAt(after) &&
        !(inHead(after, l_.headerLen) && damagedFrom(&head_[after], l_.data) && leadsOn(after)))
      break;
    pos = after;
  }
  if (haveFormat && !dataPos_ && candidate) {
    change(candidate, l_.data, l_.idLen, "data id");
    dataPos_ = candidate;
  }
  if (!haveFormat) return refuse(KAERR_BAD_FORMAT_CHUNK, "no format chunk in front of the samples");
  if (!dataPos_) return refuse(KAERR_NO_DATA_CHUNK, "no data chunk after the format chunk");
  if (!inHead(dataPos_, l_.headerLen))
    return refuse(KAERR_NO_DATA_CHUNK, "the file ends inside the data chunk's header");
  if (riffDamaged) change(0, l_.riff, l_.idLen, l_.w64 ? "riff GUID" : "RIFF id");
  if (waveDamaged) change(l_.formOffset, l_.wave, l_.idLen, l_.w64 ? "wave GUID" : "WAVE id");
  return sizes();
}

// The format chunk at pos: its id, its size and its fields.
HRESULT Planner::format(uint64_t pos) {
  const uint64_t body = pos + l_.headerLen;
  // The sizes a PCM, float or extensible description has; a size that leads to a chunk
  // header is believed, else the one of these that does.
  const uint64_t stated = bodyOf(statedAt(pos));
  auto sizeFits = [&](uint64_t candidate, bool orDamagedData) {
    if (candidate < 16 || candidate > 64 || !inHead(body, candidate)) return false;
    const uint64_t after = next(pos, candidate);
    if (after >= length_ || !inHead(after, l_.headerLen)) return false;
    return credibleAt(after) || (orDamagedData && damagedFrom(&head_[after], l_.data));
  };
  uint64_t len = 0;
  for (uint64_t candidate : {stated, uint64_t(16), uint64_t(18), uint64_t(40)})
    if (!len && sizeFits(candidate, false)) len = candidate;
  // Behind an intact size there may be a data chunk whose id is the damage.
  if (!len && sizeFits(stated, true)) len = stated;
  if (!len) return refuse(KAERR_BAD_FORMAT_CHUNK, "the format chunk's size leads nowhere");
  if (HRESULT hr = fields(body, len); FAILED(hr)) return hr;
  if (!is(&head_[pos], l_.fmt)) change(pos, l_.fmt, l_.idLen, "fmt id");
  if (len != stated) changeNumber(pos + l_.idLen, stateOf(len), l_.sizeLen, "fmt size");
  return S_OK;
}

struct Fields {
  uint32_t tag, channels, rate, avg, align, bits;
  bool operator==(const Fields&) const = default;
};

bool bitsFit(uint32_t tag, uint32_t bits) {
  if (tag == WAVE_FORMAT_PCM) return bits == 8 || bits == 16 || bits == 24 || bits == 32;
  if (tag == WAVE_FORMAT_IEEE_FLOAT) return bits == 32 || bits == 64;
  if (tag == WAVE_FORMAT_EXTENSIBLE) return bits >= 8 && bits <= 64 && bits % 8 == 0;
  return false;
}

bool consistent(const Fields& f) {
  return bitsFit(f.tag, f.bits) && f.channels >= 1 && f.channels <= 1024 && f.rate >= 1 &&
         f.rate <= 10000000 && f.align == f.channels * (f.bits / 8) &&
         uint64_t(f.avg) == uint64_t(f.rate) * f.align;
}

bool commonRate(uint32_t rate) {
  static const uint32_t kRates[] = {8000,  11025, 16000,  22050,  24000,  32000,  44100,  48000,
                                    88200, 96000, 176400, 192000, 352800, 384000, 705600, 768000};
  return std::find(std::begin(kRates), std::end(kRates), rate) != std::end(kRates);
}

// The fields of a format chunk. One damaged field among channels, rate, bytes per second,
// block size and bits is outvoted by the others; a damaged tag is restored where the bits
// decide it. Anything more is refused.
HRESULT Planner::fields(uint64_t body, uint64_t bodyLen) {
  const uint8_t* b = &head_[body];
  const Fields f{le16(b), le16(b + 2), le32(b + 4), le32(b + 8), le16(b + 12), le16(b + 14)};
  // A 40-byte description with 22 extra bytes and a sub-format of the media family is
  // extensible, whatever its tag says.
  const GUID pcmSub = KaGuid("00000001-0000-0010-8000-00AA00389B71");
  const bool extensibleShape = bodyLen >= 40 && le16(b + 16) == 22 && sameTail(b + 24, pcmSub);
  std::vector<Fields> fixes;
  if (consistent(f) && (f.tag == WAVE_FORMAT_EXTENSIBLE) == extensibleShape) {
    fixes.push_back(f);
  } else {
    const uint32_t bytes = f.bits / 8;
    auto tryFix = [&](Fields g) {
      if (consistent(g) && std::find(fixes.begin(), fixes.end(), g) == fixes.end())
        fixes.push_back(g);
    };
    Fields g = f;
    g.tag = extensibleShape                                 ? WAVE_FORMAT_EXTENSIBLE
            : f.bits == 64                                  ? WAVE_FORMAT_IEEE_FLOAT
            : (f.bits == 8 || f.bits == 16 || f.bits == 24) ? WAVE_FORMAT_PCM
                                                            : f.tag;
    tryFix(g);
    g = f, g.align = f.channels * bytes, tryFix(g);
    g = f, g.avg = f.rate * f.align, tryFix(g);
    if (f.align) g = f, g.rate = f.avg / f.align, g.rate * f.align == f.avg ? tryFix(g) : void();
    if (bytes)
      g = f, g.channels = f.align / bytes, g.channels * bytes == f.align ? tryFix(g) : void();
    if (f.channels) {
      g = f, g.bits = f.align / f.channels * 8;
      if (g.bits / 8 * f.channels == f.align) tryFix(g);
    }
    // Of fixes that disagree, those that leave a rate in common use win.
    if (fixes.size() > 1) {
      std::vector<Fields> common;
      for (const Fields& x : fixes)
        if (commonRate(x.rate)) common.push_back(x);
      if (!common.empty()) fixes = common;
    }
  }
  if (fixes.size() != 1) {
    return refuse(KAERR_BAD_FORMAT_CHUNK,
                  "the format chunk is damaged beyond repair (tag " + std::to_string(f.tag) + ", " +
                      std::to_string(f.channels) + " channels, " + std::to_string(f.rate) +
                      " Hz, " + std::to_string(f.avg) + " bytes per second, block size " +
                      std::to_string(f.align) + ", " + std::to_string(f.bits) + " bits)");
  }
  const Fields& r = fixes[0];
  changeNumber(body, r.tag, 2, "fmt tag");
  changeNumber(body + 2, r.channels, 2, "fmt channels");
  changeNumber(body + 4, r.rate, 4, "fmt rate");
  changeNumber(body + 8, r.avg, 4, "fmt bytes per second");
  changeNumber(body + 12, r.align, 2, "fmt block size");
  changeNumber(body + 14, r.bits, 2, "fmt bits");
  blockAlign_ = r.align;
  if (bodyLen >= 18)
    changeNumber(body + 16, bodyLen >= 40 ? 22 : bodyLen - 18, 2, "fmt extra size");
  if (r.tag == WAVE_FORMAT_EXTENSIBLE) {
    if (bodyLen < 40)
      return refuse(KAERR_BAD_FORMAT_CHUNK, "the extensible format chunk is cut short");
    // Valid bits cannot be told from the rest (24 in 32 and 32 in 32 look alike).
    const uint16_t valid = le16(b + 18);
    if (valid == 0 || valid > r.bits)
      return refuse(KAERR_BAD_FORMAT_CHUNK, "the valid bits of the extensible format chunk (" +
                                                std::to_string(valid) + ") are damaged");
    GUID sub{};
    std::memcpy(&sub, b + 24, 16);
    if (sub.Data1 != WAVE_FORMAT_PCM && sub.Data1 != WAVE_FORMAT_IEEE_FLOAT) {
      const uint32_t validNow = le16(b + 18);
      sub.Data1 = r.bits == 64                   ? WAVE_FORMAT_IEEE_FLOAT
                  : r.bits < 32 || validNow < 32 ? WAVE_FORMAT_PCM
                                                 : 0;
      if (!sub.Data1)
        return refuse(KAERR_BAD_FORMAT_CHUNK,
                      "the sub-format of the extensible format chunk is damaged, and 32-bit "
                      "samples could be integers or floating point");
    }
    std::memcpy(reinterpret_cast<uint8_t*>(&sub) + 4, reinterpret_cast<const uint8_t*>(&pcmSub) + 4,
                12);
    change(body + 24, reinterpret_cast<const uint8_t*>(&sub), 16, "fmt sub-format");
  }
  return S_OK;
}

uint64_t Planner::chainEnd(uint64_t pos, bool requireKnownFirst) const {
  for (int n = 0; n < kMaxChunks; ++n) {
    if (pos == length_) return length_;
    if (length_ - pos < l_.headerLen) return !l_.w64 && length_ - pos == 1 ? pos : 0;
    uint8_t h[24];
    if (!readAt(pos, h, l_.headerLen) || !plausibleId(h)) return 0;
    if (n == 0 && requireKnownFirst && !l_.w64 && !knownTrailingId(h)) return 0;
    const uint64_t body = bodyOf(l_.w64 ? le64(h + 16) : le32(h + 4));
    if (body > length_) return 0;
    const uint64_t after = next(pos, body);
    if (after > length_) return pos + l_.headerLen + body == length_ ? length_ : 0;
    pos = after;
  }
  return 0;
}

uint64_t Planner::audioEnd(uint64_t from) const {
  const uint64_t start = std::max(from, length_ > kTailWindow ? length_ - kTailWindow : 0);
  if (length_ - start < l_.headerLen) return length_;
  std::vector<uint8_t> tail(size_t(length_ - start));
  if (!readAt(start, tail.data(), tail.size())) return length_;
  for (size_t i = 0; i + l_.headerLen <= tail.size(); ++i) {
    const uint8_t* p = tail.data() + i;
    if (l_.w64 ? !plausibleId(p) || is(p, l_.data) : !knownTrailingId(p)) continue;
    if (chainEnd(start + i, true)) return start + i;
  }
  return length_;
}

// The data and RIFF sizes from what the file holds.
HRESULT Planner::sizes() {
  const uint64_t dataStart = dataPos_ + l_.headerLen;
  const uint64_t stated = bodyOf(statedAt(dataPos_));
  const uint64_t onDisk = length_ > dataStart ? length_ - dataStart : 0;
  // The stated size is believed when it fits, holds whole frames and is followed by
  // nothing but well-formed chunks up to the end of the file.
  uint64_t dataLen, end;
  const uint64_t statedEnd = stated <= onDisk ? next(dataPos_, stated) : 0;
  const uint64_t statedChainEnd = stated > onDisk || stated % blockAlign_ ? 0
                                  : statedEnd >= length_                  ? length_
                                                         : chainEnd(statedEnd, false);
  if (statedChainEnd) {
    dataLen = stated;
    end = statedChainEnd;
  } else {
    const uint64_t tail = audioEnd(dataStart);
    dataLen = (tail - dataStart) / blockAlign_ * blockAlign_;
    const uint64_t padded = dataStart + (dataLen + l_.align - 1) / l_.align * l_.align;
    end = tail < length_ ? chainEnd(tail, true) : std::min(length_, padded);
    if (tail < length_) {
      plan_->notes |= KAREPAIR_NOTE_TRAILING_CHUNKS;
      plan_->trailingChunks = tail;
      note("chunks after the samples start at %llu; they are kept", (unsigned long long)tail);
    }
    if ((tail - dataStart) % blockAlign_) {
      plan_->notes |= KAREPAIR_NOTE_PARTIAL_FRAME;
      note("a partial last frame of %llu bytes is left outside the data chunk",
           (unsigned long long)((tail - dataStart) % blockAlign_));
    }
  }
  if (!l_.w64 && end - 8 > RIFF_MAX_SIZE) {
    dataLen = std::min<uint64_t>(
        dataLen, (uint64_t(RIFF_MAX_SIZE) + 8 - dataStart) / blockAlign_ * blockAlign_);
    end = dataStart + dataLen + (dataLen & 1);
    plan_->notes |= KAREPAIR_NOTE_RIFF_LIMIT;
    note(
        "more samples than a RIFF file can describe: the data chunk keeps the first %llu bytes;"
        " convert the file to Wave64 to keep all",
        (unsigned long long)dataLen);
  }
  plan_->dataOffset = dataStart;
  plan_->dataLength = dataLen;
  changeNumber(dataPos_ + l_.idLen, stateOf(dataLen), l_.sizeLen, "data size");
  changeNumber(l_.idLen, l_.w64 ? end : end - 8, l_.sizeLen, l_.w64 ? "riff size" : "RIFF size");
  return S_OK;
}

}  // namespace

namespace ostra::riff {

HRESULT planWavRepair(ByteSource& source, tKAWAVREPAIR* plan) noexcept {
  if (!plan) return E_POINTER;
  try {
    return Planner(source, plan).run();
  } catch (...) {
    return E_OUTOFMEMORY;
  }
}

HRESULT applyWavRepair(ByteSource& s, const tKAWAVREPAIR* plan) noexcept {
  if (!plan || plan->changeCount > KAREPAIR_MAX_CHANGES) return E_INVALIDARG;
  // Every change is checked against the file before any is written.
  for (DWORD i = 0; i < plan->changeCount; ++i) {
    const tKAREPAIRCHANGE& c = plan->changes[i];
    uint8_t now[16];
    if (c.length == 0 || c.length > 16 || c.offset + c.length > plan->dataOffset)
      return E_INVALIDARG;
    if (!s.seek(c.offset) || !s.readAll(now, c.length)) return KAERR_READ_FAILED;
    if (std::memcmp(now, c.before, c.length) != 0) return KAERR_CORRUPT_FILE;
  }
  for (DWORD i = 0; i < plan->changeCount; ++i) {
    const tKAREPAIRCHANGE& c = plan->changes[i];
    if (!s.seek(c.offset) || !s.writeAll(c.after, c.length)) return KAERR_WRITE_FAILED;
  }
  return S_OK;
}

}  // namespace ostra::riff

HRESULT KaPlanWavRepair(KAHFILE file, tKAWAVREPAIR* plan) noexcept {
  ostra::riff::FileSource source(file);
  return ostra::riff::planWavRepair(source, plan);
}

HRESULT KaApplyWavRepair(KAHFILE file, const tKAWAVREPAIR* plan) noexcept {
  ostra::riff::FileSource source(file);
  const HRESULT hr = ostra::riff::applyWavRepair(source, plan);
  return SUCCEEDED(hr) && plan->changeCount ? KaFile_Flush(file) : hr;
}
