#include "tools/kr-msg/msgjson.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "kr/message/vocabulary.h"

namespace {

using kr::message;
using namespace kr::msgjson;
using Bytes = std::vector<unsigned char>;

Bytes flat(const message& m) {
  Bytes b;
  m.flatten(b);
  return b;
}

std::string hexOf(const Bytes& b) { return toHex(b.data(), b.size()); }

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

message parse(const std::string& json) {
  message m;
  std::string error;
  EXPECT_TRUE(messageFromJson(json, m, error)) << error << "\n" << json;
  return m;
}

// The error the text converts with ("" when it converts); both readers
// must agree on it.
std::string errorOf(const std::string& json) {
  message m;
  Bytes f;
  std::string error, flatError;
  const bool ok = messageFromJson(json, m, error);
  EXPECT_EQ(flatFromJson(json, f, flatError), ok) << json;
  EXPECT_EQ(flatError, error) << json;
  return ok ? "" : error;
}

// Random messages: every kind, flag bits, edge values, nesting.
constexpr unsigned kU32Edges[] = {0, 1, 2, 255, 256, 0xFFFFFFFF, 0xFE0004, 0xFE0009, 0xFE000D};
constexpr unsigned long long kU64Edges[] = {0, 1, ~0ull, 1ull << 63, 4294967296ull};
constexpr uint32_t kNamedNumbers[] = {0xFF0001, 0xFF0002, 0xFF0003, 0xFF0004, 0xFF0007, 0xFF0008,
                                      0xFF0016, 0xFE0002, 0xFE0009, 0xFEFF27, 0xFE0099};
const std::string kTexts[] = {"", "eth0", "h\xc3\xa9llo \xe2\x9c\x93 \xf0\x9d\x84\x9e", "\xc0\x80",
                              "\xed\xa0\x80", "a\xff", std::string("nul\0in", 6)};

class Gen {
 public:
  explicit Gen(unsigned seed) : rng_(seed) {}
  message make(int depth) {
    message m;
    const bool tables = depth == 0 && pick(4) == 0;  // many bools and u32s
    for (unsigned i = 0, n = tables ? 6 + pick(30) : pick(depth == 0 ? 14 : 6); i < n; ++i)
      addField(m, tables ? pick(2) : pick(14), depth);
    return m;
  }

 private:
  unsigned pick(unsigned n) { return static_cast<unsigned>(rng_() % n); }
  Bytes bytes(unsigned maxLen) {
    Bytes b(pick(maxLen + 1));
    for (auto& c : b) c = static_cast<unsigned char>(rng_());
    return b;
  }
  uint32_t number() {
    const uint32_t n = pick(3) == 0 ? kNamedNumbers[pick(11)] : pick(2) ? pick(40) : rng_() & 0xFFFFFF;
    return n | (pick(5) == 0 ? 0x02000000 : 0) | (pick(8) == 0 ? 0x04000000 : 0);
  }
  unsigned u32() { return pick(2) ? kU32Edges[pick(9)] : static_cast<unsigned>(rng_()); }
  unsigned long long u64() { return pick(2) ? kU64Edges[pick(5)] : (uint64_t{rng_()} << 32) | rng_(); }
  kr::IPAddr6 addr6() {
    kr::IPAddr6 a;
    if (pick(3) == 0) return kr::IPAddr6(kr::IPAddr::fromOctets(10, 0, 0, pick(256)));
    for (auto& b : a.bytes) b = pick(3) ? 0 : static_cast<unsigned char>(rng_());
    return a;
  }
  std::string string() {
    const Bytes b = bytes(pick(10) == 0 ? 300 : 12);
    return pick(2) ? kTexts[pick(7)] : std::string(b.begin(), b.end());
  }
  kr::flat_message nested(int depth) {
    const unsigned k = pick(depth < 2 ? 6 : 2);  // 0: mostly malformed; 1: a truncated tag
    return kr::flat_message(k == 0 ? bytes(8) : k == 1 ? Bytes{0x4D, 0x32, 0x05, 0x00} : flat(make(depth + 1)));
  }
  void addField(message& m, unsigned kind, int depth) {
    const uint32_t n = number();
    auto array = [&](auto element) { std::vector<decltype(element())> v(pick(5)); for (auto&& e : v) e = element(); return v; };
    switch (kind) {
      case 0: m.insert(kr::bool_id(n), pick(2) == 1); break;
      case 1: m.insert(kr::u32_id(n), u32()); break;
      case 2: m.insert(kr::u64_id(n), u64()); break;
      case 3: m.insert(kr::addr6_id(n), addr6()); break;
      case 4: m.insert(kr::string_id(n), string()); break;
      case 5: m.insert(kr::message_id(n), nested(depth)); break;
      case 6: m.insert(kr::raw_id(n), bytes(pick(10) == 0 ? 300 : 6)); break;
      case 7: m.insert(kr::bool_array_id(n), array([&] { return pick(2) == 1; })); break;
      case 8: m.insert(kr::u32_array_id(n), array([&] { return u32(); })); break;
      case 9: m.insert(kr::u64_array_id(n), array([&] { return u64(); })); break;
      case 10: m.insert(kr::addr6_array_id(n), array([&] { return addr6(); })); break;
      case 11: m.insert(kr::string_array_id(n), array([&] { return string(); })); break;
      case 12: m.insert(kr::message_array_id(n), array([&] { return nested(depth); })); break;
      default: m.insert(kr::raw_array_id(n), array([&] { return bytes(5); })); break;
    }
  }

  std::mt19937 rng_;
};

// One message that shows most rules at once; its text is the convention.
message representative() {
  message inner, m;
  inner.insert(kr::STD_NAME, std::string("eth0"));
  inner.insert(kr::u32_id(0x2000005), 7);
  m.insert(kr::SYS_CMD, kr::CMD_GETALL);
  m.insert(kr::SYS_TYPE, 0u);
  m.insert(kr::SYS_REPLYEXP, true);
  m.insert(kr::u64_id(0xFE0099), ~0ull);
  m.insert(kr::SYS_RADDR6, kr::IPAddr6(kr::IPAddr::fromOctets(10, 0, 0, 1)));
  const std::string strings[] = {"", std::string("a\0b\n", 4), "\xf0\x9f\x98\x80", "caf\xc3\xa9", std::string("\xff\x00", 2)};
  for (unsigned i = 0; i < std::size(strings); ++i) m.insert(kr::string_id(i + 1), strings[i]);
  m.insert(kr::raw_id(7), Bytes{0xde, 0xad});
  m.insert(kr::raw_id(8), Bytes{});
  m.insert(kr::message_id(9), kr::flat_message());  // zero bytes parse as empty
  m.insert(kr::message_id(10), kr::flat_message(Bytes{0x4d, 0x33}));
  m.insert(kr::STD_FILTER, inner);
  m.insert(kr::STD_OBJS, std::vector<kr::flat_message>{kr::flat_message(flat(inner)),
                                                         kr::flat_message(Bytes{0x4d, 0x32, 0x01})});
  m.insert_vector(kr::SYS_TO, 1, 14);
  return m;
}

TEST(msgjsonText, RepresentativeMessageIsPinned) {
  EXPECT_EQ(messageToJson(representative(), -1),
            R"({"bool:SYS_REPLYEXP":true,"u32:SYS_TYPE":0,"u32:SYS_CMD":"CMD_GETALL","u64:0xfe0099":18446744073709551615,)"
            R"("addr6:SYS_RADDR6":"::ffff:10.0.0.1","string:0x1":"","string:0x2":"a\u0000b\n","string:0x3":"😀",)"
            R"("string:0x4":"café","string:0x5":{"hex":"ff00"},"message:0x9":{},"message:0xa":"flat:4d33",)"
            R"("message:STD_FILTER":{"u32:0x2000005":7,"string:STD_NAME":"eth0"},"raw:0x7":"dead","raw:0x8":"",)"
            R"("u32[]:SYS_TO":[1,14],"message[]:STD_OBJS":[{"u32:0x2000005":7,"string:STD_NAME":"eth0"},"flat:4d3201"]})");
  const message small = parse(R"({"message:STD_FILTER":{"string:STD_NAME":"eth0","u32:0x2000005":7},"u32[]:SYS_TO":[1,14]})");
  EXPECT_EQ(messageToJson(small), "{\n  \"message:STD_FILTER\": {\n    \"u32:0x2000005\": 7,\n    \"string:STD_NAME\": "
                                  "\"eth0\"\n  },\n  \"u32[]:SYS_TO\": [\n    1,\n    14\n  ]\n}");
  // Strict UTF-8: overlong, surrogate, above U+10FFFF, stray continuation, truncated.
  for (const std::string bad : {"\xc0\x80", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\x80", "\xe2\x9c"}) {
    message m;
    m.insert(kr::string_id(1), bad);
    EXPECT_EQ(messageToJson(m, -1), R"({"string:0x1":{"hex":")" + hexOf(Bytes(bad.begin(), bad.end())) + "\"}}");
  }
  // A message nested 200 deep prints; the levels past the depth limit as
  // "flat:" text that reads back to the same bytes.
  message deep;
  deep.insert(kr::u32_id(2), 2);
  for (int i = 0; i < 200; ++i) deep = [&] { message outer; outer.insert(kr::message_id(1), deep); return outer; }();
  const std::string text = messageToJson(deep);
  EXPECT_NE(text.find("\"message:0x1\": \"flat:4d32"), std::string::npos);
  EXPECT_EQ(parse(text), deep);
  EXPECT_EQ(messageToJson(parse(text)), text);
}

// Each text reads as one field of the given id and prints back unchanged;
// an alternative spelling, where given, reads as the same message.
TEST(msgjsonText, FieldNamesWithoutFlagBitsAndU32ValuesInTheirOwnFamilyAreNamed) {
  using namespace kr;
  const struct { uint32_t id; const char *text, *alternative = nullptr; } cases[] = {
      {SYS_CMD.id, R"({"u32:SYS_CMD":0})"},  // not ERROR_OK
      {u64_id(SYS_CMD.number()).id, R"({"u64:SYS_CMD":0})"},
      {u32_id(0x4FF0007).id, R"({"u32:0x4ff0007":1})"},  // SYS_CMD's number with flag bit 26
      {raw_array_id(0).id, R"({"raw[]:0x0":[]})"},
      {SYS_CMD.id, R"({"u32:SYS_CMD":"CMD_GETALL"})", R"({"u32:0xff0007": 16646148})"},
      {SYS_CMD.id, R"({"u32:SYS_CMD":16646153})"},  // a command without a name
      {SYS_ERRNO.id, R"({"u32:SYS_ERRNO":"ERROR_OK"})"},
      {SYS_ERRNO.id, R"({"u32:SYS_ERRNO":16646152})"},  // described, not named
      {SYS_TYPE.id, R"({"u32:SYS_TYPE":"TYPE_REPLY"})"},
      {SYS_STATUS.id, R"({"u32:SYS_STATUS":"STATUS_ERROR"})"},
      {SYS_STATUS.id, R"({"u32:SYS_STATUS":16646148})", R"({"u32:SYS_STATUS":"CMD_GETALL"})"},
      {SYS_DREASON.id, R"({"u32:SYS_DREASON":"DREASON_CRASHED"})"},
      {SYS_DREASON.id, R"({"u32:SYS_DREASON":2})"},
      {u32_id(0x2FF0007).id, R"({"u32:0x2ff0007":16646148})"},  // flagged: not SYS_CMD
      {STD_ID.id, R"({"u32:STD_ID":16646148})"},
      {u32_id(9).id, R"({"u32:0x9":16646157})", R"({"u32:9": "ERROR_TIMEOUT"})"},
      {SYS_TO.id, R"({"u32[]:SYS_TO":[2,14]})", R"({"u32[]:16711681": ["TYPE_REPLY", 14]})"},
      {string_id(5).id, R"({"string:0x5":"hi"})", R"({"string:5": {"hex": "6869"}})"},
      {raw_id(7).id, R"({"raw:0x7":"dead"})", R"({"raw:0X7": "DEAD"})"},
  };
  for (const auto& c : cases) {
    const message m = parse(c.text);
    EXPECT_EQ(m.ids(), std::vector<unsigned>{c.id}) << c.text;
    EXPECT_EQ(messageToJson(m, -1), c.text);
    if (c.alternative) { EXPECT_EQ(parse(c.alternative), m) << c.alternative; }
  }
}

// Also: members come in ascending order of the complete id however the
// message was built (insertion order, table growth, removals), and reading
// ignores member order.
TEST(msgjsonRoundTrip, GeneratedMessagesComeBackEqualAndPrintInIdOrder) {
  Gen gen(20240611);
  for (int i = 0; i < 2000; ++i) {
    const message m = gen.make(0);
    SCOPED_TRACE(testing::Message() << "message " << i << ": " << hexOf(flat(m)));
    const std::string pretty = messageToJson(m);
    ASSERT_EQ(parse(pretty), m) << pretty;
    ASSERT_EQ(messageToJson(parse(pretty)), pretty);
    std::vector<unsigned> ids = m.ids();
    std::sort(ids.begin(), ids.end());
    std::string inOrder, reversed, odd;  // each field's own text joined; and of those at odd positions
    message trimmed = m;
    for (size_t k = 0; k < ids.size(); ++k) {
      message single = m;
      for (unsigned other : ids) if (other != ids[k]) single.remove(other);
      const std::string t = messageToJson(single, -1), member = t.substr(1, t.size() - 2);
      inOrder += (k ? "," : "") + member;
      reversed = member + (k ? "," : "") + reversed;
      if (k % 2) odd += (odd.empty() ? "" : ",") + member;
      else trimmed.remove(ids[k]);
    }
    ASSERT_EQ(messageToJson(m, -1), "{" + inOrder + "}");
    ASSERT_EQ(parse("{" + reversed + "}"), m) << reversed;
    ASSERT_EQ(messageToJson(trimmed, -1), "{" + odd + "}");
    // The flat routes: bytes -> the message's text; text -> the flat form
    // of the message the text reads as.
    const Bytes f = flat(m);
    std::string fromFlat, error;
    ASSERT_TRUE(flatToJson(f.data(), f.size(), fromFlat, error)) << error;
    ASSERT_EQ(fromFlat, pretty);
    Bytes f2;
    ASSERT_TRUE(flatFromJson("{" + reversed + "}", f2, error)) << error;
    ASSERT_EQ(f2, flat(parse("{" + reversed + "}")));  // SYS_TO and SYS_FROM first, as flatten writes them
  }
}

// An expected text ending in ": " is the prefix of a malformed-JSON error
// (the rest is the parser's own wording).
TEST(msgjsonErrors, ErrorsNameTheJsonPositionOrTheMemberPath) {
  const std::string big(65536, 'a'), half(40000, 'b');
  std::string many = "[0", deep;
  for (int i = 1; i < 65536; ++i) many += ",0";
  for (int i = 0; i < 63; ++i) deep += "{\"message:0x1\": ";
  const std::pair<std::string, std::string> cases[] = {
      {"", "JSON error at line 1, column 1 (byte 1): "},
      {"{\n  \"u32:1\": 5,\n  \"u32:2\" 6\n}", "JSON error at line 3, column 11 (byte 27): "},
      {"{\"u32:1\": 1} x", "JSON error at line 1, column 14 (byte 14): "},
      {"{\"string:1\": \"\xff\"}", "JSON error at line 1, column 15 (byte 15): "},
      {"[1]", "the JSON text is not an object"},
      {R"({"u33:1": 1})", R"(at "u33:1": unknown kind "u33" (bool, u32, u64, addr6, string, message, raw, or one of them followed by []))"},
      {R"({"u32": 1})", R"(at "u32": a member name is "<kind>:<field>", e.g. "u32:SYS_CMD")"},
      {R"({"u32:SYS_NOPE": 1})", R"(at "u32:SYS_NOPE": unknown field name "SYS_NOPE")"},
      {R"({"u32:0x8000000": 1})", R"(at "u32:0x8000000": field number above 0x7ffffff (bits 31..27 are the kind))"},
      {R"({"u32:99999999999999999999": 1})", R"(at "u32:99999999999999999999": field number above 0x7ffffff (bits 31..27 are the kind))"},
      {R"({"u32:0x1000005": 1})", R"(at "u32:0x1000005": bit 24 (0x1000000) is never part of a stored field id)"},
      {R"({"u32:0x": 1})", R"(at "u32:0x": bad hex field number "0x")"},
      {R"({"u32:0x5": 1, "bool:0x1": true, "u32:5": 2})", R"(at "u32:5": the same field as "u32:0x5")"},
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
      // Lengths the flat form cannot hold.
      {R"({"string:1": ")" + big + "\"}", R"(at "string:1": 65536 bytes, more than 65535)"},
      {R"({"string:1": ")" + big.substr(1) + "\"}", ""},
      {R"({"raw:1": ")" + big + big + "\"}", R"(at "raw:1": 65536 bytes, more than 65535)"},
      {R"({"u32[]:1": )" + many + "]}", R"(at "u32[]:1": 65536 elements, more than 65535)"},
      {R"({"message:1": {"string:1": ")" + half + R"(", "string:2": ")" + half + "\"}}",
       R"(at "message:1": the nested message takes 80014 bytes, more than 65535)"},
      // Hostile nesting.
      {std::string(100000, '['), "JSON nested deeper than 64 levels"},
      {deep + "{}" + std::string(63, '}'), ""},  // 64 objects deep
      {deep + R"({"message:0x1": {})" + std::string(64, '}'), "JSON nested deeper than 64 levels"},
  };
  for (const auto& [json, expected] : cases) {
    const std::string e = errorOf(json);
    EXPECT_EQ(expected.ends_with(": ") ? e.substr(0, expected.size()) : e, expected) << json.substr(0, 80);
    EXPECT_TRUE(std::all_of(e.begin(), e.end(), [](char c) { return c >= 0x20 && c < 0x7f; })) << e;  // one line
  }
}

struct RunResult { std::string out, err; };

// Runs kr-msg with `input` on standard input, expecting exit `status`.
RunResult krMsg(const std::string& args, const std::string& input, int status = 0) {
  char dir[] = "/tmp/kr-msg-test.XXXXXX";
  EXPECT_NE(mkdtemp(dir), nullptr);
  const std::string d = dir;
  std::ofstream(d + "/in", std::ios::binary) << input;
  const int got = std::system((KR_MSG_BINARY " " + args + " <" + d + "/in >" + d + "/out 2>" + d + "/err").c_str());
  RunResult r{readFile(d + "/out"), readFile(d + "/err")};
  EXPECT_EQ(WIFEXITED(got) ? WEXITSTATUS(got) : -1, status) << args << ": " << r.err;
  std::filesystem::remove_all(d);
  return r;
}

TEST(msgjsonKrMsgBinary, ConvertsBothWaysAndRefusesBadInputAndUsage) {
  const message m = representative();
  const std::string hex = hexOf(flat(m));
  std::string spaced;  // white space anywhere is ignored
  for (size_t i = 0; i < hex.size(); i += 6) spaced += hex.substr(i, 6) + (i % 24 ? " " : "\n ");
  std::ostringstream dump;
  message(flat(m)).dump2(dump);
  EXPECT_EQ(krMsg("--hex", spaced).out, dump.str());
  EXPECT_EQ(krMsg("--json --compact --hex", hex).out, messageToJson(m, -1) + "\n");
  const std::string json = krMsg("--json --hex -", spaced).out;
  EXPECT_EQ(json, messageToJson(m) + "\n");
  // JSON back to the flat form, as hex and as binary.
  const Bytes expected = flat(parse(json));
  EXPECT_EQ(krMsg("--from-json --hex", json).out, hexOf(expected) + "\n");
  const std::string binary = krMsg("--from-json", json).out;
  EXPECT_EQ(binary, std::string(expected.begin(), expected.end()));
  EXPECT_EQ(krMsg("--json", binary).out, json);  // binary input
  EXPECT_EQ(krMsg("--help", "").out.substr(0, 7), "usage: ");
  // Bad input: status 1 and one line on standard error.
  auto oneLine = [](const std::string& args, const std::string& input, const std::string& prefix) {
    const RunResult r = krMsg(args, input, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err.substr(0, prefix.size()), prefix) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  };
  oneLine("--from-json", "{\n  \"u32:1\": [1,\n}", "kr-msg: JSON error at line 3, column 1 (byte 18): syntax error");
  oneLine("--from-json", R"({"u32:1": true})", R"(kr-msg: at "u32:1": expected a number)");
  oneLine("--hex", "4d32 0500ff08 01", "kr-msg: not a flat message: the field at byte 2 (tag 08ff0005) runs past the end");
  oneLine("--json --hex", "4d33", "kr-msg: not a flat message: it does not start with the magic bytes 4d 32");
  oneLine("--hex", "4d3 2x", "kr-msg: bad hex input: bad hex digit 'x' at offset 5");
  oneLine("/nonexistent/msg.bin", "", "kr-msg: cannot open /nonexistent/msg.bin: ");
  for (const char* args : {"--bogus", "--json --from-json", "--compact", "a b"}) krMsg(args, "", 2);
}

}  // namespace
