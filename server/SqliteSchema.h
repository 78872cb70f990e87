// The tables of a store of SQLite, version by version.
#pragma once

#include <QString>

#include "server/Store.h"

namespace vardell::server {

class SqliteDatabase;

// Makes or migrates the tables and sets the file's modes of operation. Throws SqliteError, or
// std::runtime_error with a line for people where the file is not a store or a newer one.
// `version`: tests make stores of an older one.
void PrepareStore(SqliteDatabase& database, const QString& path, int version = kStoreSchemaVersion);

}  // namespace vardell::server
