#include "server/SpoolRebase.h"

namespace vardell::server {

StoredAccounts AccountsOf(const StoreContents& contents) {
  StoredAccounts accounts;
  for (const CreditRow& row : contents.credit) {
    accounts[{row.user, row.identifier}] = {row.minutes, row.spent, false, 0};
  }
  for (const LimitsEntry& entry : contents.limits) {
    const auto account = accounts.find({entry.user, entry.identifier});
    if (account != accounts.end()) account->second.unlimited = entry.options.unlimited;
  }
  return accounts;
}

std::vector<StoreChange> Rebased(const std::vector<StoreChange>& changes,
                                 StoredAccounts* accounts) {
  std::vector<StoreChange> rebased;
  const auto batch = DecideBatch(changes, BatchKind::Ordinary, *accounts);
  if (!batch) return changes;
  for (const LedgerRow& row : batch->ledger) rebased.emplace_back().ledger = row;
  for (const AccountName& name : batch->touched) {
    const StoredAccount& account = batch->accounts.at(name);
    rebased.emplace_back().credit = {name.first, name.second, account.minutes, account.spent};
  }
  *accounts = batch->accounts;
  return rebased;
}

}  // namespace vardell::server
