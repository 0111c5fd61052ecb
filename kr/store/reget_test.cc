#include "kr/store/reget.h"

#include <gtest/gtest.h>

#include <map>
#include <numeric>
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

Ids range(unsigned int first, unsigned int last) {
  Ids v(last - first + 1);
  std::iota(v.begin(), v.end(), first);
  return v;
}

unsigned int errorCode(const message& m) {
  unsigned int code = 0;
  return isError(m, &code, nullptr) ? code : 0;
}

// Objects 1..size, paged as an object map pages them: up to STD_GETALLNO
// (1000 when 0) from STD_GETALLID on, and STD_GETALLID = the next object
// while any remain. Request n (0-based) may get a canned answer instead.
class Table : public Handler {
 public:
  void handle(message& m) override {
    if (isRequest(m) && m.get(SYS_CMD) == CMD_GETALL) requests.push_back(m);
    Handler::handle(m);
  }
  message cmdGetAll(const message&, unsigned int from, unsigned int count) override {
    if (auto it = answerAt.find(requests.size() - 1); it != answerAt.end()) return it->second;
    std::vector<message> objs;
    unsigned int id = from == 0xFFFFFFFF ? 1 : from;
    for (; id <= size && objs.size() < (count ? count : 1000); ++id) objs.emplace_back().insert(STD_ID, id);
    message r;
    r.insert(STD_OBJS, objs);
    if (id <= size) r.insert(STD_GETALLID, id);
    return r;
  }

  unsigned int size = 1500;
  std::vector<message> requests;
  std::map<size_t, message> answerAt;
};

// What the callbacks saw. At object number `stopAt` (1-based) it stops the
// walk, or deletes it with `destroy`; `destroyInDone` deletes it in onDone.
struct Sink {
  Ids ids;
  std::vector<message> done;
  AsyncReget* reget = nullptr;
  size_t stopAt = 0;
  bool destroy = false, destroyInDone = false;

  static void object(void* ctx, const message& o) {
    Sink* s = static_cast<Sink*>(ctx);
    s->ids.push_back(o.get(STD_ID));
    if (s->ids.size() == s->stopAt) s->destroy ? delete std::exchange(s->reget, nullptr) : s->reget->stop();
  }
  static void end(void* ctx, const message& r) {
    Sink* s = static_cast<Sink*>(ctx);
    s->done.push_back(r);
    if (s->destroyInDone) delete std::exchange(s->reget, nullptr);
  }
};

class RegetTest : public BusFixture {
 protected:
  void SetUp() override {
    BusFixture::SetUp();
    start();
    looper->addHandler(30, &table);
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
    table.requests.clear();
    sink = Sink();
    reget.start(q, &sink, &Sink::object, &Sink::end, timeout);
  }
  bool walked(size_t dones = 1) { return waitFor([&] { return sink.done.size() >= dones; }); }
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
  message q = getall(600);
  q.insert(u32_id(0x77), 5u);  // the caller's own fields go along with every page
  begin(q);
  EXPECT_TRUE(reget.isRunning());
  ASSERT_TRUE(walked());
  EXPECT_EQ(sink.ids, range(1, 1500));
  EXPECT_EQ(continuations(), (Ids{0, 601, 1201}));
  for (const message& r : table.requests) EXPECT_TRUE(r.get(STD_GETALLNO) == 600 && r.get(u32_id(0x77)) == 5);
  ASSERT_EQ(sink.done.size(), 1u);
  EXPECT_EQ(sink.done[0].size(STD_OBJS), 300u);  // the last page itself
  EXPECT_FALSE(reget.isRunning());
  EXPECT_EQ(reget.requestId(), AsyncReget::kNoRequest);

  // A STD_GETALLID in the request is where the walk begins.
  q = getall();
  q.insert(STD_GETALLID, 1201);
  begin(q);
  ASSERT_TRUE(walked());
  EXPECT_EQ(sink.ids, range(1201, 1500));

  // Only STD_GETALLID leads on: an empty page with a cookie but without it is the last.
  message last;
  last.insert(STD_OBJS, std::vector<message>());
  last.insert(raw_id{0xFE0015}, {1, 2, 3});
  table.answerAt[0] = last;
  begin(getall());
  ASSERT_TRUE(walked());
  EXPECT_TRUE(sink.ids.empty());
  EXPECT_EQ(table.requests.size(), 1u);
}

TEST_F(RegetTest, AnErrorMidWayKeepsTheContinuationForRetry) {
  table.answerAt[1] = errorMsg(ERROR_FAILED, "busy");
  begin(getall(500));
  ASSERT_TRUE(walked());
  EXPECT_EQ(sink.ids, range(1, 500));
  EXPECT_EQ(errorCode(sink.done[0]), ERROR_FAILED);
  EXPECT_EQ(reget.currentRequest().get(STD_GETALLID), 501u);

  reget.retry();  // the failed page again, then on to the end
  ASSERT_TRUE(walked(2));
  EXPECT_EQ(sink.ids, range(1, 1500));
  EXPECT_EQ(continuations(), (Ids{0, 501, 501, 1001}));

  reget.restart();
  ASSERT_TRUE(walked(3));
  EXPECT_EQ(sink.ids.size(), 3000u);
  EXPECT_EQ(continuations(), (Ids{0, 501, 501, 1001, 0, 501, 1001}));
}

// Without onDone, and for a page without STD_OBJS, the outcome is a line.
TEST_F(RegetTest, RefusalsAndOutcomesGoToStandardError) {
  table.size = 3;
  testing::internal::CaptureStderr();
  reget.start(getall(), &sink, &Sink::object, nullptr, 500);
  reget.retry();
  reget.restart();
  ASSERT_TRUE(waitFor([&] { return !reget.isRunning(); }));
  table.answerAt[1] = errorMsg(ERROR_FAILED, "busy");
  table.answerAt[2] = message();
  for (int i = 0; i < 2; ++i) {
    reget.restart();
    ASSERT_TRUE(waitFor([&] { return !reget.isRunning(); }));
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "ERROR: AsyncReget retry() impossible while running\n"
            "ERROR: AsyncReget restart() impossible while running\n"
            "AsyncReget done\n"
            "ERROR: AsyncReget failed: " + getError(table.answerAt[1]) + "\n"
            "ERROR: AsyncReget got reply without STD_OBJS\n");
  EXPECT_EQ(sink.ids, (Ids{1, 2, 3}));
  EXPECT_EQ(table.requests.size(), 3u);  // the refused calls posted nothing
}

TEST_F(RegetTest, StopEndsTheWalkWherever) {
  // Inside onObject, on the first object of page 2: onDone gets that page.
  begin(getall(500));
  sink.reget = &reget;
  sink.stopAt = 501;
  ASSERT_TRUE(walked());
  EXPECT_EQ(sink.ids, range(1, 501));
  EXPECT_EQ(sink.done[0].get(STD_GETALLID), 1001u);
  EXPECT_FALSE(reget.isRunning());

  // With a page outstanding: the late reply is ignored; retry() resumes.
  begin(getall(500));
  reget.stop();
  EXPECT_EQ(reget.requestId(), AsyncReget::kNoRequest);
  turn(6);
  EXPECT_TRUE(sink.ids.empty() && sink.done.empty());
  reget.retry();
  ASSERT_TRUE(walked());
  EXPECT_EQ(sink.ids, range(1, 1500));
}

TEST_F(RegetTest, PagesTimeOut) {
  TestClock clock(getJiffies());
  // Handler 40 is out on the bus and never answers.
  for (auto [given, ticks] : {std::pair{50u, 50u}, {AsyncReget::kDefaultTimeout, 6000u}, {0u, 0u}}) {
    SCOPED_TRACE(given);
    begin(getall(0, {40}), given);
    turn();
    if (ticks) {
      clock.advance(ticks - 1);
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
  reget.start(message(), &sink, &Sink::object, &Sink::end, 500);
  ASSERT_EQ(sink.done.size(), 1u);
  EXPECT_EQ(errorCode(sink.done[0]), ERROR_FAILED);
  EXPECT_FALSE(reget.isRunning());
}

}  // namespace
}  // namespace kr
