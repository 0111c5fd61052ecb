#include "kr/store/reget.h"

#include <gtest/gtest.h>

#include <map>
#include <numeric>
#include <set>
#include <string>
#include <vector>

#include "kr/bus/handler.h"
#include "kr/bus/internal/bus_fixture.h"
#include "kr/loop/clock.h"
#include "kr/message/protocol.h"
#include "kr/message/vocabulary.h"

namespace kr {
namespace {

using internal::BusFixture;
using Ids = std::vector<unsigned int>;

constexpr unsigned int kLocal = 0xff0003;
constexpr raw_id kCookie{0xFE0015};

Ids range(unsigned int first, unsigned int last) {
  Ids v(last - first + 1);
  std::iota(v.begin(), v.end(), first);
  return v;
}

unsigned int errorCode(const message& m) {
  unsigned int code = 0;
  return isError(m, &code, nullptr) ? code : 0;
}

// A table of objects 1..size answering CMD_GETALL page by page, as an
// object map does: up to STD_GETALLNO objects (1000 when 0) from
// STD_GETALLID on, and STD_GETALLID = the next object while any remain.
// Request n (0-based) can be answered with a canned message or dropped.
class Table : public Handler {
 public:
  void handle(message& m) override {
    if (isRequest(m) && m.get(SYS_CMD) == CMD_GETALL) {
      requests.push_back(m);
      if (dropAt.count(requests.size() - 1)) return;
    }
    Handler::handle(m);
  }
  message cmdGetAll(const message&, unsigned int from, unsigned int count) override {
    if (auto it = answerAt.find(requests.size() - 1); it != answerAt.end()) return it->second;
    std::vector<message> objs;
    unsigned int id = from == 0xFFFFFFFF ? 1 : from;
    for (; id <= size && objs.size() < (count ? count : 1000); ++id) {
      message o;
      o.insert(STD_ID, id);
      o.insert(u32_id(1), id * 3);
      objs.push_back(o);
    }
    message r;
    r.insert(STD_OBJS, objs);
    if (id <= size) r.insert(STD_GETALLID, id);
    return r;
  }

  unsigned int size = 0;
  std::vector<message> requests;
  std::map<size_t, message> answerAt;
  std::set<size_t> dropAt;
};

// What the callbacks saw; optionally stops or destroys the walk after
// object number `stopAt` (1-based) or in onDone.
struct Sink {
  Ids ids;
  std::vector<message> done;
  AsyncReget* reget = nullptr;
  size_t stopAt = 0;
  bool destroy = false;        // at stopAt: delete instead of stop()
  bool destroyInDone = false;

  static void object(void* ctx, const message& o) {
    Sink* s = static_cast<Sink*>(ctx);
    s->ids.push_back(o.get(STD_ID));
    EXPECT_EQ(o.get(u32_id(1)), o.get(STD_ID) * 3);
    if (s->ids.size() != s->stopAt) return;
    if (s->destroy) {
      delete s->reget;
      s->reget = nullptr;
    } else {
      s->reget->stop();
    }
  }
  static void end(void* ctx, const message& r) {
    Sink* s = static_cast<Sink*>(ctx);
    s->done.push_back(r);
    if (s->destroyInDone) {
      delete s->reget;
      s->reget = nullptr;
    }
  }
};

class RegetTest : public BusFixture {
 protected:
  void SetUp() override {
    BusFixture::SetUp();
    start();
    looper->addHandler(30, &table);
    table.size = 1500;
  }
  void TearDown() override {
    EXPECT_EQ(looper->pendingRequests(), 0u);
    looper->removeHandler(30);
    BusFixture::TearDown();
  }
  static message getall(unsigned int count = 0, const Ids& to = {kLocal, 30}) {
    message q;
    q.insert(SYS_TO, to);
    q.insert(SYS_CMD, CMD_GETALL);
    if (count) q.insert(STD_GETALLNO, count);
    return q;
  }
  void begin(const message& q, unsigned int timeout = 500) {
    reget.start(q, &sink, &Sink::object, &Sink::end, timeout);
  }
  bool walked(size_t dones = 1) {
    return waitFor([&] { return sink.done.size() >= dones; });
  }
  Ids continuations() const {
    Ids v;
    for (const message& q : table.requests) v.push_back(q.get(STD_GETALLID, 0));
    return v;
  }

  Table table;
  Sink sink;
  AsyncReget reget;
};

TEST_F(RegetTest, WalksEveryPageInOrderAndEndsOnce) {
  begin(getall());  // the target's own page size: 1000 + 500
  EXPECT_TRUE(reget.isRunning());
  EXPECT_NE(reget.requestId(), AsyncReget::kNoRequest);
  ASSERT_TRUE(walked());
  EXPECT_EQ(sink.ids, range(1, 1500));
  EXPECT_EQ(continuations(), (Ids{0, 1001}));
  ASSERT_EQ(sink.done.size(), 1u);
  EXPECT_EQ(sink.done[0].size(STD_OBJS), 500u);  // the last page itself
  EXPECT_FALSE(reget.isRunning());
  EXPECT_EQ(reget.requestId(), AsyncReget::kNoRequest);

  // Three pages; the caller's own fields go along with every one of them.
  table.requests.clear();
  sink = Sink();
  message q = getall(600);
  q.insert(u32_id(0x77), 5u);
  begin(q);
  ASSERT_TRUE(walked());
  EXPECT_EQ(sink.ids, range(1, 1500));
  EXPECT_EQ(continuations(), (Ids{0, 601, 1201}));
  for (const message& r : table.requests) {
    EXPECT_EQ(r.get(STD_GETALLNO), 600u);
    EXPECT_EQ(r.get(u32_id(0x77)), 5u);
  }

  // A STD_GETALLID in the request is where the walk begins.
  table.requests.clear();
  sink = Sink();
  q = getall();
  q.insert(STD_GETALLID, 1201);
  begin(q);
  ASSERT_TRUE(walked());
  EXPECT_EQ(sink.ids, range(1201, 1500));
  EXPECT_EQ(table.requests.size(), 1u);
}

TEST_F(RegetTest, EmptyPagesCookiesAndPagesWithoutObjects) {
  message empty;
  empty.insert(STD_OBJS, std::vector<message>());
  table.answerAt[0] = empty;
  begin(getall());
  ASSERT_TRUE(walked());
  EXPECT_TRUE(sink.ids.empty());
  EXPECT_EQ(table.requests.size(), 1u);

  // Only STD_GETALLID continues a walk: a page that carries just a cookie
  // is the last one.
  message one;
  one.insert(STD_ID, 7u);
  one.insert(u32_id(1), 21u);
  message cookie;
  cookie.insert(STD_OBJS, {one});
  cookie.insert(kCookie, {1, 2, 3});
  table.answerAt[1] = cookie;
  begin(getall());
  ASSERT_TRUE(walked(2));
  EXPECT_EQ(sink.ids, Ids{7});
  EXPECT_EQ(table.requests.size(), 2u);

  table.answerAt[2] = message();
  testing::internal::CaptureStderr();
  begin(getall());
  ASSERT_TRUE(walked(3));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "ERROR: AsyncReget got reply without STD_OBJS\n");
  EXPECT_FALSE(reget.isRunning());
  EXPECT_EQ(table.requests.size(), 3u);
}

TEST_F(RegetTest, AnErrorMidWayKeepsTheContinuationForRetry) {
  table.answerAt[1] = errorMsg(ERROR_FAILED, "busy");
  begin(getall(500));
  ASSERT_TRUE(walked());
  EXPECT_EQ(sink.ids, range(1, 500));
  EXPECT_EQ(errorCode(sink.done[0]), ERROR_FAILED);
  EXPECT_FALSE(reget.isRunning());
  EXPECT_EQ(reget.currentRequest().get(STD_GETALLID), 501u);

  reget.retry();  // the failed page again, then on to the end
  ASSERT_TRUE(walked(2));
  EXPECT_EQ(sink.ids, range(1, 1500));
  EXPECT_EQ(continuations(), (Ids{0, 501, 501, 1001}));

  reget.restart();
  EXPECT_FALSE(reget.currentRequest().has(STD_GETALLID));
  ASSERT_TRUE(walked(3));
  EXPECT_EQ(sink.ids.size(), 3000u);
  EXPECT_EQ(sink.ids.back(), 1500u);
  EXPECT_EQ(continuations(), (Ids{0, 501, 501, 1001, 0, 501, 1001}));
}

TEST_F(RegetTest, RefusalsAndOutcomesWithoutOnDoneGoToStandardError) {
  table.size = 3;
  testing::internal::CaptureStderr();
  reget.start(getall(), &sink, &Sink::object, nullptr, 500);
  reget.retry();
  reget.restart();
  ASSERT_TRUE(waitFor([&] { return !reget.isRunning(); }));
  table.answerAt[1] = errorMsg(ERROR_FAILED, "busy");
  reget.restart();
  ASSERT_TRUE(waitFor([&] { return !reget.isRunning(); }));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "ERROR: AsyncReget retry() impossible while running\n"
            "ERROR: AsyncReget restart() impossible while running\n"
            "AsyncReget done\n"
            "ERROR: AsyncReget failed: " + getError(table.answerAt[1]) + "\n");
  EXPECT_EQ(sink.ids, (Ids{1, 2, 3}));
  EXPECT_EQ(table.requests.size(), 2u);  // the refused calls posted nothing
}

TEST_F(RegetTest, StopEndsTheWalkWherever) {
  // Inside onObject, on the first object of the second page: the rest of
  // that page is dropped and onDone hears of it with that page.
  sink.reget = &reget;
  sink.stopAt = 501;
  begin(getall(500));
  ASSERT_TRUE(walked());
  EXPECT_EQ(sink.ids, range(1, 501));
  EXPECT_EQ(sink.done[0].get(STD_GETALLID), 1001u);
  EXPECT_FALSE(reget.isRunning());

  // While a page is outstanding: nothing is called, the late reply is
  // ignored, and a stopped walk can be resumed.
  sink = Sink();
  begin(getall(500));
  reget.stop();
  EXPECT_EQ(reget.requestId(), AsyncReget::kNoRequest);
  turn(6);
  EXPECT_TRUE(sink.ids.empty());
  EXPECT_TRUE(sink.done.empty());
  reget.retry();
  ASSERT_TRUE(walked());
  EXPECT_EQ(sink.ids, range(1, 1500));
}

TEST_F(RegetTest, PagesTimeOut) {
  TestClock clock(getJiffies());
  // Handler 40 is out on the bus and never answers.
  struct Case {
    unsigned int given, ticks;
  } cases[] = {{50, 50}, {AsyncReget::kDefaultTimeout, 6000}, {0, 0}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.given);
    sink = Sink();
    begin(getall(0, {40}), c.given);
    turn();
    if (c.ticks) {
      clock.advance(c.ticks - 1);
      turn();
      EXPECT_TRUE(sink.done.empty());
    }
    clock.advance(1);
    turn();
    ASSERT_EQ(sink.done.size(), 1u);
    EXPECT_EQ(errorCode(sink.done[0]), ERROR_TIMEOUT);
    EXPECT_FALSE(reget.isRunning());
  }
  loader().frames.clear();

  // A page lost mid-way: retry asks for that page again.
  sink = Sink();
  table.dropAt = {1};
  begin(getall(1000), 50);
  ASSERT_TRUE(waitFor([&] { return table.requests.size() == 2; }));
  clock.advance(50);
  ASSERT_TRUE(walked());
  EXPECT_EQ(errorCode(sink.done[0]), ERROR_TIMEOUT);
  reget.retry();
  ASSERT_TRUE(walked(2));
  EXPECT_EQ(sink.ids, range(1, 1500));
  EXPECT_EQ(continuations(), (Ids{0, 1001, 1001}));
  EXPECT_TRUE(bus->settle(*looper));  // before the clock goes back to real time
}

TEST_F(RegetTest, MayBeDestroyedByItsCallbacksOrWhilePending) {
  sink.reget = new AsyncReget;
  sink.stopAt = 3;
  sink.destroy = true;
  sink.reget->start(getall(), &sink, &Sink::object, &Sink::end, 500);
  ASSERT_TRUE(waitFor([&] { return sink.reget == nullptr; }));
  turn(6);
  EXPECT_EQ(sink.ids, range(1, 3));
  EXPECT_TRUE(sink.done.empty());

  sink = Sink();
  sink.reget = new AsyncReget;
  sink.destroyInDone = true;
  sink.reget->start(getall(), &sink, &Sink::object, &Sink::end, 500);
  ASSERT_TRUE(walked());
  EXPECT_EQ(sink.ids.size(), 1500u);

  sink = Sink();
  {
    AsyncReget gone;
    gone.start(getall(), &sink, &Sink::object, &Sink::end, 500);
  }
  turn(6);
  EXPECT_TRUE(sink.ids.empty() && sink.done.empty());
}

// Without a Looper nothing can be sent; the walk must still end, in band.
TEST(RegetNoLooper, FailsAtOnce) {
  ASSERT_EQ(getLooper(), nullptr);
  Sink sink;
  AsyncReget reget;
  message q;
  q.insert(SYS_TO, {kLocal, 30});
  reget.start(q, &sink, &Sink::object, &Sink::end, 500);
  ASSERT_EQ(sink.done.size(), 1u);
  EXPECT_EQ(errorCode(sink.done[0]), ERROR_FAILED);
  EXPECT_FALSE(reget.isRunning());
}

}  // namespace
}  // namespace kr
