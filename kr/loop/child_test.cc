#include "kr/loop/child.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "kr/loop/runner.h"

namespace {

// A real child process. It exits with `code` once released; a negative
// code makes it sleep until a signal ends it.
struct Kid {
  int pid = -1;
  int gate = -1;

  explicit Kid(int code) {
    int fds[2];
    if (pipe(fds) != 0) std::abort();
    pid = fork();
    if (pid == 0) {
      close(fds[1]);
      char c;
      if (code < 0) {
        for (;;) pause();
      }
      _exit(read(fds[0], &c, 1) == 1 ? code : 99);
    }
    close(fds[0]);
    gate = fds[1];
  }
  ~Kid() {
    if (gate >= 0) close(gate);
  }
  // A byte, not EOF: later kids hold copies of this gate.
  void release() {
    if (write(gate, "x", 1) != 1) std::abort();
  }
  std::string str() const { return std::to_string(pid); }
};

struct Recorder : Parent {
  std::vector<std::pair<int, Child*>> died;
  void childDied(int status, Child* child) override { died.emplace_back(status, child); }
};

template <class F>
bool stepUntil(kr::Runner& r, F done) {
  for (int i = 0; i < 200 && !done(); ++i) {
    r.step(false);
    if (!done()) usleep(10000);
  }
  return done();
}

// Every test leaves no SIGCHLD handler, no registered socket and no child.
class ParentTest : public ::testing::Test {
 protected:
  void SetUp() override {
    sigaction(SIGCHLD, nullptr, &before_);
    runner_ = std::make_unique<kr::Runner>();
  }
  void TearDown() override {
    EXPECT_EQ(runner_->socketCount(), 0u);
    struct sigaction now {};
    sigaction(SIGCHLD, nullptr, &now);
    EXPECT_EQ(now.sa_handler, before_.sa_handler);
    runner_.reset();
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child left behind";
  }

  std::unique_ptr<kr::Runner> runner_;
  struct sigaction before_ {};
};

TEST_F(ParentTest, ReapsAnExitedChildAndReportsItsStatus) {
  Recorder parent;
  parent.verbose = true;
  Kid kid(3);
  Child child(kid.pid);
  testing::internal::CaptureStdout();
  parent.addChild(&child);
  kid.release();
  const bool died = stepUntil(*runner_, [&] { return !parent.died.empty(); });
  const std::string out = testing::internal::GetCapturedStdout();
  ASSERT_TRUE(died);
  EXPECT_TRUE(WIFEXITED(parent.died[0].first));
  EXPECT_EQ(WEXITSTATUS(parent.died[0].first), 3);
  EXPECT_EQ(parent.died[0].second, &child);
  EXPECT_EQ(out, "addChild: " + kid.str() + "\nsigChild: child died " + kid.str() + " status 0x300\n");
  EXPECT_TRUE(parent.children().empty());
}

TEST_F(ParentTest, TheHandlerStaysUntilTheLastChildDies) {
  Recorder parent;
  Kid first(1), second(2);
  Child a(first.pid), replaced(first.pid), b(second.pid);
  parent.addChild(&a);
  parent.addChild(&replaced);
  parent.addChild(&b);
  first.release();
  ASSERT_TRUE(stepUntil(*runner_, [&] { return parent.died.size() == 1; }));
  EXPECT_EQ(parent.died[0].second, &replaced);
  EXPECT_EQ(runner_->socketCount(), 1u);
  second.release();
  ASSERT_TRUE(stepUntil(*runner_, [&] { return parent.died.size() == 2; }));
  EXPECT_EQ(WEXITSTATUS(parent.died[1].first), 2);
}

TEST_F(ParentTest, KillChildKillsWithoutCallingChildDied) {
  Recorder parent;
  Kid kid(-1);
  Child child(kid.pid);
  parent.addChild(&child);
  parent.verbose = true;
  testing::internal::CaptureStdout();
  const bool killed = parent.killChild(kid.pid);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "killChild: killing " + kid.str() + "\n");
  EXPECT_TRUE(killed);
  EXPECT_EQ(waitpid(kid.pid, nullptr, WNOHANG), -1);  // reaped already
  EXPECT_TRUE(parent.children().empty());
  for (int i = 0; i < 5; ++i) runner_->step(false);
  EXPECT_TRUE(parent.died.empty());
}

TEST_F(ParentTest, UnknownPidsAreReportedEvenWhenQuiet) {
  Recorder parent;
  Kid known(-1);
  Child child(known.pid);
  parent.addChild(&child);
  Kid stranger(0);
  testing::internal::CaptureStdout();
  stranger.release();
  stepUntil(*runner_, [&] { return kill(stranger.pid, 0) != 0; });  // a zombie still answers
  const std::string me = std::to_string(getpid());
  EXPECT_FALSE(parent.killChild(-1));
  EXPECT_FALSE(parent.sendSignal(-1, SIGTERM));
  EXPECT_FALSE(parent.killChild(getpid()));
  EXPECT_FALSE(parent.sendSignal(getpid(), SIGTERM));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "sigChld: unknown child died " + stranger.str() +
                                                        "\nkillChild: pid not found: " + me +
                                                        "\nsendSignal: pid not found: " + me + "\n");
  EXPECT_TRUE(parent.died.empty());
  EXPECT_TRUE(parent.killChild(known.pid));
}

TEST_F(ParentTest, SendSignalReachesAChild) {
  Recorder parent;
  Kid kid(-1);
  Child child(kid.pid);
  parent.addChild(&child);
  EXPECT_TRUE(parent.sendSignal(kid.pid, SIGTERM));
  ASSERT_TRUE(stepUntil(*runner_, [&] { return !parent.died.empty(); }));
  EXPECT_TRUE(WIFSIGNALED(parent.died[0].first));
  EXPECT_EQ(WTERMSIG(parent.died[0].first), SIGTERM);
}

// The Parent goes away inside its own callback, with a child still
// registered: reaping stops and the handler is given back.
TEST_F(ParentTest, ChildDiedMayDestroyTheParent) {
  struct SelfDeleting : Parent {
    int* deaths;
    explicit SelfDeleting(int* d) : deaths(d) {}
    void childDied(int, Child*) override {
      ++*deaths;
      delete this;
    }
  };
  int deaths = 0;
  auto* parent = new SelfDeleting(&deaths);
  Kid first(0), second(0);
  Child a(first.pid), b(second.pid);
  parent->addChild(&a);
  parent->addChild(&b);
  first.release();
  second.release();
  siginfo_t info;
  for (int pid : {first.pid, second.pid}) waitid(P_PID, pid, &info, WEXITED | WNOWAIT);  // both dead
  ASSERT_TRUE(stepUntil(*runner_, [&] { return deaths > 0; }));
  for (int i = 0; i < 5; ++i) runner_->step(false);
  EXPECT_EQ(deaths, 1);
  EXPECT_GT(waitpid(-1, nullptr, 0), 0);  // the other one is ours to reap
}

}  // namespace
