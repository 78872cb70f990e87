#include "server/HouseholdImpl.h"

#include <algorithm>

#include "Common Sources/Caps.h"

namespace vardell::server {
namespace {

// Agents wait as long.
constexpr std::chrono::milliseconds kLongestSettling{500};
constexpr std::chrono::seconds kLongestDeciding{1};
constexpr int kMostAttempts = 5;

}  // namespace

LimitsEntry EntryOf(const QString& user, const QString& identifier, const Account& account) {
  return {user,           identifier, account.limits, account.state.credit, account.revision,
          account.options};
}

Household::Impl::Impl(std::unique_ptr<Store> store, Clocks itsClocks, HouseholdHooks itsHooks,
                      const QString& spool)
    : clocks(std::move(itsClocks)),
      hooks(std::move(itsHooks)),
      keeper(std::move(store), {spool, clocks.bootId, hooks.storeHasNews}) {}

Account* Household::Impl::Find(const QString& user, const QString& identifier) {
  const auto accounts = users.find(user);
  if (accounts == users.end()) return nullptr;
  const auto account = accounts->second.find(identifier);
  return account == accounts->second.end() ? nullptr : &account->second;
}

EnforcementTime Household::Impl::Now() const {
  return ToEnforcementTime(clocks.sinceBoot(), clocks.second);
}

bool Household::Impl::HasRoomToBook() {
  const bool hasRoom = keeper.Submitted() - keeper.Stored() < kMaxUnwrittenChanges;
  if (!hasRoom && !fullSaid) Log(QStringLiteral("too much waits for the disk: nothing is counted"));
  fullSaid = !hasRoom;
  return hasRoom;
}

void Household::Impl::Write(StoreChange change, Account& account) {
  Count(change);
  account.lastChange = keeper.Submit(std::move(change));
}

void Household::Impl::CatchUp() {
  (void)keeper.Settle(kLongestSettling);
  (void)TakeStored();
}

ApplyResult Household::Impl::WriteNow(const std::vector<StoreChange>& changes) {
  StoreThread::News before;
  ApplyResult result = keeper.ApplyNow(changes, &before);
  TakeNews(before);
  if (result.status == ApplyStatus::Done) {
    for (const StoreChange& change : changes) Count(change);
  }
  return result;
}

void Household::Impl::TakeVersions(const ApplyResult& result) {
  for (const CreditRow& row : result.accounts) {
    Account* account = Find(row.user, row.identifier);
    if (account) account->version = row.version;
  }
}

AdminResult Household::Impl::Decide(const std::function<std::optional<AdminResult>()>& attempt) {
  const auto end = std::chrono::steady_clock::now() + kLongestDeciding;
  for (int i = 0; i < kMostAttempts && (i == 0 || std::chrono::steady_clock::now() < end); ++i) {
    CatchUp();
    if (const auto result = attempt()) return *result;
  }
  return {AdminStatus::StoreFailed,
          {},
          QStringLiteral("other Servers change the same at the same time; try again"),
          std::nullopt};
}

void Household::Impl::Log(const LogEvent& event) const {
  if (hooks.log) hooks.log(event);
}

void Household::Impl::Count(const StoreChange& change) {
  if (!change.ledger) return;
  const LedgerRow& row = *change.ledger;
  LedgerTotals& totals = ledgerTotals[row.source];
  ++totals.rows;
  (row.minutes > 0 ? totals.added : totals.taken) +=
      static_cast<std::uint64_t>(row.minutes > 0 ? row.minutes : -row.minutes);
  totals.used += static_cast<std::uint64_t>(std::max<std::int64_t>(row.used, 0));
}

Household::Household(std::unique_ptr<Store> store, Clocks clocks, HouseholdHooks hooks,
                     const QString& spool)
    : impl_(std::make_unique<Impl>(std::move(store), std::move(clocks), std::move(hooks), spool)) {
  const StoreContents contents = impl_->keeper.Load();
  impl_->TakeEverything(contents, 0);
  for (const LaneRow& lane : contents.lanes) {
    Account* account = impl_->Find(lane.user, lane.identifier);
    if (account) account->lanes[lane.host].state.paidUntil = lane.paidUntil;
  }
}

Household::~Household() = default;

std::uint64_t Household::TakeStored() {
  return impl_->TakeStored();
}

std::uint64_t Household::LastChange() const {
  return impl_->keeper.Submitted();
}

void Household::Settle() {
  impl_->CatchUp();
}

}  // namespace vardell::server
