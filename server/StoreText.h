// Values as text in the columns of a store of either kind. Pure.
#pragma once

#include <QString>
#include <optional>

#include "server/Household.h"

namespace vardell::server {

QString TimeText(const QDateTime& time);                        // "2009-03-05T18:00:00.000+01:00"
QString DayText(const LedgerRow& row);                          // "2009-03-05"
QString ParallelText(Parallel parallel);                        // "sum", "union"
QString ScopeText(Scope scope);                                 // "user", "user@host"
QString ScheduleText(const std::optional<Schedule>& schedule);  // JSON; empty: none

// False, and nothing is changed, for what the above cannot have made.
[[nodiscard]] bool ReadParallel(const QString& text, Parallel* parallel);
[[nodiscard]] bool ReadScope(const QString& text, Scope* scope);
[[nodiscard]] bool ReadSchedule(const QString& text, std::optional<Schedule>* schedule);

}  // namespace vardell::server
