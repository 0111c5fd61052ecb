#include "kr/message/siphash.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>

namespace kr {
namespace {

std::ifstream openVectors() {
  const std::string rel = "shared/testdata/siphash-vectors.txt";
  if (const char* root = std::getenv("KR_SOURCE_DIR")) {
    std::ifstream f(std::string(root) + "/../" + rel);
    if (f) return f;
  }
  return std::ifstream("../" + rel);
}

std::string toHex(const unsigned char* p, unsigned n) {
  static const char* d = "0123456789abcdef";
  std::string s;
  for (unsigned i = 0; i < n; ++i) s += {d[p[i] >> 4], d[p[i] & 15]};
  return s;
}

// Every published vector, each variant, plus a canary after the output so a
// variant that writes more than its outlen fails too.
TEST(SipHash, PublishedVectors) {
  std::ifstream f = openVectors();
  ASSERT_TRUE(f) << "siphash-vectors.txt not found via KR_SOURCE_DIR or ../shared";
  unsigned char key[16], msg[64];
  for (int i = 0; i < 16; ++i) key[i] = static_cast<unsigned char>(i);
  for (int i = 0; i < 64; ++i) msg[i] = static_cast<unsigned char>(i);
  const std::map<std::string, std::pair<bool, unsigned>> variants = {
      {"sip64", {true, 8}}, {"sip128", {true, 16}}, {"hsip32", {false, 4}}, {"hsip64", {false, 8}}};
  std::map<std::string, int> seen;
  for (std::string line; std::getline(f, line);) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream ls(line);
    std::string name, want;
    unsigned len = 0;
    ASSERT_TRUE(ls >> name >> len >> want && variants.count(name) && len <= 64) << line;
    const auto [full, outlen] = variants.at(name);
    unsigned char out[17];
    std::fill(out, out + 17, 0xA5);
    (full ? siphash : halfsiphash)(msg, len, key, out, outlen);
    EXPECT_EQ(toHex(out, outlen), want) << line;
    EXPECT_EQ(out[outlen], 0xA5) << line;
    ++seen[name];
  }
  for (const auto& v : variants) EXPECT_EQ(seen[v.first], 64) << v.first;
}

}  // namespace
}  // namespace kr
