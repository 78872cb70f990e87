// The commands of vardellctl. One line of usage for each of them says what it takes; parsing, help
// and completion all follow from it. Pure functions.
#pragma once

#include <QString>
#include <QStringList>
#include <vector>

namespace vardell::control {

enum class Verb {
  Help,
  Version,
  Status,
  Metrics,
  AppsList,
  AppsAdd,
  AppsRunning,
  LimitsShow,
  LimitsSet,
  LimitsUnset,
  LimitsPreset,
  ScheduleShow,
  ScheduleSet,
  ScheduleClear,
  CreditShow,
  CreditSet,
  CreditAdd,
  Usage,
  Ledger,
  SettingsShow,
  SettingsSet,
  SettingsUnset,
  Backup,
  Restore,
  Complete,
};

struct ArgumentShape {
  QString name;  // "USER", "KEY=VALUE"
  bool isOptional = false;
  bool isRepeated = false;
};

struct OptionShape {
  QString name;   // "--reason"
  QString value;  // "TEXT", or "today|week|month|all" for one of these; empty for a flag
};

struct CommandShape {
  Verb verb = Verb::Help;
  QString usage;      // "credit add USER IDENTIFIER MINUTES [--reason TEXT] [--id ID]"
  QString summary;    // one line
  QStringList words;  // "credit", "add"
  std::vector<ArgumentShape> arguments;
  std::vector<OptionShape> options;  // besides those of every command
};

// In the order of the help.
const std::vector<CommandShape>& CommandShapes();

// The options of every command: --json, --control PATH, --help, --version.
const std::vector<OptionShape>& CommonOptions();

// Null where no command has one of that name.
const OptionShape* FindOption(const QString& name);

// Null where no command begins with these words; `used` is how many of them are its name.
const CommandShape* FindCommand(const QStringList& words, qsizetype* used);

}  // namespace vardell::control
