// Dates in the binary archives: UTC, whole milliseconds, the years 1 to 9999. Pure functions, for
// any thread.
#pragma once

#include <QDateTime>
#include <cstdint>
#include <optional>

namespace vardell {

// Milliseconds since 1970. Absent for an invalid date and outside those years.
[[nodiscard]] std::optional<std::int64_t> MillisecondsFromDate(const QDateTime& date);
[[nodiscard]] std::optional<QDateTime> DateFromMilliseconds(std::int64_t milliseconds);

// Seconds since 1 January 2001, to the nearest millisecond; absent as above.
[[nodiscard]] std::optional<double> ReferenceSecondsFromDate(const QDateTime& date);
[[nodiscard]] std::optional<QDateTime> DateFromReferenceSeconds(double seconds);

}  // namespace vardell
