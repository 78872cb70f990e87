#include "tests/server/HouseholdModel.h"

#include <QDateTime>
#include <algorithm>

namespace vardell::test {
namespace {

constexpr std::int64_t kSentWhereUnlimited = 59999;

std::int64_t Real(std::int64_t credit) {
  return credit == kSpent ? kSpent - 1 : credit;
}

void Become(ModelAccount& account, std::int64_t credit) {
  account.credit = Real(credit);
  if (account.credit > 0) account.spent = false;
}

std::int64_t MinutesOf(const ModelKeys& keys, QDate date) {
  const bool isWeekEnd = date.dayOfWeek() == Qt::Saturday || date.dayOfWeek() == Qt::Sunday;
  if (isWeekEnd && keys.weekEndValue > 0 && keys.weekEndUnit > 0) {
    return keys.weekEndValue * keys.weekEndUnit;
  }
  return keys.value * keys.unit;
}

}  // namespace

const ModelAccount* Model::Find(const LimitName& name) const {
  const auto found = accounts_.find(name);
  return found == accounts_.end() ? nullptr : &found->second;
}

ModelAccount* Model::Known(const LimitName& name) {
  return const_cast<ModelAccount*>(Find(name));
}

// --- Hosts with credit of their own.

LimitName Model::NameAt(const QString& lane, const LimitName& name) const {
  const ModelAccount* account = Find(name);
  if (!account || !account->options.perHost || !account->keys.enabled) return name;
  return {name.first + QLatin1Char('@') + lane.section(QLatin1Char('/'), 1), name.second};
}

std::vector<LimitName> Model::Hosts(const LimitName& name) const {
  std::vector<LimitName> hosts;
  for (const auto& [other, account] : accounts_) {
    const bool isUsers = other.first.startsWith(name.first + QLatin1Char('@'));
    if (isUsers && other.second == name.second) hosts.push_back(other);
  }
  return hosts;
}

ModelAccount* Model::Counted(const QString& lane, LimitName* name) {
  ModelAccount* shared = Known(*name);
  *name = NameAt(lane, *name);
  ModelAccount* own = Known(*name);
  if (own || !shared || !hasDisk) return own;
  ModelOptions options = shared->options;
  options.perHost = false;
  SetLimits(*name, shared->keys, options, shared->credit);
  own = Known(*name);
  own->had = shared->had;
  own->since = shared->since;
  own->planned = shared->planned;
  own->wall = shared->wall;
  return own;
}

// --- Agents.

std::optional<std::int64_t> Model::Paid(const ModelAccount& account, const QString& lane) const {
  std::optional<std::int64_t> paid;
  const QString server = lane.section(QLatin1Char('/'), 0, 0) + QLatin1Char('/');
  for (const auto& [key, one] : account.lanes) {
    const bool counts = account.options.unionOfHosts ? key.startsWith(server) : key == lane;
    if (counts) paid = std::max(paid, one.paidUntil);
  }
  return paid;
}

std::int64_t Model::Due(std::optional<std::int64_t> paid) const {
  const std::int64_t open = boot + 65'000 - paid.value_or(boot);
  return open < 0 ? 0 : open / kMinute;
}

void Model::Use(const LimitName& name, std::int64_t minutes) {
  used_[name][DateAt(wall)] += minutes;
}

void Model::Charge(const LimitName& name, ModelAccount& account, const QString& lane,
                   std::int64_t minutes) {
  account.lanes[lane].paidUntil = Paid(account, lane).value_or(boot) + minutes * kMinute;
  Use(name, minutes);
  if (account.options.unlimited) return;
  Become(account, std::max<std::int64_t>(0, account.credit - minutes));
}

void Model::Start(const QString& key, const LimitName& asked) {
  LimitName name = asked;
  ModelAccount* account = Counted(key, &name);
  if (!account) return;
  const auto paid = Paid(*account, key);
  ModelLane& lane = account->lanes[key];
  lane.paidUntil = !paid || boot - *paid > kMinute ? boot : *paid;
  lane.heard = true;
  lane.started = true;
}

void Model::Report(std::uint64_t connection, const QString& key, const LimitName& asked,
                   std::int64_t claimed) {
  LimitName name = asked;
  ModelAccount* account = Counted(key, &name);
  if (!account) return;
  account->lanes[key].heard = true;
  if (!account->keys.enabled) return;
  const auto handed = handed_.find({connection, name});
  const bool isHanded = handed != handed_.end();
  std::int64_t wanted = 1;
  // Where nothing was handed, there is nothing to be used of it.
  if (isHanded) wanted = handed->second == kSpent ? 0 : handed->second;
  if (isHanded && wanted > 0) wanted -= claimed;
  const auto paid = Paid(*account, key);
  const std::int64_t charge = std::clamp<std::int64_t>(wanted, 0, Due(paid));
  const bool isGrace = isHanded && handed->second == 0 && claimed == 0 && account->credit == 0 &&
                       !account->spent && !account->options.unlimited;
  if (charge > 0) {
    Charge(name, *account, key, charge);
  } else if (isGrace && Due(paid) > 0) {
    account->lanes[key].paidUntil = paid.value_or(boot) + kMinute;
    Use(name, 1);
    account->spent = true;
  }
  if (claimed < 0 && account->credit == 0 && !account->options.unlimited) account->spent = true;
}

std::optional<std::int64_t> Model::Fetch(std::uint64_t connection, const QString& key,
                                         const LimitName& asked) {
  if (!Find(asked)) return std::nullopt;
  LimitName name = asked;
  ModelAccount* account = Counted(key, &name);
  if (!account) return kSpent;
  const auto known = account->lanes.find(key);
  const ModelLane before = known == account->lanes.end() ? ModelLane() : known->second;
  const auto paid = Paid(*account, key);
  const bool isHeardOf = known != account->lanes.end() && paid;
  if (isHeardOf && account->keys.enabled && !before.heard && Due(paid) > 0) {
    Charge(name, *account, key, 1);
  }
  if (known != account->lanes.end()) known->second = {known->second.paidUntil};
  std::int64_t answer = Real(std::min(account->credit, kMost));
  if (before.started && account->spent && account->credit == 0) answer = kSpent;
  if (account->options.unlimited) answer = kSentWhereUnlimited;
  handed_[{connection, name}] = answer;
  return answer;
}

void Model::Close(std::uint64_t connection) {
  std::erase_if(handed_, [&](const auto& one) { return one.first.first == connection; });
}

// --- The Server.

void Model::Restarted(const QString& server) {
  for (auto& [name, account] : accounts_) {
    const auto common = Paid(account, server);
    const bool isCommon = account.options.unionOfHosts;
    std::erase_if(account.lanes,
                  [&](const auto& one) { return isCommon && one.first.startsWith(server); });
    if (isCommon && common) account.lanes[server].paidUntil = common;
    for (auto& [key, lane] : account.lanes) {
      if (key.startsWith(server)) lane = {lane.paidUntil};
    }
  }
}

void Model::Rebooted(const QString& server) {
  for (auto& [name, account] : accounts_) {
    std::erase_if(account.lanes, [&](const auto& one) { return one.first.startsWith(server); });
  }
}

// --- Top-ups.

QDate Model::DateAt(std::int64_t instant) const {
  return QDateTime::fromMSecsSinceEpoch(instant, zone_).date();
}

std::int64_t Model::Instant(QDate date, int wallTime) {
  const auto known = instants_.find({date, wallTime});
  if (known != instants_.end()) return known->second;
  const QTime time = QTime::fromMSecsSinceStartOfDay(wallTime);
  std::int64_t at = QDateTime(date, time, Qt::UTC).toMSecsSinceEpoch() - 15 * kHour;
  const auto shows = [&] {
    const QDateTime local = QDateTime::fromMSecsSinceEpoch(at, zone_);
    return local.date() > date || (local.date() == date && local.time() >= time);
  };
  while (!shows()) at += 2 * kHour;
  for (at -= 3 * kHour; !shows();) at += 15 * kMinute;
  return instants_[{date, wallTime}] = at;
}

void Model::Plan(ModelAccount& account) {
  QDate date = DateAt(wall).addDays(-1);
  while (!Exists(date) || Instant(date, account.wall) <= wall) date = date.addDays(1);
  account.keys.next = account.planned = Instant(date, account.wall);
}

std::vector<QDate> Model::DueDates(const ModelAccount& account) {
  std::vector<QDate> dates;
  const QDate today = DateAt(wall);
  if (account.had.count(today) != 0) return dates;
  const bool hasCome = Instant(today, account.wall) <= wall;
  if (hasCome) dates.push_back(today);
  if (hasCome && !account.options.rollOver) return dates;
  for (int back = 1; back <= 62; ++back) {
    const QDate date = today.addDays(-back);
    if (!Exists(date)) continue;
    if (Instant(date, account.wall) <= *account.since) break;
    if (account.had.count(date) == 0) dates.insert(dates.begin(), date);
    if (!account.options.rollOver) break;
  }
  return dates;
}

void Model::TopUp(const LimitName& name) {
  ModelAccount& account = *Known(name);
  ModelKeys& keys = account.keys;
  if (keys.next != account.planned) {
    account.planned = keys.next;
    account.since.reset();
    account.wall = QDateTime::fromMSecsSinceEpoch(keys.next, zone_).time().msecsSinceStartOfDay();
  }
  if (keys.value == 0 || keys.next == 0) account.since.reset();
  if (keys.next == 0) return;
  if (!account.since) {
    const bool hasCome = keys.next <= wall;
    const bool isFar = keys.next > wall + 25 * kHour;
    if (isFar || (hasCome && keys.value == 0)) Plan(account);
    if (!hasCome || keys.value == 0) return;
    account.since = Instant(DateAt(keys.next), account.wall) - 1;
  }
  const std::vector<QDate> dates = DueDates(account);
  for (const QDate date : dates) {
    std::int64_t after = std::min(MinutesOf(keys, date), kMost);
    if (account.options.rollOver) {
      const std::int64_t most = account.options.cap.value_or(kMost);
      after = std::max(account.credit, std::min(account.credit + after, most));
    }
    after = Real(after);
    if (after == account.credit && date != dates.back()) continue;  // nothing was given
    account.had.insert(date);
    Become(account, after);
  }
  account.since = wall;
  Plan(account);
}

void Model::TopUpAll() {
  for (const auto& [name, account] : accounts_) TopUp(name);
}

// --- Administrators.

void Model::SetLimits(const LimitName& name, const ModelKeys& keys, const ModelOptions& options,
                      std::optional<std::int64_t> credit) {
  const bool isNew = accounts_.count(name) == 0;
  ModelAccount& account = accounts_[name];
  if (isNew) account.revision = removed_[name];
  if (isNew || account.keys != keys || account.options != options) ++account.revision;
  account.keys = keys;
  account.options = options;
  if (credit) Become(account, *credit);
}

void Model::Change(const LimitName& name, const ModelKeys& keys, const ModelOptions& options,
                   std::optional<std::int64_t> credit) {
  const ModelAccount* before = Find(name);
  const bool hadHosts = before && before->options.perHost;
  const bool isNewTime = before && before->keys.next != keys.next;
  SetLimits(name, keys, options, credit);
  for (const LimitName& host : hadHosts ? Hosts(name) : std::vector<LimitName>()) {
    ModelKeys its = keys;
    if (!isNewTime) its.next = Find(host)->keys.next;
    ModelOptions itsOptions = options;
    itsOptions.perHost = false;
    options.perHost ? SetLimits(host, its, itsOptions, {}) : RemoveOne(host);
  }
}

void Model::Remove(const LimitName& name) {
  if (Find(name)->options.perHost) {
    for (const LimitName& host : Hosts(name)) RemoveOne(host);
  }
  RemoveOne(name);
}

void Model::RemoveOne(const LimitName& name) {
  removed_[name] = accounts_[name].revision;
  accounts_.erase(name);
  std::erase_if(handed_, [&](const auto& one) { return one.first.second == name; });
}

void Model::SetCredit(const LimitName& name, std::int64_t credit) {
  Become(*Known(name), credit);
}

ModelBackup Model::MakeBackup() const {
  ModelBackup backup{{}, used_};
  for (const auto& [name, account] : accounts_) {
    backup.limits[name] = {account.keys, account.options, account.credit};
  }
  return backup;
}

void Model::Restore(const ModelBackup& backup) {
  std::vector<LimitName> gone;
  for (const auto& [name, account] : accounts_) {
    if (backup.limits.count(name) == 0) gone.push_back(name);
  }
  for (const LimitName& name : gone) RemoveOne(name);
  for (const auto& [name, limits] : backup.limits) {
    const auto& [keys, options, credit] = limits;
    SetLimits(name, keys, options, credit);
  }
  used_ = backup.used;
}

}  // namespace vardell::test
