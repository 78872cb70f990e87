#include "server/HouseholdImpl.h"

#include "Common Sources/Caps.h"

namespace vardell::server {
namespace {

constexpr std::chrono::milliseconds kTimeBetweenTries = std::chrono::seconds(1);

}  // namespace

LimitsEntry EntryOf(const QString& user, const QString& identifier, const Account& account) {
  return {user,           identifier, account.limits, account.state.credit, account.revision,
          account.options};
}

Household::Impl::Impl(std::unique_ptr<Store> itsStore, Clocks itsClocks, HouseholdHooks itsHooks)
    : store(std::move(itsStore)), clocks(std::move(itsClocks)), hooks(std::move(itsHooks)) {}

void Household::Impl::Load() {
  const StoreContents contents = store->Load(clocks.bootId);
  for (const LimitsEntry& entry : contents.limits) {
    Account& account = users[entry.user][entry.identifier];
    account.limits = entry.limits;
    account.revision = entry.revision;
    account.state.enabled = entry.limits.enabled != 0;
    account.options = entry.options;
  }
  for (const TopUpRow& row : contents.topUps) {
    Account* account = Find(row.user, row.identifier);
    if (account) account->topUps = row.memory;
  }
  for (const LimitsEntry& entry : contents.limits) TopUpsChanged({entry.user, entry.identifier});
  for (const RemovedLimits& limits : contents.removed) {
    removedRevisions[{limits.user, limits.identifier}] = limits.revision;
  }
  for (const CreditRow& credit : contents.credit) {
    Account* account = Find(credit.user, credit.identifier);
    if (!account) continue;
    account->state.credit = credit.minutes;
    account->state.spent = credit.spent;
  }
  for (const LaneRow& lane : contents.lanes) {
    Account* account = Find(lane.user, lane.identifier);
    if (account) account->lanes[lane.host].state.paidUntil = lane.paidUntil;
  }
  for (const UsageRow& row : contents.usage) {
    usage[{row.user, row.identifier}][row.day] = row.minutes;
  }
}

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
  if (waiting.size() < kMaxUnwrittenChanges) return true;
  (void)WriteWaiting();
  const bool hasRoom = waiting.size() < kMaxUnwrittenChanges;
  if (!hasRoom && !fullSaid) Log(QStringLiteral("too much waits for the disk: nothing is counted"));
  fullSaid = !hasRoom;
  return hasRoom;
}

void Household::Impl::Write(StoreChange change) {
  waiting.push_back(std::move(change));
  (void)WriteWaiting();
}

bool Household::Impl::WriteWaiting() {
  if (waiting.empty()) return true;
  const std::chrono::milliseconds now = clocks.sinceBoot();
  if (diskFails && now - lastTry < kTimeBetweenTries) return false;
  lastTry = now;
  const ApplyResult result = store->Apply(waiting, clocks.bootId, 0);
  const bool written = result.status == ApplyStatus::Done;
  if (written) waiting.clear();
  if (!written && !diskFails) {
    Log(result.error + QStringLiteral("; agents are answered from memory until then"));
  }
  if (written && diskFails) Log(QStringLiteral("the store takes changes again, all is written"));
  diskFails = !written;
  return written;
}

bool Household::Impl::WriteFirst(QString* error) {
  if (WriteWaiting()) return true;
  *error = QStringLiteral("the store cannot be written at the moment; see the Server's log");
  return false;
}

bool Household::Impl::WriteNow(const std::vector<StoreChange>& changes, QString* error) {
  if (!WriteFirst(error)) return false;
  const ApplyResult result = store->Apply(changes, clocks.bootId, 0);
  if (result.status != ApplyStatus::Done) *error = result.error;
  return result.status == ApplyStatus::Done;
}

void Household::Impl::Log(const QString& line) const {
  if (hooks.log) hooks.log(line);
}

Household::Household(std::unique_ptr<Store> store, Clocks clocks, HouseholdHooks hooks)
    : impl_(std::make_unique<Impl>(std::move(store), std::move(clocks), std::move(hooks))) {
  impl_->Load();
}

Household::~Household() {
  (void)impl_->WriteWaiting();
}

void Household::WriteWhatWaits() {
  (void)impl_->WriteWaiting();
}

}  // namespace vardell::server
