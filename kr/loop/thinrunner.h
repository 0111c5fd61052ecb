// kr::ThinRunner: the single-threaded event loop under every process, and
// kr::Timer, the owning handle of a one-shot timer.
//
// One poll() per turn over every registered descriptor, one-shot timers in
// a binary min-heap keyed by their expiry tick (see kr/loop/clock.h), and
// before-sleep hooks that run once per turn. kr::Runner (kr/loop/runner.h)
// adds signals; a daemon has exactly one runner, returned by kr::getRunner().
//
//   kr::Runner loop;
//   loop.addSocket(fd, POLLIN, kr::bind<&Conn::onIo>(&conn));
//   kr::Timer retry(500, [&] { reconnect(); });   // in 5 s; cancelled with `retry`
//   loop.run();
//
// Event-loop thread only; nothing is locked. Callbacks may add and remove
// sockets, timers and hooks, their own included: a socket callback that
// removes its descriptor (or another ready one) is safe, and a callback
// object stays alive until its call returns even if its registration goes.
#pragma once

#include <poll.h>

#include <cstdint>
#include <map>
#include <vector>

#include "kr/loop/clock.h"
#include "kr/loop/function.h"

namespace kr {

class Runner;
class ThinRunner;

struct TimerPtr;

class ThinRunner {
 public:
  using SocketCallback = function<void(int fd, unsigned int revents)>;
  using Callback = function<void()>;

  struct SockInfo {
    int fd = -1;
    SocketCallback cb;
    unsigned int index = 0;  // slot in the poll array and in sockInfos
  };

  // One timer, owned by the runner.
  struct TimerInfo {
    Callback cb;  // empty: cancelled while outside the heap
    // Absolute expiry tick; for a delayed timer not yet armed, the timeout.
    unsigned int expires = 0;
    unsigned int heapIndex = kNotInHeap;
    // The kr::Timer handle's pointer word, cleared when the timer leaves
    // the heap, so a fired kr::Timer knows it is empty.
    TimerInfo** owner = nullptr;

    static constexpr unsigned int kNotInHeap = 0xFFFFFFFF;
  };

  ThinRunner();
  ThinRunner(const ThinRunner&) = delete;
  ThinRunner& operator=(const ThinRunner&) = delete;
  virtual ~ThinRunner();

  // ---- Descriptors ----------------------------------------------------------
  // Registers fd for the poll events `events`; cb(fd, revents) runs after a
  // poll that found it ready. A descriptor registered already keeps its
  // first callback, and a warning is printed. The runner never closes fds.
  void addSocket(int fd, unsigned int events, SocketCallback cb);
  // Replaces the event mask; false for an unknown fd.
  bool changeSocket(int fd, unsigned int events);
  // Unregisters fd, handing its callback to *out when out is not null (so it
  // can be registered again later); false for an unknown fd.
  bool removeSocket(int fd, SocketCallback* out = nullptr);

  // ---- Timers -----------------------------------------------------------------
  // A one-shot timer `ticks` from now (timeouts above kMaxTimeout are cut to
  // it, with a warning). A timer added by a firing timer never fires in the
  // same pass, even with 0 ticks.
  TimerPtr addTimer(unsigned int ticks, Callback cb);
  // A timer whose countdown starts when the loop next arms delayed timers:
  // at the start of the next turn or the end of the current timer pass.
  TimerPtr addDelayedTimer(unsigned int ticks, Callback cb);
  void addDelayedTimers();
  // Cancels a timer that has not fired; false for a null pointer.
  bool removeTimer(TimerPtr p);
  // Takes a timer out of the heap without calling or freeing it.
  void removeTimer(TimerInfo* t);
  // Cancels the first pending timer whose callback equals f (see
  // kr::function for equality); false when there is none.
  bool removeTimer(const Callback& f);
  // The heap's sift: puts t into the hole at `index`.
  void placeTimerInHeap(TimerInfo* t, unsigned int index, unsigned int now);

  // ---- Before-sleep hooks -------------------------------------------------------
  // Hooks run once per turn, before the poll. A hook added during the pass
  // waits for the next turn; the calling order alternates between turns.
  void addBeforeSleep(Callback f);
  // Removes every registration of f, also of hooks still to run this turn.
  void removeBeforeSleep(const Callback& f);

  // ---- Running ------------------------------------------------------------------
  // The poll timeout in milliseconds for the turn starting at `now`:
  // 0xFFFFFFFF (none) without timers, 0 when one is due, else the time to
  // the next one, at most 10 s.
  virtual unsigned int sleepTime(unsigned int now);
  // One turn: hooks, delayed timers, poll (blocking only with `block`),
  // timers, ready descriptors. False once the runner is stopped.
  bool step(bool block);
  virtual void run();
  // Fires every timer that is due now.
  void runTimers();
  // Waits as a turn would, handling nothing.
  void presleep();
  // Drops every registration: timers, descriptors (not closed) and hooks.
  // Does not stop the loop.
  virtual void shutdown();

  // ---- Introspection (tests, diagnostics) -----------------------------------------
  size_t socketCount() const { return socks_.size(); }
  size_t timerCount() const;  // armed, deferred and delayed
  size_t hookCount() const;
  bool isStopped() const { return stopped; }

 protected:
  // Once set, step() and run() return at once. Derived classes set it.
  bool stopped = false;

 private:
  struct Hook {
    Callback fn;
    Hook* next;
  };

  void insertTimer(TimerInfo* t, unsigned int now);
  void dispatchSockets(int ready);
  static void freeHooks(Hook*& list);

  std::map<int, SockInfo> socks_;
  std::vector<pollfd> pollFds_;
  std::vector<SockInfo*> sockInfos_;
  bool inTimers_ = false;
  unsigned int heapNow_ = 0;
  unsigned int timersNow_ = 0;
  std::vector<TimerInfo*> heap_;
  std::vector<TimerInfo*> addedDuringRun_;
  std::vector<TimerInfo*> delayed_;
  Hook* beforeSleep_ = nullptr;
  Hook* beforeSleepRunning_ = nullptr;
};

// A plain reference to an armed timer, as addTimer returns it. It becomes
// invalid once the timer has fired, and nothing tells it: to cancel later,
// hold a kr::Timer or cancel by callback.
struct TimerPtr {
  ThinRunner::TimerInfo* timer = nullptr;
  explicit operator bool() const { return timer != nullptr; }
};

// The process's runner (the kr::Runner it constructed), or null.
Runner* getRunner();

// The owning handle of one timer in the process's runner: destroying or
// reassigning it cancels the timer. When the timer fires the handle becomes
// empty before the callback runs, so the callback may re-arm it by
// assigning a new kr::Timer.
class Timer {
 public:
  Timer() = default;
  Timer(unsigned int ticks, ThinRunner::Callback cb);
  Timer(Timer&& o) noexcept;
  Timer& operator=(Timer&& o) noexcept;
  ~Timer();
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

  // Whether the timer is armed (not yet fired or cancelled).
  bool active() const { return timer_ != nullptr; }
  void cancel();

 private:
  ThinRunner::TimerInfo* timer_ = nullptr;
};

}  // namespace kr
