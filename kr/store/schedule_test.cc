#include "kr/store/schedule.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

namespace kr {
namespace {

constexpr long kDay = 86400, kHour = 3600;
constexpr long kMonday = 1704067200;  // 2024-01-01 00:00:00 UTC, a Monday
constexpr unsigned int kMon = 1 << 1, kSun = 1 << 0;

long at(int dayOffset, long seconds) { return kMonday + dayOffset * kDay + seconds; }

TimeSchedule schedule(unsigned int days, unsigned int from, unsigned int to, bool invert = false) {
  return {.enabled = true, .invert = invert, .days = days, .from = from, .to = to};
}

// Days are cut with gmtime() and mktime(): the daemons run in UTC, and so do
// these tests, whatever the machine's zone.
class TimeScheduleTest : public ::testing::Test {
  void SetUp() override { setenv("TZ", "UTC0", 1), tzset(); }
};

TEST_F(TimeScheduleTest, DisabledOrDaylessSchedulesNeverChange) {
  const TimeSchedule off{.enabled = false, .invert = true, .days = 0x7f, .from = 0, .to = 1000};
  EXPECT_TRUE(off.match(at(0, 500), false));
  EXPECT_EQ(off.nextChange(at(0, 500), false), -1);
  // No weekday (bit 7 is none): the result outside the period, always.
  for (bool invert : {false, true}) {
    const TimeSchedule s = schedule(invert ? 0x80 : 0, 0, 86399, invert);
    EXPECT_EQ(s.match(at(0, 12 * kHour), false), invert);
    EXPECT_EQ(s.nextChange(at(0, 12 * kHour), true), -1);
  }
}

TEST_F(TimeScheduleTest, PeriodWithinADay) {
  const TimeSchedule s = schedule(kMon, 28800, 61200);  // 08:00-17:00
  EXPECT_FALSE(s.match(at(0, 28799), false));
  EXPECT_TRUE(s.match(at(0, 28800), false));
  EXPECT_TRUE(s.match(at(0, 61199), false));
  EXPECT_FALSE(s.match(at(0, 61200), false));
  EXPECT_FALSE(s.match(at(1, 12 * kHour), false));  // Tuesday
  // One second past the boundary, so that match() there sees the new state.
  EXPECT_EQ(s.nextChange(at(0, 7 * kHour), false), at(0, 28801));
  EXPECT_EQ(s.nextChange(at(0, 12 * kHour), false), at(0, 61201));
  // Past the period: next Monday, the eighth day looked at.
  EXPECT_EQ(s.nextChange(at(0, 61200), false), at(7, 28801));
  EXPECT_EQ(s.nextChange(at(1, 12 * kHour), false), at(7, 28801));
  // Saturday evening, Sunday only: the week wraps to Sunday.
  EXPECT_EQ(schedule(kSun, 28800, 61200).nextChange(at(5, 18 * kHour), false), at(6, 28801));
  const TimeSchedule inv = schedule(kMon, 28800, 61200, true);
  EXPECT_FALSE(inv.match(at(0, 12 * kHour), false));
  EXPECT_TRUE(inv.match(at(0, 7 * kHour), false));
}

TEST_F(TimeScheduleTest, PeriodAcrossMidnightBelongsToItsCalendarDay) {
  const TimeSchedule s = schedule(kMon, 79200, 21600);  // 22:00-06:00
  EXPECT_TRUE(s.match(at(0, 5 * kHour), false));
  EXPECT_FALSE(s.match(at(0, 21600), false));
  EXPECT_TRUE(s.match(at(0, 79200), false));
  EXPECT_FALSE(s.match(at(1, 2 * kHour), false));  // Tuesday's early hours are Tuesday's
  EXPECT_EQ(s.nextChange(at(0, 3 * kHour), false), at(0, 21601));
  EXPECT_EQ(s.nextChange(at(0, 12 * kHour), false), at(0, 79201));
  EXPECT_EQ(s.nextChange(at(0, 23 * kHour), false), at(7, 21601));
}

TEST_F(TimeScheduleTest, ReversedDaysAndEmptyPeriods) {
  const TimeSchedule s = schedule(1 << 5, 0, 86400);  // reversed, bit 5 is Monday, else Friday
  EXPECT_TRUE(s.match(at(0, kHour), true));
  EXPECT_FALSE(s.match(at(4, kHour), true));
  EXPECT_FALSE(s.match(at(0, kHour), false));
  EXPECT_TRUE(s.match(at(4, kHour), false));
  EXPECT_EQ(schedule(1, 100, 200).nextChange(at(6, 0), true), at(12, 101));  // Saturday, reversed
  // from == to: nothing is inside, even on a set day.
  EXPECT_FALSE(schedule(0x7f, 3600, 3600).match(at(0, 3600), false));
  EXPECT_TRUE(schedule(0x7f, 3600, 3600, true).match(at(0, 3600), false));
  // A boundary on the epoch itself is no boundary.
  EXPECT_EQ(schedule(0x7f, 0, 0).nextChange(-10, false), -1);
}

TEST_F(TimeScheduleTest, ConfigFields) {
  constexpr bool_id kEnabled(1), kInvert(2);
  constexpr u32_id kDays(3), kFrom(4), kTo(5);
  constexpr unsigned int kStoreForm = 0x80000005;
  message m;
  TimeSchedule().getConfig(m, kStoreForm, kEnabled, kInvert, kDays, kFrom, kTo);
  EXPECT_EQ(m.count(), 0u);  // the compact form omits defaults
  TimeSchedule().getConfig(m, 5, kEnabled, kInvert, kDays, kFrom, kTo);
  EXPECT_EQ(m.count(), 5u);
  EXPECT_TRUE(m.has(kEnabled) && !m.get(kEnabled, true));
  m = message();
  schedule(0, 28800, 0).getConfig(m, kStoreForm, kEnabled, kInvert, kDays, kFrom, kTo);
  EXPECT_EQ(m.count(), 2u);
  // Reading back changes only what the message names.
  TimeSchedule back = schedule(kMon, 1, 61200, true);
  back.setConfig(m, kEnabled, kInvert, kDays, kFrom, kTo);
  EXPECT_TRUE(back.enabled && back.invert && back.days == kMon && back.from == 28800 && back.to == 61200);
  m.insert(kInvert, false);
  m.insert(kTo, 0u);
  back.setConfig(m, kEnabled, kInvert, kDays, kFrom, kTo);
  EXPECT_TRUE(!back.invert && back.to == 0);
}

}  // namespace
}  // namespace kr
