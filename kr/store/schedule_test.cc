#include "kr/store/schedule.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <string>

namespace kr {
namespace {

constexpr long kDay = 86400;
constexpr long kMonday = 1704067200;  // 2024-01-01 00:00:00 UTC, a Monday
constexpr long kHour = 3600;
constexpr unsigned int kMon = 1 << 1, kSun = 1 << 0;

long at(int dayOffset, long seconds) { return kMonday + dayOffset * kDay + seconds; }

TimeSchedule schedule(unsigned int days, unsigned int from, unsigned int to, bool invert = false) {
  TimeSchedule s;
  s.enabled = true;
  s.invert = invert;
  s.days = days;
  s.from = from;
  s.to = to;
  return s;
}

// Days are cut with gmtime() and mktime(); the daemons run in UTC, and so
// do these tests, whatever the machine's zone.
class TimeScheduleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const char* tz = getenv("TZ")) saved_ = tz, hadTz_ = true;
    setenv("TZ", "UTC0", 1);
    tzset();
  }
  void TearDown() override {
    if (hadTz_) setenv("TZ", saved_.c_str(), 1);
    else unsetenv("TZ");
    tzset();
  }

 private:
  std::string saved_;
  bool hadTz_ = false;
};

TEST_F(TimeScheduleTest, DisabledOrDaylessSchedulesNeverChange) {
  TimeSchedule off = schedule(0x7f, 0, 1000, true);
  off.enabled = false;
  for (long t : {at(0, 500), at(3, 5000), 0L}) {
    EXPECT_TRUE(off.match(t, false));
    EXPECT_EQ(off.nextChange(t, false), -1);
  }
  // No weekday (bit 7 is none): the result outside the period, always.
  for (unsigned int days : {0u, 0x80u}) {
    for (bool invert : {false, true}) {
      const TimeSchedule s = schedule(days, 0, 86399, invert);
      EXPECT_EQ(s.match(at(0, 12 * kHour), false), invert);
      EXPECT_EQ(s.nextChange(at(0, 12 * kHour), true), -1);
    }
  }
}

TEST_F(TimeScheduleTest, PeriodWithinADay) {
  const TimeSchedule s = schedule(kMon, 28800, 61200);  // 08:00-17:00
  EXPECT_FALSE(s.match(at(0, 28799), false));
  EXPECT_TRUE(s.match(at(0, 28800), false));
  EXPECT_TRUE(s.match(at(0, 61199), false));
  EXPECT_FALSE(s.match(at(0, 61200), false));
  EXPECT_FALSE(s.match(at(1, 12 * kHour), false));  // Tuesday

  EXPECT_EQ(s.nextChange(at(0, 7 * kHour), false), at(0, 28801));
  EXPECT_EQ(s.nextChange(at(0, 12 * kHour), false), at(0, 61201));
  // Past the period: next Monday, the eighth day looked at.
  EXPECT_EQ(s.nextChange(at(0, 61200), false), at(7, 28801));
  EXPECT_EQ(s.nextChange(at(1, 12 * kHour), false), at(7, 28801));

  // The moment returned already sees the new state.
  for (long t : {at(0, 7 * kHour), at(0, 12 * kHour), at(0, 20 * kHour)}) {
    EXPECT_NE(s.match(s.nextChange(t, false), false), s.match(t, false)) << t - kMonday;
  }

  const TimeSchedule inv = schedule(kMon, 28800, 61200, true);
  EXPECT_FALSE(inv.match(at(0, 12 * kHour), false));
  EXPECT_TRUE(inv.match(at(0, 7 * kHour), false));
  EXPECT_TRUE(inv.match(at(1, 12 * kHour), false));

  // Saturday evening, Sunday only: the week wraps to Sunday.
  EXPECT_EQ(schedule(kSun, 28800, 61200).nextChange(at(5, 18 * kHour), false), at(6, 28801));
}

TEST_F(TimeScheduleTest, PeriodAcrossMidnightBelongsToItsCalendarDay) {
  const TimeSchedule s = schedule(kMon, 79200, 21600);  // 22:00-06:00
  EXPECT_TRUE(s.match(at(0, 5 * kHour), false));
  EXPECT_TRUE(s.match(at(0, 23 * kHour), false));
  EXPECT_FALSE(s.match(at(0, 12 * kHour), false));
  EXPECT_FALSE(s.match(at(0, 21600), false));
  EXPECT_TRUE(s.match(at(0, 79200), false));
  // Tuesday's early hours are Tuesday's, and Tuesday is not set.
  EXPECT_FALSE(s.match(at(1, 2 * kHour), false));

  EXPECT_EQ(s.nextChange(at(0, 3 * kHour), false), at(0, 21601));
  EXPECT_EQ(s.nextChange(at(0, 12 * kHour), false), at(0, 79201));
  EXPECT_EQ(s.nextChange(at(0, 23 * kHour), false), at(7, 21601));
}

TEST_F(TimeScheduleTest, ReversedDaysAndEmptyPeriods) {
  // Reversed, Monday is bit 5, which normally is Friday.
  const TimeSchedule s = schedule(1 << 5, 0, 86400);
  EXPECT_TRUE(s.match(at(0, kHour), true));
  EXPECT_FALSE(s.match(at(4, kHour), true));
  EXPECT_FALSE(s.match(at(0, kHour), false));
  EXPECT_TRUE(s.match(at(4, kHour), false));
  EXPECT_EQ(schedule(1, 100, 200).nextChange(at(6, 0), true), at(12, 101));  // Saturday, reversed

  // from == to: nothing is inside, even on a set day.
  for (bool invert : {false, true}) {
    const TimeSchedule empty = schedule(0x7f, 3600, 3600, invert);
    EXPECT_EQ(empty.match(at(0, 3600), false), invert);
  }
  // A boundary on the epoch itself is no boundary.
  EXPECT_EQ(schedule(0x7f, 0, 0).nextChange(-10, false), -1);
}

TEST_F(TimeScheduleTest, ConfigFields) {
  constexpr bool_id kEnabled(1), kInvert(2);
  constexpr u32_id kDays(3), kFrom(4), kTo(5);
  constexpr unsigned int kStoreForm = 0x80000005;

  message m;
  TimeSchedule().getConfig(m, kStoreForm, kEnabled, kInvert, kDays, kFrom, kTo);
  EXPECT_EQ(m.count(), 0u);
  TimeSchedule().getConfig(m, 5, kEnabled, kInvert, kDays, kFrom, kTo);
  EXPECT_EQ(m.count(), 5u);
  EXPECT_TRUE(m.has(kEnabled) && !m.get(kEnabled, true));

  m = message();
  schedule(0, 28800, 0).getConfig(m, kStoreForm, kEnabled, kInvert, kDays, kFrom, kTo);
  EXPECT_EQ(m.count(), 2u);
  EXPECT_TRUE(m.get(kEnabled));
  EXPECT_EQ(m.get(kFrom), 28800u);

  // Reading back changes only what the message names.
  TimeSchedule back = schedule(kMon, 1, 61200, true);
  back.setConfig(m, kEnabled, kInvert, kDays, kFrom, kTo);
  EXPECT_TRUE(back.enabled && back.invert);
  EXPECT_EQ(back.days, kMon);
  EXPECT_EQ(back.from, 28800u);
  EXPECT_EQ(back.to, 61200u);
  m.insert(kInvert, false);
  m.insert(kTo, 0u);
  back.setConfig(m, kEnabled, kInvert, kDays, kFrom, kTo);
  EXPECT_FALSE(back.invert);
  EXPECT_EQ(back.to, 0u);
}

}  // namespace
}  // namespace kr
