// The Server's memory on disk: one SQLite file. A change is one transaction, on the disk when Apply
// returns; no other program can use the file meanwhile. Not thread-safe; every call waits for the
// disk.
//
// Tables: migrations, limits, top_ups, removed_limits, credit, lanes, ledger, unfinished_restore,
// adjustments, audit. The ledger and the audit only ever grow: the database itself refuses to
// change or delete their rows, but for those of a restore that was not finished.
#pragma once

#include <QByteArray>
#include <QDate>
#include <QString>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "server/Household.h"

namespace vardell::server {

class SqliteDatabase;

inline constexpr int kStoreSchemaVersion = 3;
inline constexpr char kDefaultStorePath[] = "/var/lib/vardell/vardell.sqlite";

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
};

struct LaneRow {
  QString user;
  QString identifier;
  QString host;
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

// Everything that one event changes; what is absent stays.
struct StoreChange {
  std::optional<LimitsEntry> limits;     // without its credit
  std::optional<RemovedLimits> removed;  // their credit, lanes and top-ups go with them
  std::optional<TopUpRow> topUp;         // of limits that are there
  std::optional<CreditRow> credit;
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

class Store {
 public:
  // Opens or makes the file, readable by its owner alone, and brings it to this schema. Throws
  // std::runtime_error with one line for people that says what to do: no folder, no permission,
  // damaged, in use, not ours, or of a newer version.
  static std::unique_ptr<Store> Open(const QString& path);
  ~Store();

  // Throws std::runtime_error likewise, also where a credit is not the sum of its ledger.
  StoreContents Load(const QString& bootId);

  // All of the changes or none. False, with a line for people, when the disk refused.
  [[nodiscard]] bool Apply(const std::vector<StoreChange>& changes, const QString& bootId,
                           QString* error);

  // --- A restore that is too large for one transaction. Its rows of the ledger, whose source is
  // "restore" and which add no minutes, are written ahead; they count, and are seen, from its last
  // transaction on. What was not finished is forgotten at the latest by Load.

  [[nodiscard]] bool WriteAhead(const std::vector<LedgerRow>& rows, QString* error);
  [[nodiscard]] bool ApplyLast(const std::vector<StoreChange>& changes, const QString& bootId,
                               QString* error);
  bool HasUnfinishedRestore() const { return firstUnfinished_.has_value(); }
  // Deletes at most `most` of the rows.
  [[nodiscard]] bool ForgetUnfinished(int most, QString* error);

  // Absent where there is none with this id; throws std::runtime_error when the disk fails.
  std::optional<AdjustmentRow> Adjustment(const QString& id);
  // Throws likewise. While a restore `isUnderWay`, rows behind its first one wait for their turn: a
  // reader who goes on from the last id must not miss any.
  std::vector<LedgerRow> Ledger(std::int64_t after, const QString& user, const QString& identifier,
                                int limit, bool isUnderWay = false);

  QString Description() const;

 private:
  Store(std::unique_ptr<SqliteDatabase> database, QString path);
  bool InOneTransaction(const std::function<void()>& write, QString* error);

  std::unique_ptr<SqliteDatabase> database_;
  QString path_;
  std::optional<std::int64_t> firstUnfinished_;  // row of a restore
};

}  // namespace vardell::server
