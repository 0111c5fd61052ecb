// kr/bus/loader_protocol.h: the wire between a process's kr::Looper and the
// loader, shared by the library and by the programs that speak the loader's
// side (the loader itself, test doubles).
//
// The bus socket is a local stream socket. Both directions carry frames: a
// 4-byte big-endian length L (below 65536), then L bytes of a flat message
// (kr/message/message.h). A descriptor may travel as SCM_RIGHTS with the
// bytes of the message it belongs to; inside a process it is field SYS_FD
// of that message, and a SYS_FD that arrives without a descriptor is
// removed, so a peer can never name one of our descriptors.
//
//   unsigned char head[kFrameHeaderBytes];
//   putFrameLength(head, bodyLength);
//   ... write head, then the body ...
//
// Control messages carry SYS_CTRL (and SYS_CTRL_ARG), always addressed to
// the loader, SYS_TO = [HANDLER_LOADER]. Plain constants; no threads.
#pragma once

#include <cstdint>

#include "kr/message/message.h"

namespace kr {

inline constexpr unsigned int kFrameHeaderBytes = 4;
// The largest body a frame can carry.
inline constexpr unsigned int kMaxFrameBody = 65535;

// A descriptor passed with the message (u32, the descriptor's number in the
// receiving process).
inline constexpr u32_id SYS_FD{0xFF0015};

// Values of SYS_CTRL.
enum LoaderCtrl : unsigned int {
  CTRL_LEAVE = 1,          // loader -> process: please leave
  CTRL_LEAVING = 2,        // process -> loader: leaving; SYS_CTRL_ARG 1, persistent data in LEAVE_PERMDATA
  CTRL_CANTLEAVE = 3,      // process -> loader: cannot leave now
  CTRL_TELLLEAVE = 4,      // process -> loader: please stop me
  CTRL_HELLO = 5,          // process -> loader: registration numbers in HELLO_NUMBERS
  CTRL_RUNNING = 6,        // process -> loader: the loop is running
  CTRL_LEAVESETTING = 7,   // process -> loader: SYS_CTRL_ARG = leave value, 0 while blocked
  CTRL_READY = 8,          // loader -> process: answer to the hello
};

// The hello: the twelve registration numbers, in order.
inline constexpr u32_array_id HELLO_NUMBERS{1};
// The ready message: u32 ids 1, 2, 3, 6, 8 and u64 id 7 are the loader's
// values (kr::Looper::ReadyInfo); these two are nested messages.
inline constexpr message_id READY_PERMDATA{4};  // persistent data of the process
inline constexpr message_id READY_SEED{5};      // kept as kr::Looper's seed message
// In the seed message: u32 array 1 (its first element seeds the table) and
// the 256-byte table the Looper derives from it.
inline constexpr u32_array_id SEED_VALUES{1};
inline constexpr raw_id SEED_TABLE{2};
// Persistent data of the process: handler ids and, at the same index, the
// data of each handler.
inline constexpr u32_array_id PERM_IDS{2};
inline constexpr message_array_id PERM_DATA{3};
// CTRL_LEAVING: the flat form of the persistent data.
inline constexpr raw_id LEAVE_PERMDATA{4};

inline uint32_t getFrameLength(const unsigned char* p) {
  return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | uint32_t{p[3]};
}
inline void putFrameLength(unsigned char* p, uint32_t length) {
  p[0] = static_cast<unsigned char>(length >> 24);
  p[1] = static_cast<unsigned char>(length >> 16);
  p[2] = static_cast<unsigned char>(length >> 8);
  p[3] = static_cast<unsigned char>(length);
}

}  // namespace kr
