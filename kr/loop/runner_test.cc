#include "kr/loop/runner.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <set>
#include <string>

namespace kr {
namespace {

std::set<int> openFds() {
  std::set<int> fds;
  DIR* d = opendir("/proc/self/fd");
  while (dirent* e = readdir(d)) {
    if (e->d_name[0] != '.') fds.insert(std::atoi(e->d_name));
  }
  fds.erase(dirfd(d));
  closedir(d);
  return fds;
}

struct sigaction actionOf(int sig) {
  struct sigaction a {};
  sigaction(sig, nullptr, &a);
  return a;
}

bool throughPipe(int sig) {
  const struct sigaction a = actionOf(sig);
  return (a.sa_flags & SA_SIGINFO) && a.sa_sigaction == &handleSignal;
}

void ownHandler(int) {}
void ownInfoHandler(int, siginfo_t*, void*) {}

constexpr int kTestSignals[] = {SIGUSR1, SIGHUP, SIGWINCH};

// Every test leaves no signal caught, no socket registered, no descriptor open.
class RunnerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (int sig : kTestSignals) before_[sig] = actionOf(sig).sa_handler;
    runner_ = std::make_unique<Runner>();
    fds_ = openFds();
  }
  void TearDown() override {
    if (runner_) {
      EXPECT_EQ(runner_->socketCount(), 0u);
    }
    runner_.reset();
    EXPECT_EQ(getRunner(), nullptr);
    EXPECT_EQ(openFds(), fds_);
    for (int sig : kTestSignals) EXPECT_EQ(actionOf(sig).sa_handler, before_[sig]) << "signal " << sig;
  }
  void signalSelf(int sig, int times = 1) {
    for (int i = 0; i < times; ++i) kill(getpid(), sig);
  }

  std::unique_ptr<Runner> runner_;
  std::set<int> fds_;
  sighandler_t before_[NSIG] = {};
};

TEST_F(RunnerTest, HandlerRunsOnTheLoopNotInTheSignal) {
  EXPECT_EQ(getRunner(), runner_.get());
  int calls = 0, seen = 0;
  ASSERT_TRUE(runner_->addSighandler(SIGUSR1, true, [&](int sig) { ++calls, seen = sig; }));
  EXPECT_TRUE(throughPipe(SIGUSR1));
  signalSelf(SIGUSR1);
  EXPECT_EQ(calls, 0);
  runner_->step(false);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(seen, SIGUSR1);
  runner_->step(false);
  EXPECT_EQ(calls, 1);
  EXPECT_TRUE(runner_->removeSighandler(SIGUSR1, true));
}

TEST_F(RunnerTest, SigactionDeliversTheWholeSiginfo) {
  siginfo_t got{};
  runner_->addSigaction(SIGUSR1, true, [&](int, siginfo_t* info) { got = *info; });
  ASSERT_EQ(sigqueue(getpid(), SIGUSR1, sigval{.sival_int = 4242}), 0);
  runner_->step(false);
  EXPECT_EQ(got.si_signo, SIGUSR1);
  EXPECT_EQ(got.si_code, SI_QUEUE);
  EXPECT_EQ(got.si_pid, getpid());
  EXPECT_EQ(got.si_uid, getuid());
  EXPECT_EQ(got.si_value.sival_int, 4242);
  runner_->removeSighandler(SIGUSR1, true);
}

TEST_F(RunnerTest, TheCallbackRegisteredLastIsTheOnlyOne) {
  std::string log;
  runner_->addSighandler(SIGUSR1, true, [&](int) { log += 'p'; });
  runner_->addSigaction(SIGUSR1, true, [&](int, siginfo_t*) { log += 'i'; });
  signalSelf(SIGUSR1);
  runner_->step(false);
  runner_->addSighandler(SIGUSR1, true, [&](int) { log += 'p'; });
  signalSelf(SIGUSR1);
  runner_->step(false);
  EXPECT_EQ(log, "ip");
  runner_->removeSighandler(SIGUSR1, true);
}

// A signal written for a plain callback carries no record; one written after
// a switch to a siginfo callback does. Both must be read at their length.
TEST_F(RunnerTest, SwitchingCallbacksWithSignalsPendingKeepsThePipeInStep) {
  std::string log;
  runner_->addSighandler(SIGUSR1, true, [&](int) { log += 'p'; });
  signalSelf(SIGUSR1);
  runner_->addSigaction(SIGUSR1, true, [&](int sig, siginfo_t* info) {
    log += info->si_signo == sig ? 'i' : '?';
    log += info->si_pid == getpid() ? "+" : "-";
  });
  signalSelf(SIGUSR1);
  runner_->step(false);
  EXPECT_EQ(log, "i-i+");
  runner_->removeSighandler(SIGUSR1, true);
}

TEST_F(RunnerTest, ThePipeLivesWhileASignalUsesIt) {
  int calls = 0;
  runner_->addSighandler(SIGUSR1, false, [&](int) { ++calls; });
  EXPECT_FALSE(throughPipe(SIGUSR1));  // not installed yet
  EXPECT_EQ(runner_->socketCount(), 0u);
  runner_->setSigaction(SIGUSR1, Runner::kPipe);
  runner_->addSighandler(SIGHUP, true, [](int) {});
  EXPECT_EQ(runner_->socketCount(), 1u);
  std::set<int> pipe;
  for (int fd : openFds()) {
    if (!fds_.count(fd)) pipe.insert(fd);
  }
  ASSERT_EQ(pipe.size(), 2u);
  for (int fd : pipe) {
    EXPECT_TRUE(fcntl(fd, F_GETFL) & O_NONBLOCK);
    EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
  }
  runner_->removeSighandler(SIGUSR1, true);
  EXPECT_EQ(runner_->socketCount(), 1u);
  runner_->removeSighandler(SIGHUP, true);
  EXPECT_EQ(runner_->socketCount(), 0u);
  for (int fd : pipe) EXPECT_EQ(fcntl(fd, F_GETFD), -1) << fd;

  runner_->addSighandler(SIGUSR1, true, [&](int) { ++calls; });
  EXPECT_EQ(runner_->socketCount(), 1u);
  signalSelf(SIGUSR1);
  runner_->step(false);
  EXPECT_EQ(calls, 1);
  runner_->removeSighandler(SIGUSR1, true);
}

TEST_F(RunnerTest, RestoringGivesBackTheActionTheProcessHad) {
  struct sigaction own {}, usr1 {}, hup {};
  own.sa_handler = &ownHandler;
  sigaction(SIGUSR1, &own, &usr1);
  runner_->addSighandler(SIGUSR1, true, [](int) {});
  runner_->removeSighandler(SIGUSR1, true);
  EXPECT_EQ(actionOf(SIGUSR1).sa_handler, &ownHandler);
  EXPECT_FALSE(actionOf(SIGUSR1).sa_flags & SA_SIGINFO);

  own.sa_sigaction = &ownInfoHandler;
  own.sa_flags = SA_SIGINFO;
  sigaction(SIGHUP, &own, &hup);
  runner_->setSigaction(SIGHUP, Runner::kIgnore);
  EXPECT_EQ(actionOf(SIGHUP).sa_handler, SIG_IGN);
  runner_->setSigaction(SIGHUP, Runner::kDefault);
  EXPECT_EQ(actionOf(SIGHUP).sa_handler, SIG_DFL);
  runner_->setSigaction(SIGHUP, Runner::kSaved);
  EXPECT_EQ(actionOf(SIGHUP).sa_sigaction, &ownInfoHandler);  // saved once, at the first change
  EXPECT_TRUE(actionOf(SIGHUP).sa_flags & SA_SIGINFO);

  sigaction(SIGUSR1, &usr1, nullptr);
  sigaction(SIGHUP, &hup, nullptr);
}

TEST_F(RunnerTest, SignalNumbersOutsideTheTableAreRefused) {
  for (int sig : {64, 65, -1}) {
    EXPECT_FALSE(runner_->setSigaction(sig, Runner::kIgnore));
    EXPECT_FALSE(runner_->addSighandler(sig, true, [](int) {}));
    EXPECT_FALSE(runner_->addSigaction(sig, true, [](int, siginfo_t*) {}));
    EXPECT_FALSE(runner_->removeSighandler(sig, true));
  }
  EXPECT_TRUE(runner_->setSigaction(63, Runner::kIgnore));
  EXPECT_EQ(actionOf(63).sa_handler, SIG_IGN);
  EXPECT_TRUE(runner_->setSigaction(63, Runner::kSaved));
  EXPECT_EQ(actionOf(63).sa_handler, SIG_DFL);
}

TEST_F(RunnerTest, ARefusedSigactionLeavesNoPipe) {
  EXPECT_TRUE(runner_->addSighandler(SIGKILL, true, [](int) {}));  // the kernel refuses
  EXPECT_FALSE(runner_->setSigaction(SIGKILL, Runner::kPipe));
  EXPECT_EQ(runner_->socketCount(), 0u);
  EXPECT_EQ(openFds(), fds_);
  runner_->addSighandler(SIGUSR1, true, [](int) {});
  runner_->removeSighandler(SIGUSR1, true);
  EXPECT_EQ(openFds(), fds_);  // counted once, closed once
  runner_->removeSighandler(SIGKILL, true);
}

TEST_F(RunnerTest, ASecondRunnerEndsTheProcess) {
  EXPECT_EXIT({ Runner second; }, ::testing::ExitedWithCode(1), "ERROR: created more than two runners");
}

TEST_F(RunnerTest, ACallbackMayRemoveItsOwnHandlerAndThePipe) {
  int calls = 0;
  std::string capture(64, 'x');  // a capturing callback lives in a heap block
  runner_->addSighandler(SIGUSR1, true, [&, capture](int) {
    ++calls;
    runner_->removeSighandler(SIGUSR1, true);
    EXPECT_EQ(capture.size(), 64u);  // still alive after its removal
  });
  signalSelf(SIGUSR1, 2);
  runner_->step(false);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(runner_->socketCount(), 0u);
}

TEST_F(RunnerTest, ASignalRemovedWhileInThePipeIsSkipped) {
  std::string log;
  runner_->addSighandler(SIGHUP, true, [&](int) { log += 'h'; });
  runner_->addSighandler(SIGUSR1, true, [&](int) {
    log += 'u';
    runner_->removeSighandler(SIGHUP, true);
  });
  signalSelf(SIGUSR1);
  signalSelf(SIGHUP);
  runner_->step(false);
  EXPECT_EQ(log, "u");
  runner_->removeSighandler(SIGUSR1, true);
}

TEST_F(RunnerTest, SignalsWaitInThePipeAndAFullPipeDropsTheRest) {
  int calls = 0;
  runner_->addSighandler(SIGUSR1, true, [&](int) { ++calls; });
  signalSelf(SIGUSR1, 100);
  EXPECT_EQ(calls, 0);
  runner_->step(false);
  EXPECT_EQ(calls, 100);

  calls = 0;
  signalSelf(SIGUSR1, 20000);  // more than a 64 KiB pipe holds
  runner_->step(false);
  EXPECT_GT(calls, 0);
  EXPECT_LT(calls, 20000);
  calls = 0;
  signalSelf(SIGUSR1);
  runner_->step(false);
  EXPECT_EQ(calls, 1);
  runner_->removeSighandler(SIGUSR1, true);
}

TEST_F(RunnerTest, ASignalInPipeModeWithoutCallbackIsDropped) {
  EXPECT_TRUE(runner_->setSigaction(SIGWINCH, Runner::kPipe));
  signalSelf(SIGWINCH);
  runner_->step(false);
  EXPECT_EQ(runner_->socketCount(), 1u);
  runner_.reset();  // the runner still gives it back, and closes the pipe
}

TEST_F(RunnerTest, ShutdownRestoresSignalsThatHaveCallbacks) {
  runner_->addSighandler(SIGUSR1, true, [](int) {});
  runner_->addSigaction(SIGHUP, true, [](int, siginfo_t*) {});
  runner_->shutdown();
  EXPECT_FALSE(throughPipe(SIGUSR1));
  EXPECT_FALSE(throughPipe(SIGHUP));
}

// Runner's destructor must run Runner::shutdown: ThinRunner's reaches only its own.
TEST_F(RunnerTest, DestroyingTheRunnerRestoresSignalsAndClosesThePipe) {
  runner_->addSighandler(SIGUSR1, true, [](int) {});
  runner_.reset();
}

}  // namespace
}  // namespace kr
