// When credit is topped up, and to what: pure functions of plain values, no clock and no disk.
//
// At the limit's next time, and from then on at the same time of the day on the wall of the zone,
// the credit becomes (or, with roll-over, grows by) the value of that day's kind. For each local
// date at most once, wherever the clock goes:
//
// - A date whose time came while the Server was off, or that the clock jumped over, was missed. Of
//   these the latest is made good, by its own day's value, unless today's time has come as well;
//   with roll-over all of the last kMaxMissedTopUps, in order, as far as the cap lets the credit
//   grow. What is made good counts as a top-up of its own date.
// - A clock that is set back finds the dates that had their top-up remembered (TopUpMemory), and
//   those that it had only jumped over still to come. So one that was a year ahead for an hour
//   costs that one date, a year later, and blocks no other. A date that has had its top-up also
//   settles those before it: nothing is missed while today has had its own.
// - A time that daylight saving leaves out comes when the clocks have passed it, one that exists
//   twice when it is there first; the next day has the same time on the wall again.
//
// An administrator's next time is waited for, and made anew (the first such time of the day that
// comes) when it is more than 25 hours ahead. One that has passed counts from its date.
#pragma once

#include <QDate>
#include <QTimeZone>
#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

#include "link/LimitsRecord.h"
#include "server/TopUpMemory.h"

namespace vardell::server {

struct TopUpOptions {
  bool rollOver = false;            // the credit grows, instead of becoming the value
  std::optional<std::int64_t> cap;  // of growing, minutes; absent: 2^31-1

  bool operator==(const TopUpOptions&) const = default;
};

struct TopUpClock {
  std::int64_t now = 0;  // milliseconds since 1970
  bool believed = false;
};

// A clock that nobody has set is believed ten minutes after boot.
bool IsClockBelieved(bool isSet, std::chrono::milliseconds sinceBoot);

struct DueTopUp {
  QDate date;
  std::int64_t credit = 0;  // what the credit becomes, minutes
  std::int64_t change = 0;  // by how much; may be 0, and below 0 without roll-over

  bool operator==(const DueTopUp&) const = default;
};

struct TopUpOutcome {
  std::vector<DueTopUp> due;  // in the order in which they are booked
  std::int64_t credit = 0;    // after them all; as before where none is due
  double nextTime = 0;        // for LimitsRecord::nextTopUpTime
  TopUpMemory memory;
};

// The instant of a LimitsRecord::nextTopUpTime, in milliseconds since 1970; absent where it is
// none.
std::optional<std::int64_t> TopUpInstant(double nextTime);

// Minutes of the top-up of a date; 0: none. The week-end's pair counts on Saturday and Sunday where
// its value is above 0 and its coefficient is 60 or 1; a coefficient of the other pair that is
// neither is 1.
std::int64_t TopUpMinutes(const LimitsRecord& limits, QDate date);

// To be called now and then, at `nextTime` at the latest, and after every change of the limits'
// top-up keys; outcome and memory are to be kept together with what is booked. `limits.credit` is
// not looked at. Nothing is done, and nothing changes, while the clock is not believed or stands
// outside of the years 1970 to 9998. A next time of 0, or outside of the years 1 to 9999, is none;
// one that is there lies behind `clock.now` afterwards.
// Microseconds; the work does not grow with the time that was missed.
TopUpOutcome DecideTopUps(const LimitsRecord& limits, const TopUpOptions& options,
                          const TopUpMemory& memory, std::int64_t credit, const QTimeZone& zone,
                          TopUpClock clock);

}  // namespace vardell::server
