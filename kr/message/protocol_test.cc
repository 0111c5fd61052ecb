#include "kr/message/protocol.h"

#include <gtest/gtest.h>

#include "kr/message/policies.h"

namespace kr {
namespace {

TEST(Vocabulary, IdsCarryTheirKindsAndConstantsTheirValues) {
  EXPECT_EQ(SYS_TO.id, 0x88FF0001u);
  EXPECT_EQ(SYS_FROM.id, 0x88FF0002u);
  EXPECT_EQ(SYS_REPLYEXP.id, 0x00FF0005u);
  EXPECT_EQ(SYS_ERRSTR.id, 0x20FF0009u);
  EXPECT_EQ(STD_OBJS.id, 0xA8FE0002u);
  EXPECT_EQ(STD_GETALL_COOKIE.id, 0x28FE0015u);
  EXPECT_EQ(STD_ADDR_4.id, 0x08FEFF20u);
  EXPECT_EQ(STD_ADDR_6.id, 0x18FEFF21u);
  EXPECT_EQ(CMD_GETALL, 0xFE0004u);
  EXPECT_EQ(CMD_STOP_GETALL, 0xFE0018u);
  EXPECT_EQ(ERROR_TOOMUCH, 0xFE000Eu);
  EXPECT_STREQ(fieldName(0x88FF0001), "SYS_TO");
  EXPECT_STREQ(fieldName(0x08FE0099 & 0x00FFFFFF), nullptr);
  EXPECT_STREQ(fieldName(0xFF0014), nullptr);  // the removal list has no name
  EXPECT_STREQ(commandName(CMD_GETALL), "CMD_GETALL");
  EXPECT_EQ(commandName(0xFE0009), nullptr);
  EXPECT_STREQ(errorName(0), "ERROR_OK");
  EXPECT_EQ(errorName(0xFE0008), nullptr);
  unsigned int v = 0;
  EXPECT_TRUE(fieldNumber("STD_ADDR_RD", &v));
  EXPECT_EQ(v, 0xFEFF27u);
  EXPECT_FALSE(fieldNumber("SYS_NOPE", &v));
  EXPECT_TRUE(constantValue("ERROR_TIMEOUT", &v));
  EXPECT_EQ(v, ERROR_TIMEOUT);
  EXPECT_TRUE(constantValue("DREASON_CRASHED", &v));
  EXPECT_EQ(v, 1u);
  EXPECT_FALSE(constantValue("CMD_", &v));
}

TEST(Protocol, TypeAndRequestId) {
  message m;
  EXPECT_TRUE(isRequest(m));
  EXPECT_FALSE(isReply(m));
  setType(m, TYPE_REPLY);
  EXPECT_TRUE(isReply(m));
  EXPECT_EQ(getType(m), TYPE_REPLY);
  unsigned int id = 99;
  EXPECT_FALSE(getRequestID(m, &id));
  EXPECT_EQ(id, 99u);
  setRequestID(m, 7);
  EXPECT_TRUE(getRequestID(m, nullptr));
  EXPECT_TRUE(getRequestID(m, &id));
  EXPECT_EQ(id, 7u);
  EXPECT_FALSE(isReplyExpected(m));
  unsigned int code = 0;
  EXPECT_FALSE(isCtrl(m, &code));
  m.insert(SYS_CTRL, 5);
  EXPECT_TRUE(isCtrl(m, &code));
  EXPECT_EQ(code, 5u);
}

TEST(Protocol, ErrorsAndTheirTexts) {
  EXPECT_EQ(getError(message()), "ok");
  message e;
  e.insert(SYS_STATUS, STATUS_ERROR);
  unsigned int code = 0;
  std::string text = "untouched?";
  EXPECT_TRUE(isError(e, &code, &text));
  EXPECT_EQ(code, ERROR_UNKNOWN);
  EXPECT_EQ(text, "");
  EXPECT_EQ(getError(e), "std failure: unknown error (1)");

  message plain = errorMsg(ERROR_NOTIMP, "");
  EXPECT_FALSE(plain.has(SYS_ERRSTR));
  EXPECT_EQ(plain.count(), 2u);
  EXPECT_EQ(getError(plain), "std failure: not implemented (3)");
  EXPECT_EQ(getError(failedMsg("disk full")), "disk full (6)");

  const struct {
    unsigned int code;
    const char* text;
  } cases[] = {
      {0xFE0008, "std failure: ??? (8)"},   {0xFE000F, "std failure: 15"},
      {0, "global failure: 0"},             {0xFF0005, "sys failure: 5"},
      {0xFD0102, "local failure: 258"},     {0x120003, "undefined failure: 3"},
      {0xFE0000, "std failure: no error (0)"}, {ERROR_TOOMUCH, "std failure: too much (14)"},
      {ERROR_TIMEOUT, "std failure: timeout (13)"}, {0xFEFFFF, "std failure: 65535"},
  };
  for (const auto& c : cases) EXPECT_EQ(getErrorDescr(c.code, ""), c.text) << std::hex << c.code;
  EXPECT_EQ(getErrorDescr(0xFF0005, "boom"), "boom (5)");
}

TEST(Protocol, CleanSysAndCleanStdRemoveOnlyTheirFieldsUnderTheirKinds) {
  message m;
  m.insert(SYS_TO, {1});
  m.insert(SYS_FROM, {2});
  m.insert(SYS_CMD, CMD_GETALL);
  m.insert(SYS_REPLYEXP, true);
  m.insert(SYS_USER, "u");
  m.insert(bool_id(0xFF0017), true);
  m.insert(SYS_CREDITS, 3);
  m.insert(SYS_ERRSTR, "kept");
  m.insert(SYS_DREASON, DREASON_CRASHED);
  m.insert(u64_id(SYS_CMD.number()), 1);  // same number, other kind
  m.insert(STD_ID, 4);
  m.insert(STD_DESCR, "d");
  m.insert(STD_NAME, "n");
  cleanSys(m);
  EXPECT_EQ(m.count(), 6u);
  EXPECT_TRUE(m.has(SYS_ERRSTR));
  EXPECT_TRUE(m.has(SYS_DREASON));
  EXPECT_TRUE(m.has(u64_id(SYS_CMD.number())));
  cleanStd(m);
  EXPECT_EQ(m.count(), 4u);
  EXPECT_TRUE(m.has(STD_NAME));
  EXPECT_FALSE(m.has(STD_ID));
}

message from(unsigned int cmd, unsigned int policy) {
  message m;
  m.insert(SYS_CMD, cmd);
  m.insert(SYS_POLICY, policy);
  return m;
}

TEST(Policies, RestrictedSendersNeedEveryRequiredBit) {
  policies p;
  EXPECT_TRUE(p.is_allowed(from(CMD_GETALL, 0x40)));
  EXPECT_FALSE(p.is_allowed(from(CMD_SETOBJ, 0x40)));
  EXPECT_TRUE(p.is_allowed(from(CMD_SETOBJ, 0xC0)));
  EXPECT_FALSE(p.is_allowed(from(CMD_NOTIFY, 0x7FFFFFFF)));
  EXPECT_FALSE(p.is_allowed(from(0x123, 0x7FFFFFFF)));  // unlisted
  EXPECT_TRUE(p.is_allowed(from(CMD_NOTIFY, 0x80000000)));
  message noPolicy;
  noPolicy.insert(SYS_CMD, CMD_NOTIFY);
  EXPECT_TRUE(p.is_allowed(noPolicy));
  message noCmd;
  noCmd.insert(SYS_POLICY, 0x40);
  EXPECT_TRUE(p.is_allowed(noCmd));  // CMD_NOOP needs the read right
  noCmd.insert(SYS_POLICY, 0x80);
  EXPECT_FALSE(p.is_allowed(noCmd));
}

TEST(Policies, TableEditing) {
  policies p;
  EXPECT_EQ(p.entries().size(), 21u);
  EXPECT_EQ(p.entries().front(), policies::entry(CMD_GETALL, 0x40));
  EXPECT_EQ(p.entries().back(), policies::entry(CMD_NOOP, 0x40));
  EXPECT_EQ(p.find_policy(0x500), nullptr);
  EXPECT_EQ(p.required_policies(0x500), 0x80000000u);
  EXPECT_EQ(p.policy(0x500).second, 0u);
  EXPECT_EQ(p.entries().size(), 22u);
  EXPECT_TRUE(p.is_allowed(from(0x500, 0)));  // requires nothing now
  p.add_policy(0x500, 0x80);
  p.add_policy(0x500, 0x200);
  EXPECT_EQ(p.required_policies(0x500), 0x280u);
  p.set_policy(CMD_GETALL, 0x80);
  EXPECT_FALSE(p.is_allowed(from(CMD_GETALL, 0x40)));
}

TEST(Policies, ListingReportsWhatTheRequesterMayDo) {
  policies p;
  message list = p.get_policies(from(CMD_GETPOLICIES, 0x40));
  std::vector<message> objs = list.get(STD_OBJS);
  ASSERT_EQ(objs.size(), p.entries().size());
  EXPECT_EQ(objs[0].get(STD_ID), CMD_GETALL);
  EXPECT_EQ(objs[0].get(u32_id(1)), 0x40u);
  EXPECT_TRUE(objs[0].get(bool_id(2)));
  EXPECT_EQ(objs[3].get(STD_ID), CMD_ADDOBJ);
  EXPECT_FALSE(objs[3].get(bool_id(2), true));
  message all = p.get_policies(message());
  EXPECT_TRUE(all.get(STD_OBJS)[11].get(bool_id(2)));  // CMD_NOTIFY, unrestricted
}

}  // namespace
}  // namespace kr
