#include "kr/loop/runner.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <set>
#include <string>

namespace kr {
namespace {

std::set<int> openFds() {
  std::set<int> fds;
  for (const auto& e : std::filesystem::directory_iterator("/proc/self/fd")) fds.insert(std::stoi(e.path().filename()));
  std::erase_if(fds, [](int fd) { return fcntl(fd, F_GETFD) == -1; });  // the listing's own, closed by now
  return fds;
}

struct sigaction actionOf(int sig) {
  struct sigaction a {};
  sigaction(sig, nullptr, &a);
  return a;
}

bool throughPipe(int sig) { return (actionOf(sig).sa_flags & SA_SIGINFO) && actionOf(sig).sa_sigaction == &handleSignal; }

void ownHandler(int) {}
void ownInfoHandler(int, siginfo_t*, void*) {}

constexpr int kTestSignals[] = {SIGUSR1, SIGHUP, SIGWINCH};

// Every test leaves no signal caught, no socket registered, no descriptor
// open, and no process-wide runner once its runner is gone.
class RunnerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (int sig : kTestSignals) before_[sig] = actionOf(sig).sa_handler;
    runner_ = std::make_unique<Runner>();
    fds_ = openFds();
  }
  void TearDown() override {
    if (runner_) { EXPECT_EQ(runner_->socketCount(), 0u); }
    runner_.reset();
    EXPECT_EQ(getRunner(), nullptr);
    EXPECT_EQ(openFds(), fds_);
    for (int sig : kTestSignals) EXPECT_EQ(actionOf(sig).sa_handler, before_[sig]) << "signal " << sig;
  }

  std::unique_ptr<Runner> runner_;
  std::set<int> fds_;
  sighandler_t before_[NSIG] = {};
};

// Only the callback registered last runs. A signal written for a plain
// callback carries no record, one written for a siginfo callback does: both
// are read at their own length when the callback changed in between.
TEST_F(RunnerTest, CallbacksRunOnTheLoopOnceEachWithTheWholeSiginfo) {
  EXPECT_EQ(getRunner(), runner_.get());
  std::string log;
  siginfo_t got{};
  auto plain = [&](int sig) { log += sig == SIGUSR1 ? 'p' : '?'; };
  ASSERT_TRUE(runner_->addSighandler(SIGUSR1, true, plain));
  EXPECT_TRUE(throughPipe(SIGUSR1));
  raise(SIGUSR1);
  EXPECT_EQ(log, "");  // not inside the signal handler
  runner_->step(false);
  runner_->step(false);
  EXPECT_EQ(log, "p");
  raise(SIGUSR1);
  ASSERT_TRUE(runner_->addSigaction(SIGUSR1, true, [&](int sig, siginfo_t* info) {
    log += info->si_signo == sig ? 'i' : '?';
    log += info->si_pid == getpid() ? '+' : '-';
    got = *info;
  }));
  ASSERT_EQ(sigqueue(getpid(), SIGUSR1, sigval{.sival_int = 4242}), 0);
  runner_->step(false);
  EXPECT_EQ(log, "pi-i+");
  EXPECT_EQ(got.si_code, SI_QUEUE);
  EXPECT_EQ(got.si_uid, getuid());
  EXPECT_EQ(got.si_value.sival_int, 4242);
  runner_->addSighandler(SIGUSR1, true, plain);
  raise(SIGUSR1);
  runner_->step(false);
  EXPECT_EQ(log, "pi-i+p");
  EXPECT_TRUE(runner_->removeSighandler(SIGUSR1, true));
}

TEST_F(RunnerTest, ThePipeLivesWhileASignalUsesItAndARefusedSigactionTakesNoShare) {
  EXPECT_TRUE(runner_->addSighandler(SIGKILL, true, [](int) {}));  // the kernel refuses; the callback stays
  EXPECT_FALSE(runner_->setSigaction(SIGKILL, Runner::kPipe));
  EXPECT_EQ(runner_->socketCount(), 0u);
  EXPECT_EQ(openFds(), fds_);
  int calls = 0;
  runner_->addSighandler(SIGUSR1, false, [&](int) { ++calls; });
  EXPECT_FALSE(throughPipe(SIGUSR1));  // not installed yet
  EXPECT_EQ(runner_->socketCount(), 0u);
  runner_->setSigaction(SIGUSR1, Runner::kPipe);
  runner_->addSighandler(SIGHUP, true, [](int) {});
  EXPECT_EQ(runner_->socketCount(), 1u);
  std::set<int> pipe;
  for (int fd : openFds()) if (!fds_.count(fd)) pipe.insert(fd);
  ASSERT_EQ(pipe.size(), 2u);
  for (int fd : pipe) EXPECT_TRUE((fcntl(fd, F_GETFL) & O_NONBLOCK) && (fcntl(fd, F_GETFD) & FD_CLOEXEC)) << fd;
  runner_->removeSighandler(SIGUSR1, true);
  EXPECT_EQ(runner_->socketCount(), 1u);
  runner_->removeSighandler(SIGHUP, true);
  EXPECT_EQ(runner_->socketCount(), 0u);
  for (int fd : pipe) EXPECT_EQ(fcntl(fd, F_GETFD), -1) << fd;  // counted once, closed once
  runner_->addSighandler(SIGUSR1, true, [&](int) { ++calls; });  // a new pipe
  raise(SIGUSR1);
  runner_->step(false);
  EXPECT_EQ(calls, 1);
  runner_->removeSighandler(SIGUSR1, true);
  runner_->removeSighandler(SIGKILL, true);
}

TEST_F(RunnerTest, RestoringGivesBackTheActionTheProcessHadAndBadNumbersAreRefused) {
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
  // Signal numbers outside the table are refused.
  for (int sig : {64, -1}) {
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

TEST_F(RunnerTest, ASecondRunnerEndsTheProcess) {
  EXPECT_EXIT({ Runner second; }, ::testing::ExitedWithCode(1), "ERROR: created more than two runners");
}

// Signals still in the pipe meet callbacks that removed handlers: a removed
// signal is skipped, and once the last user closes the pipe nothing more is read.
TEST_F(RunnerTest, CallbacksMayRemoveHandlersAndThePipeWithSignalsPending) {
  std::string log;
  std::string capture(64, 'x');  // a capturing callback lives in a heap block
  runner_->addSighandler(SIGHUP, true, [&](int) { log += 'h'; });
  runner_->addSighandler(SIGUSR1, true, [&, capture](int) {
    log += 'u';
    runner_->removeSighandler(SIGHUP, true);
    runner_->removeSighandler(SIGUSR1, true);
    EXPECT_EQ(capture.size(), 64u);  // still alive after its removal
  });
  runner_->addSighandler(SIGWINCH, true, [&](int) { log += 'w', runner_->removeSighandler(SIGWINCH, true); });
  for (int sig : {SIGUSR1, SIGHUP, SIGWINCH, SIGUSR1}) raise(sig);
  runner_->step(false);
  EXPECT_EQ(log, "uw");
  EXPECT_EQ(runner_->socketCount(), 0u);
}

TEST_F(RunnerTest, SignalsWaitInThePipeAndAFullPipeDropsTheRest) {
  int calls = 0;
  runner_->addSighandler(SIGUSR1, true, [&](int) { ++calls; });
  for (int i = 0; i < 100; ++i) raise(SIGUSR1);
  runner_->step(false);
  EXPECT_EQ(calls, 100);
  for (int i = 0; i < 20000; ++i) raise(SIGUSR1);  // more than a 64 KiB pipe holds
  runner_->step(false);
  EXPECT_GT(calls, 100);
  EXPECT_LT(calls, 20100);
  raise(SIGUSR1);
  const int before = calls;
  runner_->step(false);
  EXPECT_EQ(calls, before + 1);
  runner_->removeSighandler(SIGUSR1, true);
}

// shutdown() gives back the signals that have callbacks; the destructor runs
// Runner::shutdown (ThinRunner's reaches only its own) and also gives back a
// signal in pipe mode without a callback (its signals are dropped), closing
// the pipe: the fixture checks.
TEST_F(RunnerTest, ShutdownAndTheDestructorGiveTheSignalsBack) {
  runner_->addSighandler(SIGUSR1, true, [](int) {});
  runner_->addSigaction(SIGHUP, true, [](int, siginfo_t*) {});
  EXPECT_TRUE(runner_->setSigaction(SIGWINCH, Runner::kPipe));
  raise(SIGWINCH);
  runner_->step(false);
  EXPECT_EQ(runner_->socketCount(), 1u);
  runner_->shutdown();
  EXPECT_FALSE(throughPipe(SIGUSR1));
  EXPECT_FALSE(throughPipe(SIGHUP));
  EXPECT_TRUE(throughPipe(SIGWINCH));
  runner_->addSighandler(SIGUSR1, true, [](int) {});
  runner_.reset();
}

}  // namespace
}  // namespace kr
