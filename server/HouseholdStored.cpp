// The part of the Household that takes over what the store has.
#include "server/HouseholdImpl.h"
#include "server/HouseholdRestore.h"

namespace vardell::server {

void Household::Impl::TakeLimits(const StoreContents& contents) {
  for (const RemovedLimits& limits : contents.removed) {
    removedRevisions[{limits.user, limits.identifier}] = limits.revision;
  }
  for (const LimitsEntry& entry : contents.limits) {
    Account& account = users[entry.user][entry.identifier];
    account.limits = entry.limits;
    account.revision = entry.revision;
    account.state.enabled = entry.limits.enabled != 0;
    account.options = entry.options;
    account.state.unlimited = entry.options.unlimited;
  }
  for (const TopUpRow& row : contents.topUps) {
    Account* account = Find(row.user, row.identifier);
    if (account) account->topUps = row.memory;
  }
  for (const LimitsEntry& entry : contents.limits) TopUpsChanged({entry.user, entry.identifier});
  for (const CreditRow& credit : contents.credit) TakeCredit(credit);
}

// What agents have changed here since then comes with the result of that.
void Household::Impl::TakeCredit(const CreditRow& credit) {
  Account* account = Find(credit.user, credit.identifier);
  if (!account || credit.version < account->version) return;
  account->version = credit.version;
  if (account->lastChange > appliedThrough) return;
  account->state.credit = credit.minutes;
  account->state.spent = credit.spent;
}

void Household::Impl::TakeNews(const StoreNews& news) {
  for (const RemovedLimits& removed : news.contents.removed) {
    const Account* account = Find(removed.user, removed.identifier);
    if (account && account->revision <= removed.revision) {
      Forget({removed.user, removed.identifier});
    }
  }
  if (!news.contents.removed.empty()) ForgetHanded();
  TakeLimits(news.contents);
  for (const UsageRow& row : news.contents.usage) {
    usage[{row.user, row.identifier}][row.day] += row.minutes;
    if (restoring) restoring->Booked(row.user, row.identifier, row.day, row.minutes);
  }
}

void Household::Impl::TakeEverything(const StoreContents& contents, std::uint64_t through) {
  appliedThrough = std::max(appliedThrough, through);
  const auto before = std::exchange(users, {});
  topUps = TopUpQueue();
  removedRevisions.clear();
  for (const RemovedLimits& removed : contents.removed) {
    removedRevisions[{removed.user, removed.identifier}] = removed.revision;
  }
  usage.clear();
  for (const UsageRow& row : contents.usage) {
    usage[{row.user, row.identifier}][row.day] = row.minutes;
  }
  for (const Use& use : usesUnderWay) {
    if (use.number > through) usage[use.name][use.day] += use.minutes;
  }
  for (const LimitsEntry& entry : contents.limits) {
    const auto accounts = before.find(entry.user);
    if (accounts == before.end()) continue;
    const auto account = accounts->second.find(entry.identifier);
    if (account == accounts->second.end()) continue;
    // Limits that were removed and made again begin anew.
    const auto removed = removedRevisions.find({entry.user, entry.identifier});
    const bool isGone =
        removed != removedRevisions.end() && account->second.revision <= removed->second;
    if (isGone) continue;
    // A database that was put back may have lower versions.
    Account& kept = users[entry.user][entry.identifier] = account->second;
    kept.version = 0;
  }
  ForgetHanded();
  TakeLimits(contents);
}

void Household::Impl::TakeNews(const StoreThread::News& news) {
  for (const LogEvent& line : news.lines) Log(line);
  if (news.everything) TakeEverything(*news.everything, news.everythingThrough);
  for (const StoreNews& others : news.others) TakeNews(others);
  for (const StoreThread::News::Applied& applied : news.applied) {
    appliedThrough = std::max(appliedThrough, applied.through);
    for (const CreditRow& credit : applied.accounts) TakeCredit(credit);
  }
}

std::uint64_t Household::Impl::TakeStored() {
  const std::uint64_t stored = keeper.Stored();
  TakeNews(keeper.TakeNews());
  while (!usesUnderWay.empty() && usesUnderWay.front().number <= stored) usesUnderWay.pop_front();
  return stored;
}

}  // namespace vardell::server
