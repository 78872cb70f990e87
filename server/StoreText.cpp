#include "server/StoreText.h"

#include <QJsonDocument>

#include "server/ScheduleJson.h"

namespace vardell::server {
namespace {

const QLatin1String kUnion("union");
const QLatin1String kSum("sum");
const QLatin1String kUser("user");
const QLatin1String kUserAtHost("user@host");

}  // namespace

QString TimeText(const QDateTime& time) {
  return time.toOffsetFromUtc(time.offsetFromUtc()).toString(Qt::ISODateWithMs);
}

QString DayText(const LedgerRow& row) {
  return (row.day.isValid() ? row.day : row.time.date()).toString(Qt::ISODate);
}

QString ParallelText(Parallel parallel) {
  return parallel == Parallel::Union ? kUnion : kSum;
}

QString ScopeText(Scope scope) {
  return scope == Scope::UserAtHost ? kUserAtHost : kUser;
}

QString ScheduleText(const std::optional<Schedule>& schedule) {
  if (!schedule) return QStringLiteral("");
  return QString::fromUtf8(QJsonDocument(PrintSchedule(*schedule)).toJson(QJsonDocument::Compact));
}

bool ReadParallel(const QString& text, Parallel* parallel) {
  if (text != kUnion && text != kSum) return false;
  *parallel = text == kUnion ? Parallel::Union : Parallel::Sum;
  return true;
}

bool ReadScope(const QString& text, Scope* scope) {
  if (text != kUser && text != kUserAtHost) return false;
  *scope = text == kUserAtHost ? Scope::UserAtHost : Scope::User;
  return true;
}

bool ReadSchedule(const QString& text, std::optional<Schedule>* schedule) {
  if (text.isEmpty()) {
    schedule->reset();
    return true;
  }
  const QJsonDocument json = QJsonDocument::fromJson(text.toUtf8());
  Schedule read;
  if (!json.isObject() || ParseSchedule(json.object(), &read)) return false;
  *schedule = std::move(read);
  return true;
}

}  // namespace vardell::server
