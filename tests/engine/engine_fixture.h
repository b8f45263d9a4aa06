// Shared set-up of the play engine tests: 16-bit wave files written byte by byte (not
// through the code under test), the float wave files the engine renders read back, and
// the mix a session must produce, worked out sample by sample.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "ostra/kaengine.h"
#include "ostra/kawave.h"
#include "support/test_support.h"

namespace ostra::test {

struct WaveData {
  WORD channels = 0;
  DWORD rate = 0;
  std::vector<int16_t> samples;  // interleaved
  INT64 frames() const { return channels ? INT64(samples.size() / channels) : 0; }
};

inline void put32(std::vector<uint8_t>& b, uint32_t v) {
  for (int i = 0; i < 4; ++i) b.push_back(uint8_t(v >> (8 * i)));
}
inline void put16(std::vector<uint8_t>& b, uint16_t v) {
  b.push_back(uint8_t(v));
  b.push_back(uint8_t(v >> 8));
}

// A canonical 44-byte-header PCM wave file.
inline void writeWav16(const std::string& path, const WaveData& w) {
  std::vector<uint8_t> b;
  const uint32_t data = uint32_t(w.samples.size() * 2);
  b.insert(b.end(), {'R', 'I', 'F', 'F'});
  put32(b, 36 + data);
  b.insert(b.end(), {'W', 'A', 'V', 'E', 'f', 'm', 't', ' '});
  put32(b, 16);
  put16(b, 1);
  put16(b, w.channels);
  put32(b, w.rate);
  put32(b, w.rate * w.channels * 2);
  put16(b, uint16_t(w.channels * 2));
  put16(b, 16);
  b.insert(b.end(), {'d', 'a', 't', 'a'});
  put32(b, data);
  for (int16_t s : w.samples) put16(b, uint16_t(s));
  writeFile(path, b);
}

// Random full-scale samples (the extremes included).
inline WaveData noise(WORD channels, DWORD rate, INT64 frames, unsigned seed) {
  WaveData w{channels, rate, {}};
  std::mt19937 gen(seed);
  std::uniform_int_distribution<int> d(-32768, 32767);
  w.samples.resize(size_t(frames) * channels);
  for (auto& s : w.samples) s = int16_t(d(gen));
  if (!w.samples.empty()) {
    w.samples[0] = -32768;
    w.samples.back() = 32767;
  }
  return w;
}

// The samples of a float (or 16-bit) wave file the engine wrote, as floats.
inline std::vector<float> readFloatWave(const std::string& path, WORD* channels = nullptr) {
  const std::u16string p = u16(path);
  alignas(8) BYTE buf[KAWAVEFORMAT_BUFFER_SIZE] = {};
  auto* wf = reinterpret_cast<_kawaveformat*>(buf);
  tKAAUDIODATA data{};
  if (FAILED(KaGetFileWfx(p.c_str(), wf, sizeof buf)) ||
      FAILED(KaGetFileAudioData(p.c_str(), &data)))
    return {};
  if (channels) *channels = wf->nChannels;
  const std::vector<uint8_t> bytes = readFile(path);
  std::vector<float> out;
  const size_t n = size_t(data.size) / wf->BytesPerSample();
  out.resize(n);
  if (wf->SampleType == KASAMPLE_FLOAT32) {
    std::memcpy(out.data(), bytes.data() + data.offset, n * 4);
  } else if (wf->SampleType == KASAMPLE_PCM16) {
    for (size_t i = 0; i < n; ++i) {
      const int16_t s = int16_t(bytes[data.offset + 2 * i] | bytes[data.offset + 2 * i + 1] << 8);
      out[i] = float(s) / 32768.0f;
    }
  }
  return out;
}

struct TestClip {
  const WaveData* wave;
  std::string path;
  INT64 start, inPoint, length;
  float gain;
};

// What timeline frame t of the session sounds like on channel c.
inline float expectedSample(const std::vector<TestClip>& clips, INT64 t, WORD c) {
  float sum = 0.0f;
  for (const TestClip& k : clips) {
    const INT64 len = k.length < 0 ? k.wave->frames() - k.inPoint : k.length;
    if (t < k.start || t >= k.start + len) continue;
    const INT64 f = k.inPoint + (t - k.start);
    const WORD ch = k.wave->channels == 1 ? 0 : c;
    sum += float(k.wave->samples[size_t(f) * k.wave->channels + ch]) / 32768.0f * k.gain;
  }
  return sum;
}

// Timeline frames in the order a run plays them, as a list of [from, to) spans.
inline std::vector<float> expectedSpans(const std::vector<TestClip>& clips, WORD channels,
                                        const std::vector<std::pair<INT64, INT64>>& spans) {
  std::vector<float> out;
  for (auto [a, b] : spans)
    for (INT64 t = a; t < b; ++t)
      for (WORD c = 0; c < channels; ++c) out.push_back(expectedSample(clips, t, c));
  return out;
}

inline INT64 ticksOf(INT64 frames, DWORD rate) { return std::llround(double(frames) * 1e7 / rate); }

// An engine holding the clips, with its IKAPlayEngine.
struct EngineUnderTest {
  IKAEngineSession* session = nullptr;
  IKAPlayEngine* play = nullptr;
  explicit EngineUnderTest(const std::vector<TestClip>& clips, DWORD blockFrames = 256) {
    KAENGINECONFIG cfg{sizeof cfg, 0, 0, 0, blockFrames, 8};
    if (FAILED(KaEngine_Create(&cfg, &session))) return;
    session->QueryInterface(IID_IKAPlayEngine, reinterpret_cast<void**>(&play));
    for (const TestClip& k : clips) {
      const std::u16string p = u16(k.path);
      KAENGINECLIP c{sizeof c, p.c_str(), k.start, k.inPoint, k.length, k.gain};
      EXPECT_EQ(S_OK, session->AddClip(&c)) << k.path;
    }
  }
  ~EngineUnderTest() {
    if (play) play->Release();
    if (session) {
      EXPECT_EQ(0u, session->Release());
    }
  }
  KAENGINEINFO info() {
    KAENGINEINFO i{};
    i.size = sizeof i;
    session->GetInfo(&i);
    return i;
  }
};

}  // namespace ostra::test
