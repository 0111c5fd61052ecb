// The loader's bus end to end: a real kr-loader in a scratch runtime
// directory, and raw clients on plain sockets.
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

TEST_F(loaderBus, HelloIsAnsweredWithReadyAddressAndPolicy) {
  Client a(loader_->socketPath()), b(loader_->socketPath()), c(loader_->socketPath());
  const message ready = a.join(30);
  EXPECT_EQ(ready.get(SYS_CTRL), kCtrlReady);
  EXPECT_EQ(ready.get(kReadyAddress), 30u);
  EXPECT_EQ(ready.get(kReadyPolicy), kPolicyAll);  // same uid as the loader
  EXPECT_FALSE(ready.has(kReadyPermData));
  const unsigned int first = b.join(0).get(kReadyAddress), second = c.join(0).get(kReadyAddress);
  EXPECT_TRUE(isDynamicAddress(first) && isDynamicAddress(second)) << first << " " << second;
  EXPECT_NE(first, second);
}

TEST_F(loaderBus, RoutingPrefixesTheSenderAndTheReplyFindsItsWayBack) {
  auto a = join(30), b = join(31);
  message m = request({31, 7}, 9, {5});
  m.insert(SYS_POLICY, kPolicyRead);  // whatever the sender claims is replaced
  m.insert(kDescriptorField, 12);     // only SCM_RIGHTS carries a descriptor
  ASSERT_TRUE(a->send(m));
  message got;
  ASSERT_TRUE(b->recv(&got));
  EXPECT_EQ(got.get(SYS_TO), Path{7});
  EXPECT_EQ(got.get(SYS_FROM), (Path{30, 5}));
  EXPECT_EQ(got.get(SYS_POLICY), kPolicyAll);
  EXPECT_FALSE(got.has(kDescriptorField));
  EXPECT_EQ(got.get(SYS_CMD), 0x1234u);

  message reply;
  reply.insert(SYS_TO, got.get(SYS_FROM));
  setType(reply, TYPE_REPLY);
  setRequestID(reply, 9);
  ASSERT_TRUE(b->send(reply));
  ASSERT_TRUE(a->recv(&got));
  EXPECT_TRUE(isReply(got));
  EXPECT_EQ(got.get(SYS_REQID), 9u);
  EXPECT_EQ(got.get(SYS_TO), Path{5});
  EXPECT_EQ(got.get(SYS_FROM), Path{31});
}

TEST_F(loaderBus, BroadcastAndPathListsGiveEachTargetItsCopy) {
  auto a = join(30), b = join(31), c = join(32);
  message got;
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
}

TEST_F(loaderBus, LoaderAnswersNoopNotImpAndBrokenPaths) {
  auto a = join(30);
  message got;
  ASSERT_TRUE(a->send(request({kLoaderAddress}, 1, {5}, CMD_NOOP)));
  ASSERT_TRUE(a->recv(&got));
  EXPECT_TRUE(isReply(got));
  EXPECT_EQ(errorOf(got), ERROR_OK);
  EXPECT_EQ(got.get(SYS_TO), Path{5});
  EXPECT_EQ(got.get(SYS_FROM), Path{kLoaderAddress});
  ASSERT_TRUE(a->send(request({kLoaderAddress}, 2, {5}, CMD_GETALL)));
  ASSERT_TRUE(a->recv(&got));
  EXPECT_EQ(errorOf(got), ERROR_NOTIMP);
  EXPECT_EQ(got.get(SYS_REQID), 2u);

  ASSERT_TRUE(a->send(to({99, 4})));  // no reply expected: dropped quietly
  ASSERT_TRUE(a->send(request({99, 4}, 3, {6})));
  ASSERT_TRUE(a->recv(&got));
  EXPECT_EQ(errorOf(got), ERROR_BRKPATH);
  EXPECT_TRUE(isReply(got));
  EXPECT_EQ(got.get(SYS_REQID), 3u);
  EXPECT_EQ(got.get(SYS_TO), Path{6});
  EXPECT_EQ(got.get(SYS_FROM), (Path{99, 4}));
}

TEST_F(loaderBus, DescriptorTravelsWithItsOwnFrame) {
  auto a = join(30), b = join(31);
  int p[2];
  ASSERT_EQ(pipe(p), 0);
  ASSERT_TRUE(a->send(to({31}, 1)));
  ASSERT_TRUE(a->send(to({31}, 2), p[0]));
  ASSERT_TRUE(a->send(to({31}, 3)));
  close(p[0]);
  int passed = -1;
  for (unsigned int cmd = 1; cmd <= 3; ++cmd) {
    message got;
    int fd = -1;
    ASSERT_TRUE(b->recv(&got, 2000, &fd));
    EXPECT_EQ(got.get(SYS_CMD), cmd);
    EXPECT_EQ(fd >= 0, cmd == 2) << "frame " << cmd;
    if (cmd == 2) std::swap(passed, fd);
    if (fd >= 0) close(fd);
  }
  char c = 0;
  ASSERT_GE(passed, 0);
  ASSERT_EQ(write(p[1], "x", 1), 1);
  EXPECT_EQ(read(passed, &c, 1), 1);
  EXPECT_EQ(c, 'x');
  close(passed);
  close(p[1]);
}

TEST_F(loaderBus, DisconnectNoticeTellsALeaveFromACrash) {
  auto a = join(30);
  message got;
  join(31)->close();  // no leave
  EXPECT_EQ(notice(*a, 31), DREASON_CRASHED);

  auto b = join(32);  // leaves (control 2): the loader closes it
  ASSERT_TRUE(b->send(testing::control(kCtrlLeaving)));
  EXPECT_TRUE(b->closedByPeer());
  EXPECT_EQ(notice(*a, 32), DREASON_DISCONNECTED);

  auto c = join(33);  // asks to be stopped, gets control 1, ends
  ASSERT_TRUE(c->send(testing::control(kCtrlStopMe)));
  ASSERT_TRUE(c->recv(&got));
  EXPECT_EQ(got.get(SYS_CTRL), kCtrlLeave);
  c->close();
  EXPECT_EQ(notice(*a, 33), DREASON_DISCONNECTED);

  auto d = join(34);  // the same, but it refused before it ended
  ASSERT_TRUE(d->send(testing::control(kCtrlStopMe)));
  ASSERT_TRUE(d->recv(&got));
  ASSERT_TRUE(d->send(testing::control(kCtrlRefuse)));
  EXPECT_TRUE(quiet(*d));
  d->close();
  EXPECT_EQ(notice(*a, 34), DREASON_CRASHED);
}

TEST_F(loaderBus, PersistentDataIsHandedBackOnTheNextHello) {
  const auto leave = [&](unsigned int generation) {
    message leaving = testing::control(kCtrlLeaving), data;
    data.insert(u32_id(1), generation);
    std::vector<unsigned char> flat;
    data.flatten(flat);
    if (generation) leaving.insert(kLeavePermData, flat);
    auto b = join(31);
    ASSERT_TRUE(b->send(leaving));
    EXPECT_TRUE(b->closedByPeer());
  };
  leave(77);
  Client b(loader_->socketPath());
  const message ready = b.join(31);
  ASSERT_TRUE(ready.has(kReadyPermData));
  EXPECT_EQ(ready.get(kReadyPermData).get(u32_id(1)), 77u);
  b.close();
  leave(0);  // leaving with nothing forgets it
  Client c(loader_->socketPath());
  EXPECT_FALSE(c.join(31).has(kReadyPermData));
}

TEST_F(loaderBus, BadClientsAreDroppedAndTheOthersKeepWorking) {
  auto a = join(30), b = join(31);
  const std::vector<std::vector<unsigned char>> garbage = {
      {0xFF, 0xFF, 0xFF, 0xFF, 1, 2, 3},  // over-long length
      {0, 0, 0, 0},                       // length 0
      {0, 0, 0, 4, 'X', 'X', 'X', 'X'},   // not a flat message
  };
  for (unsigned int i = 0; i < garbage.size(); ++i) {
    auto evil = join(40 + i);
    ASSERT_TRUE(evil->sendRaw(garbage[i]));
    EXPECT_TRUE(evil->closedByPeer()) << i;
    EXPECT_EQ(notice(*a, 40 + i), DREASON_CRASHED);
    message got;
    ASSERT_TRUE(a->send(to({31}, 50 + i)));
    ASSERT_TRUE(b->recvUntil(&got, [](const message& m) { return m.get(SYS_CMD) != CMD_DISCONNECTED; }));
    EXPECT_EQ(got.get(SYS_CMD), 50 + i);
  }
  const std::string log = loader_->log();
  EXPECT_NE(log.find("address 40 (pid "), std::string::npos) << log;
  for (const char* why : {"bad frame length 4294967295", "bad frame length 0", "malformed message"})
    EXPECT_NE(log.find(std::string("dropped: ") + why), std::string::npos) << log;
}

TEST_F(loaderBus, ClientThatStopsReadingIsDropped) {
  auto a = join(30), slow = join(31);
  message big = to({31});
  big.insert(raw_id(1), std::vector<unsigned char>(60000, 0xAB));
  for (int i = 0; i < 64; ++i) ASSERT_TRUE(a->send(big)) << i;  // far past the 1 MiB queue
  EXPECT_EQ(notice(*a, 31), DREASON_CRASHED);
  EXPECT_TRUE(quiet(*a));
  EXPECT_NE(loader_->log().find("address 31 (pid " + std::to_string(getpid()) + ") dropped: output queue full"),
            std::string::npos)
      << loader_->log();
}

TEST_F(loaderBus, SpeakingBeforeTheHelloOrAskingForATakenAddressIsRefused) {
  auto a = join(30);
  Client early(loader_->socketPath());
  ASSERT_TRUE(early.send(to({30})));
  EXPECT_TRUE(early.closedByPeer());
  for (unsigned int address : {30u, kLoaderAddress, kDynamicFirst, kBroadcastAddress}) {
    Client c(loader_->socketPath());
    ASSERT_TRUE(c.send(testing::hello(address)));
    EXPECT_TRUE(c.closedByPeer()) << address;
  }
  EXPECT_TRUE(quiet(*a));
}

TEST_F(loaderBus, MonitorSeesEveryDeliveryButNotItsOwnTraffic) {
  auto a = join(30), b = join(31), mon = std::make_unique<Client>(loader_->socketPath());
  mon->join(0);
  message got, event;
  ASSERT_TRUE(mon->send(request({kLoaderAddress}, 5, {9}, kMonitorCmd)));
  ASSERT_TRUE(mon->recv(&got));
  EXPECT_TRUE(isReply(got));
  EXPECT_EQ(errorOf(got), ERROR_OK);
  EXPECT_EQ(got.get(SYS_REQID), 5u);

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

  ASSERT_TRUE(a->send(request({99}, 2, {5})));  // the loader's own answer
  ASSERT_TRUE(a->recv(&got));
  ASSERT_TRUE(mon->recv(&event));
  EXPECT_EQ(event.get(kMonitorSender), kLoaderAddress);
  EXPECT_EQ(event.get(kMonitorReceiver), 30u);
  EXPECT_EQ(errorOf(event.get(kMonitorFrame)), ERROR_BRKPATH);

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

  a->close();
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
