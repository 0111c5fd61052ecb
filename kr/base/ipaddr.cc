#include "kr/base/ipaddr.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <ostream>

namespace kr {
namespace {

// inet_pton wants a NUL-terminated string. Text that does not fit, or that
// hides a NUL, is rejected here: truncating it could turn junk into a valid
// address.
template <size_t N>
bool toCString(std::string_view text, char (&buf)[N]) {
  if (text.size() >= N || text.find('\0') != std::string_view::npos) return false;
  std::memcpy(buf, text.data(), text.size());
  buf[text.size()] = '\0';
  return true;
}

// A decimal prefix length, at most `max`. from_chars into an unsigned takes
// digits only: no sign, no spaces.
bool parseLen(std::string_view text, unsigned max, unsigned* out) {
  unsigned v = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
  if (ec != std::errc() || end != text.data() + text.size() || v > max) return false;
  *out = v;
  return true;
}

constexpr uint8_t kMappedPrefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};

// The longest run of two or more zero groups, first one on a tie (RFC 5952
// 4.2); *len is 0 when there is none.
void longestZeroRun(const uint16_t (&groups)[8], int* start, int* len) {
  *start = -1;
  *len = 0;
  for (int i = 0; i < 8;) {
    if (groups[i] != 0) { ++i; continue; }
    int j = i;
    while (j < 8 && groups[j] == 0) ++j;
    if (j - i > *len) { *start = i; *len = j - i; }
    i = j;
  }
  if (*len < 2) *len = 0;
}

// RFC 5952 text. Written by hand rather than with inet_ntop because glibc's
// inet_ntop prints the deprecated IPv4-compatible ::a.b.c.d form in dotted
// notation, which RFC 5952 reserves for recognised prefixes.
std::string formatV6(const uint8_t (&b)[16]) {
  uint16_t groups[8];
  for (int i = 0; i < 8; ++i) groups[i] = uint16_t(b[2 * i] << 8 | b[2 * i + 1]);
  int run, run_len;
  longestZeroRun(groups, &run, &run_len);

  std::string out;
  char hex[8];
  for (int i = 0; i < 8; ++i) {
    if (run_len && i == run) {
      out += "::";
      i += run_len - 1;
      continue;
    }
    if (!out.empty() && out.back() != ':') out += ':';
    std::snprintf(hex, sizeof hex, "%x", groups[i]);
    out += hex;
  }
  return out;
}

}  // namespace

// ---- IPAddr ----

IPAddr IPAddr::fromOctets(uint8_t a, uint8_t b, uint8_t c, uint8_t d) {
  return IPAddr(htonl(uint32_t(a) << 24 | uint32_t(b) << 16 | uint32_t(c) << 8 | d));
}

std::string IPAddr::str() const {
  char buf[INET_ADDRSTRLEN];
  in_addr a{addr};
  inet_ntop(AF_INET, &a, buf, sizeof buf);
  return buf;
}

bool IPAddr::fromStr(std::string_view text) {
  char buf[INET_ADDRSTRLEN];
  in_addr a;
  if (!toCString(text, buf) || inet_pton(AF_INET, buf, &a) != 1) return false;
  addr = a.s_addr;
  return true;
}

uint32_t IPAddr::hostOrder() const { return ntohl(addr); }

IPAddr IPAddr::mask(unsigned prefix_len) {
  // A shift by 32 is undefined, so /0 is its own case.
  if (prefix_len == 0) return IPAddr();
  return IPAddr(htonl(~uint32_t(0) << (32 - std::min(prefix_len, 32u))));
}

std::ostream& operator<<(std::ostream& os, IPAddr a) { return os << a.str(); }

// ---- IPAddr6 ----

void IPAddr6::setIPv4(IPAddr v4) {
  std::memcpy(bytes, kMappedPrefix, 12);
  std::memcpy(bytes + 12, &v4.addr, 4);
}

bool IPAddr6::isIPv4() const { return std::memcmp(bytes, kMappedPrefix, 12) == 0; }

IPAddr IPAddr6::getIPv4() const {
  IPAddr v4;
  std::memcpy(&v4.addr, bytes + 12, 4);
  return v4;
}

std::string IPAddr6::str() const {
  if (isIPv4()) return "::ffff:" + getIPv4().str();
  return formatV6(bytes);
}

bool IPAddr6::fromStr(std::string_view text) {
  char buf[INET6_ADDRSTRLEN];
  if (!toCString(text, buf)) return false;
  in6_addr a6;
  if (inet_pton(AF_INET6, buf, &a6) == 1) {
    *this = IPAddr6(a6);
    return true;
  }
  in_addr a4;
  if (inet_pton(AF_INET, buf, &a4) == 1) {
    setIPv4(IPAddr(a4));
    return true;
  }
  return false;
}

sockaddr_in6 IPAddr6::initSockaddr(const IPAddr6& ip, uint16_t port) {
  sockaddr_in6 sa;
  std::memset(&sa, 0, sizeof sa);  // also clears flowinfo, scope and any padding
  sa.sin6_family = AF_INET6;
  sa.sin6_port = htons(port);
  sa.sin6_addr = ip.toIn6();
  return sa;
}

in6_addr IPAddr6::toIn6() const {
  in6_addr a;
  std::memcpy(a.s6_addr, bytes, 16);
  return a;
}

IPAddr6 IPAddr6::mask(unsigned prefix_len) {
  prefix_len = std::min(prefix_len, 128u);
  IPAddr6 m;
  std::memset(m.bytes, 0xff, prefix_len / 8);
  if (prefix_len % 8) m.bytes[prefix_len / 8] = uint8_t(0xff00 >> (prefix_len % 8));
  return m;
}

IPAddr6 IPAddr6::operator&(const IPAddr6& m) const {
  IPAddr6 r;
  for (int i = 0; i < 16; ++i) r.bytes[i] = bytes[i] & m.bytes[i];
  return r;
}

bool IPAddr6::isZero() const { return *this == IPAddr6(); }

std::ostream& operator<<(std::ostream& os, const IPAddr6& a) { return os << a.str(); }

// ---- IPPrefix6 ----

IPPrefix6::IPPrefix6(const IPAddr6& a, unsigned prefix_len)
    : addr(a), len(uint8_t(std::min(prefix_len, 128u))) {}

bool IPPrefix6::has(const IPAddr6& a) const {
  IPAddr6 m = IPAddr6::mask(len);
  return (a & m) == (addr & m);
}

std::string IPPrefix6::str() const { return addr.str() + "/" + std::to_string(len); }

bool IPPrefix6::fromStr(std::string_view text) {
  size_t slash = text.find('/');
  std::string_view host = text.substr(0, slash);
  IPAddr v4;
  IPAddr6 a;
  unsigned n = 128;
  // Dotted-quad text counts its length in IPv4 bits; check it first, since
  // IPAddr6::fromStr would accept it too.
  if (v4.fromStr(host)) {
    a.setIPv4(v4);
    if (slash != std::string_view::npos) {
      if (!parseLen(text.substr(slash + 1), 32, &n)) return false;
      n += 96;
    }
  } else if (a.fromStr(host)) {
    if (slash != std::string_view::npos && !parseLen(text.substr(slash + 1), 128, &n)) return false;
  } else {
    return false;
  }
  *this = IPPrefix6(a, n);
  return true;
}

std::ostream& operator<<(std::ostream& os, const IPPrefix6& p) { return os << p.str(); }

}  // namespace kr
