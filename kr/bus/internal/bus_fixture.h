// Test support: a GoogleTest fixture with a Looper connected to a
// FakeLoader. Each test calls start() (optionally with the fields of the
// loader's CTRL_READY) and finds the process's hello in `hello`.
//
// Teardown checks that nothing is left behind: after a bounded settle the
// loop has no timers and no socket but the bus socket, the Looper is gone
// from getLooper() and has closed descriptor 3, and the process has exactly
// the descriptors it had before the test. Event-loop thread only.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <set>

#include "kr/bus/internal/fake_loader.h"

namespace kr::internal {

class BusFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    fdsBefore_ = openFds();
    bus = std::make_unique<BusHarness>();
  }
  void TearDown() override {
    if (looper) {
      // A stopped loop runs no timers; the test that stopped it checks.
      if (!looper->isStopped()) {
        EXPECT_TRUE(bus->settle(*looper)) << looper->timerCount() << " timers left";
      }
      EXPECT_EQ(looper->socketCount(), looper->busSocket() >= 0 ? 1u : 0u) << "sockets beyond the bus socket";
      const bool connected = looper->busSocket() >= 0;
      looper.reset();
      if (connected) {
        EXPECT_FALSE(fdOpen(3)) << "the bus socket outlived its Looper";
      }
    }
    EXPECT_EQ(getLooper(), nullptr);
    bus.reset();
    EXPECT_EQ(openFds(), fdsBefore_);
  }

  TestLooper& start(const message& ready = message()) {
    looper = bus->start<TestLooper>(ready);
    if (!looper) {
      ADD_FAILURE() << "could not hand over descriptor 3";
      std::abort();
    }
    hello = bus->loader.take().m;
    EXPECT_TRUE(bus->settle(*looper));
    return *looper;
  }
  bool waitFor(const std::function<bool()>& done, int ms = 2000) { return bus->waitFor(*looper, done, ms); }
  // Steps the loop `n` times and takes in what the process wrote. Three
  // turns take a frame that is already in the socket through reading,
  // dispatch and the flush of any answer.
  void turn(int n = 1) {
    for (int i = 0; i < n; ++i) looper->step(false);
    bus->loader.pump();
  }
  FakeLoader& loader() { return bus->loader; }

  std::unique_ptr<BusHarness> bus;
  std::unique_ptr<TestLooper> looper;
  message hello;

 private:
  std::set<int> fdsBefore_;
};

}  // namespace kr::internal
