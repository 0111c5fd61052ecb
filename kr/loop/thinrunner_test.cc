#include "kr/loop/thinrunner.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "kr/loop/runner.h"

namespace kr {
namespace {

// A loop on a test clock: steps never block and time moves only when told.
class LoopTest : public ::testing::Test {
 protected:
  static constexpr unsigned int kStart = 1000000;
  void TearDown() override {
    // Nothing may be left behind by a test.
    EXPECT_EQ(loop.socketCount(), 0u);
    EXPECT_EQ(loop.timerCount(), 0u);
    EXPECT_EQ(loop.hookCount(), 0u);
    for (int fd : fds) close(fd);
  }
  void turn() { loop.step(false); }
  // A pipe whose read end is readable.
  int readyPipe() {
    int p[2];
    EXPECT_EQ(pipe(p), 0);
    EXPECT_EQ(write(p[1], "x", 1), 1);
    fds.push_back(p[0]);
    fds.push_back(p[1]);
    return p[0];
  }

  TestClock clock{kStart};
  ThinRunner loop;
  std::vector<int> fds;
};

TEST(Ticks, CompareAroundNowWithAnHourOfPast) {
  const unsigned int now = 5000000;
  EXPECT_EQ(compareTicks(now, 7, 7), 0);
  EXPECT_EQ(compareTicks(now, now - 1, now), -1);
  EXPECT_EQ(compareTicks(now, now - 359999, now), -1);  // an hour ago is still the past
  EXPECT_EQ(compareTicks(now, now - 360000, now), 1);   // beyond it reads as far future
  EXPECT_EQ(compareTicks(now, now + kMaxTimeout, now), 1);
  EXPECT_EQ(compareTicks(0xFFFFFF00u, 0x100, 0xFFFFFFF0u), 1);  // across the wrap
}

TEST_F(LoopTest, SleepTimeFollowsTheNextTimer) {
  EXPECT_EQ(loop.sleepTime(kStart), 0xFFFFFFFFu);
  TimerPtr t = loop.addTimer(5, [] {});
  EXPECT_EQ(loop.sleepTime(kStart), 50u);
  EXPECT_EQ(loop.sleepTime(kStart + 5), 0u);
  EXPECT_EQ(loop.sleepTime(kStart + 9), 0u);  // overdue
  loop.removeTimer(t);
  t = loop.addTimer(1000, [] {});
  EXPECT_EQ(loop.sleepTime(kStart), 10000u);
  loop.removeTimer(t);
  t = loop.addTimer(999999, [] {});
  EXPECT_EQ(loop.sleepTime(kStart), 10000u);  // never more than 10 s
  loop.removeTimer(t);
}

TEST_F(LoopTest, ZeroTickTimerFiresInTheNextStep) {
  int fired = 0;
  loop.addTimer(0, [&] { ++fired; });
  EXPECT_EQ(fired, 0);
  EXPECT_TRUE(loop.step(true));  // due: the poll does not sleep
  EXPECT_EQ(fired, 1);
}

TEST_F(LoopTest, TimersFireInExpiryOrderAndSameTickTogether) {
  std::string order;
  loop.addTimer(3, [&] { order += 'c'; });
  loop.addTimer(1, [&] { order += 'a'; });
  loop.addTimer(2, [&] { order += 'b'; });
  loop.addTimer(2, [&] { order += 'B'; });
  clock.advance(1);
  turn();
  EXPECT_EQ(order, "a");
  clock.advance(1);
  turn();
  EXPECT_EQ(order.size(), 3u);  // both timers of tick 2 in one pass
  clock.advance(5);
  turn();
  EXPECT_EQ(order.back(), 'c');
}

TEST_F(LoopTest, ATimerAddedByATimerWaitsForTheNextPass) {
  int inner = 0;
  loop.addTimer(0, [&] { loop.addTimer(0, [&] { ++inner; }); });
  turn();
  EXPECT_EQ(inner, 0);
  turn();
  EXPECT_EQ(inner, 1);
}

TEST_F(LoopTest, CancellingADueTimerFromACallbackStopsIt) {
  bool second = false;
  TimerPtr victim;
  loop.addTimer(1, [&] { EXPECT_TRUE(loop.removeTimer(victim)); });
  victim = loop.addTimer(1, [&] { second = true; });
  clock.advance(1);
  turn();
  EXPECT_FALSE(second);
}

TEST_F(LoopTest, LongTimeoutsAreClampedWithAWarning) {
  bool fired = false;
  testing::internal::CaptureStderr();
  loop.addTimer(0xFFFFFFFF, [&] { fired = true; });
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "WARNING: limiting timer timeout to 4294607296cs\n");
  clock.advance(kMaxTimeout - 1);
  turn();
  EXPECT_FALSE(fired);
  clock.advance(1);
  turn();
  EXPECT_TRUE(fired);
}

TEST_F(LoopTest, TimersSurviveTheCounterWrap) {
  clock.set(0xFFFFFF00u);
  bool fired = false;
  loop.addTimer(0x200, [&] { fired = true; });
  clock.advance(0x1FF);  // now 0xFF after the wrap
  turn();
  EXPECT_FALSE(fired);
  clock.advance(1);
  turn();
  EXPECT_TRUE(fired);
}

TEST_F(LoopTest, DelayedTimersCountFromTheNextTurn) {
  bool fired = false;
  loop.addDelayedTimer(10, [&] { fired = true; });
  clock.advance(5);
  turn();  // armed now: due at start + 15
  clock.advance(9);
  turn();
  EXPECT_FALSE(fired);
  clock.advance(1);
  turn();
  EXPECT_TRUE(fired);
}

TEST_F(LoopTest, CancelByCallbackIdentity) {
  struct Target {
    int hits = 0;
    void hit() { ++hits; }
  } a, b;
  loop.addTimer(1, bind<&Target::hit>(&a));
  loop.addTimer(1, bind<&Target::hit>(&b));
  loop.addDelayedTimer(1, bind<&Target::hit>(&b));
  EXPECT_TRUE(loop.removeTimer(ThinRunner::Callback(bind<&Target::hit>(&b))));
  EXPECT_TRUE(loop.removeTimer(ThinRunner::Callback(bind<&Target::hit>(&b))));  // the delayed one
  EXPECT_FALSE(loop.removeTimer(ThinRunner::Callback(bind<&Target::hit>(&b))));
  clock.advance(2);
  turn();
  turn();
  EXPECT_EQ(a.hits, 1);
  EXPECT_EQ(b.hits, 0);
}

TEST_F(LoopTest, HeapKeepsOrderUnderRandomAddsAndCancels) {
  std::mt19937 rng(7);
  std::vector<std::pair<unsigned int, int>> expected;  // (expiry, id)
  std::vector<std::pair<unsigned int, int>> fired;
  std::vector<TimerPtr> live;
  std::vector<int> liveIds;
  for (int id = 0; id < 3000; ++id) {
    const unsigned int ticks = rng() % 500;
    live.push_back(loop.addTimer(ticks, [&, id, ticks] { fired.push_back({kStart + ticks, id}); }));
    liveIds.push_back(id);
    expected.push_back({kStart + ticks, id});
    if (rng() % 3 == 0) {  // cancel a random live timer
      const size_t k = rng() % live.size();
      loop.removeTimer(live[k]);
      expected.erase(std::find_if(expected.begin(), expected.end(), [&](auto& e) { return e.second == liveIds[k]; }));
      live.erase(live.begin() + k);
      liveIds.erase(liveIds.begin() + k);
    }
  }
  for (int t = 0; t < 500; ++t) {
    clock.advance(1);
    turn();
  }
  ASSERT_EQ(fired.size(), expected.size());
  for (size_t i = 1; i < fired.size(); ++i) EXPECT_LE(fired[i - 1].first, fired[i].first);
  std::sort(expected.begin(), expected.end());
  std::sort(fired.begin(), fired.end());
  EXPECT_EQ(fired, expected);
}

TEST_F(LoopTest, DuplicateSocketKeepsTheFirstCallback) {
  const int fd = readyPipe();
  int first = 0, second = 0;
  loop.addSocket(fd, POLLIN, [&](int, unsigned) { ++first; });
  testing::internal::CaptureStderr();
  loop.addSocket(fd, POLLIN, [&](int, unsigned) { ++second; });
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "WARNING: could not add socket fd=" + std::to_string(fd) + " becouse of dup\n");
  turn();
  EXPECT_EQ(first, 1);
  EXPECT_EQ(second, 0);
  EXPECT_TRUE(loop.removeSocket(fd));
  EXPECT_FALSE(loop.removeSocket(fd));
  EXPECT_FALSE(loop.changeSocket(fd, POLLIN));
}

TEST_F(LoopTest, RemovedCallbackCanBeRegisteredAgain) {
  const int fd = readyPipe();
  unsigned int seen = 0;
  loop.addSocket(fd, POLLIN, [&](int, unsigned ev) { seen = ev; });
  ThinRunner::SocketCallback cb;
  ASSERT_TRUE(loop.removeSocket(fd, &cb));
  ASSERT_TRUE(cb);
  turn();
  EXPECT_EQ(seen, 0u);
  loop.addSocket(fd, POLLIN, std::move(cb));
  turn();
  EXPECT_EQ(seen, unsigned(POLLIN));
  EXPECT_TRUE(loop.changeSocket(fd, POLLOUT));  // a pipe's read end is never writable
  seen = 0;
  turn();
  EXPECT_EQ(seen, 0u);
  loop.removeSocket(fd);
}

// Every ready descriptor runs once per turn, whatever the callbacks remove.
TEST_F(LoopTest, CallbacksMayRemoveThemselvesAndOthers) {
  std::vector<int> ready;
  for (int i = 0; i < 6; ++i) ready.push_back(readyPipe());
  std::vector<int> calls(6, 0);
  for (int i = 0; i < 6; ++i) {
    loop.addSocket(ready[i], POLLIN, [&, i](int fd, unsigned) {
      ++calls[i];
      if (i == 5) loop.removeSocket(fd);         // itself, the last slot
      if (i == 4) loop.removeSocket(ready[1]);   // another, not yet visited
      if (i == 3) loop.removeSocket(fd), loop.removeSocket(ready[0]);
    });
  }
  turn();
  EXPECT_EQ(calls, (std::vector<int>{0, 0, 1, 1, 1, 1}));
  turn();
  EXPECT_EQ(calls, (std::vector<int>{0, 0, 2, 1, 2, 1}));
  loop.removeSocket(ready[2]);
  loop.removeSocket(ready[4]);
}

TEST_F(LoopTest, HooksRunOncePerTurnInAlternatingOrder) {
  std::string order;
  ThinRunner::Callback a = [&] { order += 'a'; };
  ThinRunner::Callback b = [&] { order += 'b'; };
  loop.addBeforeSleep(a);
  loop.addBeforeSleep(b);
  turn();
  turn();
  EXPECT_EQ(order, "baab");
  loop.addBeforeSleep(a);  // twice: one removal takes both
  loop.removeBeforeSleep(a);
  order.clear();
  turn();
  EXPECT_EQ(order, "b");
  loop.removeBeforeSleep(b);
}

TEST_F(LoopTest, HooksAddedOrRemovedDuringThePass) {
  std::string order;
  ThinRunner::Callback late = [&] { order += 'l'; };
  ThinRunner::Callback victim = [&] { order += 'v'; };
  ThinRunner::Callback first = [&] {
    order += 'f';
    loop.removeBeforeSleep(victim);
    loop.addBeforeSleep(late);
  };
  loop.addBeforeSleep(victim);
  loop.addBeforeSleep(first);  // runs first, before the victim's turn
  turn();
  EXPECT_EQ(order, "f");
  loop.removeBeforeSleep(first);
  turn();
  EXPECT_EQ(order, "fl");
  loop.removeBeforeSleep(late);
}

TEST_F(LoopTest, ShutdownDropsEverything) {
  const int fd = readyPipe();
  loop.addSocket(fd, POLLIN, [](int, unsigned) {});
  loop.addTimer(5, [] {});
  loop.addDelayedTimer(5, [] {});
  loop.addBeforeSleep([] {});
  loop.shutdown();
  EXPECT_EQ(loop.socketCount(), 0u);
  EXPECT_EQ(loop.timerCount(), 0u);
  EXPECT_EQ(loop.hookCount(), 0u);
  EXPECT_TRUE(loop.step(false));  // still running: shutdown does not stop
}

// kr::Timer arms in the process runner.
class TimerHandleTest : public ::testing::Test {
 protected:
  void TearDown() override { EXPECT_EQ(runner.timerCount(), 0u); }
  TestClock clock{500};
  Runner runner;
};

TEST_F(TimerHandleTest, DestroyingCancelsAndAFiredHandleIsEmpty) {
  int fired = 0;
  {
    Timer t(1, [&] { ++fired; });
    EXPECT_TRUE(t.active());
  }
  clock.advance(1);
  runner.step(false);
  EXPECT_EQ(fired, 0);
  Timer t(1, [&] { ++fired; });
  clock.advance(1);
  runner.step(false);
  EXPECT_EQ(fired, 1);
  EXPECT_FALSE(t.active());  // destroying it now does nothing
}

TEST_F(TimerHandleTest, MovesAndReArmsFromItsOwnCallback) {
  int fired = 0;
  Timer t;
  std::function<void()> arm = [&] {
    t = Timer(1, [&] {
      if (++fired < 3) arm();
    });
  };
  arm();
  Timer moved = std::move(t);
  EXPECT_FALSE(t.active());  // NOLINT: moved from
  EXPECT_TRUE(moved.active());
  clock.advance(1);
  runner.step(false);
  EXPECT_EQ(fired, 1);
  EXPECT_TRUE(t.active());  // re-armed into t by the callback
  for (int i = 0; i < 3; ++i) {
    clock.advance(1);
    runner.step(false);
  }
  EXPECT_EQ(fired, 3);
  EXPECT_FALSE(t.active());
  Timer pending(5, [] {});
  moved = std::move(pending);  // assignment of an empty handle's place
  moved.cancel();
}

}  // namespace
}  // namespace kr
