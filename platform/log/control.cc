#include "platform/log/control.h"

#include <errno.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

#include "platform/log/log.h"

namespace kr::logsvc {

struct Control::Conn {
  UniqueFd fd;
  std::string in;       // the request so far
  std::string out;      // answer bytes not written yet, from `sent` on
  size_t sent = 0;
  bool answered = false;
  bool following = false;
  unsigned int events = POLLIN;
  std::vector<uint16_t> topics;       // follow filters; empty: any
  std::vector<std::string> programs;

  size_t pending() const { return out.size() - sent; }
};

const Control::Request Control::kRequests[] = {
    {"status", &Control::status},
    {"mute", &Control::mute},
    {"unmute", &Control::unmute},
    {"follow", &Control::follow},
};

namespace {

std::vector<std::string_view> splitWords(std::string_view line) {
  std::vector<std::string_view> words;
  for (size_t at = 0;;) {
    at = line.find_first_not_of(" \t", at);
    if (at == std::string_view::npos) return words;
    const size_t end = std::min(line.find_first_of(" \t", at), line.size());
    words.push_back(line.substr(at, end - at));
    at = end;
  }
}

std::string error(const std::string& text) { return "error: " + text + "\n"; }

}  // namespace

Control::Control(ThinRunner& runner, Service& service, UniqueFd listener)
    : runner_(runner),
      service_(service),
      pumpHook_(kr::bind<&Control::pumpAll>(this)),
      acceptor_(runner, std::move(listener), kr::bind<&Control::onAccept>(this)) {
  ring_.reserve(kRingLines);
  service_.setLineListener(this);
  runner_.addBeforeSleep(pumpHook_);
}

Control::~Control() {
  service_.setLineListener(nullptr);
  runner_.removeBeforeSleep(pumpHook_);
  for (const auto& [fd, c] : conns_) runner_.removeSocket(fd);
}

// ---- Connections ----------------------------------------------------------------------

void Control::onAccept(UniqueFd fd) {
  auto c = std::make_unique<Conn>();
  const int key = fd.get();
  c->fd = std::move(fd);
  runner_.addSocket(key, POLLIN, kr::bind<&Control::onConn>(this));
  conns_.emplace(key, std::move(c));
}

void Control::close(int fd) {
  runner_.removeSocket(fd);
  conns_.erase(fd);
}

void Control::onConn(int fd, unsigned int revents) {
  const auto it = conns_.find(fd);
  if (it == conns_.end()) return;
  Conn& c = *it->second;
  if (revents & POLLOUT) {
    pump(c);
    if (!conns_.count(fd)) return;
  }
  if (!(revents & (POLLIN | POLLHUP | POLLERR))) return;
  if (!c.answered) return readRequest(c);
  // After the request the peer has nothing more to say: whatever comes is
  // ignored, and its end ends the connection.
  char scratch[4096];
  const ssize_t n = recv(fd, scratch, sizeof scratch, MSG_DONTWAIT);
  if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) close(fd);
}

void Control::readRequest(Conn& c) {
  const int fd = c.fd.get();
  char buf[kMaxRequest];
  const ssize_t n = recv(fd, buf, kMaxRequest - c.in.size(), MSG_DONTWAIT);
  if (n < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (n <= 0) {
    if (n < 0 || c.in.empty()) return close(fd);
    c.answered = true;
    answer(c, error("the request does not end in a newline"));
    return;
  }
  c.in.append(buf, size_t(n));
  const size_t nl = c.in.find('\n');
  if (nl != std::string::npos) {
    c.answered = true;
    const std::string line = c.in.substr(0, nl);
    c.in.clear();
    return dispatch(c, line);
  }
  if (c.in.size() < kMaxRequest) return;
  c.answered = true;
  answer(c, error("request longer than " + std::to_string(kMaxRequest) + " bytes"));
}

void Control::dispatch(Conn& c, std::string_view line) {
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  const Words words = splitWords(line);
  if (words.empty()) return answer(c, error("empty request"));
  for (const Request& r : kRequests) {
    if (words[0] != r.name) continue;
    return (this->*r.handle)(c, Words(words.begin() + 1, words.end()));
  }
  answer(c, error("unknown request '" + std::string(words[0]) + "'"));
}

// Queues text and writes what the socket takes now.
void Control::answer(Conn& c, std::string text) {
  c.out += text;
  pump(c);
}

// Writes what is queued. A connection that is not following is closed once
// its answer is out.
void Control::pump(Conn& c) {
  const int fd = c.fd.get();
  while (c.pending() > 0) {
    const ssize_t w = send(fd, c.out.data() + c.sent, c.pending(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (w < 0 && errno == EINTR) continue;
    if (w < 0 && errno == EAGAIN) break;
    if (w <= 0) return close(fd);
    c.sent += size_t(w);
  }
  if (c.pending() == 0) {
    c.out.clear();
    c.sent = 0;
    if (c.answered && !c.following) return close(fd);
  }
  const unsigned int events = c.pending() ? POLLIN | POLLOUT : POLLIN;
  if (events != c.events) runner_.changeSocket(fd, events);
  c.events = events;
}

// The before-sleep hook: followers get the turn's lines in one write.
void Control::pumpAll() {
  if (droppedFollowers_) {
    service_.note("dropped " + std::to_string(std::exchange(droppedFollowers_, 0)) +
                  " follower(s) more than 1 MiB behind");
  }
  for (auto it = conns_.begin(); it != conns_.end();) {
    Conn& c = *(it++)->second;  // pump() may close c
    if (c.pending()) pump(c);
  }
}

// ---- Lines ------------------------------------------------------------------------------

bool Control::matches(const Conn& c, std::string_view program, const std::vector<uint16_t>& topics) const {
  const bool topicOk = c.topics.empty() || std::any_of(topics.begin(), topics.end(), [&c](uint16_t t) {
                         return std::find(c.topics.begin(), c.topics.end(), t) != c.topics.end();
                       });
  return topicOk && (c.programs.empty() || std::find(c.programs.begin(), c.programs.end(), program) != c.programs.end());
}

// Kept in the ring (reusing the oldest entry's memory), and queued for
// every follower it matches.
void Control::lineWritten(const LineInfo& line) {
  Entry& e = ring_.size() < kRingLines ? ring_.emplace_back() : ring_[ringNext_];
  ringNext_ = (ringNext_ + 1) % kRingLines;
  e.text.assign(line.text);
  e.program.assign(line.program);
  e.topics.assign(line.topics->begin(), line.topics->end());
  for (auto it = conns_.begin(); it != conns_.end();) {
    Conn& c = *(it++)->second;
    if (!c.following || !matches(c, line.program, *line.topics)) continue;
    if (c.pending() + line.text.size() > kMaxPending) {
      LogLine() << "dropped a follower: more than 1 MiB behind";
      ++droppedFollowers_;
      close(c.fd.get());
      continue;
    }
    c.out.append(line.text);
  }
}

// ---- Requests ----------------------------------------------------------------------------

void Control::status(Conn& c, const Words& args) {
  if (!args.empty()) return answer(c, error("status takes no arguments"));
  std::string out = "ok\n";
  for (const ClientInfo& i : service_.clients()) {
    out += "client pid=" + std::to_string(i.pid) + " program=" + i.program + " sources=" + std::to_string(i.sources) +
           " lines=" + std::to_string(i.lines) + " bytes=" + std::to_string(i.bytes) +
           " dropped=" + std::to_string(i.dropped) + "\n";
  }
  for (uint16_t t : service_.muted()) out += "muted " + std::to_string(t) + " " + service_.topics().name(t) + "\n";
  answer(c, std::move(out));
}

void Control::mute(Conn& c, const Words& args) { setMuted(c, args, true); }
void Control::unmute(Conn& c, const Words& args) { setMuted(c, args, false); }

void Control::setMuted(Conn& c, const Words& args, bool muted) {
  uint16_t topic = 0;
  if (args.size() != 1) return answer(c, error(std::string(muted ? "mute" : "unmute") + " needs one topic"));
  if (!service_.topics().resolve(args[0], &topic)) return answer(c, error("unknown topic '" + std::string(args[0]) + "'"));
  service_.setMuted(topic, muted);
  answer(c, "ok\n");
}

// The filters first, then the tail from the ring, then the follower
// joins: every later line that matches is queued for it.
void Control::follow(Conn& c, const Words& args) {
  uint64_t tail = 0;
  for (std::string_view a : args) {
    const size_t eq = a.find('=');
    const std::string_view key = a.substr(0, eq), value = eq == a.npos ? "" : a.substr(eq + 1);
    uint16_t topic = 0;
    if (key == "tail" && parseCount(value, &tail)) continue;
    if (key == "topic" && service_.topics().resolve(value, &topic)) {
      c.topics.push_back(topic);
      continue;
    }
    if (key == "program" && !value.empty()) {
      c.programs.emplace_back(value);
      continue;
    }
    return answer(c, error("bad follow option '" + std::string(a) + "'"));
  }
  std::vector<const Entry*> last;
  for (size_t i = ring_.size(); i > 0 && last.size() < tail; --i) {
    const Entry& e = ring_[(ringNext_ + i - 1) % ring_.size()];
    if (matches(c, e.program, e.topics)) last.push_back(&e);
  }
  std::string out = "ok\n";
  for (auto it = last.rbegin(); it != last.rend(); ++it) out += (*it)->text;
  c.following = true;
  answer(c, std::move(out));
}

}  // namespace kr::logsvc
