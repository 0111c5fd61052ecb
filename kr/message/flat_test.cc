// The flat form is the platform's wire and disk format: these tests check
// bytes, not only round trips.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "kr/message/message.h"
#include "kr/message/vocabulary.h"

namespace kr {
namespace {

using Bytes = std::vector<unsigned char>;

Bytes flat(const message& m) {
  Bytes b;
  m.flatten(b);
  return b;
}

// Little-endian tag bytes.
Bytes tag(uint32_t t) { return {uint8_t(t), uint8_t(t >> 8), uint8_t(t >> 16), uint8_t(t >> 24)}; }
Bytes cat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}
const Bytes kMagic = {0x4D, 0x32};

template <class Id, class V>
message one(Id id, V v) {
  message m;
  m.insert(id, v);
  return m;
}

bool parse(message& m, const Bytes& b, flatten_type mode = kFlatNormal) {
  return m.unflatten(b.data(), static_cast<unsigned>(b.size()), mode);
}

TEST(Flat, EmptyMessageIsTheMagicAloneAndZeroBytesChangeNothing) {
  EXPECT_EQ(flat(message()), kMagic);
  message m;
  EXPECT_TRUE(parse(m, kMagic));
  EXPECT_EQ(m.count(), 0u);
  m.insert(u32_id(1), 1);
  for (flatten_type mode : {kFlatNormal, kFlatPassThrough, kFlatHeaderless}) EXPECT_TRUE(m.unflatten(nullptr, 0, mode));
  EXPECT_EQ(m.count(), 1u);
}

TEST(Flat, ScalarWireForms) {
  IPAddr6 a6;
  ASSERT_TRUE(a6.fromStr("2001:db8::1"));
  in_addr a4;
  ASSERT_EQ(inet_pton(AF_INET, "10.0.0.1", &a4), 1);
  const struct { const char* what; message m; Bytes fields; } cases[] = {
      {"bool true", one(bool_id(0xFE000A), true), {0x0A, 0x00, 0xFE, 0x01}},
      {"bool false", one(bool_id(0xFE000A), false), {0x0A, 0x00, 0xFE, 0x00}},
      {"u32 255 short", one(u32_id(5), 255u), cat({tag(0x09000005), {0xFF}})},
      {"u32 256 long", one(u32_id(5), 256u), cat({tag(0x08000005), {0x00, 0x01, 0x00, 0x00}})},
      {"u64", one(u64_id(5), 0x0102030405060708ull), cat({tag(0x10000005), {8, 7, 6, 5, 4, 3, 2, 1}})},
      {"addr6", one(addr6_id(5), a6), cat({tag(0x18000005), Bytes(a6.bytes, a6.bytes + 16)})},
      {"string", one(string_id(5), std::string("ab")), cat({tag(0x21000005), {2, 'a', 'b'}})},
      {"raw", one(raw_id(5), Bytes{9}), cat({tag(0x31000005), {1, 9}})},
      {"u32 array", one(u32_array_id(5), std::vector<unsigned>{1, 0x100}),
       cat({tag(0x88000005), {2, 0}, {1, 0, 0, 0}, {0, 1, 0, 0}})},
      {"bool array", one(bool_array_id(5), std::vector<bool>{true, false}), cat({tag(0x80000005), {2, 0, 1, 0}})},
      {"u64 array", one(u64_array_id(5), std::vector<unsigned long long>{1}),
       cat({tag(0x90000005), {1, 0}, {1, 0, 0, 0, 0, 0, 0, 0}})},
      {"string array", one(string_array_id(5), std::vector<std::string>{"a", ""}),
       cat({tag(0xA0000005), {2, 0}, {1, 0, 'a'}, {0, 0}})},
      {"raw array", one(raw_array_id(5), std::vector<Bytes>{{7}}), cat({tag(0xB0000005), {1, 0}, {1, 0, 7}})},
      {"addr6 array", one(addr6_array_id(5), std::vector<IPAddr6>{a6}),
       cat({tag(0x98000005), {1, 0}, Bytes(a6.bytes, a6.bytes + 16)})},
      {"be32 in network order", one(STD_ADDR_4, a4.s_addr), cat({tag(0x08FEFF20), {10, 0, 0, 1}})},
      {"be32 array", one(be32_array_id(7), std::vector<uint32_t>{a4.s_addr}),
       cat({tag(0x88000007), {1, 0}, {10, 0, 0, 1}})},
  };
  for (const auto& c : cases) {
    const Bytes expected = cat({kMagic, c.fields});
    EXPECT_EQ(flat(c.m), expected) << c.what;
    EXPECT_GE(c.m.max_length(), expected.size()) << c.what;
    EXPECT_EQ(message(expected), c.m) << c.what;
  }
}

TEST(Flat, StringLengthShortFormBoundaries) {
  for (size_t n : {255u, 256u, 65535u}) {
    const message s = one(string_id(1), std::string(n, 'x'));
    EXPECT_EQ(flat(s).size(), 2 + 4 + (n > 255 ? 2 : 1) + n);
    EXPECT_EQ(message(flat(s)), s);
  }
}

TEST(Flat, RoutingPathsComeFirstAndStayFirst) {
  message m;
  m.insert(u32_array_id(9), {9});
  m.insert(SYS_FROM, {2});
  m.insert(string_array_id(8), {"s"});
  m.insert(SYS_TO, {1, 14});
  m.insert(u32_id(3), 3);
  Bytes b = flat(m);
  ASSERT_GE(b.size(), 22u);
  EXPECT_EQ(Bytes(b.begin(), b.begin() + 22),
            cat({kMagic, tag(0x88FF0001), {2, 0}, {1, 0, 0, 0, 14, 0, 0, 0}, tag(0x88FF0002), {1, 0}}));
  std::vector<unsigned int> ids = m.ids();
  EXPECT_EQ(std::vector<unsigned int>(ids.end() - 4, ids.end()),
            (std::vector<unsigned int>{SYS_TO.id, SYS_FROM.id, string_array_id(8).id, u32_array_id(9).id}));
}

TEST(Flat, FieldOrderFollowsTheTablesAndLists) {
  message m;
  m.insert(string_id(1), "a");
  m.insert(u32_id(3), 1);   // (0x08000003 % 11) = slot 10
  m.insert(u32_id(14), 2);  // also slot 10: wraps to slot 0
  m.insert(bool_id(1), true);
  m.insert(string_id(2), "b");
  EXPECT_EQ(flat(m), cat({kMagic, tag(0x01000001), tag(0x0900000E), {2}, tag(0x09000003), {1},
                          tag(0x21000002), {1, 'b'}, tag(0x21000001), {1, 'a'}}));
}

TEST(Flat, TooSmallBufferWarnsAndWritesOnlyWhatFits) {
  const message m = one(string_id(1), std::string(20, 'x'));
  std::vector<unsigned char> buf(16, 0xEE);
  unsigned int len = 8;
  testing::internal::CaptureStderr();
  m.flatten(buf.data(), &len);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "WARNING: too small buffer for flatten\n");
  EXPECT_EQ(len, 2u + 4 + 1 + 20);
  EXPECT_EQ(buf[0], 0x4D);
  EXPECT_EQ(buf[7], 'x');
  EXPECT_EQ(buf[8], 0xEE);  // nothing past the room
}

TEST(Flat, MalformedInputIsRejected) {
  const Bytes good = cat({kMagic, tag(0x21000001), {3, 'a', 'b', 'c'}});
  const std::pair<const char*, Bytes> cases[] = {
      {"one byte", {0x4D}},
      {"wrong magic", {0x32, 0x4D}},
      {"three trailing bytes", cat({good, {0, 0, 0}})},
      {"length past the end", cat({kMagic, tag(0x21000001), {4, 'a', 'b', 'c'}})},
      {"long length past the end", cat({kMagic, tag(0x20000001), {0xFF, 0xFF}, {'a'}})},
      {"missing u32 value", cat({kMagic, tag(0x08000001), {1, 2, 3}})},
      {"missing short u32 value", cat({kMagic, tag(0x09000001)})},
      {"truncated u64", cat({kMagic, tag(0x10000001), {1, 2, 3, 4, 5, 6, 7}})},
      {"truncated addr6", cat({kMagic, tag(0x18000001), Bytes(15, 0)})},
      {"unknown kind 0x38", cat({kMagic, tag(0x38000001)})},
      {"unknown array kind 0xB8", cat({kMagic, tag(0xB8000001), {0, 0}})},
      {"array count without elements", cat({kMagic, tag(0x88000001), {0xFF, 0xFF}, {1, 2, 3, 4}})},
      {"array count cut", cat({kMagic, tag(0x88000001), {1}})},
      {"string array element past the end", cat({kMagic, tag(0xA0000001), {1, 0}, {5, 0}, {'a'}})},
      {"string array with too few elements", cat({kMagic, tag(0xA0000001), {2, 0}, {1, 0, 'a'}})},
  };
  for (const auto& [what, bytes] : cases) {
    message m;
    EXPECT_FALSE(parse(m, bytes)) << what;
  }
}

TEST(Flat, ParsingAddsToTheMessageAndTheLastDuplicateWins) {
  message m;
  m.insert(u32_id(1), 1);
  m.insert(u32_id(2), 2);
  EXPECT_TRUE(parse(m, cat({kMagic, tag(0x09000002), {9}, tag(0x21000003), {1, 'z'}, tag(0x09000004), {1},
                            tag(0x09000004), {2}, tag(0x80000005), {3, 0}, {0, 1, 0x80}})));
  EXPECT_EQ(m.get(u32_id(1)), 1u);
  EXPECT_EQ(m.get(u32_id(2)), 9u);
  EXPECT_EQ(m.get(string_id(3)), "z");
  EXPECT_EQ(m.get(u32_id(4)), 2u);
  EXPECT_EQ(m.get(bool_array_id(5)), (std::vector<bool>{false, true, true})) << "any non-zero byte is true";
  EXPECT_EQ(m.count(), 5u);
  // A failed parse keeps the fields before the error and leaves the failed one alone.
  m.insert(u32_array_id(7), {7});
  EXPECT_FALSE(parse(m, cat({kMagic, tag(0x09000006), {5}, tag(0x88000007), {3, 0}, {1, 0, 0, 0}})));
  EXPECT_EQ(m.get(u32_id(6)), 5u);
  EXPECT_EQ(m.get(u32_array_id(7)), std::vector<unsigned int>{7});
}

TEST(Flat, HeaderlessModeHasNoMagic) {
  const Bytes fields = cat({tag(0x09000001), {7}});
  message m, n;
  EXPECT_TRUE(parse(m, fields, kFlatHeaderless));
  EXPECT_EQ(m.get(u32_id(1)), 7u);
  // A magic is misread: 4D 32 plus the tag's first two bytes make a bogus tag.
  EXPECT_FALSE(parse(n, cat({kMagic, fields}), kFlatHeaderless));
  EXPECT_FALSE(parse(n, fields, kFlatNormal));
}

TEST(Flat, PassThroughKeepsMarkedFieldsAsFlatBytes) {
  const Bytes marked = cat({tag(0x0B000001), {7}, tag(0x23000002), {2, 'h', 'i'}, tag(0x02000003),
                            tag(0x8A000004), {1, 0}, {1, 2, 3, 4}, tag(0xA2000005), {1, 0}, {1, 0, 'z'}});
  const Bytes b = cat({kMagic, tag(0x09000009), {9}, marked, tag(0x0100000A)});
  message m;
  ASSERT_TRUE(parse(m, b, kFlatPassThrough));
  EXPECT_EQ(m.count(), 2u);  // only the unmarked u32 9 and bool 10
  ASSERT_NE(m.passthrough(), nullptr);
  EXPECT_EQ(*m.passthrough(), marked);
  EXPECT_EQ(flat(m).size(), 2u + 5 + 4);  // not re-emitted

  // Outside pass-through mode the same fields are stored, bit 25 in the id.
  message normal;
  ASSERT_TRUE(parse(normal, b));
  EXPECT_EQ(normal.count(), 7u);
  EXPECT_EQ(normal.get(u32_id(0x02000001)), 7u);
  EXPECT_EQ(normal.passthrough(), nullptr);

  // A failed pass-through parse keeps only the whole fields before the error.
  message broken;
  ASSERT_FALSE(parse(broken, cat({kMagic, tag(0x0B000001), {5}, tag(0x10000001), {1}}), kFlatPassThrough));
  EXPECT_EQ(*broken.passthrough(), cat({tag(0x0B000001), {5}}));

  // A later normal parse drops the pass-through bytes.
  ASSERT_TRUE(parse(m, kMagic));
  EXPECT_EQ(m.passthrough(), nullptr);

  // A marked u64 carries no payload through: its 8 payload bytes are read
  // as further fields (here a short u32 1 = 2 and a bool 3 = true, 9 bytes).
  message fixed;
  ASSERT_TRUE(parse(fixed, cat({kMagic, tag(0x12000001), tag(0x09000001), {2}, tag(0x01000003)}), kFlatPassThrough));
  EXPECT_EQ(*fixed.passthrough(), tag(0x12000001));
  EXPECT_EQ(fixed.get(u32_id(1)), 2u);
  EXPECT_TRUE(fixed.get(bool_id(3)));
}

// A parsed message keeps its nodes in one block; editing it afterwards must
// work as on any other message (removal, replacement, growth, clone).
TEST(Flat, NestedKindsRoundTripAndParsedMessagesStayFullyEditable) {
  message inner, src;
  inner.insert(u64_id(1), ~0ull);
  inner.insert(raw_array_id(2), {Bytes(300, 1), Bytes()});
  src.insert(message_id(1), inner);
  src.insert(message_array_id(2), {inner, message(), inner});
  src.insert(raw_id(3), Bytes(256, 0xAB));
  src.insert(u64_array_id(4), {0, ~0ull});
  for (unsigned n = 1; n <= 4; ++n) {
    src.insert(bool_id(n), n % 2);
    src.insert(string_id(n), std::string(30, char('a' + n)));
    src.insert(u32_array_id(n), std::vector<unsigned>(n, n));
  }
  message m(flat(src));
  ASSERT_EQ(m, src);
  const message early = m;  // a parsed message copies privately
  EXPECT_FALSE(early.sharesWith(m));
  m.remove(string_id(2));
  m.remove(bool_id(1));
  m.insert(string_id(3), "replaced");
  m.insert(string_id(9), "added");
  for (unsigned n = 10; n < 40; ++n) m.insert(bool_id(n), true);  // the bool table outgrows its slots
  EXPECT_EQ(m.get(string_id(3)), "replaced");
  EXPECT_FALSE(m.has(string_id(2)));
  EXPECT_EQ(m.count(), src.count() - 2 + 1 + 30);
  EXPECT_EQ(message(flat(m)), m);
  EXPECT_EQ(early, src);
}

}  // namespace
}  // namespace kr
