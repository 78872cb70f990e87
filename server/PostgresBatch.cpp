#include "server/PostgresBatch.h"

#include <algorithm>

#include "server/CreditRules.h"

namespace vardell::server {
namespace {

template <typename Row>
AccountName Names(const Row& row) {
  return {row.user, row.identifier};
}

// The batch as it grows, change by change.
class Decision {
 public:
  Decision(const StoredAccounts& accounts, BatchKind kind) : kind_(kind), before_(accounts) {
    batch_.accounts = accounts;
  }

  void Take(const StoreChange& change);
  std::optional<PostgresBatch> Result();

 private:
  StoredAccount* Find(const AccountName& name);
  StoredAccount& Touch(const AccountName& name);
  void TakeUse(const StoreChange& change, const AccountName& name);
  void TakeAsItStands(const StoreChange& change, const AccountName& name);
  void TakeState(const StoreChange& change, const AccountName& name);
  void Remove(const RemovedLimits& removed, const AccountName& name);
  void TakeTopUp(const TopUpRow& topUp, const AccountName& name);
  void TakeLanes(const StoreChange& change);
  void Book(LedgerRow row);

  const BatchKind kind_;
  const StoredAccounts& before_;
  PostgresBatch batch_;
  std::map<AccountName, std::int64_t> added_;  // by rows of the ledger
};

StoredAccount* Decision::Find(const AccountName& name) {
  const auto found = batch_.accounts.find(name);
  return found == batch_.accounts.end() ? nullptr : &found->second;
}

StoredAccount& Decision::Touch(const AccountName& name) {
  batch_.touched.insert(name);
  return batch_.accounts[name];
}

void Decision::Book(LedgerRow row) {
  const QDate day = row.day.isValid() ? row.day : row.time.date();
  if (row.used != 0) batch_.usage[{row.user, row.identifier, day}] += row.used;
  added_[Names(row)] += row.minutes;
  batch_.ledger.push_back(std::move(row));
}

void Decision::TakeLanes(const StoreChange& change) {
  if (const auto& lane = change.forgottenLane) {
    batch_.lanes[{lane->user, lane->identifier, lane->host}] = std::nullopt;
  }
  if (const auto& lane = change.lane) {
    batch_.lanes[{lane->user, lane->identifier, lane->host}] = lane->paidUntil;
  }
}

// Of limits that another Server has removed the use counts, and nothing else.
void Decision::TakeUse(const StoreChange& change, const AccountName& name) {
  StoredAccount* account = Find(name);
  const bool isCharged = account && !account->unlimited && change.ledger &&
                         change.ledger->source != QLatin1String("grace");
  const std::int64_t before = account ? account->minutes : 0;
  const std::int64_t charge = isCharged ? std::max<std::int64_t>(0, change.ledger->used) : 0;
  const std::int64_t after = charge == 0 ? before : CreditToKeep(before - std::min(charge, before));
  if (account) {
    const bool wasSpent = change.credit ? change.credit->spent : account->spent;
    const bool isSpent = wasSpent && after == 0;
    if (after != before || isSpent != account->spent) {
      Touch(name);
      account->minutes = after;
      account->spent = isSpent;
    }
    TakeLanes(change);
  }
  if (!change.ledger) return;
  LedgerRow row = *change.ledger;
  row.minutes = after - before;
  row.credit = after;
  Book(std::move(row));
}

void Decision::Remove(const RemovedLimits& removed, const AccountName& name) {
  batch_.cleared.insert(name);
  batch_.touched.erase(name);
  batch_.accounts.erase(name);
  batch_.limits.erase(name);
  batch_.topUpTimes.erase(name);
  batch_.topUps.erase(name);
  batch_.removed[name] = removed.revision;
  std::erase_if(batch_.lanes, [&](const auto& lane) {
    return std::get<0>(lane.first) == name.first && std::get<1>(lane.first) == name.second;
  });
}

void Decision::TakeTopUp(const TopUpRow& topUp, const AccountName& name) {
  Touch(name);
  batch_.topUps[name] = topUp.memory;
  const auto written = batch_.limits.find(name);
  if (written == batch_.limits.end()) {
    batch_.topUpTimes[name] = topUp.nextTime;
  } else {
    written->second.limits.nextTopUpTime = topUp.nextTime;
  }
}

void Decision::TakeState(const StoreChange& change, const AccountName& name) {
  if (change.removed) Remove(*change.removed, name);
  if (change.limits) {
    Touch(name).unlimited = change.limits->options.unlimited;
    batch_.limits.insert_or_assign(name, *change.limits);
    batch_.topUpTimes.erase(name);
  }
  if (change.topUp) TakeTopUp(*change.topUp, name);
  if (change.credit) {
    StoredAccount& account = Touch(name);
    account.minutes = change.credit->minutes;
    account.spent = change.credit->spent;
  }
  TakeLanes(change);
}

void Decision::TakeAsItStands(const StoreChange& change, const AccountName& name) {
  const StoredAccount* was = Find(name);
  const std::int64_t before = was ? was->minutes : 0;
  TakeState(change, name);
  std::optional<LedgerRow> row = change.ledger;
  if (kind_ == BatchKind::Restore) {
    const StoredAccount* is = Find(name);
    const std::int64_t after = is ? is->minutes : 0;
    if (!row && after != before) {
      row.emplace();
      row->time = change.audit ? change.audit->time : QDateTime::currentDateTime();
      row->actor = change.audit ? change.audit->actor : QString();
      row->user = name.first;
      row->identifier = name.second;
      row->source = QStringLiteral("restore");
      row->reason = QStringLiteral("restored from a backup");
    }
    if (row) row->minutes = after - before;
    if (row) row->credit = after;
  }
  if (row) Book(std::move(*row));
}

void Decision::Take(const StoreChange& change) {
  if (const std::optional<AccountName> name = NameOf(change)) {
    const bool isUse = !change.basedOn && kind_ == BatchKind::Ordinary;
    isUse ? TakeUse(change, *name) : TakeAsItStands(change, *name);
  }
  if (change.adjustment) batch_.adjustments.push_back(*change.adjustment);
  if (change.audit) batch_.audits.push_back(*change.audit);
}

std::optional<PostgresBatch> Decision::Result() {
  const auto minutesIn = [](const StoredAccounts& accounts, const AccountName& name) {
    const auto found = accounts.find(name);
    return found == accounts.end() ? std::int64_t{0} : found->second.minutes;
  };
  std::set<AccountName> names = batch_.touched;
  names.insert(batch_.cleared.begin(), batch_.cleared.end());
  for (const auto& [name, added] : added_) names.insert(name);
  for (const AccountName& name : names) {
    const auto added = added_.find(name);
    const std::int64_t booked = added == added_.end() ? 0 : added->second;
    if (minutesIn(batch_.accounts, name) - minutesIn(before_, name) != booked) return std::nullopt;
  }
  return std::move(batch_);
}

}  // namespace

std::optional<AccountName> NameOf(const StoreChange& change) {
  if (change.limits) return Names(*change.limits);
  if (change.removed) return Names(*change.removed);
  if (change.topUp) return Names(*change.topUp);
  if (change.credit) return Names(*change.credit);
  if (change.ledger) return Names(*change.ledger);
  if (change.lane) return Names(*change.lane);
  if (change.forgottenLane) return Names(*change.forgottenLane);
  return std::nullopt;
}

std::set<AccountName> NamesOf(const std::vector<StoreChange>& changes) {
  std::set<AccountName> names;
  for (const StoreChange& change : changes) {
    if (auto name = NameOf(change)) names.insert(std::move(*name));
  }
  return names;
}

std::set<AccountName> ConflictsOf(const std::vector<StoreChange>& changes,
                                  const StoredAccounts& accounts) {
  std::set<AccountName> conflicts;
  for (const StoreChange& change : changes) {
    const std::optional<AccountName> name = NameOf(change);
    if (!change.basedOn || !name) continue;
    const auto found = accounts.find(*name);
    const std::uint64_t version = found == accounts.end() ? 0 : found->second.version;
    if (version != *change.basedOn) conflicts.insert(*name);
  }
  return conflicts;
}

std::optional<PostgresBatch> DecideBatch(const std::vector<StoreChange>& changes, BatchKind kind,
                                         const StoredAccounts& accounts) {
  Decision decision(accounts, kind);
  for (const StoreChange& change : changes) decision.Take(change);
  return decision.Result();
}

}  // namespace vardell::server
