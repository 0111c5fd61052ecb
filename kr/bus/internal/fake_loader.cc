#include "kr/bus/internal/fake_loader.h"

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <thread>

#include "kr/bus/loader_protocol.h"
#include "kr/message/protocol.h"
#include "kr/message/vocabulary.h"
#include "kr/util/runtime_dir.h"
#include "kr/util/fd_passing.h"

namespace kr::internal {

bool fdOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

std::set<int> openFds() {
  std::set<int> fds;
  std::error_code ec;
  for (const auto& e : std::filesystem::directory_iterator("/proc/self/fd", ec))
    fds.insert(std::atoi(e.path().filename().c_str()));
  // The directory's own descriptor is gone by now.
  std::set<int> open;
  for (int fd : fds)
    if (fdOpen(fd)) open.insert(fd);
  return open;
}

// ---- FakeLoader -------------------------------------------------------------------

namespace {
// Keeps descriptor 3 free for the process's end.
int above3(int fd) {
  if (fd < 0 || fd > 3) return fd;
  const int moved = fcntl(fd, F_DUPFD_CLOEXEC, 10);
  close(fd);
  return moved;
}
}  // namespace

FakeLoader::FakeLoader() {
  int sv[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) == 0) {
    loader_.reset(above3(sv[0]));
    process_.reset(above3(sv[1]));
  }
}

int parkFd3() { return fdOpen(3) ? above3(3) : -1; }

FakeLoader::~FakeLoader() {
  detach();
  if (parked3_.valid()) {
    dup2(parked3_.get(), 3);
    fcntl(3, F_SETFD, parked3Flags_);
  }
}

bool FakeLoader::installAsFd3() {
  if (!process_.valid()) return false;
  if (fdOpen(3)) {
    parked3Flags_ = fcntl(3, F_GETFD);
    parked3_.reset(parkFd3());
  }
  if (dup2(process_.get(), 3) != 3) return false;
  process_.reset();
  return true;
}

bool FakeLoader::sendBytes(const unsigned char* p, size_t n, int fd) {
  while (n > 0) {
    iovec iov{const_cast<unsigned char*>(p), n};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    FdControl control;
    attachFd(msg, control, fd);
    const ssize_t w = sendmsg(loader_.get(), &msg, MSG_NOSIGNAL);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) return false;
    p += w;
    n -= static_cast<size_t>(w);
    fd = -1;  // the descriptor went with the first part
  }
  return true;
}

bool FakeLoader::sendBody(const std::vector<unsigned char>& body, int fd) {
  std::vector<unsigned char> frame(kFrameHeaderBytes + body.size());
  putFrameLength(frame.data(), static_cast<uint32_t>(body.size()));
  if (!body.empty()) std::memcpy(frame.data() + kFrameHeaderBytes, body.data(), body.size());
  return sendBytes(frame.data(), frame.size(), fd);
}

std::vector<unsigned char> FakeLoader::frameOf(const message& m) {
  std::vector<unsigned char> body;
  m.flatten(body);
  std::vector<unsigned char> frame(kFrameHeaderBytes + body.size());
  putFrameLength(frame.data(), static_cast<uint32_t>(body.size()));
  if (!body.empty()) std::memcpy(frame.data() + kFrameHeaderBytes, body.data(), body.size());
  return frame;
}

bool FakeLoader::send(const message& m, int fd) {
  const std::vector<unsigned char> frame = frameOf(m);
  return sendBytes(frame.data(), frame.size(), fd);
}

bool FakeLoader::sendReady(const message& extra) {
  message m = extra;
  m.insert(SYS_CTRL, CTRL_READY);
  return send(m);
}

bool FakeLoader::sendCtrl(unsigned int code) {
  message m;
  m.insert(SYS_CTRL, code);
  return send(m);
}

size_t FakeLoader::pump() {
  size_t added = 0;
  for (;;) {
    unsigned char buf[4096];
    iovec iov{buf, sizeof buf};
    union {
      cmsghdr align;
      char buf[CMSG_SPACE(sizeof(int))];
    } control;
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control.buf;
    msg.msg_controllen = sizeof control.buf;
    const ssize_t n = recvmsg(loader_.get(), &msg, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (n <= 0) break;
    rx_.insert(rx_.end(), buf, buf + n);
    received_ += static_cast<unsigned long long>(n);
    cmsghdr* c = CMSG_FIRSTHDR(&msg);
    if (c && c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_RIGHTS) {
      int fd;
      std::memcpy(&fd, CMSG_DATA(c), sizeof fd);
      pendingFd_.reset(fd);
      pendingFdAt_ = received_;
    }
  }
  // Whole frames; a descriptor goes with the frame that ends the bytes it
  // came with.
  size_t pos = 0;
  unsigned long long offset = received_ - rx_.size();
  while (rx_.size() - pos >= kFrameHeaderBytes) {
    const uint32_t length = getFrameLength(rx_.data() + pos);
    if (rx_.size() - pos - kFrameHeaderBytes < length) break;
    Frame f;
    f.bytes.assign(rx_.begin() + static_cast<long>(pos + kFrameHeaderBytes),
                   rx_.begin() + static_cast<long>(pos + kFrameHeaderBytes + length));
    f.m = message(f.bytes);
    pos += kFrameHeaderBytes + length;
    offset += kFrameHeaderBytes + length;
    if (pendingFd_.valid() && offset >= pendingFdAt_) f.fd = std::move(pendingFd_);
    frames.push_back(std::move(f));
    ++added;
  }
  rx_.erase(rx_.begin(), rx_.begin() + static_cast<long>(pos));
  return added;
}

FakeLoader::Frame FakeLoader::take() {
  if (frames.empty()) return Frame{};
  Frame f = std::move(frames.front());
  frames.pop_front();
  return f;
}

int FakeLoader::nextCtrl(unsigned int* arg) {
  while (!frames.empty()) {
    Frame f = take();
    unsigned int code;
    if (!isCtrl(f.m, &code)) continue;
    if (arg) *arg = f.m.get(SYS_CTRL_ARG);
    return static_cast<int>(code);
  }
  return -1;
}

void FakeLoader::attach(ThinRunner& loop, std::function<void(Frame&)> onFrame) {
  detach();
  onFrame_ = std::move(onFrame);
  attached_ = &loop;
  loop.addSocket(loader_.get(), POLLIN, kr::bind<&FakeLoader::onReadable>(this));
}

void FakeLoader::detach() {
  if (attached_) attached_->removeSocket(loader_.get());
  attached_ = nullptr;
}

void FakeLoader::onReadable(int, unsigned int) {
  pump();
  while (!frames.empty() && onFrame_) {
    Frame f = take();
    onFrame_(f);
  }
}

// ---- RuntimeDir ---------------------------------------------------------------------------

RuntimeDir::RuntimeDir() {
  char tmpl[] = "/tmp/kr-bus-XXXXXX";
  if (mkdtemp(tmpl)) path_ = tmpl;
  mkdir((path_ + "/run").c_str(), 0700);
  if (const char* old = getenv("KR_RUNTIME_DIR")) {
    saved_ = old;
    hadSaved_ = true;
  }
  setenv("KR_RUNTIME_DIR", path_.c_str(), 1);
}

RuntimeDir::~RuntimeDir() {
  if (hadSaved_) setenv("KR_RUNTIME_DIR", saved_.c_str(), 1);
  else unsetenv("KR_RUNTIME_DIR");
  std::error_code ec;
  if (!path_.empty()) std::filesystem::remove_all(path_, ec);
}

// ---- A loader on the socket path -----------------------------------------------------------

namespace {

// Reads one frame from a blocking socket (with a receive time-out).
bool readFrame(int fd, message* out) {
  unsigned char head[kFrameHeaderBytes];
  if (recv(fd, head, sizeof head, MSG_WAITALL) != static_cast<ssize_t>(sizeof head)) return false;
  std::vector<unsigned char> body(getFrameLength(head));
  if (recv(fd, body.data(), body.size(), MSG_WAITALL) != static_cast<ssize_t>(body.size())) return false;
  *out = message(body);
  return true;
}

}  // namespace

message answerHelloOnSocketPath(const std::function<void()>& connect) {
  UniqueFd listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, loaderSocketPath().c_str(), sizeof addr.sun_path - 1);
  if (bind(listener.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(listener.get(), 1) != 0)
    return message();
  message hello;
  std::thread loader([&] {
    pollfd p{listener.get(), POLLIN, 0};
    if (poll(&p, 1, 2000) != 1) return;
    UniqueFd c(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    timeval tv{2, 0};
    setsockopt(c.get(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    if (!readFrame(c.get(), &hello)) return;
    message ready;
    ready.insert(SYS_CTRL, CTRL_READY);
    const std::vector<unsigned char> frame = FakeLoader::frameOf(ready);
    send(c.get(), frame.data(), frame.size(), MSG_NOSIGNAL);
  });
  connect();
  loader.join();
  return hello;
}

// ---- BusHarness ----------------------------------------------------------------------------

bool BusHarness::waitFor(ThinRunner& loop, const std::function<bool()>& done, int ms) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  while (!done()) {
    if (std::chrono::steady_clock::now() > end) return false;
    loop.step(false);
    loader.pump();
    if (!done()) usleep(200);
  }
  return true;
}

bool BusHarness::settle(ThinRunner& loop, int ms) {
  return waitFor(loop, [&] { return loop.timerCount() == 0; }, ms);
}

}  // namespace kr::internal
