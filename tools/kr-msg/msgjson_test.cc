#include "tools/kr-msg/msgjson.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "kr/message/dump.h"
#include "kr/message/vocabulary.h"

namespace {

using kr::message;
using kr::msgjson::flatFromJson;
using kr::msgjson::flatToJson;
using kr::msgjson::messageFromJson;
using kr::msgjson::messageToJson;
using Bytes = std::vector<unsigned char>;

Bytes flat(const message& m) {
  Bytes b;
  m.flatten(b);
  return b;
}

std::string hexOf(const Bytes& b) { return kr::msgjson::toHex(b.data(), b.size()); }

message parse(const std::string& json) {
  message m;
  std::string error;
  EXPECT_TRUE(messageFromJson(json, m, error)) << error << "\n" << json;
  return m;
}

// The error messageFromJson reports ("" when the text converts).
std::string errorOf(const std::string& json) {
  message m;
  std::string error;
  return messageFromJson(json, m, error) ? "" : error;
}

std::vector<unsigned> sortedIds(const message& m) {
  std::vector<unsigned> ids = m.ids();
  std::sort(ids.begin(), ids.end());
  return ids;
}

// ---- Random messages: every kind, flag bits, edge values, nesting ------------

class Gen {
 public:
  explicit Gen(unsigned seed) : rng_(seed) {}

  message make(int depth) {
    message m;
    const bool tables = depth == 0 && pick(4) == 0;  // many bools and u32s
    const unsigned n = tables ? 6 + pick(30) : pick(depth == 0 ? 14 : 6);
    for (unsigned i = 0; i < n; ++i) addField(m, tables ? pick(2) : pick(14), depth);
    return m;
  }
  Bytes bytes(unsigned maxLen) {
    Bytes b(pick(maxLen + 1));
    for (auto& c : b) c = static_cast<unsigned char>(rng_());
    return b;
  }

 private:
  unsigned pick(unsigned n) { return static_cast<unsigned>(rng_() % n); }

  uint32_t number() {
    static constexpr uint32_t kNamed[] = {0xFF0001, 0xFF0003, 0xFF0004, 0xFF0007, 0xFF0008, 0xFF0016,
                                          0xFE0002, 0xFE0009, 0xFEFF27, 0xFE0099};
    uint32_t n = pick(3) == 0 ? kNamed[pick(10)] : pick(2) ? pick(40) : rng_() & 0xFFFFFF;
    if (pick(5) == 0) n |= 0x02000000;
    if (pick(8) == 0) n |= 0x04000000;
    return n;
  }
  unsigned u32() {
    static constexpr unsigned kEdge[] = {0, 1, 2, 255, 256, 0xFFFFFFFF, 0xFE0004, 0xFE0009, 0xFE000D};
    return pick(2) ? kEdge[pick(9)] : static_cast<unsigned>(rng_());
  }
  unsigned long long u64() {
    static constexpr unsigned long long kEdge[] = {0, 1, ~0ull, 1ull << 63, 4294967296ull};
    return pick(2) ? kEdge[pick(5)] : (static_cast<unsigned long long>(rng_()) << 32) | rng_();
  }
  kr::IPAddr6 addr6() {
    kr::IPAddr6 a;
    if (pick(3) == 0) return kr::IPAddr6(kr::IPAddr::fromOctets(10, 0, 0, pick(256)));
    for (auto& b : a.bytes) b = pick(3) ? 0 : static_cast<unsigned char>(rng_());
    return a;
  }
  std::string string() {
    static const char* const kText[] = {"", "eth0", "h\xc3\xa9llo \xe2\x9c\x93 \xf0\x9d\x84\x9e", "\xc0\x80",
                                        "\xed\xa0\x80", "a\xff", "nul\0in"};
    if (const unsigned i = pick(14); i < 7) return std::string(kText[i], i == 6 ? 6 : std::strlen(kText[i]));
    const Bytes b = bytes(pick(10) == 0 ? 300 : 12);
    return std::string(b.begin(), b.end());
  }
  kr::flat_message nested(int depth) {
    switch (pick(depth < 2 ? 6 : 2)) {
      case 0: return kr::flat_message(bytes(8));                         // mostly malformed
      case 1: return kr::flat_message(Bytes{0x4D, 0x32, 0x05, 0x00});   // truncated tag
      default: return kr::flat_message(flat(make(depth + 1)));
    }
  }
  template <class T, class F>
  std::vector<T> array(F f) {
    std::vector<T> v(pick(5));
    for (size_t i = 0; i < v.size(); ++i) v[i] = f();
    return v;
  }

  void addField(message& m, unsigned kind, int depth) {
    const uint32_t n = number();
    switch (kind) {
      case 0: m.insert(kr::bool_id(n), pick(2) == 1); break;
      case 1: m.insert(kr::u32_id(n), u32()); break;
      case 2: m.insert(kr::u64_id(n), u64()); break;
      case 3: m.insert(kr::addr6_id(n), addr6()); break;
      case 4: m.insert(kr::string_id(n), string()); break;
      case 5: m.insert(kr::message_id(n), nested(depth)); break;
      case 6: m.insert(kr::raw_id(n), bytes(pick(10) == 0 ? 300 : 6)); break;
      case 7: m.insert(kr::bool_array_id(n), array<bool>([&] { return pick(2) == 1; })); break;
      case 8: m.insert(kr::u32_array_id(n), array<unsigned>([&] { return u32(); })); break;
      case 9: m.insert(kr::u64_array_id(n), array<unsigned long long>([&] { return u64(); })); break;
      case 10: m.insert(kr::addr6_array_id(n), array<kr::IPAddr6>([&] { return addr6(); })); break;
      case 11: m.insert(kr::string_array_id(n), array<std::string>([&] { return string(); })); break;
      case 12: m.insert(kr::message_array_id(n), array<kr::flat_message>([&] { return nested(depth); })); break;
      default: m.insert(kr::raw_array_id(n), array<Bytes>([&] { return bytes(5); })); break;
    }
  }

  std::mt19937 rng_;
};

// ---- The printed form -------------------------------------------------------------

// One message that shows most rules at once; its text is the convention.
TEST(msgjsonText, RepresentativeMessageIsPinned) {
  message inner;
  inner.insert(kr::STD_NAME, std::string("eth0"));
  inner.insert(kr::u32_id(0x2000005), 7);
  message m;
  m.insert(kr::SYS_CMD, kr::CMD_GETALL);
  m.insert(kr::SYS_TYPE, 0u);
  m.insert(kr::SYS_REPLYEXP, true);
  m.insert(kr::u64_id(0xFE0099), ~0ull);
  m.insert(kr::SYS_RADDR6, kr::IPAddr6(kr::IPAddr::fromOctets(10, 0, 0, 1)));
  m.insert(kr::string_id(5), std::string("caf\xc3\xa9"));
  m.insert(kr::string_id(6), std::string("\xff\x00", 2));
  m.insert(kr::raw_id(7), Bytes{0xde, 0xad});
  m.insert(kr::STD_FILTER, inner);
  m.insert(kr::STD_OBJS, std::vector<kr::flat_message>{kr::flat_message(flat(inner)),
                                                         kr::flat_message(Bytes{0x4d, 0x32, 0x01})});
  m.insert_vector(kr::SYS_TO, 1, 14);
  const std::string text = messageToJson(m);
  EXPECT_EQ(text, R"({
  "bool:SYS_REPLYEXP": true,
  "u32:SYS_TYPE": 0,
  "u32:SYS_CMD": "CMD_GETALL",
  "u64:0xfe0099": 18446744073709551615,
  "addr6:SYS_RADDR6": "::ffff:10.0.0.1",
  "string:0x5": "café",
  "string:0x6": {
    "hex": "ff00"
  },
  "message:STD_FILTER": {
    "u32:0x2000005": 7,
    "string:STD_NAME": "eth0"
  },
  "raw:0x7": "dead",
  "u32[]:SYS_TO": [
    1,
    14
  ],
  "message[]:STD_OBJS": [
    {
      "u32:0x2000005": 7,
      "string:STD_NAME": "eth0"
    },
    "flat:4d3201"
  ]
})");
  EXPECT_EQ(messageToJson(m, -1).find('\n'), std::string::npos);
  EXPECT_EQ(messageToJson(parse(text)), text);
  // The same fields from flat bytes print the same text.
  const Bytes f = flat(m);
  std::string fromFlat, error;
  ASSERT_TRUE(flatToJson(f.data(), f.size(), fromFlat, error)) << error;
  EXPECT_EQ(fromFlat, text);
}

// Members come in ascending order of the complete id however the message
// was built: insertion order, table growth and removals leave no trace.
TEST(msgjsonText, MemberOrderIsAscendingIdWhateverTheInsertionOrder) {
  constexpr uint32_t kStandIn = 0x6FFFF00;
  std::mt19937 rng(7);
  for (int round = 0; round < 200; ++round) {
    std::vector<uint32_t> ids;  // complete ids, distinct
    for (unsigned i = 0, n = 1 + rng() % 40; i < n; ++i) {
      const uint32_t kinds[] = {kr::kind::kBool, kr::kind::kU32, kr::kind::kU64, kr::kind::kRaw,
                                kr::kind::kArray | kr::kind::kU32};
      const uint32_t number = (rng() % 3 ? rng() % 64 : rng()) & 0x06FFFFFF;
      if ((number & kStandIn) == kStandIn) continue;  // kept for the stand-ins below
      const uint32_t id = kinds[rng() % 5] | number;
      if (std::find(ids.begin(), ids.end(), id) == ids.end()) ids.push_back(id);
    }
    auto add = [](message& m, uint32_t id) {
      switch (kr::kind::of(id)) {
        case kr::kind::kBool: m.insert(kr::bool_id(id), (id & 1) != 0); break;
        case kr::kind::kU32: m.insert(kr::u32_id(id), id & 0xFF); break;
        case kr::kind::kU64: m.insert(kr::u64_id(id), id); break;
        case kr::kind::kRaw: m.insert(kr::raw_id(id), Bytes{static_cast<unsigned char>(id)}); break;
        default: m.insert(kr::u32_array_id(id), std::vector<unsigned>{id & 7}); break;
      }
    };
    // One message in the given order, another in a shuffled order with
    // stand-in fields inserted and removed again.
    message a, b;
    for (uint32_t id : ids) add(a, id);
    std::vector<uint32_t> shuffled = ids;
    std::shuffle(shuffled.begin(), shuffled.end(), rng);
    for (uint32_t k = 0; k < 50; ++k) b.insert(kr::u32_id(kStandIn | k), k), b.insert(kr::bool_id(kStandIn | k), true);
    for (uint32_t id : shuffled) add(b, id);
    for (uint32_t k = 0; k < 50; ++k) b.remove(kr::u32_id(kStandIn | k).id), b.remove(kr::bool_id(kStandIn | k).id);
    ASSERT_EQ(a, b);
    const std::string text = messageToJson(a, -1);
    EXPECT_EQ(messageToJson(b, -1), text);
    // The member names appear in ascending id order.
    std::vector<uint32_t> sorted = ids;
    std::sort(sorted.begin(), sorted.end());
    size_t at = 0;
    for (uint32_t id : sorted) {
      message one;
      add(one, id);
      const std::string t = messageToJson(one, -1);
      const std::string name = t.substr(1, t.find(':', t.find(':') + 1));  // "<kind>:<field>":
      const size_t found = text.find(name, at);
      ASSERT_NE(found, std::string::npos) << name << " after byte " << at << " of " << text;
      at = found + name.size();
    }
  }
}

TEST(msgjsonText, ReadingIgnoresMemberOrder) {
  const std::string sorted =
      R"({"bool:0x1":true,"u32:0x2":3,"u64:0x2":4,"message:0x9":{"u32:0x3":4,"string:0x2":"a"},"u32[]:SYS_TO":[1]})";
  const std::string scrambled =
      R"({"u32[]:SYS_TO":[1],"message:0x9":{"string:0x2":"a","u32:0x3":4},"u64:0x2":4,"u32:0x2":3,"bool:0x1":true})";
  const message m = parse(scrambled);
  EXPECT_EQ(m, parse(sorted));
  EXPECT_EQ(messageToJson(m, -1), sorted);
  Bytes f;
  std::string text, error;
  ASSERT_TRUE(flatFromJson(scrambled, f, error)) << error;
  ASSERT_TRUE(flatToJson(f.data(), f.size(), text, error, -1)) << error;
  EXPECT_EQ(text, sorted);
  // A repeated field is refused whatever the order of its spellings.
  EXPECT_EQ(errorOf(R"({"u32:0x5": 1, "bool:0x1": true, "u32:5": 2})"), R"(at "u32:5": the same field as "u32:0x5")");
}

TEST(msgjsonText, MemberNamesUseVocabularyNamesOnlyWithoutFlagBits) {
  const std::pair<uint32_t, const char*> cases[] = {
      {kr::SYS_CMD.id, "u32:SYS_CMD"},
      {kr::u64_id(kr::SYS_CMD.number()).id, "u64:SYS_CMD"},
      {kr::STD_OBJS.id, "message[]:STD_OBJS"},
      {kr::u32_id(0xFE0099).id, "u32:0xfe0099"},
      {kr::u32_id(5).id, "u32:0x5"},
      {kr::u32_id(0x2000005).id, "u32:0x2000005"},
      {kr::u32_id(0x4FF0007).id, "u32:0x4ff0007"},  // SYS_CMD's number with flag bit 26
      {kr::raw_array_id(0).id, "raw[]:0x0"},
  };
  for (const auto& [id, name] : cases) {
    message m;
    switch (kr::kind::of(id)) {
      case kr::kind::kU32: m.insert(kr::u32_id(id), 0); break;
      case kr::kind::kU64: m.insert(kr::u64_id(id), 0); break;
      case kr::kind::kArray | kr::kind::kMessage: m.insert(kr::message_array_id(id), std::vector<kr::flat_message>{}); break;
      default: m.insert(kr::raw_array_id(id), std::vector<Bytes>{});
    }
    const std::string text = messageToJson(m, -1);
    EXPECT_EQ(text.substr(0, text.find('"', 2) + 1), std::string("{\"") + name + "\"") << text;
    EXPECT_EQ(sortedIds(parse(text)), std::vector<unsigned>{id});
  }
}

TEST(msgjsonText, U32ValuesAreNamedOnlyInTheirOwnFamily) {
  const struct {
    uint32_t number;
    unsigned value;
    const char* json;
  } cases[] = {
      {kr::SYS_CMD.number(), kr::CMD_GETALL, "\"CMD_GETALL\""},
      {kr::SYS_CMD.number(), 0, "0"},                   // not ERROR_OK
      {kr::SYS_CMD.number(), 0xFE0009, "16646153"},     // a command without a name
      {kr::SYS_ERRNO.number(), 0, "\"ERROR_OK\""},
      {kr::SYS_ERRNO.number(), 0xFE0008, "16646152"},   // described, not named
      {kr::SYS_TYPE.number(), kr::TYPE_REPLY, "\"TYPE_REPLY\""},
      {kr::SYS_TYPE.number(), 0, "0"},                  // not DREASON_DISCONNECTED
      {kr::SYS_STATUS.number(), kr::STATUS_ERROR, "\"STATUS_ERROR\""},
      {kr::SYS_STATUS.number(), kr::CMD_GETALL, "16646148"},
      {kr::SYS_DREASON.number(), kr::DREASON_CRASHED, "\"DREASON_CRASHED\""},
      {kr::SYS_DREASON.number(), 2, "2"},
      {kr::SYS_CMD.number() | 0x2000000, kr::CMD_GETALL, "16646148"},  // flagged: not SYS_CMD
      {kr::STD_ID.number(), kr::CMD_GETALL, "16646148"},
  };
  for (const auto& c : cases) {
    message m;
    m.insert(kr::u32_id(c.number), c.value);
    const std::string text = messageToJson(m, -1);
    EXPECT_EQ(text.substr(text.find(':', 6) + 1), std::string(c.json) + "}") << text;
    EXPECT_EQ(parse(text), m);
  }
}

TEST(msgjsonText, StringsRawAndNestedMessages) {
  auto valueOf = [](const message& m) {
    const std::string t = messageToJson(m, -1);
    return t.substr(t.find("\":") + 2, t.size() - t.find("\":") - 3);
  };
  auto str = [](std::string s) {
    message m;
    m.insert(kr::string_id(1), std::move(s));
    return m;
  };
  EXPECT_EQ(valueOf(str("")), "\"\"");
  EXPECT_EQ(valueOf(str(std::string("a\0b\n", 4))), "\"a\\u0000b\\n\"");
  EXPECT_EQ(valueOf(str("\xf0\x9f\x98\x80")), "\"\xf0\x9f\x98\x80\"");
  // Overlong, surrogate, above U+10FFFF, stray continuation, truncated.
  for (const char* bad : {"\xc0\x80", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\x80", "\xe2\x9c"}) {
    const std::string s(bad);
    EXPECT_EQ(valueOf(str(s)), "{\"hex\":\"" + kr::msgjson::toHex((const unsigned char*)bad, s.size()) + "\"}");
    EXPECT_EQ(parse(messageToJson(str(s))), str(s));
  }
  message raw;
  raw.insert(kr::raw_id(1), Bytes{});
  EXPECT_EQ(valueOf(raw), "\"\"");
  message nested;
  nested.insert(kr::message_id(1), kr::flat_message());  // zero bytes parse as empty
  EXPECT_EQ(valueOf(nested), "{}");
  nested.insert(kr::message_id(1), kr::flat_message(Bytes{0x4d, 0x33}));
  EXPECT_EQ(valueOf(nested), "\"flat:4d33\"");
  EXPECT_EQ(parse(messageToJson(nested)), nested);
}

// ---- Round trips --------------------------------------------------------------------

TEST(msgjsonRoundTrip, GeneratedMessagesComeBackEqualAndPrintIdentically) {
  Gen gen(20240611);
  for (int i = 0; i < 2000; ++i) {
    const message m = gen.make(0);
    SCOPED_TRACE(testing::Message() << "message " << i << ": " << hexOf(flat(m)));
    for (int indent : {2, -1}) {
      const std::string text = messageToJson(m, indent);
      const message back = parse(text);
      ASSERT_EQ(back, m) << text;
      ASSERT_EQ(sortedIds(back), sortedIds(m));
      ASSERT_EQ(messageToJson(back, indent), text);  // and prints identically
    }
    // The flat route: bytes -> text is the message's text, and text ->
    // bytes is the flat form of the message the text converts to.
    const Bytes f = flat(m);
    const std::string text = messageToJson(m);
    std::string fromFlat, error;
    ASSERT_TRUE(flatToJson(f.data(), f.size(), fromFlat, error)) << error;
    ASSERT_EQ(fromFlat, text);
    Bytes f2;
    ASSERT_TRUE(flatFromJson(text, f2, error)) << error;
    ASSERT_EQ(f2, flat(parse(text)));
    ASSERT_EQ(message(f2), m);
    // Removals leave no trace in the text.
    message trimmed = m;
    const std::vector<unsigned> ids = m.ids();
    for (size_t k = 0; k < ids.size(); k += 2) trimmed.remove(ids[k]);
    const std::string trimmedText = messageToJson(trimmed);
    ASSERT_EQ(parse(trimmedText), trimmed);
    ASSERT_EQ(messageToJson(parse(trimmedText)), trimmedText);
  }
}

TEST(msgjsonRoundTrip, FieldsAndValuesMaySpellTheirNamesInAnyForm) {
  const message byName = parse(R"({"u32:SYS_CMD": "CMD_GETALL", "string:0x5": "hi", "raw:7": "DEAD"})");
  const message byNumber = parse(R"({"u32:0xff0007": 16646148, "string:5": {"hex": "6869"}, "raw:0X7": "dead"})");
  EXPECT_EQ(byName, byNumber);
  EXPECT_EQ(byName.get(kr::SYS_CMD), kr::CMD_GETALL);
  EXPECT_EQ(byName.get(kr::raw_id(7)), (Bytes{0xde, 0xad}));
  // Any known constant in any u32 field, also in arrays.
  const message m = parse(R"({"u32:0x9": "ERROR_TIMEOUT", "u32[]:SYS_TO": ["TYPE_REPLY", 14]})");
  EXPECT_EQ(m.get(kr::u32_id(9)), kr::ERROR_TIMEOUT);
  EXPECT_EQ(m.get(kr::SYS_TO), (std::vector<unsigned>{2, 14}));
}

TEST(msgjsonRoundTrip, FlatOutputPutsRoutingPathsFirst) {
  const std::string json = R"({"u32[]:SYS_TO": [1], "u32[]:0x5": [2], "u32[]:SYS_FROM": [3], "u32:0x6": 4})";
  Bytes out;
  std::string error;
  ASSERT_TRUE(flatFromJson(json, out, error)) << error;
  EXPECT_EQ(hexOf(out).substr(0, 44), "4d32" "0100ff88" "0100" "01000000" "0200ff88" "0100" "03000000");
  EXPECT_EQ(message(out), parse(json));
}

// ---- Errors ---------------------------------------------------------------------------

TEST(msgjsonErrors, MalformedJsonNamesItsPosition) {
  const std::pair<const char*, const char*> cases[] = {
      {"", "JSON error at line 1, column 1 (byte 1): "},
      {"{\n  \"u32:1\": 5,\n  \"u32:2\" 6\n}", "JSON error at line 3, column 11 (byte 27): "},
      {"{\"u32:1\": tru}", "JSON error at line 1, column 14 (byte 14): "},
      {"{\"u32:1\": 1} x", "JSON error at line 1, column 14 (byte 14): "},
      {"{\"string:1\": \"\xff\"}", "JSON error at line 1, column 15 (byte 15): "},
  };
  for (const auto& [json, prefix] : cases) {
    const std::string e = errorOf(json);
    EXPECT_EQ(e.substr(0, std::string(prefix).size()), prefix) << e;
    EXPECT_EQ(e.find('\n'), std::string::npos) << e;
    EXPECT_TRUE(std::all_of(e.begin(), e.end(), [](char c) { return c >= 0x20 && c < 0x7f; })) << e;
  }
}

TEST(msgjsonErrors, SemanticErrorsNameTheMemberPath) {
  const std::pair<std::string, std::string> cases[] = {
      {"[1]", "the JSON text is not an object"},
      {R"({"u33:1": 1})", R"(at "u33:1": unknown kind "u33" (bool, u32, u64, addr6, string, message, raw, or one of them followed by []))"},
      {R"({"u32": 1})", R"(at "u32": a member name is "<kind>:<field>", e.g. "u32:SYS_CMD")"},
      {R"({"u32:SYS_NOPE": 1})", R"(at "u32:SYS_NOPE": unknown field name "SYS_NOPE")"},
      {R"({"u32:0x8000000": 1})", R"(at "u32:0x8000000": field number above 0x7ffffff (bits 31..27 are the kind))"},
      {R"({"u32:99999999999999999999": 1})", R"(at "u32:99999999999999999999": field number above 0x7ffffff (bits 31..27 are the kind))"},
      {R"({"u32:0x1000005": 1})", R"(at "u32:0x1000005": bit 24 (0x1000000) is never part of a stored field id)"},
      {R"({"u32:0x": 1})", R"(at "u32:0x": bad hex field number "0x")"},
      {R"({"u32:5": 1, "u32:0x5": 2})", R"(at "u32:0x5": the same field as "u32:5")"},
      {R"({"u32:SYS_CMD": 1, "u32:0xff0007": 2})", R"(at "u32:0xff0007": the same field as "u32:SYS_CMD")"},
      {R"({"message:0x9": {"u32:0x1": 1, "u32:0x1": 2}})", R"(at "message:0x9" / "u32:0x1": the member appears twice)"},
      {R"({"message:0x9": {"u32:0x1": -1}})", R"(at "message:0x9" / "u32:0x1": expected a number 0..4294967295 or a constant name)"},
      {R"({"u32:1": 4294967296})", R"(at "u32:1": expected a number 0..4294967295 or a constant name)"},
      {R"({"u32:1": 1.0})", R"(at "u32:1": expected a number 0..4294967295 or a constant name)"},
      {R"({"u32:1": "CMD_NOPE"})", R"(at "u32:1": unknown constant name "CMD_NOPE")"},
      {R"({"u64:1": 18446744073709551616})", R"(at "u64:1": expected a number 0..18446744073709551615)"},
      {R"({"bool:1": 1})", R"(at "bool:1": expected true or false)"},
      {R"({"addr6:1": "1::2::3"})", R"(at "addr6:1": bad IPv6 address "1::2::3")"},
      {R"({"addr6:1": 5})", R"(at "addr6:1": expected an IPv6 address string)"},
      {R"({"string:1": 5})", R"(at "string:1": expected a string or {"hex": "<hex digits>"})"},
      {R"({"string:1": {"hex": "abc"}})", R"(at "string:1": bad hex: odd number of hex digits)"},
      {R"({"string:1": {"hex": "ab", "x": 1}})", R"(at "string:1": expected a string or {"hex": "<hex digits>"})"},
      {R"({"raw:1": "0g"})", R"(at "raw:1": bad hex: bad hex digit 'g' at offset 1)"},
      {R"({"raw:1": null})", R"(at "raw:1": expected a string of hex digits)"},
      {R"({"message:1": "4d32"})", R"(at "message:1": expected an object or a "flat:<hex digits>" string)"},
      {R"({"message:1": "flat:4d3"})", R"(at "message:1": bad hex: odd number of hex digits)"},
      {R"({"u32[]:1": 5})", R"(at "u32[]:1": expected an array)"},
      {R"({"message[]:STD_OBJS": [{}, {"addr6[]:0x3": ["::1", "x"]}]})", R"(at "message[]:STD_OBJS" / [1] / "addr6[]:0x3" / [1]: bad IPv6 address "x")"},
      {R"({"bool[]:1": [true, 0]})", R"(at "bool[]:1" / [1]: expected true or false)"},
  };
  for (const auto& [json, expected] : cases) EXPECT_EQ(errorOf(json), expected) << json;
  std::vector<unsigned char> out{1};
  std::string error;
  EXPECT_FALSE(flatFromJson(R"({"raw:1": 7})", out, error));
  EXPECT_EQ(error, R"(at "raw:1": expected a string of hex digits)");
}

TEST(msgjsonErrors, LengthsTheFlatFormCannotHoldAreRefused) {
  const std::string big(65536, 'a');
  EXPECT_EQ(errorOf(R"({"string:1": ")" + big + "\"}"), R"(at "string:1": 65536 bytes, more than 65535)");
  EXPECT_EQ(errorOf(R"({"string:1": ")" + big.substr(1) + "\"}"), "");
  EXPECT_EQ(errorOf(R"({"raw:1": ")" + big + big + "\"}"), R"(at "raw:1": 65536 bytes, more than 65535)");
  std::string many = "[0";
  for (int i = 1; i < 65536; ++i) many += ",0";
  EXPECT_EQ(errorOf(R"({"u32[]:1": )" + many + "]}"), R"(at "u32[]:1": 65536 elements, more than 65535)");
  const std::string half(40000, 'b');
  EXPECT_EQ(errorOf(R"({"message:1": {"string:1": ")" + half + R"(", "string:2": ")" + half + "\"}}"),
            R"(at "message:1": the nested message takes 80014 bytes, more than 65535)");
}

TEST(msgjsonErrors, HostileNestingIsRefusedAndDeepMessagesStayPrintable) {
  EXPECT_EQ(errorOf(std::string(100000, '[')), "JSON nested deeper than 64 levels");
  EXPECT_EQ(errorOf(std::string(64, '[') + std::string(64, ']')), "the JSON text is not an object");
  auto chain = [](int levels) {
    std::string s;
    for (int i = 0; i < levels; ++i) s += "{\"message:0x1\": ";
    return s + "{}" + std::string(levels, '}');
  };
  EXPECT_EQ(errorOf(chain(63)), "");  // 64 objects deep
  EXPECT_EQ(errorOf(chain(64)), "JSON nested deeper than 64 levels");
  // A message nested 200 deep in flat form prints; the levels past the limit
  // as "flat:" text that reads back to the same bytes.
  message m;
  m.insert(kr::u32_id(2), 2);
  for (int i = 0; i < 200; ++i) {
    message outer;
    outer.insert(kr::message_id(1), m);
    m = outer;
  }
  const std::string text = messageToJson(m);
  EXPECT_NE(text.find("\"message:0x1\": \"flat:4d32"), std::string::npos);
  EXPECT_EQ(parse(text), m);
  EXPECT_EQ(messageToJson(parse(text)), text);
}

// ---- The kr-msg binary ------------------------------------------------------------

struct RunResult {
  int status;
  std::string out, err;
};

RunResult runKrMsg(const std::string& args, const std::string& input) {
  char dir[] = "/tmp/kr-msg-test.XXXXXX";
  EXPECT_NE(mkdtemp(dir), nullptr);
  const std::string in = std::string(dir) + "/in", err = std::string(dir) + "/err";
  std::ofstream(in, std::ios::binary) << input;
  FILE* p = popen((std::string(KR_MSG_BINARY) + " " + args + " < " + in + " 2> " + err).c_str(), "r");
  RunResult r{-1, {}, {}};
  char buf[4096];
  for (size_t n; p && (n = fread(buf, 1, sizeof buf, p)) > 0;) r.out.append(buf, n);
  const int status = p ? pclose(p) : -1;
  r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  std::ifstream e(err);
  r.err.assign(std::istreambuf_iterator<char>(e), std::istreambuf_iterator<char>());
  std::remove(in.c_str());
  std::remove(err.c_str());
  rmdir(dir);
  return r;
}

TEST(msgjsonKrMsgBinary, DumpsJsonAndBackFromHexInput) {
  message m;
  m.insert(kr::SYS_CMD, kr::CMD_SETOBJ);
  m.insert(kr::SYS_REQID, 77);
  m.insert(kr::STD_NAME, std::string("eth0"));
  m.insert_vector(kr::SYS_TO, 1, 14);
  m.insert_vector(kr::SYS_FROM, 20);
  const Bytes bytes = flat(m);
  const std::string hex = hexOf(bytes);
  std::string spaced;  // white space anywhere is ignored
  for (size_t i = 0; i < hex.size(); i += 6) spaced += hex.substr(i, 6) + (i % 24 ? " " : "\n ");

  std::ostringstream dump;
  message(flat(m)).dump2(dump);
  RunResult r = runKrMsg("--hex", spaced);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, dump.str());

  r = runKrMsg("--json --hex -", spaced);
  EXPECT_EQ(r.status, 0) << r.err;
  std::string text, error;
  ASSERT_TRUE(flatToJson(bytes.data(), bytes.size(), text, error));
  EXPECT_EQ(r.out, text + "\n");
  EXPECT_NE(r.out.find("\"u32:SYS_CMD\": \"CMD_SETOBJ\""), std::string::npos);
  EXPECT_EQ(runKrMsg("--json --compact --hex", hex).out, R"({"u32:SYS_REQID":77,"u32:SYS_CMD":"CMD_SETOBJ","string:STD_NAME":"eth0","u32[]:SYS_TO":[1,14],"u32[]:SYS_FROM":[20]})" "\n");

  // JSON back to the flat form of an equal message, as hex and as binary.
  Bytes expected;
  ASSERT_TRUE(flatFromJson(r.out, expected, error)) << error;
  EXPECT_EQ(message(expected), m);
  RunResult back = runKrMsg("--from-json --hex", r.out);
  EXPECT_EQ(back.status, 0) << back.err;
  EXPECT_EQ(back.out, hexOf(expected) + "\n");
  back = runKrMsg("--from-json", r.out);
  EXPECT_EQ(back.out, std::string(expected.begin(), expected.end()));
  EXPECT_EQ(runKrMsg("--json", back.out).out, r.out);  // binary input
}

TEST(msgjsonKrMsgBinary, BadInputExitsOneWithOneLineAndBadUsageTwo) {
  auto oneLine = [](const RunResult& r, const std::string& prefix) {
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err.substr(0, prefix.size()), prefix) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  };
  oneLine(runKrMsg("--from-json", "{\n  \"u32:1\": [1,\n}"), "kr-msg: JSON error at line 3, column 1 (byte 18): syntax error");
  oneLine(runKrMsg("--from-json", R"({"u32:1": true})"), R"(kr-msg: at "u32:1": expected a number)");
  oneLine(runKrMsg("--hex", "4d32 0500ff08 01"), "kr-msg: not a flat message: the field at byte 2 (tag 08ff0005) runs past the end");
  oneLine(runKrMsg("--json --hex", "4d33"), "kr-msg: not a flat message: it does not start with the magic bytes 4d 32");
  oneLine(runKrMsg("--hex", "4d3 2x"), "kr-msg: bad hex input: bad hex digit 'x' at offset 5");
  oneLine(runKrMsg("/nonexistent/msg.bin", ""), "kr-msg: cannot open /nonexistent/msg.bin: ");
  for (const char* args : {"--bogus", "--json --from-json", "--compact", "a b"}) EXPECT_EQ(runKrMsg(args, "").status, 2) << args;
  const RunResult help = runKrMsg("--help", "");
  EXPECT_EQ(help.status, 0);
  EXPECT_EQ(help.out.substr(0, 7), "usage: ");
}

}  // namespace
