#include "platform/loader/config.h"

#include <gtest/gtest.h>

#include "platform/loader/protocol.h"

namespace kr::loader {
namespace {

TEST(loaderConfig, ReadsDaemonsGrantsAndSettings) {
  Config c;
  std::string err;
  ASSERT_TRUE(parseConfig("# the daemons\n"
                          "daemon 14 always /usr/sbin/namesd --quiet -v\n"
                          "\n"
                          "  daemon\t0x20 never rdomaind\n"
                          "grant 1000 0xc0\n"
                          "grant 1001 80\n"
                          "socket-group 50\r\n"
                          "stop-timeout 7\n",
                          &c, &err))
      << err;
  ASSERT_EQ(c.daemons.size(), 2u);
  EXPECT_EQ(c.daemons[0].address, 14u);
  EXPECT_TRUE(c.daemons[0].restart);
  EXPECT_EQ(c.daemons[0].argv, (std::vector<std::string>{"/usr/sbin/namesd", "--quiet", "-v"}));
  EXPECT_EQ(c.daemons[1].address, 0x20u);
  EXPECT_FALSE(c.daemons[1].restart);
  EXPECT_EQ(c.grants, (std::map<uid_t, uint32_t>{{1000, 0xc0}, {1001, 0x80}}));
  EXPECT_EQ(c.socketGroup, 50u);
  EXPECT_EQ(c.stopTimeoutSeconds, 7u);
}

TEST(loaderConfig, MistakesNameTheirLine) {
  const std::pair<const char*, const char*> cases[] = {
      {"deamon 14 always x", "line 1: unknown keyword 'deamon'"},
      {"\ndaemon 1 always x", "line 2: bad daemon address '1' (2..65535)"},
      {"daemon 65536 always x", "line 1: bad daemon address '65536' (2..65535)"},
      {"daemon 14x always x", "line 1: bad daemon address '14x' (2..65535)"},
      {"daemon 14 always x\ndaemon 0xe never y", "line 2: address 0xe is configured twice"},
      {"daemon 14 sometimes x", "line 1: bad restart policy 'sometimes' (always|never)"},
      {"daemon 14 always", "line 1: daemon needs an address, a restart policy and a program"},
      {"grant 1000 0xzz", "line 1: bad policy bits '0xzz' (hex)"},
      {"grant -1 40", "line 1: bad uid '-1'"},
      {"stop-timeout 0", "line 1: stop-timeout needs seconds, 1..3600"},
      {"socket-group staff", "line 1: socket-group needs a numeric gid"},
  };
  for (const auto& [text, want] : cases) {
    Config c;
    c.stopTimeoutSeconds = 99;
    std::string err;
    EXPECT_FALSE(parseConfig(text, &c, &err)) << text;
    EXPECT_EQ(err, want);
    EXPECT_EQ(c.stopTimeoutSeconds, 99u) << "a failed parse leaves the config alone";
  }
  Config c;
  std::string err;
  EXPECT_FALSE(loadConfig("/nonexistent/kr-loader.conf", &c, &err));
  EXPECT_EQ(err, "cannot read /nonexistent/kr-loader.conf");
}

TEST(loaderConfig, TrustedPeersGetEverythingOthersReadOrTheirGrant) {
  Config c;
  c.grants[1000] = 0xc0;
  const uid_t loader = 500;
  EXPECT_EQ(policyFor(c, 0, false, loader), kPolicyAll);
  EXPECT_EQ(policyFor(c, loader, false, loader), kPolicyAll);
  EXPECT_EQ(policyFor(c, 1234, true, loader), kPolicyAll);  // a daemon it started
  EXPECT_EQ(policyFor(c, 1234, false, loader), kPolicyRead);
  EXPECT_EQ(policyFor(c, 1000, false, loader), 0xc0u);
}

}  // namespace
}  // namespace kr::loader
