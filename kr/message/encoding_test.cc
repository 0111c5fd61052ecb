#include "kr/message/encoding.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kr {
namespace {

using namespace std::string_literals;

const unsigned char* U(const std::string& s) {
  return reinterpret_cast<const unsigned char*>(s.data());
}

struct Rfc {
  std::string plain, b64, b32;
};
const Rfc kRfc[] = {{"", "", ""},
                    {"f", "Zg==", "MY======"},
                    {"fo", "Zm8=", "MZXQ===="},
                    {"foo", "Zm9v", "MZXW6==="},
                    {"foob", "Zm9vYg==", "MZXW6YQ="},
                    {"fooba", "Zm9vYmE=", "MZXW6YTB"},
                    {"foobar", "Zm9vYmFy", "MZXW6YTBOI======"}};

TEST(Encoding, Rfc4648BothWays) {
  for (const Rfc& v : kRfc) {
    EXPECT_EQ(base64Encode(v.plain), v.b64);
    EXPECT_EQ(base32Encode(v.plain), v.b32);
    std::string got = "stale";
    EXPECT_TRUE(base64Decode(v.b64, got) && got == v.plain) << v.b64;
    got = "stale";
    EXPECT_TRUE(base32Decode(v.b32, got) && got == v.plain) << v.b32;
  }
}

// Buffer decode into exactly (len/4)*3 or (len/8)*5 bytes of room: the return
// value and what was written, up to a canary one past the room.
TEST(Encoding, DecodeLeniencyAndFailures) {
  struct Case {
    bool b64;
    std::string in;
    int ret;
    std::string written;
  } cases[] = {
      {true, "Zg==", 1, "f"},
      {true, "Zg", 0, ""},                                  // shorter than a group
      {true, "Zm9v\n\n\n\nYmFy", 9, "foobar\xEE\xEE\xEE\xEE"},  // 9, yet 6 written
      {true, " Zm9v", 3, "foo"},
      {true, "Zm9v\r\n", 3, "foo"},
      {true, "Zm\0v"s, 3, "fpo"},                           // NUL decodes as 65, spilling
      {true, "Zm!v", -1, ""},
      {true, "Zm9\nv", -1, ""},                             // skipping only between groups
      {true, "Zm9vY", -1, ""},                              // ends inside a group
      {false, "MZXW6YTB\r\nOI======", 6, "foobar"},         // all 10 bytes of room used
      {false, "MY======", 1, "f"},
      {false, "MZXW6YT", 0, ""},
      {false, "MZXW6Y1B", -1, ""},                          // '1' is not base32
      {false, "MZXW6YTBO", -1, ""},
  };
  for (const Case& c : cases) {
    const unsigned room = c.b64 ? c.in.size() / 4 * 3 : c.in.size() / 8 * 5;
    std::vector<unsigned char> out(room + 1, 0xEE);
    int r = c.b64 ? base64Decode(c.in.data(), c.in.size(), out.data(), room)
                  : base32Decode(c.in.data(), c.in.size(), out.data(), room);
    EXPECT_EQ(r, c.ret) << c.in;
    EXPECT_EQ(std::string(out.begin(), out.begin() + c.written.size()), c.written) << c.in;
  }
  std::string out = "keep";
  EXPECT_FALSE(base64Decode("Zm!v", out));
  EXPECT_EQ(out, "keep");
}

// Exact room succeeds without touching the byte after it; one less fails.
TEST(Encoding, RoomBoundaries) {
  struct Codec {
    int (*enc)(const unsigned char*, unsigned, char*, unsigned);
    int (*dec)(const char*, unsigned, unsigned char*, unsigned);
    unsigned bytes, chars;
  } codecs[] = {{base64Encode, base64Decode, 3, 4}, {base32Encode, base32Decode, 5, 8}};
  const std::string data = "\x00\xff\x10\x80\x7f\x01\xfe\x55\xaa\x33\x0f"s;
  for (const Codec& c : codecs) {
    for (unsigned len = 0; len <= data.size(); ++len) {
      const unsigned need = (len + c.bytes - 1) / c.bytes * c.chars;
      const unsigned room = need / c.chars * c.bytes;
      std::string text(need + 1, '#'), bytes(room + 1, '#');
      ASSERT_EQ(c.enc(U(data), len, text.data(), need), int(need)) << len;
      EXPECT_EQ(text[need], '#') << "encoder wrote a terminator, len " << len;
      EXPECT_EQ(c.enc(U(data), len, text.data(), need - 1), need ? -1 : 0) << len;
      auto* o = reinterpret_cast<unsigned char*>(bytes.data());
      ASSERT_EQ(c.dec(text.data(), need, o, room), int(len)) << len;
      EXPECT_EQ(bytes.substr(0, len), data.substr(0, len));
      EXPECT_EQ(bytes[room], '#') << len;
      EXPECT_EQ(c.dec(text.data(), need, o, room - 1), room ? -1 : 0) << len;
    }
  }
}

TEST(Encoding, RoundTripAllByteValues) {
  std::string all;
  for (int i = 0; i < 256; ++i) all += static_cast<char>(255 - i);
  std::string back;
  EXPECT_TRUE(base64Decode(base64Encode(all), back) && back == all);
  EXPECT_TRUE(base32Decode(base32Encode(all), back) && back == all);
}

TEST(Encoding, Hex) {
  const unsigned char b[] = {0x0F, 0xA0};
  EXPECT_EQ(bin2hex(b, 2, false), "0fa0");
  EXPECT_EQ(bin2hex(b, 2, true), "0FA0");
  for (char c : "09AFaf"s) EXPECT_LT(hex2bin(c), 16u) << c;
  for (char c : "/:@G`g \0\xff"s) EXPECT_EQ(hex2bin(c), 256u) << int(c);
  struct Case {
    std::string text;
    bool ok;
    std::string out;
  } cases[] = {{"", true, ""},          {"0fA0", true, "\x0f\xa0"}, {"0g", false, ""},
               {"12zz", false, "\x12"}, {"abc", false, "keep"},     {"ff00", true, "\xff\x00"s}};
  for (const Case& c : cases) {
    std::string out = "keep";
    EXPECT_EQ(hex2bin(c.text.data(), c.text.size(), out), c.ok) << c.text;
    EXPECT_EQ(out, c.out) << c.text;
  }
}

}  // namespace
}  // namespace kr
