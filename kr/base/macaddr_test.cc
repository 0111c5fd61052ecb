#include "kr/base/macaddr.h"

#include <gtest/gtest.h>

#include <sstream>

namespace kr {
namespace {

using namespace std::string_literals;

TEST(MacAddr, Text) {
  for (const char* s : {"00:1a:2b:3c:4d:5e", "00-1A-2B-3C-4D-5E", "00:1A:2b:3C:4d:5E"}) {
    MacAddr m;
    EXPECT_TRUE(m.fromStr(s) && m.str() == "00:1a:2b:3c:4d:5e") << s;
  }
  const uint8_t b[6] = {1, 2, 3, 4, 5, 6};
  for (std::string bad : {""s, "00:11:22:33:44"s, "00:11:22:33:44:55:66"s, "00:11:22:33:44:5g"s,
                          "0:11:22:33:44:55"s, "00:11:22:33:44:555"s, "00:11-22:33:44:55"s,
                          "00.11.22.33.44.55"s, "00:11:22:33:44:55 "s, "00:11:22:33:44:5\0"s}) {
    MacAddr m(b);
    EXPECT_FALSE(m.fromStr(bad)) << bad;
    EXPECT_EQ(m, MacAddr(b)) << bad;
  }
}

TEST(MacAddr, EmptyOrderAndStream) {
  const uint8_t lo[6] = {0, 0xff, 0xff, 0xff, 0xff, 0xff}, hi[6] = {1, 0, 0, 0, 0, 0};
  EXPECT_TRUE(MacAddr().empty());
  EXPECT_FALSE(MacAddr(lo).empty());
  EXPECT_LT(MacAddr(lo), MacAddr(hi));  // first byte is most significant
  std::ostringstream os;
  os << MacAddr(hi);
  EXPECT_EQ(os.str(), "01:00:00:00:00:00");
}

}  // namespace
}  // namespace kr
