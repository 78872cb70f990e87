// What is kept of a limit's top-ups from one to the next: a plain value with a text form for a
// store.
#pragma once

#include <QDate>
#include <QString>
#include <optional>
#include <vector>

namespace vardell::server {

struct DateRange {
  QDate first;
  QDate last;  // included

  bool operator==(const DateRange&) const = default;
};

struct TopUpMemory {
  // The last local date whose time had come when the clock was last believed: what was missed lies
  // behind it. It follows the clock, back too, so a clock that was a year ahead blocks nothing.
  // Absent while the next time that an administrator gave is waited for.
  std::optional<QDate> lastDate;
  // The dates that had their top-up, as disjoint ranges, the one used last at the end. None of them
  // gets another one, wherever the clock goes. At most kMaxTopUpDateRanges; the one that was
  // longest not used is forgotten first.
  std::vector<DateRange> had;
  // The next time that was made last. Another one in the limits is an administrator's.
  double plannedTime = 0;  // as LimitsRecord::nextTopUpTime
  // What the clocks on the wall are to show then. The planned time itself may show another one,
  // where a daylight-saving change leaves this one out.
  int wallTime = 0;  // milliseconds of the day

  bool operator==(const TopUpMemory&) const = default;
};

bool HadTopUp(const TopUpMemory& memory, QDate date);

// Also makes the range with `date` the one used last.
void RememberTopUp(TopUpMemory* memory, QDate date);

QString PrintTopUpMemory(const TopUpMemory& memory);

// Absent for what PrintTopUpMemory cannot have made.
std::optional<TopUpMemory> ParseTopUpMemory(const QString& text);

}  // namespace vardell::server
