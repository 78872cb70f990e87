#include "control/Restoration.h"

#include <unistd.h>

#include <QFile>
#include <QFileInfo>

#include "control/BackupCommands.h"
#include "control/Differences.h"
#include "control/RestoreNote.h"
#include "control/Terminal.h"

namespace vardell::control {
namespace {

constexpr char kNothingChanged[] =
    "Nothing was changed: limits, use, settings and applications are as they were.";

Result With(Result failure, const QString& line) {
  failure.error += QLatin1Char('\n') + line;
  return failure;
}

}  // namespace

Answer PutHousehold(const HttpClient& server, const QVariantMap& household, bool check,
                    Terminal& terminal, const std::function<bool()>& isGivenUp) {
  return AskPatiently(server,
                      {"PUT",
                       check ? "/v1/backup?check=1" : "/v1/backup",
                       {},
                       Body(QJsonObject::fromVariantMap(household))},
                      check ? QStringLiteral("Checking") : QStringLiteral("Restoring"), terminal,
                      isGivenUp);
}

Restoration::Restoration(const Backup& wanted, const QString& file, const HttpClient& server,
                         Terminal& terminal)
    : wanted_(wanted), file_(file), server_(server), terminal_(terminal) {}

Result Restoration::Run() {
  if (!settings_.problem().isEmpty()) return Failed(settings_.problem());
  Result result = KeepPresent();
  if (result.status == ExitStatus::Done) result = Replace();
  if (result.status == ExitStatus::Done && held_.HasCome()) {
    result = Undo(Failed(QStringLiteral("interrupted")));
  } else if (result.status == ExitStatus::Done) {
    result = ReplaceOnServer();
  }
  held_.Forget();
  return result;
}

Result Restoration::KeepPresent() {
  const CollectedBackup present =
      CollectBackup(server_, settings_.values(), terminal_, [this] { return held_.HasCome(); });
  if (!present.backup && held_.HasCome()) {
    return With(Failed(QStringLiteral("interrupted")), QLatin1String(kNothingChanged));
  }
  if (!present.backup) return With(present.failure, QLatin1String(kNothingChanged));
  kept_ = FreeName(QFileInfo(file_).absoluteFilePath(), QStringLiteral(".before-restore"));
  if (const QString problem = WriteBackupFile(*present.backup, kept_, terminal_).problem;
      !problem.isEmpty()) {
    return With(
        Failed(QStringLiteral("what is there now cannot be kept: %1\n"
                              "Copy the backup into a folder that has room for a second one.")
                   .arg(problem)),
        QLatin1String(kNothingChanged));
  }
  if (!NotedRestore().isEmpty()) return {};
  const QString problem = NoteRestore(kept_);
  isNoteOurs_ = problem.isEmpty();
  return isNoteOurs_ ? Result() : Undo(Failed(problem));
}

Result Restoration::Replace() {
  if (wanted_.settings != settings_.values()) {
    const QString problem = settings_.Write(wanted_.settings);
    if (!problem.isEmpty()) return Undo(Failed(problem));
  }
  if (!wanted_.applications || ReadApplications() == wanted_.applications) return {};
  const QString problem = applications_.Write(*wanted_.applications);
  return problem.isEmpty() ? Result() : Undo(Failed(problem));
}

Result Restoration::ReplaceOnServer() {
  const Answer answer = PutHousehold(server_, wanted_.household, false, terminal_,
                                     [this] { return held_.HasCome(); });
  const bool isRefused = answer.status >= 300 || !answer.wasReached;
  if (isRefused) return Undo(answer.failure);
  const bool mayAsk = !held_.HasCome();
  if (!answer.ok() && !(mayAsk && HasServerTaken())) return AnswerLost(answer.trouble);
  ForgetRestore();
  return {};
}

Result Restoration::Undo(Result why) {
  QStringList troubles;
  for (const QString& trouble : {settings_.PutBack(), applications_.PutBack()}) {
    if (!trouble.isEmpty()) troubles.append(trouble);
  }
  if (troubles.isEmpty()) {
    if (isNoteOurs_) ForgetRestore();
    (void)unlink(QFile::encodeName(kept_).constData());
    return With(why, QLatin1String(kNothingChanged));
  }
  return With(why, QStringLiteral("Limits and use are as they were, but not all else:\n%1\n"
                                  "All of it is kept: vardellctl restore %2 takes it back.")
                       .arg(troubles.join(QLatin1Char('\n')), ShellWord(kept_)));
}

bool Restoration::HasServerTaken() {
  const Answer answer = PutHousehold(server_, wanted_.household, true, terminal_);
  if (!answer.ok()) return false;
  const CollectedBackup present = CollectBackup(server_, wanted_.settings, terminal_);
  const QJsonObject limits = answer.json[QStringLiteral("limits")].toObject();
  return present.backup && !Compare(*present.backup, wanted_, limits).any();
}

Result Restoration::AnswerLost(const QString& trouble) {
  return Failed(
      QStringLiteral("the Server's answer was lost: %1.\n"
                     "Limits and use may be those of the backup or as they were; settings "
                     "and applications are those of the backup.\n"
                     "vardellctl restore %2 --check shows whether anything differs; if so, "
                     "restore it again.\n"
                     "What was there before is kept: vardellctl restore %3 takes it back.")
          .arg(trouble, ShellWord(file_), ShellWord(kept_)));
}

}  // namespace vardell::control
