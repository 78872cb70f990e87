// The machine's clocks: that of its boot, which goes on while the machine sleeps, and what the one
// on the wall is worth.
#pragma once

#include <QDateTime>
#include <QString>
#include <QTimeZone>
#include <chrono>
#include <cstdint>
#include <limits>

namespace vardell::server {

std::chrono::milliseconds TimeSinceBoot();

// Tells one boot from another; empty where the machine does not say.
QString BootId();

// Whether something keeps the wall clock right: a time service that the kernel knows of, or the
// system's own one since it first heard of the time. False also where that cannot be told.
bool IsClockSet();

// Of the wall clock. An offset alone where the machine's zone has no name.
QTimeZone SystemZone();

// The wall clock with its offset from UTC, which the C library looks for in the zone's file: that
// is done once a second here, since an offset changes on a whole one.
class WallClock {
 public:
  QDateTime Now();

 private:
  std::int64_t second_ = std::numeric_limits<std::int64_t>::min();  // of offset_, since 1970
  int offset_ = 0;
};

}  // namespace vardell::server
