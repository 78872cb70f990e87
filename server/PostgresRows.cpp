#include "server/PostgresRows.h"

#include <stdexcept>

#include "server/Postgres.h"
#include "server/StoreText.h"

namespace vardell::server {
namespace {

using Type = PostgresType;

#define VARDELL_OF_NAMES                                                   \
  " t USING unnest($1::text[], $2::text[]) AS name(\"user\", identifier) " \
  "WHERE t.\"user\" = name.\"user\" AND t.identifier = name.identifier"

constexpr const char* kClear[] = {
    "DELETE FROM lanes" VARDELL_OF_NAMES, "DELETE FROM limits" VARDELL_OF_NAMES,
    "DELETE FROM credit" VARDELL_OF_NAMES, "DELETE FROM top_ups" VARDELL_OF_NAMES};

constexpr char kWriteRemoved[] =
    "INSERT INTO removed_limits SELECT \"user\", identifier, revision, $4::bigint "
    "FROM unnest($1::text[], $2::text[], $3::bigint[]) AS row(\"user\", identifier, revision) "
    "ON CONFLICT (\"user\", identifier) DO UPDATE SET revision = excluded.revision, "
    "version = excluded.version";

constexpr char kWriteLimits[] =
    "INSERT INTO limits SELECT * FROM unnest($1::text[], $2::text[], $3::double precision[], "
    "$4::boolean[], $5::boolean[], $6::bigint[], $7::bigint[], $8::bigint[], $9::bigint[], "
    "$10::bigint[], $11::bigint[], $12::bigint[], $13::bigint[], $14::boolean[], $15::boolean[], "
    "$16::boolean[], $17::bigint[], $18::bigint[], $19::boolean[], $20::bigint[], $21::boolean[], "
    "$22::text[], $23::text[], $24::text[]) "
    "ON CONFLICT (\"user\", identifier) DO UPDATE SET (next_auto_update, report_credit, enabled, "
    "auto_update_coeff, auto_update_value, we_coeff, we_value, wd_start, wd_stop, we_start, "
    "we_stop, wd_curfew_enabled, we_curfew_enabled, dq_enabled, dq_value, revision, roll_over, "
    "roll_over_cap, unlimited, parallel, scope, schedule) = (excluded.next_auto_update, "
    "excluded.report_credit, excluded.enabled, excluded.auto_update_coeff, "
    "excluded.auto_update_value, excluded.we_coeff, excluded.we_value, excluded.wd_start, "
    "excluded.wd_stop, excluded.we_start, excluded.we_stop, excluded.wd_curfew_enabled, "
    "excluded.we_curfew_enabled, excluded.dq_enabled, excluded.dq_value, excluded.revision, "
    "excluded.roll_over, excluded.roll_over_cap, excluded.unlimited, excluded.parallel, "
    "excluded.scope, excluded.schedule)";

constexpr char kWriteTopUpTimes[] =
    "UPDATE limits SET next_auto_update = row.time FROM unnest($1::text[], $2::text[], "
    "$3::double precision[]) AS row(\"user\", identifier, time) "
    "WHERE limits.\"user\" = row.\"user\" AND limits.identifier = row.identifier";

constexpr char kWriteTopUps[] =
    "INSERT INTO top_ups SELECT * FROM unnest($1::text[], $2::text[], $3::text[]) "
    "ON CONFLICT (\"user\", identifier) DO UPDATE SET memory = excluded.memory";

constexpr char kWriteCredit[] =
    "INSERT INTO credit SELECT \"user\", identifier, minutes, spent, $5::bigint "
    "FROM unnest($1::text[], $2::text[], $3::bigint[], $4::boolean[]) "
    "AS row(\"user\", identifier, minutes, spent) "
    "ON CONFLICT (\"user\", identifier) DO UPDATE SET minutes = excluded.minutes, "
    "spent = excluded.spent, version = excluded.version";

constexpr char kForgetLanes[] =
    "DELETE FROM lanes USING unnest($1::text[], $2::text[], $3::text[]) "
    "AS row(\"user\", identifier, host) WHERE lanes.\"user\" = row.\"user\" "
    "AND lanes.identifier = row.identifier AND lanes.host = row.host AND lanes.server = $4";

constexpr char kWriteLanes[] =
    "INSERT INTO lanes SELECT \"user\", identifier, host, $5, $6, paid "
    "FROM unnest($1::text[], $2::text[], $3::text[], $4::bigint[]) "
    "AS row(\"user\", identifier, host, paid) "
    "ON CONFLICT (\"user\", identifier, host, server) DO UPDATE SET boot_id = excluded.boot_id, "
    "paid_until_ms = excluded.paid_until_ms";

#define VARDELL_LEDGER_ROWS                                                                      \
  "SELECT time, day::date, \"user\", identifier, host, source, minutes, credit, used, claimed, " \
  "actor, reason, $13 FROM unnest($1::text[], $2::text[], $3::text[], $4::text[], $5::text[], "  \
  "$6::text[], $7::bigint[], $8::bigint[], $9::bigint[], $10::bigint[], $11::text[], "           \
  "$12::text[]) WITH ORDINALITY AS row(time, day, \"user\", identifier, host, source, minutes, " \
  "credit, used, claimed, actor, reason, place) ORDER BY place"

constexpr char kWriteLedger[] =
    "INSERT INTO ledger (time, day, \"user\", identifier, host, source, minutes, credit, used, "
    "claimed, actor, reason, server) " VARDELL_LEDGER_ROWS;

constexpr char kWriteAhead[] =
    "INSERT INTO restore_rows (restore, time, day, \"user\", identifier, host, source, minutes, "
    "credit, used, claimed, actor, reason, server) "
    "SELECT $14, rows.* FROM (" VARDELL_LEDGER_ROWS ") AS rows";

constexpr char kWriteUsage[] =
    "INSERT INTO usage SELECT \"user\", identifier, day::date, minutes "
    "FROM unnest($1::text[], $2::text[], $3::text[], $4::bigint[]) "
    "AS row(\"user\", identifier, day, minutes) "
    "ON CONFLICT (\"user\", identifier, day) DO UPDATE SET "
    "minutes = usage.minutes + excluded.minutes";

constexpr char kWriteAdjustments[] =
    "INSERT INTO adjustments SELECT * FROM unnest($1::text[], $2::bytea[], $3::bigint[])";

constexpr char kWriteAudits[] =
    "INSERT INTO audit (time, actor, what, \"user\", identifier, before, after, server) "
    "SELECT time, actor, what, \"user\", identifier, before, after, $8 FROM unnest($1::text[], "
    "$2::text[], $3::text[], $4::text[], $5::text[], $6::text[], $7::text[]) WITH ORDINALITY "
    "AS row(time, actor, what, \"user\", identifier, before, after, place) ORDER BY place";

// A date that no clock shows has no text that the database would take.
QString DateText(const QDate& day) {
  return day.year() < 1 || day.year() > 9999 ? QStringLiteral("0001-01-01")
                                             : day.toString(Qt::ISODate);
}

QDate DayOf(const LedgerRow& row) {
  return row.day.isValid() ? row.day : row.time.date();
}

// Calls are left out where there is nothing to write.
class Calls {
 public:
  void Add(const char* sql, const PostgresTable& rows,
           std::initializer_list<QByteArray> others = {}) {
    if (rows.IsEmpty()) return;
    PostgresCall& call = calls.emplace_back(PostgresCall{sql, rows.Parameters()});
    call.parameters.insert(call.parameters.end(), others);
  }

  std::vector<PostgresCall> calls;
};

void AddCleared(const PostgresBatch& batch, Calls* calls) {
  PostgresTable names{Type::Text, Type::Text};
  for (const auto& [user, identifier] : batch.cleared) names.Add(user, identifier);
  for (const char* statement : kClear) calls->Add(statement, names);
}

void AddLimits(const PostgresBatch& batch, Calls* calls) {
  PostgresTable rows{Type::Text,    Type::Text,    Type::Real,    Type::Flag,    Type::Flag,
                     Type::Integer, Type::Integer, Type::Integer, Type::Integer, Type::Integer,
                     Type::Integer, Type::Integer, Type::Integer, Type::Flag,    Type::Flag,
                     Type::Flag,    Type::Integer, Type::Integer, Type::Flag,    Type::Integer,
                     Type::Flag,    Type::Text,    Type::Text,    Type::Text};
  const auto number = [](auto value) { return static_cast<std::int64_t>(value); };
  for (const auto& [name, entry] : batch.limits) {
    const LimitsRecord& limits = entry.limits;
    const LimitOptions& options = entry.options;
    rows.Add(
        name.first, name.second, limits.nextTopUpTime, limits.reportCredit != 0,
        limits.enabled != 0, number(limits.topUpCoefficient), number(limits.topUpValue),
        number(limits.weekEndCoefficient), number(limits.weekEndValue), number(limits.weekDayStart),
        number(limits.weekDayStop), number(limits.weekEndStart), number(limits.weekEndStop),
        limits.weekDayCurfewEnabled != 0, limits.weekEndCurfewEnabled != 0,
        limits.diskQuotaEnabled != 0, number(limits.diskQuotaValue), number(entry.revision),
        options.rollOver, std::optional<std::int64_t>(options.cap), options.unlimited,
        ParallelText(options.parallel), ScopeText(options.scope), ScheduleText(options.schedule));
  }
  calls->Add(kWriteLimits, rows);
}

void AddTopUps(const PostgresBatch& batch, Calls* calls) {
  PostgresTable times{Type::Text, Type::Text, Type::Real};
  for (const auto& [name, time] : batch.topUpTimes) times.Add(name.first, name.second, time);
  calls->Add(kWriteTopUpTimes, times);
  PostgresTable memories{Type::Text, Type::Text, Type::Text};
  for (const auto& [name, memory] : batch.topUps) {
    memories.Add(name.first, name.second, PrintTopUpMemory(memory));
  }
  calls->Add(kWriteTopUps, memories);
}

void AddCredit(const PostgresBatch& batch, std::int64_t version, Calls* calls) {
  PostgresTable removed{Type::Text, Type::Text, Type::Integer};
  for (const auto& [name, revision] : batch.removed) {
    removed.Add(name.first, name.second, static_cast<std::int64_t>(revision));
  }
  calls->Add(kWriteRemoved, removed, {PostgresParameter(version)});
  PostgresTable rows{Type::Text, Type::Text, Type::Integer, Type::Flag};
  for (const AccountName& name : batch.touched) {
    const StoredAccount& account = batch.accounts.at(name);
    rows.Add(name.first, name.second, account.minutes, account.spent);
  }
  calls->Add(kWriteCredit, rows, {PostgresParameter(version)});
}

void AddLanes(const PostgresBatch& batch, const PostgresWriter& writer, Calls* calls) {
  PostgresTable forgotten{Type::Text, Type::Text, Type::Text};
  PostgresTable lanes{Type::Text, Type::Text, Type::Text, Type::Integer};
  for (const auto& [name, paidUntil] : batch.lanes) {
    const auto& [user, identifier, host] = name;
    if (paidUntil) {
      lanes.Add(user, identifier, host, std::int64_t{paidUntil->count()});
    } else {
      forgotten.Add(user, identifier, host);
    }
  }
  const QByteArray server = PostgresParameter(writer.server);
  calls->Add(kForgetLanes, forgotten, {server});
  calls->Add(kWriteLanes, lanes, {server, PostgresParameter(writer.bootId)});
}

PostgresTable TableOf(const std::vector<LedgerRow>& ledger) {
  PostgresTable rows{Type::Text,    Type::Text,    Type::Text,    Type::Text,
                     Type::Text,    Type::Text,    Type::Integer, Type::Integer,
                     Type::Integer, Type::Integer, Type::Text,    Type::Text};
  for (const LedgerRow& row : ledger) {
    rows.Add(TimeText(row.time), DateText(DayOf(row)), row.user, row.identifier, row.host,
             row.source, row.minutes, row.credit, row.used,
             std::optional<std::int64_t>(row.claimed), row.actor, row.reason);
  }
  return rows;
}

void AddUsage(const PostgresBatch& batch, Calls* calls) {
  PostgresTable rows{Type::Text, Type::Text, Type::Text, Type::Integer};
  for (const auto& [key, minutes] : batch.usage) {
    const auto& [user, identifier, day] = key;
    rows.Add(user, identifier, DateText(day), minutes);
  }
  calls->Add(kWriteUsage, rows);
}

void AddRecords(const PostgresBatch& batch, const QByteArray& server, Calls* calls) {
  PostgresTable adjustments{Type::Text, Type::Blob, Type::Integer};
  for (const AdjustmentRow& row : batch.adjustments) {
    adjustments.Add(row.id, row.digest, row.added);
  }
  calls->Add(kWriteAdjustments, adjustments);
  PostgresTable audits{Type::Text, Type::Text, Type::Text, Type::Text,
                       Type::Text, Type::Text, Type::Text};
  for (const AuditRow& row : batch.audits) {
    audits.Add(TimeText(row.time), row.actor, row.what, row.user, row.identifier, row.before,
               row.after);
  }
  calls->Add(kWriteAudits, audits, {server});
}

std::runtime_error Damaged(const QString& line, const QString& what, const QString& user,
                           const QString& identifier) {
  return std::runtime_error(line.arg(what, user, identifier).toStdString());
}

LimitsEntry ReadLimits(const PostgresResult& rows, int row, const QString& what) {
  const auto integer = [&](int column) {
    return static_cast<std::int32_t>(rows.Integer(row, column));
  };
  const auto flag = [&](int column) {
    return static_cast<std::uint8_t>(rows.Flag(row, column) ? 1 : 0);
  };
  LimitsEntry entry;
  entry.user = rows.Text(row, 0);
  entry.identifier = rows.Text(row, 1);
  entry.revision = static_cast<std::uint64_t>(rows.Integer(row, 5));
  entry.limits.nextTopUpTime = rows.Real(row, 6);
  entry.limits.reportCredit = flag(7);
  entry.limits.enabled = flag(8);
  entry.limits.topUpCoefficient = static_cast<std::int8_t>(integer(9));
  entry.limits.topUpValue = integer(10);
  entry.limits.weekEndCoefficient = static_cast<std::int8_t>(integer(11));
  entry.limits.weekEndValue = integer(12);
  entry.limits.weekDayStart = integer(13);
  entry.limits.weekDayStop = integer(14);
  entry.limits.weekEndStart = integer(15);
  entry.limits.weekEndStop = integer(16);
  entry.limits.weekDayCurfewEnabled = flag(17);
  entry.limits.weekEndCurfewEnabled = flag(18);
  entry.limits.diskQuotaEnabled = flag(19);
  entry.limits.diskQuotaValue = integer(20);
  entry.options.rollOver = rows.Flag(row, 21);
  if (!rows.IsNull(row, 22)) entry.options.cap = rows.Integer(row, 22);
  entry.options.unlimited = rows.Flag(row, 23);
  const bool isReadable = ReadParallel(rows.Text(row, 24), &entry.options.parallel) &&
                          ReadScope(rows.Text(row, 25), &entry.options.scope) &&
                          ReadSchedule(rows.Text(row, 26), &entry.options.schedule);
  if (isReadable) return entry;
  throw Damaged(QStringLiteral("the store, %1, is damaged (the options of %2, %3, cannot be read); "
                               "restore a backup of the database"),
                what, entry.user, entry.identifier);
}

TopUpRow ReadTopUp(const PostgresResult& rows, int row, const QString& what) {
  const QString user = rows.Text(row, 0);
  const QString identifier = rows.Text(row, 1);
  const std::optional<TopUpMemory> memory = ParseTopUpMemory(rows.Text(row, 27));
  if (memory) return {user, identifier, rows.Real(row, 6), *memory};
  throw Damaged(QStringLiteral("the store, %1, is damaged (which top-ups %2, %3, has had cannot be "
                               "read); restore a backup of the database"),
                what, user, identifier);
}

}  // namespace

const char kAccountsQuery[] =
    "SELECT c.\"user\", c.identifier, c.minutes, c.spent, coalesce(l.unlimited, false), c.version "
    "FROM unnest($1::text[], $2::text[]) AS name(\"user\", identifier) "
    "JOIN credit c USING (\"user\", identifier) LEFT JOIN limits l USING (\"user\", identifier)";

StoredAccounts ReadStoredAccounts(const PostgresResult& rows) {
  StoredAccounts accounts;
  for (int row = 0; row < rows.Rows(); ++row) {
    accounts[{rows.Text(row, 0), rows.Text(row, 1)}] = {
        rows.Integer(row, 2), rows.Flag(row, 3), rows.Flag(row, 4),
        static_cast<std::uint64_t>(rows.Integer(row, 5))};
  }
  return accounts;
}

std::vector<QByteArray> NameParameters(const std::set<AccountName>& names) {
  PostgresTable rows{Type::Text, Type::Text};
  for (const auto& [user, identifier] : names) rows.Add(user, identifier);
  return rows.Parameters();
}

std::vector<PostgresCall> CallsFor(const PostgresBatch& batch, const PostgresWriter& writer) {
  Calls calls;
  const QByteArray server = PostgresParameter(writer.server);
  AddCleared(batch, &calls);
  AddLimits(batch, &calls);
  AddTopUps(batch, &calls);
  AddCredit(batch, writer.version, &calls);
  AddLanes(batch, writer, &calls);
  calls.Add(kWriteLedger, TableOf(batch.ledger), {server});
  AddUsage(batch, &calls);
  AddRecords(batch, server, &calls);
  return std::move(calls.calls);
}

PostgresCall CallToWriteAhead(const std::vector<LedgerRow>& rows, const QString& server,
                              const QString& restore) {
  PostgresCall call{kWriteAhead, TableOf(rows).Parameters()};
  call.parameters.push_back(PostgresParameter(server));
  call.parameters.push_back(PostgresParameter(restore));
  return call;
}

void ReadAccounts(const PostgresResult& rows, const QString& what, StoreContents* contents) {
  for (int row = 0; row < rows.Rows(); ++row) {
    contents->credit.push_back({rows.Text(row, 0), rows.Text(row, 1), rows.Integer(row, 2),
                                rows.Flag(row, 3),
                                static_cast<std::uint64_t>(rows.Integer(row, 4))});
    if (rows.IsNull(row, 5)) continue;
    contents->limits.push_back(ReadLimits(rows, row, what));
    if (!rows.IsNull(row, 27)) contents->topUps.push_back(ReadTopUp(rows, row, what));
  }
}

void ReadRemoved(const PostgresResult& rows, StoreContents* contents) {
  for (int row = 0; row < rows.Rows(); ++row) {
    contents->removed.push_back(
        {rows.Text(row, 0), rows.Text(row, 1), static_cast<std::uint64_t>(rows.Integer(row, 2))});
  }
}

void ReadUsage(const PostgresResult& rows, StoreContents* contents) {
  for (int row = 0; row < rows.Rows(); ++row) {
    contents->usage.push_back({rows.Text(row, 0), rows.Text(row, 1),
                               QDate::fromString(rows.Text(row, 2), Qt::ISODate),
                               rows.Integer(row, 3)});
  }
}

std::vector<LedgerRow> ReadLedger(const PostgresResult& rows) {
  std::vector<LedgerRow> ledger;
  for (int row = 0; row < rows.Rows(); ++row) {
    LedgerRow& entry = ledger.emplace_back();
    entry.id = rows.Integer(row, 0);
    entry.time = QDateTime::fromString(rows.Text(row, 1), Qt::ISODateWithMs);
    entry.user = rows.Text(row, 2);
    entry.identifier = rows.Text(row, 3);
    entry.host = rows.Text(row, 4);
    entry.source = rows.Text(row, 5);
    entry.minutes = rows.Integer(row, 6);
    entry.credit = rows.Integer(row, 7);
    entry.used = rows.Integer(row, 8);
    if (!rows.IsNull(row, 9)) entry.claimed = static_cast<std::int32_t>(rows.Integer(row, 9));
    entry.actor = rows.Text(row, 10);
    entry.reason = rows.Text(row, 11);
    entry.day = QDate::fromString(rows.Text(row, 12), Qt::ISODate);
  }
  return ledger;
}

}  // namespace vardell::server
