// The protected stream: windows that must lie inside the inner stream, reads and seeks
// that never leave the window whatever the offsets, whole-or-nothing writes, revocation
// shared by clones and releasing the inner stream, and readers on several threads while
// the host revokes.
#include <gtest/gtest.h>

#include <cstdint>
#include <latch>
#include <thread>
#include <vector>

#include "ostra/kaerror.h"
#include "ostra/kafileio.h"
#include "ostra/kaplatform.h"
#include "support/test_support.h"

namespace {

constexpr HRESULT kInvalidFunction = HRESULT(0x80030001u);
constexpr HRESULT kAccessDenied = HRESULT(0x80030005u);

// A memory stream holding the bytes 0, 1, ..., 99.
IStream* hundred() {
  std::vector<uint8_t> b(100);
  for (size_t i = 0; i < b.size(); ++i) b[i] = uint8_t(i);
  IStream* s = nullptr;
  EXPECT_EQ(KaFio_CreateMemStream(b.data(), b.size(), &s), S_OK);
  return s;
}

TEST(ProtectedStream, WindowMustLieInsideTheInnerStream) {
  IStream* inner = hundred();
  const struct {
    UINT64 offset, length;
    DWORD flags;
    HRESULT hr;
    UINT64 windowLength;
  } cases[] = {
      {0, KAFIO_PROTECT_TO_END, 0, S_OK, 100},
      {100, KAFIO_PROTECT_TO_END, 0, S_OK, 0},
      {10, 90, KAFIO_PROTECT_WRITE, S_OK, 90},
      {101, KAFIO_PROTECT_TO_END, 0, E_INVALIDARG, 0},
      {10, 91, 0, E_INVALIDARG, 0},
      {UINT64_MAX, 1, 0, E_INVALIDARG, 0},
      {1, UINT64_MAX - 1, 0, E_INVALIDARG, 0},  // offset + length wraps around
      {0, 10, 2, E_INVALIDARG, 0},              // an unknown flag
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.offset << "+" << c.length);
    IKaProtectedStream* p = nullptr;
    ASSERT_EQ(KaFio_CreateProtectedStream(inner, c.offset, c.length, c.flags, &p), c.hr);
    if (FAILED(c.hr)) {
      EXPECT_EQ(p, nullptr);
      continue;
    }
    UINT64 offset = 0, length = 0;
    DWORD flags = 9;
    ASSERT_EQ(p->GetWindow(&offset, &length, &flags), S_OK);
    EXPECT_EQ(offset, c.offset);
    EXPECT_EQ(length, c.windowLength);
    EXPECT_EQ(flags, c.flags);
    KASTATSTG st{};
    ASSERT_EQ(p->Stat(&st, 1), S_OK);
    EXPECT_EQ(st.size, c.windowLength);
    p->Release();
  }
  IKaProtectedStream* p = nullptr;
  EXPECT_EQ(KaFio_CreateProtectedStream(nullptr, 0, 0, 0, &p), E_POINTER);
  EXPECT_EQ(inner->Release(), 0u);  // no failed creation kept a reference
}

TEST(ProtectedStream, ReadsAndSeeksStayInsideTheWindow) {
  IStream* inner = hundred();
  IKaProtectedStream* p = nullptr;
  ASSERT_EQ(KaFio_CreateProtectedStream(inner, 10, 20, 0, &p), S_OK);
  const struct {
    INT64 move;
    DWORD origin;
    HRESULT seekHr;
    ULONG want;
    HRESULT readHr;
    ULONG got;
    int first;  // first byte read; the window starts at inner byte 10
  } cases[] = {
      {0, STREAM_SEEK_SET, S_OK, 5, S_OK, 5, 10},
      {3, STREAM_SEEK_CUR, S_OK, 2, S_OK, 2, 18},
      {-2, STREAM_SEEK_END, S_OK, 5, S_FALSE, 2, 28},
      {15, STREAM_SEEK_SET, S_OK, 0xFFFFFFFFu, S_FALSE, 5, 25},
      {0, STREAM_SEEK_END, S_OK, 4, S_FALSE, 0, -1},
      {INT64_MAX, STREAM_SEEK_SET, S_OK, 4, S_FALSE, 0, -1},
      {1, STREAM_SEEK_CUR, kInvalidFunction, 0, S_OK, 0, -1},  // past what a position holds
      {-21, STREAM_SEEK_END, kInvalidFunction, 0, S_OK, 0, -1},
      {INT64_MIN, STREAM_SEEK_CUR, kInvalidFunction, 0, S_OK, 0, -1},
      {0, 7, kInvalidFunction, 0, S_OK, 0, -1},
  };
  std::vector<uint8_t> buf(64, 0xEE);
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.move << " from " << c.origin);
    ASSERT_EQ(p->Seek(c.move, c.origin, nullptr), c.seekHr);
    if (FAILED(c.seekHr)) continue;
    ULONG got = 99;
    // A huge request into a small buffer is safe only because the window ends first.
    ASSERT_EQ(p->Read(buf.data(), c.want, &got), c.readHr);
    EXPECT_EQ(got, c.got);
    for (ULONG i = 0; i < got; ++i) EXPECT_EQ(buf[i], c.first + int(i));
  }
  EXPECT_EQ(p->Release(), 0u);
  EXPECT_EQ(inner->Release(), 0u);
}

TEST(ProtectedStream, WritesGoInWholeOrNotAtAll) {
  IStream* inner = hundred();
  IKaProtectedStream* rw = nullptr;
  IKaProtectedStream* ro = nullptr;
  ASSERT_EQ(KaFio_CreateProtectedStream(inner, 10, 20, KAFIO_PROTECT_WRITE, &rw), S_OK);
  ASSERT_EQ(KaFio_CreateProtectedStream(inner, 10, 20, 0, &ro), S_OK);
  const uint8_t x[4] = {0xA0, 0xA1, 0xA2, 0xA3};
  const struct {
    IKaProtectedStream* s;
    UINT64 at;
    ULONG bytes;
    HRESULT hr;
  } cases[] = {
      {rw, 18, 2, S_OK},           // inner bytes 28 and 29
      {rw, 19, 2, kAccessDenied},  // would cross the end: nothing written
      {rw, 20, 0, S_OK},          {rw, UINT64(INT64_MAX), 1, kAccessDenied},
      {ro, 0, 1, kAccessDenied},
  };
  for (const auto& c : cases) {
    ASSERT_EQ(c.s->Seek(INT64(c.at), STREAM_SEEK_SET, nullptr), S_OK);
    ULONG put = 99;
    EXPECT_EQ(c.s->Write(x, c.bytes, &put), c.hr) << c.at << "+" << c.bytes;
    EXPECT_EQ(put, SUCCEEDED(c.hr) ? c.bytes : 0u);
  }
  EXPECT_EQ(rw->SetSize(5), kAccessDenied);
  EXPECT_EQ(ro->SetSize(5), kAccessDenied);

  std::vector<uint8_t> all(101);
  ULONG got = 0;
  ASSERT_EQ(inner->Seek(0, STREAM_SEEK_SET, nullptr), S_OK);
  ASSERT_EQ(inner->Read(all.data(), 101, &got), S_FALSE);
  ASSERT_EQ(got, 100u);  // the inner stream did not grow
  for (int i = 0; i < 100; ++i) {
    const int want = i == 28 ? 0xA0 : i == 29 ? 0xA1 : i;
    EXPECT_EQ(all[i], want) << "inner byte " << i;
  }
  rw->Release();
  ro->Release();
  EXPECT_EQ(inner->Release(), 0u);
}

TEST(ProtectedStream, RevokingClosesEveryCloneAndReleasesTheInnerStream) {
  ostra::test::TempDir dir;
  ostra::test::writeFile(dir.file("media.bin"), std::vector<uint8_t>(64, 7));
  IStream* inner = nullptr;
  ASSERT_EQ(KaFio_CreateFileStream(ostra::test::u16(dir.file("media.bin")).c_str(), FALSE, &inner),
            S_OK);
  IKaProtectedStream* p = nullptr;
  ASSERT_EQ(KaFio_CreateProtectedStream(inner, 8, 16, 0, &p), S_OK);
  KASTATSTG st{};
  ASSERT_EQ(p->Stat(&st, 0), S_OK);  // the inner stream's name, the window's size
  ASSERT_NE(st.name, nullptr);
  EXPECT_EQ(std::u16string(st.name), ostra::test::u16(dir.file("media.bin")));
  EXPECT_EQ(st.size, 16u);
  KaGlobalFreePtr(st.name);

  ASSERT_EQ(p->Seek(4, STREAM_SEEK_SET, nullptr), S_OK);
  IStream* clone = nullptr;
  ASSERT_EQ(p->Clone(&clone), S_OK);
  IKaProtectedStream* asProtected = nullptr;
  ASSERT_EQ(clone->QueryInterface(IID_IKaProtectedStream, reinterpret_cast<void**>(&asProtected)),
            S_OK);
  UINT64 pos = 0;
  ASSERT_EQ(clone->Seek(0, STREAM_SEEK_CUR, &pos), S_OK);
  EXPECT_EQ(pos, 4u);  // a clone starts where its stream stands

  ASSERT_EQ(asProtected->Revoke(), S_OK);  // through the clone: the whole grant goes
  EXPECT_EQ(p->Revoke(), S_FALSE);
  EXPECT_EQ(inner->Release(), 0u);  // the host's was the last reference left

  uint8_t b[4];
  ULONG n = 0;
  IStream* more = nullptr;
  UINT64 u = 0;
  for (IStream* s : {static_cast<IStream*>(p), clone}) {
    EXPECT_EQ(s->Read(b, 4, &n), KAERR_CLOSED);
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(s->Write(b, 1, &n), KAERR_CLOSED);
    EXPECT_EQ(s->Seek(0, STREAM_SEEK_SET, &u), KAERR_CLOSED);
    EXPECT_EQ(s->SetSize(0), KAERR_CLOSED);
    EXPECT_EQ(s->Stat(&st, 1), KAERR_CLOSED);
    EXPECT_EQ(s->Clone(&more), KAERR_CLOSED);
    EXPECT_EQ(more, nullptr);
    EXPECT_EQ(s->Commit(0), KAERR_CLOSED);
  }
  EXPECT_EQ(p->GetWindow(&u, &u, nullptr), KAERR_CLOSED);
  asProtected->Release();
  clone->Release();
  EXPECT_EQ(p->Release(), 0u);
}

// Readers on four threads, each with its own clone, see only the window's bytes until the
// host revokes; then every one of them is refused.
TEST(ProtectedStream, ThreadsReadUntilTheHostRevokes) {
  IStream* inner = hundred();
  IKaProtectedStream* p = nullptr;
  ASSERT_EQ(KaFio_CreateProtectedStream(inner, 40, 30, 0, &p), S_OK);
  constexpr int kThreads = 4;
  std::latch readOnce(kThreads);
  std::vector<int> wrong(kThreads), closed(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    IStream* mine = nullptr;
    ASSERT_EQ(p->Clone(&mine), S_OK);
    threads.emplace_back([&, t, mine] {
      bool first = true;
      for (;;) {
        uint8_t b[7];
        ULONG got = 0;
        const HRESULT hr = mine->Read(b, sizeof b, &got);
        if (hr == KAERR_CLOSED) break;
        if (FAILED(hr)) ++wrong[t];
        UINT64 pos = 0;
        if (mine->Seek(0, STREAM_SEEK_CUR, &pos) == KAERR_CLOSED) break;
        // The bytes read end where the pointer now stands: window byte k is inner byte 40 + k.
        for (ULONG i = 0; i < got; ++i)
          if (b[i] != uint8_t(40 + pos - got + i)) ++wrong[t];
        if (got < sizeof b && mine->Seek(0, STREAM_SEEK_SET, nullptr) == KAERR_CLOSED) break;
        if (first) readOnce.count_down();
        first = false;
      }
      closed[t] = 1;
      mine->Release();
    });
  }
  readOnce.wait();
  ASSERT_EQ(p->Revoke(), S_OK);
  for (auto& th : threads) th.join();
  for (int t = 0; t < kThreads; ++t) {
    EXPECT_EQ(wrong[t], 0) << "thread " << t;
    EXPECT_EQ(closed[t], 1) << "thread " << t;
  }
  EXPECT_EQ(inner->Release(), 0u);
  p->Release();
}

}  // namespace
