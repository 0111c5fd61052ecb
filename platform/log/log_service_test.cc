// kr-log end to end: the real process in a scratch runtime directory, log
// clients writing the wire by hand on real sockets (many of them real
// processes), the control socket spoken raw, and the real kr-loader
// starting and stopping it. The mute-order bursts are timed in process, on
// a test clock.
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <filesystem>

#include "kr/loop/runner.h"
#include "kr/testing/child_process.h"
#include "platform/common/listener.h"
#include "platform/loader/test_client.h"
#include "platform/log/service.h"

namespace {

using Bytes = std::vector<unsigned char>;
using Strings = std::vector<std::string>;
using kr::loader::testing::TempDir;
constexpr auto npos = std::string::npos;

Bytes fields(std::initializer_list<uint16_t> fs) {
  Bytes b(2 * fs.size());
  std::memcpy(b.data(), std::data(fs), b.size());
  return b;
}
Bytes registration(uint16_t id, const std::vector<uint16_t>& topics) {
  Bytes b = fields({uint16_t(8 + 2 * topics.size()), 0, 0, id});
  const size_t at = b.size();
  b.resize(at + 2 * topics.size());
  if (!topics.empty()) std::memcpy(b.data() + at, topics.data(), 2 * topics.size());  // host order, as every field
  return b;
}
Bytes line(uint16_t id, const std::string& text) {
  Bytes b = fields({uint16_t(4 + text.size()), id});
  b.insert(b.end(), text.begin(), text.end());
  return b;
}
Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}
std::string slurp(const std::string& path) {
  std::stringstream s;
  s << std::ifstream(path, std::ios::binary).rdbuf();
  return s.str();
}
Strings linesOf(const std::string& text) {
  Strings out;
  std::stringstream s(text);
  for (std::string l; std::getline(s, l);) out.push_back(l);
  return out;
}
// "YYYY-MM-DD HH:MM:SS.mmm " at the start of a line.
bool startsWithStamp(const std::string& l) {
  const std::string shape = "dddd-dd-dd dd:dd:dd.ddd ";
  for (size_t i = 0; i < shape.size(); ++i) {
    if (i >= l.size() || (shape[i] == 'd' ? !std::isdigit(static_cast<unsigned char>(l[i])) : l[i] != shape[i]))
      return false;
  }
  return true;
}
std::string ownComm() { return linesOf(slurp("/proc/self/comm")).at(0); }

kr::UniqueFd connectTo(const std::string& path) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
  kr::UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) fd.reset();
  return fd;
}

// One log client on the wire.
class Client {
 public:
  explicit Client(const std::string& path) : fd_(connectTo(path)) {}
  bool send(const Bytes& b) { return kr::loader::testing::writeAll(fd_.get(), b); }
  // The next mute order: "id:muted", "" when none comes within timeoutMs.
  std::string order(int timeoutMs = 5000) {
    uint16_t f[3];
    if (!read(reinterpret_cast<unsigned char*>(f), sizeof f, timeoutMs)) return "";
    return f[0] == 6 ? std::to_string(f[1]) + ":" + std::to_string(f[2]) : "bad record";
  }
  // Whether the service ends the connection within 5 s.
  bool dropped() {
    unsigned char c;
    pollfd p{fd_.get(), POLLIN, 0};
    return poll(&p, 1, 5000) == 1 && recv(fd_.get(), &c, 1, MSG_DONTWAIT) <= 0;
  }
  int fd() const { return fd_.get(); }

 private:
  bool read(unsigned char* p, size_t n, int timeoutMs) {
    for (size_t got = 0; got < n;) {
      pollfd pf{fd_.get(), POLLIN, 0};
      if (poll(&pf, 1, timeoutMs) != 1) return false;
      const ssize_t r = recv(fd_.get(), p + got, n - got, 0);
      if (r <= 0) return false;
      got += size_t(r);
    }
    return true;
  }
  kr::UniqueFd fd_;
};

// kr-log (or a client mode of it) as a child in `dir`; standard output and
// error in dir/<name>.out and .err.
struct Process : kr::testing::ChildProcess {
  Process(const std::string& dir, const Strings& args, const std::string& name = "kr-log")
      : ChildProcess(KR_LOG_BINARY, args,
                     {.runtimeDir = dir, .out = dir + "/" + name + ".out", .err = dir + "/" + name + ".err"}) {}
};

constexpr char kConfig[] =
    "topic 40 example\n"
    "topic 41 example.requests   # a comment\n"
    "topic 0x2A example.table\n";

class logService : public ::testing::Test {
 protected:
  void SetUp() override { std::ofstream(conf()) << kConfig; }
  void TearDown() override {
    if (log_) {
      EXPECT_EQ(log_->stop(), 0) << log_->err();
      EXPECT_NE(file().find("kr-log: stopping on signal 15\n"), npos) << "flushed at the end";
    }
    log_.reset();
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child left behind";
  }
  // kr-log with the test's configuration, once its control socket answers.
  void start(Strings args = {}) {
    args.insert(args.begin(), {"--config", conf()});
    log_ = std::make_unique<Process>(dir_.path, args);
    for (int i = 0; i < 500 && !connectTo(ctl()); ++i) usleep(10000);
  }
  // One control request; the answer until the service closes, or its
  // first `lines` lines.
  std::string control(const std::string& request, size_t lines = 0) {
    kr::UniqueFd fd = connectTo(ctl());
    if (!fd || send(fd.get(), request.data(), request.size(), MSG_NOSIGNAL) < 0) return "no service";
    return readLines(fd.get(), lines);
  }
  // What arrives within 5 s, until the end or the `lines`th newline.
  static std::string readLines(int fd, size_t lines = 0) {
    std::string got;
    char buf[4096];
    for (pollfd p{fd, POLLIN, 0}; lines == 0 || size_t(std::count(got.begin(), got.end(), '\n')) < lines;) {
      const ssize_t n = poll(&p, 1, 5000) == 1 ? recv(fd, buf, lines ? 1 : sizeof buf, 0) : 0;
      if (n <= 0) break;
      got.append(buf, size_t(n));
    }
    return got;
  }
  // Waits up to 10 s until the file holds `text` (`count` times).
  bool logged(const std::string& text, size_t count = 1) {
    for (int i = 0; i < 1000; ++i, usleep(10000)) {
      size_t seen = 0;
      const std::string f = file();
      for (size_t at = f.find(text); at != npos && seen < count; at = f.find(text, at + 1)) ++seen;
      if (seen == count) return true;
    }
    return false;
  }
  std::string conf() const { return dir_.path + "/kr-log.conf"; }
  std::string sock() const { return dir_.path + "/logsocket"; }
  std::string ctl() const { return dir_.path + "/logctl"; }
  std::string file(const std::string& suffix = "") const { return slurp(dir_.path + "/log/kr.log" + suffix); }

  TempDir dir_;
  std::unique_ptr<Process> log_;
};

// 50 processes, each its own program name, writing their records in pieces
// of different sizes at the same time.
TEST_F(logService, ManyClientsAtOnceEveryLineWholeAndAttributed) {
  start();
  constexpr int kClients = 50, kLines = 40;
  int hold[2];
  ASSERT_EQ(pipe(hold), 0);
  std::map<std::string, pid_t> pids;
  for (int i = 0; i < kClients; ++i) {
    const std::string name = "cl" + std::to_string(i);
    const pid_t pid = fork();
    if (pid == 0) {
      prctl(PR_SET_NAME, name.c_str());  // before connecting: the service reads it at accept
      Client c(sock());
      Bytes all = registration(1, {uint16_t(40 + i % 3)});
      for (int j = 0; j < kLines; ++j) all = all + line(1, name + " line " + std::to_string(j) + std::string(i, 'x'));
      const size_t piece = size_t(i % 7) * 5 + 1;
      for (size_t at = 0; at < all.size(); at += piece)
        c.send(Bytes(all.begin() + long(at), all.begin() + long(std::min(all.size(), at + piece))));
      char c1;
      close(hold[1]);
      _exit(read(hold[0], &c1, 1) == 0 ? 0 : 1);  // stays until the parent has looked
    }
    pids[name] = pid;
  }
  close(hold[0]);
  EXPECT_TRUE(logged(" line ", kClients * kLines));
  std::map<int, int> next;
  for (const std::string& l : linesOf(file())) {
    if (l.find(" line ") == npos) continue;
    int i = -1, pid = 0, i2 = -2, j = -1, end = 0;
    char topic[32] = "";
    ASSERT_TRUE(startsWithStamp(l)) << l;
    ASSERT_EQ(std::sscanf(l.c_str() + 24, "cl%d[%d] %31[^:]: cl%d line %d%n", &i, &pid, topic, &i2, &j, &end), 5) << l;
    EXPECT_EQ(i, i2) << l;
    EXPECT_EQ(pid, pids["cl" + std::to_string(i)]) << l;
    EXPECT_EQ(topic, (Strings{"example", "example.requests", "example.table"}[i % 3])) << l;
    EXPECT_EQ(j, next[i]++) << "in order, none lost: " << l;
    EXPECT_EQ(l.substr(24 + size_t(end)), std::string(size_t(i), 'x')) << l;
  }
  EXPECT_EQ(next.size(), size_t(kClients));
  close(hold[1]);
  for (const auto& [name, pid] : pids) {
    int status = -1;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, 0) << name;
  }
}

TEST_F(logService, EachRecordIsOneLineWithItsTopicsWhereverTheStreamIsCut) {
  start();
  Client c(sock());
  const Bytes stream = registration(1, {40, 42, 7}) + line(1, "a\nb\tc\x7f" "d") + registration(2, {}) +
                       line(2, "no topics") + registration(1, {41}) + line(1, "re-registered") + line(2, "");
  for (unsigned char b : stream) ASSERT_TRUE(c.send({b}));
  ASSERT_TRUE(logged("] -: \n"));
  const std::string f = file();
  for (const char* want : {"] example,example.table,7: a?b?c?d\n", "] -: no topics\n",
                           "] example.requests: re-registered\n", "] -: \n"}) {
    EXPECT_NE(f.find(ownComm() + "[" + std::to_string(getpid()) + want), npos) << want << "\n" << f;
  }
}

TEST_F(logService, RotationShiftsWholeFilesAndKeepsOnlyTheNewest) {
  start({"--max-size", "2000", "--keep", "2"});
  Client c(sock());
  Bytes all = registration(1, {40});
  char text[64];
  for (int n = 0; n < 300; ++n) all = all + line(1, (std::snprintf(text, sizeof text, "n=%04d", n), text));
  ASSERT_TRUE(c.send(all));
  ASSERT_TRUE(logged("n=0299"));
  EXPECT_FALSE(std::filesystem::exists(dir_.path + "/log/kr.log.3"));
  int expected = -1;
  for (const char* suffix : {".2", ".1", ""}) {
    const std::string f = file(suffix);
    EXPECT_LE(f.size(), 2000u) << suffix;
    ASSERT_FALSE(f.empty()) << suffix;
    EXPECT_EQ(f.back(), '\n') << "no line split between files";
    const Strings lines = linesOf(f);
    EXPECT_NE(lines[0].find("kr-log: log rotated"), npos) << lines[0];
    for (size_t i = 1; i < lines.size(); ++i) {
      const int n = std::stoi(lines[i].substr(lines[i].find("n=") + 2));
      if (expected >= 0) {
        EXPECT_EQ(n, expected) << "nothing lost between files";
      }
      expected = n + 1;
    }
  }
  EXPECT_EQ(expected, 300);

  // keep 0: the file is emptied and starts again.
  EXPECT_EQ(log_->stop(), 0);
  std::filesystem::remove_all(dir_.path + "/log");
  start({"--max-size", "2000", "--keep", "0"});
  Client again(sock());
  ASSERT_TRUE(again.send(all));
  ASSERT_TRUE(logged("n=0299"));
  EXPECT_FALSE(std::filesystem::exists(dir_.path + "/log/kr.log.1"));
  EXPECT_EQ(file().find("n=0000"), npos);
  EXPECT_LE(file().size(), 2000u);
}

TEST_F(logService, AMalformedRecordDropsThatClientOnly) {
  start();
  Client good(sock());
  ASSERT_TRUE(good.send(registration(1, {40})));
  const std::string who = "dropped client " + ownComm() + "[" + std::to_string(getpid()) + "]: ";
  const std::vector<std::pair<Bytes, std::string>> cases = {
      {fields({2, 1}), "record length 2 is below 4"},
      {fields({6, 0, 0}), "registration of 6 bytes is shorter than 8"},
      {fields({9, 0, 0, 1}) + Bytes{40}, "registration of odd length 9"},
      {registration(0, {40}), "registration of source id 0"},
      {line(5, "who?"), "line of source 5, which was not registered"},
  };
  for (const auto& [bad, reason] : cases) {
    Client c(sock());
    ASSERT_TRUE(c.send(registration(1, {40}) + line(1, "fine before") + bad + line(1, "never")));
    EXPECT_TRUE(c.dropped()) << reason;
    EXPECT_TRUE(logged("kr-log: " + who + reason + "\n")) << reason;
    EXPECT_NE(log_->err().find("kr-log: " + who + reason + "\n"), npos) << log_->err();
    ASSERT_TRUE(good.send(line(1, "still here after " + reason)));
    EXPECT_TRUE(logged("example: still here after " + reason + "\n"));
  }
  EXPECT_TRUE(logged("fine before", cases.size()));
  EXPECT_EQ(file().find("never"), npos);
}

TEST_F(logService, MuteOrdersReachTheSourcesWhoseStateChangesAndStatusCountsEverything) {
  std::ofstream(conf(), std::ios::app) << "mute example.table\n";
  start();
  Client a(sock()), b(sock());
  const Bytes aStart = registration(1, {40}) + registration(2, {41, 42});
  ASSERT_TRUE(a.send(aStart));
  EXPECT_EQ(a.order(), "2:1") << "muted from the start";
  ASSERT_TRUE(b.send(registration(3, {41})));

  EXPECT_EQ(control("mute example.requests\n"), "ok\n");
  EXPECT_EQ(b.order(), "3:1");
  EXPECT_EQ(a.order(0), "") << "source 2 was silent already";
  const Bytes inFlight = line(3, "said before the order arrived");
  ASSERT_TRUE(b.send(inFlight + line(3, "and again")));
  EXPECT_EQ(control("unmute 42\n"), "ok\n");
  EXPECT_EQ(a.order(0), "") << "41 still holds source 2";
  EXPECT_EQ(control("unmute 0x29\n"), "ok\n");
  EXPECT_EQ(a.order(), "2:0");
  EXPECT_EQ(b.order(), "3:0");

  EXPECT_EQ(control("mute 40\n"), "ok\n");
  EXPECT_EQ(a.order(), "1:1");
  ASSERT_TRUE(b.send(registration(4, {43, 40})));
  EXPECT_EQ(b.order(), "4:1") << "a new source of a muted topic";
  ASSERT_TRUE(a.send(registration(1, {41})));
  EXPECT_EQ(a.order(), "1:0") << "re-registered without the muted topic";
  ASSERT_TRUE(a.send(line(1, "audible")));
  ASSERT_TRUE(logged("example.requests: audible"));

  EXPECT_EQ(control("mute nosuch\n"), "error: unknown topic 'nosuch'\n");
  EXPECT_EQ(control("mute 0\n"), "error: unknown topic '0'\n");
  EXPECT_EQ(control("mute\n"), "error: mute needs one topic\n");
  const std::string id = "pid=" + std::to_string(getpid()) + " program=" + ownComm();
  const size_t aBytes = aStart.size() + registration(1, {41}).size() + line(1, "audible").size();
  const size_t bBytes = registration(3, {41}).size() + inFlight.size() + line(3, "and again").size() +
                        registration(4, {43, 40}).size();
  EXPECT_EQ(control("status\n"), "ok\nclient " + id + " sources=2 lines=1 bytes=" + std::to_string(aBytes) +
                                     " dropped=0\nclient " + id + " sources=2 lines=0 bytes=" +
                                     std::to_string(bBytes) + " dropped=2\nmuted 40 example\n");
  EXPECT_EQ(file().find("said before"), npos);
}

// Text after "<program>[<pid>] " of each line.
Strings bodies(const std::string& text) {
  Strings out;
  for (const std::string& l : linesOf(text)) out.push_back(l == "ok" ? l : l.substr(l.find("] ") + 2));
  return out;
}

TEST_F(logService, FollowSendsTheMatchingTailThenNewLinesAndDropsAStuckFollower) {
  start({"--max-size", "0"});  // megabytes below, all in one file
  Client c(sock());
  ASSERT_TRUE(c.send(registration(1, {40}) + registration(2, {41, 42}) + line(1, "a1") + line(2, "b1") +
                     line(1, "a2") + line(2, "b2") + line(2, "b3")));
  ASSERT_TRUE(logged(": b3\n"));

  kr::UniqueFd follower = connectTo(ctl());
  const std::string request = "follow tail=2 topic=example.table topic=99 program=" + ownComm() + "\n";
  ASSERT_GT(send(follower.get(), request.data(), request.size(), 0), 0);
  const std::string both = "example.requests,example.table: ";
  EXPECT_EQ(bodies(readLines(follower.get(), 3)), (Strings{"ok", both + "b2", both + "b3"}));
  ASSERT_TRUE(c.send(line(1, "a3") + line(2, "b4")));
  EXPECT_EQ(bodies(readLines(follower.get(), 1)), Strings{both + "b4"}) << "a3 is not example.table";

  EXPECT_EQ(bodies(control("mute 99\nfollow is not read\n")), Strings{"ok"});
  EXPECT_EQ(bodies(control("follow program=kr-log tail=1\n", 2)), (Strings{"ok", "kr-log: topic 99 (99) muted"}));
  EXPECT_EQ(control("follow topic=nosuch\n"), "error: bad follow option 'topic=nosuch'\n");
  EXPECT_EQ(control("frob\n"), "error: unknown request 'frob'\n");
  EXPECT_EQ(control(std::string(2000, 'x')), "error: request longer than 1024 bytes\n");

  // A follower that never reads is let go once 1 MiB waits for it; the
  // other one still gets its lines.
  kr::UniqueFd stuck = connectTo(ctl());
  ASSERT_GT(send(stuck.get(), "follow\n", 7, 0), 0);
  EXPECT_EQ(readLines(stuck.get(), 1), "ok\n");
  const Bytes big = line(1, std::string(1000, 'z'));
  for (int i = 0; i < 2500; ++i) ASSERT_TRUE(c.send(big));
  EXPECT_TRUE(logged("kr-log: dropped 1 follower(s) more than 1 MiB behind\n"));
  ASSERT_TRUE(c.send(line(2, "b5")));
  EXPECT_EQ(bodies(readLines(follower.get(), 1)), Strings{both + "b5"});
}

TEST_F(logService, ABadConfigurationOrCommandLineStopsItBeforeItListens) {
  const std::string bad = dir_.path + "/bad.conf";
  for (const auto& [text, reason] : std::vector<std::pair<std::string, std::string>>{
           {"topic 40\n", "line 1: topic needs a number and a name"},
           {"# fine\n\ntopic 0 zero\n", "line 3: bad topic number '0' (1..65535)"},
           {"topic 0x10000 big\n", "line 1: bad topic number '0x10000' (1..65535)"},
           {"topic 40 a\ntopic 40 b\n", "line 2: topic 40 is named already"},
           {"topic 40 a\ntopic 41 a\n", "line 2: topic name 'a' is taken already"},
           {"topic 40 a\nmute b\n", "line 2: unknown topic 'b'"},
           {"max-size 1M\n", "line 1: max-size needs a number of bytes"},
           {"keep 1001\n", "line 1: keep needs a number (0..1000)"},
           {"file\n", "line 1: file needs one path"},
           {"frob 1\n", "line 1: unknown keyword 'frob'"}}) {
    std::ofstream(bad) << text;
    Process p(dir_.path, {"--config", bad});
    EXPECT_EQ(p.wait(), 2) << text;
    EXPECT_EQ(p.err(), "kr-log: " + bad + " " + reason + "\n");
  }
  EXPECT_FALSE(std::filesystem::exists(sock()));
  for (const Strings& args : std::vector<Strings>{{"--config", dir_.path + "/none"}, {"--keep"}, {"--frob"},
                                                  {"--tail", "3"}, {"--follow", "--status"},
                                                  {"--status", "--file", "x"}, {"--topic", "a b", "--follow"}}) {
    Process p(dir_.path, args);
    EXPECT_EQ(p.wait(), 2) << args[0];
  }

  // A good file; the command line wins over it.
  std::ofstream(conf()) << "mute quiet   # before its topic\ntopic 40 quiet\nfile " + dir_.path + "/conf.log\n";
  start({"--file", dir_.path + "/log/kr.log"});
  EXPECT_EQ(control("status\n"), "ok\nmuted 40 quiet\n");
  EXPECT_FALSE(std::filesystem::exists(dir_.path + "/conf.log"));
}

TEST_F(logService, ClientModesPrintTheAnswerAndFailWithTheReason) {
  Process none(dir_.path, {"--status"}, "none");
  EXPECT_EQ(none.wait(), 1);
  EXPECT_EQ(none.err().find("kr-log: cannot connect to kr-log at " + ctl()), 0u) << none.err();

  start();
  Client c(sock());
  ASSERT_TRUE(c.send(registration(1, {40}) + line(1, "one") + line(1, "two")));
  ASSERT_TRUE(logged(": two\n"));
  Process status(dir_.path, {"--status"}, "status");
  EXPECT_EQ(status.wait(), 0);
  EXPECT_EQ(status.out(), "client pid=" + std::to_string(getpid()) + " program=" + ownComm() +
                              " sources=1 lines=2 bytes=24 dropped=0\n");
  Process mute(dir_.path, {"--mute", "nosuch"}, "mute");
  EXPECT_EQ(mute.wait(), 1);
  EXPECT_EQ(mute.err(), "kr-log: unknown topic 'nosuch'\n");

  Process follow(dir_.path, {"--follow", "--tail", "1", "--topic", "example"}, "follow");
  for (int i = 0; i < 500 && follow.out().empty(); ++i) usleep(10000);
  EXPECT_NE(follow.out().find("] example: two\n"), npos) << follow.out();
  EXPECT_EQ(log_->stop(), 0);
  EXPECT_EQ(follow.wait(), 0) << "the service's end ends the follow";
  log_.reset();
}

TEST_F(logService, UnderTheLoaderItStaysOffTheBusAndStopsCleanly) {
  kr::loader::testing::LoaderProcess loader(KR_LOADER_BINARY, dir_.path,
                                            "daemon 7 always " KR_LOG_BINARY " --config " + conf() + "\n");
  for (int i = 0; i < 500 && !connectTo(ctl()); ++i) usleep(10000);
  Client c(sock());
  ASSERT_TRUE(c.send(registration(1, {40}) + line(1, "under the loader")));
  EXPECT_TRUE(logged("example: under the loader\n"));
  EXPECT_EQ(loader.stop(), 0);
  EXPECT_NE(loader.log().find("address 7 (pid "), npos) << loader.log();
  EXPECT_NE(loader.log().find(") exited with status 0"), npos) << loader.log();
  EXPECT_NE(file().find("kr-log: stopping on signal 15\n"), npos);
}

// The bursts on a test clock: the first at once, each further one a tick
// later, none longer than what the client reads at a time.
TEST(logServiceInProcess, MuteOrdersGoOutInBurstsOfAtMost42OneTickApart) {
  TempDir dir;
  kr::TestClock clock(1000);
  kr::Runner runner;
  std::string error;
  kr::logsvc::Config config;
  kr::logsvc::LogFile file;
  ASSERT_TRUE(file.open({dir.path + "/kr.log", 0, 0, -1}, &error)) << error;
  {
    kr::logsvc::Service service(
        runner, config, file,
        kr::platform::openUnixListener(dir.path + "/logsocket", SOCK_STREAM, "kr-log", gid_t(-1), &error));
    Client c(dir.path + "/logsocket");
    Bytes regs;
    for (uint16_t id = 1; id <= 100; ++id) regs = regs + registration(id, {50});
    ASSERT_TRUE(c.send(regs));
    for (int i = 0; i < 5; ++i) runner.step(false);  // accepted and read
    ASSERT_TRUE(service.setMuted(50, true));
    std::vector<ssize_t> bursts;
    std::vector<uint16_t> orders(300);
    size_t got = 0;
    for (int tick = 0; tick < 4; ++tick, clock.advance(1), runner.step(false)) {
      const ssize_t n = recv(c.fd(), reinterpret_cast<char*>(orders.data()) + got, 600 - got, MSG_DONTWAIT);
      bursts.push_back(std::max<ssize_t>(n, 0));
      got += size_t(std::max<ssize_t>(n, 0));
    }
    EXPECT_EQ(bursts, (std::vector<ssize_t>{252, 252, 96, 0}));
    for (uint16_t id = 1; id <= 100; ++id)
      EXPECT_EQ((std::vector<uint16_t>(&orders[3 * (id - 1)], &orders[3 * id])), (std::vector<uint16_t>{6, id, 1}));
    EXPECT_EQ(runner.timerCount(), 0u) << "no burst left waiting";
  }
  EXPECT_EQ(runner.socketCount(), 0u);
  EXPECT_EQ(runner.hookCount(), 0u);
}

}  // namespace
