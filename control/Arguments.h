// The command line of vardellctl as a record. Everything that can be checked without the Server is
// checked here, so that a mistake changes nothing.
#pragma once

#include <QJsonObject>
#include <QString>
#include <QStringList>
#include <cstdint>
#include <optional>

namespace vardell::control {

enum class Verb { Help, Version, Status, LimitsShow, LimitsSet, CreditShow, CreditSet, Ledger };

struct Command {
  Verb verb = Verb::Help;
  QString user;              // empty: of all users
  QString identifier;        // empty: all of the user's; "computer" and "home" are resolved
  QJsonObject limits;        // for LimitsSet: never empty
  std::int64_t minutes = 0;  // for CreditSet
  QString id;                // for CreditSet: made up where --id does not say
  QString reason;
  std::int64_t after = 0;  // for Ledger
  bool json = false;
  QString control;  // path of the Server's socket; empty: the usual one
};

struct ArgumentsResult {
  std::optional<Command> command;
  QString problem;  // for people, where there is no command
};

// `arguments` without the program's own name.
ArgumentsResult ParseArguments(const QStringList& arguments);

QString HelpText();

}  // namespace vardell::control
