// kr-cli: the command line in process; the commands end to end, the real
// kr-cli binary against a real kr-loader that runs the example daemon
// (address 40, handler 10) and, where a test needs a peer that misbehaves on
// purpose, a raw client of the loader's tests.
#include "tools/kr-cli/cli.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "kr/message/protocol.h"
#include "kr/message/vocabulary.h"
#include "kr/testing/child_process.h"
#include "platform/loader/protocol.h"
#include "platform/loader/test_client.h"
#include "tools/kr-msg/msgjson.h"

namespace kr::cli {
namespace {

using Strings = std::vector<std::string>;
constexpr auto npos = std::string::npos;

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

Options parsed(const Strings& args, bool ok = true) {
  Options o;
  std::string error;
  bool help = false;
  EXPECT_EQ(parseArgs(args, &o, &error, &help), ok) << ::testing::PrintToString(args) << error;
  EXPECT_EQ(error.empty(), ok) << "one error line on failure";
  return o;
}

TEST(cliParse, EachCommandBuildsItsRequest) {
  for (const auto& [args, cmd] : std::vector<std::pair<Strings, unsigned int>>{
           {{"get", "40/10"}, CMD_GET}, {{"get", "40/10", "7"}, CMD_GETOBJ}, {{"set", "40/10", "{}"}, CMD_SET},
           {{"set", "40/10", "3", "{}"}, CMD_SETOBJ}, {{"move", "40/10", "5"}, CMD_MOVEOBJ},
           {{"remove", "40/10", "5"}, CMD_REMOVEOBJ}, {{"add", "40/10", "{}"}, CMD_ADDOBJ},
           {{"getall", "40/10"}, CMD_GETALL}, {{"listen", "40/10"}, CMD_SUBSCRIBE}, {{"monitor"}, loader::kMonitorCmd}})
    EXPECT_EQ(parsed(args).request.get(SYS_CMD), cmd) << args[0];

  Options o = parsed({"get", "40/10", "7"});
  EXPECT_EQ(o.path, (Path{40, 10}));
  EXPECT_EQ(o.request.get(STD_ID, 0u), 7u);
  EXPECT_FALSE(parsed({"get", "40/10"}).request.has(STD_ID));
  o = parsed({"set", "40/10", "3", R"({"string:1": "x"})"});
  EXPECT_EQ(o.request.get(STD_ID, 0u), 3u);
  EXPECT_EQ(o.request.get(string_id(1)), "x");
  o = parsed({"move", "40/10", "5", "0"});  // before the first object
  EXPECT_EQ(o.request.get(STD_ID, 0u), 5u);
  EXPECT_EQ(o.request.get(STD_NEXTID, 99u), 0u);
  EXPECT_FALSE(parsed({"move", "40/10", "5"}).request.has(STD_NEXTID)) << "to the end";

  o = parsed({"--timeout", "0.5", "call", "40/10", "CMD_GETCOUNT", R"({"u32:SYS_CMD": 1, "u32:9": 2})"});
  EXPECT_EQ(o.timeoutTicks, 50u);
  EXPECT_EQ(o.request.get(SYS_CMD), CMD_GETCOUNT) << "the command wins over the JSON";
  EXPECT_EQ(o.request.get(u32_id(9)), 2u);

  o = parsed({"listen", "40/10", "--push", "--count", "2"});  // the filter and credits: end to end
  EXPECT_TRUE(o.request.get(bool_id(0xFF0017)));
  EXPECT_EQ(o.count, 2u);
  EXPECT_FALSE(o.request.has(SYS_CREDITS)) << "unlimited by default";

  for (const Strings& bad : std::vector<Strings>{
           {}, {"frob", "40"}, {"get"}, {"get", "40", "1", "2"}, {"monitor", "40"},  // the shape
           {"get", "40/x"}, {"get", "40", "seven"}, {"set", "40", "{not json"}, {"call", "40", "CMD_NOPE"},
           {"get", "40", "--count", "1"},  // listen's own options
           {"listen", "40", "--credits", "0"}, {"listen", "40", "--credits", "0x40000000"},  // 0x40000000: unlimited
           {"--timeout", "0", "get", "40"}, {"--timeout", "soon", "get", "40"}, {"get", "40", "--timeout"},
           {"--dump", "--compact", "get", "40"}, {"--bogus", "get", "40"}})
    parsed(bad, false);
}

TEST(cliParse, LogBuildsKrLogsRequestLine) {
  EXPECT_EQ(parsed({"log"}).logRequest, "follow");
  const Options o = parsed({"log", "follow", "--tail", "5", "--topic", "example", "--topic", "0x29", "--program",
                            "dhcpd", "--count", "2"});
  EXPECT_EQ(o.command, Command::kLog);
  EXPECT_EQ(o.logRequest, "follow tail=5 topic=example topic=0x29 program=dhcpd");
  EXPECT_EQ(o.count, 2u);
  EXPECT_EQ(parsed({"log", "mute", "example"}).logRequest, "mute example");
  EXPECT_EQ(parsed({"log", "unmute", "41"}).logRequest, "unmute 41");
  EXPECT_EQ(parsed({"log", "status"}).logRequest, "status");
  for (const Strings& bad : std::vector<Strings>{
           {"log", "frob"}, {"log", "mute"}, {"log", "mute", "a", "b"}, {"log", "follow", "x"}, {"log", "status", "x"},
           {"log", "status", "--tail", "1"}, {"log", "mute", "a", "--count", "1"}, {"log", "--topic", "a b"},
           {"log", "--tail", "1001"}, {"log", "--push"}, {"get", "40", "--topic", "a"}})
    parsed(bad, false);
}

// kr-cli as a child process, its standard output (0) and error (1) going to
// the files `files`.out and .err.
class CliProcess : public kr::testing::ChildProcess {
 public:
  CliProcess(const std::string& runtimeDir, const std::string& files, const Strings& args)
      : ChildProcess(KR_CLI_BINARY, args, {.runtimeDir = runtimeDir, .out = files + ".out", .err = files + ".err"}) {}
  std::string all(int which) const { return which == 0 ? out() : err(); }
  // The next line of output `which` that contains `text`, waiting up to 10 s.
  bool line(int which, std::string* found, const std::string& text = "") {
    for (int i = 0; i < 1000; ++i, usleep(10000)) {
      for (const std::string s = all(which); s.find('\n', seen_[which]) != npos;) {
        const size_t nl = s.find('\n', seen_[which]);
        *found = s.substr(seen_[which], nl - seen_[which]);
        seen_[which] = nl + 1;
        if (found->find(text) != npos) return true;
      }
    }
    return false;
  }

 private:
  size_t seen_[2] = {0, 0};
};

message json(const std::string& text) {
  message m;
  std::string error;
  EXPECT_TRUE(msgjson::messageFromJson(text, m, error)) << error;
  return m;
}

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
    CliProcess p(runtimeDir.empty() ? dir_.path : runtimeDir, files(), args);
    const int status = p.wait();
    return {status, p.all(0), p.all(1)};
  }
  std::unique_ptr<CliProcess> start(const Strings& args) {
    return std::make_unique<CliProcess>(dir_.path, files(), args);
  }
  std::string files() { return dir_.path + "/cli" + std::to_string(++runs_); }
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
  int runs_ = 0;
};

TEST_F(cliEndToEnd, RequestsPrintTheAnswerAndFailuresExitWithTheirReason) {
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
  EXPECT_NE(r.out.find(R"("u32[]:SYS_FROM":[40,10])"), npos) << r.out;

  const auto fails = [&](const Strings& args, const std::string& why, int status = 1, const std::string& dir = "") {
    const Result r = run(args, dir);
    EXPECT_EQ(r.status, status) << why;
    EXPECT_EQ(r.out, "") << why;
    EXPECT_NE(r.err.find(why), npos) << r.err;
  };
  fails({"set", "40/10", R"({"string:1": ""})"}, "40/10: a non-empty greeting");  // refused by the daemon
  fails({"get", "40/10", "7"}, "unknown id");
  fails({"get", "99/4"}, "99/4: std failure: broken path");  // nobody holds 99
  const auto silent = peer(50);
  fails({"--timeout", "0.2", "get", "50"}, "timeout: no answer from 50 within 0.2 s");
  const loader::testing::TempDir empty;
  fails({"get", "40/10"}, "cannot connect to the loader at " + empty.path + "/korasock", 1, empty.path);
  fails({"get"}, "usage: kr-cli get PATH [ID]", 2);
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

  message notify = json(R"({"u32:SYS_CMD":"CMD_NOTIFY","message[]:STD_OBJS":[{"u32:STD_ID":1},{"u32:STD_ID":2}]})");
  notify.insert(SYS_TO, sub.get(SYS_FROM));
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
  EXPECT_NE(listen->all(1).find("50 is gone (crashed)"), npos) << listen->all(1);
}

TEST_F(cliEndToEnd, GetAllFollowsTheContinuationToTheLastPage) {
  auto pub = peer(50);
  auto getall = start({"--compact", "getall", "50"});
  message q;
  ASSERT_TRUE(next(*pub, CMD_GETALL, &q));
  EXPECT_FALSE(q.has(STD_GETALLID));
  reply(*pub, q, json(R"({"message[]:STD_OBJS": [{"u32:STD_ID": 1}], "u32:STD_GETALLID": 2})"));
  ASSERT_TRUE(next(*pub, CMD_GETALL, &q));
  EXPECT_EQ(q.get(STD_GETALLID, 0u), 2u);
  reply(*pub, q, json(R"({"message[]:STD_OBJS": [{"u32:STD_ID": 2}], "raw:0xfe0015": "ab"})"));  // a cookie goes on
  ASSERT_TRUE(next(*pub, CMD_GETALL, &q));
  EXPECT_FALSE(q.has(STD_GETALLID));
  EXPECT_EQ(q.get(raw_id(0xFE0015)), std::vector<unsigned char>{0xAB});
  reply(*pub, q, json(R"({"message[]:STD_OBJS": [{"u32:STD_ID": 3}]})"));
  EXPECT_EQ(getall->wait(), 0) << getall->all(1);
  EXPECT_EQ(getall->all(0), "[{\"u32:STD_ID\":1},{\"u32:STD_ID\":2},{\"u32:STD_ID\":3}]\n");

  // An object too large for any page: the answer is empty and points at it.
  getall = start({"getall", "50"});
  for (int i = 0; i < 2; ++i) {
    ASSERT_TRUE(next(*pub, CMD_GETALL, &q));
    reply(*pub, q, json(R"({"u32:STD_GETALLID": 4})"));
  }
  EXPECT_EQ(getall->wait(), 1);
  EXPECT_NE(getall->all(1).find("getall is stuck at object 4"), npos) << getall->all(1);
}

// `log` needs no loader: a real kr-log on its own.
TEST(cliLog, MutesShowsStatusAndFollowsWithoutTheBus) {
  loader::testing::TempDir dir;
  kr::testing::ChildProcess log(KR_LOG_BINARY, {}, {.runtimeDir = dir.path, .err = dir.path + "/kr-log.err"});
  int runs = 0;
  const auto run = [&](const Strings& args) {
    CliProcess p(dir.path, dir.path + "/cli" + std::to_string(++runs), args);
    const int status = p.wait();
    return Result{status, p.all(0), p.all(1)};
  };
  Result r{};
  for (int i = 0; i < 500 && (r = run({"log", "mute", "41"})).status != 0; ++i) usleep(10000);
  EXPECT_EQ(r.status, 0) << r.err;
  r = run({"log", "status"});
  EXPECT_EQ(r.out, "muted 41 41\n") << r.err;
  r = run({"log", "--tail", "2", "--program", "kr-log", "--count", "2"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("kr-log: topic 41 (41) muted\n"), npos) << r.out;
  EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 2) << r.out;
  EXPECT_EQ(run({"log", "mute", "nosuch"}).err, "kr-cli: unknown topic 'nosuch'\n");

  EXPECT_TRUE(log.signal(SIGTERM));
  EXPECT_EQ(log.wait(), 0);
  r = run({"log", "status"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("kr-cli: cannot connect to kr-log at " + dir.path + "/logctl"), npos) << r.err;
}

TEST_F(cliEndToEnd, MonitorShowsARequestAndItsReply) {
  auto monitor = start({"monitor"});
  std::string request, answer, gone;
  ASSERT_TRUE(monitor->line(1, &request, "monitoring the bus"));
  ASSERT_EQ(run({"get", "40/10"}).status, 0);
  ASSERT_TRUE(monitor->line(0, &request, " -> 40  CMD_GET  "));
  EXPECT_NE(request.find(R"("u32[]:SYS_TO":[10])"), npos) << request;
  ASSERT_TRUE(monitor->line(0, &answer));
  EXPECT_EQ(answer.rfind("40 -> ", 0), 0u) << answer;
  EXPECT_NE(answer.find("  reply  "), npos) << answer;
  EXPECT_NE(answer.find(R"("string:0x1":"Hello")"), npos) << answer;
  // kr-cli leaves in order: not a crash.
  ASSERT_TRUE(monitor->line(0, &gone, "1 -> 40  CMD_DISCONNECTED"));
  EXPECT_NE(gone.find("DREASON_DISCONNECTED"), npos) << gone;
  monitor->signal(SIGTERM);
  EXPECT_EQ(monitor->wait(), 0) << monitor->all(1);
}

}  // namespace
}  // namespace kr::cli
