// The log client: its wire against a socket the test reads byte by byte,
// its streams against the real kr-log, and its crash tail in a crashing
// child.
#include "kr/log/logger.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "kr/log/log_protocol.h"
#include "kr/log/lstream.h"
#include "kr/loop/runner.h"
#include "kr/testing/child_process.h"
#include "kr/util/runtime_dir.h"
#include "kr/util/unique_fd.h"

#ifndef KR_LOG_BINARY
#define KR_LOG_BINARY "/usr/bin/kr-log"  // built without the tools: an installed one
#endif

namespace kr {
namespace {

using ::testing::internal::CaptureStderr;
using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStderr;
using ::testing::internal::GetCapturedStdout;
using Bytes = std::vector<unsigned char>;

constexpr unsigned kTopicExample = 40;
constexpr unsigned kTopicRequests = 41;
constexpr unsigned kTopicTable = 42;

Bytes registration(unsigned id, std::vector<uint16_t> topics) {
  Bytes b(8 + 2 * topics.size());
  putLogField(&b[0], static_cast<uint16_t>(b.size()));
  putLogField(&b[2], 0);
  putLogField(&b[4], 0);
  putLogField(&b[6], static_cast<uint16_t>(id));
  for (size_t i = 0; i < topics.size(); ++i) putLogField(&b[8 + 2 * i], topics[i]);
  return b;
}
Bytes lineRecord(unsigned id, const std::string& text) {
  Bytes b(4 + text.size());
  putLogField(&b[0], static_cast<uint16_t>(b.size()));
  putLogField(&b[2], static_cast<uint16_t>(id));
  std::memcpy(b.data() + 4, text.data(), text.size());
  return b;
}
Bytes muteOrder(unsigned id, unsigned muted) {
  Bytes b(6);
  putLogField(&b[0], 6);
  putLogField(&b[2], static_cast<uint16_t>(id));
  putLogField(&b[4], static_cast<uint16_t>(muted));
  return b;
}
Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

sockaddr_un unixAddress(const std::string& path) {
  sockaddr_un a{};
  a.sun_family = AF_UNIX;
  std::strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
  return a;
}

// A private runtime directory, the process's runner, and the process's
// Logger disconnected around every test, so no test sees another's service.
class LogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/kr-logcli-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir = tmpl;
    setenv("KR_RUNTIME_DIR", dir.c_str(), 1);
    runner.emplace();
  }
  void TearDown() override {
    Logger::getLogger()->closeConnection();
    stopService();
    if (runner) {
      EXPECT_EQ(runner->socketCount(), 0u);
      runner.reset();
    }
    std::filesystem::remove_all(dir);
    unsetenv("KR_RUNTIME_DIR");
  }

  // Turns the loop until pred() holds, for at most `ms`.
  bool runUntil(const std::function<bool()>& pred, int ms = 5000) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (!pred()) {
      if (std::chrono::steady_clock::now() > end) return false;
      runner->step(false);
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
  }
  void runFor(int ms) {
    runUntil([] { return false; }, ms);
  }

  std::string dir;
  std::optional<Runner> runner;
  std::optional<testing::ChildProcess> service;

  // ---- The real kr-log ----------------------------------------------------
  void startService() {
    std::ofstream(dir + "/kr-log.conf") << "topic 40 example\ntopic 41 example.requests\n"
                                           "topic 42 example.table\n";
    service.emplace(KR_LOG_BINARY, std::vector<std::string>{"--config", dir + "/kr-log.conf", "--file", dir + "/kr.log"},
                    testing::ChildOptions{.runtimeDir = dir});
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!std::filesystem::exists(logControlSocketPath())) {
      ASSERT_LT(std::chrono::steady_clock::now(), end) << "kr-log did not start";
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }
  void stopService(int sig = SIGTERM) {
    if (!service) return;
    service->signal(sig);
    service->wait();
    service.reset();
  }

  // One control request; the whole answer.
  std::string control(const std::string& request) {
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_un a = unixAddress(logControlSocketPath());
    if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&a), sizeof a) != 0) return "";
    const std::string line = request + "\n";
    if (write(fd.get(), line.data(), line.size()) != static_cast<ssize_t>(line.size())) return "";
    std::string answer;
    char buf[4096];
    for (ssize_t n; (n = read(fd.get(), buf, sizeof buf)) > 0;) answer.append(buf, static_cast<size_t>(n));
    return answer;
  }
  // The `bytes=` the service counts for this process's connection.
  long bytesFromUs() {
    std::istringstream status(control("status"));
    const std::string me = "pid=" + std::to_string(getpid()) + " ";
    for (std::string l; std::getline(status, l);) {
      if (l.find(me) == std::string::npos) continue;
      const size_t at = l.find(" bytes=");
      if (at != std::string::npos) return std::stol(l.substr(at + 7));
    }
    return -1;
  }

  // "<topics>: <text>" of every line our process logged, in order.
  std::vector<std::string> logged() {
    std::ifstream in(dir + "/kr.log");
    const std::string me = "[" + std::to_string(getpid()) + "] ";
    std::vector<std::string> out;
    for (std::string l; std::getline(in, l);) {
      const size_t at = l.find(me);
      if (at != std::string::npos) out.push_back(l.substr(at + me.size()));
    }
    return out;
  }
  bool waitLogged(size_t count) {
    return runUntil([&] { return logged().size() >= count; });
  }
};

// ---- The wire, read by the test -------------------------------------------

// A listener in the test's runtime directory, standing in for the service.
class WireTest : public LogTest {
 protected:
  void SetUp() override {
    LogTest::SetUp();
    listener = UniqueFd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_un a = unixAddress(logSocketPath());
    ASSERT_EQ(bind(listener.get(), reinterpret_cast<const sockaddr*>(&a), sizeof a), 0);
    ASSERT_EQ(listen(listener.get(), 4), 0);
  }
  void TearDown() override {
    logger.closeConnection();
    LogTest::TearDown();
  }

  // Everything the client sent within `ms`, accepting its connection first.
  Bytes received(int ms = 200) {
    if (!peer) {
      if (!runUntil([&] { return poll1(listener.get(), 0); })) return {};
      peer = UniqueFd(accept(listener.get(), nullptr, nullptr));
    }
    Bytes got;
    runUntil(
        [&] {
          unsigned char buf[65536];
          while (poll1(peer.get(), 0)) {
            const ssize_t n = recv(peer.get(), buf, sizeof buf, 0);
            if (n <= 0) return true;
            got.insert(got.end(), buf, buf + n);
          }
          return false;
        },
        ms);
    return got;
  }
  void sendToClient(const Bytes& b) { ASSERT_EQ(send(peer.get(), b.data(), b.size(), 0), ssize_t(b.size())); }
  static bool poll1(int fd, int ms) {
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, ms) == 1;
  }

  Logger logger;
  UniqueFd listener;
  UniqueFd peer;
};

TEST_F(WireTest, RegistrationGoesAheadOfTheFirstLineOnlyAndInHostOrder) {
  Source* quiet = logger.registerSource({7});
  Source* s = logger.registerSource({kTopicExample, 0x1234});
  EXPECT_EQ(logger.registerSource({kTopicExample, 0x1234}), s);
  EXPECT_EQ(s->id, 2u);
  logger.log(s, "abc", 3);
  logger.log(s, "", 0);
  logger.log(s, "de", 2);
  // The source that logged nothing was never registered.
  EXPECT_EQ(received(), registration(2, {kTopicExample, 0x1234}) + lineRecord(2, "abc") + lineRecord(2, "") +
                            lineRecord(2, "de"));
  EXPECT_FALSE(quiet->registered);
}

TEST_F(WireTest, MuteOrdersSilenceASourceUntilUnmutedOrReconnected) {
  Source* a = logger.registerSource({1});
  Source* b = logger.registerSource({2});
  Source* quiet = logger.registerSource({3});
  logger.log(a, "x", 1);
  logger.log(b, "y", 1);
  EXPECT_EQ(received(), registration(1, {1}) + lineRecord(1, "x") + registration(2, {2}) + lineRecord(2, "y"));

  // Several orders in one read; one for an id nobody has is ignored. A
  // source that has not logged yet can be muted too, and then does not
  // even register.
  sendToClient(muteOrder(1, 1) + muteOrder(9, 1) + muteOrder(2, 7) + muteOrder(3, 1));
  ASSERT_TRUE(runUntil([&] { return a->muted && b->muted && quiet->muted; }));
  logger.log(a, "lost", 4);
  logger.log(b, "lost", 4);
  logger.log(quiet, "lost", 4);
  EXPECT_EQ(received(), Bytes());
  EXPECT_EQ(logger.pendingBytes(), 0u);

  sendToClient(muteOrder(2, 0));
  ASSERT_TRUE(runUntil([&] { return !b->muted; }));
  logger.log(b, "back", 4);
  EXPECT_EQ(received(), lineRecord(2, "back"));

  // A reset forgets mutes and registrations: a new connection re-registers.
  logger.closeConnection();
  EXPECT_FALSE(a->muted || a->registered || b->registered);
  peer.reset();
  logger.log(a, "again", 5);
  EXPECT_EQ(received(), registration(1, {1}) + lineRecord(1, "again"));
}

TEST_F(WireTest, BadMuteRecordsResetTheConnection) {
  Bytes badLength = muteOrder(1, 1);
  putLogField(badLength.data(), 7);
  Bytes cut = muteOrder(1, 1) + muteOrder(2, 1);
  cut.resize(8);
  struct Case {
    Bytes bytes;
    const char* line;
  } cases[] = {
      {cut, "Logger: msg too short, dropping\n"},
      {badLength + Bytes{0}, "Logger: msg has bad len, dropping\n"},
      {{}, "Logger: EOF\n"},
  };
  for (const Case& c : cases) {
    Source* s = logger.registerSource({1});
    logger.log(s, "x", 1);
    ASSERT_FALSE(received().empty());
    CaptureStderr();
    if (c.bytes.empty()) {
      peer.reset();
    } else {
      sendToClient(c.bytes);
    }
    runUntil([&] { return !logger.hasSocket(); });
    EXPECT_EQ(GetCapturedStderr(), c.line);
    EXPECT_FALSE(logger.hasSocket());
    EXPECT_FALSE(s->muted || s->registered) << c.line;
    peer.reset();
  }
}

TEST_F(WireTest, RecordsQueuedWhileTheServiceIsNotReadingAllArriveInOrder) {
  Source* s = logger.registerSource({1});
  const std::string text(1000, 'q');
  Bytes expected = registration(1, {1});
  // Far more than a socket buffer holds: the rest waits for POLLOUT.
  for (int i = 0; i < 2000; ++i) {
    logger.log(s, text.data(), static_cast<unsigned>(text.size()));
    expected = expected + lineRecord(1, text);
  }
  EXPECT_GT(logger.pendingBytes(), 0u);
  Bytes got = received(100);
  while (got.size() < expected.size()) {
    const Bytes more = received(500);
    if (more.empty()) break;
    got = got + more;
  }
  EXPECT_EQ(got, expected);
  EXPECT_EQ(logger.pendingBytes(), 0u);
}

TEST_F(WireTest, AServiceGoneIsASendErrorOnStandardOutputAndTheNextLineRegistersAgain) {
  Source* a = logger.registerSource({1});
  Source* b = logger.registerSource({2});
  logger.log(a, "x", 1);
  ASSERT_FALSE(received().empty());
  peer.reset();  // the service closes; the client has not looked yet
  CaptureStdout();
  CaptureStderr();
  // b's registration meets the broken pipe; its line must not go out on
  // the next connection without one.
  logger.log(b, "lost", 4);
  EXPECT_EQ(GetCapturedStdout(), "Logger: send: Broken pipe\n");
  EXPECT_EQ(GetCapturedStderr(), "");
  EXPECT_FALSE(logger.hasSocket());
  logger.log(b, "y", 1);
  EXPECT_EQ(received(), registration(2, {2}) + lineRecord(2, "y"));
}

// ---- Streams against the real kr-log ----------------------------------------

TEST_F(LogTest, EachFlushIsOneLineAndATrailingNewlineIsNotPartOfIt) {
  startService();
  lstream log(kTopicExample, kTopicRequests, 0);
  log << "abc\n" << std::flush;     // the newline is left out
  log << "abc" << std::flush;       // no newline: as it is
  log << "two " << 2 << std::endl;  // endl: one record
  log << "\n" << std::flush;        // an empty line
  ASSERT_TRUE(waitLogged(4));
  EXPECT_EQ(logged(), (std::vector<std::string>{"example,example.requests: abc", "example,example.requests: abc",
                                                "example,example.requests: two 2", "example,example.requests: "}));
}

TEST_F(LogTest, ALongLineIsCutAtTheBufferSize) {
  startService();
  std::string text;
  for (int i = 0; i < 2500; ++i) text += char('a' + i % 26);
  {
    lstream log(kTopicTable, 0);
    log << text << std::endl;
    log << "tail";  // flushed by the stream's end
  }
  ASSERT_TRUE(waitLogged(4));
  EXPECT_EQ(logged(), (std::vector<std::string>{"example.table: " + text.substr(0, 1024),
                                                "example.table: " + text.substr(1024, 1024),
                                                "example.table: " + text.substr(2048), "example.table: tail"}));
}

TEST_F(LogTest, EchoGetsEveryRecordWithANewlineOfItsOwn) {
  startService();
  std::ostringstream echo;
  lstream log(echo, kTopicExample, 0);
  log << "abc" << std::flush << "def\n" << std::flush << std::string(1030, 'z') << std::flush;
  EXPECT_EQ(echo.str(), "abc\ndef\n" + std::string(1024, 'z') + "\n" + std::string(6, 'z') + "\n");
  ASSERT_TRUE(waitLogged(4));
  EXPECT_EQ(logged()[1], "example: def");
}

TEST_F(LogTest, StreamsWithOneTopicListShareOneSource) {
  startService();
  const unsigned topics[] = {kTopicExample, kTopicTable, 0};
  // Topics are 16 bits: 0x10028 is 40.
  lstream a(topics), b(0x10000 + kTopicExample, kTopicTable, 0), c(kTopicTable, kTopicExample, 0);
  a << "a" << std::endl;
  b << "b" << std::endl;
  c << "c" << std::endl;
  EXPECT_EQ(a.buffer()->source(), b.buffer()->source());
  EXPECT_NE(a.buffer()->source(), c.buffer()->source());  // the order is part of the key
  ASSERT_TRUE(waitLogged(3));
  EXPECT_EQ(logged(), (std::vector<std::string>{"example,example.table: a", "example,example.table: b",
                                                "example.table,example: c"}));
  EXPECT_NE(control("status").find("pid=" + std::to_string(getpid()) + " "), std::string::npos);
  EXPECT_NE(control("status").find(" sources=2 "), std::string::npos) << control("status");
}

TEST_F(LogTest, AMutedSourceCostsNoSocketTraffic) {
  startService();
  lstream muted(kTopicRequests, 0), other(kTopicExample, 0);
  lstream echoed(std::cerr, kTopicRequests, 0);
  muted << "before" << std::endl;
  other << "before" << std::endl;
  ASSERT_TRUE(waitLogged(2));

  ASSERT_EQ(control("mute example.requests"), "ok\n");
  ASSERT_TRUE(runUntil([&] { return muted.isMuted(); }));
  EXPECT_FALSE(other.isMuted());
  lstream late(kTopicRequests, 0);
  EXPECT_FALSE(late.isMuted());  // not before its first flush
  late << "hush" << std::endl;
  EXPECT_TRUE(late.isMuted());
  const long bytes = bytesFromUs();
  CaptureStderr();
  for (int i = 0; i < 100; ++i) muted << "hush " << i << std::endl;
  echoed << "echoed, not sent" << std::endl;
  EXPECT_FALSE(echoed.isMuted());  // an echo stream always has somewhere to go
  EXPECT_EQ(GetCapturedStderr(), "echoed, not sent\n");
  runFor(100);
  EXPECT_EQ(bytesFromUs(), bytes);
  EXPECT_EQ(Logger::getLogger()->pendingBytes(), 0u);

  ASSERT_EQ(control("unmute example.requests"), "ok\n");
  ASSERT_TRUE(runUntil([&] { return !muted.isMuted(); }));
  muted << "after" << std::endl;
  other << "after" << std::endl;
  ASSERT_TRUE(waitLogged(4));
  EXPECT_EQ(logged(), (std::vector<std::string>{"example.requests: before", "example: before",
                                                "example.requests: after", "example: after"}));
}

TEST_F(LogTest, AFreshConnectionRegistersItsSourcesAgain) {
  startService();
  lstream log(kTopicExample, 0);
  log << "first" << std::endl;
  ASSERT_TRUE(waitLogged(1));
  stopService(SIGKILL);
  startService();
  CaptureStdout();
  CaptureStderr();
  // The old connection fails on a write or is seen closed by a read; the
  // line after that reconnects and goes out behind a new registration.
  ASSERT_TRUE(runUntil([&] {
    log << "again" << std::endl;
    return !logged().empty() && logged().back() == "example: again";
  }));
  GetCapturedStdout();
  GetCapturedStderr();
  EXPECT_EQ(logged().front(), "example: first");
}

TEST_F(LogTest, AServiceThatAppearsLaterGetsWhatWasQueued) {
  lstream log(kTopicExample, 0);
  CaptureStderr();
  log << "early" << std::endl;
  // Once for the registration, once for the line: each record tries.
  EXPECT_EQ(GetCapturedStderr(),
            "Logger: connect: No such file or directory\nLogger: connect: No such file or directory\n");
  const auto failed = std::chrono::steady_clock::now();
  startService();
  // Not reconnected by the next line but by the retry, a second later.
  ASSERT_TRUE(waitLogged(1));
  EXPECT_GE(std::chrono::steady_clock::now() - failed, std::chrono::milliseconds(900));
  EXPECT_EQ(logged(), std::vector<std::string>{"example: early"});
}

TEST_F(LogTest, WithoutAnEventLoopLinesWaitForOne) {
  runner.reset();
  lstream log(kTopicExample, 0);
  startService();
  CaptureStderr();
  log << "one" << std::endl;
  // Once for the registration, once for the line: each record tries.
  EXPECT_EQ(GetCapturedStderr(), "Logger: no runner while connecting to log\nLogger: no runner while connecting to log\n");
  runner.emplace();
  log << "two" << std::endl;  // connects, and sends both
  ASSERT_TRUE(waitLogged(2));
  EXPECT_EQ(logged(), (std::vector<std::string>{"example: one", "example: two"}));
}

// ---- The crash tail ------------------------------------------------------------

TEST_F(LogTest, ACrashReportEndsWithWhatTheProcessLogged) {
  const pid_t child = fork();
  if (child == 0) {
    runner.reset();
    Runner crashing;  // installs the crash handler
    lstream log(kTopicExample, 0);
    CaptureStderr();  // the connect diagnostics; there is no service
    for (int i = 0; i < 1000; ++i) log << "line " << i << std::endl;
    abort();
  }
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_TRUE(WIFSIGNALED(status));
  std::ifstream in(dir + "/crash/" + program_invocation_short_name + "." + std::to_string(child));
  const std::string report((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const size_t tail = report.find("log tail:\n");
  ASSERT_NE(tail, std::string::npos) << report;
  // The newest lines, whole, oldest first, up to the memory maps.
  EXPECT_NE(report.find("line 998\nline 999\nmemory maps:\n", tail), std::string::npos) << report;
  EXPECT_EQ(report.find("line 1\n", tail), std::string::npos);  // long gone from the ring
}

// ---- The ring behind it ------------------------------------------------------------

TEST(TailRing, KeepsTheNewestBytesInOrderAcrossTheWrap) {
  log_internal::TailRing ring;
  char buf[log_internal::TailRing::kSize];
  EXPECT_EQ(ring.copy(buf, sizeof buf), 0u);
  ring.append("ab", 2);
  ASSERT_EQ(ring.copy(buf, sizeof buf), 3u);
  EXPECT_EQ(std::string(buf, 3), "ab\n");
  EXPECT_EQ(ring.copy(buf, 2), 2u);  // a short buffer gets the newest
  EXPECT_EQ(std::string(buf, 2), "b\n");

  std::string all = "ab\n";
  for (int i = 0; i < 500; ++i) {
    const std::string line = "line " + std::to_string(i);
    ring.append(line.data(), line.size());
    all += line + "\n";
  }
  const size_t n = ring.copy(buf, sizeof buf);
  ASSERT_EQ(n, sizeof buf);
  EXPECT_EQ(std::string(buf, n), all.substr(all.size() - n));

  const std::string huge(10000, 'h');
  ring.append((huge + "END").data(), huge.size() + 3);
  ASSERT_EQ(ring.copy(buf, sizeof buf), sizeof buf);
  EXPECT_EQ(std::string(buf + sizeof buf - 4, 4), "END\n");
}

}  // namespace
}  // namespace kr
