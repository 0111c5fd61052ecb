// kr::ThinRunner against libuv and libevent, in the same run, on the same
// work: arming and cancelling timers, firing timers, and ping-pong over a
// socketpair (alone, and among 1000 idle descriptors). At the end a table
// prints the time per operation side by side with the ratios.
//
// Every scenario drives each loop through its own public API, in the way a
// daemon would use it:
//   kr        kr::ThinRunner (no process-wide kr::Runner), callbacks bound
//             with kr::bind, so that no callback storage is allocated;
//   libuv     uv_timer_t / uv_poll_t handles owned by the caller (libuv has
//             no other kind), initialised once outside the timed part;
//   libevent  event_new / event_free, the allocating API its documentation
//             recommends, epoll backend (the default on Linux).
// Descriptors are created, registered and closed outside the timed part.
// Each benchmark checks afterwards that its loop holds nothing any more
// (no timers, no descriptors, no handles) and that every callback ran as
// often as it should; a failed check aborts the run.
#include <benchmark/benchmark.h>
#include <event2/event.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <uv.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "bench/median_reporter.h"
#include "kr/loop/thinrunner.h"

namespace {

constexpr int kTimers = 100000;            // timers per iteration in (a) and (b)
constexpr long kTrips = 100000;            // round trips per iteration in (c)
constexpr int kIdle = 1000;                // idle descriptors in (d)
constexpr long kIdleTrips = 2000;          // round trips per iteration in (d)
constexpr int kPingPongIterations = 4;     // x 3 repetitions: 1.2M round trips in (c)
constexpr int kIdleIterations = 2;         // x 3 repetitions: 12k round trips in (d)

[[noreturn]] void die(const char* what) {
  std::fprintf(stderr, "kr_bench_loop: %s\n", what);
  std::abort();
}
void check(bool ok, const char* what) {
  if (!ok) die(what);
}

// Various timeouts for (a), the same durations for everybody: 10 ms .. 60 s,
// spread so that the heaps see inserts all over, not only at one end. kr
// counts in ticks of 10 ms, libuv in ms, libevent in timevals.
unsigned int timeoutTicks(int i) { return 1 + static_cast<unsigned int>(i) * 7919u % 6000u; }

// Counts callback calls.
struct Counter {
  long fired = 0;
  void fire() { ++fired; }
};

// ---- (a) timers added, then cancelled ------------------------------------------------------
// One iteration arms kTimers one-shot timers, then cancels all of them in
// the order they were armed. Nothing fires.

void TimersCancelKr(benchmark::State& st) {
  kr::ThinRunner loop;
  Counter c;
  std::vector<kr::TimerPtr> timers(kTimers);
  for (auto _ : st) {
    for (int i = 0; i < kTimers; ++i) timers[i] = loop.addTimer(timeoutTicks(i), kr::bind<&Counter::fire>(&c));
    for (int i = 0; i < kTimers; ++i) loop.removeTimer(timers[i]);
  }
  check(c.fired == 0 && loop.timerCount() == 0, "kr: a cancelled timer fired or stayed");
  st.counters["ops"] = kTimers;
}

void onUvTimer(uv_timer_t* t) { static_cast<Counter*>(t->data)->fire(); }

// A fresh libuv loop with every timer of `timers` initialised on it, each
// counting into c.
void initUvTimers(uv_loop_t& loop, std::vector<uv_timer_t>& timers, Counter& c) {
  check(uv_loop_init(&loop) == 0, "uv_loop_init failed");
  for (uv_timer_t& t : timers) {
    uv_timer_init(&loop, &t);
    t.data = &c;
  }
}

void TimersCancelUv(benchmark::State& st) {
  uv_loop_t loop;
  Counter c;
  std::vector<uv_timer_t> timers(kTimers);
  initUvTimers(loop, timers, c);
  for (auto _ : st) {
    for (int i = 0; i < kTimers; ++i) uv_timer_start(&timers[i], onUvTimer, timeoutTicks(i) * 10, 0);
    for (int i = 0; i < kTimers; ++i) uv_timer_stop(&timers[i]);
  }
  for (uv_timer_t& t : timers) uv_close(reinterpret_cast<uv_handle_t*>(&t), nullptr);
  uv_run(&loop, UV_RUN_DEFAULT);
  check(c.fired == 0 && uv_loop_close(&loop) == 0, "libuv: a cancelled timer fired or stayed");
  st.counters["ops"] = kTimers;
}

void onEvTimer(evutil_socket_t, short, void* arg) { static_cast<Counter*>(arg)->fire(); }

void TimersCancelEv(benchmark::State& st) {
  event_base* base = event_base_new();
  check(base != nullptr, "event_base_new failed");
  Counter c;
  std::vector<event*> timers(kTimers);
  std::vector<timeval> tv(kTimers);
  for (int i = 0; i < kTimers; ++i) {
    const unsigned int ms = timeoutTicks(i) * 10;
    tv[i] = {static_cast<time_t>(ms / 1000), static_cast<suseconds_t>(ms % 1000 * 1000)};
  }
  for (auto _ : st) {
    for (int i = 0; i < kTimers; ++i) {
      timers[i] = evtimer_new(base, onEvTimer, &c);
      evtimer_add(timers[i], &tv[i]);
    }
    for (int i = 0; i < kTimers; ++i) event_free(timers[i]);  // deletes, then frees
  }
  check(c.fired == 0 && event_base_get_num_events(base, EVENT_BASE_COUNT_ADDED) == 0,
        "libevent: a cancelled timer fired or stayed");
  event_base_free(base);
  st.counters["ops"] = kTimers;
}

// ---- (b) timers added and fired -----------------------------------------------------------
// One iteration arms kTimers one-shot timers and runs the loop without
// blocking until every one has fired.
//
// All timeouts are 0, for all three. kr's clock counts 10 ms ticks, so any
// other timeout would make kr sleep at least 10 ms while libuv and libevent,
// counting in ms or finer, would sleep less: the comparison would measure
// the clocks' resolutions. kr::TestClock could move kr's time without
// sleeping, but the peers have no such clock, and they would then still
// have to sleep. With timeout 0 every loop does the same work and nobody
// sleeps: insert into the heap, find the timers due, take each out,
// call it, free it (kr frees its timer record, libevent its event, libuv
// only marks its handle inactive: the handle belongs to the caller).

void TimersFireKr(benchmark::State& st) {
  kr::ThinRunner loop;
  Counter c;
  long turns = 0;
  for (auto _ : st) {
    c.fired = 0;
    for (int i = 0; i < kTimers; ++i) loop.addTimer(0, kr::bind<&Counter::fire>(&c));
    while (c.fired < kTimers) {
      loop.step(false);
      ++turns;
    }
  }
  check(c.fired == kTimers && loop.timerCount() == 0, "kr: a timer did not fire or fired twice");
  st.counters["ops"] = kTimers;
  st.counters["turns"] = benchmark::Counter(double(turns), benchmark::Counter::kAvgIterations);
}

void TimersFireUv(benchmark::State& st) {
  uv_loop_t loop;
  Counter c;
  std::vector<uv_timer_t> timers(kTimers);
  initUvTimers(loop, timers, c);
  long turns = 0;
  for (auto _ : st) {
    c.fired = 0;
    for (int i = 0; i < kTimers; ++i) uv_timer_start(&timers[i], onUvTimer, 0, 0);
    while (c.fired < kTimers) {
      uv_run(&loop, UV_RUN_NOWAIT);
      ++turns;
    }
  }
  for (uv_timer_t& t : timers) uv_close(reinterpret_cast<uv_handle_t*>(&t), nullptr);
  uv_run(&loop, UV_RUN_DEFAULT);
  check(c.fired == kTimers && uv_loop_close(&loop) == 0, "libuv: a timer did not fire or stayed");
  st.counters["ops"] = kTimers;
  st.counters["turns"] = benchmark::Counter(double(turns), benchmark::Counter::kAvgIterations);
}

// The event frees itself once fired, as kr frees its timer record.
Counter g_evFired;
void onEvTimerFree(evutil_socket_t, short, void* self) {
  g_evFired.fire();
  event_free(static_cast<event*>(self));
}

void TimersFireEv(benchmark::State& st) {
  event_base* base = event_base_new();
  check(base != nullptr, "event_base_new failed");
  const timeval zero{0, 0};
  long turns = 0;
  for (auto _ : st) {
    g_evFired.fired = 0;
    for (int i = 0; i < kTimers; ++i) evtimer_add(evtimer_new(base, onEvTimerFree, event_self_cbarg()), &zero);
    while (g_evFired.fired < kTimers) {
      event_base_loop(base, EVLOOP_NONBLOCK);
      ++turns;
    }
  }
  check(g_evFired.fired == kTimers && event_base_get_num_events(base, EVENT_BASE_COUNT_ADDED) == 0,
        "libevent: a timer did not fire or stayed");
  event_base_free(base);
  st.counters["ops"] = kTimers;
  st.counters["turns"] = benchmark::Counter(double(turns), benchmark::Counter::kAvgIterations);
}

// ---- (c), (d) ping-pong over a socketpair -------------------------------------------------------
// Two watchers in one loop, one on each end of a socketpair: A writes one
// byte, B reads it and writes it back, A reads it (one round trip) and
// writes again, until `target` round trips. Each round trip is two turns
// of the loop (two polls), two reads and two writes, whatever the loop.
// With `idle` > 0 the loop also watches that many descriptors for reading,
// one end each of socketpairs that never carry data.

struct Pair {
  int fd[2] = {-1, -1};
  Pair() {
    check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fd) == 0, "socketpair failed");
  }
  ~Pair() {
    close(fd[0]);
    close(fd[1]);
  }
  Pair(const Pair&) = delete;
  Pair& operator=(const Pair&) = delete;
};

struct PingPong {
  Pair pair;
  long trips = 0, target = 0, errors = 0;
  int a() const { return pair.fd[0]; }
  int b() const { return pair.fd[1]; }

  void start(long n) {
    trips = 0;
    target = n;
    send(a());
  }
  bool done() const { return trips >= target; }
  void onA() {
    if (!receive(a())) return;
    if (++trips < target) send(a());
  }
  void onB() {
    if (receive(b())) send(b());
  }

  // The same callbacks in each loop's signature.
  void krA(int, unsigned int) { onA(); }
  void krB(int, unsigned int) { onB(); }
  static void uvA(uv_poll_t* h, int, int) { static_cast<PingPong*>(h->data)->onA(); }
  static void uvB(uv_poll_t* h, int, int) { static_cast<PingPong*>(h->data)->onB(); }
  static void evA(evutil_socket_t, short, void* p) { static_cast<PingPong*>(p)->onA(); }
  static void evB(evutil_socket_t, short, void* p) { static_cast<PingPong*>(p)->onB(); }

 private:
  bool receive(int fd) {
    char c;
    if (read(fd, &c, 1) == 1) return true;
    ++errors;
    return false;
  }
  void send(int fd) {
    const char c = 'x';
    if (write(fd, &c, 1) != 1) ++errors;
  }
};

// An idle descriptor never becomes ready; a call is an error.
long g_idleCalls = 0;
void krIdle(int, unsigned int) { ++g_idleCalls; }
void uvIdle(uv_poll_t*, int, int) { ++g_idleCalls; }
void evIdle(evutil_socket_t, short, void*) { ++g_idleCalls; }

// The timed part, the same for every loop: one round of `trips` round
// trips, driven one turn at a time (kr: step(true); libuv: UV_RUN_ONCE;
// libevent: EVLOOP_ONCE, all blocking until something is ready). A short
// round first, untimed, lets every loop finish its lazy registration work.
template <class Turn>
void pingPong(benchmark::State& st, PingPong& pp, long trips, Turn turn) {
  pp.start(1);
  while (!pp.done()) turn();
  for (auto _ : st) {
    pp.start(trips);
    while (!pp.done()) turn();
  }
  check(pp.errors == 0 && g_idleCalls == 0, "ping-pong: a read or write failed, or an idle watcher ran");
  st.counters["ops"] = double(trips);
}

void PingPongKr(benchmark::State& st, int idle, long trips) {
  std::vector<Pair> idlePairs(idle);
  PingPong pp;
  {
    kr::ThinRunner loop;
    for (Pair& p : idlePairs) loop.addSocket(p.fd[0], POLLIN, &krIdle);
    loop.addSocket(pp.a(), POLLIN, kr::bind<&PingPong::krA>(&pp));
    loop.addSocket(pp.b(), POLLIN, kr::bind<&PingPong::krB>(&pp));
    pingPong(st, pp, trips, [&] { loop.step(true); });
    for (Pair& p : idlePairs) loop.removeSocket(p.fd[0]);
    loop.removeSocket(pp.a());
    loop.removeSocket(pp.b());
    check(loop.socketCount() == 0 && loop.timerCount() == 0, "kr: a descriptor or timer stayed");
  }
}

void PingPongUv(benchmark::State& st, int idle, long trips) {
  std::vector<Pair> idlePairs(idle);
  PingPong pp;
  uv_loop_t loop;
  check(uv_loop_init(&loop) == 0, "uv_loop_init failed");
  std::vector<uv_poll_t> idles(idle);
  for (int i = 0; i < idle; ++i) {
    uv_poll_init(&loop, &idles[i], idlePairs[i].fd[0]);
    uv_poll_start(&idles[i], UV_READABLE, uvIdle);
  }
  uv_poll_t a, b;
  uv_poll_init(&loop, &a, pp.a());
  uv_poll_init(&loop, &b, pp.b());
  a.data = b.data = &pp;
  uv_poll_start(&a, UV_READABLE, PingPong::uvA);
  uv_poll_start(&b, UV_READABLE, PingPong::uvB);
  pingPong(st, pp, trips, [&] { uv_run(&loop, UV_RUN_ONCE); });
  // Handles are closed before their descriptors, as libuv requires.
  for (uv_poll_t& h : idles) uv_close(reinterpret_cast<uv_handle_t*>(&h), nullptr);
  uv_close(reinterpret_cast<uv_handle_t*>(&a), nullptr);
  uv_close(reinterpret_cast<uv_handle_t*>(&b), nullptr);
  uv_run(&loop, UV_RUN_DEFAULT);
  check(uv_loop_close(&loop) == 0, "libuv: a handle stayed");
}

void PingPongEv(benchmark::State& st, int idle, long trips) {
  std::vector<Pair> idlePairs(idle);
  PingPong pp;
  event_base* base = event_base_new();
  check(base != nullptr, "event_base_new failed");
  std::vector<event*> evs;
  for (Pair& p : idlePairs) evs.push_back(event_new(base, p.fd[0], EV_READ | EV_PERSIST, evIdle, nullptr));
  evs.push_back(event_new(base, pp.a(), EV_READ | EV_PERSIST, PingPong::evA, &pp));
  evs.push_back(event_new(base, pp.b(), EV_READ | EV_PERSIST, PingPong::evB, &pp));
  for (event* e : evs) event_add(e, nullptr);
  pingPong(st, pp, trips, [&] { event_base_loop(base, EVLOOP_ONCE); });
  for (event* e : evs) event_free(e);
  check(event_base_get_num_events(base, EVENT_BASE_COUNT_ADDED) == 0, "libevent: an event stayed");
  event_base_free(base);
}

// ---- Ratio table ---------------------------------------------------------------------------------
// Prints the console output as usual and keeps the time per operation of
// each run (the median when repeated) for a side-by-side table at the end.
class RatioReporter : public MedianReporter {
 public:
  void keep(const std::string& name, const Run& r) override {
    const double ops = counter(r, "ops", 0);
    if (ops > 0) perOpNs_[name] = realNs(r) / ops;
  }

  void Finalize() override {
    ConsoleReporter::Finalize();
    auto ns = [&](const std::string& n) { return perOpNs_.count(n) ? perOpNs_[n] : 0.0; };
    struct Row {
      const char *name, *label, *note;
    };
    const Row rows[] = {
        {"timers_cancel", "(a) add+cancel, per timer", ""},
        {"timers_fire", "(b) add+fire, per timer", ""},
        {"pingpong", "(c) ping-pong, per round trip", ""},
        {"pingpong_idle1000", "(d) 1 active + 1000 idle, per trip",
         "  expected loss: kr runs one poll() over all 1002 descriptors per turn, the peers epoll"},
    };
    std::printf("\n%-36s %9s %9s %11s %9s %12s\n", "scenario", "kr ns", "libuv ns", "libevent ns", "libuv/kr",
                "libevent/kr");
    for (const Row& row : rows) {
      const std::string n = row.name;
      const double k = ns(n + "/kr"), u = ns(n + "/libuv"), e = ns(n + "/libevent");
      if (k <= 0) continue;
      std::printf("%-36s %9.1f %9.1f %11.1f %9.2f %12.2f%s\n", row.label, k, u, e, u / k, e / k, row.note);
    }
    std::printf("ratio > 1: kr is faster. (a), (b): %d timers per iteration; (c): %ld, (d): %ld round trips "
                "per iteration.\n",
                kTimers, kTrips, kIdleTrips);
  }

 private:
  std::map<std::string, double> perOpNs_;
};

// (d) needs 2 * 1000 + 2 descriptors; lift the soft limit to the hard one.
void raiseDescriptorLimit() {
  rlimit rl;
  if (getrlimit(RLIMIT_NOFILE, &rl) != 0) return;
  rl.rlim_cur = rl.rlim_max;
  setrlimit(RLIMIT_NOFILE, &rl);
  check(getrlimit(RLIMIT_NOFILE, &rl) == 0 && rl.rlim_cur >= 2 * kIdle + 64,
        "too few descriptors allowed for 1000 idle socketpairs (ulimit -n)");
}

}  // namespace

int main(int argc, char** argv) {
  raiseDescriptorLimit();
  // Wall-clock time everywhere: the ping-pong spends most of it in the kernel.
  auto timers = [](const char* name, void (*fn)(benchmark::State&)) {
    benchmark::RegisterBenchmark(name, fn)->UseRealTime()->Unit(benchmark::kMillisecond);
  };
  timers("timers_cancel/kr", TimersCancelKr);
  timers("timers_cancel/libuv", TimersCancelUv);
  timers("timers_cancel/libevent", TimersCancelEv);
  timers("timers_fire/kr", TimersFireKr);
  timers("timers_fire/libuv", TimersFireUv);
  timers("timers_fire/libevent", TimersFireEv);
  // Fixed iteration counts: with three repetitions (c) makes 1.2M round
  // trips per loop; (d) fewer, as kr's turn grows with the descriptors.
  auto pingPong = [](const char* name, void (*fn)(benchmark::State&, int, long), int idle, long trips,
                     int iterations) {
    benchmark::RegisterBenchmark(name, fn, idle, trips)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond)
        ->Iterations(iterations);
  };
  pingPong("pingpong/kr", PingPongKr, 0, kTrips, kPingPongIterations);
  pingPong("pingpong/libuv", PingPongUv, 0, kTrips, kPingPongIterations);
  pingPong("pingpong/libevent", PingPongEv, 0, kTrips, kPingPongIterations);
  pingPong("pingpong_idle1000/kr", PingPongKr, kIdle, kIdleTrips, kIdleIterations);
  pingPong("pingpong_idle1000/libuv", PingPongUv, kIdle, kIdleTrips, kIdleIterations);
  pingPong("pingpong_idle1000/libevent", PingPongEv, kIdle, kIdleTrips, kIdleIterations);

  return runBenchmarks<RatioReporter>(argc, argv);
}
