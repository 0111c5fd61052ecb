// The loop's clock: ticks of 10 ms (centiseconds, "jiffies") on an unsigned
// 32-bit counter that wraps. Every timeout in the library is in ticks.
//
// The counter comes from the kernel page "/dev/jiffies" when a runner could
// map it, otherwise from the monotonic clock; either way it reads as ticks
// since boot plus 30000. Tests replace it with a TestClock.
#pragma once

#include <cstdint>

namespace kr {

unsigned int getJiffies();
// Whole seconds: getJiffies() / 100.
unsigned int getUptime();

// Orders two ticks around `now`, so that the counter may wrap: a tick up to
// 359999 ticks (an hour) before now still counts as earlier, anything up to
// 2^32 - 360000 ticks after it as later. Returns -1, 0 or +1 as a < b,
// a == b, a > b.
// Inline: the timer heap calls it twice per level.
inline int compareTicks(unsigned int now, unsigned int a, unsigned int b) {
  if (a == b) return 0;
  const unsigned int base = now - 359999;
  return a - base > b - base ? 1 : -1;
}

// The largest timeout whose expiry still compares as later than now; longer
// timeouts are cut to it.
inline constexpr unsigned int kMaxTimeout = 4294607296u;  // 2^32 - 360000

// Maps "/dev/jiffies" if the system has it; later readings of getJiffies()
// come from that page. A runner calls this when it is constructed.
void mapJiffiesPage();

// For tests: while a TestClock exists, getJiffies() returns its value and
// nothing else moves it, so timer logic can be driven without sleeping.
// One at a time; event-loop thread only.
class TestClock {
 public:
  explicit TestClock(unsigned int start);
  ~TestClock();
  TestClock(const TestClock&) = delete;
  TestClock& operator=(const TestClock&) = delete;

  unsigned int now() const { return now_; }
  void set(unsigned int ticks) { now_ = ticks; }
  void advance(unsigned int ticks) { now_ += ticks; }

 private:
  unsigned int now_;
};

}  // namespace kr
