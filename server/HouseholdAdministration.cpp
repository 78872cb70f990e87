// The part of the Household that shows administrators what there is, and lets them change limits.
#include "server/HostAccounts.h"
#include "server/HouseholdChanges.h"
#include "server/LimitsKeys.h"
#include "server/LimitsOptions.h"

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

Account Household::Impl::NewAccount(const Name& name) const {
  Account account;
  const auto removed = removedRevisions.find(name);
  if (removed != removedRevisions.end()) account.revision = removed->second;
  return account;
}

void Household::Impl::Forget(const Name& name) {
  const auto accounts = users.find(name.first);
  if (accounts == users.end()) return;
  const auto account = accounts->second.find(name.second);
  if (account == accounts->second.end()) return;
  removedRevisions[name] = account->second.revision;
  topUps.Remove(name);
  accounts->second.erase(account);
  if (accounts->second.empty()) users.erase(accounts);
}

void Household::Impl::ForgetHanded() {
  for (auto& [id, agent] : connections) {
    std::erase_if(agent.handed, [this](const auto& handed) {
      return Find(handed.first.first, handed.first.second) == nullptr;
    });
  }
}

AdminResult Household::ChangeLimits(const Actor& actor, const QString& user,
                                    const QString& identifier, const QVariantMap& keys,
                                    std::uint64_t expectedRevision, const QVariantMap& options) {
  return impl_->Decide([&] {
    return impl_->TryToChangeLimits(actor, {user, identifier}, keys, expectedRevision, options);
  });
}

std::optional<AdminResult> Household::Impl::TryToChangeLimits(const Actor& actor, const Name& name,
                                                              const QVariantMap& keys,
                                                              std::uint64_t expectedRevision,
                                                              const QVariantMap& options) {
  const auto& [user, identifier] = name;
  if (auto refused = CheckNames(user, identifier)) return *refused;
  const Account* before = Find(user, identifier);
  if (auto refused = CheckRevision(before, expectedRevision)) return *refused;

  const LimitsRecord limits = before ? before->limits : NewLimits();
  LimitsChange wanted;
  auto problem = ApplyLimitsKeys(identifier, limits, keys, &wanted);
  if (before) wanted.options = before->options;
  if (!problem) problem = ApplyOptions(identifier, options, &wanted.options);
  if (problem) {
    const auto status = problem->unknownKey ? AdminStatus::UnknownKey : AdminStatus::BadValue;
    return Refuse(status, problem->field, problem->message);
  }

  const Account after = Applied(before ? *before : NewAccount({user, identifier}), !before, wanted);
  const bool isKept = before && before->revision == after.revision;
  if (!isKept && SharedBy(name)) {
    return Refuse(AdminStatus::BadValue, QStringLiteral("user"),
                  QStringLiteral("is one host of a shared account, and only its credit is its own: "
                                 "change the limit of \"%1\"")
                      .arg(UserOfHostAccount(user)));
  }
  const LimitsEntry entry = EntryOf(user, identifier, after);
  const std::int64_t creditBefore = before ? before->state.credit : 0;
  const QDateTime now = clocks.now();
  StoreChange change = Changed(entry, after);
  change.basedOn = before ? before->version : 0;
  if (entry.credit != creditBefore) {
    change.ledger =
        AdminRow(actor, now, entry, creditBefore, QStringLiteral("set with the limits"));
  }
  change.audit = Audited(actor, now, "limits", entry, before ? AuditText(*before) : QString(),
                         AuditText(after));
  HostChanges hosts = FollowedBy(actor, name, before, after);
  hosts.changes.push_back(std::move(change));
  const ApplyResult applied = WriteNow(hosts.changes);
  if (applied.status == ApplyStatus::Conflict) return std::nullopt;
  if (applied.status == ApplyStatus::Failed) {
    return Refuse(AdminStatus::StoreFailed, {}, applied.error);
  }
  users[user][identifier] = after;
  TakeOver(std::move(hosts));
  TakeVersions(applied);
  TopUpsChanged({user, identifier});
  if (const auto moment = MomentOfTopUps()) {
    (void)TopUp({{user, identifier}}, *moment);  // otherwise it waits for TopUpDue
  }
  // Another Server may have removed it, which a conflict of the top-up has told.
  const Account* there = Find(user, identifier);
  return AdminResult{AdminStatus::Ok, {}, {}, there ? EntryOf(user, identifier, *there) : entry, 0};
}

AdminResult Household::RemoveLimits(const Actor& actor, const QString& user,
                                    const QString& identifier, std::uint64_t expectedRevision) {
  return impl_->Decide([&] {
    return impl_->TryToRemoveLimits(actor, {user, identifier}, expectedRevision);
  });
}

std::optional<AdminResult> Household::Impl::TryToRemoveLimits(const Actor& actor, const Name& name,
                                                              std::uint64_t expectedRevision) {
  const auto& [user, identifier] = name;
  const Account* account = Find(user, identifier);
  if (!account) return Refuse(AdminStatus::NotFound, {}, QStringLiteral("there is no such limit"));
  if (auto refused = CheckRevision(account, expectedRevision)) return *refused;
  const LimitsEntry entry = EntryOf(user, identifier, *account);
  const QDateTime now = clocks.now();
  StoreChange change = Removed(entry);
  change.basedOn = account->version;
  if (entry.credit != 0) {
    LimitsEntry without = entry;
    without.credit = 0;
    change.ledger =
        AdminRow(actor, now, without, entry.credit, QStringLiteral("the limit was removed"));
  }
  change.audit = Audited(actor, now, "limits", entry, AuditText(*account), QString());
  HostChanges hosts;
  if (account->options.scope == Scope::UserAtHost) {
    hosts = RemovedWith(actor, name, QStringLiteral("the limit was removed"));
  }
  hosts.changes.push_back(std::move(change));
  const ApplyResult applied = WriteNow(hosts.changes);
  if (applied.status == ApplyStatus::Conflict) return std::nullopt;
  if (applied.status == ApplyStatus::Failed) {
    return Refuse(AdminStatus::StoreFailed, {}, applied.error);
  }
  Forget(name);
  TakeOver(std::move(hosts));
  ForgetHanded();
  return AdminResult{AdminStatus::Ok, {}, {}, entry, 0};
}

}  // namespace vardell::server
