// What a Household must do, said as plainly as it can be: a few maps and 64-bit arithmetic. Nothing
// of it is shared with the Server's own rules, and it neither stores nor forgets anything but what
// the rules say.
//
// Boot times and wall times are milliseconds; the latter since 1970. One Model may stand for
// several Servers that share a store: each has its own lanes and connections, whose keys then begin
// with the Server's name.
#pragma once

#include <QDate>
#include <QString>
#include <QTimeZone>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <tuple>
#include <utility>
#include <vector>

namespace vardell::test {

constexpr std::int64_t kSecond = 1000;
constexpr std::int64_t kMinute = 60 * kSecond;
constexpr std::int64_t kHour = 60 * kMinute;
constexpr std::int64_t kDay = 24 * kHour;
constexpr std::int64_t kStartOfAbsoluteTime = 978'307'200'000;  // 2001
constexpr std::int64_t kMost = 2'147'483'647;
constexpr std::int64_t kSpent = 12345;

using LimitName = std::pair<QString, QString>;  // user, identifier

struct ModelKeys {
  bool enabled = true;
  std::int64_t value = 0;
  std::int64_t unit = 1;
  std::int64_t weekEndValue = 0;
  std::int64_t weekEndUnit = 0;
  std::int64_t next = 0;  // 0: none

  bool operator==(const ModelKeys&) const = default;
};

struct ModelOptions {
  bool rollOver = false;
  std::optional<std::int64_t> cap;
  bool unlimited = false;
  bool unionOfHosts = false;  // a minute on several hosts costs one
  bool perHost = false;       // each host has its own credit, as user "anna@192.0.2.7"

  bool operator==(const ModelOptions&) const = default;
};

struct ModelLane {
  std::optional<std::int64_t> paidUntil;
  bool heard = false;    // a start or a report since the last fetch
  bool started = false;  // a start since then
};

struct ModelAccount {
  ModelKeys keys;
  ModelOptions options;
  std::int64_t credit = 0;
  bool spent = false;
  std::uint64_t revision = 0;
  std::map<QString, ModelLane> lanes;

  std::set<QDate> had;  // dates that had their top-up
  std::optional<std::int64_t>
      since;                 // top-ups up to here are settled; absent: `next` is waited for
  std::int64_t planned = 0;  // as the Server made it; another one is an administrator's
  int wall = 0;              // of a top-up: milliseconds of the day
};

struct ModelBackup {
  std::map<LimitName, std::tuple<ModelKeys, ModelOptions, std::int64_t>> limits;
  std::map<LimitName, std::map<QDate, std::int64_t>> used;
};

class Model {
 public:
  explicit Model(const QTimeZone& zone) : zone_(zone) {}

  std::int64_t boot = 0;
  std::int64_t wall = 0;
  bool hasDisk = true;  // otherwise no host gets an account

  // --- Agents. `lane`: the Server's name, "a/", and the host.

  void Start(const QString& lane, const LimitName& name);
  void Report(std::uint64_t connection, const QString& lane, const LimitName& name,
              std::int64_t claimed);
  // The credit that is answered; absent for what is not known.
  std::optional<std::int64_t> Fetch(std::uint64_t connection, const QString& lane,
                                    const LimitName& name);
  void Close(std::uint64_t connection);

  // --- The Server. Of lanes whose keys begin so.

  void Restarted(const QString& server);
  void Rebooted(const QString& server);
  void TopUp(const LimitName& name);
  void TopUpAll();

  // --- Administrators.

  void Change(const LimitName& name, const ModelKeys& keys, const ModelOptions& options,
              std::optional<std::int64_t> credit);
  void Remove(const LimitName& name);
  void SetCredit(const LimitName& name, std::int64_t credit);
  ModelBackup MakeBackup() const;
  void Restore(const ModelBackup& backup);

  const ModelAccount* Find(const LimitName& name) const;
  // Whose credit counts there, whether or not it is there already.
  LimitName NameAt(const QString& lane, const LimitName& name) const;
  const std::map<LimitName, ModelAccount>& Accounts() const { return accounts_; }
  const std::map<QDate, std::int64_t>& Used(const LimitName& name) { return used_[name]; }
  const std::map<LimitName, std::map<QDate, std::int64_t>>& Used() const { return used_; }
  QDate DateAt(std::int64_t instant) const;

 private:
  ModelAccount* Known(const LimitName& name);
  // The account that counts there; it is made where a host asks for the first time.
  ModelAccount* Counted(const QString& lane, LimitName* name);
  void SetLimits(const LimitName& name, const ModelKeys& keys, const ModelOptions& options,
                 std::optional<std::int64_t> credit);
  void RemoveOne(const LimitName& name);
  std::vector<LimitName> Hosts(const LimitName& name) const;
  // Up to when use is paid there: by the host itself or, where hosts share minutes, by any.
  std::optional<std::int64_t> Paid(const ModelAccount& account, const QString& lane) const;
  std::int64_t Due(std::optional<std::int64_t> paid) const;
  void Use(const LimitName& name, std::int64_t minutes);
  void Charge(const LimitName& name, ModelAccount& account, const QString& lane,
              std::int64_t minutes);
  void Plan(ModelAccount& account);
  std::vector<QDate> DueDates(const ModelAccount& account);
  // When the clocks of the zone first show that time of the date, or a later one.
  std::int64_t Instant(QDate date, int wallTime);
  bool Exists(QDate date) { return DateAt(Instant(date, 0)) == date; }

  QTimeZone zone_;
  std::map<LimitName, ModelAccount> accounts_;
  std::map<LimitName, std::uint64_t> removed_;  // revisions
  std::map<LimitName, std::map<QDate, std::int64_t>> used_;
  std::map<std::pair<std::uint64_t, LimitName>, std::int64_t> handed_;
  std::map<std::pair<QDate, int>, std::int64_t> instants_;
};

}  // namespace vardell::test
