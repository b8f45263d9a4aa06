#include "media_source.h"

#include <cstdio>
#include "ostra/kaerror.h"
#include "ostra/kafiomgr.h"

namespace ostra::cli {
namespace {

std::string narrow(const KAWCHAR* s) {
  std::string out;
  for (; s && *s; ++s) {
    const char32_t c = *s;
    if (c < 0x80) {
      out += char(c);
    } else if (c < 0x800) {
      out += char(0xC0 | (c >> 6));
      out += char(0x80 | (c & 0x3F));
    } else {
      out += char(0xE0 | (c >> 12));
      out += char(0x80 | ((c >> 6) & 0x3F));
      out += char(0x80 | (c & 0x3F));
    }
  }
  return out;
}

}  // namespace

std::u16string widenUtf8(const std::string& s) {
  std::u16string out;
  for (size_t i = 0; i < s.size();) {
    const auto b = static_cast<unsigned char>(s[i]);
    char32_t c = b;
    int more = b >= 0xF0 ? 3 : b >= 0xE0 ? 2 : b >= 0xC0 ? 1 : 0;
    c = more == 3 ? b & 0x07 : more == 2 ? b & 0x0F : more == 1 ? b & 0x1F : b;
    ++i;
    for (; more && i < s.size(); --more, ++i) c = (c << 6) | (s[i] & 0x3F);
    if (c >= 0x10000) {
      c -= 0x10000;
      out += char16_t(0xD800 + (c >> 10));
      out += char16_t(0xDC00 + (c & 0x3FF));
    } else {
      out += char16_t(c);
    }
  }
  return out;
}

MediaFile::~MediaFile() {
  for (IKaReadStream* s : handles_)
    if (s) s->Release();
  if (reader_) reader_->Release();
}

HRESULT MediaFile::open(const std::string& path) {
  HRESULT hr = startManager(false, false, &run_);
  if (FAILED(hr)) return hr;
  LONG plugin = -1;
  hr = run_.manager->CreateReaderForPath(widenUtf8(path).c_str(), 0, &reader_, &plugin);
  if (FAILED(hr)) return hr;
  KAFIOPLUGINENTRY entry{};
  if (SUCCEEDED(run_.manager->GetPluginEntry(DWORD(plugin), &entry))) plugin_ = narrow(entry.name);
  DWORD count = 0;
  if (FAILED(hr = reader_->GetStreamCount(&count))) return hr;
  for (DWORD i = 0; i < count; ++i) {
    IKaReadStream* s = nullptr;
    if (FAILED(hr = reader_->GetStream(i, IID_IKaReadStream, reinterpret_cast<void**>(&s))))
      return hr;
    handles_.push_back(s);
    MediaStream m;
    s->GetStreamType(&m.type);
    s->GetDuration(&m.duration, &m.start);
    if (m.type == KAFIO_STREAM_AUDIO) {
      IKaReadAudioStream* a = nullptr;
      if (FAILED(hr = s->QueryInterface(IID_IKaReadAudioStream, reinterpret_cast<void**>(&a))))
        return hr;
      alignas(8) unsigned char buf[KAWAVEFORMAT_BUFFER_SIZE] = {};
      auto* wfx = reinterpret_cast<_kawaveformat*>(buf);
      hr = a->GetFormat(wfx, sizeof buf);
      if (SUCCEEDED(hr)) hr = a->GetFrameCount(&m.frames);
      a->Release();
      if (FAILED(hr)) return hr;
      m.sampleType = wfx->SampleType;
      m.rate = wfx->nSamplesPerSec;
      m.channels = wfx->nChannels;
      m.blockAlign = wfx->nBlockAlign;
      m.channelMask = wfx->dwChannelMask;
    } else if (m.type == KAFIO_STREAM_VIDEO) {
      IKaReadVideoStream* v = nullptr;
      if (FAILED(hr = s->QueryInterface(IID_IKaReadVideoStream, reinterpret_cast<void**>(&v))))
        return hr;
      hr = v->GetFrameFormat(&m.header, &m.rateNum, &m.rateDen);
      if (SUCCEEDED(hr)) hr = v->GetFrameCount(&m.frames);
      v->Release();
      if (FAILED(hr)) return hr;
    }
    streams_.push_back(m);
  }
  IKaReadMeta* meta = nullptr;
  if (SUCCEEDED(reader_->GetMeta(IID_IKaReadMeta, reinterpret_cast<void**>(&meta))) && meta) {
    for (DWORD k = 0; k < KAFIO_META_KEY_COUNT; ++k) {
      KAWCHAR value[256] = {};
      if (meta->GetValue(KaFio_GetMetaKey(k), value, 256) == S_OK)
        meta_.emplace_back(narrow(KaFio_GetMetaKey(k)), narrow(value));
    }
    meta->Release();
  }
  return S_OK;
}

int MediaFile::firstOf(DWORD type) const {
  for (size_t i = 0; i < streams_.size(); ++i)
    if (streams_[i].type == type) return int(i);
  return -1;
}

HRESULT MediaFile::readAudio(int index, UINT64 position, void* buffer, DWORD frames, DWORD* got) {
  if (index < 0 || size_t(index) >= handles_.size()) return E_INVALIDARG;
  IKaReadAudioStream* a = nullptr;
  HRESULT hr =
      handles_[size_t(index)]->QueryInterface(IID_IKaReadAudioStream, reinterpret_cast<void**>(&a));
  if (FAILED(hr)) return hr;
  hr = a->Read(position, buffer, frames, got);
  a->Release();
  return hr;
}

HRESULT MediaFile::readFrame(int index, UINT64 frame, const BITMAPINFOHEADER& header, void* buffer,
                             size_t bytes, INT64* time) {
  if (index < 0 || size_t(index) >= handles_.size()) return E_INVALIDARG;
  IKaReadVideoStream* v = nullptr;
  HRESULT hr =
      handles_[size_t(index)]->QueryInterface(IID_IKaReadVideoStream, reinterpret_cast<void**>(&v));
  if (FAILED(hr)) return hr;
  hr = v->ReadFrame(frame, &header, buffer, bytes, time);
  v->Release();
  return hr;
}

nlohmann::json mediaJson(const MediaFile& m) {
  nlohmann::json streams = nlohmann::json::array();
  for (const MediaStream& s : m.streams()) {
    nlohmann::json j;
    j["duration"] = s.duration >= 0 ? double(s.duration) / 1e7 : -1.0;
    j["start"] = double(s.start) / 1e7;
    j["frames"] = s.frames;
    if (s.type == KAFIO_STREAM_AUDIO) {
      j["type"] = "audio";
      j["rate"] = s.rate;
      j["channels"] = s.channels;
      j["sample_type"] = sampleTypeName(s.sampleType);
      j["block_align"] = s.blockAlign;
    } else if (s.type == KAFIO_STREAM_VIDEO) {
      j["type"] = "video";
      j["width"] = s.header.biWidth;
      j["height"] = s.header.biHeight < 0 ? -s.header.biHeight : s.header.biHeight;
      j["layout"] = layoutName(s.header.biCompression);
      j["frame_rate"] = {s.rateNum, s.rateDen};
    } else {
      j["type"] = s.type;
    }
    streams.push_back(std::move(j));
  }
  nlohmann::json meta = nlohmann::json::object();
  for (const auto& [k, v] : m.meta()) meta[k] = v;
  return {{"plugin", m.pluginName()}, {"streams", streams}, {"metadata", meta}};
}

std::string mediaText(const MediaFile& m) {
  std::string t = "  reader: " + m.pluginName() + " (plug-in)\n";
  char line[256];
  int i = 0;
  for (const MediaStream& s : m.streams()) {
    const double seconds = s.duration >= 0 ? double(s.duration) / 1e7 : -1.0;
    if (s.type == KAFIO_STREAM_AUDIO)
      std::snprintf(line, sizeof line,
                    "  stream %d: audio, %u Hz, %u channels, %s, %llu frames, %.3f s\n", i,
                    unsigned(s.rate), unsigned(s.channels), sampleTypeName(s.sampleType).c_str(),
                    (unsigned long long)s.frames, seconds);
    else if (s.type == KAFIO_STREAM_VIDEO)
      std::snprintf(
          line, sizeof line,
          "  stream %d: video, %ldx%ld %s, %u/%u frames per second, %llu frames, %.3f s\n", i,
          long(s.header.biWidth),
          long(s.header.biHeight < 0 ? -s.header.biHeight : s.header.biHeight),
          layoutName(s.header.biCompression).c_str(), unsigned(s.rateNum), unsigned(s.rateDen),
          (unsigned long long)s.frames, seconds);
    else
      std::snprintf(line, sizeof line, "  stream %d: type %u\n", i, unsigned(s.type));
    t += line;
    ++i;
  }
  for (const auto& [k, v] : m.meta()) t += "  " + k + ": " + v + "\n";
  return t;
}

std::string sampleTypeName(KASAMPLETYPE type) {
  switch (type) {
    case KASAMPLE_PCM8:
      return "pcm8";
    case KASAMPLE_PCM16:
      return "pcm16";
    case KASAMPLE_PCM24:
      return "pcm24";
    case KASAMPLE_PCM32:
      return "pcm32";
    case KASAMPLE_FLOAT32:
      return "float32";
    case KASAMPLE_FLOAT64:
      return "float64";
    default:
      return "type " + std::to_string(int(type));
  }
}

std::string layoutName(DWORD compression) {
  if (!compression) return "BGRA";
  std::string s;
  for (int i = 0; i < 4; ++i) s += char((compression >> (8 * i)) & 0xFF);
  return s;
}

}  // namespace ostra::cli
