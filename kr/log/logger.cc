#include "kr/log/logger.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "kr/log/log_protocol.h"
#include "kr/log/trace.h"
#include "kr/loop/crash.h"
#include "kr/loop/runner.h"
#include "kr/util/runtime_dir.h"

namespace kr {

namespace {

// The address length the service expects: the whole sockaddr_un, whatever
// the path's length.
constexpr socklen_t kAddressLength = 110;
static_assert(sizeof(sockaddr_un) == kAddressLength);

// 1 s in 10 ms ticks.
constexpr unsigned int kRetryTicks = 100;

// A line above this is handed over in a buffer of its own; below it, the
// record is built on the stack. lstream never goes past it.
constexpr size_t kStackRecord = kLogLineHeader + 1024;

// The process's Logger, once getLogger() has made it; the crash tail's
// provider reads it from inside a signal handler.
Logger* g_processLogger = nullptr;

size_t crashTail(char* buf, size_t cap) {
  Logger* logger = g_processLogger;
  return logger ? logger->copyTail(buf, cap) : 0;
}

// One diagnostic line, written at once so that it cannot interleave.
void say(int fd, const std::string& text) {
  const std::string line = Logger::dbg() + text + "\n";
  if (::write(fd, line.data(), line.size()) < 0) {
    // Nowhere else to report it.
  }
}
void warn(const std::string& text) { say(STDERR_FILENO, text); }
std::string withErrno(const char* what, int err) { return std::string(what) + ": " + std::strerror(err); }

}  // namespace

Logger* Logger::getLogger() {
  if (!g_processLogger) {
    g_processLogger = new Logger;
    setCrashLogTail(&crashTail);
  }
  return g_processLogger;
}

Logger::Logger() { ::signal(SIGPIPE, SIG_IGN); }

Logger::~Logger() { closeConnection(); }

std::string Logger::dbg() { return "Logger: "; }

Source* Logger::source(unsigned int id) const {
  return id >= 1 && id <= byId_.size() ? byId_[id - 1] : nullptr;
}

Source* Logger::registerSource(const std::vector<uint16_t>& topics) {
  const auto it = sources_.find(topics);
  if (it != sources_.end()) return it->get();
  auto s = std::make_unique<Source>();
  s->topics = topics;
  s->id = static_cast<unsigned int>(byId_.size() + 1);
  if (byId_.size() == byId_.capacity()) byId_.reserve(std::max<size_t>(1, 2 * byId_.capacity()));
  byId_.push_back(s.get());
  return sources_.insert(std::move(s)).first->get();
}

void Logger::log(Source* s, const char* text, unsigned int len) {
  traceLogLine(s->topics, text, len);
  tail_.append(text, len);
  if (s->muted) return;
  if (!s->registered) {
    sendRegistration(s);
    // Sending it found the connection broken and closed it, which lost
    // the registration: the line would reach the next connection without
    // one, and the service would drop us. It goes the way of the lost
    // records; the next line registers again.
    if (!s->registered) return;
  }
  // The length field is 16 bits and not checked: callers keep lines short
  // (lstream cuts them at 1024 characters).
  const size_t size = kLogLineHeader + len;
  unsigned char stackRecord[kStackRecord];
  std::vector<unsigned char> heapRecord;
  unsigned char* record = stackRecord;
  if (size > sizeof stackRecord) {
    heapRecord.resize(size);
    record = heapRecord.data();
  }
  putLogField(record, static_cast<uint16_t>(size));
  putLogField(record + kLogField, static_cast<uint16_t>(s->id));
  std::memcpy(record + kLogLineHeader, text, len);
  writeMsg(record, static_cast<unsigned int>(size));
}

void Logger::sendRegistration(Source* s) {
  std::vector<unsigned char> record(kLogRegistrationHeader + kLogField * s->topics.size());
  putLogField(&record[0], static_cast<uint16_t>(record.size()));
  putLogField(&record[2], 0);
  putLogField(&record[4], 0);
  putLogField(&record[6], static_cast<uint16_t>(s->id));
  unsigned char* p = &record[kLogRegistrationHeader];
  for (uint16_t topic : s->topics) {
    putLogField(p, topic);
    p += kLogField;
  }
  s->registered = true;
  writeMsg(record.data(), static_cast<unsigned int>(record.size()));
}

void Logger::writeMsg(const unsigned char* data, unsigned int len) {
  if (fd_ == -1) connectToLog();
  out_.insert(out_.end(), data, data + len);
  if (!connected_) return;  // sent once the connect completes
  // With POLLOUT requested the socket is full: the poll will say when.
  if (!(events_ & POLLOUT)) sendPending();
}

void Logger::sendPending() {
  onWrite();
  if (fd_ >= 0 && pendingBytes() > 0 && !(events_ & POLLOUT)) setEvents(events_ | POLLOUT);
}

void Logger::connectToLog() {
  if (fd_ != -1) return;
  Runner* runner = getRunner();
  if (!runner) {
    warn("no runner while connecting to log");
    return;
  }
  // Close-on-exec: a child the daemon starts must not keep the log
  // connection (and its place in the service) alive.
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    warn(withErrno("socket", errno));
    return;
  }
  if (::fcntl(fd, F_SETFL, O_NONBLOCK) < 0) warn(withErrno("fcntl O_NONBLOCK", errno));
  events_ |= POLLIN;
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  const std::string path = logSocketPath();
  std::memcpy(addr.sun_path, path.data(), std::min(path.size(), sizeof addr.sun_path - 1));
  fd_ = fd;
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&addr), kAddressLength) == 0) {
    retry_.cancel();  // a record got here first
    connected_ = true;
    runner->addSocket(fd, events_, bind<&Logger::onSocket>(this));
    if (!out_.empty()) sendPending();
    return;
  }
  if (errno == EINPROGRESS) {
    runner->addSocket(fd, POLLOUT, bind<&Logger::onConnected>(this));
    return;
  }
  const int err = errno;
  ::close(fd);
  fd_ = -1;
  warn(withErrno("connect", err));
  retry_ = Timer(kRetryTicks, bind<&Logger::connectToLog>(this));
}

void Logger::onConnected(int fd, unsigned int) {
  // Whether the connect worked shows at the first send or read.
  Runner* runner = getRunner();
  runner->removeSocket(fd);
  connected_ = true;
  runner->addSocket(fd, events_, bind<&Logger::onSocket>(this));
  sendPending();
}

void Logger::onSocket(int fd, unsigned int events) {
  if (events & POLLOUT) onWrite();
  if (fd != fd_) return;  // the write lost the connection
  if (events & (POLLIN | POLLHUP | POLLERR)) onRead();
}

void Logger::onWrite() {
  if (pendingBytes() == 0) return;
  const ssize_t n = ::send(fd_, out_.data() + sent_, pendingBytes(), MSG_NOSIGNAL);
  if (n < 0) {
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return;
    say(STDOUT_FILENO, withErrno("send", errno));
    closeConnection();
    return;
  }
  if (n == 0) {
    say(STDOUT_FILENO, "connection closed");
    closeConnection();
    return;
  }
  dropSent(static_cast<size_t>(n));
  if ((events_ & POLLOUT) && pendingBytes() == 0) setEvents(events_ & ~POLLOUT);
}

void Logger::dropSent(size_t n) {
  sent_ += n;
  if (sent_ == out_.size()) {
    out_.clear();
    sent_ = 0;
  } else if (sent_ >= kCompactAt && sent_ * 2 >= out_.size()) {
    // Moving what is left to the front costs no more than what was sent.
    out_.erase(out_.begin(), out_.begin() + static_cast<ptrdiff_t>(sent_));
    sent_ = 0;
  }
}

void Logger::onRead() {
  unsigned char buf[kLogClientRead];
  const ssize_t n = ::recv(fd_, buf, sizeof buf, 0);
  if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return;
  if (n <= 0) {
    // A failed read ends the connection just as its end does.
    warn("EOF");
    closeConnection();
    return;
  }
  switch (applyMuteOrders(buf, static_cast<size_t>(n))) {
    case MuteRead::kOk:
      return;
    case MuteRead::kTooShort:
      warn("msg too short, dropping");
      break;
    case MuteRead::kBadLength:
      warn("msg has bad len, dropping");
      break;
  }
  closeConnection();
}

Logger::MuteRead Logger::applyMuteOrders(const unsigned char* data, size_t n) {
  for (size_t pos = 0; pos < n; pos += kLogMuteRecord) {
    if (n - pos < kLogMuteRecord) return MuteRead::kTooShort;
    if (logField(data + pos) != kLogMuteRecord) return MuteRead::kBadLength;
    if (Source* s = source(logField(data + pos + 2))) s->muted = logField(data + pos + 4) != 0;
  }
  return MuteRead::kOk;
}

void Logger::closeConnection() {
  if (fd_ >= 0) {
    if (Runner* runner = getRunner()) runner->removeSocket(fd_);
    ::close(fd_);
    fd_ = -1;
  }
  connected_ = false;
  events_ = 0;
  out_.clear();
  sent_ = 0;
  for (Source* s : byId_) {
    s->muted = false;
    s->registered = false;
  }
}

void Logger::setEvents(unsigned int events) {
  events_ = events;
  if (Runner* runner = getRunner()) runner->changeSocket(fd_, events);
}

}  // namespace kr
