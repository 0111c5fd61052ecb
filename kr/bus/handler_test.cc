#include "kr/bus/handler.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kr/bus/internal/bus_fixture.h"
#include "kr/bus/looper.h"
#include "kr/loop/clock.h"
#include "kr/message/protocol.h"
#include "kr/message/vocabulary.h"

namespace kr {
namespace {

using internal::RecordingHandler;
using Path = std::vector<unsigned int>;

message to(const Path& path, unsigned int cmd = 0) {
  message m;
  m.insert(SYS_TO, path);
  if (cmd) m.insert(SYS_CMD, cmd);
  return m;
}

unsigned int errorCode(const message& m) {
  unsigned int code = 0;
  return isError(m, &code, nullptr) ? code : 0;
}

// Handler 10 asks, handler 30 answers; the loader stands in for the rest of the bus.
class HandlerTest : public internal::BusFixture {
 protected:
  void SetUp() override {
    BusFixture::SetUp();
    start();
    looper->addHandler(10, &h10);
    looper->addHandler(30, &h30);
  }
  // req from [77] on the loader's side; the answer written back, or an empty message.
  message serve(message req, unsigned int reqId = 9) {
    req.insert(SYS_FROM, {77});
    if (reqId) req.insert(SYS_REQID, reqId);
    loader().send(req);
    turn(3);
    return loader().take().m;
  }
  void replyTo10(unsigned int reqId, unsigned int policy = 0x40) {
    message r = to({10});
    r.insert(SYS_TYPE, TYPE_REPLY);
    r.insert(SYS_REQID, reqId);
    r.insert(SYS_POLICY, policy);
    loader().send(r);
    turn(3);
  }

  RecordingHandler h10, h30;
  std::vector<message> replies;
  Handler::ReplyCallback record = [this](const message& r) { replies.push_back(r); };
};

TEST_F(HandlerTest, PostMessageCallsBackFromTheLoop) {
  h30.answer.insert(u32_id(5), 7);
  message q = to({Handler::kLocalPath, 30}, CMD_GET);
  h10.postMessage(q, record, 100);
  EXPECT_TRUE(replies.empty());  // never inside postMessage
  ASSERT_TRUE(waitFor([&] { return replies.size() == 1; }));
  EXPECT_EQ(replies[0].get(u32_id(5)), 7u);
  EXPECT_EQ(h10.pendingRequests(), 0u);
  ASSERT_EQ(h30.got.size(), 1u);
  EXPECT_TRUE(isRequest(h30.got[0]) && h30.got[0].get(SYS_REPLYEXP));
}

TEST_F(HandlerTest, TimeoutsCancellationAndLateReplies) {
  TestClock clock(getJiffies());
  message q = to({40}, CMD_GET);
  h10.setNextRequestId(7);
  const unsigned int id = h10.postMessage(q, record, 10);
  clock.advance(9);
  turn();
  EXPECT_TRUE(replies.empty());
  clock.advance(1);
  turn();
  ASSERT_EQ(replies.size(), 1u);
  EXPECT_EQ(errorCode(replies[0]), ERROR_TIMEOUT);
  EXPECT_EQ(replies[0].get(SYS_REQID), id);
  replyTo10(id);  // too late: ignored
  EXPECT_EQ(replies.size(), 1u);

  const unsigned int forever = h10.postMessage(q, record, Handler::kNoTimeout);
  const unsigned int cancelled = h10.postMessage(q, record, 50);
  turn();
  EXPECT_EQ(looper->timerCount(), 1u);  // none for `forever`
  h10.cancelPost(cancelled);
  EXPECT_EQ(looper->timerCount(), 0u);
  clock.advance(100000);
  turn();
  replyTo10(cancelled);
  replyTo10(forever, 0);  // SYS_POLICY 0: a reply from nobody is dropped
  EXPECT_EQ(replies.size(), 1u);
  replyTo10(forever);
  EXPECT_EQ(replies.size(), 2u);

  {  // a destroyed handler's requests end silently, timers and all
    RecordingHandler h;
    looper->addHandler(11, &h);
    h.postMessage(q, record, 100);
    turn();
    EXPECT_EQ(looper->timerCount(), 1u);
  }
  EXPECT_EQ(looper->timerCount(), 0u);
  EXPECT_FALSE(looper->hasHandler(11));
  EXPECT_EQ(replies.size(), 2u);
}

TEST_F(HandlerTest, RequestIdsSkip0xFFFFFFFFAndAWrappedIdEndsItsOldRequest) {
  message q = to({40}, CMD_GET);
  h10.setNextRequestId(0xFFFFFFFE);
  EXPECT_EQ(h10.postMessage(q, record, 100), 0xFFFFFFFEu);
  EXPECT_EQ(h10.postMessage(q, record, 100), 0u);
  h10.setNextRequestId(0xFFFFFFFF);
  EXPECT_EQ(h10.postMessage(q, record, 100), 0u);  // lands on the pending 0
  ASSERT_EQ(replies.size(), 1u);
  EXPECT_EQ(errorCode(replies[0]), ERROR_TIMEOUT);
  EXPECT_EQ(h10.pendingRequests(), 2u);
  h10.cancelPost(0);
  h10.cancelPost(0xFFFFFFFE);
}

TEST_F(HandlerTest, CommandTable) {
  h30.count = 3;
  auto answer = [&](unsigned int cmd, int stdId = -1) {  // cmd 0: no SYS_CMD
    message req = to({30}, cmd);
    if (stdId >= 0) req.insert(STD_ID, static_cast<unsigned int>(stdId));
    const message r = serve(req);
    EXPECT_TRUE(r.get(SYS_TO) == Path{77} && r.get(SYS_FROM) == Path{30} && isReply(r)) << std::hex << cmd;
    EXPECT_EQ(r.get(SYS_REQID), 9u) << std::hex << cmd;
    return r;
  };
  for (unsigned int cmd : {0u, CMD_NOOP, CMD_STOP_GETALL, CMD_GET, 0xfe000cu, CMD_SUBSCRIBE, CMD_UNSUBSCRIBE,
                           CMD_NOTIFYACK, CMD_DISCONNECTED}) {
    EXPECT_EQ(answer(cmd).count(), 4u) << std::hex << cmd;  // success: the system fields alone
  }
  EXPECT_EQ(h30.shutdowns, 1);
  for (unsigned int cmd : {CMD_ADDOBJ, CMD_SET, CMD_RESET, 0x123456u}) {
    EXPECT_EQ(errorCode(answer(cmd)), ERROR_NOTIMP) << std::hex << cmd;
  }
  EXPECT_EQ(errorCode(answer(CMD_SETOBJ, 5)), ERROR_NOTIMP);
  EXPECT_EQ(errorCode(answer(CMD_MOVEOBJ, 5)), ERROR_NOTIMP);
  EXPECT_EQ(errorCode(answer(CMD_GETOBJ)), ERROR_UNKNOWNID);
  EXPECT_EQ(errorCode(answer(CMD_REMOVEOBJ)), ERROR_UNKNOWNID);
  EXPECT_EQ(answer(CMD_GETOBJ, 5).get(u32_id(1)), 5u);
  EXPECT_EQ(answer(CMD_GETCOUNT).get(STD_OBJ_COUNT), 3u);
  const message all = answer(CMD_GETALL);
  EXPECT_TRUE(errorCode(all) == ERROR_NOTIMP && all.get(STD_OBJ_COUNT) == 3u);
}

TEST_F(HandlerTest, RefusalsNonRequestsErrorsAndOversizedReplies) {
  message set = to({30}, CMD_SET);
  set.insert(SYS_POLICY, 0x40);  // read only
  EXPECT_EQ(errorCode(serve(set)), ERROR_NOTALLOWED);
  message policies = to({30}, CMD_GETPOLICIES);
  policies.insert(SYS_POLICY, 0);  // nothing granted, yet answered
  EXPECT_GT(serve(policies).size(STD_OBJS), 0u);

  EXPECT_TRUE(serve(to({30}, CMD_GET), 0).empty());  // no SYS_REQID: no answer
  for (unsigned int code : {ERROR_BRKPATH, ERROR_FAILED}) {  // only broken paths get through
    message e = errorMsg(code, "");
    e.insert(SYS_TO, {30});
    EXPECT_TRUE(serve(e, 0).empty());
  }
  EXPECT_EQ(h30.got.size(), 5u);
  ASSERT_EQ(h30.brkpaths.size(), 1u);
  EXPECT_EQ(errorCode(h30.brkpaths[0]), ERROR_BRKPATH);

  h30.answer.insert(string_id(2), std::string(40000, 'b'));
  h30.answer.insert(string_id(3), std::string(40000, 'c'));
  testing::internal::CaptureStderr();
  const message big = serve(to({30}, CMD_GET));
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(errorCode(big), ERROR_TOOBIG);
  EXPECT_TRUE(big.get(SYS_REQID) == 9u && big.get(SYS_TO) == Path{77});
}

}  // namespace
}  // namespace kr
