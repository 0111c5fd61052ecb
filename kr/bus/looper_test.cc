#include "kr/bus/looper.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
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

using internal::BusFixture;
using internal::BusHarness;
using internal::FakeLoader;
using internal::fdOpen;
using internal::parkFd3;
using internal::RecordingHandler;
using internal::RuntimeDir;
using kr::UniqueFd;
using internal::TestLooper;
using Path = std::vector<unsigned int>;

message to(const Path& path, unsigned int tag = 0) {
  message m;
  m.insert(SYS_TO, path);
  if (tag) m.insert(u32_id(1), tag);
  return m;
}

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// The table as the seed rule describes it, written independently.
std::vector<unsigned char> referenceTable(uint32_t a1, uint32_t v, uint32_t a12) {
  const uint32_t words[3] = {a1, v, a12};
  unsigned char key[12];
  for (int b = 0; b < 12; ++b) key[b] = static_cast<unsigned char>(words[b / 4] >> (24 - 8 * (b % 4)));
  std::vector<unsigned char> s(256);
  std::iota(s.begin(), s.end(), 0);
  for (unsigned int k = 0, j = 0; k < v % 256 + 1024; ++k) {
    j = (j + s[k % 256] + key[k % 12]) % 256;
    std::swap(s[k % 256], s[j]);
  }
  return s;
}

class LooperTest : public BusFixture {};

// ---- Handshake -------------------------------------------------------------------------

TEST_F(LooperTest, HandshakeSendsHelloAndKeepsReadyInfo) {
  message ready;
  for (unsigned int id : {1u, 2u, 3u, 6u, 8u}) ready.insert(u32_id(id), 10 + id);
  ready.insert(u64_id(7), 0x123456789ull);
  TestLooper& l = start(ready);
  EXPECT_EQ(getLooper(), &l);
  EXPECT_EQ(l.busSocket(), 3);
  EXPECT_TRUE(fcntl(3, F_GETFL) & O_NONBLOCK);
  EXPECT_EQ(hello.get(SYS_TO), Path{1});
  EXPECT_EQ(hello.get(SYS_CTRL), 5u);
  EXPECT_EQ(hello.get(HELLO_NUMBERS), (Path{101, 102, 103, 104, 105, 106, 107, 108, 109, 110, 111, 112}));
  const Looper::ReadyInfo& info = l.getReadyInfo();
  EXPECT_EQ((Path{info.id1, info.id2, info.id3, info.id6, info.id8}), (Path{11, 12, 13, 16, 18}));
  EXPECT_EQ(info.id7, 0x123456789ull);
  EXPECT_TRUE(l.getSeedMessage().empty());
}

TEST_F(LooperTest, SeedTableIsAPermutationKeyedByA1) {
  message seed;
  seed.insert(SEED_VALUES, {300, 9});
  seed.insert(string_id(3), "kept");
  message ready;
  ready.insert(READY_SEED, seed);
  std::vector<std::vector<unsigned char>> tables;
  for (unsigned int a1 : {101u, 202u}) {
    if (looper) {
      looper.reset();
      bus = std::make_unique<BusHarness>();
    }
    bus->a1 = a1;
    const message& s = start(ready).getSeedMessage();
    EXPECT_EQ(s.get(string_id(3)), "kept");
    tables.push_back(s.get(SEED_TABLE));
    ASSERT_EQ(tables.back().size(), 256u);
    std::vector<unsigned char> sorted = tables.back();
    std::sort(sorted.begin(), sorted.end());
    std::vector<unsigned char> identity(256);
    std::iota(identity.begin(), identity.end(), 0);
    EXPECT_EQ(sorted, identity);
    EXPECT_EQ(tables.back(), referenceTable(a1, 300, BusHarness::kA12));
  }
  EXPECT_NE(tables[0], tables[1]);
  EXPECT_NE(tables[0], referenceTable(101, 301, BusHarness::kA12));  // v counts too
}

TEST(LooperConnectTest, ConnectsToTheLoaderSocketPath) {
  RuntimeDir dir;  // loaderSocketPath() lies in it
  const std::set<int> fds = internal::openFds();
  int fd = -1;
  const message hello = internal::answerHelloOnSocketPath([&] {
    Looper l(Looper::kConnectPath, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12);
    fd = l.busSocket();
  });
  EXPECT_GE(fd, 0);
  EXPECT_EQ(hello.get(SYS_CTRL), 5u);
  EXPECT_EQ(internal::openFds(), fds);
}

void dieMidFrame() {
  FakeLoader f;
  f.sendReady();
  const std::vector<unsigned char> part = FakeLoader::frameOf(to({30}, 7));
  f.sendBytes(part.data(), part.size() - 1);
  if (!f.installAsFd3()) return;
  Looper l(Looper::kConnectInherited, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12);
  f.pump();    // a loader that leaves unread bytes behind resets the connection
  f.hangUp();  // a peer that dies mid-frame
  l.step(false);
}

void connectAndStep(unsigned int mode) {
  Looper l(mode, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12);
  l.step(false);
  l.step(false);
}

TEST(LooperDeathTest, ConnectionFaultsAreFatal) {
  RuntimeDir dir;
  EXPECT_DEATH((parkFd3(), connectAndStep(Looper::kConnectInherited)), "LOOPER: didn't get connection to loader");
  EXPECT_DEATH(connectAndStep(Looper::kConnectPath), "connect failed \\(errno=2\\)");
  // Each case runs in a child of its own; the loader's end is set up there.
  auto withLoader = [](void (*loader)(FakeLoader&)) {
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

// ---- Framing and batching --------------------------------------------------------------

TEST_F(LooperTest, FramesLargerThanTheBufferArriveWhole) {
  TestLooper& l = start();
  RecordingHandler h;
  l.addHandler(30, &h);
  for (size_t size : {2000u, 60000u}) {
    message m = to({30});
    m.insert(string_id(2), std::string(size, 'x'));
    loader().send(m);
    ASSERT_TRUE(waitFor([&] { return h.got.size() == 1; })) << size;
    EXPECT_EQ(h.got[0].get(string_id(2)), std::string(size, 'x'));
    h.got.clear();
  }
  message out = to({40});
  out.insert(string_id(2), std::string(60000, 'y'));
  EXPECT_TRUE(h.sendMessage(out));
  ASSERT_TRUE(waitFor([&] { return !loader().frames.empty(); }));
  EXPECT_EQ(loader().take().m.get(string_id(2)), std::string(60000, 'y'));
}

TEST_F(LooperTest, TwoFramesInOneRead) {
  TestLooper& l = start();
  RecordingHandler h;
  l.addHandler(30, &h);
  // One socket event dispatches any number of replies but one other message.
  for (bool replies : {false, true}) {
    std::vector<unsigned char> both;
    for (unsigned int tag : {1u, 2u}) {
      message m = to({30}, tag);
      if (replies) m.insert(SYS_TYPE, TYPE_REPLY);
      const std::vector<unsigned char> f = FakeLoader::frameOf(m);
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
}

// A message to [40] whose flat form is exactly n bytes.
message ofFlatSize(size_t n) {
  message m = to({40});
  m.insert(string_id(2), std::string(60000, 'z'));
  std::vector<unsigned char> flat;
  m.flatten(flat);
  m.insert(string_id(2), std::string(60000 + n - flat.size(), 'z'));
  return m;
}

TEST_F(LooperTest, WriteRefusesFramesOf64KiB) {
  TestLooper& l = start();
  std::vector<unsigned char> flat;
  const message fits = ofFlatSize(65535), over = ofFlatSize(65536);
  fits.flatten(flat);
  ASSERT_EQ(flat.size(), 65535u);
  over.flatten(flat);
  ASSERT_EQ(flat.size(), 65536u);
  EXPECT_TRUE(l.writeMessage(fits));
  EXPECT_EQ(l.txEntries(), 0u);  // over 1023 bytes: written at once
  testing::internal::CaptureStderr();
  EXPECT_FALSE(l.writeMessage(over));
  EXPECT_TRUE(contains(testing::internal::GetCapturedStderr(), "LOOPER WARNING: write message too long"));
  EXPECT_EQ(l.txEntries(), 0u);
  ASSERT_TRUE(waitFor([&] { return loader().frames.size() == 1; }));
  EXPECT_EQ(loader().take().bytes.size(), 65535u);
}

TEST_F(LooperTest, SmallWritesWaitForTheDispatchPassOr1024Bytes) {
  TestLooper& l = start();
  // 64-byte frames: the 16th brings exactly 1024 bytes.
  message m = to({40});
  m.insert(string_id(2), std::string(10, 's'));
  m.insert(string_id(2), std::string(10 + 64 - FakeLoader::frameOf(m).size(), 's'));
  const unsigned int frame = static_cast<unsigned int>(FakeLoader::frameOf(m).size());
  ASSERT_EQ(frame, 64u);
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(l.writeMessage(m));
  EXPECT_EQ(l.txEntries(), 3u);
  EXPECT_EQ(l.txPending(), 3 * frame);
  EXPECT_EQ(loader().pump(), 0u);
  turn();  // the dispatch pass flushes
  EXPECT_EQ(loader().frames.size(), 3u);
  EXPECT_EQ(l.txPending(), 0u);
  loader().frames.clear();
  // Without a turn, the write that brings 1024 bytes flushes them all.
  unsigned int writes = 0;
  do {
    l.writeMessage(m);
    ++writes;
  } while (l.txEntries() != 0 && writes < 1000);
  EXPECT_EQ(writes, 16u);
  loader().pump();
  EXPECT_EQ(loader().frames.size(), writes);
}

// ---- Descriptors -------------------------------------------------------------------------

bool pipeCarries(int writeEnd, int readEnd) {
  if (write(writeEnd, "k", 1) != 1) return false;
  char c = 0;
  return read(readEnd, &c, 1) == 1 && c == 'k';
}

TEST_F(LooperTest, DescriptorsTravelWithExactlyTheirMessage) {
  TestLooper& l = start();
  RecordingHandler h;
  l.addHandler(30, &h);
  int p[2];
  ASSERT_EQ(pipe(p), 0);
  UniqueFd r(p[0]), w(p[1]);
  for (unsigned int tag : {1u, 2u, 3u}) {  // out: the middle one passes a copy of w
    message m = to({40}, tag);
    if (tag == 2) m.insert(SYS_FD, static_cast<unsigned int>(dup(w.get())));
    l.writeMessage(m);
  }
  turn();
  ASSERT_EQ(loader().frames.size(), 3u);
  EXPECT_FALSE(loader().frames[0].fd.valid());
  ASSERT_TRUE(loader().frames[1].fd.valid());
  EXPECT_FALSE(loader().frames[2].fd.valid());
  EXPECT_TRUE(pipeCarries(loader().frames[1].fd.get(), r.get()));
  loader().frames.clear();

  message forged = to({30}, 3);
  forged.insert(SYS_FD, 1234);  // names a descriptor, but none comes with it
  UniqueFd passed(dup(w.get()));
  loader().send(to({30}, 1));
  loader().send(to({30}, 2), passed.get());
  loader().send(forged);
  passed.reset();
  ASSERT_TRUE(waitFor([&] { return h.got.size() == 3; }));
  EXPECT_FALSE(h.got[0].has(SYS_FD));
  ASSERT_TRUE(h.got[1].has(SYS_FD));
  UniqueFd received(static_cast<int>(h.got[1].get(SYS_FD)));
  EXPECT_TRUE(pipeCarries(received.get(), r.get()));
  EXPECT_FALSE(h.got[2].has(SYS_FD));
}

// ---- Routing, queueing and dispatch -------------------------------------------------------

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
    EXPECT_EQ(h30.got.size(), c.at30);
    EXPECT_EQ(h31.got.size(), c.at31);
    for (const message& got : h30.got) EXPECT_EQ(got.get(SYS_FROM), (Path{kL, 10}));
    ASSERT_EQ(loader().frames.size(), c.written.empty() ? 0u : 1u);
    if (!c.written.empty()) {
      EXPECT_EQ(loader().take().m.get(SYS_TO), c.written);
    }
    h30.got.clear();
    h31.got.clear();
  }
}

TEST_F(LooperTest, The1001stQueuedMessageIsSpilled) {
  TestLooper& l = start();
  message m = to({}, 7);  // the Looper's own
  for (int i = 0; i < 1000; ++i) ASSERT_TRUE(l.queueMessage(m));
  int p[2];
  ASSERT_EQ(pipe(p), 0);
  UniqueFd r(p[0]);
  m.insert(SYS_FD, static_cast<unsigned int>(p[1]));
  testing::internal::CaptureStderr();
  testing::internal::CaptureStdout();
  EXPECT_FALSE(l.queueMessage(m));
  EXPECT_TRUE(contains(testing::internal::GetCapturedStderr(), "full queue, spilled message:"));
  testing::internal::GetCapturedStdout();
  EXPECT_FALSE(fdOpen(p[1]));  // dropped with its message
  EXPECT_EQ(l.queued(), 1000u);
  ASSERT_TRUE(bus->settle(l));
  EXPECT_EQ(l.own.size(), 1000u);
  EXPECT_EQ(l.queued(), 0u);
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
    size_t at30, at31, atLooper;
    bool replied;      // ERROR_BRKPATH answered as a reply
    Path answerFrom;   // SYS_FROM of the ERROR_BRKPATH written, if any
  } cases[] = {
      {{30}, kPlain, 1, 0, 0, false, {}},
      {{30, 5}, kRequest, 0, 0, 0, true, {30}},
      {{30, 5}, kPlain, 0, 0, 0, false, {30, 5}},
      {{30, 5}, kBrkpathError, 0, 0, 0, false, {}},
      {{31, 5}, kPlain, 0, 1, 0, false, {}},
      {{99}, kRequest, 0, 0, 0, true, {}},
      {{}, kPlain, 0, 0, 1, false, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.to) + " kind " + std::to_string(c.kind));
    message m = c.kind == kBrkpathError ? errorMsg(ERROR_BRKPATH, "") : to({}, 7);
    m.insert(SYS_TO, c.to);
    m.insert(SYS_FROM, {77});
    if (c.kind == kRequest) {
      m.insert(SYS_REQID, 4);
      m.insert(SYS_REPLYEXP, true);
    }
    loader().send(m);
    turn(3);
    EXPECT_EQ(h30.got.size(), c.at30);
    EXPECT_EQ(h31.got.size(), c.at31);
    EXPECT_EQ(l.own.size(), c.atLooper);
    if (c.at31) {
      EXPECT_EQ(h31.got[0].get(SYS_TO), Path{5});
    }
    const bool answered = c.replied || !c.answerFrom.empty();
    ASSERT_EQ(loader().frames.size(), answered ? 1u : 0u);
    if (answered) {
      message a = loader().take().m;
      unsigned int code = 0;
      EXPECT_TRUE(isError(a, &code, nullptr));
      EXPECT_EQ(code, ERROR_BRKPATH);
      EXPECT_EQ(a.get(SYS_TO), Path{77});
      EXPECT_EQ(a.get(SYS_FROM), c.answerFrom);
      EXPECT_EQ(isReply(a), c.replied);
      EXPECT_EQ(a.has(SYS_REQID), c.replied);
    }
    h30.got.clear();
    h31.got.clear();
    l.own.clear();
  }
}

// ---- Leaving --------------------------------------------------------------------------------

TEST_F(LooperTest, LeaveSettingsAndRefusalBeforeRun) {
  TestLooper& l = start();
  EXPECT_EQ(l.leaveBlockCount(), 1u);
  l.setupLeave(5);  // blocked since birth: nothing is announced
  loader().sendCtrl(CTRL_LEAVE);
  turn(3);
  EXPECT_EQ(loader().nextCtrl(), static_cast<int>(CTRL_CANTLEAVE));
  EXPECT_TRUE(loader().frames.empty());
  EXPECT_FALSE(l.isStopped());
  struct Step {
    void (*act)(Looper&);
    int ctrl;  // -1: nothing sent
    unsigned int arg;
  } steps[] = {
      {[](Looper& x) { x.unblockLeave(); }, CTRL_LEAVESETTING, 5},
      {[](Looper& x) { x.blockLeave(); }, CTRL_LEAVESETTING, 0},
      {[](Looper& x) { x.blockLeave(); }, -1, 0},
      {[](Looper& x) { x.unblockLeave(); }, -1, 0},
      {[](Looper& x) { x.unblockLeave(); }, CTRL_LEAVESETTING, 5},
      {[](Looper& x) { x.setupLeave(5); }, -1, 0},
      {[](Looper& x) { x.setupLeave(6); }, CTRL_LEAVESETTING, 6},
      {[](Looper& x) { x.tellLeave(); }, CTRL_TELLLEAVE, 0},
  };
  for (size_t i = 0; i < std::size(steps); ++i) {
    steps[i].act(l);
    loader().pump();
    unsigned int arg = 0;
    EXPECT_EQ(loader().nextCtrl(&arg), steps[i].ctrl) << "step " << i;
    EXPECT_EQ(arg, steps[i].arg) << "step " << i;
  }
  EXPECT_TRUE(l.canLeave());
}

TEST_F(LooperTest, RunAnnouncesItselfAndLeavesWithPersistentData) {
  message d42, d43;
  d42.insert(u32_id(1), 42);
  d43.insert(u32_id(1), 43);
  message perm;
  perm.insert(PERM_IDS, {30, 31});
  perm.insert(PERM_DATA, {d42, d43});
  message ready;
  ready.insert(READY_PERMDATA, perm);
  TestLooper& l = start(ready);
  EXPECT_TRUE(l.hasPermData(Looper::kSelf));
  RecordingHandler h30;
  h30.perm.insert(u32_id(2), 77);
  l.addHandler(30, &h30);  // receives its data as it is registered
  ASSERT_EQ(h30.loaded.size(), 1u);
  EXPECT_EQ(h30.loaded[0], d42);
  EXPECT_FALSE(l.hasPermData(30));
  l.setupLeave(5);
  EXPECT_EQ(loader().pump(), 0u);

  std::vector<std::pair<unsigned int, unsigned int>> ctrls;  // code, argument
  message leaving;
  auto onFrame = [&](FakeLoader::Frame& f) {
    unsigned int code;
    if (!isCtrl(f.m, &code)) return;
    ctrls.emplace_back(code, f.m.get(SYS_CTRL_ARG));
    if (code == CTRL_LEAVESETTING) loader().sendCtrl(CTRL_LEAVE);
    if (code == CTRL_LEAVING) leaving = f.m;
  };
  loader().attach(l, onFrame);
  Timer guard(200, [&] {
    ADD_FAILURE() << "run() did not return";
    l.stop();
  });
  l.run();
  guard.cancel();
  loader().detach();
  loader().pump();
  while (!loader().frames.empty()) {
    FakeLoader::Frame f = loader().take();
    onFrame(f);
  }
  using C = std::pair<unsigned int, unsigned int>;
  EXPECT_EQ(ctrls, (std::vector<C>{{CTRL_RUNNING, 0}, {CTRL_LEAVESETTING, 5}, {CTRL_LEAVING, 1}}));
  message saved(leaving.get(LEAVE_PERMDATA));
  EXPECT_EQ(saved.get(PERM_IDS), Path{30});
  ASSERT_EQ(saved.size(PERM_DATA), 1u);
  EXPECT_EQ(saved.get(PERM_DATA)[0], h30.perm);
  EXPECT_FALSE(l.hasPermData(Looper::kSelf));
  EXPECT_TRUE(l.hasPermData(31));  // never registered
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

// ---- Synchronous calls ------------------------------------------------------------------------

TEST_F(LooperTest, ExchangeWaitsForItsReplyAndQueuesTheRest) {
  TestLooper& l = start();
  RecordingHandler h10;
  l.addHandler(10, &h10);
  // Everything is in the socket before the call: the Looper's first
  // request id is 0.
  message reply = to({10}, 99);
  reply.insert(SYS_TYPE, TYPE_REPLY);
  reply.insert(SYS_REQID, 0);
  message otherId = reply;
  otherId.insert(SYS_REQID, 5);
  loader().send(to({10}, 1));
  loader().sendCtrl(CTRL_LEAVE);
  loader().send(otherId);
  loader().send(reply);
  message q = to({40});
  q.insert(SYS_CMD, CMD_GET);
  const message r = h10.exchangeMessage(q, 200);
  EXPECT_EQ(r.get(u32_id(1)), 99u);
  EXPECT_EQ(r.get(SYS_REQID), 0u);
  loader().pump();
  ASSERT_EQ(loader().frames.size(), 2u);
  const message sent = loader().take().m;
  EXPECT_EQ(sent.get(SYS_FROM), Path{10});
  EXPECT_EQ(sent.get(SYS_REQID), 0u);
  EXPECT_TRUE(sent.get(SYS_REPLYEXP));
  EXPECT_EQ(loader().nextCtrl(), static_cast<int>(CTRL_CANTLEAVE));
  EXPECT_EQ(l.queued(), 2u);
  ASSERT_TRUE(waitFor([&] { return h10.got.size() == 2; }));
}

TEST_F(LooperTest, ExchangeAndGetMessageFailures) {
  TestLooper& l = start();
  auto errorOf = [](const message& m) {
    unsigned int code = 0;
    std::string text;
    isError(m, &code, &text);
    return std::make_pair(code, text);
  };
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
  message answer;
  answer.insert(SYS_TYPE, TYPE_REPLY);
  answer.insert(SYS_REQID, 0);
  answer.insert(u32_id(27), 3600);
  loader().send(answer);
  EXPECT_EQ(l.getTimezone(), 3600);
  EXPECT_EQ(l.getTimezone(), 3600);
  loader().pump();
  ASSERT_EQ(loader().frames.size(), 2u);
  const message subscribe = loader().take().m, get = loader().take().m;
  EXPECT_EQ(subscribe.get(SYS_TO), (Path{24, 0}));
  EXPECT_EQ(subscribe.get(SYS_CMD), CMD_SUBSCRIBE);
  EXPECT_EQ(subscribe.get(SYS_NOTIFYCMD), 0x60001u);
  EXPECT_EQ(get.get(SYS_TO), (Path{24, 0}));
  EXPECT_EQ(get.get(SYS_CMD), CMD_GET);
  message notify = to({});
  notify.insert(SYS_CMD, 0x60001);
  notify.insert(u32_id(27), 7200);
  loader().send(notify);
  ASSERT_TRUE(waitFor([&] { return l.getTimezone() == 7200; }));
  EXPECT_NEAR(static_cast<double>(l.getLocaltime()), static_cast<double>(time(nullptr) + 7200), 1.0);
}

}  // namespace
}  // namespace kr
