// The loader's side of the bus protocol, as constants: bus addresses,
// control codes, the fields of the hello, the ready message and the leave
// message, the monitor's command and events, and the policy bits the loader
// grants. The wire itself (framing, control codes, the fields a process
// reads) is the library's (kr/bus/loader_protocol.h); the names here are the
// loader's for the same values, plus what only the loader defines.
// docs/loader.md tells the whole protocol; the loader, its tests and its
// test daemon share this header.
#pragma once

#include <cstdint>

#include "kr/bus/loader_protocol.h"
#include "kr/message/message.h"
#include "kr/message/vocabulary.h"

namespace kr::loader {

// ---- Addresses: the first element of SYS_TO --------------------------------
inline constexpr uint32_t kLoaderAddress = HANDLER_LOADER;  // the loader itself
inline constexpr uint32_t kBroadcastAddress = 0xFF0001;  // every process but the sender
inline constexpr uint32_t kListAddress = 0xFF0002;       // a list of paths follows
inline constexpr uint32_t kSelfAddress = 0xFF0003;       // "this process"; never leaves it
// Fixed addresses, named in the hello; only a trusted peer may take one.
inline constexpr uint32_t kFixedFirst = 2;
inline constexpr uint32_t kFixedLast = 0xFFFF;
// Addresses the loader hands out to a hello that asks for address 0.
inline constexpr uint32_t kDynamicFirst = 0x10000;
inline constexpr uint32_t kDynamicLast = 0x1FFFF;

inline constexpr bool isFixedAddress(uint32_t a) { return a >= kFixedFirst && a <= kFixedLast; }
inline constexpr bool isDynamicAddress(uint32_t a) { return a >= kDynamicFirst && a <= kDynamicLast; }

// ---- Control codes (SYS_CTRL) ----------------------------------------------
enum Control : uint32_t {
  kCtrlLeave = CTRL_LEAVE,     // loader -> process: please leave
  kCtrlLeaving = CTRL_LEAVING,   // process -> loader: leaving; raw 4 = persistent data
  kCtrlRefuse = CTRL_CANTLEAVE,    // process -> loader: cannot leave now
  kCtrlStopMe = CTRL_TELLLEAVE,    // process -> loader: please stop me
  kCtrlHello = CTRL_HELLO,     // process -> loader: the twelve registration numbers
  kCtrlRunning = CTRL_RUNNING,   // process -> loader: its loop runs
  kCtrlLeaveSet = CTRL_LEAVESETTING,  // process -> loader: SYS_CTRL_ARG = leave value, 0 = blocked
  kCtrlReady = CTRL_READY,     // loader -> process: answer to the hello
  kCtrlCount = CTRL_READY + 1,
};

// ---- Fields ---------------------------------------------------------------------
// Hello: the registration numbers; the first is the bus address asked for
// (0 = give me one), the other eleven are reserved.
inline constexpr u32_array_id kHelloNumbers = HELLO_NUMBERS;
inline constexpr size_t kRegistrationNumbers = 12;
// Ready: the address the process holds, the policy bits it was granted,
// and the persistent data the loader kept for that address.
inline constexpr u32_id kReadyAddress{1};
inline constexpr u32_id kReadyPolicy{2};
inline constexpr message_id kReadyPermData = READY_PERMDATA;
// Leaving: the flat form of the persistent data to keep.
inline constexpr raw_id kLeavePermData = LEAVE_PERMDATA;
// A descriptor inside a process; on the wire only SCM_RIGHTS carries one,
// so the loader strips this field from every frame it forwards.
inline constexpr u32_id kDescriptorField = SYS_FD;

// ---- Monitor: a trusted peer watches what the loader delivers ------------------------
// Commands below 0xFE0000 are the handler's own, here the loader's.
// kMonitorCmd, a request to [1] from a trusted peer, makes its connection a
// monitor; every frame the loader then delivers to another process comes to
// the asker's SYS_FROM path as a kMonitorEvent.
inline constexpr uint32_t kMonitorCmd = 0x10001;
inline constexpr uint32_t kMonitorEvent = 0x10002;
inline constexpr u32_id kMonitorSender{1};       // the sender's address; 1 for the loader
inline constexpr u32_id kMonitorReceiver{2};     // the receiving process's address
inline constexpr message_id kMonitorFrame{3};    // the frame as delivered
inline constexpr u32_id kMonitorFrameLength{4};  // instead of 3 when it would not fit

// ---- Policy bits (SYS_POLICY) ------------------------------------------------------
inline constexpr uint32_t kPolicyAll = 0xFFFFFFFF;  // trusted
inline constexpr uint32_t kPolicyRead = 0x40;       // default for other peers

}  // namespace kr::loader
