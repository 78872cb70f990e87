// The part of the Household in which the hosts of a shared account have credit of their own.
#include "Common Sources/Caps.h"
#include "server/HostAccounts.h"
#include "server/HouseholdChanges.h"

namespace vardell::server {
namespace {

constexpr char kSource[] = "scope";

LimitOptions OptionsOfHost(LimitOptions options) {
  options.scope = Scope::User;
  return options;
}

LedgerRow ScopeRow(const Actor& actor, const QDateTime& now, const LimitsEntry& entry,
                   std::int64_t creditBefore, const QString& reason) {
  LedgerRow row = AdminRow(actor, now, entry, creditBefore, reason);
  row.source = QLatin1String(kSource);
  return row;
}

}  // namespace

std::vector<Household::Impl::Name> Household::Impl::HostAccounts(const Name& name) {
  std::vector<Name> names;
  const QString prefix = HostAccountName(name.first, QString());
  for (auto next = users.lower_bound(prefix); next != users.end(); ++next) {
    if (!next->first.startsWith(prefix)) break;
    const bool isHosts = UserOfHostAccount(next->first) == name.first;
    if (isHosts && next->second.count(name.second) != 0) {
      names.emplace_back(next->first, name.second);
    }
  }
  return names;
}

const Account* Household::Impl::SharedBy(const Name& name) {
  const QString user = UserOfHostAccount(name.first);
  const Account* shared = user.isEmpty() ? nullptr : Find(user, name.second);
  return shared && shared->options.scope == Scope::UserAtHost ? shared : nullptr;
}

Household::Impl::Name Household::Impl::NameAtHost(const QString& host, const Name& name) {
  const Account* shared = Find(name.first, name.second);
  if (!shared || shared->options.scope != Scope::UserAtHost) return name;
  const QString own = HostAccountName(name.first, host);
  return Find(own, name.second) ? Name(own, name.second) : name;
}

bool Household::Impl::MakeHostAccount(const Name& name, const Name& own) {
  if (CheckNames(own.first, own.second)) return false;
  const Account& shared = *Find(name.first, name.second);
  if (HostAccounts(name).size() >= kMaxLanesPerIdentifier) {
    if (!hostsSaidFull.insert(name).second) return false;
    Log(QStringLiteral("%1, %2 has %3 hosts, and %4 is denied: remove those that are gone, or give "
                       "the limit the scope \"user\"")
            .arg(name.first, name.second, QString::number(kMaxLanesPerIdentifier), own.first));
    return false;
  }
  Account made = Applied(NewAccount(own), true,
                         {shared.limits, shared.state.credit, OptionsOfHost(shared.options)});
  made.topUps = shared.topUps;
  const LimitsEntry entry = EntryOf(own.first, own.second, made);
  const Actor server{0, QStringLiteral("server")};
  const QDateTime now = clocks.now();
  StoreChange change = Changed(entry, made);
  change.basedOn = 0;
  change.topUp = {own.first, own.second, made.limits.nextTopUpTime, made.topUps};
  if (entry.credit != 0) {
    const QString reason = QStringLiteral("first use on this host, as much as %1 has");
    change.ledger = ScopeRow(server, now, entry, 0, reason.arg(name.first));
  }
  change.audit = Audited(server, now, kSource, entry, QString(), AuditText(made));
  const ApplyResult applied = WriteNow({std::move(change)});
  if (applied.status == ApplyStatus::Failed && !hostsWait) Log(applied.error);
  hostsWait = applied.status == ApplyStatus::Failed;
  if (applied.status != ApplyStatus::Done) return Find(own.first, own.second) != nullptr;
  users[own.first][own.second] = std::move(made);
  TakeVersions(applied);
  TopUpsChanged(own);
  return true;
}

Household::Impl::Counting Household::Impl::CountedAtHost(const QString& host, const Name& name) {
  const Name own(HostAccountName(name.first, host), name.second);
  const bool isThere = Find(own.first, own.second) || MakeHostAccount(name, own);
  return {own, isThere ? Find(own.first, own.second) : nullptr, !isThere};
}

Household::Impl::HostChanges Household::Impl::FollowedBy(const Actor& actor, const Name& name,
                                                         const Account* before,
                                                         const Account& after) {
  HostChanges follow;
  if (!before || before->options.scope != Scope::UserAtHost) return follow;
  if (after.options.scope != Scope::UserAtHost) {
    return RemovedWith(actor, name, QStringLiteral("the hosts have no credit of their own now"));
  }
  const QDateTime now = clocks.now();
  for (const Name& own : HostAccounts(name)) {
    const Account& was = *Find(own.first, own.second);
    LimitsChange wanted{after.limits, {}, OptionsOfHost(after.options)};
    const bool isPlan = after.limits.nextTopUpTime == before->limits.nextTopUpTime;
    if (isPlan) wanted.limits.nextTopUpTime = was.limits.nextTopUpTime;
    Account is = Applied(was, false, wanted);
    if (is.revision == was.revision) continue;
    const LimitsEntry entry = EntryOf(own.first, own.second, is);
    StoreChange& change = follow.changes.emplace_back(Changed(entry, is));
    change.basedOn = was.version;
    change.audit = Audited(actor, now, kSource, entry, AuditText(was), AuditText(is));
    follow.accounts.emplace_back(own, std::move(is));
  }
  return follow;
}

Household::Impl::HostChanges Household::Impl::RemovedWith(const Actor& actor, const Name& name,
                                                          const QString& reason) {
  HostChanges follow;
  const QDateTime now = clocks.now();
  for (const Name& own : HostAccounts(name)) {
    const Account& was = *Find(own.first, own.second);
    LimitsEntry entry = EntryOf(own.first, own.second, was);
    StoreChange& change = follow.changes.emplace_back(Removed(entry));
    change.basedOn = was.version;
    change.audit = Audited(actor, now, kSource, entry, AuditText(was), QString());
    const std::int64_t credit = std::exchange(entry.credit, 0);
    if (credit != 0) change.ledger = ScopeRow(actor, now, entry, credit, reason);
    follow.removed.push_back(own);
  }
  return follow;
}

void Household::Impl::TakeOver(HostChanges follow) {
  for (const Name& own : follow.removed) Forget(own);
  for (auto& [own, account] : follow.accounts) {
    users[own.first][own.second] = std::move(account);
    TopUpsChanged(own);
  }
}

}  // namespace vardell::server
