// The process harness of kr_bench_bus: the memory shared between the
// orchestrating parent and the processes it forks into roles (servers,
// requesters, publishers, subscribers), the gate that starts them all at
// once, and the clock.
//
// Every role is a forked child of the benchmark (fork without exec: the
// parent never touches libkr's loop or libdbus, so the children start
// clean). A child reports "set up" by incrementing Shared::ready, waits on
// the Gate, and then measures only what happens inside the window
// [startNs, endNs] that the parent wrote before opening the gate. Its
// results go to its own Slot; the parent reads them after the child ended.
//
// Children die with the parent (PR_SET_PDEATHSIG), so an aborted run leaves
// no process behind.
#pragma once

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

namespace busbench {

// The payload on both sides: a u32 and a 32-byte string.
inline const std::string kPayload = "kr-bus-benchmark-payload-32bytes";
static_assert(sizeof("kr-bus-benchmark-payload-32bytes") == 33);

// Notification flow control, the same window for kr and D-Bus: the
// publisher may have this many notifications unacknowledged; the
// subscriber gives back half of it at a time.
constexpr unsigned int kWindow = 256;
constexpr unsigned int kAckEvery = kWindow / 2;

// CLOCK_MONOTONIC in ns, the same clock in every process.
inline int64_t nowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// One child's results. Latencies in ns, as many as fit; `done` counts
// everything completed inside the window, recorded or not; `messages` the
// bus messages that carried it (notifications: objects may share one).
struct Slot {
  static constexpr uint32_t kMaxSamples = 1u << 20;
  std::atomic<uint64_t> done{0};
  std::atomic<uint64_t> messages{0};
  std::atomic<uint64_t> errors{0};
  std::atomic<uint64_t> samples{0};
  uint32_t latencyNs[kMaxSamples];

  void record(int64_t ns) {
    const uint64_t i = samples.load(std::memory_order_relaxed);
    if (i < kMaxSamples) {
      latencyNs[i] = ns > int64_t(UINT32_MAX) ? UINT32_MAX : uint32_t(ns);
      samples.store(i + 1, std::memory_order_relaxed);
    }
  }
  void reset() {
    done = 0;
    messages = 0;
    errors = 0;
    samples = 0;
  }
};

// A MAP_SHARED anonymous mapping, created once by the parent before any
// fork; only the pages a run touches are ever committed.
struct Shared {
  static constexpr int kSlots = 9;
  std::atomic<int> ready{0};
  std::atomic<int64_t> startNs{0};
  std::atomic<int64_t> endNs{0};
  Slot slots[kSlots];

  bool inWindow(int64_t t) const {
    return t >= startNs.load(std::memory_order_relaxed) && t <= endNs.load(std::memory_order_relaxed);
  }
  bool over(int64_t t) const { return t >= endNs.load(std::memory_order_relaxed); }
};

// Opens once for everybody: the parent closes the write end and every
// child blocked in wait() sees end of file at the same moment. Each child
// closes its inherited copy of the write end first (spawn() does).
class Gate {
 public:
  Gate() {
    int fd[2];
    if (pipe2(fd, O_CLOEXEC) == 0) {
      rd_ = fd[0];
      wr_ = fd[1];
    }
  }
  ~Gate() {
    if (rd_ >= 0) close(rd_);
    open();
  }
  Gate(const Gate&) = delete;
  Gate& operator=(const Gate&) = delete;

  bool valid() const { return rd_ >= 0; }
  int writeEnd() const { return wr_; }
  void open() {
    if (wr_ >= 0) close(wr_);
    wr_ = -1;
  }
  void wait() const {
    char c;
    while (read(rd_, &c, 1) < 0 && errno == EINTR) {
    }
  }

 private:
  int rd_ = -1, wr_ = -1;
};

// Forks a child that runs `body` and exits with its result. `closeFd`
// (unless -1) is closed in the child first: the gate's write end.
inline pid_t spawn(const std::function<int()>& body, int closeFd) {
  std::fflush(stdout);
  std::fflush(stderr);
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid != 0) return pid;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(1);
  if (closeFd >= 0) close(closeFd);
  // _exit: the parent's atexit work and stdio buffers are not the child's.
  _exit(body());
}

// VmRSS of `pid` in KiB, or -1.
inline long residentKiB(pid_t pid, const char* field = "VmRSS:") {
  char path[64];
  std::snprintf(path, sizeof path, "/proc/%d/status", int(pid));
  FILE* f = std::fopen(path, "r");
  if (!f) return -1;
  char line[256];
  long kib = -1;
  const size_t n = std::char_traits<char>::length(field);
  while (std::fgets(line, sizeof line, f)) {
    if (std::string(line).compare(0, n, field) == 0) {
      kib = std::strtol(line + n, nullptr, 10);
      break;
    }
  }
  std::fclose(f);
  return kib;
}

// CPU time used so far by every thread of `pid`, in ns (the first field of
// each /proc/<pid>/task/<tid>/schedstat); -1 when the process is gone.
inline int64_t cpuNs(pid_t pid) {
  char dir[64];
  std::snprintf(dir, sizeof dir, "/proc/%d/task", int(pid));
  std::error_code ec;
  int64_t total = 0;
  bool any = false;
  for (const auto& task : std::filesystem::directory_iterator(dir, ec)) {
    std::ifstream f(task.path() / "schedstat");
    long long ns = 0;
    if (f >> ns) {
      total += ns;
      any = true;
    }
  }
  return any ? total : -1;
}

}  // namespace busbench
