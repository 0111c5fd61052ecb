// kr::Runner: the process's event loop. A ThinRunner that also delivers
// POSIX signals as ordinary loop events, and that installs the crash
// handler for the fatal signals.
//
// The asynchronous signal handler only writes the signal number (and, when
// asked, its siginfo record) into a non-blocking self-pipe; the callbacks run
// later, on the loop's thread, after a poll found the pipe readable.
//
//   kr::Runner loop;                                   // one per process
//   loop.addSighandler(SIGTERM, true, [&](int) { stop(); });
//   loop.run();
//
// A process has one runner: constructing a second prints "ERROR: created
// more than two runners" and exits with status 1. Event-loop thread only.
#pragma once

#include <signal.h>

#include "kr/loop/thinrunner.h"

namespace kr {

class Runner : public ThinRunner {
 public:
  // How a signal is handled. Every signal starts in kSaved. Going back to
  // kSaved restores the saved handler only, under the runner's flags
  // SA_RESTART | SA_NOCLDSTOP (plus SA_SIGINFO for a siginfo handler).
  enum RunnerSigaction : unsigned int {
    kIgnore = 0,   // SIG_IGN
    kDefault = 1,  // SIG_DFL
    kSaved = 2,    // the action the process had before the runner changed it
    kPipe = 3,     // delivered through the self-pipe to the registered callback
  };
  using SignalCallback = function<void(int sig)>;
  using SiginfoCallback = function<void(int sig, siginfo_t* info)>;

  Runner();
  // Runs shutdown(), puts any signal still in kPipe back to kSaved (which
  // closes the pipe) and clears the process-wide runner.
  ~Runner() override;

  // Installs the kernel action for `mode`. False for a signal outside 0..63
  // or when sigaction() fails (nothing changes then).
  bool setSigaction(int sig, RunnerSigaction mode);
  // Sets the plain callback of sig (clearing its siginfo callback); with
  // `install` also setSigaction(sig, kPipe). False only for a signal outside
  // 0..63: the callback stays set even if sigaction() fails.
  bool addSighandler(int sig, bool install, SignalCallback cb);
  // The same for a callback that also receives the siginfo record.
  bool addSigaction(int sig, bool install, SiginfoCallback cb);
  // With `restore`, first setSigaction(sig, kSaved); then clears both
  // callbacks. False only for a signal outside 0..63.
  bool removeSighandler(int sig, bool restore);

  // The self-pipe exists exactly while some signal is in kPipe mode.
  void createPipe();
  void destroyPipe();
  // The pipe's socket callback: runs the callbacks of the signals written.
  void onSignal(int fd, unsigned int events);

  // Restores every signal that has a callback to its saved action, then
  // drops every registration.
  void shutdown() override;

  // The process-wide runner; kr::getRunner() returns it.
  static Runner* runner;
};

// The asynchronous handler of signals in kPipe mode: writes to the pipe.
void handleSignal(int sig, siginfo_t* info, void* context);

}  // namespace kr
