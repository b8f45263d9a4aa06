#include "checks.h"

#include "command.h"
#include "ostra/kaaudio.h"
#include "ostra/kaerror.h"

namespace ostra::cli {

HRESULT checkReadableAudio(const FileFacts& facts, std::string& reason) {
  const FormatFacts& f = facts.format;
  if (!facts.hasFormat) {
    reason = "the file has no format chunk, so its samples cannot be interpreted";
    return KAERR_BAD_FORMAT_CHUNK;
  }
  if (f.rate == 0) {
    reason = "the format says the sample rate is 0 Hz";
    return KAERR_SAMPLE_RATE;
  }
  if (f.channels == 0) {
    reason = "the format says the file has no channels";
    return KAERR_CHANNELS;
  }
  const int bytes = KaAudio_BytesFromSampleType(KASAMPLETYPE(f.sampleType));
  if (bytes <= 0) {
    reason = "format tag " + std::to_string(f.tag) + " with " + std::to_string(f.bits) +
             " bits per sample is not a sample format this tool reads";
    return KAERR_UNSUPPORTED_FORMAT;
  }
  if (uint64_t(f.blockAlign) != uint64_t(bytes) * f.channels) {
    reason = "the format's block size of " + std::to_string(f.blockAlign) + " bytes does not fit " +
             std::to_string(f.channels) + " channels of " + std::to_string(bytes) + "-byte samples";
    return KAERR_BAD_FORMAT_CHUNK;
  }
  if (!facts.hasData) {
    reason = "the file has no sample data chunk";
    return KAERR_NO_DATA_CHUNK;
  }
  return S_OK;
}

int refuseUnreadableAudio(const FileFacts& facts, const std::string& file) {
  std::string reason;
  const HRESULT hr = checkReadableAudio(facts, reason);
  return SUCCEEDED(hr) ? 0 : reportRefusal(hr, file, reason);
}

}  // namespace ostra::cli
