// MIDI time code: the generator (full-frame messages and quarter frames, timed on the
// format's real rate) and the reader (quarter frames and full frames back to labels, with
// lock detection). The bytes go to a sink or an ALSA sequencer port (engine/midi_alsa.cpp).
#include <atomic>
#include <cmath>
#include <new>

#include "engine/internal/midi.h"
#include "ostra/kaengine.h"

namespace ostra::engine {
namespace {

// The rate code carried in the hours byte: 0 24, 1 25, 2 30 drop, 3 30.
BYTE rateCode(DWORD type) {
  switch (type) {
    case 4:
    case 6:
      return 0;
    case 3:
      return 1;
    case 2:
      return 2;
    default:
      return 3;
  }
}

double realRate(DWORD type) {
  switch (type) {
    case 2:
    case 5:
      return 30000.0 / 1001.0;
    case 3:
      return 25.0;
    case 4:
      return 24.0;
    case 6:
      return 24000.0 / 1001.0;
    default:
      return 30.0;
  }
}

template <class I>
class ComObject : public I {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
    if (!ppv) return E_POINTER;
    *ppv = nullptr;
    if (riid != IID_IUnknown) return E_NOINTERFACE;
    *ppv = static_cast<I*>(this);
    this->AddRef();
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++refs_; }
  ULONG STDMETHODCALLTYPE Release() override {
    const ULONG r = --refs_;
    if (r == 0) delete this;
    return r;
  }
  virtual ~ComObject() = default;

 private:
  std::atomic<ULONG> refs_{1};
};

class Generator final : public ComObject<IKAMTCGenerator> {
 public:
  Generator(DWORD type, KAMIDIBYTESINK sink, void* context, std::unique_ptr<MidiOutPort> port)
      : type_(type), fps_(realRate(type)), sink_(sink), context_(context), port_(std::move(port)) {}

  HRESULT STDMETHODCALLTYPE Locate(INT64 ticks) override {
    if (ticks < 0) return E_INVALIDARG;
    const INT64 frame = INT64(double(ticks) * fps_ / 1e7 + 1e-6);
    _smpteval l = labelOf(frame);
    const BYTE ff[10] = {0xF0,
                         0x7F,
                         0x7F,
                         0x01,
                         0x01,
                         BYTE(rateCode(type_) << 5 | l.hours),
                         BYTE(l.minutes),
                         BYTE(l.seconds),
                         BYTE(l.frames),
                         0xF7};
    send(ff, sizeof ff);
    frame_ = frame + (frame & 1);  // quarter frames start on an even frame
    piece_ = 0;
    return S_OK;
  }

  HRESULT STDMETHODCALLTYPE Advance(INT64 ticks) override {
    for (;;) {
      const double due = double(frame_) * 1e7 / fps_ + piece_ * 1e7 / (4.0 * fps_);
      if (double(ticks) + 1e-6 < due) return S_OK;
      const _smpteval l = labelOf(frame_);
      BYTE value = 0;
      switch (piece_) {
        case 0:
          value = l.frames & 0xF;
          break;
        case 1:
          value = (l.frames >> 4) & 0x1;
          break;
        case 2:
          value = l.seconds & 0xF;
          break;
        case 3:
          value = (l.seconds >> 4) & 0x3;
          break;
        case 4:
          value = l.minutes & 0xF;
          break;
        case 5:
          value = (l.minutes >> 4) & 0x3;
          break;
        case 6:
          value = l.hours & 0xF;
          break;
        default:
          value = BYTE(rateCode(type_) << 1 | ((l.hours >> 4) & 0x1));
          break;
      }
      const BYTE qf[2] = {0xF1, BYTE(piece_ << 4 | value)};
      send(qf, 2);
      if (++piece_ == 8) {
        piece_ = 0;
        frame_ += 2;
      }
    }
  }

 private:
  _smpteval labelOf(INT64 frame) const {
    _smpteval l{type_, 0, 0, 0, 0};
    KASMPTE_FrameCountToSMPTE(&l, DWORD(frame));
    return l;
  }
  void send(const BYTE* bytes, DWORD n) {
    if (sink_) sink_(bytes, n, context_);
    if (port_) port_->send(bytes, n);
  }
  DWORD type_;
  double fps_;
  KAMIDIBYTESINK sink_;
  void* context_;
  std::unique_ptr<MidiOutPort> port_;
  INT64 frame_ = 0;
  int piece_ = 0;
};

class Reader final : public ComObject<IKAMTCReader> {
 public:
  Reader(DWORD type, KAMTCLABELPROC proc, void* context)
      : type_(type), proc_(proc), context_(context) {}
  ~Reader() override {
    if (input_) input_->Release();
  }

  HRESULT STDMETHODCALLTYPE Feed(const BYTE* bytes, DWORD count) override {
    if (!bytes && count) return E_POINTER;
    for (DWORD i = 0; i < count; ++i) byte(bytes[i]);
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE IsLocked() override { return locked_ ? S_OK : S_FALSE; }
  HRESULT STDMETHODCALLTYPE SetTimeCodeInput(IKATimeCodeInput* input) override {
    if (input) input->AddRef();
    if (input_) input_->Release();
    input_ = input;
    return S_OK;
  }

 private:
  void byte(BYTE b) {
    if (sysex_) {
      if (b == 0xF7) {
        sysex_ = false;
        fullFrame();
      } else if (sysexLen_ < sizeof sysexBuf_) {
        sysexBuf_[sysexLen_++] = b;
      }
      return;
    }
    if (b == 0xF0) {
      sysex_ = true;
      sysexLen_ = 0;
      expectData_ = false;
      return;
    }
    if (b == 0xF1) {
      expectData_ = true;
      return;
    }
    if (b & 0x80) {  // another status: a quarter frame's data byte cannot follow
      expectData_ = false;
      return;
    }
    if (!expectData_) return;
    expectData_ = false;
    quarter(b >> 4, b & 0xF);
  }

  void fullFrame() {
    // 7F 7F 01 01 hh mm ss ff
    if (sysexLen_ != 8 || sysexBuf_[0] != 0x7F || sysexBuf_[2] != 0x01 || sysexBuf_[3] != 0x01)
      return;
    _smpteval l{type_, DWORD(sysexBuf_[4] & 0x1F), sysexBuf_[5], sysexBuf_[6], sysexBuf_[7]};
    next_ = 0;
    locked_ = false;
    haveLast_ = false;
    report(l, true);
  }

  void quarter(int piece, int value) {
    if (piece != next_) {  // out of order: the sequence restarts and lock is lost
      next_ = 0;
      locked_ = false;
      haveLast_ = false;
      if (piece != 0) return;
    }
    parts_[piece] = value;
    next_ = piece + 1;
    if (piece < 7) return;
    next_ = 0;
    _smpteval l{type_, DWORD(parts_[6] | (parts_[7] & 1) << 4), DWORD(parts_[4] | parts_[5] << 4),
                DWORD(parts_[2] | parts_[3] << 4), DWORD(parts_[0] | parts_[1] << 4)};
    // The eight quarter frames took two frames: the label stands for the frame that
    // begins now.
    const DWORD count = KASMPTE_SMPTEToFrameCount(&l) + 2;
    KASMPTE_FrameCountToSMPTE(&l, count);
    locked_ = haveLast_ && count == lastCount_ + 2;
    haveLast_ = true;
    lastCount_ = count;
    report(l, false);
  }

  void report(const _smpteval& l, bool full) {
    KAMTCLABEL out{l, KASMPTE_SMPTEToNanos(&l), locked_ ? TRUE : FALSE, full ? TRUE : FALSE};
    if (proc_) proc_(&out, context_);
    if (input_) input_->PostEvent(16, out.ticks, out.ticks);
  }

  DWORD type_;
  KAMTCLABELPROC proc_;
  void* context_;
  IKATimeCodeInput* input_ = nullptr;
  bool sysex_ = false, expectData_ = false, locked_ = false, haveLast_ = false;
  BYTE sysexBuf_[16] = {};
  DWORD sysexLen_ = 0;
  int parts_[8] = {};
  int next_ = 0;
  DWORD lastCount_ = 0;
};

}  // namespace
}  // namespace ostra::engine

HRESULT KaMTC_CreateGenerator(DWORD format, KAMIDIBYTESINK sink, void* context, const char* port,
                              IKAMTCGenerator** generator) noexcept {
  if (!generator) return E_POINTER;
  *generator = nullptr;
  if (format < 1 || format > 6) return E_INVALIDARG;
  if (!sink && !port) return E_INVALIDARG;
  std::unique_ptr<ostra::engine::MidiOutPort> out;
  if (port) {
    HRESULT r = S_OK;
    out = ostra::engine::openMidiOutPort(port, r);
    if (!out) return r;
  }
  *generator = new (std::nothrow) ostra::engine::Generator(format, sink, context, std::move(out));
  return *generator ? S_OK : E_OUTOFMEMORY;
}

HRESULT KaMTC_CreateReader(DWORD format, KAMTCLABELPROC proc, void* context,
                           IKAMTCReader** reader) noexcept {
  if (!reader) return E_POINTER;
  *reader = nullptr;
  if (format < 1 || format > 6) return E_INVALIDARG;
  *reader = new (std::nothrow) ostra::engine::Reader(format, proc, context);
  return *reader ? S_OK : E_OUTOFMEMORY;
}
