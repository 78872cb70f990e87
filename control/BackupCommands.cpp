#include "control/BackupCommands.h"

#include <QJsonArray>
#include <QSysInfo>

#include "Common Sources/Caps.h"
#include "control/RestoreNote.h"
#include "control/SettingsFile.h"
#include "control/StoredApplications.h"
#include "control/Terminal.h"
#include "limits/SizeString.h"

namespace vardell::control {
namespace {

constexpr int kPackingSteps = 3;

// How long the Server may take over a whole household before it says a word.
constexpr std::chrono::minutes kHouseholdPatience{5};

QJsonObject WrittenJson(const QString& path, qsizetype bytes, const BackupCounts& counts) {
  return {{QStringLiteral("file"), path},
          {QStringLiteral("bytes"), bytes},
          {QStringLiteral("limits"), counts.limits},
          {QStringLiteral("people"), counts.people},
          {QStringLiteral("days"), counts.days},
          {QStringLiteral("settings"), counts.settings}};
}

}  // namespace

Answer AskPatiently(const HttpClient& server, HttpRequest request, const QString& what,
                    Terminal& terminal, const std::function<bool()>& isGivenUp) {
  bool isWaiting = request.body.isEmpty();
  const auto moved = [&](std::int64_t done, std::int64_t total) {
    terminal.Progress(what, done, total);
  };
  request.patience = kHouseholdPatience;
  request.sending = [&](std::int64_t done, std::int64_t total) {
    isWaiting = done == total;
    moved(done, total);
  };
  request.receiving = [&](std::int64_t done, std::int64_t total) {
    isWaiting = false;
    moved(done, total);
  };
  request.isGivenUp = [&] {
    if (isWaiting) terminal.Wait(what);
    return isGivenUp && isGivenUp();
  };
  Answer answer = Ask(server, request);
  terminal.EndProgress();
  return answer;
}

CollectedBackup CollectBackup(const HttpClient& server, const QVariantMap& settings,
                              Terminal& terminal, const std::function<bool()>& isGivenUp) {
  const Answer answer = AskPatiently(server, {"GET", "/v1/backup", {}, {}},
                                     QStringLiteral("Asking the Server"), terminal, isGivenUp);
  if (!answer.ok()) return {{}, answer.failure};
  Backup backup{QDateTime::fromSecsSinceEpoch(QDateTime::currentSecsSinceEpoch(), Qt::UTC),
                QSysInfo::machineHostName(), answer.json.toVariantMap(), settings,
                ReadApplications()};
  const BackupOrProblem checked = ParseDocument(MakeDocument(backup));
  if (!checked.backup) {
    return {
        {},
        Failed(QStringLiteral("what is there now cannot be backed up: %1").arg(checked.problem))};
  }
  return {std::move(backup), {}};
}

WrittenBackup WriteBackupFile(const Backup& backup, const QString& path, Terminal& terminal) {
  const auto progress = [&](int step) {
    terminal.Progress(QStringLiteral("Packing"), step, kPackingSteps);
  };
  progress(0);
  const QByteArray bytes = PackBackup(backup);
  if (bytes.isEmpty()) {
    return {0, QStringLiteral("%1 cannot be written: there is too much to back up").arg(path)};
  }
  progress(1);
  const BackupOrProblem unpacked = UnpackBackup(bytes, path);
  if (!unpacked.backup || MakeDocument(*unpacked.backup) != MakeDocument(backup)) {
    return {0, QStringLiteral("%1 cannot be written: what is there now does not survive packing; "
                              "please report this")
                   .arg(path)};
  }
  progress(2);
  if (const QString problem = WriteWholeFile(path, bytes, 0600); !problem.isEmpty()) {
    return {0, problem};
  }
  const LoadedFile written = LoadWholeFile(path, kMaxArchiveBytes);
  terminal.EndProgress();
  if (written.bytes == bytes) return {bytes.size(), {}};
  return {0, QStringLiteral("%1 does not hold what was written into it.\n"
                            "Do not rely on it; is the disk sound?")
                 .arg(path)};
}

Result MakeBackup(const Command& command, const HttpClient& server, Terminal& terminal) {
  const StoredSettings settings = ReadSettings();
  if (!settings.problem.isEmpty()) return Failed(settings.problem);
  const CollectedBackup collected = CollectBackup(server, settings.values, terminal);
  if (!collected.backup) return collected.failure;
  const WrittenBackup written = WriteBackupFile(*collected.backup, command.path, terminal);
  if (!written.problem.isEmpty()) return Failed(written.problem);
  const BackupCounts counts = CountsOf(*collected.backup);
  Result result =
      Done(command.json ? JsonText(WrittenJson(command.path, written.bytes, counts))
                        : QStringLiteral("%1: %2 (%3)\n")
                              .arg(CountsText(counts), command.path,
                                   CopySizeString(static_cast<std::uint64_t>(written.bytes))));
  result.notice = UnfinishedRestoreNotice();
  return result;
}

}  // namespace vardell::control
