#include "kr/bus/handler.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "kr/bus/internal/bus_fixture.h"
#include "kr/bus/looper.h"
#include "kr/loop/clock.h"
#include "kr/message/protocol.h"
#include "kr/message/vocabulary.h"

namespace kr {
namespace {

using internal::BusFixture;
using internal::RecordingHandler;
using Path = std::vector<unsigned int>;

constexpr unsigned int kLocal = 0xff0003;

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

// Handler 10 asks, handler 30 answers; the loader is at the other end of
// the bus for requests that leave the process.
class HandlerTest : public BusFixture {
 protected:
  void SetUp() override {
    BusFixture::SetUp();
    start();
    looper->addHandler(10, &h10);
    looper->addHandler(30, &h30);
  }
  void TearDown() override {
    looper->removeHandler(10);
    looper->removeHandler(30);
    BusFixture::TearDown();
  }
  // A request from the loader's side, from [77], answered over the bus.
  std::optional<message> serve(message req, unsigned int reqId = 9) {
    req.insert(SYS_FROM, {77});
    if (reqId) req.insert(SYS_REQID, reqId);
    loader().send(req);
    turn(3);
    if (loader().frames.empty()) return std::nullopt;
    return loader().take().m;
  }
  // A reply to handler 10 from the loader's side.
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
  message q = to({kLocal, 30}, CMD_GET);
  const unsigned int id = h10.postMessage(q, record, 100);
  EXPECT_EQ(id, 0u);
  EXPECT_TRUE(replies.empty());  // never inside postMessage
  EXPECT_TRUE(h10.isPending(id));
  ASSERT_TRUE(waitFor([&] { return replies.size() == 1; }));
  EXPECT_EQ(replies[0].get(u32_id(5)), 7u);
  EXPECT_EQ(replies[0].get(SYS_REQID), id);
  EXPECT_TRUE(isReply(replies[0]));
  EXPECT_EQ(h10.pendingRequests(), 0u);
  ASSERT_EQ(h30.got.size(), 1u);
  const message& req = h30.got[0];
  EXPECT_EQ(req.get(SYS_FROM), (Path{kLocal, 10}));
  EXPECT_TRUE(isRequest(req) && req.has(SYS_TYPE) && req.get(SYS_REPLYEXP));
}

TEST_F(HandlerTest, TimeoutCarriesTheRequestIdAndLaterRepliesAreIgnored) {
  TestClock clock(getJiffies());
  const size_t timers = looper->timerCount();
  message q = to({40}, CMD_GET);
  h10.setNextRequestId(7);
  const unsigned int id = h10.postMessage(q, record, 10);
  ASSERT_EQ(id, 7u);
  turn();
  EXPECT_EQ(loader().frames.size(), 1u);  // the request left
  EXPECT_EQ(looper->timerCount(), timers + 1);
  clock.advance(9);
  turn();
  EXPECT_TRUE(replies.empty());
  clock.advance(1);
  turn();
  ASSERT_EQ(replies.size(), 1u);
  EXPECT_EQ(errorCode(replies[0]), ERROR_TIMEOUT);
  EXPECT_EQ(replies[0].get(SYS_REQID), id);
  EXPECT_FALSE(h10.isPending(id));
  replyTo10(id);
  EXPECT_EQ(replies.size(), 1u);

  // No time-out: no timer, however long it takes; cancelled, nothing comes.
  const unsigned int forever = h10.postMessage(q, record, Handler::kNoTimeout);
  const unsigned int cancelled = h10.postMessage(q, record, 50);
  turn();
  EXPECT_EQ(looper->timerCount(), timers + 1);
  h10.cancelPost(cancelled);
  EXPECT_EQ(looper->timerCount(), timers);
  clock.advance(100000);
  turn();
  replyTo10(cancelled);
  EXPECT_EQ(replies.size(), 1u);
  replyTo10(forever, 0);  // SYS_POLICY 0: a reply from nobody is dropped
  EXPECT_EQ(replies.size(), 1u);
  replyTo10(forever);
  EXPECT_EQ(replies.size(), 2u);
  EXPECT_TRUE(bus->settle(*looper));
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

TEST_F(HandlerTest, DestroyingAHandlerDropsItsRequestsSilently) {
  const size_t timers = looper->timerCount();
  {
    RecordingHandler h;
    looper->addHandler(11, &h);
    message q = to({40}, CMD_GET);
    h.postMessage(q, record, 100);
    h.postMessage(q, record, 100);
    turn();
    EXPECT_EQ(looper->timerCount(), timers + 2);
  }
  EXPECT_EQ(looper->timerCount(), timers);
  EXPECT_FALSE(looper->hasHandler(11));
  EXPECT_TRUE(replies.empty());
}

TEST_F(HandlerTest, CommandTable) {
  h30.count = 3;
  struct Case {
    unsigned int cmd;  // 0: no SYS_CMD
    int stdId;         // -1: no STD_ID
    unsigned int err;  // expected error code, 0 for success
    unsigned int field, value;  // a u32 the answer carries (field 0: none)
  } cases[] = {
      {0, -1, 0, 0, 0},
      {CMD_NOOP, -1, 0, 0, 0},
      {CMD_GETOBJ, -1, ERROR_UNKNOWNID, 0, 0},
      {CMD_GETOBJ, 5, 0, 1, 5},  // the handler's answer carries the id
      {CMD_SETOBJ, -1, ERROR_UNKNOWNID, 0, 0},
      {CMD_SETOBJ, 5, ERROR_NOTIMP, 0, 0},
      {CMD_REMOVEOBJ, -1, ERROR_UNKNOWNID, 0, 0},
      {CMD_MOVEOBJ, 5, ERROR_NOTIMP, 0, 0},
      {CMD_GETALL, -1, ERROR_NOTIMP, 0xfe0019, 3},
      {CMD_GETCOUNT, -1, 0, 0xfe0019, 3},
      {CMD_STOP_GETALL, -1, 0, 0, 0},
      {CMD_ADDOBJ, -1, ERROR_NOTIMP, 0, 0},
      {CMD_GET, -1, 0, 0, 0},
      {CMD_SET, -1, ERROR_NOTIMP, 0, 0},
      {CMD_RESET, -1, ERROR_NOTIMP, 0, 0},
      {0xfe000c, -1, 0, 0, 0},
      {CMD_SUBSCRIBE, -1, 0, 0, 0},
      {CMD_UNSUBSCRIBE, -1, 0, 0, 0},
      {CMD_NOTIFYACK, -1, 0, 0, 0},
      {CMD_DISCONNECTED, -1, 0, 0, 0},
      {0x123456, -1, ERROR_NOTIMP, 0, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << std::hex << "cmd 0x" << c.cmd << " id " << c.stdId);
    message req = to({30}, c.cmd);
    if (c.stdId >= 0) req.insert(STD_ID, static_cast<unsigned int>(c.stdId));
    const std::optional<message> r = serve(req);
    ASSERT_TRUE(r.has_value());
    EXPECT_EQ(r->get(SYS_TO), Path{77});
    EXPECT_EQ(r->get(SYS_FROM), Path{30});
    EXPECT_EQ(r->get(SYS_REQID), 9u);
    EXPECT_TRUE(isReply(*r));
    EXPECT_EQ(errorCode(*r), c.err);
    if (c.field) {
      EXPECT_EQ(r->get(u32_id(c.field)), c.value);
    } else if (!c.err) {
      // An answer without fields of its own is just the four system fields.
      EXPECT_EQ(r->count(), 4u);
    }
  }
  EXPECT_EQ(h30.shutdowns, 1);
}

TEST_F(HandlerTest, PoliciesNonRequestsAndOversizedReplies) {
  message set = to({30}, CMD_SET);
  set.insert(SYS_POLICY, 0x40);  // read only
  EXPECT_EQ(errorCode(serve(set).value_or(message())), ERROR_NOTALLOWED);
  message policies = to({30}, CMD_GETPOLICIES);
  policies.insert(SYS_POLICY, 0);  // nothing granted, yet answered
  const std::optional<message> p = serve(policies);
  ASSERT_TRUE(p.has_value());
  EXPECT_GT(p->size(STD_OBJS), 0u);
  EXPECT_EQ(errorCode(*p), 0u);

  EXPECT_FALSE(serve(to({30}, CMD_GET), 0).has_value());  // no SYS_REQID: no answer
  EXPECT_EQ(h30.got.size(), 3u);

  h30.answer.insert(string_id(2), std::string(40000, 'b'));
  h30.answer.insert(string_id(3), std::string(40000, 'c'));
  testing::internal::CaptureStderr();
  const std::optional<message> big = serve(to({30}, CMD_GET));
  testing::internal::GetCapturedStderr();
  ASSERT_TRUE(big.has_value());
  EXPECT_EQ(errorCode(*big), ERROR_TOOBIG);
  EXPECT_EQ(big->get(SYS_REQID), 9u);
  EXPECT_EQ(big->get(SYS_TO), Path{77});
}

TEST_F(HandlerTest, ErrorsWithoutCommandOnlyBrokenPathsGetThrough) {
  for (unsigned int code : {ERROR_BRKPATH, ERROR_FAILED}) {
    message e = errorMsg(code, "");
    e.insert(SYS_TO, {30});
    e.insert(SYS_FROM, {77});
    loader().send(e);
  }
  turn(3);
  ASSERT_EQ(h30.brkpaths.size(), 1u);
  EXPECT_EQ(errorCode(h30.brkpaths[0]), ERROR_BRKPATH);
  EXPECT_EQ(h30.got.size(), 2u);
  EXPECT_TRUE(loader().frames.empty());  // neither is answered
}

}  // namespace
}  // namespace kr
