// The part of the Household that tops credit up.
#include "server/HouseholdImpl.h"
#include "server/TopUps.h"

namespace vardell::server {
namespace {

// Of one transaction: some twenty milliseconds.
constexpr std::size_t kLimitsAtOnce = 500;
constexpr std::size_t kMaxTopUpLines = 10;
constexpr std::int64_t kAtOnce = 0;
// What clocks drift apart in a while is no jump.
constexpr std::chrono::milliseconds kJump = std::chrono::minutes(1);

LedgerRow RowOf(const std::pair<QString, QString>& name, const DueTopUp& due,
                const QDateTime& now) {
  LedgerRow row;
  row.time = now;
  row.user = name.first;
  row.identifier = name.second;
  row.source = QStringLiteral("top-up");
  row.minutes = due.change;
  row.credit = due.credit;
  row.actor = QStringLiteral("server");
  row.reason = QStringLiteral("top-up of ") + due.date.toString(Qt::ISODate);
  return row;
}

void AppendChanges(const std::pair<QString, QString>& name, const TopUpOutcome& outcome,
                   const AccountState& after, std::uint64_t version, const QDateTime& now,
                   std::vector<StoreChange>* changes) {
  for (const DueTopUp& due : outcome.due) {
    StoreChange& booked = changes->emplace_back();
    booked.basedOn = version;
    booked.ledger = RowOf(name, due, now);
  }
  StoreChange& state = changes->emplace_back();
  state.basedOn = version;
  state.topUp = {name.first, name.second, outcome.nextTime, outcome.memory};
  if (outcome.due.empty()) return;
  state.credit = {name.first, name.second, after.credit, after.spent};
}

// A line for each, or one for many.
std::vector<LogEvent> EventsOf(const std::vector<StoreChange>& changes) {
  std::vector<LogEvent> events;
  for (const StoreChange& change : changes) {
    if (!change.ledger) continue;
    const LedgerRow& row = *change.ledger;
    LogEvent event("top-up", LogPriority::Info,
                   QStringLiteral("%1 for %2, %3: %4 minutes are left")
                       .arg(row.reason, row.user, row.identifier, QString::number(row.credit)));
    event.user = row.user;
    event.identifier = row.identifier;
    events.push_back(event);
  }
  if (events.size() <= kMaxTopUpLines) return events;
  return {{"top-up", LogPriority::Info, QStringLiteral("%1 top-ups").arg(events.size())}};
}

}  // namespace

Household::Impl::TopUpMoment Household::Impl::Moment() const {
  return {clocks.now().toMSecsSinceEpoch(), clocks.zone ? clocks.zone() : QTimeZone::utc()};
}

std::optional<Household::Impl::TopUpMoment> Household::Impl::MomentOfTopUps() const {
  if (!IsClockBelieved(clocks.isSet && clocks.isSet(), clocks.sinceBoot())) return std::nullopt;
  return Moment();
}

void Household::Impl::TopUpsChanged(const Name& name) {
  const Account* account = Find(name.first, name.second);
  const bool hasNone =
      !account || (account->limits.nextTopUpTime == 0 && account->topUps == TopUpMemory());
  hasNone ? topUps.Remove(name) : topUps.Set(name, kAtOnce);
}

void Household::Impl::NoticeJump(const TopUpMoment& moment) {
  const auto offset = std::chrono::milliseconds(moment.now) - clocks.sinceBoot();
  const bool isSame = wallOffset && std::chrono::abs(offset - *wallOffset) <= kJump;
  if (isSame && wallZone == moment.zone) return;
  topUps.SetAll(kAtOnce);
  wallOffset = offset;
  wallZone = moment.zone;
}

ApplyStatus Household::Impl::TopUp(const std::vector<Name>& names, const TopUpMoment& moment) {
  const QDateTime now = clocks.now();
  std::vector<StoreChange> changes;
  std::vector<std::pair<Name, Account>> decided;
  for (const Name& name : names) {
    const Account* account = Find(name.first, name.second);
    if (!account) continue;
    const TopUpOutcome outcome =
        DecideTopUps(account->limits, account->options, account->topUps, account->state.credit,
                     moment.zone, {moment.now, true});
    Account after = *account;
    after.limits.nextTopUpTime = outcome.nextTime;
    after.topUps = outcome.memory;
    if (!outcome.due.empty()) after.state = WithCredit(account->state, outcome.credit);
    const bool isAsBefore =
        outcome.due.empty() && after.topUps == account->topUps && after.limits == account->limits;
    if (!isAsBefore) AppendChanges(name, outcome, after.state, after.version, now, &changes);
    decided.emplace_back(name, std::move(after));
  }
  const ApplyResult applied = changes.empty() ? ApplyResult() : WriteNow(changes);
  const bool isAway = applied.status == ApplyStatus::Failed;
  if (isAway && !topUpsWait) Log(applied.error + QStringLiteral("; top-ups wait until then"));
  topUpsWait = isAway;
  if (applied.status != ApplyStatus::Done) return applied.status;
  for (const LogEvent& event : EventsOf(changes)) Log(event);
  for (auto& [name, account] : decided) {
    const auto next = TopUpInstant(account.limits.nextTopUpTime);
    next ? topUps.Set(name, *next) : topUps.Remove(name);
    users[name.first][name.second] = std::move(account);
  }
  TakeVersions(applied);
  return ApplyStatus::Done;
}

bool Household::TopUpDue() {
  const std::optional<Impl::TopUpMoment> moment = impl_->MomentOfTopUps();
  if (!moment) return false;
  impl_->NoticeJump(*moment);
  const auto due = [&] { return impl_->topUps.Due(moment->now, kLimitsAtOnce); };
  if (due().empty()) return false;
  impl_->CatchUp();
  const std::vector<Impl::Name> names = due();
  const ApplyStatus status = impl_->TopUp(names, *moment);
  return status == ApplyStatus::Conflict ||
         (status == ApplyStatus::Done && names.size() == kLimitsAtOnce);
}

}  // namespace vardell::server
