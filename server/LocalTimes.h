// What clocks on the wall show, and when they show it, across changes of the zone's offset. Pure
// and cheap; instants are milliseconds since 1970 (UTC).
#pragma once

#include <QDate>
#include <QTimeZone>
#include <cstdint>
#include <optional>

namespace vardell::server {

inline constexpr std::int64_t kMillisecondsOfMinute = 60'000;
inline constexpr std::int64_t kMillisecondsOfDay = 86'400'000;

// A moment on the wall; as a number it grows with the calendar, and jumps where the clocks do.
struct LocalTime {
  QDate date;
  int millisecond = 0;  // of the day

  int Minute() const { return static_cast<int>(millisecond / kMillisecondsOfMinute); }
};

LocalTime ToLocal(std::int64_t instant, const QTimeZone& zone);

std::int64_t OffsetAt(std::int64_t instant, const QTimeZone& zone);

// The next instant at which the offset changes; absent where it never does again.
std::optional<std::int64_t> NextTransition(std::int64_t instant, const QTimeZone& zone);

// The first instant at which the clocks show that time of the date, or have passed it: the first of
// two where the time exists twice, the end of the gap where it does not exist.
std::int64_t FirstInstant(QDate date, std::int64_t millisecond, const QTimeZone& zone);

// False for a date that the zone left out, as Samoa did the 30th of December 2011.
bool DateExists(QDate date, const QTimeZone& zone);

}  // namespace vardell::server
