// The part of the Household that shows administrators what there is, and lets them change limits.
#include "limits/LimitsDictionary.h"
#include "server/HouseholdChanges.h"
#include "server/LimitsKeys.h"

namespace vardell::server {
namespace {

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
  const QDateTime now = impl_->clocks.now();
  StoreChange change = Changed(entry, after);
  if (entry.credit != creditBefore) {
    change.ledger =
        AdminRow(actor, now, entry, creditBefore, QStringLiteral("set with the limits"));
  }
  change.audit = Audited(actor, now, "limits", entry, before ? AuditText(*before) : QString(),
                         AuditText(after));
  QString error;
  if (!impl_->WriteNow(std::move(change), &error)) {
    return Refuse(AdminStatus::StoreFailed, {}, error);
  }
  impl_->users[user][identifier] = after;
  return {AdminStatus::Ok, {}, {}, entry, 0};
}

}  // namespace vardell::server
