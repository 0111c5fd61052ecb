// kr::UniqueFd: the one owner of a file descriptor.
//
// Every descriptor that changes hands (a listening or bus socket, a
// descriptor passed along with a message, a queue entry) lives in one of
// these, so that dropping its holder closes exactly what it owned, once.
//
//   UniqueFd fd(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
//   if (!fd) return;              // accept failed
//   send(fd.get(), ...);          // closed when fd goes
//
// Move-only. -1 means "none".
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <utility>

namespace kr {

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& o) noexcept : fd_(o.release()) {}
  UniqueFd& operator=(UniqueFd&& o) noexcept {
    reset(o.release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { reset(); }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  bool valid() const { return fd_ >= 0; }

  // Gives the descriptor up without closing it.
  int release() { return std::exchange(fd_, -1); }
  // Closes the held descriptor (if any) and takes `fd`.
  void reset(int fd = -1) {
    const int old = std::exchange(fd_, fd);
    if (old >= 0) ::close(old);
  }
  // A second descriptor for the same open file (close-on-exec), or none
  // when this one is empty or the process is out of descriptors.
  UniqueFd duplicate() const { return UniqueFd(fd_ < 0 ? -1 : fcntl(fd_, F_DUPFD_CLOEXEC, 0)); }

 private:
  int fd_ = -1;
};

}  // namespace kr
