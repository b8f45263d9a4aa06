// `ostra devices`: the audio outputs and inputs (channels, default rate, output latency)
// and the MIDI inputs and outputs this machine has. None at all is an empty list.
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "command.h"
#include "ostra/kaengine.h"
#include "text.h"

namespace {

BOOL addAudio(const KAAUDIODEVICE* d, void* context) {
  auto* list = static_cast<nlohmann::json*>(context);
  list->push_back({{"index", d->index},
                   {"name", ostra::cli::toUtf8(d->name)},
                   {"host_api", ostra::cli::toUtf8(d->hostApi)},
                   {"input_channels", d->maxInputChannels},
                   {"output_channels", d->maxOutputChannels},
                   {"default_rate", d->defaultSampleRate},
                   {"output_latency_ms", d->defaultOutputLatency * 1000.0},
                   {"default_input", d->isDefaultInput != 0},
                   {"default_output", d->isDefaultOutput != 0}});
  return TRUE;
}

BOOL addMidi(UINT index, const KAWCHAR* name, void* context) {
  static_cast<nlohmann::json*>(context)->push_back(
      {{"index", index}, {"name", ostra::cli::toUtf8(name)}});
  return TRUE;
}

void run(bool json) {
  nlohmann::json audio = nlohmann::json::array(), in = nlohmann::json::array(),
                 out = nlohmann::json::array();
  HRESULT r = KaEngine_EnumAudioDevices(&addAudio, &audio);
  if (FAILED(r)) {
    ostra::cli::exitStatus() = ostra::cli::reportFailure(r);
    return;
  }
  // The MIDI ports are the transport's to list.
  r = Transport_Init(nullptr, 0, 0, 0, nullptr, nullptr);
  if (SUCCEEDED(r)) {
    Transport_EnumMIDIIn(&addMidi, &in);
    Transport_EnumMIDIOut(&addMidi, &out);
    Transport_Cleanup();
  }
  if (json) {
    nlohmann::json j{{"audio", audio}, {"midi_inputs", in}, {"midi_outputs", out}};
    std::printf("%s\n", j.dump(2).c_str());
    return;
  }
  std::printf("Audio devices:%s\n", audio.empty() ? " none" : "");
  for (const auto& d : audio) {
    std::string mark;
    if (d["default_output"].get<bool>()) mark += " (default output)";
    if (d["default_input"].get<bool>()) mark += " (default input)";
    std::printf("  %s [%s]: %u out, %u in, %.0f Hz, %.1f ms%s\n",
                d["name"].get<std::string>().c_str(), d["host_api"].get<std::string>().c_str(),
                d["output_channels"].get<unsigned>(), d["input_channels"].get<unsigned>(),
                d["default_rate"].get<double>(), d["output_latency_ms"].get<double>(),
                mark.c_str());
  }
  std::printf("MIDI inputs:%s\n", in.empty() ? " none" : "");
  for (const auto& p : in) std::printf("  %s\n", p["name"].get<std::string>().c_str());
  std::printf("MIDI outputs:%s\n", out.empty() ? " none" : "");
  for (const auto& p : out) std::printf("  %s\n", p["name"].get<std::string>().c_str());
}

void setup(CLI::App& cmd) {
  static bool json = false;
  cmd.add_flag("--json", json, "Print one JSON object");
  cmd.callback([] { run(json); });
}

OSTRA_COMMAND("devices", "List the audio devices and MIDI ports of this machine", setup);

}  // namespace
