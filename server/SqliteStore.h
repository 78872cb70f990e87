// A store that is one SQLite file of one Server. A change is on the disk when Apply returns; no
// other program can use the file meanwhile.
//
// Tables: migrations, limits, top_ups, removed_limits, credit, lanes, ledger, balances, balanced,
// usage, numbers, unfinished_restore, adjustments, audit. The ledger and the audit only ever grow:
// the database itself refuses to change or delete their rows, but for those of a restore that was
// not finished.
#pragma once

#include <functional>

#include "server/Store.h"

namespace vardell::server {

class SqliteDatabase;

class SqliteStore : public Store {
 public:
  // Opens or makes the file, readable by its owner alone, and brings it to this schema. Throws as
  // OpenStore does.
  explicit SqliteStore(const QString& path);
  ~SqliteStore() override;

  void SetServerId(const QString& id) override { serverId_ = id; }
  bool IsShared() const override { return false; }
  QString Description() const override;
  StoreContents Load(const QString& bootId) override;
  std::uint64_t LastNumber() override;
  ApplyResult Apply(const std::vector<StoreChange>& changes, const QString& bootId,
                    std::uint64_t lastNumber) override;
  StoreNews News() override { return {}; }
  bool Recover(QString* error) override;
  bool WriteAhead(const std::vector<LedgerRow>& rows, QString* error) override;
  ApplyResult ApplyLast(const std::vector<StoreChange>& changes, const QString& bootId) override;
  bool HasUnfinishedRestore() const override { return firstUnfinished_.has_value(); }
  bool ForgetUnfinished(int most, QString* error) override;
  std::optional<AdjustmentRow> Adjustment(const QString& id) override;
  std::vector<LedgerRow> Ledger(std::int64_t after, const QString& user, const QString& identifier,
                                int limit, bool isUnderWay) override;

 private:
  bool InOneTransaction(const std::function<void()>& write, QString* error);

  const QString path_;
  QString serverId_;
  std::unique_ptr<SqliteDatabase> database_;
  std::optional<std::int64_t> firstUnfinished_;  // row of a restore
};

}  // namespace vardell::server
