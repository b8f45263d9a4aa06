#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "command.h"
#include "fio_manager.h"
#include "ostra/kaerror.h"
#include "ostra/kaplatform.h"
#include "text.h"

namespace {

// Every sample of every audio stream through the reader the manager picks, the way the
// host imports the file: proof that the plug-in path works end to end.
nlohmann::json readThroughPlugin(IKaFileIOManager* manager, const std::u16string& path) {
  IKaReadFile* reader = nullptr;
  HRESULT hr = manager->CreateReaderForPath(path.c_str(), 0, &reader, nullptr);
  nlohmann::json streams = nlohmann::json::array();
  DWORD count = 0;
  if (SUCCEEDED(hr)) hr = reader->GetStreamCount(&count);
  for (DWORD i = 0; SUCCEEDED(hr) && i < count; ++i) {
    IKaReadStream* stream = nullptr;
    DWORD type = 0;
    INT64 duration = -1, start = 0;
    if (FAILED(hr = reader->GetStream(i, IID_IKaReadStream, reinterpret_cast<void**>(&stream))))
      break;
    stream->GetStreamType(&type);
    stream->GetDuration(&duration, &start);
    nlohmann::json s{{"type", type == KAFIO_STREAM_AUDIO   ? "audio"
                              : type == KAFIO_STREAM_VIDEO ? "video"
                                                           : "text"},
                     {"duration", duration}};
    IKaReadAudioStream* audio = nullptr;
    if (SUCCEEDED(
            stream->QueryInterface(IID_IKaReadAudioStream, reinterpret_cast<void**>(&audio)))) {
      _kawaveformat wfx{};
      UINT64 frames = 0, read = 0;
      hr = audio->GetFormat(&wfx, sizeof wfx);
      if (SUCCEEDED(hr)) hr = audio->GetFrameCount(&frames);
      if (SUCCEEDED(hr) && wfx.nBlockAlign) {
        std::vector<uint8_t> block(size_t(1 << 20) / wfx.nBlockAlign * wfx.nBlockAlign +
                                   wfx.nBlockAlign);
        const DWORD perRead = DWORD(block.size() / wfx.nBlockAlign);
        for (DWORD got = 1; SUCCEEDED(hr) && got; read += got)
          hr = audio->Read(read, block.data(), perRead, &got);
      }
      s.update({{"rate", wfx.nSamplesPerSec},
                {"channels", wfx.nChannels},
                {"bits", wfx.BitsPerSample()},
                {"frames", frames},
                {"framesRead", read}});
      audio->Release();
    }
    stream->Release();
    streams.push_back(s);
  }
  if (reader) reader->Release();
  return nlohmann::json{{"result", hr}, {"streams", streams}};
}

void setup(CLI::App& cmd) {
  static std::vector<std::string> files;
  static bool json = false, slow = false, log = false, read = false;
  cmd.add_option("files", files, "Media files")->required();
  cmd.add_flag("--json", json, "Print one JSON object");
  cmd.add_flag("--slow", slow, "Leave out the host-format check and the signature pass");
  cmd.add_flag("--log", log, "Print the plug-in manager's log lines");
  cmd.add_flag("--read", read, "Read every sample through the plug-in that reads the file");
  cmd.callback([] {
    using namespace ostra::cli;
    ManagerRun run;
    if (const HRESULT hr = startManager(false, log, &run); FAILED(hr)) {
      exitStatus() = reportFailure(hr);
      return;
    }
    nlohmann::json results = nlohmann::json::array();
    for (const std::string& file : files) {
      const size_t logStart = run.log.size();
      KAFIOIDENTIFY r{sizeof r};
      r.plugin = -1;
      KAHFILE handle;
      HRESULT hr =
          KaFile_OpenUtf8(file.c_str(), GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, 0, &handle);
      if (SUCCEEDED(hr)) {
        const std::u16string path = toUtf16(file);
        hr = slow ? run.manager->IdentifyFileTypeSlow(handle, path.c_str(), &r)
                  : run.manager->IdentifyFileType(handle, path.c_str(), &r);
        KaFile_Close(handle);
      }
      nlohmann::json j{{"file", file}, {"result", hr}, {"format", KaFio_GetFormatName(r.formatId)}};
      if (SUCCEEDED(hr) && r.plugin >= 0) {
        KAFIOPLUGINENTRY e;
        run.manager->GetPluginEntry(DWORD(r.plugin), &e);
        j["plugin"] = toUtf8(e.name);
        j["pass"] = passName(r.pass);
        if (read) {
          j["read"] = readThroughPlugin(run.manager, toUtf16(file));
          if (FAILED(j["read"]["result"].get<HRESULT>())) exitStatus() = 1;
        }
      } else {
        const KAWCHAR* text = KaErrorHandler_GetHresultString(hr);
        std::string t = text ? toUtf8(text) : std::string();
        while (!t.empty() && (t.front() == '\n' || t.front() == ' ')) t.erase(0, 1);
        j["text"] = hr == KAERR_FIO_HOST_FORMAT ? "a format the host opens itself" : t;
        exitStatus() = 1;
      }
      if (log) j["log"] = std::vector<std::string>(run.log.begin() + long(logStart), run.log.end());
      results.push_back(j);
    }
    if (json) {
      std::printf("%s\n", nlohmann::json{{"files", results}}.dump(2).c_str());
      return;
    }
    for (const auto& j : results) {
      if (j.contains("log"))
        for (const auto& line : j["log"])
          std::printf("  log: %s\n", line.get<std::string>().c_str());
      if (j.contains("plugin")) {
        std::printf("%s: %s (found by %s; %s)\n", j["file"].get<std::string>().c_str(),
                    j["plugin"].get<std::string>().c_str(), j["pass"].get<std::string>().c_str(),
                    j["format"].get<std::string>().c_str());
        if (j.contains("read")) {
          for (const auto& s : j["read"]["streams"]) {
            if (s.contains("frames"))
              std::printf("  audio: %u Hz, %u channels, %u bits, %llu of %llu frames read\n",
                          s["rate"].get<unsigned>(), s["channels"].get<unsigned>(),
                          s["bits"].get<unsigned>(), s["framesRead"].get<unsigned long long>(),
                          s["frames"].get<unsigned long long>());
            else
              std::printf("  %s stream\n", s["type"].get<std::string>().c_str());
          }
          if (const HRESULT hr = j["read"]["result"].get<HRESULT>(); FAILED(hr))
            std::printf("  reading failed: 0x%08X\n", unsigned(hr));
        }
      } else
        std::printf("%s: not read by any plug-in: 0x%08X %s\n",
                    j["file"].get<std::string>().c_str(), unsigned(j["result"].get<HRESULT>()),
                    j["text"].get<std::string>().c_str());
    }
  });
}

OSTRA_COMMAND("identify", "Tell which file-format plug-in reads each file", setup);

}  // namespace
