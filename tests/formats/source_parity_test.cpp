// Every parser over a ByteSource, and the exported chunk list, gives the same results for
// the same bytes whether they come from an open file or from a read-only memory image:
// generated wave, Wave64, AIFF and AIFC files, each also cut short and with bytes of its
// headers overwritten.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "format_test_support.h"
#include "formats/riff/internal/chunk_walker.h"
#include "formats/riff/internal/iff_source.h"
#include "formats/riff/internal/source_parsers.h"
#include "ostra/kaplatform.h"
#include "ostra/kawave.h"
#include "ostra/riff64.h"

using namespace formatstest;
using ostra::riff::ByteSource;
using ostra::riff::FileSource;
using ostra::riff::SpanSource;

namespace {

constexpr GUID kW64Disp = KAGUID_W64_DISP;

std::string hex(const void* p, size_t n) {
  static const char* d = "0123456789abcdef";
  std::string s;
  for (size_t i = 0; i < n; ++i) {
    const uint8_t b = static_cast<const uint8_t*>(p)[i];
    s += d[b >> 4], s += d[b & 15];
  }
  return s;
}

Bytes rate80(DWORD rate) {
  WORD e, m[4];
  aiff_CreateRate(rate, &e, m);
  Bytes b;
  b.be16(e);
  for (WORD w : m) b.be16(w);
  return b;
}

Bytes beChunk(const char* id, const Bytes& body) {
  Bytes b;
  b.id(id).be32(uint32_t(body.size())).add(body);
  if (body.size() & 1) b.push_back(0);
  return b;
}

Bytes randomBytes(std::mt19937& rng, size_t n) {
  Bytes b;
  for (size_t i = 0; i < n; ++i) b.push_back(uint8_t(rng()));
  return b;
}

// One well-formed file of each kind the parsers know, with the optional chunks they read.
Bytes makeAiff(std::mt19937& rng, const char* compression) {
  const uint16_t channels = uint16_t(1 + rng() % 3);
  const bool isFloat = compression && (compression[0] == 'f' || compression[0] == 'F');
  const uint16_t bits = isFloat ? (compression[2] == '6' ? 64 : 32) : uint16_t(8 * (1 + rng() % 4));
  const uint32_t frames = rng() % 40;
  Bytes comm;
  comm.be16(channels).be32(frames).be16(bits).add(rate80(8000 + rng() % 90000));
  if (compression) comm.id(compression).push_back(0), comm.push_back(0);
  Bytes mark;
  mark.be16(2).be16(1).be32(rng() % 100).push_back(3);
  mark.text("one");
  mark.be16(7).be32(5).push_back(4);
  mark.text("four").push_back(0);
  Bytes ssnd;
  ssnd.be32(rng() % 3).be32(0).add(randomBytes(rng, size_t(frames) * channels * bits / 8 + 2));
  Bytes body;
  body.id(compression ? "AIFC" : "AIFF");
  if (compression) body.add(beChunk("FVER", Bytes{}.be32(0xA2805140)));
  body.add(beChunk("COMM", comm))
      .add(beChunk("MARK", mark))
      .add(beChunk("NAME", Bytes{}.text("n")));
  body.add(beChunk("SSND", ssnd));
  return Bytes{}.id("FORM").be32(uint32_t(body.size())).add(body);
}

Bytes makeWave(std::mt19937& rng) {
  Bytes fmt;
  const uint16_t channels = uint16_t(1 + rng() % 2), bits = 16;
  fmt.u16(1)
      .u16(channels)
      .u32(44100)
      .u32(44100u * channels * 2)
      .u16(uint16_t(channels * 2))
      .u16(bits);
  Bytes disp;
  disp.u32(KA_CF_TEXT).text("shown").push_back(0);
  return riff("WAVE", {chunk("fmt ", fmt),
                       list("INFO", {chunk("INAM", Bytes{}.text("Title").zeros(1)),
                                     chunk("IART", Bytes{}.text("Maker").zeros(1))}),
                       chunk("DISP", disp), chunk("data", randomBytes(rng, 4 * (rng() % 50)))});
}

Bytes w64Chunk(const GUID& id, const Bytes& body) {
  Bytes b;
  b.guid(id).u64(24 + body.size()).add(body);
  while (b.size() % 8) b.push_back(0);
  return b;
}

Bytes makeW64(std::mt19937& rng) {
  Bytes fmt;
  fmt.u16(3).u16(1).u32(48000).u32(48000 * 4).u16(4).u16(32);
  Bytes disp;
  disp.u32(KA_CF_TEXT).text("w64 text").push_back(0);
  Bytes body;
  body.guid(RIFF64_GUID_WAVE)
      .add(w64Chunk(RIFF64_GUID_FMT, fmt))
      .add(w64Chunk(kW64Disp, disp))
      .add(w64Chunk(RIFF64_GUID_DATA, randomBytes(rng, 4 * (rng() % 30))));
  return Bytes{}.guid(RIFF64_GUID_RIFF).u64(24 + body.size()).add(body);
}

// The images: each good file, cut at random lengths, and with random header bytes.
std::vector<Bytes> images() {
  std::mt19937 rng(20261124);
  std::vector<Bytes> good;
  for (const char* c :
       {(const char*)nullptr, "NONE", "sowt", "twos", "fl32", "FL32", "fl64", "FL64", "ima4"})
    good.push_back(makeAiff(rng, c));
  good.push_back(makeWave(rng));
  good.push_back(makeW64(rng));
  std::vector<Bytes> all;
  for (const Bytes& g : good) {
    all.push_back(g);
    for (int i = 0; i < 12; ++i)
      all.push_back(Bytes(g.begin(), g.begin() + long(rng() % g.size())));
    for (int i = 0; i < 24; ++i) {
      Bytes m = g;
      for (int k = 0; k < 3; ++k) m[rng() % std::min<size_t>(m.size(), 160)] = uint8_t(rng());
      all.push_back(m);
    }
  }
  return all;
}

// Files refuse positions past the largest offset of their file system (16 TiB on some),
// memory only past 2^63 - 1: memory is held to the same limit so that damaged size
// words, which can ask for any position, meet the same refusal both ways.
class Limited final : public ByteSource {
 public:
  Limited(ByteSource& s, uint64_t limit) : s_(s), limit_(limit) {}
  bool read(void* d, uint32_t n, uint32_t* got) override { return s_.read(d, n, got); }
  bool write(const void* d, uint32_t n, uint32_t* put) override { return s_.write(d, n, put); }
  uint64_t tell() override { return s_.tell(); }
  bool seek(uint64_t p) override { return p <= limit_ && s_.seek(p); }
  bool skip(uint64_t n) override { return n <= limit_ - std::min(limit_, s_.tell()) && s_.skip(n); }
  uint64_t size() override { return s_.size(); }
  bool truncateHere() override { return s_.truncateHere(); }

 private:
  ByteSource& s_;
  uint64_t limit_;
};

// The largest position the file system of `file` accepts.
uint64_t largestOffset(KAHFILE file) {
  uint64_t lo = 0, hi = uint64_t(INT64_MAX);
  while (lo < hi) {
    const uint64_t mid = lo + (hi - lo + 1) / 2;
    if (SUCCEEDED(KaFile_Seek(file, INT64(mid), FILE_BEGIN, nullptr)))
      lo = mid;
    else
      hi = mid - 1;
  }
  return lo;
}

// Every output of a call and the position after it, as one comparable line.
template <typename... T>
std::string say(ByteSource& s, const T&... v) {
  std::ostringstream o;
  ((o << v << ' '), ...);
  o << '@' << s.tell();
  return o.str();
}

std::string listText(const _displisttag* list) {
  std::string t;
  for (DWORD i = 0; i < list->count; ++i)
    t += std::to_string(list->items[i].size) + ':' + hex(list->items[i].data, list->items[i].size);
  return t;
}

struct Named {
  const char* name;
  std::function<std::string(ByteSource&, uint64_t size)> run;
};

std::vector<Named> parsers() {
  namespace iff = ostra::riff::iff;
  namespace fw = ostra::riff::filewfx;
  namespace rf = ostra::riff;
  return {
      {"isAiff",
       [](ByteSource& s, uint64_t) {
         DWORD size = 0, type = 0, comp = 0;
         const BOOL ok = iff::isAiff(s, &size, &type, &comp);
         return say(s, ok, size, type, comp);
       }},
      {"getAiffWfx",
       [](ByteSource& s, uint64_t) {
         WAVEFORMATEX w{};
         INT64 at = 0;
         DWORD size = 0, frames = 0;
         const HRESULT hr = iff::getAiffWfx(s, &w, &at, &size, &frames);
         return say(s, hr, hex(&w, sizeof w), at, size, frames);
       }},
      {"getAifcFloatWfx",
       [](ByteSource& s, uint64_t) {
         WAVEFORMATEX w{};
         INT64 at = 0;
         DWORD size = 0, frames = 0, comp = 0;
         const HRESULT hr = iff::getAifcFloatWfx(s, &w, &at, &size, &frames, &comp);
         return say(s, hr, hex(&w, sizeof w), at, size, frames, comp);
       }},
      {"findMarker and seekChunkHeader",
       [](ByteSource& s, uint64_t) {
         std::string r;
         for (WORD id : {WORD(1), WORD(7), WORD(9)}) {
           DWORD at = 0;
           char name[8] = {};
           const HRESULT hr = iff::findMarker(s, id, &at, name, sizeof name);
           r += say(s, hr, at, name);
         }
         DWORD size = 0;
         INT64 at = 0;
         const HRESULT hr = iff::seekChunkHeader(s, IFFID_SSND, &size, &at);
         return r + say(s, hr, size, at);
       }},
      {"getFileWfx",
       [](ByteSource& s, uint64_t) {
         alignas(8) BYTE b[KAWAVEFORMAT_BUFFER_SIZE] = {};
         const HRESULT hr = fw::getFileWfx(s, reinterpret_cast<_kawaveformat*>(b), sizeof b);
         return say(s, hr, hex(b, sizeof b));
       }},
      {"getFileAudioData and getFileChunks",
       [](ByteSource& s, uint64_t) {
         tKAAUDIODATA d{};
         const HRESULT hr = fw::getFileAudioData(s, &d);
         tKACHUNKINFO c[16] = {};
         DWORD count = 0, container = 0;
         const HRESULT hr2 = fw::getFileChunks(s, c, 16, &count, &container);
         return say(s, hr, hex(&d, sizeof d), hr2, count, container, hex(c, sizeof c));
       }},
      {"summaryLoad and summaryGetString",
       [](ByteSource& s, uint64_t size) {
         DWORD listSize = 0, budget = DWORD(std::min<uint64_t>(size, 0xFFFFFFFF));
         _summarylisttag list{};
         HRESULT hr = E_FAIL;
         if (s.seek(12) && SUCCEEDED(rf::findList(s, RIFF_ID_INFO, &listSize, &budget))) {
           const DWORD inner = listSize >= 4 ? listSize - 4 : 0;
           hr = rf::summaryLoad(s, &list, &inner);
         }
         std::string r = say(s, hr, list.count);
         for (DWORD i = 0; i < list.count && list.items; ++i)
           r += say(s, list.items[i].id, KaText_WideLength(list.items[i].text));
         KaSummary_Free(&list);
         KAWCHAR text[16] = {};
         budget = DWORD(std::min<uint64_t>(size, 0xFFFFFFFF));
         s.seek(12);
         hr = rf::summaryGetString(s, KASUMMARY_INAM, text, 16, &budget);
         return r + say(s, hr, hex(text, sizeof text), budget);
       }},
      {"displistLoad and displist64Load",
       [](ByteSource& s, uint64_t size) {
         _displisttag* list = displist_Create();
         DWORD budget = DWORD(std::min<uint64_t>(size >= 12 ? size - 12 : 0, 0xFFFFFFFF));
         s.seek(12);
         HRESULT hr = rf::displistLoad(s, list, &budget);
         std::string r = say(s, hr, budget, listText(list));
         INT64 budget64 = INT64(size >= 40 ? size - 40 : 0);
         s.seek(40);
         hr = rf::displist64Load(s, list, &budget64);
         r += say(s, hr, budget64, listText(list));
         displist_Destroy(list);
         return r;
       }},
  };
}

}  // namespace

TEST(SourceParity, FileAndMemoryGiveTheSameResults) {
  const std::vector<Named> all = parsers();
  size_t compared = 0, succeeded = 0;
  uint64_t limit = 0;
  for (const Bytes& image : images()) {
    ScratchFile file(image);
    if (!limit) limit = largestOffset(file);
    for (const Named& p : all) {
      file.seek(0);
      FileSource fs(file);
      const std::string fromFile = p.run(fs, image.size());
      SpanSource span(image.data(), image.size());
      Limited ms(span, limit);
      const std::string fromMemory = p.run(ms, image.size());
      ASSERT_EQ(fromFile, fromMemory) << p.name << " over " << image.size() << " bytes";
      ++compared;
      if (fromFile.rfind("0 ", 0) == 0 || fromFile.rfind("1 ", 0) == 0) ++succeeded;
    }
    // The exported chunk lists of the open file and of its bytes in memory.
    tKACHUNKINFO a[16] = {}, b[16] = {};
    DWORD na = 0, nb = 0, ca = 0, cb = 0;
    file.seek(0);
    const HRESULT ha = KaGetFileChunks(file, a, 16, &na, &ca);
    const HRESULT hb = KaGetImageChunks(image.data(), image.size(), b, 16, &nb, &cb);
    ASSERT_EQ(std::tuple(ha, na, ca, hex(a, sizeof a)), std::tuple(hb, nb, cb, hex(b, sizeof b)))
        << image.size() << " bytes";
  }
  EXPECT_EQ(KaGetImageChunks(nullptr, 4, nullptr, 0, nullptr), E_POINTER);
  // The images exercise the successful paths too, not only the refusals.
  EXPECT_GT(succeeded, compared / 4);
}

// A memory source reads like a file opened for reading: past the end reads come back
// empty, writes and truncation fail, positions stay where they were put.
TEST(SourceParity, SpanSourceBehavesLikeAReadOnlyFile) {
  const Bytes bytes = Bytes{}.text("abcdef");
  SpanSource s(bytes.data(), bytes.size());
  char b[8] = {};
  uint32_t got = 0;
  EXPECT_TRUE(s.seek(4));
  EXPECT_TRUE(s.read(b, 8, &got));
  EXPECT_EQ(got, 2u);
  EXPECT_EQ(std::string(b, 2), "ef");
  EXPECT_TRUE(s.skip(100));
  EXPECT_EQ(s.tell(), 106u);
  EXPECT_TRUE(s.read(b, 8, &got));
  EXPECT_EQ(got, 0u);
  EXPECT_FALSE(s.skip(~uint64_t(0)));
  EXPECT_FALSE(s.seek(~uint64_t(0)));
  uint32_t put = 1;
  EXPECT_FALSE(s.write(b, 1, &put));
  EXPECT_EQ(put, 0u);
  EXPECT_FALSE(s.truncateHere());
  SpanSource empty(nullptr, 10);
  EXPECT_EQ(empty.size(), 0u);
}
