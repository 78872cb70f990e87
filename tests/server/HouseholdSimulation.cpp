#include "tests/server/HouseholdSimulation.h"

#include <QFile>
#include <set>

#include "Common Sources/PropertyList.h"
#include "server/HouseholdRestore.h"
#include "server/Store.h"
#include "tests/server/FullDisk.h"
#include "tests/support/Waiting.h"

namespace vardell::test {
namespace {

using server::AdminResult;
using server::AdminStatus;

constexpr std::size_t kKeptEvents = 25;
constexpr std::int64_t kStartOfAbsoluteTime = 978'307'200'000;  // 2001
constexpr std::int64_t kMostCredit = 2'147'483'647;
constexpr std::int64_t kRefusedCredit = 12345;
const server::Actor kRoot{0, QStringLiteral("uid 0 (root)")};

// Flushes cost nothing there, and nothing here loses what was written without one.
QString FolderPath() {
  const QString memory = QStringLiteral("/dev/shm");
  const QString place = QFile::exists(memory) ? memory : QDir::tempPath();
  return place + QStringLiteral("/vardell-model-XXXXXX");
}

QVariantMap Dictionary(const ModelKeys& keys) {
  const double next = static_cast<double>(keys.next - kStartOfAbsoluteTime) / 1000;
  return {{QStringLiteral("Enabled"), keys.enabled},
          {QStringLiteral("AutoUpdateValue"), qlonglong{keys.value}},
          {QStringLiteral("AutoUpdateCoeff"), qlonglong{keys.unit}},
          {QStringLiteral("WE Value"), qlonglong{keys.weekEndValue}},
          {QStringLiteral("WE Coeff"), qlonglong{keys.weekEndUnit}},
          {QStringLiteral("NextAutoUpdate"), keys.next == 0 ? 0 : next}};
}

QVariantMap Dictionary(const ModelOptions& options) {
  const QVariant none = QVariant::fromValue(nullptr);
  const auto parallel = options.unionOfHosts ? QStringLiteral("union") : QStringLiteral("sum");
  const auto scope = options.perHost ? QStringLiteral("user@host") : QStringLiteral("user");
  return {{QStringLiteral("unlimited"), options.unlimited},
          {QStringLiteral("scope"), scope},
          {QStringLiteral("parallel"), parallel},
          {QStringLiteral("rollOver"), options.rollOver},
          {QStringLiteral("rollOverCap"), options.cap ? QVariant(qlonglong{*options.cap}) : none}};
}

template <typename Values>
QVariantMap Differences(const Values* before, const Values& after) {
  QVariantMap changes = Dictionary(after);
  const QVariantMap known = before ? Dictionary(*before) : QVariantMap();
  for (auto value = known.begin(); value != known.end(); ++value) {
    if (changes.value(value.key()) == value.value()) changes.remove(value.key());
  }
  return changes;
}

QString Text(const LimitName& name) {
  return name.first + QLatin1Char(' ') + name.second;
}

QString Text(const Peer& peer) {
  return QStringLiteral("%1 at %2, connection %3")
      .arg(peer.user, peer.connection.host)
      .arg(peer.connection.id);
}

std::optional<QString> UserOf(std::uint32_t uid) {
  if (uid == 1001) return QStringLiteral("anna");
  if (uid == 1002) return QStringLiteral("ben");
  return std::nullopt;
}

template <typename Map>
std::map<QDate, std::int64_t> WithUse(const Map& days) {
  std::map<QDate, std::int64_t> with;
  for (const auto& [day, minutes] : days) {
    if (minutes != 0) with.emplace(day, minutes);
  }
  return with;
}

}  // namespace

Simulation::Simulation(const QTimeZone& zone, std::int64_t wall, const QString& uri)
    : folder_(FolderPath()), zone_(zone), model_(zone) {
  model_.wall = wall;
  model_.boot = 5'000;
  for (const char* name : {"a", "b"}) {
    Server& one = servers_.emplace_back();
    one.name = QLatin1String(name) + QLatin1Char('/');
    one.store = uri.isEmpty() ? folder_.filePath(QStringLiteral("store.sqlite")) : uri;
    one.spool = folder_.filePath(QLatin1String(name));
    one.bootId = QLatin1String(name) + QStringLiteral("-1");
    if (uri.isEmpty()) break;
  }
  for (turn_ = servers_.size(); turn_-- > 0;) Begin();
  turn_ = 0;
}

std::string Simulation::LastEvents() const {
  std::string text;
  for (const QString& event : events_) text += event.toStdString() + "\n";
  return text;
}

void Simulation::Note(const QString& event) {
  const QString time =
      QDateTime::fromMSecsSinceEpoch(model_.wall, zone_).toString(QStringLiteral("MM-dd hh:mm:ss"));
  events_.push_back(QStringLiteral("%1 %2 %3: %4")
                        .arg(servers_[turn_].name, time)
                        .arg(static_cast<double>(model_.boot) / 1000)
                        .arg(event));
  if (events_.size() > kKeptEvents) events_.pop_front();
}

void Simulation::Expect(const QString& what, std::int64_t got, std::int64_t wanted) {
  if (got == wanted || !problem_.empty()) return;
  problem_ =
      QStringLiteral("%1 is %2, and should be %3").arg(what).arg(got).arg(wanted).toStdString();
}

// --- Time and Servers.

void Simulation::Pass(std::int64_t milliseconds) {
  model_.boot += milliseconds;
  model_.wall += milliseconds;
}

void Simulation::SetWall(std::int64_t wall, bool isKnownToBeRight) {
  Note(QStringLiteral("the clock jumps by %1 s").arg((wall - model_.wall) / 1000));
  model_.wall = wall;
  isClockSet_ = isKnownToBeRight;
}

server::Clocks Simulation::ClocksOf(std::size_t number) {
  server::Clocks clocks;
  clocks.sinceBoot = [this] { return std::chrono::milliseconds(model_.boot); };
  clocks.bootId = servers_[number].bootId;
  clocks.now = [this] { return QDateTime::fromMSecsSinceEpoch(model_.wall, zone_); };
  clocks.zone = [this] { return zone_; };
  clocks.isSet = [this] { return isClockSet_; };
  return clocks;
}

void Simulation::Begin() {
  Note(QStringLiteral("the Server starts"));
  Server& one = servers_[turn_];
  server::HouseholdHooks hooks;
  hooks.userOfUid = UserOf;
  one.household = std::make_unique<server::Household>(server::OpenStore(one.store), ClocksOf(turn_),
                                                      hooks, one.spool);
  model_.Restarted(one.name);
}

void Simulation::Stop() {
  Note(QStringLiteral("the Server stops"));
  servers_[turn_].household.reset();
}

void Simulation::Settle() {
  const auto isSettled = [&] { return Its().TakeStored() == Its().LastChange(); };
  if (!WaitUntil(isSettled)) Expect(QStringLiteral("the last change that is stored"), 0, 1);
}

void Simulation::CutPower() {
  Settle();
  Note(QStringLiteral("the power is cut"));
  Server& one = servers_[turn_];
  const QString before = one.store;
  one.store = folder_.filePath(QStringLiteral("store%1.sqlite").arg(++copies_));
  for (const char* end : {"", "-wal"}) {
    const QString from = before + QLatin1String(end);
    if (QFile::exists(from)) QFile::copy(from, one.store + QLatin1String(end));
  }
  one.household.reset();
  for (const char* end : {"", "-wal", "-shm"}) QFile::remove(before + QLatin1String(end));
}

void Simulation::Reboot(std::int64_t sinceBoot) {
  Server& one = servers_[turn_];
  one.bootId = one.name + QString::number(++boots_);
  model_.Rebooted(one.name);
  model_.boot = sinceBoot;
}

void Simulation::TakeTurn(std::size_t number) {
  Settle();
  const server::Backup wanted = Its().MakeBackup();
  turn_ = number;
  const auto text = [](const server::Backup& backup) {
    QStringList lines;
    for (const auto& entry : backup.limits) {
      lines.append(QStringLiteral("%1 %2 %3 %4 %5")
                       .arg(entry.user, entry.identifier)
                       .arg(entry.credit)
                       .arg(entry.revision)
                       .arg(entry.limits.nextTopUpTime));
    }
    for (const auto& entry : backup.usage) {
      for (const auto& [day, minutes] : entry.days) {
        lines.append(QStringLiteral("%1 %2 %3 %4")
                         .arg(entry.user, entry.identifier, day.toString(Qt::ISODate))
                         .arg(minutes));
      }
    }
    return lines;
  };
  (void)WaitUntil([&] {
    (void)Its().TakeStored();
    return text(Its().MakeBackup()) == text(wanted);
  });
  Note(QStringLiteral("the other Server goes on"));
  CompareAll();
}

void Simulation::TopUp() {
  while (Its().TopUpDue()) continue;
  if (isClockSet_ || model_.boot >= 600'000) model_.TopUpAll();
}

void Simulation::WithoutDisk(const std::function<void()>& action) {
  Note(QStringLiteral("the disk is full"));
  {
    const server::FullDisk full;
    model_.hasDisk = false;
    action();
    model_.hasDisk = true;
  }
  Note(QStringLiteral("the disk has room again"));
  CompareAll();
}

// --- Agents.

bool Simulation::Speaks(const Peer& peer) const {
  return !peer.connection.peerUid || UserOf(*peer.connection.peerUid) == peer.user;
}

QString Simulation::LaneOf(const Peer& peer) const {
  return servers_[peer.server].name + peer.connection.host;
}

void Simulation::Start(const Peer& peer, const QString& identifier) {
  Note(QStringLiteral("%1 starts %2").arg(Text(peer), identifier));
  Its().ApplicationStarted(peer.connection, peer.user, identifier);
  if (Speaks(peer)) model_.Start(LaneOf(peer), NameOf(peer, identifier));
  CompareAt(peer, identifier);
}

void Simulation::Report(const Peer& peer, const QString& identifier, std::int64_t claimed) {
  Note(QStringLiteral("%1 reports %2 of %3").arg(Text(peer)).arg(claimed).arg(identifier));
  Its().CreditReport(peer.connection, peer.user, identifier, static_cast<std::int32_t>(claimed));
  const LimitName name = NameOf(peer, identifier);
  if (Speaks(peer)) model_.Report(peer.connection.id, LaneOf(peer), name, claimed);
  CompareAt(peer, identifier);
}

std::optional<std::int64_t> Simulation::Fetch(const Peer& peer, const QString& identifier) {
  const LimitName name = NameOf(peer, identifier);
  const QByteArray frame = Its().AnswerFetch(peer.connection, peer.user, identifier).frame;
  const QVariantMap got = ReadPropertyListXml(frame.mid(4)).value_or(QVariant()).toMap();
  std::optional<std::int64_t> wanted;
  if (Speaks(peer)) wanted = model_.Fetch(peer.connection.id, LaneOf(peer), name);
  const bool isWatched = wanted && model_.Find(name)->keys.enabled;
  const std::int64_t credit = got.value(QStringLiteral("Credit"), -1).toLongLong();
  Note(QStringLiteral("%1 fetches %2: %3").arg(Text(peer), identifier).arg(credit));
  Expect(QStringLiteral("the answer's credit"), credit, wanted.value_or(0));
  Expect(QStringLiteral("the answer's Enabled"), got.value(QStringLiteral("Enabled")).toBool(),
         isWatched);
  spentAnswers_ += credit == kRefusedCredit;
  CompareAt(peer, identifier);
  return isWatched ? wanted : std::nullopt;
}

void Simulation::Close(const Peer& peer) {
  Note(QStringLiteral("%1 is closed").arg(Text(peer)));
  if (servers_[peer.server].household) {
    servers_[peer.server].household->ConnectionClosed(peer.connection.id);
  }
  model_.Close(peer.connection.id);
}

// --- Administrators.

void Simulation::Change(const LimitName& name, const ModelKeys& keys, const ModelOptions& options,
                        std::optional<std::int64_t> credit) {
  const ModelAccount* before = model_.Find(name);
  QVariantMap changes = Differences(before ? &before->keys : nullptr, keys);
  if (credit) changes.insert(QStringLiteral("Credit"), qlonglong{*credit});
  Note(QStringLiteral("limits of %1: credit %2, value %3, next %4")
           .arg(Text(name))
           .arg(credit.value_or(-1))
           .arg(keys.value)
           .arg(keys.next));
  const AdminResult result = Its().ChangeLimits(kRoot, name.first, name.second, changes,
                                                before ? before->revision : 0, Dictionary(options));
  AdminStatus wanted = model_.hasDisk ? AdminStatus::Ok : AdminStatus::StoreFailed;
  if (credit == kRefusedCredit) wanted = AdminStatus::BadValue;
  Expect(QStringLiteral("the status: ") + result.message, static_cast<int>(result.status),
         static_cast<int>(wanted));
  if (wanted == AdminStatus::Ok) {
    model_.Change(name, keys, options, credit);
    if (isClockSet_ || model_.boot >= 600'000) model_.TopUp(name);
    if (result.entry) {
      Expect(QStringLiteral("the entry's credit"), result.entry->credit, model_.Find(name)->credit);
    }
  }
  Compare(name);
}

void Simulation::ChangeWithOldRevision(const LimitName& name) {
  const ModelAccount* account = model_.Find(name);
  if (!account) return;
  const AdminResult result = Its().ChangeLimits(
      kRoot, name.first, name.second, {{QStringLiteral("Credit"), 7}}, account->revision - 1);
  Expect(QStringLiteral("the status with an old revision"), static_cast<int>(result.status),
         static_cast<int>(AdminStatus::RevisionMismatch));
  Compare(name);
}

void Simulation::Remove(const LimitName& name) {
  const ModelAccount* account = model_.Find(name);
  if (!account) return;
  Note(QStringLiteral("%1 is removed").arg(Text(name)));
  const AdminResult result = Its().RemoveLimits(kRoot, name.first, name.second, account->revision);
  Expect(QStringLiteral("the status of a removal"), static_cast<int>(result.status),
         static_cast<int>(AdminStatus::Ok));
  model_.Remove(name);
  Compare(name);
}

void Simulation::SetCredit(const LimitName& name, std::int64_t minutes, const QString& id) {
  Adjust(name, false, minutes, id);
}

void Simulation::AddCredit(const LimitName& name, std::int64_t minutes, const QString& id) {
  Adjust(name, true, minutes, id);
}

void Simulation::Adjust(const LimitName& name, bool isAddition, std::int64_t minutes,
                        const QString& id) {
  Note(QStringLiteral("%1 %2 %3, id %4")
           .arg(Text(name), isAddition ? QStringLiteral("is given") : QStringLiteral("is set to"))
           .arg(minutes)
           .arg(id));
  const auto change = isAddition ? &server::Household::AddCredit : &server::Household::SetCredit;
  const AdminResult result = (Its().*change)(kRoot, name.first, name.second, minutes, id, {});
  const ModelAccount* account = model_.Find(name);
  const auto known = adjustments_.find(id);
  AdminStatus wanted = AdminStatus::Ok;
  std::int64_t added = 0;
  if (!isAddition && minutes == kRefusedCredit) {
    wanted = AdminStatus::BadValue;
  } else if (!account) {
    wanted = AdminStatus::NotFound;
  } else if (!model_.hasDisk) {
    wanted = AdminStatus::StoreFailed;
  } else if (known != adjustments_.end()) {
    const Adjustment& its = known->second;
    const bool isSame = its.name == name && its.isAddition == isAddition && its.minutes == minutes;
    wanted = isSame ? AdminStatus::Ok : AdminStatus::IdReused;
    added = isSame ? its.added : 0;
  } else {
    const std::int64_t before = account->credit;
    const std::int64_t after = isAddition ? before + minutes : minutes;
    model_.SetCredit(name, std::clamp<std::int64_t>(after, 0, kMostCredit));
    added = account->credit - before;
    adjustments_[id] = {name, isAddition, minutes, added};
  }
  Expect(QStringLiteral("the status: ") + result.message, static_cast<int>(result.status),
         static_cast<int>(wanted));
  Expect(QStringLiteral("what was added"), result.added, added);
  Compare(name);
}

void Simulation::KeepBackup() {
  Note(QStringLiteral("a backup is made"));
  backup_ = {Its().MakeBackup(), model_.MakeBackup()};
}

void Simulation::Restore(const std::function<void()>& between, bool isFinished) {
  if (!backup_) return;
  Note(QStringLiteral("a restore begins"));
  {
    const auto restore = Its().BeginRestore(kRoot, backup_->first);
    for (int step = 0;; ++step) {
      const auto result = restore->Step();
      if (result) {
        Expect(QStringLiteral("the restore's status"), static_cast<int>(result->status),
               static_cast<int>(AdminStatus::Ok));
        break;
      }
      between();
      if (!isFinished && step > 0) return Note(QStringLiteral("the restore is given up"));
    }
  }
  Note(QStringLiteral("it is restored"));
  model_.Restore(backup_->second);
  CompareAll();
}

// --- Comparing.

void Simulation::Compare(const LimitName& name) {
  const auto entry = Its().Limits(name.first, name.second);
  const ModelAccount* account = model_.Find(name);
  const auto what = [&](const char* figure) { return Text(name) + QLatin1String(figure); };
  Expect(what(": whether there are limits"), entry.has_value(), account != nullptr);
  if (entry && account) {
    const server::LimitsEntry& is = *entry;
    Expect(what("'s credit"), is.credit, account->credit);
    Expect(what("'s revision"), static_cast<std::int64_t>(is.revision),
           static_cast<std::int64_t>(account->revision));
    Expect(what("'s Enabled"), is.limits.enabled, account->keys.enabled);
    const std::int64_t next =
        static_cast<std::int64_t>(is.limits.nextTopUpTime * 1000) + kStartOfAbsoluteTime;
    Expect(what("'s next top-up"), is.limits.nextTopUpTime == 0 ? 0 : next, account->keys.next);
  }
  const auto days = WithUse(Its().Usage(name.first, name.second).value_or(server::UsageDays()));
  const auto& wanted = model_.Used(name);
  if (days == wanted || !problem_.empty()) return;
  problem_ = "the use of " + Text(name).toStdString() + " by day differs:";
  for (const auto& [day, minutes] : days) {
    problem_ += " " + day.toString(Qt::ISODate).toStdString() + " " + std::to_string(minutes);
  }
  problem_ += ", and should be";
  for (const auto& [day, minutes] : wanted) {
    problem_ += " " + day.toString(Qt::ISODate).toStdString() + " " + std::to_string(minutes);
  }
}

void Simulation::CompareAt(const Peer& peer, const QString& identifier) {
  const LimitName name(peer.user, identifier);
  Compare(name);
  const LimitName own = model_.NameAt(LaneOf(peer), name);
  if (own != name) Compare(own);
}

void Simulation::ReadLedger() {
  for (;;) {
    const auto rows = Its().Ledger(seen_, {}, {}, 1000);
    Expect(QStringLiteral("whether the ledger is read"), rows.has_value(), true);
    if (!rows || rows->empty()) return;
    seen_ = rows->back().id;
    for (const server::LedgerRow& row : *rows) {
      const LimitName name(row.user, row.identifier);
      sums_[name] += row.minutes;
      if (row.minutes != 0) {
        Expect(Text(name) + QStringLiteral("'s credit in the ledger"), row.credit, sums_[name]);
      }
      used_[name][row.day] += row.used;
      ++rowsBySource_[row.source];
      if (row.source == QStringLiteral("top-up")) ++topUps_[name][row.reason];
    }
  }
}

void Simulation::CompareAll() {
  ReadLedger();
  std::set<LimitName> names;
  for (const auto& [name, sum] : sums_) names.insert(name);
  for (const auto& [name, days] : model_.Used()) names.insert(name);
  for (const auto& [name, account] : model_.Accounts()) names.insert(name);
  for (const LimitName& name : names) {
    Compare(name);
    const ModelAccount* account = model_.Find(name);
    Expect(Text(name) + QStringLiteral("'s sum in the ledger"), sums_[name],
           account ? account->credit : 0);
    const bool isSame = WithUse(used_[name]) == model_.Used(name);
    Expect(Text(name) + QStringLiteral(": whether the ledger's use is that of the days"), isSame,
           true);
  }
}

}  // namespace vardell::test
