// The bus end to end: the real kr-loader in a private runtime directory,
// daemons built on kr::Looper and kr::Handler (kr-e2e-daemon), real Unix
// sockets between them. The test joins the bus at kTester with a raw client,
// so what it learns about a daemon is only what crossed the wire.
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
using Path = std::vector<unsigned int>;

constexpr unsigned int kTester = 100;          // the test's own address
constexpr unsigned int kA = 50, kB = 51;       // daemons the loader starts
constexpr unsigned int kC = 60;                // a daemon the test starts itself
constexpr unsigned int kAskTester = 0xFD0100;  // a request a daemon makes of the test
constexpr unsigned int kNever = Handler::kNoTimeout;

unsigned int errorOf(const message& m) {
  unsigned int code = ERROR_OK;
  isError(m, &code, nullptr);
  return code;
}

// A message of (id, value) pairs.
message fields() { return message(); }
template <class Id, class V, class... More>
message fields(Id id, V value, More... more) {
  message m = fields(more...);
  m.insert(id, value);
  return m;
}

size_t occurrences(const std::string& path, const std::string& what) {
  std::stringstream s;
  s << std::ifstream(path).rdbuf();
  const std::string text = s.str();
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

class BusE2E : public ::testing::Test {
 protected:
  void TearDown() override {
    for (pid_t pid : spawned_) kill(pid, SIGKILL), waitpid(pid, nullptr, 0);
    tester_.reset();
    if (loader_) {
      EXPECT_EQ(loader_->stop(), 0) << loader_->log();
      // No daemon ended other than by leaving or by a test's SIGKILL (by an abort in the library, say).
      std::istringstream log(loader_->log());
      for (std::string line; std::getline(log, line);) {
        EXPECT_FALSE(line.find("was killed by signal ") != std::string::npos && !line.ends_with(" signal 9")) << line;
        EXPECT_FALSE(line.find("exited with status ") != std::string::npos && !line.ends_with(" status 0")) << line;
      }
    }
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child left behind";
  }

  void start(const std::string& config) {
    loader_ = std::make_unique<loader::testing::LoaderProcess>(KR_LOADER_BINARY, dir_.path, config);
    tester_ = std::make_unique<Client>(loader_->socketPath());
    ASSERT_EQ(tester_->join(kTester).get(loader::kReadyAddress), kTester) << loader_->log();
  }
  static std::string daemon(unsigned int address, const char* restart = "never") {
    const std::string a = std::to_string(address);
    return "daemon " + a + " " + restart + " " KR_E2E_DAEMON " " + a + "\n";
  }
  void startTwo() {
    start(daemon(kA) + daemon(kB));
    up(kA);
    pidB_ = up(kB);
  }
  // A daemon the test starts itself: it finds the loader through
  // KR_RUNTIME_DIR, and writes its output to dir/ADDRESS.out and .err.
  void spawn(unsigned int address) {
    const std::string a = std::to_string(address);
    const pid_t pid = fork();
    if (pid == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      setenv("KR_RUNTIME_DIR", dir_.path.c_str(), 1);
      if (!freopen(output(address, ".out").c_str(), "w", stdout)) _exit(127);
      if (!freopen(output(address, ".err").c_str(), "w", stderr)) _exit(127);
      close_range(3, ~0u, 0);  // a socket left on 3 would be taken for the loader's connection
      execl(KR_E2E_DAEMON, KR_E2E_DAEMON, a.c_str(), nullptr);
      _exit(127);
    }
    spawned_.push_back(pid);
  }
  std::string output(unsigned int address, const char* suffix) const {
    return dir_.path + "/" + std::to_string(address) + suffix;
  }

  // Sends m to `to` as a request; returns its request id.
  unsigned int post(Path to, unsigned int cmd, message m = message()) {
    setRequestID(m, ++lastRequest_);
    m.insert(SYS_REPLYEXP, true);
    tell(std::move(to), cmd, m);
    return lastRequest_;
  }
  void tell(Path to, unsigned int cmd, message m) {
    m.insert(SYS_TO, std::move(to));
    m.insert(SYS_CMD, cmd);
    EXPECT_TRUE(tester_->send(m));
  }
  message await(unsigned int reqId) {
    return next([&](const message& m) { return isReply(m) && m.get(SYS_REQID) == reqId; });
  }
  message call(Path to, unsigned int cmd, message m = message()) { return await(post(std::move(to), cmd, m)); }
  message status(unsigned int address, unsigned int handler = kHandlerA) { return call({address, handler}, kStatus); }
  // `via` posts `inner` to `to` (with `ticks`, or no time-out) and answers
  // with how that ended: {kError, kReply}.
  unsigned int postForward(Path via, const Path& to, const message& inner, unsigned int ticks = kNever) {
    message q = fields(kTarget, to, kInner, inner);
    if (ticks != kNever) q.insert(kTicks, ticks);
    return post(std::move(via), kForward, q);
  }
  message forward(const Path& to, const message& inner, unsigned int ticks = kNever) {
    return await(postForward({kA, kHandlerA}, to, inner, ticks));
  }

  // The pid of the daemon at `address` (other than `notPid`), asking again
  // for up to 10 s: the loader starts and restarts daemons in its own time.
  pid_t up(unsigned int address, pid_t notPid = 0) {
    for (int i = 0; i < 200; ++i, usleep(50000)) {
      const message r = call({address, kHandlerA}, kEcho);
      if (r.empty()) break;  // no answer at all: await() has said so
      if (errorOf(r) == ERROR_OK && pid_t(r.get(kPid)) != notPid) return pid_t(r.get(kPid));
    }
    ADD_FAILURE() << "daemon " << address << " does not answer\n" << loader_->log();
    return 0;
  }
  // Polls (for up to 10 s) until done() holds.
  static bool eventually(const std::function<bool()>& done) {
    for (int i = 0; i < 500; ++i, usleep(20000))
      if (done()) return true;
    return false;
  }
  // Receives into inbox_ until done() holds; false when nothing came for 5 s.
  bool waitFor(const std::function<bool()>& done) {
    for (message m; !done(); inbox_.push_back(std::move(m)))
      if (!tester_->recv(&m, 5000)) return false;
    return true;
  }
  // Takes the first message for which pred holds out of inbox_, receiving
  // into it as needed; empty when none came.
  message next(const std::function<bool(const message&)>& pred) {
    message m;
    EXPECT_TRUE(waitFor([&] {
      const auto it = std::find_if(inbox_.begin(), inbox_.end(), pred);
      if (it != inbox_.end()) m = std::move(*it), inbox_.erase(it);
      return !m.empty();
    })) << "nothing more came";
    return m;
  }
  // Afterwards inbox_ holds everything passed on to the test before the loader answered.
  void drain() { call({loader::kLoaderAddress}, CMD_NOOP); }
  unsigned int disconnectReason(unsigned int address) {
    return next([&](const message& m) {
      return m.get(SYS_CMD) == CMD_DISCONNECTED && m.get(SYS_FROM) == Path{address};
    }).get(SYS_DREASON, 99);
  }
  // The objects of the notifies in inbox_, and how many came in each.
  std::vector<message> objects(Path* perNotify = nullptr) const {
    std::vector<message> out;
    for (const message& n : inbox_) {
      if (isReply(n) || n.get(SYS_CMD) != CMD_NOTIFY) continue;
      for (const message& o : n.get(STD_OBJS)) out.push_back(o);
      if (perNotify) perNotify->push_back(n.size(STD_OBJS));
    }
    return out;
  }

  loader::testing::TempDir dir_;
  std::unique_ptr<loader::testing::LoaderProcess> loader_;
  std::unique_ptr<Client> tester_;
  std::vector<message> inbox_;
  std::vector<pid_t> spawned_;
  unsigned int lastRequest_ = 0;
  pid_t pidB_ = 0;
};

TEST_F(BusE2E, RequestsAreAnsweredAcrossProcesses) {
  startTwo();
  const message echo = fields(SYS_CMD, kEcho, kPayload, pattern(10));
  const message direct = call({kA, kHandlerA}, kEcho, echo);
  EXPECT_EQ(direct.get(SYS_FROM), (Path{kA, kHandlerA}));
  EXPECT_EQ(direct.get(kPayload), pattern(10));
  // One daemon's handler asks another's: postMessage on one side,
  // handleCmd and replyMessage on the other, the reply callback back home.
  const message forwarded = forward({kB, kHandlerB}, echo);
  EXPECT_EQ(forwarded.get(kError), ERROR_OK);
  const message inner = forwarded.get(kReply);
  EXPECT_EQ(pid_t(inner.get(kPid)), pidB_);
  EXPECT_EQ(inner.get(SYS_FROM), (Path{kB, kHandlerB}));
  EXPECT_EQ(inner.get(kPayload), pattern(10));
  EXPECT_EQ(errorOf(call({kA, kHandlerA}, 0xFD00FF)), ERROR_NOTIMP) << "a command nobody implements is answered";
}

// Time-outs, and broken-path answers (the only end of requests without a time-out).
TEST_F(BusE2E, UnansweredRequestTimesOutAndOneToAPathNobodyHoldsIsABrokenPath) {
  startTwo();
  const message silent = forward({kB, kHandlerA}, fields(SYS_CMD, kSilent), 30);
  EXPECT_EQ(silent.get(kError), ERROR_TIMEOUT);
  EXPECT_TRUE(silent.get(kReply).has(SYS_REQID)) << "the time-out names its request";
  const message echo = fields(SYS_CMD, kEcho);
  EXPECT_EQ(forward({kB, kHandlerA}, echo, 300).get(kError), ERROR_OK) << "plenty for an answer";
  EXPECT_EQ(forward({999, kHandlerA}, echo).get(kError), ERROR_BRKPATH);    // the loader
  EXPECT_EQ(forward({kB, 99}, echo).get(kError), ERROR_BRKPATH);            // kB's Looper
  EXPECT_EQ(forward({kB, kHandlerA, 5}, echo).get(kError), ERROR_BRKPATH);  // past a strict handler
  EXPECT_EQ(status(kA).get(kPending), 0u) << "a request outlived its end";
}

TEST_F(BusE2E, LargeFramesArriveIntact) {
  startTwo();
  for (size_t bytes : {size_t{2000}, size_t{60 * 1024}}) {  // test -> kA -> kB -> kA -> test
    const message r = forward({kB, kHandlerA}, fields(SYS_CMD, kEcho, kPayload, pattern(bytes)));
    EXPECT_EQ(r.get(kError), ERROR_OK) << bytes;
    EXPECT_EQ(r.get(kReply).get(kPayload), pattern(bytes)) << bytes;
  }
  // An answer too large for any frame becomes ERROR_TOOBIG instead of silence.
  EXPECT_EQ(errorOf(call({kB, kHandlerA}, kEcho, fields(kSize, 65536u))), ERROR_TOOBIG);
  EXPECT_NE(loader_->log().find("LOOPER WARNING: write message too long"), std::string::npos);
}

TEST_F(BusE2E, DescriptorTravelsWithExactlyItsMessage) {
  startTwo();
  // Five messages written in one go, pipes with the second and the fourth;
  // then again with frames too large for the receiver's read buffer.
  for (unsigned int payload : {0u, 1500u}) {
    const message q = fields(kTarget, Path{kB, kHandlerA}, kCount, 5u, kFdAt, Path{1, 3}, kSize, payload);
    ASSERT_EQ(errorOf(call({kA, kHandlerA}, kSendFds, q)), ERROR_OK);
  }
  const message got = status(kB);
  EXPECT_EQ(got.get(kSeqs), (Path{0, 1, 2, 3, 4, 0, 1, 2, 3, 4}));
  EXPECT_EQ(got.get(kTexts),
            (std::vector<std::string>{"", fdText(1), "", fdText(3), "", "", fdText(1), "", fdText(3), ""}));
}

TEST_F(BusE2E, MessagesBeyondAThousandQueuedDuringAnExchangeAreSpilled) {
  start("");
  spawn(kC);
  up(kC);
  const message q = fields(kTarget, Path{kTester}, kInner, fields(SYS_CMD, kAskTester), kTicks, 3000u);
  const unsigned int exchange = post({kC, kHandlerA}, kExchange, q);
  // kC now blocks in exchangeMessage() until the test answers; meanwhile
  // everything else it gets is queued, up to 1000 messages.
  const message asked = next([](const message& m) { return m.get(SYS_CMD) == kAskTester; });
  ASSERT_FALSE(asked.empty());
  for (unsigned int seq = 0; seq < 1005; ++seq) tell({kC, kHandlerA}, kTally, fields(kSeq, seq));
  message answer = fields(SYS_TO, asked.get(SYS_FROM));
  setType(answer, TYPE_REPLY);
  setRequestID(answer, asked.get(SYS_REQID));
  ASSERT_TRUE(tester_->send(answer));
  EXPECT_EQ(await(exchange).get(kError), ERROR_OK);

  message got;
  EXPECT_TRUE(eventually([&] { return (got = status(kC)).get(kTallied) >= 1000; }));
  EXPECT_EQ(got.get(kTallied), 1000u);
  EXPECT_EQ(got.get(kLastSeq), 999u) << "the first 1000 are kept, the rest spilled";
  EXPECT_EQ(occurrences(output(kC, ".err"), "full queue, spilled message:"), 5u);
  EXPECT_EQ(occurrences(output(kC, ".out"), "exchangeMessage: queue spill  during exchange of:"), 1u)
      << "once per exchange";
}

TEST_F(BusE2E, LeaveCarriesPersistentDataAcrossTheRestart) {
  start(daemon(kA, "always"));
  const pid_t first = up(kA);
  ASSERT_EQ(errorOf(call({kA, kHandlerA}, CMD_SET, fields(kValue, 5u))), ERROR_OK);
  ASSERT_EQ(errorOf(call({kA, kHandlerB}, CMD_SET, fields(kValue, 6u))), ERROR_OK);
  // The daemon asks to be stopped; the loader answers with the leave
  // control, and the Looper leaves with every handler's data.
  ASSERT_EQ(errorOf(call({kA, kHandlerA}, kLeave)), ERROR_OK);
  EXPECT_EQ(disconnectReason(kA), DREASON_DISCONNECTED) << "it left, it did not crash";
  up(kA, first);
  EXPECT_EQ(call({kA, kHandlerA}, kEcho).get(kValue), 5u);
  EXPECT_EQ(call({kA, kHandlerB}, kEcho).get(kValue), 6u) << "each handler gets its own data back";
}

TEST_F(BusE2E, DisconnectFailsPendingRequestsAndDropsSubscriptionsOnlyWhereThereAreSome) {
  startTwo();
  // kA's handler A gets two subscribers, kB's handler and the test (their
  // filters differ); its handler B none.
  ASSERT_EQ(errorOf(call({kB, kHandlerA}, kSubscribeTo, fields(kTag, 1u, kTarget, Path{kA, kHandlerA}))), ERROR_OK);
  ASSERT_EQ(errorOf(call({kA, kHandlerA}, CMD_SUBSCRIBE, fields(kTag, 2u))), ERROR_OK);
  ASSERT_EQ(status(kA).get(kSubscribers), 2u);
  // Both handlers wait for kB, without a time-out.
  const unsigned int viaA = postForward({kA, kHandlerA}, {kB, kHandlerA}, fields(SYS_CMD, kSilent));
  postForward({kA, kHandlerB}, {kB, kHandlerA}, fields(SYS_CMD, kSilent));
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
  ASSERT_EQ(errorOf(call({kB, kHandlerA}, kSubscribeTo, fields(kTag, 1u, kTarget, Path{kA, kHandlerA}))), ERROR_OK);
  ASSERT_EQ(errorOf(call({kA, kHandlerA}, CMD_SUBSCRIBE, fields(kTag, 2u, SYS_CREDITS, 3u))), ERROR_OK);
  // Ten objects, each changed three times within one coalescing period.
  ASSERT_EQ(errorOf(call({kA, kHandlerA}, kChange, fields(kFirst, 1u, kCount, 10u, kRepeat, 3u))), ERROR_OK);

  const std::set<unsigned int> all{1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
  message b;  // kB, without a limit
  ASSERT_TRUE(eventually([&] { return (b = status(kB)).size(kObjIds) >= 10; }));
  const Path ids = b.get(kObjIds);
  EXPECT_EQ(std::set<unsigned int>(ids.begin(), ids.end()), all);
  EXPECT_EQ(b.get(kObjVersions), Path(10, 3)) << "one object per id, only the last state of each";

  drain();  // what kA sent the test before it could answer: three objects
  EXPECT_EQ(objects().size(), 3u);
  tell({kA, kHandlerA}, CMD_NOTIFYACK, fields(SYS_CREDITS, 10u));  // credits given back bring the rest
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
  // Objects of exactly 4096 bytes (magic 2, STD_ID and kVersion 5 each, the
  // payload's tag and length 6): four fill a batch to the byte.
  ASSERT_EQ(errorOf(call({kA, kHandlerA}, kChange, fields(kFirst, 1u, kCount, 8u, kSize, 4096u - 18))), ERROR_OK);
  ASSERT_TRUE(waitFor([&] { return objects().size() >= 8; }));
  drain();
  Path perNotify;
  for (const message& o : objects(&perNotify)) {
    std::vector<unsigned char> flat;
    o.flatten(flat);
    EXPECT_EQ(flat.size(), 4096u);
  }
  EXPECT_EQ(perNotify, (Path{4, 4}));
}

TEST_F(BusE2E, KilledDaemonIsRestartedAndAnswersAgain) {
  start(daemon(kA, "always"));
  const pid_t first = up(kA);
  ASSERT_GT(first, 0);
  ASSERT_EQ(kill(first, SIGKILL), 0);
  EXPECT_EQ(disconnectReason(kA), DREASON_CRASHED);
  up(kA, first);  // a new pid, after the loader's back-off
  const message echo = fields(SYS_CMD, kEcho, kPayload, pattern(10));
  EXPECT_EQ(forward({kA, kHandlerB}, echo).get(kReply).get(kPayload), pattern(10))
      << "the restarted daemon asks and answers";
}

}  // namespace
}  // namespace kr::e2e
