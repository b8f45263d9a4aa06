// Which container a file is, from its first bytes; shared by filewfx.cpp and
// filewfx_chunks.cpp.
#pragma once

#include <cstring>

#include "formats/riff/internal/iff_io.h"
#include "formats/riff/internal/iff_source.h"
#include "ostra/kawave.h"
#include "ostra/riff.h"
#include "ostra/riff64.h"

namespace ostra::riff::filewfx {

struct Detected {
  DWORD container = KACONTAINER_UNKNOWN;
  DWORD family = 0;       // 'R' RIFF (any form), 'W' Wave64 (any form), 'F' IFF FORM (any type)
  DWORD compression = 0;  // AIFC only
};

inline Detected detect(ByteSource& f) noexcept {
  using namespace ostra::riff::iffio;
  Detected d;
  BYTE head[40];
  if (FAILED(seekTo(f, 0)) || FAILED(readExact(f, head, 12))) return d;
  if (le32(head) == RIFF_ID_RIFF) {
    d.family = 'R';
    if (le32(head + 8) == RIFF_ID_WAVE) d.container = KACONTAINER_WAVE;
  } else if (be32(head) == IFFID_FORM) {
    d.family = 'F';
    DWORD type = 0, comp = 0;
    if (iff::isAiff(f, nullptr, &type, &comp)) {
      d.container = type == IFFID_AIFC ? KACONTAINER_AIFC : KACONTAINER_AIFF;
      d.compression = comp;
    }
  } else if (SUCCEEDED(readExact(f, head + 12, 28)) &&
             std::memcmp(head, &RIFF64_GUID_RIFF, 16) == 0) {
    d.family = 'W';
    if (std::memcmp(head + 24, &RIFF64_GUID_WAVE, 16) == 0) d.container = KACONTAINER_WAVE64;
  }
  return d;
}

// Opens a path for the path overloads; KAERR_OPEN_FAILED when it cannot be opened.
inline HRESULT openPath(const KAWCHAR* path, bool write, KAHFILE* f) noexcept {
  if (!path) return E_INVALIDARG;
  const DWORD access = GENERIC_READ | (write ? GENERIC_WRITE : 0);
  const DWORD share = FILE_SHARE_READ | (write ? 0 : FILE_SHARE_WRITE);
  return FAILED(KaFile_Open(path, access, share, OPEN_EXISTING, 0, f)) ? KAERR_OPEN_FAILED : S_OK;
}

// Opens the path and hands `call` a FileSource over it.
template <typename Call>
HRESULT withPath(const KAWCHAR* path, bool write, Call call) noexcept {
  KAHFILE f;
  if (HRESULT hr = openPath(path, write, &f); FAILED(hr)) return hr;
  FileSource s(f);
  const HRESULT hr = call(s);
  KaFile_Close(f);
  return hr;
}

}  // namespace ostra::riff::filewfx
