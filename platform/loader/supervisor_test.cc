// Supervision end to end: kr-loader starts kr-loader-testdaemon from its
// configuration; a watching client at address 100 talks to it.
#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <sstream>

#include "platform/loader/test_client.h"

namespace kr::loader {
namespace {

using testing::Client;
constexpr unsigned int kCmdStopMe = 0xFD0001;  // the test daemon's

bool gone(pid_t pid) { return kill(pid, 0) == -1 && errno == ESRCH; }

class loaderSupervisor : public ::testing::Test {
 protected:
  void TearDown() override {
    watcher_.reset();
    if (loader_ && loader_->pid() > 0) {
      EXPECT_EQ(loader_->stop(), 0) << loader_->log();
    }
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child left behind";
  }
  void start(const std::string& config) {
    loader_ = std::make_unique<testing::LoaderProcess>(KR_LOADER_BINARY, dir_.path, config);
    watcher_ = std::make_unique<Client>(loader_->socketPath());
    ASSERT_EQ(watcher_->join(100).get(kReadyAddress), 100u);
  }
  static std::string daemon(unsigned int address, const std::string& options = "") {
    const std::string a = std::to_string(address);
    return "daemon " + a + " always " KR_LOADER_TESTDAEMON " " + a + options + "\n";
  }
  // The daemon's answer {1: pid, 2: generation}, asking again (for 4 s)
  // while nobody holds its address.
  message ping(unsigned int address) {
    for (int i = 0; i < 80; ++i, usleep(50000)) {
      message req, got;
      req.insert_vector(SYS_TO, address);
      setRequestID(req, ++requests_);
      req.insert(SYS_REPLYEXP, true);
      if (!watcher_->send(req) ||
          !watcher_->recvUntil(&got, [&](const message& m) { return m.get(SYS_REQID) == requests_; }))
        break;
      if (!isError(got, nullptr, nullptr)) return got;
    }
    ADD_FAILURE() << "no answer from " << address << "\n" << loader_->log();
    return message();
  }
  unsigned int disconnectReason(unsigned int address) {
    message got;
    const bool ok = watcher_->recvUntil(&got, [&](const message& m) {
      return m.get(SYS_CMD) == CMD_DISCONNECTED && m.get(SYS_FROM) == std::vector<unsigned int>{address};
    });
    EXPECT_TRUE(ok) << "no disconnect notice for " << address << "\n" << loader_->log();
    return got.get(SYS_DREASON, 99);
  }

  testing::TempDir dir_;
  std::unique_ptr<testing::LoaderProcess> loader_;
  std::unique_ptr<Client> watcher_;
  unsigned int requests_ = 0;
};

TEST_F(loaderSupervisor, KilledDaemonIsStartedAgain) {
  start(daemon(50));
  const pid_t first = pid_t(ping(50).get(u32_id(1)));
  ASSERT_GT(first, 0);
  ASSERT_EQ(kill(first, SIGKILL), 0);
  EXPECT_EQ(disconnectReason(50), DREASON_CRASHED);
  const pid_t second = pid_t(ping(50).get(u32_id(1)));  // after a 1 s back-off
  EXPECT_GT(second, 0);
  EXPECT_NE(second, first);
  EXPECT_NE(loader_->log().find("address 50: restart in 1 s"), std::string::npos) << loader_->log();
}

TEST_F(loaderSupervisor, SigtermStopsTheDaemonsInReverseOrderThroughTheLeaveProtocol) {
  const std::string leftLog = dir_.path + "/left";
  start(daemon(50, " --log " + leftLog) + daemon(51, " --log " + leftLog));
  const pid_t p50 = pid_t(ping(50).get(u32_id(1))), p51 = pid_t(ping(51).get(u32_id(1)));
  ASSERT_GT(p50, 0);
  ASSERT_GT(p51, 0);
  EXPECT_EQ(loader_->stop(3000), 0);
  std::stringstream left;
  left << std::ifstream(leftLog).rdbuf();
  EXPECT_EQ(left.str(), "51 left\n50 left\n");
  EXPECT_TRUE(gone(p50));
  EXPECT_TRUE(gone(p51));
  EXPECT_EQ(disconnectReason(51), DREASON_DISCONNECTED);
  EXPECT_EQ(disconnectReason(50), DREASON_DISCONNECTED);
  EXPECT_TRUE(watcher_->closedByPeer());
}

TEST_F(loaderSupervisor, DaemonThatAsksToStopIsRestartedWithWhatItKept) {
  start(daemon(50));
  const message before = ping(50);
  EXPECT_EQ(before.get(u32_id(2)), 0u);
  message stopMe;
  stopMe.insert_vector(SYS_TO, 50);
  stopMe.insert(SYS_CMD, kCmdStopMe);
  ASSERT_TRUE(watcher_->send(stopMe));
  EXPECT_EQ(disconnectReason(50), DREASON_DISCONNECTED);
  const message after = ping(50);
  EXPECT_NE(after.get(u32_id(1)), before.get(u32_id(1)));
  EXPECT_EQ(after.get(u32_id(2)), 1u);  // its persistent data came back
}

TEST_F(loaderSupervisor, DaemonThatRefusesToLeaveIsKilledAfterTheStopTimeout) {
  start("stop-timeout 1\n" + daemon(50, " --refuse"));
  const pid_t pid = pid_t(ping(50).get(u32_id(1)));
  ASSERT_GT(pid, 0);
  const auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(loader_->stop(4000), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(900));
  EXPECT_TRUE(gone(pid));
  EXPECT_EQ(disconnectReason(50), DREASON_CRASHED);
  const std::string log = loader_->log();
  EXPECT_NE(log.find("address 50 (pid " + std::to_string(pid) + ") refuses to leave"), std::string::npos) << log;
  EXPECT_NE(log.find("address 50 did not end within 1 s; killing it"), std::string::npos) << log;
}

}  // namespace
}  // namespace kr::loader
