// Network address value types that cross kr's interface: IPAddr (IPv4),
// IPAddr6 (16 bytes, which can also hold an IPv4 address as ::ffff:a.b.c.d),
// IPPrefix6 and their text forms.
//
// They are plain values: trivially copyable, no allocation except in str().
// Bytes are always held in network order, whatever the host, so an IPAddr6
// can be copied straight into a wire form or a sockaddr_in6.
//
//   kr::IPAddr6 a;
//   if (a.fromStr("2001:db8::1")) std::cout << a;      // "2001:db8::1"
//   kr::IPPrefix6 net(a, 32);  net.has(a);              // true
#pragma once

#include <netinet/in.h>

#include <compare>
#include <cstdint>
#include <cstring>
#include <iosfwd>
#include <string>
#include <string_view>

namespace kr {

// An IPv4 address. `addr` holds the four bytes in network order, exactly as
// in_addr::s_addr does (the value inet_pton writes).
struct IPAddr {
  uint32_t addr = 0;

  constexpr IPAddr() = default;
  constexpr explicit IPAddr(uint32_t network_order) : addr(network_order) {}
  explicit IPAddr(const in_addr& a) : addr(a.s_addr) {}

  // Builds an address from its dotted-quad parts, a.b.c.d.
  static IPAddr fromOctets(uint8_t a, uint8_t b, uint8_t c, uint8_t d);

  // "a.b.c.d".
  std::string str() const;
  // Parses dotted-quad text; false (and *this untouched) on anything else.
  bool fromStr(std::string_view text);

  // The address as a host-order number (10.0.0.1 -> 0x0A000001).
  uint32_t hostOrder() const;
  // The netmask of a prefix length 0..32, e.g. 24 -> 255.255.255.0.
  static IPAddr mask(unsigned prefix_len);
  IPAddr operator&(IPAddr m) const { return IPAddr(addr & m.addr); }

  bool isZero() const { return addr == 0; }
  friend bool operator==(IPAddr a, IPAddr b) { return a.addr == b.addr; }
  // Ordered as the addresses are numbers (10.0.0.1 < 10.0.0.2).
  friend std::strong_ordering operator<=>(IPAddr a, IPAddr b) { return a.hostOrder() <=> b.hostOrder(); }
};

std::ostream& operator<<(std::ostream& os, IPAddr a);

// A 16-byte IPv6 address in network order. An IPv4 address is held as the
// mapped address ::ffff:a.b.c.d and prints in that form.
struct IPAddr6 {
  uint8_t bytes[16] = {};

  constexpr IPAddr6() = default;
  explicit IPAddr6(const in6_addr& a) { std::memcpy(bytes, a.s6_addr, 16); }
  explicit IPAddr6(IPAddr v4) { setIPv4(v4); }

  // Makes this the mapped address ::ffff:a.b.c.d.
  void setIPv4(IPAddr v4);
  // Whether this is a mapped IPv4 address; getIPv4() then gives it.
  bool isIPv4() const;
  IPAddr getIPv4() const;

  // The usual text form: RFC 5952 for IPv6 ("2001:db8::1"), and
  // "::ffff:10.0.0.1" for a mapped IPv4 address.
  std::string str() const;
  // Accepts IPv6 text (including the mapped "::ffff:a.b.c.d" form) and plain
  // dotted-quad IPv4, which is stored mapped. False and *this untouched on
  // anything else.
  bool fromStr(std::string_view text);

  // An AF_INET6 socket address for this address and a host-order port (an
  // IPv4 address stays mapped, so one socket family serves both).
  static sockaddr_in6 initSockaddr(const IPAddr6& ip, uint16_t port);
  in6_addr toIn6() const;

  // The netmask of a prefix length 0..128; operator& applies a mask.
  static IPAddr6 mask(unsigned prefix_len);
  IPAddr6 operator&(const IPAddr6& m) const;

  bool isZero() const;
  friend bool operator==(const IPAddr6& a, const IPAddr6& b) { return std::memcmp(a.bytes, b.bytes, 16) == 0; }
  // Byte-wise, which is numeric order for addresses in network order.
  friend std::strong_ordering operator<=>(const IPAddr6& a, const IPAddr6& b) {
    return std::memcmp(a.bytes, b.bytes, 16) <=> 0;
  }
};
static_assert(sizeof(IPAddr6) == 16);

std::ostream& operator<<(std::ostream& os, const IPAddr6& a);

// An IPv6 prefix: an address and a length 0..128. An IPv4 prefix is held
// mapped, so 10.0.0.0/8 is ::ffff:10.0.0.0/104.
struct IPPrefix6 {
  IPAddr6 addr;
  uint8_t len = 0;

  constexpr IPPrefix6() = default;
  IPPrefix6(const IPAddr6& a, unsigned prefix_len);

  // Whether `a` lies inside the prefix (its first `len` bits equal ours).
  bool has(const IPAddr6& a) const;
  // "addr/len"; fromStr accepts the same, and IPv4 "a.b.c.d/n" (held
  // mapped, length n + 96). A text without "/" is a host prefix.
  std::string str() const;
  bool fromStr(std::string_view text);

  friend bool operator==(const IPPrefix6&, const IPPrefix6&) = default;
};

std::ostream& operator<<(std::ostream& os, const IPPrefix6& p);

}  // namespace kr
