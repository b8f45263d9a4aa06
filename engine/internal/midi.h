// MIDI ports through the ALSA sequencer: listing the machine's ports (none where there is
// no sequencer, which is not an error) and sending bytes to one. Used by the transport's
// port enumeration and the MIDI time-code generator.
#pragma once

#include <memory>
#include <string>

#include "ostra/transport.h"

namespace ostra::engine {

// input: ports one can read from (capture); else ports one can write to. S_FALSE when
// there are none.
HRESULT enumMidiPorts(bool input, KAMIDIPORTENUMPROC proc, void* context) noexcept;

class MidiOutPort {
 public:
  virtual ~MidiOutPort() = default;
  virtual void send(const BYTE* bytes, DWORD count) noexcept = 0;
};
// A port of ours connected to `address` ("client:port" or a client name).
std::unique_ptr<MidiOutPort> openMidiOutPort(const std::string& address, HRESULT& r);

}  // namespace ostra::engine
