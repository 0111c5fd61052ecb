// kr/loop/crash.h: the crash report a daemon leaves behind when it dies by
// a fatal signal.
//
// kr::Runner's constructor calls setCrashStackTop() and installCrashHandler().
// From then on SIGSEGV, SIGBUS, SIGILL, SIGABRT, SIGFPE, SIGUSR2 and SIGTRAP
// write a report to standard error and to
// crashReportDir() + "/<program>.<pid>" (kr/util/runtime_dir.h, normally
// /ram/crash/), then restore the default action and re-raise, so the parent
// still sees the process die by that same signal. The report holds the
// signal and fault address, program, pid, registers, a backtrace, the
// library's active frames (CrashFrame below), a log tail and the memory map.
//
//   void Looper::dispatchMessage(message& m) {
//     kr::CrashFrame frame(__PRETTY_FUNCTION__);   // named in any report
//     ...
//   }
//
// Signal safety: the handler and writeCrashReport() only use async-signal-
// safe calls (open, read, write, close, sigaction, raise...) and never
// allocate; numbers are formatted by hand into fixed buffers. What
// might allocate (loading libgcc for backtrace(), reading the environment)
// is done once in installCrashHandler().
//
// Threads: installCrashHandler(), setCrashStackTop() and setCrashLogTail()
// are for the event-loop thread during start-up. CrashFrame is event-loop
// thread only: the frame stack is one per process and not locked. A fatal
// signal in any thread is reported; if two threads crash at once the second
// waits a few seconds for the first report to finish.
#pragma once

#include <signal.h>

#include <cstddef>

namespace kr {

// Installs the handler for the fatal signals listed above, creates the
// report directory (mode 0700; an existing one is fine) and records the
// program name and the report directory, read from the environment now.
// Calling it again re-reads them. The alternate signal stack (sigaltstack)
// is the caller's: without one the handler runs on the faulting stack and
// a stack overflow cannot be reported.
void installCrashHandler();

// Records the top (highest address) of the main thread's stack, so a report
// can say how much of the stack was in use and flag a probable overflow.
void setCrashStackTop(const void* top);

// Writes a report for `sig` to fd. `info` and `context` are the handler's
// arguments (either may be null). Exposed so that tools and tests can see
// the report without dying; it is async-signal-safe and does not allocate.
// Not reentrant: the log tail is copied into one static buffer.
void writeCrashReport(int fd, int sig, siginfo_t* info, void* context);

// The seam for the log client: a provider copies the most recent log lines,
// oldest first, into buf (at most cap bytes) and returns how many it wrote.
// It runs inside the signal handler, so it must be async-signal-safe: no
// locks, no allocation; memcpy out of a ring buffer it maintains is the
// intended use (copying in, rather than returning a pointer, lets a ring
// that has wrapped hand out its two halves in order). The interrupted code
// may have been writing that very ring, so the text can be torn; a report
// is best effort. Null unregisters.
using CrashLogTail = size_t (*)(char* buf, size_t cap);
void setCrashLogTail(CrashLogTail provider);

// A named frame of what the library is doing, listed innermost first under
// "active frames:" in a report while the object lives. The name must have
// static lifetime (a literal or __PRETTY_FUNCTION__). The stack holds
// kCrashFrameSlots names; deeper pushes are counted but not named.
// Event-loop thread only.
class CrashFrame {
 public:
  explicit CrashFrame(const char* name) noexcept;
  ~CrashFrame();
  CrashFrame(const CrashFrame&) = delete;
  CrashFrame& operator=(const CrashFrame&) = delete;
};

inline constexpr size_t kCrashFrameSlots = 32;

}  // namespace kr
