#include "Common Sources/ArchiveDates.h"

#include <cmath>

namespace vardell {

namespace {

constexpr std::int64_t kLeast = -62135596800000;     // 0001-01-01T00:00:00.000Z
constexpr std::int64_t kGreatest = 253402300799999;  // 9999-12-31T23:59:59.999Z
constexpr std::int64_t kReference = 978307200000;    // 2001-01-01T00:00:00.000Z

}  // namespace

std::optional<std::int64_t> MillisecondsFromDate(const QDateTime& date) {
  if (!date.isValid()) return std::nullopt;
  const std::int64_t milliseconds = date.toMSecsSinceEpoch();
  if (milliseconds < kLeast || milliseconds > kGreatest) return std::nullopt;
  return milliseconds;
}

std::optional<QDateTime> DateFromMilliseconds(std::int64_t milliseconds) {
  if (milliseconds < kLeast || milliseconds > kGreatest) return std::nullopt;
  return QDateTime::fromMSecsSinceEpoch(milliseconds, Qt::UTC);
}

std::optional<double> ReferenceSecondsFromDate(const QDateTime& date) {
  const auto milliseconds = MillisecondsFromDate(date);
  if (!milliseconds) return std::nullopt;
  return static_cast<double>(*milliseconds - kReference) / 1000;
}

std::optional<QDateTime> DateFromReferenceSeconds(double seconds) {
  constexpr double kFarAway = 1e12;
  if (!(std::abs(seconds) < kFarAway)) return std::nullopt;
  return DateFromMilliseconds(kReference + std::llround(seconds * 1000));
}

}  // namespace vardell
