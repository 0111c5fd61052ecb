#include "kr/bus/looper.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include "kr/loop/clock.h"
#include "kr/loop/crash.h"
#include "kr/message/dump.h"
#include "kr/message/protocol.h"
#include "kr/message/vocabulary.h"
#include "kr/util/runtime_dir.h"
#include "kr/util/fd_passing.h"

namespace kr {
namespace {

Looper* g_looper = nullptr;

// First path elements with a meaning of their own.
constexpr unsigned int kEveryone = 0xff0001;
constexpr unsigned int kPathList = 0xff0002;
constexpr unsigned int kThisProcess = 0xff0003;

constexpr int kInheritedFd = 3;
constexpr int kReadyTicks = 2000;  // 20 s for CTRL_READY
constexpr unsigned int kSeedRounds = 1024;

// The time service and its notification.
constexpr unsigned int kTimezoneNotify = 0x60001;
constexpr u32_id kTimezoneOffset{27};
constexpr int kTimezoneTicks = 6000;

[[noreturn]] void fatal(const std::string& line) {
  std::cerr << line << std::endl;
  std::abort();
}

void putBe32(unsigned char* p, unsigned int v) { putFrameLength(p, v); }

// The 256-byte table of the seed message: the RC4 key schedule over a
// 12-byte key, run longer than RC4 does so that the first output bytes do
// not follow the key as closely.
std::vector<unsigned char> seedTable(unsigned int a1, unsigned int v, unsigned int a12) {
  unsigned char key[12];
  putBe32(key, a1);
  putBe32(key + 4, v);
  putBe32(key + 8, a12);
  std::vector<unsigned char> s(256);
  std::iota(s.begin(), s.end(), 0);
  unsigned char i = 0, j = 0;
  const unsigned int rounds = v % 256 + kSeedRounds;
  for (unsigned int k = 0; k < rounds; ++k, ++i) {
    j = static_cast<unsigned char>(j + s[i] + key[k % 12]);
    std::swap(s[i], s[j]);
  }
  return s;
}

std::vector<unsigned int> path(const message& m, u32_array_id field) { return m.get(field); }

void pushFront(message& m, u32_array_id field, unsigned int element) {
  std::vector<unsigned int> p = m.get(field);
  p.insert(p.begin(), element);
  m.insert(field, std::move(p));
}

// The part of /proc/<pid>/cmdline after the last "/", at most 79 bytes.
std::string programName() {
  char file[64];
  std::snprintf(file, sizeof file, "/proc/%d/cmdline", static_cast<int>(getpid()));
  const int fd = open(file, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return "";
  char buf[80] = {};
  const ssize_t n = read(fd, buf, 79);
  close(fd);
  if (n <= 0) return "";
  const std::string argv0(buf);
  const size_t slash = argv0.rfind('/');
  return slash == std::string::npos ? argv0 : argv0.substr(slash + 1);
}

}  // namespace

Looper* getLooper() { return g_looper; }

// ---- Lifetime ------------------------------------------------------------------

Looper::Looper(looper_detached_t) : rxStart(rxBuf), rxEnd(rxBuf) {
  g_looper = this;
  if (const char* v = std::getenv("LOOPER_VERBOSE")) verbose = std::atoi(v);
}

Looper::Looper(unsigned int mode, unsigned int a1, unsigned int a2, unsigned int a3, unsigned int a4,
               unsigned int a5, unsigned int a6, unsigned int a7, unsigned int a8, unsigned int a9,
               unsigned int a10, unsigned int a11, unsigned int a12)
    : Looper(looper_detached) {
  connectLoader(mode, a1, a2, a3, a4, a5, a6, a7, a8, a9, a10, a11, a12);
}

Looper::~Looper() {
  // After shutdown() the socket is gone; what is still pending is dropped.
  if (sock.valid()) {
    writeFlush(true);
    removeSocket(sock.get());
    sock.reset();
  }
  if (g_looper == this) g_looper = nullptr;
}

void Looper::shutdown() {
  Runner::shutdown();
  // Let go without closing: the descriptor stays open until the process
  // ends, which is what the loader watches for.
  sock.release();
}

// ---- Handshake -------------------------------------------------------------------

void Looper::connectLoader(unsigned int mode, unsigned int a1, unsigned int a2, unsigned int a3,
                           unsigned int a4, unsigned int a5, unsigned int a6, unsigned int a7,
                           unsigned int a8, unsigned int a9, unsigned int a10, unsigned int a11,
                           unsigned int a12) {
  sock.reset(chooseSocket(mode));
  const int flags = fcntl(sock.get(), F_GETFL);
  if (flags < 0 || fcntl(sock.get(), F_SETFL, flags | O_NONBLOCK) < 0)
    std::cerr << "fcntl: " << std::strerror(errno) << std::endl;
  addSocket(sock.get(), POLLIN, kr::bind<&Looper::onMsgSock>(this));
  const unsigned int numbers[12] = {a1, a2, a3, a4, a5, a6, a7, a8, a9, a10, a11, a12};
  sendHello(numbers);
  awaitReady(a1, a12);
}

int Looper::chooseSocket(unsigned int mode) {
  if (mode != kConnectPath) {
    sockaddr_storage ss{};
    socklen_t len = sizeof ss;
    if (getsockname(kInheritedFd, reinterpret_cast<sockaddr*>(&ss), &len) == 0 && ss.ss_family == AF_UNIX)
      return kInheritedFd;
    if (mode == kConnectInherited) fatal("LOOPER: didn't get connection to loader");
  }
  UniqueFd fd(socket(AF_UNIX, SOCK_STREAM, 0));
  if (!fd.valid()) fatal("socket failed (errno=" + std::to_string(errno) + ")");
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  const std::string where = loaderSocketPath();
  std::strncpy(addr.sun_path, where.c_str(), sizeof addr.sun_path - 1);
  if (connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    const int err = errno;
    fd.reset();
    fatal("connect failed (errno=" + std::to_string(err) + ")");
  }
  return fd.release();
}

void Looper::sendHello(const unsigned int (&numbers)[12]) {
  message hello;
  hello.insert_vector(SYS_TO, HANDLER_LOADER);
  hello.insert(SYS_CTRL, CTRL_HELLO);
  hello.insert(HELLO_NUMBERS, std::vector<unsigned int>(numbers, numbers + 12));
  sendMessage(hello);
  writeFlush(true);
}

void Looper::awaitReady(unsigned int a1, unsigned int a12) {
  message reply;
  unsigned int code = 0;
  if (!readMessage(reply, kReadyTicks, true) || !isCtrl(reply, &code) || code != CTRL_READY) {
    std::cerr << "could not receive confirmation to " "CTRL_READY from loader" << std::endl;
    reply.dump2(std::cout);
    std::cout.flush();
    std::abort();
  }
  readyInfo.id1 = reply.get(u32_id(1));
  readyInfo.id3 = reply.get(u32_id(3));
  readyInfo.id2 = reply.get(u32_id(2));
  readyInfo.id8 = reply.get(u32_id(8));
  readyInfo.id6 = reply.get(u32_id(6));
  readyInfo.id7 = reply.get(u64_id(7));
  if (reply.has(READY_PERMDATA)) loadPermData(reply.get(READY_PERMDATA));
  keepSeed(reply, a1, a12);
}

void Looper::keepSeed(const message& ready, unsigned int a1, unsigned int a12) {
  if (!ready.has(READY_SEED)) return;
  seedMessage = ready.get(READY_SEED);
  const std::vector<unsigned int> values = seedMessage.get(SEED_VALUES);
  if (values.empty()) return;
  seedMessage.insert(SEED_TABLE, seedTable(a1, values.front(), a12));
}

// ---- Handlers ----------------------------------------------------------------------

bool Looper::addHandler(unsigned int hid, Handler* h) {
  if (!handlers.emplace(hid, h).second) return false;
  h->id = hid;
  auto it = permData.find(hid);
  if (it != permData.end()) {
    const message data = std::move(it->second);
    permData.erase(it);
    h->loadPermData(data);
  }
  return true;
}

bool Looper::removeHandler(unsigned int hid) { return handlers.erase(hid) != 0; }
bool Looper::hasHandler(unsigned int hid) const { return handlers.count(hid) != 0; }

Handler* Looper::findHandler(unsigned int hid) const {
  auto it = handlers.find(hid);
  return it == handlers.end() ? nullptr : it->second;
}

std::vector<unsigned int> Looper::handlerIds() const {
  std::vector<unsigned int> ids;
  ids.reserve(handlers.size());
  for (const auto& entry : handlers) ids.push_back(entry.first);
  return ids;
}

// Calls f(h) for every handler in id order; f may add or remove handlers.
template <class F>
void Looper::forEachHandler(F&& f) {
  for (auto it = handlers.begin(); it != handlers.end();) {
    const unsigned int hid = it->first;
    f(hid, it->second);
    it = handlers.upper_bound(hid);
  }
}

void Looper::savePermData(message& m) {
  Handler::savePermData(m);
  std::vector<unsigned int> ids = m.get(PERM_IDS);
  std::vector<message> data = m.get(PERM_DATA);
  bool any = false;
  forEachHandler([&](unsigned int hid, Handler* h) {
    message d;
    h->savePermData(d);
    if (d.empty()) return;
    ids.push_back(hid);
    data.push_back(std::move(d));
    any = true;
  });
  if (!any) {
    m.remove(PERM_IDS);
    m.remove(PERM_DATA);
    return;
  }
  m.insert(PERM_IDS, std::move(ids));
  m.insert(PERM_DATA, std::move(data));
}

void Looper::loadPermData(const message& m) {
  const std::vector<unsigned int> ids = m.get(PERM_IDS);
  const std::vector<message> data = m.get(PERM_DATA);
  for (size_t i = 0; i < ids.size() && i < data.size(); ++i) permData.emplace(ids[i], data[i]);
  permData.insert_or_assign(kSelf, m);
}

void Looper::cmdDisconnected(const message& m) {
  Handler::cmdDisconnected(m);
  forEachHandler([&](unsigned int, Handler* h) { h->cmdDisconnected(m); });
}

void Looper::handleCmd(const message& m, unsigned int cmd) {
  if (cmd == kTimezoneNotify) {
    timezone = static_cast<int>(m.get(kTimezoneOffset));
    return;
  }
  Handler::handleCmd(m, cmd);
}

// ---- Routing -------------------------------------------------------------------------

bool Looper::sendMessage(message& m) {
  const std::vector<unsigned int> to = path(m, SYS_TO);
  if (to.empty()) {
    queueMessage(m);
    return true;
  }
  switch (to.front()) {
    case kThisProcess:
      m.insert(SYS_TO, std::vector<unsigned int>(to.begin() + 1, to.end()));
      pushFront(m, SYS_FROM, kThisProcess);  // so that an answer finds its way back here
      queueMessage(m);
      return true;
    case kEveryone: {
      const bool written = writeMessage(m);  // the loader forwards it to the others
      m.insert(SYS_TO, std::vector<unsigned int>(to.begin() + 1, to.end()));
      pushFront(m, SYS_FROM, kThisProcess);
      queueMessage(m);
      return written;
    }
    case kPathList:
      return routeList(m);
    default:
      return writeMessage(m);
  }
}

// SYS_TO = [0xff0002, n1, path1..., n2, path2...]: paths into this process
// are delivered here, the others written as one list. A malformed list is
// refused before anything is sent.
bool Looper::routeList(message& m) {
  const std::vector<unsigned int> to = path(m, SYS_TO);
  std::vector<unsigned int> rest{kPathList};
  std::vector<std::vector<unsigned int>> local;
  for (size_t pos = 1; pos < to.size();) {
    const unsigned int n = to[pos];
    if (n == 0 || n > to.size() - pos - 1) return false;
    const auto first = to.begin() + static_cast<long>(pos) + 1, last = first + n;
    if (*first == kThisProcess) local.emplace_back(first, last);
    else rest.insert(rest.end(), first - 1, last);
    pos += 1 + n;
  }
  for (std::vector<unsigned int>& p : local) {
    message copy = m;
    copy.insert(SYS_TO, std::move(p));
    sendMessage(copy);
  }
  if (rest.size() == 1) return true;
  m.insert(SYS_TO, std::move(rest));
  return writeMessage(m);
}

bool Looper::queueMessage(const message& m) {
  if (filterMessage(m)) return true;
  if (queueLen > kMaxQueue - 1) {
    std::cerr << "full queue, spilled message:" << std::endl;
    m.dump2(std::cout);
    std::cout.flush();
    unsigned int fd;
    if (m.extract(SYS_FD, fd)) close(static_cast<int>(fd));
    return false;
  }
  queue.push_back(m);
  ++queueLen;
  checkScheduleDispatchQueue();
  return true;
}

// ---- Writing ---------------------------------------------------------------------------

bool Looper::writeMessage(const message& m) {
  if (verbose > 0) {
    std::cout << "tx: ";
    m.dump2(std::cout);
  }
  const unsigned int room = m.max_length();
  auto buf = std::make_unique_for_overwrite<unsigned char[]>(room + kFrameHeaderBytes);
  unsigned int length = room;
  m.flatten(buf.get() + kFrameHeaderBytes, &length);
  if (length > kMaxFrameBody) {
    std::cerr << "LOOPER WARNING: write message too long" << std::endl;
    return false;
  }
  putFrameLength(buf.get(), length);
  unsigned int fd;
  WriteEntry& e = txList.emplace_back();
  e.pos = buf.get();
  e.remaining = length + kFrameHeaderBytes;
  e.buffer = std::move(buf);
  if (m.extract(SYS_FD, fd)) e.fd.reset(static_cast<int>(fd));
  ++txCount;
  txBytes += e.remaining;
  checkScheduleDispatchQueue();
  if (txBytes > kFlushBytes - 1) writeFlush(true);
  return true;
}

// Up to kMaxIov entries, oldest first, ending after the first one that
// passes a descriptor: a descriptor always travels with the last bytes of a
// send, and never two in one send.
unsigned int Looper::gatherWrite(iovec* iov, int* fd) {
  unsigned int n = 0;
  *fd = -1;
  for (WriteEntry& e : txList) {
    if (n == kMaxIov) break;
    iov[n++] = iovec{e.pos, e.remaining};
    if (e.fd.valid()) {
      *fd = e.fd.get();
      break;
    }
  }
  return n;
}

void Looper::consumeWritten(unsigned int n) {
  while (n > 0 && !txList.empty()) {
    WriteEntry& e = txList.front();
    if (n < e.remaining) {
      e.pos += n;
      e.remaining -= n;
      txBytes -= n;
      return;
    }
    n -= e.remaining;
    txBytes -= e.remaining;
    --txCount;
    txList.pop_front();  // closes the passed descriptor: it is the receiver's now
  }
}

void Looper::writeFlush(bool block) {
  std::array<iovec, kMaxIov> iov;
  while (txCount > 0) {
    int fd;
    msghdr msg{};
    msg.msg_iov = iov.data();
    msg.msg_iovlen = gatherWrite(iov.data(), &fd);
    FdControl control;
    kr::attachFd(msg, control, fd);
    // MSG_NOSIGNAL: a loader that is gone is reported below, not by SIGPIPE.
    const ssize_t sent = sendmsg(sock.get(), &msg, MSG_NOSIGNAL);
    if (sent > 0) {
      consumeWritten(static_cast<unsigned int>(sent));
      continue;
    }
    if (sent == 0) fatal("LOOPER: writeFlush write failed: EOF");
    if (errno == EINTR) continue;
    if (errno != EAGAIN && errno != EWOULDBLOCK)
      fatal("LOOPER: writeFlush write failed: " + std::to_string(sent) + ", errno: " + std::to_string(errno));
    if (!block) return;
    pollfd p{sock.get(), POLLOUT, 0};
    poll(&p, 1, -1);
  }
}

// ---- Reading ---------------------------------------------------------------------------

namespace {

// Moves a descriptor that came with the bytes into *fd.
void takePassedFd(msghdr& msg, int* fd) {
  cmsghdr* c = CMSG_FIRSTHDR(&msg);
  if (!c || msg.msg_controllen < CMSG_LEN(sizeof(int)) || c->cmsg_len != CMSG_LEN(sizeof(int)) ||
      c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS)
    return;
  int received;
  std::memcpy(&received, CMSG_DATA(c), sizeof received);
  if (*fd != -1) {
    std::cout << "WARNING: received double fd" << std::endl;
    close(*fd);
  }
  *fd = received;
}

// Waits for input on fd: true when there is some, false when `ticks` (from
// *start, set at the first wait) are used up. Negative ticks: no limit.
bool waitReadable(int fd, int ticks, bool* waiting, unsigned int* start) {
  int timeoutMs = -1;
  if (ticks >= 0) {
    if (!*waiting) *start = getJiffies();
    *waiting = true;
    const unsigned int elapsed = getJiffies() - *start;
    const long long left = elapsed >= static_cast<unsigned int>(ticks) ? 0 : ticks - static_cast<long long>(elapsed);
    timeoutMs = static_cast<int>(std::min<long long>(left * 10, INT_MAX));
  }
  for (;;) {
    pollfd p{fd, POLLIN, 0};
    const int r = poll(&p, 1, timeoutMs);
    if (r > 0) return true;
    if (r == 0) return false;
    if (errno != EINTR) fatal("LOOPER:: read_raw pool failed: errno=" + std::to_string(errno));
  }
}

}  // namespace

unsigned int Looper::readRaw(unsigned char* dst, unsigned int min, unsigned int max, int ticks, int* fd) {
  unsigned int got = 0;
  bool waiting = false;
  unsigned int start = 0;
  while (got < min) {
    iovec iov{dst + got, max - got};
    FdControl control;
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control.buf;
    msg.msg_controllen = sizeof control.buf;
    const ssize_t n = recvmsg(sock.get(), &msg, 0);
    if (n > 0) {
      got += static_cast<unsigned int>(n);
      takePassedFd(msg, fd);
      ticks = -1;  // the rest of what was started comes without a limit
      continue;
    }
    if (n == 0) fatal("LOOPER: read_raw read failed: EOF");
    if (errno == EINTR) continue;
    if (errno != EAGAIN && errno != EWOULDBLOCK)
      fatal("LOOPER: read_raw read failed: " + std::to_string(n) + ", errno: " + std::to_string(errno));
    if (ticks == 0) return 0;
    if (!waitReadable(sock.get(), ticks, &waiting, &start)) return 0;
  }
  if (verbose > 0) std::cout << "rx bytes " << got << std::endl;
  return got;
}

unsigned int Looper::readIntoBuffer(unsigned int min, int ticks) {
  int fd = rxFd.release();
  const unsigned int n =
      readRaw(rxEnd, min, static_cast<unsigned int>(rxBuf + kRxBufSize - rxEnd), ticks, &fd);
  rxFd.reset(fd);
  rxEnd += n;
  return n;
}

void Looper::compactRx() {
  const size_t n = static_cast<size_t>(rxEnd - rxStart);
  if (rxStart != rxBuf) std::memmove(rxBuf, rxStart, n);
  rxStart = rxBuf;
  rxEnd = rxBuf + n;
}

unsigned int Looper::buffered() const { return static_cast<unsigned int>(rxEnd - rxStart); }

bool Looper::wholeFrameBuffered() const {
  return buffered() >= kFrameHeaderBytes && buffered() - kFrameHeaderBytes >= getFrameLength(rxStart);
}

// A frame longer than rxBuf gets a buffer of its own; the bytes buffered
// so far are its beginning.
void Looper::readLargeFrame(message& out, unsigned int length) {
  std::vector<unsigned char> body(length);
  const unsigned int have = buffered() - kFrameHeaderBytes;
  std::memcpy(body.data(), rxStart + kFrameHeaderBytes, have);
  int fd = rxFd.release();
  readRaw(body.data() + have, length - have, length - have, -1, &fd);
  rxFd.reset(fd);
  out.unflatten(body.data(), length);
  rxStart = rxEnd = rxBuf;
}

bool Looper::readMessage(message& out, int ticks, bool block) {
  while (buffered() < kFrameHeaderBytes) {
    if (!block) return false;
    compactRx();
    readIntoBuffer(kFrameHeaderBytes - buffered(), ticks);
    if (buffered() < kFrameHeaderBytes) return false;
  }
  const unsigned int length = getFrameLength(rxStart);
  // Nothing bigger is ever sent; a stream that says otherwise is unusable.
  if (length > kMaxFrameBody) fatal("LOOPER: read_raw read failed: frame length " + std::to_string(length));
  const unsigned int frame = length + kFrameHeaderBytes;
  out = message();
  int fd = -1;
  if (buffered() < frame) {
    if (!block) return false;
    fd = rxFd.release();  // it came with the beginning of this frame
    if (frame > kRxBufSize) {
      readLargeFrame(out, length);
    } else {
      compactRx();
      readIntoBuffer(frame - buffered(), -1);
      consumeFrame(out, length);
      if (buffered() == 0 && rxFd.valid()) {
        std::cout << "WARNING: received double fd" << std::endl;
        rxFd.reset();
      }
    }
  } else {
    consumeFrame(out, length);
    // A descriptor belongs to the message whose frame ends the bytes it came with.
    if (buffered() == 0) fd = rxFd.release();
  }
  attachFd(out, fd);
  if (verbose > 0) {
    std::cout << "rx (" << length << " bytes): ";
    out.dump2(std::cout);
  }
  checkScheduleDispatchQueue();
  return true;
}

void Looper::consumeFrame(message& out, unsigned int length) {
  out.unflatten(rxStart + kFrameHeaderBytes, length);
  rxStart += length + kFrameHeaderBytes;
  if (rxStart == rxEnd) rxStart = rxEnd = rxBuf;
}

// Only a descriptor that really came with the message may be named by it.
void Looper::attachFd(message& m, int fd) {
  if (fd >= 0) m.insert(SYS_FD, static_cast<unsigned int>(fd));
  else m.remove(SYS_FD);
}

message Looper::getMessage(int ticks) {
  if (!queue.empty()) {
    message m = std::move(queue.front());
    queue.pop_front();
    --queueLen;
    return m;
  }
  message m;
  if (!readMessage(m, ticks, true)) return errorMsg(ERROR_TIMEOUT, "timeout");
  unsigned int code;
  if (isCtrl(m, &code)) {
    char text[40];
    std::snprintf(text, sizeof text, "control message (%d)", static_cast<int>(code));
    return errorMsg(ERROR_FAILED, text);
  }
  return m;
}

// ---- Synchronous exchanges ------------------------------------------------------------------

message Looper::exchangeMessage(message& m, int ticks) {
  if (m.size(SYS_TO) == 0) return errorMsg(ERROR_FAILED, "bad_message");
  const std::vector<unsigned int> from = path(m, SYS_FROM);
  unsigned int reqId;
  // Waiting for the answer to a request that never left would never end.
  if (!requestMessage(m, &reqId)) return errorMsg(ERROR_FAILED, "bad_message");
  writeFlush(true);
  // 0 and negative ticks both wait without limit.
  const bool limited = ticks > 0;
  int remaining = ticks;
  unsigned int start = getJiffies();
  bool spilled = false;
  for (;;) {
    message r;
    if (readMessage(r, limited ? remaining : -1, true)) {
      unsigned int code, rid;
      if (isCtrl(r, &code) && code == CTRL_LEAVE) {
        sendCtrl(CTRL_CANTLEAVE);  // no leaving in the middle of a synchronous wait
      } else if (isReply(r) && getRequestID(r, &rid) && rid == reqId && path(r, SYS_TO) == from) {
        return r;
      } else if (!queueMessage(r) && !spilled) {
        spilled = true;
        std::cout << "exchangeMessage: queue spill  during exchange of:" << std::endl;
        m.dump2(std::cout);
      }
    }
    if (!limited) continue;
    const unsigned int now = getJiffies(), elapsed = now - start;
    if (elapsed >= static_cast<unsigned int>(remaining)) return errorMsg(ERROR_TIMEOUT, "");
    remaining -= static_cast<int>(elapsed);
    start = now;
  }
}

void Looper::ensure(unsigned int hid) {
  message m;
  m.insert_vector(SYS_TO, hid);
  m.insert(SYS_CMD, CMD_NOOP);
  exchangeMessage(m, -1);
}

int Looper::getTimezone() {
  if (timezone != -1) return timezone;
  // Later changes come as notifications (handleCmd).
  message s;
  s.insert_vector(SYS_TO, HANDLER_TIME, 0);
  s.insert(SYS_CMD, CMD_SUBSCRIBE);
  s.insert(SYS_NOTIFYCMD, kTimezoneNotify);
  sendMessage(s);
  message q;
  q.insert(SYS_CMD, CMD_GET);
  q.insert_vector(SYS_TO, HANDLER_TIME, 0);
  const message r = exchangeMessage(q, kTimezoneTicks);
  timezone = isError(r, nullptr, nullptr) ? 0 : static_cast<int>(r.get(kTimezoneOffset));
  return timezone;
}

time_t Looper::getLocaltime() { return getTimezone() + time(nullptr); }

// ---- Dispatch ---------------------------------------------------------------------------------

bool Looper::filterMessage(const message&) { return false; }

void Looper::checkScheduleDispatchQueue() {
  if (dispatchTimer.active()) return;
  if (queue.empty() && txList.empty() && !wholeFrameBuffered()) return;
  dispatchTimer = Timer(0, kr::bind<&Looper::dispatchQueue>(this));
}

// A control message goes to handleCtrl; *stop tells whether the loop stops.
bool Looper::takeControl(const message& m, bool* stop) {
  unsigned int code;
  if (!isCtrl(m, &code)) return false;
  *stop = handleCtrl(code);
  return true;
}

void Looper::dispatchQueue() {
  for (;;) {
    message m;
    if (!queue.empty()) {
      m = std::move(queue.front());
      queue.pop_front();
      --queueLen;
      if (!filterMessage(m)) dispatchMessage(m);
      continue;
    }
    if (!readMessage(m, 0, false)) {
      writeFlush(true);
      checkScheduleDispatchQueue();
      return;
    }
    bool stop = false;
    if (takeControl(m, &stop)) {
      if (!stop) continue;
      checkScheduleDispatchQueue();
      return;
    }
    if (!filterMessage(m)) dispatchMessage(m);
  }
}

void Looper::onMsgSock(int, unsigned int) {
  for (;;) {
    message m;
    if (!readMessage(m, 0, true)) return;
    bool stop = false;
    if (takeControl(m, &stop)) {
      if (stop) return;
      continue;
    }
    if (filterMessage(m)) continue;
    // Replies are cheap and someone waits for them; anything else waits
    // for the dispatch pass after the first one.
    const bool reply = isReply(m);
    dispatchMessage(m);
    if (!reply) return;
  }
}

void Looper::dispatchMessage(message& m) {
  CrashFrame frame("virtual void kr::Looper::dispatchMessage(kr::message&)");
  std::vector<unsigned int> to = path(m, SYS_TO);
  Handler* h = this;
  if (!to.empty()) {
    if (Handler* found = findHandler(to.front())) {
      h = found;
      to.erase(to.begin());
      m.insert(SYS_TO, to);
    }
  }
  if (!to.empty() && h->strictPath) brokenPath(h, m);
  else h->handle(m);
}

// The rest of the path leads nowhere: a request is answered, an unsolicited
// message gets an unsolicited error, a broken-path error is dropped (so two
// processes never bounce errors at each other).
void Looper::brokenPath(Handler* h, message& m) {
  unsigned int code;
  if (isError(m, &code, nullptr) && code == ERROR_BRKPATH) return;
  if (isReplyExpected(m)) h->replyError(m, ERROR_BRKPATH, "");
  else h->sendBrkpath(m);
}

// ---- Control and leaving -----------------------------------------------------------------------

void Looper::sendCtrl(unsigned int code) {
  message m;
  m.insert_vector(SYS_TO, HANDLER_LOADER);
  m.insert(SYS_CTRL, code);
  sendMessage(m);
  writeFlush(true);
}

void Looper::sendCtrl(unsigned int code, unsigned int arg) {
  message m;
  m.insert_vector(SYS_TO, HANDLER_LOADER);
  m.insert(SYS_CTRL, code);
  m.insert(SYS_CTRL_ARG, arg);
  sendMessage(m);
  writeFlush(true);
}

bool Looper::handleCtrl(unsigned int code) {
  if (code != CTRL_LEAVE) return false;
  if (!canLeave()) {
    sendCtrl(CTRL_CANTLEAVE);
    return false;
  }
  message data;
  savePermData(data);
  if (!data.empty()) {
    std::vector<unsigned char> flat;
    data.flatten(flat);
    message m;
    m.insert_vector(SYS_TO, HANDLER_LOADER);
    m.insert(SYS_CTRL, CTRL_LEAVING);
    m.insert(SYS_CTRL_ARG, 1);
    m.insert(LEAVE_PERMDATA, std::move(flat));
    sendMessage(m);
    writeFlush(true);
  }
  stopped = true;
  return true;
}

bool Looper::canLeave() { return leaveValue != 0 && leaveBlocks == 0; }

void Looper::setupLeave(unsigned int value) {
  if (value == leaveValue) return;
  leaveValue = value;
  if (leaveBlocks == 0) sendCtrl(CTRL_LEAVESETTING, value);
}

void Looper::blockLeave() {
  if (leaveBlocks++ == 0 && leaveValue != 0) sendCtrl(CTRL_LEAVESETTING, 0);
}

void Looper::unblockLeave() {
  if (--leaveBlocks == 0 && leaveValue != 0) sendCtrl(CTRL_LEAVESETTING, leaveValue);
}

void Looper::tellLeave() { sendCtrl(CTRL_TELLLEAVE); }

// ---- Running -------------------------------------------------------------------------------------

void Looper::onFirstRun() {}

// onFirstRun() once per boot: the marker lives in the runtime directory,
// which does not survive a reboot.
void Looper::markFirstRun() {
  const std::string marker = runMarkerPath(programName());
  struct stat st;
  if (stat(marker.c_str(), &st) == 0) return;
  onFirstRun();
  const int fd = open(marker.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  if (fd >= 0) close(fd);
}

void Looper::run() {
  markFirstRun();
  sendCtrl(CTRL_RUNNING);
  auto it = permData.find(kSelf);
  if (it != permData.end()) {
    const message own = std::move(it->second);
    permData.erase(it);
    Handler::loadPermData(own);
  }
  unblockLeave();  // the block the Looper was born with; announces the leave value
  ThinRunner::run();
}

}  // namespace kr
