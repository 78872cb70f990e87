// What a transaction of a shared store is to write, decided from the accounts as they are there and
// not as a Server remembers them. Pure.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <tuple>
#include <utility>
#include <vector>

#include "server/Store.h"

namespace vardell::server {

using AccountName = std::pair<QString, QString>;  // user, identifier

// As the store has it.
struct StoredAccount {
  std::int64_t minutes = 0;
  bool spent = false;
  bool unlimited = false;  // use takes nothing from it
  std::uint64_t version = 0;
};

using StoredAccounts = std::map<AccountName, StoredAccount>;

// An account that has no limits any more is in `removed`; those of `cleared` lose everything before
// the rest is written.
struct PostgresBatch {
  StoredAccounts accounts;        // all of them that are there afterwards, versions as before
  std::set<AccountName> touched;  // of these: get the version of the transaction
  std::set<AccountName> cleared;
  std::map<AccountName, std::uint64_t> removed;  // revision
  std::map<AccountName, LimitsEntry> limits;
  std::map<AccountName, double> topUpTimes;  // of limits that stay as they are otherwise
  std::map<AccountName, TopUpMemory> topUps;
  std::map<std::tuple<QString, QString, QString>, std::optional<std::chrono::milliseconds>>
      lanes;  // absent: forgotten
  std::vector<LedgerRow> ledger;
  std::map<std::tuple<QString, QString, QDate>, std::int64_t> usage;  // added
  std::vector<AdjustmentRow> adjustments;
  std::vector<AuditRow> audits;
};

// Whose the change is; absent: nobody's.
std::optional<AccountName> NameOf(const StoreChange& change);
std::set<AccountName> NamesOf(const std::vector<StoreChange>& changes);

// Changes of accounts that are based on another version than the one that is there.
std::set<AccountName> ConflictsOf(const std::vector<StoreChange>& changes,
                                  const StoredAccounts& accounts);

enum class BatchKind {
  Ordinary,
  Restore,  // credit becomes what the changes say, whatever it was: rows of the ledger follow
};

// Absent where a ledger's sum would not be its credit.
std::optional<PostgresBatch> DecideBatch(const std::vector<StoreChange>& changes, BatchKind kind,
                                         const StoredAccounts& accounts);

}  // namespace vardell::server
