#include "server/HouseholdChanges.h"

#include <QJsonDocument>
#include <QJsonObject>

#include "limits/LimitsDictionary.h"
#include "server/LimitsKeys.h"

namespace vardell::server {

AdminResult Refuse(AdminStatus status, const QString& field, const QString& message) {
  return {status, field, message, std::nullopt};
}

std::optional<AdminResult> CheckNames(const QString& user, const QString& identifier) {
  if (const auto problem = NameProblem(user)) {
    return Refuse(AdminStatus::BadValue, QStringLiteral("user"), *problem);
  }
  if (const auto problem = NameProblem(identifier)) {
    return Refuse(AdminStatus::BadValue, QStringLiteral("identifier"), *problem);
  }
  return std::nullopt;
}

QString AuditText(const Account& account) {
  QVariantMap text = MakeLimitsDictionary(account.limits);
  text.insert(QStringLiteral("Credit"), qlonglong{account.state.credit});
  const auto json = QJsonDocument(QJsonObject::fromVariantMap(text));
  return QString::fromUtf8(json.toJson(QJsonDocument::Compact));
}

AuditRow Audited(const Actor& actor, const QDateTime& now, const char* what,
                 const LimitsEntry& entry, const QString& before, const QString& after) {
  return {now, actor.name, QLatin1String(what), entry.user, entry.identifier, before, after};
}

LedgerRow AdminRow(const Actor& actor, const QDateTime& now, const LimitsEntry& entry,
                   std::int64_t creditBefore, const QString& reason) {
  LedgerRow row;
  row.time = now;
  row.user = entry.user;
  row.identifier = entry.identifier;
  row.source = QStringLiteral("admin");
  row.minutes = entry.credit - creditBefore;
  row.credit = entry.credit;
  row.actor = actor.name;
  row.reason = reason;
  return row;
}

}  // namespace vardell::server
