#include "kr/message/dump.h"

#include <gtest/gtest.h>

#include <regex>
#include <sstream>

#include "kr/message/vocabulary.h"
#include "kr/testing/alloc_counter.h"

namespace kr {
namespace {

std::string dump(const message& m, const char* prefix = "", unsigned level = 0) {
  std::ostringstream os;
  m.dump2(os, prefix, level);
  return os.str();
}

std::string dumpInto(const message& m, char* buf, unsigned cap) {
  Dumper d(buf, cap);
  m.dump2(d, "", 0);
  return std::string(d.view());
}

// The Dumper writes numbers as 0x and eight hex digits; read them back as
// decimal to compare with the stream form.
std::string decimalNumbers(const std::string& s) {
  static const std::regex hex("0x([0-9a-f]{8})");
  std::string out;
  auto last = s.cbegin();
  for (std::sregex_iterator it(s.begin(), s.end(), hex), end; it != end; ++it) {
    out.append(last, (*it)[0].first);
    out += std::to_string(std::stoul((*it)[1].str(), nullptr, 16));
    last = (*it)[0].second;
  }
  return out.append(last, s.cend());
}

std::string name(unsigned int id) {
  std::ostringstream os;
  os << message::idstr(id);
  return os.str();
}

TEST(Dump, EmptyMessageIsTheHeaderAlone) { EXPECT_EQ(dump(message()), "--- kr::message --------\n"); }

TEST(Dump, EveryKindHasItsLine) {
  message m;
  m.insert(SYS_CMD, CMD_GETALL);
  m.insert(SYS_REPLYEXP, true);
  m.insert(string_id(3), "text");
  m.insert(raw_id(4), std::vector<unsigned char>{1, 2, 3});
  m.insert(u64_id(5), 1234567890123ull);
  IPAddr6 a;
  a.fromStr("2001:db8::1");
  m.insert(addr6_id(6), a);
  m.insert(SYS_TO, {1, 14});
  m.insert(bool_array_id(7), {true, false});
  m.insert(string_array_id(8), {"a", "b"});
  m.insert(raw_array_id(9), {{1, 2}, {}});
  EXPECT_EQ(dump(m, "> "),
            "> --- kr::message --------\n"
            ">  bool [SYS_REPLYEXP]=true\n"
            ">  u32 [SYS_CMD]=CMD_GETALL\n"
            ">  addr6 [6]=2001:db8::1\n"
            ">  u64 [5]=1234567890123\n"
            ">  raw [4]=#3 3 2 1 \n"
            ">  string [3]=text\n"
            ">  raw[2] [9]=#2, #0, \n"
            ">  string[2] [8]=a, b, \n"
            ">  bool[2] [7]=true, false, \n"
            ">  u32[2] [SYS_TO]=1, 14, \n");
}

TEST(Dump, RawShowsAtMostSixBytesLastFirst) {
  message m;
  m.insert(raw_id(1), std::vector<unsigned char>{0x10, 0x20, 0x30, 0x40, 0x50, 0xab, 7, 8, 9, 10});
  std::ostringstream os;
  m.dump2(os, "", 0);
  os << 255;  // the stream is back in decimal
  EXPECT_EQ(os.str(), "--- kr::message --------\n raw [1]=#10 ab 50 40 30 20 10 \n255");
}

TEST(Dump, NestedMessagesAreIndentedOneLevelDeeper) {
  message inner;
  inner.insert(string_id(1), "in");
  message m;
  m.insert(message_id(2), inner);
  m.insert(message_array_id(3), {inner});
  EXPECT_EQ(dump(m, "", 1),
            "    --- kr::message --------\n"
            "     message [2]...\n"
            "        --- kr::message --------\n"
            "         string [1]=in\n"
            "     message[1] [3]..\n"
            "        --- kr::message --------\n"
            "         string [1]=in\n");
}

TEST(Dump, U32ValuesAreNamedWithDeliberateFallThrough) {
  const struct {
    unsigned int id, value;
    const char* text;
  } cases[] = {
      {SYS_CMD.id, 0xFE0004, "CMD_GETALL"},
      {SYS_CMD.id, 0, "ERROR_OK"},
      {SYS_CMD.id, ERROR_TIMEOUT, "CMD_GET"},  // the same number
      {SYS_CMD.id, ERROR_BUSY, "ERROR_BUSY"},
      {SYS_CMD.id, 0xFE0009, "ERROR_NOTALLOWED"},
      {SYS_ERRNO.id, 0xFE0008, "16646152 0xfe0008 0.254.0.8"},
      {SYS_ERRNO.id, 0, "ERROR_OK"},
      {SYS_ERRNO.id, CMD_GETALL, "ERROR_UNKNOWNID"},
      {SYS_TYPE.id, 2, "TYPE_REPLY"},
      {SYS_TYPE.id, 0, "DREASON_DISCONNECTED"},
      {SYS_TYPE.id, CMD_SETOBJ, "CMD_SETOBJ"},
      {SYS_STATUS.id, 2, "STATUS_ERROR"},
      {SYS_STATUS.id, ERROR_BUSY, "ERROR_BUSY"},
      {SYS_DREASON.id, 1, "DREASON_CRASHED"},
      {SYS_DREASON.id, 3, "3 0x3 0.0.0.3"},
      {u32_id(7).id, 0x0A000001, "167772161 0xa000001 10.0.0.1"},
      {u32_id(7).id, 0xFFFFFFFF, "-1 0xffffffff 255.255.255.255"},
      {u32_id(7).id, 0, "0 0x0 0.0.0.0"},
  };
  for (const auto& c : cases) EXPECT_STREQ(u32ValueText(c.id, c.value), c.text) << std::hex << c.id << " " << c.value;
}

TEST(Dump, IdNames) {
  EXPECT_EQ(name(SYS_TO.id), "SYS_TO");
  EXPECT_EQ(name(STD_ADDR_4.id), "STD_ADDR_4");
  EXPECT_EQ(name(0x08FE0099), "std::153");
  EXPECT_EQ(name(0x88FF0014), "sys::20");
  EXPECT_EQ(name(0x08FD0007), "local::7");
  EXPECT_EQ(name(0x20000005), "5");
  EXPECT_EQ(name(0x08010003), "loader::3");
  EXPECT_EQ(name(0x080E0001), "names::1");
  EXPECT_EQ(name(0x08050005), "327680::5");
}

TEST(Dumper, NumberFormatsAndTruncation) {
  char buf[128];
  Dumper d(buf, sizeof buf);
  IPAddr6 a;
  a.fromStr("2001:db8::1");
  d << 42u << " " << 0x0102030405060708ull << " " << static_cast<unsigned char>(7) << " " << a;
  EXPECT_EQ(d.view(), "0x0000002a 0x0102030405060708 07 2001:0db8:0000:0000:0000:0000:0000:0001");
  d << message::idstr(0x08FE0099);
  EXPECT_TRUE(d.view().ends_with("std::0x00000099"));

  message m;
  m.insert(string_id(1), "0123456789012345");
  char small[10];
  EXPECT_EQ(dumpInto(m, small, sizeof small), "--- kr::me");
}

TEST(Dumper, MatchesTheStreamWhereNumbersAgree) {
  message m;
  m.insert(SYS_CMD, CMD_SETOBJ);
  m.insert(bool_id(2), false);
  m.insert(bool_id(3), true);
  m.insert(STD_DESCR, "uplink");
  m.insert(string_array_id(9), {"x"});
  char buf[1024];
  std::string viaDumper = dumpInto(m, buf, sizeof buf);
  EXPECT_NE(viaDumper.find(" bool [0x00000002]=false\n"), std::string::npos);
  EXPECT_EQ(decimalNumbers(viaDumper), dump(m));
}

TEST(Dumper, PrintsNestedMessagesWithoutAllocating) {
  message inner;
  inner.insert(string_id(1), "a");
  inner.insert(string_id(2), "b");
  inner.insert(SYS_STATUS, STATUS_OK);
  inner.insert(bool_id(4), true);
  inner.insert(u32_array_id(5), {300});
  inner.insert(raw_id(6), std::vector<unsigned char>{0xfe});
  message m;
  m.insert(message_id(7), inner);
  m.insert(message_array_id(8), {inner, message()});
  char buf[2048];
  std::string viaDumper;
  {
    testing::CountAllocations allocs;
    Dumper d(buf, sizeof buf);
    m.dump2(d, "", 0);
    EXPECT_EQ(allocs(), 0u);
    viaDumper.assign(d.view());
  }
  viaDumper = decimalNumbers(viaDumper);
  const std::string viaStream = dump(m);
  // With one bool and one u32 per nested message, even the order agrees.
  EXPECT_EQ(viaDumper, viaStream);
}

TEST(Dump, AMalformedNestedMessageShowsWhatParsed) {
  // bool 1 = true, then a u32 with one of its four bytes.
  flat_message broken{0x4D, 0x32, 0x01, 0x00, 0x00, 0x01, 0x02, 0x00, 0x00, 0x08, 0x05};
  message m;
  m.insert(message_id(1), broken);
  const std::string expected = " message [1]...\n    --- kr::message --------\n     bool [1]=true\n";
  EXPECT_NE(dump(m).find(expected), std::string::npos) << dump(m);
  char buf[512];
  EXPECT_NE(decimalNumbers(dumpInto(m, buf, sizeof buf)).find(expected), std::string::npos);
}

TEST(HexDump, GroupsLinesAndRestoresTheStream) {
  const unsigned char bytes[] = {0x00, 0x01, 0xab, 0x10, 0xff};
  std::ostringstream os;
  os << hexdump{':', 2, 0, bytes, bytes + 5} << " " << 10;
  EXPECT_EQ(os.str(), "0001:ab10:ff 10");
  std::ostringstream lines;
  lines << hexdump{' ', 1, 2, bytes, bytes + 5};
  EXPECT_EQ(lines.str(), "00 01\nab 10\nff");
  std::ostringstream plain;
  plain << hexdump{' ', 0, 0, bytes, bytes + 2};
  EXPECT_EQ(plain.str(), "0001");
}

}  // namespace
}  // namespace kr
