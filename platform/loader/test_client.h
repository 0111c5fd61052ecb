// Test helpers for the loader: a raw bus client on plain sockets (its own
// small frame writer and reader, independent of the loader's codec), a
// kr-loader child process in a scratch runtime directory, and that
// directory. Shared by the end-to-end tests and the test daemon; no
// GoogleTest here. Every wait is bounded: `timeoutMs` limits each wait for
// bytes (negative: no limit, for the test daemon).
#pragma once

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "kr/testing/child_process.h"
#include "kr/util/fd_passing.h"
#include "kr/message/message.h"
#include "kr/message/protocol.h"
#include "kr/message/vocabulary.h"
#include "platform/loader/protocol.h"

namespace kr::loader::testing {

// All of `bytes`, with `fd` (unless -1) as SCM_RIGHTS on the first sendmsg().
inline bool writeAll(int sock, const std::vector<unsigned char>& bytes, int fd = -1) {
  for (size_t done = 0; done < bytes.size();) {
    iovec iov{const_cast<unsigned char*>(bytes.data()) + done, bytes.size() - done};
    FdControl control;
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    if (done == 0) attachFd(msg, control, fd);
    const ssize_t n = sendmsg(sock, &msg, MSG_NOSIGNAL);
    if (n <= 0) return false;
    done += size_t(n);
  }
  return true;
}

inline std::vector<unsigned char> frameOf(const message& m) {
  std::vector<unsigned char> body;
  m.flatten(body);
  std::vector<unsigned char> out(4 + body.size());
  for (int i = 0; i < 4; ++i) out[i] = uint8_t(body.size() >> (24 - 8 * i));
  std::memcpy(out.data() + 4, body.data(), body.size());
  return out;
}

// Frames from one socket; a received descriptor goes with the frame in
// progress when the bytes that came with it end.
class FrameIn {
 public:
  // The next message and its descriptor (-1: none; closed when `fd` is
  // null). False on time-out, end of stream or a body that does not parse.
  bool read(int sock, message* m, int timeoutMs, int* fd) {
    while (buf_.size() < 4 || buf_.size() < 4 + length()) {
      pollfd p{sock, POLLIN, 0};
      if (poll(&p, 1, timeoutMs) <= 0 || !receive(sock)) return false;
    }
    const size_t end = 4 + length();
    *m = message();
    const bool ok = m->unflatten(buf_.data() + 4, unsigned(end - 4));
    buf_.erase(buf_.begin(), buf_.begin() + long(end));
    const int taken = fd_ >= 0 && end >= fdAt_ ? std::exchange(fd_, -1) : -1;
    fdAt_ = fd_ >= 0 ? fdAt_ - end : 0;
    if (fd) *fd = taken;
    else if (taken >= 0) close(taken);
    return ok;
  }

 private:
  size_t length() const { return size_t(buf_[0]) << 24 | size_t(buf_[1]) << 16 | size_t(buf_[2]) << 8 | buf_[3]; }
  bool receive(int sock) {
    unsigned char chunk[65536];
    iovec iov{chunk, sizeof chunk};
    alignas(cmsghdr) unsigned char control[CMSG_SPACE(sizeof(int))];
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    const ssize_t n = recvmsg(sock, &msg, MSG_CMSG_CLOEXEC);
    if (n <= 0) return false;
    buf_.insert(buf_.end(), chunk, chunk + n);
    if (cmsghdr* c = CMSG_FIRSTHDR(&msg); c && c->cmsg_type == SCM_RIGHTS) {
      std::memcpy(&fd_, CMSG_DATA(c), sizeof fd_);
      fdAt_ = buf_.size();
    }
    return true;
  }

  std::vector<unsigned char> buf_;
  int fd_ = -1;
  size_t fdAt_ = 0;  // where the chunk that brought fd_ ended in buf_
};

inline message control(uint32_t code) {
  message m;
  m.insert_vector(SYS_TO, kLoaderAddress);
  m.insert(SYS_CTRL, code);
  return m;
}

inline message hello(uint32_t address) {
  message m = control(kCtrlHello);
  std::vector<unsigned int> numbers(kRegistrationNumbers, 0);
  numbers[0] = address;
  m.insert(kHelloNumbers, numbers);
  return m;
}

// A connection to the loader, as a daemon or a tool makes one.
class Client {
 public:
  // Connects to `path`, retrying for up to 2 s while the loader starts.
  explicit Client(const std::string& path) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    for (int i = 0; i < 200 && sock_ < 0; ++i) {
      sock_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
      if (connect(sock_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) break;
      close();
      usleep(10000);
    }
  }
  explicit Client(int sock) : sock_(sock) {}  // an inherited connection
  ~Client() { close(); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  bool send(const message& m, int fd = -1) { return writeAll(sock_, frameOf(m), fd); }
  bool sendRaw(const std::vector<unsigned char>& bytes) { return writeAll(sock_, bytes); }
  bool recv(message* m, int timeoutMs = 2000, int* fd = nullptr) { return in_.read(sock_, m, timeoutMs, fd); }
  // The next message for which pred(m) holds, skipping up to 1000 others.
  template <class Pred>
  bool recvUntil(message* m, Pred pred) {
    for (int i = 0; i < 1000; ++i) {
      if (!recv(m)) return false;
      if (pred(*m)) return true;
    }
    return false;
  }
  // Says hello for `address`; the ready message, or an empty one.
  message join(uint32_t address) {
    message ready;
    return send(hello(address)) && recv(&ready) ? ready : message();
  }
  // Whether the loader ends the connection (within 2 s of the last message).
  bool closedByPeer() {
    message m;
    while (recv(&m)) {
    }
    char c;
    pollfd p{sock_, POLLIN, 0};
    return poll(&p, 1, 0) == 1 && ::recv(sock_, &c, 1, MSG_DONTWAIT) == 0;
  }
  void close() {
    if (sock_ >= 0) ::close(sock_);
    sock_ = -1;
  }

 private:
  int sock_ = -1;
  FrameIn in_;
};

// Nothing is waiting for `c`: the answer to a NOOP sent to the loader now
// is the next message it gets.
inline bool quiet(Client& c) {
  message noop;
  noop.insert_vector(SYS_TO, kLoaderAddress);
  setRequestID(noop, 777);
  message m;
  return c.send(noop) && c.recv(&m) && isReply(m) && m.get(SYS_REQID) == 777;
}

// A scratch directory, removed with everything in it.
struct TempDir {
  std::string path;
  TempDir() {
    char tmpl[] = "/tmp/kr-loader-test.XXXXXX";
    path = mkdtemp(tmpl) ? tmpl : "";
  }
  ~TempDir() {
    std::error_code ec;
    if (!path.empty()) std::filesystem::remove_all(path, ec);
  }
};

// kr-loader with KR_RUNTIME_DIR = `dir`, `config` in dir/loader.conf and
// its standard error in dir/loader.log. A test that dies takes its loader
// along: SIGTERM, so that the loader stops its daemons too.
class LoaderProcess : public ::kr::testing::ChildProcess {
 public:
  LoaderProcess(const std::string& binary, const std::string& dir, const std::string& config)
      : ChildProcess(binary, {"--config", configFile(dir, config)},
                     {.runtimeDir = dir, .err = dir + "/loader.log", .deathSignal = SIGTERM}),
        dir_(dir) {}
  ~LoaderProcess() {
    if (pid() > 0) stop();  // one that does not end in time is killed by ~ChildProcess
  }
  std::string socketPath() const { return dir_ + "/korasock"; }
  // SIGTERM; the exit status within the time, or -1.
  int stop(int timeoutMs = 5000) { return ChildProcess::stop(timeoutMs); }
  std::string log() const { return err(); }

 private:
  // Writes `config` to dir/loader.conf (before the fork); that path.
  static std::string configFile(const std::string& dir, const std::string& config) {
    std::ofstream(dir + "/loader.conf") << config;
    return dir + "/loader.conf";
  }

  std::string dir_;
};

}  // namespace kr::loader::testing
