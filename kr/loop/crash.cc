#include "kr/loop/crash.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <string>

#if __has_include(<execinfo.h>)
#include <execinfo.h>
#define KR_HAVE_BACKTRACE 1
#endif

#include "kr/util/runtime_dir.h"

namespace kr {
namespace {

// ---- Signals and their names ---------------------------------------------

struct FatalSignal {
  int sig;
  const char* name;
  int flags;
};

constexpr int kFlags = SA_SIGINFO | SA_RESTART;
// SEGV and BUS take SA_NODEFER so that a fault inside the report re-enters
// the handler, whose guard then kills the process at once.
constexpr FatalSignal kFatalSignals[] = {
    {SIGSEGV, "SIGSEGV", kFlags | SA_ONSTACK | SA_NODEFER},
    {SIGBUS, "SIGBUS", kFlags | SA_ONSTACK | SA_NODEFER},
    {SIGILL, "SIGILL", kFlags | SA_ONSTACK},
    {SIGABRT, "SIGABRT", kFlags | SA_ONSTACK},
    {SIGFPE, "SIGFPE", kFlags | SA_ONSTACK},
    {SIGUSR2, "SIGUSR2", kFlags | SA_ONSTACK},
    {SIGTRAP, "SIGTRAP", kFlags},
};

struct CodeName {
  int sig;  // 0: any signal
  int code;
  const char* name;
};

constexpr CodeName kCodeNames[] = {
    {0, SI_USER, "SI_USER"},
    {0, SI_QUEUE, "SI_QUEUE"},
    {0, SI_TKILL, "SI_TKILL"},
    {0, SI_KERNEL, "SI_KERNEL"},
    {SIGSEGV, SEGV_MAPERR, "SEGV_MAPERR"},
    {SIGSEGV, SEGV_ACCERR, "SEGV_ACCERR"},
    {SIGBUS, BUS_ADRALN, "BUS_ADRALN"},
    {SIGBUS, BUS_ADRERR, "BUS_ADRERR"},
    {SIGBUS, BUS_OBJERR, "BUS_OBJERR"},
    {SIGFPE, FPE_INTDIV, "FPE_INTDIV"},
    {SIGFPE, FPE_INTOVF, "FPE_INTOVF"},
    {SIGFPE, FPE_FLTDIV, "FPE_FLTDIV"},
    {SIGFPE, FPE_FLTOVF, "FPE_FLTOVF"},
    {SIGFPE, FPE_FLTUND, "FPE_FLTUND"},
    {SIGFPE, FPE_FLTRES, "FPE_FLTRES"},
    {SIGFPE, FPE_FLTINV, "FPE_FLTINV"},
    {SIGFPE, FPE_FLTSUB, "FPE_FLTSUB"},
    {SIGILL, ILL_ILLOPC, "ILL_ILLOPC"},
    {SIGILL, ILL_ILLOPN, "ILL_ILLOPN"},
    {SIGILL, ILL_ILLADR, "ILL_ILLADR"},
    {SIGILL, ILL_ILLTRP, "ILL_ILLTRP"},
    {SIGILL, ILL_PRVOPC, "ILL_PRVOPC"},
    {SIGILL, ILL_PRVREG, "ILL_PRVREG"},
    {SIGILL, ILL_COPROC, "ILL_COPROC"},
    {SIGILL, ILL_BADSTK, "ILL_BADSTK"},
    {SIGTRAP, TRAP_BRKPT, "TRAP_BRKPT"},
    {SIGTRAP, TRAP_TRACE, "TRAP_TRACE"},
};

const char* signalName(int sig) {
  for (const FatalSignal& f : kFatalSignals)
    if (f.sig == sig) return f.name;
  return "?";
}

const char* codeName(int sig, int code) {
  for (const CodeName& c : kCodeNames)
    if ((c.sig == 0 || c.sig == sig) && c.code == code) return c.name;
  return "?";
}

// ---- State the handler reads: fixed storage, filled before any crash --------

char g_program[64] = "unknown";
char g_reportDir[PATH_MAX];  // crashReportDir() + "/"; empty: no report file
char g_reportPath[PATH_MAX + 96];
char g_logTail[4096];
std::atomic<const void*> g_stackTop{nullptr};
std::atomic<CrashLogTail> g_logProvider{nullptr};
std::atomic<const char*> g_frames[kCrashFrameSlots];
std::atomic<size_t> g_frameDepth{0};
// The thread id writing a report, 0 when none.
std::atomic<long> g_reporter{0};
static_assert(std::atomic<long>::is_always_lock_free);
static_assert(std::atomic<const char*>::is_always_lock_free);

// ---- Number formatting without stdio -------------------------------------

// Writes v in decimal, at least `width` digits (zero-filled), into buf
// (24 bytes suffice); returns the length.
size_t formatDec(char* buf, long long v, int width = 1) {
  unsigned long long u = v < 0 ? 0ULL - static_cast<unsigned long long>(v) : v;
  char tmp[24];
  size_t n = 0;
  do {
    tmp[n++] = static_cast<char>('0' + u % 10);
    u /= 10;
  } while (u != 0 || static_cast<int>(n) < width);
  size_t len = 0;
  if (v < 0) buf[len++] = '-';
  while (n > 0) buf[len++] = tmp[--n];
  return len;
}

// "0x" and v in hex, at least `width` digits, into buf (20 bytes suffice).
size_t formatHex(char* buf, uintptr_t v, int width = 1) {
  char tmp[2 * sizeof v];
  size_t n = 0;
  do {
    tmp[n++] = "0123456789abcdef"[v & 0xF];
    v >>= 4;
  } while (v != 0 || static_cast<int>(n) < width);
  size_t len = 0;
  buf[len++] = '0';
  buf[len++] = 'x';
  while (n > 0) buf[len++] = tmp[--n];
  return len;
}

// ---- Output to one or two descriptors through a stack buffer ---------------

class Out {
 public:
  Out(const int* fds, int n) : n_(n) {
    for (int i = 0; i < n; ++i) fds_[i] = fds[i];
  }
  ~Out() { flush(); }
  Out(const Out&) = delete;
  Out& operator=(const Out&) = delete;

  Out& bytes(const char* s, size_t n) {
    if (len_ + n > sizeof buf_) flush();
    if (n > sizeof buf_) return direct(s, n);
    memcpy(buf_ + len_, s, n);
    len_ += n;
    return *this;
  }
  Out& str(const char* s) { return bytes(s, strlen(s)); }
  Out& dec(long long v, int width = 1) {
    char b[24];
    return bytes(b, formatDec(b, v, width));
  }
  Out& hex(uintptr_t v, int width = 1) {
    char b[20];
    return bytes(b, formatHex(b, v, width));
  }
  // Passes s through unbuffered, after what is buffered.
  Out& direct(const char* s, size_t n) {
    flush();
    for (int i = 0; i < n_; ++i) writeAll(i, s, n);
    return *this;
  }
  void flush() {
    size_t n = len_;
    len_ = 0;
    for (int i = 0; i < n_; ++i) writeAll(i, buf_, n);
  }
  // Calls f(fd) for every descriptor still writable, after a flush.
  template <class F>
  void eachFd(F f) {
    flush();
    for (int i = 0; i < n_; ++i)
      if (fds_[i] >= 0) f(fds_[i]);
  }

 private:
  // A descriptor that fails is dropped; the others still get the report.
  void writeAll(int i, const char* s, size_t n) {
    while (n > 0 && fds_[i] >= 0) {
      ssize_t w = write(fds_[i], s, n);
      if (w < 0 && errno == EINTR) continue;
      if (w <= 0) {
        fds_[i] = -1;
        return;
      }
      s += w;
      n -= static_cast<size_t>(w);
    }
  }

  int fds_[2] = {-1, -1};
  int n_;
  char buf_[512];
  size_t len_ = 0;
};

// ---- Report sections --------------------------------------------------------

// What a section may look at.
struct Event {
  int sig;
  const siginfo_t* info;  // may be null
  const ucontext_t* uc;   // may be null
};

bool hasFaultAddress(int sig, const siginfo_t* info) {
  if (info == nullptr || info->si_code <= 0) return false;  // sent, not a fault
  return sig == SIGSEGV || sig == SIGBUS || sig == SIGILL || sig == SIGFPE || sig == SIGTRAP;
}

void writeHeadline(Out& out, const Event& e) {
  int sig = e.sig;
  const siginfo_t* info = e.info;
  out.str("*** kr crash report: signal ").dec(sig).str(" (").str(signalName(sig)).str(")");
  if (hasFaultAddress(sig, info)) {
    out.str(" at fault address ").hex(reinterpret_cast<uintptr_t>(info->si_addr));
  } else if (info != nullptr && info->si_code <= 0) {
    out.str(" sent by pid ").dec(info->si_pid).str(" (uid ").dec(info->si_uid).str(")");
  }
  out.str("\n");
}

void writeCommandLine(Out& out) {
  char buf[256];
  ssize_t n = -1;
  int fd = open("/proc/self/cmdline", O_RDONLY | O_CLOEXEC);
  if (fd >= 0) {
    n = read(fd, buf, sizeof buf);
    close(fd);
  }
  bool cut = n == sizeof buf;
  if (n > 0 && buf[n - 1] == '\0') --n;  // the last argument's terminator
  if (n <= 0) return;
  for (ssize_t i = 0; i < n; ++i)
    if (buf[i] == '\0') buf[i] = ' ';
  out.str("command line: ").bytes(buf, static_cast<size_t>(n));
  out.str(cut ? "...\n" : "\n");
}

void writeIdentity(Out& out, const Event& e) {
  out.str("program: ").str(g_program).str("  pid: ").dec(getpid());
  out.str("  tid: ").dec(syscall(SYS_gettid)).str("\n");
  writeCommandLine(out);
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  out.str("time: ").dec(now.tv_sec).str(".").dec(now.tv_nsec / 1000000, 3).str(" (unix)\n");
  if (e.info == nullptr) return;
  int code = e.info->si_code;
  out.str("si_code: ").dec(code).str(" (").str(codeName(e.sig, code)).str(")\n");
}

// One register table, three "name 0x..." cells per line.
class RegTable {
 public:
  explicit RegTable(Out& out) : out_(out) { out_.str("registers:\n"); }
  ~RegTable() {
    if (col_ != 0) out_.str("\n");
  }
  void add(const char* name, uintptr_t v) {
    size_t len = strlen(name);
    out_.str("  ").str(name).bytes("        ", len < 7 ? 7 - len : 1);
    out_.hex(v, 2 * sizeof v);
    if (++col_ == 3) {
      out_.str("\n");
      col_ = 0;
    }
  }
  // A name like "x12" built from a prefix and a number.
  void add(char prefix, int i, uintptr_t v) {
    char name[8] = {prefix};
    name[1 + formatDec(name + 1, i)] = '\0';
    add(name, v);
  }

 private:
  Out& out_;
  int col_ = 0;
};

#if defined(__x86_64__)
constexpr const char* kGregNames[] = {
    "r8",  "r9",  "r10", "r11", "r12", "r13", "r14",    "r15", "rdi",    "rsi",     "rbp", "rbx",
    "rdx", "rax", "rcx", "rsp", "rip", "efl", "csgsfs", "err", "trapno", "oldmask", "cr2"};
static_assert(sizeof kGregNames / sizeof *kGregNames == NGREG);

void writeRegisters(Out& out, const ucontext_t* uc) {
  RegTable t(out);
  for (int i = 0; i < NGREG; ++i)
    t.add(kGregNames[i], static_cast<uintptr_t>(uc->uc_mcontext.gregs[i]));
}
uintptr_t stackPointer(const ucontext_t* uc) {
  return static_cast<uintptr_t>(uc->uc_mcontext.gregs[REG_RSP]);
}
#elif defined(__aarch64__)
void writeRegisters(Out& out, const ucontext_t* uc) {
  RegTable t(out);
  for (int i = 0; i < 31; ++i) t.add('x', i, uc->uc_mcontext.regs[i]);
  t.add("sp", uc->uc_mcontext.sp);
  t.add("pc", uc->uc_mcontext.pc);
  t.add("pstate", uc->uc_mcontext.pstate);
}
uintptr_t stackPointer(const ucontext_t* uc) { return uc->uc_mcontext.sp; }
#elif defined(__powerpc__)
const auto* powerpcGregs(const ucontext_t* uc) {
#if defined(__powerpc64__)
  return uc->uc_mcontext.gp_regs;
#else
  return uc->uc_mcontext.uc_regs->gregs;
#endif
}
constexpr const char* kSprNames[] = {"nip", "msr", "orig_r3", "ctr", "link",  "xer",
                                     "ccr", "mq",  "trap",    "dar", "dsisr", "result"};
void writeRegisters(Out& out, const ucontext_t* uc) {
  const auto* g = powerpcGregs(uc);
  RegTable t(out);
  for (int i = 0; i < 32; ++i) t.add('r', i, static_cast<uintptr_t>(g[i]));
  for (int i = 0; i < 12 && 32 + i < NGREG; ++i)
    t.add(kSprNames[i], static_cast<uintptr_t>(g[32 + i]));
}
uintptr_t stackPointer(const ucontext_t* uc) { return static_cast<uintptr_t>(powerpcGregs(uc)[1]); }
#else
void writeRegisters(Out& out, const ucontext_t*) {
  out.str("registers: not available on this platform\n");
}
uintptr_t stackPointer(const ucontext_t*) { return 0; }
#endif

// Where the stack pointer was; a fault next to it is most likely an overflow
// into the guard page.
void writeStack(Out& out, const Event& e) {
  uintptr_t sp = e.uc != nullptr ? stackPointer(e.uc) : 0;
  if (sp == 0) return;
  out.str("stack: sp ").hex(sp);
  auto top = reinterpret_cast<uintptr_t>(g_stackTop.load(std::memory_order_relaxed));
  // Far from the recorded top: a thread's stack, or no top recorded.
  if (top != 0 && sp <= top && top - sp < (uintptr_t{1} << 30)) {
    out.str(", main thread top ").hex(top);
    out.str(", ").dec(static_cast<long long>(top - sp)).str(" bytes in use");
  }
  if (e.sig == SIGSEGV && hasFaultAddress(e.sig, e.info)) {
    auto addr = reinterpret_cast<uintptr_t>(e.info->si_addr);
    uintptr_t dist = addr > sp ? addr - sp : sp - addr;
    if (dist < 65536) out.str(" (probable stack overflow)");
  }
  out.str("\n");
}

void writeRegisterSection(Out& out, const Event& e) {
  if (e.uc != nullptr) writeRegisters(out, e.uc);
}

void writeBacktrace(Out& out, const Event&) {
  out.str("backtrace:\n");
#ifdef KR_HAVE_BACKTRACE
  void* frames[64];
  int n = backtrace(frames, 64);
  out.eachFd([&](int fd) { backtrace_symbols_fd(frames, n, fd); });
#else
  out.str("  not available on this platform\n");
#endif
}

void writeFrames(Out& out, const Event&) {
  out.str("active frames:\n");
  size_t depth = g_frameDepth.load(std::memory_order_acquire);
  if (depth == 0) out.str("  (none)\n");
  if (depth > kCrashFrameSlots) {
    auto unnamed = static_cast<long long>(depth - kCrashFrameSlots);
    out.str("  (").dec(unnamed).str(" inner frames not named)\n");
  }
  size_t named = depth < kCrashFrameSlots ? depth : kCrashFrameSlots;
  for (size_t k = 0; k < named; ++k) {
    const char* name = g_frames[named - 1 - k].load(std::memory_order_relaxed);
    out.str("  #").dec(static_cast<long long>(k)).str(" ").str(name ? name : "?").str("\n");
  }
}

void writeLogTail(Out& out, const Event&) {
  out.str("log tail:\n");
  CrashLogTail provider = g_logProvider.load(std::memory_order_acquire);
  if (provider == nullptr) {
    out.str("  (no log provider registered)\n");
    return;
  }
  out.flush();  // the provider is foreign code: show the header even if it faults
  size_t n = provider(g_logTail, sizeof g_logTail);
  if (n > sizeof g_logTail) n = sizeof g_logTail;
  out.bytes(g_logTail, n);
  if (n > 0 && g_logTail[n - 1] != '\n') out.str("\n");
}

void writeMaps(Out& out, const Event&) {
  out.str("memory maps:\n");
  int fd = open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    out.str("  (cannot open /proc/self/maps)\n");
    return;
  }
  char chunk[1024];
  for (;;) {
    ssize_t n = read(fd, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    out.direct(chunk, static_cast<size_t>(n));
  }
  close(fd);
}

void writeFooter(Out& out, const Event&) { out.str("*** end of kr crash report\n"); }

// Each section is flushed before the next starts, so that a report cut
// short by a second fault still shows everything up to it. The maps come
// last: they are long and the least read.
constexpr void (*kSections[])(Out&, const Event&) = {
    writeHeadline, writeIdentity, writeStack, writeRegisterSection, writeBacktrace,
    writeFrames,   writeLogTail,  writeMaps,  writeFooter,
};

void writeReport(const int* fds, int nfds, int sig, siginfo_t* info, void* context) {
  Out out(fds, nfds);
  const Event e{sig, info, static_cast<const ucontext_t*>(context)};
  for (auto section : kSections) {
    section(out, e);
    out.flush();
  }
}

// ---- The handler --------------------------------------------------------------

// The file is named when the crash happens: the pid may have changed since
// install (fork).
int openReportFile() {
  if (g_reportDir[0] == '\0') return -1;
  char pid[24];
  size_t pidLen = formatDec(pid, getpid());
  size_t dirLen = strlen(g_reportDir), nameLen = strlen(g_program);
  if (dirLen + nameLen + 1 + pidLen + 1 > sizeof g_reportPath) return -1;
  char* p = g_reportPath;
  memcpy(p, g_reportDir, dirLen);
  memcpy(p += dirLen, g_program, nameLen);
  *(p += nameLen) = '.';
  memcpy(++p, pid, pidLen);
  p[pidLen] = '\0';
  return open(g_reportPath, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
}

// Lets one thread write a report. A second fatal signal in that thread (the
// report itself crashed) returns false at once; another thread crashing
// meanwhile waits a while for the report to finish and the process to die.
bool claimReport() {
  long self = syscall(SYS_gettid);
  long owner = 0;
  if (g_reporter.compare_exchange_strong(owner, self)) return true;
  if (owner == self) return false;
  for (int i = 0; i < 100 && g_reporter.load() != 0; ++i) {
    timespec tick{0, 100 * 1000 * 1000};
    nanosleep(&tick, nullptr);
  }
  return false;
}

// Restores the default action and delivers sig again, so the process dies by
// it. With SA_NODEFER that happens inside raise(); otherwise sig is blocked
// while the handler runs, and unblocking it delivers the pending one.
void dieBy(int sig) {
  struct sigaction dfl {};
  dfl.sa_handler = SIG_DFL;
  sigemptyset(&dfl.sa_mask);
  sigaction(sig, &dfl, nullptr);
  raise(sig);
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, sig);
  sigprocmask(SIG_UNBLOCK, &set, nullptr);
  // Still alive (the interrupted code blocks sig): returning re-executes a
  // faulting instruction, now under the default action.
}

void onFatalSignal(int sig, siginfo_t* info, void* context) {
  if (!claimReport()) return dieBy(sig);
  int fds[2] = {STDERR_FILENO, openReportFile()};
  writeReport(fds, fds[1] >= 0 ? 2 : 1, sig, info, context);
  if (fds[1] >= 0) close(fds[1]);
  dieBy(sig);
}

// ---- Installation (may allocate) --------------------------------------------

void captureProgramName() {
  const char* name = program_invocation_short_name;
  if (name == nullptr || *name == '\0') name = "unknown";
  size_t i = 0;
  for (; name[i] != '\0' && i + 1 < sizeof g_program; ++i)
    g_program[i] = name[i] == '/' ? '_' : name[i];
  g_program[i] = '\0';
}

// Creates the report directory and keeps its path; a path that does not
// fit leaves reports on standard error only.
void prepareReportDir() {
  std::string dir = crashReportDir();
  mkdir(dir.c_str(), 0700);  // EEXIST is fine; other errors skip the file later
  dir += '/';
  g_reportDir[0] = '\0';
  if (dir.size() < sizeof g_reportDir) memcpy(g_reportDir, dir.c_str(), dir.size() + 1);
}

// The first backtrace() loads libgcc and may allocate: do it now, not in
// the handler.
void primeBacktrace() {
#ifdef KR_HAVE_BACKTRACE
  void* frame[1];
  backtrace(frame, 1);
#endif
}

}  // namespace

void installCrashHandler() {
  primeBacktrace();
  captureProgramName();
  prepareReportDir();
  struct sigaction sa {};
  sa.sa_sigaction = onFatalSignal;
  sigemptyset(&sa.sa_mask);
  for (const FatalSignal& f : kFatalSignals) {
    sa.sa_flags = f.flags;
    sigaction(f.sig, &sa, nullptr);
  }
}

void setCrashStackTop(const void* top) { g_stackTop.store(top, std::memory_order_relaxed); }

void setCrashLogTail(CrashLogTail provider) {
  g_logProvider.store(provider, std::memory_order_release);
}

void writeCrashReport(int fd, int sig, siginfo_t* info, void* context) {
  writeReport(&fd, 1, sig, info, context);
}

CrashFrame::CrashFrame(const char* name) noexcept {
  size_t depth = g_frameDepth.load(std::memory_order_relaxed);
  if (depth < kCrashFrameSlots) g_frames[depth].store(name, std::memory_order_relaxed);
  g_frameDepth.store(depth + 1, std::memory_order_release);
}

CrashFrame::~CrashFrame() {
  g_frameDepth.store(g_frameDepth.load(std::memory_order_relaxed) - 1, std::memory_order_release);
}

}  // namespace kr
