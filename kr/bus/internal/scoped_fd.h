// kr::internal::ScopedFd: the one owner of a file descriptor. Closing it is
// its destructor's job, so descriptors that change hands (passed with a bus
// message, waiting in the write queue) cannot leak or be closed twice.
// Event-loop thread only, like everything that holds one.
#pragma once

#include <unistd.h>

namespace kr::internal {

class ScopedFd {
 public:
  ScopedFd() = default;
  explicit ScopedFd(int fd) : fd_(fd) {}
  ScopedFd(ScopedFd&& o) noexcept : fd_(o.release()) {}
  ScopedFd& operator=(ScopedFd&& o) noexcept {
    if (this != &o) reset(o.release());
    return *this;
  }
  ScopedFd(const ScopedFd&) = delete;
  ScopedFd& operator=(const ScopedFd&) = delete;
  ~ScopedFd() { reset(); }

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  // Gives up ownership without closing; the caller now owns the result.
  int release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }
  // Closes the current descriptor (if any) and owns `fd` instead.
  void reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

}  // namespace kr::internal
