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
  void after(unsigned int ticks) {
    clock.advance(ticks);
    turn();
  }
  // A pipe whose read end is readable.
  int readyPipe() {
    int p[2];
    EXPECT_EQ(pipe(p), 0);
    EXPECT_EQ(write(p[1], "x", 1), 1);
    fds.insert(fds.end(), {p[0], p[1]});
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

TEST_F(LoopTest, SleepTimeFollowsTheNextTimerUpToTenSeconds) {
  EXPECT_EQ(loop.sleepTime(kStart), 0xFFFFFFFFu);
  TimerPtr t = loop.addTimer(5, [] {});
  EXPECT_EQ(loop.sleepTime(kStart), 50u);
  EXPECT_EQ(loop.sleepTime(kStart + 5), 0u);
  EXPECT_EQ(loop.sleepTime(kStart + 9), 0u);  // overdue
  loop.removeTimer(t);
  t = loop.addTimer(1001, [] {});
  EXPECT_EQ(loop.sleepTime(kStart), 10000u);
  loop.removeTimer(t);
}

// A zero-tick timer fires in the next step, one added by a firing timer a
// pass later; a delayed timer counts from the next turn.
TEST_F(LoopTest, TimersCountFromWhenTheyAreArmed) {
  int outer = 0, inner = 0, delayed = 0;
  loop.addTimer(0, [&] { ++outer, loop.addTimer(0, [&] { ++inner; }); });
  EXPECT_TRUE(loop.step(true));  // due: the poll does not sleep
  EXPECT_EQ(outer, 1);
  EXPECT_EQ(inner, 0);
  turn();
  EXPECT_EQ(inner, 1);

  loop.addDelayedTimer(10, [&] { ++delayed; });
  after(5);  // armed now: due 10 ticks on
  after(9);
  EXPECT_EQ(delayed, 0);
  after(1);
  EXPECT_EQ(delayed, 1);
}

TEST_F(LoopTest, LongTimeoutsAreClampedAndTimersSurviveTheCounterWrap) {
  int fired = 0;
  testing::internal::CaptureStderr();
  loop.addTimer(0xFFFFFFFF, [&] { ++fired; });
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "WARNING: limiting timer timeout to 4294607296cs\n");
  after(kMaxTimeout - 1);
  EXPECT_EQ(fired, 0);
  after(1);
  EXPECT_EQ(fired, 1);

  clock.set(0xFFFFFF00u);
  loop.addTimer(0x200, [&] { ++fired; });
  after(0x1FF);  // now 0xFF after the wrap
  EXPECT_EQ(fired, 1);
  after(1);
  EXPECT_EQ(fired, 2);
}

TEST_F(LoopTest, CancelFromACallbackOrByCallbackIdentity) {
  bool second = false;
  TimerPtr victim;
  loop.addTimer(1, [&] { EXPECT_TRUE(loop.removeTimer(victim)); });  // both due in the same pass
  victim = loop.addTimer(1, [&] { second = true; });
  after(1);
  EXPECT_FALSE(second);

  struct Target {
    int hits = 0;
    void hit() { ++hits; }
  } a, b;
  const auto hitB = [&] { return ThinRunner::Callback(bind<&Target::hit>(&b)); };
  loop.addTimer(1, bind<&Target::hit>(&a));
  loop.addTimer(1, hitB());
  loop.addDelayedTimer(1, hitB());
  EXPECT_TRUE(loop.removeTimer(hitB()));
  EXPECT_TRUE(loop.removeTimer(hitB()));  // the delayed one
  EXPECT_FALSE(loop.removeTimer(hitB()));
  after(2);
  turn();
  EXPECT_EQ(a.hits, 1);
  EXPECT_EQ(b.hits, 0);
}

// Also: every timer of one tick fires in the same pass.
TEST_F(LoopTest, HeapKeepsOrderUnderRandomAddsAndCancels) {
  std::mt19937 rng(7);
  std::vector<std::pair<unsigned int, int>> expected, fired;  // (expiry, id)
  std::vector<TimerPtr> live;
  for (int id = 0; id < 3000; ++id) {
    const unsigned int ticks = rng() % 500;
    live.push_back(loop.addTimer(ticks, [&, id, ticks] { fired.push_back({kStart + ticks, id}); }));
    expected.push_back({kStart + ticks, id});
    if (rng() % 3 == 0) {  // cancel a random live timer
      const size_t k = rng() % live.size();
      loop.removeTimer(live[k]);
      live.erase(live.begin() + k);
      expected.erase(expected.begin() + k);
    }
  }
  for (int t = 0; t < 500; ++t) after(1);
  ASSERT_EQ(fired.size(), expected.size());
  for (size_t i = 1; i < fired.size(); ++i) EXPECT_LE(fired[i - 1].first, fired[i].first);
  std::sort(fired.begin(), fired.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(fired, expected);
}

TEST_F(LoopTest, SocketRegistrationDuplicatesRemovalAndReRegistration) {
  const int fd = readyPipe();
  unsigned int seen = 0;
  int second = 0;
  loop.addSocket(fd, POLLIN, [&](int, unsigned ev) { seen = ev; });
  testing::internal::CaptureStderr();
  loop.addSocket(fd, POLLIN, [&](int, unsigned) { ++second; });
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "WARNING: could not add socket fd=" + std::to_string(fd) + " becouse of dup\n");
  ThinRunner::SocketCallback cb;
  ASSERT_TRUE(loop.removeSocket(fd, &cb));
  EXPECT_FALSE(loop.removeSocket(fd));
  EXPECT_FALSE(loop.changeSocket(fd, POLLIN));
  turn();
  EXPECT_EQ(seen, 0u);
  loop.addSocket(fd, POLLIN, std::move(cb));  // the first callback, kept
  turn();
  EXPECT_EQ(seen, unsigned(POLLIN));
  EXPECT_EQ(second, 0);
  EXPECT_TRUE(loop.changeSocket(fd, POLLOUT));  // a pipe's read end is never writable
  seen = 0;
  turn();
  EXPECT_EQ(seen, 0u);
  loop.removeSocket(fd);
}

// Every ready descriptor runs once per turn, whatever the callbacks remove.
TEST_F(LoopTest, CallbacksMayRemoveThemselvesAndOthers) {
  std::vector<int> ready, calls(6, 0);
  for (int i = 0; i < 6; ++i) ready.push_back(readyPipe());
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

TEST_F(LoopTest, HooksRunOncePerTurnInAlternatingOrderWhateverTheyChange) {
  std::string order;
  ThinRunner::Callback a = [&] { order += 'a'; }, b = [&] { order += 'b'; };
  ThinRunner::Callback c = [&] {  // removes b, still to run this turn; adds a for the next
    order += 'c';
    loop.removeBeforeSleep(b);
    loop.addBeforeSleep(a);
  };
  loop.addBeforeSleep(a);
  loop.addBeforeSleep(b);
  turn();
  turn();
  EXPECT_EQ(order, "baab");
  loop.addBeforeSleep(a);  // twice: one removal takes both
  loop.removeBeforeSleep(a);
  loop.addBeforeSleep(c);
  turn();
  EXPECT_EQ(order, "baabc");
  turn();
  EXPECT_TRUE(order == "baabcac" || order == "baabcca") << order;  // a, added last pass, runs now
  loop.removeBeforeSleep(a);
  loop.removeBeforeSleep(c);
}

TEST_F(LoopTest, ShutdownDropsEverything) {
  loop.addSocket(readyPipe(), POLLIN, [](int, unsigned) {});
  loop.addTimer(5, [] {});
  loop.addDelayedTimer(5, [] {});
  loop.addBeforeSleep([] {});
  loop.shutdown();  // TearDown checks that nothing is left
  EXPECT_TRUE(loop.step(false));  // still running: shutdown does not stop
}

// kr::Timer arms in the process runner.
class TimerHandleTest : public ::testing::Test {
 protected:
  void TearDown() override { EXPECT_EQ(runner.timerCount(), 0u); }
  void after(unsigned int ticks) {
    clock.advance(ticks);
    runner.step(false);
  }
  TestClock clock{500};
  Runner runner;
};

TEST_F(TimerHandleTest, DestroyingCancelsAndAFiredHandleIsEmptyAndMayReArm) {
  int fired = 0;
  { Timer gone(1, [&] { ++fired; }); }
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
  after(1);
  EXPECT_EQ(fired, 1) << "the destroyed one did not fire";
  EXPECT_FALSE(moved.active());
  EXPECT_TRUE(t.active());  // re-armed into t by the callback
  for (int i = 0; i < 3; ++i) after(1);
  EXPECT_EQ(fired, 3);
  EXPECT_FALSE(t.active());
  Timer pending(5, [] {});
  moved = std::move(pending);  // assignment of an empty handle's place
  moved.cancel();
}

}  // namespace
}  // namespace kr
