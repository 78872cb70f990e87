#include "server/SqliteWriting.h"

#include "server/Sqlite.h"
#include "server/StoreText.h"

namespace vardell::server {
namespace {

std::int64_t Flag(bool flag) {
  return flag ? 1 : 0;
}

void BindOptional(SqliteStatement& row, const std::optional<std::int64_t>& value) {
  if (value) {
    row << *value;
  } else {
    row << nullptr;
  }
}

void Write(SqliteDatabase& database, const LimitsEntry& entry) {
  const LimitsRecord& limits = entry.limits;
  SqliteStatement row(database,
                      "INSERT OR REPLACE INTO limits VALUES "
                      "(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
  row << entry.user << entry.identifier << limits.nextTopUpTime << Flag(limits.reportCredit)
      << Flag(limits.enabled) << std::int64_t{limits.topUpCoefficient}
      << std::int64_t{limits.topUpValue} << std::int64_t{limits.weekEndCoefficient}
      << std::int64_t{limits.weekEndValue} << std::int64_t{limits.weekDayStart}
      << std::int64_t{limits.weekDayStop} << std::int64_t{limits.weekEndStart}
      << std::int64_t{limits.weekEndStop} << Flag(limits.weekDayCurfewEnabled)
      << Flag(limits.weekEndCurfewEnabled) << Flag(limits.diskQuotaEnabled)
      << std::int64_t{limits.diskQuotaValue} << static_cast<std::int64_t>(entry.revision)
      << Flag(entry.options.rollOver);
  BindOptional(row, entry.options.cap);
  row << Flag(entry.options.unlimited) << ParallelText(entry.options.parallel)
      << ScopeText(entry.options.scope) << ScheduleText(entry.options.schedule);
  row.Run();
}

void Write(SqliteDatabase& database, const TopUpRow& topUp) {
  SqliteStatement next(database,
                       "UPDATE limits SET next_auto_update = ? WHERE user = ? AND identifier = ?");
  next << topUp.nextTime << topUp.user << topUp.identifier;
  next.Run();
  SqliteStatement memory(database, "INSERT OR REPLACE INTO top_ups VALUES (?, ?, ?)");
  memory << topUp.user << topUp.identifier << PrintTopUpMemory(topUp.memory);
  memory.Run();
}

void Write(SqliteDatabase& database, const RemovedLimits& removed) {
  for (const char* sql : {"DELETE FROM limits WHERE user = ? AND identifier = ?",
                          "DELETE FROM credit WHERE user = ? AND identifier = ?",
                          "DELETE FROM lanes WHERE user = ? AND identifier = ?",
                          "DELETE FROM top_ups WHERE user = ? AND identifier = ?"}) {
    SqliteStatement rows(database, sql);
    rows << removed.user << removed.identifier;
    rows.Run();
  }
  SqliteStatement row(database, "INSERT OR REPLACE INTO removed_limits VALUES (?, ?, ?)");
  row << removed.user << removed.identifier << static_cast<std::int64_t>(removed.revision);
  row.Run();
}

void Write(SqliteDatabase& database, const CreditRow& credit) {
  SqliteStatement row(database, "INSERT OR REPLACE INTO credit VALUES (?, ?, ?, ?)");
  row << credit.user << credit.identifier << credit.minutes << Flag(credit.spent);
  row.Run();
}

void Write(SqliteDatabase& database, const LaneRow& lane, const QString& bootId) {
  SqliteStatement row(database, "INSERT OR REPLACE INTO lanes VALUES (?, ?, ?, ?, ?)");
  row << lane.user << lane.identifier << lane.host << bootId
      << std::int64_t{lane.paidUntil.count()};
  row.Run();
}

void Forget(SqliteDatabase& database, const LaneRow& lane) {
  SqliteStatement row(database, "DELETE FROM lanes WHERE user = ? AND identifier = ? AND host = ?");
  row << lane.user << lane.identifier << lane.host;
  row.Run();
}

void AddUsage(SqliteDatabase& database, const LedgerRow& entry) {
  if (entry.used == 0) return;
  SqliteStatement row(database,
                      "INSERT INTO usage VALUES (?, ?, ?, ?) ON CONFLICT (user, identifier, day) "
                      "DO UPDATE SET minutes = minutes + excluded.minutes");
  row << entry.user << entry.identifier << DayText(entry) << entry.used;
  row.Run();
}

void Write(SqliteDatabase& database, const AdjustmentRow& adjustment) {
  SqliteStatement row(database, "INSERT INTO adjustments (id, digest, added) VALUES (?, ?, ?)");
  row << adjustment.id << adjustment.digest << adjustment.added;
  row.Run();
}

void Write(SqliteDatabase& database, const AuditRow& audit) {
  SqliteStatement row(database,
                      "INSERT INTO audit (time, actor, what, user, identifier, before, after) "
                      "VALUES (?, ?, ?, ?, ?, ?, ?)");
  row << TimeText(audit.time) << audit.actor << audit.what << audit.user << audit.identifier
      << audit.before << audit.after;
  row.Run();
}

}  // namespace

void WriteLedgerRow(SqliteDatabase& database, const LedgerRow& entry) {
  SqliteStatement row(database,
                      "INSERT INTO ledger (time, day, user, identifier, host, source, minutes, "
                      "credit, used, claimed, actor, reason) "
                      "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
  row << TimeText(entry.time) << DayText(entry) << entry.user << entry.identifier << entry.host
      << entry.source << entry.minutes << entry.credit << entry.used;
  BindOptional(row, entry.claimed);
  row << entry.actor << entry.reason;
  row.Run();
}

void WriteChange(SqliteDatabase& database, const StoreChange& change, const QString& bootId) {
  if (change.removed) Write(database, *change.removed);
  if (change.limits) Write(database, *change.limits);
  if (change.topUp) Write(database, *change.topUp);
  if (change.credit) Write(database, *change.credit);
  if (change.forgottenLane) Forget(database, *change.forgottenLane);
  if (change.lane) Write(database, *change.lane, bootId);
  if (change.ledger) WriteLedgerRow(database, *change.ledger);
  if (change.ledger) AddUsage(database, *change.ledger);
  if (change.adjustment) Write(database, *change.adjustment);
  if (change.audit) Write(database, *change.audit);
}

void AddUsageFrom(SqliteDatabase& database, std::int64_t first) {
  SqliteStatement rows(database,
                       "INSERT INTO usage SELECT user, identifier, day, sum(used) FROM ledger "
                       "WHERE id >= ? AND source = 'restore' GROUP BY user, identifier, day ON "
                       "CONFLICT (user, identifier, day) "
                       "DO UPDATE SET minutes = minutes + excluded.minutes");
  rows << first;
  rows.Run();
}

void WriteNumber(SqliteDatabase& database, const QString& serverId, std::uint64_t number) {
  SqliteStatement row(database, "INSERT OR REPLACE INTO numbers VALUES (?, ?)");
  row << serverId << static_cast<std::int64_t>(number);
  row.Run();
}

}  // namespace vardell::server
