// wavinfo FILE: opens a wave, Wave64 or AIFF file through the Ostra Kernel, prints its
// format, converts the first block of samples to 32-bit float with the kernel's converter
// and prints the peak of each channel. A failure prints the kernel's own error text.
//
// Build with CMake (find_package(OstraKernel)) or with pkg-config:
//   g++ main.cpp $(pkg-config --cflags --libs ostrakernel) -o wavinfo
#include <ostra/ostra.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

namespace {

std::string utf8(const KAWCHAR* text) {
  const int n = KaText_WideToMultiByte(KA_CP_UTF8, 0, text, -1, nullptr, 0);
  std::string s(n > 0 ? size_t(n) : 0, '\0');
  if (n > 0) KaText_WideToMultiByte(KA_CP_UTF8, 0, text, -1, s.data(), n);
  if (!s.empty()) s.pop_back();  // the terminator
  return s;
}

int fail(HRESULT hr, const char* path) {
  KAWCHAR* text = KaErrorHandler_ComposeErrorText(0, hr, nullptr);
  std::fprintf(stderr, "wavinfo: %s: %s\n", path, text ? utf8(text).c_str() : "error");
  KaErrorHandler_FreeErrorText(text);
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: wavinfo FILE\n");
    return 2;
  }
  const char* path = argv[1];
  KAHFILE file = KA_INVALID_HFILE;
  HRESULT hr = KaFile_OpenUtf8(path, GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, 0, &file);
  if (FAILED(hr)) return fail(hr, path);

  alignas(8) unsigned char buffer[KAWAVEFORMAT_BUFFER_SIZE] = {};
  auto* format = reinterpret_cast<_kawaveformat*>(buffer);
  tKAAUDIODATA data{};
  hr = KaGetFileWfx(file, format, sizeof buffer);
  if (SUCCEEDED(hr)) hr = KaGetFileAudioData(file, &data);
  const KASAMPLETYPE type = format->SampleType;
  const int bytes = KaAudio_BytesFromSampleType(type);
  const KAAUDIO_COPYFUNCTION toFloat = KaAudio_GetCopyFunction2(KASAMPLE_FLOAT32, type);
  if (SUCCEEDED(hr) && (bytes <= 0 || !toFloat)) hr = KAERR_UNSUPPORTED_FORMAT;
  if (FAILED(hr)) {
    KaFile_Close(file);
    return fail(hr, path);
  }
  const unsigned channels = format->nChannels;
  const uint64_t frames = data.size / (uint64_t(bytes) * channels);
  KAWCHAR typeText[64] = {};
  KaAudio_GetSampleTypeText(type, typeText, 64);
  std::printf("%s: %u Hz, %u channels, %s, %llu frames (%.3f s)\n", path,
              unsigned(format->nSamplesPerSec), channels, utf8(typeText).c_str(),
              (unsigned long long)frames, double(frames) / format->nSamplesPerSec);

  // The first block, at most a second, converted to float for the peaks.
  const uint64_t block = std::min<uint64_t>(frames, format->nSamplesPerSec);
  std::vector<unsigned char> raw(size_t(block * bytes * channels));
  std::vector<float> samples(size_t(block * channels));
  DWORD got = 0;
  hr = KaFile_Seek(file, INT64(data.offset), FILE_BEGIN, nullptr);
  if (SUCCEEDED(hr)) hr = KaFile_Read(file, raw.data(), DWORD(raw.size()), &got);
  KaFile_Close(file);
  if (SUCCEEDED(hr) && got != raw.size()) hr = KAERR_READ_FAILED;
  if (FAILED(hr)) return fail(hr, path);
  toFloat(samples.data(), raw.data(), int32_t(samples.size()), 1.0f);
  for (unsigned c = 0; c < channels; ++c) {
    float peak = 0;
    for (uint64_t i = 0; i < block; ++i)
      peak = std::max(peak, std::fabs(samples[i * channels + c]));
    std::printf("  channel %u: peak %.1f dBFS in the first %llu frames\n", c + 1,
                peak > 0 ? 20 * std::log10(peak) : -INFINITY, (unsigned long long)block);
  }
  return 0;
}
