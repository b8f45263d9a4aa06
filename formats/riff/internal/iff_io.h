// Exact reads and writes, seeks and sizes over a KAHFILE, with the result codes the
// IFF, AIFF and wave-file functions report. Used by the files of formats/riff/ that
// start with iff, aiff, wave, summary, displist and filewfx.
#pragma once

#include <cstring>

#include "ostra/kaerror.h"
#include "ostra/kaplatform.h"

namespace ostra::riff::iffio {

// One read of exactly `count` bytes; failing or short reads give KAERR_READ_FAILED.
inline HRESULT readExact(KAHFILE f, void* buffer, DWORD count) noexcept {
  DWORD got = 0;
  if (FAILED(KaFile_Read(f, buffer, count, &got)) || got != count) return KAERR_READ_FAILED;
  return S_OK;
}

// Reads up to `count` bytes; *got tells how many. Failures give KAERR_READ_FAILED.
inline HRESULT readSome(KAHFILE f, void* buffer, DWORD count, DWORD* got) noexcept {
  return FAILED(KaFile_Read(f, buffer, count, got)) ? KAERR_READ_FAILED : S_OK;
}

inline HRESULT writeExact(KAHFILE f, const void* buffer, DWORD count) noexcept {
  DWORD put = 0;
  if (FAILED(KaFile_Write(f, buffer, count, &put)) || put != count) return KAERR_WRITE_FAILED;
  return S_OK;
}

// Writes `count` zero bytes in pieces of at most 1024.
inline HRESULT writeZeros(KAHFILE f, UINT64 count) noexcept {
  static const BYTE kZeros[1024] = {};
  while (count) {
    const DWORD n = count < sizeof kZeros ? DWORD(count) : DWORD(sizeof kZeros);
    if (HRESULT hr = writeExact(f, kZeros, n); FAILED(hr)) return hr;
    count -= n;
  }
  return S_OK;
}

inline HRESULT seekTo(KAHFILE f, INT64 position) noexcept {
  return FAILED(KaFile_Seek(f, position, FILE_BEGIN, nullptr)) ? KAERR_READ_FAILED : S_OK;
}

inline HRESULT seekBy(KAHFILE f, INT64 distance) noexcept {
  return FAILED(KaFile_Seek(f, distance, FILE_CURRENT, nullptr)) ? KAERR_READ_FAILED : S_OK;
}

inline INT64 tell(KAHFILE f) noexcept {
  INT64 p = -1;
  return SUCCEEDED(KaFile_GetPosition(f, &p)) ? p : -1;
}

inline UINT64 fileSize(KAHFILE f) noexcept {
  UINT64 s = 0;
  return SUCCEEDED(KaFile_GetSize(f, &s)) ? s : 0;
}

// Opens a file for the set-up functions: read and write, shared for reading, with
// open-existing taken as truncate-existing and open-always as create-always (a header
// is always written over an empty file). Any failure is KAERR_OPEN_FAILED.
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
