// kr::TimeSchedule: "active on these weekdays between these two times of
// day", as a configuration object embeds it.
//
// A small value type with five settings. It answers whether a moment
// matches and from when on the answer may change, so that the embedding
// service can arm one timer for the next change instead of polling, and it
// reads and writes its settings as fields of the object's message under ids
// that the object chooses.
//
//   kr::TimeSchedule s;
//   s.setConfig(obj, kEnabled, kInvert, kDays, kFrom, kTo);
//   bool on = s.match(now, false);
//   long next = s.nextChange(now, false);   // -1: the answer never changes
//
// Moments are seconds since the epoch; days and times of day are taken from
// gmtime(), so a service that wants local time passes the local moment
// (epoch seconds plus its time-zone offset). A period whose start is after
// its end runs across midnight. Days are a fixed 86400 seconds long when
// nextChange() looks ahead.
//
// Threading: none of its own; a plain value, copyable.
#pragma once

#include "kr/message/message.h"

namespace kr {

struct TimeSchedule {
  // A disabled schedule always matches and never changes.
  bool enabled = false;
  // The result outside the period; inside it, the opposite. So false means
  // "active inside the period", true "active except during it".
  bool invert = false;
  // Weekdays, one bit each. Normally Sunday is bit 0 (value 1) up to
  // Saturday bit 6 (value 64); with `reversedDays` the order is mirrored,
  // Sunday bit 6 down to Saturday bit 0, as some configurations store it.
  unsigned int days = 0;
  // The daily period, in seconds after midnight: [from, to) when
  // from <= to (from == to is empty), else from `from` to midnight and from
  // midnight to `to` of the same calendar day.
  unsigned int from = 0;
  unsigned int to = 0;

  // Whether moment t matches. On a day without its bit the result is
  // `invert`, as outside the period.
  bool match(long t, bool reversedDays) const;
  // A moment after which match() may answer differently than at t: one
  // second past the next period boundary within the next 8 days, so that
  // match() at the returned moment already sees the new state. -1 when
  // there is none (disabled, no days).
  long nextChange(long t, bool reversedDays) const;

  // Writes the five settings into m. With the top bit of `flags` set (the
  // compact store form, e.g. 0x80000005) only settings that are not
  // zero/false are written, so a default schedule costs nothing in a stored
  // object.
  void getConfig(message& m, unsigned int flags, bool_id enabledId, bool_id invertId, u32_id daysId,
                 u32_id fromId, u32_id toId) const;
  // Reads the settings that m carries; an absent field leaves its setting
  // as it was, so a partial update changes only what it names.
  void setConfig(const message& m, bool_id enabledId, bool_id invertId, u32_id daysId, u32_id fromId,
                 u32_id toId);
};

}  // namespace kr
