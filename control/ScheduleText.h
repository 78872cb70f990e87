// The hours of a schedule as people write them, and as the Server has them (JSON, in
// docs/control-api.md). A line for the days that have the same hours, and for each holiday:
//
//   monday-friday 15:00-20:00
//   saturday,sunday 09:00-12:00 14:00-01:00
//   holiday Summer 2027-07-01..2027-08-31 all-day
//   holiday "24 and 25" 2027-12-24..2027-12-25 closed
//
// Days are whole or at least three letters of them, "daily", "weekdays" or "weekends". Days of
// which nothing is said are closed; of some day something must be said. A stop that is not after
// its start is the next day's. What begins with '#' is no line.
//
// Pure functions; nothing blocks.
#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>
#include <QStringList>

namespace vardell::control {

struct ParsedSchedule {
  QJsonObject schedule;
  QString problem;  // for people, with what to do; empty when all is well
  QString notice;   // for people: days of which nothing was said; empty for none
};

// Whether a word begins as a line does.
bool IsScheduleLine(const QString& word);

ParsedSchedule ParseScheduleLines(const QStringList& lines);

// Such lines, or the JSON of a schedule, also as {"schedule": ...}; JSON is checked by the Server.
ParsedSchedule ParseScheduleFile(const QByteArray& bytes);

// Lines in columns below one that begins with '#'; ParseScheduleFile reads them.
QString ScheduleTable(const QJsonObject& schedule);

// The days in one line, and how many holidays there are.
QString ScheduleSummary(const QJsonObject& schedule);

}  // namespace vardell::control
