#include "kr/loop/crash.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <ucontext.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>

#include "kr/testing/alloc_counter.h"

namespace {

// The report is long; on failure show only what was missing, and where.
::testing::AssertionResult Contains(const std::string& text, const std::string& what) {
  if (text.find(what) != std::string::npos) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "missing \"" << what << "\" in:\n" << text;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

std::string readFd(int fd) {
  std::string text;
  char buf[4096];
  lseek(fd, 0, SEEK_SET);
  for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;) text.append(buf, n);
  return text;
}

size_t count(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

size_t twoLines(char* buf, size_t cap) {
  static const char kTail[] = "line one\nline two";
  size_t n = std::min(cap, sizeof kTail - 1);
  memcpy(buf, kTail, n);
  return n;
}

__attribute__((no_sanitize("address", "undefined"))) void writeToNull() {
  volatile int* volatile p = nullptr;
  *p = 1;
}

size_t faultingTail(char*, size_t) {
  writeToNull();
  return 0;
}

volatile bool g_stop = false;
__attribute__((noinline)) int recurse(int n) {
  volatile char pad[512];
  pad[0] = static_cast<char>(n);
  if (g_stop) return 0;
  return recurse(n + 1) + pad[0];
}

// A crash in a child process whose runtime directory is a fresh temp dir.
struct Crash {
  pid_t pid = -1;
  int status = 0;
  std::string err;     // the child's standard error
  std::string report;  // the report file, "" if missing
};

class CrashTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/kr-crash-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  Crash crash(void (*body)()) {
    Crash c;
    std::string errPath = dir_ + "/stderr";
    c.pid = fork();
    if (c.pid == 0) {
      int fd = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      if (fd < 0 || dup2(fd, STDERR_FILENO) < 0) _exit(90);
      setenv("KR_RUNTIME_DIR", dir_.c_str(), 1);
      kr::installCrashHandler();
      body();
      _exit(91);
    }
    if (c.pid < 0) return c;
    waitpid(c.pid, &c.status, 0);
    c.err = readFile(errPath);
    c.report =
        readFile(dir_ + "/crash/" + program_invocation_short_name + "." + std::to_string(c.pid));
    return c;
  }

  std::string dir_;
};

bool diedBy(const Crash& c, int sig) { return WIFSIGNALED(c.status) && WTERMSIG(c.status) == sig; }

TEST_F(CrashTest, NullWriteReportsEverySectionAndDiesBySigsegv) {
  Crash c = crash([] {
    kr::setCrashLogTail(twoLines);
    kr::CrashFrame outer("outer frame");
    kr::CrashFrame inner("test frame");
    writeToNull();
  });
  ASSERT_TRUE(diedBy(c, SIGSEGV)) << "status " << c.status << "\n" << c.err;
  EXPECT_EQ(c.err.rfind("*** kr crash report: signal 11 (SIGSEGV) at fault address 0x0\n", 0), 0u)
      << c.err;
  EXPECT_TRUE(Contains(c.err, std::string("program: ") + program_invocation_short_name +
                                  "  pid: " + std::to_string(c.pid) + "  tid: "));
  EXPECT_TRUE(Contains(c.err, "si_code: 1 (SEGV_MAPERR)\n"));
#if defined(__x86_64__)
  EXPECT_TRUE(Contains(c.err, "registers:\n  r8     0x"));
  EXPECT_TRUE(Contains(c.err, "  rip    0x"));
#endif
  EXPECT_TRUE(Contains(c.err, "backtrace:\n"));
  // Unwound through the signal frame back into the test (its own symbols
  // are not exported, so only the file shows).
  EXPECT_TRUE(Contains(c.err, "/loop_test(+0x"));
  EXPECT_TRUE(Contains(c.err, "active frames:\n  #0 test frame\n  #1 outer frame\nlog tail:\n"));
  EXPECT_TRUE(Contains(c.err, "log tail:\nline one\nline two\nmemory maps:\n"));
  EXPECT_TRUE(Contains(c.err, "[stack]\n"));
  EXPECT_TRUE(Contains(c.err, "*** end of kr crash report\n"));
  EXPECT_EQ(c.report, c.err);
  // Reports may hold secrets from memory: owner only.
  EXPECT_EQ(std::filesystem::status(dir_ + "/crash").permissions(),
            std::filesystem::perms::owner_all);
}

TEST_F(CrashTest, AbortDiesBySigabrtWithReport) {
  Crash c = crash([] { abort(); });
  ASSERT_TRUE(diedBy(c, SIGABRT)) << "status " << c.status << "\n" << c.err;
  EXPECT_TRUE(Contains(c.err, "signal 6 (SIGABRT) sent by pid " + std::to_string(c.pid)));
  EXPECT_TRUE(Contains(c.err, "abort+0x"));  // libc's abort() in the backtrace
  EXPECT_TRUE(Contains(c.err, "active frames:\n  (none)\n"));
  EXPECT_TRUE(Contains(c.err, "log tail:\n  (no log provider registered)\n"));
  EXPECT_EQ(c.report, c.err);
}

TEST_F(CrashTest, RaisedSigfpeDiesBySigfpe) {
  Crash c = crash([] { raise(SIGFPE); });
  ASSERT_TRUE(diedBy(c, SIGFPE)) << "status " << c.status << "\n" << c.err;
  EXPECT_TRUE(Contains(c.err, "signal 8 (SIGFPE) sent by pid"));
  EXPECT_TRUE(Contains(c.err, "si_code: -6 (SI_TKILL)\n"));
  EXPECT_EQ(c.report, c.err);
}

TEST_F(CrashTest, StackOverflowIsReportedFromTheAlternateStack) {
  Crash c = crash([] {
    static char altStack[256 * 1024];
    stack_t ss{altStack, 0, sizeof altStack};
    sigaltstack(&ss, nullptr);
    int top;
    kr::setCrashStackTop(&top);
    recurse(0);
  });
  ASSERT_TRUE(diedBy(c, SIGSEGV)) << "status " << c.status << "\n" << c.err;
  EXPECT_TRUE(Contains(c.err, " bytes in use (probable stack overflow)\n"));
  EXPECT_TRUE(Contains(c.err, "*** end of kr crash report\n"));
}

// The second fault must kill at once: no second report, no endless recursion.
TEST_F(CrashTest, FaultWhileReportingDiesWithoutASecondReport) {
  Crash c = crash([] {
    kr::setCrashLogTail(faultingTail);
    abort();
  });
  ASSERT_TRUE(diedBy(c, SIGSEGV)) << "status " << c.status << "\n" << c.err;
  EXPECT_EQ(count(c.err, "*** kr crash report"), 1u) << c.err;
  EXPECT_TRUE(Contains(c.err, "log tail:\n"));
  EXPECT_FALSE(Contains(c.err, "end of kr crash report"));
}

// In-process reports written to a memfd.
std::string report(int sig, siginfo_t* info, void* context) {
  int fd = memfd_create("crash", MFD_CLOEXEC);
  kr::writeCrashReport(fd, sig, info, context);
  std::string text = readFd(fd);
  close(fd);
  return text;
}

std::string framesSection(const std::string& text) {
  size_t from = text.find("active frames:\n"), to = text.find("log tail:\n");
  return from == std::string::npos || to < from ? "" : text.substr(from, to - from);
}

TEST(CrashFrameTest, ListsInnermostFirstAndForgetsPoppedFrames) {
  EXPECT_EQ(framesSection(report(SIGUSR2, nullptr, nullptr)), "active frames:\n  (none)\n");
  kr::CrashFrame a("a");
  { kr::CrashFrame b("b"); }
  kr::CrashFrame c("c");
  EXPECT_EQ(framesSection(report(SIGUSR2, nullptr, nullptr)), "active frames:\n  #0 c\n  #1 a\n");
}

TEST(CrashFrameTest, DeeperFramesThanSlotsAreCounted) {
  std::optional<kr::CrashFrame> frames[kr::kCrashFrameSlots + 2];
  for (size_t i = 0; i < std::size(frames); ++i)
    frames[i].emplace(i == 0 ? "bottom" : i == kr::kCrashFrameSlots - 1 ? "top named" : "deep");
  std::string s = framesSection(report(SIGUSR2, nullptr, nullptr));
  EXPECT_EQ(s.rfind("active frames:\n  (2 inner frames not named)\n  #0 top named\n", 0), 0u) << s;
  EXPECT_TRUE(s.ends_with("  #31 bottom\n")) << s;
}

TEST(CrashWriterTest, DoesNotAllocate) {
  ucontext_t uc;
  getcontext(&uc);
  siginfo_t info{};
  info.si_signo = SIGBUS;
  info.si_code = BUS_ADRALN;
  info.si_addr = reinterpret_cast<void*>(0xdead1234);
  kr::setCrashLogTail(twoLines);
  kr::CrashFrame frame("allocation test");
  report(SIGBUS, &info, &uc);  // loads libgcc for backtrace(), as install does
  int fd = memfd_create("crash", MFD_CLOEXEC);
  size_t allocations;
  {
    kr::testing::CountAllocations counter;
    kr::writeCrashReport(fd, SIGBUS, &info, &uc);
    allocations = counter();
  }
  kr::setCrashLogTail(nullptr);
  std::string text = readFd(fd);
  close(fd);
  EXPECT_EQ(allocations, 0u);
  EXPECT_EQ(text.rfind("*** kr crash report: signal 7 (SIGBUS) at fault address 0xdead1234\n", 0),
            0u)
      << text;
  EXPECT_TRUE(Contains(text, "si_code: 1 (BUS_ADRALN)\n"));
  EXPECT_TRUE(Contains(text, "  #0 allocation test\n"));
}

}  // namespace
