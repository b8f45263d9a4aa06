// Where a file's samples lie (KaGetFileAudioData) and what chunks it holds
// (KaGetFileChunks), for wave, Wave64, AIFF and AIFC files. Both trust the file length
// over the sizes written in the header, since an unfinished file states too little and
// a damaged one too much.
#include <algorithm>
#include <cstring>

#include "formats/riff/internal/chunk_walker.h"
#include "formats/riff/internal/chunk_walker64.h"
#include "formats/riff/internal/details_note.h"
#include "formats/riff/internal/filewfx_detect.h"
#include "formats/riff/internal/source_parsers.h"

using namespace ostra::riff::iffio;
using namespace ostra::riff::filewfx;
using ostra::riff::ByteSource;
using ostra::riff::FileSource;

namespace ostra::riff::filewfx {
namespace {

DWORD budget32(UINT64 length, UINT64 from) {
  return from >= length ? 0 : DWORD(std::min<UINT64>(length - from, 0xFFFFFFFFu));
}

void setName(tKACHUNKINFO* c, DWORD fourccLittleEndian) {
  for (int i = 0; i < 4; ++i) {
    const char ch = char(fourccLittleEndian >> (8 * i));
    c->name[i] = (ch >= 0x20 && ch < 0x7F) ? ch : '?';
  }
  c->name[4] = 0;
}

DWORD swap32(DWORD v) {
  return (v >> 24) | ((v >> 8) & 0xFF00u) | ((v << 8) & 0xFF0000u) | (v << 24);
}

// Collects entries; counts past the capacity so that callers can size a second call.
struct Sink {
  tKACHUNKINFO* chunks;
  DWORD capacity;
  DWORD count = 0;
  tKACHUNKINFO scratch{};
  tKACHUNKINFO* add() {
    tKACHUNKINFO* c = count < capacity ? &chunks[count] : &scratch;
    ++count;
    *c = tKACHUNKINFO{};
    return c;
  }
};

// RIFF: top-level chunks from `from` to `end`, LIST contents one level down.
void walkRiff(ByteSource& f, UINT64 from, UINT64 end, BYTE depth, Sink* sink) {
  UINT64 pos = from;
  while (pos + 8 <= end && SUCCEEDED(seekTo(f, INT64(pos)))) {
    DWORD id = 0, size = 0;
    if (FAILED(riff::readHeader(f, &id, &size))) return;
    tKACHUNKINFO* c = sink->add();
    setName(c, id);
    c->depth = depth, c->offset = pos, c->size = size;
    DWORD type = 0;
    if (id == RIFF_ID_LIST && size >= 4 && depth == 0 && SUCCEEDED(readExact(f, &type, 4))) {
      c->listType = type;
      walkRiff(f, pos + 12, std::min<UINT64>(end, pos + 8 + UINT64(size)), 1, sink);
    }
    pos += 8 + UINT64(size) + (size & 1);
  }
}

void walkW64(ByteSource& f, UINT64 from, UINT64 end, BYTE depth, Sink* sink) {
  UINT64 pos = from;
  while (pos + 24 <= end && SUCCEEDED(seekTo(f, INT64(pos)))) {
    GUID id;
    UINT64 size = 0;
    if (FAILED(riff64::readHeader(f, &id, &size))) return;
    tKACHUNKINFO* c = sink->add();
    setName(c, id.Data1);
    c->depth = depth, c->offset = pos, c->size = size, c->guid = id;
    // pos + 24 <= end, so `room` is exact; a size beyond it runs past the end (and
    // rounding it up could wrap).
    const UINT64 room = end - pos - 24;
    GUID type;
    if (id == RIFF64_GUID_LIST && size >= 16 && depth == 0 && SUCCEEDED(readExact(f, &type, 16))) {
      c->listType = type.Data1;
      walkW64(f, pos + 40, size > room ? end : pos + 24 + size, 1, sink);
    }
    if (size > room) return;
    pos += 24 + ((size + 7) & ~UINT64(7));
  }
}

void walkIff(ByteSource& f, UINT64 end, Sink* sink) {
  UINT64 pos = 12;
  while (pos + 8 <= end && SUCCEEDED(seekTo(f, INT64(pos)))) {
    IFFCHUNKHDR h;
    if (FAILED(iff::readChunkHdr(f, &h))) return;
    tKACHUNKINFO* c = sink->add();
    setName(c, swap32(h.ckID));
    c->offset = pos, c->size = h.ckSize;
    pos += 8 + UINT64(h.ckSize) + (h.ckSize & 1);
  }
}

HRESULT audioData(ByteSource& f, tKAAUDIODATA* out) {
  const Detected d = detect(f);
  const UINT64 length = fileSize(f);
  tKAAUDIODATA r{};
  r.container = d.container;
  switch (d.container) {
    case KACONTAINER_WAVE: {
      DWORD size = 0, budget = budget32(length, 12);
      if (HRESULT hr = seekTo(f, 12); FAILED(hr)) return hr;
      if (HRESULT hr = riff::findChunk(f, RIFF_ID_DATA, &size, &budget); FAILED(hr)) return hr;
      r.statedSize = size;
      break;
    }
    case KACONTAINER_WAVE64: {
      INT64 budget = INT64(length - 40);
      if (HRESULT hr = seekTo(f, 40); FAILED(hr)) return hr;
      if (HRESULT hr = riff64::findChunk(f, RIFF64_GUID_DATA, &r.statedSize, &budget); FAILED(hr))
        return hr;
      break;
    }
    case KACONTAINER_AIFF:
    case KACONTAINER_AIFC: {
      DWORD ssnd = 0, offset = 0;
      if (HRESULT hr = iff::findChunkFromStart(f, IFFID_SSND, &ssnd); FAILED(hr)) return hr;
      if (ssnd < 8 || FAILED(iff::readDword(f, &offset))) return KAERR_CORRUPT_FILE;
      r.statedSize = offset <= ssnd - 8 ? ssnd - 8 - offset : 0;
      WAVEFORMATEX w;
      INT64 start = 0;
      DWORD frames = 0;
      if (HRESULT hr = iff::getAiffWfx(f, &w, &start, nullptr, &frames); FAILED(hr)) return hr;
      if (w.nBlockAlign && r.statedSize / w.nBlockAlign != frames)
        note("COMM states %u frames; SSND states %llu bytes, %llu frames", unsigned(frames),
             (unsigned long long)r.statedSize, (unsigned long long)(r.statedSize / w.nBlockAlign));
      r.bigEndian = !(d.container == KACONTAINER_AIFC && d.compression == IFFID_sowt);
      if (HRESULT hr = seekTo(f, start); FAILED(hr)) return hr;
      break;
    }
    default:
      return KAERR_UNSUPPORTED_FILE;
  }
  const INT64 at = tell(f);
  if (at < 0) return KAERR_READ_FAILED;
  r.offset = UINT64(at);
  r.size = r.offset >= length ? 0 : std::min(r.statedSize, length - r.offset);
  if (r.size != r.statedSize)
    note("the %s chunk states %llu sample bytes from %llu; the file holds %llu, which are used",
         d.family == 'F' ? "SSND" : "data", (unsigned long long)r.statedSize,
         (unsigned long long)r.offset, (unsigned long long)r.size);
  *out = r;
  return S_OK;
}

// The container's own size against the file, and chunks that run past the end, as
// details lines; only the call that returns the whole list writes them, so a caller that
// sizes its list with a first call does not get them twice.
void noteShape(ByteSource& f, const Detected& d, UINT64 length, const tKACHUNKINFO* chunks,
               DWORD count) {
  const char* form = d.family == 'R' ? "RIFF" : d.family == 'W' ? "Wave64 riff" : "FORM";
  UINT64 end = 0, smallest = 12;
  BYTE word[8] = {};
  if (d.family == 'W') {
    if (FAILED(seekTo(f, 16)) || FAILED(readExact(f, word, 8))) return;
    for (int i = 0; i < 8; ++i) end |= UINT64(word[i]) << (8 * i);
    smallest = 40;
  } else {
    if (FAILED(seekTo(f, 4)) || FAILED(readExact(f, word, 4))) return;
    const DWORD v =
        DWORD(word[0]) | DWORD(word[1]) << 8 | DWORD(word[2]) << 16 | DWORD(word[3]) << 24;
    end = UINT64(d.family == 'F' ? swap32(v) : v) + 8;
  }
  const UINT64 pad = d.family == 'W' ? 7 : 1;
  const bool believable = end > smallest && end <= length + pad;
  if (!believable)
    note("the %s size says the file ends at %llu; it ends at %llu, which is used", form,
         (unsigned long long)end, (unsigned long long)length);
  else if (end + pad < length)
    note("%llu bytes after the end of the %s at %llu are not part of it",
         (unsigned long long)(length - end), form, (unsigned long long)end);
  const UINT64 header = d.family == 'W' ? 24 : 8;
  int noted = 0;
  for (DWORD i = 0; i < count && noted < 16; ++i) {
    const tKACHUNKINFO& c = chunks[i];
    // The samples' chunk is reported by the data lookup, which clamps it.
    const bool samples = !std::strcmp(c.name, "data") || !std::strcmp(c.name, "SSND");
    // Chunks past a believable end of the container are leftovers, not the file's.
    const bool beyond = believable && c.offset >= end;
    if (c.depth || samples || beyond || c.size <= length - std::min(length, c.offset + header))
      continue;
    note("chunk '%s' at %llu states %llu bytes and runs past the end of the file", c.name,
         (unsigned long long)c.offset, (unsigned long long)c.size);
    ++noted;
  }
}

}  // namespace

HRESULT getFileAudioData(ByteSource& file, tKAAUDIODATA* data) {
  if (!data) return E_INVALIDARG;
  *data = tKAAUDIODATA{};
  return audioData(file, data);
}

HRESULT getFileChunks(ByteSource& file, tKACHUNKINFO* chunks, DWORD capacity, DWORD* count,
                      DWORD* container) {
  if (!count || (!chunks && capacity)) return E_INVALIDARG;
  *count = 0;
  const Detected d = detect(file);
  if (container) *container = d.container;
  const UINT64 length = fileSize(file);
  Sink sink{chunks, capacity};
  switch (d.family) {
    case 'R':
      walkRiff(file, 12, length, 0, &sink);
      break;
    case 'W':
      walkW64(file, 40, length, 0, &sink);
      break;
    case 'F':
      walkIff(file, length, &sink);
      break;
    default:
      return KAERR_UNSUPPORTED_FILE;
  }
  *count = sink.count;
  if (sink.count > capacity) return S_FALSE;
  noteShape(file, d, length, chunks, sink.count);
  return S_OK;
}

}  // namespace ostra::riff::filewfx

HRESULT KaGetFileAudioData(KAHFILE file, tKAAUDIODATA* data) noexcept {
  FileSource s(file);
  return getFileAudioData(s, data);
}

HRESULT KaGetFileAudioData(const KAWCHAR* path, tKAAUDIODATA* data) noexcept {
  return withPath(path, false, [&](ByteSource& s) { return getFileAudioData(s, data); });
}

HRESULT KaGetFileChunks(KAHFILE file, tKACHUNKINFO* chunks, DWORD capacity, DWORD* count,
                        DWORD* container) noexcept {
  FileSource s(file);
  return getFileChunks(s, chunks, capacity, count, container);
}

HRESULT KaGetImageChunks(const void* image, UINT64 size, tKACHUNKINFO* chunks, DWORD capacity,
                         DWORD* count, DWORD* container) noexcept {
  if (!image && size) return E_POINTER;
  ostra::riff::SpanSource s(image, size);
  return getFileChunks(s, chunks, capacity, count, container);
}
