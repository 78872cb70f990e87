// Used time as bars. Days are the Server's. Pure functions.
#pragma once

#include <QDate>
#include <QMap>
#include <QString>
#include <vector>

namespace vardell::control {

using UsageDays = QMap<QDate, qint64>;  // minutes; days without use may be missing

struct UsageBar {
  QString label;
  qint64 minutes = 0;
};

// A bar for each day from `first` to `last`, or, of more than 62 days, for each month, or, of more
// than 62 months, for each year; those without use too.
std::vector<UsageBar> BarsOverTime(const UsageDays& days, const QDate& first, const QDate& last);

// One line for each bar, the longest as wide as `width` allows, up to 60 columns; labels are cut at
// half of it. Without use there is the label alone.
QString BarChart(const std::vector<UsageBar>& bars, int width, bool canShowBlocks);

}  // namespace vardell::control
