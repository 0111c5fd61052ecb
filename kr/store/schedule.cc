#include "kr/store/schedule.h"

#include <time.h>

#include <algorithm>

namespace kr {
namespace {

constexpr long kDay = 86400;

struct Day {
  long mid;  // the day's midnight
  int wday;  // 0 = Sunday
};

// gmtime() and back through mktime(), deliberately without a time-zone
// correction between them: stored schedules have always been judged this
// way, and the platform's daemons run with UTC as their zone.
Day dayOf(long t) {
  const time_t tt = static_cast<time_t>(t);
  struct tm tm;
  gmtime_r(&tt, &tm);
  const int wday = tm.tm_wday;
  tm.tm_hour = tm.tm_min = tm.tm_sec = 0;
  return {static_cast<long>(mktime(&tm)), wday};
}

bool daySet(unsigned int days, int wday, bool reversedDays) {
  return (days >> (reversedDays ? 6 - wday : wday)) & 1;
}

}  // namespace

bool TimeSchedule::match(long t, bool reversedDays) const {
  if (!enabled) return true;
  const Day d = dayOf(t);
  if (!daySet(days, d.wday, reversedDays)) return invert;
  const long start = d.mid + static_cast<long>(from), end = d.mid + static_cast<long>(to);
  // Across midnight both parts belong to the calendar day of t, whose bit
  // was tested: the early hours are not the tail of the day before.
  const bool inside = from <= to ? (start <= t && t < end) : (t < end || t >= start);
  return inside != invert;
}

long TimeSchedule::nextChange(long t, bool reversedDays) const {
  if (!enabled) return -1;
  Day d = dayOf(t);
  const long lo = static_cast<long>(std::min(from, to)), hi = static_cast<long>(std::max(from, to));
  // Eight days: the rest of today, the six others, and today's weekday
  // again, whose period may still lie ahead.
  for (int i = 0; i < 8; ++i) {
    if (daySet(days, d.wday, reversedDays) && t < d.mid + hi) {
      const long boundary = t < d.mid + lo ? d.mid + lo : d.mid + hi;
      // A boundary on the epoch itself counts as none, as it always has
      // for the services that arm timers from this.
      return boundary == 0 ? -1 : boundary + 1;
    }
    d.wday = (d.wday + 1) % 7;
    d.mid += kDay;
  }
  return -1;
}

void TimeSchedule::getConfig(message& m, unsigned int flags, bool_id enabledId, bool_id invertId,
                             u32_id daysId, u32_id fromId, u32_id toId) const {
  const bool compact = (flags & 0x80000000u) != 0;
  if (!compact || enabled) m.insert(enabledId, enabled);
  if (!compact || invert) m.insert(invertId, invert);
  if (!compact || days) m.insert(daysId, days);
  if (!compact || from) m.insert(fromId, from);
  if (!compact || to) m.insert(toId, to);
}

void TimeSchedule::setConfig(const message& m, bool_id enabledId, bool_id invertId, u32_id daysId,
                             u32_id fromId, u32_id toId) {
  m.extract(enabledId, enabled);
  m.extract(invertId, invert);
  m.extract(daysId, days);
  m.extract(fromId, from);
  m.extract(toId, to);
}

}  // namespace kr
