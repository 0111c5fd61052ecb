#include "platform/loader/supervisor.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "kr/loop/clock.h"
#include "platform/loader/log.h"

namespace kr::loader {

namespace {

std::string describeStatus(int status) {
  if (WIFEXITED(status)) return "exited with status " + std::to_string(WEXITSTATUS(status));
  if (WIFSIGNALED(status)) return "was killed by signal " + std::to_string(WTERMSIG(status));
  return "ended (wait status " + std::to_string(status) + ")";
}

void writeAll(const char* s) {
  if (write(STDERR_FILENO, s, std::strlen(s)) < 0) {
  }
}

// In the child, between fork() and exec(): async-signal-safe calls only.
[[noreturn]] void execDaemon(int busFd, char* const* argv) {
  struct sigaction dfl {};
  dfl.sa_handler = SIG_DFL;
  for (int sig = 1; sig < NSIG; ++sig) sigaction(sig, &dfl, nullptr);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  setpgid(0, 0);
  // dup2() onto itself would keep close-on-exec set.
  if ((busFd == 3 ? fcntl(3, F_SETFD, 0) : dup2(busFd, 3)) < 0) _exit(127);
  execvp(argv[0], argv);
  writeAll("kr-loader: cannot run ");
  writeAll(argv[0]);
  writeAll(": ");
  writeAll(std::strerror(errno));
  writeAll("\n");
  _exit(127);
}

}  // namespace

Supervisor::Supervisor(Router& router, const Config& config)
    : router_(router), stopTicks_(config.stopTimeoutSeconds * 100) {
  for (const DaemonConfig& c : config.daemons) daemons_.push_back(std::make_unique<Daemon>(c));
  router_.setClosedCallback(kr::bind<&Supervisor::connectionClosed>(this));
}

Supervisor::~Supervisor() {
  router_.setClosedCallback(nullptr);
  for (auto& d : daemons_)
    if (d->pid > 0) killChild(d->pid);
}

void Supervisor::startAll() {
  for (auto& d : daemons_) start(*d);
}

pid_t Supervisor::pidOf(uint32_t address) const {
  for (const auto& d : daemons_)
    if (d->daemon.address == address) return d->pid;
  return -1;
}

// Every signal is blocked from fork() until the child is registered: a
// SIGCHLD of a child that dies at once stays pending until its handler is
// in place, and no signal reaches the child's copy of the loader's
// handlers before it resets them.
void Supervisor::start(Daemon& d) {
  d.startedAt = kr::getJiffies();
  int sv[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) {
    LogLine() << "address " << d.daemon.address << ": socketpair failed: " << std::strerror(errno);
    return restartLater(d);
  }
  UniqueFd ours(sv[0]), theirs(sv[1]);
  std::vector<char*> argv;
  for (const std::string& a : d.daemon.argv) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  sigset_t all, old;
  sigfillset(&all);
  sigprocmask(SIG_BLOCK, &all, &old);
  const pid_t pid = fork();
  if (pid == 0) execDaemon(theirs.get(), argv.data());
  if (pid > 0) {
    d.pid = pid;
    addChild(&d);
  }
  sigprocmask(SIG_SETMASK, &old, nullptr);
  if (pid < 0) {
    LogLine() << "address " << d.daemon.address << ": fork failed: " << std::strerror(errno);
    return restartLater(d);
  }
  theirs.reset();
  LogLine() << "address " << d.daemon.address << ": started " << d.daemon.argv.front() << " (pid " << pid << ")";
  d.connectionOf = pid;
  router_.addClient(std::move(ours), Peer{pid, getuid(), getgid(), d.daemon.address});
}

void Supervisor::childDied(int status, Child* child) {
  Daemon& d = *static_cast<Daemon*>(child);
  LogLine() << "address " << d.daemon.address << " (pid " << d.pid << ") " << describeStatus(status);
  d.pid = -1;
  if (!stopping_) return restartLater(d);
  if (&d == stopTarget_ && !d.connectionOf) stopped(d);
}

// A daemon's stop is complete once its connection has ended too, so that
// what it sent last (its leave) has been read.
void Supervisor::connectionClosed(const Peer& peer) {
  for (auto& d : daemons_) {
    if (!peer.supervised() || d->connectionOf != peer.pid) continue;
    d->connectionOf = 0;
    if (stopping_ && d.get() == stopTarget_ && d->pid <= 0) stopped(*d);
    return;
  }
}

void Supervisor::restartLater(Daemon& d) {
  if (stopping_) return;
  if (!d.daemon.restart) {
    LogLine() << "address " << d.daemon.address << ": not restarted (restart never)";
    return;
  }
  if (kr::getJiffies() - d.startedAt >= kStableRun) d.backoff = kFirstBackoff;
  const unsigned int delay = d.backoff;
  d.backoff = std::min(d.backoff * 2, kMaxBackoff);
  LogLine() << "address " << d.daemon.address << ": restart in " << delay / 100 << " s";
  d.timer = kr::Timer(delay, [this, &d] { start(d); });
}

void Supervisor::stopAll(kr::function<void()> done) {
  if (stopping_) return;
  stopping_ = true;
  done_ = std::move(done);
  for (auto& d : daemons_) d->timer.cancel();  // pending restarts
  stopIndex_ = daemons_.size();
  stopNext();
}

// The next running daemon, from the last started down: control 1 (SIGTERM
// without a connection), and a deadline.
void Supervisor::stopNext() {
  stopTarget_ = nullptr;
  while (stopIndex_ > 0) {
    Daemon& d = *daemons_[--stopIndex_];
    if (d.pid <= 0 && !d.connectionOf) continue;
    stopTarget_ = &d;
    if (!router_.askToLeave(d.daemon.address) && d.pid > 0) sendSignal(d.pid, SIGTERM);
    d.timer = kr::Timer(stopTicks_, [this, &d] { stopTimedOut(d); });
    return;
  }
  if (!done_) return;
  const kr::function<void()> done = std::move(done_);
  done_ = nullptr;
  done();
}

void Supervisor::stopped(Daemon& d) {
  d.timer.cancel();
  stopNext();
}

void Supervisor::stopTimedOut(Daemon& d) {
  LogLine() << "address " << d.daemon.address << " did not end within " << stopTicks_ / 100 << " s; killing it";
  if (d.pid > 0) killChild(d.pid);
  d.pid = -1;
  router_.dropSupervised(d.daemon.address, "killed after the stop timeout");  // may finish the stop
  if (stopTarget_ != &d) return;
  d.connectionOf = 0;
  stopped(d);
}

}  // namespace kr::loader
