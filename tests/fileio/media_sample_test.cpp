// The media sample: capacities, the fields a reader sets and their refusals, formats whose
// own size fields disagree with the bytes handed over, and the deferred zero fill.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "ostra/kafileio.h"

namespace {

struct Sample {
  IKAMediaSample* s = nullptr;
  explicit Sample(DWORD capacity) { EXPECT_EQ(KaFio_CreateMediaSample(capacity, &s), S_OK); }
  ~Sample() {
    if (s) {
      EXPECT_EQ(s->Release(), 0u);
    }
  }
};

TEST(MediaSample, CapacityAlignmentAndZeroedBytes) {
  const struct {
    DWORD capacity;
    HRESULT hr;
  } cases[] = {{0, S_OK},
               {1, S_OK},
               {4099, S_OK},
               {KAMS_MAX_BYTES + 1, E_INVALIDARG},
               {0xFFFFFFFFu, E_INVALIDARG}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.capacity);
    IKAMediaSample* s = reinterpret_cast<IKAMediaSample*>(1);
    ASSERT_EQ(KaFio_CreateMediaSample(c.capacity, &s), c.hr);
    if (FAILED(c.hr)) {
      EXPECT_EQ(s, nullptr);
      continue;
    }
    DWORD size = 0;
    BYTE* p = nullptr;
    ASSERT_EQ(s->GetSize(&size), S_OK);
    EXPECT_EQ(size, c.capacity);
    ASSERT_EQ(s->GetPointer(&p), S_OK);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 64, 0u);
    EXPECT_EQ(std::vector<BYTE>(p, p + c.capacity), std::vector<BYTE>(c.capacity, 0));
    EXPECT_EQ(s->Release(), 0u);
  }
  EXPECT_EQ(KaFio_CreateMediaSample(16, nullptr), E_POINTER);
}

TEST(MediaSample, FieldsRefuseWhatCannotBe) {
  Sample m(256);
  IKAMediaSample* s = m.s;
  const INT64 t0 = 1000, t1 = 2000, before = 999;
  INT64 a = -1, b = -1;
  EXPECT_EQ(s->GetTime(&a, &b), S_FALSE);  // not set
  EXPECT_EQ(a, 0);
  EXPECT_EQ(b, 0);

  EXPECT_EQ(s->SetTime(&t0, &t1), S_OK);
  EXPECT_EQ(s->SetTime(&t0, &before), E_INVALIDARG);  // ends before it starts
  EXPECT_EQ(s->SetTime(&t0, nullptr), E_POINTER);
  ASSERT_EQ(s->GetTime(&a, &b), S_OK);  // the refusals left the times alone
  EXPECT_EQ(a, t0);
  EXPECT_EQ(b, t1);
  EXPECT_EQ(s->GetMediaTime(&a, &b), S_FALSE);  // a separate pair
  EXPECT_EQ(s->SetMediaTime(&t1, &t1), S_OK);   // one instant is a valid span
  EXPECT_EQ(s->SetTime(nullptr, nullptr), S_OK);
  EXPECT_EQ(s->GetTime(&a, &b), S_FALSE);
  ASSERT_EQ(s->GetMediaTime(&a, &b), S_OK);
  EXPECT_EQ(a, t1);

  DWORD v = 0;
  EXPECT_EQ(s->SetActualDataLength(256), S_OK);
  EXPECT_EQ(s->SetActualDataLength(257), E_INVALIDARG);
  ASSERT_EQ(s->GetActualDataLength(&v), S_OK);
  EXPECT_EQ(v, 256u);
  EXPECT_EQ(s->SetFlags(KAMS_SYNCPOINT | KAMS_PREROLL), S_OK);
  EXPECT_EQ(s->SetFlags(KAMS_DISCONTINUITY | 0x100), E_INVALIDARG);
  ASSERT_EQ(s->GetFlags(&v), S_OK);
  EXPECT_EQ(v, KAMS_SYNCPOINT | KAMS_PREROLL);
}

TEST(MediaSample, FormatSizeFieldsMustFitTheBytesGiven) {
  _kawaveformat wfx{};
  wfx.Init(48000, KASAMPLE_PCM24, 2, 0, sizeof wfx);
  std::vector<BYTE> audio(sizeof wfx);
  std::memcpy(audio.data(), &wfx, sizeof wfx);
  auto withSize = [](std::vector<BYTE> bytes, DWORD size) {
    std::memcpy(bytes.data(), &size, 4);
    return bytes;
  };
  BITMAPINFOHEADER bih{};
  bih.biSize = sizeof bih;
  bih.biWidth = 64;
  bih.biHeight = 32;
  bih.biBitCount = 32;
  std::vector<BYTE> video(sizeof bih + 12, 0x5A);  // header and three colour masks
  std::memcpy(video.data(), &bih, sizeof bih);

  const struct {
    const char* name;
    DWORD type;
    std::vector<BYTE> bytes;
    DWORD given;  // what the caller says it handed over
    HRESULT hr;
  } cases[] = {
      {"audio", KAFIO_STREAM_AUDIO, audio, wfx.dwSize, S_OK},
      {"audio short", KAFIO_STREAM_AUDIO, audio, 31, E_INVALIDARG},
      {"audio dwSize past the bytes", KAFIO_STREAM_AUDIO, withSize(audio, 40), 34, E_INVALIDARG},
      {"audio dwSize huge", KAFIO_STREAM_AUDIO, withSize(audio, 0xFFFFFFFFu), 40, E_INVALIDARG},
      {"audio dwSize small", KAFIO_STREAM_AUDIO, withSize(audio, 12), 40, E_INVALIDARG},
      {"video with masks", KAFIO_STREAM_VIDEO, video, DWORD(video.size()), S_OK},
      {"video biSize 39", KAFIO_STREAM_VIDEO, withSize(video, 39), 52, E_INVALIDARG},
      {"video biSize past the bytes", KAFIO_STREAM_VIDEO, withSize(video, 60), 52, E_INVALIDARG},
      {"video short", KAFIO_STREAM_VIDEO, video, 39, E_INVALIDARG},
      {"too large", KAFIO_STREAM_VIDEO, video, KAMS_MAX_FORMAT_BYTES + 1, E_INVALIDARG},
      {"text has no format", KAFIO_STREAM_TEXT, video, 52, E_INVALIDARG},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Sample m(16);
    ASSERT_EQ(m.s->SetFormat(c.type, c.bytes.data(), c.given), c.hr);
    DWORD type = 99, needed = 0;
    if (FAILED(c.hr)) {
      EXPECT_EQ(m.s->GetFormat(&type, nullptr, 0, &needed), S_FALSE);
      EXPECT_EQ(type, 0u);
      continue;
    }
    ASSERT_EQ(m.s->GetFormat(&type, nullptr, 0, &needed), S_OK);
    EXPECT_EQ(type, c.type);
    ASSERT_EQ(needed, c.given);
    std::vector<BYTE> out(needed);
    EXPECT_EQ(m.s->GetFormat(&type, out.data(), needed - 1, &needed), E_INVALIDARG);
    ASSERT_EQ(m.s->GetFormat(&type, out.data(), needed, &needed), S_OK);
    EXPECT_EQ(out, std::vector<BYTE>(c.bytes.begin(), c.bytes.begin() + c.given));
    EXPECT_EQ(m.s->SetFormat(0, nullptr, 0), S_OK);  // cleared
    EXPECT_EQ(m.s->GetFormat(&type, nullptr, 0, &needed), S_FALSE);
  }
}

TEST(MediaSample, ZerosAreOwedUntilTheBufferIsAskedFor) {
  Sample m(128);
  IDeferZeroFill* z = nullptr;
  ASSERT_EQ(m.s->QueryInterface(IID_IDeferZeroFill, reinterpret_cast<void**>(&z)), S_OK);
  IUnknown* u1 = nullptr;
  IUnknown* u2 = nullptr;
  ASSERT_EQ(m.s->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&u1)), S_OK);
  ASSERT_EQ(z->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&u2)), S_OK);
  EXPECT_EQ(u1, u2);  // one object behind both interfaces
  u1->Release();
  u2->Release();

  BYTE* p = nullptr;
  ASSERT_EQ(m.s->GetPointer(&p), S_OK);
  std::memset(p, 0xAB, 128);
  ASSERT_EQ(m.s->SetActualDataLength(128), S_OK);
  EXPECT_EQ(z->DeferZeroFill(129), E_INVALIDARG);
  BOOL deferred = TRUE;
  ASSERT_EQ(z->IsZeroFillDeferred(&deferred), S_OK);
  EXPECT_FALSE(deferred);

  ASSERT_EQ(z->DeferZeroFill(100), S_OK);
  ASSERT_EQ(z->IsZeroFillDeferred(&deferred), S_OK);
  EXPECT_TRUE(deferred);
  DWORD length = 0;
  ASSERT_EQ(m.s->GetActualDataLength(&length), S_OK);
  EXPECT_EQ(length, 100u);
  EXPECT_EQ(p[0], 0xAB);  // not written yet
  ASSERT_EQ(m.s->GetPointer(&p), S_OK);
  EXPECT_EQ(std::vector<BYTE>(p, p + 100), std::vector<BYTE>(100, 0));
  EXPECT_EQ(std::vector<BYTE>(p + 100, p + 128), std::vector<BYTE>(28, 0xAB));
  ASSERT_EQ(z->IsZeroFillDeferred(&deferred), S_OK);
  EXPECT_FALSE(deferred);
  z->Release();
}

}  // namespace
