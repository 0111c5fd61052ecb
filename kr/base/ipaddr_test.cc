#include "kr/base/ipaddr.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <sstream>

namespace kr {
namespace {

using namespace std::string_literals;

IPAddr6 A6(std::string_view s) {
  IPAddr6 a;
  EXPECT_TRUE(a.fromStr(s)) << s;
  return a;
}

// Failed parses must leave the value as it was.
template <class T>
void expectRejects(const T& orig, std::initializer_list<std::string> bad) {
  for (const std::string& s : bad) {
    T v = orig;
    EXPECT_FALSE(v.fromStr(s)) << s;
    EXPECT_EQ(v, orig) << s;
  }
}

TEST(IPAddr, TextOrderAndMask) {
  IPAddr a;
  ASSERT_TRUE(a.fromStr("10.0.0.1"));
  EXPECT_EQ(a, IPAddr::fromOctets(10, 0, 0, 1));
  EXPECT_EQ(a.hostOrder(), 0x0A000001u);
  EXPECT_EQ(a.str(), "10.0.0.1");
  expectRejects(a, {"", "1.2.3", "1.2.3.256", "1.2.3.4.5", " 1.2.3.4", "1.2.3.4x", "0x1.2.3.4",
                    "::1", "1.2.3.4\0"s, "255.255.255.2555" /* valid if cut to 15 chars */});
  // Numeric, not raw-memory, order: fails on little-endian if `addr` is compared.
  EXPECT_GT(IPAddr::fromOctets(1, 0, 0, 0), IPAddr::fromOctets(0, 255, 255, 255));
  for (auto [len, want] : {std::pair{0u, "0.0.0.0"}, {1u, "128.0.0.0"}, {7u, "254.0.0.0"},
                           {31u, "255.255.255.254"}, {32u, "255.255.255.255"}})
    EXPECT_EQ(IPAddr::mask(len).str(), want) << len;
}

TEST(IPAddr6, TextIsRfc5952) {
  for (auto [in, want] : {
           std::pair{"::", "::"}, {"1::", "1::"}, {"2001:0DB8::0001", "2001:db8::1"},
           {"2001:db8:0:0:1:0:0:1", "2001:db8::1:0:0:1"},     // tie: first run
           {"1:0:0:2:0:0:0:3", "1:0:0:2::3"},                 // longest run
           {"2001:db8:0:1:1:1:1:1", "2001:db8:0:1:1:1:1:1"},  // lone zero stays
           {"10.0.0.1", "::ffff:10.0.0.1"}, {"::FFFF:a00:1", "::ffff:10.0.0.1"},
           {"::1.2.3.4", "::102:304"},  // IPv4-compatible is not mapped
           {"0000:0000:0000:0000:0000:ffff:255.255.255.255", "::ffff:255.255.255.255"}})
    EXPECT_EQ(A6(in).str(), want) << in;
  expectRejects(A6("2001:db8::1"),
                {"", "::g", "1:2:3:4:5:6:7:8:9", "1::2::3", "12345::", "::ffff:1.2.3.256", "1.2.3",
                 "::1 ", "fe80::1%eth0", "::/8", "::1\0"s,
                 "0000:0000:0000:0000:0000:ffff:255.255.255.2555" /* valid if cut to 45 */});
}

TEST(IPAddr6, MappedLayoutAndOrder) {
  IPAddr6 m(IPAddr::fromOctets(10, 0, 0, 1));
  const uint8_t want[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, 10, 0, 0, 1};
  EXPECT_EQ(std::memcmp(m.bytes, want, 16), 0);
  EXPECT_TRUE(m.isIPv4());
  EXPECT_EQ(m.getIPv4(), IPAddr::fromOctets(10, 0, 0, 1));
  for (const char* s : {"::10.0.0.1", "::fffe:a00:1", "1::ffff:a00:1", "::"})
    EXPECT_FALSE(A6(s).isIPv4()) << s;
  EXPECT_LT(A6("::ffff"), A6("::1:0"));
  EXPECT_LT(A6("::2"), A6("1::"));
}

TEST(IPAddr6, Sockaddr) {
  IPAddr6 a = A6("2001:db8::1");
  sockaddr_in6 sa = IPAddr6::initSockaddr(a, 8080);
  EXPECT_EQ(sa.sin6_family, AF_INET6);
  EXPECT_EQ(ntohs(sa.sin6_port), 8080);
  EXPECT_EQ(sa.sin6_scope_id + sa.sin6_flowinfo, 0u);
  EXPECT_EQ(IPAddr6(sa.sin6_addr), a);
}

TEST(IPAddr6, Mask) {
  const char* ones = "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff";
  for (auto [len, want] : {std::pair{0u, "::"}, {1u, "8000::"}, {7u, "fe00::"}, {8u, "ff00::"},
                           {9u, "ff80::"}, {127u, "ffff:ffff:ffff:ffff:ffff:ffff:ffff:fffe"},
                           {128u, ones}, {500u, ones}})
    EXPECT_EQ(IPAddr6::mask(len).str(), want) << len;
  EXPECT_EQ(A6("2001:db8:ffff::1") & IPAddr6::mask(32), A6("2001:db8::"));
}

// At every length, flipping the last bit inside the prefix must leave it and
// flipping the first bit after it must not.
TEST(IPPrefix6, HasComparesExactlyLenBits) {
  const IPAddr6 base = A6("2001:db8:aaaa:5555:aaaa:5555:aaaa:5555");
  auto flip = [&](unsigned i) {
    IPAddr6 a = base;
    a.bytes[i / 8] ^= uint8_t(0x80 >> (i % 8));
    return a;
  };
  for (unsigned len : {0u, 1u, 7u, 8u, 9u, 127u, 128u}) {
    IPPrefix6 p(base, len);
    EXPECT_TRUE(p.has(base)) << len;
    EXPECT_TRUE(len == 0 || !p.has(flip(len - 1))) << len;
    EXPECT_TRUE(len == 128 || p.has(flip(len))) << len;
  }
  EXPECT_EQ(IPPrefix6(base, 300).len, 128);
}

TEST(IPPrefix6, Text) {
  for (auto [in, want] : {std::pair{"2001:db8::/32", "2001:db8::/32"}, {"::/0", "::/0"},
                          {"::1", "::1/128"}, {"10.0.0.0/8", "::ffff:10.0.0.0/104"},
                          {"10.0.0.1", "::ffff:10.0.0.1/128"}, {"10.0.0.0/0", "::ffff:10.0.0.0/96"},
                          {"::ffff:10.0.0.0/8", "::ffff:10.0.0.0/8"}}) {  // IPv6 text, IPv6 bits
    IPPrefix6 p;
    EXPECT_TRUE(p.fromStr(in) && p.str() == want) << in << " -> " << p.str();
  }
  IPPrefix6 v4;
  ASSERT_TRUE(v4.fromStr("10.0.0.0/8"));
  EXPECT_TRUE(v4.has(A6("10.255.0.1")));
  EXPECT_FALSE(v4.has(A6("11.0.0.0")));
  EXPECT_FALSE(v4.has(A6("::10.0.0.1")));
  expectRejects(IPPrefix6(A6("2001:db8::"), 32),
                {"", "/8", "::/", "::/129", "10.0.0.0/33", "::/-1", "::/+1", "::/8x", "::/ 8",
                 "10.0.0.0/8/8", "1.2.3/8", "::g/8", "::/99999999999999999999"});
}

TEST(NetTypes, StreamAsStr) {
  std::ostringstream os;
  os << IPAddr::fromOctets(10, 0, 0, 1) << ' ' << A6("::1") << ' ' << IPPrefix6(A6("10.0.0.0"), 104);
  EXPECT_EQ(os.str(), "10.0.0.1 ::1 ::ffff:10.0.0.0/104");
}

}  // namespace
}  // namespace kr
