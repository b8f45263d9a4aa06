// The channel and shared memory the surrogate uses: messages arrive whole and in order
// however they are split, a receive that waits too long says so, a peer that goes is seen
// as closed (not as a hang), and both ends of shared memory see the same bytes.
#include <gtest/gtest.h>

#include <cstring>
#include <numeric>
#include <thread>
#include <vector>

#include "ostra/kaerror.h"
#include "ostra/kaipc.h"

namespace {

struct Pair {
  KAHIPC a = nullptr, b = nullptr;
  Pair() {
    char name[KAIPC_NAME_CHARS];
    KAHIPCLISTEN l = nullptr;
    EXPECT_EQ(KaIpc_Listen(name, sizeof name, &l), S_OK);
    std::thread peer([&] { EXPECT_EQ(KaIpc_Connect(name, &b), S_OK); });
    EXPECT_EQ(KaIpc_Accept(l, 10000, &a), S_OK);
    peer.join();
    KaIpc_CloseListener(l);
  }
  ~Pair() {
    KaIpc_Close(a);
    KaIpc_Close(b);
  }
};

TEST(Ipc, MessagesArriveWholeTimeOutsAndClosedPeersAreTold) {
  Pair p;
  ASSERT_NE(p.a, nullptr);
  ASSERT_NE(p.b, nullptr);
  // 3 MiB sent in one call (more than a socket buffer holds), received in odd pieces by
  // another thread.
  std::vector<uint8_t> out(3u << 20), in(out.size());
  std::iota(out.begin(), out.end(), uint8_t(7));
  std::thread reader([&] {
    size_t at = 0;
    for (size_t piece = 1; at < in.size(); piece = piece * 3 + 1) {
      const size_t n = std::min(piece, in.size() - at);
      ASSERT_EQ(KaIpc_Receive(p.b, in.data() + at, DWORD(n), 10000), S_OK);
      at += n;
    }
  });
  ASSERT_EQ(KaIpc_Send(p.a, out.data(), DWORD(out.size())), S_OK);
  reader.join();
  EXPECT_EQ(in, out);

  // Nothing sent: the receive gives up after its time (0 ms polls).
  uint32_t word = 0;
  EXPECT_EQ(KaIpc_Receive(p.b, &word, 4, 0), KAERR_TIMEOUT);
  EXPECT_EQ(KaIpc_Receive(p.b, &word, 4, 50), KAERR_TIMEOUT);
  // Half a message, then the peer goes: closed, not a time-out.
  ASSERT_EQ(KaIpc_Send(p.a, "ab", 2), S_OK);
  KaIpc_Close(p.a);
  p.a = nullptr;
  EXPECT_EQ(KaIpc_Receive(p.b, &word, 4, INFINITE), KAERR_CLOSED);
  HRESULT hr = S_OK;  // the first write may still be taken into the socket's buffer
  for (int i = 0; i < 3 && hr == S_OK; ++i) hr = KaIpc_Send(p.b, out.data(), DWORD(out.size()));
  EXPECT_EQ(hr, KAERR_CLOSED);
  // Bad arguments and unknown names.
  KAHIPC c = nullptr;
  EXPECT_TRUE(FAILED(KaIpc_Connect("ostra-no-such-channel", &c)));
  EXPECT_EQ(c, nullptr);
  EXPECT_EQ(KaIpc_Receive(nullptr, &word, 4, 0), E_POINTER);
}

TEST(Ipc, SharedMemoryIsSharedAndGoesWithItsCreator) {
  char name[KAIPC_NAME_CHARS];
  KAHSHARED a = nullptr, b = nullptr;
  ASSERT_EQ(KaShared_Create(1u << 20, name, sizeof name, &a), S_OK);
  ASSERT_EQ(KaShared_Open(name, 1u << 20, &b), S_OK);
  EXPECT_EQ(KaShared_Size(b), 1u << 20);
  auto* pa = static_cast<uint8_t*>(KaShared_Pointer(a));
  auto* pb = static_cast<uint8_t*>(KaShared_Pointer(b));
  ASSERT_NE(pa, pb);
  pa[0] = 0x5A;
  pa[(1u << 20) - 1] = 0xA5;
  EXPECT_EQ(pb[0], 0x5A);
  EXPECT_EQ(pb[(1u << 20) - 1], 0xA5);
  std::memset(pb, 1, 16);
  EXPECT_EQ(pa[15], 1);
  KaShared_Close(b);
  KaShared_Close(a);
  // The creator's close removed the name.
  EXPECT_TRUE(FAILED(KaShared_Open(name, 1u << 20, &b)));
  EXPECT_EQ(KaShared_Create(0, name, sizeof name, &a), E_INVALIDARG);
  EXPECT_EQ(KaShared_Create(16, name, 8, &a), E_INVALIDARG);  // the name would not fit
}

}  // namespace
