// The keys of a limit as an administrator may write them, and the values that they take.
//
//   "Credit"                                     minutes, 0 to 2147483647, but not 12345
//   "Enabled", "Report Credit", "WD Curfew Enabled", "WE Curfew Enabled", "DQ Enabled"
//                                                true or false (also yes/no, on/off, 1/0)
//   "WD start", "WE start"                       minute of the day, 0 to 1439, or 00:00 to 23:59
//   "WD stop", "WE stop"                         minute of the day, 0 to 1440, or 00:00 to 24:00
//   "AutoUpdateValue", "WE Value", "DQ Value"    0 to 2147483647
//   "AutoUpdateCoeff"                            60 or 1
//   "WE Coeff"                                   60, 1 or 0 (none)
//   "NextAutoUpdate"                             seconds since 2001 (GMT), 0 to 4294967295, or a
//                                                local date and time: 2026-12-24T07:00
//
// Pure functions; nothing blocks.
#pragma once

#include <QJsonValue>
#include <QString>
#include <QStringList>

namespace vardell::control {

struct ParsedValue {
  QJsonValue value;  // bool or number; undefined where there is a problem
  QString problem;   // for people, naming the key and what is allowed; empty when all is well
};

ParsedValue ParseLimitsValue(const QString& key, const QString& text);

// Credit in minutes as "Credit" takes it.
ParsedValue ParseCredit(const QString& text);

// All keys, in the order in which they are shown.
QStringList LimitsKeys();

// Minute of the day as "08:00"; "24:00" for 1440.
QString ClockText(int minuteOfDay);

}  // namespace vardell::control
