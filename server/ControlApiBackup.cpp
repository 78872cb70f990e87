// Everything at once, out and in.
#include "Common Sources/Caps.h"
#include "server/Backup.h"
#include "server/ControlCall.h"
#include "server/HouseholdRestore.h"

namespace vardell::server {
namespace {

// The copy is made at once, its text elsewhere.
class BackingUp : public ControlTask {
 public:
  BackingUp(Backup backup, const QDateTime& made, QString version)
      : backup_(std::move(backup)), made_(made), version_(std::move(version)) {}

  void Prepare() override {
    text_ = WriteBackup(backup_, made_, version_);
    backup_ = Backup();
  }

  std::optional<ControlAnswer> Step() override {
    if (static_cast<std::size_t>(text_.size()) > kMaxBackupBytes) {
      return MakeAnswer(
          Problem{413,
                  "too-large",
                  QStringLiteral("The backup would have %1 bytes, more than could be restored")
                      .arg(text_.size()),
                  {},
                  HintForLargeBackups()});
    }
    ControlAnswer answer;
    answer.contentType = QByteArrayLiteral("application/json");
    answer.body = std::move(text_);
    return answer;
  }

 private:
  Backup backup_;
  const QDateTime made_;
  const QString version_;
  QByteArray text_;
};

QJsonObject ToJson(const RestoreCounts& counts, bool isCheck) {
  return {{QStringLiteral("limits"), QJsonObject{{QStringLiteral("removed"), counts.removed},
                                                 {QStringLiteral("added"), counts.added},
                                                 {QStringLiteral("changed"), counts.changed},
                                                 {QStringLiteral("same"), counts.same}}},
          {QStringLiteral("check"), isCheck}};
}

Problem Busy() {
  return {503,
          "busy",
          QStringLiteral("Another restore is under way: nothing was changed"),
          {},
          QStringLiteral("Wait until it has ended, and look at what there is then")};
}

class Restoring : public ControlTask {
 public:
  Restoring(Household& household, Actor actor, QByteArray body, bool isCheck)
      : household_(household),
        actor_(std::move(actor)),
        body_(std::move(body)),
        isCheck_(isCheck) {}

  void Prepare() override {
    problem_ = ReadBackup(body_, &backup_);
    body_ = QByteArray();
  }

  std::optional<ControlAnswer> Step() override {
    if (problem_) return MakeAnswer(*problem_);
    if (isCheck_) return MakeAnswer(200, ToJson(household_.Compare(backup_), true));
    if (!restore_) restore_ = household_.BeginRestore(actor_, std::move(backup_));
    if (!restore_) return MakeAnswer(Busy());
    const std::optional<RestoreResult> result = restore_->Step();
    if (!result) return std::nullopt;
    if (result->status == AdminStatus::Ok) return MakeAnswer(200, ToJson(result->counts, false));
    return MakeAnswer(StoreFailed(result->message));
  }

 private:
  Household& household_;
  const Actor actor_;
  QByteArray body_;
  const bool isCheck_;
  Backup backup_;
  std::optional<Problem> problem_;
  std::unique_ptr<Household::Restore> restore_;
};

}  // namespace

QString HintForLargeBackups() {
  return QStringLiteral(
             "A backup has at most %1 MiB. Where there is more, stop the Server, and copy its "
             "store's file or put a copy back in its place")
      .arg(kMaxBackupBytes >> 20);
}

ControlOutcome GetBackup(const Call& call) {
  const ServerStatus status = call.resources.status();
  return std::make_unique<BackingUp>(call.household().MakeBackup(), call.household().Now(),
                                     status.version);
}

ControlOutcome PutBackup(const Call& call) {
  const QString check = call.queried("check");
  if (call.query.count(QStringLiteral("check")) != 0 && check != QLatin1String("1") &&
      check != QLatin1String("0")) {
    return MakeAnswer(
        BadValue(QStringLiteral("check"), QStringLiteral("\"check\" must be 1 or 0")));
  }
  return std::make_unique<Restoring>(call.household(), call.requester.actor, call.request.body,
                                     check == QLatin1String("1"));
}

}  // namespace vardell::server
