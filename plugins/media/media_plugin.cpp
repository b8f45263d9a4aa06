// The general media plug-in, on FFmpeg's libavformat, libavcodec, libswresample and
// libswscale: a reader of the audio and video streams of MP4, MOV, MKV, WebM, MXF, AVI,
// MPEG-TS and every other container the libraries open.
//
// Each stream object has its own demuxer and decoder over the file, so streams are read
// independently and from any thread (a lock per stream). Audio is decoded to interleaved
// samples: 16, 24 or 32-bit integers when the decoder produces integers (lossless codecs
// stay exact), else 32-bit floats; a read at any frame position seeks when the position
// is behind or far ahead of the decoder and decodes forward to it. Video frames are
// converted into the layout the caller's header names (see docs/media-plugins.md).
extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/display.h>
#include <libavutil/imgutils.h>
#include <libavutil/mastering_display_metadata.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

#include <cmath>
#include <cstring>
#include <mutex>
#include <vector>

#include "../common/plugin_object.h"
#include "ostra/kaaudio.h"
#include "ostra/kadib.h"
#include "ostra/kaerror.h"
#include "ostra/kayuv.h"

namespace {

using ostra::plugin::copyText;
using ostra::plugin::Object;

constexpr const char16_t* kReadExtensions =
    u"mp4;m4a;m4v;mov;qt;3gp;3g2;mkv;mka;webm;mxf;avi;ts;mts;m2ts;mpg;mpeg;vob;m2v;wmv;wma;asf;"
    u"flv;aac;ac3;dts;mp3;mp2;flac;ogg;oga;ogv;opus;amr;wv;tta;h264;264;hevc;265";
constexpr LONG kMerit = 20;  // after the kernel's reader and the audio reader
constexpr INT64 kTicks = 10000000;
constexpr AVRational kTickBase{1, int(kTicks)};

// ---------------------------------------------------------------- one demuxer + decoder
struct Decoder {
  AVFormatContext* format = nullptr;
  AVCodecContext* codec = nullptr;
  AVPacket* packet = nullptr;
  AVFrame* frame = nullptr;
  int stream = -1;
  bool flushing = false;

  ~Decoder() {
    av_frame_free(&frame);
    av_packet_free(&packet);
    avcodec_free_context(&codec);
    if (format) avformat_close_input(&format);
  }
  AVStream* st() const { return format->streams[stream]; }

  HRESULT open(const std::string& path, int index) {
    if (avformat_open_input(&format, path.c_str(), nullptr, nullptr) < 0) {
      format = nullptr;
      return KAERR_OPEN_FAILED;
    }
    if (avformat_find_stream_info(format, nullptr) < 0) return KAERR_CORRUPT_FILE;
    if (index < 0 || unsigned(index) >= format->nb_streams) return E_INVALIDARG;
    stream = index;
    for (unsigned i = 0; i < format->nb_streams; ++i)
      format->streams[i]->discard = int(i) == index ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
    const AVCodec* c = avcodec_find_decoder(st()->codecpar->codec_id);
    if (!c) return KAERR_UNSUPPORTED_FORMAT;
    codec = avcodec_alloc_context3(c);
    packet = av_packet_alloc();
    frame = av_frame_alloc();
    if (!codec || !packet || !frame) return E_OUTOFMEMORY;
    if (avcodec_parameters_to_context(codec, st()->codecpar) < 0) return KAERR_CORRUPT_FILE;
    codec->pkt_timebase = st()->time_base;
    codec->thread_count = 0;
    if (avcodec_open2(codec, c, nullptr) < 0) return KAERR_UNSUPPORTED_FORMAT;
    return S_OK;
  }

  // The next decoded frame into `frame`: 0, AVERROR_EOF at the end, or another error.
  int next() {
    for (;;) {
      int r = avcodec_receive_frame(codec, frame);
      if (r != AVERROR(EAGAIN)) return r;
      if (flushing) return AVERROR_EOF;
      r = av_read_frame(format, packet);
      if (r < 0) {
        flushing = true;
        avcodec_send_packet(codec, nullptr);
        continue;
      }
      if (packet->stream_index == stream) {
        r = avcodec_send_packet(codec, packet);
        // A damaged packet is skipped; the decoder goes on with the next one.
        (void)r;
      }
      av_packet_unref(packet);
    }
  }

  // Seeks to the key frame at or before `ts` (the stream's time base).
  bool seek(INT64 ts) {
    flushing = false;
    const int r = av_seek_frame(format, stream, ts, AVSEEK_FLAG_BACKWARD);
    avcodec_flush_buffers(codec);
    return r >= 0;
  }
  // Back to the first packet: by byte position where the container allows it (time-stamp
  // seeks in streams such as MPEG-TS may land late), else by time stamp.
  void rewind() {
    flushing = false;
    if (!(format->iformat->flags & AVFMT_NO_BYTE_SEEK) &&
        av_seek_frame(format, -1, 0, AVSEEK_FLAG_BYTE) >= 0) {
      avcodec_flush_buffers(codec);
      return;
    }
    seek(startTime());
  }
  INT64 startTime() const { return st()->start_time != AV_NOPTS_VALUE ? st()->start_time : 0; }
};

// ---------------------------------------------------------------- audio
class AudioStream final : public Object<IKaReadAudioStream> {
 public:
  AudioStream() : Object(IID_IKaReadAudioStream) {}
  ~AudioStream() override { swr_free(&resampler_); }

  HRESULT init(const std::string& path, int index) {
    HRESULT hr = dec_.open(path, index);
    if (FAILED(hr)) return hr;
    AVCodecContext* c = dec_.codec;
    if (c->sample_rate <= 0 || c->ch_layout.nb_channels <= 0 || c->ch_layout.nb_channels > 64)
      return KAERR_CORRUPT_FILE;
    rate_ = c->sample_rate;
    channels_ = c->ch_layout.nb_channels;
    KASAMPLETYPE type = KASAMPLE_FLOAT32;
    switch (c->sample_fmt) {
      case AV_SAMPLE_FMT_U8:
      case AV_SAMPLE_FMT_U8P:
      case AV_SAMPLE_FMT_S16:
      case AV_SAMPLE_FMT_S16P:
        type = KASAMPLE_PCM16, outFormat_ = AV_SAMPLE_FMT_S16;
        break;
      case AV_SAMPLE_FMT_S32:
      case AV_SAMPLE_FMT_S32P:
        type = c->bits_per_raw_sample == 24 ? KASAMPLE_PCM24 : KASAMPLE_PCM32;
        outFormat_ = AV_SAMPLE_FMT_S32;
        break;
      default:
        outFormat_ = AV_SAMPLE_FMT_FLT;
        break;
    }
    wfx_.Init(DWORD(rate_), type, WORD(channels_), 0, KAWAVEFORMAT_BUFFER_SIZE);
    wfx_.UpdateBlockAlign();
    const AVStream* s = dec_.st();
    if (s->duration != AV_NOPTS_VALUE && s->duration > 0)
      frames_ = UINT64(av_rescale_q(s->duration, s->time_base, AVRational{1, rate_}));
    else if (dec_.format->duration > 0)
      frames_ = UINT64(av_rescale_q(dec_.format->duration, AV_TIME_BASE_Q, AVRational{1, rate_}));
    return S_OK;
  }

  STDMETHOD(GetStreamType)(DWORD* type) override {
    if (!type) return E_POINTER;
    *type = KAFIO_STREAM_AUDIO;
    return S_OK;
  }
  STDMETHOD(GetDuration)(INT64* duration, INT64* start) override {
    if (!duration) return E_POINTER;
    *duration = frames_ ? INT64(frames_ * UINT64(kTicks) / UINT64(rate_)) : -1;
    if (start) *start = av_rescale_q(dec_.startTime(), dec_.st()->time_base, kTickBase);
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
    *frames = frames_;
    return S_OK;
  }
  STDMETHOD(Read)(UINT64 position, void* buffer, DWORD count, DWORD* read) override {
    if (!buffer || !read) return E_POINTER;
    *read = 0;
    std::lock_guard lk(lock_);
    const UINT64 far = UINT64(rate_) * 4;
    if (position < pendingStart_ || position > decodedEnd_ + far) reposition(position);
    auto* out = static_cast<BYTE*>(buffer);
    const size_t unit = size_t(channels_) * av_get_bytes_per_sample(outFormat_);
    const WORD block = wfx_.nBlockAlign;
    DWORD done = 0;
    while (done < count) {
      if (position >= pendingStart_ && position < decodedEnd_) {
        const UINT64 at = position - pendingStart_;
        const DWORD n = DWORD(std::min<UINT64>(count - done, decodedEnd_ - position));
        store(out + size_t(done) * block, pending_.data() + at * unit, n);
        done += n;
        position += n;
        continue;
      }
      const HRESULT hr = decodeOne();
      if (hr == S_FALSE) break;  // the end
      if (FAILED(hr)) {
        if (done) break;
        return hr;
      }
    }
    *read = done;
    return S_OK;
  }

 protected:
  bool extra(REFIID riid) const override { return riid == IID_IKaReadStream; }

 private:
  // Copies n decoded frames to the caller, packing 32-bit words to 24 bits when asked.
  void store(BYTE* to, const BYTE* from, DWORD n) const {
    if (wfx_.SampleType != KASAMPLE_PCM24) {
      std::memcpy(to, from, size_t(n) * wfx_.nBlockAlign);
      return;
    }
    for (size_t i = 0; i < size_t(n) * channels_; ++i) {
      uint32_t v;
      std::memcpy(&v, from + 4 * i, 4);
      v >>= 8;
      to[3 * i] = BYTE(v), to[3 * i + 1] = BYTE(v >> 8), to[3 * i + 2] = BYTE(v >> 16);
    }
  }

  // Decodes the next frame into pending_; S_FALSE at the end.
  HRESULT decodeOne() {
    const int r = dec_.next();
    if (r == AVERROR_EOF) return S_FALSE;
    if (r < 0) return KAERR_CORRUPT_FILE;
    AVFrame* f = dec_.frame;
    HRESULT hr = convert(f);
    const INT64 pts = f->best_effort_timestamp;
    av_frame_unref(f);
    if (FAILED(hr)) return hr;
    UINT64 at = decodedEnd_;
    if (anchorFromPts_) {
      anchorFromPts_ = false;
      if (pts == AV_NOPTS_VALUE) return E_FAIL;
      const INT64 p = av_rescale_q(pts - dec_.startTime(), dec_.st()->time_base, {1, rate_});
      at = p > 0 ? UINT64(p) : 0;
    }
    pendingStart_ = at;
    decodedEnd_ = at + pendingFrames_;
    return S_OK;
  }

  HRESULT convert(const AVFrame* f) {
    if (f->ch_layout.nb_channels != channels_ || f->sample_rate != rate_)
      return KAERR_CORRUPT_FILE;  // a mid-stream format change is not followed
    if (!resampler_) {
      auto* layout = const_cast<AVChannelLayout*>(&f->ch_layout);  // read only, not const in 5.x
      if (swr_alloc_set_opts2(&resampler_, layout, outFormat_, rate_, layout,
                              AVSampleFormat(f->format), rate_, 0, nullptr) < 0 ||
          swr_init(resampler_) < 0)
        return E_OUTOFMEMORY;
    }
    const size_t unit = size_t(channels_) * av_get_bytes_per_sample(outFormat_);
    pending_.resize(size_t(f->nb_samples) * unit);
    uint8_t* outs[1] = {pending_.data()};
    const int n = swr_convert(resampler_, outs, f->nb_samples,
                              const_cast<const uint8_t**>(f->extended_data), f->nb_samples);
    if (n < 0) return KAERR_CORRUPT_FILE;
    pendingFrames_ = UINT64(n);
    return S_OK;
  }

  // Makes `position` the next frame to decode (or one before it).
  void reposition(UINT64 position) {
    pending_.clear();
    pendingFrames_ = 0;
    const UINT64 margin = UINT64(rate_) / 2;  // decoders need a little run-in after a seek
    if (position > margin) {
      const INT64 ts = dec_.startTime() +
                       av_rescale_q(INT64(position - margin), {1, rate_}, dec_.st()->time_base);
      if (dec_.seek(ts)) {
        anchorFromPts_ = true;
        const HRESULT hr = decodeOne();
        if (hr == S_OK && pendingStart_ <= position) return;
      }
    }
    // From the start: positions are counted from the first decoded sample.
    anchorFromPts_ = false;
    dec_.rewind();
    pending_.clear();
    pendingFrames_ = 0;
    pendingStart_ = decodedEnd_ = 0;
  }

  Decoder dec_;
  SwrContext* resampler_ = nullptr;
  AVSampleFormat outFormat_ = AV_SAMPLE_FMT_FLT;
  _kawaveformat wfx_{};
  int rate_ = 0;
  int channels_ = 0;
  UINT64 frames_ = 0;
  std::vector<BYTE> pending_;  // decoded, converted frames [pendingStart_, decodedEnd_)
  UINT64 pendingFrames_ = 0;
  UINT64 pendingStart_ = 0;
  UINT64 decodedEnd_ = 0;
  bool anchorFromPts_ = false;
  std::mutex lock_;
};

// ---------------------------------------------------------------- video
struct LayoutInfo {
  DWORD fourcc;
  AVPixelFormat pixel;
  WORD bits;
};
constexpr LayoutInfo kLayouts[] = {
    {KaFourCC('U', 'Y', 'V', 'Y'), AV_PIX_FMT_UYVY422, 16},
    {KaFourCC('Y', 'U', 'Y', 'V'), AV_PIX_FMT_YUYV422, 16},
    {KaFourCC('Y', 'U', 'Y', '2'), AV_PIX_FMT_YUYV422, 16},
    {KaFourCC('I', '4', '2', '0'), AV_PIX_FMT_YUV420P, 12},
    {KaFourCC('I', 'Y', 'U', 'V'), AV_PIX_FMT_YUV420P, 12},
    {KaFourCC('Y', 'V', '1', '2'), AV_PIX_FMT_YUV420P, 12},
    {KaFourCC('Y', 'V', '1', '6'), AV_PIX_FMT_YUV422P, 16},
    {KaFourCC('N', 'V', '1', '2'), AV_PIX_FMT_NV12, 12},
    {KaFourCC('P', '0', '1', '0'), AV_PIX_FMT_P010LE, 24},
    {KaFourCC('P', '2', '1', '0'), AV_PIX_FMT_P210LE, 32},
    // Packed by libavcodec's v210 encoder from 4:2:2 10-bit planes.
    {KaFourCC('v', '2', '1', '0'), AV_PIX_FMT_YUV422P10LE, 20},
};

const LayoutInfo* layoutOf(DWORD fourcc) {
  for (const LayoutInfo& l : kLayouts)
    if (l.fourcc == fourcc) return &l;
  return nullptr;
}

// The kernel layout that keeps the decoder's pixels exactly, or 0 (a 32-bit bitmap).
DWORD nativeLayout(AVPixelFormat f) {
  switch (f) {
    case AV_PIX_FMT_YUV420P:
    case AV_PIX_FMT_YUVJ420P:
      return KaFourCC('I', '4', '2', '0');
    case AV_PIX_FMT_NV12:
      return KaFourCC('N', 'V', '1', '2');
    case AV_PIX_FMT_UYVY422:
      return KaFourCC('U', 'Y', 'V', 'Y');
    case AV_PIX_FMT_YUYV422:
      return KaFourCC('Y', 'U', 'Y', 'V');
    case AV_PIX_FMT_YUV422P:
    case AV_PIX_FMT_YUVJ422P:
      return KaFourCC('Y', 'V', '1', '6');
    case AV_PIX_FMT_P010LE:
    case AV_PIX_FMT_YUV420P10LE:
      return KaFourCC('P', '0', '1', '0');
    case AV_PIX_FMT_P210LE:
    case AV_PIX_FMT_YUV422P10LE:
      return KaFourCC('P', '2', '1', '0');
    default:
      return 0;
  }
}

class VideoStream final : public Object<IKaReadVideoStream> {
 public:
  VideoStream() : Object(IID_IKaReadVideoStream) {}
  ~VideoStream() override {
    sws_freeContext(scaler_);
    av_frame_free(&current_);
    av_frame_free(&planes_);
    avcodec_free_context(&packer_);
  }

  HRESULT init(const std::string& path, int index) {
    HRESULT hr = dec_.open(path, index);
    if (FAILED(hr)) return hr;
    AVCodecContext* c = dec_.codec;
    if (c->width <= 0 || c->height <= 0 || c->width > 16384 || c->height > 16384)
      return KAERR_CORRUPT_FILE;
    const AVStream* s = dec_.st();
    rate_ = s->avg_frame_rate.num > 0 && s->avg_frame_rate.den > 0 ? s->avg_frame_rate
                                                                   : s->r_frame_rate;
    if (rate_.num <= 0 || rate_.den <= 0) rate_ = {25, 1};
    if (s->nb_frames > 0)
      frames_ = UINT64(s->nb_frames);
    else if (s->duration != AV_NOPTS_VALUE && s->duration > 0)
      frames_ = UINT64(av_rescale_q(s->duration, s->time_base, av_inv_q(rate_)));
    else if (dec_.format->duration > 0)
      frames_ = UINT64(av_rescale_q(dec_.format->duration, AV_TIME_BASE_Q, av_inv_q(rate_)));
    return S_OK;
  }

  STDMETHOD(GetStreamType)(DWORD* type) override {
    if (!type) return E_POINTER;
    *type = KAFIO_STREAM_VIDEO;
    return S_OK;
  }
  STDMETHOD(GetDuration)(INT64* duration, INT64* start) override {
    if (!duration) return E_POINTER;
    *duration = frames_ ? av_rescale_q(INT64(frames_), av_inv_q(rate_), kTickBase) : -1;
    if (start) *start = av_rescale_q(dec_.startTime(), dec_.st()->time_base, kTickBase);
    return S_OK;
  }
  STDMETHOD(GetFrameFormat)(BITMAPINFOHEADER* header, DWORD* num, DWORD* den) override {
    if (!header) return E_POINTER;
    *header = {};
    header->biSize = sizeof *header;
    header->biWidth = dec_.codec->width;
    header->biHeight = dec_.codec->height;
    header->biPlanes = 1;
    header->biCompression = nativeLayout(dec_.codec->pix_fmt);
    const LayoutInfo* l = layoutOf(header->biCompression);
    header->biBitCount = l ? l->bits : 32;
    if (!l) header->biHeight = -header->biHeight;  // a top-down bitmap
    header->biSizeImage = imageBytes(*header);
    if (num) *num = DWORD(rate_.num);
    if (den) *den = DWORD(rate_.den);
    return S_OK;
  }
  STDMETHOD(GetFrameCount)(UINT64* frames) override {
    if (!frames) return E_POINTER;
    *frames = frames_;
    return S_OK;
  }
  STDMETHOD(ReadFrame)
  (UINT64 index, const BITMAPINFOHEADER* header, void* buffer, size_t bytes, INT64* time) override {
    if (!header || !buffer) return E_POINTER;
    const LayoutInfo* layout = layoutOf(header->biCompression);
    if (!layout && !(header->biCompression == 0 && header->biBitCount == 32))
      return KAERR_UNSUPPORTED_FORMAT;
    const LONG w = header->biWidth, h = header->biHeight < 0 ? -header->biHeight : header->biHeight;
    if (w <= 0 || h <= 0 || w > 16384 || h > 16384) return E_INVALIDARG;
    const DWORD need = imageBytes(*header);
    if (!need || bytes < need) return E_INVALIDARG;
    std::lock_guard lk(lock_);
    HRESULT hr = decodeFrame(index);
    if (FAILED(hr)) return hr;
    hr = convert(*header, layout, static_cast<BYTE*>(buffer));
    if (SUCCEEDED(hr) && time) *time = currentTime_;
    return hr;
  }

 protected:
  bool extra(REFIID riid) const override { return riid == IID_IKaReadStream; }

 private:
  static DWORD imageBytes(const BITMAPINFOHEADER& h) {
    if (h.biCompression == 0) {
      const UINT64 rows = UINT64(h.biHeight < 0 ? -INT64(h.biHeight) : h.biHeight);
      const UINT64 n = UINT64(h.biWidth) * 4 * rows;
      return n > 0xFFFFFFFFu ? 0 : DWORD(n);
    }
    return KaYUVImageBytesAndOffsets(&h, nullptr);
  }

  INT64 indexOf(INT64 pts) const {
    return av_rescale_q_rnd(pts - dec_.startTime(), dec_.st()->time_base, av_inv_q(rate_),
                            AVRounding(AV_ROUND_NEAR_INF | AV_ROUND_PASS_MINMAX));
  }

  // Leaves the frame `index` (or the last one before the end) in current_.
  HRESULT decodeFrame(UINT64 index) {
    if (current_ && currentIndex_ == INT64(index)) return S_OK;
    bool sought = false;
    if (!current_ || INT64(index) < currentIndex_ || INT64(index) > currentIndex_ + 12) {
      const INT64 ts =
          dec_.startTime() + av_rescale_q(INT64(index), av_inv_q(rate_), dec_.st()->time_base);
      sought = dec_.seek(ts);
      if (!sought) dec_.rewind();
      currentIndex_ = -1;
    }
    for (bool first = true;; first = false) {
      const int r = dec_.next();
      if (r == AVERROR_EOF) return current_ ? S_OK : KAERR_READ_FAILED;  // past the end: last frame
      if (r < 0) return KAERR_CORRUPT_FILE;
      const INT64 pts = dec_.frame->best_effort_timestamp;
      const INT64 at = pts == AV_NOPTS_VALUE ? currentIndex_ + 1 : indexOf(pts);
      if (!current_) current_ = av_frame_alloc();
      if (!current_) return E_OUTOFMEMORY;
      av_frame_unref(current_);
      av_frame_move_ref(current_, dec_.frame);
      if (first && sought && at > INT64(index)) {
        // The seek landed after the frame: decode from the start instead.
        dec_.rewind();
        sought = false;
        first = true;
        currentIndex_ = -1;
        continue;
      }
      currentIndex_ = at;
      currentTime_ = pts == AV_NOPTS_VALUE
                         ? av_rescale_q(at, av_inv_q(rate_), kTickBase)
                         : av_rescale_q(pts - dec_.startTime(), dec_.st()->time_base, kTickBase);
      if (at >= INT64(index)) return S_OK;
    }
  }

  HRESULT convert(const BITMAPINFOHEADER& header, const LayoutInfo* layout, BYTE* out) {
    const AVFrame* f = current_;
    const LONG w = header.biWidth, h = header.biHeight < 0 ? -header.biHeight : header.biHeight;
    const AVPixelFormat target = layout ? layout->pixel : AV_PIX_FMT_BGRA;
    scaler_ = sws_getCachedContext(scaler_, f->width, f->height, AVPixelFormat(f->format), w, h,
                                   target, SWS_BICUBIC, nullptr, nullptr, nullptr);
    if (!scaler_) return KAERR_UNSUPPORTED_FORMAT;
    uint8_t* planes[4] = {};
    int strides[4] = {};
    if (layout && layout->fourcc == KaFourCC('v', '2', '1', '0')) return packV210(f, w, h, out);
    if (!layout) {
      const int stride = int(w) * 4;
      const bool bottomUp = header.biHeight > 0;
      planes[0] = bottomUp ? out + size_t(h - 1) * stride : out;
      strides[0] = bottomUp ? -stride : stride;
    } else {
      KAYUVPLANES p{};
      KaYUVImageBytesAndOffsets(&header, &p);
      planes[0] = out;
      strides[0] = int(p.lumaStride);
      planes[1] = out + p.uOffset;
      strides[1] = int(p.chromaStride);
      if (p.vStride) {
        planes[2] = out + p.vOffset;
        strides[2] = int(p.vStride);
      }
      if (layout->fourcc == KaFourCC('Y', 'V', '1', '2') ||
          layout->fourcc == KaFourCC('Y', 'V', '1', '6')) {
        // Y, V, U: swscale writes U first, so hand it the planes the other way round.
        std::swap(planes[1], planes[2]);
        std::swap(strides[1], strides[2]);
      }
    }
    sws_scale(scaler_, f->data, f->linesize, 0, f->height, planes, strides);
    return S_OK;
  }

  // v210: scaled into 4:2:2 10-bit planes, then packed by the v210 encoder, whose rows are
  // the kernel's v210 rows (48 pixels in 128 bytes).
  HRESULT packV210(const AVFrame* f, LONG w, LONG h, BYTE* out) {
    if (!planes_ || planes_->width != w || planes_->height != h) {
      av_frame_free(&planes_);
      avcodec_free_context(&packer_);
      planes_ = av_frame_alloc();
      const AVCodec* v210 = avcodec_find_encoder(AV_CODEC_ID_V210);
      if (!planes_ || !v210) return KAERR_UNSUPPORTED_FORMAT;
      planes_->width = int(w);
      planes_->height = int(h);
      planes_->format = AV_PIX_FMT_YUV422P10LE;
      if (av_frame_get_buffer(planes_, 0) < 0) return E_OUTOFMEMORY;
      packer_ = avcodec_alloc_context3(v210);
      if (!packer_) return E_OUTOFMEMORY;
      packer_->width = int(w);
      packer_->height = int(h);
      packer_->pix_fmt = AV_PIX_FMT_YUV422P10LE;
      packer_->time_base = {1, 25};
      if (avcodec_open2(packer_, v210, nullptr) < 0) return KAERR_UNSUPPORTED_FORMAT;
    }
    if (av_frame_make_writable(planes_) < 0) return E_OUTOFMEMORY;
    sws_scale(scaler_, f->data, f->linesize, 0, f->height, planes_->data, planes_->linesize);
    AVPacket* packet = av_packet_alloc();
    if (!packet) return E_OUTOFMEMORY;
    HRESULT hr = KAERR_UNSUPPORTED_FORMAT;
    if (avcodec_send_frame(packer_, planes_) >= 0 && avcodec_receive_packet(packer_, packet) >= 0) {
      const size_t stride = size_t((w + 47) / 48) * 128;
      if (size_t(packet->size) >= stride * size_t(h)) {
        std::memcpy(out, packet->data, stride * size_t(h));
        hr = S_OK;
      }
    }
    av_packet_free(&packet);
    return hr;
  }

  Decoder dec_;
  SwsContext* scaler_ = nullptr;
  AVFrame* planes_ = nullptr;
  AVCodecContext* packer_ = nullptr;
  AVRational rate_{25, 1};
  UINT64 frames_ = 0;
  AVFrame* current_ = nullptr;
  INT64 currentIndex_ = -1;
  INT64 currentTime_ = 0;
  std::mutex lock_;
};

// ---------------------------------------------------------------- metadata
class Meta final : public Object<IKaReadMeta> {
 public:
  explicit Meta(std::vector<std::pair<std::u16string, std::u16string>> values)
      : Object(IID_IKaReadMeta), values_(std::move(values)) {}
  STDMETHOD(GetValue)(const KAWCHAR* key, KAWCHAR* buffer, DWORD chars) override {
    if (!key || !buffer || !chars) return E_POINTER;
    buffer[0] = 0;
    for (const auto& [k, v] : values_)
      if (k == key) {
        copyText(buffer, chars, v.c_str());
        return S_OK;
      }
    return S_FALSE;
  }

 private:
  std::vector<std::pair<std::u16string, std::u16string>> values_;
};

std::u16string ascii(const std::string& s) { return std::u16string(s.begin(), s.end()); }

std::u16string fraction(AVRational r, int scale) {
  return ascii(std::to_string(r.den ? llround(double(r.num) * scale / r.den) : 0));
}

// The descriptive values of the file: its title, and of its first video stream the
// rotation, the colour description and the mastering display.
std::vector<std::pair<std::u16string, std::u16string>> readMeta(AVFormatContext* f) {
  std::vector<std::pair<std::u16string, std::u16string>> v;
  if (const AVDictionaryEntry* t = av_dict_get(f->metadata, "title", nullptr, 0))
    v.emplace_back(u"Title", ostra::plugin::fromUtf8(t->value));
  const AVStream* s = nullptr;
  for (unsigned i = 0; i < f->nb_streams && !s; ++i)
    if (f->streams[i]->codecpar->codec_type == AVMEDIA_TYPE_VIDEO &&
        !(f->streams[i]->disposition & AV_DISPOSITION_ATTACHED_PIC))
      s = f->streams[i];
  if (!s) return v;
  if (const AVDictionaryEntry* t = av_dict_get(s->metadata, "title", nullptr, 0); t && v.empty())
    v.emplace_back(u"Title", ostra::plugin::fromUtf8(t->value));
  const auto* matrix = reinterpret_cast<const int32_t*>(
      av_stream_get_side_data(s, AV_PKT_DATA_DISPLAYMATRIX, nullptr));
  if (matrix) {
    // The display matrix turns anticlockwise; people speak of the clockwise rotation.
    double deg = -av_display_rotation_get(matrix);
    if (!std::isnan(deg)) {
      long r = lround(deg) % 360;
      if (r < 0) r += 360;
      v.emplace_back(u"Rotation", ascii(std::to_string(r)));
    }
  }
  const AVCodecParameters* p = s->codecpar;
  // The container's numbers land in these enum fields unchecked, so they are read as the
  // integers they are and named only inside the enums' ranges.
  const auto raw = [](const auto& field) {
    int value = 0;
    static_assert(sizeof field == sizeof value);
    std::memcpy(&value, &field, sizeof value);
    return value;
  };
  const int primaries = raw(p->color_primaries), transfer = raw(p->color_trc),
            space = raw(p->color_space), range = raw(p->color_range);
  const auto name = [](int value, int count, const char* known) {
    return ascii(value >= 0 && value < count && known ? std::string(known) : std::to_string(value));
  };
  const bool described = primaries != AVCOL_PRI_UNSPECIFIED || transfer != AVCOL_TRC_UNSPECIFIED ||
                         space != AVCOL_SPC_UNSPECIFIED;
  v.emplace_back(u"colour_description_present", described ? u"Yes" : u"No");
  if (described) {
    const bool p0 = primaries >= 0 && primaries < AVCOL_PRI_NB;
    const bool t0 = transfer >= 0 && transfer < AVCOL_TRC_NB;
    const bool s0 = space >= 0 && space < AVCOL_SPC_NB;
    v.emplace_back(u"colour_primaries",
                   name(primaries, AVCOL_PRI_NB,
                        p0 ? av_color_primaries_name(AVColorPrimaries(primaries)) : nullptr));
    v.emplace_back(
        u"transfer_characteristics",
        name(transfer, AVCOL_TRC_NB,
             t0 ? av_color_transfer_name(AVColorTransferCharacteristic(transfer)) : nullptr));
    v.emplace_back(
        u"matrix_coefficients",
        name(space, AVCOL_SPC_NB, s0 ? av_color_space_name(AVColorSpace(space)) : nullptr));
  }
  if (range == AVCOL_RANGE_MPEG) v.emplace_back(u"colour_range", u"Limited");
  if (range == AVCOL_RANGE_JPEG) v.emplace_back(u"colour_range", u"Full");
  const auto* md = reinterpret_cast<const AVMasteringDisplayMetadata*>(
      av_stream_get_side_data(s, AV_PKT_DATA_MASTERING_DISPLAY_METADATA, nullptr));
  if (md && md->has_primaries) {
    // R, G, B and white point as x,y pairs in units of 0.00002, as the SEI message has them.
    std::u16string t;
    for (int c = 0; c < 3; ++c)
      t += fraction(md->display_primaries[c][0], 50000) + u"," +
           fraction(md->display_primaries[c][1], 50000) + u";";
    t += fraction(md->white_point[0], 50000) + u"," + fraction(md->white_point[1], 50000);
    v.emplace_back(u"MasteringDisplay_ColorPrimaries", t);
  }
  if (md && md->has_luminance)
    v.emplace_back(u"MasteringDisplay_Luminance", u"min: " + fraction(md->min_luminance, 10000) +
                                                      u", max: " +
                                                      fraction(md->max_luminance, 10000));
  return v;
}

// ---------------------------------------------------------------- the reader
class Reader final : public Object<IKaReadFile> {
 public:
  Reader() : Object(IID_IKaReadFile) {}
  STDMETHOD(Open)(const KAWCHAR* path, DWORD) override {
    if (!path) return E_POINTER;
    Close();
    path_ = ostra::plugin::toUtf8(path);
    AVFormatContext* f = nullptr;
    if (avformat_open_input(&f, path_.c_str(), nullptr, nullptr) < 0) return KAERR_FIO_NOT_MINE;
    if (avformat_find_stream_info(f, nullptr) < 0) {
      avformat_close_input(&f);
      return KAERR_FIO_NOT_MINE;
    }
    for (unsigned i = 0; i < f->nb_streams; ++i) {
      const AVStream* s = f->streams[i];
      const AVCodecParameters* p = s->codecpar;
      if (!avcodec_find_decoder(p->codec_id)) continue;
      if (p->codec_type == AVMEDIA_TYPE_AUDIO && p->sample_rate > 0 && p->ch_layout.nb_channels > 0)
        streams_.push_back({int(i), KAFIO_STREAM_AUDIO});
      else if (p->codec_type == AVMEDIA_TYPE_VIDEO && p->width > 0 && p->height > 0 &&
               !(s->disposition & AV_DISPOSITION_ATTACHED_PIC))
        streams_.push_back({int(i), KAFIO_STREAM_VIDEO});
    }
    meta_ = readMeta(f);
    avformat_close_input(&f);
    if (streams_.empty()) return KAERR_FIO_NOT_MINE;  // nothing this reader can decode
    open_ = true;
    return S_OK;
  }
  STDMETHOD(Close)() override {
    streams_.clear();
    meta_.clear();
    open_ = false;
    return S_OK;
  }
  STDMETHOD(GetStreamCount)(DWORD* count) override {
    if (!count) return E_POINTER;
    *count = DWORD(streams_.size());
    return S_OK;
  }
  STDMETHOD(GetStream)(DWORD index, REFIID riid, void** stream) override {
    if (!stream) return E_POINTER;
    *stream = nullptr;
    if (!open_ || index >= streams_.size()) return E_INVALIDARG;
    const auto [at, type] = streams_[index];
    if (type == KAFIO_STREAM_AUDIO) return made<AudioStream>(at, riid, stream);
    return made<VideoStream>(at, riid, stream);
  }
  STDMETHOD(GetMeta)(REFIID riid, void** meta) override {
    if (!meta) return E_POINTER;
    *meta = nullptr;
    if (riid != IID_IKaReadMeta || !open_) return E_NOINTERFACE;
    return ostra::plugin::make<Meta>(riid, meta, meta_);
  }

 private:
  template <class T>
  HRESULT made(int at, REFIID riid, void** stream) {
    T* s = new (std::nothrow) T;
    if (!s) return E_OUTOFMEMORY;
    HRESULT hr = s->init(path_, at);
    if (SUCCEEDED(hr)) hr = s->QueryInterface(riid, stream);
    s->Release();
    return hr;
  }

  std::string path_;
  std::vector<std::pair<int, KAFIOSTREAMTYPE>> streams_;
  std::vector<std::pair<std::u16string, std::u16string>> meta_;
  bool open_ = false;
};

class ReaderClass final : public Object<IKaReadFileClass> {
 public:
  ReaderClass() : Object(IID_IKaReadFileClass) {}
  STDMETHOD(GetName)(KAWCHAR* buffer, DWORD chars) override {
    copyText(buffer, chars, u"Media file reader (FFmpeg)");
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

class Factory final : public Object<IKaFioPluginFactory> {
 public:
  Factory() : Object(IID_IKaFioPluginFactory) {}
  STDMETHOD(GetInfo)(KAFIOPLUGININFO* info) override {
    if (!info || info->size < sizeof(KAFIOPLUGININFO)) return E_INVALIDARG;
    info->reader = CLSID_KaFioMediaReader;
    info->merit = kMerit;
    info->streamTypeCount = 2;
    copyText(info->streamTypes[0].name, 32, u"audio");
    info->streamTypes[0].access = 1;
    info->streamTypes[0].streamType = KAFIO_STREAM_AUDIO;
    copyText(info->streamTypes[1].name, 32, u"video");
    info->streamTypes[1].access = 1;
    info->streamTypes[1].streamType = KAFIO_STREAM_VIDEO;
    return S_OK;
  }
  STDMETHOD(GetClassObject)(REFCLSID clsid, REFIID riid, void** object) override {
    if (clsid == CLSID_KaFioMediaReader) return ostra::plugin::make<ReaderClass>(riid, object);
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
  av_log_set_level(AV_LOG_QUIET);  // damaged files are answered with result codes, not chatter
  return ostra::plugin::make<Factory>(IID_IKaFioPluginFactory, reinterpret_cast<void**>(factory));
}
