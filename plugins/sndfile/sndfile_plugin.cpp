// The general audio plug-in, on libsndfile: a reader of every format the library reads
// (FLAC, Ogg Vorbis, Opus, MP3, CAF, Sun/NeXT, IRCAM, WavPack-free PCM containers, ...)
// and a renderer of FLAC, Ogg Vorbis, Opus and MP3.
//
// Samples are handed out as the file stores them where the kernel has that type (8, 16,
// 24 and 32-bit integers, 32 and 64-bit floats) and as 32-bit floats for everything a
// codec reconstructs (Vorbis, Opus, MP3 and the other lossy encodings).
#include <sndfile.h>

#include <cstring>
#include <mutex>
#include <vector>

#include "../common/plugin_object.h"
#include "ostra/kaaudio.h"
#include "ostra/kaerror.h"

namespace {

using ostra::plugin::copyText;
using ostra::plugin::Object;

constexpr const char16_t* kReadExtensions =
    u"flac;oga;ogg;opus;mp3;mp2;caf;au;snd;irc;sf;voc;w64;rf64;aif;aiff;aifc;wav;mat;paf;"
    u"pvf;xi;htk;sd2;avr;wve;nist;sph;8svx;iff;svx";
constexpr const char16_t* kWriteExtensions = u"flac;ogg;oga;opus;mp3";
constexpr LONG kMerit = 50;  // below the kernel's own reader, above the media reader

// The sample type Read hands out for a file's subformat.
KASAMPLETYPE sampleTypeFor(int format) {
  switch (format & SF_FORMAT_SUBMASK) {
    case SF_FORMAT_PCM_S8:
    case SF_FORMAT_PCM_U8:
    case SF_FORMAT_PCM_16:
    case SF_FORMAT_DWVW_12:
    case SF_FORMAT_DWVW_16:
    case SF_FORMAT_DPCM_8:
    case SF_FORMAT_DPCM_16:
    case SF_FORMAT_ALAC_16:
    case SF_FORMAT_NMS_ADPCM_16:
      return KASAMPLE_PCM16;
    case SF_FORMAT_PCM_24:
    case SF_FORMAT_DWVW_24:
    case SF_FORMAT_ALAC_20:
    case SF_FORMAT_ALAC_24:
      return KASAMPLE_PCM24;
    case SF_FORMAT_PCM_32:
    case SF_FORMAT_ALAC_32:
      return KASAMPLE_PCM32;
    case SF_FORMAT_DOUBLE:
      return KASAMPLE_FLOAT64;
    default:
      return KASAMPLE_FLOAT32;  // floats and every lossy or companded encoding
  }
}

// FLAC at 8 bits reads as 16; the subformat of a FLAC file says its depth.
KASAMPLETYPE flacType(int format) {
  switch (format & SF_FORMAT_SUBMASK) {
    case SF_FORMAT_PCM_24:
      return KASAMPLE_PCM24;
    default:
      return KASAMPLE_PCM16;
  }
}

class AudioStream final : public Object<IKaReadAudioStream> {
 public:
  AudioStream(IUnknown* owner, SNDFILE* file, const SF_INFO& info, const _kawaveformat& wfx,
              std::mutex* lock)
      : Object(IID_IKaReadAudioStream),
        owner_(owner),
        file_(file),
        info_(info),
        wfx_(wfx),
        lock_(lock) {
    owner_->AddRef();
  }
  ~AudioStream() override { owner_->Release(); }
  STDMETHOD(GetStreamType)(DWORD* type) override {
    if (!type) return E_POINTER;
    *type = KAFIO_STREAM_AUDIO;
    return S_OK;
  }
  STDMETHOD(GetDuration)(INT64* duration, INT64* start) override {
    if (!duration) return E_POINTER;
    *duration =
        info_.samplerate ? INT64(UINT64(info_.frames) * 10000000ull / info_.samplerate) : -1;
    if (start) *start = 0;
    return S_OK;
  }
  STDMETHOD(GetFormat)(_kawaveformat* format, DWORD size) override {
    if (!format) return E_POINTER;
    if (size < wfx_.dwSize) return E_INVALIDARG;
    std::memcpy(format, &wfx_, wfx_.dwSize);
    return S_OK;
  }
  STDMETHOD(GetFrameCount)(UINT64* frames) override {
    if (!frames) return E_POINTER;
    *frames = UINT64(info_.frames);
    return S_OK;
  }
  STDMETHOD(Read)(UINT64 position, void* buffer, DWORD count, DWORD* read) override {
    if (!buffer || !read) return E_POINTER;
    *read = 0;
    if (position >= UINT64(info_.frames) || !count) return S_OK;
    const sf_count_t want = sf_count_t(std::min<UINT64>(count, UINT64(info_.frames) - position));
    std::lock_guard lk(*lock_);
    if (sf_seek(file_, sf_count_t(position), SEEK_SET) < 0) return KAERR_SEEK_FAILED;
    sf_count_t got = 0;
    const int ch = info_.channels;
    switch (wfx_.SampleType) {
      case KASAMPLE_PCM16:
        got = sf_readf_short(file_, static_cast<short*>(buffer), want);
        break;
      case KASAMPLE_PCM32:
        got = sf_readf_int(file_, static_cast<int*>(buffer), want);
        break;
      case KASAMPLE_FLOAT64:
        got = sf_readf_double(file_, static_cast<double*>(buffer), want);
        break;
      case KASAMPLE_PCM24: {
        // libsndfile gives 24-bit samples in the top of an int; pack them to 3 bytes.
        scratch_.resize(size_t(want) * ch);
        got = sf_readf_int(file_, scratch_.data(), want);
        auto* out = static_cast<BYTE*>(buffer);
        for (sf_count_t i = 0; i < got * ch; ++i) {
          const uint32_t v = uint32_t(scratch_[size_t(i)]) >> 8;
          out[3 * i] = BYTE(v), out[3 * i + 1] = BYTE(v >> 8), out[3 * i + 2] = BYTE(v >> 16);
        }
        break;
      }
      default:
        got = sf_readf_float(file_, static_cast<float*>(buffer), want);
        break;
    }
    if (got < 0) return KAERR_READ_FAILED;
    if (got == 0 && sf_error(file_) != SF_ERR_NO_ERROR) return KAERR_CORRUPT_FILE;
    *read = DWORD(got);
    return S_OK;
  }

 protected:
  bool extra(REFIID riid) const override { return riid == IID_IKaReadStream; }

 private:
  IUnknown* owner_;
  SNDFILE* file_;
  SF_INFO info_;
  _kawaveformat wfx_;
  std::mutex* lock_;
  std::vector<int> scratch_;
};

class Meta final : public Object<IKaReadMeta> {
 public:
  explicit Meta(std::u16string title) : Object(IID_IKaReadMeta), title_(std::move(title)) {}
  STDMETHOD(GetValue)(const KAWCHAR* key, KAWCHAR* buffer, DWORD chars) override {
    if (!key || !buffer || !chars) return E_POINTER;
    buffer[0] = 0;
    if (std::u16string(key) != u"Title" || title_.empty()) return S_FALSE;
    copyText(buffer, chars, title_.c_str());
    return S_OK;
  }

 private:
  std::u16string title_;
};

class Reader final : public Object<IKaReadFile> {
 public:
  Reader() : Object(IID_IKaReadFile) {}
  ~Reader() override { Close(); }
  STDMETHOD(Open)(const KAWCHAR* path, DWORD) override {
    if (!path) return E_POINTER;
    Close();
    SF_INFO info{};
    SNDFILE* f = sf_open(ostra::plugin::toUtf8(path).c_str(), SFM_READ, &info);
    if (!f) {
      const int err = sf_error(nullptr);
      return err == SF_ERR_SYSTEM ? KAERR_OPEN_FAILED : KAERR_FIO_NOT_MINE;
    }
    if (info.channels <= 0 || info.channels > 64 || info.samplerate <= 0 || info.frames < 0 ||
        info.frames == SF_COUNT_MAX) {
      sf_close(f);
      return KAERR_FIO_NOT_MINE;
    }
    const bool flac = (info.format & SF_FORMAT_TYPEMASK) == SF_FORMAT_FLAC;
    const KASAMPLETYPE type = flac ? flacType(info.format) : sampleTypeFor(info.format);
    wfx_.Init(DWORD(info.samplerate), type, WORD(info.channels), 0, KAWAVEFORMAT_BUFFER_SIZE);
    wfx_.UpdateBlockAlign();
    file_ = f;
    info_ = info;
    if (const char* t = sf_get_string(f, SF_STR_TITLE)) title_ = ostra::plugin::fromUtf8(t);
    return S_OK;
  }
  STDMETHOD(Close)() override {
    if (file_) sf_close(file_);
    file_ = nullptr;
    return S_OK;
  }
  STDMETHOD(GetStreamCount)(DWORD* count) override {
    if (!count) return E_POINTER;
    *count = file_ ? 1 : 0;
    return S_OK;
  }
  STDMETHOD(GetStream)(DWORD index, REFIID riid, void** stream) override {
    if (!stream) return E_POINTER;
    *stream = nullptr;
    if (index != 0 || !file_) return E_INVALIDARG;
    return ostra::plugin::make<AudioStream>(riid, stream, this, file_, info_, wfx_, &lock_);
  }
  STDMETHOD(GetMeta)(REFIID riid, void** meta) override {
    if (!meta) return E_POINTER;
    *meta = nullptr;
    if (riid != IID_IKaReadMeta || !file_) return E_NOINTERFACE;
    return ostra::plugin::make<Meta>(riid, meta, title_);
  }

 private:
  SNDFILE* file_ = nullptr;
  SF_INFO info_{};
  _kawaveformat wfx_{};
  std::u16string title_;
  std::mutex lock_;
};

// The container and encoding for an extension and the incoming sample type.
int outputFormat(const std::u16string& ext, KASAMPLETYPE type) {
  if (ext == u"flac")
    return SF_FORMAT_FLAC | (type == KASAMPLE_PCM8    ? SF_FORMAT_PCM_S8
                             : type == KASAMPLE_PCM16 ? SF_FORMAT_PCM_16
                                                      : SF_FORMAT_PCM_24);
  if (ext == u"ogg" || ext == u"oga") return SF_FORMAT_OGG | SF_FORMAT_VORBIS;
  if (ext == u"opus") return SF_FORMAT_OGG | SF_FORMAT_OPUS;
  if (ext == u"mp3") return SF_FORMAT_MPEG | SF_FORMAT_MPEG_LAYER_III;
  return 0;
}

class Renderer final : public Object<IKaRenderFile> {
 public:
  Renderer() : Object(IID_IKaRenderFile) {}
  ~Renderer() override {
    if (file_) sf_close(file_);
  }
  STDMETHOD(Create)(const KAWCHAR* path, const _kawaveformat* audio, DWORD) override {
    if (!path || !audio) return E_POINTER;
    if (file_) return E_UNEXPECTED;
    if (audio->IsCompressed() || !audio->nChannels || !audio->nBlockAlign)
      return KAERR_UNSUPPORTED_FORMAT;
    type_ = audio->SampleType;
    channels_ = audio->nChannels;
    SF_INFO info{};
    info.samplerate = int(audio->nSamplesPerSec);
    info.channels = audio->nChannels;
    info.format = outputFormat(ostra::plugin::lowerExtension(path), type_);
    if (!info.format || !sf_format_check(&info)) return KAERR_UNSUPPORTED_FORMAT;
    file_ = sf_open(ostra::plugin::toUtf8(path).c_str(), SFM_WRITE, &info);
    if (!file_) return KAERR_OPEN_FAILED;
    return S_OK;
  }
  STDMETHOD(WriteAudio)(const void* buffer, DWORD frames) override {
    if (!file_) return E_UNEXPECTED;
    if (!buffer && frames) return E_POINTER;
    sf_count_t done = 0;
    switch (type_) {
      case KASAMPLE_PCM16:
        done = sf_writef_short(file_, static_cast<const short*>(buffer), frames);
        break;
      case KASAMPLE_PCM32:
        done = sf_writef_int(file_, static_cast<const int*>(buffer), frames);
        break;
      case KASAMPLE_FLOAT32:
        done = sf_writef_float(file_, static_cast<const float*>(buffer), frames);
        break;
      case KASAMPLE_FLOAT64:
        done = sf_writef_double(file_, static_cast<const double*>(buffer), frames);
        break;
      case KASAMPLE_PCM24:
      case KASAMPLE_PCM8: {
        // Widened into the top of an int, which libsndfile scales to the file's depth.
        const size_t n = size_t(frames) * channels_;
        scratch_.resize(n);
        const auto* in = static_cast<const BYTE*>(buffer);
        for (size_t i = 0; i < n; ++i)
          scratch_[i] = type_ == KASAMPLE_PCM8
                            ? int(uint32_t(in[i] ^ 0x80u) << 24)
                            : int(uint32_t(in[3 * i]) << 8 | uint32_t(in[3 * i + 1]) << 16 |
                                  uint32_t(in[3 * i + 2]) << 24);
        done = sf_writef_int(file_, scratch_.data(), frames);
        break;
      }
      default:
        return KAERR_UNSUPPORTED_FORMAT;
    }
    return done == sf_count_t(frames) ? S_OK : KAERR_WRITE_FAILED;
  }
  STDMETHOD(Finish)() override {
    if (!file_) return E_UNEXPECTED;
    const int err = sf_close(file_);
    file_ = nullptr;
    return err ? KAERR_WRITE_FAILED : S_OK;
  }

 private:
  SNDFILE* file_ = nullptr;
  KASAMPLETYPE type_ = KASAMPLE_NONE;
  WORD channels_ = 0;
  std::vector<int> scratch_;
};

class ReaderClass final : public Object<IKaReadFileClass> {
 public:
  ReaderClass() : Object(IID_IKaReadFileClass) {}
  STDMETHOD(GetName)(KAWCHAR* buffer, DWORD chars) override {
    copyText(buffer, chars, u"Audio file reader (libsndfile)");
    return buffer ? S_OK : E_POINTER;
  }
  STDMETHOD(GetExtensions)(KAWCHAR* buffer, DWORD chars) override {
    copyText(buffer, chars, kReadExtensions);
    return buffer ? S_OK : E_POINTER;
  }
  STDMETHOD(GetMerit)(LONG* merit) override {
    if (!merit) return E_POINTER;
    *merit = kMerit;
    return S_OK;
  }
  STDMETHOD(CreateReader)(IKaReadFile** reader) override {
    return ostra::plugin::make<Reader>(IID_IKaReadFile, reinterpret_cast<void**>(reader));
  }
};

class RendererClass final : public Object<IKaRenderFileClass> {
 public:
  RendererClass() : Object(IID_IKaRenderFileClass) {}
  STDMETHOD(GetName)(KAWCHAR* buffer, DWORD chars) override {
    copyText(buffer, chars, u"FLAC, Ogg Vorbis, Opus and MP3 renderer (libsndfile)");
    return buffer ? S_OK : E_POINTER;
  }
  STDMETHOD(GetExtensions)(KAWCHAR* buffer, DWORD chars) override {
    copyText(buffer, chars, kWriteExtensions);
    return buffer ? S_OK : E_POINTER;
  }
  STDMETHOD(CreateRenderer)(IKaRenderFile** renderer) override {
    return ostra::plugin::make<Renderer>(IID_IKaRenderFile, reinterpret_cast<void**>(renderer));
  }
};

// The audio reader's class id is the one the format table names for audio formats.
constexpr CLSID kRendererClass = KaGuid("6A2F6C11-0013-4C52-9B6A-0F1E2D3C4B00");

class Factory final : public Object<IKaFioPluginFactory> {
 public:
  Factory() : Object(IID_IKaFioPluginFactory) {}
  STDMETHOD(GetInfo)(KAFIOPLUGININFO* info) override {
    if (!info || info->size < sizeof(KAFIOPLUGININFO)) return E_INVALIDARG;
    info->reader = CLSID_KaFioAudioReader;
    info->renderer = kRendererClass;
    info->merit = kMerit;
    info->streamTypeCount = 1;
    copyText(info->streamTypes[0].name, 32, u"audio");
    info->streamTypes[0].access = 3;
    info->streamTypes[0].streamType = KAFIO_STREAM_AUDIO;
    return S_OK;
  }
  STDMETHOD(GetClassObject)(REFCLSID clsid, REFIID riid, void** object) override {
    if (clsid == CLSID_KaFioAudioReader) return ostra::plugin::make<ReaderClass>(riid, object);
    if (clsid == kRendererClass) return ostra::plugin::make<RendererClass>(riid, object);
    if (object) *object = nullptr;
    return REGDB_E_CLASSNOTREG;
  }
};

}  // namespace

OSTRA_PLUGIN_EXPORT HRESULT KaFioPlugin_GetFactory(DWORD apiVersion,
                                                   IKaFioPluginFactory** factory) noexcept {
  if (!factory) return E_POINTER;
  *factory = nullptr;
  if (apiVersion != KAFIO_PLUGIN_API_VERSION) return E_INVALIDARG;
  return ostra::plugin::make<Factory>(IID_IKaFioPluginFactory, reinterpret_cast<void**>(factory));
}
