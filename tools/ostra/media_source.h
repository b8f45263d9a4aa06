// Files the kernel does not read itself, opened through the plug-in manager: the reader
// that identification chose, its streams described, the first audio stream ready to read.
// `info`, `samples`, `convert` and `frame` use it for every file a plug-in reads.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "fio_manager.h"
#include "ostra/kaaudio.h"
#include "ostra/kadib.h"

namespace ostra::cli {

struct MediaStream {
  DWORD type = 0;  // KAFIOSTREAMTYPE
  INT64 duration = -1, start = 0;
  UINT64 frames = 0;
  // audio
  KASAMPLETYPE sampleType = KASAMPLE_NONE;
  DWORD rate = 0;
  WORD channels = 0, blockAlign = 0;
  DWORD channelMask = 0;
  // video
  BITMAPINFOHEADER header{};
  DWORD rateNum = 0, rateDen = 1;
};

class MediaFile {
 public:
  MediaFile() = default;
  MediaFile(const MediaFile&) = delete;
  MediaFile& operator=(const MediaFile&) = delete;
  ~MediaFile();

  // Identifies and opens the file; fails with the manager's code (KAERR_FIO_UNSUPPORTED
  // when no plug-in reads it).
  HRESULT open(const std::string& path);

  const std::string& pluginName() const { return plugin_; }
  const std::vector<MediaStream>& streams() const { return streams_; }
  const std::vector<std::pair<std::string, std::string>>& meta() const { return meta_; }
  // The first stream of a kind, -1 when none.
  int firstOf(DWORD type) const;
  // Frames of audio stream `index` from `position` on; *got 0 at the end.
  HRESULT readAudio(int index, UINT64 position, void* buffer, DWORD frames, DWORD* got);
  // Frame `frame` of video stream `index` in the layout of `header`.
  HRESULT readFrame(int index, UINT64 frame, const BITMAPINFOHEADER& header, void* buffer,
                    size_t bytes, INT64* time);

 private:
  ManagerRun run_;
  IKaReadFile* reader_ = nullptr;
  std::string plugin_;
  std::vector<MediaStream> streams_;
  std::vector<IKaReadStream*> handles_;
  std::vector<std::pair<std::string, std::string>> meta_;
};

// What `info` prints for a file a plug-in reads.
nlohmann::json mediaJson(const MediaFile& m);
std::string mediaText(const MediaFile& m);

std::string sampleTypeName(KASAMPLETYPE type);
std::u16string widenUtf8(const std::string& s);
std::string layoutName(DWORD compression);

}  // namespace ostra::cli
