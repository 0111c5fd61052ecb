// MacAddr: a 6-byte Ethernet address, as a plain value.
//
//   kr::MacAddr m;
//   m.fromStr("00:1a:2b:3c:4d:5e");  m.str();  // "00:1a:2b:3c:4d:5e"
//   kr::MacAddr().empty();                      // true: all zero
#pragma once

#include <compare>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>

namespace kr {

struct MacAddr {
  uint8_t bytes[6] = {};

  constexpr MacAddr() = default;
  explicit MacAddr(const uint8_t b[6]);

  // All-zero: the "not resolved" value of the resolvers and ioctls.
  bool empty() const;
  // Lower-case "xx:xx:xx:xx:xx:xx".
  std::string str() const;
  // Accepts six hex pairs separated by ':' or '-' (either case); false and
  // *this untouched otherwise.
  bool fromStr(std::string_view text);

  friend bool operator==(const MacAddr&, const MacAddr&) = default;
  friend std::strong_ordering operator<=>(const MacAddr&, const MacAddr&) = default;
};
static_assert(sizeof(MacAddr) == 6);

std::ostream& operator<<(std::ostream& os, const MacAddr& m);

}  // namespace kr
