// The tables of a store of PostgreSQL, in the schema "vardell", version by version.
//
// They are those of SQLite, and what several Servers need that share them:
//   state            one row: `version` counts transactions, `epoch` finished restores
//   credit.version, removed_limits.version   of the transaction that changed the account last
//   ledger.server, lanes.server              whose they are
//   restore_rows     the ledger's rows of restores that are under way
// Who writes takes the advisory lock kPostgresLock first, so that versions and the ledger's ids are
// in the order in which they are seen.
#pragma once

#include "server/Postgres.h"

namespace vardell::server {

inline constexpr std::int64_t kPostgresLock = 0x56617264;  // "Vard"

// Makes or migrates the tables; one of several Servers that start at once does it, the others wait.
// Throws PostgresError, or std::runtime_error with a line for people (`what` names the store) where
// the database is of a newer version, read-only or of another encoding than UTF-8.
void PreparePostgres(PostgresConnection& connection, const QString& what,
                     PostgresDeadline deadline);

// Whether it still is what PreparePostgres has left; throws likewise where it is not.
void CheckPostgres(PostgresConnection& connection, const QString& what, PostgresDeadline deadline);

}  // namespace vardell::server
