#include "server/HouseholdChanges.h"

#include <QJsonDocument>
#include <QJsonObject>

#include "limits/LimitsDictionary.h"
#include "server/LimitsOptions.h"

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

Account Applied(const Account& before, bool isNew, const LimitsChange& change) {
  Account after = before;
  const bool differs = isNew || before.limits != change.limits || before.options != change.options;
  after.limits = change.limits;
  after.options = change.options;
  after.state.enabled = change.limits.enabled != 0;
  after.state.unlimited = change.options.unlimited;
  if (differs) ++after.revision;
  if (change.credit) after.state = WithCredit(after.state, *change.credit);
  return after;
}

StoreChange Changed(const LimitsEntry& entry, const Account& account) {
  StoreChange change;
  change.limits = entry;
  change.credit = {entry.user, entry.identifier, account.state.credit, account.state.spent};
  return change;
}

StoreChange Removed(const LimitsEntry& entry) {
  StoreChange change;
  change.removed = {entry.user, entry.identifier, entry.revision};
  return change;
}

QString AuditText(const Account& account) {
  QVariantMap text = MakeLimitsDictionary(account.limits);
  text.insert(QStringLiteral("Credit"), qlonglong{account.state.credit});
  QJsonObject json = QJsonObject::fromVariantMap(text);
  json.insert(QStringLiteral("options"), OptionsJson(account.options));
  return QString::fromUtf8(QJsonDocument(json).toJson(QJsonDocument::Compact));
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
