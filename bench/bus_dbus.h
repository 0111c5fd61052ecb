// The D-Bus side of kr_bench_bus: the same roles as the kr side, written
// with libdbus-1's low-level API against a private dbus-daemon.
//
// Each role runs in its own forked process (see bus_harness.h), opens a
// private connection to `address`, registers with the bus (Hello) and
// reports "set up" through Shared::ready. Without libdbus at build time
// (KR_BENCH_HAVE_DBUS undefined) available() is false and no role may run.
#pragma once

#include <string>

#include "bench/bus_harness.h"

namespace busbench::dbus {

// The bus names and the interface every role uses.
inline constexpr const char* kEchoName = "org.kr.bench.Echo";
inline constexpr const char* kPublisherName = "org.kr.bench.Publisher";
inline constexpr const char* kPath = "/org/kr/bench";
inline constexpr const char* kInterface = "org.kr.bench";

// Whether the D-Bus side was built (libdbus-1 found by pkg-config).
bool available();

// Owns kEchoName and answers Echo(u32, s) with the same two values, until
// killed.
int echoServer(const std::string& address, Shared* shared);
// After the gate: Echo calls one at a time with
// dbus_connection_send_with_reply_and_block until the window ends; the
// round trips inside the window go to slot `slot`.
int requester(const std::string& address, Shared* shared, int slot, const Gate& gate);
// Owns kPublisherName; after the gate emits the signal Changed(u32, s) while
// it has credits (kWindow at start, given back by the subscriber's Ack
// calls) until the window ends. Slot `slot` counts the signals sent.
int publisher(const std::string& address, Shared* shared, int slot, const Gate& gate);
// Adds a match rule for Changed, counts the signals received inside the
// window in slot `slot` and calls Ack(u32 n) on the publisher (no reply
// expected) every kAckEvery signals, until killed.
int subscriber(const std::string& address, Shared* shared, int slot);
// Connects, registers and stays until the gate opens (the memory test).
int idleClient(const std::string& address, Shared* shared, const Gate& gate);

}  // namespace busbench::dbus
