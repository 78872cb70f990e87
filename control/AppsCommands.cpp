#include "control/AppsCommands.h"

#include <pwd.h>
#include <unistd.h>

#include <QFile>
#include <QJsonArray>
#include <QJsonObject>
#include <algorithm>

#include "control/Tables.h"
#include "limits/ApplicationIdentifier.h"
#include "limits/ApplicationsCatalogue.h"
#include "limits/WatchedApps.h"
#include "platform/linux/LinuxApplicationPreferences.h"
#include "platform/linux/LinuxInstalledApplications.h"
#include "platform/linux/SessionApplications.h"

namespace vardell::control {
namespace {

QString TextOf(const QVariantMap& row, const char* key) {
  return row.value(QLatin1String(key)).toString();
}

QJsonObject RowJson(const QVariantMap& row) {
  return {{QStringLiteral("name"), TextOf(row, "Name")},
          {QStringLiteral("identifier"), TextOf(row, "Identifier")},
          {QStringLiteral("location"), TextOf(row, "URL")}};
}

// As it is to be typed.
QString IdentifierWord(const QString& identifier) {
  return ShellWord(ShownIdentifier(identifier));
}

// ---- list ---------------------------------------------------------------------------------------

QString CatalogueTable(const QVariantList& catalogue) {
  std::vector<QStringList> rows{
      {QStringLiteral("NAME"), QStringLiteral("IDENTIFIER"), QStringLiteral("LOCATION")}};
  for (const QVariant& value : catalogue) {
    const QVariantMap row = value.toMap();
    const QString identifier = TextOf(row, "Identifier");
    const bool isComputer = identifier == QLatin1String(kLoginWindowIdentifier);
    rows.push_back({Printable(TextOf(row, "Name")), IdentifierWord(identifier),
                    isComputer ? QStringLiteral("-") : Printable(TextOf(row, "URL"))});
  }
  return AlignedTable(rows);
}

// The list serves all the same where it cannot be kept.
QString StoringNotice(const LinuxApplicationPreferences& preferences) {
  if (!preferences.Problem().isEmpty()) {
    return QStringLiteral("the list could not be kept: %1").arg(Printable(preferences.Problem()));
  }
  if (preferences.KeptAside().isEmpty()) return {};
  return QStringLiteral("the list could not be understood, and is kept as %1; this one is new")
      .arg(Printable(preferences.KeptAside()));
}

// ---- add ----------------------------------------------------------------------------------------

QString ReasonText(NotApplication reason) {
  switch (reason) {
    case NotApplication::Missing:
      return QStringLiteral("there is no such file");
    case NotApplication::Folder:
      return QStringLiteral("it is a folder; name the program, or its .desktop file");
    case NotApplication::Unreadable:
      return QStringLiteral("it cannot be read");
    case NotApplication::NotExecutable:
      return QStringLiteral("it is not executable");
    case NotApplication::Incomplete:
      return QStringLiteral("it is no entry of an application: one has a Type, a Name and an Exec");
    case NotApplication::Hidden:
      return QStringLiteral("the entry is hidden: it counts as deleted");
    case NotApplication::NoProgram:
      return QStringLiteral("the program that it starts is not on this machine");
    case NotApplication::Elsewhere:
      return QStringLiteral(
          "it is not in a folder of applications, where desktops look; name the program itself");
    case NotApplication::SessionPart:
      return QStringLiteral("it is a part of the session, which agents do not count");
    case NotApplication::Reserved:
      return QStringLiteral("its name is one of Vardell's own");
  }
  return {};
}

Result NotAdded(const QString& path, const QString& reason) {
  return Failed(QStringLiteral("\"%1\" cannot be added: %2").arg(Printable(path), reason));
}

Result AddedResult(const Command& command, const QVariantMap& row, bool isNew) {
  if (command.json) {
    QJsonObject json = RowJson(row);
    json[QStringLiteral("added")] = isNew;
    return Done(JsonText(json));
  }
  const QString what = isNew ? QStringLiteral("Added %1, identifier %2.\n")
                             : QStringLiteral("%1 is already listed, identifier %2.\n");
  return Done(what.arg(Printable(TextOf(row, "Name")), IdentifierWord(TextOf(row, "Identifier"))));
}

// ---- running ------------------------------------------------------------------------------------

QString IdentifierOf(const SessionApplication& one) {
  const std::optional<QString> identifier = MakeApplicationIdentifier(one.application);
  return identifier.value_or(QLatin1String(kUnknownApplicationIdentifier));
}

QString NameOf(const SessionApplication& one) {
  const bool isSession = one.application.identifier == QLatin1String(kLoginWindowIdentifier);
  return isSession ? QStringLiteral("the session") : one.application.displayName;
}

QJsonObject RunningJson(const SessionApplication& one) {
  return {
      {QStringLiteral("user"), one.user},       {QStringLiteral("session"), one.sessionId},
      {QStringLiteral("pid"), one.process.pid}, {QStringLiteral("identifier"), IdentifierOf(one)},
      {QStringLiteral("name"), NameOf(one)},    {QStringLiteral("location"), one.application.path}};
}

QString RunningTable(const SessionApplications& all) {
  std::vector<QStringList> rows{{QStringLiteral("USER"), QStringLiteral("PID"),
                                 QStringLiteral("IDENTIFIER"), QStringLiteral("NAME")}};
  for (const SessionApplication& one : all.applications) {
    const int pid = one.process.pid;
    rows.push_back({Printable(one.user), pid > 0 ? QString::number(pid) : QStringLiteral("-"),
                    IdentifierWord(IdentifierOf(one)), Printable(NameOf(one))});
  }
  return AlignedTable(rows);
}

QString UsersWith(const SessionApplications& all, AnsweringSession::Answer answer) {
  QStringList users;
  for (const AnsweringSession& session : all.sessions) {
    if (session.answer == answer) users.push_back(Printable(session.user));
  }
  users.removeDuplicates();
  return users.join(QStringLiteral(", "));
}

QString RunningNotice(const SessionApplications& all) {
  QStringList notices;
  const QString silent = UsersWith(all, AnsweringSession::Answer::None);
  if (!silent.isEmpty()) {
    notices.push_back(QStringLiteral("no answer in time from the session of %1").arg(silent));
  }
  const QString blind = UsersWith(all, AnsweringSession::Answer::WithoutWindows);
  if (!blind.isEmpty()) {
    notices.push_back(
        QStringLiteral(
            "the screen of %1 does not answer: programs without a desktop entry are missing")
            .arg(blind));
  }
  if (all.sessions.empty() && all.notPermitted == 0) {
    notices.push_back(QStringLiteral("no agent is running"));
  }
  return notices.join(QStringLiteral("; "));
}

QJsonObject AnswersJson(const SessionApplications& all) {
  QJsonArray applications;
  for (const SessionApplication& one : all.applications) applications.append(RunningJson(one));
  QJsonArray sessions;
  for (const AnsweringSession& session : all.sessions) {
    using Answer = AnsweringSession::Answer;
    sessions.append(QJsonObject{{QStringLiteral("user"), session.user},
                                {QStringLiteral("session"), session.sessionId},
                                {QStringLiteral("answered"), session.answer != Answer::None},
                                {QStringLiteral("windows"), session.answer == Answer::Whole}});
  }
  return {{QStringLiteral("applications"), applications}, {QStringLiteral("sessions"), sessions}};
}

std::optional<uid_t> FindUser(const QString& name) {
  const passwd* account = getpwnam(QFile::encodeName(name).constData());
  if (account) return account->pw_uid;
  bool isNumber = false;
  const uid_t number = name.toUInt(&isNumber);
  return isNumber ? std::optional(number) : std::nullopt;
}

}  // namespace

Result ListApplications(const Command& command) {
  LinuxInstalledApplications installed;
  LinuxApplicationPreferences preferences;
  // What keeps it from being locked keeps it from being stored, and is told then.
  if (command.rescan || !HasApplicationsCatalogue(preferences)) (void)preferences.Lock();
  if (command.rescan) RebuildApplicationsCatalogue(installed, preferences);
  const QVariantList catalogue = CopyApplicationsCatalogue(installed, preferences);
  Result result;
  if (command.json) {
    QJsonArray rows;
    for (const QVariant& row : catalogue) rows.append(RowJson(row.toMap()));
    result = Done(JsonText({{QStringLiteral("applications"), rows}}));
  } else {
    result = Done(CatalogueTable(catalogue));
  }
  result.notice = StoringNotice(preferences);
  return result;
}

Result AddApplication(const Command& command) {
  LinuxInstalledApplications installed;
  LinuxApplicationPreferences preferences;
  const auto application = installed.Application(command.path);
  if (const auto* reason = std::get_if<NotApplication>(&application)) {
    return NotAdded(command.path, ReasonText(*reason));
  }
  const auto row = MakeCatalogueRow(std::get<ApplicationInfo>(application));
  if (!preferences.Lock()) return NotAdded(command.path, Printable(preferences.Problem()));
  const std::int32_t status = AddApplicationToCatalogue(installed, preferences, command.path);
  if (!row || status == kNoApplication) {
    return NotAdded(command.path, QStringLiteral("nothing in it makes an identifier"));
  }
  if (!preferences.Synchronize()) return NotAdded(command.path, Printable(preferences.Problem()));
  Result result = AddedResult(command, *row, status == kApplicationAdded);
  result.notice = StoringNotice(preferences);
  return result;
}

Result ShowRunning(const Command& command) {
  std::optional<uid_t> user;
  if (!command.user.isEmpty()) {
    user = FindUser(command.user);
    if (!user)
      return Failed(QStringLiteral("there is no user \"%1\"").arg(Printable(command.user)));
  }
  const bool isOthers = user && *user != getuid();
  if (getuid() != 0 && isOthers) {
    return Failed(QStringLiteral("only root sees what others are running"));
  }
  const SessionApplications all = LookAtSessions(user);
  if (all.sessions.empty() && all.notPermitted > 0 && !user) {
    return Failed(QStringLiteral("agents are running, but only root sees what others are running"));
  }
  Result result = Done(command.json ? JsonText(AnswersJson(all)) : RunningTable(all));
  result.notice = RunningNotice(all);
  return result;
}

}  // namespace vardell::control
