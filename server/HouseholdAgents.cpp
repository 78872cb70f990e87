// The half of the Household that answers agents.
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <limits>

#include "Common Sources/Caps.h"
#include "Common Sources/PropertyList.h"
#include "limits/LimitsDictionary.h"
#include "limits/UsageTotals.h"
#include "link/Frame.h"
#include "server/HouseholdImpl.h"
#include "server/HouseholdRestore.h"
#include "server/LimitsKeys.h"

namespace vardell::server {
namespace {

// A report that books nothing is a row all the same, but not more often than this for each lane:
// whoever sends many must not fill the disk.
constexpr EnforcementTime kTimeBetweenIdleRows = std::chrono::seconds(30);

std::optional<QString> NameFromAccountDatabase(std::uint32_t uid) {
  QByteArray buffer(64 << 10, 0);
  passwd entry{};
  passwd* found = nullptr;
  const int error =
      getpwuid_r(uid, &entry, buffer.data(), static_cast<std::size_t>(buffer.size()), &found);
  if (error != 0 || !found) return std::nullopt;
  return QString::fromUtf8(found->pw_name);
}

QVariantMap DictionaryOf(const QString& identifier, const LimitsRecord& record) {
  const QVariantMap all = MakeLimitsDictionary(record);
  if (!IsGlobalSettings(identifier)) return all;
  const QString quotaKeys[] = {QStringLiteral("DQ Enabled"), QStringLiteral("DQ Value")};
  QVariantMap quota;
  for (const QString& key : quotaKeys) quota.insert(key, all.value(key));
  return quota;
}

LimitsRecord With(LimitsRecord limits, std::int32_t credit) {
  limits.credit = credit;
  return limits;
}

// Where hosts share minutes, use is paid as far as any of them has paid.
LaneState StateOf(const Account& account, const Lane& lane) {
  LaneState state = lane.state;
  if (account.options.parallel == Parallel::Sum) return state;
  for (const auto& [host, other] : account.lanes) {
    state.paidUntil = std::max(state.paidUntil, other.state.paidUntil);
  }
  return state;
}

LaneRow LaneRowOf(const std::pair<QString, QString>& name, const Account& account,
                  const QString& host, EnforcementTime paidUntil) {
  const bool isShared = account.options.parallel == Parallel::Union;
  return {name.first, name.second, isShared ? QString() : host, paidUntil};
}

// The frame with another credit in it, which is all that changes from minute to minute; empty where
// it has none.
QByteArray FrameWith(const QByteArray& frame, std::int32_t credit) {
  constexpr QByteArrayView kBefore("<integer>");
  const qsizetype key = frame.indexOf("<key>Credit</key>");
  const qsizetype number = key < 0 ? -1 : frame.indexOf(kBefore, key);
  const qsizetype end = number < 0 ? -1 : frame.indexOf('<', number + kBefore.size());
  if (end < 0) return {};
  QByteArray body = frame.mid(kReplyHeaderBytes);
  const qsizetype begin = number + kBefore.size();
  body.replace(begin - kReplyHeaderBytes, end - begin, QByteArray::number(credit));
  return BuildReply(body);
}

}  // namespace

bool Household::Impl::MaySpeakFor(const AgentConnection& connection, const QString& user) {
  if (!connection.peerUid) return true;
  const std::uint32_t uid = *connection.peerUid;
  const auto known = userNames.find(uid);
  if (known != userNames.end()) return known->second == user;
  const std::optional<QString> name =
      hooks.userOfUid ? hooks.userOfUid(uid) : NameFromAccountDatabase(uid);
  if (!name) return false;
  userNames.emplace(uid, *name);
  return *name == user;
}

ConnectedAgent* Household::Impl::Speaking(const AgentConnection& connection, const QString& user) {
  if (!MaySpeakFor(connection, user)) return nullptr;
  const auto [found, isNew] = connections.try_emplace(connection.id);
  ConnectedAgent& agent = found->second;
  if (isNew) {
    agent.host = connection.host;
    agent.since = clocks.now();
  }
  if (agent.user != user) agent.fetches.Clear();
  agent.user = user;
  return &agent;
}

Household::Impl::Counting Household::Impl::Counted(const AgentConnection& connection,
                                                   const QString& user, const QString& identifier) {
  const Name name(user, identifier);
  if (IsGlobalSettings(identifier)) return {name};
  Account* account = Find(user, identifier);
  if (!account || !MaySpeakFor(connection, user)) return {name};
  const bool isHosts = account->options.scope == Scope::UserAtHost && account->state.enabled;
  return isHosts ? CountedAtHost(connection.host, name) : Counting{name, account};
}

LimitsRecord Household::Impl::LimitsToSend(const QString& identifier, const Account& account,
                                           std::int32_t credit) const {
  LimitsRecord limits = account.limits;
  limits.credit = credit;
  if (!account.options.schedule || !IsSession(identifier)) return limits;
  const TopUpMoment moment = Moment();
  return WithCurfewKeys(limits, TodaysKeys(*account.options.schedule, moment.zone, moment.now));
}

std::optional<std::int32_t> Household::Impl::AllowedMinutes(const QString& identifier,
                                                            const Account& account,
                                                            HandedAfter after) const {
  if (!account.options.schedule || IsSession(identifier)) return std::nullopt;
  const TopUpMoment moment = Moment();
  return CreditToHand(std::numeric_limits<std::int32_t>::max(), *account.options.schedule,
                      moment.zone, moment.now, after);
}

Lane& Household::Impl::LaneOf(Account& account, const Name& name, const QString& host,
                              StoreChange* change) {
  const auto found = account.lanes.find(host);
  if (found != account.lanes.end()) return found->second;
  if (account.lanes.size() >= kMaxLanesPerIdentifier) {
    const auto oldest = std::min_element(
        account.lanes.begin(), account.lanes.end(), [](const auto& one, const auto& other) {
          return one.second.state.paidUntil < other.second.state.paidUntil;
        });
    // Of hosts that share minutes none is stored.
    if (account.options.parallel == Parallel::Sum) {
      change->forgottenLane = LaneRow{name.first, name.second, oldest->first, {}};
    }
    account.lanes.erase(oldest);
  }
  return account.lanes[host];
}

void Household::Impl::TakeOver(const Booking& booking, Account& account, Lane& lane, LedgerRow row,
                               StoreChange change) {
  const AccountState before = account.state;
  const std::optional<EnforcementTime> paidBefore = StateOf(account, lane).paidUntil;
  account.state = booking.account;
  lane.state = booking.lane;
  row.used = booking.charge + (booking.grace ? 1 : 0);
  row.minutes = account.state.credit - before.credit;
  row.credit = account.state.credit;

  const bool creditChanged =
      account.state.credit != before.credit || account.state.spent != before.spent;
  if (creditChanged) {
    change.credit = {row.user, row.identifier, account.state.credit, account.state.spent};
  }
  if (lane.state.paidUntil && lane.state.paidUntil != paidBefore) {
    change.lane = LaneRowOf({row.user, row.identifier}, account, row.host, *lane.state.paidUntil);
  }
  const bool isIdle = row.used == 0 && row.minutes == 0;
  const EnforcementTime now = Now();
  const bool isRow =
      !isIdle ||
      (row.claimed && (!lane.lastIdleRow || now - *lane.lastIdleRow >= kTimeBetweenIdleRows));
  if (isIdle && isRow) lane.lastIdleRow = now;
  if (isRow) {
    row.time = clocks.now();
    change.ledger = std::move(row);
  }
  if (!change.credit && !change.lane && !change.ledger && !change.forgottenLane) return;
  if (isRow) BookUse(*change.ledger);
  Write(std::move(change), account);
}

void Household::Impl::BookUse(const LedgerRow& row) {
  if (row.used == 0) return;
  Name name(row.user, row.identifier);
  const QDate today = row.time.date();
  usage[name][today] += row.used;
  if (restoring) restoring->Booked(row.user, row.identifier, today, row.used);
  if (!keeper.IsShared()) return;
  usesUnderWay.push_back({keeper.Submitted() + 1, std::move(name), today, row.used});
}

Handed Household::Impl::CreditForFetch(const AgentConnection& connection, const QString& user,
                                       const Counting& counting) {
  Account& account = *counting.account;
  const auto known = account.lanes.find(connection.host);
  Lane passing;
  Lane& lane = known == account.lanes.end() ? passing : known->second;
  // Who was never heard of here owes nothing.
  const LaneState state = &lane == &passing ? passing.state : StateOf(account, lane);
  const HandedAfter after = state.startedSinceFetch ? HandedAfter::Start : HandedAfter::Report;
  const FetchBooking booking =
      AfterFetch(Now(), state, account.state, AllowedMinutes(counting.name.second, account, after));
  if (booking.charge == 0 || HasRoomToBook()) {
    LedgerRow row;
    row.user = counting.name.first;
    row.identifier = counting.name.second;
    row.host = connection.host;
    row.source = QStringLiteral("fetch");
    row.actor = QStringLiteral("agent of ") + user;
    row.reason = QStringLiteral("a report was lost");
    TakeOver(booking, account, lane, std::move(row), {});
  }
  return {booking.answer, booking.capped};
}

Household::Impl::Fetched Household::Impl::Fetch(const AgentConnection& connection,
                                                const QString& user, const QString& identifier) {
  const Fetched unknownLimits{nullptr, DefaultLimits()};
  ConnectedAgent* agent = Speaking(connection, user);
  if (!agent) return unknownLimits;
  const Counting counting = Counted(connection, user, identifier);
  Account* account = counting.account;
  if (counting.isDenied) {
    agent->fetches.Add({identifier, kSpentCredit, Now()});
    // What was found in the store meanwhile may be that it was removed.
    Account* shared = Find(user, identifier);
    return shared ? Fetched{shared, LimitsToSend(identifier, *shared, kSpentCredit)}
                  : unknownLimits;
  }
  if (!account) {
    agent->fetches.Add({identifier, std::nullopt, Now()});
    Account* settings = IsGlobalSettings(identifier) ? Find(user, identifier) : nullptr;
    return settings ? Fetched{settings, LimitsToSend(identifier, *settings, 0)} : unknownLimits;
  }
  const Handed handed = CreditForFetch(connection, user, counting);
  agent->handed[counting.name] = handed;
  const bool isEnabled = account->state.enabled;
  agent->fetches.Add({identifier, isEnabled ? std::optional(handed.credit) : std::nullopt, Now()});
  return {account, LimitsToSend(identifier, *account, handed.credit)};
}

const QByteArray& Household::Impl::Encoded(const QString& identifier, const Fetched& fetched) {
  EncodedLimits& none = IsGlobalSettings(identifier) ? unknownSettings : unknown;
  EncodedLimits& encoded = fetched.account ? fetched.account->encoded : none;
  if (!encoded.frame.isEmpty() && encoded.limits == fetched.limits) return encoded.frame;
  const bool hasNewCredit = With(encoded.limits, fetched.limits.credit) == fetched.limits;
  encoded.limits = fetched.limits;
  if (hasNewCredit) encoded.frame = FrameWith(encoded.frame, fetched.limits.credit);
  if (!encoded.frame.isEmpty() && hasNewCredit) return encoded.frame;
  encoded.frame =
      BuildReply(WritePropertyListXml(DictionaryOf(identifier, fetched.limits)).value_or(""));
  return encoded.frame;
}

QVariantMap Household::FetchLimits(const AgentConnection& connection, const QString& user,
                                   const QString& identifier) {
  return DictionaryOf(identifier, impl_->Fetch(connection, user, identifier).limits);
}

FetchReply Household::AnswerFetch(const AgentConnection& connection, const QString& user,
                                  const QString& identifier) {
  const Impl::Fetched fetched = impl_->Fetch(connection, user, identifier);
  return {impl_->Encoded(identifier, fetched), fetched.account ? fetched.account->lastChange : 0};
}

void Household::ApplicationStarted(const AgentConnection& connection, const QString& user,
                                   const QString& identifier) {
  if (!impl_->Speaking(connection, user)) return;
  const auto [name, account, isDenied] = impl_->Counted(connection, user, identifier);
  if (!account || !impl_->HasRoomToBook()) return;
  StoreChange change;
  Lane& lane = impl_->LaneOf(*account, name, connection.host, &change);
  const LaneState before = StateOf(*account, lane);
  lane.state = AfterStart(impl_->Now(), before);
  if (lane.state.paidUntil == before.paidUntil) return;
  change.lane = LaneRowOf(name, *account, connection.host, *lane.state.paidUntil);
  impl_->Write(std::move(change), *account);
}

void Household::CreditReport(const AgentConnection& connection, const QString& user,
                             const QString& identifier, std::int32_t claimed) {
  const ConnectedAgent* agent = impl_->Speaking(connection, user);
  const auto [name, account, isDenied] = impl_->Counted(connection, user, identifier);
  if (!agent || !account || !impl_->HasRoomToBook()) return;
  StoreChange change;
  Lane& lane = impl_->LaneOf(*account, name, connection.host, &change);
  const auto last = agent->handed.find(name);
  const std::optional<Handed> handed =
      last == agent->handed.end() ? std::nullopt : std::optional(last->second);
  const Booking booking =
      AfterReport(impl_->Now(), StateOf(*account, lane), account->state, handed, claimed);
  LedgerRow row;
  row.user = name.first;
  row.identifier = name.second;
  row.host = connection.host;
  row.source = booking.grace ? QStringLiteral("grace") : QStringLiteral("report");
  row.claimed = claimed;
  row.actor = QStringLiteral("agent of ") + user;
  impl_->TakeOver(booking, *account, lane, std::move(row), std::move(change));
}

void Household::ConnectionOpened(const AgentConnection& connection) {
  ConnectedAgent& agent = impl_->connections[connection.id];
  agent.host = connection.host;
  agent.since = impl_->clocks.now();
}

void Household::ConnectionClosed(std::uint64_t connectionId) {
  impl_->connections.erase(connectionId);
}

QVariantMap Household::LimitsOfUser(const AgentConnection& connection, const QString& user) const {
  QVariantMap answer;
  const auto accounts = impl_->users.find(user);
  if (accounts == impl_->users.end() || !impl_->MaySpeakFor(connection, user)) return answer;
  for (const auto& [identifier, account] : accounts->second) {
    const auto own = impl_->NameAtHost(connection.host, {user, identifier});
    const Account& shown = *impl_->Find(own.first, own.second);
    const std::int32_t credit = CreditToSend(shown.state);
    answer.insert(identifier,
                  DictionaryOf(identifier, impl_->LimitsToSend(identifier, shown, credit)));
  }
  return answer;
}

QVariantMap Household::UsageByDay(const AgentConnection& connection, const QString& user,
                                  const QString& identifier) const {
  QVariantMap answer;
  const auto days = impl_->usage.find(impl_->NameAtHost(connection.host, {user, identifier}));
  if (days == impl_->usage.end() || !impl_->MaySpeakFor(connection, user)) return answer;
  for (const auto& [day, minutes] : days->second) {
    answer.insert(UsageDayKey(day), qlonglong{minutes});
  }
  return answer;
}

}  // namespace vardell::server
