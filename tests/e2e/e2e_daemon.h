// The commands of kr-e2e-daemon, shared by the daemon and the tests that
// drive it over the bus.
//
// The daemon registers the same test handler twice, under kHandlerA and
// kHandlerB, so that a test can set one up differently from the other (one
// with a subscriber, one without). A request is answered with the fields
// in braces below, or with an empty message where none are named; plain
// messages (no SYS_REQID) get no answer.
//
//   message q;
//   q.insert(kPayload, pattern(2000));
//   ... a request to [address, kHandlerA] with SYS_CMD = kEcho
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "kr/message/message.h"

namespace kr::e2e {

inline constexpr unsigned int kHandlerA = 7;
inline constexpr unsigned int kHandlerB = 8;

// Handler-local commands.
enum Command : unsigned int {
  kEcho = 0xFD0001,         // {kPid, kValue, kPayload}: kPayload echoed, or kSize pattern() bytes
  kSilent = 0xFD0002,       // never answered
  kForward = 0xFD0003,      // postMessage(kInner to kTarget, kTicks or no time-out) -> {kError, kReply}
  kExchange = 0xFD0004,     // the same through the blocking exchangeMessage(), kTicks required
  kTally = 0xFD0005,        // sent as a plain message: tallied, its kSeq remembered; no answer
  kStatus = 0xFD0006,       // what the handler has seen: the status fields below
  kChange = 0xFD0007,       // notifyChange() of kCount ids from kFirst, kRepeat times over;
                            // objects carry kVersion and kSize payload bytes
  kSubscribeTo = 0xFD0008,  // subscribe() to kTarget with filter {kTag}, and kCredits when given
  kSendFds = 0xFD0009,      // kCount kTakeFd messages to kTarget, with kSize payload bytes when
                            // given; those numbered in kFdAt carry the read end of a pipe
                            // holding fdText(number)
  kTakeFd = 0xFD000A,       // one of those (plain message, no answer)
  kLeave = 0xFD000B,        // asks the loader to stop this process (tellLeave)
};
// CMD_SET takes kValue; the value is the handler's persistent data.

// Arguments.
inline constexpr u32_id kValue{1};
inline constexpr raw_id kPayload{2};
inline constexpr u32_id kSize{3};
inline constexpr u32_array_id kTarget{4};
inline constexpr message_id kInner{5};
inline constexpr u32_id kTicks{6};
inline constexpr u32_id kSeq{7};
inline constexpr u32_id kFirst{8};
inline constexpr u32_id kCount{9};
inline constexpr u32_id kRepeat{10};
inline constexpr u32_id kCredits{11};
inline constexpr u32_array_id kFdAt{12};
// A publisher tells subscriptions apart by their filters alone (a repeated
// subscribe is harmless), so subscribers that are to count as two need
// filters that differ: this field of the filter does it.
inline constexpr u32_id kTag{13};
// Answers.
inline constexpr u32_id kPid{20};
inline constexpr u32_id kError{21};  // the error code of kReply, ERROR_OK for none
inline constexpr message_id kReply{22};
inline constexpr u32_id kVersion{23};  // of a notify object: how often it was changed
// kStatus.
inline constexpr u32_id kTallied{30};      // kTally messages handled
inline constexpr u32_id kLastSeq{31};      // the kSeq of the last of them
inline constexpr u32_array_id kSeqs{32};   // kTakeFd messages, in arrival order
inline constexpr string_array_id kTexts{33};  // what came through each one's descriptor ("" without)
inline constexpr u32_id kSubscribers{34};  // change subscribers of this handler
inline constexpr u32_id kPending{35};      // requests of this handler still waiting
inline constexpr u32_array_id kObjIds{36};       // notify objects received, in order
inline constexpr u32_array_id kObjVersions{37};  // and their kVersion

// The bytes of a payload of size n: a pattern that a shifted or truncated
// copy does not match.
inline std::vector<unsigned char> pattern(size_t n) {
  std::vector<unsigned char> p(n);
  for (size_t i = 0; i < n; ++i) p[i] = static_cast<unsigned char>(i * 131 + i / 251 + 7);
  return p;
}

inline std::string fdText(unsigned int seq) { return "pipe of message " + std::to_string(seq); }

}  // namespace kr::e2e
