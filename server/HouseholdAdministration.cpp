// The half of the Household that serves administrators.
#include <QCryptographicHash>
#include <QDataStream>
#include <QIODevice>
#include <QJsonDocument>
#include <QJsonObject>
#include <algorithm>
#include <stdexcept>

#include "Common Sources/Caps.h"
#include "limits/LimitsDictionary.h"
#include "server/HouseholdImpl.h"
#include "server/LimitsKeys.h"

namespace vardell::server {
namespace {

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

std::optional<AdminResult> CheckRevision(const Account* account, std::uint64_t expected) {
  if (!account && expected != 0) {
    return Refuse(AdminStatus::NotFound, {}, QStringLiteral("there is no such limit"));
  }
  if (account && account->revision != expected) {
    return Refuse(AdminStatus::RevisionMismatch, {},
                  QStringLiteral("the limit was changed meanwhile; it has revision %1 now")
                      .arg(account->revision));
  }
  return std::nullopt;
}

std::optional<AdminResult> CheckAdjustment(std::int64_t minutes, const QString& id,
                                           const QString& reason) {
  if (const auto problem = CreditProblem(minutes)) {
    return Refuse(AdminStatus::BadValue, QStringLiteral("minutes"), *problem);
  }
  if (const auto problem = NameProblem(id)) {
    return Refuse(AdminStatus::BadValue, QStringLiteral("id"), *problem);
  }
  if (reason.isEmpty()) return std::nullopt;
  if (const auto problem = NameProblem(reason)) {
    return Refuse(AdminStatus::BadValue, QStringLiteral("reason"), *problem);
  }
  return std::nullopt;
}

QString AuditText(const Account& account) {
  QVariantMap text = MakeLimitsDictionary(account.limits);
  text.insert(QStringLiteral("Credit"), qlonglong{account.state.credit});
  const auto json = QJsonDocument(QJsonObject::fromVariantMap(text));
  return QString::fromUtf8(json.toJson(QJsonDocument::Compact));
}

QByteArray DigestOf(const QString& user, const QString& identifier, std::int64_t minutes,
                    const QString& reason) {
  QByteArray body;
  QDataStream fields(&body, QIODevice::WriteOnly);
  fields << user << identifier << qint64{minutes} << reason;
  return QCryptographicHash::hash(body, QCryptographicHash::Sha256);
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

Account Applied(const Account* before, const LimitsChange& change) {
  Account after = before ? *before : Account{};
  const bool differs =
      !before || MakeLimitsDictionary(before->limits) != MakeLimitsDictionary(change.limits);
  after.limits = change.limits;
  after.state.enabled = change.limits.enabled != 0;
  if (differs) ++after.revision;
  if (change.credit) after.state = WithCredit(after.state, *change.credit);
  return after;
}

StoreChange Changed(const LimitsEntry& entry, const Account& after) {
  StoreChange change;
  change.limits = entry;
  change.credit = {entry.user, entry.identifier, after.state.credit, after.state.spent};
  return change;
}

}  // namespace

std::vector<QString> Household::Users() const {
  std::vector<QString> names;
  for (const auto& [user, accounts] : impl_->users) names.push_back(user);
  return names;
}

std::vector<LimitsEntry> Household::Limits(const QString& user) const {
  std::vector<LimitsEntry> entries;
  const auto accounts = impl_->users.find(user);
  if (accounts == impl_->users.end()) return entries;
  for (const auto& [identifier, account] : accounts->second) {
    entries.push_back(EntryOf(user, identifier, account));
  }
  return entries;
}

std::optional<LimitsEntry> Household::Limits(const QString& user, const QString& identifier) const {
  const Account* account = impl_->Find(user, identifier);
  if (!account) return std::nullopt;
  return EntryOf(user, identifier, *account);
}

AdminResult Household::ChangeLimits(const Actor& actor, const QString& user,
                                    const QString& identifier, const QVariantMap& keys,
                                    std::uint64_t expectedRevision) {
  if (auto refused = CheckNames(user, identifier)) return *refused;
  const Account* before = impl_->Find(user, identifier);
  if (auto refused = CheckRevision(before, expectedRevision)) return *refused;

  LimitsRecord limits = before ? before->limits : DefaultLimits();
  if (!before) limits.enabled = 1;
  LimitsChange wanted;
  if (const auto problem = ApplyLimitsKeys(identifier, limits, keys, &wanted)) {
    const auto status = problem->unknownKey ? AdminStatus::UnknownKey : AdminStatus::BadValue;
    return Refuse(status, problem->field, problem->message);
  }

  const Account after = Applied(before, wanted);
  const LimitsEntry entry = EntryOf(user, identifier, after);
  const std::int64_t creditBefore = before ? before->state.credit : 0;
  StoreChange change = Changed(entry, after);
  if (entry.credit != creditBefore) {
    change.ledger = AdminRow(actor, impl_->clocks.now(), entry, creditBefore,
                             QStringLiteral("set with the limits"));
  }
  change.audit = AuditRow{impl_->clocks.now(),
                          actor.name,
                          QStringLiteral("limits"),
                          user,
                          identifier,
                          before ? AuditText(*before) : QString(),
                          AuditText(after)};
  QString error;
  if (!impl_->WriteNow(std::move(change), &error)) {
    return Refuse(AdminStatus::StoreFailed, {}, error);
  }
  impl_->users[user][identifier] = after;
  return {AdminStatus::Ok, {}, {}, entry};
}

AdminResult Household::SetCredit(const Actor& actor, const QString& user, const QString& identifier,
                                 std::int64_t minutes, const QString& id, const QString& reason) {
  if (auto refused = CheckNames(user, identifier)) return *refused;
  if (auto refused = CheckAdjustment(minutes, id, reason)) return *refused;
  if (IsGlobalSettings(identifier)) {
    return Refuse(AdminStatus::BadValue, QStringLiteral("identifier"),
                  QStringLiteral("has no credit: the global settings hold only the disk quota"));
  }
  Account* account = impl_->Find(user, identifier);
  if (!account) return Refuse(AdminStatus::NotFound, {}, QStringLiteral("there is no such limit"));

  const QByteArray digest = DigestOf(user, identifier, minutes, reason);
  try {
    if (const auto known = impl_->store->AdjustmentDigest(id)) {
      if (*known == digest) return {AdminStatus::Ok, {}, {}, EntryOf(user, identifier, *account)};
      return Refuse(AdminStatus::IdReused, QStringLiteral("id"),
                    QStringLiteral("was used for another change"));
    }
  } catch (const std::runtime_error& error) {
    return Refuse(AdminStatus::StoreFailed, {}, QString::fromUtf8(error.what()));
  }

  Account after = *account;
  after.state = WithCredit(after.state, minutes);
  const LimitsEntry entry = EntryOf(user, identifier, after);
  StoreChange change;
  change.credit = {user, identifier, after.state.credit, after.state.spent};
  change.ledger = AdminRow(actor, impl_->clocks.now(), entry, account->state.credit, reason);
  change.adjustment = AdjustmentRow{id, digest};
  change.audit = AuditRow{impl_->clocks.now(), actor.name,          QStringLiteral("credit"), user,
                          identifier,          AuditText(*account), AuditText(after)};
  QString error;
  if (!impl_->WriteNow(std::move(change), &error)) {
    return Refuse(AdminStatus::StoreFailed, {}, error);
  }
  *account = after;
  return {AdminStatus::Ok, {}, {}, entry};
}

std::optional<std::vector<LedgerRow>> Household::Ledger(std::int64_t after, const QString& user,
                                                        const QString& identifier,
                                                        int limit) const {
  (void)impl_->WriteWaiting();
  try {
    return impl_->store->Ledger(after, user, identifier, std::clamp(limit, 0, kMaxLedgerRows));
  } catch (const std::runtime_error& error) {
    impl_->Log(QStringLiteral("the ledger cannot be read: ") + QString::fromUtf8(error.what()));
    return std::nullopt;
  }
}

}  // namespace vardell::server
