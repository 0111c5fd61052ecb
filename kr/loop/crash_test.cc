#include "kr/loop/crash.h"

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
#include <string>
#include <vector>

#include "kr/testing/alloc_counter.h"

namespace {

// The report is long; on failure show only what was missing, and where.
::testing::AssertionResult Contains(const std::string& text, const std::string& what) {
  if (text.find(what) != std::string::npos) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "missing \"" << what << "\" in:\n" << text;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path);
  return {std::istreambuf_iterator<char>(in), {}};
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

volatile bool g_stop = false;
__attribute__((noinline)) int recurse(int n) {
  volatile char pad[512];
  pad[0] = static_cast<char>(n);
  return g_stop ? 0 : recurse(n + 1) + pad[0];
}

// A crash in a child process whose runtime directory is a fresh temp dir:
// its exit status, standard error, and report file ("" if missing).
struct Crash {
  pid_t pid = -1;
  int status = 0;
  std::string err, report;
  bool diedBy(int sig) const { return WIFSIGNALED(status) && WTERMSIG(status) == sig; }
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
    if ((c.pid = fork()) == 0) {
      int fd = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      if (fd < 0 || dup2(fd, STDERR_FILENO) < 0) _exit(90);
      setenv("KR_RUNTIME_DIR", dir_.c_str(), 1);
      kr::installCrashHandler();
      body();
      _exit(91);
    }
    waitpid(c.pid, &c.status, 0);
    c.err = readFile(errPath);
    c.report = readFile(dir_ + "/crash/" + program_invocation_short_name + "." + std::to_string(c.pid));
    return c;
  }

  std::string dir_;
};

TEST_F(CrashTest, NullWriteReportsEverySectionAndDiesBySigsegv) {
  Crash c = crash([] {
    kr::setCrashLogTail(twoLines);
    kr::CrashFrame outer("outer frame");
    kr::CrashFrame inner("test frame");
    writeToNull();
  });
  ASSERT_TRUE(c.diedBy(SIGSEGV)) << "status " << c.status << "\n" << c.err;
  EXPECT_EQ(c.err.rfind("*** kr crash report: signal 11 (SIGSEGV) at fault address 0x0\n", 0), 0u) << c.err;
  const std::vector<std::string> parts = {
      "program: " + std::string(program_invocation_short_name) + "  pid: " + std::to_string(c.pid) + "  tid: ",
      "si_code: 1 (SEGV_MAPERR)\n", "backtrace:\n",
      // Unwound through the signal frame back into the test (its own
      // symbols are not exported, so only the file shows).
      "/loop_test(+0x", "active frames:\n  #0 test frame\n  #1 outer frame\nlog tail:\n",
      "log tail:\nline one\nline two\nmemory maps:\n", "[stack]\n", "*** end of kr crash report\n",
#if defined(__x86_64__)
      "registers:\n  r8     0x", "  rip    0x",
#endif
  };
  for (const std::string& part : parts) EXPECT_TRUE(Contains(c.err, part));
  EXPECT_EQ(c.report, c.err);
  // Reports may hold secrets from memory: owner only.
  EXPECT_EQ(std::filesystem::status(dir_ + "/crash").permissions(), std::filesystem::perms::owner_all);
}

TEST_F(CrashTest, SentSignalsNameTheSenderAndKillBySameSignal) {
  Crash c = crash([] { abort(); });
  ASSERT_TRUE(c.diedBy(SIGABRT)) << "status " << c.status << "\n" << c.err;
  EXPECT_TRUE(Contains(c.err, "signal 6 (SIGABRT) sent by pid " + std::to_string(c.pid) + " (uid "));
  EXPECT_TRUE(Contains(c.err, "abort+0x"));  // libc's abort() in the backtrace
  EXPECT_TRUE(Contains(c.err, "log tail:\n  (no log provider registered)\n"));
  c = crash([] { raise(SIGFPE); });
  ASSERT_TRUE(c.diedBy(SIGFPE)) << "status " << c.status << "\n" << c.err;
  EXPECT_TRUE(Contains(c.err, "signal 8 (SIGFPE) sent by pid " + std::to_string(c.pid)));
  EXPECT_TRUE(Contains(c.err, "si_code: -6 (SI_TKILL)\n"));
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
  ASSERT_TRUE(c.diedBy(SIGSEGV)) << "status " << c.status << "\n" << c.err;
  EXPECT_TRUE(Contains(c.err, " bytes in use (probable stack overflow)\n"));
  EXPECT_TRUE(Contains(c.err, "*** end of kr crash report\n"));
}

// The second fault must kill at once: no second report, no endless recursion.
TEST_F(CrashTest, FaultWhileReportingDiesWithoutASecondReport) {
  Crash c = crash([] {
    kr::setCrashLogTail([](char*, size_t) -> size_t { return writeToNull(), 0; });
    abort();
  });
  ASSERT_TRUE(c.diedBy(SIGSEGV)) << "status " << c.status << "\n" << c.err;
  EXPECT_EQ(c.err.find("*** kr crash report"), c.err.rfind("*** kr crash report")) << c.err;  // only one
  EXPECT_TRUE(Contains(c.err, "log tail:\n"));
  EXPECT_FALSE(Contains(c.err, "end of kr crash report"));
}

// An in-process report, written to a memfd; `allocations` gets what writing
// it allocated.
std::string report(int sig, siginfo_t* info = nullptr, void* context = nullptr, size_t* allocations = nullptr) {
  const int fd = memfd_create("crash", MFD_CLOEXEC);
  kr::testing::CountAllocations counter;
  kr::writeCrashReport(fd, sig, info, context);
  if (allocations) *allocations = counter();
  std::string text(lseek(fd, 0, SEEK_END), '\0');
  EXPECT_EQ(pread(fd, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
  close(fd);
  return text;
}

// Frames are listed innermost first, popped ones forgotten, those past the
// slots counted; and writing a report allocates nothing.
TEST(CrashWriterTest, ListsActiveFramesAndDoesNotAllocate) {
  EXPECT_TRUE(Contains(report(SIGUSR2), "\nactive frames:\n  (none)\nlog tail:\n"));
  {
    kr::CrashFrame a("a");
    { kr::CrashFrame b("b"); }
    kr::CrashFrame c("c");
    EXPECT_TRUE(Contains(report(SIGUSR2), "\nactive frames:\n  #0 c\n  #1 a\nlog tail:\n"));
  }
  std::optional<kr::CrashFrame> frames[kr::kCrashFrameSlots + 2];
  for (size_t i = 0; i < std::size(frames); ++i)
    frames[i].emplace(i == 0 ? "bottom" : i == kr::kCrashFrameSlots - 1 ? "top named" : "deep");
  ucontext_t uc;
  getcontext(&uc);
  siginfo_t info{};
  info.si_signo = SIGBUS;
  info.si_code = BUS_ADRALN;
  info.si_addr = reinterpret_cast<void*>(0xdead1234);
  kr::setCrashLogTail(twoLines);
  report(SIGBUS, &info, &uc);  // loads libgcc for backtrace(), as install does
  size_t allocations = 1;
  const std::string text = report(SIGBUS, &info, &uc, &allocations);
  kr::setCrashLogTail(nullptr);
  EXPECT_EQ(allocations, 0u);
  EXPECT_EQ(text.rfind("*** kr crash report: signal 7 (SIGBUS) at fault address 0xdead1234\n", 0), 0u) << text;
  EXPECT_TRUE(Contains(text, "si_code: 1 (BUS_ADRALN)\n"));
  EXPECT_TRUE(Contains(text, "active frames:\n  (2 inner frames not named)\n  #0 top named\n  #1 deep\n"));
  EXPECT_TRUE(Contains(text, "  #31 bottom\nlog tail:\nline one\nline two\nmemory maps:\n"));
}

}  // namespace
