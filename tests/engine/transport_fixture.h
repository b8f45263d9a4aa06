// Shared set-up of the transport tests: a manual clock, the simulated engine, and a
// recorder of the client callback's messages that tests wait on (never on sleeps).
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <vector>

#include "engine/internal/sim_engine.h"
#include "engine/internal/transport_impl.h"
#include "ostra/kakernel.h"
#include "ostra/kaplatform.h"
#include "ostra/kathread.h"
#include "ostra/transport.h"

namespace ostra::test {

struct Message {
  unsigned message;
  INT64 position[2];
  LONG reason;
  DWORD thread;
};

class Recorder {
 public:
  using Hook = std::function<HRESULT(IKATransport*, const Message&)>;
  // The hook runs on the callback's thread, outside the recorder's lock.
  void setHook(Hook h) {
    std::lock_guard lk(lock_);
    hook_ = std::move(h);
  }

  static HRESULT callback(IKATransport* t, unsigned message, DWORD*, UINT64 context,
                          INT64* position, LONG reason) {
    auto* self = reinterpret_cast<Recorder*>(context);
    Message m{message, {-1, -1}, reason, KaGetCurrentThreadId()};
    if (position) {
      m.position[0] = position[0];
      if (message == KATM_SYNCPOSITION) m.position[1] = position[1];
    }
    Hook hook;
    {
      std::lock_guard lk(self->lock_);
      self->log_.push_back(m);
      hook = self->hook_;
    }
    self->changed_.notify_all();
    return hook ? hook(t, m) : S_OK;
  }
  UINT64 context() { return reinterpret_cast<UINT64>(this); }

  size_t count(unsigned message) {
    std::lock_guard lk(lock_);
    size_t n = 0;
    for (const Message& m : log_) n += m.message == message;
    return n;
  }
  // Waits (generously) until `n` messages of the kind have arrived; returns the last.
  bool waitFor(unsigned message, size_t n, Message* last = nullptr) {
    std::unique_lock lk(lock_);
    const bool ok = changed_.wait_for(lk, std::chrono::seconds(20), [&] {
      size_t c = 0;
      for (const Message& m : log_) c += m.message == message;
      return c >= n;
    });
    if (ok && last)
      for (const Message& m : log_)
        if (m.message == message) *last = m;
    return ok;
  }

 private:
  std::mutex lock_;
  std::condition_variable changed_;
  std::vector<Message> log_;
  Hook hook_;
};

// Polls a condition that other threads make true, with a generous limit. Used only for
// progress of free-running threads (worker wakes), never to time anything.
template <class F>
bool eventually(F condition) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > limit) return false;
    KaSleep(1);
  }
  return true;
}

class TransportTest : public ::testing::Test {
 protected:
  void SetUp() override {
    handlesBefore_ = KaHandle_LiveCount();
    engine::setDefaultTimeSource(&clock);
    sim = new engine::SimulatedEngine(&clock);
    ASSERT_EQ(S_OK, KaAudio_CreateTransport(&t));
  }
  void TearDown() override {
    if (t) {
      t->Close();
      EXPECT_EQ(0u, t->Release());
    }
    sim->Release();
    engine::setDefaultTimeSource(nullptr);
    EXPECT_EQ(handlesBefore_, KaHandle_LiveCount()) << "a handle leaked";
  }
  HRESULT open(DWORD openFlags = 0, bool withEngine = true) {
    DWORD resolution = 4;
    const HRESULT r = t->Open(&resolution, 20, openFlags, 0, &Recorder::callback, rec.context(),
                              nullptr, nullptr);
    if (withEngine && SUCCEEDED(r)) t->SetPlayEngine(sim);
    return r;
  }
  DWORD status() {
    DWORD s = 0;
    t->GetStatus(&s);
    return s;
  }
  INT64 position() {
    INT64 p = -1;
    t->GetPosition(&p, nullptr, 0);
    return p;
  }
  INT64 metric(DWORD id) {
    INT64 v = -1;
    t->GetMetric(id, &v);
    return v;
  }
  // Lets the worker run `n` more rounds.
  bool workerRounds(int n) {
    const INT64 base = metric(KATRANSPORT_METRIC_WORKER_WAKES);
    return eventually([&] { return metric(KATRANSPORT_METRIC_WORKER_WAKES) >= base + n; });
  }

  engine::ManualTimeSource clock;
  engine::SimulatedEngine* sim = nullptr;
  IKATransport* t = nullptr;
  Recorder rec;

 private:
  UINT64 handlesBefore_ = 0;
};

}  // namespace ostra::test
