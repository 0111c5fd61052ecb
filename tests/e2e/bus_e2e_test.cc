// The bus end to end: the real kr-loader in a private runtime directory,
// daemons built on kr::Looper and kr::Handler (kr-e2e-daemon), real Unix
// sockets between them. The test joins the bus itself at kTester with a raw
// client (platform/loader/test_client.h), so what it learns about a daemon
// is only what crossed the wire.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <memory>
#include <set>
#include <sstream>

#include "kr/bus/handler.h"
#include "platform/loader/test_client.h"
#include "tests/e2e/e2e_daemon.h"

namespace kr::e2e {
namespace {

using loader::testing::Client;
using loader::testing::LoaderProcess;
using loader::testing::TempDir;
using Path = std::vector<unsigned int>;

constexpr unsigned int kTester = 100;     // the test's own address
constexpr unsigned int kA = 50, kB = 51;  // daemons the loader starts
constexpr unsigned int kC = 60;           // a daemon the test starts itself
constexpr unsigned int kNobody = 999;
constexpr unsigned int kAskTester = 0xFD0100;  // a request a daemon makes of the test

unsigned int errorOf(const message& m) {
  unsigned int code = ERROR_OK;
  isError(m, &code, nullptr);
  return code;
}

message command(unsigned int cmd) {
  message m;
  m.insert(SYS_CMD, cmd);
  return m;
}

message echoOf(const std::vector<unsigned char>& payload) {
  message m = command(kEcho);
  m.insert(kPayload, payload);
  return m;
}

// The filter of a subscription: subscriptions with different tags are
// different subscriptions.
message subscription(unsigned int tag) {
  message m;
  m.insert(kTag, tag);
  return m;
}

// kSubscribeTo: the daemon subscribes to kA's handler A with `tag`.
message subscribingToA(unsigned int tag) {
  message m = subscription(tag);
  m.insert(kTarget, Path{kA, kHandlerA});
  return m;
}

size_t flatSize(const message& m) {
  std::vector<unsigned char> flat;
  m.flatten(flat);
  return flat.size();
}

// The payload size that makes a notify object of the test daemon exactly
// `bytes` long in its flat form (ids and versions below 10 all encode alike).
unsigned int payloadFor(size_t bytes) {
  const auto objectSize = [](unsigned int payload) {
    message o;
    o.insert(STD_ID, 1u);
    o.insert(kVersion, 1u);
    o.insert(kPayload, pattern(payload));
    return flatSize(o);
  };
  auto payload = static_cast<unsigned int>(bytes);
  for (int i = 0; i < 4 && objectSize(payload) != bytes; ++i)
    payload -= static_cast<unsigned int>(objectSize(payload) - bytes);
  return payload;
}

std::string fileText(const std::string& path) {
  std::stringstream s;
  s << std::ifstream(path).rdbuf();
  return s.str();
}

size_t occurrences(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + what.size())) ++n;
  return n;
}

// The loader's lines about daemons that ended other than by leaving or by
// a SIGKILL that a test sent: an abort in the library shows up here.
std::string badEnds(const std::string& log) {
  std::istringstream in(log);
  std::string line, bad;
  while (std::getline(in, line)) {
    const bool signalled = line.find("was killed by signal ") != std::string::npos &&
                           line.find("killed by signal 9") == std::string::npos;
    const bool failed = line.find("exited with status ") != std::string::npos &&
                        line.find("exited with status 0") == std::string::npos;
    if (signalled || failed) bad += line + "\n";
  }
  return bad;
}

class BusE2E : public ::testing::Test {
 protected:
  void TearDown() override {
    for (pid_t pid : spawned_) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
    tester_.reset();
    if (loader_) {
      EXPECT_EQ(loader_->stop(), 0) << loader_->log();
      EXPECT_EQ(badEnds(loader_->log()), "") << loader_->log();
    }
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child left behind";
  }

  // kr-loader in this test's own runtime directory, and the test's
  // connection at kTester.
  void start(const std::string& config) {
    loader_ = std::make_unique<LoaderProcess>(KR_LOADER_BINARY, dir_.path, config);
    tester_ = std::make_unique<Client>(loader_->socketPath());
    ASSERT_EQ(tester_->join(kTester).get(loader::kReadyAddress), kTester) << loader_->log();
  }
  static std::string daemon(unsigned int address, const char* restart = "never") {
    const std::string a = std::to_string(address);
    return "daemon " + a + " " + restart + " " KR_E2E_DAEMON " " + a + "\n";
  }
  void startTwo() {
    start(daemon(kA) + daemon(kB));
    pidA_ = up(kA);
    pidB_ = up(kB);
  }

  // A daemon the test starts itself: it finds the loader through
  // KR_RUNTIME_DIR, and writes its output to dir/ADDRESS.out and .err.
  pid_t spawn(unsigned int address) {
    const std::string a = std::to_string(address);
    const std::string out = outputFile(address, ".out"), err = outputFile(address, ".err");
    const pid_t pid = fork();
    if (pid == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      setenv("KR_RUNTIME_DIR", dir_.path.c_str(), 1);
      if (!freopen(out.c_str(), "w", stdout) || !freopen(err.c_str(), "w", stderr)) _exit(127);
      // Only 0, 1 and 2 go along: a local socket left on descriptor 3
      // would be taken for a connection made by the loader.
      close_range(3, ~0u, 0);
      execl(KR_E2E_DAEMON, KR_E2E_DAEMON, a.c_str(), nullptr);
      _exit(127);
    }
    spawned_.push_back(pid);
    return pid;
  }
  std::string outputFile(unsigned int address, const char* suffix) const {
    return dir_.path + "/" + std::to_string(address) + suffix;
  }

  // ---- Talking to the daemons ------------------------------------------------
  // Sends m to `to` as a request; returns its request id.
  unsigned int post(Path to, unsigned int cmd, message m = message()) {
    setRequestID(m, ++lastRequest_);
    m.insert(SYS_REPLYEXP, true);
    tell(std::move(to), cmd, m);
    return lastRequest_;
  }
  // Sends m as a plain message.
  void tell(Path to, unsigned int cmd, message m) {
    m.insert(SYS_TO, std::move(to));
    m.insert(SYS_CMD, cmd);
    EXPECT_TRUE(tester_->send(m));
  }
  // The reply to request `reqId`; whatever else arrives meanwhile goes to inbox_.
  message await(unsigned int reqId) {
    message r;
    const auto answer = [&](const message& m) { return isReply(m) && m.get(SYS_REQID) == reqId; };
    if (!waitFor([&] { return take(answer, &r); })) ADD_FAILURE() << "no answer to request " << reqId;
    return r;
  }
  message call(Path to, unsigned int cmd, message m = message()) { return await(post(std::move(to), cmd, m)); }

  // `via` posts `inner` to `to` (with `ticks`, or no time-out) and answers
  // with how that ended: {kError, kReply}.
  unsigned int postForward(Path via, const Path& to, const message& inner, unsigned int ticks = Handler::kNoTimeout) {
    message q;
    q.insert(kTarget, to);
    q.insert(kInner, inner);
    if (ticks != Handler::kNoTimeout) q.insert(kTicks, ticks);
    return post(std::move(via), kForward, q);
  }
  message forward(const Path& to, const message& inner, unsigned int ticks = Handler::kNoTimeout) {
    return await(postForward({kA, kHandlerA}, to, inner, ticks));
  }

  // The pid of the daemon at `address` (other than `notPid`), asking again
  // for up to 10 s while nobody holds the address: the loader starts and
  // restarts daemons in its own time.
  pid_t up(unsigned int address, pid_t notPid = 0) {
    for (int i = 0; i < 200; ++i, usleep(50000)) {
      const message r = call({address, kHandlerA}, kEcho);
      if (r.empty()) break;  // no answer at all: await() has said so
      if (errorOf(r) == ERROR_OK && static_cast<pid_t>(r.get(kPid)) != notPid)
        return static_cast<pid_t>(r.get(kPid));
    }
    ADD_FAILURE() << "daemon " << address << " does not answer\n" << loader_->log();
    return 0;
  }
  message status(unsigned int address, unsigned int handler = kHandlerA) {
    return call({address, handler}, kStatus);
  }
  // Polls (for up to 10 s) until done() holds.
  static bool eventually(const std::function<bool()>& done) {
    for (int i = 0; i < 500; ++i, usleep(20000)) {
      if (done()) return true;
    }
    return false;
  }

  // ---- What the test receives ------------------------------------------------------
  // Receives into inbox_ until done() holds; false when nothing came for 5 s.
  bool waitFor(const std::function<bool()>& done) {
    while (!done()) {
      message m;
      if (!tester_->recv(&m, 5000)) return false;
      inbox_.push_back(std::move(m));
    }
    return true;
  }
  // Takes the first message of inbox_ for which pred holds.
  template <class Pred>
  bool take(Pred pred, message* out) {
    for (auto it = inbox_.begin(); it != inbox_.end(); ++it) {
      if (!pred(*it)) continue;
      *out = std::move(*it);
      inbox_.erase(it);
      return true;
    }
    return false;
  }
  // Afterwards inbox_ holds everything the loader passed on to the test
  // before it answered this NOOP.
  void drain() { call({loader::kLoaderAddress}, CMD_NOOP); }
  unsigned int disconnectReason(unsigned int address) {
    message n;
    const auto notice = [&](const message& m) {
      return m.get(SYS_CMD) == CMD_DISCONNECTED && m.get(SYS_FROM) == Path{address};
    };
    EXPECT_TRUE(waitFor([&] { return take(notice, &n); })) << "no disconnect notice for " << address;
    return n.get(SYS_DREASON, 99);
  }
  std::vector<message> notifies() const {
    std::vector<message> out;
    for (const message& m : inbox_) {
      if (!isReply(m) && m.get(SYS_CMD) == CMD_NOTIFY) out.push_back(m);
    }
    return out;
  }
  std::vector<message> objects() const {
    std::vector<message> out;
    for (const message& n : notifies()) {
      for (const message& o : n.get(STD_OBJS)) out.push_back(o);
    }
    return out;
  }

  TempDir dir_;
  std::unique_ptr<LoaderProcess> loader_;
  std::unique_ptr<Client> tester_;
  std::vector<message> inbox_;
  std::vector<pid_t> spawned_;
  unsigned int lastRequest_ = 0;
  pid_t pidA_ = 0, pidB_ = 0;
};

TEST_F(BusE2E, RequestsAreAnsweredAcrossProcesses) {
  startTwo();
  // The test asks a daemon: the answer names the handler that gave it.
  const message direct = call({kA, kHandlerA}, kEcho, echoOf(pattern(10)));
  EXPECT_EQ(errorOf(direct), ERROR_OK);
  EXPECT_EQ(static_cast<pid_t>(direct.get(kPid)), pidA_);
  EXPECT_EQ(direct.get(SYS_FROM), (Path{kA, kHandlerA}));
  EXPECT_EQ(direct.get(kPayload), pattern(10));

  // One daemon's handler asks another's: postMessage on one side,
  // handleCmd and replyMessage on the other, the reply callback back home.
  const message forwarded = forward({kB, kHandlerB}, echoOf(pattern(10)));
  EXPECT_EQ(forwarded.get(kError), ERROR_OK);
  const message inner = forwarded.get(kReply);
  EXPECT_EQ(static_cast<pid_t>(inner.get(kPid)), pidB_);
  EXPECT_EQ(inner.get(SYS_FROM), (Path{kB, kHandlerB}));
  EXPECT_EQ(inner.get(kPayload), pattern(10));

  // A command nobody implements is answered, not dropped.
  EXPECT_EQ(errorOf(call({kA, kHandlerA}, 0xFD00FF)), ERROR_NOTIMP);
}

TEST_F(BusE2E, UnansweredRequestTimesOutAfterItsTicks) {
  startTwo();
  const message silent = forward({kB, kHandlerA}, command(kSilent), 30);
  EXPECT_EQ(silent.get(kError), ERROR_TIMEOUT);
  EXPECT_TRUE(silent.get(kReply).has(SYS_REQID)) << "the time-out names its request";
  // The same ticks are plenty for a peer that answers.
  EXPECT_EQ(forward({kB, kHandlerA}, command(kEcho), 300).get(kError), ERROR_OK);
  EXPECT_EQ(status(kA).get(kPending), 0u) << "a request outlived its end";
}

TEST_F(BusE2E, RequestToAPathNobodyHoldsIsABrokenPath) {
  startTwo();
  // No time-outs here: only the broken-path answer can end these requests.
  EXPECT_EQ(forward({kNobody, kHandlerA}, command(kEcho)).get(kError), ERROR_BRKPATH);  // the loader
  EXPECT_EQ(forward({kB, 99}, command(kEcho)).get(kError), ERROR_BRKPATH);  // kB's Looper
  EXPECT_EQ(forward({kB, kHandlerA, 5}, command(kEcho)).get(kError), ERROR_BRKPATH);  // past a strict handler
  EXPECT_EQ(status(kA).get(kPending), 0u);
}

TEST_F(BusE2E, LargeFramesArriveIntact) {
  startTwo();
  // Each crosses four sockets: test -> kA -> kB -> kA -> test.
  for (size_t bytes : {size_t{2000}, size_t{60 * 1024}}) {
    const message r = forward({kB, kHandlerA}, echoOf(pattern(bytes)));
    EXPECT_EQ(r.get(kError), ERROR_OK) << bytes;
    EXPECT_EQ(r.get(kReply).get(kPayload), pattern(bytes)) << bytes;
  }
  // An answer too large for any frame becomes ERROR_TOOBIG instead of silence.
  message huge;
  huge.insert(kSize, 65536u);
  EXPECT_EQ(errorOf(call({kB, kHandlerA}, kEcho, huge)), ERROR_TOOBIG);
  EXPECT_NE(loader_->log().find("LOOPER WARNING: write message too long"), std::string::npos);
}

TEST_F(BusE2E, DescriptorTravelsWithExactlyItsMessage) {
  startTwo();
  // Five messages written in one go, pipes with the second and the fourth;
  // then again with frames too large for the receiver's read buffer.
  for (unsigned int payload : {0u, 1500u}) {
    message q;
    q.insert(kTarget, Path{kB, kHandlerA});
    q.insert(kCount, 5u);
    q.insert(kFdAt, Path{1, 3});
    q.insert(kSize, payload);
    ASSERT_EQ(errorOf(call({kA, kHandlerA}, kSendFds, q)), ERROR_OK);
  }
  const message got = status(kB);
  EXPECT_EQ(got.get(kSeqs), (Path{0, 1, 2, 3, 4, 0, 1, 2, 3, 4}));
  const std::vector<std::string> once{"", fdText(1), "", fdText(3), ""};
  std::vector<std::string> twice = once;
  twice.insert(twice.end(), once.begin(), once.end());
  EXPECT_EQ(got.get(kTexts), twice);
}

TEST_F(BusE2E, MessagesBeyondAThousandQueuedDuringAnExchangeAreSpilled) {
  start("");
  spawn(kC);
  up(kC);
  message q;
  q.insert(kTarget, Path{kTester});
  q.insert(kInner, command(kAskTester));
  q.insert(kTicks, 3000u);
  const unsigned int exchange = post({kC, kHandlerA}, kExchange, q);
  // kC now blocks in exchangeMessage() until the test answers; meanwhile
  // everything else it gets is queued, up to 1000 messages.
  message asked;
  ASSERT_TRUE(waitFor([&] { return take([](const message& m) { return m.get(SYS_CMD) == kAskTester; }, &asked); }));
  for (unsigned int seq = 0; seq < 1005; ++seq) {
    message t;
    t.insert(kSeq, seq);
    tell({kC, kHandlerA}, kTally, t);
  }
  message answer;
  answer.insert(SYS_TO, asked.get(SYS_FROM));
  setType(answer, TYPE_REPLY);
  setRequestID(answer, asked.get(SYS_REQID));
  ASSERT_TRUE(tester_->send(answer));
  EXPECT_EQ(await(exchange).get(kError), ERROR_OK);

  message got;
  EXPECT_TRUE(eventually([&] { return (got = status(kC)).get(kTallied) >= 1000; }));
  EXPECT_EQ(got.get(kTallied), 1000u);
  EXPECT_EQ(got.get(kLastSeq), 999u) << "the first 1000 are kept, the rest spilled";
  EXPECT_EQ(occurrences(fileText(outputFile(kC, ".err")), "full queue, spilled message:"), 5u);
  EXPECT_EQ(occurrences(fileText(outputFile(kC, ".out")), "exchangeMessage: queue spill  during exchange of:"), 1u)
      << "once per exchange";
}

TEST_F(BusE2E, LeaveCarriesPersistentDataAcrossTheRestart) {
  start(daemon(kA, "always"));
  const pid_t first = up(kA);
  message five, six;
  five.insert(kValue, 5u);
  six.insert(kValue, 6u);
  ASSERT_EQ(errorOf(call({kA, kHandlerA}, CMD_SET, five)), ERROR_OK);
  ASSERT_EQ(errorOf(call({kA, kHandlerB}, CMD_SET, six)), ERROR_OK);
  // The daemon asks to be stopped; the loader answers with the leave
  // control, and the Looper leaves with every handler's data.
  ASSERT_EQ(errorOf(call({kA, kHandlerA}, kLeave)), ERROR_OK);
  EXPECT_EQ(disconnectReason(kA), DREASON_DISCONNECTED) << "it left, it did not crash";
  const pid_t second = up(kA, first);
  EXPECT_NE(second, first);
  EXPECT_EQ(call({kA, kHandlerA}, kEcho).get(kValue), 5u);
  EXPECT_EQ(call({kA, kHandlerB}, kEcho).get(kValue), 6u) << "each handler gets its own data back";
}

TEST_F(BusE2E, DisconnectFailsPendingRequestsAndDropsSubscriptionsOnlyWhereThereAreSome) {
  startTwo();
  // kA's handler A gets two subscribers, kB's handler and the test; its
  // handler B none.
  ASSERT_EQ(errorOf(call({kB, kHandlerA}, kSubscribeTo, subscribingToA(1))), ERROR_OK);
  ASSERT_EQ(errorOf(call({kA, kHandlerA}, CMD_SUBSCRIBE, subscription(2))), ERROR_OK);
  ASSERT_EQ(status(kA).get(kSubscribers), 2u);
  // Both handlers wait for kB, without a time-out.
  const unsigned int viaA = postForward({kA, kHandlerA}, {kB, kHandlerA}, command(kSilent));
  postForward({kA, kHandlerB}, {kB, kHandlerA}, command(kSilent));
  ASSERT_EQ(status(kA, kHandlerA).get(kPending), 1u);
  ASSERT_EQ(status(kA, kHandlerB).get(kPending), 1u);

  ASSERT_GT(pidB_, 0);
  ASSERT_EQ(kill(pidB_, SIGKILL), 0);
  EXPECT_EQ(disconnectReason(kB), DREASON_CRASHED);
  // Handler A: the request ends at once, as a time-out, and only kB's
  // subscription goes.
  EXPECT_EQ(await(viaA).get(kError), ERROR_TIMEOUT);
  const message a = status(kA, kHandlerA);
  EXPECT_EQ(a.get(kPending), 0u);
  EXPECT_EQ(a.get(kSubscribers), 1u);
  // Handler B, without subscriptions, ignores the notice: its request
  // waits for a time-out of its own (here: never).
  EXPECT_EQ(status(kA, kHandlerB).get(kPending), 1u);
}

TEST_F(BusE2E, CreditsLimitWhatASubscriberGetsAndChangesCoalesce) {
  startTwo();
  message limited = subscription(2);
  limited.insert(SYS_CREDITS, 3u);
  ASSERT_EQ(errorOf(call({kB, kHandlerA}, kSubscribeTo, subscribingToA(1))), ERROR_OK);  // no limit
  ASSERT_EQ(errorOf(call({kA, kHandlerA}, CMD_SUBSCRIBE, limited)), ERROR_OK);
  // Ten objects, each changed three times within one coalescing period.
  message change;
  change.insert(kFirst, 1u);
  change.insert(kCount, 10u);
  change.insert(kRepeat, 3u);
  ASSERT_EQ(errorOf(call({kA, kHandlerA}, kChange, change)), ERROR_OK);

  const std::set<unsigned int> all{1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
  message b;
  ASSERT_TRUE(eventually([&] { return (b = status(kB)).size(kObjIds) >= 10; }));
  const Path ids = b.get(kObjIds);
  EXPECT_EQ(ids.size(), 10u) << "one object per id";
  EXPECT_EQ(std::set<unsigned int>(ids.begin(), ids.end()), all);
  EXPECT_EQ(b.get(kObjVersions), Path(10, 3)) << "only the last state of each";

  // kA sent the test what it would before kB could answer: three objects.
  drain();
  EXPECT_EQ(objects().size(), 3u);
  // Credits given back bring the rest.
  message ack;
  ack.insert(SYS_CREDITS, 10u);
  tell({kA, kHandlerA}, CMD_NOTIFYACK, ack);
  ASSERT_TRUE(waitFor([&] { return objects().size() >= 10; }));
  drain();
  std::set<unsigned int> mine;
  for (const message& o : objects()) {
    mine.insert(o.get(STD_ID));
    EXPECT_EQ(o.get(kVersion), 3u);
  }
  EXPECT_EQ(objects().size(), 10u);
  EXPECT_EQ(mine, all);
}

TEST_F(BusE2E, NotifyBatchesSplitAt16384Bytes) {
  start(daemon(kA));
  up(kA);
  ASSERT_EQ(errorOf(call({kA, kHandlerA}, CMD_SUBSCRIBE)), ERROR_OK);
  // Objects of exactly 4096 bytes: four fill a batch to the byte.
  message change;
  change.insert(kFirst, 1u);
  change.insert(kCount, 8u);
  change.insert(kSize, payloadFor(4096));
  ASSERT_EQ(errorOf(call({kA, kHandlerA}, kChange, change)), ERROR_OK);
  ASSERT_TRUE(waitFor([&] { return objects().size() >= 8; }));
  drain();
  for (const message& o : objects()) EXPECT_EQ(flatSize(o), 4096u);
  Path perNotify;
  for (const message& n : notifies()) perNotify.push_back(n.size(STD_OBJS));
  EXPECT_EQ(perNotify, (Path{4, 4}));
}

TEST_F(BusE2E, KilledDaemonIsRestartedAndAnswersAgain) {
  start(daemon(kA, "always"));
  const pid_t first = up(kA);
  ASSERT_GT(first, 0);
  ASSERT_EQ(kill(first, SIGKILL), 0);
  EXPECT_EQ(disconnectReason(kA), DREASON_CRASHED);
  const pid_t second = up(kA, first);  // after the loader's back-off
  EXPECT_GT(second, 0);
  EXPECT_NE(second, first);
  EXPECT_EQ(forward({kA, kHandlerB}, echoOf(pattern(10))).get(kReply).get(kPayload), pattern(10))
      << "the restarted daemon asks and answers";
}

}  // namespace
}  // namespace kr::e2e
