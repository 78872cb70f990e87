#include "server/Schedules.h"

#include <algorithm>

#include "Common Sources/Caps.h"
#include "server/CreditRules.h"
#include "server/LocalTimes.h"

namespace vardell::server {
namespace {

constexpr int kMinutesOfDay = 1440;

bool IsWeekEnd(QDate date) {
  return date.dayOfWeek() >= Qt::Saturday;
}

void Append(DayWindows* allowed, ScheduleWindow window) {
  if (window.start >= window.stop) return;
  if (!allowed->empty() && window.start <= allowed->back().stop) {
    allowed->back().stop = std::max(allowed->back().stop, window.stop);
  } else {
    allowed->push_back(window);
  }
}

// The minutes of that very date, disjoint and in order.
DayWindows AllowedOn(const Schedule& schedule, QDate date) {
  DayWindows allowed;
  for (const ScheduleWindow& window : WindowsOf(schedule, date.addDays(-1))) {
    Append(&allowed, {0, window.stop - kMinutesOfDay});
  }
  for (const ScheduleWindow& window : WindowsOf(schedule, date)) {
    Append(&allowed, {window.start, std::min(window.stop, kMinutesOfDay)});
  }
  return allowed;
}

bool IsAllowedAtMidnight(const Schedule& schedule, QDate date) {
  const DayWindows allowed = AllowedOn(schedule, date);
  return !allowed.empty() && allowed.front().start == 0;
}

CurfewHours HoursOf(const DayWindows& allowed, int minute) {
  if (allowed.empty()) return {};
  const auto current =
      std::find_if(allowed.begin(), allowed.end(),
                   [&](const ScheduleWindow& window) { return minute < window.stop; });
  const ScheduleWindow& window = current == allowed.end() ? allowed.back() : *current;
  return {window.start, window.stop};
}

// The same hours at `minute`, and right at midnight.
CurfewHours RightAtMidnight(CurfewHours hours, int minute, bool allowedAtMidnight) {
  const bool isOver = minute >= hours.stop;
  const bool isNow = hours.start <= minute && !isOver;
  if (isNow && hours.stop == kMinutesOfDay && allowedAtMidnight) return {0, kMinutesOfDay};
  if (!isOver) return hours;
  if (!allowedAtMidnight)
    return hours.stop == 0 ? hours : CurfewHours{std::max(1, hours.start), hours.stop};
  // On a day without a window the alert names this minute: only just before midnight.
  const bool isLate = minute >= kMinutesOfDay - 2;
  return {0, hours.stop == 0 && isLate ? 1 : hours.stop};
}

// Of local minutes since midnight of `date`; absent where the end is out of sight.
std::optional<std::int64_t> EndOnTheWall(const Schedule& schedule, QDate date, int minute) {
  std::int64_t end = minute;
  for (int day = 0; day <= kMaxScheduleDaysAhead; ++day) {
    const std::int64_t midnight = std::int64_t{day} * kMinutesOfDay;
    for (const ScheduleWindow& window : AllowedOn(schedule, date.addDays(day))) {
      const bool goesOn = midnight + window.start <= end && end < midnight + window.stop;
      if (goesOn) end = midnight + window.stop;
    }
    if (end < midnight + kMinutesOfDay) return end;
  }
  return std::nullopt;
}

}  // namespace

const DayWindows& WindowsOf(const Schedule& schedule, QDate date) {
  const auto holiday = std::find_if(
      schedule.holidays.begin(), schedule.holidays.end(),
      [&](const Holiday& candidate) { return candidate.first <= date && date <= candidate.last; });
  if (holiday != schedule.holidays.end()) return holiday->windows;
  return schedule.days[static_cast<std::size_t>(date.dayOfWeek() - 1)];
}

CurfewKeys TodaysKeys(const Schedule& schedule, const QTimeZone& zone, std::int64_t now) {
  const LocalTime local = ToLocal(now, zone);
  const QDate tomorrow = local.date.addDays(1);
  const CurfewHours today = HoursOf(AllowedOn(schedule, local.date), local.Minute());
  if (IsWeekEnd(local.date) == IsWeekEnd(tomorrow)) {
    const CurfewHours both =
        RightAtMidnight(today, local.Minute(), IsAllowedAtMidnight(schedule, tomorrow));
    return {both, both};
  }
  const CurfewHours next = HoursOf(AllowedOn(schedule, tomorrow), 0);
  return IsWeekEnd(tomorrow) ? CurfewKeys{today, next} : CurfewKeys{next, today};
}

LimitsRecord WithCurfewKeys(LimitsRecord limits, const CurfewKeys& keys) {
  limits.weekDayCurfewEnabled = 1;
  limits.weekEndCurfewEnabled = 1;
  limits.weekDayStart = keys.weekDay.start;
  limits.weekDayStop = keys.weekDay.stop;
  limits.weekEndStart = keys.weekEnd.start;
  limits.weekEndStop = keys.weekEnd.stop;
  return limits;
}

std::optional<std::int64_t> AllowedUntil(const Schedule& schedule, const QTimeZone& zone,
                                         std::int64_t now) {
  const std::int64_t horizon = now + kMaxScheduleDaysAhead * kMillisecondsOfDay;
  std::int64_t from = now;
  // Between two changes of the offset the clocks run on: each part is looked at by itself.
  while (from < horizon) {
    const LocalTime local = ToLocal(from, zone);
    const auto end = EndOnTheWall(schedule, local.date, local.Minute());
    const std::int64_t change = NextTransition(from, zone).value_or(horizon);
    if (end == local.Minute()) return from == now ? std::nullopt : std::optional(from);
    const std::int64_t at = from + end.value_or(0) * kMillisecondsOfMinute - local.millisecond;
    if (end && at < change) return at;
    from = change;
  }
  return kNoEndInSight;
}

std::int64_t MinutesToWindowsEnd(const Schedule& schedule, const QTimeZone& zone,
                                 std::int64_t now) {
  const std::int64_t end = AllowedUntil(schedule, zone, now).value_or(now);
  return end == kNoEndInSight ? end : (end - now) / kMillisecondsOfMinute;
}

std::int32_t CreditToHand(std::int64_t credit, const Schedule& schedule, const QTimeZone& zone,
                          std::int64_t now, HandedAfter after) {
  const std::int64_t end = AllowedUntil(schedule, zone, now).value_or(now);
  if (end == kNoEndInSight) return CreditToSend(credit);
  const std::int64_t left = end - now;
  const std::int64_t whole =
      after == HandedAfter::Start
          ? left / kMillisecondsOfMinute
          : (left + EnforcementTime(kReportSlack).count()) / kMillisecondsOfMinute - 1;
  return CreditToSend(std::clamp<std::int64_t>(credit, 0, std::max<std::int64_t>(0, whole)));
}

}  // namespace vardell::server
