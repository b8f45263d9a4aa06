// MIDI ports through the ALSA sequencer (see engine/internal/midi.h).
#include <alsa/asoundlib.h>

#include <string>

#include "engine/internal/midi.h"
#include "ostra/kaerror.h"
#include "platform/internal/text.h"

namespace ostra::engine {
namespace {

void quietAlsa(const char*, int, const char*, int, const char*, ...) {}

snd_seq_t* openSequencer(int mode) {
  snd_lib_error_set_handler(&quietAlsa);
  snd_seq_t* seq = nullptr;
  if (snd_seq_open(&seq, "default", mode, 0) < 0) return nullptr;
  return seq;
}

class SeqOutPort final : public MidiOutPort {
 public:
  SeqOutPort(snd_seq_t* seq, int port, snd_midi_event_t* coder)
      : seq_(seq), port_(port), coder_(coder) {}
  ~SeqOutPort() override {
    snd_midi_event_free(coder_);
    snd_seq_close(seq_);
  }
  void send(const BYTE* bytes, DWORD count) noexcept override {
    for (DWORD i = 0; i < count; ++i) {
      snd_seq_event_t ev;
      snd_seq_ev_clear(&ev);
      if (snd_midi_event_encode_byte(coder_, bytes[i], &ev) != 1) continue;
      snd_seq_ev_set_source(&ev, port_);
      snd_seq_ev_set_subs(&ev);
      snd_seq_ev_set_direct(&ev);
      snd_seq_event_output_direct(seq_, &ev);
    }
  }

 private:
  snd_seq_t* seq_;
  int port_;
  snd_midi_event_t* coder_;
};

}  // namespace

HRESULT enumMidiPorts(bool input, KAMIDIPORTENUMPROC proc, void* context) noexcept {
  if (!proc) return E_POINTER;
  snd_seq_t* seq = openSequencer(SND_SEQ_OPEN_DUPLEX);
  if (!seq) return S_FALSE;
  const unsigned need = input ? SND_SEQ_PORT_CAP_READ | SND_SEQ_PORT_CAP_SUBS_READ
                              : SND_SEQ_PORT_CAP_WRITE | SND_SEQ_PORT_CAP_SUBS_WRITE;
  snd_seq_client_info_t* client;
  snd_seq_port_info_t* port;
  snd_seq_client_info_alloca(&client);
  snd_seq_port_info_alloca(&port);
  snd_seq_client_info_set_client(client, -1);
  UINT index = 0;
  bool go = true;
  try {
    while (go && snd_seq_query_next_client(seq, client) >= 0) {
      const int id = snd_seq_client_info_get_client(client);
      if (id == SND_SEQ_CLIENT_SYSTEM) continue;
      snd_seq_port_info_set_client(port, id);
      snd_seq_port_info_set_port(port, -1);
      while (go && snd_seq_query_next_port(seq, port) >= 0) {
        if ((snd_seq_port_info_get_capability(port) & need) != need) continue;
        const std::string name = std::to_string(id) + ":" +
                                 std::to_string(snd_seq_port_info_get_port(port)) + " " +
                                 snd_seq_port_info_get_name(port);
        const std::u16string wide = ostra::text::utf8ToUtf16(name);
        go = proc(index++, wide.c_str(), context) != FALSE;
      }
    }
  } catch (...) {
    snd_seq_close(seq);
    return E_OUTOFMEMORY;
  }
  snd_seq_close(seq);
  return index ? S_OK : S_FALSE;
}

std::unique_ptr<MidiOutPort> openMidiOutPort(const std::string& address, HRESULT& r) {
  KaErrorHandler_DetailsInit();
  snd_seq_t* seq = openSequencer(SND_SEQ_OPEN_OUTPUT);
  if (!seq) {
    r = KAERR_NOT_FOUND;
    KaErrorHandler_DetailsAddString(r, u"This machine has no MIDI sequencer.");
    return nullptr;
  }
  snd_seq_set_client_name(seq, "ostra");
  const int port = snd_seq_create_simple_port(
      seq, "MIDI time code", SND_SEQ_PORT_CAP_READ | SND_SEQ_PORT_CAP_SUBS_READ,
      SND_SEQ_PORT_TYPE_MIDI_GENERIC | SND_SEQ_PORT_TYPE_APPLICATION);
  snd_seq_addr_t dest;
  snd_midi_event_t* coder = nullptr;
  if (port < 0 || snd_seq_parse_address(seq, &dest, address.c_str()) < 0 ||
      snd_seq_connect_to(seq, port, dest.client, dest.port) < 0 ||
      snd_midi_event_new(256, &coder) < 0) {
    snd_seq_close(seq);
    r = KAERR_NOT_FOUND;
    KaErrorHandler_DetailsAddString(r, u"No MIDI port \"%hs\" to send time code to.",
                                    address.c_str());
    return nullptr;
  }
  r = S_OK;
  return std::make_unique<SeqOutPort>(seq, port, coder);
}

}  // namespace ostra::engine
