// The rows of a store of PostgreSQL: statements that write and read them.
#pragma once

#include "server/PostgresBatch.h"

namespace vardell::server {

struct PostgresCall;
class PostgresResult;

// --- Writing. Everything of a table is one statement.

struct PostgresWriter {
  QString server;
  QString bootId;
  std::int64_t version = 0;
};

std::vector<PostgresCall> CallsFor(const PostgresBatch& batch, const PostgresWriter& writer);
// `restore`: which one of the server's.
PostgresCall CallToWriteAhead(const std::vector<LedgerRow>& rows, const QString& server,
                              const QString& restore);

// Arrays of users and of identifiers.
std::vector<QByteArray> NameParameters(const std::set<AccountName>& names);

// --- Reading. The columns are those of the statements beside.

// Credit, limits and top-ups of accounts. Throws std::runtime_error with a line for people (`what`
// names the store) where they are damaged.
#define VARDELL_ACCOUNT_COLUMNS                                                                    \
  "c.\"user\", c.identifier, c.minutes, c.spent, c.version, l.revision, l.next_auto_update, "      \
  "l.report_credit, l.enabled, l.auto_update_coeff, l.auto_update_value, l.we_coeff, l.we_value, " \
  "l.wd_start, l.wd_stop, l.we_start, l.we_stop, l.wd_curfew_enabled, l.we_curfew_enabled, "       \
  "l.dq_enabled, l.dq_value, l.roll_over, l.roll_over_cap, l.unlimited, l.parallel, l.scope, "     \
  "l.schedule, t.memory FROM credit c LEFT JOIN limits l USING (\"user\", identifier) "            \
  "LEFT JOIN top_ups t USING (\"user\", identifier) "
void ReadAccounts(const PostgresResult& rows, const QString& what, StoreContents* contents);

// user, identifier, revision
void ReadRemoved(const PostgresResult& rows, StoreContents* contents);
// user, identifier, day, minutes
void ReadUsage(const PostgresResult& rows, StoreContents* contents);

#define VARDELL_LEDGER_COLUMNS                                                                    \
  "id, time, \"user\", identifier, host, source, minutes, credit, used, claimed, actor, reason, " \
  "day::text FROM ledger "
std::vector<LedgerRow> ReadLedger(const PostgresResult& rows);

// What kAccountsQuery answers, of NameParameters.
extern const char kAccountsQuery[];
StoredAccounts ReadStoredAccounts(const PostgresResult& rows);

}  // namespace vardell::server
