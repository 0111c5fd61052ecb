#include "kr/loop/child.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "kr/loop/runner.h"

namespace {

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

// A real child process; it lives until a signal ends it, at the latest
// when the test process dies.
int spawn() {
  const int pid = fork();
  if (pid < 0) std::abort();  // never kill(-1, ...)
  if (pid == 0 && prctl(PR_SET_PDEATHSIG, SIGKILL) == 0) for (;;) pause();
  if (pid == 0) _exit(1);
  return pid;
}

struct Recorder : Parent {
  std::vector<std::pair<int, Child*>> died;
  void childDied(int status, Child* child) override { died.emplace_back(status, child); }
};

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
  template <class F>
  bool stepUntil(F done) {
    for (int i = 0; i < 200 && !done(); ++i) runner_->step(false), usleep(10000);
    return done();
  }

  std::unique_ptr<kr::Runner> runner_;
  struct sigaction before_ {};
};

// Parent reaps with waitpid(-1): children it was not told about are reaped
// too, and reported even when it is quiet. A second entry for a pid replaces
// the first; the handler stays until the last child is gone.
TEST_F(ParentTest, ReapsKillsAndSignalsItsChildrenAndReportsStrangers) {
  Recorder parent;
  const int first = spawn(), second = spawn(), third = spawn(), stranger = spawn();
  Child a(first), replaced(first), b(second), c(third);
  parent.verbose = true;
  CaptureStdout();
  for (Child* child : {&a, &replaced, &b, &c}) parent.addChild(child);
  parent.verbose = false;
  kill(stranger, SIGKILL);
  stepUntil([&] { return kill(stranger, 0) != 0; });  // a zombie still answers
  EXPECT_FALSE(parent.killChild(-1));
  EXPECT_FALSE(parent.sendSignal(-1, SIGTERM));
  EXPECT_FALSE(parent.killChild(getpid()));
  EXPECT_FALSE(parent.sendSignal(getpid(), SIGTERM));
  parent.verbose = true;
  EXPECT_TRUE(parent.killChild(third));  // reaped at once, and no childDied()
  EXPECT_EQ(waitpid(third, nullptr, WNOHANG), -1);
  EXPECT_TRUE(parent.sendSignal(first, SIGTERM));
  const bool reaped = stepUntil([&] { return parent.died.size() == 1; });
  auto s = [](int pid) { return std::to_string(pid); };
  const std::string me = s(getpid());
  EXPECT_EQ(GetCapturedStdout(), "addChild: " + s(first) + "\naddChild: " + s(first) + "\naddChild: " + s(second) +
                                     "\naddChild: " + s(third) + "\nsigChld: unknown child died " + s(stranger) +
                                     "\nkillChild: pid not found: " + me + "\nsendSignal: pid not found: " + me +
                                     "\nkillChild: killing " + s(third) + "\nsigChild: child died " + s(first) +
                                     " status 0xf\n");
  ASSERT_TRUE(reaped);
  EXPECT_TRUE(WIFSIGNALED(parent.died[0].first) && WTERMSIG(parent.died[0].first) == SIGTERM);
  EXPECT_EQ(parent.died[0].second, &replaced);
  EXPECT_EQ(runner_->socketCount(), 1u);
  kill(second, SIGKILL);
  ASSERT_TRUE(stepUntil([&] { return parent.died.size() == 2; }));
  EXPECT_EQ(parent.died[1].second, &b);
  EXPECT_TRUE(parent.children().empty());
}

// The Parent goes away inside its own callback, with a child still
// registered: reaping stops and the handler is given back.
TEST_F(ParentTest, ChildDiedMayDestroyTheParent) {
  static int deaths;
  deaths = 0;
  struct SelfDeleting : Parent { void childDied(int, Child*) override { ++deaths, delete this; } };
  auto* parent = new SelfDeleting;
  const int first = spawn(), second = spawn();
  Child a(first), b(second);
  parent->addChild(&a);
  parent->addChild(&b);
  siginfo_t info;
  for (int pid : {first, second}) kill(pid, SIGKILL), waitid(P_PID, pid, &info, WEXITED | WNOWAIT);  // both dead
  ASSERT_TRUE(stepUntil([&] { return deaths > 0; }));
  for (int i = 0; i < 5; ++i) runner_->step(false);
  EXPECT_EQ(deaths, 1);
  EXPECT_GT(waitpid(-1, nullptr, 0), 0);  // the other one is ours to reap
}

}  // namespace
