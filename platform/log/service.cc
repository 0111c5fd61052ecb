#include "platform/log/service.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "kr/log/log_protocol.h"
#include "platform/log/log.h"

namespace kr::logsvc {

namespace {

// One read takes this much at most; the buffer also has room in front for
// the start of a record left over from the last read.
constexpr size_t kReadChunk = 128 * 1024;
// A leftover this small keeps its memory; a larger one gives it back once
// the record is complete, so idle clients stay small.
constexpr size_t kKeptPartial = 4096;
constexpr unsigned int kAcceptPauseTicks = 100;
constexpr unsigned int kBurstTicks = 1;
constexpr size_t kBurstBytes = kLogMaxMuteBurst * kLogMuteRecord;
// kr-log's own lines carry this in place of a program's topics.
constexpr std::string_view kOwnName = "kr-log";

// "YYYY-MM-DD HH:MM:SS.mmm" in local time. The part up to the seconds is
// formatted once per second: most lines only add the milliseconds.
class Stamp {
 public:
  static constexpr size_t kSize = 23;
  char* write(char* p) {
    using namespace std::chrono;
    const int64_t ms = duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
    const time_t second = time_t(ms / 1000);
    if (second != second_) {
      tm local{};
      localtime_r(&second, &local);
      strftime(text_, sizeof text_, "%Y-%m-%d %H:%M:%S", &local);
      second_ = second;
    }
    std::memcpy(p, text_, 19);
    const unsigned int milli = unsigned(ms % 1000);
    p[19] = '.';
    p[20] = char('0' + milli / 100);
    p[21] = char('0' + milli / 10 % 10);
    p[22] = char('0' + milli % 10);
    return p + kSize;
  }

 private:
  time_t second_ = -1;
  char text_[24] = {};
};
Stamp stamp;

char* put(char* p, std::string_view s) {
  std::memcpy(p, s.data(), s.size());
  return p + s.size();
}

// A record is one line: control characters (newline included) become '?'.
char* putText(char* p, const char* text, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    const unsigned char ch = static_cast<unsigned char>(text[i]);
    p[i] = ch < 0x20 || ch == 0x7F ? '?' : char(ch);
  }
  return p + n;
}

std::string sanitized(std::string s) {
  putText(s.data(), s.data(), s.size());
  return s;
}

// /proc/<pid>/comm without its newline; "?" when the process is unknown
// (or gone already).
std::string programOf(pid_t pid) {
  char path[32], name[64];
  std::snprintf(path, sizeof path, "/proc/%d/comm", int(pid));
  UniqueFd fd(pid > 0 ? open(path, O_RDONLY | O_CLOEXEC) : -1);
  const ssize_t n = fd ? read(fd.get(), name, sizeof name) : -1;
  if (n <= 0) return "?";
  const size_t len = size_t(n) - (name[n - 1] == '\n' ? 1 : 0);
  return len ? sanitized(std::string(name, len)) : "?";
}

}  // namespace

// ---- Acceptor -----------------------------------------------------------------------

Acceptor::Acceptor(ThinRunner& runner, UniqueFd listener, AcceptCallback onAccept)
    : runner_(runner), listener_(std::move(listener)), onAccept_(std::move(onAccept)) {
  runner_.addSocket(listener_.get(), POLLIN, kr::bind<&Acceptor::onReady>(this));
}

Acceptor::~Acceptor() { runner_.removeSocket(listener_.get()); }

void Acceptor::onReady(int, unsigned int) {
  for (;;) {
    UniqueFd fd(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (fd) {
      onAccept_(std::move(fd));
      continue;
    }
    if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) pause();
    else if (errno == ECONNABORTED || errno == EINTR) continue;
    else if (errno != EAGAIN) LogLine() << "accept: " << std::strerror(errno);
    return;
  }
}

void Acceptor::pause() {
  LogLine() << "out of descriptors: not accepting for a second";
  runner_.removeSocket(listener_.get());
  pause_ = Timer(kAcceptPauseTicks, [this] {
    runner_.addSocket(listener_.get(), POLLIN, kr::bind<&Acceptor::onReady>(this));
  });
}

// ---- Clients ------------------------------------------------------------------------

struct Service::Client {
  UniqueFd fd;
  pid_t pid = 0;
  std::string program;  // at most 15 bytes: no allocation
  SourceTable sources;
  std::vector<unsigned char> partial;  // the start of a record
  uint64_t lines = 0, bytes = 0, dropped = 0;
  std::vector<unsigned char> orders;   // mute orders not written yet, whole records
  Timer burst;                         // armed while the next burst must wait
};

// The parser's callbacks for one client's read.
class Service::Sink : public RecordSink {
 public:
  Sink(Service& s, Client& c) : service_(s), client_(c) {}
  void registered(Source& s, bool fresh) override { service_.registered(client_, s, fresh); }
  void line(Source& s, const char* text, size_t n) override { service_.line(client_, s, text, n); }

 private:
  Service& service_;
  Client& client_;
};

Service::Service(ThinRunner& runner, const Config& config, LogFile& file, UniqueFd listener)
    : runner_(runner),
      config_(config),
      file_(file),
      muted_(config.muted),
      in_(kLogMaxRecord + kReadChunk),
      ownPid_(std::to_string(getpid())),
      flushHook_(kr::bind<&Service::flush>(this)),
      acceptor_(runner, std::move(listener), kr::bind<&Service::onAccept>(this)) {
  runner_.addBeforeSleep(flushHook_);
}

Service::~Service() {
  runner_.removeBeforeSleep(flushHook_);
  for (const auto& [fd, c] : clients_) runner_.removeSocket(fd);
  flush();
}

void Service::onAccept(UniqueFd fd) {
  auto c = std::make_unique<Client>();
  ucred cred{};
  socklen_t len = sizeof cred;
  if (getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &cred, &len) == 0) c->pid = cred.pid;
  c->program = programOf(c->pid);
  const int key = fd.get();
  c->fd = std::move(fd);
  runner_.addSocket(key, POLLIN, kr::bind<&Service::onClient>(this));
  clients_.emplace(key, std::move(c));
}

void Service::close(int fd) {
  runner_.removeSocket(fd);
  clients_.erase(fd);
}

void Service::drop(int fd, const std::string& reason) {
  const Client& c = *clients_.at(fd);
  const std::string what = "dropped client " + c.program + "[" + std::to_string(c.pid) + "]: " + reason;
  LogLine() << what;
  close(fd);
  note(what);
}

// The leftover of the last read goes in front of this one, so the parser
// sees records whole however the stream was cut.
void Service::onClient(int fd, unsigned int) {
  const auto it = clients_.find(fd);
  if (it == clients_.end()) return;
  Client& c = *it->second;
  const size_t kept = c.partial.size();
  if (kept) std::memcpy(in_.data(), c.partial.data(), kept);
  const ssize_t n = recv(fd, in_.data() + kept, in_.size() - kept, MSG_DONTWAIT);
  if (n < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (n <= 0) return close(fd);  // gone; a record it left unfinished goes with it
  c.bytes += uint64_t(n);
  Sink sink(*this, c);
  const ParseResult r = parseRecords(in_.data(), kept + size_t(n), c.sources, sink);
  if (r.status != RecordStatus::kDone && r.status != RecordStatus::kPartial) return drop(fd, malformedReason(r));
  c.partial.assign(in_.data() + r.consumed, in_.data() + kept + size_t(n));
  if (c.partial.empty() && c.partial.capacity() > kKeptPartial) c.partial.shrink_to_fit();
}

std::vector<ClientInfo> Service::clients() const {
  std::vector<ClientInfo> out;
  for (const auto& [fd, c] : clients_)
    out.push_back({c->pid, c->program, c->sources.size(), c->lines, c->bytes, c->dropped});
  return out;
}

// ---- Records ------------------------------------------------------------------------

// A muted source hears so at once; a re-registration that ends a source's
// silence says that too.
void Service::registered(Client& c, Source& s, bool fresh) {
  const bool wasMuted = !fresh && s.muted;
  s.label = labelOf(s.topics);
  s.muted = anyMuted(s.topics);
  if (s.muted || wasMuted) {
    queueOrder(c, s.id, s.muted);
    sendOrders(c);
  }
}

// Lines of a muted source were on their way before the order arrived.
void Service::line(Client& c, const Source& s, const char* text, size_t n) {
  if (s.muted) {
    ++c.dropped;
    return;
  }
  ++c.lines;
  char pid[16];
  const auto end = std::to_chars(pid, pid + sizeof pid, c.pid).ptr;
  emit(c.program, std::string_view(pid, size_t(end - pid)), s.label, text, n, &s.topics);
}

std::string Service::labelOf(const std::vector<uint16_t>& topics) const {
  if (topics.empty()) return "-";
  std::string label;
  for (uint16_t t : topics) {
    if (!label.empty()) label += ',';
    const std::string* name = config_.topics.find(t);
    label += name ? sanitized(*name) : std::to_string(t);
  }
  return label;
}

bool Service::anyMuted(const std::vector<uint16_t>& topics) const {
  return std::any_of(topics.begin(), topics.end(), [this](uint16_t t) { return muted_.count(t) != 0; });
}

// ---- Mute orders ----------------------------------------------------------------------

bool Service::setMuted(uint16_t topic, bool muted) {
  if ((muted_.count(topic) != 0) == muted) return false;
  if (muted) muted_.insert(topic);
  else muted_.erase(topic);
  for (const auto& [fd, c] : clients_) {
    for (Source& s : c->sources) {
      const bool now = anyMuted(s.topics);
      if (now == s.muted) continue;
      s.muted = now;
      queueOrder(*c, s.id, now);
    }
    sendOrders(*c);
  }
  note("topic " + sanitized(config_.topics.name(topic)) + " (" + std::to_string(topic) + ") " +
       (muted ? "muted" : "unmuted"));
  return true;
}

// An order still waiting for the same source is replaced: only the latest
// state matters to the client.
void Service::queueOrder(Client& c, uint16_t id, bool muted) {
  for (size_t at = 0; at + kLogMuteRecord <= c.orders.size(); at += kLogMuteRecord) {
    if (logField(&c.orders[at + kLogField]) != id) continue;
    putLogField(&c.orders[at + 2 * kLogField], muted ? 1 : 0);
    return;
  }
  const size_t at = c.orders.size();
  c.orders.resize(at + kLogMuteRecord);
  putLogField(&c.orders[at], uint16_t(kLogMuteRecord));
  putLogField(&c.orders[at + kLogField], id);
  putLogField(&c.orders[at + 2 * kLogField], muted ? 1 : 0);
}

// One burst now; the rest (and any order queued meanwhile) a tick later.
// A client whose socket is full is tried again then; one that has gone
// away shows up on its read side.
void Service::sendOrders(Client& c) {
  if (c.orders.empty() || c.burst.active()) return;
  const size_t n = std::min(c.orders.size(), kBurstBytes);
  const ssize_t w = send(c.fd.get(), c.orders.data(), n, MSG_DONTWAIT | MSG_NOSIGNAL);
  if (w < 0 && errno != EAGAIN && errno != EINTR) {
    c.orders.clear();
    return;
  }
  // A short write leaves a cut record in front; it goes first next time
  // (best effort: the client may have reset meanwhile).
  if (w > 0) c.orders.erase(c.orders.begin(), c.orders.begin() + w);
  if (c.orders.empty() && c.orders.capacity() > kKeptPartial) c.orders.shrink_to_fit();
  Client* client = &c;
  c.burst = Timer(kBurstTicks, [this, client] { sendOrders(*client); });
}

// ---- Output -------------------------------------------------------------------------

void Service::note(std::string_view text) {
  static const std::vector<uint16_t> kNoTopics;
  emit(kOwnName, ownPid_, kOwnName, text.data(), text.size(), &kNoTopics);
}

// "<stamp> <program>[<pid>] <label>: <text>\n", formatted straight into
// the file's buffer. A line that does not fit the file any more starts the
// next one, behind the rotation's own line.
void Service::emit(std::string_view program, std::string_view pid, std::string_view label, const char* text,
                   size_t n, const std::vector<uint16_t>* topics) {
  const size_t len = Stamp::kSize + 1 + program.size() + 1 + pid.size() + 2 + label.size() + 2 + n + 1;
  if (file_.full(len)) rotate();
  char* const start = file_.extend(len);
  char* p = stamp.write(start);
  *p++ = ' ';
  p = put(p, program);
  *p++ = '[';
  p = put(p, pid);
  p = put(p, "] ");
  p = put(p, label);
  p = put(p, ": ");
  p = putText(p, text, n);
  *p = '\n';
  if (listener_) listener_->lineWritten({std::string_view(start, len), program, topics});
}

void Service::rotate() {
  file_.rotate();
  reportFileTrouble();
  note(config_.keep ? "log rotated: older lines are in the numbered files, up to " + std::to_string(config_.keep)
                    : std::string("log rotated: older lines are gone (keep 0)"));
}

void Service::flush() {
  file_.flush();
  reportFileTrouble();
}

void Service::reportFileTrouble() {
  std::string error;
  if (file_.takeError(&error)) LogLine() << error;
}

}  // namespace kr::logsvc
