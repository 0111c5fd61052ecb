// The log path, kr::lstream through the real kr-log into its log file,
// against what the socket alone can carry, in the same run:
//   kr 1      one forked daemon (a kr::Runner) writes N lines of 100 bytes
//             through a kr::lstream; kr-log writes them to its log file.
//             Lines per second from the first line until the file holds
//             them all;
//   kr 8      the same with 8 daemons at once, all lines of all of them;
//   limit 1   the same records, byte for byte what the Logger sends for
//             such a line but built once, each sent with one plain send()
//             on a Unix stream socket to a reader process that recv()s
//             64 KiB at a time and discards them. Lines per second until
//             the reader has every byte;
//   limit 8   8 such senders into one reader;
//   memory    kr-log's resident memory idle and with 100 connected client
//             processes, each with a registered source and one line sent.
// The table at the end shows the medians (and the range) of the
// repetitions, the ratio limit/kr (2 or less is the target), the CPU time
// per line of kr-log, of the senders and of the reader, and the memory.
//
//   kr_bench_log [--lines N] [--reps N] [--only 1|8|memory] [--turn-per-line] [--keep]
//
// --lines is per sender (default 200000). --turn-per-line turns the kr
// senders' loop once after every line, as a daemon that logs one line per
// event would; by default they turn it only when the log connection backs
// up. --keep leaves the scratch directory (kr-log's output, the last log
// file) behind.
//
// Each kr run has a kr-log of its own (a fresh log file, nothing left from
// the previous run), started in a scratch KR_RUNTIME_DIR under /tmp and
// stopped with SIGTERM, which it must answer with exit status 0. Every
// process of the run dies with the benchmark (PDEATHSIG), and the scratch
// directory is removed at the end, also after a failure or Ctrl-C.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "bench/bus_harness.h"
#include "kr/log/log_protocol.h"
#include "kr/log/logger.h"
#include "kr/log/lstream.h"
#include "kr/loop/runner.h"
#include "kr/util/runtime_dir.h"
#include "kr/util/unique_fd.h"

namespace logbench {
namespace {

using busbench::Gate;
using busbench::nowNs;

constexpr size_t kTextBytes = 100;
constexpr size_t kRecordBytes = kr::kLogLineHeader + kTextBytes;
constexpr int kMaxSenders = 8;
constexpr int kIdleClients = 100;
constexpr unsigned int kTopic = 1;
constexpr size_t kReadChunk = 64 * 1024;
constexpr const char kTag[] = "kr-log-bench";
// Rotation would put a rename and a reopen into some runs and not others;
// a limit far above what any run writes keeps it out of all of them.
constexpr const char kMaxSize[] = "4000000000";
constexpr int64_t kMs = 1000000;
// The log file has its final size once it has not grown for this long
// after kr-log reported every line as arrived.
constexpr int64_t kStableNs = 50 * kMs;
constexpr int64_t kRunTimeoutNs = 120000 * kMs;

struct Options {
  unsigned int lines = 200000;  // per sender
  int reps = 5;
  std::string only;  // "1", "8", "memory"; empty: everything
  bool turnPerLine = false;
  bool keep = false;
};

// ---- Leaving cleanly -----------------------------------------------------------------------

std::vector<pid_t> g_pids;  // every child not reaped yet
std::string g_dir;
bool g_keepDir = false;
volatile sig_atomic_t g_interrupted = 0;

void forget(pid_t pid) { g_pids.erase(std::remove(g_pids.begin(), g_pids.end(), pid), g_pids.end()); }

void cleanUp() {
  for (pid_t p : g_pids) kill(p, SIGKILL);
  for (pid_t p : g_pids) waitpid(p, nullptr, 0);
  g_pids.clear();
  std::error_code ec;
  if (!g_dir.empty() && !g_keepDir) std::filesystem::remove_all(g_dir, ec);
}

// Ends the run without leaving a process or the scratch directory behind.
[[noreturn]] void die(const std::string& why) {
  std::fflush(stdout);
  std::fprintf(stderr, "kr_bench_log: %s\n", why.c_str());
  cleanUp();
  std::exit(1);
}

// Ctrl-C (or SIGTERM, SIGHUP) only sets the flag; every wait of the parent
// polls it, so that the way out is die() and its clean-up, not the default
// action.
void onInterrupt(int) { g_interrupted = 1; }
void checkInterrupted() {
  if (g_interrupted) die("interrupted");
}

// ---- Shared between the parent and the roles ---------------------------------------------

// A MAP_SHARED anonymous mapping made before any fork. Times are
// CLOCK_MONOTONIC ns, the same clock in every process.
struct Shared {
  std::atomic<int> ready{0};     // roles set up and waiting at the gate
  std::atomic<int> finished{0};  // senders that handed over their last line
  std::atomic<int64_t> firstNs[kMaxSenders];
  std::atomic<int64_t> cpuNs[kMaxSenders];  // each sender's own, timed part
  std::atomic<int64_t> readerDoneNs{0};
  std::atomic<int64_t> readerCpuNs{0};

  void reset() {
    ready = 0;
    finished = 0;
    for (int k = 0; k < kMaxSenders; ++k) firstNs[k] = cpuNs[k] = 0;
    readerDoneNs = readerCpuNs = 0;
  }
  int64_t start(int n) const {
    int64_t t = firstNs[0];
    for (int k = 1; k < n; ++k) t = std::min<int64_t>(t, firstNs[k]);
    return t;
  }
  int64_t senderCpu(int n) const {
    int64_t sum = 0;
    for (int k = 0; k < n; ++k) sum += cpuNs[k];
    return sum;
  }
};

// The calling process's CPU time, in ns (clock() counts microseconds on
// Linux; a timed part lasts a tenth of a second or more).
int64_t processCpuNs() { return int64_t(std::clock()) * (1000000000 / CLOCKS_PER_SEC); }

// ---- The lines ---------------------------------------------------------------------------

// "kr-log-bench d3 line 0000123 xxx...", 100 characters: the sender and the
// sequence number let the check after a run find every line of every
// sender, in order and whole, in the log file.
// The digits are put by hand: snprintf() took more of a sender's time
// than the lstream and the Logger together, and the limit's sender, which
// builds its record once, does not pay for it.
using Text = char[kTextBytes + 1];
static_assert(kMaxSenders <= 10, "one digit for the sender");
void formatText(Text& out, int sender, unsigned int seq) {
  char* p = out;
  const auto put = [&p](std::string_view s) { p = std::copy(s.begin(), s.end(), p); };
  put(kTag);
  put(" d");
  *p++ = char('0' + sender);
  put(" line ");
  for (int i = 6; i >= 0; --i, seq /= 10) p[i] = char('0' + seq % 10);
  p += 7;
  *p++ = ' ';
  std::fill(p, out + kTextBytes, 'x');
  out[kTextBytes] = '\0';
}

// What the Logger sends for one such line of source 1 (kr/log/log_protocol.h).
using Record = unsigned char[kRecordBytes];
void buildRecord(Record& out) {
  kr::putLogField(out, uint16_t(kRecordBytes));
  kr::putLogField(out + kr::kLogField, 1);
  Text text;
  formatText(text, 0, 0);
  std::memcpy(out + kr::kLogLineHeader, text, kTextBytes);
}

bool sendAll(int fd, const void* data, size_t n) {
  const char* p = static_cast<const char*>(data);
  while (n > 0) {
    const ssize_t r = send(fd, p, n, MSG_NOSIGNAL);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return false;
    p += r;
    n -= size_t(r);
  }
  return true;
}

// ---- Roles: each a forked child ---------------------------------------------------------

// Turns the loop until the Logger has handed everything to the socket.
// False when the connection went (its queue is lost then).
bool drain(kr::Runner& runner, const kr::Logger& logger) {
  while (logger.pendingBytes() > 0 && logger.hasSocket()) runner.step(true);
  return logger.pendingBytes() == 0 && logger.isConnected();
}

// A daemon logging as fast as it can. While the socket takes them, every
// line is one send() inside the << std::endl; once it is full, the Logger
// queues the line and asks for POLLOUT, and the daemon turns its loop
// until the queue has gone, which is where the limit's blocking send()
// sleeps: both hand over one record per send(). With --turn-per-line the
// daemon never waits, lines pile up in the Logger's queue while kr-log
// lags and leave many per send(), which the limit cannot do; the default
// keeps that advantage out. The first line (connect, registration) comes
// before the gate.
int krSender(Shared* sh, int k, const Options& o, const Gate& start, const Gate& finish) {
  kr::Runner runner;
  kr::Logger* logger = kr::Logger::getLogger();
  kr::lstream log(kTopic, 0);
  Text text;
  formatText(text, k, 0);
  log << text << std::endl;
  if (!drain(runner, *logger)) return 2;
  ++sh->ready;
  start.wait();
  const int64_t cpu0 = processCpuNs();
  sh->firstNs[k] = nowNs();
  for (unsigned int seq = 1; seq <= o.lines; ++seq) {
    formatText(text, k, seq);
    log << text << std::endl;
    if (o.turnPerLine) runner.step(false);
    else if (logger->pendingBytes() > 0 && !drain(runner, *logger)) return 3;
  }
  if (!drain(runner, *logger)) return 3;
  sh->cpuNs[k] = processCpuNs() - cpu0;
  ++sh->finished;
  // Connected until the parent has counted: kr-log reports clients that
  // are there.
  finish.wait();
  return 0;
}

// The limit's sender: the same record, one blocking send() per line.
int limitSender(Shared* sh, int k, int fd, unsigned int lines, const Gate& start) {
  Record record;
  buildRecord(record);
  if (!sendAll(fd, record, sizeof record)) return 2;  // as the kr sender's first line
  ++sh->ready;
  start.wait();
  const int64_t cpu0 = processCpuNs();
  sh->firstNs[k] = nowNs();
  for (unsigned int i = 0; i < lines; ++i) {
    if (!sendAll(fd, record, sizeof record)) return 3;
  }
  sh->cpuNs[k] = processCpuNs() - cpu0;
  ++sh->finished;
  return 0;
}

// The limit's reader: poll() over every sender's socket, 64 KiB recv()s,
// nothing kept. Done when every byte of every sender is in. A sender that
// is through closes its end; poll() then skips that socket (fd -1).
int limitReader(Shared* sh, const std::vector<int>& fds, unsigned int lines) {
  std::vector<pollfd> pfds;
  for (int fd : fds) pfds.push_back({fd, POLLIN, 0});
  std::vector<unsigned char> buf(kReadChunk);
  const uint64_t warmup = fds.size() * kRecordBytes;
  const uint64_t total = fds.size() * (uint64_t(lines) + 1) * kRecordBytes;
  uint64_t got = 0;
  int64_t cpu0 = -1;
  while (got < total) {
    if (cpu0 < 0 && got >= warmup) cpu0 = processCpuNs();
    const int r = poll(pfds.data(), pfds.size(), 30000);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return 2;
    for (pollfd& p : pfds) {
      if (p.revents == 0) continue;
      const ssize_t n = recv(p.fd, buf.data(), buf.size(), 0);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) return 3;
      if (n == 0) p.fd = -1;
      got += uint64_t(n);
    }
    if (std::all_of(pfds.begin(), pfds.end(), [](const pollfd& p) { return p.fd < 0; }) && got < total) return 4;
  }
  sh->readerDoneNs = nowNs();
  sh->readerCpuNs = processCpuNs() - cpu0;
  return 0;
}

// A connected daemon that logged once and stays.
int idleClient(Shared* sh, int i, const Gate& gate) {
  kr::Runner runner;
  kr::lstream log(kTopic, 0);
  log << kTag << " idle client " << i << std::endl;
  if (!drain(runner, *kr::Logger::getLogger())) return 2;
  ++sh->ready;
  gate.wait();
  return 0;
}

// ---- Processes ---------------------------------------------------------------------------

// Forks a role. The child first closes `fds` (the gates' write ends, the
// sockets of other roles) and takes the default action for SIGINT and
// SIGTERM back, so that Ctrl-C ends it at once.
pid_t forkRole(const std::function<int()>& body, const std::vector<int>& fds) {
  const pid_t pid = busbench::spawn(
      [&] {
        signal(SIGINT, SIG_DFL);
        signal(SIGTERM, SIG_DFL);
        signal(SIGHUP, SIG_DFL);
        for (int fd : fds) close(fd);
        return body();
      },
      -1);
  if (pid < 0) die("fork failed");
  g_pids.push_back(pid);
  return pid;
}

// The exit status of `pid`, waited for until `deadline`; -1 when it died
// by a signal or had to be killed at the deadline.
int reap(pid_t pid, int64_t deadline) {
  int status = 0;
  for (;;) {
    const pid_t r = waitpid(pid, &status, WNOHANG);
    if (r == pid) break;
    if (r < 0 && errno != EINTR) {
      forget(pid);
      return -1;
    }
    checkInterrupted();
    if (nowNs() >= deadline) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
      forget(pid);
      return -1;
    }
    usleep(1000);
  }
  forget(pid);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// True when every one of `pids` exits 0 within `seconds`.
bool reapAll(const std::vector<pid_t>& pids, int seconds) {
  const int64_t deadline = nowNs() + seconds * 1000 * kMs;
  bool ok = true;
  for (pid_t p : pids) ok = reap(p, deadline) == 0 && ok;
  return ok;
}

void killAll(const std::vector<pid_t>& pids) {
  for (pid_t p : pids) {
    if (std::find(g_pids.begin(), g_pids.end(), p) == g_pids.end()) continue;
    kill(p, SIGKILL);
    waitpid(p, nullptr, 0);
    forget(p);
  }
}

// False when `n` roles are not ready within the time, or one ended.
bool waitReady(const Shared* sh, int n, const std::vector<pid_t>& pids, int seconds) {
  const int64_t deadline = nowNs() + seconds * 1000 * kMs;
  for (int turn = 0; sh->ready < n; ++turn) {
    checkInterrupted();
    if (nowNs() > deadline) return false;
    if (turn % 50 == 49) {
      for (pid_t p : pids) {
        if (waitpid(p, nullptr, WNOHANG) == p) {
          forget(p);
          return false;
        }
      }
    }
    usleep(2000);
  }
  return true;
}

// ---- kr-log ------------------------------------------------------------------------------

struct ClientStatus {
  long pid = 0;
  uint64_t lines = 0, dropped = 0;
};

uint64_t numberAfter(const std::string& line, const char* key) {
  const size_t at = line.find(key);
  return at == std::string::npos ? 0 : std::strtoull(line.c_str() + at + std::strlen(key), nullptr, 10);
}

// The whole answer to one request on the control socket: kr-log writes it
// and closes. Empty when the socket cannot be reached or stays silent 2 s.
std::string askControl(const std::string& path, const char* request) {
  kr::UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
  if (!fd || connect(fd.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) return "";
  if (!sendAll(fd.get(), request, std::strlen(request))) return "";
  std::string answer;
  char buf[4096];
  pollfd p{fd.get(), POLLIN, 0};
  while (poll(&p, 1, 2000) > 0) {
    const ssize_t n = recv(fd.get(), buf, sizeof buf, 0);
    if (n <= 0) return n == 0 ? answer : "";
    answer.append(buf, size_t(n));
  }
  return "";
}

// `status`: false unless the answer starts with "ok"; its client lines
// ("client pid=.. program=.. sources=.. lines=.. bytes=.. dropped=..") go
// to *out.
bool queryStatus(const std::string& control, std::vector<ClientStatus>* out) {
  const std::string answer = askControl(control, "status\n");
  if (answer.compare(0, 3, "ok\n") != 0) return false;
  out->clear();
  size_t pos = 0;
  while (pos < answer.size()) {
    const size_t end = std::min(answer.find('\n', pos), answer.size());
    const std::string line = answer.substr(pos, end - pos);
    pos = end + 1;
    if (line.compare(0, 7, "client ") != 0) continue;
    out->push_back({long(numberAfter(line, " pid=")), numberAfter(line, " lines="), numberAfter(line, " dropped=")});
  }
  return true;
}

enum class Count { kPending, kComplete, kBad };

// Whether kr-log has `want` lines of each of `pids`: kBad on a dropped line
// or more lines than were sent.
Count countLines(const std::string& control, const std::vector<pid_t>& pids, uint64_t want) {
  std::vector<ClientStatus> clients;
  if (!queryStatus(control, &clients)) return Count::kBad;
  Count c = Count::kComplete;
  for (pid_t p : pids) {
    const auto it = std::find_if(clients.begin(), clients.end(), [&](const ClientStatus& s) { return s.pid == p; });
    if (it == clients.end()) {
      c = Count::kPending;  // not accepted yet
    } else if (it->dropped > 0 || it->lines > want) {
      return Count::kBad;
    } else if (it->lines < want) {
      c = Count::kPending;
    }
  }
  return c;
}

bool waitCounted(const std::string& control, const std::vector<pid_t>& pids, uint64_t want, int seconds) {
  const int64_t deadline = nowNs() + seconds * 1000 * kMs;
  for (;;) {
    checkInterrupted();
    const Count c = countLines(control, pids, want);
    if (c != Count::kPending) return c == Count::kComplete;
    if (nowNs() > deadline) return false;
    usleep(5000);
  }
}

// One kr-log with a fresh log file, its output appended to kr-log.out.
class LogService {
 public:
  LogService() = default;
  ~LogService() { stop(); }
  LogService(const LogService&) = delete;
  LogService& operator=(const LogService&) = delete;

  // Returns once kr-log answers `status`; dies if it does not within 5 s.
  void start(int index) {
    file_ = g_dir + "/log-" + std::to_string(index) + ".txt";
    control_ = kr::logControlSocketPath();
    const std::vector<std::string> argv = {KR_LOG_BINARY, "--socket", kr::logSocketPath(), "--control", control_,
                                           "--file",      file_,        "--max-size",        kMaxSize};
    const std::string out = g_dir + "/kr-log.out";
    std::fflush(stdout);
    std::fflush(stderr);
    pid_ = fork();
    if (pid_ == 0) exec(argv, out);
    if (pid_ < 0) die("fork failed");
    g_pids.push_back(pid_);
    std::vector<ClientStatus> none;
    for (int i = 0; i < 500 && !queryStatus(control_, &none); ++i) {
      checkInterrupted();
      usleep(10000);
    }
    if (!queryStatus(control_, &none)) die("kr-log did not come up; see " + out);
  }

  // SIGTERM; the exit status, or -1 when it died by a signal or had to be
  // killed after 5 s.
  int stop() {
    if (pid_ <= 0) return -1;
    kill(pid_, SIGTERM);
    const int status = reap(pid_, nowNs() + 5000 * kMs);
    pid_ = -1;
    return status;
  }

  pid_t pid() const { return pid_; }
  const std::string& file() const { return file_; }
  const std::string& control() const { return control_; }

 private:
  [[noreturn]] static void exec(const std::vector<std::string>& argv, const std::string& out) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    signal(SIGINT, SIG_IGN);  // the parent stops it, with SIGTERM
    signal(SIGTERM, SIG_DFL);
    signal(SIGHUP, SIG_DFL);
    signal(SIGPIPE, SIG_DFL);  // ignored in the parent; an ignored signal stays so across exec
    const int fd = open(out.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (fd >= 0) {
      dup2(fd, STDOUT_FILENO);
      dup2(fd, STDERR_FILENO);
    }
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
  }

  pid_t pid_ = -1;
  std::string file_, control_;
};

off_t fileSize(const std::string& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

// Every sender's lines are in the file once each, whole, in order.
// kr-log adds its own prefix to a line; the text is found by its tag.
bool verifyLog(const std::string& path, int senders, unsigned int perSender) {
  std::ifstream in(path);
  std::vector<unsigned int> next(size_t(senders), 0);
  const std::string tag = std::string(kTag) + " d";
  std::string line;
  Text want;
  while (std::getline(in, line)) {
    const size_t at = line.find(tag);
    if (at == std::string::npos) continue;
    int d = -1;
    unsigned int seq = 0;
    if (std::sscanf(line.c_str() + at + tag.size(), "%d line %u", &d, &seq) != 2 || d < 0 || d >= senders ||
        seq != next[size_t(d)])
      return false;
    formatText(want, d, seq);
    if (line.compare(at, kTextBytes, want) != 0) return false;
    ++next[size_t(d)];
  }
  return std::all_of(next.begin(), next.end(), [&](unsigned int n) { return n == perSender; });
}

// ---- Runs --------------------------------------------------------------------------------

struct RunResult {
  bool ok = false;
  double seconds = 0, rate = 0;
  // CPU ns per line: kr-log's or the reader's; all senders' together.
  double serverCpu = -1, senderCpu = -1;
  long hwmKiB = -1;  // kr-log's peak resident memory
};

RunResult failed(const std::vector<pid_t>& pids, const char* what, const std::string& why) {
  killAll(pids);
  std::fprintf(stderr, "kr_bench_log: %s: %s\n", what, why.c_str());
  return RunResult();
}

// When the log file reached its final size, and kr-log's CPU time to then.
struct Written {
  bool ok = false;
  int64_t endNs = 0;
  int64_t serverCpuNs = -1;
  std::string why;
};

// Samples the log file's size about every millisecond; the run ends at the
// sample that first saw the final size (up to ~1 ms late). A stat() costs
// kr-log nothing, where a `status` every millisecond would put an accept,
// a request and a reply into the very loop being measured, and `lines=`
// counts what kr-log has read, which is not yet what it has written.
// `status` is only asked once every sender has handed over its last line:
// it says when all of them have arrived, with none dropped, and after
// that the file only has to stop growing.
Written waitWritten(const Shared* sh, const LogService& svc, const std::vector<pid_t>& pids, uint64_t perSender,
                    int64_t cpu0) {
  Written w;
  auto fail = [&](const char* why) {
    w.why = why;
    return w;
  };
  const int n = int(pids.size());
  off_t last = fileSize(svc.file());
  int64_t lastChange = nowNs(), nextQuery = 0;
  bool counted = false;
  const int64_t deadline = nowNs() + kRunTimeoutNs;
  for (int turn = 0;; ++turn) {
    usleep(1000);
    checkInterrupted();
    const int64_t now = nowNs();
    const off_t size = fileSize(svc.file());
    if (size != last) {
      last = size;
      lastChange = now;
    }
    if (counted && now - lastChange >= kStableNs) break;
    if (!counted && sh->finished == n && now >= nextQuery) {
      const Count c = countLines(svc.control(), pids, perSender);
      if (c == Count::kBad) return fail("kr-log reports lines dropped, or too many");
      counted = c == Count::kComplete;
      if (counted) w.serverCpuNs = busbench::cpuNs(svc.pid()) - cpu0;
      nextQuery = now + 10 * kMs;
    }
    if (now > deadline) return fail("the lines were not all written in time");
    // A sender that failed never finishes: notice it without waiting for
    // the deadline.
    if (turn % 100 != 99 || sh->finished == n) continue;
    for (pid_t p : pids) {
      if (waitpid(p, nullptr, WNOHANG) == p) {
        forget(p);
        return fail("a sender ended early");
      }
    }
  }
  w.ok = true;
  w.endNs = lastChange;
  return w;
}

// A run's log file goes once it is checked; with --keep, once the next
// run's is (the runs together would write about a gigabyte).
void keepOnlyLast(const std::string& path, bool keep) {
  static std::string previous;
  if (!previous.empty()) unlink(previous.c_str());
  previous = keep ? path : "";
  if (!keep) unlink(path.c_str());
}

RunResult runKr(Shared* sh, const Options& o, int n, int index) {
  const char* name = n == 1 ? "kr, 1 sender" : "kr, 8 senders";
  LogService svc;
  svc.start(index);
  sh->reset();
  Gate start, finish;
  if (!start.valid() || !finish.valid()) die("pipe failed");
  std::vector<pid_t> pids;
  for (int k = 0; k < n; ++k) {
    pids.push_back(forkRole([=, &o, &start, &finish] { return krSender(sh, k, o, start, finish); },
                            {start.writeEnd(), finish.writeEnd()}));
  }
  if (!waitReady(sh, n, pids, 10)) return failed(pids, name, "a sender did not get ready");
  if (!waitCounted(svc.control(), pids, 1, 10)) return failed(pids, name, "kr-log did not see every first line");
  // From /proc/<pid>/task/*/schedstat, in ns: utime and stime count 10 ms
  // ticks, and a run lasts a fraction of a second.
  const int64_t cpu0 = busbench::cpuNs(svc.pid());
  start.open();
  const Written w = waitWritten(sh, svc, pids, uint64_t(o.lines) + 1, cpu0);
  if (!w.ok) return failed(pids, name, w.why);
  RunResult r;
  r.hwmKiB = busbench::residentKiB(svc.pid(), "VmHWM:");
  finish.open();
  if (!reapAll(pids, 5)) return failed(pids, name, "a sender failed");
  if (svc.stop() != 0) return failed(pids, name, "kr-log did not exit with status 0 on SIGTERM");
  if (!verifyLog(svc.file(), n, o.lines + 1)) return failed(pids, name, "the log file misses or garbles lines");
  keepOnlyLast(svc.file(), o.keep);
  const double lines = double(o.lines) * n;
  r.seconds = double(w.endNs - sh->start(n)) / 1e9;
  r.rate = lines / r.seconds;
  r.serverCpu = double(w.serverCpuNs) / lines;
  r.senderCpu = double(sh->senderCpu(n)) / lines;
  r.ok = r.seconds > 0 && w.serverCpuNs >= 0;
  return r;
}

RunResult runLimit(Shared* sh, const Options& o, int n) {
  const char* name = n == 1 ? "limit, 1 sender" : "limit, 8 senders";
  sh->reset();
  Gate start;
  if (!start.valid()) die("pipe failed");
  std::vector<kr::UniqueFd> readEnds, writeEnds;
  std::vector<int> all = {start.writeEnd()}, readFds;
  for (int k = 0; k < n; ++k) {
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) die("socketpair failed");
    readEnds.emplace_back(sv[0]);
    writeEnds.emplace_back(sv[1]);
    readFds.push_back(sv[0]);
    all.push_back(sv[0]);
    all.push_back(sv[1]);
  }
  // Each child closes every socket but its own (the reader: the read ends).
  auto except = [&](const std::vector<int>& mine) {
    std::vector<int> rest;
    for (int fd : all) {
      if (std::find(mine.begin(), mine.end(), fd) == mine.end()) rest.push_back(fd);
    }
    return rest;
  };
  std::vector<pid_t> pids;
  pids.push_back(forkRole([&] { return limitReader(sh, readFds, o.lines); }, except(readFds)));
  for (int k = 0; k < n; ++k) {
    const int fd = writeEnds[size_t(k)].get();
    pids.push_back(forkRole([=, &o, &start] { return limitSender(sh, k, fd, o.lines, start); }, except({fd})));
  }
  readEnds.clear();
  writeEnds.clear();
  if (!waitReady(sh, n, pids, 10)) return failed(pids, name, "a sender did not get ready");
  start.open();
  if (!reapAll(pids, int(kRunTimeoutNs / 1000 / kMs))) return failed(pids, name, "a role failed");
  RunResult r;
  const double lines = double(o.lines) * n;
  r.seconds = double(sh->readerDoneNs - sh->start(n)) / 1e9;
  r.rate = lines / r.seconds;
  r.serverCpu = double(sh->readerCpuNs) / lines;
  r.senderCpu = double(sh->senderCpu(n)) / lines;
  r.ok = r.seconds > 0;
  return r;
}

struct Memory {
  long idle = -1, connected = -1;
};

// kr-log's VmRSS idle, then with 100 clients connected, each with its
// source registered and one line logged.
Memory measureMemory(Shared* sh, int index) {
  Memory m;
  LogService svc;
  svc.start(index);
  usleep(200000);
  m.idle = busbench::residentKiB(svc.pid());
  sh->reset();
  Gate gate;
  if (!gate.valid()) die("pipe failed");
  std::vector<pid_t> pids;
  for (int i = 0; i < kIdleClients; ++i) {
    pids.push_back(forkRole([=, &gate] { return idleClient(sh, i, gate); }, {gate.writeEnd()}));
  }
  if (!waitReady(sh, kIdleClients, pids, 30) || !waitCounted(svc.control(), pids, 1, 30)) {
    failed(pids, "memory", "the 100 clients did not all connect and log");
    return m;
  }
  usleep(100000);  // whatever the last line started in kr-log, finished
  m.connected = busbench::residentKiB(svc.pid());
  gate.open();
  if (!reapAll(pids, 10)) std::fprintf(stderr, "kr_bench_log: memory: a client failed\n");
  if (svc.stop() != 0) std::fprintf(stderr, "kr_bench_log: memory: kr-log did not exit with status 0\n");
  return m;
}

// ---- The table ---------------------------------------------------------------------------

struct Stats {
  double median = 0, lo = 0, hi = 0;
};

Stats stats(std::vector<double> v) {
  Stats s;
  if (v.empty()) return s;
  std::sort(v.begin(), v.end());
  s.median = v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
  s.lo = v.front();
  s.hi = v.back();
  return s;
}

enum class Side { kKr, kLimit };
using Results = std::map<std::pair<int, Side>, std::vector<RunResult>>;

Stats statsOf(const Results& results, int n, Side side, double RunResult::*field) {
  std::vector<double> v;
  const auto it = results.find({n, side});
  if (it == results.end()) return Stats();
  for (const RunResult& r : it->second) {
    if (r.ok && r.*field >= 0) v.push_back(r.*field);
  }
  return stats(v);
}

void printRates(const Results& results, const Options& o) {
  std::printf("\n%u lines of %zu bytes per sender; medians of %d runs [min - max]\n", o.lines, kTextBytes, o.reps);
  std::printf("%-10s %12s %23s %12s %23s %9s  %s\n", "senders", "kr lines/s", "", "limit /s", "", "limit/kr",
              "target (<= 2)");
  for (int n : {1, 8}) {
    if (!results.count({n, Side::kKr})) continue;
    const Stats k = statsOf(results, n, Side::kKr, &RunResult::rate);
    const Stats l = statsOf(results, n, Side::kLimit, &RunResult::rate);
    const double ratio = k.median > 0 ? l.median / k.median : 0;
    std::printf("%-10d %12.0f [%9.0f - %9.0f] %12.0f [%9.0f - %9.0f] %9.2f  %s\n", n, k.median, k.lo, k.hi,
                l.median, l.lo, l.hi, ratio, ratio > 0 && ratio <= 2.0 ? "met" : "NOT met");
  }
}

void printCpu(const Results& results) {
  std::printf("\n%-10s %12s %12s %12s %12s   (CPU ns per line, medians)\n", "senders", "kr-log", "kr senders",
              "reader", "senders");
  for (int n : {1, 8}) {
    if (!results.count({n, Side::kKr})) continue;
    std::printf("%-10d %12.0f %12.0f %12.0f %12.0f\n", n,
                statsOf(results, n, Side::kKr, &RunResult::serverCpu).median,
                statsOf(results, n, Side::kKr, &RunResult::senderCpu).median,
                statsOf(results, n, Side::kLimit, &RunResult::serverCpu).median,
                statsOf(results, n, Side::kLimit, &RunResult::senderCpu).median);
  }
}

void printMemory(const Memory& m) {
  std::printf("\n%-36s %10s %12s %12s\n", "kr-log resident memory (VmRSS, KiB)", "idle", "100 clients",
              "per client");
  std::printf("%-36s %10ld %12ld %12.1f\n", "", m.idle, m.connected,
              m.idle > 0 && m.connected > 0 ? double(m.connected - m.idle) / kIdleClients : -1.0);
}

void printPeak(const Results& results) {
  const auto it = results.find({8, Side::kKr});
  if (it == results.end()) return;
  long peak = -1;
  for (const RunResult& r : it->second) peak = std::max(peak, r.hwmKiB);
  std::printf("kr-log peak resident memory (VmHWM) over the 8-sender runs: %ld KiB\n", peak);
}

void printRun(int rep, int n, Side side, const RunResult& r) {
  std::printf("run %d  %d sender%s %-6s ", rep + 1, n, n == 1 ? " " : "s", side == Side::kKr ? "kr" : "limit");
  if (!r.ok) {
    std::printf("FAILED\n");
  } else {
    std::printf("%10.0f lines/s  %7.3f s  CPU/line: %s %5.0f ns, senders %5.0f ns\n", r.rate, r.seconds,
                side == Side::kKr ? "kr-log" : "reader", r.serverCpu, r.senderCpu);
  }
  std::fflush(stdout);
}

// ---- Main --------------------------------------------------------------------------------

bool parse(int argc, char** argv, Options* o) {
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    const bool value = i + 1 < argc;
    if (a == "--lines" && value) o->lines = unsigned(std::strtoul(argv[++i], nullptr, 10));
    else if (a == "--reps" && value) o->reps = std::atoi(argv[++i]);
    else if (a == "--only" && value) o->only = argv[++i];
    else if (a == "--turn-per-line") o->turnPerLine = true;
    else if (a == "--keep") o->keep = true;
    else return false;
  }
  // Sequence numbers have 7 digits in the 100-byte text.
  return o->lines >= 1 && o->lines <= 9999999 && o->reps >= 1 &&
         (o->only.empty() || o->only == "1" || o->only == "8" || o->only == "memory");
}

void makeScratch(bool keep) {
  char tmpl[] = "/tmp/kr-bench-log.XXXXXX";
  if (!mkdtemp(tmpl)) die("mkdtemp failed");
  g_dir = tmpl;
  g_keepDir = keep;
  setenv("KR_RUNTIME_DIR", g_dir.c_str(), 1);  // kr-log's sockets, for everybody
  struct sigaction sa {};
  sa.sa_handler = onInterrupt;
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);
  sigaction(SIGHUP, &sa, nullptr);
  // Output piped into `head` must not end the run before its clean-up.
  signal(SIGPIPE, SIG_IGN);
  if (keep) std::printf("scratch directory (kept): %s\n", g_dir.c_str());
}

Results runAll(Shared* sh, const Options& o, int* services) {
  Results results;
  for (int rep = 0; rep < o.reps; ++rep) {
    for (int n : {1, 8}) {
      if (!o.only.empty() && o.only != std::to_string(n)) continue;
      // Alternate who goes first, so that neither always meets a warmer
      // (or busier) machine.
      const Side order[2] = {rep % 2 ? Side::kLimit : Side::kKr, rep % 2 ? Side::kKr : Side::kLimit};
      for (Side side : order) {
        const RunResult r = side == Side::kKr ? runKr(sh, o, n, (*services)++) : runLimit(sh, o, n);
        results[{n, side}].push_back(r);
        printRun(rep, n, side, r);
      }
    }
  }
  return results;
}

int benchMain(int argc, char** argv) {
  Options o;
  if (!parse(argc, argv, &o)) {
    std::fprintf(stderr, "usage: kr_bench_log [--lines N] [--reps N] [--only 1|8|memory] [--turn-per-line] [--keep]\n");
    return 2;
  }
  void* map = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (map == MAP_FAILED) die("mmap failed");
  Shared* sh = new (map) Shared;
  makeScratch(o.keep);
  std::printf("kr senders turn their loop %s\n", o.turnPerLine ? "after every line" : "when the connection backs up");
  int services = 0;
  Memory mem;
  if (o.only.empty() || o.only == "memory") mem = measureMemory(sh, services++);
  const Results results = runAll(sh, o, &services);
  if (!results.empty()) {
    printRates(results, o);
    printCpu(results);
  }
  if (o.only.empty() || o.only == "memory") printMemory(mem);
  printPeak(results);
  bool ok = o.only.empty() || o.only == "memory" ? mem.connected > 0 : true;
  for (const auto& [key, runs] : results) {
    for (const RunResult& r : runs) ok = ok && r.ok;
  }
  cleanUp();
  return ok ? 0 : 1;
}

}  // namespace
}  // namespace logbench

int main(int argc, char** argv) { return logbench::benchMain(argc, argv); }
