#include "limits/UsageTotals.h"

#include "Common Sources/DurationString.h"
#include "Common Sources/PropertyList.h"
#include "Common Sources/TimeZones.h"

namespace vardell {

namespace {

constexpr qint64 kSecondsOfDay = 24 * 60 * 60;

int DaysOfPeriod(std::int32_t period) {
  switch (period) {
    case kUsageWeek:
      return 1 + 7;
    case kUsageMonth:
      return 1 + 30;
    default:
      return 1;
  }
}

QDateTime Now() {
  return QDateTime::currentDateTimeUtc().toTimeZone(GetDefaultTimeZone());
}

// Unsigned, since a signed overflow would be undefined.
std::uint32_t Minutes(const QVariant& value) {
  return static_cast<std::uint32_t>(NumberAsInt32(value).value_or(0));
}

}  // namespace

QString UsageDayKey(const QDate& day) {
  return QStringLiteral("%1-%2-%3").arg(day.day()).arg(day.month()).arg(day.year());
}

std::int32_t SumUsageForPeriod(const QVariantMap* usageByDay, std::int32_t period,
                               const QDateTime& now) {
  if (!usageByDay) return 0;
  std::uint32_t total = 0;
  if (period == kUsageAll) {
    for (const QVariant& value : *usageByDay) total += Minutes(value);
  } else {
    for (int day = 0; day < DaysOfPeriod(period); ++day) {
      const QDateTime time = now.addSecs(-day * kSecondsOfDay);
      total += Minutes(usageByDay->value(UsageDayKey(time.date())));
    }
  }
  return static_cast<std::int32_t>(total);
}

std::int32_t SumUsageForPeriod(const QVariantMap* usageByDay, std::int32_t period) {
  return SumUsageForPeriod(usageByDay, period, Now());
}

QString CopyUsageForPeriodString(const QVariantMap* usageByDay, std::int32_t period,
                                 const QDateTime& now) {
  return CopyDurationString(SumUsageForPeriod(usageByDay, period, now), kDurationMinutes);
}

QString CopyUsageForPeriodString(const QVariantMap* usageByDay, std::int32_t period) {
  return CopyUsageForPeriodString(usageByDay, period, Now());
}

}  // namespace vardell
