// kr-cli: the command line in process; the commands end to end, the real
// kr-cli binary against a real kr-loader that runs the example daemon
// (address 40, handler 10) and, where a test needs a peer that misbehaves on
// purpose, a raw client of the loader's tests.
#include "tools/kr-cli/cli.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "kr/message/protocol.h"
#include "kr/message/vocabulary.h"
#include "platform/loader/protocol.h"
#include "platform/loader/test_client.h"

namespace kr::cli {
namespace {

using Strings = std::vector<std::string>;
constexpr unsigned int kNone = 0xFFFFFFFF;  // no continuation

// ---- The command line ---------------------------------------------------------------

TEST(cliParse, NumbersPathsAndCommands) {
  unsigned int n = 0;
  for (const auto& [text, value] : std::vector<std::pair<std::string, unsigned int>>{
           {"40", 40}, {"0x28", 40}, {"0XfF", 255}, {"4294967295", 0xFFFFFFFF}, {"0", 0}}) {
    EXPECT_TRUE(parseNumber(text, &n) && n == value) << text;
  }
  for (const char* bad : {"", "0x", "-1", "+1", "4294967296", "0x100000000", "1 ", "0x1g", "ten"})
    EXPECT_FALSE(parseNumber(bad, &n)) << bad;

  Path path;
  EXPECT_TRUE(parsePath("40/0xA/0", &path));
  EXPECT_EQ(path, (Path{40, 10, 0}));
  EXPECT_EQ(pathText(path), "40/10/0");
  for (const char* bad : {"", "/40", "40/", "40//10", "40/x", "40 /10"}) EXPECT_FALSE(parsePath(bad, &path)) << bad;

  EXPECT_TRUE(parseCommand("CMD_GET", &n) && n == CMD_GET);
  EXPECT_TRUE(parseCommand("0x100", &n) && n == 0x100);
  for (const char* bad : {"ERROR_TIMEOUT", "CMD_NOPE", "cmd_get", ""}) EXPECT_FALSE(parseCommand(bad, &n)) << bad;
}

Options parsed(const Strings& args) {
  Options o;
  std::string error;
  bool help = false;
  EXPECT_TRUE(parseArgs(args, &o, &error, &help)) << error;
  return o;
}

TEST(cliParse, EachCommandBuildsItsRequest) {
  Options o = parsed({"get", "40/10"});
  EXPECT_EQ(o.path, (Path{40, 10}));
  EXPECT_EQ(o.request.get(SYS_CMD), CMD_GET);
  EXPECT_FALSE(o.request.has(STD_ID));
  o = parsed({"get", "40/10", "7"});
  EXPECT_EQ(o.request.get(SYS_CMD), CMD_GETOBJ);
  EXPECT_EQ(o.request.get(STD_ID, 0u), 7u);

  o = parsed({"set", "40/10", "3", R"({"string:1": "x"})"});
  EXPECT_EQ(o.request.get(SYS_CMD), CMD_SETOBJ);
  EXPECT_EQ(o.request.get(STD_ID, 0u), 3u);
  EXPECT_EQ(o.request.get(string_id(1)), "x");
  EXPECT_EQ(parsed({"set", "40/10", R"({"string:1": "x"})"}).request.get(SYS_CMD), CMD_SET);

  o = parsed({"move", "40/10", "5", "0"});  // before the first object
  EXPECT_EQ(o.request.get(SYS_CMD), CMD_MOVEOBJ);
  EXPECT_EQ(o.request.get(STD_ID, 0u), 5u);
  EXPECT_EQ(o.request.get(STD_NEXTID, 99u), 0u);
  EXPECT_FALSE(parsed({"move", "40/10", "5"}).request.has(STD_NEXTID)) << "to the end";
  EXPECT_EQ(parsed({"remove", "40/10", "5"}).request.get(SYS_CMD), CMD_REMOVEOBJ);
  EXPECT_EQ(parsed({"add", "40/10", "{}"}).request.get(SYS_CMD), CMD_ADDOBJ);
  EXPECT_EQ(parsed({"getall", "40/10"}).request.get(SYS_CMD), CMD_GETALL);

  o = parsed({"--timeout", "0.5", "call", "40/10", "CMD_GETCOUNT", R"({"u32:SYS_CMD": 1, "u32:9": 2})"});
  EXPECT_EQ(o.timeoutTicks, 50u);
  EXPECT_EQ(o.request.get(SYS_CMD), CMD_GETCOUNT) << "the command wins over the JSON";
  EXPECT_EQ(o.request.get(u32_id(9)), 2u);

  o = parsed({"listen", "40/10", R"({"u32:7": 1})", "--credits", "3", "--push", "--count", "2"});
  EXPECT_EQ(o.request.get(SYS_CMD), CMD_SUBSCRIBE);
  EXPECT_EQ(o.request.get(SYS_CREDITS), 3u);
  EXPECT_TRUE(o.request.get(bool_id(0xFF0017)));
  EXPECT_EQ(o.request.get(u32_id(7)), 1u);
  EXPECT_EQ(o.count, 2u);
  EXPECT_FALSE(parsed({"listen", "40/10"}).request.has(SYS_CREDITS)) << "unlimited by default";

  o = parsed({"monitor"});
  EXPECT_EQ(o.path, Path{loader::kLoaderAddress});
  EXPECT_EQ(o.request.get(SYS_CMD), loader::kMonitorCmd);
}

TEST(cliParse, BadUsageIsRefused) {
  const std::vector<Strings> bad = {
      {}, {"frob", "40"}, {"get"}, {"get", "40", "1", "2"}, {"monitor", "40"},          // the shape
      {"get", "40/x"}, {"get", "40", "seven"}, {"set", "40", "{not json"}, {"call", "40", "CMD_NOPE"},
      {"get", "40", "--count", "1"},                                              // listen's own options
      {"listen", "40", "--credits", "0"}, {"listen", "40", "--credits", "0x40000000"},  // 0x40000000: unlimited
      {"--timeout", "0", "get", "40"}, {"--timeout", "soon", "get", "40"}, {"get", "40", "--timeout"},
      {"--dump", "--compact", "get", "40"}, {"--bogus", "get", "40"},
  };
  for (const Strings& args : bad) {
    Options o;
    std::string error;
    bool help = false;
    EXPECT_FALSE(parseArgs(args, &o, &error, &help)) << ::testing::PrintToString(args);
    EXPECT_FALSE(error.empty());
  }
}

// ---- End to end ---------------------------------------------------------------------------

// kr-cli as a child process, its standard output and error read line by line.
class CliProcess {
 public:
  CliProcess(const std::string& runtimeDir, const Strings& args) {
    int out[2], err[2];
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      dup2(out[1], 1);
      dup2(err[1], 2);
      setenv("KR_RUNTIME_DIR", runtimeDir.c_str(), 1);
      std::vector<char*> argv{const_cast<char*>(KR_CLI_BINARY)};
      for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
      argv.push_back(nullptr);
      execv(KR_CLI_BINARY, argv.data());
      _exit(127);
    }
    close(out[1]);
    close(err[1]);
    fd_[0] = out[0];
    fd_[1] = err[0];
  }
  ~CliProcess() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    for (int fd : fd_) close(fd);
  }

  // The next line of standard output (0) or error (1) that contains
  // `text`, waiting up to 10 s for each piece of output.
  bool line(int which, std::string* found, const std::string& text = "") {
    for (std::string& buf = pending_[which];;) {
      const size_t nl = buf.find('\n');
      if (nl == std::string::npos) {
        if (!readMore(which, 10000)) return false;
        continue;
      }
      *found = buf.substr(0, nl);
      buf.erase(0, nl + 1);
      if (found->find(text) != std::string::npos) return true;
    }
  }
  void signal(int sig) { kill(pid_, sig); }
  // The exit status (-1 unless it exits within 10 s), after reading both
  // outputs to their end.
  int wait() {
    while (readMore(0, 10000) || readMore(1, 10000)) {
    }
    int status = 0;
    for (int i = 0; i < 1000; ++i, usleep(10000)) {
      if (waitpid(pid_, &status, WNOHANG) != pid_) continue;
      pid_ = -1;
      return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    return -1;
  }
  const std::string& all(int which) const { return all_[which]; }

 private:
  bool readMore(int which, int timeoutMs) {
    pollfd p{fd_[which], POLLIN, 0};
    char chunk[4096];
    if (poll(&p, 1, timeoutMs) <= 0) return false;
    const ssize_t n = read(fd_[which], chunk, sizeof chunk);
    if (n <= 0) return false;
    pending_[which].append(chunk, size_t(n));
    all_[which].append(chunk, size_t(n));
    return true;
  }

  pid_t pid_ = -1;
  int fd_[2] = {-1, -1};
  std::string pending_[2], all_[2];
};

struct Result {
  int status;
  std::string out, err;
};

using loader::testing::Client;

class cliEndToEnd : public ::testing::Test {
 protected:
  void SetUp() override {
    loader_ = std::make_unique<loader::testing::LoaderProcess>(
        KR_LOADER_BINARY, dir_.path, std::string("daemon 40 always ") + KR_EXAMPLE_BINARY + "\n");
    for (int i = 0; i < 100 && run({"--timeout", "1", "call", "40/10", "CMD_NOOP"}).status != 0; ++i) usleep(50000);
  }
  void TearDown() override {
    EXPECT_EQ(loader_->stop(), 0) << loader_->log();
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child left behind";
  }
  Result run(const Strings& args, const std::string& runtimeDir = "") {
    CliProcess p(runtimeDir.empty() ? dir_.path : runtimeDir, args);
    const int status = p.wait();
    return {status, p.all(0), p.all(1)};
  }
  std::unique_ptr<CliProcess> start(const Strings& args) {
    return std::make_unique<CliProcess>(dir_.path, args);
  }
  // A raw peer at a fixed address, playing a daemon that misbehaves.
  std::unique_ptr<Client> peer(unsigned int address) {
    auto c = std::make_unique<Client>(loader_->socketPath());
    EXPECT_EQ(c->join(address).get(loader::kReadyAddress), address);
    return c;
  }
  // The next message with command `cmd` that `c` gets, skipping others
  // (disconnect notices of earlier runs).
  static bool next(Client& c, unsigned int cmd, message* m) {
    while (c.recv(m, 10000)) {
      if (m->get(SYS_CMD) == cmd) return true;
    }
    return false;
  }
  static void reply(Client& c, const message& request, message r = message()) {
    r.insert(SYS_TO, request.get(SYS_FROM));
    setType(r, TYPE_REPLY);
    setRequestID(r, request.get(SYS_REQID));
    ASSERT_TRUE(c.send(r));
  }

  loader::testing::TempDir dir_;
  std::unique_ptr<loader::testing::LoaderProcess> loader_;
};

TEST_F(cliEndToEnd, RequestsPrintTheAnswer) {
  Result r = run({"get", "40/10"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "{\n  \"u32:0x2\": 0,\n  \"string:0x1\": \"Hello\"\n}\n");

  EXPECT_EQ(run({"set", "40/10", R"({"string:1": "Hi"})"}).status, 0);
  r = run({"--compact", "call", "40/10", "0x100", R"({"string:1": "Ada"})"});
  EXPECT_EQ(r.out, "{\"u32:0x2\":1,\"string:0x1\":\"Hi, Ada!\"}\n") << r.err;

  // --socket names the loader wherever the runtime directory points.
  r = run({"--compact", "--socket", loader_->socketPath(), "get", "40/10", "1"}, "/nonexistent");
  EXPECT_EQ(r.out, "{\"u32:0x2\":1,\"u32:STD_ID\":1,\"string:0x1\":\"Hi\"}\n") << r.err;
  r = run({"--compact", "--all-fields", "get", "40/10"});
  EXPECT_NE(r.out.find(R"("u32[]:SYS_FROM":[40,10])"), std::string::npos) << r.out;
  r = run({"--compact", "getall", "40/10"});
  EXPECT_EQ(r.out, "[{\"u32:0x2\":1,\"u32:STD_ID\":1,\"string:0x1\":\"Hi\"}]\n") << r.err;
}

TEST_F(cliEndToEnd, FailuresExitWithTheirReason) {
  Result r = run({"set", "40/10", R"({"string:1": ""})"});  // refused by the daemon
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_NE(r.err.find("40/10: a non-empty greeting"), std::string::npos) << r.err;
  r = run({"get", "40/10", "7"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("unknown id"), std::string::npos) << r.err;
  r = run({"get", "99/4"});  // nobody holds 99
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("99/4: std failure: broken path"), std::string::npos) << r.err;

  auto silent = peer(50);
  r = run({"--timeout", "0.2", "get", "50"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("timeout: no answer from 50 within 0.2 s"), std::string::npos) << r.err;

  loader::testing::TempDir empty;
  r = run({"get", "40/10"}, empty.path);
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("cannot connect to the loader at " + empty.path + "/korasock"), std::string::npos) << r.err;
  r = run({"get"});
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("usage: kr-cli get PATH [ID]"), std::string::npos) << r.err;
}

TEST_F(cliEndToEnd, ListenPrintsEachChangeAndLeavesAfterCount) {
  auto listen = start({"--compact", "listen", "40/10", "--count", "1"});
  std::string line;
  ASSERT_TRUE(listen->line(1, &line, "listening to 40/10"));
  EXPECT_EQ(run({"set", "40/10", R"({"string:1": "Yo"})"}).status, 0);
  ASSERT_TRUE(listen->line(0, &line));
  EXPECT_EQ(line, R"({"u32:STD_OBJ_COUNT":1,"u32:SYS_CMD":"CMD_NOTIFY",)"
                  R"("message[]:STD_OBJS":[{"u32:0x2":0,"u32:STD_ID":1,"string:0x1":"Yo"}]})");
  EXPECT_EQ(listen->wait(), 0) << listen->all(1);
}

// A publisher played by hand: what the subscription, the acknowledgements
// and the unsubscription look like on the wire, and the publisher's end.
TEST_F(cliEndToEnd, ListenAcknowledgesCreditsUnsubscribesAndNoticesThePublisherGoing) {
  auto pub = peer(50);
  auto listen = start({"--compact", "listen", "50/3", R"({"u32:7": 9})", "--credits", "4"});
  message sub, got;
  ASSERT_TRUE(next(*pub, CMD_SUBSCRIBE, &sub));
  EXPECT_EQ(sub.get(SYS_TO), Path{3});
  EXPECT_EQ(sub.get(SYS_CREDITS), 4u);
  EXPECT_EQ(sub.get(u32_id(7)), 9u);
  reply(*pub, sub);
  std::string line;
  ASSERT_TRUE(listen->line(1, &line, "listening to 50/3"));

  message notify;
  notify.insert(SYS_TO, sub.get(SYS_FROM));
  notify.insert(SYS_CMD, CMD_NOTIFY);
  message a, b;
  a.insert(STD_ID, 1);
  b.insert(STD_ID, 2);
  notify.insert(STD_OBJS, std::vector<message>{a, b});
  ASSERT_TRUE(pub->send(notify));
  ASSERT_TRUE(next(*pub, CMD_NOTIFYACK, &got));
  EXPECT_EQ(got.get(SYS_CREDITS), 2u) << "one credit per object";
  EXPECT_EQ(got.get(SYS_FROM), sub.get(SYS_FROM)) << "the publisher knows its subscriber by path";
  ASSERT_TRUE(listen->line(0, &line));
  EXPECT_EQ(line, R"({"u32:SYS_CMD":"CMD_NOTIFY","message[]:STD_OBJS":[{"u32:STD_ID":1},{"u32:STD_ID":2}]})");

  listen->signal(SIGINT);
  ASSERT_TRUE(next(*pub, CMD_UNSUBSCRIBE, &got));
  EXPECT_EQ(got.get(u32_id(7)), 9u) << "the same filter ends the subscription";
  reply(*pub, got);
  EXPECT_EQ(listen->wait(), 0) << listen->all(1);

  listen = start({"listen", "50/3"});
  ASSERT_TRUE(next(*pub, CMD_SUBSCRIBE, &sub));
  reply(*pub, sub);
  ASSERT_TRUE(listen->line(1, &line, "listening to 50/3"));
  pub->close();
  EXPECT_EQ(listen->wait(), 1);
  EXPECT_NE(listen->all(1).find("50 is gone (crashed)"), std::string::npos) << listen->all(1);
}

TEST_F(cliEndToEnd, GetAllFollowsTheContinuationToTheLastPage) {
  auto pub = peer(50);
  auto getall = start({"--compact", "getall", "50"});
  const auto page = [](unsigned int obj, unsigned int next, std::vector<unsigned char> cookie) {
    message r, o;
    o.insert(STD_ID, obj);
    r.insert(STD_OBJS, std::vector<message>{o});
    if (next != kNone) r.insert(STD_GETALLID, next);
    if (!cookie.empty()) r.insert(raw_id(0xFE0015), cookie);
    return r;
  };
  message q;
  ASSERT_TRUE(next(*pub, CMD_GETALL, &q));
  EXPECT_FALSE(q.has(STD_GETALLID));
  reply(*pub, q, page(1, 2, {}));
  ASSERT_TRUE(next(*pub, CMD_GETALL, &q));
  EXPECT_EQ(q.get(STD_GETALLID, 0u), 2u);
  reply(*pub, q, page(2, kNone, {0xAB}));  // a cookie alone goes on too
  ASSERT_TRUE(next(*pub, CMD_GETALL, &q));
  EXPECT_FALSE(q.has(STD_GETALLID));
  EXPECT_EQ(q.get(raw_id(0xFE0015)), std::vector<unsigned char>{0xAB});
  reply(*pub, q, page(3, kNone, {}));
  EXPECT_EQ(getall->wait(), 0) << getall->all(1);
  EXPECT_EQ(getall->all(0), "[{\"u32:STD_ID\":1},{\"u32:STD_ID\":2},{\"u32:STD_ID\":3}]\n");

  // An object too large for any page: the answer is empty and points at it.
  getall = start({"getall", "50"});
  ASSERT_TRUE(next(*pub, CMD_GETALL, &q));
  message stuck;
  stuck.insert(STD_GETALLID, 4);
  reply(*pub, q, stuck);
  ASSERT_TRUE(next(*pub, CMD_GETALL, &q));
  reply(*pub, q, stuck);
  EXPECT_EQ(getall->wait(), 1);
  EXPECT_NE(getall->all(1).find("getall is stuck at object 4"), std::string::npos) << getall->all(1);
}

TEST_F(cliEndToEnd, MonitorShowsARequestAndItsReply) {
  auto monitor = start({"monitor"});
  std::string request, answer, gone;
  ASSERT_TRUE(monitor->line(1, &request, "monitoring the bus"));
  ASSERT_EQ(run({"get", "40/10"}).status, 0);
  ASSERT_TRUE(monitor->line(0, &request, " -> 40  CMD_GET  "));
  EXPECT_NE(request.find(R"("u32[]:SYS_TO":[10])"), std::string::npos) << request;
  ASSERT_TRUE(monitor->line(0, &answer));
  EXPECT_EQ(answer.rfind("40 -> ", 0), 0u) << answer;
  EXPECT_NE(answer.find("  reply  "), std::string::npos) << answer;
  EXPECT_NE(answer.find(R"("string:0x1":"Hello")"), std::string::npos) << answer;
  // kr-cli leaves in order: not a crash.
  ASSERT_TRUE(monitor->line(0, &gone, "1 -> 40  CMD_DISCONNECTED"));
  EXPECT_NE(gone.find("DREASON_DISCONNECTED"), std::string::npos) << gone;
  monitor->signal(SIGTERM);
  EXPECT_EQ(monitor->wait(), 0) << monitor->all(1);
}

}  // namespace
}  // namespace kr::cli
