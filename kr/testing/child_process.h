// For tests: a program run as a child process, the way the end-to-end tests
// run kr-loader, kr-log, kr-store and kr-cli. The child gets the test's
// runtime directory (KR_RUNTIME_DIR) and its standard output and error in
// files of the test's choosing, dies with the test (PR_SET_PDEATHSIG), and
// is killed and reaped when its owner goes, so a failing test leaves no
// child behind. Every wait is bounded. Header-only and free of GoogleTest,
// for test helper programs too; the test thread only.
//
//   kr::testing::ChildProcess log(KR_LOG_BINARY, {"--status"}, {.runtimeDir = dir, .out = dir + "/status.out"});
//   EXPECT_EQ(log.wait(), 0);     // its exit status, or -1 after 10 s
//   EXPECT_EQ(log.out(), "...");  // what it wrote to dir/status.out
#pragma once

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace kr::testing {

// How a ChildProcess starts. An empty string leaves that part as the test
// has it (its environment, its standard output or error).
struct ChildOptions {
  std::string runtimeDir{};   // KR_RUNTIME_DIR in the child
  std::string out{};          // the file its standard output goes to
  std::string err{};          // the file its standard error goes to
  bool append = false;        // append to those files rather than empty them
  int deathSignal = SIGKILL;  // what the child gets when the test dies
};

// Move-only; one child at the most. pid() is -1 once the child is reaped or
// when fork() failed.
class ChildProcess {
 public:
  // How long wait() and stop() give the child unless told otherwise.
  static constexpr int kPatienceMs = 10000;

  // Starts `binary` (also its argv[0]) with `args`. A child that cannot set
  // itself up or exec `binary` exits with status 127.
  ChildProcess(const std::string& binary, const std::vector<std::string>& args, ChildOptions options = {})
      : options_(std::move(options)) {
    std::vector<char*> argv{const_cast<char*>(binary.c_str())};  // built before fork(): no allocation after it
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    if ((pid_ = fork()) == 0) runChild(argv.data());
  }
  ~ChildProcess() { killAndReap(); }
  ChildProcess(ChildProcess&& o) noexcept
      : options_(std::move(o.options_)), pid_(std::exchange(o.pid_, -1)), status_(o.status_) {}
  ChildProcess& operator=(ChildProcess&& o) noexcept {
    if (this != &o) {
      killAndReap();
      options_ = std::move(o.options_);
      pid_ = std::exchange(o.pid_, -1);
      status_ = o.status_;
    }
    return *this;
  }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  const ChildOptions& options() const { return options_; }

  // kill(sig) while there is a child (never kill(-1, ...)); whether it went.
  bool signal(int sig) { return pid_ > 0 && kill(pid_, sig) == 0; }
  // Whether the child still runs; one that has ended is reaped here.
  bool running() { return pid_ > 0 && !reap(); }
  // Its exit status once it has ended, waiting up to `timeoutMs`: -1 while
  // it still runs then, or when a signal ended it. After the child is
  // reaped, the same status again.
  int wait(int timeoutMs = kPatienceMs) {
    for (int waited = 0; running(); waited += 10) {
      if (waited >= timeoutMs) return -1;
      usleep(10000);
    }
    return status_;
  }
  // SIGTERM, then wait(timeoutMs).
  int stop(int timeoutMs = kPatienceMs) {
    signal(SIGTERM);
    return wait(timeoutMs);
  }
  // What it has written to its standard output or error file so far; ""
  // for a stream that does not go to a file.
  std::string out() const { return slurp(options_.out); }
  std::string err() const { return slurp(options_.err); }

 private:
  [[noreturn]] void runChild(char* const* argv) const {
    prctl(PR_SET_PDEATHSIG, options_.deathSignal);
    if (!options_.runtimeDir.empty()) setenv("KR_RUNTIME_DIR", options_.runtimeDir.c_str(), 1);
    if (redirect(options_.out, stdout) && redirect(options_.err, stderr)) execv(argv[0], argv);
    _exit(127);
  }
  bool redirect(const std::string& path, FILE* stream) const {
    return path.empty() || freopen(path.c_str(), options_.append ? "a" : "w", stream);
  }
  // True once the child has ended (its status kept) or is not ours to wait
  // for any more.
  bool reap() {
    int status = 0;
    const pid_t r = waitpid(pid_, &status, WNOHANG);
    if (r == 0) return false;
    status_ = r == pid_ && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    pid_ = -1;
    return true;
  }
  void killAndReap() {
    if (pid_ > 0) kill(pid_, SIGKILL), waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }
  static std::string slurp(const std::string& path) {
    if (path.empty()) return "";
    std::stringstream s;
    s << std::ifstream(path, std::ios::binary).rdbuf();
    return s.str();
  }

  ChildOptions options_;
  pid_t pid_ = -1;
  int status_ = -1;  // the exit status of a reaped child; -1: none, or ended by a signal
};

}  // namespace kr::testing
