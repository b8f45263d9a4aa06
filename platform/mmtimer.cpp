// The multimedia-timer functions: one process-wide timer thread runs every one-shot and
// periodic timer. It asks for the round-robin real-time class once at start and records
// whether the system granted it (KaTimer_IsTimeCritical). timeKillEvent waits for a
// running callback of its timer, so that the owner may free the callback's data as soon
// as it returns; a callback that kills its own timer is not waited for.
#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

#include "ostra/transport.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Timer {
  LPTIMECALLBACK callback;
  DWORD_PTR user;
  bool periodic;
  std::chrono::milliseconds period;
  Clock::time_point due;
};

struct TimerThread {
  std::mutex lock;
  std::condition_variable changed;  // the timer set changed or a callback ended
  std::map<UINT, Timer> timers;
  std::multimap<Clock::time_point, UINT> queue;
  UINT nextId = 1;
  UINT running = 0;  // id whose callback runs now, 0 when none
  std::thread::id threadId;
  bool started = false;
  std::atomic<bool> timeCritical{false};
  std::map<UINT, unsigned> periods;  // live timeBeginPeriod requests by period

  void start() {
    if (started) return;
    std::thread t([this] { run(); });
    threadId = t.get_id();
    t.detach();  // lives for the process: timers may be set up to the last moment
    started = true;
  }

  void run() {
    sched_param p{};
    p.sched_priority = sched_get_priority_min(SCHED_RR);
    timeCritical = pthread_setschedparam(pthread_self(), SCHED_RR, &p) == 0;
    std::unique_lock lk(lock);
    for (;;) {
      if (queue.empty()) {
        changed.wait(lk);
        continue;
      }
      auto first = queue.begin();
      // A copy: the entry may be erased while the wait has the lock released.
      const Clock::time_point due = first->first;
      if (Clock::now() < due) {
        changed.wait_until(lk, due);
        continue;
      }
      const UINT id = first->second;
      queue.erase(first);
      auto it = timers.find(id);
      if (it == timers.end()) continue;
      Timer t = it->second;
      if (t.periodic) {
        // Late ticks are not piled up: the next one is a period after this one was due,
        // or after now when the thread fell more than a period behind.
        it->second.due = std::max(t.due + t.period, Clock::now());
        queue.emplace(it->second.due, id);
      } else {
        timers.erase(it);
      }
      running = id;
      lk.unlock();
      t.callback(id, 0, t.user, 0, 0);
      lk.lock();
      running = 0;
      changed.notify_all();
    }
  }
};

TimerThread& timerThread() {
  static auto* t = new TimerThread;  // never destroyed: callbacks may run during exit
  return *t;
}

}  // namespace

MMRESULT timeBeginPeriod(UINT periodMs) noexcept {
  if (periodMs < 1 || periodMs > 1000) return TIMERR_NOCANDO;
  TimerThread& t = timerThread();
  std::lock_guard lk(t.lock);
  try {
    ++t.periods[periodMs];
  } catch (...) {
    return TIMERR_NOCANDO;
  }
  return TIMERR_NOERROR;
}

MMRESULT timeEndPeriod(UINT periodMs) noexcept {
  TimerThread& t = timerThread();
  std::lock_guard lk(t.lock);
  auto it = t.periods.find(periodMs);
  if (it == t.periods.end()) return TIMERR_NOCANDO;
  if (--it->second == 0) t.periods.erase(it);
  return TIMERR_NOERROR;
}

UINT KaTimer_GetPeriod() noexcept {
  TimerThread& t = timerThread();
  std::lock_guard lk(t.lock);
  return t.periods.empty() ? 0 : t.periods.begin()->first;
}

BOOL KaTimer_IsTimeCritical() noexcept {
  TimerThread& t = timerThread();
  {
    std::lock_guard lk(t.lock);
    t.start();
  }
  return t.timeCritical.load() ? TRUE : FALSE;
}

MMRESULT timeSetEvent(UINT delayMs, UINT resolutionMs, LPTIMECALLBACK callback, DWORD_PTR user,
                      UINT flags) noexcept try {
  (void)resolutionMs;  // the thread wakes at the due time whatever the resolution
  if (!callback || delayMs == 0 || delayMs > 1000000) return 0;
  TimerThread& t = timerThread();
  std::lock_guard lk(t.lock);
  t.start();
  UINT id = t.nextId++;
  if (id == 0) id = t.nextId++;
  const auto period = std::chrono::milliseconds(delayMs);
  Timer timer{callback, user, (flags & TIME_PERIODIC) != 0, period, Clock::now() + period};
  t.timers.emplace(id, timer);
  t.queue.emplace(timer.due, id);
  t.changed.notify_all();
  return id;
} catch (...) {
  return 0;
}

MMRESULT timeKillEvent(UINT timerId) noexcept {
  TimerThread& t = timerThread();
  std::unique_lock lk(t.lock);
  auto it = t.timers.find(timerId);
  const bool wasRunning = t.running == timerId;
  if (it == t.timers.end() && !wasRunning) return MMSYSERR_INVALPARAM;
  if (it != t.timers.end()) {
    auto range = t.queue.equal_range(it->second.due);
    for (auto q = range.first; q != range.second; ++q)
      if (q->second == timerId) {
        t.queue.erase(q);
        break;
      }
    t.timers.erase(it);
  }
  if (std::this_thread::get_id() != t.threadId)
    t.changed.wait(lk, [&] { return t.running != timerId; });
  return TIMERR_NOERROR;
}
