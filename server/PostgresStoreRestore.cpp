// The part of a shared store that restores backups.
#include <QUuid>

#include "server/PostgresRows.h"
#include "server/PostgresStore.h"

namespace vardell::server {
namespace {

constexpr char kForgetRows[] =
    "WITH gone AS (DELETE FROM restore_rows WHERE number IN (SELECT number FROM restore_rows "
    "WHERE server = $1 LIMIT $2) RETURNING 1) SELECT count(*) FROM gone";
constexpr char kCountRows[] =
    "SELECT count(*) FROM restore_rows WHERE server = $1 AND restore = $2";
constexpr char kTakeRows[] =
    "INSERT INTO ledger (time, day, \"user\", identifier, host, source, minutes, credit, used, "
    "claimed, actor, reason, server) "
    "SELECT time, day, \"user\", identifier, host, source, minutes, credit, used, claimed, actor, "
    "reason, server FROM restore_rows WHERE server = $1 AND restore = $2 ORDER BY number";
constexpr char kTakeUsage[] =
    "INSERT INTO usage SELECT \"user\", identifier, day, sum(used) FROM restore_rows "
    "WHERE server = $1 AND restore = $2 GROUP BY \"user\", identifier, day "
    "ON CONFLICT (\"user\", identifier, day) DO UPDATE SET "
    "minutes = usage.minutes + excluded.minutes";
constexpr char kDropRows[] = "DELETE FROM restore_rows WHERE server = $1";
constexpr char kRaiseEpoch[] = "UPDATE state SET epoch = epoch + 1";

}  // namespace

bool PostgresStore::WriteAhead(const std::vector<LedgerRow>& rows, QString* error) {
  if (restoreId_.isEmpty()) {
    restoreId_ = QUuid::createUuid().toString(QUuid::WithoutBraces);
    restoreRows_ = 0;
  }
  try {
    Guarded(
        [&] { (void)Query(CallToWriteAhead(rows, serverId_, restoreId_), TimeFor(rows.size())); });
  } catch (const std::runtime_error& problem) {
    *error = QString::fromUtf8(problem.what());
    return false;
  }
  restoreRows_ += static_cast<std::int64_t>(rows.size());
  return true;
}

ApplyResult PostgresStore::Finish(const std::vector<StoreChange>& changes, const QString& bootId) {
  const PostgresDeadline deadline = In(kRestoring);
  const QByteArray server = PostgresParameter(serverId_);
  const QByteArray restore = PostgresParameter(restoreId_);
  const Found found = Begin(changes, kRestoring, deadline);
  if (found.epoch != seenEpoch_ && seenEpoch_ != 0) {
    return Conflict({}, QStringLiteral("another Server has restored a backup meanwhile"));
  }
  const auto counted = Connection().Exchange({{kCountRows, {server, restore}}}, deadline);
  if (counted.at(0).Integer(0, 0) != restoreRows_) {
    return Conflict({}, QStringLiteral("rows of the restore are gone; restore the backup again"));
  }
  if (found.isIdUsed) {
    return Conflict({}, QStringLiteral("an adjustment with this id was stored meanwhile"));
  }
  // Whatever it was before: nothing that it decides can be out of balance.
  const auto batch = DecideBatch(changes, BatchKind::Restore, found.accounts);
  if (!batch) {
    connection_->RollBack();
    return Failed(QStringLiteral("the backup's credit and the ledger do not fit together"));
  }
  std::vector<PostgresCall> calls = {{kTakeRows, {server, restore}},
                                     {kTakeUsage, {server, restore}},
                                     {kDropRows, {server}},
                                     {kRaiseEpoch}};
  for (PostgresCall& call : CallsFor(*batch, {serverId_, bootId, found.version})) {
    calls.push_back(std::move(call));
  }
  Commit(std::move(calls), found, *batch, deadline);
  if (seenEpoch_ != 0) ++seenEpoch_;
  restoreId_.clear();
  restoreRows_ = 0;
  return {ApplyStatus::Done, {}, After(*batch, found)};
}

ApplyResult PostgresStore::ApplyLast(const std::vector<StoreChange>& changes,
                                     const QString& bootId) {
  ApplyResult result;
  try {
    Guarded([&] { result = Finish(changes, bootId); });
  } catch (const std::runtime_error& error) {
    return Failed(QString::fromUtf8(error.what()));
  }
  return result;
}

bool PostgresStore::ForgetUnfinished(int most, QString* error) {
  try {
    Guarded([&] {
      const std::int64_t limit = most;
      const PostgresResult gone =
          Query({kForgetRows, {PostgresParameter(serverId_), PostgresParameter(limit)}},
                TimeFor(static_cast<std::size_t>(most)));
      if (gone.Integer(0, 0) == limit) return;
      mayHaveOldRestore_ = false;
      restoreId_.clear();
      restoreRows_ = 0;
    });
    return true;
  } catch (const std::runtime_error& problem) {
    *error = QString::fromUtf8(problem.what());
    return false;
  }
}

}  // namespace vardell::server
