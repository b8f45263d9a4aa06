// Channel operations, channel matrices and level measurement.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "audio_test_util.h"
#include "ostra/kaaudio.h"

namespace {

using namespace ostra::test;

struct Format {
  alignas(8) uint8_t bytes[KAWAVEFORMAT_BUFFER_SIZE];
  Format(KASAMPLETYPE t, WORD channels) { get()->Init(48000, t, channels, 0, sizeof(bytes)); }
  _kawaveformat* get() { return reinterpret_cast<_kawaveformat*>(bytes); }
};

TEST(Channels, CopyExtractInsertAndMap) {
  Format s16x3(KASAMPLE_PCM16, 3), f32x2(KASAMPLE_FLOAT32, 2), f32x1(KASAMPLE_FLOAT32, 1);
  const std::vector<int16_t> src = {16384, -16384, 8192, 32767, -32768, 0};
  std::vector<float> out(4, 9.0f);
  const int32_t map[2] = {2, -1};
  ASSERT_EQ(KaAudio_CopyChannels(f32x2.get(), out.data(), s16x3.get(), src.data(), 2, map, 2.0f),
            S_OK);
  EXPECT_EQ(out, (std::vector<float>{0.5f, 0.0f, 0.0f, 0.0f}));
  ASSERT_EQ(KaAudio_CopyChannels(f32x2.get(), out.data(), s16x3.get(), src.data(), 2, nullptr),
            S_OK);
  EXPECT_EQ(out, (std::vector<float>{0.5f, -0.5f, 32767 / 32768.0f, -1.0f}));
  const int32_t bad[2] = {3, 0};
  EXPECT_EQ(KaAudio_CopyChannels(f32x2.get(), out.data(), s16x3.get(), src.data(), 2, bad),
            E_INVALIDARG);

  std::vector<float> mono(2);
  ASSERT_EQ(KaAudio_ExtractChannel(f32x1.get(), mono.data(), s16x3.get(), src.data(), 2, 1), S_OK);
  EXPECT_EQ(mono, (std::vector<float>{-0.5f, -1.0f}));
  EXPECT_EQ(KaAudio_ExtractChannel(f32x1.get(), mono.data(), s16x3.get(), src.data(), 2, 3),
            E_INVALIDARG);

  std::vector<int16_t> dst = src;
  const std::vector<float> in = {1.0f, -0.25f};
  ASSERT_EQ(KaAudio_InsertChannel(s16x3.get(), dst.data(), 2, f32x1.get(), in.data(), 2), S_OK);
  EXPECT_EQ(dst, (std::vector<int16_t>{16384, -16384, 32767, 32767, -32768, -8192}));

  Format raw(KASAMPLE_NONE, 2);
  raw.get()->dwFlags |= KAWF_FLAG_RAW;
  EXPECT_EQ(KaAudio_MuteChannel(raw.get(), dst.data(), 1, 0), E_NOTIMPL);
  EXPECT_EQ(KaAudio_MuteChannel(nullptr, dst.data(), 1, 0), E_POINTER);
}

TEST(Channels, InPlaceOperationsPerType) {
  struct Case {
    KASAMPLETYPE type;
    std::vector<double> in;  // two channels, three frames
  } cases[] = {{KASAMPLE_PCM8, {10, -20, 30, -40, 50, -60}},
               {KASAMPLE_PCM24, {1000, -2000, 3000, -4000, 5000, -6000}},
               {KASAMPLE_MAC16, {100, -200, 300, -400, 500, -601}},
               {KASAMPLE_FLOAT64, {0.1, -0.2, 0.3, -0.4, 0.5, -0.6}}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.type);
    Format f(c.type, 2);
    const int b = KaAudio_BytesFromSampleType(c.type);
    auto fill = [&] {
      std::vector<uint8_t> buf(6 * b);
      for (size_t i = 0; i < 6; ++i) putSample(c.type, buf, i, c.in[i]);
      return buf;
    };
    auto values = [&](const std::vector<uint8_t>& buf) {
      std::vector<double> v(6);
      for (size_t i = 0; i < 6; ++i) v[i] = getSample(c.type, buf, i);
      return v;
    };
    auto buf = fill();
    ASSERT_EQ(KaAudio_Reverse(f.get(), buf.data(), 3), S_OK);
    EXPECT_EQ(values(buf),
              (std::vector<double>{c.in[4], c.in[5], c.in[2], c.in[3], c.in[0], c.in[1]}));
    buf = fill();
    ASSERT_EQ(KaAudio_SwapStereoChannels(f.get(), buf.data(), 3), S_OK);
    EXPECT_EQ(values(buf),
              (std::vector<double>{c.in[1], c.in[0], c.in[3], c.in[2], c.in[5], c.in[4]}));
    buf = fill();
    ASSERT_EQ(KaAudio_MuteChannel(f.get(), buf.data(), 3, 1), S_OK);
    EXPECT_EQ(values(buf), (std::vector<double>{c.in[0], 0, c.in[2], 0, c.in[4], 0}));
    buf = fill();
    ASSERT_EQ(KaAudio_CopyChannelToChannel(f.get(), buf.data(), 3, 0, 1), S_OK);
    EXPECT_EQ(values(buf),
              (std::vector<double>{c.in[0], c.in[0], c.in[2], c.in[2], c.in[4], c.in[4]}));
    buf = fill();
    ASSERT_EQ(KaAudio_CopyChannelToAll(f.get(), buf.data(), 3, 1), S_OK);
    EXPECT_EQ(values(buf),
              (std::vector<double>{c.in[1], c.in[1], c.in[3], c.in[3], c.in[5], c.in[5]}));
    buf = fill();
    ASSERT_EQ(KaAudio_MonoChannel(f.get(), buf.data(), 3), S_OK);
    const auto mono = values(buf);
    for (int fr = 0; fr < 3; ++fr) {
      double avg = (c.in[2 * fr] + c.in[2 * fr + 1]) / 2;
      if (!isFloat(c.type)) avg = std::nearbyint(avg);
      EXPECT_EQ(mono[2 * fr], avg);
      EXPECT_EQ(mono[2 * fr + 1], avg);
    }
    buf = fill();
    ASSERT_EQ(KaAudio_FillWithSample(f.get(), buf.data(), 3, 2.0), S_OK);  // clamps
    EXPECT_EQ(values(buf)[5], isFloat(c.type) ? 2.0 : fullScale(c.type) - 1);
  }
  Format mono(KASAMPLE_PCM16, 1);
  int16_t one = 5;
  EXPECT_EQ(KaAudio_SwapStereoChannels(mono.get(), &one, 1), E_INVALIDARG);
  std::vector<uint8_t> u8(4, 0);
  Format u8x2(KASAMPLE_PCM8, 2);
  ASSERT_EQ(KaAudio_MuteChannel(u8x2.get(), u8.data(), 2, 0), S_OK);
  EXPECT_EQ(u8, (std::vector<uint8_t>{0x80, 0, 0x80, 0}));
}

TEST(Channels, MatricesAndChannelChange) {
  Format s16x2(KASAMPLE_PCM16, 2), s16x1(KASAMPLE_PCM16, 1), f32x6(KASAMPLE_FLOAT32, 6),
      f32x2(KASAMPLE_FLOAT32, 2), f32x3(KASAMPLE_FLOAT32, 3);
  const std::vector<int16_t> stereo = {1000, 3000, -32768, -32768};
  std::vector<int16_t> mono(2);
  ASSERT_EQ(KaAudio_ChannelChange(s16x1.get(), mono.data(), s16x2.get(), stereo.data(), 2), S_OK);
  EXPECT_EQ(mono, (std::vector<int16_t>{2000, -32768}));
  std::vector<int16_t> up(4);
  ASSERT_EQ(KaAudio_ChannelChange(s16x2.get(), up.data(), s16x1.get(), mono.data(), 2), S_OK);
  EXPECT_EQ(up, (std::vector<int16_t>{2000, 2000, -32768, -32768}));

  // Six channels to two: even channels average into the left, odd into the right.
  const std::vector<float> six = {0.3f, 0.6f, 0.0f, 0.0f, 0.3f, 0.0f};
  std::vector<float> two(2);
  ASSERT_EQ(KaAudio_ChannelChange(f32x2.get(), two.data(), f32x6.get(), six.data(), 1), S_OK);
  EXPECT_FLOAT_EQ(two[0], 0.2f);
  EXPECT_FLOAT_EQ(two[1], 0.2f);
  // Two to three: the third channel is silent.
  std::vector<float> three(3, 9.0f);
  ASSERT_EQ(KaAudio_ChannelChange(f32x3.get(), three.data(), f32x2.get(), two.data(), 1), S_OK);
  EXPECT_EQ(three[2], 0.0f);

  // A matrix mix adds into what is there and saturates integers.
  std::vector<int16_t> dest = {30000, 0};
  const std::vector<int16_t> src = {16384, -16384};
  const double m[4] = {1.0, 0.0, 0.5, 0.5};
  ASSERT_EQ(KaAudio_MixEx(s16x2.get(), dest.data(), s16x2.get(), src.data(), 1, m), S_OK);
  EXPECT_EQ(dest, (std::vector<int16_t>{32767, 0}));
  Format mac(KASAMPLE_MAC16, 2);
  EXPECT_EQ(KaAudio_MixEx(mac.get(), dest.data(), s16x2.get(), src.data(), 1, m), E_NOTIMPL);
}

TEST(Channels, Levels) {
  Format f(KASAMPLE_PCM16, 2);
  const std::vector<int16_t> buf = {16384, 0, -32768, 8192, 16384, -8192, -16384, 0};
  double rms[2], peaks[2];
  DWORD at[2];
  ASSERT_EQ(KaAudio_CalcRMS(f.get(), buf.data(), 4, rms), S_OK);
  EXPECT_DOUBLE_EQ(rms[0], std::sqrt((0.25 + 1.0 + 0.25 + 0.25) / 4));
  EXPECT_DOUBLE_EQ(rms[1], std::sqrt((0.0625 + 0.0625) / 4));
  ASSERT_EQ(KaAudio_FindPeaks(f.get(), buf.data(), 4, peaks, at), S_OK);
  EXPECT_EQ(peaks[0], 1.0);
  EXPECT_EQ(at[0], 1u);
  EXPECT_EQ(peaks[1], 0.25);
  EXPECT_EQ(at[1], 1u);
  double factor = 0;
  EXPECT_EQ(KaAudio_GetNormalizeFactor(f.get(), buf.data(), 4, 0.5, &factor), S_OK);
  EXPECT_EQ(factor, 0.5);
  const std::vector<int16_t> silent(4, 0);
  EXPECT_EQ(KaAudio_GetNormalizeFactor(f.get(), silent.data(), 2, 0.5, &factor), S_FALSE);
  EXPECT_EQ(factor, 1.0);

  Format ff(KASAMPLE_FLOAT32, 1);
  const std::vector<float> withNan = {0.5f, NAN, -1.5f};
  ASSERT_EQ(KaAudio_FindPeaks(ff.get(), withNan.data(), 3, peaks, nullptr), S_OK);
  EXPECT_EQ(peaks[0], 1.5);
  ASSERT_EQ(KaAudio_CalcRMS(ff.get(), withNan.data(), 3, rms), S_OK);
  EXPECT_DOUBLE_EQ(rms[0], std::sqrt((0.25 + 2.25) / 2));
}

}  // namespace
