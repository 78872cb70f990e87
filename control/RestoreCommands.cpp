#include "control/RestoreCommands.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QFile>

#include "Common Sources/Caps.h"
#include "control/BackupCommands.h"
#include "control/Differences.h"
#include "control/Restoration.h"
#include "control/RestoreNote.h"
#include "control/SettingsFile.h"
#include "control/Terminal.h"
#include "control/TextTable.h"
#include "control/WholeFile.h"

namespace vardell::control {
namespace {

struct Checked {
  Differences differences;
  Result failure;
};

// A backup proves nothing about who wrote it.
QString StrangersText(const QString& path) {
  struct stat facts {};
  if (stat(QFile::encodeName(path).constData(), &facts) != 0) return {};
  const bool isOurs = facts.st_uid == 0 || facts.st_uid == geteuid();
  if (isOurs && (facts.st_mode & (S_IWGRP | S_IWOTH)) == 0) return {};
  const passwd* owner = getpwuid(facts.st_uid);
  return isOurs ? QStringLiteral("Not root alone can write to this file.\n")
                : QStringLiteral("This file belongs to %1, who may have changed it.\n")
                      .arg(owner ? QString::fromLocal8Bit(owner->pw_name)
                                 : QStringLiteral("uid %1").arg(facts.st_uid));
}

QString Heading(const Command& command, const Backup& wanted) {
  return QStringLiteral("%1: %2\nMade %3 on %4\n")
             .arg(command.path, CountsText(CountsOf(wanted)),
                  wanted.made.toLocalTime().toString(QStringLiteral("yyyy-MM-dd HH:mm:ss")),
                  Printable(wanted.machine)) +
         StrangersText(command.path);
}

Checked Check(const Backup& wanted, const HttpClient& server, Terminal& terminal) {
  const StoredSettings settings = ReadSettings();
  if (!settings.problem.isEmpty()) return {{}, Failed(settings.problem)};
  const Answer answer = PutHousehold(server, wanted.household, true, terminal);
  if (!answer.ok()) return {{}, answer.failure};
  const CollectedBackup present = CollectBackup(server, settings.values, terminal);
  if (!present.backup) return {{}, present.failure};
  const QJsonObject limits = answer.json[QStringLiteral("limits")].toObject();
  return {Compare(*present.backup, wanted, limits), {}};
}

Result Report(const Command& command, const Differences& differences, const QString& text,
              const QString& kept) {
  if (!command.json) return Done(text);
  QJsonObject json = DifferencesJson(differences);
  json.insert(QStringLiteral("file"), command.path);
  json.insert(QStringLiteral("check"), command.check);
  json.insert(QStringLiteral("kept"), kept.isEmpty() ? QJsonValue() : QJsonValue(kept));
  return Done(JsonText(json));
}

Result Restore(const Command& command, const Backup& wanted, const Differences& differences,
               const HttpClient& server, Terminal& terminal) {
  Restoration restoration(wanted, command.path, server, terminal);
  const Result result = restoration.Run();
  if (result.status != ExitStatus::Done) return result;
  QString text = QStringLiteral("Restored %1What was there before is kept in %2\n")
                     .arg(Heading(command, wanted), restoration.keptPath());
  if (!differences.settings.empty()) text += QLatin1String(kWhenSettingsCount);
  return Report(command, differences, text, restoration.keptPath());
}

}  // namespace

Result RestoreBackup(const Command& command, const HttpClient& server, Terminal& terminal) {
  if (!command.check && !command.yes && !terminal.CanAsk()) {
    return Misused(QStringLiteral(
        "nobody can be asked whether to go on: give --yes, or --check to look first"));
  }
  const LoadedFile file = LoadWholeFile(command.path, kMaxArchiveBytes);
  if (!file.bytes) return Failed(file.problem);
  const BackupOrProblem read = UnpackBackup(*file.bytes, command.path);
  if (!read.backup) return Failed(read.problem);
  const Backup& wanted = *read.backup;
  const Checked checked = Check(wanted, server, terminal);
  if (checked.failure.status != ExitStatus::Done) return checked.failure;

  const QString heading = Heading(command, wanted);
  if (!checked.differences.any()) {
    if (!command.check) ForgetRestore();
    return Report(command, checked.differences,
                  heading + QStringLiteral("Nothing differs from what is there now.\n"), {});
  }
  const QString text = heading + QLatin1Char('\n') + DifferencesText(checked.differences);
  if (command.check) return Report(command, checked.differences, text, {});
  const QString question = text + QStringLiteral("\nPut this in the place of what is there now?");
  if (!command.yes && !terminal.Confirm(question)) {
    return Failed(QStringLiteral("nothing was changed"));
  }
  return Restore(command, wanted, checked.differences, server, terminal);
}

}  // namespace vardell::control
