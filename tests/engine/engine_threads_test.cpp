// The output callback path allocates nothing, and the host can play, seek, change the rate
// and stop while the engine's disk thread and a paced output run (the ThreadSanitizer job
// runs this suite).
#include <atomic>
#include <new>

#include "engine/internal/play_engine.h"
#include "engine_fixture.h"
#include "transport_fixture.h"

namespace {
thread_local bool tCounting = false;
std::atomic<long> gCountedAllocations{0};

// Every allocation of the process goes through here; those on a thread that counts are
// counted.
void* countedAlloc(size_t n) noexcept {
  if (tCounting) gCountedAllocations.fetch_add(1);
  return std::malloc(n ? n : 1);
}
}  // namespace

void* operator new(size_t n) {
  if (void* p = countedAlloc(n)) return p;
  throw std::bad_alloc();
}
void* operator new[](size_t n) {
  if (void* p = countedAlloc(n)) return p;
  throw std::bad_alloc();
}
void* operator new(size_t n, const std::nothrow_t&) noexcept { return countedAlloc(n); }
void* operator new[](size_t n, const std::nothrow_t&) noexcept { return countedAlloc(n); }
// GCC pairs the replaced operator new with free only by name; the pairing is right.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete[](void* p, size_t) noexcept { std::free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }
#pragma GCC diagnostic pop

namespace ostra::test {
namespace {

constexpr DWORD kRate = 48000;

struct Counting {
  Counting() { tCounting = true; }
  ~Counting() { tCounting = false; }
};

TEST(EngineCallback, RendersWithoutAllocating) {
  TempDir dir;
  const WaveData a = noise(2, kRate, 5000, 21), m = noise(1, kRate, 3000, 22);
  writeWav16(dir.file("a.wav"), a);
  writeWav16(dir.file("m.wav"), m);
  EngineUnderTest e(
      {{&a, dir.file("a.wav"), 0, 0, -1, 1.0f}, {&m, dir.file("m.wav"), 700, 100, -1, 0.5f}}, 256);
  ASSERT_EQ(S_OK, e.session->SetOutput("null:manual"));
  ASSERT_EQ(S_OK, e.session->SetLoop(1000, 900, 0xFFFFFFFFu));
  {
    Counting c;
    void* probe = ::operator new(16);  // the counter itself works
    ::operator delete(probe);
  }
  ASSERT_EQ(1, gCountedAllocations.exchange(0));

  std::vector<float> buf(256 * 2);
  float loudest = 0.0f;
  const double rates[] = {1.0, 2.0, -1.0, 0.5};
  ASSERT_EQ(S_OK, e.play->Start(0, 0, ticksOf(5000, kRate)));
  for (double rate : rates) {
    ASSERT_EQ(S_OK, e.play->SetRate(rate));
    for (int block = 0; block < 40; ++block) {
      ASSERT_EQ(S_OK, e.session->WaitBuffered(256, 20000));
      Counting c;
      e.session->Pump(buf.data(), 256);
      for (float v : buf) loudest = std::max(loudest, std::fabs(v));
    }
  }
  EXPECT_EQ(0, gCountedAllocations.load());
  EXPECT_GT(loudest, 0.5f);  // it did play
  EXPECT_GT(e.info().loopPasses, 0u);
}

class EngineUnderTransport : public ::testing::Test {
 protected:
  void SetUp() override {
    a = noise(2, kRate, 4 * kRate, 31);
    writeWav16(dir.file("a.wav"), a);
  }
  TempDir dir;
  WaveData a;
  Recorder rec;
};

TEST_F(EngineUnderTransport, HostRequestsRaceTheDiskThreadAndTheOutputSafely) {
  EngineUnderTest e({{&a, dir.file("a.wav"), 0, 0, -1, 1.0f}}, 128);
  ASSERT_EQ(S_OK, e.session->SetOutput("null"));  // paced by the system clock
  IKATransport* t = nullptr;
  ASSERT_EQ(S_OK, KaAudio_CreateTransport(&t));
  DWORD resolution = 4;
  ASSERT_EQ(S_OK,
            t->Open(&resolution, 20, 0, 0, &Recorder::callback, rec.context(), nullptr, nullptr));
  ASSERT_EQ(S_OK, t->SetPlayEngine(e.play));
  ASSERT_EQ(S_OK, t->SetLength(ticksOf(4 * kRate, kRate)));
  constexpr DWORD kFlags = 0x20000000u;
  const double rates[] = {1.0, 2.0, -1.0, 0.75};
  const int runs = 12;
  for (int i = 0; i < runs; ++i) {
    ASSERT_EQ(S_OK, t->Start(kFlags, ticksOf((i * 7919) % (3 * kRate), kRate)));
    const INT64 out = e.info().framesOut;
    ASSERT_TRUE(eventually([&] { return e.info().framesOut > out; }));  // the output runs
    ASSERT_EQ(S_OK, t->Seek(0, ticksOf((i * 104729) % (3 * kRate), kRate), -1, 1, nullptr));
    t->SetRate(rates[i % 4], 0);
    INT64 pos = -1;
    t->GetPosition(&pos, nullptr, 0);
    EXPECT_GE(pos, 0);
    ASSERT_EQ(S_OK, t->StopPlay(kFlags));
    ASSERT_TRUE(rec.waitFor(KATM_STOPPED, size_t(i + 1)));
  }
  t->SetRate(1.0, 0);
  EXPECT_EQ(size_t(runs), rec.count(KATM_STARTED));
  t->Close();
  t->Release();
}

}  // namespace
}  // namespace ostra::test
