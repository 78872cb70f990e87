// Allowed hours that the sixteen keys of a limit cannot say: windows for each day of the week and
// for holidays, over midnight too. Pure functions of plain values: no clock and no disk.
//
// A window belongs to the day on which it begins, so one from 22:00 to 02:00 on a Friday also
// allows the first two hours of Saturday, whatever Saturday's own windows are. Times are those on
// the wall: an hour that daylight saving repeats is allowed, or not, both times.
#pragma once

#include <QDate>
#include <QString>
#include <QTimeZone>
#include <array>
#include <cstdint>
#include <limits>
#include <optional>
#include <vector>

#include "link/LimitsRecord.h"

namespace vardell::server {

struct ScheduleWindow {
  int start = 0;  // minutes since midnight, 0 to 1439
  int stop = 0;   // to before here; above `start` by at most 1440, from 1440 on the next day's

  bool operator==(const ScheduleWindow&) const = default;
};

// At most kMaxScheduleWindows, in order, none begins before the one ahead of it has ended. Empty:
// closed.
using DayWindows = std::vector<ScheduleWindow>;

struct Holiday {
  QString name;
  QDate first;
  QDate last;  // included
  DayWindows windows;

  bool operator==(const Holiday&) const = default;
};

struct Schedule {
  std::array<DayWindows, 7> days;  // from Monday on
  // At most kMaxScheduleHolidays; their windows take the place of the week-day's. Where two have a
  // date in common, the one further up counts.
  std::vector<Holiday> holidays;

  bool operator==(const Schedule&) const = default;
};

// What may begin on that date.
const DayWindows& WindowsOf(const Schedule& schedule, QDate date);

// --- The session: curfew keys for the agent.

struct CurfewHours {
  std::int32_t start = 0;  // minutes since midnight, allowed from here ...
  std::int32_t stop = 0;   // ... to before here

  bool operator==(const CurfewHours&) const = default;
};

struct CurfewKeys {
  CurfewHours weekDay;
  CurfewHours weekEnd;
};

// What to send at `now` (milliseconds since 1970). The agent's keys know one window for a day; they
// are made anew for each fetch, and say: the window that now is in, else today's next one, else the
// last one of today. So the alert names the right time, and what the agent decides of them in this
// minute is what the schedule says.
//
// An agent tests what it fetched up to a minute before. What the keys say is right a minute later,
// too, over midnight as well; only the end of a window of a whole day is noticed a minute late.
CurfewKeys TodaysKeys(const Schedule& schedule, const QTimeZone& zone, std::int64_t now);

// The limits with these hours, both enabled.
LimitsRecord WithCurfewKeys(LimitsRecord limits, const CurfewKeys& keys);

// --- An application: the credit that it is handed.

inline constexpr std::int64_t kNoEndInSight = std::numeric_limits<std::int64_t>::max();

// The instant at which what is allowed at `now` ends; absent where it is not allowed. Windows that
// touch are one. kNoEndInSight where it ends in kMaxScheduleDaysAhead days at the earliest.
std::optional<std::int64_t> AllowedUntil(const Schedule& schedule, const QTimeZone& zone,
                                         std::int64_t now);

// Whole minutes from `now` to that instant, rounded down; 0 where it is not allowed, kNoEndInSight
// as above.
std::int64_t MinutesToWindowsEnd(const Schedule& schedule, const QTimeZone& zone, std::int64_t now);

// What precedes the fetch that is answered. Handed at the start, credit c lasts 60 · c + 1 s;
// handed after a report, when a minute that is paid has just begun, 60 · (c + 1) s.
enum class HandedAfter { Start, Report };

// The credit (0 to 2^31-1, never kSpentCredit), but never more than the minutes to the window's
// end. An agent that asks each minute warns 5 minutes and 1 minute before its end, and that is
// never later than 5 s after the window's, nor earlier than 60 s before it, if the credit lasts so
// long. 0 where it is not allowed: at a start that may still be worth an agent's last minute.
std::int32_t CreditToHand(std::int64_t credit, const Schedule& schedule, const QTimeZone& zone,
                          std::int64_t now, HandedAfter after);

}  // namespace vardell::server
