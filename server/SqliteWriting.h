// What changes the tables of a store of SQLite, within the caller's transaction. All of it waits
// for the database, and throws SqliteError.
#pragma once

#include <QString>
#include <cstdint>

#include "server/Store.h"

namespace vardell::server {

class SqliteDatabase;

void WriteChange(SqliteDatabase& database, const StoreChange& change, const QString& bootId);

// A row that a restore writes ahead: the usage that it books is not added.
void WriteLedgerRow(SqliteDatabase& database, const LedgerRow& entry);
// Adds it, of such rows from the first one on.
void AddUsageFrom(SqliteDatabase& database, std::int64_t first);

// Of the last change that is stored for a Server.
void WriteNumber(SqliteDatabase& database, const QString& serverId, std::uint64_t number);

}  // namespace vardell::server
