// The keys of a limit as an administrator may write them: the values of limits/LimitsKeys.h, and
// besides true and false yes/no, on/off and 1/0, for a minute of the day 08:00 (a stop up to
// 24:00), for a time a local date and time: 2026-12-24T07:00.
//
// Among them are those that the Server keeps for itself, its options: "Roll Over", "Roll Over Cap"
// (minutes or none), "Unlimited", "Parallel", "Scope", and "Schedule", which can be unset here and
// is set by a command of its own.
//
// Pure functions; nothing blocks.
#pragma once

#include <QJsonValue>
#include <QString>
#include <QStringList>

namespace vardell::control {

struct ParsedValue {
  QJsonValue value;  // bool, number or, for "none", null; undefined where there is a problem
  QString problem;   // for people, naming the key and what is allowed; empty when all is well
};

ParsedValue ParseLimitsValue(const QString& key, const QString& text);

// Credit in minutes as "Credit" takes it.
ParsedValue ParseCredit(const QString& text);

// What "limits set" makes of a key that it is not told: "Enabled" is true, the rest as the wire has
// an absent one. Undefined for no key and for "Credit", which is not taken back but spent.
QJsonValue FirstLimitsValue(const QString& key);

// All keys, in the order in which they are shown.
QStringList LimitsKeys();

// The options among them, and the field of the Server's "options" that one is; empty for a key.
QStringList LimitsOptions();
QString OptionField(const QString& key);
// Words that an option may be, for completion.
QStringList WordsOfOption(const QString& key);

// Minute of the day as "08:00"; "24:00" for 1440.
QString ClockText(int minuteOfDay);

}  // namespace vardell::control
