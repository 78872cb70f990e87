#include "tests/server/HouseholdSimulation.h"

#include <QFile>
#include <set>

#include "Common Sources/PropertyList.h"
#include "server/Store.h"
#include "tests/server/FullDisk.h"
#include "tests/support/Waiting.h"

namespace vardell::test {
namespace {

constexpr std::size_t kKeptEvents = 25;

// Flushes cost nothing there, and nothing here loses what was written without one.
QString FolderPath() {
  const QString memory = QStringLiteral("/dev/shm");
  const QString place = QFile::exists(memory) ? memory : QDir::tempPath();
  return place + QStringLiteral("/vardell-model-XXXXXX");
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

std::int64_t Instant(double nextTime) {
  return nextTime == 0 ? 0 : static_cast<std::int64_t>(nextTime * 1000) + kStartOfAbsoluteTime;
}

// A day without use is as good as none.
template <typename Days>
bool IsSameUse(const Days& days, const std::map<QDate, std::int64_t>& wanted) {
  auto next = wanted.begin();
  for (const auto& [day, minutes] : days) {
    if (minutes == 0) continue;
    if (next == wanted.end() || next->first != day || next->second != minutes) return false;
    ++next;
  }
  return next == wanted.end();
}

template <typename Days>
std::string UseText(const Days& days) {
  std::string text;
  for (const auto& [day, minutes] : days) {
    text += " " + day.toString(Qt::ISODate).toStdString() + " " + std::to_string(minutes);
  }
  return text;
}

}  // namespace

std::int64_t InstantOf(const char* local, const char* zone) {
  const QDateTime plain = QDateTime::fromString(QLatin1String(local), Qt::ISODate);
  return QDateTime(plain.date(), plain.time(), QTimeZone(zone)).toMSecsSinceEpoch();
}

QString Simulation::TextOf(const LimitName& name) {
  return name.first + QLatin1Char(' ') + name.second;
}

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
  hooks.log = [this](const server::LogEvent& event) {
    wasBusy_ = wasBusy_ || event.message.contains(QStringLiteral("busy"));
  };
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
  // Whoever knows this one knows what was before it, also what cannot be seen from here.
  const LimitName last(QStringLiteral("nobody"), QStringLiteral("turn"));
  Change(last, {}, {}, ++turns_);
  Settle();
  turn_ = number;
  (void)WaitUntil([&] {
    (void)Its().TakeStored();
    const auto entry = Its().Limits(last.first, last.second);
    return entry && entry->credit == turns_;
  });
  Note(QStringLiteral("the other Server goes on"));
  CompareAll();
}

bool Simulation::IsPlanned() const {
  for (const auto& [name, account] : model_.Accounts()) {
    const auto entry = Its().Limits(name.first, name.second);
    if (entry && Instant(entry->limits.nextTopUpTime) != account.keys.next) return false;
  }
  return true;
}

void Simulation::TopUp() {
  const auto isDone = [this] {
    while (Its().TopUpDue()) continue;
    return IsPlanned();
  };
  while (Its().TopUpDue()) continue;
  if (isClockSet_ || model_.boot >= 600'000) model_.TopUpAll();
  if (std::exchange(wasBusy_, false)) (void)WaitUntil(isDone);
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

void Simulation::Insist(const Peer& peer, const QString& identifier,
                        const std::function<void()>& request) {
  const LimitName name = model_.NameAt(LaneOf(peer), NameOf(peer, identifier));
  (void)WaitUntil([&] {
    request();
    // One that is denied, as its host has no account yet, changes nothing.
    return !Speaks(peer) || !model_.Find(name) || Its().Limits(name.first, name.second);
  });
}

void Simulation::Start(const Peer& peer, const QString& identifier) {
  Note(QStringLiteral("%1 starts %2").arg(Text(peer), identifier));
  if (Speaks(peer)) model_.Start(LaneOf(peer), NameOf(peer, identifier));
  Insist(peer, identifier,
         [&] { Its().ApplicationStarted(peer.connection, peer.user, identifier); });
  CompareAt(peer, identifier);
}

void Simulation::Report(const Peer& peer, const QString& identifier, std::int64_t claimed) {
  Note(QStringLiteral("%1 reports %2 of %3").arg(Text(peer)).arg(claimed).arg(identifier));
  const LimitName name = NameOf(peer, identifier);
  if (Speaks(peer)) model_.Report(peer.connection.id, LaneOf(peer), name, claimed);
  const auto credit = static_cast<std::int32_t>(claimed);
  Insist(peer, identifier,
         [&] { Its().CreditReport(peer.connection, peer.user, identifier, credit); });
  CompareAt(peer, identifier);
}

std::optional<std::int64_t> Simulation::Fetch(const Peer& peer, const QString& identifier) {
  const LimitName name = NameOf(peer, identifier);
  std::optional<std::int64_t> wanted;
  if (Speaks(peer)) wanted = model_.Fetch(peer.connection.id, LaneOf(peer), name);
  QByteArray frame;
  Insist(peer, identifier,
         [&] { frame = Its().AnswerFetch(peer.connection, peer.user, identifier).frame; });
  const QVariantMap got = ReadPropertyListXml(frame.mid(4)).value_or(QVariant()).toMap();
  const bool isWatched = wanted && model_.Find(name)->keys.enabled;
  const std::int64_t credit = got.value(QStringLiteral("Credit"), -1).toLongLong();
  Note(QStringLiteral("%1 fetches %2: %3").arg(Text(peer), identifier).arg(credit));
  Expect(QStringLiteral("the answer's credit"), credit, wanted.value_or(0));
  Expect(QStringLiteral("the answer's Enabled"), got.value(QStringLiteral("Enabled")).toBool(),
         isWatched);
  spentAnswers_ += credit == kSpent;
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

// --- Comparing.

void Simulation::Compare(const LimitName& name) {
  const auto entry = Its().Limits(name.first, name.second);
  const ModelAccount* account = model_.Find(name);
  const auto what = [&](const char* figure) { return TextOf(name) + QLatin1String(figure); };
  Expect(what(": whether there are limits"), entry.has_value(), account != nullptr);
  if (entry && account) {
    const server::LimitsEntry& is = *entry;
    Expect(what("'s credit"), is.credit, account->credit);
    Expect(what("'s revision"), static_cast<std::int64_t>(is.revision),
           static_cast<std::int64_t>(account->revision));
    Expect(what("'s Enabled"), is.limits.enabled, account->keys.enabled);
    Expect(what("'s next top-up"), Instant(is.limits.nextTopUpTime), account->keys.next);
  }
  const auto days = Its().Usage(name.first, name.second).value_or(server::UsageDays());
  if (IsSameUse(days, model_.Used(name)) || !problem_.empty()) return;
  problem_ = "the use of " + TextOf(name).toStdString() + " by day is" + UseText(days) +
             ", and should be" + UseText(model_.Used(name));
}

void Simulation::CompareAt(const Peer& peer, const QString& identifier) {
  const LimitName name(peer.user, identifier);
  Compare(name);
  const LimitName own = model_.NameAt(LaneOf(peer), name);
  if (own != name) Compare(own);
}

void Simulation::ReadLedger() {
  for (;;) {
    std::optional<std::vector<server::LedgerRow>> rows;
    const auto isRead = [&] { return (rows = Its().Ledger(seen_, {}, {}, 1000)).has_value(); };
    (void)WaitUntil(isRead);
    Expect(QStringLiteral("whether the ledger is read"), rows.has_value(), true);
    if (!rows || rows->empty()) return;
    seen_ = rows->back().id;
    for (const server::LedgerRow& row : *rows) {
      const LimitName name(row.user, row.identifier);
      sums_[name] += row.minutes;
      if (row.minutes != 0) {
        Expect(TextOf(name) + QStringLiteral("'s credit in the ledger"), row.credit, sums_[name]);
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
    Expect(TextOf(name) + QStringLiteral("'s sum in the ledger"), sums_[name],
           account ? account->credit : 0);
    const bool isSame = IsSameUse(used_[name], model_.Used(name));
    Expect(TextOf(name) + QStringLiteral(": whether the ledger's use is that of the days"), isSame,
           true);
  }
}

}  // namespace vardell::test
