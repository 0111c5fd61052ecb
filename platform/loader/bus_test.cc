// The loader's bus end to end: a real kr-loader in a scratch runtime
// directory, and raw clients on plain sockets. (Descriptors through the
// loader: tests/e2e/bus_e2e_test.cc.)
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>

#include "platform/loader/test_client.h"

namespace kr::loader {
namespace {

using testing::Client;
using testing::quiet;
using Path = std::vector<unsigned int>;

message to(Path path, unsigned int cmd = 0x1234) {
  message m;
  m.insert(SYS_TO, std::move(path));
  m.insert(SYS_CMD, cmd);
  return m;
}

message request(Path path, unsigned int id, Path from, unsigned int cmd = 0x1234) {
  message m = to(std::move(path), cmd);
  setRequestID(m, id);
  m.insert(SYS_REPLYEXP, true);
  m.insert(SYS_FROM, std::move(from));
  return m;
}

unsigned int errorOf(const message& m) {
  unsigned int code = ERROR_OK;
  isError(m, &code, nullptr);
  return code;
}

class loaderBus : public ::testing::Test {
 protected:
  void SetUp() override { start(""); }
  void TearDown() override {
    EXPECT_EQ(loader_->stop(), 0) << loader_->log();
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child left behind";
  }
  void start(const std::string& config) {
    loader_.reset();
    loader_ = std::make_unique<testing::LoaderProcess>(KR_LOADER_BINARY, dir_.path, config);
  }
  std::unique_ptr<Client> join(unsigned int address) {
    auto c = std::make_unique<Client>(loader_->socketPath());
    EXPECT_EQ(c->join(address).get(kReadyAddress), address);
    return c;
  }
  // The DREASON of the next disconnect notice for `address` that `c` gets.
  static unsigned int notice(Client& c, unsigned int address) {
    message m;
    EXPECT_TRUE(c.recvUntil(&m, [&](const message& n) {
      return n.get(SYS_CMD) == CMD_DISCONNECTED && n.get(SYS_FROM) == Path{address};
    })) << "no notice for " << address;
    return m.get(SYS_DREASON, 99);
  }

  testing::TempDir dir_;
  std::unique_ptr<testing::LoaderProcess> loader_;
};

TEST_F(loaderBus, HelloGetsAddressAndPolicyAndABadOrMissingHelloEndsTheConnection) {
  Client a(loader_->socketPath()), b(loader_->socketPath()), c(loader_->socketPath());
  const message ready = a.join(30);
  EXPECT_EQ(ready.get(SYS_CTRL), kCtrlReady);
  EXPECT_EQ(ready.get(kReadyAddress), 30u);
  EXPECT_EQ(ready.get(kReadyPolicy), kPolicyAll);  // same uid as the loader
  EXPECT_FALSE(ready.has(kReadyPermData));
  const unsigned int first = b.join(0).get(kReadyAddress), second = c.join(0).get(kReadyAddress);
  EXPECT_TRUE(isDynamicAddress(first) && isDynamicAddress(second)) << first << " " << second;
  EXPECT_NE(first, second);

  Client early(loader_->socketPath());
  ASSERT_TRUE(early.send(to({30})));
  EXPECT_TRUE(early.closedByPeer());
  for (unsigned int address : {30u, kLoaderAddress, kDynamicFirst, kBroadcastAddress}) {
    Client taken(loader_->socketPath());
    ASSERT_TRUE(taken.send(testing::hello(address)));
    EXPECT_TRUE(taken.closedByPeer()) << address;
  }
  EXPECT_TRUE(quiet(a));
}

TEST_F(loaderBus, RoutingToOneAllOrAListPrefixesTheSenderAndTheLoaderAnswersTheRest) {
  auto a = join(30), b = join(31), c = join(32);
  message m = request({31, 7}, 9, {5}), got;
  m.insert(SYS_POLICY, kPolicyRead);  // whatever the sender claims is replaced
  m.insert(kDescriptorField, 12);     // only SCM_RIGHTS carries a descriptor
  ASSERT_TRUE(a->send(m));
  ASSERT_TRUE(b->recv(&got));
  EXPECT_EQ(got.get(SYS_TO), Path{7});
  EXPECT_EQ(got.get(SYS_FROM), (Path{30, 5}));
  EXPECT_EQ(got.get(SYS_POLICY), kPolicyAll);
  EXPECT_FALSE(got.has(kDescriptorField));
  EXPECT_EQ(got.get(SYS_CMD), 0x1234u);

  ASSERT_TRUE(a->send(to({kBroadcastAddress, 9})));
  for (Client* other : {b.get(), c.get()}) {
    ASSERT_TRUE(other->recv(&got));
    EXPECT_EQ(got.get(SYS_TO), Path{9});
    EXPECT_EQ(got.get(SYS_FROM), Path{30});
  }
  EXPECT_TRUE(quiet(*a)) << "the sender got its own broadcast";

  ASSERT_TRUE(a->send(request({kListAddress, 2, 31, 7, 1, 32, 1, 99, 1, kSelfAddress}, 4, {6})));
  ASSERT_TRUE(b->recv(&got));
  EXPECT_EQ(got.get(SYS_TO), Path{7});
  EXPECT_EQ(got.get(SYS_FROM), (Path{30, 6}));
  ASSERT_TRUE(c->recv(&got));
  EXPECT_FALSE(got.has(SYS_TO));
  EXPECT_EQ(got.get(SYS_FROM), (Path{30, 6}));
  ASSERT_TRUE(a->recv(&got));  // nobody holds 99
  EXPECT_EQ(errorOf(got), ERROR_BRKPATH);
  EXPECT_EQ(got.get(SYS_FROM), Path{99});
  EXPECT_TRUE(quiet(*a)) << "its own path (0xFF0003) is its own business";

  ASSERT_TRUE(a->send(to({99, 4})));  // no reply expected: dropped quietly
  ASSERT_TRUE(a->send(request({99, 4}, 3, {6})));
  ASSERT_TRUE(a->recv(&got));
  EXPECT_EQ(errorOf(got), ERROR_BRKPATH);
  EXPECT_EQ(got.get(SYS_REQID), 3u);
  EXPECT_EQ(got.get(SYS_TO), Path{6});
  EXPECT_EQ(got.get(SYS_FROM), (Path{99, 4}));
  ASSERT_TRUE(a->send(request({kLoaderAddress}, 2, {5}, CMD_GETALL)));
  ASSERT_TRUE(a->recv(&got));
  EXPECT_EQ(errorOf(got), ERROR_NOTIMP);
}

TEST_F(loaderBus, DisconnectNoticeTellsALeaveFromACrash) {
  auto a = join(30), b = join(32);  // b leaves (control 2): the loader closes it
  ASSERT_TRUE(b->send(testing::control(kCtrlLeaving)));
  EXPECT_TRUE(b->closedByPeer());
  EXPECT_EQ(notice(*a, 32), DREASON_DISCONNECTED);
  // Asks to be stopped, gets control 1 and ends; or refuses first, and then
  // ending is a crash as any end without a leave is.
  for (const bool refuse : {false, true}) {
    auto c = join(33 + refuse);
    message got;
    ASSERT_TRUE(c->send(testing::control(kCtrlStopMe)));
    ASSERT_TRUE(c->recv(&got));
    EXPECT_EQ(got.get(SYS_CTRL), kCtrlLeave);
    if (refuse) { ASSERT_TRUE(c->send(testing::control(kCtrlRefuse)) && quiet(*c)); }
    c->close();
    EXPECT_EQ(notice(*a, 33 + refuse), refuse ? DREASON_CRASHED : DREASON_DISCONNECTED);
  }
}

TEST_F(loaderBus, PersistentDataIsHandedBackOnTheNextHelloAndForgottenOnAnEmptyLeave) {
  for (unsigned int generation : {77u, 0u}) {
    message leaving = testing::control(kCtrlLeaving), data;
    data.insert(u32_id(1), generation);
    std::vector<unsigned char> flat;
    data.flatten(flat);
    if (generation) leaving.insert(kLeavePermData, flat);
    auto b = join(31);
    ASSERT_TRUE(b->send(leaving));
    EXPECT_TRUE(b->closedByPeer());
    Client again(loader_->socketPath());
    const message ready = again.join(31);
    EXPECT_EQ(ready.has(kReadyPermData), generation != 0);
    EXPECT_EQ(ready.get(kReadyPermData).get(u32_id(1)), generation);
  }
}

TEST_F(loaderBus, BadClientsAreDroppedAndTheOthersKeepWorking) {
  auto a = join(30), b = join(31);
  const std::vector<std::vector<unsigned char>> garbage = {
      {0xFF, 0xFF, 0xFF, 0xFF, 1, 2, 3},  // over-long length
      {0, 0, 0, 4, 'X', 'X', 'X', 'X'},   // not a flat message
  };
  for (unsigned int i = 0; i < garbage.size(); ++i) {
    auto evil = join(40 + i);
    ASSERT_TRUE(evil->sendRaw(garbage[i]));
    EXPECT_TRUE(evil->closedByPeer()) << i;
    EXPECT_EQ(notice(*a, 40 + i), DREASON_CRASHED);
  }
  message big = to({31});  // the others still get through, until 31 stops reading
  big.insert(raw_id(1), std::vector<unsigned char>(60000, 0xAB));
  for (int i = 0; i < 64; ++i) ASSERT_TRUE(a->send(big)) << i;  // far past the 1 MiB queue
  EXPECT_EQ(notice(*a, 31), DREASON_CRASHED);
  EXPECT_TRUE(quiet(*a));
  const std::string dropped = " (pid " + std::to_string(getpid()) + ") dropped: ";
  for (const std::string& why : {"40" + dropped + "bad frame length 4294967295", "41" + dropped + "malformed message",
                                "31" + dropped + "output queue full"})
    EXPECT_NE(loader_->log().find("address " + why), std::string::npos) << loader_->log();
}

TEST_F(loaderBus, MonitorSeesEveryDeliveryButNotItsOwnTraffic) {
  auto a = join(30), b = join(31), mon = join(41);
  message got, event;
  ASSERT_TRUE(mon->send(request({kLoaderAddress}, 5, {9}, kMonitorCmd)));
  ASSERT_TRUE(mon->recv(&got) && isReply(got));
  EXPECT_EQ(errorOf(got), ERROR_OK);

  ASSERT_TRUE(a->send(request({31, 7}, 1, {5})));
  ASSERT_TRUE(b->recv(&got));
  ASSERT_TRUE(mon->recv(&event));
  EXPECT_EQ(event.get(SYS_TO), Path{9});  // to the handler that asked
  EXPECT_EQ(event.get(SYS_CMD), kMonitorEvent);
  EXPECT_EQ(event.get(kMonitorSender), 30u);
  EXPECT_EQ(event.get(kMonitorReceiver), 31u);
  const message frame = event.get(kMonitorFrame);
  EXPECT_EQ(frame.get(SYS_TO), Path{7});  // as delivered
  EXPECT_EQ(frame.get(SYS_FROM), (Path{30, 5}));
  EXPECT_EQ(frame.get(SYS_POLICY), kPolicyAll);

  message big = to({31});
  big.insert(raw_id(1), std::vector<unsigned char>(65480, 0xAB));  // fits, but not inside an event
  ASSERT_TRUE(a->send(big));
  ASSERT_TRUE(b->recv(&got));
  ASSERT_TRUE(mon->recv(&event));
  EXPECT_FALSE(event.has(kMonitorFrame));
  EXPECT_GT(event.get(kMonitorFrameLength), 65480u);

  ASSERT_TRUE(mon->send(to({31})));  // neither its own frames nor answers to it
  ASSERT_TRUE(b->recv(&got));
  EXPECT_TRUE(quiet(*mon));

  a->close();  // what the loader itself sends is seen too
  EXPECT_TRUE(mon->recvUntil(&event, [](const message& e) {
    return e.get(kMonitorReceiver) == 31 && e.get(kMonitorFrame).get(SYS_CMD) == CMD_DISCONNECTED;
  }));
  EXPECT_EQ(event.get(kMonitorSender), kLoaderAddress);
}

TEST_F(loaderBus, OtherUsersAreReadOnlyWhateverTheyClaim) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to become another user";
  constexpr uid_t kNobody = 65534;
  start("socket-group " + std::to_string(kNobody) + "\n");
  ASSERT_EQ(chmod(dir_.path.c_str(), 0711), 0);
  auto a = join(30);
  const pid_t pid = fork();
  if (pid == 0) {  // exits with a bit per failed check
    if (setgroups(0, nullptr) != 0 || setgid(kNobody) != 0 || setuid(kNobody) != 0) _exit(100);
    Client c(loader_->socketPath()), fixed(loader_->socketPath());
    const message ready = c.join(0);
    message m = to({30});
    m.insert(SYS_POLICY, kPolicyAll);
    message monitor;  // watching the bus is for trusted peers only
    const bool refused = c.send(request({kLoaderAddress}, 1, {9}, kMonitorCmd)) && c.recv(&monitor) &&
                         errorOf(monitor) == ERROR_NOTALLOWED;
    _exit((ready.get(kReadyPolicy) == kPolicyRead ? 0 : 1) | (isDynamicAddress(ready.get(kReadyAddress)) ? 0 : 2) |
          (c.send(m) && quiet(c) ? 0 : 4) | (fixed.send(testing::hello(35)) && fixed.closedByPeer() ? 0 : 8) |
          (refused ? 0 : 16));
  }
  message got;
  ASSERT_TRUE(a->recv(&got));
  EXPECT_EQ(got.get(SYS_POLICY), kPolicyRead);
  ASSERT_EQ(got.size(SYS_FROM), 1u);
  EXPECT_TRUE(isDynamicAddress(got.get(SYS_FROM)[0]));
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

}  // namespace
}  // namespace kr::loader
