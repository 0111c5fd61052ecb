// The log service's wire, shared by the client (kr::Logger, kr/log/logger.h)
// and the service (kr-log, docs/log.md).
//
// A local SOCK_STREAM socket. Every field is an unsigned 16-bit integer in
// host byte order (client and service run on the same machine), and records
// follow each other without padding. Each record starts with its whole
// length, so the stream can be cut into records without knowing the kinds.
//
//   client -> service, registration (8 + 2k bytes):
//     length, 0, 0, source id, topic 1 ... topic k
//   client -> service, a line (4 + n bytes):
//     length, source id (1 or more), n bytes of text (the client leaves a
//     trailing newline out; other bytes pass as they are)
//   service -> client, mute order (6 bytes):
//     6, source id, muted (0: unmuted, anything else: muted)
//
// Source ids are small and 1-based; 0 in the second field marks a
// registration. A source is registered once per connection, before its
// first line. The client reads mute orders 256 bytes at a time and resets
// the connection on a partial record, so the service writes them whole and
// at most kLogMaxMuteBurst at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace kr {

inline constexpr size_t kLogField = 2;
// length + source id.
inline constexpr size_t kLogLineHeader = 2 * kLogField;
// length + 0 + reserved + source id.
inline constexpr size_t kLogRegistrationHeader = 4 * kLogField;
inline constexpr size_t kLogMuteRecord = 3 * kLogField;
// What the client reads at once, and so how many mute orders fit in one
// read without a record being cut.
inline constexpr size_t kLogClientRead = 256;
inline constexpr size_t kLogMaxMuteBurst = kLogClientRead / kLogMuteRecord;
// The length field's limit: a record is at most this long.
inline constexpr size_t kLogMaxRecord = 0xFFFF;

// One field at p, in host byte order. p need not be aligned.
inline uint16_t logField(const unsigned char* p) {
  uint16_t v;
  std::memcpy(&v, p, sizeof v);
  return v;
}
inline void putLogField(unsigned char* p, uint16_t v) { std::memcpy(p, &v, sizeof v); }

}  // namespace kr
