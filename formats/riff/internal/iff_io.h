// Exact reads and writes, seeks and sizes over a ByteSource, with the result codes the
// IFF, AIFF and wave-file functions report. Used by the files of formats/riff/ that
// start with iff, aiff, wave, summary, displist and filewfx.
#pragma once

#include <cstring>

#include "formats/riff/internal/byte_source.h"
#include "ostra/kaerror.h"
#include "ostra/kaplatform.h"

namespace ostra::riff::iffio {

// One read of exactly `count` bytes; failing or short reads give KAERR_READ_FAILED.
inline HRESULT readExact(ByteSource& s, void* buffer, DWORD count) noexcept {
  return s.readAll(buffer, count) ? S_OK : KAERR_READ_FAILED;
}

// Reads up to `count` bytes; *got tells how many. Failures give KAERR_READ_FAILED.
inline HRESULT readSome(ByteSource& s, void* buffer, DWORD count, DWORD* got) noexcept {
  uint32_t n = 0;
  const bool ok = s.read(buffer, count, &n);
  *got = n;
  return ok ? S_OK : KAERR_READ_FAILED;
}

inline HRESULT writeExact(ByteSource& s, const void* buffer, DWORD count) noexcept {
  return s.writeAll(buffer, count) ? S_OK : KAERR_WRITE_FAILED;
}

// Writes `count` zero bytes in pieces of at most 1024.
inline HRESULT writeZeros(ByteSource& s, UINT64 count) noexcept {
  static const BYTE kZeros[1024] = {};
  while (count) {
    const DWORD n = count < sizeof kZeros ? DWORD(count) : DWORD(sizeof kZeros);
    if (HRESULT hr = writeExact(s, kZeros, n); FAILED(hr)) return hr;
    count -= n;
  }
  return S_OK;
}

inline HRESULT seekTo(ByteSource& s, INT64 position) noexcept {
  return position >= 0 && s.seek(UINT64(position)) ? S_OK : KAERR_READ_FAILED;
}

// Forward moves are one relative seek; backward ones go through the position.
inline HRESULT seekBy(ByteSource& s, INT64 distance) noexcept {
  if (distance >= 0) return s.skip(UINT64(distance)) ? S_OK : KAERR_READ_FAILED;
  const UINT64 back = UINT64(0) - UINT64(distance), at = s.tell();
  return back <= at && s.seek(at - back) ? S_OK : KAERR_READ_FAILED;
}

inline INT64 tell(ByteSource& s) noexcept { return INT64(s.tell()); }

inline UINT64 fileSize(ByteSource& s) noexcept { return s.size(); }

inline HRESULT openForSetup(const KAWCHAR* path, DWORD mode, KAHFILE* f) noexcept {
  if (mode == OPEN_EXISTING)
    mode = TRUNCATE_EXISTING;
  else if (mode == OPEN_ALWAYS)
    mode = CREATE_ALWAYS;
  if (FAILED(KaFile_Open(path, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, mode,
                         FILE_ATTRIBUTE_NORMAL, f)))
    return KAERR_OPEN_FAILED;
  return S_OK;
}

inline DWORD be32(const BYTE* p) noexcept {
  return (DWORD(p[0]) << 24) | (DWORD(p[1]) << 16) | (DWORD(p[2]) << 8) | DWORD(p[3]);
}
inline WORD be16(const BYTE* p) noexcept { return WORD((p[0] << 8) | p[1]); }
inline void putBe32(BYTE* p, DWORD v) noexcept {
  p[0] = BYTE(v >> 24), p[1] = BYTE(v >> 16), p[2] = BYTE(v >> 8), p[3] = BYTE(v);
}
inline void putBe16(BYTE* p, WORD v) noexcept { p[0] = BYTE(v >> 8), p[1] = BYTE(v); }

inline DWORD le32(const BYTE* p) noexcept {
  return DWORD(p[0]) | (DWORD(p[1]) << 8) | (DWORD(p[2]) << 16) | (DWORD(p[3]) << 24);
}
inline UINT64 le64(const BYTE* p) noexcept { return UINT64(le32(p)) | (UINT64(le32(p + 4)) << 32); }
inline void putLe32(BYTE* p, DWORD v) noexcept {
  p[0] = BYTE(v), p[1] = BYTE(v >> 8), p[2] = BYTE(v >> 16), p[3] = BYTE(v >> 24);
}
inline void putLe16(BYTE* p, WORD v) noexcept { p[0] = BYTE(v), p[1] = BYTE(v >> 8); }
inline void putLe64(BYTE* p, UINT64 v) noexcept {
  putLe32(p, DWORD(v)), putLe32(p + 4, DWORD(v >> 32));
}

}  // namespace ostra::riff::iffio
