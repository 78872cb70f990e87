#include "server/HouseholdRestore.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <algorithm>

#include "server/HouseholdChanges.h"

namespace vardell::server {
namespace {

// What one step takes on: rows written, and days compared.
constexpr std::size_t kRowsInStep = 2000;
constexpr std::size_t kDaysInStep = 50000;

constexpr char kSource[] = "restore";
constexpr char kReason[] = "restored from a backup";

enum class Fate { Removed, Added, Changed, Same };

void Count(Fate fate, RestoreCounts* counts) {
  switch (fate) {
    case Fate::Removed:
      ++counts->removed;
      break;
    case Fate::Added:
      ++counts->added;
      break;
    case Fate::Changed:
      ++counts->changed;
      break;
    case Fate::Same:
      ++counts->same;
      break;
  }
}

Fate FateOf(const Account* before, const LimitsEntry& wanted) {
  if (!before) return Fate::Added;
  const bool isSame = before->state.credit == wanted.credit && before->limits == wanted.limits &&
                      before->options == wanted.options;
  return isSame ? Fate::Same : Fate::Changed;
}

std::vector<std::pair<QDate, std::int64_t>> DifferencesOf(const UsageDays& before,
                                                          const UsageDays& wanted) {
  std::vector<std::pair<QDate, std::int64_t>> differences;
  auto old = before.begin();
  auto next = wanted.begin();
  while (old != before.end() || next != wanted.end()) {
    const bool hasOld = old != before.end() && (next == wanted.end() || old->first <= next->first);
    const bool hasNext = next != wanted.end() && (old == before.end() || next->first <= old->first);
    const QDate day = hasOld ? old->first : next->first;
    const std::int64_t was = hasOld ? (old++)->second : 0;
    const std::int64_t is = hasNext ? (next++)->second : 0;
    if (was != is) differences.emplace_back(day, is - was);
  }
  return differences;
}

LedgerRow RestoreRow(const Actor& actor, const QDateTime& now, const LimitsEntry& entry,
                     std::int64_t creditBefore) {
  LedgerRow row = AdminRow(actor, now, entry, creditBefore, QLatin1String(kReason));
  row.source = QLatin1String(kSource);
  return row;
}

QString SummaryOf(const RestoreCounts& counts) {
  const QJsonObject text{{QStringLiteral("removed"), counts.removed},
                         {QStringLiteral("added"), counts.added},
                         {QStringLiteral("changed"), counts.changed},
                         {QStringLiteral("same"), counts.same}};
  return QString::fromUtf8(QJsonDocument(text).toJson(QJsonDocument::Compact));
}

}  // namespace

Household::Restore::Restore(Impl& household, Actor actor, Backup backup)
    : household_(household), actor_(std::move(actor)) {
  for (LimitsEntry& entry : backup.limits) {
    Name name(entry.user, entry.identifier);
    limits_.emplace(std::move(name), std::move(entry));
  }
  for (UsageEntry& entry : backup.usage) {
    if (entry.days.empty()) continue;
    usage_.emplace(Name(entry.user, entry.identifier), std::move(entry.days));
  }
  household_.restoring = this;
}

Household::Restore::~Restore() {
  household_.restoring = nullptr;
}

std::optional<RestoreResult> Household::Restore::Step() {
  if (phase_ == Phase::Finishing) return Finish();
  QString error;
  QString unreached;
  bool isWritten = false;
  const auto write = [&](Store& store) {
    if (phase_ == Phase::Forgetting) {
      isWritten = store.ForgetUnfinished(kRowsInStep, &error);
      if (isWritten && !store.HasUnfinishedRestore()) phase_ = Phase::WritingAhead;
    } else {
      const std::vector<LedgerRow> rows = NextRows();
      isWritten = rows.empty() || store.WriteAhead(rows, &error);
    }
  };
  if (!household_.keeper.Call(write, &unreached)) error = unreached;
  if (!isWritten) return RestoreResult{AdminStatus::StoreFailed, error, {}};
  return std::nullopt;
}

void Household::Restore::Booked(const QString& user, const QString& identifier, const QDate& day,
                                std::int64_t minutes) {
  const Name name(user, identifier);
  const bool isCompared = phase_ == Phase::Finishing || (entered_ && name <= *entered_);
  if (isCompared) bookedMeanwhile_[{name, day}] += minutes;
}

std::vector<LedgerRow> Household::Restore::NextRows() {
  std::vector<LedgerRow> rows;
  std::size_t compared = 0;
  while (rows.size() < kRowsInStep && compared < kDaysInStep) {
    if (nextDifference_ < differences_.size()) {
      const auto& [day, used] = differences_[nextDifference_++];
      rows.push_back(RowOf(*entered_, day, used));
      continue;
    }
    const std::optional<std::size_t> days = EnterNextName();
    if (!days) {
      phase_ = Phase::Finishing;
      break;
    }
    compared += *days;
  }
  return rows;
}

std::optional<std::size_t> Household::Restore::EnterNextName() {
  const auto nextIn = [this](const std::map<Name, UsageDays>& usage) {
    return entered_ ? usage.upper_bound(*entered_) : usage.begin();
  };
  const auto old = nextIn(household_.usage);
  const auto wanted = nextIn(usage_);
  const bool hasOld = old != household_.usage.end();
  const bool hasWanted = wanted != usage_.end();
  if (!hasOld && !hasWanted) return std::nullopt;
  entered_ = !hasWanted || (hasOld && old->first < wanted->first) ? old->first : wanted->first;
  const UsageDays none;
  const UsageDays& before = hasOld && old->first == *entered_ ? old->second : none;
  const UsageDays& after = hasWanted && wanted->first == *entered_ ? wanted->second : none;
  differences_ = DifferencesOf(before, after);
  nextDifference_ = 0;
  return before.size() + after.size();
}

LedgerRow Household::Restore::RowOf(const Name& name, const QDate& day, std::int64_t used) const {
  const Account* account = household_.Find(name.first, name.second);
  LedgerRow row;
  row.time = household_.clocks.now();
  row.day = day;
  row.user = name.first;
  row.identifier = name.second;
  row.source = QLatin1String(kSource);
  row.credit = account ? account->state.credit : 0;
  row.used = used;
  row.actor = actor_.name;
  row.reason = QLatin1String(kReason);
  return row;
}

std::vector<LimitsEntry> Household::Restore::NotInBackup() const {
  std::vector<LimitsEntry> entries;
  for (const auto& [user, accounts] : household_.users) {
    for (const auto& [identifier, account] : accounts) {
      if (limits_.count({user, identifier}) == 0) {
        entries.push_back(EntryOf(user, identifier, account));
      }
    }
  }
  return entries;
}

StoreChange Household::Restore::Removal(const LimitsEntry& entry) const {
  const QDateTime now = household_.clocks.now();
  LimitsEntry without = entry;
  without.credit = 0;
  StoreChange change = Removed(entry);
  if (entry.credit != 0) change.ledger = RestoreRow(actor_, now, without, entry.credit);
  const Account* account = household_.Find(entry.user, entry.identifier);
  change.audit = Audited(actor_, now, kSource, entry, AuditText(*account), QString());
  return change;
}

StoreChange Household::Restore::Setting(const LimitsEntry& entry, const Account* before,
                                        const Account& after) const {
  const QDateTime now = household_.clocks.now();
  const std::int64_t creditBefore = before ? before->state.credit : 0;
  StoreChange change = Changed(entry, after);
  if (entry.credit != creditBefore) change.ledger = RestoreRow(actor_, now, entry, creditBefore);
  change.audit = Audited(actor_, now, kSource, entry, before ? AuditText(*before) : QString(),
                         AuditText(after));
  return change;
}

RestoreResult Household::Restore::Finish() {
  household_.CatchUp();
  RestoreResult result;
  std::vector<StoreChange> changes;
  std::map<Name, Account> accounts;
  const std::vector<LimitsEntry> removed = NotInBackup();
  for (const LimitsEntry& entry : removed) {
    Count(Fate::Removed, &result.counts);
    changes.push_back(Removal(entry));
  }
  for (const auto& [name, wanted] : limits_) {
    const Account* before = household_.Find(name.first, name.second);
    const Fate fate = FateOf(before, wanted);
    Count(fate, &result.counts);
    if (fate == Fate::Same) continue;
    const Account after = Applied(before ? *before : household_.NewAccount(name), !before,
                                  {wanted.limits, wanted.credit, wanted.options});
    changes.push_back(Setting(EntryOf(name.first, name.second, after), before, after));
    accounts.emplace(name, after);
  }
  for (const auto& [booked, minutes] : bookedMeanwhile_) {
    StoreChange correction;
    correction.ledger = RowOf(booked.first, booked.second, -minutes);
    changes.push_back(std::move(correction));
  }
  StoreChange summary;
  summary.audit = Audited(actor_, household_.clocks.now(), kSource, LimitsEntry(), QString(),
                          SummaryOf(result.counts));
  changes.push_back(std::move(summary));

  ApplyResult applied;
  const auto apply = [&](Store& store) {
    applied = store.ApplyLast(changes, household_.clocks.bootId);
  };
  if (!household_.keeper.Call(apply, &result.message)) {
    return {AdminStatus::StoreFailed, result.message, {}};
  }
  if (applied.status != ApplyStatus::Done) return {AdminStatus::StoreFailed, applied.error, {}};
  household_.Log(
      {"restore", LogPriority::Notice, QStringLiteral("%1 restored a backup").arg(actor_.name)});
  for (const StoreChange& change : changes) household_.Count(change);
  for (const LimitsEntry& entry : removed) household_.Forget({entry.user, entry.identifier});
  household_.ForgetHanded();
  for (auto& [name, account] : accounts) {
    household_.users[name.first][name.second] = std::move(account);
    household_.TopUpsChanged(name);
  }
  household_.usage = std::move(usage_);
  if (household_.keeper.IsShared()) household_.keeper.LoadAll();
  return result;
}

Backup Household::MakeBackup() const {
  Backup backup;
  for (const auto& [user, accounts] : impl_->users) {
    for (const auto& [identifier, account] : accounts) {
      backup.limits.push_back(EntryOf(user, identifier, account));
    }
  }
  for (const auto& [name, days] : impl_->usage) {
    backup.usage.push_back({name.first, name.second, days});
  }
  return backup;
}

RestoreCounts Household::Compare(const Backup& backup) const {
  RestoreCounts counts;
  for (const auto& [user, accounts] : impl_->users) {
    counts.removed += static_cast<int>(accounts.size());
  }
  for (const LimitsEntry& wanted : backup.limits) {
    const Fate fate = FateOf(impl_->Find(wanted.user, wanted.identifier), wanted);
    Count(fate, &counts);
    if (fate != Fate::Added) --counts.removed;
  }
  return counts;
}

std::unique_ptr<Household::Restore> Household::BeginRestore(const Actor& actor, Backup backup) {
  if (impl_->restoring) return nullptr;
  return std::make_unique<Restore>(*impl_, actor, std::move(backup));
}

}  // namespace vardell::server
