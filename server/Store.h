// Where a Household is kept: what both kinds of store, SQLite and PostgreSQL, have in common. Used
// by one thread at a time; every call waits for the disk or the database.
//
// A store of SQLite belongs to one Server: what a change says is what is stored. One of PostgreSQL
// may be shared: what an agent used is taken from the credit as it is there, whatever the change
// says of it, and an administrator's change is a conflict where the account has another version
// than the one it was made from.
//
// Changes that may have to be kept elsewhere for a while are numbered, and a number is stored in
// the transaction of its change: whoever repeats them from number LastNumber() + 1 on repeats none
// twice.
#pragma once

#include <QByteArray>
#include <QDate>
#include <QString>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <vector>

#include "server/Household.h"

namespace vardell::server {

inline constexpr int kStoreSchemaVersion = 4;
inline constexpr char kDefaultStorePath[] = "/var/lib/vardell/vardell.sqlite";
// Of a store that is no file; that of a file is beside it.
inline constexpr char kDefaultSpoolPath[] = "/var/lib/vardell/spool";

// What the Server itself changes of a limit: the revision stays.
struct TopUpRow {
  QString user;
  QString identifier;
  double nextTime = 0;  // LimitsRecord::nextTopUpTime
  TopUpMemory memory;
};

struct CreditRow {
  QString user;
  QString identifier;
  std::int64_t minutes = 0;
  bool spent = false;
  std::uint64_t version = 0;  // of the account; counts with every change in a shared store, else 0
};

struct LaneRow {
  QString user;
  QString identifier;
  QString host;                            // empty: that of all hosts together
  std::chrono::milliseconds paidUntil{0};  // enforcement time of the boot
};

struct UsageRow {
  QString user;
  QString identifier;
  QDate day;
  std::int64_t minutes = 0;
};

struct AdjustmentRow {
  QString id;
  QByteArray digest;       // of what it asked for
  std::int64_t added = 0;  // minutes, by an adjustment; 0 for those of schema 1
};

struct RemovedLimits {
  QString user;
  QString identifier;
  std::uint64_t revision = 0;  // when they were removed
};

struct AuditRow {
  QDateTime time;
  QString actor;
  QString what;
  QString user;
  QString identifier;
  QString before;  // JSON; empty where there was nothing
  QString after;
};

// Everything that one event changes; what is absent stays. All names in it are those of one
// account.
struct StoreChange {
  // The version of the account that this was made from, 0 where it was not there: everything is
  // stored as it stands, or is a conflict. Absent: an agent's; it has only `credit`, `lane`,
  // `forgottenLane` and `ledger`.
  std::optional<std::uint64_t> basedOn;
  std::optional<LimitsEntry> limits;     // without its credit
  std::optional<RemovedLimits> removed;  // their credit, lanes and top-ups go with them
  std::optional<TopUpRow> topUp;         // of limits that are there
  std::optional<CreditRow> credit;       // without a version
  std::optional<LaneRow> lane;
  std::optional<LaneRow> forgottenLane;
  std::optional<LedgerRow> ledger;
  std::optional<AdjustmentRow> adjustment;
  std::optional<AuditRow> audit;
};

struct StoreContents {
  std::vector<LimitsEntry> limits;     // without their credit
  std::vector<RemovedLimits> removed;  // also of those that were made again
  std::vector<TopUpRow> topUps;        // of limits that have had any
  std::vector<CreditRow> credit;
  std::vector<LaneRow> lanes;  // of this boot
  std::vector<UsageRow> usage;
};

// What other Servers have changed in a shared store.
struct StoreNews {
  bool everything = false;  // so much that all is to be loaded again; the rest is empty then
  // Of limits that were made or changed in any way: all of `limits`, `topUps` and `credit`; of
  // those removed, also where they were made again, `removed`; `usage` is what was added to days.
  // No lanes.
  StoreContents contents;

  bool IsEmpty() const {
    return !everything && contents.credit.empty() && contents.removed.empty() &&
           contents.usage.empty();
  }
};

enum class ApplyStatus {
  Done,
  Conflict,  // nothing was stored; News() tells what another Server has changed
  Failed,  // the disk or the database refused, or did not answer in time: LastNumber() tells later
};

struct ApplyResult {
  ApplyStatus status = ApplyStatus::Done;
  QString error;  // of Failed: a line for people that says what to do
  // Of a shared store: the accounts that were changed, as they are now.
  std::vector<CreditRow> accounts;
};

// The store cannot be reached at the moment, and may be later.
class StoreAway : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class Store {
 public:
  virtual ~Store() = default;

  // For whose sake LastNumber counts; empty until it is said. Of a store that was just opened.
  virtual void SetServerId(const QString& id) = 0;
  virtual bool IsShared() const = 0;
  virtual QString Description() const = 0;  // what and where, without a password

  // Everything as it is now. Throws StoreAway, or std::runtime_error with a line for people, also
  // where a credit is not the sum of its ledger.
  virtual StoreContents Load(const QString& bootId) = 0;
  // The number of the last change that is stored for this Server; 0: none. Throws likewise.
  virtual std::uint64_t LastNumber() = 0;

  // All of the changes, in their order, or none. `lastNumber`: of the last one of them; 0 where
  // they have none.
  [[nodiscard]] virtual ApplyResult Apply(const std::vector<StoreChange>& changes,
                                          const QString& bootId, std::uint64_t lastNumber) = 0;

  // What others changed since the last News, Load or conflict. Throws StoreAway.
  virtual StoreNews News() = 0;
  // Whether a store that failed can be used again; tries to reach it. Not more than half a second:
  // changes that come in meanwhile wait to be spooled. An attempt that takes longer goes on, and
  // the next call asks for its result. `error`: a line for people.
  [[nodiscard]] virtual bool Recover(QString* error) = 0;

  // --- A restore that is too large for one transaction. Its rows of the ledger, whose source is
  // "restore" and which add no minutes, are written ahead; they count, and are seen, from its last
  // transaction on. What was not finished is forgotten at the latest by Load.

  [[nodiscard]] virtual bool WriteAhead(const std::vector<LedgerRow>& rows, QString* error) = 0;
  // The changes, whatever versions they are based on.
  [[nodiscard]] virtual ApplyResult ApplyLast(const std::vector<StoreChange>& changes,
                                              const QString& bootId) = 0;
  virtual bool HasUnfinishedRestore() const = 0;
  // Deletes at most `most` of the rows.
  [[nodiscard]] virtual bool ForgetUnfinished(int most, QString* error) = 0;

  // Absent where there is none with this id; throws std::runtime_error when the store fails.
  virtual std::optional<AdjustmentRow> Adjustment(const QString& id) = 0;
  // Rows with an id above `after`, oldest first; empty filters match all. Throws likewise. While a
  // restore `isUnderWay`, rows behind its first one wait for their turn: a reader who goes on from
  // the last id must not miss any.
  virtual std::vector<LedgerRow> Ledger(std::int64_t after, const QString& user,
                                        const QString& identifier, int limit,
                                        bool isUnderWay = false) = 0;
};

// `location`: the file of a SQLite store, or "postgresql://..." (also "postgres://"). Throws
// StoreAway or std::runtime_error with one line for people that says what to do: no folder, no
// permission, damaged, in use, not ours, or of a newer version; no answer.
std::unique_ptr<Store> OpenStore(const QString& location);

bool IsPostgresLocation(const QString& location);

}  // namespace vardell::server
