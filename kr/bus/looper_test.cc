#include "kr/bus/looper.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <numeric>
#include <set>
#include <string>
#include <vector>

#include "kr/bus/internal/bus_fixture.h"
#include "kr/bus/internal/fake_loader.h"
#include "kr/message/protocol.h"
#include "kr/message/vocabulary.h"
#include "kr/util/runtime_dir.h"

namespace kr {
namespace {

using internal::BusHarness;
using internal::FakeLoader;
using internal::fdOpen;
using internal::RecordingHandler;
using internal::TestLooper;
using Path = std::vector<unsigned int>;
using Ctrl = std::pair<int, unsigned int>;  // a control code and its argument

template <class Id, class V>
message with(message m, Id field, V value) {
  m.insert(field, value);
  return m;
}

message to(const Path& path, unsigned int tag = 0) {
  message m = with(message(), SYS_TO, path);
  if (tag) m.insert(u32_id(1), tag);
  return m;
}

std::pair<unsigned int, std::string> errorOf(const message& m) {
  std::pair<unsigned int, std::string> e;
  isError(m, &e.first, &e.second);
  return e;
}

bool logged(const std::string& part) {
  return testing::internal::GetCapturedStderr().find(part) != std::string::npos;
}

// The seed table, written independently of the Looper's.
std::vector<unsigned char> referenceTable(uint32_t a1, uint32_t v, uint32_t a12) {
  const uint32_t words[3] = {a1, v, a12};
  std::vector<unsigned char> s(256);
  std::iota(s.begin(), s.end(), 0);
  for (unsigned int k = 0, j = 0; k < v % 256 + 1024; ++k) {
    const unsigned char key = static_cast<unsigned char>(words[k % 12 / 4] >> (24 - 8 * (k % 4)));
    j = (j + s[k % 256] + key) % 256;
    std::swap(s[k % 256], s[j]);
  }
  return s;
}

class LooperTest : public internal::BusFixture {};

TEST_F(LooperTest, HandshakeSendsHelloAndKeepsReadyInfoAndSeed) {
  const message seed = with(with(message(), SEED_VALUES, Path{300, 9}), string_id(3), std::string("kept"));
  message ready = with(message(), READY_SEED, seed);
  for (unsigned int id : {1u, 2u, 3u, 6u, 8u}) ready.insert(u32_id(id), 10 + id);
  ready.insert(u64_id(7), 0x123456789ull);
  bus->a1 = 202;
  TestLooper& l = start(ready);
  EXPECT_TRUE(fcntl(l.busSocket(), F_GETFL) & O_NONBLOCK);
  EXPECT_EQ(hello.get(SYS_TO), Path{1});
  EXPECT_EQ(hello.get(SYS_CTRL), 5u);
  EXPECT_EQ(hello.get(HELLO_NUMBERS), (Path{202, 102, 103, 104, 105, 106, 107, 108, 109, 110, 111, 112}));
  const Looper::ReadyInfo& info = l.getReadyInfo();
  EXPECT_EQ((Path{info.id1, info.id2, info.id3, info.id6, info.id8}), (Path{11, 12, 13, 16, 18}));
  EXPECT_EQ(info.id7, 0x123456789ull);
  const message& s = l.getSeedMessage();
  EXPECT_EQ(s.get(string_id(3)), "kept");
  EXPECT_EQ(std::vector<unsigned char>(s.get(SEED_TABLE)), referenceTable(202, 300, BusHarness::kA12));
}

TEST(LooperConnectTest, ConnectsToTheLoaderSocketPath) {
  internal::RuntimeDir dir;  // loaderSocketPath() lies in it
  const std::set<int> fds = internal::openFds();
  const message hello = internal::answerHelloOnSocketPath(
      [] { Looper l(Looper::kConnectPath, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12); });
  EXPECT_EQ(hello.get(SYS_CTRL), 5u);
  EXPECT_EQ(internal::openFds(), fds);
}

void connectAndStep(unsigned int mode) {
  Looper l(mode, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12);
  l.step(false);
  l.step(false);
}

void dieMidFrame() {
  FakeLoader f;
  f.sendReady();
  const std::vector<unsigned char> part = FakeLoader::frameOf(to({30}, 7));
  f.sendBytes(part.data(), part.size() - 1);
  if (!f.installAsFd3()) return;
  Looper l(Looper::kConnectInherited, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12);
  f.pump();  // unread bytes would turn the hang-up into a reset
  f.hangUp();
  l.step(false);
}

TEST(LooperDeathTest, ConnectionFaultsAreFatal) {
  internal::RuntimeDir dir;
  EXPECT_DEATH((internal::parkFd3(), connectAndStep(Looper::kConnectInherited)),
               "LOOPER: didn't get connection to loader");
  EXPECT_DEATH(connectAndStep(Looper::kConnectPath), "connect failed \\(errno=2\\)");
  auto withLoader = [](void (*loader)(FakeLoader&)) {  // set up in the child
    FakeLoader f;
    loader(f);
    if (f.installAsFd3()) connectAndStep(Looper::kConnectInherited);
  };
  EXPECT_DEATH(withLoader([](FakeLoader& f) { f.sendCtrl(CTRL_LEAVE); }),
               "could not receive confirmation to CTRL_READY from loader");
  EXPECT_DEATH(dieMidFrame(), "LOOPER: read_raw read failed: EOF");
  EXPECT_DEATH(withLoader([](FakeLoader& f) {
                 f.sendReady();
                 const unsigned char huge[8] = {0, 1, 0, 0, 0x4d, 0x32, 0, 0};  // 65536 bytes
                 f.sendBytes(huge, sizeof huge);
               }),
               "frame length 65536");
}

TEST_F(LooperTest, ReadsTakeWholeFramesAndOneNonReplyPerEvent) {
  TestLooper& l = start();
  RecordingHandler h;
  l.addHandler(30, &h);
  for (bool replies : {false, true}) {
    std::vector<unsigned char> both;
    for (unsigned int tag : {1u, 2u}) {
      const std::vector<unsigned char> f =
          FakeLoader::frameOf(replies ? with(to({30}, tag), SYS_TYPE, TYPE_REPLY) : to({30}, tag));
      both.insert(both.end(), f.begin(), f.end());
    }
    loader().sendBytes(both.data(), both.size());
    l.step(false);
    EXPECT_EQ(h.got.size(), replies ? 2u : 1u) << "replies " << replies;
    l.step(false);
    ASSERT_EQ(h.got.size(), 2u);
    EXPECT_EQ(h.got[1].get(u32_id(1)), 2u);
    h.got.clear();
  }
  const std::string big(60000, 'x');  // far beyond the receive buffer
  loader().send(with(to({30}), string_id(2), big));
  ASSERT_TRUE(waitFor([&] { return h.got.size() == 1; }));
  EXPECT_EQ(h.got[0].get(string_id(2)), big);
}

// A message to [40] whose flat form is exactly n bytes.
message ofFlatSize(size_t n) {
  message m = with(to({40}), string_id(2), std::string(60000, 'z'));
  std::vector<unsigned char> flat;
  m.flatten(flat);
  return with(m, string_id(2), std::string(60000 + n - flat.size(), 'z'));
}

TEST_F(LooperTest, WritesWaitForTheDispatchPassOr1024BytesAndStopAt64KiB) {
  TestLooper& l = start();
  message m = with(to({40}), string_id(2), std::string(10, 's'));  // made a 64-byte frame
  m.insert(string_id(2), std::string(10 + 64 - FakeLoader::frameOf(m).size(), 's'));
  ASSERT_EQ(FakeLoader::frameOf(m).size(), 64u);
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(l.writeMessage(m));
  EXPECT_EQ(l.txEntries(), 3u);
  turn();  // the dispatch pass flushes
  EXPECT_EQ(loader().frames.size(), 3u);
  unsigned int writes = 0;  // without a turn, the write that brings 1024 bytes flushes
  do {
    l.writeMessage(m);
    ++writes;
  } while (l.txEntries() != 0 && writes < 1000);
  EXPECT_EQ(writes, 16u);
  EXPECT_EQ(loader().pump(), 16u);

  loader().frames.clear();
  const message over = ofFlatSize(65536);
  std::vector<unsigned char> flat;
  over.flatten(flat);
  ASSERT_EQ(flat.size(), 65536u);
  EXPECT_TRUE(l.writeMessage(ofFlatSize(65535)));
  testing::internal::CaptureStderr();
  EXPECT_FALSE(l.writeMessage(over));
  EXPECT_TRUE(logged("LOOPER WARNING: write message too long"));
  EXPECT_EQ(l.txEntries(), 0u);
  ASSERT_TRUE(waitFor([&] { return loader().frames.size() == 1; }));
  EXPECT_EQ(loader().take().bytes.size(), 65535u);
}

bool pipeCarries(int writeEnd, int readEnd) {
  char c = 0;
  return write(writeEnd, "k", 1) == 1 && read(readEnd, &c, 1) == 1 && c == 'k';
}

TEST_F(LooperTest, DescriptorsTravelWithExactlyTheirMessage) {
  TestLooper& l = start();
  RecordingHandler h;
  l.addHandler(30, &h);
  int p[2];
  ASSERT_EQ(pipe(p), 0);
  UniqueFd r(p[0]), w(p[1]);
  for (unsigned int tag : {1u, 2u, 3u}) {  // out: the middle one passes a copy of w
    l.writeMessage(tag == 2 ? with(to({40}, tag), SYS_FD, static_cast<unsigned int>(dup(w.get()))) : to({40}, tag));
  }
  turn();
  ASSERT_EQ(loader().frames.size(), 3u);
  EXPECT_FALSE(loader().frames[0].fd.valid() || loader().frames[2].fd.valid());
  ASSERT_TRUE(loader().frames[1].fd.valid());
  EXPECT_TRUE(pipeCarries(loader().frames[1].fd.get(), r.get()));

  UniqueFd passed(dup(w.get()));
  loader().send(to({30}, 1));
  loader().send(to({30}, 2), passed.get());
  loader().send(with(to({30}, 3), SYS_FD, 1234u));  // names a descriptor, but none comes with it
  passed.reset();
  ASSERT_TRUE(waitFor([&] { return h.got.size() == 3; }));
  EXPECT_FALSE(h.got[0].has(SYS_FD) || h.got[2].has(SYS_FD));
  ASSERT_TRUE(h.got[1].has(SYS_FD));
  UniqueFd received(static_cast<int>(h.got[1].get(SYS_FD)));
  EXPECT_TRUE(pipeCarries(received.get(), r.get()));
}

TEST_F(LooperTest, SendMessageRoutesByTheFirstPathElement) {
  TestLooper& l = start();
  RecordingHandler h10, h30, h31;
  l.addHandler(10, &h10);
  l.addHandler(30, &h30);
  l.addHandler(31, &h31);
  const unsigned int kL = 0xff0003, kAll = 0xff0001, kList = 0xff0002;
  struct Case {
    Path to;
    bool ok;
    size_t at30, at31;
    Path written;  // SYS_TO of the frame written, empty for none
  } cases[] = {
      {{kL, 30}, true, 1, 0, {}},
      {{kAll, 30}, true, 1, 0, {kAll, 30}},
      {{kList, 2, kL, 30, 1, 40, 2, kL, 31}, true, 1, 1, {kList, 1, 40}},
      {{kList, 2, kL, 30}, true, 1, 0, {}},
      {{kList, 0, 5}, false, 0, 0, {}},
      {{kList, 3, kL, 30}, false, 0, 0, {}},
      {{40, 1}, true, 0, 0, {40, 1}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.to));
    message m = to(c.to, 7);
    EXPECT_EQ(h10.sendMessage(m), c.ok);
    turn(3);
    EXPECT_TRUE(h30.got.size() == c.at30 && h31.got.size() == c.at31);
    for (const message& got : h30.got) EXPECT_EQ(got.get(SYS_FROM), (Path{kL, 10}));
    ASSERT_EQ(loader().frames.size(), c.written.empty() ? 0u : 1u);
    EXPECT_EQ(loader().take().m.get(SYS_TO), c.written);
    h30.got.clear(), h31.got.clear();
  }
}

TEST_F(LooperTest, The1001stQueuedMessageIsSpilledWithItsDescriptor) {
  TestLooper& l = start();
  for (int i = 0; i < 1000; ++i) ASSERT_TRUE(l.queueMessage(to({}, 7)));
  int p[2];
  ASSERT_EQ(pipe(p), 0);
  UniqueFd r(p[0]);
  testing::internal::CaptureStderr();
  testing::internal::CaptureStdout();
  EXPECT_FALSE(l.queueMessage(with(to({}, 7), SYS_FD, static_cast<unsigned int>(p[1]))));
  EXPECT_TRUE(logged("full queue, spilled message:"));
  testing::internal::GetCapturedStdout();
  EXPECT_FALSE(fdOpen(p[1]));
  ASSERT_TRUE(bus->settle(l));
  EXPECT_EQ(l.own.size(), 1000u);
}

TEST_F(LooperTest, DispatchByFirstElementAndBrokenPaths) {
  TestLooper& l = start();
  RecordingHandler h30, h31;
  l.addHandler(30, &h30);
  l.addHandler(31, &h31);
  h31.setStrictPath(false);
  enum Kind { kPlain, kRequest, kBrkpathError };
  struct Case {
    Path to;
    Kind kind;
    std::vector<size_t> got;  // by 30, 31 and the Looper
    bool replied;             // ERROR_BRKPATH answered as a reply
    Path answerFrom;          // SYS_FROM of the ERROR_BRKPATH written, if any
  } cases[] = {
      {{30}, kPlain, {1, 0, 0}, false, {}},
      {{30, 5}, kRequest, {0, 0, 0}, true, {30}},
      {{30, 5}, kPlain, {0, 0, 0}, false, {30, 5}},
      {{30, 5}, kBrkpathError, {0, 0, 0}, false, {}},
      {{31, 5}, kPlain, {0, 1, 0}, false, {}},
      {{99}, kRequest, {0, 0, 0}, true, {}},
      {{}, kPlain, {0, 0, 1}, false, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.to) + " kind " + std::to_string(c.kind));
    message m = with(c.kind == kBrkpathError ? errorMsg(ERROR_BRKPATH, "") : to({}, 7), SYS_FROM, Path{77});
    m.insert(SYS_TO, c.to);
    if (c.kind == kRequest) m = with(with(m, SYS_REQID, 4u), SYS_REPLYEXP, true);
    loader().send(m);
    turn(3);
    EXPECT_EQ((std::vector<size_t>{h30.got.size(), h31.got.size(), l.own.size()}), c.got);
    for (const message& g : h31.got) EXPECT_EQ(g.get(SYS_TO), Path{5});
    ASSERT_EQ(loader().frames.size(), c.replied || !c.answerFrom.empty() ? 1u : 0u);
    if (!loader().frames.empty()) {
      const message a = loader().take().m;
      EXPECT_EQ(errorOf(a).first, ERROR_BRKPATH);
      EXPECT_TRUE(a.get(SYS_TO) == Path{77} && isReply(a) == c.replied && a.has(SYS_REQID) == c.replied);
      EXPECT_EQ(a.get(SYS_FROM), c.answerFrom);
    }
    h30.got.clear(), h31.got.clear(), l.own.clear();
  }
}

TEST_F(LooperTest, LeaveSettingsAndRefusalBeforeRun) {
  TestLooper& l = start();
  l.setupLeave(5);  // blocked since birth: nothing is announced
  loader().sendCtrl(CTRL_LEAVE);
  turn(3);
  EXPECT_EQ(loader().nextCtrl(), static_cast<int>(CTRL_CANTLEAVE));
  EXPECT_TRUE(loader().frames.empty());
  EXPECT_FALSE(l.isStopped());
  auto ctrl = [&] {  // the next control message sent, -1 for none
    unsigned int arg = 0;
    loader().pump();
    const int code = loader().nextCtrl(&arg);
    return Ctrl(code, arg);
  };
  l.unblockLeave();
  EXPECT_EQ(ctrl(), Ctrl(CTRL_LEAVESETTING, 5));
  l.blockLeave();
  EXPECT_EQ(ctrl(), Ctrl(CTRL_LEAVESETTING, 0));
  l.blockLeave();  // nested: nothing changes
  l.unblockLeave();
  EXPECT_EQ(ctrl(), Ctrl(-1, 0));
  l.unblockLeave();
  EXPECT_EQ(ctrl(), Ctrl(CTRL_LEAVESETTING, 5));
  l.setupLeave(5);
  EXPECT_EQ(ctrl(), Ctrl(-1, 0));
  l.setupLeave(6);
  EXPECT_EQ(ctrl(), Ctrl(CTRL_LEAVESETTING, 6));
  l.tellLeave();
  EXPECT_EQ(ctrl(), Ctrl(CTRL_TELLLEAVE, 0));
}

TEST_F(LooperTest, RunAnnouncesItselfAndLeavesWithPersistentData) {
  const message d42 = with(message(), u32_id(1), 42u), d43 = with(message(), u32_id(1), 43u);
  message perm = with(message(), PERM_IDS, Path{30, 31});
  perm.insert(PERM_DATA, {d42, d43});
  TestLooper& l = start(with(message(), READY_PERMDATA, perm));
  EXPECT_TRUE(l.hasPermData(Looper::kSelf));
  RecordingHandler h30;
  h30.perm.insert(u32_id(2), 77);
  l.addHandler(30, &h30);  // receives its data as it is registered
  EXPECT_EQ(h30.loaded, std::vector<message>{d42});
  EXPECT_FALSE(l.hasPermData(30));
  l.setupLeave(5);

  std::vector<Ctrl> ctrls;
  message leaving;
  auto onFrame = [&](FakeLoader::Frame& f) {
    unsigned int code;
    if (!isCtrl(f.m, &code)) return;
    ctrls.emplace_back(static_cast<int>(code), f.m.get(SYS_CTRL_ARG));
    if (code == CTRL_LEAVESETTING) loader().sendCtrl(CTRL_LEAVE);
    if (code == CTRL_LEAVING) leaving = f.m;
  };
  loader().attach(l, onFrame);
  Timer guard(200, [&] { ADD_FAILURE() << "run() did not return"; l.stop(); });
  l.run();
  guard.cancel();
  loader().detach();
  loader().pump();
  for (FakeLoader::Frame& f : loader().frames) onFrame(f);
  EXPECT_EQ(ctrls, (std::vector<Ctrl>{{CTRL_RUNNING, 0}, {CTRL_LEAVESETTING, 5}, {CTRL_LEAVING, 1}}));
  const message saved(leaving.get(LEAVE_PERMDATA));
  EXPECT_EQ(saved.get(PERM_IDS), Path{30});
  EXPECT_EQ(saved.get(PERM_DATA), std::vector<message>{h30.perm});
  EXPECT_FALSE(l.hasPermData(Looper::kSelf));
  EXPECT_EQ(l.firstRuns, 1);
  EXPECT_TRUE(std::filesystem::exists(runMarkerPath(program_invocation_short_name)));
}

TEST_F(LooperTest, ShutdownLetsGoOfEverythingButTheBusDescriptor) {
  TestLooper& l = start();
  RecordingHandler h;
  l.addHandler(30, &h);
  message q = to({40});
  const unsigned int id = h.postMessage(q, [](const message&) { ADD_FAILURE() << "called back"; }, 100);
  turn();
  l.shutdown();
  EXPECT_EQ(l.socketCount(), 0u);
  EXPECT_EQ(l.timerCount(), 0u);
  EXPECT_EQ(l.busSocket(), -1);
  EXPECT_TRUE(fdOpen(3));  // the loader watches for the process's end, not a close
  h.cancelPost(id);        // its timer went with the shutdown
  EXPECT_EQ(h.pendingRequests(), 0u);
  close(3);
}

TEST_F(LooperTest, ExchangeWaitsForItsReplyAndQueuesTheRest) {
  TestLooper& l = start();
  RecordingHandler h10;
  l.addHandler(10, &h10);
  // All in the socket before the call; the Looper's first request id is 0.
  const message reply = with(with(to({10}, 99), SYS_TYPE, TYPE_REPLY), SYS_REQID, 0u);
  loader().send(to({10}, 1));
  loader().sendCtrl(CTRL_LEAVE);
  loader().send(with(reply, SYS_REQID, 5u));
  loader().send(reply);
  message q = with(to({40}), SYS_CMD, CMD_GET);
  const message r = h10.exchangeMessage(q, 200);
  EXPECT_EQ(r.get(u32_id(1)), 99u);
  EXPECT_EQ(r.get(SYS_REQID), 0u);
  loader().pump();
  ASSERT_EQ(loader().frames.size(), 2u);
  const message sent = loader().take().m;
  EXPECT_TRUE(sent.get(SYS_FROM) == Path{10} && sent.get(SYS_REPLYEXP));
  EXPECT_EQ(loader().nextCtrl(), static_cast<int>(CTRL_CANTLEAVE));
  EXPECT_EQ(l.queued(), 2u);
  ASSERT_TRUE(waitFor([&] { return h10.got.size() == 2; }));
}

TEST_F(LooperTest, ExchangeAndGetMessageFailures) {
  TestLooper& l = start();
  message empty;
  EXPECT_EQ(errorOf(l.exchangeMessage(empty, 5)), std::make_pair(ERROR_FAILED, std::string("bad_message")));
  EXPECT_EQ(loader().pump(), 0u);
  message q = to({40});
  const unsigned int before = getJiffies();
  EXPECT_EQ(errorOf(l.exchangeMessage(q, 5)).first, ERROR_TIMEOUT);
  EXPECT_GE(getJiffies() - before, 4u);
  EXPECT_EQ(loader().pump(), 1u);  // the request did go

  l.queueMessage(to({}, 3));
  EXPECT_EQ(l.getMessage(0).get(u32_id(1)), 3u);
  loader().sendCtrl(CTRL_LEAVE);
  EXPECT_EQ(errorOf(l.getMessage(100)), std::make_pair(ERROR_FAILED, std::string("control message (1)")));
  EXPECT_EQ(errorOf(l.getMessage(1)), std::make_pair(ERROR_TIMEOUT, std::string("timeout")));
  loader().send(to({30}, 4));
  EXPECT_EQ(l.getMessage(100).get(u32_id(1)), 4u);
}

TEST_F(LooperTest, TimezoneIsAskedOnceThenFollowsNotifications) {
  TestLooper& l = start();
  loader().send(with(with(with(message(), SYS_TYPE, TYPE_REPLY), SYS_REQID, 0u), u32_id(27), 3600u));
  EXPECT_EQ(l.getTimezone(), 3600);
  EXPECT_EQ(l.getTimezone(), 3600);
  loader().pump();
  ASSERT_EQ(loader().frames.size(), 2u);
  const message subscribe = loader().take().m, get = loader().take().m;
  EXPECT_TRUE(subscribe.get(SYS_TO) == (Path{24, 0}) && get.get(SYS_TO) == (Path{24, 0}));
  EXPECT_EQ(subscribe.get(SYS_CMD), CMD_SUBSCRIBE);
  EXPECT_EQ(subscribe.get(SYS_NOTIFYCMD), 0x60001u);
  EXPECT_EQ(get.get(SYS_CMD), CMD_GET);
  loader().send(with(with(to({}), SYS_CMD, 0x60001u), u32_id(27), 7200u));
  ASSERT_TRUE(waitFor([&] { return l.getTimezone() == 7200; }));
  EXPECT_NEAR(static_cast<double>(l.getLocaltime()), static_cast<double>(time(nullptr) + 7200), 1.0);
}

}  // namespace
}  // namespace kr
