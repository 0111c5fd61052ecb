// Printing messages for logs and debugging: the line-oriented dump of a
// message (to a stream or into a fixed buffer), field-id names, and a hex
// dump of a byte range.
//
//   m.dump2(std::cerr, "rx ", 0);
//   // rx --- kr::message --------
//   // rx  u32 [SYS_CMD]=CMD_GETALL
//   // rx  u32[2] [SYS_TO]=1, 14,
//
//   char buf[512];
//   kr::Dumper d(buf, sizeof buf);   // never allocates; for crash paths
//   m.dump2(d, "", 0);
//   write(2, d.data(), d.position());
//
// Not thread-safe: the u32 value text is built in one static buffer.
#pragma once

#include <iosfwd>
#include <string_view>

#include "kr/base/ipaddr.h"
#include "kr/message/message.h"

namespace kr {

// A writer into a caller-owned buffer. Output beyond the capacity is
// dropped without notice; no terminator is written. Numbers are written in
// fixed-width lower-case hexadecimal, formatted by hand, so nothing here
// allocates or calls into the C library's formatting.
class Dumper {
 public:
  Dumper(char* buffer, unsigned int capacity) : buffer_(buffer), capacity_(capacity) {}

  void write(const char* s, unsigned int n);
  Dumper& operator<<(const char* s);
  Dumper& operator<<(std::string_view s);
  Dumper& operator<<(unsigned int v);        // "0x" and 8 digits
  Dumper& operator<<(unsigned long long v);  // "0x" and 16 digits
  Dumper& operator<<(unsigned char v);       // 2 digits
  Dumper& operator<<(const IPAddr6& a);      // 8 groups of 4 digits, ':'-separated

  const char* data() const { return buffer_; }
  unsigned int position() const { return position_; }
  unsigned int capacity() const { return capacity_; }
  std::string_view view() const { return {buffer_, position_}; }

 private:
  char* buffer_;
  unsigned int capacity_;
  unsigned int position_ = 0;
};

// An id's name: a named system or standard field prints its name
// ("SYS_TO"; kind bits are not printed), any other id a group prefix and its
// low 16 bits: "std::153", "sys::20", "local::7", "loader::3", "5" (group 0),
// or the group's value, "327680::5".
std::ostream& operator<<(std::ostream& os, const message::idstr& id);
Dumper& operator<<(Dumper& d, const message::idstr& id);

// The text of a u32 field's value, named where the field has names:
// SYS_CMD 0xFE0004 -> "CMD_GETALL", SYS_TYPE 2 -> "TYPE_REPLY"; otherwise
// "%d 0x%x a.b.c.d" (signed decimal, hex, dotted quad high byte first).
// Some unnamed values fall through to other fields' names on purpose (a
// SYS_TYPE of 0 reads "DREASON_DISCONNECTED"). The text lives in one static
// buffer: use it before the next call.
const char* u32ValueText(unsigned int id, unsigned int value);

// A byte range to print in hexadecimal: two digits a byte, `separator`
// before every group of `group` bytes (0: no groups), a line break every
// `line` bytes (0: one line).
struct hexdump {
  char separator = ' ';
  unsigned int group = 0;
  unsigned int line = 0;
  const unsigned char* begin = nullptr;
  const unsigned char* end = nullptr;

  void output(std::ostream& os) const;
};
std::ostream& operator<<(std::ostream& os, const hexdump& h);

}  // namespace kr
