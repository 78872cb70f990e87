// The command line of vardellctl as a record. Everything that can be checked without the Server is
// checked here, so that a mistake changes nothing.
#pragma once

#include <QJsonObject>
#include <QMap>
#include <QString>
#include <QStringList>
#include <cstdint>
#include <optional>

#include "control/CommandTable.h"

namespace vardell::control {

struct Command {
  Verb verb = Verb::Help;
  const CommandShape* about = nullptr;  // for Help: of which command; null: of all
  QString user;                         // empty: of all users
  QString identifier;               // empty: all of the user's; "computer" and "home" are resolved
  QString preset;                   // for LimitsPreset; empty: list them
  QJsonObject limits;               // for LimitsSet and LimitsPreset
  QStringList keys;                 // for LimitsUnset and SettingsUnset
  QStringList hours;                // for ScheduleSet: lines, where `path` is empty
  QMap<QString, QString> settings;  // for SettingsSet: as they were written
  std::int64_t minutes = 0;         // for CreditSet and CreditAdd
  QString id;                       // for both: made up where --id does not say
  QString reason;
  QString period;          // for Usage; empty: a week
  std::int64_t after = 0;  // for Ledger
  QString path;            // for AppsAdd, Backup, Restore and ScheduleSet ("-": standard input)
  QStringList words;       // for Complete
  bool rescan = false;     // for AppsList
  bool csv = false;        // for Usage
  bool check = false;      // for Restore
  bool yes = false;
  bool json = false;
  QString control;  // path of the Server's socket; empty: the usual one
};

struct ArgumentsResult {
  std::optional<Command> command;
  QString problem;                      // for people, where there is no command
  const CommandShape* about = nullptr;  // which command the problem is about; null: none of them
};

// `arguments` without the program's own name.
ArgumentsResult ParseArguments(const QStringList& arguments);

QString HelpText(const CommandShape* about);

}  // namespace vardell::control
