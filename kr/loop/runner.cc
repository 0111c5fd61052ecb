#include "kr/loop/runner.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kr/loop/crash.h"

namespace kr {

Runner* Runner::runner = nullptr;

Runner* getRunner() { return Runner::runner; }

namespace {

constexpr int kSignalCount = 64;
// A siginfo record travels whole: Linux's siginfo_t is 128 bytes.
constexpr size_t kInfoBytes = 128;
static_assert(sizeof(siginfo_t) >= kInfoBytes);
// Set in a pipe word that a siginfo record follows. The reader takes the
// record's length from the word, not from the callback registered when it
// reads: that may have changed since the signal was written.
constexpr uint32_t kWithInfo = 0x10000;
// Machines with less memory (kB) than this get no alternate signal stack.
constexpr unsigned int kAltStackMinMemKb = 40000;
constexpr size_t kAltStackBytes = 8192;

// The asynchronous handler reads these; lock-free atomics are safe there.
static_assert(std::atomic<uint32_t>::is_always_lock_free);
static_assert(std::atomic<int>::is_always_lock_free);

enum CallbackKind : int { kNoCallback = 0, kPlain = 1, kWithSiginfo = 2 };

struct SignalEntry {
  std::atomic<uint32_t> mode{Runner::kSaved};
  Runner::SignalCallback handler;
  Runner::SiginfoCallback infoHandler;
  struct sigaction savedAction {};  // filled when the signal first leaves kSaved
  // Which callback is set, kept in step with the two above: the handler
  // must not look at the function objects.
  std::atomic<int> kind{kNoCallback};

  bool hasCallback() const { return handler || infoHandler; }
  void syncKind() { kind = infoHandler ? kWithSiginfo : handler ? kPlain : kNoCallback; }
};

// The self-pipe; it exists exactly while `users` (signals in kPipe) is
// above 0. The process owns it, so its destructor closes what is left.
struct SelfPipe {
  int readFd = -1;
  std::atomic<int> writeFd{-1};
  int users = 0;

  ~SelfPipe() { close(); }
  bool open() {
    int fds[2];
    if (pipe2(fds, O_NONBLOCK | O_CLOEXEC) != 0) return false;
    readFd = fds[0];
    writeFd = fds[1];
    return true;
  }
  void close() {
    // The handler sees -1 before the descriptor goes away.
    const int w = writeFd.exchange(-1);
    if (w >= 0) ::close(w);
    if (readFd >= 0) ::close(readFd);
    readFd = -1;
  }
};

SignalEntry g_signals[kSignalCount];
SelfPipe g_pipe;

bool validSignal(int sig) { return sig >= 0 && sig < kSignalCount; }

struct sigaction actionFor(Runner::RunnerSigaction mode, const struct sigaction& saved) {
  struct sigaction act {};
  sigemptyset(&act.sa_mask);
  act.sa_flags = SA_RESTART | SA_NOCLDSTOP;
  switch (mode) {
    case Runner::kIgnore:
      act.sa_handler = SIG_IGN;
      break;
    case Runner::kDefault:
      act.sa_handler = SIG_DFL;
      break;
    case Runner::kSaved:
      // Only the saved handler comes back, under the runner's flags. A
      // siginfo handler keeps SA_SIGINFO, or the kernel would call that
      // three-argument function with one argument.
      if (saved.sa_flags & SA_SIGINFO) {
        act.sa_sigaction = saved.sa_sigaction;
        act.sa_flags |= SA_SIGINFO;
      } else {
        act.sa_handler = saved.sa_handler;
      }
      break;
    case Runner::kPipe:
      act.sa_sigaction = &handleSignal;
      act.sa_flags |= SA_SIGINFO;
      break;
  }
  return act;
}

// Reads one signal off the pipe: false once it is empty (EAGAIN).
bool readSignal(int fd, int* sig, siginfo_t* info, bool* hasInfo) {
  uint32_t word;
  if (read(fd, &word, sizeof word) != sizeof word) return false;
  *sig = static_cast<int>(word & ~kWithInfo);
  *hasInfo = (word & kWithInfo) != 0;
  std::memset(info, 0, sizeof *info);
  // The record was written with its word in one write, so it is all there.
  return !*hasInfo || read(fd, info, kInfoBytes) == static_cast<ssize_t>(kInfoBytes);
}

void dispatchSignal(int sig, siginfo_t* info, bool hasInfo) {
  if (!validSignal(sig) || g_signals[sig].mode != Runner::kPipe) return;
  SignalEntry& e = g_signals[sig];
  // Copies: the callback may remove itself, which would destroy the original.
  if (e.infoHandler) {
    Runner::SiginfoCallback cb = e.infoHandler;
    // Written while only a plain callback was set: all we know is the number.
    if (!hasInfo) info->si_signo = sig;
    cb(sig, info);
  } else if (e.handler) {
    Runner::SignalCallback cb = e.handler;
    cb(sig);
  }
}

void acquirePipe(Runner* r) {
  if (g_pipe.users++ == 0) r->createPipe();
}

void releasePipe(Runner* r) {
  if (--g_pipe.users == 0) r->destroyPipe();
}

// The memory of the machine in kB, 0 when unknown.
unsigned int memTotalKb() {
  FILE* f = std::fopen("/proc/meminfo", "re");
  if (!f) return 0;
  unsigned int kb = 0;
  if (std::fscanf(f, "MemTotal: %u", &kb) != 1) kb = 0;
  std::fclose(f);
  return kb;
}

// 8192 bytes is too tight on x86-64 with AVX-512: the kernel's signal frame
// may take 3.4 KB of it, and a sanitizer build's crash handler then faults
// again mid-report. The C library's recommended size for this machine
// (13.5 KB there) fits; where that is smaller, 8192 stays.
size_t altStackBytes() {
  const long recommended = sysconf(_SC_SIGSTKSZ);
  return std::max(kAltStackBytes, recommended > 0 ? static_cast<size_t>(recommended) : size_t{0});
}

// An overflowing stack cannot run the crash handler, so it gets its own.
// One per process, kept until exit: the crash handler outlives any runner.
void installAltStack() {
  if (memTotalKb() <= kAltStackMinMemKb) return;
  static void* stack = nullptr;
  static size_t size = 0;
  if (!stack) {
    size = altStackBytes();
    stack = std::malloc(size);
    if (!stack) return;
  }
  stack_t ss{};
  ss.ss_sp = stack;
  ss.ss_size = size;
  sigaltstack(&ss, nullptr);
}

const void* pageAbove(const void* frame) {
  const auto page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
  return reinterpret_cast<const void*>((reinterpret_cast<uintptr_t>(frame) | (page - 1)) + 1);
}

void becomeTheRunner(Runner* r) {
  if (Runner::runner) {
    static const char kMessage[] = "ERROR: created more than two runners\n";
    if (write(STDERR_FILENO, kMessage, sizeof kMessage - 1) < 0) {
    }
    std::exit(1);
  }
  Runner::runner = r;
}

void resetSignals() {
  g_pipe.users = 0;
  g_pipe.close();
  for (SignalEntry& e : g_signals) {
    e.mode = Runner::kSaved;
    e.handler = nullptr;
    e.infoHandler = nullptr;
    e.savedAction = {};
    e.syncKind();
  }
}

}  // namespace

Runner::Runner() {
  // ThinRunner's constructor has mapped the jiffies page already.
  setCrashStackTop(pageAbove(__builtin_frame_address(0)));
  becomeTheRunner(this);
  installAltStack();
  installCrashHandler();
  resetSignals();
}

Runner::~Runner() {
  // ThinRunner's destructor would only reach ThinRunner::shutdown().
  shutdown();
  // A signal put in kPipe without a callback still holds the pipe, which
  // must not outlive the runner it is registered with.
  for (int sig = 0; sig < kSignalCount; ++sig) {
    if (g_signals[sig].mode == kPipe) setSigaction(sig, kSaved);
  }
  if (runner == this) runner = nullptr;
}

bool Runner::setSigaction(int sig, RunnerSigaction mode) {
  if (!validSignal(sig) || mode > kPipe) return false;
  SignalEntry& e = g_signals[sig];
  const uint32_t current = e.mode;
  if (mode == current) return true;
  // The pipe exists before the handler that writes to it, and the counts
  // change only once the kernel took the new action.
  if (mode == kPipe) acquirePipe(this);
  const struct sigaction act = actionFor(mode, e.savedAction);
  struct sigaction old {};
  if (sigaction(sig, &act, &old) != 0) {
    if (mode == kPipe) releasePipe(this);
    return false;
  }
  if (current == kSaved) e.savedAction = old;
  e.mode = mode;
  if (current == kPipe) releasePipe(this);
  return true;
}

bool Runner::addSighandler(int sig, bool install, SignalCallback cb) {
  if (!validSignal(sig)) return false;
  SignalEntry& e = g_signals[sig];
  e.infoHandler = nullptr;
  e.handler = std::move(cb);
  e.syncKind();
  if (install) setSigaction(sig, kPipe);
  return true;
}

bool Runner::addSigaction(int sig, bool install, SiginfoCallback cb) {
  if (!validSignal(sig)) return false;
  SignalEntry& e = g_signals[sig];
  e.handler = nullptr;
  e.infoHandler = std::move(cb);
  e.syncKind();
  if (install) setSigaction(sig, kPipe);
  return true;
}

bool Runner::removeSighandler(int sig, bool restore) {
  if (!validSignal(sig)) return false;
  if (restore) setSigaction(sig, kSaved);
  SignalEntry& e = g_signals[sig];
  e.handler = nullptr;
  e.infoHandler = nullptr;
  e.syncKind();
  return true;
}

void Runner::createPipe() {
  // Without a pipe, signals in kPipe mode are dropped by the handler.
  if (g_pipe.readFd >= 0 || !g_pipe.open()) return;
  addSocket(g_pipe.readFd, POLLIN, kr::bind<&Runner::onSignal>(this));
}

void Runner::destroyPipe() {
  if (g_pipe.readFd < 0) return;
  removeSocket(g_pipe.readFd);
  g_pipe.close();
}

void Runner::onSignal(int, unsigned int events) {
  if (!(events & POLLIN)) return;
  int sig;
  siginfo_t info;
  bool hasInfo;
  // The descriptor is looked up each time: a callback may have closed it.
  while (g_pipe.readFd >= 0 && readSignal(g_pipe.readFd, &sig, &info, &hasInfo)) {
    dispatchSignal(sig, &info, hasInfo);
  }
}

void Runner::shutdown() {
  for (int sig = 0; sig < kSignalCount; ++sig) {
    if (g_signals[sig].hasCallback()) removeSighandler(sig, true);
  }
  ThinRunner::shutdown();
}

namespace {

void writeSignal(int sig, const siginfo_t* info) {
  const int fd = g_pipe.writeFd;
  if (fd < 0 || !validSignal(sig)) return;
  const SignalEntry& e = g_signals[sig];
  if (e.mode != Runner::kPipe) return;
  const int kind = e.kind;
  if (kind == kNoCallback) return;
  unsigned char buf[sizeof(uint32_t) + kInfoBytes];
  uint32_t word = static_cast<uint32_t>(sig);
  size_t len = sizeof word;
  if (kind == kWithSiginfo) {
    word |= kWithInfo;
    if (info) {
      std::memcpy(buf + len, info, kInfoBytes);
    } else {
      std::memset(buf + len, 0, kInfoBytes);
    }
    len += kInfoBytes;
  }
  std::memcpy(buf, &word, sizeof word);
  // One write, so word and record arrive together (a pipe write up to
  // PIPE_BUF is atomic). A full pipe loses the signal: nothing is retried.
  if (write(fd, buf, len) < 0) {
  }
}

}  // namespace

void handleSignal(int sig, siginfo_t* info, void*) {
  const int savedErrno = errno;
  writeSignal(sig, info);
  errno = savedErrno;
}

}  // namespace kr
