// Totals of a usage history: a dictionary from calendar days to the minutes used on them.
// Pure functions but for the clock, for any thread; nothing blocks.
#pragma once

#include <QDate>
#include <QDateTime>
#include <QString>
#include <QVariant>
#include <cstdint>

namespace vardell {

// Periods. Any other number means today.
inline constexpr std::int32_t kUsageToday = 0;
inline constexpr std::int32_t kUsageWeek = 1;   // today and the 7 days before
inline constexpr std::int32_t kUsageMonth = 2;  // today and the 30 days before
inline constexpr std::int32_t kUsageAll = 3;    // every entry, whatever its key

// A day's key: "5-3-2009" for the 5th of March 2009, without padding.
QString UsageDayKey(const QDate& day);

// The minutes of the period's days, 0 without a dictionary (null). Values are read as signed 32-bit
// numbers, those that are none (bools too) are skipped, and the sum wraps around.
//
// Days are those of the default time zone, or of the zone that `now` carries. From one to the one
// before it the time goes back by 24 hours: within an hour of midnight, a daylight-saving change on
// the way counts one day twice, or leaves one out.
std::int32_t SumUsageForPeriod(const QVariantMap* usageByDay, std::int32_t period);
std::int32_t SumUsageForPeriod(const QVariantMap* usageByDay, std::int32_t period,
                               const QDateTime& now);

// The same total in hours and minutes, in the user's language. Main thread.
QString CopyUsageForPeriodString(const QVariantMap* usageByDay, std::int32_t period);
QString CopyUsageForPeriodString(const QVariantMap* usageByDay, std::int32_t period,
                                 const QDateTime& now);

}  // namespace vardell
