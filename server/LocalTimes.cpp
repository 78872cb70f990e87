#include "server/LocalTimes.h"

#include <QDateTime>
#include <algorithm>

namespace vardell::server {
namespace {

constexpr std::int64_t kJulianDayOf1970 = 2440588;

QDateTime Utc(std::int64_t instant) {
  return QDateTime::fromMSecsSinceEpoch(instant, Qt::UTC);
}

}  // namespace

std::int64_t OffsetAt(std::int64_t instant, const QTimeZone& zone) {
  return std::int64_t{zone.offsetFromUtc(Utc(instant))} * 1000;
}

LocalTime ToLocal(std::int64_t instant, const QTimeZone& zone) {
  const std::int64_t local = instant + OffsetAt(instant, zone);
  const std::int64_t ofDay =
      ((local % kMillisecondsOfDay) + kMillisecondsOfDay) % kMillisecondsOfDay;
  const std::int64_t day = (local - ofDay) / kMillisecondsOfDay;
  return {QDate::fromJulianDay(day + kJulianDayOf1970), static_cast<int>(ofDay)};
}

std::optional<std::int64_t> NextTransition(std::int64_t instant, const QTimeZone& zone) {
  const QDateTime next = zone.nextTransition(Utc(instant)).atUtc;
  if (!next.isValid() || next.toMSecsSinceEpoch() <= instant) return std::nullopt;
  return next.toMSecsSinceEpoch();
}

std::int64_t FirstInstant(QDate date, std::int64_t millisecond, const QTimeZone& zone) {
  const std::int64_t local =
      (date.toJulianDay() - kJulianDayOf1970) * kMillisecondsOfDay + millisecond;
  std::int64_t from = local - kMillisecondsOfDay;  // no zone is a day away from GMT
  for (;;) {
    const std::int64_t shown = std::max(from, local - OffsetAt(from, zone));
    const std::optional<std::int64_t> transition = NextTransition(from, zone);
    if (!transition || shown < *transition) return shown;
    from = *transition;
  }
}

bool DateExists(QDate date, const QTimeZone& zone) {
  return ToLocal(FirstInstant(date, 0, zone), zone).date == date;
}

}  // namespace vardell::server
