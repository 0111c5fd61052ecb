// Passing one descriptor with the bytes of a sendmsg(): the bus socket and
// the loader both send at most one SCM_RIGHTS descriptor per call, with the
// last bytes of the message it belongs to.
//
//   kr::FdControl control;
//   msghdr msg{};  ... iovecs ...
//   kr::attachFd(msg, control, fd);   // nothing for fd < 0
//   sendmsg(sock, &msg, MSG_NOSIGNAL);
//
// `control` must outlive the sendmsg() call. Plain functions; no state.
#pragma once

#include <sys/socket.h>

#include <cstring>

namespace kr {

// Room for the ancillary data of one descriptor, suitably aligned.
struct FdControl {
  alignas(cmsghdr) unsigned char buf[CMSG_SPACE(sizeof(int))] = {};
};

// Makes msg carry `fd` as SCM_RIGHTS, using control's storage. A negative
// fd leaves msg without ancillary data.
inline void attachFd(msghdr& msg, FdControl& control, int fd) {
  if (fd < 0) return;
  msg.msg_control = control.buf;
  msg.msg_controllen = sizeof control.buf;
  cmsghdr* c = CMSG_FIRSTHDR(&msg);
  c->cmsg_level = SOL_SOCKET;
  c->cmsg_type = SCM_RIGHTS;
  c->cmsg_len = CMSG_LEN(sizeof(int));
  std::memcpy(CMSG_DATA(c), &fd, sizeof fd);
}

}  // namespace kr
