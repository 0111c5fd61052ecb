#include "platform/loader/router.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <sstream>

#include "kr/loop/runner.h"
#include "kr/message/protocol.h"
#include "kr/message/vocabulary.h"
#include "platform/loader/log.h"
#include "platform/loader/protocol.h"

namespace kr::loader {

namespace {

constexpr size_t kMaxClients = 512;
constexpr unsigned int kHelloTicks = 1000;      // 10 s to say hello
constexpr unsigned int kAcceptPauseTicks = 100;  // after running out of descriptors
// recvmsg() room for more descriptors than a client may send at once, so
// that a second one is seen (and refused) rather than silently cut off.
constexpr size_t kFdsPerRead = 4;

std::string hex(uint32_t v) {
  std::ostringstream os;
  os << "0x" << std::hex << v;
  return os.str();
}

// Consumes the first element of SYS_TO and puts the sender in front of
// SYS_FROM.
void advance(message& m, uint32_t sender) {
  std::vector<unsigned int> to = m.get(SYS_TO);
  if (!to.empty()) to.erase(to.begin());
  if (to.empty()) m.remove(SYS_TO);
  else m.insert(SYS_TO, std::move(to));
  std::vector<unsigned int> from = m.get(SYS_FROM);
  from.insert(from.begin(), sender);
  m.insert(SYS_FROM, std::move(from));
}

// The paths of a 0xFF0002 list: after the marker, each path is a count n
// and n elements. False for a count of 0 or one that runs past the end.
bool splitPaths(const std::vector<unsigned int>& to, std::vector<std::vector<unsigned int>>* paths) {
  size_t i = 1;
  while (i < to.size()) {
    const size_t n = to[i];
    if (n == 0 || n > to.size() - i - 1) return false;
    paths->emplace_back(to.begin() + i + 1, to.begin() + i + 1 + n);
    i += 1 + n;
  }
  return true;
}

// Every descriptor of a received control part, owned.
std::vector<UniqueFd> takeDescriptors(msghdr& msg) {
  std::vector<UniqueFd> fds;
  for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
    if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) continue;
    const size_t n = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (size_t i = 0; i < n; ++i) {
      int fd;
      std::memcpy(&fd, CMSG_DATA(c) + i * sizeof(int), sizeof fd);
      fds.emplace_back(fd);
    }
  }
  return fds;
}

kr::Runner& runner() { return *kr::getRunner(); }

}  // namespace

struct Router::Client {
  UniqueFd sock;
  Peer peer;
  uint32_t policy = 0;
  uint32_t address = 0;  // 0 until the hello
  std::vector<unsigned int> registration;
  FrameReader reader;
  FrameWriter writer;
  kr::Timer helloTimer;
  bool writing = false;       // POLLOUT is asked for
  bool dirty = false;         // in dirty_
  bool doomed = false;        // in doomed_
  bool orderly = false;       // how it ended, once doomed
  bool left = false;          // sent control 2
  bool askedToLeave = false;  // got control 1 and did not refuse
  bool running = false;       // sent control 6
  uint32_t leaveValue = 0;    // control 7's argument
  bool monitor = false;       // in monitors_
  std::vector<unsigned int> monitorPath;  // where its events go

  bool trusted() const { return policy == kPolicyAll; }
  std::string name() const {
    return address ? "address " + std::to_string(address) + " (pid " + std::to_string(peer.pid) + ")"
                   : "client pid " + std::to_string(peer.pid);
  }
};

Router::Router(const Config& config)
    : config_(config), uid_(geteuid()), nextDynamic_(kDynamicFirst), rx_(size_t(1) << 16) {}

Router::~Router() {
  for (auto& [fd, c] : clients_) runner().removeSocket(fd);
  if (listener_) runner().removeSocket(listener_.get());
}

void Router::listen(UniqueFd listener) {
  if (listener_) runner().removeSocket(listener_.get());
  listener_ = std::move(listener);
  fcntl(listener_.get(), F_SETFL, fcntl(listener_.get(), F_GETFL) | O_NONBLOCK);
  runner().addSocket(listener_.get(), POLLIN, kr::bind<&Router::onAccept>(this));
}

void Router::addClient(UniqueFd sock, const Peer& peer) {
  fcntl(sock.get(), F_SETFL, fcntl(sock.get(), F_GETFL) | O_NONBLOCK);
  auto c = std::make_unique<Client>();
  c->peer = peer;
  c->policy = policyFor(config_, peer.uid, peer.supervised(), uid_);
  const int fd = sock.get();
  c->sock = std::move(sock);
  Client* raw = c.get();
  clients_[fd] = std::move(c);
  runner().addSocket(fd, POLLIN, kr::bind<&Router::onClientIo>(this));
  if (peer.supervised()) return;  // the supervisor watches its own daemons
  raw->helloTimer = kr::Timer(kHelloTicks, [this, raw] {
    doom(*raw, "no hello within 10 s", false);
    settle();
  });
}

bool Router::askToLeave(uint32_t address) {
  const auto it = byAddress_.find(address);
  if (it == byAddress_.end()) return false;
  sendLeave(*it->second);
  settle();
  return true;
}

bool Router::dropSupervised(uint32_t address, const std::string& why) {
  for (auto& [fd, c] : clients_) {
    if (c->peer.supervisedAddress != address || c->doomed) continue;
    doom(*c, why, false);
    settle();
    return true;
  }
  return false;
}

void Router::flushAll() {
  for (auto& [fd, c] : clients_) c->writer.flush(fd);
}

const flat_message* Router::keptData(uint32_t address) const {
  const auto it = kept_.find(address);
  return it == kept_.end() ? nullptr : &it->second;
}

// ---- Events --------------------------------------------------------------------

void Router::onAccept(int, unsigned int) {
  for (int i = 0; i < 16; ++i) {
    UniqueFd fd(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!fd) {
      if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) pauseAccepting();
      break;
    }
    ucred cred{};
    socklen_t len = sizeof cred;
    if (clients_.size() >= kMaxClients) {
      LogLine() << "too many connections; one refused";
    } else if (getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) {
      LogLine() << "no peer credentials (" << std::strerror(errno) << "); connection refused";
    } else {
      addClient(std::move(fd), Peer{cred.pid, cred.uid, cred.gid, 0});
    }
  }
  settle();
}

// Out of descriptors: the listener would stay readable and spin the loop,
// so it rests for a second.
void Router::pauseAccepting() {
  LogLine() << "out of descriptors (" << std::strerror(errno) << "); not accepting for 1 s";
  runner().removeSocket(listener_.get());
  acceptPause_ = kr::Timer(kAcceptPauseTicks, [this] {
    runner().addSocket(listener_.get(), POLLIN, kr::bind<&Router::onAccept>(this));
  });
}

void Router::onClientIo(int fd, unsigned int revents) {
  const auto it = clients_.find(fd);
  if (it == clients_.end()) return;
  Client& c = *it->second;
  if (revents & POLLOUT) flush(c);
  if (!c.doomed && (revents & (POLLIN | POLLHUP | POLLERR))) readFrom(c);
  settle();
}

// One recvmsg() per event: a busy client cannot starve the others.
void Router::readFrom(Client& c) {
  iovec iov{rx_.data(), rx_.size()};
  alignas(cmsghdr) unsigned char control[CMSG_SPACE(kFdsPerRead * sizeof(int))];
  msghdr msg{};
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  msg.msg_control = control;
  msg.msg_controllen = sizeof control;
  const ssize_t n = recvmsg(c.sock.get(), &msg, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
  if (n < 0) {
    if (errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK)
      doom(c, std::string("read failed: ") + std::strerror(errno), false);
    return;
  }
  std::vector<UniqueFd> fds = takeDescriptors(msg);
  if ((msg.msg_flags & MSG_CTRUNC) || fds.size() > 1) return doom(c, "several descriptors at once", false);
  if (n == 0) return ended(c);
  UniqueFd fd = fds.empty() ? UniqueFd() : std::move(fds.front());
  if (!c.reader.feed(rx_.data(), size_t(n), std::move(fd), [this, &c](Frame& f) { handleFrame(c, f); }))
    doom(c, c.reader.errorText(), false);
}

void Router::ended(Client& c) {
  if (!c.reader.atBoundary()) return doom(c, "closed in the middle of a frame", false);
  doom(c, "", c.left || c.askedToLeave);
}

void Router::handleFrame(Client& c, Frame& f) {
  if (c.doomed) return;
  message m;
  if (!m.unflatten(f.body.data(), static_cast<unsigned int>(f.body.size())))
    return doom(c, "malformed message", false);
  unsigned int code = 0;
  if (isCtrl(m, &code)) return control(c, m, code);  // a descriptor with it is closed
  if (!c.address) return doom(c, "message before the hello", false);
  route(c, m, std::move(f.fd));
}

// ---- Control messages -------------------------------------------------------------

void Router::control(Client& c, const message& m, uint32_t code) {
  static constexpr ControlHandler kControls[kCtrlCount] = {
      &Router::ctrlUnexpected,  // 0
      &Router::ctrlUnexpected,  // 1 leave: the loader's to send
      &Router::ctrlLeaving,     // 2
      &Router::ctrlRefuse,      // 3
      &Router::ctrlStopMe,      // 4
      &Router::ctrlHello,       // 5
      &Router::ctrlRunning,     // 6
      &Router::ctrlLeaveSet,    // 7
      &Router::ctrlUnexpected,  // 8 ready: the loader's to send
  };
  if (!c.address && code != kCtrlHello) return doom(c, "control " + std::to_string(code) + " before the hello", false);
  if (code >= kCtrlCount) return ctrlUnexpected(c, m);
  const ControlHandler handler = kControls[code];
  (this->*handler)(c, m);
}

void Router::ctrlHello(Client& c, const message& m) {
  if (c.address) {
    LogLine() << c.name() << ": second hello ignored";
    return;
  }
  const std::vector<unsigned int> numbers = m.get(kHelloNumbers);
  if (numbers.empty()) return doom(c, "hello without registration numbers", false);
  std::string why;
  const uint32_t address = chooseAddress(c, numbers.front(), &why);
  if (!address) return doom(c, why, false);
  c.address = address;
  c.registration = numbers;
  c.helloTimer.cancel();
  byAddress_[address] = &c;
  LogLine() << c.name() << ": uid " << c.peer.uid << ", policy " << hex(c.policy);
  message ready;
  ready.insert(SYS_CTRL, kCtrlReady);
  ready.insert(kReadyAddress, address);
  ready.insert(kReadyPolicy, c.policy);
  if (const flat_message* kept = keptData(address)) ready.insert(kReadyPermData, *kept);
  if (send(c, ready)) return;
  LogLine() << c.name() << ": kept data does not fit the ready message; sent without it";
  ready.remove(kReadyPermData);
  send(c, ready);
}

uint32_t Router::chooseAddress(const Client& c, uint32_t asked, std::string* why) {
  const std::string name = "address " + std::to_string(asked);
  if (c.peer.supervised()) {
    if (asked != 0 && asked != c.peer.supervisedAddress) {
      *why = "started for address " + std::to_string(c.peer.supervisedAddress) + " but asked for " + name;
      return 0;
    }
    asked = c.peer.supervisedAddress;
  } else if (asked == 0) {
    const uint32_t a = freeDynamicAddress();
    if (!a) *why = "no free dynamic address";
    return a;
  } else if (!isFixedAddress(asked)) {
    *why = name + " cannot be asked for";
    return 0;
  } else if (!c.trusted()) {
    *why = name + " needs a trusted peer";
    return 0;
  }
  if (holds(asked)) {
    *why = "address " + std::to_string(asked) + " is taken by pid " + std::to_string(byAddress_.at(asked)->peer.pid);
    return 0;
  }
  return asked;
}

uint32_t Router::freeDynamicAddress() {
  for (uint32_t i = 0; i <= kDynamicLast - kDynamicFirst; ++i) {
    const uint32_t a = nextDynamic_;
    nextDynamic_ = a == kDynamicLast ? kDynamicFirst : a + 1;
    if (!holds(a)) return a;
  }
  return 0;
}

void Router::ctrlLeaving(Client& c, const message& m) {
  c.left = true;
  if (isFixedAddress(c.address)) keep(c.address, m);
  doom(c, "", true);
}

// What a fixed address leaves behind is handed to its next hello; a leave
// without data forgets what was kept.
void Router::keep(uint32_t address, const message& leaving) {
  const std::vector<unsigned char> data = leaving.get(kLeavePermData);
  message check;
  if (data.empty()) {
    kept_.erase(address);
  } else if (!check.unflatten(data.data(), static_cast<unsigned int>(data.size()))) {
    LogLine() << "address " << address << ": persistent data is not a flat message; nothing kept";
    kept_.erase(address);
  } else {
    kept_[address] = flat_message(data);
  }
}

void Router::ctrlRefuse(Client& c, const message&) {
  LogLine() << c.name() << " refuses to leave";
  c.askedToLeave = false;
}

void Router::ctrlStopMe(Client& c, const message&) {
  LogLine() << c.name() << " asks to be stopped";
  sendLeave(c);
}

void Router::ctrlRunning(Client& c, const message&) { c.running = true; }

void Router::ctrlLeaveSet(Client& c, const message& m) { c.leaveValue = m.get(SYS_CTRL_ARG); }

void Router::ctrlUnexpected(Client& c, const message& m) {
  LogLine() << c.name() << ": control " << m.get(SYS_CTRL) << " ignored";
}

void Router::sendLeave(Client& c) {
  c.askedToLeave = true;
  message leave;
  leave.insert(SYS_CTRL, kCtrlLeave);
  send(c, leave);
}

// ---- Routing ----------------------------------------------------------------------

void Router::route(Client& from, message& m, UniqueFd fd) {
  m.remove(kDescriptorField);
  m.insert(SYS_POLICY, from.policy);
  const std::vector<unsigned int> to = m.get(SYS_TO);
  if (to.empty()) return unreachable(from, m);
  switch (to.front()) {
    case kLoaderAddress:
      return toLoader(from, m);
    case kBroadcastAddress:
      return broadcast(from, m, std::move(fd));
    case kListAddress:
      return toList(from, m, std::move(fd));
    default:
      return deliver(from, m, std::move(fd));
  }
}

void Router::deliver(Client& from, message m, UniqueFd fd) {
  const auto it = byAddress_.find(m.get(SYS_TO).front());
  if (it == byAddress_.end()) return unreachable(from, m);
  const message request = m;  // shares until advance() writes
  advance(m, from.address);
  if (!forward(&from, *it->second, m, std::move(fd))) tooLong(from, request);
}

// To every process but the sender, whose own loop has delivered it locally.
void Router::broadcast(Client& from, message m, UniqueFd fd) {
  const message request = m;
  advance(m, from.address);
  std::vector<unsigned char> body;
  m.flatten(body);
  if (body.size() > kMaxFrameLength) return tooLong(from, request);
  std::vector<Client*> targets;
  for (const auto& [address, c] : byAddress_)
    if (c != &from) targets.push_back(c);
  for (Client* c : targets) forwardBytes(&from, *c, body, fd.duplicate());
}

void Router::toList(Client& from, const message& m, UniqueFd fd) {
  std::vector<std::vector<unsigned int>> paths;
  if (!splitPaths(m.get(SYS_TO), &paths)) {
    LogLine() << from.name() << ": malformed path list";
    return unreachable(from, m);
  }
  for (std::vector<unsigned int>& path : paths) {
    if (path.front() == kSelfAddress) continue;  // the sender delivered those itself
    if (path.front() == kBroadcastAddress || path.front() == kListAddress) {
      LogLine() << from.name() << ": a path list may not nest " << hex(path.front());
      continue;
    }
    message copy = m;
    copy.insert(SYS_TO, std::move(path));
    deliver(from, std::move(copy), fd.duplicate());
  }
}

// The loader itself has no handlers below it and knows two commands.
void Router::toLoader(Client& from, const message& m) {
  if (isReply(m) || (!m.has(SYS_CMD) && isError(m, nullptr, nullptr))) return;
  if (m.size(SYS_TO) > 1) return unreachable(from, m);
  if (!getRequestID(m, nullptr)) return;
  switch (m.get(SYS_CMD, CMD_NOOP)) {
    case CMD_NOOP:
      return answer(from, m, message());
    case kMonitorCmd:
      return startMonitor(from, m);
    default:
      return answer(from, m, errorMsg(ERROR_NOTIMP, ""));
  }
}

// Watching shows every process's traffic, so only a trusted peer may. The
// events go where the request came from, to the handler that asked; asking
// again moves them.
void Router::startMonitor(Client& c, const message& request) {
  if (!c.trusted()) return answer(c, request, errorMsg(ERROR_NOTALLOWED, ""));
  c.monitorPath = request.get(SYS_FROM);
  if (!c.monitor) {
    c.monitor = true;
    monitors_.push_back(&c);
    LogLine() << c.name() << " monitors the bus";
  }
  answer(c, request, message());
}

void Router::unreachable(Client& from, const message& m) {
  if (isReplyExpected(m)) answer(from, m, errorMsg(ERROR_BRKPATH, ""));
}

void Router::tooLong(Client& from, const message& m) {
  LogLine() << from.name() << ": message too long once routed; dropped";
  if (isReplyExpected(m)) answer(from, m, errorMsg(ERROR_TOOBIG, ""));
}

// A reply as a handler makes one: type 2, the request id, SYS_TO = the
// request's SYS_FROM; SYS_FROM is where the request was going.
void Router::answer(Client& to, const message& request, message reply) {
  unsigned int id = 0;
  if (getRequestID(request, &id)) setRequestID(reply, id);
  setType(reply, TYPE_REPLY);
  if (request.size(SYS_FROM)) reply.insert(SYS_TO, request.get(SYS_FROM));
  if (request.size(SYS_TO)) reply.insert(SYS_FROM, request.get(SYS_TO));
  reply.insert(SYS_POLICY, kPolicyAll);
  if (!forward(nullptr, to, reply)) LogLine() << to.name() << ": answer too long; dropped";
}

void Router::sendDisconnected(uint32_t address, bool orderly) {
  message m;
  m.insert(SYS_CMD, CMD_DISCONNECTED);
  m.insert_vector(SYS_FROM, address);
  m.insert(SYS_DREASON, orderly ? DREASON_DISCONNECTED : DREASON_CRASHED);
  m.insert(SYS_POLICY, kPolicyAll);
  std::vector<unsigned char> body;
  m.flatten(body);
  std::vector<Client*> targets;
  for (const auto& [a, c] : byAddress_) targets.push_back(c);
  for (Client* c : targets) forwardBytes(nullptr, *c, body, {});
}

// ---- Output and the end of connections ------------------------------------------------

// False only when the message is too long for a frame.
bool Router::send(Client& to, const message& m, UniqueFd fd) {
  std::vector<unsigned char> body;
  m.flatten(body);
  return sendBytes(to, body, std::move(fd));
}

bool Router::sendBytes(Client& to, std::span<const unsigned char> body, UniqueFd fd) {
  if (to.doomed) return true;
  switch (to.writer.enqueue(body, std::move(fd))) {
    case FrameWriter::Queued::kOk:
      if (!to.dirty) {
        to.dirty = true;
        dirty_.push_back(&to);
      }
      return true;
    case FrameWriter::Queued::kTooLong:
      return false;
    case FrameWriter::Queued::kFull:
      doom(to, "output queue full (it stopped reading)", false);
      return true;
  }
  return true;
}

bool Router::forward(const Client* from, Client& to, const message& m, UniqueFd fd) {
  std::vector<unsigned char> body;
  m.flatten(body);
  return forwardBytes(from, to, body, std::move(fd));
}

bool Router::forwardBytes(const Client* from, Client& to, std::span<const unsigned char> body, UniqueFd fd) {
  if (!sendBytes(to, body, std::move(fd))) return false;
  if (!monitors_.empty() && !to.doomed) report(from, to, body);
  return true;
}

// One event per monitor, carrying the frame, or only its length when the
// frame and the event's own fields do not fit one frame together. Frames
// to or from a monitor are left out: its own requests and events would
// otherwise be reported to it without end.
void Router::report(const Client* from, const Client& to, std::span<const unsigned char> body) {
  if (to.monitor || (from && from->monitor)) return;
  message event;
  event.insert(SYS_CMD, kMonitorEvent);
  event.insert_vector(SYS_FROM, kLoaderAddress);
  event.insert(SYS_POLICY, kPolicyAll);
  event.insert(kMonitorSender, from ? from->address : kLoaderAddress);
  event.insert(kMonitorReceiver, to.address);
  message whole = event;
  whole.insert(kMonitorFrame, flat_message(std::vector<unsigned char>(body.begin(), body.end())));
  event.insert(kMonitorFrameLength, static_cast<unsigned int>(body.size()));
  const std::vector<Client*> watchers = monitors_;  // a monitor that stops reading is dropped here
  for (Client* w : watchers) {
    message e = whole;
    if (!w->monitorPath.empty()) e.insert(SYS_TO, w->monitorPath);
    if (send(*w, e)) continue;
    e = event;
    if (!w->monitorPath.empty()) e.insert(SYS_TO, w->monitorPath);
    send(*w, e);
  }
}

void Router::flush(Client& c) {
  int err = 0;
  switch (c.writer.flush(c.sock.get(), &err)) {
    case FrameWriter::Flushed::kDone:
      return wantWrite(c, false);
    case FrameWriter::Flushed::kPending:
      return wantWrite(c, true);
    case FrameWriter::Flushed::kFailed:
      return doom(c, std::string("write failed: ") + std::strerror(err), c.left || c.askedToLeave);
  }
}

void Router::wantWrite(Client& c, bool on) {
  if (c.writing == on) return;
  c.writing = on;
  runner().changeSocket(c.sock.get(), POLLIN | (on ? POLLOUT : 0));
}

// The connection stops at once (no more routing to it or reading from it);
// reap() finishes it after the current event.
void Router::doom(Client& c, const std::string& why, bool orderly) {
  if (c.doomed) return;
  c.doomed = true;
  c.orderly = orderly;
  if (!why.empty()) LogLine() << c.name() << " dropped: " << why;
  if (c.address) byAddress_.erase(c.address);
  if (c.monitor) std::erase(monitors_, &c);
  runner().removeSocket(c.sock.get());
  c.helloTimer.cancel();
  doomed_.push_back(&c);
}

void Router::settle() {
  if (settling_) return;
  settling_ = true;
  while (!dirty_.empty() || !doomed_.empty()) {
    while (!dirty_.empty()) {
      Client* c = dirty_.back();
      dirty_.pop_back();
      c->dirty = false;
      if (!c->doomed) flush(*c);
    }
    reap();
  }
  settling_ = false;
}

void Router::reap() {
  while (!doomed_.empty()) {
    Client* c = doomed_.front();
    doomed_.erase(doomed_.begin());
    std::erase(dirty_, c);
    const uint32_t address = c->address;
    const bool orderly = c->orderly;
    const Peer peer = c->peer;
    clients_.erase(c->sock.get());  // closes the socket
    if (address) {
      LogLine() << "address " << address << (orderly ? " left" : " is gone (crashed)");
      sendDisconnected(address, orderly);
    }
    if (closed_) closed_(peer);
  }
}

}  // namespace kr::loader
